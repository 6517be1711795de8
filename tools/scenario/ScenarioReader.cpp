// The scenario reader. A Node is one JSON value with its path; every accessor checks the type
// and range of what it returns and fails with the path. A Shadow follows the inputs and the
// platform through the steps, so that a step that names something the earlier steps removed
// (or never made) is refused with its own path.
#include "ScenarioReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Fib/FecId.h"
#include "Mosk/Exception.h"
#include "SrTePolicyAgent.h"

namespace SrTeScenario {

using SrTePolicy::PolicySource;
using SrTePolicy::sourceByName;
using SrTePolicy::sourceName;
using Json = nlohmann::json;

ScenarioError::ScenarioError(std::string file, std::string path, std::string reason)
    : std::runtime_error(file + ": " + (path.empty() ? std::string("(document)") : path) + ": " +
                         reason),
      file_(std::move(file)),
      path_(std::move(path)),
      reason_(std::move(reason)) {}

namespace {

// Indexes the scenario may give; numbers above are kept for next hops published anew.
constexpr U64 kMaxIndex = 0xFFFFFFFFu;
constexpr U32 kMaxPolicyIndex = SrTePolicy::PolicyId::indexMask;

class Reader;

class Node {
 public:
  Node(Reader const& reader, Json const& value, std::string path)
      : reader_(reader), value_(value), path_(std::move(path)) {}

  Json const& value() const { return value_; }
  std::string const& path() const { return path_; }
  [[noreturn]] void fail(std::string const& reason) const;

  bool isObject() const { return value_.is_object(); }
  bool isString() const { return value_.is_string(); }
  bool isNumber() const { return value_.is_number(); }
  bool has(char const* key) const { return value_.contains(key); }

  void requireObject(char const* what) const {
    if (!value_.is_object()) fail(std::string("expected ") + what + " (a JSON object)");
  }
  void requireArray(char const* what) const {
    if (!value_.is_array()) fail(std::string("expected ") + what + " (a JSON array)");
  }
  // Refuses every field not in `allowed`, naming the field's own path.
  void allowOnly(std::initializer_list<char const*> allowed) const {
    for (auto const& item : value_.items()) {
      // A plain variable, not a structured binding: clang before 16 cannot capture those.
      std::string const& key = item.key();
      bool known =
          std::any_of(allowed.begin(), allowed.end(), [&key](char const* a) { return key == a; });
      if (known) continue;
      std::string list;
      for (char const* a : allowed)
        list += std::string(list.empty() ? "" : ", ") + a;
      child(key).fail("unknown field \"" + key + "\" (known here: " + list + ")");
    }
  }
  Node child(std::string const& key) const {
    return Node(reader_, value_.at(key), path_.empty() ? key : path_ + "." + key);
  }
  Node required(char const* key) const {
    if (!value_.contains(key)) fail(std::string("missing field \"") + key + "\"");
    return child(key);
  }
  std::optional<Node> optional(char const* key) const {
    if (!value_.contains(key)) return std::nullopt;
    return child(key);
  }
  std::size_t size() const { return value_.size(); }
  Node at(std::size_t i) const {
    return Node(reader_, value_.at(i), path_ + "[" + std::to_string(i) + "]");
  }

  U64 unsignedIn(U64 lo, U64 hi, char const* what) const {
    if (!value_.is_number_unsigned()) {
      fail(std::string("expected ") + what + ", a whole number from " + std::to_string(lo) +
           " to " + std::to_string(hi) + ", not " + describe());
    }
    U64 v = value_.get<U64>();
    if (v < lo || v > hi) {
      fail(std::string(what) + " " + std::to_string(v) + " is out of range (" + std::to_string(lo) +
           " to " + std::to_string(hi) + ")");
    }
    return v;
  }
  std::string string(char const* what) const {
    if (!value_.is_string())
      fail(std::string("expected ") + what + " (a string), not " + describe());
    return value_.get<std::string>();
  }
  bool boolean(char const* what) const {
    if (!value_.is_boolean()) fail(std::string("expected ") + what + " (true or false)");
    return value_.get<bool>();
  }
  double seconds() const {
    if (!value_.is_number()) fail("expected a number of seconds, not " + describe());
    double v = value_.get<double>();
    if (!(v >= 0) || v > 86400.0) fail("seconds must lie from 0 to 86400");
    return v;
  }

