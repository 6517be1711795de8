// The pending drain that the deferring stages share: slices bounded by the yield verdict, the
// bookmark, rescheduling only while keys are left, and the failure rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <vector>

#include "Vell/PendingDrain.h"

using Mosk::Ptr;
using namespace Vell;

namespace {

using Drain = PendingDrain<U32>;

// A stage in miniature: its task's runs drain `pending` through `handle`, and every run's keys
// are logged.
struct Stage : Task::NotifieeConst {
  Stage(Ptr<TaskScheduler> const& s, Drain::Resume resume)
      : task(taskFactory(s, TaskPriority(2), "stage")), pending(resume) {
    notifierIs(task);
  }
  void onTaskRun() override {
    runs.emplace_back();
    last = pending.drain(*task, [this](U32 key) {
      runs.back().push_back(key);
      if (handle) handle(key);
    });
  }
  void add(std::vector<U32> const& keys) {
    for (U32 k : keys)
      pending.add(k);
    pending.scheduleIfPending(*task);
  }
  // Every key handled, in order, over all runs.
  std::vector<U32> handled() const {
    std::vector<U32> out;
    for (auto const& r : runs)
      out.insert(out.end(), r.begin(), r.end());
    return out;
  }

  Ptr<Task> task;
  Drain pending;
  std::function<void(U32)> handle;
  std::vector<std::vector<U32>> runs;
  Drain::Slice last;
};

class VellPendingDrain : public ::testing::TestWithParam<Drain::Resume> {
 protected:
  Ptr<ManualClock> clock = manualClockFactory();
  Ptr<TaskScheduler> scheduler = taskSchedulerFactory(clock);
  Stage stage{scheduler, GetParam()};
};

// Catches a slice that ignores the yield or handles nothing, a key handled twice or dropped,
// a run scheduled with nothing queued, a bookmark left placed after the last key, and work
// counts that miss keys.
TEST_P(VellPendingDrain, SlicesEndAtTheYieldAndEveryKeyRunsOnce) {
  stage.add({});
  EXPECT_FALSE(stage.task->isScheduled()) << "scheduled with nothing queued";
  scheduler->yieldPolicyIs(YieldPolicy::fixedCount(3));
  stage.add({1, 2, 3, 4, 5, 6, 7, 3});
  EXPECT_EQ(stage.pending.size(), 7u);
  std::vector<U32> perRun;
  while (scheduler->runOne()) {
    perRun.push_back(stage.runs.back().size());
    if (!stage.pending.empty()) {
      ASSERT_TRUE(stage.last.yielded);
      ASSERT_TRUE(stage.task->isScheduled()) << "keys left and no run follows";
    }
  }
  EXPECT_EQ(perRun, (std::vector<U32>{3, 3, 1}));
  std::vector<U32> all = stage.handled();
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<U32>{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(stage.task->taskWorkCount(), 7u);
  EXPECT_EQ(stage.pending.bookmark(), nullptr);

  // A run that yields exactly after the last key leaves no bookmark and schedules nothing.
  stage.add({8, 9, 10});
  EXPECT_TRUE(scheduler->runOne());
  EXPECT_TRUE(stage.last.yielded);
  EXPECT_EQ(stage.last.bookmark, nullptr);
  EXPECT_EQ(stage.pending.bookmark(), nullptr);
  EXPECT_FALSE(stage.task->isScheduled());
}

// Catches a bookmark walk that starts over (a key queued again and again near the start would
// starve the others) and a from-the-start walk that resumes at a stale bookmark.
TEST_P(VellPendingDrain, ARunStartsBehindTheLastKeyOnlyWhenItKeepsABookmark) {
  scheduler->yieldPolicyIs(YieldPolicy::fixedCount(2));
  stage.add({1, 2, 3, 4, 5, 6});
  scheduler->runOne();
  U32 const first = stage.runs[0][0];
  ASSERT_EQ(stage.last.bookmark != nullptr, GetParam() == Drain::Resume::atBookmark);
  stage.add({first});
  scheduler->runOne();
  if (GetParam() == Drain::Resume::atBookmark) {
    EXPECT_NE(stage.runs[1][0], first) << "the walk started over";
  } else {
    EXPECT_EQ(stage.runs[1][0], first) << "the walk resumed at a bookmark";
  }
  scheduler->runDue();
  EXPECT_EQ(stage.handled().size(), 7u);
}

// Catches a failing key that is retried by every later run or stalls the keys behind it,
// keys of the failed run handled again or lost, an error swallowed, and a key recorded again
// by its own handler that is not handled again.
TEST_P(VellPendingDrain, AFailingKeyLeavesAndTheOthersGoOn) {
  stage.add({1, 2, 3, 4, 5});
  std::vector<U32> order;
  // Learn the walk's order, then fail on its third key.
  {
    Drain probe;
    for (U32 k = 1; k <= 5; ++k)
      probe.add(k);
    Ptr<Task> t = taskFactory(scheduler, TaskPriority(2), "probe");
    // Outside a run the task never yields, so one call walks every key.
    probe.drain(*t, [&](U32 k) { order.push_back(k); });
  }
  U32 const failing = order[2];
  stage.handle = [&](U32 k) {
    if (k == failing) throw std::runtime_error("no");
  };
  EXPECT_THROW(scheduler->runOne(), std::runtime_error);
  EXPECT_EQ(stage.runs[0], (std::vector<U32>{order[0], order[1], failing}));
  EXPECT_FALSE(stage.pending.contains(failing));
  EXPECT_EQ(stage.pending.size(), 2u);
  EXPECT_TRUE(stage.task->isScheduled()) << "the keys behind the failure wait for nothing";
  bool again = true;
  stage.handle = [&](U32 k) {
    if (k == order[3] && again) stage.pending.add(k);  // recorded again while it runs
    again = false;
  };
  scheduler->runDue();
  std::vector<U32> const all = stage.handled();
  std::vector<U32> rest(all.begin() + 3, all.end());
  EXPECT_EQ(rest.front(), order[3]) << "the run after the failure did not start behind it";
  std::sort(rest.begin(), rest.end());
  std::vector<U32> want{order[3], order[3], order[4]};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(rest, want);
}

INSTANTIATE_TEST_SUITE_P(Resume, VellPendingDrain,
                         ::testing::Values(Drain::Resume::atBookmark, Drain::Resume::atStart));

}  // namespace
