#include "ScenarioRunner.h"

#include <cmath>
#include <set>
#include <sstream>

#include "Vell/Clock.h"

namespace SrTeScenario {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyKey;
using SrTePolicy::PolicySource;

namespace {

// The digest's mark for a segment list without a tunnel.
constexpr char const* kUnresolved = "-";
// Between a list's tunnel and its next hops in the digest.
constexpr char kHopsMark = '|';

// The clock's limit for the final settling, in seconds.
constexpr double kIdleLimit = 3600.0;

double roundedTime(double t) {
  return std::round(t * 1e6) / 1e6;
}

SrTePolicy::PolicyInputEntry inputEntry(Candidate const& c) {
  SrTePolicy::PolicyInputEntry e(c.policyId());
  e.endpointIs(c.endpoint);
  e.colorIs(c.color);
  e.preferenceIs(c.preference);
  e.routerIdIs(c.routerId);
  e.bindingSidIs(c.bindingSid);
  for (WeightedLabels const& l : c.segmentLists)
    e.segmentListPush(SrTePolicy::WeightedSegList(l.weight, l.labels));
  return e;
}

std::string candidateText(Candidate const& c) {
  std::ostringstream os;
  os << candidateName(c.policyId()) << ": " << keyName(PolicyKey(c.endpoint, c.color))
     << ", preference " << c.preference.value() << ", router " << c.routerId;
  if (!c.bindingSid.isNone()) os << ", binding SID " << c.bindingSid.value();
  os << ", " << c.segmentLists.size() << " segment list" << (c.segmentLists.size() == 1 ? "" : "s");
  return os.str();
}

// "1 route", "2 routes"; `plural` where adding an s will not do.
std::string count(std::size_t n, std::string const& what, std::string const& plural = "") {
  return std::to_string(n) + " " + (n == 1 ? what : plural.empty() ? what + "s" : plural);
}

}  // namespace

ScenarioRunner::ScenarioRunner(Scenario scenario) : scenario_(std::move(scenario)) {
  agent_ = std::make_unique<SrTePolicy::SrTePolicyAgent>(Vell::manualClockFactory());
  platform_ = std::make_unique<PlatformLoader>(agent_->mplsStatus(), agent_->forwardingStatus(),
                                               agent_->forwarding6Status(), scenario_.ceiling);
}

ScenarioRunner::~ScenarioRunner() = default;

OrderedJson ScenarioRunner::start() {
  OrderedJson record;
  record["step"] = 0;
  record["time"] = 0.0;
  std::size_t candidates = 0;
  for (SourceTable const& t : scenario_.sources)
    candidates += t.candidates.size();
  PlatformChange const& p = scenario_.platform;
  record["action"] =
      "load the platform (" + count(p.routes.size(), "route") + ", " +
      count(p.adjacencies.size(), "adjacency", "adjacencies") + ", " +
      count(p.viaSets.size(), "via set") + ", " +
      count(p.extFecAdjacencies.size(), "external FEC adjacency", "external FEC adjacencies") +
      ", " + count(p.fecs.size(), "FEC") + "), " +
      (scenario_.hasConfig
           ? count(scenario_.config.policies.size(), "static policy", "static policies") + ", "
           : std::string()) +
      count(scenario_.sources.size(), "source table") + " with " +
      count(candidates, "candidate path");
  Digest before = digest();
  guarded(record, [this](OrderedJson& r) {
    std::vector<std::string> notes = platform_->apply(scenario_.platform);
    if (!notes.empty()) r["notes"] = notes;
    if (scenario_.hasConfig) applyConfig(scenario_.config);
    for (SourceTable const& t : scenario_.sources)
      addSourceTable(t);
  });
  record["changes"] = changes(before, digest());
  return record;
}

OrderedJson ScenarioRunner::runStep(std::size_t index) {
  Step const& step = scenario_.steps.at(index);
  OrderedJson record;
  record["step"] = index + 1;
  record["time"] = roundedTime(agent_->clock()->now());
  record["action"] = describe(step.action);
  if (!step.note.empty()) record["note"] = step.note;
  Digest before = digest();
  guarded(record, [this, &step](OrderedJson& r) { apply(step.action, r); });
  record["changes"] = changes(before, digest());
  if (auto const* show = std::get_if<Show>(&step.action)) {
    if (!show->title.empty()) record["title"] = show->title;
    record["state"] = explainState(*agent_, show->platform, platform_.get());
  }
  return record;
}

OrderedJson ScenarioRunner::finish() {
  OrderedJson record;
  record["end"] = true;
  Digest before = digest();
  double advanced = 0;
  guarded(record,
          [this, &advanced](OrderedJson&) { advanced = agent_->advanceUntilIdle(kIdleLimit); });
  record["advanced"] = roundedTime(advanced);
  record["time"] = roundedTime(agent_->clock()->now());
  record["changes"] = changes(before, digest());
  record["state"] = explainState(*agent_, false, platform_.get());
  return record;
}

template <class F>
void ScenarioRunner::guarded(OrderedJson& record, F const& apply) {
  U64 runsBefore = agent_->scheduler()->runCount();
  try {
    apply(record);
  } catch (std::exception const& e) {
    record["error"] = e.what();
    failed_ = true;
  }
  settle(record);
  U64 runs = agent_->scheduler()->runCount() - runsBefore;
  if (runs) record["taskRuns"] = runs;
}

void ScenarioRunner::settle(OrderedJson& record) {
  try {
    agent_->runDue();
  } catch (std::exception const& e) {
    std::string previous =
        record.contains("error") ? record["error"].get<std::string>() + "; " : "";
    record["error"] = previous + "in a task: " + e.what();
    failed_ = true;
  }
  std::vector<std::string> problems = agent_->takeConfigProblems();
  if (!problems.empty()) record["configProblems"] = problems;
}

void ScenarioRunner::addSourceTable(SourceTable const& table) {
  // The source fills its table before it attaches it, as a source that starts up would.
  Mosk::Ptr<SrTePolicy::PolicyInput> input =
      SrTePolicy::policyInputFactory(std::string("srte-") + sourceName(table.source));
  for (Candidate const& c : table.candidates)
    input->policyInputEntryIs(inputEntry(c));
  input->policyIdxIs(table.policyIdx);
  agent_->sourceTableIs(table.source, input);
}

void ScenarioRunner::applyConfig(StaticConfig const& want) {
  SrTePolicy::Config& config = *agent_->config();
  std::map<PolicyKey, StaticPolicy const*> wanted;
  for (StaticPolicy const& p : want.policies)
    wanted[p.key] = &p;
  std::vector<PolicyKey> gone;
  for (auto it = config.policyIterConst(); it; ++it) {
    if (!wanted.count(it.key())) gone.push_back(it.key());
  }
  for (PolicyKey const& key : gone)
    config.policyDel(key);
  for (auto const& [key, want] : wanted) {
    Mosk::Ptr<SrTePolicy::StaticPolicy> policy = config.policyIs(key);
    policy->bindingSidIs(want->bindingSid);
    std::map<SrTePolicy::Preference, StaticPath const*> paths;
    for (StaticPath const& p : want->paths)
      paths[p.preference] = &p;
    std::vector<SrTePolicy::Preference> oldPaths;
    for (auto it = policy->candidatePathIterConst(); it; ++it) {
      if (!paths.count(it.key())) oldPaths.push_back(it.key());
    }
    for (auto const& pref : oldPaths)
      policy->candidatePathDel(pref);
    for (auto const& [pref, path] : paths) {
      Mosk::Ptr<SrTePolicy::CandidatePath> cp = policy->candidatePathIs(pref);
      cp->bindingSidIs(path->bindingSid);
      std::vector<Ludd::MplsLabelOperation> oldLists;
      for (auto it = cp->segmentListIter(); it; ++it) {
        bool keep = false;
        for (WeightedLabels const& l : path->segmentLists)
          keep = keep || l.labels == it.key();
        if (!keep) oldLists.push_back(it.key());
      }
      for (auto const& stack : oldLists)
        cp->segmentListDel(stack);
      for (WeightedLabels const& l : path->segmentLists)
        cp->segmentListIs(l.labels, l.weight);
    }
  }
  config.enabledIs(want.enabled);
}

void ScenarioRunner::apply(StepAction const& action, OrderedJson& record) {
  SrTePolicy::SrTePolicyAgent& agent = *agent_;
  if (auto const* a = std::get_if<AddCandidate>(&action)) {
    Mosk::Ptr<SrTePolicy::PolicyInput> table = agent.sourceTable(a->candidate.source);
    table->policyIdxIs(a->policyIdx);
    table->policyInputEntryIs(inputEntry(a->candidate));
  } else if (auto const* c = std::get_if<ChangeCandidate>(&action)) {
    agent.sourceTable(c->candidate.source)->policyInputEntryIs(inputEntry(c->candidate));
  } else if (auto const* r = std::get_if<RemoveCandidate>(&action)) {
    agent.sourceTable(r->source)->policyInputEntryDel(PolicyId::make(r->source, r->index));
  } else if (auto const* cfg = std::get_if<ChangeConfig>(&action)) {
    applyConfig(cfg->config);
  } else if (auto const* as = std::get_if<AddSource>(&action)) {
    addSourceTable(as->table);
  } else if (auto const* rs = std::get_if<RemoveSource>(&action)) {
    agent.sourceTableDel(rs->source);
  } else if (auto const* p = std::get_if<ChangePlatform>(&action)) {
    std::vector<std::string> notes = platform_->apply(p->change);
    if (!notes.empty()) record["notes"] = notes;
  } else if (auto const* adv = std::get_if<Advance>(&action)) {
    agent.advance(adv->seconds);
  } else if (auto const* y = std::get_if<SetYield>(&action)) {
    agent.yieldPolicyIs(y->count ? Vell::YieldPolicy::fixedCount(y->count)
                                 : Vell::YieldPolicy::never());
  } else if (auto const* rst = std::get_if<Restart>(&action)) {
    switch (rst->what) {
      case Restart::What::machine:
        agent.restart(*SrTePolicy::machineByName(rst->machine));
        break;
      case Restart::What::pipeline:
        agent.restartPipeline();
        break;
      case Restart::What::agent:
        agent.restartAgent();
        break;
    }
  }
}

std::string ScenarioRunner::describe(StepAction const& action) const {
  if (auto const* a = std::get_if<AddCandidate>(&action)) {
    return "add " + candidateText(a->candidate);
  } else if (auto const* c = std::get_if<ChangeCandidate>(&action)) {
    return "change " + candidateText(c->candidate);
  } else if (auto const* r = std::get_if<RemoveCandidate>(&action)) {
    return "remove " + candidateName(PolicyId::make(r->source, r->index));
  } else if (auto const* cfg = std::get_if<ChangeConfig>(&action)) {
    return std::string("set the static configuration: ") +
           (cfg->config.enabled ? "enabled, " : "disabled, ") +
           count(cfg->config.policies.size(), "policy", "policies");
  } else if (auto const* as = std::get_if<AddSource>(&action)) {
    return std::string("attach the table of source ") + sourceName(as->table.source) + " with " +
           count(as->table.candidates.size(), "candidate path");
  } else if (auto const* rs = std::get_if<RemoveSource>(&action)) {
    return std::string("remove the table of source ") + sourceName(rs->source);
  } else if (auto const* p = std::get_if<ChangePlatform>(&action)) {
    PlatformChange const& ch = p->change;
    std::vector<std::string> parts;
    auto add = [&parts](std::size_t n, char const* verb, char const* what, char const* plural) {
      if (n) parts.push_back(std::string(verb) + " " + count(n, what, plural));
    };
    add(ch.fecs.size(), "set", "FEC", "FECs");
    add(ch.extFecAdjacencies.size(), "set", "external FEC adjacency", "external FEC adjacencies");
    add(ch.viaSets.size(), "set", "via set", "via sets");
    add(ch.adjacencies.size(), "set", "adjacency", "adjacencies");
    add(ch.routes.size(), "set", "route", "routes");
    add(ch.removeRoutes.size(), "remove", "route", "routes");
    add(ch.removeAdjacencies.size(), "remove", "adjacency", "adjacencies");
    add(ch.removeViaSets.size(), "remove", "via set", "via sets");
    add(ch.removeExtFecAdjacencies.size(), "remove", "external FEC adjacency",
        "external FEC adjacencies");
    add(ch.removeFecs.size(), "remove", "FEC", "FECs");
    if (ch.resync) parts.push_back("announce the whole LFIB as changed (full resolution pass)");
    std::string out = "change the platform:";
    for (std::size_t i = 0; i < parts.size(); ++i)
      out += (i ? ", " : " ") + parts[i];
    return out;
  } else if (auto const* adv = std::get_if<Advance>(&action)) {
    std::ostringstream os;
    os << "advance " << adv->seconds << " s";
    return os.str();
  } else if (auto const* y = std::get_if<SetYield>(&action)) {
    return y->count ? "tasks yield from the " + std::to_string(y->count) +
                          (y->count == 1   ? "st"
                           : y->count == 2 ? "nd"
                           : y->count == 3 ? "rd"
                                           : "th") +
                          " question of a run on"
                    : std::string("tasks never yield");
  } else if (auto const* rst = std::get_if<Restart>(&action)) {
    switch (rst->what) {
      case Restart::What::machine:
        return "restart " + rst->machine + " (its teardown runs, then a new one starts)";
      case Restart::What::pipeline:
        return "restart the pipeline (every machine torn down and built again)";
      case Restart::What::agent:
        return "restart the agent (the process dies: no teardown; tables outside it survive)";
    }
  } else if (auto const* s = std::get_if<Show>(&action)) {
    return s->title.empty() ? "show" : "show: " + s->title;
  }
  return "?";
}

ScenarioRunner::Digest ScenarioRunner::digest() const {
  Digest d;
  SrTePolicy::SrTePolicyAgent const& agent = *agent_;
  for (auto it = agent.ecPolicy()->policyIterConst(); it; ++it) {
    if (auto active = it.ptr()->active()) {
      d.active[it.key()] = candidateName(PolicyId(active->priority().id()));
    }
  }
  for (auto it = agent.policyStatus()->statusIterConst(); it; ++it) {
    std::ostringstream os;
    os << candidateName(PolicyId(it.ptr()->id()));
    if (!it.ptr()->bindingSid().isNone()) os << ", binding SID " << it.ptr()->bindingSid().value();
    std::set<Tunnel::TunnelTable::TunnelId> tunnels;
    if (it.ptr()->weightedViaSet()) {
      for (auto w = it.ptr()->weightedViaSet()->weightedViaIter(); w; ++w)
        tunnels.insert(w.key());
    }
    os << ", " << (tunnels.size() == 1 ? "tunnel" : "tunnels");
    for (auto const& t : tunnels)
      os << " " << tunnelName(t);
    d.published[it.key()] = os.str();
  }
  for (auto it = agent.segmentListIdToPolicyMap()->segmentListUserIterConst(); it; ++it) {
    auto status = agent.segmentListStatus()->status(it.key());
    std::string value = kUnresolved;
    if (status) {
      value = tunnelName(status->tunnelId()) + kHopsMark;
      if (auto entry = agent.tunnelTable()->entry(status->tunnelId())) {
        std::string hops;
        for (auto const& via : *entry) {
          std::ostringstream os;
          os << via.nextHop() << " " << via.intf() << " push " << stackText(via.labelOperation());
          hops += (hops.empty() ? "" : "; ") + os.str();
        }
        value += hops;
      }
    }
    d.lists[it.key().value()] = value;
  }
  return d;
}

OrderedJson ScenarioRunner::changes(Digest const& before, Digest const& after) const {
  OrderedJson out = OrderedJson::array();
  auto compare = [&out](auto const& a, auto const& b, auto const& line) {
    std::set<typename std::decay_t<decltype(a)>::key_type> keys;
    for (auto const& [k, v] : a)
      keys.insert(k);
    for (auto const& [k, v] : b)
      keys.insert(k);
    for (auto const& k : keys) {
      auto x = a.find(k);
      auto y = b.find(k);
      std::string was = x == a.end() ? "" : x->second;
      std::string now = y == b.end() ? "" : y->second;
      if (was == now) continue;
      std::string text = line(k, was, now);
      if (!text.empty()) out.push_back(text);
    }
  };
  // A list that comes or goes unresolved is not a change of forwarding: it is left out.
  compare(before.lists, after.lists, [](U32 id, std::string const& was, std::string const& now) {
    std::string name = "segment list " + std::to_string(id);
    auto tunnel = [](std::string const& v) { return v.substr(0, v.find(kHopsMark)); };
    auto hops = [](std::string const& v) { return v.substr(v.find(kHopsMark) + 1); };
    if (now.empty()) {
      return was == kUnresolved ? std::string() : name + " gone (was tunnel " + tunnel(was) + ")";
    }
    if (now == kUnresolved) {
      return was.empty() ? std::string() : name + " unresolved (was tunnel " + tunnel(was) + ")";
    }
    if (was.empty() || was == kUnresolved) {
      return name + " resolved: tunnel " + tunnel(now) + " via " + hops(now);
    }
    if (tunnel(was) != tunnel(now)) {
      return name + " moved to tunnel " + tunnel(now) + " (was " + tunnel(was) + ") via " +
             hops(now);
    }
    return name + " next hops now " + hops(now) + " (tunnel " + tunnel(now) + ")";
  });
  compare(before.active, after.active,
          [](PolicyKey const& k, std::string const& was, std::string const& now) {
            std::string name = "policy " + keyName(k);
            if (was.empty()) return name + ": active candidate " + now;
            if (now.empty()) return name + ": no active candidate (was " + was + ")";
            return name + ": active candidate " + now + " (was " + was + ")";
          });
  compare(before.published, after.published,
          [](PolicyKey const& k, std::string const& was, std::string const& now) {
            std::string name = "policy " + keyName(k);
            if (was.empty()) return name + ": published " + now;
            if (now.empty()) return name + ": withdrawn (was " + was + ")";
            return name + ": published " + now + " (was " + was + ")";
          });
  return out;
}

}  // namespace SrTeScenario
