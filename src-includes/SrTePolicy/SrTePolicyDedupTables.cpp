#include "SrTePolicy/SrTePolicyDedupTables.h"

#include <algorithm>
#include <string>
#include <vector>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle segmentTrace("SrTePolicySegment");
Flicker::TraceHandle segmentListTrace("SrTePolicySegmentList");

std::string pad(int indent) {
  return std::string(static_cast<std::size_t>(std::max(indent, 0)), ' ');
}

}  // namespace

// Segments

void SegmentLifeTimeNotifiee::handleInsert(Mosk::Ptr<Vell::DedupHandle> const& handle) const {
  SRTE_TRACE(segmentTrace, TraceLevel::lifetime, "handleInsert");
  auto* segment = static_cast<SegmentBase*>(handle.ptr());
  MOSK_ASSERT_MSG(nullptr == segment->segmentLifeTimeNotifier(),
                  "__null == segment->segmentLifeTimeNotifier()");
  collection_->uniqueIdInc(SegmentId(1));
  segment->segmentIdIs(collection_->uniqueId());
  Mosk::Ptr<SegmentLifeTimeNotifier const> notifier(new SegmentLifeTimeNotifier(handle));
  segment->segmentLifeTimeNotifierIs(notifier.ptr());
  // Indexed before the collection tells its reactors, which may look the label up.
  if (segment->type() == SegmentType::segMplsLabel) {
    auto const* labelled = static_cast<SegmentMplsLabel const*>(segment);
    byLabel_.set(labelled->label().value(), labelled);
  }
  collection_->segmentNotifierIs(notifier, true);
}

void SegmentLifeTimeNotifiee::handleRemove(Vell::DedupHandle* handle) const {
  SRTE_TRACE(segmentTrace, TraceLevel::lifetime, "handleRemove");
  auto* segment = static_cast<SegmentBase*>(handle);
  Mosk::Ptr<SegmentLifeTimeNotifier const> lifeTimeNotifier(segment->segmentLifeTimeNotifier());
  MOSK_ASSERT_MSG(nullptr != lifeTimeNotifier, "__null != lifeTimeNotifier");
  if (segment->type() == SegmentType::segMplsLabel)
    byLabel_.erase(static_cast<SegmentMplsLabel const*>(segment)->label().value());
  collection_->segmentNotifierDel(lifeTimeNotifier);
  segment->segmentLifeTimeNotifierIs(nullptr);
}

void SegmentLifeTimeNotifiee::handleNotificationStop(Vell::DedupHashTable*) const {
  for (auto it = collection_->segmentNotifierIter(); it; ++it) {
    handleRemove(it.key()->segmentRawPtr());
  }
}

void SegmentDedupTable::handleInitialized() {
  dedupTable_ = CoreDedupTables::createDedupHashTable();
  dedupTable_->lifeTimeNotifieeIs(notifiee_);
}

Mosk::Ptr<SegmentMplsLabel const> SegmentDedupTable::lookupByLabel(Ludd::MplsLabel label) const {
  if (notifiee_->indexes(*dedupTable_))
    return Mosk::Ptr<SegmentMplsLabel const>(notifiee_->segmentByLabel(label));
  SegmentMplsLabel probe(SegmentType::segMplsLabel, label);
  return Mosk::ptrCast<SegmentMplsLabel const>(dedupTable_->lookup(probe));
}

// Segment lists

void SegmentListLifeTimeNotifiee::handleInsert(Mosk::Ptr<Vell::DedupHandle> const& handle) const {
  SRTE_TRACE(segmentListTrace, TraceLevel::lifetime, "handleInsert");
  auto* list = static_cast<SegmentList*>(handle.ptr());
  MOSK_ASSERT_MSG(nullptr == list->segmentListLifeTimeNotifier(),
                  "__null == segmentList->segmentListLifeTimeNotifier()");
  collection_->uniqueIdInc(SegmentListId(1));
  list->segmentListIdIs(collection_->uniqueId());
  Mosk::Ptr<SegmentListLifeTimeNotifier const> notifier(new SegmentListLifeTimeNotifier(handle));
  list->segmentListLifeTimeNotifierIs(notifier.ptr());
  collection_->segmentListNotifierIs(notifier, true);
}

