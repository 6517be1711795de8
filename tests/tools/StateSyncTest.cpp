// The state socket in one process: a server over a pipeline that plays a scenario, readers
// mounting it over a real Unix-domain socket, the io_context driven by hand with bounded polls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>

#include "InputRecord.h"
#include "ScenarioReader.h"
#include "ScenarioRunner.h"
#include "StateClient.h"
#include "StateServer.h"

using namespace SrTeStateSync;
using SrTeView::OrderedJson;

namespace {

// The agent's state as a reader shows it: without the time, which a reader's copies do not hold.
OrderedJson stateOf(SrTePolicy::SrTePolicyAgent const& agent) {
  OrderedJson s = SrTeView::explainState(agent, false);
  s.erase("time");
  return s;
}

class StateSyncTest : public ::testing::Test {
 protected:
  StateSyncTest()
      : path_("/tmp/srte-statesync-test-" + std::to_string(::getpid()) + "-" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".sock") {}

  std::unique_ptr<SrTeScenario::ScenarioRunner> runner(char const* file) {
    auto r = std::make_unique<SrTeScenario::ScenarioRunner>(
        SrTeScenario::readScenarioFile(std::string(SRTE_SOURCE_DIR) + "/" + file));
    r->start();
    return r;
  }
  std::unique_ptr<StateServer> serve(SrTePolicy::SrTePolicyAgent const& agent) {
    return serve(servedStateOf(agent));
  }
  std::unique_ptr<StateServer> serve(ServedState served, ServerOptions o = {}) {
    o.publishPeriod = 0;  // the test publishes
    return std::make_unique<StateServer>(io_, path_, std::move(served), o);
  }
  std::unique_ptr<StateClient> reader() {
    ClientOptions o;
    o.retryMin = 0.001;
    o.retryMax = 0.01;
    auto c = std::make_unique<StateClient>(io_, path_, o);
    c->start();
    return c;
  }
  // Runs the loop until `done` holds, for at most twenty seconds (a bound for a loaded machine
  // under the sanitizers, not an expectation). `done` is asked when the loop has had nothing to
  // do for a millisecond: explaining a reader's state costs far more than a frame, and asking
  // after every frame made the test take minutes in the sanitizer build.
  bool until(std::function<bool()> const& done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
      if (io_.run_for(std::chrono::milliseconds(1)) == 0 && done()) return true;
    }
    return done();
  }
  static OrderedJson shown(StateClient const& c) {
    return SrTeView::explainState(c.state().view(), false);
  }

  boost::asio::io_context io_;
  std::string path_;
};

TEST_F(StateSyncTest, ReaderFollowsEveryStepAcrossRestartsAndALateReaderGetsTheSameState) {
  // Catches: a served entity missing from the snapshot, a delta lost or applied out of order,
  // a platform table (LFIB, FECs) or the segment-list directory not kept in step; a reader that
  // gives up when the agent goes, that loses the last whole state while the agent is away, or
  // that keeps state the new agent does not have (the new snapshot applied over the old copies).
  std::unique_ptr<StateClient> early;
  U64 agents = 0;
  for (char const* file :
       {"examples/02-top-label-failure.json", "examples/03-binding-sid-change.json",
        "tests/scenarios/next-hop-change.json"}) {
    SCOPED_TRACE(file);
    auto run = runner(file);
    auto server = serve(run->agent());
    if (!early) early = reader();
    ++agents;
    ASSERT_TRUE(until([&] { return early->generation() == agents && early->synced(); }))
        << early->lastTrouble();
    EXPECT_EQ(shown(*early), stateOf(run->agent()));
    for (std::size_t i = 0; i < run->scenario().steps.size(); ++i) {
      run->runStep(i);
      server->publish();
      OrderedJson want = stateOf(run->agent());
      EXPECT_TRUE(until([&] { return shown(*early) == want; })) << "after step " << i + 1;
    }
    run->finish();
    server->publish();
    OrderedJson want = stateOf(run->agent());
    EXPECT_TRUE(until([&] { return shown(*early) == want; }));
    EXPECT_EQ(early->generation(), agents) << "the reader resynchronised: " << early->lastTrouble();

    auto late = reader();
    ASSERT_TRUE(until([&] { return late->synced(); }));
    EXPECT_EQ(shown(*late), want);
    // The agent goes (the reader notices the first time; later it says the same again).
    server.reset();
    ASSERT_TRUE(until([&] { return !early->lastTrouble().empty(); }));
    EXPECT_EQ(shown(*early), want) << "the last whole state, while the agent is away";
  }
}

