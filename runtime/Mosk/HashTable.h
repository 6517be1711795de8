// OrderedHashTable: the open-addressing table behind every HashMap of the runtime.
//
// Entries are kept in ascending order of (hash, key) over one slot array, each at or after its
// home slot (the top bits of its hash); insertion shifts a run right, erasure shifts the
// displaced followers back (Robin Hood with backward shift). Because the order is the hash
// order, it does not depend on the table's size or history, and "the entry after key k" is
// defined even when k itself is gone. Cursors use that to survive any change of the table:
// a cursor remembers its entry and, when the table changed under it, finds its place again by
// (hash, key). Nothing invalidates a cursor except destroying the table.
//
// Traits: `Key`; `static Key const& key(Entry const&)`; `static U32 hash(Key const&)`;
// `static bool less(Key const&, Key const&)`.
//
// Inline: room for that many entries inside the table object itself, for the many tables of one
// to a few entries (the lists of a candidate path, the users of a list). Up to that count the
// entries sit in one run, in the same order as ever, and the table allocates nothing; one more
// moves them to allocated slots like any table's. What a cursor sees does not change.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "Mosk/Assert.h"
#include "Mosk/Types.h"

namespace Mosk {

template <class Entry, class Traits, U32 Inline = 0>
class OrderedHashTable {
 public:
  using Key = typename Traits::Key;
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  OrderedHashTable() { useInline(); }
  OrderedHashTable(OrderedHashTable const&) = delete;
  OrderedHashTable& operator=(OrderedHashTable const&) = delete;
  ~OrderedHashTable() { release(); }

  U32 size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The slots allocated, for memory accounting: the home slots and the overflow after them.
  std::size_t slotCount() const { return total_; }
  // Changes whenever an entry is inserted or erased; cursors compare it to know they must
  // find their place again.
  U32 epoch() const { return epoch_; }

  Entry* find(Key const& k) {
    std::size_t i = findIndex(Traits::hash(k), k);
    return i == npos ? nullptr : &slots_[i].entry();
  }
  Entry const* find(Key const& k) const { return const_cast<OrderedHashTable*>(this)->find(k); }

  // Inserts `e` unless an entry with its key exists. Returns the stored entry and whether it
  // was inserted.
  template <class E>
  std::pair<Entry*, bool> insert(E&& e) {
    Key const& k = Traits::key(e);
    U32 h = Traits::hash(k);
    for (;;) {
      std::size_t i = lowerIndex(h, k);
      if (i < total_ && slots_[i].used && slots_[i].hash == h && !Traits::less(k, keyAt(i))) {
        return {&slots_[i].entry(), false};
      }
      std::size_t j = i;
      while (j < total_ && slots_[j].used)
        ++j;
      if (j == total_ || tooFull() || crowded(h, j)) {
        grow();
        continue;
      }
      for (std::size_t m = j; m > i; --m)
        moveSlot(m - 1, m);
      slots_[i].construct(h, std::forward<E>(e));
      ++size_;
      ++epoch_;
      return {&slots_[i].entry(), true};
    }
  }

  // Removes the entry with key `k`; returns it when there was one.
  std::optional<Entry> erase(Key const& k) {
    std::size_t i = findIndex(Traits::hash(k), k);
    if (i == npos) return std::nullopt;
    std::optional<Entry> out(std::move(slots_[i].entry()));
    eraseIndex(i);
    return out;
  }

  void clear() {
    release();
    ++epoch_;
  }

  // Index of the first entry at or after (h, k) in table order (npos at the end).
  std::size_t lowerBound(U32 h, Key const& k) const { return nextUsed(lowerIndex(h, k)); }
  // Index of the first entry strictly after (h, k).
  std::size_t upperBound(U32 h, Key const& k) const {
    std::size_t i = lowerIndex(h, k);
    if (i < total_ && slots_[i].used && slots_[i].hash == h && !Traits::less(k, keyAt(i))) ++i;
    return nextUsed(i);
  }
  std::size_t firstIndex() const { return nextUsed(0); }
  std::size_t nextIndex(std::size_t i) const { return nextUsed(i + 1); }
  Entry& entryAt(std::size_t i) { return slots_[i].entry(); }
  Entry const& entryAt(std::size_t i) const { return slots_[i].entry(); }
  U32 hashAt(std::size_t i) const { return slots_[i].hash; }

  // A cursor over the table in (hash, key) order that survives any change of the table.
  template <bool Const>
  class CursorBase {
   public:
    using Table = std::conditional_t<Const, OrderedHashTable const, OrderedHashTable>;
    CursorBase() = default;
    CursorBase(Table* t, std::size_t i) : t_(t) { load(i); }

