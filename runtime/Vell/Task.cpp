// The scheduler's queues, its run loop and the yield verdict; the scheduling calls of tasks.
#include "Vell/Task.h"

#include <cmath>
#include <limits>
#include <string>

#include "Mosk/Assert.h"
#include "Mosk/Exception.h"

namespace Vell {

namespace {
constexpr double kInfinity = std::numeric_limits<double>::infinity();

void checkSeconds(double seconds, char const* where) {
  if (std::isnan(seconds) || seconds < 0) {
    throw Mosk::RangeException(std::string(where) + "(" + std::to_string(seconds) +
                               "): the time must be a non-negative number of seconds");
  }
}
}  // namespace

YieldPolicy YieldPolicy::timeSlice(double seconds) {
  checkSeconds(seconds, "YieldPolicy::timeSlice");
  return YieldPolicy(Kind::timeSlice, seconds, 0);
}

YieldPolicy YieldPolicy::fixedCount(U32 k) {
  if (k == 0) {
    throw Mosk::RangeException(
        "YieldPolicy::fixedCount(0): the count of questions before yielding must be at least 1");
  }
  return YieldPolicy(Kind::fixedCount, 0, k);
}

Task::Task(Mosk::Ptr<TaskScheduler> scheduler, TaskPriority priority, Mosk::Name taskName)
    : scheduler_(std::move(scheduler)), taskName_(std::move(taskName)), priority_(priority) {
  if (!scheduler_) Mosk::throwNullValidPtr();
}

Task::~Task() {
  if (isScheduled()) scheduler_->unschedule(*this);
}

void Task::scheduleTask() {
  scheduler_->schedule(*this, scheduler_->now(), true);
}

void Task::unscheduleTask() {
  scheduler_->unschedule(*this);
}

void Task::run() {
  ++runCount_;
  notify(&NotifieeConst::onTaskRun);
}

void TimerTask::scheduleTaskLowestDelay(double seconds) {
  checkSeconds(seconds, "TimerTask::scheduleTaskLowestDelay");
  scheduler_->schedule(*this, scheduler_->now() + seconds, true);
}

void TimerTask::scheduleTaskAt(double t) {
  if (std::isnan(t)) {
    throw Mosk::RangeException("TimerTask::scheduleTaskAt(nan): the time must be a number");
  }
  scheduler_->schedule(*this, t, false);
}

TaskScheduler::TaskScheduler(Mosk::Ptr<Clock> clock)
    : clock_(std::move(clock)), yieldPolicy_(YieldPolicy::timeSlice(0.01)) {
  if (!clock_) Mosk::throwNullValidPtr();
}

TaskScheduler::~TaskScheduler() {
  // Every task holds a reference to its scheduler, so none can still be queued here.
  MOSK_ASSERT(ready_.empty() && timers_.empty());
}

U32 TaskScheduler::scheduledCount() const {
  return static_cast<U32>(ready_.size() + timers_.size());
}

double TaskScheduler::earliest() const {
  if (!ready_.empty()) return -kInfinity;
  if (!timers_.empty()) return timers_.begin()->due_;
  return kInfinity;
}

std::optional<double> TaskScheduler::nextDueTime() const {
  if (!ready_.empty()) {
    double t = now();
    if (!timers_.empty() && timers_.begin()->due_ < t) t = timers_.begin()->due_;
    return t;
  }
  if (!timers_.empty()) return timers_.begin()->due_;
  return std::nullopt;
}

void TaskScheduler::link(Task& task, double due) {
  task.due_ = due;
  task.seq_ = nextSeq_++;
  if (due <= now()) {
    // A task that reschedules itself waits for the tasks that are due now.
    task.round_ = current_ == &task ? round_ + 1 : round_;
    task.where_ = Task::Where::ready;
    ready_.insert(task);
  } else {
    task.where_ = Task::Where::timer;
    timers_.insert(task);
  }
}

void TaskScheduler::schedule(Task& task, double due, bool keepSooner) {
  if (task.where_ != Task::Where::none) {
    if (keepSooner && task.due_ <= due) return;
    unschedule(task);
  }
  if (current_ != nullptr || !hasNotifiees()) {
    link(task, due);
    return;
  }
  double before = earliest();
  link(task, due);
  if (earliest() < before) notify(&NotifieeConst::onEarliestDueTime);
}

void TaskScheduler::unschedule(Task& task) {
  switch (task.where_) {
    case Task::Where::ready:
      ready_.erase(ready_.iterator_to(task));
      break;
    case Task::Where::timer:
      timers_.erase(timers_.iterator_to(task));
      break;
    case Task::Where::none:
      return;
  }
  task.where_ = Task::Where::none;
}

void TaskScheduler::promoteDue() {
  if (timers_.empty()) return;
  double t = now();
  while (!timers_.empty() && timers_.begin()->due_ <= t) {
    Task& task = *timers_.begin();
    timers_.erase(timers_.begin());
    task.seq_ = nextSeq_++;
    task.round_ = round_;
    task.where_ = Task::Where::ready;
    ready_.insert(task);
  }
}

void TaskScheduler::runHead() {
  // Runs do not nest: a handler that drives the scheduler would reorder everything queued.
  MOSK_ASSERT_MSG(current_ == nullptr, "a task run must not drive the scheduler");
  Task& task = *ready_.begin();
  ready_.erase(ready_.begin());
  task.where_ = Task::Where::none;
  if (task.round_ > round_) round_ = task.round_;
  // The run may drop the last outside reference to its own task.
  Mosk::Ptr<Task> keep(&task);
  current_ = &task;
  yieldQuestions_ = 0;
  if (yieldPolicy_.kind() == YieldPolicy::Kind::timeSlice) runStart_ = now();
  ++runCount_;
  struct Clear {
    Task*& current;
    ~Clear() { current = nullptr; }
  } clear{current_};
  task.run();
}

bool TaskScheduler::runOne() {
  promoteDue();
  if (ready_.empty()) return false;
  runHead();
  return true;
}

U64 TaskScheduler::runDue() {
  U64 runs = 0;
  while (runOne())
    ++runs;
  return runs;
}

U64 TaskScheduler::runDueRound() {
  promoteDue();
  U64 stop = nextSeq_;
  U64 runs = 0;
  while (!ready_.empty() && ready_.begin()->seq_ < stop) {
    runHead();
    ++runs;
  }
  return runs;
}

bool TaskScheduler::taskShouldYield(Task const& task) {
  if (current_ != &task) return false;
  switch (yieldPolicy_.kind()) {
    case YieldPolicy::Kind::never:
      return false;
    case YieldPolicy::Kind::fixedCount:
      return ++yieldQuestions_ >= yieldPolicy_.count();
    case YieldPolicy::Kind::timeSlice:
      return now() - runStart_ >= yieldPolicy_.slice();
  }
  return false;
}

}  // namespace Vell
