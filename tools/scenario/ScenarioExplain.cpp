#include "ScenarioExplain.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include "MplsHelper/IndexAllocators.h"
#include "Scenario.h"

namespace SrTeScenario {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyKey;
using SrTePolicy::Priority;
using SrTePolicy::SrTePolicyAgent;

namespace {

// The route source under which the binding-SID routes are keyed.
constexpr U8 kBsidRouteKeySource = 1;

template <class T>
std::string text(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

char const* routeTypeName(Mpls::LFib::RouteType t) {
  switch (t) {
    case Mpls::LFib::RouteType::unspecified:
      return "unspecified";
    case Mpls::LFib::RouteType::label:
      return "label";
    case Mpls::LFib::RouteType::pseudowire:
      return "pseudowire";
  }
  return "?";
}

char const* kindName(Mpls::AdjacencyKind k) {
  switch (k) {
    case Mpls::AdjacencyKind::none:
      return "none";
    case Mpls::AdjacencyKind::viaSet:
      return "viaSet";
    case Mpls::AdjacencyKind::adjacency:
      return "adjacency";
    case Mpls::AdjacencyKind::extFec:
      return "extFec";
  }
  return "?";
}

char const* actionName(Ludd::MplsLabelAction a) {
  switch (a) {
    case Ludd::MplsLabelAction::actionNone:
      return "none";
    case Ludd::MplsLabelAction::actionPop:
      return "pop";
    case Ludd::MplsLabelAction::actionSwap:
      return "swap";
    case Ludd::MplsLabelAction::actionForward:
      return "forward";
  }
  return "?";
}

std::string adjacencyName(Mpls::AdjacencyKey const& k, PlatformLoader const* loader) {
  std::string out = std::string(kindName(k.kind())) + " " + std::to_string(k.index());
  if (loader) {
    U64 name = k.kind() == Mpls::AdjacencyKind::extFec ? loader->extFecName(k.index())
                                                       : loader->adjacencyName(k.index());
    if (name != k.index()) out += " (scenario's " + std::to_string(name) + ")";
  }
  return out;
}

std::string viaText(Mpls::Via const& v) {
  std::string out = text(v.nextHop()) + " " + text(v.intf()) + " " + actionName(v.labelAction());
  if (!v.outLabel().isNone()) out += " " + std::to_string(v.outLabel().value());
  return out;
}

// Why the resolver passes over `route`, or empty when it uses it.
std::string skipReason(SrTePolicy::SegmentResolver const& resolver, Mpls::Status const& lfib,
                       Mpls::LFib::Route const& route) {
  if (route.source().value() == 0) return "source 0 is never used";
  if (!resolver.skipMplsRouteForResolution(route)) return "";
  if (route.routeType() == Mpls::LFib::RouteType::pseudowire) return "pseudowire route, skipped";
  std::optional<Mpls::ViaSet> set = lfib.viaSet(route.adjacencyKey().index());
  if (set) {
    for (Mpls::Via const& v : *set) {
      if (FecIdIntfId::isNexthopGroupIdIntfId(v.intf())) {
        return "via set " + std::to_string(route.adjacencyKey().index()) +
               " goes through next-hop group " + text(v.intf()) + ", skipped";
      }
      if (DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intf())) {
        return "via set " + std::to_string(route.adjacencyKey().index()) +
               " goes through dynamic tunnel " + text(v.intf()) + ", skipped";
      }
    }
  }
  return "skipped";
}

class Explainer {
 public:
  Explainer(StateView const& view, PlatformLoader const* loader)
      : view_(view), loader_(loader), lfib_(*view.lfib) {}

  OrderedJson state(bool platform) {
    OrderedJson out;
    if (view_.time) out["time"] = std::round(*view_.time * 1e6) / 1e6;
    out["policies"] = policies();
    out["segmentLists"] = segmentLists();
    out["policyFecs"] = policyFecs();
    out["bindingSidRoutes"] = bindingSidRoutes();
    out["warnings"] = warnings();
    if (platform) out["platform"] = platformTables();
    return out;
  }

 private:
  // Policies.

