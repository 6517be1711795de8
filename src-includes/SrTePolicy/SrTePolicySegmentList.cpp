#include "SrTePolicy/SrTePolicySegmentList.h"

#include <cstdint>
#include <sstream>

#include "SrTePolicy/SrTePolicyDedupTables.h"

namespace SrTePolicy {

Ludd::MplsLabel SegmentList::segmentLabel(U32 i) const {
  SegmentBase const* s = segment_[i].ptr();
  MOSK_ASSERT_MSG(s->type() == SegmentType::segMplsLabel, "segMplsLabel");
  return static_cast<SegmentMplsLabel const*>(s)->label();
}

U32 SegmentList::hash() const {
  if (size_ == 0) return 0;
  Mosk::JenkinsOneAtATime h;
  for (U32 i = 0; i < size_; ++i) {
    h.addU32(static_cast<U32>(reinterpret_cast<std::uintptr_t>(segment_[i].ptr())));
  }
  return h.final();
}

bool SegmentList::compare(Vell::DedupHandle const& other) const {
  return segmentListCompare(static_cast<SegmentList const&>(other));
}

bool SegmentList::segmentListCompare(SegmentList const& other) const {
  if (size_ != other.size_) return false;
  for (U32 i = 0; i < size_; ++i) {
    if (segment_[i].ptr() != other.segment_[i].ptr()) return false;
  }
  return true;
}

Mosk::Ptr<SegmentList> SegmentList::dedup(SegmentListDedupTable const& table) {
  return table.dedupTable()->dedup(Mosk::Ptr<SegmentList>(this));
}

std::ostream& operator<<(std::ostream& os, SegmentList const& list) {
  os << '[';
  for (U32 i = 0; i < list.size(); ++i) {
    if (i > 0) os << ", ";
    SegmentBase const* s = list.segment(Ludd::MplsStackEntryIndex(i)).ptr();
    if (s != nullptr && s->type() == SegmentType::segMplsLabel) {
      os << static_cast<SegmentMplsLabel const*>(s)->label();
    } else {
      os << '?';
    }
  }
  return os << ']';
}

std::string SegmentListLifeTimeNotifier::toStrep() const {
  std::ostringstream os;
  SegmentList const* l = segmentListRawPtr();
  os << "SegmentListLifeTimeNotifier(segmentListId: " << l->segmentListId() << ", segments: " << *l
     << ")";
  return os.str();
}

}  // namespace SrTePolicy
