#include "StateExplain.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include "MplsHelper/IndexAllocators.h"

namespace SrTeView {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyKey;
using SrTePolicy::Priority;
using SrTePolicy::sourceName;
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

OrderedJson labelOrNull(Ludd::MplsLabel l) {
  return l.isNone() ? OrderedJson(nullptr) : OrderedJson(l.value());
}

double microseconds(double t) {
  return std::round(t * 1e6) / 1e6;
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

// The scenario's number for an adjacency index, when the simulator published it under another.
std::optional<U64> hostName(Mpls::AdjacencyKey const& k, EntryNames const* names) {
  if (!names) return std::nullopt;
  U64 name = k.kind() == Mpls::AdjacencyKind::extFec ? names->extFecName(k.index())
                                                     : names->adjacencyName(k.index());
  if (name == k.index()) return std::nullopt;
  return name;
}

std::string adjacencyName(Mpls::AdjacencyKey const& k, EntryNames const* names) {
  std::string out = std::string(kindName(k.kind())) + " " + std::to_string(k.index());
  if (auto name = hostName(k, names)) out += " (scenario's " + std::to_string(*name) + ")";
  return out;
}

// An adjacency a route points at: its table, index, the scenario's number for it and its name.
OrderedJson adjacencyRef(Mpls::AdjacencyKey const& k, EntryNames const* names) {
  std::optional<U64> name = hostName(k, names);
  return OrderedJson{{"kind", kindName(k.kind())},
                     {"index", k.index()},
                     {"scenarioIndex", name ? OrderedJson(*name) : OrderedJson(nullptr)},
                     {"name", adjacencyName(k, names)}};
}

std::string viaText(Mpls::Via const& v) {
  std::string out = text(v.nextHop()) + " " + text(v.intf()) + " " + actionName(v.labelAction());
  if (!v.outLabel().isNone()) out += " " + std::to_string(v.outLabel().value());
  return out;
}

OrderedJson viaJson(Mpls::Via const& v) {
  return OrderedJson{{"nextHop", text(v.nextHop())},
                     {"interface", text(v.intf())},
                     {"action", actionName(v.labelAction())},
                     {"label", labelOrNull(v.outLabel())},
                     {"text", viaText(v)}};
}

// A label stack as pushed, top label first.
std::vector<U32> topFirst(Ludd::MplsLabelOperation const& op) {
  std::vector<U32> out;
  for (U32 i = op.size(); i-- > 0;)
    out.push_back(op.label(i).value());
  return out;
}

// How the resolver judges one LFIB route of a segment's label: a code and the words for it.
struct Verdict {
  char const* code;
  std::string text;
};

Verdict routeVerdict(SrTePolicy::SegmentResolver const& resolver, Mpls::Status const& lfib,
                     Mpls::LFib::Route const& route) {
  if (route.source().value() == 0) return {"skipped-source-zero", "source 0 is never used"};
  if (!resolver.skipMplsRouteForResolution(route)) return {"usable", "usable"};
  if (route.routeType() == Mpls::LFib::RouteType::pseudowire) {
    return {"skipped-pseudowire", "pseudowire route, skipped"};
  }
  std::optional<Mpls::ViaSet> set = lfib.viaSet(route.adjacencyKey().index());
  if (set) {
    for (Mpls::Via const& v : *set) {
      if (FecIdIntfId::isNexthopGroupIdIntfId(v.intf())) {
        return {"skipped-nexthop-group", "via set " + std::to_string(route.adjacencyKey().index()) +
                                             " goes through next-hop group " + text(v.intf()) +
                                             ", skipped"};
      }
      if (DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intf())) {
        return {"skipped-dynamic-tunnel",
                "via set " + std::to_string(route.adjacencyKey().index()) +
                    " goes through dynamic tunnel " + text(v.intf()) + ", skipped"};
      }
    }
  }
  return {"skipped", "skipped"};
}

// A segment list's unresolved state: its code and the words for it.
struct Reason {
  std::string code;
  std::string text;
};

class Explainer {
 public:
  Explainer(StateView const& view, EntryNames const* names)
      : view_(view), names_(names), lfib_(*view.lfib) {
    // Binding SIDs claimed by the active candidates and by the published policies.
    for (auto it = view_.ecPolicy->policyIterConst(); it; ++it) {
      auto active = it.ptr()->active();
      if (active && !active->bindingSid().isNone()) {
        claims_[active->bindingSid().value()].insert(it.key());
      }
    }
    for (auto it = view_.policyStatus->statusIterConst(); it; ++it) {
      if (!it.ptr()->bindingSid().isNone()) {
        claims_[it.ptr()->bindingSid().value()].insert(it.key());
      }
    }
  }

