// Glitch on a 12-megapixel photo against a plain memcpy of the same image
// (the floor: every byte read once and written once) and, where OpenCV is
// built in, the same split, shift and merge done with OpenCV.
#include <benchmark/benchmark.h>

#include <vector>

#include "BenchSupport.h"
#include "effects/glitch/GlitchEffect.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr size_t kBytes = size_t{kWidth} * kHeight * 4;

using KorvaneBench::ProcessCpu;

const std::vector<uint8_t>& Photo() {
  static const std::vector<uint8_t> img = KorvaneBench::MakeImage(kWidth, kHeight, 4);
  return img;
}

void Glitch(benchmark::State& state, int32_t simd_level) {
  std::vector<uint8_t> src = Photo(), dst(kBytes);
  Korvane::GlitchEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::MachineInfo(simd_level));
  Korvane::ImageBuffer in = Korvane::MakeImageBuffer(src.data(), kWidth, kHeight);
  Korvane::ImageBuffer out = Korvane::MakeImageBuffer(dst.data(), kWidth, kHeight);
  Korvane::GlitchImages images{&in, &out};
  if (fx.SetImages(&images) < 0) return state.SkipWithError("SetImages failed");
  Korvane::GlitchParam p;
  p.input = &in;
  p.output = &out;
  p.glitch_type = 6;
  p.radius = 50;
  p.angle = 30;
  ProcessCpu cpu;
  for (auto _ : state) {
    if (fx.Process(&p) < 0) return state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state, kBytes);
}

void BM_GlitchType6(benchmark::State& state) { Glitch(state, Korvane::SIMD_SSE42); }
void BM_GlitchType6Plain(benchmark::State& state) { Glitch(state, Korvane::SIMD_NONE); }

void BM_Memcpy(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, Photo()); }

#if KORVANE_BENCH_OPENCV
// The same work with OpenCV: split, three replicate-border translations, merge.
void BM_OpenCvSplitShiftMerge(benchmark::State& state) {
  KorvaneBench::Pool();  // sets OpenCV's thread count
  std::vector<uint8_t> src_bytes = Photo();
  const cv::Mat src(kHeight, kWidth, CV_8UC4, src_bytes.data());
  cv::Mat dst;
  std::vector<cv::Mat> ch, moved(4);
  ProcessCpu cpu;
  // The offsets the effect uses for type 6 at radius 50 (200 px) and angle 30.
  int32_t offsets[3][2];
  Korvane::GlitchEffect::CalChannelOffsets(6, 0, 0, 200, 30, offsets);
  for (auto _ : state) {
    cv::split(src, ch);
    for (int c = 0; c < 3; ++c) {
      const cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, offsets[c][0], 0, 1, offsets[c][1]);
      cv::warpAffine(ch[c], moved[c], m, src.size(), cv::INTER_NEAREST, cv::BORDER_REPLICATE);
    }
    moved[3] = ch[3];
    cv::merge(moved, dst);
    benchmark::DoNotOptimize(dst.data);
  }
  cpu.Report(state, kBytes);
}
KORVANE_BENCH_MS(BM_OpenCvSplitShiftMerge, "opencv/split_warp_merge_4000x3000");
#endif

KORVANE_BENCH_MS(BM_Memcpy, "memcpy/4000x3000");
KORVANE_BENCH_MS(BM_GlitchType6, "korvane/glitch_4000x3000_type6");
KORVANE_BENCH_MS(BM_GlitchType6Plain, "korvane/glitch_4000x3000_type6_plain");

}  // namespace

BENCHMARK_MAIN();
