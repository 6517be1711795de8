// The cost of the model runtime's basic operations: a notifying setter, a collection insert.
#include <benchmark/benchmark.h>

#include <vector>

#include "TestModel.h"

using namespace MoskTest;

namespace {

struct CountingWatcher : Leaf::NotifieeConst {
  U64 calls = 0;
  void onLevel() override { ++calls; }
};

// A setter whose value changes, with no notifiee: the store and one branch.
void BM_SetterNoNotifiee(benchmark::State& state) {
  auto leaf = leafFactory(1, Colour::red, Small(1));
  U32 v = 0;
  for (auto _ : state)
    leaf->levelIs(++v);
  benchmark::DoNotOptimize(leaf->level());
}
BENCHMARK(BM_SetterNoNotifiee);

// One notification: a changed value delivered to one notifiee.
void BM_NotifyOneNotifiee(benchmark::State& state) {
  auto leaf = leafFactory(1, Colour::red, Small(1));
  CountingWatcher w;
  w.notifierIs(leaf);
  U32 v = 0;
  for (auto _ : state)
    leaf->levelIs(++v);
  benchmark::DoNotOptimize(w.calls);
}
BENCHMARK(BM_NotifyOneNotifiee);

// An unchanged value: compared and dropped without notifying.
void BM_SetterUnchanged(benchmark::State& state) {
  auto leaf = leafFactory(1, Colour::red, Small(1));
  CountingWatcher w;
  w.notifierIs(leaf);
  for (auto _ : state)
    leaf->levelIs(7);
  benchmark::DoNotOptimize(w.calls);
}
BENCHMARK(BM_SetterUnchanged);

// Inserting into a value map of N keys (per insert; the map is rebuilt each round).
void BM_ValueMapInsert(benchmark::State& state) {
  U32 n = static_cast<U32>(state.range(0));
  for (auto _ : state) {
    auto leaf = leafFactory(1, Colour::red, Small(1));
    for (U32 k = 0; k < n; ++k)
      leaf->tagsIs(k * 2654435761u, true);
    benchmark::DoNotOptimize(leaf->tagsCount());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ValueMapInsert)->Arg(16)->Arg(100000);

// Creating elements of an instantiating hash collection (allocation included).
void BM_EntityCollectionInsert(benchmark::State& state) {
  U32 n = static_cast<U32>(state.range(0));
  for (auto _ : state) {
    auto root = rootFactory("root");
    for (U32 k = 0; k < n; ++k)
      root->leafIs(k, Colour::red, Small(1));
    benchmark::DoNotOptimize(root->leafCount());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_EntityCollectionInsert)->Arg(100000);

// Looking up existing keys of a large value map.
void BM_ValueMapFind(benchmark::State& state) {
  Mosk::HashMap<U32, U32> m;
  std::vector<U32> keys;
  for (U32 k = 0; k < 100000; ++k) {
    keys.push_back(k * 2654435761u);
    m.set(keys.back(), k);
  }
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.find(keys[i]));
    if (++i == keys.size()) i = 0;
  }
}
BENCHMARK(BM_ValueMapFind);

}  // namespace
