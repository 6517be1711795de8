// SrTePolicyLfibGenSm driven by hand: PolicyStatus entries written directly, the binding-SID
// LFIB and the adjacency index allocator inspected.
#include <gtest/gtest.h>

#include "SrTePolicy/SrTePolicyLfibGenSm.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::MplsLabel;
using Mosk::Ptr;

namespace {

PolicyKey const kKey(Ludd::IpAddr::parse("10.0.0.1"), Color(5));
Mpls::LFib::Source const kSource(14);

class LfibGenSm : public ::testing::Test {
 protected:
  void start() { sm = srTePolicyLfibGenSmFactory(status, lfibStatus, alloc); }
  Ptr<PolicyStatusEntry> publish(U32 bsid, U64 fecIndex, PolicyKey const& key = kKey) {
    Ptr<PolicyStatusEntry> entry = status->statusIs(key);
    entry->bindingSidIs(MplsLabel(bsid));
    Ptr<WeightedViaSet> set = weightedViaSetFactory();
    set->weightedViaIs(Tunnel::TunnelTable::TunnelId(1), Weight(1));
    entry->weightedViaSetIs(set);
    entry->srTePolicyFecIdIs(Fib::FecId::fecIdForAdjType(15, fecIndex));
    return entry;
  }
  Mpls::LFib::Route route(U32 bsid) {
    return lfib->lfibRoute(Mpls::RouteKey(MplsLabel(bsid), Mpls::LFib::Source(1)));
  }
  U64 adjOf(U32 bsid) { return Mpls::Status::getExtFecAdjacency(route(bsid)); }
  // Exactly one entry installed: route, adjacency and index agree.
  void expectInstalled(U32 bsid, U64 fecIndex) {
    U64 const adj = adjOf(bsid);
    ASSERT_NE(adj, 0u) << "no route for BSID " << bsid;
    EXPECT_EQ(lfib->lfibRouteCount() + lfib->lfibExtFecAdjacencyCount(), 2u);
    EXPECT_EQ(lfib->lfibExtFecAdjacency(adj)->fecId(), Fib::FecId::fecIdForAdjType(15, fecIndex));
    EXPECT_EQ(route(bsid).source(), kSource);
    EXPECT_TRUE(alloc->allocated(kSource, adj) && alloc->allocatedCount(kSource) == 1);
    EXPECT_EQ(sm->policyKeyBindingSidMap(kKey), MplsLabel(bsid));
  }
  void expectNothingInstalled() {
    EXPECT_EQ(lfib->lfibRouteCount() + lfib->lfibExtFecAdjacencyCount(), 0u);
    EXPECT_EQ(alloc->allocatedCount(kSource), 0u);
    EXPECT_FALSE(sm->policyKeyBindingSidMap(kKey));
  }

  Ptr<PolicyStatus> status = policyStatusFactory();
  Ptr<SrTePolicyLfibStatus> lfibStatus = srTePolicyLfibStatusFactory();
  Ptr<Mpls::Status> lfib = lfibStatus->lfibIs("bsidLfib");
  Ptr<MplsHelper::LfibGenAdjIdxAllocator> alloc = MplsHelper::lfibGenAdjIdxAllocatorFactory();
  TraceLines lines{"SrTePolicyLfibGenSm", 1u << 5};
  Ptr<SrTePolicyLfibGenSm> sm;
};

// Catches an entry updated in place (same adjacency index) on a qualifying change, an old
// route or index left behind when the binding SID moves, and the route metric not carried.
TEST_F(LfibGenSm, QualifyingChangeReinstallsUnderAFreshIndex) {
  start();
  Ptr<PolicyStatusEntry> entry = publish(1000, 3);
  expectInstalled(1000, 3);
  U64 const first = adjOf(1000);
  entry->srTePolicyFecIdIs(Fib::FecId::fecIdForAdjType(15, 4));
  expectInstalled(1000, 4);
  EXPECT_NE(adjOf(1000), first) << "re-installed under the old index";
  EXPECT_FALSE(alloc->allocated(kSource, first));
  sm->routeMetricIs(20);
  entry->bindingSidIs(MplsLabel(2000));
  expectInstalled(2000, 4);
  EXPECT_EQ(route(2000).metric(), 20u);
  EXPECT_LT(
      0, lines.count("Removing the LFIB entry for policy Endpoint: 10.0.0.1 Color: 5 BSID: 1000"));
  EXPECT_EQ(1,
            lines.count("Added the LFIB entry for policy Endpoint: 10.0.0.1 Color: 5 BSID: 2000"));
}

// Catches an entry left behind when the policy stops qualifying in any of its three ways.
TEST_F(LfibGenSm, EntryRemovedWhenBindingSidGoesSetEmptiesOrStatusGoes) {
  start();
  Ptr<PolicyStatusEntry> entry = publish(1000, 3);
  U64 const adj = adjOf(1000);
  entry->bindingSidIs(MplsLabel());
  expectNothingInstalled();
  EXPECT_EQ(1, lines.count("Policy deleted, Delete LFIB for BSID: 1000, release adjId " +
                           std::to_string(adj)));

  publish(1000, 3);
  expectInstalled(1000, 3);
  entry->weightedViaSetIs(weightedViaSetFactory());
  expectNothingInstalled();

  publish(1000, 3);
  expectInstalled(1000, 3);
  status->statusDel(kKey);
  expectNothingInstalled();
  publish(1000, 3);  // a re-created entry is watched again
  expectInstalled(1000, 3);
}

// Catches a start-up that keeps what an earlier instance installed or skips existing entries,
// and an entry without a binding SID installing a route.
TEST_F(LfibGenSm, StartUpWipesAndReinstalls) {
  lfib->lfibExtFecAdjacencyIs(77, Fib::FecId(1), Ludd::MplsLabelAction::actionPop);
  lfib->lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey(MplsLabel(500), Mpls::LFib::Source(1)),
                                      Mpls::AdjacencyKey(77, Mpls::AdjacencyKind::extFec), {},
                                      kSource, 0, {}));
  publish(1000, 3);
  PolicyKey const other(Ludd::IpAddr::parse("10.0.0.2"), Color(5));
  status->statusIs(other)->weightedViaSetIs(weightedViaSetFactory());
  start();
  expectInstalled(1000, 3);
  sm = nullptr;
  EXPECT_EQ(lfib->lfibRouteCount(), 0u) << "teardown left routes";
}

