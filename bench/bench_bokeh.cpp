// Bokeh: the source set-up (light points on a 640-pixel copy) of a 12 MP
// photo, and whole frames at 1080p and 12 MP (about 200 points, quality
// mode 1, twinkle on), with the background blur re-done every frame and kept
// between frames. In the same run: a memcpy of each image (the floor) and
// our own focus blur at level 60 on the same photo, the work the frame's
// background blur stands in for.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <memory>
#include <random>

#include "BenchSupport.h"
#include "effects/bokeh/BokehEffect.h"
#include "effects/focus_blur/FocusBlurEffect.h"

namespace {

// A dark, smooth photo with `points` small bright lights scattered over it,
// and a depth guide: near (bright) at the bottom, far at the top.
struct Scene {
  int width, height;
  std::vector<uint8_t> photo, guide, out, disc;
  Scene(int w, int h, int points) : width(w), height(h) {
    photo = KorvaneBench::MakeImage(w, h, 4);
    for (size_t i = 0; i < photo.size(); ++i) photo[i] = static_cast<uint8_t>(photo[i] / 4 + 10);
    std::mt19937 rng(5);
    const int r = std::max(2, w / 400);
    for (int n = 0; n < points; ++n) {
      const int cx = r + static_cast<int>(rng() % (w - 2 * r)), cy = r + static_cast<int>(rng() % (h * 2 / 3));
      for (int y = cy - r; y <= cy + r; ++y)
        for (int x = cx - r; x <= cx + r; ++x) {
          uint8_t* p = &photo[(static_cast<size_t>(y) * w + x) * 4];
          p[0] = 140, p[1] = 220, p[2] = 255;
        }
    }
    guide.resize(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) guide[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(y * 255 / h);
    out.resize(photo.size());
    const int d = 128;
    disc.resize(static_cast<size_t>(d) * d * 4);
    for (int y = 0; y < d; ++y)
      for (int x = 0; x < d; ++x) {
        const float dist = std::hypot(x - 63.5f, y - 63.5f);
        const uint8_t v = dist > 58 ? 0 : (dist > 54 ? 255 : 210);
        uint8_t* p = &disc[(static_cast<size_t>(y) * d + x) * 4];
        p[0] = p[1] = p[2] = v;
        p[3] = 255;
      }
  }
  Korvane::ImageBuffer Photo() { return Korvane::MakeImageBuffer(photo.data(), width, height); }
  Korvane::ImageBuffer Guide() { return Korvane::MakeImageBuffer(guide.data(), width, height, Korvane::PIXEL_GRAY8); }
  Korvane::ImageBuffer Out() { return Korvane::MakeImageBuffer(out.data(), width, height); }
  Korvane::ImageBuffer Disc() { return Korvane::MakeImageBuffer(disc.data(), 128, 128); }
};

Scene& SceneOf(int width) {
  static std::map<int, std::unique_ptr<Scene>> scenes;
  auto& s = scenes[width];
  if (!s) s = width == 4000 ? std::make_unique<Scene>(4000, 3000, 200) : std::make_unique<Scene>(1920, 1080, 200);
  return *s;
}

// Kernel forms of a row: 0 the machine's best (AVX2 here), 1 SSE4.1, 2 plain.
Korvane::SystemInfo FormInfo(int64_t form) {
  if (form == 2) return KorvaneBench::MachineInfo(Korvane::SIMD_NONE);
  return form == 1 ? KorvaneBench::MachineInfo(Korvane::SIMD_SSE42, Korvane::AVX_NONE) : KorvaneBench::MachineInfo();
}

std::unique_ptr<Korvane::BokehEffect> MakeBokeh(int64_t form = 0) {
  auto fx = std::make_unique<Korvane::BokehEffect>(&KorvaneBench::Pool());
  fx->SetSystemInfo(FormInfo(form));
  return fx;
}

// range(1): the kernel form.
void BM_SetSource(benchmark::State& state) {
  Scene& s = SceneOf(static_cast<int>(state.range(0)));
  auto fx = MakeBokeh(state.range(1));
  const Korvane::ImageBuffer photo = s.Photo();
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) benchmark::DoNotOptimize(fx->SetSource(&photo));
  cpu.Report(state);
  state.counters["points"] = static_cast<double>(fx->GetBokehList().size());
}

// One frame; range(1) = 1 keeps the background blur from the frame before;
// range(2): the kernel form.
void BM_Frame(benchmark::State& state) {
  Scene& s = SceneOf(static_cast<int>(state.range(0)));
  auto fx = MakeBokeh(state.range(2));
  const Korvane::ImageBuffer photo = s.Photo(), guide = s.Guide();
  Korvane::ImageBuffer out = s.Out();
  if (fx->SetSource(&photo) < 0) state.SkipWithError("SetSource failed");
  Korvane::BokehParam p;
  p.quality_mode = 1;
  p.twinkle_switch = 1;
  p.anime_frame_count = 48;
  p.anime_frame_index = 0;
  p.blur_strength = 0.6f;  // focus-blur level 60
  p.keep_background = static_cast<uint8_t>(state.range(1));
  Korvane::BokehShapeParam shape;
  shape.shape = s.Disc();
  shape.amount = 1.0f;
  shape.color_mode = 1;
  const Korvane::Rect roi{0, 0, s.width, s.height};
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    p.anime_frame_index = (p.anime_frame_index + 1) % p.anime_frame_count;
    if (fx->Process(&p, &shape, &photo, &guide, &out, roi) < 0) state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(s.out.data());
  }
  cpu.Report(state);
  state.counters["points"] = static_cast<double>(fx->GetBokehList().size());
}

