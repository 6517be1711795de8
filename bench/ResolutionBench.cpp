// Resolution at scale: 10,000 segment lists share one top label, and the LFIB route of that
// label moves to another adjacency. Measured from the route change to the drained segment-list
// task: the segment state machine rewrites one status entry, the segment-list state machine
// queues every list that holds the segment and re-resolves each one into its tunnel entry.
// The split benchmarks time the queueing alone and one list's resolution alone.
#include <benchmark/benchmark.h>

#include <vector>

#include "SegmentStore.h"
#include "SrTePolicy/SrTePolicySegmentListSm.h"
#include "SrTePolicy/SrTePolicySegmentSm.h"

namespace {

using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Mosk::Ptr;
using namespace SrTePolicy;

constexpr U32 kLists = 10000;
constexpr U32 kTopLabel = 16000;

// The resolution stages wired by hand, with kLists lists [top, 100000 + i, 200000 + i].
struct Pipeline {
  Pipeline() {
    for (U64 adj = 1; adj <= 2; ++adj) {
      Mpls::ViaSet vias;
      for (U32 v = 0; v < 2; ++v) {
        vias.viaIs(Mpls::Via(IntfId(IntfId::Kind::ethernet, static_cast<U32>(adj * 10 + v)),
                             IpGenAddr::parse(v == 0 ? "10.0.0.2" : "10.0.1.2"),
                             Ludd::MplsLabelAction::actionSwap,
                             MplsLabel(static_cast<U32>(900 + adj))));
      }
      lfib->lfibAdjacencyIs(adj, Mpls::LfibAdjacency(vias));
    }
    routeTo(1);
    segmentSm->handleInitialized();
    listSm->handleInitialized();
    for (U32 i = 0; i < kLists; ++i) {
      Ptr<SegmentList> l = segmentListFactory();
      U32 labels[3] = {kTopLabel, 100000 + i, 200000 + i};
      for (U32 p = 0; p < 3; ++p)
        l->segmentIs(Ludd::MplsStackEntryIndex(p), segment(labels[p]));
      l->sizeIs(3);
      l = l->dedup(*tables->segListDedupTablePtr());
      for (U32 p = 0; p < 3; ++p) {
        SegmentId id = l->getSegmentId(p);
        if (!segToLists->segmentList(id)) {
          segToLists->segmentListIs(id, segmentListCollectionFactory());
        }
        segToLists->segmentList(id)->segmentListPtrIs(l, true);
      }
      lists.push_back(l);
    }
    scheduler->yieldPolicyIs(Vell::YieldPolicy::never());
    scheduler->runDue();
  }
  ~Pipeline() {
    listSm = nullptr;
    segmentSm = nullptr;
  }

  Ptr<SegmentMplsLabel> segment(U32 label) { return TestSupport::segment(*tables, label); }
  void routeTo(U64 adj) {
    Mpls::RouteKey key(MplsLabel(kTopLabel), Mpls::LFib::Source(3));
    lfib->lfibRouteIs(Mpls::LFib::Route(
        key, Mpls::AdjacencyKey(adj, Mpls::AdjacencyKind::adjacency), Mpls::LFib::RouteType::label,
        Mpls::LFib::Source(3), 0, Ludd::IpGenPrefix()));
  }

  Ptr<CoreDedupTables> tables = TestSupport::initializedTables();
  Ptr<Mpls::Status> lfib = Mpls::statusFactory("lfib");
  Ptr<SegmentStatus> segStatus = segmentStatusFactory("segmentStatus");
  Ptr<SegmentListStatus> listStatus = segmentListStatusFactory("segmentListStatus");
  Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnels =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  Ptr<SegmentIdToSegmentList> segToLists = segmentIdToSegmentListFactory("segToLists");
  Ptr<SegmentSm> segmentSm = segmentSmFactory(tables->notifyingSegmentCollection(), lfib, segStatus,
                                              tables, segmentResolverFactory(lfib));
  Ptr<SegmentListSm> listSm = segmentListSmFactory(
      tables->notifyingSegmentListCollection(), segStatus, listStatus, tunnels, scheduler, lfib,
      segToLists, tables, MplsHelper::srTunnelIdxAllocatorFactory(),
      Skerry::Fib::forwardingStatusFactory("fib4"), Skerry::Fib6::forwardingStatusFactory("fib6"));
  std::vector<Ptr<SegmentList>> lists;
};

// The whole reaction: route change, status rewrite, 10,000 lists queued and re-resolved.
void BM_ReResolveListsAfterTopLabelRouteChange(benchmark::State& state) {
  Pipeline p;
  U64 adj = 1;
  for (auto _ : state) {
    adj = 3 - adj;
    p.routeTo(adj);
    p.scheduler->runDue();
  }
  if (p.listStatus->statusCount() != kLists) state.SkipWithError("lists did not resolve");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kLists);
}
BENCHMARK(BM_ReResolveListsAfterTopLabelRouteChange)->Unit(benchmark::kMillisecond);

// The queueing alone: the route change up to 10,000 pending lists (the queue is then dropped
// by a route change back and a drain, outside the timing).
void BM_QueueListsAfterTopLabelRouteChange(benchmark::State& state) {
  Pipeline p;
  U64 adj = 1;
  for (auto _ : state) {
    adj = 3 - adj;
    p.routeTo(adj);
    state.PauseTiming();
    p.scheduler->runDue();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kLists);
}
BENCHMARK(BM_QueueListsAfterTopLabelRouteChange)->Unit(benchmark::kMillisecond);

// One list's resolution, without publishing it.
void BM_ResolveOneList(benchmark::State& state) {
  Pipeline p;
  U32 i = 0;
  for (auto _ : state) {
    auto r = p.listSm->resolveSegmentList(*p.lists[i]);
    benchmark::DoNotOptimize(r);
    if (++i == kLists) i = 0;
  }
}
BENCHMARK(BM_ResolveOneList);

// One list's resolution and publication of an unchanged outcome (the tunnel entry is built
// and compared, nothing is notified).
void BM_ProcessOneList(benchmark::State& state) {
  Pipeline p;
  U32 i = 0;
  U64 adj = 1;
  for (auto _ : state) {
    if (i == 0) {
      state.PauseTiming();
      adj = 3 - adj;
      p.routeTo(adj);
      p.scheduler->runDue();  // drained here; the loop below rewrites each entry again
      state.ResumeTiming();
    }
    p.listSm->processSegmentList(*p.lists[i]);
    if (++i == kLists) i = 0;
  }
}
BENCHMARK(BM_ProcessOneList);

}  // namespace
