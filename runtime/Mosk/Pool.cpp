#include "Mosk/Pool.h"

#include <new>

namespace Mosk::Pool {

SizeClass sizeClasses[kClasses];
Counts counts;

namespace {

// Each slab starts with one grain that links it to the slab made before it, so that every
// slab stays reachable for leak checkers.
constexpr std::size_t kSlabBytes = 32 * 1024;
void* slabs = nullptr;

std::atomic_flag lock = ATOMIC_FLAG_INIT;

struct Locked {
  Locked() {
    while (lock.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~Locked() { lock.clear(std::memory_order_release); }
};

}  // namespace

void* carve(SizeClass& c, std::size_t blockSize) {
  std::size_t blocks = kSlabBytes / blockSize;
  char* slab = static_cast<char*>(::operator new(kGrain + blocks * blockSize));
  *reinterpret_cast<void**>(slab) = slabs;
  slabs = slab;
  ++counts.slabs;
  c.next = slab + kGrain + blockSize;
  c.end = slab + kGrain + blocks * blockSize;
  return slab + kGrain;
}

void* takeLocked(std::size_t size) {
  Locked held;
  return takeUnlocked(size);
}

void giveBackLocked(void* p, std::size_t size) noexcept {
  Locked held;
  giveBackUnlocked(p, size);
}

}  // namespace Mosk::Pool
