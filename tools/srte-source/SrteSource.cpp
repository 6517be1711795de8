// srte-source: writes the candidate paths of one source into that source's input table in shared
// memory, as a source agent would, and lists what a table holds.
//
// Every command checks all of its input (arguments, the JSON file, the ids against the table)
// before it writes anything, so an error leaves the table as it was. New policy ids take the
// index bits from the table's policyIdx counter, which lives in the segment with the table.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ScenarioReader.h"
#include "SrTePolicy/SrTePolicyInputShm.h"
#include "SrTePolicy/SrTePolicySource.h"

using namespace SrTePolicy;
using Json = nlohmann::json;

namespace {

char const* const usage =
    R"(usage: srte-source [--table NAME] [--source SOURCE] [--capacity N] [--group GROUP]
                   COMMAND [OPTIONS]

Writes the candidate paths of one source into its input table in shared memory
(/dev/shm/NAME), lists the table or removes it.

  --table NAME      the table: letters, digits, '.', '_' or '-', not ending in '.lock' (default
                    srte-SOURCE, the name srte-agent reads by default)
  --source SOURCE   static, bgp, pcep or other (every command but list)
  --capacity N      the most candidate paths a new table holds (default 16384)
  --group GROUP     members of GROUP may read a new table (mode 0640); without it only its
                    owner may (0600). Nobody but the owner may ever write it.

Commands:
  add     --endpoint ADDR --color N [--preference N] [--router-id ADDR]
          [--binding-sid LABEL] [--segment-list [WEIGHT:]LABEL,...]... [--id N]
          adds a candidate path; without --id its id comes from the table's policyIdx
  change  --id N [--endpoint ADDR] [--color N] [--preference N] [--router-id ADDR]
          [--binding-sid LABEL|none] [--segment-list [WEIGHT:]LABEL,...]... [--no-segment-lists]
          changes the given fields; segment lists given replace all of them
  delete  --id N
  list    [--json]
  load    FILE.json [--replace]
          adds or changes every candidate path of the file; with --replace, deletes the
          source's other candidate paths
  destroy removes the table from the system, as a source that goes away does; a reader
          that has it open sees it removed
  --help  this text

An id is the source's own index (0 to 1073741823); the policy id is the source in the top two
bits and the id below. A segment list is a weight (default 1) and one to six labels, top label
first; at most sixteen per candidate path, each with its own labels. Labels are 0 to 1048575;
a binding SID is 16 to 1048575 (0 to 15 are reserved labels).

JSON (load, and list --json): a list of objects
  {"id": 1, "endpoint": "10.0.0.1", "color": 5, "preference": 100, "routerId": "1.1.1.1",
   "bindingSid": 900, "segmentLists": [{"weight": 1, "labels": [16001, 16002]}]}
where only endpoint and color are required ("bindingSid": null for none).

Exit status: 0 done, 1 the table refused or does not hold what was asked, 2 bad input.
)";

constexpr U32 defaultCapacity = 16384;

// A refusal with its message; `status` is the exit status.
struct Failure {
  std::string message;
  int status;
};
[[noreturn]] void badInput(std::string const& message) {
  throw Failure{message, 2};
}
[[noreturn]] void refused(std::string const& message) {
  throw Failure{message, 1};
}

std::optional<U64> parseUnsigned(std::string const& text, U64 max) {
  if (text.empty() || text.size() > 20) return std::nullopt;
  U64 v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    if (v > (max - static_cast<U64>(c - '0')) / 10) return std::nullopt;
    v = v * 10 + static_cast<U64>(c - '0');
  }
  return v;
}

U64 number(std::string const& where, std::string const& text, U64 min, U64 max) {
  std::optional<U64> v = parseUnsigned(text, max);
  if (!v || *v < min) {
    badInput(where + ": '" + text + "' is not a number from " + std::to_string(min) + " to " +
             std::to_string(max));
  }
  return *v;
}

EndPoint endpointOf(std::string const& where, std::string const& text) {
  try {
    EndPoint e = EndPoint::parse(text);
    if (!e.isEmpty()) return e;
  } catch (Mosk::Exception const&) {
  }
  badInput(where + ": '" + text + "' is not an IPv4 or IPv6 address");
}

Ludd::IpAddr routerIdOf(std::string const& where, std::string const& text) {
  try {
    return Ludd::IpAddr::parse(text);
  } catch (Mosk::Exception const&) {
    badInput(where + ": '" + text + "' is not an IPv4 address");
  }
}

