// Shared by every test program: random pixels, the SystemInfo that picks the
// plain or SIMD kernel forms, a worker pool with its adapter, an effect rig,
// caller images with padded rows and guard bytes, and the worker-count check.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
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
  size_t RowBytes() const { return static_cast<size_t>(buf.width) * Korvane::BytesPerPixel(buf.pix_fmt); }
  // Copies the same picture from packed bytes (w x h x bpp), keeping the padding.
  void Fill(const std::vector<uint8_t>& packed) {
    for (int32_t y = 0; y < buf.height; ++y) std::memcpy(Row(y), packed.data() + RowBytes() * y, RowBytes());
  }
  void FillNoise(uint32_t seed) { Fill(RandomBytes(PackedSize(), seed)); }
  void FillConstant(uint8_t v) { Fill(std::vector<uint8_t>(PackedSize(), v)); }
  uint8_t* Row(int32_t y) const { return buf.data + static_cast<ptrdiff_t>(y) * buf.stride; }
  size_t PackedSize() const { return RowBytes() * buf.height; }
  // The pixels without padding, row after row.
  std::vector<uint8_t> Packed() const {
    std::vector<uint8_t> out(PackedSize());
    for (int32_t y = 0; y < buf.height; ++y) std::memcpy(out.data() + RowBytes() * y, Row(y), RowBytes());
    return out;
  }
  // True when the guard bytes and every row's padding are untouched.
  bool GuardsIntact() const {
    for (size_t i = 0; i < kGuard; ++i)
      if (bytes[i] != kGuardByte || bytes[bytes.size() - 1 - i] != kGuardByte) return false;
    for (int32_t y = 0; y < buf.height; ++y)
      for (size_t x = RowBytes(); x < static_cast<size_t>(buf.stride); ++x)
        if (Row(y)[x] != kGuardByte) return false;
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

// The mean absolute difference of two byte images of one size.
inline double MeanAbsDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += std::abs(a[i] - b[i]);
  return a.empty() ? 0.0 : sum / a.size();
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

// A side x side photo of a vertical step edge, dark left half and light
// right half: any row of a blur of it shows the blur's profile.
inline TestImage StepEdge(int32_t side) {
  TestImage img(side, side);
  for (int32_t y = 0; y < side; ++y)
    for (int32_t x = 0; x < side; ++x) {
      const uint8_t v = x < side / 2 ? 20 : 220;
      const uint8_t px[4] = {v, v, v, 255};
      std::memcpy(img.Row(y) + 4 * x, px, 4);
    }
  return img;
}

// Where a blurred step edge along a BGRA row lies and how far it spreads:
// the mean and standard deviation, in pixels, of the steps between
// neighbours in green over pixels [from, to), a window that holds the blur
// but not the image's borders (where truncated sums step by a level). A
// Gaussian of sigma s spreads an edge by s.
struct EdgeSpread {
  double centre = 0, spread = 0;
  EdgeSpread(const uint8_t* row, int32_t from, int32_t to) {
    double sum = 0, first = 0, second = 0;
    for (int32_t x = from; x + 1 < to; ++x) {
      const double step = row[4 * (x + 1) + 1] - row[4 * x + 1], at = x + 0.5;
      sum += step;
      first += step * at;
      second += step * at * at;
    }
    centre = first / sum;
    spread = std::sqrt(second / sum - centre * centre);
  }
};

// Runs `produce(form)` once for every kernel form, plain first, and expects
// every SIMD form's bytes to be the plain form's; `what` names the case and
// `width` places the first difference in the failure message.
template <class Produce>
void ExpectFormsMatchPlain(Produce produce, const std::string& what, int32_t width = 1, int32_t bytes_per_pixel = 4) {
  std::vector<uint8_t> plain;
  for (const Form& form : Forms()) {
    std::vector<uint8_t> got = produce(form);
    if (form.code == 0)
      plain = std::move(got);
    else
      EXPECT_TRUE(got == plain) << what << ", " << form.name
                                << " vs plain: " << FirstDifference(got, plain, width, bytes_per_pixel);
  }
}

}  // namespace KorvaneTest
