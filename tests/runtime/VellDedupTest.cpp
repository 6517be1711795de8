// Dedup handles and tables: the reference rule that takes an entry out of its table, the
// notifiee protocol, lookups, and the detaching assertion.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Vell/Dedup.h"

using Mosk::Ptr;
using namespace Vell;

namespace {

struct Label : DedupHandle {
  explicit Label(U32 v, int* destroyed = nullptr) : value(v), destroyed(destroyed) {}
  ~Label() override {
    if (destroyed) ++*destroyed;
  }
  U32 hash() const override { return value % 4; }  // collisions on purpose
  bool compare(DedupHandle const& o) const override {
    return value == static_cast<Label const&>(o).value;
  }
  U32 value;
  int* destroyed;
};

// Keeps a notifier per live entry, as the store's collections do, and logs the protocol.
struct Notifiee : DedupHashTableLifeTimeNotifiee {
  void handleInsert(Ptr<DedupHandle> const& h) const override {
    log.push_back("insert " + std::to_string(static_cast<Label*>(h.ptr())->value));
    notifiers[h.ptr()] = new DedupHandleLifeTimeNotifier(h);
  }
  void handleRemove(DedupHandle* h) const override {
    log.push_back("remove " + std::to_string(static_cast<Label*>(h)->value) +
                  (h->beingDetached() ? " detaching" : ""));
    EXPECT_NE(notifiers[h]->getDedupedObjectRawPtr(), nullptr);
    if (takeReferenceInRemove) Ptr<DedupHandle> p(h);
    notifiers.erase(h);
  }
  void handleNotificationStop(DedupHashTable*) const override {
    log.push_back("stop");
    while (!notifiers.empty())
      handleRemove(notifiers.begin()->first);
  }
  mutable std::vector<std::string> log;
  mutable std::map<DedupHandle*, Ptr<DedupHandleLifeTimeNotifier>> notifiers;
  bool takeReferenceInRemove = false;
};

using Log = std::vector<std::string>;

class VellDedup : public ::testing::Test {
 protected:
  Ptr<DedupHashTable> table = dedupHashTableUnorderedSetFactory(0);
  int destroyed = 0;
};

// Catches an entry removed one reference too early or too late when only the table (and its
// lifetime notifier, whose reference is part of the table's share) holds it; a notifiee that is
// not told, or told with the object already gone.
TEST_F(VellDedup, EntryLeavesWithItsLastOutsideReference) {
  for (bool notified : {false, true}) {
    SCOPED_TRACE(notified ? "with a lifetime notifier" : "without");
    table = dedupHashTableUnorderedSetFactory(0);
    destroyed = 0;
    Ptr<Notifiee> n(new Notifiee);
    if (notified) table->lifeTimeNotifieeIs(n);
    Ptr<Label> a = table->dedup(Ptr<Label>(new Label(7, &destroyed)));
    EXPECT_EQ(a->dedupTable(), table.ptr());
    EXPECT_EQ(a->haveLifeTimeNotifier(), notified);
    EXPECT_EQ(a->references(), notified ? 3u : 2u);  // a, the table (, the notifier)
    Ptr<Label> b = a;
    b = nullptr;  // still held outside
    EXPECT_EQ(a->referencesInc(), notified ? 4u : 3u);
    a->referencesDec();
    EXPECT_EQ(table->size(), 1u);
    a = nullptr;
    EXPECT_EQ(table->size(), 0u);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(n->log, notified ? (Log{"insert 7", "remove 7 detaching"}) : Log{});
  }
}

// Catches a second equal object not collapsed, unequal objects of equal hash collapsed, and a
// lookup that inserts.
TEST_F(VellDedup, EqualObjectsCollapseAndLookupNeverInserts) {
  Ptr<Notifiee> n(new Notifiee);
  table->lifeTimeNotifieeIs(n);
  Ptr<Label> a = table->dedup(Ptr<Label>(new Label(1)));
  Ptr<Label> dup(new Label(1, &destroyed));
  EXPECT_EQ(table->dedup(dup), a);
  EXPECT_EQ(dup->dedupTable(), nullptr);
  dup = nullptr;
  EXPECT_EQ(destroyed, 1);
  Ptr<Label> c = table->dedup(Ptr<Label>(new Label(5)));  // same hash as 1
  EXPECT_NE(c, a);
  Label probe(9);
  EXPECT_FALSE(table->lookup(probe));
  EXPECT_EQ(table->lookup(Label(5)), c);
  EXPECT_EQ(table->size(), 2u);
  EXPECT_EQ(n->log, (Log{"insert 1", "insert 5"}));
  // Many entries: growth keeps every entry findable.
  std::vector<Ptr<Label>> held;
  for (U32 v = 100; v < 1100; ++v)
    held.push_back(table->dedup(Ptr<Label>(new Label(v))));
  for (U32 v = 100; v < 1100; ++v)
    ASSERT_EQ(table->lookup(Label(v)), held[v - 100]);
}

// Catches a table that keeps notifying a replaced notifiee or destroys entries still held.
TEST_F(VellDedup, NotificationStopAndTableDestruction) {
  Ptr<Notifiee> n(new Notifiee);
  table->lifeTimeNotifieeIs(n);
  Ptr<Label> kept = table->dedup(Ptr<Label>(new Label(3, &destroyed)));
  Ptr<Label> other = table->dedup(Ptr<Label>(new Label(4, &destroyed)));
  table->lifeTimeNotifieeIs(nullptr);
  std::sort(n->log.begin() + 3, n->log.end());  // the notifiee's own order
  EXPECT_EQ(n->log, (Log{"insert 3", "insert 4", "stop", "remove 3", "remove 4"}));
  EXPECT_FALSE(kept->haveLifeTimeNotifier());
  Ptr<Notifiee> n2(new Notifiee);
  table->lifeTimeNotifieeIs(n2);  // hears the entries already in
  EXPECT_EQ(n2->log.size(), 2u);
  other = nullptr;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(n2->log.back(), "remove 4 detaching");
  table = nullptr;
  EXPECT_EQ(n2->log.size(), 5u);  // stop, remove 3
  EXPECT_EQ(n->log.size(), 5u);
  EXPECT_EQ(kept->dedupTable(), nullptr);
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_EQ(destroyed, 1);
}

TEST_F(VellDedup, TakingAReferenceWhileDetachingDies) {
  Ptr<Notifiee> n(new Notifiee);
  n->takeReferenceInRemove = true;
  table->lifeTimeNotifieeIs(n);
  Ptr<Label> a = table->dedup(Ptr<Label>(new Label(2)));
  EXPECT_DEATH(a = nullptr,
               "!beingDetached\\(\\).*U32 Vell::DedupHandle::referencesInc\\(\\) const");
  n->takeReferenceInRemove = false;  // this process still has to let go of `a`
}

}  // namespace
