// Tunnel table entries and the whole-entry write of the tunnel table.
#include <algorithm>

#include "Tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {

MplsVia const& SrTeSegmentListTunnelTableEntry::newVia(MplsVia const& via) {
  auto it = std::lower_bound(via_.begin(), via_.end(), via);
  if (it != via_.end() && *it == via) return *it;
  return *via_.insert(it, via);
}

bool SrTeSegmentListTunnelTableEntry::viaDel(MplsVia const& via) {
  auto it = std::lower_bound(via_.begin(), via_.end(), via);
  if (it == via_.end() || !(*it == via)) return false;
  via_.erase(it);
  return true;
}

bool SrTeSegmentListTunnelTableEntry::hasVia(MplsVia const& via) const {
  return std::binary_search(via_.begin(), via_.end(), via);
}

U32 SrTeSegmentListTunnelTableEntry::hash() const {
  Mosk::HashMix mix;
  mix.add(tunnelId_.hash());
  for (MplsVia const& v : via_)
    mix.add(v.hash());
  return mix.final();
}

void SrTeSegmentListTunnelTableEntry::strep(std::ostream& os) const {
  os << "Value('Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry', ** {'tunnelId': ";
  tunnelId_.strep(os);
  os << ", 'via': ";
  Mosk::writeList(os, begin(), end());
  os << "})";
}

SrTeSegmentListTunnelTableEntry SrTeSegmentListTunnelTableEntry::strepRead(Mosk::TextReader& r) {
  r.expect("Value('Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry', ** {'tunnelId': ");
  SrTeSegmentListTunnelTableEntry entry(Mosk::readField<TunnelId>(r, "tunnelId"));
  r.expect(", 'via': ");
  Mosk::readList<MplsVia>(r, [&entry](MplsVia const& v) { entry.newVia(v); });
  r.expect("})");
  return entry;
}

void SrTeSegmentListTunnelTableEntry::logWrite(Mosk::LogWriter& w) const {
  tunnelId_.logWrite(w);
  w.u32(viaCount());
  for (MplsVia const& v : via_)
    v.logWrite(w);
}

SrTeSegmentListTunnelTableEntry SrTeSegmentListTunnelTableEntry::logRead(Mosk::LogReader& r) {
  SrTeSegmentListTunnelTableEntry entry(Mosk::logReadField<TunnelId>(r, "tunnelId"));
  U32 n = r.u32("via count");
  for (U32 i = 0; i < n; ++i) {
    MplsVia via = Mosk::logReadField<MplsVia>(r, "via");
    if (entry.hasVia(via)) r.fail("via repeated in a tunnel table entry");
    entry.newVia(via);
  }
  return entry;
}

std::ostream& operator<<(std::ostream& os, SrTeSegmentListTunnelTableEntry const& entry) {
  entry.strep(os);
  return os;
}

void SrTeSegmentListTunnelTable::entryIs(SrTeSegmentListTunnelTableEntry const& entry) {
  if (!entry.tunnelId().isValid()) {
    throw Mosk::RangeException("tunnel table entry " + Mosk::valueToStrep(entry) +
                               " has no tunnel id");
  }
  entryIs(entry.tunnelId(), entry);
}

}  // namespace Tunnel::TunnelTable
