// Row kernels of the dispersion effect: the frame's base (photo where the
// subject still stands, background where it has crumbled) and the particle
// discs blended over it from the circle table.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Korvane {

// Start time a pixel never reaches: outside the subject, or never crumbling.
constexpr float kDispersionNever = 2.0f;

// One row of the base: out[x] = background[x] where start[x] < progress,
// else photo[x] (BGRA pixels, copied whole).
void DispersionFillBase(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                        uint8_t* out, int32_t count);
void DispersionFillBase_SSE(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                             uint8_t* out, int32_t count);
void DispersionFillBase_AVX2(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                             uint8_t* out, int32_t count);

// Anti-aliased disc coverage for every radius in steps of 1/kSub pixel up to
// the largest particle, at kSub x kSub sub-pixel offsets of the centre.
struct CircleTable {
  static constexpr int32_t kSub = 4;
  // Zero coverages kept after the last row, so a vector read of eight
  // coverages from anywhere in a row stays inside `cover`.
  static constexpr int32_t kCoverSpare = 8;
  struct Entry {
    uint32_t cover;  // first of side x side coverages (0..256) in `cover`
    uint32_t spans;  // first of side [x0, x1) pairs in `spans`: the covered columns of each row
    int32_t half;    // the disc's base pixel is cell (half, half); side = 2 * half + 1
  };
  int32_t radius_steps = 0;    // radii 1/kSub .. radius_steps/kSub
  std::vector<Entry> entries;  // [(step - 1) * kSub * kSub + sub_y * kSub + sub_x]
  std::vector<uint16_t> cover;
  std::vector<uint8_t> spans;

  // Builds the table for radii up to max_radius (>= 1/kSub). Throws
  // std::bad_alloc when memory runs out.
  void Build(float max_radius);
  const Entry& At(int32_t step, int32_t sub_x, int32_t sub_y) const {
    return entries[static_cast<size_t>(step - 1) * kSub * kSub + sub_y * kSub + sub_x];
  }
};

// A particle as one frame draws it.
struct FrameParticle {
  int32_t x = 0, y = 0;  // base pixel of its table entry
  int32_t entry = -1;    // index into CircleTable::entries; -1 not drawn this frame
  int32_t alpha = 0;     // opacity, 0..256
  uint8_t bgra[4] = {0, 0, 0, 0};
};

// Calls row(y, a, b, cov, px_row) for each row y of a particle's disc inside
// rows [y0, y1) and columns [x0, x1): a..b are the covered columns of that
// row, cov[x] their coverage and px_row + 4x their pixel (image columns).
template <class Row>
inline void ForEachDiscRow(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                           int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride, Row&& row) {
  const CircleTable::Entry& e = table.entries[static_cast<size_t>(p.entry)];
  const int32_t side = 2 * e.half + 1;
  const int32_t left = p.x - e.half, top = p.y - e.half;
  y0 = std::max(y0, top);
  y1 = std::min(y1, top + side);
  for (int32_t y = y0; y < y1; ++y) {
    const int32_t j = y - top;
    const uint8_t* span = &table.spans[e.spans + 2 * static_cast<size_t>(j)];
    row(y, std::max(x0, left + span[0]), std::min(x1, left + span[1]),
        &table.cover[e.cover + static_cast<size_t>(j) * side] - left,
        origin + (y - oy) * stride - static_cast<int64_t>(ox) * 4);
  }
}

// Blends one particle into the rows [y0, y1) and columns [x0, x1) of an image
// whose pixel (ox, oy) is at `origin` (the frame's rows are output rows).
void DispersionDrawParticle(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                            int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride);
void DispersionDrawParticle_SSE(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                                 int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride);
void DispersionDrawParticle_AVX2(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                                 int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride);

}  // namespace Korvane
