// Following one source's table: attach, poll, detach, look again.
#include "SourceWatcher.h"

#include <unistd.h>

#include "SrTePolicy/SrTePolicySource.h"

namespace SrTeDaemon {

namespace {

// How long a table may stay too short for its header before it is reported.
constexpr double unreadyGrace = 1.0;

}  // namespace

SourceWatcher::SourceWatcher(SrTePolicy::SrTePolicyAgent& agent, EventLog& log, SourceOption given)
    : agent_(agent),
      log_(log),
      option_(std::move(given)),
      trust_{option_.user.value_or(::geteuid())} {}

OrderedJson SourceWatcher::fields() const {
  OrderedJson f;
  f["source"] = SrTePolicy::sourceName(option_.source);
  f["table"] = option_.table;
  return f;
}

bool SourceWatcher::poll(U32 maxKeys) {
  if (!reader_) {
    tryAttach();
    if (!reader_) return false;
  }
  // Looked at before any page: a file cut short marks the reader corrupt here.
  Skerry::ShmFileCheck const file = reader_->checkFile();
  if (file.removed) {
    detach("source-detached", "the table was removed");
    // A table made anew under the name is attached on the next poll.
    return true;
  }
  if (!file.untrusted.empty()) {
    detach("source-refused", file.untrusted);
    return false;
  }
  Skerry::ShmPollResult result;
  if (!reader_->corrupt() && reader_->pending()) {
    try {
      result = reader_->poll(maxKeys);
      taken_ += result.changed;
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
    reader = SrTePolicy::policyInputShmReaderFactory(option_.table, trust_);
    if (reader->corrupt()) refusal = reader->corruption();
  } catch (Skerry::ShmTableException const& e) {
    using Kind = Skerry::ShmTableException::Kind;
    // A table not there yet is what waiting is for; say nothing.
    if (e.kind() == Kind::missing) {
      unreadySince_ = -1;
      return;
    }
    if (e.kind() == Kind::unready) {
      // A writer making the table leaves it so for a moment; one that stays so is reported.
      double const now = agent_.clock()->now();
      if (unreadySince_ < 0) unreadySince_ = now;
      if (now - unreadySince_ < unreadyGrace) return;
    }
    refusal = e.what();
  }
  if (!refusal.empty()) {
    refuse(refusal);
    return;
  }
  unreadySince_ = -1;
  lastRefusal_.clear();
  reader_ = reader;
  OrderedJson f = fields();
  f["candidates"] = reader_->policyInput()->policyInputEntryCount();
  taken_ += reader_->policyInput()->policyInputEntryCount();
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

void SourceWatcher::release() {
  if (!reader_) return;
  try {
    agent_.sourceTableDel(option_.source);
  } catch (Mosk::Exception const& e) {
    OrderedJson err = fields();
    err["error"] = e.what();
    log_.write("error", err);
  }
  reader_ = nullptr;
}

void SourceWatcher::refuse(std::string const& reason) {
  if (reason == lastRefusal_) return;
  OrderedJson f = fields();
  f["reason"] = reason;
  log_.write("source-refused", f);
  lastRefusal_ = reason;
}

void SourceWatcher::detach(std::string const& event, std::string reason) {
  OrderedJson f = fields();
  f["reason"] = reason;
  log_.write(event, f);
  release();
  // The attempts to attach again meet the same fault: said once, by this line.
  if (event != "source-detached") lastRefusal_ = reason;
}

}  // namespace SrTeDaemon
