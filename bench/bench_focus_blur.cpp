// Focus blur of a 4000x3000 photo against an OpenCV pipeline doing the same
// work: two Gaussian blurs with the matching sigmas and kernel sizes, then the
// per-pixel blend between photo, weak and strong blur by the guide's distance
// from the focus value. Both use the same number of threads.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "BenchForms.h"
#include "BenchSupport.h"
#include "core/FocusBlend.h"
#include "core/GaussianBlur.h"
#include "core/Simd.h"
#include "core/ThreadAdapter.h"
#include "effects/focus_blur/FocusBlurEffect.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kWidth = 4000, kHeight = 3000;
constexpr int kFocus = 200, kRange = 12;

struct Inputs {
  std::vector<uint8_t> photo = KorvaneBench::MakeImage(kWidth, kHeight, 4);
  std::vector<uint8_t> guide;
  std::vector<uint8_t> out = std::vector<uint8_t>(static_cast<size_t>(kWidth) * kHeight * 4);
  Inputs() {
    // A depth ramp from far (top) to near (bottom) with some texture: about
    // a tenth of the picture is in focus.
    guide.resize(static_cast<size_t>(kWidth) * kHeight);
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x)
        guide[static_cast<size_t>(y) * kWidth + x] = static_cast<uint8_t>(y * 255 / kHeight + ((x / 16) & 3));
  }
};

Inputs& Shared() {
  static Inputs in;
  return in;
}

void BM_Korvane(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  Inputs& in = Shared();
  Korvane::FocusBlurEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::FormInfo(static_cast<int>(state.range(1))));
  Korvane::FocusBlurParam p;
  p.input = Korvane::MakeImageBuffer(in.photo.data(), kWidth, kHeight);
  p.mask = Korvane::MakeImageBuffer(in.guide.data(), kWidth, kHeight, Korvane::PIXEL_GRAY8);
  p.output = Korvane::MakeImageBuffer(in.out.data(), kWidth, kHeight);
  p.blur_level = level;
  p.focus_value = kFocus;
  p.focus_range = kRange;
  float w[Korvane::kGaussianHalfTaps];
  state.counters["taps"] = Korvane::MakeGaussianWeights(level, kWidth, kHeight, w);
  for (auto _ : state) {
    fx.Process(&p);
    benchmark::DoNotOptimize(in.out.data());
  }
}

#if KORVANE_BENCH_OPENCV
void BM_OpenCV(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  KorvaneBench::Pool();  // sets OpenCV's thread count
  Inputs& in = Shared();
  const cv::Mat photo(kHeight, kWidth, CV_8UC4, in.photo.data());
  const cv::Mat guide(kHeight, kWidth, CV_8UC1, in.guide.data());
  cv::Mat out(kHeight, kWidth, CV_8UC4, in.out.data());
  float w[Korvane::kGaussianHalfTaps];
  const int n = Korvane::MakeGaussianWeights(level, kWidth, kHeight, w);
  const int nw = Korvane::MakeGaussianWeights(level / 6, kWidth, kHeight, w);
  const double sigma = std::min(kWidth, kHeight) * (level * 0.02 / 100);
  const double sigma_w = std::min(kWidth, kHeight) * ((level / 6) * 0.02 / 100);
  // Per guide value: the first image's weight in 255ths, and whether the
  // first image is the strong blur rather than the photo.
  int32_t t[256];
  Korvane::MakeBlendTable(kFocus, t);
  cv::Mat wa_lut(1, 256, CV_32F), ww_lut(1, 256, CV_32F), far_lut(1, 256, CV_8U);
  for (int v = 0; v < 256; ++v) {
    const int wa = t[v] > 127 ? 2 * t[v] - 255 : 255 - 2 * t[v];
    wa_lut.at<float>(v) = wa / 255.0f;
    ww_lut.at<float>(v) = (255 - wa) / 255.0f;
    far_lut.at<uint8_t>(v) = t[v] > 127 ? 255 : 0;
  }
  cv::Mat strong, weak, first, wa, ww, far;
  for (auto _ : state) {
    cv::GaussianBlur(photo, strong, cv::Size(2 * n - 1, 2 * n - 1), sigma, sigma, cv::BORDER_REPLICATE);
    if (nw > 1) {
      cv::GaussianBlur(photo, weak, cv::Size(2 * nw - 1, 2 * nw - 1), sigma_w, sigma_w, cv::BORDER_REPLICATE);
    } else {
      photo.copyTo(weak);
    }
    cv::LUT(guide, far_lut, far);
    cv::LUT(guide, wa_lut, wa);
    cv::LUT(guide, ww_lut, ww);
    photo.copyTo(first);
    strong.copyTo(first, far);
    cv::blendLinear(first, weak, wa, ww, out);
    benchmark::DoNotOptimize(out.data);
  }
  state.counters["taps"] = n;
}
#endif

