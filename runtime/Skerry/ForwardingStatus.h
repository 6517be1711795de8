// The forwarding status tables: FECs keyed by FecId, one table for IPv4 next hops
// (Skerry::Fib::ForwardingStatus) and one for IPv6 (Skerry::Fib6::ForwardingStatus).
//
// The publisher writes a FEC in place: fecForWrite(id) hands out the FEC stored under `id`,
// created when absent and cleared when present (via count 0, so that a FEC whose set of vias
// shrank keeps nothing stale), the publisher fills its vias and count, and fecCommit(fec)
// publishes it: readers hear onFec(id) only then. Resolution looks FECs up by id; an absent id
// reads as the empty FEC.
//
// FECs sit in stable slots (Skerry::SlotStore) behind a hash index, so the reference that
// fecForWrite or fec() returns stays valid until that FEC is deleted or the table is cleared;
// the FEC-id cursor survives any change.
#pragma once

#include "Fib/Fec.h"
#include "Mosk/Entity.h"
#include "Mosk/HashMap.h"
#include "Skerry/Table.h"

namespace Skerry {

template <Ludd::IpGenAddr::Family family>
class ForwardingStatusOf : public Mosk::NamedEntity {
 public:
  class NotifieeConst : public Mosk::NotifieeConstOf<ForwardingStatusOf> {
   public:
    // A FEC was committed or deleted.
    virtual void onFec(::Fib::FecId const&) {}
    // The table as a whole changed (fecNotifyCollection).
    virtual void onFec() {}
  };

  using FecIterConst = typename Mosk::HashMap<::Fib::FecId, U32>::CursorConst;

  explicit ForwardingStatusOf(Mosk::Name name) : Mosk::NamedEntity(std::move(name)) {}

  U32 fecCount() const { return index_.size(); }
  // The FEC ids present, in table order.
  FecIterConst fecIter() const { return index_.cursor(); }
  // The FEC stored under `fecId`, or the empty FEC when there is none.
  ::Fib::Fec const& fec(::Fib::FecId const& fecId) const {
    U32 const* slot = index_.find(fecId);
    return slot ? fecs_.at(*slot) : emptyFec();
  }

  // The FEC stored under `fecId` for writing in place: created when absent, cleared when
  // present. Nothing is published until fecCommit. The empty id raises the range error.
  ::Fib::Fec& fecForWrite(::Fib::FecId const& fecId) {
    if (fecId.isNone()) throw Mosk::RangeException("the empty FecId names no FEC to write");
    if (U32 const* slot = index_.find(fecId)) {
      ::Fib::Fec& fec = fecs_.at(*slot);
      fec.clear();
      return fec;
    }
    U32 slot = fecs_.acquire(::Fib::Fec(fecId));
    index_.set(fecId, slot);
    return fecs_.at(slot);
  }

  // Publishes `fec` under its id and tells readers. A FEC obtained from fecForWrite is
  // published as written; another FEC is copied in first. Raises the range error, storing
  // nothing, for the empty id or a next hop of the other address family.
  void fecCommit(::Fib::Fec const& fec) {
    ::Fib::FecId const& id = fec.fecId();
    if (id.isNone()) throw Mosk::RangeException("the empty FecId names no FEC to commit");
    U32 i = 0;
    for (::Fib::Via const& via : fec) {
      ++i;
      if (!via.nextHop().isEmpty() && via.nextHop().family() != family) {
        throw Mosk::RangeException("FEC " + Mosk::valueToStrep(id) + " via " + std::to_string(i) +
                                   ": next hop " + Mosk::valueToStrep(via.nextHop()) +
                                   " is not an " + familyName() + " address");
      }
    }
    U32 const* slot = index_.find(id);
    if (slot == nullptr) {
      index_.set(id, fecs_.acquire(fec));
    } else if (&fecs_.at(*slot) != &fec) {
      fecs_.at(*slot) = fec;
    }
    notify(static_cast<void (NotifieeConst::*)(::Fib::FecId const&)>(&NotifieeConst::onFec), id);
  }

  void fecDel(::Fib::FecId const& fecId) {
    U32 const* slot = index_.find(fecId);
    if (slot == nullptr) return;
    U32 freed = *slot;
    index_.erase(fecId);
    fecs_.release(freed);
    notify(static_cast<void (NotifieeConst::*)(::Fib::FecId const&)>(&NotifieeConst::onFec), fecId);
  }
  void fecDelAll() {
    if (!hasNotifiees()) {
      index_.clear();
      fecs_.clear();
      return;
    }
    for (auto c = index_.cursor(); c; ++c)
      fecDel(c.key());
  }
  void fecNotify(::Fib::FecId const& fecId) const {
    notify(static_cast<void (NotifieeConst::*)(::Fib::FecId const&)>(&NotifieeConst::onFec), fecId);
  }
  void fecNotifyCollection() const {
    notify(static_cast<void (NotifieeConst::*)()>(&NotifieeConst::onFec));
  }

 private:
  static ::Fib::Fec const& emptyFec() {
    static ::Fib::Fec const empty;
    return empty;
  }
  static char const* familyName() {
    return family == Ludd::IpGenAddr::Family::ipv4 ? "IPv4" : "IPv6";
  }

  Mosk::HashMap<::Fib::FecId, U32> index_;
  SlotStore<::Fib::Fec> fecs_;
};

namespace Fib {
// The IPv4 forwarding status.
using ForwardingStatus = ForwardingStatusOf<Ludd::IpGenAddr::Family::ipv4>;
inline Mosk::Ptr<ForwardingStatus> forwardingStatusFactory(Mosk::Name name) {
  return Mosk::Ptr<ForwardingStatus>(new ForwardingStatus(std::move(name)));
}
}  // namespace Fib

namespace Fib6 {
// The IPv6 forwarding status.
using ForwardingStatus = ForwardingStatusOf<Ludd::IpGenAddr::Family::ipv6>;
inline Mosk::Ptr<ForwardingStatus> forwardingStatusFactory(Mosk::Name name) {
  return Mosk::Ptr<ForwardingStatus>(new ForwardingStatus(std::move(name)));
}
}  // namespace Fib6

}  // namespace Skerry
