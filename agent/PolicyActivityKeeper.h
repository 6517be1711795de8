// The host's memory of the policies' active candidates: watches the selection's output
// (EcPolicy: each policy and its `active` candidate) and the policy keys the input knows
// (PolicyKeyToIdMap), and keeps PolicyActivity (PolicyActivity.mosk) true: per policy key, the
// active candidate as last settled, since when, and how many times it changed.
//
// Changes are settled, not taken one notification at a time. Within one chain of changes the
// selection may clear a policy's `active` and set it again (a candidate whose priority changed
// is filed under a new entry), and an orderly restart of the selection machine empties EcPolicy
// before its task builds it again; neither changes which candidate is active. So a notification
// only marks the key (with the time it came), and settle() compares each marked key's active
// candidate, by policy id, with the one last settled: a difference is one transition, dated by
// the mark. The host settles after every run of its scheduler; a host that drives the scheduler
// itself calls settle() once its event loop has finished the current chain (settleDueIs() tells
// it when one is due).
//
// What counts as a transition: none -> a candidate, a candidate -> another, a candidate -> none
// (the policy lost its last eligible candidate). A key keeps its entry while EcPolicy or the
// input knows it; a key gone from both is forgotten. A keeper built over an EcPolicy that
// already holds policies (the agent restarted) starts their entries at its own start: since
// then, no transition counted.
//
// Beside the table the keeper keeps counts over all keys, as its settles leave them: active and
// eligible candidates by source and the transitions since it started. They cost a walk of one
// policy's candidates per marked key, so that a reader (the metrics endpoint) never walks them
// all.
#pragma once

#include <array>
#include <functional>

#include "Mosk/HashMap.h"
#include "PolicyActivity.h"
#include "SrTePolicy/SrTePolicyEntry.h"
#include "Vell/Clock.h"

namespace SrTePolicy {

class PolicyActivityKeeper : public Mosk::PtrInterface {
 public:
  // `clock` dates the transitions: a simulation's manual clock (its time is seconds since the
  // Unix epoch, so a scenario starts at the epoch), or null for the system's real-time clock.
  PolicyActivityKeeper(Mosk::Ptr<EcPolicy const> ecPolicy,
                       Mosk::Ptr<PolicyKeyToIdMap const> keyToIdMap,
                       Mosk::Ptr<PolicyActivity> activity, Mosk::Ptr<Vell::Clock const> clock);
  ~PolicyActivityKeeper() override;
  PolicyActivityKeeper(PolicyActivityKeeper const&) = delete;
  PolicyActivityKeeper& operator=(PolicyActivityKeeper const&) = delete;

  // Applies the marked keys to PolicyActivity (see above). Cheap when nothing is marked.
  void settle();
  bool settlePending() const { return !marked_.empty(); }
  // Called when the first key is marked after a settle.
  void settleDueIs(std::function<void()> f) { settleDue_ = std::move(f); }

  Mosk::Ptr<PolicyActivity> const& activity() const { return activity_; }

  struct Counts {
    // By PolicySource: candidates active, and candidates eligible (active or not), as settled.
    std::array<U64, 4> activeBySource{};
    std::array<U64, 4> eligibleBySource{};
    // Transitions counted since this keeper started.
    U64 transitions = 0;
  };
  Counts const& counts() const { return counts_; }
  // Seconds on the clock that dates the transitions.
  double now() const;

 private:
  class EcPolicyReactor;
  class PolicyReactor;
  class KeyMapReactor;

  void mark(PolicyKey const& key);
  void watchPolicy(PolicyKey const& key);
  void recountEligible(PolicyKey const& key, Policy const* policy);
  void countActive(U32 id, int delta) {
    counts_.activeBySource[static_cast<U8>(PolicyId(id).source())] += static_cast<U64>(delta);
  }

  Mosk::Ptr<EcPolicy const> ecPolicy_;
  Mosk::Ptr<PolicyKeyToIdMap const> keyToIdMap_;
  Mosk::Ptr<PolicyActivity> activity_;
  Mosk::Ptr<Vell::Clock const> clock_;
  Mosk::Ptr<EcPolicyReactor> ecPolicyReactor_;
  Mosk::Ptr<KeyMapReactor> keyMapReactor_;
  Mosk::HashMap<PolicyKey, Mosk::Ptr<PolicyReactor>> policyReactors_;
  // Keys marked since the last settle, with the time of their first mark.
  Mosk::HashMap<PolicyKey, double> marked_;
  std::function<void()> settleDue_;
  Counts counts_;
};

inline Mosk::Ptr<PolicyActivityKeeper> policyActivityKeeperFactory(
    Mosk::Ptr<EcPolicy const> ecPolicy, Mosk::Ptr<PolicyKeyToIdMap const> keyToIdMap,
    Mosk::Ptr<PolicyActivity> activity, Mosk::Ptr<Vell::Clock const> clock) {
  return Mosk::Ptr<PolicyActivityKeeper>(new PolicyActivityKeeper(
      std::move(ecPolicy), std::move(keyToIdMap), std::move(activity), std::move(clock)));
}

}  // namespace SrTePolicy
