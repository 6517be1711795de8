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
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <map>
#include <memory>
#include <string>

#include "StateSync.h"

namespace SrTeStateSync {

struct ServerOptions {
  // Seconds between two publishes; 0 leaves publishing to the host.
  double publishPeriod = 0.01;
  // Bytes queued for one reader beyond which it is dropped.
  std::size_t queueLimit = 64u << 20;
};

class StateServer {
 public:
  // Starts listening on `path`. A socket file left by an agent that is gone is replaced; one
  // that an agent still answers on, or a path that is not a socket, raises
  // std::runtime_error naming the path and why.
  StateServer(boost::asio::io_context& io, std::string path, ServedState const& served,
              ServerOptions options = {});
  // Closes every connection and removes the socket file.
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

 private:
  struct Session;
  using Frame = std::shared_ptr<std::vector<U8> const>;

  void accept();
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
  // Cleared when the server goes, so that handlers still queued in the io_context do nothing.
  std::shared_ptr<StateServer*> self_;
  std::map<U64, std::shared_ptr<Session>> sessions_;
  U64 nextId_ = 1;
  U64 bytesSent_ = 0;
  U64 dropped_ = 0;
};

}  // namespace SrTeStateSync
