// Compositing of the glow over the photo: 29 blend modes served by a table of
// 38 row tasks ("slots").
//
// Every byte slot composites the glow pixel s over the photo pixel d in 8-bit
// integers:
//   a  = (As * opacity) >> 8          (full alpha at opacity 255 gives 254, so
//                                      the photo always keeps 1/255 of itself)
//   wd = (255 - a) * Ad / 255,  ws = (255 - Ad) * a / 255,  wb = Ad * a / 255
//   Ao = (a + wd) mod 256
//   out = clamp((d * wd + s * ws + wb * F(s, d)) / Ao, 0, 255), out alpha Ao
// with truncating divisions; a <= 0 leaves the output pixel untouched.
//
// Mode -> slot -> F(s, d) (s glow, d photo, 0..255):
//   0 -> 0 normal s            1 -> 1 darken            2 -> 2 multiply
//   3 -> 4 linear burn s+d-255 4 -> 5 lighten           5 -> 6 screen
//   6 -> 8 linear dodge        7 -> 9 overlay           8 -> 11 linear light
//   9 -> 12 difference         10 -> 13 exclusion       11 -> 14 hue (float)
//   12 -> 15 saturation (float) 13 -> 16 luminosity     15 -> 18 hard light
//   16 -> 19 soft light        17 -> 21 colour burn     18 -> 23 colour dodge
//   19 -> 25 vivid light       20 -> 26 pin light       23 -> 30 addition
//   24 -> 32 subtraction       25 -> 34 divide          26 -> 35 darker colour
//   27 -> 36 lighter colour    28 -> 37 normal
//   14 -> 17 soft light (pegtop): (2*s*d + (255 - 2s) * d*d / 255) / 255,
//            written as d * (255*d + 2*s*(255 - d)) / 65025; smooth, no seams.
//   21 -> 27 hard mix: 255 where the vivid light of (s, d) is >= 128, else 0.
//   22 -> 28 reflect: s = 255 gives 255, else min(d*d / (255 - s), 255); a
//            soft dodge that brightens highlights more than shadows.
// Slots no mode reaches, kept as real kernels:
//   3 clamped linear burn max(s+d-255, 0)     7 negation 255 - |255 - s - d|
//   10 clamped linear light clamp(d+2s-255)   20 clamped colour burn (>= 0)
//   22 clamped colour dodge (<= 255)          24 vivid light clamped to 0..255
//   29 clamped addition min(s+d, 255)         31 max(d - s, 0)
//   33 divide clamped to 255
//
// Float modes 11 (hue) and 12 (saturation) read the FLOAT96 glow, whose
// values are 0..1, scaled by 255 onto the byte scale of the mode constants
// (and clamped there: the unclamped tone curve can leave values above 1); the
// float glow has no alpha and counts as opaque (As = 255). F is computed in
// floats, rounded, and composited through the same integer frame.
//
// Addressing of dst: the SSE4.1 and AVX2 tables' tasks write the result of
// image pixel (x, y) to dst at (x - roi.left, y - roi.top); the plain table's, at (x, y),
// which agrees only for a roi at the origin. Either way a write that would fall
// outside dst is skipped, and the roi must lie inside the glow and the photo.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

constexpr int32_t kGlowBlendModeCount = 29;  // modes 0..28
constexpr int32_t kGlowBlendSlotCount = 38;

// Parameter of every blend row task; the band is a range of rows of `roi`
// (image coordinates).
struct GlowBlendParam {
  const SmartBuffer* glow = nullptr;    // BGRA highlight, image size (byte modes)
  const SmartBuffer* glow_f = nullptr;  // FLOAT96 highlight, values 0..1, image size (modes 11, 12)
  const SmartBuffer* photo = nullptr;   // BGRA photo, image size
  SmartBuffer* dst = nullptr;           // caller's output, roi size
  Rect roi;                             // region of the image composited into dst
  int32_t opacity = 255;
};

