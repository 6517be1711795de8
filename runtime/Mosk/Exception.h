// The runtime's error kinds. Handlers let them through; a notifying mutator has already stored
// its change when a downstream handler throws.
#pragma once

#include <stdexcept>
#include <string>

namespace Mosk {

class Exception : public std::runtime_error {
 public:
  explicit Exception(std::string const& what) : std::runtime_error(what) {}
};

// A value outside its range, or a null where a pointer is required ("null ValidPtr").
class RangeException : public Exception {
 public:
  explicit RangeException(std::string const& what) : Exception(what), reason_(what) {}
  // The same error raised while parsing `attribute` (a dotted path for nested values).
  RangeException(std::string const& reason, std::string attribute)
      : Exception("attribute '" + attribute + "': " + reason),
        reason_(reason),
        attribute_(std::move(attribute)) {}

  // The attribute whose text was being parsed when the range check failed, if any.
  std::string const& attribute() const { return attribute_; }
  // The range check's own message, without the attribute.
  std::string const& reason() const { return reason_; }

 private:
  std::string reason_;
  std::string attribute_;
};

// A keyed element re-created with a constructor argument that differs from the stored one.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// Misuse of the runtime itself (for example writing a read-only replica).
class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// Text that is not the text form of the expected type.
class ParseException : public Exception {
 public:
  using Exception::Exception;
};

// Messages shared by generated code.
std::string nameInUseMessage(std::string const& name, char const* param,
                             std::string const& newValue, std::string const& currentValue);
std::string pointerInUseMessage(char const* param, std::string const& newValue,
                                std::string const& currentValue);
std::string nullMutatorMessage(char const* attr, char const* qualifiedOwner);

[[noreturn]] void throwNullValidPtr();

}  // namespace Mosk
