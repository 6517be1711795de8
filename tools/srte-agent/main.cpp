// srte-agent: the reference daemon. Reads the sources' tables in shared memory, runs the SR-TE
// policy pipeline on an event loop and prints one JSON line per change of what it publishes.
// See docs/agent.md and `srte-agent --help`.
#include <boost/asio/io_context.hpp>
#include <csignal>
#include <iostream>

#include "AgentConfig.h"
#include "AgentDaemon.h"
#include "ScenarioReader.h"

namespace {

// --check FILE: the file and the platform it names, read and checked as a start would.
int checkConfig(SrTeDaemon::DaemonOptions const& options) {
  std::string const& file = *options.check;
  try {
    SrTeDaemon::DaemonOptions const o = SrTeDaemon::configuredOptions(options, file);
    if (o.platform) (void)SrTeScenario::readScenarioFile(*o.platform, o.maxPlatformBytes);
    std::cout << "srte-agent: " << file << ": good: " << SrTeDaemon::configSummary(o) << "\n";
    return 0;
  } catch (SrTeScenario::ScenarioError const& e) {
    std::cerr << "srte-agent: " << e.what() << "\n";
    return 2;
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace SrTeDaemon;
  // A reader of standard output or of the socket that goes away is an error of that write, not
  // the end of the daemon.
  std::signal(SIGPIPE, SIG_IGN);
  DaemonOptions options;
  try {
    options = parseDaemonOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (UsageError const& e) {
    std::cerr << "srte-agent: " << e.what() << "\n(srte-agent --help explains the usage)\n";
    return 2;
  }
  if (options.help) {
    std::cout << daemonUsage;
    return 0;
  }
  if (options.check) return checkConfig(options);
  try {
    boost::asio::io_context io;
    AgentDaemon daemon(io, std::move(options), std::cout);
    daemon.start();
    return daemon.run();
  } catch (PlatformError const& e) {
    std::cerr << "srte-agent: " << e.what() << "\n";
    return e.status();
  } catch (std::exception const& e) {
    std::cerr << "srte-agent: " << e.what() << "\n";
    return 1;
  }
}
