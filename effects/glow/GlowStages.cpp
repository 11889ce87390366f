#include "effects/glow/GlowStages.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"

namespace Korvane {

namespace {

// A float channel value to int, clamped to [lo, hi] before the conversion so
// that no value (however large) is out of the int range; NaN gives lo.
inline int32_t ClampToInt(float v, int32_t lo, int32_t hi) {
  if (!(v > static_cast<float>(lo))) return lo;
  if (v >= static_cast<float>(hi)) return hi;
  return static_cast<int32_t>(v);
}

// Lowest channel a tint may push a colour to. The tint itself has no lower
// clamp (a colour_strength above 1 extrapolates past the tint colour); this
// bound only keeps the HSV arithmetic inside 32-bit integers.
constexpr int32_t kTintFloor = -32768;
constexpr float kTintFloorF = -128.0f;

// One stage of the tone curve: S(u, k) = (u - u k) / (k - 2 |u| k + 1).
inline float Sigmoid(float u, float k) { return (u - u * k) / (k - 2.0f * std::fabs(u) * k + 1.0f); }

}  // namespace

int32_t GlowCopySrc(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowCopyParam*>(job->param);
  if (!p->src || !p->dst || !p->src->data || !p->dst->data) return Done(result, E_POINTER);
  const int32_t bpp = BytesPerPixel(p->src->pix_fmt);
  if (bpp == 0 || bpp != BytesPerPixel(p->dst->pix_fmt)) return Done(result, E_INVALIDARG);
  Rect r = Clip(job->rect, std::min(p->src->width, p->dst->width), std::min(p->src->height, p->dst->height));
  if (IsEmpty(r) || p->in_place) return Done(result, S_OK);
  const size_t bytes = static_cast<size_t>(r.right - r.left) * bpp;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    std::memcpy(RowPtr(*p->dst, y) + r.left * bpp, RowPtr(*p->src, y) + r.left * bpp, bytes);
  }
  return Done(result, S_OK);
}

int32_t GlowDetectHighlight(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowDetectParam*>(job->param);
  if (!p->src || !p->dst || !p->src->data || !p->dst->data) return Done(result, E_POINTER);
  if (p->src->pix_fmt != PIXEL_BGRA32 || p->dst->pix_fmt != PIXEL_BGRA32) return Done(result, E_NOTIMPL);
  const SmartBuffer* mask = (p->mask && p->mask->data) ? p->mask : nullptr;
  if (mask && mask->pix_fmt != PIXEL_GRAY8) return Done(result, E_NOTIMPL);
  const Rect r = Clip(job->rect, p->cols, p->rows);
  if (IsEmpty(r)) return Done(result, S_OK);

  // A threshold below -255 lifts every channel to 255 anyway.
  const int32_t t = std::min(std::max(p->threshold, -255), 255);
  uint8_t lut[256];
  for (int32_t v = 0; v < 256; ++v) lut[v] = static_cast<uint8_t>(std::min(std::max(v - t, 0), 255));

  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = RowPtr(*p->src, y) + r.left * 4;
    unsigned char* d = RowPtr(*p->dst, y) + r.left * 4;
    if (!mask) {
      for (int32_t x = r.left; x < r.right; ++x, s += 4, d += 4) {
        d[0] = lut[s[0]];
        d[1] = lut[s[1]];
        d[2] = lut[s[2]];
        d[3] = s[3];
      }
      continue;
    }
    // Mask bytes exist for columns below mask->width of rows below its height.
    const int32_t mw = y < mask->height ? mask->width : 0;
    const unsigned char* m = y < mask->height ? RowPtr(*mask, y) : nullptr;
    const int32_t inner = std::min(r.right, mw - 2);  // all three mask bytes inside
    int32_t x = r.left;
    for (; x < inner; ++x, s += 4, d += 4) {
      d[0] = static_cast<unsigned char>((m[x] * lut[s[0]]) >> 8);
      d[1] = static_cast<unsigned char>((m[x + 1] * lut[s[1]]) >> 8);
      d[2] = static_cast<unsigned char>((m[x + 2] * lut[s[2]]) >> 8);
      d[3] = s[3];
    }
    for (; x < r.right; ++x, s += 4, d += 4) {
      for (int32_t c = 0; c < 3; ++c) {
        const int32_t mv = (x + c < mw) ? m[x + c] : 0;
        d[c] = static_cast<unsigned char>((mv * lut[s[c]]) >> 8);
      }
      d[3] = s[3];
    }
  }
  return Done(result, S_OK);
}

