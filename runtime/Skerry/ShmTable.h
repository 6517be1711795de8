// Keyed tables of fixed-size records in POSIX shared memory: one writing process, any number of
// reading processes. The reader is a TableReader (Table.h), so a table entity can mount it and
// the code that reads tables does not know where the records live.
//
// A segment is a header, a change ring and the slots:
//   header  magic, layout version, record and key size, capacity, the slot and ring geometry, a
//           check value of the key hash, the live record count, a counter that the writer keeps
//           with its table, the id of the process that writes it, and the change counter.
//   ring    ringSize keys: the latest changes, entry i at i modulo ringSize.
//   slots   open addressing by key hash with linear probing that never wraps: a key sits at or
//           after its home slot (an overflow tail follows the last home slot). A walk in slot
//           order that loses its place can so resume at its last key's home without skipping.
//
// A slot is a version word and two copies of {state, hash, key, record}. The version counts half
// steps: odd while the writer fills the spare copy, even once that copy is published. A reader
// copies the copy that the last completed version wrote and checks afterwards that the writer
// has not begun to overwrite it (which the writer does only two half steps later); if it has,
// the reader copies again. So a reader never waits for the writer and never keeps a torn record.
// A writer that dies halfway through a write leaves the previous version readable: a reader sees
// the record as it was before that write. The next writer to open the table rolls such a slot
// back, recounts the records and advances the change counter past the ring, which makes every
// reader resynchronise by a full walk (so a write that completed but was never queued is found).
//
// Change feed: after each completed write the writer stores the key in the ring, then bumps the
// change counter. A reader drains the ring from its own cursor. When the writer has lapped it
// (more changes since its last poll than the ring holds) it walks every slot instead and reports
// each key whose slot version differs from the one it last reported, and each key that vanished.
// The reader has no thread: an event loop calls poll() (pending() is one load, cheap enough for
// a short timer).
//
// Damage: a header that does not describe this record type is refused on attach. Damage found
// later (a header that changed, an impossible record count, a slot whose state, hash or key
// disagrees with its place or its record, a change counter that went backwards, a file cut
// shorter than the mapping) marks the reader corrupt: its walks stop, a damaged slot reads as
// absent, and poll() does nothing until the table is attached again.
//
// A file cut short while mapped would end the reading process with SIGBUS at its next access to
// a page past the new end. A reader's mapping is therefore registered with a SIGBUS handler
// (installed once per process, chaining to the one before it for other addresses) that maps
// zero pages over the whole view and notes it: the access that faulted reads zeros, and the
// reader reports the table cut short at its next look at the header. A reader also compares the
// file's size with its mapping at every checkFile(), which finds the cut before a page is
// touched in the usual case; the handler covers the cut that lands between the look and the
// access. Nothing on the path of a read pays for this.
//
// Ownership: a table is created readable and writable by its owner alone (mode 0600), or also
// readable by one group (0640, ShmTableOptions::readerGroup). A writer opens only a table that
// belongs to its own user and that nobody else may write. A reader that is told whom to trust
// (ShmReaderOptions::trustedOwner) attaches only to a table that belongs to root or that user
// and that nobody but its owner may write, and checkFile() keeps checking it.
//
// One writer per table: it holds an exclusive lock on a lock object of its own ("NAME.lock",
// mode 0600, which no reader opens), which the kernel releases when the writer dies. The lock is
// not taken on the table itself, which readers open: any process that can open a file can lock
// it, so a reader of a shared table could otherwise lock its writer out.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Mosk/Exception.h"
#include "Mosk/HashMap.h"
#include "Skerry/Table.h"