Ludd::MplsLabel labelOf(std::string const& where, std::string const& text) {
  return Ludd::MplsLabel(static_cast<U32>(number(where, text, 0, Ludd::MplsLabel::max)));
}

// The labels below 16 are reserved for special purposes; none of them can be a binding SID.
constexpr U32 firstBindingSid = 16;

Ludd::MplsLabel bindingSidOf(std::string const& where, U64 value) {
  if (value < firstBindingSid) {
    badInput(where + ": label " + std::to_string(value) +
             " is reserved (0 to 15); a binding SID is " + std::to_string(firstBindingSid) +
             " to " + std::to_string(Ludd::MplsLabel::max));
  }
  return Ludd::MplsLabel(static_cast<U32>(value));
}

Ludd::MplsLabel bindingSidOf(std::string const& where, std::string const& text) {
  if (text == "none") return Ludd::MplsLabel::none();
  return bindingSidOf(where, labelOf(where, text).value());
}

// Refuses a segment list whose labels an earlier one of the same candidate path has: the two
// would be one list to the agent, and one of the weights would be lost.
void checkNewList(std::vector<WeightedSegList> const& lists, WeightedSegList const& list,
                  std::string const& where, std::string const& listName) {
  for (std::size_t i = 0; i < lists.size(); ++i) {
    if (lists[i].segList() == list.segList()) {
      badInput(where + ": the same labels as " + listName + " " + std::to_string(i + 1) +
               "; a candidate path names each segment list once");
    }
  }
}

// A value as an error message shows it: cut short when long.
std::string shown(Json const& v) {
  std::string text = v.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

Ludd::MplsLabelOperation stackOf(std::string const& where, std::vector<Ludd::MplsLabel> const& l) {
  if (l.empty() || l.size() > Ludd::MplsLabelOperation::capacity) {
    badInput(where + ": " + std::to_string(l.size()) + " labels; a segment list has 1 to " +
             std::to_string(Ludd::MplsLabelOperation::capacity));
  }
  Ludd::MplsLabelOperation op;
  for (Ludd::MplsLabel const& label : l)
    op.push(label);
  return op;
}

// "[WEIGHT:]LABEL,LABEL,...".
WeightedSegList segmentListOf(std::string const& text) {
  std::string const where = "--segment-list '" + text + "'";
  std::string labels = text;
  Weight weight(1);
  if (std::size_t colon = text.find(':'); colon != std::string::npos) {
    std::string w = text.substr(0, colon);
    weight = Weight(static_cast<U32>(number(where + ": weight", w, 1, Mosk::maxU32)));
    labels = text.substr(colon + 1);
  }
  std::vector<Ludd::MplsLabel> stack;
  std::stringstream in(labels);
  std::string item;
  while (std::getline(in, item, ','))
    stack.push_back(labelOf(where + ": label", item));
  if (!labels.empty() && labels.back() == ',') badInput(where + ": a label is missing after ','");
  return WeightedSegList(weight, stackOf(where, stack));
}

PolicySource sourceOf(std::string const& text) {
  std::optional<PolicySource> source = SrTePolicy::sourceByName(text);
  if (!source) badInput("--source: '" + text + "' is not a source (static, bgp, pcep or other)");
  return *source;
}

// The fields of one candidate path as given; unset ones keep the stored (or default) value.
struct Candidate {
  std::optional<U32> id;
  std::optional<EndPoint> endpoint;
  std::optional<Color> color;
  std::optional<Preference> preference;
  std::optional<Ludd::IpAddr> routerId;
  std::optional<Ludd::MplsLabel> bindingSid;
  std::optional<std::vector<WeightedSegList>> segmentLists;
  std::string where;  // how to name it in messages
};

// `base` with the fields of `c` written over it.
PolicyInputEntry merged(PolicyInputEntry base, Candidate const& c) {
  if (c.endpoint) base.endpointIs(*c.endpoint);
  if (c.color) base.colorIs(*c.color);
  if (c.preference) base.preferenceIs(*c.preference);
  if (c.routerId) base.routerIdIs(*c.routerId);
  if (c.bindingSid) base.bindingSidIs(*c.bindingSid);
  if (c.segmentLists) {
    base.segmentListCountIs(0);
    for (WeightedSegList const& l : *c.segmentLists)
      base.segmentListPush(l);
  }
  return base;
}

std::string paths(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " candidate path" : " candidate paths");
}

