// The speaker around the decoder: the configuration file, the mapping of paths into the BGP
// source's table, and the sessions, driven over loopback by a scripted peer in the same event
// loop (the test's socket is non-blocking and polled between turns of the loop).
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "BgpSpeaker.h"
#include "InputRecord.h"
#include "SrPolicyEncoder.h"
#include "TestTable.h"

using namespace SrTeBgp;
namespace asio = boost::asio;
using asio::ip::tcp;
using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;
using TestSupport::TestTable;

namespace {

SrPolicyNlri nlri(U32 distinguisher, char const* endpoint = "10.0.0.9", U32 color = 100) {
  SrPolicyNlri n;
  n.endpoint = Ludd::IpGenAddr::parse(endpoint);
  n.afi = n.endpoint.isIpv4() ? 1 : 2;
  n.distinguisher = distinguisher;
  n.color = SrTePolicy::Color(color);
  return n;
}

PolicyInputEntry path(U32 preference, std::initializer_list<U32> labels = {16001, 16009}) {
  return TestSupport::InputRecord().pref(preference).list(labels, 2);
}

Ludd::IpAddr const peerId = Ludd::IpAddr::parse("10.0.0.2");

// --- The configuration ----------------------------------------------------------------------

std::string refusal(std::string const& text) {
  try {
    readConfigText(text, "f.json");
  } catch (ConfigError const& e) {
    return e.what();
  }
  return "accepted";
}

// Catches: a mistake accepted, or refused without the file, the JSON path and the reason.
TEST(BgpConfig, RefusalsNameTheFileThePathAndTheReason) {
  std::string const peer = R"({"address": "127.0.0.1", "as": 65000})";
  auto file = [&](std::string const& fields, std::string const& peers) {
    return R"({"localAs": 65000, "bgpIdentifier": "10.0.0.1")" + fields + R"(, "peers": [)" +
           peers + "]}";
  };
  SpeakerConfig c = readConfigText(file("", peer), "f.json");
  EXPECT_EQ(c.table, "srte-bgp");
  EXPECT_EQ(c.listenPort, 179);
  EXPECT_EQ(c.peers.at(0).holdTime, 90);
  EXPECT_FALSE(c.peers.at(0).passive);
  EXPECT_EQ(readConfigText(file(R"(, "listenPort": null)", peer), "f").listenPort, std::nullopt);

  std::vector<std::pair<std::string, std::string>> const cases = {
      {"{", "f.json: (document): not JSON"},
      {R"({"bgpIdentifier": "10.0.0.1", "peers": []})",
       "f.json: (document): missing field \"localAs\""},
      {file(R"(, "listenPort": 70000)", peer),
       "f.json: listenPort: expected a whole number from 0 to 65535, not 70000"},
      {R"({"localAs": 1, "bgpIdentifier": "0.0.0.0", "peers": []})",
       "f.json: bgpIdentifier: a BGP identifier is a non-zero IPv4 address"},
      {file(R"(, "table": "a/b")", peer), "f.json: table: "},
      {file("", R"({"address": "127.0.0.1", "as": 65000, "holdTime": 2})"),
       "f.json: peers[0].holdTime: a hold time is 0 or 3 to 65535 seconds"},
      {file("", R"({"address": "10.0.0.300", "as": 1})"),
       "f.json: peers[0].address: '10.0.0.300' is not an IPv4 or IPv6 address"},
      {file("", R"({"address": "::1"})"), "f.json: peers[0]: missing field \"as\""},
      {file("", peer + "," + peer),
       "f.json: peers[1].address: the same address as an earlier peer"},
      {file("", R"({"address": "::1", "as": 1, "pasive": true})"),
       "f.json: peers[0].pasive: unknown field \"pasive\""},
  };
  for (auto const& [text, expected] : cases)
    EXPECT_EQ(refusal(text).substr(0, expected.size()), expected) << text;
}

// --- The table ------------------------------------------------------------------------------

// Catches: an id that moves while its path lives, or is reused at once; a replacement that adds
// a record; one peer's session taking another's paths; the router id not the peer's.
TEST(BgpInputTable, StableIdsPerPathAndPerPeerWithdrawal) {
  TestTable const name("map");
  BgpInputTable t(name);
  auto a = t.put(0, peerId, nlri(2), path(200));
  auto b = t.put(0, peerId, nlri(3), path(300));
  auto c = t.put(1, Ludd::IpAddr::parse("10.0.0.3"), nlri(2), path(200));
  auto v6 = t.put(0, peerId, nlri(2, "2001:db8::9"), path(100));
  EXPECT_EQ(a.change, BgpInputTable::Change::added);
  std::set<U32> ids{a.id.value(), b.id.value(), c.id.value(), v6.id.value()};
  EXPECT_EQ(ids.size(), 4u) << "one id per (peer, AFI, distinguisher, color, endpoint)";
  EXPECT_EQ(a.id.source(), SrTePolicy::PolicySource::sourceBgp);

  auto again = t.put(0, peerId, nlri(2), path(250));
  EXPECT_EQ(again.change, BgpInputTable::Change::replaced);
  EXPECT_EQ(again.id, a.id);
  EXPECT_EQ(t.put(0, peerId, nlri(2), path(250)).change, BgpInputTable::Change::unchanged);

  SrTePolicy::PolicyInputShmTable reader(name);
  PolicyInputEntry stored;
  ASSERT_TRUE(reader.copyOut(a.id, stored));
  EXPECT_EQ(stored.preference().value(), 250u);
  EXPECT_EQ(stored.routerId(), peerId);
  EXPECT_EQ(stored.endpoint(), Ludd::IpGenAddr::parse("10.0.0.9"));
  EXPECT_EQ(stored.color().value(), 100u);

  EXPECT_EQ(t.erase(0, nlri(3)), b.id);
  EXPECT_EQ(t.erase(0, nlri(3)), std::nullopt);
  auto readded = t.put(0, peerId, nlri(3), path(300));
  EXPECT_NE(readded.id, b.id) << "an id handed out again at once";

  EXPECT_EQ(t.erasePeer(0), 3u);
  EXPECT_EQ(reader.count(), 1u);
  EXPECT_TRUE(reader.copyOut(c.id, stored)) << "the other peer's path went too";
}

// Catches: an earlier run's paths left in the table; another source's table wiped; a full
// table half-written.
TEST(BgpInputTable, ClearsAnEarlierRunRefusesForeignTablesAndFullOnes) {
  TestTable const name("start");
  Skerry::ShmTableOptions small;
  small.capacity = 2;
  U32 before = 0;
  {
    BgpInputTable t(name, small);
    before = t.put(0, peerId, nlri(1), path(100)).id.index();
    t.put(0, peerId, nlri(2), path(100));
    EXPECT_THROW(t.put(0, peerId, nlri(3), path(100)), Mosk::RangeException);
    EXPECT_EQ(t.count(), 2u);
  }
  BgpInputTable again(name, small);
  EXPECT_EQ(again.cleared(), 2u);
  EXPECT_EQ(SrTePolicy::PolicyInputShmTable(name).count(), 0u);
  EXPECT_GT(again.put(0, peerId, nlri(1), path(100)).id.index(), before + 1)
      << "ids start over instead of going on from the table's counter";

  TestTable const other("pcep");
  {
    SrTePolicy::PolicyInputShmWriter w(other);
    w.put(TestSupport::InputRecord(SrTePolicy::PolicySource::sourcePcep, 1).to("192.0.2.1", 0));
  }
  EXPECT_THROW(BgpInputTable t(other), Mosk::RangeException);
  EXPECT_EQ(SrTePolicy::PolicyInputShmTable(other).count(), 1u);
}

// --- The sessions ---------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

// Records what the speaker says, one short text per call.
class Events : public SpeakerListener {
 public:
  std::vector<std::string> seen;
  void onSessionUp(PeerConfig const&, SessionInfo const& info) override {
    seen.push_back("up hold " + std::to_string(info.holdTime));
  }
  void onSessionDown(PeerConfig const&, char const* state, std::string const&,
                     std::optional<NotificationEvent> const& n, U32 withdrawn) override {
    std::string s = std::string("down ") + state;
    if (n) {
      s += std::string(n->sent ? " sent " : " received ") + std::to_string(n->code) + "/" +
           std::to_string(n->subcode);
    }
    seen.push_back(s + " withdrawn " + std::to_string(withdrawn));
  }
  void onConnectFailed(PeerConfig const&, std::string const&, U32 retry) override {
    seen.push_back("connect-failed retry " + std::to_string(retry));
  }
  void onPathWritten(PeerConfig const&, SrPolicyNlri const&, SrPolicyPath const&,
                     BgpInputTable::Written const& w) override {
    seen.push_back(w.change == BgpInputTable::Change::added ? "added" : "replaced");
  }
  void onPathWithdrawn(PeerConfig const&, SrPolicyNlri const&,
                       std::optional<PolicyId> id) override {
    seen.push_back(id ? "withdrawn" : "withdrawn unknown");
  }
  void onPathRefused(PeerConfig const&, SrPolicyNlri const*, char const* rule, Problem const&,
                     std::optional<PolicyId> removed) override {
    seen.push_back(std::string("refused ") + rule + (removed ? " removed" : ""));
  }
  void onConnectionRefused(std::string const&, std::string const& reason) override {
    seen.push_back("connection refused: " + reason);
  }
};

class Sessions : public ::testing::Test {
 protected:
  // Starts a speaker with one peer of AS 65000 on loopback.
  void startSpeaker(bool passive = true, U16 peerPort = 179, U16 holdTime = 90) {
    SpeakerConfig c;
    c.localAs = 65000;
    c.bgpIdentifier = Ludd::IpAddr::parse("10.0.0.1");
    c.listenAddress = Ludd::IpAddr::parse("127.0.0.1");
    c.listenPort = passive ? std::optional<U16>(0) : std::nullopt;
    PeerConfig p;
    p.address = Ludd::IpAddr::parse("127.0.0.1");
    p.as = 65000;
    p.passive = passive;
    p.port = peerPort;
    p.holdTime = holdTime;
    p.connectRetry = 1;
    c.peers.push_back(p);
    speaker_.emplace(io_, c, table_, events_);
    speaker_->start();
  }
  // Connects the scripted peer to the speaker.
  void connect() {
    peer_.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), *speaker_->listenPort()));
    peer_.non_blocking(true);
  }
  void send(Bytes const& message) {
    peer_.non_blocking(false);
    asio::write(peer_, asio::buffer(message));
    peer_.non_blocking(true);
  }
  // Turns the loop until `done` holds or `seconds` pass.
  bool turnUntil(std::function<bool()> const& done, double seconds = 5) {
    auto const deadline = Clock::now() + std::chrono::milliseconds(long(seconds * 1000));
    while (!done()) {
      if (Clock::now() > deadline) return false;
      io_.run_for(std::chrono::milliseconds(2));
      pump();
    }
    return true;
  }
  // The next message the speaker sent the scripted peer: its type and body; type 0 when the
  // connection closed or nothing came in time.
  std::pair<U8, Bytes> next(double seconds = 5) {
    std::pair<U8, Bytes> out{0, {}};
    turnUntil(
        [&] {
          if (in_.size() >= headerSize) {
            std::size_t const length = get16(in_.data() + 16);
            if (in_.size() >= length) {
              out = {in_[18], Bytes(in_.begin() + headerSize, in_.begin() + length)};
              in_.erase(in_.begin(), in_.begin() + length);
              return true;
            }
          }
          return closed_;
        },
        seconds);
    return out;
  }
  void pump() {
    if (!peer_.is_open()) return;
    U8 chunk[4096];
    boost::system::error_code ec;
    std::size_t n = peer_.read_some(asio::buffer(chunk), ec);
    if (ec == asio::error::would_block) return;
    if (ec) {
      closed_ = true;
      return;
    }
    in_.insert(in_.end(), chunk, chunk + n);
  }
  // The OPEN and KEEPALIVE exchange up to Established.
  void establish(U16 holdTime = 90) {
    connect();
    ASSERT_EQ(next().first, U8(MessageType::open));
    send(openMessage(65000, holdTime, peerId, Families{true, true}));
    ASSERT_EQ(next().first, U8(MessageType::keepalive));
    send(keepaliveMessage());
    ASSERT_TRUE(turnUntil([&] { return !events_.seen.empty(); }));
    ASSERT_EQ(events_.seen.back().substr(0, 2), "up");
  }
  std::string notificationReceived() {
    for (;;) {
      auto [type, body] = next();
      if (type == 0) return "none";
      if (type == U8(MessageType::notification) && body.size() >= 2) {
        return std::to_string(body[0]) + "/" + std::to_string(body[1]);
      }
    }
  }

  TestTable const tableName_{"sessions"};
  BgpInputTable table_{tableName_};
  asio::io_context io_;
  Events events_;
  std::optional<BgpSpeaker> speaker_;
  tcp::socket peer_{io_};
  Bytes in_;
  bool closed_ = false;
};

