// srte-scale: the whole SR-TE policy pipeline at router scale, built through the host
// (SrTePolicyAgent) from a seeded workload (ScaleWorkload.h), in timed phases:
//   load      every candidate path written, the scheduler drained until every policy is
//             published (the manual clock is advanced past each publish window);
//   churn     1% of the candidate paths change preference and 1% are removed, then re-added;
//   flap      the routes of 1% of the top labels go away, then come back;
//   teardown  every source removed; every output and store must end empty.
// Each phase ends with a check, outside its timing, that the outputs are exactly what the
// inputs imply: the sizes of every table (FECs, vias, tunnels, binding-SID routes, the store)
// and a sample of policies compared in full, down to the tunnel next hops. A failed check
// makes the run fail, so no phase can be fast by doing less.
//
// It prints a human table and, with --json, one JSON line: per phase wall and CPU seconds and
// microseconds per unit of work, the peak resident memory, the bytes per policy that the load
// added and the sizes of the main tables.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "AllocationCount.h"
#include "ScaleWorkload.h"
#include "SrTePolicyAgent.h"
#include "Vell/Clock.h"

namespace SrTeScale {

namespace {

using Mosk::Ptr;
using SrTePolicy::SrTePolicyAgent;

constexpr std::array<PolicySource, 3> kSources = {PolicySource::sourceBgp, PolicySource::sourcePcep,
                                                  PolicySource::sourceOther};
// The LFIB source of the generated top-label routes, and the key field of binding-SID routes.
Mpls::LFib::Source const kRouteSource(3);
Mpls::LFib::Source const kBsidKeySource(1);

// What a stretch of work cost the process: wall and process CPU time, user and system time
// apart, minor page faults (the first touch of fresh memory) and heap allocations. A Meter is
// read at the start and end of each timed stretch; the differences add up per phase.
struct Meter {
  double wall = 0;
  double cpu = 0;
  double user = 0;
  double system = 0;
  U64 minorFaults = 0;
  U64 allocations = 0;

  static Meter now() {
    timespec cpu{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto wall = std::chrono::steady_clock::now().time_since_epoch();
    Meter m;
    m.wall = std::chrono::duration<double>(wall).count();
    m.cpu = static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9;
    m.user = seconds(usage.ru_utime);
    m.system = seconds(usage.ru_stime);
    m.minorFaults = static_cast<U64>(usage.ru_minflt);
    m.allocations = allocationCount();
    return m;
  }
  Meter operator-(Meter const& o) const {
    return {wall - o.wall,
            cpu - o.cpu,
            user - o.user,
            system - o.system,
            minorFaults - o.minorFaults,
            allocations - o.allocations};
  }
  Meter& operator+=(Meter const& o) {
    wall += o.wall;
    cpu += o.cpu;
    user += o.user;
    system += o.system;
    minorFaults += o.minorFaults;
    allocations += o.allocations;
    return *this;
  }

 private:
  static double seconds(timeval const& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  }
};

// Adds up the cost of the timed stretches of one phase; the work between them (building the
// input records, checking) is left out.
class Stopwatch {
 public:
  void start() { started_ = Meter::now(); }
  void stop() { total_ += Meter::now() - started_; }
  Meter const& total() const { return total_; }

 private:
  Meter started_;
  Meter total_;
};

U64 residentBytes() {
  std::ifstream statm("/proc/self/statm");
  U64 size = 0;
  U64 resident = 0;
  statm >> size >> resident;
  return resident * static_cast<U64>(sysconf(_SC_PAGESIZE));
}

U64 peakResidentBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<U64>(usage.ru_maxrss) * 1024;
}

struct PhaseResult {
  std::string name;
  Meter time;
  double checkSeconds = 0;
  U64 units = 0;
  std::string unitName;
  std::vector<std::string> failures;
  // Process CPU time per unit: on a shared machine the wall clock also counts the neighbours.
  double usPerUnit() const { return perUnit(time.cpu * 1e6); }
  double userUsPerUnit() const { return perUnit(time.user * 1e6); }
  double systemUsPerUnit() const { return perUnit(time.system * 1e6); }
  double faultsPerUnit() const { return perUnit(static_cast<double>(time.minorFaults)); }
  double allocationsPerUnit() const { return perUnit(static_cast<double>(time.allocations)); }

 private:
  double perUnit(double v) const { return units ? v / static_cast<double>(units) : 0; }
};

// The sizes of the main tables, as the pipeline holds them.
struct Sizes {
  std::vector<std::pair<char const*, U64>> items;
  U64 get(char const* name) const {
    for (auto const& [n, v] : items) {
      if (std::string(n) == name) return v;
    }
    return 0;
  }
};

class Run {
 public:
  explicit Run(Shape const& shape, U32 sample) : workload_(shape), sample_(sample) {
    for (PolicySource source : kSources)
      tables_.push_back(agent_.sourceTableIs(source));
    routeTopLabels();
  }

