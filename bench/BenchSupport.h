// Shared set-up for the benchmark programs: a worker pool the size the engine
// would start, the same thread count for OpenCV, and deterministic images.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "core/Platform.h"
#include "core/SmartBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadPool.h"

#if KORVANE_BENCH_OPENCV
#include <opencv2/core.hpp>
#endif

namespace KorvaneBench {

// The engine's worker count on this machine.
inline int WorkerCount() {
  return std::min(Korvane::Platform::LogicalProcessorCount(), Korvane::kMaxWorkerThreads);
}

// One pool for the whole benchmark program, started on first use. OpenCV is
// told to use the same number of threads so the pairs compare like with like.
inline Korvane::CThreadPool& Pool() {
  static Korvane::CThreadPool* pool = [] {
    auto* p = new Korvane::CThreadPool();
    p->Create(WorkerCount());
#if KORVANE_BENCH_OPENCV
    cv::setNumThreads(WorkerCount());
#endif
    return p;
  }();
  return *pool;
}

// The machine description with the SIMD and AVX levels of this processor.
Korvane::SystemInfo MachineInfo();

// The same with the SIMD level held at most at simd_cap (SIMD_NONE runs the
// plain kernel forms) and the AVX level at most at avx_cap (AVX_NONE leaves
// the AVX2 forms out: the SSE4.1 column).
Korvane::SystemInfo MachineInfo(int32_t simd_cap, int32_t avx_cap = Korvane::AVX_AVX2);

// A photo-like test image: smooth gradients plus noise, fixed seed.
inline std::vector<uint8_t> MakeImage(int width, int height, int channels, uint32_t seed = 1) {
  std::vector<uint8_t> img(static_cast<size_t>(width) * height * channels);
  std::mt19937 rng(seed);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < channels; ++c) {
        const int v = (x * (c + 1) / 16 + y / 8 + static_cast<int>(rng() % 32)) & 255;
        img[(static_cast<size_t>(y) * width + x) * channels + c] = static_cast<uint8_t>(v);
      }
  return img;
}

// MakeImage as a BGRA32 photo with every pixel opaque.
inline std::vector<uint8_t> MakeOpaquePhoto(int width, int height) {
  std::vector<uint8_t> img = MakeImage(width, height, 4);
  for (size_t i = 3; i < img.size(); i += 4) img[i] = 255;
  return img;
}

// Processor time of the whole process (every worker) per iteration, in ms,
// as the counter process_cpu_ms: steadier than wall time when other programs
// share the machine.
struct ProcessCpu {
  std::clock_t start = std::clock();
  void Report(benchmark::State& state) const {
    const double ms = 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    state.counters["process_cpu_ms"] = ms / static_cast<double>(state.iterations());
  }
  // The same, and `bytes` of image handled per iteration as the throughput.
  void Report(benchmark::State& state, size_t bytes) const {
    Report(state);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
  }
};

// The floor of a whole-image effect: one memcpy of the image, every byte read
// once and written once. Register it as "memcpy/<width>x<height>".
inline void MemcpyFloor(benchmark::State& state, const std::vector<uint8_t>& src) {
  std::vector<uint8_t> dst(src.size());
  ProcessCpu cpu;
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  cpu.Report(state, src.size());
}

}  // namespace KorvaneBench

// Registers fn under name, timed in wall-clock milliseconds.
#define KORVANE_BENCH_MS(fn, name) BENCHMARK(fn)->Name(name)->Unit(benchmark::kMillisecond)->UseRealTime()

#include "engine/CpuProbe.h"

inline Korvane::SystemInfo KorvaneBench::MachineInfo() {
  Korvane::SystemInfo info;
  info.processor_count = Korvane::Platform::LogicalProcessorCount();
  info.simd_level = Korvane::ProbeSimdLevel();
  info.avx_level = Korvane::ProbeAvxLevel();
  return info;
}

inline Korvane::SystemInfo KorvaneBench::MachineInfo(int32_t simd_cap, int32_t avx_cap) {
  Korvane::SystemInfo info = MachineInfo();
  if (info.simd_level >= simd_cap) info.simd_level = simd_cap;
  if (info.avx_level > avx_cap) info.avx_level = avx_cap;
  // Below SSE4.1 no SIMD form runs: the plain column.
  if (info.simd_level < Korvane::SIMD_SSE41) info.avx_level = Korvane::AVX_NONE;
  return info;
}