  OrderedJson policies() {
    std::set<PolicyKey> keys;
    for (auto it = view_.keyToIdMap->mapEntryIterConst(); it; ++it)
      keys.insert(it.key());
    for (auto it = view_.ecPolicy->policyIterConst(); it; ++it)
      keys.insert(it.key());
    for (auto it = view_.policyStatus->statusIterConst(); it; ++it)
      keys.insert(it.key());
    OrderedJson out = OrderedJson::array();
    for (PolicyKey const& key : keys)
      out.push_back(policy(key));
    return out;
  }

  OrderedJson policy(PolicyKey const& key) {
    Mosk::Ptr<SrTePolicy::Policy const> ec = view_.ecPolicy->policy(key);
    Mosk::Ptr<SrTePolicy::PolicyEntry const> active = ec ? ec->active() : nullptr;
    Mosk::Ptr<SrTePolicy::PolicyEntry const> best;
    std::map<U32, Mosk::Ptr<SrTePolicy::PolicyEntry const>> eligible;
    if (ec) {
      for (auto it = ec->candidateIterConst(); it; ++it) {
        if (!best) best = it.ptr();
        eligible[it.key().id()] = it.ptr();
      }
    }

    // Every candidate known for the key, ranked by the priority its input gives it.
    std::map<Priority, U32> ranked;
    if (auto ids = view_.keyToIdMap->mapEntry(key)) {
      for (auto it = ids->policyIdIter(); it; ++it) {
        if (auto entry = view_.selectionInput->policyIdEntry(it.key().value())) {
          ranked[Priority(entry->preference(), entry->source(), entry->routerId(), entry->id())] =
              entry->id();
        }
      }
    }
    for (auto const& [id, pe] : eligible) {
      if (!view_.selectionInput->policyIdEntry(id)) ranked[pe->priority()] = id;
    }

    OrderedJson out;
    out["endpoint"] = text(key.endpoint());
    out["color"] = key.color().value();
    out["name"] = keyName(key);
    out["active"] = active ? OrderedJson(candidateName(PolicyId(active->priority().id())))
                           : OrderedJson(nullptr);
    out["activeBindingSid"] = active && !active->bindingSid().isNone()
                                  ? OrderedJson(active->bindingSid().value())
                                  : OrderedJson(nullptr);
    out["published"] = published(key);
    OrderedJson cands = OrderedJson::array();
    U32 rank = 0;
    for (auto const& [priority, id] : ranked) {
      ++rank;
      cands.push_back(candidate(rank, priority, id, active, best, eligible));
    }
    out["candidates"] = cands;
    return out;
  }

  OrderedJson candidate(U32 rank, Priority const& priority, U32 id,
                        Mosk::Ptr<SrTePolicy::PolicyEntry const> const& active,
                        Mosk::Ptr<SrTePolicy::PolicyEntry const> const& best,
                        std::map<U32, Mosk::Ptr<SrTePolicy::PolicyEntry const>> const& eligible) {
    auto entry = view_.selectionInput->policyIdEntry(id);
    OrderedJson out;
    out["rank"] = rank;
    out["name"] = candidateName(PolicyId(id));
    out["policyId"] = id;
    out["source"] = sourceName(priority.source());
    out["preference"] = priority.preference().value();
    out["routerId"] = text(priority.routerId());
    Ludd::MplsLabel bsid = entry ? entry->bindingSid() : eligible.at(id)->bindingSid();
    out["bindingSid"] = bsid.isNone() ? OrderedJson(nullptr) : OrderedJson(bsid.value());

    OrderedJson lists = OrderedJson::array();
    U32 resolved = 0;
    if (entry) {
      std::map<U32, U32> weights;
      for (auto it = entry->wSegmentListIter(); it; ++it)
        weights[it.key().value()] = it.value().value();
      for (auto const& [slId, weight] : weights) {
        OrderedJson l;
        l["id"] = slId;
        l["labels"] = nullptr;
        auto known = view_.segmentLists->find(slId);
        if (known != view_.segmentLists->end()) l["labels"] = known->second.labels;
        l["weight"] = weight;
        auto status = view_.segmentListStatus->status(SrTePolicy::SegmentListId(slId));
        if (status) ++resolved;
        l["tunnel"] = status ? OrderedJson(tunnelName(status->tunnelId())) : OrderedJson(nullptr);
        lists.push_back(l);
      }
    }

    std::string state;
    std::string why;
    bool isEligible = eligible.count(id) != 0;
    if (isEligible && active && active->priority().id() == id) {
      state = "active";
      why = "the best ranked eligible candidate";
    } else if (isEligible && active && best && best->priority().id() == id &&
               best->priority().sameExceptId(active->priority())) {
      state = "kept out";
      why =
          "ranks first, but differs from the active candidate only by its id: the active one "
          "is kept";
    } else if (isEligible && active) {
      state = "lower rank";
      why = "eligible, but ranks below the active candidate " +
            candidateName(PolicyId(active->priority().id()));
    } else if (isEligible) {
      state = "not chosen";
      why = "eligible, but selection has not chosen an active candidate yet";
    } else if (!entry) {
      state = "withdrawn";
      why = "its source withdrew it; selection has not removed it yet";
    } else if (resolved > 0) {
      state = "selection pending";
      why = "has a resolved segment list; selection has not taken it in yet";
    } else {
      state = "no resolved segment list";
      why = entry->wSegmentListCount() == 0
                ? "it has no segment list"
                : std::string("none of its segment lists resolves; see the segment lists");
    }
    out["state"] = state;
    out["why"] = why;
    out["segmentLists"] = lists;
    return out;
  }

