// Light rays on a 12-megapixel photo (radial and directional, rays 400
// pixels long, softness 8) and on a 1920 x 1080 frame, against a plain
// memcpy of the image (the floor) and, where OpenCV is built in, the same
// stages done with OpenCV: half-size resize, lightness threshold,
// cv::warpPolar out and back (radial) or cv::warpAffine rotations
// (directional), a one-sided row blur, the soft box blur, resize back and a
// saturating add.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "effects/light_rays/LightRaysEffect.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kLength = 400;     // full-size pixels
constexpr int kSoftness = 8;
constexpr int kThreshold = 160;
constexpr float kAngle = 300.0f;  // directional: down and to the right

const std::vector<uint8_t>& Photo(int w, int h) {
  static std::vector<uint8_t> big, hd;
  std::vector<uint8_t>& img = w == 4000 ? big : hd;
  if (img.empty()) img = KorvaneBench::MakeOpaquePhoto(w, h);
  return img;
}

// Kernel forms of a row: the machine's best (AVX2 here), SSE4.1, plain.
enum Form { kBest, kSse41, kPlain };

Korvane::SystemInfo FormInfo(Form form) {
  if (form == kPlain) return KorvaneBench::MachineInfo(Korvane::SIMD_NONE);
  return form == kSse41 ? KorvaneBench::MachineInfo(Korvane::SIMD_SSE42, Korvane::AVX_NONE) : KorvaneBench::MachineInfo();
}

void LightRays(benchmark::State& state, int w, int h, int32_t mode, Form form) {
  std::vector<uint8_t> src = Photo(w, h), dst(src.size());
  Korvane::LightRaysEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(FormInfo(form));
  if (fx.Initialize(w, h) < 0) return state.SkipWithError("Initialize failed");
  Korvane::LightRaysParam p;
  p.src = Korvane::MakeSmartBufferView(src.data(), w, h);
  p.dst = Korvane::MakeSmartBufferView(dst.data(), w, h);
  p.roi = Korvane::Rect{0, 0, w, h};
  p.ray_mode = mode;
  p.ray_length = kLength * w / 4000.0f;
  p.ray_softness = kSoftness * w / 4000.0f;
  p.hlr_threshold = kThreshold;
  p.center_x = w / 2;
  p.center_y = h / 3;
  p.ray_angle = kAngle;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    if (fx.Process(p) < 0) return state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state, src.size());
}

void BM_Radial(benchmark::State& s) { LightRays(s, 4000, 3000, Korvane::LIGHT_RAYS_RADIAL, kBest); }
void BM_RadialSse(benchmark::State& s) { LightRays(s, 4000, 3000, Korvane::LIGHT_RAYS_RADIAL, kSse41); }
void BM_RadialPlain(benchmark::State& s) { LightRays(s, 4000, 3000, Korvane::LIGHT_RAYS_RADIAL, kPlain); }
void BM_Directional(benchmark::State& s) { LightRays(s, 4000, 3000, Korvane::LIGHT_RAYS_DIRECTIONAL, kBest); }
void BM_DirectionalSse(benchmark::State& s) { LightRays(s, 4000, 3000, Korvane::LIGHT_RAYS_DIRECTIONAL, kSse41); }
void BM_RadialHd(benchmark::State& s) { LightRays(s, 1920, 1080, Korvane::LIGHT_RAYS_RADIAL, kBest); }
void BM_RadialHdSse(benchmark::State& s) { LightRays(s, 1920, 1080, Korvane::LIGHT_RAYS_RADIAL, kSse41); }
void BM_DirectionalHd(benchmark::State& s) { LightRays(s, 1920, 1080, Korvane::LIGHT_RAYS_DIRECTIONAL, kBest); }
void BM_DirectionalHdSse(benchmark::State& s) { LightRays(s, 1920, 1080, Korvane::LIGHT_RAYS_DIRECTIONAL, kSse41); }

void BM_Memcpy(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, Photo(4000, 3000)); }

