// Hash functions of the runtime.
//
// HashMix is the 32-bit mixer that composite values feed their fields' hashes into, in field
// order (MurmurHash3 x86-32 rounds, finalised with the byte length). murmur3 is the same
// function over a byte buffer, so the hash of one 32-bit word equals MurmurHash3 of its four
// bytes with seed 0. jenkinsOneAtATime is the byte hash the segment store specifies.
#pragma once

#include <cstddef>
#include <cstring>

#include "Mosk/Types.h"

namespace Mosk {

namespace detail {
constexpr U32 rotl32(U32 x, int r) {
  return (x << r) | (x >> (32 - r));
}
}  // namespace detail

// The MurmurHash3 finaliser: a bijection on 32-bit values with full avalanche.
constexpr U32 fmix32(U32 h) {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

class HashMix {
 public:
  constexpr explicit HashMix(U32 seed = 0) : h_(seed) {}

  constexpr HashMix& add(U32 k) {
    k *= 0xcc9e2d51u;
    k = detail::rotl32(k, 15);
    k *= 0x1b873593u;
    h_ ^= k;
    h_ = detail::rotl32(h_, 13);
    h_ = h_ * 5 + 0xe6546b64u;
    len_ += 4;
    return *this;
  }
  constexpr HashMix& add64(U64 k) {
    return add(static_cast<U32>(k)).add(static_cast<U32>(k >> 32));
  }

  constexpr U32 final() const { return fmix32(h_ ^ len_); }

 private:
  U32 h_;
  U32 len_ = 0;
};

// MurmurHash3 x86-32 of `len` bytes.
U32 murmur3(void const* data, std::size_t len, U32 seed = 0);

// Jenkins one-at-a-time: per byte h += b; h += h << 10; h ^= h >> 6; then the final mix.
class JenkinsOneAtATime {
 public:
  constexpr JenkinsOneAtATime& addByte(U8 b) {
    h_ += b;
    h_ += h_ << 10;
    h_ ^= h_ >> 6;
    return *this;
  }
  // Four bytes, least significant first.
  constexpr JenkinsOneAtATime& addU32(U32 v) {
    for (int i = 0; i < 4; ++i)
      addByte(static_cast<U8>(v >> (8 * i)));
    return *this;
  }
  constexpr U32 final() const {
    U32 h = h_;
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

 private:
  U32 h_ = 0;
};

inline U32 hashU32(U32 v) {
  return HashMix().add(v).final();
}
inline U32 hashU64(U64 v) {
  return HashMix().add64(v).final();
}

}  // namespace Mosk
