// srte-agent's daemon: the host (SrTePolicyAgent) on a Boost.Asio event loop with the machine's
// steady clock, a time-slice yield policy and the scheduler driven by Vell::AsioDriver; the
// platform state loaded from a scenario file; a SourceWatcher per configured source on one poll
// timer; the published-state feed writing its lines after every chain of changes; SIGINT and
// SIGTERM handled by stopping in order; SIGHUP, SIGUSR1 and SIGUSR2 caught from construction on
// so that none of them ends the process (SIGHUP goes to reload()).
//
// With a configuration file (--config) the daemon takes from it what the command line leaves
// out, applies its static policies and color to DSCP map, and reload() reads it again and
// applies only what changed. With --metrics it serves its metrics over HTTP (MetricsServer,
// AgentMetrics). Under a service manager it reports its states (ServiceNotifier): ready once
// the first poll of the sources is done, reloading, stopping, and the watchdog's pings.
//
// Every way out after start() passes through stop(), which writes the "stopped" line (when the
// output still takes it) and lets the state server remove its socket: a signal, a failed
// output when so configured, an unexpected error out of a handler.
//
// main() owns the io_context and one AgentDaemon; other servers of the process take the same
// io_context and reach the host through agent(). With a socket given, the daemon serves the
// host's entities to readers (srte-show) through SrTeStateSync::StateServer.
// Everything runs on the thread that runs the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <ostream>
#include <vector>

#include "AgentMetrics.h"
#include "DaemonOptions.h"
#include "EventLog.h"
#include "MetricsServer.h"
#include "PublishedFeed.h"
#include "ScenarioPlatform.h"
#include "ServiceNotifier.h"
#include "SourceWatcher.h"
#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicy.h"
#include "SrTePolicyAgent.h"
#include "StateServer.h"
#include "Vell/AsioDriver.h"

namespace SrTeDaemon {

// The platform file could not be used; `status` is the exit status it calls for (2 for a file
// that is not valid, 1 for a platform the library refused).
class PlatformError : public std::runtime_error {
 public:
  PlatformError(std::string const& message, int status)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

class AgentDaemon {
 public:
  // Builds the host, reads the configuration file when the options name one, loads the platform
  // and the static configuration, opens the socket and the metrics endpoint (raises
  // PlatformError); nothing runs before start(). `options` are those of the command line.
  AgentDaemon(boost::asio::io_context& io, DaemonOptions options, std::ostream& out);
  AgentDaemon(AgentDaemon const&) = delete;
  AgentDaemon& operator=(AgentDaemon const&) = delete;
  ~AgentDaemon();

  // Writes the "started" line, starts watching the sources and the signals.
  void start();
  // Runs the event loop until stop(); an error of the runtime that escapes a handler of the
  // pipeline is written as an "error" line and the loop goes on; any other error stops the
  // daemon. Returns the exit status: 0 after a signal, 1 after an output failure or an error.
  int run();
  // Stops polling, detaches the feed, tears the host down in reverse build order and writes
  // the "stopped" line; the loop then runs out. `why` goes into the "stopping" line; `status`
  // becomes the exit status.
  void stop(std::string const& why, int status = 0);
  // What SIGHUP does: reads the configuration file again and applies what changed (static
  // policies, colors, sources, poll and slice settings; the platform, the socket and the
  // metrics address need a restart). A file that is not valid changes nothing. One "reload"
  // line says what happened.
  void reload();
  bool stopped() const { return !agent_; }

  boost::asio::io_context& io() { return io_; }
  // The host; null once stopped.
  SrTePolicy::SrTePolicyAgent* agent() { return agent_.get(); }
  EventLog& log() { return *log_; }
  std::vector<std::unique_ptr<SourceWatcher>> const& sources() const { return sources_; }
  DaemonOptions const& options() const { return options_; }
  // The metrics endpoint's address; none without one.
  std::optional<std::string> metricsAddress() const;

 private:
  void loadPlatform();
  void applyColors();
  // Applies the sources of `next` that differ from the running ones; says what changed.
  void applySources(DaemonOptions const& next, std::vector<std::string>& changes);
  void awaitSignal();
  void onSignal(int signal);
  void outputFailed(std::string const& why);
  void armPoll(bool soon);
  void pollSources();
  void flushSoon();
  void settleActivitySoon();

  // Shared with the handlers queued on the loop, which may outlive what they would call.
  struct Alive {
    AgentDaemon* daemon;
  };

  boost::asio::io_context& io_;
  // As given on the command line (read again with the file on reload), and as running.
  DaemonOptions const commandLine_;
  DaemonOptions options_;
  std::unique_ptr<SrTePolicy::SrTePolicyAgent> agent_;
  // What this host publishes of itself: whether policy processing runs (enabled from start()
  // until stop()), and the color to DSCP map, which the configuration front end would write
  // and which stays empty here. Served to readers with the pipeline's entities.
  Mosk::Ptr<SrTePolicy::Status> status_ = SrTePolicy::statusFactory("Status");
  Mosk::Ptr<SrTePolicy::ColorDscpMap> colorDscpMap_ =
      SrTePolicy::colorDscpMapFactory("ColorDscpMap");
  std::unique_ptr<EventLog> log_;
  std::unique_ptr<SrTeScenario::PlatformLoader> platform_;
  std::unique_ptr<Vell::AsioDriver> driver_;
  std::unique_ptr<PublishedFeed> feed_;
  // Serves the host's entities when a socket is given.
  std::unique_ptr<SrTeStateSync::StateServer> server_;
  std::vector<std::unique_ptr<SourceWatcher>> sources_;
  std::unique_ptr<AgentMetrics> metrics_;
  std::unique_ptr<MetricsServer> metricsServer_;
  ServiceNotifier notifier_;
  bool readyPending_ = true;
  boost::asio::steady_timer pollTimer_;
  boost::asio::signal_set signals_;
  std::shared_ptr<Alive> alive_;
  bool flushQueued_ = false;
  bool settleQueued_ = false;
  bool pollSoon_ = false;
  int exitStatus_ = 0;
};

}  // namespace SrTeDaemon