  std::string describe() const {
    switch (value_.type()) {
      case Json::value_t::null:
        return "null";
      case Json::value_t::boolean:
        return "a boolean";
      case Json::value_t::string:
        return "the string \"" + value_.get<std::string>() + "\"";
      case Json::value_t::number_float:
        return "the number " + value_.dump();
      case Json::value_t::number_integer:
      case Json::value_t::number_unsigned:
        return "the number " + value_.dump();
      case Json::value_t::array:
        return "an array";
      case Json::value_t::object:
        return "an object";
      default:
        return "this value";
    }
  }

 private:
  Reader const& reader_;
  Json const& value_;
  std::string path_;
};

// A candidate path by its policy id.
using CandidateMap = std::map<U32, Candidate>;

struct ShadowSource {
  U32 policyIdx = 0;
  CandidateMap candidates;
};

// What the steps before the current one have left in place.
struct Shadow {
  std::map<PolicySource, ShadowSource> sources;
  std::map<std::pair<U32, U8>, AdjacencyRef> routes;
  std::set<U64> viaSets;
  std::set<U64> adjacencies;
  std::map<U64, FecRef> extFecs;
  std::set<std::pair<Family, U64>> fecs;
};

class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  std::string const& file() const { return file_; }

  StaticConfig staticConfigAt(Json const& value, std::string path) const {
    return staticConfig(Node(*this, value, std::move(path)));
  }

  Scenario read(Json const& doc) {
    Node root(*this, doc, "");
    root.requireObject("a scenario");
    root.allowOnly({"description", "platform", "sources", "config", "steps"});
    Scenario s;
    s.file = file_;
    if (auto d = root.optional("description")) s.description = d->string("a description");
    if (auto p = root.optional("platform")) s.platform = platformChange(*p, false);
    shadow_.sources[PolicySource::sourceStatic] = ShadowSource();
    if (auto src = root.optional("sources")) {
      src->requireObject("the sources, by name");
      for (auto const& [name, v] : src->value().items()) {
        Node n = src->child(name);
        PolicySource source = sourceNamed(n, name, true);
        s.sources.push_back(sourceTable(n, source));
      }
    }
    if (auto c = root.optional("config")) {
      s.config = staticConfig(*c);
      s.hasConfig = true;
    }
    if (auto steps = root.optional("steps")) {
      steps->requireArray("the steps");
      for (std::size_t i = 0; i < steps->size(); ++i)
        s.steps.push_back(step(steps->at(i)));
    }
    s.ceiling = ceiling_;
    return s;
  }

 private:
  // Sources.

  PolicySource sourceNamed(Node const& n, std::string const& name, bool forTable) const {
    std::optional<PolicySource> source = sourceByName(name);
    if (!source) {
      n.fail("unknown source \"" + name + "\" (the sources are static, bgp, pcep and other)");
    }
    if (*source == PolicySource::sourceStatic) {
      n.fail(forTable ? "the static source's table is written from the static configuration: "
                        "give static policies under \"config\""
                      : "static candidate paths come from the static configuration: change it "
                        "with a \"config\" step");
    }
    return *source;
  }

  PolicySource sourceField(Node const& obj) const {
    Node n = obj.required("source");
    return sourceNamed(n, n.string("a source name"), false);
  }

  SourceTable sourceTable(Node const& n, PolicySource source) {
    n.requireObject("a source table");
    n.allowOnly({"policyIdx", "candidates"});
    ShadowSource& shadow = shadow_.sources[source];
    shadow = ShadowSource();
    if (auto idx = n.optional("policyIdx")) {
      shadow.policyIdx = static_cast<U32>(idx->unsignedIn(0, kMaxPolicyIndex, "policyIdx"));
    }
    SourceTable table;
    table.source = source;
    if (auto list = n.optional("candidates")) {
      list->requireArray("the candidate paths");
      for (std::size_t i = 0; i < list->size(); ++i) {
        Node c = list->at(i);
        c.requireObject("a candidate path");
        c.allowOnly(
            {"id", "endpoint", "color", "preference", "routerId", "bindingSid", "segmentLists"});
        Candidate cand = newCandidate(c, source);
        table.candidates.push_back(cand);
      }
    }
    table.policyIdx = shadow.policyIdx;
    return table;
  }

