// Which kernel form runs: the choice follows the SystemInfo an effect was
// given, never the build alone, and its name is the form that runs.
#include <gtest/gtest.h>

#include <string>

#include "core/Simd.h"

namespace Korvane {
namespace {

int Plain() { return 0; }
int Sse() { return 1; }
int Avx2() { return 2; }

TEST(KernelPick, TheMachineDescriptionChoosesTheForm) {
  struct Case {
    int32_t simd, avx, want;
  } cases[] = {{SIMD_NONE, AVX_NONE, 0}, {SIMD_SSE3, AVX_NONE, 0},  {SIMD_SSE41, AVX_NONE, 1},
               {SIMD_SSE42, AVX_NONE, 1}, {SIMD_SSE41, AVX_AVX2, 2}};
  for (const Case& c : cases) {
    SystemInfo info;
    info.simd_level = c.simd;
    info.avx_level = c.avx;
    const auto k = ChooseKernel(info, &Plain, "Plain", &Sse, "Sse", &Avx2, "Avx2");
    EXPECT_EQ(k.fn(), c.want) << c.simd << " " << c.avx;
    EXPECT_EQ(std::string(k.name), c.want == 0 ? "Plain" : c.want == 1 ? "Sse" : "Avx2");
    EXPECT_EQ(k.simd, c.want > 0);
    EXPECT_EQ(k.avx2, c.want == 2);
  }
  // A form left out of the build is never chosen.
  SystemInfo both;
  both.simd_level = SIMD_SSE42;
  both.avx_level = AVX_AVX2;
  using F = int (*)();
  EXPECT_EQ(ChooseKernel<F>(both, &Plain, "Plain", &Sse, "Sse", nullptr, "Avx2").fn(), 1);
  EXPECT_EQ(ChooseKernel<F>(both, &Plain, "Plain", nullptr, "Sse", nullptr, "Avx2").fn(), 0);
}

}  // namespace
}  // namespace Korvane