  OrderedJson state(bool platform) {
    OrderedJson out;
    if (view_.time) out["time"] = microseconds(*view_.time);
    out["policies"] = policies();
    out["segmentLists"] = segmentLists();
    out["tunnels"] = tunnels();
    out["exportedSegmentLists"] = exportedSegmentLists();
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
    out["activeId"] = active ? OrderedJson(active->priority().id()) : OrderedJson(nullptr);
    out["activeBindingSid"] = active ? labelOrNull(active->bindingSid()) : OrderedJson(nullptr);
    auto activity = view_.activity ? view_.activity->policy(key) : nullptr;
    out["activeSince"] =
        activity ? OrderedJson(microseconds(activity->activeSince())) : OrderedJson(nullptr);
    out["activeTransitions"] = activity ? activity->activeTransitions() : U64{0};
    bindingSidState(out, key, active);
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

  // The FEC the binding-SID route of `bsid` leads to; none without a route or its adjacency.
  std::optional<Fib::FecId> bsidRouteFec(Ludd::MplsLabel bsid) const {
    Mpls::Status const& lfib = *view_.bsidLfib;
    Mpls::LFib::Route route =
        lfib.lfibRoute(Mpls::RouteKey(bsid, Mpls::LFib::Source(kBsidRouteKeySource)));
    if (route == Mpls::LFib::Route()) return std::nullopt;
    auto adj = lfib.lfibExtFecAdjacency(route.adjacencyKey().index());
    if (!adj) return std::nullopt;
    return adj->fecId();
  }

  // The policy that FEC is published for now, read from the published state; none when there
  // is no route or its FEC is not a published policy's.
  std::optional<PolicyKey> bsidRoutePolicy(Ludd::MplsLabel bsid) const {
    std::optional<Fib::FecId> fec = bsidRouteFec(bsid);
    return fec ? view_.policyStatus->fecIdToPolicyKey(*fec) : std::nullopt;
  }

  // Whether the policy's binding SID has its route, and if not why: "inactive" (no active
  // candidate, nothing published), "none" (no binding SID),
  // "not-published" (publishing has not run yet), "no-tunnel" (published without a tunnel),
  // "conflict" (another policy claims the label and holds or took its route), "missing".
  void bindingSidState(OrderedJson& out, PolicyKey const& key,
                       Mosk::Ptr<SrTePolicy::PolicyEntry const> const& active) {
    auto status = view_.policyStatus->status(key);
    Ludd::MplsLabel bsid = status   ? status->bindingSid()
                           : active ? active->bindingSid()
                                    : Ludd::MplsLabel();
    std::string state = "not-installed";
    OrderedJson reason = nullptr;
    std::optional<PolicyKey> other;
    if (!status && !active) {
      reason = "inactive";
    } else if (bsid.isNone()) {
      reason = "none";
    } else if (!status) {
      reason = "not-published";
    } else if (!status->weightedViaSet() || status->weightedViaSet()->weightedViaCount() == 0) {
      reason = "no-tunnel";
    } else if (std::optional<PolicyKey> holder = bsidRoutePolicy(bsid); holder == key) {
      state = "installed";
    } else if (holder) {
      reason = "conflict";
      other = holder;
    } else {
      for (PolicyKey const& k : claims_[bsid.value()]) {
        if (k == key || other) continue;
        other = k;
      }
      reason = other ? "conflict" : "missing";
    }
    out["bindingSid"] = labelOrNull(bsid);
    out["bindingSidState"] = state;
    out["bindingSidReason"] = reason;
    out["bindingSidConflict"] = other ? OrderedJson(keyName(*other)) : OrderedJson(nullptr);
  }

  OrderedJson candidate(U32 rank, Priority const& priority, U32 id,
                        Mosk::Ptr<SrTePolicy::PolicyEntry const> const& active,
                        Mosk::Ptr<SrTePolicy::PolicyEntry const> const& best,
                        std::map<U32, Mosk::Ptr<SrTePolicy::PolicyEntry const>> const& eligible) {
    auto entry = view_.selectionInput->policyIdEntry(id);
    PolicyId const pid(id);
    OrderedJson out;
    out["rank"] = rank;
    out["name"] = candidateName(pid);
    out["policyId"] = id;
    out["source"] = sourceName(priority.source());
    out["sourceValue"] = static_cast<U32>(priority.source());
    out["discriminator"] = pid.index();
    out["preference"] = priority.preference().value();
    out["routerId"] = text(priority.routerId());
    Ludd::MplsLabel bsid = entry ? entry->bindingSid() : eligible.at(id)->bindingSid();
    out["bindingSid"] = labelOrNull(bsid);

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
        l["tunnelId"] = status ? OrderedJson(status->tunnelId().value()) : OrderedJson(nullptr);
        lists.push_back(l);
      }
    }