  // A candidate path being added: its id taken as given or from the source's policyIdx.
  Candidate newCandidate(Node const& c, PolicySource source) {
    ShadowSource& shadow = shadow_.sources[source];
    Candidate cand;
    cand.source = source;
    if (auto id = c.optional("id")) {
      cand.index = static_cast<U32>(id->unsignedIn(0, kMaxPolicyIndex, "candidate id"));
      if (shadow.candidates.count(cand.index)) {
        id->fail("source " + std::string(sourceName(source)) + " already has candidate " +
                 std::to_string(cand.index) + " (change it with a \"change\" step)");
      }
    } else {
      // The writer allocates from its counter, stepping over ids given by hand.
      do {
        if (shadow.policyIdx >= kMaxPolicyIndex) c.fail("the source's policyIdx is exhausted");
        ++shadow.policyIdx;
      } while (shadow.candidates.count(shadow.policyIdx));
      cand.index = shadow.policyIdx;
    }
    cand.endpoint = address(c.required("endpoint"), false);
    cand.color = SrTePolicy::Color(
        static_cast<U32>(c.required("color").unsignedIn(0, Mosk::maxU32, "color")));
    candidateFields(c, cand);
    shadow.candidates[cand.index] = cand;
    return cand;
  }

  // The optional fields of a candidate path, over what `cand` holds.
  void candidateFields(Node const& c, Candidate& cand) {
    if (auto p = c.optional("preference")) {
      cand.preference =
          SrTePolicy::Preference(static_cast<U32>(p->unsignedIn(0, Mosk::maxU32, "preference")));
    }
    if (auto r = c.optional("routerId")) cand.routerId = ipv4(*r);
    if (auto b = c.optional("bindingSid")) cand.bindingSid = bindingSid(*b);
    if (auto l = c.optional("segmentLists")) cand.segmentLists = segmentLists(*l, false);
  }

  std::vector<WeightedLabels> segmentLists(Node const& n, bool distinct) const {
    n.requireArray("the segment lists");
    if (n.size() > SrTePolicy::PolicyInputEntry::maxSegmentLists) {
      n.at(SrTePolicy::PolicyInputEntry::maxSegmentLists)
          .fail("a candidate path carries at most 16 segment lists; this is list 17");
    }
    std::vector<WeightedLabels> out;
    for (std::size_t i = 0; i < n.size(); ++i) {
      Node l = n.at(i);
      l.requireObject("a segment list");
      l.allowOnly({"weight", "labels"});
      WeightedLabels w;
      if (auto weight = l.optional("weight")) {
        w.weight =
            SrTePolicy::Weight(static_cast<U32>(weight->unsignedIn(1, Mosk::maxU32, "weight")));
      }
      Node labels = l.required("labels");
      // A list without labels is what the input record allows; it never resolves (it has no
      // top label), and the output shows it so.
      labels.requireArray("the labels, top first");
      if (labels.size() > Ludd::MplsLabelOperation::capacity) {
        labels.at(Ludd::MplsLabelOperation::capacity)
            .fail("a segment list holds at most six labels; this is label 7");
      }
      for (std::size_t j = 0; j < labels.size(); ++j)
        w.labels.push(label(labels.at(j)));
      if (distinct) {
        for (auto const& earlier : out) {
          if (earlier.labels == w.labels) {
            l.fail("the same label stack is already a segment list of this candidate path");
          }
        }
      }
      out.push_back(w);
    }
    return out;
  }

  // Values.

  Ludd::MplsLabel label(Node const& n) const {
    return Ludd::MplsLabel(static_cast<U32>(n.unsignedIn(0, Ludd::MplsLabel::max, "MPLS label")));
  }
  Ludd::MplsLabel bindingSid(Node const& n) const {
    if (n.value().is_null()) return Ludd::MplsLabel();
    return Ludd::MplsLabel(
        static_cast<U32>(n.unsignedIn(0, Ludd::MplsLabel::max, "a binding SID (an MPLS label)")));
  }
  Ludd::IpGenAddr address(Node const& n, bool allowNone) const {
    std::string text = n.string("an IPv4 or IPv6 address");
    try {
      Ludd::IpGenAddr a = Ludd::IpGenAddr::parse(text);
      if (a.isEmpty() && !allowNone) n.fail("an address is required here, not \"" + text + "\"");
      return a;
    } catch (Mosk::Exception const&) {
      n.fail("\"" + text + "\" is not an IPv4 or IPv6 address");
    }
  }
  Ludd::IpAddr ipv4(Node const& n) const {
    std::string text = n.string("an IPv4 address");
    try {
      return Ludd::IpAddr::parse(text);
    } catch (Mosk::Exception const&) {
      n.fail("\"" + text + "\" is not an IPv4 address");
    }
  }
  Ludd::IntfId interface(Node const& n) const {
    std::string text = n.string("an interface name such as \"Ethernet1\"");
    try {
      return Ludd::IntfId::parse(text);
    } catch (Mosk::Exception const&) {
      n.fail("\"" + text +
             "\" is not an interface name (Ethernet, Vlan, Loopback, Port-Channel, Tunnel, "
             "NexthopGroup, DynamicTunnel or Pseudowire and a number)");
    }
  }
  Ludd::MplsLabelAction action(Node const& n) const {
    std::string text = n.string("a label action");
    if (text == "none") return Ludd::MplsLabelAction::actionNone;
    if (text == "pop") return Ludd::MplsLabelAction::actionPop;
    if (text == "swap") return Ludd::MplsLabelAction::actionSwap;
    if (text == "forward") return Ludd::MplsLabelAction::actionForward;
    n.fail("unknown label action \"" + text + "\" (none, pop, swap or forward)");
  }
  Family family(Node const& n) const {
    std::string text = n.string("an address family");
    if (text == "ipv4") return Family::ipv4;
    if (text == "ipv6") return Family::ipv6;
    n.fail("unknown address family \"" + text + "\" (ipv4 or ipv6)");
  }
  U64 index(Node const& n, char const* what) const { return n.unsignedIn(1, kMaxIndex, what); }

