// srte-bgp's JSON lines.
#include "BgpEventLines.h"

namespace SrTeBgpTool {

using SrTeDaemon::OrderedJson;

namespace {

OrderedJson peerLine(SrTeBgp::PeerConfig const& peer) {
  OrderedJson f;
  f["peer"] = Mosk::valueToStrep(peer.address);
  return f;
}

void pathKey(OrderedJson& f, SrTeBgp::SrPolicyNlri const& nlri) {
  f["afi"] = nlri.afi == 1 ? "ipv4" : "ipv6";
  f["distinguisher"] = nlri.distinguisher;
  f["color"] = nlri.color.value();
  f["endpoint"] = Mosk::valueToStrep(nlri.endpoint);
}

OrderedJson idOf(std::optional<SrTePolicy::PolicyId> const& id) {
  return id ? OrderedJson(id->index()) : OrderedJson(nullptr);
}

OrderedJson families(SrTeBgp::Families const& f) {
  OrderedJson out = OrderedJson::array();
  if (f.ipv4) out.push_back("ipv4-srpolicy");
  if (f.ipv6) out.push_back("ipv6-srpolicy");
  return out;
}

}  // namespace

void BgpEventLines::onSessionUp(SrTeBgp::PeerConfig const& peer, SrTeBgp::SessionInfo const& info) {
  OrderedJson f = peerLine(peer);
  f["as"] = info.as;
  f["identifier"] = Mosk::valueToStrep(info.identifier);
  f["holdTime"] = info.holdTime;
  f["families"] = families(info.families);
  f["otherCapabilities"] = info.otherCapabilities;
  log_.write("session-up", f);
}

void BgpEventLines::onSessionDown(SrTeBgp::PeerConfig const& peer, char const* state,
                                  std::string const& reason,
                                  std::optional<SrTeBgp::NotificationEvent> const& notification,
                                  U32 withdrawn) {
  OrderedJson f = peerLine(peer);
  f["state"] = state;
  f["reason"] = reason;
  if (notification) {
    f["notification"] = {{"direction", notification->sent ? "sent" : "received"},
                         {"code", notification->code},
                         {"subcode", notification->subcode}};
  } else {
    f["notification"] = nullptr;
  }
  f["withdrawn"] = withdrawn;
  log_.write("session-down", f);
}

void BgpEventLines::onConnectFailed(SrTeBgp::PeerConfig const& peer, std::string const& reason,
                                    U32 retrySeconds) {
  OrderedJson f = peerLine(peer);
  f["reason"] = reason;
  f["retryIn"] = retrySeconds;
  log_.write("connect-failed", f);
}

void BgpEventLines::onPathWritten(SrTeBgp::PeerConfig const& peer,
                                  SrTeBgp::SrPolicyNlri const& nlri,
                                  SrTeBgp::SrPolicyPath const& path,
                                  SrTeBgp::BgpInputTable::Written const& written) {
  using Change = SrTeBgp::BgpInputTable::Change;
  OrderedJson f = peerLine(peer);
  f["change"] = written.change == Change::added      ? "added"
                : written.change == Change::replaced ? "replaced"
                                                     : "unchanged";
  pathKey(f, nlri);
  f["id"] = written.id.index();
  SrTePolicy::PolicyInputEntry const& r = path.record;
  f["preference"] = r.preference().value();
  f["bindingSid"] =
      r.bindingSid().isNone() ? OrderedJson(nullptr) : OrderedJson(r.bindingSid().value());
  OrderedJson lists = OrderedJson::array();
  for (auto const* l = r.segmentListBegin(); l != r.segmentListEnd(); ++l) {
    OrderedJson labels = OrderedJson::array();
    for (U32 i = 0; i < l->segList().size(); ++i)
      labels.push_back(l->segList().label(i).value());
    lists.push_back({{"weight", l->weight().value()}, {"labels", std::move(labels)}});
  }
  f["segmentLists"] = std::move(lists);
  if (!path.candidatePathName.empty()) f["candidatePathName"] = path.candidatePathName;
  if (!path.policyName.empty()) f["policyName"] = path.policyName;
  if (path.priority >= 0) f["priority"] = path.priority;
  if (path.noteCount) {
    OrderedJson notes = OrderedJson::array();
    for (U32 i = 0; i < path.noteCount; ++i) {
      notes.push_back(
          {{"field", SrTeBgp::noteField(path.notes[i])}, {"reason", noteText(path.notes[i])}});
    }
    if (path.notesLost) {
      notes.push_back({{"field", "tunnel-encapsulation.sr-policy"},
                       {"reason", std::to_string(path.notesLost) + " more notes"}});
    }
    f["notes"] = std::move(notes);
  }
  log_.write("path", f);
}

void BgpEventLines::onPathWithdrawn(SrTeBgp::PeerConfig const& peer,
                                    SrTeBgp::SrPolicyNlri const& nlri,
                                    std::optional<SrTePolicy::PolicyId> id) {
  OrderedJson f = peerLine(peer);
  f["change"] = "withdrawn";
  pathKey(f, nlri);
  f["id"] = idOf(id);
  log_.write("path", f);
}

void BgpEventLines::onPathRefused(SrTeBgp::PeerConfig const& peer,
                                  SrTeBgp::SrPolicyNlri const* nlri, char const* rule,
                                  SrTeBgp::Problem const& problem,
                                  std::optional<SrTePolicy::PolicyId> removed) {
  OrderedJson f = peerLine(peer);
  f["change"] = "refused";
  if (nlri) pathKey(f, *nlri);
  f["rule"] = rule;
  f["reason"] = problem.reason;
  f["field"] = problem.field;
  f["removed"] = idOf(removed);
  log_.write("path", f);
}

void BgpEventLines::onConnectionRefused(std::string const& address, std::string const& reason) {
  log_.write("connection-refused", {{"address", address}, {"reason", reason}});
}

}  // namespace SrTeBgpTool
