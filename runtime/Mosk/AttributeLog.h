// The wire form of the attribute log: a byte writer and a bounds-checked byte reader, and the
// attribute-log form of every value (LogTraits<T>), all in network byte order.
//
// A class value type provides the members
//   void logWrite(Mosk::LogWriter&) const;
//   static T logRead(Mosk::LogReader&);   // range checks as its constructor does
// and LogTraits<T> forwards to them; built-in types, enumerations and the runtime's arrays
// specialise LogTraits. Scalars take their own width; a composite writes its fields in
// declaration order with nothing between them, so a value's form is fixed by its declaration.
//
// Reading never trusts the bytes: a read past the end, a bool other than 0 or 1 or a length
// beyond the bytes left raises LogFormatException naming what was read and where; a value out
// of its range raises the value type's own range error.
#pragma once

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "Mosk/Array.h"
#include "Mosk/Exception.h"
#include "Mosk/Types.h"

namespace Mosk {

// A malformed, truncated or misdirected attribute log. The message names the byte offset.
class LogFormatException : public ParseException {
 public:
  using ParseException::ParseException;
};

class LogWriter {
 public:
  void u8(U8 v) { buf_.push_back(v); }
  void u16(U16 v) {
    u8(static_cast<U8>(v >> 8));
    u8(static_cast<U8>(v));
  }
  void u32(U32 v) {
    U8 b[4] = {static_cast<U8>(v >> 24), static_cast<U8>(v >> 16), static_cast<U8>(v >> 8),
               static_cast<U8>(v)};
    buf_.insert(buf_.end(), b, b + 4);
  }
  void u64(U64 v) {
    u32(static_cast<U32>(v >> 32));
    u32(static_cast<U32>(v));
  }
  void bytes(void const* data, std::size_t n) {
    auto const* p = static_cast<U8 const*>(data);
    buf_.insert(buf_.end(), p, p + n);
  }

  std::size_t size() const { return buf_.size(); }
  // Reserves four bytes to be filled in later by patchU32 (counts known only afterwards).
  std::size_t placeholderU32() {
    std::size_t at = buf_.size();
    u32(0);
    return at;
  }
  void patchU32(std::size_t at, U32 v) {
    buf_[at] = static_cast<U8>(v >> 24);
    buf_[at + 1] = static_cast<U8>(v >> 16);
    buf_[at + 2] = static_cast<U8>(v >> 8);
    buf_[at + 3] = static_cast<U8>(v);
  }
  std::vector<U8> const& buffer() const { return buf_; }
  // Hands the bytes over and leaves the writer empty.
  std::vector<U8> take() { return std::move(buf_); }

 private:
  std::vector<U8> buf_;
};

class LogReader {
 public:
  LogReader(U8 const* data, std::size_t size) : data_(data), size_(size) {}

  // `what` names the value being read, for the error of a truncated log.
  U8 u8(char const* what) { return *need(1, what); }
  U16 u16(char const* what) {
    U8 const* p = need(2, what);
    return static_cast<U16>(p[0] << 8 | p[1]);
  }
  U32 u32(char const* what) {
    U8 const* p = need(4, what);
    return U32{p[0]} << 24 | U32{p[1]} << 16 | U32{p[2]} << 8 | U32{p[3]};
  }
  U64 u64(char const* what) {
    U64 hi = u32(what);
    return hi << 32 | u32(what);
  }
  void bytes(void* out, std::size_t n, char const* what) { std::memcpy(out, need(n, what), n); }

  std::size_t position() const { return pos_; }
  std::size_t remaining() const { return size_ - pos_; }
  bool atEnd() const { return pos_ == size_; }
  // A reader over the next `n` bytes, which this reader skips.
  LogReader sub(std::size_t n, char const* what) {
    U8 const* p = need(n, what);
    LogReader r(p, n);
    r.base_ = base_ + (p - data_);
    return r;
  }

  // Raises LogFormatException: "attribute log: <what> at byte <offset>".
  [[noreturn]] void fail(std::string const& what) const;

 private:
  U8 const* need(std::size_t n, char const* what);