const GlowConvertParam* GlowConvertBand(ThreadJob* job, int32_t* result, Rect& r) {
  const auto* p = static_cast<const GlowConvertParam*>(job->param);
  if (!p->bytes || !p->floats || !p->bytes->data || !p->floats->data) {
    Done(result, E_POINTER);
    return nullptr;
  }
  if (p->bytes->pix_fmt != PIXEL_BGRA32 || p->floats->pix_fmt != PIXEL_FLOAT96) {
    Done(result, E_INVALIDARG);
    return nullptr;
  }
  r = Clip(job->rect, std::min(p->bytes->width, p->floats->width), std::min(p->bytes->height, p->floats->height));
  if (IsEmpty(r)) {
    Done(result, S_OK);
    return nullptr;
  }
  return p;
}

int32_t GlowByteToFloat(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    glow_detail::ByteToFloatPixels(RowPtr(*p->bytes, y) + r.left * 4, RowPtr<float>(*p->floats, y) + r.left * 3,
                                   r.right - r.left, p->tone);
  }
  return Done(result, S_OK);
}

int32_t GlowFloatToByte(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  // Converted in chunks through a small buffer: the contiguous conversion
  // loop vectorises, the scatter into B, G, R (alpha kept) is plain bytes.
  constexpr int32_t kChunk = 256;
  int32_t tmp[kChunk * 3];
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* s = RowPtr<float>(*p->floats, y) + r.left * 3;
    unsigned char* d = RowPtr(*p->bytes, y) + r.left * 4;
    for (int32_t x0 = 0, n = r.right - r.left; x0 < n; x0 += kChunk) {
      const int32_t m = std::min(kChunk, n - x0);
      const float* sc = s + 3 * x0;
      // x * 255 is exact in double; truncation toward zero after the clamp
      // (branch-free; NaN gives 0).
      for (int32_t i = 0; i < 3 * m; ++i) {
        tmp[i] = static_cast<int32_t>(std::min(std::max(0.0, sc[i] * 255.0 + 0.0), 255.0));
      }
      unsigned char* dc = d + 4 * x0;
      for (int32_t i = 0; i < m; ++i) {
        dc[4 * i + 0] = static_cast<unsigned char>(tmp[3 * i + 0]);
        dc[4 * i + 1] = static_cast<unsigned char>(tmp[3 * i + 1]);
        dc[4 * i + 2] = static_cast<unsigned char>(tmp[3 * i + 2]);
      }
    }
  }
  return Done(result, S_OK);
}

float GlowToneCurve(float x, float gain, float k, float k_in, float k_out) {
  const float a = Sigmoid(x, k_in);
  const float b = (Sigmoid(2.0f * a - 1.0f, k) + 1.0f) * 0.5f;
  const float c = Sigmoid(b, k_out);
  const float w = ((2.0f * c - 1.0f) + 1.0f) * 0.5f;
  return gain * w + 0.0625f;
}

namespace {

// The tone curve over n samples in place.
void ToneCurveSamples(float* v, int32_t n, const GlowLightParam& p) {
  const float gain = p.gain, k = p.k, k_in = p.k_in, k_out = p.k_out;
  // At strength 0 a stage is exactly the identity for finite values
  // ((u - 0) / 1), so the outer stages are skipped then: same bits, two
  // divisions fewer per sample.
  if (k_in != 0.0f || k_out != 0.0f) {
    for (int32_t i = 0; i < n; ++i) v[i] = GlowToneCurve(v[i], gain, k, k_in, k_out);
    return;
  }
  for (int32_t i = 0; i < n; ++i) {
    const float b = (Sigmoid(2.0f * v[i] - 1.0f, k) + 1.0f) * 0.5f;
    v[i] = gain * (((2.0f * b - 1.0f) + 1.0f) * 0.5f) + 0.0625f;
  }
}

}  // namespace

