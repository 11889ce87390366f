#include "effects/focus_blur/FocusBlurEffect.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <new>

#include "core/DebugLog.h"
#include "core/SmartBuffer.h"
#include "effects/focus_blur/FocusBlend.h"
#include "effects/focus_blur/GaussianBlur.h"

namespace Korvane {

namespace {

// The failure lines name the kernel form that ran.
struct PassNames {
  const char* strong_h;
  const char* strong_v;
  const char* weak_h;
  const char* weak_v;
  const char* blend;
  const char* weak_hv;
};

const PassNames kPlainNames = {
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurH, &blur_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurV, &blur_param, this, process_region, false)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurH, &sub_blur_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurV, &sub_blur_param, this, process_region, false)",
    "m_thread_adapter.RunTaskByMultiThread(FocusBlend, &blend_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurHV, &sub_blur_param, this, process_region)",
};

const PassNames kSseNames = {
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurH_SSE, &blur_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurV_SSE, &blur_param, this, process_region, false)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurH_SSE, &sub_blur_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurV_SSE, &sub_blur_param, this, process_region, false)",
    "m_thread_adapter.RunTaskByMultiThread(FocusBlend_SSE, &blend_param, this, process_region)",
    "m_thread_adapter.RunTaskByMultiThread(GaussianBlurHV_SSE, &sub_blur_param, this, process_region)",
};

int32_t Refuse(const char* why, int32_t code) {
  DebugLog("[Korvane] FocusBlur: %s - Return Code: %x", why, static_cast<unsigned>(code));
  return code;
}

bool RowsFit(const ImageBuffer& b, int64_t bytes_per_pixel) {
  return static_cast<int64_t>(b.stride) >= static_cast<int64_t>(b.width) * bytes_per_pixel;
}

// What keeps every pass inside the caller's images. Logs and returns the
// reason when the record cannot be used.
int32_t CheckRecord(const FocusBlurParam& p) {
  if (!p.input.data) return Refuse("the input image has no pixels", E_POINTER);
  if (!p.mask.data) return Refuse("the guide image has no pixels", E_POINTER);
  if (!p.output.data) return Refuse("the output image has no pixels", E_POINTER);
  if (p.input.pix_fmt != PIXEL_BGRA32 || p.input.channel != 4) {
    return Refuse("the input image is not BGRA32", E_NOTIMPL);
  }
  if (p.output.pix_fmt != PIXEL_BGRA32 || p.output.channel != 4) {
    return Refuse("the output image is not BGRA32", E_NOTIMPL);
  }
  if (p.input.width <= 0 || p.input.height <= 0 || static_cast<int64_t>(p.input.width) * 4 > INT32_MAX) {
    return Refuse("the input image size is out of range", E_INVALIDARG);
  }
  if (p.mask.width != p.input.width || p.mask.height != p.input.height) {
    return Refuse("the guide image is not the size of the input", E_INVALIDARG);
  }
  if (p.output.width != p.input.width || p.output.height != p.input.height) {
    return Refuse("the output image is not the size of the input", E_INVALIDARG);
  }
  if (!RowsFit(p.input, 4) || !RowsFit(p.output, 4) || p.mask.channel < 1 || !RowsFit(p.mask, p.mask.channel)) {
    return Refuse("an image stride is shorter than its rows", E_INVALIDARG);
  }
  return S_OK;
}

// Each working image starts as a copy of the input, made by its horizontal
// pass, which reads the input and writes every pixel of the working image.
// The copy accepts only layouts a plain copy of the input would: the same
// stride and height.
int32_t CheckCopy(const SmartBuffer& in, const SmartBuffer& copy) {
  if (in.stride != copy.stride || in.height != copy.height) return E_INVALIDARG;
  if (!in.data || !copy.data) return E_POINTER;
  return S_OK;
}

// Shared by both blurs: true where the guide lies further than focus_range
// from focus_value. Built in row bands on the pool.
struct BlurMaskParam {
  const ImageBuffer* guide;
  const bool* blur;  // per guide value
  bool* mask;        // width x height
};

void BlurMaskRows(const BlurMaskParam& p, int32_t top, int32_t bottom) {
  const ImageBuffer& g = *p.guide;
  const int32_t step = g.channel;
  for (int32_t y = top; y < bottom; ++y) {
    const uint8_t* src = g.data + static_cast<size_t>(y) * g.stride;
    bool* m = p.mask + static_cast<size_t>(y) * g.width;
    for (int32_t x = 0; x < g.width; ++x) m[x] = p.blur[src[static_cast<size_t>(x) * step]];
  }
}

