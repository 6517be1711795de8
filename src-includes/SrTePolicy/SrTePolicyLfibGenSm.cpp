// SrTePolicyLfibGenSm: qualification of status entries and the break-before-make LFIB writes.
#include "SrTePolicy/SrTePolicyLfibGenSm.h"

#include "Mosk/Reflection.h"

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle traceHandle("SrTePolicyLfibGenSm");
constexpr char kName[] = "SrTePolicyLfibGenSm";

// Binding-SID routes are keyed by the label and this second key field.
Mpls::LFib::Source const kRouteKeySource(1);
Mpls::LFib::Source const kLfibSource(SrTePolicyLfibGenSm::lfibSource);

// The adjacency index behind the route installed now under `bindingSid`: whichever policy's
// entry was installed last under that label (0 when there is no route).
U64 installedAdjacency(Mpls::Status const& lfib, Ludd::MplsLabel bindingSid) {
  return Mpls::Status::getExtFecAdjacency(
      lfib.lfibRoute(Mpls::RouteKey(bindingSid, kRouteKeySource)));
}

Mpls::Status& lfibOf(SrTePolicyLfibStatus& holder) {
  Mpls::Status* lfib = holder.lfib().ptr();
  if (lfib == nullptr) {
    throw Mosk::RangeException("SrTePolicyLfibGenSm: '" + holder.name() +
                               "' holds no LFIB to install binding-SID routes into");
  }
  return *lfib;
}

}  // namespace

SrTePolicyLfibGenSm::SrTePolicyLfibGenSm(Mosk::Ptr<PolicyStatus const> policyStatus,
                                         Mosk::Ptr<SrTePolicyLfibStatus> lfibStatus,
                                         Mosk::Ptr<MplsHelper::LfibGenAdjIdxAllocator> adjIdxAlloc)
    : policyStatus_(required(std::move(policyStatus), kName, "policyStatus")),
      lfibStatus_(required(std::move(lfibStatus), kName, "lfibStatus")),
      adjIdxAlloc_(required(std::move(adjIdxAlloc), kName, "adjIdxAlloc")) {
  lfibOf(*lfibStatus_);
  handleInitialized();
}

SrTePolicyLfibGenSm::~SrTePolicyLfibGenSm() {
  if (!abandoned()) handleDel();
}

std::optional<Ludd::MplsLabel> SrTePolicyLfibGenSm::policyKeyBindingSidMap(
    PolicyKey const& key) const {
  NestedPolicyReactor const* reactor = nestedPolicy_.find(key);
  if (reactor == nullptr || reactor->installed.isNone()) return std::nullopt;
  return reactor->installed;
}

void SrTePolicyLfibGenSm::handleInitialized() {
  Mpls::Status& lfib = lfibOf(*lfibStatus_);
  lfib.lfibRouteDelAll();
  lfib.lfibExtFecAdjacencyDelAll();
  initialized_ = true;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "SrTePolicyLfibGenSm initialized");
  if (!policyStatusReactor_) policyStatusReactor_ = new PolicyStatusReactor(this);
  policyStatusReactor_->notifierIs(policyStatus_);
  for (auto c = policyStatus_->statusIterConst(); c; ++c) {
    handlePolicy(c.key());
    nestedPolicyIs(c.ptr());
  }
}

void SrTePolicyLfibGenSm::handlePolicy(PolicyKey const& key) {
  if (!initialized_) return;
  apply(key, policyStatus_->status(key).ptr(), nestedPolicy_.find(key));
}

SrTePolicyLfibGenSm::NestedPolicyReactor* SrTePolicyLfibGenSm::apply(PolicyKey const& key,
                                                                     PolicyStatusEntry const* entry,
                                                                     NestedPolicyReactor* reactor) {
  SRTE_TRACE2(traceHandle, TraceLevel::detail,
              "Policy: Endpoint: " << key.endpoint() << " Color: " << key.color(),
              "Policy: Endpoint: " << endpointWord(key.endpoint(), 0) << ":"
                                   << endpointWord(key.endpoint(), 1) << " Color: " << key.color());
  bool const qualifies = entry && entry->weightedViaSet() &&
                         entry->weightedViaSet()->weightedViaCount() > 0 &&
                         !entry->bindingSid().isNone();
  bool const isInstalled = reactor != nullptr && !reactor->installed.isNone();
  if (qualifies) {
    Mpls::Status& lfib = lfibOf(*lfibStatus_);
    if (isInstalled) {
      Ludd::MplsLabel const old = reactor->installed;
      U64 const oldAdj = installedAdjacency(lfib, old);
      SRTE_TRACE2(traceHandle, TraceLevel::lfibEntry,
                  "Removing the LFIB entry for policy Endpoint: " << key.endpoint() << " Color: "
                                                                  << key.color() << " BSID: " << old
                                                                  << " Adj ID: " << oldAdj,
                  "Removing the LFIB entry for policy Endpoint: "
                      << endpointWord(key.endpoint(), 0) << ":" << endpointWord(key.endpoint(), 1)
                      << " Color: " << key.color() << " BSID: " << old << " Adj ID: " << oldAdj);
      removeLfibEntry(lfib, old, oldAdj);
    }
    Ludd::MplsLabel const bindingSid = entry->bindingSid();
    U64 const adj = adjIdxAlloc_->getAdjacencyIndex(kLfibSource);
    lfib.lfibExtFecAdjacencyIs(adj, entry->srTePolicyFecId(), Ludd::MplsLabelAction::actionPop);
    lfib.lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey(bindingSid, kRouteKeySource),
                                       Mpls::AdjacencyKey(adj, Mpls::AdjacencyKind::extFec),
                                       Mpls::LFib::RouteType(), kLfibSource, routeMetric_,
                                       Ludd::IpGenPrefix()));
    SRTE_TRACE2(traceHandle, TraceLevel::lfibEntry,
                "Added the LFIB entry for policy Endpoint: "
                    << key.endpoint() << " Color: " << key.color() << " BSID: " << bindingSid
                    << " Adj ID: " << adj,
                "Added the LFIB entry for policy Endpoint: "
                    << endpointWord(key.endpoint(), 0) << ":" << endpointWord(key.endpoint(), 1)
                    << " Color: " << key.color() << " BSID: " << bindingSid << " Adj ID: " << adj);
    // The entry qualifies, so it exists and can carry the key's reactor.
    if (reactor == nullptr) reactor = nestedPolicyIs(Mosk::Ptr<PolicyStatusEntry const>(entry));
    if (!isInstalled) ++installedCount_;
    reactor->installed = bindingSid;
    return reactor;
  }
  if (!isInstalled) return reactor;
  Ludd::MplsLabel const old = reactor->installed;
  Mpls::Status& lfib = lfibOf(*lfibStatus_);
  U64 const oldAdj = installedAdjacency(lfib, old);
  removeLfibEntry(lfib, old, oldAdj);
  reactor->installed = Ludd::MplsLabel::none();
  --installedCount_;
  SRTE_TRACE(traceHandle, TraceLevel::lfibEntry,
             "Policy deleted, Delete LFIB for BSID: " << old << ", release adjId " << oldAdj);
  return reactor;
}

