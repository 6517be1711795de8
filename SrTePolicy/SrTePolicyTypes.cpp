// Hand-written parts of the value types: the rank order of candidate paths.
#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTePolicy {

static_assert(sizeof(WeightedSegList) == 40, "the input record layout depends on it");

bool Priority::operator<(Priority const& other) const {
  if (preference_ != other.preference_) return preference_ > other.preference_;
  if (source_ != other.source_) {
    return static_cast<S32>(source_) < static_cast<S32>(other.source_);
  }
  if (routerId_ != other.routerId_) return routerId_ < other.routerId_;
  return id_ < other.id_;
}

bool Priority::sameExceptId(Priority const& other) const {
  return preference_ == other.preference_ && source_ == other.source_ &&
         routerId_ == other.routerId_;
}

}  // namespace SrTePolicy
