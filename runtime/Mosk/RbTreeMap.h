// RbTreeMap: an ordered collection of counted elements, ascending by the key's `<`, kept in an
// intrusive red-black tree hooked into the element (one allocation per element, no node).
//
// Cursors hold a counted reference to their element. When the element has left the tree the
// cursor continues at the first key above it, so erasing the element under a cursor, or the
// one after it, never breaks a walk.
#pragma once

#include <boost/intrusive/set.hpp>
#include <functional>

#include "Mosk/Ptr.h"

namespace Mosk {

using RbTreeHook =
    boost::intrusive::set_member_hook<boost::intrusive::link_mode<boost::intrusive::safe_link>,
                                      boost::intrusive::optimize_size<true>>;

// E must have a public `RbTreeHook rbTreeHook_` member; KeyOf maps an E to its key.
template <class K, class E, class KeyOf, class Less = std::less<K>>
class RbTreeMap {
  struct KeyOfValue {
    using type = K;
    K const& operator()(E const& e) const { return KeyOf()(e); }
  };
  using Set =
      boost::intrusive::set<E, boost::intrusive::member_hook<E, RbTreeHook, &E::rbTreeHook_>,
                            boost::intrusive::key_of_value<KeyOfValue>,
                            boost::intrusive::compare<Less>,
                            boost::intrusive::constant_time_size<true>>;

 public:
  RbTreeMap() = default;
  RbTreeMap(RbTreeMap const&) = delete;
  RbTreeMap& operator=(RbTreeMap const&) = delete;
  ~RbTreeMap() { clear(); }

  template <bool Const>
  class CursorOf {
   public:
    using Elem = std::conditional_t<Const, E const, E>;
    using Map = std::conditional_t<Const, RbTreeMap const, RbTreeMap>;
    CursorOf() = default;
    CursorOf(Map* map, E* e) : map_(map), e_(e) {}
    explicit operator bool() const { return static_cast<bool>(e_); }
    K const& key() const { return KeyOf()(*e_); }
    Ptr<Elem> ptr() const { return Ptr<Elem>(e_.ptr()); }
    Elem* operator->() const { return e_.ptr(); }
    Elem& operator*() const { return *e_; }
    CursorOf& operator++() {
      if (!e_) return *this;
      e_ = map_->after(*e_);
      return *this;
    }

   private:
    Map* map_ = nullptr;
    Ptr<E> e_;
  };
  using Cursor = CursorOf<false>;
  using CursorConst = CursorOf<true>;

  U32 size() const { return static_cast<U32>(set_.size()); }
  bool empty() const { return set_.empty(); }

  E* find(K const& k) const {
    auto it = set_.find(k);
    return it == set_.end() ? nullptr : const_cast<E*>(&*it);
  }
  E* first() const { return set_.empty() ? nullptr : const_cast<E*>(&*set_.begin()); }

  std::pair<E*, bool> insert(Ptr<E> e) {
    auto [it, inserted] = set_.insert(*e);
    if (inserted) e.release();  // the tree now holds the reference
    return {&*it, inserted};
  }
  Ptr<E> erase(K const& k) {
    auto it = set_.find(k);
    if (it == set_.end()) return Ptr<E>();
    E* e = &*it;
    set_.erase(it);
    Ptr<E> out(e);
    e->deleteRef();  // the tree's reference, now owned by `out`
    return out;
  }
  void clear() {
    set_.clear_and_dispose([](E* e) { e->deleteRef(); });
  }

  Cursor cursor() { return Cursor(this, first()); }
  CursorConst cursor() const { return CursorConst(this, first()); }
  // Starts at `k`, or at the first key above it when `k` is absent.
  CursorConst cursorAt(K const& k) const {
    auto it = set_.lower_bound(k);
    return CursorConst(this, it == set_.end() ? nullptr : const_cast<E*>(&*it));
  }

 private:
  E* after(E const& e) const {
    typename Set::const_iterator it;
    if (e.rbTreeHook_.is_linked()) {
      it = set_.iterator_to(e);
      ++it;
    } else {
      it = set_.upper_bound(KeyOf()(e));
    }
    return it == set_.end() ? nullptr : const_cast<E*>(&*it);
  }

  Set set_;
};

}  // namespace Mosk
