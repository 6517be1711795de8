// The metrics of srte-agent (AgentMetrics.h).
#include "AgentMetrics.h"

#include <cstdio>

#include "SrTePolicy/SrTePolicySource.h"

#ifndef SRTE_VERSION
#define SRTE_VERSION "unknown"
#endif

namespace SrTeDaemon {

using SrTePolicy::PolicySource;

namespace {

// a - b, or 0 when the collections are caught between two stages (b runs ahead of a).
U64 minus(U64 a, U64 b) {
  return a > b ? a - b : 0;
}

class Exposition {
 public:
  // The HELP and TYPE lines of one family.
  void family(char const* name, char const* type, char const* help) {
    out_ += "# HELP ";
    out_ += name;
    out_ += ' ';
    out_ += help;
    out_ += "\n# TYPE ";
    out_ += name;
    out_ += ' ';
    out_ += type;
    out_ += '\n';
  }
  // One sample; `labels` is the text between the braces, already escaped (or empty).
  void sample(std::string const& name, std::string const& labels, double value) {
    out_ += name;
    if (!labels.empty()) out_ += '{' + labels + '}';
    char buf[40];
    std::snprintf(buf, sizeof buf, " %.17g\n", value);
    out_ += buf;
  }
  void sample(std::string const& name, std::string const& labels, U64 value) {
    out_ += name;
    if (!labels.empty()) out_ += '{' + labels + '}';
    out_ += ' ' + std::to_string(value) + '\n';
  }
  std::string take() { return std::move(out_); }

