// The policy selection state machine, wired by hand to its inputs: eligibility, the choice of
// the active candidate, moves, status changes through the task and its bookmark, takeover of
// an existing EcPolicy, and its failure handling.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicySelectionSm.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Mosk::Ptr;
using Tunnel::TunnelTable::TunnelId;

namespace {

struct Capture : Flicker::TraceSink {
  void traceLine(Flicker::TraceLine const& l) override { lines.emplace_back(l.message); }
  long count(std::string const& text) const { return std::count(lines.begin(), lines.end(), text); }
  // The ids handled since the last call, in order.
  std::vector<U32> handled() {
    std::vector<U32> ids;
    for (auto const& l : lines) {
      if (l.starts_with("Policy: ") && l.ends_with(" has changed"))
        ids.push_back(std::stoul(l.substr(8)));
    }
    lines.clear();
    return ids;
  }
  std::vector<std::string> lines;
};

// Counts the moments at which a policy's active entry is not one of its candidates.
struct ActiveWatcher : Policy::NotifieeConst {
  void onActive() override { check(); }
  void onCandidate(Priority const&) override { check(); }
  void check() {
    auto a = notifier()->active();
    if (a && notifier()->candidate(a->priority()) != a) ++violations;
  }
  int violations = 0;
};

class PolicySelection : public ::testing::Test {
 protected:
  void SetUp() override {
    Flicker::traceSinkIs(&trace);
    Flicker::traceEnabledLevelsIs("SrTePolicySelectionSm", 0x3ff);
  }
  void TearDown() override {
    Flicker::traceSinkIs(nullptr);
    Flicker::traceEnabledLevelsIs("*", 0);
  }
  void start() {
    sm = policySelectionSmFactory(input, status, users, ec, scheduler);
    sm->handleInitialized();
    scheduler->runDue();
  }
  // Candidate `id` of `key`, using segment list `list` with weight 2.
  Ptr<PolicyIdEntry> path(U32 id, U32 pref, U32 list, PolicyKey const* k = nullptr) {
    auto e = input->policyIdEntryIs(id, k ? *k : key, Preference(pref), PolicySource(id >> 30),
                                    IpAddr::parse("1.1.1.1"));
    use(list, id);
    e->wSegmentListIs(SegmentListId(list), Weight(2));
    return e;
  }
  void use(U32 list, U32 id) {
    if (!users->segmentListUser(SegmentListId(list))) {
      auto l = segmentListFactory();
      l->segmentListIdIs(SegmentListId(list));
      users->segmentListUserIs(SegmentListId(list), l);
    }
    users->segmentListUser(SegmentListId(list))->policyIdIs(PolicyId(id), true);
  }
  void resolve(U32 list) { status->statusIs(SegmentListId(list), TunnelId(100 + list)); }
  Ptr<Policy> policy() { return ec->policy(key); }
  U32 activeId() {
    auto p = policy();
    return p && p->active() ? p->active()->priority().id() : 0;
  }
  std::string activeTrace(char const* what) {
    return "Policy: " + Mosk::valueToStrep(key) + ", Pri: [" +
           Mosk::valueToStrep(policy()->active()->priority()) + "] " + what;
  }

