// What a pipeline holds, explained for a network engineer: per policy its active candidate,
// binding SID and what it published; per candidate its rank and why it is or is not active;
// per segment list its labels and tunnel, next hops and pushed stacks, or why it does not
// resolve (the LFIB routes of its top label judged by the resolver's skip rules); the FECs of
// published policies, the binding-SID routes, and warnings such as a binding SID claimed by two
// policies.
//
// The result is one JSON document in a stable order (policies by key, candidates by rank,
// segment lists by id, tunnels by id, FECs by id, routes by label), each object's keys in a
// fixed order: every fact as a field (numbers as numbers, states and reasons as codes), with the
// sentences a person reads beside them. docs/state.schema.json describes it. The text and
// Graphviz renderers draw the same document.
//
// What is explained is a StateView: the entities the explanation reads, filled either from a
// pipeline in this process (srte-sim) or from the copies that a reader mounts from a running
// agent (srte-show), so both print the same thing from the same code.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "SrTePolicyAgent.h"

namespace SrTeView {

using OrderedJson = nlohmann::ordered_json;

// One segment list of the store as the explanation reads it: its labels top first, the ids of
// its segments in the same order, and the candidate paths that use it (ascending).
struct SegmentListInfo {
  std::vector<U32> labels;
  std::vector<U32> segmentIds;
  std::vector<U32> users;
  bool operator==(SegmentListInfo const&) const = default;
};
// The segment lists in use, by segment-list id.
using SegmentListDirectory = std::map<U32, SegmentListInfo>;
SegmentListInfo segmentListInfo(SrTePolicy::SegmentListUser const& user);
SegmentListDirectory segmentListDirectory(SrTePolicy::SegmentListIdToPolicyMap const& map);

// The entities an explanation reads; every pointer must be set but the last two, which a host
// may not have (an empty section or no activity is shown then). `time` is the pipeline's clock
// when there is one worth showing (a reader of a running agent leaves it out).
struct StateView {
  std::optional<double> time;
  Mosk::Ptr<SrTePolicy::PolicySelectionInput const> selectionInput;
  Mosk::Ptr<SrTePolicy::PolicyKeyToIdMap const> keyToIdMap;
  SegmentListDirectory const* segmentLists = nullptr;
  Mosk::Ptr<SrTePolicy::SegmentStatus const> segmentStatus;
  Mosk::Ptr<SrTePolicy::SegmentListStatus const> segmentListStatus;
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable const> tunnelTable;
  Mosk::Ptr<SrTePolicy::EcPolicy const> ecPolicy;
  Mosk::Ptr<SrTePolicy::PolicyStatus const> policyStatus;
  // The LFIB that segments resolve over, and the resolver's rules for judging its routes.
  Mosk::Ptr<Mpls::Status const> lfib;
  Mosk::Ptr<SrTePolicy::SegmentResolver const> resolver;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> forwardingStatus;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> forwarding6Status;
  // The FECs of published policies and the binding-SID routes.
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> srteFwdStatus;
  Mosk::Ptr<Mpls::Status const> bsidLfib;
  // The segment lists exported to other agents, and the host's memory of the active candidates.
  Mosk::Ptr<SrTePolicy::Export::SegmentListCollection const> exportedSegmentLists;
  Mosk::Ptr<SrTePolicy::PolicyActivity const> activity;
};

// How a host numbers the platform's entries when its numbers differ from their indexes (the
// simulator's scenario numbers, once a next-hop change moved an entry to a fresh index).
class EntryNames {
 public:
  virtual ~EntryNames() = default;
  virtual U64 adjacencyName(U64 index) const = 0;
  virtual U64 extFecName(U64 index) const = 0;
};

// The state that `view` shows. `platform` also lists the platform's tables; `names`, when
// given, adds the host's number to entries where it differs from their index.
OrderedJson explainState(StateView const& view, bool platform, EntryNames const* names = nullptr);

// The state of `agent` at this moment, through a view of its entities; `platform` and `names` as
// above.
OrderedJson explainState(SrTePolicy::SrTePolicyAgent const& agent, bool platform,
                         EntryNames const* names = nullptr);

// "bgp/3": a candidate by its source and the index bits of its policy id.
std::string candidateName(SrTePolicy::PolicyId id);
// Readable names: "srTeSegmentList:3", "srTePolicy:0", "ipv4:7", "192.0.2.1 color 100".
std::string tunnelName(Tunnel::TunnelTable::TunnelId const& id);
std::string fecName(Fib::FecId const& id);
std::string keyName(SrTePolicy::PolicyKey const& key);
// A label stack top first: "16001 16002".
std::string stackText(Ludd::MplsLabelOperation const& op);

// One next hop of a tunnel as the document gives it: address, interface and the stack pushed,
// in words and as labels top first.
OrderedJson nextHopJson(Tunnel::TunnelTable::MplsVia const& via);
// Adds "policy", "endpoint" and "color" of the policy `key` names (nulls when none) to `out`.
void policyRefJson(OrderedJson& out, std::optional<SrTePolicy::PolicyKey> const& key);

}  // namespace SrTeView
