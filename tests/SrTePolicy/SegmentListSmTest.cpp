// The segment-list state machine, wired by hand to its inputs: label stacks, adjacency and FEC
// next hops, tunnel ids, the order of its writes, the immediate and the task paths, restarts.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicySegmentListSm.h"

using namespace SrTePolicy;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelAction;
using Ludd::MplsLabelOperation;
using Mosk::Ptr;
using Mpls::AdjacencyKey;
using Mpls::AdjacencyKind;
using Tunnel::TunnelTable::MplsVia;
using Tunnel::TunnelTable::TunnelId;

namespace {

Ptr<CoreDedupTables> initializedTables() {
  Ptr<CoreDedupTables> t = coreDedupTablesFactory();
  t->handleInitialized();
  return t;
}

struct Capture : Flicker::TraceSink {
  Capture() {
    Flicker::traceSinkIs(this);
    Flicker::traceEnabledLevelsIs("SrTePolicySegmentListSm", 0x3ff);
  }
  ~Capture() override {
    Flicker::traceEnabledLevelsIs("SrTePolicySegmentListSm", 0);
    Flicker::traceSinkIs(nullptr);
  }
  void traceLine(Flicker::TraceLine const& l) override { lines.emplace_back(l.message); }
  long count(std::string const& text) const { return std::count(lines.begin(), lines.end(), text); }
  std::vector<std::string> lines;
};

IntfId const eth1{IntfId::Kind::ethernet, 1};
IntfId const eth2{IntfId::Kind::ethernet, 2};

class SegmentListSmTest : public ::testing::Test {
 public:
  Ptr<SegmentListSm> machine() {
    return segmentListSmFactory(tables->notifyingSegmentListCollection(), segStatus, listStatus,
                                tunnels, scheduler, lfib, segToLists, tables, alloc, fib4, fib6);
  }
  // Segments stay alive while the test runs, so that a status set before a list is made
  // belongs to the segment that the list holds.
  Ptr<SegmentMplsLabel> segment(U32 label) {
    Ptr<SegmentMplsLabel>& s = held[label];
    if (!s) {
      s = segmentMplsLabelFactory(SegmentType::segMplsLabel, MplsLabel(label))
              ->dedup(*tables->segDedupTablePtr());
    }
    return s;
  }
  // A deduplicated list, registered for each of its segments as the input stage does.
  Ptr<SegmentList> list(std::initializer_list<U32> labels) {
    Ptr<SegmentList> l = segmentListFactory();
    U32 i = 0;
    for (U32 label : labels)
      l->segmentIs(Ludd::MplsStackEntryIndex(i++), segment(label));
    l->sizeIs(static_cast<U8>(labels.size()));
    l = l->dedup(*tables->segListDedupTablePtr());
    for (U32 j = 0; j < i; ++j) {
      SegmentId id = l->getSegmentId(j);
      if (!segToLists->segmentList(id))
        segToLists->segmentListIs(id, segmentListCollectionFactory());
      segToLists->segmentList(id)->segmentListPtrIs(l, true);
    }
    return l;
  }
  // Deregisters the list and lets it go, so that it leaves the store.
  void drop(Ptr<SegmentList>& l) {
    for (U32 j = 0; j < l->size(); ++j)
      segToLists->segmentList(l->getSegmentId(j))->segmentListPtrDel(l);
    l = nullptr;
  }
  void resolve(U32 label, AdjacencyKey adj) {
    SegmentId id = segment(label)->segmentId();
    if (Ptr<SegmentResolve> r = segStatus->status(id)) {
      r->adjKeyIs(adj);
    } else {
      segStatus->statusIs(segmentResolveFactory(id, adj));
    }
  }
  void adjacency(U64 index, std::initializer_list<Mpls::Via> vias) {
    lfib->lfibAdjacencyIs(index, Mpls::LfibAdjacency(Mpls::ViaSet(vias)));
  }
  static Mpls::Via swapVia(IntfId intf, char const* nh, U32 label) {
    return Mpls::Via(intf, IpGenAddr::parse(nh), MplsLabelAction::actionSwap, MplsLabel(label));
  }
  // The tunnel entry of a list's status; empty when the list has no status.
  std::vector<MplsVia> vias(Ptr<SegmentList> const& l) {
    Ptr<SegmentListResolve> r = listStatus->status(l->segmentListId());
    if (!r) return {};
    auto entry = tunnels->entry(r->tunnelId());
    EXPECT_TRUE(entry) << "a status without its tunnel entry";
    return entry ? std::vector<MplsVia>(entry->begin(), entry->end()) : std::vector<MplsVia>();
  }
  TunnelId tunnelOf(Ptr<SegmentList> const& l) {
    Ptr<SegmentListResolve> r = listStatus->status(l->segmentListId());
    return r ? r->tunnelId() : TunnelId();
  }
  void fec(::Fib::FecId id, char const* nh1, char const* nh2) {
    bool v6 = id.adjType() == 1;
    ::Fib::Fec f(id);
    f.viaIs(::Fib::ViaIndex(1), ::Fib::Via(eth1, IpGenAddr::parse(nh1), {}, {}, false, {}));
    f.viaIs(::Fib::ViaIndex(2), ::Fib::Via(eth2, IpGenAddr::parse(nh2), {}, {}, false, {}));
    f.viaCountIs(2);
    if (v6) {
      fib6->fecCommit(f);
    } else {
      fib4->fecCommit(f);
    }
  }

