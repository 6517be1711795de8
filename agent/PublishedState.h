// The forwarding state a pipeline has published, written as canonical text that leaves out
// every number the pipeline allocates (tunnel ids, FEC ids, adjacency indexes): per policy key,
// the active candidate, its binding SID and weighted tunnels (each tunnel by its next hops and
// pushed stacks), and the binding-SID route with the FEC it leads to; then the tables as a
// whole (every binding-SID route, the FEC and adjacency counts, every tunnel, the exported
// segment lists), so that leftovers no policy accounts for show as well. Two pipelines that
// forward alike print the same text, whatever the numbering; restart tests compare it.
#pragma once

#include <string>

#include "SrTePolicyAgent.h"

namespace SrTePolicy {

std::string publishedState(SrTePolicyAgent const& agent);

}  // namespace SrTePolicy
