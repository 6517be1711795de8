// Interface identifiers.
//
// An IntfId is a 32-bit number whose top byte names the kind of interface and whose low 24 bits
// its number: Ethernet1 is kind 1, number 1. The empty id (0) is "the empty interface name".
// Next-hop groups and dynamic tunnels have reserved kinds, so that resolution can recognise
// them from the id alone (FecIdIntfId::isNexthopGroupIdIntfId,
// DynamicTunnelIntfId::isDynamicTunnelIntfId).
#pragma once

#include <ostream>
#include <string_view>

#include "Mosk/AttributeLog.h"
#include "Mosk/Value.h"

namespace Ludd {

class IntfId {
 public:
  enum class Kind : U8 {
    none = 0,
    ethernet = 1,
    vlan = 2,
    loopback = 3,
    portChannel = 4,
    tunnel = 5,
    nexthopGroup = 0x10,   // reserved: next-hop groups
    dynamicTunnel = 0x11,  // reserved: dynamically created tunnels
    pseudowire = 0x12,
  };
  static constexpr U32 maxNumber = 0xFFFFFF;

  constexpr IntfId() = default;
  // The interface of this kind and number; a number above 2^24-1 raises the range error.
  IntfId(Kind kind, U32 number);
  // Parses "Ethernet3", "NexthopGroup7", ..., or the empty text.
  static IntfId parse(std::string_view text);

  Kind kind() const { return static_cast<Kind>(value_ >> 24); }
  U32 number() const { return value_ & maxNumber; }
  U32 value() const { return value_; }
  bool isEmpty() const { return value_ == 0; }

  bool operator==(IntfId const&) const = default;
  auto operator<=>(IntfId const&) const = default;
  U32 hash() const { return Mosk::hashU32(value_); }
  void strep(std::ostream& os) const;
  static IntfId strepRead(Mosk::TextReader& r);
  // Attribute-log form: the 32-bit id.
  void logWrite(Mosk::LogWriter& w) const { w.u32(value_); }
  static IntfId logRead(Mosk::LogReader& r) {
    IntfId i;
    i.value_ = r.u32("interface id");
    return i;
  }

 private:
  U32 value_ = 0;
};

std::ostream& operator<<(std::ostream& os, IntfId const& i);

}  // namespace Ludd

// The interface-id tests that resolution uses to skip forwarding that cannot carry a policy.
namespace FecIdIntfId {
inline bool isNexthopGroupIdIntfId(Ludd::IntfId const& i) {
  return i.kind() == Ludd::IntfId::Kind::nexthopGroup;
}
}  // namespace FecIdIntfId

namespace DynamicTunnelIntfId {
inline bool isDynamicTunnelIntfId(Ludd::IntfId const& i) {
  return i.kind() == Ludd::IntfId::Kind::dynamicTunnel;
}
}  // namespace DynamicTunnelIntfId