std::string keyText(PolicyInputEntry const& e) {
  return Mosk::valueToStrep(e.endpoint()) + " color " + Mosk::valueToStrep(e.color());
}

// The command line, split into the global options, the command and its options.
struct Args {
  std::optional<std::string> table;
  std::optional<std::string> source;
  std::optional<U32> capacity;
  std::optional<gid_t> group;
  std::string command;
  std::vector<std::pair<std::string, std::string>> options;  // in order; flags have ""
  std::vector<std::string> operands;
};

bool isFlag(std::string const& name) {
  return name == "--json" || name == "--replace" || name == "--no-segment-lists" ||
         name == "--help";
}

Args parseArgs(int argc, char** argv) {
  Args a;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--", 0) != 0) {
      if (a.command.empty()) {
        a.command = arg;
      } else {
        a.operands.push_back(arg);
      }
      continue;
    }
    std::string name = arg, value;
    bool inlineValue = false;
    if (std::size_t eq = arg.find('='); eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      inlineValue = true;
    }
    if (isFlag(name)) {
      if (inlineValue) badInput(name + " takes no value");
    } else if (!inlineValue) {
      if (i + 1 >= argc) badInput(name + " needs a value");
      value = argv[++i];
    }
    if (a.command.empty() && name == "--table") {
      a.table = value;
    } else if (a.command.empty() && name == "--source") {
      a.source = value;
    } else if (a.command.empty() && name == "--capacity") {
      a.capacity = static_cast<U32>(number("--capacity", value, 1, 1u << 22));
    } else if (a.command.empty() && name == "--group") {
      a.group = Skerry::shmGroupId(value);
      if (!a.group) badInput("--group: no group '" + value + "'");
    } else if (a.command.empty() && name != "--help") {
      badInput("unknown option '" + name + "' before the command");
    } else {
      a.options.emplace_back(name, value);
    }
  }
  return a;
}

// Reads the options of add and change into a candidate; refuses options the command lacks.
Candidate candidateOf(Args const& a, std::set<std::string> const& allowed) {
  Candidate c;
  c.where = a.command;
  bool noLists = false;
  for (auto const& [name, value] : a.options) {
    if (!allowed.count(name)) badInput(a.command + ": unknown option '" + name + "'");
    if (name == "--id") {
      c.id = static_cast<U32>(number("--id", value, 0, PolicyId::indexMask));
    } else if (name == "--endpoint") {
      c.endpoint = endpointOf("--endpoint", value);
    } else if (name == "--color") {
      c.color = Color(static_cast<U32>(number("--color", value, 0, Mosk::maxU32)));
    } else if (name == "--preference") {
      c.preference = Preference(static_cast<U32>(number("--preference", value, 0, Mosk::maxU32)));
    } else if (name == "--router-id") {
      c.routerId = routerIdOf("--router-id", value);
    } else if (name == "--binding-sid") {
      c.bindingSid = bindingSidOf("--binding-sid", value);
    } else if (name == "--segment-list") {
      if (!c.segmentLists) c.segmentLists.emplace();
      if (c.segmentLists->size() == PolicyInputEntry::maxSegmentLists) {
        badInput("--segment-list: more than " + std::to_string(PolicyInputEntry::maxSegmentLists) +
                 " segment lists");
      }
      WeightedSegList list = segmentListOf(value);
      checkNewList(*c.segmentLists, list, "--segment-list '" + value + "'", "--segment-list");
      c.segmentLists->push_back(list);
    } else if (name == "--no-segment-lists") {
      noLists = true;
    }
  }
  if (noLists && c.segmentLists) {
    badInput(a.command + ": --no-segment-lists and --segment-list together");
  }
  if (noLists) c.segmentLists.emplace();
  return c;
}

// --- JSON -----------------------------------------------------------------------------------

U64 jsonNumber(Json const& v, std::string const& where, U64 min, U64 max) {
  if (!v.is_number_unsigned() || v.get<U64>() < min || v.get<U64>() > max) {
    badInput(where + ": expected a number from " + std::to_string(min) + " to " +
             std::to_string(max) + ", got " + shown(v));
  }
  return v.get<U64>();
}

std::string jsonString(Json const& v, std::string const& where) {
  if (!v.is_string()) badInput(where + ": expected a string, got " + shown(v));
  return v.get<std::string>();
}

