// Hand-written parts of the value types: the rank order of candidate paths, and the input
// record's layout, serialisation, equality, text form and read-side checks.
#include "SrTePolicy/SrTePolicyTypes.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

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

// ---------------------------------------------------------------------------------------------
// PolicyInputEntry

namespace {
// The used elements, bounded by the capacity: a record copied in with a bad count is compared,
// hashed and printed without reading past its array (reading it raises; see validateRead).
WeightedSegList const* usedEnd(PolicyInputEntry const& e) {
  return e.segmentListBegin() +
         std::min<U32>(e.segmentListCount(), PolicyInputEntry::maxSegmentLists);
}
}  // namespace

static_assert(std::is_trivially_copyable_v<PolicyInputEntry>);
static_assert(std::is_standard_layout_v<PolicyInputEntry>);
static_assert(sizeof(PolicyInputEntry) == PolicyInputEntry::recordSize);
static_assert(sizeof(Mosk::PodArray<WeightedSegList, SegmentListIndex, 16>) ==
              4 + 16 * PolicyInputEntry::elementSize);

U32 PolicyInputEntry::serializedLength() const {
  // The record is the external interface between the sources and this library: serialising
  // copies its bytes, so every field must stay where the writers put it.
  static_assert(offsetof(PolicyInputEntry, key_) == 0);
  static_assert(offsetof(PolicyInputEntry, endpoint_) == 4);
  static_assert(offsetof(PolicyInputEntry, color_) == 24);
  static_assert(offsetof(PolicyInputEntry, preference_) == 28);
  static_assert(offsetof(PolicyInputEntry, routerId_) == 32);
  static_assert(offsetof(PolicyInputEntry, bindingSid_) == 36);
  static_assert(offsetof(PolicyInputEntry, segmentList_) == 40);  // the count comes first
  return recordSize - (maxSegmentLists - segmentList_.count()) * elementSize;
}

U32 PolicyInputEntry::deserializedLength(void const* bytes) {
  U32 count;
  std::memcpy(&count, static_cast<U8 const*>(bytes) + 40, sizeof count);
  if (count > maxSegmentLists) return 0;
  return recordSize - (maxSegmentLists - count) * elementSize;
}

U32 PolicyInputEntry::serialize(void* out) const {
  U32 length = serializedLength();
  std::memcpy(out, static_cast<void const*>(this), length);
  return length;
}

PolicyInputEntry PolicyInputEntry::deserialize(void const* bytes, U32 length) {
  if (length < headerSize) {
    throw Mosk::ParseException("input record of " + std::to_string(length) +
                               " bytes is shorter than its " + std::to_string(headerSize) +
                               "-byte header");
  }
  U32 needed = deserializedLength(bytes);
  if (needed == 0) {
    throw Mosk::RangeException(
        "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed");
  }
  if (length < needed) {
    throw Mosk::ParseException("input record of " + std::to_string(length) +
                               " bytes is shorter than the " + std::to_string(needed) +
                               " bytes its segment-list count needs");
  }
  PolicyInputEntry entry;
  std::memcpy(static_cast<void*>(&entry), bytes, needed);
  entry.validateRead();
  return entry;
}

void PolicyInputEntry::validateRead() {
  U32 count = segmentList_.count();
  if (count > maxSegmentLists) {
    throw Mosk::RangeException(
        "SegmentListIndex::value < SegmentListIndex::min or > SegmentListIndex::max not allowed");
  }
  switch (endpoint_.family()) {
    case Ludd::IpGenAddr::Family::none:
      endpoint_ = EndPoint();
      break;
    case Ludd::IpGenAddr::Family::ipv4:
      endpoint_ = EndPoint(endpoint_.v4());  // clears the unused address bytes
      break;
    case Ludd::IpGenAddr::Family::ipv6:
      break;
    default:
      throw Mosk::RangeException(
          "input record " + Mosk::valueToStrep(key_) + ": endpoint address family " +
          std::to_string(static_cast<U32>(endpoint_.family())) + " not allowed");
  }
  (void)Ludd::MplsLabel(bindingSid_.value());  // range-checks the raw label
  for (U32 i = 0; i < count; ++i) {
    WeightedSegList list = segmentList_.at(SegmentListIndex(i));
    (void)Weight(list.weight().value());  // range-checks the raw weight
    Ludd::MplsLabelOperation stack = list.segList();
    try {
      stack.validateRead();
    } catch (Mosk::RangeException const& e) {
      throw Mosk::RangeException(e.reason(), "segmentList." + std::to_string(i) + ".segList");
    }
    list.segListIs(stack);
    segmentList_.set(SegmentListIndex(i), list);
  }
}

