// Attribute-log replication and reflection on the test model's Tree: what a delta carries, the
// read-only copy, all-or-nothing applying, and a randomized source-versus-copy comparison.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "Mosk/Reflection.h"
#include "TestModel.h"

using namespace MoskTest;

namespace {

// Every attribute of an entity as text, by its reflection record, with the elements of Tree's
// entity collections and its bag below it.
std::string dump(Mosk::Entity const& e, char const* type) {
  Mosk::TypeRecord const* rec = Mosk::typeRecord(type);
  EXPECT_NE(rec, nullptr) << type;
  std::string out;
  for (auto const& a : rec->attributes()) {
    if (a.kind == Mosk::AttributeKind::reference) continue;  // addresses differ between copies
    out += std::string(a.name) + "=" + rec->attributeText(&e, a.id) + "\n";
  }
  return out;
}

std::string dumpTree(Tree const& t) {
  std::string out = dump(t, "MoskTest::Tree");
  for (auto c = t.leafIterConst(); c; ++c)
    out += "leaf " + dump(*c, "MoskTest::Leaf");
  for (auto c = t.rankedIterConst(); c; ++c)
    out += "ranked " + dump(*c, "MoskTest::Ranked");
  out += "best=" + (t.best() ? Mosk::valueToStrep(t.best()->rank()) : std::string("none")) + "\n";
  if (t.bag()) out += "bag " + dump(*t.bag(), "MoskTest::Bag");
  return out;
}

struct Replica {
  Mosk::Ptr<Tree> source = treeFactory("tree");
  Mosk::Ptr<Mosk::LogAdapter> adapter = Mosk::logAdapterFactory(Mosk::constPtr(source));
  Mosk::Ptr<Tree> copy = treeFactory("tree");
  Mosk::Ptr<Mosk::LogMount> mount = Mosk::logMountFactory(copy, "agent-a");

