// The shared resize and box-blur kernels against OpenCV on a 4000 x 3000
// image, both with the engine's worker count.
//
//   korvane_bench_kernels --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//
// Each pair runs in one process, OpenCV with cv::setNumThreads set to the
// engine's worker count; Korvane's rows run the AVX2 forms (suffix _sse4:
// SSE4.1, _plain: no SIMD), with process time (every thread) beside wall
// time. Korvane's box blur is one horizontal and one
// vertical pass in place; OpenCV's cv::blur with a (2r - 1)-wide kernel.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "BenchForms.h"
#include "BenchSupport.h"
#include "core/BilinearResize.h"
#include "core/BoxBlur.h"
#include "core/ThreadAdapter.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

using namespace Korvane;

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;

struct Adapter {
  CThreadAdapter adapter;
  Adapter() { adapter.Init(&KorvaneBench::Pool()); }
};

std::vector<uint8_t> Float96Image() {
  const std::vector<uint8_t> bytes = KorvaneBench::MakeImage(kWidth, kHeight, 3);
  std::vector<uint8_t> out(bytes.size() * 4);
  for (size_t i = 0; i < bytes.size(); ++i) {
    const float v = bytes[i] / 255.0f;
    std::memcpy(&out[i * 4], &v, 4);
  }
  return out;
}

void KorvaneResize(benchmark::State& state, double scale, int form) {
  Adapter a;
  std::vector<uint8_t> src = KorvaneBench::MakeImage(kWidth, kHeight, 4);
  const int dw = static_cast<int>(kWidth * scale), dh = static_cast<int>(kHeight * scale);
  std::vector<uint8_t> dst(static_cast<size_t>(dw) * dh * 4);
  ResizeParam p;
  p.src = MakeSmartBufferView(src.data(), kWidth, kHeight);
  p.dst = MakeSmartBufferView(dst.data(), dw, dh);
  p.src_roi = Rect{0, 0, kWidth, kHeight};
  const SystemInfo info = KorvaneBench::FormInfo(form);
  for (auto _ : state) {
    if (RunBilinearResize(a.adapter, info, p, Rect{0, 0, dw, dh}) < 0) state.SkipWithError("resize failed");
    benchmark::ClobberMemory();
  }
}

void KorvaneBlur(benchmark::State& state, int fmt, int radius, int form) {
  Adapter a;
  std::vector<uint8_t> img = fmt == PIXEL_FLOAT96 ? Float96Image()
                                                  : KorvaneBench::MakeImage(kWidth, kHeight, ChannelCount(fmt));
  BoxBlurParam p;
  p.src = MakeImageBuffer(img.data(), kWidth, kHeight, fmt);
  p.radius = radius;
  const SystemInfo info = KorvaneBench::FormInfo(form);
  for (auto _ : state) {
    if (RunBoxBlur(a.adapter, info, p, Rect{0, 0, kWidth, kHeight}) < 0) state.SkipWithError("blur failed");
    benchmark::ClobberMemory();
  }
}

#if KORVANE_BENCH_OPENCV
void OpenCvResize(benchmark::State& state, double scale) {
  KorvaneBench::Pool();  // sets OpenCV's thread count
  std::vector<uint8_t> bytes = KorvaneBench::MakeImage(kWidth, kHeight, 4);
  cv::Mat src(kHeight, kWidth, CV_8UC4, bytes.data());
  cv::Mat dst(static_cast<int>(kHeight * scale), static_cast<int>(kWidth * scale), CV_8UC4);
  for (auto _ : state) {
    cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_LINEAR);
    benchmark::ClobberMemory();
  }
}

void OpenCvBlur(benchmark::State& state, int fmt, int radius) {
  KorvaneBench::Pool();
  std::vector<uint8_t> bytes = fmt == PIXEL_FLOAT96 ? Float96Image()
                                                    : KorvaneBench::MakeImage(kWidth, kHeight, ChannelCount(fmt));
  const int type = fmt == PIXEL_BGRA32 ? CV_8UC4 : fmt == PIXEL_GRAY8 ? CV_8UC1 : CV_32FC3;
  cv::Mat src(kHeight, kWidth, type, bytes.data());
  cv::Mat dst(kHeight, kWidth, type);
  const int k = 2 * radius - 1;
  for (auto _ : state) {
    cv::blur(src, dst, cv::Size(k, k));
    benchmark::ClobberMemory();
  }
}
#endif

// The fastest repetition: on a machine shared with other work it shows the
// kernels' own speed better than the mean, which includes waiting for a core.
double MinOf(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

// The floor: one memcpy of the 4000 x 3000 BGRA image (every byte read and
// written once, one thread).
void Memcpy(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, KorvaneBench::MakeImage(kWidth, kHeight, 4)); }

void Register() {
  benchmark::RegisterBenchmark("memcpy/4000x3000", Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();
  struct Case {
    const char* name;
    int kind;  // 0 resize, 1 blur
    double scale;
    int fmt, radius;
  };
  const Case cases[] = {
      {"resize_bgra_x0.5", 0, 0.5, PIXEL_BGRA32, 0}, {"resize_bgra_x2", 0, 2.0, PIXEL_BGRA32, 0},
      {"boxblur_bgra_r8", 1, 0, PIXEL_BGRA32, 8},     {"boxblur_bgra_r31", 1, 0, PIXEL_BGRA32, 31},
      {"boxblur_gray_r8", 1, 0, PIXEL_GRAY8, 8},      {"boxblur_float96_r8", 1, 0, PIXEL_FLOAT96, 8},
  };
  for (const Case& c : cases) {
    const std::string name = c.name;
    if (c.kind == 0) {
      for (int form : {KorvaneBench::kAvx2, KorvaneBench::kSse41, KorvaneBench::kPlain}) {
        benchmark::RegisterBenchmark(("korvane/" + name + KorvaneBench::FormSuffix(form)).c_str(), KorvaneResize,
                                     c.scale, form)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MeasureProcessCPUTime()
            ->ComputeStatistics("min", MinOf);
      }
#if KORVANE_BENCH_OPENCV
      benchmark::RegisterBenchmark(("opencv/" + name).c_str(), OpenCvResize, c.scale)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          ->MeasureProcessCPUTime()
          ->ComputeStatistics("min", MinOf);
#endif
    } else {
      for (int form : {KorvaneBench::kAvx2, KorvaneBench::kSse41, KorvaneBench::kPlain}) {
        benchmark::RegisterBenchmark(("korvane/" + name + KorvaneBench::FormSuffix(form)).c_str(), KorvaneBlur, c.fmt,
                                     c.radius, form)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MeasureProcessCPUTime()
            ->ComputeStatistics("min", MinOf);
      }
#if KORVANE_BENCH_OPENCV
      benchmark::RegisterBenchmark(("opencv/" + name).c_str(), OpenCvBlur, c.fmt, c.radius)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          ->MeasureProcessCPUTime()
          ->ComputeStatistics("min", MinOf);
#endif
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
