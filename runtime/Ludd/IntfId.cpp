#include "Ludd/IntfId.h"

#include <cctype>
#include <string>

namespace Ludd {

namespace {

struct KindName {
  IntfId::Kind kind;
  char const* name;
};

constexpr KindName kKindNames[] = {
    {IntfId::Kind::ethernet, "Ethernet"},
    {IntfId::Kind::vlan, "Vlan"},
    {IntfId::Kind::loopback, "Loopback"},
    {IntfId::Kind::portChannel, "Port-Channel"},
    {IntfId::Kind::tunnel, "Tunnel"},
    {IntfId::Kind::nexthopGroup, "NexthopGroup"},
    {IntfId::Kind::dynamicTunnel, "DynamicTunnel"},
    {IntfId::Kind::pseudowire, "Pseudowire"},
};

}  // namespace

IntfId::IntfId(Kind kind, U32 number) {
  if (number > maxNumber) {
    throw Mosk::RangeException("IntfId number " + std::to_string(number) + " above 16777215");
  }
  value_ = static_cast<U32>(kind) << 24 | number;
}

IntfId IntfId::parse(std::string_view text) {
  Mosk::TextReader r(text);
  IntfId i = strepRead(r);
  r.expectEnd();
  return i;
}

void IntfId::strep(std::ostream& os) const {
  if (isEmpty()) return;
  for (auto const& k : kKindNames) {
    if (k.kind == kind()) {
      os << k.name << number();
      return;
    }
  }
  os << "Intf" << value_;
}

IntfId IntfId::strepRead(Mosk::TextReader& r) {
  auto name =
      r.take([](char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '-'; });
  if (name.empty()) return IntfId();
  U32 number = static_cast<U32>(r.readUnsigned(Mosk::maxU32, "interface number"));
  if (name == "Intf") {
    IntfId i;
    i.value_ = number;
    return i;
  }
  for (auto const& k : kKindNames) {
    if (name == k.name) return IntfId(k.kind, number);
  }
  r.fail("unknown interface kind \"" + std::string(name) + "\"");
}

std::ostream& operator<<(std::ostream& os, IntfId const& i) {
  i.strep(os);
  return os;
}

}  // namespace Ludd
