#include "ScenarioLoad.h"

#include <map>

namespace SrTeScenario {

using SrTePolicy::PolicyKey;

SrTePolicy::PolicyInputEntry inputEntry(Candidate const& c) {
  SrTePolicy::PolicyInputEntry e(c.policyId());
  e.endpointIs(c.endpoint);
  e.colorIs(c.color);
  e.preferenceIs(c.preference);
  e.routerIdIs(c.routerId);
  e.bindingSidIs(c.bindingSid);
  for (WeightedLabels const& l : c.segmentLists)
    e.segmentListPush(SrTePolicy::WeightedSegList(l.weight, l.labels));
  return e;
}

void attachSourceTable(SrTePolicy::SrTePolicyAgent& agent, SourceTable const& table) {
  // The source fills its table before it attaches it, as a source that starts up would.
  Mosk::Ptr<SrTePolicy::PolicyInput> input =
      SrTePolicy::policyInputFactory(SrTePolicy::defaultTableName(table.source));
  for (Candidate const& c : table.candidates)
    input->policyInputEntryIs(inputEntry(c));
  input->policyIdxIs(table.policyIdx);
  agent.sourceTableIs(table.source, input);
}

void applyStaticConfig(SrTePolicy::SrTePolicyAgent& agent, StaticConfig const& want) {
  SrTePolicy::Config& config = *agent.config();
  std::map<PolicyKey, StaticPolicy const*> wanted;
  for (StaticPolicy const& p : want.policies)
    wanted[p.key] = &p;
  std::vector<PolicyKey> gone;
  for (auto it = config.policyIterConst(); it; ++it) {
    if (!wanted.count(it.key())) gone.push_back(it.key());
  }
  for (PolicyKey const& key : gone)
    config.policyDel(key);
  for (auto const& [key, want] : wanted) {
    Mosk::Ptr<SrTePolicy::StaticPolicy> policy = config.policyIs(key);
    policy->bindingSidIs(want->bindingSid);
    std::map<SrTePolicy::Preference, StaticPath const*> paths;
    for (StaticPath const& p : want->paths)
      paths[p.preference] = &p;
    std::vector<SrTePolicy::Preference> oldPaths;
    for (auto it = policy->candidatePathIterConst(); it; ++it) {
      if (!paths.count(it.key())) oldPaths.push_back(it.key());
    }
    for (auto const& pref : oldPaths)
      policy->candidatePathDel(pref);
    for (auto const& [pref, path] : paths) {
      Mosk::Ptr<SrTePolicy::CandidatePath> cp = policy->candidatePathIs(pref);
      cp->bindingSidIs(path->bindingSid);
      std::vector<Ludd::MplsLabelOperation> oldLists;
      for (auto it = cp->segmentListIter(); it; ++it) {
        bool keep = false;
        for (WeightedLabels const& l : path->segmentLists)
          keep = keep || l.labels == it.key();
        if (!keep) oldLists.push_back(it.key());
      }
      for (auto const& stack : oldLists)
        cp->segmentListDel(stack);
      for (WeightedLabels const& l : path->segmentLists)
        cp->segmentListIs(l.labels, l.weight);
    }
  }
  config.enabledIs(want.enabled);
}

}  // namespace SrTeScenario
