// The models other processes mount (selection input, endpoint-color policies, published status,
// configuration): their keyed collections and their replication. (The values' log forms:
// SrTePolicyTypesTest.)
#include <gtest/gtest.h>

#include "Mosk/Reflection.h"
#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicy.h"
#include "SrTePolicy/SrTePolicyEntry.h"
#include "SrTePolicy/SrTePolicyExportTypes.h"
#include "SrTePolicy/SrTePolicySegmentListStatus.h"
#include "SrTePolicy/SrTePolicyStatic.h"
#include "SrTePolicy/SrTePolicyStatus.h"

using namespace SrTePolicy;
using Ludd::IpAddr;
using Ludd::IpGenAddr;
using Ludd::MplsLabel;

namespace {

PolicyKey key(U32 color) {
  return PolicyKey(IpGenAddr(IpAddr::fromU32(0x0a000001)), Color(color));
}

// Catches candidate paths walked in insertion or hash order (100, 200, 10, 150), a re-set
// segment list that adds a second entry, a missing no-label default, and a binding-SID index
// keyed by the whole value (a re-pointed SID would add an entry).
TEST(StaticConfig, CandidatesAscendAndListsAndSidsAreKeyedByTheirKeyAlone) {
  auto config = configFactory("static");
  auto policy = config->policyIs(key(7));
  for (U32 pref : {200u, 10u, 150u, 100u})
    policy->candidatePathIs(Preference(pref));
  std::vector<U32> order;
  for (auto it = policy->candidatePathIterConst(); it; ++it)
    order.push_back(it.key().value());
  EXPECT_EQ(order, (std::vector<U32>{10, 100, 150, 200}));
  auto path = policy->candidatePath(Preference(150));
  EXPECT_TRUE(path->bindingSid().isNone() && policy->bindingSid().isNone());
  path->segmentListIs(Ludd::MplsLabelOperation{16001, 16002}, Weight(1));
  path->segmentListIs(Ludd::MplsLabelOperation{16001, 16002}, Weight(5));
  EXPECT_EQ(path->segmentListCount(), 1u);
  EXPECT_EQ(path->segmentList(Ludd::MplsLabelOperation{16001, 16002}), Weight(5));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), PolicyKey()));
  config->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900001), key(7)));
  config->bsidPolicyDel(MplsLabel(5));
  EXPECT_EQ(config->bsidPolicyCount(), 1u);
  EXPECT_EQ(config->bsidPolicy(MplsLabel(900001))->key(), key(7));
}

// The text of every attribute of an entity and of its elements, through reflection.
std::string dump(Mosk::Entity const& e, char const* type) {
  Mosk::TypeRecord const* rec = Mosk::typeRecord(type);
  EXPECT_NE(rec, nullptr) << type;
  std::string out = std::string(type) + "\n";
  for (auto const& a : rec->attributes()) {
    if (a.kind == Mosk::AttributeKind::reference) continue;
    out += std::string(a.name) + "=" + rec->attributeText(&e, a.id) + "\n";
  }
  return out;
}

std::string dumpEcPolicy(EcPolicy const& ec) {
  std::string out = dump(ec, "SrTePolicy::EcPolicy");
  for (auto p = ec.policyIterConst(); p; ++p) {
    out += dump(*p, "SrTePolicy::Policy");
    out += "active=" + (p->active() ? Mosk::valueToStrep(p->active()->priority()) : "none") + "\n";
    for (auto c = p->candidateIterConst(); c; ++c)
      out += dump(*c, "SrTePolicy::PolicyEntry");
  }
  return out;
}

template <class E>
struct Replica {
  Mosk::Ptr<E> source;
  Mosk::Ptr<Mosk::LogAdapter> adapter;
  Mosk::Ptr<E> copy;
  Mosk::Ptr<Mosk::LogMount> mount;
  explicit Replica(Mosk::Ptr<E> s, Mosk::Ptr<E> c)
      : source(std::move(s)),
        adapter(Mosk::logAdapterFactory(Mosk::constPtr(source))),
        copy(std::move(c)),
        mount(Mosk::logMountFactory(copy, "SrTePolicyAgent")) {
    adapter->activate();
    mount->apply(adapter->snapshot());
  }
  void flush() {
    auto log = adapter->flush();
    if (!log.empty()) mount->apply(log);
  }
};

