// The segment-list state machine, wired by hand to its inputs: label stacks, adjacency and FEC
// next hops, tunnel ids, the order of its writes, the immediate and the task paths, restarts.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "SegmentStore.h"
#include "SrTePolicy/SrTePolicySegmentListSm.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabelAction;
using Mosk::Ptr;
using Mpls::AdjacencyKey;
using Tunnel::TunnelTable::MplsVia;
using Tunnel::TunnelTable::TunnelId;
using Vias = std::vector<MplsVia>;

namespace {

template <class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (Mosk::Exception const& e) {
    return e.what();
  }
  return "no error";
}

IntfId const eth1{IntfId::Kind::ethernet, 1};
IntfId const eth2{IntfId::Kind::ethernet, 2};
MplsVia via(char const* nh, IntfId intf, Ludd::MplsLabelOperation op) {
  return MplsVia(IpGenAddr::parse(nh), intf, op);
}
Mpls::Via mplsVia(IntfId intf, char const* nh, U32 label,
                  MplsLabelAction a = MplsLabelAction::actionSwap) {
  return Mpls::Via(intf, IpGenAddr::parse(nh), a, Ludd::MplsLabel(label));
}
AdjacencyKey adj(U64 index, Mpls::AdjacencyKind kind = Mpls::AdjacencyKind::adjacency) {
  return AdjacencyKey(index, kind);
}

class SegmentListSmTest : public ::testing::Test {
 public:
  Ptr<SegmentListSm> machine() {
    return segmentListSmFactory(tables->notifyingSegmentListCollection(), segStatus, listStatus,
                                tunnels, scheduler, lfib, segToLists, tables, alloc, fib4, fib6);
  }
  // Segments live as long as the test, so that a status set before a list is made belongs to
  // the segment that the list then holds.
  Ptr<SegmentMplsLabel> segment(U32 label) {
    Ptr<SegmentMplsLabel>& s = held[label];
    if (!s) {
      s = TestSupport::segment(*tables, label);
    }
    return s;
  }
  // A deduplicated list, registered for each of its segments as the input stage does.
  Ptr<SegmentList> list(std::initializer_list<U32> labels) {
    Ptr<SegmentList> l = segmentListFactory();
    for (U32 label : labels) {
      l->segmentIs(Ludd::MplsStackEntryIndex(l->size()), segment(label));
      l->sizeIs(l->size() + 1);
    }
    l = l->dedup(*tables->segListDedupTablePtr());
    for (U32 j = 0; j < l->size(); ++j) {
      if (!segToLists->segmentList(l->getSegmentId(j)))
        segToLists->segmentListIs(l->getSegmentId(j), segmentListCollectionFactory());
      segToLists->segmentList(l->getSegmentId(j))->segmentListPtrIs(l, true);
    }
    return l;
  }
  // Deregisters the list and lets it go, so that it leaves the store.
  void drop(Ptr<SegmentList>& l) {
    for (U32 j = 0; j < l->size(); ++j)
      segToLists->segmentList(l->getSegmentId(j))->segmentListPtrDel(l);
    l = nullptr;
  }
  void resolve(U32 label, AdjacencyKey key) {
    SegmentId id = segment(label)->segmentId();
    if (Ptr<SegmentResolve> r = segStatus->status(id)) return r->adjKeyIs(key);
    segStatus->statusIs(segmentResolveFactory(id, key));
  }
  void adjacency(U64 index, std::initializer_list<Mpls::Via> vias) {
    lfib->lfibAdjacencyIs(index, Mpls::LfibAdjacency(Mpls::ViaSet(vias)));
  }
  TunnelId tid(Ptr<SegmentList> const& l) {
    Ptr<SegmentListResolve> r = listStatus->status(l->segmentListId());
    return r ? r->tunnelId() : TunnelId();
  }
  // The vias of a list's tunnel entry; none when the list has no status.
  Vias vias(Ptr<SegmentList> const& l) {
    auto entry = tunnels->entry(tid(l));
    return entry ? Vias(entry->begin(), entry->end()) : Vias();
  }

