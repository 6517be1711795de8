// The segment state machine: the full pass against the incremental route path, segment
// lifetime, and the stability of status entries. (Segments made before initialization
// resolving at it: the restarts scenario and RestartEquivalenceTest.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SegmentStore.h"
#include "SrTePolicy/SrTePolicySegmentSm.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::MplsLabel;
using Mosk::Ptr;
using Mpls::AdjacencyKey;
using Mpls::AdjacencyKind;
using Mpls::LFib::RouteType;

namespace {

struct AdjKeyCount : SegmentResolve::NotifieeConst {
  int count = 0;
  void onAdjKey() override { ++count; }
};

class SegmentSmTest : public ::testing::Test {
 protected:
  Ptr<SegmentMplsLabel> segment(U32 label) { return TestSupport::segment(*tables, label); }
  Mpls::RouteKey key(U32 label, U8 source) {
    return Mpls::RouteKey(MplsLabel(label), Mpls::LFib::Source(source));
  }
  void route(U32 label, U8 source, U64 adjIndex, RouteType type = RouteType::label,
             U32 metric = 0) {
    lfib->lfibRouteIs(Mpls::LFib::Route(key(label, source),
                                        AdjacencyKey(adjIndex, AdjacencyKind::adjacency), type, {},
                                        metric, {}));
  }
  // The adjacency index of a segment's status entry; 0 when it has none.
  U64 adj(Ptr<SegmentMplsLabel> const& s) {
    Ptr<SegmentResolve> r = status->status(s->segmentId());
    return r ? r->adjKey().index() : 0;
  }

  Ptr<CoreDedupTables> tables = TestSupport::initializedTables();
  Ptr<Mpls::Status> lfib = Mpls::statusFactory("lfib");
  Ptr<SegmentStatus> status = segmentStatusFactory("segmentStatus");
  Ptr<SegmentSm> sm = segmentSmFactory(tables->notifyingSegmentCollection(), lfib, status, tables,
                                       segmentResolverFactory(lfib));
};

// Faults: a skipped route (a pseudowire) of one source left standing by the incremental path,
// or a whole-table notification that does not run the full pass; the skip's trace line. The
// rest of the incremental rule (a removed route withdraws, a new one of any source takes over,
// the full pass restores the lowest source) is the scenario lfib-incremental-full, and which
// routes resolution uses are the scenarios resolution-rules and no-resolved-list.
TEST_F(SegmentSmTest, SkippedRouteWithdrawsUntilTheNextFullPass) {
  TraceLines trace("SrTePolicySegmentResolver", 1u << 4);
  sm->handleInitialized();
  route(16001, 3, 30);
  route(16001, 7, 70);
  Ptr<SegmentMplsLabel> s = segment(16001);
  EXPECT_EQ(adj(s), 30u);
  route(16001, 7, 70, RouteType::pseudowire);
  EXPECT_EQ(adj(s), 0u) << "the changed route alone is judged, though source 3 still resolves";
  lfib->lfibRouteNotifyCollection();
  EXPECT_EQ(adj(s), 30u) << "the whole-table notification runs the full pass";
  EXPECT_EQ(trace.count("Skipping resolution via pseudowire "), 1);
  EXPECT_EQ(trace.lines.size(), 1u);
}

// Faults: replacing the entry object on an adjacency change (watchers would lose it),
// notifying an unchanged adjacency, or touching statuses for labels no segment uses.
TEST_F(SegmentSmTest, EntryIsKeptAcrossAdjacencyChangesAndUnusedLabelsAreIgnored) {
  sm->handleInitialized();
  route(16001, 3, 30);
  Ptr<SegmentMplsLabel> s = segment(16001);
  Ptr<SegmentResolve> entry = status->status(s->segmentId());
  ASSERT_TRUE(entry);
  AdjKeyCount watcher;
  watcher.notifierIs(entry);

  route(16001, 3, 31);
  EXPECT_EQ(status->status(s->segmentId()), entry);
  EXPECT_EQ(entry->adjKey().index(), 31u);
  EXPECT_EQ(watcher.count, 1);

  route(16001, 3, 31, RouteType::label, 5);
  EXPECT_EQ(watcher.count, 1) << "a route change that keeps the adjacency notifies nothing";

  route(17000, 1, 99);
  lfib->lfibRouteDel(key(17000, 1));
  EXPECT_EQ(status->statusCount(), 1u);
  watcher.notifierIs(nullptr);
}

// Fault: a segment that leaves the store keeps its status.
TEST_F(SegmentSmTest, LastUserGoneDeletesTheStatusWithItsTrace) {
  TraceLines trace("SrTePolicySegmentSm", 1u << 7);
  sm->handleInitialized();
  route(16001, 3, 30);
  Ptr<SegmentMplsLabel> s = segment(16001);
  SegmentId id = s->segmentId();
  EXPECT_TRUE(status->status(id));
  s = nullptr;
  EXPECT_FALSE(status->status(id));
  std::vector<std::string> expected = {"handleSegment segment: 1", "Deleting Segment"};
  EXPECT_EQ(std::vector<std::string>(trace.lines.end() - 2, trace.lines.end()), expected);
}

}  // namespace
