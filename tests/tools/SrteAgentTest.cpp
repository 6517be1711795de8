// srte-agent: the published-state feed on an in-process host (which lines a change of the
// outputs makes), the command line, and the daemon run as a process beside srte-source, which
// creates, fills and removes a table while the daemon watches.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "AgentMetrics.h"
#include "AgentProcess.h"
#include "DaemonOptions.h"
#include "InputRecord.h"
#include "PublishedFeed.h"
#include "ScenarioPlatform.h"
#include "ScenarioReader.h"
#include "SrTePolicy/SrTePolicyInputShm.h"
#include "StateSync.h"

using namespace SrTePolicy;
using SrTeDaemon::OrderedJson;

namespace {

// Two labels with next hops: 16002 and 16003.
char const* const platformJson = R"({"platform": {
  "adjacencies": [
    {"index": 1, "vias": [{"interface": "Ethernet1", "nextHop": "10.0.12.2", "label": 16002}]},
    {"index": 2, "vias": [{"interface": "Ethernet2", "nextHop": "10.0.13.3", "label": 16003}]}],
  "routes": [{"label": 16002, "source": 1, "adjacency": 1},
             {"label": 16003, "source": 1, "adjacency": 2}]}})";

// "policy added 192.0.2.1" and the like: what a line says, without the numbers the pipeline
// allocates.
std::string gist(OrderedJson const& l) {
  std::string s = l["event"].get<std::string>() + " " + l["change"].get<std::string>();
  if (l.contains("endpoint")) s += " " + l["endpoint"].get<std::string>();
  if (l.contains("label")) s += " " + std::to_string(l["label"].get<U32>());
  if (l.contains("vias")) s += " vias " + std::to_string(l["vias"].size());
  return s;
}

class Feed : public ::testing::Test {
 protected:
  Feed() {
    SrTeScenario::Scenario s = SrTeScenario::readScenarioText(platformJson, "platform");
    SrTeScenario::PlatformLoader(agent.mplsStatus(), agent.forwardingStatus(),
                                 agent.forwarding6Status(), s.ceiling)
        .apply(s.platform);
  }
  void write(U32 index, char const* endpoint, U32 bsid, std::vector<Ludd::MplsLabelOperation> l) {
    TestSupport::InputRecord e(PolicySource::sourceBgp, index);
    e.to(endpoint, 5).bsid(bsid);
    U32 w = 1;
    for (auto const& stack : l)
      e.list(stack, w++);
    agent.sourceTableIs(PolicySource::sourceBgp)->policyInputEntryIs(e);
  }
  // Lets the pipeline settle, flushes and returns the gist of the new lines, sorted (within
  // one flush the lines follow the order of the pipeline's writes).
  std::vector<std::string> settle() {
    agent.advanceUntilIdle();
    out.str("");
    feed.flush();
    last.clear();
    std::vector<std::string> g;
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
      OrderedJson l = OrderedJson::parse(line);
      last[g.emplace_back(gist(l))] = l;
    }
    std::sort(g.begin(), g.end());
    return g;
  }

  SrTePolicyAgent agent{Vell::manualClockFactory(10)};
  std::ostringstream out;
  SrTeDaemon::EventLog log{out, agent.clock()};
  int flushCalls = 0;
  SrTeDaemon::PublishedFeed feed{agent, log, [this] { ++flushCalls; }};
  std::map<std::string, OrderedJson> last;  // by gist
};

