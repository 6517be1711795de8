// The host: static configuration flowing through the pipeline, and the memory of the active
// candidates (since when, how often) through settled changes and restarts of every kind.
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include "InputRecord.h"
#include "SrTePolicyAgent.h"

using namespace SrTePolicy;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;

namespace {

class Agent : public ::testing::Test {
 protected:
  void routeUp(U32 label, U64 adjIndex, char const* nextHop) {
    Mpls::ViaSet vias{Mpls::Via(IntfId(IntfId::Kind::ethernet, 1), IpGenAddr::parse(nextHop),
                                Ludd::MplsLabelAction::actionSwap, MplsLabel(label))};
    agent.mplsStatus()->lfibAdjacencyIs(adjIndex, Mpls::LfibAdjacency(vias));
    agent.mplsStatus()->lfibRouteIs(
        Mpls::LFib::Route(Mpls::RouteKey(MplsLabel(label), Mpls::LFib::Source(2)),
                          Mpls::AdjacencyKey(adjIndex, Mpls::AdjacencyKind::adjacency),
                          Mpls::LFib::RouteType::label, Mpls::LFib::Source(2), 0, {}));
  }
  void candidate(PolicySource source, U32 index, char const* endpoint, U32 preference, U32 bsid,
                 std::initializer_list<MplsLabelOperation> stacks) {
    TestSupport::InputRecord e(source, index);
    e.to(endpoint, 7).pref(preference).bsid(bsid);
    U32 w = 1;
    for (auto const& s : stacks)
      e.list(s, w++);
    agent.sourceTableIs(source)->policyInputEntryIs(e);
  }
  PolicyKey key(char const* endpoint) { return PolicyKey(IpGenAddr::parse(endpoint), Color(7)); }
  void routeDown(U32 label) {
    agent.mplsStatus()->lfibRouteDel(Mpls::RouteKey(MplsLabel(label), Mpls::LFib::Source(2)));
  }
  // The activity of a policy as "SOURCE/INDEX since TIME xTRANSITIONS" ("-" for no active
  // candidate), or "none".
  std::string activity(char const* endpoint) {
    auto a = agent.policyActivity()->policy(key(endpoint));
    if (!a) return "none";
    std::ostringstream os;
    PolicyId id(a->activeId());
    if (a->active()) {
      os << static_cast<int>(id.source()) << "/" << id.index();
    } else {
      os << "-";
    }
    os << " since " << a->activeSince() << " x" << a->activeTransitions();
    return os.str();
  }
  // Every policy's activity, for comparing before and after.
  std::string activities() {
    std::string out;
    for (auto it = agent.policyActivity()->policyIterConst(); it; ++it) {
      std::ostringstream os;
      os << it.key().endpoint() << " " << it.ptr()->activeId() << " " << it.ptr()->activeSince()
         << " " << it.ptr()->activeTransitions() << "; ";
      out += os.str();
    }
    return out;
  }

  // The keeper's counts by source against a walk of every policy (what they spare a reader).
  void expectCountsAsWalked() {
    std::array<U64, 4> eligible{}, active{};
    for (auto it = agent.ecPolicy()->policyIterConst(); it; ++it) {
      for (auto c = it.ptr()->candidateIterConst(); c; ++c)
        ++eligible[static_cast<U8>(c.key().source())];
      if (auto a = it.ptr()->active()) ++active[static_cast<U8>(a->priority().source())];
    }
    EXPECT_EQ(agent.activityCounts().eligibleBySource, eligible);
    EXPECT_EQ(agent.activityCounts().activeBySource, active);
  }

  SrTePolicyAgent agent{Vell::manualClockFactory()};
};

TEST_F(Agent, StaticConfigurationFlowsThroughThePipelineAndFollowsChanges) {
  routeUp(16001, 1, "10.0.0.2");
  auto policy = agent.config()->policyIs(key("192.0.2.9"));
  policy->bindingSidIs(MplsLabel(900009));
  auto path = policy->candidatePathIs(Preference(50));
  path->segmentListIs(MplsLabelOperation{16001, 20}, Weight(3));
  agent.advanceUntilIdle();
  auto status = agent.policyStatus()->status(key("192.0.2.9"));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->bindingSid(), MplsLabel(900009));
  EXPECT_EQ(PolicyId(status->id()).source(), PolicySource::sourceStatic);
  EXPECT_EQ(status->weightedViaSet()->weightedViaIter().value(), Weight(3));

  path->segmentListIs(MplsLabelOperation{16001, 20}, Weight(5));
  agent.advanceUntilIdle();
  status = agent.policyStatus()->status(key("192.0.2.9"));
  EXPECT_EQ(status->weightedViaSet()->weightedViaIter().value(), Weight(5));

  // More segment lists than a candidate path carries: reported, and the path withdrawn.
  for (U32 i = 0; i < 16; ++i)
    path->segmentListIs(MplsLabelOperation{16001, 100 + i}, Weight(1));
  agent.advanceUntilIdle();
  auto problems = agent.takeConfigProblems();
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("at most 16"), std::string::npos) << problems[0];
  EXPECT_FALSE(agent.policyStatus()->status(key("192.0.2.9")));

  policy->candidatePathDel(Preference(50));
  agent.config()->enabledIs(false);
  agent.advanceUntilIdle();
  EXPECT_EQ(agent.sourceTable(PolicySource::sourceStatic)->policyInputEntryCount(), 0u);
}