  Workload const& workload() const { return workload_; }
  bool loaded() const { return loaded_; }
  U64 loadGrowth() const { return loadGrowth_; }

  PhaseResult load();
  PhaseResult churn();
  PhaseResult flap();
  PhaseResult teardown();
  Sizes sizes() const;

 private:
  void routeTopLabels();
  Mpls::LFib::Route topRoute(U32 i) const;
  // The records of `candidates` into `out` (emptied first), built outside the timed
  // stretches: the generator's work is not the pipeline's.
  void records(std::vector<Candidate> const& candidates,
               std::vector<SrTePolicy::PolicyInputEntry>& out) const;
  // Writes the records into their sources' tables; the pipeline reacts inside each write. Kept
  // out of line so that callgrind's --toggle-collect can name it.
  [[gnu::noinline]] void write(std::vector<SrTePolicy::PolicyInputEntry> const& records);
  [[gnu::noinline]] void erase(std::vector<PolicyId> const& ids);
  static std::size_t sourceSlot(PolicySource s) { return static_cast<std::size_t>(s) - 1; }
  void drain() { agent_.advanceUntilIdle(); }
  // Checks the whole pipeline against the workload and the overrides; `extra` policies are
  // compared in full besides the random sample.
  std::vector<std::string> check(std::vector<U32> const& extra) const;
  void checkPolicy(U32 policy, std::vector<std::string>& failures) const;
  // The store's side of every candidate path of `policy` present in the input: each of its
  // lists is in the store, exported with its labels, used by exactly the paths that name it and
  // registered under each of its segments.
  void checkStore(U32 policy, std::vector<std::string>& failures) const;
  // The segment list of a label stack, or null when the store has none.
  Ptr<SrTePolicy::SegmentList const> findList(List const& list) const;
  PhaseResult finish(PhaseResult r, std::vector<U32> const& extra) const;