// The background blur alone, as the frame runs it.
void BM_Background(benchmark::State& state) {
  Scene& s = SceneOf(static_cast<int>(state.range(0)));
  Korvane::CThreadAdapter adapter;
  adapter.Init(&KorvaneBench::Pool());
  Korvane::BokehFocus focus;
  Korvane::BokehFocusParam p;
  p.src = Korvane::SmartBufferView(s.Photo());
  p.guide = Korvane::SmartBufferView(s.Guide());
  p.roi = Korvane::Rect{0, 0, s.width, s.height};
  p.blur_strength = 0.6f;
  Korvane::SmartBuffer out = Korvane::SmartBufferView(s.Out()), weight;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    if (focus.Process(adapter, KorvaneBench::MachineInfo(), p, false, out, weight) < 0) state.SkipWithError("failed");
    benchmark::DoNotOptimize(s.out.data());
  }
  cpu.Report(state);
}

void BM_FocusBlur(benchmark::State& state) {
  Scene& s = SceneOf(static_cast<int>(state.range(0)));
  Korvane::FocusBlurEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::MachineInfo());
  Korvane::FocusBlurParam p;
  p.input = s.Photo();
  p.mask = s.Guide();
  p.output = s.Out();
  p.blur_level = 60;
  p.focus_value = 230;
  p.focus_range = 51;
  KorvaneBench::ProcessCpu cpu;
  for (auto _ : state) {
    fx.Process(&p);
    benchmark::DoNotOptimize(s.out.data());
  }
  cpu.Report(state);
}

void BM_Memcpy(benchmark::State& state) {
  KorvaneBench::MemcpyFloor(state, SceneOf(static_cast<int>(state.range(0))).photo);
}

#define KORVANE_BENCH_ROW(fn, name, ...) \
  BENCHMARK(fn)->Name(name)->Args({__VA_ARGS__})->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()

KORVANE_BENCH_ROW(BM_SetSource, "korvane/bokeh_setsource_4000x3000", 4000, 0);
KORVANE_BENCH_ROW(BM_SetSource, "korvane/bokeh_setsource_4000x3000_sse4", 4000, 1);
KORVANE_BENCH_ROW(BM_SetSource, "korvane/bokeh_setsource_4000x3000_plain", 4000, 2);
KORVANE_BENCH_ROW(BM_Memcpy, "memcpy/1920x1080", 1920);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_1920x1080", 1920, 0, 0);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_1920x1080_sse4", 1920, 0, 1);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_1920x1080_kept_background", 1920, 1, 0);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_1920x1080_kept_background_sse4", 1920, 1, 1);
KORVANE_BENCH_ROW(BM_Background, "korvane/bokeh_background_1920x1080", 1920);
KORVANE_BENCH_ROW(BM_FocusBlur, "korvane/focusblur_1920x1080_level60", 1920);
KORVANE_BENCH_ROW(BM_Memcpy, "memcpy/4000x3000", 4000);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_4000x3000", 4000, 0, 0);
KORVANE_BENCH_ROW(BM_Frame, "korvane/bokeh_frame_4000x3000_kept_background", 4000, 1, 0);
KORVANE_BENCH_ROW(BM_Background, "korvane/bokeh_background_4000x3000", 4000);
KORVANE_BENCH_ROW(BM_FocusBlur, "korvane/focusblur_4000x3000_level60", 4000);

}  // namespace

BENCHMARK_MAIN();