int32_t BlurMaskTask(ThreadJob* job, int32_t* result) {
  const BlurMaskParam& p = *static_cast<const BlurMaskParam*>(job->param);
  const Rect& r = job->rect;
  if (r.top >= 0 && r.bottom <= p.guide->height && r.left == 0 && r.right == p.guide->width) {
    BlurMaskRows(p, r.top, std::max(r.top, r.bottom));
  } else if (r.bottom > r.top) {
    if (result) *result = E_INVALIDARG;
    return E_INVALIDARG;
  }
  if (result) *result = S_OK;
  return S_OK;
}

std::shared_ptr<bool[]> MakeBlurMask(CThreadAdapter& adapter, const ImageBuffer& guide, int32_t focus_value,
                                     int32_t focus_range) {
  std::shared_ptr<bool[]> mask(new bool[static_cast<size_t>(guide.width) * guide.height]);
  // Per guide value, so the loop over pixels is a lookup.
  bool blur[256];
  for (int32_t v = 0; v < 256; ++v) {
    blur[v] = std::llabs(static_cast<int64_t>(v) - focus_value) > static_cast<int64_t>(focus_range);
  }
  BlurMaskParam p{&guide, blur, mask.get()};
  // Without a working pool the mask is built here; the first blur pass then
  // reports the pool's failure.
  if (adapter.RunTaskByMultiThread(BlurMaskTask, &p, nullptr, Rect{0, 0, guide.width, guide.height}) < 0) {
    BlurMaskRows(p, 0, guide.height);
  }
  return mask;
}

// True when the pixel bytes of a and b share memory.
bool Overlaps(const ImageBuffer& a, const ImageBuffer& b) {
  auto end = [](const ImageBuffer& i, int32_t bytes_per_pixel) {
    return reinterpret_cast<uintptr_t>(i.data) + static_cast<size_t>(i.height - 1) * i.stride +
           static_cast<size_t>(i.width) * bytes_per_pixel;
  };
  const uintptr_t a0 = reinterpret_cast<uintptr_t>(a.data), b0 = reinterpret_cast<uintptr_t>(b.data);
  return a0 < end(b, b.channel) && b0 < end(a, a.channel);
}

// Blends one finished row of the weak blur into the output.
struct WeakRowBlend {
  const FocusBlendParam* blend;
  FocusBlendRow row;
};

