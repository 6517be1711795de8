// What readers of the state socket cost srte-agent, measured on the agent's process (a program,
// not a Google Benchmark: the daemon runs in another process):
//   - the resident memory that READERS readers add when they connect and never read (each has
//     the whole state queued for it);
//   - the CPU time (user and system, from /proc/PID/stat) of CYCLES readers that connect and
//     close at once, three rounds, the median printed.
//
//   StateReaders [--agent PATH] [--policies N] [--readers N] [--cycles N] [-- AGENT-ARGS...]
//
// The agent reads one table of N candidate paths (default 20000) over the first example's
// platform; AGENT-ARGS go to it as they are (an agent with a reader limit needs one above
// READERS: -- --max-readers 256). Prints one line per figure and one JSON line with them all.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "SrTePolicy/SrTePolicyInputShm.h"

using namespace SrTePolicy;
using Clock = std::chrono::steady_clock;

namespace {

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

long residentKb(pid_t pid) {
  std::istringstream in(slurp("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

double cpuSeconds(pid_t pid) {
  std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream in(stat.substr(stat.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && in >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return double(utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

int connectTo(std::string const& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads one reader's whole state, to its ready frame; returns its bytes (0 when the agent
// refused or closed).
std::size_t readState(std::string const& socket) {
  int fd = connectTo(socket);
  if (fd < 0) return 0;
  std::size_t bytes = 0;
  std::vector<unsigned char> body;
  for (unsigned char h[8]; ::recv(fd, h, 8, MSG_WAITALL) == 8;) {
    std::size_t const n =
        std::size_t(h[0]) << 24 | std::size_t(h[1]) << 16 | std::size_t(h[2]) << 8 | h[3];
    body.resize(n);
    if (n > 0 && ::recv(fd, body.data(), n, MSG_WAITALL) != static_cast<ssize_t>(n)) break;
    bytes += 8 + n;
    if (h[6] == 3) {  // ready
      ::close(fd);
      return bytes;
    }
  }
  ::close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string agentPath = SRTE_AGENT;
  U32 policies = 20000, readers = 200, cycles = 300;
  std::vector<std::string> agentArgs;
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    if (a == "--") {
      agentArgs.assign(argv + i + 1, argv + argc);
      break;
    }
    if (i + 1 >= argc) {
      std::cerr << "usage: StateReaders [--agent PATH] [--policies N] [--readers N] [--cycles N]"
                   " [-- AGENT-ARGS...]\n";
      return 2;
    }
    if (a == "--agent")
      agentPath = argv[++i];
    else if (a == "--policies")
      policies = static_cast<U32>(std::stoul(argv[++i]));
    else if (a == "--readers")
      readers = static_cast<U32>(std::stoul(argv[++i]));
    else if (a == "--cycles")
      cycles = static_cast<U32>(std::stoul(argv[++i]));
  }
  std::string const table = "srte-bench-readers-" + std::to_string(::getpid());
  std::string const socket = "/tmp/" + table + ".sock";
  {
    Skerry::ShmTableOptions options;
    options.capacity = policies;
    PolicyInputShmWriter writer(table, options);
    for (U32 i = 1; i <= policies; ++i) {
      PolicyInputEntry e(PolicyId::make(PolicySource::sourceBgp, i));
      e.endpointIs(Ludd::IpAddr::fromU32(0x0a000000 + i));
      e.colorIs(Color(100));
      e.bindingSidIs(Ludd::MplsLabel(100000 + i));
      e.segmentListPush(WeightedSegList(Weight(1), Ludd::MplsLabelOperation{16002, 20000 + i}));
      e.segmentListPush(WeightedSegList(Weight(2), Ludd::MplsLabelOperation{16003, 30000 + i}));
      writer.put(e);
    }
  }
  int out[2];
  if (::pipe(out) != 0) return 1;
  pid_t agent = ::fork();
  if (agent == 0) {
    ::dup2(out[1], 1);
    ::close(out[0]);
    std::vector<std::string> args = {
        agentPath,  "--platform", SRTE_EXAMPLES "/01-two-sources.json", "--source", "bgp=" + table,
        "--socket", socket};
    args.insert(args.end(), agentArgs.begin(), agentArgs.end());
    std::vector<char*> argv2;
    for (std::string& a : args)
      argv2.push_back(a.data());
    argv2.push_back(nullptr);
    ::execv(agentPath.c_str(), argv2.data());
    ::_exit(127);
  }
  ::close(out[1]);
  // Every policy published: its line read.
  {
    FILE* lines = ::fdopen(out[0], "r");
    char line[4096];
    U32 seen = 0;
    while (seen < policies && std::fgets(line, sizeof line, lines) != nullptr)
      seen += std::string(line).find("\"event\":\"policy\"") != std::string::npos;
    if (seen < policies) {
      std::cerr << "the agent published " << seen << " of " << policies << " policies\n";
      return 1;
    }
    // The rest of its lines, read off so that the agent never waits on the pipe.
    std::thread([lines] {
      char rest[4096];
      while (std::fgets(rest, sizeof rest, lines) != nullptr) {
      }
    }).detach();
  }

  std::size_t const snapshot = readState(socket);
  long const before = residentKb(agent);
  std::vector<int> stalled;
  for (U32 i = 0; i < readers; ++i)
    stalled.push_back(connectTo(socket));
  // Served in order: once this one has its state, every stalled reader has had its own queued.
  readState(socket);
  long const withReaders = residentKb(agent);
  for (int fd : stalled)
    ::close(fd);
  readState(socket);

  std::vector<double> perCycle;
  for (int round = 0; round < 3; ++round) {
    double const cpu0 = cpuSeconds(agent);
    auto const t0 = Clock::now();
    for (U32 i = 0; i < cycles; ++i) {
      int fd = connectTo(socket);
      if (fd >= 0) ::close(fd);
    }
    readState(socket);
    double const cpu = cpuSeconds(agent) - cpu0;
    double const wall = std::chrono::duration<double>(Clock::now() - t0).count();
    perCycle.push_back(cpu / cycles);
    std::printf("round %d: %u connect-and-close cycles, agent CPU %.3f s, wall %.3f s\n", round + 1,
                cycles, cpu, wall);
  }
  std::sort(perCycle.begin(), perCycle.end());
  long const after = residentKb(agent);
  ::kill(agent, SIGTERM);
  ::waitpid(agent, nullptr, 0);
  Skerry::shmTableRemove(table);

  std::printf("snapshot: %.1f MB (%u policies)\n", snapshot / 1e6, policies);
  std::printf(
      "resident: %.1f MB before, %.1f MB with %u stalled readers (+%.1f MB), %.1f MB at "
      "the end\n",
      before / 1024.0, withReaders / 1024.0, readers, (withReaders - before) / 1024.0,
      after / 1024.0);
  std::printf("connect and close: %.2f ms of agent CPU per cycle (median of 3 rounds of %u)\n",
              perCycle[1] * 1e3, cycles);
  nlohmann::ordered_json j = {{"policies", policies},
                              {"snapshotBytes", snapshot},
                              {"readers", readers},
                              {"residentKbBefore", before},
                              {"residentKbWithReaders", withReaders},
                              {"cycles", cycles},
                              {"cpuMsPerCycle", perCycle[1] * 1e3}};
  std::printf("%s\n", j.dump().c_str());
  return 0;
}