    std::string state;
    OrderedJson reason = nullptr;
    std::string why;
    bool isEligible = eligible.count(id) != 0;
    bool isActive = isEligible && active && active->priority().id() == id;
    if (isActive) {
      state = "active";
      why = "the best ranked eligible candidate";
    } else if (isEligible && active && best && best->priority().id() == id &&
               best->priority().sameExceptId(active->priority())) {
      state = "kept out";
      reason = "kept-out";
      why =
          "ranks first, but differs from the active candidate only by its id: the active one "
          "is kept";
    } else if (isEligible && active) {
      state = "lower rank";
      reason = "lower-rank";
      why = "eligible, but ranks below the active candidate " +
            candidateName(PolicyId(active->priority().id()));
    } else if (isEligible) {
      state = "not chosen";
      reason = "not-chosen";
      why = "eligible, but selection has not chosen an active candidate yet";
    } else if (!entry) {
      state = "withdrawn";
      reason = "withdrawn";
      why = "its source withdrew it; selection has not removed it yet";
    } else if (resolved > 0) {
      state = "selection pending";
      reason = "selection-pending";
      why = "has a resolved segment list; selection has not taken it in yet";
    } else {
      state = "no resolved segment list";
      bool none = entry->wSegmentListCount() == 0;
      reason = none ? "no-segment-list" : "no-resolved-segment-list";
      why = none ? "it has no segment list"
                 : std::string("none of its segment lists resolves; see the segment lists");
    }
    // Valid: it has a resolved segment list (by its input's lists, or, once withdrawn, by what
    // selection still holds of it).
    out["valid"] = entry ? resolved > 0 : isEligible;
    out["active"] = isActive;
    out["state"] = state;
    out["nonSelectionReason"] = reason;
    out["why"] = why;
    out["segmentLists"] = lists;
    return out;
  }

