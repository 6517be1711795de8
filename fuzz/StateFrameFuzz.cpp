// The reader's side of the state socket (srte-show): frames as they come off the socket, applied
// to copies that already hold a genuine agent's state. The input is a run of frames (an 8-byte
// header, then the body it announces). A header is taken or refused whole; a body is applied
// whole or refused by one of the runtime's errors, and a refused body must leave every copy as it
// was: what the reader shows (the explanation srte-show prints) does not change. Whatever the
// copies end up holding, explaining them must not fail. A `refused` frame's reason is read as
// srte-show reads it: refused by a runtime error, or text of at most maxRefusal bytes without a
// control character; and applied to the copies it is refused like any frame without state.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"
#include "StateExplain.h"
#include "StateSync.h"

namespace {

using SrTeStateSync::Channel;
using SrTeStateSync::FrameKind;

// A small network: two sources competing for one policy, a second policy with two lists, an
// IPv6 next hop, a static policy and binding SIDs, so every channel carries something.
constexpr char kScenario[] = R"({
  "platform": {
    "adjacencies": [
      {"index": 1, "vias": [{"interface": "Ethernet1", "nextHop": "10.0.0.2", "label": 16001}]},
      {"index": 2, "vias": [{"interface": "Ethernet2", "nextHop": "fe80::2", "action": "pop"},
                            {"interface": "Ethernet3", "nextHop": "10.0.3.2", "label": 3}]}
    ],
    "routes": [{"label": 16001, "adjacency": 1}, {"label": 16002, "adjacency": 2}]
  },
  "config": {"policies": [{"endpoint": "192.0.2.9", "color": 7, "bindingSid": 930001,
    "candidatePaths": [{"preference": 200, "segmentLists": [{"labels": [16002, 40]}]}]}]},
  "sources": {
    "bgp": {"candidates": [
      {"endpoint": "192.0.2.1", "color": 100, "preference": 100, "bindingSid": 900001,
       "segmentLists": [{"labels": [16001, 20], "weight": 2}, {"labels": [16002]}]}]},
    "pcep": {"candidates": [
      {"endpoint": "192.0.2.1", "color": 100, "preference": 50,
       "segmentLists": [{"labels": [16002, 30]}]},
      {"endpoint": "2001:db8::1", "color": 5, "bindingSid": 910001,
       "segmentLists": [{"labels": [16001]}, {"labels": [17000]}]}]}
  }
})";

struct Genuine {
  std::unique_ptr<SrTeScenario::ScenarioRunner> runner;
  Mosk::Ptr<SrTePolicy::Status> status = SrTePolicy::statusFactory("Status");
  Mosk::Ptr<SrTePolicy::ColorDscpMap> dscp = SrTePolicy::colorDscpMapFactory("ColorDscpMap");
  std::array<std::vector<U8>, SrTeStateSync::kChannels> snapshots;

  Genuine() {
    runner = std::make_unique<SrTeScenario::ScenarioRunner>(
        SrTeScenario::readScenarioText(kScenario, "state-frame.json"));
    runner->start();
    runner->finish();
    // Copies of an empty agent would leave most of the readers' code unvisited.
    Fuzz::check(!runner->failed() && runner->agent().policyStatus()->statusCount() == 3 &&
                    runner->agent().bsidLfib()->lfibRouteCount() == 3,
                "the genuine agent did not publish its three policies");
    status->agentEnabledIs(true);
    dscp->colorToDscpIs(SrTePolicy::Color(100))->dscpIs(Qos::Dscp(46), true);
    auto feeds =
        SrTeStateSync::feedsOf(SrTeStateSync::servedStateOf(runner->agent(), status, dscp));
    for (std::size_t c = 0; c < feeds.size(); ++c)
      if (feeds[c]) snapshots[c] = feeds[c]->snapshot();
  }
};

Genuine const& genuine() {
  static Genuine const g;
  return g;
}

std::string shown(SrTeStateSync::MountedState const& m) {
  std::string s = SrTeView::explainState(m.view(), true).dump();
  s += m.status()->agentEnabled() ? " enabled" : " disabled";
  s += " dscp colors " + std::to_string(m.colorDscpMap()->colorToDscpCount());
  return s;
}

// Applies `body` as a frame of `channel`; a refusal must leave what the reader shows alone.
void applyChecked(SrTeStateSync::MountedState& m, std::string& before, Channel channel,
                  FrameKind kind, U8 const* body, std::size_t length) {
  if (Fuzz::refused([&] { m.apply(channel, kind, body, length); })) {
    Fuzz::check(shown(m) == before, std::string("a refused frame of channel ") +
                                        SrTeStateSync::channelName(channel) +
                                        " changed what the reader shows");
  } else {
    before = shown(m);
  }
}

}  // namespace

// Input, first byte even: a run of raw frames. First byte odd: a genuine snapshot body of the
// channel named by the second byte, cut to the length of the next two bytes (0: not cut) and
// edited by the (offset, offset, value) triples that follow, applied as a snapshot or, when the
// first byte's second bit is set, as a delta.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Genuine const& g = genuine();
  SrTeStateSync::MountedState m("fuzz");
  for (std::size_t c = 0; c < g.snapshots.size(); ++c) {
    std::vector<U8> const& body = g.snapshots[c];
    if (!body.empty())
      m.apply(static_cast<Channel>(c), FrameKind::snapshot, body.data(), body.size());
  }
  std::string before = shown(m);
  if (size == 0) return 0;

  if (data[0] & 1) {
    if (size < 4) return 0;
    Channel const channel = static_cast<Channel>(data[1] % SrTeStateSync::kChannels);
    std::vector<U8> body = g.snapshots[static_cast<std::size_t>(channel)];
    std::size_t const cut = std::size_t(data[2]) << 8 | data[3];
    if (cut != 0 && cut < body.size()) body.resize(cut);
    for (std::size_t at = 4; at + 3 <= size && !body.empty(); at += 3)
      body[(std::size_t(data[at]) << 8 | data[at + 1]) % body.size()] = data[at + 2];
    FrameKind const kind = (data[0] & 2) ? FrameKind::delta : FrameKind::snapshot;
    applyChecked(m, before, channel, kind, body.data(), body.size());
    return 0;
  }

  std::size_t at = 1;
  while (size - at >= SrTeStateSync::FrameHeader::size) {
    SrTeStateSync::FrameHeader header;
    if (Fuzz::refused([&] { header = SrTeStateSync::readFrameHeader(data + at); })) break;
    at += SrTeStateSync::FrameHeader::size;
    std::size_t const length = std::min<std::size_t>(header.bodyLength, size - at);
    if (header.kind == FrameKind::refused) {
      std::string why;
      if (!Fuzz::refused([&] { why = SrTeStateSync::readRefusal(data + at, length); })) {
        Fuzz::check(why.size() == length && why.size() <= SrTeStateSync::maxRefusal,
                    "a refusal's reason of another length than its body");
        for (char c : why)
          Fuzz::check(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f,
                      "a control character in a refusal's reason");
      }
    }
    applyChecked(m, before, header.channel, header.kind, data + at, length);
    at += length;
  }
  return 0;
}
