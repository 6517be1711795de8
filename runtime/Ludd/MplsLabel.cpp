#include "Ludd/MplsLabel.h"

#include <algorithm>

namespace Ludd {

MplsLabelOperation::MplsLabelOperation(std::initializer_list<U32> labels) {
  clear();
  for (U32 l : labels)
    push(MplsLabel(l));
}

void MplsLabelOperation::sizeIs(U32 size) {
  MplsStackEntryIndex last(size == 0 ? 0 : size - 1);  // range-checks a size above six
  (void)last;
  size_ = size;
  for (U32 i = size; i < capacity; ++i)
    labels_[i] = MplsLabel::noLabel;
}

void MplsLabelOperation::push(MplsLabel const& label) {
  MplsStackEntryIndex i(size_);
  labels_[i.value()] = label.value();
  ++size_;
}

void MplsLabelOperation::clear() {
  std::fill(std::begin(labels_), std::end(labels_), MplsLabel::noLabel);
  size_ = 0;
  reserved_[0] = reserved_[1] = 0;
}

bool MplsLabelOperation::normalize() {
  bool ok = size_ <= capacity && reserved_[0] == 0 && reserved_[1] == 0;
  size_ = std::min<U32>(size_, capacity);
  for (U32 i = 0; i < capacity; ++i) {
    if (i >= size_) {
      labels_[i] = MplsLabel::noLabel;
    } else if (labels_[i] > MplsLabel::noLabel) {
      ok = false;
      labels_[i] = MplsLabel::noLabel;
    }
  }
  reserved_[0] = reserved_[1] = 0;
  return ok;
}

void MplsLabelOperation::validateRead() {
  if (size_ > capacity) (void)MplsStackEntryIndex(size_ - 1);  // raises the range error
  for (U32 i = 0; i < size_; ++i)
    (void)MplsLabel(labels_[i]);  // raises the range error
  normalize();
}

bool MplsLabelOperation::operator==(MplsLabelOperation const& o) const {
  return size_ == o.size_ &&
         std::equal(std::begin(labels_), std::end(labels_), std::begin(o.labels_));
}

bool MplsLabelOperation::operator<(MplsLabelOperation const& o) const {
  if (size_ != o.size_) return size_ < o.size_;
  return std::lexicographical_compare(std::begin(labels_), std::end(labels_), std::begin(o.labels_),
                                      std::end(o.labels_));
}

U32 MplsLabelOperation::hash() const {
  Mosk::HashMix mix;
  for (U32 l : labels_)
    mix.add(l);
  mix.add(size_);
  return mix.final();
}

void MplsLabelOperation::strep(std::ostream& os) const {
  os << '[';
  for (U32 i = 0; i < size_; ++i) {
    if (i > 0) os << ", ";
    os << labels_[i];
  }
  os << ']';
}

MplsLabelOperation MplsLabelOperation::strepRead(Mosk::TextReader& r) {
  MplsLabelOperation op;
  r.expect("[");
  if (r.accept("]")) return op;
  for (;;) {
    r.skipSpaces();
    op.push(MplsLabel::strepRead(r));
    if (r.accept("]")) return op;
    r.expect(",");
  }
}

void MplsLabelOperation::logWrite(Mosk::LogWriter& w) const {
  w.u8(static_cast<U8>(size_));
  for (U32 i = 0; i < size_; ++i)
    w.u32(labels_[i]);
}

MplsLabelOperation MplsLabelOperation::logRead(Mosk::LogReader& r) {
  U8 size = r.u8("label stack size");
  if (size > capacity) (void)MplsStackEntryIndex(size - 1);
  MplsLabelOperation op;
  for (U32 i = 0; i < size; ++i)
    op.push(MplsLabel::logRead(r));
  return op;
}

std::ostream& operator<<(std::ostream& os, MplsLabel const& l) {
  l.strep(os);
  return os;
}

std::ostream& operator<<(std::ostream& os, MplsLabelOperation const& op) {
  op.strep(os);
  return os;
}

}  // namespace Ludd