  OrderedJson published(PolicyKey const& key) {
    auto status = view_.policyStatus->status(key);
    if (!status) return nullptr;
    OrderedJson out;
    out["candidate"] = candidateName(PolicyId(status->id()));
    out["candidateId"] = status->id();
    out["bindingSid"] = labelOrNull(status->bindingSid());
    out["fec"] = fecName(status->srTePolicyFecId());
    out["fecId"] = status->srTePolicyFecId().value();
    std::map<Tunnel::TunnelTable::TunnelId, U32> tunnels;
    if (status->weightedViaSet()) {
      for (auto it = status->weightedViaSet()->weightedViaIter(); it; ++it)
        tunnels[it.key()] = it.value().value();
    }
    OrderedJson wt = OrderedJson::array();
    for (auto const& [tunnel, weight] : tunnels) {
      wt.push_back(OrderedJson{
          {"tunnel", tunnelName(tunnel)}, {"tunnelId", tunnel.value()}, {"weight", weight}});
    }
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
    out["usedByIds"] = list.users;

    auto status = view_.segmentListStatus->status(SrTePolicy::SegmentListId(id));
    auto topStatus = segmentStatus(list, 0);
    OrderedJson hops = OrderedJson::array();
    if (status) {
      if (auto entry = view_.tunnelTable->entry(status->tunnelId())) {
        for (auto const& via : *entry)
          hops.push_back(nextHopJson(via));
      }
    }
    std::optional<Reason> reason;
    if (!status) reason = unresolvedReason(list, topStatus);
    out["state"] = status ? "resolved" : "unresolved";
    out["valid"] = status != nullptr;
    out["invalidReason"] = reason ? OrderedJson(reason->code) : OrderedJson(nullptr);
    out["tunnel"] = status ? OrderedJson(tunnelName(status->tunnelId())) : OrderedJson(nullptr);
    out["tunnelId"] = status ? OrderedJson(status->tunnelId().value()) : OrderedJson(nullptr);
    out["via"] =
        status
            ? OrderedJson(topStatus ? viaRoute(Ludd::MplsLabel(list.labels[0]), topStatus->adjKey())
                                    : std::string())
            : OrderedJson(nullptr);
    out["why"] = reason ? OrderedJson(reason->text) : OrderedJson(nullptr);
    OrderedJson segments = OrderedJson::array();
    for (std::size_t i = 0; i < list.labels.size(); ++i)
      segments.push_back(segment(list, i));
    out["segments"] = segments;
    out["nextHops"] = hops;
    return out;
  }

  Mosk::Ptr<SrTePolicy::SegmentResolve const> segmentStatus(SegmentListInfo const& list,
                                                            std::size_t i) const {
    if (i >= list.segmentIds.size()) return nullptr;
    return view_.segmentStatus->status(SrTePolicy::SegmentId(list.segmentIds[i]));
  }

  // One segment of a list: its label, whether it resolves, and through which route, or why not.
  OrderedJson segment(SegmentListInfo const& list, std::size_t i) {
    Ludd::MplsLabel label(list.labels[i]);
    auto status = segmentStatus(list, i);
    OrderedJson out;
    out["position"] = i;
    out["id"] = i < list.segmentIds.size() ? OrderedJson(list.segmentIds[i]) : OrderedJson(nullptr);
    out["label"] = label.value();
    out["resolved"] = status != nullptr;
    std::optional<U32> source = status ? routeSource(label, status->adjKey()) : std::nullopt;
    out["source"] = source ? OrderedJson(*source) : OrderedJson(nullptr);
    out["adjacency"] = status ? adjacencyRef(status->adjKey(), names_) : OrderedJson(nullptr);
    OrderedJson routes = OrderedJson::array();
    OrderedJson reason = nullptr;
    if (!status) {
      LabelRoutes r = labelRoutes(label);
      reason = r.code;
      routes = std::move(r.json);
    }
    out["reason"] = reason;
    out["routes"] = routes;
    return out;
  }

  // The LFIB routes of `label`, by source. The LFIB is read once per explanation (a label's
  // routes would otherwise take a lookup per source, for every segment shown).
  std::vector<Mpls::LFib::Route> const& routesOf(Ludd::MplsLabel label) {
    if (!routesByLabel_) {
      routesByLabel_.emplace();
      for (auto it = lfib_.lfibRouteIter(); it; ++it)
        (*routesByLabel_)[it.key().topLabel().value()].push_back(it.value());
      for (auto& [l, routes] : *routesByLabel_) {
        std::sort(routes.begin(), routes.end(), [](auto const& a, auto const& b) {
          return a.key().source().value() < b.key().source().value();
        });
      }
    }
    static std::vector<Mpls::LFib::Route> const none;
    auto it = routesByLabel_->find(label.value());
    return it == routesByLabel_->end() ? none : it->second;
  }

