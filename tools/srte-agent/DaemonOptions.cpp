// Reading srte-agent's command line.
#include "DaemonOptions.h"

#include <algorithm>
#include <set>

#include "MetricsServer.h"
#include "Skerry/ShmTable.h"
#include "StateSync.h"

namespace SrTeDaemon {

using SrTePolicy::PolicySource;

char const* const daemonUsage =
    R"(usage: srte-agent [--config FILE] [--platform FILE | --scenario FILE]
                  [--source NAME=TABLE ...] [--source-user NAME=USER ...]
                  [--serve | --socket PATH] [--socket-group GROUP] [--max-readers N]
                  [--metrics ADDRESS:PORT] [--max-platform-bytes N] [--stop-on-output-error]
                  [--poll-ms N] [--slice-us N] [--trace LEVEL] [--help]
       srte-agent --check FILE

Runs the SR-TE policy pipeline on an event loop: reads the candidate paths that sources write
into their tables in shared memory (srte-source writes them), resolves them against the
platform's LFIB and prints one JSON line per change of what it publishes (policy status, FECs,
binding-SID routes) on standard output. See docs/agent.md for the lines.

  --config FILE     the configuration file (JSON, docs/agent.md): static policies, the color
                    to DSCP map, sources, socket, metrics, poll and slice settings. A setting
                    the command line gives wins over the file's. SIGHUP reads the file again
                    and applies what changed.
  --check FILE      read and check the configuration file FILE and its platform, say what it
                    holds in one line and exit (0 when good, 2 with the file, the JSON path and
                    the reason when not)
  --metrics ADDRESS:PORT
                    serve the metrics in the Prometheus text format over HTTP at /metrics
                    (127.0.0.1:9464, [::1]:9464; port 0 takes a free port, which the started
                    line names)
  --platform FILE   a scenario file (docs/simulator.md) whose "platform" section is loaded as
                    the LFIB, adjacencies and FECs; its "sources", "config" and "steps" are
                    ignored. Without it the platform is empty and nothing resolves.
  --scenario FILE   a scenario file whose platform, static configuration and sources are all
                    loaded (the sources into tables inside the process; its steps are not
                    played); shared-memory tables are read only for sources given by --source
  --serve           serve the agent's state to readers such as srte-show on the default socket,
                    $XDG_RUNTIME_DIR/srte-agent.sock; without XDG_RUNTIME_DIR
                    /run/srte-agent/srte-agent.sock for root, else
                    /tmp/srte-agent-UID/srte-agent.sock (the directory is made private)
  --socket PATH     the same on the Unix-domain socket PATH
  --socket-group GROUP
                    members of GROUP may connect to the socket too (mode 0660); without it
                    only the agent's user may (0600)
  --max-readers N   the most readers served at once, 1 to 4096 (default 32); one more gets a
                    frame that says why and is closed
  --source NAME=TABLE
                    read source NAME (bgp, pcep or other) from table TABLE (/dev/shm/TABLE);
                    repeat for several sources. A table that does not exist yet is looked for
                    every poll period. Default: bgp=srte-bgp, pcep=srte-pcep, other=srte-other
                    (the tables srte-source writes by default).
  --source-user NAME=USER
                    the user (name or number) trusted to write source NAME's table besides
                    root (default: the agent's own user). A table of another owner, or one
                    that others than its owner may write, is refused and waited on.
  --max-platform-bytes N
                    a platform or scenario file larger than N bytes is refused
                    (default 67108864)
  --stop-on-output-error
                    stop when standard output fails (its reader went away); by default the
                    agent says so once on standard error and goes on without the lines
  --poll-ms N       how often tables are polled and missing ones looked for, 1 to 10000
                    (default 10)
  --slice-us N      how long a task runs before it yields to the event loop, 10 to 1000000
                    microseconds (default 5000)
  --trace LEVEL     the text trace of the pipeline up to LEVEL (0-9) on standard error
  --help            this text

SIGINT or SIGTERM stops it: the pipeline is torn down and the last line says "stopped".
SIGHUP reads the configuration file again and applies what changed (a reload line says what);
SIGUSR1 and SIGUSR2 do nothing but a line; SIGPIPE is ignored. Under a service manager that
sets NOTIFY_SOCKET the agent reports READY=1, RELOADING=1, STOPPING=1 and watchdog pings.
Exit status: 0 stopped by a signal, 1 the platform (or the scenario's inputs) could not be
loaded, the socket could not be served, or the agent stopped on an output error or an
unexpected error, 2 bad usage or a platform or configuration file that is not valid.
)";

namespace {}  // namespace

U32 optionNumber(std::string const& option, std::string const& text, U32 min, U32 max) {
  U64 v = 0;
  bool ok = !text.empty() && text.size() <= 10;
  for (char c : text) {
    ok = ok && c >= '0' && c <= '9';
    if (ok) v = v * 10 + static_cast<U64>(c - '0');
  }
  if (!ok || v < min || v > max) {
    throw UsageError(option + ": '" + text + "' is not a number from " + std::to_string(min) +
                     " to " + std::to_string(max));
  }
  return static_cast<U32>(v);
}

void checkTableName(std::string const& where, std::string const& table) {
  try {
    (void)Skerry::shmTablePath(table);
  } catch (Mosk::RangeException const& e) {
    throw UsageError(where + ": " + e.what());
  }
}

namespace {

SourceOption sourceOption(std::string const& text) {
  std::size_t const eq = text.find('=');
  if (eq == std::string::npos) {
    throw UsageError("--source: '" + text + "' is not NAME=TABLE (for example bgp=srte-bgp)");
  }
  std::string const name = text.substr(0, eq);
  std::optional<PolicySource> source = SrTePolicy::sourceByName(name);
  if (!source || *source == PolicySource::sourceStatic) {
    throw UsageError("--source: '" + name +
                     "' is not a source that writes a table (bgp, pcep or other; the static "
                     "source is the agent's own configuration)");
  }
  SourceOption given{*source, text.substr(eq + 1), std::nullopt};
  checkTableName("--source " + name, given.table);
  return given;
}

}  // namespace

DaemonOptions parseDaemonOptions(std::vector<std::string> const& args) {
  DaemonOptions o;
  // The key in the configuration file of each option that gives a setting.
  static std::map<std::string, std::string> const keys = {
      {"--platform", "platform"},
      {"--scenario", "scenario"},
      {"--socket", "socket"},
      {"--serve", "socket"},
      {"--socket-group", "socketGroup"},
      {"--max-readers", "maxReaders"},
      {"--source", "sources"},
      {"--max-platform-bytes", "maxPlatformBytes"},
      {"--stop-on-output-error", "stopOnOutputError"},
      {"--poll-ms", "pollMs"},
      {"--slice-us", "sliceUs"},
      {"--trace", "trace"},
      {"--metrics", "metrics"}};
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i], value;
    bool hasValue = false;
    if (std::size_t eq = name.find('='); name.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
      hasValue = true;
    }
    if (auto key = keys.find(name); key != keys.end()) o.given.insert(key->second);
    if (name == "--help" || name == "-h") {
      o.help = true;
      continue;
    }
    if (name == "--serve" && !hasValue) {
      if (o.socket) throw UsageError("--serve: a socket is given already");
      o.socket = SrTeStateSync::defaultSocketPath();
      continue;
    }
    if (name == "--stop-on-output-error" && !hasValue) {
      o.stopOnOutputError = true;
      continue;
    }
    static std::set<std::string> const withValue = {
        "--platform",     "--scenario",    "--socket",
        "--socket-group", "--max-readers", "--source",
        "--source-user",  "--poll-ms",     "--max-platform-bytes",
        "--slice-us",     "--trace",       "--metrics",
        "--config",       "--check"};
    if (!withValue.count(name)) {
      if (name.rfind("-", 0) == 0) throw UsageError("unknown option '" + name + "'");
      throw UsageError("unexpected argument '" + name + "'");
    }
    if (!hasValue) {
      if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
      value = args[++i];
    }
    if (name == "--platform") {
      if (o.platform) throw UsageError("--platform given twice");
      if (value.empty()) throw UsageError("--platform needs a file name");
      o.platform = value;
    } else if (name == "--scenario") {
      if (o.scenario) throw UsageError("--scenario given twice");
      if (value.empty()) throw UsageError("--scenario needs a file name");
      o.scenario = value;
    } else if (name == "--config" || name == "--check") {
      if (o.config || o.check) throw UsageError(name + ": a configuration file is given already");
      if (value.empty()) throw UsageError(name + " needs a file name");
      (name == "--config" ? o.config : o.check) = value;
    } else if (name == "--socket") {
      if (o.socket) throw UsageError("--socket: a socket is given already");
      if (value.empty()) throw UsageError("--socket needs a path");
      o.socket = value;
    } else if (name == "--metrics") {
      if (o.metrics) throw UsageError("--metrics given twice");
      o.metrics = value;
    } else if (name == "--source") {
      SourceOption given = sourceOption(value);
      for (SourceOption const& s : o.sources) {
        if (s.source == given.source) {
          throw UsageError("--source: " + std::string(SrTePolicy::sourceName(given.source)) +
                           " given twice");
        }
        if (s.table == given.table) {
          throw UsageError("--source: table '" + given.table + "' given for both " +
                           SrTePolicy::sourceName(s.source) + " and " +
                           SrTePolicy::sourceName(given.source) + " (one writer per table)");
        }
      }
      o.sources.push_back(std::move(given));
    } else if (name == "--source-user") {
      std::size_t const eq = value.find('=');
      std::optional<PolicySource> source =
          eq == std::string::npos ? std::nullopt : SrTePolicy::sourceByName(value.substr(0, eq));
      if (!source) {
        throw UsageError("--source-user: '" + value + "' is not NAME=USER (for example bgp=bgpd)");
      }
      std::optional<uid_t> uid = Skerry::shmUserId(value.substr(eq + 1));
      if (!uid) throw UsageError("--source-user: no user '" + value.substr(eq + 1) + "'");
      o.sourceUsers.emplace_back(*source, *uid);
    } else if (name == "--socket-group") {
      if (o.socketGroup) throw UsageError("--socket-group given twice");
      o.socketGroup = Skerry::shmGroupId(value);
      if (!o.socketGroup) throw UsageError("--socket-group: no group '" + value + "'");
    } else if (name == "--max-readers") {
      o.maxReaders = optionNumber(name, value, 1, 4096);
    } else if (name == "--max-platform-bytes") {
      o.maxPlatformBytes = optionNumber(name, value, 1, 4000000000u);
    } else if (name == "--poll-ms") {
      o.pollMs = optionNumber(name, value, 1, 10000);
    } else if (name == "--slice-us") {
      o.sliceUs = optionNumber(name, value, 10, 1000000);
    } else if (name == "--trace") {
      o.traceLevel = static_cast<int>(optionNumber(name, value, 0, 9));
    }
  }
  if (o.config && o.scenario) {
    throw UsageError("--config and --scenario both give a static configuration; give one");
  }
  if (!o.config && !o.check) finishDaemonOptions(o);
  return o;
}

