// BGP-4 messages as they travel: the 19-octet header, OPEN with its capabilities, NOTIFICATION
// and KEEPALIVE, read from bounded byte spans and written into byte vectors. The UPDATE of SR
// Policy paths has its own decoder (SrPolicyDecoder.h).
//
// Every reader takes a span and its length, never reads past it and never trusts a length it
// read without checking it against what is left; a message it cannot take is answered by the
// NOTIFICATION code and subcode that the refusal carries.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Ludd/IpAddr.h"
#include "Mosk/Types.h"

namespace SrTeBgp {

using Bytes = std::vector<U8>;

inline constexpr std::size_t headerSize = 19;
inline constexpr std::size_t maxMessageSize = 4096;
inline constexpr U16 asTrans = 23456;
inline constexpr U8 safiSrPolicy = 73;

enum class MessageType : U8 { open = 1, update = 2, notification = 3, keepalive = 4, refresh = 5 };

// NOTIFICATION error codes and the subcodes this speaker sends or names.
namespace Error {
inline constexpr U8 header = 1, open = 2, update = 3, holdTimer = 4, fsm = 5, cease = 6;
// message header error
inline constexpr U8 notSynchronized = 1, badLength = 2, badType = 3;
// OPEN message error
inline constexpr U8 badVersion = 1, badPeerAs = 2, badIdentifier = 3, badOptionalParameter = 4,
                    badHoldTime = 6, unsupportedCapability = 7;
// UPDATE message error
inline constexpr U8 malformedAttributeList = 1, attributeLength = 5, optionalAttribute = 9;
// cease
inline constexpr U8 adminShutdown = 2, peerDeconfigured = 3, connectionRejected = 5, collision = 7;
}  // namespace Error

// "OPEN message error, bad peer AS" and the like, for events and logs.
std::string notificationText(U8 code, U8 subcode);

// A NOTIFICATION: code, subcode and data.
struct Notification {
  U8 code = 0;
  U8 subcode = 0;
  Bytes data;
};

// Why a message was refused, with the NOTIFICATION that answers it.
struct Refusal {
  U8 code = 0;
  U8 subcode = 0;
  Bytes data;
  std::string reason;
};

// The address families of SR Policy paths this speaker offers and takes.
struct Families {
  bool ipv4 = false;  // AFI 1, SAFI 73
  bool ipv6 = false;  // AFI 2, SAFI 73
  bool any() const { return ipv4 || ipv6; }
  bool operator==(Families const&) const = default;
};

struct Open {
  U8 version = 4;
  U32 as = 0;  // the 4-octet AS when the capability was offered, else the 2-octet field
  U16 holdTime = 0;
  Ludd::IpAddr identifier;
  bool fourOctetAs = false;
  Families families;
  // Capability codes offered that this speaker does not use (GoBGP offers 2, 5 and 73).
  std::vector<U8> otherCapabilities;
};

// A message header checked: marker, a length from 19 to 4096 that fits its type, and a known
// type. `length` is the whole message's.
struct Header {
  MessageType type{};
  U16 length = 0;
};
// Reads the header at `p` (headerSize bytes). Refuses with a message header error.
std::optional<Header> readHeader(U8 const* p, Refusal& refusal);

// Reads an OPEN body (after the header) of `n` bytes. Refuses with the OPEN error that the
// message calls for; `peerAs` is the configured AS of the peer (0: any).
std::optional<Open> readOpen(U8 const* p, std::size_t n, U32 peerAs, Refusal& refusal);

// Reads a NOTIFICATION body of `n` bytes; refuses one shorter than its code and subcode.
std::optional<Notification> readNotification(U8 const* p, std::size_t n, Refusal& refusal);

// Whole messages, header included.
Bytes openMessage(U32 as, U16 holdTime, Ludd::IpAddr identifier, Families families);
Bytes keepaliveMessage();
Bytes notificationMessage(U8 code, U8 subcode, Bytes const& data = {});

// Appends the header of a message of `bodySize` bytes of type `type` to `out`.
void appendHeader(Bytes& out, MessageType type, std::size_t bodySize);

inline U16 get16(U8 const* p) {
  return static_cast<U16>(p[0] << 8 | p[1]);
}
inline U32 get32(U8 const* p) {
  return U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | U32(p[3]);
}
inline void put16(Bytes& out, U32 v) {
  out.push_back(static_cast<U8>(v >> 8));
  out.push_back(static_cast<U8>(v));
}
inline void put32(Bytes& out, U32 v) {
  put16(out, v >> 16);
  put16(out, v);
}

}  // namespace SrTeBgp