    explicit operator bool() const { return current_.has_value(); }
    // The entry as it was when the cursor reached it; live values are read through live().
    Entry const& snapshot() const { return *current_; }
    Key const& key() const { return Traits::key(*current_); }
    // The live entry under the cursor, or null when it has been erased since.
    auto live() const -> std::conditional_t<Const, Entry const*, Entry*> {
      if (!current_) return nullptr;
      if (t_->epoch() != epoch_) return t_->find(key());
      return &t_->entryAt(index_);
    }
    CursorBase& operator++() {
      if (!current_) return *this;
      std::size_t next =
          t_->epoch() == epoch_ ? t_->nextIndex(index_) : t_->upperBound(hash_, key());
      load(next);
      return *this;
    }

   private:
    void load(std::size_t i) {
      if (i == npos) {
        current_.reset();
        return;
      }
      index_ = i;
      epoch_ = t_->epoch();
      hash_ = t_->hashAt(i);
      current_.emplace(t_->entryAt(i));
    }

    Table* t_ = nullptr;
    std::size_t index_ = 0;
    U32 epoch_ = 0;
    U32 hash_ = 0;
    std::optional<Entry> current_;
  };
  using Cursor = CursorBase<false>;
  using CursorConst = CursorBase<true>;

  Cursor begin() { return Cursor(this, firstIndex()); }
  CursorConst begin() const { return CursorConst(this, firstIndex()); }
  // A cursor at `k`, or at the entry that follows `k` in table order when `k` is absent.
  Cursor at(Key const& k) { return Cursor(this, lowerBound(Traits::hash(k), k)); }
  CursorConst at(Key const& k) const { return CursorConst(this, lowerBound(Traits::hash(k), k)); }

 private:
  struct Slot {
    U32 hash;
    bool used;
    alignas(Entry) unsigned char storage[sizeof(Entry)];

    Entry& entry() { return *std::launder(reinterpret_cast<Entry*>(storage)); }
    template <class E>
    void construct(U32 h, E&& e) {
      ::new (static_cast<void*>(storage)) Entry(std::forward<E>(e));
      hash = h;
      used = true;
    }
    void destroy() {
      entry().~Entry();
      used = false;
    }
  };

  // The inline slots; nothing at all when there are none.
  struct NoSlots {
    Slot* data() { return nullptr; }
  };
  struct InlineSlots {
    Slot* data() { return slots; }
    Slot slots[Inline > 0 ? Inline : 1];
  };
  using Storage = std::conditional_t<(Inline > 0), InlineSlots, NoSlots>;

  bool allocated() const { return total_ != 0 && slots_ != const_cast<Storage&>(inline_).data(); }
  // An empty table over the inline slots (or none): one run of `Inline` slots homed at 0.
  void useInline() {
    slots_ = inline_.data();
    total_ = Inline;
    logCap_ = 0;
    for (std::size_t i = 0; i < Inline; ++i)
      slots_[i].used = false;
  }

  Key const& keyAt(std::size_t i) const { return Traits::key(slots_[i].entry()); }

  std::size_t home(U32 h) const { return homeIn(h, logCap_); }
  static bool slotBefore(U32 sh, Key const& sk, U32 h, Key const& k) {
    return sh < h || (sh == h && Traits::less(sk, k));
  }
  // The first slot at or after home(h) that is empty or holds an entry not before (h, k).
  std::size_t lowerIndex(U32 h, Key const& k) const {
    if (total_ == 0) return 0;
    std::size_t i = home(h);
    while (i < total_ && slots_[i].used && slotBefore(slots_[i].hash, keyAt(i), h, k))
      ++i;
    return i;
  }
  std::size_t findIndex(U32 h, Key const& k) const {
    std::size_t i = lowerIndex(h, k);
    if (i < total_ && slots_[i].used && slots_[i].hash == h && !Traits::less(k, keyAt(i))) {
      return i;
    }
    return npos;
  }
  std::size_t nextUsed(std::size_t i) const {
    while (i < total_ && !slots_[i].used)
      ++i;
    return i < total_ ? i : npos;
  }
  // Keys that arrive in the hash order of another table (a copy, a walk of one map filling
  // another) all home in the first few slots of a table sized for far more keys than it holds
  // yet: one run grows with every insert and every insert and erase scans it. Such a run ends in
  // an entry far from its home, since every entry of the run homes before the new key's home.
  // An entry that ends a run more than kMaxRun slots after its home therefore grows the table,
  // which spreads the run over more homes; not when the run shares one hash (growing cannot
  // split it) or the table is already much larger than its contents. Well-mixed keys keep the
  // last entry of a run within a few slots of its home at any fill up to the limit (at most 15
  // over millions of inserts), though the new key itself may land hundreds of slots from its
  // home at three-quarters full: measured on that distance, such tables would double long
  // before they fill. Growing never changes the iteration order.
  static constexpr std::size_t kMaxRun = 64;
  static constexpr std::size_t kMaxSpread = 256;
  bool crowded(U32 h, std::size_t j) const {
    std::size_t const start = home(h);
    if (j - start <= kMaxRun || logCap_ >= 31) return false;
    if ((std::size_t{1} << logCap_) >= kMaxSpread * (std::size_t{size_} + 1)) return false;
    if (slots_[start].hash == slots_[j - 1].hash) return false;
    return j - 1 - home(slots_[j - 1].hash) > kMaxRun;
  }
  bool tooFull() const { return logCap_ >= 4 && (size_ + 1) * 8 > (std::size_t{1} << logCap_) * 7; }