namespace Skerry {

// Errors of the shared-memory table service: no such table, a table not made yet, a header that
// does not describe the expected record type, a table held by another writer or not to be
// trusted, a refusal of the system.
class ShmTableException : public Mosk::Exception {
 public:
  enum class Kind {
    refused,  // the table is there but cannot be used (the message says why)
    missing,  // there is no table of that name
    unready,  // the table is too short for its header, or its header is not written yet
  };
  explicit ShmTableException(std::string const& what, Kind kind = Kind::refused)
      : Exception(what), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// The size of a table when its writer creates it, and who may read it; an existing table keeps
// its own.
struct ShmTableOptions {
  // The most records the table holds (1 .. 4194304).
  U32 capacity = 4096;
  // How many changes a reader may fall behind before it must walk the whole table; rounded up to
  // a power of two (2 .. 16777216).
  U32 ringSize = 4096;
  // The group whose members may read a new table besides its owner (mode 0640); none for the
  // owner alone (0600). The writer must belong to the group (or be root).
  std::optional<gid_t> readerGroup = std::nullopt;
};

// What a reader requires of a table's file before it trusts what the table holds.
struct ShmReaderOptions {
  // The table must belong to root or to this user, and nobody but its owner may write it. None:
  // any table the process can open is read (tools that only look at a table).
  std::optional<uid_t> trustedOwner = std::nullopt;
};

// What one look at a table's file found (ShmTableReader::checkFile).
struct ShmFileCheck {
  // The table's name was removed from the system.
  bool removed = false;
  // Why the table may no longer be trusted (its owner or its mode changed); empty when it may.
  std::string untrusted;
};

// What one poll() did.
struct ShmPollResult {
  // Keys reported.
  U32 changed = 0;
  // The reader had been lapped and walked the whole table.
  bool resynchronised = false;
  // Changes remain for the next poll.
  bool more = false;
};

// Told when a reader finds its table damaged (once per attach).
class ShmTableListener {
 public:
  virtual ~ShmTableListener() = default;
  virtual void onShmTableCorrupt(std::string const& reason) = 0;
};

namespace detail {

inline constexpr U64 shmMagic = 0x31454c4241544b53ull;  // "SKTABLE1"
inline constexpr U32 shmVersion = 1;

enum SlotState : U32 { slotEmpty = 0, slotLive = 1, slotTombstone = 2 };

// The header at the start of a segment. The fields from `count` on change while readers look;
// they are only ever read and written whole, through atomic operations.
struct ShmHeader {
  U64 magic;
  U32 version;
  U32 headerSize;
  U32 recordSize;
  U32 keySize;
  U32 capacity;
  U32 slotCount;  // home slots, a power of two
  U32 slotLimit;  // slots including the overflow tail
  U32 ringSize;   // a power of two
  U32 slotStride;
  U32 hashCheck;  // the key hash of a default key, so that both sides agree on the hash
  U64 ringOffset;
  U64 slotOffset;
  U64 segmentSize;
  U32 count;
  U32 counter;
  U32 writerPid;
  U32 reserved0;
  U64 changes;
  U64 reserved[4];
};
static_assert(sizeof(ShmHeader) == 128);
static_assert(std::atomic_ref<U64>::is_always_lock_free &&
                  std::atomic_ref<U32>::is_always_lock_free,
              "shared-memory words must be lock-free so that other processes see them");

// Where everything of a table lies, from the record and key size and the options.
struct ShmGeometry {
  U32 recordSize = 0;
  U32 keySize = 0;
  U32 capacity = 0;
  U32 slotCount = 0;
  U32 slotLimit = 0;
  U32 ringSize = 0;
  U32 copySize = 0;  // meta words and the record, padded to whole words
  U32 slotStride = 0;
  U64 ringOffset = 0;
  U64 slotOffset = 0;
  U64 segmentSize = 0;

  // Raises the range error for options out of range.
  static ShmGeometry make(U32 recordSize, U32 keySize, ShmTableOptions const& options);
};

// One open segment: the descriptor, the mapping and, for the writer, its lock.
class ShmSegment {
 public:
  // The writer's view: takes the writer's lock, then opens `name`, creating it when absent with
  // the mode of `options`. Refuses a table that belongs to another user or that others may
  // write. `created` says whether the segment is new or was left uninitialised by a creator
  // that died.
  static ShmSegment openWriter(std::string const& name, ShmGeometry const& geometry,
                               ShmTableOptions const& options, bool& created);
  // A reader's view: read-only, its mapping guarded against the file being cut short. Raises
  // when there is no such table (Kind::missing), when it is not initialised (Kind::unready) or
  // when `options` do not trust its file (Kind::refused, naming the owner or the mode).
  static ShmSegment openReader(std::string const& name, ShmReaderOptions const& options = {});
  // A reader's view of a segment that the caller keeps in memory (a copy of a table, a test's or
  // a fuzzer's bytes), 8-byte aligned; raises as openReader for bytes too short for a header or
  // not initialised. The caller keeps the bytes while the segment is in use.
  static ShmSegment openBuffer(std::string const& name, U8 const* base, U64 size);

  ShmSegment() = default;
  ShmSegment(ShmSegment&& other) noexcept;
  ShmSegment& operator=(ShmSegment&& other) noexcept;
  ~ShmSegment();

