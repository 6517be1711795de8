// One BGP peer's session: the state machine, the timers and the paths it brings.
#include "BgpSession.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cstring>

namespace SrTeBgp {

namespace asio = boost::asio;
using asio::ip::tcp;
using SrTePolicy::PolicyId;

namespace {

// How long OpenSent waits for the peer's OPEN, and a dial for its connection.
constexpr std::chrono::seconds openWait(240), dialWait(30);
constexpr U32 maxBackoff = 60;
constexpr std::size_t inSize = 65536;

asio::ip::address addressOf(Ludd::IpGenAddr const& a) {
  if (a.isIpv4()) return asio::ip::address_v4(a.v4().toU32());
  asio::ip::address_v6::bytes_type b;
  std::memcpy(b.data(), a.bytes().data(), 16);
  return asio::ip::address_v6(b);
}

std::string describe(U8 code, U8 subcode) {
  return "NOTIFICATION " + std::to_string(code) + "/" + std::to_string(subcode) + " (" +
         notificationText(code, subcode) + ")";
}

}  // namespace

void refuseConnection(asio::io_context& io, tcp::socket socket, Notification const& n) {
  auto s = std::make_shared<tcp::socket>(std::move(socket));
  auto message = std::make_shared<Bytes>(notificationMessage(n.code, n.subcode, n.data));
  auto guard = std::make_shared<asio::steady_timer>(io, std::chrono::seconds(1));
  asio::async_write(*s, asio::buffer(*message),
                    [s, message, guard](boost::system::error_code, std::size_t) {
                      boost::system::error_code ignored;
                      s->shutdown(tcp::socket::shutdown_both, ignored);
                      s->close(ignored);
                      guard->cancel();
                    });
  guard->async_wait([s](boost::system::error_code const& ec) {
    boost::system::error_code ignored;
    if (!ec) s->close(ignored);
  });
}

char const* BgpSession::stateName(State s) {
  switch (s) {
    case State::idle:
      return "Idle";
    case State::connect:
      return "Connect";
    case State::openSent:
      return "OpenSent";
    case State::openConfirm:
      return "OpenConfirm";
    case State::established:
      return "Established";
  }
  return "?";
}

BgpSession::BgpSession(asio::io_context& io, SpeakerConfig const& speaker, PeerConfig peer,
                       U32 index, BgpInputTable& table, SpeakerListener& listener)
    : io_(io),
      speaker_(speaker),
      peer_(std::move(peer)),
      index_(index),
      table_(table),
      listener_(listener),
      holdTimer_(io),
      keepaliveTimer_(io),
      dialTimer_(io),
      closeTimer_(io),
      in_(inSize),
      alive_(std::make_shared<Alive>(Alive{this})) {}

BgpSession::~BgpSession() {
  alive_->session = nullptr;
  boost::system::error_code ignored;
  if (socket_) socket_->close(ignored);
}

void BgpSession::start() {
  if (!peer_.passive) dial();
}

void BgpSession::dial() {
  if (stopped_ || socket_) return;
  state_ = State::connect;
  socket_.emplace(io_);
  U64 const gen = ++generation_;
  tcp::endpoint const to(addressOf(peer_.address), peer_.port);
  socket_->async_connect(to, [this, gen, alive = alive_](boost::system::error_code const& ec) {
    if (!alive->session || gen != generation_) return;
    holdTimer_.cancel();
    if (ec) {
      dialFailed(ec.message());
      return;
    }
    connected();
  });
  holdTimer_.expires_after(dialWait);
  holdTimer_.async_wait([this, gen, alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->session || gen != generation_) return;
    dialFailed("no answer in " + std::to_string(dialWait.count()) + " s");
  });
}

void BgpSession::dialFailed(std::string const& reason) {
  closeSocket();
  state_ = State::idle;
  U32 const wait = std::min(maxBackoff, peer_.connectRetry << std::min<U32>(failures_, 6));
  ++failures_;
  listener_.onConnectFailed(peer_, reason, wait);
  scheduleDial(wait);
}

void BgpSession::scheduleDial(U32 seconds) {
  if (stopped_ || peer_.passive) return;
  dialTimer_.expires_after(std::chrono::seconds(seconds));
  dialTimer_.async_wait([this, alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->session || state_ != State::idle) return;
    dial();
  });
}

void BgpSession::accepted(tcp::socket socket) {
  if (stopped_ || state_ == State::openConfirm || state_ == State::established) {
    listener_.onConnectionRefused(
        Mosk::valueToStrep(peer_.address),
        stopped_ ? "srte-bgp is stopping"
                 : std::string("a session with this peer is already ") + stateName(state_));
    refuseConnection(
        io_, std::move(socket),
        Notification{Error::cease, stopped_ ? Error::adminShutdown : Error::collision, {}});
    return;
  }
  // A connection being set up (ours, or an earlier one of the peer's) gives way to this one.
  if (state_ == State::openSent) close("the peer connected again", {});
  closeSocket();
  dialTimer_.cancel();
  socket_.emplace(std::move(socket));
  connected();
}

