#include "core/TrueScaleBlur.h"

#include <algorithm>
#include <vector>

#include "core/BilinearResize.h"
#include "core/DebugLog.h"
#include "core/FocusBlend.h"
#include "core/FocusBlurStages.h"
#include "core/GaussianBlur.h"
#include "core/ImageChecks.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"

namespace Korvane {

int32_t BlurHalvings(int32_t level, int32_t width, int32_t height, int32_t min_halvings) {
  int32_t k = 0;
  // A shorter side of 1 cannot shrink: an absurd level stops there.
  while (GaussianSigma(level, width, height) > kFittingSigma && std::min(width, height) > 1) {
    width = HalvedSide(width);
    height = HalvedSide(height);
    ++k;
  }
  for (; k < min_halvings; ++k) {
    width = HalvedSide(width);
    height = HalvedSide(height);
    if (GaussianSigma(level, width, height) < kSmallestReducedSigma) break;
  }
  return k;
}

namespace {

// The photo and the guide's blur mask at each halving, made on demand, each
// level from the one above it (a halving samples each 2 x 2 block at its
// centre, so successive halvings average without skipping pixels).
class Pyramid {
 public:
  Pyramid(CThreadAdapter& adapter, const SystemInfo& info, const TrueScaleBlurParam& p)
      : m_adapter(adapter), m_info(info), m_p(p), m_photo{p.input} {}

  int32_t Photo(int32_t k, SmartBuffer& out) {
    const int32_t hr = Halve(m_photo, k);
    if (hr >= 0) out = m_photo[k];
    return hr;
  }

  int32_t Mask(int32_t k, std::shared_ptr<bool[]>& out) {
    if (m_mask.size() <= static_cast<size_t>(k)) m_mask.resize(k + 1);
    if (!m_mask[k]) {
      int32_t hr;
      // The full-size mask reads the caller's guide at any pixel step.
      SmartBuffer g = m_p.guide;
      if (k > 0) {
        if ((m_guide.empty() && (hr = ResizableGuide()) < 0) || (hr = Halve(m_guide, k)) < 0) return hr;
        g = m_guide[k];
      }
      m_mask[k].reset(new bool[static_cast<size_t>(g.width) * g.height]);
      MakeBlurMask(m_adapter, g, m_p.focus_value, m_p.focus_range, m_mask[k].get());
    }
    out = m_mask[k];
    return S_OK;
  }

 private:
  // The resize kernels take GRAY8 and BGRA32 pixels; a guide of any other
  // pixel step gives its first bytes to a GRAY8 copy first.
  int32_t ResizableGuide() {
    const SmartBuffer& g = m_p.guide;
    if ((g.pix_fmt == PIXEL_GRAY8 && g.channel == 1) || (g.pix_fmt == PIXEL_BGRA32 && g.channel == 4)) {
      m_guide.assign(1, g);
      return S_OK;
    }
    SmartBuffer first;
    int32_t hr;
    if (KORVANE_FAILED(CreateSmartBufferData(first, g.width, g.height, PIXEL_GRAY8))) return hr;
    for (int32_t y = 0; y < g.height; ++y) {
      const uint8_t* src = RowPtr<const uint8_t>(g, y);
      uint8_t* dst = RowPtr<uint8_t>(first, y);
      for (int32_t x = 0; x < g.width; ++x) dst[x] = src[static_cast<size_t>(x) * g.channel];
    }
    m_guide.assign(1, first);
    return S_OK;
  }

  int32_t Halve(std::vector<SmartBuffer>& levels, int32_t k) {
    int32_t hr;
    while (levels.size() <= static_cast<size_t>(k)) {
      const SmartBuffer& from = levels.back();
      SmartBuffer to;
      if (KORVANE_FAILED(CreateSmartBufferData(to, HalvedSide(from.width), HalvedSide(from.height), from.pix_fmt))) {
        return hr;
      }
      ResizeParam rp;
      rp.src = from;
      rp.dst = to;
      rp.src_roi = FullRect(from);
      if ((hr = RunBilinearResize(m_adapter, m_info, rp, FullRect(to))) < 0) return hr;
      levels.push_back(to);
    }
    return S_OK;
  }

