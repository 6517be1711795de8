// The agent's side of a source's input table in shared memory: an ordinary PolicyInput mounted
// on a shared-memory reader, and the poll that turns the table's change feed into notifications.
#include "SrTePolicy/SrTePolicyInputShm.h"

#include <set>

namespace SrTePolicy {

PolicyInputShmReader::PolicyInputShmReader(std::string const& tableName,
                                           Skerry::ShmReaderOptions const& options)
    : name_(tableName),
      options_(options),
      input_(policyInputFactory(tableName)),
      table_(new PolicyInputShmTable(tableName, options)) {
  table_->listenerIs(this);
  input_->policyInputEntryMountIs(table_);
  input_->policyIdxIs(table_->counter());
  if (table_->corrupt()) input_->policyInputEntryCorruptIs(true);
}

PolicyInputShmReader::~PolicyInputShmReader() {
  // The entity may outlive this reader (the agent holds it); the mount then reads on, unheard.
  table_->listenerIs(nullptr);
}

Skerry::ShmPollResult PolicyInputShmReader::poll(U32 maxKeys) {
  Skerry::ShmPollResult result =
      table_->poll([this](PolicyId const& id) { input_->policyInputEntryNotify(id); }, maxKeys);
  input_->policyIdxIs(table_->counter());
  return result;
}

void PolicyInputShmReader::reattach() {
  Mosk::Ptr<PolicyInputShmTable> fresh(new PolicyInputShmTable(name_, options_));
  std::set<PolicyId> ids;
  table_->forEachKnown([&ids](PolicyId const& id) { ids.insert(id); });
  fresh->forEachKnown([&ids](PolicyId const& id) { ids.insert(id); });
  table_->listenerIs(nullptr);
  table_ = fresh;
  table_->listenerIs(this);
  input_->policyInputEntryMountIs(table_);
  input_->policyInputEntryCorruptIs(table_->corrupt());
  input_->policyIdxIs(table_->counter());
  for (PolicyId const& id : ids)
    input_->policyInputEntryNotify(id);
}

void PolicyInputShmReader::onShmTableCorrupt(std::string const&) {
  input_->policyInputEntryCorruptIs(true);
}

Mosk::Ptr<PolicyInputShmReader> policyInputShmReaderFactory(
    std::string const& tableName, Skerry::ShmReaderOptions const& options) {
  return Mosk::Ptr<PolicyInputShmReader>(new PolicyInputShmReader(tableName, options));
}

}  // namespace SrTePolicy
