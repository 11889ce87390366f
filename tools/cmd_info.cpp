// korvane info: the library version and what it finds on this machine.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <korvane/core/Version.h>

#include "Command.h"

namespace KorvaneTool {
namespace {

// The best SIMD level of this processor, as the engine names the levels it
// chooses kernels by.
const char* SimdLevel() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse4.2")) return "SSE4.2";
  if (__builtin_cpu_supports("sse4.1")) return "SSE4.1";
  if (__builtin_cpu_supports("ssse3")) return "SSSE3";
  if (__builtin_cpu_supports("sse3")) return "SSE3";
  if (__builtin_cpu_supports("sse2")) return "SSE2";
#endif
  return "none";
}

bool HasSse41() {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.1");
#else
  return false;
#endif
}

int RunInfo() {
  const long processors = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
  std::printf("Korvane %s\n", KORVANE_VERSION_STRING);
  std::printf("processors:   %ld\n", processors);
  std::printf("SIMD level:   %s\n", SimdLevel());
  std::printf("SSE4.1 forms: %s\n", !KORVANE_HAVE_SSE41 ? "not built" : HasSse41() ? "in use" : "built, not used on this processor");
  // The engine starts a worker per processor, at most eight.
  std::printf("workers:      %ld\n", std::min(processors, 8L));
  return 0;
}

RegisterCommand reg("info", "Print the library version and what it uses on this machine", [](CLI::App&) {
  return std::function<int()>(RunInfo);
});

}  // namespace
}  // namespace KorvaneTool
