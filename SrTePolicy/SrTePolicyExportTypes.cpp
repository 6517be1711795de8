// The text form of exported segments: the label's own.
#include "SrTePolicy/SrTePolicyExportTypes.h"

namespace SrTePolicy::Export {

void Segment::strep(std::ostream& os) const {
  label_.strep(os);
}

Segment Segment::strepRead(Mosk::TextReader& r) {
  return Segment(Ludd::MplsLabel::strepRead(r));
}

}  // namespace SrTePolicy::Export
