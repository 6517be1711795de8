// The policy selection state machine: filing candidates, choosing the active one, the pending
// walk and the takeover of an existing EcPolicy.
#include "SrTePolicy/SrTePolicySelectionSm.h"

#include "Mosk/Reflection.h"

#include <string>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle selectionTrace("SrTePolicySelectionSm");

constexpr U32 kTaskPriority = 2;
constexpr char kTaskName[] = "SelectionSmTask";
constexpr char kName[] = "PolicySelectionSm";

Priority priorityOf(PolicyIdEntry const& entry) {
  return Priority(entry.preference(), entry.source(), entry.routerId(), entry.id());
}

}  // namespace

// Reactors.

void PolicySelectionSm::PolicyIdReactor::onPolicyIdEntry(U32 const& id) {
  sm_->handlePolicyIdEntry(id);
}

void PolicySelectionSm::PolicyIdEntryReactor::onPreference() {
  sm_->handlePolicyEntry(id_, entry());
}

void PolicySelectionSm::PolicyIdEntryReactor::onRouterId() {
  sm_->handlePolicyEntry(id_, entry());
}

void PolicySelectionSm::PolicyIdEntryReactor::onBindingSid() {
  sm_->handleBindingSid(id_, entry());
}

void PolicySelectionSm::PolicyIdEntryReactor::onWSegmentList(SegmentListId const&) {
  sm_->handlePolicyEntry(id_, entry());
}

// The machine.

PolicySelectionSm::PolicySelectionSm(Mosk::Ptr<PolicySelectionInput const> policyId,
                                     Mosk::Ptr<SegmentListStatus const> resSegList,
                                     Mosk::Ptr<SegmentListIdToPolicyMap const> segmentListMap,
                                     Mosk::Ptr<EcPolicy> ecPolicy,
                                     Mosk::Ptr<Vell::TaskScheduler> scheduler)
    : policyId_(required(std::move(policyId), kName, "policyId")),
      resSegList_(std::move(resSegList)),
      segmentListMap_(required(std::move(segmentListMap), kName, "segmentListMap")),
      ecPolicy_(required(std::move(ecPolicy), kName, "ecPolicy")),
      scheduler_(required(std::move(scheduler), kName, "scheduler")) {}

PolicySelectionSm::~PolicySelectionSm() {
  if (!abandoned()) handleDel();
}

Mosk::Ptr<PolicyEntry const> PolicySelectionSm::policyIdMap(U32 id) const {
  CandidateRef const* ref = policyIdMap_.find(id);
  return ref ? Mosk::Ptr<PolicyEntry const>(ref->entry) : nullptr;
}

void PolicySelectionSm::handleInitialized() {
  if (initialized_) return;
  SRTE_TRACE(selectionTrace, TraceLevel::detail, "Handling Initialized");
  task_ = Vell::taskFactory(scheduler_, Vell::TaskPriority(kTaskPriority), kTaskName);
  taskReactor_ = new TaskReactor(this);
  taskReactor_->notifierIs(task_);
  initialized_ = true;

  // Take over what an earlier instance filed. Each candidate is reconciled in the task; an
  // active entry that its policy does not hold, or a policy without candidates, could never
  // be reconciled, so neither is kept.
  for (auto policy = ecPolicy_->policyIter(); policy; ++policy) {
    if (policy->candidateCount() == 0) {
      policy->activeIs(nullptr);
      ecPolicy_->policyDel(policy.key());
      continue;
    }
    Mosk::Ptr<PolicyEntry> active = policy->active();
    if (active && active->parent() != policy.ptr().ptr()) policy->activeIs(nullptr);
    for (auto candidate = policy->candidateIter(); candidate; ++candidate) {
      U32 const id = candidate.key().id();
      policyIdMap_.set(id, CandidateRef{candidate.ptr(), policy.ptr()});
      pendingPolicyId_.add(id);
    }
  }
  for (auto entry = policyId_->policyIdEntryIterConst(); entry; ++entry) {
    pendingPolicyId_.add(entry.key());
    policyIdEntryIs(entry.key(), entry.ptr());
  }

  policyIdReactor_ = new PolicyIdReactor(this);
  policyIdReactor_->notifierIs(policyId_);
  if (resSegList_) {
    resSegListReactor_ = new ResSegListReactor(this);
    resSegListReactor_->notifierIs(resSegList_);
  }
  pendingPolicyId_.scheduleIfPending(*task_);
}

void PolicySelectionSm::handlePolicyIdEntry(U32 id) {
  if (!initialized_) return;
  Mosk::Ptr<PolicyIdEntry const> entry = policyId_->policyIdEntry(id);
  policyIdEntryIs(id, entry);
  handlePolicyEntry(id, entry.ptr());
}

void PolicySelectionSm::handlePolicyEntry(U32 id) {
  if (!initialized_) return;
  handlePolicyEntry(id, policyId_->policyIdEntry(id).ptr());
}

