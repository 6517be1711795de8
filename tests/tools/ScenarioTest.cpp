// The scenario library: the reader's refusals (with their paths) and its bookkeeping of ids and
// changes across steps, and the platform loader's rule that next hops in use are published
// under a new index rather than rewritten in place.
#include <gtest/gtest.h>

#include "ScenarioPlatform.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"

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

class Platform : public ::testing::Test {
 protected:
  Mosk::Ptr<Mpls::Status> lfib = Mpls::statusFactory("lfib");
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwd = Skerry::Fib::forwardingStatusFactory("fwd");
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6 = Skerry::Fib6::forwardingStatusFactory("fwd6");
  Mpls::AdjacencyKey adjacencyOf(U32 label) {
    return lfib->lfibRoute(Mpls::RouteKey(Ludd::MplsLabel(label), Mpls::LFib::Source(1)))
        .adjacencyKey();
  }
};

// Catches: next hops rewritten under the index a route points at, which no reactor hears, so
// the tunnels built over them would keep the old next hops.
TEST_F(Platform, NextHopsInUseMoveToANewIndexAndTheRouteFollows) {
  Scenario s = read(R"("steps": [
      {"platform": {"adjacencies": [{"index": 1, "vias": [{"interface": "Ethernet2",
          "nextHop": "10.0.2.2", "label": 16001}]}]}},
      {"platform": {"adjacencies": [{"index": 7, "vias": []}]}},
      {"platform": {"adjacencies": [{"index": 7, "vias": [{"interface": "Ethernet7",
          "nextHop": "10.0.7.2", "label": 16001}]}]}}])");
  PlatformLoader loader(lfib, fwd, fwd6, s.ceiling);
  loader.apply(s.platform);
  EXPECT_EQ(adjacencyOf(16001).index(), 1u);

  std::vector<PlatformMove> notes =
      loader.apply(std::get<ChangePlatform>(s.steps[0].action).change);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(loader.adjacencyIndex(1), 8u);  // above the largest index the scenario names (7)
  EXPECT_EQ(adjacencyOf(16001), Mpls::AdjacencyKey(8, Mpls::AdjacencyKind::adjacency));
  EXPECT_FALSE(lfib->lfibAdjacency(1));
  EXPECT_EQ(lfib->lfibAdjacency(8)->via().begin()->intf(), Ludd::IntfId::parse("Ethernet2"));

  // An adjacency that no route uses is rewritten where it is.
  loader.apply(std::get<ChangePlatform>(s.steps[1].action).change);
  EXPECT_TRUE(loader.apply(std::get<ChangePlatform>(s.steps[2].action).change).empty());
  EXPECT_EQ(loader.adjacencyIndex(7), 7u);
  EXPECT_EQ(lfib->lfibAdjacency(7)->via().viaCount(), 1u);
}

// Catches: a FEC rewritten in place behind an external FEC adjacency; the new FEC must be
// published under a new id, the adjacency moved to it (itself under a new index) and the
// route re-pointed.
TEST_F(Platform, ChangedFecMovesWithItsAdjacencyAndRoute) {
  Scenario s = readScenarioText(R"({"platform": {
      "fecs": [{"family": "ipv6", "index": 2, "vias": [{"interface": "Ethernet1",
          "nextHop": "2001:db8::1"}]}],
      "extFecAdjacencies": [{"index": 3, "fec": {"family": "ipv6", "index": 2}}],
      "routes": [{"label": 17000, "adjacency": {"kind": "extFec", "index": 3}}]},
    "steps": [{"platform": {"fecs": [{"family": "ipv6", "index": 2, "vias": [
        {"interface": "Ethernet2", "nextHop": "2001:db8::2"}]}]}}]})",
                                "fec.json");
  PlatformLoader loader(lfib, fwd, fwd6, s.ceiling);
  loader.apply(s.platform);
  loader.apply(std::get<ChangePlatform>(s.steps[0].action).change);
  Fib::FecId moved = PlatformLoader::fecId(Family::ipv6, 3);
  EXPECT_EQ(loader.fecIndex(Family::ipv6, 2), 3u);
  EXPECT_EQ(fwd6->fec(PlatformLoader::fecId(Family::ipv6, 2)), Fib::Fec());
  EXPECT_EQ(fwd6->fec(moved).viaCount(), 1u);
  EXPECT_EQ(adjacencyOf(17000), Mpls::AdjacencyKey(4, Mpls::AdjacencyKind::extFec));
  EXPECT_EQ(lfib->lfibExtFecAdjacency(4)->fecId(), moved);
  EXPECT_FALSE(lfib->lfibExtFecAdjacency(3));
}

// Catches: a library error that ends the run, or one that is not reported with its step.
TEST(ScenarioRunner, ALibraryErrorIsRecordedAndTheNextStepRuns) {
  ScenarioRunner runner(read(R"("sources": {"bgp": {"candidates": [
      {"endpoint": "192.0.2.1", "color": 1, "segmentLists": [{"labels": [16001, 5]}]}]}},
      "steps": [{"change": {"source": "bgp", "id": 1, "endpoint": "192.0.2.2"}},
                {"add": {"source": "bgp", "endpoint": "192.0.2.3", "color": 1,
                         "segmentLists": [{"labels": [16001, 5]}]}}])"));
  runner.start();
  OrderedJson failed = runner.runStep(0);
  EXPECT_NE(failed["error"].get<std::string>().find("Reinstantiating the entity"),
            std::string::npos);
  OrderedJson next = runner.runStep(1);
  EXPECT_FALSE(next.contains("error"));
  EXPECT_TRUE(runner.failed());
  OrderedJson end = runner.finish();
  EXPECT_EQ(end["state"]["policyFecs"].size(), 2u);
}

}  // namespace
