// The policy value types: ranges, orders, text forms and the policy id's source bits.
#include <gtest/gtest.h>

#include "SrTePolicy/SrTePolicyTypes.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelType;

namespace {

template <class T>
std::string rangeMessage(U32 v) {
  try {
    T t(v);
    (void)t;
  } catch (Mosk::RangeException const& e) {
    return e.what();
  }
  return "accepted";
}

TEST(PolicyValueTypes, RangesAndTheirMessages) {
  EXPECT_EQ(rangeMessage<Weight>(0), "Weight::value < Weight::min or > Weight::max not allowed");
  EXPECT_EQ(rangeMessage<Weight>(1), "accepted");
  EXPECT_EQ(rangeMessage<SegmentListIndex>(15), "accepted");
  EXPECT_EQ(
      rangeMessage<SegmentListIndex>(16),
      "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed");
  EXPECT_EQ(rangeMessage<Preference>(0), "accepted");
  EXPECT_EQ(rangeMessage<Preference>(Mosk::maxU32), "accepted");
  EXPECT_EQ(Preference().value(), 100u);
  EXPECT_EQ(Weight().value(), 1u);
  // Index addition is plain: the range is checked only where an index is constructed.
  SegmentListIndex i(15);
  i += SegmentListIndex(1);
  EXPECT_EQ(i.value(), 16u);
}

TEST(PolicyValueTypes, PolicyIdCarriesItsSourceInTheTopBits) {
  PolicyId id = PolicyId::make(PolicySource::sourceBgp, 7);
  EXPECT_EQ(id.value(), 0x40000007u);
  EXPECT_EQ(id.value() >> 30, 1u);
  EXPECT_EQ(id.source(), PolicySource::sourceBgp);
  EXPECT_EQ(id.index(), 7u);
  EXPECT_EQ(PolicyId::make(PolicySource::sourceOther, 0xffffffff).value(), 0xffffffffu);
}

Priority prio(U32 pref, PolicySource src, char const* router, U32 id) {
  return Priority(Preference(pref), src, IpAddr::parse(router), id);
}

TEST(PolicyValueTypes, PriorityRanksPreferenceThenSourceThenRouterThenId) {
  auto s0 = PolicySource::sourceStatic;
  auto s1 = PolicySource::sourceBgp;
  // Higher preference first, whatever the other fields.
  EXPECT_LT(prio(200, s1, "9.9.9.9", 9), prio(100, s0, "1.1.1.1", 1));
  EXPECT_LT(prio(100, s0, "9.9.9.9", 9), prio(100, s1, "1.1.1.1", 1));
  EXPECT_LT(prio(100, s0, "1.1.1.1", 9), prio(100, s0, "2.2.2.2", 1));
  EXPECT_LT(prio(100, s0, "1.1.1.1", 5), prio(100, s0, "1.1.1.1", 7));
  Priority a = prio(100, s0, "1.1.1.1", 5), b = prio(100, s0, "1.1.1.1", 7);
  EXPECT_TRUE(a <= b && !(a > b) && b > a && b >= a && a >= a && a <= a);
  EXPECT_FALSE(a < a);
  EXPECT_TRUE(a.sameExceptId(b));
  EXPECT_FALSE(a.sameExceptId(prio(100, s1, "1.1.1.1", 5)));
  EXPECT_NE(a, b);
}

TEST(PolicyValueTypes, KeysOrderAscendingByEndpointColorPreference) {
  auto ep = [](char const* s) { return IpGenAddr::parse(s); };
  EXPECT_LT(PolicyKey(ep("1.1.1.1"), Color(9)), PolicyKey(ep("1.1.1.2"), Color(1)));
  EXPECT_LT(PolicyKey(ep("1.1.1.1"), Color(1)), PolicyKey(ep("1.1.1.1"), Color(2)));
  // Unlike Priority, a configuration key ranks the lower preference first.
  EXPECT_LT(PolicyEcpKey(ep("1.1.1.1"), Color(1), Preference(100)),
            PolicyEcpKey(ep("1.1.1.1"), Color(1), Preference(200)));
  EXPECT_GE(PolicyEcpKey(ep("1.1.1.1"), Color(1), Preference(200)),
            PolicyEcpKey(ep("1.1.1.1"), Color(1), Preference(200)));
}

template <class T>
void expectRoundTrip(T const& v, std::string const& text) {
  EXPECT_EQ(Mosk::valueToStrep(v), text);
  EXPECT_EQ(Mosk::parse<T>(text), v) << text;
  EXPECT_EQ(Mosk::parse<T>(text).hash(), v.hash()) << text;
}

TEST(PolicyValueTypes, EveryTypeRoundTripsThroughItsTextForm) {
  PolicyKey key(IpGenAddr::parse("2001:db8::7"), Color(12));
  // The scalar wrappers share one generated text form, the number.
  expectRoundTrip(PolicyId(0x40000007), "1073741831");
  expectRoundTrip(key, "Value('SrTePolicy::PolicyKey', ** {'endpoint': 2001:db8::7, 'color': 12})");
  expectRoundTrip(PolicyEcpKey(IpGenAddr::parse("10.0.0.1"), Color(1), Preference(50)),
                  "Value('SrTePolicy::PolicyEcpKey', ** {'endpoint': 10.0.0.1, 'color': 1, "
                  "'preference': 50})");
  expectRoundTrip(BsidKeyedPolicy(MplsLabel(900001), key),
                  "Value('SrTePolicy::BsidKeyedPolicy', ** {'bindingSid': 900001, 'key': "
                  "Value('SrTePolicy::PolicyKey', ** {'endpoint': 2001:db8::7, 'color': 12})})");
  expectRoundTrip(prio(200, PolicySource::sourcePcep, "1.1.1.1", 5),
                  "Value('SrTePolicy::Priority', ** {'preference': 200, 'source': sourcePcep, "
                  "'routerId': 1.1.1.1, 'id': 5})");
  expectRoundTrip(
      WeightedSegList(Weight(2), MplsLabelOperation{16001, 16002}),
      "Value('SrTePolicy::WeightedSegList', ** {'weight': 2, 'segList': [16001, 16002]})");
  expectRoundTrip(
      WeightedSegmentList(TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, 1),
                          Weight(3)),
      "Value('SrTePolicy::WeightedSegmentList', ** {'tunnelId': 8796093022209, 'weight': 3})");
  expectRoundTrip(PendingIdBookmark(false, 42),
                  "Value('SrTePolicy::PendingIdBookmark', ** {'startFresh': False, 'nextId': 42})");
  expectRoundTrip(PendingKeyBookmark(),
                  "Value('SrTePolicy::PendingKeyBookmark', ** {'startFresh': True, 'nextKey': "
                  "Value('SrTePolicy::PolicyKey', ** {'endpoint': none, 'color': 0})})");
  EXPECT_EQ(Mosk::parse<PolicySource>("sourceOther"), PolicySource::sourceOther);
  EXPECT_EQ(Mosk::valueToStrep(SegmentType::segMplsLabel), "segMplsLabel");
  EXPECT_EQ(SegmentTypeInstance("segMplsLabel"), SegmentType::segMplsLabel);
  EXPECT_EQ(stringValue(SegmentTypeInstance(0)), "invalid");
}

TEST(PolicyValueTypes, ParseErrorNamesTheBadField) {
  try {
    Mosk::parse<WeightedSegList>(
        "Value('SrTePolicy::WeightedSegList', ** {'weight': 0, 'segList': [1]})");
    FAIL() << "expected the range error";
  } catch (Mosk::RangeException const& e) {
    EXPECT_EQ(e.attribute(), "weight");
    EXPECT_EQ(e.reason(), "Weight::value < Weight::min or > Weight::max not allowed");
  }
  try {
    Mosk::parse<BsidKeyedPolicy>(
        "Value('SrTePolicy::BsidKeyedPolicy', ** {'bindingSid': 5, 'key': "
        "Value('SrTePolicy::PolicyKey', ** {'endpoint': 1.2.3.4, 'color': 99999999999})})");
    FAIL() << "expected a parse error";
  } catch (Mosk::ParseException const& e) {
    EXPECT_NE(std::string(e.what()).find("above"), std::string::npos) << e.what();
  }
  EXPECT_THROW(Mosk::parse<Priority>("Value('SrTePolicy::Priority', ** {'preference': 1})"),
               Mosk::ParseException);
}

}  // namespace
