// The one assertion of the runtime: a condition held impossible stops the process after
// printing the condition's text (or the given message) with the file and line.
#pragma once

namespace Mosk {

[[noreturn]] void assertionFailed(char const* text, char const* file, int line, char const* func);

}  // namespace Mosk

#define MOSK_LIKELY(x) __builtin_expect(!!(x), 1)
#define MOSK_UNLIKELY(x) __builtin_expect(!!(x), 0)

// MOSK_ASSERT(cond): aborts with the text of `cond` when it is false.
#define MOSK_ASSERT(cond)                                                      \
  do {                                                                         \
    if (MOSK_UNLIKELY(!(cond)))                                                \
      ::Mosk::assertionFailed(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
  } while (0)

// MOSK_ASSERT_MSG(cond, "text"): aborts with "text" when `cond` is false.
#define MOSK_ASSERT_MSG(cond, msg)                                           \
  do {                                                                       \
    if (MOSK_UNLIKELY(!(cond)))                                              \
      ::Mosk::assertionFailed(msg, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
  } while (0)

// MOSK_ASSERT_IN(cond, "function"): as MOSK_ASSERT, naming `function` instead of the enclosing
// one, for checks that run in a helper on behalf of a public operation.
#define MOSK_ASSERT_IN(cond, func)                                                        \
  do {                                                                                    \
    if (MOSK_UNLIKELY(!(cond))) ::Mosk::assertionFailed(#cond, __FILE__, __LINE__, func); \
  } while (0)
