#include "core/PhotoMeasures.h"

#include <algorithm>

#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"

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

int64_t LightnessPlane::BoxSum(int32_t x, int32_t y, int32_t r, int64_t& count) const {
  const int32_t x0 = std::max(0, x - r), y0 = std::max(0, y - r);
  const int32_t x1 = std::min(m_w, x + r + 1), y1 = std::min(m_h, y + r + 1);
  count = 0;
  if (x1 <= x0 || y1 <= y0) return 0;
  const auto s = [&](int32_t xx, int32_t yy) { return m_sum[static_cast<size_t>(yy) * (m_w + 1) + xx]; };
  count = static_cast<int64_t>(x1 - x0) * (y1 - y0);
  return s(x1, y1) - s(x0, y1) - s(x1, y0) + s(x0, y0);
}

double LightnessPlane::BoxMean(int32_t x, int32_t y, int32_t r) const {
  int64_t count = 0;
  const int64_t total = BoxSum(x, y, r, count);
  return count > 0 ? static_cast<double>(total) / static_cast<double>(count) : 0.0;
}

void AddLightnessHistogram(const ImageBuffer& img, int64_t* histogram) {
  for (int32_t y = 0; y < img.height; ++y) {
    const uint8_t* p = RowPtr<const uint8_t>(img, y);
    for (int32_t x = 0; x < img.width; ++x, p += 4) {
      ++histogram[(std::max(p[0], std::max(p[1], p[2])) + std::min(p[0], std::min(p[1], p[2]))) >> 1];
    }
  }
}

int32_t AverageDown(const ImageBuffer& img, int32_t max_side, SmartBuffer& out) {
  const bool gray = img.pix_fmt == PIXEL_GRAY8;
  int32_t hr = CheckImage(&img, gray ? PIXEL_GRAY8 : PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (max_side < 1) return E_INVALIDARG;
  const int32_t longer = std::max(img.width, img.height);
  const int32_t f = (longer + max_side - 1) / max_side;
  const int32_t w = (img.width + f - 1) / f, h = (img.height + f - 1) / f, n = gray ? 1 : 4;
  if ((hr = CreateSmartBufferData(out, w, h, img.pix_fmt)) < 0) return hr;
  std::vector<uint64_t> sums(static_cast<size_t>(w) * n);
  for (int32_t by = 0; by < h; ++by) {
    std::fill(sums.begin(), sums.end(), 0ull);
    const int32_t y0 = by * f, y1 = static_cast<int32_t>(std::min<int64_t>(img.height, static_cast<int64_t>(y0) + f));
    for (int32_t y = y0; y < y1; ++y) {
      const uint8_t* p = RowPtr<const uint8_t>(img, y);
      for (int32_t x = 0; x < img.width; ++x)
        for (int32_t c = 0; c < n; ++c) sums[static_cast<size_t>(x / f) * n + c] += p[x * n + c];
    }
    uint8_t* o = RowPtr(out, by);
    for (int32_t bx = 0; bx < w; ++bx) {
      const uint64_t cols = static_cast<uint64_t>(std::min<int64_t>(img.width, static_cast<int64_t>(bx + 1) * f) -
                                                  static_cast<int64_t>(bx) * f);
      const uint64_t count = cols * static_cast<uint64_t>(y1 - y0);
      for (int32_t c = 0; c < n; ++c) o[bx * n + c] = static_cast<uint8_t>((sums[bx * n + c] + count / 2) / count);
    }
  }
  return S_OK;
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
