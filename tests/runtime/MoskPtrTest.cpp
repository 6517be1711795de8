// Counted references: counts, destruction at zero, the thread-safe switch.
#include <gtest/gtest.h>

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
  base = base;  // NOLINT: self-assignment must not drop the object
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
