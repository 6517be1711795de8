// PolicyPublishSm: pending keys, the sliced publish task, FEC ids and the in-place FEC writes.
#include "SrTePolicy/SrTePolicyPublishSm.h"

#include "Mosk/Reflection.h"

#include <algorithm>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle traceHandle("SrTePolicyPublishSm");
constexpr char kName[] = "PolicyPublishSm";

U64 fecIndex(Fib::FecId const& fecId) {
  return fecId & Fib::adjIndexMask();
}

}  // namespace

PolicyPublishSm::PolicyPublishSm(Mosk::Ptr<EcPolicy const> ecPolicy,
                                 Mosk::Ptr<Vell::TaskScheduler> taskScheduler,
                                 Mosk::Ptr<PolicyStatus> policyStatus,
                                 Mosk::Ptr<Vell::TimerWheel> timerWheel,
                                 Mosk::Ptr<Skerry::Fib::ForwardingStatus> srteFwdStatus)
    : ecPolicy_(required(std::move(ecPolicy), kName, "ecPolicy")),
      taskScheduler_(required(std::move(taskScheduler), kName, "taskScheduler")),
      policyStatus_(required(std::move(policyStatus), kName, "policyStatus")),
      timerWheel_(required(std::move(timerWheel), kName, "timerWheel")),
      srteFwdStatus_(required(std::move(srteFwdStatus), kName, "srteFwdStatus")) {
  handleInitialized();
}

PolicyPublishSm::~PolicyPublishSm() {
  if (!abandoned()) handleDel();
}

void PolicyPublishSm::handleInitialized() {
  SRTE_TRACE(traceHandle, TraceLevel::detail, "Handling Initialization");
  task_ = Vell::timerTaskFactory(taskScheduler_, Vell::TaskPriority(taskPriority), "PublishSmTask");
  if (!taskReactor_) taskReactor_ = new TaskReactor(this);
  taskReactor_->notifierIs(task_);
  initialized_ = true;

  // Nothing an earlier instance published survives: its FEC ids came from another allocator.
  policyStatus_->statusDelAll();
  policyStatus_->fecIdToPolicyKeyDelAll();
  srteFwdStatus_->fecDelAll();

  Vell::Range const range(0, Fib::adjIndexMax());
  if (numAllocatorConfig_) {
    numAllocatorConfig_->rangeIs(range);
  } else {
    numAllocatorConfig_ = Vell::numAllocatorConfigFactory(range, allocatorMoveCount);
  }
  numAllocatorConfig_->expiryTimeIs(fecIdExpiryTime);
  numAllocatorStatus_ = Vell::numAllocatorStatusFactory();
  numAllocator_ =
      Vell::numAllocatorFactory(numAllocatorConfig_, numAllocatorStatus_, timerWheel_->clock());

  if (!ecPolicyReactor_) ecPolicyReactor_ = new EcPolicyReactor(this);
  ecPolicyReactor_->notifierIs(ecPolicy_);
  for (auto c = ecPolicy_->policyIterConst(); c; ++c) {
    pendingPolicy_.add(c.key());
    followPolicy(c.key(), c.ptr());
  }
  pendingPolicy_.scheduleIfPending(*task_);
}

void PolicyPublishSm::handlePolicy(PolicyKey const& key) {
  if (!initialized_) return;
  pendingPolicy_.add(key);
  task_->scheduleTaskLowestDelay(delayTime_);
}

void PolicyPublishSm::handleTaskRun() {
  if (!initialized_) return;
  auto const slice =
      pendingPolicy_.drain(*task_, [this](PolicyKey const& key) { processPolicy(key); });
  if (slice.bookmark) {
    PolicyKey const& next = *slice.bookmark;
    SRTE_TRACE2(traceHandle, TraceLevel::detail,
                "Bookmark placed at Endpoint: " << next.endpoint() << " color: " << next.color(),
                "Bookmark placed at Endpoint " << endpointWord(next.endpoint(), 0) << ":"
                                               << endpointWord(next.endpoint(), 1)
                                               << " color: " << next.color());
  }
  SRTE_TRACE(traceHandle, TraceLevel::detail, "Processed " << slice.count << " policy entries");
}

