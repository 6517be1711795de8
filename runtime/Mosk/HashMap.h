// Hash-keyed collections: HashMap (key to value, or a set when the value is bool) and
// EntityHashMap (key to counted element whose key is stored in the element itself).
//
// Both iterate in hash order (OrderedHashTable) with cursors that survive any insertion or
// erasure, including of the element under the cursor and the one after it, and that can start
// at a key (or where that key would be). A HashMap with `Inline` > 0 keeps up to that many
// entries inside itself and allocates nothing for them (see OrderedHashTable).
#pragma once

#include <functional>

#include "Mosk/HashTable.h"
#include "Mosk/Ptr.h"
#include "Mosk/Value.h"

namespace Mosk {

template <class K>
struct KeyHash {
  U32 operator()(K const& k) const { return ValueTraits<K>::hash(k); }
};

template <class T>
struct KeyHash<Ptr<T>> {
  U32 operator()(Ptr<T> const& p) const {
    return hashU64(reinterpret_cast<std::uintptr_t>(p.ptr()));
  }
};

template <class K, class V, class Hasher = KeyHash<K>, class Less = std::less<K>, U32 Inline = 0>
class HashMap {
 public:
  struct Entry {
    K key;
    V value;
  };

 private:
  struct Traits {
    using Key = K;
    static K const& key(Entry const& e) { return e.key; }
    static U32 hash(K const& k) { return Hasher()(k); }
    static bool less(K const& a, K const& b) { return Less()(a, b); }
  };
  using Table = OrderedHashTable<Entry, Traits, Inline>;

 public:
  template <bool Const>
  class CursorOf {
   public:
    CursorOf() = default;
    explicit CursorOf(typename Table::template CursorBase<Const> c) : c_(std::move(c)) {}
    explicit operator bool() const { return static_cast<bool>(c_); }
    CursorOf& operator++() {
      ++c_;
      return *this;
    }
    K const& key() const { return c_.key(); }
    // The current value, or the last one seen when the entry has been erased since.
    V const& value() const {
      auto* e = c_.live();
      return e ? e->value : c_.snapshot().value;
    }

   private:
    typename Table::template CursorBase<Const> c_;
  };
  using Cursor = CursorOf<false>;
  using CursorConst = CursorOf<true>;

  U32 size() const { return table_.size(); }
  // The slots the table has allocated (memory accounting).
  std::size_t slotCount() const { return table_.slotCount(); }
  bool empty() const { return table_.empty(); }

  V const* find(K const& k) const {
    Entry const* e = table_.find(k);
    return e ? &e->value : nullptr;
  }
  bool contains(K const& k) const { return table_.find(k) != nullptr; }

  enum class Change { none, inserted, updated };
  // Stores `v` under `k`; says whether that inserted, updated or changed nothing.
  Change set(K const& k, V const& v) {
    auto [e, inserted] = table_.insert(Entry{k, v});
    if (inserted) return Change::inserted;
    if (e->value == v) return Change::none;
    e->value = v;
    return Change::updated;
  }
  // The same, taking `v` over instead of copying it.
  Change set(K const& k, V&& v) {
    Entry entry{k, std::move(v)};
    // The table takes the entry only when it inserts it; otherwise `entry` is left intact.
    auto [e, inserted] = table_.insert(std::move(entry));
    if (inserted) return Change::inserted;
    if (e->value == entry.value) return Change::none;
    e->value = std::move(entry.value);
    return Change::updated;
  }
  bool erase(K const& k) { return table_.erase(k).has_value(); }
  void clear() { table_.clear(); }

  CursorConst cursor() const { return CursorConst(table_.begin()); }
  Cursor cursor() { return Cursor(table_.begin()); }
  // Starts at `k`, or at the entry after where `k` would be.
  CursorConst cursorAt(K const& k) const { return CursorConst(table_.at(k)); }

  U32 epoch() const { return table_.epoch(); }

 private:
  Table table_;
};

// KeyOf: a functor type with `K const& operator()(E const&) const`.
template <class K, class E, class KeyOf, class Hasher = KeyHash<K>, class Less = std::less<K>>
class EntityHashMap {
  struct Traits {
    using Key = K;
    static K const& key(Ptr<E> const& e) { return KeyOf()(*e); }
    static U32 hash(K const& k) { return Hasher()(k); }
    static bool less(K const& a, K const& b) { return Less()(a, b); }
  };
  using Table = OrderedHashTable<Ptr<E>, Traits>;

 public:
  template <bool Const>
  class CursorOf {
   public:
    using Elem = std::conditional_t<Const, E const, E>;
    CursorOf() = default;
    explicit CursorOf(typename Table::template CursorBase<Const> c) : c_(std::move(c)) {}
    explicit operator bool() const { return static_cast<bool>(c_); }
    CursorOf& operator++() {
      ++c_;
      return *this;
    }
    K const& key() const { return c_.key(); }
    // The element under the cursor; it stays alive while the cursor is on it, even if erased.
    Ptr<Elem> ptr() const { return c_.snapshot(); }
    Elem* operator->() const { return c_.snapshot().ptr(); }
    Elem& operator*() const { return *c_.snapshot(); }

   private:
    typename Table::template CursorBase<Const> c_;
  };
  using Cursor = CursorOf<false>;
  using CursorConst = CursorOf<true>;

  U32 size() const { return table_.size(); }
  bool empty() const { return table_.empty(); }

  E* find(K const& k) const {
    Ptr<E> const* e = table_.find(k);
    return e ? e->ptr() : nullptr;
  }
  // Inserts `e` unless its key is present; returns the stored element and whether it was new.
  std::pair<E*, bool> insert(Ptr<E> e) {
    auto [slot, inserted] = table_.insert(std::move(e));
    return {slot->ptr(), inserted};
  }
  Ptr<E> erase(K const& k) {
    auto out = table_.erase(k);
    return out ? std::move(*out) : Ptr<E>();
  }
  void clear() { table_.clear(); }

  CursorConst cursor() const { return CursorConst(table_.begin()); }
  Cursor cursor() { return Cursor(table_.begin()); }
  CursorConst cursorAt(K const& k) const { return CursorConst(table_.at(k)); }
  Cursor cursorAt(K const& k) { return Cursor(table_.at(k)); }

 private:
  Table table_;
};

}  // namespace Mosk
