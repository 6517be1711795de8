// The agent's side of the state socket (StateServer.h).
#include "StateServer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
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

std::string modeText(mode_t mode) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(mode & 07777));
  return buf;
}

// Makes sure that nobody but this user (and root) can put another file at `path`: its directory
// is made when missing (private, or reachable by `group`), and must belong to this user or root
// and be writable by nobody else, unless it is sticky (as /tmp is).
void checkDirectory(std::string const& path, std::optional<gid_t> group) {
  std::size_t const slash = path.rfind('/');
  std::string const dir = slash == std::string::npos ? "."
                          : slash == 0               ? "/"
                                                     : path.substr(0, slash);
  struct stat st {};
  if (::lstat(dir.c_str(), &st) != 0 && errno == ENOENT) {
    if (::mkdir(dir.c_str(), 0700) != 0) {
      throw std::runtime_error("cannot make the socket's directory " + dir + ": " +
                               std::strerror(errno));
    }
    if (group && (::chown(dir.c_str(), static_cast<uid_t>(-1), *group) != 0 ||
                  ::chmod(dir.c_str(), 0710) != 0)) {
      throw std::runtime_error("cannot open the socket's directory " + dir + " to group " +
                               std::to_string(*group) + ": " + std::strerror(errno));
    }
  }
  if (::lstat(dir.c_str(), &st) != 0) {
    throw std::runtime_error("cannot look at the socket's directory " + dir + ": " +
                             std::strerror(errno));
  }
  if (!S_ISDIR(st.st_mode)) {
    throw std::runtime_error("the socket's directory " + dir + " is not a directory");
  }
  if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
    throw std::runtime_error("the socket's directory " + dir + " belongs to uid " +
                             std::to_string(st.st_uid) + ", neither to root nor to this user");
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) && !(st.st_mode & S_ISVTX)) {
    throw std::runtime_error("the socket's directory " + dir + " may be written by others (mode " +
                             modeText(st.st_mode) + ") and is not sticky");
  }
}

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
      acceptTimer_(io),
      self_(std::make_shared<StateServer*>(this)) {
  checkDirectory(path_, options_.socketGroup);
  clearStalePath(io, path_);
  boost::system::error_code ec;
  acceptor_.open(Local(), ec);
  if (!ec) {
    // Born with the owner's mode alone, so nobody else connects before the mode below is set.
    mode_t const umask = ::umask(0177);
    acceptor_.bind(Local::endpoint(path_), ec);
    ::umask(umask);
  }
  if (ec) throw std::runtime_error("cannot listen on " + path_ + ": " + ec.message());
  struct stat st {};
  if (::lstat(path_.c_str(), &st) != 0) {
    throw std::runtime_error("cannot look at " + path_ + ": " + std::strerror(errno));
  }
  socketDev_ = st.st_dev;
  socketIno_ = st.st_ino;
  if (options_.socketGroup &&
      (::chown(path_.c_str(), static_cast<uid_t>(-1), *options_.socketGroup) != 0 ||
       ::chmod(path_.c_str(), 0660) != 0)) {
    int const err = errno;
    ::unlink(path_.c_str());
    throw std::runtime_error("cannot open " + path_ + " to group " +
                             std::to_string(*options_.socketGroup) + ": " + std::strerror(err));
  }
  acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    ::unlink(path_.c_str());
    throw std::runtime_error("cannot listen on " + path_ + ": " + ec.message());
  }
  accept();
  armTimer();
}

StateServer::~StateServer() {
  *self_ = nullptr;
  boost::system::error_code ec;
  timer_.cancel();
  acceptTimer_.cancel();
  acceptor_.close(ec);
  for (auto& [id, s] : sessions_)
    s->socket.close(ec);
  sessions_.clear();
  // Only the file this server made: another agent may have taken the path since.
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == socketDev_ && st.st_ino == socketIno_) {
    ::unlink(path_.c_str());
  }
}

void StateServer::accept() {
  acceptor_.async_accept([alive = self_](boost::system::error_code ec, Local::socket socket) {
    StateServer* self = *alive;
    if (self == nullptr || ec == asio::error::operation_aborted) return;
    if (ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
        ec == asio::error::no_memory || ec.value() == ENFILE) {
      // The connection stays in the backlog, and accepting again at once would fail again at
      // once: pause, and let the process give descriptors back.
      ++self->acceptPauses_;
      self->acceptTimer_.expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(
          std::chrono::duration<double>(self->options_.acceptPause)));
      self->acceptTimer_.async_wait([alive](boost::system::error_code e) {
        if (!e && *alive != nullptr) (*alive)->accept();
      });
      return;
    }
    if (!ec) {
      if (self->sessions_.size() >= self->options_.maxReaders) {
        self->refuse(std::move(socket));
      } else {
        self->welcome(std::move(socket));
      }
    }
    self->accept();
  });
}

void StateServer::welcome(Local::socket socket) {
  if (snapshot_.empty()) {
    // The whole state as it is now; deltas from here on may repeat some of it.
    for (std::size_t c = 0; c < kChannels; ++c) {
      if (!feeds_[c]) continue;
      snapshot_.push_back(std::make_shared<std::vector<U8> const>(
          frame(FrameKind::snapshot, Channel(c), feeds_[c]->snapshot())));
      snapshotBytes_ += snapshot_.back()->size();
    }
    snapshot_.push_back(
        std::make_shared<std::vector<U8> const>(frame(FrameKind::ready, Channel::status, {})));
    since_.clear();
    sinceBytes_ = 0;
    ++snapshotsBuilt_;
  }
  auto s = std::make_shared<Session>(nextId_++, std::move(socket));
  sessions_.emplace(s->id, s);
  // The snapshot's channels, the deltas published since it was built, then its ready frame.
  for (std::size_t i = 0; i + 1 < snapshot_.size(); ++i)
    send(*s, snapshot_[i]);
  for (Frame const& f : since_)
    send(*s, f);
  send(*s, snapshot_.back());
  if (sessions_.count(s->id)) {
    writeNext(s);
    readNext(s);
  }
}

void StateServer::refuse(Local::socket socket) {
  ++refused_;
  std::string const why = "the agent serves at most " + std::to_string(options_.maxReaders) +
                          " readers at once; try again later";
  std::vector<U8> const f =
      frame(FrameKind::refused, Channel::status, std::vector<U8>(why.begin(), why.end()));
  // A fresh socket's buffer takes the short frame whole; a reader that does not even take that
  // is not waited for.
  boost::system::error_code ec;
  socket.non_blocking(true, ec);
  socket.write_some(asio::buffer(f), ec);
  socket.close(ec);
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
    if (delta.empty() || (sessions_.empty() && snapshot_.empty())) continue;
    Frame f = std::make_shared<std::vector<U8> const>(frame(FrameKind::delta, Channel(c), delta));
    if (!snapshot_.empty()) {
      since_.push_back(f);
      sinceBytes_ += f->size();
    }
    std::vector<std::shared_ptr<Session>> all;
    for (auto& [id, s] : sessions_)
      all.push_back(s);
    for (auto const& s : all) {
      if (!sessions_.count(s->id)) continue;
      send(*s, f);
      if (sessions_.count(s->id)) writeNext(s);
    }
  }
  // Past this, a new snapshot is cheaper for the next reader than the deltas to replay.
  if (sinceBytes_ > snapshotBytes_ / 2) {
    snapshot_.clear();
    since_.clear();
    snapshotBytes_ = sinceBytes_ = 0;
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
