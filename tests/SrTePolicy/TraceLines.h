// Test helper: captures the text trace of one handle for the life of the object.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Flicker/Flicker.h"

class TraceLines : public Flicker::TraceSink {
 public:
  TraceLines(char const* handle, U32 levels) : handle_(handle) {
    Flicker::traceSinkIs(this);
    Flicker::traceEnabledLevelsIs(handle_, levels);
  }
  ~TraceLines() override {
    Flicker::traceSinkIs(nullptr);
    Flicker::traceEnabledLevelsIs(handle_, 0);
  }
  void traceLine(Flicker::TraceLine const& l) override { text.emplace_back(l.message); }
  // Lines that start with `prefix`.
  long count(std::string const& prefix) const {
    return std::count_if(text.begin(), text.end(),
                         [&](std::string const& l) { return l.starts_with(prefix); });
  }

  std::vector<std::string> text;

 private:
  char const* handle_;
};
