// The policy selection machine at router scale: the cost per candidate path of the immediate
// path (a candidate path appears with a resolved list, is filed and selected, then goes) and of
// the task path (a status change of a shared list queues every candidate that uses it and the
// task reconciles them). 100,000 candidate paths, four per policy.
#include <benchmark/benchmark.h>

#include "SrTePolicy/SrTePolicySelectionSm.h"

namespace {

using namespace SrTePolicy;
using Tunnel::TunnelTable::TunnelId;

constexpr U32 kPaths = 100000;
constexpr U32 kPathsPerPolicy = 4;
constexpr U32 kLists = 64;

struct Pipeline {
  Pipeline() {
    scheduler->yieldPolicyIs(Vell::YieldPolicy::never());
    for (U32 l = 1; l <= kLists; ++l) {
      auto list = segmentListFactory();
      list->segmentListIdIs(SegmentListId(l));
      users->segmentListUserIs(SegmentListId(l), list);
      status->statusIs(SegmentListId(l), TunnelId(1000 + l));
    }
    sm->handleInitialized();
  }
  // Path `i`: policy i / 4, preference by its place in the policy, list i % 64.
  void addPath(U32 i) {
    PolicyKey key(Ludd::IpAddr::fromU32(0x0a000000 + i / kPathsPerPolicy), Color(1));
    auto e = input->policyIdEntryIs(i, key, Preference(100 + i % kPathsPerPolicy),
                                    PolicySource::sourceBgp, Ludd::IpAddr::fromU32(0x01010101));
    SegmentListId list(1 + i % kLists);
    users->segmentListUser(list)->policyIdIs(PolicyId(i), true);
    e->wSegmentListIs(list, Weight(1));
  }

  Mosk::Ptr<PolicySelectionInput> input = policySelectionInputFactory("input");
  Mosk::Ptr<SegmentListStatus> status = segmentListStatusFactory("status");
  Mosk::Ptr<SegmentListIdToPolicyMap> users = segmentListIdToPolicyMapFactory("users");
  Mosk::Ptr<EcPolicy> ec = ecPolicyFactory("ec");
  Mosk::Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  Mosk::Ptr<PolicySelectionSm> sm = policySelectionSmFactory(input, status, users, ec, scheduler);
};

// Per candidate path: its entry and its resolved list arrive (filed, selected at once), then
// the entry goes (removed, policy reselected or removed). Includes the input's own writes.
void BM_SelectionAddRemovePath(benchmark::State& state) {
  Pipeline p;
  for (auto _ : state) {
    for (U32 i = 0; i < kPaths; ++i)
      p.addPath(i);
    for (U32 i = 0; i < kPaths; ++i)
      p.input->policyIdEntryDel(i);
  }
  state.SetItemsProcessed(state.iterations() * kPaths);
}
BENCHMARK(BM_SelectionAddRemovePath)->Unit(benchmark::kMillisecond);

// Per candidate path: every list loses its status and gets it back, and the task drains the
// queued ids twice (all candidates leave, then all return).
void BM_SelectionStatusFlapThroughTask(benchmark::State& state) {
  Pipeline p;
  for (U32 i = 0; i < kPaths; ++i)
    p.addPath(i);
  for (auto _ : state) {
    for (U32 l = 1; l <= kLists; ++l)
      p.status->statusDel(SegmentListId(l));
    p.scheduler->runDue();
    for (U32 l = 1; l <= kLists; ++l)
      p.status->statusIs(SegmentListId(l), TunnelId(1000 + l));
    p.scheduler->runDue();
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPaths);
}
BENCHMARK(BM_SelectionStatusFlapThroughTask)->Unit(benchmark::kMillisecond);

}  // namespace
