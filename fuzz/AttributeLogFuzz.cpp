// The attribute-log reader: a mounted read-only copy (Mosk::LogMount) fed with the logs of a
// writer in another process. The first byte picks the replicated root type (an index into
// kRoots; new types go at the end), the second how the rest is read:
//
//   raw      a series of logs, each a 16-bit little-endian length and that many bytes
//   framed   a series of bodies (a kind byte, a 16-bit length, the records) that the harness
//            puts behind a well-formed header of the root's type and the next sequence
//   mutated  edits (a 16-bit offset, a byte) to the writer's genuine next delta, or to its
//            snapshot when the first byte is odd; then a length to cut the log to
//
// Every copy first mounts a genuine snapshot of a writer holding a few elements, so that deltas
// find something to change. A log is applied whole or not at all: a refused log (a runtime
// error) must leave the copy and the mount's sequence exactly as they were, which the copy's own
// snapshot shows byte for byte; and the writer's genuine delta must then still apply and give
// the same copy as on a mount that never saw the refused log. An accepted log leaves a copy
// that can be replicated again: its snapshot mounts on a fresh copy.
#include <algorithm>
#include <vector>

#include "Fuzz.h"
#include "Mosk/Replication.h"
#include "PolicyActivity.h"
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
  return PolicyKey(IpGenAddr(IpAddr::fromU32(0x0a000001 + color)), Color(color));
}

Tunnel::TunnelTable::TunnelId tunnel(U64 n) {
  return Tunnel::TunnelTable::TunnelId(n);
}

// The writer's content: `round` 0 before the snapshot, 1 for the changes of the genuine delta.
// Each changes values, adds and removes elements, so the delta carries every kind of record.
void populate(EcPolicy& ec, U32 round) {
  if (round == 0) {
    for (U32 c = 1; c <= 3; ++c) {
      auto p = ec.policyIs(key(c));
      for (U32 id = 1; id <= 2; ++id) {
        auto e = p->candidateIs(
            Priority(Preference(100 * id), PolicySource::sourceBgp, IpAddr::fromU32(id), id));
        e->bindingSidIs(MplsLabel(900000 + 10 * c + id));
        e->wSegmentListIs(SegmentListId(c * 10 + id), WeightedSegmentList(tunnel(c), Weight(1)));
        p->activeIs(e);
      }
    }
    return;
  }
  auto p = ec.policyIs(key(1));
  p->activeIs(
      p->candidateIs(Priority(Preference(100), PolicySource::sourceBgp, IpAddr::fromU32(1), 1)));
  p->candidateDel(Priority(Preference(200), PolicySource::sourceBgp, IpAddr::fromU32(2), 2));
  ec.policyDel(key(2));
  ec.policyIs(key(4))->candidateIs(
      Priority(Preference(5), PolicySource::sourcePcep, IpAddr::fromU32(9), 7));
}

void populate(PolicyStatus& ps, U32 round) {
  for (U32 c = 1 + round; c <= 3 + round; ++c) {
    auto s = ps.statusIs(key(c));
    s->bindingSidIs(MplsLabel(900000 + c + round));
    s->idIs(c);
    auto vias = weightedViaSetFactory();
    vias->weightedViaIs(tunnel(c), Weight(1 + round));
    vias->weightedViaIs(tunnel(c + 100), Weight(2));
    s->weightedViaSetIs(Mosk::constPtr(vias));
    s->srTePolicyFecIdIs(Fib::FecId(0x100 + c));
    ps.fecIdToPolicyKeyIs(Fib::FecId(0x100 + c), key(c));
  }
  if (round == 1) {
    ps.statusDel(key(1));
    ps.fecIdToPolicyKeyDel(Fib::FecId(0x101));
  }
}

void populate(PolicySelectionInput& in, U32 round) {
  for (U32 id = 1 + round; id <= 4 + round; ++id) {
    auto e = in.policyIdEntryIs(id, key(id % 2), Preference(10 * id + round),
                                PolicySource::sourceBgp, IpAddr::fromU32(id));
    e->bindingSidIs(MplsLabel(16000 + id));
    e->wSegmentListIs(SegmentListId(id), Weight(1 + round));
  }
  if (round == 1) in.policyIdEntryDel(1);
}

