// The policy change that the replication benchmarks send: an EcPolicy of N policies with two
// candidates each, and one step of a selection run (a policy switches its active candidate and
// the new one's segment list gets another weight). ReplicationBench times it through the
// attribute log in one process, StateSyncBench over the state socket.
#pragma once

#include "SrTePolicy/SrTePolicyEntry.h"

namespace SrTeBench {

inline SrTePolicy::PolicyKey policyKey(U32 i) {
  return SrTePolicy::PolicyKey(Ludd::IpGenAddr(Ludd::IpAddr::fromU32(0x0a000000 + i)),
                               SrTePolicy::Color(i % 7));
}

inline SrTePolicy::Priority priority(U32 pref, U32 id) {
  return SrTePolicy::Priority(SrTePolicy::Preference(pref), SrTePolicy::PolicySource::sourceBgp,
                              Ludd::IpAddr::fromU32(1), id);
}

// N policies, each with candidates of preference 100 and 101, the second one active.
inline Mosk::Ptr<SrTePolicy::EcPolicy> ecPolicyOfTwoCandidates(U32 n) {
  using namespace SrTePolicy;
  auto source = ecPolicyFactory("EcPolicy");
  for (U32 i = 0; i < n; ++i) {
    auto policy = source->policyIs(policyKey(i));
    for (U32 c = 0; c < 2; ++c) {
      auto entry = policy->candidateIs(priority(100 + c, i * 2 + c));
      entry->bindingSidIs(Ludd::MplsLabel(1000 + i));
      entry->wSegmentListIs(SegmentListId(i),
                            WeightedSegmentList(Tunnel::TunnelTable::TunnelId(i + 1), Weight(1)));
    }
    policy->activeIs(policy->candidate(priority(101, i * 2 + 1)));
  }
  return source;
}

// Change number `i`: the policy it picks (spread over the table) moves to its other candidate,
// whose segment list takes a weight of 1 to 5. Returns the policy's key.
inline SrTePolicy::PolicyKey changeOnePolicy(SrTePolicy::EcPolicy& source, U32 n, U32 i) {
  using namespace SrTePolicy;
  U32 k = (i * 7919) % n;
  auto policy = source.policy(policyKey(k));
  bool onSecond = policy->active()->priority().preference() == Preference(101);
  auto next = onSecond ? policy->candidate(priority(100, k * 2))
                       : policy->candidate(priority(101, k * 2 + 1));
  next->wSegmentListIs(SegmentListId(k), WeightedSegmentList(Tunnel::TunnelTable::TunnelId(k + 1),
                                                             Weight(i % 5 + 1)));
  policy->activeIs(next);
  return policyKey(k);
}

}  // namespace SrTeBench
