#include "effects/bokeh/BokehFocus.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/BilinearResize.h"
#include "core/DebugLog.h"
#include "core/FocusBlend.h"
#include "core/FocusBlurStages.h"
#include "core/ImageChecks.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"
#include "core/TrueScaleBlur.h"

namespace Korvane {

int32_t MakeReducedGaussianWeights(int32_t level, int32_t width, int32_t height, float ratio, float* w) {
  float full[kGaussianHalfTaps];
  const int32_t n = MakeGaussianWeights(level, width, height, full);
  if (!(ratio < 1.0f)) {
    std::copy(full, full + kGaussianHalfTaps, w);
    return n;
  }
  std::fill(w, w + kGaussianHalfTaps, 0.0f);
  // Reduced tap i lies 1 / ratio full-size pixels out per step; the last one
  // must stay within the full kernel's reach.
  const int32_t m = std::min(static_cast<int32_t>(static_cast<float>(n - 1) * ratio), kGaussianHalfTaps - 1) + 1;
  float sum = 0.0f;
  for (int32_t i = 1; i < m; ++i) {
    const float pos = static_cast<float>(i) / ratio;
    const int32_t k = std::min(static_cast<int32_t>(pos), n - 1);
    const float f = pos - static_cast<float>(k);
    w[i] = k + 1 < n ? (1.0f - f) * full[k] + f * full[k + 1] : full[k];
    sum += w[i];
  }
  // Renormalise with the full kernel's centre, then let the centre take
  // whatever makes the sum exactly 1, as the full kernels do.
  const float scale = 1.0f / (full[0] + 2.0f * sum);
  float side = 0.0f;
  for (int32_t i = 1; i < m; ++i) side += (w[i] *= scale);
  w[0] = 1.0f - 2.0f * side;
  return m;
}

namespace {

bool SameImage(const SmartBuffer& a, const SmartBuffer& b) {
  return a.data == b.data && a.width == b.width && a.height == b.height && a.stride == b.stride &&
         a.pix_fmt == b.pix_fmt;
}

int32_t Ensure(SmartBuffer& b, int32_t w, int32_t h, int32_t fmt) {
  if (b.data && b.width == w && b.height == h && b.pix_fmt == fmt) return S_OK;
  b = SmartBuffer();
  return CreateSmartBufferData(b, w, h, fmt);
}

int32_t Resize(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, SmartBuffer& to,
               const Rect& to_roi) {
  ResizeParam rp;
  rp.src = from;
  rp.dst = to;
  rp.src_roi = FullRect(from);
  return RunBilinearResize(adapter, info, rp, to_roi);
}

}  // namespace

bool BokehFocus::SameAsKept(const BokehFocusParam& p, const SmartBuffer& out) const {
  const BokehFocusParam& k = m_kept_param;
  return m_kept && out.data.get() == m_kept_out && SameImage(p.src, k.src) && SameImage(p.guide, k.guide) &&
         p.roi.left == k.roi.left && p.roi.top == k.roi.top && p.roi.right == k.roi.right &&
         p.roi.bottom == k.roi.bottom && p.blur_buff_ratio == k.blur_buff_ratio && p.blur_strength == k.blur_strength &&
         p.focus_value == k.focus_value && p.focus_range == k.focus_range && p.true_scale == k.true_scale;
}

int32_t BokehFocus::ReleaseBuffer() {
  *this = BokehFocus();
  return S_OK;
}

int32_t BokehFocus::CheckRecord(const BokehFocusParam& p, const SmartBuffer& out) {
  int32_t hr;
  if ((hr = CheckImage(p.src, PIXEL_BGRA32)) < 0 || (hr = CheckImage(out, PIXEL_BGRA32)) < 0) return hr;
  const bool guided = p.guide.data != nullptr;
  if (guided && (hr = CheckImage(p.guide, PIXEL_GRAY8)) < 0) return hr;
  if (!SameSize(p.src, out) || (guided && !SameSize(p.src, p.guide)) || !RectInside(p.roi, p.src)) {
    return E_INVALIDARG;
  }
  return S_OK;
}

BokehFocus::Plan BokehFocus::PlanFor(const BokehFocusParam& p) {
  Plan plan;
  plan.ratio = std::max(0.1f, std::min(1.0f, std::isfinite(p.blur_buff_ratio) ? p.blur_buff_ratio : 1.0f));
  const int32_t sw = std::max(1, static_cast<int32_t>(static_cast<float>(p.src.width) * plan.ratio + 0.5f));
  const int32_t sh = std::max(1, static_cast<int32_t>(static_cast<float>(p.src.height) * plan.ratio + 0.5f));
  plan.small = Rect{0, 0, sw, sh};
  const float strength = std::isfinite(p.blur_strength) ? std::max(0.0f, std::min(1.0f, p.blur_strength)) : 0.0f;
  plan.level = static_cast<int32_t>(strength * 100.0f + 0.5f);
  // Clamped as floats before the conversion, so no value is out of int range.
  const auto clamp255 = [](float v) {
    return std::isfinite(v) ? static_cast<int32_t>(std::max(0.0f, std::min(255.0f, v * 255.0f + 0.5f))) : 0;
  };
  plan.focus_value = clamp255(p.focus_value);
  plan.focus_range = clamp255(p.focus_range);
  plan.guided = p.guide.data != nullptr;
  return plan;
}

GaussianBlurParam BokehFocus::BlurParam(const BokehFocusParam& p, const Plan& plan, int32_t level,
                                        const SmartBuffer& buffer) const {
  GaussianBlurParam bp;
  bp.buffer = buffer;
  bp.source = m_small_src;
  bp.weights.reset(new float[kGaussianHalfTaps]);
  bp.kernel_length = MakeReducedGaussianWeights(level, p.src.width, p.src.height, plan.ratio, bp.weights.get());
  if (plan.guided) bp.mask = m_blur_mask;
  return bp;
}

int32_t BokehFocus::Reduce(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p,
                           const Plan& plan, const int32_t* table, SmartBuffer& weight, bool photo) {
  int32_t hr;
  const int32_t sw = plan.small.right, sh = plan.small.bottom;
  if (KORVANE_FAILED(Ensure(weight, sw, sh, PIXEL_GRAY8))) return hr;
  if (photo && (KORVANE_FAILED(Ensure(m_small_src, sw, sh, PIXEL_BGRA32)) ||
                KORVANE_FAILED(Ensure(m_strong, sw, sh, PIXEL_BGRA32)) ||
                KORVANE_FAILED(Resize(adapter, info, p.src, m_small_src, plan.small)))) {
    return hr;
  }
  if (!plan.guided) {
    // Everything is background.
    FillMap(weight, 255);
    return S_OK;
  }
  if (KORVANE_FAILED(Ensure(m_small_guide, sw, sh, PIXEL_GRAY8))) return hr;
  if (KORVANE_FAILED(Resize(adapter, info, p.guide, m_small_guide, plan.small))) return hr;
  if (!m_blur_mask || m_mask_w != sw || m_mask_h != sh) {
    m_blur_mask.reset(new bool[static_cast<size_t>(sw) * sh]);
    m_mask_w = sw;
    m_mask_h = sh;
  }
  MakeBlurMask(adapter, m_small_guide, plan.focus_value, plan.focus_range, m_blur_mask.get(), table, &weight);
  return S_OK;
}

int32_t BokehFocus::BlendWithWeak(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p,
                                  const Plan& plan, const std::shared_ptr<int32_t[]>& table, SmartBuffer& out) {
  int32_t hr;
  if (KORVANE_FAILED(Ensure(m_weak, plan.small.right, plan.small.bottom, PIXEL_BGRA32))) return hr;
  GaussianBlurParam weak = BlurParam(p, plan, plan.level / 6, m_weak);
  if ((hr = RunGaussianPasses(adapter, info, weak, "&sub_blur_param", plan.small)) < 0) return hr;

  const int32_t w = p.src.width, h = p.src.height;
  if (KORVANE_FAILED(Ensure(m_blur_src_buff, w, h, PIXEL_BGRA32))) return hr;
  if (KORVANE_FAILED(Ensure(m_sub_blur_src_buff, w, h, PIXEL_BGRA32))) return hr;
  if (KORVANE_FAILED(Resize(adapter, info, m_strong, m_blur_src_buff, p.roi))) return hr;
  if (KORVANE_FAILED(Resize(adapter, info, m_weak, m_sub_blur_src_buff, p.roi))) return hr;
  FocusBlendParam blend_param;
  blend_param.output = out;
  blend_param.input = p.src;
  blend_param.effect = m_blur_src_buff;
  blend_param.sub_effect = m_sub_blur_src_buff;
  blend_param.mask = p.guide;
  blend_param.table = table;
  return RunFocusPass(adapter, KORVANE_PICK_AVX2(info, FocusBlend, FocusBlend_SSE, FocusBlend_AVX2), "&blend_param", &blend_param, p.roi);
}

int32_t BokehFocus::TrueScale(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p,
                              const Plan& plan, SmartBuffer& out) {
  TrueScaleBlurParam tp;
  tp.input = p.src;
  if (plan.guided) tp.guide = p.guide;
  tp.output = out;
  tp.roi = p.roi;
  tp.level = plan.level;
  tp.focus_value = plan.focus_value;
  tp.focus_range = plan.focus_range;
  // The copy's ratio stays a speed setting: as many halvings as it reduces
  // by, where the blur is strong enough not to show them.
  for (float side = 0.5f; side >= plan.ratio; side *= 0.5f) ++tp.min_halvings;
  return RunTrueScaleBlur(adapter, info, tp);
}

int32_t BokehFocus::Process(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p, bool keep,
                            SmartBuffer& out, SmartBuffer& weight) {
  int32_t hr;
  if (keep && weight.data && SameAsKept(p, out)) return S_OK;
  m_kept = false;
  if ((hr = CheckRecord(p, out)) < 0) return hr;
  const Plan plan = PlanFor(p);
  // Blend weights per guide value; without a guide every pixel is fully
  // background.
  std::shared_ptr<int32_t[]> table(new int32_t[256]);
  MakeBlendTable(plan.focus_value, table.get());
  if ((hr = Reduce(adapter, info, p, plan, table.get(), weight, !p.true_scale)) < 0) return hr;
  if (p.true_scale) {
    if ((hr = TrueScale(adapter, info, p, plan, out)) < 0) return hr;
  } else {
    GaussianBlurParam strong = BlurParam(p, plan, plan.level, m_strong);
    if ((hr = RunGaussianPasses(adapter, info, strong, "&blur_param", plan.small)) < 0) return hr;
    // Without a guide everything is background: the strong blur, enlarged,
    // is the result.
    if (plan.guided) {
      if ((hr = BlendWithWeak(adapter, info, p, plan, table, out)) < 0) return hr;
    } else if (KORVANE_FAILED(Resize(adapter, info, m_strong, out, p.roi))) {
      return hr;
    }
  }
  m_kept = true;
  m_kept_param = p;
  m_kept_out = out.data.get();
  return S_OK;
}

}  // namespace Korvane