  Replica() { adapter->activate(); }
  void sync() { mount->apply(adapter->snapshot()); }
  void flush() {
    auto log = adapter->flush();
    if (!log.empty()) mount->apply(log);
  }
};

void fill(Tree& t) {
  t.enabledIs(true);
  for (U32 i = 1; i <= 5; ++i) {
    auto leaf = t.leafIs(i, Colour::green, Small(i));
    leaf->levelIs(i * 10);
    leaf->tagsIs(i, true);
  }
  t.rankedIs(Pair(1, Small(2)))->noteIs(3);
  t.bestIs(t.rankedIs(Pair(2, Small(1))));
  t.pairIs(Pair(7, Small(3)));
  t.slotIs(Ludd::MplsStackEntryIndex(2), 42);
}

TEST(MoskReplication, DeltaCarriesOnlyChangedKeys) {
  // Catches: a delta that resends unchanged keys (they would overwrite the second copy, which
  // was synced from another source that differs in exactly those keys) or misses a changed one.
  Replica a;
  fill(*a.source);
  a.sync();
  a.flush();  // delta 1 repeats what the snapshot holds
  auto other = treeFactory("tree");
  auto otherAdapter = Mosk::logAdapterFactory(Mosk::constPtr(other));
  otherAdapter->activate();
  fill(*other);
  other->leaf(1)->levelIs(7777);
  other->pairIs(Pair(7, Small(9)));
  otherAdapter->flush();  // its snapshot then stands where delta 2 follows
  auto copy2 = treeFactory("tree");
  auto mount2 = Mosk::logMountFactory(copy2, "agent-b");
  mount2->apply(otherAdapter->snapshot());

  a.source->leaf(2)->levelIs(1);
  a.source->leaf(2)->levelIs(2);  // changed twice: sent once, with its last value
  a.source->leaf(5)->tagsIs(9, true);
  auto log = a.adapter->flush();
  a.mount->apply(log);
  mount2->apply(log);
  EXPECT_EQ(copy2->leaf(1)->level(), 7777u) << "an unchanged element was sent";
  EXPECT_EQ(copy2->pair(7)->b(), Small(9)) << "an unchanged key was sent";
  EXPECT_EQ(copy2->leaf(2)->level(), 2u);
  EXPECT_TRUE(copy2->leaf(5)->tags(9));
  EXPECT_EQ(dumpTree(*a.copy), dumpTree(*a.source));
}

TEST(MoskReplication, MountedCopyRefusesEveryMutator) {
  // Catches: a mutator of the copy or of one of its elements that writes anyway.
  Replica r;
  fill(*r.source);
  r.sync();
  std::string const before = dumpTree(*r.copy);
  auto expectRefused = [](auto&& write, std::string const& fullName) {
    EXPECT_THAT(write, testing::ThrowsMessage<Mosk::InternalException>(
                           "write-update from readonly proxy: " + fullName + " peerName: agent-a"));
  };
  expectRefused([&] { r.copy->enabledIs(false); }, "tree");
  expectRefused([&] { r.copy->totalInc(1); }, "tree");
  expectRefused([&] { r.copy->leafIs(9, Colour::red, Small(1)); }, "tree");
  expectRefused([&] { r.copy->leafDel(1); }, "tree");
  expectRefused([&] { r.copy->leafDelAll(); }, "tree");
  expectRefused([&] { r.copy->pairIs(Pair(1, Small(1))); }, "tree");
  expectRefused([&] { r.copy->slotIs(Ludd::MplsStackEntryIndex(0), 1); }, "tree");
  expectRefused([&] { r.copy->bestIs(nullptr); }, "tree");
  expectRefused([&] { r.copy->leaf(2)->levelIs(0); }, "tree/2");
  expectRefused([&] { r.copy->leaf(2)->weightIs(Small(9)); }, "tree/2");
  expectRefused([&] { r.copy->leaf(2)->tagsDel(2); }, "tree/2");
  EXPECT_EQ(dumpTree(*r.copy), before);
  r.source->enabledIs(false);
  r.flush();  // the log still writes
  EXPECT_FALSE(r.copy->enabled());
}

TEST(MoskReplication, ActivatingTwiceRaises) {
  // Catches: a second activation that doubles the watching nodes.
  Replica r;
  EXPECT_THAT([&] { r.adapter->activate(); },
              testing::ThrowsMessage<Mosk::InternalException>(
                  testing::StrEq("entity reactor is already active")));
}

TEST(MoskReplication, TruncatedOrCutLogsAreRefusedAndLeaveTheCopyAlone) {
  // Catches: a log cut at any byte that is applied in part.
  Replica r;
  fill(*r.source);
  r.sync();
  r.source->leaf(1)->levelIs(5);
  r.source->leafDel(2);
  r.source->rankedIs(Pair(9, Small(9)));
  r.source->bestIs(r.source->ranked(Pair(9, Small(9))));
  std::vector<U8> const log = r.adapter->flush();
  std::string const before = dumpTree(*r.copy);
  for (std::size_t n = 0; n < log.size(); ++n) {
    std::vector<U8> cut(log.begin(), log.begin() + static_cast<long>(n));
    EXPECT_THROW(r.mount->apply(cut), Mosk::LogFormatException) << n;
    if (n > Mosk::LogHeader::size) {
      // The same cut with a header that announces it: the records themselves run short.
      std::size_t body = n - Mosk::LogHeader::size;
      cut[12] = static_cast<U8>(body >> 24);
      cut[13] = static_cast<U8>(body >> 16);
      cut[14] = static_cast<U8>(body >> 8);
      cut[15] = static_cast<U8>(body);
      EXPECT_THROW(r.mount->apply(cut), Mosk::Exception) << n;
    }
    ASSERT_EQ(dumpTree(*r.copy), before) << "half-applied at " << n;
  }
  r.mount->apply(log);
  EXPECT_EQ(dumpTree(*r.copy), dumpTree(*r.source));
}

TEST(MoskReplication, MisdirectedAndOutOfOrderLogsAreRefused) {
  // Catches: a delta applied without a snapshot, skipped, repeated or meant for another type.
  Replica r;
  r.source->enabledIs(true);
  auto first = r.adapter->flush();
  EXPECT_THROW(r.mount->apply(first), Mosk::LogFormatException);  // no snapshot yet
  r.sync();
  r.source->enabledIs(false);
  auto second = r.adapter->flush();
  r.source->enabledIs(true);
  auto third = r.adapter->flush();
  EXPECT_THROW(r.mount->apply(third), Mosk::LogFormatException);
  r.mount->apply(second);
  EXPECT_THROW(r.mount->apply(second), Mosk::LogFormatException);
  auto bagMount = Mosk::logMountFactory(bagFactory(), "x");
  EXPECT_THROW(bagMount->apply(third), Mosk::LogFormatException);
  std::vector<U8> junk = third;
  junk[0] ^= 0xff;
  EXPECT_THROW(r.mount->apply(junk), Mosk::LogFormatException);
}

TEST(MoskReplication, BadValueInALogRaisesItsRangeError) {
  // Catches: a range check skipped on reading a log.
  Replica r;
  r.sync();
  r.source->leafIs(1, Colour::red, Small(7));
  auto log = r.adapter->flush();
  // The weight 7 is the only byte 7 after the header.
  auto it = std::find(log.begin() + Mosk::LogHeader::size, log.end(), U8{7});
  ASSERT_NE(it, log.end());
  *it = 11;
  EXPECT_THROW(r.mount->apply(log), Mosk::RangeException);
  EXPECT_EQ(r.copy->leafCount(), 0u);
  EXPECT_THROW(Mosk::logParse<Small>(Mosk::logBytes(U32{0})), Mosk::RangeException);
  EXPECT_THROW(Mosk::logParse<Colour>(Mosk::logBytes(U32{2})), Mosk::RangeException);
  EXPECT_THROW(Mosk::logParse<bool>({2}), Mosk::LogFormatException);
}

TEST(MoskReplication, CopyHearsOnlyChangesAndOnlyOnceTheLogIsStored) {
  // Catches: notifications fired mid-apply (a reactor would see half a log) or for no change.
  struct Watcher : Tree::NotifieeConst {
    Tree const* tree = nullptr;
    std::vector<std::string> heard;
    void onLeaf(U32 const& id) override {
      heard.push_back("leaf " + std::to_string(id) + " best " +
                      (tree->best() ? Mosk::valueToStrep(tree->best()->rank()) : "none"));
    }
    void onEnabled() override { heard.push_back("enabled"); }
  };
  Replica r;
  fill(*r.source);
  r.sync();
  auto w = Mosk::Ptr<Watcher>(new Watcher);
  w->tree = r.copy.ptr();
  w->notifierIs(r.copy);
  r.source->leafIs(6, Colour::red, Small(1));
  r.source->bestIs(r.source->rankedIs(Pair(3, Small(3))));
  r.source->enabledIs(false);
  r.source->enabledIs(true);  // back to the copy's value
  r.flush();
  ASSERT_EQ(w->heard.size(), 1u);
  EXPECT_EQ(w->heard[0], "leaf 6 best " + Mosk::valueToStrep(Pair(3, Small(3))));
  w->notifierIs(nullptr);
}

TEST(MoskReplication, RandomMutationsAndFlushesKeepTheCopyEqual) {
  // Catches: any mark lost or misapplied across a long mixed history: an attribute kind that
  // the snapshot or the delta leaves out, a transient key (added and removed between flushes)
  // that reaches the copy or whose removal the copy refuses, a re-created element (another
  // fixed argument) sent as a delta onto the old one, a flush that sends what did not change.
  std::mt19937 rng(20240611);
  Replica r;
  r.sync();
  auto pick = [&](U32 n) { return static_cast<U32>(rng() % n); };
  for (int step = 0; step < 3000; ++step) {
    Tree& t = *r.source;
    U32 k = pick(12) + 1;
    switch (pick(14)) {
      case 0:
        t.enabledIs(pick(2) == 1);
        break;
      case 1: {
        Colour colour = pick(2) ? Colour::red : Colour::green;
        if (auto l = t.leaf(k); l && l->colour() != colour) t.leafDel(k);  // a re-creation
        t.leafIs(k, colour, Small(pick(10) + 1));
        break;
      }
      case 2:
        t.leafDel(k);
        break;
      case 3:
        if (auto l = t.leaf(k)) l->levelIs(pick(4));
        break;
      case 4:
        if (auto l = t.leaf(k)) pick(2) ? l->tagsIs(pick(5), true) : l->tagsDel(pick(5));
        break;
      case 5:
        t.rankedIs(Pair(k, Small(pick(3) + 1)))->noteIs(pick(3));
        break;
      case 6:
        t.rankedDel(Pair(k, Small(pick(3) + 1)));
        break;
      case 7:
        t.bestIs(pick(3) ? t.ranked(Pair(k, Small(pick(3) + 1))) : nullptr);
        break;
      case 8:
        pick(2) ? t.pairIs(Pair(k, Small(pick(10) + 1))) : t.pairDel(k);
        break;
      case 9:
        t.slotIs(Ludd::MplsStackEntryIndex(pick(6)), pick(3));
        break;
      case 10: {
        auto bag = bagFactory();
        for (U32 i = pick(3); i > 0; --i)
          bag->itemIs(pick(5), Small(pick(10) + 1));
        t.bagIs(pick(4) ? bag : nullptr);
        break;
      }
      case 11:
        t.totalInc(pick(3));
        break;
      case 12:
        if (auto l = t.leaf(k)) l->hitsInc(pick(3));
        break;
      default:
        if (auto l = t.leaf(k)) l->weightIs(Small(pick(10) + 1));
    }
    // A best that left the tree is not a candidate any more: the writer keeps it in the tree.
    if (t.best() && !t.ranked(t.best()->rank())) t.bestIs(nullptr);
    if (pick(10) == 0) {
      r.flush();
      ASSERT_EQ(dumpTree(*r.copy), dumpTree(*r.source)) << "after step " << step;
    }
  }
  r.flush();
  EXPECT_EQ(dumpTree(*r.copy), dumpTree(*r.source));
  EXPECT_TRUE(r.adapter->flush().empty()) << "nothing changed since the last flush";
  // A second reader that connects late starts from a snapshot.
  auto late = treeFactory("tree");
  auto mount = Mosk::logMountFactory(late, "late");
  mount->apply(r.adapter->snapshot());
  EXPECT_EQ(dumpTree(*late), dumpTree(*r.source));
}

struct Machine : Mosk::PtrInterface {
  int initialized = 0;
  void handleInitialized() { ++initialized; }
};
Mosk::MachineRecord<Machine> const machineRecord("MoskTest::Machine",
                                                 {{"handleInitialized",
                                                   &Machine::handleInitialized}});

TEST(MoskReflection, RecordsReadWriteAndConstructByName) {
  // Catches: a record missing from the registry, an id that reaches the wrong attribute, a
  // construction path that drops its range check.
  Mosk::TypeRecord const* tree = Mosk::typeRecord("MoskTest::Tree");
  ASSERT_NE(tree, nullptr);
  EXPECT_NE(tree->replicaOps(), nullptr);
  auto t = Mosk::ptrCast<Tree>(tree->construct({"t"}));
  U32 enabled = tree->attribute("enabled").id;
  tree->attributeTextIs(t.ptr(), enabled, "True");
  EXPECT_TRUE(t->enabled());
  tree->attributeValueIs(t.ptr(), enabled, std::any(false));
  EXPECT_EQ(tree->attributeText(t.ptr(), enabled), "False");
  EXPECT_THROW(tree->attributeValueIs(t.ptr(), enabled, std::any(1)), Mosk::RangeException);
  t->pairIs(Pair(4, Small(5)));
  EXPECT_EQ(tree->attributeText(t.ptr(), tree->attribute("pair").id),
            "{4: " + Mosk::valueToStrep(Pair(4, Small(5))) + "}");

  Mosk::TypeRecord const* leaf = Mosk::typeRecord("MoskTest::Leaf");
  auto l = Mosk::ptrCast<Leaf>(leaf->construct({"3", "green", "4"}));
  EXPECT_EQ(l->weight(), Small(4));
  EXPECT_THROW(leaf->construct({"3", "green", "11"}), Mosk::RangeException);
  EXPECT_THROW(leaf->attributeTextIs(l.ptr(), leaf->attribute("colour").id, "red"),
               Mosk::RangeException);  // a fixed parameter

  Mosk::TypeRecord const* small = Mosk::typeRecord("MoskTest::Small");
  EXPECT_EQ(std::any_cast<Small>(small->fromRaw(10)), Small(10));
  EXPECT_THROW(small->fromRaw(11), Mosk::RangeException);
  EXPECT_EQ(small->text(small->fromText("3")), "3");
  Mosk::TypeRecord const* pair = Mosk::typeRecord("MoskTest::Pair");
  std::any p = pair->constructValue({"1", "2"});
  pair->attributeTextIs(std::any_cast<Pair>(&p), 0, "9");
  EXPECT_EQ(std::any_cast<Pair>(p), Pair(9, Small(2)));
  EXPECT_EQ(std::any_cast<Pair>(pair->fromLog(Mosk::logBytes(Pair(9, Small(2))))),
            Pair(9, Small(2)));
  EXPECT_EQ(std::any_cast<Colour>(Mosk::typeRecord("MoskTest::Colour")->fromRaw(1)), Colour::green);

  Machine m;
  Mosk::typeRecord("MoskTest::Machine")->callHandler(m, "handleInitialized");
  EXPECT_EQ(m.initialized, 1);
  EXPECT_THROW(Mosk::typeRecord("MoskTest::Machine")->callHandler(m, "handleNothing"),
               Mosk::RangeException);
  EXPECT_EQ(Mosk::typeRecord("MoskTest::Nothing"), nullptr);
}

}  // namespace
