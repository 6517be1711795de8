// Following one source's table: attach, poll, detach, look again.
#include "SourceWatcher.h"

#include "Scenario.h"

namespace SrTeDaemon {

SourceWatcher::SourceWatcher(SrTePolicy::SrTePolicyAgent& agent, EventLog& log, SourceOption given)
    : agent_(agent), log_(log), option_(std::move(given)) {}

OrderedJson SourceWatcher::fields() const {
  OrderedJson f;
  f["source"] = SrTeScenario::sourceName(option_.source);
  f["table"] = option_.table;
  return f;
}

bool SourceWatcher::poll(U32 maxKeys) {
  if (!reader_) {
    tryAttach();
    if (!reader_) return false;
  }
  if (reader_->removed()) {
    detach("source-detached", "the table was removed");
    // A table made anew under the name is attached on the next poll.
    return true;
  }
  Skerry::ShmPollResult result;
  if (reader_->pending()) {
    try {
      result = reader_->poll(maxKeys);
    } catch (Mosk::Exception const& e) {
      // The key that raised has been delivered; the others wait for the next poll.
      OrderedJson f = fields();
      f["error"] = e.what();
      log_.write("error", f);
      result.more = reader_->pending();
    }
  }
  if (reader_->corrupt()) {
    detach("source-corrupt", reader_->corruption());
    return false;
  }
  return result.more;
}

void SourceWatcher::tryAttach() {
  Mosk::Ptr<SrTePolicy::PolicyInputShmReader> reader;
  std::string refusal;
  try {
    reader = SrTePolicy::policyInputShmReaderFactory(option_.table);
    if (reader->corrupt()) refusal = reader->corruption();
  } catch (Skerry::ShmTableException const& e) {
    // A table not there yet, or still being made, is what waiting is for; say nothing.
    if (!Skerry::shmTableExists(option_.table)) return;
    refusal = e.what();
    if (refusal.find("not initialised yet") != std::string::npos) return;
  }
  if (!refusal.empty()) {
    if (refusal != lastRefusal_) {
      OrderedJson f = fields();
      f["reason"] = refusal;
      log_.write("source-refused", f);
      lastRefusal_ = refusal;
    }
    return;
  }
  lastRefusal_.clear();
  reader_ = reader;
  OrderedJson f = fields();
  f["candidates"] = reader_->policyInput()->policyInputEntryCount();
  log_.write("source-attached", f);
  try {
    agent_.sourceTableIs(option_.source, reader_->policyInput());
  } catch (Mosk::Exception const& e) {
    // The full pass stopped at a candidate path the pipeline refused; the table stays attached
    // and the rest arrives with the table's later changes.
    OrderedJson err = fields();
    err["error"] = e.what();
    log_.write("error", err);
  }
}

void SourceWatcher::detach(std::string const& event, std::string reason) {
  OrderedJson f = fields();
  f["reason"] = reason;
  log_.write(event, f);
  try {
    agent_.sourceTableDel(option_.source);
  } catch (Mosk::Exception const& e) {
    OrderedJson err = fields();
    err["error"] = e.what();
    log_.write("error", err);
  }
  reader_ = nullptr;
  if (event == "source-corrupt") lastRefusal_ = reason;
}

}  // namespace SrTeDaemon