  // The platform.

  LfibVia lfibVia(Node const& n) const {
    n.requireObject("a via");
    n.allowOnly({"interface", "nextHop", "action", "label"});
    LfibVia v;
    v.intf = interface(n.required("interface"));
    v.nextHop = address(n.required("nextHop"), false);
    if (auto l = n.optional("label")) v.label = label(*l);
    v.action =
        v.label.isNone() ? Ludd::MplsLabelAction::actionNone : Ludd::MplsLabelAction::actionSwap;
    if (auto a = n.optional("action")) v.action = action(*a);
    if (v.action == Ludd::MplsLabelAction::actionSwap && v.label.isNone()) {
      n.fail("a via that swaps needs the outgoing \"label\"");
    }
    return v;
  }

  ViaList viaList(Node const& n, char const* what) const {
    n.requireObject(what);
    n.allowOnly({"index", "vias"});
    ViaList out;
    out.index = index(n.required("index"), "an index");
    Node vias = n.required("vias");
    vias.requireArray("the vias");
    for (std::size_t i = 0; i < vias.size(); ++i)
      out.vias.push_back(lfibVia(vias.at(i)));
    return out;
  }

  FecRef fecRef(Node const& n) const {
    n.requireObject("a FEC reference");
    n.allowOnly({"family", "index"});
    FecRef ref;
    ref.family = family(n.required("family"));
    ref.index = n.required("index").unsignedIn(1, Fib::adjIndexMax(), "a FEC index");
    return ref;
  }

  Fec fec(Node const& n) const {
    n.requireObject("a FEC");
    n.allowOnly({"family", "index", "vias"});
    Fec out;
    out.ref.family = family(n.required("family"));
    out.ref.index = n.required("index").unsignedIn(1, Fib::adjIndexMax(), "a FEC index");
    Node vias = n.required("vias");
    vias.requireArray("the vias of the FEC");
    if (vias.size() > Fib::Fec::maxVias) vias.fail("a FEC holds at most 512 vias");
    for (std::size_t i = 0; i < vias.size(); ++i) {
      Node v = vias.at(i);
      v.requireObject("a FEC via");
      v.allowOnly({"interface", "nextHop", "label", "action"});
      FecVia via;
      via.intf = interface(v.required("interface"));
      Node hop = v.required("nextHop");
      via.nextHop = address(hop, false);
      bool v4 = out.ref.family == Family::ipv4;
      if (via.nextHop.isIpv4() != v4) {
        hop.fail(std::string("an ") + (v4 ? "IPv4" : "IPv6") + " FEC needs an " +
                 (v4 ? "IPv4" : "IPv6") + " next hop");
      }
      if (auto l = v.optional("label")) via.label = label(*l);
      if (auto a = v.optional("action")) via.action = action(*a);
      out.vias.push_back(via);
    }
    return out;
  }