TEST_F(StateSyncTest, ReadersJoiningAtAnyMomentShowTheAgentsState) {
  // Catches: a shared snapshot handed to a reader without every delta published since it was
  // built, or with a delta it already holds applied out of order; a snapshot kept past the
  // changes it misses.
  auto run = runner("examples/01-two-sources.json");
  auto server = serve(run->agent());
  std::mt19937 rng(11);
  Mosk::Ptr<SrTePolicy::PolicyInput> table =
      run->agent().sourceTableIs(SrTePolicy::PolicySource::sourceOther);
  std::vector<std::unique_ptr<StateClient>> readers;
  for (int step = 0; step < 300; ++step) {
    U32 const index = static_cast<U32>(1 + rng() % 30);
    SrTePolicy::PolicyId const id =
        SrTePolicy::PolicyId::make(SrTePolicy::PolicySource::sourceOther, index);
    if (rng() % 4 == 0) {
      table->policyInputEntryDel(id);
    } else {
      U32 const preference = 100 + rng() % 20, weight = 1 + rng() % 3;
      U32 const top = rng() % 2 ? 16002 : 16003, next = 30 + rng() % 5;
      table->policyInputEntryIs(TestSupport::InputRecord(id)
                                    .to(Ludd::IpAddr::fromU32(0xc0000200 + index), 7)
                                    .pref(preference)
                                    .bsid(700000 + index)
                                    .list({top, next}, weight));
    }
    run->agent().advanceUntilIdle();
    if (rng() % 2) server->publish();
    if (rng() % 3 == 0 && readers.size() < 20) readers.push_back(reader());
    if (rng() % 8 == 0 && !readers.empty()) readers.erase(readers.begin() + rng() % readers.size());
    if (step % 25 != 24) continue;
    server->publish();
    OrderedJson const want = stateOf(run->agent());
    for (auto const& r : readers) {
      ASSERT_TRUE(until([&] { return r->synced() && shown(*r) == want; }))
          << "step " << step << ": " << r->lastTrouble();
    }
  }
  EXPECT_GT(readers.size(), 5u);
  EXPECT_LT(server->snapshotsBuilt(), 60u) << "a snapshot per reader";
}

TEST_F(StateSyncTest, HostStatusAndColorDscpMapFollowTheHostIntoReadOnlyCopies) {
  // Catches: the host's own entities left out of the snapshot, or their later changes not
  // reaching the readers; a copy that a reader could write behind the agent's back.
  auto run = runner("examples/01-two-sources.json");
  auto status = SrTePolicy::statusFactory("Status");
  auto dscp = SrTePolicy::colorDscpMapFactory("ColorDscpMap");
  status->agentEnabledIs(true);
  dscp->colorToDscpIs(SrTePolicy::Color(100))->dscpIs(Qos::Dscp(46), true);
  auto server = serve(servedStateOf(run->agent(), status, dscp));
  auto c = reader();
  ASSERT_TRUE(until([&] { return c->synced(); }));
  ASSERT_GT(c->state().ecPolicy()->policyCount(), 0u);
  auto key = c->state().ecPolicy()->policyIterConst().key();
  EXPECT_THROW(c->state().ecPolicy()->policyDel(key), Mosk::InternalException);
  EXPECT_TRUE(c->state().status()->agentEnabled());
  auto list = c->state().colorDscpMap()->colorToDscp(SrTePolicy::Color(100));
  ASSERT_TRUE(list);
  EXPECT_TRUE(list->dscp(Qos::Dscp(46)));

  status->agentEnabledIs(false);
  dscp->colorToDscpDel(SrTePolicy::Color(100));
  server->publish();
  EXPECT_TRUE(until([&] {
    return !c->state().status()->agentEnabled() &&
           c->state().colorDscpMap()->colorToDscpCount() == 0;
  }));
}

