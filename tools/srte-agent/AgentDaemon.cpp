// Building, running and stopping srte-agent's daemon.
#include "AgentDaemon.h"

#include <unistd.h>

#include <boost/asio/post.hpp>
#include <chrono>
#include <csignal>
#include <iostream>

#include "Flicker/Flicker.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"

namespace SrTeDaemon {

AgentDaemon::AgentDaemon(boost::asio::io_context& io, DaemonOptions options, std::ostream& out)
    : io_(io),
      options_(std::move(options)),
      pollTimer_(io),
      signals_(io),
      alive_(std::make_shared<Alive>(Alive{this})) {
  // Caught from here on: a signal that comes while the platform loads waits for start().
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2})
    signals_.add(signal);
  if (options_.traceLevel >= 0) {
    Flicker::traceEnabledLevelsIs("*", (1u << (options_.traceLevel + 1)) - 1);
  }
  agent_ = std::make_unique<SrTePolicy::SrTePolicyAgent>(Vell::monotonicClockFactory());
  agent_->yieldPolicyIs(Vell::YieldPolicy::timeSlice(options_.sliceUs / 1e6));
  log_ = std::make_unique<EventLog>(out, agent_->clock());
  log_->onFailureIs([this](std::string const& why) { outputFailed(why); });
  loadPlatform();
  if (options_.socket) {
    SrTeStateSync::ServerOptions serverOptions;
    serverOptions.maxReaders = options_.maxReaders;
    serverOptions.socketGroup = options_.socketGroup;
    try {
      server_ = std::make_unique<SrTeStateSync::StateServer>(
          io_, *options_.socket, SrTeStateSync::servedStateOf(*agent_, status_, colorDscpMap_),
          serverOptions);
    } catch (std::runtime_error const& e) {
      throw PlatformError(std::string("state socket: ") + e.what(), 1);
    }
  }
}

AgentDaemon::~AgentDaemon() {
  alive_->daemon = nullptr;
  if (agent_) {
    // Torn down without the lines: the owner chose not to stop().
    server_.reset();
    feed_.reset();
    driver_.reset();
    agent_.reset();
  }
}

void AgentDaemon::loadPlatform() {
  std::optional<std::string> const& file =
      options_.scenario ? options_.scenario : options_.platform;
  if (!file) return;
  SrTeScenario::Scenario scenario;
  try {
    scenario = SrTeScenario::readScenarioFile(*file, options_.maxPlatformBytes);
  } catch (SrTeScenario::ScenarioError const& e) {
    throw PlatformError(e.what(), 2);
  }
  platform_ = std::make_unique<SrTeScenario::PlatformLoader>(
      agent_->mplsStatus(), agent_->forwardingStatus(), agent_->forwarding6Status(),
      scenario.ceiling);
  try {
    platform_->apply(scenario.platform);
  } catch (Mosk::Exception const& e) {
    throw PlatformError(*file + ": the platform was refused: " + e.what(), 1);
  }
  if (!options_.scenario) return;
  // The scenario's configuration and sources, as srte-sim loads them before its first step.
  try {
    if (scenario.hasConfig) SrTeScenario::applyStaticConfig(*agent_, scenario.config);
    for (SrTeScenario::SourceTable const& t : scenario.sources)
      SrTeScenario::attachSourceTable(*agent_, t);
  } catch (Mosk::Exception const& e) {
    throw PlatformError(*file + ": the scenario's inputs were refused: " + e.what(), 1);
  }
}

void AgentDaemon::start() {
  OrderedJson f;
  f["pid"] = static_cast<S64>(::getpid());
  f["platform"] = options_.platform ? OrderedJson(*options_.platform) : OrderedJson(nullptr);
  OrderedJson sources = OrderedJson::array();
  for (SourceOption const& s : options_.sources) {
    sources.push_back({{"source", SrTeScenario::sourceName(s.source)}, {"table", s.table}});
  }
  f["sources"] = std::move(sources);
  f["pollMs"] = options_.pollMs;
  f["sliceUs"] = options_.sliceUs;

  driver_ = std::make_unique<Vell::AsioDriver>(io_, agent_->scheduler());
  feed_ = std::make_unique<PublishedFeed>(*agent_, *log_, [this] { flushSoon(); });
  // The scheduler runs on the loop, not through the host: the activity is settled once the
  // loop has finished the chain of changes that marked it.
  agent_->activitySettleDueIs([this] { settleActivitySoon(); });
  for (SourceOption const& s : options_.sources)
    sources_.push_back(std::make_unique<SourceWatcher>(*agent_, *log_, s));

  awaitSignal();
  status_->agentEnabledIs(true);
  // The first look for the tables happens at once, after this line.
  log_->write("started", f);
  armPoll(true);
}

