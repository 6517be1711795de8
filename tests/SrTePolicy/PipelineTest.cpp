// The whole pipeline, wired by hand from the input tables to the binding-SID LFIB: one policy
// with two candidate paths from two sources, followed through failure, recovery, a binding-SID
// change and the sources going away.
#include <gtest/gtest.h>

#include "MplsHelper/IndexAllocators.h"
#include "SrTePolicy/SrTePolicyExportSms.h"
#include "SrTePolicy/SrTePolicyInputSm.h"
#include "SrTePolicy/SrTePolicyLfibGenSm.h"
#include "SrTePolicy/SrTePolicyPublishSm.h"
#include "SrTePolicy/SrTePolicySegmentListSm.h"
#include "SrTePolicy/SrTePolicySegmentSm.h"
#include "SrTePolicy/SrTePolicySelectionSm.h"
#include "Vell/TimerWheel.h"

using namespace SrTePolicy;
using Ludd::IntfId;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;
using Ludd::MplsLabelOperation;
using Mosk::Ptr;
using Tunnel::TunnelTable::TunnelId;

namespace {

class Pipeline : public ::testing::Test {
 protected:
  Pipeline() {
    core->handleInitialized();
    lfibStatus->lfibIs("bsid");
    inputSm = policyInputSmFactory(input, selectionInput, core, slToPolicy, segToSl, keyToId);
    segmentSm = segmentSmFactory(core->notifyingSegmentCollection(), mpls, segmentStatus, core,
                                 segmentResolverFactory(mpls));
    segmentSm->handleInitialized();
    segmentListSm = segmentListSmFactory(core->notifyingSegmentListCollection(), segmentStatus,
                                         slStatus, tunnels, scheduler, mpls, segToSl, core,
                                         MplsHelper::srTunnelIdxAllocatorFactory(), fwd, fwd6);
    segmentListSm->handleInitialized();
    selectionSm = policySelectionSmFactory(selectionInput, slStatus, slToPolicy, ec, scheduler);
    selectionSm->handleInitialized();
    publishSm = policyPublishSmFactory(ec, scheduler, policyStatus,
                                       Vell::timerWheelFactory(scheduler), fecs);
    lfibGenSm = srTePolicyLfibGenSmFactory(policyStatus, lfibStatus,
                                           MplsHelper::lfibGenAdjIdxAllocatorFactory());
    exportSm = segmentListExportSmFactory(core->notifyingSegmentListCollection(), exported);
  }

