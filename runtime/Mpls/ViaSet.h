// Mpls::ViaSet: an ordered set of vias (Mpls::Via order), the value of the via-set table and of
// LFIB adjacencies. Kept as a sorted vector: sets are small (ECMP fan-out), a lookup is a
// binary search, and a walk visits the vias in their order. Any change to the set invalidates
// its iterators; readers of the MPLS status walk a copy.
#pragma once

#include <initializer_list>
#include <ostream>
#include <vector>

#include "Mpls/MplsTypes.h"

namespace Mpls {

class ViaSet {
 public:
  ViaSet() = default;
  ViaSet(std::initializer_list<Via> vias);

  // Adds `via`; false when it was already present.
  bool viaIs(Via const& via);
  // Removes `via`; false when it was absent.
  bool viaDel(Via const& via);
  void viaDelAll() { vias_.clear(); }
  bool hasVia(Via const& via) const;
  U32 viaCount() const { return static_cast<U32>(vias_.size()); }
  bool empty() const { return vias_.empty(); }
  // In Mpls::Via order.
  std::vector<Via>::const_iterator begin() const { return vias_.begin(); }
  std::vector<Via>::const_iterator end() const { return vias_.end(); }

  bool operator==(ViaSet const&) const = default;
  U32 hash() const;
  // "[via, via]" with each via's text form, in order.
  void strep(std::ostream& os) const { Mosk::writeList(os, begin(), end()); }
  static ViaSet strepRead(Mosk::TextReader& r);
  // Attribute-log form: the count as 32 bits, then the vias in order; a repeated via is a
  // format error.
  void logWrite(Mosk::LogWriter& w) const;
  static ViaSet logRead(Mosk::LogReader& r);

 private:
  std::vector<Via> vias_;  // sorted, no duplicates
};

std::ostream& operator<<(std::ostream& os, ViaSet const& set);

}  // namespace Mpls
