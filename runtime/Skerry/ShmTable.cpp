// The untyped half of the shared-memory tables: names, geometry, opening and mapping a segment,
// the writer's lock, and the header written on creation and checked on every attach.
#include "Skerry/ShmTable.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace Skerry {
namespace detail {

namespace {

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
                                  bool& created) {
  std::string const path = shmTablePath(name);
  ShmSegment s;
  s.name_ = name;
  s.fd_ = ::shm_open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (s.fd_ < 0) throw ShmTableException(systemError("cannot open table '" + name + "'", errno));
  if (::flock(s.fd_, LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    if (err == EWOULDBLOCK) {
      throw ShmTableException("table '" + name + "' is held by another writer");
    }
    throw ShmTableException(systemError("cannot lock table '" + name + "'", err));
  }
  struct stat st {};
  if (::fstat(s.fd_, &st) != 0) {
    throw ShmTableException(systemError("cannot inspect table '" + name + "'", errno));
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

ShmSegment ShmSegment::openReader(std::string const& name) {
  std::string const path = shmTablePath(name);
  ShmSegment s;
  s.name_ = name;
  s.fd_ = ::shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (s.fd_ < 0) {
    int err = errno;
    if (err == ENOENT) throw ShmTableException("no table '" + name + "'");
    throw ShmTableException(systemError("cannot open table '" + name + "'", err));
  }
  struct stat st {};
  if (::fstat(s.fd_, &st) != 0) {
    throw ShmTableException(systemError("cannot inspect table '" + name + "'", errno));
  }
  U64 const size = static_cast<U64>(st.st_size);
  if (size < headerBytes) {
    throw ShmTableException("table '" + name + "' is not initialised yet");
  }
  void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, s.fd_, 0);
  if (p == MAP_FAILED) {
    throw ShmTableException(systemError("cannot map table '" + name + "'", errno));
  }
  s.base_ = static_cast<U8*>(p);
  s.size_ = size;
  if (loadAcquire(s.header().magic) == 0) {
    throw ShmTableException("table '" + name + "' is not initialised yet");
  }
  return s;
}

ShmSegment ShmSegment::openBuffer(std::string const& name, U8 const* base, U64 size) {
  ShmSegment s;
  s.name_ = name;
  if (size < headerBytes) throw ShmTableException("table '" + name + "' is not initialised yet");
  // Only read through the reader's const paths; the mapping of a reader is read-only too.
  s.base_ = const_cast<U8*>(base);
  s.size_ = size;
  s.borrowed_ = true;
  if (loadAcquire(s.header().magic) == 0) {
    throw ShmTableException("table '" + name + "' is not initialised yet");
  }
  return s;
}

ShmSegment::ShmSegment(ShmSegment&& other) noexcept
    : name_(std::move(other.name_)),
      fd_(other.fd_),
      base_(other.base_),
      size_(other.size_),
      borrowed_(other.borrowed_) {
  other.fd_ = -1;
  other.base_ = nullptr;
  other.size_ = 0;
  other.borrowed_ = false;
}

ShmSegment& ShmSegment::operator=(ShmSegment&& other) noexcept {
  if (this != &other) {
    close();
    name_ = std::move(other.name_);
    std::swap(fd_, other.fd_);
    std::swap(base_, other.base_);
    std::swap(size_, other.size_);
    std::swap(borrowed_, other.borrowed_);
  }
  return *this;
}

ShmSegment::~ShmSegment() {
  close();
}

void ShmSegment::close() noexcept {
  if (base_ && !borrowed_) ::munmap(base_, size_);
  if (fd_ >= 0) ::close(fd_);  // releases the writer's lock
  base_ = nullptr;
  fd_ = -1;
  size_ = 0;
  borrowed_ = false;
}

bool ShmSegment::removed() const {
  struct stat st {};
  // A name removed with shm_unlink leaves the open object without links.
  return fd_ >= 0 && ::fstat(fd_, &st) == 0 && st.st_nlink == 0;
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
  return "/" + name;
}

bool shmTableRemove(std::string const& name) {
  return ::shm_unlink(shmTablePath(name).c_str()) == 0;
}

bool shmTableExists(std::string const& name) {
  int fd = ::shm_open(shmTablePath(name).c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

}  // namespace Skerry
