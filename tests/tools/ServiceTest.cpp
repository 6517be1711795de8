// srte-agent as an operator runs it: the configuration file and its check, a reload that moves
// only what changed, the metrics endpoint (checked by promtool, scraped by a real prometheus
// server), the service manager's notifications on a socket the test owns, and the unit file
// checked by systemd-analyze. Every wait is bounded; every process started here is ended here.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

#include "AgentProcess.h"
#include "InputRecord.h"
#include "SrTePolicy/SrTePolicyInputShm.h"

using namespace AgentTesting;
using namespace SrTePolicy;
namespace fs = std::filesystem;

namespace {

std::string const examples = SRTE_EXAMPLES;
std::string const sampleConfig = examples + "/agent/srte-agent.json";

// A directory of the test's own, removed at the end.
struct TempDir {
  static inline int made = 0;
  fs::path const path = fs::temp_directory_path() / testName("dir" + std::to_string(made++));
  TempDir() { fs::create_directories(path); }
  ~TempDir() { fs::remove_all(path); }
  std::string write(std::string const& name, std::string const& text) const {
    std::ofstream(path / name) << text;
    return (path / name).string();
  }
};

// An HTTP/1.0 exchange with 127.0.0.1:`port`: the whole response (status line, header and
// body), or empty when the server did not answer within `timeout`.
std::string http(U16 port, std::string const& request, milliseconds timeout = milliseconds(5000)) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string out;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    auto const deadline = Clock::now() + timeout;
    for (;;) {
      auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
      pollfd p{fd, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      char chunk[8192];
      ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) break;
      out.append(chunk, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return out;
}

std::string get(U16 port, std::string const& target) {
  return http(port, "GET " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n");
}

std::string bodyOf(std::string const& response) {
  std::size_t const at = response.find("\r\n\r\n");
  return at == std::string::npos ? "" : response.substr(at + 4);
}

// The value of the sample `series` (name with its labels, as written) in an exposition.
double sample(std::string const& exposition, std::string const& series) {
  std::istringstream in(exposition);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(series + " ", 0) == 0) return std::stod(line.substr(series.size() + 1));
  }
  ADD_FAILURE() << "no sample " << series;
  return -1;
}

// A port nobody listens on now.
U16 freePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

}  // namespace

// --- The configuration file and its check ---------------------------------------------------

// Faults: a mistake taken for a good file (or a good file refused) by --check, an error that
// does not name the JSON path of the mistake, a relative platform name read from the working
// directory instead of beside the file.
TEST(ServiceConfig, CheckNamesTheFileThePathAndTheReason) {
  TempDir dir;
  std::string const policy =
      R"({"endpoint": "192.0.2.1", "color": 5, "bindingSid": 900001,
          "candidatePaths": [{"segmentLists": [{"labels": [16002]}]}]})";
  struct Case {
    char const* name;
    std::string text;
    char const* path;  // in the message, after the file's name
    char const* reason;
  } const cases[] = {
      {"not-json", "{\"pollMs\": ", "(document)", "not valid JSON"},
      {"unknown", R"({"pollMS": 5})", "pollMS", "unknown field \"pollMS\""},
      {"poll", R"({"pollMs": 0})", "pollMs", "from 1 to 10000"},
      {"metrics", R"({"metrics": "localhost"})", "metrics", "is not ADDRESS:PORT"},
      {"source", R"({"sources": {"static": {}}})", "sources.static", "not a source that writes"},
      {"table", R"({"sources": {"bgp": {"table": "a/b"}}})", "sources.bgp.table", "table"},
      {"label", R"({"static": {"policies": [{"endpoint": "192.0.2.1", "color": 5,
          "candidatePaths": [{"segmentLists": [{"labels": [1048576]}]}]}]}})",
       "static.policies[0].candidatePaths[0].segmentLists[0].labels[0]", "out of range"},
      {"bsid",
       R"({"static": {"policies": [)" + policy + "," +
           std::regex_replace(policy, std::regex("192.0.2.1"), "192.0.2.2") + "]}}",
       "static.policies[1]", "binding SID 900001 is policy 0's already"},
      {"dscp", R"({"colorDscp": [{"color": 5, "dscp": [64]}]})", "colorDscp[0].dscp[0]",
       "from 0 to 63"},
      {"platform", R"({"platform": "missing.json"})", "/missing.json: (document)",
       "cannot open the file"},
  };
  for (Case const& c : cases) {
    std::string const file = dir.write(std::string(c.name) + ".json", c.text);
    Outcome o = runProgram(SRTE_AGENT, {"--check", file});
    EXPECT_EQ(o.status, 2) << c.name;
    EXPECT_NE(o.err.find(std::string(c.path) + ": "), std::string::npos) << c.name << ": " << o.err;
    EXPECT_NE(o.err.find(c.reason), std::string::npos) << c.name << ": " << o.err;
  }
  // The sample the documentation shows is a good file (its platform named relative to it).
  Outcome sample = runProgram(SRTE_AGENT, {"--check", sampleConfig});
  EXPECT_EQ(sample.status, 0) << sample.err;
  EXPECT_NE(sample.out.find("2 static policies (3 candidate paths), 2 colors"), std::string::npos)
      << sample.out;
}

