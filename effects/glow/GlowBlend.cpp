// Byte blend modes of the glow: the per-pixel functions, the compositing frame
// and the row tasks of the 38-slot table.
#define KORVANE_GLOW_BLEND_FORMULAS 1
#include "effects/glow/GlowBlend.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "core/Simd.h"

namespace Korvane {

// The eight-pixel kernels of the SSE4.1 and AVX2 files: `count` pixels, a
// multiple of 8.
template <int Slot>
void GlowBlend8_SSE(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t count, int32_t opacity);
template <int Slot>
void GlowBlend8_AVX2(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t count, int32_t opacity);

namespace {

constexpr int32_t kModeToSlot[kGlowBlendModeCount] = {0,  1,  2,  4,  5,  6,  8,  9,  11, 12, 13, 14, 15, 16, 17,
                                                      18, 19, 21, 23, 25, 26, 27, 28, 30, 32, 34, 35, 36, 37};

// One pixel through slot Slot. The row tasks use <false, false>.
template <int Slot, bool kAlphaMul, bool kRaw>
inline void BlendPixel(const uint8_t* sp, const uint8_t* dp, uint8_t* out, int32_t opacity) {
  const int32_t s[3] = {sp[0], sp[1], sp[2]};
  const int32_t d[3] = {dp[0], dp[1], dp[2]};
  int32_t f[3];
  BlendMode<Slot>::Apply(s, d, f);
  if (kRaw) {
    for (int k = 0; k < 3; ++k) out[k] = static_cast<uint8_t>(Clamp255(f[k]));
    out[3] = dp[3];
    return;
  }
  const int32_t as = kAlphaMul ? sp[3] * dp[3] / 255 : sp[3];
  const Composited<int32_t> c = Composite<int32_t>(s, as, d, dp[3], f, opacity);
  if (!c.write) return;
  out[0] = static_cast<uint8_t>(c.out[0]);
  out[1] = static_cast<uint8_t>(c.out[1]);
  out[2] = static_cast<uint8_t>(c.out[2]);
  out[3] = static_cast<uint8_t>(c.alpha);
}

// The forms of a row task: the plain table's, and the SSE4.1 and AVX2
// tables', which take eight pixels at a time through their file's kernel and
// address dst relative to the roi.
enum RowsForm { kPlainRows, kSse41Rows, kAvx2Rows };

template <int Slot, RowsForm kForm>
int32_t BlendRows(ThreadJob* job, int32_t* result) {
  GlowBlendBand b;
  int32_t hr = GlowBlendPrepareBand(job, false, kForm != kPlainRows, &b);
  if (hr >= 0) {
    using Kernel8 = void (*)(const uint8_t*, const uint8_t*, uint8_t*, int32_t, int32_t);
    // Instantiated with a SIMD form only in builds that have its kernels.
    const Kernel8 k8 = kForm == kAvx2Rows ? KORVANE_AVX2(GlowBlend8_AVX2<Slot>) : KORVANE_SSE41(GlowBlend8_SSE<Slot>);
    for (int32_t y = b.y0; y < b.y1; ++y) {
      const uint8_t* s = b.glow + static_cast<ptrdiff_t>(y) * b.glow_stride;
      const uint8_t* d = b.photo + static_cast<ptrdiff_t>(y) * b.photo_stride;
      uint8_t* o = b.dst + static_cast<ptrdiff_t>(y - b.oy) * b.dst_stride;
      int32_t x = b.x0;
      if (kForm != kPlainRows && b.x1 - x > 8) {
        // Eight at a time while x < x1 - 8; the rest one by one.
        const int32_t count = (b.x1 - x - 1) / 8 * 8;
        k8(s + x * 4, d + x * 4, o + (x - b.ox) * 4, count, b.opacity);
        x += count;
      }
      for (; x < b.x1; ++x) BlendPixel<Slot, false, false>(s + x * 4, d + x * 4, o + (x - b.ox) * 4, b.opacity);
    }
  }
  return Done(result, hr);
}

template <int Slot>
void FunctionOf(const uint8_t* sp, const uint8_t* dp, int32_t f[3]) {
  const int32_t s[3] = {sp[0], sp[1], sp[2]};
  const int32_t d[3] = {dp[0], dp[1], dp[2]};
  BlendMode<Slot>::Apply(s, d, f);
}

template <int Slot>
void PixelOf(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t opacity, bool alpha_mul, bool raw) {
  if (raw)
    BlendPixel<Slot, false, true>(s, d, out, opacity);
  else if (alpha_mul)
    BlendPixel<Slot, true, false>(s, d, out, opacity);
  else
    BlendPixel<Slot, false, false>(s, d, out, opacity);
}

// The float slots reached through the byte interfaces: the glow's bytes are
// its colour, F is rounded.
void FloatFunctionOf(int32_t slot, const uint8_t* sp, const uint8_t* dp, int32_t f[3]) {
  const float s[3] = {float(sp[0]), float(sp[1]), float(sp[2])};
  float ff[3];
  GlowBlendFloatFunction(slot == 14 ? 11 : 12, s, dp, ff);
  for (int k = 0; k < 3; ++k) f[k] = static_cast<int32_t>(ff[k] + 0.5f);
}

struct SlotEntry {
  ThreadTask rows;
  ThreadTask rows_sse41;
  ThreadTask rows_avx2;
  void (*function)(const uint8_t*, const uint8_t*, int32_t*);
  void (*pixel)(const uint8_t*, const uint8_t*, uint8_t*, int32_t, bool, bool);
};

template <int Slot>
constexpr SlotEntry EntryOf() {
  constexpr bool kSse = KORVANE_HAVE_SSE41 != 0;
  constexpr bool kAvx2 = KORVANE_HAVE_AVX2 != 0;
  // The float slots' SSE4.1 table takes their plain rows with roi-relative
  // addressing; the AVX2 table has their eight-pixel forms.
  if constexpr (Slot == 14) {
    return SlotEntry{&GlowBlendHueRows<false>, kSse ? &GlowBlendHueRows<true> : nullptr,
                     KORVANE_AVX2(GlowBlendHueRows_AVX2), nullptr, nullptr};
  } else if constexpr (Slot == 15) {
    return SlotEntry{&GlowBlendSaturationRows<false>, kSse ? &GlowBlendSaturationRows<true> : nullptr,
                     KORVANE_AVX2(GlowBlendSaturationRows_AVX2), nullptr, nullptr};
  } else {
    ThreadTask sse = nullptr, avx2 = nullptr;
    if constexpr (kSse) sse = &BlendRows<Slot, kSse41Rows>;
    if constexpr (kAvx2) avx2 = &BlendRows<Slot, kAvx2Rows>;
    return SlotEntry{&BlendRows<Slot, kPlainRows>, sse, avx2, &FunctionOf<Slot>, &PixelOf<Slot>};
  }
}

template <int... Slots>
constexpr std::array<SlotEntry, sizeof...(Slots)> MakeEntries(std::integer_sequence<int, Slots...>) {
  return {EntryOf<Slots>()...};
}

const std::array<SlotEntry, kGlowBlendSlotCount> kEntries =
    MakeEntries(std::make_integer_sequence<int, kGlowBlendSlotCount>());

}  // namespace

int32_t GlowBlendPrepareBand(const ThreadJob* job, bool float_glow, bool roi_relative, GlowBlendBand* band) {
  *band = GlowBlendBand();
  if (!job || !job->param) return E_INVALIDARG;
  const GlowBlendParam* p = static_cast<const GlowBlendParam*>(job->param);
  const Rect& roi = p->roi;
  if (roi.right < roi.left || roi.bottom < roi.top) return E_INVALIDARG;
  int32_t code = S_OK;
  const SmartBuffer* glow = float_glow ? p->glow_f : p->glow;
  if ((code = CheckHolds(glow, float_glow ? PIXEL_FLOAT96 : PIXEL_BGRA32, roi)) < 0 ||
      (code = CheckHolds(p->photo, PIXEL_BGRA32, roi)) < 0 || (code = CheckHolds(p->dst, PIXEL_BGRA32, Rect{})) < 0) {
    return code;
  }

  band->glow = glow->data.get();
  band->photo = p->photo->data.get();
  band->dst = p->dst->data.get();
  band->glow_stride = glow->stride;
  band->photo_stride = p->photo->stride;
  band->dst_stride = p->dst->stride;
  band->ox = roi_relative ? roi.left : 0;
  band->oy = roi_relative ? roi.top : 0;
  band->opacity = std::min(p->opacity, 255);
  // The band's rows of the roi, limited to the pixels whose place in dst exists.
  const Rect& r = job->rect;
  band->x0 = std::max({r.left, roi.left, band->ox});
  band->x1 = std::min({r.right, roi.right, band->ox + p->dst->width});
  band->y0 = std::max({r.top, roi.top, band->oy});
  band->y1 = std::min({r.bottom, roi.bottom, band->oy + p->dst->height});
  if (band->opacity <= 0 || band->x1 <= band->x0 || band->y1 <= band->y0) {
    band->x1 = band->x0;
    band->y1 = band->y0;
  }
  return S_OK;
}

int32_t GlowBlendSlot(int32_t mode) { return (mode >= 0 && mode < kGlowBlendModeCount) ? kModeToSlot[mode] : -1; }

void FillGlowBlendTables(int32_t mode_to_slot[kGlowBlendModeCount], ThreadTask plain[kGlowBlendSlotCount],
                         ThreadTask sse41[kGlowBlendSlotCount], ThreadTask avx2[kGlowBlendSlotCount]) {
  for (int32_t m = 0; m < kGlowBlendModeCount; ++m) mode_to_slot[m] = kModeToSlot[m];
  for (int32_t k = 0; k < kGlowBlendSlotCount; ++k) {
    plain[k] = kEntries[k].rows;
    sse41[k] = kEntries[k].rows_sse41;
    avx2[k] = kEntries[k].rows_avx2;
  }
}

void GlowBlendFunction(int32_t slot, const uint8_t* s, const uint8_t* d, int32_t f[3]) {
  if (slot < 0 || slot >= kGlowBlendSlotCount) {
    f[0] = f[1] = f[2] = 0;
  } else if (IsGlowFloatSlot(slot)) {
    FloatFunctionOf(slot, s, d, f);
  } else {
    kEntries[slot].function(s, d, f);
  }
}

void GlowBlendPixel(int32_t slot, const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t opacity, bool alpha_mul,
                    bool raw) {
  if (slot < 0 || slot >= kGlowBlendSlotCount) return;
  opacity = std::min(opacity, 255);
  if (!IsGlowFloatSlot(slot)) {
    kEntries[slot].pixel(s, d, out, opacity, alpha_mul, raw);
    return;
  }
  int32_t f[3];
  FloatFunctionOf(slot, s, d, f);
  if (raw) {
    for (int k = 0; k < 3; ++k) out[k] = static_cast<uint8_t>(Clamp255(f[k]));
    out[3] = d[3];
    return;
  }
  const int32_t sv[3] = {s[0], s[1], s[2]};
  const int32_t dv[3] = {d[0], d[1], d[2]};
  const int32_t as = alpha_mul ? s[3] * d[3] / 255 : s[3];
  const Composited<int32_t> c = Composite<int32_t>(sv, as, dv, d[3], f, opacity);
  if (!c.write) return;
  for (int k = 0; k < 3; ++k) out[k] = static_cast<uint8_t>(c.out[k]);
  out[3] = static_cast<uint8_t>(c.alpha);
}

}  // namespace Korvane