Candidate candidateOf(Json const& j, std::string const& where) {
  if (!j.is_object()) badInput(where + ": expected an object, got " + shown(j));
  Candidate c;
  c.where = where;
  for (auto const& [field, v] : j.items()) {
    std::string const at = where + ": '" + field + "'";
    if (field == "id") {
      c.id = static_cast<U32>(jsonNumber(v, at, 0, PolicyId::indexMask));
    } else if (field == "endpoint") {
      c.endpoint = endpointOf(at, jsonString(v, at));
    } else if (field == "color") {
      c.color = Color(static_cast<U32>(jsonNumber(v, at, 0, Mosk::maxU32)));
    } else if (field == "preference") {
      c.preference = Preference(static_cast<U32>(jsonNumber(v, at, 0, Mosk::maxU32)));
    } else if (field == "routerId") {
      c.routerId = routerIdOf(at, jsonString(v, at));
    } else if (field == "bindingSid") {
      c.bindingSid = v.is_null() ? Ludd::MplsLabel::none()
                                 : bindingSidOf(at, jsonNumber(v, at, 0, Ludd::MplsLabel::max));
    } else if (field == "segmentLists") {
      if (!v.is_array()) badInput(at + ": expected a list, got " + shown(v));
      if (v.size() > PolicyInputEntry::maxSegmentLists) {
        badInput(at + ": " + std::to_string(v.size()) + " segment lists, at most " +
                 std::to_string(PolicyInputEntry::maxSegmentLists));
      }
      c.segmentLists.emplace();
      for (std::size_t i = 0; i < v.size(); ++i) {
        std::string const sl = at + "[" + std::to_string(i) + "]";
        Json const& l = v[i];
        if (!l.is_object()) badInput(sl + ": expected an object, got " + shown(l));
        Weight weight(1);
        std::vector<Ludd::MplsLabel> labels;
        bool haveLabels = false;
        for (auto const& [f, lv] : l.items()) {
          if (f == "weight") {
            weight = Weight(static_cast<U32>(jsonNumber(lv, sl + ": 'weight'", 1, Mosk::maxU32)));
          } else if (f == "labels") {
            if (!lv.is_array()) badInput(sl + ": 'labels': expected a list, got " + shown(lv));
            haveLabels = true;
            for (Json const& label : lv) {
              labels.push_back(Ludd::MplsLabel(
                  static_cast<U32>(jsonNumber(label, sl + ": 'labels'", 0, Ludd::MplsLabel::max))));
            }
          } else {
            badInput(sl + ": unknown field '" + f + "'");
          }
        }
        if (!haveLabels) badInput(sl + ": 'labels' is required");
        WeightedSegList list(weight, stackOf(sl + ": 'labels'", labels));
        checkNewList(*c.segmentLists, list, sl, "segment list");
        c.segmentLists->push_back(list);
      }
    } else {
      badInput(where + ": unknown field '" + field + "'");
    }
  }
  if (!c.endpoint) badInput(where + ": 'endpoint' is required");
  if (!c.color) badInput(where + ": 'color' is required");
  return c;
}

Json jsonOf(PolicyInputEntry const& e) {
  Json lists = Json::array();
  for (WeightedSegList const* l = e.segmentListBegin(); l != e.segmentListEnd(); ++l) {
    Json labels = Json::array();
    for (U32 i = 0; i < l->segList().size(); ++i)
      labels.push_back(l->segList().label(i).value());
    lists.push_back({{"weight", l->weight().value()}, {"labels", labels}});
  }
  Json j = {{"id", e.key().index()},
            {"endpoint", Mosk::valueToStrep(e.endpoint())},
            {"color", e.color().value()},
            {"preference", e.preference().value()},
            {"routerId", Mosk::valueToStrep(e.routerId())},
            {"bindingSid", nullptr},
            {"segmentLists", lists}};
  if (!e.bindingSid().isNone()) j["bindingSid"] = e.bindingSid().value();
  return j;
}

std::string textOf(PolicyInputEntry const& e) {
  std::ostringstream os;
  os << "id " << e.key().index() << " (policy id " << e.key().value() << ", "
     << SrTePolicy::sourceName(e.key().source()) << "): endpoint " << e.endpoint() << " color "
     << e.color().value() << " preference " << e.preference().value() << " router-id "
     << e.routerId() << " binding-sid ";
  if (e.bindingSid().isNone()) {
    os << "none";
  } else {
    os << e.bindingSid().value();
  }
  os << " segment-lists";
  if (e.segmentListCount() == 0) os << " none";
  for (WeightedSegList const* l = e.segmentListBegin(); l != e.segmentListEnd(); ++l) {
    os << ' ' << l->weight().value() << ':';
    for (U32 i = 0; i < l->segList().size(); ++i)
      os << (i ? "," : "") << l->segList().label(i).value();
  }
  return os.str();
}

