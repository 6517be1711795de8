// What a pipeline holds, explained for a network engineer: per policy its active candidate,
// binding SID and what it published; per candidate its rank and why it is or is not active;
// per segment list its labels and tunnel, next hops and pushed stacks, or why it does not
// resolve (the LFIB routes of its top label judged by the resolver's skip rules); the FECs of
// published policies, the binding-SID routes, and warnings such as a binding SID claimed by two
// policies.
//
// The result is one JSON document in a stable order (policies by key, candidates by rank,
// segment lists by id, FECs by id, routes by label); the text and Graphviz renderers draw the
// same document, so every output form carries the same content.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ScenarioPlatform.h"
#include "SrTePolicyAgent.h"

namespace SrTeScenario {

using OrderedJson = nlohmann::ordered_json;

// The state of `agent` at this moment. `platform` also lists the platform's tables; `loader`,
// when given, names entries by their scenario numbers where those differ from their index.
OrderedJson explainState(SrTePolicy::SrTePolicyAgent const& agent, bool platform,
                         PlatformLoader const* loader = nullptr);

// Readable names: "srTeSegmentList:3", "srTePolicy:0", "ipv4:7", "192.0.2.1 color 100".
std::string tunnelName(Tunnel::TunnelTable::TunnelId const& id);
std::string fecName(Fib::FecId const& id);
std::string keyName(SrTePolicy::PolicyKey const& key);
// A label stack top first: "16001 16002".
std::string stackText(Ludd::MplsLabelOperation const& op);

}  // namespace SrTeScenario
