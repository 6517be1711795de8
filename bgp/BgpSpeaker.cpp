// The speaker: listening, handing connections to sessions, stopping.
#include "BgpSpeaker.h"

#include <boost/asio/post.hpp>
#include <cstring>

namespace SrTeBgp {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

// The peer address of a connection; an IPv4 address mapped into IPv6 reads as IPv4.
Ludd::IpGenAddr peerAddress(tcp::socket const& socket) {
  boost::system::error_code ec;
  asio::ip::address a = socket.remote_endpoint(ec).address();
  if (ec) return {};
  if (a.is_v6() && a.to_v6().is_v4_mapped()) {
    a = asio::ip::make_address_v4(asio::ip::v4_mapped, a.to_v6());
  }
  if (a.is_v4()) return Ludd::IpAddr::fromU32(a.to_v4().to_uint());
  std::array<U8, 16> bytes;
  auto const b = a.to_v6().to_bytes();
  std::memcpy(bytes.data(), b.data(), 16);
  return Ludd::IpGenAddr::ipv6(bytes);
}

}  // namespace

BgpSpeaker::BgpSpeaker(asio::io_context& io, SpeakerConfig config, BgpInputTable& table,
                       SpeakerListener& listener)
    : io_(io),
      config_(std::move(config)),
      listener_(listener),
      alive_(std::make_shared<Alive>(Alive{this})) {
  for (std::size_t i = 0; i < config_.peers.size(); ++i) {
    sessions_.push_back(std::make_unique<BgpSession>(io_, config_, config_.peers[i],
                                                     static_cast<U32>(i), table, listener_));
  }
}

BgpSpeaker::~BgpSpeaker() {
  alive_->speaker = nullptr;
}

void BgpSpeaker::start() {
  if (config_.listenPort) {
    Ludd::IpGenAddr const& l = config_.listenAddress;
    asio::ip::address address;
    if (l.isIpv4()) {
      address = asio::ip::address_v4(l.v4().toU32());
    } else {
      asio::ip::address_v6::bytes_type b;
      std::memcpy(b.data(), l.bytes().data(), 16);
      address = asio::ip::address_v6(b);
    }
    tcp::endpoint const at(address, *config_.listenPort);
    acceptor_.emplace(io_);
    acceptor_->open(at.protocol());
    acceptor_->set_option(tcp::acceptor::reuse_address(true));
    acceptor_->bind(at);
    acceptor_->listen();
    port_ = acceptor_->local_endpoint().port();
    accept();
  }
  for (auto& s : sessions_)
    s->start();
}

void BgpSpeaker::accept() {
  acceptor_->async_accept(
      [this, alive = alive_](boost::system::error_code const& ec, tcp::socket socket) {
        if (!alive->speaker || !acceptor_ || ec == asio::error::operation_aborted) return;
        if (!ec) {
          Ludd::IpGenAddr const from = peerAddress(socket);
          BgpSession* session = nullptr;
          for (auto& s : sessions_) {
            if (s->peer().address == from) session = s.get();
          }
          if (session) {
            session->accepted(std::move(socket));
          } else {
            listener_.onConnectionRefused(Mosk::valueToStrep(from), "no peer has this address");
            refuseConnection(io_, std::move(socket),
                             Notification{Error::cease, Error::connectionRejected, {}});
          }
        }
        accept();
      });
}

void BgpSpeaker::stop(std::function<void()> done) {
  if (acceptor_) {
    boost::system::error_code ignored;
    acceptor_->close(ignored);
    acceptor_.reset();
  }
  auto left = std::make_shared<std::size_t>(sessions_.size());
  auto finish = std::make_shared<std::function<void()>>(std::move(done));
  if (*left == 0) {
    asio::post(io_, [finish] { (*finish)(); });
    return;
  }
  for (auto& s : sessions_) {
    s->stop([left, finish] {
      if (--*left == 0) (*finish)();
    });
  }
}

}  // namespace SrTeBgp