void AgentDaemon::awaitSignal() {
  signals_.async_wait([alive = alive_](boost::system::error_code const& ec, int signal) {
    if (ec || !alive->daemon) return;
    alive->daemon->onSignal(signal);
  });
}

void AgentDaemon::onSignal(int signal) {
  switch (signal) {
    case SIGINT:
      stop("SIGINT");
      return;
    case SIGTERM:
      stop("SIGTERM");
      return;
    case SIGHUP:
      reload();
      break;
    default: {
      OrderedJson f;
      f["signal"] = signal == SIGUSR1 ? "SIGUSR1" : "SIGUSR2";
      f["effect"] = "none";
      log_->write("signal", f);
    }
  }
  awaitSignal();
}

void AgentDaemon::reload() {
  OrderedJson f;
  f["signal"] = "SIGHUP";
  f["effect"] = "none: the command line is read once, at start";
  log_->write("signal", f);
}

void AgentDaemon::outputFailed(std::string const& why) {
  std::cerr << "srte-agent: standard output failed (" << why << "); "
            << (options_.stopOnOutputError ? "stopping" : "going on without writing the lines")
            << std::endl;
  if (!options_.stopOnOutputError) return;
  // Not from inside the write that failed: the caller may be halfway through the pipeline.
  boost::asio::post(io_, [alive = alive_, why] {
    if (alive->daemon) alive->daemon->stop("standard output failed: " + why, 1);
  });
}

void AgentDaemon::armPoll(bool soon) {
  if (soon) {
    if (pollSoon_) return;
    pollSoon_ = true;
    boost::asio::post(io_, [alive = alive_] {
      if (!alive->daemon) return;
      alive->daemon->pollSoon_ = false;
      alive->daemon->pollSources();
    });
    return;
  }
  pollTimer_.expires_after(std::chrono::milliseconds(options_.pollMs));
  pollTimer_.async_wait([alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->daemon) return;
    alive->daemon->pollSources();
  });
}

void AgentDaemon::pollSources() {
  if (!agent_) return;
  bool more = false;
  for (auto& source : sources_)
    more = source->poll() || more;
  // The timer keeps its period; changes left over are taken up again as soon as the loop has
  // let its other handlers (the scheduler's tasks, the feed) run.
  if (more) armPoll(true);
  if (pollTimer_.expiry() <= std::chrono::steady_clock::now()) armPoll(false);
}

void AgentDaemon::flushSoon() {
  if (flushQueued_) return;
  flushQueued_ = true;
  boost::asio::post(io_, [alive = alive_] {
    if (!alive->daemon || !alive->daemon->feed_) return;
    alive->daemon->flushQueued_ = false;
    alive->daemon->feed_->flush();
  });
}

void AgentDaemon::settleActivitySoon() {
  if (settleQueued_) return;
  settleQueued_ = true;
  boost::asio::post(io_, [alive = alive_] {
    if (!alive->daemon || !alive->daemon->agent_) return;
    alive->daemon->settleQueued_ = false;
    alive->daemon->agent_->settleActivity();
  });
}

int AgentDaemon::run() {
  for (;;) {
    try {
      io_.run();
      return exitStatus_;
    } catch (Mosk::Exception const& e) {
      OrderedJson f;
      f["error"] = e.what();
      log_->write("error", f);
      // A task that raised left the scheduler's timer unarmed: arm it for what is still due.
      if (driver_) driver_->onEarliestDueTime();
    } catch (std::exception const& e) {
      // Not an error of the pipeline's input: the daemon cannot tell what state it left, so it
      // stops in order rather than go on.
      std::cerr << "srte-agent: " << e.what() << std::endl;
      OrderedJson f;
      f["error"] = e.what();
      log_->write("error", f);
      stop(std::string("error: ") + e.what(), 1);
      return exitStatus_;
    }
  }
}

void AgentDaemon::stop(std::string const& why, int status) {
  if (!agent_) return;
  exitStatus_ = status;
  OrderedJson f;
  f["reason"] = why;
  log_->write("stopping", f);
  status_->agentEnabledIs(false);
  pollTimer_.cancel();
  signals_.cancel();
  // What teardown wipes is not a change of what the router forwards: no lines for it.
  if (feed_) {
    feed_->flush();
    feed_->detach();
  }
  feed_.reset();
  // Readers keep the last state they got; what teardown wipes is not sent to them.
  server_.reset();
  driver_.reset();
  // The host tears its machines down in reverse build order; then the tables are let go.
  agent_.reset();
  sources_.clear();
  platform_.reset();
  log_->write("stopped");
  io_.stop();
}

}  // namespace SrTeDaemon
