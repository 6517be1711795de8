// The policy selection state machine: filing candidates, choosing the active one, the pending
// walk and the takeover of an existing EcPolicy.
#include "SrTePolicy/SrTePolicySelectionSm.h"

#include "Mosk/Reflection.h"

#include <cstring>
#include <string>

#include "Flicker/Flicker.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle selectionTrace("SrTePolicySelectionSm");

constexpr U32 kTaskPriority = 2;
constexpr char kTaskName[] = "SelectionSmTask";

// The binary trace carries an endpoint as the two halves of its sixteen address bytes.
U64 endpointHalf(PolicyKey const& key, U32 half) {
  U64 v;
  std::memcpy(&v, key.endpoint().bytes().data() + 8 * half, sizeof v);
  return v;
}

Priority priorityOf(PolicyIdEntry const& entry) {
  return Priority(entry.preference(), entry.source(), entry.routerId(), entry.id());
}

template <class T>
Mosk::Ptr<T> required(Mosk::Ptr<T> p, char const* argument) {
  if (!p) {
    throw Mosk::RangeException(std::string("PolicySelectionSm: the ") + argument +
                               " argument must not be null");
  }
  return p;
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
    : policyId_(required(std::move(policyId), "policyId")),
      resSegList_(std::move(resSegList)),
      segmentListMap_(required(std::move(segmentListMap), "segmentListMap")),
      ecPolicy_(required(std::move(ecPolicy), "ecPolicy")),
      scheduler_(required(std::move(scheduler), "scheduler")) {}

PolicySelectionSm::~PolicySelectionSm() {
  if (!abandoned()) handleDel();
}

Mosk::Ptr<PolicyEntry const> PolicySelectionSm::policyIdMap(U32 id) const {
  CandidateRef const* ref = policyIdMap_.find(id);
  return ref ? Mosk::Ptr<PolicyEntry const>(ref->entry) : nullptr;
}

void PolicySelectionSm::handleInitialized() {
  if (initialized_) return;
  SRTE_TRACE(selectionTrace, 9, "Handling Initialized");
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
      pendingPolicyId_.set(id, true);
    }
  }
  for (auto entry = policyId_->policyIdEntryIterConst(); entry; ++entry) {
    pendingPolicyId_.set(entry.key(), true);
    policyIdEntryIs(entry.key(), entry.ptr());
  }

  policyIdReactor_ = new PolicyIdReactor(this);
  policyIdReactor_->notifierIs(policyId_);
  if (resSegList_) {
    resSegListReactor_ = new ResSegListReactor(this);
    resSegListReactor_->notifierIs(resSegList_);
  }
  if (!pendingPolicyId_.empty()) task_->scheduleTask();
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
  SRTE_TRACE(selectionTrace, 9, "Policy: " << id << " has changed");
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
    SRTE_TRACE(selectionTrace, 6, "Policy Id: " << id << " is updated");
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
    SRTE_TRACE(selectionTrace, 6, "Policy Id: " << id << " is added");
    policy = ecPolicy_->policyIs(entry->key());
    candidate = policy->candidateIs(priorityOf(*entry));
    policyIdMap_.set(id, CandidateRef{candidate, policy});
  }
  candidate->bindingSidIs(entry->bindingSid());
  syncSegmentLists(resolved, *candidate);
  selectNewActive(*policy);
}

void PolicySelectionSm::removeCandidate(U32 id, CandidateRef ref) {
  SRTE_TRACE(selectionTrace, 6, "Policy Id: " << id << " will be removed");
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
  SRTE_TRACE2(selectionTrace, 6,
              "policy id: " << id << " of " << key
                            << " missing from candidate list but exist in reference map",
              "policy id: " << id << " of endpoint " << endpointHalf(key, 0) << ":"
                            << endpointHalf(key, 1) << " color " << key.color()
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
    SRTE_TRACE2(selectionTrace, 6, "Policy: " << key << " has no candidates for active",
                "Policy: endpoint " << endpointHalf(key, 0) << ":" << endpointHalf(key, 1)
                                    << " color " << key.color() << " has no candidates for active");
    return;
  }
  Mosk::Ptr<PolicyEntry> best = first.ptr();
  Mosk::Ptr<PolicyEntry> current = policy.active();
  Priority const& priority = best->priority();
  if (best == current) {
    SRTE_TRACE2(selectionTrace, 9,
                "Policy: " << key << ", Pri: [" << priority << "] retained as active",
                "Policy: endpoint " << endpointHalf(key, 0) << ":" << endpointHalf(key, 1)
                                    << " color " << key.color() << ", Pri: [id " << priority.id()
                                    << "] retained as active");
    return;
  }
  // A best candidate equal to the active one in everything but its id does not displace it.
  if (current && priority.sameExceptId(current->priority())) return;
  policy.activeIs(best);
  SRTE_TRACE2(selectionTrace, 6,
              "Policy: " << key << ", Pri: [" << priority << "] is the new active",
              "Policy: endpoint " << endpointHalf(key, 0) << ":" << endpointHalf(key, 1)
                                  << " color " << key.color() << ", Pri: [id " << priority.id()
                                  << "] is the new active");
}

