// The host's memory of the active candidates (PolicyActivityKeeper.h).
#include "PolicyActivityKeeper.h"

#include <chrono>
#include <vector>

namespace SrTePolicy {

class PolicyActivityKeeper::EcPolicyReactor : public EcPolicy::NotifieeConst {
 public:
  explicit EcPolicyReactor(PolicyActivityKeeper* keeper) : keeper_(keeper) {}
  void onPolicy(PolicyKey const& key) override {
    keeper_->watchPolicy(key);
    keeper_->mark(key);
  }

 private:
  PolicyActivityKeeper* const keeper_;
};

class PolicyActivityKeeper::PolicyReactor : public Policy::NotifieeConst {
 public:
  PolicyReactor(PolicyActivityKeeper* keeper, PolicyKey const& key) : keeper_(keeper), key_(key) {}
  void onActive() override { keeper_->mark(key_); }
  void onCandidate(Priority const&) override { keeper_->mark(key_); }
  // The policy's eligible candidates by source, as last counted.
  std::array<U32, 4> eligible{};

 private:
  PolicyActivityKeeper* const keeper_;
  PolicyKey const key_;
};

class PolicyActivityKeeper::KeyMapReactor : public PolicyKeyToIdMap::NotifieeConst {
 public:
  explicit KeyMapReactor(PolicyActivityKeeper* keeper) : keeper_(keeper) {}
  void onMapEntry(PolicyKey const& key) override { keeper_->mark(key); }

 private:
  PolicyActivityKeeper* const keeper_;
};

PolicyActivityKeeper::PolicyActivityKeeper(Mosk::Ptr<EcPolicy const> ecPolicy,
                                           Mosk::Ptr<PolicyKeyToIdMap const> keyToIdMap,
                                           Mosk::Ptr<PolicyActivity> activity,
                                           Mosk::Ptr<Vell::Clock const> clock)
    : ecPolicy_(std::move(ecPolicy)),
      keyToIdMap_(std::move(keyToIdMap)),
      activity_(std::move(activity)),
      clock_(std::move(clock)) {
  if (!ecPolicy_ || !keyToIdMap_ || !activity_) Mosk::throwNullValidPtr();
  // What an earlier keeper wrote is not ours to continue: the policies found active start now.
  activity_->policyDelAll();
  double const start = now();
  for (auto it = ecPolicy_->policyIterConst(); it; ++it) {
    watchPolicy(it.key());
    recountEligible(it.key(), it.ptr().ptr());
    Mosk::Ptr<PolicyEntry const> active = it.ptr()->active();
    if (!active) continue;
    countActive(active->priority().id(), 1);
    Mosk::Ptr<PolicyActivityEntry> entry = activity_->policyIs(it.key());
    entry->activeIs(true);
    entry->activeIdIs(active->priority().id());
    entry->activeSinceIs(start);
  }
  ecPolicyReactor_ = Mosk::Ptr<EcPolicyReactor>(new EcPolicyReactor(this));
  ecPolicyReactor_->notifierIs(ecPolicy_);
  keyMapReactor_ = Mosk::Ptr<KeyMapReactor>(new KeyMapReactor(this));
  keyMapReactor_->notifierIs(keyToIdMap_);
}

PolicyActivityKeeper::~PolicyActivityKeeper() {
  if (ecPolicyReactor_) ecPolicyReactor_->notifierIs(nullptr);
  if (keyMapReactor_) keyMapReactor_->notifierIs(nullptr);
  for (auto it = policyReactors_.cursor(); it; ++it)
    it.value()->notifierIs(nullptr);
}

double PolicyActivityKeeper::now() const {
  if (clock_) return clock_->now();
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

void PolicyActivityKeeper::watchPolicy(PolicyKey const& key) {
  Mosk::Ptr<Policy const> policy = ecPolicy_->policy(key);
  Mosk::Ptr<PolicyReactor> const* known = policyReactors_.find(key);
  if (!policy) {
    if (known) {
      for (std::size_t s = 0; s < counts_.eligibleBySource.size(); ++s)
        counts_.eligibleBySource[s] -= (*known)->eligible[s];
      (*known)->notifierIs(nullptr);
      policyReactors_.erase(key);
    }
    return;
  }
  if (!known) {
    Mosk::Ptr<PolicyReactor> reactor(new PolicyReactor(this, key));
    reactor->notifierIs(policy);
    policyReactors_.set(key, std::move(reactor));
    return;
  }
  // A policy removed and made again under the same key is another object: follow it.
  if ((*known)->notifier().ptr() != policy.ptr()) (*known)->notifierIs(policy);
}

void PolicyActivityKeeper::recountEligible(PolicyKey const& key, Policy const* policy) {
  Mosk::Ptr<PolicyReactor> const* reactor = policy ? policyReactors_.find(key) : nullptr;
  if (!reactor) return;
  std::array<U32, 4> now{};
  for (auto it = policy->candidateIterConst(); it; ++it)
    ++now[static_cast<U8>(it.key().source())];
  std::array<U32, 4>& was = (*reactor)->eligible;
  for (std::size_t s = 0; s < now.size(); ++s)
    counts_.eligibleBySource[s] += static_cast<U64>(now[s]) - was[s];
  was = now;
}

void PolicyActivityKeeper::mark(PolicyKey const& key) {
  if (marked_.contains(key)) return;
  marked_.set(key, now());
  if (marked_.size() == 1 && settleDue_) settleDue_();
}

void PolicyActivityKeeper::settle() {
  if (marked_.empty()) return;
  // Writing the activity marks nothing, so the marks stay put while they are walked.
  for (auto it = marked_.cursor(); it; ++it) {
    PolicyKey const& key = it.key();
    double const when = it.value();
    Mosk::Ptr<Policy const> policy = ecPolicy_->policy(key);
    Mosk::Ptr<PolicyEntry const> active = policy ? policy->active() : nullptr;
    Mosk::Ptr<PolicyActivityEntry> entry = activity_->policy(key);
    recountEligible(key, policy.ptr());
    if (active) {
      U32 const id = active->priority().id();
      if (entry && entry->active() && entry->activeId() == id) continue;
      if (!entry) entry = activity_->policyIs(key);
      if (entry->active()) countActive(entry->activeId(), -1);
      countActive(id, 1);
      ++counts_.transitions;
      entry->activeIs(true);
      entry->activeIdIs(id);
      entry->activeSinceIs(when);
      entry->activeTransitionsInc(1);
      continue;
    }
    if (!policy && !keyToIdMap_->mapEntry(key)) {
      // Nothing knows the key any more.
      if (entry && entry->active()) {
        countActive(entry->activeId(), -1);
        ++counts_.transitions;
      }
      if (entry) activity_->policyDel(key);
      continue;
    }
    if (entry && entry->active()) {
      countActive(entry->activeId(), -1);
      ++counts_.transitions;
      entry->activeIs(false);
      entry->activeIdIs(0);
      entry->activeSinceIs(when);
      entry->activeTransitionsInc(1);
    }
  }
  marked_.clear();
}

}  // namespace SrTePolicy
