// The reference rule of dedup handles, the table's insert and remove protocol with its
// notifiee, and the intrusive hash table behind DedupHashTableUnorderedSet.
#include "Vell/Dedup.h"

#include "Mosk/Assert.h"

namespace Vell {

DedupHandle::~DedupHandle() {
  // The table holds a reference to each entry, so an entry cannot reach its destructor.
  MOSK_ASSERT(table_ == nullptr);
}

U32 DedupHandle::referencesInc() const {
  MOSK_ASSERT_IN(!beingDetached(), "U32 Vell::DedupHandle::referencesInc() const");
  newRef();
  return references();
}

void DedupHandle::newReferenceTaken() const {
  // Only a detaching object sets the hook, so this is a reference taken to it.
  MOSK_ASSERT_IN(!beingDetached(), "U32 Vell::DedupHandle::referencesInc() const");
}

void DedupHandle::referencesDecreasedTo(U32 left) const {
  if (table_ != nullptr && !beingDetached() && left == tableShare()) doRemoveFromDedupTable();
}

void DedupHandle::doRemoveFromDedupTable() const {
  MOSK_ASSERT(table_ != nullptr && !beingDetached());
  table_->removeEntry(*this);
}

DedupHandleLifeTimeNotifier::DedupHandleLifeTimeNotifier(Mosk::Ptr<DedupHandle const> handle)
    : handle_(std::move(handle)) {
  if (!handle_) Mosk::throwNullValidPtr();
  MOSK_ASSERT(!handle_->haveLifeTimeNotifier());
  handle_->flags_ |= DedupHandle::kHaveLifeTimeNotifier;
}

DedupHandleLifeTimeNotifier::~DedupHandleLifeTimeNotifier() {
  // The flag goes first, so that the release below is judged against the table's own share.
  handle_->flags_ &= static_cast<U16>(~DedupHandle::kHaveLifeTimeNotifier);
}

Mosk::Ptr<DedupHandle> DedupHashTable::dedup(Mosk::Ptr<DedupHandle> const& handle) {
  if (!handle) Mosk::throwNullValidPtr();
  if (handle->table_ == this) return handle;
  MOSK_ASSERT_MSG(handle->table_ == nullptr, "a dedup handle can be an entry of one table only");
  U32 h = handle->hash();
  if (DedupHandle* existing = find(*handle, h)) return Mosk::Ptr<DedupHandle>(existing);
  handle->hash_ = h;
  handle->table_ = this;
  handle->flags_ |= DedupHandle::kReferenceHook;
  handle->newRef();  // the table's own reference
  link(*handle);
  if (notifiee_) notifiee_->handleInsert(handle);
  return handle;
}

Mosk::Ptr<DedupHandle> DedupHashTable::lookup(DedupHandle const& candidate) const {
  return Mosk::Ptr<DedupHandle>(find(candidate, candidate.hash()));
}

void DedupHashTable::removeEntry(DedupHandle const& entry) {
  DedupHandle& handle = const_cast<DedupHandle&>(entry);
  handle.flags_ |= DedupHandle::kBeingDetached | DedupHandle::kNewRefHook;
  unlink(handle);
  struct Finish {
    DedupHandle& handle;
    ~Finish() {
      handle.table_ = nullptr;
      handle.flags_ &= static_cast<U16>(
          ~(DedupHandle::kBeingDetached | DedupHandle::kNewRefHook | DedupHandle::kReferenceHook));
      handle.deleteRef();  // the table's reference: may destroy the object
    }
  } finish{handle};
  if (notifiee_) notifiee_->handleRemove(&handle);
}

void DedupHashTable::lifeTimeNotifieeIs(
    Mosk::Ptr<DedupHashTableLifeTimeNotifiee const> const& notifiee) {
  if (notifiee == notifiee_) return;
  Mosk::Ptr<DedupHashTableLifeTimeNotifiee const> old = std::move(notifiee_);
  notifiee_ = nullptr;
  if (old) old->handleNotificationStop(this);
  notifiee_ = notifiee;
  if (!notifiee_ || size() == 0) return;
  std::vector<Mosk::Ptr<DedupHandle>> present;
  for (DedupHandle* handle : entries())
    present.emplace_back(handle);
  for (auto const& handle : present) {
    if (handle->table_ == this && notifiee_ == notifiee) notifiee_->handleInsert(handle);
  }
}

void DedupHashTable::clearTable() {
  lifeTimeNotifieeIs(nullptr);
  while (DedupHandle* handle = anyEntry()) {
    unlink(*handle);
    handle->table_ = nullptr;
    handle->flags_ &= static_cast<U16>(~DedupHandle::kReferenceHook);
    handle->deleteRef();
  }
}

std::vector<DedupHashTableUnorderedSet::Set::bucket_type> DedupHashTableUnorderedSet::makeBuckets(
    U32 count) {
  std::size_t n = 16;
  while (n < count)
    n *= 2;
  return std::vector<Set::bucket_type>(n);
}

DedupHashTableUnorderedSet::DedupHashTableUnorderedSet(U32 initialSize)
    : buckets_(makeBuckets(initialSize)),
      set_(Set::bucket_traits(buckets_.data(), buckets_.size())) {}

DedupHashTableUnorderedSet::~DedupHashTableUnorderedSet() {
  clearTable();
}

DedupHandle* DedupHashTableUnorderedSet::find(DedupHandle const& candidate, U32 hash) const {
  struct KeyHash {
    U32 hash;
    std::size_t operator()(DedupHandle const&) const { return hash; }
  };
  struct KeyEqual {
    U32 hash;
    bool operator()(DedupHandle const& c, DedupHandle const& entry) const {
      return entry.hash_ == hash && c.compare(entry);
    }
  };
  auto it = set_.find(candidate, KeyHash{hash}, KeyEqual{hash});
  return it == set_.end() ? nullptr : const_cast<DedupHandle*>(&*it);
}

void DedupHashTableUnorderedSet::link(DedupHandle& handle) {
  if (set_.size() >= buckets_.size()) {
    std::vector<Set::bucket_type> bigger(buckets_.size() * 2);
    set_.rehash(Set::bucket_traits(bigger.data(), bigger.size()));
    buckets_.swap(bigger);
  }
  set_.insert(handle);
}

void DedupHashTableUnorderedSet::unlink(DedupHandle& handle) {
  set_.erase(set_.iterator_to(handle));
}

DedupHandle* DedupHashTableUnorderedSet::anyEntry() const {
  return set_.empty() ? nullptr : const_cast<DedupHandle*>(&*set_.begin());
}

}  // namespace Vell

namespace Vell {

std::vector<DedupHandle*> DedupHashTableUnorderedSet::entries() const {
  std::vector<DedupHandle*> out;
  out.reserve(set_.size());
  for (DedupHandle const& h : set_)
    out.push_back(const_cast<DedupHandle*>(&h));
  return out;
}

}  // namespace Vell
