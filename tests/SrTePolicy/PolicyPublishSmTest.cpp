// PolicyPublishSm driven by hand: EcPolicy written directly, a manual clock and a
// deterministic yield policy on the scheduler.
#include <gtest/gtest.h>

#include <set>

#include "SrTePolicy/SrTePolicyPublishSm.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Mosk::Ptr;
using Tunnel::TunnelTable::TunnelId;

namespace {

struct FecWatcher : Skerry::Fib::ForwardingStatus::NotifieeConst {
  void onFec(Fib::FecId const&) override { ++events; }
  int events = 0;
};

PolicyKey keyOf(U32 n) {
  return PolicyKey(Ludd::IpAddr::fromU32(0x01010100 + n), Color(n));
}
std::string activeLine(PolicyKey const& k) {
  return "Policy Endpoint: " + Mosk::valueToStrep(k.endpoint()) +
         " Color: " + Mosk::valueToStrep(k.color()) + " Id: ";
}

class PublishSm : public ::testing::Test {
 protected:
  void SetUp() override { watcher.notifierIs(fwd); }
  void start() { sm = policyPublishSmFactory(ecPolicy, scheduler, status, wheel, fwd); }
  // Makes candidate `id` of `key` active with one segment list per tunnel.
  Ptr<PolicyEntry> activate(PolicyKey const& key, U32 id, std::vector<U64> const& tunnels) {
    Ptr<Policy> policy = ecPolicy->policyIs(key);
    Ptr<PolicyEntry> entry =
        policy->candidateIs(Priority(Preference(100), PolicySource::sourceBgp, {}, id));
    entry->bindingSidIs(Ludd::MplsLabel(1000 + id));
    for (U64 t : tunnels)
      entry->wSegmentListIs(SegmentListId(static_cast<U32>(t)),
                            WeightedSegmentList(TunnelId(t), Weight(2)));
    policy->activeIs(entry);
    return entry;
  }
  void settle() {
    clock->advance(0.05);
    scheduler->runDue();
  }
  Fib::FecId fecIdOf(PolicyKey const& key) { return status->status(key)->srTePolicyFecId(); }
  std::set<U64> tunnelsOf(PolicyKey const& key) {
    std::set<U64> out;
    for (Fib::Via const& via : fwd->fec(fecIdOf(key)))
      out.insert(via.tunnelId().value());
    return out;
  }

