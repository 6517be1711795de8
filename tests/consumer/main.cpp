// Loads the installed library, publishes one candidate path, and checks its FEC.
#include <cstdio>

#include "SrTePolicyAgent.h"

using namespace SrTePolicy;

int main() {
  SrTePolicyAgent agent(Vell::manualClockFactory());
  Ludd::MplsLabel label(16001);
  Mpls::ViaSet vias{Mpls::Via(Ludd::IntfId(Ludd::IntfId::Kind::ethernet, 1),
                              Ludd::IpGenAddr::parse("10.0.0.2"), Ludd::MplsLabelAction::actionSwap,
                              label)};
  agent.mplsStatus()->lfibAdjacencyIs(1, Mpls::LfibAdjacency(vias));
  agent.mplsStatus()->lfibRouteIs(
      Mpls::LFib::Route(Mpls::RouteKey(label, Mpls::LFib::Source(1)),
                        Mpls::AdjacencyKey(1, Mpls::AdjacencyKind::adjacency),
                        Mpls::LFib::RouteType::label, Mpls::LFib::Source(1), 0, {}));
  PolicyInputEntry entry(PolicyId::make(PolicySource::sourceBgp, 1));
  entry.endpointIs(Ludd::IpGenAddr::parse("192.0.2.1"));
  entry.colorIs(Color(1));
  entry.segmentListPush(WeightedSegList(Weight(1), Ludd::MplsLabelOperation{16001, 16002}));
  agent.sourceTableIs(PolicySource::sourceBgp)->policyInputEntryIs(entry);
  agent.advanceUntilIdle();
  if (agent.srteFwdStatus()->fecCount() != 1) {
    std::puts("consumer: the candidate path was not published");
    return 1;
  }
  std::puts("consumer: published one policy");
  return 0;
}
