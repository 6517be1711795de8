// The shared-memory tables with real processes: a writer forked off the test process writes
// while the test reads; segments are named per test process and removed by the fixture.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "ChildProcess.h"
#include "Skerry/ShmTable.h"

using namespace Skerry;
using TestSupport::forkChildReady;
using TestSupport::reap;

namespace {

// A record that checks itself: every word derives from the key and the version.
struct Rec {
  U32 key_ = 0;
  U32 version = 0;
  U64 words[84] = {};
  U32 key() const { return key_; }
  bool operator==(Rec const&) const = default;
};

U64 wordOf(U32 key, U32 version, U32 i) {
  return (U64(key) << 32 | version) * 0x9e3779b97f4a7c15ull + i;
}
Rec rec(U32 key, U32 version) {
  Rec r;
  r.key_ = key;
  r.version = version;
  for (U32 i = 0; i < 84; ++i)
    r.words[i] = wordOf(key, version, i);
  return r;
}
bool whole(Rec const& r) {
  for (U32 i = 0; i < 84; ++i) {
    if (r.words[i] != wordOf(r.key_, r.version, i)) return false;
  }
  return true;
}

using Writer = ShmTableWriter<U32, Rec>;
using Reader = ShmTableReader<U32, Rec>;

// Why opening table `name` as T (a writer or reader, with `args`) is refused, or "opened".
template <class T, class... Args>
std::string refusal(std::string const& name, Args... args) {
  try {
    T t(name, args...);
  } catch (ShmTableException const& e) {
    return e.what();
  }
  return "opened";
}

class ShmTableTest : public ::testing::Test {
 protected:
  ShmTableTest()
      : name("srte-test-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name()) {}
  ~ShmTableTest() override { shmTableRemove(name); }

  // The bytes of the segment, writable, for damaging it on purpose.
  U8* raw() {
    int fd = ::shm_open(("/" + name).c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0);
    off_t size = ::lseek(fd, 0, SEEK_END);
    void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    maps.emplace_back(static_cast<U8*>(p), size);
    return static_cast<U8*>(p);
  }
  void TearDown() override {
    for (auto [p, size] : maps)
      ::munmap(p, size);
  }
  // The version word of `slot`, as the header places it.
  U64* versionWord(U8* base, U32 slot) {
    auto const* h = reinterpret_cast<detail::ShmHeader const*>(base);
    return reinterpret_cast<U64*>(base + h->slotOffset + U64(slot) * h->slotStride);
  }

  std::string const name;
  std::vector<std::pair<U8*, off_t>> maps;
};

// Faults: a reader that keeps a copy the writer was overwriting (no version check, or a check
// in the wrong order); versions going backwards for a reader. More readers than cores, so that
// readers are preempted halfway through copies while the writer runs on.
TEST_F(ShmTableTest, ReaderNeverKeepsATornRecord) {
  constexpr U32 writes = 300000, readers = 3;
  Writer(name, {16, 64}).put(rec(7, 0));
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  std::vector<pid_t> pids;
  for (U32 i = 0; i < readers; ++i) {
    // Exit status: 1 torn, 2 backwards, 3 never overlapped the writer, 0 fine.
    pids.push_back(forkChildReady([this, &go](auto started) {
      Reader r(name);
      ::close(go[1]);
      started();
      char c;
      (void)!::read(go[0], &c, 1);  // the writer's start
      Rec out;
      U32 last = 0, versions = 0;
      for (U32 copies = 0; last < writes && copies < 100000000 && r.copyOut(7, out); ++copies) {
        if (!whole(out)) ::_exit(1);
        if (out.version < last) ::_exit(2);
        versions += out.version != last;
        last = out.version;
      }
      ::_exit(versions >= 2 ? 0 : 3);
    }));
  }
  ::close(go[0]);
  Writer w(name);
  ::close(go[1]);  // every reader starts
  for (U32 v = 1; v <= writes; ++v)
    w.put(rec(7, v));
  for (pid_t pid : pids) {
    EXPECT_EQ(reap(pid), 0) << "1 torn, 2 backwards, 3 no overlap";
  }
}

// Faults: a writer's death halfway through a write leaving a torn or missing record; the next
// writer not repairing the slot, the count or the readers' change feed.
TEST_F(ShmTableTest, WriterKilledMidWriteLeavesTheOldRecord) {
  U32 slot;
  {
    Writer w(name, {64, 64});
    w.put(rec(3, 0));
    slot = static_cast<U32>(w.slotOf(3));
  }
  Reader r(name);
  U8* base = raw();
  auto* header = reinterpret_cast<detail::ShmHeader*>(base);
  U32 midWrite = 0, last = 0;
  for (U32 attempt = 0; attempt < 60 && midWrite < 3; ++attempt) {
    pid_t pid = forkChildReady([this, last](auto started) {
      Writer w(name);
      w.put(rec(9, last));
      started();
      for (U32 v = last + 1; v < 100000000; ++v)
        w.put(rec(3, v));
    });
    Rec out;
    for (U32 i = 0; i < 1000000 && r.copyOut(3, out) && out.version < last + 50; ++i) {
    }
    ::kill(pid, SIGKILL);
    reap(pid);
    midWrite += *versionWord(base, slot) & 1;
    ASSERT_TRUE(r.copyOut(3, out));
    EXPECT_TRUE(whole(out));
    EXPECT_GE(out.version, last);
    last = out.version;
    // As if the writer had also died between a slot write and the count.
    header->count = 7;
    Writer repair(name);
    EXPECT_TRUE(repair.recovered());
    EXPECT_EQ(*versionWord(base, slot) & 1, 0u) << "a slot left halfway was not rolled back";
    EXPECT_EQ(repair.count(), 2u);
    ASSERT_TRUE(r.copyOut(3, out));
    EXPECT_EQ(out.version, last) << "the repair changed what readers see";
    ShmPollResult p = r.poll([](U32) {});
    EXPECT_TRUE(p.resynchronised) << "a reader was not told to walk after the writer died";
  }
  EXPECT_GE(midWrite, 1u) << "no kill landed inside a write";
  Writer w(name);
  EXPECT_FALSE(w.recovered());
  EXPECT_TRUE(w.put(rec(3, 0)));
  U64 heard = 0;
  r.poll([&heard](U32 key) { heard += key; });
  EXPECT_EQ(heard, 3u);
}

// Faults: a reader lapped by the writer that trusts overwritten ring entries, misses a removal
// or reports keys that did not change; a key changed twice reported twice.
TEST_F(ShmTableTest, PollReportsEachChangeOnceAndResynchronisesWhenLapped) {
  Writer w(name, {256, 16});
  for (U32 k = 1; k <= 20; ++k)
    w.put(rec(k, 0));
  Reader r(name);
  std::vector<U32> heard;
  auto hear = [&heard](U32 k) { heard.push_back(k); };
  w.put(rec(1, 1));
  w.put(rec(1, 2));
  w.erase(2);
  w.put(rec(30, 0));
  w.put(rec(30, 0));  // unchanged: not even queued
  ShmPollResult p = r.poll(hear);
  EXPECT_FALSE(p.resynchronised);
  EXPECT_EQ(heard, (std::vector<U32>{1, 2, 30}));

  heard.clear();
  for (U32 k = 3; k <= 10; ++k)
    w.erase(k);
  for (U32 k = 40; k < 60; ++k)
    w.put(rec(k, 0));
  w.put(rec(11, 5));
  EXPECT_TRUE(r.pending());
  p = r.poll(hear, 10);
  EXPECT_TRUE(p.resynchronised);
  EXPECT_TRUE(p.more);
  while (r.pending())
    r.poll(hear, 10);
  std::set<U32> expected = {11};
  for (U32 k = 3; k <= 10; ++k)
    expected.insert(k);
  for (U32 k = 40; k < 60; ++k)
    expected.insert(k);
  EXPECT_EQ(std::set<U32>(heard.begin(), heard.end()), expected);
  EXPECT_EQ(heard.size(), expected.size());
  std::set<U32> known;
  r.forEachKnown([&known](U32 k) { known.insert(k); });
  std::set<U32> present;
  w.forEach([&present](Rec const& x) { present.insert(x.key()); });
  EXPECT_EQ(known, present);
}

// Faults: a tombstone emptied while a live key's probe run passes it (the key vanishes for
// readers); a walk that skips or repeats keys under churn. Checked against a plain map.
TEST_F(ShmTableTest, ChurnKeepsLookupsAndWalksExact) {
  Writer w(name, {48, 1024});
  Reader r(name);
  std::map<U32, U32> model;
  std::mt19937 rng(5);
  for (U32 step = 0; step < 4000; ++step) {
    U32 key = rng() % 96;
    if (model.count(key) && rng() % 2) {
      w.erase(key);
      model.erase(key);
    } else if (model.count(key) || model.size() < 48) {
      w.put(rec(key, step));
      model[key] = step;
    }
    if (step % 50) continue;
    std::map<U32, U32> seen;
    for (KeyCursor<U32, Rec> c(r); c; ++c) {
      Rec out;
      ASSERT_TRUE(r.copyOut(c.key(), out));
      EXPECT_TRUE(seen.emplace(c.key(), out.version).second) << "key walked twice";
    }
    ASSERT_EQ(seen, model) << "at step " << step;
    Rec out;
    for (U32 k = 0; k < 96; ++k)
      ASSERT_EQ(r.copyOut(k, out), model.count(k) == 1) << "key " << k;
  }
  EXPECT_EQ(r.count(), model.size());
  EXPECT_THROW(Writer{name}, ShmTableException) << "a second writer got in";
}

// Faults: a header of another record type, size or geometry accepted; damage after attach not
// reported, or a damaged slot served as a record.
TEST_F(ShmTableTest, DamageIsRefusedOrReported) {
  EXPECT_THROW(Reader("no-such-table-" + name), ShmTableException);
  EXPECT_THROW(Reader("bad/name"), Mosk::RangeException);
  Writer(name, {16, 16}).put(rec(1, 0));
  for (U32 k = 2; k <= 4; ++k)
    Writer(name).put(rec(k, 0));
  auto refusal = [this](std::size_t offset, U32 value) {
    U8* h = raw();
    U32 old;
    std::memcpy(&old, h + offset, 4);
    std::memcpy(h + offset, &value, 4);
    std::string const what = ::refusal<Reader>(name);
    std::memcpy(h + offset, &old, 4);
    return what;
  };
  std::string const table = "table '" + name + "': ";
  EXPECT_EQ(refusal(0, 7), table + "bad magic 0x31454c4200000007, not a table");
  EXPECT_EQ(refusal(offsetof(detail::ShmHeader, recordSize), 600),
            table + "records of 600 bytes, 680 expected");
  EXPECT_EQ(refusal(offsetof(detail::ShmHeader, capacity), 5000),
            table + "slot and ring geometry do not match a capacity of 5000");
  EXPECT_EQ(refusal(offsetof(detail::ShmHeader, count), 17),
            table + "impossible record count 17 (capacity 16)");
  EXPECT_EQ(refusal(offsetof(detail::ShmHeader, hashCheck), 1),
            table + "keys hashed by another function");

  struct Heard : ShmTableListener {
    std::vector<std::string> reasons;
    void onShmTableCorrupt(std::string const& reason) override { reasons.push_back(reason); }
  } heard;
  Reader r(name);
  r.listenerIs(&heard);
  // The key inside the stable copy's record of key 2 no longer matches its slot.
  U8* base = raw();
  U32 slot = static_cast<U32>(Writer(name).slotOf(2));
  U64 v = *versionWord(base, slot) >> 1;
  auto const* h = reinterpret_cast<detail::ShmHeader const*>(base);
  U8* copy = base + h->slotOffset + U64(slot) * h->slotStride + 8 + (v & 1) * (16 + 680);
  U32 other = 3;
  std::memcpy(copy + 16, &other, 4);
  Rec out;
  EXPECT_TRUE(r.copyOut(1, out));
  EXPECT_FALSE(r.copyOut(2, out));
  ASSERT_TRUE(r.corrupt());
  EXPECT_EQ(heard.reasons, std::vector<std::string>{table + "slot " + std::to_string(slot) +
                                                    " holds key 2 but its record says 3"});
  U32 key;
  EXPECT_FALSE(r.keyAfter(nullptr, key)) << "a corrupt table was walked";
  EXPECT_FALSE(r.poll([](U32) {}).changed);
}

// Faults: a removed table that still looks present to its reader (a source gone for good would
// keep its candidate paths); a table made anew under the name mistaken for the old one.
TEST_F(ShmTableTest, ReaderSeesItsTableRemoved) {
  Writer(name).put(rec(1, 0));
  Reader r(name);
  EXPECT_FALSE(r.removed());
  ASSERT_TRUE(shmTableRemove(name));
  EXPECT_TRUE(r.removed());
  Rec out;
  EXPECT_TRUE(r.copyOut(1, out)) << "the view stays readable";
  Writer(name).put(rec(2, 0));
  EXPECT_TRUE(r.removed()) << "the new table is another segment";
  EXPECT_FALSE(Reader(name).removed());
}

// The uid and gid of 'nobody' on Debian: another user for the tests that run as root.
constexpr uid_t nobody = 65534;

struct stat statOf(std::string const& name) {
  struct stat st {};
  ::stat(("/dev/shm/" + name).c_str(), &st);
  return st;
}

// Faults: a table created readable (or writable) by every user; a lock that another user who
// can open the table takes, locking the source out; a writer that writes into a table another
// user made (and controls) or that others may write; a reader told whom to trust that attaches
// to such a table anyway.
TEST_F(ShmTableTest, OnlyItsOwnerMayWriteOrLockATable) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to act as another user";
  Writer(name).put(rec(1, 0));
  EXPECT_EQ(statOf(name).st_mode & 0777, 0600u);
  ShmTableOptions shared;
  shared.readerGroup = nobody;
  Writer(name + "-group", shared).put(rec(1, 0));
  EXPECT_EQ(statOf(name + "-group").st_mode & 0777, 0640u);
  EXPECT_EQ(statOf(name + "-group").st_gid, nobody);
  shmTableRemove(name + "-group");

