// Dispersion: the per-photo preparation at 1080p, and one mid-crumble frame
// at 1080p with 100 000 particles and at 4000 x 3000, each beside a memcpy of
// the same image (the floor: every byte read once and written once).
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "effects/dispersion/DispersionEffect.h"

namespace {

using KorvaneBench::ProcessCpu;

// A photo with an elliptic subject holding `particles` particles at the
// density used: a lighthouse-sized subject of a 1080p frame.
struct Subject {
  int w, h;
  std::vector<uint8_t> photo, mask, out;
  Korvane::ImageBuffer in, m, o;
  Korvane::DispersionParam p;
  Subject(int width, int height, int particles) : w(width), h(height) {
    photo = KorvaneBench::MakeImage(w, h, 4);
    mask.assign(static_cast<size_t>(w) * h, 0);
    out.assign(static_cast<size_t>(w) * h * 4, 0);
    size_t area = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const double dx = (x - w * 0.55) / (w * 0.18), dy = (y - h * 0.5) / (h * 0.38);
        if (dx * dx + dy * dy <= 1.0) mask[static_cast<size_t>(y) * w + x] = 255, ++area;
      }
    in = Korvane::MakeImageBuffer(photo.data(), w, h);
    m = Korvane::MakeImageBuffer(mask.data(), w, h, Korvane::PIXEL_GRAY8);
    o = Korvane::MakeImageBuffer(out.data(), w, h);
    p.input = &in;
    p.mask = &m;
    p.output = &o;
    p.roi = Korvane::Rect{0, 0, w, h};
    p.anime_frame_count = 48;
    p.anime_frame_index = 22;  // most particles in the air
    p.particle_size = 1.5f;
    p.density = std::fmin(1.0f, static_cast<float>(particles) / static_cast<float>(area));
    p.fade = 0.7f;
  }
};

void Prepare(benchmark::State& state) {
  Subject s(1920, 1080, 100000);
  Korvane::DispersionEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::MachineInfo());
  ProcessCpu cpu;
  for (auto _ : state) {
    if (fx.Init(&s.p) < 0) return state.SkipWithError("Init failed");
    benchmark::ClobberMemory();
  }
  cpu.Report(state);
  state.counters["particles"] = static_cast<double>(fx.GetParticles().size());
}

// simd_level and avx_level cap the kernel forms (the AVX2, SSE4.1 and plain rows).
void Frame(benchmark::State& state, int w, int h, int particles, int32_t simd_level, int32_t avx_level) {
  Subject s(w, h, particles);
  Korvane::DispersionEffect fx(&KorvaneBench::Pool());
  fx.SetSystemInfo(KorvaneBench::MachineInfo(simd_level, avx_level));
  if (fx.Init(&s.p) < 0) return state.SkipWithError("Init failed");
  ProcessCpu cpu;
  for (auto _ : state) {
    if (fx.Process(&s.p) < 0) return state.SkipWithError("Process failed");
    benchmark::DoNotOptimize(s.out.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state, size_t{4} * w * h);
  state.counters["particles"] = static_cast<double>(fx.GetParticles().size());
}

using Korvane::AVX_AVX2;
using Korvane::AVX_NONE;
using Korvane::SIMD_NONE;
using Korvane::SIMD_SSE42;
void BM_Frame1080(benchmark::State& state) { Frame(state, 1920, 1080, 100000, SIMD_SSE42, AVX_AVX2); }
void BM_Frame1080Sse(benchmark::State& state) { Frame(state, 1920, 1080, 100000, SIMD_SSE42, AVX_NONE); }
void BM_Frame1080Plain(benchmark::State& state) { Frame(state, 1920, 1080, 100000, SIMD_NONE, AVX_NONE); }
void BM_Frame12Mp(benchmark::State& state) { Frame(state, 4000, 3000, 600000, SIMD_SSE42, AVX_AVX2); }
void BM_Frame12MpSse(benchmark::State& state) { Frame(state, 4000, 3000, 600000, SIMD_SSE42, AVX_NONE); }

void BM_Memcpy1080(benchmark::State& state) {
  KorvaneBench::MemcpyFloor(state, KorvaneBench::MakeImage(1920, 1080, 4));
}
void BM_Memcpy12Mp(benchmark::State& state) {
  KorvaneBench::MemcpyFloor(state, KorvaneBench::MakeImage(4000, 3000, 4));
}

KORVANE_BENCH_MS(BM_Memcpy1080, "memcpy/1920x1080");
KORVANE_BENCH_MS(Prepare, "korvane/disperse_prepare_1920x1080");
KORVANE_BENCH_MS(BM_Frame1080, "korvane/disperse_frame_1920x1080_100k");
KORVANE_BENCH_MS(BM_Frame1080Sse, "korvane/disperse_frame_1920x1080_100k_sse41");
KORVANE_BENCH_MS(BM_Frame1080Plain, "korvane/disperse_frame_1920x1080_100k_plain");
KORVANE_BENCH_MS(BM_Memcpy12Mp, "memcpy/4000x3000");
KORVANE_BENCH_MS(BM_Frame12Mp, "korvane/disperse_frame_4000x3000");
KORVANE_BENCH_MS(BM_Frame12MpSse, "korvane/disperse_frame_4000x3000_sse41");

}  // namespace

BENCHMARK_MAIN();