// --- The service manager's notifications ----------------------------------------------------

namespace {

// A datagram socket the test owns, in the abstract namespace ("@name") or at a path.
class NotifySocket {
 public:
  explicit NotifySocket(std::string name) : name_(std::move(name)) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, name_.data(), name_.size());
    if (name_[0] == '@') a.sun_path[0] = '\0';
    socklen_t const len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size() +
                                                 (name_[0] == '@' ? 0 : 1));
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), len) != 0) ADD_FAILURE() << "bind " << name_;
  }
  ~NotifySocket() {
    ::close(fd_);
    if (name_[0] == '/') ::unlink(name_.c_str());
  }
  // The next datagram, or empty after `timeout`.
  std::string next(milliseconds timeout = milliseconds(5000)) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) != 1) return "";
    char buf[4096];
    ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
  }
  // The next datagram that is not a watchdog ping; the pings on the way are counted.
  std::string nextState(int& pings) {
    for (std::string m = next(); !m.empty(); m = next()) {
      if (m == "WATCHDOG=1") {
        ++pings;
        continue;
      }
      return m;
    }
    return "";
  }

 private:
  std::string name_;
  int fd_ = -1;
};

// --- Reload ---------------------------------------------------------------------------------

std::string staticPolicy(char const* endpoint, U32 bsid, U32 label) {
  return std::string(R"({"endpoint": ")") + endpoint + R"(", "color": 100, "bindingSid": )" +
         std::to_string(bsid) + R"(, "candidatePaths": [{"segmentLists": [{"labels": [)" +
         std::to_string(label) + "]}]}]}";
}

std::string configText(std::string const& policies, U32 pollMs = 10) {
  return R"({"platform": ")" + examples + R"(/01-two-sources.json", "pollMs": )" +
         std::to_string(pollMs) + R"(, "static": {"policies": [)" + policies + "]}}";
}

}  // namespace

