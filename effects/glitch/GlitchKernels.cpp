// Plain forms of the glitch kernels: one byte at a time.
#include "effects/glitch/GlitchKernels.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Korvane {

using GlitchDetail::ClampRow;
using GlitchDetail::RowSpans;
using GlitchDetail::SpansFor;

void ShiftChannel(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                  int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  const RowSpans span = SpansFor(w, sx);
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* s = src.data + static_cast<size_t>(ClampRow(int64_t{y} - sy, src.height)) * src.stride + channel;
    uint8_t* d = plane + static_cast<size_t>(y) * w;
    std::memset(d, s[0], static_cast<size_t>(span.lead));
    if (span.tail > span.lead) {
      // Within the middle run source pixel x - sx is in range by construction.
      const uint8_t* from = s + (static_cast<ptrdiff_t>(span.lead) - sx) * 4;
      for (int32_t x = span.lead; x < span.tail; ++x, from += 4) d[x] = *from;
    }
    std::memset(d + span.tail, s[static_cast<size_t>(w - 1) * 4], static_cast<size_t>(w - span.tail));
  }
}

void MergePlanes(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                 uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const size_t p = static_cast<size_t>(y) * w;
    const uint8_t* s = src.data + static_cast<size_t>(y) * src.stride;
    uint8_t* d = dst + static_cast<size_t>(y) * dst_stride;
    for (int32_t x = 0; x < w; ++x) {
      // Alpha is read before the colour bytes are written, so dst may alias src.
      const uint8_t a = s[x * 4 + 3];
      d[x * 4 + 0] = blue[p + x];
      d[x * 4 + 1] = green[p + x];
      d[x * 4 + 2] = red[p + x];
      d[x * 4 + 3] = a;
    }
  }
}

}  // namespace Korvane