void SrTePolicyLfibGenSm::removeLfibEntry(Mpls::Status& lfib, Ludd::MplsLabel bindingSid, U64 adj) {
  lfib.lfibExtFecAdjacencyDel(adj);
  lfib.lfibRouteDel(Mpls::RouteKey(bindingSid, kRouteKeySource));
  adjIdxAlloc_->releaseAdjacencyIndex(kLfibSource, adj);
}

void SrTePolicyLfibGenSm::handleDel() {
  if (!initialized_) return;
  initialized_ = false;
  SRTE_TRACE(traceHandle, TraceLevel::detail, "SrTePolicyLfibGenSm is to be deleted");
  if (Mpls::Status* lfib = lfibStatus_->lfib().ptr()) {
    lfib->lfibRouteDelAll();
    lfib->lfibExtFecAdjacencyDelAll();
  }
  // The reactors carry the installed binding SIDs: dropping them forgets those with them.
  nestedPolicy_.clear();
  installedCount_ = 0;
}

// Reactors

SrTePolicyLfibGenSm::NestedPolicyReactor* SrTePolicyLfibGenSm::nestedPolicyIs(
    Mosk::Ptr<PolicyStatusEntry const> const& entry) {
  if (!entry) {
    throw Mosk::RangeException(
        Mosk::nullMutatorMessage("nestedPolicy", "SrTePolicy::SrTePolicyLfibGenSm"));
  }
  PolicyKey const& key = entry->key();
  return nestedPolicy_.follow(key, entry, [&] {
    return Mosk::Ptr<NestedPolicyReactor>(new NestedPolicyReactor(this, key));
  });
}

void SrTePolicyLfibGenSm::handleStatus(PolicyKey const& key) {
  Mosk::Ptr<PolicyStatusEntry const> const entry = policyStatus_->status(key);
  NestedPolicyReactor* reactor = nestedPolicy_.find(key);
  if (initialized_) reactor = apply(key, entry.ptr(), reactor);
  if (!entry) {
    nestedPolicy_.erase(key);
  } else if (reactor == nullptr) {
    nestedPolicyIs(entry);
  } else {
    reactor->notifierIs(entry);
  }
}

void SrTePolicyLfibGenSm::handleEntry(NestedPolicyReactor& reactor) {
  if (!initialized_) return;
  Mosk::Ptr<PolicyStatusEntry const> const entry = reactor.notifier();
  // The watched entry is the key's own while the status holds it; otherwise ask the status.
  if (entry && entry->parent() == policyStatus_.ptr()) {
    apply(reactor.key(), entry.ptr(), &reactor);
  } else {
    handlePolicy(reactor.key());
  }
}

// The binding SID and the weighted set are handled as a FEC id change: every one of them
// re-installs the entry.
void SrTePolicyLfibGenSm::NestedPolicyReactor::onBindingSid() {
  onSrTePolicyFecId();
}

void SrTePolicyLfibGenSm::NestedPolicyReactor::onWeightedViaSet() {
  onSrTePolicyFecId();
}

void SrTePolicyLfibGenSm::NestedPolicyReactor::onSrTePolicyFecId() {
  sm_->handleEntry(*this);
}

void SrTePolicyLfibGenSm::PolicyStatusReactor::onStatus(PolicyKey const& key) {
  sm_->handleStatus(key);
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<SrTePolicyLfibGenSm> const machineRecord(
    "SrTePolicy::SrTePolicyLfibGenSm",
    {
        {"handleInitialized", &SrTePolicyLfibGenSm::handleInitialized},
        {"handleDel", &SrTePolicyLfibGenSm::handleDel},
    });
}  // namespace

}  // namespace SrTePolicy
