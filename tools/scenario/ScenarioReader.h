// The scenario reader: parses a scenario file (JSON) and checks all of it before anything
// runs. Every value is range-checked, every field name known, every reference (a source, a
// candidate path, a route, an adjacency, a FEC) checked against the state that the steps before
// it leave behind. The first mistake ends the reading with a ScenarioError that names the file,
// the JSON path of the offending value (for example `steps[3].add.segmentLists[0].labels[6]`)
// and the reason; nothing is applied to a pipeline before the whole file has been read.
//
// The format is described in docs/simulator.md.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "Scenario.h"

namespace SrTeScenario {

class ScenarioError : public std::runtime_error {
 public:
  ScenarioError(std::string file, std::string path, std::string reason);

  std::string const& file() const { return file_; }
  // The JSON path of the offending value; empty for the document as a whole.
  std::string const& path() const { return path_; }
  std::string const& reason() const { return reason_; }

 private:
  std::string file_;
  std::string path_;
  std::string reason_;
};

// Reads and checks the scenario in `fileName`; raises ScenarioError (also when the file cannot
// be read, is not a regular file, or holds more than `maxBytes` bytes).
Scenario readScenarioFile(std::string const& fileName, U64 maxBytes = ~U64(0));
// The contents of the regular file `fileName`, of at most `maxBytes` bytes; raises ScenarioError
// (without a JSON path) naming what is wrong: it cannot be opened or read, it is a directory or
// another kind of file (a FIFO is refused, not waited on), it is larger.
std::string readTextFile(std::string const& fileName, U64 maxBytes = ~U64(0));
// The same for scenario text already in memory; `fileName` only names it in errors.
Scenario readScenarioText(std::string const& text, std::string const& fileName);
// The JSON document in `text`; raises ScenarioError ("not valid JSON: ..." with the line and
// column) naming `fileName` when it is not one.
nlohmann::json parseJsonText(std::string const& text, std::string const& fileName);
// A static configuration as a scenario's "config" gives it (srte-agent's configuration file holds
// one too), checked the same way; `path` is the JSON path of `value` in `fileName`, for errors.
StaticConfig readStaticConfig(nlohmann::json const& value, std::string const& fileName,
                              std::string const& path);

}  // namespace SrTeScenario