// --- The table ------------------------------------------------------------------------------

// Every record of a table, by policy id, read as the agent reads them.
std::map<PolicyId, PolicyInputEntry> readTable(PolicyInputShmTable const& reader) {
  std::map<PolicyId, PolicyInputEntry> out;
  for (Skerry::KeyCursor<PolicyId, PolicyInputEntry> k(reader); k; ++k) {
    if (std::optional<PolicyInputEntry> e = Skerry::readRecord(reader, k.key())) {
      out.emplace(k.key(), *e);
    }
  }
  if (reader.corrupt()) refused(reader.corruption());
  return out;
}

class Session {
 public:
  Session(std::string table, PolicySource source, U32 capacity, std::optional<gid_t> group,
          bool create)
      : table_(std::move(table)), source_(source) {
    if (!create && !Skerry::shmTableExists(table_)) refused("no table '" + table_ + "'");
    Skerry::ShmTableOptions options;
    options.capacity = capacity;
    options.readerGroup = group;
    writer_.emplace(table_, options);
    writer_->forEach([this](PolicyInputEntry const& e) { records_.emplace(e.key(), e); });
    for (auto const& [id, e] : records_) {
      if (id.source() != source_) {
        refused("table '" + table_ + "' holds candidate paths of source " +
                SrTePolicy::sourceName(id.source()) + ", not " + SrTePolicy::sourceName(source_));
      }
    }
  }

  PolicyId idOf(U32 index) const { return PolicyId::make(source_, index); }
  PolicyInputEntry const* find(U32 index) const {
    auto it = records_.find(idOf(index));
    return it == records_.end() ? nullptr : &it->second;
  }
  std::map<PolicyId, PolicyInputEntry> const& records() const { return records_; }
  U32 capacity() const { return writer_->capacity(); }

  // The next free id after the table's counter, skipping ids in the table or in `taken`.
  U32 allocate(std::set<U32> const& taken) {
    U32 next = counter_ ? *counter_ : writer_->counter();
    for (U32 tries = 0; tries <= PolicyId::indexMask; ++tries) {
      next = (next + 1) & PolicyId::indexMask;
      if (!find(next) && !taken.count(next)) {
        counter_ = next;
        return next;
      }
    }
    refused("table '" + table_ + "' has no free policy id left");
  }

  // Refuses `e` as the new record of its id when it would move the id to another policy key,
  // which the agent refuses (a new key needs a new id).
  void checkKeyKept(PolicyInputEntry const& e, std::string const& where) const {
    auto it = records_.find(e.key());
    if (it == records_.end()) return;
    if (!(it->second.endpoint() == e.endpoint()) || !(it->second.color() == e.color())) {
      badInput(where + ": id " + std::to_string(e.key().index()) + " is " + keyText(it->second) +
               "; a candidate path keeps its endpoint and color (delete " +
               "it and add one under a new id)");
    }
  }

  // Writes everything checked before: the records, the deletions and the counter.
  void commit(std::vector<PolicyInputEntry> const& puts, std::vector<PolicyId> const& dels) {
    for (PolicyId const& id : dels)
      writer_->erase(id);
    for (PolicyInputEntry const& e : puts)
      writer_->put(e);
    if (counter_) writer_->counterIs(*counter_);
  }

 private:
  std::string const table_;
  PolicySource const source_;
  std::optional<PolicyInputShmWriter> writer_;
  std::map<PolicyId, PolicyInputEntry> records_;
  std::optional<U32> counter_;
};

// A record as it will be stored: the check a reader makes, run before anything is written.
PolicyInputEntry checked(PolicyInputEntry e, std::string const& where) {
  try {
    e.validateRead();
  } catch (Mosk::Exception const& err) {
    badInput(where + ": " + err.what());
  }
  return e;
}

void noOperands(Args const& a) {
  if (!a.operands.empty()) badInput(a.command + ": unexpected argument '" + a.operands[0] + "'");
}

