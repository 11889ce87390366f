#include "effects/bokeh/BokehFocus.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/BandTask.h"
#include "core/BilinearResize.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/LightPaste.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"
#include "effects/focus_blur/FocusBlend.h"

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
         p.focus_value == k.focus_value && p.focus_range == k.focus_range;
}

int32_t BokehFocus::ReleaseBuffer() {
  *this = BokehFocus();
  return S_OK;
}

int32_t BokehFocus::Process(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p, bool keep,
                            SmartBuffer& out, SmartBuffer& weight) {
  int32_t hr;
  if (keep && weight.data && SameAsKept(p, out)) return S_OK;
  m_kept = false;
  if ((hr = CheckImage(p.src, PIXEL_BGRA32)) < 0 || (hr = CheckImage(out, PIXEL_BGRA32)) < 0) return hr;
  const bool guided = p.guide.data != nullptr;
  if (guided && (hr = CheckImage(p.guide, PIXEL_GRAY8)) < 0) return hr;
  if (!SameSize(p.src, out) || (guided && !SameSize(p.src, p.guide)) || !RectInside(p.roi, p.src)) {
    return E_INVALIDARG;
  }

  const float ratio = std::max(0.1f, std::min(1.0f, std::isfinite(p.blur_buff_ratio) ? p.blur_buff_ratio : 1.0f));
  const int32_t sw = std::max(1, static_cast<int32_t>(static_cast<float>(p.src.width) * ratio + 0.5f));
  const int32_t sh = std::max(1, static_cast<int32_t>(static_cast<float>(p.src.height) * ratio + 0.5f));
  const float strength = std::isfinite(p.blur_strength) ? std::max(0.0f, std::min(1.0f, p.blur_strength)) : 0.0f;
  const int32_t level = static_cast<int32_t>(strength * 100.0f + 0.5f);
  // Clamped as floats before the conversion, so no value is out of int range.
  const auto clamp255 = [](float v) {
    return std::isfinite(v) ? static_cast<int32_t>(std::max(0.0f, std::min(255.0f, v * 255.0f + 0.5f))) : 0;
  };
  const int32_t focus_value = clamp255(p.focus_value), focus_range = clamp255(p.focus_range);
  const Rect small{0, 0, sw, sh};

  if (KORVANE_FAILED(Ensure(m_small_src, sw, sh, PIXEL_BGRA32))) return hr;
  if (KORVANE_FAILED(Ensure(m_strong, sw, sh, PIXEL_BGRA32))) return hr;
  if (KORVANE_FAILED(Ensure(weight, sw, sh, PIXEL_GRAY8))) return hr;
  if (KORVANE_FAILED(Resize(adapter, info, p.src, m_small_src, small))) return hr;

  // Blend weights per guide value; without a guide every pixel is fully
  // background.
  std::shared_ptr<int32_t[]> table(new int32_t[256]);
  MakeBlendTable(focus_value, table.get());
  GaussianBlurParam strong;
  strong.buffer = m_strong;
  strong.source = m_small_src;
  strong.weights.reset(new float[kGaussianHalfTaps]);
  strong.kernel_length = MakeReducedGaussianWeights(level, p.src.width, p.src.height, ratio, strong.weights.get());
  if (guided) {
    if (KORVANE_FAILED(Ensure(m_small_guide, sw, sh, PIXEL_GRAY8))) return hr;
    if (KORVANE_FAILED(Resize(adapter, info, p.guide, m_small_guide, small))) return hr;
    if (!m_blur_mask || m_mask_w != sw || m_mask_h != sh) {
      m_blur_mask.reset(new bool[static_cast<size_t>(sw) * sh]);
      m_mask_w = sw;
      m_mask_h = sh;
    }
    bool blur[256];
    for (int32_t v = 0; v < 256; ++v) blur[v] = std::abs(v - focus_value) > focus_range;
    bool* mask = m_blur_mask.get();
    const int32_t* t = table.get();
    hr = RunBands(adapter, small, [&](const Rect& band) {
      for (int32_t y = band.top; y < band.bottom; ++y) {
        const uint8_t* g = RowPtr<const uint8_t>(m_small_guide, y);
        uint8_t* wt = RowPtr<uint8_t>(weight, y);
        bool* m = mask + static_cast<size_t>(y) * sw;
        for (int32_t x = 0; x < sw; ++x) {
          m[x] = blur[g[x]];
          wt[x] = static_cast<uint8_t>(t[g[x]]);
        }
      }
      return S_OK;
    });
    if (hr < 0) {
      KORVANE_LOG_FAILED_STEP("BlurMask", hr);
      return hr;
    }
    strong.mask = m_blur_mask;
  } else {
    FillMap(weight, 255);
  }

  const auto blur_h = KORVANE_PICK(info, GaussianBlurH, GaussianBlurH_SSE);
  const auto blur_v = KORVANE_PICK(info, GaussianBlurV, GaussianBlurV_SSE);
  auto run_blur = [&](GaussianBlurParam& bp) {
    int32_t code = adapter.RunTaskByMultiThread(blur_h.fn, &bp, nullptr, small);
    if (code < 0) {
      DebugLog(
          "[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, &blur_param, this, process_region) Error! - "
          "Return Code: %x",
          blur_h.name, static_cast<unsigned>(code));
      return code;
    }
    code = adapter.RunTaskByMultiThread(blur_v.fn, &bp, nullptr, small, false);
    if (code < 0) {
      DebugLog(
          "[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, &blur_param, this, process_region, false) "
          "Error! - Return Code: %x",
          blur_v.name, static_cast<unsigned>(code));
    }
    return code;
  };
  if ((hr = run_blur(strong)) < 0) return hr;

  if (!guided) {
    // Everything is background: the strong blur is the result.
    if (KORVANE_FAILED(Resize(adapter, info, m_strong, out, p.roi))) return hr;
  } else {
    if (KORVANE_FAILED(Ensure(m_weak, sw, sh, PIXEL_BGRA32))) return hr;
    GaussianBlurParam weak;
    weak.buffer = m_weak;
    weak.source = m_small_src;
    weak.weights.reset(new float[kGaussianHalfTaps]);
    weak.kernel_length = MakeReducedGaussianWeights(level / 6, p.src.width, p.src.height, ratio, weak.weights.get());
    weak.mask = m_blur_mask;
    if ((hr = run_blur(weak)) < 0) return hr;

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
    const auto blend = KORVANE_PICK(info, FocusBlend, FocusBlend_SSE);
    if ((hr = adapter.RunTaskByMultiThread(blend.fn, &blend_param, nullptr, p.roi)) < 0) {
      DebugLog(
          "[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, &blend_param, this, process_region) Error! - "
          "Return Code: %x",
          blend.name, static_cast<unsigned>(hr));
      return hr;
    }
  }
  m_kept = true;
  m_kept_param = p;
  m_kept_out = out.data.get();
  return S_OK;
}

}  // namespace Korvane
