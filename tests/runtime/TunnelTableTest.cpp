// The SR-TE segment-list tunnel table and its index allocator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Mosk/Replication.h"
#include "MplsHelper/IndexAllocators.h"
#include "Tunnel/TunnelTable.h"

using namespace Tunnel::TunnelTable;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabelOperation;

namespace {

MplsVia via(char const* hop, U32 label) {
  return MplsVia(IpGenAddr::parse(hop), IntfId(IntfId::Kind::ethernet, 1),
                 MplsLabelOperation{label});
}

struct Watcher : SrTeSegmentListTunnelTable::NotifieeConst {
  std::vector<TunnelId> keys;
  void onEntry(TunnelId const& id) override { keys.push_back(id); }
};

// Faults: a write that merges the vias of the earlier entry instead of replacing it; a
// notification for a write that changed nothing; duplicate vias kept.
TEST(TunnelTable, EntryWritesReplaceWholeEntries) {
  auto table = srTeSegmentListTunnelTableFactory("tunnels");
  Watcher w;
  w.notifierIs(table);
  TunnelId id = TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, 1);
  SrTeSegmentListTunnelTableEntry first(id);
  first.newVia(via("10.0.0.1", 100));
  first.newVia(via("10.0.0.2", 200));
  first.newVia(via("10.0.0.1", 100));
  EXPECT_EQ(first.viaCount(), 2u);
  table->entryIs(first);
  table->entryIs(first);

  SrTeSegmentListTunnelTableEntry second(id);
  second.newVia(via("10.0.0.3", 300));
  table->entryIs(second);
  auto stored = table->entry(id);
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, second);
  EXPECT_EQ(stored->viaCount(), 1u);
  EXPECT_FALSE(stored->hasVia(via("10.0.0.1", 100)));

  // An entry handed over whole behaves as a copied one: no notification when it is equal.
  table->entryIs(SrTeSegmentListTunnelTableEntry(second));
  EXPECT_EQ(*table->entry(id), second);

  table->entryDel(id);
  EXPECT_EQ(w.keys, (std::vector<TunnelId>{id, id, id}));
  EXPECT_THROW(table->entryIs(SrTeSegmentListTunnelTableEntry()), Mosk::RangeException);
  SrTeSegmentListTunnelTableEntry noId;
  EXPECT_THROW(table->entryIs(std::move(noId)), Mosk::RangeException);
  EXPECT_FALSE(table->entry(TunnelId()));
  EXPECT_EQ(Mosk::parse<SrTeSegmentListTunnelTableEntry>(Mosk::valueToStrep(first)), first);
}

// Faults: the moving write skipping the read-only check of a mounted copy, or its change not
// reaching the attribute log.
TEST(TunnelTable, MovedWritesReplicateAndAMountedCopyRefusesThem) {
  auto source = srTeSegmentListTunnelTableFactory("tunnels");
  auto adapter = Mosk::logAdapterFactory(Mosk::constPtr(source));
  auto copy = srTeSegmentListTunnelTableFactory("tunnels");
  auto mount = Mosk::logMountFactory(copy, "peer");
  adapter->activate();
  mount->apply(adapter->snapshot());
  TunnelId id = TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, 3);
  SrTeSegmentListTunnelTableEntry entry(id);
  entry.newVia(via("10.0.0.1", 100));
  source->entryIs(SrTeSegmentListTunnelTableEntry(entry));
  mount->apply(adapter->flush());
  ASSERT_TRUE(copy->entry(id));
  EXPECT_EQ(*copy->entry(id), entry);
  EXPECT_THROW(copy->entryIs(SrTeSegmentListTunnelTableEntry(entry)), Mosk::InternalException);
  EXPECT_THROW(copy->entryIs(entry), Mosk::InternalException);
}

// Faults: an index handed out twice; the hook unable to reach the end of the 48-bit tunnel id
// range, whose range error the segment-list machine must raise.
TEST(SrTunnelIdxAllocator, FreshIndexesUpToTheTunnelIdRange) {
  auto alloc = MplsHelper::srTunnelIdxAllocatorFactory();
  EXPECT_EQ(alloc->getIdx(), 1u);
  EXPECT_EQ(alloc->getIdx(), 2u);
  U64 last = TunnelId::maxValue - (U64{8} << TunnelId::typeShift);
  alloc->nextIdxIs(last);
  EXPECT_NO_THROW(TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, alloc->getIdx()));
  EXPECT_THAT([&] { TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, alloc->getIdx()); },
              testing::ThrowsMessage<Mosk::RangeException>(testing::StrEq(
                  "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed")));
  EXPECT_THROW(alloc->nextIdxIs(0), Mosk::RangeException);
}

// Fault: the counter wrapping round to indexes already handed out.
TEST(SrTunnelIdxAllocatorDeathTest, ExhaustionStopsTheProcess) {
  auto alloc = MplsHelper::srTunnelIdxAllocatorFactory();
  alloc->nextIdxIs(~U64{0});
  alloc->getIdx();
  EXPECT_DEATH(alloc->getIdx(), "tunnel index space exhausted");
}

}  // namespace
