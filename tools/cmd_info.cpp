// korvane info: the library version and what it finds on this machine.
#include <algorithm>
#include <cstdio>

#include "Command.h"
#include "frontend/Session.h"
#include "ToolSupport.h"

namespace KorvaneTool {
namespace {

const char* const kSimdLevels[] = {"none", "SSE", "SSE2", "SSE3", "SSSE3", "SSE4.1", "SSE4.2"};

// What the library itself reports: the engine is asked, so the lines say
// what it will really run on this machine.
int RunInfo() {
  KorvaneFrontend::Engine engine;
  Korvane::EngineInfo info;
  if (!engine.get() || engine.get()->GetInfo(&info) < 0) return Fail("cannot create the engine");
  std::printf("Korvane %s\n", info.version);
  std::printf("processors:   %d\n", info.processor_count);
  const int level = info.simd_level >= 0 && info.simd_level <= 6 ? info.simd_level : 0;
  std::printf("SIMD level:   %s%s\n", kSimdLevels[level], info.avx_level >= 1 ? ", AVX2" : "");
  std::printf("forms in use: %s\n", info.kernel_forms);
  std::printf("workers:      %d\n", info.worker_count);
  return 0;
}

RegisterCommand reg("info", "Print the library version and what it uses on this machine", [](CLI::App&) {
  return std::function<int()>(RunInfo);
});

}  // namespace
}  // namespace KorvaneTool