  Route route(Node const& n) const {
    n.requireObject("an LFIB route");
    n.allowOnly({"label", "source", "type", "adjacency", "metric"});
    Route r;
    r.label = label(n.required("label"));
    if (auto s = n.optional("source"))
      r.source = static_cast<U8>(s->unsignedIn(0, 255, "a route source"));
    if (auto t = n.optional("type")) {
      std::string text = t->string("a route type");
      if (text == "label") {
        r.type = Mpls::LFib::RouteType::label;
      } else if (text == "pseudowire") {
        r.type = Mpls::LFib::RouteType::pseudowire;
      } else if (text == "unspecified") {
        r.type = Mpls::LFib::RouteType::unspecified;
      } else {
        t->fail("unknown route type \"" + text + "\" (label, pseudowire or unspecified)");
      }
    }
    Node adj = n.required("adjacency");
    if (adj.value().is_number()) {
      r.adjacency.index = index(adj, "an adjacency index");
    } else {
      adj.requireObject("an adjacency index, or an object with \"kind\" and \"index\"");
      adj.allowOnly({"kind", "index"});
      if (auto k = adj.optional("kind")) {
        std::string text = k->string("an adjacency kind");
        if (text == "adjacency") {
          r.adjacency.kind = Mpls::AdjacencyKind::adjacency;
        } else if (text == "viaSet") {
          r.adjacency.kind = Mpls::AdjacencyKind::viaSet;
        } else if (text == "extFec") {
          r.adjacency.kind = Mpls::AdjacencyKind::extFec;
        } else {
          k->fail("unknown adjacency kind \"" + text + "\" (adjacency, viaSet or extFec)");
        }
      }
      r.adjacency.index = index(adj.required("index"), "an adjacency index");
    }
    if (auto m = n.optional("metric"))
      r.metric = static_cast<U32>(m->unsignedIn(0, Mosk::maxU32, "a metric"));
    return r;
  }

  RouteKeyRef routeKey(Node const& n) const {
    n.requireObject("a route key");
    n.allowOnly({"label", "source"});
    RouteKeyRef k;
    k.label = label(n.required("label"));
    if (auto s = n.optional("source"))
      k.source = static_cast<U8>(s->unsignedIn(0, 255, "a route source"));
    return k;
  }

  template <class T, class F>
  std::vector<T> list(Node const& obj, char const* key, F const& one) {
    std::vector<T> out;
    auto n = obj.optional(key);
    if (!n) return out;
    n->requireArray(key);
    for (std::size_t i = 0; i < n->size(); ++i)
      out.push_back(one(n->at(i)));
    return out;
  }

  bool adjacencyInUse(U64 index) const {
    for (auto const& [key, ref] : shadow_.routes) {
      if (ref.kind != Mpls::AdjacencyKind::extFec && ref.index == index) return true;
    }
    return false;
  }