  std::string const& name() const { return name_; }
  U8* base() const { return base_; }
  U64 size() const { return size_; }
  // True for the caller's bytes (openBuffer), which have no file.
  bool borrowed() const { return borrowed_; }
  ShmHeader const& header() const { return *reinterpret_cast<ShmHeader const*>(base_); }
  ShmHeader& header() { return *reinterpret_cast<ShmHeader*>(base_); }
  // True once the segment's name has been removed from the system (it lives on for those that
  // have it open, but nobody writes it any more). One system call.
  bool removed() const;
  // One look at the file: whether its name was removed, whether `options` still trust it, and in
  // `fileSize` its size now (the mapping's size when the file cannot be looked at).
  ShmFileCheck checkFile(ShmReaderOptions const& options, U64& fileSize) const;
  // True once an access to the mapping found the file cut short (the SIGBUS guard put zero
  // pages in its place).
  bool cutShort() const;

  // Writes a fresh header for `geometry` (the writer, on a new segment); the magic goes last.
  void initialise(ShmGeometry const& geometry, U32 hashCheck);
  // Checks that the header describes a table of the given record type and fits the mapping;
  // returns its geometry or raises, naming the first field that is wrong.
  ShmGeometry check(U32 recordSize, U32 keySize, U32 hashCheck) const;

 private:
  void close() noexcept;

  std::string name_;
  int fd_ = -1;
  int lockFd_ = -1;  // the writer's lock object
  U8* base_ = nullptr;
  U64 size_ = 0;
  int guard_ = -1;         // the slot of the SIGBUS guard that covers the mapping
  bool borrowed_ = false;  // the caller's bytes, not a mapping of ours
};

template <class T>
T loadAcquire(T const& word) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_acquire);
}
template <class T>
T loadRelaxed(T const& word) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}
template <class T>
void storeRelease(T& word, T value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}
template <class T>
void storeRelaxed(T& word, T value) {
  std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

// The slots of a table, as both sides address them.
template <class Key, class Record, class Hash>
class ShmSlots {
 public:
  static_assert(std::is_trivially_copyable_v<Record>, "records must be plain bytes");
  static_assert(std::is_trivially_copyable_v<Key> && sizeof(Key) <= 8,
                "keys must be plain values of at most eight bytes");

  static constexpr U32 recordWords = (sizeof(Record) + 7) / 8;
  // One copy of a slot's content as it is stored: the meta words, then the record.
  struct Copy {
    U32 state;
    U32 hash;
    U64 key;
    U64 record[recordWords];

    Key keyValue() const {
      Key k;
      std::memcpy(static_cast<void*>(&k), &key, sizeof(Key));
      return k;
    }
    void recordOut(Record& out) const {
      std::memcpy(static_cast<void*>(&out), record, sizeof(Record));
    }
  };
  static constexpr U32 metaWords = 2;
  static constexpr U32 copyWords = sizeof(Copy) / 8;
  static_assert(sizeof(Copy) == 16 + recordWords * 8);

  static U32 hashOf(Key const& key) { return Hash()(key); }
  static U64 keyWord(Key const& key) {
    U64 w = 0;
    std::memcpy(&w, static_cast<void const*>(&key), sizeof(Key));
    return w;
  }

  void bind(U8* base, ShmGeometry const& g) {
    base_ = base;
    geometry_ = g;
    header_ = reinterpret_cast<ShmHeader*>(base);
  }
  ShmGeometry const& geometry() const { return geometry_; }
  ShmHeader* header() const { return header_; }
  U32 home(U32 hash) const { return hash & (geometry_.slotCount - 1); }

  U64& version(U32 slot) const {
    return *reinterpret_cast<U64*>(base_ + geometry_.slotOffset + U64(slot) * geometry_.slotStride);
  }
  U64* copyWordsAt(U32 slot, U64 version) const {
    U8* s = base_ + geometry_.slotOffset + U64(slot) * geometry_.slotStride;
    return reinterpret_cast<U64*>(s + 8 + (version & 1) * geometry_.copySize);
  }
  U64& ringEntry(U64 index) const {
    return reinterpret_cast<U64*>(base_ + geometry_.ringOffset)[index & (geometry_.ringSize - 1)];
  }

  // Copies the stable copy of `slot` (its meta words, and its record when `withRecord`) into
  // `out` and returns that copy's version. Copies again while the writer overtakes the copy.
  U64 readStable(U32 slot, Copy& out, bool withRecord) const {
    U64 const& v = version(slot);
    U64* dst = reinterpret_cast<U64*>(&out);
    U32 const words = withRecord ? copyWords : metaWords;
    for (U32 attempt = 0;; ++attempt) {
      U64 const before = loadAcquire(v);
      U64 const stable = before >> 1;  // the last completed version
      U64 const* src = copyWordsAt(slot, stable);
      for (U32 i = 0; i < words; ++i)
        dst[i] = loadRelaxed(src[i]);
      std::atomic_thread_fence(std::memory_order_acquire);
      U64 const after = loadRelaxed(v);
      // The copy just read is overwritten once the writer begins the version after the next.
      if (after <= (before | 1) + 1) return stable;
      if (attempt >= 64) std::this_thread::yield();
    }
  }

 private:
  U8* base_ = nullptr;
  ShmHeader* header_ = nullptr;
  ShmGeometry geometry_;
};

}  // namespace detail

