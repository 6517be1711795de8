// The untyped half of the shared-memory tables: names, geometry, opening and mapping a segment,
// the writer's lock, who owns a table and may write it, the guard against a file cut short under
// a reader's mapping, and the header written on creation and checked on every attach.
#include "Skerry/ShmTable.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <utility>

namespace Skerry {
namespace detail {

namespace {

using Kind = ShmTableException::Kind;

constexpr U32 maxCapacity = 1u << 22;
constexpr U32 maxRingSize = 1u << 24;
constexpr U64 headerBytes = sizeof(ShmHeader);

U32 powerOfTwoAtLeast(U64 n) {
  U32 p = 1;
  while (p < n)
    p <<= 1;
  return p;
}

std::string systemError(std::string const& what, int err) {
  return what + ": " + std::strerror(err);
}

std::string hex(U64 v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
  return buf;
}

// "nobody (uid 65534)", or "uid 4242" for a user without a name.
std::string userText(uid_t uid) {
  std::string const id = "uid " + std::to_string(uid);
  passwd pw{};
  passwd* found = nullptr;
  char buf[1024];
  if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found != nullptr) {
    return std::string(found->pw_name) + " (" + id + ")";
  }
  return id;
}

std::string modeText(mode_t mode) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(mode & 07777));
  return buf;
}

constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

// Why a writer must not use the file of table `name` (`what` names the file), or empty: only
// the writer's own user may own it, and nobody else may write it.
std::string foreignToWriter(struct stat const& st, std::string const& what) {
  uid_t const self = ::geteuid();
  if (st.st_uid != self) {
    return what + " belongs to " + userText(st.st_uid) + ", not to " + userText(self) +
           ", the writer's user; remove it, or write it as its owner";
  }
  if (st.st_mode & othersWrite) {
    return what + " may be written by others (mode " + modeText(st.st_mode) +
           "); only its owner may write a table";
  }
  return {};
}

// Why a reader with `options` must not trust the file of table `name`, or empty.
std::string untrustedByReader(struct stat const& st, std::string const& name,
                              ShmReaderOptions const& options) {
  if (!options.trustedOwner) return {};
  uid_t const trusted = *options.trustedOwner;
  if (st.st_uid != 0 && st.st_uid != trusted) {
    return "table '" + name + "' belongs to " + userText(st.st_uid) + ", not to " +
           (trusted == 0 ? userText(0) : "root or to " + userText(trusted)) +
           ", the user trusted to write it";
  }
  if (st.st_mode & othersWrite) {
    return "table '" + name + "' may be written by others than its owner (mode " +
           modeText(st.st_mode) + ")";
  }
  return {};
}

// The SIGBUS guard of the readers' mappings (see the file comment of ShmTable.h). The handler
// reads the slots with atomic loads only; slots are taken and given back under the mutex.
struct BusGuard {
  std::atomic<std::uintptr_t> begin{0};  // 0: the slot is free
  std::atomic<std::uintptr_t> end{0};
  std::atomic<bool> hit{false};
};
constexpr int busGuardSlots = 256;
BusGuard busGuards[busGuardSlots];
std::mutex busGuardMutex;
struct sigaction busPrevious {};

