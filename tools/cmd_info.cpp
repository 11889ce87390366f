// korvane info: what the library would use on this machine.
#include <algorithm>
#include <cstdio>

#include "Command.h"
#include "core/Platform.h"
#include "core/SystemInfo.h"
#include "core/ThreadPool.h"
#include "core/Version.h"
#include "engine/CpuProbe.h"

namespace KorvaneTool {
namespace {

int RunInfo() {
  const int32_t processors = Korvane::Platform::LogicalProcessorCount();
  const int32_t level = Korvane::ProbeSimdLevel();
  std::printf("Korvane %s\n", KORVANE_VERSION_STRING);
  std::printf("processors:   %d\n", processors);
  std::printf("SIMD level:   %d (%s)\n", level, Korvane::SimdLevelName(level));
  std::printf("SSE4.1 forms: %s\n", !KORVANE_HAVE_SSE41 ? "not built"
                                    : level >= Korvane::SIMD_SSE41 ? "in use" : "built, not used on this processor");
  std::printf("workers:      %d\n", std::min(processors, Korvane::kMaxWorkerThreads));
  return 0;
}

RegisterCommand reg("info", "Print the library version and what it uses on this machine", [](CLI::App&) {
  return std::function<int()>(RunInfo);
});

}  // namespace
}  // namespace KorvaneTool
