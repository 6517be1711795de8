// Test helpers for shared-memory tables: the name of a table of this test process's own,
// "srte-test-PID-what", removed when the helper is made (a leftover of an earlier run) and when
// it goes, whichever way the test ends; and a table damaged under its readers.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
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

// Writes an impossible record count into the header of table `name` and announces a change, so
// that its readers look and find it damaged.
inline void damageTable(std::string const& name) {
  int fd = ::shm_open(("/" + name).c_str(), O_RDWR, 0);
  auto* h = static_cast<Skerry::detail::ShmHeader*>(::mmap(
      nullptr, sizeof(Skerry::detail::ShmHeader), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ::close(fd);
  h->count = 1u << 30;
  ++h->changes;
  ::munmap(h, sizeof *h);
}

}  // namespace TestSupport
