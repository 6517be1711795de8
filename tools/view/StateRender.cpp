#include "StateRender.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>

namespace SrTeView {

namespace {

std::string seconds(OrderedJson const& t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", t.get<double>());
  return buf;
}

std::string str(OrderedJson const& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_null()) return "none";
  return v.dump();
}

std::string labels(OrderedJson const& list) {
  std::string out;
  for (auto const& l : list)
    out += (out.empty() ? "" : " ") + l.dump();
  return "[" + out + "]";
}

std::string joined(OrderedJson const& list, char const* sep) {
  std::string out;
  for (auto const& v : list)
    out += (out.empty() ? "" : sep) + str(v);
  return out;
}

// The field `key` of every object of `list`, joined.
std::string joined(OrderedJson const& list, char const* key, char const* sep) {
  std::string out;
  for (auto const& v : list)
    out += (out.empty() ? "" : sep) + str(v[key]);
  return out;
}

// "2024-05-01 12:00:03.125 UTC": seconds since the Unix epoch, to the millisecond.
std::string utcTime(double t) {
  std::time_t whole = static_cast<std::time_t>(std::floor(t));
  int ms = static_cast<int>(std::floor((t - std::floor(t)) * 1000));
  std::tm tm{};
  ::gmtime_r(&whole, &tm);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d UTC", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
  return buf;
}

// Graphviz identifiers and labels are quoted; quotes inside are escaped. Backslashes are left
// alone: the labels use Graphviz's own "\n" for line breaks.
std::string dotQuoted(std::string const& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

void renderTextRecord(std::ostream& os, OrderedJson const& record) {
  std::string when = "[" + seconds(record["time"]) + "] ";
  if (record.contains("end")) {
    os << "\n"
       << when << "end: advanced " << seconds(record["advanced"])
       << " s until nothing was scheduled\n";
  } else if (record["step"].get<U64>() == 0) {
    os << when << "start: " << str(record["action"]) << "\n";
  } else {
    os << when << "step " << record["step"].get<U64>() << ": " << str(record["action"]) << "\n";
  }
  std::string indent(when.size(), ' ');
  if (record.contains("note")) os << indent << "note: " << str(record["note"]) << "\n";
  if (record.contains("error")) os << indent << "error: " << str(record["error"]) << "\n";
  if (record.contains("notes")) {
    for (auto const& n : record["notes"])
      os << indent << "platform: " << str(n["text"]) << "\n";
  }
  if (record.contains("configProblems")) {
    for (auto const& p : record["configProblems"])
      os << indent << "configuration: " << str(p) << "\n";
  }
  if (record.contains("taskRuns")) {
    os << indent << "task runs: " << record["taskRuns"].get<U64>() << "\n";
  }
  for (auto const& c : record["changes"])
    os << indent << "- " << str(c["text"]) << "\n";
  if (record.contains("state")) {
    std::string title = record.contains("title") ? str(record["title"])
                        : record.contains("end") ? "final"
                                                 : "";
    renderTextState(os, record["state"], title);
  }
}

void renderTextState(std::ostream& os, OrderedJson const& state, std::string const& title) {
  // A state read from a running agent carries no simulated time.
  std::string when = state.contains("time") ? " at " + seconds(state["time"]) + " s" : "";
  os << "\n=== state" << when << (title.empty() ? "" : ": " + title) << " ===\n";
  os << "policies\n";
  if (state["policies"].empty()) os << "  (none)\n";
  for (auto const& p : state["policies"]) {
    os << "  policy " << str(p["name"]) << "\n";
    if (p["active"].is_null()) {
      os << "    no active candidate\n";
    } else {
      os << "    active " << str(p["active"]);
      if (!p["activeBindingSid"].is_null()) os << ", binding SID " << p["activeBindingSid"].dump();
      os << "\n";
    }
    // A running agent says since when; a simulation's step lines already tell when it changed.
    if (!state.contains("time") && !p["activeSince"].is_null()) {
      U64 n = p["activeTransitions"].get<U64>();
      os << "    since " << utcTime(p["activeSince"].get<double>()) << " (active candidate changed "
         << n << (n == 1 ? " time" : " times") << " since the agent started)\n";
    }
    OrderedJson const& pub = p["published"];
    if (pub.is_null()) {
      os << (p["active"].is_null() ? "    not published\n"
                                   : "    not published yet (publishing runs 50 ms after a "
                                     "change)\n");
    } else {
      os << "    published " << str(pub["candidate"]) << " as FEC " << str(pub["fec"]);
      if (!pub["bindingSid"].is_null()) {
        os << ", binding SID " << pub["bindingSid"].dump() << " -> "
           << (pub["bindingSidRoute"].is_null() ? std::string("no route")
                                                : "FEC " + str(pub["bindingSidRoute"]));
      }
      os << "\n";
      for (auto const& t : pub["tunnels"])
        os << "      tunnel " << str(t["tunnel"]) << " weight " << t["weight"].dump() << "\n";
    }
    if (!p["candidates"].empty()) os << "    candidates, best first:\n";
    for (auto const& c : p["candidates"]) {
      os << "      " << c["rank"].dump() << ". " << str(c["name"]) << ": preference "
         << c["preference"].dump() << ", router " << str(c["routerId"]);
      if (!c["bindingSid"].is_null()) os << ", binding SID " << c["bindingSid"].dump();
      os << ": " << str(c["state"]);
      if (c["state"] != "active") os << " (" << str(c["why"]) << ")";
      os << "\n";
      for (auto const& l : c["segmentLists"]) {
        os << "         list " << l["id"].dump() << " "
           << (l["labels"].is_null() ? std::string("[?]") : labels(l["labels"])) << " weight "
           << l["weight"].dump() << ": "
           << (l["tunnel"].is_null() ? std::string("unresolved") : "tunnel " + str(l["tunnel"]))
           << "\n";
      }
    }
  }
  os << "segment lists\n";
  if (state["segmentLists"].empty()) os << "  (none)\n";
  for (auto const& l : state["segmentLists"]) {
    os << "  " << l["id"].dump() << " " << labels(l["labels"]) << " used by "
       << joined(l["usedBy"], ", ") << ": ";
    if (l["valid"].get<bool>()) {
      os << "tunnel " << str(l["tunnel"]) << " (" << str(l["via"]) << ")\n";
      for (auto const& h : l["nextHops"]) {
        os << "      next hop " << str(h["nextHop"]) << " " << str(h["interface"]) << " push "
           << str(h["push"]) << "\n";
      }
    } else {
      os << "unresolved: " << str(l["why"]) << "\n";
    }
  }
  os << "policy FECs\n";
  if (state["policyFecs"].empty()) os << "  (none)\n";
  for (auto const& f : state["policyFecs"]) {
    os << "  " << str(f["fec"]) << " for " << str(f["policy"]) << ": tunnels "
       << joined(f["tunnels"], "tunnel", ", ") << "\n";
  }
  os << "binding-SID routes\n";
  if (state["bindingSidRoutes"].empty()) os << "  (none)\n";
  for (auto const& r : state["bindingSidRoutes"]) {
    os << "  " << r["label"].dump() << " (source " << r["source"].dump() << ") -> FEC "
       << str(r["fec"]) << " (" << str(r["policy"]) << ") over external FEC adjacency "
       << str(r["extFecAdjacencyName"]) << "\n";
  }
  if (!state["warnings"].empty()) {
    os << "warnings\n";
    for (auto const& w : state["warnings"])
      os << "  " << str(w["text"]) << "\n";
  }
  if (state.contains("platform")) {
    OrderedJson const& pl = state["platform"];
    os << "platform\n";
    for (auto const& r : pl["routes"]) {
      os << "  route " << r["label"].dump() << " source " << r["source"].dump() << " "
         << str(r["type"]) << " -> " << str(r["adjacency"]["name"]) << "\n";
    }
    for (auto const& v : pl["viaSets"])
      os << "  via set " << v["index"].dump() << ": " << joined(v["vias"], "text", "; ") << "\n";
    for (auto const& a : pl["adjacencies"]) {
      os << "  adjacency " << a["index"].dump() << ": " << joined(a["vias"], "text", "; ") << "\n";
    }
    for (auto const& e : pl["extFecAdjacencies"]) {
      os << "  external FEC adjacency " << e["index"].dump() << " -> FEC " << str(e["fec"])
         << " action " << str(e["action"]) << "\n";
    }
    for (auto const& f : pl["fecs"])
      os << "  FEC " << str(f["fec"]) << ": " << joined(f["vias"], "text", "; ") << "\n";
  }
}

void renderDot(std::ostream& os, OrderedJson const& state) {
  os << "digraph srte {\n  rankdir=LR;\n  node [fontname=\"Helvetica\", fontsize=10];\n  edge "
        "[fontname=\"Helvetica\", fontsize=9];\n";
  std::map<std::string, OrderedJson const*> lists;
  for (auto const& l : state["segmentLists"])
    lists["sl" + l["id"].dump()] = &l;
  std::set<std::string> tunnels;
  std::set<std::string> hops;
  for (auto const& p : state["policies"]) {
    std::string pid = "policy " + str(p["name"]);
    std::string label = str(p["name"]);
    if (!p["published"].is_null()) label += "\\nFEC " + str(p["published"]["fec"]);
    if (!p["activeBindingSid"].is_null()) label += "\\nBSID " + p["activeBindingSid"].dump();
    os << "  " << dotQuoted(pid) << " [shape=box, style=rounded, label=" << dotQuoted(label)
       << "];\n";
    for (auto const& c : p["candidates"]) {
      std::string cid = "candidate " + str(c["name"]);
      bool active = c["state"] == "active";
      os << "  " << dotQuoted(cid) << " [shape=ellipse, label="
         << dotQuoted(str(c["name"]) + "\\npref " + c["preference"].dump() + "\\n" +
                      str(c["state"]))
         << (active ? ", style=bold" : ", style=dashed") << "];\n";
      os << "  " << dotQuoted(pid) << " -> " << dotQuoted(cid) << (active ? " [style=bold]" : "")
         << ";\n";
      for (auto const& l : c["segmentLists"]) {
        os << "  " << dotQuoted(cid) << " -> " << dotQuoted("sl" + l["id"].dump())
           << " [label=" << dotQuoted("w " + l["weight"].dump()) << "];\n";
      }
    }
  }
  for (auto const& [id, l] : lists) {
    OrderedJson const& list = *l;
    bool resolved = list["valid"].get<bool>();
    os << "  " << dotQuoted(id) << " [shape=box, label="
       << dotQuoted("list " + list["id"].dump() + "\\n" + labels(list["labels"])) << ", "
       << (resolved ? "color=black" : "color=red") << "];\n";
    if (!resolved) continue;
    std::string tid = str(list["tunnel"]);
    if (tunnels.insert(tid).second) os << "  " << dotQuoted(tid) << " [shape=cds];\n";
    os << "  " << dotQuoted(id) << " -> " << dotQuoted(tid) << ";\n";
    for (auto const& h : list["nextHops"]) {
      std::string hop = str(h["nextHop"]) + " " + str(h["interface"]);
      if (hops.insert(hop).second) os << "  " << dotQuoted(hop) << " [shape=plaintext];\n";
      os << "  " << dotQuoted(tid) << " -> " << dotQuoted(hop)
         << " [label=" << dotQuoted("push " + str(h["push"])) << "];\n";
    }
  }
  os << "}\n";
}

}  // namespace SrTeView
