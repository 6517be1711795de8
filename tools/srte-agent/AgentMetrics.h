// What srte-agent says about itself to a metrics scraper: the Prometheus text exposition of the
// host's counts (policies, candidate paths and segment lists by state, sources attached, FECs
// and binding-SID routes installed), the transitions of active candidates, binding SIDs claimed
// by more than one published policy, the delay from a change taken in to the FEC it published,
// and the build.
//
// A scrape must stay cheap at half a million policies, so nothing here walks the policies:
// sizes of the host's collections are read as they stand, the counts by source come from the
// host's activity keeper (kept as its settles apply), and the binding-SID claims and the delay
// are kept from the published-state feed, item by item, as its lines are written. No series is
// per policy: the labels are a source and a state.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "EventLog.h"
#include "SourceWatcher.h"
#include "SrTePolicyAgent.h"

namespace SrTeDaemon {

class AgentMetrics {
 public:
  // Upper bounds of the publish-delay buckets, in seconds (the +Inf bucket comes last).
  static constexpr std::array<double, 12> delayBuckets = {0.005, 0.01, 0.025, 0.05, 0.06, 0.075,
                                                          0.1,   0.25, 0.5,   1.0,  2.5,  10.0};

  // A change was taken from a source's table or from the configuration at `now` (seconds on
  // the agent's clock): the next FECs published are measured from the first such change.
  void inputSeen(double now) {
    if (pendingSince_ < 0) pendingSince_ = now;
    lastSeen_ = now;
  }
  // The pipeline has nothing left to do: changes taken before now published nothing.
  void inputSettled() { pendingSince_ = -1; }

  // The feed wrote a line: `before` and `after` are the item's state as last written and as
  // written now (null for none). Policies keep the binding-SID claims; a FEC added or changed
  // observes the delay from the first change seen since the last publication.
  void policyWritten(OrderedJson const& before, OrderedJson const& after);
  void fecWritten(OrderedJson const& after, double now);
  // After a flush that wrote FEC lines. FECs of later flushes, until the pipeline settles, come
  // of changes that this flush did not publish yet: the latest change seen is the youngest of
  // them, so they are measured from it (never longer than their true delay).
  void flushDone();

  U64 bindingSidConflicts() const { return conflicts_; }
  U64 delayCount() const { return delayCount_; }
  double delaySum() const { return delaySum_; }

  // The exposition (text format 0.0.4) of `agent` (null once stopped: only the build and the
  // counters kept here) and its sources.
  std::string exposition(SrTePolicy::SrTePolicyAgent const* agent,
                         std::vector<std::unique_ptr<SourceWatcher>> const& sources) const;

 private:
  void claim(OrderedJson const& state, int delta);

  double pendingSince_ = -1;
  double lastSeen_ = -1;
  bool observed_ = false;
  std::array<U64, delayBuckets.size()> delayBucketCounts_{};
  U64 delayCount_ = 0;
  double delaySum_ = 0;
  // Published policies per binding SID, and how many labels have more than one.
  std::unordered_map<U32, U32> claims_;
  U64 conflicts_ = 0;
};

}  // namespace SrTeDaemon
