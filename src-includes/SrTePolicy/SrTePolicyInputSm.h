// Hears: PolicyInputSource (tables come and go) and every PolicyInput (entries), nested.
// Writes: PolicySelectionInput, PolicyKeyToIdMap, the dedup tables and both reverse maps.
//
// The policy input state machine: the first stage of the pipeline.
//
// PolicyInputSm watches the input tables of every source (PolicyInputSource) and keeps, for each
// candidate path a source offers, one PolicyIdEntry in the PolicySelectionInput under the
// candidate's policy id. Each label stack of a candidate becomes a shared segment list of
// shared segments through the dedup tables of CoreDedupTables; the machine keeps the reverse
// maps (which candidates use a list, which lists hold a segment) and the policy key map (the
// candidate ids of each endpoint and color) in step. Later stages read only what it writes.
//
// The machine reacts to per-key notifications of the input tables at once; a source that
// appears, is replaced or goes away causes a full pass over every table. It has no task.
#pragma once

#include "SrTePolicy/SrTePolicyStateMachine.h"

#include <boost/container/flat_set.hpp>

#include "Mosk/HashMap.h"
#include "SrTePolicy/SrTePolicyDedupTables.h"
#include "SrTePolicy/SrTePolicyEntry.h"

namespace SrTePolicy {

class PolicyInputSm : public StateMachine {
 public:
  // Watches the PolicyInputSource and forwards its notifications.
  class MoskInput : public PolicyInputSource::NotifieeConst {
   public:
    explicit MoskInput(PolicyInputSm* sm) : sm_(sm) {}
    void onPolicyInput(PolicySource const& source) override;
    void onPolicyInput() override;
    // An inactive reactor runs no full pass, but still keeps the policy reactors in line with
    // the sources, so that they are right when it is made active again. (This switch hides the
    // runtime's own, which would silence the reactor altogether.)
    bool hasNotificationActive() const { return active_; }
    void hasNotificationActiveIs(bool active) { active_ = active; }

   private:
    friend class PolicyInputSm;
    PolicyInputSm* sm_;
    bool active_ = true;
  };

  // Watches one source's PolicyInput. The source it was attached for never overrides the
  // source bits of the policy ids it hears about.
  class MoskPolicy : public PolicyInput::NotifieeConst {
   public:
    MoskPolicy(PolicyInputSm* sm, PolicySource source) : sm_(sm), source_(source) {}
    PolicySource source() const { return source_; }
    void onPolicyInputEntry(PolicyId const& policyId) override;
    // Collection-wide changes of a table are ignored: its writer notifies every key it changes.
    void onPolicyInputEntry() override {}
    // An inactive reactor ignores the table's notifications.
    bool hasNotificationActive() const { return active_; }
    void hasNotificationActiveIs(bool active) { active_ = active; }

   private:
    friend class PolicyInputSm;
    PolicyInputSm* sm_;
    PolicySource const source_;
    bool active_ = true;
  };

  // Attaches the reactors and runs a full pass: the outputs match the input on return.
  PolicyInputSm(Mosk::Ptr<PolicyInputSource const> input,
                Mosk::Ptr<PolicySelectionInput> policySelectionInput,
                Mosk::Ptr<CoreDedupTables> coreDedupTables,
                Mosk::Ptr<SegmentListIdToPolicyMap> segmentListIdToPolicyMap,
                Mosk::Ptr<SegmentIdToSegmentList> segmentIdToSegmentList,
                Mosk::Ptr<PolicyKeyToIdMap> policyKeyToIdMap);
  ~PolicyInputSm() override;
  Mosk::Name name() const override { return "PolicyInputSm"; }

  Mosk::Ptr<PolicyInputSource const> const& input() const { return input_; }
  Mosk::Ptr<PolicySelectionInput> const& policySelectionInput() const {
    return policySelectionInput_;
  }
  Mosk::Ptr<CoreDedupTables> const& coreDedupTables() const { return coreDedupTables_; }
  Mosk::Ptr<SegmentListIdToPolicyMap> const& segmentListIdToPolicyMap() const {
    return segmentListIdToPolicyMap_;
  }
  Mosk::Ptr<SegmentIdToSegmentList> const& segmentIdToSegmentList() const {
    return segmentIdToSegmentList_;
  }
  Mosk::Ptr<PolicyKeyToIdMap> const& policyKeyToIdMap() const { return policyKeyToIdMap_; }
  bool initialized() const { return initialized_; }

  // Sets `initialized` and runs the full pass.
  void handleInitialized();
  // Full resynchronisation: handles every key of every source's table (a table found corrupt
  // ends its own walk), then every candidate the selection input holds, which removes those
  // whose input record is gone. A record refused with a runtime error is skipped (traced at
  // level 4, its candidate left as it was); the pass itself does not raise.
  void handleSource();
  // Brings the candidate of `policyId` in line with the record that the source named by the
  // id's top two bits holds: creates or updates it, or removes it when there is no record. A
  // key (or source) change under an existing id raises the name-in-use error and changes
  // nothing. Ignored before the machine is initialized.
  void handlePolicyEntry(PolicyId const& policyId);
  // Clears the selection input when the machine goes away; leaves the reverse maps and the key
  // map as they are.
  void handleDel();

