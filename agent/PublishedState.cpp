#include "PublishedState.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

namespace SrTePolicy {

namespace {

// A tunnel by what it forwards: its vias, sorted.
std::string tunnelText(SrTePolicyAgent const& agent, Tunnel::TunnelTable::TunnelId const& id) {
  auto entry = agent.tunnelTable()->entry(id);
  if (!entry) return "<missing tunnel>";
  std::vector<std::string> vias;
  for (auto const& via : *entry) {
    std::ostringstream os;
    os << via.nextHop() << " " << via.intf() << " push " << via.labelOperation();
    vias.push_back(os.str());
  }
  std::sort(vias.begin(), vias.end());
  std::string out = "{";
  for (std::size_t i = 0; i < vias.size(); ++i)
    out += (i ? "; " : "") + vias[i];
  return out + "}";
}

// The tables as a whole, so that what no policy accounts for shows too: every binding-SID
// route with the policy whose FEC it leads to, the number of FECs and of external FEC
// adjacencies, every tunnel, and every exported segment list by its labels.
std::string tablesText(SrTePolicyAgent const& agent) {
  std::map<Fib::FecId, std::string> policyByFec;
  for (auto it = agent.policyStatus()->statusIterConst(); it; ++it) {
    std::ostringstream os;
    os << it->key().endpoint() << " color " << it->key().color();
    policyByFec[it->srTePolicyFecId()] = os.str();
  }
  std::ostringstream os;
  std::vector<std::string> lines;
  Mosk::Ptr<Mpls::Status> lfib = agent.bsidLfib();
  for (auto r = lfib->lfibRouteIter(); r; ++r) {
    std::ostringstream line;
    line << "route " << r.key().topLabel() << " -> ";
    auto adj = lfib->lfibExtFecAdjacency(Mpls::Status::getExtFecAdjacency(r.value()));
    auto policy = adj ? policyByFec.find(adj->fecId()) : policyByFec.end();
    line << (policy == policyByFec.end() ? std::string("no policy") : policy->second);
    lines.push_back(line.str());
  }
  std::sort(lines.begin(), lines.end());
  for (auto const& l : lines)
    os << l << "\n";
  os << "fecs " << agent.srteFwdStatus()->fecCount() << ", external fec adjacencies "
     << lfib->lfibExtFecAdjacencyCount() << "\n";
  lines.clear();
  for (auto t = agent.tunnelTable()->entryIter(); t; ++t)
    lines.push_back("tunnel " + tunnelText(agent, t.key()));
  for (auto l = agent.exportedSegmentLists()->segmentListIterConst(); l; ++l) {
    std::ostringstream line;
    line << "exported [";
    for (U32 i = 0; i < l->size(); ++i) {
      auto segment = l->segment(Ludd::MplsStackEntryIndex(i));
      line << (i ? ", " : "") << (segment ? Mosk::valueToStrep(*segment) : "?");
    }
    lines.push_back(line.str() + "]");
  }
  std::sort(lines.begin(), lines.end());
  for (auto const& l : lines)
    os << l << "\n";
  return os.str();
}

}  // namespace

std::string publishedState(SrTePolicyAgent const& agent) {
  std::map<PolicyKey, std::string> byKey;
  for (auto it = agent.policyStatus()->statusIterConst(); it; ++it) {
    PolicyStatusEntry const& status = *it;
    std::ostringstream os;
    os << "policy " << status.key().endpoint() << " color " << status.key().color() << ": id "
       << status.id() << " bsid " << status.bindingSid() << "\n";
    std::vector<std::string> weighted;
    if (status.weightedViaSet()) {
      for (auto w = status.weightedViaSet()->weightedViaIter(); w; ++w) {
        std::ostringstream ws;
        ws << "  weight " << w.value() << " tunnel " << tunnelText(agent, w.key());
        weighted.push_back(ws.str());
      }
    }
    std::vector<std::string> fecVias;
    Fib::Fec const& fec = agent.srteFwdStatus()->fec(status.srTePolicyFecId());
    for (auto const& via : fec)
      fecVias.push_back("  fec via tunnel " + tunnelText(agent, via.tunnelId()));
    std::sort(weighted.begin(), weighted.end());
    std::sort(fecVias.begin(), fecVias.end());
    for (auto const& w : weighted)
      os << w << "\n";
    for (auto const& v : fecVias)
      os << v << "\n";
    Mpls::LFib::Route route =
        agent.bsidLfib()->lfibRoute(Mpls::RouteKey(status.bindingSid(), Mpls::LFib::Source(1)));
    if (route != Mpls::LFib::Route()) {
      auto adj = agent.bsidLfib()->lfibExtFecAdjacency(Mpls::Status::getExtFecAdjacency(route));
      bool toFec = adj && adj->fecId() == status.srTePolicyFecId();
      os << "  bsid route " << status.bindingSid() << (toFec ? " -> policy fec" : " -> elsewhere")
         << "\n";
    }
    byKey[status.key()] = os.str();
  }
  std::string out;
  for (auto const& [key, text] : byKey)
    out += text;
  out += tablesText(agent);
  return out;
}

}  // namespace SrTePolicy