void SegmentListLifeTimeNotifiee::handleRemove(Vell::DedupHandle* handle) const {
  SRTE_TRACE(segmentListTrace, TraceLevel::lifetime, "handleRemove");
  auto* list = static_cast<SegmentList*>(handle);
  Mosk::Ptr<SegmentListLifeTimeNotifier const> lifeTimeNotifier(
      list->segmentListLifeTimeNotifier());
  MOSK_ASSERT_MSG(nullptr != lifeTimeNotifier, "__null != lifeTimeNotifier");
  collection_->segmentListNotifierDel(lifeTimeNotifier);
  list->segmentListLifeTimeNotifierIs(nullptr);
}

void SegmentListLifeTimeNotifiee::handleNotificationStop(Vell::DedupHashTable*) const {
  for (auto it = collection_->segmentListNotifierIter(); it; ++it) {
    handleRemove(it.key()->segmentListRawPtr());
  }
}

void SegmentListDedupTable::handleInitialized() {
  dedupTable_ = CoreDedupTables::createDedupHashTable();
  dedupTable_->lifeTimeNotifieeIs(notifiee_);
}

// The owner

CoreDedupTables::~CoreDedupTables() {
  // Lists go first: they hold segments, so releasing them may empty the segment table.
  segListDedupTablePtr_ = nullptr;
  segDedupTablePtr_ = nullptr;
}

void CoreDedupTables::handleInitialized() {
  notifyingSegmentCollection_ = notifyingSegmentCollectionFactory("notifyingSegmentCollection");
  segLifeTimeNotifiee_ =
      Mosk::Ptr<SegmentLifeTimeNotifiee>(new SegmentLifeTimeNotifiee(notifyingSegmentCollection_));
  segDedupTablePtr_ = Mosk::Ptr<SegmentDedupTable>(new SegmentDedupTable(segLifeTimeNotifiee_));
  segDedupTablePtr_->handleInitialized();
  notifyingSegmentListCollection_ =
      notifyingSegmentListCollectionFactory("notifyingSegmentListCollection");
  segListLifeTimeNotifiee_ = Mosk::Ptr<SegmentListLifeTimeNotifiee>(
      new SegmentListLifeTimeNotifiee(notifyingSegmentListCollection_));
  segListDedupTablePtr_ =
      Mosk::Ptr<SegmentListDedupTable>(new SegmentListDedupTable(segListLifeTimeNotifiee_));
  segListDedupTablePtr_->handleInitialized();
}

Mosk::Ptr<Vell::DedupHashTable> CoreDedupTables::createDedupHashTable() {
  return Vell::dedupHashTableUnorderedSetFactory(0);
}

// Dumps list the live elements by identifier.

void dump(std::ostream& os, NotifyingSegmentCollection const& c, int indent) {
  os << pad(indent) << "NotifyingSegmentCollection uniqueIds:" << c.uniqueId().value() << "\n";
  std::vector<std::pair<U32, U32>> items;
  for (auto it = c.segmentNotifierIter(); it; ++it) {
    SegmentBase const* s = it.key()->segmentRawPtr();
    U32 label = s->type() == SegmentType::segMplsLabel
                    ? static_cast<SegmentMplsLabel const*>(s)->label().value()
                    : 0;
    items.emplace_back(s->segmentId().value(), label);
  }
  std::sort(items.begin(), items.end());
  for (auto const& [id, label] : items)
    os << pad(indent) << id << ":" << label;
}

void dump(std::ostream& os, NotifyingSegmentListCollection const& c, int indent) {
  std::vector<std::pair<U32, U32>> items;
  for (auto it = c.segmentListNotifierIter(); it; ++it) {
    SegmentList const* l = it.key()->segmentListRawPtr();
    items.emplace_back(l->segmentListId().value(), l->size());
  }
  std::sort(items.begin(), items.end());
  for (auto const& [id, size] : items) {
    os << pad(indent) << "SegmentListId: " << id << " size: " << size << " \n";
  }
}

void dump(std::ostream& os, CoreDedupTables const& t, int indent) {
  os << pad(indent) << "CoreDedupTables\n";
  int inner = indent + 2;
  os << pad(inner) << "SegmentDedupTable\n";
  os << pad(inner) << "NotifyingSegmentCollection\n";
  if (t.notifyingSegmentCollection()) dump(os, *t.notifyingSegmentCollection(), inner + 2);
  os << pad(inner) << "SegmentListDedupTable\n";
  os << pad(inner) << "NotifyingSegmentListCollection\n";
  if (t.notifyingSegmentListCollection()) dump(os, *t.notifyingSegmentListCollection(), inner + 2);
}

}  // namespace SrTePolicy
