// What every fuzz harness shares: the entry point that libFuzzer (or the replay driver of the
// normal builds) calls, the check that stops on a broken property, and the rule for errors.
//
// A harness defines `LLVMFuzzerTestOneInput`. It must not crash, leak or hang on any input,
// and it checks a property of what it parsed: a round trip, or a clear refusal by one of the
// runtime's exceptions (Mosk::Exception and its kinds) with nothing applied. Any other
// exception is a defect: the callers of a parser catch the runtime's errors and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Mosk/Exception.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace Fuzz {

// Prints `what` and aborts, so that libFuzzer keeps the input as a crash and the replay test
// fails.
[[noreturn]] void fail(std::string const& what);

inline void check(bool ok, std::string const& what) {
  if (!ok) fail(what);
}

// Runs `f`; true when it was refused by a runtime exception, false when it completed. Any
// other exception fails the harness.
template <class F>
bool refused(F&& f) {
  try {
    f();
    return false;
  } catch (Mosk::Exception const&) {
    return true;
  } catch (std::exception const& e) {
    fail(std::string("not a runtime error: ") + e.what());
  } catch (...) {
    fail("not a runtime error: an exception of unknown type");
  }
}

inline std::string_view text(std::uint8_t const* data, std::size_t size) {
  return {reinterpret_cast<char const*>(data), size};
}

}  // namespace Fuzz
