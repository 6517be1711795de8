// Test helpers for the daemon run as a process: srte-agent as a child whose standard output the
// test reads line by line and whose standard error it keeps, a socket to the agent, and the
// agent's resident memory. Every wait is bounded; the child-process basics are in ChildProcess.h.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestTable.h"

namespace AgentTesting {

using TestSupport::awaitEnd;
using TestSupport::eventually;
using TestSupport::exitStatus;
using TestSupport::Outcome;
using TestSupport::runProgram;
using TestSupport::slurp;
using TestSupport::spawn;
using TestSupport::testName;
using TestSupport::TestTable;

using OrderedJson = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The resident memory of a process in KiB (VmRSS); -1 once it is gone.
inline long residentKb(pid_t pid) {
  std::istringstream in(slurp("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// A stream socket connected to `path` (non-blocking when asked), or -1.
inline int connectTo(std::string const& path, bool nonBlocking = false) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | (nonBlocking ? SOCK_NONBLOCK : 0), 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
  ::close(fd);
  return -1;
}

// srte-agent as a child: its standard output and standard error on pipes the test reads.
class AgentProcess {
 public:
  explicit AgentProcess(std::vector<std::string> args, mode_t umask = 022) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe");
    pid_ = spawn(SRTE_AGENT, std::move(args), out[1], err[1], umask);
    ::close(out[1]);
    ::close(err[1]);
    fd_ = out[0];
    errFd_ = err[0];
  }
  ~AgentProcess() {
    if (!ended_) terminate(SIGKILL);
    closeOutput();
    ::close(errFd_);
  }

  pid_t pid() const { return pid_; }
  // Stops reading the agent's standard output: its next write fails.
  void closeOutput() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // What the agent has written on standard error so far.
  std::string err() {
    char chunk[4096];
    for (pollfd p{errFd_, POLLIN, 0}; ::poll(&p, 1, 0) == 1;) {
      ssize_t n = ::read(errFd_, chunk, sizeof chunk);
      if (n <= 0) break;
      err_.append(chunk, static_cast<std::size_t>(n));
    }
    return err_;
  }
  // Whether the process still runs after at most `timeout` (it is reaped once it has ended,
  // its exit status in status()).
  bool alive(milliseconds timeout = milliseconds(0)) {
    if (ended_ || (timeout.count() > 0 && !awaitEnd(pid_, timeout))) return !ended_;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == 0) return true;
    ended_ = true;
    status_ = exitStatus(status);
    return false;
  }
  int status() const { return status_; }
  // Sends `signal` and returns the exit status once the process has ended.
  int terminate(int signal = SIGTERM) {
    if (!ended_) {
      ::kill(pid_, signal);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      ended_ = true;
      status_ = exitStatus(status);
    }
    return status_;
  }

  // The next line, or null at the end of the output or after `timeout`.
  OrderedJson next(milliseconds timeout = milliseconds(20000)) {
    auto const deadline = Clock::now() + timeout;
    for (;;) {
      if (std::size_t nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return OrderedJson::parse(line);
      }
      auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
      pollfd p{fd_, POLLIN, 0};
      if (left.count() <= 0 || fd_ < 0) return nullptr;
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[4096];
      ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n <= 0) return nullptr;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }
  // Reads lines until one with event `event`; the lines on the way are returned too (an empty
  // object last when that line does not come).
  std::vector<OrderedJson> until(std::string const& event) {
    std::vector<OrderedJson> seen;
    for (OrderedJson l = next(); !l.is_null(); l = next()) {
      seen.push_back(l);
      if (l["event"] == event) return seen;
    }
    ADD_FAILURE() << "no \"" << event << "\" line in time; standard error: " << err();
    seen.push_back(OrderedJson::object());  // so that back() is there to look at
    return seen;
  }
  // Reads lines of published state up to and including the first that `done` accepts.
  std::vector<OrderedJson> published(std::function<bool(OrderedJson const&)> const& done) {
    std::vector<OrderedJson> out;
    for (OrderedJson l = next(); !l.is_null(); l = next()) {
      if (!l.contains("change")) continue;
      out.push_back(l);
      if (done(l)) return out;
    }
    ADD_FAILURE() << "the awaited line did not come after " << out.size()
                  << " lines of published state; standard error: " << err();
    return out;
  }
  // Reads lines until `count` lines of published state have come.
  std::vector<OrderedJson> published(std::size_t count) {
    return published([&](OrderedJson const&) { return --count == 0; });
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int errFd_ = -1;
  bool ended_ = false;
  int status_ = -1;
  std::string err_;
  std::string buffer_;
};

}  // namespace AgentTesting
