#include "effects/glow/GlowEffect.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "core/BilinearResize.h"
#include "core/BoxBlur.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

namespace {

// Releases the image references a Process call took, on every way out.
struct ParamImagesGuard {
  GlowParam& p;
  ~ParamImagesGuard() {
    p.src = SmartBuffer();
    p.mask = SmartBuffer();
    p.dst = SmartBuffer();
  }
};

}  // namespace

GlowEffect::GlowEffect(CThreadPool* pool) : EffectCore(pool) {
  FillGlowBlendTables(m_blend_mode_to_slot, m_blend_kernels, m_blend_kernels_sse41, m_blend_kernels_avx2);
}

int32_t GlowEffect::CalBlurRadius(float glow_radius) const {
  // glow_radius rounded half up, in half-size pixels, kept small enough that
  // the window fits the half-size image.
  const int32_t limit = (std::min(m_scaled_img_w, m_scaled_img_h) - 1) / 2;
  const float rounded = m_scale * glow_radius * 2.0f + 0.5f;
  if (!(rounded >= 0.0f)) return 0;  // also NaN
  return rounded < static_cast<float>(limit) ? static_cast<int32_t>(rounded) : limit;
}

bool GlowEffect::BuffersReady() const {
  return m_scaled_hlr.data && m_aligned_hlr.data && m_aligned_src.data && m_scaled_img_f.data &&
         m_img_f.data;
}

void GlowEffect::ReleaseAll() {
  m_scaled_hlr = SmartBuffer();
  m_aligned_hlr = SmartBuffer();
  m_aligned_src = SmartBuffer();
  m_scaled_img_f = SmartBuffer();
  m_img_f = SmartBuffer();
}

int32_t GlowEffect::Initialize(int32_t width, int32_t height) {
  if (width < 1 || height < 1 || width > kMaxImageSide || height > kMaxImageSide) return E_INVALIDARG;
  if (width == m_img_w && height == m_img_h && BuffersReady()) return S_OK;

  // The size is stored before the buffers exist: a failed call keeps it, but
  // leaves no buffer behind, so Process refuses to run and a retry rebuilds.
  m_img_w = width;
  m_img_h = height;
  // Not a rounding up to a multiple of 4 (5 gives 6, 7 gives 10): only ever
  // an over-allocation.
  m_aligned_img_w = width + width % 4;
  m_aligned_img_h = height + height % 4;
  const int32_t sw = static_cast<int32_t>(width * m_scale);
  const int32_t sh = static_cast<int32_t>(height * m_scale);
  m_scaled_img_w = sw + sw % 4;
  m_scaled_img_h = sh + sh % 4;

  int32_t hr = S_OK;
  try {
    if (KORVANE_FAILED(CreateSmartBufferData(m_scaled_hlr, m_scaled_img_w, m_scaled_img_h, PIXEL_BGRA32)) ||
        KORVANE_FAILED(CreateSmartBufferData(m_aligned_hlr, m_aligned_img_w, m_aligned_img_h, PIXEL_BGRA32)) ||
        KORVANE_FAILED(CreateSmartBufferData(m_aligned_src, m_aligned_img_w, m_aligned_img_h, PIXEL_BGRA32)) ||
        KORVANE_FAILED(CreateSmartBufferData(m_scaled_img_f, m_scaled_img_w, m_scaled_img_h, PIXEL_FLOAT96)) ||
        KORVANE_FAILED(CreateSmartBufferData(m_img_f, m_aligned_img_w, m_aligned_img_h, PIXEL_FLOAT96))) {
      ReleaseAll();
      return hr;
    }
  } catch (const std::bad_alloc& e) {
    DebugLog("Initialize - %s caught!", e.what());
    ReleaseAll();
    return E_OUTOFMEMORY;
  }

  for (SmartBuffer* b : {&m_scaled_hlr, &m_aligned_hlr, &m_aligned_src, &m_scaled_img_f, &m_img_f}) FillMap(*b);
  // The full-size images describe the photo; their strides stay those of the
  // aligned allocation.
  for (SmartBuffer* b : {&m_aligned_hlr, &m_aligned_src, &m_img_f}) {
    b->width = m_img_w;
    b->height = m_img_h;
  }
  return S_OK;
}

