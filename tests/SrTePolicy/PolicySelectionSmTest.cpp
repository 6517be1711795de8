// The policy selection state machine, wired by hand to its inputs: eligibility, the choice of
// the active candidate, moves, status changes through the task, takeover of
// an existing EcPolicy, and its failure handling.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "SrTePolicy/SrTePolicySelectionSm.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::MplsLabel;
using Mosk::Ptr;
using Tunnel::TunnelTable::TunnelId;

namespace {

// Counts the moments at which a policy's active entry is not one of its candidates.
struct ActiveWatcher : Policy::NotifieeConst {
  void onActive() override { onCandidate(Priority()); }
  void onCandidate(Priority const&) override {
    auto a = notifier()->active();
    violations += a && notifier()->candidate(a->priority()) != a;
  }
  int violations = 0;
};

PolicyKey keyOf(char const* endpoint) {
  return PolicyKey(Ludd::IpGenAddr::parse(endpoint), Color(1));
}

class PolicySelection : public ::testing::Test {
 protected:
  void start(U32 resolvedList = 1) {
    if (resolvedList != 0) resolve(resolvedList);
    sm = policySelectionSmFactory(input, status, users, ec, scheduler);
    sm->handleInitialized();
    scheduler->runDue();
  }
  // Candidate `id` of `key` using segment list `list` (weight 2), registered as its user.
  Ptr<PolicyIdEntry> path(U32 id, U32 pref, U32 list) {
    auto e = input->policyIdEntryIs(id, key, Preference(pref), PolicySource(id >> 30), router);
    auto user = users->segmentListUser(SegmentListId(list));
    if (!user) {
      auto l = segmentListFactory();
      l->segmentListIdIs(SegmentListId(list));
      user = users->segmentListUserIs(SegmentListId(list), l);
    }
    user->policyIdIs(PolicyId(id), true);
    e->wSegmentListIs(SegmentListId(list), Weight(2));
    return e;
  }
  void resolve(U32 list) { status->statusIs(SegmentListId(list), TunnelId(100 + list)); }
  Ptr<Policy> policy() { return ec->policy(key); }
  U32 activeId() {
    return policy() && policy()->active() ? policy()->active()->priority().id() : 0;
  }

