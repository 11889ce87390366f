// Shared by every test program: random pixels, the SystemInfo that picks the
// plain or SIMD kernel forms, a worker pool with its adapter, an effect rig,
// caller images with padded rows and guard bytes, and the worker-count check.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/ImageBuffer.h"
#include "core/Simd.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"
#include "core/ThreadPool.h"
#include "engine/CpuProbe.h"

namespace KorvaneTest {

inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(seed);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

inline void FillNoise(uint8_t* p, size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(rng());
}

// A form code for Level beside the SIMD levels: the AVX2 forms (SSE4.2 with
// AVX2 beside it).
constexpr int kAvx2 = 100;

// 0 picks the plain forms, Korvane::SIMD_SSE41 the SSE4.1 ones, kAvx2 the AVX2 ones.
inline Korvane::SystemInfo Level(int simd, int processors = 2) {
  Korvane::SystemInfo info;
  info.processor_count = processors;
  info.simd_level = simd == kAvx2 ? Korvane::SIMD_SSE42 : simd;
  info.avx_level = simd == kAvx2 ? Korvane::AVX_AVX2 : Korvane::AVX_NONE;
  return info;
}

// A kernel form a table-driven test compares: its code for Level (0, SIMD_SSE41
// or kAvx2), its name and the SystemInfo that picks it. It converts to its
// code, so `for (int form : Forms()) ... Level(form)` reads as well.
struct Form {
  int code = 0;
  const char* name = "plain";
  Korvane::SystemInfo info;
  operator int() const { return code; }
};

// The forms this build has and this processor can run: plain, SSE4.1, AVX2.
inline std::vector<Form> Forms() {
  std::vector<Form> forms{{0, "plain", Level(0)}};
  if (KORVANE_HAVE_SSE41) forms.push_back({Korvane::SIMD_SSE41, "SSE4.1", Level(Korvane::SIMD_SSE41)});
  if (KORVANE_HAVE_AVX2 && Korvane::ProbeAvxLevel() >= Korvane::AVX_AVX2) forms.push_back({kAvx2, "AVX2", Level(kAvx2)});
  return forms;
}
inline std::string FormName(int form) { return form == kAvx2 ? "AVX2" : form >= 5 ? "SSE4.1" : "plain"; }

// A pool with its adapter, for running tasks directly.
struct Runner {
  Korvane::CThreadPool pool;
  Korvane::CThreadAdapter adapter;
  explicit Runner(int workers = 2) {
    pool.Create(workers);
    adapter.Init(&pool);
  }
};

// An effect implementation on its own pool, with the SIMD level chosen.
template <class Impl>
struct EffectRig {
  Korvane::CThreadPool pool;
  std::unique_ptr<Impl> fx;
  explicit EffectRig(int workers = 2, int simd = Korvane::SIMD_SSE41) {
    pool.Create(workers);
    fx = std::make_unique<Impl>(&pool);
    fx->SetSystemInfo(Level(simd));
  }
  Impl* operator->() { return fx.get(); }
};

// A caller-owned image with `pad` spare bytes at the end of every row and
// guard bytes before and after, so a test can prove nothing was written
// outside the rows' pixels.
struct TestImage {
  static constexpr size_t kGuard = 64;
  static constexpr uint8_t kGuardByte = 0xA5;
  std::vector<uint8_t> bytes;
  Korvane::ImageBuffer buf;

  TestImage() = default;
  TestImage(int32_t w, int32_t h, int32_t pix_fmt = Korvane::PIXEL_BGRA32, int32_t pad = 0) {
    const int32_t bpp = Korvane::BytesPerPixel(pix_fmt);
    buf.width = w;
    buf.height = h;
    buf.stride = w * bpp + pad;
    buf.channel = Korvane::ChannelCount(pix_fmt);
    buf.pix_fmt = pix_fmt;
    bytes.assign(kGuard * 2 + static_cast<size_t>(buf.stride) * h, kGuardByte);
    buf.data = bytes.data() + kGuard;
  }
  // Copies the same picture from packed bytes (w x h x bpp), keeping the padding.
  void Fill(const std::vector<uint8_t>& packed) {
    const size_t row = static_cast<size_t>(buf.width) * Korvane::BytesPerPixel(buf.pix_fmt);
    for (int32_t y = 0; y < buf.height; ++y) std::memcpy(Row(y), packed.data() + row * y, row);
  }
  void FillNoise(uint32_t seed) { Fill(RandomBytes(PackedSize(), seed)); }
  void FillConstant(uint8_t v) { Fill(std::vector<uint8_t>(PackedSize(), v)); }
  uint8_t* Row(int32_t y) { return buf.data + static_cast<ptrdiff_t>(y) * buf.stride; }
  size_t PackedSize() const {
    return static_cast<size_t>(buf.width) * Korvane::BytesPerPixel(buf.pix_fmt) * buf.height;
  }
  // The pixels without padding, row after row.
  std::vector<uint8_t> Packed() const {
    const size_t row = static_cast<size_t>(buf.width) * Korvane::BytesPerPixel(buf.pix_fmt);
    std::vector<uint8_t> out(row * buf.height);
    for (int32_t y = 0; y < buf.height; ++y)
      std::memcpy(out.data() + row * y, buf.data + static_cast<ptrdiff_t>(y) * buf.stride, row);
    return out;
  }
  // True when the guard bytes and every row's padding are untouched.
  bool GuardsIntact() const {
    const size_t row = static_cast<size_t>(buf.width) * Korvane::BytesPerPixel(buf.pix_fmt);
    for (size_t i = 0; i < kGuard; ++i)
      if (bytes[i] != kGuardByte || bytes[bytes.size() - 1 - i] != kGuardByte) return false;
    for (int32_t y = 0; y < buf.height; ++y)
      for (size_t x = row; x < static_cast<size_t>(buf.stride); ++x)
        if (bytes[kGuard + static_cast<size_t>(y) * buf.stride + x] != kGuardByte) return false;
    return true;
  }
};

// `produce(runner)` returns the bytes it computed; they must not depend on
// the number of workers (1, 2 or 8).
template <class Produce>
void ExpectSameForWorkerCounts(Produce produce, const std::string& what) {
  std::vector<uint8_t> first;
  for (int workers : {1, 2, 8}) {
    Runner run(workers);
    const std::vector<uint8_t> got = produce(run);
    if (workers == 1) first = got;
    else EXPECT_EQ(got, first) << what << ", " << workers << " workers";
  }
}

// The first byte where two images differ, as "pixel (x, y) channel c: a vs b",
// or "" when they are equal; for failure messages that say where.
inline std::string FirstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int32_t width,
                                   int32_t bytes_per_pixel = 4) {
  if (a.size() != b.size()) return "sizes " + std::to_string(a.size()) + " vs " + std::to_string(b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) {
      const size_t px = i / bytes_per_pixel;
      return "pixel (" + std::to_string(px % width) + ", " + std::to_string(px / width) + ") channel " +
             std::to_string(i % bytes_per_pixel) + ": " + std::to_string(a[i]) + " vs " + std::to_string(b[i]);
    }
  }
  return "";
}

}  // namespace KorvaneTest
