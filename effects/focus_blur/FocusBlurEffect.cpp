#include "effects/focus_blur/FocusBlurEffect.h"

#include <new>

#include "core/DebugLog.h"
#include "core/FocusBlend.h"
#include "core/FocusBlurStages.h"
#include "core/GaussianBlur.h"
#include "core/ImageChecks.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

// Rows of the weak blur made and blended per chunk: 32 rows of a 4000-pixel
// photo are 512 KB of scratch, and each chunk recomputes only the few rows of
// the row pass its column window reaches above and below.
constexpr int32_t kWeakChunkRows = 32;

int32_t Refuse(const char* why, int32_t code) { return LogRefusal("FocusBlur", why, code); }

// What keeps every pass inside the caller's images, checked in the order
// every effect keeps: pixels, formats, then sizes and strides. Logs and
// returns the reason when the record cannot be used.
int32_t CheckRecord(const FocusBlurParam& p) {
  if (!p.input.data) return Refuse("the input image has no pixels", E_POINTER);
  if (!p.mask.data) return Refuse("the guide image has no pixels", E_POINTER);
  if (!p.output.data) return Refuse("the output image has no pixels", E_POINTER);
  if (!IsBgra(p.input)) return Refuse("the input image is not BGRA32", E_NOTIMPL);
  if (!IsBgra(p.output)) return Refuse("the output image is not BGRA32", E_NOTIMPL);
  if (p.input.width <= 0 || p.input.height <= 0 || p.input.width > kMaxImageSide ||
      p.input.height > kMaxImageSide) {
    return Refuse("the input image size is out of range", E_INVALIDARG);
  }
  if (!SameSize(p.mask, p.input)) return Refuse("the guide image is not the size of the input", E_INVALIDARG);
  if (!SameSize(p.output, p.input)) return Refuse("the output image is not the size of the input", E_INVALIDARG);
  if (!RowsFit(p.input, 4) || !RowsFit(p.output, 4) || p.mask.channel < 1 || !RowsFit(p.mask, p.mask.channel)) {
    return Refuse("an image stride is shorter than its rows", E_INVALIDARG);
  }
  return S_OK;
}

}  // namespace

int32_t FocusBlurEffect::Init(const FocusBlurParam*) { return S_OK; }

int32_t FocusBlurEffect::Uninit() { return S_OK; }

int32_t FocusBlurEffect::Process(const FocusBlurParam* param) {
  if (!param) return Refuse("no parameter record", E_POINTER);
  try {
    // A failure has been logged and leaves the output partly or wholly
    // unwritten; the caller still gets 0, as hosts of this effect expect.
    Render(*param);
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t FocusBlurEffect::Render(const FocusBlurParam& param) {
  int32_t hr = CheckRecord(param);
  if (hr < 0) return hr;
  Frame f;
  if ((hr = PlanBuffers(param, f)) < 0 || (hr = StrongBlur(param, f)) < 0) return hr;
  return WeakBlurAndBlend(param, f);
}

int32_t FocusBlurEffect::PlanBuffers(const FocusBlurParam& param, Frame& f) {
  f.in = SmartBufferView(param.input);
  f.guide = SmartBufferView(param.mask);
  f.out = SmartBufferView(param.output);
  f.region = FullRect(f.in);
  f.blur_mask.reset(new bool[static_cast<size_t>(f.in.width) * f.in.height]);
  MakeBlurMask(m_thread_adapter, f.guide, param.focus_value, param.focus_range, f.blur_mask.get());

  // The strong blur's working image may be the output itself: the blend
  // then mixes each pixel in place, and a fresh image of this size costs
  // about as much to fault in as a short blur does to compute. That needs the
  // output to share no memory with the photo or guide, which are read
  // throughout. Every pass addresses each image by its own stride, so padded
  // rows on either side are fine.
  f.output_free = !Overlaps(param.output, param.input) && !Overlaps(param.output, param.mask);
  int32_t hr = S_OK;
  if (f.output_free) {
    f.effect = f.out;
  } else if (KORVANE_FAILED(CreateSmartBufferData(f.effect, f.in.width, f.in.height, f.in.pix_fmt))) {
    return hr;
  }
  return S_OK;
}

int32_t FocusBlurEffect::StrongBlur(const FocusBlurParam& param, Frame& f) {
  // The horizontal pass reads the photo and writes every pixel of the
  // working image, so the working image needs no copy of the photo first.
  GaussianBlurParam blur_param;
  blur_param.buffer = f.effect;
  blur_param.source = f.in;
  blur_param.weights.reset(new float[kGaussianHalfTaps]);
  blur_param.kernel_length = MakeGaussianWeights(param.blur_level, f.in.width, f.in.height, blur_param.weights.get());
  blur_param.mask = f.blur_mask;
  return RunGaussianPasses(m_thread_adapter, m_system_info, blur_param, "&blur_param", f.region);
}

int32_t FocusBlurEffect::WeakBlurAndBlend(const FocusBlurParam& param, const Frame& f) {
  GaussianBlurParam sub_blur_param;
  sub_blur_param.source = f.in;
  sub_blur_param.weights.reset(new float[kGaussianHalfTaps]);
  sub_blur_param.kernel_length =
      MakeGaussianWeights(param.blur_level / 6, f.in.width, f.in.height, sub_blur_param.weights.get());
  sub_blur_param.mask = f.blur_mask;
  FocusBlendParam blend_param;
  blend_param.output = f.out;
  blend_param.input = f.in;
  blend_param.effect = f.effect;
  blend_param.mask = f.guide;
  blend_param.table.reset(new int32_t[256]);
  MakeBlendTable(param.focus_value, blend_param.table.get());
  const auto blend = KORVANE_PICK_AVX2(m_system_info, FocusBlend, FocusBlend_SSE, FocusBlend_AVX2);

  // The weak kernel is usually short: its two passes then run as one, a few
  // rows at a time into the band's scratch rows, and the blend takes each
  // chunk while it is in cache, so the weak image is never stored. A band
  // reads the photo's rows next to it, so the output may not share memory
  // with the photo (or the guide) here.
  if (sub_blur_param.kernel_length <= kShortKernel && f.output_free) {
    sub_blur_param.buffer = f.out;  // gives the size; rows go to the scratch
    sub_blur_param.to_scratch = true;
    blend_param.weak_in_scratch = true;
    RowPipeline chain(kWeakChunkRows);
    const auto both = KORVANE_PICK_AVX2(m_system_info, GaussianBlurHV, GaussianBlurHV_SSE, GaussianBlurHV_AVX2);
    chain.SetScratch(static_cast<int64_t>(f.in.width) * 4)
        .Then(both, &sub_blur_param)
        .Then(blend, &blend_param);
    return chain.Run(m_thread_adapter, f.region);
  }

  int32_t hr;
  SmartBuffer sub_effect;
  if (KORVANE_FAILED(CreateSmartBufferData(sub_effect, f.in.width, f.in.height, f.in.pix_fmt))) return hr;
  sub_blur_param.buffer = sub_effect;
  if ((hr = RunGaussianPasses(m_thread_adapter, m_system_info, sub_blur_param, "&sub_blur_param", f.region)) < 0) {
    return hr;
  }
  blend_param.sub_effect = sub_effect;
  return RunFocusPass(m_thread_adapter, blend, "&blend_param", &blend_param, f.region);
}

}  // namespace Korvane
