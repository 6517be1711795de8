#include "SrTePolicy/SrTePolicySource.h"

namespace SrTePolicy {

char const* sourceName(PolicySource source) {
  switch (source) {
    case PolicySource::sourceStatic:
      return "static";
    case PolicySource::sourceBgp:
      return "bgp";
    case PolicySource::sourcePcep:
      return "pcep";
    case PolicySource::sourceOther:
      return "other";
  }
  return "?";
}

std::optional<PolicySource> sourceByName(std::string_view name) {
  for (PolicySource s : {PolicySource::sourceStatic, PolicySource::sourceBgp,
                         PolicySource::sourcePcep, PolicySource::sourceOther}) {
    if (name == sourceName(s)) return s;
  }
  return std::nullopt;
}

std::string defaultTableName(PolicySource source) {
  return std::string("srte-") + sourceName(source);
}

}  // namespace SrTePolicy