// Fills the mode -> slot map and the three 38-slot kernel tables (row tasks):
// the plain forms, and the SSE4.1 and AVX2 forms with their eight-pixel path
// and roi-relative addressing (all NULL in a build without those kernels).
// A task answers E_POINTER for missing pixels, E_NOTIMPL for a wrong format
// and E_INVALIDARG for a roi outside the glow or the photo.
void FillGlowBlendTables(int32_t mode_to_slot[kGlowBlendModeCount], ThreadTask plain[kGlowBlendSlotCount],
                         ThreadTask sse41[kGlowBlendSlotCount], ThreadTask avx2[kGlowBlendSlotCount]);

// The slot of a mode, or -1 for a mode outside 0..28.
int32_t GlowBlendSlot(int32_t mode);

// True for the slots that read the float glow (modes 11 and 12).
inline bool IsGlowFloatSlot(int32_t slot) { return slot == 14 || slot == 15; }

// Per-pixel access for checks and tools (BGRA pixels, 4 bytes each).
// F(s, d) of a byte slot for B, G, R, before any clamping.
void GlowBlendFunction(int32_t slot, const uint8_t* s, const uint8_t* d, int32_t f[3]);
// One pixel through a byte slot's per-pixel function. `alpha_mul` takes
// As * Ad / 255 instead of As, `raw` writes F clamped to 0..255 straight to
// the colour channels; the row tasks pass both off.
void GlowBlendPixel(int32_t slot, const uint8_t* s, const uint8_t* d, uint8_t* out,
                    int32_t opacity, bool alpha_mul = false, bool raw = false);
// F of float mode 11 or 12 for a glow colour s (B, G, R on 0..255) over a
// photo pixel d, each channel on 0..255.
void GlowBlendFloatFunction(int32_t mode, const float s[3], const uint8_t* d, float f[3]);

}  // namespace Korvane

// ---------------------------------------------------------------------------
// Blend formulas, shared by the per-pixel and the eight-pixel kernels. Each is
// written once over a lane type T: int32_t in the plain file, a four-lane
// vector in the SSE4.1 file and an eight-lane one in the AVX2 file, which
// supply the same operations for it. Only the blend sources define
// KORVANE_GLOW_BLEND_FORMULAS. The unnamed namespace keeps the files'
// instantiations apart (each is built with its own instruction set).
#ifdef KORVANE_GLOW_BLEND_FORMULAS
#include <cmath>

