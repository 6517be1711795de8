// Hears: NotifyingSegmentListCollection (nested); SegmentStatus, SegmentResolve (task).
// Writes: the SR-TE segment-list tunnel table, then SegmentListStatus.
//
// The segment-list state machine: turns every live segment list into an SR-TE segment-list
// tunnel and a SegmentListResolve record.
//
// A list resolves when its top segment has a SegmentResolve in SegmentStatus and the adjacency
// of that entry yields at least one next hop. Only the top segment is resolved; the others are
// carried as the label stack pushed below it, bottom first. A resolved list has a tunnel entry
// in the SR-TE segment-list tunnel table and then a record in SegmentListStatus naming that
// tunnel; the entry is always written before the record and removed before it, so a reader of
// the status always finds the tunnel. A list keeps its tunnel id for as long as it stays
// resolved: re-resolving it rewrites the entry's vias only.
//
// Lists that appear or leave are handled at once. A change of a segment's status may touch
// many lists (every list that holds the segment), so those lists are queued in
// pendingSegmentList and resolved from the machine's task in slices (Vell/PendingDrain.h: a
// slice ends when the scheduler asks the task to yield; each run starts at the first queued
// list). The queue is keyed by the list and hashed by its id, so the order of work does not
// depend on memory layout and a list queued twice is resolved once.
//
// At start-up the machine throws away what an earlier instance wrote (tunnel entries, then
// status records) and queues every live list.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include "Mosk/ReactorMap.h"
#include "MplsHelper/IndexAllocators.h"
#include "Skerry/ForwardingStatus.h"
#include "SrTePolicy/SrTePolicyDedupTables.h"
#include "SrTePolicy/SrTePolicySegmentListStatus.h"
#include "SrTePolicy/SrTePolicySegmentStatus.h"
#include "Tunnel/TunnelTable.h"
#include "Vell/PendingDrain.h"

namespace SrTePolicy {

class SegmentListSm : public StateMachine {
 public:
  SegmentListSm(Mosk::Ptr<NotifyingSegmentListCollection const> notifyingSegmentList,
                Mosk::Ptr<SegmentStatus const> segmentStatus,
                Mosk::Ptr<SegmentListStatus> segmentListStatus,
                Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable,
                Mosk::Ptr<Vell::TaskScheduler> scheduler, Mosk::Ptr<Mpls::Status const> mplsStatus,
                Mosk::Ptr<SegmentIdToSegmentList const> segmentIdToSegmentList,
                Mosk::Ptr<CoreDedupTables const> coreDedupTables,
                Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> tunnelIndexAlloc,
                Mosk::Ptr<Skerry::Fib::ForwardingStatus const> forwardingStatus,
                Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> forwarding6Status);
  ~SegmentListSm() override;
  Mosk::Name name() const override { return "SegmentListSm"; }

  Mosk::Ptr<NotifyingSegmentListCollection const> const& notifyingSegmentList() const {
    return notifyingSegmentList_;
  }
  Mosk::Ptr<SegmentStatus const> const& segmentStatus() const { return segmentStatus_; }
  Mosk::Ptr<SegmentListStatus> const& segmentListStatus() const { return segmentListStatus_; }
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> const& tunnelTable() const {
    return tunnelTable_;
  }
  Mosk::Ptr<Vell::TaskScheduler> const& scheduler() const { return scheduler_; }
  Mosk::Ptr<Mpls::Status const> const& mplsStatus() const { return mplsStatus_; }
  Mosk::Ptr<SegmentIdToSegmentList const> const& segmentIdToSegmentList() const {
    return segmentIdToSegmentList_;
  }
  Mosk::Ptr<CoreDedupTables const> const& coreDedupTables() const { return coreDedupTables_; }
  Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> const& tunnelIndexAlloc() const {
    return tunnelIndexAlloc_;
  }
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> const& forwardingStatus() const {
    return forwardingStatus_;
  }
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> const& forwarding6Status() const {
    return forwarding6Status_;
  }
  bool initialized() const { return initialized_; }
  // Null until handleInitialized.
  Mosk::Ptr<Vell::Task> const& task() const { return task_; }

