#include "MplsHelper/IndexAllocators.h"

#include <string>

namespace MplsHelper {

U64 SrTunnelIdxAllocator::getIdx() {
  MOSK_ASSERT_MSG(next_ != 0, "tunnel index space exhausted");
  return next_++;
}

void SrTunnelIdxAllocator::nextIdxIs(U64 idx) {
  if (idx == 0) throw Mosk::RangeException("tunnel index 0 is never handed out");
  next_ = idx;
}

U64 LfibGenAdjIdxAllocator::getAdjacencyIndex(Mpls::LFib::Source const& source) {
  U64& issued = issued_[source.value()];
  MOSK_ASSERT_MSG(issued < counterMask, "adjacency index space of a source exhausted");
  U64 index = static_cast<U64>(source.value()) << sourceShift | ++issued;
  allocated_.set(index, true);
  ++allocatedCount_[source.value()];
  return index;
}

void LfibGenAdjIdxAllocator::releaseAdjacencyIndex(Mpls::LFib::Source const& source, U64 index) {
  if (index == 0) return;  // "no adjacency": what a missing route points at
  if (!allocated(source, index)) {
    throw Mosk::RangeException("adjacency index " + std::to_string(index) + " of source " +
                               std::to_string(source.value()) +
                               " is not allocated and cannot be released");
  }
  allocated_.erase(index);
  --allocatedCount_[source.value()];
}

bool LfibGenAdjIdxAllocator::allocated(Mpls::LFib::Source const& source, U64 index) const {
  return index >> sourceShift == source.value() && allocated_.contains(index);
}

}  // namespace MplsHelper