// The writer of a table: one per table at a time, in one process.
template <class Key, class Record, class Hash = Mosk::KeyHash<Key>>
class ShmTableWriter {
  using Slots = detail::ShmSlots<Key, Record, Hash>;
  using Copy = typename Slots::Copy;

 public:
  // Opens table `name` for writing, creating it with `options` when absent. When the previous
  // writer died with the table open, repairs what it left (see the file comment). Raises
  // ShmTableException when another writer holds the table, when the header does not describe
  // this record type, or when the system refuses; the range error for a bad name or options.
  explicit ShmTableWriter(std::string const& name, ShmTableOptions const& options = {}) {
    detail::ShmGeometry want = detail::ShmGeometry::make(sizeof(Record), sizeof(Key), options);
    bool created = false;
    segment_ = detail::ShmSegment::openWriter(name, want, options, created);
    U32 const hashCheck = Slots::hashOf(Key{});
    if (created) segment_.initialise(want, hashCheck);
    slots_.bind(segment_.base(), segment_.check(sizeof(Record), sizeof(Key), hashCheck));
    detail::ShmHeader& h = segment_.header();
    recovered_ = detail::loadAcquire(h.writerPid) != 0;
    if (recovered_) recover();
    detail::storeRelease(h.writerPid, static_cast<U32>(::getpid()));
  }
  ShmTableWriter(ShmTableWriter const&) = delete;
  ShmTableWriter& operator=(ShmTableWriter const&) = delete;
  // A clean close: the next writer has nothing to repair.
  ~ShmTableWriter() { detail::storeRelease(segment_.header().writerPid, U32(0)); }

  std::string const& name() const { return segment_.name(); }
  U32 capacity() const { return slots_.geometry().capacity; }
  U32 count() const { return detail::loadRelaxed(segment_.header().count); }
  // True when this writer found the table left open by a writer that died, and repaired it.
  bool recovered() const { return recovered_; }

  // The counter the writer keeps with its table (the input tables allocate policy ids from it).
  U32 counter() const { return detail::loadRelaxed(segment_.header().counter); }
  void counterIs(U32 value) { detail::storeRelease(segment_.header().counter, value); }

  std::optional<Record> find(Key const& key) const {
    Probe p = probe(key, Slots::hashOf(key));
    if (p.found < 0) return std::nullopt;
    Copy c;
    slots_.readStable(static_cast<U32>(p.found), c, true);
    std::optional<Record> out(std::in_place);
    c.recordOut(*out);
    return out;
  }

  // Stores `record` under its key, checked as readers check it (RecordTraits::validate) and in
  // the normalised form that check leaves. Returns false, writing nothing, when an equal record
  // is already stored. Raises what the check raises, and the range error when a new key does
  // not fit (the table holds `capacity` records, or the key's probe run is full).
  bool put(Record const& record) {
    Record rec = record;
    RecordTraits<Record>::validate(rec);
    Key const key = RecordTraits<Record>::key(rec);
    U32 const hash = Slots::hashOf(key);
    Probe p = probe(key, hash);
    Copy c{};
    if (p.found >= 0) {
      Copy old;
      slots_.readStable(static_cast<U32>(p.found), old, true);
      Record stored;
      old.recordOut(stored);
      if (stored == rec) return false;
      fill(c, detail::slotLive, hash, key, &rec);
      write(static_cast<U32>(p.found), c, true);
    } else {
      if (count() >= capacity()) {
        throw Mosk::RangeException("table '" + name() + "' is full: it holds " +
                                   std::to_string(capacity()) + " records");
      }
      if (p.free < 0) {
        throw Mosk::RangeException("table '" + name() + "' has no free slot for key " +
                                   Mosk::valueToStrep(key) + " near its home slot");
      }
      fill(c, detail::slotLive, hash, key, &rec);
      write(static_cast<U32>(p.free), c, true);
      detail::storeRelease(segment_.header().count, count() + 1);
    }
    announce(key);
    return true;
  }