  U8 const* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
  std::size_t base_ = 0;  // offset of data_ in the whole log, for messages
};

template <class T, class Enable = void>
struct LogTraits {
  static void write(LogWriter& w, T const& v) { v.logWrite(w); }
  static T read(LogReader& r) { return T::logRead(r); }
};

template <class T>
struct LogTraits<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static void write(LogWriter& w, T v) {
    using Un = std::make_unsigned_t<T>;
    auto u = static_cast<Un>(v);
    if constexpr (sizeof(T) == 1) {
      w.u8(u);
    } else if constexpr (sizeof(T) == 2) {
      w.u16(u);
    } else if constexpr (sizeof(T) == 4) {
      w.u32(u);
    } else {
      w.u64(u);
    }
  }
  static T read(LogReader& r) {
    if constexpr (sizeof(T) == 1) {
      return static_cast<T>(r.u8("8-bit number"));
    } else if constexpr (sizeof(T) == 2) {
      return static_cast<T>(r.u16("16-bit number"));
    } else if constexpr (sizeof(T) == 4) {
      return static_cast<T>(r.u32("32-bit number"));
    } else {
      return static_cast<T>(r.u64("64-bit number"));
    }
  }
};

template <>
struct LogTraits<bool> {
  static void write(LogWriter& w, bool v) { w.u8(v ? 1 : 0); }
  static bool read(LogReader& r);
};

template <>
struct LogTraits<double> {
  static void write(LogWriter& w, double v);
  static double read(LogReader& r);
};

// A string: its length as 32 bits, then its bytes.
template <>
struct LogTraits<std::string> {
  static void write(LogWriter& w, std::string const& v);
  static std::string read(LogReader& r);
};

// A fixed array: every position, in order.
template <class V, class Index, U32 N>
struct LogTraits<Array<V, Index, N>> {
  static void write(LogWriter& w, Array<V, Index, N> const& a) {
    for (U32 i = 0; i < N; ++i)
      LogTraits<V>::write(w, a[i]);
  }
  static Array<V, Index, N> read(LogReader& r) {
    Array<V, Index, N> a;
    for (U32 i = 0; i < N; ++i)
      a.set(Index(i), LogTraits<V>::read(r));
    return a;
  }
};

// A counted array: the count as 32 bits, then the used positions. A count above N raises the
// index type's range error (the one its constructor raises for the position N).
template <class T, class Index, U32 N>
struct LogTraits<PodArray<T, Index, N>> {
  static void write(LogWriter& w, PodArray<T, Index, N> const& a) {
    w.u32(a.count());
    for (T const& v : a)
      LogTraits<T>::write(w, v);
  }
  static PodArray<T, Index, N> read(LogReader& r) {
    U32 count = r.u32("array count");
    if (count > N) {
      (void)Index(count - 1);
      throw RangeException("array count " + std::to_string(count) + " above " + std::to_string(N) +
                           " not allowed");
    }
    PodArray<T, Index, N> a;
    for (U32 i = 0; i < count; ++i)
      a.push(LogTraits<T>::read(r));
    return a;
  }
};

template <class T>
void logWrite(LogWriter& w, T const& v) {
  LogTraits<T>::write(w, v);
}

template <class T>
T logRead(LogReader& r) {
  return LogTraits<T>::read(r);
}

// Reads one field of a composite; a range error is re-raised naming the field.
template <class T>
T logReadField(LogReader& r, char const* field) {
  try {
    return LogTraits<T>::read(r);
  } catch (RangeException const& e) {
    std::string path = e.attribute().empty() ? field : std::string(field) + "." + e.attribute();
    throw RangeException(e.reason(), path);
  }
}

// The attribute-log form of a value, as bytes.
template <class T>
std::vector<U8> logBytes(T const& v) {
  LogWriter w;
  LogTraits<T>::write(w, v);
  return w.take();
}

// Reads a whole byte string as one T; bytes left over are a format error.
template <class T>
T logParse(std::vector<U8> const& bytes) {
  LogReader r(bytes.data(), bytes.size());
  T v = LogTraits<T>::read(r);
  if (!r.atEnd()) r.fail(std::to_string(r.remaining()) + " bytes after the value");
  return v;
}

}  // namespace Mosk
