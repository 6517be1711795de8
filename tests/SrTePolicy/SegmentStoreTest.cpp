// The segment store: interned segments and segment lists, their identifiers, the notifying
// collections and the reverse maps.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <vector>

#include "SegmentStore.h"

using namespace SrTePolicy;
using Ludd::MplsLabel;
using Ludd::MplsStackEntryIndex;
using Mosk::Ptr;

namespace {

class SegmentStore : public ::testing::Test {
 protected:
  Ptr<SegmentMplsLabel> segment(U32 label) { return TestSupport::segment(*tables, label); }
  Ptr<SegmentList> list(std::vector<U32> const& labels) {
    return TestSupport::segmentList(*tables, labels);
  }
  NotifyingSegmentCollection const& segments() { return *tables->notifyingSegmentCollection(); }
  NotifyingSegmentListCollection const& lists() {
    return *tables->notifyingSegmentListCollection();
  }

  Ptr<CoreDedupTables> tables = TestSupport::initializedTables();
};

// Catches: equal labels not sharing one segment, an id handed out again, a segment delisted
// while a holder remains or kept after the last, a lookup that inserts.
TEST_F(SegmentStore, EqualLabelsShareOneSegmentUntilTheLastUserGoesAndIdsAreNeverReused) {
  Ptr<SegmentMplsLabel> a = segment(16001);
  Ptr<SegmentMplsLabel> keep = segment(16001);
  EXPECT_EQ(a, keep);
  EXPECT_EQ(a->segmentId(), SegmentId(1));
  EXPECT_EQ(segment(16002)->segmentId(), SegmentId(2));
  EXPECT_EQ(a->segmentLifeTimeNotifier()->segmentRawPtr(), a.ptr());
  EXPECT_EQ(tables->segDedupTablePtr()->lookupByLabel(MplsLabel(16001)), a);
  EXPECT_FALSE(tables->segDedupTablePtr()->lookupByLabel(MplsLabel(17000)));
  a = nullptr;
  EXPECT_EQ(segments().segmentNotifierCount(), 1u) << "removed while a holder remains";
  keep = nullptr;
  EXPECT_EQ(segments().segmentNotifierCount(), 0u);
  EXPECT_EQ(tables->segDedupTablePtr()->dedupTable()->size(), 0u);
  EXPECT_EQ(segment(16001)->segmentId(), SegmentId(3)) << "a re-created segment gets a fresh id";
}

// A lookup by label is answered from the lifetime notifiee's label index while the index mirrors
// the table. Catches: an index that keeps a segment after it left the table, misses one that
// entered, or answers for a table it no longer hears from (another notifiee registered, none,
// the table torn down); a reactor told, in the middle of a report, something the table does not
// hold; an index that never serves a lookup.
TEST_F(SegmentStore, LookupByLabelAgreesWithTheTableThroughEveryChange) {
  SegmentDedupTable const& store = *tables->segDedupTablePtr();
  Vell::DedupHashTable& table = *store.dedupTable();
  auto ours = Mosk::ptrCast<SegmentLifeTimeNotifiee const>(table.lifeTimeNotifiee());
  ASSERT_TRUE(ours);
  auto other = Ptr<SegmentLifeTimeNotifiee const>(
      new SegmentLifeTimeNotifiee(notifyingSegmentCollectionFactory("other")));
  auto agree = [&](std::string const& step) {
    for (U32 label = 0; label < 24; ++label) {
      SegmentMplsLabel probe(SegmentType::segMplsLabel, MplsLabel(label));
      Vell::DedupHandle const* fromIndex = store.lookupByLabel(MplsLabel(label)).ptr();
      EXPECT_EQ(fromIndex, table.lookup(probe).ptr()) << step << ", label " << label;
    }
  };
  struct Watcher : NotifyingSegmentCollection::NotifieeConst {
    std::function<void()> check;
    void onSegmentNotifier(Ptr<SegmentLifeTimeNotifier const> const&) override { check(); }
  };
  auto watcher = Ptr<Watcher>(new Watcher);
  watcher->check = [&] { agree("inside a report"); };
  watcher->notifierIs(tables->notifyingSegmentCollection());

  std::map<U32, Ptr<SegmentMplsLabel>> held;
  std::mt19937 rng(7);
  // Each phase registers a notifiee (or none), then inserts and releases segments at random.
  for (auto const& [phase, notifiee] :
       std::vector<std::pair<char const*, Ptr<SegmentLifeTimeNotifiee const>>>{
           {"registered", ours},
           {"another registered", other},
           {"registered again", ours},
           {"none registered", nullptr},
           {"registered once more", ours}}) {
    table.lifeTimeNotifieeIs(notifiee);
    for (int i = 0; i < 80; ++i) {
      U32 label = rng() % 24;
      if (held.erase(label) == 0) held[label] = segment(label);
      agree(phase);
    }
    EXPECT_EQ(ours->indexes(table), notifiee == ours) << phase;
  }
  ASSERT_FALSE(held.empty());
  watcher->notifierIs(nullptr);
  tables = nullptr;  // the table is torn down; its entries live on outside it
  EXPECT_EQ(ours->segmentByLabel(held.begin()->second->label()), nullptr);
}

TEST_F(SegmentStore, SegmentHashIsOneAtATimeOverTypeThenLabel) {
  // Jenkins one-at-a-time of the bytes 01 00 00 00 81 3e 00 00.
  EXPECT_EQ(segment(16001)->hash(), 0xac2fc779u);
}

// Catches: equal stacks not sharing one list, order ignored, a list's segments kept after the
// last list goes, a list id handed out again.
TEST_F(SegmentStore, EqualStacksShareOneListAndTheLastListReleasesItsSegments) {
  Ptr<SegmentList> a = list({16001, 16002});
  Ptr<SegmentList> reversed = list({16002, 16001});
  EXPECT_EQ(a, list({16001, 16002}));
  EXPECT_NE(a, reversed);
  EXPECT_EQ(a->segmentListId(), SegmentListId(1));
  EXPECT_EQ(reversed->segmentListId(), SegmentListId(2));
  EXPECT_EQ(a->segmentLabel(1), MplsLabel(16002));
  EXPECT_EQ(a->getSegmentId(0), SegmentId(1));
  EXPECT_EQ(segmentListFactory()->hash(), 0u);
  EXPECT_EQ(lists().segmentListNotifierCount(), 2u);
  a = reversed = nullptr;
  EXPECT_EQ(lists().segmentListNotifierCount(), 0u);
  EXPECT_EQ(segments().segmentNotifierCount(), 0u);
  EXPECT_EQ(list({16001, 16002})->segmentListId(), SegmentListId(3));
}

TEST_F(SegmentStore, AListHoldsSixSegmentsAtMost) {
  Ptr<SegmentList> six = list({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(six->size(), 6);
  Ptr<SegmentList> l = segmentListFactory();
  try {
    l->segmentIs(MplsStackEntryIndex(6), segment(7));
    FAIL() << "a seventh position must be refused";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(),
                 "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
                 "MplsStackEntryIndex::max not allowed");
  }
}

// Catches: a position deleted from a list under construction that keeps its segment in the
// store. The pipeline never deletes positions; a writer building a list by hand may.
TEST_F(SegmentStore, DeletedPositionsOfAListUnderConstructionReleaseTheirSegments) {
  Ptr<SegmentList> l = segmentListFactory();
  l->segmentIs(MplsStackEntryIndex(0), segment(16001));
  l->segmentIs(MplsStackEntryIndex(1), segment(16002));
  l->segmentDel(MplsStackEntryIndex(1));
  EXPECT_FALSE(l->segment(MplsStackEntryIndex(1)));
  EXPECT_FALSE(tables->segDedupTablePtr()->lookupByLabel(MplsLabel(16002)));
  EXPECT_TRUE(tables->segDedupTablePtr()->lookupByLabel(MplsLabel(16001)));
  l->segmentDelAll();
  EXPECT_FALSE(tables->segDedupTablePtr()->lookupByLabel(MplsLabel(16001)));
}

TEST_F(SegmentStore, DumpListsLiveElementsByIdentifier) {
  Ptr<SegmentList> a = list({16002, 16001});
  std::ostringstream os;
  dump(os, *tables);
  EXPECT_EQ(os.str(),
            "CoreDedupTables\n"
            "  SegmentDedupTable\n"
            "  NotifyingSegmentCollection\n"
            "    NotifyingSegmentCollection uniqueIds:2\n"
            "    1:16002    2:16001"
            "  SegmentListDedupTable\n"
            "  NotifyingSegmentListCollection\n"
            "    SegmentListId: 1 size: 2 \n");
}

TEST_F(SegmentStore, TearingDownTheTablesLeavesHeldListsConsistent) {
  Ptr<SegmentList> a = list({16001});
  Ptr<NotifyingSegmentCollection> segs = tables->notifyingSegmentCollection();
  tables = nullptr;
  EXPECT_EQ(segs->segmentNotifierCount(), 0u);
  EXPECT_EQ(a->segmentListLifeTimeNotifier(), nullptr);
  EXPECT_EQ(a->dedupTable(), nullptr);
}

TEST_F(SegmentStore, SegmentListUserRefusesAnotherListUnderItsId) {
  auto map = segmentListIdToPolicyMapFactory("map");
  Ptr<SegmentList> a = list({16001});
  Ptr<SegmentList> b = list({16002});
  auto user = map->segmentListUserIs(a->segmentListId(), a);
  EXPECT_EQ(map->segmentListUserIs(a->segmentListId(), a), user);
  try {
    map->segmentListUserIs(a->segmentListId(), b);
    FAIL() << "expected the name-in-use error";
  } catch (Mosk::NameInUseException const& e) {
    std::string head =
        "Reinstantiating the pointer interface where constructor parameter attribute "
        "_segmentList has a different value of";
    EXPECT_EQ(std::string(e.what()).substr(0, head.size()), head);
  }
}

TEST(SegmentStoreDeathTest, LabelOfANonLabelSegmentFailsItsAssertion) {
  auto tables = coreDedupTablesFactory();
  tables->handleInitialized();
  Ptr<SegmentList> l = segmentListFactory();
  l->segmentIs(MplsStackEntryIndex(0), segmentMplsLabelFactory(SegmentType::invalid, MplsLabel(1)));
  l->sizeIs(1);
  EXPECT_DEATH(l->segmentLabel(0), "segMplsLabel");
}

}  // namespace
