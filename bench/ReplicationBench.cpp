// The cost of replicating one policy change through the attribute log: a new active candidate
// in an EcPolicy of N policies, from the write to the reader's copy (flush, then apply), and
// the bytes that go on the wire for it.
#include <benchmark/benchmark.h>

#include "EcPolicyChange.h"

using namespace SrTePolicy;

namespace {

using SrTeBench::policyKey;
using SrTeBench::priority;

// Each iteration switches one policy between its two candidates and updates a segment list's
// weight, as a selection run does, then flushes and applies the log to the mounted copy.
void BM_ReplicateOnePolicyChange(benchmark::State& state) {
  U32 n = static_cast<U32>(state.range(0));
  auto source = SrTeBench::ecPolicyOfTwoCandidates(n);
  auto adapter = Mosk::logAdapterFactory(Mosk::constPtr(source));
  adapter->activate();
  auto copy = ecPolicyFactory("EcPolicy");
  auto mount = Mosk::logMountFactory(copy, "SrTePolicyAgent");
  mount->apply(adapter->snapshot());
  U32 i = 0;
  U64 bytes = 0;
  for (auto _ : state) {
    SrTeBench::changeOnePolicy(*source, n, i);
    std::vector<U8> log = adapter->flush();
    bytes += log.size();
    mount->apply(log);
    ++i;
  }
  state.counters["bytes"] =
      benchmark::Counter(static_cast<double>(bytes) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_ReplicateOnePolicyChange)->Arg(1)->Arg(10000);

// The same change with no adapter attached: what the writer pays when nothing replicates.
void BM_PolicyChangeWithoutReplication(benchmark::State& state) {
  auto source = ecPolicyFactory("EcPolicy");
  auto policy = source->policyIs(policyKey(1));
  auto a = policy->candidateIs(priority(100, 2));
  auto b = policy->candidateIs(priority(101, 3));
  U32 i = 0;
  for (auto _ : state) {
    auto next = (i & 1) ? a : b;
    next->wSegmentListIs(SegmentListId(1),
                         WeightedSegmentList(Tunnel::TunnelTable::TunnelId(2), Weight(i % 5 + 1)));
    policy->activeIs(next);
    ++i;
  }
}
BENCHMARK(BM_PolicyChangeWithoutReplication);

}  // namespace
