// srte-agent's configuration file (configuredOptionsFromText). The input is the file's text.
// The reader promises to check everything the agent will use, so a text is either refused with
// a ScenarioError (which names a reason) or gives settings within their ranges whose static
// policies and colors a fresh host takes without raising and without a problem to report (a
// binding SID claimed twice, a candidate path too large): anything the host refuses is a hole
// in the checks. The same text read twice gives the same settings.
#include "AgentConfig.h"
#include "Fuzz.h"
#include "ScenarioLoad.h"
#include "ScenarioReader.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(Fuzz::text(data, size));
  SrTeDaemon::DaemonOptions const commandLine;
  SrTeDaemon::DaemonOptions o;
  try {
    o = SrTeDaemon::configuredOptionsFromText(commandLine, text, "fuzz.json");
  } catch (SrTeScenario::ScenarioError const& e) {
    Fuzz::check(!e.reason().empty(), "a refusal without a reason");
    return 0;
  } catch (std::exception const& e) {
    Fuzz::fail(std::string("the reader raised something else than its error: ") + e.what());
  }
  Fuzz::check(o.pollMs >= 1 && o.pollMs <= 10000, "pollMs out of range");
  Fuzz::check(o.sliceUs >= 10 && o.sliceUs <= 1000000, "sliceUs out of range");
  Fuzz::check(o.maxReaders >= 1 && o.maxReaders <= 4096, "maxReaders out of range");
  for (std::size_t i = 0; i < o.sources.size(); ++i) {
    for (std::size_t j = i + 1; j < o.sources.size(); ++j) {
      Fuzz::check(o.sources[i].source != o.sources[j].source, "a source read twice");
      Fuzz::check(o.sources[i].table != o.sources[j].table, "a table read for two sources");
    }
  }
  for (auto const& [color, values] : o.colorDscp) {
    for (U32 d : values)
      Fuzz::check(d <= 63, "a DSCP value above 63");
  }
  Fuzz::check(SrTeDaemon::configSummary(SrTeDaemon::configuredOptionsFromText(
                  commandLine, text, "fuzz.json")) == SrTeDaemon::configSummary(o),
              "the same text read twice differs");
  if (!o.staticConfig) return 0;
  SrTePolicy::SrTePolicyAgent agent(Vell::manualClockFactory());
  try {
    SrTeScenario::applyStaticConfig(agent, *o.staticConfig);
    agent.advanceUntilIdle();
  } catch (std::exception const& e) {
    Fuzz::fail(std::string("the host refused an accepted configuration: ") + e.what());
  }
  std::vector<std::string> const problems = agent.takeConfigProblems();
  Fuzz::check(problems.empty(), "the host could not apply an accepted configuration: " +
                                    (problems.empty() ? std::string() : problems.front()));
  return 0;
}
