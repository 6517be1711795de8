// Counted objects and counted references.
//
// Every entity and state machine derives from PtrInterface: an intrusive reference count and a
// few flag bits. Ptr<T> is an owning counted reference; Ptr<T const> (PtrConst<T>) a read-only
// one. Counts are plain increments unless the process-wide switch enableThreadSafePointers is
// on, in which case they are atomic.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "Mosk/Assert.h"
#include "Mosk/Exception.h"
#include "Mosk/Pool.h"
#include "Mosk/Types.h"

namespace Mosk {

class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts with no references of its own.
  PtrInterface(PtrInterface const&) noexcept {}
  PtrInterface& operator=(PtrInterface const&) noexcept { return *this; }
  virtual ~PtrInterface() = default;

  // Counted objects take their blocks from the size-class pools (Mosk/Pool.h). The destructor
  // is virtual, so a delete passes the size of the object's own type.
  static void* operator new(std::size_t size) { return Pool::take(size); }
  static void operator delete(void* p, std::size_t size) noexcept { Pool::giveBack(p, size); }

  U32 references() const noexcept { return refs_; }

  void newRef() const noexcept {
    if (MOSK_UNLIKELY(flags_ & kNewRefHook)) newReferenceTaken();
    if (MOSK_UNLIKELY(enableThreadSafePointers)) {
      std::atomic_ref<U32>(refs_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++refs_;
    }
  }

  void deleteRef() const noexcept {
    U32 left;
    if (MOSK_UNLIKELY(enableThreadSafePointers)) {
      left = std::atomic_ref<U32>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = --refs_;
    }
    if (left == 0) {
      zeroReferencesIs();
    } else if (MOSK_UNLIKELY(flags_ & kReferenceHook)) {
      referencesDecreasedTo(left);
    }
  }

 protected:
  // Runs when the last reference goes; the default destroys the object.
  virtual void zeroReferencesIs() const { delete this; }
  // Runs after a decrement that left references, for objects that set the reference hook flag
  // (dedup handles leave their table when only the table's own share is left).
  virtual void referencesDecreasedTo(U32) const {}
  // Runs before an increment, for objects that set the new-reference hook flag (a dedup handle
  // sets it while it is being detached, when taking a reference is a fault).
  virtual void newReferenceTaken() const {}

  static constexpr U16 kReferenceHook = 1u << 0;
  static constexpr U16 kNewRefHook = 1u << 1;
  // Set on the entities of a mounted read-only copy (Mosk/Replication.h).
  static constexpr U16 kReadOnlyReplica = 1u << 2;
  // Bits 1..7 belong to the runtime, 8..15 to derived classes.
  static constexpr U16 kFirstDerivedFlag = 1u << 8;

  mutable U32 refs_ = 0;
  mutable U16 flags_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) noexcept : p_(o.p_) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
    if (p_) p_->newRef();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr const& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // Gives up the reference without dropping the count.
  T* release() noexcept {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  bool operator==(T const* p) const noexcept { return p_ == p; }
  template <class U>
  bool operator<(Ptr<U> const& o) const noexcept {
    return std::less<void const*>()(p_, o.ptr());
  }

 private:
  T* p_ = nullptr;
};

template <class T>
using PtrConst = Ptr<T const>;

// The pointer-to-const form of a counted reference, for handing out read-only views.
template <class T>
Ptr<T const> constPtr(Ptr<T> const& p) {
  return Ptr<T const>(p);
}

template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> ptrDynamicCast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

// Creating through a factory must never give null; a null is reported as a range error.
template <class T>
T& validPtr(Ptr<T> const& p) {
  if (!p) throwNullValidPtr();
  return *p;
}

}  // namespace Mosk

template <class T>
struct std::hash<Mosk::Ptr<T>> {
  std::size_t operator()(Mosk::Ptr<T> const& p) const noexcept {
    return std::hash<T const*>()(p.ptr());
  }
};