  OrderedJson published(PolicyKey const& key) {
    auto status = view_.policyStatus->status(key);
    if (!status) return nullptr;
    OrderedJson out;
    out["candidate"] = candidateName(PolicyId(status->id()));
    out["bindingSid"] = status->bindingSid().isNone() ? OrderedJson(nullptr)
                                                      : OrderedJson(status->bindingSid().value());
    out["fec"] = fecName(status->srTePolicyFecId());
    std::map<Tunnel::TunnelTable::TunnelId, U32> tunnels;
    if (status->weightedViaSet()) {
      for (auto it = status->weightedViaSet()->weightedViaIter(); it; ++it)
        tunnels[it.key()] = it.value().value();
    }
    OrderedJson wt = OrderedJson::array();
    for (auto const& [tunnel, weight] : tunnels)
      wt.push_back(OrderedJson{{"tunnel", tunnelName(tunnel)}, {"weight", weight}});
    out["tunnels"] = wt;
    out["bindingSidRoute"] = bsidRouteTarget(status->bindingSid());
    return out;
  }

  // Where the binding-SID route of `bsid` leads: the FEC's name, or null.
  OrderedJson bsidRouteTarget(Ludd::MplsLabel bsid) {
    if (bsid.isNone()) return nullptr;
    Mpls::Status const* lfib = view_.bsidLfib.ptr();
    Mpls::LFib::Route route =
        lfib->lfibRoute(Mpls::RouteKey(bsid, Mpls::LFib::Source(kBsidRouteKeySource)));
    if (route == Mpls::LFib::Route()) return nullptr;
    auto adj = lfib->lfibExtFecAdjacency(route.adjacencyKey().index());
    if (!adj)
      return "external FEC adjacency " + std::to_string(route.adjacencyKey().index()) +
             " (missing)";
    return fecName(adj->fecId());
  }

  // Segment lists.

  OrderedJson segmentLists() {
    OrderedJson out = OrderedJson::array();
    for (auto const& [id, list] : *view_.segmentLists)
      out.push_back(segmentList(id, list));
    return out;
  }

  OrderedJson segmentList(U32 id, SegmentListInfo const& list) {
    OrderedJson out;
    out["id"] = id;
    out["labels"] = list.labels;
    OrderedJson usedBy = OrderedJson::array();
    for (U32 pid : list.users)
      usedBy.push_back(candidateName(PolicyId(pid)));
    out["usedBy"] = usedBy;

    auto status = view_.segmentListStatus->status(SrTePolicy::SegmentListId(id));
    auto topStatus = list.segmentIds.empty()
                         ? nullptr
                         : view_.segmentStatus->status(SrTePolicy::SegmentId(list.segmentIds[0]));
    if (status) {
      out["resolved"] = true;
      out["tunnel"] = tunnelName(status->tunnelId());
      out["via"] = topStatus ? viaRoute(Ludd::MplsLabel(list.labels[0]), topStatus->adjKey()) : "";
      OrderedJson hops = OrderedJson::array();
      if (auto entry = view_.tunnelTable->entry(status->tunnelId())) {
        for (auto const& via : *entry) {
          hops.push_back(OrderedJson{{"nextHop", text(via.nextHop())},
                                     {"interface", text(via.intf())},
                                     {"push", stackText(via.labelOperation())}});
        }
      }
      out["nextHops"] = hops;
      return out;
    }
    out["resolved"] = false;
    out["why"] = unresolvedReason(list, topStatus);
    return out;
  }

