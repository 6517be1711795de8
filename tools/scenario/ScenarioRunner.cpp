#include "ScenarioRunner.h"

#include <cmath>
#include <set>
#include <sstream>

#include "Vell/Clock.h"

namespace SrTeScenario {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyKey;
using SrTePolicy::PolicySource;
using SrTePolicy::sourceName;
using SrTeView::candidateName;
using SrTeView::explainState;
using SrTeView::keyName;
using SrTeView::nextHopJson;
using SrTeView::policyRefJson;
using SrTeView::tunnelName;

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

std::string candidateText(Candidate const& c) {
  std::ostringstream os;
  os << candidateName(c.policyId()) << ": " << keyName(PolicyKey(c.endpoint, c.color))
     << ", preference " << c.preference.value() << ", router " << c.routerId;
  if (!c.bindingSid.isNone()) os << ", binding SID " << c.bindingSid.value();
  os << ", " << c.segmentLists.size() << " segment list" << (c.segmentLists.size() == 1 ? "" : "s");
  return os.str();
}

OrderedJson movesJson(std::vector<PlatformMove> const& moves) {
  OrderedJson out = OrderedJson::array();
  for (PlatformMove const& m : moves) {
    out.push_back(OrderedJson{{"table", m.table},
                              {"scenarioIndex", m.scenarioIndex},
                              {"index", m.index},
                              {"text", m.text}});
  }
  return out;
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
  record["kind"] = "start";
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
    r["notes"] = movesJson(platform_->apply(scenario_.platform));
    if (r["notes"].empty()) r.erase("notes");
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
  record["kind"] = kindOf(step.action);
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
  attachSourceTable(*agent_, table);
}

void ScenarioRunner::applyConfig(StaticConfig const& want) {
  applyStaticConfig(*agent_, want);
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
    record["notes"] = movesJson(platform_->apply(p->change));
    if (record["notes"].empty()) record.erase("notes");
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

char const* ScenarioRunner::kindOf(StepAction const& action) {
  return std::visit(
      [](auto const& a) -> char const* {
        using T = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<T, AddCandidate>) return "add";
        if constexpr (std::is_same_v<T, ChangeCandidate>) return "change";
        if constexpr (std::is_same_v<T, RemoveCandidate>) return "remove";
        if constexpr (std::is_same_v<T, ChangeConfig>) return "config";
        if constexpr (std::is_same_v<T, AddSource>) return "addSource";
        if constexpr (std::is_same_v<T, RemoveSource>) return "removeSource";
        if constexpr (std::is_same_v<T, ChangePlatform>) return "platform";
        if constexpr (std::is_same_v<T, Advance>) return "advance";
        if constexpr (std::is_same_v<T, SetYield>) return "yield";
        if constexpr (std::is_same_v<T, Restart>) return "restart";
        if constexpr (std::is_same_v<T, Show>) return "show";
        return "?";
      },
      action);
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
      U32 id = active->priority().id();
      d.active[it.key()] = ActiveState{id, candidateName(PolicyId(id))};
    }
  }
  for (auto it = agent.policyStatus()->statusIterConst(); it; ++it) {
    PublishedState p;
    p.id = it.ptr()->id();
    p.bindingSid = it.ptr()->bindingSid();
    std::set<Tunnel::TunnelTable::TunnelId> tunnels;
    if (it.ptr()->weightedViaSet()) {
      for (auto w = it.ptr()->weightedViaSet()->weightedViaIter(); w; ++w)
        tunnels.insert(w.key());
    }
    p.tunnels.assign(tunnels.begin(), tunnels.end());
    std::ostringstream os;
    os << candidateName(PolicyId(p.id));
    if (!p.bindingSid.isNone()) os << ", binding SID " << p.bindingSid.value();
    os << ", " << (tunnels.size() == 1 ? "tunnel" : "tunnels");
    for (auto const& t : tunnels)
      os << " " << tunnelName(t);
    p.text = os.str();
    d.published[it.key()] = std::move(p);
  }
  for (auto it = agent.segmentListIdToPolicyMap()->segmentListUserIterConst(); it; ++it) {
    auto status = agent.segmentListStatus()->status(it.key());
    ListState l;
    l.text = kUnresolved;
    if (status) {
      l.tunnel = status->tunnelId();
      l.text = tunnelName(status->tunnelId()) + kHopsMark;
      if (auto entry = agent.tunnelTable()->entry(status->tunnelId())) {
        std::string hops;
        for (auto const& via : *entry) {
          OrderedJson hop = nextHopJson(via);
          hops += (hops.empty() ? "" : "; ") + hop["nextHop"].get<std::string>() + " " +
                  hop["interface"].get<std::string>() + " push " + hop["push"].get<std::string>();
          l.nextHops.push_back(std::move(hop));
        }
        l.text += hops;
      }
    }
    d.lists[it.key().value()] = std::move(l);
  }
  return d;
}

namespace {

OrderedJson tunnelJson(std::optional<Tunnel::TunnelTable::TunnelId> const& t) {
  return t ? OrderedJson(tunnelName(*t)) : OrderedJson(nullptr);
}

OrderedJson tunnelIdJson(std::optional<Tunnel::TunnelTable::TunnelId> const& t) {
  return t ? OrderedJson(t->value()) : OrderedJson(nullptr);
}

}  // namespace

