// The 684-byte PolicyInputEntry record that sources write into their input tables.
//
// The input is the bytes of a record. Two readers are held to their promises:
// - PolicyInputEntry::deserialize either refuses the bytes with a runtime error or yields a
//   record whose serialised form deserialises to an equal record, byte for byte the same when
//   serialised again, and whose text form parses back to it;
// - a table read (the bytes stored as a record, as a writer in another process may leave them)
//   through PolicyInputSm either refuses the record with a runtime error and applies nothing,
//   or files exactly the candidate the checked record describes; a second input stage started
//   over the same table (a restart) reads it alike, without failing to start; removing the
//   record then leaves the selection input, the reverse maps and the segment store empty.
#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <vector>

#include "Fuzz.h"
#include "SrTePolicy/SrTePolicyInputSm.h"

using namespace SrTePolicy;

namespace {

std::string textOf(PolicyInputEntry const& e) {
  return Mosk::valueToStrep(e);
}

void checkDeserialize(std::uint8_t const* data, std::size_t size) {
  U32 const length = static_cast<U32>(std::min<std::size_t>(size, 4096));
  std::optional<PolicyInputEntry> first;
  if (Fuzz::refused([&] { first.emplace(PolicyInputEntry::deserialize(data, length)); })) return;
  U32 const needed = PolicyInputEntry::deserializedLength(data);
  Fuzz::check(needed != 0 && needed <= length, "a record was read from too few bytes");

  std::vector<std::uint8_t> bytes(PolicyInputEntry::recordSize);
  U32 const written = first->serialize(bytes.data());
  Fuzz::check(written == first->serializedLength() && written == needed,
              "serialised length " + std::to_string(written) + " of a record read from " +
                  std::to_string(needed) + " bytes");
  Fuzz::check(PolicyInputEntry::deserializedLength(bytes.data()) == written,
              "the serialised record reports another length");
  std::optional<PolicyInputEntry> second;
  if (Fuzz::refused(
          [&] { second.emplace(PolicyInputEntry::deserialize(bytes.data(), written)); })) {
    Fuzz::fail("the serialised form of " + textOf(*first) + " is refused");
  }
  Fuzz::check(*second == *first && second->hash() == first->hash(),
              "the serialised form of " + textOf(*first) + " reads as " + textOf(*second));
  std::vector<std::uint8_t> again(PolicyInputEntry::recordSize);
  second->serialize(again.data());
  Fuzz::check(std::memcmp(bytes.data(), again.data(), written) == 0,
              "serialising " + textOf(*first) + " twice gives different bytes");

  std::string const text = textOf(*first);
  std::optional<PolicyInputEntry> parsed;
  if (Fuzz::refused([&] { parsed.emplace(Mosk::parse<PolicyInputEntry>(text)); })) {
    Fuzz::fail("the text form \"" + text + "\" of a record read from bytes does not parse");
  }
  Fuzz::check(*parsed == *first, "\"" + text + "\" parses to " + textOf(*parsed));
}

// The input pipeline's first stage over one source table, wired as the agent wires it.
struct InputStage {
  explicit InputStage(Mosk::Ptr<PolicyInputSource> input) : sources(std::move(input)) {
    core->handleInitialized();
    sm = policyInputSmFactory(sources, selection, core, users, segmentToLists, keys);
  }
  ~InputStage() {
    sm = nullptr;  // its teardown runs while the objects it writes are still held
  }
  bool empty() const {
    return selection->policyIdEntryCount() == 0 && keys->mapEntryCount() == 0 &&
           users->segmentListUserCount() == 0 && segmentToLists->segmentListCount() == 0 &&
           core->notifyingSegmentCollection()->segmentNotifierCount() == 0 &&
           core->notifyingSegmentListCollection()->segmentListNotifierCount() == 0;
  }