void PolicyPublishSm::processPolicy(PolicyKey const& key) {
  Mosk::Ptr<Policy const> const policy = ecPolicy_->policy(key);
  Mosk::Ptr<PolicyEntry const> const active = policy ? policy->active() : nullptr;
  if (active) {
    U32 const id = active->priority().id();
    SRTE_TRACE2(traceHandle, TraceLevel::event,
                "Policy Endpoint: " << key.endpoint() << " Color: " << key.color() << " Id: " << id
                                    << " is now active",
                "Policy Endpoint: " << endpointWord(key.endpoint(), 0) << ":"
                                    << endpointWord(key.endpoint(), 1) << " Color: " << key.color()
                                    << " Id: " << id << " is now active");
    Mosk::Ptr<PolicyStatusEntry> const entry = policyStatus_->statusIs(key);
    entry->bindingSidIs(active->bindingSid());
    entry->idIs(id);
    // A fresh set on every publication: readers holding the previous one keep it unchanged.
    Mosk::Ptr<WeightedViaSet> const viaSet = weightedViaSetFactory();
    for (auto c = active->wSegmentListIter(); c; ++c) {
      viaSet->weightedViaIs(c.value().tunnelId(), c.value().weight());
    }
    entry->weightedViaSetIs(viaSet);
    if (!entry->srTePolicyFecId().isNone()) {
      updateSrTePolicyFec(active, entry->srTePolicyFecId());
    } else {
      entry->srTePolicyFecIdIs(createSrTePolicyFec(active));
    }
    policyStatus_->fecIdToPolicyKeyIs(entry->srTePolicyFecId(), key);
    return;
  }
  SRTE_TRACE2(
      traceHandle, TraceLevel::event,
      "Policy Endpoint: " << key.endpoint() << " Color: " << key.color() << " has no active policy",
      "Policy Endpoint: " << endpointWord(key.endpoint(), 0) << ":"
                          << endpointWord(key.endpoint(), 1) << " Color: " << key.color()
                          << " has no active policy");
  if (Mosk::Ptr<PolicyStatusEntry const> const entry = policyStatus_->status(key)) {
    Fib::FecId const fecId = entry->srTePolicyFecId();
    // An entry whose first FEC write failed holds no id, and index 0 may belong to another key.
    if (!fecId.isNone()) {
      deleteSrTePolicyFec(fecId);
      policyStatus_->fecIdToPolicyKeyDel(fecId);
    }
  }
  policyStatus_->statusDel(key);
}

Fib::FecId PolicyPublishSm::getFecId() {
  U64 const index = numAllocator_->getNumber();
  MOSK_ASSERT_MSG(index != Vell::NumAllocator::invalidNumber,
                  "FecId range exhausted, Not possible");
  MOSK_ASSERT_MSG(static_cast<S64>(index) >= 0, "index >= 0");
  Fib::FecId const fecId = Fib::FecId::fecIdForAdjType(fecAdjType, index);
  SRTE_TRACE(traceHandle, TraceLevel::detail, "Allocated new fecId: " << fecId);
  return fecId;
}

void PolicyPublishSm::releaseFecId(Fib::FecId const& fecId) {
  U64 const index = fecIndex(fecId);
  SRTE_TRACE(traceHandle, TraceLevel::detail, "Releasing fecId: " << index);
  numAllocator_->releaseNumber(index);
}

Fib::FecId PolicyPublishSm::createSrTePolicyFec(Mosk::Ptr<PolicyEntry const> const& active) {
  Fib::FecId const fecId = getFecId();
  SRTE_TRACE(traceHandle, TraceLevel::event, "Created policy fecId: " << fecIndex(fecId));
  try {
    updateSrTePolicyFec(active, fecId);
  } catch (...) {
    // No key holds the id yet: give it back rather than lose it. The uncommitted FEC stays
    // unpublished and is overwritten when the id is handed out again.
    releaseFecId(fecId);
    throw;
  }
  return fecId;
}

