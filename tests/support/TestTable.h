// Test helper: the name of a shared-memory table of this test process's own,
// "srte-test-PID-what". The table of that name is removed when the helper is made (a leftover of
// an earlier run) and when it goes, whichever way the test ends.
#pragma once

#include <unistd.h>

#include <string>

#include "Skerry/ShmTable.h"

namespace TestSupport {

inline std::string testName(std::string const& what) {
  return "srte-test-" + std::to_string(::getpid()) + "-" + what;
}

struct TestTable : std::string {
  explicit TestTable(std::string const& what) : std::string(testName(what)) {
    Skerry::shmTableRemove(*this);
  }
  ~TestTable() { Skerry::shmTableRemove(*this); }
  TestTable(TestTable const&) = delete;
  TestTable& operator=(TestTable const&) = delete;
};

}  // namespace TestSupport
