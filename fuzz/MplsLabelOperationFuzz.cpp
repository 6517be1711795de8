// MPLS label stacks (Ludd::MplsLabelOperation), as 36-byte records copied in from other
// processes and as a value that code builds up.
//
// Input: the first 36 bytes are a stored record, which normalize() must turn into a stack that
// keeps the invariant (at most six labels, every position at or above the size holding the
// no-label value, reserved words zero) and leave alone when it already does. The remaining
// bytes are a program of push / sizeIs / labelIs / clear operations, run on a stack and on a
// plain vector side by side: after each, the stack must keep the invariant, hold what the
// vector holds, compare and hash like a stack pushed from the vector, and print text that parses
// back to it. Operations out of range must be refused with the range error and change nothing.
#include <cstring>
#include <optional>
#include <vector>

#include "Fuzz.h"
#include "Ludd/MplsLabel.h"

namespace {

using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;

constexpr std::size_t kRecordSize = sizeof(MplsLabelOperation);

struct Words {
  U32 labels[6];
  U32 size;
  U32 reserved[2];
};
static_assert(sizeof(Words) == kRecordSize);

Words wordsOf(MplsLabelOperation const& op) {
  Words w;
  std::memcpy(&w, static_cast<void const*>(&op), sizeof w);
  return w;
}

void checkInvariant(MplsLabelOperation const& op, std::string const& where) {
  Words const w = wordsOf(op);
  Fuzz::check(w.size <= MplsLabelOperation::capacity, where + ": size " + std::to_string(w.size));
  for (U32 i = 0; i < MplsLabelOperation::capacity; ++i) {
    if (i >= w.size) {
      Fuzz::check(w.labels[i] == MplsLabel::noLabel,
                  where + ": position " + std::to_string(i) + " at or above the size " +
                      std::to_string(w.size) + " holds " + std::to_string(w.labels[i]));
    } else {
      Fuzz::check(w.labels[i] <= MplsLabel::noLabel, where + ": label out of range");
    }
  }
  Fuzz::check(w.reserved[0] == 0 && w.reserved[1] == 0, where + ": reserved words set");
}

void checkText(MplsLabelOperation const& op, std::string const& where) {
  std::string const text = Mosk::valueToStrep(op);
  std::optional<MplsLabelOperation> back;
  Fuzz::check(!Fuzz::refused([&] { back.emplace(Mosk::parse<MplsLabelOperation>(text)); }),
              where + ": \"" + text + "\" does not parse");
  Fuzz::check(*back == op && back->hash() == op.hash(),
              where + ": \"" + text + "\" parses to another stack");
}

void checkOrder(MplsLabelOperation const& a, MplsLabelOperation const& b) {
  int const relations = int(a < b) + int(b < a) + int(a == b);
  Fuzz::check(relations == 1, "stacks " + Mosk::valueToStrep(a) + " and " + Mosk::valueToStrep(b) +
                                  " are in " + std::to_string(relations) + " of <, > and ==");
  if (a == b) Fuzz::check(a.hash() == b.hash(), "equal stacks hash differently");
}

// The stack as the model says it should be.
MplsLabelOperation fromModel(std::vector<U32> const& model) {
  MplsLabelOperation op;
  for (U32 l : model)
    op.push(MplsLabel(l));
  return op;
}

// A record as a writer left it: normalize() repairs what can be repaired and says whether it
// had to.
MplsLabelOperation checkRecord(std::uint8_t const* data) {
  MplsLabelOperation op;
  std::memcpy(static_cast<void*>(&op), data, kRecordSize);
  Words const raw = wordsOf(op);
  bool const wellFormed = op.normalize();
  checkInvariant(op, "normalized record");
  Words const normalized = wordsOf(op);
  bool rawKeptInvariant = raw.size <= 6 && raw.reserved[0] == 0 && raw.reserved[1] == 0;
  for (U32 i = 0; i < 6; ++i) {
    rawKeptInvariant = rawKeptInvariant && (i < raw.size ? raw.labels[i] <= MplsLabel::noLabel
                                                         : raw.labels[i] == MplsLabel::noLabel);
  }
  if (rawKeptInvariant) {
    Fuzz::check(wellFormed && std::memcmp(&raw, &normalized, kRecordSize) == 0,
                "normalize() changed a well-formed record");
  }
  if (wellFormed) {
    for (U32 i = 0; i < normalized.size; ++i)
      Fuzz::check(normalized.labels[i] == raw.labels[i], "normalize() changed a used label");
  }
  Fuzz::check(op.normalize(), "a normalized record is not well-formed");
  Words const again = wordsOf(op);
  Fuzz::check(std::memcmp(&normalized, &again, kRecordSize) == 0, "normalize() is not idempotent");
  checkText(op, "normalized record");
  return op;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  MplsLabelOperation record;
  if (size >= kRecordSize) {
    record = checkRecord(data);
    data += kRecordSize;
    size -= kRecordSize;
  }

  MplsLabelOperation op;
  std::vector<U32> model;
  auto readLabel = [&](std::size_t at) {
    // 21 bits: labels, the no-label value and values above it.
    return (U32{data[at]} << 16 | U32{data[at + 1]} << 8 | data[at + 2]) & 0x1FFFFF;
  };
  std::size_t pos = 0;
  while (pos < size) {
    std::uint8_t const code = data[pos++];
    std::string what;
    bool refused = false;
    switch (code % 4) {
      case 0: {  // push
        if (pos + 3 > size) return 0;
        U32 const label = readLabel(pos);
        pos += 3;
        what = "push(" + std::to_string(label) + ")";
        refused = Fuzz::refused([&] { op.push(MplsLabel(label)); });
        Fuzz::check(refused == (label > MplsLabel::noLabel || model.size() == 6),
                    what + (refused ? " refused" : " accepted"));
        if (!refused) model.push_back(label);
        break;
      }
      case 1: {  // sizeIs
        U32 const n = (code >> 2) % 8;
        what = "sizeIs(" + std::to_string(n) + ")";
        refused = Fuzz::refused([&] { op.sizeIs(n); });
        Fuzz::check(refused == (n > 6), what + (refused ? " refused" : " accepted"));
        if (!refused) model.resize(n, MplsLabel::noLabel);
        break;
      }
      case 2: {  // labelIs
        if (pos + 3 > size) return 0;
        U32 const i = (code >> 2) % 8;
        U32 const label = readLabel(pos);
        pos += 3;
        what = "labelIs(" + std::to_string(i) + ", " + std::to_string(label) + ")";
        refused =
            Fuzz::refused([&] { op.labelIs(Ludd::MplsStackEntryIndex(i), MplsLabel(label)); });
        Fuzz::check(refused == (i > 5 || label > MplsLabel::noLabel),
                    what + (refused ? " refused" : " accepted"));
        if (!refused) {
          // A write at or past the size extends the stack to that position.
          if (i >= model.size()) model.resize(i + 1, MplsLabel::noLabel);
          model[i] = label;
        }
        break;
      }
      case 3:
        what = "clear()";
        op.clear();
        model.clear();
        break;
    }
    std::string const where = "after " + what + " giving " + Mosk::valueToStrep(op);
    checkInvariant(op, where);
    Fuzz::check(op.size() == model.size(), where + ": size differs from the model's");
    for (U32 i = 0; i < model.size(); ++i)
      Fuzz::check(op.label(i).value() == model[i], where + ": label differs from the model's");
    MplsLabelOperation const expected = fromModel(model);
    Fuzz::check(op == expected && op.hash() == expected.hash(),
                where + ": differs from the stack pushed from the same labels");
    checkText(op, where);
    checkOrder(op, record);
  }
  return 0;
}
