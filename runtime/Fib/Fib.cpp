// FEC ids, the platform's FEC index capacity, and FECs.
#include <algorithm>
#include <iomanip>

#include "Fib/Fec.h"

namespace Fib {

namespace {
U64 gAdjIndexMax = (U64{1} << 20) - 1;
}  // namespace

U64 adjIndexMax() {
  return gAdjIndexMax;
}

void adjIndexMaxIs(U64 max) {
  if (max > adjIndexMask()) {
    throw Mosk::RangeException("FEC index capacity " + std::to_string(max) +
                               " does not fit in the index bits of a FecId");
  }
  gAdjIndexMax = max;
}

FecId FecId::fecIdForAdjType(U32 adjType, U64 index) {
  if (adjType >= adjTypeMax()) {
    throw Mosk::RangeException("FecId adjacency type " + std::to_string(adjType) + " not below " +
                               std::to_string(adjTypeMax()));
  }
  if (index > adjIndexMax()) {
    throw Mosk::RangeException("FecId index " + std::to_string(index) +
                               " above the FEC index capacity " + std::to_string(adjIndexMax()));
  }
  return FecId(static_cast<U64>(adjType) << adjTypePos() | index);
}

void FecId::strep(std::ostream& os) const {
  std::ios::fmtflags flags = os.flags();
  os << "0x" << std::hex << value_;
  os.flags(flags);
}

std::ostream& operator<<(std::ostream& os, FecId const& id) {
  id.strep(os);
  return os;
}

namespace {
Via const kEmptyVia{};
}  // namespace

void Fec::viaCountIs(U32 count) {
  if (count > maxVias) (void)ViaIndex(count);  // raises the ViaIndex range error
  if (count > vias_.size()) vias_.resize(count);
  viaCount_ = count;
}

Via const& Fec::via(ViaIndex const& i) const {
  U32 slot = i.value() - 1;
  return slot < vias_.size() ? vias_[slot] : kEmptyVia;
}

void Fec::viaIs(ViaIndex const& i, Via const& via) {
  U32 slot = i.value() - 1;
  if (slot >= vias_.size()) vias_.resize(slot + 1);
  vias_[slot] = via;
}

void Fec::clear() {
  vias_.clear();
  viaCount_ = 0;
}

bool Fec::operator==(Fec const& other) const {
  return fecId_ == other.fecId_ && viaCount_ == other.viaCount_ &&
         std::equal(begin(), end(), other.begin());
}

U32 Fec::hash() const {
  Mosk::HashMix mix;
  mix.add(fecId_.hash());
  mix.add(viaCount_);
  for (Via const& v : *this)
    mix.add(v.hash());
  return mix.final();
}

void Fec::strep(std::ostream& os) const {
  os << "Value('Fib::Fec', ** {'fecId': ";
  fecId_.strep(os);
  os << ", 'via': ";
  Mosk::writeList(os, begin(), end());
  os << "})";
}

Fec Fec::strepRead(Mosk::TextReader& r) {
  r.expect("Value('Fib::Fec', ** {'fecId': ");
  Fec fec(Mosk::readField<FecId>(r, "fecId"));
  r.expect(", 'via': ");
  U32 n = 0;
  Mosk::readList<Via>(r, [&](Via const& v) {
    ViaIndex i(++n);  // a 513th via raises the ViaIndex range error
    fec.viaIs(i, v);
  });
  fec.viaCountIs(n);
  r.expect("})");
  return fec;
}

std::ostream& operator<<(std::ostream& os, Fec const& fec) {
  fec.strep(os);
  return os;
}

}  // namespace Fib
