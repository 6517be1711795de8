// The configuration models: static policies, the color to DSCP map and the agent status.
#include <gtest/gtest.h>

#include <vector>

#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicy.h"
#include "SrTePolicy/SrTePolicyStatic.h"

using namespace SrTePolicy;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;
using Qos::Dscp;

namespace {

PolicyKey const key1(Ludd::IpGenAddr::parse("10.0.0.1"), Color(7));
PolicyKey const key2(Ludd::IpGenAddr::parse("2001:db8::2"), Color(8));

// Catches candidate paths walked in insertion or hash order (100, 200, 10, 150), a re-set
// segment list that adds a second entry, a new element without the no-label binding SID, and a
// re-created policy.
TEST(StaticConfig, CandidatesAscendAndSegmentListsAreKeyedByTheirStack) {
  auto config = configFactory("static");
  auto policy = config->policyIs(key1);
  EXPECT_EQ(config->policyIs(key1), policy);
  for (U32 pref : {200u, 10u, 150u, 100u})
    policy->candidatePathIs(Preference(pref));
  std::vector<U32> order;
  for (auto it = policy->candidatePathIterConst(); it; ++it)
    order.push_back(it.key().value());
  EXPECT_EQ(order, (std::vector<U32>{10, 100, 150, 200}));
  auto path = policy->candidatePath(Preference(150));
  EXPECT_EQ(path->bindingSid().value(), 1048576u);
  EXPECT_EQ(policy->bindingSid().value(), 1048576u);
  path->segmentListIs(MplsLabelOperation{16001, 16002}, Weight(1));
  path->segmentListIs(MplsLabelOperation{16001, 16002}, Weight(5));
  path->segmentListIs(MplsLabelOperation{16001}, Weight(1));
  EXPECT_EQ(path->segmentListCount(), 2u);
  EXPECT_EQ(path->segmentList(MplsLabelOperation{16001, 16002}), Weight(5));
  config->nameIsFromBackup("restored");
  EXPECT_EQ(path->fullName(), "restored/" + Mosk::valueToStrep(key1) + "/150");
}

// Catches an index keyed by the whole value (a re-pointed SID would add an entry) and a
// deletion of an absent SID that notifies.
TEST(StaticConfig, BsidIndexIsKeyedByTheBindingSidAlone) {
  struct Watcher : Config::NotifieeConst {
    std::vector<U32> sids;
    void onBsidPolicy(MplsLabel const& sid) override { sids.push_back(sid.value()); }
  };
  auto config = configFactory("static");
  Watcher w;
  w.notifierIs(config);
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), key1));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), key1));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), key2));
  EXPECT_EQ(config->bsidPolicyCount(), 1u);
  EXPECT_EQ(config->bsidPolicy(MplsLabel(900001))->key(), key2);
  config->bsidPolicyDel(MplsLabel(5));
  config->bsidPolicyDel(MplsLabel(900001));
  EXPECT_EQ(w.sids, (std::vector<U32>{900001, 900001, 900001}));
  EXPECT_FALSE(config->bsidPolicy(MplsLabel(900001)));
}

// Catches a range that refuses the invalid marker or lets 65 through, by value or by text.
TEST(ColorDscpMap, DscpAcceptsTheInvalidMarkerAndNothingAbove) {
  EXPECT_EQ(Mosk::parse<Dscp>("64").value(), Dscp::invalid);
  EXPECT_EQ(Dscp().value(), Dscp::invalid);
  try {
    Dscp tooHigh(65);
    FAIL() << "65 accepted";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Dscp::value < Dscp::min or > Dscp::invalid not allowed");
  }
  EXPECT_THROW(Mosk::parse<Dscp>("65"), Mosk::RangeException);
}

// Catches symbolic-save flags that outlive the deletion of their color.
TEST(ColorDscpMap, DeletingAColorDropsItsWholeList) {
  auto map = colorDscpMapFactory("colorDscp");
  auto list = map->colorToDscpIs(Color(7));
  list->dscpIs(Dscp(46), true);
  list->cliSaveUseSymbolic_Is(Dscp(46), true);
  EXPECT_TRUE(map->colorToDscp(Color(7))->cliSaveUseSymbolic_(Dscp(46)));
  map->colorToDscpDel(Color(7));
  EXPECT_FALSE(map->colorToDscp(Color(7)));
  auto fresh = map->colorToDscpIs(Color(7));
  EXPECT_EQ(fresh->dscpCount() + fresh->cliSaveUseSymbolic_Count(), 0u);
}

// Catches a setter that notifies when the value did not change.
TEST(AgentStatus, NotifiesOnlyWhenAgentEnabledChanges) {
  struct Watcher : Status::NotifieeConst {
    int calls = 0;
    void onAgentEnabled() override { ++calls; }
  };
  auto status = statusFactory("srTePolicy");
  Watcher w;
  w.notifierIs(status);
  status->agentEnabledIs(false);
  EXPECT_EQ(w.calls, 0);
  status->agentEnabledIs(true);
  status->agentEnabledIs(true);
  EXPECT_EQ(w.calls, 1);
}

}  // namespace