// Faults: a reload that rewrites every static policy (an unchanged one would get a new
// candidate id and its FEC and route would move), a changed policy that gets a new candidate
// id, a refused file that changes something or is not said, the reload line not saying what
// changed, a command-line setting overridden by the file. To the service manager (on an abstract
// socket, taken for a path it would not be reached): READY before the start-up passes or never,
// no watchdog pings, RELOADING without MONOTONIC_USEC or no READY after it, no STOPPING at
// SIGTERM.
TEST(ServiceReload, OnlyWhatChangedMovesAndTheServiceManagerIsTold) {
  TempDir dir;
  std::string const a = staticPolicy("192.0.2.1", 900001, 16002);
  std::string const file =
      dir.write("agent.json", configText(a + "," + staticPolicy("192.0.2.2", 900002, 16002)));
  std::string const notifyName = "@srte-notify-" + std::to_string(::getpid());
  NotifySocket notify(notifyName);
  ::setenv("NOTIFY_SOCKET", notifyName.c_str(), 1);
  ::setenv("WATCHDOG_USEC", "100000", 1);
  AgentProcess agent(
      {"--config", file, "--source", "bgp=" + dir.path.filename().string(), "--poll-ms", "7"});
  ::unsetenv("NOTIFY_SOCKET");
  ::unsetenv("WATCHDOG_USEC");
  OrderedJson started = agent.until("started").back();
  EXPECT_EQ(started["pollMs"], 7) << "the file's pollMs won over the command line's";
  int pings = 0;
  std::string m = notify.nextState(pings);
  EXPECT_EQ(m.rfind("READY=1\nSTATUS=running", 0), 0u) << m;
  // 50 ms apart: a few in half a second at most, bounded all the same.
  EXPECT_TRUE(
      eventually([&] { return notify.next(milliseconds(500)) == "WATCHDOG=1" && ++pings >= 3; },
                 milliseconds(3000)));
  std::map<std::string, std::string> candidate;  // endpoint -> candidate, as first published
  int fecs = 0, routes = 0;
  agent.published([&](OrderedJson const& l) {
    if (l["event"] == "policy") candidate[l["endpoint"]] = l["candidate"];
    fecs += l["event"] == "fec";
    routes += l["event"] == "bsid-route";
    return candidate.size() == 2 && fecs == 2 && routes == 2;
  });

  // The second policy moves to another label, a third comes; the first stays as it was.
  dir.write("agent.json", configText(a + "," + staticPolicy("192.0.2.2", 900002, 16003) + "," +
                                         staticPolicy("192.0.2.3", 900003, 16003),
                                     20));
  ::kill(agent.pid(), SIGHUP);
  OrderedJson reload = agent.until("reload").back();
  EXPECT_EQ(reload["result"], "applied");
  EXPECT_EQ(reload["changes"], OrderedJson({"static policy 192.0.2.2 color 100: changed",
                                            "static policy 192.0.2.3 color 100: added"}));
  EXPECT_EQ(reload["needsRestart"], OrderedJson::array());
  m = notify.nextState(pings);
  EXPECT_TRUE(std::regex_search(m, std::regex("^RELOADING=1\nMONOTONIC_USEC=[0-9]+\n"))) << m;
  m = notify.nextState(pings);
  EXPECT_EQ(m.rfind("READY=1\nSTATUS=running; reloaded", 0), 0u) << m;
  bool changed = false, added = false;
  for (OrderedJson const& l : agent.published([&](OrderedJson const& l) {
         if (l["event"] == "policy" && l["endpoint"] == "192.0.2.2") changed = true;
         if (l["event"] == "policy" && l["endpoint"] == "192.0.2.3") added = true;
         return changed && added;
       })) {
    EXPECT_NE(l.value("endpoint", ""), "192.0.2.1") << "the unchanged policy moved: " << l.dump();
    EXPECT_NE(l.value("label", 0u), 900001u) << "its route moved: " << l.dump();
    if (l["event"] == "policy" && l["endpoint"] == "192.0.2.2") {
      EXPECT_EQ(l["change"], "changed");
      EXPECT_EQ(l["candidate"], candidate["192.0.2.2"]) << "the changed path took a new id";
    }
  }

  // A file with a mistake changes nothing, and says why; the next good one applies again.
  dir.write("agent.json", configText(a + ", {\"endpoint\": \"192.0.2.9\"}"));
  ::kill(agent.pid(), SIGHUP);
  reload = agent.until("reload").back();
  EXPECT_EQ(reload["result"], "refused");
  EXPECT_NE(reload["reason"].get<std::string>().find("static.policies[1]: missing field \"color\""),
            std::string::npos)
      << reload.dump();
  dir.write("agent.json", configText(a + "," + staticPolicy("192.0.2.2", 900002, 16003) + "," +
                                         staticPolicy("192.0.2.3", 900003, 16003),
                                     20));
  ::kill(agent.pid(), SIGHUP);
  std::vector<OrderedJson> lines = agent.until("reload");
  EXPECT_EQ(lines.back()["result"], "applied");
  EXPECT_EQ(lines.back()["changes"], OrderedJson::array()) << "the refused file was applied";
  for (OrderedJson const& l : lines)
    EXPECT_FALSE(l.contains("change")) << "the refused file moved something: " << l.dump();
  EXPECT_EQ(agent.terminate(), 0);
  while (!(m = notify.nextState(pings)).empty() && m.rfind("STOPPING", 0) != 0) {
  }
  EXPECT_EQ(m.rfind("STOPPING=1\nSTATUS=stopping: SIGTERM", 0), 0u) << m;
}

