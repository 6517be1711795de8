// Hears: NotifyingSegmentCollection (segments come and go) and the LFIB routes, nested.
// Writes: SegmentStatus, one SegmentResolve per resolved segment.
//
// The segment state machine: keeps SegmentStatus true for every live segment.
//
// For every segment listed in the NotifyingSegmentCollection whose label resolves in the MPLS
// LFIB, SegmentStatus holds one SegmentResolve with the adjacency key of the chosen route; a
// segment that does not resolve has no entry. The machine reacts to segments appearing and
// leaving the collection and to LFIB routes changing. A segment's entry object is kept while
// the segment stays resolved: an adjacency change only rewrites its adjKey, so the watchers
// of the segment-list stage see onAdjKey rather than a delete and an insert.
//
// Two ways of judging a segment:
// - the full pass (handleLFibRoute() and a segment notification) tries every route source of
//   the label and takes the lowest usable one;
// - the incremental path (handleLFibRoute(key)) judges only the one route that changed: a
//   removed or skipped route deletes the segment's entry even when another source still has a
//   route for the label, and a newly usable route of any source replaces the adjacency. The
//   next full pass or segment notification applies the lowest-source rule again.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include "Mosk/Entity.h"
#include "SrTePolicy/SrTePolicyDedupTables.h"
#include "SrTePolicy/SrTePolicySegmentResolver.h"
#include "SrTePolicy/SrTePolicySegmentStatus.h"

namespace SrTePolicy {

class SegmentSm : public StateMachine {
 public:
  SegmentSm(Mosk::Ptr<NotifyingSegmentCollection const> notifyingSegment,
            Mosk::Ptr<Mpls::Status const> mplsStatus, Mosk::Ptr<SegmentStatus> segmentStatus,
            Mosk::Ptr<CoreDedupTables const> coreDedupTables,
            Mosk::Ptr<SegmentResolver const> segmentResolver);
  ~SegmentSm() override;
  Mosk::Name name() const override { return "SegmentSm"; }

  Mosk::Ptr<NotifyingSegmentCollection const> const& notifyingSegment() const {
    return notifyingSegment_;
  }
  Mosk::Ptr<Mpls::Status const> const& mplsStatus() const { return mplsStatus_; }
  Mosk::Ptr<SegmentStatus> const& segmentStatus() const { return segmentStatus_; }
  Mosk::Ptr<CoreDedupTables const> const& coreDedupTables() const { return coreDedupTables_; }
  Mosk::Ptr<SegmentResolver const> const& segmentResolver() const { return segmentResolver_; }
  bool initialized() const { return initialized_; }

  // Starts handling notifications and resolves every live segment (a full pass). Until it has
  // run, every handler returns at once.
  void handleInitialized();
  // A segment entered or left the collection: resolves it over every route source, or deletes
  // its entry when it is gone.
  void handleSegment(Mosk::Ptr<SegmentLifeTimeNotifier const> const& notifier);
  // One LFIB route changed: judges that route alone for the segment of its label, if any.
  void handleLFibRoute(Mpls::RouteKey const& key);
  // The LFIB changed as a whole: re-resolves every live segment over every route source.
  void handleLFibRoute();
  // Stops handling notifications. SegmentStatus is left as it is: a successor's full pass
  // rewrites it.
  void handleDel();

  // Resolves `segment` over every route source and writes the outcome.
  void resolveAndUpdateSegmentStatus(SegmentBase const& segment);
  // Writes one outcome: null deletes the entry, a result inserts one or rewrites its adjKey.
  void updateSegmentStatus(SegmentBase const& segment,
                           Mosk::Ptr<SegmentResolveResult const> const& result);

 private:
  class SegmentReactor : public NotifyingSegmentCollection::NotifieeConst {
   public:
    explicit SegmentReactor(SegmentSm* sm) : sm_(sm) {}
    void onSegmentNotifier(Mosk::Ptr<SegmentLifeTimeNotifier const> const& notifier) override {
      sm_->handleSegment(notifier);
    }

   private:
    SegmentSm* const sm_;
  };

  class MplsStatusReactor : public Mpls::Status::NotifieeConst {
   public:
    explicit MplsStatusReactor(SegmentSm* sm) : sm_(sm) {}
    void onLfibRoute(Mpls::RouteKey const& key) override { sm_->handleLFibRoute(key); }
    void onLfibRoute() override { sm_->handleLFibRoute(); }

   private:
    SegmentSm* const sm_;
  };

  Mosk::Ptr<NotifyingSegmentCollection const> const notifyingSegment_;
  Mosk::Ptr<Mpls::Status const> const mplsStatus_;
  Mosk::Ptr<SegmentStatus> const segmentStatus_;
  Mosk::Ptr<CoreDedupTables const> const coreDedupTables_;
  Mosk::Ptr<SegmentResolver const> const segmentResolver_;
  bool initialized_ = false;
  Mosk::Ptr<SegmentReactor> segmentReactor_;
  Mosk::Ptr<MplsStatusReactor> mplsStatusReactor_;
};

inline Mosk::Ptr<SegmentSm> segmentSmFactory(
    Mosk::Ptr<NotifyingSegmentCollection const> notifyingSegment,
    Mosk::Ptr<Mpls::Status const> mplsStatus, Mosk::Ptr<SegmentStatus> segmentStatus,
    Mosk::Ptr<CoreDedupTables const> coreDedupTables,
    Mosk::Ptr<SegmentResolver const> segmentResolver) {
  return Mosk::Ptr<SegmentSm>(new SegmentSm(std::move(notifyingSegment), std::move(mplsStatus),
                                            std::move(segmentStatus), std::move(coreDedupTables),
                                            std::move(segmentResolver)));
}

}  // namespace SrTePolicy
