// The policy value types: ranges, orders, the policy id's source bits, and the two forms of
// every value: the text form and the attribute-log form that other processes read.
#include <gtest/gtest.h>

#include <functional>

#include "Mosk/AttributeLog.h"
#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicyExportTypes.h"
#include "SrTePolicy/SrTePolicyTypes.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelType;

namespace {

std::vector<U8> words(std::initializer_list<U32> ws) {
  Mosk::LogWriter w;
  for (U32 x : ws)
    w.u32(x);
  return w.take();
}

// Catches: a range check missing, off by one or with another message, whether the value is
// constructed, parsed from text or read from the attribute log (a check skipped on reading);
// a refusal inside a composite that does not name the field.
TEST(PolicyValueTypes, RangesRefuseTheSameValuesWhereverTheyComeFrom) {
  std::string const weight = "Weight::value < Weight::min or > Weight::max not allowed";
  std::string const index =
      "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed";
  std::string const dscp = "Dscp::value < Dscp::min or > Dscp::invalid not allowed";
  struct Case {
    char const* what;
    std::function<void()> make;
    std::string reason;  // empty: accepted
    std::string attribute = "";
  };
  PolicyInputEntry seventeen(PolicyId(5));
  std::vector<U8> seventeenBytes = Mosk::logBytes(seventeen);
  seventeenBytes[4 + 1 + 4 + 4 + 4 + 4 + 3] = 17;  // after key, endpoint, color, preference,
                                                   // router id and binding SID: the count
  std::vector<Case> const cases = {
      {"weight 1", [] { (void)Weight(1); }, ""},
      {"weight 0", [] { (void)Weight(0); }, weight},
      {"weight 0 read", [] { (void)Mosk::logParse<Weight>(words({0})); }, weight},
      {"weight 0 in a read composite",
       [] {
         (void)Mosk::logParse<WeightedSegmentList>({0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0});
       },
       weight, "weight"},
      {"weight 0 in a parsed composite",
       [] {
         (void)Mosk::parse<WeightedSegList>(
             "Value('SrTePolicy::WeightedSegList', ** {'weight': 0, 'segList': [1]})");
       },
       weight, "weight"},
      {"index 15", [] { (void)SegmentListIndex(15); }, ""},
      {"index 16", [] { (void)SegmentListIndex(16); }, index},
      {"index 16 read", [] { (void)Mosk::logParse<SegmentListIndex>(words({16})); }, index},
      {"seventeen lists read", [&] { (void)Mosk::logParse<PolicyInputEntry>(seventeenBytes); },
       index, "segmentList"},
      {"preference 0 and the largest", [] { (void)Preference(0), (void)Preference(Mosk::maxU32); },
       ""},
      {"DSCP 64, the invalid marker", [] { (void)Mosk::parse<Qos::Dscp>("64"); }, ""},
      {"DSCP 65", [] { (void)Qos::Dscp(65); }, dscp},
      {"DSCP 65 parsed", [] { (void)Mosk::parse<Qos::Dscp>("65"); }, dscp},
      {"DSCP 65 read", [] { (void)Mosk::logParse<Qos::Dscp>({65}); }, dscp},
      {"source 4 read", [] { (void)Mosk::logParse<PolicySource>(words({4})); },
       "PolicySource value 4 not allowed"},
      {"label above the largest read", [] { (void)Mosk::logParse<MplsLabel>(words({0x100001})); },
       "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed"},
      {"stack of 7 read", [] { (void)Mosk::logParse<MplsLabelOperation>({7}); },
       "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
       "MplsStackEntryIndex::max not allowed"},
      {"tunnel id above 48 bits read",
       [] {
         (void)Mosk::logParse<TunnelId>({0, 1, 0, 0, 0, 0, 0, 0});
       },
       "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      c.make();
      EXPECT_EQ(c.reason, "") << "accepted";
    } catch (Mosk::RangeException const& e) {
      EXPECT_EQ(e.reason(), c.reason);
      EXPECT_EQ(e.attribute(), c.attribute);
    }
  }
  EXPECT_EQ(Mosk::parse<Qos::Dscp>("64").value(), Qos::Dscp::invalid);
  EXPECT_EQ(Preference().value(), 100u);
  EXPECT_EQ(Weight().value(), 1u);
  // Index addition is plain: the range is checked only where an index is constructed.
  SegmentListIndex i(15);
  i += SegmentListIndex(1);
  EXPECT_EQ(i.value(), 16u);
  try {
    Mosk::parse<BsidKeyedPolicy>(
        "Value('SrTePolicy::BsidKeyedPolicy', ** {'bindingSid': 5, 'key': "
        "Value('SrTePolicy::PolicyKey', ** {'endpoint': 1.2.3.4, 'color': 99999999999})})");
    ADD_FAILURE() << "expected a parse error";
  } catch (Mosk::ParseException const& e) {
    EXPECT_NE(std::string(e.what()).find("above"), std::string::npos) << e.what();
  }
  EXPECT_THROW(Mosk::parse<Priority>("Value('SrTePolicy::Priority', ** {'preference': 1})"),
               Mosk::ParseException);
}

TEST(PolicyValueTypes, PolicyIdCarriesItsSourceInTheTopBits) {
  PolicyId id = PolicyId::make(PolicySource::sourceBgp, 7);
  EXPECT_EQ(id.value(), 0x40000007u);
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

// Both forms of `v`: its text (`text`, or only parsed back when empty) and its attribute-log
// bytes read back.
template <class T>
void expectRoundTrips(T const& v, std::string text = "") {
  if (text.empty()) {
    text = Mosk::valueToStrep(v);
  } else {
    EXPECT_EQ(Mosk::valueToStrep(v), text);
  }
  EXPECT_EQ(Mosk::parse<T>(text), v) << text;
  if constexpr (requires { v.hash(); }) {
    EXPECT_EQ(Mosk::parse<T>(text).hash(), v.hash()) << text;
  }
  EXPECT_EQ(Mosk::logParse<T>(Mosk::logBytes(v)), v) << text;
}

// Catches: a text or attribute-log form that loses, reorders or misnames a field. The scalar
// wrappers share one generated form; PolicyId stands for all.
TEST(PolicyValueTypes, EveryTypeRoundTripsThroughItsTextAndLogForms) {
  PolicyKey key(IpGenAddr::parse("2001:db8::7"), Color(12));
  expectRoundTrips(PolicyId(0x40000007), "1073741831");
  expectRoundTrips(PolicySource::sourceOther, "sourceOther");
  expectRoundTrips(SegmentType::segMplsLabel, "segMplsLabel");
  expectRoundTrips(key,
                   "Value('SrTePolicy::PolicyKey', ** {'endpoint': 2001:db8::7, 'color': 12})");
  expectRoundTrips(PolicyKey());
  expectRoundTrips(PolicyEcpKey(IpGenAddr::parse("10.0.0.1"), Color(1), Preference(50)),
                   "Value('SrTePolicy::PolicyEcpKey', ** {'endpoint': 10.0.0.1, 'color': 1, "
                   "'preference': 50})");
  expectRoundTrips(BsidKeyedPolicy(MplsLabel(900001), key),
                   "Value('SrTePolicy::BsidKeyedPolicy', ** {'bindingSid': 900001, 'key': "
                   "Value('SrTePolicy::PolicyKey', ** {'endpoint': 2001:db8::7, 'color': 12})})");
  expectRoundTrips(prio(200, PolicySource::sourcePcep, "1.1.1.1", 5),
                   "Value('SrTePolicy::Priority', ** {'preference': 200, 'source': sourcePcep, "
                   "'routerId': 1.1.1.1, 'id': 5})");
  expectRoundTrips(
      WeightedSegList(Weight(2), MplsLabelOperation{16001, 16002}),
      "Value('SrTePolicy::WeightedSegList', ** {'weight': 2, 'segList': [16001, 16002]})");
  expectRoundTrips(
      WeightedSegmentList(TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, 1),
                          Weight(3)),
      "Value('SrTePolicy::WeightedSegmentList', ** {'tunnelId': 8796093022209, 'weight': 3})");
  expectRoundTrips(
      PendingIdBookmark(false, 42),
      "Value('SrTePolicy::PendingIdBookmark', ** {'startFresh': False, 'nextId': 42})");
  expectRoundTrips(PendingKeyBookmark(),
                   "Value('SrTePolicy::PendingKeyBookmark', ** {'startFresh': True, 'nextKey': "
                   "Value('SrTePolicy::PolicyKey', ** {'endpoint': none, 'color': 0})})");
  expectRoundTrips(PendingKeyBookmark(false, key));
  expectRoundTrips(Export::Segment(MplsLabel(3)));
  expectRoundTrips(Qos::Dscp(Qos::Dscp::invalid));
  PolicyInputEntry entry(PolicyId(5));
  entry.segmentListPush(WeightedSegList(Weight(2), MplsLabelOperation{100}));
  entry.segmentListPush(WeightedSegList(Weight(1), MplsLabelOperation{}));
  expectRoundTrips(entry);
  EXPECT_EQ(SegmentTypeInstance("segMplsLabel"), SegmentType::segMplsLabel);
  EXPECT_EQ(stringValue(SegmentTypeInstance(0)), "invalid");
  // Catches: a byte order or field order other than preference, source, routerId, id.
  Priority p(Preference(0x01020304), PolicySource::sourcePcep, IpAddr::fromU32(0x0a0b0c0d), 7);
  EXPECT_EQ(Mosk::logBytes(p), words({0x01020304, 2, 0x0a0b0c0d, 7}));
}

}  // namespace
