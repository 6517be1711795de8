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
  delete notifiees_;
}

std::string Entity::fullName() const {
  if (parent_ == nullptr) return name();
  return parent_->fullName() + "/" + name();
}

U32 Entity::notifieeCount() const {
  if (notifiees_ == nullptr) return 0;
  return static_cast<U32>(std::count_if(notifiees_->items.begin(), notifiees_->items.end(),
                                        [](NotifieeBase* n) { return n != nullptr; }));
}

void Entity::addNotifiee(NotifieeBase* n) const {
  if (notifiees_ == nullptr) notifiees_ = new NotifieeList;
  notifiees_->items.push_back(n);
}

void Entity::removeNotifiee(NotifieeBase* n) const {
  if (notifiees_ == nullptr) return;
  auto& items = notifiees_->items;
  auto it = std::find(items.begin(), items.end(), n);
  if (it == items.end()) return;
  if (notifiees_->depth > 0) {
    *it = nullptr;
    notifiees_->holes = true;
    return;
  }
  items.erase(it);
  if (items.empty()) {
    delete notifiees_;
    notifiees_ = nullptr;
  }
}

void Entity::compactNotifiees() const {
  if (!notifiees_->holes) return;
  auto& items = notifiees_->items;
  items.erase(std::remove(items.begin(), items.end(), nullptr), items.end());
  notifiees_->holes = false;
  if (items.empty()) {
    delete notifiees_;
    notifiees_ = nullptr;
  }
}

}  // namespace Mosk