  // "top label 16001: LFIB route of source 1 to adjacency 1".
  std::string viaRoute(Ludd::MplsLabel top, Mpls::AdjacencyKey const& adjKey) {
    std::string out = "top label " + std::to_string(top.value()) + ": ";
    for (U32 s = 1; s <= 255; ++s) {
      Mpls::LFib::Route r = lfib_.lfibRoute(Mpls::RouteKey(top, Mpls::LFib::Source(U8(s))));
      if (r != Mpls::LFib::Route() && r.adjacencyKey() == adjKey) {
        return out + "LFIB route of source " + std::to_string(s) + " to " +
               adjacencyName(adjKey, loader_);
      }
    }
    return out + adjacencyName(adjKey, loader_) + " (its route has changed since)";
  }

  std::string unresolvedReason(SegmentListInfo const& list,
                               Mosk::Ptr<SrTePolicy::SegmentResolve const> const& topStatus) {
    if (list.labels.empty()) return "the list has no label";
    Ludd::MplsLabel top(list.labels[0]);
    std::string label = "top label " + std::to_string(top.value());
    if (!topStatus) return unresolvedTop(top, label);
    // The top segment resolved; the adjacency yields no next hop.
    Mpls::AdjacencyKey const& k = topStatus->adjKey();
    std::string via = label + " resolves to " + adjacencyName(k, loader_) + ", ";
    if (k.kind() == Mpls::AdjacencyKind::extFec) {
      auto ext = lfib_.lfibExtFecAdjacency(k.index());
      if (!ext) return via + "which does not exist: no next hop";
      U32 type = ext->fecId().adjType();
      if (type > 1) return via + "whose FEC " + fecName(ext->fecId()) + " carries no next hop";
      Fib::Fec const& fec = type == 0 ? view_.forwardingStatus->fec(ext->fecId())
                                      : view_.forwarding6Status->fec(ext->fecId());
      if (fec == Fib::Fec()) return via + "whose FEC " + fecName(ext->fecId()) + " does not exist";
      if (fec.viaCount() == 0) return via + "whose FEC " + fecName(ext->fecId()) + " has no via";
      if (list.labels.size() == 1 && ext->labelAction() != Ludd::MplsLabelAction::actionForward) {
        return via + "which does not forward the top label (action " +
               actionName(ext->labelAction()) +
               ") and the list has no other label: no label stack to push";
      }
      return via + "which yields next hops: the list is queued for resolution";
    }
    auto adj = lfib_.lfibAdjacency(k.index());
    if (!adj) return via + "but LFIB adjacency " + std::to_string(k.index()) + " does not exist";
    if (adj->via().empty()) return via + "which has no via: no next hop";
    if (list.labels.size() == 1) {
      bool swaps = std::any_of(adj->via().begin(), adj->via().end(), [](Mpls::Via const& v) {
        return v.labelAction() == Ludd::MplsLabelAction::actionSwap;
      });
      if (!swaps) {
        return via +
               "whose vias push no label (none swaps) and the list has no other label: "
               "no label stack to push";
      }
    }
    return via + "which yields next hops: the list is queued for resolution";
  }

