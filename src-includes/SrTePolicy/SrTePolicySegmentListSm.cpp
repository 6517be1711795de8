// The segment-list state machine: resolution of segment lists into tunnel entries and
// SegmentListResolve records.

#include "SrTePolicy/SrTePolicySegmentListSm.h"

#include "Flicker/Flicker.h"
#include "Mosk/Reflection.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

using Tunnel::TunnelTable::MplsVia;
using Tunnel::TunnelTable::TunnelId;

namespace {

Flicker::TraceHandle traceHandle("SrTePolicySegmentListSm");

constexpr char kName[] = "SegmentListSm";
constexpr U32 kTaskPriority = 2;
// The adjacency types of a FecId that name IPv4 and IPv6 FECs.
constexpr U64 kAdjTypeIpv4 = 0;
constexpr U64 kAdjTypeIpv6 = 1;

// The label of segment `i`, range-checked as a stack position: a list never holds more
// segments than a stack has positions.
Ludd::MplsLabel labelAt(SegmentList const& list, U32 i) {
  return list.segmentLabel(Ludd::MplsStackEntryIndex(i).value());
}

// Appends one via per next hop of `fec`, each with `lStack` and, when `pushTop`, `topLabel`
// on top. Via positions run from 1 to 512.
template <class Fec>
void addFecVias(Fec const& fec, Ludd::MplsLabelOperation const& lStack, bool pushTop,
                Ludd::MplsLabel topLabel, MplsViaSet& viaSet) {
  for (U32 i = 1; i <= fec.viaCount(); ++i) {
    ::Fib::Via const& via = fec.via(::Fib::ViaIndex(i));
    Ludd::MplsLabelOperation op = lStack;
    if (pushTop) op.push(topLabel);
    if (op.size() == 0) continue;
    viaSet.newVia(MplsVia(via.nextHop(), via.intf(), op));
  }
}

}  // namespace

SegmentListSm::SegmentListSm(Mosk::Ptr<NotifyingSegmentListCollection const> notifyingSegmentList,
                             Mosk::Ptr<SegmentStatus const> segmentStatus,
                             Mosk::Ptr<SegmentListStatus> segmentListStatus,
                             Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable,
                             Mosk::Ptr<Vell::TaskScheduler> scheduler,
                             Mosk::Ptr<Mpls::Status const> mplsStatus,
                             Mosk::Ptr<SegmentIdToSegmentList const> segmentIdToSegmentList,
                             Mosk::Ptr<CoreDedupTables const> coreDedupTables,
                             Mosk::Ptr<MplsHelper::SrTunnelIdxAllocator> tunnelIndexAlloc,
                             Mosk::Ptr<Skerry::Fib::ForwardingStatus const> forwardingStatus,
                             Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> forwarding6Status)
    : notifyingSegmentList_(
          required(std::move(notifyingSegmentList), kName, "notifyingSegmentList")),
      segmentStatus_(required(std::move(segmentStatus), kName, "segmentStatus")),
      segmentListStatus_(required(std::move(segmentListStatus), kName, "segmentListStatus")),
      tunnelTable_(required(std::move(tunnelTable), kName, "tunnelTable")),
      scheduler_(required(std::move(scheduler), kName, "scheduler")),
      mplsStatus_(required(std::move(mplsStatus), kName, "mplsStatus")),
      segmentIdToSegmentList_(
          required(std::move(segmentIdToSegmentList), kName, "segmentIdToSegmentList")),
      coreDedupTables_(required(std::move(coreDedupTables), kName, "coreDedupTables")),
      tunnelIndexAlloc_(required(std::move(tunnelIndexAlloc), kName, "tunnelIndexAlloc")),
      forwardingStatus_(required(std::move(forwardingStatus), kName, "forwardingStatus")),
      forwarding6Status_(required(std::move(forwarding6Status), kName, "forwarding6Status")) {
  segmentListReactor_ = new SegmentListReactor(this);
  segmentListReactor_->notifierIs(notifyingSegmentList_);
  segmentStatusReactor_ = new SegmentStatusReactor(this);
  segmentStatusReactor_->notifierIs(segmentStatus_);
}

