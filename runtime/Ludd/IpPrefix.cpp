#include "Ludd/IpPrefix.h"

#include <string>

namespace Ludd {

IpGenPrefix::IpGenPrefix(IpGenAddr const& address, U32 length) {
  U32 width = address.isIpv4() ? 32 : address.isIpv6() ? 128 : 0;
  if (length > width) {
    throw Mosk::RangeException("prefix length " + std::to_string(length) + " of " +
                               Mosk::valueToStrep(address) + " above " + std::to_string(width));
  }
  std::array<U8, 16> bytes = address.bytes();
  for (U32 bit = length; bit < width; ++bit)
    bytes[bit / 8] &= static_cast<U8>(~(0x80u >> (bit % 8)));
  if (address.isIpv4()) {
    address_ = IpGenAddr(IpAddr::fromU32(static_cast<U32>(bytes[0]) << 24 |
                                         static_cast<U32>(bytes[1]) << 16 |
                                         static_cast<U32>(bytes[2]) << 8 | bytes[3]));
  } else if (address.isIpv6()) {
    address_ = IpGenAddr::ipv6(bytes);
  }
  length_ = static_cast<U8>(length);
}

IpGenPrefix IpGenPrefix::parse(std::string_view text) {
  Mosk::TextReader r(text);
  IpGenPrefix p = strepRead(r);
  r.expectEnd();
  return p;
}

void IpGenPrefix::strep(std::ostream& os) const {
  if (isEmpty()) {
    os << "none";
    return;
  }
  address_.strep(os);
  os << '/' << static_cast<U32>(length_);
}

IpGenPrefix IpGenPrefix::strepRead(Mosk::TextReader& r) {
  IpGenAddr address = IpGenAddr::strepRead(r);
  if (address.isEmpty()) return IpGenPrefix();
  r.expect("/");
  return IpGenPrefix(address, static_cast<U32>(r.readUnsigned(128, "prefix length")));
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p) {
  p.strep(os);
  return os;
}

}  // namespace Ludd
