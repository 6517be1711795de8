// The host side: one class that owns the platform tables, the clock and the scheduler, builds
// every state machine of the SR-TE policy pipeline in the order of the wiring table, exposes
// the inputs and outputs, restarts one machine or the whole pipeline, and tears everything
// down in reverse. The simulator, the scenario tests, the benchmarks and the daemon all wire
// the pipeline through it.
//
// Pipeline, in build order:
//   PolicyInputSm        input tables            -> selection input, segment store, reverse maps
//   SegmentSm            segments, LFIB          -> segment status
//   SegmentListSm        segment lists, status   -> segment-list status, SR-TE tunnel table
//   PolicySelectionSm    selection input, status -> EcPolicy
//   PolicyPublishSm      EcPolicy                -> policy status, SR-TE FEC table
//   SrTePolicyLfibGenSm  policy status           -> binding-SID LFIB
//   SegmentListExportSm  segment lists           -> exported segment lists
// The host also plays the configuration agent: the static configuration (config()) becomes
// candidate paths of the static source's table (StaticConfigAgent), and it remembers since when
// each policy's active candidate is what it is and how often it changed (policyActivity(),
// PolicyActivityKeeper), which the pipeline itself does not keep.
//
// Two kinds of restart. An orderly restart of a machine runs its teardown and builds a new one.
// An agent restart models the process dying: no teardown runs; what lives outside the process
// (the input tables, the platform tables, the configuration and EcPolicy, which is replicated)
// survives, and every machine and in-process table is built anew over it.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MplsHelper/IndexAllocators.h"
#include "PolicyActivityKeeper.h"
#include "Skerry/ForwardingStatus.h"
#include "SrTePolicy/SrTePolicyExportSms.h"
#include "SrTePolicy/SrTePolicyInputSm.h"
#include "SrTePolicy/SrTePolicyLfibGenSm.h"
#include "SrTePolicy/SrTePolicyPublishSm.h"
#include "SrTePolicy/SrTePolicySegmentListSm.h"
#include "SrTePolicy/SrTePolicySegmentSm.h"
#include "SrTePolicy/SrTePolicySelectionSm.h"
#include "SrTePolicy/SrTePolicySource.h"
#include "SrTePolicy/SrTePolicyStatic.h"
#include "StaticConfigAgent.h"
#include "Tunnel/TunnelTable.h"
#include "Vell/Task.h"
#include "Vell/TimerWheel.h"

namespace SrTePolicy {

// The machines of the pipeline, in build order.
enum class Machine : U8 {
  policyInput,
  segment,
  segmentList,
  selection,
  publish,
  lfibGen,
  segmentListExport,
};
inline constexpr std::array<Machine, 7> allMachines = {
    Machine::policyInput, Machine::segment, Machine::segmentList,      Machine::selection,
    Machine::publish,     Machine::lfibGen, Machine::segmentListExport};
// "PolicyInputSm", "SegmentSm", ...
char const* machineName(Machine m);
std::optional<Machine> machineByName(std::string_view name);

class SrTePolicyAgent {
 public:
  // `clock`: a Vell::ManualClock for simulation and tests, a Vell::MonotonicClock under a real
  // event loop. The yield policy starts as `never` (a task runs until its work is done).
  explicit SrTePolicyAgent(Mosk::Ptr<Vell::Clock> clock);
  SrTePolicyAgent(SrTePolicyAgent const&) = delete;
  SrTePolicyAgent& operator=(SrTePolicyAgent const&) = delete;
  // Tears the pipeline down in reverse order (each machine's teardown runs).
  ~SrTePolicyAgent();

  // Time and tasks.
  Mosk::Ptr<Vell::Clock> const& clock() const { return clock_; }
  Mosk::Ptr<Vell::TaskScheduler> const& scheduler() const { return scheduler_; }
  Mosk::Ptr<Vell::TimerWheel> const& timerWheel() const { return timerWheel_; }
  void yieldPolicyIs(Vell::YieldPolicy const& policy);
  // Runs every task that is due now (tasks that reschedule themselves included), then settles
  // the policy activity.
  void runDue();
  // With a manual clock: moves time forward by `seconds`, stopping at each due time on the way
  // to run what is due there. Nothing else moves the clock.
  void advance(double seconds);
  // With a manual clock: advances until no task is scheduled, at most `limit` seconds; returns
  // the time advanced.
  double advanceUntilIdle(double limit = 3600.0);

  // Inputs.
  Mosk::Ptr<PolicyInputSource> const& input() const { return input_; }
  // The table of `source`, or null when the source has none.
  Mosk::Ptr<PolicyInput> sourceTable(PolicySource source) const;
  // The table of `source`, created (in this process) and attached when absent.
  Mosk::Ptr<PolicyInput> sourceTableIs(PolicySource source);
  // Attaches a table made elsewhere (for example one in shared memory), replacing any other.
  void sourceTableIs(PolicySource source, Mosk::Ptr<PolicyInput> table);
  void sourceTableDel(PolicySource source);
  Mosk::Ptr<Mpls::Status> const& mplsStatus() const { return mplsStatus_; }
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const& forwardingStatus() const { return fwdStatus_; }
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus> const& forwarding6Status() const { return fwd6Status_; }
  // The static configuration; the host keeps the static source's table in step with it.
  Mosk::Ptr<Config> const& config() const { return config_; }
  // Configuration the host could not turn into candidate paths since the last call.
  std::vector<std::string> takeConfigProblems();

