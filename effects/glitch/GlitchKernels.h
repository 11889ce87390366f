// The two per-pixel kernels of the glitch effect, each over a band of rows:
// pulling one colour channel of a BGRA32 image, displaced, into an 8-bit
// plane, and merging three planes with the source alpha back into BGRA32.
// The _SSE forms use SSE2 only (part of the x86-64 baseline) and give the
// same bytes as the plain forms.
#pragma once

#include <cstdint>

namespace Korvane {

// A BGRA32 image with `stride` bytes per row.
struct GlitchSource {
  const uint8_t* data;
  int32_t width;
  int32_t height;
  int32_t stride;
};

// plane(x, y) = channel `channel` (0 blue, 1 green, 2 red) of src at
// (clamp(x - sx, 0, W - 1), clamp(y - sy, 0, H - 1)) for rows y0 <= y < y1
// of the plane (width W, packed rows). Rows outside 0..H-1 are skipped, so
// degenerate bands are harmless. Any offset is accepted: beyond the image
// the nearest edge pixel repeats.
void ShiftChannel(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                  int32_t y0, int32_t y1);
void ShiftChannel_SSE(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                      int32_t y0, int32_t y1);

// dst(x, y) = (blue, green, red planes at (x, y), alpha of src at (x, y)) for
// rows y0 <= y < y1, clipped to the image. dst may be src itself.
void MergePlanes(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                 uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1);
void MergePlanes_SSE(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                     uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1);

namespace GlitchDetail {

// The three runs a displaced row is made of: [0, lead) repeats the first
// source pixel, [lead, tail) copies source pixels x - sx, [tail, W) repeats
// the last one. Shared by both kernel forms so they agree on the edges.
struct RowSpans {
  int32_t lead;
  int32_t tail;
};

inline RowSpans SpansFor(int32_t width, int32_t sx) {
  // Offsets beyond the width behave like the width itself; clamping first
  // also keeps the arithmetic below far from overflow.
  const int64_t s = sx < -width ? -width : (sx > width ? width : sx);
  RowSpans r;
  r.lead = static_cast<int32_t>(s > 0 ? s : 0);
  r.tail = static_cast<int32_t>(s < 0 ? width + s : width);
  return r;
}

inline int32_t ClampRow(int64_t y, int32_t height) {
  return static_cast<int32_t>(y < 0 ? 0 : (y >= height ? height - 1 : y));
}

}  // namespace GlitchDetail

}  // namespace Korvane
