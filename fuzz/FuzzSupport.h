// Shared by the fuzz targets: caller images with guard bytes around and
// between their rows, and one engine for the whole run.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <vector>

#include "core/ImageBuffer.h"
#include "engine/KorvaneEngine.h"

namespace KorvaneFuzz {

constexpr uint8_t kGuardByte = 0xA5;
constexpr size_t kGuard = 64;

// A caller image whose size, stride and format come from the input: guard
// bytes before, after and in every row's padding. Any shape the record can
// describe is allowed (zero or negative sizes, a stride shorter than a row,
// a null pointer); the memory behind it is only what that shape claims, so
// an effect that trusts a bad record reads or writes outside and the
// sanitizer or the guard check catches it.
struct GuardedImage {
  std::vector<uint8_t> bytes;
  Korvane::ImageBuffer buf;
  size_t row_bytes = 0;
  bool claims_memory = false;

  GuardedImage() = default;
  GuardedImage(FuzzedDataProvider& in, int32_t pix_fmt, int32_t w, int32_t h) {
    buf.width = w;
    buf.height = h;
    buf.pix_fmt = pix_fmt;
    buf.channel = Korvane::ChannelCount(pix_fmt);
    const int32_t bpp = Korvane::BytesPerPixel(pix_fmt);
    buf.stride = w * bpp + (in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(-8, 24) : 0);
    // Any negative stride, or a large positive one that the memory below
    // really has.
    if (in.ConsumeProbability<float>() < 0.03f) buf.stride = in.ConsumeIntegralInRange<int32_t>(INT32_MIN, 65536);
    row_bytes = w > 0 && bpp > 0 ? static_cast<size_t>(w) * bpp : 0;
    claims_memory = w > 0 && h > 0 && buf.stride > 0 && h <= 4096;
    const size_t span = claims_memory ? static_cast<size_t>(buf.stride) * h : 0;
    bytes.assign(2 * kGuard + span, kGuardByte);
    // Pixels are input bytes (repeated), padding and guards keep the mark.
    for (int32_t y = 0; claims_memory && y < h; ++y) {
      const size_t n = std::min<size_t>(row_bytes, buf.stride);
      for (size_t x = 0; x < n; ++x) bytes[kGuard + static_cast<size_t>(y) * buf.stride + x] = in.ConsumeIntegral<uint8_t>();
    }
    buf.data = in.ConsumeProbability<float>() < 0.03f ? nullptr : bytes.data() + kGuard;
  }

  // Aborts (so the fuzzer reports it) when anything outside the pixels changed.
  void CheckGuards(const char* what) const {
    for (size_t i = 0; i < kGuard; ++i) {
      if (bytes[i] != kGuardByte || bytes[bytes.size() - 1 - i] != kGuardByte) Fail(what, "guard");
    }
    if (!claims_memory) return;
    for (int32_t y = 0; y < buf.height; ++y) {
      for (size_t x = row_bytes; x < static_cast<size_t>(buf.stride); ++x) {
        if (bytes[kGuard + static_cast<size_t>(y) * buf.stride + x] != kGuardByte) Fail(what, "row padding");
      }
    }
  }

  [[noreturn]] static void Fail(const char* what, const char* where) {
    std::fprintf(stderr, "%s: write outside the pixels (%s)\n", what, where);
    std::abort();
  }
};

// One engine for the whole run, as an application would keep it.
inline KorvaneEngine* Engine() {
  static KorvaneEngine* engine = [] {
    KorvaneEngine* e = nullptr;
    CreateKorvaneEngine(&e);
    if (!e) std::abort();
    return e;
  }();
  return engine;
}

// One effect of `type` from that engine, kept for the whole run.
template <class T>
T* KeptEffect(int32_t type) {
  static T* fx = [type] {
    void* p = nullptr;
    if (Engine()->CreateEffect(&p, type) != S_OK || !p) std::abort();
    return static_cast<T*>(p);
  }();
  return fx;
}

// A float that is usually in [lo, hi] and sometimes anything at all
// (NaN, infinities, huge or tiny values).
inline float SomeFloat(FuzzedDataProvider& in, float lo, float hi) {
  if (in.ConsumeProbability<float>() < 0.1f) {
    const uint32_t bits = in.ConsumeIntegral<uint32_t>();
    float f;
    std::memcpy(&f, &bits, sizeof(f));
    return f;
  }
  return in.ConsumeFloatingPointInRange<float>(lo, hi);
}

}  // namespace KorvaneFuzz