TEST_F(StateSyncTest, SlowReaderIsDroppedWithoutHoldingUpTheOthers) {
  // Catches: a server that queues without bound for a reader that never reads, or that drops
  // or stalls the other readers when one falls behind.
  auto run = runner("examples/01-two-sources.json");
  ServerOptions o;
  o.queueLimit = 1u << 20;
  auto server = serve(servedStateOf(run->agent()), o);
  auto good = reader();
  ASSERT_TRUE(until([&] { return good->synced(); }));
  // A reader that connects and never reads.
  boost::asio::local::stream_protocol::socket stuck(io_);
  stuck.connect(boost::asio::local::stream_protocol::endpoint(path_));
  ASSERT_TRUE(until([&] { return server->clientCount() == 2; }));

  // Rounds of platform changes, each far larger than a socket buffer holds at once.
  Skerry::Fib::ForwardingStatus& fwd = *run->agent().forwardingStatus();
  U32 round = 0;
  for (; round < 100 && server->clientsDropped() == 0; ++round) {
    for (U32 f = 0; f < 200; ++f) {
      Fib::Fec fec(Fib::FecId::fecIdForAdjType(0, 1000 + f));
      for (U32 v = 1; v <= 64; ++v) {
        fec.viaIs(
            Fib::ViaIndex(v),
            Fib::Via(Ludd::IntfId(Ludd::IntfId::Kind::ethernet, v),
                     Ludd::IpGenAddr(Ludd::IpAddr::fromU32(round + v)), Ludd::MplsLabel(16 + v),
                     Ludd::MplsLabelAction::actionSwap, false, Tunnel::TunnelTable::TunnelId()));
      }
      fec.viaCountIs(64);
      fwd.fecCommit(fec);
    }
    server->publish();
    Fib::Fec const& last = fwd.fec(Fib::FecId::fecIdForAdjType(0, 1199));
    ASSERT_TRUE(until([&] { return good->state().forwardingStatus()->fec(last.fecId()) == last; }))
        << "round " << round;
  }
  EXPECT_EQ(server->clientsDropped(), 1u) << "after " << round << " rounds";
  EXPECT_EQ(server->clientCount(), 1u);
  EXPECT_EQ(good->generation(), 1u) << good->lastTrouble();
}

TEST_F(StateSyncTest, RefusedFrameDropsTheConnectionAndResynchronises) {
  // Catches: a reader that applies a frame it cannot trust, or that stays on a broken stream.
  boost::asio::local::stream_protocol::acceptor fake(
      io_, boost::asio::local::stream_protocol::endpoint(path_));
  auto c = reader();
  boost::asio::local::stream_protocol::socket peer(io_);
  fake.accept(peer);
  // A delta of the FEC table before any snapshot of it.
  std::vector<U8> bad =
      frame(FrameKind::delta, Channel::srteFwdStatus, {0, 0, 0, 1, 0, 0, 0, 0, 0});
  boost::asio::write(peer, boost::asio::buffer(bad));
  ASSERT_TRUE(until([&] { return !c->lastTrouble().empty(); }));
  EXPECT_EQ(c->lastTrouble(),
            "frame of srTePolicyFecs refused: state frame: delta of srTePolicyFecs before its "
            "snapshot");
  // It connects again.
  boost::asio::local::stream_protocol::socket again(io_);
  fake.non_blocking(true);
  bool accepted = false;
  ASSERT_TRUE(until([&] {
    boost::system::error_code ec;
    if (!accepted) fake.accept(again, ec);
    accepted = accepted || !ec;
    return accepted;
  }));
  fake.close();
  ::unlink(path_.c_str());
}