OrderedJson ScenarioRunner::changes(Digest const& before, Digest const& after) const {
  OrderedJson out = OrderedJson::array();
  // Calls `record(key, was, now)` for every key whose text differs; `was` or `now` is null when
  // the key is absent on that side.
  auto compare = [](auto const& a, auto const& b, auto const& record) {
    std::set<typename std::decay_t<decltype(a)>::key_type> keys;
    for (auto const& [k, v] : a)
      keys.insert(k);
    for (auto const& [k, v] : b)
      keys.insert(k);
    for (auto const& k : keys) {
      auto x = a.find(k);
      auto y = b.find(k);
      auto const* was = x == a.end() ? nullptr : &x->second;
      auto const* now = y == b.end() ? nullptr : &y->second;
      if (was && now && was->text == now->text) continue;
      record(k, was, now);
    }
  };
  // A list that comes or goes unresolved is not a change of forwarding: it is left out.
  compare(before.lists, after.lists, [&out](U32 id, ListState const* was, ListState const* now) {
    std::string name = "segment list " + std::to_string(id);
    bool wasResolved = was && was->tunnel;
    if (!wasResolved && !(now && now->tunnel)) return;
    auto hops = [](ListState const& l) { return l.text.substr(l.text.find(kHopsMark) + 1); };
    OrderedJson c;
    c["kind"] = "segmentList";
    c["id"] = id;
    std::string change;
    std::string text;
    if (!now) {
      change = "gone";
      text = name + " gone (was tunnel " + tunnelName(*was->tunnel) + ")";
    } else if (!now->tunnel) {
      change = "unresolved";
      text = name + " unresolved (was tunnel " + tunnelName(*was->tunnel) + ")";
    } else if (!wasResolved) {
      change = "resolved";
      text = name + " resolved: tunnel " + tunnelName(*now->tunnel) + " via " + hops(*now);
    } else if (*was->tunnel != *now->tunnel) {
      change = "moved";
      text = name + " moved to tunnel " + tunnelName(*now->tunnel) + " (was " +
             tunnelName(*was->tunnel) + ") via " + hops(*now);
    } else {
      change = "nextHops";
      text = name + " next hops now " + hops(*now) + " (tunnel " + tunnelName(*now->tunnel) + ")";
    }
    c["change"] = change;
    c["tunnel"] = now ? tunnelJson(now->tunnel) : OrderedJson(nullptr);
    c["tunnelId"] = now ? tunnelIdJson(now->tunnel) : OrderedJson(nullptr);
    c["nextHops"] = now ? now->nextHops : OrderedJson::array();
    c["was"] = wasResolved ? OrderedJson{{"tunnel", tunnelJson(was->tunnel)},
                                         {"tunnelId", tunnelIdJson(was->tunnel)},
                                         {"nextHops", was->nextHops}}
                           : OrderedJson(nullptr);
    c["text"] = text;
    out.push_back(std::move(c));
  });
  compare(before.active, after.active,
          [&out](PolicyKey const& k, ActiveState const* was, ActiveState const* now) {
            std::string name = "policy " + keyName(k);
            OrderedJson c;
            c["kind"] = "active";
            policyRefJson(c, k);
            c["change"] = !was ? "chosen" : !now ? "lost" : "switched";
            c["candidate"] = now ? OrderedJson(now->text) : OrderedJson(nullptr);
            c["candidateId"] = now ? OrderedJson(now->id) : OrderedJson(nullptr);
            c["was"] = was ? OrderedJson{{"candidate", was->text}, {"candidateId", was->id}}
                           : OrderedJson(nullptr);
            c["text"] = !was ? name + ": active candidate " + now->text
                        : !now
                            ? name + ": no active candidate (was " + was->text + ")"
                            : name + ": active candidate " + now->text + " (was " + was->text + ")";
            out.push_back(std::move(c));
          });
  auto publishedJson = [](PublishedState const& p, OrderedJson& into) {
    into["candidate"] = candidateName(PolicyId(p.id));
    into["candidateId"] = p.id;
    into["bindingSid"] =
        p.bindingSid.isNone() ? OrderedJson(nullptr) : OrderedJson(p.bindingSid.value());
    OrderedJson tunnels = OrderedJson::array();
    for (auto const& t : p.tunnels)
      tunnels.push_back(OrderedJson{{"tunnel", tunnelName(t)}, {"tunnelId", t.value()}});
    into["tunnels"] = tunnels;
  };
  compare(before.published, after.published,
          [&out, &publishedJson](PolicyKey const& k, PublishedState const* was,
                                 PublishedState const* now) {
            std::string name = "policy " + keyName(k);
            OrderedJson c;
            c["kind"] = "published";
            policyRefJson(c, k);
            c["change"] = !was ? "published" : !now ? "withdrawn" : "changed";
            if (now) {
              publishedJson(*now, c);
            } else {
              c["candidate"] = nullptr;
              c["candidateId"] = nullptr;
              c["bindingSid"] = nullptr;
              c["tunnels"] = OrderedJson::array();
            }
            if (was) {
              OrderedJson w;
              publishedJson(*was, w);
              c["was"] = w;
            } else {
              c["was"] = nullptr;
            }
            c["text"] = !was   ? name + ": published " + now->text
                        : !now ? name + ": withdrawn (was " + was->text + ")"
                               : name + ": published " + now->text + " (was " + was->text + ")";
            out.push_back(std::move(c));
          });
  return out;
}

}  // namespace SrTeScenario
