// The state an agent serves to the processes that mount it over a Unix-domain stream socket:
// the served entities (channels), the frames that carry them, and the feeds that turn each
// entity into snapshot and delta bodies on the agent's side and back into a copy on the
// reader's side.
//
// Frame: an 8-byte header (body length u32, magic 0x53, version 1, kind, channel), then the
// body. A new reader gets one snapshot frame per served channel, then a `ready` frame (its
// copies now hold the whole state), then delta frames as the agent changes. A reader the agent
// does not serve (too many are connected) gets one `refused` frame, whose body is the reason
// as text, and the connection ends. Entities declared
// `replicated` travel as attribute logs (Mosk/Replication.h); the forwarding status tables and
// the directory of segment lists, which are not model entities of that kind, travel in a small
// keyed form of their own with the same rules: numbered deltas, each key sent with its state
// at the flush, a snapshot numbered with the last delta it contains, applying idempotent and
// whole or not at all.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mosk/Replication.h"
#include "Mpls/MplsStatus.h"
#include "Skerry/ForwardingStatus.h"
#include "SrTePolicy/SrTeColorDscpMap.h"
#include "SrTePolicy/SrTePolicy.h"
#include "SrTePolicy/SrTePolicyExportTypes.h"
#include "SrTePolicy/SrTePolicyStatic.h"
#include "SrTePolicyAgent.h"
#include "StateExplain.h"

namespace SrTeStateSync {

// The served entities, in the order a new reader receives their snapshots.
enum class Channel : U8 {
  status,
  config,
  colorDscpMap,
  selectionInput,
  keyToIdMap,
  ecPolicy,
  segmentStatus,
  segmentListStatus,
  policyStatus,
  exportedSegmentLists,
  tunnelTable,
  lfib,
  bsidLfib,
  forwardingStatus,
  forwarding6Status,
  srteFwdStatus,
  segmentLists,
  policyActivity,
};
inline constexpr std::size_t kChannels = 18;
// "status", "config", ..., as srte-show and the errors name them.
char const* channelName(Channel c);

enum class FrameKind : U8 { snapshot = 1, delta = 2, ready = 3, refused = 4 };

struct FrameHeader {
  static constexpr std::size_t size = 8;
  static constexpr U8 magic = 0x53;
  static constexpr U8 version = 1;
  // A longer body is refused as garbage rather than allocated.
  static constexpr U32 maxBody = 256u << 20;
  U32 bodyLength = 0;
  FrameKind kind = FrameKind::delta;
  Channel channel = Channel::status;
};
// A whole frame: header and body.
std::vector<U8> frame(FrameKind kind, Channel channel, std::vector<U8> const& body);
// Decodes a header; a wrong magic or version, an unknown kind or channel or an oversized body
// raises Mosk::LogFormatException naming what is wrong.
FrameHeader readFrameHeader(U8 const* bytes);
// The reason a `refused` frame's body gives, with control characters shown as '?'; a body
// longer than maxRefusal bytes raises Mosk::LogFormatException.
inline constexpr std::size_t maxRefusal = 1024;
std::string readRefusal(U8 const* body, std::size_t size);

// Where srte-agent serves and srte-show looks: $XDG_RUNTIME_DIR/srte-agent.sock, else a
// directory of the user's own: /run/srte-agent/srte-agent.sock for root,
// /tmp/srte-agent-UID/srte-agent.sock for others.
std::string defaultSocketPath();

// The agent's side: the entities to serve. Null entries are not served.
struct ServedState {
  Mosk::Ptr<SrTePolicy::Status const> status;
  Mosk::Ptr<SrTePolicy::Config const> config;
  Mosk::Ptr<SrTePolicy::ColorDscpMap const> colorDscpMap;
  Mosk::Ptr<SrTePolicy::PolicySelectionInput const> selectionInput;
  Mosk::Ptr<SrTePolicy::PolicyKeyToIdMap const> keyToIdMap;
  Mosk::Ptr<SrTePolicy::EcPolicy const> ecPolicy;
  Mosk::Ptr<SrTePolicy::SegmentStatus const> segmentStatus;
  Mosk::Ptr<SrTePolicy::SegmentListStatus const> segmentListStatus;
  Mosk::Ptr<SrTePolicy::PolicyStatus const> policyStatus;
  Mosk::Ptr<SrTePolicy::Export::SegmentListCollection const> exportedSegmentLists;
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable const> tunnelTable;
  Mosk::Ptr<Mpls::Status const> lfib;
  Mosk::Ptr<Mpls::Status const> bsidLfib;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> forwardingStatus;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus const> forwarding6Status;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus const> srteFwdStatus;
  Mosk::Ptr<SrTePolicy::SegmentListIdToPolicyMap const> segmentListUsers;
  Mosk::Ptr<SrTePolicy::PolicyActivity const> policyActivity;
};
// Everything `agent` holds that a reader shows; `status` and `colorDscpMap` are the host's.
ServedState servedStateOf(SrTePolicy::SrTePolicyAgent const& agent,
                          Mosk::Ptr<SrTePolicy::Status const> status = nullptr,
                          Mosk::Ptr<SrTePolicy::ColorDscpMap const> colorDscpMap = nullptr);

// The writer of one channel: a snapshot for a reader that connects, and at each flush the
// delta of what changed since the previous one (empty when nothing did).
class Feed {
 public:
  virtual ~Feed() = default;
  virtual std::vector<U8> snapshot() const = 0;
  virtual std::vector<U8> flush() = 0;
};
// The feeds of every non-null entity of `served`, by channel (null where not served).
std::array<std::unique_ptr<Feed>, kChannels> feedsOf(ServedState const& served);

// The reader's side: fresh copies of every channel, fed by frames. A copy is read-only
// (writing a mounted entity raises the runtime's internal error); the forwarding tables and
// the directory are plain copies that only apply() writes.
class MountedState {
 public:
  // `peer` names the agent in the read-only errors.
  explicit MountedState(std::string const& peer);
  ~MountedState();
  MountedState(MountedState const&) = delete;
  MountedState& operator=(MountedState const&) = delete;

