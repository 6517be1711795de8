// The platform loader: writes a scenario's platform state and its later changes into the MPLS
// status (routes, via sets, LFIB adjacencies, external FEC adjacencies) and the IPv4 and IPv6
// forwarding status, as the platform's own agents would.
//
// The platform never rewrites the next hops behind an adjacency index, external FEC adjacency
// or FEC that a route points at: nothing but the route notification tells resolution that
// forwarding changed. So when a change gives new content to an entry that is in use, the
// loader publishes the new content under a fresh index (above every index the scenario uses),
// re-points the routes (or the external FEC adjacencies) at it, and then removes the old entry;
// from then on the scenario's number for that entry names the new index. An entry that nothing
// points at is rewritten in place. Via sets and LFIB adjacencies share one index space (a route
// over a via set takes its next hops from the LFIB adjacency of the same index), so they move
// together.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Mosk/Ptr.h"
#include "Mpls/MplsStatus.h"
#include "Scenario.h"
#include "Skerry/ForwardingStatus.h"
#include "StateExplain.h"

namespace SrTeScenario {

// An entry that a change published anew under another index: its table ("ipv4Fec",
// "ipv6Fec", "extFecAdjacency", "viaSet", "adjacency"), the scenario's number for it, the index it
// is published under now, and the sentence that says so.
struct PlatformMove {
  std::string table;
  U64 scenarioIndex = 0;
  U64 index = 0;
  std::string text;
};

class PlatformLoader : public SrTeView::EntryNames {
 public:
  PlatformLoader(Mosk::Ptr<Mpls::Status> lfib, Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwd,
                 Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6, IndexCeiling ceiling = {});

  // Applies `change`: additions bottom up, then removals top down, then the resync. Returns
  // the entries that were published anew under another index.
  std::vector<PlatformMove> apply(PlatformChange const& change);

  // The index under which the scenario's entry is published now.
  U64 adjacencyIndex(U64 name) const { return current(adjacency_, name); }
  U64 extFecIndex(U64 name) const { return current(extFec_, name); }
  U64 fecIndex(Family family, U64 name) const {
    return current(family == Family::ipv4 ? fec4_ : fec6_, name);
  }
  // The scenario's number for a published index (the index itself when it was never moved).
  U64 adjacencyName(U64 index) const override { return nameOf(adjacency_, index); }
  U64 extFecName(U64 index) const override { return nameOf(extFec_, index); }

  static Fib::FecId fecId(Family family, U64 index);

 private:
  // Scenario numbers and the index each is published under; `next` is the last index taken.
  struct Space {
    std::map<U64, U64> alias;
    U64 next = 0;
  };
  static U64 current(Space const& s, U64 name);
  static U64 nameOf(Space const& s, U64 index);
  static U64 fresh(Space& s);

  static Fib::Fec makeFec(Fib::FecId id, std::vector<FecVia> const& vias);
  void commitFec(Family family, Fib::Fec const& fec);
  Fib::Fec const& storedFec(Family family, Fib::FecId id) const;
  void writeFec(Fec const& fec, std::vector<PlatformMove>& notes);
  void writeExtFec(U64 name, Fib::FecId fecId, Ludd::MplsLabelAction action,
                   std::vector<PlatformMove>& notes);
  void writeAdjacency(ViaList const& list, bool viaSet, std::vector<PlatformMove>& notes);
  // Re-points every route over `from` (of the kinds `extFec` selects) at `to`.
  void repointRoutes(U64 from, U64 to, bool extFec);
  bool routesUse(U64 index, bool extFec) const;

  Mosk::Ptr<Mpls::Status> lfib_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwd_;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6_;
  Space adjacency_;
  Space extFec_;
  Space fec4_;
  Space fec6_;
};

}  // namespace SrTeScenario
