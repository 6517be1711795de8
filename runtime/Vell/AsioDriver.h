// Drives a TaskScheduler from a Boost.Asio event loop.
//
// The driver keeps one steady_timer armed for the scheduler's next due time. When it fires,
// the driver runs one round of due tasks (runDueRound: tasks that keep rescheduling themselves
// wait for the next round, so other handlers of the loop get their turn in between) and arms
// the timer again. It watches the scheduler's onEarliestDueTime(), so a task scheduled from
// any handler of the loop re-arms the timer. The scheduler must run on a MonotonicClock, whose
// seconds are those of the steady clock. Everything runs on the thread that runs the
// io_context. A wait still queued when the driver is destroyed finds it gone and does
// nothing.
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

  // Shared with pending waits, which outlive the driver when it is destroyed while the
  // io_context holds their handlers.
  struct Alive : Mosk::PtrInterface {
    AsioDriver* driver;
    explicit Alive(AsioDriver* d) : driver(d) {}
  };

  Mosk::Ptr<TaskScheduler> scheduler_;
  Mosk::Ptr<Alive> alive_;
  boost::asio::steady_timer timer_;
  // The time the timer is armed for, when it is.
  std::optional<double> armedAt_;
  U64 rounds_ = 0;
};

}  // namespace Vell
