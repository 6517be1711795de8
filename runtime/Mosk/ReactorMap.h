// ReactorMap: a machine's reactors on the elements of a collection, one per key.
//
// A state machine that must hear the attributes of every element of a collection (each
// segment's resolve entry, each candidate path, each policy) keeps one reactor per key and
// moves it along as the element under that key is created, replaced or removed. This is that
// bookkeeping, once: follow() creates the key's reactor on first use and points it at the
// element, a null element drops it; a reactor is never duplicated and never left on an element
// that its key no longer names. The reactors are counted objects held only here, so dropping
// one detaches it.
#pragma once

#include <utility>

#include "Mosk/HashMap.h"

namespace Mosk {

template <class Key, class Reactor, class Hasher = KeyHash<Key>>
class ReactorMap {
 public:
  // Points the reactor of `key` at `notifier`, creating it with `make()` (which returns a
  // Ptr<Reactor>) when `key` has none; a null `notifier` drops the key's reactor. Returns the
  // reactor, or null when it was dropped.
  template <class Notifier, class Make>
  Reactor* follow(Key const& key, Ptr<Notifier> const& notifier, Make&& make) {
    if (!notifier) {
      erase(key);
      return nullptr;
    }
    if (Ptr<Reactor> const* found = map_.find(key)) {
      (*found)->notifierIs(notifier);
      return found->ptr();
    }
    Ptr<Reactor> reactor = std::forward<Make>(make)();
    reactor->notifierIs(notifier);
    map_.set(key, reactor);
    return reactor.ptr();
  }
  void erase(Key const& key) { map_.erase(key); }
  void clear() { map_.clear(); }
  Reactor* find(Key const& key) const {
    Ptr<Reactor> const* found = map_.find(key);
    return found ? found->ptr() : nullptr;
  }
  U32 size() const { return map_.size(); }

 private:
  HashMap<Key, Ptr<Reactor>, Hasher> map_;
};

}  // namespace Mosk