  Ptr<CoreDedupTables> tables = initializedTables();
  Ptr<SegmentStatus> segStatus = segmentStatusFactory("segmentStatus");
  Ptr<SegmentListStatus> listStatus = segmentListStatusFactory("segmentListStatus");
  Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnels =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
  Ptr<Vell::ManualClock> clock = Vell::manualClockFactory();
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(clock);
  Ptr<Mpls::Status> lfib = Mpls::statusFactory("lfib");
  Ptr<SegmentIdToSegmentList> segToLists = segmentIdToSegmentListFactory("segToLists");
  Ptr<MplsHelper::SrTunnelIdxAllocator> alloc = MplsHelper::srTunnelIdxAllocatorFactory();
  Ptr<Skerry::Fib::ForwardingStatus> fib4 = Skerry::Fib::forwardingStatusFactory("fib4");
  Ptr<Skerry::Fib6::ForwardingStatus> fib6 = Skerry::Fib6::forwardingStatusFactory("fib6");
  Ptr<SegmentListSm> sm = machine();
  std::map<U32, Ptr<SegmentMplsLabel>> held;
};

// Faults: a stack built top-first, the top label left in the stack, the via's label not pushed;
// a one-segment list that resolves with nothing to push; a lifetime change waiting for the task.
TEST_F(SegmentListSmTest, StackIsBottomFirstBelowThePushedLabelAndListsResolveAtOnce) {
  sm->handleInitialized();
  adjacency(5, {swapVia(eth1, "10.0.0.2", 900),
                Mpls::Via(eth2, IpGenAddr::parse("10.0.1.2"), MplsLabelAction::actionNone, {})});
  resolve(100, AdjacencyKey(5, AdjacencyKind::adjacency));
  Ptr<SegmentList> abc = list({100, 200, 300});
  Ptr<SegmentList> one = list({100});
  EXPECT_EQ(vias(abc),
            (std::vector<MplsVia>{MplsVia(IpGenAddr::parse("10.0.0.2"), eth1, {300, 200, 900}),
                                  MplsVia(IpGenAddr::parse("10.0.1.2"), eth2, {300, 200})}));
  EXPECT_EQ(vias(one), (std::vector<MplsVia>{MplsVia(IpGenAddr::parse("10.0.0.2"), eth1, {900})}));
  EXPECT_EQ(tunnelOf(abc),
            TunnelId::convertToTunnelValue(Tunnel::TunnelTable::TunnelType::srTeSegmentList, 1));

  adjacency(6, {Mpls::Via(eth1, IpGenAddr::parse("10.0.0.2"), MplsLabelAction::actionNone, {})});
  resolve(101, AdjacencyKey(6, AdjacencyKind::adjacency));
  Ptr<SegmentList> bare = list({101});
  EXPECT_EQ(listStatus->status(bare->segmentListId()), nullptr) << "nothing pushed: unresolved";

  SegmentListId id = abc->segmentListId();
  TunnelId tid = tunnelOf(abc);
  drop(abc);
  EXPECT_FALSE(listStatus->status(id));
  EXPECT_FALSE(tunnels->entry(tid));
  EXPECT_FALSE(scheduler->nextDueTime()) << "lifetime changes never wait for the task";
}

// Faults: a fresh tunnel id on re-resolution; a status written before its tunnel entry or
// removed after it; a list queued twice processed twice.
TEST_F(SegmentListSmTest, ReResolutionKeepsTheTunnelIdAndTheTunnelIsWrittenFirst) {
  struct OrderCheck : SegmentListStatus::NotifieeConst {
    SegmentListSmTest* t;
    int events = 0;
    void onStatus(SegmentListId const& id) override {
      ++events;
      Ptr<SegmentListResolve const> r = notifier()->status(id);
      if (r) {
        EXPECT_TRUE(t->tunnels->entry(r->tunnelId())) << "status before tunnel entry";
      } else {
        EXPECT_EQ(t->tunnels->entryCount(), 0u) << "tunnel entry outlives its status";
      }
    }
  };
  Ptr<OrderCheck> order(new OrderCheck);
  order->t = this;
  order->notifierIs(listStatus);

  sm->handleInitialized();
  adjacency(5, {swapVia(eth1, "10.0.0.2", 900)});
  adjacency(6, {swapVia(eth2, "10.0.9.2", 901)});
  resolve(100, AdjacencyKey(5, AdjacencyKind::adjacency));
  Ptr<SegmentList> l = list({100, 200});
  TunnelId tid = tunnelOf(l);
  ASSERT_TRUE(tid.isValid());

  Capture capture;
  resolve(100, AdjacencyKey(6, AdjacencyKind::adjacency));  // the watcher hears adjKey
  resolve(200, AdjacencyKey(5, AdjacencyKind::adjacency));  // a new entry: the reactor hears it
  EXPECT_EQ(sm->pendingSegmentListCount(), 1u);
  EXPECT_EQ(vias(l)[0].intf(), eth1) << "status changes wait for the task";
  scheduler->runDue();
  EXPECT_EQ(capture.count(" Processed 1 Segment Lists "), 1);
  EXPECT_EQ(capture.count("Update existing status for SegmentList [1]"), 1);
  EXPECT_EQ(tunnelOf(l), tid);
  EXPECT_EQ(vias(l),
            (std::vector<MplsVia>{MplsVia(IpGenAddr::parse("10.0.9.2"), eth2, {200, 901})}));

  segStatus->statusDel(segment(100)->segmentId());
  EXPECT_EQ(sm->statusCount(), 1u) << "the watcher leaves with its entry";
  scheduler->runDue();
  EXPECT_FALSE(listStatus->status(l->segmentListId()));
  EXPECT_EQ(order->events, 2);
  order->notifierIs(nullptr);
}

// Faults: a slice that stops before its yield, one that runs on past it, a list processed in
// two slices or dropped; a run that processes nothing.
TEST_F(SegmentListSmTest, SlicesEndAtTheYieldAndEveryQueuedListRunsOnce) {
  sm->handleInitialized();
  std::vector<Ptr<SegmentList>> lists;
  for (U32 i = 0; i < 7; ++i)
    lists.push_back(list({100, 1000 + i}));
  EXPECT_EQ(listStatus->statusCount(), 0u);
  adjacency(5, {swapVia(eth1, "10.0.0.2", 900)});
  Capture capture;
  resolve(100, AdjacencyKey(5, AdjacencyKind::adjacency));
  scheduler->yieldPolicyIs(Vell::YieldPolicy::fixedCount(3));
  std::vector<U32> perRun;
  while (scheduler->runOne())
    perRun.push_back(listStatus->statusCount());
  EXPECT_EQ(perRun, (std::vector<U32>{3, 6, 7}));
  for (Ptr<SegmentList> const& l : lists) {
    std::string id = std::to_string(l->segmentListId().value());
    EXPECT_EQ(capture.count("Add new status for SegmentList [" + id + "]"), 1) << id;
  }
  scheduler->yieldPolicyIs(Vell::YieldPolicy::fixedCount(1));
  resolve(100, AdjacencyKey(6, AdjacencyKind::adjacency));
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_EQ(sm->pendingSegmentListCount(), 6u) << "at least, and here exactly, one per run";
}

// Faults: a new machine keeping what an earlier instance published; handleDel leaving outputs.
TEST_F(SegmentListSmTest, RestartWipesAndRebuildsAndHandleDelClears) {
  sm->handleInitialized();
  adjacency(5, {swapVia(eth1, "10.0.0.2", 900)});
  resolve(100, AdjacencyKey(5, AdjacencyKind::adjacency));
  Ptr<SegmentList> l = list({100, 200});
  TunnelId old = tunnelOf(l);
  tunnels->entryIs(Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry(TunnelId(77)));

  Ptr<SegmentListSm> next = machine();
  next->handleInitialized();
  EXPECT_EQ(tunnels->entryCount(), 0u);
  EXPECT_EQ(listStatus->statusCount(), 0u);
  scheduler->runDue();
  EXPECT_EQ(tunnels->entryCount(), 1u);
  EXPECT_NE(tunnelOf(l), old);
  EXPECT_TRUE(tunnels->entry(tunnelOf(l)));

  sm = nullptr;  // the earlier instance's handleDel clears the shared outputs too
  EXPECT_EQ(tunnels->entryCount(), 0u);
  EXPECT_EQ(listStatus->statusCount(), 0u);
}

// Faults: pushing the top label when the adjacency does not say so (or not when it does), a
// wrong address family, an empty or missing FEC treated as resolved.
TEST_F(SegmentListSmTest, ExternalFecAdjacenciesResolveThroughTheForwardingStatus) {
  sm->handleInitialized();
  ::Fib::FecId v4 = ::Fib::FecId::fecIdForAdjType(0, 7);
  ::Fib::FecId v6 = ::Fib::FecId::fecIdForAdjType(1, 7);
  fec(v4, "10.0.0.2", "10.0.0.3");
  fec(v6, "2001:db8::2", "2001:db8::3");
  lfib->lfibExtFecAdjacencyIs(40, v4, MplsLabelAction::actionForward);
  lfib->lfibExtFecAdjacencyIs(60, v6, MplsLabelAction::actionNone);
  lfib->lfibExtFecAdjacencyIs(41, ::Fib::FecId::fecIdForAdjType(0, 8),
                              MplsLabelAction::actionForward);
  lfib->lfibExtFecAdjacencyIs(42, ::Fib::FecId::fecIdForAdjType(2, 7),
                              MplsLabelAction::actionForward);
  resolve(100, AdjacencyKey(40, AdjacencyKind::extFec));
  resolve(101, AdjacencyKey(60, AdjacencyKind::extFec));
  resolve(102, AdjacencyKey(41, AdjacencyKind::extFec));
  resolve(103, AdjacencyKey(42, AdjacencyKind::extFec));
  resolve(104, AdjacencyKey(43, AdjacencyKind::extFec));
  Ptr<SegmentList> pushed = list({100});
  Ptr<SegmentList> plain6 = list({101, 200});
  Ptr<SegmentList> bare6 = list({101});
  Capture capture;
  std::vector<Ptr<SegmentList>> none = {list({102, 200}), list({103, 200}), list({104, 200})};

  EXPECT_EQ(vias(pushed),
            (std::vector<MplsVia>{MplsVia(IpGenAddr::parse("10.0.0.2"), eth1, {100}),
                                  MplsVia(IpGenAddr::parse("10.0.0.3"), eth2, {100})}));
  EXPECT_EQ(vias(plain6),
            (std::vector<MplsVia>{MplsVia(IpGenAddr::parse("2001:db8::2"), eth1, {200}),
                                  MplsVia(IpGenAddr::parse("2001:db8::3"), eth2, {200})}));
  EXPECT_TRUE(vias(bare6).empty()) << "label action 3 absent: nothing to push";
  for (Ptr<SegmentList> const& l : none)
    EXPECT_FALSE(listStatus->status(l->segmentListId())) << l->segmentListId();
  EXPECT_EQ(capture.count("adjExt not found, returning NULL"), 1);
}

// Faults: an oversized stack or tunnel id half-applied or silently truncated; null accepted.
TEST_F(SegmentListSmTest, RangeErrorsWriteNothing) {
  sm->handleInitialized();
  adjacency(5, {swapVia(eth1, "10.0.0.2", 900)});
  resolve(100, AdjacencyKey(5, AdjacencyKind::adjacency));
  Ptr<SegmentList> six = list({100, 2, 3, 4, 5, 6});
  EXPECT_EQ(vias(six)[0].labelOperation(), MplsLabelOperation({6, 5, 4, 3, 2, 900}));

  Ptr<SegmentList> eight = segmentListFactory();
  for (U32 i = 0; i < 6; ++i)
    eight->segmentIs(Ludd::MplsStackEntryIndex(i), segment(100 + i));
  eight->sizeIs(8);
  try {
    sm->resolveSegmentList(*eight);
    ADD_FAILURE() << "eight segments resolved";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(),
                 "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                 "MplsStackEntryIndex::max not allowed");
  }

  alloc->nextIdxIs(U64{248} << 40);  // type 8 in bits 40..47 plus this overflows 48 bits
  EXPECT_THROW(list({100, 7}), Mosk::RangeException);
  EXPECT_EQ(listStatus->statusCount(), 1u);
  EXPECT_EQ(tunnels->entryCount(), 1u);

  try {
    sm->statusIs(SegmentId(1), nullptr);
    ADD_FAILURE() << "null watched";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(),
                 "null _status parameter to mutator for SrTePolicy::SegmentListSm::status not "
                 "allowed\"");
  }
  EXPECT_THROW(segmentListResolveResultFactory(static_cast<MplsViaSet const*>(nullptr)),
               Mosk::RangeException);
}

// Fault: a via set that keeps duplicates or depends on insertion order.
TEST(MplsViaSetTest, ViasAreUniqueAndOrdered) {
  MplsVia a(IpGenAddr::parse("10.0.0.2"), eth1, {16});
  MplsVia b(IpGenAddr::parse("10.0.0.1"), eth2, {17});
  MplsViaSet x, y;
  x.viaIs(a, true);
  x.newVia(b);
  x.viaIs(a, true);
  y.viaIs(b, true);
  y.viaIs(a, true);
  EXPECT_EQ(x.viaCount(), 2u);
  EXPECT_EQ(x, y);
  EXPECT_EQ(x.hash(), y.hash());
  EXPECT_EQ(*x.begin(), b);
  x.viaIs(b, false);
  EXPECT_FALSE(x.via(b));
  EXPECT_THROW(x.newVia(b, false), Mosk::RangeException);
}

}  // namespace
