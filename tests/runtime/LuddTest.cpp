// Network value types: addresses, labels, label stacks, interface ids, tunnel ids.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Ludd/IntfId.h"
#include "Ludd/IpAddr.h"
#include "Ludd/MplsLabel.h"
#include "Tunnel/TunnelId.h"

using namespace Ludd;

namespace {

// Catches: octets read in the wrong order or base (a leading zero read as octal makes
// "010.0.0.1" 8.0.0.1, so it is refused in every form that holds an IPv4 address; found by
// fuzzing), malformed text taken.
TEST(LuddIpAddr, ParsesPrintsOrdersAndRefusesMalformedText) {
  EXPECT_EQ(IpAddr::parse("10.0.0.1").toU32(), 0x0A000001u);
  EXPECT_EQ(IpAddr::parse("100.0.10.0").toU32(), 0x64000A00u);
  EXPECT_EQ(Mosk::valueToStrep(IpAddr::parse("10.0.0.1")), "10.0.0.1");
  EXPECT_EQ(IpAddr::parse("0.0.0.0"), IpAddr());
  EXPECT_LT(IpAddr::parse("9.255.255.255"), IpAddr::parse("10.0.0.0"));
  for (char const* bad : {"1.2.3", "1.2.3.4.5", "256.1.1.1", "1..2.3", "a.b.c.d", "", "010.0.0.1",
                          "1.2.3.04", "00.0.0.0"}) {
    EXPECT_THROW(IpAddr::parse(bad), Mosk::ParseException) << bad;
    EXPECT_THROW(IpGenAddr::parse(bad), Mosk::ParseException) << bad;
  }
  EXPECT_THROW(IpGenAddr::parse("::ffff:05.0.0.1"), Mosk::ParseException);
}

TEST(LuddIpGenAddr, RoundTripsAndOrdersBothFamiliesAndTheEmptyAddress) {
  for (char const* text : {"none", "192.0.2.1", "2001:db8::1", "::", "::1", "fe80::1:2:3:4",
                           "2001:db8:0:1:1:1:1:1", "1::"}) {
    IpGenAddr a = IpGenAddr::parse(text);
    EXPECT_EQ(Mosk::valueToStrep(a), text);
    EXPECT_EQ(IpGenAddr::parse(Mosk::valueToStrep(a)), a);
  }
  EXPECT_EQ(Mosk::valueToStrep(IpGenAddr::parse("2001:0db8:0000:0000:0000:0000:0000:0001")),
            "2001:db8::1");
  EXPECT_EQ(IpGenAddr::parse("::ffff:1.2.3.4").bytes()[15], 4);
  for (char const* bad : {"2001:db8::1::2", "1:2:3:4:5:6:7:8:9", "12345::", "1:2", ":1", "1:"}) {
    EXPECT_THROW(IpGenAddr::parse(bad), Mosk::ParseException) << bad;
  }
  // Empty first, then IPv4, then IPv6.
  EXPECT_LT(IpGenAddr(), IpGenAddr::parse("0.0.0.0"));
  EXPECT_LT(IpGenAddr::parse("255.255.255.255"), IpGenAddr::parse("::"));
  EXPECT_NE(IpGenAddr::parse("0.0.0.0"), IpGenAddr::parse("::"));
}

TEST(LuddMplsLabel, DefaultIsNoLabelAndAboveIsRefused) {
  EXPECT_TRUE(MplsLabel().isNone());
  EXPECT_EQ(MplsLabel().value(), 1048576u);
  EXPECT_NO_THROW(MplsLabel(1048575));
  EXPECT_THROW(MplsLabel(1048577), Mosk::RangeException);
}

TEST(LuddMplsLabelOperation, HoldsAtMostSixLabels) {
  MplsLabelOperation op{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(op.size(), 6);
  EXPECT_THAT([&] { op.push(MplsLabel(7)); },
              testing::ThrowsMessage<Mosk::RangeException>(
                  testing::StrEq("MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                                 "MplsStackEntryIndex::max not allowed")));
}

TEST(LuddMplsLabelOperation, ShrinkingClearsPositionsAboveTheSize) {
  MplsLabelOperation a{16001, 16002, 16003};
  a.sizeIs(2);
  MplsLabelOperation b{16001, 16002};
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_TRUE(a.label(2).isNone());
  EXPECT_NE(MplsLabelOperation({16001, 16002}), MplsLabelOperation({16002, 16001}));
}

// Catches a label written past the size and left outside it: such a stack printed as a shorter
// one yet compared unequal to it, and hashed differently (found by fuzzing).
TEST(LuddMplsLabelOperation, WritingPastTheSizeExtendsTheStack) {
  MplsLabelOperation op{16001};
  op.labelIs(MplsStackEntryIndex(3), MplsLabel(17));
  EXPECT_EQ(op.size(), 4);
  MplsLabelOperation const expected{16001, 1048576, 1048576, 17};
  EXPECT_EQ(op, expected);
  EXPECT_EQ(op.hash(), expected.hash());
  EXPECT_EQ(Mosk::parse<MplsLabelOperation>(Mosk::valueToStrep(op)), op);
  op.labelIs(MplsStackEntryIndex(1), MplsLabel(20));
  EXPECT_EQ(op.size(), 4);
}

TEST(LuddMplsLabelOperation, RoundTripsAndNormalizesForeignRecords) {
  MplsLabelOperation op{16001, 3, 1048575};
  EXPECT_EQ(Mosk::valueToStrep(op), "[16001, 3, 1048575]");
  EXPECT_EQ(Mosk::parse<MplsLabelOperation>("[16001, 3, 1048575]"), op);
  EXPECT_EQ(Mosk::parse<MplsLabelOperation>("[]"), MplsLabelOperation());
  EXPECT_THROW(Mosk::parse<MplsLabelOperation>("[1, 2, 3, 4, 5, 6, 7]"), Mosk::RangeException);
  // A record copied in from another process: garbage above the size is cleared.
  MplsLabelOperation raw;
  U32 words[9] = {1, 2, 77, 88, 99, 11, 2, 0, 0};
  std::memcpy(static_cast<void*>(&raw), words, sizeof words);
  EXPECT_TRUE(raw.normalize());
  EXPECT_EQ(raw, MplsLabelOperation({1, 2}));
  words[6] = 9;
  std::memcpy(static_cast<void*>(&raw), words, sizeof words);
  EXPECT_FALSE(raw.normalize());
}

TEST(LuddIntfId, ReservedKindsAreRecognised) {
  IntfId eth(IntfId::Kind::ethernet, 3);
  IntfId nhg(IntfId::Kind::nexthopGroup, 3);
  IntfId dyn(IntfId::Kind::dynamicTunnel, 9);
  EXPECT_FALSE(FecIdIntfId::isNexthopGroupIdIntfId(eth));
  EXPECT_TRUE(FecIdIntfId::isNexthopGroupIdIntfId(nhg));
  EXPECT_FALSE(DynamicTunnelIntfId::isDynamicTunnelIntfId(nhg));
  EXPECT_TRUE(DynamicTunnelIntfId::isDynamicTunnelIntfId(dyn));
  for (IntfId i : {eth, nhg, dyn, IntfId()}) {
    EXPECT_EQ(IntfId::parse(Mosk::valueToStrep(i)), i);
  }
  EXPECT_EQ(Mosk::valueToStrep(eth), "Ethernet3");
  EXPECT_THROW(IntfId::parse("Bogus4"), Mosk::ParseException);
  EXPECT_THROW(IntfId(IntfId::Kind::ethernet, 1u << 24), Mosk::RangeException);
}

TEST(TunnelId, TypeAndIndexMustFitIn48Bits) {
  using Tunnel::TunnelTable::TunnelId;
  using Tunnel::TunnelTable::TunnelType;
  TunnelId t = TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, 5);
  EXPECT_EQ(t.type(), TunnelType::srTeSegmentList);
  EXPECT_EQ(t.index(), 5u);
  EXPECT_EQ(Mosk::parse<TunnelId>(Mosk::valueToStrep(t)), t);
  EXPECT_THAT([&] { TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, U64{1} << 48); },
              testing::ThrowsMessage<Mosk::RangeException>(testing::StrEq(
                  "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed")));
}

}  // namespace
