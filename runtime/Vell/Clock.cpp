// The manual clock's checks and the steady clock's reading.
#include "Vell/Clock.h"

#include <chrono>
#include <cmath>
#include <string>

#include "Mosk/Exception.h"

namespace Vell {

void ManualClock::nowIs(double t) {
  if (std::isnan(t) || t < now_) {
    throw Mosk::RangeException("ManualClock::nowIs(" + std::to_string(t) +
                               "): a clock cannot go back from " + std::to_string(now_));
  }
  now_ = t;
}

void ManualClock::advance(double dt) {
  if (std::isnan(dt) || dt < 0) {
    throw Mosk::RangeException("ManualClock::advance(" + std::to_string(dt) +
                               "): the step must be a non-negative number of seconds");
  }
  now_ += dt;
}

double MonotonicClock::now() const {
  auto since = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(since).count();
}

}  // namespace Vell
