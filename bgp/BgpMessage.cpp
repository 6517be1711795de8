// BGP-4 headers, OPEN, NOTIFICATION and KEEPALIVE.
#include "BgpMessage.h"

#include <algorithm>

namespace SrTeBgp {

namespace {

constexpr U8 paramCapabilities = 2;
constexpr U8 capMultiprotocol = 1;
constexpr U8 capFourOctetAs = 65;

std::optional<Header> refuse(Refusal& r, U8 subcode, Bytes data, std::string reason) {
  r = Refusal{Error::header, subcode, std::move(data), std::move(reason)};
  return std::nullopt;
}

std::optional<Open> refuseOpen(Refusal& r, U8 subcode, Bytes data, std::string reason) {
  r = Refusal{Error::open, subcode, std::move(data), std::move(reason)};
  return std::nullopt;
}

}  // namespace

std::string notificationText(U8 code, U8 subcode) {
  static char const* const codes[] = {"",
                                      "message header error",
                                      "OPEN message error",
                                      "UPDATE message error",
                                      "hold timer expired",
                                      "finite state machine error",
                                      "cease"};
  static char const* const header[] = {"", "connection not synchronised", "bad message length",
                                       "bad message type"};
  static char const* const open[] = {"",
                                     "unsupported version number",
                                     "bad peer AS",
                                     "bad BGP identifier",
                                     "unsupported optional parameter",
                                     "",
                                     "unacceptable hold time",
                                     "unsupported capability"};
  static char const* const update[] = {"",
                                       "malformed attribute list",
                                       "unrecognised well-known attribute",
                                       "missing well-known attribute",
                                       "attribute flags error",
                                       "attribute length error",
                                       "invalid ORIGIN attribute",
                                       "",
                                       "invalid NEXT_HOP attribute",
                                       "optional attribute error",
                                       "invalid network field",
                                       "malformed AS_PATH"};
  static char const* const cease[] = {"",
                                      "maximum number of prefixes reached",
                                      "administrative shutdown",
                                      "peer de-configured",
                                      "administrative reset",
                                      "connection rejected",
                                      "other configuration change",
                                      "connection collision resolution",
                                      "out of resources",
                                      "hard reset"};
  std::string text = code >= 1 && code <= 6 ? codes[code] : "error code " + std::to_string(code);
  auto pick = [&](char const* const* names, std::size_t count) -> std::string {
    if (subcode < count && names[subcode][0]) return names[subcode];
    return "subcode " + std::to_string(subcode);
  };
  if (subcode == 0) return text;
  switch (code) {
    case Error::header:
      return text + ", " + pick(header, std::size(header));
    case Error::open:
      return text + ", " + pick(open, std::size(open));
    case Error::update:
      return text + ", " + pick(update, std::size(update));
    case Error::cease:
      return text + ", " + pick(cease, std::size(cease));
    default:
      return text + ", subcode " + std::to_string(subcode);
  }
}

std::optional<Header> readHeader(U8 const* p, Refusal& r) {
  if (!std::all_of(p, p + 16, [](U8 b) { return b == 0xff; })) {
    return refuse(r, Error::notSynchronized, {}, "the marker is not all ones");
  }
  Header h;
  h.length = get16(p + 16);
  U8 const type = p[18];
  Bytes const lengthData{p[16], p[17]};
  if (h.length < headerSize || h.length > maxMessageSize) {
    return refuse(r, Error::badLength, lengthData,
                  "message length " + std::to_string(h.length) + " is not 19 to 4096");
  }
  std::size_t min = headerSize, max = maxMessageSize;
  switch (type) {
    case U8(MessageType::open):
      min = 29;
      break;
    case U8(MessageType::update):
      min = 23;
      break;
    case U8(MessageType::notification):
      min = 21;
      break;
    case U8(MessageType::keepalive):
      max = headerSize;
      break;
    case U8(MessageType::refresh):
      min = max = 23;
      break;
    default:
      return refuse(r, Error::badType, {type}, "unknown message type " + std::to_string(type));
  }
  if (h.length < min || h.length > max) {
    return refuse(r, Error::badLength, lengthData,
                  "message length " + std::to_string(h.length) + " does not fit message type " +
                      std::to_string(type));
  }
  h.type = static_cast<MessageType>(type);
  return h;
}

std::optional<Open> readOpen(U8 const* p, std::size_t n, U32 peerAs, Refusal& r) {
  if (n < 10) return refuseOpen(r, 0, {}, "OPEN shorter than its fixed part");
  Open o;
  o.version = p[0];
  U16 const as2 = get16(p + 1);
  o.holdTime = get16(p + 3);
  o.identifier = Ludd::IpAddr::fromU32(get32(p + 5));
  std::size_t const paramsLength = p[9];
  if (o.version != 4) {
    return refuseOpen(r, Error::badVersion, {0, 4},
                      "version " + std::to_string(o.version) + "; only 4 is supported");
  }
  if (paramsLength != n - 10) {
    return refuseOpen(r, 0, {},
                      "optional parameters length " + std::to_string(paramsLength) + " but " +
                          std::to_string(n - 10) + " octets follow");
  }
  U32 as4 = 0;
  std::size_t at = 10;
  while (at < n) {
    if (n - at < 2) return refuseOpen(r, 0, {}, "an optional parameter is cut short");
    U8 const type = p[at];
    std::size_t const length = p[at + 1];
    at += 2;
    if (length > n - at) return refuseOpen(r, 0, {}, "an optional parameter overruns the OPEN");
    if (type != paramCapabilities) {
      return refuseOpen(r, Error::badOptionalParameter, {},
                        "optional parameter type " + std::to_string(type) + " is not supported");
    }
    std::size_t const end = at + length;
    while (at < end) {
      if (end - at < 2) return refuseOpen(r, 0, {}, "a capability is cut short");
      U8 const code = p[at];
      std::size_t const capLength = p[at + 1];
      at += 2;
      if (capLength > end - at) return refuseOpen(r, 0, {}, "a capability overruns its parameter");
      U8 const* v = p + at;
      if (code == capMultiprotocol) {
        if (capLength != 4) {
          return refuseOpen(r, 0, {},
                            "multiprotocol capability of length " + std::to_string(capLength));
        }
        U16 const afi = get16(v);
        if (v[3] == safiSrPolicy && afi == 1) o.families.ipv4 = true;
        if (v[3] == safiSrPolicy && afi == 2) o.families.ipv6 = true;
      } else if (code == capFourOctetAs) {
        if (capLength != 4) {
          return refuseOpen(r, 0, {},
                            "4-octet AS capability of length " + std::to_string(capLength));
        }
        o.fourOctetAs = true;
        as4 = get32(v);
      } else if (std::find(o.otherCapabilities.begin(), o.otherCapabilities.end(), code) ==
                 o.otherCapabilities.end()) {
        o.otherCapabilities.push_back(code);
      }
      at += capLength;
    }
  }
  o.as = o.fourOctetAs ? as4 : as2;
  if (o.as == 0 || (peerAs != 0 && o.as != peerAs)) {
    return refuseOpen(
        r, Error::badPeerAs, {},
        "the peer says AS " + std::to_string(o.as) + ", configured " + std::to_string(peerAs));
  }
  if (o.holdTime == 1 || o.holdTime == 2) {
    return refuseOpen(r, Error::badHoldTime, {},
                      "hold time " + std::to_string(o.holdTime) + "; it must be 0 or at least 3");
  }
  if (o.identifier.isZero()) return refuseOpen(r, Error::badIdentifier, {}, "BGP identifier 0");
  return o;
}

std::optional<Notification> readNotification(U8 const* p, std::size_t n, Refusal& r) {
  if (n < 2) {
    r = Refusal{Error::header, Error::badLength, {}, "NOTIFICATION without code and subcode"};
    return std::nullopt;
  }
  return Notification{p[0], p[1], Bytes(p + 2, p + n)};
}

void appendHeader(Bytes& out, MessageType type, std::size_t bodySize) {
  out.insert(out.end(), 16, 0xff);
  put16(out, static_cast<U32>(headerSize + bodySize));
  out.push_back(static_cast<U8>(type));
}

Bytes openMessage(U32 as, U16 holdTime, Ludd::IpAddr identifier, Families families) {
  Bytes caps;
  auto mp = [&caps](U16 afi) {
    caps.insert(caps.end(), {capMultiprotocol, 4});
    put16(caps, afi);
    caps.insert(caps.end(), {0, safiSrPolicy});
  };
  if (families.ipv4) mp(1);
  if (families.ipv6) mp(2);
  caps.insert(caps.end(), {capFourOctetAs, 4});
  put32(caps, as);

  Bytes body;
  body.push_back(4);
  put16(body, as > 0xffff ? asTrans : as);
  put16(body, holdTime);
  put32(body, identifier.toU32());
  body.push_back(static_cast<U8>(caps.size() + 2));
  body.push_back(paramCapabilities);
  body.push_back(static_cast<U8>(caps.size()));
  body.insert(body.end(), caps.begin(), caps.end());
  Bytes out;
  appendHeader(out, MessageType::open, body.size());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

Bytes keepaliveMessage() {
  Bytes out;
  appendHeader(out, MessageType::keepalive, 0);
  return out;
}

Bytes notificationMessage(U8 code, U8 subcode, Bytes const& data) {
  Bytes out;
  appendHeader(out, MessageType::notification, 2 + data.size());
  out.push_back(code);
  out.push_back(subcode);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

}  // namespace SrTeBgp
