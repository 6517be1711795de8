// The platform tables at router scale: LFIB lookups as resolution makes them, the in-place FEC
// write of the publisher, the input table of a source, the tunnel table, and the memory that a
// FEC and a tunnel entry take.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <vector>

#include "Mpls/MplsStatus.h"
#include "Skerry/ForwardingStatus.h"
#include "SrTePolicy/SrTePolicyTypes.h"
#include "Tunnel/TunnelTable.h"

namespace {

using Ludd::MplsLabel;

constexpr U32 kRoutes = 100000;

Mosk::Ptr<Mpls::Status> lfibWith(U32 routes) {
  auto status = Mpls::statusFactory("lfib");
  for (U32 l = 0; l < routes; ++l) {
    Mpls::RouteKey key(MplsLabel(16000 + l), Mpls::LFib::Source(3));
    status->lfibRouteIs(Mpls::LFib::Route(key, Mpls::AdjacencyKey(l, Mpls::AdjacencyKind::viaSet),
                                          Mpls::LFib::RouteType::label, Mpls::LFib::Source(3), 0,
                                          Ludd::IpGenPrefix()));
  }
  return status;
}

// One lookup of a present route in an LFIB of 100,000 routes.
void BM_LfibRouteHit(benchmark::State& state) {
  auto status = lfibWith(kRoutes);
  U32 l = 0;
  for (auto _ : state) {
    auto r = status->lfibRoute(Mpls::RouteKey(MplsLabel(16000 + l), Mpls::LFib::Source(3)));
    benchmark::DoNotOptimize(r);
    if (++l == kRoutes) l = 0;
  }
}
BENCHMARK(BM_LfibRouteHit);

// The worst case of resolving one label: all 255 sources looked up, none present.
void BM_LfibResolveUnresolvedLabel(benchmark::State& state) {
  auto status = lfibWith(kRoutes);
  U32 l = 0;
  for (auto _ : state) {
    for (U32 s = 1; s <= 255; ++s) {
      auto r = status->lfibRoute(
          Mpls::RouteKey(MplsLabel(200000 + l), Mpls::LFib::Source(static_cast<U8>(s))));
      benchmark::DoNotOptimize(r);
    }
    if (++l == kRoutes) l = 0;
  }
}
BENCHMARK(BM_LfibResolveUnresolvedLabel);

Fib::Via tunnelVia(U64 t) {
  return Fib::Via(Ludd::IntfId(), Ludd::IpGenAddr(), MplsLabel(), Ludd::MplsLabelAction::actionNone,
                  true, Tunnel::TunnelTable::TunnelId(t));
}

void writeFec(Skerry::Fib::ForwardingStatus& status, U64 index, U32 vias) {
  Fib::Fec& fec = status.fecForWrite(Fib::FecId::fecIdForAdjType(15, index));
  for (U32 i = 1; i <= vias; ++i) {
    fec.viaIs(Fib::ViaIndex(i), tunnelVia(index * 8 + i));
    fec.viaCountIs(i);
  }
  status.fecCommit(fec);
}

// Rewriting an existing FEC of four vias in place and committing it, in a table of 100,000.
void BM_FecRewriteCommit(benchmark::State& state) {
  auto status = Skerry::Fib::forwardingStatusFactory("fwd");
  for (U64 i = 0; i < kRoutes; ++i)
    writeFec(*status, i, 4);
  U64 i = 0;
  for (auto _ : state) {
    writeFec(*status, i, 4);
    if (++i == kRoutes) i = 0;
  }
}
BENCHMARK(BM_FecRewriteCommit);

// Heap bytes per FEC of two vias, over a million FECs (counter "bytes/FEC").
void BM_FecMemory(benchmark::State& state) {
  for (auto _ : state) {
    std::size_t before = mallinfo2().uordblks;
    auto status = Skerry::Fib::forwardingStatusFactory("fwd");
    for (U64 i = 0; i < 1000000; ++i)
      writeFec(*status, i, 2);
    state.counters["bytes/FEC"] = static_cast<double>(mallinfo2().uordblks - before) / 1e6;
  }
}
BENCHMARK(BM_FecMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

SrTePolicy::PolicyInputEntry inputEntry(U32 index, U32 lists) {
  SrTePolicy::PolicyInputEntry e(
      SrTePolicy::PolicyId::make(SrTePolicy::PolicySource::sourceBgp, index));
  e.endpointIs(Ludd::IpAddr::fromU32(0x0a000000 + index));
  e.colorIs(SrTePolicy::Color(index % 100));
  for (U32 i = 0; i < lists; ++i) {
    e.segmentListPush(SrTePolicy::WeightedSegList(
        SrTePolicy::Weight(1), Ludd::MplsLabelOperation{16000 + i, 17000 + index % 1000}));
  }
  return e;
}

// Writing new input records (two segment lists each) into a source's table, per record.
void BM_PolicyInputEntryIs(benchmark::State& state) {
  for (auto _ : state) {
    auto input = SrTePolicy::policyInputFactory("bgp");
    for (U32 i = 0; i < kRoutes; ++i)
      input->policyInputEntryIs(inputEntry(i, 2));
    benchmark::DoNotOptimize(input->policyInputEntryCount());
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(BM_PolicyInputEntryIs)->Unit(benchmark::kMillisecond);

// A reader's checked copy of one record out of a table of 100,000.
void BM_PolicyInputEntryRead(benchmark::State& state) {
  auto input = SrTePolicy::policyInputFactory("bgp");
  for (U32 i = 0; i < kRoutes; ++i)
    input->policyInputEntryIs(inputEntry(i, 2));
  U32 i = 0;
  for (auto _ : state) {
    auto e =
        input->policyInputEntry(SrTePolicy::PolicyId::make(SrTePolicy::PolicySource::sourceBgp, i));
    benchmark::DoNotOptimize(e);
    if (++i == kRoutes) i = 0;
  }
}
BENCHMARK(BM_PolicyInputEntryRead);

Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry tunnelEntry(U64 index, U32 salt) {
  using namespace Tunnel::TunnelTable;
  SrTeSegmentListTunnelTableEntry e(
      TunnelId::convertToTunnelValue(TunnelType::srTeSegmentList, index));
  for (U32 v = 0; v < 2; ++v) {
    e.newVia(MplsVia(Ludd::IpAddr::fromU32(0x0a000001 + v),
                     Ludd::IntfId(Ludd::IntfId::Kind::ethernet, v + 1),
                     Ludd::MplsLabelOperation{16000 + salt, 17000}));
  }
  return e;
}

// Rewriting a two-via tunnel entry whole in a table of 100,000.
void BM_TunnelEntryIs(benchmark::State& state) {
  auto table = Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
  for (U64 i = 1; i <= kRoutes; ++i)
    table->entryIs(tunnelEntry(i, 0));
  U64 i = 1;
  U32 salt = 1;
  for (auto _ : state) {
    table->entryIs(tunnelEntry(i, salt));
    if (++i > kRoutes) {
      i = 1;
      ++salt;
    }
  }
}
BENCHMARK(BM_TunnelEntryIs);

// Heap bytes per two-via tunnel entry, over a million entries (counter "bytes/tunnel").
void BM_TunnelMemory(benchmark::State& state) {
  for (auto _ : state) {
    std::size_t before = mallinfo2().uordblks;
    auto table = Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("tunnels");
    for (U64 i = 1; i <= 1000000; ++i)
      table->entryIs(tunnelEntry(i, 0));
    state.counters["bytes/tunnel"] = static_cast<double>(mallinfo2().uordblks - before) / 1e6;
  }
}
BENCHMARK(BM_TunnelMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
