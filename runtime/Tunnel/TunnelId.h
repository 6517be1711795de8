// Tunnel identifiers of the platform's tunnel tables.
//
// A TunnelId is a 48-bit value: the tunnel type in bits 40..47 and the index in bits 0..39
// (convertToTunnelValue). A value with any of the upper 16 bits set is out of range.
#pragma once

#include <ostream>

#include "Mosk/AttributeLog.h"
#include "Mosk/Value.h"

namespace Tunnel::TunnelTable {

enum class TunnelType : U8 {
  invalid = 0,
  srTeSegmentList = 8,  // SR-TE segment-list tunnels
};

class TunnelId {
 public:
  static constexpr U64 minValue = 0;
  static constexpr U64 maxValue = (U64{1} << 48) - 1;
  static constexpr U32 typeShift = 40;

  constexpr TunnelId() = default;
  explicit TunnelId(U64 value) : value_(value) {
    if (value > maxValue) {
      throw Mosk::RangeException(
          "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
    }
  }
  // The id of tunnel `index` of `type`; range-checked like any other value.
  static TunnelId convertToTunnelValue(TunnelType type, U64 index) {
    return TunnelId((static_cast<U64>(type) << typeShift) + index);
  }

  U64 value() const { return value_; }
  TunnelType type() const { return static_cast<TunnelType>(value_ >> typeShift); }
  U64 index() const { return value_ & ((U64{1} << typeShift) - 1); }
  bool isValid() const { return value_ != 0; }

  bool operator==(TunnelId const&) const = default;
  auto operator<=>(TunnelId const&) const = default;
  U32 hash() const { return Mosk::hashU64(value_); }
  void strep(std::ostream& os) const { os << value_; }
  static TunnelId strepRead(Mosk::TextReader& r) {
    return TunnelId(r.readUnsigned(~U64{0}, "tunnel id"));
  }
  // Attribute-log form: 64 bits; a value above maxValue raises the range error.
  void logWrite(Mosk::LogWriter& w) const { w.u64(value_); }
  static TunnelId logRead(Mosk::LogReader& r) { return TunnelId(r.u64("tunnel id")); }

 private:
  U64 value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, TunnelId const& t) {
  t.strep(os);
  return os;
}

}  // namespace Tunnel::TunnelTable
