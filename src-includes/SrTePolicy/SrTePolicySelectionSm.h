// Hears: PolicySelectionInput and every PolicyIdEntry (nested); SegmentListStatus (task).
// Writes: EcPolicy, per key a Policy with its eligible candidates and the active one.
//
// The policy selection state machine: picks the active candidate path of every SR-TE policy.
//
// PolicySelectionSm reads the selection input (one PolicyIdEntry per candidate path, keyed by
// policy id), the resolution status of segment lists and the map from a segment list to the
// candidate paths that use it. It writes EcPolicy: per policy key a Policy that holds every
// eligible candidate (one with at least one resolved segment list) ranked by Priority, each
// carrying its binding SID and its resolved segment lists with their tunnels, and the active
// candidate. The best-ranked candidate becomes active, except that an active candidate is kept
// when the best one differs from it only by policy id, so equal candidates never flap.
//
// Changes of the selection input are handled at once, inside the notification that carries
// them. A change of a segment list's status may touch many candidate paths, so it only queues
// their ids; the machine's task drains the queue in slices bounded by the scheduler's yield
// verdict, and resumes each slice behind the last id it handled.
//
// The machine keeps a reference map from each policy id to the candidate it filed. EcPolicy
// outlives an agent restart: a new machine takes over the EcPolicy it is given, rebuilds the
// reference map from it and reconciles every candidate, old and new, in its task.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include <boost/container/small_vector.hpp>

#include "Mosk/HashMap.h"
#include "Mosk/ReactorMap.h"
#include "SrTePolicy/SrTePolicyCoreDedupTable.h"
#include "SrTePolicy/SrTePolicyEntry.h"
#include "SrTePolicy/SrTePolicySegmentListStatus.h"
#include "Vell/PendingDrain.h"

namespace SrTePolicy {

class PolicySelectionSm : public StateMachine {
 public:
  // Watches the selection input: keeps one PolicyIdEntryReactor per live entry and hands every
  // added, replaced or removed entry to handlePolicyEntry.
  class PolicyIdReactor : public PolicySelectionInput::NotifieeConst {
   public:
    explicit PolicyIdReactor(PolicySelectionSm* sm) : sm_(sm) {}
    void onPolicyIdEntry(U32 const& id) override;

   private:
    PolicySelectionSm* sm_;
  };

  // Watches one PolicyIdEntry: ranking and segment-list changes rerun its selection, a binding
  // SID change is only copied.
  class PolicyIdEntryReactor : public PolicyIdEntry::NotifieeConst {
   public:
    PolicyIdEntryReactor(PolicySelectionSm* sm, U32 id) : sm_(sm), id_(id) {}
    U32 id() const { return id_; }
    void onPreference() override;
    void onRouterId() override;
    void onBindingSid() override;
    void onWSegmentList(SegmentListId const&) override;

   private:
    PolicyIdEntry const* entry() const {
      return static_cast<PolicyIdEntry const*>(notifierEntity());
    }
    PolicySelectionSm* sm_;
    U32 const id_;
  };

  class ResSegListReactor : public SegmentListStatus::NotifieeConst {
   public:
    explicit ResSegListReactor(PolicySelectionSm* sm) : sm_(sm) {}
    void onStatus(SegmentListId const& id) override { sm_->handleResolvedSegmentList(id); }

   private:
    PolicySelectionSm* sm_;
  };

  class TaskReactor : public Vell::Task::NotifieeConst {
   public:
    explicit TaskReactor(PolicySelectionSm* sm) : sm_(sm) {}
    void onTaskRun() override { sm_->handleTaskRun(); }

   private:
    PolicySelectionSm* sm_;
  };

  // `resSegList` may be null: then no segment list counts as resolved and no candidate is
  // eligible. The other arguments must not be null (a range error names the one that is).
  PolicySelectionSm(Mosk::Ptr<PolicySelectionInput const> policyId,
                    Mosk::Ptr<SegmentListStatus const> resSegList,
                    Mosk::Ptr<SegmentListIdToPolicyMap const> segmentListMap,
                    Mosk::Ptr<EcPolicy> ecPolicy, Mosk::Ptr<Vell::TaskScheduler> scheduler);
  ~PolicySelectionSm() override;
  Mosk::Name name() const override { return "PolicySelectionSm"; }

  Mosk::Ptr<PolicySelectionInput const> const& policyId() const { return policyId_; }
  Mosk::Ptr<SegmentListStatus const> const& resSegList() const { return resSegList_; }
  Mosk::Ptr<SegmentListIdToPolicyMap const> const& segmentListMap() const {
    return segmentListMap_;
  }
  Mosk::Ptr<EcPolicy> const& ecPolicy() const { return ecPolicy_; }
  Mosk::Ptr<Vell::TaskScheduler> const& scheduler() const { return scheduler_; }
  // Null until handleInitialized.
  Mosk::Ptr<Vell::Task> const& task() const { return task_; }
  bool initialized() const { return initialized_; }

  // The reference map: the candidate filed for a policy id, or null. An id is in the map
  // exactly while its candidate is in EcPolicy.
  Mosk::Ptr<PolicyEntry const> policyIdMap(U32 id) const;
  // The number of ids whose selection the task must recompute.
  U32 pendingPolicyIdCount() const { return pendingPolicyId_.size(); }

