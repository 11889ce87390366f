#include "core/PhotoMeasures.h"

#include <algorithm>

#include "core/ImageChecks.h"

namespace Korvane {

LightnessPlane::LightnessPlane(const ImageBuffer& img) { Read(img.data, img.width, img.height, img.stride); }
LightnessPlane::LightnessPlane(const SmartBuffer& img) { Read(img.data.get(), img.width, img.height, img.stride); }

void LightnessPlane::Read(const uint8_t* data, int32_t w, int32_t h, int64_t stride) {
  if (!data || w < 1 || h < 1) return;
  m_w = w;
  m_h = h;
  m_l.resize(static_cast<size_t>(w) * h);
  m_sum.assign(static_cast<size_t>(w + 1) * (h + 1), 0);
  for (int32_t y = 0; y < h; ++y) {
    const uint8_t* p = data + y * stride;
    int64_t row = 0;
    for (int32_t x = 0; x < w; ++x, p += 4) {
      const int32_t mx = std::max(p[0], std::max(p[1], p[2])), mn = std::min(p[0], std::min(p[1], p[2]));
      const uint8_t l = static_cast<uint8_t>((mx + mn) >> 1);
      m_l[static_cast<size_t>(y) * w + x] = l;
      ++m_hist[l];
      row += l;
      m_sum[static_cast<size_t>(y + 1) * (w + 1) + x + 1] = m_sum[static_cast<size_t>(y) * (w + 1) + x + 1] + row;
    }
  }
}

double LightnessPlane::BoxMean(int32_t x, int32_t y, int32_t r) const {
  const int32_t x0 = std::max(0, x - r), y0 = std::max(0, y - r);
  const int32_t x1 = std::min(m_w, x + r + 1), y1 = std::min(m_h, y + r + 1);
  if (x1 <= x0 || y1 <= y0) return 0.0;
  const auto s = [&](int32_t xx, int32_t yy) { return m_sum[static_cast<size_t>(yy) * (m_w + 1) + xx]; };
  const int64_t total = s(x1, y1) - s(x0, y1) - s(x1, y0) + s(x0, y0);
  return static_cast<double>(total) / (static_cast<double>(x1 - x0) * (y1 - y0));
}

int32_t LightnessOfBrightest(const int64_t* histogram, double share) {
  int64_t total = 0;
  for (int32_t v = 0; v < 256; ++v) total += histogram[v];
  if (total == 0) return 0;
  const double wanted = std::max(0.0, std::min(1.0, share)) * static_cast<double>(total);
  int64_t above = 0;
  for (int32_t v = 255; v > 0; --v) {
    above += histogram[v];
    if (static_cast<double>(above) >= wanted && above > 0) return v;
  }
  return 0;
}

double NearWhiteShare(const ImageBuffer& img, int32_t level) {
  if (!img.data || img.width < 1 || img.height < 1) return 0.0;
  int64_t n = 0;
  for (int32_t y = 0; y < img.height; ++y) {
    const uint8_t* p = RowPtr<const uint8_t>(img, y);
    for (int32_t x = 0; x < img.width; ++x, p += 4) n += std::min(p[0], std::min(p[1], p[2])) >= level;
  }
  return static_cast<double>(n) / (static_cast<double>(img.width) * img.height);
}

}  // namespace Korvane