void populate(PolicyKeyToIdMap& m, U32 round) {
  for (U32 c = 1; c <= 3; ++c)
    m.mapEntryIs(key(c))->policyIdIs(PolicyId::make(PolicySource::sourceBgp, c + round), true);
  if (round == 1) m.mapEntryDel(key(3));
}

void populate(Config& config, U32 round) {
  auto p = config.policyIs(key(1 + round));
  p->bindingSidIs(MplsLabel(800000 + round));
  p->candidatePathIs(Preference(100))
      ->segmentListIs(Ludd::MplsLabelOperation{16001, 16002 + round}, Weight(1));
  if (round == 1) config.policyDel(key(1));
}

void populate(PolicyActivity& activity, U32 round) {
  for (U32 c = 1; c <= 3; ++c) {
    auto e = activity.policyIs(key(c));
    e->activeIs(c != 2 || round == 0);
    e->activeIdIs(PolicyId::make(PolicySource::sourcePcep, c + round).value());
    e->activeSinceIs(1.7e9 + c + 0.25 * round);
    e->activeTransitionsInc(1 + round);
  }
  if (round == 1) activity.policyDel(key(3));
}

// Types without written content are mounted from the snapshot of an empty writer.
template <class E>
void populate(E&, U32) {}

// The copy as bytes: its own snapshot, from an adapter of its own.
template <class E>
std::vector<U8> snapshotOf(Mosk::Ptr<E> const& copy) {
  return Mosk::logAdapterFactory(Mosk::constPtr(copy))->snapshot();
}

// A fresh copy mounted with the writer's genuine snapshot.
template <class E>
struct Copy {
  Mosk::Ptr<E> copy;
  Mosk::Ptr<Mosk::LogMount> mount;
  Copy(Mosk::Ptr<E> (*make)(), std::vector<U8> const& snapshot)
      : copy(make()), mount(Mosk::logMountFactory(copy, "fuzz")) {
    mount->apply(snapshot);
  }
};

void putU16(std::vector<U8>& v, std::size_t at, U16 x) {
  v[at] = static_cast<U8>(x);
  v[at + 1] = static_cast<U8>(x >> 8);
}
void putU32(std::vector<U8>& v, std::size_t at, U32 x) {
  for (int i = 0; i < 4; ++i)
    v[at + i] = static_cast<U8>(x >> (8 * i));
}

// Applies `log` to `c` and checks the property. `delta` is the
// writer's genuine next delta and `expected` the copy's bytes after it, from a mount that
// only ever saw genuine logs (empty when the copy has moved on from the genuine history).
template <class E>
void applyChecked(Mosk::Ptr<E> (*make)(), Copy<E>& c, U8 const* log, std::size_t length,
                  std::vector<U8> const& delta, std::vector<U8> const* expected) {
  std::vector<U8> const before = snapshotOf(c.copy);
  U32 const sequence = c.mount->sequence();
  if (Fuzz::refused([&] { c.mount->apply(log, length); })) {
    Fuzz::check(snapshotOf(c.copy) == before, "a refused log changed the copy");
    Fuzz::check(c.mount->sequence() == sequence && c.mount->synced(),
                "a refused log moved the mount's sequence");
    if (expected != nullptr) {
      Fuzz::check(!Fuzz::refused([&] { c.mount->apply(delta); }),
                  "the genuine delta is refused after a refused log");
      Fuzz::check(snapshotOf(c.copy) == *expected,
                  "the genuine delta after a refused log gives another copy");
    }
    return;
  }
  std::vector<U8> const now = snapshotOf(c.copy);
  Mosk::Ptr<E> again = make();
  Mosk::Ptr<Mosk::LogMount> remount = Mosk::logMountFactory(again, "fuzz");
  Fuzz::check(!Fuzz::refused([&] { remount->apply(now); }),
              "the snapshot of a copy built from accepted logs is refused");
  Fuzz::check(snapshotOf(again).size() == now.size(),
              "a copy mounted from a snapshot snapshots otherwise");
}

