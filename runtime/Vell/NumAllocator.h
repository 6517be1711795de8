// Allocation of numbers from a range, with a quarantine for released numbers.
//
// NumAllocator hands out numbers of its configuration's range (which may be as large as 2^64-1
// numbers: nothing is set aside in advance) and takes them back. A released number is held
// back until the configured expiry time has passed on the allocator's clock, so that a reader
// who still knows the old use of a number cannot mistake a new use for it; only then does it
// return to the free pool. moveCount bounds the work of one getNumber(): it moves at most that
// many expired numbers from the quarantine to the free pool (0: all of them). Expired numbers
// are reused before never-used ones, lowest first, which keeps the numbers in use compact.
//
// The configuration and the bookkeeping (NumAllocatorStatus) are separate counted objects so
// that an owner can keep them across allocators; the configuration is read at every call, so
// a range changed later takes effect at once (numbers outside it are no longer handed out).
// Lowering the range's minimum later does not bring back never-used numbers below the
// numbers already handed out. Memory is proportional to the numbers handed out and held
// back. Single-threaded.
#pragma once

#include <deque>
#include <limits>
#include <queue>
#include <unordered_set>
#include <vector>

#include "Mosk/Ptr.h"
#include "Vell/Clock.h"

namespace Vell {

// Numbers from min to max, both included. min above max, or max equal to
// NumAllocator::invalidNumber, raises a range error.
class Range {
 public:
  Range(U64 min, U64 max);
  U64 min() const { return min_; }
  U64 max() const { return max_; }
  bool contains(U64 n) const { return n >= min_ && n <= max_; }
  bool operator==(Range const&) const = default;

 private:
  U64 min_;
  U64 max_;
};

class NumAllocatorConfig : public Mosk::PtrInterface {
 public:
  NumAllocatorConfig(Range range, U32 moveCount) : range_(range), moveCount_(moveCount) {}

  Range const& range() const { return range_; }
  void rangeIs(Range const& range) { range_ = range; }
  // Expired numbers moved back to the free pool per getNumber() (0: no bound).
  U32 moveCount() const { return moveCount_; }
  void moveCountIs(U32 moveCount) { moveCount_ = moveCount; }
  // Seconds a released number is held back; 0 by default.
  double expiryTime() const { return expiryTime_; }
  // Not negative; raises a range error otherwise.
  void expiryTimeIs(double seconds);

 private:
  Range range_;
  U32 moveCount_;
  double expiryTime_ = 0;
};

class NumAllocatorStatus : public Mosk::PtrInterface {
 public:
  U64 allocatedCount() const { return allocated_.size(); }
  U64 quarantinedCount() const { return quarantine_.size(); }
  U64 freeCount() const { return free_.size(); }

 private:
  friend class NumAllocator;
  struct Released {
    U64 number;
    double at;
  };
  // Numbers at or above this one were never handed out.
  U64 nextFresh_ = 0;
  std::unordered_set<U64> allocated_;
  // In release order, which is time order on a clock that never goes back.
  std::deque<Released> quarantine_;
  std::priority_queue<U64, std::vector<U64>, std::greater<U64>> free_;
};

class NumAllocator : public Mosk::PtrInterface {
 public:
  static constexpr U64 invalidNumber = std::numeric_limits<U64>::max();

  NumAllocator(Mosk::Ptr<NumAllocatorConfig> config, Mosk::Ptr<NumAllocatorStatus> status,
               Mosk::Ptr<Clock const> clock);

  // A number of the range that is neither handed out nor held back, or invalidNumber when
  // there is none.
  U64 getNumber();
  // Takes `n` back; it is held back for the expiry time. A number that is not handed out
  // raises a range error and changes nothing.
  void releaseNumber(U64 n);
  bool isAllocated(U64 n) const { return status_->allocated_.count(n) != 0; }

  Mosk::Ptr<NumAllocatorConfig> const& config() const { return config_; }
  Mosk::Ptr<NumAllocatorStatus> const& status() const { return status_; }

 private:
  // Moves up to moveCount expired numbers to the free pool.
  void moveExpired();

  Mosk::Ptr<NumAllocatorConfig> config_;
  Mosk::Ptr<NumAllocatorStatus> status_;
  Mosk::Ptr<Clock const> clock_;
};

inline Mosk::Ptr<NumAllocatorConfig> numAllocatorConfigFactory(Range range, U32 moveCount) {
  return Mosk::Ptr<NumAllocatorConfig>(new NumAllocatorConfig(range, moveCount));
}
inline Mosk::Ptr<NumAllocatorStatus> numAllocatorStatusFactory() {
  return Mosk::Ptr<NumAllocatorStatus>(new NumAllocatorStatus());
}
inline Mosk::Ptr<NumAllocator> numAllocatorFactory(Mosk::Ptr<NumAllocatorConfig> config,
                                                   Mosk::Ptr<NumAllocatorStatus> status,
                                                   Mosk::Ptr<Clock const> clock) {
  return Mosk::Ptr<NumAllocator>(
      new NumAllocator(std::move(config), std::move(status), std::move(clock)));
}

}  // namespace Vell
