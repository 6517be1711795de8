// Hears: EcPolicy, every Policy's active and the active PolicyEntry (timer task).
// Writes: PolicyStatus and the forwarding-status FEC of every published policy.
//
// PolicyPublishSm: the last stage of the policy pipeline. For every policy key whose Policy in
// EcPolicy has an active candidate it publishes one FEC in the forwarding status (one via per
// segment-list tunnel of the candidate, under a FEC id of adjacency type 15 that this machine
// allocates) and one PolicyStatusEntry (binding SID, candidate id, weighted tunnels, FEC id)
// with the reverse map from FEC id to key; a key that loses its active candidate is withdrawn.
//
// Nothing is published from inside a notification. A change only marks its key pending and
// arms the publish task at most 50 ms ahead, so a burst of changes is published once; the task
// drains the pending keys in slices bounded by the scheduler's yield verdict and resumes from a
// bookmark. A key keeps its FEC id while it stays active; a released id is held back by the
// number allocator for 300 s before it can stand for another policy.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include "Mosk/ReactorMap.h"
#include "Skerry/ForwardingStatus.h"
#include "SrTePolicy/SrTePolicyEntry.h"
#include "SrTePolicy/SrTePolicyStatus.h"
#include "Vell/NumAllocator.h"
#include "Vell/PendingDrain.h"
#include "Vell/TimerWheel.h"

namespace SrTePolicy {

class PolicyPublishSm : public StateMachine {
 public:
  // The FEC ids of published policies carry this adjacency type.
  static constexpr U32 fecAdjType = 15;
  static constexpr U32 taskPriority = 2;
  static constexpr U32 allocatorMoveCount = 100;
  // Seconds a released FEC index is held back before it is handed out again.
  static constexpr double fecIdExpiryTime = 300.0;

  // Wires the machine and runs handleInitialized(): what an earlier instance published is
  // wiped and every policy of `ecPolicy` is queued for publication at once.
  PolicyPublishSm(Mosk::Ptr<EcPolicy const> ecPolicy, Mosk::Ptr<Vell::TaskScheduler> taskScheduler,
                  Mosk::Ptr<PolicyStatus> policyStatus, Mosk::Ptr<Vell::TimerWheel> timerWheel,
                  Mosk::Ptr<Skerry::Fib::ForwardingStatus> srteFwdStatus);
  ~PolicyPublishSm() override;
  Mosk::Name name() const override { return "PolicyPublishSm"; }

  Mosk::Ptr<EcPolicy const> const& ecPolicy() const { return ecPolicy_; }
  Mosk::Ptr<Vell::TaskScheduler> const& taskScheduler() const { return taskScheduler_; }
  Mosk::Ptr<PolicyStatus> const& policyStatus() const { return policyStatus_; }
  Mosk::Ptr<Vell::TimerWheel> const& timerWheel() const { return timerWheel_; }
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const& srteFwdStatus() const { return srteFwdStatus_; }
  // Seconds within which a change is published.
  double delayTime() const { return delayTime_; }
  bool initialized() const { return initialized_; }
  Mosk::Ptr<Vell::TimerTask> const& task() const { return task_; }

  // The number of keys waiting for the publish task.
  U32 pendingPolicyCount() const { return pendingPolicy_.size(); }

  // Creates the task, wipes the status and the FEC table, builds a fresh FEC id allocator,
  // attaches the reactors and queues every existing policy (the task runs at once).
  void handleInitialized();
  // Marks `key` pending and makes the task due within delayTime().
  void handlePolicy(PolicyKey const& key);
  // Publishes or withdraws pending keys until the scheduler asks the task to yield; work left
  // is resumed from the bookmark on the next run, which is scheduled at once
  // (Vell/PendingDrain.h, which also says what a key whose publication raises does).
  void handleTaskRun();
  // Publishes the active candidate of `key`, or withdraws the key when it has none.
  void processPolicy(PolicyKey const& key);
  // A fresh FEC id of adjacency type 15. Running out of indexes stops the process.
  Fib::FecId getFecId();
  // Returns the index of `fecId` to the allocator, which holds it back for the expiry time.
  void releaseFecId(Fib::FecId const& fecId);
  // Allocates a FEC id and writes the FEC of `active` under it.
  Fib::FecId createSrTePolicyFec(Mosk::Ptr<PolicyEntry const> const& active);
  // Rewrites the FEC `fecId` in place with one via per segment list of `active` and commits
  // it. The 512th segment list raises the ViaIndex range error with the FEC left uncommitted.
  void updateSrTePolicyFec(Mosk::Ptr<PolicyEntry const> const& active, Fib::FecId const& fecId);
  // Deletes the FEC and releases its id.
  void deleteSrTePolicyFec(Fib::FecId const& fecId);
  // Teardown: wipes the status and the FEC table, forgets pending keys, stops the task.
  void handleDel();

