// The metrics endpoint: a small HTTP/1.1 server (Boost.Beast) on the daemon's event loop that
// answers GET or HEAD of /metrics with the exposition its callback renders, and 404 (or 405 for
// another method) to anything else. No threads: every connection is a chain of asynchronous
// reads and writes on the loop.
//
// A client cannot stall the loop or make the server's memory grow: a request's header may hold
// at most 8 KiB and its body 1 KiB (more closes the connection with 431 or 413); a request must
// arrive, and a response be taken, within the timeout (10 s), else the connection is closed; an
// idle kept-alive connection is closed after the same time; at most `maxConnections` are served
// at once (one more is closed at once); when the process is out of file descriptors, accepting
// pauses for a tenth of a second.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace SrTeDaemon {

// "ADDRESS:PORT" ("127.0.0.1:9464", "[::1]:9464", port 0 for any free one); raises
// std::invalid_argument with the reason when the text is not one.
boost::asio::ip::tcp::endpoint metricsEndpoint(std::string const& text);
// The endpoint as "ADDRESS:PORT" ("[ADDRESS]:PORT" for IPv6).
std::string endpointText(boost::asio::ip::tcp::endpoint const& endpoint);

class MetricsServer {
 public:
  struct Limits {
    std::chrono::milliseconds timeout{10000};
    std::size_t maxConnections = 16;
  };

  // Listens on `endpoint` at once; raises std::runtime_error naming it when it cannot.
  MetricsServer(boost::asio::io_context& io, boost::asio::ip::tcp::endpoint const& endpoint,
                std::function<std::string()> render, Limits limits);
  // Stops listening and closes every connection.
  ~MetricsServer();
  MetricsServer(MetricsServer const&) = delete;
  MetricsServer& operator=(MetricsServer const&) = delete;

  // The address listened on (with the port the system chose for port 0).
  boost::asio::ip::tcp::endpoint local() const { return local_; }

  // Shared with the connections, which may outlive the server by a handler or two.
  struct Shared;

 private:
  void accept();

  boost::asio::io_context& io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer pause_;
  boost::asio::ip::tcp::endpoint local_;
  std::shared_ptr<Shared> shared_;
};

}  // namespace SrTeDaemon
