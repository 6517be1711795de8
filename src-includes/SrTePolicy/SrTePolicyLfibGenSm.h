// Hears: PolicyStatus and every PolicyStatusEntry, nested (inside the publish task).
// Writes: binding-SID routes and external FEC adjacencies in SrTePolicyLfibStatus's LFIB.
//
// SrTePolicyLfibGenSm: makes published policies reachable by their binding SID. For every
// PolicyStatusEntry that has a binding SID and at least one weighted tunnel it installs, in the
// MPLS status held by SrTePolicyLfibStatus, an external FEC adjacency pointing at the policy's
// FEC and an LFIB route for the binding SID (source 14) over that adjacency.
//
// Every qualifying change replaces the installed entry break-before-make: the old route,
// adjacency and adjacency index go first, then a new index is allocated and the route is
// installed afresh, so a reader never sees an index stand for another FEC. An entry that stops
// qualifying (gone, no binding SID, no tunnels) has its route, adjacency and index removed.
// Two policies that claim one binding SID share its route, the later install winning; removing
// either never touches the other's adjacency or index.
// Runs synchronously from PolicyStatus notifications; the batching happens in PolicyPublishSm.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include "Mosk/ReactorMap.h"
#include "MplsHelper/IndexAllocators.h"
#include "SrTePolicy/SrTePolicyStatus.h"

namespace SrTePolicy {

class SrTePolicyLfibGenSm : public StateMachine {
 public:
  // The route source of every adjacency index and route made here.
  static constexpr U8 lfibSource = 14;

  // Wires the machine and runs handleInitialized(): the LFIB is wiped and every status entry
  // is installed again.
  SrTePolicyLfibGenSm(Mosk::Ptr<PolicyStatus const> policyStatus,
                      Mosk::Ptr<SrTePolicyLfibStatus> lfibStatus,
                      Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc);
  ~SrTePolicyLfibGenSm() override;
  Mosk::Name name() const override { return "SrTePolicyLfibGenSm"; }

  Mosk::Ptr<PolicyStatus const> const& policyStatus() const { return policyStatus_; }
  Mosk::Ptr<SrTePolicyLfibStatus> const& lfibStatus() const { return lfibStatus_; }
  Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> const& adjIdxAlloc() const { return adjIdxAlloc_; }
  // The metric written into every binding-SID route; applies to routes installed afterwards.
  void routeMetricIs(U32 metric) { routeMetric_ = metric; }
  // The binding SID under which an entry is installed for `key`, while one is.
  std::optional<Ludd::MplsLabel> policyKeyBindingSidMap(PolicyKey const& key) const;
  U32 policyKeyBindingSidMapCount() const { return installedCount_; }
  bool initialized() const { return initialized_; }

  // Wipes the routes and external FEC adjacencies of the LFIB, then installs every entry.
  void handleInitialized();
  // Installs, replaces or removes the LFIB entry of `key` from its status entry.
  void handlePolicy(PolicyKey const& key);
  // Teardown: wipes the routes and external FEC adjacencies of the LFIB.
  void handleDel();

 private:
  // Watches one PolicyStatusEntry and remembers the binding SID under which the key's entry is
  // installed (none while nothing is), so a change of the entry is handled without looking the
  // key up in any table.
  class NestedPolicyReactor : public PolicyStatusEntry::NotifieeConst {
   public:
    NestedPolicyReactor(SrTePolicyLfibGenSm* sm, PolicyKey const& key) : sm_(sm), key_(key) {}
    PolicyKey const& key() const { return key_; }
    void onBindingSid() override;
    void onWeightedViaSet() override;
    void onSrTePolicyFecId() override;

    Ludd::MplsLabel installed;

   private:
    SrTePolicyLfibGenSm* const sm_;
    PolicyKey const key_;
  };

  class PolicyStatusReactor : public PolicyStatus::NotifieeConst {
   public:
    explicit PolicyStatusReactor(SrTePolicyLfibGenSm* sm) : sm_(sm) {}
    void onStatus(PolicyKey const& key) override;

   private:
    SrTePolicyLfibGenSm* const sm_;
  };

  // The nested reactors, by key. A null entry is refused with the range error.
  NestedPolicyReactor* nestedPolicyIs(Mosk::Ptr<PolicyStatusEntry const> const& entry);
  // A status entry added, replaced or removed: handles it and moves the key's reactor along.
  void handleStatus(PolicyKey const& key);
  // A change of the entry that `reactor` watches.
  void handleEntry(NestedPolicyReactor& reactor);
  // handlePolicy's work for `key`, given its status entry (null when gone) and its reactor (null
  // when it has none; created when an entry is installed). Returns the reactor.
  NestedPolicyReactor* apply(PolicyKey const& key, PolicyStatusEntry const* entry,
                             NestedPolicyReactor* reactor);

  Mosk::Ptr<PolicyStatus const> const policyStatus_;
  Mosk::Ptr<SrTePolicyLfibStatus> const lfibStatus_;
  Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> const adjIdxAlloc_;
  U32 routeMetric_ = 0;
  // Removes the route under `bindingSid`, the external FEC adjacency `adj` it points at and
  // that adjacency's index. The route is whatever the LFIB holds now under that label: when
  // two policies claim one binding SID, it may be the other policy's entry.
  void removeLfibEntry(Mpls::Status& lfib, Ludd::MplsLabel bindingSid, U64 adj);

  // The installed binding SIDs live in the reactors; this counts the keys that have one.
  U32 installedCount_ = 0;
  Mosk::ReactorMap<PolicyKey, NestedPolicyReactor> nestedPolicy_;
  bool initialized_ = false;
  Mosk::Ptr<PolicyStatusReactor> policyStatusReactor_;
};

inline Mosk::Ptr<SrTePolicyLfibGenSm> srTePolicyLfibGenSmFactory(
    Mosk::Ptr<PolicyStatus const> policyStatus, Mosk::Ptr<SrTePolicyLfibStatus> lfibStatus,
    Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc) {
  return Mosk::Ptr<SrTePolicyLfibGenSm>(new SrTePolicyLfibGenSm(
      std::move(policyStatus), std::move(lfibStatus), std::move(adjIdxAlloc)));
}

}  // namespace SrTePolicy
