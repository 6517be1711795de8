// The segment state machine: resolution of live segments into SegmentStatus entries.

#include "SrTePolicy/SrTePolicySegmentSm.h"

#include "Mosk/Reflection.h"

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {
Flicker::TraceHandle traceHandle("SrTePolicySegmentSm");
constexpr char kName[] = "SegmentSm";
}  // namespace

SegmentSm::SegmentSm(Mosk::Ptr<NotifyingSegmentCollection const> notifyingSegment,
                     Mosk::Ptr<Mpls::Status const> mplsStatus,
                     Mosk::Ptr<SegmentStatus> segmentStatus,
                     Mosk::Ptr<CoreDedupTables const> coreDedupTables,
                     Mosk::Ptr<SegmentResolver const> segmentResolver)
    : notifyingSegment_(required(std::move(notifyingSegment), kName, "notifyingSegment")),
      mplsStatus_(required(std::move(mplsStatus), kName, "mplsStatus")),
      segmentStatus_(required(std::move(segmentStatus), kName, "segmentStatus")),
      coreDedupTables_(required(std::move(coreDedupTables), kName, "coreDedupTables")),
      segmentResolver_(required(std::move(segmentResolver), kName, "segmentResolver")) {
  segmentReactor_ = new SegmentReactor(this);
  segmentReactor_->notifierIs(notifyingSegment_);
  mplsStatusReactor_ = new MplsStatusReactor(this);
  mplsStatusReactor_->notifierIs(mplsStatus_);
}

SegmentSm::~SegmentSm() {
  if (!abandoned()) handleDel();
}

void SegmentSm::handleInitialized() {
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "handleInitialized");
  initialized_ = true;
  handleLFibRoute();
}

void SegmentSm::handleDel() {
  if (!initialized_) return;
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "handleDel");
  initialized_ = false;
}

void SegmentSm::handleSegment(Mosk::Ptr<SegmentLifeTimeNotifier const> const& notifier) {
  if (!initialized_) return;
  // Raw: the segment may be on its way out of the dedup table, where taking a reference is a
  // fault.
  SegmentBase const* segment = notifier->segmentRawPtr();
  SegmentId id = segment->segmentId();
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "handleSegment segment: " << id);
  if (notifyingSegment_->segmentNotifier(notifier)) {
    resolveAndUpdateSegmentStatus(*segment);
    return;
  }
  SRTE_TRACE2(traceHandle, TraceLevel::resolution, "Deleting Segment", "Deleting segment");
  segmentStatus_->statusDel(id);
}

void SegmentSm::resolveAndUpdateSegmentStatus(SegmentBase const& segment) {
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "resolveAndUpdateSegmentStatus");
  updateSegmentStatus(segment, segment.resolveSegment(*segmentResolver_));
}

void SegmentSm::updateSegmentStatus(SegmentBase const& segment,
                                    Mosk::Ptr<SegmentResolveResult const> const& result) {
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "updateSegmentStatus");
  SegmentId id = segment.segmentId();
  if (!result) {
    segmentStatus_->statusDel(id);
    return;
  }
  if (Mosk::Ptr<SegmentResolve> existing = segmentStatus_->status(id)) {
    existing->adjKeyIs(result->adjKey());
    return;
  }
  segmentStatus_->statusIs(segmentResolveFactory(id, result->adjKey()));
}

void SegmentSm::handleLFibRoute(Mpls::RouteKey const& key) {
  if (!initialized_) return;
  SRTE_TRACE2(
      traceHandle, TraceLevel::resolution, "handleLFibRoute " << key,
      "handleLFibRoute label " << key.topLabel().value() << " source " << key.source().value());
  Mosk::Ptr<SegmentMplsLabel const> segment =
      coreDedupTables_->segDedupTablePtr()->lookupByLabel(key.topLabel());
  if (!segment) return;
  Mpls::LFib::Route route = mplsStatus_->lfibRoute(key);
  if (route == Mpls::LFib::Route()) {
    segmentStatus_->statusDel(segment->segmentId());
    return;
  }
  updateSegmentStatus(*segment, segment->resolveSegmentOnLFib(*segmentResolver_, route));
}

void SegmentSm::handleLFibRoute() {
  if (!initialized_) return;
  SRTE_TRACE(traceHandle, TraceLevel::resolution, "handleLFibRoute");
  for (auto c = notifyingSegment_->segmentNotifierIter(); c; ++c) {
    // Entries listed with the flag false are not live segments.
    if (!c.value()) continue;
    resolveAndUpdateSegmentStatus(*c.key()->segmentRawPtr());
  }
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<SegmentSm> const machineRecord(
    "SrTePolicy::SegmentSm", {
                                 {"handleInitialized", &SegmentSm::handleInitialized},
                                 {"handleLFibRoute", &SegmentSm::handleLFibRoute},
                                 {"handleDel", &SegmentSm::handleDel},
                             });
}  // namespace

}  // namespace SrTePolicy