  // The shared segment list of `labelStack`, built from shared segments: identical stacks
  // yield the same list and the same id.
  Mosk::Ptr<SegmentList> createDedupSegmentList(Ludd::MplsLabelOperation const& labelStack);
  // Records `policyId` as a user of the list; a list's first user registers its segments.
  void registerSegmentListForPolicy(Mosk::Ptr<SegmentList const> const& segList,
                                    PolicyId const& policyId);
  // Drops `policyId` as a user of the list; its last user deregisters its segments and lets
  // the list go. Unknown lists and ids are ignored.
  void deregisterSegmentListForPolicy(SegmentListId const& segmentListId, PolicyId const& policyId);
  void registerSegmentIdForSegmentList(SegmentId const& segmentId,
                                       Mosk::Ptr<SegmentList const> const& segList);
  // The segment's collection goes with its last list.
  void deregisterSegmentIdForSegmentList(SegmentId const& segmentId,
                                         Mosk::Ptr<SegmentList const> const& segList);
  void addInPolicyKeyToIdMap(PolicyKey const& key, PolicyId const& policyId);
  // The key's entry goes with its last id.
  void deleteFromPolicyKeyToIdMap(PolicyKey const& key, PolicyId const& policyId);

  // The input reactor. inputIs re-points it (null detaches it) together with the input the
  // machine reads, brings the policy reactors in line with the new input's sources and, once
  // initialized, runs a full pass; re-pointing to the same input does nothing.
  Mosk::Ptr<MoskInput> const& inputReactor() const { return inputReactor_; }
  void inputIs(Mosk::Ptr<PolicyInputSource const> const& input);
  // As inputIs, with a fresh reactor even when the input is the same.
  void newInput(Mosk::Ptr<PolicyInputSource const> const& input);
  // Detaches and drops the input reactor; the machine keeps reading its input.
  void inputDel();

  // The policy reactors, one per source. policyIs creates the reactor of `source` or re-points
  // it to `policyInput` (null removes it); newPolicy always makes a fresh one.
  Mosk::Ptr<MoskPolicy> policy(PolicySource source) const;
  U32 policyCount() const { return policy_.size(); }
  void policyIs(PolicySource source, Mosk::Ptr<PolicyInput const> const& policyInput);
  void newPolicy(PolicySource source, Mosk::Ptr<PolicyInput const> const& policyInput);
  void policyDel(PolicySource source);
  void policyDelAll();

 private:
  // Ascending ids of the lists a candidate held before an update and no longer names.
  using StaleSet = boost::container::small_flat_set<SegmentListId, 16>;

  void removePolicyEntry(PolicyId const& policyId);
  // handlePolicyEntry within a full pass: a refusal is traced and skipped.
  void handlePolicyEntryInPass(PolicyId const& policyId);
  // Attaches a reactor to every source present and drops those of sources that are gone.
  void syncPolicyReactors();

  Mosk::Ptr<PolicyInputSource const> input_;
  Mosk::Ptr<PolicySelectionInput> const policySelectionInput_;
  Mosk::Ptr<CoreDedupTables> const coreDedupTables_;
  Mosk::Ptr<SegmentListIdToPolicyMap> const segmentListIdToPolicyMap_;
  Mosk::Ptr<SegmentIdToSegmentList> const segmentIdToSegmentList_;
  Mosk::Ptr<PolicyKeyToIdMap> const policyKeyToIdMap_;
  bool initialized_ = false;

  Mosk::Ptr<MoskInput> inputReactor_;
  Mosk::HashMap<PolicySource, Mosk::Ptr<MoskPolicy>> policy_;
};

inline Mosk::Ptr<PolicyInputSm> policyInputSmFactory(
    Mosk::Ptr<PolicyInputSource const> input, Mosk::Ptr<PolicySelectionInput> policySelectionInput,
    Mosk::Ptr<CoreDedupTables> coreDedupTables,
    Mosk::Ptr<SegmentListIdToPolicyMap> segmentListIdToPolicyMap,
    Mosk::Ptr<SegmentIdToSegmentList> segmentIdToSegmentList,
    Mosk::Ptr<PolicyKeyToIdMap> policyKeyToIdMap) {
  return Mosk::Ptr<PolicyInputSm>(
      new PolicyInputSm(std::move(input), std::move(policySelectionInput),
                        std::move(coreDedupTables), std::move(segmentListIdToPolicyMap),
                        std::move(segmentIdToSegmentList), std::move(policyKeyToIdMap)));
}

}  // namespace SrTePolicy