void finishDaemonOptions(DaemonOptions& o) {
  if (o.platform && o.scenario) {
    throw UsageError("--platform and --scenario both name the platform; give one");
  }
  // A scenario brings its own sources; the default tables are for an agent without one.
  if (o.sources.empty() && !o.scenario && !o.noSources) {
    for (PolicySource s :
         {PolicySource::sourceBgp, PolicySource::sourcePcep, PolicySource::sourceOther}) {
      o.sources.push_back({s, SrTePolicy::defaultTableName(s), std::nullopt});
    }
  }
  std::set<PolicySource> usersGiven;
  for (auto const& [source, uid] : o.sourceUsers) {
    auto it = std::find_if(o.sources.begin(), o.sources.end(),
                           [source = source](SourceOption const& s) { return s.source == source; });
    if (it == o.sources.end()) {
      throw UsageError(std::string("--source-user: source ") + SrTePolicy::sourceName(source) +
                       " is not read");
    }
    if (!usersGiven.insert(source).second) {
      throw UsageError(std::string("--source-user: ") + SrTePolicy::sourceName(source) +
                       " given twice");
    }
    it->user = uid;
  }
  if (o.socketGroup && !o.socket) throw UsageError("--socket-group: no socket is served");
  if (o.metrics) {
    try {
      (void)metricsEndpoint(*o.metrics);
    } catch (std::invalid_argument const& e) {
      throw UsageError(std::string("--metrics: ") + e.what());
    }
  }
}

}  // namespace SrTeDaemon
