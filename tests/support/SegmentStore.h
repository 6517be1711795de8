// Test helpers for the segment store: tables started as the host starts them, and segments and
// lists interned through them from plain labels, bottom of the stack first.
#pragma once

#include <vector>

#include "SrTePolicy/SrTePolicyDedupTables.h"

namespace TestSupport {

// Core dedup tables after handleInitialized(), ready for the machines that read them.
inline Mosk::Ptr<SrTePolicy::CoreDedupTables> initializedTables() {
  Mosk::Ptr<SrTePolicy::CoreDedupTables> t = SrTePolicy::coreDedupTablesFactory();
  t->handleInitialized();
  return t;
}

// The interned segment for `label`.
inline Mosk::Ptr<SrTePolicy::SegmentMplsLabel> segment(
    SrTePolicy::CoreDedupTables& tables, U32 label,
    SrTePolicy::SegmentType type = SrTePolicy::SegmentType::segMplsLabel) {
  return SrTePolicy::segmentMplsLabelFactory(type, Ludd::MplsLabel(label))
      ->dedup(*tables.segDedupTablePtr());
}

// The interned list of `labels`, position 0 first.
inline Mosk::Ptr<SrTePolicy::SegmentList> segmentList(
    SrTePolicy::CoreDedupTables& tables, std::vector<U32> const& labels,
    SrTePolicy::SegmentType type = SrTePolicy::SegmentType::segMplsLabel) {
  Mosk::Ptr<SrTePolicy::SegmentList> l = SrTePolicy::segmentListFactory();
  U8 i = 0;
  for (U32 label : labels)
    l->segmentIs(Ludd::MplsStackEntryIndex(i++), segment(tables, label, type));
  l->sizeIs(i);
  return l->dedup(*tables.segListDedupTablePtr());
}

}  // namespace TestSupport
