// ShmTableBench: input records through a table in shared memory. WriterToReader is the rate at
// which one source process and the agent's process move records (the writer rewrites candidate
// paths as fast as it can; the reader polls the change feed and copies out every record it is
// told of); Put and CopyOut are the two halves alone, in one process.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "SrTePolicy/SrTePolicyInputShm.h"

using namespace SrTePolicy;

namespace {

constexpr U32 keys = 4096;

PolicyInputEntry candidate(U32 index, U32 version) {
  PolicyInputEntry e(PolicyId::make(PolicySource::sourceBgp, index));
  e.endpointIs(Ludd::IpAddr::fromU32(0x0a000000 + index));
  e.colorIs(Color(index % 16));
  e.preferenceIs(Preference(version));
  for (U32 i = 0; i < 4; ++i)
    e.segmentListPush(
        WeightedSegList(Weight(i + 1), Ludd::MplsLabelOperation{16000 + i, 17000 + index % 64}));
  return e;
}

std::string tableName(char const* what) {
  return std::string("srte-bench-") + what + "-" + std::to_string(::getpid());
}

void WriterToReader(benchmark::State& state) {
  U32 const writes = static_cast<U32>(state.range(0));
  std::string const name = tableName("pair");
  Skerry::ShmTableOptions options;
  options.capacity = keys;
  options.ringSize = 16384;
  {
    PolicyInputShmWriter w(name, options);
    for (U32 k = 0; k < keys; ++k)
      w.put(candidate(k, 0));
  }
  PolicyInputShmTable reader(name);
  U64 copied = 0, resyncs = 0, round = 0;
  PolicyInputEntry out;
  for (auto _ : state) {
    ++round;
    pid_t pid = ::fork();
    if (pid == 0) {
      PolicyInputShmWriter w(name);
      for (U32 i = 0; i < writes; ++i)
        w.put(candidate(i % keys, static_cast<U32>(round * writes + i + 1)));
      ::_exit(0);
    }
    bool done = false;
    while (!done || reader.pending()) {
      done = done || ::waitpid(pid, nullptr, WNOHANG) == pid;
      Skerry::ShmPollResult r = reader.poll(
          [&](PolicyId const& id) {
            copied += reader.copyOut(id, out);
            out.validateRead();
          },
          1024);
      resyncs += r.resynchronised;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * writes);
  state.counters["copiedPerWrite"] =
      static_cast<double>(copied) / static_cast<double>(state.iterations() * writes);
  state.counters["resyncs"] = static_cast<double>(resyncs);
  Skerry::shmTableRemove(name);
}
BENCHMARK(WriterToReader)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

void Put(benchmark::State& state) {
  std::string const name = tableName("put");
  Skerry::ShmTableOptions options;
  options.capacity = keys;
  PolicyInputShmWriter w(name, options);
  U32 i = 0;
  for (auto _ : state) {
    w.put(candidate(i % keys, i + 1));
    ++i;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  Skerry::shmTableRemove(name);
}
BENCHMARK(Put);

void CopyOut(benchmark::State& state) {
  std::string const name = tableName("copy");
  Skerry::ShmTableOptions options;
  options.capacity = keys;
  {
    PolicyInputShmWriter w(name, options);
    for (U32 k = 0; k < keys; ++k)
      w.put(candidate(k, 1));
  }
  PolicyInputShmTable reader(name);
  U32 i = 0;
  for (auto _ : state) {
    std::optional<PolicyInputEntry> e =
        Skerry::readRecord(reader, PolicyId::make(PolicySource::sourceBgp, i++ % keys));
    benchmark::DoNotOptimize(e);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  Skerry::shmTableRemove(name);
}
BENCHMARK(CopyOut);

}  // namespace
