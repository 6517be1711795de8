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

// Catches candidate paths walked in insertion or hash order (100, 200, 10, 150), a re-set
// segment list that adds a second entry, a missing no-label default, and a binding-SID index
// keyed by the whole value (a re-pointed SID would add an entry).
TEST(StaticConfig, CandidatesAscendAndListsAndSidsAreKeyedByTheirKeyAlone) {
  auto config = configFactory("static");
  PolicyKey key(Ludd::IpGenAddr::parse("10.0.0.1"), Color(7));
  auto policy = config->policyIs(key);
  for (U32 pref : {200u, 10u, 150u, 100u})
    policy->candidatePathIs(Preference(pref));
  std::vector<U32> order;
  for (auto it = policy->candidatePathIterConst(); it; ++it)
    order.push_back(it.key().value());
  EXPECT_EQ(order, (std::vector<U32>{10, 100, 150, 200}));
  auto path = policy->candidatePath(Preference(150));
  EXPECT_TRUE(path->bindingSid().isNone() && policy->bindingSid().isNone());
  path->segmentListIs(MplsLabelOperation{16001, 16002}, Weight(1));
  path->segmentListIs(MplsLabelOperation{16001, 16002}, Weight(5));
  EXPECT_EQ(path->segmentListCount(), 1u);
  EXPECT_EQ(path->segmentList(MplsLabelOperation{16001, 16002}), Weight(5));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), PolicyKey()));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), key));
  config->bsidPolicyDel(MplsLabel(5));
  EXPECT_EQ(config->bsidPolicyCount(), 1u);
  EXPECT_EQ(config->bsidPolicy(MplsLabel(900001))->key(), key);
}

// Catches a DSCP range that refuses the invalid marker or lets 65 through, by value or text.
TEST(ColorDscpMap, DscpAcceptsTheInvalidMarkerAndNothingAbove) {
  EXPECT_EQ(Mosk::parse<Dscp>("64").value(), Dscp::invalid);
  EXPECT_THROW(Mosk::parse<Dscp>("65"), Mosk::RangeException);
  try {
    Dscp tooHigh(65);
    FAIL() << "65 accepted";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Dscp::value < Dscp::min or > Dscp::invalid not allowed");
  }
}

}  // namespace
