// Out-of-line pieces of the runtime: assertion, error messages, hashing, text reading.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <limits>

#include "Mosk/Assert.h"
#include "Mosk/Exception.h"
#include "Mosk/Hash.h"
#include "Mosk/Value.h"

namespace Mosk {

void assertionFailed(char const* text, char const* file, int line, char const* func) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)\n", text, file, line, func);
  std::fflush(stderr);
  std::abort();
}

std::string nameInUseMessage(std::string const& name, char const* param,
                             std::string const& newValue, std::string const& currentValue) {
  return "Reinstantiating the entity with name " + name +
         " where constructor parameter attribute _" + param + " has a different value of " +
         newValue + " than the current value of " + currentValue + " not allowed";
}

std::string pointerInUseMessage(char const* param, std::string const& newValue,
                                std::string const& currentValue) {
  return std::string(
             "Reinstantiating the pointer interface where constructor parameter attribute _") +
         param + " has a different value of " + newValue + " than the current value of " +
         currentValue + " not allowed";
}

std::string nullMutatorMessage(char const* attr, char const* qualifiedOwner) {
  return std::string("null _") + attr + " parameter to mutator for " + qualifiedOwner +
         "::" + attr + " not allowed\"";
}

void throwNullValidPtr() {
  throw RangeException("null ValidPtr");
}

U32 murmur3(void const* data, std::size_t len, U32 seed) {
  auto const* bytes = static_cast<U8 const*>(data);
  std::size_t blocks = len / 4;
  U32 h = seed;
  constexpr U32 c1 = 0xcc9e2d51u;
  constexpr U32 c2 = 0x1b873593u;
  for (std::size_t i = 0; i < blocks; ++i) {
    U32 k;
    std::memcpy(&k, bytes + 4 * i, 4);
    k *= c1;
    k = detail::rotl32(k, 15);
    k *= c2;
    h ^= k;
    h = detail::rotl32(h, 13);
    h = h * 5 + 0xe6546b64u;
  }
  U8 const* tail = bytes + 4 * blocks;
  U32 k = 0;
  switch (len & 3) {
    case 3:
      k ^= static_cast<U32>(tail[2]) << 16;
      [[fallthrough]];
    case 2:
      k ^= static_cast<U32>(tail[1]) << 8;
      [[fallthrough]];
    case 1:
      k ^= tail[0];
      k *= c1;
      k = detail::rotl32(k, 15);
      k *= c2;
      h ^= k;
  }
  h ^= static_cast<U32>(len);
  return fmix32(h);
}

void TextReader::expect(std::string_view literal) {
  if (!accept(literal)) fail("expected \"" + std::string(literal) + "\"");
}

bool TextReader::accept(std::string_view literal) {
  if (text_.substr(pos_, literal.size()) != literal) return false;
  pos_ += literal.size();
  return true;
}

U64 TextReader::readUnsigned(U64 max, char const* what) {
  bool hex = text_.substr(pos_, 2) == "0x" || text_.substr(pos_, 2) == "0X";
  if (hex) pos_ += 2;
  auto digits = take([hex](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) ||
           (hex && std::isxdigit(static_cast<unsigned char>(c)));
  });
  if (digits.empty()) fail(std::string("expected ") + what);
  U64 v = 0;
  U64 base = hex ? 16 : 10;
  for (char c : digits) {
    U64 d = std::isdigit(static_cast<unsigned char>(c))
                ? static_cast<U64>(c - '0')
                : static_cast<U64>(std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
    if (v > (std::numeric_limits<U64>::max() - d) / base) fail(std::string(what) + " too large");
    v = v * base + d;
  }
  if (v > max) fail(std::string(what) + " " + std::to_string(v) + " above " + std::to_string(max));
  return v;
}

S64 TextReader::readSigned(S64 min, S64 max, char const* what) {
  bool negative = accept("-");
  U64 magnitude = readUnsigned(std::numeric_limits<U64>::max(), what);
  if (negative) {
    if (magnitude > static_cast<U64>(std::numeric_limits<S64>::max()) + 1) fail("number too small");
    S64 v = magnitude == static_cast<U64>(std::numeric_limits<S64>::max()) + 1
                ? std::numeric_limits<S64>::min()
                : -static_cast<S64>(magnitude);
    if (v < min) fail(std::string(what) + " below " + std::to_string(min));
    return v;
  }
  if (magnitude > static_cast<U64>(max)) fail(std::string(what) + " above " + std::to_string(max));
  return static_cast<S64>(magnitude);
}

std::string_view TextReader::readIdentifier(char const* what) {
  auto id = take([](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
  if (id.empty()) fail(std::string("expected ") + what);
  return id;
}

void TextReader::expectEnd() {
  if (!atEnd()) fail("unexpected text after the value");
}

void TextReader::fail(std::string const& what) const {
  throw ParseException(what + " at offset " + std::to_string(pos_) + " of \"" + std::string(text_) +
                       "\"");
}

bool ValueTraits<bool>::read(TextReader& r) {
  if (r.accept("True")) return true;
  if (r.accept("False")) return false;
  r.fail("expected True or False");
}

void ValueTraits<double>::write(std::ostream& os, double v) {
  std::ios::fmtflags flags = os.flags();
  os << std::setprecision(17) << v;
  os.flags(flags);
}

double ValueTraits<double>::read(TextReader& r) {
  auto text = r.take([](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '+' ||
           c == 'e' || c == 'E';
  });
  if (text.empty()) r.fail("expected a number");
  std::string s(text);
  char* end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (end != s.c_str() + s.size() || !std::isfinite(v)) r.fail("malformed number \"" + s + "\"");
  return v;
}

U32 ValueTraits<double>::hash(double v) {
  if (v == 0) v = 0;  // +0 and -0 are equal, so they hash alike
  U64 bits;
  std::memcpy(&bits, &v, sizeof bits);
  return hashU64(bits);
}

void ValueTraits<std::string>::write(std::ostream& os, std::string const& v) {
  os << '\'';
  for (char c : v) {
    if (c == '\'' || c == '\\') os << '\\';
    os << c;
  }
  os << '\'';
}

std::string ValueTraits<std::string>::read(TextReader& r) {
  r.expect("'");
  std::string out;
  for (;;) {
    if (r.atEnd()) r.fail("unterminated string");
    char c = r.get();
    if (c == '\'') return out;
    if (c == '\\') {
      if (r.atEnd()) r.fail("unterminated string");
      c = r.get();
    }
    out.push_back(c);
  }
}

}  // namespace Mosk