Priority prio(U32 pref, U32 id) {
  return Priority(Preference(pref), PolicySource::sourceBgp, IpAddr::fromU32(1), id);
}

TEST(ReplicationEntities, EcPolicyCarriesActiveAsTheKeyOfItsCandidate) {
  // Catches: an active reference that does not land on the copy's own candidate, or survives
  // the candidate it names.
  Replica<EcPolicy> r(ecPolicyFactory("ec"), ecPolicyFactory("ec"));
  auto policy = r.source->policyIs(key(1));
  auto best = policy->candidateIs(prio(200, 1));
  best->wSegmentListIs(SegmentListId(3),
                       WeightedSegmentList(Tunnel::TunnelTable::TunnelId(11), Weight(2)));
  policy->candidateIs(prio(100, 2))->bindingSidIs(MplsLabel(500));
  policy->activeIs(best);
  r.flush();
  auto copied = r.copy->policy(key(1));
  ASSERT_TRUE(copied && copied->active());
  EXPECT_EQ(copied->active().ptr(), copied->candidate(prio(200, 1)).ptr());
  EXPECT_EQ(dumpEcPolicy(*r.copy), dumpEcPolicy(*r.source));

  policy->activeIs(nullptr);
  policy->candidateDel(prio(200, 1));
  policy->activeIs(policy->candidate(prio(100, 2)));
  r.flush();
  EXPECT_EQ(dumpEcPolicy(*r.copy), dumpEcPolicy(*r.source));
  EXPECT_EQ(r.copy->policy(key(1))->active()->bindingSid(), MplsLabel(500));
}

TEST(ReplicationEntities, PublishedAndConfiguredModelsFollowTheirSource) {
  // Catches: a replicated model whose collections, element parameters or referenced sets do
  // not reach the copy.
  Replica<PolicyStatus> status(policyStatusFactory(), policyStatusFactory());
  auto entry = status.source->statusIs(key(3));
  auto vias = weightedViaSetFactory();
  vias->weightedViaIs(Tunnel::TunnelTable::TunnelId(5), Weight(3));
  entry->weightedViaSetIs(vias);
  entry->srTePolicyFecIdIs(Fib::FecId(0xf000000000000007ull));
  status.source->fecIdToPolicyKeyIs(Fib::FecId(0xf000000000000007ull), key(3));
  status.flush();
  auto copied = status.copy->status(key(3));
  ASSERT_TRUE(copied && copied->weightedViaSet());
  EXPECT_EQ(copied->weightedViaSet()->weightedVia(Tunnel::TunnelTable::TunnelId(5)), Weight(3));
  EXPECT_TRUE(copied->weightedViaSet()->readOnlyReplica());

  Replica<PolicySelectionInput> input(policySelectionInputFactory("in"),
                                      policySelectionInputFactory("in"));
  auto e = input.source->policyIdEntryIs(7, key(1), Preference(10), PolicySource::sourceBgp,
                                         IpAddr::fromU32(1));
  input.flush();
  e->preferenceIs(Preference(20));  // a mutable constructor argument, sent as a delta
  e->wSegmentListIs(SegmentListId(2), Weight(4));
  input.flush();
  EXPECT_EQ(input.copy->policyIdEntry(7)->preference(), Preference(20));
  EXPECT_EQ(input.copy->policyIdEntry(7)->wSegmentList(SegmentListId(2)), Weight(4));

  Replica<SegmentListStatus> lists(segmentListStatusFactory("sl"), segmentListStatusFactory("sl"));
  lists.source->statusIs(SegmentListId(1), Tunnel::TunnelTable::TunnelId(8));
  lists.flush();
  lists.source->statusDel(SegmentListId(1));
  lists.source->statusIs(SegmentListId(1), Tunnel::TunnelTable::TunnelId(9));
  lists.flush();  // a fixed argument changed: the element is rebuilt
  EXPECT_EQ(lists.copy->status(SegmentListId(1))->tunnelId(), Tunnel::TunnelTable::TunnelId(9));

  Replica<Config> config(configFactory("cfg"), configFactory("cfg"));
  auto sp = config.source->policyIs(key(4));
  sp->candidatePathIs(Preference(50))
      ->segmentListIs(Ludd::MplsLabelOperation{16001, 16002}, Weight(2));
  config.source->bsidPolicyIs(BsidKeyedPolicy(MplsLabel(900), key(4)));
  config.source->enabledIs(true);
  config.flush();
  auto cp = config.copy->policy(key(4))->candidatePath(Preference(50));
  ASSERT_TRUE(cp);
  EXPECT_EQ(cp->segmentList(Ludd::MplsLabelOperation{16001, 16002}), Weight(2));
  EXPECT_EQ(config.copy->bsidPolicy(MplsLabel(900))->key(), key(4));
  config.source->bsidPolicyDel(MplsLabel(900));
  config.flush();
  EXPECT_FALSE(config.copy->bsidPolicy(MplsLabel(900)));

  Replica<ColorDscpMap> dscp(colorDscpMapFactory("m"), colorDscpMapFactory("m"));
  dscp.source->colorToDscpIs(Color(5))->dscpIs(Qos::Dscp(46), true);
  dscp.flush();
  EXPECT_TRUE(dscp.copy->colorToDscp(Color(5))->dscp(Qos::Dscp(46)));

  Replica<Export::SegmentListCollection> exp(Export::segmentListCollectionFactory("x"),
                                             Export::segmentListCollectionFactory("x"));
  auto sl = exp.source->segmentListIs(SegmentListId(3));
  sl->sizeIs(1);
  sl->segmentIs(Ludd::MplsStackEntryIndex(0), Export::Segment(MplsLabel(16)));
  exp.flush();
  EXPECT_EQ(exp.copy->segmentList(SegmentListId(3))->segment(Ludd::MplsStackEntryIndex(0)),
            Export::Segment(MplsLabel(16)));

  Replica<Status> agent(statusFactory("s"), statusFactory("s"));
  agent.source->agentEnabledIs(true);
  auto log = agent.adapter->flush();
  EXPECT_EQ(log.size(), Mosk::LogHeader::size + 2 + 1 + 1) << "one attribute, one flag";
  agent.mount->apply(log);
  EXPECT_TRUE(agent.copy->agentEnabled());
}

