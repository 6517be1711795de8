// Arming the event loop's timer for the scheduler and running rounds when it fires.
#include "Vell/AsioDriver.h"

#include <chrono>

#include "Mosk/Exception.h"

namespace Vell {

AsioDriver::AsioDriver(boost::asio::io_context& io, Mosk::Ptr<TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)), alive_(new Alive(this)), timer_(io) {
  if (!scheduler_) Mosk::throwNullValidPtr();
  if (dynamic_cast<MonotonicClock const*>(scheduler_->clock().ptr()) == nullptr) {
    throw Mosk::RangeException(
        "AsioDriver: the scheduler must run on a MonotonicClock, whose time is the event loop's");
  }
  notifierIs(scheduler_);
  arm();
}

AsioDriver::~AsioDriver() {
  alive_->driver = nullptr;
  timer_.cancel();
}

void AsioDriver::arm() {
  std::optional<double> due = scheduler_->nextDueTime();
  if (!due) return;
  // An armed timer that fires no later than needed stays; firing early only costs a round.
  if (armedAt_ && *armedAt_ <= *due) return;
  armedAt_ = due;
  auto at = std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::duration<double>(*due)));
  timer_.expires_at(at);
  timer_.async_wait([alive = alive_](boost::system::error_code const& ec) {
    if (ec == boost::asio::error::operation_aborted || alive->driver == nullptr) return;
    alive->driver->fire();
  });
}

void AsioDriver::fire() {
  armedAt_.reset();
  scheduler_->runDueRound();
  ++rounds_;
  arm();
}

}  // namespace Vell
