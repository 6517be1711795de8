// The reader's side of the state socket: connects to an agent, mounts fresh read-only copies
// of what it serves (MountedState), applies its frames, and when the connection ends (the
// agent restarted, or a frame could not be applied) connects again and starts over from a
// fresh snapshot into fresh copies. The copies of a connection become current only when its
// `ready` frame arrives, so state() is always a whole state: the last one completed.
//
// Retries wait retryMin seconds, doubling up to retryMax, and start again from retryMin after
// a connection completes its snapshot. Everything runs on the io_context's thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

#include "StateSync.h"

namespace SrTeStateSync {

struct ClientOptions {
  double retryMin = 0.05;
  double retryMax = 1.0;
  // When false the client does not retry: a failed connect or a lost connection stops it.
  bool reconnect = true;
};

class StateClient {
 public:
  StateClient(boost::asio::io_context& io, std::string path, ClientOptions options = {});
  ~StateClient();
  StateClient(StateClient const&) = delete;
  StateClient& operator=(StateClient const&) = delete;

  // Connects (and from then on keeps reconnecting, unless options say otherwise).
  void start();
  // Closes the connection and stops retrying; state() stays as it was.
  void stop();

  // Runs after the current copies changed: when a connection's snapshot completes and after
  // each later frame applied.
  void onChangeIs(std::function<void()> f) { onChange_ = std::move(f); }
  // Runs when a connect fails or a connection ends, with the reason ("connect: ...",
  // "connection lost: ...", "frame refused: ..." for a header that is not a state frame,
  // "frame of <channel> refused: ...", "refused by the agent: <its reason>").
  void onTroubleIs(std::function<void(std::string const&)> f) { onTrouble_ = std::move(f); }

  // Whether some connection has completed its snapshot; state() is valid from then on.
  bool synced() const { return current_ != nullptr; }
  MountedState const& state() const { return *current_; }
  // Snapshots completed so far (one per connection that got that far).
  U64 generation() const { return generation_; }
  U64 framesApplied() const { return framesApplied_; }
  U64 bytesReceived() const { return bytesReceived_; }
  std::string const& lastTrouble() const { return lastTrouble_; }

 private:
  void connect();
  void readHeader();
  void readBody(FrameHeader h);
  void handle(FrameHeader const& h);
  void lost(std::string const& why);

  boost::asio::io_context& io_;
  std::string path_;
  ClientOptions options_;
  boost::asio::local::stream_protocol::socket socket_;
  boost::asio::steady_timer retry_;
  std::shared_ptr<StateClient*> self_;
  bool running_ = false;
  double delay_;
  std::array<U8, FrameHeader::size> header_{};
  std::vector<U8> body_;
  // The copies being filled by this connection's snapshot, until its ready frame.
  std::unique_ptr<MountedState> pending_;
  std::unique_ptr<MountedState> current_;
  bool connectedSynced_ = false;
  U64 generation_ = 0;
  U64 framesApplied_ = 0;
  U64 bytesReceived_ = 0;
  std::string lastTrouble_;
  std::function<void()> onChange_;
  std::function<void(std::string const&)> onTrouble_;
};

}  // namespace SrTeStateSync