#if KORVANE_BENCH_OPENCV
// The stages both pipelines share: half size and the lightness threshold
// before the rays, the soft blur, enlargement and add after them.
struct OpenCvRays {
  cv::Mat src, small, hlr, rays, big, dst, mask, lightness;
  std::vector<cv::Mat> planes;
  int w, h, length, soft;
  OpenCvRays(std::vector<uint8_t>& bytes, int w_, int h_) : src(h_, w_, CV_8UC4, bytes.data()), w(w_), h(h_) {
    length = kLength * w / 4000 / 2;
    soft = kSoftness * w / 4000 / 2 + 1;
  }
  void Before() {
    cv::resize(src, small, cv::Size(w / 2, h / 2), 0, 0, cv::INTER_LINEAR);
    cv::split(small, planes);
    cv::Mat mx = cv::max(cv::max(planes[0], planes[1]), planes[2]);
    cv::Mat mn = cv::min(cv::min(planes[0], planes[1]), planes[2]);
    cv::addWeighted(mx, 0.5, mn, 0.5, 0.0, lightness);
    cv::threshold(lightness, mask, kThreshold - 1, 255, cv::THRESH_BINARY);
    hlr = cv::Mat::zeros(small.size(), small.type());
    small.copyTo(hlr, mask);
  }
  void After() {
    cv::blur(rays, rays, cv::Size(soft, soft));
    cv::resize(rays, big, src.size(), 0, 0, cv::INTER_LINEAR);
    cv::add(src, big, dst);
  }
  // Light moves towards higher columns only: a box whose window ends at the pixel.
  void RowBlur(const cv::Mat& in, cv::Mat& out) const {
    cv::blur(in, out, cv::Size(length, 1), cv::Point(length - 1, 0), cv::BORDER_CONSTANT);
  }
};

void BM_OpenCvRadial(benchmark::State& state, int w, int h) {
  KorvaneBench::Pool();  // sets OpenCV's thread count
  std::vector<uint8_t> bytes = Photo(w, h);
  OpenCvRays cv_rays(bytes, w, h);
  const cv::Point2f centre(w / 4.0f, h / 6.0f);
  const double radius = std::hypot(w / 2.0, h / 2.0);
  const cv::Size polar_size(static_cast<int>(radius) + 1, 3601);
  cv::Mat polar, smeared;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    cv_rays.Before();
    cv::warpPolar(cv_rays.hlr, polar, polar_size, centre, radius, cv::INTER_LINEAR | cv::WARP_FILL_OUTLIERS);
    cv_rays.RowBlur(polar, smeared);
    cv::warpPolar(smeared, cv_rays.rays, cv_rays.small.size(), centre, radius,
                  cv::INTER_LINEAR | cv::WARP_FILL_OUTLIERS | cv::WARP_INVERSE_MAP);
    cv_rays.After();
    benchmark::DoNotOptimize(cv_rays.dst.data);
  }
  cpu.Report(state, bytes.size());
}

void BM_OpenCvDirectional(benchmark::State& state, int w, int h) {
  KorvaneBench::Pool();
  std::vector<uint8_t> bytes = Photo(w, h);
  OpenCvRays cv_rays(bytes, w, h);
  const int side = static_cast<int>(std::hypot(w / 2.0, h / 2.0)) + 1;
  // Turn so the rays run along the rows, in a square that holds any angle.
  cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(w / 4.0f, h / 4.0f), -kAngle, 1.0);
  turn.at<double>(0, 2) += side / 2.0 - w / 4.0;
  turn.at<double>(1, 2) += side / 2.0 - h / 4.0;
  cv::Mat turned, smeared;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    cv_rays.Before();
    cv::warpAffine(cv_rays.hlr, turned, turn, cv::Size(side, side), cv::INTER_LINEAR);
    cv_rays.RowBlur(turned, smeared);
    cv::warpAffine(smeared, cv_rays.rays, turn, cv_rays.small.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
    cv_rays.After();
    benchmark::DoNotOptimize(cv_rays.dst.data);
  }
  cpu.Report(state, bytes.size());
}

BENCHMARK_CAPTURE(BM_OpenCvRadial, big, 4000, 3000)
    ->Name("opencv/lightrays_4000x3000_radial")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_OpenCvDirectional, big, 4000, 3000)
    ->Name("opencv/lightrays_4000x3000_directional")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_OpenCvRadial, hd, 1920, 1080)
    ->Name("opencv/lightrays_1920x1080_radial")->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

KORVANE_BENCH_MS(BM_Memcpy, "memcpy/4000x3000");
KORVANE_BENCH_MS(BM_Radial, "korvane/lightrays_4000x3000_radial");
KORVANE_BENCH_MS(BM_RadialSse, "korvane/lightrays_4000x3000_radial_sse4");
KORVANE_BENCH_MS(BM_RadialPlain, "korvane/lightrays_4000x3000_radial_plain");
KORVANE_BENCH_MS(BM_Directional, "korvane/lightrays_4000x3000_directional");
KORVANE_BENCH_MS(BM_DirectionalSse, "korvane/lightrays_4000x3000_directional_sse4");
KORVANE_BENCH_MS(BM_RadialHd, "korvane/lightrays_1920x1080_radial");
KORVANE_BENCH_MS(BM_RadialHdSse, "korvane/lightrays_1920x1080_radial_sse4");
KORVANE_BENCH_MS(BM_DirectionalHd, "korvane/lightrays_1920x1080_directional");
KORVANE_BENCH_MS(BM_DirectionalHdSse, "korvane/lightrays_1920x1080_directional_sse4");

}  // namespace

BENCHMARK_MAIN();
