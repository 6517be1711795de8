// The allocator's choice of numbers and its quarantine of released ones.
#include "Vell/NumAllocator.h"

#include <cmath>
#include <string>

#include "Mosk/Exception.h"

namespace Vell {

Range::Range(U64 min, U64 max) : min_(min), max_(max) {
  if (min > max) {
    throw Mosk::RangeException("Range min " + std::to_string(min) + " above max " +
                               std::to_string(max) + " not allowed");
  }
  if (max == NumAllocator::invalidNumber) {
    throw Mosk::RangeException("Range max " + std::to_string(max) +
                               " is the allocator's invalid number, not allowed");
  }
}

void NumAllocatorConfig::expiryTimeIs(double seconds) {
  if (std::isnan(seconds) || seconds < 0) {
    throw Mosk::RangeException("NumAllocatorConfig expiry time " + std::to_string(seconds) +
                               ": must be a non-negative number of seconds");
  }
  expiryTime_ = seconds;
}

NumAllocator::NumAllocator(Mosk::Ptr<NumAllocatorConfig> config,
                           Mosk::Ptr<NumAllocatorStatus> status, Mosk::Ptr<Clock const> clock)
    : config_(std::move(config)), status_(std::move(status)), clock_(std::move(clock)) {
  if (!config_ || !status_ || !clock_) Mosk::throwNullValidPtr();
}

void NumAllocator::moveExpired() {
  auto& s = *status_;
  if (s.quarantine_.empty()) return;
  double now = clock_->now();
  double expiry = config_->expiryTime();
  U32 limit = config_->moveCount();
  for (U32 moved = 0; !s.quarantine_.empty() && (limit == 0 || moved < limit); ++moved) {
    auto const& r = s.quarantine_.front();
    if (now < r.at + expiry) break;
    s.free_.push(r.number);
    s.quarantine_.pop_front();
  }
}

U64 NumAllocator::getNumber() {
  auto& s = *status_;
  Range const& range = config_->range();
  moveExpired();
  // Expired numbers first, lowest first, so that the numbers in use stay compact and the
  // bookkeeping stays proportional to the peak of numbers in use.
  while (!s.free_.empty()) {
    U64 n = s.free_.top();
    s.free_.pop();
    // A number left behind by a narrowed range is dropped.
    if (range.contains(n) && s.allocated_.insert(n).second) return n;
  }
  // (max is below invalidNumber, so nextFresh_ cannot wrap.)
  if (s.nextFresh_ < range.min()) s.nextFresh_ = range.min();
  if (s.nextFresh_ <= range.max()) {
    U64 n = s.nextFresh_++;
    s.allocated_.insert(n);
    return n;
  }
  return invalidNumber;
}

void NumAllocator::releaseNumber(U64 n) {
  auto& s = *status_;
  if (s.allocated_.count(n) == 0) {
    throw Mosk::RangeException("NumAllocator::releaseNumber(" + std::to_string(n) +
                               "): the number is not allocated");
  }
  s.allocated_.erase(n);
  s.quarantine_.push_back({n, clock_->now()});
}

}  // namespace Vell
