// Test helpers for child processes, the one place tests fork: a body run in a forked child
// (a second writer or reader of a shared table, a source that is killed mid-write), a program
// run in a child (the tools end to end), bounded waits for either, and their exit statuses.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace TestSupport {

using std::chrono::milliseconds;

inline std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The exit code of a wait status, or minus the signal that ended the process.
inline int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Reaps child `pid` and returns exitStatus() of it.
inline int reap(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return exitStatus(status);
}

// Runs `body()` in a forked child. Nothing leaves the child but its exit status: 0 when the
// body returns, 99 when it throws (the test run never goes on in the child).
template <class F>
pid_t forkChild(F&& body) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  try {
    body();
  } catch (...) {
    ::_exit(99);
  }
  ::_exit(0);
}

// forkChild() for a body that says when it has started: `body(ready)` calls `ready()` once it
// holds what the test waits for; this returns only after that (or after the child has ended).
template <class F>
pid_t forkChildReady(F&& body) {
  int ready[2];
  if (::pipe(ready) != 0) return -1;
  pid_t pid = forkChild([&] {
    ::close(ready[0]);
    body([&] { (void)!::write(ready[1], "x", 1); });
  });
  ::close(ready[1]);
  char c;
  (void)!::read(ready[0], &c, 1);
  ::close(ready[0]);
  return pid;
}

// Waits at most `timeout` for child `pid` to end (without reaping it); true when it has.
inline bool awaitEnd(pid_t pid, milliseconds timeout) {
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  pollfd p{pidfd, POLLIN, 0};
  bool const ended = pidfd >= 0 && ::poll(&p, 1, static_cast<int>(timeout.count())) == 1;
  if (pidfd >= 0) ::close(pidfd);
  return ended;
}

// Asks `done` every 20 ms until it holds, for at most `timeout`; whether it came to hold.
template <class F>
bool eventually(F const& done, milliseconds timeout) {
  for (auto const end = std::chrono::steady_clock::now() + timeout; !done();) {
    if (std::chrono::steady_clock::now() >= end) return false;
    ::poll(nullptr, 0, 20);
  }
  return true;
}

// Forks and runs `program` with `args`, standard output and error on `out` and `err`.
inline pid_t spawn(char const* program, std::vector<std::string> args, int out, int err,
                   mode_t umask = 022) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::dup2(out, 1);
  ::dup2(err, 2);
  ::umask(umask);
  std::vector<char*> argv{const_cast<char*>(program)};
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  ::execv(program, argv.data());
  ::_exit(127);
}

struct Outcome {
  int status = -1;  // the exit code, or minus the signal that ended the program
  std::string out, err;
};

// Runs `program` to its end, or kills it after `timeout`. `meanwhile`, when given, is called
// every 20 ms while the program runs: a test that reads another child's output must go on
// reading, or that child blocks on a full pipe and the program waiting for it with it.
inline Outcome runProgram(char const* program, std::vector<std::string> args,
                          milliseconds timeout = std::chrono::seconds(20),
                          std::function<void()> const& meanwhile = {}) {
  static int runs = 0;
  std::string const base =
      "/tmp/srte-run-" + std::to_string(::getpid()) + "-" + std::to_string(++runs);
  int out = ::open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int err = ::open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  pid_t pid = spawn(program, std::move(args), out, err);
  ::close(out);
  ::close(err);
  bool ended = false;
  if (meanwhile) {
    for (auto const end = std::chrono::steady_clock::now() + timeout;
         !(ended = awaitEnd(pid, milliseconds(20))) && std::chrono::steady_clock::now() < end;) {
      meanwhile();
    }
  } else {
    ended = awaitEnd(pid, timeout);
  }
  if (!ended) ::kill(pid, SIGKILL);
  Outcome o{reap(pid), slurp(base + ".out"), slurp(base + ".err")};
  std::remove((base + ".out").c_str());
  std::remove((base + ".err").c_str());
  return o;
}

}  // namespace TestSupport