SegmentListSm::~SegmentListSm() {
  if (!abandoned()) handleDel();
}

// The status watchers.

void SegmentListSm::statusIs(SegmentId segmentId, Mosk::Ptr<SegmentResolve const> const& resolve) {
  if (!resolve) {
    throw Mosk::RangeException(Mosk::nullMutatorMessage("status", "SrTePolicy::SegmentListSm"));
  }
  // The entry may also have been replaced by another object of the same key.
  status_.follow(segmentId, resolve,
                 [&] { return Mosk::Ptr<StatusReactor>(new StatusReactor(this, segmentId)); });
}

void SegmentListSm::statusDel(SegmentId segmentId) {
  status_.erase(segmentId);
}

void SegmentListSm::statusDelAll() {
  status_.clear();
}

Mosk::Ptr<SegmentResolve const> SegmentListSm::status(SegmentId segmentId) const {
  StatusReactor const* watcher = status_.find(segmentId);
  return watcher ? watcher->notifier() : nullptr;
}

void SegmentListSm::statusWatch(SegmentId segmentId) {
  if (!initialized_) return;
  if (Mosk::Ptr<SegmentResolve const> resolve = segmentStatus_->status(segmentId)) {
    statusIs(segmentId, resolve);
  } else {
    statusDel(segmentId);
  }
}

// Handlers.

void SegmentListSm::handleInitialized() {
  if (initialized_) return;
  initialized_ = true;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleInitialized");
  tunnelTable_->entryDelAll();
  segmentListStatus_->statusDelAll();
  task_ = Vell::taskFactory(scheduler_, Vell::TaskPriority(kTaskPriority), "SegmentListSm");
  taskReactor_ = new TaskReactor(this);
  taskReactor_->notifierIs(task_);
  for (auto c = notifyingSegmentList_->segmentListNotifierIter(); c; ++c) {
    if (!c.value()) continue;
    pendingSegmentList_.add(Mosk::Ptr<SegmentList const>(c.key()->segmentListRawPtr()));
  }
  for (auto c = segmentStatus_->statusIterConst(); c; ++c)
    statusIs(c.key(), c.ptr());
  pendingSegmentList_.scheduleIfPending(*task_);
}

void SegmentListSm::handleSegmentList(
    Mosk::Ptr<SegmentListLifeTimeNotifier const> const& notifier) {
  if (!initialized_) return;
  // Raw: a list that is leaving the dedup table must not be referenced again.
  SegmentList const* list = notifier->segmentListRawPtr();
  SegmentListId id = list->segmentListId();
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleSegmentList for segmentList: " << id);
  if (!notifyingSegmentList_->segmentListNotifier(notifier)) {
    removeSegmentListStatusById(id);
    return;
  }
  processSegmentList(*list);
}

void SegmentListSm::handleSegmentStatus(SegmentId segmentId) {
  if (!initialized_) return;
  SRTE_TRACE2(traceHandle, TraceLevel::detail, " SegmentId : " << segmentId,
              "handleSegmentStatus segmentId : " << segmentId);
  Mosk::Ptr<SegmentListCollection> lists = segmentIdToSegmentList_->segmentList(segmentId);
  if (!lists) return;
  for (auto c = lists->segmentListPtrIter(); c; ++c)
    pendingSegmentList_.add(c.key());
  pendingSegmentList_.scheduleIfPending(*task_);
}

void SegmentListSm::handleTaskRun() {
  if (!initialized_) return;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleTaskRun");
  auto const slice = pendingSegmentList_.drain(*task_, [this](Mosk::Ptr<SegmentList const> list) {
    if (list->segmentListLifeTimeNotifier() != nullptr) {
      processSegmentList(*list);
    } else {
      // The list left the collection (its dedup table stopped) while it was queued.
      removeSegmentListStatusById(list->segmentListId());
    }
  });
  SRTE_TRACE2(traceHandle, TraceLevel::detail, " Processed " << slice.count << " Segment Lists ",
              "Processed " << slice.count);
}

