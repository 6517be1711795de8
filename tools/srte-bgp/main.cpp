// srte-bgp: the BGP source. Receives SR Policy candidate paths from BGP peers and writes them
// into the BGP source's input table in shared memory, where srte-agent reads them. One JSON line
// per event on standard output. See docs/bgp.md and `srte-bgp --help`.
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <csignal>
#include <iostream>

#include "BgpEventLines.h"
#include "BgpSpeaker.h"
#include "Vell/Clock.h"

namespace {

char const* const usage = R"(usage: srte-bgp CONFIG.json
       srte-bgp --check CONFIG.json

Receives SR Policy candidate paths (SAFI 73) from the BGP peers of the configuration and writes
them into the BGP source's input table in shared memory (/dev/shm/TABLE, default srte-bgp),
which srte-agent reads. At start it deletes what an earlier run left in the table; a path leaves
the table when its peer withdraws it or its session goes down. One JSON line per event on
standard output; SIGINT or SIGTERM close the sessions (NOTIFICATION cease) and stop.

  --check   reads and checks the configuration, prints what it says and exits
  --help    this text

Configuration (JSON):
  {"localAs": 65000, "bgpIdentifier": "10.0.0.1",
   "listenAddress": "0.0.0.0", "listenPort": 179, "table": "srte-bgp", "capacity": 16384,
   "peers": [{"address": "192.0.2.2", "port": 179, "as": 65000, "passive": false,
              "holdTime": 90, "connectRetry": 5}]}
  Required: localAs, bgpIdentifier, peers, and each peer's address and as. listenPort null
  listens nowhere; 0 lets the system pick a port (the started line says which). A passive peer
  is waited for; an active one is also dialled.

Exit status: 0 after SIGINT or SIGTERM (or a good --check), 1 when the table or the listening
socket could not be had, 2 for bad usage or a configuration that is not valid (the message names
the file, the JSON path and the reason).
)";

SrTeDaemon::OrderedJson describe(SrTeBgp::SpeakerConfig const& c, std::optional<U16> port) {
  SrTeDaemon::OrderedJson f;
  f["localAs"] = c.localAs;
  f["bgpIdentifier"] = Mosk::valueToStrep(c.bgpIdentifier);
  f["table"] = c.table;
  if (c.listenPort) {
    f["listen"] = {{"address", Mosk::valueToStrep(c.listenAddress)},
                   {"port", port ? *port : *c.listenPort}};
  } else {
    f["listen"] = nullptr;
  }
  SrTeDaemon::OrderedJson peers = SrTeDaemon::OrderedJson::array();
  for (auto const& p : c.peers) {
    peers.push_back({{"address", Mosk::valueToStrep(p.address)},
                     {"port", p.port},
                     {"as", p.as},
                     {"passive", p.passive},
                     {"holdTime", p.holdTime}});
  }
  f["peers"] = std::move(peers);
  return f;
}

int run(SrTeBgp::SpeakerConfig config, std::string const& file) {
  boost::asio::io_context io;
  SrTeDaemon::EventLog log(std::cout, Vell::monotonicClockFactory());
  std::optional<SrTeBgp::BgpInputTable> table;
  try {
    Skerry::ShmTableOptions options;
    options.capacity = config.capacity;
    options.ringSize = std::min<U32>(config.capacity, 65536);
    table.emplace(config.table, options);
  } catch (Mosk::Exception const& e) {
    std::cerr << "srte-bgp: table '" << config.table << "': " << e.what() << "\n";
    return 1;
  }
  SrTeBgpTool::BgpEventLines lines(log);
  SrTeBgp::BgpSpeaker speaker(io, config, *table, lines);
  try {
    speaker.start();
  } catch (boost::system::system_error const& e) {
    std::cerr << "srte-bgp: cannot listen on " << Mosk::valueToStrep(config.listenAddress)
              << " port " << *config.listenPort << ": " << e.code().message() << "\n";
    return 1;
  }
  SrTeDaemon::OrderedJson f;
  f["pid"] = static_cast<S64>(::getpid());
  f["config"] = file;
  SrTeDaemon::OrderedJson const described = describe(speaker.config(), speaker.listenPort());
  for (auto const& [key, value] : described.items())
    f[key] = value;
  f["cleared"] = table->cleared();
  log.write("started", f);

  boost::asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](boost::system::error_code const& ec, int signal) {
    if (ec) return;
    log.write("stopping", {{"reason", signal == SIGINT ? "SIGINT" : "SIGTERM"}});
    speaker.stop([&] {
      log.write("stopped");
      io.stop();
    });
  });
  io.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  bool check = false;
  std::string file;
  for (std::string const& a : args) {
    if (a == "--help") {
      std::cout << usage;
      return 0;
    }
    if (a == "--check") {
      check = true;
    } else if (a.rfind("--", 0) == 0) {
      std::cerr << "srte-bgp: unknown option '" << a << "'\n(srte-bgp --help explains the usage)\n";
      return 2;
    } else if (!file.empty()) {
      std::cerr << "srte-bgp: one configuration file, not '" << file << "' and '" << a << "'\n";
      return 2;
    } else {
      file = a;
    }
  }
  if (file.empty()) {
    std::cerr << usage;
    return 2;
  }
  SrTeBgp::SpeakerConfig config;
  try {
    config = SrTeBgp::readConfigFile(file);
  } catch (SrTeBgp::ConfigError const& e) {
    std::cerr << "srte-bgp: " << e.what() << "\n";
    return 2;
  }
  if (check) {
    std::cout << file << ": valid: " << describe(config, std::nullopt).dump() << "\n";
    return 0;
  }
  return run(std::move(config), file);
}
