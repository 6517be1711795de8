// Named entities, notifiees and synchronous notification.
//
// An Entity is a counted object with a name, an optional parent and a list of notifiees.
// Setters of generated types store their change and then call notify(), which calls the given
// callback on every active notifiee, in registration order, before the setter returns.
// Notifiees may attach, detach or deactivate other notifiees (or themselves) from inside a
// callback: a notifiee detached during a dispatch is skipped, one attached during a dispatch
// hears the next notification. A notifier with no notifiees pays one branch per notification.
#pragma once

#include <boost/container/small_vector.hpp>
#include <cstdint>
#include <string>

#include "Mosk/Ptr.h"
#include "Mosk/Value.h"

namespace Mosk {

class Entity;

// The base of every notifiee interface (T::NotifieeConst) and so of every reactor. It holds a
// counted reference to its notifier, so a watched object lives while it is watched.
class NotifieeBase : public PtrInterface {
 public:
  NotifieeBase() = default;
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  ~NotifieeBase() override { detach(); }

  // An inactive notifiee ignores every callback until it is made active again.
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active) { active_ = active; }

 protected:
  Entity const* notifierEntity() const { return notifier_.ptr(); }
  // Re-points the notifiee; null detaches it.
  void notifierEntityIs(Entity const* notifier);

 private:
  friend class Entity;
  void detach();

  Ptr<Entity const> notifier_;
  bool active_ = true;
};

// The typed half of T::NotifieeConst: notifierIs(ptr) binds it to one T.
template <class T>
class NotifieeConstOf : public NotifieeBase {
 public:
  Ptr<T const> notifier() const { return Ptr<T const>(static_cast<T const*>(notifierEntity())); }
  void notifierIs(Ptr<T const> const& notifier) { notifierEntityIs(notifier.ptr()); }
};

class Entity : public PtrInterface {
 public:
  Entity() = default;
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;
  ~Entity() override;

  // The entity's name: given at construction for top-level objects, the text form of the key
  // for elements of a collection (computed when asked, never stored).
  virtual Name name() const = 0;
  Entity const* parent() const { return parent_; }
  void parentIs(Entity const* parent) { parent_ = parent; }
  // The path of names from the root, joined by '/'.
  std::string fullName() const;

  bool hasNotifiees() const { return notifiees_ != 0; }
  U32 notifieeCount() const;

  // True for the entities of a copy mounted read-only from another process.
  bool readOnlyReplica() const { return (flags_ & kReadOnlyReplica) != 0; }

 protected:
  // The first step of every generated mutator of a replicated type: a read-only copy raises
  // the internal error "write-update from readonly proxy: <fullName> peerName: <peer>".
  void writeCheck() const {
    if (MOSK_UNLIKELY(flags_ & kReadOnlyReplica)) throwReadOnly();
  }

  // Calls `fn(args...)` on every active notifiee of type N.
  template <class N, class... P, class... A>
  void notify(void (N::*fn)(P...), A const&... args) const {
    if (MOSK_LIKELY(notifiees_ == 0)) return;
    if (notifiees_ & kOneNotifiee) {
      // The notifiee may detach itself or attach others; nothing here reads the list again.
      NotifieeBase* n = reinterpret_cast<NotifieeBase*>(notifiees_ & ~kOneNotifiee);
      if (!n->active_) return;
      KeepAlive alive(this);
      (static_cast<N*>(n)->*fn)(args...);
      return;
    }
    Dispatch dispatch(this);
    for (std::size_t i = 0; i < dispatch.count; ++i) {
      NotifieeBase* n = list()->items[i];
      if (n != nullptr && n->active_) (static_cast<N*>(n)->*fn)(args...);
    }
  }

 private:
  friend class NotifieeBase;
  friend class ReplicaAccess;

  void readOnlyReplicaIs(bool readOnly) const {
    flags_ =
        static_cast<U16>(readOnly ? (flags_ | kReadOnlyReplica) : (flags_ & ~kReadOnlyReplica));
  }
  [[noreturn]] void throwReadOnly() const;

  struct NotifieeList {
    boost::container::small_vector<NotifieeBase*, 2> items;
    U32 depth = 0;
    bool holes = false;
  };

  // Keeps the notifier alive across a call to its one notifiee.
  struct KeepAlive {
    explicit KeepAlive(Entity const* e) : entity(e) { e->newRef(); }
    ~KeepAlive() { entity->deleteRef(); }
    Entity const* entity;
  };

  // Keeps the notifier and its list alive across one dispatch; compacts afterwards.
  struct Dispatch {
    explicit Dispatch(Entity const* e) : entity(e), count(e->list()->items.size()) {
      e->newRef();
      ++e->list()->depth;
    }
    ~Dispatch() {
      if (--entity->list()->depth == 0) entity->compactNotifiees();
      entity->deleteRef();
    }
    Entity const* entity;
    std::size_t count;
  };

  NotifieeList* list() const { return reinterpret_cast<NotifieeList*>(notifiees_); }
  void addNotifiee(NotifieeBase* n) const;
  void removeNotifiee(NotifieeBase* n) const;
  void compactNotifiees() const;
  // After a removal outside any dispatch: back to one inline notifiee, or none.
  void shrinkNotifiees() const;

  // Most entities have at most one notifiee (the reactor of the one machine that watches
  // them), so it is kept here with the low bit set; a second one moves them to a list.
  static constexpr std::uintptr_t kOneNotifiee = 1;
  mutable std::uintptr_t notifiees_ = 0;
  Entity const* parent_ = nullptr;
};

// A top-level entity whose name is given at construction.
class NamedEntity : public Entity {
 public:
  explicit NamedEntity(Name name) : name_(std::move(name)) {}
  Name name() const override { return name_; }
  // Sets the name again, as restoring from a backup does.
  void nameIsFromBackup(Name name) { name_ = std::move(name); }

 private:
  Name name_;
};

}  // namespace Mosk