// Faults: a line per intermediate step of one publication; a line for an output that did not
// change; a removal without a line, or one that does not say what went; a FEC without the
// weights of its policy; a lost change between a flush and the next; lines for what the host
// tears down after the feed was detached.
TEST_F(Feed, OneLinePerChangedOutputWithTheSettledState) {
  write(1, "192.0.2.1", 900001, {{16002, 16009}, {16003}});
  EXPECT_EQ(settle(), (std::vector<std::string>{"bsid-route added 900001", "fec added vias 2",
                                                "policy added 192.0.2.1"}));
  EXPECT_EQ(flushCalls, 1) << "one flush asked for the whole chain";
  OrderedJson policy = last["policy added 192.0.2.1"], fec = last["fec added vias 2"],
              route = last["bsid-route added 900001"];
  EXPECT_NEAR(policy["t"].get<double>(), 10.05, 1e-6) << "published after the 50 ms window";
  EXPECT_EQ(policy["candidate"], "bgp/1");
  EXPECT_EQ(policy["bindingSid"], 900001);
  EXPECT_EQ(policy["fec"], fec["fec"]);
  EXPECT_EQ(route["fec"], fec["fec"]);
  EXPECT_EQ(fec["vias"][0]["weight"], 1);
  EXPECT_EQ(fec["vias"][1]["weight"], 2);
  EXPECT_EQ(fec["vias"], policy["tunnels"]);

  // A new binding SID: the policy changes, its route moves; the FEC stays as it was.
  write(1, "192.0.2.1", 900002, {{16002, 16009}, {16003}});
  EXPECT_EQ(settle(),
            (std::vector<std::string>{"bsid-route added 900002", "bsid-route removed 900001",
                                      "policy changed 192.0.2.1"}));
  EXPECT_EQ(flushCalls, 2) << "the change after the first flush asked for none";
  EXPECT_EQ(last["bsid-route removed 900001"]["fec"], fec["fec"]) << "a removal names what went";

  // Unchanged input: nothing.
  write(1, "192.0.2.1", 900002, {{16002, 16009}, {16003}});
  EXPECT_EQ(settle(), std::vector<std::string>{});

  agent.sourceTable(PolicySource::sourceBgp)
      ->policyInputEntryDel(PolicyId::make(PolicySource::sourceBgp, 1));
  EXPECT_EQ(settle(), (std::vector<std::string>{"bsid-route removed 900002", "fec removed vias 2",
                                                "policy removed 192.0.2.1"}));
  EXPECT_TRUE(feed.written().empty());

  write(2, "192.0.2.2", 900002, {{16002}});
  EXPECT_EQ(settle().size(), 3u);
  feed.detach();
  agent.sourceTableDel(PolicySource::sourceBgp);
  EXPECT_EQ(settle(), std::vector<std::string>{});
}

// Catches: a FEC that a change took in asks for but that a later flush of the same busy spell
// writes (a record taken in while the first publish window ran), left out of the delays; a
// delay measured from a change older than the youngest one not yet published; the clock not
// stopped once the pipeline settled, so a later FEC is measured from an old change.
TEST(PublishDelay, EveryFecOfABusySpellIsMeasuredAndNoneAfterItSettled) {
  SrTeDaemon::AgentMetrics m;
  nlohmann::ordered_json const fec = {{"fec", 1}};
  m.inputSeen(1.0);
  m.inputSeen(1.03);
  m.fecWritten(fec, 1.06);  // the first window: measured from the first change
  m.flushDone();
  m.fecWritten(fec, 1.11);  // the next window: from the change it may have come of
  m.flushDone();
  m.inputSettled();
  m.fecWritten(fec, 5.0);  // nothing taken in since: not a publish delay
  m.flushDone();
  EXPECT_EQ(m.delayCount(), 2u);
  EXPECT_NEAR(m.delaySum(), 0.06 + 0.08, 1e-9);
}

// Faults: bad usage accepted, or refused without naming the argument; defaults that do not
// match the tables srte-source writes; a scenario's agent that also watches the default tables
// (another test's or user's sources would leak into it); two platforms or sockets taken silently.
TEST(DaemonOptions, DefaultsAndRefusals) {
  using SrTeDaemon::parseDaemonOptions;
  SrTeDaemon::DaemonOptions o = parseDaemonOptions({});
  ASSERT_EQ(o.sources.size(), 3u);
  EXPECT_EQ(o.sources[0].table, "srte-bgp");
  EXPECT_EQ(o.sources[2].table, "srte-other");
  o = parseDaemonOptions({"--source", "pcep=t1", "--poll-ms=3", "--platform", "p.json"});
  ASSERT_EQ(o.sources.size(), 1u);
  EXPECT_EQ(o.sources[0].source, PolicySource::sourcePcep);
  EXPECT_EQ(o.pollMs, 3u);
  o = parseDaemonOptions({"--scenario", "s.json", "--socket", "/x"});
  EXPECT_TRUE(o.sources.empty());
  EXPECT_EQ(o.socket, "/x");
  EXPECT_EQ(parseDaemonOptions({"--serve"}).socket, SrTeStateSync::defaultSocketPath());
  struct Case {
    std::vector<std::string> args;
    std::string refusal;  // its start
  } const cases[] = {
      {{"--source", "static=t"},
       "--source: 'static' is not a source that writes a table (bgp, pcep or other; the "
       "static source is the agent's own configuration)"},
      {{"--source", "bgp"}, "--source: 'bgp' is not NAME=TABLE (for example bgp=srte-bgp)"},
      {{"--source", "bgp=a", "--source", "pcep=a"},
       "--source: table 'a' given for both bgp and pcep (one writer per table)"},
      {{"--source", "bgp=a/b"}, "--source bgp: table name 'a/b'"},
      {{"--poll-ms", "0"}, "--poll-ms: '0' is not a number from 1 to 10000"},
      {{"--trace"}, "--trace needs a value"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{"--scenario", "s.json", "--platform", "p.json"},
       "--platform and --scenario both name the platform; give one"},
      {{"--serve", "--socket", "/x"}, "--socket: a socket is given already"},
  };
  for (Case const& c : cases) {
    std::string got = "accepted";
    try {
      parseDaemonOptions(c.args);
    } catch (SrTeDaemon::UsageError const& e) {
      got = e.what();
    }
    EXPECT_EQ(got.substr(0, c.refusal.size()), c.refusal);
  }
}