  // The work queue: lists whose resolution must be recomputed.
  bool pendingSegmentList(Mosk::Ptr<SegmentList const> const& list) const {
    return pendingSegmentList_.contains(list);
  }
  U32 pendingSegmentListCount() const { return pendingSegmentList_.size(); }

  // The watchers of segment statuses: one per SegmentResolve present, each reacting to changes
  // of its adjKey. statusIs keeps the watcher of `segmentId` on `resolve` (a null resolve
  // raises the range error); statusDel drops it.
  void statusIs(SegmentId segmentId, Mosk::Ptr<SegmentResolve const> const& resolve);
  void statusDel(SegmentId segmentId);
  void statusDelAll();
  // The entry that the watcher of `segmentId` watches, or null when there is none.
  Mosk::Ptr<SegmentResolve const> status(SegmentId segmentId) const;
  U32 statusCount() const { return status_.size(); }

  // Wipes both outputs (tunnel entries first), creates the task, queues every live list and
  // watches every segment status present. Until it has run, every handler returns at once.
  void handleInitialized();
  // A list entered or left the collection: resolved, or its status and tunnel removed, at once.
  void handleSegmentList(Mosk::Ptr<SegmentListLifeTimeNotifier const> const& notifier);
  // A segment's resolution changed: queues every list that holds it and schedules the task.
  void handleSegmentStatus(SegmentId segmentId);
  // One slice: resolves queued lists until the task is told to yield; reschedules when work is
  // left.
  void handleTaskRun();
  // Removes every tunnel entry, then every status record.
  void handleDel();

  // Resolves `list` and publishes the outcome: tunnel and status, or their removal.
  void processSegmentList(SegmentList const& list);
  // The next hops of `list`, or null when it does not resolve. A list of more than seven
  // segments raises the stack-index range error.
  Mosk::Ptr<SegmentListResolveResult const> resolveSegmentList(SegmentList const& list) const;
  // The next hops through the adjacency of `resolve`, each pushing `lStack` (bottom first) and,
  // where the adjacency says so, one more label on top; null when there are none.
  Mosk::Ptr<SegmentListResolveResult const> resolveSegmentListWithTopLabel(
      SegmentResolve const& resolve, Ludd::MplsLabelOperation const& lStack,
      Ludd::MplsLabel topLabel) const;
  // Writes the tunnel entry of `list` (allocating a tunnel id for a list without a status) and
  // then its status record.
  void updateSegmentListStatus(SegmentList const& list, MplsViaSet const& viaSet);
  // Writes the whole tunnel entry of `tunnelId` with the vias of `viaSet`.
  void updateTunnelTable(Tunnel::TunnelTable::TunnelId const& tunnelId, MplsViaSet const& viaSet);
  // Removes the tunnel entry of `resolve`, then the record itself.
  void removeSegmentListStatus(SegmentListResolve const& resolve);
  void removeSegmentListStatusById(SegmentListId id);

 private:
  class SegmentListReactor : public NotifyingSegmentListCollection::NotifieeConst {
   public:
    explicit SegmentListReactor(SegmentListSm* sm) : sm_(sm) {}
    void onSegmentListNotifier(
        Mosk::Ptr<SegmentListLifeTimeNotifier const> const& notifier) override {
      sm_->handleSegmentList(notifier);
    }

   private:
    SegmentListSm* const sm_;
  };

  class SegmentStatusReactor : public SegmentStatus::NotifieeConst {
   public:
    explicit SegmentStatusReactor(SegmentListSm* sm) : sm_(sm) {}
    void onStatus(SegmentId const& segmentId) override {
      sm_->handleSegmentStatus(segmentId);
      sm_->statusWatch(segmentId);
    }

   private:
    SegmentListSm* const sm_;
  };

  // Watches one SegmentResolve; an adjacency change is a status change of its segment.
  class StatusReactor : public SegmentResolve::NotifieeConst {
   public:
    StatusReactor(SegmentListSm* sm, SegmentId segmentId) : sm_(sm), segmentId_(segmentId) {}
    void onAdjKey() override { sm_->handleSegmentStatus(segmentId_); }