void BgpSession::connected() {
  U64 const gen = ++generation_;
  boost::system::error_code ignored;
  socket_->set_option(tcp::no_delay(true), ignored);
  inBegin_ = inEnd_ = 0;
  state_ = State::openSent;
  send(openMessage(speaker_.localAs, peer_.holdTime, speaker_.bgpIdentifier, Families{true, true}));
  holdTimer_.expires_after(openWait);
  holdTimer_.async_wait([this, gen, alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->session || gen != generation_ || closing_) return;
    close("no OPEN from the peer in " + std::to_string(openWait.count()) + " s",
          Notification{Error::holdTimer, 0, {}});
  });
  read();
}

void BgpSession::read() {
  if (inEnd_ == in_.size()) {
    // Only a message cut by the end of the buffer is left: move it to the front.
    std::memmove(in_.data(), in_.data() + inBegin_, inEnd_ - inBegin_);
    inEnd_ -= inBegin_;
    inBegin_ = 0;
  }
  U64 const gen = generation_;
  socket_->async_read_some(
      asio::buffer(in_.data() + inEnd_, in_.size() - inEnd_),
      [this, gen, alive = alive_](boost::system::error_code const& ec, std::size_t n) {
        if (!alive->session || gen != generation_ || closing_) return;
        if (ec) {
          close(ec == asio::error::eof ? "the peer closed the connection"
                                       : "the connection failed: " + ec.message());
          return;
        }
        received(n);
      });
}

void BgpSession::received(std::size_t n) {
  inEnd_ += n;
  U64 const gen = generation_;
  while (inEnd_ - inBegin_ >= headerSize) {
    U8 const* p = in_.data() + inBegin_;
    Refusal refusal;
    std::optional<Header> h = readHeader(p, refusal);
    if (!h) {
      close("message refused: " + refusal.reason,
            Notification{refusal.code, refusal.subcode, refusal.data});
      return;
    }
    if (inEnd_ - inBegin_ < h->length) break;
    inBegin_ += h->length;
    if (!handle(h->type, p + headerSize, h->length - headerSize)) return;
    if (gen != generation_ || closing_) return;
  }
  if (inBegin_ == inEnd_) inBegin_ = inEnd_ = 0;
  read();
}

bool BgpSession::handle(MessageType type, U8 const* body, std::size_t n) {
  if (type == MessageType::notification) {
    Refusal refusal;
    std::optional<Notification> note = readNotification(body, n, refusal);
    if (!note) return close("the peer sent a NOTIFICATION without code and subcode");
    return close("the peer sent " + describe(note->code, note->subcode), *note, true);
  }
  switch (state_) {
    case State::openSent:
      if (type == MessageType::open) return handleOpen(body, n);
      break;
    case State::openConfirm:
      if (type != MessageType::keepalive) break;
      state_ = State::established;
      failures_ = 0;
      armHold();
      listener_.onSessionUp(peer_, info_);
      return true;
    case State::established:
      if (type == MessageType::keepalive || type == MessageType::refresh) {
        armHold();
        return true;
      }
      if (type == MessageType::update) {
        armHold();
        Refusal refusal;
        if (decoder_.decode(body, n, context_, *this, refusal)) return true;
        return close("UPDATE refused: " + refusal.reason,
                     Notification{refusal.code, refusal.subcode, refusal.data});
      }
      break;
    default:
      return true;
  }
  U8 const subcode = state_ == State::openSent ? 1 : state_ == State::openConfirm ? 2 : 3;
  return close("unexpected message of type " + std::to_string(static_cast<int>(type)) + " in " +
                   stateName(state_),
               Notification{Error::fsm, subcode, {}});
}

bool BgpSession::handleOpen(U8 const* body, std::size_t n) {
  Refusal refusal;
  std::optional<Open> open = readOpen(body, n, peer_.as, refusal);
  if (!open) {
    return close("OPEN refused: " + refusal.reason,
                 Notification{refusal.code, refusal.subcode, refusal.data});
  }
  if (open->identifier == speaker_.bgpIdentifier) {
    return close("OPEN refused: the peer's BGP identifier is ours",
                 Notification{Error::open, Error::badIdentifier, {}});
  }
  if (!open->families.any()) {
    // The data names the capabilities we need: multiprotocol SR Policy for AFI 1 and 2.
    return close("OPEN refused: the peer offers no SR Policy family",
                 Notification{Error::open,
                              Error::unsupportedCapability,
                              {1, 4, 0, 1, 0, safiSrPolicy, 1, 4, 0, 2, 0, safiSrPolicy}});
  }
  holdTime_ = std::min(peer_.holdTime, open->holdTime);
  info_ =
      SessionInfo{open->as, open->identifier, holdTime_, open->families, open->otherCapabilities};
  context_ = DecodeContext{speaker_.bgpIdentifier, peer_.as == speaker_.localAs, open->fourOctetAs,
                           open->families};
  send(keepaliveMessage());
  state_ = State::openConfirm;
  armHold();
  armKeepalive();
  return true;
}

