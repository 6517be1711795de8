// The collection kinds: one typed suite for what all of them promise, then the hash table's
// order and cursor guarantees against a reference model.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "Mosk/Model.h"

namespace {

struct Elem : Mosk::PtrInterface {
  explicit Elem(U32 k) : key(k) {}
  U32 key;
  Mosk::RbTreeHook rbTreeHook_;
  struct KeyOf {
    U32 const& operator()(Elem const& e) const { return e.key; }
  };
};

// Walk callbacks get the current key and the key the walk would visit next, if any.
using Visit = std::function<void(U32, std::optional<U32>)>;

template <class C>
void walkCursor(C& c, Visit const& f) {
  for (auto it = c.cursor(); it; ++it) {
    auto peek = it;
    ++peek;
    f(it.key(), peek ? std::optional<U32>(peek.key()) : std::nullopt);
  }
}

void walkPositions(U32 end, Visit const& f, std::function<bool(U32)> const& has) {
  for (U32 i = 0; i < end; ++i) {
    if (!has(i)) continue;
    std::optional<U32> next;
    for (U32 j = i + 1; j < end && !next; ++j) {
      if (has(j)) next = j;
    }
    f(i, next);
  }
}

// A map of values (set/erase) and a map of elements (insert/erase), each walked by its cursor.
template <class Map>
struct ValueMapKind {
  using C = Map;
  static void put(C& c, U32 k) { c.set(k, k + 1); }
  static void del(C& c, U32 k) { c.erase(k); }
  static bool has(C const& c, U32 k) { return c.contains(k); }
  static U32 size(C const& c) { return c.size(); }
  static void walk(C& c, Visit const& f) { walkCursor(c, f); }
};
template <class Map>
struct ElementMapKind {
  using C = Map;
  static void put(C& c, U32 k) { c.insert(Mosk::Ptr<Elem>(new Elem(k))); }
  static void del(C& c, U32 k) { c.erase(k); }
  static bool has(C const& c, U32 k) { return c.find(k) != nullptr; }
  static U32 size(C const& c) { return c.size(); }
  static void walk(C& c, Visit const& f) { walkCursor(c, f); }
};
using HashMapKind = ValueMapKind<Mosk::HashMap<U32, U32>>;
// A map with room for three entries inside itself; the walks below hold fifty.
using InlineHashMapKind =
    ValueMapKind<Mosk::HashMap<U32, U32, Mosk::KeyHash<U32>, std::less<U32>, 3>>;
using EntityHashMapKind = ElementMapKind<Mosk::EntityHashMap<U32, Elem, Elem::KeyOf>>;
using RbTreeMapKind = ElementMapKind<Mosk::RbTreeMap<U32, Elem, Elem::KeyOf>>;

struct DynArrayKind {
  using C = Mosk::DynArray<U32>;
  static void put(C& c, U32 k) { c.set(k, k + 1); }
  static void del(C& c, U32 k) { c.erase(k); }
  static bool has(C const& c, U32 k) { return c.at(k) != 0; }
  static U32 size(C const& c) {
    U32 n = 0;
    for (U32 i = 0; i < c.size(); ++i)
      n += has(c, i);
    return n;
  }
  static void walk(C& c, Visit const& f) {
    walkPositions(64, f, [&c](U32 i) { return has(c, i); });
  }
};

struct ArrayKind {
  using C = Mosk::Array<U32, U32, 64>;
  static void put(C& c, U32 k) { c.set(k, k + 1); }
  static void del(C& c, U32 k) { c.erase(k); }
  static bool has(C const& c, U32 k) { return c.at(k) != 0; }
  static U32 size(C const& c) { return c.count(); }
  static void walk(C& c, Visit const& f) {
    walkPositions(64, f, [&c](U32 i) { return has(c, i); });
  }
};

struct PodArrayKind {
  using C = Mosk::PodArray<U32, U32, 64>;
  static void put(C& c, U32 k) { c.set(k, k + 1); }
  static void del(C& c, U32 k) { c.set(k, 0); }
  static bool has(C const& c, U32 k) { return k < c.count() && c.at(k) != 0; }
  static U32 size(C const& c) {
    U32 n = 0;
    for (U32 i = 0; i < c.count(); ++i)
      n += has(c, i);
    return n;
  }
  static void walk(C& c, Visit const& f) {
    walkPositions(64, f, [&c](U32 i) { return has(c, i); });
  }
};

template <class Kind>
class CollectionKinds : public ::testing::Test {};

using Kinds = ::testing::Types<HashMapKind, InlineHashMapKind, EntityHashMapKind, RbTreeMapKind,
                               DynArrayKind, ArrayKind, PodArrayKind>;
TYPED_TEST_SUITE(CollectionKinds, Kinds);

TYPED_TEST(CollectionKinds, InsertFindAndErase) {
  typename TypeParam::C c;
  for (U32 k = 0; k < 40; ++k)
    TypeParam::put(c, k);
  EXPECT_EQ(TypeParam::size(c), 40u);
  TypeParam::put(c, 7);  // again: no second entry
  EXPECT_EQ(TypeParam::size(c), 40u);
  for (U32 k = 0; k < 40; k += 2)
    TypeParam::del(c, k);
  EXPECT_EQ(TypeParam::size(c), 20u);
  for (U32 k = 0; k < 40; ++k)
    EXPECT_EQ(TypeParam::has(c, k), k % 2 == 1) << k;
  TypeParam::del(c, 0);  // absent: no effect
  EXPECT_EQ(TypeParam::size(c), 20u);
}

// Deleting the element under the walk and the one it would visit next must neither break the
// walk nor make it visit a deleted element or skip a live one.
TYPED_TEST(CollectionKinds, WalkSurvivesDeletingCurrentAndNext) {
  typename TypeParam::C c;
  for (U32 k = 0; k < 50; ++k)
    TypeParam::put(c, k);
  std::set<U32> visited, deleted;
  TypeParam::walk(c, [&](U32 k, std::optional<U32> next) {
    EXPECT_FALSE(deleted.count(k)) << "visited deleted key " << k;
    EXPECT_TRUE(visited.insert(k).second) << "visited twice " << k;
    if (k % 3 == 0) {
      TypeParam::del(c, k);
      deleted.insert(k);
      if (next) {
        TypeParam::del(c, *next);
        deleted.insert(*next);
      }
    }
  });
  for (U32 k = 0; k < 50; ++k) {
    EXPECT_TRUE(visited.count(k) || deleted.count(k)) << "skipped live key " << k;
  }
  EXPECT_EQ(TypeParam::size(c), 50u - deleted.size());
}

// The reference model of the hash table: every operation is mirrored into a std::map and the
// table must agree on contents and on its promised order, (hash, key).
TEST(MoskHashMap, AgreesWithReferenceUnderRandomOperations) {
  Mosk::HashMap<U32, U32> m;
  std::map<U32, U32> ref;
  std::mt19937 rng(7);
  for (int step = 0; step < 20000; ++step) {
    U32 k = rng() % 3000;
    switch (rng() % 4) {
      case 0:
      case 1: {
        U32 v = rng();
        using Change = Mosk::HashMap<U32, U32>::Change;
        Change change = m.set(k, v);
        bool existed = ref.count(k);
        bool differs = existed && ref[k] != v;
        Change expected = !existed ? Change::inserted : differs ? Change::updated : Change::none;
        EXPECT_EQ(change, expected);
        ref[k] = v;
        break;
      }
      case 2:
        EXPECT_EQ(m.erase(k), ref.erase(k) == 1);
        break;
      default: {
        auto const* v = m.find(k);
        ASSERT_EQ(v != nullptr, ref.count(k) == 1);
        if (v) {
          EXPECT_EQ(*v, ref[k]);
        }
      }
    }
  }
  ASSERT_EQ(m.size(), ref.size());
  std::optional<std::pair<U32, U32>> last;
  U32 seen = 0;
  for (auto it = m.cursor(); it; ++it, ++seen) {
    EXPECT_EQ(it.value(), ref.at(it.key()));
    std::pair<U32, U32> pos{Mosk::KeyHash<U32>()(it.key()), it.key()};
    if (last) {
      EXPECT_LT(*last, pos) << "cursor left (hash, key) order";
    }
    last = pos;
  }
  EXPECT_EQ(seen, ref.size());
}

// A map that keeps a few entries inside itself must behave exactly as one that does not, while it
// grows past its inline room, shrinks, is cleared and grows again. Catches entries lost or
// reordered when they move out of (or back into) the inline slots, a cursor losing its place
// across that move, and a cleared map that keeps using freed slots.
TEST(MoskHashMap, InlineEntriesBehaveAsAllocatedOnes) {
  Mosk::HashMap<U32, U32, Mosk::KeyHash<U32>, std::less<U32>, 2> small;
  Mosk::HashMap<U32, U32> plain;
  std::mt19937 rng(11);
  auto same = [&] {
    std::vector<std::pair<U32, U32>> a, b;
    for (auto c = small.cursor(); c; ++c)
      a.emplace_back(c.key(), c.value());
    for (auto c = plain.cursor(); c; ++c)
      b.emplace_back(c.key(), c.value());
    return a == b;
  };
  for (int step = 0; step < 4000; ++step) {
    U32 const k = rng() % 7;
    U32 const op = rng() % 10;
    if (op < 5) {
      U32 const v = rng() % 3;
      EXPECT_EQ(small.set(k, v) == decltype(small)::Change::none,
                plain.set(k, v) == decltype(plain)::Change::none);
    } else if (op < 9) {
      EXPECT_EQ(small.erase(k), plain.erase(k));
    } else if (step % 7 == 0) {
      small.clear();
      plain.clear();
      EXPECT_EQ(small.slotCount(), 2u) << "a cleared map goes back to its inline slots";
    } else {
      // A walk that inserts behind its cursor: the two maps must visit the same keys.
      std::vector<U32> a, b;
      for (auto c = small.cursor(); c; ++c) {
        a.push_back(c.key());
        small.set(c.key() + 7, 0);
      }
      for (auto c = plain.cursor(); c; ++c) {
        b.push_back(c.key());
        plain.set(c.key() + 7, 0);
      }
      EXPECT_EQ(a, b);
      for (U32 extra = 7; extra < 14; ++extra) {
        small.erase(extra);
        plain.erase(extra);
      }
    }
    ASSERT_TRUE(same()) << "step " << step;
  }
}

// Faults: the moving set losing the value of an existing key (reporting no change, storing
// nothing), or storing a moved-from value.
TEST(MoskHashMap, MovingSetInsertsUpdatesAndKeepsValues) {
  using Change = Mosk::HashMap<U32, std::vector<U32>>::Change;
  Mosk::HashMap<U32, std::vector<U32>> m;
  std::vector<U32> v{1, 2, 3};
  EXPECT_EQ(m.set(7, std::move(v)), Change::inserted);
  EXPECT_EQ(*m.find(7), (std::vector<U32>{1, 2, 3}));
  EXPECT_EQ(m.set(7, std::vector<U32>{1, 2, 3}), Change::none);
  EXPECT_EQ(m.set(7, std::vector<U32>{4}), Change::updated);
  EXPECT_EQ(*m.find(7), std::vector<U32>{4});
  for (U32 k = 0; k < 40; ++k)
    m.set(100 + k, std::vector<U32>(k, k));
  for (U32 k = 0; k < 40; ++k)
    EXPECT_EQ(*m.find(100 + k), std::vector<U32>(k, k)) << k;
  EXPECT_EQ(*m.find(7), std::vector<U32>{4});
}

// A walk that erases and inserts at random (forcing growth) visits every key that was present
// from start to end exactly once.
TEST(MoskHashMap, CursorSurvivesGrowthAndRandomErasure) {
  Mosk::HashMap<U32, bool> m;
  for (U32 k = 0; k < 200; ++k)
    m.set(k, true);
  std::mt19937 rng(11);
  std::set<U32> erased, visited;
  U32 nextNew = 1000;
  for (auto it = m.cursor(); it; ++it) {
    EXPECT_TRUE(visited.insert(it.key()).second) << "visited twice " << it.key();
    for (int i = 0; i < 3; ++i)
      m.set(nextNew++, true);
    U32 victim = rng() % 200;
    if (m.erase(victim)) erased.insert(victim);
  }
  for (U32 k = 0; k < 200; ++k) {
    if (!erased.count(k)) {
      EXPECT_TRUE(visited.count(k)) << "missed " << k;
    }
  }
}

TEST(MoskHashMap, CursorResumesAtKeyOrWhereItWouldBe) {
  Mosk::HashMap<U32, U32> m;
  for (U32 k = 0; k < 100; ++k)
    m.set(k, k);
  std::vector<U32> order;
  for (auto it = m.cursor(); it; ++it)
    order.push_back(it.key());
  U32 middle = order[40];
  auto at = m.cursorAt(middle);
  ASSERT_TRUE(at);
  EXPECT_EQ(at.key(), middle);
  // Once the key is gone, resuming from it lands on its successor in the old order.
  m.erase(middle);
  auto after = m.cursorAt(middle);
  ASSERT_TRUE(after);
  EXPECT_EQ(after.key(), order[41]);
}

TEST(MoskRbTreeMap, IteratesInKeyOrderAndResumesAboveMissingKey) {
  Mosk::RbTreeMap<U32, Elem, Elem::KeyOf> t;
  for (U32 k : {50u, 10u, 40u, 20u, 30u})
    t.insert(Mosk::Ptr<Elem>(new Elem(k)));
  std::vector<U32> keys;
  for (auto it = t.cursor(); it; ++it)
    keys.push_back(it.key());
  EXPECT_EQ(keys, (std::vector<U32>{10, 20, 30, 40, 50}));
  EXPECT_EQ(t.cursorAt(25).key(), 30u);
  EXPECT_FALSE(t.cursorAt(51));
  // A cursor keeps its element alive after it left the tree.
  auto it = t.cursor();
  Elem* first = &*it;
  t.erase(10);
  EXPECT_EQ(first->key, 10u);
  ++it;
  EXPECT_EQ(it.key(), 20u);
}

}  // namespace

