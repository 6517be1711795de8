// Tasks and the scheduler that runs them on the agent's event-loop thread.
//
// A Task is an entity whose one notification, onTaskRun(), fires when the scheduler runs it; a
// state machine's reactor forwards it to handleTaskRun(). A TimerTask can also be set to run at
// a time. The host drives the TaskScheduler: runOne(), runDue() or runDueRound() run due tasks,
// and nextDueTime() tells when the next one is due; a host that sleeps in an event loop watches
// the scheduler's onEarliestDueTime() to re-arm its timer (AsioDriver does that).
//
// Order among due tasks: the lower TaskPriority first, equal priorities in the order they
// became due. A task that schedules itself again from inside its own run goes behind every
// task that is due at that moment, whatever their priorities, so a busy task cannot starve the
// others. Long work is cut into slices: the running task asks taskShouldYield(), which consults
// the YieldPolicy the host set (a time slice, a fixed count of questions, or never).
//
// The scheduler holds no reference to its tasks; a task holds its scheduler, and a task that is
// destroyed while scheduled leaves the queue. Nothing here allocates when a task is scheduled
// or run. Single-threaded.
#pragma once

#include <boost/intrusive/set.hpp>
#include <optional>

#include "Mosk/Entity.h"
#include "Vell/Clock.h"
#include "Vell/Vell.h"

namespace Vell {

class TaskScheduler;

// How long a task may run before taskShouldYield() says yes.
class YieldPolicy {
 public:
  enum class Kind : U8 { never, timeSlice, fixedCount };

  // taskShouldYield() always says no: a run ends when its task has no work left.
  static YieldPolicy never() { return YieldPolicy(Kind::never, 0, 0); }
  // Yes once the current run has used `seconds` of the scheduler's clock (not negative).
  static YieldPolicy timeSlice(double seconds);
  // Yes from the `k`-th question of one run on (k at least 1): deterministic, for tests.
  static YieldPolicy fixedCount(U32 k);

  Kind kind() const { return kind_; }
  double slice() const { return slice_; }
  U32 count() const { return count_; }
  bool operator==(YieldPolicy const&) const = default;

 private:
  YieldPolicy(Kind kind, double slice, U32 count) : kind_(kind), slice_(slice), count_(count) {}
  Kind kind_;
  double slice_;
  U32 count_;
};

class Task : public Mosk::Entity {
 public:
  class NotifieeConst : public Mosk::NotifieeConstOf<Task> {
   public:
    virtual void onTaskRun() {}
  };

  Task(Mosk::Ptr<TaskScheduler> scheduler, TaskPriority priority, Mosk::Name taskName);
  ~Task() override;
  Mosk::Name name() const override { return taskName_; }

  Mosk::Name const& taskName() const { return taskName_; }
  TaskPriority taskPriority() const { return priority_; }
  Mosk::Ptr<TaskScheduler> const& taskScheduler() const { return scheduler_; }

  // Due now. A task already due stays where it is in the queue; one set for a later time is
  // brought forward; from inside its own run the task is queued to run again after the tasks
  // that are due.
  void scheduleTask();
  // Leaves the queue; a task that is not scheduled is left as it is.
  void unscheduleTask();
  bool isScheduled() const { return where_ != Where::none; }
  bool isRunning() const;
  // The time at which a scheduled task is due.
  double taskDueTime() const { return due_; }

  // The scheduler's verdict that the current run has used its share. Outside its own run a
  // task has no share to use up, so the answer is no.
  bool taskShouldYield() const;
  // Work done, as counted by the task's owner (statistics only).
  void taskWorkCountInc(U64 n) { workCount_ += n; }
  U64 taskWorkCount() const { return workCount_; }
  U64 taskRunCount() const { return runCount_; }

 private:
  friend class TaskScheduler;
  friend class TimerTask;
  enum class Where : U8 { none, ready, timer };

  void run();

  boost::intrusive::set_member_hook<> hook_;
  Mosk::Ptr<TaskScheduler> scheduler_;
  Mosk::Name taskName_;
  TaskPriority priority_;
  Where where_ = Where::none;
  double due_ = 0;
  U64 round_ = 0;
  U64 seq_ = 0;
  U64 workCount_ = 0;
  U64 runCount_ = 0;
};

class TaskScheduler : public Mosk::Entity {
 public:
  class NotifieeConst : public Mosk::NotifieeConstOf<TaskScheduler> {
   public:
    // The earliest due time moved earlier (a task became due or a sooner timer was set) while
    // no task was running. Hosts re-read nextDueTime() after every run, so runs do not fire it.
    virtual void onEarliestDueTime() {}
  };