  // Removes the record of `key`; false when there is none.
  bool erase(Key const& key) {
    U32 const hash = Slots::hashOf(key);
    Probe p = probe(key, hash);
    if (p.found < 0) return false;
    Copy c{};
    fill(c, detail::slotTombstone, hash, key, nullptr);
    write(static_cast<U32>(p.found), c, false);
    detail::storeRelease(segment_.header().count, count() - 1);
    sweep(static_cast<U32>(p.found));
    announce(key);
    return true;
  }

  // Removes every record.
  void clear() {
    std::vector<Key> keys;
    forEach([&keys](Record const& r) { keys.push_back(RecordTraits<Record>::key(r)); });
    for (Key const& k : keys)
      erase(k);
  }

  // Calls f(record) for every record, in slot order.
  template <class F>
  void forEach(F&& f) const {
    Copy c;
    for (U32 i = 0; i < slots_.geometry().slotLimit; ++i) {
      slots_.readStable(i, c, false);
      if (c.state != detail::slotLive) continue;
      slots_.readStable(i, c, true);
      Record r;
      c.recordOut(r);
      f(static_cast<Record const&>(r));
    }
  }

  // The slot that holds `key`, or -1 (for tools and tests that look at the raw segment).
  S32 slotOf(Key const& key) const { return probe(key, Slots::hashOf(key)).found; }

 private:
  struct Probe {
    S32 found = -1;  // the slot holding the key
    S32 free = -1;   // the first slot a new key may take
  };

  static void fill(Copy& c, U32 state, U32 hash, Key const& key, Record const* record) {
    c.state = state;
    c.hash = hash;
    c.key = Slots::keyWord(key);
    if (record) std::memcpy(static_cast<void*>(c.record), record, sizeof(Record));
  }

  Probe probe(Key const& key, U32 hash) const {
    Probe p;
    U64 const word = Slots::keyWord(key);
    Copy c;
    for (U32 i = slots_.home(hash); i < slots_.geometry().slotLimit; ++i) {
      slots_.readStable(i, c, false);
      if (c.state == detail::slotEmpty) {
        if (p.free < 0) p.free = static_cast<S32>(i);
        return p;
      }
      if (c.state == detail::slotTombstone) {
        if (p.free < 0) p.free = static_cast<S32>(i);
      } else if (c.state == detail::slotLive && c.key == word) {
        p.found = static_cast<S32>(i);
        return p;
      } else if (c.state != detail::slotLive) {
        throw ShmTableException("table '" + name() + "': slot " + std::to_string(i) +
                                " is damaged (state " + std::to_string(c.state) + ")");
      }
    }
    return p;
  }

  // Publishes `c` as the next version of `slot` (the record words only when `withRecord`).
  void write(U32 slot, Copy const& c, bool withRecord) {
    U64& v = slots_.version(slot);
    U64 const now = detail::loadRelaxed(v);
    detail::storeRelaxed(v, now + 1);
    // Readers that see any word of the new copy also see the odd version.
    std::atomic_thread_fence(std::memory_order_release);
    U64* dst = slots_.copyWordsAt(slot, (now >> 1) + 1);
    U64 const* src = reinterpret_cast<U64 const*>(&c);
    U32 const words = withRecord ? Slots::copyWords : Slots::metaWords;
    for (U32 i = 0; i < words; ++i)
      detail::storeRelaxed(dst[i], src[i]);
    detail::storeRelease(v, now + 2);
  }

  // Queues `key` as changed; readers learn of it once the counter moves.
  void announce(Key const& key) {
    detail::ShmHeader& h = segment_.header();
    U64 const n = detail::loadRelaxed(h.changes);
    // A reader that sees the new entry also sees the counter that says the old one is gone.
    std::atomic_thread_fence(std::memory_order_release);
    detail::storeRelaxed(slots_.ringEntry(n), Slots::keyWord(key));
    detail::storeRelease(h.changes, n + 1);
  }

  // Empties tombstones from `slot` backwards while no live key's probe run passes them, so that
  // deletions do not lengthen the runs for good.
  void sweep(U32 slot) {
    Copy c;
    for (S64 t = slot; t >= 0; --t) {
      slots_.readStable(static_cast<U32>(t), c, false);
      if (c.state != detail::slotTombstone || !canEmpty(static_cast<U32>(t))) return;
      Copy empty{};
      write(static_cast<U32>(t), empty, false);
    }
  }
  bool canEmpty(U32 t) const {
    Copy c;
    for (U32 j = t + 1; j < slots_.geometry().slotLimit; ++j) {
      slots_.readStable(j, c, false);
      if (c.state == detail::slotEmpty) return true;
      if (c.state == detail::slotLive && slots_.home(c.hash) <= t) return false;
    }
    return true;
  }

