// Building, running and stopping srte-agent's daemon.
#include "AgentDaemon.h"

#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <chrono>
#include <csignal>
#include <iostream>

#include "AgentConfig.h"
#include "Flicker/Flicker.h"
#include "ScenarioLoad.h"
#include "ScenarioReader.h"
#include "StateExplain.h"

namespace SrTeDaemon {

AgentDaemon::AgentDaemon(boost::asio::io_context& io, DaemonOptions options, std::ostream& out)
    : io_(io),
      commandLine_(std::move(options)),
      options_(commandLine_),
      notifier_(io),
      pollTimer_(io),
      signals_(io),
      alive_(std::make_shared<Alive>(Alive{this})) {
  // Caught from here on: a signal that comes while the platform loads waits for start().
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2})
    signals_.add(signal);
  if (commandLine_.config) {
    try {
      options_ = configuredOptions(commandLine_, *commandLine_.config);
    } catch (SrTeScenario::ScenarioError const& e) {
      throw PlatformError(e.what(), 2);
    }
  }
  if (options_.traceLevel >= 0) {
    Flicker::traceEnabledLevelsIs("*", (1u << (options_.traceLevel + 1)) - 1);
  }
  agent_ = std::make_unique<SrTePolicy::SrTePolicyAgent>(Vell::monotonicClockFactory());
  agent_->yieldPolicyIs(Vell::YieldPolicy::timeSlice(options_.sliceUs / 1e6));
  log_ = std::make_unique<EventLog>(out, agent_->clock());
  log_->onFailureIs([this](std::string const& why) { outputFailed(why); });
  loadPlatform();
  if (options_.config) {
    try {
      SrTeScenario::applyStaticConfig(*agent_,
                                      options_.staticConfig.value_or(SrTeScenario::StaticConfig()));
    } catch (Mosk::Exception const& e) {
      throw PlatformError(*options_.config + ": the static policies were refused: " + e.what(), 1);
    }
    applyColors();
  }
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
  if (options_.metrics) {
    metrics_ = std::make_unique<AgentMetrics>();
    try {
      metricsServer_ = std::make_unique<MetricsServer>(
          io_, metricsEndpoint(*options_.metrics),
          [this] { return metrics_->exposition(agent_.get(), sources_); }, MetricsServer::Limits{});
    } catch (std::runtime_error const& e) {
      throw PlatformError(e.what(), 1);
    }
  }
}

std::optional<std::string> AgentDaemon::metricsAddress() const {
  if (!metricsServer_) return std::nullopt;
  return endpointText(metricsServer_->local());
}

void AgentDaemon::applyColors() {
  SrTePolicy::ColorDscpMap& map = *colorDscpMap_;
  std::vector<SrTePolicy::Color> gone;
  for (auto it = map.colorToDscpIter(); it; ++it) {
    if (!options_.colorDscp.count(it.key().value())) gone.push_back(it.key());
  }
  for (SrTePolicy::Color const& c : gone)
    map.colorToDscpDel(c);
  for (auto const& [color, values] : options_.colorDscp) {
    Mosk::Ptr<SrTePolicy::DscpList> list = map.colorToDscpIs(SrTePolicy::Color(color));
    std::vector<Qos::Dscp> old;
    for (auto it = list->dscpIter(); it; ++it) {
      if (!values.count(it.key().value())) old.push_back(it.key());
    }
    for (Qos::Dscp const& d : old)
      list->dscpDel(d);
    for (U32 d : values)
      list->dscpIs(Qos::Dscp(static_cast<U8>(d)), true);
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
    sources.push_back({{"source", SrTePolicy::sourceName(s.source)}, {"table", s.table}});
  }
  f["sources"] = std::move(sources);
  f["pollMs"] = options_.pollMs;
  f["sliceUs"] = options_.sliceUs;
  f["config"] = options_.config ? OrderedJson(*options_.config) : OrderedJson(nullptr);
  f["metrics"] = metricsServer_ ? OrderedJson(*metricsAddress()) : OrderedJson(nullptr);

  driver_ = std::make_unique<Vell::AsioDriver>(io_, agent_->scheduler());
  feed_ = std::make_unique<PublishedFeed>(*agent_, *log_, [this] { flushSoon(); });
  if (metrics_) {
    feed_->onWrittenIs(
        [this](char const* event, OrderedJson const& before, OrderedJson const& after) {
          if (std::string_view(event) == "policy") metrics_->policyWritten(before, after);
          if (std::string_view(event) == "fec") metrics_->fecWritten(after, agent_->clock()->now());
        });
  }
  // The scheduler runs on the loop, not through the host: the activity is settled once the
  // loop has finished the chain of changes that marked it.
  agent_->activitySettleDueIs([this] { settleActivitySoon(); });
  for (SourceOption const& s : options_.sources)
    sources_.push_back(std::make_unique<SourceWatcher>(*agent_, *log_, s));

  awaitSignal();
  status_->agentEnabledIs(true);
  // The first look for the tables happens at once, after this line.
  log_->write("started", f);
  // The static policies were taken in before the loop runs: their FECs count from here.
  if (metrics_ && options_.staticConfig) metrics_->inputSeen(agent_->clock()->now());
  for (std::string const& problem : agent_->takeConfigProblems()) {
    OrderedJson p;
    p["error"] = problem;
    log_->write("error", p);
  }
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
  f["effect"] = options_.config ? "reload" : "none: no configuration file (--config)";
  log_->write("signal", f);
  if (!options_.config || !agent_) return;
  std::string const& file = *options_.config;
  notifier_.reloading("reloading " + file);
  OrderedJson r;
  r["file"] = file;
  DaemonOptions next;
  try {
    next = configuredOptions(commandLine_, file);
  } catch (SrTeScenario::ScenarioError const& e) {
    r["result"] = "refused";
    r["reason"] = e.what();
    log_->write("reload", r);
    notifier_.ready(std::string("running; reload refused: ") + e.what());
    return;
  }
  std::vector<std::string> changes, needsRestart;
  SrTeScenario::StaticConfig const before =
      options_.staticConfig.value_or(SrTeScenario::StaticConfig());
  SrTeScenario::StaticConfig const after = next.staticConfig.value_or(SrTeScenario::StaticConfig());
  std::vector<std::string> const policies = staticConfigChanges(before, after);
  changes.insert(changes.end(), policies.begin(), policies.end());
  if (next.colorDscp != options_.colorDscp) changes.push_back("color to DSCP map");
  if (next.pollMs != options_.pollMs) {
    changes.push_back("pollMs " + std::to_string(options_.pollMs) + " -> " +
                      std::to_string(next.pollMs));
  }
  if (next.sliceUs != options_.sliceUs) {
    changes.push_back("sliceUs " + std::to_string(options_.sliceUs) + " -> " +
                      std::to_string(next.sliceUs));
    agent_->yieldPolicyIs(Vell::YieldPolicy::timeSlice(next.sliceUs / 1e6));
  }
  if (next.stopOnOutputError != options_.stopOnOutputError) changes.push_back("stopOnOutputError");
  applySources(next, changes);
  // What the running process cannot change: kept as it is until a restart, and said so.
  auto const keep = [&](char const* key, auto const& running, auto& wanted) {
    if (running == wanted) return;
    needsRestart.push_back(key);
    wanted = running;
  };
  keep("platform", options_.platform, next.platform);
  keep("socket", options_.socket, next.socket);
  keep("socketGroup", options_.socketGroup, next.socketGroup);
  keep("maxReaders", options_.maxReaders, next.maxReaders);
  keep("metrics", options_.metrics, next.metrics);
  keep("maxPlatformBytes", options_.maxPlatformBytes, next.maxPlatformBytes);
  keep("trace", options_.traceLevel, next.traceLevel);
  options_ = std::move(next);
  r["result"] = "applied";
  try {
    // Only what differs is written: an unchanged policy keeps its candidate ids and nothing
    // downstream of it moves.
    if (!policies.empty()) {
      if (metrics_) metrics_->inputSeen(agent_->clock()->now());
      SrTeScenario::applyStaticConfig(*agent_, after);
    }
    applyColors();
  } catch (Mosk::Exception const& e) {
    r["error"] = e.what();
  }
  r["changes"] = changes;
  r["needsRestart"] = needsRestart;
  std::vector<std::string> const problems = agent_->takeConfigProblems();
  if (!problems.empty()) r["problems"] = problems;
  log_->write("reload", r);
  notifier_.ready(
      "running; reloaded " + file + ": " +
      (changes.empty() ? std::string("no changes") : std::to_string(changes.size()) + " changes"));
}