  Ptr<CoreDedupTables> tables = TestSupport::initializedTables();
  Ptr<SegmentStatus> segStatus = segmentStatusFactory("segmentStatus");
  Ptr<SegmentListStatus> listStatus = segmentListStatusFactory("segmentListStatus");
  Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnels =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  Ptr<Mpls::Status> lfib = Mpls::statusFactory("lfib");
  Ptr<SegmentIdToSegmentList> segToLists = segmentIdToSegmentListFactory("segToLists");
  Ptr<MplsHelper::SrTunnelIdxAllocator> alloc = MplsHelper::srTunnelIdxAllocatorFactory();
  Ptr<Skerry::Fib::ForwardingStatus> fib4 = Skerry::Fib::forwardingStatusFactory("fib4");
  Ptr<Skerry::Fib6::ForwardingStatus> fib6 = Skerry::Fib6::forwardingStatusFactory("fib6");
  Ptr<SegmentListSm> sm = machine();
  std::map<U32, Ptr<SegmentMplsLabel>> held;
};

// Faults: a stack built top-first, the top label left in it, the via's label not pushed; a
// one-segment list resolving with nothing pushed; a lifetime change waiting for the task.
TEST_F(SegmentListSmTest, StackIsBottomFirstBelowThePushedLabelAndListsResolveAtOnce) {
  sm->handleInitialized();
  adjacency(5, {mplsVia(eth1, "10.0.0.2", 900),
                mplsVia(eth2, "10.0.1.2", 0, MplsLabelAction::actionNone)});
  adjacency(6, {mplsVia(eth1, "10.0.0.2", 0, MplsLabelAction::actionNone)});
  resolve(100, adj(5));
  resolve(101, adj(6));
  Ptr<SegmentList> abc = list({100, 200, 300});
  EXPECT_EQ(vias(abc),
            (Vias{via("10.0.0.2", eth1, {300, 200, 900}), via("10.0.1.2", eth2, {300, 200})}));
  EXPECT_EQ(vias(list({100})), (Vias{via("10.0.0.2", eth1, {900})}));
  EXPECT_EQ(tid(abc),
            TunnelId::convertToTunnelValue(Tunnel::TunnelTable::TunnelType::srTeSegmentList, 1));
  EXPECT_FALSE(tid(list({101})).isValid()) << "nothing pushed: unresolved";

  TunnelId old = tid(abc);
  SegmentListId id = abc->segmentListId();
  drop(abc);
  EXPECT_FALSE(listStatus->status(id));
  EXPECT_FALSE(tunnels->entry(old));
  EXPECT_FALSE(scheduler->nextDueTime()) << "lifetime changes never wait for the task";
}

// Faults: a fresh tunnel id on re-resolution; a status written before its tunnel entry or
// removed after it; a list queued twice processed twice; status changes handled at once.
TEST_F(SegmentListSmTest, ReResolutionKeepsTheTunnelIdAndTheTunnelIsWrittenFirst) {
  struct OrderCheck : SegmentListStatus::NotifieeConst {
    SegmentListSmTest* t;
    int events = 0;
    void onStatus(SegmentListId const& id) override {
      ++events;
      Ptr<SegmentListResolve const> r = notifier()->status(id);
      EXPECT_EQ(t->tunnels->entryCount(), r ? 1u : 0u) << "tunnel entry and status out of order";
    }
  };
  Ptr<OrderCheck> order(new OrderCheck);
  order->t = this;
  order->notifierIs(listStatus);
  sm->handleInitialized();
  adjacency(5, {mplsVia(eth1, "10.0.0.2", 900)});
  adjacency(6, {mplsVia(eth2, "10.0.9.2", 901)});
  resolve(100, adj(5));
  Ptr<SegmentList> l = list({100, 200});
  TunnelId first = tid(l);

  TraceLines trace("SrTePolicySegmentListSm");
  resolve(100, adj(6));  // the watcher hears adjKey
  resolve(200, adj(5));  // a new entry: the status reactor hears it
  EXPECT_EQ(sm->pendingSegmentListCount(), 1u);
  EXPECT_EQ(vias(l), (Vias{via("10.0.0.2", eth1, {200, 900})})) << "changes wait for the task";
  scheduler->runDue();
  EXPECT_EQ(trace.exactly(" Processed 1 Segment Lists "), 1);
  EXPECT_EQ(trace.exactly("Update existing status for SegmentList [1]"), 1);
  EXPECT_EQ(tid(l), first);
  EXPECT_EQ(vias(l), (Vias{via("10.0.9.2", eth2, {200, 901})}));

  segStatus->statusDel(segment(100)->segmentId());
  EXPECT_EQ(sm->statusCount(), 1u) << "the watcher leaves with its entry";
  scheduler->runDue();
  EXPECT_FALSE(tid(l).isValid());
  EXPECT_EQ(order->events, 2);
  order->notifierIs(nullptr);
}

