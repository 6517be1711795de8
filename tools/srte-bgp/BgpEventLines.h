// srte-bgp's output: what the speaker's sessions do and what becomes of each path, one JSON line
// per event (docs/bgp.md lists them), written through the daemons' line writer.
#pragma once

#include "BgpSession.h"
#include "EventLog.h"

namespace SrTeBgpTool {

class BgpEventLines : public SrTeBgp::SpeakerListener {
 public:
  explicit BgpEventLines(SrTeDaemon::EventLog& log) : log_(log) {}

  void onSessionUp(SrTeBgp::PeerConfig const& peer, SrTeBgp::SessionInfo const& info) override;
  void onSessionDown(SrTeBgp::PeerConfig const& peer, char const* state, std::string const& reason,
                     std::optional<SrTeBgp::NotificationEvent> const& notification,
                     U32 withdrawn) override;
  void onConnectFailed(SrTeBgp::PeerConfig const& peer, std::string const& reason,
                       U32 retrySeconds) override;
  void onPathWritten(SrTeBgp::PeerConfig const& peer, SrTeBgp::SrPolicyNlri const& nlri,
                     SrTeBgp::SrPolicyPath const& path,
                     SrTeBgp::BgpInputTable::Written const& written) override;
  void onPathWithdrawn(SrTeBgp::PeerConfig const& peer, SrTeBgp::SrPolicyNlri const& nlri,
                       std::optional<SrTePolicy::PolicyId> id) override;
  void onPathRefused(SrTeBgp::PeerConfig const& peer, SrTeBgp::SrPolicyNlri const* nlri,
                     char const* rule, SrTeBgp::Problem const& problem,
                     std::optional<SrTePolicy::PolicyId> removed) override;
  void onConnectionRefused(std::string const& address, std::string const& reason) override;

 private:
  SrTeDaemon::EventLog& log_;
};

}  // namespace SrTeBgpTool