struct OneHash {
  U32 operator()(U32) const { return 7; }
};

// Catches a copy in another table's hash order that loses or reorders keys while the crowded
// table grows, and growth without end when every key shares one hash (growing cannot help).
TEST(MoskHashMap, CopyInHashOrderAndSharedHashesStayCorrect) {
  Mosk::HashMap<U32, U32> source;
  for (U32 k = 0; k < 20000; ++k)
    source.set(k * 7919, k);
  Mosk::HashMap<U32, U32> copy;
  for (auto c = source.cursor(); c; ++c)
    copy.set(c.key(), c.value());
  auto a = source.cursor();
  for (auto b = copy.cursor(); b; ++b, ++a) {
    ASSERT_TRUE(a);
    ASSERT_EQ(a.key(), b.key());
  }
  EXPECT_FALSE(a);
  for (U32 k = 0; k < 20000; k += 97)
    EXPECT_EQ(*copy.find(k * 7919), k);
  for (U32 k = 0; k < 20000; ++k)
    copy.erase(k * 7919);
  EXPECT_TRUE(copy.empty());

  Mosk::HashMap<U32, bool, OneHash> same;
  for (U32 k = 0; k < 300; ++k)
    same.set(k, true);
  EXPECT_EQ(same.size(), 300u);
  EXPECT_TRUE(same.contains(299));
}

// Catches a table of well-mixed keys that doubles on the long runs such keys make by chance:
// 40,000 ids at three-fifths full, churned as lists come and go, must keep their 2^16 homes.
TEST(MoskHashMap, MixedKeysGrowOnlyWhenFull) {
  Mosk::HashMap<U32, bool> ids;
  for (U32 k = 1; k <= 40000; ++k)
    ids.set(k, true);
  std::size_t const slots = ids.slotCount();
  EXPECT_LT(slots, std::size_t{1} << 17);
  for (U32 round = 0; round < 5; ++round) {
    for (U32 k = 1; k <= 800; ++k)
      ids.erase(round * 800 + k);
    for (U32 k = 1; k <= 800; ++k)
      ids.set(40000 + round * 800 + k, true);
  }
  EXPECT_EQ(ids.size(), 40000u);
  EXPECT_EQ(ids.slotCount(), slots);
}
