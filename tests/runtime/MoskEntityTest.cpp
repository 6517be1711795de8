// Entities, their generated attributes and collections, and synchronous notification.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "TestModel.h"

using namespace MoskTest;
using Mosk::Ptr;

namespace {

// Records every callback together with the value the notifier holds at that moment, so a
// notification that arrives before the change is stored shows the old value.
struct LeafWatcher : Leaf::NotifieeConst {
  std::vector<std::string> events;
  void onWeight() override {
    events.push_back("weight " + std::to_string(notifier()->weight().value()));
  }
  void onLevel() override { events.push_back("level " + std::to_string(notifier()->level())); }
  void onHits() override { events.push_back("hits " + std::to_string(notifier()->hits())); }
  void onTags(U32 const& k) override {
    events.push_back("tags " + std::to_string(k) + (notifier()->tags(k) ? " set" : " clear"));
  }
};

struct RootWatcher : Root::NotifieeConst {
  std::vector<std::string> events;
  void onEnabled() override {
    events.push_back(std::string("enabled ") + (notifier()->enabled() ? "1" : "0"));
  }
  void onLeaf(U32 const& k) override {
    events.push_back("leaf " + std::to_string(k) + (notifier()->leaf(k) ? " present" : " absent"));
  }
  void onLeaf() override { events.push_back("leaf collection"); }
  void onRanked(Pair const& k) override { events.push_back("ranked " + Mosk::valueToStrep(k)); }
  void onWeight(U32 const& k) override { events.push_back("weight " + std::to_string(k)); }
  void onPeer(U32 const& k) override {
    events.push_back("peer " + std::to_string(k) + (notifier()->peer(k) ? " present" : " absent"));
  }
  void onSlot(Ludd::MplsStackEntryIndex const& i) override {
    events.push_back("slot " + std::to_string(i.value()) + " = " +
                     std::to_string(notifier()->slot(i)));
  }
  void onInserted(U32 const& k) override { events.push_back("inserted " + std::to_string(k)); }
  void onFavourite() override { events.push_back("favourite"); }
  void onOwner() override { events.push_back("owner"); }
};

using Events = std::vector<std::string>;

class MoskEntity : public ::testing::Test {
 protected:
  Ptr<Root> root = rootFactory("root");
  Ptr<Leaf> leaf = leafFactory(5, Colour::red, Small(2));
};

TEST_F(MoskEntity, ScalarSetterNotifiesOnlyOnRealChangeAfterStoring) {
  LeafWatcher w;
  w.notifierIs(leaf);
  leaf->levelIs(0);  // the default: no change
  leaf->levelIs(3);
  leaf->levelIs(3);
  leaf->weightIs(Small(2));  // a mutable constructor parameter, unchanged
  leaf->weightIs(Small(4));
  leaf->hitsInc(0);
  leaf->hitsInc(2);
  EXPECT_EQ(w.events, (Events{"level 3", "weight 4", "hits 2"}));
}

TEST_F(MoskEntity, ValueCollectionNotifiesPerChangedKey) {
  LeafWatcher w;
  w.notifierIs(leaf);
  leaf->tagsIs(1, true);
  leaf->tagsIs(1, true);  // unchanged
  leaf->tagsIs(2, true);
  leaf->tagsDel(9);  // absent
  leaf->tagsNotify(2);
  leaf->tagsDelAll();
  EXPECT_EQ(leaf->tagsCount(), 0u);
  // Each deletion is announced after that key is gone; the order of a clearing is the map's.
  ASSERT_EQ(w.events.size(), 5u);
  std::sort(w.events.begin() + 3, w.events.end());
  EXPECT_EQ(w.events,
            (Events{"tags 1 set", "tags 2 set", "tags 2 set", "tags 1 clear", "tags 2 clear"}));
}

// A handler that writes another attribute notifies its own watchers before the first setter
// returns: notifications are synchronous and nested.
TEST_F(MoskEntity, NestedNotificationRunsInsideTheOuterSetter) {
  struct Chain : Leaf::NotifieeConst {
    std::vector<std::string>* log;
    Leaf* target;
    void onLevel() override {
      log->push_back("level");
      target->hitsInc(1);
      log->push_back("level done");
    }
    void onHits() override { log->push_back("hits"); }
  };
  std::vector<std::string> log;
  Chain c;
  c.log = &log;
  c.target = leaf.ptr();
  c.notifierIs(leaf);
  leaf->levelIs(1);
  log.push_back("returned");
  EXPECT_EQ(log, (Events{"level", "hits", "level done", "returned"}));
}

TEST_F(MoskEntity, InactiveNotifieeIgnoresCallbacksUntilReactivated) {
  LeafWatcher w;
  w.notifierIs(leaf);
  w.hasNotificationActiveIs(false);
  leaf->levelIs(1);
  w.hasNotificationActiveIs(true);
  leaf->levelIs(2);
  EXPECT_EQ(w.events, (Events{"level 2"}));
}

// Run with a second notifiee (the list of several) and with the detacher alone (the one kept
// inline, which turns into a list when it attaches another). Catches: a notifiee called by the
// dispatch it was detached in or attached in, and a lone notifiee's change of the list read
// after its callback.
TEST_F(MoskEntity, NotifieesMayDetachAndAttachDuringDispatch) {
  struct Detacher : Leaf::NotifieeConst {
    Leaf::NotifieeConst* victim = nullptr;
    LeafWatcher* late = nullptr;
    int calls = 0;
    void onLevel() override {
      ++calls;
      if (victim != nullptr) victim->notifierIs(nullptr);
      late->notifierIs(notifier());
      notifierIs(nullptr);
    }
  };
  for (bool alone : {false, true}) {
    SCOPED_TRACE(alone ? "one notifiee" : "two notifiees");
    Ptr<Leaf> watched = leafFactory(alone ? 6 : 7, Colour::red, Small(2));
    Detacher d;
    LeafWatcher victim, late;
    d.late = &late;
    d.notifierIs(watched);
    if (!alone) {
      d.victim = &victim;
      victim.notifierIs(watched);
    }
    watched->levelIs(1);
    EXPECT_EQ(d.calls, 1);
    EXPECT_TRUE(victim.events.empty()) << "a notifiee detached during dispatch was still called";
    EXPECT_TRUE(late.events.empty()) << "a notifiee attached during dispatch heard that dispatch";
    watched->levelIs(2);
    EXPECT_EQ(d.calls, 1);
    EXPECT_EQ(late.events, (Events{"level 2"}));
    EXPECT_EQ(watched->notifieeCount(), 1u);
    // Two again, then one of them leaves outside any dispatch: the other still hears.
    victim.notifierIs(watched);
    late.notifierIs(nullptr);
    watched->levelIs(3);
    EXPECT_EQ(victim.events, (Events{"level 3"}));
    EXPECT_EQ(watched->notifieeCount(), 1u);
    victim.notifierIs(nullptr);
    EXPECT_FALSE(watched->hasNotifiees());
  }
}

TEST_F(MoskEntity, NotifieeKeepsItsNotifierAlive) {
  LeafWatcher w;
  Leaf* raw = leaf.ptr();
  w.notifierIs(leaf);
  leaf = nullptr;
  EXPECT_EQ(w.notifier().ptr(), raw);
  EXPECT_EQ(raw->references(), 1u);  // the watcher's own reference
  w.notifierIs(nullptr);
}

TEST_F(MoskEntity, InstantiatingCollectionCreatesUpdatesAndRefusesFixedParameterChange) {
  RootWatcher w;
  w.notifierIs(root);
  Ptr<Leaf> a = root->leafIs(5, Colour::red, Small(2));
  Ptr<Leaf> again = root->leafIs(5, Colour::red, Small(3));  // mutable parameter updated
  EXPECT_EQ(a, again);
  EXPECT_EQ(a->weight(), Small(3));
  EXPECT_EQ(w.events, (Events{"leaf 5 present"}));
  EXPECT_THAT([&] { root->leafIs(5, Colour::green, Small(7)); },
              testing::ThrowsMessage<Mosk::NameInUseException>(testing::StrEq(
                  "Reinstantiating the entity with name 5 where constructor parameter attribute "
                  "_colour has a different value of green than the current value of red not "
                  "allowed")));
  EXPECT_EQ(a->weight(), Small(3)) << "a refused call must change nothing";
  EXPECT_EQ(a->fullName(), "root/5");
  root->leafDel(5);
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(w.events.back(), "leaf 5 absent");
  root->leafNotifyCollection();
  EXPECT_EQ(w.events.back(), "leaf collection");
}

TEST_F(MoskEntity, PlainCountedElementUsesThePointerInterfaceMessage) {
  Ptr<Leaf> other = leafFactory(6, Colour::red, Small(1));
  root->holderIs(1, leaf);
  EXPECT_THAT([&] { root->holderIs(1, other); },
              testing::ThrowsMessage<Mosk::NameInUseException>(testing::AllOf(
                  testing::StartsWith("Reinstantiating the pointer interface where constructor "
                                      "parameter attribute _target has a different value of "),
                  testing::EndsWith(" not allowed"))));
}

TEST_F(MoskEntity, PointerAttributesRefuseNullUnlessNullable) {
  RootWatcher w;
  w.notifierIs(root);
  EXPECT_THAT([&] { root->ownerIs(nullptr); },
              testing::ThrowsMessage<Mosk::RangeException>(testing::StrEq(
                  "null _owner parameter to mutator for MoskTest::Root::owner not allowed\"")));
  root->ownerIs(leaf);
  root->ownerIs(leaf);
  root->favouriteIs(leaf);
  root->favouriteIs(nullptr);
  EXPECT_EQ(w.events, (Events{"owner", "favourite", "favourite"}));
}

TEST_F(MoskEntity, InsertingCollectionTakesElementsAndReplacesByKey) {
  RootWatcher w;
  w.notifierIs(root);
  EXPECT_THROW(root->insertedIs(nullptr), Mosk::RangeException);
  Ptr<Inserted> first = insertedFactory(3);
  root->insertedIs(first);
  root->insertedIs(first);  // the same element: nothing
  Ptr<Inserted> second = insertedFactory(3);
  root->insertedIs(second);
  EXPECT_EQ(root->inserted(3), second);
  EXPECT_EQ(first->parent(), nullptr);
  EXPECT_EQ(w.events, (Events{"inserted 3", "inserted 3"}));
}

TEST_F(MoskEntity, PointerCollectionNullRemovesAndSameDoesNothing) {
  RootWatcher w;
  w.notifierIs(root);
  Ptr<Leaf> other = leafFactory(6, Colour::red, Small(1));
  root->peerIs(1, nullptr);  // absent and null: nothing
  root->peerIs(1, leaf);
  root->peerIs(1, leaf);
  root->peerIs(1, other);
  root->peerIs(1, nullptr);
  EXPECT_EQ(w.events, (Events{"peer 1 present", "peer 1 present", "peer 1 absent"}));
  EXPECT_THROW(root->newPeer(2, nullptr), Mosk::RangeException);
}

TEST_F(MoskEntity, ArrayAttributeRangeChecksItsIndex) {
  RootWatcher w;
  w.notifierIs(root);
  root->slotIs(Ludd::MplsStackEntryIndex(2), 5);
  root->slotIs(Ludd::MplsStackEntryIndex(2), 5);
  root->slotDel(Ludd::MplsStackEntryIndex(2));
  EXPECT_EQ(w.events, (Events{"slot 2 = 5", "slot 2 = 0"}));
  EXPECT_THAT([&] { root->slotIs(Ludd::MplsStackEntryIndex(6), 1); },
              testing::ThrowsMessage<Mosk::RangeException>(
                  testing::StrEq("MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                                 "MplsStackEntryIndex::max not allowed")));
}

TEST_F(MoskEntity, TreeCollectionIteratesByKeyOrder) {
  root->rankedIs(Pair(2, Small(1)));
  root->rankedIs(Pair(1, Small(9)));
  root->rankedIs(Pair(1, Small(3)));
  std::vector<std::string> order;
  for (auto it = root->rankedIterConst(); it; ++it)
    order.push_back(Mosk::valueToStrep(it.key()));
  EXPECT_EQ(order, (Events{"Value('MoskTest::Pair', ** {'a': 1, 'b': 3})",
                           "Value('MoskTest::Pair', ** {'a': 1, 'b': 9})",
                           "Value('MoskTest::Pair', ** {'a': 2, 'b': 1})"}));
  // Deleting every element while walking the collection.
  for (auto it = root->rankedIter(); it; ++it)
    root->rankedDel(it.key());
  EXPECT_EQ(root->rankedCount(), 0u);
}

TEST_F(MoskEntity, DestroyingTheOwnerDetachesSurvivingElements) {
  Ptr<Leaf> kept = root->leafIs(1, Colour::red, Small(1));
  EXPECT_EQ(kept->parent(), root.ptr());
  root = nullptr;
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_EQ(kept->fullName(), "1");
}

}  // namespace
