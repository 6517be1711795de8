// Test helper: a source's input record (a candidate path) in one expression, e.g.
//   InputRecord(PolicySource::sourceBgp, 1).to("192.0.2.1", 7).pref(200).list({16001, 16002})
// An InputRecord is the record itself, so it goes wherever a PolicyInputEntry goes.
#pragma once

#include "SrTePolicy/SrTePolicyTypes.h"

namespace TestSupport {

struct InputRecord : SrTePolicy::PolicyInputEntry {
  explicit InputRecord(SrTePolicy::PolicyId id = {}) : PolicyInputEntry(id) {}
  InputRecord(SrTePolicy::PolicySource source, U32 index)
      : PolicyInputEntry(SrTePolicy::PolicyId::make(source, index)) {}

  InputRecord& to(Ludd::IpGenAddr const& endpoint, U32 color) {
    endpointIs(endpoint);
    colorIs(SrTePolicy::Color(color));
    return *this;
  }
  InputRecord& to(char const* endpoint, U32 color) {
    return to(Ludd::IpGenAddr::parse(endpoint), color);
  }
  InputRecord& pref(U32 preference) {
    preferenceIs(SrTePolicy::Preference(preference));
    return *this;
  }
  InputRecord& router(Ludd::IpAddr const& id) {
    routerIdIs(id);
    return *this;
  }
  InputRecord& bsid(Ludd::MplsLabel label) {
    bindingSidIs(label);
    return *this;
  }
  InputRecord& bsid(U32 label) { return bsid(Ludd::MplsLabel(label)); }
  // Appends a segment list: its labels top first, and its weight.
  InputRecord& list(Ludd::MplsLabelOperation const& labels, U32 weight = 1) {
    segmentListPush(SrTePolicy::WeightedSegList(SrTePolicy::Weight(weight), labels));
    return *this;
  }
};

}  // namespace TestSupport
