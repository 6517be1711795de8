// Via sets and the hand-written operations of the MPLS status.
#include <algorithm>

#include "Mpls/MplsStatus.h"

namespace Mpls {

ViaSet::ViaSet(std::initializer_list<Via> vias) {
  for (Via const& v : vias)
    viaIs(v);
}

bool ViaSet::viaIs(Via const& via) {
  auto it = std::lower_bound(vias_.begin(), vias_.end(), via);
  if (it != vias_.end() && *it == via) return false;
  vias_.insert(it, via);
  return true;
}

bool ViaSet::viaDel(Via const& via) {
  auto it = std::lower_bound(vias_.begin(), vias_.end(), via);
  if (it == vias_.end() || !(*it == via)) return false;
  vias_.erase(it);
  return true;
}

bool ViaSet::hasVia(Via const& via) const {
  return std::binary_search(vias_.begin(), vias_.end(), via);
}

U32 RouteKey::hash() const {
  return topLabel_.hash();
}

U32 ViaSet::hash() const {
  Mosk::HashMix mix;
  for (Via const& v : vias_)
    mix.add(v.hash());
  return mix.final();
}

ViaSet ViaSet::strepRead(Mosk::TextReader& r) {
  ViaSet set;
  Mosk::readList<Via>(r, [&set](Via const& v) { set.viaIs(v); });
  return set;
}

void ViaSet::logWrite(Mosk::LogWriter& w) const {
  w.u32(viaCount());
  for (Via const& v : vias_)
    Mosk::logWrite(w, v);
}

ViaSet ViaSet::logRead(Mosk::LogReader& r) {
  U32 n = r.u32("via count");
  ViaSet set;
  for (U32 i = 0; i < n; ++i) {
    if (!set.viaIs(Mosk::logRead<Via>(r))) r.fail("via repeated in a via set");
  }
  return set;
}

std::ostream& operator<<(std::ostream& os, ViaSet const& set) {
  set.strep(os);
  return os;
}

void Status::lfibRouteIs(LFib::Route const& route) {
  if (route.key().topLabel().isNone()) {
    throw Mosk::RangeException("LFIB route " + Mosk::valueToStrep(route) +
                               " has no top label to be keyed by");
  }
  lfibRouteIs(route.key(), route);
}

ExtFecAdjacency Status::lfibExtFecAdjacencyIs(U64 adjIndex, Fib::FecId const& fecId,
                                              Ludd::MplsLabelAction labelAction) {
  ExtFecAdjacency adjacency(fecId, labelAction);
  lfibExtFecAdjacencyIs(adjIndex, adjacency);
  return adjacency;
}

U64 Status::getExtFecAdjacency(LFib::Route const& route) {
  AdjacencyKey const& key = route.adjacencyKey();
  return key.kind() == AdjacencyKind::extFec ? key.index() : 0;
}

}  // namespace Mpls