 private:
  std::string out_;
};

// A label value as the text format wants it: backslash, double quote and line feed escaped.
std::string escaped(std::string const& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

std::string compiler() {
#if defined(__clang__)
  return std::string("clang ") + __clang_version__;
#elif defined(__GNUC__)
  return std::string("gcc ") + __VERSION__;
#else
  return "unknown";
#endif
}

}  // namespace

void AgentMetrics::claim(OrderedJson const& state, int delta) {
  if (!state.is_object() || !state["bindingSid"].is_number()) return;
  U32 const label = state["bindingSid"].get<U32>();
  U32& n = claims_[label];
  if (delta > 0) {
    if (++n == 2) ++conflicts_;
    return;
  }
  if (n-- == 2) --conflicts_;
  if (n == 0) claims_.erase(label);
}

void AgentMetrics::policyWritten(OrderedJson const& before, OrderedJson const& after) {
  claim(before, -1);
  claim(after, 1);
}

void AgentMetrics::fecWritten(OrderedJson const& after, double now) {
  if (after.is_null() || pendingSince_ < 0) return;
  double const delay = now > pendingSince_ ? now - pendingSince_ : 0;
  for (std::size_t i = 0; i < delayBuckets.size(); ++i) {
    if (delay <= delayBuckets[i]) ++delayBucketCounts_[i];
  }
  ++delayCount_;
  delaySum_ += delay;
  observed_ = true;
}

void AgentMetrics::flushDone() {
  if (observed_) pendingSince_ = lastSeen_;
  observed_ = false;
}

std::string AgentMetrics::exposition(
    SrTePolicy::SrTePolicyAgent const* agent,
    std::vector<std::unique_ptr<SourceWatcher>> const& sources) const {
  Exposition e;
  if (agent) {
    U64 const known = agent->policyKeyToIdMap()->mapEntryCount();
    U64 const selected = agent->ecPolicy()->policyCount();
    U64 const published = agent->policyStatus()->statusCount();
    e.family("srte_policies", "gauge",
             "SR-TE policies by state: up (published, with its FEC), selected (an active "
             "candidate path not published yet), down (no valid candidate path).");
    e.sample("srte_policies", "state=\"up\"", published);
    e.sample("srte_policies", "state=\"selected\"", minus(selected, published));
    e.sample("srte_policies", "state=\"down\"", minus(known, selected));

    SrTePolicy::PolicyActivityKeeper::Counts const& counts = agent->activityCounts();
    e.family("srte_candidate_paths", "gauge",
             "Candidate paths by source and state: active (its policy's active candidate "
             "path), valid (a segment list resolves, not active), invalid (none resolves).");
    for (PolicySource s : {PolicySource::sourceStatic, PolicySource::sourceBgp,
                           PolicySource::sourcePcep, PolicySource::sourceOther}) {
      auto const i = static_cast<std::size_t>(s);
      Mosk::Ptr<SrTePolicy::PolicyInput> table = agent->sourceTable(s);
      U64 const total = table ? table->policyInputEntryCount() : 0;
      std::string const source = std::string("source=\"") + SrTePolicy::sourceName(s) + "\"";
      e.sample("srte_candidate_paths", source + ",state=\"active\"", counts.activeBySource[i]);
      e.sample("srte_candidate_paths", source + ",state=\"valid\"",
               minus(counts.eligibleBySource[i], counts.activeBySource[i]));
      e.sample("srte_candidate_paths", source + ",state=\"invalid\"",
               minus(total, counts.eligibleBySource[i]));
    }

    U64 const lists =
        agent->coreDedupTables()->notifyingSegmentListCollection()->segmentListNotifierCount();
    U64 const resolved = agent->segmentListStatus()->statusCount();
    e.family("srte_segment_lists", "gauge",
             "Segment lists (one per distinct label stack, shared by candidate paths) by state: "
             "valid (resolved into a tunnel), invalid.");
    e.sample("srte_segment_lists", "state=\"valid\"", resolved);
    e.sample("srte_segment_lists", "state=\"invalid\"", minus(lists, resolved));

    e.family("srte_active_candidate_transitions_total", "counter",
             "Changes of a policy's active candidate path (to another, from none, to none) "
             "since the agent started.");
    e.sample("srte_active_candidate_transitions_total", "", counts.transitions);

    e.family("srte_fecs_installed", "gauge", "FECs published for SR-TE policies.");
    e.sample("srte_fecs_installed", "", U64(agent->srteFwdStatus()->fecCount()));
    e.family("srte_binding_sid_routes_installed", "gauge",
             "Binding-SID label routes installed, each leading to its policy's FEC.");
    e.sample("srte_binding_sid_routes_installed", "", U64(agent->bsidLfib()->lfibRouteCount()));
  }

  e.family("srte_source_attached", "gauge",
           "Whether the table of a source is attached (1) or waited for (0).");
  for (auto const& s : sources) {
    e.sample("srte_source_attached",
             std::string("source=\"") + SrTePolicy::sourceName(s->option().source) + "\",table=\"" +
                 escaped(s->option().table) + "\"",
             U64(s->attached() ? 1 : 0));
  }

  e.family("srte_binding_sid_conflicts", "gauge",
           "Binding SIDs that more than one published policy claims (one route is installed "
           "for each).");
  e.sample("srte_binding_sid_conflicts", "", conflicts_);

  e.family("srte_publish_delay_seconds", "histogram",
           "Time from a change taken from a source's table or the configuration to a FEC "
           "published for it.");
  for (std::size_t i = 0; i < delayBuckets.size(); ++i) {
    char le[32];
    std::snprintf(le, sizeof le, "le=\"%g\"", delayBuckets[i]);
    e.sample("srte_publish_delay_seconds_bucket", le, delayBucketCounts_[i]);
  }
  e.sample("srte_publish_delay_seconds_bucket", "le=\"+Inf\"", delayCount_);
  e.sample("srte_publish_delay_seconds_sum", "", delaySum_);
  e.sample("srte_publish_delay_seconds_count", "", delayCount_);

  e.family("srte_build_info", "gauge", "The build of the running agent; the value is 1.");
  e.sample("srte_build_info",
           "version=\"" + escaped(SRTE_VERSION) + "\",compiler=\"" + escaped(compiler()) + "\"",
           U64(1));
  return e.take();
}

}  // namespace SrTeDaemon
