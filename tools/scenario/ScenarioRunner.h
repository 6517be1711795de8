// The scenario runner: builds a pipeline (SrTePolicyAgent) on a manual clock, loads a checked
// scenario's platform state, static configuration and sources into it, and plays its steps.
//
// Time. The clock moves only in `advance` steps and at the end. After every step each task
// that is due runs before the clock moves on (runDue), so a step's effects settle at the time
// of the step; publishing waits 50 ms, so a policy is chosen at once but published only when
// time has moved on. At the end the runner advances until nothing is scheduled.
//
// Errors. An error that the library raises during a step (a range error, a name-in-use error)
// is recorded with the step and the run goes on with the next step; the model objects keep
// what was written before the error, as they would in the agent.
//
// Every call returns a record (ordered JSON): what the step did, what it changed (active
// candidates, published policies, segment-list resolution), errors and notes, and for `show`
// steps and at the end the explained state (StateExplain.h).
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "Scenario.h"
#include "ScenarioLoad.h"
#include "ScenarioPlatform.h"
#include "SrTePolicyAgent.h"
#include "StateExplain.h"

namespace SrTeScenario {

using SrTeView::OrderedJson;

class ScenarioRunner {
 public:
  explicit ScenarioRunner(Scenario scenario);
  ~ScenarioRunner();

  Scenario const& scenario() const { return scenario_; }
  SrTePolicy::SrTePolicyAgent& agent() { return *agent_; }

  // Loads the platform, the configuration and the sources, and settles.
  OrderedJson start();
  // Plays step `index` (0-based) and settles.
  OrderedJson runStep(std::size_t index);
  // Advances until idle and explains the final state.
  OrderedJson finish();
  // Whether some step raised an error.
  bool failed() const { return failed_; }

 private:
  // What the change records compare from one step to the next: per policy its active
  // candidate and what is published, per segment list its tunnel and next hops. `text` is how
  // the change lines word the state, and what two states are compared by.
  struct ListState {
    std::optional<Tunnel::TunnelTable::TunnelId> tunnel;  // none: unresolved
    OrderedJson nextHops = OrderedJson::array();
    std::string text;
  };
  struct ActiveState {
    U32 id = 0;
    std::string text;
  };
  struct PublishedState {
    U32 id = 0;
    Ludd::MplsLabel bindingSid;
    std::vector<Tunnel::TunnelTable::TunnelId> tunnels;
    std::string text;
  };
  struct Digest {
    std::map<SrTePolicy::PolicyKey, ActiveState> active;
    std::map<SrTePolicy::PolicyKey, PublishedState> published;
    std::map<U32, ListState> lists;
  };
  Digest digest() const;
  OrderedJson changes(Digest const& before, Digest const& after) const;

  // Runs `apply`, catching the library's errors into `record`; then settles.
  template <class F>
  void guarded(OrderedJson& record, F const& apply);
  void settle(OrderedJson& record);

  std::string describe(StepAction const& action) const;
  // "add", "change", ..., "show": what kind of step `action` is.
  static char const* kindOf(StepAction const& action);
  void apply(StepAction const& action, OrderedJson& record);
  void addSourceTable(SourceTable const& table);
  void applyConfig(StaticConfig const& config);

  Scenario scenario_;
  std::unique_ptr<SrTePolicy::SrTePolicyAgent> agent_;
  std::unique_ptr<PlatformLoader> platform_;
  bool failed_ = false;
};

}  // namespace SrTeScenario
