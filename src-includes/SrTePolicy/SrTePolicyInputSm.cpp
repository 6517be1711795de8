#include "SrTePolicy/SrTePolicyInputSm.h"

#include "Mosk/Reflection.h"

#include <algorithm>
#include <optional>

#include <boost/container/small_vector.hpp>

#include "Flicker/Flicker.h"
#include "SrTePolicy/SrTePolicyTrace.h"

namespace SrTePolicy {

namespace {

Flicker::TraceHandle inputSmTrace("SrTePolicyInputSm");
constexpr char kName[] = "PolicyInputSm";

// The source's record of `policyId`, copied out of its table; nothing when the source, its
// table or the record is missing. The source is the one the id's top two bits name.
std::optional<PolicyInputEntry> readInputEntry(PolicyInputSource const* input,
                                               PolicyId const& policyId) {
  if (input == nullptr) return std::nullopt;
  Mosk::Ptr<PolicyInput const> table = input->policyInput(policyId.source());
  if (!table) return std::nullopt;
  return table->policyInputEntry(policyId);
}

bool sameLabels(SegmentList const& list, Ludd::MplsLabelOperation const& stack) {
  if (list.size() != stack.size()) return false;
  for (U32 i = 0; i < list.size(); ++i) {
    if (!(list.segmentLabel(i) == stack.label(i))) return false;
  }
  return true;
}

// Whether `entry` already holds exactly the record's label stacks with the record's weights
// (a stack named twice with one weight counts once), each as the list of the same labels that
// the reverse map keeps for it. Deduplicating and registering the stacks again would then find
// every segment, list and registration in place and change nothing; it costs several lookups
// per label and per list, which a change of preference, router id or binding SID, and every
// untouched candidate of a full pass, can skip.
bool sameSegmentLists(PolicyIdEntry const& entry, PolicyInputEntry const& record,
                      SegmentListIdToPolicyMap const& users) {
  if (entry.wSegmentListCount() > record.segmentListCount()) return false;
  struct Held {
    SegmentList const* list;
    Weight weight;
    bool named;
  };
  boost::container::small_vector<Held, 4> held;
  for (auto c = entry.wSegmentListIter(); c; ++c) {
    Mosk::Ptr<SegmentListUser const> user = users.segmentListUser(c.key());
    if (!user || !user->segmentList()) return false;
    held.push_back(Held{user->segmentList().ptr(), c.value(), false});
  }
  for (WeightedSegList const* w = record.segmentListBegin(); w != record.segmentListEnd(); ++w) {
    auto match = std::find_if(held.begin(), held.end(),
                              [&](Held const& h) { return sameLabels(*h.list, w->segList()); });
    if (match == held.end() || !(match->weight == w->weight())) return false;
    match->named = true;
  }
  return std::all_of(held.begin(), held.end(), [](Held const& h) { return h.named; });
}

}  // namespace

// Reactors

void PolicyInputSm::MoskInput::onPolicyInput(PolicySource const& source) {
  if (active_) sm_->handleSource();
  Mosk::Ptr<PolicyInput const> policyInput =
      sm_->input_ ? sm_->input_->policyInput(source) : Mosk::Ptr<PolicyInput const>();
  if (policyInput) {
    sm_->policyIs(source, policyInput);
  } else {
    sm_->policyDel(source);
  }
}

void PolicyInputSm::MoskInput::onPolicyInput() {
  sm_->syncPolicyReactors();
}

void PolicyInputSm::MoskPolicy::onPolicyInputEntry(PolicyId const& policyId) {
  if (active_) sm_->handlePolicyEntry(policyId);
}

// Life cycle

PolicyInputSm::PolicyInputSm(Mosk::Ptr<PolicyInputSource const> input,
                             Mosk::Ptr<PolicySelectionInput> policySelectionInput,
                             Mosk::Ptr<CoreDedupTables> coreDedupTables,
                             Mosk::Ptr<SegmentListIdToPolicyMap> segmentListIdToPolicyMap,
                             Mosk::Ptr<SegmentIdToSegmentList> segmentIdToSegmentList,
                             Mosk::Ptr<PolicyKeyToIdMap> policyKeyToIdMap)
    : input_(std::move(input)),
      policySelectionInput_(
          required(std::move(policySelectionInput), kName, "policySelectionInput")),
      coreDedupTables_(required(std::move(coreDedupTables), kName, "coreDedupTables")),
      segmentListIdToPolicyMap_(
          required(std::move(segmentListIdToPolicyMap), kName, "segmentListIdToPolicyMap")),
      segmentIdToSegmentList_(
          required(std::move(segmentIdToSegmentList), kName, "segmentIdToSegmentList")),
      policyKeyToIdMap_(required(std::move(policyKeyToIdMap), kName, "policyKeyToIdMap")) {
  if (input_) {
    inputReactor_ = Mosk::Ptr<MoskInput>(new MoskInput(this));
    inputReactor_->notifierIs(input_);
    syncPolicyReactors();
  }
  handleInitialized();
}

PolicyInputSm::~PolicyInputSm() {
  if (!abandoned()) handleDel();
  // Detached explicitly: a reactor that someone else still holds must not call back.
  inputDel();
  policyDelAll();
}

void PolicyInputSm::handleInitialized() {
  initialized_ = true;
  handleSource();
}

void PolicyInputSm::handleDel() {
  if (!initialized_) return;
  policySelectionInput_->policyIdEntryDelAll();
  initialized_ = false;
}

// Full pass

void PolicyInputSm::handleSource() {
  if (!initialized_) return;
  SRTE_TRACE(inputSmTrace, TraceLevel::detail, "Source change: add new policies");
  if (input_) {
    for (auto source = input_->policyInputIter(); source; ++source) {
      // Held, so that the table outlives its walk whatever the handlers below do.
      Mosk::Ptr<PolicyInput const> table = source.value();
      // The cursor stops once the table service reports the table corrupt.
      for (auto key = table->policyInputEntryIter(); key; ++key)
        handlePolicyEntryInPass(key.key());
    }
  }
  SRTE_TRACE(inputSmTrace, TraceLevel::detail, "Source change: cleanup of stale policies");
  // The cursor holds the entry under it, and finds its place again after that entry is gone.
  for (auto entry = policySelectionInput_->policyIdEntryIter(); entry; ++entry) {
    U32 id = static_cast<U32>(entry->source()) << 30 | (entry->id() & PolicyId::indexMask);
    handlePolicyEntryInPass(PolicyId(id));
  }
}

// A record refused while walking a whole table (a malformed record, an id whose key changed)
// must not keep the other candidates out, nor keep the machine from starting: its candidate is
// left as it was, and the walk goes on. Outside a walk the error reaches the caller.
void PolicyInputSm::handlePolicyEntryInPass(PolicyId const& policyId) {
  try {
    handlePolicyEntry(policyId);
  } catch (Mosk::Exception const& e) {
    SRTE_TRACE(inputSmTrace, TraceLevel::skip,
               "Policy Entry: " << policyId << " refused: " << e.what());
  }
}

// One candidate

void PolicyInputSm::handlePolicyEntry(PolicyId const& policyId) {
  if (!initialized_) return;
  SRTE_TRACE(inputSmTrace, TraceLevel::event, "Policy Entry: " << policyId << " has changed");
  std::optional<PolicyInputEntry> const record = readInputEntry(input_.ptr(), policyId);
  if (!record) {
    removePolicyEntry(policyId);
    return;
  }
  SRTE_TRACE2(inputSmTrace, TraceLevel::event,
              "Policy Id: " << policyId << " Endpoint: " << record->endpoint()
                            << " Color: " << record->color()
                            << " Preference: " << record->preference() << " will be added/updated",
              "Policy Id: " << policyId << " Endpoint: " << endpointWord(record->endpoint(), 0)
                            << ":" << endpointWord(record->endpoint(), 1)
                            << " Color: " << record->color()
                            << " Preference: " << record->preference() << " will be added/updated");

  PolicyKey const key(record->endpoint(), record->color());
  // Raises, before anything is written, when the id already stands for another key or source.
  Mosk::Ptr<PolicyIdEntry> entry = policySelectionInput_->policyIdEntryIs(
      policyId.value(), key, record->preference(), policyId.source(), record->routerId());
  addInPolicyKeyToIdMap(key, policyId);
  entry->bindingSidIs(record->bindingSid());
  // Detailed tracing reports every dedup and registration step, so it takes the long way.
  if (!inputSmTrace.active(9) && sameSegmentLists(*entry, *record, *segmentListIdToPolicyMap_))
    return;

  StaleSet stale;
  for (auto c = entry->wSegmentListIter(); c; ++c)
    stale.insert(c.key());
  for (WeightedSegList const* w = record->segmentListBegin(); w != record->segmentListEnd(); ++w) {
    Mosk::Ptr<SegmentList> segList = createDedupSegmentList(w->segList());
    registerSegmentListForPolicy(segList, policyId);
    // A stack named twice in one candidate is one list, with the later weight.
    entry->wSegmentListIs(segList->segmentListId(), w->weight());
    stale.erase(segList->segmentListId());
  }
  for (SegmentListId const& id : stale) {
    entry->wSegmentListDel(id);
    deregisterSegmentListForPolicy(id, policyId);
  }
}

void PolicyInputSm::removePolicyEntry(PolicyId const& policyId) {
  SRTE_TRACE(inputSmTrace, TraceLevel::event, "Policy Id " << policyId << " will be removed");
  Mosk::Ptr<PolicyIdEntry> entry = policySelectionInput_->policyIdEntry(policyId.value());
  if (!entry) return;
  for (auto c = entry->wSegmentListIter(); c; ++c)
    deregisterSegmentListForPolicy(c.key(), policyId);
  PolicyKey const key = entry->key();
  policySelectionInput_->policyIdEntryDel(policyId.value());
  deleteFromPolicyKeyToIdMap(key, policyId);
}

// Segment lists and the reverse maps

Mosk::Ptr<SegmentList> PolicyInputSm::createDedupSegmentList(
    Ludd::MplsLabelOperation const& labelStack) {
  SRTE_TRACE2(inputSmTrace, TraceLevel::detail,
              "Creating dedup segmentList for label stack: " << labelStack,
              "Creating dedup segmentList for label stack: "
                  << labelStack.label(0U) << " " << labelStack.label(1U) << " "
                  << labelStack.label(2U) << " " << labelStack.label(3U) << " "
                  << labelStack.label(4U) << " " << labelStack.label(5U));
  SegmentDedupTable const& segments = *coreDedupTables_->segDedupTablePtr();
  // The list is first put together on the stack: most stacks are known already, and then
  // nothing is allocated. A new stack is copied into a counted list and inserted.
  SegmentList candidate;
  U8 const size = labelStack.size();
  for (U32 i = 0; i < size; ++i) {
    Ludd::MplsStackEntryIndex const position(i);
    Ludd::MplsLabel const label = labelStack.label(position);
    Mosk::Ptr<SegmentBase const> segment = segments.lookupByLabel(label);
    if (!segment)
      segment = segmentMplsLabelFactory(SegmentType::segMplsLabel, label)->dedup(segments);
    candidate.segmentIs(position, segment);
  }
  candidate.sizeIs(size);
  SegmentListDedupTable const& lists = *coreDedupTables_->segListDedupTablePtr();
  if (Mosk::Ptr<Vell::DedupHandle> known = lists.dedupTable()->lookup(candidate)) {
    return Mosk::ptrCast<SegmentList>(known);
  }
  return Mosk::Ptr<SegmentList>(new SegmentList(candidate))->dedup(lists);
}

void PolicyInputSm::registerSegmentListForPolicy(Mosk::Ptr<SegmentList const> const& segList,
                                                 PolicyId const& policyId) {
  SRTE_TRACE(inputSmTrace, TraceLevel::detail,
             "Registration of SegmentList Id: " << segList->segmentListId()
                                                << " for Policy Id: " << policyId);
  Mosk::Ptr<SegmentListUser> user =
      segmentListIdToPolicyMap_->segmentListUserIs(segList->segmentListId(), segList);
  if (user->policyIdCount() == 0) {
    for (U32 i = 0; i < segList->size(); ++i)
      registerSegmentIdForSegmentList(segList->getSegmentId(i), segList);
  }
  user->policyIdIs(policyId, true);
}

void PolicyInputSm::deregisterSegmentListForPolicy(SegmentListId const& segmentListId,
                                                   PolicyId const& policyId) {
  SRTE_TRACE(inputSmTrace, TraceLevel::detail,
             "Removing registration of SegmentList Id: " << segmentListId
                                                         << " for Policy Id: " << policyId);
  Mosk::Ptr<SegmentListUser> user = segmentListIdToPolicyMap_->segmentListUser(segmentListId);
  if (!user) return;
  user->policyIdDel(policyId);
  if (user->policyIdCount() > 0) return;
  // Held until the segments are deregistered; the list leaves its dedup table when it goes.
  Mosk::Ptr<SegmentList const> segList = user->segmentList();
  segmentListIdToPolicyMap_->segmentListUserDel(segmentListId);
  for (U32 i = 0; i < segList->size(); ++i)
    deregisterSegmentIdForSegmentList(segList->getSegmentId(i), segList);
}

void PolicyInputSm::registerSegmentIdForSegmentList(SegmentId const& segmentId,
                                                    Mosk::Ptr<SegmentList const> const& segList) {
  SRTE_TRACE(inputSmTrace, TraceLevel::detail,
             "Registering Segment Id: " << segmentId
                                        << " for segmentList Id: " << segList->segmentListId());
  Mosk::Ptr<SegmentListCollection> segListCol = segmentIdToSegmentList_->segmentList(segmentId);
  if (!segListCol) {
    segListCol = segmentListCollectionFactory();
    segmentIdToSegmentList_->segmentListIs(segmentId, segListCol);
  }
  MOSK_ASSERT(segListCol);
  segListCol->segmentListPtrIs(segList, true);
}

void PolicyInputSm::deregisterSegmentIdForSegmentList(SegmentId const& segmentId,
                                                      Mosk::Ptr<SegmentList const> const& segList) {
  SRTE_TRACE2(inputSmTrace, TraceLevel::detail,
              "Removing registration of Segment Id: " << segmentId << " from segmentList Id: "
                                                      << segList->segmentListId(),
              "Removing registering Segment Id: " << segmentId << " from segmentList Id: "
                                                  << segList->segmentListId());
  Mosk::Ptr<SegmentListCollection> segListCol = segmentIdToSegmentList_->segmentList(segmentId);
  // Absent when a list names one segment twice and the first position took it out already.
  if (!segListCol) return;
  segListCol->segmentListPtrDel(segList);
  if (segListCol->segmentListPtrCount() == 0) segmentIdToSegmentList_->segmentListDel(segmentId);
}

// The policy key map

void PolicyInputSm::addInPolicyKeyToIdMap(PolicyKey const& key, PolicyId const& policyId) {
  policyKeyToIdMap_->mapEntryIs(key)->policyIdIs(policyId, true);
}

void PolicyInputSm::deleteFromPolicyKeyToIdMap(PolicyKey const& key, PolicyId const& policyId) {
  Mosk::Ptr<PolicyKeyToIdMapEntry> mapEntry = policyKeyToIdMap_->mapEntry(key);
  if (!mapEntry) return;
  mapEntry->policyIdDel(policyId);
  if (mapEntry->policyIdCount() == 0) policyKeyToIdMap_->mapEntryDel(key);
}

// Reactor management

void PolicyInputSm::inputIs(Mosk::Ptr<PolicyInputSource const> const& input) {
  bool const changed = input != input_;
  input_ = input;
  if (!input_) {
    inputDel();
  } else {
    if (!inputReactor_) inputReactor_ = Mosk::Ptr<MoskInput>(new MoskInput(this));
    inputReactor_->notifierIs(input_);
  }
  if (!changed) return;
  handleSource();
  syncPolicyReactors();
}

void PolicyInputSm::newInput(Mosk::Ptr<PolicyInputSource const> const& input) {
  inputDel();
  inputIs(input);
}

void PolicyInputSm::inputDel() {
  if (!inputReactor_) return;
  inputReactor_->notifierIs(nullptr);
  inputReactor_ = nullptr;
}

Mosk::Ptr<PolicyInputSm::MoskPolicy> PolicyInputSm::policy(PolicySource source) const {
  Mosk::Ptr<MoskPolicy> const* reactor = policy_.find(source);
  return reactor ? *reactor : Mosk::Ptr<MoskPolicy>();
}

void PolicyInputSm::policyIs(PolicySource source, Mosk::Ptr<PolicyInput const> const& policyInput) {
  if (!policyInput) {
    policyDel(source);
    return;
  }
  if (Mosk::Ptr<MoskPolicy> const* reactor = policy_.find(source)) {
    (*reactor)->notifierIs(policyInput);
    return;
  }
  newPolicy(source, policyInput);
}

void PolicyInputSm::newPolicy(PolicySource source,
                              Mosk::Ptr<PolicyInput const> const& policyInput) {
  if (!policyInput) Mosk::throwNullValidPtr();
  policyDel(source);
  Mosk::Ptr<MoskPolicy> reactor(new MoskPolicy(this, source));
  reactor->notifierIs(policyInput);
  policy_.set(source, reactor);
}

void PolicyInputSm::policyDel(PolicySource source) {
  Mosk::Ptr<MoskPolicy> const* reactor = policy_.find(source);
  if (reactor == nullptr) return;
  (*reactor)->notifierIs(nullptr);
  policy_.erase(source);
}

void PolicyInputSm::policyDelAll() {
  for (auto c = policy_.cursor(); c; ++c)
    policyDel(c.key());
}

void PolicyInputSm::syncPolicyReactors() {
  if (input_) {
    for (auto c = input_->policyInputIter(); c; ++c)
      policyIs(c.key(), c.value());
  }
  for (auto c = policy_.cursor(); c; ++c) {
    if (!input_ || !input_->policyInput(c.key())) policyDel(c.key());
  }
}

// The handlers that tools may call by name (Mosk/Reflection.h).
namespace {
Mosk::MachineRecord<PolicyInputSm> const machineRecord(
    "SrTePolicy::PolicyInputSm", {
                                     {"handleInitialized", &PolicyInputSm::handleInitialized},
                                     {"handleSource", &PolicyInputSm::handleSource},
                                     {"handleDel", &PolicyInputSm::handleDel},
                                 });
}  // namespace

}  // namespace SrTePolicy
