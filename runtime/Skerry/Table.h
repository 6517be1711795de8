// Keyed tables of fixed-layout records: the service through which other agents hand this
// library its input (one table per source) and through which forwarding state is shared.
//
// A table maps a key to a record, a trivially copyable structure of fixed size, so that the
// same table can later be placed in POSIX shared memory between one writing and many reading
// processes. Readers see a table only through TableReader: a lookup copies the record out, a
// walk visits the keys present, and a damaged table says so through corrupt(). A backend that
// maps a table from shared memory implements TableReader; LocalTable is the in-process one.
//
// LocalTable keeps records in fixed slots (SlotStore: chunks that never move), so a writer may
// fill a stored record in place and then commit it, and a key index maps each key to its slot.
// A LocalTable may instead mount a table kept elsewhere (a TableMount, such as a reader of a table
// in shared memory, ShmTable.h): its reads then go to the mount and its writing operations raise,
// since the writer of such a table is another process.
// Notification is the owning entity's part: a generated `table` collection (docs/moskgen.md)
// tells its notifiees of every change after the table has stored it.
//
// What invalidates what: a reference to a stored record stays valid until that record is
// erased or the table is cleared; a KeyCursor survives any change (it finds its place again by
// key) and stops early when the table turns corrupt.
#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "Mosk/Exception.h"
#include "Mosk/HashMap.h"
#include "Mosk/Ptr.h"
#include "Mosk/Value.h"

namespace Skerry {

// How a table finds a record's key, and how a reader checks a record it copied out. A record
// type with a `validateRead()` member has it run on every copy a reader takes; it raises when
// the record must not be used and normalises what can be repaired.
template <class Record>
struct RecordTraits {
  static auto key(Record const& record) { return record.key(); }
  static void validate(Record& record) {
    if constexpr (requires { record.validateRead(); }) record.validateRead();
  }
};

// The reader side of a table, as any backend offers it.
template <class Key, class Record>
class TableReader {
 public:
  virtual ~TableReader() = default;
  virtual U32 count() const = 0;
  // Copies the stored bytes of `key`'s record into `out`; false (and `out` untouched) when
  // there is no such record.
  virtual bool copyOut(Key const& key, Record& out) const = 0;
  // The first key in table order after `after`, or the first key when `after` is null; false
  // past the last key.
  virtual bool keyAfter(Key const* after, Key& out) const = 0;
  // True once the table has been found damaged: a reader stops walking it.
  virtual bool corrupt() const = 0;
};

// A reader that a LocalTable can mount and keep alive (counted).
template <class Key, class Record>
class TableMount : public TableReader<Key, Record>, public Mosk::PtrInterface {};

// A checked copy of `key`'s record, or nothing when absent. Raises what the record's
// validation raises.
template <class Key, class Record>
std::optional<Record> readRecord(TableReader<Key, Record> const& table, Key const& key) {
  std::optional<Record> out(std::in_place);
  if (!table.copyOut(key, *out)) return std::nullopt;
  RecordTraits<Record>::validate(*out);
  return out;
}

// Walks the keys of a table. Holds a plain reference: the table must outlive the cursor.
template <class Key, class Record>
class KeyCursor {
 public:
  KeyCursor() = default;
  explicit KeyCursor(TableReader<Key, Record> const& table) : table_(&table) {
    valid_ = !table.corrupt() && table.keyAfter(nullptr, key_);
  }
  explicit operator bool() const { return valid_; }
  Key const& key() const { return key_; }
  KeyCursor& operator++() {
    if (!valid_) return *this;
    Key next;
    valid_ = !table_->corrupt() && table_->keyAfter(&key_, next);
    if (valid_) key_ = next;
    return *this;
  }

 private:
  TableReader<Key, Record> const* table_ = nullptr;
  Key key_{};
  bool valid_ = false;
};

// Fixed slots for values that must not move: chunks of 256 slots allocated as the store grows,
// freed slots reused first. A slot's address is stable until the store is cleared.
template <class T>
class SlotStore {
 public:
  static constexpr U32 chunkSize = 256;

  T& at(U32 slot) { return chunks_[slot / chunkSize][slot % chunkSize]; }
  T const& at(U32 slot) const { return chunks_[slot / chunkSize][slot % chunkSize]; }

