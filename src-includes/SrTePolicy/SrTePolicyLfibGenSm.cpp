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
  Ludd::MplsLabel const* installed = policyKeyBindingSidMap_.find(key);
  return installed ? std::optional<Ludd::MplsLabel>(*installed) : std::nullopt;
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
  SRTE_TRACE2(traceHandle, TraceLevel::detail,
              "Policy: Endpoint: " << key.endpoint() << " Color: " << key.color(),
              "Policy: Endpoint: " << endpointWord(key.endpoint(), 0) << ":"
                                   << endpointWord(key.endpoint(), 1) << " Color: " << key.color());
  Mosk::Ptr<PolicyStatusEntry const> const entry = policyStatus_->status(key);
  bool const qualifies = entry && entry->weightedViaSet() &&
                         entry->weightedViaSet()->weightedViaCount() > 0 &&
                         !entry->bindingSid().isNone();
  Ludd::MplsLabel const* installed = policyKeyBindingSidMap_.find(key);
  if (qualifies) {
    Mpls::Status& lfib = lfibOf(*lfibStatus_);
    if (installed != nullptr) {
      Ludd::MplsLabel const old = *installed;
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
    policyKeyBindingSidMap_.set(key, bindingSid);
    return;
  }
  if (installed == nullptr) return;
  Ludd::MplsLabel const old = *installed;
  Mpls::Status& lfib = lfibOf(*lfibStatus_);
  U64 const oldAdj = installedAdjacency(lfib, old);
  removeLfibEntry(lfib, old, oldAdj);
  policyKeyBindingSidMap_.erase(key);
  SRTE_TRACE(traceHandle, TraceLevel::lfibEntry,
             "Policy deleted, Delete LFIB for BSID: " << old << ", release adjId " << oldAdj);
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
  policyKeyBindingSidMap_.clear();
}

// Reactors

void SrTePolicyLfibGenSm::nestedPolicyIs(Mosk::Ptr<PolicyStatusEntry const> const& entry) {
  if (!entry) {
    throw Mosk::RangeException(
        Mosk::nullMutatorMessage("nestedPolicy", "SrTePolicy::SrTePolicyLfibGenSm"));
  }
  PolicyKey const& key = entry->key();
  nestedPolicy_.follow(key, entry, [&] {
    return Mosk::Ptr<NestedPolicyReactor>(new NestedPolicyReactor(this, key));
  });
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
  sm_->handlePolicy(key_);
}

void SrTePolicyLfibGenSm::PolicyStatusReactor::onStatus(PolicyKey const& key) {
  sm_->handlePolicy(key);
  if (Mosk::Ptr<PolicyStatusEntry const> const entry = sm_->policyStatus_->status(key)) {
    sm_->nestedPolicyIs(entry);
  } else {
    sm_->nestedPolicy_.erase(key);
  }
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
