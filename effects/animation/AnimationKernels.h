// Pixel kernels of the photo animator: rasterising a mesh triangle into row
// spans, and filling spans with bilinear samples of an affine-warped source,
// alone or cross-faded with a second warp of it. The SSE4.1 and AVX2 forms give bit-identical results.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Korvane {

// An 8-bit BGRA image read by the warp (rows `stride` bytes apart).
struct WarpSource {
  const unsigned char* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  size_t stride = 0;
};

// Calls emit(y, x_begin, x_end) (x_end exclusive) for every row of the
// triangle `v` (x0, y0, x1, y1, x2, y2) inside a width x height image.
// Vertices are snapped to whole pixels; rows run from the top vertex down,
// each span from the left edge to half a pixel past the right edge, so that
// neighbouring triangles leave no cracks between them.
template <class Emit>
void RasterizeTriangle(const float v[6], int32_t width, int32_t height, Emit&& emit);

// Fills the x_end − x_begin BGRA pixels at dst (dst receives column
// x_begin) of row y with src sampled at (m0·x + m1·y + m2, m3·x + m4·y + m5):
// mirrored at the image borders, bilinear with 8-bit weights, alpha 255.
using WarpSpanFn = void (*)(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin,
                            int32_t x_end, unsigned char* dst);
void WarpSpan(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
              unsigned char* dst);
void WarpSpan_SSE(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin,
                   int32_t x_end, unsigned char* dst);
void WarpSpan_AVX2(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
                   unsigned char* dst);

// The past and future samples of each pixel, cross-faded:
// (future·(256 − alpha) + past·alpha) >> 8 for B, G, R, alpha byte 255.
// Both samples are taken as by WarpSpan, with the matrices m_past and
// m_future; alpha is 0..256.
using WarpBlendSpanFn = void (*)(const WarpSource& src, const float m_past[6], const float m_future[6],
                                 int32_t alpha, int32_t y, int32_t x_begin, int32_t x_end,
                                 unsigned char* dst);
void WarpBlendSpan(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                   int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst);
void WarpBlendSpan_SSE(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                        int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst);
void WarpBlendSpan_AVX2(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                        int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst);

namespace animation_detail {

// Mirrors a source coordinate back into 0 .. limit (limit = size − 1), then
// clamps it there; NaN ends up at 0. Written with the exact comparisons of
// the SSE min/max instructions so both forms agree bit for bit.
static inline float MirrorCoord(float s, float limit, float twice_limit) {
  const float a = std::fabs(s);
  const float r = twice_limit - s;
  s = (r < a) ? r : a;
  s = (s > 0.0f) ? s : 0.0f;
  return (s < limit) ? s : limit;
}

// One warped pixel; shared by the plain form and the SSE4.1 form's tail.
static inline void WarpPixel(const WarpSource& src, float sx, float sy, unsigned char* out) {
  const float fw = static_cast<float>(src.width - 1), fh = static_cast<float>(src.height - 1);
  sx = MirrorCoord(sx, fw, fw + fw);
  sy = MirrorCoord(sy, fh, fh + fh);
  const int32_t ix = static_cast<int32_t>(sx), iy = static_cast<int32_t>(sy);
  const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
  const int32_t w10 = static_cast<int32_t>((1.0f - fy) * fx * 256.0f + 0.5f);
  const int32_t w01 = static_cast<int32_t>((1.0f - fx) * fy * 256.0f + 0.5f);
  const int32_t w00 = static_cast<int32_t>((1.0f - fy) * (1.0f - fx) * 256.0f + 0.5f);
  int32_t w11 = 256 - (w00 + w10 + w01);
  w11 = w11 > 0 ? w11 : 0;
  const int32_t ix1 = ix + 1 < src.width ? ix + 1 : src.width - 1;
  const int32_t iy1 = iy + 1 < src.height ? iy + 1 : src.height - 1;
  const unsigned char* r0 = src.data + static_cast<size_t>(iy) * src.stride;
  const unsigned char* r1 = src.data + static_cast<size_t>(iy1) * src.stride;
  const unsigned char* p00 = r0 + static_cast<size_t>(ix) * 4;
  const unsigned char* p10 = r0 + static_cast<size_t>(ix1) * 4;
  const unsigned char* p01 = r1 + static_cast<size_t>(ix) * 4;
  const unsigned char* p11 = r1 + static_cast<size_t>(ix1) * 4;
  for (int c = 0; c < 3; ++c) {
    out[c] = static_cast<unsigned char>((w00 * p00[c] + w10 * p10[c] + w01 * p01[c] + w11 * p11[c]) >> 8);
  }
  out[3] = 255;
}

// next = (next·(256 − alpha) + pre·alpha) >> 8 for B, G, R; alpha byte 255.
static inline void BlendPixel(unsigned char* next, const unsigned char* pre, int32_t alpha) {
  const int32_t keep = 256 - alpha;
  for (int c = 0; c < 3; ++c) next[c] = static_cast<unsigned char>((next[c] * keep + pre[c] * alpha) >> 8);
  next[3] = 255;
}

// Columns x .. x_end − 1 of a warped row, one pixel at a time, written from
// `out` on; (cx, cy) is the row's constant term of the map m. The plain
// forms are this loop, the SSE4.1 forms finish their rows with it.
static inline void WarpPixels(const WarpSource& src, const float m[6], float cx, float cy, int32_t x,
                              int32_t x_end, unsigned char* out) {
  for (; x < x_end; ++x, out += 4) {
    const float fx = static_cast<float>(x);
    WarpPixel(src, m[0] * fx + cx, m[3] * fx + cy, out);
  }
}

// The same for the cross-fade of a past (m_past, row term p) and a future
// (m_future, row term n) warp.
static inline void WarpBlendPixels(const WarpSource& src, const float m_past[6], float px, float py,
                                   const float m_future[6], float nx, float ny, int32_t alpha, int32_t x,
                                   int32_t x_end, unsigned char* out) {
  for (; x < x_end; ++x, out += 4) {
    const float fx = static_cast<float>(x);
    unsigned char past[4];
    WarpPixel(src, m_past[0] * fx + px, m_past[3] * fx + py, past);
    WarpPixel(src, m_future[0] * fx + nx, m_future[3] * fx + ny, out);
    BlendPixel(out, past, alpha);
  }
}

// Whether every source position of row y, columns x_begin .. x_end - 1,
// lies strictly inside the image (away from the last row and column), where
// mirroring and clamping change nothing. The positions are monotonic along
// the row (the float products and sums round monotonically), so the two ends
// bound them all.
static inline bool SpanInside(const WarpSource& src, const float m[6], float cx, float cy, int32_t x_begin,
                              int32_t x_end) {
  const float x0 = static_cast<float>(x_begin), x1 = static_cast<float>(x_end - 1);
  const float sx0 = m[0] * x0 + cx, sx1 = m[0] * x1 + cx, sy0 = m[3] * x0 + cy, sy1 = m[3] * x1 + cy;
  const float lx = static_cast<float>(src.width - 1), ly = static_cast<float>(src.height - 1);
  return sx0 > 0.0f && sx1 > 0.0f && sx0 < lx && sx1 < lx && sy0 > 0.0f && sy1 > 0.0f && sy0 < ly && sy1 < ly;
}

// A span edge clamped into -1 .. limit before truncation, so far-away
// vertices never overflow the integer conversion.
static inline int32_t TruncClamped(double v, int32_t limit) {
  if (!(v > -1.0)) return -1;
  if (v > static_cast<double>(limit)) return limit;
  return static_cast<int32_t>(v);
}

// Rows y_first .. y_last (inclusive) of a triangle part whose edges leave
// (ax, ay) with slopes kl (left) and kr (right) in x per row.
template <class Emit>
void FillPart(double ax, double ay, double kl, double kr, double y_first, double y_last, int32_t width,
              int32_t height, Emit& emit) {
  if (y_first < 0.0) y_first = 0.0;
  if (y_last > static_cast<double>(height - 1)) y_last = static_cast<double>(height - 1);
  if (!(y_first <= y_last)) return;
  const int32_t r0 = static_cast<int32_t>(y_first), r1 = static_cast<int32_t>(y_last);
  for (int32_t r = r0; r <= r1; ++r) {
    const double dy = static_cast<double>(r) - ay;
    int32_t c0 = TruncClamped(ax + kl * dy, width);
    int32_t c1 = TruncClamped(ax + 0.5 + kr * dy, width);
    if (c0 < 0) c0 = 0;
    if (c1 > width - 1) c1 = width - 1;
    if (c0 <= c1) emit(r, c0, c1 + 1);
  }
}

}  // namespace animation_detail

