// The number allocator: ranges far too large to preallocate, exhaustion, and the expiry rule
// for released numbers on a manual clock.
#include <gtest/gtest.h>

#include <set>

#include "Vell/NumAllocator.h"

using Mosk::Ptr;
using namespace Vell;

namespace {

class VellNumAllocator : public ::testing::Test {
 protected:
  Ptr<ManualClock> clock = manualClockFactory();
  Ptr<NumAllocatorConfig> config = numAllocatorConfigFactory(Range(0, (U64{1} << 48) - 1), 100);
  Ptr<NumAllocator> alloc = numAllocatorFactory(config, numAllocatorStatusFactory(), clock);
};

// Catches a released number handed out again before its expiry time has passed.
TEST_F(VellNumAllocator, ReleasedNumberWaitsForItsExpiry) {
  config->expiryTimeIs(300);
  U64 a = alloc->getNumber();
  U64 b = alloc->getNumber();
  EXPECT_NE(a, b);
  alloc->releaseNumber(a);
  clock->nowIs(299.5);
  std::set<U64> seen;
  for (int i = 0; i < 1000; ++i)
    seen.insert(alloc->getNumber());
  EXPECT_EQ(seen.count(a), 0u);
  clock->nowIs(300);
  EXPECT_EQ(alloc->getNumber(), a);  // expired numbers are reused first
}

// Catches a full range that still hands out numbers, a double release, and a narrowed range
// that hands out numbers outside it.
TEST_F(VellNumAllocator, SmallRangeExhaustionReleaseErrorsAndNarrowing) {
  config->rangeIs(Range(10, 12));
  EXPECT_EQ(alloc->getNumber(), 10u);
  EXPECT_EQ(alloc->getNumber(), 11u);
  EXPECT_EQ(alloc->getNumber(), 12u);
  EXPECT_EQ(alloc->getNumber(), NumAllocator::invalidNumber);
  alloc->releaseNumber(12);
  alloc->releaseNumber(10);
  EXPECT_THROW(alloc->releaseNumber(10), Mosk::RangeException);
  EXPECT_THROW(alloc->releaseNumber(99), Mosk::RangeException);
  config->rangeIs(Range(11, 12));
  EXPECT_EQ(alloc->getNumber(), 12u);  // 10 is outside the range now
  EXPECT_EQ(alloc->getNumber(), NumAllocator::invalidNumber);
  EXPECT_THROW(Range(5, 4), Mosk::RangeException);
  EXPECT_THROW(config->expiryTimeIs(-1), Mosk::RangeException);
}

// Catches a moveCount that is not honoured: with 2 per call and no fresh numbers left, the
// third expired number is only found by a later call.
TEST_F(VellNumAllocator, MoveCountBoundsExpiredNumbersMovedPerCall) {
  config->rangeIs(Range(0, 3));
  config->moveCountIs(2);
  for (int i = 0; i < 4; ++i)
    alloc->getNumber();
  for (U64 n : {3, 2, 1})
    alloc->releaseNumber(n);
  EXPECT_EQ(alloc->getNumber(), 2u);  // 3 and 2 moved; lowest first
  EXPECT_EQ(alloc->status()->quarantinedCount(), 1u);
  EXPECT_EQ(alloc->getNumber(), 1u);
  EXPECT_EQ(alloc->getNumber(), 3u);
}

}  // namespace
