// AgentLatency: the delay from a source's write into its table to srte-agent's JSON line for
// it. Starts srte-agent on a fresh table with the first example's platform, then, one write at
// a time, gives one candidate path a new binding SID and waits for the "policy" line that shows
// it, after a random pause of up to 20 ms (so that writes fall at any phase of the daemon's
// poll timer rather than locked to it). The delay is the line's "t" minus the time of the write:
// both are the machine's steady clock, which the daemon's clock reads too. Prints the median, the
// 99th percentile and the extremes; the daemon's publish window (50 ms after the first change of a
// burst) and its poll period are in every figure.
//
//   AgentLatency [WRITES [POLL_MS]]        (default 300 writes, the daemon's default poll)
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "SrTePolicy/SrTePolicyInputShm.h"

using namespace SrTePolicy;
using Json = nlohmann::json;

namespace {

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Daemon {
 public:
  explicit Daemon(std::vector<std::string> args) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) std::exit(1);
    pid_ = TestSupport::spawn(SRTE_AGENT, std::move(args), fds[1], 2);
    ::close(fds[1]);
    fd_ = fds[0];
  }
  ~Daemon() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    ::close(fd_);
  }
  // The next line; exits the program when none comes within five seconds.
  Json next() {
    for (;;) {
      if (std::size_t nl = buffer_.find('\n'); nl != std::string::npos) {
        Json line = Json::parse(buffer_.substr(0, nl));
        buffer_.erase(0, nl + 1);
        return line;
      }
      pollfd p{fd_, POLLIN, 0};
      char chunk[4096];
      ssize_t n = ::poll(&p, 1, 5000) == 1 ? ::read(fd_, chunk, sizeof chunk) : 0;
      if (n <= 0) {
        std::fprintf(stderr, "AgentLatency: srte-agent went quiet\n");
        std::exit(1);
      }
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }
  // The time of the policy line that shows `bsid`.
  double policyWith(U32 bsid) {
    for (;;) {
      Json l = next();
      if (l["event"] == "policy" && l["bindingSid"] == bsid) return l["t"].get<double>();
    }
  }

 private:
  pid_t pid_;
  int fd_;
  std::string buffer_;
};

}  // namespace

int main(int argc, char** argv) {
  int const writes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
  std::string const table = "srte-latency-" + std::to_string(::getpid());
  Skerry::shmTableRemove(table);
  std::vector<std::string> args = {"--platform", SRTE_EXAMPLES "/01-two-sources.json", "--source",
                                   "bgp=" + table};
  if (argc > 2) args.insert(args.end(), {"--poll-ms", argv[2]});
  std::vector<double> delays;
  {
    PolicyInputShmWriter writer(table);
    Daemon daemon(args);
    PolicyInputEntry e(PolicyId::make(PolicySource::sourceBgp, 1));
    e.endpointIs(Ludd::IpGenAddr::parse("192.0.2.1"));
    e.colorIs(Color(100));
    e.segmentListPush(WeightedSegList(Weight(1), Ludd::MplsLabelOperation{16002, 16009}));
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pauseUs(0, 20000);
    for (int i = 0; i <= writes; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(random)));
      U32 const bsid = 800000 + static_cast<U32>(i);
      e.bindingSidIs(Ludd::MplsLabel(bsid));
      double const written = now();
      writer.put(e);
      double const shown = daemon.policyWith(bsid);
      if (i > 0) delays.push_back(shown - written);  // the first waits for the attach
    }
  }
  Skerry::shmTableRemove(table);
  std::sort(delays.begin(), delays.end());
  auto at = [&delays](double q) {
    return delays[std::min(delays.size() - 1, static_cast<std::size_t>(q * delays.size()))];
  };
  std::printf("writes %zu  median %.2f ms  p99 %.2f ms  min %.2f ms  max %.2f ms\n", delays.size(),
              at(0.5) * 1e3, at(0.99) * 1e3, delays.front() * 1e3, delays.back() * 1e3);
  return 0;
}