// --- The daemon as a process ---------------------------------------------------------------

using namespace AgentTesting;

std::string const platformFile = SRTE_EXAMPLES "/01-two-sources.json";

int runSource(std::vector<std::string> args) {
  return runProgram(SRTE_SOURCE, std::move(args)).status;
}

// Adds a candidate path of color 100 to `table` through srte-source (without a binding SID when
// `bsid` is empty).
void addCandidate(std::string const& table, std::string const& source, std::string const& endpoint,
                  std::string const& bsid, std::vector<std::string> const& lists = {"16002"}) {
  std::vector<std::string> args = {"--table",    table,    "--source", source, "add",
                                   "--endpoint", endpoint, "--color",  "100"};
  if (!bsid.empty()) args.insert(args.end(), {"--binding-sid", bsid});
  for (std::string const& l : lists)
    args.insert(args.end(), {"--segment-list", l});
  ASSERT_EQ(runSource(args), 0);
}

// The gists of the next `count` lines of published state, sorted.
std::vector<std::string> publishedGists(AgentProcess& agent, std::size_t count) {
  std::vector<std::string> out;
  for (auto const& l : agent.published(count))
    out.push_back(gist(l));
  std::sort(out.begin(), out.end());
  return out;
}

// The first line of `event` for `source`; no other source-attached line may come before it.
OrderedJson lineOf(AgentProcess& agent, std::string const& event, std::string const& source) {
  for (OrderedJson l = agent.next(); !l.is_null(); l = agent.next()) {
    if (l["event"] == event && l.value("source", "") == source) return l;
    EXPECT_NE(l["event"], "source-attached") << l.dump();
  }
  ADD_FAILURE() << "no " << event << " line for " << source << "; standard error: " << agent.err();
  return OrderedJson::object();
}

using Gists = std::vector<std::string>;