  PlatformChange platformChange(Node const& n, bool removals) {
    n.requireObject("platform state");
    if (removals) {
      n.allowOnly({"fecs", "extFecAdjacencies", "viaSets", "adjacencies", "routes", "removeRoutes",
                   "removeAdjacencies", "removeViaSets", "removeExtFecAdjacencies", "removeFecs",
                   "resync"});
    } else {
      n.allowOnly({"fecs", "extFecAdjacencies", "viaSets", "adjacencies", "routes"});
    }
    PlatformChange c;
    c.fecs = list<Fec>(n, "fecs", [this](Node const& e) {
      Fec f = fec(e);
      shadow_.fecs.insert({f.ref.family, f.ref.index});
      U64& ceiling = f.ref.family == Family::ipv4 ? ceiling_.fec4 : ceiling_.fec6;
      ceiling = std::max(ceiling, f.ref.index);
      return f;
    });
    c.extFecAdjacencies = list<ExtFecAdjacency>(n, "extFecAdjacencies", [this](Node const& e) {
      e.requireObject("an external FEC adjacency");
      e.allowOnly({"index", "fec", "action"});
      ExtFecAdjacency a;
      a.index = index(e.required("index"), "an external FEC adjacency index");
      Node f = e.required("fec");
      a.fec = fecRef(f);
      if (!shadow_.fecs.count({a.fec.family, a.fec.index})) {
        f.fail("no " + std::string(a.fec.family == Family::ipv4 ? "ipv4" : "ipv6") + " FEC " +
               std::to_string(a.fec.index) + " (add it under \"fecs\")");
      }
      if (auto act = e.optional("action")) a.action = action(*act);
      shadow_.extFecs[a.index] = a.fec;
      ceiling_.extFec = std::max(ceiling_.extFec, a.index);
      return a;
    });
    c.viaSets = list<ViaList>(n, "viaSets", [this](Node const& e) {
      ViaList v = viaList(e, "a via set");
      shadow_.viaSets.insert(v.index);
      ceiling_.adjacency = std::max(ceiling_.adjacency, v.index);
      return v;
    });
    c.adjacencies = list<ViaList>(n, "adjacencies", [this](Node const& e) {
      ViaList v = viaList(e, "an LFIB adjacency");
      shadow_.adjacencies.insert(v.index);
      ceiling_.adjacency = std::max(ceiling_.adjacency, v.index);
      return v;
    });
    c.routes = list<Route>(n, "routes", [this](Node const& e) {
      Route r = route(e);
      shadow_.routes[{r.label.value(), r.source}] = r.adjacency;
      return r;
    });
    if (!removals) return c;
    c.removeRoutes = list<RouteKeyRef>(n, "removeRoutes", [this](Node const& e) {
      RouteKeyRef k = routeKey(e);
      if (!shadow_.routes.erase({k.label.value(), k.source})) {
        e.fail("no LFIB route for label " + std::to_string(k.label.value()) + " source " +
               std::to_string(k.source));
      }
      return k;
    });
    c.removeAdjacencies = list<U64>(n, "removeAdjacencies", [this](Node const& e) {
      U64 i = index(e, "an adjacency index");
      if (!shadow_.adjacencies.count(i)) e.fail("no LFIB adjacency " + std::to_string(i));
      if (adjacencyInUse(i)) {
        e.fail("LFIB adjacency " + std::to_string(i) +
               " is in use by a route: remove or re-point the route first");
      }
      shadow_.adjacencies.erase(i);
      return i;
    });
    c.removeViaSets = list<U64>(n, "removeViaSets", [this](Node const& e) {
      U64 i = index(e, "a via set index");
      if (!shadow_.viaSets.count(i)) e.fail("no via set " + std::to_string(i));
      if (adjacencyInUse(i)) {
        e.fail("via set " + std::to_string(i) +
               " is in use by a route: remove or re-point the route first");
      }
      shadow_.viaSets.erase(i);
      return i;
    });
    c.removeExtFecAdjacencies = list<U64>(n, "removeExtFecAdjacencies", [this](Node const& e) {
      U64 i = index(e, "an external FEC adjacency index");
      if (!shadow_.extFecs.count(i)) e.fail("no external FEC adjacency " + std::to_string(i));
      for (auto const& [key, ref] : shadow_.routes) {
        if (ref.kind == Mpls::AdjacencyKind::extFec && ref.index == i) {
          e.fail("external FEC adjacency " + std::to_string(i) +
                 " is in use by a route: remove or re-point the route first");
        }
      }
      shadow_.extFecs.erase(i);
      return i;
    });
    c.removeFecs = list<FecRef>(n, "removeFecs", [this](Node const& e) {
      FecRef f = fecRef(e);
      if (!shadow_.fecs.count({f.family, f.index})) e.fail("no such FEC");
      for (auto const& [i, target] : shadow_.extFecs) {
        if (target.family == f.family && target.index == f.index) {
          e.fail("the FEC is in use by external FEC adjacency " + std::to_string(i) +
                 ": remove or re-point it first");
        }
      }
      shadow_.fecs.erase({f.family, f.index});
      return f;
    });
    if (auto r = n.optional("resync")) c.resync = r->boolean("resync");
    return c;
  }

  // The static configuration.

  StaticConfig staticConfig(Node const& n) const {
    n.requireObject("the static configuration");
    n.allowOnly({"enabled", "policies"});
    StaticConfig c;
    if (auto e = n.optional("enabled")) c.enabled = e->boolean("enabled");
    std::set<SrTePolicy::PolicyKey> keys;
    if (auto ps = n.optional("policies")) {
      ps->requireArray("the static policies");
      for (std::size_t i = 0; i < ps->size(); ++i) {
        Node p = ps->at(i);
        p.requireObject("a static policy");
        p.allowOnly({"endpoint", "color", "bindingSid", "candidatePaths"});
        StaticPolicy policy;
        policy.key = SrTePolicy::PolicyKey(
            address(p.required("endpoint"), false),
            SrTePolicy::Color(
                static_cast<U32>(p.required("color").unsignedIn(0, Mosk::maxU32, "color"))));
        if (!keys.insert(policy.key).second) p.fail("this endpoint and color are configured twice");
        if (auto b = p.optional("bindingSid")) policy.bindingSid = bindingSid(*b);
        Node paths = p.required("candidatePaths");
        paths.requireArray("the candidate paths");
        std::set<SrTePolicy::Preference> prefs;
        for (std::size_t j = 0; j < paths.size(); ++j) {
          Node cp = paths.at(j);
          cp.requireObject("a static candidate path");
          cp.allowOnly({"preference", "bindingSid", "segmentLists"});
          StaticPath path;
          if (auto pr = cp.optional("preference")) {
            path.preference = SrTePolicy::Preference(
                static_cast<U32>(pr->unsignedIn(0, Mosk::maxU32, "preference")));
          }
          if (!prefs.insert(path.preference).second) {
            cp.fail("two candidate paths of one static policy have the same preference");
          }
          if (auto b = cp.optional("bindingSid")) path.bindingSid = bindingSid(*b);
          path.segmentLists = segmentLists(cp.required("segmentLists"), true);
          policy.paths.push_back(path);
        }
        c.policies.push_back(policy);
      }
    }
    return c;
  }

