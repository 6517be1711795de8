// The shared-memory input table as the agent's reader sees it: a segment that a genuine writer
// left (eight records of capacity, a ring of four changes, a few records written, changed and
// erased) is damaged by the input and then attached, walked, read and polled.
//
// Input: a byte that cuts the segment short (0 keeps it whole), a byte counting the edits made
// before the attach, then edits of three bytes (a 16-bit little-endian offset into the segment,
// a byte to store there). Edits after the attach come in groups of four, each followed by a
// poll, as damage or a writer's work that appears while the reader is attached.
//
// Property: the attach is refused with a ShmTableException, or the reader walks and polls in
// bounded steps, and every record it hands out is refused by the record's check or is a valid
// input record of the key it was read under. Once the reader reports corruption its walks and
// polls stop. Never a crash, a hang or a read outside the segment.
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "SrTePolicy/SrTePolicyInputShm.h"

using namespace SrTePolicy;

namespace {

using Table = PolicyInputShmTable;

PolicyInputEntry entry(PolicySource source, U32 index, U32 color, U32 lists) {
  PolicyInputEntry e(PolicyId::make(source, index));
  e.endpointIs(Ludd::IpGenAddr::parse("10.0.0.1"));
  e.colorIs(Color(color));
  e.preferenceIs(Preference(100 + index));
  e.bindingSidIs(Ludd::MplsLabel(900000 + index));
  for (U32 n = 0; n < lists; ++n)
    e.segmentListPush(WeightedSegList(Weight(1 + n), Ludd::MplsLabelOperation{16001 + n, 16100}));
  return e;
}

// The bytes of a table that a writer filled, taken once: the segment is then removed.
std::vector<U64> const& genuineSegment() {
  static std::vector<U64> const bytes = [] {
    std::string const name = "srte-fuzz-shm-attach-" + std::to_string(::getpid());
    std::vector<U64> out;
    {
      Skerry::shmTableRemove(name);
      Skerry::ShmTableOptions options;
      options.capacity = 8;
      options.ringSize = 4;
      PolicyInputShmWriter writer(name, options);
      for (U32 i = 1; i <= 6; ++i)
        writer.put(entry(PolicySource::sourceBgp, i, i % 3, i % 4));
      writer.put(entry(PolicySource::sourceBgp, 2, 7, 1));
      writer.erase(PolicyId::make(PolicySource::sourceBgp, 4));
      writer.put(entry(PolicySource::sourcePcep, 1, 1, 2));
      writer.counterIs(7);
      Skerry::detail::ShmSegment segment = Skerry::detail::ShmSegment::openReader(name);
      out.resize(segment.size() / 8);
      std::memcpy(out.data(), segment.base(), out.size() * 8);
    }
    Skerry::shmTableRemove(name);
    return out;
  }();
  return bytes;
}

// Every record the reader hands out for `id` is refused by its check or valid and of `id`.
void checkRecord(Table const& table, PolicyId const& id) {
  std::optional<PolicyInputEntry> record;
  if (Fuzz::refused([&] { record = Skerry::readRecord(table, id); }) || !record) return;
  Fuzz::check(record->key() == id, "a record read under another key");
  PolicyInputEntry again = *record;
  Fuzz::check(!Fuzz::refused([&] { Skerry::RecordTraits<PolicyInputEntry>::validate(again); }),
              "a record handed out fails its own check");
  Fuzz::check(again == *record, "a record handed out is not in its checked form");
}

// The geometry the reader attached with.
struct Attached {
  U32 capacity;
  U32 slotLimit;
};

void walk(Table const& table, Attached const& at) {
  U32 const slotLimit = at.slotLimit;
  U32 steps = 0;
  for (Skerry::KeyCursor<PolicyId, PolicyInputEntry> c(table); c; ++c) {
    Fuzz::check(++steps <= 2 * slotLimit, "a walk that does not end");
    checkRecord(table, c.key());
  }
  Fuzz::check(table.count() <= at.capacity, "a count above the capacity");
  if (table.corrupt()) {
    Fuzz::check(!Skerry::KeyCursor<PolicyId, PolicyInputEntry>(table),
                "a corrupt table is still walked");
  }
}

void poll(Table& table, Attached const& at) {
  bool const corrupt = table.corrupt();
  for (U32 round = 0;; ++round) {
    Fuzz::check(round <= at.slotLimit, "polls that never run dry");
    Skerry::ShmPollResult const r =
        table.poll([&](PolicyId const& id) { checkRecord(table, id); }, 4);
    Fuzz::check(!corrupt || r.changed == 0, "a corrupt table still reports changes");
    if (!r.more) break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::vector<U64> const& genuine = genuineSegment();
  if (size < 2) return 0;
  std::vector<U64> segment = genuine;
  U8* const bytes = reinterpret_cast<U8*>(segment.data());
  U64 const whole = segment.size() * 8;
  U64 const length = data[0] == 0 ? whole : whole * data[0] / 256;
  std::size_t before = data[1];
  data += 2;
  size -= 2;
  auto edit = [&] {
    bytes[(data[0] | data[1] << 8) % whole] = data[2];
    data += 3;
    size -= 3;
  };
  for (; before > 0 && size >= 3; --before)
    edit();

  std::optional<Table> table;
  try {
    table.emplace("fuzz", bytes, length);
  } catch (Skerry::ShmTableException const&) {
    return 0;
  }
  auto const* header = reinterpret_cast<Skerry::detail::ShmHeader const*>(bytes);
  Attached const at{header->capacity, header->slotLimit};
  walk(*table, at);
  poll(*table, at);
  while (size >= 3) {
    for (int n = 0; n < 4 && size >= 3; ++n)
      edit();
    poll(*table, at);
    walk(*table, at);
  }
  return 0;
}
