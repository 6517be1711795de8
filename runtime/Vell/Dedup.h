// Deduplication of counted objects: one shared object per distinct value.
//
// A DedupHandle is a counted object that can live in a DedupHashTable. dedup(handle) returns
// the entry equal to the handle (hash() then compare()), inserting the handle when there is
// none; lookup(candidate) only looks. The table holds one reference to each entry, and a
// lifetime notifier (DedupHandleLifeTimeNotifier, made by the table's notifiee when an object
// is inserted) holds another; these are the table's share. When the references of an entry
// fall to that share, no holder outside the table is left and the entry leaves its table:
// it is marked detaching, unlinked, the notifiee hears handleRemove(raw pointer), and only
// then is the table's reference dropped, so the object stays valid through the callback.
// Taking a new reference to a detaching object is a fault (assertion "!beingDetached()").
//
// The table's notifiee (DedupHashTableLifeTimeNotifiee) hears handleInsert for each new entry,
// handleRemove for each entry that leaves, and handleNotificationStop when the table stops
// notifying it (the table is destroyed or another notifiee is registered). A notifiee
// registered with a table that has entries hears handleInsert for each of them at once, so
// every notifiee sees each entry inserted before it sees it removed. A table being destroyed
// releases its entries; those still held elsewhere live on outside any table.
//
// DedupHashTableUnorderedSet keeps the entries in an intrusive chained hash table (a singly
// linked hook in each handle, the hash cached beside it), so a hit allocates nothing and costs
// one call of hash() and one of compare() per entry of equal hash. Single-threaded.
#pragma once

#include <boost/intrusive/unordered_set.hpp>
#include <vector>

#include "Mosk/Ptr.h"

namespace Vell {

class DedupHashTable;
class DedupHashTableUnorderedSet;

class DedupHandle : public Mosk::PtrInterface {
 public:
  DedupHandle() = default;
  // A copy is a new object outside any table.
  DedupHandle(DedupHandle const&) : Mosk::PtrInterface() {}
  DedupHandle& operator=(DedupHandle const&) { return *this; }
  ~DedupHandle() override;

  // Takes a reference; returns the new count. Fails on a detaching object.
  U32 referencesInc() const;
  // Drops a reference, with the effects of the last one or of the last outside one.
  void referencesDec() const { deleteRef(); }

  // Set from the moment the object starts to leave its table until it has left.
  bool beingDetached() const { return (flags_ & kBeingDetached) != 0; }
  // Set while a lifetime notifier holds the object.
  bool haveLifeTimeNotifier() const { return (flags_ & kHaveLifeTimeNotifier) != 0; }
  // The table the object is an entry of, or null.
  DedupHashTable* dedupTable() const { return table_; }

  virtual U32 hash() const = 0;
  // Whether `other` stands for the same value; only called with equal hashes.
  virtual bool compare(DedupHandle const& other) const = 0;

 protected:
  void referencesDecreasedTo(U32 left) const override;
  void newReferenceTaken() const override;
  // Leaves the table (see above); the object may be destroyed when it returns.
  void doRemoveFromDedupTable() const;

 private:
  friend class DedupHashTable;
  friend class DedupHashTableUnorderedSet;
  friend class DedupHandleLifeTimeNotifier;

  static constexpr U16 kBeingDetached = kFirstDerivedFlag;
  static constexpr U16 kHaveLifeTimeNotifier = kFirstDerivedFlag << 1;

  U32 tableShare() const { return haveLifeTimeNotifier() ? 2 : 1; }

  mutable boost::intrusive::unordered_set_member_hook<> hook_;
  mutable DedupHashTable* table_ = nullptr;
  mutable U32 hash_ = 0;
};

// Watches one deduplicated object while it is in its table; holds a counted reference to it,
// which is the second part of the table's share.
class DedupHandleLifeTimeNotifier : public Mosk::PtrInterface {
 public:
  // An object has at most one lifetime notifier at a time.
  explicit DedupHandleLifeTimeNotifier(Mosk::Ptr<DedupHandle const> handle);
  ~DedupHandleLifeTimeNotifier() override;
  // The watched object as its table holds it: the notifiee keeps its bookkeeping fields.
  DedupHandle* getDedupedObjectRawPtr() const { return const_cast<DedupHandle*>(handle_.ptr()); }