void BgpSession::armHold() {
  if (holdTime_ == 0) {
    holdTimer_.cancel();
    return;
  }
  // Rearming cancels the wait before; its handler sees operation_aborted.
  holdTimer_.expires_after(std::chrono::seconds(holdTime_));
  U64 const gen = generation_;
  holdTimer_.async_wait([this, gen, alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->session || gen != generation_ || closing_) return;
    close("hold timer expired: nothing from the peer in " + std::to_string(holdTime_) + " s",
          Notification{Error::holdTimer, 0, {}});
  });
}

void BgpSession::armKeepalive() {
  if (holdTime_ == 0) return;
  keepaliveTimer_.expires_after(std::chrono::milliseconds(holdTime_ * 1000 / 3));
  U64 const gen = generation_;
  keepaliveTimer_.async_wait([this, gen, alive = alive_](boost::system::error_code const& ec) {
    if (ec || !alive->session || gen != generation_ || closing_) return;
    send(keepaliveMessage());
    armKeepalive();
  });
}

void BgpSession::send(Bytes message) {
  out_.push_back(std::move(message));
  if (!writing_) write();
}

void BgpSession::write() {
  if (out_.empty()) {
    writing_ = false;
    if (closing_) closeSocket();
    return;
  }
  writing_ = true;
  U64 const gen = generation_;
  asio::async_write(*socket_, asio::buffer(out_.front()),
                    [this, gen, alive = alive_](boost::system::error_code const& ec, std::size_t) {
                      if (!alive->session || gen != generation_) return;
                      out_.pop_front();
                      if (ec) {
                        if (closing_) {
                          closeSocket();
                        } else {
                          close("the connection failed: " + ec.message());
                        }
                        return;
                      }
                      write();
                    });
}

bool BgpSession::close(std::string const& reason, std::optional<Notification> notification,
                       bool received) {
  if (!socket_ || closing_) return false;
  State const was = state_;
  state_ = State::idle;
  holdTimer_.cancel();
  keepaliveTimer_.cancel();
  if (notification && !received) {
    // What is queued behind a message being written is dropped; the NOTIFICATION goes last.
    while (out_.size() > (writing_ ? 1u : 0u))
      out_.pop_back();
    closing_ = true;
    send(notificationMessage(notification->code, notification->subcode, notification->data));
    U64 const gen = generation_;
    closeTimer_.expires_after(std::chrono::seconds(1));
    closeTimer_.async_wait([this, gen, alive = alive_](boost::system::error_code const& ec) {
      if (ec || !alive->session || gen != generation_) return;
      closeSocket();
    });
  } else {
    closeSocket();
  }
  U32 const withdrawn = was == State::established ? table_.erasePeer(index_) : 0;
  if (was >= State::openSent) {
    std::optional<NotificationEvent> event;
    if (notification)
      event = NotificationEvent{!received, notification->code, notification->subcode};
    listener_.onSessionDown(peer_, stateName(was), reason, event, withdrawn);
  }
  if (!stopped_ && !peer_.passive) {
    U32 const wait = std::min(maxBackoff, peer_.connectRetry << std::min<U32>(failures_, 6));
    ++failures_;
    scheduleDial(wait);
  }
  return false;
}

void BgpSession::closeSocket() {
  ++generation_;
  closeTimer_.cancel();
  if (socket_) {
    boost::system::error_code ignored;
    socket_->shutdown(tcp::socket::shutdown_both, ignored);
    socket_->close(ignored);
    socket_.reset();
  }
  out_.clear();
  writing_ = false;
  closing_ = false;
  inBegin_ = inEnd_ = 0;
  if (stopped_ && stopDone_) {
    auto done = std::move(stopDone_);
    stopDone_ = nullptr;
    asio::post(io_, std::move(done));
  }
}

void BgpSession::stop(std::function<void()> done) {
  stopped_ = true;
  dialTimer_.cancel();
  stopDone_ = std::move(done);
  if (socket_ && !closing_ && state_ >= State::openSent) {
    close("srte-bgp is stopping", Notification{Error::cease, Error::adminShutdown, {}});
    return;
  }
  // A NOTIFICATION being written: the close after it calls `done`.
  if (closing_) return;
  state_ = State::idle;
  closeSocket();
}

// --- UpdateSink ------------------------------------------------------------------------------

void BgpSession::onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) {
  BgpInputTable::Written written;
  try {
    written = table_.put(index_, info_.identifier, nlri, path.record);
  } catch (Mosk::Exception const& e) {
    std::optional<PolicyId> removed = table_.erase(index_, nlri);
    Problem problem;
    problem.at("table").because("%s", e.what());
    listener_.onPathRefused(peer_, &nlri, "table-refused", problem, removed);
    return;
  }
  listener_.onPathWritten(peer_, nlri, path, written);
}

void BgpSession::onWithdraw(SrPolicyNlri const& nlri) {
  listener_.onPathWithdrawn(peer_, nlri, table_.erase(index_, nlri));
}

void BgpSession::onRefused(SrPolicyNlri const* nlri, Rule rule, Problem const& problem) {
  std::optional<PolicyId> removed;
  if (nlri) removed = table_.erase(index_, *nlri);
  listener_.onPathRefused(peer_, nlri, ruleName(rule), problem, removed);
}

}  // namespace SrTeBgp
