// The reactors of the published-state feed and the lines it writes.
#include "PublishedFeed.h"

#include <algorithm>

#include "StateExplain.h"

namespace SrTeDaemon {

using SrTePolicy::PolicyKey;
using SrTePolicy::PolicyStatus;
using SrTePolicy::PolicyStatusEntry;

namespace {
// The route key source under which binding-SID routes are installed.
constexpr U8 bsidRouteSource = 1;
}  // namespace

class PublishedFeed::PolicyStatusReactor : public PolicyStatus::NotifieeConst {
 public:
  explicit PolicyStatusReactor(PublishedFeed* feed) : feed_(feed) {}
  void onStatus(PolicyKey const& key) override {
    feed_->watchEntry(key);
    feed_->noteChanged(key);
  }

 private:
  PublishedFeed* const feed_;
};

class PublishedFeed::EntryReactor : public PolicyStatusEntry::NotifieeConst {
 public:
  EntryReactor(PublishedFeed* feed, PolicyKey const& key) : feed_(feed), key_(key) {}
  void onBindingSid() override { feed_->noteChanged(key_); }
  void onId() override { feed_->noteChanged(key_); }
  void onWeightedViaSet() override {
    feed_->noteChanged(key_);
    // The weights a FEC line shows come from here.
    if (auto entry = notifier()) feed_->noteChanged(entry->srTePolicyFecId());
  }
  void onSrTePolicyFecId() override { feed_->noteChanged(key_); }

 private:
  PublishedFeed* const feed_;
  PolicyKey const key_;
};

class PublishedFeed::FecReactor : public Skerry::Fib::ForwardingStatus::NotifieeConst {
 public:
  explicit FecReactor(PublishedFeed* feed) : feed_(feed) {}
  void onFec(Fib::FecId const& id) override { feed_->noteChanged(id); }

 private:
  PublishedFeed* const feed_;
};

class PublishedFeed::LfibReactor : public Mpls::Status::NotifieeConst {
 public:
  explicit LfibReactor(PublishedFeed* feed) : feed_(feed) {}
  void onLfibRoute(Mpls::RouteKey const& key) override { feed_->noteChanged(key); }

