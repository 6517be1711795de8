// Fixed-width integer names used across the runtime and the library, and the shared limits.
#pragma once

#include <cstdint>
#include <limits>

namespace Mosk {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S8 = std::int8_t;
using S16 = std::int16_t;
using S32 = std::int32_t;
using S64 = std::int64_t;

// The largest unsigned 32-bit value; range checks compare against it even where the field
// cannot exceed it, so that a widened field keeps its limit.
inline constexpr U32 maxU32 = std::numeric_limits<U32>::max();

}  // namespace Mosk

using Mosk::S32;
using Mosk::S64;
using Mosk::U16;
using Mosk::U32;
using Mosk::U64;
using Mosk::U8;