  // Routes `label` (source 1) over an adjacency that swaps it for itself towards `nextHop`.
  void routeUp(U32 label, U64 adjIndex, char const* nextHop, U32 intf) {
    Mpls::ViaSet vias{Mpls::Via(IntfId(IntfId::Kind::ethernet, intf), IpGenAddr::parse(nextHop),
                                Ludd::MplsLabelAction::actionSwap, MplsLabel(label))};
    mpls->lfibAdjacencyIs(adjIndex, Mpls::LfibAdjacency(vias));
    mpls->lfibRouteIs(
        Mpls::LFib::Route(Mpls::RouteKey(MplsLabel(label), Mpls::LFib::Source(1)),
                          Mpls::AdjacencyKey(adjIndex, Mpls::AdjacencyKind::adjacency),
                          Mpls::LFib::RouteType::label, Mpls::LFib::Source(1), 0, {}));
  }
  void routeDown(U32 label) {
    mpls->lfibRouteDel(Mpls::RouteKey(MplsLabel(label), Mpls::LFib::Source(1)));
  }
  PolicyInputEntry candidate(PolicySource source, U32 index, U32 preference, U32 bsid,
                             MplsLabelOperation const& stack) {
    PolicyInputEntry e(PolicyId::make(source, index));
    e.endpointIs(key.endpoint());
    e.colorIs(key.color());
    e.preferenceIs(Preference(preference));
    e.bindingSidIs(MplsLabel(bsid));
    e.segmentListPush(WeightedSegList(Weight(1), stack));
    return e;
  }
  // Lets every due task run, then the publish window pass.
  void settle() {
    scheduler->runDue();
    clock->advance(0.1);
    scheduler->runDue();
  }
  Ptr<PolicyEntry const> active() {
    Ptr<Policy const> p = ec->policy(key);
    return p ? p->active() : nullptr;
  }
  TunnelId tunnelOf(U32 policyIndex, PolicySource source) {
    Ptr<PolicyEntry const> a = active();
    EXPECT_TRUE(a);
    EXPECT_EQ(a->priority().id(), PolicyId::make(source, policyIndex).value());
    return a->wSegmentListIter().value().tunnelId();
  }
  // The single via of the published FEC, and the binding-SID route that leads to it.
  TunnelId publishedTunnel(U32 bsid) {
    Ptr<PolicyStatusEntry const> status = policyStatus->status(key);
    EXPECT_TRUE(status);
    if (!status) return TunnelId();
    Fib::Fec const& fec = fecs->fec(status->srTePolicyFecId());
    EXPECT_EQ(fec.viaCount(), 1u);
    Mpls::LFib::Route route =
        lfibStatus->lfib()->lfibRoute(Mpls::RouteKey(MplsLabel(bsid), Mpls::LFib::Source(1)));
    EXPECT_NE(route, Mpls::LFib::Route()) << "no binding-SID route for " << bsid;
    auto adj = lfibStatus->lfib()->lfibExtFecAdjacency(Mpls::Status::getExtFecAdjacency(route));
    EXPECT_TRUE(adj && adj->fecId() == status->srTePolicyFecId());
    return fec.viaCount() ? fec.begin()->tunnelId() : TunnelId();
  }

  PolicyKey key{IpGenAddr::parse("192.0.2.1"), Color(100)};
  Ptr<Vell::ManualClock> clock = Vell::manualClockFactory();
  Ptr<Vell::TaskScheduler> scheduler = Vell::taskSchedulerFactory(clock);
  Ptr<PolicyInputSource> input = policyInputSourceFactory();
  Ptr<PolicySelectionInput> selectionInput = policySelectionInputFactory("input");
  Ptr<CoreDedupTables> core = coreDedupTablesFactory();
  Ptr<SegmentListIdToPolicyMap> slToPolicy = segmentListIdToPolicyMapFactory("slToPolicy");
  Ptr<SegmentIdToSegmentList> segToSl = segmentIdToSegmentListFactory("segToSl");
  Ptr<PolicyKeyToIdMap> keyToId = policyKeyToIdMapFactory("keyToId");
  Ptr<Mpls::Status> mpls = Mpls::statusFactory("lfib");
  Ptr<SegmentStatus> segmentStatus = segmentStatusFactory("segmentStatus");
  Ptr<SegmentListStatus> slStatus = segmentListStatusFactory("slStatus");
  Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnels =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
  Ptr<Skerry::Fib::ForwardingStatus> fwd = Skerry::Fib::forwardingStatusFactory("fwd");
  Ptr<Skerry::Fib6::ForwardingStatus> fwd6 = Skerry::Fib6::forwardingStatusFactory("fwd6");
  Ptr<EcPolicy> ec = ecPolicyFactory("ec");
  Ptr<PolicyStatus> policyStatus = policyStatusFactory("status");
  Ptr<Skerry::Fib::ForwardingStatus> fecs = Skerry::Fib::forwardingStatusFactory("fecs");
  Ptr<SrTePolicyLfibStatus> lfibStatus = srTePolicyLfibStatusFactory("lfibStatus");
  Ptr<Export::SegmentListCollection> exported = Export::segmentListCollectionFactory("export");

