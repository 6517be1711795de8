#include "Mosk/Entity.h"

#include <algorithm>

namespace Mosk {

void NotifieeBase::notifierEntityIs(Entity const* notifier) {
  if (notifier == notifier_.ptr()) return;
  detach();
  if (notifier == nullptr) return;
  notifier_ = notifier;
  notifier->addNotifiee(this);
}

void NotifieeBase::detach() {
  if (!notifier_) return;
  notifier_->removeNotifiee(this);
  notifier_ = nullptr;  // may destroy the notifier; it no longer lists this notifiee
}

Entity::~Entity() {
  // Notifiees hold counted references, so none can be left; the list may remain only if it was
  // emptied during a dispatch that is unwinding.
  if ((notifiees_ & kOneNotifiee) == 0) delete list();
}

std::string Entity::fullName() const {
  if (parent_ == nullptr) return name();
  return parent_->fullName() + "/" + name();
}

U32 Entity::notifieeCount() const {
  if (notifiees_ == 0) return 0;
  if (notifiees_ & kOneNotifiee) return 1;
  auto const& items = list()->items;
  return static_cast<U32>(
      std::count_if(items.begin(), items.end(), [](NotifieeBase* n) { return n != nullptr; }));
}

void Entity::addNotifiee(NotifieeBase* n) const {
  if (notifiees_ == 0) {
    notifiees_ = reinterpret_cast<std::uintptr_t>(n) | kOneNotifiee;
    return;
  }
  if (notifiees_ & kOneNotifiee) {
    auto* l = new NotifieeList;
    l->items.push_back(reinterpret_cast<NotifieeBase*>(notifiees_ & ~kOneNotifiee));
    notifiees_ = reinterpret_cast<std::uintptr_t>(l);
  }
  list()->items.push_back(n);
}

void Entity::removeNotifiee(NotifieeBase* n) const {
  if (notifiees_ == 0) return;
  if (notifiees_ & kOneNotifiee) {
    if (notifiees_ == (reinterpret_cast<std::uintptr_t>(n) | kOneNotifiee)) notifiees_ = 0;
    return;
  }
  auto& items = list()->items;
  auto it = std::find(items.begin(), items.end(), n);
  if (it == items.end()) return;
  if (list()->depth > 0) {
    *it = nullptr;
    list()->holes = true;
    return;
  }
  items.erase(it);
  shrinkNotifiees();
}

void Entity::compactNotifiees() const {
  if (!list()->holes) return;
  auto& items = list()->items;
  items.erase(std::remove(items.begin(), items.end(), nullptr), items.end());
  list()->holes = false;
  shrinkNotifiees();
}

void Entity::shrinkNotifiees() const {
  auto& items = list()->items;
  if (items.size() > 1) return;
  std::uintptr_t one =
      items.empty() ? 0 : (reinterpret_cast<std::uintptr_t>(items.front()) | kOneNotifiee);
  delete list();
  notifiees_ = one;
}

}  // namespace Mosk
