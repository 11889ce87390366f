#include "core/FocusBlend.h"

#include <cmath>
#include <cstdlib>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "core/RowPipeline.h"

namespace Korvane {

void MakeBlendTable(int32_t focus_value, int32_t* table) {
  for (int32_t v = 0; v < 256; ++v) {
    const double d = static_cast<double>(std::llabs(static_cast<int64_t>(focus_value) - v)) / 255.0;
    double f = d + std::pow(2.0, d) - 1.0;
    f = f < 0.0 ? 0.0 : (f > 1.0 ? 1.0 : f);
    table[v] = static_cast<int32_t>(255.0 * f);
  }
}

namespace {

// x / 255 for x in 0..65025, rounded as the SSE form does it.
inline uint8_t Div255(uint32_t x) { return static_cast<uint8_t>((x + (x >> 8) + 1) >> 8); }

}  // namespace

void FocusBlendRowPlain(const uint8_t* p, const uint8_t* s, const uint8_t* w, const uint8_t* guide, int32_t guide_step,
                        const int32_t* table, uint8_t* out, int32_t count) {
  for (int32_t x = 0; x < count; ++x, p += 4, s += 4, w += 4, out += 4, guide += guide_step) {
    const uint32_t t = static_cast<uint32_t>(table[*guide]);
    // Out of focus (t > 127): from the weak blur towards the strong one;
    // nearer focus: from the photo towards the weak blur.
    const uint8_t* a = t > 127 ? s : p;
    const uint32_t wa = t > 127 ? 2 * t - 255 : 255 - 2 * t;
    const uint32_t ww = 255 - wa;
    for (int32_t c = 0; c < 3; ++c) out[c] = Div255(a[c] * wa + w[c] * ww);
    out[3] = p[3];
  }
}

namespace {

int32_t CheckBlend(const FocusBlendParam& bp) {
  const bool weak_image = !bp.weak_in_scratch;
  if (!bp.output.data || !bp.input.data || !bp.effect.data || (weak_image && !bp.sub_effect.data) ||
      !bp.mask.data || !bp.table) {
    return E_POINTER;
  }
  if (!IsBgra(bp.output) || !IsBgra(bp.input) || !IsBgra(bp.effect) || (weak_image && !IsBgra(bp.sub_effect))) {
    return E_NOTIMPL;
  }
  if (!SameSize(bp.input, bp.output) || !SameSize(bp.input, bp.effect) ||
      (weak_image && !SameSize(bp.input, bp.sub_effect)) || !SameSize(bp.input, bp.mask)) {
    return E_INVALIDARG;
  }
  if (bp.mask.channel < 1 || !RowsFit(bp.mask, bp.mask.channel) || !RowsFit(bp.input, 4) ||
      !RowsFit(bp.output, 4) || !RowsFit(bp.effect, 4) || (weak_image && !RowsFit(bp.sub_effect, 4))) {
    return E_INVALIDARG;
  }
  return S_OK;
}

}  // namespace

int32_t RunFocusBlend(ThreadJob* job, int32_t* result, FocusBlendRow row) {
  int32_t hr = S_OK;
  if (!job || !job->param) {
    hr = E_POINTER;
  } else {
    const FocusBlendParam& bp = *static_cast<const FocusBlendParam*>(job->param);
    const Rect& r = job->rect;
    hr = CheckBlend(bp);
    if (hr >= 0 && r.right > r.left && r.bottom > r.top) {
      const auto* chunk = bp.weak_in_scratch ? static_cast<const RowChunk*>(job->ctx) : nullptr;
      if (r.left < 0 || r.top < 0 || r.right > bp.input.width || r.bottom > bp.input.height ||
          (bp.weak_in_scratch &&
           (!chunk || !chunk->scratch || chunk->scratch_stride < static_cast<int64_t>(r.right - r.left) * 4))) {
        hr = E_INVALIDARG;
      } else {
        const size_t x4 = static_cast<size_t>(r.left) * 4;
        for (int32_t y = r.top; y < r.bottom; ++y) {
          const size_t yy = static_cast<size_t>(y);
          const uint8_t* weak =
              chunk ? chunk->ScratchRow(y, r.top) : bp.sub_effect.data.get() + yy * bp.sub_effect.stride + x4;
          row(bp.input.data.get() + yy * bp.input.stride + x4, bp.effect.data.get() + yy * bp.effect.stride + x4,
              weak,
              bp.mask.data.get() + yy * bp.mask.stride + static_cast<size_t>(r.left) * bp.mask.channel,
              bp.mask.channel, bp.table.get(), bp.output.data.get() + yy * bp.output.stride + x4, r.right - r.left);
        }
      }
    }
  }
  return Done(result, hr);
}

int32_t FocusBlend(ThreadJob* job, int32_t* result) { return RunFocusBlend(job, result, FocusBlendRowPlain); }

}  // namespace Korvane
