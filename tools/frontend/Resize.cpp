#include "Resize.h"

#include <algorithm>
#include <cmath>

namespace KorvaneFrontend {

namespace {

// The weights of one axis: output i takes taps[i] source samples from
// first[i] on, with the weights stored at offset[i].
struct AxisWeights {
  std::vector<int32_t> first, count;
  std::vector<size_t> offset;
  std::vector<float> weights;
};

AxisWeights Weigh(int32_t from, int32_t to) {
  AxisWeights a;
  const double scale = static_cast<double>(from) / to;
  for (int32_t i = 0; i < to; ++i) {
    a.offset.push_back(a.weights.size());
    if (scale > 1.0) {
      // Shrinking: the source interval [i, i + 1) * scale, each pixel by its overlap.
      const double lo = i * scale, hi = (i + 1) * scale;
      const int32_t s0 = static_cast<int32_t>(std::floor(lo));
      const int32_t s1 = std::min(from, static_cast<int32_t>(std::ceil(hi)));
      for (int32_t s = s0; s < s1; ++s) {
        a.weights.push_back(static_cast<float>((std::min<double>(s + 1, hi) - std::max<double>(s, lo)) / scale));
      }
      a.first.push_back(s0);
      a.count.push_back(s1 - s0);
    } else {
      // Enlarging: linear between the two nearest pixel centres, clamped at the edges.
      const double x = std::clamp((i + 0.5) * scale - 0.5, 0.0, from - 1.0);
      const int32_t s0 = std::min(static_cast<int32_t>(x), from - 1);
      const double f = x - s0;
      a.first.push_back(s0);
      a.count.push_back(s0 + 1 < from ? 2 : 1);
      a.weights.push_back(static_cast<float>(1.0 - f));
      if (s0 + 1 < from) a.weights.push_back(static_cast<float>(f));
    }
  }
  return a;
}

}  // namespace

Image Resized(const ImageView& src, int32_t width, int32_t height) {
  const int32_t c = src.channels;
  Image out(width, height, c);
  if (src.empty() || width <= 0 || height <= 0) return out;
  const AxisWeights ax = Weigh(src.width, width), ay = Weigh(src.height, height);
  // Rows first into floats, then columns.
  std::vector<float> rows(static_cast<size_t>(width) * src.height * c);
  for (int32_t y = 0; y < src.height; ++y) {
    const uint8_t* in = src.Row(y);
    float* o = &rows[static_cast<size_t>(y) * width * c];
    for (int32_t x = 0; x < width; ++x) {
      const float* w = &ax.weights[ax.offset[x]];
      for (int32_t k = 0; k < c; ++k) {
        float sum = 0;
        for (int32_t t = 0; t < ax.count[x]; ++t) sum += w[t] * in[(ax.first[x] + t) * c + k];
        o[x * c + k] = sum;
      }
    }
  }
  for (int32_t y = 0; y < height; ++y) {
    const float* w = &ay.weights[ay.offset[y]];
    uint8_t* o = out.at(0, y);
    for (int32_t i = 0; i < width * c; ++i) {
      float sum = 0;
      for (int32_t t = 0; t < ay.count[y]; ++t) sum += w[t] * rows[static_cast<size_t>(ay.first[y] + t) * width * c + i];
      o[i] = static_cast<uint8_t>(std::clamp(std::lround(sum), 0L, 255L));
    }
  }
  return out;
}

}  // namespace KorvaneFrontend
