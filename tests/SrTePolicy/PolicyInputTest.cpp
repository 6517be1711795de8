// The policy input tables: the 684-byte input record, one source's table (PolicyInput) and the
// tables of all sources (PolicyInputSource).
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "InputRecord.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;

namespace {

char const* const kIndexError =
    "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed";

PolicyId const kId = PolicyId::make(PolicySource::sourceBgp, 7);

PolicyInputEntry entry(U32 lists, PolicyId id = kId) {
  auto e = TestSupport::InputRecord(id).to("1.2.3.4", 5).pref(200).router(IpAddr::parse("9.9.9.9"));
  e.bsid(900);
  for (U32 i = 0; i < lists; ++i)
    e.list({16000 + i, 17000}, i + 1);
  return e;
}

using Bytes = std::array<U8, 700>;
U32 wordAt(Bytes const& bytes, U32 offset) {
  U32 w;
  std::memcpy(&w, bytes.data() + offset, 4);
  return w;
}
void putWord(Bytes& bytes, U32 offset, U32 w) {
  std::memcpy(bytes.data() + offset, &w, 4);
}

// Faults: a field that moved in the record; a serialisation that writes the unused slots or a
// length that counts them.
TEST(PolicyInputEntry, SerialisesHeaderThenUsedElementsOnly) {
  Bytes bytes;
  bytes.fill(0xab);
  PolicyInputEntry e = entry(2);
  EXPECT_EQ(e.serialize(bytes.data()), 684u - 14 * 40);
  EXPECT_EQ(wordAt(bytes, 0), kId.value());
  EXPECT_EQ(wordAt(bytes, 24), 5u);
  EXPECT_EQ(wordAt(bytes, 28), 200u);
  EXPECT_EQ(wordAt(bytes, 36), 900u);
  EXPECT_EQ(wordAt(bytes, 40), 2u);  // the count
  EXPECT_EQ(wordAt(bytes, 44), 1u);  // first weight
  EXPECT_EQ(wordAt(bytes, 84), 2u);  // second weight
  EXPECT_EQ(bytes[124], 0xab);       // nothing past the used elements
  EXPECT_EQ(PolicyInputEntry::deserializedLength(bytes.data()), 124u);
  EXPECT_EQ(PolicyInputEntry::deserialize(bytes.data(), 124), e);
  EXPECT_EQ(entry(0).serializedLength(), 44u);
  EXPECT_EQ(entry(16).serializedLength(), 684u);
  EXPECT_THROW(PolicyInputEntry::deserialize(bytes.data(), 100), Mosk::ParseException);
}

// Faults: a stored count of 17 read (past the array), or given a non-zero length.
TEST(PolicyInputEntry, CountAbove16IsNeverRead) {
  Bytes bytes{};
  entry(16).serialize(bytes.data());
  putWord(bytes, 40, 17);
  EXPECT_EQ(PolicyInputEntry::deserializedLength(bytes.data()), 0u);
  try {
    PolicyInputEntry::deserialize(bytes.data(), 684);
    FAIL() << "a count of 17 was read";
  } catch (Mosk::RangeException const& e) {
    EXPECT_STREQ(e.what(), kIndexError);
  }
  // The same record copied into a table is refused when a reader copies it out.
  PolicyInputEntry raw;
  std::memcpy(static_cast<void*>(&raw), bytes.data(), sizeof raw);
  auto input = policyInputFactory("bgp");
  input->policyInputEntryIs(raw);
  EXPECT_THROW(input->policyInputEntry(kId), Mosk::RangeException);
  EXPECT_THROW(entry(16).segmentListPush(WeightedSegList()), Mosk::RangeException);
}

// Faults: equality or hashing that looks at slots beyond the count, or ignores the count.
TEST(PolicyInputEntry, EqualityComparesTheUsedElementsOnly) {
  PolicyInputEntry a = entry(0), b = entry(0);
  a.segmentListIs(SegmentListIndex(3), WeightedSegList(Weight(9), MplsLabelOperation{1}));
  a.segmentListCountIs(0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  PolicyInputEntry c = entry(2), d = entry(2);
  d.segmentListIs(SegmentListIndex(1), WeightedSegList(Weight(2), MplsLabelOperation{1}));
  EXPECT_FALSE(c == d);
  d = entry(3);
  d.segmentListCountIs(2);
  EXPECT_EQ(c, d);
  d.segmentListCountIs(3);
  EXPECT_FALSE(c == d);
  d = entry(2);
  d.preferenceIs(Preference(100));
  EXPECT_FALSE(c == d);
  EXPECT_THROW(c.segmentListCountIs(17), Mosk::RangeException);
}

// Faults: a text form that prints unused slots or does not parse back; a seventeenth list
// accepted from text.
TEST(PolicyInputEntry, TextForm) {
  std::string text = Mosk::valueToStrep(entry(1));
  EXPECT_EQ(text,
            "Value('SrTePolicy::PolicyInputEntry', ** {'key': 1073741831, 'endpoint': 1.2.3.4, "
            "'color': 5, 'preference': 200, 'routerId': 9.9.9.9, 'bindingSid': 900, "
            "'segmentList': [Value('SrTePolicy::WeightedSegList', ** {'weight': 1, 'segList': "
            "[16000, 17000]})]})");
  EXPECT_EQ(Mosk::parse<PolicyInputEntry>(text), entry(1));
  EXPECT_EQ(Mosk::valueToStrep(PolicyInputEntry(kId)),
            "Value('SrTePolicy::PolicyInputEntry', ** {'key': 1073741831, 'endpoint': none, "
            "'color': 0, 'preference': 100, 'routerId': 0.0.0.0, 'bindingSid': 1048576, "
            "'segmentList': []})");
  EXPECT_EQ(Mosk::parse<PolicyInputEntry>(Mosk::valueToStrep(entry(16))), entry(16));
  std::string seventeen = Mosk::valueToStrep(entry(16));
  std::string one = Mosk::valueToStrep(WeightedSegList());
  seventeen.insert(seventeen.size() - 3, ", " + one);
  try {
    Mosk::parse<PolicyInputEntry>(seventeen);
    FAIL() << "seventeen segment lists parsed";
  } catch (Mosk::RangeException const& e) {
    EXPECT_EQ(e.reason(), kIndexError);
    EXPECT_EQ(e.attribute(), "segmentList");
  }
}

// Faults: a record copied out with junk behind its label stacks or in its address kept (it
// would not match the same candidate written cleanly); a zero weight accepted.
TEST(PolicyInputEntry, ReadingValidatesAndNormalises) {
  PolicyInputEntry clean = entry(1);
  Bytes bytes{};
  clean.serialize(bytes.data());
  putWord(bytes, 44 + 4 + 4 * 4, 12345);  // label slot 4 of a 2-label stack
  putWord(bytes, 4 + 4 + 8, 12345);       // address bytes an IPv4 endpoint leaves
  EXPECT_EQ(PolicyInputEntry::deserialize(bytes.data(), 84), clean);
  putWord(bytes, 44, 0);
  EXPECT_THROW(PolicyInputEntry::deserialize(bytes.data(), 84), Mosk::RangeException);
}

// Faults: a stack of more than six labels cut down to six, or a label above the no-label value
// replaced, so that the candidate would forward over a stack its writer never gave.
TEST(PolicyInputEntry, ReadingRefusesAMalformedLabelStack) {
  Bytes bytes{};
  entry(2).serialize(bytes.data());
  U32 const sizeOffset = 44 + 40 + 4 + 6 * 4;  // the size word of the second list's stack
  putWord(bytes, sizeOffset, 7);
  try {
    PolicyInputEntry::deserialize(bytes.data(), 124);
    FAIL() << "a stack of seven labels was read";
  } catch (Mosk::RangeException const& e) {
    EXPECT_EQ(e.attribute(), "segmentList.1.segList");
    EXPECT_EQ(e.reason(),
              "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
              "MplsStackEntryIndex::max not allowed");
  }
  putWord(bytes, sizeOffset, 2);
  putWord(bytes, sizeOffset - 5 * 4, 0x100001);  // the second list's label 1
  EXPECT_THROW(PolicyInputEntry::deserialize(bytes.data(), 124), Mosk::RangeException);
}

struct InputWatcher : PolicyInput::NotifieeConst {
  std::vector<PolicyId> keys;
  U32 idx = 0, whole = 0, corrupt = 0;
  void onPolicyInputEntry(PolicyId const& id) override { keys.push_back(id); }
  void onPolicyInputEntry() override { ++whole; }
  void onPolicyIdx() override { ++idx; }
  void onPolicyInputEntryCorrupt() override { ++corrupt; }
};

// Faults: policyIdx notifying on an unchanged value; a rewrite of an equal record (equal up
// to the unused slots) notifying; an in-place write not published by its commit.
TEST(PolicyInput, WritesNotifyOnRealChangesAndCommits) {
  auto input = policyInputFactory("bgp");
  InputWatcher w;
  w.notifierIs(input);
  input->policyIdxIs(0);
  input->policyIdxInc(0);
  input->policyIdxInc(2);
  input->policyIdxIs(2);
  EXPECT_EQ(w.idx, 1u);
  EXPECT_EQ(input->policyIdx(), 2u);

  input->policyInputEntryIs(entry(1));
  PolicyInputEntry same = entry(2);
  same.segmentListCountIs(1);
  input->policyInputEntryIs(same);
  EXPECT_EQ(w.keys.size(), 1u);

  PolicyId other = PolicyId::make(PolicySource::sourceBgp, 8);
  PolicyInputEntry& slot = input->newPolicyInputEntry(PolicyInputEntry(other));
  slot.colorIs(Color(77));
  input->policyInputEntryCommit(slot);
  EXPECT_EQ(input->policyInputEntry(other)->color(), Color(77));
  EXPECT_EQ(w.keys, (std::vector<PolicyId>{kId, other, other}));
  EXPECT_THROW(input->policyInputEntryCommit(PolicyInputEntry(PolicyId(3))), Mosk::RangeException);

  input->policyInputEntryDel(kId);
  input->policyInputEntryDel(kId);
  input->policyInputEntryNotifyCollection();
  EXPECT_EQ(w.keys.size(), 4u);
  EXPECT_EQ(w.whole, 1u);
  EXPECT_FALSE(input->policyInputEntry(kId));
}

// Faults: a key walk broken by deleting the key under it; a walk that goes on over a corrupt
// table; a corrupt table that cannot be emptied.
TEST(PolicyInput, KeyWalkSurvivesDeletionAndStopsOnCorruption) {
  auto input = policyInputFactory("bgp");
  for (U32 i = 0; i < 50; ++i)
    input->policyInputEntryIs(entry(1, PolicyId::make(PolicySource::sourceBgp, i)));
  U32 seen = 0;
  for (auto c = input->policyInputEntryIter(); c; ++c) {
    input->policyInputEntryDel(c.key());
    ++seen;
  }
  EXPECT_EQ(seen, 50u);
  EXPECT_EQ(input->policyInputEntryCount(), 0u);

  for (U32 i = 0; i < 4; ++i)
    input->policyInputEntryIs(entry(1, PolicyId::make(PolicySource::sourceBgp, i)));
  InputWatcher w;
  w.notifierIs(input);
  auto c = input->policyInputEntryIter();
  ASSERT_TRUE(c);
  input->policyInputEntryCorruptIs(true);
  input->policyInputEntryCorruptIs(true);
  EXPECT_EQ(w.corrupt, 1u);
  EXPECT_FALSE(++c);
  EXPECT_FALSE(input->policyInputEntryIter());
  input->policyInputEntryDelAll();
  EXPECT_EQ(input->policyInputEntryCount(), 0u);
  EXPECT_EQ(w.keys.size(), 4u);
}

struct SourceWatcher : PolicyInputSource::NotifieeConst {
  std::vector<PolicySource> keys;
  void onPolicyInput(PolicySource const& s) override { keys.push_back(s); }
};

// Faults: policyInputIs notifying when handed the input it already holds, or when a null
// input meets an absent source; a null that does not remove.
TEST(PolicyInputSource, PolicyInputIsRules) {
  auto sources = policyInputSourceFactory();
  EXPECT_EQ(sources->name(), "PolicyInputSource");
  SourceWatcher w;
  w.notifierIs(sources);
  auto bgp = policyInputFactory("bgp");
  auto other = policyInputFactory("bgp2");
  auto s = PolicySource::sourceBgp;
  sources->policyInputIs(s, nullptr);
  sources->policyInputIs(s, bgp);
  sources->policyInputIs(s, bgp);
  sources->policyInputIs(s, other);
  EXPECT_EQ(sources->policyInput(s), other);
  sources->policyInputIs(s, nullptr);
  EXPECT_FALSE(sources->policyInput(s));
  EXPECT_EQ(w.keys, (std::vector<PolicySource>{s, s, s}));
  EXPECT_THROW(sources->newPolicyInput(s, nullptr), Mosk::RangeException);
}

}  // namespace