  // The top segment has no status: the routes of its label, judged as the resolver does.
  std::string unresolvedTop(Ludd::MplsLabel top, std::string const& label) {
    SrTePolicy::SegmentResolver const& resolver = *view_.resolver;
    std::vector<std::string> routes;
    std::optional<U32> usable;
    for (U32 s = 0; s <= 255; ++s) {
      Mpls::LFib::Route r = lfib_.lfibRoute(Mpls::RouteKey(top, Mpls::LFib::Source(U8(s))));
      if (r == Mpls::LFib::Route()) continue;
      std::string skip = skipReason(resolver, lfib_, r);
      if (skip.empty() && !usable) usable = s;
      routes.push_back("source " + std::to_string(s) + ": " + (skip.empty() ? "usable" : skip));
    }
    if (routes.empty()) return label + " has no LFIB route";
    std::string list;
    for (auto const& r : routes)
      list += (list.empty() ? "" : "; ") + r;
    if (usable) {
      return label + " has a usable route (source " + std::to_string(*usable) +
             ") but the segment is not resolved: an incremental LFIB change (a route of another "
             "source removed or skipped) withdrew it, and only a full LFIB pass or a change of "
             "this route brings it back (" +
             list + ")";
    }
    return label + " has no usable LFIB route (" + list + ")";
  }

  // Published FECs and binding-SID routes.

  OrderedJson policyFecs() {
    std::map<Fib::FecId, OrderedJson> fecs;
    for (auto it = view_.srteFwdStatus->fecIter(); it; ++it) {
      Fib::Fec const& fec = view_.srteFwdStatus->fec(it.key());
      OrderedJson f;
      f["fec"] = fecName(it.key());
      auto key = view_.policyStatus->fecIdToPolicyKey(it.key());
      f["policy"] = key ? OrderedJson(keyName(*key)) : OrderedJson(nullptr);
      std::vector<Tunnel::TunnelTable::TunnelId> tunnels;
      for (Fib::Via const& v : fec)
        tunnels.push_back(v.tunnelId());
      std::sort(tunnels.begin(), tunnels.end());
      OrderedJson t = OrderedJson::array();
      for (auto const& id : tunnels)
        t.push_back(tunnelName(id));
      f["tunnels"] = t;
      fecs[it.key()] = f;
    }
    OrderedJson out = OrderedJson::array();
    for (auto& [id, f] : fecs)
      out.push_back(f);
    return out;
  }

  OrderedJson bindingSidRoutes() {
    Mpls::Status const* lfib = view_.bsidLfib.ptr();
    std::map<Mpls::RouteKey, OrderedJson> routes;
    for (auto it = lfib->lfibRouteIter(); it; ++it) {
      Mpls::LFib::Route const& r = it.value();
      OrderedJson j;
      j["label"] = r.key().topLabel().value();
      j["source"] = r.source().value();
      U64 index = r.adjacencyKey().index();
      j["extFecAdjacency"] = index;
      j["extFecAdjacencyName"] =
          std::to_string(index >> MplsHelper::LfibGenAdjIdxAllocator::sourceShift) + ":" +
          std::to_string(index & MplsHelper::LfibGenAdjIdxAllocator::counterMask);
      auto adj = lfib->lfibExtFecAdjacency(r.adjacencyKey().index());
      j["fec"] = adj ? OrderedJson(fecName(adj->fecId())) : OrderedJson(nullptr);
      auto key = adj ? view_.policyStatus->fecIdToPolicyKey(adj->fecId()) : std::nullopt;
      j["policy"] = key ? OrderedJson(keyName(*key)) : OrderedJson(nullptr);
      routes[it.key()] = j;
    }
    OrderedJson out = OrderedJson::array();
    for (auto& [k, j] : routes)
      out.push_back(j);
    return out;
  }