  // Intermediate state.
  Mosk::Ptr<PolicySelectionInput> const& policySelectionInput() const { return selectionInput_; }
  Mosk::Ptr<PolicyKeyToIdMap> const& policyKeyToIdMap() const { return keyToIdMap_; }
  Mosk::Ptr<CoreDedupTables> const& coreDedupTables() const { return coreDedupTables_; }
  Mosk::Ptr<SegmentListIdToPolicyMap> const& segmentListIdToPolicyMap() const {
    return slToPolicy_;
  }
  Mosk::Ptr<SegmentIdToSegmentList> const& segmentIdToSegmentList() const { return segToSl_; }
  Mosk::Ptr<SegmentStatus> const& segmentStatus() const { return segmentStatus_; }
  Mosk::Ptr<SegmentResolver> const& segmentResolver() const { return resolver_; }

  // Since when each policy's active candidate is what it is, and how often it changed. Settled
  // after every run of the scheduler through this class (runDue, advance); a host that runs the
  // scheduler itself calls settleActivity() once a chain of changes is done, and learns that
  // one is due through activitySettleDueIs().
  Mosk::Ptr<PolicyActivity> const& policyActivity() const { return activity_; }
  void settleActivity() { activityKeeper_->settle(); }
  // Counts over all policies as the settles leave them (active and eligible candidates by
  // source, transitions), for a reader that must not walk the policies.
  PolicyActivityKeeper::Counts const& activityCounts() const { return activityKeeper_->counts(); }
  // `f` is called when a settle becomes due (at once when one is due already).
  void activitySettleDueIs(std::function<void()> f);

  // Outputs.
  Mosk::Ptr<SegmentListStatus> const& segmentListStatus() const { return segmentListStatus_; }
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> const& tunnelTable() const {
    return tunnelTable_;
  }
  Mosk::Ptr<EcPolicy> const& ecPolicy() const { return ecPolicy_; }
  Mosk::Ptr<PolicyStatus> const& policyStatus() const { return policyStatus_; }
  // The FECs of published policies.
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const& srteFwdStatus() const { return srteFwdStatus_; }
  Mosk::Ptr<SrTePolicyLfibStatus> const& lfibStatus() const { return lfibStatus_; }
  // The binding-SID routes (the LFIB held by lfibStatus()).
  Mosk::Ptr<Mpls::Status> bsidLfib() const { return lfibStatus_->lfib(); }
  Mosk::Ptr<Export::SegmentListCollection> const& exportedSegmentLists() const { return exported_; }

  // The machines whose queues a host reads to know the pipeline is idle (null only while one is
  // being restarted).
  Mosk::Ptr<SegmentListSm> const& segmentListSm() const { return segmentListSm_; }
  Mosk::Ptr<PolicySelectionSm> const& policySelectionSm() const { return selectionSm_; }
  Mosk::Ptr<PolicyPublishSm> const& policyPublishSm() const { return publishSm_; }

  // Restarts.
  // An orderly restart of one machine: its teardown runs, then a new one is built and started.
  void restart(Machine machine);
  // An orderly restart of every machine: torn down in reverse order, built again in order.
  void restartPipeline();
  // The process dies and starts again (see above).
  void restartAgent();

 private:
  void buildStore();
  void build(Machine machine);
  void drop(Machine machine, bool teardown);

  Mosk::Ptr<Vell::Clock> const clock_;
  Mosk::Ptr<Vell::TaskScheduler> scheduler_;
  Mosk::Ptr<Vell::TimerWheel> timerWheel_;

  // Outside the process: survive an agent restart.
  Mosk::Ptr<PolicyInputSource> input_;
  Mosk::Ptr<Mpls::Status> mplsStatus_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwdStatus_;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6Status_;
  Mosk::Ptr<Config> config_;
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable_;
  Mosk::Ptr<EcPolicy> ecPolicy_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> srteFwdStatus_;
  Mosk::Ptr<SrTePolicyLfibStatus> lfibStatus_;

  // The tables of the sources, as attached (the input source holds them read-only).
  std::array<Mosk::Ptr<PolicyInput>, 4> tables_;

  // Inside the process.
  Mosk::Ptr<PolicySelectionInput> selectionInput_;
  Mosk::Ptr<PolicyKeyToIdMap> keyToIdMap_;
  Mosk::Ptr<CoreDedupTables> coreDedupTables_;
  Mosk::Ptr<SegmentListIdToPolicyMap> slToPolicy_;
  Mosk::Ptr<SegmentIdToSegmentList> segToSl_;
  Mosk::Ptr<SegmentStatus> segmentStatus_;
  Mosk::Ptr<SegmentResolver> resolver_;
  Mosk::Ptr<SegmentListStatus> segmentListStatus_;
  Mosk::Ptr<PolicyStatus> policyStatus_;
  Mosk::Ptr<Export::SegmentListCollection> exported_;
  Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> tunnelIdxAlloc_;
  Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc_;
  Mosk::Ptr<StaticConfigAgent> staticConfigAgent_;
  Mosk::Ptr<PolicyActivity> activity_;
  Mosk::Ptr<PolicyActivityKeeper> activityKeeper_;
  std::function<void()> activitySettleDue_;

  Mosk::Ptr<PolicyInputSm> inputSm_;
  Mosk::Ptr<SegmentSm> segmentSm_;
  Mosk::Ptr<SegmentListSm> segmentListSm_;
  Mosk::Ptr<PolicySelectionSm> selectionSm_;
  Mosk::Ptr<PolicyPublishSm> publishSm_;
  Mosk::Ptr<SrTePolicyLfibGenSm> lfibGenSm_;
  Mosk::Ptr<SegmentListExportSm> exportSm_;
};

}  // namespace SrTePolicy