  // The lowest source whose LFIB route for `label` leads to `adjKey`: the route a resolved
  // segment uses. None when no route does any more (it changed since).
  std::optional<U32> routeSource(Ludd::MplsLabel label, Mpls::AdjacencyKey const& adjKey) {
    for (Mpls::LFib::Route const& r : routesOf(label)) {
      U32 s = r.key().source().value();
      if (s >= 1 && r.adjacencyKey() == adjKey) return s;
    }
    return std::nullopt;
  }

  // "top label 16001: LFIB route of source 1 to adjacency 1".
  std::string viaRoute(Ludd::MplsLabel top, Mpls::AdjacencyKey const& adjKey) {
    std::string out = "top label " + std::to_string(top.value()) + ": ";
    if (std::optional<U32> s = routeSource(top, adjKey)) {
      return out + "LFIB route of source " + std::to_string(*s) + " to " +
             adjacencyName(adjKey, names_);
    }
    return out + adjacencyName(adjKey, names_) + " (its route has changed since)";
  }

  // The LFIB routes of a label that has no segment status, judged as the resolver judges them.
  struct LabelRoutes {
    // "no-route", "withdrawn-incremental", or the verdict on the lowest source's route.
    std::string code;
    OrderedJson json = OrderedJson::array();
    std::vector<std::string> text;  // "source 1: usable"
    std::optional<U32> usable;
  };
  LabelRoutes labelRoutes(Ludd::MplsLabel label) {
    SrTePolicy::SegmentResolver const& resolver = *view_.resolver;
    LabelRoutes out;
    for (Mpls::LFib::Route const& r : routesOf(label)) {
      U32 s = r.key().source().value();
      Verdict v = routeVerdict(resolver, lfib_, r);
      bool usable = std::string(v.code) == "usable";
      if (usable && !out.usable) out.usable = s;
      if (out.code.empty()) out.code = v.code;
      out.json.push_back(OrderedJson{{"source", s},
                                     {"type", routeTypeName(r.routeType())},
                                     {"adjacency", adjacencyRef(r.adjacencyKey(), names_)},
                                     {"verdict", v.code},
                                     {"text", v.text}});
      out.text.push_back("source " + std::to_string(s) + ": " + v.text);
    }
    if (out.text.empty()) out.code = "no-route";
    if (out.usable) out.code = "withdrawn-incremental";
    return out;
  }

