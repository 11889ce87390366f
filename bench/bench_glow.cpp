// Glow on a 12-megapixel photo (radius 40, screen and addition; AVX2, SSE4.1
// and plain kernel forms) against a
// plain memcpy of the image (the floor) and, where OpenCV is built in, the
// same stages done with OpenCV: threshold, half-size resize, two horizontal
// and two vertical box blurs, resize back, add.
#include <benchmark/benchmark.h>

#include <vector>

#include "BenchSupport.h"
#include "effects/glow/GlowEffect.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr size_t kBytes = size_t{kWidth} * kHeight * 4;
constexpr int kRadius = 40;     // full-size pixels
constexpr int kThreshold = 160;

const std::vector<uint8_t>& Photo() {
  static const std::vector<uint8_t> img = KorvaneBench::MakeOpaquePhoto(kWidth, kHeight);
  return img;
}

// tint: also run the full colour path (tint and saturation through HSV).
// simd_level and avx_level cap the kernel forms (the AVX2, SSE4.1 and plain columns).
void Glow(benchmark::State& state, int32_t mode, int32_t simd_level, int32_t avx_level, bool tint) {
  std::vector<uint8_t> src = Photo(), dst(kBytes);
  Korvane::GlowEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::MachineInfo(simd_level, avx_level));
  if (fx.Initialize(kWidth, kHeight) < 0) return state.SkipWithError("Initialize failed");
  Korvane::GlowParam p;
  p.src = Korvane::MakeSmartBufferView(src.data(), kWidth, kHeight);
  p.dst = Korvane::MakeSmartBufferView(dst.data(), kWidth, kHeight);
  p.roi = Korvane::Rect{0, 0, kWidth, kHeight};
  p.glow_intensity = 0.5f;
  p.glow_contrast = 2.0f;
  p.glow_radius = kRadius;
  p.hlr_threshold = kThreshold;
  if (tint) {
    p.color_strength = 0.3f;
    p.color_hue = 0.08f;
    p.saturation = 0.2f;
  }
  p.blend_mode = mode;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    if (fx.Process(p) < 0) return state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state, kBytes);
}

using Korvane::AVX_AVX2;
using Korvane::AVX_NONE;
using Korvane::SIMD_NONE;
using Korvane::SIMD_SSE42;
void BM_GlowScreen(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_SCREEN, SIMD_SSE42, AVX_AVX2, false); }
void BM_GlowScreenSse(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_SCREEN, SIMD_SSE42, AVX_NONE, false); }
void BM_GlowAddition(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_ADDITION, SIMD_SSE42, AVX_AVX2, false); }
void BM_GlowAdditionSse(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_ADDITION, SIMD_SSE42, AVX_NONE, false); }
void BM_GlowScreenTint(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_SCREEN, SIMD_SSE42, AVX_AVX2, true); }
void BM_GlowScreenTintSse(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_SCREEN, SIMD_SSE42, AVX_NONE, true); }
void BM_GlowHue(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_HUE, SIMD_SSE42, AVX_AVX2, false); }
void BM_GlowHueSse(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_HUE, SIMD_SSE42, AVX_NONE, false); }
void BM_GlowScreenPlain(benchmark::State& s) { Glow(s, Korvane::GLOW_BLEND_SCREEN, SIMD_NONE, AVX_NONE, false); }

void BM_Memcpy(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, Photo()); }

#if KORVANE_BENCH_OPENCV
void BM_OpenCvGlow(benchmark::State& state) {
  KorvaneBench::Pool();  // sets OpenCV's thread count
  std::vector<uint8_t> src_bytes = Photo();
  const cv::Mat src(kHeight, kWidth, CV_8UC4, src_bytes.data());
  cv::Mat hlr, small, big, dst;
  const int k = 2 * kRadius - 1;  // the same window at half size as the glow's blur
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    cv::subtract(src, cv::Scalar(kThreshold, kThreshold, kThreshold, 0), hlr);
    cv::resize(hlr, small, cv::Size(kWidth / 2, kHeight / 2), 0, 0, cv::INTER_LINEAR);
    cv::blur(small, small, cv::Size(k, 1));
    cv::blur(small, small, cv::Size(k, 1));
    cv::blur(small, small, cv::Size(1, k));
    cv::blur(small, small, cv::Size(1, k));
    cv::resize(small, big, src.size(), 0, 0, cv::INTER_LINEAR);
    cv::add(src, big, dst);
    benchmark::DoNotOptimize(dst.data);
  }
  cpu.Report(state, kBytes);
}
KORVANE_BENCH_MS(BM_OpenCvGlow, "opencv/glow_4000x3000_r40");
#endif

KORVANE_BENCH_MS(BM_Memcpy, "memcpy/4000x3000");
KORVANE_BENCH_MS(BM_GlowScreen, "korvane/glow_4000x3000_r40_screen");
KORVANE_BENCH_MS(BM_GlowScreenSse, "korvane/glow_4000x3000_r40_screen_sse41");
KORVANE_BENCH_MS(BM_GlowAddition, "korvane/glow_4000x3000_r40_addition");
KORVANE_BENCH_MS(BM_GlowAdditionSse, "korvane/glow_4000x3000_r40_addition_sse41");
KORVANE_BENCH_MS(BM_GlowScreenTint, "korvane/glow_4000x3000_r40_screen_tinted");
KORVANE_BENCH_MS(BM_GlowScreenTintSse, "korvane/glow_4000x3000_r40_screen_tinted_sse41");
KORVANE_BENCH_MS(BM_GlowHue, "korvane/glow_4000x3000_r40_hue");
KORVANE_BENCH_MS(BM_GlowHueSse, "korvane/glow_4000x3000_r40_hue_sse41");
KORVANE_BENCH_MS(BM_GlowScreenPlain, "korvane/glow_4000x3000_r40_screen_plain");

}  // namespace

BENCHMARK_MAIN();