  Ptr<PolicyInputSm> inputSm;
  Ptr<SegmentSm> segmentSm;
  Ptr<SegmentListSm> segmentListSm;
  Ptr<PolicySelectionSm> selectionSm;
  Ptr<PolicyPublishSm> publishSm;
  Ptr<SrTePolicyLfibGenSm> lfibGenSm;
  Ptr<SegmentListExportSm> exportSm;
};

TEST_F(Pipeline, TwoSourcesFailureRecoveryBindingSidChangeAndWithdrawal) {
  routeUp(16001, 1, "10.0.0.2", 1);
  routeUp(17001, 2, "10.0.1.2", 2);
  auto bgp = policyInputFactory("bgp");
  auto pcep = policyInputFactory("pcep");
  input->policyInputIs(PolicySource::sourceBgp, bgp);
  input->policyInputIs(PolicySource::sourcePcep, pcep);
  bgp->policyInputEntryIs(
      candidate(PolicySource::sourceBgp, 1, 200, 900001, MplsLabelOperation{16001, 16002, 16003}));
  pcep->policyInputEntryIs(
      candidate(PolicySource::sourcePcep, 1, 100, 900001, MplsLabelOperation{17001, 17002}));
  settle();

  // The better candidate is active and published; its tunnel pushes the stack bottom first.
  TunnelId primary = tunnelOf(1, PolicySource::sourceBgp);
  EXPECT_EQ(ec->policy(key)->candidateCount(), 2u);
  EXPECT_EQ(publishedTunnel(900001), primary);
  auto entry = tunnels->entry(primary);
  ASSERT_TRUE(entry);
  ASSERT_EQ(entry->viaCount(), 1u);
  EXPECT_EQ(entry->begin()->labelOperation(), (MplsLabelOperation{16003, 16002, 16001}));
  EXPECT_EQ(exported->segmentListCount(), 2u);

  // The primary's top label loses its route: the other candidate takes over.
  routeDown(16001);
  settle();
  TunnelId backup = tunnelOf(1, PolicySource::sourcePcep);
  EXPECT_NE(backup, primary);
  EXPECT_EQ(ec->policy(key)->candidateCount(), 1u);
  EXPECT_EQ(publishedTunnel(900001), backup);
  EXPECT_FALSE(tunnels->entry(primary)) << "an unresolved list keeps its tunnel";

  // The route comes back, and so does the first candidate.
  routeUp(16001, 1, "10.0.0.2", 1);
  settle();
  EXPECT_EQ(publishedTunnel(900001), tunnelOf(1, PolicySource::sourceBgp));

  // The binding SID changes: the old route goes, the new one points at the same FEC.
  bgp->policyInputEntryIs(
      candidate(PolicySource::sourceBgp, 1, 200, 900002, MplsLabelOperation{16001, 16002, 16003}));
  settle();
  publishedTunnel(900002);
  EXPECT_EQ(lfibStatus->lfib()->lfibRoute(Mpls::RouteKey(MplsLabel(900001), Mpls::LFib::Source(1))),
            Mpls::LFib::Route());
  EXPECT_EQ(lfibStatus->lfib()->lfibRouteCount(), 1u);

  // The sources go away: every output and the store are empty.
  input->policyInputDelAll();
  settle();
  EXPECT_EQ(ec->policyCount(), 0u);
  EXPECT_EQ(policyStatus->statusCount(), 0u);
  EXPECT_EQ(fecs->fecCount(), 0u);
  EXPECT_EQ(lfibStatus->lfib()->lfibRouteCount(), 0u);
  EXPECT_EQ(lfibStatus->lfib()->lfibExtFecAdjacencyCount(), 0u);
  EXPECT_EQ(tunnels->entryCount(), 0u);
  EXPECT_EQ(slStatus->statusCount(), 0u);
  EXPECT_EQ(segmentStatus->statusCount(), 0u);
  EXPECT_EQ(selectionInput->policyIdEntryCount(), 0u);
  EXPECT_EQ(core->notifyingSegmentListCollection()->segmentListNotifierCount(), 0u);
  EXPECT_EQ(core->notifyingSegmentCollection()->segmentNotifierCount(), 0u);
  EXPECT_EQ(exported->segmentListCount(), 0u);
}

}  // namespace
