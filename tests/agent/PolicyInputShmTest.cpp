// Input tables in shared memory under the agent: a source process writes, the agent's process
// polls a PolicyInputShmReader, and the input state machine sees the same candidate paths as
// with an in-process table. Segments are named per test process and removed by the fixture.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>

#include "ChildProcess.h"
#include "InputRecord.h"
#include "SrTePolicy/SrTePolicyInputShm.h"
#include "SrTePolicyAgent.h"

using namespace SrTePolicy;

namespace {

PolicySource const kBgp = PolicySource::sourceBgp, kPcep = PolicySource::sourcePcep;

PolicyInputEntry candidate(PolicySource source, U32 index, U32 preference) {
  return TestSupport::InputRecord(source, index)
      .to(Ludd::IpAddr::fromU32(0x0a000000 + index), index % 4)
      .pref(preference)
      .list({16000 + index % 8, 20});
}

class PolicyInputShm : public ::testing::Test {
 protected:
  PolicyInputShm() : name("srte-test-" + std::to_string(::getpid()) + "-input") {
    Skerry::shmTableRemove(name);
  }
  ~PolicyInputShm() override { Skerry::shmTableRemove(name); }

  // Runs `body(writer)` as the source process and waits for it.
  template <class F>
  void source(F body) {
    pid_t pid = TestSupport::forkChild([&] {
      PolicyInputShmWriter w(name);
      body(w);
    });
    ASSERT_EQ(TestSupport::reap(pid), 0);
  }
  // Polls until nothing is pending (bounded); says whether a poll resynchronised.
  bool drain(PolicyInputShmReader& r) {
    bool resynchronised = false;
    for (U32 i = 0; i < 1000 && r.pending(); ++i)
      resynchronised |= r.poll(7).resynchronised;
    EXPECT_FALSE(r.pending());
    return resynchronised;
  }
  // The candidates of `source` in the selection input, by policy id, with their preference.
  std::map<U32, U32> selected(PolicySource s) {
    std::map<U32, U32> out;
    for (auto c = agent.policySelectionInput()->policyIdEntryIterConst(); c; ++c) {
      if (c->source() == s) out[PolicyId::make(s, c->id()).value()] = c->preference().value();
    }
    return out;
  }
  // What the table holds, read afresh.
  std::map<U32, U32> written() {
    std::map<U32, U32> out;
    PolicyInputShmWriter(name).forEach(
        [&out](PolicyInputEntry const& e) { out[e.key().value()] = e.preference().value(); });
    return out;
  }

  std::string const name;
  SrTePolicyAgent agent{Vell::manualClockFactory()};
};

// Faults: changes from the source process not reaching the machine; a removal missed after the
// reader was lapped; policyIdx not following the source's counter; a mounted table written.
TEST_F(PolicyInputShm, SourceProcessChangesReachTheInputMachine) {
  {
    PolicyInputShmWriter w(name, {64, 16});
    for (U32 i = 1; i <= 5; ++i)
      w.put(candidate(kBgp, i, 100));
  }
  auto reader = policyInputShmReaderFactory(name);
  agent.sourceTableIs(kBgp, reader->policyInput());
  EXPECT_EQ(selected(kBgp), written());

  source([](PolicyInputShmWriter& w) {
    w.put(candidate(kBgp, 1, 300));
    w.erase(PolicyId::make(kBgp, 2));
    w.put(candidate(kBgp, 6, 100));
    w.counterIs(6);
  });
  EXPECT_EQ(selected(kBgp).size(), 5u) << "changed before any poll";
  EXPECT_FALSE(drain(*reader));
  EXPECT_EQ(selected(kBgp), written());
  EXPECT_EQ(selected(kBgp)[PolicyId::make(kBgp, 1).value()], 300u);
  EXPECT_EQ(reader->policyInput()->policyIdx(), 6u);

  source([](PolicyInputShmWriter& w) {  // more changes than the ring holds
    for (U32 i = 3; i <= 5; ++i)
      w.erase(PolicyId::make(kBgp, i));
    for (U32 i = 10; i < 40; ++i)
      w.put(candidate(kBgp, i, 100 + i));
  });
  EXPECT_TRUE(drain(*reader));
  EXPECT_EQ(selected(kBgp), written());
  EXPECT_EQ(agent.policySelectionInput()->policyIdEntryCount(), 32u);

  EXPECT_THROW(reader->policyInput()->policyInputEntryIs(candidate(kBgp, 50, 1)),
               Mosk::InternalException);
}

// Faults: a damaged slot that does not stop the walk of its table, or that stops the walk of
// the other sources; damage not reported through the corrupt flag; a reattached table whose
// candidates are not read again.
TEST_F(PolicyInputShm, DamagedSlotStopsTheWalkOfItsTableOnly) {
  for (U32 i = 1; i <= 3; ++i)
    agent.sourceTableIs(kPcep)->policyInputEntryIs(candidate(kPcep, i, 100));
  std::map<S32, U32> bySlot;  // slot order is the walk's order
  {
    PolicyInputShmWriter w(name, {16, 16});
    for (U32 i = 1; i <= 3; ++i) {
      w.put(candidate(kBgp, i, 100));
      bySlot[w.slotOf(PolicyId::make(kBgp, i))] = i;
    }
  }
  auto reader = policyInputShmReaderFactory(name);
  struct Watch : PolicyInput::NotifieeConst {
    U32 corrupt = 0;
    void onPolicyInputEntryCorrupt() override { ++corrupt; }
  } watch;
  watch.notifierIs(reader->policyInput());

  // The stable copy of the middle slot gets a key hash that is not its key's.
  int fd = ::shm_open(("/" + name).c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  Skerry::detail::ShmHeader h;
  ASSERT_EQ(::pread(fd, &h, sizeof h, 0), static_cast<ssize_t>(sizeof h));
  S32 middle = std::next(bySlot.begin())->first;
  off_t slotAt = static_cast<off_t>(h.slotOffset + U64(middle) * h.slotStride);
  U64 version;
  ASSERT_EQ(::pread(fd, &version, 8, slotAt), 8);
  off_t hashAt = slotAt + 8 + static_cast<off_t>((version >> 1 & 1) * (h.slotStride - 8) / 2) + 4;
  U32 hash, bad;
  ASSERT_EQ(::pread(fd, &hash, 4, hashAt), 4);
  bad = hash ^ 1;
  ASSERT_EQ(::pwrite(fd, &bad, 4, hashAt), 4);

  agent.sourceTableIs(kBgp, reader->policyInput());
  EXPECT_EQ(selected(kPcep).size(), 3u);
  EXPECT_EQ(selected(kBgp),
            (std::map<U32, U32>{{PolicyId::make(kBgp, bySlot.begin()->second).value(), 100}}));
  EXPECT_TRUE(reader->policyInput()->policyInputEntryCorrupt());
  EXPECT_EQ(watch.corrupt, 1u);
  EXPECT_NE(reader->corruption().find("slot " + std::to_string(middle)), std::string::npos);
  EXPECT_EQ(reader->poll().changed, 0u);

  ASSERT_EQ(::pwrite(fd, &hash, 4, hashAt), 4);
  ::close(fd);
  reader->reattach();
  EXPECT_FALSE(reader->policyInput()->policyInputEntryCorrupt());
  EXPECT_EQ(selected(kBgp).size(), 3u);
  watch.notifierIs(nullptr);
}

}  // namespace