void GlowToneTable(const GlowLightParam& p, float table[256]) {
  for (int32_t v = 0; v < 256; ++v) table[v] = v * 0.003921569f + 0.0f;
  ToneCurveSamples(table, 256, p);
}

void GlowTintTable(const GlowColorParam& p, int32_t tint[256][3]) {
  const int32_t hue = ClampToInt(p.hue * kHueFull, 0, kHueFull);
  const int32_t sat = ClampToInt(p.strength * kHsvMax, 0, kHsvMax);
  for (int32_t v = 0; v < 256; ++v) HsvToRgb(hue, sat, v << 7, tint[v][0], tint[v][1], tint[v][2]);
}

namespace {

// The byte colour adjustment of one band. kTint: color_strength is not 0.
// kHsv: the saturation step can change the colour (saturation not 0, or a
// tint strong enough to push channels below 0); otherwise the HSV round trip
// is exact and skipped. kScale: brightness is not 1.
template <bool kTint, bool kHsv, bool kScale>
void AdjustColorBand(const GlowColorParam& p, const Rect& r) {
  const float w = p.strength, keep = 1.0f - p.strength;
  const float sat_gain = p.saturation + 1.0f;
  const float beta = p.brightness;
  int32_t tint[256][3];
  if (kTint) GlowTintTable(p, tint);
  // B, G, R packed into the low three bytes, in and out.
  auto adjust = [&](uint32_t bgr) -> uint32_t {
    int32_t b = bgr & 255, g = (bgr >> 8) & 255, rr = (bgr >> 16) & 255;
    if (kTint) {
      const int32_t* t = tint[std::max(b, std::max(g, rr))];
      rr = ClampToInt(rr * keep + t[0] * w, kTintFloor, 255);
      g = ClampToInt(g * keep + t[1] * w, kTintFloor, 255);
      b = ClampToInt(b * keep + t[2] * w, kTintFloor, 255);
    }
    if (kHsv) {
      int32_t h, s, v;
      RgbToHsv(rr, g, b, h, s, v);
      s = ClampToInt(static_cast<float>(s) * sat_gain, 0, kHsvMax);
      HsvToRgb(h, s, v, rr, g, b);
    }
    if (kScale) {
      rr = static_cast<int32_t>(rr * beta);
      g = static_cast<int32_t>(g * beta);
      b = static_cast<int32_t>(b * beta);
    }
    return static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 | static_cast<uint32_t>(rr) << 16;
  };
  // The result depends on the colour alone. With the HSV round trip in the
  // way, a small memo of recent colours pays: a softened glow repeats its
  // colours from pixel to pixel. (4096 entries: 32 KB of stack.)
  constexpr int32_t kMemoBits = kHsv ? 12 : 0;
  uint32_t memo_key[1 << kMemoBits], memo_val[1 << kMemoBits];
  if (kHsv) std::fill_n(memo_key, 1 << kMemoBits, 0xFFFFFFFFu);  // no colour has a top byte
  for (int32_t y = r.top; y < r.bottom; ++y) {
    unsigned char* px = RowPtr(*p.img, y) + r.left * 4;
    for (int32_t x = r.left; x < r.right; ++x, px += 4) {
      const uint32_t key = px[0] | static_cast<uint32_t>(px[1]) << 8 | static_cast<uint32_t>(px[2]) << 16;
      uint32_t out;
      if (kHsv) {
        const uint32_t slot = (key * 2654435761u) >> (32 - kMemoBits);
        if (memo_key[slot] == key) {
          out = memo_val[slot];
        } else {
          out = adjust(key);
          memo_key[slot] = key;
          memo_val[slot] = out;
        }
      } else {
        out = adjust(key);
      }
      px[0] = static_cast<unsigned char>(out);
      px[1] = static_cast<unsigned char>(out >> 8);
      px[2] = static_cast<unsigned char>(out >> 16);
    }
  }
}

using ColorBandFn = void (*)(const GlowColorParam&, const Rect&);

template <bool kTint, bool kHsv>
ColorBandFn PickScale(bool scale) {
  return scale ? &AdjustColorBand<kTint, kHsv, true> : &AdjustColorBand<kTint, kHsv, false>;
}

}  // namespace