void PolicySelectionSm::handlePolicyEntry(U32 id, PolicyIdEntry const* entry) {
  if (!initialized_) return;
  SRTE_TRACE(selectionTrace, TraceLevel::detail, "Policy: " << id << " has changed");
  ResolvedLists resolved;
  if (entry != nullptr) collectResolved(*entry, resolved);
  CandidateRef const* filed = policyIdMap_.find(id);
  if (resolved.empty()) {
    if (filed != nullptr) removeCandidate(id, *filed);
    return;
  }

  Mosk::Ptr<Policy> policy;
  Mosk::Ptr<PolicyEntry> candidate;
  if (filed != nullptr) {
    SRTE_TRACE(selectionTrace, TraceLevel::event, "Policy Id: " << id << " is updated");
    policy = &ownerOf(*filed);
    candidate = filed->entry;
    if (candidate->parent() != policy.ptr()) {
      traceMissing(id, *policy);
      return;
    }
    if (policyPriorityChanged(*entry, *candidate)) {
      // The key of an element never changes, so a new rank is a new entry. The old entry
      // stops being active before it leaves, so that active never names a deleted entry;
      // the new entry receives the path's resolved segment lists below.
      if (policy->active() == candidate) policy->activeIs(nullptr);
      policy->candidateDel(candidate->priority());
      candidate = policy->candidateIs(priorityOf(*entry));
      policyIdMap_.set(id, CandidateRef{candidate, policy});
    }
  } else {
    SRTE_TRACE(selectionTrace, TraceLevel::event, "Policy Id: " << id << " is added");
    policy = ecPolicy_->policyIs(entry->key());
    candidate = policy->candidateIs(priorityOf(*entry));
    policyIdMap_.set(id, CandidateRef{candidate, policy});
  }
  candidate->bindingSidIs(entry->bindingSid());
  syncSegmentLists(resolved, *candidate);
  selectNewActive(*policy);
}

void PolicySelectionSm::removeCandidate(U32 id, CandidateRef ref) {
  SRTE_TRACE(selectionTrace, TraceLevel::event, "Policy Id: " << id << " will be removed");
  Policy& policy = ownerOf(ref);
  if (ref.entry->parent() != &policy) {
    traceMissing(id, policy);
    return;
  }
  if (policy.active() == ref.entry) policy.activeIs(nullptr);
  policy.candidateDel(ref.entry->priority());
  policyIdMap_.erase(id);
  if (policy.candidateCount() > 0) {
    selectNewActive(policy);
  } else {
    ecPolicy_->policyDel(policy.key());
  }
}

Policy& PolicySelectionSm::ownerOf(CandidateRef const& ref) const {
  MOSK_ASSERT_MSG(ref.policy && ref.policy->parent() == ecPolicy_.ptr(), "policy");
  return *ref.policy;
}

void PolicySelectionSm::traceMissing(U32 id, Policy const& policy) const {
  PolicyKey const& key = policy.key();
  SRTE_TRACE2(selectionTrace, TraceLevel::event,
              "policy id: " << id << " of " << key
                            << " missing from candidate list but exist in reference map",
              "policy id: " << id << " of endpoint " << endpointWord(key.endpoint(), 0) << ":"
                            << endpointWord(key.endpoint(), 1) << " color " << key.color()
                            << " missing from candidate list but exist in reference map");
}

void PolicySelectionSm::collectResolved(PolicyIdEntry const& entry, ResolvedLists& out) const {
  if (!resSegList_) return;
  for (auto list = entry.wSegmentListIter(); list; ++list) {
    Mosk::Ptr<SegmentListResolve const> status = resSegList_->status(list.key());
    if (status) out.emplace_back(list.key(), WeightedSegmentList(status->tunnelId(), list.value()));
  }
}

void PolicySelectionSm::syncSegmentLists(ResolvedLists const& resolved,
                                         PolicyEntry& candidate) const {
  for (auto const& [id, list] : resolved)
    candidate.wSegmentListIs(id, list);
  // The candidate now holds every resolved list; as many lists as that means nothing else.
  if (candidate.wSegmentListCount() == resolved.size()) return;
  for (auto list = candidate.wSegmentListIter(); list; ++list) {
    bool keep = false;
    for (auto const& r : resolved)
      keep = keep || r.first == list.key();
    if (!keep) candidate.wSegmentListDel(list.key());
  }
}

bool PolicySelectionSm::policyHasResolvedSegmentList(PolicyIdEntry const& entry) const {
  if (!resSegList_) return false;
  for (auto list = entry.wSegmentListIter(); list; ++list) {
    if (resSegList_->status(list.key())) return true;
  }
  return false;
}

bool PolicySelectionSm::policyPriorityChanged(PolicyIdEntry const& entry,
                                              PolicyEntry const& candidate) {
  return priorityOf(entry) != candidate.priority();
}

void PolicySelectionSm::selectNewActive(PolicyKey const& key) {
  Mosk::Ptr<Policy> policy = ecPolicy_->policy(key);
  if (policy) selectNewActive(*policy);
}