void AgentDaemon::applySources(DaemonOptions const& next, std::vector<std::string>& changes) {
  auto const same = [](SourceOption const& a, SourceOption const& b) {
    return a.source == b.source && a.table == b.table && a.user == b.user;
  };
  std::vector<std::unique_ptr<SourceWatcher>> kept;
  for (auto& watcher : sources_) {
    auto it = std::find_if(next.sources.begin(), next.sources.end(),
                           [&](SourceOption const& o) { return same(o, watcher->option()); });
    if (it != next.sources.end()) {
      kept.push_back(std::move(watcher));
      continue;
    }
    changes.push_back(std::string("source ") + SrTePolicy::sourceName(watcher->option().source) +
                      " " + watcher->option().table + ": no longer read");
    watcher->release();
  }
  sources_ = std::move(kept);
  for (SourceOption const& o : next.sources) {
    bool const running = std::any_of(sources_.begin(), sources_.end(),
                                     [&](auto const& w) { return same(o, w->option()); });
    if (running) continue;
    changes.push_back(std::string("source ") + SrTePolicy::sourceName(o.source) + " " + o.table +
                      ": read");
    sources_.push_back(std::make_unique<SourceWatcher>(*agent_, *log_, o));
  }
  if (next.pollMs != options_.pollMs) armPoll(true);
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
  // Nothing pending in the machines nor to write: what was taken in before now has published
  // all it would. (The scheduler itself may hold timers, such as ids waiting to be reused.)
  if (metrics_ && agent_->segmentListSm()->pendingSegmentListCount() == 0 &&
      agent_->policySelectionSm()->pendingPolicyIdCount() == 0 &&
      agent_->policyPublishSm()->pendingPolicyCount() == 0 && !feed_->flushPending()) {
    metrics_->inputSettled();
  }
  bool more = false;
  U64 taken = 0;
  for (auto& source : sources_) {
    U64 const before = source->changesTaken();
    more = source->poll() || more;
    taken += source->changesTaken() - before;
  }
  if (metrics_ && taken) metrics_->inputSeen(agent_->clock()->now());
  if (readyPending_) {
    // The start-up passes are done: the platform is loaded and every table there is attached.
    readyPending_ = false;
    U32 attached = 0;
    for (auto const& source : sources_)
      attached += source->attached() ? 1 : 0;
    notifier_.ready("running; " + std::to_string(attached) + " of " +
                    std::to_string(sources_.size()) + " source tables attached");
  }
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
    if (alive->daemon->metrics_) alive->daemon->metrics_->flushDone();
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
  notifier_.stopping("stopping: " + why);
  OrderedJson f;
  f["reason"] = why;
  log_->write("stopping", f);
  metricsServer_.reset();
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