  // The default policy is a time slice of 10 ms.
  explicit TaskScheduler(Mosk::Ptr<Clock> clock);
  ~TaskScheduler() override;
  Mosk::Name name() const override { return "TaskScheduler"; }

  Mosk::Ptr<Clock> const& clock() const { return clock_; }
  double now() const { return clock_->now(); }
  YieldPolicy const& yieldPolicy() const { return yieldPolicy_; }
  void yieldPolicyIs(YieldPolicy const& policy) { yieldPolicy_ = policy; }

  // Runs the first due task, if any; returns whether one ran.
  bool runOne();
  // Runs tasks until none is due at the current time (tasks scheduled meanwhile included);
  // returns how many runs it made.
  U64 runDue();
  // Runs only the tasks that were due when it was called, each at most once, so that an event
  // loop gets control back between rounds even while tasks keep rescheduling themselves.
  U64 runDueRound();
  // The earliest time at which a task is due (at or before now() when one is due already), or
  // none when nothing is scheduled.
  std::optional<double> nextDueTime() const;

  // Scheduled tasks, due or not.
  U32 scheduledCount() const;
  // Runs made since construction.
  U64 runCount() const { return runCount_; }
  // The task whose run is in progress, or null.
  Task const* currentTask() const { return current_; }

 private:
  friend class Task;
  friend class TimerTask;

  // Due tasks: by round (a task rescheduled from its own run joins the next one), priority,
  // then the order in which they became due.
  struct ReadyOrder {
    bool operator()(Task const& a, Task const& b) const {
      if (a.round_ != b.round_) return a.round_ < b.round_;
      if (a.priority_ != b.priority_) return a.priority_ < b.priority_;
      return a.seq_ < b.seq_;
    }
  };
  // Tasks set for a later time: by time, then the order in which they were set.
  struct TimerOrder {
    bool operator()(Task const& a, Task const& b) const {
      if (a.due_ != b.due_) return a.due_ < b.due_;
      return a.seq_ < b.seq_;
    }
  };
  template <class Order>
  using TaskSet = boost::intrusive::set<
      Task, boost::intrusive::member_hook<Task, boost::intrusive::set_member_hook<>, &Task::hook_>,
      boost::intrusive::compare<Order>, boost::intrusive::constant_time_size<true>>;

  // Sets `task` due at `due`; with `keepSooner`, a task already due at or before it stays.
  void schedule(Task& task, double due, bool keepSooner);
  void unschedule(Task& task);
  bool taskShouldYield(Task const& task);
  // Moves the timers whose time has come into the due set, oldest first.
  void promoteDue();
  void runHead();
  // -infinity while a task is due, else the first timer's time, else +infinity.
  double earliest() const;
  void link(Task& task, double due);

  Mosk::Ptr<Clock> clock_;
  YieldPolicy yieldPolicy_;
  TaskSet<ReadyOrder> ready_;
  TaskSet<TimerOrder> timers_;
  Task* current_ = nullptr;
  U64 round_ = 0;
  U64 nextSeq_ = 0;
  U64 runCount_ = 0;
  U32 yieldQuestions_ = 0;
  double runStart_ = 0;
};

inline bool Task::isRunning() const {
  return scheduler_->current_ == this;
}
inline bool Task::taskShouldYield() const {
  return scheduler_->taskShouldYield(*this);
}

// A task that can also be set to run at a time of the scheduler's clock.
class TimerTask : public Task {
 public:
  using Task::Task;

  // Due after at most `seconds` (not negative): a task already due sooner keeps its sooner
  // time, one due later is brought forward.
  void scheduleTaskLowestDelay(double seconds);
  // Due at `t`, replacing any time set before, sooner or later; a time already past is due now.
  void scheduleTaskAt(double t);
};

inline Mosk::Ptr<TaskScheduler> taskSchedulerFactory(Mosk::Ptr<Clock> clock) {
  return Mosk::Ptr<TaskScheduler>(new TaskScheduler(std::move(clock)));
}
inline Mosk::Ptr<Task> taskFactory(Mosk::Ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   Mosk::Name taskName) {
  return Mosk::Ptr<Task>(new Task(std::move(scheduler), priority, std::move(taskName)));
}
inline Mosk::Ptr<TimerTask> timerTaskFactory(Mosk::Ptr<TaskScheduler> scheduler,
                                             TaskPriority priority, Mosk::Name taskName) {
  return Mosk::Ptr<TimerTask>(new TimerTask(std::move(scheduler), priority, std::move(taskName)));
}

}  // namespace Vell
