#include "RaysDefaults.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace KorvaneFrontend {

float RaysThreshold(const ImageView& photo) {
  size_t histogram[256] = {};
  for (int32_t y = 0; y < photo.height; ++y) {
    const uint8_t* p = photo.Row(y);
    for (int32_t x = 0; x < photo.width; ++x, p += 4) {
      const int hi = std::max(p[0], std::max(p[1], p[2])), lo = std::min(p[0], std::min(p[1], p[2]));
      ++histogram[(hi + lo) >> 1];
    }
  }
  const size_t brightest = static_cast<size_t>(photo.width) * photo.height * 15 / 1000;
  size_t above = 0;
  int level = 255;
  while (level > 0 && above + histogram[level] <= brightest) above += histogram[level--];
  return static_cast<float>(std::clamp(level, 160, 250));
}

double WashedShare(const ImageView& image) {
  size_t washed = 0;
  for (int32_t y = 0; y < image.height; ++y) {
    const uint8_t* p = image.Row(y);
    for (int32_t x = 0; x < image.width; ++x, p += 4) {
      washed += std::max(p[0], std::max(p[1], p[2])) == 255 || std::min(p[0], std::min(p[1], p[2])) >= 250;
    }
  }
  return image.empty() ? 0.0 : static_cast<double>(washed) / (static_cast<double>(image.width) * image.height);
}

float CappedStrength(double base, double allowed, const std::function<double(float)>& washed_at) {
  const double full = washed_at(1.0f);
  if (full < 0 || full - base <= allowed) return 1.0f;
  float lo = 0.0f, hi = 1.0f;
  for (int step = 0; step < 7; ++step) {
    const float mid = (lo + hi) / 2;
    const double washed = washed_at(mid);
    if (washed < 0) return 1.0f;
    (washed - base <= allowed ? lo : hi) = mid;
  }
  // Whole hundredths, as a user would type it.
  return std::floor(lo * 100.0f) / 100.0f;
}

}  // namespace KorvaneFrontend
