// Counts the heap allocations of the process: srte-scale replaces the global operator new and
// delete with versions that count and forward to malloc and free, so that each phase can report
// how many blocks it allocated per unit of work. The count is a plain integer: the pipeline runs
// on one thread. Under AddressSanitizer the sanitizer's own operators stay in place (they find
// the faults the sanitizer build runs for) and nothing is counted.
#include "AllocationCount.h"

#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define SRTE_SCALE_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SRTE_SCALE_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef SRTE_SCALE_COUNT_ALLOCATIONS
#define SRTE_SCALE_COUNT_ALLOCATIONS 1
#endif

namespace SrTeScale {

namespace {
U64 allocations = 0;
}  // namespace

bool allocationsCounted() {
  return SRTE_SCALE_COUNT_ALLOCATIONS != 0;
}

U64 allocationCount() {
  return allocations;
}

}  // namespace SrTeScale

#if SRTE_SCALE_COUNT_ALLOCATIONS

namespace {

void* allocate(std::size_t size) {
  ++SrTeScale::allocations;
  if (size == 0) size = 1;
  if (void* p = std::malloc(size)) return p;
  throw std::bad_alloc();
}

void* allocateAligned(std::size_t size, std::align_val_t align) {
  ++SrTeScale::allocations;
  std::size_t const a = static_cast<std::size_t>(align);
  std::size_t const rounded = (size + a - 1) / a * a;
  if (void* p = std::aligned_alloc(a, rounded == 0 ? a : rounded)) return p;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new(std::size_t size, std::align_val_t align) {
  return allocateAligned(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align) {
  return allocateAligned(size, align);
}

void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}

#endif
