// Clocks, the task scheduler's order and yield verdicts, timer tasks, the timer wheel and the
// Asio host driver.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <string>
#include <vector>

#include "Vell/AsioDriver.h"
#include "Vell/TimerWheel.h"

using Mosk::Ptr;
using namespace Vell;

namespace {

// A task owner in the shape of a state machine: its reactor forwards runs to a handler that
// logs them and does `work` units, asking to yield after each one.
struct Worker : Task::NotifieeConst {
  Worker(Ptr<TaskScheduler> const& s, U32 prio, std::string name, std::vector<std::string>* log)
      : task(timerTaskFactory(s, TaskPriority(prio), std::move(name))), log(log) {
    notifierIs(task);
  }
  void onTaskRun() override {
    log->push_back(task->taskName());
    U32 done = 0;
    while (work > 0) {
      --work;
      ++done;
      if (task->taskShouldYield()) break;
    }
    task->taskWorkCountInc(done);
    if (work > 0) task->scheduleTask();
  }
  Ptr<TimerTask> task;
  std::vector<std::string>* log;
  U32 work = 0;
};

using Log = std::vector<std::string>;

class VellTask : public ::testing::Test {
 protected:
  Ptr<ManualClock> clock = manualClockFactory();
  Ptr<TaskScheduler> scheduler = taskSchedulerFactory(clock);
  Log log;
};

TEST_F(VellTask, ManualClockRefusesToGoBack) {
  clock->advance(2);
  clock->nowIs(5);
  EXPECT_EQ(clock->now(), 5);
  EXPECT_THROW(clock->nowIs(4), Mosk::RangeException);
  EXPECT_THROW(clock->advance(-1), Mosk::RangeException);
  EXPECT_EQ(clock->now(), 5);
}

// Catches priority inversion, LIFO order among equals, and a self-rescheduling task starving
// the others.
TEST_F(VellTask, LowerPriorityValueFirstThenFifoAndRescheduledTaskGoesLast) {
  Worker low(scheduler, 3, "low", &log), a(scheduler, 2, "a", &log), b(scheduler, 2, "b", &log),
      urgent(scheduler, 1, "urgent", &log);
  scheduler->yieldPolicyIs(YieldPolicy::fixedCount(1));
  urgent.work = 3;  // three slices, rescheduling itself twice
  low.work = a.work = b.work = 1;
  low.task->scheduleTask();
  a.task->scheduleTask();
  b.task->scheduleTask();
  urgent.task->scheduleTask();
  a.task->scheduleTask();  // already scheduled: keeps its place
  EXPECT_EQ(scheduler->scheduledCount(), 4u);
  EXPECT_EQ(scheduler->runDue(), 6u);
  EXPECT_EQ(log, (Log{"urgent", "a", "b", "low", "urgent", "urgent"}));
  EXPECT_EQ(urgent.task->taskWorkCount(), 3u);
  EXPECT_EQ(scheduler->runCount(), 6u);
  EXPECT_FALSE(scheduler->runOne());
}

// Catches a fixed-count policy that answers on the wrong question or does not restart per run,
// and a time slice that ignores the clock.
TEST_F(VellTask, YieldPolicies) {
  Worker w(scheduler, 2, "w", &log);
  scheduler->yieldPolicyIs(YieldPolicy::fixedCount(3));
  w.work = 7;
  w.task->scheduleTask();
  scheduler->runOne();
  EXPECT_EQ(w.task->taskWorkCount(), 3u);
  scheduler->runOne();
  EXPECT_EQ(w.task->taskWorkCount(), 6u);
  scheduler->yieldPolicyIs(YieldPolicy::never());
  w.work += 50;
  scheduler->runDue();
  EXPECT_EQ(w.task->taskWorkCount(), 57u);
  EXPECT_FALSE(w.task->taskShouldYield());  // outside its run

  struct Slow : Task::NotifieeConst {
    void onTaskRun() override {
      asked = 0;
      do {
        clock->advance(0.004);
        ++asked;
      } while (!notifier()->taskShouldYield());
    }
    Ptr<ManualClock> clock;
    int asked = 0;
  } slow;
  slow.clock = clock;
  auto t = taskFactory(scheduler, TaskPriority(2), "slow");
  slow.notifierIs(t);
  scheduler->yieldPolicyIs(YieldPolicy::timeSlice(0.01));
  t->scheduleTask();
  scheduler->runOne();
  EXPECT_EQ(slow.asked, 3);  // 0.004, 0.008, 0.012 >= 0.01
  EXPECT_THROW(YieldPolicy::fixedCount(0), Mosk::RangeException);
}

// Catches a lowest delay that postpones an earlier time, a timer running early, and
// scheduleTask() not bringing a later timer forward.
TEST_F(VellTask, TimerTaskTimes) {
  Worker w(scheduler, 2, "w", &log);
  w.task->scheduleTaskLowestDelay(0.05);
  w.task->scheduleTaskLowestDelay(0.2);  // later: keeps 0.05
  EXPECT_EQ(scheduler->nextDueTime(), 0.05);
  clock->nowIs(0.049);
  EXPECT_FALSE(scheduler->runOne());
  clock->nowIs(0.05);
  EXPECT_TRUE(scheduler->runOne());
  w.task->scheduleTaskAt(1.0);
  w.task->scheduleTaskAt(2.0);  // an explicit time replaces a sooner one
  EXPECT_EQ(scheduler->nextDueTime(), 2.0);
  w.task->scheduleTask();
  EXPECT_EQ(scheduler->nextDueTime(), clock->now());
  w.task->unscheduleTask();
  EXPECT_FALSE(scheduler->nextDueTime());
  EXPECT_THROW(w.task->scheduleTaskLowestDelay(-1), Mosk::RangeException);
}

// Catches timers that become due in the wrong order and a destroyed task left in the queue.
TEST_F(VellTask, TimersBecomeDueInTimeOrderAndDestroyedTasksLeave) {
  Worker a(scheduler, 2, "a", &log), b(scheduler, 2, "b", &log);
  auto gone = std::make_unique<Worker>(scheduler, 1, "gone", &log);
  b.task->scheduleTaskAt(1.0);
  a.task->scheduleTaskAt(2.0);
  gone->task->scheduleTaskAt(1.5);
  gone.reset();
  EXPECT_EQ(scheduler->scheduledCount(), 2u);
  clock->nowIs(3);
  scheduler->runDue();
  EXPECT_EQ(log, (Log{"b", "a"}));
}

// Catches a scheduler that does not tell its host when a sooner task appears.
TEST_F(VellTask, EarliestDueTimeHookFiresOnlyWhenItMovesEarlier) {
  struct Host : TaskScheduler::NotifieeConst {
    void onEarliestDueTime() override { ++calls; }
    int calls = 0;
  } host;
  host.notifierIs(scheduler);
  Worker a(scheduler, 2, "a", &log), b(scheduler, 2, "b", &log);
  a.task->scheduleTaskAt(5);
  b.task->scheduleTaskAt(7);  // later: no change
  a.task->scheduleTaskAt(3);
  b.task->scheduleTask();
  a.task->scheduleTask();  // something is already due
  EXPECT_EQ(host.calls, 3);
}

struct Alarm : TimerWheel::Timer {
  void handleTimerExpiry() override { fired.push_back(when); }
  std::vector<double>& fired;
  double when;
  Alarm(std::vector<double>& f, double w) : fired(f), when(w) {}
};

// Catches a wheel that fires timers early, loses timers a turn or more ahead, or does not run
// from the scheduler.
TEST_F(VellTask, TimerWheelFiresThroughTheSchedulerAtTheirTime) {
  auto wheel = timerWheelFactory(scheduler, 0.01, 8);
  EXPECT_EQ(wheel->clock(), Ptr<Clock>(clock));
  std::vector<double> fired;
  Alarm a(fired, 0.05), b(fired, 0.5), c(fired, 0.055), d(fired, 0.3);
  for (Alarm* x : {&a, &b, &c, &d})
    wheel->timerIs(*x, x->when);
  wheel->timerDel(d);
  EXPECT_EQ(wheel->nextExpiryTime(), 0.05);
  clock->nowIs(0.052);
  scheduler->runDue();
  EXPECT_EQ(fired, (std::vector<double>{0.05}));
  EXPECT_EQ(scheduler->nextDueTime(), 0.055);
  clock->nowIs(1);
  scheduler->runDue();
  EXPECT_EQ(fired, (std::vector<double>{0.05, 0.055, 0.5}));
  EXPECT_EQ(wheel->timerCount(), 0u);
  EXPECT_FALSE(scheduler->nextDueTime());
}

// Runs the driver on a real event loop: a task scheduled from a loop handler must run through
// the driver's timer, and one that keeps rescheduling itself must let the loop's other
// handlers in between its rounds.
TEST(VellAsioDriver, RunsTasksFromTheEventLoop) {
  boost::asio::io_context io;
  auto scheduler = taskSchedulerFactory(monotonicClockFactory());
  scheduler->yieldPolicyIs(YieldPolicy::fixedCount(1));
  AsioDriver driver(io, scheduler);
  Log log;
  Worker w(scheduler, 2, "w", &log);
  w.work = 3;
  bool otherRan = false;
  boost::asio::post(io, [&] { w.task->scheduleTask(); });
  boost::asio::post(io, [&] { otherRan = true; });
  io.run_for(std::chrono::milliseconds(200));
  EXPECT_TRUE(otherRan);
  EXPECT_EQ(w.task->taskWorkCount(), 3u);
  EXPECT_EQ(driver.roundCount(), 3u);
  EXPECT_THROW(AsioDriver(io, taskSchedulerFactory(manualClockFactory())), Mosk::RangeException);
}

}  // namespace