  // Repairs what a writer that died left: slots halfway through a write go back to their last
  // version, the count is recounted, and the change counter jumps past the ring so that every
  // reader walks the table (a completed write may never have been queued).
  void recover() {
    U32 live = 0;
    Copy c;
    for (U32 i = 0; i < slots_.geometry().slotLimit; ++i) {
      U64& v = slots_.version(i);
      U64 const now = detail::loadRelaxed(v);
      if (now & 1) detail::storeRelease(v, now - 1);
      slots_.readStable(i, c, false);
      live += c.state == detail::slotLive;
    }
    detail::ShmHeader& h = segment_.header();
    detail::storeRelease(h.count, live);
    detail::storeRelease(h.changes,
                         detail::loadRelaxed(h.changes) + slots_.geometry().ringSize + 1);
  }

  detail::ShmSegment segment_;
  Slots slots_;
  bool recovered_ = false;
};

// A reader of a table in another process's keeping, read-only. Serves one consumer: poll()
// reports the keys that changed since that consumer last heard.
template <class Key, class Record, class Hash = Mosk::KeyHash<Key>>
class ShmTableReader final : public TableMount<Key, Record> {
  using Slots = detail::ShmSlots<Key, Record, Hash>;
  using Copy = typename Slots::Copy;
  // Reported keys and the stamp of the record reported.
  using Known = Mosk::HashMap<Key, U64, Hash>;

 public:
  // Attaches to table `name` and takes note of the records present, so that poll() reports
  // changes from now on. Raises ShmTableException when there is no such table, when `options`
  // do not trust its file, or when its header does not describe this record type. Damage in the
  // slots leaves the reader corrupt instead.
  explicit ShmTableReader(std::string const& name, ShmReaderOptions const& options = {})
      : ShmTableReader(detail::ShmSegment::openReader(name, options), options) {}
  // Attaches to a table's segment kept in memory by the caller, as ShmSegment::openBuffer.
  ShmTableReader(std::string const& name, U8 const* base, U64 size)
      : ShmTableReader(detail::ShmSegment::openBuffer(name, base, size), {}) {}

  std::string const& name() const { return segment_.name(); }

  // TableReader
  U32 count() const override {
    U32 n = detail::loadAcquire(slots_.header()->count);
    if (n > slots_.geometry().capacity) {
      damaged("impossible record count " + std::to_string(n) + " (capacity " +
              std::to_string(slots_.geometry().capacity) + ")");
      return 0;
    }
    return n;
  }
  bool copyOut(Key const& key, Record& out) const override {
    Copy c;
    S32 slot = locate(key, c, true);
    if (slot < 0) return false;
    c.recordOut(out);
    if (!(RecordTraits<Record>::key(out) == key)) {
      damaged("slot " + std::to_string(slot) + " holds key " + Mosk::valueToStrep(key) +
              " but its record says " + Mosk::valueToStrep(RecordTraits<Record>::key(out)));
      return false;
    }
    return true;
  }
  bool keyAfter(Key const* after, Key& out) const override {
    if (corrupt_) return false;
    U32 from = 0;
    if (after) {
      if (lastValid_ && lastKey_ == *after) {
        from = lastSlot_ + 1;
      } else {
        Copy c;
        S32 at = locate(*after, c, false);
        // A key that is gone: resume at its home; nothing after its old place is skipped.
        from = at >= 0 ? static_cast<U32>(at) + 1 : slots_.home(Slots::hashOf(*after));
      }
    }
    Copy c;
    for (U32 i = from; i < slots_.geometry().slotLimit; ++i) {
      slots_.readStable(i, c, false);
      if (!checkMeta(i, c)) return false;
      if (c.state != detail::slotLive) continue;
      out = c.keyValue();
      lastKey_ = out;
      lastSlot_ = i;
      lastValid_ = true;
      return true;
    }
    return false;
  }
  bool corrupt() const override { return corrupt_; }
  // Why the reader is corrupt, once it is.
  std::string const& corruption() const { return corruption_; }
  // Told when the reader turns corrupt; null for nobody. Not owned.
  void listenerIs(ShmTableListener* listener) { listener_ = listener; }

  // True once the table has been removed from the system (shmTableRemove): the view stays
  // readable, but its writer is gone and a table made anew under the name is another segment.
  bool removed() const { return segment_.removed(); }
  // Looks at the table's file (one system call): whether it was removed, and why the reader's
  // options no longer trust it. A file now shorter than the table marks the reader corrupt
  // before any page past its end is read. Meant for every poll period.
  ShmFileCheck checkFile() {
    U64 size = 0;
    ShmFileCheck check = segment_.checkFile(options_, size);
    if (!segment_.borrowed() && size < slots_.geometry().segmentSize) cutShort(size);
    return check;
  }

