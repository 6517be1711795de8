// Costs of the publishing stages at router scale: publishing every policy of an EcPolicy with
// its binding-SID route (start-up), re-publishing one changed policy among many (steady state),
// and exporting the segment lists of the store.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "SrTePolicy/SrTePolicyExportSms.h"
#include "SrTePolicy/SrTePolicyLfibGenSm.h"
#include "SrTePolicy/SrTePolicyPublishSm.h"

using namespace SrTePolicy;
using Mosk::Ptr;

namespace {

constexpr U32 kListsPerPolicy = 4;

PolicyKey keyOf(U32 n) {
  return PolicyKey(Ludd::IpAddr::fromU32(0x0a000000 + n), Color(n % 8));
}

// EcPolicy with `count` policies, each with one active candidate of four segment lists.
Ptr<EcPolicy> filledEcPolicy(U32 count) {
  Ptr<EcPolicy> ec = ecPolicyFactory("ecPolicy");
  for (U32 n = 0; n < count; ++n) {
    Ptr<Policy> policy = ec->policyIs(keyOf(n));
    Ptr<PolicyEntry> entry =
        policy->candidateIs(Priority(Preference(100), PolicySource::sourceBgp, {}, n));
    entry->bindingSidIs(Ludd::MplsLabel(16 + 2 * n));
    for (U32 l = 0; l < kListsPerPolicy; ++l) {
      entry->wSegmentListIs(
          SegmentListId(n * kListsPerPolicy + l + 1),
          WeightedSegmentList(Tunnel::TunnelTable::TunnelId(n * kListsPerPolicy + l + 1),
                              Weight(1)));
    }
    policy->activeIs(entry);
  }
  return ec;
}

struct Pipeline {
  explicit Pipeline(Ptr<EcPolicy> ec) : ecPolicy(std::move(ec)) { lfibStatus->lfibIs("bsidLfib"); }
  void start() {
    lfibGen = srTePolicyLfibGenSmFactory(status, lfibStatus, alloc);
    publish = policyPublishSmFactory(ecPolicy, scheduler, status, wheel, fwd);
  }
  Ptr<Vell::ManualClock> clock = Vell::manualClockFactory();
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(clock);
  Ptr<Vell::TimerWheel> wheel = Vell::timerWheelFactory(scheduler);
  Ptr<EcPolicy> ecPolicy;
  Ptr<PolicyStatus> status = policyStatusFactory();
  Ptr<Skerry::Fib::ForwardingStatus> fwd = Skerry::Fib::forwardingStatusFactory("fwd");
  Ptr<SrTePolicyLfibStatus> lfibStatus = srTePolicyLfibStatusFactory();
  Ptr<MplsHelper::LfibGenAdjIdxAllocator> alloc = MplsHelper::lfibGenAdjIdxAllocatorFactory();
  Ptr<SrTePolicyLfibGenSm> lfibGen;
  Ptr<PolicyPublishSm> publish;
};

// Start-up: every policy gets its FEC, status entry and binding-SID route. Per item: one policy.
void BM_PublishAllAtStartUp(benchmark::State& state) {
  U32 const count = static_cast<U32>(state.range(0));
  Ptr<EcPolicy> ec = filledEcPolicy(count);
  for (auto _ : state) {
    state.PauseTiming();
    auto p = std::make_unique<Pipeline>(ec);
    state.ResumeTiming();
    p->start();
    p->scheduler->runDue();
    benchmark::DoNotOptimize(p->fwd->fecCount());
    state.PauseTiming();
    p.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()) * count);
}
BENCHMARK(BM_PublishAllAtStartUp)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Steady state: one policy's binding SID changes among many published ones; the delay passes
// and the task re-publishes it (FEC rewrite, fresh weighted set, LFIB re-install).
void BM_RepublishOneChange(benchmark::State& state) {
  U32 const count = static_cast<U32>(state.range(0));
  Pipeline p(filledEcPolicy(count));
  p.start();
  p.scheduler->runDue();
  U32 n = 0;
  for (auto _ : state) {
    Ptr<PolicyEntry> active = p.ecPolicy->policy(keyOf(n % count))->active();
    active->bindingSidIs(Ludd::MplsLabel(active->bindingSid().value() ^ 1));
    p.clock->advance(0.05);
    p.scheduler->runDue();
    ++n;
  }
}
BENCHMARK(BM_RepublishOneChange)->Arg(100000);

// Start-up export of every segment list of the store. Per item: one list of three labels.
void BM_ExportAllLists(benchmark::State& state) {
  U32 const count = static_cast<U32>(state.range(0));
  Ptr<CoreDedupTables> tables = coreDedupTablesFactory();
  tables->handleInitialized();
  std::vector<Ptr<SegmentList>> lists;
  for (U32 n = 0; n < count; ++n) {
    Ptr<SegmentList> l = segmentListFactory();
    for (U32 i = 0; i < 3; ++i) {
      l->segmentIs(Ludd::MplsStackEntryIndex(i),
                   segmentMplsLabelFactory(SegmentType::segMplsLabel, Ludd::MplsLabel(16 + n + i))
                       ->dedup(*tables->segDedupTablePtr()));
    }
    l->sizeIs(3);
    lists.push_back(l->dedup(*tables->segListDedupTablePtr()));
  }
  Ptr<Export::SegmentListCollection> exported = Export::segmentListCollectionFactory("export");
  for (auto _ : state) {
    Ptr<SegmentListExportSm> sm =
        segmentListExportSmFactory(tables->notifyingSegmentListCollection(), exported);
    benchmark::DoNotOptimize(exported->segmentListCount());
    state.PauseTiming();
    sm = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()) * count);
}
BENCHMARK(BM_ExportAllLists)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