// Faults: a table that appears after the start never attached; lines missing, doubled or left
// over; removing the table leaving its policies published; a damaged table, or one cut short
// under the agent (SIGBUS), left attached, or ending the agent and with it every other source's
// policies and its socket; more policies removed than the table's own; the damage reported again
// on every poll; a table too short for its header waited on in silence; a table made anew not
// picked up; a signal that kills the daemon instead of stopping it, an exit status other than 0,
// a line after the last, the socket left behind.
TEST(AgentProcess, TablesAppearingVanishingDamagedAndCutShortMoveExactlyTheirPolicies) {
  TestTable const bgp("agent-bgp"), pcep("agent-pcep");
  std::string const socket = "/tmp/" + bgp + ".sock";
  AgentProcess agent({"--platform", platformFile, "--source", "bgp=" + bgp, "--source",
                      "pcep=" + pcep, "--socket", socket, "--poll-ms", "5"});
  EXPECT_EQ(agent.until("started").back()["sources"][0]["table"], bgp);
  addCandidate(pcep, "pcep", "192.0.2.9", "900009", {"16003"});
  ASSERT_EQ(agent.published(3).size(), 3u);

  addCandidate(bgp, "bgp", "192.0.2.1", "900001", {"16002,16009"});
  addCandidate(bgp, "bgp", "192.0.2.2", "900002", {"16003", "3:16002"});
  EXPECT_EQ(publishedGists(agent, 6),
            (Gists{"bsid-route added 900001", "bsid-route added 900002", "fec added vias 1",
                   "fec added vias 2", "policy added 192.0.2.1", "policy added 192.0.2.2"}));
  ASSERT_EQ(runSource({"--table", bgp, "destroy"}), 0);
  EXPECT_EQ(lineOf(agent, "source-detached", "bgp")["reason"], "the table was removed");
  EXPECT_EQ(publishedGists(agent, 6),
            (Gists{"bsid-route removed 900001", "bsid-route removed 900002", "fec removed vias 1",
                   "fec removed vias 2", "policy removed 192.0.2.1", "policy removed 192.0.2.2"}));
  // The table made anew is picked up again.
  addCandidate(bgp, "bgp", "192.0.2.3", "", {"16003"});
  EXPECT_EQ(publishedGists(agent, 2), (Gists{"fec added vias 1", "policy added 192.0.2.3"}));

  // Damaged: detached and said once, though the agent tries to attach it again at every poll.
  TestSupport::damageTable(bgp);
  lineOf(agent, "source-corrupt", "bgp");
  EXPECT_EQ(publishedGists(agent, 2), (Gists{"fec removed vias 1", "policy removed 192.0.2.3"}));
  if (OrderedJson l = agent.next(milliseconds(300)); !l.is_null())
    ADD_FAILURE() << "said again: " << l.dump();
  Skerry::shmTableRemove(bgp);
  addCandidate(bgp, "bgp", "192.0.2.3", "", {"16003"});
  lineOf(agent, "source-attached", "bgp");  // perhaps before the record, which then follows
  EXPECT_EQ(publishedGists(agent, 2), (Gists{"fec added vias 1", "policy added 192.0.2.3"}));

  ASSERT_EQ(::truncate(("/dev/shm/" + bgp).c_str(), 0), 0);
  EXPECT_EQ(lineOf(agent, "source-corrupt", "bgp")
                .value("reason", "")
                .rfind("table '" + bgp + "': the table was cut short while attached", 0),
            0u);
  EXPECT_EQ(publishedGists(agent, 2), (Gists{"fec removed vias 1", "policy removed 192.0.2.3"}));
  EXPECT_EQ(lineOf(agent, "source-refused", "bgp")["reason"],
            "table '" + bgp + "' is 0 bytes, too short for its 128-byte header");
  // The next writer makes the table anew; the agent may attach it before its first record,
  // which then comes through the change feed.
  addCandidate(bgp, "bgp", "192.0.2.4", "900004");
  lineOf(agent, "source-attached", "bgp");
  EXPECT_EQ(publishedGists(agent, 3),
            (Gists{"bsid-route added 900004", "fec added vias 1", "policy added 192.0.2.4"}));

  EXPECT_EQ(agent.terminate(), 0);
  std::vector<OrderedJson> tail = agent.until("stopped");
  ASSERT_GE(tail.size(), 2u);
  EXPECT_EQ(tail[tail.size() - 2]["event"], "stopping");
  EXPECT_EQ(tail[tail.size() - 2]["reason"], "SIGTERM");
  EXPECT_TRUE(agent.next(milliseconds(1000)).is_null()) << "a line after stopped";
  EXPECT_NE(::access(socket.c_str(), F_OK), 0) << "the agent left its socket behind";
}

// Faults: the agent attaching a table that another user made (any user could feed it policies)
// or that others than its owner may write; a refusal written on every poll, or kept once the
// table is made right; the table of the user trusted for a source refused.
TEST(AgentProcess, OnlyTablesOfTrustedOwnersAreAttached) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a table to another user";
  TestTable const bgp("trust-bgp"), pcep("trust-pcep");
  addCandidate(bgp, "bgp", "192.0.2.1", "900001");
  addCandidate(pcep, "pcep", "192.0.2.2", "900002");
  ASSERT_EQ(::chown(("/dev/shm/" + bgp).c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(("/dev/shm/" + pcep).c_str(), 0666), 0);
  AgentProcess agent({"--platform", platformFile, "--source", "bgp=" + bgp, "--source",
                      "pcep=" + pcep, "--poll-ms", "5"});
  EXPECT_EQ(lineOf(agent, "source-refused", "bgp")["reason"],
            "table '" + bgp +
                "' belongs to nobody (uid 65534), not to root (uid 0), the user "
                "trusted to write it");
  EXPECT_EQ(lineOf(agent, "source-refused", "pcep")["reason"],
            "table '" + pcep + "' may be written by others than its owner (mode 0666)");
  ASSERT_EQ(::chmod(("/dev/shm/" + pcep).c_str(), 0600), 0);
  EXPECT_EQ(lineOf(agent, "source-attached", "pcep")["candidates"], 1);
  for (OrderedJson l; !(l = agent.next(milliseconds(300))).is_null();)
    EXPECT_NE(l.value("source", ""), "bgp") << "refused again, or attached: " << l.dump();
  EXPECT_EQ(agent.terminate(), 0);

  AgentProcess trusting({"--platform", platformFile, "--source", "bgp=" + bgp, "--source-user",
                         "bgp=nobody", "--poll-ms", "5"});
  EXPECT_EQ(lineOf(trusting, "source-attached", "bgp")["candidates"], 1);
}

