#pragma once

namespace Vantel::Orbel {

/// Writes "file:line: function: Assertion `text' failed." to standard error and aborts.
/// Uses no stdio: it must work on the smallest thread stack.
[[noreturn]] void assertionFailed(const char* text, const char* file, int line,
                                  const char* function) noexcept;

}  // namespace Vantel::Orbel

/// Active in every build: a breach of a programming rule ends the process.
#define ORBEL_ASSERT(expression) ORBEL_ASSERT_TEXT(expression, #expression)

/// The same with the text to print, where it is not the expression as written.
#define ORBEL_ASSERT_TEXT(condition, text) \
    (static_cast<bool>(condition)          \
         ? static_cast<void>(0)            \
         : ::Vantel::Orbel::assertionFailed(text, __FILE__, __LINE__, __func__))
