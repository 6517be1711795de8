// srte-agent's configuration file: one JSON object whose keys are the daemon's settings (the
// same as its options: platform, sources, socket, socketGroup, maxReaders, metrics,
// maxPlatformBytes, stopOnOutputError, pollMs, sliceUs, trace), the static policies ("static",
// as a scenario's "config") and the color to DSCP map ("colorDscp"). docs/agent.md lists them.
//
// The command line wins: a setting it gives is not taken from the file, at start or on reload.
// The file is read whole and checked before any of it is used; the first mistake ends the
// reading with a ScenarioError naming the file, the JSON path and the reason.
#pragma once

#include <string>
#include <vector>

#include "DaemonOptions.h"

namespace SrTeDaemon {

// `commandLine` completed from `file` (read through readTextFile, at most `maxBytes` bytes) and
// finished (finishDaemonOptions). Raises SrTeScenario::ScenarioError for the file and its
// contents, a mistake across the settings included.
DaemonOptions configuredOptions(DaemonOptions const& commandLine, std::string const& file);
// The same for the file's text already in memory; `file` names it in errors and places a
// relative platform name.
DaemonOptions configuredOptionsFromText(DaemonOptions const& commandLine, std::string const& text,
                                        std::string const& file);

// What `options` hold, in one line ("2 static policies (3 candidate paths), 1 color, sources
// bgp pcep, socket /run/srte-agent/srte-agent.sock, metrics 127.0.0.1:9464").
std::string configSummary(DaemonOptions const& options);

// The differences between two static configurations, one sentence per policy ("static policy
// 192.0.2.1 color 100: changed"), in key order.
std::vector<std::string> staticConfigChanges(SrTeScenario::StaticConfig const& before,
                                             SrTeScenario::StaticConfig const& after);

}  // namespace SrTeDaemon
