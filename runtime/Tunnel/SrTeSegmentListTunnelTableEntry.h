// One entry of the SR-TE segment-list tunnel table: a tunnel id and the set of MPLS next hops
// (MplsVia) that the tunnel forwards over. A plain value, written whole into the table.
//
// The vias are a sorted vector without duplicates: an entry has a handful of vias, and a
// sorted set makes equality and the printed order independent of the order of insertion. Any
// change to an entry invalidates its iterators. The vias' block comes from the runtime's pools:
// a table of hundreds of thousands of tunnels holds as many via blocks.
#pragma once

#include <ostream>
#include <vector>

#include "Mosk/Pool.h"
#include "Tunnel/MplsVia.h"

namespace Tunnel::TunnelTable {

class SrTeSegmentListTunnelTableEntry {
 public:
  SrTeSegmentListTunnelTableEntry() = default;
  explicit SrTeSegmentListTunnelTableEntry(TunnelId const& tunnelId) : tunnelId_(tunnelId) {}

  TunnelId const& tunnelId() const { return tunnelId_; }

  // Adds `via` unless it is already present; returns the stored via.
  MplsVia const& newVia(MplsVia const& via);
  // Removes `via`; false when it was absent.
  bool viaDel(MplsVia const& via);
  void viaDelAll() { via_.clear(); }
  // Makes room for `count` vias, so that adding them allocates once.
  void viaReserve(U32 count) { via_.reserve(count); }
  bool hasVia(MplsVia const& via) const;
  U32 viaCount() const { return static_cast<U32>(via_.size()); }
  using Vias = std::vector<MplsVia, Mosk::Pool::Allocator<MplsVia>>;
  // In MplsVia order.
  Vias::const_iterator begin() const { return via_.begin(); }
  Vias::const_iterator end() const { return via_.end(); }

  bool operator==(SrTeSegmentListTunnelTableEntry const&) const = default;
  U32 hash() const;
  // "Value('Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry', ** {'tunnelId': %s,
  // 'via': [...]})".
  void strep(std::ostream& os) const;
  static SrTeSegmentListTunnelTableEntry strepRead(Mosk::TextReader& r);
  // Attribute-log form: the tunnel id, the via count as 32 bits, then the vias in order; a
  // repeated via is a format error.
  void logWrite(Mosk::LogWriter& w) const;
  static SrTeSegmentListTunnelTableEntry logRead(Mosk::LogReader& r);

 private:
  TunnelId tunnelId_;
  Vias via_;  // sorted, no duplicates
};

std::ostream& operator<<(std::ostream& os, SrTeSegmentListTunnelTableEntry const& entry);

}  // namespace Tunnel::TunnelTable
