// The time base of the agent kit. Every time in the kit is a double of seconds on one Clock:
// the scheduler, the timer wheel and the number allocator all read it.
//
// ManualClock moves only when told, for tests and the simulator, so that every run is
// reproducible; MonotonicClock reads the steady clock of the machine, for an agent driven by an
// event loop.
#pragma once

#include "Mosk/Ptr.h"

namespace Vell {

class Clock : public Mosk::PtrInterface {
 public:
  // Seconds since the clock's epoch; never decreases.
  virtual double now() const = 0;
};

class ManualClock : public Clock {
 public:
  explicit ManualClock(double start = 0) : now_(start) {}
  double now() const override { return now_; }
  // Moves the clock to `t`; a time before now() or not a number raises a range error.
  void nowIs(double t);
  // Moves the clock forward by `dt` seconds (not negative).
  void advance(double dt);

 private:
  double now_;
};

class MonotonicClock : public Clock {
 public:
  // Seconds of the machine's steady clock since its own epoch (usually boot).
  double now() const override;
};

inline Mosk::Ptr<ManualClock> manualClockFactory(double start = 0) {
  return Mosk::Ptr<ManualClock>(new ManualClock(start));
}
inline Mosk::Ptr<MonotonicClock> monotonicClockFactory() {
  return Mosk::Ptr<MonotonicClock>(new MonotonicClock());
}

}  // namespace Vell
