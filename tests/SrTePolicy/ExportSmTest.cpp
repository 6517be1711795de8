// SegmentListExportSm over a real segment store: lists built through the dedup tables, the
// exported collection inspected.
#include <gtest/gtest.h>

#include "SegmentStore.h"
#include "SrTePolicy/SrTePolicyExportSms.h"
#include "TraceLines.h"

using namespace SrTePolicy;
using Ludd::MplsLabel;
using Ludd::MplsStackEntryIndex;
using Mosk::Ptr;

namespace {

class ExportSm : public ::testing::Test {
 protected:
  void start() {
    sm = segmentListExportSmFactory(tables->notifyingSegmentListCollection(), exported);
  }
  Ptr<SegmentList> list(std::vector<U32> const& labels,
                        SegmentType type = SegmentType::segMplsLabel) {
    return TestSupport::segmentList(*tables, labels, type);
  }
  // Re-announces a list whose contents the test changed.
  void renotify(Ptr<SegmentList> const& l) {
    tables->notifyingSegmentListCollection()->segmentListNotifierNotify(
        Ptr<SegmentListLifeTimeNotifier const>(l->segmentListLifeTimeNotifier()));
  }
  U32 label(Ptr<SegmentList> const& l, U32 i) {
    return exported->segmentList(l->segmentListId())
        ->segment(MplsStackEntryIndex(i))
        ->label()
        .value();
  }

  Ptr<CoreDedupTables> tables = TestSupport::initializedTables();
  Ptr<Export::SegmentListCollection> exported = Export::segmentListCollectionFactory("export");
  TraceLines trace{"SrTePolicyExport", 1u << 9};
  Ptr<SegmentListExportSm> sm;
};

// Catches a start-up that keeps a previous run's entries or skips existing lists, a list not
// deleted with its store entry, and a teardown that leaves the export filled.
TEST_F(ExportSm, ExportsEveryListAndFollowsTheStore) {
  Ptr<SegmentList> a = list({16001, 16002, 16003});
  exported->segmentListIs(SegmentListId(99));
  start();
  EXPECT_FALSE(exported->segmentList(SegmentListId(99)));
  EXPECT_EQ(exported->segmentList(a->segmentListId())->size(), 3u);
  EXPECT_EQ(label(a, 0), 16001u);
  EXPECT_EQ(label(a, 2), 16003u);

  Ptr<SegmentList> empty = list({});
  EXPECT_EQ(exported->segmentList(empty->segmentListId())->segmentCount(), 0u);
  SegmentListId const id = a->segmentListId();
  a = nullptr;
  EXPECT_FALSE(exported->segmentList(id));
  EXPECT_EQ(trace.count("Deleting segmentList"), 1);
  sm = nullptr;
  EXPECT_EQ(exported->segmentListCount(), 0u);
}

// Catches stale positions deleted when a list shrinks, and a seventh position accepted.
TEST_F(ExportSm, SizeBoundsTheValidPositionsAndSixIsTheLimit) {
  start();
  Ptr<SegmentList> a = list({16001, 16002, 16003});
  a->sizeIs(2);
  renotify(a);
  auto out = exported->segmentList(a->segmentListId());
  EXPECT_EQ(out->size(), 2u);
  EXPECT_EQ(out->segmentCount(), 3u) << "the entry beyond the size must stay";

  Ptr<SegmentList> six = list({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(label(six, 5), 6u);
  six->sizeIs(7);
  EXPECT_THROW(renotify(six), Mosk::RangeException);
}

TEST_F(ExportSm, InvalidSegmentTypeStopsTheProcess) {
  start();
  EXPECT_DEATH(list({16001}, SegmentType::invalid), "Unsupported segment type");
}

}  // namespace