  // Applies one frame body of `channel`, whole or not at all: a malformed or out-of-order
  // body raises (Mosk::LogFormatException, or the range error of a value) and changes nothing.
  void apply(Channel channel, FrameKind kind, U8 const* body, std::size_t size);
  // Whether a snapshot of `channel` has arrived.
  bool served(Channel channel) const { return served_[static_cast<std::size_t>(channel)]; }

  // The view the explanation reads (StateExplain.h), over these copies.
  SrTeView::StateView view() const;

  Mosk::Ptr<SrTePolicy::Status> const& status() const { return status_; }
  Mosk::Ptr<SrTePolicy::Config> const& config() const { return config_; }
  Mosk::Ptr<SrTePolicy::ColorDscpMap> const& colorDscpMap() const { return colorDscpMap_; }
  Mosk::Ptr<SrTePolicy::EcPolicy> const& ecPolicy() const { return ecPolicy_; }
  Mosk::Ptr<SrTePolicy::PolicyStatus> const& policyStatus() const { return policyStatus_; }
  Mosk::Ptr<SrTePolicy::Export::SegmentListCollection> const& exportedSegmentLists() const {
    return exported_;
  }
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const& forwardingStatus() const { return fwd_; }
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> const& srteFwdStatus() const { return srteFwd_; }
  SrTeView::SegmentListDirectory const& segmentLists() const { return segmentLists_; }
  Mosk::Ptr<SrTePolicy::PolicyActivity> const& policyActivity() const { return activity_; }

 private:
  struct Sink;
  struct LogSink;
  template <class Table>
  struct FecSink;
  struct DirectorySink;

  Mosk::Ptr<SrTePolicy::Status> status_;
  Mosk::Ptr<SrTePolicy::Config> config_;
  Mosk::Ptr<SrTePolicy::ColorDscpMap> colorDscpMap_;
  Mosk::Ptr<SrTePolicy::PolicySelectionInput> selectionInput_;
  Mosk::Ptr<SrTePolicy::PolicyKeyToIdMap> keyToIdMap_;
  Mosk::Ptr<SrTePolicy::EcPolicy> ecPolicy_;
  Mosk::Ptr<SrTePolicy::SegmentStatus> segmentStatus_;
  Mosk::Ptr<SrTePolicy::SegmentListStatus> segmentListStatus_;
  Mosk::Ptr<SrTePolicy::PolicyStatus> policyStatus_;
  Mosk::Ptr<SrTePolicy::Export::SegmentListCollection> exported_;
  Mosk::Ptr<Tunnel::TunnelTable::SrTeSegmentListTunnelTable> tunnelTable_;
  Mosk::Ptr<Mpls::Status> lfib_;
  Mosk::Ptr<Mpls::Status> bsidLfib_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> fwd_;
  Mosk::Ptr<Skerry::Fib6::ForwardingStatus> fwd6_;
  Mosk::Ptr<Skerry::Fib::ForwardingStatus> srteFwd_;
  SrTeView::SegmentListDirectory segmentLists_;
  Mosk::Ptr<SrTePolicy::PolicyActivity> activity_;
  Mosk::Ptr<SrTePolicy::SegmentResolver> resolver_;

  std::array<std::unique_ptr<Sink>, kChannels> sinks_;
  std::array<bool, kChannels> served_{};
};

}  // namespace SrTeStateSync
