// Value types: the operations every value type offers through ValueTraits (text form, parse,
// hash), the text reader that parsers consume, and the built-in scalar forms.
//
// A class value type provides the members
//   void strep(std::ostream&) const;        its text form
//   static T strepRead(Mosk::TextReader&);  the inverse, consuming exactly its own text
//   U32 hash() const;
// and ValueTraits<T> forwards to them. Enumerations and built-in types specialise ValueTraits.
#pragma once

#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Mosk/Exception.h"
#include "Mosk/Hash.h"
#include "Mosk/Types.h"

namespace Mosk {

using Name = std::string;

class TextReader {
 public:
  explicit TextReader(std::string_view text) : text_(text) {}

  bool atEnd() const { return pos_ >= text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  // Consumes and returns the next character ('\0' at the end).
  char get() { return atEnd() ? '\0' : text_[pos_++]; }
  std::size_t position() const { return pos_; }
  std::string_view rest() const { return text_.substr(pos_); }

  // Consumes `literal` or fails naming what was expected and where.
  void expect(std::string_view literal);
  // Consumes `literal` when it comes next.
  bool accept(std::string_view literal);
  // Consumes the longest run of characters for which `pred` holds (possibly empty).
  template <class Pred>
  std::string_view take(Pred pred) {
    std::size_t start = pos_;
    while (pos_ < text_.size() && pred(text_[pos_]))
      ++pos_;
    return text_.substr(start, pos_ - start);
  }
  void skipSpaces() {
    take([](char c) { return c == ' ' || c == '\t'; });
  }
  // A decimal (or 0x-prefixed hexadecimal) number no larger than `max`.
  U64 readUnsigned(U64 max, char const* what);
  S64 readSigned(S64 min, S64 max, char const* what);
  // An identifier: letters, digits and underscores.
  std::string_view readIdentifier(char const* what);
  void expectEnd();

  [[noreturn]] void fail(std::string const& what) const;

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

template <class T, class Enable = void>
struct ValueTraits {
  static void write(std::ostream& os, T const& v) { v.strep(os); }
  static T read(TextReader& r) { return T::strepRead(r); }
  static U32 hash(T const& v) { return v.hash(); }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_unsigned_v<T> && !std::is_same_v<T, bool>>> {
  static void write(std::ostream& os, T v) { os << static_cast<U64>(v); }
  static T read(TextReader& r) {
    return static_cast<T>(r.readUnsigned(std::numeric_limits<T>::max(), "unsigned number"));
  }
  static U32 hash(T v) {
    if constexpr (sizeof(T) > 4) return hashU64(v);
    return hashU32(static_cast<U32>(v));
  }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_signed_v<T> && std::is_integral_v<T>>> {
  static void write(std::ostream& os, T v) { os << static_cast<S64>(v); }
  static T read(TextReader& r) {
    return static_cast<T>(
        r.readSigned(std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), "number"));
  }
  static U32 hash(T v) { return hashU64(static_cast<U64>(static_cast<S64>(v))); }
};

template <>
struct ValueTraits<bool> {
  static void write(std::ostream& os, bool v) { os << (v ? "True" : "False"); }
  static bool read(TextReader& r);
  static U32 hash(bool v) { return hashU32(v ? 1 : 0); }
};

template <>
struct ValueTraits<double> {
  static void write(std::ostream& os, double v);
  static double read(TextReader& r);
  static U32 hash(double v);
};

// Strings print quoted, so that they can stand inside a composite's text form.
template <>
struct ValueTraits<std::string> {
  static void write(std::ostream& os, std::string const& v);
  static std::string read(TextReader& r);
  static U32 hash(std::string const& v) { return murmur3(v.data(), v.size()); }
};

template <class T>
void writeStrep(std::ostream& os, T const& v) {
  ValueTraits<T>::write(os, v);
}

// The text form of a value.
template <class T>
std::string valueToStrep(T const& v) {
  std::ostringstream os;
  ValueTraits<T>::write(os, v);
  return os.str();
}

template <class T>
U32 hashOf(T const& v) {
  return ValueTraits<T>::hash(v);
}

// Reads one field of a composite; a range error is re-raised naming the field.
template <class T>
T readField(TextReader& r, char const* field) {
  try {
    return ValueTraits<T>::read(r);
  } catch (RangeException const& e) {
    std::string path = e.attribute().empty() ? field : std::string(field) + "." + e.attribute();
    throw RangeException(e.reason(), path);
  }
}

// Parses the whole text as a T: the inverse of valueToStrep.
template <class T>
T parse(std::string_view text) {
  TextReader r(text);
  T v = ValueTraits<T>::read(r);
  r.expectEnd();
  return v;
}

// The text form of a sequence of values: "[a, b, c]".
template <class It>
void writeList(std::ostream& os, It begin, It end) {
  os << '[';
  for (It it = begin; it != end; ++it) {
    if (it != begin) os << ", ";
    ValueTraits<std::decay_t<decltype(*it)>>::write(os, *it);
  }
  os << ']';
}

// Reads "[a, b, c]", handing each element to `add` in order.
template <class T, class Add>
void readList(TextReader& r, Add&& add) {
  r.expect("[");
  if (r.accept("]")) return;
  for (;;) {
    r.skipSpaces();
    add(ValueTraits<T>::read(r));
    if (r.accept("]")) return;
    r.expect(",");
  }
}

// Hash functor for standard containers keyed by a value type.
template <class T>
struct ValueHash {
  std::size_t operator()(T const& v) const { return ValueTraits<T>::hash(v); }
};

}  // namespace Mosk
