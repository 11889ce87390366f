// The library's only diagnostic channel: one prefixed line per call to the
// debugger output.
#pragma once

#include <cstdint>

namespace Korvane {

// printf-style. Writes "[Korvane] <message>" with a line feed added when the
// message does not end in one. Returns the message length, or -1 when
// formatting failed. Safe to call from any thread.
int32_t DebugLog(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

}  // namespace Korvane

// Logs a failed call as "[Korvane] <call as written> Error! - Return Code: %x"
// (DebugLog adds its own prefix in front, so the line carries it twice) and
// evaluates to the code. Use as: if ((hr = KORVANE_CALL(f(a, b))) < 0) ...
#define KORVANE_LOG_FAILED_CALL(expr_text, code) \
  ::Korvane::DebugLog("[Korvane] %s Error! - Return Code: %x", expr_text, static_cast<unsigned>(code))

// Logs a failed named step as "[Korvane](<name>) - Return Code: %x".
#define KORVANE_LOG_FAILED_STEP(name, code) \
  ::Korvane::DebugLog("[Korvane](%s) - Return Code: %x", name, static_cast<unsigned>(code))

// Runs `call`, and when it fails logs it with its own source text. The
// enclosing function must declare `int32_t hr`. Evaluates to true on failure.
#define KORVANE_FAILED(call) \
  ((hr = (call)) < 0 && (KORVANE_LOG_FAILED_CALL(#call, hr), true))