void PolicyPublishSm::updateSrTePolicyFec(Mosk::Ptr<PolicyEntry const> const& active,
                                          Fib::FecId const& fecId) {
  SRTE_TRACE(traceHandle, TraceLevel::event, "Updated policy fecId: " << fecIndex(fecId));
  // The table hands an existing FEC back cleared, so vias of lists the candidate no longer
  // has do not survive; only the count is raised here.
  Fib::Fec& fec = srteFwdStatus_->fecForWrite(fecId);
  // One block for the vias of a new FEC instead of one per via written.
  fec.viaSlotsReserve(std::min(active->wSegmentListCount(), Fib::Fec::maxVias));
  Fib::ViaIndex position(1);
  for (auto c = active->wSegmentListIter(); c; ++c) {
    Tunnel::TunnelTable::TunnelId const& tunnelId = c.value().tunnelId();
    SRTE_TRACE(traceHandle, TraceLevel::detail, "Adding tunnelId: " << tunnelId);
    fec.viaIs(position, Fib::Via(Ludd::IntfId(), Ludd::IpGenAddr(), Ludd::MplsLabel(),
                                 Ludd::MplsLabelAction::actionNone, true, tunnelId));
    if (fec.viaCount() < position.value()) fec.viaCountIs(position.value());
    // Advancing past the last position raises the ViaIndex range error at once, so the 512th
    // list already fails and the FEC is not committed.
    position = Fib::ViaIndex(position.value() + 1);
  }
  srteFwdStatus_->fecCommit(fec);
}

void PolicyPublishSm::deleteSrTePolicyFec(Fib::FecId const& fecId) {
  SRTE_TRACE(traceHandle, TraceLevel::event, "Delete policy fecId: " << fecIndex(fecId));
  srteFwdStatus_->fecDel(fecId);
  releaseFecId(fecId);
}

void PolicyPublishSm::handleDel() {
  if (!initialized_) return;
  initialized_ = false;
  policyStatus_->statusDelAll();
  policyStatus_->fecIdToPolicyKeyDelAll();
  srteFwdStatus_->fecDelAll();
  pendingPolicy_.clear();
  task_->unscheduleTask();
}

// Reactors

void PolicyPublishSm::followPolicy(PolicyKey const& key, Mosk::Ptr<Policy const> const& policy) {
  PolicyReactor* reactor = policyReactor_.follow(
      key, policy, [&] { return Mosk::Ptr<PolicyReactor>(new PolicyReactor(this, key)); });
  if (reactor != nullptr) reactor->followActive();
}

PolicyPublishSm::PolicyReactor::PolicyReactor(PolicyPublishSm* sm, PolicyKey const& key)
    : sm_(sm), key_(key) {}

PolicyPublishSm::PolicyReactor::~PolicyReactor() = default;

void PolicyPublishSm::PolicyReactor::onActive() {
  sm_->handlePolicy(key_);
  followActive();
}

void PolicyPublishSm::PolicyReactor::followActive() {
  Mosk::Ptr<Policy const> const policy = notifier();
  Mosk::Ptr<PolicyEntry const> const active = policy ? policy->active() : nullptr;
  if (!active) {
    activeEntryReactor_ = nullptr;
    return;
  }
  if (!activeEntryReactor_) activeEntryReactor_ = new ActiveEntryReactor(sm_, key_);
  activeEntryReactor_->notifierIs(active);
}

void PolicyPublishSm::ActiveEntryReactor::onBindingSid() {
  sm_->handlePolicy(key_);
}

void PolicyPublishSm::ActiveEntryReactor::onWSegmentList(SegmentListId const&) {
  sm_->handlePolicy(key_);
}

void PolicyPublishSm::EcPolicyReactor::onPolicy(PolicyKey const& key) {
  sm_->handlePolicy(key);
  sm_->followPolicy(key, sm_->ecPolicy_->policy(key));
}

void PolicyPublishSm::TaskReactor::onTaskRun() {
  sm_->handleTaskRun();
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<PolicyPublishSm> const machineRecord(
    "SrTePolicy::PolicyPublishSm", {
                                       {"handleInitialized", &PolicyPublishSm::handleInitialized},
                                       {"handleTaskRun", &PolicyPublishSm::handleTaskRun},
                                       {"handleDel", &PolicyPublishSm::handleDel},
                                   });
}  // namespace

}  // namespace SrTePolicy