  SrTePolicyAgent agent_{Vell::manualClockFactory()};
  Workload workload_;
  U32 sample_;
  Overrides overrides_;
  std::vector<Ptr<SrTePolicy::PolicyInput>> tables_;
  bool loaded_ = false;
  U64 loadGrowth_ = 0;
};

Mpls::LFib::Route Run::topRoute(U32 i) const {
  return Mpls::LFib::Route(Mpls::RouteKey(Ludd::MplsLabel(workload_.topLabel(i)), kRouteSource),
                           Mpls::AdjacencyKey(1000 + i, Mpls::AdjacencyKind::adjacency),
                           Mpls::LFib::RouteType::label, kRouteSource, 0, Ludd::IpGenPrefix());
}

// Every top label is reached over an adjacency of two next hops that swap to the same label.
void Run::routeTopLabels() {
  Mpls::Status& lfib = *agent_.mplsStatus();
  for (U32 i = 0; i < workload_.shape().topLabelCount(); ++i) {
    Mpls::ViaSet vias;
    for (U32 v = 0; v < 2; ++v) {
      vias.viaIs(Mpls::Via(Ludd::IntfId(Ludd::IntfId::Kind::ethernet, 2 * i + v + 1),
                           Ludd::IpGenAddr(Ludd::IpAddr::fromU32(0x0b000000u + 2 * i + v + 1)),
                           Ludd::MplsLabelAction::actionSwap,
                           Ludd::MplsLabel(workload_.topLabel(i))));
    }
    lfib.lfibAdjacencyIs(1000 + i, Mpls::LfibAdjacency(vias));
    lfib.lfibRouteIs(topRoute(i));
  }
}

void Run::records(std::vector<Candidate> const& candidates,
                  std::vector<SrTePolicy::PolicyInputEntry>& out) const {
  out.clear();
  for (Candidate const& c : candidates)
    out.push_back(workload_.record(c));
}

void Run::write(std::vector<SrTePolicy::PolicyInputEntry> const& records) {
  for (SrTePolicy::PolicyInputEntry const& record : records)
    tables_[sourceSlot(record.key().source())]->policyInputEntryIs(record);
}

void Run::erase(std::vector<PolicyId> const& ids) {
  for (PolicyId const& id : ids)
    tables_[sourceSlot(id.source())]->policyInputEntryDel(id);
}

PhaseResult Run::finish(PhaseResult r, std::vector<U32> const& extra) const {
  auto const start = std::chrono::steady_clock::now();
  r.failures = check(extra);
  r.checkSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return r;
}

PhaseResult Run::load() {
  PhaseResult r;
  r.name = "load";
  Shape const& shape = workload_.shape();
  // The records go in batches through buffers taken before the resident size is read, so
  // that neither their building nor their memory counts against the pipeline.
  constexpr U32 kBatchPolicies = 1024;
  std::vector<Candidate> batch;
  std::vector<SrTePolicy::PolicyInputEntry> input;
  batch.reserve(std::size_t{kBatchPolicies} * shape.candidates);
  // Touched now, so that its pages are resident before the pipeline's growth is measured.
  input.resize(std::size_t{kBatchPolicies} * shape.candidates);
  input.clear();
  U64 const before = residentBytes();
  Stopwatch watch;
  for (U32 first = 0; first < shape.policies; first += kBatchPolicies) {
    batch.clear();
    U32 const end = std::min(shape.policies, first + kBatchPolicies);
    for (U32 p = first; p < end; ++p) {
      for (U32 i = 0; i < shape.candidates; ++i)
        batch.push_back(workload_.candidate(p, i, overrides_));
    }
    records(batch, input);
    watch.start();
    write(input);
    watch.stop();
  }
  watch.start();
  drain();
  watch.stop();
  r.time = watch.total();
  U64 const after = residentBytes();
  loadGrowth_ = after > before ? after - before : 0;
  r.units = shape.paths();
  r.unitName = "candidate paths";
  loaded_ = true;
  return finish(std::move(r), {});
}

// 1% of the paths get a new preference, another 1% are removed; the pipeline settles; the
// removed ones are written again and it settles again.
PhaseResult Run::churn() {
  PhaseResult r;
  r.name = "churn";
  Shape const& shape = workload_.shape();
  U64 const count = std::max<U64>(1, shape.paths() / 100);
  // Distinct paths by a stride coprime with the number of paths.
  U64 const n = shape.paths();
  U64 stride = (n / 2) | 1;
  while (std::gcd(stride, n) != 1)
    stride += 2;
  U64 cursor = (shape.seed * 7919) % n;
  auto next = [&] {
    cursor = (cursor + stride) % n;
    return cursor;
  };
  std::vector<U64> repreferenced;
  std::vector<U64> removed;
  for (U64 k = 0; k < count; ++k)
    repreferenced.push_back(next());
  for (U64 k = 0; k < count && 2 * count <= n; ++k)
    removed.push_back(next());

  std::vector<U32> touched;
  auto policyOf = [&](U64 path) { return static_cast<U32>(path / shape.candidates); };
  auto indexOf = [&](U64 path) { return static_cast<U32>(path % shape.candidates); };
  std::vector<Candidate> changed;
  U32 salt = 0;
  for (U64 path : repreferenced) {
    Candidate c = workload_.candidate(policyOf(path), indexOf(path), overrides_);
    // A new preference anywhere in the policy's range: it may now rank first or last.
    U32 preference =
        100 + static_cast<U32>((path * 2654435761u + ++salt) % (10 * shape.candidates));
    if (preference == c.preference) preference += 10 * shape.candidates;
    overrides_.preference[path] = preference;
    c.preference = preference;
    changed.push_back(std::move(c));
  }
  std::vector<PolicyId> gone;
  for (U64 path : removed) {
    gone.push_back(workload_.candidate(policyOf(path), indexOf(path), overrides_).id);
    overrides_.removed.insert(path);
  }
  std::vector<SrTePolicy::PolicyInputEntry> input;
  records(changed, input);
  Stopwatch watch;
  watch.start();
  write(input);
  erase(gone);
  drain();
  watch.stop();
  for (U64 k = 0; k < std::min<U64>(16, count); ++k) {
    touched.push_back(policyOf(repreferenced[k]));
    if (k < removed.size()) touched.push_back(policyOf(removed[k]));
  }
  r = finish(std::move(r), touched);
  if (!r.failures.empty()) return r;

  changed.clear();
  for (U64 path : removed) {
    overrides_.removed.erase(path);
    changed.push_back(workload_.candidate(policyOf(path), indexOf(path), overrides_));
  }
  records(changed, input);
  watch.start();
  write(input);
  drain();
  watch.stop();
  r.time = watch.total();
  r.units = repreferenced.size() + removed.size();
  r.unitName = "changed paths";
  return finish(std::move(r), touched);
}

// 1% of the top labels lose their route, the pipeline settles, the routes come back and it
// settles again. The unit is one affected list (one holding a flapped label) re-resolved once.
PhaseResult Run::flap() {
  PhaseResult r;
  r.name = "flap";
  U32 const tops = workload_.shape().topLabelCount();
  U32 const count = std::max<U32>(1, tops / 100);
  std::vector<U32> flapped;
  for (U32 k = 0; k < count; ++k)
    flapped.push_back(static_cast<U32>((workload_.shape().seed + k * (tops / count)) % tops));

  // The lists that hold a flapped label, and a few policies that use them.
  std::set<SrTePolicy::SegmentList const*> affected;
  std::vector<U32> touched;
  SrTePolicy::SegmentDedupTable const& segments = *agent_.coreDedupTables()->segDedupTablePtr();
  for (U32 i : flapped) {
    auto segment = segments.lookupByLabel(Ludd::MplsLabel(workload_.topLabel(i)));
    if (!segment) continue;
    auto lists = agent_.segmentIdToSegmentList()->segmentList(segment->segmentId());
    if (!lists) continue;
    for (auto c = lists->segmentListPtrIter(); c; ++c) {
      affected.insert(c.key().ptr());
      auto user = agent_.segmentListIdToPolicyMap()->segmentListUser(c.key()->segmentListId());
      if (user && touched.size() < 32) {
        touched.push_back(static_cast<U32>((user->policyIdIter().key().index() - 1) /
                                           workload_.shape().candidates));
      }
    }
  }

  Mpls::Status& lfib = *agent_.mplsStatus();
  Stopwatch watch;
  watch.start();
  for (U32 i : flapped)
    lfib.lfibRouteDel(topRoute(i).key());
  drain();
  watch.stop();
  for (U32 i : flapped)
    overrides_.unroutedTops.insert(workload_.topLabel(i));
  r = finish(std::move(r), touched);
  if (!r.failures.empty()) return r;

  watch.start();
  for (U32 i : flapped)
    lfib.lfibRouteIs(topRoute(i));
  drain();
  watch.stop();
  for (U32 i : flapped)
    overrides_.unroutedTops.erase(workload_.topLabel(i));
  r.time = watch.total();
  r.units = 2 * affected.size();
  r.unitName = "affected lists x2";
  return finish(std::move(r), touched);
}

PhaseResult Run::teardown() {
  PhaseResult r;
  r.name = "teardown";
  Stopwatch watch;
  watch.start();
  for (PolicySource source : kSources)
    agent_.sourceTableDel(source);
  drain();
  watch.stop();
  r.time = watch.total();
  r.units = workload_.shape().paths() - overrides_.removed.size();
  r.unitName = "candidate paths";
  for (U64 p = 0; p < workload_.shape().paths(); ++p)
    overrides_.removed.insert(p);
  return finish(std::move(r), {});
}

Ptr<SrTePolicy::SegmentList const> Run::findList(List const& list) const {
  SrTePolicy::CoreDedupTables const& tables = *agent_.coreDedupTables();
  SrTePolicy::SegmentList candidate;
  for (U32 d = 0; d < list.depth; ++d) {
    auto segment = tables.segDedupTablePtr()->lookupByLabel(Ludd::MplsLabel(list.labels[d]));
    if (!segment) return nullptr;
    candidate.segmentIs(Ludd::MplsStackEntryIndex(d), segment);
  }
  candidate.sizeIs(static_cast<U8>(list.depth));
  return Mosk::ptrCast<SrTePolicy::SegmentList const>(
      tables.segListDedupTablePtr()->dedupTable()->lookup(candidate));
}

Sizes Run::sizes() const {
  Sizes s;
  U64 candidates = 0;
  for (auto c = agent_.ecPolicy()->policyIterConst(); c; ++c)
    candidates += c->candidateCount();
  U64 vias = 0;
  Skerry::Fib::ForwardingStatus const& fecs = *agent_.srteFwdStatus();
  for (auto c = fecs.fecIter(); c; ++c)
    vias += fecs.fec(c.key()).viaCount();
  U64 listUses = 0;
  for (auto c = agent_.segmentListIdToPolicyMap()->segmentListUserIterConst(); c; ++c)
    listUses += c->policyIdCount();
  U64 segmentLinks = 0;
  for (auto c = agent_.segmentIdToSegmentList()->segmentListIter(); c; ++c)
    segmentLinks += c.value()->segmentListPtrCount();
  auto const& core = *agent_.coreDedupTables();
  s.items = {
      {"paths", agent_.policySelectionInput()->policyIdEntryCount()},
      {"policyKeys", agent_.policyKeyToIdMap()->mapEntryCount()},
      {"segments", core.notifyingSegmentCollection()->segmentNotifierCount()},
      {"segmentLists", core.notifyingSegmentListCollection()->segmentListNotifierCount()},
      {"segmentListUsers", agent_.segmentListIdToPolicyMap()->segmentListUserCount()},
      {"segmentRegistrations", agent_.segmentIdToSegmentList()->segmentListCount()},
      {"listUses", listUses},
      {"segmentLinks", segmentLinks},
      {"segmentStatus", agent_.segmentStatus()->statusCount()},
      {"segmentListStatus", agent_.segmentListStatus()->statusCount()},
      {"tunnels", agent_.tunnelTable()->entryCount()},
      {"policies", agent_.ecPolicy()->policyCount()},
      {"candidates", candidates},
      {"policyStatus", agent_.policyStatus()->statusCount()},
      {"fecIdToPolicyKey", agent_.policyStatus()->fecIdToPolicyKeyCount()},
      {"fecs", fecs.fecCount()},
      {"vias", vias},
      {"bsidRoutes", agent_.bsidLfib()->lfibRouteCount()},
      {"bsidAdjacencies", agent_.bsidLfib()->lfibExtFecAdjacencyCount()},
      {"exportedLists", agent_.exportedSegmentLists()->segmentListCount()},
      {"selectionPending", agent_.policySelectionSm()->pendingPolicyIdCount()},
  };
  return s;
}

std::vector<std::string> Run::check(std::vector<U32> const& extra) const {
  std::vector<std::string> failures;
  Expected const e = workload_.expected(overrides_);
  Sizes const s = sizes();
  auto expect = [&](char const* name, U64 want) {
    U64 got = s.get(name);
    if (got != want) {
      failures.push_back(std::string(name) + ": " + std::to_string(got) + ", expected " +
                         std::to_string(want));
    }
  };
  expect("paths", e.paths);
  expect("policyKeys", e.policyKeys);
  expect("segments", e.segments);
  expect("segmentLists", e.segmentLists);
  expect("segmentListUsers", e.segmentLists);
  expect("segmentRegistrations", e.segments);
  expect("listUses", e.listUses);
  expect("segmentLinks", e.segmentLinks);
  expect("segmentStatus", e.resolvedSegments);
  expect("segmentListStatus", e.resolvedLists);
  expect("tunnels", e.resolvedLists);
  expect("policies", e.published);
  expect("candidates", e.eligible);
  expect("policyStatus", e.published);
  expect("fecIdToPolicyKey", e.published);
  expect("fecs", e.published);
  expect("vias", e.vias);
  expect("bsidRoutes", e.published);
  expect("bsidAdjacencies", e.published);
  expect("exportedLists", e.segmentLists);
  expect("selectionPending", 0);

  std::vector<U32> sample = extra;
  U32 const policies = workload_.shape().policies;
  for (U32 k = 0; k < sample_; ++k) {
    U64 x = (workload_.shape().seed + k) * 0x9e3779b97f4a7c15ull;
    sample.push_back(static_cast<U32>((x >> 17) % policies));
  }
  sample.push_back(0);
  sample.push_back(policies - 1);
  for (U32 p : sample) {
    if (failures.size() > 20) break;
    checkPolicy(p, failures);
    checkStore(p, failures);
  }
  return failures;
}

void Run::checkPolicy(U32 policy, std::vector<std::string>& failures) const {
  std::string const who = "policy " + std::to_string(policy) + ": ";
  auto fail = [&](std::string const& what) { failures.push_back(who + what); };
  PolicyKey const key = workload_.key(policy);
  std::optional<Candidate> const want = workload_.active(policy, overrides_);
  auto status = agent_.policyStatus()->status(key);
  auto ec = agent_.ecPolicy()->policy(key);
  Mpls::RouteKey const bsidKey(Ludd::MplsLabel(workload_.bindingSid(policy)), kBsidKeySource);
  Mpls::LFib::Route const bsidRoute = agent_.bsidLfib()->lfibRoute(bsidKey);
  if (!want) {
    if (status) fail("published, but no candidate is eligible");
    if (ec) fail("in EcPolicy, but no candidate is eligible");
    if (bsidRoute != Mpls::LFib::Route()) fail("binding-SID route installed without a policy");
    return;
  }
  if (!status || !ec) return fail("not published");
  if (!ec->active() || ec->active()->priority().id() != want->id.value()) {
    return fail("active candidate is not " + std::to_string(want->id.value()));
  }
  U32 eligible = 0;
  for (U32 i = 0; i < workload_.shape().candidates; ++i) {
    if (overrides_.removed.count(workload_.pathNumber(policy, i)) != 0) continue;
    if (!workload_.resolvedLists(workload_.candidate(policy, i, overrides_), overrides_).empty())
      ++eligible;
  }
  if (ec->candidateCount() != eligible) fail("wrong number of candidates in EcPolicy");
  if (status->bindingSid() != Ludd::MplsLabel(workload_.bindingSid(policy)))
    fail("wrong binding SID");
  if (status->id() != want->id.value()) fail("status names another candidate");

  std::vector<List> const lists = workload_.resolvedLists(*want, overrides_);
  auto viaSet = status->weightedViaSet();
  if (!viaSet || viaSet->weightedViaCount() != lists.size()) fail("wrong weighted via set");
  Fib::FecId const fecId = status->srTePolicyFecId();
  Fib::Fec const& fec = agent_.srteFwdStatus()->fec(fecId);
  if (fec.viaCount() != lists.size()) fail("FEC has the wrong number of vias");
  auto mapped = agent_.policyStatus()->fecIdToPolicyKey(fecId);
  if (!mapped || !(*mapped == key)) fail("FEC id does not map back to the policy");
  for (List const& list : lists) {
    auto segList = findList(list);
    if (!segList) return fail("a segment list is missing from the store");
    auto resolve = agent_.segmentListStatus()->status(segList->segmentListId());
    if (!resolve) return fail("a resolvable segment list has no status");
    Tunnel::TunnelTable::TunnelId const tunnelId = resolve->tunnelId();
    if (!viaSet || viaSet->weightedVia(tunnelId) != SrTePolicy::Weight(list.weight))
      fail("tunnel missing from the weighted via set, or with the wrong weight");
    bool inFec = std::any_of(fec.begin(), fec.end(),
                             [&](Fib::Via const& via) { return via.tunnelId() == tunnelId; });
    if (!inFec) fail("tunnel missing from the FEC");
    auto tunnel = agent_.tunnelTable()->entry(tunnelId);
    if (!tunnel || tunnel->viaCount() != 2) {
      fail("tunnel entry missing or without its two next hops");
      continue;
    }
    for (auto const& via : *tunnel) {
      Ludd::MplsLabelOperation const& op = via.labelOperation();
      bool good = op.size() == list.depth;
      for (U32 i = 0; good && i + 1 < list.depth; ++i)
        good = op.label(i) == Ludd::MplsLabel(list.labels[list.depth - 1 - i]);
      if (good) good = op.label(list.depth - 1) == Ludd::MplsLabel(list.labels[0]);
      if (!good) fail("tunnel next hop with the wrong label stack");
    }
  }
  if (Mpls::Status::getExtFecAdjacency(bsidRoute) == 0) return fail("no binding-SID route");
  auto adjacency =
      agent_.bsidLfib()->lfibExtFecAdjacency(Mpls::Status::getExtFecAdjacency(bsidRoute));
  if (!adjacency || !(adjacency->fecId() == fecId))
    fail("binding-SID route does not lead to the policy's FEC");
}

void Run::checkStore(U32 policy, std::vector<std::string>& failures) const {
  std::string const who = "policy " + std::to_string(policy) + ": ";
  auto fail = [&](std::string const& what) { failures.push_back(who + what); };
  U32 const candidates = workload_.shape().candidates;
  for (U32 i = 0; i < candidates; ++i) {
    if (overrides_.removed.count(workload_.pathNumber(policy, i)) != 0) continue;
    Candidate const c = workload_.candidate(policy, i, overrides_);
    for (List const& list : c.lists) {
      auto segList = findList(list);
      if (!segList) return fail("a segment list of a present path is missing from the store");
      SrTePolicy::SegmentListId const id = segList->segmentListId();
      auto exported = agent_.exportedSegmentLists()->segmentList(id);
      bool exportedRight = exported && exported->size() == list.depth;
      for (U32 d = 0; exportedRight && d < list.depth; ++d) {
        auto segment = exported->segment(Ludd::MplsStackEntryIndex(d));
        exportedRight = segment && segment->label() == Ludd::MplsLabel(list.labels[d]);
      }
      if (!exportedRight) fail("list " + std::to_string(id.value()) + " exported wrongly");
      auto user = agent_.segmentListIdToPolicyMap()->segmentListUser(id);
      if (!user || !user->policyId(c.id) || user->segmentList() != segList) {
        fail("list " + std::to_string(id.value()) + " does not name path " +
             std::to_string(c.id.value()) + " as a user");
      } else {
        for (auto u = user->policyIdIter(); u; ++u) {
          U64 const path = u.key().index() - 1;
          bool const real =
              path < workload_.shape().paths() && overrides_.removed.count(path) == 0 &&
              Workload::names(workload_.candidate(static_cast<U32>(path / candidates),
                                                  static_cast<U32>(path % candidates), overrides_),
                              list);
          if (!real) {
            fail("list " + std::to_string(id.value()) + " names path " +
                 std::to_string(u.key().value()) + ", which does not use it");
          }
        }
      }
      for (U32 d = 0; d < list.depth; ++d) {
        auto segment = agent_.coreDedupTables()->segDedupTablePtr()->lookupByLabel(
            Ludd::MplsLabel(list.labels[d]));
        auto lists =
            segment ? agent_.segmentIdToSegmentList()->segmentList(segment->segmentId()) : nullptr;
        if (!lists || !lists->segmentListPtr(segList)) {
          fail("list " + std::to_string(id.value()) + " is not registered under label " +
               std::to_string(list.labels[d]));
        }
      }
    }
  }
}

// Output.

std::string fixed(double v, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

void printTable(Shape const& shape, std::vector<PhaseResult> const& phases, Sizes const& sizes,
                U64 loadGrowth, U64 peak) {
  std::printf("srte-scale  P=%u C=%u L=%u D=%u U=%u top=%u seed=%llu\n", shape.policies,
              shape.candidates, shape.lists, shape.depth, shape.labels, shape.topLabelCount(),
              static_cast<unsigned long long>(shape.seed));
  std::printf("%-9s %9s %9s %9s %9s  %-18s %9s %9s %9s %9s %9s %8s  %s\n", "phase", "wall s",
              "cpu s", "user s", "sys s", "unit", "units", "cpu us", "user us", "faults", "allocs",
              "check s", "result");
  std::printf("%-9s %9s %9s %9s %9s  %-18s %9s %9s %9s %9s %9s %8s\n", "", "", "", "", "", "", "",
              "per unit", "per unit", "per unit", "per unit", "");
  for (PhaseResult const& r : phases) {
    std::string const allocs =
        allocationsCounted() ? fixed(r.allocationsPerUnit(), 2) : std::string("-");
    std::printf("%-9s %9.4f %9.4f %9.4f %9.4f  %-18s %9llu %9.3f %9.3f %9.3f %9s %8.3f  %s\n",
                r.name.c_str(), r.time.wall, r.time.cpu, r.time.user, r.time.system,
                r.unitName.c_str(), static_cast<unsigned long long>(r.units), r.usPerUnit(),
                r.userUsPerUnit(), r.faultsPerUnit(), allocs.c_str(), r.checkSeconds,
                r.failures.empty() ? "ok" : "FAILED");
    for (std::string const& f : r.failures)
      std::printf("    %s\n", f.c_str());
  }
  double perPolicy = static_cast<double>(loadGrowth) / shape.policies;
  std::printf(
      "peak resident %.1f MiB; load added %.1f MiB, %.0f bytes per policy (%.0f beyond "
      "its %u input records of 684 bytes)\n",
      static_cast<double>(peak) / 1048576.0, static_cast<double>(loadGrowth) / 1048576.0, perPolicy,
      perPolicy - 684.0 * shape.candidates, shape.candidates);
  std::printf("tables after load:");
  for (auto const& [name, value] : sizes.items)
    std::printf(" %s=%llu", name, static_cast<unsigned long long>(value));
  std::printf("\n");
}

void printJson(Shape const& shape, std::vector<PhaseResult> const& phases, Sizes const& sizes,
               U64 loadGrowth, U64 peak) {
  std::ostringstream o;
  o << "{\"policies\":" << shape.policies << ",\"candidates\":" << shape.candidates
    << ",\"lists\":" << shape.lists << ",\"depth\":" << shape.depth
    << ",\"labels\":" << shape.labels << ",\"topLabels\":" << shape.topLabelCount()
    << ",\"seed\":" << shape.seed << ",\"phases\":{";
  bool first = true;
  for (PhaseResult const& r : phases) {
    o << (first ? "" : ",") << "\"" << r.name << "\":{\"wallSeconds\":" << fixed(r.time.wall, 6)
      << ",\"cpuSeconds\":" << fixed(r.time.cpu, 6) << ",\"units\":" << r.units << ",\"unit\":\""
      << r.unitName << "\",\"usPerUnit\":" << fixed(r.usPerUnit(), 4)
      << ",\"userSeconds\":" << fixed(r.time.user, 6)
      << ",\"systemSeconds\":" << fixed(r.time.system, 6)
      << ",\"userUsPerUnit\":" << fixed(r.userUsPerUnit(), 4)
      << ",\"systemUsPerUnit\":" << fixed(r.systemUsPerUnit(), 4)
      << ",\"minorFaults\":" << r.time.minorFaults
      << ",\"minorFaultsPerUnit\":" << fixed(r.faultsPerUnit(), 4);
    if (allocationsCounted()) {
      o << ",\"allocations\":" << r.time.allocations
        << ",\"allocationsPerUnit\":" << fixed(r.allocationsPerUnit(), 4);
    }
    o << ",\"checkSeconds\":" << fixed(r.checkSeconds, 6)
      << ",\"ok\":" << (r.failures.empty() ? "true" : "false") << "}";
    first = false;
  }
  double perPolicy = static_cast<double>(loadGrowth) / shape.policies;
  o << "},\"peakResidentBytes\":" << peak << ",\"loadResidentBytes\":" << loadGrowth
    << ",\"bytesPerPolicy\":" << fixed(perPolicy, 1)
    << ",\"bytesPerPolicyBeyondInput\":" << fixed(perPolicy - 684.0 * shape.candidates, 1)
    << ",\"tables\":{";
  first = true;
  for (auto const& [name, value] : sizes.items) {
    o << (first ? "" : ",") << "\"" << name << "\":" << value;
    first = false;
  }
  o << "}}";
  std::printf("%s\n", o.str().c_str());
}

char const kUsage[] =
    "usage: srte-scale [options]\n"
    "Builds a seeded SR-TE workload through the host and times the pipeline in phases, each\n"
    "checked against what its input implies. Exits 1 when a check fails.\n"
    "  --policies P    policies (endpoint and color)            default 10000\n"
    "  --candidates C  candidate paths per policy               default 2\n"
    "  --lists L       weighted segment lists per candidate     default 2\n"
    "  --depth D       labels per segment list (1-6)            default 3\n"
    "  --labels U      labels in the pool                       default 2000\n"
    "  --top T         top labels (routed, first of the pool)   default U/10\n"
    "  --seed S        seed of the generator                    default 1\n"
    "  --phases LIST   comma-separated, of load,churn,flap,teardown (load always runs)\n"
    "                                                           default all four\n"
    "  --sample N      random policies compared in full per check  default 64\n"
    "  --json          also print one JSON line\n"
    "  --help          this text\n";

bool parseNumber(char const* text, U64& out) {
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0') return false;
  out = v;
  return true;
}

}  // namespace

int run(int argc, char** argv) {
  Shape shape;
  std::vector<std::string> phases = {"load", "churn", "flap", "teardown"};
  bool json = false;
  U64 sample = 64;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--json") {
      json = true;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "srte-scale: %s needs a value\n%s", arg.c_str(), kUsage);
      return 2;
    }
    char const* value = argv[++i];
    if (arg == "--phases") {
      phases.clear();
      std::stringstream list(value);
      for (std::string p; std::getline(list, p, ',');) {
        if (p != "load" && p != "churn" && p != "flap" && p != "teardown") {
          std::fprintf(stderr, "srte-scale: unknown phase '%s'\n", p.c_str());
          return 2;
        }
        phases.push_back(p);
      }
      continue;
    }
    U64 n = 0;
    if (!parseNumber(value, n)) {
      std::fprintf(stderr, "srte-scale: %s takes a number, not '%s'\n", arg.c_str(), value);
      return 2;
    }
    U32 const n32 = static_cast<U32>(std::min<U64>(n, 0xffffffffu));
    if (arg == "--policies") {
      shape.policies = n32;
    } else if (arg == "--candidates") {
      shape.candidates = n32;
    } else if (arg == "--lists") {
      shape.lists = n32;
    } else if (arg == "--depth") {
      shape.depth = n32;
    } else if (arg == "--labels") {
      shape.labels = n32;
    } else if (arg == "--top") {
      shape.topLabels = n32;
    } else if (arg == "--seed") {
      shape.seed = n;
    } else if (arg == "--sample") {
      sample = n;
    } else {
      std::fprintf(stderr, "srte-scale: unknown option '%s'\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  if (std::string problem = shape.problem(); !problem.empty()) {
    std::fprintf(stderr, "srte-scale: %s\n", problem.c_str());
    return 2;
  }
  auto wants = [&](char const* name) {
    return std::find(phases.begin(), phases.end(), name) != phases.end();
  };

  Run scale(shape, static_cast<U32>(std::min<U64>(sample, 100000)));
  std::vector<PhaseResult> results;
  results.push_back(scale.load());
  Sizes const loadedSizes = scale.sizes();
  bool ok = results.back().failures.empty();
  for (char const* name : {"churn", "flap", "teardown"}) {
    if (!ok || !wants(name)) continue;
    std::string n = name;
    results.push_back(n == "churn" ? scale.churn() : n == "flap" ? scale.flap() : scale.teardown());
    ok = results.back().failures.empty();
  }
  U64 const peak = peakResidentBytes();
  printTable(shape, results, loadedSizes, scale.loadGrowth(), peak);
  if (json) printJson(shape, results, loadedSizes, scale.loadGrowth(), peak);
  return ok ? 0 : 1;
}

}  // namespace SrTeScale

int main(int argc, char** argv) {
  return SrTeScale::run(argc, argv);
}
