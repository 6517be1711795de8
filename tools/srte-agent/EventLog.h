// The daemon's output: one JSON object per line, each with the time on the agent's clock
// ("t", seconds) and what happened ("event"), then the event's own fields in a fixed order.
// Every line is flushed as it is written, so a reader at the other end of a pipe sees it at
// once. docs/agent.md lists the events.
#pragma once

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
  void write(std::string_view event, OrderedJson const& fields = nullptr);
  U64 lineCount() const { return lines_; }

 private:
  std::ostream& out_;
  Mosk::Ptr<Vell::Clock> const clock_;
  U64 lines_ = 0;
};

}  // namespace SrTeDaemon