 private:
  Mosk::Ptr<DedupHandle const> handle_;
};

// What a table reports about its entries to the one notifiee registered with it.
class DedupHashTableLifeTimeNotifiee : public Mosk::PtrInterface {
 public:
  // A new distinct object entered the table.
  virtual void handleInsert(Mosk::Ptr<DedupHandle> const& handle) const = 0;
  // The object is leaving the table; it is valid until the call returns, and no counted
  // reference to it may be taken.
  virtual void handleRemove(DedupHandle* handle) const = 0;
  // The table reports nothing more to this notifiee.
  virtual void handleNotificationStop(DedupHashTable* table) const = 0;
};

class DedupHashTable : public Mosk::PtrInterface {
 public:
  // The entry equal to `handle`, which is inserted (and reported) when there is none. A handle
  // that is an entry of another table is a fault.
  Mosk::Ptr<DedupHandle> dedup(Mosk::Ptr<DedupHandle> const& handle);
  // The same, typed: entries equal to a T are T's when compare() checks the kind.
  template <class T>
  Mosk::Ptr<T> dedup(Mosk::Ptr<T> const& handle) {
    return Mosk::ptrCast<T>(dedup(Mosk::Ptr<DedupHandle>(handle)));
  }
  // The entry equal to `candidate`, or null; never inserts.
  Mosk::Ptr<DedupHandle> lookup(DedupHandle const& candidate) const;
  virtual U32 size() const = 0;

  // Registers the notifiee (null for none): the one registered before hears
  // handleNotificationStop first, the new one handleInsert for every entry already in.
  void lifeTimeNotifieeIs(Mosk::Ptr<DedupHashTableLifeTimeNotifiee const> const& notifiee);
  Mosk::Ptr<DedupHashTableLifeTimeNotifiee const> const& lifeTimeNotifiee() const {
    return notifiee_;
  }

 protected:
  friend class DedupHandle;
  virtual DedupHandle* find(DedupHandle const& candidate, U32 hash) const = 0;
  virtual void link(DedupHandle& handle) = 0;
  virtual void unlink(DedupHandle& handle) = 0;
  // Stops notifying, then releases every entry; the destructor of the concrete table calls it.
  void clearTable();
  virtual DedupHandle* anyEntry() const = 0;
  virtual std::vector<DedupHandle*> entries() const = 0;

 private:
  void removeEntry(DedupHandle const& handle);

  Mosk::Ptr<DedupHashTableLifeTimeNotifiee const> notifiee_;
};

class DedupHashTableUnorderedSet : public DedupHashTable {
 public:
  // `initialSize`: the number of entries expected (0 for a small start); the table grows as
  // needed.
  explicit DedupHashTableUnorderedSet(U32 initialSize);
  ~DedupHashTableUnorderedSet() override;
  U32 size() const override { return static_cast<U32>(set_.size()); }

 protected:
  DedupHandle* find(DedupHandle const& candidate, U32 hash) const override;
  void link(DedupHandle& handle) override;
  void unlink(DedupHandle& handle) override;
  DedupHandle* anyEntry() const override;
  std::vector<DedupHandle*> entries() const override;

 private:
  struct CachedHash {
    std::size_t operator()(DedupHandle const& h) const { return h.hash_; }
  };
  struct SameObject {
    bool operator()(DedupHandle const& a, DedupHandle const& b) const { return &a == &b; }
  };
  using Set = boost::intrusive::unordered_set<
      DedupHandle,
      boost::intrusive::member_hook<DedupHandle, boost::intrusive::unordered_set_member_hook<>,
                                    &DedupHandle::hook_>,
      boost::intrusive::hash<CachedHash>, boost::intrusive::equal<SameObject>,
      boost::intrusive::power_2_buckets<true>, boost::intrusive::constant_time_size<true>>;

  static std::vector<Set::bucket_type> makeBuckets(U32 count);

  std::vector<Set::bucket_type> buckets_;
  Set set_;
};

inline Mosk::Ptr<DedupHashTableUnorderedSet> dedupHashTableUnorderedSetFactory(U32 initialSize) {
  return Mosk::Ptr<DedupHashTableUnorderedSet>(new DedupHashTableUnorderedSet(initialSize));
}

}  // namespace Vell