void onBus(int signal, siginfo_t* info, void* context) {
  auto const at = reinterpret_cast<std::uintptr_t>(info->si_addr);
  for (BusGuard& g : busGuards) {
    std::uintptr_t const begin = g.begin.load(std::memory_order_acquire);
    std::uintptr_t const end = g.end.load(std::memory_order_acquire);
    if (begin == 0 || at < begin || at >= end) continue;
    // Zero pages in place of the whole view: the faulting access, done again on return, reads
    // zeros, and so does every later one until the reader lets the view go. mmap is a bare
    // system call, safe in a handler.
    void* p = ::mmap(reinterpret_cast<void*>(begin), end - begin, PROT_READ,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (p == MAP_FAILED) break;
    g.hit.store(true, std::memory_order_release);
    return;
  }
  // Not a reader's view: what was there before us.
  if ((busPrevious.sa_flags & SA_SIGINFO) && busPrevious.sa_sigaction != nullptr) {
    busPrevious.sa_sigaction(signal, info, context);
    return;
  }
  if (!(busPrevious.sa_flags & SA_SIGINFO) && busPrevious.sa_handler != SIG_DFL &&
      busPrevious.sa_handler != SIG_IGN) {
    busPrevious.sa_handler(signal);
    return;
  }
  // The default: the access faults again on return and ends the process as it would have.
  ::signal(SIGBUS, SIG_DFL);
}

// A guard slot covering [base, base + size), or -1 when all are taken (the view is then
// unguarded, as every view was before).
int busGuardTake(U8 const* base, U64 size) {
  static std::once_flag installed;
  std::call_once(installed, [] {
    struct sigaction sa {};
    sa.sa_sigaction = onBus;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGBUS, &sa, &busPrevious);
  });
  long const page = ::sysconf(_SC_PAGESIZE);
  std::uintptr_t const begin = reinterpret_cast<std::uintptr_t>(base);
  std::uintptr_t const end = begin + (size + page - 1) / page * page;
  std::lock_guard<std::mutex> lock(busGuardMutex);
  for (int i = 0; i < busGuardSlots; ++i) {
    BusGuard& g = busGuards[i];
    if (g.begin.load(std::memory_order_relaxed) != 0) continue;
    g.hit.store(false, std::memory_order_relaxed);
    g.end.store(end, std::memory_order_release);
    g.begin.store(begin, std::memory_order_release);
    return i;
  }
  return -1;
}

void busGuardGive(int slot) {
  std::lock_guard<std::mutex> lock(busGuardMutex);
  busGuards[slot].begin.store(0, std::memory_order_release);
}

// Takes the writers' lock of table `name`: an object of its own that only the writer's user can
// open. Returns its descriptor, which holds the lock until it is closed.
int takeWriterLock(std::string const& name, std::string const& path) {
  std::string const lockPath = path + ".lock";
  int fd = ::shm_open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw ShmTableException(
        systemError("cannot open the writers' lock of table '" + name + "'", errno));
  }
  struct stat st {};
  std::string foreign;
  if (::fstat(fd, &st) != 0) {
    foreign = systemError("cannot inspect the writers' lock of table '" + name + "'", errno);
  } else if (st.st_uid != ::geteuid()) {
    foreign = foreignToWriter(st, "the writers' lock of table '" + name + "' (" + lockPath + ")");
  } else if ((st.st_mode & 0077) != 0 && ::fchmod(fd, 0600) != 0) {
    foreign = systemError("cannot make the writers' lock of table '" + name + "' private", errno);
  }
  if (foreign.empty() && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    foreign = err == EWOULDBLOCK ? "table '" + name + "' is held by another writer"
                                 : systemError("cannot lock table '" + name + "'", err);
  }
  if (!foreign.empty()) {
    ::close(fd);
    throw ShmTableException(foreign);
  }
  return fd;
}

}  // namespace

ShmGeometry ShmGeometry::make(U32 recordSize, U32 keySize, ShmTableOptions const& options) {
  if (options.capacity < 1 || options.capacity > maxCapacity) {
    throw Mosk::RangeException("table capacity " + std::to_string(options.capacity) +
                               " is out of range 1.." + std::to_string(maxCapacity));
  }
  if (options.ringSize < 2 || options.ringSize > maxRingSize) {
    throw Mosk::RangeException("table ring size " + std::to_string(options.ringSize) +
                               " is out of range 2.." + std::to_string(maxRingSize));
  }
  ShmGeometry g;
  g.recordSize = recordSize;
  g.keySize = keySize;
  g.capacity = options.capacity;
  // At most three quarters full, so that probe runs stay short.
  g.slotCount = powerOfTwoAtLeast(std::max<U64>(8, U64(options.capacity) * 4 / 3 + 1));
  g.slotLimit = g.slotCount + g.slotCount / 8 + 16;
  g.ringSize = powerOfTwoAtLeast(options.ringSize);
  g.copySize = 16 + (recordSize + 7) / 8 * 8;
  g.slotStride = 8 + 2 * g.copySize;
  g.ringOffset = headerBytes;
  g.slotOffset = (g.ringOffset + U64(g.ringSize) * 8 + 63) / 64 * 64;
  g.segmentSize = g.slotOffset + U64(g.slotLimit) * g.slotStride;
  return g;
}

