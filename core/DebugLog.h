// The library's only diagnostic channel: one prefixed line per call to the
// debugger output.
#pragma once

#include <cstdint>

namespace Korvane {

// Where log lines go: `sink(user, line)` for every line, or the debugger
// output (stderr outside Windows) when sink is NULL. One for the process.
void SetLogSink(void (*sink)(void* user, const char* line), void* user);

// printf-style. Writes "[Korvane] <message>" with a line feed added when the
// message does not end in one. Returns the message length, or -1 when
// formatting failed. Safe to call from any thread.
int32_t DebugLog(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

}  // namespace Korvane

// How every failure is logged. There are two kinds of line, and both helpers
// return the code they were given, so a step reads as one statement:
//
//   if ((hr = LogStep("PasteBokehList", PasteBokehList())) < 0) return hr;
//   if ((hr = LogCall("InitBuffers()", InitBuffers())) < 0) return hr;
//   if (KORVANE_FAILED(InitBuffers())) return hr;   // the same, text from the source
//
// - a failed call: "[Korvane] <the call as written> Error! - Return Code: %x"
//   (DebugLog adds its own prefix in front, so the line carries it twice);
// - a failed named step: "[Korvane](<step>) - Return Code: %x".
//
// Where the call names a kernel chosen at run time, LogKernelCall puts the
// name of the form that ran into the text, so a line never names a form that
// did not run: LogKernelCall("%s(bokeh_buff, light_buff, ...)", paste.name, hr).
// Nothing is logged for a code that is not negative.
//
// A record refused for a reason no designed line covers gets one short plain
// line, "[Korvane] <effect>: <why> - Return Code: %x":
//
//   if (!IsBgra(p.input)) return LogRefusal("FocusBlur", "the input image is not BGRA32", E_NOTIMPL);
namespace Korvane {

int32_t LogCall(const char* call_text, int32_t code);
int32_t LogStep(const char* step, int32_t code);
int32_t LogKernelCall(const char* call_format, const char* kernel_name, int32_t code);
int32_t LogRefusal(const char* effect, const char* why, int32_t code);

}  // namespace Korvane

#define KORVANE_LOG_FAILED_CALL(expr_text, code) \
  ::Korvane::DebugLog("[Korvane] %s Error! - Return Code: %x", expr_text, static_cast<unsigned>(code))

#define KORVANE_LOG_FAILED_STEP(name, code) \
  ::Korvane::DebugLog("[Korvane](%s) - Return Code: %x", name, static_cast<unsigned>(code))

// Runs `call`, and when it fails logs it with its own source text. The
// enclosing function must declare `int32_t hr`. Evaluates to true on failure.
#define KORVANE_FAILED(call) \
  ((hr = (call)) < 0 && (KORVANE_LOG_FAILED_CALL(#call, hr), true))