  OrderedJson warnings() {
    // Binding SIDs claimed by the active candidates of more than one policy.
    std::map<U32, std::set<PolicyKey>> claims;
    for (auto it = view_.ecPolicy->policyIterConst(); it; ++it) {
      auto active = it.ptr()->active();
      if (active && !active->bindingSid().isNone()) {
        claims[active->bindingSid().value()].insert(it.key());
      }
    }
    for (auto it = view_.policyStatus->statusIterConst(); it; ++it) {
      if (!it.ptr()->bindingSid().isNone()) {
        claims[it.ptr()->bindingSid().value()].insert(it.key());
      }
    }
    OrderedJson out = OrderedJson::array();
    // A published binding SID whose route is gone: it was shared, and went with another claim.
    for (auto it = view_.policyStatus->statusIterConst(); it; ++it) {
      Ludd::MplsLabel bsid = it.ptr()->bindingSid();
      if (bsid.isNone() || !it.ptr()->weightedViaSet() ||
          it.ptr()->weightedViaSet()->weightedViaCount() == 0) {
        continue;
      }
      if (bsidRouteTarget(bsid).is_null()) {
        out.push_back("policy " + keyName(it.key()) + " publishes binding SID " +
                      std::to_string(bsid.value()) + ", but no LFIB route is installed for it");
      }
    }
    // A published FEC over a tunnel that is gone: the tunnel table was rebuilt and publishing
    // has not caught up yet.
    for (auto it = view_.srteFwdStatus->fecIter(); it; ++it) {
      for (Fib::Via const& v : view_.srteFwdStatus->fec(it.key())) {
        if (!view_.tunnelTable->entry(v.tunnelId())) {
          out.push_back("FEC " + fecName(it.key()) + " points at tunnel " +
                        tunnelName(v.tunnelId()) +
                        ", which the tunnel table no longer holds (publishing catches up 50 ms "
                        "after the change)");
        }
      }
    }
    for (auto const& [bsid, keys] : claims) {
      if (keys.size() < 2) continue;
      std::string who;
      for (PolicyKey const& k : keys)
        who += (who.empty() ? "" : " and ") + keyName(k);
      OrderedJson target = bsidRouteTarget(Ludd::MplsLabel(bsid));
      std::string leads = "no route is installed for it";
      if (target.is_string()) {
        leads = "its one LFIB route leads to FEC " + target.get<std::string>();
        Mpls::Status const* lfib = view_.bsidLfib.ptr();
        auto route = lfib->lfibRoute(
            Mpls::RouteKey(Ludd::MplsLabel(bsid), Mpls::LFib::Source(kBsidRouteKeySource)));
        auto adj = lfib->lfibExtFecAdjacency(route.adjacencyKey().index());
        auto key = adj ? view_.policyStatus->fecIdToPolicyKey(adj->fecId()) : std::nullopt;
        if (key) leads += " (" + keyName(*key) + ")";
      }
      out.push_back("binding SID " + std::to_string(bsid) + " is claimed by " + who + "; " + leads +
                    "; the LFIB holds one route per label, the last one installed: a policy that "
                    "stops qualifying removes that route whoever installed it, and one that "
                    "re-installs replaces it with its own");
    }
    return out;
  }

  // The platform's tables.

  OrderedJson platformTables() {
    OrderedJson out;
    std::map<Mpls::RouteKey, Mpls::LFib::Route> routes;
    for (auto it = lfib_.lfibRouteIter(); it; ++it)
      routes[it.key()] = it.value();
    OrderedJson r = OrderedJson::array();
    for (auto const& [key, route] : routes) {
      r.push_back(OrderedJson{{"label", key.topLabel().value()},
                              {"source", key.source().value()},
                              {"type", routeTypeName(route.routeType())},
                              {"adjacency", adjacencyName(route.adjacencyKey(), loader_)}});
    }
    out["routes"] = r;
    auto viaLists = [](auto iter, auto const& vias) {
      std::map<U64, OrderedJson> sorted;
      for (auto it = iter; it; ++it) {
        OrderedJson v = OrderedJson::array();
        for (Mpls::Via const& via : vias(it.value()))
          v.push_back(viaText(via));
        sorted[it.key()] = OrderedJson{{"index", it.key()}, {"vias", v}};
      }
      OrderedJson a = OrderedJson::array();
      for (auto& [i, j] : sorted)
        a.push_back(j);
      return a;
    };
    out["viaSets"] = viaLists(lfib_.viaSetIter(),
                              [](Mpls::ViaSet const& s) -> Mpls::ViaSet const& { return s; });
    out["adjacencies"] =
        viaLists(lfib_.lfibAdjacencyIter(),
                 [](Mpls::LfibAdjacency const& a) -> Mpls::ViaSet const& { return a.via(); });
    std::map<U64, OrderedJson> ext;
    for (auto it = lfib_.lfibExtFecAdjacencyIter(); it; ++it) {
      ext[it.key()] = OrderedJson{{"index", it.key()},
                                  {"fec", fecName(it.value().fecId())},
                                  {"action", actionName(it.value().labelAction())}};
    }
    OrderedJson e = OrderedJson::array();
    for (auto& [i, j] : ext)
      e.push_back(j);
    out["extFecAdjacencies"] = e;
    std::map<Fib::FecId, OrderedJson> fecs;
    auto addFecs = [&fecs](auto const& table) {
      for (auto it = table.fecIter(); it; ++it) {
        OrderedJson v = OrderedJson::array();
        for (Fib::Via const& via : table.fec(it.key()))
          v.push_back(text(via.nextHop()) + " " + text(via.intf()));
        fecs[it.key()] = OrderedJson{{"fec", fecName(it.key())}, {"vias", v}};
      }
    };
    addFecs(*view_.forwardingStatus);
    addFecs(*view_.forwarding6Status);
    OrderedJson f = OrderedJson::array();
    for (auto& [i, j] : fecs)
      f.push_back(j);
    out["fecs"] = f;
    return out;
  }

