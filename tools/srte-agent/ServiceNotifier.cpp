// The service manager's notification protocol (ServiceNotifier.h).
#include "ServiceNotifier.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace SrTeDaemon {

namespace {

// A whole decimal number, or none.
std::optional<unsigned long long> wholeNumber(char const* text) {
  if (!text || !*text) return std::nullopt;
  unsigned long long v = 0;
  for (char const* p = text; *p; ++p) {
    if (*p < '0' || *p > '9' || v > (~0ull - 9) / 10) return std::nullopt;
    v = v * 10 + static_cast<unsigned long long>(*p - '0');
  }
  return v;
}

}  // namespace

ServiceNotifier::ServiceNotifier(boost::asio::io_context& io) : timer_(io) {
  char const* socket = std::getenv("NOTIFY_SOCKET");
  // A path must fit sockaddr_un; anything else is not a socket this process can reach.
  if (!socket || (socket[0] != '/' && socket[0] != '@') || std::strlen(socket) < 2 ||
      std::strlen(socket) >= sizeof(sockaddr_un::sun_path)) {
    return;
  }
  address_ = socket;
  if (address_[0] == '@') address_[0] = '\0';
  fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // The watchdog is meant for this process only when WATCHDOG_PID says so or is absent.
  std::optional<unsigned long long> usec = wholeNumber(std::getenv("WATCHDOG_USEC"));
  char const* pidText = std::getenv("WATCHDOG_PID");
  std::optional<unsigned long long> pid = wholeNumber(pidText);
  bool const ours = !pidText || (pid && *pid == static_cast<unsigned long long>(::getpid()));
  if (usec && *usec > 0 && ours) watchdog_ = std::chrono::microseconds(*usec);
}

ServiceNotifier::~ServiceNotifier() {
  timer_.cancel();
  if (fd_ >= 0) ::close(fd_);
}

bool ServiceNotifier::send(std::string const& text) {
  if (fd_ < 0) return false;
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::memcpy(a.sun_path, address_.data(), address_.size());
  // An abstract name's length is counted, not ended by a NUL.
  auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size() +
                                             (address_[0] == '\0' ? 0 : 1));
  return ::sendto(fd_, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&a),
                  length) == static_cast<ssize_t>(text.size());
}

void ServiceNotifier::ready(std::string const& status) {
  send("READY=1\nSTATUS=" + status);
  if (watchdog_ && !pinging_) {
    pinging_ = true;
    ping();
  }
}

void ServiceNotifier::reloading(std::string const& status) {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  unsigned long long const usec = static_cast<unsigned long long>(now.tv_sec) * 1000000ull +
                                  static_cast<unsigned long long>(now.tv_nsec) / 1000ull;
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(usec) + "\nSTATUS=" + status);
}

void ServiceNotifier::stopping(std::string const& status) {
  pinging_ = false;
  timer_.cancel();
  send("STOPPING=1\nSTATUS=" + status);
}

void ServiceNotifier::ping() {
  if (!pinging_) return;
  send("WATCHDOG=1");
  timer_.expires_after(*watchdog_ / 2);
  timer_.async_wait([this](boost::system::error_code const& ec) {
    if (!ec) ping();
  });
}

}  // namespace SrTeDaemon