  // Steps.

  Step step(Node const& n) {
    n.requireObject("a step");
    static constexpr char const* kinds[] = {"add",       "change",       "remove",   "config",
                                            "addSource", "removeSource", "platform", "advance",
                                            "yield",     "restart",      "show"};
    n.allowOnly({"note", "add", "change", "remove", "config", "addSource", "removeSource",
                 "platform", "advance", "yield", "restart", "show"});
    Step s;
    if (auto note = n.optional("note")) s.note = note->string("a note");
    char const* kind = nullptr;
    for (char const* k : kinds) {
      if (!n.has(k)) continue;
      if (kind)
        n.fail(std::string("a step does one thing: both \"") + kind + "\" and \"" + k + "\"");
      kind = k;
    }
    if (!kind) {
      n.fail(
          "a step needs one of: add, change, remove, config, addSource, removeSource, "
          "platform, advance, yield, restart, show");
    }
    Node body = n.child(kind);
    std::string k = kind;
    if (k == "add") {
      body.requireObject("a candidate path");
      body.allowOnly({"source", "id", "endpoint", "color", "preference", "routerId", "bindingSid",
                      "segmentLists"});
      PolicySource source = sourceField(body);
      requireTable(body, source);
      Candidate cand = newCandidate(body, source);
      s.action = AddCandidate{cand, shadow_.sources[source].policyIdx};
    } else if (k == "change") {
      body.requireObject("a change of a candidate path");
      body.allowOnly({"source", "id", "endpoint", "color", "preference", "routerId", "bindingSid",
                      "segmentLists"});
      Candidate& c = existing(body);
      if (auto e = body.optional("endpoint")) c.endpoint = address(*e, false);
      if (auto col = body.optional("color")) {
        c.color = SrTePolicy::Color(static_cast<U32>(col->unsignedIn(0, Mosk::maxU32, "color")));
      }
      candidateFields(body, c);
      s.action = ChangeCandidate{c};
    } else if (k == "remove") {
      body.requireObject("a candidate path to remove");
      body.allowOnly({"source", "id"});
      Candidate& c = existing(body);
      RemoveCandidate r{c.source, c.index};
      shadow_.sources[c.source].candidates.erase(c.index);
      s.action = r;
    } else if (k == "config") {
      s.action = ChangeConfig{staticConfig(body)};
    } else if (k == "addSource") {
      body.requireObject("a source table");
      PolicySource source = sourceField(body);
      if (shadow_.sources.count(source)) {
        body.child("source").fail("source " + std::string(sourceName(source)) +
                                  " already has a table (remove it first)");
      }
      Json rest = body.value();
      rest.erase("source");
      Node restNode(*this, rest, body.path());
      s.action = AddSource{sourceTable(restNode, source)};
    } else if (k == "removeSource") {
      PolicySource source = sourceNamed(body, body.string("a source name"), false);
      if (!shadow_.sources.count(source)) {
        body.fail("source " + std::string(sourceName(source)) + " has no table");
      }
      shadow_.sources.erase(source);
      s.action = RemoveSource{source};
    } else if (k == "platform") {
      s.action = ChangePlatform{platformChange(body, true)};
    } else if (k == "advance") {
      s.action = Advance{body.seconds()};
    } else if (k == "yield") {
      if (body.isString()) {
        if (body.string("a yield policy") != "never") {
          body.fail("expected \"never\" or a count of questions (1 or more)");
        }
        s.action = SetYield{0};
      } else {
        s.action = SetYield{static_cast<U32>(body.unsignedIn(1, 1000000, "a yield count"))};
      }
    } else if (k == "restart") {
      std::string what = body.string("a machine name, \"pipeline\" or \"agent\"");
      Restart r;
      if (what == "pipeline") {
        r.what = Restart::What::pipeline;
      } else if (what == "agent") {
        r.what = Restart::What::agent;
      } else if (SrTePolicy::machineByName(what)) {
        r.machine = what;
      } else {
        std::string names;
        for (SrTePolicy::Machine m : SrTePolicy::allMachines)
          names += std::string(SrTePolicy::machineName(m)) + ", ";
        body.fail("unknown machine \"" + what + "\" (" + names + "pipeline or agent)");
      }
      s.action = r;
    } else {
      Show show;
      if (body.isString()) {
        show.title = body.string("a title");
      } else if (body.isObject()) {
        body.allowOnly({"title", "platform"});
        if (auto t = body.optional("title")) show.title = t->string("a title");
        if (auto p = body.optional("platform")) show.platform = p->boolean("platform");
      } else if (!body.value().is_boolean() || !body.value().get<bool>()) {
        body.fail("expected a title, true, or an object with \"title\" and \"platform\"");
      }
      s.action = show;
    }
    return s;
  }

