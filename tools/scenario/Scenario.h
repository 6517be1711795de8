// The scenario model: what a scenario file says, after the reader has checked all of it.
//
// A scenario holds the platform state (LFIB routes, via sets, LFIB adjacencies, external FEC
// adjacencies and the IPv4 and IPv6 FECs behind them), the sources with their candidate paths,
// the static configuration, and a timeline of steps. Every value here is already in range and
// every reference has been checked against the state the earlier steps leave behind, so
// applying a scenario raises nothing but the errors of the library itself.
//
// Indexes of adjacencies, via sets, external FEC adjacencies and FECs are the scenario's names
// for them. The platform loader publishes them under those numbers, except that next hops that
// change in place are published under a new number (see ScenarioPlatform.h).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Ludd/IntfId.h"
#include "Ludd/IpAddr.h"
#include "Ludd/MplsLabel.h"
#include "Mpls/MplsTypes.h"
#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTeScenario {

// One next hop of a via set or an LFIB adjacency.
struct LfibVia {
  Ludd::IntfId intf;
  Ludd::IpGenAddr nextHop;
  Ludd::MplsLabelAction action = Ludd::MplsLabelAction::actionNone;
  Ludd::MplsLabel label;
};

// Which table an adjacency index of a route names.
struct AdjacencyRef {
  Mpls::AdjacencyKind kind = Mpls::AdjacencyKind::adjacency;
  U64 index = 0;
};

struct Route {
  Ludd::MplsLabel label;
  U8 source = 1;
  Mpls::LFib::RouteType type = Mpls::LFib::RouteType::label;
  AdjacencyRef adjacency;
  U32 metric = 0;
};

struct RouteKeyRef {
  Ludd::MplsLabel label;
  U8 source = 1;
};

// An indexed set of vias: a via set or an LFIB adjacency.
struct ViaList {
  U64 index = 0;
  std::vector<LfibVia> vias;
};

enum class Family : U8 { ipv4, ipv6 };

// A FEC of the IPv4 or IPv6 forwarding status: FEC id type 0 or 1 with this index.
struct FecRef {
  Family family = Family::ipv4;
  U64 index = 0;
};

struct ExtFecAdjacency {
  U64 index = 0;
  FecRef fec;
  Ludd::MplsLabelAction action = Ludd::MplsLabelAction::actionForward;
};

struct FecVia {
  Ludd::IntfId intf;
  Ludd::IpGenAddr nextHop;
  Ludd::MplsLabel label;
  Ludd::MplsLabelAction action = Ludd::MplsLabelAction::actionNone;
};

struct Fec {
  FecRef ref;
  std::vector<FecVia> vias;
};

// Platform state, or a change to it: entries to add or replace, then entries to remove.
// Additions apply bottom up (FECs, external FEC adjacencies, via sets, adjacencies, routes) and
// removals top down, so that nothing ever points at an entry that is not there yet.
struct PlatformChange {
  std::vector<Fec> fecs;
  std::vector<ExtFecAdjacency> extFecAdjacencies;
  std::vector<ViaList> viaSets;
  std::vector<ViaList> adjacencies;
  std::vector<Route> routes;
  std::vector<RouteKeyRef> removeRoutes;
  std::vector<U64> removeAdjacencies;
  std::vector<U64> removeViaSets;
  std::vector<U64> removeExtFecAdjacencies;
  std::vector<FecRef> removeFecs;
  // After the change: announce the whole LFIB as changed, so resolution runs its full pass.
  bool resync = false;
};

struct WeightedLabels {
  SrTePolicy::Weight weight;
  Ludd::MplsLabelOperation labels;
};

// One candidate path as a source writes it.
struct Candidate {
  SrTePolicy::PolicySource source = SrTePolicy::PolicySource::sourceBgp;
  U32 index = 0;  // the low 30 bits of its policy id
  Ludd::IpGenAddr endpoint;
  SrTePolicy::Color color;
  SrTePolicy::Preference preference;
  Ludd::IpAddr routerId;
  Ludd::MplsLabel bindingSid;
  std::vector<WeightedLabels> segmentLists;

  SrTePolicy::PolicyId policyId() const { return SrTePolicy::PolicyId::make(source, index); }
};

struct SourceTable {
  SrTePolicy::PolicySource source = SrTePolicy::PolicySource::sourceBgp;
  U32 policyIdx = 0;  // the table's counter after the candidates took their ids
  std::vector<Candidate> candidates;
};

struct StaticPath {
  SrTePolicy::Preference preference;
  Ludd::MplsLabel bindingSid;
  std::vector<WeightedLabels> segmentLists;
};

struct StaticPolicy {
  SrTePolicy::PolicyKey key;
  Ludd::MplsLabel bindingSid;
  std::vector<StaticPath> paths;
};

struct StaticConfig {
  bool enabled = true;
  std::vector<StaticPolicy> policies;
};

// Steps. Each kind is its own type; a step carries one of them.
struct AddCandidate {
  Candidate candidate;
  U32 policyIdx = 0;  // the source table's counter after this candidate took its id
};
struct ChangeCandidate {
  Candidate candidate;  // the whole new record (fields the step left out keep their values)
};
struct RemoveCandidate {
  SrTePolicy::PolicySource source;
  U32 index = 0;
};
struct ChangeConfig {
  StaticConfig config;
};
struct AddSource {
  SourceTable table;
};
struct RemoveSource {
  SrTePolicy::PolicySource source;
};
struct ChangePlatform {
  PlatformChange change;
};
struct Advance {
  double seconds = 0;
};
struct SetYield {
  U32 count = 0;  // 0: never yield; k: yield from the k-th question of a run on
};
struct Restart {
  enum class What : U8 { machine, pipeline, agent };
  What what = What::machine;
  std::string machine;  // for What::machine, as machineName() spells it
};
struct Show {
  std::string title;
  bool platform = false;  // also list the platform tables
};

using StepAction =
    std::variant<AddCandidate, ChangeCandidate, RemoveCandidate, ChangeConfig, AddSource,
                 RemoveSource, ChangePlatform, Advance, SetYield, Restart, Show>;

struct Step {
  std::string note;  // the scenario author's words, printed with the step
  StepAction action;
};

// The largest index a scenario gives anywhere, per table: new indexes for next hops that
// change in place are taken above them.
struct IndexCeiling {
  U64 adjacency = 0;  // via sets and LFIB adjacencies share one index space
  U64 extFec = 0;
  U64 fec4 = 0;
  U64 fec6 = 0;
};

struct Scenario {
  std::string file;
  std::string description;
  PlatformChange platform;
  std::vector<SourceTable> sources;
  StaticConfig config;
  bool hasConfig = false;
  std::vector<Step> steps;
  IndexCeiling ceiling;
};

}  // namespace SrTeScenario
