// FEC ids, FECs and the forwarding status tables that the publisher writes in place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Skerry/ForwardingStatus.h"

using Fib::FecId;
using Fib::ViaIndex;
using Ludd::IpGenAddr;
using Tunnel::TunnelTable::TunnelId;

namespace {

Fib::Via tunnelVia(U64 tunnel) {
  return Fib::Via(Ludd::IntfId(), IpGenAddr(), Ludd::MplsLabel(), Ludd::MplsLabelAction::actionNone,
                  true, TunnelId(tunnel));
}

// Faults: the type and the index of a FEC id mixed up or overlapping; an index past the
// platform's capacity accepted.
TEST(FecId, TypeInTheTopBitsIndexBelow) {
  FecId id = FecId::fecIdForAdjType(15, 7);
  EXPECT_EQ(id.value(), 0xf000000000000007u);
  EXPECT_EQ(Mosk::valueToStrep(id), "0xf000000000000007");
  EXPECT_EQ(Mosk::parse<FecId>("0xf000000000000007"), id);
  EXPECT_TRUE(FecId().isNone());
  EXPECT_THROW(FecId::fecIdForAdjType(16, 1), Mosk::RangeException);
  U64 capacity = Fib::adjIndexMax();
  EXPECT_EQ(capacity, (U64{1} << 20) - 1);
  Fib::adjIndexMaxIs(100);
  EXPECT_NO_THROW(FecId::fecIdForAdjType(15, 100));
  EXPECT_THROW(FecId::fecIdForAdjType(15, 101), Mosk::RangeException);
  Fib::adjIndexMaxIs(capacity);
}

// Faults: a 513th via accepted; equality or the count looking at slots beyond the count.
TEST(Fec, AtMost512ViasAndOnlyCountedOnesMatter) {
  Fib::Fec fec(FecId::fecIdForAdjType(15, 1));
  EXPECT_THROW(ViaIndex(513), Mosk::RangeException);
  EXPECT_THROW(ViaIndex(0), Mosk::RangeException);
  EXPECT_THAT([&] { fec.viaCountIs(513); },
              testing::ThrowsMessage<Mosk::RangeException>(testing::StrEq(
                  "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed")));
  fec.viaIs(ViaIndex(512), tunnelVia(512));
  fec.viaCountIs(512);
  EXPECT_EQ(fec.via(ViaIndex(512)), tunnelVia(512));
  EXPECT_EQ(fec.via(ViaIndex(1)), Fib::Via());

  Fib::Fec a(FecId(1)), b(FecId(1));
  a.viaIs(ViaIndex(1), tunnelVia(1));
  a.viaIs(ViaIndex(2), tunnelVia(2));
  a.viaCountIs(1);
  b.viaIs(ViaIndex(1), tunnelVia(1));
  EXPECT_FALSE(a == b);  // b has count 0
  b.viaCountIs(1);
  EXPECT_EQ(a, b);  // slot 2 of a is beyond its count
  EXPECT_EQ(Mosk::parse<Fib::Fec>(Mosk::valueToStrep(a)), a);
}

struct FecWatcher : Skerry::Fib::ForwardingStatus::NotifieeConst {
  std::vector<FecId> fecs;
  void onFec(FecId const& id) override { fecs.push_back(id); }
};

// Faults: a rewrite of an existing FEC that keeps the vias of the previous write beyond the
// new count; readers told before the commit; an absent FEC not reading as the empty FEC.
TEST(ForwardingStatus, WriteInPlaceFromAClearedSlotThenCommit) {
  auto status = Skerry::Fib::forwardingStatusFactory("fwd");
  FecWatcher w;
  w.notifierIs(status);
  FecId id = FecId::fecIdForAdjType(15, 3);
  EXPECT_EQ(status->fec(id), Fib::Fec());

  Fib::Fec& fec = status->fecForWrite(id);
  for (U32 i = 1; i <= 3; ++i) {
    fec.viaIs(ViaIndex(i), tunnelVia(i));
    fec.viaCountIs(i);
  }
  EXPECT_TRUE(w.fecs.empty());
  status->fecCommit(fec);
  EXPECT_EQ(w.fecs, std::vector<FecId>{id});
  EXPECT_EQ(status->fec(id).viaCount(), 3u);

  Fib::Fec& again = status->fecForWrite(id);
  EXPECT_EQ(again.viaCount(), 0u);
  again.viaIs(ViaIndex(1), tunnelVia(9));
  again.viaCountIs(1);
  status->fecCommit(again);
  Fib::Fec const& published = status->fec(id);
  ASSERT_EQ(published.viaCount(), 1u);
  EXPECT_EQ(std::vector<Fib::Via>(published.begin(), published.end()),
            std::vector<Fib::Via>{tunnelVia(9)});
  EXPECT_EQ(published.via(ViaIndex(2)), Fib::Via());  // nothing stale behind the count

  status->fecDel(id);
  EXPECT_EQ(status->fec(id), Fib::Fec());
  EXPECT_EQ(w.fecs, (std::vector<FecId>{id, id, id}));
}

// Faults: an IPv6 next hop published in the IPv4 table; the empty id written; a FEC built
// elsewhere not stored by its commit.
TEST(ForwardingStatus, CommitChecksTheFamilyAndStoresCopies) {
  auto v4 = Skerry::Fib::forwardingStatusFactory("fwd");
  auto v6 = Skerry::Fib6::forwardingStatusFactory("fwd6");
  Fib::Fec fec(FecId::fecIdForAdjType(1, 2));
  fec.viaIs(ViaIndex(1),
            Fib::Via(Ludd::IntfId(Ludd::IntfId::Kind::ethernet, 1), IpGenAddr::parse("2001:db8::1"),
                     Ludd::MplsLabel(), Ludd::MplsLabelAction::actionNone, false, TunnelId()));
  fec.viaCountIs(1);
  EXPECT_THROW(v4->fecCommit(fec), Mosk::RangeException);
  EXPECT_EQ(v4->fecCount(), 0u);
  v6->fecCommit(fec);
  EXPECT_EQ(v6->fec(fec.fecId()), fec);
  EXPECT_THROW(v4->fecForWrite(FecId()), Mosk::RangeException);
  v6->fecDelAll();
  EXPECT_EQ(v6->fecCount(), 0u);
}

}  // namespace