  // A slot holding `value`.
  U32 acquire(T const& value) {
    U32 slot;
    if (!free_.empty()) {
      slot = free_.back();
      free_.pop_back();
    } else {
      if (used_ == chunks_.size() * chunkSize) chunks_.emplace_back(new T[chunkSize]);
      slot = used_++;
    }
    at(slot) = value;
    return slot;
  }
  // Gives a slot back; `reset` is stored in it so that it holds nothing stale.
  void release(U32 slot, T const& reset = T()) {
    at(slot) = reset;
    free_.push_back(slot);
  }
  void clear() {
    chunks_.clear();
    free_.clear();
    used_ = 0;
  }

 private:
  std::vector<std::unique_ptr<T[]>> chunks_;
  std::vector<U32> free_;
  U32 used_ = 0;
};

// The in-process table: records in stable slots, a hash index from key to slot; or, once a mount
// is set, a read-only view of that mount. The corrupt flag is the table's own either way: a
// mount reports damage to whoever owns it, which marks the table.
template <class Key, class Record>
class LocalTable final : public TableReader<Key, Record> {
  static_assert(std::is_trivially_copyable_v<Record>,
                "table records must be plain bytes so that they can live in shared memory");

 public:
  U32 count() const override { return mount_ ? mount_->count() : index_.size(); }
  bool copyOut(Key const& key, Record& out) const override {
    if (mount_) return mount_->copyOut(key, out);
    U32 const* slot = index_.find(key);
    if (slot == nullptr) return false;
    std::memcpy(static_cast<void*>(&out), &records_.at(*slot), sizeof(Record));
    return true;
  }
  bool keyAfter(Key const* after, Key& out) const override {
    if (mount_) return mount_->keyAfter(after, out);
    auto c = after ? index_.cursorAt(*after) : index_.cursor();
    if (c && after && c.key() == *after) ++c;
    if (!c) return false;
    out = c.key();
    return true;
  }
  bool corrupt() const override { return corrupt_; }
  void corruptIs(bool corrupt) { corrupt_ = corrupt; }

  // Reads go to `mount` from now on (null: back to the table's own records, which a mount
  // leaves as they were). Whoever mounts tells the table's watchers what changed.
  void mountIs(Mosk::Ptr<TableMount<Key, Record> const> mount) { mount_ = std::move(mount); }
  Mosk::Ptr<TableMount<Key, Record> const> const& mount() const { return mount_; }

  Record const* find(Key const& key) const {
    U32 const* slot = index_.find(key);
    return slot ? &records_.at(*slot) : nullptr;
  }
  Record* find(Key const& key) {
    writable();
    U32 const* slot = index_.find(key);
    return slot ? &records_.at(*slot) : nullptr;
  }

  // Inserts or replaces the record under its key; true when the stored record changed (by the
  // record's own equality).
  bool put(Record const& record) {
    Key key = RecordTraits<Record>::key(record);
    if (Record* stored = find(key)) {
      if (*stored == record) return false;
      *stored = record;
      return true;
    }
    index_.set(key, records_.acquire(record));
    return true;
  }
  // Stores `record` under its key, replacing any record there; returns the stored record.
  Record& insert(Record const& record) {
    Key key = RecordTraits<Record>::key(record);
    if (Record* stored = find(key)) {
      *stored = record;
      return *stored;
    }
    U32 slot = records_.acquire(record);
    index_.set(key, slot);
    return records_.at(slot);
  }
  // Publishes the record under `record`'s key: a record filled in place is left as it is,
  // another copy is stored over it. Raises the range error when the key has no record.
  void commit(Record const& record) {
    Key key = RecordTraits<Record>::key(record);
    Record* stored = find(key);
    if (stored == nullptr) {
      throw Mosk::RangeException("no record under key " + Mosk::valueToStrep(key) +
                                 " to commit; insert it first");
    }
    if (stored != &record) *stored = record;
  }
  bool erase(Key const& key) {
    writable();
    U32 const* slot = index_.find(key);
    if (slot == nullptr) return false;
    U32 freed = *slot;
    index_.erase(key);
    records_.release(freed);
    return true;
  }
  void clear() {
    writable();
    index_.clear();
    records_.clear();
  }

 private:
  // A mounted table is written by its own writer, never through this view.
  void writable() const {
    if (mount_) {
      throw Mosk::InternalException(
          "the table is mounted read-only from another writer; write it there");
    }
  }

  Mosk::HashMap<Key, U32> index_;
  SlotStore<Record> records_;
  Mosk::Ptr<TableMount<Key, Record> const> mount_;
  bool corrupt_ = false;
};

}  // namespace Skerry