int32_t GlowEffect::ReleaseBuffer() {
  m_param = GlowParam();
  m_aligned_hlr = SmartBuffer();
  m_aligned_src = SmartBuffer();
  m_img_w = 0;
  m_img_h = 0;
  m_aligned_img_w = 0;
  m_aligned_img_h = 0;
  return S_OK;
}

int32_t GlowEffect::Validate(const GlowParam& p) const {
  if (m_img_h < 0 || m_img_w < 0) return E_FAIL;

  if (p.src.width != m_img_w) return E_INVALIDARG;
  if (p.src.height != m_img_h || !p.src.data) return E_INVALIDARG;
  if (p.mask.data && (p.mask.width != m_img_w || p.mask.height != m_img_h || p.mask.pix_fmt != PIXEL_GRAY8 ||
                      p.mask.stride < p.mask.width)) {
    return E_INVALIDARG;
  }

  const Rect& roi = p.roi;
  if (p.dst.width != static_cast<int64_t>(roi.right) - roi.left ||
      p.dst.height != static_cast<int64_t>(roi.bottom) - roi.top) {
    return E_INVALIDARG;
  }
  // The rectangle is read from the photo, so it must lie inside it.
  if (roi.left < 0 || roi.top < 0 || roi.right > m_img_w || roi.bottom > m_img_h || p.dst.width < 0 ||
      p.dst.height < 0) {
    return E_INVALIDARG;
  }

  if (p.src.pix_fmt != PIXEL_BGRA32 || p.dst.pix_fmt != PIXEL_BGRA32) return E_NOTIMPL;
  if (p.src.stride < static_cast<int64_t>(p.src.width) * 4 || p.dst.stride < static_cast<int64_t>(p.dst.width) * 4) {
    return E_INVALIDARG;
  }

  if (!InRange(p.glow_intensity, 0.0f, 1.0f)) return E_INVALIDARG;
  const float max_radius = static_cast<float>(std::max(p.src.width, p.src.height) / 8);
  if (!InRange(p.glow_radius, 0.0f, max_radius) || p.hlr_threshold > 255) return E_INVALIDARG;
  if (!InRange(p.glow_contrast, 1.0f, 3.0f)) return E_INVALIDARG;
  if (!InRange(p.color_hue, 0.0f, 1.0f) || p.opacity > 255 || !(p.color_strength >= 0.0f) ||
      !std::isfinite(p.color_strength)) {
    return E_INVALIDARG;
  }
  if (!(p.saturation <= 1.0f)) return E_INVALIDARG;
  if (!InRange(p.brightness, 0.0f, 1.0f)) return E_INVALIDARG;
  if (!(p.saturation >= -1.0f)) return E_INVALIDARG;
  if (GlowBlendSlot(p.blend_mode) < 0) return E_INVALIDARG;

  // Not initialised (or released), or a failed Initialize left no buffers.
  if (m_img_w == 0 || m_img_h == 0 || !BuffersReady()) return E_FAIL;
  // The half-size glow needs at least one pixel each way.
  if (m_scaled_img_w < 1 || m_scaled_img_h < 1) return E_INVALIDARG;
  if (!p.dst.data && p.dst.width > 0 && p.dst.height > 0) return E_POINTER;
  return S_OK;
}

int32_t GlowEffect::Process(const GlowParam& param) {
  int32_t hr = Validate(param);
  if (hr < 0) return hr;
  try {
    m_param = param;
    ParamImagesGuard guard{m_param};
    const bool float_modes = m_param.blend_mode == GLOW_BLEND_HUE || m_param.blend_mode == GLOW_BLEND_SATURATION;
    hr = RunPipeline(float_modes);
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    hr = E_OUTOFMEMORY;
  }
  return LogStep("total process", hr);
}