// The weak blur at level 6 (3 taps) on its own, in the best form: the two
// passes through an intermediate image (0) against both passes in one (1).
void BM_WeakBlur(benchmark::State& state) {
  const bool both = state.range(0) != 0;
  Inputs& in = Shared();
  const Korvane::SystemInfo info = KorvaneBench::FormInfo(KorvaneBench::kAvx2);
  Korvane::CThreadAdapter adapter;
  adapter.Init(&KorvaneBench::Pool());
  std::vector<uint8_t> work(in.photo.size());
  Korvane::GaussianBlurParam p;
  p.buffer = Korvane::MakeSmartBufferView(work.data(), kWidth, kHeight);
  p.source = Korvane::MakeSmartBufferView(in.photo.data(), kWidth, kHeight);
  p.weights.reset(new float[Korvane::kGaussianHalfTaps]);
  p.kernel_length = Korvane::MakeGaussianWeights(1, kWidth, kHeight, p.weights.get());
  p.mask.reset(new bool[static_cast<size_t>(kWidth) * kHeight]);
  for (size_t i = 0; i < in.guide.size(); ++i) p.mask[i] = std::abs(in.guide[i] - kFocus) > kRange;
  const Korvane::Rect all{0, 0, kWidth, kHeight};
  using namespace Korvane;
  const ThreadTask h = KORVANE_PICK_AVX2(info, GaussianBlurH, GaussianBlurH_SSE, GaussianBlurH_AVX2).fn;
  const ThreadTask v = KORVANE_PICK_AVX2(info, GaussianBlurV, GaussianBlurV_SSE, GaussianBlurV_AVX2).fn;
  const ThreadTask hv = KORVANE_PICK_AVX2(info, GaussianBlurHV, GaussianBlurHV_SSE, GaussianBlurHV_AVX2).fn;
  for (auto _ : state) {
    if (both) {
      adapter.RunTaskByMultiThread(hv, &p, nullptr, all);
    } else {
      adapter.RunTaskByMultiThread(h, &p, nullptr, all);
      adapter.RunTaskByMultiThread(v, &p, nullptr, all, false);
    }
    benchmark::DoNotOptimize(work.data());
  }
  state.counters["taps"] = p.kernel_length;
}
BENCHMARK(BM_WeakBlur)->Name("korvane/weakblur_4000x3000_level6")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()->UseRealTime();

// Process CPU time beside wall time: on a loaded machine it shows the work
// done by all threads. Run with --benchmark_enable_random_interleaving=true
// and repetitions so every form and the peer see the same load. Rows without
// a suffix run the AVX2 form (SSE4.1 where the processor lacks AVX2).
void Register() {
  for (int level : {60, 6}) {
    const std::string size = "_4000x3000_level" + std::to_string(level);
#if KORVANE_BENCH_OPENCV
    benchmark::RegisterBenchmark(("opencv/focusblur" + size).c_str(), BM_OpenCV)
        ->Arg(level)
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();
#endif
    for (int form : {KorvaneBench::kAvx2, KorvaneBench::kSse41, KorvaneBench::kPlain}) {
      benchmark::RegisterBenchmark(("korvane/focusblur" + size + KorvaneBench::FormSuffix(form)).c_str(), BM_Korvane)
          ->Args({level, form})
          ->Unit(benchmark::kMillisecond)
          ->MeasureProcessCPUTime()
          ->UseRealTime();
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