  Reason unresolvedReason(SegmentListInfo const& list,
                          Mosk::Ptr<SrTePolicy::SegmentResolve const> const& topStatus) {
    if (list.labels.empty()) {
      return {"no-label",
              "the list holds no label: with no top label to resolve, it never resolves"};
    }
    Ludd::MplsLabel top(list.labels[0]);
    std::string label = "top label " + std::to_string(top.value());
    if (!topStatus) return unresolvedTop(top, label);
    // The top segment resolved; the adjacency yields no next hop.
    Mpls::AdjacencyKey const& k = topStatus->adjKey();
    std::string via = label + " resolves to " + adjacencyName(k, names_) + ", ";
    if (k.kind() == Mpls::AdjacencyKind::extFec) {
      auto ext = lfib_.lfibExtFecAdjacency(k.index());
      if (!ext) return {"no-adjacency", via + "which does not exist: no next hop"};
      U32 type = ext->fecId().adjType();
      if (type > 1) {
        return {"no-fec", via + "whose FEC " + fecName(ext->fecId()) + " carries no next hop"};
      }
      Fib::Fec const& fec = type == 0 ? view_.forwardingStatus->fec(ext->fecId())
                                      : view_.forwarding6Status->fec(ext->fecId());
      if (fec == Fib::Fec()) {
        return {"no-fec", via + "whose FEC " + fecName(ext->fecId()) + " does not exist"};
      }
      if (fec.viaCount() == 0) {
        return {"no-nexthop", via + "whose FEC " + fecName(ext->fecId()) + " has no via"};
      }
      if (list.labels.size() == 1 && ext->labelAction() != Ludd::MplsLabelAction::actionForward) {
        return {"empty-stack", via + "which does not forward the top label (action " +
                                   actionName(ext->labelAction()) +
                                   ") and the list has no other label: no label stack to push"};
      }
      return {"queued", via + "which yields next hops: the list is queued for resolution"};
    }
    auto adj = lfib_.lfibAdjacency(k.index());
    if (!adj) {
      return {"no-adjacency",
              via + "but LFIB adjacency " + std::to_string(k.index()) + " does not exist"};
    }
    if (adj->via().empty()) return {"no-nexthop", via + "which has no via: no next hop"};
    if (list.labels.size() == 1) {
      bool swaps = std::any_of(adj->via().begin(), adj->via().end(), [](Mpls::Via const& v) {
        return v.labelAction() == Ludd::MplsLabelAction::actionSwap;
      });
      if (!swaps) {
        return {"empty-stack", via +
                                   "whose vias push no label (none swaps) and the list has no "
                                   "other label: no label stack to push"};
      }
    }
    return {"queued", via + "which yields next hops: the list is queued for resolution"};
  }

  // The top segment has no status: the routes of its label, judged as the resolver does.
  Reason unresolvedTop(Ludd::MplsLabel top, std::string const& label) {
    LabelRoutes r = labelRoutes(top);
    if (r.text.empty()) return {r.code, label + " has no LFIB route"};
    std::string list;
    for (auto const& t : r.text)
      list += (list.empty() ? "" : "; ") + t;
    if (r.usable) {
      return {r.code,
              label + " has a usable route (source " + std::to_string(*r.usable) +
                  ") but the segment is not resolved: an incremental LFIB change (a route of "
                  "another source removed or skipped) withdrew it, and only a full LFIB pass or "
                  "a change of this route brings it back (" +
                  list + ")"};
    }
    return {r.code, label + " has no usable LFIB route (" + list + ")"};
  }

  // The tunnel table and the exported segment lists.

  OrderedJson tunnels() {
    std::map<Tunnel::TunnelTable::TunnelId, U32> lists;
    for (auto it = view_.segmentListStatus->statusIterConst(); it; ++it)
      lists[it.ptr()->tunnelId()] = it.key().value();
    std::map<Tunnel::TunnelTable::TunnelId, OrderedJson> sorted;
    for (auto it = view_.tunnelTable->entryIter(); it; ++it) {
      OrderedJson t;
      t["tunnel"] = tunnelName(it.key());
      t["tunnelId"] = it.key().value();
      auto list = lists.find(it.key());
      t["segmentList"] = list != lists.end() ? OrderedJson(list->second) : OrderedJson(nullptr);
      OrderedJson hops = OrderedJson::array();
      for (auto const& via : it.value())
        hops.push_back(nextHopJson(via));
      t["nextHops"] = hops;
      sorted[it.key()] = t;
    }
    OrderedJson out = OrderedJson::array();
    for (auto& [id, t] : sorted)
      out.push_back(std::move(t));
    return out;
  }

