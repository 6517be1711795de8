// The names of the candidate-path sources, as every tool, file and line spells them, and the
// shared-memory input table each source writes unless it is told otherwise. The reference
// daemon, srte-source, srte-bgp and the simulator all take them from here, so a source is
// called the same everywhere and a writer and a reader started with no table name meet.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTePolicy {

// "static", "bgp", "pcep", "other".
char const* sourceName(PolicySource source);
// The source `name` spells; none for any other text (names are lower case, matched exactly).
std::optional<PolicySource> sourceByName(std::string_view name);
// "srte-bgp": the table of `source` when no table name is given.
std::string defaultTableName(PolicySource source);

}  // namespace SrTePolicy
