// Measures of a photo that settings adapt to: its lightness (HSL, (max +
// min) / 2 of B, G, R on 0..255), how that is spread over the picture, and
// local means of it. Light-point filtering and the automatic light-ray
// settings read a photo through these.
#pragma once

#include <cstdint>
#include <vector>

#include "core/ImageBuffer.h"

namespace Korvane {

// A BGRA32 image's lightness, one byte a pixel, with a table of sums for
// box means.
class LightnessPlane {
 public:
  // Reads `img` (BGRA32; nothing is checked here). Empty for an empty image.
  explicit LightnessPlane(const ImageBuffer& img);
  explicit LightnessPlane(const SmartBuffer& img);

  int32_t Width() const { return m_w; }
  int32_t Height() const { return m_h; }
  uint8_t At(int32_t x, int32_t y) const { return m_l[static_cast<size_t>(y) * m_w + x]; }
  // Pixels of each lightness 0..255.
  const int64_t* Histogram() const { return m_hist; }
  int64_t PixelCount() const { return static_cast<int64_t>(m_w) * m_h; }
  // Mean lightness of the square of half-width r around (x, y), cut to the
  // picture.
  double BoxMean(int32_t x, int32_t y, int32_t r) const;
  // The sum of that square's lightness and its pixel count.
  int64_t BoxSum(int32_t x, int32_t y, int32_t r, int64_t& count) const;

 private:
  void Read(const uint8_t* data, int32_t w, int32_t h, int64_t stride);

  int32_t m_w = 0, m_h = 0;
  std::vector<uint8_t> m_l;
  std::vector<int64_t> m_sum;  // (w + 1) x (h + 1) sums of the rows and columns above and left
  int64_t m_hist[256] = {};
};

// Pixels of each lightness 0..255 in a BGRA32 image, added to `histogram`.
void AddLightnessHistogram(const ImageBuffer& img, int64_t* histogram);

// `img` (BGRA32 or GRAY8) reduced by the whole factor that brings its
// longer side to at most `max_side`, each pixel the mean of its block (the
// last blocks of a row or column may be narrower): small lights keep their
// share of the picture, which point sampling could miss. A copy when no
// reduction is needed. E_POINTER, E_NOTIMPL, E_INVALIDARG as CheckImage;
// E_INVALIDARG for max_side < 1.
int32_t AverageDown(const ImageBuffer& img, int32_t max_side, SmartBuffer& out);

// The lightness at which the brightest `share` (0..1) of a histogram's
// pixels begins: the largest v with at least share x total pixels at v or
// above. A pixel lies among the brightest share when its lightness is at
// least this. 0 for an empty histogram.
int32_t LightnessOfBrightest(const int64_t* histogram, double share);

// The share (0..1) of pixels of a BGRA32 image whose every channel is at
// least `level`: how much of a picture is near-white.
double NearWhiteShare(const ImageBuffer& img, int32_t level);

}  // namespace Korvane