ShmSegment ShmSegment::openWriter(std::string const& name, ShmGeometry const& geometry,
                                  ShmTableOptions const& options, bool& created) {
  std::string const path = shmTablePath(name);
  ShmSegment s;
  s.name_ = name;
  s.lockFd_ = takeWriterLock(name, path);
  // Made here (exclusively, so a table someone else made is never taken for ours), or opened.
  bool made = true;
  s.fd_ = ::shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (s.fd_ < 0 && errno == EEXIST) {
    made = false;
    s.fd_ = ::shm_open(path.c_str(), O_RDWR | O_CLOEXEC, 0);
  }
  if (s.fd_ < 0) throw ShmTableException(systemError("cannot open table '" + name + "'", errno));
  if (made) {
    // The mode does not depend on the umask; the group, when given, before the group may read.
    std::string failed;
    if (options.readerGroup && ::fchown(s.fd_, static_cast<uid_t>(-1), *options.readerGroup)) {
      failed = systemError(
          "cannot give table '" + name + "' to group " + std::to_string(*options.readerGroup),
          errno);
    } else if (::fchmod(s.fd_, options.readerGroup ? 0640 : 0600) != 0) {
      failed = systemError("cannot set the mode of table '" + name + "'", errno);
    }
    if (!failed.empty()) {
      ::shm_unlink(path.c_str());
      throw ShmTableException(failed);
    }
  }
  struct stat st {};
  if (::fstat(s.fd_, &st) != 0) {
    throw ShmTableException(systemError("cannot inspect table '" + name + "'", errno));
  }
  if (std::string foreign = foreignToWriter(st, "table '" + name + "'"); !foreign.empty()) {
    throw ShmTableException(foreign);
  }
  U64 size = static_cast<U64>(st.st_size);
  // A segment without a header was left by a creator that died before finishing: we hold the
  // lock, so nobody else is creating it now.
  created = size < headerBytes;
  if (!created) {
    ShmHeader h;
    if (::pread(s.fd_, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) {
      throw ShmTableException(systemError("cannot read table '" + name + "'", errno));
    }
    created = h.magic == 0 && h.version == 0 && h.recordSize == 0;
  }
  if (created) {
    size = geometry.segmentSize;
    if (::ftruncate(s.fd_, 0) != 0 || ::ftruncate(s.fd_, static_cast<off_t>(size)) != 0) {
      throw ShmTableException(systemError("cannot size table '" + name + "'", errno));
    }
  }
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, s.fd_, 0);
  if (p == MAP_FAILED) {
    throw ShmTableException(systemError("cannot map table '" + name + "'", errno));
  }
  s.base_ = static_cast<U8*>(p);
  s.size_ = size;
  return s;
}

ShmSegment ShmSegment::openReader(std::string const& name, ShmReaderOptions const& options) {
  std::string const path = shmTablePath(name);
  ShmSegment s;
  s.name_ = name;
  s.fd_ = ::shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (s.fd_ < 0) {
    int err = errno;
    if (err == ENOENT) throw ShmTableException("no table '" + name + "'", Kind::missing);
    throw ShmTableException(systemError("cannot open table '" + name + "'", err));
  }
  struct stat st {};
  if (::fstat(s.fd_, &st) != 0) {
    throw ShmTableException(systemError("cannot inspect table '" + name + "'", errno));
  }
  if (std::string untrusted = untrustedByReader(st, name, options); !untrusted.empty()) {
    throw ShmTableException(untrusted);
  }
  U64 const size = static_cast<U64>(st.st_size);
  if (size < headerBytes) {
    throw ShmTableException("table '" + name + "' is " + std::to_string(size) +
                                " bytes, too short for its " + std::to_string(headerBytes) +
                                "-byte header",
                            Kind::unready);
  }
  void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, s.fd_, 0);
  if (p == MAP_FAILED) {
    throw ShmTableException(systemError("cannot map table '" + name + "'", errno));
  }
  s.base_ = static_cast<U8*>(p);
  s.size_ = size;
  s.guard_ = busGuardTake(s.base_, s.size_);
  if (loadAcquire(s.header().magic) == 0) {
    throw ShmTableException("table '" + name + "' has no header yet", Kind::unready);
  }
  return s;
}

