// The reader's side of the state socket (StateClient.h).
#include "StateClient.h"

#include <algorithm>
#include <boost/asio/read.hpp>
#include <chrono>

namespace SrTeStateSync {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

StateClient::StateClient(asio::io_context& io, std::string path, ClientOptions options)
    : io_(io),
      path_(std::move(path)),
      options_(options),
      socket_(io),
      retry_(io),
      self_(std::make_shared<StateClient*>(this)),
      delay_(options.retryMin) {}

StateClient::~StateClient() {
  *self_ = nullptr;
  stop();
}

void StateClient::start() {
  if (running_) return;
  running_ = true;
  connect();
}

void StateClient::stop() {
  running_ = false;
  boost::system::error_code ec;
  retry_.cancel();
  socket_.close(ec);
  pending_.reset();
}

void StateClient::connect() {
  pending_ = std::make_unique<MountedState>("srte-agent at " + path_);
  connectedSynced_ = false;
  socket_ = Local::socket(io_);
  socket_.async_connect(Local::endpoint(path_), [alive = self_](boost::system::error_code ec) {
    StateClient* self = *alive;
    if (self == nullptr || !self->running_ || ec == asio::error::operation_aborted) return;
    if (ec) {
      self->lost("connect: " + ec.message());
      return;
    }
    self->readHeader();
  });
}

void StateClient::readHeader() {
  asio::async_read(socket_, asio::buffer(header_),
                   [alive = self_](boost::system::error_code ec, std::size_t n) {
                     StateClient* self = *alive;
                     if (self == nullptr || !self->running_) return;
                     if (ec) {
                       self->lost("connection lost: " + ec.message());
                       return;
                     }
                     self->bytesReceived_ += n;
                     FrameHeader h;
                     try {
                       h = readFrameHeader(self->header_.data());
                     } catch (std::exception const& e) {
                       self->lost(std::string("frame refused: ") + e.what());
                       return;
                     }
                     self->readBody(h);
                   });
}

void StateClient::readBody(FrameHeader h) {
  body_.resize(h.bodyLength);
  asio::async_read(socket_, asio::buffer(body_),
                   [alive = self_, h](boost::system::error_code ec, std::size_t n) {
                     StateClient* self = *alive;
                     if (self == nullptr || !self->running_) return;
                     if (ec) {
                       self->lost("connection lost: " + ec.message());
                       return;
                     }
                     self->bytesReceived_ += n;
                     self->handle(h);
                   });
}

void StateClient::handle(FrameHeader const& h) {
  MountedState* target = connectedSynced_ ? current_.get() : pending_.get();
  if (h.kind == FrameKind::refused) {
    std::string why;
    try {
      why = readRefusal(body_.data(), body_.size());
    } catch (std::exception const& e) {
      why = e.what();
    }
    lost("refused by the agent: " + why);
    return;
  }
  try {
    if (h.kind == FrameKind::ready) {
      if (connectedSynced_) throw Mosk::LogFormatException("state frame: a second ready frame");
      current_ = std::move(pending_);
      connectedSynced_ = true;
      delay_ = options_.retryMin;
      ++generation_;
    } else {
      if (connectedSynced_ && h.kind == FrameKind::snapshot) {
        throw Mosk::LogFormatException("state frame: a snapshot after the ready frame");
      }
      target->apply(h.channel, h.kind, body_.data(), body_.size());
      ++framesApplied_;
    }
  } catch (std::exception const& e) {
    // The copy is as it was; this connection's stream can no longer be trusted, so start over.
    lost(std::string("frame of ") + channelName(h.channel) + " refused: " + e.what());
    return;
  }
  if (connectedSynced_ && onChange_) onChange_();
  if (*self_ != nullptr && running_) readHeader();
}

void StateClient::lost(std::string const& why) {
  lastTrouble_ = why;
  boost::system::error_code ec;
  socket_.close(ec);
  pending_.reset();
  connectedSynced_ = false;
  if (!options_.reconnect) running_ = false;
  if (onTrouble_) onTrouble_(why);
  if (!running_) return;
  retry_.expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(
      std::chrono::duration<double>(delay_)));
  delay_ = std::min(delay_ * 2, options_.retryMax);
  retry_.async_wait([alive = self_](boost::system::error_code e) {
    StateClient* self = *alive;
    if (self == nullptr || e || !self->running_) return;
    self->connect();
  });
}

}  // namespace SrTeStateSync
