// The command line of srte-agent: which sources to read from which shared-memory tables and
// whom to trust to write them, the platform file and its size limit, the socket and who may
// read it, the poll period, the time slice of a task and the trace level. Read whole and
// checked before the daemon starts; a mistake ends the reading with a UsageError that names
// the argument and the reason.
#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "SrTePolicy/SrTePolicyTypes.h"

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
  // In the order given; with none given, every source on its default table srte-NAME.
  std::vector<SourceOption> sources;
  // How often tables are polled and missing tables looked for.
  U32 pollMs = 10;
  // How long a task of the pipeline runs before it yields to the event loop.
  U32 sliceUs = 5000;
  // The text trace of the pipeline up to this level on standard error; -1 for none.
  int traceLevel = -1;
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
// user or group, a user given for a source that is not read.
DaemonOptions parseDaemonOptions(std::vector<std::string> const& args);

// "srte-bgp": the table a source writes unless told otherwise (srte-source's default too).
std::string defaultTable(SrTePolicy::PolicySource source);

}  // namespace SrTeDaemon