template <class E>
void run(Mosk::Ptr<E> (*make)(), U8 mode, std::uint8_t const* data, std::size_t size) {
  Mosk::Ptr<E> writer = make();
  Mosk::Ptr<Mosk::LogAdapter> adapter = Mosk::logAdapterFactory(Mosk::constPtr(writer));
  populate(*writer, 0);
  adapter->activate();
  std::vector<U8> const snapshot = adapter->snapshot();
  populate(*writer, 1);
  std::vector<U8> const delta = adapter->flush();

  Copy<E> reference(make, snapshot);
  if (!delta.empty()) reference.mount->apply(delta);
  std::vector<U8> const expected = snapshotOf(reference.copy);

  Copy<E> c(make, snapshot);
  // Only the first log finds the copy where the genuine history left it.
  bool genuine = !delta.empty();
  switch (mode % 3) {
    case 0:
      while (size >= 2) {
        std::size_t const length = std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
        applyChecked(make, c, data + 2, length, delta, genuine ? &expected : nullptr);
        genuine = false;
        data += 2 + length;
        size -= 2 + length;
      }
      return;
    case 1:
      while (size >= 3) {
        bool const isSnapshot = data[0] & 1;
        std::size_t const length = std::min<std::size_t>(data[1] | data[2] << 8, size - 3);
        std::vector<U8> log(Mosk::LogHeader::size);
        putU16(log, 0, Mosk::LogHeader::magic);
        log[2] = Mosk::LogHeader::version;
        log[3] = static_cast<U8>(isSnapshot ? Mosk::LogKind::snapshot : Mosk::LogKind::delta);
        putU32(log, 4, Mosk::logTypeHash(E::replicaOps().typeName));
        putU32(log, 8, c.mount->sequence() + (isSnapshot ? 0 : 1));
        putU32(log, 12, static_cast<U32>(length));
        log.insert(log.end(), data + 3, data + 3 + length);
        applyChecked(make, c, log.data(), log.size(), delta, genuine ? &expected : nullptr);
        genuine = false;
        data += 3 + length;
        size -= 3 + length;
      }
      return;
    default: {
      bool const onSnapshot = size > 0 && (data[0] & 1);
      std::vector<U8> log = onSnapshot || delta.empty() ? snapshot : delta;
      if (size > 0) ++data, --size;
      for (; size >= 3; data += 3, size -= 3)
        log[(data[0] | data[1] << 8) % log.size()] = data[2];
      if (size == 2) log.resize(std::min<std::size_t>(log.size(), data[0] | data[1] << 8));
      applyChecked(make, c, log.data(), log.size(), delta, genuine ? &expected : nullptr);
      return;
    }
  }
}

template <class E, Mosk::Ptr<E> (*factory)(Mosk::Name)>
Mosk::Ptr<E> named() {
  return factory("replica");
}

using Root = void (*)(U8 mode, std::uint8_t const*, std::size_t);

Root const kRoots[] = {
    [](U8 m, auto d, auto n) { run<EcPolicy>(&named<EcPolicy, ecPolicyFactory>, m, d, n); },
    [](U8 m, auto d, auto n) {
      run<PolicySelectionInput>(&named<PolicySelectionInput, policySelectionInputFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) {
      run<PolicyKeyToIdMap>(&named<PolicyKeyToIdMap, policyKeyToIdMapFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) { run<Config>(&named<Config, configFactory>, m, d, n); },
    [](U8 m, auto d, auto n) { run<Status>(&named<Status, statusFactory>, m, d, n); },
    [](U8 m, auto d, auto n) {
      run<ColorDscpMap>(&named<ColorDscpMap, colorDscpMapFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) {
      run<SegmentListStatus>(&named<SegmentListStatus, segmentListStatusFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) {
      run<Export::SegmentListCollection>(
          &named<Export::SegmentListCollection, Export::segmentListCollectionFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) {
      run<PolicyStatus>(&named<PolicyStatus, policyStatusFactory>, m, d, n);
    },
    [](U8 m, auto d, auto n) {
      run<PolicyActivity>(&named<PolicyActivity, policyActivityFactory>, m, d, n);
    },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2 || data[0] >= std::size(kRoots)) return 0;
  kRoots[data[0]](data[1], data + 2, size - 2);
  return 0;
}