  CThreadAdapter& m_adapter;
  const SystemInfo& m_info;
  const TrueScaleBlurParam& m_p;
  std::vector<SmartBuffer> m_photo, m_guide;
  std::vector<std::shared_ptr<bool[]>> m_mask;
};

// Blurs the photo at `level` into `dest` (the photo's size): at full size
// over the whole image when k is 0, else on the copy halved k times, enlarged
// into dest over the roi.
int32_t BlurInto(CThreadAdapter& adapter, const SystemInfo& info, const TrueScaleBlurParam& p, Pyramid& pyramid,
                 int32_t level, int32_t k, const SmartBuffer& dest, const char* param_text) {
  int32_t hr;
  GaussianBlurParam blur;
  if ((hr = pyramid.Photo(k, blur.source)) < 0) return hr;
  if (p.guide.data && (hr = pyramid.Mask(k, blur.mask)) < 0) return hr;
  const int32_t w = blur.source.width, h = blur.source.height;
  if (k == 0) {
    blur.buffer = dest;
  } else if (KORVANE_FAILED(CreateSmartBufferData(blur.buffer, w, h, PIXEL_BGRA32))) {
    return hr;
  }
  // The kernel rule on the reduced copy: its sigma is the same share of
  // the reduced shorter side.
  blur.weights.reset(new float[kGaussianHalfTaps]);
  blur.kernel_length = MakeGaussianWeights(level, w, h, blur.weights.get());
  if ((hr = RunGaussianPasses(adapter, info, blur, param_text, FullRect(w, h))) < 0 || k == 0) return hr;
  ResizeParam enlarge;
  enlarge.src = blur.buffer;
  enlarge.dst = dest;
  enlarge.src_roi = FullRect(w, h);
  return RunBilinearResize(adapter, info, enlarge, p.roi);
}

int32_t CheckRecord(const TrueScaleBlurParam& p) {
  int32_t hr;
  if ((hr = CheckImage(p.input, PIXEL_BGRA32)) < 0 || (hr = CheckImage(p.output, PIXEL_BGRA32)) < 0) return hr;
  const bool guided = p.guide.data != nullptr;
  if (guided && (p.guide.channel < 1 || !RowsFit(p.guide, p.guide.channel))) return E_INVALIDARG;
  if (!SameSize(p.input, p.output) || (guided && !SameSize(p.input, p.guide)) || !RectInside(p.roi, p.input) ||
      IsEmpty(p.roi) || (!guided && Overlaps(p.input, p.output))) {
    return E_INVALIDARG;
  }
  return S_OK;
}

}  // namespace

int32_t RunTrueScaleBlur(CThreadAdapter& adapter, const SystemInfo& info, const TrueScaleBlurParam& p) {
  int32_t hr;
  if ((hr = CheckRecord(p)) < 0) return hr;
  const int32_t w = p.input.width, h = p.input.height;
  Pyramid pyramid(adapter, info, p);
  const int32_t strong_halvings = BlurHalvings(p.level, w, h, p.min_halvings);
  if (!p.guide.data) return BlurInto(adapter, info, p, pyramid, p.level, strong_halvings, p.output, "&blur_param");

  // The strong blur may work in the output, which the blend then mixes in
  // place, unless the output shares memory with the photo or guide.
  SmartBuffer strong = p.output, weak;
  if ((Overlaps(p.output, p.input) || Overlaps(p.output, p.guide)) &&
      KORVANE_FAILED(CreateSmartBufferData(strong, w, h, PIXEL_BGRA32))) {
    return hr;
  }
  if (KORVANE_FAILED(CreateSmartBufferData(weak, w, h, PIXEL_BGRA32))) return hr;
  const int32_t weak_level = p.level / 6;
  if ((hr = BlurInto(adapter, info, p, pyramid, p.level, strong_halvings, strong, "&blur_param")) < 0 ||
      (hr = BlurInto(adapter, info, p, pyramid, weak_level, BlurHalvings(weak_level, w, h, p.min_halvings), weak,
                     "&sub_blur_param")) < 0) {
    return hr;
  }
  FocusBlendParam blend;
  blend.output = p.output;
  blend.input = p.input;
  blend.effect = strong;
  blend.sub_effect = weak;
  blend.mask = p.guide;
  blend.table.reset(new int32_t[256]);
  MakeBlendTable(p.focus_value, blend.table.get());
  const auto kernel = KORVANE_PICK_AVX2(info, FocusBlend, FocusBlend_SSE, FocusBlend_AVX2);
  return RunFocusPass(adapter, kernel, "&blend_param", &blend, p.roi);
}

}  // namespace Korvane