const GlowColorParam* GlowColorBand(ThreadJob* job, int32_t* result, Rect& r, GlowColorSteps& steps) {
  const auto* p = static_cast<const GlowColorParam*>(job->param);
  if (!p->img || !p->img->data) {
    Done(result, E_POINTER);
    return nullptr;
  }
  if (p->img->pix_fmt != PIXEL_BGRA32) {
    Done(result, E_INVALIDARG);
    return nullptr;
  }
  r = Clip(job->rect, p->img->width, p->img->height);
  // Each skipped step is one whose effect on an 8-bit colour is exactly
  // nothing. Without the HSV round trip a tint has strength 0..1 and keeps
  // channels in 0..255.
  steps.tint = p->strength != 0.0f;
  steps.hsv = p->saturation != 0.0f || p->strength > 1.0f;
  steps.scale = p->brightness != 1.0f;
  if (IsEmpty(r) || (!steps.tint && !steps.hsv && !steps.scale)) {  // every colour stays as it is
    Done(result, S_OK);
    return nullptr;
  }
  return p;
}

int32_t GlowAdjustColor(ThreadJob* job, int32_t* result) {
  Rect r;
  GlowColorSteps st;
  const GlowColorParam* p = GlowColorBand(job, result, r, st);
  if (!p) return *result;
  // The band kernel is chosen once.
  ColorBandFn fn = st.tint ? (st.hsv ? PickScale<true, true>(st.scale) : PickScale<true, false>(st.scale))
                           : (st.hsv ? PickScale<false, true>(st.scale) : &AdjustColorBand<false, false, true>);
  fn(*p, r);
  return Done(result, S_OK);
}

int32_t GlowAdjustColorFloat(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowColorParam*>(job->param);
  if (!p->img || !p->img->data) return Done(result, E_POINTER);
  if (p->img->pix_fmt != PIXEL_FLOAT96) return Done(result, E_INVALIDARG);
  const Rect r = Clip(job->rect, p->img->width, p->img->height);
  if (IsEmpty(r)) return Done(result, S_OK);
  const float w = p->strength, keep = 1.0f - p->strength;
  const float hue = p->hue * kHueFull;
  const float sat_gain = p->saturation + 1.0f;
  const float beta = p->brightness;
  const bool tint = w != 0.0f;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    float* px = RowPtr<float>(*p->img, y) + r.left * 3;
    for (int32_t x = r.left; x < r.right; ++x, px += 3) {
      // The highlight is first limited to 0..1, as the byte pipeline's
      // conversion limits it to 0..255, so both pipelines tint the same glow.
      float c[3];
      for (int32_t i = 0; i < 3; ++i) c[i] = px[i] > 0.0f ? std::min(px[i], 1.0f) : 0.0f;
      float b = c[0], g = c[1], rr = c[2];
      if (tint) {
        float tr, tg, tb;
        HsvToRgbF(hue, w, std::max(b, std::max(g, rr)), tr, tg, tb);
        rr = std::min(std::max(rr * keep + tr * w, kTintFloorF), 1.0f);
        g = std::min(std::max(g * keep + tg * w, kTintFloorF), 1.0f);
        b = std::min(std::max(b * keep + tb * w, kTintFloorF), 1.0f);
      }
      float h, s, v;
      RgbToHsvF(rr, g, b, h, s, v);
      s = std::min(s * sat_gain, 1.0f);
      HsvToRgbF(h, s, v, rr, g, b);
      px[0] = b * beta;
      px[1] = g * beta;
      px[2] = rr * beta;
    }
  }
  return Done(result, S_OK);
}

}  // namespace Korvane