  // Another user who can open the table (a group member, or an earlier version's mode) locks
  // it every way a reader can, and the writer still gets in.
  ASSERT_EQ(::chmod(("/dev/shm/" + name).c_str(), 0644), 0);
  pid_t locker = forkChildReady([this](auto ready) {
    if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) throw 1;
    int fd = ::shm_open(("/" + name).c_str(), O_RDONLY, 0);
    struct flock lk {};
    lk.l_type = F_RDLCK;
    if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fcntl(fd, F_OFD_SETLK, &lk) != 0) {
      throw 2;
    }
    ready();
    ::pause();
  });
  EXPECT_EQ(refusal<Writer>(name), "opened") << "another user locked the writer out";
  ::kill(locker, SIGKILL);
  reap(locker);

  std::string const table = "table '" + name + "'";
  ShmReaderOptions trustRoot, trustNobody;
  trustRoot.trustedOwner = 0;
  trustNobody.trustedOwner = nobody;
  ASSERT_EQ(::chown(("/dev/shm/" + name).c_str(), nobody, nobody), 0);
  ASSERT_EQ(::chmod(("/dev/shm/" + name).c_str(), 0600), 0);
  EXPECT_EQ(refusal<Writer>(name), table +
                                       " belongs to nobody (uid 65534), not to root (uid 0), "
                                       "the writer's user; remove it, or write it as its "
                                       "owner");
  EXPECT_EQ(refusal<Reader>(name, trustRoot),
            table +
                " belongs to nobody (uid 65534), not to root (uid 0), the user trusted to "
                "write it");
  EXPECT_EQ(refusal<Reader>(name, trustNobody), "opened");

  ASSERT_EQ(::chown(("/dev/shm/" + name).c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(("/dev/shm/" + name).c_str(), 0666), 0);
  EXPECT_EQ(refusal<Writer>(name),
            table + " may be written by others (mode 0666); only its owner may write a table");
  EXPECT_EQ(refusal<Reader>(name, trustRoot),
            table + " may be written by others than its owner (mode 0666)");
  EXPECT_EQ(Reader(name).checkFile().untrusted, "")
      << "a reader told to trust nobody in particular";
}