  OrderedJson exportedSegmentLists() {
    OrderedJson out = OrderedJson::array();
    if (!view_.exportedSegmentLists) return out;
    std::map<U32, OrderedJson> sorted;
    for (auto it = view_.exportedSegmentLists->segmentListIterConst(); it; ++it) {
      SrTePolicy::Export::SegmentList const& list = *it.ptr();
      // Positions at or above `size` may hold an older, longer list's labels: not valid.
      OrderedJson labels = OrderedJson::array();
      for (U32 i = 0; i < list.size() && i < Ludd::MplsLabelOperation::capacity; ++i) {
        auto seg = list.segment(Ludd::MplsStackEntryIndex(static_cast<U8>(i)));
        labels.push_back(seg ? labelOrNull(seg->label()) : OrderedJson(nullptr));
      }
      sorted[it.key().value()] =
          OrderedJson{{"id", it.key().value()}, {"size", list.size()}, {"labels", labels}};
    }
    for (auto& [id, l] : sorted)
      out.push_back(std::move(l));
    return out;
  }

  // Published FECs and binding-SID routes.

  OrderedJson policyFecs() {
    std::map<Fib::FecId, OrderedJson> fecs;
    for (auto it = view_.srteFwdStatus->fecIter(); it; ++it) {
      Fib::Fec const& fec = view_.srteFwdStatus->fec(it.key());
      OrderedJson f;
      f["fec"] = fecName(it.key());
      f["fecId"] = it.key().value();
      policyRefJson(f, view_.policyStatus->fecIdToPolicyKey(it.key()));
      std::vector<Tunnel::TunnelTable::TunnelId> tunnels;
      for (Fib::Via const& v : fec)
        tunnels.push_back(v.tunnelId());
      std::sort(tunnels.begin(), tunnels.end());
      OrderedJson t = OrderedJson::array();
      for (auto const& id : tunnels)
        t.push_back(OrderedJson{{"tunnel", tunnelName(id)}, {"tunnelId", id.value()}});
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
      j["fecId"] = adj ? OrderedJson(adj->fecId().value()) : OrderedJson(nullptr);
      // The policy the FEC is published for now: from the published state, not from the
      // generator's own memory of what it installed.
      policyRefJson(j, adj ? view_.policyStatus->fecIdToPolicyKey(adj->fecId()) : std::nullopt);
      routes[it.key()] = j;
    }
    OrderedJson out = OrderedJson::array();
    for (auto& [k, j] : routes)
      out.push_back(j);
    return out;
  }

  static OrderedJson warning(char const* code, std::string const& text, OrderedJson bindingSid,
                             std::vector<std::string> const& policies, OrderedJson fec,
                             OrderedJson tunnel) {
    return OrderedJson{
        {"code", code},         {"text", text},          {"bindingSid", std::move(bindingSid)},
        {"policies", policies}, {"fec", std::move(fec)}, {"tunnel", std::move(tunnel)}};
  }

