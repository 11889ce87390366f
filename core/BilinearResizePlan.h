// Internal to the resize kernels: the validated geometry and the column/row
// tables of one resize task call, shared by the plain and SSE4.1 forms so
// both interpolate from exactly the same indices and fractions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/BilinearResize.h"

namespace Korvane {
namespace resize_detail {

struct ResizePlan {
  const unsigned char* src = nullptr;
  unsigned char* dst = nullptr;
  ptrdiff_t src_stride = 0;
  ptrdiff_t dst_stride = 0;
  // The band, clipped to the destination image.
  int32_t x_begin = 0, x_end = 0, y_begin = 0, y_end = 0;
  // Per band column (index dx - x_begin): byte offsets of the left and right
  // source pixels and the 8-bit fraction.
  std::vector<int32_t> x0, x1;
  std::vector<uint8_t> fx;
  // The float fraction of the same column (float resize only).
  std::vector<float> fxf;
  // Per band row (index dy - y_begin): source rows and fraction.
  std::vector<int32_t> y0, y1;
  std::vector<uint8_t> fy;
  std::vector<float> fyf;
  // Band columns [x_begin, x_paired) all have x1 == x0 + 1 (x0 never
  // decreases, so the columns clamped onto the last source column form a
  // suffix); the SSE forms load both neighbours at once there.
  int32_t x_paired = 0;
  // Enlarging BGRA bands, for the AVX2 form: per pair of band columns
  // (2k, 2k + 1) below x_paired, the byte shuffle that takes [left 2k,
  // left 2k + 1, right 2k, right 2k + 1] out of the 16 source bytes from
  // x0[2k] on, or kNoShuffle in byte 0 where those bytes do not hold them
  // all (or reach past the source row).
  std::vector<uint8_t> pair_shuffle;
};

constexpr uint8_t kNoShuffle = 0xFF;

// Validates param for images of `bpp` bytes a pixel, clips the band and fills
// the tables (float fractions too when `with_float`). S_OK with an empty band
// when there is nothing to do.
int32_t PlanResize(const ResizeParam& param, const Rect& band, int32_t bpp, bool with_float,
                   ResizePlan* plan);

// The integer bilinear step: a + ((b - a) * f) >> 8 with an arithmetic shift.
inline int32_t Lerp8(int32_t a, int32_t b, int32_t f) { return a + (((b - a) * f) >> 8); }

// The plain steps over the band columns [from, nx) (counted from x_begin)
// of one destination row, `out` being the row's first band byte: along x
// into 16-bit values, along y from two such rows (`count` bytes), and both
// at once from two source rows. The plain form runs whole rows through
// FusedSpan; the SIMD forms run the columns past their last full vector.
void HorizontalSpan(const ResizePlan& plan, const unsigned char* row, int32_t channels, int32_t from, int16_t* out);
void VerticalSpan(const int16_t* top, const int16_t* bottom, int32_t fy, int32_t from, int32_t count,
                  unsigned char* out);
void FusedSpan(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1, int32_t fy, int32_t channels,
               int32_t from, unsigned char* out);

// Kinds of four-column groups of a reduction row, for the SIMD forms:
// neighbour pairs that are consecutive source pixels (a halving), and of
// those the ones whose four fractions are all 128 (an exact halving: the
// mean of each pair). Only BGRA rows are classified.
enum : uint8_t { kQuadGather = 0, kQuadConsecutive = 1, kQuadMidpoints = 2 };

// The row kernels of a SIMD form of the byte resize; RunSimdResize walks the
// band with them. fx128 holds each column's fraction x 128 once per channel.
struct ResizeRowKernels {
  // One source row interpolated along x into 16-bit values, one per byte of
  // the band's destination row.
  void (*horizontal)(const ResizePlan& plan, const unsigned char* row, const int16_t* fx128, int16_t* out);
  // Two such rows mixed along y into `count` bytes.
  void (*vertical)(const int16_t* top, const int16_t* bottom, int32_t fy, int32_t count, unsigned char* out);
  // Reductions: both source rows and the mix along y in one sweep (no 16-bit
  // rows stored); next0 and next1 are the next destination row's sources,
  // to fetch ahead.
  void (*fused)(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1, const unsigned char* next0,
                const unsigned char* next1, const int16_t* fx128, const uint8_t* quads, int32_t fy, unsigned char* out);
};

// A SIMD form's task body for images of `channels` bytes a pixel (1 or 4):
// plans the band, builds the 16-bit fractions (and, for reductions, the
// column kinds), and runs the rows. Enlargements keep each horizontally
// interpolated source row while consecutive destination rows share it.
int32_t RunSimdResize(ThreadJob* job, int32_t* result, int32_t channels, const ResizeRowKernels& kernels);

}  // namespace resize_detail
}  // namespace Korvane
