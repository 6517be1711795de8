// The agent's side of the state socket: listens on a Unix-domain stream socket, sends every
// reader that connects a snapshot of each served channel and a `ready` frame, then, at each
// publish, flushes every channel and sends the non-empty deltas to every reader.
//
// Everything runs on the thread of the io_context (the agent's event loop, with the scheduler
// driven by Vell::AsioDriver). publish() runs on a short timer, so the changes of a scheduler
// round reach readers within one period; a host may also call it after a round itself.
//
// A reader that stops reading is dropped once the bytes queued for it pass a limit, and one
// that goes away is dropped when a read or write fails; neither holds up the others, and
// nothing queued for one is ever sent to another.
//
// What readers cost: the snapshot is built once and its frames are shared by every reader that
// connects after it, followed by the deltas published since it was built (shared too), until
// those deltas weigh half as much as the snapshot; then the next reader builds a new one. So a
// burst of readers, or readers that connect and go away in a loop, cost one snapshot and not
// one each, and what waits in the queues of slow readers is the same frames, held once. At most
// maxReaders are served; one more gets a `refused` frame that says why and is closed. When the
// process runs out of file descriptors, accepting pauses for a moment instead of spinning.
//
// The socket: its directory must belong to this user or root, and not be writable by others
// unless it is sticky (a directory that is missing is made, private); the socket's mode lets
// the owner connect and, when given, one group (0600 or 0660, whatever the umask). The server
// removes the socket file when it goes only if it is still the one it made: a newer server may
// serve on the path by then.
#pragma once

#include <sys/stat.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "StateSync.h"

namespace SrTeStateSync {

struct ServerOptions {
  // Seconds between two publishes; 0 leaves publishing to the host.
  double publishPeriod = 0.01;
  // Bytes queued for one reader beyond which it is dropped.
  std::size_t queueLimit = 64u << 20;
  // The most readers served at once.
  std::size_t maxReaders = 32;
  // The group whose members may connect besides the owner; none for the owner alone.
  std::optional<gid_t> socketGroup;
  // How long accepting pauses when the process is out of file descriptors.
  double acceptPause = 0.1;
};

class StateServer {
 public:
  // Starts listening on `path`. A socket file left by an agent that is gone is replaced; one
  // that an agent still answers on, a path that is not a socket, or a directory others may
  // change raises std::runtime_error naming the path and why.
  StateServer(boost::asio::io_context& io, std::string path, ServedState const& served,
              ServerOptions options = {});
  // Closes every connection and removes the socket file, unless another has taken its place.
  ~StateServer();
  StateServer(StateServer const&) = delete;
  StateServer& operator=(StateServer const&) = delete;

  std::string const& path() const { return path_; }
  // Flushes every channel and queues the non-empty deltas for every connected reader.
  void publish();
  std::size_t clientCount() const { return sessions_.size(); }
  // Bytes of frames handed to the sockets so far, and readers dropped as slow or gone.
  U64 bytesSent() const { return bytesSent_; }
  U64 clientsDropped() const { return dropped_; }
  // Snapshots built so far, readers refused for the limit, pauses taken for lack of descriptors.
  U64 snapshotsBuilt() const { return snapshotsBuilt_; }
  U64 readersRefused() const { return refused_; }
  U64 acceptPauses() const { return acceptPauses_; }

 private:
  struct Session;
  using Frame = std::shared_ptr<std::vector<U8> const>;

  void accept();
  void welcome(boost::asio::local::stream_protocol::socket socket);
  void refuse(boost::asio::local::stream_protocol::socket socket);
  void armTimer();
  void send(Session& s, Frame const& f);
  void writeNext(std::shared_ptr<Session> const& s);
  void readNext(std::shared_ptr<Session> const& s);
  void drop(U64 id);

  std::string path_;
  ServerOptions options_;
  std::array<std::unique_ptr<Feed>, kChannels> feeds_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer acceptTimer_;
  // The socket file this server made (device and inode), to remove it and nothing else.
  dev_t socketDev_ = 0;
  ino_t socketIno_ = 0;
  // The shared snapshot frames, and the delta frames published since they were built.
  std::vector<Frame> snapshot_;
  std::size_t snapshotBytes_ = 0;
  std::vector<Frame> since_;
  std::size_t sinceBytes_ = 0;
  // Cleared when the server goes, so that handlers still queued in the io_context do nothing.
  std::shared_ptr<StateServer*> self_;
  std::map<U64, std::shared_ptr<Session>> sessions_;
  U64 nextId_ = 1;
  U64 bytesSent_ = 0;
  U64 dropped_ = 0;
  U64 snapshotsBuilt_ = 0;
  U64 refused_ = 0;
  U64 acceptPauses_ = 0;
};

}  // namespace SrTeStateSync