   private:
    SegmentListSm* const sm_;
    SegmentId const segmentId_;
  };

  class TaskReactor : public Vell::Task::NotifieeConst {
   public:
    explicit TaskReactor(SegmentListSm* sm) : sm_(sm) {}
    void onTaskRun() override { sm_->handleTaskRun(); }

   private:
    SegmentListSm* const sm_;
  };

  // Keeps the watcher of `segmentId` in step with SegmentStatus.
  void statusWatch(SegmentId segmentId);
  // The next hops of `list` into `viaSet` (left empty when the list does not resolve); what
  // resolveSegmentList computes, without a result object.
  void resolveInto(SegmentList const& list, MplsViaSet& viaSet) const;
  // The same for resolveSegmentListWithTopLabel.
  void resolveWithTopLabelInto(SegmentResolve const& resolve,
                               Ludd::MplsLabelOperation const& lStack, Ludd::MplsLabel topLabel,
                               MplsViaSet& viaSet) const;
  // Appends the next hops of the LFIB adjacency `index` to `viaSet`.
  void addAdjacencyVias(U64 index, Ludd::MplsLabelOperation const& lStack,
                        MplsViaSet& viaSet) const;
  // Appends the next hops of the FEC behind external FEC adjacency `index` to `viaSet`; false
  // when the adjacency or its FEC is missing.
  bool addExtFecVias(U64 index, Ludd::MplsLabelOperation const& lStack, Ludd::MplsLabel topLabel,
                     MplsViaSet& viaSet) const;

  Mosk::Ptr<NotifyingSegmentListCollection const> const notifyingSegmentList_;
  Mosk::Ptr<SegmentStatus const> const segmentStatus_;
  Mosk::Ptr<SegmentListStatus> const segmentListStatus_;
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> const tunnelTable_;
  Mosk::Ptr<Vell::TaskScheduler> const scheduler_;
  Mosk::Ptr<Mpls::Status const> const mplsStatus_;
  Mosk::Ptr<SegmentIdToSegmentList const> const segmentIdToSegmentList_;
  Mosk::Ptr<CoreDedupTables const> const coreDedupTables_;
  Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> const tunnelIndexAlloc_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> const forwardingStatus_;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> const forwarding6Status_;

  bool initialized_ = false;
  Mosk::Ptr<Vell::Task> task_;
  using PendingLists = Vell::PendingDrain<Mosk::Ptr<SegmentList const>, SegmentListPtrHash>;
  // Each run starts at the first queued list.
  PendingLists pendingSegmentList_{PendingLists::Resume::atStart};
  Mosk::ReactorMap<SegmentId, StatusReactor> status_;
  Mosk::Ptr<SegmentListReactor> segmentListReactor_;
  Mosk::Ptr<SegmentStatusReactor> segmentStatusReactor_;
  Mosk::Ptr<TaskReactor> taskReactor_;
};

inline Mosk::Ptr<SegmentListSm> segmentListSmFactory(
    Mosk::Ptr<NotifyingSegmentListCollection const> notifyingSegmentList,
    Mosk::Ptr<SegmentStatus const> segmentStatus, Mosk::Ptr<SegmentListStatus> segmentListStatus,
    Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable,
    Mosk::Ptr<Vell::TaskScheduler> scheduler, Mosk::Ptr<Mpls::Status const> mplsStatus,
    Mosk::Ptr<SegmentIdToSegmentList const> segmentIdToSegmentList,
    Mosk::Ptr<CoreDedupTables const> coreDedupTables,
    Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> tunnelIndexAlloc,
    Mosk::Ptr<Skerry::Fib::ForwardingStatus const> forwardingStatus,
    Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> forwarding6Status) {
  return Mosk::Ptr<SegmentListSm>(new SegmentListSm(
      std::move(notifyingSegmentList), std::move(segmentStatus), std::move(segmentListStatus),
      std::move(tunnelTable), std::move(scheduler), std::move(mplsStatus),
      std::move(segmentIdToSegmentList), std::move(coreDedupTables), std::move(tunnelIndexAlloc),
      std::move(forwardingStatus), std::move(forwarding6Status)));
}

}  // namespace SrTePolicy
