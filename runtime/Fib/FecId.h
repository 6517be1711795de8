// Forwarding equivalence class identifiers.
//
// A FecId is a 64-bit value: the adjacency type in the top four bits (from bit adjTypePos()),
// the index below them. The all-zero id means "no FEC". Types are below adjTypeMax() (16);
// indexes are bounded by the platform's FEC index capacity, adjIndexMax(), which the platform
// sets once at start-up (tests lower it to exhaust it).
#pragma once

#include <compare>
#include <ostream>

#include "Mosk/AttributeLog.h"
#include "Mosk/Value.h"

namespace Fib {

constexpr U32 adjTypePos() {
  return 60;
}
constexpr U32 adjTypeMax() {
  return 16;
}
// The bits of a FecId that hold the index.
constexpr U64 adjIndexMask() {
  return (U64{1} << adjTypePos()) - 1;
}
// The largest index a FecId may carry on this platform (default 2^20 - 1).
U64 adjIndexMax();
// Sets the capacity; a value above adjIndexMask() raises the range error.
void adjIndexMaxIs(U64 max);

class FecId {
 public:
  constexpr FecId() = default;
  constexpr explicit FecId(U64 value) : value_(value) {}
  // The id of FEC `index` of adjacency type `adjType`. Raises the range error for a type at or
  // above adjTypeMax() or an index above adjIndexMax().
  static FecId fecIdForAdjType(U32 adjType, U64 index);

  U64 value() const { return value_; }
  U32 adjType() const { return static_cast<U32>(value_ >> adjTypePos()); }
  U64 adjIndex() const { return value_ & adjIndexMask(); }
  bool isNone() const { return value_ == 0; }

  // The raw bit operations that callers use to take an id apart (`fecId & adjIndexMask()`,
  // `fecId >> adjTypePos()`).
  U64 operator&(U64 mask) const { return value_ & mask; }
  U64 operator>>(U32 shift) const { return value_ >> shift; }

  bool operator==(FecId const&) const = default;
  auto operator<=>(FecId const&) const = default;
  U32 hash() const { return Mosk::hashU64(value_); }
  // Hexadecimal, so that the type shows as the leading digit: "0xf000000000000007".
  void strep(std::ostream& os) const;
  static FecId strepRead(Mosk::TextReader& r) { return FecId(r.readUnsigned(~U64{0}, "FEC id")); }
  // Attribute-log form: the 64 bits as they are (every pattern is a FecId).
  void logWrite(Mosk::LogWriter& w) const { w.u64(value_); }
  static FecId logRead(Mosk::LogReader& r) { return FecId(r.u64("FEC id")); }

 private:
  U64 value_ = 0;
};

std::ostream& operator<<(std::ostream& os, FecId const& id);

}  // namespace Fib
