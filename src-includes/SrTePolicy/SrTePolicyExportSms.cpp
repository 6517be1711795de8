// SegmentListExportSm: one exported label stack per live segment list.
#include "SrTePolicy/SrTePolicyExportSms.h"

#include "Mosk/Reflection.h"

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle traceHandle("SrTePolicyExport");

// The label that stands for `segment` in an export.
Ludd::MplsLabel exportedLabel(SegmentBase const* segment) {
  if (segment == nullptr) return Ludd::MplsLabel();
  SegmentType const type = segment->type();
  MOSK_ASSERT_MSG(type != SegmentType::invalid, "Unsupported segment type");
  if (type == SegmentType::segMplsLabel) {
    return static_cast<SegmentMplsLabel const*>(segment)->label();
  }
  return Ludd::MplsLabel();
}

}  // namespace

SegmentListExportSm::SegmentListExportSm(
    Mosk::Ptr<NotifyingSegmentListCollection const> slNotifier,
    Mosk::Ptr<Export::SegmentListCollection> exportedSegmentListColl)
    : slNotifier_(required(std::move(slNotifier), "SegmentListExportSm", "slNotifier")),
      exportedSegmentListColl_(required(std::move(exportedSegmentListColl), "SegmentListExportSm",
                                        "exportedSegmentListColl")) {
  handleInitialized();
}

SegmentListExportSm::~SegmentListExportSm() {
  if (!abandoned()) handleDel();
}

void SegmentListExportSm::handleInitialized() {
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleInitialized");
  initialized_ = true;
  exportedSegmentListColl_->segmentListDelAll();
  if (!segmentListReactor_) segmentListReactor_ = new SegmentListReactor(this);
  segmentListReactor_->notifierIs(slNotifier_);
  handleSegmentList();
}

void SegmentListExportSm::handleSegmentList() {
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleSegmentList");
  for (auto c = slNotifier_->segmentListNotifierIter(); c; ++c) {
    handleSegmentList(c.key());
  }
}

void SegmentListExportSm::handleSegmentList(
    Mosk::Ptr<SegmentListLifeTimeNotifier const> const& notifier) {
  if (!initialized_) return;
  // Raw access only: a list that is leaving the store may not be referenced again.
  SegmentList const* list = notifier->segmentListRawPtr();
  SegmentListId const slId = list->segmentListId();
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleSegmentList for slId: " << slId);
  if (!slNotifier_->segmentListNotifier(notifier)) {
    SRTE_TRACE(traceHandle, TraceLevel::detail, "Deleting segmentList");
    exportedSegmentListColl_->segmentListDel(slId);
    return;
  }
  Mosk::Ptr<Export::SegmentList> const out = exportedSegmentListColl_->segmentListIs(slId);
  U8 const size = list->size();
  out->sizeIs(size);
  for (U32 i = 0; i < size; ++i) {
    Ludd::MplsStackEntryIndex const index(i);  // a seventh position raises the range error
    out->segmentIs(index, Export::Segment(exportedLabel(list->segment(index).ptr())));
  }
}

void SegmentListExportSm::handleDel() {
  if (!initialized_) return;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleDel");
  initialized_ = false;
  exportedSegmentListColl_->segmentListDelAll();
}

void SegmentListExportSm::SegmentListReactor::onSegmentListNotifier(
    Mosk::Ptr<SegmentListLifeTimeNotifier const> const& n) {
  sm_->handleSegmentList(n);
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<SegmentListExportSm> const machineRecord(
    "SrTePolicy::SegmentListExportSm",
    {
        {"handleInitialized", &SegmentListExportSm::handleInitialized},
        {"handleSegmentList", &SegmentListExportSm::handleSegmentList},
        {"handleDel", &SegmentListExportSm::handleDel},
    });
}  // namespace

}  // namespace SrTePolicy
