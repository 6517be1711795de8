// Test helper: captures the text trace of one handle for the life of the object, at the levels
// given (a bit per level, 0x3ff for all), and turns that handle off again when it goes.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Flicker/Flicker.h"

class TraceLines : public Flicker::TraceSink {
 public:
  explicit TraceLines(char const* handle, U32 levels = 0x3ff) : handle_(handle) {
    Flicker::traceSinkIs(this);
    Flicker::traceEnabledLevelsIs(handle_, levels);
  }
  ~TraceLines() override {
    Flicker::traceSinkIs(nullptr);
    Flicker::traceEnabledLevelsIs(handle_, 0);
  }
  TraceLines(TraceLines const&) = delete;
  TraceLines& operator=(TraceLines const&) = delete;

  void traceLine(Flicker::TraceLine const& l) override { lines.emplace_back(l.message); }
  // Lines that start with `prefix`.
  long count(std::string const& prefix) const {
    return std::count_if(lines.begin(), lines.end(),
                         [&](std::string const& l) { return l.starts_with(prefix); });
  }
  // Lines that are `line` to the letter.
  long exactly(std::string const& line) const {
    return std::count(lines.begin(), lines.end(), line);
  }

  std::vector<std::string> lines;

 private:
  char const* handle_;
};
