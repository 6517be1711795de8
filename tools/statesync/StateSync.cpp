// Frames, the feeds of the served channels and the reader's copies (StateSync.h).
//
// Keyed body (forwarding tables, segment-list directory):
//   u32 sequence, u8 whole (1: the entries are the whole table, others are gone), u32 count,
//   then per entry its key, a presence byte and, when present, its content:
//   FEC    u64 id; u32 via count, the vias in their attribute-log form
//   list   u32 id; u8 label count, per label u32 label and u32 segment id; u32 user count,
//          the users' policy ids
#include "StateSync.h"

#include <unistd.h>

#include <cstdlib>
#include <set>

#include "SrTePolicy/SrTePolicySegmentResolver.h"

namespace SrTeStateSync {

using Mosk::LogReader;
using Mosk::LogWriter;
using Mosk::Ptr;

namespace {

constexpr std::array<char const*, kChannels> kChannelNames = {
    "status",
    "config",
    "colorDscpMap",
    "policySelectionInput",
    "policyKeyToIdMap",
    "ecPolicy",
    "segmentStatus",
    "segmentListStatus",
    "policyStatus",
    "exportedSegmentLists",
    "srTeSegmentListTunnelTable",
    "lfib",
    "bindingSidLfib",
    "forwardingStatus",
    "forwarding6Status",
    "srTePolicyFecs",
    "segmentLists",
    "policyActivity",
};

std::size_t slot(Channel c) {
  return static_cast<std::size_t>(c);
}

[[noreturn]] void refuse(std::string const& what) {
  throw Mosk::LogFormatException("state frame: " + what);
}

// A replicated entity: its attribute log.
class LogFeed final : public Feed {
 public:
  explicit LogFeed(Ptr<Mosk::LogAdapter> adapter) : adapter_(std::move(adapter)) {
    adapter_->activate();
  }
  std::vector<U8> snapshot() const override { return adapter_->snapshot(); }
  std::vector<U8> flush() override { return adapter_->flush(); }

 private:
  Ptr<Mosk::LogAdapter> adapter_;
};

template <class E>
std::unique_ptr<Feed> logFeed(Ptr<E const> const& root) {
  if (!root) return nullptr;
  return std::make_unique<LogFeed>(Mosk::logAdapterFactory(root));
}

// The part of a keyed feed that numbers deltas and marks keys; `Derived` writes one entry.
template <class Key>
class KeyedFeed : public Feed {
 public:
  std::vector<U8> snapshot() const override {
    LogWriter w;
    w.u32(sequence_);
    w.u8(1);
    std::size_t at = w.placeholderU32();
    U32 n = writeAll(w);
    w.patchU32(at, n);
    return w.take();
  }
  std::vector<U8> flush() override {
    if (!whole_ && dirty_.empty()) return {};
    LogWriter w;
    w.u32(++sequence_);
    w.u8(whole_ ? 1 : 0);
    std::size_t at = w.placeholderU32();
    U32 n = 0;
    if (whole_) {
      n = writeAll(w);
    } else {
      for (Key const& k : dirty_) {
        writeEntry(w, k);
        ++n;
      }
    }
    w.patchU32(at, n);
    dirty_.clear();
    whole_ = false;
    return w.take();
  }

 protected:
  void mark(Key const& k) { dirty_.insert(k); }
  void markWhole() { whole_ = true; }
  // Writes every present entry; returns how many.
  virtual U32 writeAll(LogWriter& w) const = 0;
  // Writes the key, its presence and, when present, its content.
  virtual void writeEntry(LogWriter& w, Key const& k) const = 0;

 private:
  std::set<Key> dirty_;
  bool whole_ = false;
  U32 sequence_ = 0;
};

void writeFec(LogWriter& w, Fib::Fec const& fec) {
  w.u32(fec.viaCount());
  for (Fib::Via const& v : fec)
    Mosk::logWrite(w, v);
}

template <class Table>
class FecFeed final : public KeyedFeed<Fib::FecId> {
 public:
  explicit FecFeed(Ptr<Table const> table) : table_(std::move(table)) {
    watcher_ = Ptr<Watcher>(new Watcher(*this));
    watcher_->notifierIs(table_);
  }

