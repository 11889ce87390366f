// Sparkle frames at 1080p and 12 megapixels (about 200 automatic and 20
// manual glints, rotating and twinkling) against a memcpy of the same photo,
// the floor of any effect that writes a whole frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "effects/sparkle/SparkleEffect.h"

namespace {

using KorvaneBench::ProcessCpu;

// A dark gradient with `spots` small bright points at fixed random places:
// the light points the detector finds.
std::vector<uint8_t> SpotsPhoto(int w, int h, int spots) {
  std::vector<uint8_t> img(static_cast<size_t>(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
      p[0] = static_cast<uint8_t>(60 + 40 * y / h);
      p[1] = static_cast<uint8_t>(30 + 30 * x / w);
      p[2] = static_cast<uint8_t>(20 + 20 * y / h);
      p[3] = 255;
    }
  std::mt19937 rng(11);
  const int r = std::max(2, std::max(w, h) / 320);  // about two pixels of the 640-pixel copy
  for (int i = 0; i < spots; ++i) {
    const int cx = static_cast<int>(rng() % static_cast<unsigned>(w));
    const int cy = static_cast<int>(rng() % static_cast<unsigned>(h));
    for (int y = std::max(0, cy - 2 * r); y <= std::min(h - 1, cy + 2 * r); ++y)
      for (int x = std::max(0, cx - 2 * r); x <= std::min(w - 1, cx + 2 * r); ++x) {
        const float d2 = static_cast<float>((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (r * r);
        const int v = static_cast<int>(230.0f * std::exp(-d2));
        uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
        for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::min(255, p[c] + v));
      }
  }
  return img;
}

std::vector<uint8_t> Star() {
  const int n = Korvane::SPK_SIZE;
  std::vector<uint8_t> img(static_cast<size_t>(n) * n * 4);
  const float c = (n - 1) * 0.5f;
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const float dx = std::fabs(x - c), dy = std::fabs(y - c);
      const float spike = std::max(dx < 1.5f ? 1.0f - dy / c : 0.0f, dy < 1.5f ? 1.0f - dx / c : 0.0f);
      const float v = std::min(1.0f, std::exp(-(dx * dx + dy * dy) / 120.0f) + spike);
      uint8_t* p = &img[(static_cast<size_t>(y) * n + x) * 4];
      p[0] = p[1] = p[2] = static_cast<uint8_t>(255.0f * v);
      p[3] = 255;
    }
  return img;
}

void SparkleFrame(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const int32_t mode = static_cast<int32_t>(state.range(2));
  std::vector<uint8_t> src = SpotsPhoto(w, h, 200), dst(src.size()), star = Star();
  Korvane::SparkleEffect fx(&KorvaneBench::Pool());
  // range(3): 2 the machine's best forms (AVX2 here), 1 SSE4.1, 0 plain.
  const int64_t form = state.range(3);
  fx.SetSystemInfo(form == 0   ? KorvaneBench::MachineInfo(Korvane::SIMD_NONE)
                   : form == 1 ? KorvaneBench::MachineInfo(Korvane::SIMD_SSE42, Korvane::AVX_NONE)
                               : KorvaneBench::MachineInfo());
  Korvane::ImageBuffer in = Korvane::MakeImageBuffer(src.data(), w, h);
  Korvane::ImageBuffer out = Korvane::MakeImageBuffer(dst.data(), w, h);
  Korvane::ImageBuffer shape = Korvane::MakeImageBuffer(star.data(), Korvane::SPK_SIZE, Korvane::SPK_SIZE);
  if (fx.SetSource(&in) < 0 || fx.SetAutoSparkleShape(&shape) < 0) return state.SkipWithError("set-up failed");
  Korvane::SparkleShape manual;
  manual.image = shape;
  std::vector<Korvane::SparklePoint> points;
  for (int i = 0; i < 20; ++i) points.push_back({w * (0.05f + 0.045f * i), h * (0.3f + 0.02f * i), 1.0f + 0.1f * i});
  if (fx.AddManualSparkles(points.data(), 20, &manual) < 0) return state.SkipWithError("manual sparkles failed");
  Korvane::SparkleParam p;
  p.quality_mode = mode;
  p.rotate = 1;
  p.twinkle = 1;
  p.anime_frame_count = 48;
  Korvane::SparkleRenderParam a, m;
  a.color_mode = Korvane::SPARKLE_COLOR_PHOTO;
  m.color_mode = Korvane::SPARKLE_COLOR_RANDOM;
  ProcessCpu cpu;
  int32_t frame = 0;
  for (auto _ : state) {
    p.anime_frame_index = frame++ % p.anime_frame_count;  // every frame turns the shapes anew
    if (fx.Process(&p, &a, &m, &in, &out, Korvane::Rect{0, 0, w, h}) < 0) return state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state);
  state.counters["points"] = static_cast<double>(fx.AutoSparkleList().size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.size()));
}

const std::vector<uint8_t>& Photo1080() {
  static const std::vector<uint8_t> img = KorvaneBench::MakeImage(1920, 1080, 4);
  return img;
}
const std::vector<uint8_t>& Photo12M() {
  static const std::vector<uint8_t> img = KorvaneBench::MakeImage(4000, 3000, 4);
  return img;
}
void BM_Memcpy1080(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, Photo1080()); }
void BM_Memcpy12M(benchmark::State& state) { KorvaneBench::MemcpyFloor(state, Photo12M()); }

}  // namespace

KORVANE_BENCH_MS(BM_Memcpy1080, "memcpy/1920x1080");
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_1920x1080")->Args({1920, 1080, 1, 2});
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_1920x1080_sse4")->Args({1920, 1080, 1, 1});
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_1920x1080_plain")->Args({1920, 1080, 1, 0});
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_1920x1080_full_size")->Args({1920, 1080, 0, 2});
KORVANE_BENCH_MS(BM_Memcpy12M, "memcpy/4000x3000");
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_4000x3000")->Args({4000, 3000, 1, 2});
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_4000x3000_sse4")->Args({4000, 3000, 1, 1});
KORVANE_BENCH_MS(SparkleFrame, "korvane/sparkle_frame_4000x3000_full_size")->Args({4000, 3000, 0, 2});

BENCHMARK_MAIN();
