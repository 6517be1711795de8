// Resolution of a label against the LFIB: source order, the skip rules, the single-route form.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SrTePolicy/SrTePolicySegmentResolver.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Mpls::AdjacencyKey;
using Mpls::AdjacencyKind;
using Mpls::LFib::Route;
using Mpls::LFib::RouteType;

namespace {

class Resolver : public ::testing::Test {
 protected:
  void route(U32 label, U8 source, AdjacencyKey adj, RouteType type = RouteType::label) {
    Mpls::RouteKey key{MplsLabel(label), Mpls::LFib::Source(source)};
    status->lfibRouteIs(Route(key, adj, type, Mpls::LFib::Source(source), 0, {}));
  }
  void viaSet(U64 index, std::initializer_list<IntfId> intfs) {
    Mpls::ViaSet set;
    for (IntfId i : intfs) {
      set.viaIs(Mpls::Via(i, IpGenAddr::parse("10.0.0.2"), Ludd::MplsLabelAction::actionSwap,
                          MplsLabel(100)));
    }
    status->viaSetIs(index, set);
  }
  Mosk::Ptr<Mpls::Status> status = Mpls::statusFactory("lfib");
  SegmentResolver resolver{status};
  IntfId eth{IntfId::Kind::ethernet, 1};
  IntfId nhg{IntfId::Kind::nexthopGroup, 1};
  IntfId dyn{IntfId::Kind::dynamicTunnel, 1};
};

TEST_F(Resolver, LowestUsableSourceWinsAndSkippedRoutesDoNotEndTheSearch) {
  viaSet(30, {dyn});
  viaSet(70, {eth});
  route(16001, 3, AdjacencyKey(30, AdjacencyKind::viaSet));
  route(16001, 7, AdjacencyKey(70, AdjacencyKind::viaSet));
  route(16001, 9, AdjacencyKey(90, AdjacencyKind::adjacency));
  auto r = resolver.resolveSegmentMpls(MplsLabel(16001));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->adjKey(), AdjacencyKey(70, AdjacencyKind::viaSet));
  route(16001, 2, AdjacencyKey(20, AdjacencyKind::adjacency));
  EXPECT_EQ(resolver.resolveSegmentMpls(MplsLabel(16001))->adjKey().index(), 20u);
}

TEST_F(Resolver, PseudowireAndSourceZeroNeverResolve) {
  TraceLines trace("SrTePolicySegmentResolver", 1u << 4);
  route(16001, 4, AdjacencyKey(1, AdjacencyKind::adjacency), RouteType::pseudowire);
  route(16002, 0, AdjacencyKey(1, AdjacencyKind::adjacency));
  EXPECT_FALSE(resolver.resolveSegmentMpls(MplsLabel(16001)));
  EXPECT_FALSE(resolver.resolveSegmentMpls(MplsLabel(16002)));
  ASSERT_EQ(trace.lines.size(), 1u);
  EXPECT_EQ(trace.count("Skipping resolution via pseudowire "), 1);
}

TEST_F(Resolver, AnyNextHopGroupViaInTheSetSkipsTheRoute) {
  viaSet(5, {eth, nhg});
  route(16001, 1, AdjacencyKey(5, AdjacencyKind::viaSet));
  EXPECT_FALSE(resolver.resolveSegmentMpls(MplsLabel(16001)));
}

TEST_F(Resolver, OnlyViaSetAdjacenciesAreInspected) {
  viaSet(5, {nhg});  // same index, but the route's adjacency is not a via set
  route(16001, 1, AdjacencyKey(5, AdjacencyKind::adjacency));
  EXPECT_TRUE(resolver.resolveSegmentMpls(MplsLabel(16001)));
  // A via set that does not exist reads as empty: the route is used.
  route(16002, 1, AdjacencyKey(6, AdjacencyKind::viaSet));
  EXPECT_TRUE(resolver.resolveSegmentMpls(MplsLabel(16002)));
}

TEST_F(Resolver, SingleRouteFormJudgesOnlyThatRoute) {
  viaSet(5, {dyn});
  route(16001, 1, AdjacencyKey(9, AdjacencyKind::adjacency));
  Route skipped(Mpls::RouteKey(MplsLabel(16001), Mpls::LFib::Source(3)),
                AdjacencyKey(5, AdjacencyKind::viaSet), RouteType::label, Mpls::LFib::Source(3), 0,
                {});
  EXPECT_FALSE(resolver.resolveSegmentMplsOnLfibRoute(MplsLabel(16001), skipped));
  EXPECT_TRUE(resolver.resolveSegmentMpls(MplsLabel(16001)));
}

}  // namespace
