// Tracing: the text trace of named handles and the fast binary trace rings, written together
// by one macro at each trace point.
//
// Text channel. Each component declares one handle at namespace scope,
//   Flicker::TraceHandle traceHandle("SrTePolicyInputSm");
// with levels 0 to 9 (9 the most detailed), each switched on and off through this API only,
// per handle or for every handle of a name; the library reads no files and no environment.
// An enabled trace point streams its message with the values' text forms and hands it, with
// the source file, line and function, to the sink the host set (stderr by default).
//
// Binary channel. One ring per level of fixed-size records, overwriting the oldest, with its
// own per-level switch (global, not per handle). Each call site registers a descriptor once
// (file, line, function, the message text and one letter per argument) and from then on a
// record holds only the descriptor's number and the raw argument values; decodeRing() turns a
// ring back into text.
//
// Trace points:
//   SRTE_TRACE(traceHandle, 6, "Policy Entry: " << id << " has changed");
// writes the text line and a binary record whose text is the literal pieces with a mark where
// the values go and whose arguments are the raw values. When the
// binary text differs from the text one,
//   SRTE_TRACE2(traceHandle, 9, "Removing registration of Segment Id: " << id,
//               "Removing registering Segment Id: " << id);
// A trace point whose level is off on both channels costs one load and one branch and
// evaluates none of its values. Single-threaded: trace points run on the event-loop thread.
#pragma once

#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Mosk/Assert.h"
#include "Mosk/Ptr.h"
#include "Mosk/Value.h"

namespace Flicker {

inline constexpr U32 kLevels = 10;
inline constexpr U32 kMaxArgs = 6;

class TraceHandle {
 public:
  // `name` must outlive the handle (a literal).
  explicit TraceHandle(char const* name);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  char const* name() const { return name_; }
  // Whether a trace point of `level` writes anything: one load and one branch.
  bool active(U32 level) const { return (mask_ & (0x10001u << level)) != 0; }
  bool textEnabled(U32 level) const { return (mask_ & (1u << level)) != 0; }
  bool binaryEnabled(U32 level) const { return (mask_ & (0x10000u << level)) != 0; }

  // Text levels of this handle alone; a level above 9 raises a range error.
  void levelEnabledIs(U32 level, bool on);
  // Bit n of `levels` enables level n.
  void enabledLevelsIs(U32 levels);
  U32 enabledLevels() const { return mask_ & 0x3ffu; }

 private:
  friend struct Registry;
  char const* name_;
  // Bits 0..9: text levels of this handle; bits 16..25: the binary levels (global, mirrored).
  U32 mask_ = 0;
  TraceHandle* next_ = nullptr;
};

// Text levels of every handle named `name` ("*": every handle), those constructed later too.
void traceLevelEnabledIs(std::string_view name, U32 level, bool on);
void traceEnabledLevelsIs(std::string_view name, U32 levels);

// One line of the text channel.
struct TraceLine {
  char const* handle;
  U32 level;
  char const* file;
  U32 line;
  char const* function;
  std::string_view message;
};

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void traceLine(TraceLine const& line) = 0;
};

// Where text lines go; null drops them. The sink must outlive its use.
void traceSinkIs(TraceSink* sink);
TraceSink* traceSink();

// Binary channel switches and rings.
void binaryLevelEnabledIs(U32 level, bool on);
bool binaryLevelEnabled(U32 level);
// Records the ring of `level` holds (rounded up to a power of two, at least 2); clears it.
void ringCapacityIs(U32 level, U32 records);
U32 ringCapacity(U32 level);
void ringClear(U32 level);
// Records ever written to the ring of `level`, including the overwritten ones.
U64 ringWriteCount(U32 level);
// The ring of `level` as text, oldest record first: "file:line function: message".
std::vector<std::string> decodeRing(U32 level);

// A trace point's place in the source; registered as a binary descriptor on first use.
struct CallSite {
  char const* file;
  U32 line;
  char const* function;
  U32 id = 0;
};

namespace detail {

// Where a value goes in a descriptor's text.
inline constexpr char kArgMark = '\x01';

template <class T>
inline constexpr bool isLiteral =
    std::is_array_v<T>&& std::is_same_v<std::remove_cv_t<std::remove_extent_t<T>>, char>;

template <class T>
concept HasStrep = requires(T const& v, std::ostream& os) {
  v.strep(os);
};
template <class T>
concept HasIntegralValue = requires(T const& v) {
  { v.value() } -> std::integral;
};

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Mosk::Ptr<T>> : std::true_type {};

// The text form of one piece of a message.
template <class T>
void writePiece(std::ostream& os, T const& v) {
  if constexpr (isLiteral<T> || std::is_same_v<T, char const*> || std::is_same_v<T, char*> ||
                std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view> ||
                std::is_same_v<T, char>) {
    os << v;
  } else if constexpr (std::is_same_v<T, bool>) {
    Mosk::writeStrep(os, v);
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::is_signed_v<T>) {
      os << static_cast<S64>(v);
    } else {
      os << static_cast<U64>(v);
    }
  } else if constexpr (IsPtr<T>::value) {
    os << static_cast<void const*>(v.ptr());
  } else if constexpr (std::is_pointer_v<T>) {
    os << static_cast<void const*>(v);
  } else if constexpr (HasStrep<T>) {
    v.strep(os);
  } else {
    os << v;
  }
}

