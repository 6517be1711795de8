// The BGP speaker of srte-bgp: one session per configured peer and the listener that hands
// each incoming connection to the session of its address, all on one Boost.Asio event loop.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "BgpSession.h"

namespace SrTeBgp {

class BgpSpeaker {
 public:
  // Sessions write into `table` and report to `listener`; both outlive the speaker.
  BgpSpeaker(boost::asio::io_context& io, SpeakerConfig config, BgpInputTable& table,
             SpeakerListener& listener);
  BgpSpeaker(BgpSpeaker const&) = delete;
  BgpSpeaker& operator=(BgpSpeaker const&) = delete;
  ~BgpSpeaker();

  // Opens the listening socket (raises boost::system::system_error when it cannot) and starts
  // every session.
  void start();
  // The port listened on (the system's pick when the configuration says 0), if any.
  std::optional<U16> listenPort() const { return port_; }
  SpeakerConfig const& config() const { return config_; }
  std::vector<std::unique_ptr<BgpSession>> const& sessions() const { return sessions_; }

  // Stops listening and closes every session with NOTIFICATION 6/2; `done` is called once all
  // are closed.
  void stop(std::function<void()> done);

 private:
  void accept();

  struct Alive {
    BgpSpeaker* speaker;
  };

  boost::asio::io_context& io_;
  SpeakerConfig const config_;
  SpeakerListener& listener_;
  std::optional<boost::asio::ip::tcp::acceptor> acceptor_;
  std::optional<U16> port_;
  std::vector<std::unique_ptr<BgpSession>> sessions_;
  std::shared_ptr<Alive> alive_;
};

}  // namespace SrTeBgp
