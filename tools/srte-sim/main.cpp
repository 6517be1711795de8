// srte-sim: runs a scenario file through the whole SR-TE policy pipeline on a manual clock and
// prints what happens, step by step, in words a network engineer reads (or as JSON, or as a
// Graphviz drawing of the final state). See docs/simulator.md.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "Flicker/Flicker.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"
#include "StateRender.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitStepFailed = 1;
constexpr int kExitBadInput = 2;

constexpr char const* kHelp = R"(usage: srte-sim [options] SCENARIO

Runs the scenario file SCENARIO (JSON, see docs/simulator.md) through the SR-TE policy
pipeline on a manual clock: loads its platform state, static configuration and sources, plays
its steps (every task that is due runs after each step), then advances until nothing is
scheduled and shows the final state.

options:
  --json          print the same content as one JSON document
  --dot           print the final state as a Graphviz digraph (dot -Tsvg)
  --trace LEVEL   print the text trace of every component at levels up to LEVEL (0-9) on
                  standard error
  --flicker       record the binary trace rings and print them decoded at the end
  --check         only read and check the scenario
  --help          this text

exit status:
  0  the scenario ran and every step succeeded
  1  the scenario ran to its end, but the library raised an error in some step
  2  bad usage, or a scenario that is not valid (nothing was run)
)";

int usage(std::string const& problem) {
  std::cerr << "srte-sim: " << problem << "\n(srte-sim --help explains the usage)\n";
  return kExitBadInput;
}

}  // namespace

int main(int argc, char** argv) {
  enum class Format { text, json, dot } format = Format::text;
  int traceLevel = -1;
  bool flicker = false;
  bool checkOnly = false;
  std::string file;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << kHelp;
      return kExitOk;
    } else if (arg == "--json") {
      format = Format::json;
    } else if (arg == "--dot") {
      format = Format::dot;
    } else if (arg == "--flicker") {
      flicker = true;
    } else if (arg == "--check") {
      checkOnly = true;
    } else if (arg == "--trace") {
      if (i + 1 >= argc) return usage("--trace needs a level from 0 to 9");
      std::string level = argv[++i];
      if (level.size() != 1 || level[0] < '0' || level[0] > '9') {
        return usage("--trace needs a level from 0 to 9, not \"" + level + "\"");
      }
      traceLevel = level[0] - '0';
    } else if (!arg.empty() && arg[0] == '-') {
      return usage("unknown option " + arg);
    } else if (!file.empty()) {
      return usage("one scenario at a time (" + file + " and " + arg + ")");
    } else {
      file = arg;
    }
  }
  if (file.empty()) return usage("no scenario file given");

  SrTeScenario::Scenario scenario;
  try {
    scenario = SrTeScenario::readScenarioFile(file);
  } catch (SrTeScenario::ScenarioError const& e) {
    std::cerr << "srte-sim: " << e.what() << "\n";
    return kExitBadInput;
  }
  if (checkOnly) {
    std::cout << file << ": ok, " << scenario.steps.size() << " steps\n";
    return kExitOk;
  }

  if (traceLevel >= 0) Flicker::traceEnabledLevelsIs("*", (1u << (traceLevel + 1)) - 1);
  if (flicker) {
    for (U32 level = 0; level < Flicker::kLevels; ++level)
      Flicker::binaryLevelEnabledIs(level, true);
  }

  SrTeScenario::ScenarioRunner runner(std::move(scenario));
  SrTeView::OrderedJson records = SrTeView::OrderedJson::array();
  auto emit = [&](SrTeView::OrderedJson record) {
    if (format == Format::text) SrTeView::renderTextRecord(std::cout, record);
    records.push_back(std::move(record));
  };
  if (format == Format::text) {
    std::cout << "scenario " << file << "\n";
    if (!runner.scenario().description.empty()) {
      std::cout << runner.scenario().description << "\n";
    }
    std::cout << "\n";
  }
  emit(runner.start());
  for (std::size_t i = 0; i < runner.scenario().steps.size(); ++i)
    emit(runner.runStep(i));
  emit(runner.finish());

  int status = runner.failed() ? kExitStepFailed : kExitOk;
  if (format == Format::json) {
    SrTeView::OrderedJson doc;
    doc["scenario"] = file;
    doc["description"] = runner.scenario().description;
    doc["records"] = records;
    doc["exitStatus"] = status;
    std::cout << doc.dump(2) << "\n";
  } else if (format == Format::dot) {
    SrTeView::renderDot(std::cout, records.back()["state"]);
  } else if (runner.failed()) {
    std::cout << "\nsome steps failed (see \"error:\" above); exit status 1\n";
  }
  if (flicker) {
    std::ostream& out = format == Format::text ? std::cout : std::cerr;
    out << "\nbinary trace rings, oldest record first\n";
    for (U32 level = 0; level < Flicker::kLevels; ++level) {
      std::vector<std::string> lines = Flicker::decodeRing(level);
      if (lines.empty()) continue;
      out << "level " << level << " (" << Flicker::ringWriteCount(level) << " records written, "
          << lines.size() << " kept)\n";
      for (std::string const& line : lines)
        out << "  " << line << "\n";
    }
  }
  return status;
}
