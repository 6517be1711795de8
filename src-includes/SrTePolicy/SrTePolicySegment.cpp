#include "SrTePolicy/SrTePolicySegment.h"

#include <sstream>

#include "SrTePolicy/SrTePolicyDedupTables.h"
#include "SrTePolicy/SrTePolicySegmentResolver.h"

namespace SrTePolicy {

bool SegmentBase::compare(Vell::DedupHandle const& other) const {
  return segmentCompare(static_cast<SegmentBase const&>(other));
}

Mosk::Ptr<SegmentResolveResult const> SegmentBase::resolveSegment(SegmentResolver const&) const {
  MOSK_ASSERT(0);
}

Mosk::Ptr<SegmentResolveResult const> SegmentBase::resolveSegmentOnLFib(
    SegmentResolver const&, Mpls::LFib::Route const&) const {
  MOSK_ASSERT(0);
}

bool SegmentBase::segmentCompare(SegmentBase const&) const {
  MOSK_ASSERT(0);
}

U32 SegmentMplsLabel::hash() const {
  Mosk::JenkinsOneAtATime h;
  h.addU32(static_cast<U32>(type()));
  h.addU32(label_.value());
  return h.final();
}

bool SegmentMplsLabel::segmentCompare(SegmentBase const& other) const {
  if (type() != other.type()) return false;
  return label_ == static_cast<SegmentMplsLabel const&>(other).label_;
}

// A label segment resolves as its label: the resolver looks the label up in the LFIB.
Mosk::Ptr<SegmentResolveResult const> SegmentMplsLabel::resolveSegment(
    SegmentResolver const& r) const {
  return r.resolveSegmentMpls(label_);
}

Mosk::Ptr<SegmentResolveResult const> SegmentMplsLabel::resolveSegmentOnLFib(
    SegmentResolver const& r, Mpls::LFib::Route const& route) const {
  return r.resolveSegmentMplsOnLfibRoute(label_, route);
}

Mosk::Ptr<SegmentMplsLabel> SegmentMplsLabel::dedup(SegmentDedupTable const& table) {
  return table.dedupTable()->dedup(Mosk::Ptr<SegmentMplsLabel>(this));
}

std::string SegmentLifeTimeNotifier::toStrep() const {
  std::ostringstream os;
  SegmentBase const* s = segmentRawPtr();
  os << "SegmentLifeTimeNotifier(segmentId: " << s->segmentId();
  if (s->type() == SegmentType::segMplsLabel) {
    os << ", label: " << static_cast<SegmentMplsLabel const*>(s)->label();
  }
  os << ")";
  return os.str();
}

}  // namespace SrTePolicy
