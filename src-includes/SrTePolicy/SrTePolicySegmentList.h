// Segment lists: interned label stacks of shared segments.
//
// A SegmentList holds up to six deduplicated segments, position 0 first (the top of the
// stack). Lists are deduplicated like segments: identical stacks, from any candidate path of
// any source, share one SegmentList with one SegmentListId. Two lists are the same when they
// hold the same segment objects in the same positions; since segments are interned, that is
// the same labels.
#pragma once

#include <ostream>

#include "Ludd/Ludd.h"
#include "SrTePolicy/SrTePolicySegment.h"

namespace SrTePolicy {

class SegmentListDedupTable;
class SegmentListLifeTimeNotifier;

class SegmentList : public Vell::DedupHandle {
 public:
  static constexpr U32 maxSegments = 6;

  SegmentList() = default;

  // 0 until the list first enters the dedup table; never changed afterwards.
  SegmentListId segmentListId() const { return segmentListId_; }
  U8 size() const { return size_; }
  void sizeIs(U8 size) { size_ = size; }

  Mosk::Ptr<SegmentBase const> const& segment(Ludd::MplsStackEntryIndex const& i) const {
    return segment_.at(i);
  }
  // Writes one position; an index outside 0..5 raises the stack-index range error.
  void segmentIs(Ludd::MplsStackEntryIndex const& i, Mosk::Ptr<SegmentBase const> const& s) {
    segment_.set(i, s);
  }
  void segmentDel(Ludd::MplsStackEntryIndex const& i) { segment_.erase(i); }
  void segmentDelAll() { segment_.clear(); }

  // The label of the segment at `i`, which must be a label segment.
  Ludd::MplsLabel segmentLabel(U32 i) const;
  // The id of the segment at `i`; the position must hold a segment.
  SegmentId getSegmentId(U32 i) const { return segment_[i]->segmentId(); }

  SegmentListLifeTimeNotifier const* segmentListLifeTimeNotifier() const { return notifier_; }
  void segmentListIdIs(SegmentListId id) { segmentListId_ = id; }
  void segmentListLifeTimeNotifierIs(SegmentListLifeTimeNotifier const* n) { notifier_ = n; }

  // 0 for an empty list; otherwise Jenkins one-at-a-time over the low four bytes of each
  // segment's address: stable while the list holds its segments.
  U32 hash() const override;
  bool compare(Vell::DedupHandle const& other) const override;
  bool segmentListCompare(SegmentList const& other) const;

  // Hands this new list to the dedup table and returns the canonical one.
  Mosk::Ptr<SegmentList> dedup(SegmentListDedupTable const& table);

 private:
  SegmentListId segmentListId_;
  U8 size_ = 0;
  Mosk::Array<Mosk::Ptr<SegmentBase const>, Ludd::MplsStackEntryIndex, maxSegments> segment_;
  SegmentListLifeTimeNotifier const* notifier_ = nullptr;
};

inline Mosk::Ptr<SegmentList> segmentListFactory() {
  return Mosk::Ptr<SegmentList>(new SegmentList());
}

// The labels of a list, top first: "[16001, 16002]".
std::ostream& operator<<(std::ostream& os, SegmentList const& list);

class SegmentListLifeTimeNotifier : public Vell::DedupHandleLifeTimeNotifier {
 public:
  explicit SegmentListLifeTimeNotifier(Mosk::Ptr<Vell::DedupHandle const> list)
      : Vell::DedupHandleLifeTimeNotifier(std::move(list)) {}
  SegmentList* segmentListRawPtr() const {
    return static_cast<SegmentList*>(getDedupedObjectRawPtr());
  }
  std::string toStrep() const;
};

struct SegmentListNotifierHash {
  U32 operator()(Mosk::Ptr<SegmentListLifeTimeNotifier const> const& n) const {
    return Mosk::hashU32(n->segmentListRawPtr()->segmentListId().value());
  }
};

// Maps keyed by a segment list hash by its id: deterministic order, and the id never changes
// while the list is deduplicated.
struct SegmentListPtrHash {
  U32 operator()(Mosk::Ptr<SegmentList const> const& l) const {
    return Mosk::hashU32(l->segmentListId().value());
  }
};

}  // namespace SrTePolicy
