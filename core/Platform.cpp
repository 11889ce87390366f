#include "core/Platform.h"

#include <cstdio>
#include <cstdlib>

#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <intrin.h>
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#endif
#endif

namespace Korvane {
namespace Platform {

void WriteDebugString(const char* text) {
#if defined(_WIN32)
  OutputDebugStringA(text);
#else
  std::fputs(text, stderr);
#endif
}

int32_t LogicalProcessorCount() {
#if defined(_WIN32)
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  long n = static_cast<long>(info.dwNumberOfProcessors);
#else
  long n = sysconf(_SC_NPROCESSORS_ONLN);
#endif
  return n < 1 ? 1 : static_cast<int32_t>(n);
}

bool Cpuid(uint32_t leaf, uint32_t regs[4]) {
  regs[0] = regs[1] = regs[2] = regs[3] = 0;
#if defined(_WIN32) && (defined(_M_IX86) || defined(_M_X64))
  int r[4];
  __cpuidex(r, static_cast<int>(leaf), 0);
  for (int i = 0; i < 4; ++i) regs[i] = static_cast<uint32_t>(r[i]);
  return true;
#elif defined(__i386__) || defined(__x86_64__)
  __cpuid_count(leaf, 0, regs[0], regs[1], regs[2], regs[3]);
  return true;
#else
  (void)leaf;
  return false;
#endif
}

uint64_t EnabledStateMask() {
  uint32_t regs[4];
  if (!Cpuid(1, regs) || !(regs[2] & (1u << 27))) return 0;  // no OSXSAVE: XGETBV would fault
#if defined(_WIN32) && (defined(_M_IX86) || defined(_M_X64))
  return static_cast<uint64_t>(_xgetbv(0));
#elif defined(__i386__) || defined(__x86_64__)
  uint32_t lo = 0, hi = 0;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (static_cast<uint64_t>(hi) << 32) | lo;
#else
  return 0;
#endif
}

void* AllocatePixels(size_t bytes) {
  if (bytes == 0) bytes = 1;
#if defined(_WIN32)
  return _aligned_malloc(bytes, 64);
#else
  constexpr size_t kHugePage = size_t{2} << 20;
  const size_t alignment = bytes >= 2 * kHugePage ? kHugePage : 64;
  void* p = nullptr;
  if (posix_memalign(&p, alignment, bytes) != 0) return nullptr;
#if defined(MADV_HUGEPAGE)
  if (alignment == kHugePage) madvise(p, bytes, MADV_HUGEPAGE);  // a hint; failure is harmless
#endif
  return p;
#endif
}

void FreePixels(void* p) {
#if defined(_WIN32)
  _aligned_free(p);
#else
  std::free(p);
#endif
}

}  // namespace Platform
}  // namespace Korvane
