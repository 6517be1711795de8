// The agent's side of the state socket (StateServer.h).
#include "StateServer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <deque>
#include <stdexcept>

namespace SrTeStateSync {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

struct StateServer::Session {
  Session(U64 i, Local::socket s) : id(i), socket(std::move(s)) {}
  U64 id;
  Local::socket socket;
  std::deque<Frame> queue;
  std::size_t queued = 0;
  bool writing = false;
  std::array<U8, 64> inbox{};
};

namespace {

// Prepares `path` for binding: a stale socket file is removed; a live one or another kind of
// file is refused.
void clearStalePath(asio::io_context& io, std::string const& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  if (!S_ISSOCK(st.st_mode)) {
    throw std::runtime_error(path + " exists and is not a socket; not replacing it");
  }
  Local::socket probe(io);
  boost::system::error_code ec;
  probe.connect(Local::endpoint(path), ec);
  if (!ec) throw std::runtime_error("another agent already serves on " + path);
  ::unlink(path.c_str());
}

}  // namespace

StateServer::StateServer(asio::io_context& io, std::string path, ServedState const& served,
                         ServerOptions options)
    : path_(std::move(path)),
      options_(options),
      feeds_(feedsOf(served)),
      acceptor_(io),
      timer_(io),
      self_(std::make_shared<StateServer*>(this)) {
  clearStalePath(io, path_);
  boost::system::error_code ec;
  acceptor_.open(Local(), ec);
  if (!ec) acceptor_.bind(Local::endpoint(path_), ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) throw std::runtime_error("cannot listen on " + path_ + ": " + ec.message());
  accept();
  armTimer();
}

StateServer::~StateServer() {
  *self_ = nullptr;
  boost::system::error_code ec;
  timer_.cancel();
  acceptor_.close(ec);
  for (auto& [id, s] : sessions_)
    s->socket.close(ec);
  sessions_.clear();
  ::unlink(path_.c_str());
}

void StateServer::accept() {
  acceptor_.async_accept([alive = self_](boost::system::error_code ec, Local::socket socket) {
    StateServer* self = *alive;
    if (self == nullptr || ec == asio::error::operation_aborted) return;
    if (!ec) {
      auto s = std::make_shared<Session>(self->nextId_++, std::move(socket));
      self->sessions_.emplace(s->id, s);
      // The whole state as it is now; deltas from here on may repeat some of it.
      for (std::size_t c = 0; c < kChannels; ++c) {
        if (!self->feeds_[c]) continue;
        self->send(*s, std::make_shared<std::vector<U8> const>(
                           frame(FrameKind::snapshot, Channel(c), self->feeds_[c]->snapshot())));
      }
      self->send(*s, std::make_shared<std::vector<U8> const>(
                         frame(FrameKind::ready, Channel::status, {})));
      if (self->sessions_.count(s->id)) {
        self->writeNext(s);
        self->readNext(s);
      }
    }
    self->accept();
  });
}

void StateServer::armTimer() {
  if (options_.publishPeriod <= 0) return;
  timer_.expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(
      std::chrono::duration<double>(options_.publishPeriod)));
  timer_.async_wait([alive = self_](boost::system::error_code ec) {
    StateServer* self = *alive;
    if (self == nullptr || ec) return;
    self->publish();
    self->armTimer();
  });
}

void StateServer::publish() {
  for (std::size_t c = 0; c < kChannels; ++c) {
    if (!feeds_[c]) continue;
    std::vector<U8> delta = feeds_[c]->flush();
    if (delta.empty() || sessions_.empty()) continue;
    Frame f = std::make_shared<std::vector<U8> const>(frame(FrameKind::delta, Channel(c), delta));
    std::vector<std::shared_ptr<Session>> all;
    for (auto& [id, s] : sessions_)
      all.push_back(s);
    for (auto const& s : all) {
      if (!sessions_.count(s->id)) continue;
      send(*s, f);
      if (sessions_.count(s->id)) writeNext(s);
    }
  }
}

void StateServer::send(Session& s, Frame const& f) {
  if (s.queued + f->size() > options_.queueLimit) {
    drop(s.id);
    return;
  }
  s.queue.push_back(f);
  s.queued += f->size();
}

void StateServer::writeNext(std::shared_ptr<Session> const& s) {
  if (s->writing || s->queue.empty()) return;
  s->writing = true;
  Frame f = s->queue.front();
  asio::async_write(s->socket, asio::buffer(*f),
                    [alive = self_, s, f](boost::system::error_code ec, std::size_t n) {
                      StateServer* self = *alive;
                      if (self == nullptr) return;
                      s->writing = false;
                      if (ec) {
                        self->drop(s->id);
                        return;
                      }
                      self->bytesSent_ += n;
                      s->queue.pop_front();
                      s->queued -= f->size();
                      self->writeNext(s);
                    });
}

void StateServer::readNext(std::shared_ptr<Session> const& s) {
  // Readers send nothing; a read only tells that the reader went away.
  s->socket.async_read_some(asio::buffer(s->inbox),
                            [alive = self_, s](boost::system::error_code ec, std::size_t) {
                              StateServer* self = *alive;
                              if (self == nullptr) return;
                              if (ec) {
                                self->drop(s->id);
                                return;
                              }
                              self->readNext(s);
                            });
}

void StateServer::drop(U64 id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return;
  boost::system::error_code ec;
  it->second->socket.close(ec);
  sessions_.erase(it);
  ++dropped_;
}

}  // namespace SrTeStateSync
