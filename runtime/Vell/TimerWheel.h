// The agent's coarse timer service: a hashed timing wheel on top of the task scheduler.
//
// Timers are objects that embed a TimerWheel::Timer and are armed for a time of the wheel's
// clock (the scheduler's). The wheel keeps them in slots of `tick` seconds, a slot per tick
// modulo the slot count, so arming and disarming cost O(1) whatever the number of timers. The
// wheel owns one TimerTask that it keeps set for the earliest expiry; when that task runs,
// every timer whose time has come fires, slot by slot (timers of one tick in no set order).
// Timers also serve as the clock source of the agent: TimerWheel::clock() is what components
// that need the time (the number allocator) are given.
//
// A timer fires once per arming; its handler may re-arm or disarm any timer. A timer that is
// destroyed while armed leaves the wheel. Single-threaded.
#pragma once

#include <boost/intrusive/list.hpp>
#include <optional>
#include <vector>

#include "Vell/Task.h"

namespace Vell {

class TimerWheel : public Mosk::PtrInterface {
 public:
  class Timer {
   public:
    Timer() = default;
    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;
    bool isArmed() const { return hook_.is_linked(); }
    double expiryTime() const { return expiry_; }

   protected:
    virtual ~Timer();
    // Runs once when the armed time has come; the timer is disarmed first.
    virtual void handleTimerExpiry() = 0;

   private:
    friend class TimerWheel;
    using Hook = boost::intrusive::list_member_hook<
        boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
    Hook hook_;
    TimerWheel* wheel_ = nullptr;
    double expiry_ = 0;
    U64 tick_ = 0;
  };

  // `tick` seconds per slot (positive) and `slotCount` slots (at least 1).
  TimerWheel(Mosk::Ptr<TaskScheduler> scheduler, double tick = 0.01, U32 slotCount = 256,
             TaskPriority priority = TaskPriority(0));
  ~TimerWheel() override;

  Mosk::Ptr<Clock> const& clock() const { return scheduler_->clock(); }
  Mosk::Ptr<TaskScheduler> const& taskScheduler() const { return scheduler_; }
  double tick() const { return tick_; }

  // Arms `timer` for time `t` (re-arming one that is armed); a time already past fires at the
  // wheel's next turn.
  void timerIs(Timer& timer, double t);
  // Disarms `timer`; an unarmed one is left as it is.
  void timerDel(Timer& timer);
  U32 timerCount() const { return count_; }
  // The earliest armed time, or none.
  std::optional<double> nextExpiryTime() const;
  // Fires every timer whose time has come; returns how many fired. The wheel's task calls it;
  // a host may too.
  U32 advance();

 private:
  using Slot =
      boost::intrusive::list<Timer,
                             boost::intrusive::member_hook<Timer, Timer::Hook, &Timer::hook_>,
                             boost::intrusive::constant_time_size<false>>;

  struct TaskReactor : Task::NotifieeConst {
    void onTaskRun() override { wheel->advance(); }
    TimerWheel* wheel = nullptr;
  };

  U64 tickOf(double t) const;
  void unlink(Timer& timer);
  void armTask();

  Mosk::Ptr<TaskScheduler> scheduler_;
  double tick_;
  std::vector<Slot> slots_;
  U64 lastTick_;
  U32 count_ = 0;
  Mosk::Ptr<TimerTask> task_;
  TaskReactor reactor_;
};

inline Mosk::Ptr<TimerWheel> timerWheelFactory(Mosk::Ptr<TaskScheduler> scheduler,
                                               double tick = 0.01, U32 slotCount = 256) {
  return Mosk::Ptr<TimerWheel>(new TimerWheel(std::move(scheduler), tick, slotCount));
}

}  // namespace Vell