int runAdd(Candidate const& c, Session& s) {
  if (c.id && s.find(*c.id)) {
    refused("add: id " + std::to_string(*c.id) + " is already in the table; use change");
  }
  if (s.records().size() >= s.capacity()) {
    refused("add: the table is full (" + paths(s.capacity()) + ")");
  }
  U32 index = c.id ? *c.id : s.allocate({});
  PolicyInputEntry e = checked(merged(PolicyInputEntry(s.idOf(index)), c), "add");
  s.commit({e}, {});
  std::cout << "added id " << index << " (policy id " << e.key().value() << ")\n";
  return 0;
}

int runChange(Candidate const& c, Session& s) {
  PolicyInputEntry const* stored = s.find(*c.id);
  if (!stored) refused("change: no candidate path with id " + std::to_string(*c.id));
  PolicyInputEntry e = checked(merged(*stored, c), "change");
  s.checkKeyKept(e, "change");
  if (e == *stored) {
    std::cout << "id " << *c.id << " unchanged\n";
    return 0;
  }
  s.commit({e}, {});
  std::cout << "changed id " << *c.id << "\n";
  return 0;
}

int runDelete(Candidate const& c, Session& s) {
  if (!s.find(*c.id)) refused("delete: no candidate path with id " + std::to_string(*c.id));
  s.commit({}, {s.idOf(*c.id)});
  std::cout << "deleted id " << *c.id << "\n";
  return 0;
}

// How deep arrays and objects may nest in a file of candidate paths (two levels are used);
// the JSON library's printing recurses once per level.
constexpr int maxJsonDepth = 32;
// The largest file of candidate paths: a full table written out by list --json is far smaller.
constexpr U64 maxFileBytes = 256u << 20;

// The candidate paths of a JSON file, all checked.
std::vector<Candidate> candidatesOf(std::string const& path) {
  std::string text;
  try {
    text = SrTeScenario::readTextFile(path, maxFileBytes);
  } catch (SrTeScenario::ScenarioError const& e) {
    badInput(path + ": " + e.reason());
  }
  Json file;
  try {
    file = Json::parse(text, [path](int depth, Json::parse_event_t, Json&) {
      if (depth > maxJsonDepth) {
        badInput(path + ": nested deeper than " + std::to_string(maxJsonDepth) + " levels");
      }
      return true;
    });
  } catch (Json::exception const& e) {
    // A syntax error, or a number no double holds (out_of_range, not a parse error).
    std::string what = e.what();
    std::size_t const at = what.find("] ");
    badInput(path + ": not JSON: " + (at == std::string::npos ? what : what.substr(at + 2)));
  }
  if (!file.is_array()) badInput(path + ": expected a list of candidate paths");
  std::vector<Candidate> given;
  std::set<U32> ids;
  for (std::size_t i = 0; i < file.size(); ++i) {
    given.push_back(candidateOf(file[i], path + ": candidate " + std::to_string(i)));
    if (given.back().id && !ids.insert(*given.back().id).second) {
      badInput(given.back().where + ": id " + std::to_string(*given.back().id) + " appears twice");
    }
  }
  return given;
}

int runLoad(std::vector<Candidate> given, bool replace, Session& s) {
  std::set<U32> ids;
  for (Candidate const& c : given) {
    if (c.id) ids.insert(*c.id);
  }
  std::vector<PolicyInputEntry> puts;
  U32 added = 0, changed = 0, unchanged = 0;
  for (Candidate& c : given) {
    if (!c.id) ids.insert(*(c.id = s.allocate(ids)));
    PolicyInputEntry const* stored = s.find(*c.id);
    // A candidate path of the file is whole: fields it leaves out take their defaults.
    PolicyInputEntry e = checked(merged(PolicyInputEntry(s.idOf(*c.id)), c), c.where);
    s.checkKeyKept(e, c.where);
    if (!stored) {
      ++added;
    } else if (e == *stored) {
      ++unchanged;
      continue;
    } else {
      ++changed;
    }
    puts.push_back(e);
  }
  std::vector<PolicyId> dels;
  if (replace) {
    for (auto const& [id, e] : s.records()) {
      if (!ids.count(id.index())) dels.push_back(id);
    }
  }
  if (s.records().size() - dels.size() + added > s.capacity()) {
    refused("load: the table holds at most " + paths(s.capacity()));
  }
  s.commit(puts, dels);
  std::cout << "loaded " << paths(given.size()) << ": " << added << " added, " << changed
            << " changed, " << unchanged << " unchanged, " << dels.size() << " deleted\n";
  return 0;
}