TEST(ReplicationReflection, ModelTypesAndMachinesAreRegisteredByName) {
  // Catches: a model type or machine missing from the registry, or attributes misnamed.
  for (char const* name :
       {"SrTePolicy::Status", "SrTePolicy::Config", "SrTePolicy::StaticPolicy",
        "SrTePolicy::CandidatePath", "SrTePolicy::ColorDscpMap", "SrTePolicy::DscpList",
        "SrTePolicy::Priority", "SrTePolicy::PolicySource", "SrTePolicy::EcPolicy",
        "SrTePolicy::PolicySelectionSm", "SrTePolicy::SegmentListSm"}) {
    EXPECT_NE(Mosk::typeRecord(name), nullptr) << name;
  }
  EXPECT_NO_THROW(Mosk::typeRecord("SrTePolicy::StaticPolicy")->attribute("candidatePath"));
  EXPECT_NO_THROW(Mosk::typeRecord("SrTePolicy::Config")->attribute("bsidPolicy"));
  EXPECT_NO_THROW(Mosk::typeRecord("SrTePolicy::DscpList")->attribute("cliSaveUseSymbolic_"));
  auto handlers = Mosk::typeRecord("SrTePolicy::PolicyPublishSm")->handlerNames();
  EXPECT_NE(std::find(handlers.begin(), handlers.end(), "handleInitialized"), handlers.end());

  Mosk::TypeRecord const* status = Mosk::typeRecord("SrTePolicy::Status");
  auto s = status->construct({"status"});
  status->attributeTextIs(s.ptr(), status->attribute("agentEnabled").id, "True");
  EXPECT_TRUE(Mosk::ptrCast<Status>(s)->agentEnabled());
  Mosk::TypeRecord const* weight = Mosk::typeRecord("SrTePolicy::Weight");
  EXPECT_THROW(weight->fromRaw(0), Mosk::RangeException);
  std::any p = Mosk::typeRecord("SrTePolicy::Priority")->fromText(Mosk::valueToStrep(prio(5, 6)));
  EXPECT_EQ(std::any_cast<Priority>(p), prio(5, 6));
}

}  // namespace