  void requireTable(Node const& body, PolicySource source) const {
    if (!shadow_.sources.count(source)) {
      body.child("source").fail("source " + std::string(sourceName(source)) +
                                " has no table at this step (add it with \"addSource\")");
    }
  }

  Candidate& existing(Node const& body) {
    PolicySource source = sourceField(body);
    requireTable(body, source);
    Node id = body.required("id");
    U32 index = static_cast<U32>(id.unsignedIn(0, kMaxPolicyIndex, "candidate id"));
    auto& cands = shadow_.sources[source].candidates;
    auto it = cands.find(index);
    if (it == cands.end()) {
      id.fail("source " + std::string(sourceName(source)) + " has no candidate " +
              std::to_string(index) + " at this step");
    }
    return it->second;
  }

  std::string file_;
  Shadow shadow_;
  IndexCeiling ceiling_;
};

[[noreturn]] void Node::fail(std::string const& reason) const {
  throw ScenarioError(reader_.file(), path_, reason);
}

}  // namespace

nlohmann::json parseJsonText(std::string const& text, std::string const& fileName) {
  try {
    return Json::parse(text);
  } catch (Json::exception const& e) {
    // A syntax error, or a number no double holds (an out_of_range error, not a parse error).
    std::string what = e.what();
    // "[json.exception.parse_error.101] parse error at line 3, column 5: ..."
    auto pos = what.find("] ");
    throw ScenarioError(
        fileName, "",
        "not valid JSON: " + (pos == std::string::npos ? what : what.substr(pos + 2)));
  }
}

Scenario readScenarioText(std::string const& text, std::string const& fileName) {
  return Reader(fileName).read(parseJsonText(text, fileName));
}

StaticConfig readStaticConfig(nlohmann::json const& value, std::string const& fileName,
                              std::string const& path) {
  return Reader(fileName).staticConfigAt(value, path);
}

std::string readTextFile(std::string const& fileName, U64 maxBytes) {
  // Not blocking: a FIFO is refused below instead of waited on.
  int fd = ::open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0)
    throw ScenarioError(fileName, "", std::string("cannot open the file: ") + std::strerror(errno));
  std::string text, problem;
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    problem = std::string("cannot read the file: ") + std::strerror(errno);
  } else if (S_ISDIR(st.st_mode)) {
    problem = "a directory, not a file";
  } else if (!S_ISREG(st.st_mode)) {
    problem = "not a regular file";
  } else if (static_cast<U64>(st.st_size) > maxBytes) {
    problem = std::to_string(st.st_size) + " bytes, more than the " + std::to_string(maxBytes) +
              " allowed";
  } else {
    // Read to the end, but never past the limit, should the file grow meanwhile.
    char buf[65536];
    for (;;) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) problem = std::string("cannot read the file: ") + std::strerror(errno);
      if (n <= 0) break;
      text.append(buf, static_cast<std::size_t>(n));
      if (text.size() > maxBytes) {
        problem = "more than the " + std::to_string(maxBytes) + " bytes allowed";
        break;
      }
    }
  }
  ::close(fd);
  if (!problem.empty()) throw ScenarioError(fileName, "", problem);
  return text;
}

Scenario readScenarioFile(std::string const& fileName, U64 maxBytes) {
  return readScenarioText(readTextFile(fileName, maxBytes), fileName);
}

}  // namespace SrTeScenario
