// The dedup tables of the segment store and the object that owns them.
//
// CoreDedupTables holds, in this order of creation, the NotifyingSegmentCollection, the
// segment lifetime notifiee, the segment dedup table, the NotifyingSegmentListCollection, the
// segment-list lifetime notifiee and the segment-list dedup table. The notifiees keep the
// notifying collections in step with the tables: a new distinct segment (list) gets the next
// identifier (1, 2, 3, ..., never reused) and is listed; one that leaves its table (its last
// holder outside the table let go) is delisted. One CoreDedupTables is shared by the input
// stage, which creates segments and lists through it, and the resolution stages.
#pragma once

#include <ostream>

#include "Mosk/HashMap.h"
#include "SrTePolicy/SrTePolicyCoreDedupTable.h"

namespace SrTePolicy {

class SegmentLifeTimeNotifiee : public Vell::DedupHashTableLifeTimeNotifiee {
 public:
  explicit SegmentLifeTimeNotifiee(Mosk::Ptr<NotifyingSegmentCollection> collection)
      : collection_(std::move(collection)) {}
  Mosk::Ptr<NotifyingSegmentCollection> const& collection() const { return collection_; }

  void handleInsert(Mosk::Ptr<Vell::DedupHandle> const& handle) const override;
  void handleRemove(Vell::DedupHandle* handle) const override;
  void handleNotificationStop(Vell::DedupHashTable* table) const override;

  // The label index: every label segment this notifiee has heard inserted and not yet removed,
  // by label. It answers a lookup by label with one probe of a small key, where the table
  // would hash a stack segment byte by byte.
  SegmentMplsLabel const* segmentByLabel(Ludd::MplsLabel label) const {
    SegmentMplsLabel const* const* found = byLabel_.find(label.value());
    return found ? *found : nullptr;
  }
  // Whether the index holds exactly the entries of `table`. It holds only entries of the
  // table it is registered with, each from the moment it is reported inserted until it is
  // reported leaving; so it is exact when this notifiee is the table's and the sizes agree.
  // They differ for a moment while an entry is being linked or unlinked, and while the table
  // announces its entries to a newly registered notifiee.
  bool indexes(Vell::DedupHashTable const& table) const {
    return table.lifeTimeNotifiee().ptr() == this && byLabel_.size() == table.size();
  }

 private:
  Mosk::Ptr<NotifyingSegmentCollection> const collection_;
  mutable Mosk::HashMap<U32, SegmentMplsLabel const*> byLabel_;
};

class SegmentDedupTable : public Mosk::PtrInterface {
 public:
  explicit SegmentDedupTable(Mosk::Ptr<SegmentLifeTimeNotifiee const> notifiee)
      : notifiee_(std::move(notifiee)) {}
  // Creates the hash table and registers the notifiee with it.
  void handleInitialized();
  Mosk::Ptr<Vell::DedupHashTable> const& dedupTable() const { return dedupTable_; }
  // The live segment of this label, or null; never inserts. Answered from the notifiee's label
  // index while it mirrors the table, by probing the table otherwise.
  Mosk::Ptr<SegmentMplsLabel const> lookupByLabel(Ludd::MplsLabel label) const;

 private:
  Mosk::Ptr<SegmentLifeTimeNotifiee const> const notifiee_;
  Mosk::Ptr<Vell::DedupHashTable> dedupTable_;
};

class SegmentListLifeTimeNotifiee : public Vell::DedupHashTableLifeTimeNotifiee {
 public:
  explicit SegmentListLifeTimeNotifiee(Mosk::Ptr<NotifyingSegmentListCollection> collection)
      : collection_(std::move(collection)) {}
  Mosk::Ptr<NotifyingSegmentListCollection> const& collection() const { return collection_; }

  void handleInsert(Mosk::Ptr<Vell::DedupHandle> const& handle) const override;
  void handleRemove(Vell::DedupHandle* handle) const override;
  void handleNotificationStop(Vell::DedupHashTable* table) const override;

 private:
  Mosk::Ptr<NotifyingSegmentListCollection> const collection_;
};

class SegmentListDedupTable : public Mosk::PtrInterface {
 public:
  explicit SegmentListDedupTable(Mosk::Ptr<SegmentListLifeTimeNotifiee const> notifiee)
      : notifiee_(std::move(notifiee)) {}
  void handleInitialized();
  Mosk::Ptr<Vell::DedupHashTable> const& dedupTable() const { return dedupTable_; }

 private:
  Mosk::Ptr<SegmentListLifeTimeNotifiee const> const notifiee_;
  Mosk::Ptr<Vell::DedupHashTable> dedupTable_;
};

class CoreDedupTables : public Mosk::Entity {
 public:
  CoreDedupTables() = default;
  ~CoreDedupTables() override;
  Mosk::Name name() const override { return "coreDedupTables"; }

  // Creates the six parts in order; nothing can be deduplicated before.
  void handleInitialized();
  // The hash table both dedup tables use.
  static Mosk::Ptr<Vell::DedupHashTable> createDedupHashTable();

  Mosk::Ptr<NotifyingSegmentCollection> const& notifyingSegmentCollection() const {
    return notifyingSegmentCollection_;
  }
  Mosk::Ptr<SegmentDedupTable> const& segDedupTablePtr() const { return segDedupTablePtr_; }
  Mosk::Ptr<NotifyingSegmentListCollection> const& notifyingSegmentListCollection() const {
    return notifyingSegmentListCollection_;
  }
  Mosk::Ptr<SegmentListDedupTable> const& segListDedupTablePtr() const {
    return segListDedupTablePtr_;
  }

 private:
  Mosk::Ptr<NotifyingSegmentCollection> notifyingSegmentCollection_;
  Mosk::Ptr<SegmentLifeTimeNotifiee> segLifeTimeNotifiee_;
  Mosk::Ptr<SegmentDedupTable> segDedupTablePtr_;
  Mosk::Ptr<NotifyingSegmentListCollection> notifyingSegmentListCollection_;
  Mosk::Ptr<SegmentListLifeTimeNotifiee> segListLifeTimeNotifiee_;
  Mosk::Ptr<SegmentListDedupTable> segListDedupTablePtr_;
};

inline Mosk::Ptr<CoreDedupTables> coreDedupTablesFactory() {
  return Mosk::Ptr<CoreDedupTables>(new CoreDedupTables());
}

// Text dumps for diagnostics, each line indented by `indent` spaces.
void dump(std::ostream& os, NotifyingSegmentCollection const& c, int indent = 0);
void dump(std::ostream& os, NotifyingSegmentListCollection const& c, int indent = 0);
void dump(std::ostream& os, CoreDedupTables const& t, int indent = 0);

}  // namespace SrTePolicy