  void moveSlot(std::size_t from, std::size_t to) {
    slots_[to].construct(slots_[from].hash, std::move(slots_[from].entry()));
    slots_[from].destroy();
  }

  void eraseIndex(std::size_t i) {
    slots_[i].destroy();
    std::size_t j = i + 1;
    while (j < total_ && slots_[j].used && home(slots_[j].hash) < j) {
      moveSlot(j, j - 1);
      ++j;
    }
    --size_;
    ++epoch_;
  }

  // Overflow slots after the 2^logCap home slots. A small table (logCap 0 to 2, every entry in
  // one run) stays small: the many tables of one to three entries (the lists of a candidate,
  // the candidates of a list, the labels of an exported list) allocate three slots, not five,
  // and grow to four and then eight.
  static std::size_t extraSlots(U32 logCap) {
    return logCap == 0 ? 2 : logCap < 3 ? std::size_t{1} << logCap : logCap + 2;
  }

  // Doubles the table (more than once if a cluster at the end would not fit) and re-places
  // the entries, which are already in table order.
  void grow() {
    U32 newLog = total_ == 0 ? 0 : logCap_ + 1;
    while (!fitsIn(newLog))
      ++newLog;
    std::size_t newTotal = (std::size_t{1} << newLog) + extraSlots(newLog);
    Slot* fresh = new Slot[newTotal];
    for (std::size_t i = 0; i < newTotal; ++i)
      fresh[i].used = false;
    rebuildWith(fresh, newLog, newTotal);
  }

  bool fitsIn(U32 newLog) const {
    std::size_t newTotal = (std::size_t{1} << newLog) + extraSlots(newLog);
    std::size_t next = 0;
    for (std::size_t i = 0; i < total_; ++i) {
      if (!slots_[i].used) continue;
      std::size_t at = std::max(homeIn(slots_[i].hash, newLog), next);
      if (at >= newTotal - 1) return false;  // keep one free slot for the insert under way
      next = at + 1;
    }
    return true;
  }

  static std::size_t homeIn(U32 h, U32 logCap) {
    return static_cast<std::size_t>((static_cast<U64>(h) << logCap) >> 32);
  }

  void rebuildWith(Slot* fresh, U32 newLog, std::size_t newTotal) {
    std::size_t next = 0;
    for (std::size_t i = 0; i < total_; ++i) {
      if (!slots_[i].used) continue;
      std::size_t at = std::max(homeIn(slots_[i].hash, newLog), next);
      MOSK_ASSERT(at < newTotal);
      fresh[at].construct(slots_[i].hash, std::move(slots_[i].entry()));
      slots_[i].destroy();
      next = at + 1;
    }
    if (allocated()) delete[] slots_;
    slots_ = fresh;
    logCap_ = newLog;
    total_ = static_cast<U32>(newTotal);
    ++epoch_;
  }

  void release() {
    for (std::size_t i = 0; i < total_; ++i) {
      if (slots_[i].used) slots_[i].destroy();
    }
    if (allocated()) delete[] slots_;
    size_ = 0;
    useInline();
  }

  Slot* slots_ = nullptr;
  U32 total_ = 0;  // slots in use: the home slots and the overflow after them
  U32 logCap_ = 0;
  U32 size_ = 0;
  U32 epoch_ = 0;
  [[no_unique_address]] Storage inline_;
};

}  // namespace Mosk
