// One frame of the photo animator (about 200 flow points, a still region) at
// 1080p and 12 megapixels, with OpenCV's warpAffine of the same image beside it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "effects/animation/PhotoAnimator.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

using namespace Korvane;

struct AnimateScene {
  int w, h;
  std::vector<uint8_t> photo, still, out;
  ImageBuffer input, mask, output;
  std::vector<std::vector<float>> points;
  std::vector<FlowData> flows;

  AnimateScene(int w_, int h_) : w(w_), h(h_) {
    photo = KorvaneBench::MakeImage(w, h, 4);
    still.assign(static_cast<size_t>(w) * h, 0);
    out.assign(static_cast<size_t>(w) * h * 4, 0);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const float dx = (x - 0.7f * w) / (0.08f * w), dy = (y - 0.5f * h) / (0.3f * h);
        if (dx * dx + dy * dy < 1.0f) still[static_cast<size_t>(y) * w + x] = 255;
      }
    input = MakeImageBuffer(photo.data(), w, h, PIXEL_BGRA32);
    mask = MakeImageBuffer(still.data(), w, h, PIXEL_GRAY8);
    output = MakeImageBuffer(out.data(), w, h, PIXEL_BGRA32);
    // Ten wavy paths of 20 points (190 moving vertices) and ten anchors.
    for (int i = 0; i < 10; ++i) {
      std::vector<float> path;
      const float base = (0.05f + 0.09f * i) * h;
      for (int k = 0; k < 20; ++k) {
        const float x = (0.02f + 0.05f * k) * w;
        path.insert(path.end(), {x, base + 0.02f * h * std::sin(k * 0.7f + i)});
      }
      points.push_back(path);
      points.push_back({(0.05f + 0.1f * i) * w, 0.97f * h});
    }
    for (size_t i = 0; i < points.size(); ++i) {
      flows.push_back({points[i].data(), static_cast<uint32_t>(points[i].size() / 2), i % 2 ? 2u : 1u});
    }
  }
  AnimationParam Param() {
    AnimationParam p;
    p.input = &input;
    p.mask = &mask;
    p.output = &output;
    p.loop_mode = 2;
    p.anime_frame_count = 48;
    p.p_flow = flows.data();
    p.flow_num = static_cast<uint32_t>(flows.size());
    return p;
  }
};

// Arguments: width, height, and the AVX level allowed (AVX_NONE: the SSE4.1 forms).
void BM_AnimateFrame(benchmark::State& state) {
  AnimateScene scene(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  PhotoAnimator anim(&KorvaneBench::Pool());
  anim.SetSystemInfo(KorvaneBench::MachineInfo(SIMD_SSE42, static_cast<int32_t>(state.range(2))));
  AnimationParam p = scene.Param();
  if (anim.Init(&p) < 0) {
    state.SkipWithError("Init failed");
    return;
  }
  int32_t frame = 0;
  for (auto _ : state) {
    if (anim.Animate(&p, frame) < 0) {
      state.SkipWithError("Animate failed");
      return;
    }
    frame = (frame + 1) % 48;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * scene.w * scene.h);
}
BENCHMARK(BM_AnimateFrame)->Name("korvane/animate_frame_1920x1080")->Args({1920, 1080, AVX_AVX2})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_AnimateFrame)->Name("korvane/animate_frame_1920x1080_sse41")->Args({1920, 1080, AVX_NONE})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_AnimateFrame)->Name("korvane/animate_frame_4000x3000")->Args({4000, 3000, AVX_AVX2})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_AnimateFrame)->Name("korvane/animate_frame_4000x3000_sse41")->Args({4000, 3000, AVX_NONE})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

#if KORVANE_BENCH_OPENCV
void BM_OpenCvWarpAffine(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  KorvaneBench::Pool();  // sets OpenCV's thread count
  std::vector<uint8_t> photo = KorvaneBench::MakeImage(w, h, 4);
  cv::Mat src(h, w, CV_8UC4, photo.data()), dst(h, w, CV_8UC4);
  const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(w * 0.5f, h * 0.5f), 2.0, 1.01);
  for (auto _ : state) {
    cv::warpAffine(src, dst, m, src.size(), cv::INTER_LINEAR, cv::BORDER_REFLECT_101);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * w * h);
}
BENCHMARK(BM_OpenCvWarpAffine)->Name("opencv/warpAffine_1920x1080")->Args({1920, 1080})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_OpenCvWarpAffine)->Name("opencv/warpAffine_4000x3000")->Args({4000, 3000})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();