// A value's raw form in a binary record and its letter in the descriptor's format.
template <class T>
struct BinaryArg {
  static constexpr char letter() {
    if constexpr (std::is_same_v<T, bool>) return 'b';
    if constexpr (std::is_same_v<T, char const*>) return 's';
    if constexpr (std::is_integral_v<T>) return std::is_signed_v<T> ? 'i' : 'u';
    if constexpr (std::is_enum_v<T>) return 'e';
    if constexpr (std::is_floating_point_v<T>) return 'f';
    if constexpr (std::is_pointer_v<T> || IsPtr<T>::value) return 'p';
    if constexpr (HasIntegralValue<T>) {
      return std::is_signed_v<decltype(std::declval<T const&>().value())> ? 'i' : 'u';
    }
    return '?';
  }
  static U64 raw(T const& v) {
    if constexpr (std::is_same_v<T, char const*>) {
      return reinterpret_cast<std::uintptr_t>(v);
    } else if constexpr (std::is_integral_v<T>) {
      return static_cast<U64>(v);
    } else if constexpr (std::is_enum_v<T>) {
      return static_cast<U64>(v);
    } else if constexpr (std::is_floating_point_v<T>) {
      double d = v;
      U64 bits;
      std::memcpy(&bits, &d, sizeof bits);
      return bits;
    } else if constexpr (std::is_pointer_v<T>) {
      return reinterpret_cast<std::uintptr_t>(v);
    } else if constexpr (IsPtr<T>::value) {
      return reinterpret_cast<std::uintptr_t>(v.ptr());
    } else {
      return static_cast<U64>(v.value());
    }
  }
};

}  // namespace detail

// The pieces of one message, held by reference until the trace statement ends.
template <class... P>
struct TraceChain {
  std::tuple<P const&...> pieces;

  template <class T>
  TraceChain<P..., T> operator<<(T const& v) const {
    return TraceChain<P..., T>{std::tuple_cat(pieces, std::tuple<T const&>(v))};
  }

  static constexpr U32 argCount() { return (0 + ... + (detail::isLiteral<P> ? 0 : 1)); }
};

template <>
struct TraceChain<> {
  std::tuple<> pieces;
  template <class T>
  TraceChain<T> operator<<(T const& v) const {
    return TraceChain<T>{std::tuple<T const&>(v)};
  }
  static constexpr U32 argCount() { return 0; }
};

namespace detail {

void emitText(TraceHandle const& handle, U32 level, CallSite const& site, std::string_view message);
void registerSite(CallSite& site, std::string text, std::string format);
void writeRecord(U32 level, U32 site, U64 const* args, U32 count);

template <class... P>
void traceText(TraceHandle const& handle, U32 level, CallSite const& site,
               TraceChain<P...> const& chain) {
  std::ostringstream os;
  std::apply([&os](auto const&... v) { (writePiece(os, v), ...); }, chain.pieces);
  emitText(handle, level, site, os.view());
}

template <class... P>
void traceBinary(U32 level, CallSite& site, TraceChain<P...> const& chain) {
  constexpr U32 n = TraceChain<P...>::argCount();
  static_assert(n <= kMaxArgs, "a binary trace record holds at most 6 values");
  if (MOSK_UNLIKELY(site.id == 0)) {
    std::string text;
    std::string format;
    auto describe = [&](auto const& v) {
      using T = std::remove_cvref_t<decltype(v)>;
      if constexpr (isLiteral<T>) {
        text += v;
      } else {
        static_assert(BinaryArg<T>::letter() != '?',
                      "no raw form for this trace value: trace a number, an address or a type "
                      "with an integral value()");
        text += kArgMark;
        format += BinaryArg<T>::letter();
      }
    };
    std::apply([&](auto const&... v) { (describe(v), ...); }, chain.pieces);
    registerSite(site, std::move(text), std::move(format));
  }
  U64 args[n > 0 ? n : 1];
  U32 i = 0;
  auto store = [&](auto const& v) {
    using T = std::remove_cvref_t<decltype(v)>;
    if constexpr (!isLiteral<T>) args[i++] = BinaryArg<T>::raw(v);
  };
  std::apply([&](auto const&... v) { (store(v), ...); }, chain.pieces);
  writeRecord(level, site.id, args, n);
}

// Both channels from one message, as the handle's switches say.
template <class... P>
void trace(TraceHandle const& handle, U32 level, CallSite& site, TraceChain<P...> const& chain) {
  if (handle.textEnabled(level)) traceText(handle, level, site, chain);
  if (handle.binaryEnabled(level)) traceBinary(level, site, chain);
}

}  // namespace detail

}  // namespace Flicker

#define SRTE_TRACE(handle, level, message)                                     \
  do {                                                                         \
    if (MOSK_UNLIKELY((handle).active(level))) {                               \
      static ::Flicker::CallSite srteTraceSite_{__FILE__, __LINE__, __func__}; \
      ::Flicker::detail::trace((handle), (level), srteTraceSite_,              \
                               ::Flicker::TraceChain<>() << message);          \
    }                                                                          \
  } while (0)

#define SRTE_TRACE2(handle, level, textMessage, binaryMessage)                      \
  do {                                                                              \
    if (MOSK_UNLIKELY((handle).active(level))) {                                    \
      static ::Flicker::CallSite srteTraceSite_{__FILE__, __LINE__, __func__};      \
      if ((handle).textEnabled(level))                                              \
        ::Flicker::detail::traceText((handle), (level), srteTraceSite_,             \
                                     ::Flicker::TraceChain<>() << textMessage);     \
      if ((handle).binaryEnabled(level))                                            \
        ::Flicker::detail::traceBinary((level), srteTraceSite_,                     \
                                       ::Flicker::TraceChain<>() << binaryMessage); \
    }                                                                               \
  } while (0)
