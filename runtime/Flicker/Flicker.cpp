// The handle registry with its switches by name, the text sinks, the binary rings, the call
// site descriptors and the decoder.
#include "Flicker/Flicker.h"

#include <bit>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "Mosk/Exception.h"

namespace Flicker {

namespace {

void checkLevel(U32 level, char const* where) {
  if (level >= kLevels) {
    throw Mosk::RangeException(std::string(where) + ": trace level " + std::to_string(level) +
                               " not allowed, levels are 0 to 9");
  }
}

class StderrSink : public TraceSink {
 public:
  void traceLine(TraceLine const& l) override {
    std::fprintf(stderr, "%s %u %s:%u %s: %.*s\n", l.handle, l.level, l.file, l.line, l.function,
                 static_cast<int>(l.message.size()), l.message.data());
  }
};

struct Record {
  U32 site;
  U32 count;
  U64 seq;
  U64 args[kMaxArgs];
};
static_assert(sizeof(Record) == 64, "a record fills one cache line");

struct Ring {
  std::unique_ptr<Record[]> records;
  U64 mask = 0;
  U64 written = 0;
  U32 capacity = 1024;
};

struct Descriptor {
  char const* file;
  U32 line;
  char const* function;
  std::string text;
  std::string format;
};

}  // namespace

struct Registry {
  TraceHandle* handles = nullptr;
  // Text levels set by name, applied to handles constructed later.
  std::vector<std::pair<std::string, U32>> byName;
  U32 binaryMask = 0;
  StderrSink stderrSink;
  TraceSink* sink = &stderrSink;
  Ring rings[kLevels];
  std::vector<Descriptor> sites;
  U64 seq = 0;

  static Registry& get() {
    static Registry registry;
    return registry;
  }

  void setByName(std::string_view name, U32 levels) {
    if (name == "*") byName.clear();
    bool found = false;
    for (auto& [n, l] : byName) {
      if (n == name) {
        l = levels;
        found = true;
      }
    }
    if (!found) byName.emplace_back(name, levels);
    for (TraceHandle* h = handles; h != nullptr; h = h->next_) {
      if (name == "*" || name == h->name_) h->mask_ = (h->mask_ & ~0x3ffu) | levels;
    }
  }

  void mirrorBinaryMask() {
    for (TraceHandle* h = handles; h != nullptr; h = h->next_)
      h->mask_ = (h->mask_ & 0x3ffu) | (binaryMask << 16);
  }