// Two policies claiming one binding SID share one route: the one installed last. Whichever
// policy stops qualifying takes down what the LFIB holds under the label now (route, adjacency
// and that adjacency's index), without asking who installed it; the other policy's later
// removal finds no route and releases nothing. The first claim's adjacency stays behind until
// a restart wipes the LFIB.
// Catches a removal that takes down the entry the key remembers instead of the installed one,
// that spares a route another policy installed, or that releases the wrong index.
TEST_F(LfibGenSm, SharedBindingSidRemovalTakesDownTheInstalledEntry) {
  PolicyKey const other(Ludd::IpAddr::parse("10.0.0.2"), Color(5));
  for (bool firstClaimGoesFirst : {true, false}) {
    SCOPED_TRACE(firstClaimGoesFirst ? "first claim withdrawn first"
                                     : "last claim withdrawn first");
    sm = nullptr;
    status->statusDelAll();
    alloc = MplsHelper::lfibGenAdjIdxAllocatorFactory();
    lines.text.clear();
    start();
    publish(1000, 3);
    U64 const firstAdj = adjOf(1000);
    publish(1000, 4, other);
    U64 const lastAdj = adjOf(1000);
    ASSERT_NE(firstAdj, lastAdj);
    status->statusDel(firstClaimGoesFirst ? kKey : other);
    EXPECT_EQ(lfib->lfibRouteCount(), 0u);
    EXPECT_FALSE(lfib->lfibExtFecAdjacency(lastAdj));
    EXPECT_FALSE(alloc->allocated(kSource, lastAdj)) << "the installed index was not released";
    EXPECT_TRUE(alloc->allocated(kSource, firstAdj))
        << "the overwritten claim's index was released";
    EXPECT_TRUE(lfib->lfibExtFecAdjacency(firstAdj));
    EXPECT_EQ(1, lines.count("Policy deleted, Delete LFIB for BSID: 1000, release adjId " +
                             std::to_string(lastAdj)));
    status->statusDel(firstClaimGoesFirst ? other : kKey);
    EXPECT_EQ(sm->policyKeyBindingSidMapCount(), 0u);
    EXPECT_EQ(alloc->allocatedCount(kSource), 1u);
    EXPECT_EQ(1, lines.count("Policy deleted, Delete LFIB for BSID: 1000, release adjId 0"));
  }
}

// Catches a re-install that removes the key's own earlier entry instead of the route installed
// under the old binding SID now (the other policy's).
TEST_F(LfibGenSm, SharedBindingSidReinstallReplacesTheInstalledEntry) {
  start();
  Ptr<PolicyStatusEntry> entry = publish(1000, 3);
  U64 const firstAdj = adjOf(1000);
  publish(1000, 4, PolicyKey(Ludd::IpAddr::parse("10.0.0.2"), Color(5)));
  U64 const otherAdj = adjOf(1000);
  entry->srTePolicyFecIdIs(Fib::FecId::fecIdForAdjType(15, 5));
  EXPECT_FALSE(alloc->allocated(kSource, otherAdj));
  EXPECT_FALSE(lfib->lfibExtFecAdjacency(otherAdj));
  EXPECT_TRUE(alloc->allocated(kSource, firstAdj));
  EXPECT_EQ(lfib->lfibExtFecAdjacency(adjOf(1000))->fecId(), Fib::FecId::fecIdForAdjType(15, 5));
  EXPECT_EQ(1, lines.count("Removing the LFIB entry for policy Endpoint: 10.0.0.1 Color: 5 BSID: "
                           "1000 Adj ID: " +
                           std::to_string(otherAdj)));
}

}  // namespace