void PolicySelectionSm::handleBindingSid(U32 id) {
  if (!initialized_) return;
  handleBindingSid(id, policyId_->policyIdEntry(id).ptr());
}

void PolicySelectionSm::handleBindingSid(U32 id, PolicyIdEntry const* entry) {
  if (!initialized_) return;
  SRTE_TRACE(selectionTrace, 9, "Updating Binding SID for policy Id: " << id);
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
  SRTE_TRACE(selectionTrace, 6, "Applying status change of SegmentList Id: " << segmentListId);
  Mosk::Ptr<SegmentListUser const> user = segmentListMap_->segmentListUser(segmentListId);
  if (user) {
    for (auto id = user->policyIdIter(); id; ++id)
      pendingPolicyId_.set(id.key().value(), true);
  }
  task_->scheduleTask();
  SRTE_TRACE(selectionTrace, 9,
             "Scheduled task for handling status change to segmentList " << segmentListId);
}

void PolicySelectionSm::handleTaskRun() {
  if (!initialized_) return;
  auto const& pending = pendingPolicyId_;
  auto next = pendingBookmark_.startFresh() ? pending.cursor()
                                            : pending.cursorAt(pendingBookmark_.nextId());
  U32 count = 0;
  bool yielded = false;
  while (next) {
    U32 const id = next.key();
    handlePolicyEntry(id);
    pendingPolicyId_.erase(id);
    ++count;
    // The cursor finds the entry after the erased one.
    ++next;
    if (task_->taskShouldYield()) {
      yielded = true;
      break;
    }
  }
  if (yielded) {
    if (next) {
      pendingBookmark_ = PendingIdBookmark(false, next.key());
      SRTE_TRACE(selectionTrace, 9, "PS sm Bookmark placed at Id: " << next.key());
    } else {
      pendingBookmark_ = PendingIdBookmark();
    }
  }
  task_->taskWorkCountInc(count);
  SRTE_TRACE(selectionTrace, 9, "PS sm Processed " << count << " policy entries");
  if (pendingPolicyId_.empty()) {
    pendingBookmark_ = PendingIdBookmark();
    return;
  }
  // Ids remain before where this walk started, or were queued behind it meanwhile.
  if (!next) pendingBookmark_ = PendingIdBookmark();
  task_->scheduleTask();
}

void PolicySelectionSm::handleDel() {
  if (!initialized_) return;
  task_->unscheduleTask();
  pendingPolicyId_.clear();
  policyIdMap_.clear();
  ecPolicy_->policyDelAll();
  pendingBookmark_ = PendingIdBookmark();
  // Whatever the machine still hears until its reactors go is no longer its business.
  initialized_ = false;
}

// Per-entry reactors.

Mosk::Ptr<PolicySelectionSm::PolicyIdEntryReactor> PolicySelectionSm::policyIdEntry(U32 id) const {
  Mosk::Ptr<PolicyIdEntryReactor> const* reactor = policyIdEntry_.find(id);
  return reactor ? *reactor : nullptr;
}

void PolicySelectionSm::policyIdEntryIs(U32 id, Mosk::Ptr<PolicyIdEntry const> const& entry) {
  if (!entry) {
    policyIdEntryDel(id);
    return;
  }
  if (Mosk::Ptr<PolicyIdEntryReactor> const* reactor = policyIdEntry_.find(id)) {
    (*reactor)->notifierIs(entry);
    return;
  }
  Mosk::Ptr<PolicyIdEntryReactor> reactor(new PolicyIdEntryReactor(this, id));
  reactor->notifierIs(entry);
  policyIdEntry_.set(id, reactor);
}

void PolicySelectionSm::policyIdEntryDel(U32 id) {
  policyIdEntry_.erase(id);
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
