// One source's table as the daemon follows it. While the table is missing the watcher looks for
// it every poll period; once it opens, it is attached to the host (the input state machine's
// full pass adds its candidate paths) and its change feed is delivered on every poll. A table
// that is removed from the system, or found damaged or cut short, is detached (the full pass
// removes exactly that source's candidate paths) and the watcher goes back to looking for it,
// so a source that restarts and makes its table anew is picked up again.
//
// Trust: a table is attached only when it belongs to root or to the source's trusted user and
// nobody but its owner may write it; otherwise it is refused ("source-refused", once per
// reason) and waited on. Every poll looks at the file once (removed, cut short, owner or mode
// changed) before a page of it is read.
//
// A table too short for its header, or whose header is not written yet, is what a writer
// leaves for a moment while it makes the table: it is waited on in silence for a second, then
// reported once.
//
// A source that dies in the middle of a write does not disturb the watcher: the table keeps the
// record as it was before that write, and the next writer repairs the slot.
#pragma once

#include <string>

#include "DaemonOptions.h"
#include "EventLog.h"
#include "SrTePolicy/SrTePolicyInputShm.h"
#include "SrTePolicyAgent.h"

namespace SrTeDaemon {

class SourceWatcher {
 public:
  SourceWatcher(SrTePolicy::SrTePolicyAgent& agent, EventLog& log, SourceOption given);
  SourceWatcher(SourceWatcher const&) = delete;
  SourceWatcher& operator=(SourceWatcher const&) = delete;

  // One poll period's work: attach a table that has appeared; deliver the changes of an
  // attached one (at most `maxKeys` per call); detach one that was removed or damaged. Returns
  // true when changes remain, so that the caller polls again soon. An error that the pipeline
  // raises for one candidate path is written as an "error" line and the rest goes on.
  bool poll(U32 maxKeys = 4096);

  bool attached() const { return static_cast<bool>(reader_); }
  // Candidate paths taken from the table so far (each attach's records and each change).
  U64 changesTaken() const { return taken_; }
  // Stops reading the source: its candidate paths leave the pipeline (the source is no longer
  // configured).
  void release();
  SourceOption const& option() const { return option_; }
  // The reader of the attached table; null while waiting.
  Mosk::Ptr<SrTePolicy::PolicyInputShmReader> const& reader() const { return reader_; }

 private:
  void tryAttach();
  // Writes a "source-refused" line unless the last one said the same.
  void refuse(std::string const& reason);
  // `reason` is a copy: it may come from the reader that detaching lets go.
  void detach(std::string const& event, std::string reason);
  OrderedJson fields() const;

  SrTePolicy::SrTePolicyAgent& agent_;
  EventLog& log_;
  SourceOption const option_;
  Skerry::ShmReaderOptions const trust_;
  Mosk::Ptr<SrTePolicy::PolicyInputShmReader> reader_;
  // Why the last attempt to attach failed, once written, so that it is written once.
  std::string lastRefusal_;
  // Since when (on the agent's clock) the table has been too short or without a header; < 0
  // while it has not.
  double unreadySince_ = -1;
  U64 taken_ = 0;
};

}  // namespace SrTeDaemon
