// The metrics endpoint's HTTP server (MetricsServer.h).
#include "MetricsServer.h"

#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <optional>
#include <set>
#include <stdexcept>

namespace SrTeDaemon {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::asio::ip::tcp;

namespace {

constexpr std::size_t headerLimit = 8192;
constexpr std::size_t bodyLimit = 1024;
char const* const contentType = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace

tcp::endpoint metricsEndpoint(std::string const& text) {
  std::size_t const colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    throw std::invalid_argument("'" + text + "' is not ADDRESS:PORT (for example 127.0.0.1:9464)");
  }
  std::string address = text.substr(0, colon);
  std::string const port = text.substr(colon + 1);
  if (address.size() >= 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  } else if (address.find(':') != std::string::npos) {
    throw std::invalid_argument("'" + text + "': an IPv6 address goes in brackets ([::1]:9464)");
  }
  boost::system::error_code ec;
  boost::asio::ip::address const a = boost::asio::ip::make_address(address, ec);
  if (ec) throw std::invalid_argument("'" + address + "' is not an IPv4 or IPv6 address");
  unsigned long value = 0;
  bool ok = !port.empty() && port.size() <= 5;
  for (char c : port) {
    ok = ok && c >= '0' && c <= '9';
    if (ok) value = value * 10 + static_cast<unsigned long>(c - '0');
  }
  if (!ok || value > 65535) {
    throw std::invalid_argument("'" + port + "' is not a port number from 0 to 65535");
  }
  return tcp::endpoint(a, static_cast<unsigned short>(value));
}

std::string endpointText(tcp::endpoint const& endpoint) {
  std::string const address = endpoint.address().to_string();
  return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint.port());
}

class Connection;

struct MetricsServer::Shared {
  std::function<std::string()> render;
  Limits limits;
  bool closed = false;
  std::set<Connection*> connections;
};

// One client: reads a request, writes the response, and again while the client keeps the
// connection alive. Holds itself alive through the handlers it has queued.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, std::shared_ptr<MetricsServer::Shared> shared)
      : stream_(std::move(socket)), shared_(std::move(shared)) {
    shared_->connections.insert(this);
  }
  ~Connection() { shared_->connections.erase(this); }

  void read() {
    parser_.emplace();
    parser_->header_limit(headerLimit);
    parser_->body_limit(bodyLimit);
    stream_.expires_after(shared_->limits.timeout);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  void close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.socket().close(ignored);
  }

 private:
  void onRead(beast::error_code ec) {
    if (shared_->closed) return;
    if (ec == http::error::header_limit)
      return reply(http::status::request_header_fields_too_large);
    if (ec == http::error::body_limit) return reply(http::status::payload_too_large);
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == boost::asio::error::operation_aborted || ec == boost::asio::error::connection_reset ||
        ec == http::error::partial_message) {
      return close();
    }
    if (ec) return reply(http::status::bad_request);
    http::request<http::string_body> const& request = parser_->get();
    std::string_view target(request.target().data(), request.target().size());
    target = target.substr(0, target.find('?'));
    if (target != "/metrics") return reply(http::status::not_found, request.keep_alive());
    if (request.method() != http::verb::get) {
      return reply(http::status::method_not_allowed, request.keep_alive());
    }
    response_ = {};
    response_.result(http::status::ok);
    response_.set(http::field::content_type, contentType);
    response_.body() = shared_->render();
    write(request.keep_alive());
  }

  // An answer without a body worth reading; the connection stays only when `keepAlive`.
  void reply(http::status status, bool keepAlive = false) {
    response_ = {};
    response_.result(status);
    response_.set(http::field::content_type, "text/plain; charset=utf-8");
    if (status == http::status::method_not_allowed) response_.set(http::field::allow, "GET");
    response_.body() = std::string(http::obsolete_reason(status)) + "\n";
    write(keepAlive);
  }

  void write(bool keepAlive) {
    response_.version(11);
    response_.keep_alive(keepAlive);
    response_.prepare_payload();
    stream_.expires_after(shared_->limits.timeout);
    http::async_write(stream_, response_,
                      [self = shared_from_this(), keepAlive](beast::error_code ec, std::size_t) {
                        if (self->shared_->closed) return;
                        // The body may be large; it is not kept between requests.
                        self->response_ = {};
                        if (ec || !keepAlive) return self->close();
                        self->read();
                      });
  }

  beast::tcp_stream stream_;
  // Larger than the header limit, so that the parser's limit says what was too long.
  beast::flat_buffer buffer_{2 * headerLimit};
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
  std::shared_ptr<MetricsServer::Shared> shared_;
};

MetricsServer::MetricsServer(boost::asio::io_context& io, tcp::endpoint const& endpoint,
                             std::function<std::string()> render, Limits limits)
    : io_(io),
      acceptor_(io),
      pause_(io),
      shared_(std::make_shared<Shared>(Shared{std::move(render), limits, false, {}})) {
  beast::error_code ec;
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(boost::asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(boost::asio::socket_base::max_listen_connections, ec);
  if (!ec) local_ = acceptor_.local_endpoint(ec);
  if (ec) {
    throw std::runtime_error("metrics: cannot listen on " + endpointText(endpoint) + ": " +
                             ec.message());
  }
  accept();
}

MetricsServer::~MetricsServer() {
  shared_->closed = true;
  beast::error_code ignored;
  acceptor_.close(ignored);
  pause_.cancel();
  for (Connection* c : shared_->connections)
    c->close();
}

void MetricsServer::accept() {
  acceptor_.async_accept(io_, [this, shared = shared_](beast::error_code ec, tcp::socket socket) {
    if (shared->closed) return;
    if (ec) {
      // Out of descriptors (or another passing failure): try again in a moment, not at once.
      pause_.expires_after(std::chrono::milliseconds(100));
      pause_.async_wait([this, shared](beast::error_code e) {
        if (!e && !shared->closed) accept();
      });
      return;
    }
    if (shared->connections.size() >= shared->limits.maxConnections) {
      beast::error_code ignored;
      socket.close(ignored);
    } else {
      std::make_shared<Connection>(std::move(socket), shared)->read();
    }
    accept();
  });
}

}  // namespace SrTeDaemon