// Faults: a reader killed by SIGBUS when its table's file is cut short under its mapping; the
// cut not reported as damage, or only once a page is touched; the guard swallowing a SIGBUS
// that is not a reader's.
TEST_F(ShmTableTest, ATableCutShortIsReportedNotACrash) {
  Writer(name, {16, 16}).put(rec(1, 1));
  std::string const cut = "table '" + name + "': the table was cut short while attached";
  // Found by the look at the file, before any page is read.
  Reader looked(name);
  U64 const size = statOf(name).st_size;
  ASSERT_EQ(::truncate(("/dev/shm/" + name).c_str(), 4096), 0);
  EXPECT_FALSE(looked.checkFile().removed);
  EXPECT_EQ(looked.corruption(), cut + " (4096 bytes of " + std::to_string(size) + ")");
  // Found by the access that faults: the reader reads zeros instead and reports the cut.
  shmTableRemove(name);
  Writer(name, {16, 16}).put(rec(1, 1));
  Reader touched(name);
  ASSERT_EQ(::truncate(("/dev/shm/" + name).c_str(), 0), 0);
  Rec out;
  EXPECT_FALSE(touched.copyOut(1, out));
  EXPECT_FALSE(touched.poll([](U32) { ADD_FAILURE() << "a key of a cut table"; }).changed);
  EXPECT_EQ(touched.corruption(), cut);
  // A SIGBUS elsewhere still ends the process (by the default action, or the sanitizer's).
  EXPECT_EXIT(
      {
        int fd = ::shm_open(("/" + name).c_str(), O_RDWR, 0);
        (void)::ftruncate(fd, 8192);
        auto* p = static_cast<volatile U8*>(::mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0));
        (void)::ftruncate(fd, 0);
        (void)p[4096];
      },
      [](int) { return true; }, "");
}