  // The counter the writer keeps with its table.
  U32 counter() const { return detail::loadAcquire(slots_.header()->counter); }

  // True when poll() has something to report.
  bool pending() const {
    return !corrupt_ &&
           (next_ < queue_.size() || detail::loadAcquire(slots_.header()->changes) != cursor_);
  }

  // Reports, through onChange(key), every key whose record was added, changed or removed since
  // it was last reported: at most `maxKeys` keys per call, oldest change first. A key changed
  // several times between polls is reported once. When the writer has lapped the reader, the
  // whole table is walked and compared with what was reported before. A key whose onChange
  // raises has been reported; the rest wait for the next poll, and the error goes to the caller.
  // Does nothing once the reader is corrupt.
  template <class F>
  ShmPollResult poll(F&& onChange, U32 maxKeys = 4096) {
    ShmPollResult result;
    if (corrupt_ || !headerIntact()) return result;
    if (next_ == queue_.size()) fill(result, maxKeys);
    while (!corrupt_ && next_ < queue_.size() && result.changed < maxKeys) {
      Key const key = queue_[next_++];
      ++result.changed;
      onChange(key);
    }
    result.more = pending();
    return result;
  }

  // Calls f(key) for each key the reader has reported present.
  template <class F>
  void forEachKnown(F&& f) const {
    for (auto c = known_->cursor(); c; ++c)
      f(c.key());
  }

 private:
  ShmTableReader(detail::ShmSegment segment, ShmReaderOptions const& options)
      : segment_(std::move(segment)), options_(options) {
    slots_.bind(segment_.base(), segment_.check(sizeof(Record), sizeof(Key), Slots::hashOf(Key{})));
    header_ = segment_.header();
    U64 const start = detail::loadAcquire(slots_.header()->changes);
    walk(*known_);
    cursor_ = start;
  }

  // Takes what the ring says changed (or, when the reader was lapped, what a walk finds) and
  // queues each key whose record differs from the one last reported.
  void fill(ShmPollResult& result, U32 maxKeys) {
    queue_.clear();
    next_ = 0;
    detail::ShmHeader const* h = slots_.header();
    U64 const ringSize = slots_.geometry().ringSize;
    U64 const latest = detail::loadAcquire(h->changes);
    if (latest == cursor_) return;
    if (latest < cursor_) {
      damaged("the change counter went back from " + std::to_string(cursor_) + " to " +
              std::to_string(latest));
      return;
    }
    if (latest - cursor_ < ringSize) {
      U64 const end = cursor_ + std::min<U64>(latest - cursor_, maxKeys);
      keys_.clear();
      for (U64 i = cursor_; i < end; ++i)
        keys_.push_back(detail::loadRelaxed(slots_.ringEntry(i)));
      std::atomic_thread_fence(std::memory_order_acquire);
      // Entry i is overwritten once the counter reaches i + ringSize.
      if (detail::loadRelaxed(h->changes) - cursor_ < ringSize) {
        cursor_ = end;
        for (U64 word : keys_) {
          Key k;
          std::memcpy(static_cast<void*>(&k), &word, sizeof(Key));
          queueIfChanged(k);
        }
        return;
      }
    }
    resynchronise();
    result.resynchronised = true;
  }

  void queueIfChanged(Key const& key) {
    Copy c;
    S32 slot = locate(key, c, false);
    if (corrupt_) return;
    if (slot < 0) {
      if (known_->erase(key)) queue_.push_back(key);
      return;
    }
    if (known_->set(key, stamp(static_cast<U32>(slot), lastVersion_)) != Known::Change::none)
      queue_.push_back(key);
  }

  // Walks every slot; queues the keys whose version differs from the one last reported and the
  // keys that are gone.
  void resynchronise() {
    cursor_ = detail::loadAcquire(slots_.header()->changes);
    auto now = std::make_unique<Known>();
    walk(*now);
    if (corrupt_) return;
    for (auto c = now->cursor(); c; ++c) {
      U64 const* before = known_->find(c.key());
      if (before == nullptr || *before != c.value()) queue_.push_back(c.key());
    }
    for (auto c = known_->cursor(); c; ++c) {
      if (!now->contains(c.key())) queue_.push_back(c.key());
    }
    known_ = std::move(now);
  }

