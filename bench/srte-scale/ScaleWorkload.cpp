// The generator of srte-scale: candidates from a counter-based random function, and the
// expected outputs derived from them and the run's overrides.
#include "ScaleWorkload.h"

#include <algorithm>
#include <string>
#include <utility>

namespace SrTeScale {

namespace {

constexpr std::array<PolicySource, 3> kSources = {PolicySource::sourceBgp, PolicySource::sourcePcep,
                                                  PolicySource::sourceOther};

U64 splitmix(U64 x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// A label stack as one sortable number pair: 20 bits per label, the depth on top.
std::pair<U64, U64> stackKey(List const& list) {
  U64 lo = list.depth;
  U64 hi = 0;
  for (U32 i = 0; i < list.depth; ++i) {
    if (i < 3) {
      lo |= U64{list.labels[i]} << (4 + 20 * i);
    } else {
      hi |= U64{list.labels[i]} << (20 * (i - 3));
    }
  }
  return {lo, hi};
}

List stackOf(std::pair<U64, U64> const& key) {
  List list;
  list.depth = static_cast<U32>(key.first & 0xf);
  for (U32 i = 0; i < list.depth; ++i) {
    U64 const word = i < 3 ? key.first >> (4 + 20 * i) : key.second >> (20 * (i - 3));
    list.labels[i] = static_cast<U32>(word & 0xfffff);
  }
  return list;
}

// Whether candidate a ranks before b: higher preference, then lower source, router id, id.
bool ranksBefore(Candidate const& a, Candidate const& b) {
  if (a.preference != b.preference) return a.preference > b.preference;
  if (a.source != b.source) return a.source < b.source;
  if (a.routerId != b.routerId) return a.routerId < b.routerId;
  return a.id.value() < b.id.value();
}

}  // namespace

U32 Shape::topLabelCount() const {
  if (topLabels != 0) return topLabels;
  return std::max<U32>(1, labels / 10);
}

std::string Shape::problem() const {
  if (policies == 0 || candidates == 0) return "there must be at least one policy and candidate";
  if (lists == 0 || lists > 16) return "a candidate path carries 1 to 16 segment lists";
  if (depth == 0 || depth > 6) return "a segment list holds 1 to 6 labels";
  if (labels == 0 || labels > 1000000) return "the label pool holds 1 to 1,000,000 labels";
  if (topLabelCount() > labels) return "there cannot be more top labels than labels";
  // Binding SIDs 100000 + policy must stay 20-bit labels; policy ids carry 30 index bits.
  if (policies > 900000) return "at most 900,000 policies (their binding SIDs are labels)";
  if (paths() >= (U64{1} << 30)) return "too many candidate paths for 30-bit policy ids";
  return {};
}

U64 Workload::draw(U32 policy, U32 index, U32 what) const {
  return splitmix(splitmix(shape_.seed ^ (U64{policy} << 20) ^ index) + what);
}

PolicyKey Workload::key(U32 policy) const {
  // Four colors per endpoint, endpoints in 10.0.0.0/8.
  Ludd::IpAddr endpoint = Ludd::IpAddr::fromU32(0x0a000000u + policy / 4);
  return PolicyKey(Ludd::IpGenAddr(endpoint), SrTePolicy::Color(100 + policy % 4));
}

Candidate Workload::candidate(U32 policy, U32 index, Overrides const& overrides) const {
  Candidate c;
  c.policy = policy;
  c.index = index;
  c.source = kSources[(policy + index) % kSources.size()];
  c.id = PolicyId::make(c.source, static_cast<U32>(pathNumber(policy, index)) + 1);
  // Distinct within a policy (ten apart, earlier candidates higher) unless a change overrides.
  c.preference =
      100 + 10 * (shape_.candidates - 1 - index) + static_cast<U32>(draw(policy, index, 0) % 10);
  if (auto it = overrides.preference.find(pathNumber(policy, index));
      it != overrides.preference.end()) {
    c.preference = it->second;
  }
  c.routerId = 0xc0a80001u + index;
  U32 const tops = shape_.topLabelCount();
  c.lists.resize(shape_.lists);
  for (U32 l = 0; l < shape_.lists; ++l) {
    List& list = c.lists[l];
    U64 r = draw(policy, index, 1 + l);
    list.depth = shape_.depth;
    list.weight = 1 + static_cast<U32>(r % 4);
    list.labels[0] = topLabel(static_cast<U32>((r >> 8) % tops));
    for (U32 d = 1; d < shape_.depth; ++d) {
      U64 rd = draw(policy, index, 100 + l * 8 + d);
      list.labels[d] = poolLabel(static_cast<U32>(rd % shape_.labels));
    }
  }
  return c;
}

SrTePolicy::PolicyInputEntry Workload::record(Candidate const& c) const {
  SrTePolicy::PolicyInputEntry e(c.id);
  PolicyKey const k = key(c.policy);
  e.endpointIs(k.endpoint());
  e.colorIs(k.color());
  e.preferenceIs(SrTePolicy::Preference(c.preference));
  e.routerIdIs(Ludd::IpAddr::fromU32(c.routerId));
  e.bindingSidIs(Ludd::MplsLabel(bindingSid(c.policy)));
  for (List const& list : c.lists) {
    Ludd::MplsLabelOperation stack;
    for (U32 d = 0; d < list.depth; ++d)
      stack.labelIs(Ludd::MplsStackEntryIndex(d), Ludd::MplsLabel(list.labels[d]));
    stack.sizeIs(list.depth);
    e.segmentListPush(SrTePolicy::WeightedSegList(SrTePolicy::Weight(list.weight), stack));
  }
  return e;
}

std::vector<List> Workload::resolvedLists(Candidate const& c, Overrides const& overrides) const {
  std::vector<List> out;
  for (List const& list : c.lists) {
    if (overrides.unroutedTops.count(list.labels[0]) != 0) continue;
    auto same = std::find(out.begin(), out.end(), list);
    if (same != out.end()) {
      same->weight = list.weight;
    } else {
      out.push_back(list);
    }
  }
  return out;
}

bool Workload::names(Candidate const& candidate, List const& list) {
  return std::find(candidate.lists.begin(), candidate.lists.end(), list) != candidate.lists.end();
}

std::optional<Candidate> Workload::active(U32 policy, Overrides const& overrides) const {
  std::optional<Candidate> best;
  for (U32 i = 0; i < shape_.candidates; ++i) {
    if (overrides.removed.count(pathNumber(policy, i)) != 0) continue;
    Candidate c = candidate(policy, i, overrides);
    if (resolvedLists(c, overrides).empty()) continue;
    if (!best || ranksBefore(c, *best)) best = std::move(c);
  }
  return best;
}

Expected Workload::expected(Overrides const& overrides) const {
  Expected out;
  std::vector<std::pair<U64, U64>> stacks;
  stacks.reserve(shape_.paths() * shape_.lists);
  std::vector<bool> labelUsed(shape_.labels, false);
  for (U32 p = 0; p < shape_.policies; ++p) {
    std::optional<Candidate> best;
    std::vector<List> bestLists;
    bool anyPresent = false;
    for (U32 i = 0; i < shape_.candidates; ++i) {
      if (overrides.removed.count(pathNumber(p, i)) != 0) continue;
      anyPresent = true;
      ++out.paths;
      Candidate c = candidate(p, i, overrides);
      for (std::size_t l = 0; l < c.lists.size(); ++l) {
        List const& list = c.lists[l];
        if (std::find(c.lists.begin(), c.lists.begin() + static_cast<std::ptrdiff_t>(l), list) ==
            c.lists.begin() + static_cast<std::ptrdiff_t>(l)) {
          ++out.listUses;
        }
        stacks.push_back(stackKey(list));
        for (U32 d = 0; d < list.depth; ++d)
          labelUsed[list.labels[d] - poolLabel(0)] = true;
      }
      std::vector<List> resolved = resolvedLists(c, overrides);
      if (resolved.empty()) continue;
      ++out.eligible;
      if (!best || ranksBefore(c, *best)) {
        best = std::move(c);
        bestLists = std::move(resolved);
      }
    }
    if (anyPresent) ++out.policyKeys;
    if (best) {
      ++out.published;
      out.vias += bestLists.size();
    }
  }
  std::sort(stacks.begin(), stacks.end());
  stacks.erase(std::unique(stacks.begin(), stacks.end()), stacks.end());
  out.segmentLists = stacks.size();
  for (auto const& stack : stacks) {
    List const list = stackOf(stack);
    if (overrides.unroutedTops.count(list.labels[0]) == 0) ++out.resolvedLists;
    for (U32 d = 0; d < list.depth; ++d) {
      auto const begin = list.labels.begin();
      if (std::find(begin, begin + d, list.labels[d]) == begin + d) ++out.segmentLinks;
    }
  }
  out.segments = static_cast<U64>(std::count(labelUsed.begin(), labelUsed.end(), true));
  for (U32 i = 0; i < shape_.topLabelCount(); ++i) {
    if (labelUsed[i] && overrides.unroutedTops.count(topLabel(i)) == 0) ++out.resolvedSegments;
  }
  return out;
}

}  // namespace SrTeScale
