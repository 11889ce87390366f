#include "core/InpaintMask.h"

#include <cstring>

#include "core/DebugLog.h"
#include "core/ResultCode.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

constexpr uint32_t kInfinite = 0x7FFFFFFF;

inline uint32_t LoadPixel(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

inline void StorePixel(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }

// One neighbour considered for a pixel: its distance plus the step to it.
struct Candidate {
  uint32_t dist;
  uint32_t colour;
};

// Picks the nearest of `n` candidates over the starting best (strictly
// nearer wins, so ties keep the earlier one), then averages the colours of
// the candidates within one diagonal step of it when there are two or more.
// The starting best itself is never part of the mean.
inline void ChooseColour(const Candidate* cand, int n, uint32_t diag, uint32_t& best_dist,
                         uint32_t& best_colour) {
  bool found = false;
  for (int i = 0; i < n; ++i) {
    if (cand[i].dist < kInfinite && cand[i].dist < best_dist) {
      best_dist = cand[i].dist;
      best_colour = cand[i].colour;
      found = true;
    }
  }
  if (!found && best_dist >= kInfinite) return;
  uint32_t sum_b = 0, sum_g = 0, sum_r = 0, count = 0;
  for (int i = 0; i < n; ++i) {
    if (cand[i].dist < kInfinite && cand[i].dist - best_dist < diag) {
      sum_b += cand[i].colour & 0xFF;
      sum_g += (cand[i].colour >> 8) & 0xFF;
      sum_r += (cand[i].colour >> 16) & 0xFF;
      ++count;
    }
  }
  if (count >= 2) {
    best_colour = 0xFF000000u | ((sum_r / count) << 16) | ((sum_g / count) << 8) | (sum_b / count);
  }
}

}  // namespace

int32_t GetDistanceTransformMetric(int32_t mask_type, float* metric) {
  float axis, diag, knight = 0.0f;
  switch (mask_type) {
    case 30: axis = 1.0f, diag = 1.0f; break;
    case 31: axis = 1.0f, diag = 2.0f; break;
    case 32: axis = 0.955f, diag = 1.3693f; break;
    case 50: axis = 1.0f, diag = 1.0f, knight = 2.0f; break;
    case 51: axis = 1.0f, diag = 2.0f, knight = 3.0f; break;
    case 52: axis = 1.0f, diag = 1.4f, knight = 2.1969f; break;
    default: return E_INVALIDARG;
  }
  if (!metric) return E_POINTER;
  metric[0] = axis;
  metric[1] = diag;
  metric[2] = knight;
  return S_OK;
}

