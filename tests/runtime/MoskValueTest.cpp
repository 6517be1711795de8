// Value traits, text forms, parsing and hashing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "TestModel.h"

using namespace MoskTest;

namespace {

TEST(MoskHash, MatchesPublishedReferenceValues) {
  EXPECT_EQ(Mosk::murmur3("test", 4), 0xba6bd213u);
  EXPECT_EQ(Mosk::murmur3("Hello, world!", 13, 1234), 0xfaf6cdb3u);
  U32 word = 42;
  EXPECT_EQ(Mosk::murmur3(&word, 4), 0xbc5b91e3u);
  // One word through the mixer is MurmurHash3 of its four bytes.
  EXPECT_EQ(Mosk::hashU32(42), 0xbc5b91e3u);
  Mosk::JenkinsOneAtATime oat;
  oat.addByte('a');
  EXPECT_EQ(oat.final(), 0xca2e9442u);
}

TEST(MoskValue, ScalarRangeCheckUsesItsMessage) {
  EXPECT_NO_THROW(Small(1));
  EXPECT_NO_THROW(Small(10));
  EXPECT_THAT([&] { Small(11); }, testing::ThrowsMessage<Mosk::RangeException>(testing::StrEq(
                                      "Small::value < Small::min or > Small::max not allowed")));
  EXPECT_THROW(Small(0), Mosk::RangeException);
}

TEST(MoskValue, CompositeRoundTripsThroughItsTextForm) {
  Pair p(7, Small(3));
  std::string text = Mosk::valueToStrep(p);
  EXPECT_EQ(text, "Value('MoskTest::Pair', ** {'a': 7, 'b': 3})");
  EXPECT_EQ(Mosk::parse<Pair>(text), p);
  std::ostringstream os;
  os << p;
  EXPECT_EQ(os.str(), text) << "operator<< and valueToStrep must print the same";
}

TEST(MoskValue, RangeErrorWhileParsingNamesTheField) {
  try {
    Mosk::parse<Pair>("Value('MoskTest::Pair', ** {'a': 7, 'b': 30})");
    FAIL() << "expected the range error";
  } catch (Mosk::RangeException const& e) {
    EXPECT_EQ(e.attribute(), "b");
    EXPECT_EQ(e.reason(), "Small::value < Small::min or > Small::max not allowed");
    EXPECT_NE(std::string(e.what()).find("'b'"), std::string::npos);
  }
}

TEST(MoskValue, MalformedTextIsAParseError) {
  EXPECT_THROW(Mosk::parse<Pair>("Value('MoskTest::Pair', ** {'a': 7})"), Mosk::ParseException);
  EXPECT_THROW(Mosk::parse<Pair>("Value('MoskTest::Pair', ** {'a': x, 'b': 1})"),
               Mosk::ParseException);
  EXPECT_THROW(Mosk::parse<Pair>("Value('MoskTest::Pair', ** {'a': 7, 'b': 1}) "),
               Mosk::ParseException);
  EXPECT_THROW(Mosk::parse<U8>("256"), Mosk::ParseException);
  EXPECT_THROW(Mosk::parse<Colour>("blue"), Mosk::ParseException);
}

TEST(MoskValue, BuiltinsAndEnumsRoundTrip) {
  EXPECT_EQ(Mosk::parse<bool>(Mosk::valueToStrep(true)), true);
  EXPECT_EQ(Mosk::valueToStrep(false), "False");
  EXPECT_EQ(Mosk::parse<S32>("-17"), -17);
  EXPECT_EQ(Mosk::parse<U64>("0x10"), 16u);
  EXPECT_EQ(Mosk::parse<double>(Mosk::valueToStrep(0.05)), 0.05);
  std::string tricky = "it's a \\ path";
  EXPECT_EQ(Mosk::parse<std::string>(Mosk::valueToStrep(tricky)), tricky);
  EXPECT_EQ(Mosk::valueToStrep(Colour::green), "green");
  EXPECT_EQ(Mosk::parse<Colour>("green"), Colour::green);
  EXPECT_EQ(ColourInstance(1), Colour::green);
  EXPECT_THROW(ColourInstance(7), Mosk::RangeException);
}

TEST(MoskValue, EqualCompositesHashAlike) {
  EXPECT_EQ(Pair(1, Small(2)).hash(), Pair(1, Small(2)).hash());
  EXPECT_NE(Pair(1, Small(2)).hash(), Pair(2, Small(1)).hash());
}

}  // namespace