// Catches: paths not reaching the table or not leaving it; a NOTIFICATION from the peer leaving
// the session's paths behind; the negotiated hold time not the smaller one.
TEST_F(Sessions, PathsComeAndGoWithTheirSession) {
  startSpeaker();
  establish(30);
  EXPECT_EQ(events_.seen.back(), "up hold 30");
  Ludd::IpAddr const local = Ludd::IpAddr::parse("10.0.0.1");
  send(updateMessage(nlri(2), path(200), local));
  send(updateMessage(nlri(3), path(300), local));
  send(updateMessage(nlri(2), path(250), local));
  send(updateMessage(nlri(4), path(100), Ludd::IpAddr::parse("10.9.9.9")));
  send(withdrawMessage(nlri(3)));
  ASSERT_TRUE(turnUntil([&] { return events_.seen.size() == 6; }));
  EXPECT_EQ(events_.seen, (std::vector<std::string>{"up hold 30", "added", "added", "replaced",
                                                    "refused not-usable", "withdrawn"}));
  EXPECT_EQ(table_.count(), 1u);
  send(notificationMessage(Error::cease, Error::peerDeconfigured));
  ASSERT_TRUE(turnUntil([&] { return events_.seen.size() == 7; }));
  EXPECT_EQ(events_.seen.back(), "down Established received 6/3 withdrawn 1");
  EXPECT_EQ(table_.count(), 0u);
}