void BlendWeakRow(const void* ctx, int32_t y, int32_t left, const uint8_t* weak, int32_t count) {
  const WeakRowBlend& sink = *static_cast<const WeakRowBlend*>(ctx);
  const FocusBlendParam& bp = *sink.blend;
  const size_t yy = static_cast<size_t>(y), x4 = static_cast<size_t>(left) * 4;
  sink.row(bp.input.data.get() + yy * bp.input.stride + x4, bp.effect.data.get() + yy * bp.effect.stride + x4, weak,
           bp.mask.data.get() + yy * bp.mask.stride + static_cast<size_t>(left) * bp.mask.channel, bp.mask.channel,
           bp.table.get(), bp.output.data.get() + yy * bp.output.stride + x4, count);
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

  const bool sse = UseSse41();
  const ThreadTask blur_h = sse ? KORVANE_SSE41(GaussianBlurH_SSE) : GaussianBlurH;
  const ThreadTask blur_v = sse ? KORVANE_SSE41(GaussianBlurV_SSE) : GaussianBlurV;
  const ThreadTask blur_hv = sse ? KORVANE_SSE41(GaussianBlurHV_SSE) : GaussianBlurHV;
  const ThreadTask blend = sse ? KORVANE_SSE41(FocusBlend_SSE) : FocusBlend;
  const PassNames& names = sse ? kSseNames : kPlainNames;

  const SmartBuffer in = SmartBufferView(param.input);
  const SmartBuffer guide = SmartBufferView(param.mask);
  const SmartBuffer out = SmartBufferView(param.output);
  const Rect process_region{0, 0, in.width, in.height};
  const std::shared_ptr<bool[]> blur_mask =
      MakeBlurMask(m_thread_adapter, param.mask, param.focus_value, param.focus_range);

  // Strong blur. Its working image may be the output itself: the blend
  // then mixes each pixel in place, and a fresh image of this size costs
  // about as much to fault in as a short blur does to compute. That needs the
  // output to share no memory with the photo or guide, which are read
  // throughout, and the layout a copy of the photo would have.
  const bool output_free = !Overlaps(param.output, param.input) && !Overlaps(param.output, param.mask);
  SmartBuffer effect;
  if (output_free && out.stride == in.stride) {
    effect = out;
  } else if (KORVANE_FAILED(CreateSmartBufferData(effect, in.width, in.height, in.pix_fmt))) {
    return hr;
  }
  if ((hr = CheckCopy(in, effect)) < 0) {
    KORVANE_LOG_FAILED_CALL("CopySmartBufferData(in, effect)", hr);
    return hr;
  }
  GaussianBlurParam blur_param;
  blur_param.buffer = effect;
  blur_param.source = in;
  blur_param.weights.reset(new float[kGaussianHalfTaps]);
  blur_param.kernel_length = MakeGaussianWeights(param.blur_level, in.width, in.height, blur_param.weights.get());
  blur_param.mask = blur_mask;
  if ((hr = m_thread_adapter.RunTaskByMultiThread(blur_h, &blur_param, this, process_region)) < 0) {
    KORVANE_LOG_FAILED_CALL(names.strong_h, hr);
    return hr;
  }
  if ((hr = m_thread_adapter.RunTaskByMultiThread(blur_v, &blur_param, this, process_region, false)) < 0) {
    KORVANE_LOG_FAILED_CALL(names.strong_v, hr);
    return hr;
  }

  // Weak blur, a sixth of the strength, then the blend.
  GaussianBlurParam sub_blur_param;
  sub_blur_param.source = in;
  sub_blur_param.weights.reset(new float[kGaussianHalfTaps]);
  sub_blur_param.kernel_length =
      MakeGaussianWeights(param.blur_level / 6, in.width, in.height, sub_blur_param.weights.get());
  sub_blur_param.mask = blur_mask;
  FocusBlendParam blend_param;
  blend_param.output = out;
  blend_param.input = in;
  blend_param.effect = effect;
  blend_param.mask = guide;
  blend_param.table.reset(new int32_t[256]);
  MakeBlendTable(param.focus_value, blend_param.table.get());

  // The weak kernel is usually short: its two passes then run as one, and
  // each finished row is blended at once, so the weak image is never stored.
  // A band reads the photo's rows next to it, so the output may not share
  // memory with the photo (or the guide) here.
  if (sub_blur_param.kernel_length <= kShortKernel && output_free) {
    const WeakRowBlend sink{&blend_param, sse ? KORVANE_SSE41(FocusBlendRow_SSE) : FocusBlendRowPlain};
    sub_blur_param.buffer = out;  // gives the size; rows go to the sink
    sub_blur_param.row_sink = BlendWeakRow;
    sub_blur_param.sink_ctx = &sink;
    if ((hr = m_thread_adapter.RunTaskByMultiThread(blur_hv, &sub_blur_param, this, process_region)) < 0) {
      KORVANE_LOG_FAILED_CALL(names.weak_hv, hr);
      return hr;
    }
    return S_OK;
  }

  SmartBuffer sub_effect;
  if (KORVANE_FAILED(CreateSmartBufferData(sub_effect, in.width, in.height, in.pix_fmt))) return hr;
  if ((hr = CheckCopy(in, sub_effect)) < 0) {
    KORVANE_LOG_FAILED_CALL("CopySmartBufferData(in, sub_effect)", hr);
    return hr;
  }
  sub_blur_param.buffer = sub_effect;
  if ((hr = m_thread_adapter.RunTaskByMultiThread(blur_h, &sub_blur_param, this, process_region)) < 0) {
    KORVANE_LOG_FAILED_CALL(names.weak_h, hr);
    return hr;
  }
  if ((hr = m_thread_adapter.RunTaskByMultiThread(blur_v, &sub_blur_param, this, process_region, false)) < 0) {
    KORVANE_LOG_FAILED_CALL(names.weak_v, hr);
    return hr;
  }
  blend_param.sub_effect = sub_effect;
  if ((hr = m_thread_adapter.RunTaskByMultiThread(blend, &blend_param, this, process_region)) < 0) {
    KORVANE_LOG_FAILED_CALL(names.blend, hr);
    return hr;
  }
  return S_OK;
}

}  // namespace Korvane
