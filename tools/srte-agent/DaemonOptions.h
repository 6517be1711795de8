// The command line of srte-agent: which sources to read from which shared-memory tables, the
// platform file, the poll period, the time slice of a task and the trace level. Read whole and
// checked before the daemon starts; a mistake ends the reading with a UsageError that names
// the argument and the reason.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTeDaemon {

// One source to read: its name ("bgp", "pcep" or "other") and the table its writer keeps.
struct SourceOption {
  SrTePolicy::PolicySource source = SrTePolicy::PolicySource::sourceBgp;
  std::string table;
};

struct DaemonOptions {
  // A scenario file whose platform section is loaded; none for an empty platform.
  std::optional<std::string> platform;
  // A scenario file whose platform, static configuration and sources are loaded (the sources
  // into tables inside the process); its steps are not played.
  std::optional<std::string> scenario;
  // The Unix-domain socket on which the agent serves its state to readers (srte-show).
  std::optional<std::string> socket;
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
// missing or malformed value, a source given twice or two sources on one table.
DaemonOptions parseDaemonOptions(std::vector<std::string> const& args);

// "srte-bgp": the table a source writes unless told otherwise (srte-source's default too).
std::string defaultTable(SrTePolicy::PolicySource source);

}  // namespace SrTeDaemon
