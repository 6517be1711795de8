// The host's configuration agent: turns the static SR-TE configuration (Config: static
// policies, their candidate paths, segment lists and binding SIDs) into candidate paths of the
// static source's input table, and keeps the table in step as the configuration changes, so a
// statically configured policy flows through the pipeline like a candidate from any source.
//
// Each (policy key, preference) gets a policy id of the static source, allocated from the
// table's policyIdx counter and kept while the candidate path exists. A candidate path's binding
// SID is its own when set, else its policy's. A candidate path the input record cannot carry
// (more than sixteen segment lists) is not written and is reported as a problem; so is a
// binding SID claimed by two policies.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SrTePolicy/SrTePolicyStatic.h"
#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTePolicy {

class StaticConfigAgent : public Mosk::PtrInterface {
 public:
  StaticConfigAgent(Mosk::Ptr<Config const> config, Mosk::Ptr<PolicyInput> staticInput);
  ~StaticConfigAgent() override;

  // Rewrites every static candidate path from the configuration (at start and on demand).
  void resync();
  // Configuration the agent could not apply, one sentence each, oldest first; taken (and
  // cleared) by the host after each change.
  std::vector<std::string> takeProblems();

 private:
  class ConfigReactor;
  class PolicyReactor;
  class PathReactor;

  void syncPolicy(PolicyKey const& key);
  void watchPolicy(PolicyKey const& key);
  PolicyId idFor(PolicyKey const& key, Preference preference);

  Mosk::Ptr<Config const> const config_;
  Mosk::Ptr<PolicyInput> const input_;
  Mosk::Ptr<ConfigReactor> configReactor_;
  std::map<PolicyKey, Mosk::Ptr<PolicyReactor>> policyReactors_;
  std::map<std::pair<PolicyKey, Preference>, PolicyId> ids_;
  std::vector<std::string> problems_;
};

inline Mosk::Ptr<StaticConfigAgent> staticConfigAgentFactory(Mosk::Ptr<Config const> config,
                                                             Mosk::Ptr<PolicyInput> staticInput) {
  return Mosk::Ptr<StaticConfigAgent>(
      new StaticConfigAgent(std::move(config), std::move(staticInput)));
}

}  // namespace SrTePolicy
