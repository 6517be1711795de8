// Drives a TaskScheduler from a Boost.Asio event loop.
//
// The driver keeps one steady_timer armed for the scheduler's next due time. When it fires,
// the driver runs one round of due tasks (runDueRound: tasks that keep rescheduling themselves
// wait for the next round, so other handlers of the loop get their turn in between) and arms
// the timer again. It watches the scheduler's onEarliestDueTime(), so a task scheduled from
// any handler of the loop re-arms the timer. The scheduler must run on a MonotonicClock, whose
// seconds are those of the steady clock. Everything runs on the thread that runs the
// io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "Vell/Task.h"

namespace Vell {

class AsioDriver : public TaskScheduler::NotifieeConst {
 public:
  // Starts watching at once and arms the timer if a task is scheduled. A scheduler that is
  // not on a MonotonicClock raises a range error.
  AsioDriver(boost::asio::io_context& io, Mosk::Ptr<TaskScheduler> scheduler);
  ~AsioDriver() override;

  Mosk::Ptr<TaskScheduler> const& taskScheduler() const { return scheduler_; }
  // Rounds run so far.
  U64 roundCount() const { return rounds_; }

  void onEarliestDueTime() override { arm(); }

 private:
  void arm();
  void fire();

  Mosk::Ptr<TaskScheduler> scheduler_;
  boost::asio::steady_timer timer_;
  // The time the timer is armed for, when it is.
  std::optional<double> armedAt_;
  U64 rounds_ = 0;
};

}  // namespace Vell
