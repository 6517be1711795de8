// Costs of the policy input state machine's handler: one new candidate path with two new
// three-label segment lists (its segments mostly known already, as on a loaded router), and one
// candidate handled again without a change. The records are written into the input table
// beforehand with the table's reactor switched off, so that only the handler is measured.
#include <benchmark/benchmark.h>

#include "SrTePolicy/SrTePolicyInputSm.h"

using namespace SrTePolicy;

namespace {

struct Rig {
  Rig() {
    core->handleInitialized();
    sources->policyInputIs(PolicySource::sourceBgp, table);
    sm = policyInputSmFactory(
        sources, policySelectionInputFactory("psi"), core, segmentListIdToPolicyMapFactory("users"),
        segmentIdToSegmentListFactory("segLists"), policyKeyToIdMapFactory("keys"));
    sm->policy(PolicySource::sourceBgp)->hasNotificationActiveIs(false);
  }

  // Candidate n: its own endpoint, two stacks that no other candidate names, drawn from a pool
  // of a few thousand labels.
  PolicyInputEntry candidate(U32 n) const {
    PolicyInputEntry e(PolicyId::make(PolicySource::sourceBgp, n));
    e.endpointIs(Ludd::IpAddr::fromU32(0x0a000000 + n));
    e.colorIs(Color(7));
    e.bindingSidIs(Ludd::MplsLabel(100000 + n % 900000));
    for (U32 k = 0; k < 2; ++k) {
      Ludd::MplsLabelOperation stack{16000 + k * 1000 + n % 1000, 18000 + n / 1000 % 1000,
                                     20000 + n / 1000000};
      e.segmentListPush(WeightedSegList(Weight(1 + k), stack));
    }
    return e;
  }

  Mosk::Ptr<CoreDedupTables> core = coreDedupTablesFactory();
  Mosk::Ptr<PolicyInputSource> sources = policyInputSourceFactory();
  Mosk::Ptr<PolicyInput> table = policyInputFactory("bgp");
  Mosk::Ptr<PolicyInputSm> sm;
};

void BM_HandleNewCandidate(benchmark::State& state) {
  Rig rig;
  constexpr U32 batch = 4096;
  U32 next = 0, written = 0;
  for (auto _ : state) {
    if (next == written) {
      state.PauseTiming();
      for (U32 i = 0; i < batch; ++i)
        rig.table->policyInputEntryIs(rig.candidate(written++));
      state.ResumeTiming();
    }
    rig.sm->handlePolicyEntry(PolicyId::make(PolicySource::sourceBgp, next++));
  }
}
BENCHMARK(BM_HandleNewCandidate);

void BM_HandleUnchangedCandidate(benchmark::State& state) {
  Rig rig;
  // A loaded store, so that lookups do not run in an empty table.
  for (U32 n = 0; n < 10000; ++n) {
    rig.table->policyInputEntryIs(rig.candidate(n));
    rig.sm->handlePolicyEntry(PolicyId::make(PolicySource::sourceBgp, n));
  }
  PolicyId const id = PolicyId::make(PolicySource::sourceBgp, 4321);
  for (auto _ : state)
    rig.sm->handlePolicyEntry(id);
}
BENCHMARK(BM_HandleUnchangedCandidate);

}  // namespace