// Faults: a new machine keeping what an earlier instance published; handleDel leaving outputs.
TEST_F(SegmentListSmTest, RestartWipesAndRebuildsAndHandleDelClears) {
  sm->handleInitialized();
  adjacency(5, {mplsVia(eth1, "10.0.0.2", 900)});
  resolve(100, adj(5));
  Ptr<SegmentList> l = list({100, 200});
  TunnelId old = tid(l);
  tunnels->entryIs(Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry(TunnelId(77)));
  Ptr<SegmentListSm> next = machine();
  next->handleInitialized();
  EXPECT_EQ(tunnels->entryCount() + listStatus->statusCount(), 0u);
  scheduler->runDue();
  EXPECT_EQ(tunnels->entryCount(), 1u);
  EXPECT_TRUE(tunnels->entry(tid(l)));
  EXPECT_NE(tid(l), old);
  sm = nullptr;  // the earlier instance's handleDel clears the shared outputs
  EXPECT_EQ(tunnels->entryCount() + listStatus->statusCount(), 0u);
}

// Fault: a missing external FEC adjacency taken as resolved, or not traced. (Next hops through
// external FEC adjacencies, the top label pushed again or not, IPv6 FECs: scenarios
// single-label and ipv6-ext-fec.)
TEST_F(SegmentListSmTest, MissingExternalFecAdjacencyResolvesNothing) {
  sm->handleInitialized();
  resolve(104, adj(43, Mpls::AdjacencyKind::extFec));
  TraceLines trace("SrTePolicySegmentListSm");
  EXPECT_FALSE(tid(list({104, 200})).isValid());
  EXPECT_EQ(trace.exactly("adjExt not found, returning NULL"), 1);
}

// Faults: an oversized stack or tunnel id half-applied or silently truncated; null accepted.
TEST_F(SegmentListSmTest, RangeErrorsWriteNothing) {
  sm->handleInitialized();
  adjacency(5, {mplsVia(eth1, "10.0.0.2", 900)});
  resolve(100, adj(5));
  EXPECT_EQ(vias(list({100, 2, 3, 4, 5, 6})), (Vias{via("10.0.0.2", eth1, {6, 5, 4, 3, 2, 900})}));
  Ptr<SegmentList> eight = segmentListFactory();
  for (U32 i = 0; i < 6; ++i)
    eight->segmentIs(Ludd::MplsStackEntryIndex(i), segment(100 + i));
  eight->sizeIs(8);
  EXPECT_EQ(errorOf([&] { sm->resolveSegmentList(*eight); }),
            "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max "
            "not allowed");
  alloc->nextIdxIs(U64{248} << 40);  // with type 8 in bits 40..47 this passes 48 bits
  EXPECT_EQ(errorOf([&] {
              list({100, 7});
            }),
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
  EXPECT_EQ(tunnels->entryCount() + listStatus->statusCount(), 2u);
  EXPECT_EQ(
      errorOf([&] { sm->statusIs(SegmentId(1), nullptr); }),
      "null _status parameter to mutator for SrTePolicy::SegmentListSm::status not allowed\"");
  EXPECT_EQ(
      errorOf([] { segmentListResolveResultFactory(static_cast<MplsViaSet const*>(nullptr)); }),
      "null ValidPtr");
}

// Fault: a via set that keeps duplicates or depends on the order of insertion.
TEST(MplsViaSetTest, ViasAreUniqueAndOrdered) {
  MplsViaSet x, y;
  x.viaIs(via("10.0.0.2", eth1, {16}), true);
  x.newVia(via("10.0.0.1", eth2, {17}));
  x.viaIs(via("10.0.0.2", eth1, {16}), true);
  y.viaIs(via("10.0.0.1", eth2, {17}), true);
  y.viaIs(via("10.0.0.2", eth1, {16}), true);
  EXPECT_EQ(x.viaCount(), 2u);
  EXPECT_TRUE(x == y && x.hash() == y.hash());
  EXPECT_EQ(*x.begin(), via("10.0.0.1", eth2, {17}));
}

}  // namespace
