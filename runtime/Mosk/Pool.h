// Blocks for counted objects, kept on free lists by size.
//
// Every entity, reactor and state machine is a counted object created with `new` and freed
// when its last reference goes. A load creates a few dozen such objects per candidate path, of
// a handful of sizes, and frees most of them only when the path goes. Taking them from
// `malloc` costs about 180 instructions and a 16-byte header each; here a block of a size
// class comes from its class's free list, or else from the class's current slab, and goes back
// to its free list when freed. Slabs are never returned: a process that held a million lists
// keeps their blocks for the next million.
//
// The classes are 16 bytes apart up to kLargestPooled; larger objects (tables, state machines)
// go to the global allocator. Counted objects are used by one thread unless
// enableThreadSafePointers is on, in which case the last reference may go on any thread and
// the free lists are taken under a lock. Under AddressSanitizer the blocks come straight from
// the global allocator, so that a use after free is still reported.
#pragma once

#include <atomic>
#include <cstddef>

#include "Mosk/Assert.h"
#include "Mosk/Types.h"

#if defined(__SANITIZE_ADDRESS__)
#define MOSK_POOLED_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MOSK_POOLED_BLOCKS 0
#endif
#endif
#ifndef MOSK_POOLED_BLOCKS
#define MOSK_POOLED_BLOCKS 1
#endif

namespace Mosk {

// Set once at start-up, before any counted object is shared between threads.
inline bool enableThreadSafePointers = false;

namespace Pool {

inline constexpr std::size_t kGrain = 16;
inline constexpr std::size_t kLargestPooled = 512;
inline constexpr std::size_t kClasses = kLargestPooled / kGrain;

struct FreeBlock {
  FreeBlock* next;
};

struct SizeClass {
  FreeBlock* free = nullptr;
  char* next = nullptr;  // the unused rest of the current slab
  char* end = nullptr;
};

// What the pools have handed out, for the benchmarks: blocks taken and given back, slabs made.
struct Counts {
  U64 taken = 0;
  U64 returned = 0;
  U64 slabs = 0;
};

extern SizeClass sizeClasses[kClasses];
extern Counts counts;

// The slow paths: a new slab for the class, and both operations under the lock.
void* carve(SizeClass& c, std::size_t blockSize);
void* takeLocked(std::size_t size);
void giveBackLocked(void* p, std::size_t size) noexcept;

// The pooled paths without the lock; callers have checked the size.
inline void* takeUnlocked(std::size_t size) {
  ++counts.taken;
  SizeClass& c = sizeClasses[(size - 1) / kGrain];
  if (FreeBlock* b = c.free) {
    c.free = b->next;
    return b;
  }
  std::size_t blockSize = (size + kGrain - 1) & ~(kGrain - 1);
  if (MOSK_LIKELY(c.next != c.end)) {
    void* p = c.next;
    c.next += blockSize;
    return p;
  }
  return carve(c, blockSize);
}

inline void giveBackUnlocked(void* p, std::size_t size) noexcept {
  ++counts.returned;
  SizeClass& c = sizeClasses[(size - 1) / kGrain];
  FreeBlock* b = static_cast<FreeBlock*>(p);
  b->next = c.free;
  c.free = b;
}

inline void* take(std::size_t size) {
  if (!MOSK_POOLED_BLOCKS || size > kLargestPooled) return ::operator new(size);
  if (MOSK_UNLIKELY(enableThreadSafePointers)) return takeLocked(size);
  return takeUnlocked(size);
}

inline void giveBack(void* p, std::size_t size) noexcept {
  if (!MOSK_POOLED_BLOCKS || size > kLargestPooled) {
    ::operator delete(p);
  } else if (MOSK_UNLIKELY(enableThreadSafePointers)) {
    giveBackLocked(p, size);
  } else {
    giveBackUnlocked(p, size);
  }
}

// A standard allocator over the pools, for the few value containers that every element of a
// large table owns (a tunnel entry's vias): their blocks come from the size classes as the
// counted objects' do, without malloc's cost and header.
template <class T>
struct Allocator {
  using value_type = T;
  Allocator() = default;
  template <class U>
  Allocator(Allocator<U> const&) noexcept {}
  T* allocate(std::size_t n) { return static_cast<T*>(take(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { giveBack(p, n * sizeof(T)); }
  template <class U>
  bool operator==(Allocator<U> const&) const noexcept {
    return true;
  }
};

}  // namespace Pool
}  // namespace Mosk
