// The selection input, endpoint-color policies and segment-list status as declared: which
// constructor arguments are fixed, which collections are ordered.
#include <gtest/gtest.h>

#include "SrTePolicy/SrTePolicyEntry.h"
#include "SrTePolicy/SrTePolicySegmentListStatus.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;

namespace {

PolicyKey keyOf(char const* ep, U32 color) {
  return PolicyKey(IpGenAddr::parse(ep), Color(color));
}

struct EntryWatcher : PolicyIdEntry::NotifieeConst {
  int preference = 0, routerId = 0, wSegmentList = 0;
  void onPreference() override { ++preference; }
  void onRouterId() override { ++routerId; }
  void onWSegmentList(SegmentListId const&) override { ++wSegmentList; }
};

struct InputWatcher : PolicySelectionInput::NotifieeConst {
  int entries = 0;
  void onPolicyIdEntry(U32 const&) override { ++entries; }
};

TEST(SelectionInput, PolicyIdEntryUpdatesPreferenceAndRouterIdButRefusesKeyOrSourceChange) {
  auto input = policySelectionInputFactory("input");
  InputWatcher iw;
  iw.notifierIs(input);
  auto key = keyOf("10.0.0.1", 5);
  auto e = input->policyIdEntryIs(7, key, Preference(100), PolicySource::sourceBgp,
                                  IpAddr::parse("1.1.1.1"));
  EntryWatcher w;
  w.notifierIs(e);
  e->wSegmentListIs(SegmentListId(3), Weight(2));
  input->policyIdEntryIs(7, key, Preference(100), PolicySource::sourceBgp,
                         IpAddr::parse("1.1.1.1"));
  input->policyIdEntryIs(7, key, Preference(200), PolicySource::sourceBgp,
                         IpAddr::parse("1.1.1.1"));
  e->wSegmentListIs(SegmentListId(3), Weight(2));
  EXPECT_EQ(iw.entries, 1);
  EXPECT_EQ(w.preference, 1);
  EXPECT_EQ(w.routerId, 0);
  EXPECT_EQ(w.wSegmentList, 1);
  EXPECT_EQ(e->wSegmentListCount(), 1u) << "an update must leave the segment lists alone";

  try {
    input->policyIdEntryIs(7, keyOf("10.0.0.2", 5), Preference(300), PolicySource::sourceBgp,
                           IpAddr::parse("1.1.1.1"));
    FAIL() << "an endpoint change under one id must be refused";
  } catch (Mosk::NameInUseException const& ex) {
    EXPECT_EQ(std::string(ex.what()),
              "Reinstantiating the entity with name 7 where constructor parameter attribute _key "
              "has a different value of Value('SrTePolicy::PolicyKey', ** {'endpoint': 10.0.0.2, "
              "'color': 5}) than the current value of Value('SrTePolicy::PolicyKey', ** "
              "{'endpoint': 10.0.0.1, 'color': 5}) not allowed");
  }
  EXPECT_EQ(e->preference(), Preference(200)) << "a refused call must change nothing";
  try {
    input->policyIdEntryIs(7, key, Preference(200), PolicySource::sourcePcep, IpAddr());
    FAIL() << "a source change under one id must be refused";
  } catch (Mosk::NameInUseException const& ex) {
    EXPECT_NE(std::string(ex.what()).find("attribute _source has a different value of sourcePcep "
                                          "than the current value of sourceBgp"),
              std::string::npos);
  }
  EXPECT_TRUE(e->bindingSid().isNone());
}

TEST(SelectionInput, KeyMapEntryStaysUntilTheWriterDeletesIt) {
  auto map = policyKeyToIdMapFactory("map");
  auto entry = map->mapEntryIs(keyOf("10.0.0.1", 1));
  entry->policyIdIs(PolicyId(1), true);
  entry->policyIdDel(PolicyId(1));
  EXPECT_EQ(map->mapEntryCount(), 1u);
  EXPECT_EQ(map->mapEntryIs(keyOf("10.0.0.1", 1)), entry);
}

TEST(EcPolicy, CandidatesRankBestFirstAndCandidateIsReturnsTheExistingEntry) {
  auto ec = ecPolicyFactory("ec");
  auto policy = ec->policyIs(keyOf("10.0.0.1", 1));
  EXPECT_EQ(ec->policyIs(keyOf("10.0.0.1", 1)), policy);
  Priority low(Preference(100), PolicySource::sourceStatic, IpAddr(), 1);
  Priority high(Preference(200), PolicySource::sourceOther, IpAddr::parse("9.9.9.9"), 9);
  auto lowEntry = policy->candidateIs(low);
  policy->candidateIs(high);
  EXPECT_EQ(policy->candidateIs(low), lowEntry);
  EXPECT_EQ(policy->candidateCount(), 2u);
  auto it = policy->candidateIterConst();
  EXPECT_EQ(it.key(), high) << "the higher preference must come first";
  ++it;
  EXPECT_EQ(it.key(), low);
  policy->activeIs(lowEntry);
  policy->activeIs(nullptr);
  EXPECT_FALSE(policy->active());
}

TEST(SegmentListStatus, TunnelIdIsFixedForTheLifeOfTheRecord) {
  using Tunnel::TunnelTable::TunnelId;
  auto status = segmentListStatusFactory("status");
  struct Watcher : SegmentListStatus::NotifieeConst {
    int calls = 0;
    void onStatus(SegmentListId const&) override { ++calls; }
  } w;
  w.notifierIs(status);
  auto r = status->statusIs(SegmentListId(4), TunnelId(17));
  EXPECT_EQ(status->statusIs(SegmentListId(4), TunnelId(17)), r);
  EXPECT_EQ(w.calls, 1);
  try {
    status->statusIs(SegmentListId(4), TunnelId(18));
    FAIL() << "a different tunnel id must be refused";
  } catch (Mosk::NameInUseException const& ex) {
    EXPECT_STREQ(ex.what(),
                 "Reinstantiating the entity with name 4 where constructor parameter attribute "
                 "_tunnelId has a different value of 18 than the current value of 17 not allowed");
  }
  status->statusDel(SegmentListId(9));
  EXPECT_EQ(w.calls, 1);
  EXPECT_EQ(status->statusCount(), 1u);
}

}  // namespace