int32_t GlowEffect::CopyAndDetectHighlight() {
  // The later stages read the caller's photo where it lies, unless the output
  // shares memory with it and the blend could overwrite pixels before they
  // are read; only then is it copied (over the whole allocation, whose
  // columns and rows past the photo hold zeros).
  const GlowParam& prm = m_param;
  const bool copy = prm.dst.data && prm.dst.width > 0 && prm.dst.height > 0 && Overlaps(prm.dst, prm.src);
  m_photo = copy ? &m_aligned_src : &m_param.src;
  GlowCopyParam copy_param{&m_param.src, &m_aligned_src, !copy};
  GlowDetectParam p;
  p.src = m_photo;
  p.dst = &m_aligned_hlr;
  p.mask = m_param.mask.data ? &m_param.mask : nullptr;
  p.threshold = m_param.hlr_threshold;
  // Past the photo the highlight is never read (the downsampling samples the
  // photo's rectangle only), so without the copy it is left alone there.
  p.cols = copy ? m_aligned_img_w : m_img_w;
  p.rows = copy ? m_aligned_img_h : m_img_h;
  const auto detect =
      KORVANE_PICK_AVX2(m_system_info, GlowDetectHighlight, GlowDetectHighlight_SSE, GlowDetectHighlight_AVX2);
  // 16 rows of a 4000-pixel photo: 256 KB copied, then read back from cache.
  RowPipeline chain(16);
  chain.Then("copy src", GlowCopySrc, &copy_param).Then("detect hlr", detect.fn, &p);
  return chain.Run(m_thread_adapter, Rect{0, 0, p.cols, p.rows});
}

int32_t GlowEffect::ShrinkAndSoften(bool to_bytes) {
  const Rect region{0, 0, m_scaled_img_w, m_scaled_img_h};
  ResizeParam down;
  down.src = m_aligned_hlr;
  down.dst = m_scaled_hlr;
  down.src_roi = Rect{0, 0, m_img_w, m_img_h};
  // "adjust light" rides on the conversion: its curve of a converted byte is
  // one of 256 floats.
  GlowLightParam light{m_param.glow_intensity * 20.0f, (m_param.glow_contrast - 2.0f) * 0.5f};
  float tone[256];
  GlowToneTable(light, tone);
  GlowConvertParam conv{&m_scaled_hlr, &m_scaled_img_f, tone};
  const int32_t r = CalBlurRadius(m_param.glow_radius);
  BoxBlurParam blur;
  blur.src = MapView(m_scaled_img_f, region, PIXEL_FLOAT96);
  blur.radius = r;
  BoxBlurRepeatParam blur_rows{&blur, 2};

  // Half-size rows are made, converted and blurred along the row a few at a
  // time, while they are in cache: "downsampling hlr", "convert BYTE to
  // Float" and the two "BoxBlurH" passes of "soften hlr" in one sweep.
  const auto to_float = KORVANE_PICK_AVX2(m_system_info, GlowByteToFloat, GlowByteToFloat_SSE, GlowByteToFloat_AVX2);
  RowPipeline chain(8);
  chain.Then("downsampling hlr", PickBilinearResize(m_system_info, PIXEL_BGRA32).fn, &down)
      .Then("convert BYTE to Float", to_float.fn, &conv);
  if (r > 0) chain.Then("soften hlr", KORVANE_PICK_AVX2(m_system_info, BoxBlurHRepeat, BoxBlurHRepeat_SSE, BoxBlurHRepeat_AVX2).fn, &blur_rows);
  int32_t hr;
  if ((hr = chain.Run(m_thread_adapter, region)) < 0) return hr;

  if (r > 0) {
    const auto v = KORVANE_PICK_AVX2(m_system_info, BoxBlurV, BoxBlurV_SSE, BoxBlurV_AVX2);
    for (int pass = 0; pass < 2; ++pass) {
      hr = LogStep("soften hlr", m_thread_adapter.RunTaskByMultiThread(v.fn, &blur, this, region, false));
      if (hr < 0) return hr;
    }
  }
  if (!to_bytes) return S_OK;
  const auto to_byte = KORVANE_PICK_AVX2(m_system_info, GlowFloatToByte, GlowFloatToByte_SSE, GlowFloatToByte_AVX2);
  conv.tone = nullptr;
  return LogStep("convert Float to BYTE", m_thread_adapter.RunTaskByMultiThread(to_byte.fn, &conv, this, region));
}