void PolicySelectionSm::selectNewActive(Policy& policy) {
  PolicyKey const& key = policy.key();
  auto first = policy.candidateIter();
  if (!first) {
    policy.activeIs(nullptr);
    SRTE_TRACE2(selectionTrace, TraceLevel::event,
                "Policy: " << key << " has no candidates for active",
                "Policy: endpoint " << endpointWord(key.endpoint(), 0) << ":"
                                    << endpointWord(key.endpoint(), 1) << " color " << key.color()
                                    << " has no candidates for active");
    return;
  }
  Mosk::Ptr<PolicyEntry> best = first.ptr();
  Mosk::Ptr<PolicyEntry> current = policy.active();
  Priority const& priority = best->priority();
  if (best == current) {
    SRTE_TRACE2(selectionTrace, TraceLevel::detail,
                "Policy: " << key << ", Pri: [" << priority << "] retained as active",
                "Policy: endpoint " << endpointWord(key.endpoint(), 0) << ":"
                                    << endpointWord(key.endpoint(), 1) << " color " << key.color()
                                    << ", Pri: [id " << priority.id() << "] retained as active");
    return;
  }
  // A best candidate equal to the active one in everything but its id does not displace it.
  if (current && priority.sameExceptId(current->priority())) return;
  policy.activeIs(best);
  SRTE_TRACE2(selectionTrace, TraceLevel::event,
              "Policy: " << key << ", Pri: [" << priority << "] is the new active",
              "Policy: endpoint " << endpointWord(key.endpoint(), 0) << ":"
                                  << endpointWord(key.endpoint(), 1) << " color " << key.color()
                                  << ", Pri: [id " << priority.id() << "] is the new active");
}

void PolicySelectionSm::handleBindingSid(U32 id) {
  if (!initialized_) return;
  handleBindingSid(id, policyId_->policyIdEntry(id).ptr());
}

void PolicySelectionSm::handleBindingSid(U32 id, PolicyIdEntry const* entry) {
  if (!initialized_) return;
  SRTE_TRACE(selectionTrace, TraceLevel::detail, "Updating Binding SID for policy Id: " << id);
  CandidateRef const* filed = policyIdMap_.find(id);
  if (filed == nullptr || entry == nullptr) return;
  Policy& policy = ownerOf(*filed);
  if (filed->entry->parent() != &policy) {
    traceMissing(id, policy);
    return;
  }
  filed->entry->bindingSidIs(entry->bindingSid());
}

void PolicySelectionSm::handleResolvedSegmentList(SegmentListId const& segmentListId) {
  if (!initialized_) return;
  SRTE_TRACE(selectionTrace, TraceLevel::event,
             "Applying status change of SegmentList Id: " << segmentListId);
  Mosk::Ptr<SegmentListUser const> user = segmentListMap_->segmentListUser(segmentListId);
  if (user) {
    for (auto id = user->policyIdIter(); id; ++id)
      pendingPolicyId_.add(id.key().value());
  }
  // Every status change gets a run, also when no candidate uses the list (a new list resolves
  // before the input stage registers its user): that run is part of what hosts observe, as a
  // task run with "Processed 0". The one exception to the rule that an empty queue runs
  // nothing.
  task_->scheduleTask();
  SRTE_TRACE(selectionTrace, TraceLevel::detail,
             "Scheduled task for handling status change to segmentList " << segmentListId);
}

void PolicySelectionSm::handleTaskRun() {
  if (!initialized_) return;
  auto const slice = pendingPolicyId_.drain(*task_, [this](U32 id) { handlePolicyEntry(id); });
  if (slice.bookmark) {
    SRTE_TRACE(selectionTrace, TraceLevel::detail,
               "PS sm Bookmark placed at Id: " << *slice.bookmark);
  }
  SRTE_TRACE(selectionTrace, TraceLevel::detail,
             "PS sm Processed " << slice.count << " policy entries");
}

void PolicySelectionSm::handleDel() {
  if (!initialized_) return;
  task_->unscheduleTask();
  pendingPolicyId_.clear();
  policyIdMap_.clear();
  ecPolicy_->policyDelAll();
  // Whatever the machine still hears until its reactors go is no longer its business.
  initialized_ = false;
}

// Per-entry reactors.

Mosk::Ptr<PolicySelectionSm::PolicyIdEntryReactor> PolicySelectionSm::policyIdEntry(U32 id) const {
  return Mosk::Ptr<PolicyIdEntryReactor>(policyIdEntry_.find(id));
}

void PolicySelectionSm::policyIdEntryIs(U32 id, Mosk::Ptr<PolicyIdEntry const> const& entry) {
  policyIdEntry_.follow(id, entry, [&] {
    return Mosk::Ptr<PolicyIdEntryReactor>(new PolicyIdEntryReactor(this, id));
  });
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<PolicySelectionSm> const machineRecord(
    "SrTePolicy::PolicySelectionSm",
    {
        {"handleInitialized", &PolicySelectionSm::handleInitialized},
        {"handleTaskRun", &PolicySelectionSm::handleTaskRun},
        {"handleDel", &PolicySelectionSm::handleDel},
    });
}  // namespace

}  // namespace SrTePolicy