  Mosk::Ptr<PolicyInputSource> sources;
  Mosk::Ptr<PolicySelectionInput> selection = policySelectionInputFactory("selection");
  Mosk::Ptr<CoreDedupTables> core = coreDedupTablesFactory();
  Mosk::Ptr<SegmentListIdToPolicyMap> users = segmentListIdToPolicyMapFactory("users");
  Mosk::Ptr<SegmentIdToSegmentList> segmentToLists = segmentIdToSegmentListFactory("segments");
  Mosk::Ptr<PolicyKeyToIdMap> keys = policyKeyToIdMapFactory("keys");
  Mosk::Ptr<PolicyInputSm> sm;
};

void checkTableRead(std::uint8_t const* data, std::size_t size) {
  // The record as it lies in the table: whatever bytes the writer left, the rest zero.
  PolicyInputEntry stored;
  std::memset(static_cast<void*>(&stored), 0, sizeof stored);
  std::memcpy(static_cast<void*>(&stored), data, std::min(size, sizeof stored));
  PolicyId const id = stored.key();

  PolicyInputEntry checked = stored;
  bool const invalid = Fuzz::refused([&] { checked.validateRead(); });

  InputStage stage(policyInputSourceFactory());
  Mosk::Ptr<PolicyInput> table = policyInputFactory("source");
  stage.sources->policyInputIs(id.source(), table);
  bool const refused = Fuzz::refused([&] { table->policyInputEntryIs(stored); });
  Fuzz::check(refused == invalid, std::string("a record that its check ") +
                                      (invalid ? "refuses" : "accepts") + " is " +
                                      (refused ? "refused" : "accepted") + " by the input stage");
  std::optional<InputStage> restarted;
  Fuzz::check(!Fuzz::refused([&] { restarted.emplace(stage.sources); }),
              "an input stage does not start over a table holding the record");
  if (refused) {
    Fuzz::check(stage.empty(), "a refused record left something behind");
    Fuzz::check(restarted->empty(), "a refused record is filed when a stage starts");
    return;
  }
  Mosk::Ptr<PolicyIdEntry> again = restarted->selection->policyIdEntry(id.value());
  Fuzz::check(again != nullptr && again->key() == PolicyKey(checked.endpoint(), checked.color()) &&
                  again->wSegmentListCount() ==
                      stage.selection->policyIdEntry(id.value())->wSegmentListCount(),
              "a stage started over the table files " + textOf(checked) + " otherwise");
  restarted.reset();

  Mosk::Ptr<PolicyIdEntry> entry = stage.selection->policyIdEntry(id.value());
  Fuzz::check(entry != nullptr, "an accepted record " + textOf(checked) + " was not filed");
  Fuzz::check(entry->key() == PolicyKey(checked.endpoint(), checked.color()) &&
                  entry->preference() == checked.preference() &&
                  entry->routerId() == checked.routerId() &&
                  entry->bindingSid() == checked.bindingSid() && entry->source() == id.source(),
              "record " + textOf(checked) + " filed with other attributes");
  // One list per distinct stack, with the weight of its last occurrence.
  std::map<Ludd::MplsLabelOperation, Weight> lists;
  for (WeightedSegList const* w = checked.segmentListBegin(); w != checked.segmentListEnd(); ++w)
    lists.insert_or_assign(w->segList(), w->weight());
  std::map<Ludd::MplsLabelOperation, Weight> filed;
  for (auto c = entry->wSegmentListIter(); c; ++c) {
    Mosk::Ptr<SegmentListUser> user = stage.users->segmentListUser(c.key());
    Fuzz::check(user != nullptr, "a filed list has no user");
    SegmentList const& list = *user->segmentList();
    Ludd::MplsLabelOperation stack;
    for (U32 i = 0; i < list.size(); ++i)
      stack.push(list.segmentLabel(i));
    filed.insert_or_assign(stack, c.value());
  }
  Fuzz::check(filed == lists, "record " + textOf(checked) + " filed with other segment lists");

  table->policyInputEntryDel(id);
  Fuzz::check(stage.empty(), "removing record " + textOf(checked) + " left something behind");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  checkDeserialize(data, size);
  if (size >= 4) checkTableRead(data, size);
  return 0;
}