// Catches: an OPEN that must be refused accepted, or refused with the wrong NOTIFICATION; a
// malformed header, a message out of turn or an UPDATE that cannot be framed taken instead of
// closing the session with the right NOTIFICATION and its paths.
TEST_F(Sessions, RefusedOpensAndMalformedMessagesCloseTheSession) {
  Bytes badVersion = openMessage(65000, 90, peerId, Families{true, true});
  badVersion[headerSize] = 3;
  Bytes badMarker = keepaliveMessage();
  badMarker[3] = 0;
  Bytes cutUpdate = updateMessage(nlri(2), path(200), Ludd::IpAddr::parse("10.0.0.1"));
  cutUpdate[headerSize + 3] += 40;  // the attributes overrun the message
  struct Case {
    char const* name;
    bool established;  // or the speaker's OPEN just received
    Bytes message;
    char const* notification;
  };
  std::vector<Case> const cases = {
      {"OPEN of another AS", false, openMessage(65001, 90, peerId, Families{true, true}), "2/2"},
      {"OPEN with hold time 2", false, openMessage(65000, 2, peerId, Families{true, true}), "2/6"},
      {"OPEN of version 3", false, badVersion, "2/1"},
      {"OPEN without the SR Policy family", false, openMessage(65000, 90, peerId, Families{}),
       "2/7"},
      {"OPEN with our own identifier", false,
       openMessage(65000, 90, Ludd::IpAddr::parse("10.0.0.1"), Families{true, false}), "2/3"},
      {"bad marker", true, badMarker, "1/1"},
      {"UPDATE in OpenSent", false, withdrawMessage(nlri(1)), "5/1"},
      {"UPDATE overrun", true, cutUpdate, "3/1"},
      {"second OPEN", true, openMessage(65000, 90, peerId, Families{true, true}), "5/3"},
  };
  startSpeaker();
  for (Case const& c : cases) {
    peer_ = tcp::socket(io_);
    in_.clear();
    closed_ = false;
    events_.seen.clear();
    if (c.established) {
      establish();
      send(updateMessage(nlri(9), path(100), Ludd::IpAddr::parse("10.0.0.1")));
      ASSERT_TRUE(turnUntil([&] { return table_.count() == 1; })) << c.name;
    } else {
      connect();
      ASSERT_EQ(next().first, U8(MessageType::open)) << c.name;
    }
    send(c.message);
    EXPECT_EQ(notificationReceived(), c.notification) << c.name;
    EXPECT_EQ(table_.count(), 0u) << c.name;
  }
}