template <class Emit>
void RasterizeTriangle(const float v[6], int32_t width, int32_t height, Emit&& emit) {
  using animation_detail::FillPart;
  double x[3], y[3];
  for (int i = 0; i < 3; ++i) {
    x[i] = std::floor(static_cast<double>(v[2 * i]) + 0.5);
    y[i] = std::floor(static_cast<double>(v[2 * i + 1]) + 0.5);
  }
  auto order = [&](int i, int j) {
    if (y[i] > y[j]) {
      std::swap(x[i], x[j]);
      std::swap(y[i], y[j]);
    }
  };
  order(0, 1);
  order(0, 2);
  order(1, 2);
  if (y[0] == y[2]) {  // all on one row
    const double lo = std::fmin(x[0], std::fmin(x[1], x[2]));
    const double hi = std::fmax(x[0], std::fmax(x[1], x[2]));
    FillPart(lo, y[0], 0.0, hi - lo, y[0], y[0], width, height, emit);
    return;
  }
  // Flat bottom: apex (ax, ay) above, base row yb between xb and xc.
  auto flat_bottom = [&](double ax, double ay, double xb, double xc, double yb) {
    const double kb = (xb - ax) / (yb - ay), kc = (xc - ax) / (yb - ay);
    FillPart(ax, ay, std::fmin(kb, kc), std::fmax(kb, kc), ay, yb, width, height, emit);
  };
  // Flat top: base row yt between xa and xb, apex (cx, cy) below; rows from
  // y_first down to the apex.
  auto flat_top = [&](double xa, double xb, double yt, double cx, double cy, double y_first) {
    const double kl = (std::fmin(xa, xb) - cx) / (yt - cy), kr = (std::fmax(xa, xb) - cx) / (yt - cy);
    FillPart(cx, cy, kl, kr, y_first, cy, width, height, emit);
  };
  if (y[1] == y[2]) {
    flat_bottom(x[0], y[0], x[1], x[2], y[1]);
  } else if (y[0] == y[1]) {
    flat_top(x[0], x[1], y[0], x[2], y[2], y[0]);
  } else {
    const double x3 = (y[1] - y[0]) * (x[2] - x[0]) / (y[2] - y[0]) + x[0];
    flat_bottom(x[0], y[0], x[1], x3, y[1]);
    flat_top(x[1], x3, y[1], x[2], y[2], y[1] + 1.0);
  }
}

}  // namespace Korvane