 private:
  PublishedFeed* const feed_;
};

PublishedFeed::PublishedFeed(SrTePolicy::SrTePolicyAgent const& agent, EventLog& log,
                             std::function<void()> flushDue)
    : agent_(agent), log_(log), flushDue_(std::move(flushDue)) {
  statusReactor_ = new PolicyStatusReactor(this);
  statusReactor_->notifierIs(agent_.policyStatus());
  fecReactor_ = new FecReactor(this);
  fecReactor_->notifierIs(agent_.srteFwdStatus());
  lfibReactor_ = new LfibReactor(this);
  lfibReactor_->notifierIs(agent_.bsidLfib());
  for (auto it = agent_.policyStatus()->statusIterConst(); it; ++it) {
    watchEntry(it->key());
    noteChanged(it->key());
  }
  for (auto it = agent_.srteFwdStatus()->fecIter(); it; ++it)
    noteChanged(it.key());
  for (auto it = agent_.bsidLfib()->lfibRouteIter(); it; ++it)
    noteChanged(it.key());
}

PublishedFeed::~PublishedFeed() {
  detach();
}

void PublishedFeed::detach() {
  if (statusReactor_) statusReactor_->notifierIs(nullptr);
  if (fecReactor_) fecReactor_->notifierIs(nullptr);
  if (lfibReactor_) lfibReactor_->notifierIs(nullptr);
  statusReactor_ = nullptr;
  fecReactor_ = nullptr;
  lfibReactor_ = nullptr;
  entryReactors_.clear();
}

void PublishedFeed::watchEntry(PolicyKey const& key) {
  Mosk::Ptr<PolicyStatusEntry const> entry = agent_.policyStatus()->status(key);
  if (!entry) {
    entryReactors_.erase(key);
    return;
  }
  Mosk::Ptr<EntryReactor>& reactor = entryReactors_[key];
  if (!reactor) reactor = new EntryReactor(this, key);
  reactor->notifierIs(entry);
}

void PublishedFeed::noteChanged(Item const& item) {
  if (std::holds_alternative<Fib::FecId>(item) && std::get<Fib::FecId>(item).isNone()) return;
  if (!dirtyNames_.insert(itemName(item)).second) return;
  dirty_.push_back(item);
  if (dirty_.size() == 1 && flushDue_) flushDue_();
}

U32 PublishedFeed::flush() {
  std::vector<Item> items;
  items.swap(dirty_);
  dirtyNames_.clear();
  U32 lines = 0;
  for (Item const& item : items) {
    std::string const name = itemName(item);
    OrderedJson now = stateOf(item);
    auto before = written_.find(name);
    char const* change = nullptr;
    if (before == written_.end()) {
      if (now.is_null()) continue;
      change = "added";
    } else if (now.is_null()) {
      change = "removed";
      now = before->second;  // a removal names what went
    } else if (now != before->second) {
      change = "changed";
    } else {
      continue;
    }
    OrderedJson fields;
    fields["change"] = change;
    for (auto const& [key, value] : now.items())
      fields[key] = value;
    char const* event = std::holds_alternative<PolicyKey>(item)    ? "policy"
                        : std::holds_alternative<Fib::FecId>(item) ? "fec"
                                                                   : "bsid-route";
    log_.write(event, fields);
    ++lines;
    bool const removed = std::string(change) == "removed";
    if (onWritten_) {
      onWritten_(event, before == written_.end() ? OrderedJson() : before->second,
                 removed ? OrderedJson() : now);
    }
    if (removed) {
      written_.erase(before);
    } else {
      written_[name] = std::move(now);
    }
  }
  return lines;
}

std::string PublishedFeed::itemName(Item const& item) {
  if (auto const* key = std::get_if<PolicyKey>(&item)) {
    return "policy " + SrTeView::keyName(*key);
  }
  if (auto const* fec = std::get_if<Fib::FecId>(&item)) {
    return "fec " + SrTeView::fecName(*fec);
  }
  Mpls::RouteKey const& route = std::get<Mpls::RouteKey>(item);
  std::string name = "route " + std::to_string(route.topLabel().value());
  if (route.source().value() != bsidRouteSource) {
    name += " source " + std::to_string(route.source().value());
  }
  return name;
}

OrderedJson PublishedFeed::stateOf(Item const& item) const {
  if (auto const* key = std::get_if<PolicyKey>(&item)) return policyState(*key);
  if (auto const* fec = std::get_if<Fib::FecId>(&item)) return fecState(*fec);
  return routeState(std::get<Mpls::RouteKey>(item));
}

namespace {

OrderedJson labelOrNull(Ludd::MplsLabel label) {
  return label.isNone() ? OrderedJson(nullptr) : OrderedJson(label.value());
}

// {tunnel: weight} of a published policy, by tunnel id.
std::map<Tunnel::TunnelTable::TunnelId, U32> weightsOf(PolicyStatusEntry const& entry) {
  std::map<Tunnel::TunnelTable::TunnelId, U32> out;
  if (entry.weightedViaSet()) {
    for (auto it = entry.weightedViaSet()->weightedViaIter(); it; ++it)
      out[it.key()] = it.value().value();
  }
  return out;
}

}  // namespace

OrderedJson PublishedFeed::policyState(PolicyKey const& key) const {
  Mosk::Ptr<PolicyStatusEntry const> entry = agent_.policyStatus()->status(key);
  if (!entry) return nullptr;
  OrderedJson out;
  out["endpoint"] = Mosk::valueToStrep(key.endpoint());
  out["color"] = key.color().value();
  out["candidate"] = SrTeView::candidateName(SrTePolicy::PolicyId(entry->id()));
  out["bindingSid"] = labelOrNull(entry->bindingSid());
  out["fec"] = entry->srTePolicyFecId().isNone()
                   ? OrderedJson(nullptr)
                   : OrderedJson(SrTeView::fecName(entry->srTePolicyFecId()));
  OrderedJson tunnels = OrderedJson::array();
  for (auto const& [tunnel, weight] : weightsOf(*entry))
    tunnels.push_back({{"tunnel", SrTeView::tunnelName(tunnel)}, {"weight", weight}});
  out["tunnels"] = std::move(tunnels);
  return out;
}

OrderedJson PublishedFeed::fecState(Fib::FecId const& id) const {
  Skerry::Fib::ForwardingStatus const& table = *agent_.srteFwdStatus();
  // An absent id reads as the empty FEC, whose id is none.
  if (table.fec(id).fecId() != id) return nullptr;
  // The weights live with the policy that the FEC publishes.
  std::map<Tunnel::TunnelTable::TunnelId, U32> weights;
  if (std::optional<PolicyKey> key = agent_.policyStatus()->fecIdToPolicyKey(id)) {
    if (auto entry = agent_.policyStatus()->status(*key)) weights = weightsOf(*entry);
  }
  std::vector<std::pair<Tunnel::TunnelTable::TunnelId, OrderedJson>> vias;
  for (Fib::Via const& via : table.fec(id)) {
    auto w = weights.find(via.tunnelId());
    vias.emplace_back(via.tunnelId(),
                      w == weights.end() ? OrderedJson(nullptr) : OrderedJson(w->second));
  }
  std::sort(vias.begin(), vias.end(),
            [](auto const& a, auto const& b) { return a.first < b.first; });
  OrderedJson out;
  out["fec"] = SrTeView::fecName(id);
  OrderedJson list = OrderedJson::array();
  for (auto const& [tunnel, weight] : vias)
    list.push_back({{"tunnel", SrTeView::tunnelName(tunnel)}, {"weight", weight}});
  out["vias"] = std::move(list);
  return out;
}

OrderedJson PublishedFeed::routeState(Mpls::RouteKey const& key) const {
  Mosk::Ptr<Mpls::Status> lfib = agent_.bsidLfib();
  Mpls::LFib::Route route = lfib->lfibRoute(key);
  if (route == Mpls::LFib::Route()) return nullptr;
  OrderedJson out;
  out["label"] = key.topLabel().value();
  if (key.source().value() != bsidRouteSource) out["source"] = key.source().value();
  auto adj = lfib->lfibExtFecAdjacency(Mpls::Status::getExtFecAdjacency(route));
  out["fec"] = adj ? OrderedJson(SrTeView::fecName(adj->fecId())) : OrderedJson(nullptr);
  return out;
}

}  // namespace SrTeDaemon