// Faults: a socket given by path taken for an abstract name; pings when WATCHDOG_PID names
// another process.
TEST(ServiceNotify, APathSocketAndAWatchdogOfAnotherProcess) {
  TempDir dir;
  std::string const config = dir.write("agent.json", configText(""));
  NotifySocket socket((dir.path / "notify").string());
  ::setenv("NOTIFY_SOCKET", (dir.path / "notify").c_str(), 1);
  ::setenv("WATCHDOG_USEC", "100000", 1);
  ::setenv("WATCHDOG_PID", "1", 1);
  AgentProcess agent({"--config", config, "--source", "bgp=" + dir.path.filename().string()});
  ::unsetenv("NOTIFY_SOCKET");
  ::unsetenv("WATCHDOG_USEC");
  ::unsetenv("WATCHDOG_PID");
  agent.until("started");
  int pings = 0;
  std::string m = socket.nextState(pings);
  EXPECT_EQ(m.rfind("READY=1\nSTATUS=running", 0), 0u) << m;
  EXPECT_EQ(socket.next(milliseconds(300)), "") << "a ping, though WATCHDOG_PID is another's";
  EXPECT_EQ(agent.terminate(SIGTERM), 0);
  m = socket.nextState(pings);
  EXPECT_EQ(m.rfind("STOPPING=1\nSTATUS=stopping: SIGTERM", 0), 0u) << m;
  EXPECT_EQ(pings, 0) << "pings though WATCHDOG_PID names another process";
}

// --- The unit file --------------------------------------------------------------------------

// Faults: a unit file systemd cannot read (a misspelt setting, a bad value, a command that is
// not there), or one that lost what running the agent as a service needs.
TEST(ServiceUnit, SystemdAnalyzeVerifiesTheUnit) {
  std::string const unit =
      slurp(std::string(SRTE_SOURCE_DIR) + "/packaging/systemd/srte-agent.service");
  for (char const* needed : {"Type=notify", "ExecStartPre=/usr/bin/srte-agent --check ",
                             "ExecReload=/bin/kill -HUP $MAINPID", "Restart=on-failure",
                             "WatchdogSec=", "RuntimeDirectory=srte-agent"}) {
    EXPECT_NE(unit.find(needed), std::string::npos) << needed;
  }
  ASSERT_EQ(::access("/usr/bin/systemd-analyze", X_OK), 0)
      << "systemd-analyze is not installed (scripts/deps.sh installs systemd)";
  // The real file, with the installed paths pointing at this build and the sample.
  TempDir dir;
  std::string copy = std::regex_replace(unit, std::regex("/usr/bin/srte-agent"), SRTE_AGENT);
  copy = std::regex_replace(copy, std::regex("/etc/srte-agent/srte-agent.json"), sampleConfig);
  std::string const file = dir.write("srte-agent.service", copy);
  Outcome o = runProgram("/usr/bin/systemd-analyze", {"verify", "--man=no", file});
  // systemd-analyze exits 0 on settings it ignores; it says so on standard error, which must
  // stay empty (but for a host without a running manager, which it reports and goes on).
  EXPECT_EQ(o.status, 0) << o.err;
  std::istringstream err(o.err);
  for (std::string line; std::getline(err, line);) {
    EXPECT_EQ(line.find("srte-agent.service"), std::string::npos) << line;
  }
}

// --- Metrics --------------------------------------------------------------------------------

