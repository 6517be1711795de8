// srte-show: mounts the state a running srte-agent serves on its Unix-domain socket and prints
// it in the readable form of srte-sim (policies, candidates and why each is or is not active,
// segment lists, tunnels, FECs, binding-SID routes), or as the same JSON as srte-sim's final
// state; once, or again after every change (--watch). See docs/show.md.
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>

#include "StateClient.h"
#include "StateRender.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitTrouble = 1;
constexpr int kExitNoAgent = 2;
// --watch prints at most this often.
constexpr double kMinPrintInterval = 0.25;
// How long the first state may go without a byte arriving before srte-show gives up.
constexpr double kDefaultTimeout = 5;

constexpr char const* kHelp = R"(usage: srte-show [options]

Mounts the state that a running srte-agent serves on its socket (a full snapshot, then every
change) and prints it: policies, their candidates and why each is or is not active, segment
lists with their tunnels and next hops, the policies' FECs and binding-SID routes.

options:
  --socket PATH   the agent's socket (default $XDG_RUNTIME_DIR/srte-agent.sock, or
                  /tmp/srte-agent.sock without XDG_RUNTIME_DIR)
  --watch         keep the state mounted and print it again after each change (at most four
                  times a second); reconnects when the agent restarts
  --json          print the state as JSON, the same document as srte-sim's final state
                  (without the simulated time)
  --timeout SECONDS
                  give up when the first state has received nothing for this long, 0.1 to
                  3600 (default 5): what listens does not speak the agent's protocol
  --help          this text

exit status:
  0  the state was printed (--watch: stopped by a signal)
  1  the connection broke before the state was complete, or the agent refused the reader
  2  bad usage, no agent listens on the socket, or what listens does not speak the protocol
)";

int usage(std::string const& problem) {
  std::cerr << "srte-show: " << problem << "\n(srte-show --help explains the usage)\n";
  return kExitNoAgent;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = SrTeStateSync::defaultSocketPath();
  bool watch = false;
  bool json = false;
  double timeout = kDefaultTimeout;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << kHelp;
      return kExitOk;
    } else if (arg == "--watch") {
      watch = true;
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--socket") {
      if (i + 1 >= argc) return usage("--socket needs a path");
      path = argv[++i];
    } else if (arg == "--timeout") {
      if (i + 1 >= argc) return usage("--timeout needs a number of seconds");
      std::string const text = argv[++i];
      char* end = nullptr;
      timeout = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !(timeout >= 0.1 && timeout <= 3600)) {
        return usage("--timeout: '" + text + "' is not a number of seconds from 0.1 to 3600");
      }
    } else {
      return usage("unknown argument " + arg);
    }
  }

  boost::asio::io_context io;
  SrTeStateSync::ClientOptions options;
  options.reconnect = watch;
  SrTeStateSync::StateClient client(io, path, options);
  int status = kExitOk;
  std::string lastPrinted;
  auto print = [&] {
    SrTeView::OrderedJson state = SrTeView::explainState(client.state().view(), false);
    std::string out;
    if (json) {
      out = state.dump(2) + "\n";
    } else {
      std::ostringstream os;
      SrTeView::renderTextState(os, state, "srte-agent at " + path);
      out = os.str();
    }
    if (out == lastPrinted) return;
    lastPrinted = out;
    std::cout << out << std::flush;
  };

  boost::asio::steady_timer throttle(io);
  // Until the first state is whole, a connection that receives nothing for `timeout` seconds
  // is not an agent's.
  boost::asio::steady_timer patience(io);
  U64 lastBytes = 0;
  auto giveUp = [&](std::string const& why) {
    std::cerr << "srte-show: what listens on " << path << " does not speak the agent's protocol ("
              << why << ")\n";
    status = kExitNoAgent;
    client.stop();
    throttle.cancel();
    patience.cancel();
  };
  std::function<void()> watchProgress = [&] {
    patience.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(timeout)));
    patience.async_wait([&](boost::system::error_code ec) {
      if (ec || client.synced()) return;
      if (client.bytesReceived() == lastBytes) {
        std::ostringstream why;
        why << "nothing received for " << timeout << " s";
        giveUp(why.str());
        return;
      }
      lastBytes = client.bytesReceived();
      watchProgress();
    });
  };
  bool printPending = false;
  auto lastPrint = std::chrono::steady_clock::now() - std::chrono::hours(1);
  std::string lastTrouble;
  client.onChangeIs([&] {
    lastTrouble.clear();
    patience.cancel();
    if (!watch) {
      print();
      client.stop();
      return;
    }
    if (printPending) return;
    printPending = true;
    auto due = lastPrint + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                               std::chrono::duration<double>(kMinPrintInterval));
    throttle.expires_at(std::max(due, std::chrono::steady_clock::now()));
    throttle.async_wait([&](boost::system::error_code ec) {
      if (ec) return;
      printPending = false;
      lastPrint = std::chrono::steady_clock::now();
      print();
    });
  });
  client.onTroubleIs([&](std::string const& why) {
    if (client.generation() == 0 && why.rfind("connect:", 0) == 0) {
      std::cerr << "srte-show: no agent listens on " << path << " (" << why << ")\n";
      status = kExitNoAgent;
      client.stop();
      throttle.cancel();
      patience.cancel();
      return;
    }
    if (client.generation() == 0 && why.rfind("frame refused:", 0) == 0) {
      giveUp(why);
      return;
    }
    if (!watch) {
      std::cerr << "srte-show: " << why << "\n";
      status = kExitTrouble;
      patience.cancel();
      return;
    }
    // While the agent is away every retry fails the same way: say it once.
    if (why != lastTrouble) std::cerr << "srte-show: " << why << "; reconnecting\n";
    lastTrouble = why;
  });
  client.start();
  watchProgress();
  io.run();
  return status;
}
