// The hand-written part of the segment-list status model: the via set of a resolved list.
#include <algorithm>

#include "SrTePolicy/SrTePolicySegmentListStatus.h"

namespace SrTePolicy {

using Tunnel::TunnelTable::MplsVia;

MplsViaSet::Vias::iterator MplsViaSet::lowerBound(MplsVia const& via) {
  return std::lower_bound(via_.begin(), via_.end(), via);
}

void MplsViaSet::viaIs(MplsVia const& via, bool present) {
  if (present) {
    newVia(via);
  } else {
    viaDel(via);
  }
}

MplsVia const& MplsViaSet::newVia(MplsVia const& via, bool present) {
  if (!present) {
    throw Mosk::RangeException("MplsViaSet::newVia of " + Mosk::valueToStrep(via) +
                               " with the flag false: a via set holds only present vias");
  }
  // Resolution adds vias in ascending order, so the common case appends.
  if (via_.empty() || via_.back() < via) return via_.emplace_back(via);
  auto it = lowerBound(via);
  if (it != via_.end() && *it == via) return *it;
  return *via_.insert(it, via);
}

bool MplsViaSet::viaDel(MplsVia const& via) {
  auto it = lowerBound(via);
  if (it == via_.end() || !(*it == via)) return false;
  via_.erase(it);
  return true;
}

bool MplsViaSet::via(MplsVia const& via) const {
  return std::binary_search(via_.begin(), via_.end(), via);
}

U32 MplsViaSet::hash() const {
  Mosk::HashMix mix;
  for (MplsVia const& v : via_)
    mix.add(v.hash());
  return mix.final();
}

void MplsViaSet::strep(std::ostream& os) const {
  os << "Value('SrTePolicy::MplsViaSet', ** {'via': ";
  Mosk::writeList(os, begin(), end());
  os << "})";
}

std::ostream& operator<<(std::ostream& os, MplsViaSet const& set) {
  set.strep(os);
  return os;
}

}  // namespace SrTePolicy