int32_t GlowEffect::AdjustColor(bool floats) {
  GlowColorParam p;
  p.img = floats ? &m_scaled_img_f : &m_scaled_hlr;
  p.strength = m_param.color_strength;
  p.hue = m_param.color_hue;
  p.saturation = m_param.saturation;
  p.brightness = m_param.brightness;
  // The byte stage has a plain and an AVX2 form.
  const auto bytes = ChooseKernel<ThreadTask>(m_system_info, &GlowAdjustColor, "GlowAdjustColor", nullptr, "",
                                              KORVANE_AVX2(GlowAdjustColor_AVX2), "GlowAdjustColor_AVX2");
  return LogStep("adjust color",
                 m_thread_adapter.RunTaskByMultiThread(floats ? GlowAdjustColorFloat : bytes.fn, &p, this,
                                                       Rect{0, 0, m_scaled_img_w, m_scaled_img_h}));
}

int32_t GlowEffect::UpsampleAndBlend(bool floats) {
  const Rect& roi = m_param.roi;
  if (roi.right <= roi.left || roi.bottom <= roi.top) return S_OK;  // nothing to write
  // Only the rows and columns of the roi are enlarged, a few rows at a time,
  // and blended while they are still in cache.
  ResizeParam up;
  up.src = floats ? m_scaled_img_f : m_scaled_hlr;
  up.dst = floats ? m_img_f : m_aligned_hlr;
  up.src_roi = Rect{0, 0, m_scaled_img_w, m_scaled_img_h};
  const Kernel<ThreadTask> resize = PickBilinearResize(m_system_info, up.src.pix_fmt);
  GlowBlendParam p;
  p.glow = &m_aligned_hlr;
  p.glow_f = &m_img_f;
  p.photo = m_photo;
  p.dst = &m_param.dst;
  p.roi = roi;
  p.opacity = m_param.opacity;
  const int32_t slot = m_blend_mode_to_slot[m_param.blend_mode];
  const auto blend = ChooseKernel(m_system_info, m_blend_kernels[slot], "blend rows", m_blend_kernels_sse41[slot],
                                  "blend rows SSE4.1", m_blend_kernels_avx2[slot], "blend rows AVX2");
  RowPipeline chain(16);
  chain.Then("upsampling hlr", resize.fn, &up).Then("blending hlr to result", blend.fn, &p);
  const int32_t hr = chain.Run(m_thread_adapter, roi);
  // A failed enlargement is also named after the form that ran.
  if (hr < 0 && chain.FailedStep() <= 0) LogStep(resize.simd ? "resize buff SSE" : "resize buff", hr);
  return hr;
}

int32_t GlowEffect::RunPipeline(bool floats) {
  int32_t hr;
  // "copy src" and "detect hlr" share one sweep; a failure names the one that failed.
  if ((hr = CopyAndDetectHighlight()) < 0) return hr;

  // The float modes keep the highlight in floats from here to the blend.
  if ((hr = ShrinkAndSoften(!floats)) < 0 || (hr = AdjustColor(floats)) < 0) return hr;

  return UpsampleAndBlend(floats);
}

}  // namespace Korvane
