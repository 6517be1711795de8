// The text form of every value type. The first byte picks the type (an index into kTypes; new
// types go at the end so that kept inputs keep their meaning), the rest is parsed as that
// type's text. A parse either fails with a runtime error or yields a value whose printed text
// parses back to an equal value that prints, and hashes, the same.
#include <optional>

#include "Fib/FibTypes.h"
#include "Fuzz.h"
#include "Ludd/IntfId.h"
#include "Ludd/IpAddr.h"
#include "Ludd/IpPrefix.h"
#include "Ludd/Ludd.h"
#include "Ludd/MplsLabel.h"
#include "Mpls/MplsStatus.h"
#include "Mpls/MplsTypes.h"
#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicyExportTypes.h"
#include "SrTePolicy/SrTePolicyTypes.h"
#include "Tunnel/MplsVia.h"
#include "Tunnel/TunnelId.h"
#include "Vell/Vell.h"

namespace {

template <class T>
void roundTrip(char const* type, std::string_view text) {
  std::optional<T> first;
  if (Fuzz::refused([&] { first.emplace(Mosk::parse<T>(text)); })) return;
  std::string const printed = Mosk::valueToStrep(*first);
  std::optional<T> second;
  if (Fuzz::refused([&] { second.emplace(Mosk::parse<T>(printed)); })) {
    Fuzz::fail(std::string(type) + ": the printed text \"" + printed + "\" of \"" +
               std::string(text) + "\" does not parse");
  }
  Fuzz::check(*second == *first, std::string(type) + ": \"" + std::string(text) +
                                     "\" and its printed text \"" + printed +
                                     "\" parse to different values");
  Fuzz::check(Mosk::valueToStrep(*second) == printed, std::string(type) + ": \"" + printed +
                                                          "\" prints as \"" +
                                                          Mosk::valueToStrep(*second) + "\"");
  Fuzz::check(Mosk::hashOf(*second) == Mosk::hashOf(*first),
              std::string(type) + ": equal values of \"" + printed + "\" hash differently");
}

struct TextType {
  char const* name;
  void (*check)(char const*, std::string_view);
};

#define SRTE_TEXT_TYPE(T) \
  TextType {              \
#T, &roundTrip < T>   \
  }

TextType const kTypes[] = {
    SRTE_TEXT_TYPE(SrTePolicy::Preference),
    SRTE_TEXT_TYPE(SrTePolicy::Weight),
    SRTE_TEXT_TYPE(SrTePolicy::SegmentListIndex),
    SRTE_TEXT_TYPE(SrTePolicy::Color),
    SRTE_TEXT_TYPE(SrTePolicy::PolicyId),
    SRTE_TEXT_TYPE(SrTePolicy::SegmentListId),
    SRTE_TEXT_TYPE(SrTePolicy::SegmentId),
    SRTE_TEXT_TYPE(SrTePolicy::PolicySource),
    SRTE_TEXT_TYPE(SrTePolicy::SegmentType),
    SRTE_TEXT_TYPE(SrTePolicy::PolicyKey),
    SRTE_TEXT_TYPE(SrTePolicy::PolicyEcpKey),
    SRTE_TEXT_TYPE(SrTePolicy::BsidKeyedPolicy),
    SRTE_TEXT_TYPE(SrTePolicy::Priority),
    SRTE_TEXT_TYPE(SrTePolicy::WeightedSegList),
    SRTE_TEXT_TYPE(SrTePolicy::WeightedSegmentList),
    SRTE_TEXT_TYPE(SrTePolicy::PendingIdBookmark),
    SRTE_TEXT_TYPE(SrTePolicy::PendingKeyBookmark),
    SRTE_TEXT_TYPE(SrTePolicy::PolicyInputEntry),
    SRTE_TEXT_TYPE(Qos::Dscp),
    SRTE_TEXT_TYPE(SrTePolicy::Export::Segment),
    SRTE_TEXT_TYPE(Ludd::IpAddr),
    SRTE_TEXT_TYPE(Ludd::IpGenAddr),
    SRTE_TEXT_TYPE(Ludd::IpGenPrefix),
    SRTE_TEXT_TYPE(Ludd::IntfId),
    SRTE_TEXT_TYPE(Ludd::MplsLabel),
    SRTE_TEXT_TYPE(Ludd::MplsLabelOperation),
    SRTE_TEXT_TYPE(Ludd::MplsStackEntryIndex),
    SRTE_TEXT_TYPE(Ludd::MplsLabelAction),
    SRTE_TEXT_TYPE(Tunnel::TunnelTable::TunnelId),
    SRTE_TEXT_TYPE(Tunnel::TunnelTable::MplsVia),
    SRTE_TEXT_TYPE(Fib::FecId),
    SRTE_TEXT_TYPE(Fib::ViaIndex),
    SRTE_TEXT_TYPE(Fib::Via),
    SRTE_TEXT_TYPE(Mpls::LFib::Source),
    SRTE_TEXT_TYPE(Mpls::RouteKey),
    SRTE_TEXT_TYPE(Mpls::AdjacencyKind),
    SRTE_TEXT_TYPE(Mpls::AdjacencyKey),
    SRTE_TEXT_TYPE(Mpls::Via),
    SRTE_TEXT_TYPE(Mpls::ExtFecAdjacency),
    SRTE_TEXT_TYPE(Mpls::LFib::RouteType),
    SRTE_TEXT_TYPE(Mpls::LFib::Route),
    SRTE_TEXT_TYPE(Mpls::ViaSet),
    SRTE_TEXT_TYPE(Mpls::LfibAdjacency),
    SRTE_TEXT_TYPE(Vell::TaskPriority),
    SRTE_TEXT_TYPE(bool),
    SRTE_TEXT_TYPE(double),
    SRTE_TEXT_TYPE(std::string),
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0 || data[0] >= std::size(kTypes)) return 0;
  TextType const& type = kTypes[data[0]];
  type.check(type.name, Fuzz::text(data + 1, size - 1));
  return 0;
}
