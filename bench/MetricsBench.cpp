// What a metrics scrape of srte-agent costs with many policies: the exposition as the endpoint
// renders it (AgentMetrics::exposition), beside what a walk of every policy's candidates would
// cost, which is what the counts kept by the activity keeper spare a scrape.
//
//   MetricsBench [--policies=N] [google benchmark flags]   (default 500000 policies)
//
// The host is built once, in process, with a manual clock: N BGP candidate paths for N
// policies, one segment list each over the first example's platform, every one published.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>

#include "AgentMetrics.h"
#include "ScenarioPlatform.h"
#include "ScenarioReader.h"

using namespace SrTePolicy;

namespace {

U32 policies = 500000;

SrTePolicyAgent& host() {
  static std::unique_ptr<SrTePolicyAgent> agent = [] {
    auto a = std::make_unique<SrTePolicyAgent>(Vell::manualClockFactory());
    SrTeScenario::Scenario s = SrTeScenario::readScenarioFile(SRTE_EXAMPLES "/01-two-sources.json");
    SrTeScenario::PlatformLoader(a->mplsStatus(), a->forwardingStatus(), a->forwarding6Status(),
                                 s.ceiling)
        .apply(s.platform);
    Mosk::Ptr<PolicyInput> table = a->sourceTableIs(PolicySource::sourceBgp);
    for (U32 i = 0; i < policies; ++i) {
      PolicyInputEntry e(PolicyId::make(PolicySource::sourceBgp, i + 1));
      e.endpointIs(Ludd::IpGenAddr(Ludd::IpAddr::fromU32(0x0a000000u + i)));
      e.colorIs(Color(100));
      e.segmentListPush(
          WeightedSegList(Weight(1), Ludd::MplsLabelOperation{16002, 20000 + i % 1000}));
      table->policyInputEntryIs(e);
    }
    a->advanceUntilIdle();
    return a;
  }();
  return *agent;
}

void Scrape(benchmark::State& state) {
  SrTePolicyAgent& agent = host();
  SrTeDaemon::AgentMetrics metrics;
  std::vector<std::unique_ptr<SrTeDaemon::SourceWatcher>> sources;
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = metrics.exposition(&agent, sources);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.counters["policies"] = static_cast<double>(agent.ecPolicy()->policyCount());
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(Scrape)->Unit(benchmark::kMicrosecond);

// The alternative: counting eligible and active candidates by source on every scrape.
void WalkEveryPolicy(benchmark::State& state) {
  SrTePolicyAgent& agent = host();
  for (auto _ : state) {
    std::array<U64, 4> eligible{}, active{};
    for (auto it = agent.ecPolicy()->policyIterConst(); it; ++it) {
      for (auto c = it.ptr()->candidateIterConst(); c; ++c)
        ++eligible[static_cast<U8>(c.key().source())];
      if (auto a = it.ptr()->active()) ++active[static_cast<U8>(a->priority().source())];
    }
    benchmark::DoNotOptimize(eligible);
    benchmark::DoNotOptimize(active);
  }
}
BENCHMARK(WalkEveryPolicy)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--policies=", 11) == 0) policies = std::stoul(argv[i] + 11);
  }
  benchmark::Initialize(&argc, argv);
  host();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
