// Costs of the agent kit's hot paths: a trace point that is off, a binary ring record, one
// task run through the scheduler, and a dedup hit and insert.
#include <benchmark/benchmark.h>

#include <vector>

#include "Flicker/Flicker.h"
#include "Vell/Dedup.h"
#include "Vell/Task.h"

namespace {

Flicker::TraceHandle benchHandle("VellBench");

void BM_TracePointDisabled(benchmark::State& state) {
  U64 i = 0;
  for (auto _ : state) {
    SRTE_TRACE(benchHandle, 9, "Policy Entry: " << i << " has changed");
    benchmark::DoNotOptimize(++i);
  }
}
BENCHMARK(BM_TracePointDisabled);

void BM_RingWrite(benchmark::State& state) {
  Flicker::binaryLevelEnabledIs(8, true);
  U64 i = 0;
  U32 id = 7;
  for (auto _ : state) {
    SRTE_TRACE(benchHandle, 8, "Update Tunnel Table TID: " << i << " With " << id << " vias");
    ++i;
  }
  Flicker::binaryLevelEnabledIs(8, false);
}
BENCHMARK(BM_RingWrite);

struct Idle : Vell::Task::NotifieeConst {
  void onTaskRun() override {}
};

void BM_TaskScheduleAndRun(benchmark::State& state) {
  auto scheduler = Vell::taskSchedulerFactory(Vell::manualClockFactory());
  auto task = Vell::taskFactory(scheduler, Vell::TaskPriority(2), "bench");
  Idle reactor;
  reactor.notifierIs(task);
  for (auto _ : state) {
    task->scheduleTask();
    scheduler->runOne();
  }
}
BENCHMARK(BM_TaskScheduleAndRun);

struct Label : Vell::DedupHandle {
  explicit Label(U32 v) : value(v) {}
  U32 hash() const override { return Mosk::hashU32(value); }
  bool compare(Vell::DedupHandle const& o) const override {
    return value == static_cast<Label const&>(o).value;
  }
  U32 value;
};

constexpr U32 kEntries = 100000;

void BM_DedupHit(benchmark::State& state) {
  Mosk::Ptr<Vell::DedupHashTable> table = Vell::dedupHashTableUnorderedSetFactory(0);
  std::vector<Mosk::Ptr<Label>> held;
  for (U32 v = 0; v < kEntries; ++v)
    held.push_back(table->dedup(Mosk::Ptr<Label>(new Label(v))));
  std::vector<Mosk::Ptr<Label>> candidates;
  for (U32 v = 0; v < 1024; ++v)
    candidates.emplace_back(new Label(v * 97 % kEntries));
  U32 i = 0;
  for (auto _ : state) {
    Mosk::Ptr<Label> found = table->dedup(candidates[i++ & 1023]);
    benchmark::DoNotOptimize(found.ptr());
  }
}
BENCHMARK(BM_DedupHit);

// Inserting a new object and letting it leave again (with the object's allocation).
void BM_DedupInsertAndLeave(benchmark::State& state) {
  Mosk::Ptr<Vell::DedupHashTable> table = Vell::dedupHashTableUnorderedSetFactory(0);
  std::vector<Mosk::Ptr<Label>> held;
  for (U32 v = 0; v < kEntries; ++v)
    held.push_back(table->dedup(Mosk::Ptr<Label>(new Label(v))));
  U32 next = kEntries;
  for (auto _ : state) {
    Mosk::Ptr<Label> inserted = table->dedup(Mosk::Ptr<Label>(new Label(next++)));
    benchmark::DoNotOptimize(inserted.ptr());
  }
}
BENCHMARK(BM_DedupInsertAndLeave);

}  // namespace