 private:
  class ActiveEntryReactor;

  // Watches one Policy of EcPolicy and, through an ActiveEntryReactor, its active candidate.
  class PolicyReactor : public Policy::NotifieeConst {
   public:
    PolicyReactor(PolicyPublishSm* sm, PolicyKey const& key);
    ~PolicyReactor() override;
    PolicyKey const& key() const { return key_; }
    void onActive() override;
    // Points the candidate reactor at the policy's current active entry.
    void followActive();

   private:
    PolicyPublishSm* const sm_;
    PolicyKey const key_;
    Mosk::Ptr<ActiveEntryReactor> activeEntryReactor_;
  };

  class ActiveEntryReactor : public PolicyEntry::NotifieeConst {
   public:
    ActiveEntryReactor(PolicyPublishSm* sm, PolicyKey const& key) : sm_(sm), key_(key) {}
    void onBindingSid() override;
    void onWSegmentList(SegmentListId const&) override;

   private:
    PolicyPublishSm* const sm_;
    PolicyKey const key_;
  };

  class EcPolicyReactor : public EcPolicy::NotifieeConst {
   public:
    explicit EcPolicyReactor(PolicyPublishSm* sm) : sm_(sm) {}
    void onPolicy(PolicyKey const& key) override;

   private:
    PolicyPublishSm* const sm_;
  };

  class TaskReactor : public Vell::Task::NotifieeConst {
   public:
    explicit TaskReactor(PolicyPublishSm* sm) : sm_(sm) {}
    void onTaskRun() override;

   private:
    PolicyPublishSm* const sm_;
  };

  // Keeps the reactor of `key` on `policy` and its active entry; a null policy drops it.
  void followPolicy(PolicyKey const& key, Mosk::Ptr<Policy const> const& policy);

  Mosk::Ptr<EcPolicy const> const ecPolicy_;
  Mosk::Ptr<Vell::TaskScheduler> const taskScheduler_;
  Mosk::Ptr<PolicyStatus> const policyStatus_;
  Mosk::Ptr<Vell::TimerWheel> const timerWheel_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const srteFwdStatus_;
  double const delayTime_ = 0.05;
  bool initialized_ = false;
  Mosk::Ptr<Vell::TimerTask> task_;
  Mosk::Ptr<Vell::NumAllocatorConfig> numAllocatorConfig_;
  Mosk::Ptr<Vell::NumAllocatorStatus> numAllocatorStatus_;
  Mosk::Ptr<Vell::NumAllocator> numAllocator_;
  Vell::PendingDrain<PolicyKey> pendingPolicy_;
  Mosk::Ptr<EcPolicyReactor> ecPolicyReactor_;
  Mosk::Ptr<TaskReactor> taskReactor_;
  Mosk::ReactorMap<PolicyKey, PolicyReactor> policyReactor_;
};

inline Mosk::Ptr<PolicyPublishSm> policyPublishSmFactory(
    Mosk::Ptr<EcPolicy const> ecPolicy, Mosk::Ptr<Vell::TaskScheduler> taskScheduler,
    Mosk::Ptr<PolicyStatus> policyStatus, Mosk::Ptr<Vell::TimerWheel> timerWheel,
    Mosk::Ptr<Skerry::Fib::ForwardingStatus> srteFwdStatus) {
  return Mosk::Ptr<PolicyPublishSm>(
      new PolicyPublishSm(std::move(ecPolicy), std::move(taskScheduler), std::move(policyStatus),
                          std::move(timerWheel), std::move(srteFwdStatus)));
}

}  // namespace SrTePolicy
