// Counted references: counts, destruction at zero, the thread-safe switch, pooled blocks.
#include <gtest/gtest.h>

#include <vector>

#include "Mosk/Ptr.h"

namespace {

struct Counted : Mosk::PtrInterface {
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }
  int* destroyed_;
};

struct Derived : Counted {
  using Counted::Counted;
};

TEST(MoskPtr, ObjectLivesWhileReferencedAndDiesWithLastReference) {
  int destroyed = 0;
  Mosk::Ptr<Counted> a(new Counted(&destroyed));
  EXPECT_EQ(a->references(), 1u);
  {
    Mosk::Ptr<Counted const> b = a;
    Mosk::Ptr<Counted> c = a;
    EXPECT_EQ(a->references(), 3u);
    c = nullptr;
    EXPECT_EQ(a->references(), 2u);
  }
  EXPECT_EQ(destroyed, 0);
  Mosk::Ptr<Counted> moved = std::move(a);
  EXPECT_FALSE(a);
  EXPECT_EQ(moved->references(), 1u);
  moved = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(MoskPtr, SelfAssignmentAndUpcastKeepCountsRight) {
  int destroyed = 0;
  Mosk::Ptr<Derived> d(new Derived(&destroyed));
  Mosk::Ptr<Counted> base = d;
  Mosk::Ptr<Counted>& same = base;  // through a reference, so that compilers do not object
  base = same;                      // self-assignment must not drop the object
  EXPECT_EQ(d->references(), 2u);
  auto back = Mosk::ptrCast<Derived>(base);
  EXPECT_EQ(back.ptr(), d.ptr());
  d = nullptr;
  base = nullptr;
  EXPECT_EQ(destroyed, 0);
  back = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(MoskPtr, ThreadSafeSwitchCountsTheSame) {
  int destroyed = 0;
  Mosk::enableThreadSafePointers = true;
  {
    Mosk::Ptr<Counted> a(new Counted(&destroyed));
    Mosk::Ptr<Counted> b = a;
    EXPECT_EQ(a->references(), 2u);
  }
  Mosk::enableThreadSafePointers = false;
  EXPECT_EQ(destroyed, 1);
}

// Objects of several sizes: a derived object bigger than its base, one past the largest pooled
// class, and one freed through a pointer to its base.
template <std::size_t N>
struct Sized : Counted {
  using Counted::Counted;
  char payload[N] = {};
};

// Catches: a delete that gives a block back to the wrong size class (a later object of the
// bigger class would overlap its neighbour), a freed block not reused, a large object taken
// from a pool, and counts that go wrong with the thread-safe switch on.
TEST(MoskPtr, PooledBlocksGoBackToTheirOwnSizeAndAreReused) {
  int destroyed = 0;
  for (bool threadSafe : {false, true}) {
    SCOPED_TRACE(threadSafe ? "thread-safe" : "plain");
    Mosk::enableThreadSafePointers = threadSafe;
    auto before = Mosk::Pool::counts;
    Counted* big = new Sized<100>(&destroyed);
    void* bigBlock = big;
    {
      Mosk::Ptr<Counted> viaBase(big);  // deleted as a Counted: the size must be Sized<100>'s
    }
    Mosk::Ptr<Counted> small(new Counted(&destroyed));
    EXPECT_NE(static_cast<void*>(small.ptr()), bigBlock);
    Mosk::Ptr<Counted> again(new Sized<100>(&destroyed));
    std::vector<Mosk::Ptr<Counted>> huge;
    for (int i = 0; i < 3; ++i)
      huge.emplace_back(new Sized<Mosk::Pool::kLargestPooled>(&destroyed));
    huge.clear();
    if (MOSK_POOLED_BLOCKS) {
      EXPECT_EQ(static_cast<void*>(again.ptr()), bigBlock);
      EXPECT_EQ(Mosk::Pool::counts.taken - before.taken, 3u);
      EXPECT_EQ(Mosk::Pool::counts.returned - before.returned, 1u);
    }
    small = nullptr;
    again = nullptr;
    Mosk::enableThreadSafePointers = false;
  }
  EXPECT_EQ(destroyed, 12);
}

TEST(MoskPtr, ValidPtrRefusesNull) {
  Mosk::Ptr<Counted> none;
  try {
    Mosk::validPtr(none);
    FAIL() << "expected a range error";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
}

}  // namespace