// Faults: SIGHUP, SIGUSR1 or SIGUSR2 ending the agent; a reader of its output that goes away
// killing it (SIGPIPE), or the failed output reported on every line; an agent told to stop on
// it that goes on, or leaves its socket behind.
TEST(AgentProcess, SignalsAndALostOutputDoNotEndTheAgent) {
  TestTable const table("signals");
  std::string const socket = "/tmp/" + table + ".sock";
  std::vector<std::string> const args = {"--platform", platformFile, "--source",  "bgp=" + table,
                                         "--socket",   socket,       "--poll-ms", "5"};
  AgentProcess agent(args);
  agent.until("started");
  for (auto [signal, name] : {std::pair{SIGHUP, "SIGHUP"}, std::pair{SIGUSR1, "SIGUSR1"},
                              std::pair{SIGUSR2, "SIGUSR2"}}) {
    ::kill(agent.pid(), signal);
    EXPECT_EQ(agent.until("signal").back()["signal"], name) << name << " ended the agent";
  }
  agent.closeOutput();
  addCandidate(table, "bgp", "192.0.2.1", "900001");
  addCandidate(table, "bgp", "192.0.2.2", "900002");
  EXPECT_TRUE(eventually(
      [&] {
        return runProgram(SRTE_SHOW, {"--socket", socket, "--json"}).out.find("192.0.2.2") !=
               std::string::npos;
      },
      milliseconds(20000)))
      << "the agent no longer takes changes in";
  EXPECT_TRUE(agent.alive());
  EXPECT_EQ(agent.err(),
            "srte-agent: standard output failed (Broken pipe); going on without "
            "writing the lines\n");
  EXPECT_EQ(agent.terminate(), 0);

  std::vector<std::string> stopping = args;
  stopping.push_back("--stop-on-output-error");
  AgentProcess stopper(stopping);
  stopper.until("started");
  stopper.closeOutput();
  addCandidate(table, "bgp", "192.0.2.3", "900003");
  ASSERT_FALSE(stopper.alive(milliseconds(5000))) << "it went on: " << stopper.err();
  EXPECT_EQ(stopper.status(), 1);
  EXPECT_EQ(stopper.err(), "srte-agent: standard output failed (Broken pipe); stopping\n");
  EXPECT_NE(::access(socket.c_str(), F_OK), 0) << "the agent left its socket behind";
}

// Faults: a platform file name that is not UTF-8 ending the agent (its started line could not
// be written); a platform file read whatever its size, or a directory taken for one.
TEST(AgentProcess, PlatformFilesAreCheckedBeforeTheyAreRead) {
  std::string const odd = "/tmp/" + testName("odd-\xff\xfe") + ".json";
  std::string const table = testName("odd-table");
  std::ofstream(odd) << slurp(platformFile);
  AgentProcess agent({"--platform", odd, "--source", "bgp=" + table});
  EXPECT_EQ(agent.until("started").back()["platform"],
            "/tmp/" + testName("odd-\xef\xbf\xbd\xef\xbf\xbd") + ".json");
  EXPECT_EQ(agent.terminate(), 0);
  std::remove(odd.c_str());

  Outcome o = runProgram(SRTE_AGENT, {"--platform", platformFile, "--max-platform-bytes", "100",
                                      "--source", "bgp=" + table});
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "srte-agent: " + platformFile +
                       ": (document): " + std::to_string(slurp(platformFile).size()) +
                       " bytes, more than the 100 allowed\n");
  o = runProgram(SRTE_AGENT, {"--platform", "/tmp", "--source", "bgp=" + table});
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "srte-agent: /tmp: (document): a directory, not a file\n");
}

}  // namespace
