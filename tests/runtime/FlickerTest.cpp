// Tracing: level checks before any formatting, per-handle levels, text lines to the sink, and
// the binary rings' round trip and overwrite order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Flicker/Flicker.h"

namespace {

Flicker::TraceHandle handleA("FlickerTestA");
Flicker::TraceHandle handleB("FlickerTestB");

struct Capture : Flicker::TraceSink {
  void traceLine(Flicker::TraceLine const& l) override {
    lines.push_back(std::string(l.handle) + " " + std::to_string(l.level) + " " + l.function +
                    ": " + std::string(l.message));
  }
  std::vector<std::string> lines;
};

struct Id {
  U32 value() const { return v; }
  void strep(std::ostream& os) const { os << "Id(" << v << ")"; }
  U32 v;
};

class FlickerTrace : public ::testing::Test {
 protected:
  void SetUp() override { Flicker::traceSinkIs(&capture); }
  void TearDown() override {
    Flicker::traceSinkIs(nullptr);
    Flicker::traceEnabledLevelsIs("*", 0);
    for (U32 l = 0; l < Flicker::kLevels; ++l) {
      Flicker::binaryLevelEnabledIs(l, false);
      Flicker::ringCapacityIs(l, 1024);
    }
  }
  Capture capture;
};

int evaluations = 0;
int counted() {
  return ++evaluations;
}

// Catches a trace point that evaluates (and so formats) its values while its level is off, and
// a level enabled on one handle leaking to another.
TEST_F(FlickerTrace, DisabledPointEvaluatesNothingAndLevelsStayPerHandle) {
  handleA.levelEnabledIs(6, true);
  SRTE_TRACE(handleA, 7, "off " << counted());
  SRTE_TRACE(handleB, 6, "off " << counted());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(capture.lines.empty());
  SRTE_TRACE(handleA, 6, "Policy Entry: " << Id{4} << " has changed " << counted());
  EXPECT_EQ(evaluations, 1);
  ASSERT_EQ(capture.lines.size(), 1u);
  EXPECT_EQ(capture.lines[0], "FlickerTestA 6 TestBody: Policy Entry: Id(4) has changed 1");
  handleA.levelEnabledIs(6, false);
}

// Catches name-wide switches that miss handles or leak to other names.
TEST_F(FlickerTrace, LevelsByName) {
  Flicker::traceLevelEnabledIs("FlickerTestB", 9, true);
  EXPECT_TRUE(handleB.textEnabled(9));
  EXPECT_FALSE(handleA.textEnabled(9));
  Flicker::TraceHandle later("FlickerTestB");  // takes the levels set for its name
  EXPECT_TRUE(later.textEnabled(9));
  Flicker::traceEnabledLevelsIs("*", 0x3f0);
  EXPECT_TRUE(handleA.textEnabled(4) && handleB.textEnabled(5) && !handleA.textEnabled(3));
  EXPECT_THROW(handleA.levelEnabledIs(10, true), Mosk::RangeException);
}

// Catches a ring that does not decode to what was written, a binary channel that formats the
// text, and a separate binary text that is not used.
TEST_F(FlickerTrace, RingDecodesToWhatWasWritten) {
  Flicker::binaryLevelEnabledIs(9, true);
  int x = 0;
  S32 minus = -5;
  SRTE_TRACE(handleA, 9, "Processed " << U8{200} << " lists at " << &x << " sign " << minus);
  SRTE_TRACE2(handleA, 9, "Removing registration of Segment Id: " << Id{7},
              "Removing registering Segment Id: " << Id{7} << " " << true);
  EXPECT_TRUE(capture.lines.empty());  // text level off
  auto lines = Flicker::decodeRing(9);
  ASSERT_EQ(lines.size(), 2u);
  char addr[32];
  std::snprintf(addr, sizeof addr, "%p", static_cast<void*>(&x));
  EXPECT_NE(lines[0].find("FlickerTest.cpp:"), std::string::npos);
  EXPECT_NE(lines[0].find(std::string(" TestBody: Processed 200 lists at ") + addr + " sign -5"),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find("TestBody: Removing registering Segment Id: 7 True"), std::string::npos)
      << lines[1];
}

// Catches a ring that keeps its oldest records and drops the newest when it wraps.
TEST_F(FlickerTrace, WrappingRingKeepsTheNewestRecords) {
  Flicker::ringCapacityIs(5, 4);
  Flicker::binaryLevelEnabledIs(5, true);
  for (U32 i = 0; i < 10; ++i)
    SRTE_TRACE(handleB, 5, "n=" << i);
  EXPECT_EQ(Flicker::ringWriteCount(5), 10u);
  auto lines = Flicker::decodeRing(5);
  ASSERT_EQ(lines.size(), 4u);
  for (U32 i = 0; i < 4; ++i)
    EXPECT_TRUE(lines[i].ends_with("n=" + std::to_string(6 + i))) << lines[i];
}

}  // namespace
