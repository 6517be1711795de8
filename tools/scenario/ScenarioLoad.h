// Loading a scenario's sources and static configuration into a host: what srte-sim does at the
// start of a scenario and srte-agent does with the file its --scenario option names. (The
// platform has its own loader, ScenarioPlatform.h.)
#pragma once

#include "Scenario.h"
#include "SrTePolicyAgent.h"

namespace SrTeScenario {

// The input record a source writes for candidate `c`.
SrTePolicy::PolicyInputEntry inputEntry(Candidate const& c);
// Fills a new in-process table with `table`'s candidate paths and attaches it for its source
// (replacing the table the source had).
void attachSourceTable(SrTePolicy::SrTePolicyAgent& agent, SourceTable const& table);
// Makes the agent's static configuration what `config` says: policies, paths and lists that
// it does not name are removed, the others written.
void applyStaticConfig(SrTePolicy::SrTePolicyAgent& agent, StaticConfig const& config);

}  // namespace SrTeScenario
