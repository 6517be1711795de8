// IPv4 addresses (IpAddr) and generic IPv4-or-IPv6 addresses (IpGenAddr).
//
// Both are plain fixed-layout values so that they can sit in shared-memory records: IpAddr is
// four bytes in network order, IpGenAddr a four-byte family followed by sixteen address bytes
// (IPv4 in the first four). The empty IpGenAddr has no family and prints as "none".
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>

#include "Mosk/AttributeLog.h"
#include "Mosk/Hash.h"
#include "Mosk/Value.h"

namespace Ludd {

class IpAddr {
 public:
  constexpr IpAddr() = default;
  // From a host-order 32-bit value (1.2.3.4 is 0x01020304).
  static IpAddr fromU32(U32 hostOrder);
  // Parses dotted-quad text (decimal octets, no leading zeros); a malformed address raises the
  // parse error.
  static IpAddr parse(std::string_view text);

  U32 toU32() const;
  bool isZero() const { return bytes_ == std::array<U8, 4>{}; }
  std::array<U8, 4> const& bytes() const { return bytes_; }

  bool operator==(IpAddr const&) const = default;
  auto operator<=>(IpAddr const&) const = default;  // numeric order of the address
  U32 hash() const;
  void strep(std::ostream& os) const;
  static IpAddr strepRead(Mosk::TextReader& r);
  // Attribute-log form (network byte order); reading runs the same checks as construction.
  void logWrite(Mosk::LogWriter& w) const { w.bytes(bytes_.data(), 4); }
  static IpAddr logRead(Mosk::LogReader& r) {
    IpAddr a;
    r.bytes(a.bytes_.data(), 4, "IPv4 address");
    return a;
  }

 private:
  std::array<U8, 4> bytes_{};
};

class IpGenAddr {
 public:
  enum class Family : U32 { none = 0, ipv4 = 4, ipv6 = 6 };

  constexpr IpGenAddr() = default;
  IpGenAddr(IpAddr const& v4);  // NOLINT: an IPv4 address is a generic address
  static IpGenAddr ipv6(std::array<U8, 16> const& bytes);
  // Parses IPv4 dotted-quad or IPv6 text (with "::" compression), or "none".
  static IpGenAddr parse(std::string_view text);

  Family family() const { return family_; }
  bool isIpv4() const { return family_ == Family::ipv4; }
  bool isIpv6() const { return family_ == Family::ipv6; }
  bool isEmpty() const { return family_ == Family::none; }
  // The IPv4 address; only meaningful when isIpv4().
  IpAddr v4() const;
  std::array<U8, 16> const& bytes() const { return bytes_; }

  bool operator==(IpGenAddr const&) const = default;
  // Empty first, then IPv4, then IPv6; within a family by address.
  auto operator<=>(IpGenAddr const&) const = default;
  // The runtime's mix of the family and the sixteen bytes, four at a time in network order.
  // Inline: a policy key is hashed at nearly every lookup along the pipeline.
  U32 hash() const {
    Mosk::HashMix mix;
    mix.add(static_cast<U32>(family_));
    for (std::size_t i = 0; i < 16; i += 4) {
      U32 word;
      std::memcpy(&word, bytes_.data() + i, sizeof word);
      if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap32(word);
      mix.add(word);
    }
    return mix.final();
  }
  void strep(std::ostream& os) const;
  static IpGenAddr strepRead(Mosk::TextReader& r);
  // Attribute-log form: the family (0, 4 or 6) as one byte, then 0, 4 or 16 address bytes.
  void logWrite(Mosk::LogWriter& w) const;
  static IpGenAddr logRead(Mosk::LogReader& r);

 private:
  Family family_ = Family::none;
  std::array<U8, 16> bytes_{};
};

static_assert(sizeof(IpAddr) == 4);
static_assert(sizeof(IpGenAddr) == 20);

std::ostream& operator<<(std::ostream& os, IpAddr const& a);
std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);

}  // namespace Ludd
