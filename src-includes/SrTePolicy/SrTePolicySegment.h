// Segments: the interned hops of segment lists.
//
// A segment is one MPLS label. Every label stack of every candidate path is built from shared
// segments: SegmentMplsLabel objects deduplicated in the segment dedup table (one object per
// distinct label, counted by its holders). A segment gets its SegmentId when it first enters
// the table, and keeps a raw pointer to the SegmentLifeTimeNotifier that lists it in the
// NotifyingSegmentCollection while it is there (the notifier holds the counted reference, so
// the segment does not keep its notifier alive).
#pragma once

#include <ostream>

#include "Mpls/MplsStatus.h"
#include "SrTePolicy/SrTePolicyTypes.h"
#include "Vell/Dedup.h"

namespace SrTePolicy {

class SegmentDedupTable;
class SegmentLifeTimeNotifier;
class SegmentResolver;
class SegmentResolveResult;

class SegmentBase : public Vell::DedupHandle {
 public:
  explicit SegmentBase(SegmentType type) : type_(type) {}

  // 0 until the segment first enters the dedup table; never changed afterwards.
  SegmentId segmentId() const { return segmentId_; }
  SegmentType type() const { return type_; }
  // Set while the segment is in the dedup table.
  SegmentLifeTimeNotifier const* segmentLifeTimeNotifier() const { return notifier_; }

  U32 hash() const override = 0;
  bool compare(Vell::DedupHandle const& other) const override;

  // Resolves the segment over every route source of the LFIB; null when it does not resolve.
  virtual Mosk::Ptr<SegmentResolveResult const> resolveSegment(SegmentResolver const& r) const;
  // Resolves the segment against one given route; null when that route cannot be used.
  virtual Mosk::Ptr<SegmentResolveResult const> resolveSegmentOnLFib(
      SegmentResolver const& r, Mpls::LFib::Route const& route) const;
  // Identity of the segment's value; the id and the notifier take no part.
  virtual bool segmentCompare(SegmentBase const& other) const;
  void segmentIdIs(SegmentId id) { segmentId_ = id; }
  void segmentLifeTimeNotifierIs(SegmentLifeTimeNotifier const* notifier) { notifier_ = notifier; }

 private:
  SegmentId segmentId_;
  SegmentType const type_;
  SegmentLifeTimeNotifier const* notifier_ = nullptr;
};

class SegmentMplsLabel : public SegmentBase {
 public:
  SegmentMplsLabel(SegmentType type, Ludd::MplsLabel label) : SegmentBase(type), label_(label) {}

  Ludd::MplsLabel label() const { return label_; }

  // Jenkins one-at-a-time over the type's four bytes, then the label's, least significant first.
  U32 hash() const override;
  bool segmentCompare(SegmentBase const& other) const override;
  Mosk::Ptr<SegmentResolveResult const> resolveSegment(SegmentResolver const& r) const override;
  Mosk::Ptr<SegmentResolveResult const> resolveSegmentOnLFib(
      SegmentResolver const& r, Mpls::LFib::Route const& route) const override;

  // Hands this new segment to the dedup table and returns the canonical one: an existing equal
  // segment, or this one, now inserted. The caller keeps only the returned pointer.
  Mosk::Ptr<SegmentMplsLabel> dedup(SegmentDedupTable const& table);

 private:
  Ludd::MplsLabel const label_;
};

inline Mosk::Ptr<SegmentMplsLabel> segmentMplsLabelFactory(SegmentType type,
                                                           Ludd::MplsLabel label) {
  return Mosk::Ptr<SegmentMplsLabel>(new SegmentMplsLabel(type, label));
}

// Lists a live segment in the NotifyingSegmentCollection; holds a counted reference to it.
class SegmentLifeTimeNotifier : public Vell::DedupHandleLifeTimeNotifier {
 public:
  explicit SegmentLifeTimeNotifier(Mosk::Ptr<Vell::DedupHandle const> segment)
      : Vell::DedupHandleLifeTimeNotifier(std::move(segment)) {}
  SegmentBase* segmentRawPtr() const { return static_cast<SegmentBase*>(getDedupedObjectRawPtr()); }
  std::string toStrep() const;
};

// Notifier sets hash by the segment id, so that their order does not depend on addresses.
struct SegmentNotifierHash {
  U32 operator()(Mosk::Ptr<SegmentLifeTimeNotifier const> const& n) const {
    return Mosk::hashU32(n->segmentRawPtr()->segmentId().value());
  }
};

}  // namespace SrTePolicy
