// The timing wheel: slot placement, the turn that fires due timers, and the wheel's own task.
#include "Vell/TimerWheel.h"

#include <cmath>
#include <limits>
#include <string>

#include "Mosk/Exception.h"

namespace Vell {

TimerWheel::Timer::~Timer() {
  if (wheel_ != nullptr && isArmed()) wheel_->unlink(*this);
}

TimerWheel::TimerWheel(Mosk::Ptr<TaskScheduler> scheduler, double tick, U32 slotCount,
                       TaskPriority priority)
    : scheduler_(std::move(scheduler)), tick_(tick) {
  if (!scheduler_) Mosk::throwNullValidPtr();
  if (!(tick > 0) || !std::isfinite(tick)) {
    throw Mosk::RangeException("TimerWheel tick " + std::to_string(tick) +
                               ": must be a positive number of seconds");
  }
  if (slotCount == 0) throw Mosk::RangeException("TimerWheel slot count 0: must be at least 1");
  slots_.resize(slotCount);
  lastTick_ = tickOf(scheduler_->now());
  task_ = timerTaskFactory(scheduler_, priority, "TimerWheel");
  reactor_.wheel = this;
  reactor_.notifierIs(task_);
}

TimerWheel::~TimerWheel() {
  for (Slot& slot : slots_) {
    for (Timer& timer : slot)
      timer.wheel_ = nullptr;
    slot.clear();
  }
  task_->unscheduleTask();
}

U64 TimerWheel::tickOf(double t) const {
  double ticks = std::floor(t / tick_);
  if (!(ticks > 0)) return 0;
  if (ticks >= 1.8e19) return std::numeric_limits<U64>::max() / 2;
  return static_cast<U64>(ticks);
}

void TimerWheel::unlink(Timer& timer) {
  timer.hook_.unlink();
  --count_;
}

void TimerWheel::timerIs(Timer& timer, double t) {
  if (std::isnan(t)) throw Mosk::RangeException("TimerWheel::timerIs(nan): not a time");
  if (timer.isArmed()) timer.wheel_->unlink(timer);
  timer.wheel_ = this;
  timer.expiry_ = t;
  // A time already past waits in the slot that the next turn visits first.
  timer.tick_ = std::max(tickOf(t), lastTick_);
  slots_[timer.tick_ % slots_.size()].push_back(timer);
  ++count_;
  if (!task_->isScheduled() || t < task_->taskDueTime()) task_->scheduleTaskAt(t);
}

void TimerWheel::timerDel(Timer& timer) {
  if (!timer.isArmed() || timer.wheel_ != this) return;
  unlink(timer);
}

std::optional<double> TimerWheel::nextExpiryTime() const {
  if (count_ == 0) return std::nullopt;
  // The first slot in turn order that holds a timer of this turn has the earliest ones.
  for (U64 t = lastTick_; t < lastTick_ + slots_.size(); ++t) {
    std::optional<double> best;
    for (Timer const& timer : slots_[t % slots_.size()]) {
      if (timer.tick_ == t && (!best || timer.expiry_ < *best)) best = timer.expiry_;
    }
    if (best) return best;
  }
  // Every timer lies a turn or more ahead.
  std::optional<double> best;
  for (Slot const& slot : slots_) {
    for (Timer const& timer : slot) {
      if (!best || timer.expiry_ < *best) best = timer.expiry_;
    }
  }
  return best;
}

U32 TimerWheel::advance() {
  double now = scheduler_->now();
  U64 nowTick = tickOf(now);
  U32 fired = 0;
  // Past a whole turn every slot is visited once.
  U64 last = std::min(nowTick, lastTick_ + slots_.size() - 1);
  for (U64 t = lastTick_; t <= last && count_ > 0; ++t) {
    Slot& slot = slots_[t % slots_.size()];
    Slot visiting;
    visiting.splice(visiting.end(), slot);
    try {
      while (!visiting.empty()) {
        Timer& timer = visiting.front();
        visiting.pop_front();
        if (timer.expiry_ > now) {
          slot.push_back(timer);
          continue;
        }
        --count_;
        ++fired;
        timer.handleTimerExpiry();
      }
    } catch (...) {
      // A throwing handler loses none of the other timers.
      slot.splice(slot.end(), visiting);
      lastTick_ = t;
      armTask();
      throw;
    }
  }
  lastTick_ = std::max(lastTick_, nowTick);
  armTask();
  return fired;
}

void TimerWheel::armTask() {
  std::optional<double> next = nextExpiryTime();
  if (next) {
    task_->scheduleTaskAt(*next);
  } else {
    task_->unscheduleTask();
  }
}

}  // namespace Vell
