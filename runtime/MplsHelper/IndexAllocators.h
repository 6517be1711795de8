// Index allocators of the platform: tunnel indexes for SR-TE segment-list tunnels and LFIB
// adjacency indexes for routes that this library installs.
//
// Neither hands an index out twice: a released adjacency index is not reused, so a route
// re-pointed at a fresh adjacency always gets a new index and a reader holding the old one
// never sees it stand for other next hops.
#pragma once

#include <array>

#include "Mosk/Entity.h"
#include "Mosk/HashMap.h"
#include "Mpls/MplsTypes.h"

namespace MplsHelper {

class SrTunnelIdxAllocator : public Mosk::NamedEntity {
 public:
  explicit SrTunnelIdxAllocator(Mosk::Name name = "SrTunnelIdxAllocator")
      : Mosk::NamedEntity(std::move(name)) {}

  // A fresh tunnel index: 1, 2, 3, ... in order. The caller forms the tunnel id, whose range
  // check refuses an index that does not fit.
  U64 getIdx();
  // The index that the next getIdx() returns.
  U64 nextIdx() const { return next_; }
  // Makes the next getIdx() return `idx` (at least 1): for tests that reach the end of the
  // tunnel id range, and for a host that resumes numbering.
  void nextIdxIs(U64 idx);

 private:
  U64 next_ = 1;
};

inline Mosk::Ptr<SrTunnelIdxAllocator> srTunnelIdxAllocatorFactory(
    Mosk::Name name = "SrTunnelIdxAllocator") {
  return Mosk::Ptr<SrTunnelIdxAllocator>(new SrTunnelIdxAllocator(std::move(name)));
}

class LfibGenAdjIdxAllocator : public Mosk::NamedEntity {
 public:
  // An index carries its source in the top byte, so indexes of different sources never meet
  // in one MPLS status.
  static constexpr U32 sourceShift = 56;
  static constexpr U64 counterMask = (U64{1} << sourceShift) - 1;

  explicit LfibGenAdjIdxAllocator(Mosk::Name name = "LfibGenAdjIdxAllocator")
      : Mosk::NamedEntity(std::move(name)) {}

  // A fresh adjacency index of `source`, never 0 and never handed out before.
  U64 getAdjacencyIndex(Mpls::LFib::Source const& source);
  // Gives `index` back. Index 0 is "no adjacency" (the adjacency of a route that is not
  // there) and releases nothing. Raises the range error when any other `index` is not
  // allocated to `source`.
  void releaseAdjacencyIndex(Mpls::LFib::Source const& source, U64 index);
  bool allocated(Mpls::LFib::Source const& source, U64 index) const;
  // The indexes of `source` allocated and not released.
  U32 allocatedCount(Mpls::LFib::Source const& source) const {
    return allocatedCount_[source.value()];
  }

 private:
  std::array<U64, 256> issued_{};  // per source, the last counter value handed out
  std::array<U32, 256> allocatedCount_{};
  Mosk::HashMap<U64, bool> allocated_;
};

inline Mosk::Ptr<LfibGenAdjIdxAllocator> lfibGenAdjIdxAllocatorFactory(
    Mosk::Name name = "LfibGenAdjIdxAllocator") {
  return Mosk::Ptr<LfibGenAdjIdxAllocator>(new LfibGenAdjIdxAllocator(std::move(name)));
}

}  // namespace MplsHelper