// Catches: a silent peer never timed out; keepalives not sent at a third of the hold time.
TEST_F(Sessions, HoldTimerExpiresAndKeepalivesFlow) {
  startSpeaker();
  establish(3);
  auto const start = Clock::now();
  // One KEEPALIVE from the speaker after about a second, then the hold timer's NOTIFICATION.
  EXPECT_EQ(next().first, U8(MessageType::keepalive));
  EXPECT_EQ(notificationReceived(), "4/0");
  double const waited = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_GT(waited, 2.5);
  EXPECT_EQ(events_.seen.back(), "down Established sent 4/0 withdrawn 0");
}

// Catches: an active peer not dialled again after its session went down; a stop that closes
// without telling the peer.
TEST_F(Sessions, ActivePeerRedialsAndStopSaysCease) {
  tcp::acceptor acceptor(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  acceptor.non_blocking(true);
  startSpeaker(false, acceptor.local_endpoint().port());
  auto acceptOne = [&] {
    return turnUntil([&] {
      boost::system::error_code ec;
      acceptor.accept(peer_, ec);
      return !ec;
    });
  };
  ASSERT_TRUE(acceptOne());
  peer_.non_blocking(true);
  ASSERT_EQ(next().first, U8(MessageType::open));
  peer_.close();
  peer_ = tcp::socket(io_);
  in_.clear();
  closed_ = false;
  ASSERT_TRUE(acceptOne()) << "not dialled again";
  peer_.non_blocking(true);
  ASSERT_EQ(next().first, U8(MessageType::open));
  send(openMessage(65000, 90, peerId, Families{true, true}));
  ASSERT_EQ(next().first, U8(MessageType::keepalive));
  send(keepaliveMessage());
  ASSERT_TRUE(turnUntil([&] { return events_.seen.back().substr(0, 2) == "up"; }));
  bool stopped = false;
  speaker_->stop([&] { stopped = true; });
  EXPECT_EQ(notificationReceived(), "6/2");
  EXPECT_TRUE(turnUntil([&] { return stopped; }));
}

}  // namespace