  TraceLines trace{"SrTePolicySelectionSm"};
  PolicyKey key = keyOf("10.0.0.1");
  IpAddr router = IpAddr::parse("1.1.1.1");
  Ptr<PolicySelectionInput> input = policySelectionInputFactory("input");
  Ptr<SegmentListStatus> status = segmentListStatusFactory("status");
  Ptr<SegmentListIdToPolicyMap> users = segmentListIdToPolicyMapFactory("users");
  Ptr<EcPolicy> ec = ecPolicyFactory("ec");
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  Ptr<PolicySelectionSm> sm;
};

// Catches an equal-ranking candidate with a lower id displacing the active one, a new or next
// best candidate that waits for the task instead of taking over at once, and a binding-SID
// change that reruns selection or is not copied. (Candidates without a resolved list, and the
// rest of the rank order: scenarios no-resolved-list and selection-priority.)
TEST_F(PolicySelection, EqualRankingLowerIdDoesNotDisplaceAndBindingSidDoesNotReselect) {
  start();
  path(7, 100, 1);
  auto e = path(3, 100, 1);
  EXPECT_EQ(policy()->candidateIter().key().id(), 3u);
  EXPECT_EQ(activeId(), 7u) << "without running the task";
  input->policyIdEntryDel(7);
  EXPECT_EQ(activeId(), 3u);
  EXPECT_EQ(
      trace.exactly("Policy: " + Mosk::valueToStrep(key) + ", Pri: [" +
                    Mosk::valueToStrep(policy()->active()->priority()) + "] is the new active"),
      1);
  EXPECT_FALSE(sm->policyIdEntry(7)) << "the reactor of a gone entry must go";
  trace.lines.clear();
  e->bindingSidIs(MplsLabel(900));
  EXPECT_EQ(sm->policyIdMap(3)->bindingSid(), MplsLabel(900));
  EXPECT_EQ(trace.lines, std::vector<std::string>{"Updating Binding SID for policy Id: 3"});
}

// Catches status changes handled at once instead of in the task, and a candidate that stays
// (or a policy that is not reselected or removed) when its last resolved list goes.
TEST_F(PolicySelection, StatusChangesWaitForTheTaskAndTheLastResolvedListTakesTheCandidate) {
  start(0);
  path(1, 200, 1);
  path(2, 100, 2);
  path(2, 100, 1);
  resolve(1);
  resolve(2);
  EXPECT_FALSE(policy()) << "status changes are the task's work";
  scheduler->runDue();
  EXPECT_EQ(activeId(), 1u);
  status->statusDel(SegmentListId(1));
  EXPECT_EQ(activeId(), 1u);
  scheduler->runDue();
  EXPECT_EQ(activeId(), 2u);
  EXPECT_EQ(sm->policyIdMap(2)->wSegmentListCount(), 1u) << "a list without status stays";
  status->statusDel(SegmentListId(2));
  scheduler->runDue();
  EXPECT_FALSE(policy());
}

// Catches a priority change that updates the entry in place, loses its segment lists or
// binding SID, drops the id from the reference map, or leaves the deleted entry active (here
// the best candidate differs from the old entry only by id, which would keep it).
TEST_F(PolicySelection, PriorityChangeMovesTheCandidateAndActiveNeverNamesADeletedEntry) {
  start();
  auto e = path(5, 300, 1);
  e->bindingSidIs(MplsLabel(900));
  path(2, 300, 1);
  ActiveWatcher w;
  w.notifierIs(policy());
  auto old = sm->policyIdMap(5);
  e->preferenceIs(Preference(100));
  auto moved = sm->policyIdMap(5);
  EXPECT_FALSE(policy()->candidate(old->priority()));
  EXPECT_EQ(moved->priority().preference(), Preference(100));
  EXPECT_EQ(moved->wSegmentList(SegmentListId(1)), WeightedSegmentList(TunnelId(101), Weight(2)));
  EXPECT_EQ(moved->bindingSid(), MplsLabel(900));
  EXPECT_EQ(activeId(), 2u);
  EXPECT_EQ(w.violations, 0);
}

// Catches a restart that drops the candidates it finds (leaving duplicates beside the new
// ones), keeps those whose input is gone, or misses candidates of the selection input; and a
// teardown that leaves its policies published.
TEST_F(PolicySelection, RestartReconcilesFoundCandidatesAndTeardownWipesThem) {
  resolve(1);
  path(2, 100, 1);
  path(3, 90, 1);
  auto found = ec->policyIs(key);
  found->activeIs(found->candidateIs(Priority(Preference(500), {}, router, 1)));
  found->candidateIs(Priority(Preference(50), {}, router, 2));
  ec->policyIs(keyOf("10.0.0.9"))->candidateIs(Priority(Preference(100), {}, router, 4));
  ec->policyIs(keyOf("10.0.0.8"));
  start(0);
  EXPECT_FALSE(ec->policy(keyOf("10.0.0.8"))) << "nothing would remove a policy left empty";
  EXPECT_FALSE(ec->policy(keyOf("10.0.0.9")));
  EXPECT_EQ(policy()->candidateCount(), 2u);
  EXPECT_EQ(sm->policyIdMap(2)->priority().preference(), Preference(100));
  EXPECT_EQ(activeId(), 2u);
  sm = nullptr;
  EXPECT_EQ(ec->policyCount(), 0u);
}

// Catches: the public eligibility question answered by another rule than the one the machine
// files candidates by (eligible once any one of its lists has a status).
TEST_F(PolicySelection, PolicyHasResolvedSegmentListAsksForAnyOneResolvedList) {
  start(0);
  path(1, 100, 1);
  Ptr<PolicyIdEntry> e = path(1, 100, 2);
  EXPECT_FALSE(sm->policyHasResolvedSegmentList(*e));
  resolve(2);
  EXPECT_TRUE(sm->policyHasResolvedSegmentList(*e));
}

// Catches a candidate removed behind the machine's back being re-filed or dropped from the
// reference map instead of traced and left alone.
TEST_F(PolicySelection, CandidateMissingFromItsPolicyIsTracedAndLeftAlone) {
  start();
  auto e = path(1, 100, 1);
  policy()->activeIs(nullptr);
  policy()->candidateDelAll();
  e->preferenceIs(Preference(200));
  EXPECT_EQ(trace.exactly("policy id: 1 of " + Mosk::valueToStrep(key) +
                          " missing from candidate list but exist in reference map"),
            1);
  EXPECT_EQ(policy()->candidateCount(), 0u);
  EXPECT_TRUE(sm->policyIdMap(1));
}

using PolicySelectionDeathTest = PolicySelection;

TEST_F(PolicySelectionDeathTest, PolicyRemovedBehindTheMachineIsAnAssertion) {
  start();
  auto e = path(1, 100, 1);
  ec->policyDel(key);
  EXPECT_DEATH(e->bindingSidIs(MplsLabel(5)), "policy");
}

}  // namespace