 private:
  struct Watcher final : Table::NotifieeConst {
    explicit Watcher(FecFeed& f) : feed(f) {}
    void onFec(Fib::FecId const& id) override { feed.mark(id); }
    void onFec() override { feed.markWhole(); }
    FecFeed& feed;
  };

  U32 writeAll(LogWriter& w) const override {
    U32 n = 0;
    for (auto it = table_->fecIter(); it; ++it) {
      writeEntry(w, it.key());
      ++n;
    }
    return n;
  }
  void writeEntry(LogWriter& w, Fib::FecId const& id) const override {
    Mosk::logWrite(w, id);
    Fib::Fec const& fec = table_->fec(id);
    bool present = fec.fecId() == id;
    w.u8(present ? 1 : 0);
    if (present) writeFec(w, fec);
  }

  Ptr<Table const> table_;
  Ptr<Watcher> watcher_;
};

void writeListInfo(LogWriter& w, SrTeView::SegmentListInfo const& info) {
  w.u8(static_cast<U8>(info.labels.size()));
  for (std::size_t i = 0; i < info.labels.size(); ++i) {
    w.u32(info.labels[i]);
    w.u32(info.segmentIds[i]);
  }
  w.u32(static_cast<U32>(info.users.size()));
  for (U32 u : info.users)
    w.u32(u);
}

// The segment lists in use and the candidate paths that use each: a key changes when its
// user entry comes or goes, or when a candidate path starts or stops using it.
class DirectoryFeed final : public KeyedFeed<U32> {
 public:
  explicit DirectoryFeed(Ptr<SrTePolicy::SegmentListIdToPolicyMap const> map)
      : map_(std::move(map)) {
    watcher_ = Ptr<MapWatcher>(new MapWatcher(*this));
    watcher_->notifierIs(map_);
    for (auto it = map_->segmentListUserIterConst(); it; ++it)
      watchUser(it.key());
  }

 private:
  struct MapWatcher final : SrTePolicy::SegmentListIdToPolicyMap::NotifieeConst {
    explicit MapWatcher(DirectoryFeed& f) : feed(f) {}
    void onSegmentListUser(SrTePolicy::SegmentListId const& id) override {
      feed.mark(id.value());
      feed.watchUser(id);
    }
    DirectoryFeed& feed;
  };
  struct UserWatcher final : SrTePolicy::SegmentListUser::NotifieeConst {
    UserWatcher(DirectoryFeed& f, U32 k) : feed(f), key(k) {}
    void onPolicyId(SrTePolicy::PolicyId const&) override { feed.mark(key); }
    DirectoryFeed& feed;
    U32 key;
    SrTePolicy::SegmentListUser const* user = nullptr;
  };

  void watchUser(SrTePolicy::SegmentListId const& id) {
    Ptr<SrTePolicy::SegmentListUser const> user = map_->segmentListUser(id);
    if (!user) {
      users_.erase(id.value());
      return;
    }
    Ptr<UserWatcher>& w = users_[id.value()];
    if (w && w->user == user.ptr()) return;
    w = Ptr<UserWatcher>(new UserWatcher(*this, id.value()));
    w->user = user.ptr();
    w->notifierIs(user);
  }

  U32 writeAll(LogWriter& w) const override {
    U32 n = 0;
    for (auto it = map_->segmentListUserIterConst(); it; ++it) {
      writeEntry(w, it.key().value());
      ++n;
    }
    return n;
  }
  void writeEntry(LogWriter& w, U32 const& id) const override {
    w.u32(id);
    Ptr<SrTePolicy::SegmentListUser const> user =
        map_->segmentListUser(SrTePolicy::SegmentListId(id));
    w.u8(user ? 1 : 0);
    if (user) writeListInfo(w, SrTeView::segmentListInfo(*user));
  }