  // Creates the task, takes over what EcPolicy holds (every candidate it finds goes into the
  // reference map; a policy without candidates is dropped), attaches the reactors and queues
  // every id of EcPolicy and of the selection input for the task. Runs once; later calls do
  // nothing.
  void handleInitialized();
  // Brings the candidate of `id` in line with its selection-input entry: files it when the
  // entry has a resolved segment list (moving it to a new PolicyEntry when its priority
  // changed), removes it when the entry is gone or has none (and its policy with its last
  // candidate), then reselects the policy's active candidate.
  void handlePolicyEntry(U32 id);
  // Copies the entry's binding SID into its candidate; does not rerun selection.
  void handleBindingSid(U32 id);
  // Queues every policy id that uses the segment list and schedules the task, also when there
  // is none.
  void handleResolvedSegmentList(SegmentListId const& segmentListId);
  // One slice of the pending walk (Vell/PendingDrain.h): handles pending ids from the bookmark
  // on until the scheduler asks for a yield; the next run resumes behind the last id handled.
  void handleTaskRun();
  // Unschedules the task and clears the queue, the reference map and EcPolicy.
  void handleDel();

  // Whether at least one of the entry's segment lists has a status (false without resSegList).
  bool policyHasResolvedSegmentList(PolicyIdEntry const& entry) const;
  // Whether the entry now ranks under another Priority than the candidate.
  static bool policyPriorityChanged(PolicyIdEntry const& entry, PolicyEntry const& candidate);
  // Sets the active candidate of the policy of `key`, if there is such a policy.
  void selectNewActive(PolicyKey const& key);

  // The per-entry reactors. policyIdEntryIs attaches the reactor of `id` to `entry` (creating
  // it, or re-pointing it to a replaced entry; null removes it).
  Mosk::Ptr<PolicyIdEntryReactor> policyIdEntry(U32 id) const;
  U32 policyIdEntryCount() const { return policyIdEntry_.size(); }
  void policyIdEntryIs(U32 id, Mosk::Ptr<PolicyIdEntry const> const& entry);
  void policyIdEntryDel(U32 id) { policyIdEntry_.erase(id); }
  void policyIdEntryDelAll() { policyIdEntry_.clear(); }

 private:
  // A filed candidate and the policy that holds it. Keeping the policy lets the machine tell
  // a candidate removed behind its back (its policy no longer holds it) from a policy that is
  // gone altogether.
  struct CandidateRef {
    Mosk::Ptr<PolicyEntry> entry;
    Mosk::Ptr<Policy> policy;
    bool operator==(CandidateRef const&) const = default;
  };
  // The resolved segment lists of an entry with their tunnels; a candidate path has sixteen
  // at most, so they stay on the stack.
  using ResolvedLists =
      boost::container::small_vector<std::pair<SegmentListId, WeightedSegmentList>, 16>;

  void handlePolicyEntry(U32 id, PolicyIdEntry const* entry);
  void handleBindingSid(U32 id, PolicyIdEntry const* entry);
  void handlePolicyIdEntry(U32 id);
  void collectResolved(PolicyIdEntry const& entry, ResolvedLists& out) const;
  void syncSegmentLists(ResolvedLists const& resolved, PolicyEntry& candidate) const;
  void removeCandidate(U32 id, CandidateRef ref);
  // The policy of a filed candidate; asserts that it is still in EcPolicy.
  Policy& ownerOf(CandidateRef const& ref) const;
  void traceMissing(U32 id, Policy const& policy) const;
  void selectNewActive(Policy& policy);

  Mosk::Ptr<PolicySelectionInput const> const policyId_;
  Mosk::Ptr<SegmentListStatus const> const resSegList_;
  Mosk::Ptr<SegmentListIdToPolicyMap const> const segmentListMap_;
  Mosk::Ptr<EcPolicy> const ecPolicy_;
  Mosk::Ptr<Vell::TaskScheduler> const scheduler_;
  bool initialized_ = false;

  Mosk::Ptr<Vell::Task> task_;
  Mosk::HashMap<U32, CandidateRef> policyIdMap_;
  Vell::PendingDrain<U32> pendingPolicyId_;

  Mosk::Ptr<PolicyIdReactor> policyIdReactor_;
  Mosk::ReactorMap<U32, PolicyIdEntryReactor> policyIdEntry_;
  Mosk::Ptr<ResSegListReactor> resSegListReactor_;
  Mosk::Ptr<TaskReactor> taskReactor_;
};

inline Mosk::Ptr<PolicySelectionSm> policySelectionSmFactory(
    Mosk::Ptr<PolicySelectionInput const> policyId, Mosk::Ptr<SegmentListStatus const> resSegList,
    Mosk::Ptr<SegmentListIdToPolicyMap const> segmentListMap, Mosk::Ptr<EcPolicy> ecPolicy,
    Mosk::Ptr<Vell::TaskScheduler> scheduler) {
  return Mosk::Ptr<PolicySelectionSm>(
      new PolicySelectionSm(std::move(policyId), std::move(resSegList), std::move(segmentListMap),
                            std::move(ecPolicy), std::move(scheduler)));
}

}  // namespace SrTePolicy
