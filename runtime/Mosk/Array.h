// Positional collections.
//
// DynArray<V>: a small variable array, grown on demand; deleting a position resets it to the
//   empty value and trims empty positions at the end.
// Array<V, Index, N>: a fixed inline array of N positions addressed by an index type whose
//   constructor range-checks (so an index of N is refused before the array is touched).
// PodArray<T, Index, N>: an inline array of N plain records with a count of used positions,
//   for fixed-layout records such as those of the shared input tables.
// Positions never move, so a walk by position survives any change.
#pragma once

#include <array>
#include <type_traits>
#include <vector>

#include "Mosk/Assert.h"
#include "Mosk/Exception.h"
#include "Mosk/Types.h"

namespace Mosk {

template <class I>
U32 indexValue(I const& i) {
  if constexpr (std::is_integral_v<I>) {
    return static_cast<U32>(i);
  } else {
    return static_cast<U32>(i.value());
  }
}

template <class V>
bool isEmptyValue(V const& v) {
  return v == V{};
}

template <class V, class Index = U32>
class DynArray {
 public:
  U32 size() const { return static_cast<U32>(items_.size()); }
  bool empty() const { return items_.empty(); }
  // The value at `i`, or the empty value beyond the end.
  V at(Index const& i) const {
    U32 n = indexValue(i);
    return n < items_.size() ? items_[n] : V{};
  }
  // Returns true when the position changed.
  bool set(Index const& i, V const& v) {
    U32 n = indexValue(i);
    if (n >= items_.size()) {
      if (isEmptyValue(v)) return false;
      items_.resize(n + 1);
    }
    if (items_[n] == v) return false;
    items_[n] = v;
    trim();
    return true;
  }
  bool erase(Index const& i) { return set(i, V{}); }
  void clear() { items_.clear(); }
  V const* data() const { return items_.data(); }

 private:
  void trim() {
    while (!items_.empty() && isEmptyValue(items_.back()))
      items_.pop_back();
  }
  std::vector<V> items_;
};

template <class V, class Index, U32 N>
class Array {
 public:
  static constexpr U32 capacity = N;
  V const& at(Index const& i) const { return items_[check(i)]; }
  bool set(Index const& i, V const& v) {
    U32 n = check(i);
    if (items_[n] == v) return false;
    items_[n] = v;
    return true;
  }
  bool erase(Index const& i) { return set(i, V{}); }
  void clear() { items_.fill(V{}); }
  // Positions holding a non-empty value.
  U32 count() const {
    U32 c = 0;
    for (auto const& v : items_)
      c += isEmptyValue(v) ? 0 : 1;
    return c;
  }
  V const& operator[](U32 n) const { return items_[n]; }

 private:
  static U32 check(Index const& i) {
    U32 n = indexValue(i);
    MOSK_ASSERT(n < N);
    return n;
  }
  std::array<V, N> items_{};
};

template <class T, class Index, U32 N>
class PodArray {
 public:
  static constexpr U32 capacity = N;
  U32 count() const { return count_; }
  // Positions at or above the count keep their bytes but are not part of the value.
  void countIs(U32 count) {
    MOSK_ASSERT(count <= N);
    count_ = count;
  }
  T const& at(Index const& i) const {
    U32 n = indexValue(i);
    MOSK_ASSERT(n < N);
    return items_[n];
  }
  // Writes position `i`; writing just past the count extends the count.
  void set(Index const& i, T const& v) {
    U32 n = indexValue(i);
    MOSK_ASSERT(n < N);
    items_[n] = v;
    if (n >= count_) count_ = n + 1;
  }
  void push(T const& v) { set(Index(count_), v); }
  void clear() { count_ = 0; }
  T const* begin() const { return items_.data(); }
  T const* end() const { return items_.data() + count_; }
  T* data() { return items_.data(); }

 private:
  U32 count_ = 0;
  std::array<T, N> items_{};
};

}  // namespace Mosk
