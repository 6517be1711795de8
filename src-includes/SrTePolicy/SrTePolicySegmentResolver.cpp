#include "SrTePolicy/SrTePolicySegmentResolver.h"

#include "Flicker/Flicker.h"
#include "Ludd/IntfId.h"
#include "SrTePolicy/SrTePolicySegment.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {
Flicker::TraceHandle traceHandle("SrTePolicySegmentResolver");
constexpr U32 kFirstSource = 1;
constexpr U32 kLastSource = 255;
}  // namespace

Mosk::Ptr<SegmentResolveResult const> SegmentResolver::resolveSegmentMpls(
    Ludd::MplsLabel label) const {
  SRTE_TRACE2(traceHandle, TraceLevel::resolution, "resolveSegmentMpls",
              "resolveSegmentMpls label " << label.value());
  // The label's routes in ascending source order: the same routes, in the same order, as
  // looking each source up in turn, without probing the sources that have none.
  for (auto c = mplsStatus_->lfibRouteIterOfLabel(label); c && c.key().topLabel() == label; ++c) {
    U32 const source = c.key().source().value();
    if (source < kFirstSource || source > kLastSource) continue;
    Mpls::LFib::Route const route = c.value();
    if (skipMplsRouteForResolution(route)) continue;
    return Mosk::Ptr<SegmentResolveResult const>(new SegmentResolveResult(route.adjacencyKey()));
  }
  return nullptr;
}

Mosk::Ptr<SegmentResolveResult const> SegmentResolver::resolveSegmentMplsOnLfibRoute(
    Ludd::MplsLabel label, Mpls::LFib::Route const& route) const {
  SRTE_TRACE2(traceHandle, TraceLevel::resolution, "resolveSegmentMplsOnLfibRoute",
              "resolveSegmentMplsOnLfibRoute label " << label.value());
  if (skipMplsRouteForResolution(route)) return nullptr;
  return Mosk::Ptr<SegmentResolveResult const>(new SegmentResolveResult(route.adjacencyKey()));
}

bool SegmentResolver::skipMplsRouteForResolution(Mpls::LFib::Route const& route) const {
  Mpls::RouteKey const& key = route.key();
  U32 label = key.topLabel().value();
  U32 source = key.source().value();
  SRTE_TRACE2(traceHandle, TraceLevel::resolution, key,
              "skipMplsRouteForResolution label " << label << " source " << source);
  if (route.routeType() == Mpls::LFib::RouteType::pseudowire) {
    SRTE_TRACE2(traceHandle, TraceLevel::skip, "Skipping resolution via pseudowire " << key,
                "Skipping resolution via pseudowire label " << label << " source " << source);
    return true;
  }
  if (route.adjacencyKey().kind() != Mpls::AdjacencyKind::viaSet) return false;
  std::optional<Mpls::ViaSet> vias = mplsStatus_->viaSet(route.adjacencyKey().index());
  if (!vias) return false;
  for (Mpls::Via const& via : *vias) {
    if (FecIdIntfId::isNexthopGroupIdIntfId(via.intf())) {
      SRTE_TRACE2(traceHandle, TraceLevel::skip, "Skipping resolution via NHG " << key,
                  "Skipping resolution via nhg label " << label << " source " << source);
      return true;
    }
    if (DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf())) {
      SRTE_TRACE2(traceHandle, TraceLevel::skip, "Skipping resolution via dynamic tunnel " << key,
                  "Skipping resolution via dynamic tunnel label " << label << " source " << source);
      return true;
    }
  }
  return false;
}

}  // namespace SrTePolicy
