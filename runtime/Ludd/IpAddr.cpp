#include "Ludd/IpAddr.h"

#include <cctype>
#include <vector>

namespace Ludd {

namespace {

bool isAddrChar(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) || c == '.' || c == ':';
}

// Reads four decimal octets without leading zeros; returns false on any malformation.
bool parseV4(std::string_view text, std::array<U8, 4>& out) {
  std::size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      if (pos >= text.size() || text[pos] != '.') return false;
      ++pos;
    }
    std::size_t start = pos;
    U32 v = 0;
    while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])) &&
           pos - start < 3) {
      v = v * 10 + static_cast<U32>(text[pos] - '0');
      ++pos;
    }
    // "010" is refused rather than read as ten: other readers take a leading zero for octal.
    if (pos == start || v > 255 || (pos - start > 1 && text[start] == '0')) return false;
    out[i] = static_cast<U8>(v);
  }
  return pos == text.size();
}

bool parseV6(std::string_view text, std::array<U8, 16>& out) {
  std::vector<U16> head, tail;
  bool compressed = false;
  std::size_t pos = 0;
  if (text.substr(0, 2) == "::") {
    compressed = true;
    pos = 2;
  }
  auto* groups = compressed ? &tail : &head;
  while (pos < text.size()) {
    // An embedded IPv4 tail ("::ffff:1.2.3.4").
    std::size_t colon = text.find(':', pos);
    std::string_view part =
        text.substr(pos, colon == std::string_view::npos ? text.npos : colon - pos);
    if (part.find('.') != std::string_view::npos) {
      std::array<U8, 4> v4;
      if (colon != std::string_view::npos || !parseV4(part, v4)) return false;
      groups->push_back(static_cast<U16>(v4[0] << 8 | v4[1]));
      groups->push_back(static_cast<U16>(v4[2] << 8 | v4[3]));
      pos = text.size();
      break;
    }
    if (part.empty() || part.size() > 4) return false;
    U32 g = 0;
    for (char c : part) {
      if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
      g = g * 16 + static_cast<U32>(std::isdigit(static_cast<unsigned char>(c))
                                        ? c - '0'
                                        : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
    }
    groups->push_back(static_cast<U16>(g));
    if (colon == std::string_view::npos) {
      pos = text.size();
      break;
    }
    pos = colon + 1;
    if (pos < text.size() && text[pos] == ':') {
      if (compressed) return false;
      compressed = true;
      groups = &tail;
      ++pos;
    } else if (pos == text.size()) {
      return false;  // a trailing single colon
    }
  }
  std::size_t total = head.size() + tail.size();
  if (compressed ? total > 7 : total != 8) return false;
  std::vector<U16> all(head);
  all.resize(8 - tail.size(), 0);
  all.insert(all.end(), tail.begin(), tail.end());
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<U8>(all[i] >> 8);
    out[2 * i + 1] = static_cast<U8>(all[i]);
  }
  return true;
}

void writeV6(std::ostream& os, std::array<U8, 16> const& b) {
  U16 g[8];
  for (int i = 0; i < 8; ++i)
    g[i] = static_cast<U16>(b[2 * i] << 8 | b[2 * i + 1]);
  // The longest run of two or more zero groups is written as "::".
  int bestStart = -1, bestLen = 0;
  for (int i = 0; i < 8;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && g[j] == 0)
      ++j;
    if (j - i > bestLen && j - i >= 2) {
      bestStart = i;
      bestLen = j - i;
    }
    i = j;
  }
  std::ios::fmtflags flags = os.flags();
  os << std::hex;
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      os << "::";
      i += bestLen - 1;
      continue;
    }
    if (i > 0 && i != bestStart + bestLen) os << ':';
    os << g[i];
  }
  os.flags(flags);
}

}  // namespace

IpAddr IpAddr::fromU32(U32 v) {
  IpAddr a;
  a.bytes_ = {static_cast<U8>(v >> 24), static_cast<U8>(v >> 16), static_cast<U8>(v >> 8),
              static_cast<U8>(v)};
  return a;
}

