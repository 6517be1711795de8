// Hears: NotifyingSegmentListCollection (lists come, change and go), nested.
// Writes: Export::SegmentListCollection.
//
// SegmentListExportSm: mirrors the live segment lists of the policy store
// (NotifyingSegmentListCollection) into Export::SegmentListCollection, where every list is a
// numbered stack of MPLS labels under its SegmentListId, for other agents to read.
//
// A list is written when it appears or is notified again and deleted when it leaves the
// store. Positions at or above a reduced size are not deleted: `size` alone says how many
// entries are valid. At start-up the export is emptied and rebuilt, at teardown emptied.
// Runs synchronously from the store's notifications.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include "SrTePolicy/SrTePolicyDedupTables.h"
#include "SrTePolicy/SrTePolicyExportTypes.h"

namespace SrTePolicy {

class SegmentListExportSm : public StateMachine {
 public:
  // Wires the machine and runs handleInitialized().
  SegmentListExportSm(Mosk::Ptr<NotifyingSegmentListCollection const> slNotifier,
                      Mosk::Ptr<Export::SegmentListCollection> exportedSegmentListColl);
  ~SegmentListExportSm() override;
  Mosk::Name name() const override { return "SegmentListExportSm"; }

  Mosk::Ptr<NotifyingSegmentListCollection const> const& slNotifier() const { return slNotifier_; }
  Mosk::Ptr<Export::SegmentListCollection> const& exportedSegmentListColl() const {
    return exportedSegmentListColl_;
  }
  bool initialized() const { return initialized_; }

  // Empties the export, then exports every list of the store.
  void handleInitialized();
  // Exports every list of the store.
  void handleSegmentList();
  // Exports the list that `notifier` stands for, or deletes its export when the list has left
  // the store. A label segment exports its label, a segment of another known type the no-label
  // value; an invalid segment stops the process, and a seventh position raises the MPLS stack
  // index range error.
  void handleSegmentList(Mosk::Ptr<SegmentListLifeTimeNotifier const> const& notifier);
  // Teardown: empties the export.
  void handleDel();

 private:
  class SegmentListReactor : public NotifyingSegmentListCollection::NotifieeConst {
   public:
    explicit SegmentListReactor(SegmentListExportSm* sm) : sm_(sm) {}
    void onSegmentListNotifier(Mosk::Ptr<SegmentListLifeTimeNotifier const> const& n) override;

   private:
    SegmentListExportSm* const sm_;
  };

  Mosk::Ptr<NotifyingSegmentListCollection const> const slNotifier_;
  Mosk::Ptr<Export::SegmentListCollection> const exportedSegmentListColl_;
  bool initialized_ = false;
  Mosk::Ptr<SegmentListReactor> segmentListReactor_;
};

inline Mosk::Ptr<SegmentListExportSm> segmentListExportSmFactory(
    Mosk::Ptr<NotifyingSegmentListCollection const> slNotifier,
    Mosk::Ptr<Export::SegmentListCollection> exportedSegmentListColl) {
  return Mosk::Ptr<SegmentListExportSm>(
      new SegmentListExportSm(std::move(slNotifier), std::move(exportedSegmentListColl)));
}

}  // namespace SrTePolicy
