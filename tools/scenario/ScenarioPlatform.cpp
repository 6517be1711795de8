#include "ScenarioPlatform.h"

#include <sstream>

namespace SrTeScenario {

namespace {

constexpr U32 kAdjTypeIpv4 = 0;
constexpr U32 kAdjTypeIpv6 = 1;

Mpls::ViaSet viaSetOf(std::vector<LfibVia> const& vias) {
  Mpls::ViaSet set;
  for (LfibVia const& v : vias)
    set.viaIs(Mpls::Via(v.intf, v.nextHop, v.action, v.label));
  return set;
}

}  // namespace

PlatformLoader::PlatformLoader(Mosk::Ptr<Mpls::Status> lfib,
                               Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwd,
                               Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6, IndexCeiling ceiling)
    : lfib_(std::move(lfib)), fwd_(std::move(fwd)), fwd6_(std::move(fwd6)) {
  adjacency_.next = ceiling.adjacency;
  extFec_.next = ceiling.extFec;
  fec4_.next = ceiling.fec4;
  fec6_.next = ceiling.fec6;
}

Fib::FecId PlatformLoader::fecId(Family family, U64 index) {
  return Fib::FecId::fecIdForAdjType(family == Family::ipv4 ? kAdjTypeIpv4 : kAdjTypeIpv6, index);
}

U64 PlatformLoader::current(Space const& s, U64 name) {
  auto it = s.alias.find(name);
  return it == s.alias.end() ? name : it->second;
}

U64 PlatformLoader::nameOf(Space const& s, U64 index) {
  for (auto const& [name, published] : s.alias) {
    if (published == index) return name;
  }
  return index;
}

U64 PlatformLoader::fresh(Space& s) {
  return ++s.next;
}

bool PlatformLoader::routesUse(U64 index, bool extFec) const {
  for (auto it = lfib_->lfibRouteIter(); it; ++it) {
    Mpls::AdjacencyKey const& k = it.value().adjacencyKey();
    if ((k.kind() == Mpls::AdjacencyKind::extFec) == extFec && k.index() == index) return true;
  }
  return false;
}

void PlatformLoader::repointRoutes(U64 from, U64 to, bool extFec) {
  std::vector<Mpls::LFib::Route> moved;
  for (auto it = lfib_->lfibRouteIter(); it; ++it) {
    Mpls::AdjacencyKey const& k = it.value().adjacencyKey();
    if ((k.kind() == Mpls::AdjacencyKind::extFec) != extFec || k.index() != from) continue;
    Mpls::LFib::Route r = it.value();
    r.adjacencyKeyIs(Mpls::AdjacencyKey(to, k.kind()));
    moved.push_back(r);
  }
  for (Mpls::LFib::Route const& r : moved)
    lfib_->lfibRouteIs(r);
}

Fib::Fec PlatformLoader::makeFec(Fib::FecId id, std::vector<FecVia> const& vias) {
  Fib::Fec out(id);
  U32 slot = 0;
  for (FecVia const& v : vias) {
    ++slot;
    out.viaIs(Fib::ViaIndex(slot), Fib::Via(v.intf, v.nextHop, v.label, v.action, false,
                                            Tunnel::TunnelTable::TunnelId()));
  }
  out.viaCountIs(slot);
  return out;
}

void PlatformLoader::commitFec(Family family, Fib::Fec const& fec) {
  if (family == Family::ipv4) {
    fwd_->fecCommit(fec);
  } else {
    fwd6_->fecCommit(fec);
  }
}

Fib::Fec const& PlatformLoader::storedFec(Family family, Fib::FecId id) const {
  return family == Family::ipv4 ? fwd_->fec(id) : fwd6_->fec(id);
}

void PlatformLoader::writeFec(Fec const& fec, std::vector<PlatformMove>& notes) {
  Family family = fec.ref.family;
  Space& space = family == Family::ipv4 ? fec4_ : fec6_;
  Fib::FecId oldId = fecId(family, current(space, fec.ref.index));
  std::vector<U64> users;
  for (auto it = lfib_->lfibExtFecAdjacencyIter(); it; ++it) {
    if (it.value().fecId() == oldId) users.push_back(it.key());
  }
  Fib::Fec const& stored = storedFec(family, oldId);
  bool present = stored != Fib::Fec();
  if (present && stored == makeFec(oldId, fec.vias)) return;
  if (!present || users.empty()) {
    commitFec(family, makeFec(oldId, fec.vias));
    return;
  }
  U64 moved = fresh(space);
  space.alias[fec.ref.index] = moved;
  Fib::FecId newId = fecId(family, moved);
  commitFec(family, makeFec(newId, fec.vias));
  std::ostringstream os;
  os << (family == Family::ipv4 ? "ipv4" : "ipv6") << " FEC " << fec.ref.index
     << ": new next hops published as FEC index " << moved
     << " and its external FEC adjacencies re-pointed";
  notes.push_back({family == Family::ipv4 ? "ipv4Fec" : "ipv6Fec", fec.ref.index, moved, os.str()});
  for (U64 user : users) {
    std::optional<Mpls::ExtFecAdjacency> adj = lfib_->lfibExtFecAdjacency(user);
    writeExtFec(extFecName(user), newId, adj->labelAction(), notes);
  }
  if (family == Family::ipv4) {
    fwd_->fecDel(oldId);
  } else {
    fwd6_->fecDel(oldId);
  }
}

void PlatformLoader::writeExtFec(U64 name, Fib::FecId fecId, Ludd::MplsLabelAction action,
                                 std::vector<PlatformMove>& notes) {
  U64 index = current(extFec_, name);
  std::optional<Mpls::ExtFecAdjacency> old = lfib_->lfibExtFecAdjacency(index);
  if (old && *old == Mpls::ExtFecAdjacency(fecId, action)) return;
  if (!old || !routesUse(index, true)) {
    lfib_->lfibExtFecAdjacencyIs(index, fecId, action);
    return;
  }
  U64 moved = fresh(extFec_);
  extFec_.alias[name] = moved;
  lfib_->lfibExtFecAdjacencyIs(moved, fecId, action);
  repointRoutes(index, moved, true);
  lfib_->lfibExtFecAdjacencyDel(index);
  notes.push_back({"extFecAdjacency", name, moved,
                   "external FEC adjacency " + std::to_string(name) +
                       ": new content published as index " + std::to_string(moved) +
                       " and its routes re-pointed"});
}

void PlatformLoader::writeAdjacency(ViaList const& list, bool viaSet,
                                    std::vector<PlatformMove>& notes) {
  U64 index = current(adjacency_, list.index);
  Mpls::ViaSet vias = viaSetOf(list.vias);
  std::optional<Mpls::ViaSet> oldSet = lfib_->viaSet(index);
  std::optional<Mpls::LfibAdjacency> oldAdj = lfib_->lfibAdjacency(index);
  bool present = viaSet ? oldSet.has_value() : oldAdj.has_value();
  bool same = viaSet ? (oldSet && *oldSet == vias) : (oldAdj && oldAdj->via() == vias);
  if (same) return;
  if (!present || !routesUse(index, false)) {
    if (viaSet) {
      lfib_->viaSetIs(index, vias);
    } else {
      lfib_->lfibAdjacencyIs(index, Mpls::LfibAdjacency(vias));
    }
    return;
  }
  // In use: the new content and its partner in the other table move to a fresh index together.
  U64 moved = fresh(adjacency_);
  adjacency_.alias[list.index] = moved;
  if (viaSet) {
    lfib_->viaSetIs(moved, vias);
    if (oldAdj) lfib_->lfibAdjacencyIs(moved, *oldAdj);
  } else {
    lfib_->lfibAdjacencyIs(moved, Mpls::LfibAdjacency(vias));
    if (oldSet) lfib_->viaSetIs(moved, *oldSet);
  }
  repointRoutes(index, moved, false);
  lfib_->viaSetDel(index);
  lfib_->lfibAdjacencyDel(index);
  notes.push_back({viaSet ? "viaSet" : "adjacency", list.index, moved,
                   std::string(viaSet ? "via set " : "LFIB adjacency ") +
                       std::to_string(list.index) + ": new next hops published as index " +
                       std::to_string(moved) + " and its routes re-pointed"});
}

std::vector<PlatformMove> PlatformLoader::apply(PlatformChange const& change) {
  std::vector<PlatformMove> notes;
  for (Fec const& f : change.fecs)
    writeFec(f, notes);
  for (ExtFecAdjacency const& a : change.extFecAdjacencies) {
    writeExtFec(a.index, fecId(a.fec.family, fecIndex(a.fec.family, a.fec.index)), a.action, notes);
  }
  for (ViaList const& v : change.viaSets)
    writeAdjacency(v, true, notes);
  for (ViaList const& v : change.adjacencies)
    writeAdjacency(v, false, notes);
  for (Route const& r : change.routes) {
    U64 index = r.adjacency.kind == Mpls::AdjacencyKind::extFec ? extFecIndex(r.adjacency.index)
                                                                : adjacencyIndex(r.adjacency.index);
    lfib_->lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey(r.label, Mpls::LFib::Source(r.source)),
                                         Mpls::AdjacencyKey(index, r.adjacency.kind), r.type,
                                         Mpls::LFib::Source(r.source), r.metric, {}));
  }
  for (RouteKeyRef const& k : change.removeRoutes)
    lfib_->lfibRouteDel(Mpls::RouteKey(k.label, Mpls::LFib::Source(k.source)));
  for (U64 name : change.removeAdjacencies)
    lfib_->lfibAdjacencyDel(adjacencyIndex(name));
  for (U64 name : change.removeViaSets)
    lfib_->viaSetDel(adjacencyIndex(name));
  for (U64 name : change.removeExtFecAdjacencies)
    lfib_->lfibExtFecAdjacencyDel(extFecIndex(name));
  for (FecRef const& f : change.removeFecs) {
    Fib::FecId id = fecId(f.family, fecIndex(f.family, f.index));
    if (f.family == Family::ipv4) {
      fwd_->fecDel(id);
    } else {
      fwd6_->fecDel(id);
    }
  }
  if (change.resync) lfib_->lfibRouteNotifyCollection();
  return notes;
}

}  // namespace SrTeScenario