U32 IpAddr::toU32() const {
  return static_cast<U32>(bytes_[0]) << 24 | static_cast<U32>(bytes_[1]) << 16 |
         static_cast<U32>(bytes_[2]) << 8 | bytes_[3];
}

IpAddr IpAddr::parse(std::string_view text) {
  IpAddr a;
  if (!parseV4(text, a.bytes_)) {
    throw Mosk::ParseException("malformed IPv4 address \"" + std::string(text) + "\"");
  }
  return a;
}

U32 IpAddr::hash() const {
  return Mosk::hashU32(toU32());
}

void IpAddr::strep(std::ostream& os) const {
  os << static_cast<U32>(bytes_[0]) << '.' << static_cast<U32>(bytes_[1]) << '.'
     << static_cast<U32>(bytes_[2]) << '.' << static_cast<U32>(bytes_[3]);
}

IpAddr IpAddr::strepRead(Mosk::TextReader& r) {
  auto text =
      r.take([](char c) { return std::isdigit(static_cast<unsigned char>(c)) || c == '.'; });
  IpAddr a;
  if (!parseV4(text, a.bytes_)) r.fail("malformed IPv4 address \"" + std::string(text) + "\"");
  return a;
}

IpGenAddr::IpGenAddr(IpAddr const& v4) : family_(Family::ipv4) {
  for (int i = 0; i < 4; ++i)
    bytes_[i] = v4.bytes()[i];
}

IpGenAddr IpGenAddr::ipv6(std::array<U8, 16> const& bytes) {
  IpGenAddr a;
  a.family_ = Family::ipv6;
  a.bytes_ = bytes;
  return a;
}

IpAddr IpGenAddr::v4() const {
  return IpAddr::fromU32(static_cast<U32>(bytes_[0]) << 24 | static_cast<U32>(bytes_[1]) << 16 |
                         static_cast<U32>(bytes_[2]) << 8 | bytes_[3]);
}

IpGenAddr IpGenAddr::parse(std::string_view text) {
  Mosk::TextReader r(text);
  IpGenAddr a = strepRead(r);
  r.expectEnd();
  return a;
}

void IpGenAddr::strep(std::ostream& os) const {
  switch (family_) {
    case Family::none:
      os << "none";
      return;
    case Family::ipv4:
      v4().strep(os);
      return;
    case Family::ipv6:
      writeV6(os, bytes_);
      return;
  }
}

void IpGenAddr::logWrite(Mosk::LogWriter& w) const {
  w.u8(static_cast<U8>(family_));
  if (family_ == Family::ipv4) w.bytes(bytes_.data(), 4);
  if (family_ == Family::ipv6) w.bytes(bytes_.data(), 16);
}

IpGenAddr IpGenAddr::logRead(Mosk::LogReader& r) {
  U8 family = r.u8("address family");
  IpGenAddr a;
  if (family == 4) {
    a.family_ = Family::ipv4;
    r.bytes(a.bytes_.data(), 4, "IPv4 address");
  } else if (family == 6) {
    a.family_ = Family::ipv6;
    r.bytes(a.bytes_.data(), 16, "IPv6 address");
  } else if (family != 0) {
    throw Mosk::RangeException("IpGenAddr family " + std::to_string(family) + " not allowed");
  }
  return a;
}

IpGenAddr IpGenAddr::strepRead(Mosk::TextReader& r) {
  if (r.accept("none")) return IpGenAddr();
  auto text = r.take(isAddrChar);
  if (text.find(':') == std::string_view::npos) {
    std::array<U8, 4> b;
    if (!parseV4(text, b)) r.fail("malformed IP address \"" + std::string(text) + "\"");
    return IpGenAddr(IpAddr::fromU32(static_cast<U32>(b[0]) << 24 | static_cast<U32>(b[1]) << 16 |
                                     static_cast<U32>(b[2]) << 8 | b[3]));
  }
  std::array<U8, 16> b;
  if (!parseV6(text, b)) r.fail("malformed IPv6 address \"" + std::string(text) + "\"");
  return ipv6(b);
}

std::ostream& operator<<(std::ostream& os, IpAddr const& a) {
  a.strep(os);
  return os;
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) {
  a.strep(os);
  return os;
}

}  // namespace Ludd