int runList(Args const& a, std::string const& table) {
  noOperands(a);
  bool json = false;
  for (auto const& [name, value] : a.options) {
    if (name != "--json") badInput("list: unknown option '" + name + "'");
    json = true;
  }
  PolicyInputShmTable reader(table);
  std::map<PolicyId, PolicyInputEntry> records = readTable(reader);
  if (json) {
    Json out = Json::array();
    for (auto const& [id, e] : records)
      out.push_back(jsonOf(e));
    std::cout << out.dump(2) << "\n";
    return 0;
  }
  std::cout << "table " << table << ": " << paths(records.size()) << ", policyIdx "
            << reader.counter() << "\n";
  for (auto const& [id, e] : records)
    std::cout << textOf(e) << "\n";
  return 0;
}

int runDestroy(Args const& a, std::string const& table) {
  noOperands(a);
  if (!a.options.empty()) badInput("destroy: unknown option '" + a.options[0].first + "'");
  if (!Skerry::shmTableRemove(table)) refused("no table '" + table + "'");
  std::cout << "removed table " << table << "\n";
  return 0;
}

int run(int argc, char** argv) {
  if (argc == 1) {
    std::cerr << usage;
    return 2;
  }
  Args a = parseArgs(argc, argv);
  for (auto const& [name, value] : a.options) {
    if (name == "--help") {
      std::cout << usage;
      return 0;
    }
  }
  if (!a.table && a.source) a.table = SrTePolicy::defaultTableName(sourceOf(*a.source));
  if (!a.table) badInput("--table is required (or --source, for the table srte-SOURCE)");
  try {
    (void)Skerry::shmTablePath(*a.table);  // refuses a bad name before anything else
  } catch (Mosk::RangeException const& e) {
    badInput(std::string("--table: ") + e.what());
  }
  if (a.command.empty()) {
    badInput("a command is required (add, change, delete, list, load or destroy)");
  }
  static std::set<std::string> const commands = {"add",  "change", "delete",
                                                 "list", "load",   "destroy"};
  if (!commands.count(a.command)) {
    badInput("unknown command '" + a.command + "' (add, change, delete, list, load or destroy)");
  }
  if (a.command == "list") return runList(a, *a.table);
  if (a.command == "destroy") return runDestroy(a, *a.table);
  if (!a.source) badInput(a.command + ": --source is required");
  PolicySource source = sourceOf(*a.source);
  U32 capacity = a.capacity.value_or(defaultCapacity);

  // Everything the command says is read and checked before the table is opened.
  Candidate c;
  std::vector<Candidate> file;
  bool replace = false;
  if (a.command == "load") {
    for (auto const& [name, value] : a.options) {
      if (name != "--replace") badInput("load: unknown option '" + name + "'");
      replace = true;
    }
    if (a.operands.size() != 1) badInput("load: give one JSON file");
    file = candidatesOf(a.operands[0]);
  } else {
    noOperands(a);
    std::set<std::string> allowed = {"--id"};
    if (a.command != "delete") {
      allowed.insert({"--endpoint", "--color", "--preference", "--router-id", "--binding-sid",
                      "--segment-list"});
    }
    if (a.command == "change") allowed.insert("--no-segment-lists");
    c = candidateOf(a, allowed);
    if (a.command == "add" && !c.endpoint) badInput("add: --endpoint is required");
    if (a.command == "add" && !c.color) badInput("add: --color is required");
    if (a.command != "add" && !c.id) badInput(a.command + ": --id is required");
  }

  bool const create = a.command == "add" || a.command == "load";
  bool const existed = Skerry::shmTableExists(*a.table);
  try {
    Session s(*a.table, source, capacity, a.group, create);
    if (a.command == "load") return runLoad(std::move(file), replace, s);
    if (a.command == "add") return runAdd(c, s);
    if (a.command == "change") return runChange(c, s);
    return runDelete(c, s);
  } catch (...) {
    // A table made for a command that was then refused goes again: nothing is left behind.
    if (create && !existed) Skerry::shmTableRemove(*a.table);
    throw;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (Failure const& f) {
    std::cerr << "srte-source: " << f.message << "\n";
    return f.status;
  } catch (Mosk::Exception const& e) {
    std::cerr << "srte-source: " << e.what() << "\n";
    return 1;
  }
}
