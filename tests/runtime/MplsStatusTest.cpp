// The MPLS status and the LFIB adjacency index allocator: what resolution and the binding-SID
// generator rely on.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Mpls/MplsStatus.h"
#include "MplsHelper/IndexAllocators.h"

using namespace Mpls;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelAction;

namespace {

RouteKey key(U32 label, U8 source) {
  return RouteKey(MplsLabel(label), LFib::Source(source));
}

LFib::Route route(U32 label, U8 source, U64 adjIndex, AdjacencyKind kind) {
  return LFib::Route(key(label, source), AdjacencyKey(adjIndex, kind), LFib::RouteType::label,
                     LFib::Source(source), 10, Ludd::IpGenPrefix());
}

struct Watcher : Status::NotifieeConst {
  std::vector<RouteKey> routes;
  U32 wholeTable = 0;
  std::vector<U64> extFec;
  void onLfibRoute(RouteKey const& k) override { routes.push_back(k); }
  void onLfibRoute() override { ++wholeTable; }
  void onLfibExtFecAdjacency(U64 const& i) override { extFec.push_back(i); }
};

// Fault: an absent key reads as something other than the default route, so resolution takes
// a missing route for a present one.
TEST(MplsStatus, AbsentRouteReadsAsTheDefaultRoute) {
  auto status = statusFactory("lfib");
  status->lfibRouteIs(route(16001, 3, 7, AdjacencyKind::viaSet));
  EXPECT_EQ(status->lfibRoute(key(16001, 4)), LFib::Route());
  EXPECT_EQ(status->lfibRoute(key(16002, 3)), LFib::Route());
  EXPECT_EQ(status->lfibRoute(key(16001, 3)), route(16001, 3, 7, AdjacencyKind::viaSet));
  EXPECT_FALSE(status->lfibRoute(key(16001, 3)) == LFib::Route());
}

// Faults: a route write that notifies when nothing changed, a notification for the wrong key,
// a key without a label accepted (it would collide with the default route).
TEST(MplsStatus, RouteWritesNotifyPerChangedKey) {
  auto status = statusFactory("lfib");
  Watcher w;
  w.notifierIs(status);
  status->lfibRouteIs(route(16001, 3, 7, AdjacencyKind::viaSet));
  status->lfibRouteIs(route(16001, 3, 7, AdjacencyKind::viaSet));  // unchanged
  status->lfibRouteIs(route(16001, 3, 8, AdjacencyKind::viaSet));
  status->lfibRouteIs(route(16001, 7, 9, AdjacencyKind::adjacency));
  status->lfibRouteDel(key(16001, 3));
  status->lfibRouteDel(key(16001, 3));  // absent
  status->lfibRouteNotifyCollection();
  status->lfibRouteDelAll();
  EXPECT_EQ(w.routes, (std::vector<RouteKey>{key(16001, 3), key(16001, 3), key(16001, 7),
                                             key(16001, 3), key(16001, 7)}));
  EXPECT_EQ(w.wholeTable, 1u);
  EXPECT_EQ(status->lfibRouteCount(), 0u);
  EXPECT_THROW(status->lfibRouteIs(route(MplsLabel::noLabel, 3, 1, AdjacencyKind::viaSet)),
               Mosk::RangeException);
}

// Catches: a walk of one label's routes that misses a source, meets them out of source order,
// or runs into another label's routes (the resolver would then try sources in the wrong order
// or use a route of another label). Labels and sources are written in a scrambled order and
// some removed again.
TEST(MplsStatus, RoutesOfOneLabelFollowOneAnotherBySource) {
  auto status = statusFactory("lfib");
  constexpr U32 kLabels = 300;
  std::vector<std::vector<U32>> sources(kLabels);
  for (U32 i = 0; i < kLabels * 4; ++i) {
    U32 const label = (i * 7919) % kLabels;
    U8 const source = static_cast<U8>((i * 104729 + label) % 256);
    status->lfibRouteIs(route(16000 + label, source, i + 1, AdjacencyKind::viaSet));
    sources[label].push_back(source);
  }
  for (U32 label = 0; label < kLabels; label += 3) {
    status->lfibRouteDel(key(16000 + label, static_cast<U8>(sources[label].front())));
    sources[label].erase(sources[label].begin());
  }
  for (U32 label = 0; label <= kLabels; ++label) {
    std::vector<U32> want = label < kLabels ? sources[label] : std::vector<U32>{};
    std::sort(want.begin(), want.end());
    want.erase(std::unique(want.begin(), want.end()), want.end());
    std::vector<U32> got;
    MplsLabel const l(16000 + label);
    for (auto c = status->lfibRouteIterOfLabel(l); c && c.key().topLabel() == l; ++c)
      got.push_back(c.key().source().value());
    EXPECT_EQ(got, want) << "label " << 16000 + label;
  }
}

// Faults: an external FEC adjacency stored under the wrong index or not announced; a route
// that points elsewhere taken for one that uses an external FEC adjacency.
TEST(MplsStatus, ExternalFecAdjacencies) {
  auto status = statusFactory("bsid");
  Watcher w;
  w.notifierIs(status);
  Fib::FecId fec = Fib::FecId::fecIdForAdjType(15, 4);
  ExtFecAdjacency ext = status->lfibExtFecAdjacencyIs(42, fec, MplsLabelAction::actionPop);
  EXPECT_EQ(status->lfibExtFecAdjacency(42), ext);
  EXPECT_EQ(ext.fecId(), fec);
  status->lfibRouteIs(route(900, 1, 42, AdjacencyKind::extFec));
  EXPECT_EQ(Status::getExtFecAdjacency(status->lfibRoute(key(900, 1))), 42u);
  EXPECT_EQ(Status::getExtFecAdjacency(route(901, 1, 42, AdjacencyKind::viaSet)), 0u);
  EXPECT_EQ(Status::getExtFecAdjacency(LFib::Route()), 0u);
  status->lfibExtFecAdjacencyDel(42);
  status->lfibExtFecAdjacencyDelAll();
  EXPECT_EQ(w.extFec, (std::vector<U64>{42, 42}));
  EXPECT_FALSE(status->lfibExtFecAdjacency(42));
}

// Faults: a via set that keeps duplicates or walks in insertion order instead of Mpls::Via
// order (resolution takes the first next-hop-group via it meets in that order).
TEST(MplsStatus, ViaSetsAreOrderedSetsOfVias) {
  Via eth2(IntfId(IntfId::Kind::ethernet, 2), IpGenAddr::parse("10.0.0.2"),
           MplsLabelAction::actionSwap, MplsLabel(20));
  Via eth1(IntfId(IntfId::Kind::ethernet, 1), IpGenAddr::parse("10.0.0.9"),
           MplsLabelAction::actionSwap, MplsLabel(30));
  Via eth1b(IntfId(IntfId::Kind::ethernet, 1), IpGenAddr::parse("10.0.0.1"),
            MplsLabelAction::actionPop, MplsLabel());
  ViaSet set{eth2, eth1, eth1b, eth2};
  EXPECT_EQ(set.viaCount(), 3u);
  EXPECT_EQ(std::vector<Via>(set.begin(), set.end()), (std::vector<Via>{eth1b, eth1, eth2}));
  auto status = statusFactory("lfib");
  status->viaSetIs(5, set);
  status->lfibAdjacencyIs(6, LfibAdjacency(set));
  EXPECT_EQ(status->viaSet(5), set);
  EXPECT_EQ(Mosk::parse<ViaSet>(Mosk::valueToStrep(set)), set);
  EXPECT_TRUE(set.viaDel(eth1));
  EXPECT_FALSE(set.viaDel(eth1));
  EXPECT_FALSE(set.hasVia(eth1));
}

// Faults: an adjacency index handed out twice (across sources, or again after its release,
// which would keep the index of a route that the generator re-installs), a double release
// accepted.
TEST(LfibGenAdjIdxAllocator, IndexesAreFreshAndOwnedByTheirSource) {
  auto alloc = MplsHelper::lfibGenAdjIdxAllocatorFactory();
  LFib::Source s14(14), s15(15);
  U64 a = alloc->getAdjacencyIndex(s14);
  U64 b = alloc->getAdjacencyIndex(s15);
  EXPECT_NE(a, 0u);
  EXPECT_NE(a, b);
  alloc->releaseAdjacencyIndex(s14, a);
  U64 c = alloc->getAdjacencyIndex(s14);
  EXPECT_NE(c, a);
  EXPECT_EQ(alloc->allocatedCount(s14), 1u);
  EXPECT_THROW(alloc->releaseAdjacencyIndex(s14, a), Mosk::RangeException);
  EXPECT_THROW(alloc->releaseAdjacencyIndex(s14, b), Mosk::RangeException);
  EXPECT_TRUE(alloc->allocated(s15, b));
}

}  // namespace
