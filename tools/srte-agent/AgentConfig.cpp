// Reading srte-agent's configuration file (AgentConfig.h).
#include "AgentConfig.h"

#include <nlohmann/json.hpp>
#include <sstream>

#include "MetricsServer.h"
#include "ScenarioReader.h"
#include "Skerry/ShmTable.h"
#include "StateExplain.h"
#include "StateSync.h"

namespace SrTeDaemon {

using Json = nlohmann::json;
using SrTePolicy::PolicySource;
using SrTeScenario::ScenarioError;

namespace {

// A value of the file and its JSON path, for the errors.
struct Field {
  std::string const& file;
  Json const& value;
  std::string path;

  [[noreturn]] void fail(std::string const& reason) const {
    throw ScenarioError(file, path, reason);
  }
  Field at(std::string const& key) const {
    return {file, value.at(key), path.empty() ? key : path + "." + key};
  }
  Field at(std::size_t i) const {
    return {file, value.at(i), path + "[" + std::to_string(i) + "]"};
  }
  std::string text(char const* what) const {
    if (!value.is_string() || value.get_ref<std::string const&>().empty()) {
      fail(std::string("expected ") + what + " (a non-empty string), not " + value.dump());
    }
    return value.get<std::string>();
  }
  U32 number(U32 lo, U32 hi) const {
    if (!value.is_number_unsigned() || value.get<U64>() < lo || value.get<U64>() > hi) {
      fail("expected a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
           ", not " + value.dump());
    }
    return value.get<U32>();
  }
  bool boolean() const {
    if (!value.is_boolean()) fail("expected true or false, not " + value.dump());
    return value.get<bool>();
  }
  void requireObject(char const* what) const {
    if (!value.is_object()) fail(std::string("expected ") + what + " (a JSON object)");
  }
  void requireArray(char const* what) const {
    if (!value.is_array()) fail(std::string("expected ") + what + " (a JSON array)");
  }
};

// A UsageError from the checks the command line shares, said of the file's field.
template <class F>
auto asField(Field const& f, F const& check) {
  try {
    return check();
  } catch (UsageError const& e) {
    f.fail(e.what());
  }
}

std::vector<SourceOption> sourcesOf(Field const& f) {
  f.requireObject("the sources, by name (bgp, pcep, other)");
  std::vector<SourceOption> out;
  for (auto const& item : f.value.items()) {
    Field s = f.at(item.key());
    std::optional<PolicySource> source = SrTePolicy::sourceByName(item.key());
    if (!source || *source == PolicySource::sourceStatic) {
      s.fail("'" + item.key() +
             "' is not a source that writes a table (bgp, pcep or other; static policies go "
             "under \"static\")");
    }
    SourceOption o{*source, SrTePolicy::defaultTableName(*source), std::nullopt};
    s.requireObject("a source: {\"table\": NAME, \"user\": USER}, both optional");
    for (auto const& kv : s.value.items()) {
      Field v = s.at(kv.key());
      if (kv.key() == "table") {
        o.table = v.text("a table name");
        asField(v, [&] { checkTableName("table", o.table); });
      } else if (kv.key() == "user") {
        std::string const user = v.value.is_number_unsigned() ? std::to_string(v.value.get<U64>())
                                                              : v.text("a user name or number");
        o.user = Skerry::shmUserId(user);
        if (!o.user) v.fail("no user '" + user + "'");
      } else {
        v.fail("unknown field \"" + kv.key() + "\" (known here: table, user)");
      }
    }
    for (SourceOption const& other : out) {
      if (other.table == o.table) {
        s.at("table").fail("table '" + o.table + "' is " + SrTePolicy::sourceName(other.source) +
                           "'s too (one writer per table)");
      }
    }
    out.push_back(o);
  }
  return out;
}

std::map<U32, std::set<U32>> colorDscpOf(Field const& f) {
  f.requireArray("the color to DSCP map: [{\"color\": N, \"dscp\": [N, ...]}, ...]");
  std::map<U32, std::set<U32>> out;
  for (std::size_t i = 0; i < f.value.size(); ++i) {
    Field e = f.at(i);
    e.requireObject("a color and its DSCP values");
    for (auto const& kv : e.value.items()) {
      if (kv.key() != "color" && kv.key() != "dscp") {
        e.at(kv.key()).fail("unknown field \"" + kv.key() + "\" (known here: color, dscp)");
      }
    }
    if (!e.value.contains("color")) e.fail("missing field \"color\"");
    if (!e.value.contains("dscp")) e.fail("missing field \"dscp\"");
    U32 const color = e.at("color").number(0, Mosk::maxU32);
    if (out.count(color)) e.at("color").fail("color " + std::to_string(color) + " is given twice");
    Field d = e.at("dscp");
    d.requireArray("the DSCP values of the color");
    std::set<U32>& values = out[color];
    for (std::size_t j = 0; j < d.value.size(); ++j) {
      if (!values.insert(d.at(j).number(0, 63)).second) d.at(j).fail("this DSCP is given twice");
    }
  }
  return out;
}

// The file's settings over `o`, except those the command line gave.
void readInto(DaemonOptions& o, Field const& root) {
  root.requireObject("a configuration (a JSON object)");
  auto const given = [&o](char const* key) { return o.given.count(key) > 0; };
  for (auto const& item : root.value.items()) {
    std::string const& key = item.key();
    Field f = root.at(key);
    if (key == "platform") {
      std::string file = f.text("a scenario file whose platform section is loaded");
      // A relative name is the configuration file's neighbour, wherever the agent was started.
      std::size_t const slash = f.file.rfind('/');
      if (file[0] != '/' && slash != std::string::npos) file = f.file.substr(0, slash + 1) + file;
      if (!given("platform") && !given("scenario")) o.platform = file;
    } else if (key == "sources") {
      std::vector<SourceOption> sources = sourcesOf(f);
      if (!given("sources")) {
        o.noSources = sources.empty();
        o.sources = std::move(sources);
      }
    } else if (key == "socket") {
      std::optional<std::string> socket;
      if (f.value.is_boolean()) {
        if (f.value.get<bool>()) socket = SrTeStateSync::defaultSocketPath();
      } else {
        socket = f.text("a socket path, or true for the default one");
      }
      if (!given("socket")) o.socket = socket;
    } else if (key == "socketGroup") {
      std::optional<gid_t> group = Skerry::shmGroupId(f.text("a group name or number"));
      if (!group) f.fail("no group '" + f.value.get<std::string>() + "'");
      if (!given("socketGroup")) o.socketGroup = group;
    } else if (key == "maxReaders") {
      U32 const v = f.number(1, 4096);
      if (!given("maxReaders")) o.maxReaders = v;
    } else if (key == "metrics") {
      std::string const address = f.text("ADDRESS:PORT");
      try {
        (void)metricsEndpoint(address);
      } catch (std::invalid_argument const& e) {
        f.fail(e.what());
      }
      if (!given("metrics")) o.metrics = address;
    } else if (key == "maxPlatformBytes") {
      U32 const v = f.number(1, 4000000000u);
      if (!given("maxPlatformBytes")) o.maxPlatformBytes = v;
    } else if (key == "stopOnOutputError") {
      bool const v = f.boolean();
      if (!given("stopOnOutputError")) o.stopOnOutputError = v;
    } else if (key == "pollMs") {
      U32 const v = f.number(1, 10000);
      if (!given("pollMs")) o.pollMs = v;
    } else if (key == "sliceUs") {
      U32 const v = f.number(10, 1000000);
      if (!given("sliceUs")) o.sliceUs = v;
    } else if (key == "trace") {
      int const v = static_cast<int>(f.number(0, 9));
      if (!given("trace")) o.traceLevel = v;
    } else if (key == "static") {
      o.staticConfig = SrTeScenario::readStaticConfig(f.value, f.file, f.path);
    } else if (key == "colorDscp") {
      o.colorDscp = colorDscpOf(f);
    } else {
      f.fail("unknown field \"" + key +
             "\" (known here: platform, sources, socket, socketGroup, maxReaders, metrics, "
             "maxPlatformBytes, stopOnOutputError, pollMs, sliceUs, trace, static, colorDscp)");
    }
  }
  // A binding SID names one policy: two static policies (or their paths) claiming one would
  // leave one of them without its route.
  if (o.staticConfig) {
    std::map<U32, std::size_t> owner;
    for (std::size_t i = 0; i < o.staticConfig->policies.size(); ++i) {
      SrTeScenario::StaticPolicy const& p = o.staticConfig->policies[i];
      std::set<U32> labels;
      if (!p.bindingSid.isNone()) labels.insert(p.bindingSid.value());
      for (SrTeScenario::StaticPath const& path : p.paths) {
        if (!path.bindingSid.isNone()) labels.insert(path.bindingSid.value());
      }
      for (U32 label : labels) {
        auto [it, fresh] = owner.emplace(label, i);
        if (fresh) continue;
        root.at("static")
            .at("policies")
            .at(i)
            .fail("binding SID " + std::to_string(label) + " is policy " +
                  std::to_string(it->second) + "'s already (static.policies[" +
                  std::to_string(it->second) + "])");
      }
    }
  }
}

std::string count(std::size_t n, char const* one, char const* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// A static policy in words, every field that matters: equal texts, equal policies.
std::string policyText(SrTeScenario::StaticPolicy const& p) {
  std::ostringstream os;
  os << p.bindingSid.value();
  for (SrTeScenario::StaticPath const& path : p.paths) {
    os << " | " << path.preference.value() << " " << path.bindingSid.value();
    for (SrTeScenario::WeightedLabels const& l : path.segmentLists)
      os << " [" << l.weight.value() << ": " << SrTeView::stackText(l.labels) << "]";
  }
  return os.str();
}

}  // namespace

DaemonOptions configuredOptions(DaemonOptions const& commandLine, std::string const& file) {
  return configuredOptionsFromText(
      commandLine, SrTeScenario::readTextFile(file, commandLine.maxPlatformBytes), file);
}

DaemonOptions configuredOptionsFromText(DaemonOptions const& commandLine, std::string const& text,
                                        std::string const& file) {
  DaemonOptions o = commandLine;
  Json const doc = SrTeScenario::parseJsonText(text, file);
  readInto(o, Field{file, doc, ""});
  try {
    finishDaemonOptions(o);
  } catch (UsageError const& e) {
    throw ScenarioError(file, "", e.what());
  }
  return o;
}

std::string configSummary(DaemonOptions const& o) {
  std::string out;
  if (o.staticConfig) {
    std::size_t paths = 0;
    for (auto const& p : o.staticConfig->policies)
      paths += p.paths.size();
    out += count(o.staticConfig->policies.size(), "static policy", "static policies") + " (" +
           count(paths, "candidate path", "candidate paths") + ")" +
           (o.staticConfig->enabled ? "" : ", disabled");
  } else {
    out += "no static policies";
  }
  out += ", " + count(o.colorDscp.size(), "color", "colors") + ", sources";
  for (SourceOption const& s : o.sources)
    out += std::string(" ") + SrTePolicy::sourceName(s.source) + "=" + s.table;
  out += ", platform " + o.platform.value_or("none");
  out += ", socket " + o.socket.value_or("none");
  out += ", metrics " + o.metrics.value_or("none");
  out += ", pollMs " + std::to_string(o.pollMs) + ", sliceUs " + std::to_string(o.sliceUs);
  return out;
}

std::vector<std::string> staticConfigChanges(SrTeScenario::StaticConfig const& before,
                                             SrTeScenario::StaticConfig const& after) {
  std::map<SrTePolicy::PolicyKey, std::pair<std::string, std::string>> texts;
  for (auto const& p : before.policies)
    texts[p.key].first = policyText(p);
  for (auto const& p : after.policies)
    texts[p.key].second = policyText(p);
  std::vector<std::string> out;
  if (before.enabled != after.enabled) {
    out.push_back(std::string("static policies ") + (after.enabled ? "enabled" : "disabled"));
  }
  for (auto const& [key, t] : texts) {
    if (t.first == t.second) continue;
    char const* what = t.first.empty() ? "added" : t.second.empty() ? "removed" : "changed";
    out.push_back("static policy " + SrTeView::keyName(key) + ": " + what);
  }
  return out;
}

}  // namespace SrTeDaemon