TEST_F(StateSyncTest, AcceptPausesWhenTheProcessIsOutOfDescriptors) {
  // Catches: a server that, out of file descriptors, tries to accept the waiting connection
  // again at once, failing at once, and so spins a core until a descriptor comes back; one that
  // then never accepts it.
  auto run = runner("examples/01-two-sources.json");
  auto server = serve(run->agent());
  // The undefined-behaviour sanitizer checks an object's dynamic type the first time it meets
  // it by probing memory through a pipe, which fails while no descriptor is left: a timer waited
  // before they are taken has its type checked already.
  boost::asio::steady_timer warm(io_, std::chrono::milliseconds(0));
  warm.async_wait([](boost::system::error_code) {});
  io_.run_for(std::chrono::milliseconds(10));
  boost::asio::local::stream_protocol::socket client(io_);
  client.connect(boost::asio::local::stream_protocol::endpoint(path_));  // waits in the backlog
  // No descriptor left: the limit just above the highest in use, and every free one below taken.
  int highest = 0;
  for (auto const& e : std::filesystem::directory_iterator("/proc/self/fd"))
    highest = std::max(highest, std::stoi(e.path().filename().string()));
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(highest) + 1;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  std::vector<int> taken;
  for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;)
    taken.push_back(fd);
  auto cpu = [] {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
  };
  double const start = cpu();
  for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
       std::chrono::steady_clock::now() < end;)
    io_.run_for(std::chrono::milliseconds(10));
  double const spent = cpu() - start;
  for (int fd : taken)
    ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_LT(spent, 0.05) << "the loop spun while out of descriptors";
  EXPECT_GT(server->acceptPauses(), 0u);
  EXPECT_TRUE(until([&] { return server->clientCount() == 1; })) << "never accepted afterwards";
}

TEST(StateSyncPaths, TheDefaultSocketIsInADirectoryOfTheUsersOwn) {
  // Catches: a default socket in a directory that every user may write (/tmp), where another
  // user can take the name first and answer in the agent's place.
  char const* saved = std::getenv("XDG_RUNTIME_DIR");
  std::string const kept = saved ? saved : "";
  ::unsetenv("XDG_RUNTIME_DIR");
  std::string const want =
      ::geteuid() == 0 ? "/run/srte-agent/srte-agent.sock"
                       : "/tmp/srte-agent-" + std::to_string(::geteuid()) + "/srte-agent.sock";
  EXPECT_EQ(defaultSocketPath(), want);
  ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
  EXPECT_EQ(defaultSocketPath(), "/run/user/7/srte-agent.sock");
  if (saved) {
    ::setenv("XDG_RUNTIME_DIR", kept.c_str(), 1);
  } else {
    ::unsetenv("XDG_RUNTIME_DIR");
  }
}

TEST(StateSyncFrames, MalformedBodiesChangeNothing) {
  // Catches: a keyed body applied in part before its error is found, a header taken on trust.
  MountedState m("test");
  auto fecBody = [](U8 present, U32 vias) {
    Mosk::LogWriter w;
    w.u32(0);
    w.u8(1);
    w.u32(1);
    w.u64(Fib::FecId::fecIdForAdjType(15, 4).value());
    w.u8(present);
    w.u32(vias);
    return w.take();
  };
  std::vector<U8> good = fecBody(1, 0);
  m.apply(Channel::srteFwdStatus, FrameKind::snapshot, good.data(), good.size());
  EXPECT_EQ(m.srteFwdStatus()->fecCount(), 1u);
  // Claims a via that is not there.
  std::vector<U8> truncated = fecBody(1, 1);
  EXPECT_THROW(
      m.apply(Channel::srteFwdStatus, FrameKind::snapshot, truncated.data(), truncated.size()),
      Mosk::LogFormatException);
  EXPECT_EQ(m.srteFwdStatus()->fecCount(), 1u);
  // A delta numbered out of order.
  Mosk::LogWriter w;
  w.u32(5);
  w.u8(0);
  w.u32(0);
  std::vector<U8> skipped = w.take();
  EXPECT_THROW(m.apply(Channel::srteFwdStatus, FrameKind::delta, skipped.data(), skipped.size()),
               Mosk::LogFormatException);

  std::vector<U8> header = frame(FrameKind::delta, Channel::segmentLists, {});
  header[4] = 0x54;
  EXPECT_THROW(readFrameHeader(header.data()), Mosk::LogFormatException);
  header = frame(FrameKind::delta, Channel::segmentLists, {});
  header[7] = kChannels;
  EXPECT_THROW(readFrameHeader(header.data()), Mosk::LogFormatException);
}

}  // namespace
