// The cost of replicating one policy change over the state socket: a new active candidate in
// an EcPolicy of N policies, from the write on the agent's side to the change being in the
// reader's mounted copy (flush, frame, Unix-domain socket write and read, checked apply), and
// the bytes that cross the socket for it (frame header included). Server and reader share one
// io_context on one thread, so the figure holds the work of both ends but no scheduling
// between processes.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "EcPolicyChange.h"
#include "StateClient.h"
#include "StateServer.h"

using namespace SrTePolicy;

namespace {

using SrTeBench::policyKey;

// Each iteration switches one policy between its two candidates and updates a segment list's
// weight, as a selection run does (the same change as ReplicationBench), publishes, and runs
// the loop until the reader has applied it.
void BM_ReplicateOnePolicyChangeOverSocket(benchmark::State& state) {
  U32 n = static_cast<U32>(state.range(0));
  auto source = SrTeBench::ecPolicyOfTwoCandidates(n);
  boost::asio::io_context io;
  std::string path = "/tmp/srte-statesync-bench-" + std::to_string(::getpid()) + ".sock";
  SrTeStateSync::ServedState served;
  served.ecPolicy = source;
  SrTeStateSync::ServerOptions options;
  options.publishPeriod = 0;
  SrTeStateSync::StateServer server(io, path, served, options);
  SrTeStateSync::StateClient client(io, path);
  U64 changes = 0;
  client.onChangeIs([&] { ++changes; });
  client.start();
  while (!client.synced())
    io.run_one();

  U32 i = 0;
  PolicyKey last = policyKey(0);
  U64 bytesBefore = server.bytesSent();
  for (auto _ : state) {
    last = SrTeBench::changeOnePolicy(*source, n, i);
    U64 seen = changes;
    server.publish();
    while (changes == seen)
      io.run_one();
    ++i;
  }
  auto copy = client.state().ecPolicy()->policy(last);
  if (!copy || copy->active()->priority() != source->policy(last)->active()->priority()) {
    state.SkipWithError("the reader's copy does not hold the last change");
  }
  state.counters["bytes"] =
      benchmark::Counter(static_cast<double>(server.bytesSent() - bytesBefore) /
                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_ReplicateOnePolicyChangeOverSocket)->Arg(1)->Arg(10000);

}  // namespace
