// One configured BGP peer and its session, on a Boost.Asio event loop.
//
// The finite state machine of RFC 4271 in the form a receiver of SR Policy paths needs:
//   Idle -> Connect (an active peer dials; a passive one waits for the speaker to hand it a
//   connection) -> OpenSent (our OPEN is out) -> OpenConfirm (theirs was taken, our KEEPALIVE is
//   out) -> Established (their KEEPALIVE came).
// OPEN offers multiprotocol SR Policy for AFI 1 and 2 and 4-octet AS; capabilities we do not
// know are tolerated. The negotiated hold time is the smaller of the two; KEEPALIVE goes out
// every third of it, and the hold timer expiring sends NOTIFICATION 4 and closes. A message the
// state does not expect is answered by NOTIFICATION 5 (subcode: the state), a malformed header
// by 1, an OPEN we refuse by 2, a malformed UPDATE by 3. A NOTIFICATION from the peer closes the
// session. When a session that was up goes down, exactly that peer's paths leave the table. An
// active peer is dialled again after a back-off that doubles from connectRetry up to 60 s and
// starts over once a session comes up.
//
// A connection handed in while one is being set up replaces it; one handed in while a session
// is in OpenConfirm or Established is closed with NOTIFICATION 6/7 (collision).
//
// Everything runs on the thread that runs the io_context. A handler still queued when the
// session is destroyed finds it gone and does nothing.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "BgpConfig.h"
#include "BgpInputTable.h"
#include "SrPolicyDecoder.h"

namespace SrTeBgp {

// What the peer agreed to when its session came up.
struct SessionInfo {
  U32 as = 0;
  Ludd::IpAddr identifier;
  U16 holdTime = 0;
  Families families;
  std::vector<U8> otherCapabilities;
};

// A NOTIFICATION that ended a session, and who sent it.
struct NotificationEvent {
  bool sent = false;
  U8 code = 0;
  U8 subcode = 0;
};

// Told what the sessions do and what becomes of each path. Every call comes from the event loop.
class SpeakerListener {
 public:
  virtual ~SpeakerListener() = default;
  virtual void onSessionUp(PeerConfig const& peer, SessionInfo const& info) = 0;
  // A connection that had reached OpenSent or later closed; `withdrawn` paths left the table.
  virtual void onSessionDown(PeerConfig const& peer, char const* state, std::string const& reason,
                             std::optional<NotificationEvent> const& notification,
                             U32 withdrawn) = 0;
  // An active peer could not be reached; the next try is in `retrySeconds`.
  virtual void onConnectFailed(PeerConfig const& peer, std::string const& reason,
                               U32 retrySeconds) = 0;
  virtual void onPathWritten(PeerConfig const& peer, SrPolicyNlri const& nlri,
                             SrPolicyPath const& path, BgpInputTable::Written const& written) = 0;
  // `id` is the path's id, or none when the peer withdrew a path that was not in the table.
  virtual void onPathWithdrawn(PeerConfig const& peer, SrPolicyNlri const& nlri,
                               std::optional<SrTePolicy::PolicyId> id) = 0;
  // A path not used: the rule and the problem; `removed` is the id of its earlier version that
  // left the table. `nlri` is null when the NLRI itself could not be read. `rule` is a rule's
  // name (ruleName) or "table-full".
  virtual void onPathRefused(PeerConfig const& peer, SrPolicyNlri const* nlri, char const* rule,
                             Problem const& problem,
                             std::optional<SrTePolicy::PolicyId> removed) = 0;
  // A connection from `address` was turned away: no peer has that address, or its session is
  // already up.
  virtual void onConnectionRefused(std::string const& address, std::string const& reason) = 0;
};

// Writes `notification` on `socket` and closes it, giving up after a second.
void refuseConnection(boost::asio::io_context& io, boost::asio::ip::tcp::socket socket,
                      Notification const& notification);

class BgpSession : private UpdateSink {
 public:
  enum class State : U8 { idle, connect, openSent, openConfirm, established };
  static char const* stateName(State s);

  BgpSession(boost::asio::io_context& io, SpeakerConfig const& speaker, PeerConfig peer, U32 index,
             BgpInputTable& table, SpeakerListener& listener);
  BgpSession(BgpSession const&) = delete;
  BgpSession& operator=(BgpSession const&) = delete;
  ~BgpSession() override;

  PeerConfig const& peer() const { return peer_; }
  State state() const { return state_; }

  // An active peer starts dialling; a passive one waits.
  void start();
  // A connection from the peer's address, accepted by the speaker.
  void accepted(boost::asio::ip::tcp::socket socket);
  // Closes the session with NOTIFICATION 6/2 (administrative shutdown), deletes its paths and
  // dials no more; `done` is called once the NOTIFICATION is written or a second has passed.
  void stop(std::function<void()> done);

 private:
  struct Alive {
    BgpSession* session;
  };

  void dial();
  void dialFailed(std::string const& reason);
  // The connection in socket_ is up: OPEN goes out.
  void connected();
  void read();
  void received(std::size_t n);
  // False once the session closed while handling the message.
  bool handle(MessageType type, U8 const* body, std::size_t n);
  bool handleOpen(U8 const* body, std::size_t n);
  void armHold();
  void armKeepalive();
  void send(Bytes message);
  void write();
  // Ends the connection: sends `notification` first when given, deletes the peer's paths when
  // the session was up, tells the listener and, for an active peer, dials again after the
  // back-off. Returns false, for the message handlers to stop.
  bool close(std::string const& reason, std::optional<Notification> notification = {},
             bool received = false);
  void closeSocket();
  void scheduleDial(U32 seconds);

  // UpdateSink
  void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) override;
  void onWithdraw(SrPolicyNlri const& nlri) override;
  void onRefused(SrPolicyNlri const* nlri, Rule rule, Problem const& problem) override;

  boost::asio::io_context& io_;
  SpeakerConfig const& speaker_;
  PeerConfig const peer_;
  U32 const index_;
  BgpInputTable& table_;
  SpeakerListener& listener_;

  State state_ = State::idle;
  std::optional<boost::asio::ip::tcp::socket> socket_;
  // Bumped on every new connection and close, so that handlers of an old one do nothing.
  U64 generation_ = 0;
  boost::asio::steady_timer holdTimer_;
  boost::asio::steady_timer keepaliveTimer_;
  boost::asio::steady_timer dialTimer_;
  boost::asio::steady_timer closeTimer_;
  std::vector<U8> in_;
  std::size_t inBegin_ = 0, inEnd_ = 0;
  std::deque<Bytes> out_;
  bool writing_ = false;
  // A NOTIFICATION is being written; the socket closes when the queue is empty.
  bool closing_ = false;
  bool stopped_ = false;
  std::function<void()> stopDone_;
  U32 failures_ = 0;
  U16 holdTime_ = 0;
  SessionInfo info_;
  DecodeContext context_;
  SrPolicyDecoder decoder_;
  std::shared_ptr<Alive> alive_;
};

}  // namespace SrTeBgp
