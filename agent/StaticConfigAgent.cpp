#include "StaticConfigAgent.h"

#include <algorithm>
#include <sstream>

namespace SrTePolicy {

class StaticConfigAgent::PathReactor : public CandidatePath::NotifieeConst {
 public:
  PathReactor(StaticConfigAgent* owner, PolicyKey const& key) : owner_(owner), key_(key) {}
  void onBindingSid() override { owner_->syncPolicy(key_); }
  void onSegmentList(Ludd::MplsLabelOperation const&) override { owner_->syncPolicy(key_); }

 private:
  StaticConfigAgent* owner_;
  PolicyKey key_;
};

class StaticConfigAgent::PolicyReactor : public StaticPolicy::NotifieeConst {
 public:
  PolicyReactor(StaticConfigAgent* owner, PolicyKey const& key) : owner_(owner), key_(key) {}
  void onBindingSid() override { owner_->syncPolicy(key_); }
  void onCandidatePath(Preference const&) override { owner_->syncPolicy(key_); }
  // The reactors of the candidate paths, by preference.
  std::map<Preference, Mosk::Ptr<PathReactor>> paths;

 private:
  StaticConfigAgent* owner_;
  PolicyKey key_;
};

class StaticConfigAgent::ConfigReactor : public Config::NotifieeConst {
 public:
  explicit ConfigReactor(StaticConfigAgent* owner) : owner_(owner) {}
  void onEnabled() override { owner_->resync(); }
  void onPolicy(PolicyKey const& key) override { owner_->syncPolicy(key); }
  void onBsidPolicy(Ludd::MplsLabel const&) override {}

 private:
  StaticConfigAgent* owner_;
};

StaticConfigAgent::StaticConfigAgent(Mosk::Ptr<Config const> config,
                                     Mosk::Ptr<PolicyInput> staticInput)
    : config_(std::move(config)), input_(std::move(staticInput)) {
  configReactor_ = Mosk::Ptr<ConfigReactor>(new ConfigReactor(this));
  configReactor_->notifierIs(config_);
  // A table written by an earlier instance (the agent restarted): its candidate paths keep
  // their ids, and resync() withdraws those the configuration no longer has.
  for (auto it = input_->policyInputEntryIter(); it; ++it) {
    std::optional<PolicyInputEntry> entry = input_->policyInputEntry(it.key());
    if (!entry) continue;
    ids_.emplace(std::make_pair(PolicyKey(entry->endpoint(), entry->color()), entry->preference()),
                 entry->key());
  }
  resync();
}

StaticConfigAgent::~StaticConfigAgent() = default;

std::vector<std::string> StaticConfigAgent::takeProblems() {
  std::vector<std::string> out;
  out.swap(problems_);
  return out;
}

void StaticConfigAgent::resync() {
  std::vector<PolicyKey> keys;
  for (auto it = config_->policyIterConst(); it; ++it)
    keys.push_back(it.key());
  for (auto const& [key, reactor] : policyReactors_)
    keys.push_back(key);
  for (auto const& [keyPref, id] : ids_)
    keys.push_back(keyPref.first);
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  for (PolicyKey const& key : keys)
    syncPolicy(key);
}

PolicyId StaticConfigAgent::idFor(PolicyKey const& key, Preference preference) {
  auto [it, inserted] = ids_.try_emplace({key, preference}, PolicyId());
  if (inserted) {
    input_->policyIdxInc(1);
    it->second = PolicyId::make(PolicySource::sourceStatic, input_->policyIdx());
  }
  return it->second;
}

void StaticConfigAgent::watchPolicy(PolicyKey const& key) {
  Mosk::Ptr<StaticPolicy const> policy = config_->policy(key);
  if (!policy) {
    policyReactors_.erase(key);
    return;
  }
  Mosk::Ptr<PolicyReactor>& reactor = policyReactors_[key];
  if (!reactor) {
    reactor = Mosk::Ptr<PolicyReactor>(new PolicyReactor(this, key));
    reactor->notifierIs(policy);
  }
  std::map<Preference, Mosk::Ptr<PathReactor>> paths;
  for (auto it = policy->candidatePathIterConst(); it; ++it) {
    auto found = reactor->paths.find(it.key());
    if (found != reactor->paths.end() && found->second->notifier() == it.ptr()) {
      paths.emplace(it.key(), found->second);
      continue;
    }
    Mosk::Ptr<PathReactor> path(new PathReactor(this, key));
    path->notifierIs(it.ptr());
    paths.emplace(it.key(), path);
  }
  reactor->paths.swap(paths);
}

void StaticConfigAgent::syncPolicy(PolicyKey const& key) {
  watchPolicy(key);
  Mosk::Ptr<StaticPolicy const> policy = config_->enabled() ? config_->policy(key) : nullptr;

  std::map<Preference, PolicyInputEntry> wanted;
  if (policy) {
    for (auto it = policy->candidatePathIterConst(); it; ++it) {
      CandidatePath const& path = *it;
      std::vector<std::pair<Ludd::MplsLabelOperation, Weight>> lists;
      for (auto l = path.segmentListIter(); l; ++l)
        lists.emplace_back(l.key(), l.value());
      if (lists.size() > PolicyInputEntry::maxSegmentLists) {
        std::ostringstream os;
        os << "static policy " << key.endpoint() << " color " << key.color() << " preference "
           << path.preference() << ": " << lists.size()
           << " segment lists, but a candidate path carries at most 16; not applied";
        problems_.push_back(os.str());
        continue;
      }
      std::sort(lists.begin(), lists.end(),
                [](auto const& a, auto const& b) { return a.first < b.first; });
      PolicyInputEntry entry(idFor(key, path.preference()));
      entry.endpointIs(key.endpoint());
      entry.colorIs(key.color());
      entry.preferenceIs(path.preference());
      entry.bindingSidIs(path.bindingSid().isNone() ? policy->bindingSid() : path.bindingSid());
      for (auto const& [stack, weight] : lists)
        entry.segmentListPush(WeightedSegList(weight, stack));
      wanted.emplace(path.preference(), entry);
    }
  }

  // Withdraw the candidate paths of this key that are no longer wanted, then write the others.
  for (auto it = ids_.lower_bound({key, Preference(0)});
       it != ids_.end() && it->first.first == key;) {
    if (wanted.count(it->first.second)) {
      ++it;
      continue;
    }
    input_->policyInputEntryDel(it->second);
    it = ids_.erase(it);
  }
  for (auto const& [preference, entry] : wanted)
    input_->policyInputEntryIs(entry);
}

}  // namespace SrTePolicy