  void walk(Known& into) {
    Copy c;
    for (U32 i = 0; i < slots_.geometry().slotLimit; ++i) {
      U64 const version = slots_.readStable(i, c, false);
      if (!checkMeta(i, c)) return;
      if (c.state == detail::slotLive) into.set(c.keyValue(), stamp(i, version));
    }
  }

  // A record as reported: its slot and the slot's version.
  static U64 stamp(U32 slot, U64 version) {
    return U64(slot) << 40 | (version & ((U64(1) << 40) - 1));
  }

  // The slot holding `key` with its stable copy in `c` (its record too when `withRecord`), or
  // -1. Reports damage met on the way.
  S32 locate(Key const& key, Copy& c, bool withRecord) const {
    U32 const hash = Slots::hashOf(key);
    U64 const word = Slots::keyWord(key);
    U32 i = slots_.home(hash);
    while (i < slots_.geometry().slotLimit) {
      lastVersion_ = slots_.readStable(i, c, false);
      if (!checkMeta(i, c) || c.state == detail::slotEmpty) return -1;
      if (c.state != detail::slotLive || c.key != word) {
        ++i;
        continue;
      }
      if (!withRecord) return static_cast<S32>(i);
      lastVersion_ = slots_.readStable(i, c, true);
      if (c.state == detail::slotLive && c.key == word) return static_cast<S32>(i);
      // The slot changed hands between the two copies: look again from the home slot.
      i = slots_.home(hash);
    }
    return -1;
  }

  // A slot's meta words make sense: a known state, and a live key that hashes to its stored
  // hash and sits at or after its home slot.
  bool checkMeta(U32 slot, Copy const& c) const {
    if (c.state > detail::slotTombstone) {
      damaged("slot " + std::to_string(slot) + " has an unknown state " + std::to_string(c.state));
      return false;
    }
    if (c.state != detail::slotLive) return true;
    Key const key = c.keyValue();
    if (Slots::hashOf(key) != c.hash || slots_.home(c.hash) > slot) {
      damaged("slot " + std::to_string(slot) + " holds key " + Mosk::valueToStrep(key) +
              " that does not belong there");
      return false;
    }
    return true;
  }

  // The fixed part of the header is as it was on attach, and the count is possible.
  bool headerIntact() const {
    if (segment_.cutShort()) {
      cutShort(std::nullopt);
      return false;
    }
    detail::ShmHeader const* h = slots_.header();
    if (std::memcmp(h, &header_, offsetof(detail::ShmHeader, count)) != 0) {
      damaged("the header changed since the table was attached");
      return false;
    }
    return count() <= slots_.geometry().capacity && !corrupt_;
  }

  // The file is shorter than the table (`size`, when known): what the reader sees of it is gone.
  void cutShort(std::optional<U64> size) const {
    damaged("the table was cut short while attached" +
            (size ? " (" + std::to_string(*size) + " bytes of " +
                        std::to_string(slots_.geometry().segmentSize) + ")"
                  : std::string()));
  }

  void damaged(std::string const& what) const {
    if (corrupt_) return;
    corrupt_ = true;
    corruption_ = "table '" + name() + "': " + what;
    if (listener_) listener_->onShmTableCorrupt(corruption_);
  }

  detail::ShmSegment segment_;
  ShmReaderOptions const options_;
  Slots slots_;
  detail::ShmHeader header_;  // as attached
  U64 cursor_ = 0;            // the next change to take from the ring
  std::unique_ptr<Known> known_ = std::make_unique<Known>();  // reported keys, as reported
  std::vector<Key> queue_;                                    // keys to report, from next_ on
  std::size_t next_ = 0;
  std::vector<U64> keys_;
  ShmTableListener* listener_ = nullptr;
  mutable U64 lastVersion_ = 0;
  mutable Key lastKey_{};
  mutable U32 lastSlot_ = 0;
  mutable bool lastValid_ = false;
  mutable bool corrupt_ = false;
  mutable std::string corruption_;
};

// The system name of table `name` ("/name"); raises the range error for a name that is not
// allowed (1 to 200 letters, digits, '.', '_' or '-', not ending in ".lock", which names the
// writers' locks).
std::string shmTablePath(std::string const& name);
// Removes table `name` and its writers' lock from the system; processes that have them open keep
// their view. False when there is no such table.
bool shmTableRemove(std::string const& name);
// True when table `name` exists.
bool shmTableExists(std::string const& name);
// The user or group named `name` (a name, or a number below 2^32 - 1), for the owners and
// groups a table's writer and readers are told about; none when there is no such one.
std::optional<uid_t> shmUserId(std::string const& name);
std::optional<gid_t> shmGroupId(std::string const& name);

}  // namespace Skerry