namespace Korvane {

// The band of one blend task, clipped and checked.
struct GlowBlendBand {
  const uint8_t* glow = nullptr;  // pixel (0, 0) of the glow (byte or float)
  const uint8_t* photo = nullptr;
  uint8_t* dst = nullptr;
  int32_t glow_stride = 0, photo_stride = 0, dst_stride = 0;
  int32_t x0 = 0, x1 = 0, y0 = 0, y1 = 0;  // image pixels written: [x0, x1) x [y0, y1)
  int32_t ox = 0, oy = 0;                  // image (x, y) goes to dst (x - ox, y - oy)
  int32_t opacity = 0;                     // clamped to 0..255
};
// Validates the task's parameter and clips its band; S_OK with an empty band
// when nothing is to be written. roi_relative: the SSE4.1 tables' addressing.
int32_t GlowBlendPrepareBand(const ThreadJob* job, bool float_glow, bool roi_relative, GlowBlendBand* band);
// Row tasks of the float modes, in the plain and the SSE4.1 table's
// addressing, and the AVX2 forms (eight pixels a step, the SIMD tables'
// addressing).
template <bool kRoiRelative>
int32_t GlowBlendHueRows(ThreadJob* job, int32_t* result);
template <bool kRoiRelative>
int32_t GlowBlendSaturationRows(ThreadJob* job, int32_t* result);
int32_t GlowBlendHueRows_AVX2(ThreadJob* job, int32_t* result);
int32_t GlowBlendSaturationRows_AVX2(ThreadJob* job, int32_t* result);
// One pixel of float mode 11 (hue) or 12 (saturation): the glow's three
// floats at sr (0..1) over the photo pixel dp, composited into o, which is
// left untouched where the frame writes nothing.
void GlowBlendFloatPixel(bool hue, const float* sr, const uint8_t* dp, uint8_t* o, int32_t opacity);

namespace {

// Scalar lane operations; comparisons give bool, Sel picks by it.
inline int32_t Min(int32_t a, int32_t b) { return a < b ? a : b; }
inline int32_t Max(int32_t a, int32_t b) { return a > b ? a : b; }
inline int32_t Abs(int32_t a) { return a < 0 ? -a : a; }
inline bool Lt(int32_t a, int32_t b) { return a < b; }
inline bool Le(int32_t a, int32_t b) { return a <= b; }
inline bool Gt(int32_t a, int32_t b) { return a > b; }
inline bool Ge(int32_t a, int32_t b) { return a >= b; }
inline bool Eq(int32_t a, int32_t b) { return a == b; }
inline bool Or(bool a, bool b) { return a || b; }
inline int32_t Sel(bool c, int32_t a, int32_t b) { return c ? a : b; }
// Truncating division of n >= 0 by q > 0. Every numerator the formulas
// divide stays below 2^24 in the lanes whose result is used, which keeps the
// vector form (a single-precision quotient) exact.
inline int32_t Div(int32_t n, int32_t q) { return n / q; }
// n / 255 for 0 <= n <= 65534.
inline int32_t Div255(int32_t n) { return n / 255; }
// n / q for 0 <= n < 2^24 and 1 <= q <= 255 by a multiply with ceil(2^32 / q):
// its excess stays below n / 2^32 < 1/256, under the 1/q gap to the next
// integer, so the quotient is exact. This is the per-pixel divisor Ao.
struct ReciprocalTable {
  uint64_t m[256];
  constexpr ReciprocalTable() : m() {
    for (uint64_t q = 1; q < 256; ++q) m[q] = ((uint64_t(1) << 32) + q - 1) / q;
  }
};
constexpr ReciprocalTable kReciprocal;
inline int32_t DivSmall(int32_t n, int32_t q) {
  return static_cast<int32_t>((static_cast<uint64_t>(n) * kReciprocal.m[q & 255]) >> 32);
}
// (int)(16 * sqrt(d)) in single precision, as the vector form computes it.
inline int32_t Sqrt16(int32_t d) { return static_cast<int32_t>(16.0f * std::sqrt(static_cast<float>(d))); }

// Signed truncating division (toward zero) by q > 0.
template <class T>
inline T SDiv(T n, T q) {
  return Sel(Lt(n, 0), 0 - Div(0 - n, q), Div(Max(n, 0), q));
}

template <class T>
inline T ColourBurn(T s, T d) {
  return Sel(Gt(s, 0), 255 - Div((255 - d) * 255, Max(s, 1)), Sel(Lt(d, 255), T(0), T(255)));
}
template <class T>
inline T ColourDodge(T s, T d) {
  return Sel(Lt(s, 255), Div(d * 255, Max(255 - s, 1)), Sel(Gt(d, 0), T(255), T(0)));
}
template <class T>
inline T VividLight(T s, T d) {
  const T burn = Sel(Eq(s, 0), T(0), 255 - Div((255 - d) * 255, Max(2 * s, 1)));
  const T dodge = Sel(Lt(s, 255), Div(d * 255, Max(2 * (255 - s), 1)), T(255));
  return Sel(Lt(s, 128), burn, dodge);
}
template <class T>
inline T Divide(T s, T d) {
  return Sel(Gt(s, 0), Div(d * 255, Max(s, 1)), Sel(Gt(d, 0), T(255), T(0)));
}
template <class T>
inline T SoftLight(T s, T d) {
  const T dd = d * d;
  const T low = Div(2 * s * d + Div(Max(255 - 2 * s, 0) * dd, 255), 255);
  const T cubic = Div(16 * dd * d, 65025) - Div(12 * dd, 255) + 4 * d;
  const T root = Sel(Ge(d, 64), Sqrt16(d), cubic);
  const T high = Div(2 * (255 - s) * d + Max(2 * s - 255, 0) * root, 255);
  return Sel(Lt(s, 128), low, high);
}
template <class T>
inline T HardLight(T s, T d) {
  return Sel(Lt(s, 128), Div(2 * s * d, 255), 255 - Div(2 * (255 - s) * (255 - d), 255));
}
template <class T>
inline T Clamp255(T v) {
  return Max(Min(v, 255), 0);
}
// Integer luminance with weights summing to 65534.
template <class T>
inline T Luma(const T* c) {
  return (c[0] * 7209 + c[1] * 38665 + c[2] * 19660) >> 16;
}

// Blend function of one slot: f (B, G, R) from s and d. Separable slots
// apply F per channel.
template <int Slot>
struct BlendMode;

#define KORVANE_GLOW_SEPARABLE(SLOT, ...)                         \
  template <>                                                     \
  struct BlendMode<SLOT> {                                        \
    template <class T>                                            \
    static T F(T s, [[maybe_unused]] T d) {                       \
      return __VA_ARGS__;                                         \
    }                                                             \
    template <class T>                                            \
    static void Apply(const T* s, const T* d, T* f) {             \
      for (int c = 0; c < 3; ++c) f[c] = F(s[c], d[c]);           \
    }                                                             \
  };

KORVANE_GLOW_SEPARABLE(0, s)
KORVANE_GLOW_SEPARABLE(1, Min(s, d))
KORVANE_GLOW_SEPARABLE(2, Div255(s * d))
KORVANE_GLOW_SEPARABLE(3, Max(s + d - 255, 0))
KORVANE_GLOW_SEPARABLE(4, s + d - 255)
KORVANE_GLOW_SEPARABLE(5, Max(s, d))
KORVANE_GLOW_SEPARABLE(6, 255 - Div255((255 - s) * (255 - d)))
KORVANE_GLOW_SEPARABLE(7, 255 - Abs(255 - s - d))
KORVANE_GLOW_SEPARABLE(8, Min(s + d, 255))
KORVANE_GLOW_SEPARABLE(9, Sel(Lt(d, 128), Div(2 * s * d, 255), 255 - Div(2 * (255 - s) * (255 - d), 255)))
KORVANE_GLOW_SEPARABLE(10, Clamp255(d - 255 + 2 * s))
KORVANE_GLOW_SEPARABLE(11, d + 2 * s - 255)
KORVANE_GLOW_SEPARABLE(12, Abs(d - s))
KORVANE_GLOW_SEPARABLE(13, s + d - Div(2 * s * d, 255))
KORVANE_GLOW_SEPARABLE(17, Div(d * (255 * d + 2 * s * (255 - d)), 65025))
KORVANE_GLOW_SEPARABLE(18, HardLight(s, d))
KORVANE_GLOW_SEPARABLE(19, SoftLight(s, d))
KORVANE_GLOW_SEPARABLE(20, Max(ColourBurn(s, d), 0))
KORVANE_GLOW_SEPARABLE(21, ColourBurn(s, d))
KORVANE_GLOW_SEPARABLE(22, Min(ColourDodge(s, d), 255))
KORVANE_GLOW_SEPARABLE(23, ColourDodge(s, d))
KORVANE_GLOW_SEPARABLE(24, Clamp255(VividLight(s, d)))
KORVANE_GLOW_SEPARABLE(25, VividLight(s, d))
KORVANE_GLOW_SEPARABLE(26, Sel(Lt(s, 128), Min(d, 2 * s), Max(2 * s - 255, d)))
KORVANE_GLOW_SEPARABLE(27, Sel(Ge(VividLight(s, d), 128), T(255), T(0)))
KORVANE_GLOW_SEPARABLE(28, Sel(Eq(s, 255), T(255), Min(Div(d * d, Max(255 - s, 1)), 255)))
KORVANE_GLOW_SEPARABLE(29, Min(s + d, 255))
KORVANE_GLOW_SEPARABLE(30, s + d)
KORVANE_GLOW_SEPARABLE(31, Max(d - s, 0))
KORVANE_GLOW_SEPARABLE(32, d - s)
KORVANE_GLOW_SEPARABLE(33, Min(Divide(s, d), 255))
KORVANE_GLOW_SEPARABLE(34, Divide(s, d))
KORVANE_GLOW_SEPARABLE(37, s)
#undef KORVANE_GLOW_SEPARABLE

// Luminosity: hue and chroma of the photo on the 0..1536 hue scale (six
// sectors of 256), luminance of the glow.
template <>
struct BlendMode<16> {
  template <class T>
  static void Apply(const T* s, const T* d, T* f) {
    const T b = d[0], g = d[1], r = d[2];
    const T hi = Max(Max(b, g), r);
    const T c = hi - Min(Min(b, g), r);
    const T cq = Max(c, 1);
    T hue_r = SDiv((g - b) * 256, cq) + 1536;
    hue_r = Sel(Ge(hue_r, 1536), hue_r - 1536, hue_r);
    const T hue_g = SDiv((b - r) * 256, cq) + 512;
    const T hue_b = SDiv((r - g) * 256, cq) + 1024;
    const T h = Sel(Eq(hi, r), hue_r, Sel(Eq(hi, g), hue_g, hue_b));
    const T x = ((256 - Abs((h & 511) - 256)) * c) >> 8;
    const T sector = h >> 8;
    const T zero(0);
    // (R, G, B) per sector: (C,x,0) (x,C,0) (0,C,x) (0,x,C) (x,0,C) (C,0,x).
    T rgb[3];
    rgb[2] = Sel(Or(Eq(sector, 0), Eq(sector, 5)), c, Sel(Or(Eq(sector, 1), Eq(sector, 4)), x, zero));
    rgb[1] = Sel(Or(Eq(sector, 1), Eq(sector, 2)), c, Sel(Or(Eq(sector, 0), Eq(sector, 3)), x, zero));
    rgb[0] = Sel(Or(Eq(sector, 3), Eq(sector, 4)), c, Sel(Or(Eq(sector, 2), Eq(sector, 5)), x, zero));
    const T lum = Luma(s);
    const T shift = lum - Luma(rgb);
    for (int k = 0; k < 3; ++k) f[k] = Sel(Eq(c, 0), lum, Clamp255(rgb[k] + shift));
  }
};

// Darker colour: the whole glow pixel where the photo's luminance is not
// below the glow's; lighter colour: where it is not above.
template <>
struct BlendMode<35> {
  template <class T>
  static void Apply(const T* s, const T* d, T* f) {
    const auto take_glow = Ge(Luma(d), Luma(s));
    for (int k = 0; k < 3; ++k) f[k] = Sel(take_glow, s[k], d[k]);
  }
};
template <>
struct BlendMode<36> {
  template <class T>
  static void Apply(const T* s, const T* d, T* f) {
    const auto take_glow = Le(Luma(d), Luma(s));
    for (int k = 0; k < 3; ++k) f[k] = Sel(take_glow, s[k], d[k]);
  }
};

// The compositing frame for one pixel (or four lanes): out (B, G, R) and
// alpha from s, d, their alphas, F and the opacity; `write` is false where
// a <= 0 and the output must stay untouched.
template <class T>
struct Composited {
  T out[3];
  T alpha;
  decltype(Gt(T(0), T(0))) write;
};
template <class T>
inline Composited<T> Composite(const T* s, T as, const T* d, T ad, const T* f, T opacity) {
  Composited<T> r;
  const T a = (as * opacity) >> 8;
  r.write = Gt(a, 0);
  const T wd = Div255((255 - a) * ad);
  const T ws = Div255((255 - ad) * a);
  const T wb = Div255(ad * a);
  const T ao = (a + wd) & 255;
  const T aq = Max(ao, 1);
  for (int k = 0; k < 3; ++k) r.out[k] = Min(DivSmall(Max(d[k] * wd + s[k] * ws + wb * f[k], 0), aq), 255);
  r.alpha = ao;
  return r;
}

}  // namespace
}  // namespace Korvane
#endif  // KORVANE_GLOW_BLEND_FORMULAS
