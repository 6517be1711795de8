// The next hops that resolving one segment list produces, and the result object that carries
// them from the resolving step to the step that writes the tunnel table and the status.
//
// MplsViaSet is a plain value: a set of tunnel next hops (next hop, interface, label stack)
// without duplicates, kept sorted in MplsVia order so that equality, the text form and the
// order in which a tunnel entry is filled do not depend on the order of insertion. A resolved
// list has a handful of next hops (the fan-out of one adjacency), so the first two sit inline
// and building a set for such a list allocates nothing.
#pragma once

#include <boost/container/small_vector.hpp>
#include <ostream>

#include "Mosk/Ptr.h"
#include "Tunnel/MplsVia.h"

namespace SrTePolicy {

class MplsViaSet {
 public:
  using Vias = boost::container::small_vector<Tunnel::TunnelTable::MplsVia, 2>;
  using const_iterator = Vias::const_iterator;

  MplsViaSet() = default;

  // With `present` true adds `via` (a via already present is not added twice); with false
  // removes it.
  void viaIs(Tunnel::TunnelTable::MplsVia const& via, bool present);
  // Adds `via` and returns the stored via. A set holds only present vias, so `present` false
  // raises the range error.
  Tunnel::TunnelTable::MplsVia const& newVia(Tunnel::TunnelTable::MplsVia const& via,
                                             bool present = true);
  // Removes `via`; false when it was absent.
  bool viaDel(Tunnel::TunnelTable::MplsVia const& via);
  void viaDelAll() { via_.clear(); }
  bool via(Tunnel::TunnelTable::MplsVia const& via) const;
  U32 viaCount() const { return static_cast<U32>(via_.size()); }
  bool empty() const { return via_.empty(); }
  // In MplsVia order.
  const_iterator begin() const { return via_.begin(); }
  const_iterator end() const { return via_.end(); }

  bool operator==(MplsViaSet const& other) const { return via_ == other.via_; }
  U32 hash() const;
  // "Value('SrTePolicy::MplsViaSet', ** {'via': [...]})", the vias in order.
  void strep(std::ostream& os) const;

 private:
  // The insertion point of `via`: the first stored via not before it.
  Vias::iterator lowerBound(Tunnel::TunnelTable::MplsVia const& via);

  Vias via_;  // sorted, no duplicates
};

std::ostream& operator<<(std::ostream& os, MplsViaSet const& set);

// The next hops of one resolved segment list. Immutable and shared by pointer; an unresolved
// list has no result object at all (a null pointer), never an empty one made on purpose.
class SegmentListResolveResult : public Mosk::PtrInterface {
 public:
  explicit SegmentListResolveResult(MplsViaSet const& viaSet) : viaSet_(viaSet) {}

  MplsViaSet const& viaSet() const { return viaSet_; }

 private:
  MplsViaSet const viaSet_;
};

inline Mosk::Ptr<SegmentListResolveResult const> segmentListResolveResultFactory(
    MplsViaSet const& viaSet) {
  return Mosk::Ptr<SegmentListResolveResult const>(new SegmentListResolveResult(viaSet));
}
// The same from a via set that may be missing: null raises the "null ValidPtr" range error.
inline Mosk::Ptr<SegmentListResolveResult const> segmentListResolveResultFactory(
    MplsViaSet const* viaSet) {
  if (viaSet == nullptr) Mosk::throwNullValidPtr();
  return segmentListResolveResultFactory(*viaSet);
}

}  // namespace SrTePolicy
