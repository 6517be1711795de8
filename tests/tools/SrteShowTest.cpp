// srte-show against a running srte-agent, in two processes: the agent loads a scenario's
// inputs and serves its state; srte-show --json mounts it and must print what srte-sim --json
// prints as the final state of the same scenario.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AgentProcess.h"
#include "InputRecord.h"
#include "SrTePolicy/SrTePolicyInputShm.h"

using Json = nlohmann::ordered_json;
using AgentTesting::AgentProcess;
using AgentTesting::Outcome;
using AgentTesting::runProgram;

namespace {

// The state without the times of the active candidates' last changes: the simulator dates them
// on its scenario clock (which starts at the epoch), the agent on the wall clock.
Json undated(Json state) {
  for (auto& p : state["policies"])
    p.erase("activeSince");
  return state;
}

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// What srte-sim --json prints as the final state of `scenario`, without its time.
Json simulated(std::string const& scenario) {
  Outcome sim = runProgram(SRTE_SIM, {"--json", scenario});
  EXPECT_EQ(sim.status, 0) << sim.err;
  Json state = Json::parse(sim.out)["records"].back()["state"];
  state.erase("time");
  return state;
}

class SrteShowTest : public ::testing::Test {
 protected:
  SrteShowTest()
      : dir_("/tmp/srte-show-test-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name()),
        socket_(dir_ + ".sock") {}
  ~SrteShowTest() override {
    std::remove((dir_ + ".json").c_str());
    std::remove(socket_.c_str());
  }

  // The scenario `file` with its steps left out: what an agent that loads it runs.
  std::string withoutSteps(std::string const& file) {
    std::ifstream in(std::string(SRTE_SOURCE_DIR) + "/" + file);
    Json s = Json::parse(in);
    s.erase("steps");
    std::string out = dir_ + ".json";
    std::ofstream(out) << s.dump(2);
    return out;
  }

  // srte-show --json, until it prints `want` (dates aside) or ten seconds pass; the last output
  // otherwise.
  Json shownUntil(Json const& want) {
    Json last;
    TestSupport::eventually(
        [&] {
          Outcome o = runProgram(SRTE_SHOW, {"--json", "--socket", socket_});
          if (o.status == 0) last = Json::parse(o.out);
          return o.status == 0 && undated(last) == undated(want);
        },
        std::chrono::seconds(10));
    return last;
  }

  // The agent dates every policy that the simulator dates, on the wall clock within [from, to].
  static void expectDatedWithin(Json const& shown, Json const& want, double from, double to) {
    ASSERT_EQ(shown["policies"].size(), want["policies"].size());
    for (std::size_t i = 0; i < shown["policies"].size(); ++i) {
      Json const& since = shown["policies"][i]["activeSince"];
      SCOPED_TRACE(shown["policies"][i]["name"].get<std::string>());
      EXPECT_EQ(since.is_null(), want["policies"][i]["activeSince"].is_null());
      if (since.is_null()) continue;
      EXPECT_GE(since.get<double>(), from - 0.001);
      EXPECT_LE(since.get<double>(), to + 0.001);
    }
  }

  std::string dir_;
  std::string socket_;
};

TEST_F(SrteShowTest, ShowsAndWatchesTheStateTheSimulatorEndsWithAcrossRestarts) {
  // Catches: anything that srte-show cannot see of a running agent's state (an entity not
  // served, a table not kept in step, an explanation that reads the agent's insides); a watcher
  // that stops at the first agent, or that shows the old agent's state mixed into the new one's.
  FILE* watch = nullptr;
  pid_t watcher = -1;
  char line[4096];
  // The watcher prints one JSON document per change, each ending with a line "}" alone.
  auto nextDocument = [&]() -> Json {
    std::string doc;
    while (std::fgets(line, sizeof line, watch) != nullptr) {
      doc += line;
      if (std::string(line) == "}\n") return Json::parse(doc);
    }
    return Json();
  };
  for (char const* file : {"examples/01-two-sources.json", "examples/03-binding-sid-change.json",
                           "tests/scenarios/selection-priority.json"}) {
    SCOPED_TRACE(file);
    std::string scenario = withoutSteps(file);
    Json const want = simulated(scenario);
    ASSERT_FALSE(want["policies"].empty());

    double const started = wallNow();
    AgentProcess agent({"--scenario", scenario, "--socket", socket_});
    Json shown = shownUntil(want);
    EXPECT_EQ(undated(shown), undated(want));
    expectDatedWithin(shown, want, started, wallNow());
    // The readable form says since when (the simulator's text does not: its step lines do).
    Outcome text = runProgram(SRTE_SHOW, {"--socket", socket_});
    EXPECT_NE(text.out.find(" UTC (active candidate changed "), std::string::npos) << text.out;
    if (!watch) {
      watch = ::popen((std::string(SRTE_SHOW) + " --watch --json --socket " + socket_ +
                       " 2>/dev/null & echo $!")
                          .c_str(),
                      "r");
      ASSERT_NE(watch, nullptr);
      ASSERT_NE(std::fgets(line, sizeof line, watch), nullptr);
      watcher = std::stoi(line);
    }
    // An agent may show a state on its way to idle first; the last one is its final state.
    Json watched;
    for (int i = 0; i < 20 && undated(watched) != undated(want); ++i)
      watched = nextDocument();
    EXPECT_EQ(undated(watched), undated(want)) << "what srte-show --watch showed";
    EXPECT_EQ(agent.terminate(), 0);
    EXPECT_NE(::access(socket_.c_str(), F_OK), 0) << "the agent left its socket behind";
  }
  ::kill(watcher, SIGTERM);
  ::pclose(watch);
}

// A socket bound to `path` that listens and never speaks; -1 on failure.
int listenOn(std::string const& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && ::listen(fd, 64) == 0)
    return fd;
  ::close(fd);
  return -1;
}

TEST_F(SrteShowTest, TheSocketIsPrivateAndOnlyItsOwnFileIsRemoved) {
  // Catches: a socket that others may connect to (its mode left to the umask); a group not let
  // in when given; a stopping agent that removes the socket a newer agent serves on; a socket
  // made in a directory that others may change.
  std::string scenario = withoutSteps("examples/01-two-sources.json");
  AgentProcess first({"--scenario", scenario, "--socket", socket_}, 0);
  first.until("started");
  struct stat st {};
  ASSERT_EQ(::lstat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  if (::geteuid() == 0) {
    pid_t other = TestSupport::forkChild([&] {
      bool const refused = ::setgid(65534) == 0 && ::setuid(65534) == 0 &&
                           AgentTesting::connectTo(socket_) < 0 && errno == EACCES;
      if (!refused) throw 1;
    });
    EXPECT_EQ(TestSupport::reap(other), 0) << "another user connected to the socket";
  }
  // A newer agent takes the path (the old file removed by hand, as a restart script might).
  ::unlink(socket_.c_str());
  AgentProcess second({"--scenario", scenario, "--socket", socket_, "--socket-group", "nogroup"});
  second.until("started");
  ASSERT_EQ(::lstat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(first.terminate(), 0);
  EXPECT_EQ(runProgram(SRTE_SHOW, {"--json", "--socket", socket_}).status, 0)
      << "the first agent removed the second one's socket";
  EXPECT_EQ(second.terminate(), 0);
  EXPECT_NE(::access(socket_.c_str(), F_OK), 0);

  std::string const openDir = dir_ + "-open";
  ::mkdir(openDir.c_str(), 0777);
  ::chmod(openDir.c_str(), 0777);
  Outcome o = runProgram(SRTE_AGENT, {"--scenario", scenario, "--socket", openDir + "/x.sock"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "srte-agent: state socket: the socket's directory " + openDir +
                       " may be written by others (mode 0777) and is not sticky\n");
  ::rmdir(openDir.c_str());
}

TEST_F(SrteShowTest, ShowGivesUpWithoutAnAgentOrOnAListenerThatDoesNotSpeakTheProtocol) {
  // Catches: srte-show hanging or printing an empty state when nothing listens; waiting forever
  // on a listener that sends nothing, or taking what another kind of server sends for an
  // agent's frames.
  Outcome o = runProgram(SRTE_SHOW, {"--socket", socket_});
  EXPECT_EQ(o.status, 2);
  EXPECT_NE(o.err.find("srte-show: no agent listens on " + socket_), std::string::npos) << o.err;
  int silent = listenOn(socket_);
  o = runProgram(SRTE_SHOW, {"--socket", socket_}, std::chrono::seconds(15));
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "srte-show: what listens on " + socket_ +
                       " does not speak the agent's protocol (nothing received for 5 s)\n");
  ::close(silent);
  ::unlink(socket_.c_str());

  int web = listenOn(socket_);
  pid_t server = TestSupport::forkChild([&] {
    for (;;)
      (void)!::write(::accept(web, nullptr, nullptr), "HTTP/1.1 400 Bad Request\r\n\r\n", 28);
  });
  ::close(web);
  o = runProgram(SRTE_SHOW, {"--socket", socket_, "--watch"}, std::chrono::seconds(15));
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "srte-show: what listens on " + socket_ +
                       " does not speak the agent's protocol (frame refused: state frame: magic "
                       "47, not a state frame)\n");
}

TEST_F(SrteShowTest, ReadersShareOneSnapshotAndTheirNumberIsBounded) {
  // Catches: a snapshot built and queued for every reader, so that each reader that stalls
  // costs the agent a whole state (about 2 MB here; 40 of them 90 MB); readers without number;
  // a reader beyond the limit turned away without the reason, or one gone still counted.
  AgentTesting::TestTable const table("readers");
  constexpr U32 policies = 4000;
  {
    Skerry::ShmTableOptions options;
    options.capacity = policies;
    SrTePolicy::PolicyInputShmWriter writer(table, options);
    for (U32 i = 1; i <= policies; ++i) {
      writer.put(TestSupport::InputRecord(SrTePolicy::PolicySource::sourceBgp, i)
                     .to(Ludd::IpAddr::fromU32(0x0a000000 + i), 100)
                     .bsid(100000 + i)
                     .list({16002, 20000 + i}));
    }
  }
  constexpr int stalled = 40;
  AgentProcess agent({"--platform", std::string(SRTE_SOURCE_DIR) + "/examples/01-two-sources.json",
                      "--source", "bgp=" + table, "--socket", socket_, "--max-readers",
                      std::to_string(stalled + 1)});
  U32 published = 0;
  for (Json l; published < policies && !(l = agent.next()).is_null();)
    published += l["event"] == "policy";
  ASSERT_EQ(published, policies);
  ASSERT_EQ(runProgram(SRTE_SHOW, {"--socket", socket_, "--json"}).status, 0);

  long const before = AgentTesting::residentKb(agent.pid());
  std::vector<int> readers;
  for (int i = 0; i < stalled; ++i)
    readers.push_back(AgentTesting::connectTo(socket_));
  // Served in order: once this reader has its state, the stalled ones have theirs queued (which
  // took over 20 s under the sanitizers on a loaded machine: the bounds are a minute).
  ASSERT_EQ(runProgram(SRTE_SHOW, {"--socket", socket_, "--json", "--timeout", "60"},
                       std::chrono::seconds(60))
                .status,
            0);
  EXPECT_LT(AgentTesting::residentKb(agent.pid()) - before, 16 * 1024)
      << stalled << " stalled readers";

  readers.push_back(AgentTesting::connectTo(socket_));
  Outcome o = runProgram(SRTE_SHOW, {"--socket", socket_, "--json"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "srte-show: refused by the agent: the agent serves at most " +
                       std::to_string(stalled + 1) + " readers at once; try again later\n");
  for (int fd : readers)
    ::close(fd);
  for (int i = 0; i < 100 && o.status != 0; ++i)
    o = runProgram(SRTE_SHOW, {"--socket", socket_, "--json"});
  EXPECT_EQ(o.status, 0) << "readers that went away still counted: " << o.err;
}

}  // namespace
