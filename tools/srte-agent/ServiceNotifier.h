// The service manager's notification protocol, from the daemon's side: when the environment
// names a socket (NOTIFY_SOCKET: a path, or an abstract name written with a leading '@'), each
// state is one datagram of "KEY=value" lines sent to it: READY=1 once the start-up passes are
// done, RELOADING=1 with MONOTONIC_USEC around a reload and READY=1 after it, STOPPING=1 when
// the daemon stops, STATUS= lines a person reads, and WATCHDOG=1 every half of WATCHDOG_USEC
// when the manager asks for the watchdog (and WATCHDOG_PID, when set, is this process).
//
// The pings come from a timer on the event loop, so a loop that stalls stops pinging and the
// manager restarts the daemon. Without NOTIFY_SOCKET nothing is sent. A datagram that cannot be
// sent is dropped: the manager's absence is not the daemon's failure.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <optional>
#include <string>

namespace SrTeDaemon {

class ServiceNotifier {
 public:
  // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID from the environment.
  explicit ServiceNotifier(boost::asio::io_context& io);
  ~ServiceNotifier();
  ServiceNotifier(ServiceNotifier const&) = delete;
  ServiceNotifier& operator=(ServiceNotifier const&) = delete;

  bool active() const { return fd_ >= 0; }
  // The watchdog interval the manager asked for; none when it did not.
  std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

  // READY=1 (and starts the watchdog pings when asked for), with a status line.
  void ready(std::string const& status);
  // RELOADING=1 with the time on CLOCK_MONOTONIC, with a status line.
  void reloading(std::string const& status);
  // STOPPING=1 with a status line; the watchdog pings stop.
  void stopping(std::string const& status);
  // Sends `text` as one datagram; false when it could not be sent.
  bool send(std::string const& text);

 private:
  void ping();

  int fd_ = -1;
  std::string address_;  // the socket's address, abstract names with a leading NUL
  std::optional<std::chrono::microseconds> watchdog_;
  boost::asio::steady_timer timer_;
  bool pinging_ = false;
};

}  // namespace SrTeDaemon