  U32 namedLevels(std::string_view name) const {
    for (auto it = byName.rbegin(); it != byName.rend(); ++it) {
      if (it->first == name) return it->second;
    }
    for (auto const& [n, l] : byName) {
      if (n == "*") return l;
    }
    return 0;
  }
};

TraceHandle::TraceHandle(char const* name) : name_(name) {
  Registry& r = Registry::get();
  mask_ = r.namedLevels(name) | (r.binaryMask << 16);
  next_ = r.handles;
  r.handles = this;
}

TraceHandle::~TraceHandle() {
  Registry& r = Registry::get();
  for (TraceHandle** p = &r.handles; *p != nullptr; p = &(*p)->next_) {
    if (*p == this) {
      *p = next_;
      break;
    }
  }
}

void TraceHandle::levelEnabledIs(U32 level, bool on) {
  checkLevel(level, "TraceHandle::levelEnabledIs");
  if (on) {
    mask_ |= 1u << level;
  } else {
    mask_ &= ~(1u << level);
  }
}

void TraceHandle::enabledLevelsIs(U32 levels) {
  if (levels > 0x3ffu) {
    throw Mosk::RangeException("TraceHandle::enabledLevelsIs: levels above 9 not allowed");
  }
  mask_ = (mask_ & ~0x3ffu) | levels;
}

void traceLevelEnabledIs(std::string_view name, U32 level, bool on) {
  checkLevel(level, "traceLevelEnabledIs");
  Registry& r = Registry::get();
  U32 levels = r.namedLevels(name);
  levels = on ? levels | (1u << level) : levels & ~(1u << level);
  r.setByName(name, levels);
}

void traceEnabledLevelsIs(std::string_view name, U32 levels) {
  if (levels > 0x3ffu) {
    throw Mosk::RangeException("traceEnabledLevelsIs: levels above 9 not allowed");
  }
  Registry::get().setByName(name, levels);
}

void traceSinkIs(TraceSink* sink) {
  Registry::get().sink = sink;
}

TraceSink* traceSink() {
  return Registry::get().sink;
}

void binaryLevelEnabledIs(U32 level, bool on) {
  checkLevel(level, "binaryLevelEnabledIs");
  Registry& r = Registry::get();
  r.binaryMask = on ? r.binaryMask | (1u << level) : r.binaryMask & ~(1u << level);
  r.mirrorBinaryMask();
}

bool binaryLevelEnabled(U32 level) {
  checkLevel(level, "binaryLevelEnabled");
  return (Registry::get().binaryMask & (1u << level)) != 0;
}

void ringCapacityIs(U32 level, U32 records) {
  checkLevel(level, "ringCapacityIs");
  Ring& ring = Registry::get().rings[level];
  ring.capacity = std::bit_ceil(std::max(records, 2u));
  ring.records.reset();
  ring.mask = 0;
  ring.written = 0;
}

U32 ringCapacity(U32 level) {
  checkLevel(level, "ringCapacity");
  return Registry::get().rings[level].capacity;
}

void ringClear(U32 level) {
  checkLevel(level, "ringClear");
  Registry::get().rings[level].written = 0;
}

U64 ringWriteCount(U32 level) {
  checkLevel(level, "ringWriteCount");
  return Registry::get().rings[level].written;
}

namespace detail {

void emitText(TraceHandle const& handle, U32 level, CallSite const& site,
              std::string_view message) {
  TraceSink* sink = Registry::get().sink;
  if (sink == nullptr) return;
  sink->traceLine(TraceLine{handle.name(), level, site.file, site.line, site.function, message});
}

void registerSite(CallSite& site, std::string text, std::string format) {
  Registry& r = Registry::get();
  r.sites.push_back(
      Descriptor{site.file, site.line, site.function, std::move(text), std::move(format)});
  site.id = static_cast<U32>(r.sites.size());
}

void writeRecord(U32 level, U32 site, U64 const* args, U32 count) {
  Registry& r = Registry::get();
  Ring& ring = r.rings[level];
  if (MOSK_UNLIKELY(!ring.records)) {
    ring.records.reset(new Record[ring.capacity]);
    ring.mask = ring.capacity - 1;
  }
  Record& rec = ring.records[ring.written++ & ring.mask];
  rec.site = site;
  rec.count = count;
  rec.seq = r.seq++;
  for (U32 i = 0; i < count; ++i)
    rec.args[i] = args[i];
}

}  // namespace detail

namespace {

void writeArg(std::string& out, char letter, U64 raw) {
  char buf[64];
  switch (letter) {
    case 'i':
      std::snprintf(buf, sizeof buf, "%" PRId64, static_cast<S64>(raw));
      break;
    case 'b':
      std::snprintf(buf, sizeof buf, "%s", raw != 0 ? "True" : "False");
      break;
    case 'f': {
      double d;
      std::memcpy(&d, &raw, sizeof d);
      std::snprintf(buf, sizeof buf, "%.17g", d);
      break;
    }
    case 'p':
      std::snprintf(buf, sizeof buf, "0x%" PRIx64, raw);
      break;
    case 's':
      out += reinterpret_cast<char const*>(static_cast<std::uintptr_t>(raw));
      return;
    default:  // 'u', 'e'
      std::snprintf(buf, sizeof buf, "%" PRIu64, raw);
      break;
  }
  out += buf;
}

}  // namespace

std::vector<std::string> decodeRing(U32 level) {
  checkLevel(level, "decodeRing");
  Registry& r = Registry::get();
  Ring const& ring = r.rings[level];
  std::vector<std::string> lines;
  if (!ring.records) return lines;
  U64 first = ring.written > ring.capacity ? ring.written - ring.capacity : 0;
  for (U64 i = first; i < ring.written; ++i) {
    Record const& rec = ring.records[i & ring.mask];
    Descriptor const& d = r.sites.at(rec.site - 1);
    std::string line = std::string(d.file) + ":" + std::to_string(d.line) + " " + d.function + ": ";
    U32 arg = 0;
    for (std::size_t pos = 0; pos < d.text.size(); ++pos) {
      if (d.text[pos] == detail::kArgMark && arg < rec.count) {
        writeArg(line, d.format[arg], rec.args[arg]);
        ++arg;
      } else {
        line += d.text[pos];
      }
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace Flicker
