// Writing the daemon's JSON lines.
#include "EventLog.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include "Mosk/Exception.h"

namespace SrTeDaemon {

EventLog::EventLog(std::ostream& out, Mosk::Ptr<Vell::Clock> clock)
    : out_(out), clock_(std::move(clock)) {}

void EventLog::write(std::string_view event, OrderedJson const& fields) {
  if (!fields.is_null() && !fields.is_object()) {
    throw Mosk::RangeException("event '" + std::string(event) + "': fields must be an object");
  }
  OrderedJson line;
  // Microseconds are as fine as the event loop's timers; more digits would be noise.
  line["t"] = std::round(clock_->now() * 1e6) / 1e6;
  line["event"] = event;
  if (fields.is_object()) {
    for (auto const& [key, value] : fields.items()) {
      if (key == "t" || key == "event") {
        throw Mosk::RangeException("event '" + std::string(event) + "': field '" + key +
                                   "' is reserved");
      }
      line[key] = value;
    }
  }
  if (failed_) return;
  errno = 0;
  out_ << line.dump(-1, ' ', false, OrderedJson::error_handler_t::replace) << '\n';
  out_.flush();
  if (!out_) {
    failed_ = true;
    std::string const why = errno != 0 ? std::strerror(errno) : "the write failed";
    if (onFailure_) onFailure_(why);
    return;
  }
  ++lines_;
}

}  // namespace SrTeDaemon