  OrderedJson warnings() {
    OrderedJson out = OrderedJson::array();
    // A published binding SID whose route is gone: it was shared, and went with another claim.
    for (auto it = view_.policyStatus->statusIterConst(); it; ++it) {
      Ludd::MplsLabel bsid = it.ptr()->bindingSid();
      if (bsid.isNone() || !it.ptr()->weightedViaSet() ||
          it.ptr()->weightedViaSet()->weightedViaCount() == 0) {
        continue;
      }
      if (bsidRouteTarget(bsid).is_null()) {
        out.push_back(warning("binding-sid-route-missing",
                              "policy " + keyName(it.key()) + " publishes binding SID " +
                                  std::to_string(bsid.value()) +
                                  ", but no LFIB route is installed for it",
                              bsid.value(), {keyName(it.key())}, nullptr, nullptr));
      }
    }
    // A published FEC over a tunnel that is gone: the tunnel table was rebuilt and publishing
    // has not caught up yet.
    for (auto it = view_.srteFwdStatus->fecIter(); it; ++it) {
      auto key = view_.policyStatus->fecIdToPolicyKey(it.key());
      for (Fib::Via const& v : view_.srteFwdStatus->fec(it.key())) {
        if (!view_.tunnelTable->entry(v.tunnelId())) {
          out.push_back(warning(
              "fec-tunnel-missing",
              "FEC " + fecName(it.key()) + " points at tunnel " + tunnelName(v.tunnelId()) +
                  ", which the tunnel table no longer holds (publishing catches up 50 ms "
                  "after the change)",
              nullptr, key ? std::vector<std::string>{keyName(*key)} : std::vector<std::string>{},
              fecName(it.key()), tunnelName(v.tunnelId())));
        }
      }
    }
    for (auto const& [bsid, keys] : claims_) {
      if (keys.size() < 2) continue;
      std::string who;
      std::vector<std::string> names;
      for (PolicyKey const& k : keys) {
        who += (who.empty() ? "" : " and ") + keyName(k);
        names.push_back(keyName(k));
      }
      OrderedJson target = bsidRouteTarget(Ludd::MplsLabel(bsid));
      std::optional<Fib::FecId> fec = bsidRouteFec(Ludd::MplsLabel(bsid));
      std::string leads = "no route is installed for it";
      if (target.is_string()) {
        leads = "its one LFIB route leads to FEC " + target.get<std::string>();
        if (auto key = bsidRoutePolicy(Ludd::MplsLabel(bsid))) leads += " (" + keyName(*key) + ")";
      }
      out.push_back(
          warning("binding-sid-shared",
                  "binding SID " + std::to_string(bsid) + " is claimed by " + who + "; " + leads +
                      "; the LFIB holds one route per label, the last one installed: a policy that "
                      "stops qualifying removes that route whoever installed it, and one that "
                      "re-installs replaces it with its own",
                  bsid, names, fec ? OrderedJson(fecName(*fec)) : OrderedJson(nullptr), nullptr));
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
                              {"adjacency", adjacencyRef(route.adjacencyKey(), names_)}});
    }
    out["routes"] = r;
    auto viaLists = [](auto iter, auto const& vias) {
      std::map<U64, OrderedJson> sorted;
      for (auto it = iter; it; ++it) {
        OrderedJson v = OrderedJson::array();
        for (Mpls::Via const& via : vias(it.value()))
          v.push_back(viaJson(via));
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
                                  {"fecId", it.value().fecId().value()},
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
        for (Fib::Via const& via : table.fec(it.key())) {
          v.push_back(OrderedJson{{"nextHop", text(via.nextHop())},
                                  {"interface", text(via.intf())},
                                  {"text", text(via.nextHop()) + " " + text(via.intf())}});
        }
        fecs[it.key()] =
            OrderedJson{{"fec", fecName(it.key())}, {"fecId", it.key().value()}, {"vias", v}};
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
  EntryNames const* names_;
  Mpls::Status const& lfib_;
  std::map<U32, std::set<PolicyKey>> claims_;
  std::optional<std::map<U32, std::vector<Mpls::LFib::Route>>> routesByLabel_;
};

}  // namespace

std::string candidateName(PolicyId id) {
  return std::string(sourceName(id.source())) + "/" + std::to_string(id.index());
}

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

OrderedJson nextHopJson(Tunnel::TunnelTable::MplsVia const& via) {
  return OrderedJson{{"nextHop", text(via.nextHop())},
                     {"interface", text(via.intf())},
                     {"push", stackText(via.labelOperation())},
                     {"pushTopFirst", topFirst(via.labelOperation())}};
}

void policyRefJson(OrderedJson& out, std::optional<PolicyKey> const& key) {
  out["policy"] = key ? OrderedJson(keyName(*key)) : OrderedJson(nullptr);
  out["endpoint"] = key ? OrderedJson(text(key->endpoint())) : OrderedJson(nullptr);
  out["color"] = key ? OrderedJson(key->color().value()) : OrderedJson(nullptr);
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

OrderedJson explainState(StateView const& view, bool platform, EntryNames const* names) {
  return Explainer(view, names).state(platform);
}

OrderedJson explainState(SrTePolicyAgent const& agent, bool platform, EntryNames const* names) {
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
  view.exportedSegmentLists = agent.exportedSegmentLists();
  view.activity = agent.policyActivity();
  return explainState(view, platform, names);
}

}  // namespace SrTeView
