// The feed of published state: reactors on the host's output tables (the policy status with
// each of its entries, the FECs of published policies and the binding-SID LFIB) note which
// policy keys, FECs and routes changed; flush() then writes one line for each of them whose
// state differs from the one last written ("added", "changed" or "removed").
//
// Writing is deferred to flush() on purpose: one input change runs through several stages in
// one call chain (a FEC is written, then the status entry field by field, then the route), and
// the event loop flushes once the chain is done, so every line shows a settled state and a
// change that was undone within the chain shows no line at all. The host tells the loop that a
// flush is due through the callback given at construction.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "EventLog.h"
#include "SrTePolicyAgent.h"

namespace SrTeDaemon {

class PublishedFeed {
 public:
  // Starts watching the outputs of `agent` at once; what they already hold is reported by the
  // first flush. `flushDue` is called when the first change after a flush is noted.
  PublishedFeed(SrTePolicy::SrTePolicyAgent const& agent, EventLog& log,
                std::function<void()> flushDue);
  PublishedFeed(PublishedFeed const&) = delete;
  PublishedFeed& operator=(PublishedFeed const&) = delete;
  ~PublishedFeed();

  // Writes the lines for what changed since the last flush, in the order the changes were first
  // noted. Returns the number of lines written.
  U32 flush();
  bool flushPending() const { return !dirty_.empty(); }
  // Stops watching (what changes afterwards is not reported); for a host being torn down.
  void detach();
  // Called after each line with its event ("policy", "fec", "bsid-route") and the item's state
  // as last written and as written now (null for none).
  using Written =
      std::function<void(char const* event, OrderedJson const& before, OrderedJson const& after)>;
  void onWrittenIs(Written f) { onWritten_ = std::move(f); }

  // The state as last written, by item ("policy 10.0.0.1 color 5", "fec srTePolicy:1",
  // "route 900"), for tests and tools.
  std::map<std::string, OrderedJson> const& written() const { return written_; }

 private:
  using Item = std::variant<SrTePolicy::PolicyKey, Fib::FecId, Mpls::RouteKey>;

  class PolicyStatusReactor;
  class EntryReactor;
  class FecReactor;
  class LfibReactor;

  void noteChanged(Item const& item);
  void watchEntry(SrTePolicy::PolicyKey const& key);
  static std::string itemName(Item const& item);
  // The item's state now, or null when it is gone.
  OrderedJson stateOf(Item const& item) const;
  OrderedJson policyState(SrTePolicy::PolicyKey const& key) const;
  OrderedJson fecState(Fib::FecId const& id) const;
  OrderedJson routeState(Mpls::RouteKey const& key) const;

  SrTePolicy::SrTePolicyAgent const& agent_;
  EventLog& log_;
  std::function<void()> flushDue_;
  Written onWritten_;
  Mosk::Ptr<PolicyStatusReactor> statusReactor_;
  std::map<SrTePolicy::PolicyKey, Mosk::Ptr<EntryReactor>> entryReactors_;
  Mosk::Ptr<FecReactor> fecReactor_;
  Mosk::Ptr<LfibReactor> lfibReactor_;
  // Changed since the last flush, in the order first noted; `dirtyNames_` keeps them unique.
  std::vector<Item> dirty_;
  std::set<std::string> dirtyNames_;
  std::map<std::string, OrderedJson> written_;
};

}  // namespace SrTeDaemon