void SegmentListSm::handleDel() {
  if (!initialized_) return;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "handleDel");
  tunnelTable_->entryDelAll();
  segmentListStatus_->statusDelAll();
  initialized_ = false;
  if (task_) task_->unscheduleTask();
  // Dropping the queue may let lists leave the dedup table; the handlers ignore that now.
  pendingSegmentList_.clear();
  statusDelAll();
}

// Resolution and publication.

void SegmentListSm::processSegmentList(SegmentList const& list) {
  SegmentListId id = list.segmentListId();
  SRTE_TRACE(traceHandle, TraceLevel::detail, "processSegmentList for SlId:" << id);
  // The next hops stay on the stack: a result object would only carry them to the next line.
  MplsViaSet viaSet;
  resolveInto(list, viaSet);
  if (!viaSet.empty()) {
    SRTE_TRACE(traceHandle, TraceLevel::event, "Update the Segment List Status for SlId:" << id);
    updateSegmentListStatus(list, viaSet);
    return;
  }
  SRTE_TRACE(traceHandle, TraceLevel::event, "Remove the Segment List Status for SlId:" << id);
  removeSegmentListStatusById(id);
}

Mosk::Ptr<SegmentListResolveResult const> SegmentListSm::resolveSegmentList(
    SegmentList const& list) const {
  MplsViaSet viaSet;
  resolveInto(list, viaSet);
  if (viaSet.empty()) return nullptr;
  return segmentListResolveResultFactory(viaSet);
}

void SegmentListSm::resolveInto(SegmentList const& list, MplsViaSet& viaSet) const {
  U32 n = list.size();
  if (n == 0) return;
  // The labels below the top one, bottom first: the last segment at position 0.
  Ludd::MplsLabelOperation lStack;
  for (U32 i = 0; i + 1 < n; ++i) {
    Ludd::MplsLabel label = labelAt(list, n - 1 - i);
    lStack.labelIs(Ludd::MplsStackEntryIndex(i), label);
  }
  Mosk::Ptr<SegmentResolve const> resolve = segmentStatus_->status(list.getSegmentId(0));
  if (!resolve) return;
  lStack.sizeIs(n - 1);
  resolveWithTopLabelInto(*resolve, lStack, list.segmentLabel(0), viaSet);
}

Mosk::Ptr<SegmentListResolveResult const> SegmentListSm::resolveSegmentListWithTopLabel(
    SegmentResolve const& resolve, Ludd::MplsLabelOperation const& lStack,
    Ludd::MplsLabel topLabel) const {
  MplsViaSet viaSet;
  resolveWithTopLabelInto(resolve, lStack, topLabel, viaSet);
  if (viaSet.empty()) return nullptr;
  return segmentListResolveResultFactory(viaSet);
}

void SegmentListSm::resolveWithTopLabelInto(SegmentResolve const& resolve,
                                            Ludd::MplsLabelOperation const& lStack,
                                            Ludd::MplsLabel topLabel, MplsViaSet& viaSet) const {
  Mpls::AdjacencyKey const& adjKey = resolve.adjKey();
  if (adjKey.kind() == Mpls::AdjacencyKind::extFec) {
    // A missing adjacency or FEC resolves nothing, whatever was gathered.
    if (!addExtFecVias(adjKey.index(), lStack, topLabel, viaSet)) viaSet.viaDelAll();
  } else {
    addAdjacencyVias(adjKey.index(), lStack, viaSet);
  }
}

void SegmentListSm::addAdjacencyVias(U64 index, Ludd::MplsLabelOperation const& lStack,
                                     MplsViaSet& viaSet) const {
  // Read in place: a copy would allocate the adjacency's via set for every list resolved.
  Mpls::LfibAdjacency const* adjacency = mplsStatus_->lfibAdjacencyFind(index);
  if (adjacency == nullptr) return;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "No of Adjacency " << adjacency->via().viaCount());
  for (Mpls::Via const& via : adjacency->via()) {
    Ludd::MplsLabelOperation op = lStack;
    if (via.labelAction() == Ludd::MplsLabelAction::actionSwap) op.push(via.outLabel());
    if (op.size() == 0) continue;
    SRTE_TRACE2(traceHandle, TraceLevel::detail,
                "Adjacency ViaSet label " << via.outLabel() << " nexthop " << via.nextHop(),
                "Adjacency ViaSet label " << via.outLabel());
    viaSet.newVia(MplsVia(via.nextHop(), via.intf(), op));
  }
}

