// Addresses, prefixes and interface names as configuration and tools write them
// (IpAddr::parse, IpGenAddr::parse, IpGenPrefix::parse, IntfId::parse). The whole input is the
// text. Besides the round trip, the addresses are held against the C library's own reader:
// both must accept the same IPv4 and IPv6 texts and read them to the same bytes.
#include <arpa/inet.h>

#include <optional>

#include "Fuzz.h"
#include "Ludd/IntfId.h"
#include "Ludd/IpAddr.h"
#include "Ludd/IpPrefix.h"

namespace {

template <class T>
void roundTrip(char const* type, std::string_view text) {
  std::optional<T> first;
  if (Fuzz::refused([&] { first.emplace(T::parse(text)); })) return;
  std::string const printed = Mosk::valueToStrep(*first);
  std::optional<T> second;
  if (Fuzz::refused([&] { second.emplace(T::parse(printed)); })) {
    Fuzz::fail(std::string(type) + ": the printed text \"" + printed + "\" does not parse");
  }
  Fuzz::check(*second == *first, std::string(type) + ": \"" + std::string(text) + "\" and \"" +
                                     printed + "\" parse to different values");
  Fuzz::check(Mosk::valueToStrep(*second) == printed,
              std::string(type) + ": \"" + printed + "\" does not print as itself");
}

// The C library reads the text as an IPv4 or IPv6 address; so must IpGenAddr, to the same
// bytes, and IpGenAddr must refuse what it refuses.
void sameAsCLibrary(std::string const& text) {
  std::optional<Ludd::IpGenAddr> ours;
  bool const refused = Fuzz::refused([&] { ours.emplace(Ludd::IpGenAddr::parse(text)); });
  if (text == "none") return;  // the empty address, which has no C form
  unsigned char v4[4], v6[16];
  bool const isV4 = inet_pton(AF_INET, text.c_str(), v4) == 1;
  bool const isV6 = !isV4 && inet_pton(AF_INET6, text.c_str(), v6) == 1;
  Fuzz::check(refused == !(isV4 || isV6),
              "\"" + text + "\" is " + (refused ? "refused" : "accepted") +
                  " as an address, the C library " + (refused ? "accepts" : "refuses") + " it");
  if (refused) return;
  if (isV4) {
    Fuzz::check(ours->isIpv4() && std::equal(v4, v4 + 4, ours->bytes().begin()),
                "\"" + text + "\" reads as " + Mosk::valueToStrep(*ours));
    std::optional<Ludd::IpAddr> plain;
    Fuzz::check(!Fuzz::refused([&] { plain.emplace(Ludd::IpAddr::parse(text)); }) &&
                    plain->bytes() == ours->v4().bytes(),
                "\"" + text + "\" reads as an address but not as an IPv4 address");
  } else {
    Fuzz::check(ours->isIpv6() && std::equal(v6, v6 + 16, ours->bytes().begin()),
                "\"" + text + "\" reads as " + Mosk::valueToStrep(*ours));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text = Fuzz::text(data, size);
  roundTrip<Ludd::IpAddr>("IpAddr", text);
  roundTrip<Ludd::IpGenAddr>("IpGenAddr", text);
  roundTrip<Ludd::IpGenPrefix>("IpGenPrefix", text);
  roundTrip<Ludd::IntfId>("IntfId", text);
  if (text.find('\0') == std::string_view::npos) sameAsCLibrary(std::string(text));
  return 0;
}
