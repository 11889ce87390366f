#include "core/DebugLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "core/Platform.h"

namespace Korvane {

namespace {

// The sink is read without a lock (a log line may come from any worker at
// any time): DebugLog loads one pointer to an immutable record. Records are
// kept until the process ends, so a line being written through an old one
// stays valid while the host sets a new one.
struct Sink {
  void (*fn)(void*, const char*);
  void* user;
};

std::atomic<const Sink*> g_sink{nullptr};

}  // namespace

void SetLogSink(void (*sink)(void* user, const char* line), void* user) {
  static std::mutex lock;
  static std::vector<std::unique_ptr<Sink>> kept;
  std::lock_guard<std::mutex> hold(lock);
  const Sink* record = nullptr;
  if (sink) {
    kept.push_back(std::make_unique<Sink>(Sink{sink, user}));
    record = kept.back().get();
  }
  g_sink.store(record, std::memory_order_release);
}

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
  if (const Sink* sink = g_sink.load(std::memory_order_acquire)) {
    sink->fn(sink->user, output);
  } else {
    Platform::WriteDebugString(output);
  }
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
