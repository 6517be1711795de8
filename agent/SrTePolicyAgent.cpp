#include "SrTePolicyAgent.h"

#include <algorithm>

#include "Mosk/Exception.h"

namespace SrTePolicy {

namespace {

constexpr char const* kMachineNames[] = {
    "PolicyInputSm",   "SegmentSm",           "SegmentListSm",       "PolicySelectionSm",
    "PolicyPublishSm", "SrTePolicyLfibGenSm", "SegmentListExportSm",
};

Vell::ManualClock* manualClock(Mosk::Ptr<Vell::Clock> const& clock) {
  auto* manual = dynamic_cast<Vell::ManualClock*>(clock.ptr());
  if (manual == nullptr) throw Mosk::RangeException("the agent's clock is not a manual clock");
  return manual;
}

}  // namespace

char const* machineName(Machine m) {
  return kMachineNames[static_cast<U8>(m)];
}

std::optional<Machine> machineByName(std::string_view name) {
  for (Machine m : allMachines) {
    if (name == machineName(m)) return m;
  }
  return std::nullopt;
}

SrTePolicyAgent::SrTePolicyAgent(Mosk::Ptr<Vell::Clock> clock) : clock_(std::move(clock)) {
  if (!clock_) Mosk::throwNullValidPtr();
  scheduler_ = Vell::taskSchedulerFactory(clock_);
  scheduler_->yieldPolicyIs(Vell::YieldPolicy::never());
  timerWheel_ = Vell::timerWheelFactory(scheduler_);

  input_ = policyInputSourceFactory();
  mplsStatus_ = Mpls::statusFactory("lfib");
  fwdStatus_ = Skerry::Fib::forwardingStatusFactory("forwardingStatus");
  fwd6Status_ = Skerry::Fib6::forwardingStatusFactory("forwarding6Status");
  config_ = configFactory("config");
  config_->enabledIs(true);
  tunnelTable_ =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("srTeSegmentListTunnelTable");
  ecPolicy_ = ecPolicyFactory("ecPolicy");
  srteFwdStatus_ = Skerry::Fib::forwardingStatusFactory("srTePolicyFecs");
  lfibStatus_ = srTePolicyLfibStatusFactory("srTePolicyLfibStatus");
  lfibStatus_->lfibIs("bindingSidLfib");
  sourceTableIs(PolicySource::sourceStatic);

  buildStore();
  for (Machine m : allMachines)
    build(m);
}

SrTePolicyAgent::~SrTePolicyAgent() {
  // Teardown is not a change of the active candidates.
  activityKeeper_ = nullptr;
  staticConfigAgent_ = nullptr;
  for (auto it = allMachines.rbegin(); it != allMachines.rend(); ++it)
    drop(*it, true);
}

void SrTePolicyAgent::buildStore() {
  selectionInput_ = policySelectionInputFactory("policySelectionInput");
  keyToIdMap_ = policyKeyToIdMapFactory("policyKeyToIdMap");
  coreDedupTables_ = coreDedupTablesFactory();
  coreDedupTables_->handleInitialized();
  slToPolicy_ = segmentListIdToPolicyMapFactory("segmentListIdToPolicyMap");
  segToSl_ = segmentIdToSegmentListFactory("segmentIdToSegmentList");
  segmentStatus_ = segmentStatusFactory("segmentStatus");
  resolver_ = segmentResolverFactory(mplsStatus_);
  segmentListStatus_ = segmentListStatusFactory("segmentListStatus");
  policyStatus_ = policyStatusFactory("policyStatus");
  exported_ = Export::segmentListCollectionFactory("exportedSegmentLists");
  tunnelIdxAlloc_ = MplsHelper::srTunnelIdxAllocatorFactory();
  adjIdxAlloc_ = MplsHelper::lfibGenAdjIdxAllocatorFactory();
  // The configuration agent writes the static source's table, which it creates when absent.
  Mosk::Ptr<PolicyInput> staticTable = tables_[static_cast<U8>(PolicySource::sourceStatic)];
  if (!staticTable) staticTable = policyInputFactory(defaultTableName(PolicySource::sourceStatic));
  staticConfigAgent_ = staticConfigAgentFactory(config_, staticTable);
  // The activity lives in the process: a new process starts it over from what EcPolicy holds.
  activity_ = policyActivityFactory("policyActivity");
  Mosk::Ptr<Vell::Clock const> manual;
  if (dynamic_cast<Vell::ManualClock const*>(clock_.ptr()) != nullptr) manual = clock_;
  activityKeeper_ = policyActivityKeeperFactory(ecPolicy_, keyToIdMap_, activity_, manual);
  activityKeeper_->settleDueIs(activitySettleDue_);
}

void SrTePolicyAgent::activitySettleDueIs(std::function<void()> f) {
  activitySettleDue_ = std::move(f);
  activityKeeper_->settleDueIs(activitySettleDue_);
  // Changes marked before anyone listened are due as well.
  if (activitySettleDue_ && activityKeeper_->settlePending()) activitySettleDue_();
}

void SrTePolicyAgent::build(Machine machine) {
  switch (machine) {
    case Machine::policyInput:
      // Its constructor runs the first full pass.
      inputSm_ = policyInputSmFactory(input_, selectionInput_, coreDedupTables_, slToPolicy_,
                                      segToSl_, keyToIdMap_);
      break;
    case Machine::segment:
      segmentSm_ = segmentSmFactory(coreDedupTables_->notifyingSegmentCollection(), mplsStatus_,
                                    segmentStatus_, coreDedupTables_, resolver_);
      segmentSm_->handleInitialized();
      break;
    case Machine::segmentList:
      segmentListSm_ =
          segmentListSmFactory(coreDedupTables_->notifyingSegmentListCollection(), segmentStatus_,
                               segmentListStatus_, tunnelTable_, scheduler_, mplsStatus_, segToSl_,
                               coreDedupTables_, tunnelIdxAlloc_, fwdStatus_, fwd6Status_);
      segmentListSm_->handleInitialized();
      break;
    case Machine::selection:
      selectionSm_ = policySelectionSmFactory(selectionInput_, segmentListStatus_, slToPolicy_,
                                              ecPolicy_, scheduler_);
      selectionSm_->handleInitialized();
      break;
    case Machine::publish:
      publishSm_ =
          policyPublishSmFactory(ecPolicy_, scheduler_, policyStatus_, timerWheel_, srteFwdStatus_);
      break;
    case Machine::lfibGen:
      lfibGenSm_ = srTePolicyLfibGenSmFactory(policyStatus_, lfibStatus_, adjIdxAlloc_);
      break;
    case Machine::segmentListExport:
      exportSm_ =
          segmentListExportSmFactory(coreDedupTables_->notifyingSegmentListCollection(), exported_);
      break;
  }
}

namespace {
// Drops the machine held in `sm`; without teardown the machine is abandoned first, so its
// destructor leaves what it wrote alone.
template <class T>
void dropMachine(Mosk::Ptr<T>& sm, bool teardown) {
  if (!sm) return;
  if (!teardown) sm->abandon();
  sm = nullptr;
}
}  // namespace

void SrTePolicyAgent::drop(Machine machine, bool teardown) {
  switch (machine) {
    case Machine::policyInput:
      return dropMachine(inputSm_, teardown);
    case Machine::segment:
      return dropMachine(segmentSm_, teardown);
    case Machine::segmentList:
      return dropMachine(segmentListSm_, teardown);
    case Machine::selection:
      return dropMachine(selectionSm_, teardown);
    case Machine::publish:
      return dropMachine(publishSm_, teardown);
    case Machine::lfibGen:
      return dropMachine(lfibGenSm_, teardown);
    case Machine::segmentListExport:
      return dropMachine(exportSm_, teardown);
  }
}

void SrTePolicyAgent::restart(Machine machine) {
  drop(machine, true);
  build(machine);
}

void SrTePolicyAgent::restartPipeline() {
  for (auto it = allMachines.rbegin(); it != allMachines.rend(); ++it)
    drop(*it, true);
  for (Machine m : allMachines)
    build(m);
}

void SrTePolicyAgent::restartAgent() {
  activityKeeper_ = nullptr;
  staticConfigAgent_ = nullptr;
  for (auto it = allMachines.rbegin(); it != allMachines.rend(); ++it)
    drop(*it, false);
  // The process's own tables go with it; tasks it had scheduled died with their machines.
  buildStore();
  for (Machine m : allMachines)
    build(m);
}

void SrTePolicyAgent::yieldPolicyIs(Vell::YieldPolicy const& policy) {
  scheduler_->yieldPolicyIs(policy);
}

void SrTePolicyAgent::runDue() {
  scheduler_->runDue();
  activityKeeper_->settle();
}

void SrTePolicyAgent::advance(double seconds) {
  Vell::ManualClock* manual = manualClock(clock_);
  double target = manual->now() + seconds;
  runDue();
  for (;;) {
    std::optional<double> next = scheduler_->nextDueTime();
    if (!next || *next > target) break;
    if (*next > manual->now()) manual->nowIs(*next);
    runDue();
  }
  if (target > manual->now()) manual->nowIs(target);
  runDue();
}

double SrTePolicyAgent::advanceUntilIdle(double limit) {
  Vell::ManualClock* manual = manualClock(clock_);
  double start = manual->now();
  runDue();
  for (;;) {
    std::optional<double> next = scheduler_->nextDueTime();
    if (!next || *next > start + limit) break;
    if (*next > manual->now()) manual->nowIs(*next);
    runDue();
  }
  return manual->now() - start;
}

Mosk::Ptr<PolicyInput> SrTePolicyAgent::sourceTable(PolicySource source) const {
  return tables_[static_cast<U8>(source)];
}

Mosk::Ptr<PolicyInput> SrTePolicyAgent::sourceTableIs(PolicySource source) {
  if (Mosk::Ptr<PolicyInput> existing = sourceTable(source)) return existing;
  Mosk::Ptr<PolicyInput> table = policyInputFactory(defaultTableName(source));
  sourceTableIs(source, table);
  return table;
}

void SrTePolicyAgent::sourceTableIs(PolicySource source, Mosk::Ptr<PolicyInput> table) {
  tables_[static_cast<U8>(source)] = table;
  input_->policyInputIs(source, table);
}

void SrTePolicyAgent::sourceTableDel(PolicySource source) {
  input_->policyInputDel(source);
  tables_[static_cast<U8>(source)] = nullptr;
}

std::vector<std::string> SrTePolicyAgent::takeConfigProblems() {
  return staticConfigAgent_ ? staticConfigAgent_->takeProblems() : std::vector<std::string>{};
}

}  // namespace SrTePolicy