TEST_F(ShmTableTest, ReaderAttachesToACopyKeptInMemory) {
  // Catches: a reader of the caller's bytes that unmaps them when it goes, reads past the bytes
  // it was given, or skips the header checks of a named attach.
  {
    Writer w(name, {16, 16});
    for (U32 k = 1; k <= 5; ++k)
      w.put(rec(k, k));
  }
  U8 const* shared = raw();
  U64 const size = reinterpret_cast<detail::ShmHeader const*>(shared)->segmentSize;
  std::vector<U64> bytes(size / 8);
  std::memcpy(bytes.data(), shared, size);
  U8 const* base = reinterpret_cast<U8 const*>(bytes.data());
  {
    Reader r("copy", base, size);
    EXPECT_EQ(r.count(), 5u);
    U32 walked = 0;
    for (KeyCursor<U32, Rec> c(r); c; ++c) {
      Rec out;
      ASSERT_TRUE(r.copyOut(c.key(), out));
      EXPECT_EQ(out, rec(c.key(), c.key()));
      ++walked;
    }
    EXPECT_EQ(walked, 5u);
  }
  EXPECT_THAT([&] { Reader r("copy", base, size - 8); },
              testing::ThrowsMessage<ShmTableException>(
                  "table 'copy': segment of " + std::to_string(size - 8) +
                  " bytes, its header needs " + std::to_string(size)));
  EXPECT_THROW(Reader("copy", base, sizeof(detail::ShmHeader) - 1), ShmTableException);
  bytes.assign(bytes.size(), 1);  // still mapped and ours once the reader is gone
}

}  // namespace
