// MPLS labels and label stacks.
//
// MplsLabel holds a 20-bit label; the value 1048576 (0x100000, one above the largest label)
// means "no label" and is the default. MplsLabelOperation is a stack of at most six labels with
// its size; it is a fixed 36-byte record so that it can sit in shared-memory input records.
// Positions at or above the size always hold the no-label value, so equality and hashing may
// look at all six positions.
#pragma once

#include <initializer_list>
#include <ostream>

#include "Ludd/Ludd.h"
#include "Mosk/AttributeLog.h"
#include "Mosk/Value.h"

namespace Ludd {

class MplsLabel {
 public:
  static constexpr U32 max = 0xFFFFF;
  static constexpr U32 noLabel = 0x100000;

  constexpr MplsLabel() = default;
  // Accepts 0..1048575 and the no-label value 1048576.
  explicit MplsLabel(U32 value) : value_(value) {
    if (value > noLabel) {
      throw Mosk::RangeException(
          "MplsLabel::value < MplsLabel::min or > MplsLabel::max not allowed");
    }
  }
  static constexpr MplsLabel none() { return MplsLabel(); }

  U32 value() const { return value_; }
  bool isNone() const { return value_ == noLabel; }

  bool operator==(MplsLabel const&) const = default;
  auto operator<=>(MplsLabel const&) const = default;
  U32 hash() const { return Mosk::hashU32(value_); }
  void strep(std::ostream& os) const { os << value_; }
  static MplsLabel strepRead(Mosk::TextReader& r) {
    return MplsLabel(static_cast<U32>(r.readUnsigned(Mosk::maxU32, "MPLS label")));
  }
  // Attribute-log form: 32 bits; a value above the no-label value raises the range error.
  void logWrite(Mosk::LogWriter& w) const { w.u32(value_); }
  static MplsLabel logRead(Mosk::LogReader& r) { return MplsLabel(r.u32("MPLS label")); }

 private:
  U32 value_ = noLabel;
};

class MplsLabelOperation {
 public:
  static constexpr U32 capacity = 6;

  MplsLabelOperation() { clear(); }
  // A stack of the given labels at positions 0, 1, ...; more than six raise the stack-index
  // range error.
  MplsLabelOperation(std::initializer_list<U32> labels);

  U8 size() const { return static_cast<U8>(size_); }
  // Sets the size; positions at or above it are reset to the no-label value.
  void sizeIs(U32 size);
  MplsLabel label(MplsStackEntryIndex const& i) const { return MplsLabel(labels_[i.value()]); }
  MplsLabel label(U32 i) const { return label(MplsStackEntryIndex(i)); }
  // Writes one position; writing at or past the size extends the size to i + 1 (positions
  // skipped on the way hold the no-label value), so the invariant below holds after any write.
  void labelIs(MplsStackEntryIndex const& i, MplsLabel const& label) {
    labels_[i.value()] = label.value();
    if (i.value() >= size_) size_ = i.value() + 1;
  }
  // Writes the position at the current size and grows the size by one.
  void push(MplsLabel const& label);
  void clear();
  // Restores the invariant on a record copied in from outside (positions above the size reset,
  // a size above six clamped); returns false when the record was malformed.
  bool normalize();
  // Checks a record copied in from outside and restores the invariant: a size above six raises
  // the stack-index range error and a label above the no-label value the label range error
  // (neither is repaired, since the stack would then say something the writer did not); what
  // lies above the size and the reserved words are cleared.
  void validateRead();

  bool operator==(MplsLabelOperation const& o) const;
  // Shorter stacks first, then position by position.
  bool operator<(MplsLabelOperation const& o) const;
  U32 hash() const;
  // "[16001, 16002]": the labels at positions 0 to size-1.
  void strep(std::ostream& os) const;
  static MplsLabelOperation strepRead(Mosk::TextReader& r);
  // Attribute-log form: the size as one byte, then the labels at positions 0 to size-1. A size
  // above six raises the stack-index range error, a label above the no-label value its own.
  void logWrite(Mosk::LogWriter& w) const;
  static MplsLabelOperation logRead(Mosk::LogReader& r);

 private:
  U32 labels_[capacity];
  U32 size_;
  U32 reserved_[2];  // part of the 36-byte record layout, always zero
};

static_assert(sizeof(MplsLabel) == 4);
static_assert(sizeof(MplsLabelOperation) == 36);

std::ostream& operator<<(std::ostream& os, MplsLabel const& l);
std::ostream& operator<<(std::ostream& os, MplsLabelOperation const& op);

}  // namespace Ludd