int32_t InpaintMaskByDistTransform(const ImageBuffer& input, const ImageBuffer& mask,
                                   SmartBuffer& background) {
  if (!input.data || !mask.data || !background.data) return E_POINTER;
  if (input.pix_fmt != PIXEL_BGRA32 || mask.pix_fmt != PIXEL_GRAY8 ||
      background.pix_fmt != PIXEL_BGRA32) {
    return E_INVALIDARG;
  }
  const int32_t w = input.width, h = input.height;
  if (w < 1 || h < 1 || mask.width != w || mask.height != h || background.width != w ||
      background.height != h || static_cast<int64_t>(input.stride) < static_cast<int64_t>(w) * 4 ||
      mask.stride < w || static_cast<int64_t>(background.stride) < static_cast<int64_t>(w) * 4) {
    return E_INVALIDARG;
  }

  int32_t hr;
  const int32_t border = 1;
  const int32_t mask_type = 32;  // 3x3 mask with near-Euclidean weights
  SmartBuffer temp;
  if (KORVANE_FAILED(CreateSmartBufferData(temp, mask.width + border*2, mask.height + border*2, PIXEL_BGRA32))) {
    return hr;
  }
  float metric[3];
  if (KORVANE_FAILED(GetDistanceTransformMetric(mask_type, metric))) return hr;
  const uint32_t a = static_cast<uint32_t>(static_cast<double>(metric[0]) * 65536.0 + 0.5);
  const uint32_t d = static_cast<uint32_t>(static_cast<double>(metric[1]) * 65536.0 + 0.5);

  // Distance grid with a frame of infinite cells: cell (x + 1, y + 1) is pixel (x, y).
  const size_t tw = static_cast<size_t>(w) + 2;
  uint32_t* dist = reinterpret_cast<uint32_t*>(temp.data.get());
  for (size_t x = 0; x < tw; ++x) {
    dist[x] = kInfinite;
    dist[(static_cast<size_t>(h) + 1) * tw + x] = kInfinite;
  }
  unsigned char* bg = background.data.get();
  const size_t bg_stride = static_cast<size_t>(background.stride);
  auto bg_at = [&](int32_t x, int32_t y) { return bg + static_cast<size_t>(y) * bg_stride + static_cast<size_t>(x) * 4; };

  // Forward pass: from the upper and left neighbours.
  for (int32_t y = 0; y < h; ++y) {
    uint32_t* drow = dist + (static_cast<size_t>(y) + 1) * tw + 1;
    const uint32_t* up = drow - tw;
    drow[-1] = kInfinite;
    drow[w] = kInfinite;
    const unsigned char* src = input.data + static_cast<size_t>(y) * input.stride;
    const unsigned char* m = mask.data + static_cast<size_t>(y) * mask.stride;
    for (int32_t x = 0; x < w; ++x) {
      if (m[x] == 0) {
        drow[x] = 0;
        StorePixel(bg_at(x, y), LoadPixel(src + static_cast<size_t>(x) * 4));
        continue;
      }
      Candidate cand[4] = {{up[x - 1] + d, 0}, {up[x] + a, 0}, {up[x + 1] + d, 0}, {drow[x - 1] + a, 0}};
      // Border cells are infinite, so a valid candidate is always a real pixel.
      if (cand[0].dist < kInfinite) cand[0].colour = LoadPixel(bg_at(x - 1, y - 1));
      if (cand[1].dist < kInfinite) cand[1].colour = LoadPixel(bg_at(x, y - 1));
      if (cand[2].dist < kInfinite) cand[2].colour = LoadPixel(bg_at(x + 1, y - 1));
      if (cand[3].dist < kInfinite) cand[3].colour = LoadPixel(bg_at(x - 1, y));
      uint32_t best = kInfinite;
      uint32_t colour = LoadPixel(src + static_cast<size_t>(x) * 4);
      ChooseColour(cand, 4, d, best, colour);
      drow[x] = best;
      StorePixel(bg_at(x, y), colour);
    }
  }

  // Backward pass: from the lower and right neighbours, for pixels further
  // than one axis step from the unmasked area.
  for (int32_t y = h - 1; y >= 0; --y) {
    uint32_t* drow = dist + (static_cast<size_t>(y) + 1) * tw + 1;
    const uint32_t* down = drow + tw;
    for (int32_t x = w - 1; x >= 0; --x) {
      if (drow[x] <= a) continue;
      Candidate cand[4] = {{down[x + 1] + d, 0}, {down[x] + a, 0}, {down[x - 1] + d, 0}, {drow[x + 1] + a, 0}};
      if (cand[0].dist < kInfinite) cand[0].colour = LoadPixel(bg_at(x + 1, y + 1));
      if (cand[1].dist < kInfinite) cand[1].colour = LoadPixel(bg_at(x, y + 1));
      if (cand[2].dist < kInfinite) cand[2].colour = LoadPixel(bg_at(x - 1, y + 1));
      if (cand[3].dist < kInfinite) cand[3].colour = LoadPixel(bg_at(x + 1, y));
      uint32_t best = drow[x];
      uint32_t colour = LoadPixel(bg_at(x, y));
      ChooseColour(cand, 4, d, best, colour);
      drow[x] = best;
      StorePixel(bg_at(x, y), colour);
    }
  }
  return S_OK;
}

}  // namespace Korvane