  StateView const& view_;
  PlatformLoader const* loader_;
  Mpls::Status const& lfib_;
};

}  // namespace

std::string tunnelName(Tunnel::TunnelTable::TunnelId const& id) {
  if (id.type() == Tunnel::TunnelTable::TunnelType::srTeSegmentList) {
    return "srTeSegmentList:" + std::to_string(id.index());
  }
  return "type" + std::to_string(static_cast<U32>(id.type())) + ":" + std::to_string(id.index());
}

std::string fecName(Fib::FecId const& id) {
  switch (id.adjType()) {
    case 0:
      return "ipv4:" + std::to_string(id.adjIndex());
    case 1:
      return "ipv6:" + std::to_string(id.adjIndex());
    case 15:
      return "srTePolicy:" + std::to_string(id.adjIndex());
    default:
      return "type" + std::to_string(id.adjType()) + ":" + std::to_string(id.adjIndex());
  }
}

std::string keyName(PolicyKey const& key) {
  return text(key.endpoint()) + " color " + std::to_string(key.color().value());
}

std::string stackText(Ludd::MplsLabelOperation const& op) {
  std::string out;
  for (U32 i = op.size(); i-- > 0;)
    out += (out.empty() ? "" : " ") + std::to_string(op.label(i).value());
  return out;
}

SegmentListInfo segmentListInfo(SrTePolicy::SegmentListUser const& user) {
  SegmentListInfo info;
  SrTePolicy::SegmentList const& list = *user.segmentList();
  for (U32 i = 0; i < list.size(); ++i) {
    info.labels.push_back(list.segmentLabel(i).value());
    info.segmentIds.push_back(list.getSegmentId(i).value());
  }
  for (auto it = user.policyIdIter(); it; ++it)
    info.users.push_back(it.key().value());
  std::sort(info.users.begin(), info.users.end());
  return info;
}

SegmentListDirectory segmentListDirectory(SrTePolicy::SegmentListIdToPolicyMap const& map) {
  SegmentListDirectory out;
  for (auto it = map.segmentListUserIterConst(); it; ++it)
    out.emplace(it.key().value(), segmentListInfo(*it.ptr()));
  return out;
}

OrderedJson explainState(StateView const& view, bool platform, PlatformLoader const* loader) {
  return Explainer(view, loader).state(platform);
}

OrderedJson explainState(SrTePolicyAgent const& agent, bool platform,
                         PlatformLoader const* loader) {
  SegmentListDirectory lists = segmentListDirectory(*agent.segmentListIdToPolicyMap());
  StateView view;
  view.time = agent.clock()->now();
  view.selectionInput = agent.policySelectionInput();
  view.keyToIdMap = agent.policyKeyToIdMap();
  view.segmentLists = &lists;
  view.segmentStatus = agent.segmentStatus();
  view.segmentListStatus = agent.segmentListStatus();
  view.tunnelTable = agent.tunnelTable();
  view.ecPolicy = agent.ecPolicy();
  view.policyStatus = agent.policyStatus();
  view.lfib = agent.mplsStatus();
  view.resolver = agent.segmentResolver();
  view.forwardingStatus = agent.forwardingStatus();
  view.forwarding6Status = agent.forwarding6Status();
  view.srteFwdStatus = agent.srteFwdStatus();
  view.bsidLfib = agent.bsidLfib();
  return explainState(view, platform, loader);
}

}  // namespace SrTeScenario
