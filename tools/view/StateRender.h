// The renderers of the runner's records (ScenarioRunner.h) and of an explained state
// (StateExplain.h): text for a person, and Graphviz. JSON needs no renderer: the records
// are JSON already.
#pragma once

#include <ostream>

#include "StateExplain.h"

namespace SrTeView {

// One step record (or the start or end record), with its state when it carries one.
void renderTextRecord(std::ostream& os, OrderedJson const& record);
// An explained state: policies, segment lists, policy FECs, binding-SID routes, warnings.
void renderTextState(std::ostream& os, OrderedJson const& state, std::string const& title);
// A Graphviz digraph of an explained state: policies, their candidates (the active one in
// bold), segment lists, tunnels and next hops.
void renderDot(std::ostream& os, OrderedJson const& state);

}  // namespace SrTeView