void PolicyInputEntry::segmentListCountIs(U32 count) {
  if (count > maxSegmentLists) (void)SegmentListIndex(count);  // raises the range error
  segmentList_.countIs(count);
}

bool PolicyInputEntry::operator==(PolicyInputEntry const& other) const {
  return key_ == other.key_ && endpoint_ == other.endpoint_ && color_ == other.color_ &&
         preference_ == other.preference_ && routerId_ == other.routerId_ &&
         bindingSid_ == other.bindingSid_ && segmentList_.count() == other.segmentList_.count() &&
         std::equal(segmentListBegin(), usedEnd(*this), other.segmentListBegin());
}

U32 PolicyInputEntry::hash() const {
  Mosk::HashMix mix;
  mix.add(key_.hash()).add(endpoint_.hash()).add(color_.hash()).add(preference_.hash());
  mix.add(routerId_.hash()).add(bindingSid_.hash()).add(segmentList_.count());
  for (WeightedSegList const* l = segmentListBegin(); l != usedEnd(*this); ++l)
    mix.add(l->hash());
  return mix.final();
}

void PolicyInputEntry::strep(std::ostream& os) const {
  os << "Value('SrTePolicy::PolicyInputEntry', ** {'key': ";
  Mosk::writeStrep(os, key_);
  os << ", 'endpoint': ";
  Mosk::writeStrep(os, endpoint_);
  os << ", 'color': ";
  Mosk::writeStrep(os, color_);
  os << ", 'preference': ";
  Mosk::writeStrep(os, preference_);
  os << ", 'routerId': ";
  Mosk::writeStrep(os, routerId_);
  os << ", 'bindingSid': ";
  Mosk::writeStrep(os, bindingSid_);
  os << ", 'segmentList': ";
  Mosk::writeList(os, segmentListBegin(), usedEnd(*this));
  os << "})";
}

PolicyInputEntry PolicyInputEntry::strepRead(Mosk::TextReader& r) {
  PolicyInputEntry v;
  r.expect("Value('SrTePolicy::PolicyInputEntry', ** {'key': ");
  v.key_ = Mosk::readField<PolicyId>(r, "key");
  r.expect(", 'endpoint': ");
  v.endpoint_ = Mosk::readField<EndPoint>(r, "endpoint");
  r.expect(", 'color': ");
  v.color_ = Mosk::readField<Color>(r, "color");
  r.expect(", 'preference': ");
  v.preference_ = Mosk::readField<Preference>(r, "preference");
  r.expect(", 'routerId': ");
  v.routerId_ = Mosk::readField<Ludd::IpAddr>(r, "routerId");
  r.expect(", 'bindingSid': ");
  v.bindingSid_ = Mosk::readField<Ludd::MplsLabel>(r, "bindingSid");
  r.expect(", 'segmentList': ");
  try {
    // A seventeenth element raises the SegmentListIndex range error.
    Mosk::readList<WeightedSegList>(r, [&v](WeightedSegList const& l) { v.segmentListPush(l); });
  } catch (Mosk::RangeException const& e) {
    std::string path =
        e.attribute().empty() ? "segmentList" : std::string("segmentList.") + e.attribute();
    throw Mosk::RangeException(e.reason(), path);
  }
  r.expect("})");
  return v;
}

}  // namespace SrTePolicy
