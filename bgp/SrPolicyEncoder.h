// Writing UPDATE messages of SR Policy paths: what a controller sends, for the tests, the fuzz
// harness (a decoded path written again must decode to the same record) and the benchmarks.
#pragma once

#include "SrPolicyDecoder.h"

namespace SrTeBgp {

// A whole UPDATE (header included) advertising `record` (its preference, binding SID and lists,
// each with its Weight and type A segments, top label first) as the path `nlri`, with ORIGIN,
// an empty AS_PATH, LOCAL_PREF 100 and the Route Target `routeTarget`.
Bytes updateMessage(SrPolicyNlri const& nlri, SrTePolicy::PolicyInputEntry const& record,
                    Ludd::IpAddr const& routeTarget);
// A whole UPDATE withdrawing the path `nlri`.
Bytes withdrawMessage(SrPolicyNlri const& nlri);

}  // namespace SrTeBgp
