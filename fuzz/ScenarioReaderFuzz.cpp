// The scenario reader of srte-sim (readScenarioText). The input is the text of a scenario
// file. The reader promises to check everything before anything runs, so a text is either
// refused with a ScenarioError (which names a path and a reason) or read into a scenario that
// then plays to its end on a pipeline without raising: errors of the library itself are
// recorded by the runner, never thrown, and anything else escaping is a hole in the checks.
#include <nlohmann/json.hpp>

#include "Fuzz.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"

namespace {

// Large scenarios take long to play and find nothing that small ones would not.
constexpr std::size_t kMaxSteps = 64;

template <class F>
void mustNotRaise(char const* what, F&& f) {
  try {
    f();
  } catch (std::exception const& e) {
    Fuzz::fail(std::string(what) + " raised: " + e.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(Fuzz::text(data, size));
  std::optional<SrTeScenario::Scenario> scenario;
  try {
    scenario.emplace(SrTeScenario::readScenarioText(text, "fuzz.json"));
  } catch (SrTeScenario::ScenarioError const& e) {
    Fuzz::check(!e.reason().empty(), "a refusal without a reason");
    return 0;
  } catch (std::exception const& e) {
    Fuzz::fail(std::string("the reader raised something else than its error: ") + e.what());
  }
  if (scenario->steps.size() > kMaxSteps) return 0;
  SrTeScenario::ScenarioRunner runner(std::move(*scenario));
  mustNotRaise("starting the scenario", [&] { runner.start(); });
  for (std::size_t i = 0; i < runner.scenario().steps.size(); ++i)
    mustNotRaise("a step of the scenario", [&] { runner.runStep(i); });
  mustNotRaise("finishing the scenario", [&] { runner.finish(); });
  return 0;
}