  Ptr<SrTePolicy::SegmentListIdToPolicyMap const> map_;
  Ptr<MapWatcher> watcher_;
  std::map<U32, Ptr<UserWatcher>> users_;
};

// A decoded keyed body, checked whole before anything is stored.
template <class Key, class Value>
struct KeyedBody {
  U32 sequence = 0;
  bool whole = false;
  std::vector<std::pair<Key, std::optional<Value>>> entries;
};

template <class Key, class Value, class ReadKey, class ReadValue>
KeyedBody<Key, Value> readKeyedBody(U8 const* data, std::size_t size, ReadKey readKey,
                                    ReadValue readValue) {
  LogReader r(data, size);
  KeyedBody<Key, Value> body;
  body.sequence = r.u32("sequence");
  U8 whole = r.u8("whole flag");
  if (whole > 1) r.fail("whole flag " + std::to_string(whole));
  body.whole = whole == 1;
  U32 n = r.u32("entry count");
  // Each entry takes at least five bytes: refuse a count the body cannot hold before reserving.
  if (n > r.remaining() / 5) r.fail("entry count " + std::to_string(n) + " beyond the body");
  std::set<Key> seen;
  for (U32 i = 0; i < n; ++i) {
    Key k = readKey(r);
    if (!seen.insert(k).second) r.fail("a key twice in one body");
    U8 present = r.u8("presence");
    if (present > 1) r.fail("presence " + std::to_string(present));
    if (present) {
      body.entries.emplace_back(k, readValue(r, k));
    } else {
      if (body.whole) r.fail("a removal inside a whole table");
      body.entries.emplace_back(k, std::nullopt);
    }
  }
  if (!r.atEnd()) r.fail(std::to_string(r.remaining()) + " bytes after the last entry");
  return body;
}

}  // namespace

char const* channelName(Channel c) {
  return kChannelNames.at(slot(c));
}

std::vector<U8> frame(FrameKind kind, Channel channel, std::vector<U8> const& body) {
  LogWriter w;
  w.u32(static_cast<U32>(body.size()));
  w.u8(FrameHeader::magic);
  w.u8(FrameHeader::version);
  w.u8(static_cast<U8>(kind));
  w.u8(static_cast<U8>(channel));
  w.bytes(body.data(), body.size());
  return w.take();
}

FrameHeader readFrameHeader(U8 const* bytes) {
  LogReader r(bytes, FrameHeader::size);
  FrameHeader h;
  h.bodyLength = r.u32("frame length");
  U8 magic = r.u8("frame magic");
  U8 version = r.u8("frame version");
  U8 kind = r.u8("frame kind");
  U8 channel = r.u8("frame channel");
  if (magic != FrameHeader::magic) refuse("magic " + std::to_string(magic) + ", not a state frame");
  if (version != FrameHeader::version) refuse("version " + std::to_string(version) + " unknown");
  if (kind < 1 || kind > 4) refuse("kind " + std::to_string(kind) + " unknown");
  if (channel >= kChannels) refuse("channel " + std::to_string(channel) + " unknown");
  if (h.bodyLength > FrameHeader::maxBody) {
    refuse("body of " + std::to_string(h.bodyLength) + " bytes, more than a frame may hold");
  }
  h.kind = static_cast<FrameKind>(kind);
  h.channel = static_cast<Channel>(channel);
  return h;
}

std::string readRefusal(U8 const* body, std::size_t size) {
  if (size > maxRefusal) {
    refuse("refusal of " + std::to_string(size) + " bytes, more than " +
           std::to_string(maxRefusal));
  }
  std::string text(reinterpret_cast<char const*>(body), size);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

std::string defaultSocketPath() {
  char const* dir = std::getenv("XDG_RUNTIME_DIR");
  if (dir != nullptr && *dir != '\0') return std::string(dir) + "/srte-agent.sock";
  // A directory of this user's own: a shared one such as /tmp would let anyone take the name.
  uid_t const uid = ::geteuid();
  if (uid == 0) return "/run/srte-agent/srte-agent.sock";
  return "/tmp/srte-agent-" + std::to_string(uid) + "/srte-agent.sock";
}

ServedState servedStateOf(SrTePolicy::SrTePolicyAgent const& agent,
                          Ptr<SrTePolicy::Status const> status,
                          Ptr<SrTePolicy::ColorDscpMap const> colorDscpMap) {
  ServedState s;
  s.status = std::move(status);
  s.config = agent.config();
  s.colorDscpMap = std::move(colorDscpMap);
  s.selectionInput = agent.policySelectionInput();
  s.keyToIdMap = agent.policyKeyToIdMap();
  s.ecPolicy = agent.ecPolicy();
  s.segmentStatus = agent.segmentStatus();
  s.segmentListStatus = agent.segmentListStatus();
  s.policyStatus = agent.policyStatus();
  s.exportedSegmentLists = agent.exportedSegmentLists();
  s.tunnelTable = agent.tunnelTable();
  s.lfib = agent.mplsStatus();
  s.bsidLfib = agent.bsidLfib();
  s.forwardingStatus = agent.forwardingStatus();
  s.forwarding6Status = agent.forwarding6Status();
  s.srteFwdStatus = agent.srteFwdStatus();
  s.segmentListUsers = agent.segmentListIdToPolicyMap();
  s.policyActivity = agent.policyActivity();
  return s;
}

std::array<std::unique_ptr<Feed>, kChannels> feedsOf(ServedState const& s) {
  std::array<std::unique_ptr<Feed>, kChannels> f;
  f[slot(Channel::status)] = logFeed(s.status);
  f[slot(Channel::config)] = logFeed(s.config);
  f[slot(Channel::colorDscpMap)] = logFeed(s.colorDscpMap);
  f[slot(Channel::selectionInput)] = logFeed(s.selectionInput);
  f[slot(Channel::keyToIdMap)] = logFeed(s.keyToIdMap);
  f[slot(Channel::ecPolicy)] = logFeed(s.ecPolicy);
  f[slot(Channel::segmentStatus)] = logFeed(s.segmentStatus);
  f[slot(Channel::segmentListStatus)] = logFeed(s.segmentListStatus);
  f[slot(Channel::policyStatus)] = logFeed(s.policyStatus);
  f[slot(Channel::exportedSegmentLists)] = logFeed(s.exportedSegmentLists);
  f[slot(Channel::tunnelTable)] = logFeed(s.tunnelTable);
  f[slot(Channel::lfib)] = logFeed(s.lfib);
  f[slot(Channel::bsidLfib)] = logFeed(s.bsidLfib);
  if (s.forwardingStatus) {
    f[slot(Channel::forwardingStatus)] =
        std::make_unique<FecFeed<Skerry::Fib::ForwardingStatus>>(s.forwardingStatus);
  }
  if (s.forwarding6Status) {
    f[slot(Channel::forwarding6Status)] =
        std::make_unique<FecFeed<Skerry::Fib6::ForwardingStatus>>(s.forwarding6Status);
  }
  if (s.srteFwdStatus) {
    f[slot(Channel::srteFwdStatus)] =
        std::make_unique<FecFeed<Skerry::Fib::ForwardingStatus>>(s.srteFwdStatus);
  }
  if (s.segmentListUsers) {
    f[slot(Channel::segmentLists)] = std::make_unique<DirectoryFeed>(s.segmentListUsers);
  }
  f[slot(Channel::policyActivity)] = logFeed(s.policyActivity);
  return f;
}

// ---------------------------------------------------------------------------------------------
// The reader's copies

struct MountedState::Sink {
  virtual ~Sink() = default;
  virtual void apply(FrameKind kind, U8 const* body, std::size_t size) = 0;
};

struct MountedState::LogSink final : Sink {
  explicit LogSink(Ptr<Mosk::LogMount> m) : mount(std::move(m)) {}
  void apply(FrameKind, U8 const* body, std::size_t size) override { mount->apply(body, size); }
  Ptr<Mosk::LogMount> mount;
};

namespace {

template <Ludd::IpGenAddr::Family f>
constexpr Ludd::IpGenAddr::Family familyOf(Skerry::ForwardingStatusOf<f> const*) {
  return f;
}

// The numbering rules of a keyed channel: a snapshot starts over, a delta follows the last.
struct Sequencer {
  void check(FrameKind kind, U32 seq, char const* channel) const {
    if (kind == FrameKind::snapshot) return;
    if (!synced)
      refuse(std::string("delta ") + std::to_string(seq) + " of " + channel +
             " before its snapshot");
    if (seq != last + 1) {
      refuse(std::string("delta ") + std::to_string(seq) + " of " + channel + " after " +
             std::to_string(last));
    }
  }
  void applied(U32 seq) {
    last = seq;
    synced = true;
  }
  U32 last = 0;
  bool synced = false;
};

}  // namespace

template <class Table>
struct MountedState::FecSink final : Sink {
  FecSink(Ptr<Table> t, Channel c) : table(std::move(t)), channel(c) {}
  void apply(FrameKind kind, U8 const* body, std::size_t size) override {
    auto decoded = readKeyedBody<Fib::FecId, Fib::Fec>(
        body, size, [](LogReader& r) { return Mosk::logReadField<Fib::FecId>(r, "fecId"); },
        [](LogReader& r, Fib::FecId const& id) {
          // The table refuses to store a FEC under the empty id: refuse it before anything of
          // the body is stored.
          if (id.isNone()) r.fail("a FEC under the empty FecId");
          Fib::Fec fec(id);
          U32 n = r.u32("via count");
          if (n > Fib::Fec::maxVias) r.fail("via count " + std::to_string(n));
          for (U32 i = 0; i < n; ++i) {
            Fib::Via via = Mosk::logReadField<Fib::Via>(r, "via");
            // The table refuses a next hop of the other family; refuse it here, before
            // anything of the body is stored.
            if (!via.nextHop().isEmpty() &&
                via.nextHop().family() != familyOf(static_cast<Table const*>(nullptr))) {
              r.fail("FEC " + Mosk::valueToStrep(id) + " via of the other address family");
            }
            fec.viaIs(Fib::ViaIndex(i + 1), via);
          }
          fec.viaCountIs(n);
          return fec;
        });
    sequencer.check(kind, decoded.sequence, channelName(channel));
    if (kind == FrameKind::snapshot || decoded.whole) {
      std::set<Fib::FecId> keep;
      for (auto const& [id, fec] : decoded.entries)
        keep.insert(id);
      std::vector<Fib::FecId> gone;
      for (auto it = table->fecIter(); it; ++it) {
        if (!keep.count(it.key())) gone.push_back(it.key());
      }
      for (Fib::FecId const& id : gone)
        table->fecDel(id);
    }
    for (auto const& [id, fec] : decoded.entries) {
      if (!fec) {
        table->fecDel(id);
      } else if (!(table->fec(id) == *fec)) {
        table->fecCommit(*fec);
      }
    }
    sequencer.applied(decoded.sequence);
  }
  Ptr<Table> table;
  Channel channel;
  Sequencer sequencer;
};

struct MountedState::DirectorySink final : Sink {
  explicit DirectorySink(SrTeView::SegmentListDirectory& d) : dir(d) {}
  void apply(FrameKind kind, U8 const* body, std::size_t size) override {
    auto decoded = readKeyedBody<U32, SrTeView::SegmentListInfo>(
        body, size, [](LogReader& r) { return r.u32("segment-list id"); },
        [](LogReader& r, U32 const&) {
          SrTeView::SegmentListInfo info;
          U8 n = r.u8("label count");
          if (n > 6) r.fail("label count " + std::to_string(n) + ", more than a stack holds");
          for (U8 i = 0; i < n; ++i) {
            info.labels.push_back(Mosk::logReadField<Ludd::MplsLabel>(r, "label").value());
            info.segmentIds.push_back(r.u32("segment id"));
          }
          U32 users = r.u32("user count");
          if (users > r.remaining() / 4) r.fail("user count " + std::to_string(users));
          for (U32 i = 0; i < users; ++i)
            info.users.push_back(r.u32("policy id"));
          return info;
        });
    sequencer.check(kind, decoded.sequence, channelName(Channel::segmentLists));
    if (kind == FrameKind::snapshot || decoded.whole) dir.clear();
    for (auto& [id, info] : decoded.entries) {
      if (info) {
        dir[id] = std::move(*info);
      } else {
        dir.erase(id);
      }
    }
    sequencer.applied(decoded.sequence);
  }
  SrTeView::SegmentListDirectory& dir;
  Sequencer sequencer;
};

MountedState::MountedState(std::string const& peer) {
  status_ = SrTePolicy::statusFactory("status");
  config_ = SrTePolicy::configFactory("config");
  colorDscpMap_ = SrTePolicy::colorDscpMapFactory("colorDscpMap");
  selectionInput_ = SrTePolicy::policySelectionInputFactory("policySelectionInput");
  keyToIdMap_ = SrTePolicy::policyKeyToIdMapFactory("policyKeyToIdMap");
  ecPolicy_ = SrTePolicy::ecPolicyFactory("ecPolicy");
  segmentStatus_ = SrTePolicy::segmentStatusFactory("segmentStatus");
  segmentListStatus_ = SrTePolicy::segmentListStatusFactory("segmentListStatus");
  policyStatus_ = SrTePolicy::policyStatusFactory("policyStatus");
  exported_ = SrTePolicy::Export::segmentListCollectionFactory("exportedSegmentLists");
  tunnelTable_ =
      Tunnel::TunnelTable::srTeSegmentListTunnelTableFactory("srTeSegmentListTunnelTable");
  lfib_ = Mpls::statusFactory("lfib");
  bsidLfib_ = Mpls::statusFactory("bindingSidLfib");
  fwd_ = Skerry::Fib::forwardingStatusFactory("forwardingStatus");
  fwd6_ = Skerry::Fib6::forwardingStatusFactory("forwarding6Status");
  srteFwd_ = Skerry::Fib::forwardingStatusFactory("srTePolicyFecs");
  activity_ = SrTePolicy::policyActivityFactory("policyActivity");
  resolver_ = SrTePolicy::segmentResolverFactory(lfib_);

  auto mount = [&](Channel c, auto const& copy) {
    sinks_[slot(c)] = std::make_unique<LogSink>(Mosk::logMountFactory(copy, peer));
  };
  mount(Channel::status, status_);
  mount(Channel::config, config_);
  mount(Channel::colorDscpMap, colorDscpMap_);
  mount(Channel::selectionInput, selectionInput_);
  mount(Channel::keyToIdMap, keyToIdMap_);
  mount(Channel::ecPolicy, ecPolicy_);
  mount(Channel::segmentStatus, segmentStatus_);
  mount(Channel::segmentListStatus, segmentListStatus_);
  mount(Channel::policyStatus, policyStatus_);
  mount(Channel::exportedSegmentLists, exported_);
  mount(Channel::tunnelTable, tunnelTable_);
  mount(Channel::lfib, lfib_);
  mount(Channel::bsidLfib, bsidLfib_);
  mount(Channel::policyActivity, activity_);
  sinks_[slot(Channel::forwardingStatus)] =
      std::make_unique<FecSink<Skerry::Fib::ForwardingStatus>>(fwd_, Channel::forwardingStatus);
  sinks_[slot(Channel::forwarding6Status)] =
      std::make_unique<FecSink<Skerry::Fib6::ForwardingStatus>>(fwd6_, Channel::forwarding6Status);
  sinks_[slot(Channel::srteFwdStatus)] =
      std::make_unique<FecSink<Skerry::Fib::ForwardingStatus>>(srteFwd_, Channel::srteFwdStatus);
  sinks_[slot(Channel::segmentLists)] = std::make_unique<DirectorySink>(segmentLists_);
}

MountedState::~MountedState() = default;

void MountedState::apply(Channel channel, FrameKind kind, U8 const* body, std::size_t size) {
  if (kind == FrameKind::ready) refuse("a ready frame carries no channel's state");
  if (kind == FrameKind::refused) refuse("a refused frame carries no channel's state");
  if (kind == FrameKind::delta && !served(channel)) {
    refuse(std::string("delta of ") + channelName(channel) + " before its snapshot");
  }
  sinks_[slot(channel)]->apply(kind, body, size);
  if (kind == FrameKind::snapshot) served_[slot(channel)] = true;
}

SrTeView::StateView MountedState::view() const {
  SrTeView::StateView v;
  v.selectionInput = selectionInput_;
  v.keyToIdMap = keyToIdMap_;
  v.segmentLists = &segmentLists_;
  v.segmentStatus = segmentStatus_;
  v.segmentListStatus = segmentListStatus_;
  v.tunnelTable = tunnelTable_;
  v.ecPolicy = ecPolicy_;
  v.policyStatus = policyStatus_;
  v.lfib = lfib_;
  v.resolver = resolver_;
  v.forwardingStatus = fwd_;
  v.forwarding6Status = fwd6_;
  v.srteFwdStatus = srteFwd_;
  v.bsidLfib = bsidLfib_;
  v.exportedSegmentLists = exported_;
  v.activity = activity_;
  return v;
}

}  // namespace SrTeStateSync
