// A source's input table in shared memory, seen from both sides.
//
// The source process writes its candidate paths with PolicyInputShmWriter. In the agent's
// process a PolicyInputShmReader attaches to the table read-only and presents it as an ordinary
// PolicyInput: the entity's table is mounted on the shared-memory reader (lookups and walks read
// the segment), its policyIdx follows the writer's counter, and poll() turns the table's change
// feed into the onPolicyInputEntry(PolicyId) notifications that the input state machine already
// hears from an in-process table. Damage found in the segment sets the entity's corrupt flag
// (policyInputEntryCorruptIs), so a full pass stops walking that table and goes on with the
// other sources. Hand policyInput() to the agent (SrTePolicyAgent::sourceTableIs) and keep the
// reader while the table is attached: it is what an event loop polls.
//
// Both sides place a record by the PolicyId hash (PolicyId::hash, through the table's default
// key hash); the segment carries a check value of it, so a reader built with another hash is
// refused on attach.
#pragma once

#include <string>

#include "Skerry/ShmTable.h"
#include "SrTePolicy/SrTePolicyTypes.h"

namespace SrTePolicy {

using PolicyInputShmWriter = Skerry::ShmTableWriter<PolicyId, PolicyInputEntry>;
using PolicyInputShmTable = Skerry::ShmTableReader<PolicyId, PolicyInputEntry>;

class PolicyInputShmReader : public Mosk::PtrInterface, private Skerry::ShmTableListener {
 public:
  // Attaches to table `tableName` (see ShmTableReader for what raises, and for what `options`
  // require of the table's file) and mounts it on a new PolicyInput of the same name.
  explicit PolicyInputShmReader(std::string const& tableName,
                                Skerry::ShmReaderOptions const& options = {});
  ~PolicyInputShmReader() override;

  std::string const& tableName() const { return name_; }
  // The table as the agent attaches it.
  Mosk::Ptr<PolicyInput> const& policyInput() const { return input_; }

  // True when poll() has changes to deliver; one load of the segment, fit for a short timer.
  bool pending() const { return table_->pending(); }
  // Delivers the changes since the last poll as onPolicyInputEntry(id) notifications (at most
  // `maxKeys` of them; see ShmTableReader::poll) and brings policyIdx up to date. A handler's
  // error reaches the caller; the changes not yet delivered stay for the next poll.
  Skerry::ShmPollResult poll(U32 maxKeys = 4096);

  bool corrupt() const { return table_->corrupt(); }
  // True once the table has been removed from the system: its source has gone away, and a table
  // made anew under the name needs a new reader.
  bool removed() const { return table_->removed(); }
  // One look at the table's file (see ShmTableReader::checkFile): removed, no longer trusted, or
  // cut short, which marks the table corrupt.
  Skerry::ShmFileCheck checkFile() { return table_->checkFile(); }
  // Why the table was found damaged.
  std::string const& corruption() const { return table_->corruption(); }
  // Attaches to the table afresh (after damage, or after the table was made anew), clears the
  // corrupt flag and notifies every id known before or found now, so the state machines read
  // each again. Raises as the constructor does, and then keeps the old attachment.
  void reattach();

 private:
  void onShmTableCorrupt(std::string const& reason) override;

  std::string const name_;
  Skerry::ShmReaderOptions const options_;
  Mosk::Ptr<PolicyInput> input_;
  Mosk::Ptr<PolicyInputShmTable> table_;
};

Mosk::Ptr<PolicyInputShmReader> policyInputShmReaderFactory(
    std::string const& tableName, Skerry::ShmReaderOptions const& options = {});

}  // namespace SrTePolicy
