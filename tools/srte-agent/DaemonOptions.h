// The command line of srte-agent: which sources to read from which shared-memory tables and
// whom to trust to write them, the platform file and its size limit, the socket and who may
// read it, the poll period, the time slice of a task and the trace level. Read whole and
// checked before the daemon starts; a mistake ends the reading with a UsageError that names
// the argument and the reason.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Scenario.h"
#include "SrTePolicy/SrTePolicySource.h"

namespace SrTeDaemon {

// One source to read: its name ("bgp", "pcep" or "other"), the table its writer keeps, and the
// user trusted to write that table besides root (none: the agent's own user).
struct SourceOption {
  SrTePolicy::PolicySource source = SrTePolicy::PolicySource::sourceBgp;
  std::string table;
  std::optional<uid_t> user = std::nullopt;
};

struct DaemonOptions {
  // A scenario file whose platform section is loaded; none for an empty platform.
  std::optional<std::string> platform;
  // A scenario file whose platform, static configuration and sources are loaded (the sources
  // into tables inside the process); its steps are not played.
  std::optional<std::string> scenario;
  // The Unix-domain socket on which the agent serves its state to readers (srte-show).
  std::optional<std::string> socket;
  // The group whose members may connect to the socket besides its owner; none for the owner
  // alone.
  std::optional<gid_t> socketGroup;
  // The most readers served at once; one more is refused with the reason.
  U32 maxReaders = 32;
  // A platform or scenario file larger than this is refused before it is read.
  U64 maxPlatformBytes = 64u << 20;
  // When standard output fails (its reader went away): stop (true) or go on without the lines.
  bool stopOnOutputError = false;
  // In the order given; with none given, every source on its default table srte-NAME (unless
  // the configuration file's "sources" is empty: none then).
  std::vector<SourceOption> sources;
  bool noSources = false;
  // How often tables are polled and missing tables looked for.
  U32 pollMs = 10;
  // How long a task of the pipeline runs before it yields to the event loop.
  U32 sliceUs = 5000;
  // The text trace of the pipeline up to this level on standard error; -1 for none.
  int traceLevel = -1;
  // ADDRESS:PORT on which the metrics are served over HTTP; none for no metrics.
  std::optional<std::string> metrics;
  // The configuration file (--config): what the command line does not give comes from it, and
  // SIGHUP reads it again.
  std::optional<std::string> config;
  // --check FILE: read and check a configuration file, then exit.
  std::optional<std::string> check;
  // From the configuration file: the static policies (when it has them) and the color to DSCP
  // map (color -> DSCP values).
  std::optional<SrTeScenario::StaticConfig> staticConfig;
  std::map<U32, std::set<U32>> colorDscp;
  // The settings the command line gave, by their keys in the configuration file ("pollMs",
  // "sources", ...): the file does not change them, on start or on reload.
  std::set<std::string> given;
  // --source-user, applied once the sources are known.
  std::vector<std::pair<SrTePolicy::PolicySource, uid_t>> sourceUsers;
  bool help = false;
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The usage text that --help prints.
extern char const* const daemonUsage;

// Reads the arguments (without the program name). Raises UsageError for an unknown option, a
// missing or malformed value, a source given twice or two sources on one table, an unknown
// user or group, a user given for a source that is not read. With --config or --check the
// options are left for the configuration file to complete (see AgentConfig.h).
DaemonOptions parseDaemonOptions(std::vector<std::string> const& args);
// What the options still need once every setting is in: the default sources when none are
// given, the trusted users given for the sources, the checks across settings (UsageError).
void finishDaemonOptions(DaemonOptions& options);
// Checks a source's table name (UsageError naming `where`).
void checkTableName(std::string const& where, std::string const& table);
// U32 from decimal text within [min, max] (UsageError naming `option`).
U32 optionNumber(std::string const& option, std::string const& text, U32 min, U32 max);

}  // namespace SrTeDaemon
