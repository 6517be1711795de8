// Resolution of segments against the MPLS label forwarding table.
//
// SegmentResolver finds the LFIB route of a segment's label and returns the adjacency that the
// route points at. Of several routes for one label (one per route source), the one of the
// numerically lowest source that is usable wins; source 0 is never used. Routes whose
// forwarding cannot carry a policy's segments are skipped: pseudowire routes, and routes over
// a via set that goes through a next-hop group or a dynamic tunnel.
#pragma once

#include "Mosk/Ptr.h"
#include "Mpls/MplsStatus.h"

namespace SrTePolicy {

// A successful resolution: the adjacency key copied from the chosen route. Immutable; a failed
// resolution is a null pointer, never a result.
class SegmentResolveResult : public Mosk::PtrInterface {
 public:
  explicit SegmentResolveResult(Mpls::AdjacencyKey const& adjKey) : adjKey_(adjKey) {}
  Mpls::AdjacencyKey const& adjKey() const { return adjKey_; }

 private:
  Mpls::AdjacencyKey const adjKey_;
};

class SegmentResolver : public Mosk::PtrInterface {
 public:
  explicit SegmentResolver(Mosk::Ptr<Mpls::Status const> mplsStatus)
      : mplsStatus_(std::move(mplsStatus)) {}

  Mosk::Ptr<Mpls::Status const> const& mplsStatus() const { return mplsStatus_; }

  // Tries the route sources 1 to 255 in order; the first usable route wins. Null when none is.
  Mosk::Ptr<SegmentResolveResult const> resolveSegmentMpls(Ludd::MplsLabel label) const;
  // Judges the one given route, which the caller matched to the label. Null when skipped.
  Mosk::Ptr<SegmentResolveResult const> resolveSegmentMplsOnLfibRoute(
      Ludd::MplsLabel label, Mpls::LFib::Route const& route) const;
  // Whether the route must not be used to resolve a segment.
  bool skipMplsRouteForResolution(Mpls::LFib::Route const& route) const;

 private:
  Mosk::Ptr<Mpls::Status const> const mplsStatus_;
};

inline Mosk::Ptr<SegmentResolver> segmentResolverFactory(Mosk::Ptr<Mpls::Status const> status) {
  return Mosk::Ptr<SegmentResolver>(new SegmentResolver(std::move(status)));
}

}  // namespace SrTePolicy