ShmSegment ShmSegment::openBuffer(std::string const& name, U8 const* base, U64 size) {
  ShmSegment s;
  s.name_ = name;
  if (size < headerBytes) {
    throw ShmTableException("table '" + name + "' is too short for its header", Kind::unready);
  }
  // Only read through the reader's const paths; the mapping of a reader is read-only too.
  s.base_ = const_cast<U8*>(base);
  s.size_ = size;
  s.borrowed_ = true;
  if (loadAcquire(s.header().magic) == 0) {
    throw ShmTableException("table '" + name + "' has no header yet", Kind::unready);
  }
  return s;
}

ShmSegment::ShmSegment(ShmSegment&& other) noexcept
    : name_(std::move(other.name_)),
      fd_(other.fd_),
      lockFd_(other.lockFd_),
      base_(other.base_),
      size_(other.size_),
      guard_(other.guard_),
      borrowed_(other.borrowed_) {
  other.fd_ = -1;
  other.lockFd_ = -1;
  other.base_ = nullptr;
  other.size_ = 0;
  other.guard_ = -1;
  other.borrowed_ = false;
}

ShmSegment& ShmSegment::operator=(ShmSegment&& other) noexcept {
  if (this != &other) {
    close();
    name_ = std::move(other.name_);
    std::swap(fd_, other.fd_);
    std::swap(lockFd_, other.lockFd_);
    std::swap(base_, other.base_);
    std::swap(size_, other.size_);
    std::swap(guard_, other.guard_);
    std::swap(borrowed_, other.borrowed_);
  }
  return *this;
}

ShmSegment::~ShmSegment() {
  close();
}

void ShmSegment::close() noexcept {
  if (guard_ >= 0) busGuardGive(guard_);
  if (base_ && !borrowed_) ::munmap(base_, size_);
  if (fd_ >= 0) ::close(fd_);
  if (lockFd_ >= 0) ::close(lockFd_);  // releases the writer's lock
  base_ = nullptr;
  fd_ = -1;
  lockFd_ = -1;
  size_ = 0;
  guard_ = -1;
  borrowed_ = false;
}

bool ShmSegment::removed() const {
  struct stat st {};
  // A name removed with shm_unlink leaves the open object without links.
  return fd_ >= 0 && ::fstat(fd_, &st) == 0 && st.st_nlink == 0;
}

ShmFileCheck ShmSegment::checkFile(ShmReaderOptions const& options, U64& fileSize) const {
  ShmFileCheck check;
  fileSize = size_;
  struct stat st {};
  if (fd_ < 0 || ::fstat(fd_, &st) != 0) return check;
  fileSize = static_cast<U64>(st.st_size);
  check.removed = st.st_nlink == 0;
  check.untrusted = untrustedByReader(st, name_, options);
  return check;
}

bool ShmSegment::cutShort() const {
  return guard_ >= 0 && busGuards[guard_].hit.load(std::memory_order_acquire);
}

void ShmSegment::initialise(ShmGeometry const& g, U32 hashCheck) {
  ShmHeader& h = header();
  h.version = shmVersion;
  h.headerSize = sizeof(ShmHeader);
  h.recordSize = g.recordSize;
  h.keySize = g.keySize;
  h.capacity = g.capacity;
  h.slotCount = g.slotCount;
  h.slotLimit = g.slotLimit;
  h.ringSize = g.ringSize;
  h.slotStride = g.slotStride;
  h.hashCheck = hashCheck;
  h.ringOffset = g.ringOffset;
  h.slotOffset = g.slotOffset;
  h.segmentSize = g.segmentSize;
  // A reader that sees the magic sees the rest of the header.
  storeRelease(h.magic, shmMagic);
}