// Faults: a count by state that is wrong (a down policy counted up, a shared segment list
// counted twice, a conflict missed), a delay never observed, an exposition promtool refuses
// (names, units, HELP and TYPE), another path answered as /metrics, a request too large
// buffered whole, a client that sends half a request stalling the others; an endpoint a real
// prometheus server cannot scrape or parse, series it cannot query.
TEST(ServiceMetrics, ExpositionCountsHttpAndAPrometheusScrape) {
  ASSERT_EQ(::access("/usr/bin/prometheus", X_OK), 0)
      << "prometheus is not installed (scripts/deps.sh installs it)";
  // The agent over a table the test writes: two policies with one binding SID between them (a
  // conflict), one whose only label does not resolve.
  TestTable const table("metrics");
  AgentProcess agent{{"--platform", examples + "/01-two-sources.json", "--source", "bgp=" + table,
                      "--metrics", "127.0.0.1:0", "--poll-ms", "5"}};
  std::string const metrics = agent.until("started").back().value("metrics", std::string(":0"));
  U16 const port = static_cast<U16>(std::stoi(metrics.substr(metrics.rfind(':') + 1)));
  ASSERT_NE(port, 0) << "no metrics address in the started line";
  // A client that connects and sends half a request must not hold up the scrape.
  int stalled = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(stalled, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ::send(stalled, "GET /metr", 9, MSG_NOSIGNAL);

  {
    PolicyInputShmWriter w(table);
    for (auto [index, bsid, label] :
         {std::tuple{1u, 900001u, 16002u}, {2u, 900001u, 16002u}, {3u, 900003u, 99999u}}) {
      w.put(TestSupport::InputRecord(PolicySource::sourceBgp, index)
                .to(("192.0.2." + std::to_string(index)).c_str(), 100)
                .bsid(bsid)
                .list({label}));
    }
  }
  std::string body;
  ASSERT_TRUE(eventually(
      [&] {
        body = bodyOf(get(port, "/metrics"));
        return body.find("srte_fecs_installed 2\n") != std::string::npos &&
               body.find("srte_policies{state=\"down\"} 1\n") != std::string::npos;
      },
      milliseconds(10000)))
      << body;
  struct Expected {
    std::string series;
    double value;
  } const expected[] = {
      {"srte_policies{state=\"up\"}", 2},
      {"srte_policies{state=\"selected\"}", 0},
      {"srte_candidate_paths{source=\"bgp\",state=\"active\"}", 2},
      {"srte_candidate_paths{source=\"bgp\",state=\"valid\"}", 0},
      {"srte_candidate_paths{source=\"bgp\",state=\"invalid\"}", 1},
      {"srte_candidate_paths{source=\"pcep\",state=\"active\"}", 0},
      {"srte_segment_lists{state=\"valid\"}", 1},
      {"srte_segment_lists{state=\"invalid\"}", 1},
      {"srte_active_candidate_transitions_total", 2},
      {"srte_binding_sid_routes_installed", 1},
      {"srte_binding_sid_conflicts", 1},
      {"srte_source_attached{source=\"bgp\",table=\"" + table + "\"}", 1},
  };
  for (Expected const& e : expected)
    EXPECT_EQ(sample(body, e.series), e.value) << e.series;
  // Both FECs were published after the write was taken in: a delay each, of at least the
  // publish window's 50 ms (bucket 0.025 empty).
  EXPECT_EQ(sample(body, "srte_publish_delay_seconds_count"), 2);
  EXPECT_EQ(sample(body, "srte_publish_delay_seconds_bucket{le=\"0.025\"}"), 0);
  EXPECT_NE(body.find("srte_build_info{version=\""), std::string::npos);

  TempDir dir;
  std::string const file = dir.write("metrics.txt", body);
  Outcome check = runProgram("/bin/sh", {"-c", "promtool check metrics < " + file});
  EXPECT_EQ(check.status, 0) << check.out << check.err;
  EXPECT_EQ(check.out + check.err, "") << "promtool has remarks";

  EXPECT_EQ(get(port, "/").rfind("HTTP/1.1 404", 0), 0u);
  EXPECT_EQ(
      http(port, "POST /metrics HTTP/1.0\r\nContent-Length: 0\r\n\r\n").rfind("HTTP/1.1 405", 0),
      0u);
  std::string const huge =
      "GET /metrics HTTP/1.0\r\nX-Filler: " + std::string(20000, 'x') + "\r\n\r\n";
  EXPECT_EQ(http(port, huge).rfind("HTTP/1.1 431", 0), 0u);
  ::close(stalled);

  U16 const web = freePort();
  std::string const config =
      dir.write("prometheus.yml",
                "global:\n  scrape_interval: 200ms\n  scrape_timeout: 150ms\n"
                "scrape_configs:\n  - job_name: srte\n    static_configs:\n"
                "      - targets: ['127.0.0.1:" +
                    std::to_string(port) + "']\n");
  int log = ::open((dir.path / "prometheus.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  pid_t server =
      spawn("/usr/bin/prometheus",
            {"--config.file=" + config, "--storage.tsdb.path=" + (dir.path / "data").string(),
             "--web.listen-address=127.0.0.1:" + std::to_string(web)},
            log, log);
  ::close(log);
  std::string answer;
  bool const counted = eventually(
      [&] {
        answer = bodyOf(get(web, "/api/v1/query?query=sum(srte_policies)"));
        return answer.find("\"3\"]") != std::string::npos;
      },
      milliseconds(30000));
  ::kill(server, SIGTERM);
  if (!awaitEnd(server, milliseconds(10000))) ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
  EXPECT_TRUE(counted) << "last answer: " << answer
                       << "\nprometheus said: " << slurp((dir.path / "prometheus.log").string());
  EXPECT_EQ(agent.terminate(), 0);
}