  Capture trace;
  PolicyKey key{IpGenAddr::parse("10.0.0.1"), Color(1)};
  Ptr<PolicySelectionInput> input = policySelectionInputFactory("input");
  Ptr<SegmentListStatus> status = segmentListStatusFactory("status");
  Ptr<SegmentListIdToPolicyMap> users = segmentListIdToPolicyMapFactory("users");
  Ptr<EcPolicy> ec = ecPolicyFactory("ec");
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  Ptr<PolicySelectionSm> sm;
};

// Catches a higher-preference candidate that waits instead of taking over at once, a path
// filed without a resolved list, and an unresolved list carried into the candidate.
TEST_F(PolicySelection, HigherPreferenceTakesOverAtOnceAndOnlyResolvedListsCount) {
  resolve(1);
  start();
  path(1, 100, 1);
  auto better = path(2, 200, 2);
  EXPECT_FALSE(sm->policyIdMap(2)) << "no resolved list: not a candidate";
  EXPECT_EQ(activeId(), 1u);
  better->wSegmentListIs(SegmentListId(1), Weight(3));
  EXPECT_EQ(activeId(), 2u) << "without running the task";
  EXPECT_EQ(trace.count(activeTrace("is the new active")), 1);
  auto c = sm->policyIdMap(2);
  EXPECT_EQ(c->wSegmentListCount(), 1u);
  EXPECT_EQ(c->wSegmentList(SegmentListId(1)), WeightedSegmentList(TunnelId(101), Weight(3)));
}

// Catches an equal-ranking candidate with a lower id displacing the active one.
TEST_F(PolicySelection, EqualRankingLowerIdDoesNotDisplaceTheActive) {
  resolve(1);
  start();
  path(7, 100, 1);
  path(3, 100, 1);
  EXPECT_EQ(policy()->candidateIter().key().id(), 3u);
  EXPECT_EQ(activeId(), 7u);
  input->policyIdEntryDel(7);
  EXPECT_EQ(activeId(), 3u);
  EXPECT_FALSE(sm->policyIdEntry(7)) << "the reactor of a gone entry must go";
}

// Catches a binding-SID change that reruns selection, or that is not copied.
TEST_F(PolicySelection, BindingSidIsCopiedWithoutReselecting) {
  resolve(1);
  start();
  auto e = path(1, 100, 1);
  trace.lines.clear();
  e->bindingSidIs(MplsLabel(900));
  EXPECT_EQ(sm->policyIdMap(1)->bindingSid(), MplsLabel(900));
  EXPECT_EQ(trace.lines, std::vector<std::string>{"Updating Binding SID for policy Id: 1"});
}

// Catches status changes handled at once instead of in the task, and a candidate that stays
// (or a policy that is not reselected or removed) when its last resolved list goes.
TEST_F(PolicySelection, StatusChangesWaitForTheTaskAndTheLastResolvedListTakesTheCandidate) {
  start();
  path(1, 200, 1);
  path(2, 100, 2);
  resolve(1);
  resolve(2);
  EXPECT_FALSE(policy()) << "status changes are the task's work";
  EXPECT_EQ(sm->pendingPolicyIdCount(), 2u);
  scheduler->runDue();
  EXPECT_EQ(activeId(), 1u);
  status->statusDel(SegmentListId(1));
  EXPECT_EQ(activeId(), 1u);
  scheduler->runDue();
  EXPECT_EQ(activeId(), 2u);
  EXPECT_FALSE(sm->policyIdMap(1));
  status->statusDel(SegmentListId(2));
  scheduler->runDue();
  EXPECT_FALSE(policy());
  EXPECT_EQ(sm->policyIdMapCount(), 0u);
}

// Catches a priority change that updates the entry in place, loses its segment lists or
// binding SID, drops the id from the reference map, or leaves the deleted entry active (here
// the best candidate differs from the old entry only by id, which would keep it).
TEST_F(PolicySelection, PriorityChangeMovesTheCandidateAndActiveNeverNamesADeletedEntry) {
  resolve(1);
  start();
  auto e = path(5, 300, 1);
  e->bindingSidIs(MplsLabel(900));
  path(2, 300, 1);
  ASSERT_EQ(activeId(), 5u);
  ActiveWatcher w;
  w.notifierIs(policy());
  auto old = sm->policyIdMap(5);
  e->preferenceIs(Preference(100));
  auto moved = sm->policyIdMap(5);
  ASSERT_TRUE(moved);
  EXPECT_NE(moved, old);
  EXPECT_FALSE(policy()->candidate(old->priority()));
  EXPECT_EQ(moved->priority().preference(), Preference(100));
  EXPECT_EQ(moved->wSegmentList(SegmentListId(1)), WeightedSegmentList(TunnelId(101), Weight(2)));
  EXPECT_EQ(moved->bindingSid(), MplsLabel(900));
  EXPECT_EQ(activeId(), 2u);
  EXPECT_EQ(w.violations, 0);
}

// Catches a restart that drops the candidates it finds (leaving duplicates beside the new
// ones), keeps those whose input is gone, or misses candidates of the selection input.
TEST_F(PolicySelection, RestartReconcilesFoundCandidatesAndTheSelectionInput) {
  resolve(1);
  path(2, 100, 1);
  path(3, 90, 1);
  PolicyKey other{IpGenAddr::parse("10.0.0.9"), Color(1)};
  auto found = ec->policyIs(key);
  IpAddr r = IpAddr::parse("1.1.1.1");
  found->activeIs(found->candidateIs(Priority(Preference(500), PolicySource::sourceStatic, r, 1)));
  found->candidateIs(Priority(Preference(50), PolicySource::sourceStatic, r, 2));
  ec->policyIs(other)->candidateIs(Priority(Preference(100), PolicySource::sourceStatic, r, 4));
  sm = policySelectionSmFactory(input, status, users, ec, scheduler);
  sm->handleInitialized();
  EXPECT_EQ(sm->policyIdMapCount(), 3u);
  EXPECT_EQ(sm->pendingPolicyIdCount(), 4u);
  scheduler->runDue();
  EXPECT_FALSE(ec->policy(other));
  EXPECT_EQ(policy()->candidateCount(), 2u);
  EXPECT_FALSE(sm->policyIdMap(1));
  EXPECT_EQ(sm->policyIdMap(2)->priority().preference(), Preference(100));
  EXPECT_EQ(activeId(), 2u);
}

// Catches a walk that starts over instead of resuming behind the last handled id (a re-queued
// early id would run again before the others), an id handled twice or not at all, and a run
// that yields after the last entry without resetting the bookmark.
TEST_F(PolicySelection, BookmarkResumesBehindTheLastHandledId) {
  start();
  for (U32 id = 1; id <= 6; ++id) {
    use(1, id);
    path(id, 100, 10 + id)->wSegmentListIs(SegmentListId(1), Weight(1));
  }
  scheduler->yieldPolicyIs(Vell::YieldPolicy::fixedCount(2));
  trace.lines.clear();
  resolve(1);
  scheduler->runOne();
  EXPECT_EQ(
      trace.count("PS sm Bookmark placed at Id: " + std::to_string(sm->pendingBookmark().nextId())),
      1);
  EXPECT_EQ(trace.count("PS sm Processed 2 policy entries"), 1);
  std::vector<U32> first = trace.handled();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_FALSE(sm->pendingBookmark().startFresh());
  resolve(10 + first[0]);
  scheduler->runOne();
  std::vector<U32> second = trace.handled();
  ASSERT_EQ(second.size(), 2u);
  EXPECT_NE(second[0], first[0]) << "the walk started over";
  scheduler->runOne();
  EXPECT_EQ(trace.handled().size(), 2u);
  EXPECT_TRUE(sm->pendingBookmark().startFresh()) << "yielded after the last entry";
  EXPECT_EQ(sm->pendingBookmark().nextId(), 0u);
  scheduler->runOne();
  EXPECT_EQ(trace.handled(), std::vector<U32>{first[0]});
  EXPECT_EQ(sm->pendingPolicyIdCount(), 0u);
  EXPECT_EQ(policy()->candidateCount(), 6u);
}

// Catches work done before initialization, and a teardown that leaves its policies published.
TEST_F(PolicySelection, NothingBeforeInitializedAndTeardownWipesItsOutput) {
  resolve(1);
  sm = policySelectionSmFactory(input, status, users, ec, scheduler);
  path(1, 100, 1);
  resolve(2);
  EXPECT_EQ(scheduler->scheduledCount(), 0u);
  sm->handleInitialized();
  EXPECT_EQ(ec->policyCount(), 0u) << "input found at start is the task's work";
  scheduler->runDue();
  EXPECT_EQ(ec->policyCount(), 1u);
  sm = nullptr;
  EXPECT_EQ(ec->policyCount(), 0u);
}

// Catches a candidate removed behind the machine's back being re-filed or dropped from the
// reference map instead of traced and left alone.
TEST_F(PolicySelection, CandidateMissingFromItsPolicyIsTracedAndLeftAlone) {
  resolve(1);
  start();
  auto e = path(1, 100, 1);
  policy()->activeIs(nullptr);
  policy()->candidateDelAll();
  e->preferenceIs(Preference(200));
  EXPECT_EQ(trace.count("policy id: 1 of " + Mosk::valueToStrep(key) +
                        " missing from candidate list but exist in reference map"),
            1);
  EXPECT_EQ(policy()->candidateCount(), 0u);
  EXPECT_TRUE(sm->policyIdMap(1));
}

using PolicySelectionDeathTest = PolicySelection;

TEST_F(PolicySelectionDeathTest, PolicyRemovedBehindTheMachineIsAnAssertion) {
  resolve(1);
  start();
  auto e = path(1, 100, 1);
  ec->policyDel(key);
  EXPECT_DEATH(e->bindingSidIs(MplsLabel(5)), "policy");
}

}  // namespace