ShmGeometry ShmSegment::check(U32 recordSize, U32 keySize, U32 hashCheck) const {
  ShmHeader const& h = header();
  std::string const table = "table '" + name_ + "': ";
  auto refuse = [&table](std::string const& what) { throw ShmTableException(table + what); };
  U64 const magic = loadAcquire(h.magic);
  if (magic != shmMagic) refuse("bad magic " + hex(magic) + ", not a table");
  if (h.version != shmVersion) {
    refuse("layout version " + std::to_string(h.version) + ", this reader knows version " +
           std::to_string(shmVersion));
  }
  if (h.headerSize != sizeof(ShmHeader)) {
    refuse("header of " + std::to_string(h.headerSize) + " bytes, " +
           std::to_string(sizeof(ShmHeader)) + " expected");
  }
  if (h.recordSize != recordSize) {
    refuse("records of " + std::to_string(h.recordSize) + " bytes, " + std::to_string(recordSize) +
           " expected");
  }
  if (h.keySize != keySize) {
    refuse("keys of " + std::to_string(h.keySize) + " bytes, " + std::to_string(keySize) +
           " expected");
  }
  if (h.hashCheck != hashCheck) refuse("keys hashed by another function");
  ShmTableOptions options;
  options.capacity = h.capacity;
  options.ringSize = h.ringSize;
  ShmGeometry g;
  try {
    g = ShmGeometry::make(recordSize, keySize, options);
  } catch (Mosk::RangeException const& e) {
    refuse(e.what());
  }
  if (h.slotCount != g.slotCount || h.slotLimit != g.slotLimit || h.ringSize != g.ringSize ||
      h.slotStride != g.slotStride || h.ringOffset != g.ringOffset ||
      h.slotOffset != g.slotOffset || h.segmentSize != g.segmentSize) {
    refuse("slot and ring geometry do not match a capacity of " + std::to_string(h.capacity));
  }
  if (g.segmentSize > size_) {
    refuse("segment of " + std::to_string(size_) + " bytes, its header needs " +
           std::to_string(g.segmentSize));
  }
  U32 const count = loadAcquire(h.count);
  if (count > g.capacity) {
    refuse("impossible record count " + std::to_string(count) + " (capacity " +
           std::to_string(g.capacity) + ")");
  }
  return g;
}

}  // namespace detail

std::string shmTablePath(std::string const& name) {
  bool ok = !name.empty() && name.size() <= 200;
  for (char ch : name) {
    ok = ok && ((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
                ch == '.' || ch == '_' || ch == '-');
  }
  if (!ok || name == "." || name == "..") {
    throw Mosk::RangeException("table name '" + name +
                               "' is not allowed: use 1 to 200 letters, digits, '.', '_' or '-'");
  }
  if (name.size() >= 5 && name.compare(name.size() - 5, 5, ".lock") == 0) {
    throw Mosk::RangeException("table name '" + name +
                               "' is not allowed: names ending in '.lock' are writers' locks");
  }
  return "/" + name;
}

bool shmTableRemove(std::string const& name) {
  std::string const path = shmTablePath(name);
  bool const removed = ::shm_unlink(path.c_str()) == 0;
  ::shm_unlink((path + ".lock").c_str());
  return removed;
}

namespace {

// A plain number below 2^32 - 1 (the ids of "no user" and "no group" are not numbers to give).
std::optional<U32> idNumber(std::string const& text) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != text.npos) {
    return std::nullopt;
  }
  U64 const v = std::stoull(text);
  return v < 0xffffffffull ? std::optional<U32>(static_cast<U32>(v)) : std::nullopt;
}

}  // namespace

std::optional<uid_t> shmUserId(std::string const& name) {
  passwd pw{};
  passwd* found = nullptr;
  char buf[4096];
  if (::getpwnam_r(name.c_str(), &pw, buf, sizeof buf, &found) == 0 && found) return found->pw_uid;
  return idNumber(name);
}

std::optional<gid_t> shmGroupId(std::string const& name) {
  group gr{};
  group* found = nullptr;
  char buf[4096];
  if (::getgrnam_r(name.c_str(), &gr, buf, sizeof buf, &found) == 0 && found) return found->gr_gid;
  return idNumber(name);
}

bool shmTableExists(std::string const& name) {
  int fd = ::shm_open(shmTablePath(name).c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

}  // namespace Skerry
