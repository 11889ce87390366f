// Float blend modes of the glow (hue and saturation): non-separable, computed
// in floats on the 0..1536 hue scale, composited through the byte frame.
#define KORVANE_GLOW_BLEND_FORMULAS 1
#include <cmath>
#include <cstddef>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/glow/GlowBlend.h"

namespace Korvane {
namespace {

constexpr float kLumaScale = 1.5258789e-5f;  // 1 / 65536

// Pixels are B, G, R on 0..255.
inline float LumaF(const float* c) { return (c[1] * 38665.0f + c[2] * 19660.0f + c[0] * 7209.0f) * kLumaScale; }

inline float ChromaF(const float* c, float* hi) {
  *hi = std::fmax(std::fmax(c[0], c[1]), c[2]);
  return *hi - std::fmin(std::fmin(c[0], c[1]), c[2]);
}

// Hue on 0..1536, six sectors of 256 starting at red; 0 for a grey.
inline float HueF(const float* c, float hi, float chroma) {
  if (!(chroma > 0.0f)) return 0.0f;
  if (hi == c[2]) {
    float h = (c[1] - c[0]) * 256.0f / chroma + 1536.0f;
    while (h >= 1536.0f) h -= 1536.0f;
    return h;
  }
  if (hi == c[1]) return (c[0] - c[2]) * 256.0f / chroma + 512.0f;
  return (c[2] - c[1]) * 256.0f / chroma + 1024.0f;
}

inline float Clamp255F(float v) { return v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f; }

// A colour of hue h, chroma c and luminance l, clamped to 0..255.
void BuildF(float h, float c, float l, float* out) {
  if (!(c > 0.0f)) {
    out[0] = out[1] = out[2] = Clamp255F(l);
    return;
  }
  const float hr = h - 512.0f * static_cast<float>(static_cast<int32_t>(h / 512.0f));
  const float x = (256.0f - std::fabs(hr - 256.0f)) * c * 0.00390625f;
  float r, g, b;
  if (h < 256.0f) {
    r = c, g = x, b = 0.0f;
  } else if (h < 512.0f) {
    r = x, g = c, b = 0.0f;
  } else if (h < 768.0f) {
    r = 0.0f, g = c, b = x;
  } else if (h < 1024.0f) {
    r = 0.0f, g = x, b = c;
  } else if (h < 1280.0f) {
    r = x, g = 0.0f, b = c;
  } else {
    r = c, g = 0.0f, b = x;
  }
  out[0] = b, out[1] = g, out[2] = r;
  const float shift = l - LumaF(out);
  for (int k = 0; k < 3; ++k) out[k] = Clamp255F(out[k] + shift);
}

// Hue of the glow with the photo's chroma and luminance; a grey glow gives
// the photo's luminance as grey.
void HueMode(const float* s, const float* d, float* f) {
  float hs, hd;
  const float cs = ChromaF(s, &hs);
  const float cd = ChromaF(d, &hd);
  BuildF(HueF(s, hs, cs), cs > 0.0f ? cd : 0.0f, LumaF(d), f);
}

// The glow's chroma on the photo's hue and luminance, damped where the photo
// is nearly grey, very light or very dark so those areas do not take on
// colour they never had.
void SaturationMode(const float* s, const float* d, float* f) {
  float hs, hd;
  float c = ChromaF(s, &hs);
  const float cd = ChromaF(d, &hd);
  const float l = LumaF(d);
  if (cd < 5.0f) c = cd * c / 5.0f;
  if (l > 180.0f)
    c = (255.0f - l) * c / 75.0f;
  else if (l < 60.0f)
    c = l * c / 60.0f;
  BuildF(HueF(d, hd, cd), c, l, f);
}

template <bool kHue, bool kRoiRelative>
int32_t FloatRows(ThreadJob* job, int32_t* result) {
  GlowBlendBand b;
  const int32_t hr = GlowBlendPrepareBand(job, true, kRoiRelative, &b);
  if (hr >= 0) {
    for (int32_t y = b.y0; y < b.y1; ++y) {
      const float* sr = reinterpret_cast<const float*>(b.glow + static_cast<ptrdiff_t>(y) * b.glow_stride);
      const uint8_t* dr = b.photo + static_cast<ptrdiff_t>(y) * b.photo_stride;
      uint8_t* orow = b.dst + static_cast<ptrdiff_t>(y - b.oy) * b.dst_stride;
      for (int32_t x = b.x0; x < b.x1; ++x) {
        GlowBlendFloatPixel(kHue, sr + x * 3, dr + x * 4, orow + (x - b.ox) * 4, b.opacity);
      }
    }
  }
  return Done(result, hr);
}

}  // namespace

template <bool kRoiRelative>
int32_t GlowBlendHueRows(ThreadJob* job, int32_t* result) {
  return FloatRows<true, kRoiRelative>(job, result);
}
template <bool kRoiRelative>
int32_t GlowBlendSaturationRows(ThreadJob* job, int32_t* result) {
  return FloatRows<false, kRoiRelative>(job, result);
}
template int32_t GlowBlendHueRows<false>(ThreadJob*, int32_t*);
template int32_t GlowBlendHueRows<true>(ThreadJob*, int32_t*);
template int32_t GlowBlendSaturationRows<false>(ThreadJob*, int32_t*);
template int32_t GlowBlendSaturationRows<true>(ThreadJob*, int32_t*);

void GlowBlendFloatPixel(bool hue, const float* sr, const uint8_t* dp, uint8_t* o, int32_t opacity) {
  // The float glow holds 0..1 (more where the tone curve overshoots).
  const float sf[3] = {Clamp255F(sr[0] * 255.0f), Clamp255F(sr[1] * 255.0f), Clamp255F(sr[2] * 255.0f)};
  const float df[3] = {float(dp[0]), float(dp[1]), float(dp[2])};
  float ff[3];
  if (hue)
    HueMode(sf, df, ff);
  else
    SaturationMode(sf, df, ff);
  const int32_t s[3] = {int32_t(sf[0] + 0.5f), int32_t(sf[1] + 0.5f), int32_t(sf[2] + 0.5f)};
  const int32_t d[3] = {dp[0], dp[1], dp[2]};
  const int32_t f[3] = {int32_t(ff[0] + 0.5f), int32_t(ff[1] + 0.5f), int32_t(ff[2] + 0.5f)};
  const Composited<int32_t> c = Composite<int32_t>(s, 255, d, dp[3], f, opacity);
  if (!c.write) return;
  o[0] = static_cast<uint8_t>(c.out[0]);
  o[1] = static_cast<uint8_t>(c.out[1]);
  o[2] = static_cast<uint8_t>(c.out[2]);
  o[3] = static_cast<uint8_t>(c.alpha);
}

void GlowBlendFloatFunction(int32_t mode, const float s[3], const uint8_t* d, float f[3]) {
  const float df[3] = {float(d[0]), float(d[1]), float(d[2])};
  if (mode == 11)
    HueMode(s, df, f);
  else if (mode == 12)
    SaturationMode(s, df, f);
  else
    f[0] = f[1] = f[2] = 0.0f;
}

}  // namespace Korvane
