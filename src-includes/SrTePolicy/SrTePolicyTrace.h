// What the library's trace points share: the named trace levels, and the one way an endpoint
// is written into a binary trace record.
//
// Every component traces through its own handle (declared in its source file); the level of a
// trace point says what kind of event it reports, so that one level switched on gives the same
// kind of events from every component.
#pragma once

#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTePolicy::TraceLevel {

// A resolution skipped, or an input record refused.
inline constexpr U32 skip = 4;
// A binding-SID LFIB entry added or removed.
inline constexpr U32 lfibEntry = 5;
// Per-policy and per-list events: a candidate filed, moved or removed, a new active candidate,
// a publication or withdrawal, a list's status and tunnel written or removed.
inline constexpr U32 event = 6;
// The steps of resolving a segment against the LFIB.
inline constexpr U32 resolution = 7;
// A segment or segment list entering or leaving its dedup table.
inline constexpr U32 lifetime = 8;
// Function entry, registrations, bookmarks and slices: the most detailed level.
inline constexpr U32 detail = 9;

}  // namespace SrTePolicy::TraceLevel

namespace SrTePolicy {

// An endpoint in a binary trace record, which holds raw numbers only: trace points write
//   endpointWord(e, 0) << ":" << endpointWord(e, 1)
// the first and the second eight of its sixteen address bytes, each read most significant
// byte first. An IPv4 endpoint fills the top four bytes of the first word; the rest is zero.
inline U64 endpointWord(EndPoint const& endpoint, U32 half) {
  U64 out = 0;
  for (U32 i = 0; i < 8; ++i)
    out = out << 8 | endpoint.bytes()[half * 8 + i];
  return out;
}

}  // namespace SrTePolicy
