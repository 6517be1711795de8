// srte-bgp's UPDATE decoder: SR Policy paths per second on one core, from the bytes of an
// UPDATE to the input record, and on to the BGP source's table in shared memory.
//
//   Decode/captured     the UPDATE GoBGP 3.10 sent (two lists, binding SID, name, priority,
//                       ENLP), decoded and made into the record the table would get
//   Decode/paths:N      one UPDATE carrying N NLRIs that share their attributes
//   DecodeToTable       4096 different paths, each decoded and written into a table (put)
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <vector>

#include "BgpInputTable.h"
#include "SrPolicyEncoder.h"

using namespace SrTeBgp;

namespace {

Ludd::IpAddr const local = Ludd::IpAddr::parse("10.0.0.1");
Ludd::IpAddr const peer = Ludd::IpAddr::parse("10.0.0.2");

SrTePolicy::PolicyInputEntry capturedPath() {
  SrTePolicy::PolicyInputEntry e;
  e.preferenceIs(SrTePolicy::Preference(200));
  e.bindingSidIs(Ludd::MplsLabel(900));
  e.segmentListPush(SrTePolicy::WeightedSegList(SrTePolicy::Weight(1), {16001, 16009}));
  e.segmentListPush(SrTePolicy::WeightedSegList(SrTePolicy::Weight(3), {16002, 24005, 16009}));
  return e;
}

SrPolicyNlri nlriOf(U32 i) {
  SrPolicyNlri n;
  n.distinguisher = 2;
  n.color = SrTePolicy::Color(100);
  n.endpoint = Ludd::IpAddr::fromU32(0x0a000000 + i);
  return n;
}

// Makes each path into the record the table gets, as the session does before its put.
class RecordSink : public UpdateSink {
 public:
  SrTePolicy::PolicyInputEntry record;
  U64 paths = 0;
  void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) override {
    record = path.record;
    record.endpointIs(nlri.endpoint);
    record.colorIs(nlri.color);
    record.routerIdIs(peer);
    ++paths;
  }
  void onWithdraw(SrPolicyNlri const&) override {}
  void onRefused(SrPolicyNlri const*, Rule, Problem const&) override {}
};

DecodeContext context() {
  DecodeContext c;
  c.localIdentifier = local;
  return c;
}

void decodeLoop(benchmark::State& state, Bytes const& message) {
  SrPolicyDecoder decoder;
  RecordSink sink;
  DecodeContext const c = context();
  Refusal refusal;
  for (auto _ : state) {
    decoder.decode(message.data() + headerSize, message.size() - headerSize, c, sink, refusal);
    benchmark::DoNotOptimize(sink.record);
  }
  state.SetItemsProcessed(static_cast<S64>(sink.paths));
}

void DecodeCaptured(benchmark::State& state) {
  decodeLoop(state, updateMessage(nlriOf(9), capturedPath(), local));
}
BENCHMARK(DecodeCaptured);

// The captured attributes with N NLRIs.
void DecodePaths(benchmark::State& state) {
  Bytes one = updateMessage(nlriOf(9), capturedPath(), local);
  // Appends NLRIs to MP_REACH_NLRI (the 4th attribute) and fixes its and the list's lengths.
  std::size_t const attrs = headerSize + 4;
  std::size_t at = attrs;
  for (int i = 0; i < 3; ++i)
    at += 3 + one[at + 2];
  Bytes extra;
  for (U32 i = 1; i < state.range(0); ++i) {
    Bytes m = updateMessage(nlriOf(9 + i), capturedPath(), local);
    // The NLRI follows AFI, SAFI, the next hop length, the 4-octet next hop and a reserved octet.
    auto const nlri = m.begin() + static_cast<std::ptrdiff_t>(at + 3 + 9);
    extra.insert(extra.end(), nlri, nlri + 13);
  }
  std::size_t const end = at + 3 + one[at + 2];
  one.insert(one.begin() + static_cast<std::ptrdiff_t>(end), extra.begin(), extra.end());
  one[at + 2] = static_cast<U8>(one[at + 2] + extra.size());
  U32 const total = get16(&one[headerSize + 2]) + static_cast<U32>(extra.size());
  one[headerSize + 2] = static_cast<U8>(total >> 8);
  one[headerSize + 3] = static_cast<U8>(total);
  decodeLoop(state, one);
}
BENCHMARK(DecodePaths)->Arg(10)->ArgName("paths");

// Decoded and written into the BGP source's table, each path twice as often with another
// preference so that every put writes.
class TableSink : public UpdateSink {
 public:
  explicit TableSink(BgpInputTable& t) : table(t) {}
  BgpInputTable& table;
  U64 paths = 0;
  void onPath(SrPolicyNlri const& nlri, SrPolicyPath const& path) override {
    table.put(0, peer, nlri, path.record);
    ++paths;
  }
  void onWithdraw(SrPolicyNlri const&) override {}
  void onRefused(SrPolicyNlri const*, Rule, Problem const&) override {}
};

void DecodeToTable(benchmark::State& state) {
  std::string const name = "srte-bench-" + std::to_string(::getpid()) + "-bgp";
  Skerry::shmTableRemove(name);
  Skerry::ShmTableOptions options;
  options.capacity = 8192;
  {
    BgpInputTable table(name, options);
    std::vector<Bytes> messages;
    for (U32 i = 0; i < 8192; ++i) {
      SrTePolicy::PolicyInputEntry e = capturedPath();
      e.preferenceIs(SrTePolicy::Preference(100 + i / 4096));
      messages.push_back(updateMessage(nlriOf(i % 4096), e, local));
    }
    SrPolicyDecoder decoder;
    TableSink sink(table);
    DecodeContext const c = context();
    Refusal refusal;
    std::size_t i = 0;
    for (auto _ : state) {
      Bytes const& m = messages[i++ % messages.size()];
      decoder.decode(m.data() + headerSize, m.size() - headerSize, c, sink, refusal);
    }
    state.SetItemsProcessed(static_cast<S64>(sink.paths));
  }
  Skerry::shmTableRemove(name);
}
BENCHMARK(DecodeToTable);

}  // namespace
