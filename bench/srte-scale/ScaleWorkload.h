// The seeded workload of srte-scale and what the pipeline must show for it.
//
// A Shape names the size of the network: P policies (endpoint and color), C candidate paths per
// policy spread over the BGP, PCEP and other sources, L weighted segment lists per candidate
// and D labels per list drawn from a pool of U labels. The first T labels of the pool are the
// top labels: every list starts with one, and the LFIB resolves each of them through an
// adjacency with two next hops; the rest of the pool has no route. Every candidate of a policy
// carries the policy's binding SID.
//
// Nothing is stored per candidate: each is computed from (seed, policy, candidate) on demand,
// so the generator adds no memory to what is measured. What changes during a run (a new
// preference, a path removed, a top label whose route is gone) is kept in the small Overrides
// set, and expected() derives from it the outputs that the pipeline must then hold.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTeScale {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyKey;
using SrTePolicy::PolicySource;

struct Shape {
  U32 policies = 10000;
  U32 candidates = 2;
  U32 lists = 2;
  U32 depth = 3;
  U32 labels = 2000;
  // Top labels (the first of the pool); 0 means a tenth of the pool, at least one.
  U32 topLabels = 0;
  U64 seed = 1;

  U32 topLabelCount() const;
  U64 paths() const { return U64{policies} * candidates; }
  // Empty when the shape is usable; otherwise what is wrong with it.
  std::string problem() const;
};

// One weighted label stack of a candidate; position 0 is the top label.
struct List {
  std::array<U32, 6> labels{};
  U32 depth = 0;
  U32 weight = 1;
  bool operator==(List const& o) const { return depth == o.depth && labels == o.labels; }
};

struct Candidate {
  U32 policy = 0;
  U32 index = 0;  // 0 .. C-1 within the policy
  PolicyId id;
  PolicySource source = PolicySource::sourceBgp;
  U32 preference = 100;
  U32 routerId = 0;
  std::vector<List> lists;
};

// What a run has changed against the generated workload.
struct Overrides {
  std::unordered_map<U64, U32> preference;  // by path number (policy * C + index)
  std::unordered_set<U64> removed;          // path numbers
  std::unordered_set<U32> unroutedTops;     // top labels whose route is gone
};

// The outputs that the inputs imply.
struct Expected {
  U64 paths = 0;             // candidate paths in the input tables
  U64 published = 0;         // policies with an eligible candidate: FECs, status entries, routes
  U64 eligible = 0;          // candidates filed in EcPolicy
  U64 vias = 0;              // vias over every published FEC
  U64 segmentLists = 0;      // distinct label stacks in the input
  U64 resolvedLists = 0;     // of those, the ones whose top label is routed: tunnels
  U64 segments = 0;          // distinct labels in the input
  U64 resolvedSegments = 0;  // of those, the routed top labels: segment status entries
  U64 policyKeys = 0;        // keys with at least one candidate path in the input
  U64 listUses = 0;          // (candidate path, distinct list of it) pairs: list users' ids
  U64 segmentLinks = 0;      // (distinct list, distinct label of it) pairs: registrations
};

class Workload {
 public:
  explicit Workload(Shape const& shape) : shape_(shape) {}
  Shape const& shape() const { return shape_; }

  PolicyKey key(U32 policy) const;
  U32 bindingSid(U32 policy) const { return 100000 + policy; }
  U32 poolLabel(U32 i) const { return 16000 + i; }
  U32 topLabel(U32 i) const { return poolLabel(i); }
  // The candidate as generated, with the preference the overrides give it.
  Candidate candidate(U32 policy, U32 index, Overrides const& overrides) const;
  SrTePolicy::PolicyInputEntry record(Candidate const& candidate) const;
  U64 pathNumber(U32 policy, U32 index) const { return U64{policy} * shape_.candidates + index; }

  // The candidate that must be active for `policy`, among those present whose lists resolve;
  // nothing when none is eligible.
  std::optional<Candidate> active(U32 policy, Overrides const& overrides) const;
  // The lists of `candidate` that resolve, one per distinct stack with the weight of its
  // last occurrence, in first-occurrence order.
  std::vector<List> resolvedLists(Candidate const& candidate, Overrides const& overrides) const;
  // Whether `candidate` names a stack equal to `list`.
  static bool names(Candidate const& candidate, List const& list);
  // The whole expected state: one pass over every candidate.
  Expected expected(Overrides const& overrides) const;

 private:
  U64 draw(U32 policy, U32 index, U32 what) const;

  Shape shape_;
};

}  // namespace SrTeScale
