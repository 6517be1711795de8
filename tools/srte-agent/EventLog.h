// The daemon's output: one JSON object per line, each with the time on the agent's clock
// ("t", seconds) and what happened ("event"), then the event's own fields in a fixed order.
// Every line is flushed as it is written, so a reader at the other end of a pipe sees it at
// once. docs/agent.md lists the events.
//
// Text that is not valid UTF-8 (a file name, say) is written with U+FFFD in place of the bad
// bytes: a line is always valid JSON. When the output fails (its reader went away, the disk is
// full), the log says so once through its failure callback and writes nothing more.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>

#include "Vell/Clock.h"

namespace SrTeDaemon {

using OrderedJson = nlohmann::ordered_json;

class EventLog {
 public:
  EventLog(std::ostream& out, Mosk::Ptr<Vell::Clock> clock);

  // Writes {"t": now, "event": event, ...fields} as one line and flushes it. `fields` must be
  // an object (or null for none); its own "t" or "event" would be refused with the range error.
  // Does nothing once the output has failed.
  void write(std::string_view event, OrderedJson const& fields = nullptr);
  U64 lineCount() const { return lines_; }

  // Called once, with the reason, when a write to the output fails.
  void onFailureIs(std::function<void(std::string const&)> f) { onFailure_ = std::move(f); }
  bool failed() const { return failed_; }

 private:
  std::ostream& out_;
  Mosk::Ptr<Vell::Clock> const clock_;
  U64 lines_ = 0;
  bool failed_ = false;
  std::function<void(std::string const&)> onFailure_;
};

}  // namespace SrTeDaemon
