// IP prefixes: an IPv4 or IPv6 address and a prefix length, host bits cleared. The empty prefix
// (no address family) is the default and prints as "none"; others print as "10.1.0.0/16".
#pragma once

#include <compare>
#include <ostream>

#include "Ludd/IpAddr.h"

namespace Ludd {

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // The prefix of `length` bits of `address`, host bits cleared. A length above the family's
  // width, or a non-zero length on the empty address, raises the range error.
  IpGenPrefix(IpGenAddr const& address, U32 length);
  static IpGenPrefix parse(std::string_view text);

  IpGenAddr const& address() const { return address_; }
  U32 length() const { return length_; }
  bool isEmpty() const { return address_.isEmpty(); }

  bool operator==(IpGenPrefix const&) const = default;
  auto operator<=>(IpGenPrefix const&) const = default;
  U32 hash() const { return Mosk::HashMix().add(address_.hash()).add(length_).final(); }
  void strep(std::ostream& os) const;
  static IpGenPrefix strepRead(Mosk::TextReader& r);
  // Attribute-log form: the address, then the length as one byte (range-checked on reading).
  void logWrite(Mosk::LogWriter& w) const {
    address_.logWrite(w);
    w.u8(length_);
  }
  static IpGenPrefix logRead(Mosk::LogReader& r) {
    IpGenAddr address = IpGenAddr::logRead(r);
    return IpGenPrefix(address, r.u8("prefix length"));
  }

 private:
  IpGenAddr address_;
  U8 length_ = 0;
};

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p);

}  // namespace Ludd