// Catches: an orderly restart, which empties what a machine wrote and builds it again, counted
// as changes of the active candidates; a restarted process that carries the old counts on
// instead of dating what it finds active at its start. (That every restart leads back to the
// same forwarding state is RestartEquivalenceTest's and the restarts scenario's.)
TEST_F(Agent, RestartsKeepTheActivityAndANewProcessCountsAfresh) {
  routeUp(16001, 1, "10.0.0.2");
  routeUp(17001, 2, "10.0.1.2");
  candidate(PolicySource::sourceBgp, 1, "192.0.2.1", 200, 900001, {{16001, 16002}, {17001}});
  candidate(PolicySource::sourcePcep, 1, "192.0.2.1", 100, 900001, {{17001, 5}});
  candidate(PolicySource::sourcePcep, 2, "192.0.2.2", 100, 900002, {{16001}});
  agent.config()
      ->policyIs(key("192.0.2.3"))
      ->candidatePathIs(Preference(10))
      ->segmentListIs(MplsLabelOperation{17001, 16001}, Weight(1));
  agent.advanceUntilIdle();
  std::string activeBefore = activities();
  ASSERT_EQ(agent.policyActivity()->policyCount(), 3u) << activeBefore;

  for (Machine m : allMachines) {
    agent.restart(m);
    agent.advanceUntilIdle();
    EXPECT_EQ(activities(), activeBefore) << "after restarting " << machineName(m);
  }
  agent.restartPipeline();
  agent.advanceUntilIdle();
  EXPECT_EQ(activities(), activeBefore) << "after restarting the pipeline";
  agent.advance(2.0);
  std::ostringstream restartedAt;
  restartedAt << agent.clock()->now();
  agent.restartAgent();
  agent.advanceUntilIdle();
  EXPECT_EQ(activity("192.0.2.1"), "1/1 since " + restartedAt.str() + " x0");
}

TEST_F(Agent, ActivityCountsAndDatesSettledChangesOfTheActiveCandidate) {
  // Catches: the transient clear-and-set of a candidate filed anew counted as two changes, a
  // change dated by the settle rather than by when it happened, a policy that loses its last
  // candidate not counted, an entry kept for a key nothing knows any more, and a host that
  // drives the scheduler itself never told to settle; counts by source that drift from the
  // policies (a candidate that stops being eligible while another stays active, a policy gone).
  int settleCalls = 0;
  agent.activitySettleDueIs([&] { ++settleCalls; });
  routeUp(16001, 1, "10.0.0.2");
  routeUp(17001, 2, "10.0.1.2");
  candidate(PolicySource::sourceBgp, 1, "192.0.2.1", 100, 900001, {{16001, 5}});
  EXPECT_EQ(settleCalls, 1);
  EXPECT_EQ(activity("192.0.2.1"), "none");  // not settled yet
  agent.runDue();
  EXPECT_EQ(activity("192.0.2.1"), "1/1 since 0 x1");

  agent.advance(1.0);
  candidate(PolicySource::sourcePcep, 1, "192.0.2.1", 200, 900001, {{17001, 5}});
  agent.advance(0.5);  // dated at the change, not at the settle
  EXPECT_EQ(activity("192.0.2.1"), "2/1 since 1 x2");
  expectCountsAsWalked();
  EXPECT_EQ(settleCalls, 2);

  // The active candidate's preference changes: selection files it anew, and it stays active.
  candidate(PolicySource::sourcePcep, 1, "192.0.2.1", 300, 900001, {{17001, 5}});
  agent.advance(0.5);
  EXPECT_EQ(activity("192.0.2.1"), "2/1 since 1 x2");

  // Its route goes: bgp/1 takes over; then no list resolves and the policy has none.
  routeDown(17001);
  agent.advance(1.0);
  EXPECT_EQ(activity("192.0.2.1"), "1/1 since 2 x3");
  expectCountsAsWalked();
  routeDown(16001);
  agent.advance(1.0);
  EXPECT_EQ(activity("192.0.2.1"), "- since 3 x4");
  expectCountsAsWalked();
  routeUp(16001, 3, "10.0.0.3");
  agent.runDue();
  EXPECT_EQ(activity("192.0.2.1"), "1/1 since 4 x5");

  // Nothing knows the key any more: forgotten.
  agent.sourceTable(PolicySource::sourceBgp)
      ->policyInputEntryDel(PolicyId::make(PolicySource::sourceBgp, 1));
  agent.runDue();
  EXPECT_EQ(activity("192.0.2.1"), "- since 4 x6");
  agent.sourceTable(PolicySource::sourcePcep)
      ->policyInputEntryDel(PolicyId::make(PolicySource::sourcePcep, 1));
  agent.runDue();
  EXPECT_EQ(activity("192.0.2.1"), "none");
  expectCountsAsWalked();
  EXPECT_EQ(agent.activityCounts().transitions, 6u);
}

}  // namespace
