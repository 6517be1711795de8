// A forwarding equivalence class as the forwarding status stores it: its id and up to 512
// vias.
//
// Vias are held in a vector sized to what was written, not in 512 inline slots, so that a
// million FECs fit in memory. Via slots and the via count are written separately, as a writer
// filling a FEC in place does (slot i, then raise the count to i); readers look only at the
// first viaCount() vias. A cleared FEC keeps its storage for the next write.
#pragma once

#include <ostream>
#include <vector>

#include "Fib/FibTypes.h"

namespace Fib {

class Fec {
 public:
  static constexpr U32 maxVias = ViaIndex::max;

  Fec() = default;
  explicit Fec(FecId const& fecId) : fecId_(fecId) {}

  FecId const& fecId() const { return fecId_; }
  void fecIdIs(FecId const& fecId) { fecId_ = fecId; }

  U32 viaCount() const { return viaCount_; }
  // Sets the number of vias that readers see; above 512 raises the ViaIndex range error.
  // Slots never written read as the empty via.
  void viaCountIs(U32 count);
  // The via in slot `i` (written or not).
  Via const& via(ViaIndex const& i) const;
  // Writes slot `i`; the count is not changed.
  void viaIs(ViaIndex const& i, Via const& via);
  // Makes room for `count` via slots at once, for a writer that knows how many it will write;
  // neither the slots nor the count change.
  void viaSlotsReserve(U32 count) { vias_.reserve(count); }
  // The first viaCount() vias, in index order.
  Via const* begin() const { return vias_.data(); }
  Via const* end() const { return vias_.data() + viaCount_; }

  // Back to no vias (count 0), keeping the storage.
  void clear();

  // Same id, same count and the same vias below the count.
  bool operator==(Fec const& other) const;
  U32 hash() const;
  // "Value('Fib::Fec', ** {'fecId': 0x..., 'via': [...]})" with the vias below the count.
  void strep(std::ostream& os) const;
  static Fec strepRead(Mosk::TextReader& r);

 private:
  FecId fecId_;
  U32 viaCount_ = 0;
  std::vector<Via> vias_;  // at least viaCount_ long
};

std::ostream& operator<<(std::ostream& os, Fec const& fec);

}  // namespace Fib