  Ptr<Vell::ManualClock> clock = Vell::manualClockFactory();
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(clock);
  Ptr<Vell::TimerWheel> wheel = Vell::timerWheelFactory(scheduler);
  Ptr<EcPolicy> ecPolicy = ecPolicyFactory("ecPolicy");
  Ptr<PolicyStatus> status = policyStatusFactory();
  Ptr<Skerry::Fib::ForwardingStatus> fwd = Skerry::Fib::forwardingStatusFactory("fwd");
  FecWatcher watcher;
  TraceLines trace{"SrTePolicyPublishSm", 1u << 6 | 1u << 9};
  Ptr<PolicyPublishSm> sm;
};

// Catches publishing from inside notifications and repeated changes of one burst published
// more than once. (A delay that restarts with every change passes here: the restarts scenario
// catches it.)
TEST_F(PublishSm, BurstWithinFiftyMillisecondsIsPublishedOnce) {
  start();
  Ptr<PolicyEntry> entry = activate(keyOf(1), 7, {1, 2});
  clock->advance(0.03);
  entry->bindingSidIs(Ludd::MplsLabel(2000));
  entry->wSegmentListDel(SegmentListId(2));
  activate(keyOf(2), 8, {3});
  clock->advance(0.019);
  scheduler->runDue();
  EXPECT_EQ(status->statusCount(), 0u) << "published before the delay";
  settle();
  EXPECT_EQ(sm->task()->taskRunCount(), 1u);
  EXPECT_EQ(watcher.events, 2) << "one commit per policy";
  EXPECT_EQ(trace.count(activeLine(keyOf(1))), 1);
  EXPECT_EQ(status->status(keyOf(1))->bindingSid(), Ludd::MplsLabel(2000));
  EXPECT_EQ(tunnelsOf(keyOf(1)), std::set<U64>{1});
  EXPECT_EQ(status->fecIdToPolicyKey(fecIdOf(keyOf(2))), keyOf(2));
}

// Catches a FEC id that changes while the policy stays active, stale vias of segment lists the
// candidate lost, a withdrawal that leaves anything behind, and a released index handed out
// again before its 300 s quarantine (or never again after it).
TEST_F(PublishSm, FecIdIsKeptWhileActiveAndQuarantinedAfterWithdrawal) {
  start();
  activate(keyOf(1), 7, {1, 2, 3});
  settle();
  Fib::FecId const first = fecIdOf(keyOf(1));
  EXPECT_EQ(first, Fib::FecId::fecIdForAdjType(15, 0));
  activate(keyOf(1), 9, {4, 5});  // another candidate becomes active
  settle();
  EXPECT_EQ(fecIdOf(keyOf(1)), first);
  EXPECT_EQ(status->status(keyOf(1))->id(), 9u);
  EXPECT_EQ(tunnelsOf(keyOf(1)), (std::set<U64>{4, 5})) << "stale vias kept";
  EXPECT_EQ(status->status(keyOf(1))->weightedViaSet()->weightedVia(TunnelId(4)), Weight(2));

  ecPolicy->policy(keyOf(1))->activeIs(nullptr);
  settle();
  EXPECT_EQ(status->statusCount() + status->fecIdToPolicyKeyCount() + fwd->fecCount(), 0u);
  activate(keyOf(1), 9, {4});
  settle();
  EXPECT_EQ(fecIdOf(keyOf(1)), Fib::FecId::fecIdForAdjType(15, 1)) << "index reused too soon";
  ecPolicy->policyDel(keyOf(1));
  settle();
  clock->advance(300);
  activate(keyOf(1), 9, {4});
  settle();
  EXPECT_EQ(fecIdOf(keyOf(1)), first) << "an expired index is reused first";
}

// Catches a via bound off by one in either direction, a FEC committed after the failure, and
// a failing key that stalls the keys queued behind it.
TEST_F(PublishSm, FiveHundredElevenListsPublishAndFiveHundredTwelveFail) {
  start();
  std::vector<U64> tunnels;
  for (U64 t = 1; t <= 511; ++t)
    tunnels.push_back(t);
  activate(keyOf(1), 7, tunnels);
  settle();
  EXPECT_EQ(fwd->fec(fecIdOf(keyOf(1))).viaCount(), 511u);
  tunnels.push_back(512);
  activate(keyOf(2), 8, tunnels);
  for (U32 n = 3; n <= 6; ++n)
    activate(keyOf(n), n, {n});
  int const before = watcher.events;
  clock->advance(0.05);
  try {
    scheduler->runDue();
    ADD_FAILURE() << "512 segment lists published";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(), "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
  }
  EXPECT_TRUE(fecIdOf(keyOf(2)).isNone());
  scheduler->runDue();
  EXPECT_EQ(watcher.events, before + 4) << "the failed FEC was committed or stalled the others";
}

// Catches a start-up that keeps what an earlier instance published or waits out the delay
// before the first publication, and a teardown that leaves FECs behind.
TEST_F(PublishSm, StartUpWipesAndRepublishesAndTeardownWithdraws) {
  activate(keyOf(1), 7, {1});
  activate(keyOf(2), 8, {2});
  status->statusIs(keyOf(9));
  fwd->fecCommit(fwd->fecForWrite(Fib::FecId::fecIdForAdjType(15, 42)));
  start();
  EXPECT_EQ(status->statusCount() + fwd->fecCount(), 0u);
  scheduler->runDue();  // no clock move: the start-up publication is immediate
  EXPECT_EQ(status->statusCount(), 2u);
  EXPECT_EQ(fwd->fecCount(), 2u);
  sm = nullptr;
  EXPECT_EQ(status->statusCount() + fwd->fecCount(), 0u);
}

TEST_F(PublishSm, ExhaustedFecIndexesStopTheProcess) {
  EXPECT_DEATH(
      {
        Fib::adjIndexMaxIs(1);
        start();
        for (U32 n = 1; n <= 3; ++n)
          activate(keyOf(n), n, {n});
        settle();
      },
      "FecId range exhausted, Not possible");
}

}  // namespace
