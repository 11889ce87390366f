// A slow, literal reference of the masked blur and the blend for the focus
// blur tests (random images and pools come from the shared test support).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "TestSupport.h"
#include "core/FocusBlend.h"
#include "core/GaussianBlur.h"

namespace FocusBlurTest {

using KorvaneTest::RandomBytes;

// One blur pass exactly as described: each masked pixel takes the weighted
// mean of the masked pixels within n - 1 along the row (or column), taps in
// order -(n-1) .. n-1, float sums, truncation; alpha kept.
inline void ReferenceBlur(std::vector<uint8_t>& img, int w, int h, const float* wt, int n,
                          const std::vector<bool>& mask, bool vertical) {
  const std::vector<uint8_t> src = img;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (!mask[static_cast<size_t>(y) * w + x]) continue;
      float s[3] = {0, 0, 0}, sw = 0;
      for (int i = -(n - 1); i <= n - 1; ++i) {
        const int xx = vertical ? x : x + i, yy = vertical ? y + i : y;
        if (xx < 0 || yy < 0 || xx >= w || yy >= h || !mask[static_cast<size_t>(yy) * w + xx]) continue;
        const float wi = wt[std::abs(i)];
        const uint8_t* p = &src[(static_cast<size_t>(yy) * w + xx) * 4];
        for (int c = 0; c < 3; ++c) s[c] += wi * p[c];
        sw += wi;
      }
      uint8_t* d = &img[(static_cast<size_t>(y) * w + x) * 4];
      for (int c = 0; c < 3; ++c) d[c] = static_cast<uint8_t>(static_cast<int>(s[c] / sw));
    }
}

// The whole effect, literally: guide is one byte per pixel.
inline std::vector<uint8_t> ReferenceFocusBlur(const std::vector<uint8_t>& in, const std::vector<uint8_t>& guide,
                                               int w, int h, int level, int focus, int range) {
  std::vector<bool> mask(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = std::abs(guide[i] - focus) > range;
  std::vector<uint8_t> strong = in, weak = in;
  float wt[Korvane::kGaussianHalfTaps];
  int n = Korvane::MakeGaussianWeights(level, w, h, wt);
  ReferenceBlur(strong, w, h, wt, n, mask, false);
  ReferenceBlur(strong, w, h, wt, n, mask, true);
  n = Korvane::MakeGaussianWeights(level / 6, w, h, wt);
  ReferenceBlur(weak, w, h, wt, n, mask, false);
  ReferenceBlur(weak, w, h, wt, n, mask, true);
  int32_t table[256];
  Korvane::MakeBlendTable(focus, table);
  std::vector<uint8_t> out(in.size());
  for (size_t i = 0; i < mask.size(); ++i) {
    const int t = table[guide[i]];
    for (int c = 0; c < 3; ++c) {
      const int x = t > 127 ? strong[i * 4 + c] * (2 * t - 255) + weak[i * 4 + c] * (510 - 2 * t)
                            : in[i * 4 + c] * (255 - 2 * t) + weak[i * 4 + c] * 2 * t;
      out[i * 4 + c] = static_cast<uint8_t>((x + (x >> 8) + 1) >> 8);
    }
    out[i * 4 + 3] = in[i * 4 + 3];
  }
  return out;
}

}  // namespace FocusBlurTest
