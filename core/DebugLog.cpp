#include "core/DebugLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/Platform.h"

namespace Korvane {

int32_t DebugLog(const char* format, ...) {
  char message[4096];
  char output[4096 + 16];
  message[0] = '\0';

  va_list args;
  va_start(args, format);
  const int length = format ? std::vsnprintf(message, sizeof(message), format, args) : -1;
  va_end(args);
  if (length < 0) message[0] = '\0';

  // Leave room for the line feed so an over-long message still ends a line.
  int n = std::snprintf(output, sizeof(output) - 1, "%s %s", "[Korvane]", message);
  if (n < 0) n = 0;
  if (n > static_cast<int>(sizeof(output)) - 2) n = static_cast<int>(sizeof(output)) - 2;
  if (n == 0 || output[n - 1] != '\n') {
    output[n] = '\n';
    output[n + 1] = '\0';
  }
  Platform::WriteDebugString(output);
  return length;
}

int32_t LogCall(const char* call_text, int32_t code) {
  if (code < 0) KORVANE_LOG_FAILED_CALL(call_text, code);
  return code;
}

int32_t LogStep(const char* step, int32_t code) {
  if (code < 0) KORVANE_LOG_FAILED_STEP(step, code);
  return code;
}

int32_t LogKernelCall(const char* call_format, const char* kernel_name, int32_t code) {
  if (code < 0) {
    char call[512];
    std::snprintf(call, sizeof(call), call_format, kernel_name);
    KORVANE_LOG_FAILED_CALL(call, code);
  }
  return code;
}

int32_t LogRefusal(const char* effect, const char* why, int32_t code) {
  if (code < 0) DebugLog("%s: %s - Return Code: %x", effect, why, static_cast<unsigned>(code));
  return code;
}

}  // namespace Korvane