bool SegmentListSm::addExtFecVias(U64 index, Ludd::MplsLabelOperation const& lStack,
                                  Ludd::MplsLabel topLabel, MplsViaSet& viaSet) const {
  std::optional<Mpls::ExtFecAdjacency> adjExt = mplsStatus_->lfibExtFecAdjacency(index);
  if (!adjExt) {
    SRTE_TRACE(traceHandle, TraceLevel::skip, "adjExt not found, returning NULL");
    return false;
  }
  ::Fib::FecId const& fecId = adjExt->fecId();
  U64 adjType = fecId >> ::Fib::adjTypePos();
  MOSK_ASSERT_MSG(adjType < ::Fib::adjTypeMax(),
                  "(value_ >> Fib::adjTypePos()) < Fib::adjTypeMax()");
  bool pushTop = adjExt->labelAction() == Ludd::MplsLabelAction::actionForward;
  static ::Fib::Fec const emptyFec;
  if (adjType == kAdjTypeIpv4) {
    ::Fib::Fec const& fec = forwardingStatus_->fec(fecId);
    if (fec == emptyFec) return false;
    addFecVias(fec, lStack, pushTop, topLabel, viaSet);
  } else if (adjType == kAdjTypeIpv6) {
    ::Fib::Fec const& fec = forwarding6Status_->fec(fecId);
    if (fec == emptyFec) return false;
    addFecVias(fec, lStack, pushTop, topLabel, viaSet);
  }
  return true;
}

void SegmentListSm::updateSegmentListStatus(SegmentList const& list, MplsViaSet const& viaSet) {
  SegmentListId id = list.segmentListId();
  if (Mosk::Ptr<SegmentListResolve> existing = segmentListStatus_->status(id)) {
    SRTE_TRACE2(traceHandle, TraceLevel::event,
                "Update existing status for SegmentList [" << id << "]",
                "Update existing status for SegmentList: " << id);
    updateTunnelTable(existing->tunnelId(), viaSet);
    return;
  }
  SRTE_TRACE2(traceHandle, TraceLevel::event, "Add new status for SegmentList [" << id << "]",
              "Add new status for SegmentList: " << id);
  TunnelId tunnelId = TunnelId::convertToTunnelValue(
      Tunnel::TunnelTable::TunnelType::srTeSegmentList, tunnelIndexAlloc_->getIdx());
  updateTunnelTable(tunnelId, viaSet);
  segmentListStatus_->statusIs(id, tunnelId);
}

void SegmentListSm::updateTunnelTable(TunnelId const& tunnelId, MplsViaSet const& viaSet) {
  SRTE_TRACE2(traceHandle, TraceLevel::event,
              "Update Tunnel Table TID " << tunnelId << " With " << viaSet.viaCount() << " vias",
              "Update Tunnel Table TID: " << tunnelId);
  Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry entry(tunnelId);
  entry.viaReserve(viaSet.viaCount());
  for (MplsVia const& via : viaSet)
    entry.newVia(via);
  tunnelTable_->entryIs(std::move(entry));
}

void SegmentListSm::removeSegmentListStatusById(SegmentListId id) {
  SRTE_TRACE(traceHandle, TraceLevel::detail, "removeSegmentListStatusById for id: " << id);
  if (Mosk::Ptr<SegmentListResolve> resolve = segmentListStatus_->status(id)) {
    removeSegmentListStatus(*resolve);
  }
}

void SegmentListSm::removeSegmentListStatus(SegmentListResolve const& resolve) {
  SegmentListId id = resolve.segmentListId();
  tunnelTable_->entryDel(resolve.tunnelId());
  segmentListStatus_->statusDel(id);
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<SegmentListSm> const machineRecord(
    "SrTePolicy::SegmentListSm", {
                                     {"handleInitialized", &SegmentListSm::handleInitialized},
                                     {"handleTaskRun", &SegmentListSm::handleTaskRun},
                                     {"handleDel", &SegmentListSm::handleDel},
                                 });
}  // namespace

}  // namespace SrTePolicy
