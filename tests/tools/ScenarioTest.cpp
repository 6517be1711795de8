// The scenario reader: its refusals of what earlier steps removed (with their paths) and its
// bookkeeping of ids and changes across steps. What a scenario does once read (the platform
// loader's moves of next hops in use, a library error recorded with its step) is shown by the
// scenarios under tests/scenarios/, and each refusal of a single value by those under bad/.
#include <gtest/gtest.h>

#include "ScenarioReader.h"

using namespace SrTeScenario;

namespace {

constexpr char const* kPlatform =
    R"("platform": {"adjacencies": [{"index": 1, "vias": [{"interface": "Ethernet1",
        "nextHop": "10.0.0.2", "label": 16001}]}], "routes": [{"label": 16001, "adjacency": 1}]})";

Scenario read(std::string const& body) {
  return readScenarioText("{" + std::string(kPlatform) + ", " + body + "}", "test.json");
}

// The path and reason of the refusal of `body`, as "path: reason".
std::string refusal(std::string const& body) {
  try {
    read(body);
  } catch (ScenarioError const& e) {
    EXPECT_EQ(e.file(), "test.json");
    return e.path() + ": " + e.reason();
  }
  return "accepted";
}

// Catches: a reader that checks values but not what the earlier steps left behind, so that a
// step naming a removed candidate, table or route would reach the pipeline.
TEST(ScenarioReader, RefusesReferencesToWhatEarlierStepsRemoved) {
  std::string const bgp = R"("sources": {"bgp": {"candidates": [
      {"endpoint": "192.0.2.1", "color": 1}]}}, )";
  EXPECT_EQ(refusal(bgp + R"("steps": [{"remove": {"source": "bgp", "id": 1}},
                                      {"change": {"source": "bgp", "id": 1, "color": 2}}])"),
            "steps[1].change.id: source bgp has no candidate 1 at this step");
  EXPECT_EQ(refusal(bgp + R"("steps": [{"removeSource": "bgp"},
      {"add": {"source": "bgp", "endpoint": "192.0.2.1", "color": 1}}])"),
            "steps[1].add.source: source bgp has no table at this step (add it with "
            "\"addSource\")");
  EXPECT_EQ(refusal(R"("steps": [{"platform": {"removeRoutes": [{"label": 16001}]}},
      {"platform": {"removeRoutes": [{"label": 16001}]}}])"),
            "steps[1].platform.removeRoutes[0]: no LFIB route for label 16001 source 1");
  EXPECT_EQ(refusal(R"("steps": [{"platform": {"removeRoutes": [{"label": 16001}],
      "removeAdjacencies": [1]}}])"),
            "accepted");
  EXPECT_EQ(refusal(R"("sources": {"static": {}})"),
            "sources.static: the static source's table is written from the static "
            "configuration: give static policies under \"config\"");
  EXPECT_EQ(refusal(R"("steps": [{"advance": 1, "show": true}])"),
            "steps[0]: a step does one thing: both \"advance\" and \"show\"");
  // Found by fuzzing: a number too large for a double escaped as the JSON library's own error.
  EXPECT_EQ(refusal(R"("steps": [{"advance": 1e400}])"),
            ": not valid JSON: number overflow parsing '1e400'");
}

// Catches: ids handed out twice (an automatic id landing on one given by hand), and a change
// step that resets the fields it does not name.
TEST(ScenarioReader, AllocatesIdsAroundGivenOnesAndMergesChanges) {
  Scenario s = read(R"("sources": {"pcep": {"policyIdx": 4, "candidates": [
      {"id": 6, "endpoint": "192.0.2.1", "color": 1},
      {"endpoint": "192.0.2.1", "color": 1}, {"endpoint": "192.0.2.1", "color": 1}]}},
      "steps": [{"change": {"source": "pcep", "id": 6, "preference": 7}}])");
  ASSERT_EQ(s.sources.size(), 1u);
  std::vector<U32> ids;
  for (Candidate const& c : s.sources[0].candidates)
    ids.push_back(c.index);
  EXPECT_EQ(ids, (std::vector<U32>{6, 5, 7}));
  EXPECT_EQ(s.sources[0].policyIdx, 7u);
  auto const& change = std::get<ChangeCandidate>(s.steps[0].action).candidate;
  EXPECT_EQ(change.preference.value(), 7u);
  EXPECT_EQ(change.endpoint, Ludd::IpGenAddr::parse("192.0.2.1"));
  EXPECT_EQ(change.policyId().value(), 0x80000006u);
}

}  // namespace
