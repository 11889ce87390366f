#include "core/BilinearResize.h"

#include <algorithm>
#include <cstring>
#include <new>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KORVANE_RESIZE_STREAM 1
#else
#define KORVANE_RESIZE_STREAM 0
#endif

#include "core/BilinearResizePlan.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "core/Simd.h"

namespace Korvane {
namespace resize_detail {

namespace {

// One axis of the centre-to-centre mapping for destination positions
// [begin, end): source index pair (scaled by `scale` bytes), the 8-bit
// fraction (which wraps for the slightly negative positions at the start of
// an enlargement) and, when asked, a float fraction clamped into [0, 1].
void BuildAxis(int32_t dst_len, int32_t src_len, int32_t lo, int32_t hi, int32_t begin,
               int32_t end, int32_t scale, int32_t* i0, int32_t* i1, uint8_t* f, float* ff) {
  const float ratio = static_cast<float>(dst_len) / static_cast<float>(src_len);
  const float dst_centre = static_cast<float>(dst_len - 1) / 2.0f;
  const float src_centre = static_cast<float>(src_len - 1) / 2.0f;
  for (int32_t d = begin; d < end; ++d) {
    const float s = (static_cast<float>(d) - dst_centre) / ratio + src_centre;
    const int32_t t = static_cast<int32_t>(s);  // toward zero
    int32_t a = t < lo ? lo : t;
    if (a >= hi) a = hi - 1;
    const int32_t b = a + 1 < hi ? a + 1 : a;
    const int32_t k = d - begin;
    i0[k] = a * scale;
    i1[k] = b * scale;
    f[k] = static_cast<uint8_t>(static_cast<int32_t>((s - static_cast<float>(t)) * 256.0f));
    if (ff) ff[k] = std::min(1.0f, std::max(0.0f, s - static_cast<float>(a)));
  }
}

}  // namespace

int32_t PlanResize(const ResizeParam& param, const Rect& band, int32_t bpp, bool with_float,
                   ResizePlan* plan) {
  const SmartBuffer& src = param.src;
  const SmartBuffer& dst = param.dst;
  if (!src.data || !dst.data) return E_POINTER;
  if (src.width < 1 || src.height < 1 || dst.width < 1 || dst.height < 1) return E_FAIL;
  if (src.stride < static_cast<int64_t>(src.width) * bpp ||
      dst.stride < static_cast<int64_t>(dst.width) * bpp) {
    return E_INVALIDARG;
  }
  // Only the part of src_roi that lies inside the source can be sampled.
  const int32_t lo_x = std::max(param.src_roi.left, 0);
  const int32_t hi_x = std::min(param.src_roi.right, src.width);
  const int32_t lo_y = std::max(param.src_roi.top, 0);
  const int32_t hi_y = std::min(param.src_roi.bottom, src.height);
  if (lo_x >= hi_x || lo_y >= hi_y) return E_INVALIDARG;

  plan->src = src.data.get();
  plan->dst = dst.data.get();
  plan->src_stride = src.stride;
  plan->dst_stride = dst.stride;
  plan->x_begin = std::max(band.left, 0);
  plan->x_end = std::min(band.right, dst.width);
  plan->y_begin = std::max(band.top, 0);
  plan->y_end = std::min(band.bottom, dst.height);
  if (plan->x_begin >= plan->x_end || plan->y_begin >= plan->y_end) {
    plan->x_end = plan->x_begin;
    plan->y_end = plan->y_begin;
    plan->x_paired = plan->x_begin;
    return S_OK;
  }
  const size_t nx = static_cast<size_t>(plan->x_end - plan->x_begin);
  const size_t ny = static_cast<size_t>(plan->y_end - plan->y_begin);
  try {
    plan->x0.resize(nx);
    plan->x1.resize(nx);
    plan->fx.resize(nx);
    plan->y0.resize(ny);
    plan->y1.resize(ny);
    plan->fy.resize(ny);
    if (with_float) {
      plan->fxf.resize(nx);
      plan->fyf.resize(ny);
    }
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  BuildAxis(dst.width, src.width, lo_x, hi_x, plan->x_begin, plan->x_end, bpp, plan->x0.data(),
            plan->x1.data(), plan->fx.data(), with_float ? plan->fxf.data() : nullptr);
  BuildAxis(dst.height, src.height, lo_y, hi_y, plan->y_begin, plan->y_end, 1, plan->y0.data(),
            plan->y1.data(), plan->fy.data(), with_float ? plan->fyf.data() : nullptr);
  size_t paired = 0;
  while (paired < nx && plan->x1[paired] != plan->x0[paired]) ++paired;
  plan->x_paired = plan->x_begin + static_cast<int32_t>(paired);
  return S_OK;
}

namespace {

template <int kChannels>
void FusedSpanT(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1, int32_t fy, int32_t from,
                unsigned char* out) {
  const int32_t nx = plan.x_end - plan.x_begin;
  for (int32_t i = from; i < nx; ++i) {
    const unsigned char* a = r0 + plan.x0[i];
    const unsigned char* b = r0 + plan.x1[i];
    const unsigned char* c = r1 + plan.x0[i];
    const unsigned char* d = r1 + plan.x1[i];
    const int32_t fx = plan.fx[i];
    for (int k = 0; k < kChannels; ++k) {
      const int32_t top = Lerp8(a[k], b[k], fx);
      const int32_t bottom = Lerp8(c[k], d[k], fx);
      out[i * kChannels + k] = static_cast<unsigned char>(Lerp8(top, bottom, fy));
    }
  }
}

}  // namespace

void HorizontalSpan(const ResizePlan& plan, const unsigned char* row, int32_t channels, int32_t from, int16_t* out) {
  const int32_t nx = plan.x_end - plan.x_begin;
  for (int32_t i = from; i < nx; ++i) {
    const unsigned char* a = row + plan.x0[i];
    const unsigned char* b = row + plan.x1[i];
    for (int32_t c = 0; c < channels; ++c) out[i * channels + c] = static_cast<int16_t>(Lerp8(a[c], b[c], plan.fx[i]));
  }
}

void VerticalSpan(const int16_t* top, const int16_t* bottom, int32_t fy, int32_t from, int32_t count,
                  unsigned char* out) {
  for (int32_t i = from; i < count; ++i) out[i] = static_cast<unsigned char>(Lerp8(top[i], bottom[i], fy));
}

void FusedSpan(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1, int32_t fy, int32_t channels,
               int32_t from, unsigned char* out) {
  if (channels == 4) {
    FusedSpanT<4>(plan, r0, r1, fy, from, out);
  } else {
    FusedSpanT<1>(plan, r0, r1, fy, from, out);
  }
}

namespace {

// An enlarging band writing at least this much goes past the caches: its
// rows are made in a cached row and copied out with non-temporal stores,
// which saves reading every destination line in before it is written. Bands
// of a row pipeline (a few rows, read again at once) stay below it, and so
// do reductions, which measured no gain (their reads dominate).
constexpr size_t kStreamBandBytes = size_t{4} << 20;

// Copies a row to `to` with non-temporal stores (SSE2, every x86-64 has it).
void StreamRow(unsigned char* to, const unsigned char* from, size_t bytes) {
#if KORVANE_RESIZE_STREAM
  size_t i = (16 - (reinterpret_cast<uintptr_t>(to) & 15)) & 15;
  if (i > bytes) i = bytes;
  std::memcpy(to, from, i);
  for (; i + 16 <= bytes; i += 16) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(to + i), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i)));
  }
  std::memcpy(to + i, from + i, bytes - i);
#else
  std::memcpy(to, from, bytes);
#endif
}

void StreamFence() {
#if KORVANE_RESIZE_STREAM
  _mm_sfence();
#endif
}

// Reductions: every four-column group of a BGRA band whose neighbour pairs
// are consecutive source pixels, and whether its fractions are all 128.
void ClassifyQuads(const ResizePlan& plan, uint8_t* quads) {
  const int32_t paired = plan.x_paired - plan.x_begin;
  for (int32_t i = 0; i + 4 <= paired; i += 4) {
    const int32_t* x0 = plan.x0.data() + i;
    if (x0[1] == x0[0] + 8 && x0[2] == x0[0] + 16 && x0[3] == x0[0] + 24) {
      const uint8_t* f = plan.fx.data() + i;
      const bool mid = f[0] == 128 && f[1] == 128 && f[2] == 128 && f[3] == 128;
      quads[i / 4] = mid ? kQuadMidpoints : kQuadConsecutive;
    }
  }
}

// The byte shuffles of ResizePlan::pair_shuffle for a BGRA band.
void BuildPairShuffles(ResizePlan& plan, int32_t src_row_bytes) {
  const int32_t pairs = (plan.x_paired - plan.x_begin) / 2;
  plan.pair_shuffle.assign(static_cast<size_t>(pairs) * 16, 0);
  for (int32_t k = 0; k < pairs; ++k) {
    const int32_t j = 2 * k;
    const int32_t base = plan.x0[j];
    uint8_t* m = plan.pair_shuffle.data() + 16 * k;
    if (plan.x1[j + 1] - base > 12 || base + 16 > src_row_bytes) {
      m[0] = kNoShuffle;
      continue;
    }
    const int32_t from[4] = {plan.x0[j], plan.x0[j + 1], plan.x1[j], plan.x1[j + 1]};
    for (int32_t q = 0; q < 4; ++q)
      for (int32_t c = 0; c < 4; ++c) m[4 * q + c] = static_cast<uint8_t>(from[q] - base + c);
  }
}

// Enlargements: each destination row mixes two horizontally interpolated
// source rows, kept in two slots while the next destination rows need them.
void EnlargeRows(const ResizePlan& plan, const ResizeRowKernels& k, const int16_t* fx128, int16_t* rows, size_t values,
                 int32_t channels, unsigned char* stream_row) {
  int16_t* slot[2] = {rows, rows + values};
  int32_t tag[2] = {-1, -1};
  auto horizontal = [&](int32_t y, int s) {
    k.horizontal(plan, plan.src + y * plan.src_stride, fx128, slot[s]);
    tag[s] = y;
  };
  for (int32_t dy = plan.y_begin; dy < plan.y_end; ++dy) {
    const int32_t iy = dy - plan.y_begin;
    const int32_t y0 = plan.y0[iy], y1 = plan.y1[iy];
    int s0 = tag[0] == y0 ? 0 : tag[1] == y0 ? 1 : -1;
    if (s0 < 0) {
      s0 = tag[0] == y1 ? 1 : 0;
      horizontal(y0, s0);
    }
    int s1 = s0;
    if (y1 != y0) {
      s1 = tag[0] == y1 ? 0 : tag[1] == y1 ? 1 : -1;
      if (s1 < 0) {
        s1 = 1 - s0;
        horizontal(y1, s1);
      }
    }
    unsigned char* out = plan.dst + dy * plan.dst_stride + plan.x_begin * channels;
    k.vertical(slot[s0], slot[s1], plan.fy[iy], static_cast<int32_t>(values), stream_row ? stream_row : out);
    if (stream_row) StreamRow(out, stream_row, values);
  }
  if (stream_row) StreamFence();
}

}  // namespace

int32_t RunSimdResize(ThreadJob* job, int32_t* result, int32_t channels, const ResizeRowKernels& k) {
  const ResizeParam& param = *static_cast<const ResizeParam*>(job->param);
  ResizePlan plan;
  int32_t hr = PlanResize(param, job->rect, channels, false, &plan);
  if (hr < 0 || plan.x_begin == plan.x_end) return Done(result, hr);
  const int32_t nx = plan.x_end - plan.x_begin;
  const size_t values = static_cast<size_t>(nx) * channels;
  const bool fused = param.dst.height < param.src.height;
  const bool stream = !fused && values * static_cast<size_t>(plan.y_end - plan.y_begin) >= kStreamBandBytes;
  std::vector<int16_t> fx128, rows;
  std::vector<uint8_t> quads, row;
  try {
    fx128.resize(values);
    if (stream) row.resize(values);
    if (fused) {
      quads.resize(static_cast<size_t>(nx) / 4 + 2, kQuadGather);
    } else {
      rows.resize(2 * values);
    }
  } catch (const std::bad_alloc&) {
    return Done(result, E_OUTOFMEMORY);
  }
  for (int32_t i = 0; i < nx; ++i)
    for (int32_t c = 0; c < channels; ++c) fx128[i * channels + c] = static_cast<int16_t>(plan.fx[i] * 128);
  if (!fused) {
    if (channels == 4) BuildPairShuffles(plan, param.src.width * 4);
    EnlargeRows(plan, k, fx128.data(), rows.data(), values, channels, stream ? row.data() : nullptr);
    return Done(result, S_OK);
  }
  // Reductions seldom share a source row between destination rows: both
  // rows stream in together and no 16-bit rows are stored.
  if (channels == 4) ClassifyQuads(plan, quads.data());
  for (int32_t dy = plan.y_begin; dy < plan.y_end; ++dy) {
    const int32_t iy = dy - plan.y_begin;
    const int32_t next = dy + 1 < plan.y_end ? iy + 1 : iy;
    k.fused(plan, plan.src + plan.y0[iy] * plan.src_stride, plan.src + plan.y1[iy] * plan.src_stride,
            plan.src + plan.y0[next] * plan.src_stride, plan.src + plan.y1[next] * plan.src_stride, fx128.data(),
            quads.data(), plan.fy[iy], plan.dst + dy * plan.dst_stride + plan.x_begin * channels);
  }
  return Done(result, S_OK);
}

}  // namespace resize_detail

using resize_detail::PlanResize;
using resize_detail::ResizePlan;

namespace {

// The plain byte resize of a band, kChannels bytes a pixel.
int32_t ResizePlain(ThreadJob* job, int32_t* result, int32_t channels) {
  ResizePlan plan;
  const int32_t hr = PlanResize(*static_cast<const ResizeParam*>(job->param), job->rect, channels, false, &plan);
  if (hr >= 0) {
    for (int32_t dy = plan.y_begin; dy < plan.y_end; ++dy) {
      const int32_t iy = dy - plan.y_begin;
      resize_detail::FusedSpan(plan, plan.src + plan.y0[iy] * plan.src_stride,
                               plan.src + plan.y1[iy] * plan.src_stride, plan.fy[iy], channels, 0,
                               plan.dst + dy * plan.dst_stride + plan.x_begin * channels);
    }
  }
  return Done(result, hr);
}

}  // namespace

int32_t BilinearResize_8uc4(ThreadJob* job, int32_t* result) { return ResizePlain(job, result, 4); }

int32_t BilinearResize_8uc1(ThreadJob* job, int32_t* result) { return ResizePlain(job, result, 1); }

int32_t BilinearResize_32fc3(ThreadJob* job, int32_t* result) {
  ResizePlan plan;
  int32_t hr = PlanResize(*static_cast<const ResizeParam*>(job->param), job->rect, 12, true, &plan);
  if (hr < 0) {
    return Done(result, hr);
  }
  for (int32_t dy = plan.y_begin; dy < plan.y_end; ++dy) {
    const int32_t iy = dy - plan.y_begin;
    const unsigned char* r0 = plan.src + plan.y0[iy] * plan.src_stride;
    const unsigned char* r1 = plan.src + plan.y1[iy] * plan.src_stride;
    const float fy = plan.fyf[iy];
    float* out = reinterpret_cast<float*>(plan.dst + dy * plan.dst_stride);
    for (int32_t dx = plan.x_begin; dx < plan.x_end; ++dx) {
      const int32_t ix = dx - plan.x_begin;
      const float* a0 = reinterpret_cast<const float*>(r0 + plan.x0[ix]);
      const float* b0 = reinterpret_cast<const float*>(r0 + plan.x1[ix]);
      const float* a1 = reinterpret_cast<const float*>(r1 + plan.x0[ix]);
      const float* b1 = reinterpret_cast<const float*>(r1 + plan.x1[ix]);
      const float fx = plan.fxf[ix];
      for (int c = 0; c < 3; ++c) {
        const float top = a0[c] + (b0[c] - a0[c]) * fx;
        const float bottom = a1[c] + (b1[c] - a1[c]) * fx;
        out[dx * 3 + c] = top + (bottom - top) * fy;
      }
    }
  }
  return Done(result, S_OK);
}

namespace {

// Bilinear weights in 1/256 for fractions (fx, fy); the fourth takes what is
// left so the four add up to 256 (never negative).
struct SampleWeights {
  int32_t tl, tr, bl, br;
};

inline SampleWeights CalSampleWeights(float fx, float fy) {
  SampleWeights w;
  w.tr = static_cast<int32_t>((1.0f - fy) * fx * 256.0f + 0.5f);
  w.bl = static_cast<int32_t>(fy * (1.0f - fx) * 256.0f + 0.5f);
  w.tl = static_cast<int32_t>((1.0f - fy) * (1.0f - fx) * 256.0f + 0.5f);
  w.br = std::max(0, 256 - w.tr - w.bl - w.tl);
  return w;
}

// Locates the four neighbours of (x, y). Positions whose integer part falls
// outside the image are refused instead of read; a fraction below zero (a
// position in (-1, 0)) counts as zero.
inline bool LocateSample(int height, int width, float y, float x, int32_t* x0, int32_t* y0,
                         int32_t* x1, int32_t* y1, float* fx, float* fy) {
  if (!(x > -1.0f && x < static_cast<float>(width)) ||
      !(y > -1.0f && y < static_cast<float>(height))) {
    return false;
  }
  *x0 = static_cast<int32_t>(x);
  *y0 = static_cast<int32_t>(y);
  if (*x0 >= width || *y0 >= height) return false;  // float rounding at the far edge
  *fx = std::max(0.0f, x - static_cast<float>(*x0));
  *fy = std::max(0.0f, y - static_cast<float>(*y0));
  *x1 = *x0 + 1 <= width - 1 ? *x0 + 1 : *x0;
  *y1 = *y0 + 1 <= height - 1 ? *y0 + 1 : *y0;
  return true;
}

}  // namespace

int32_t BilinearSample_8uc4(const unsigned char* src, unsigned char* out, int height, int width,
                            int stride, float y, float x) {
  if (!src || !out) return E_POINTER;
  if (width < 1 || height < 1 || stride < static_cast<int64_t>(width) * 4) return E_INVALIDARG;
  int32_t x0, y0, x1, y1;
  float fx, fy;
  if (!LocateSample(height, width, y, x, &x0, &y0, &x1, &y1, &fx, &fy)) return E_INVALIDARG;
  const SampleWeights w = CalSampleWeights(fx, fy);
  const unsigned char* tl = src + static_cast<ptrdiff_t>(y0) * stride + x0 * 4;
  const unsigned char* tr = src + static_cast<ptrdiff_t>(y0) * stride + x1 * 4;
  const unsigned char* bl = src + static_cast<ptrdiff_t>(y1) * stride + x0 * 4;
  const unsigned char* br = src + static_cast<ptrdiff_t>(y1) * stride + x1 * 4;
  for (int c = 0; c < 3; ++c) {
    out[c] = static_cast<unsigned char>(
        (br[c] * w.br + bl[c] * w.bl + tr[c] * w.tr + tl[c] * w.tl) >> 8);
  }
  out[3] = 255;
  return S_OK;
}

int32_t BilinearSample_8uc1(const unsigned char* src, unsigned char* out, int height, int width,
                            int stride, float y, float x) {
  if (!src || !out) return E_POINTER;
  if (width < 1 || height < 1 || stride < width) return E_INVALIDARG;
  int32_t x0, y0, x1, y1;
  float fx, fy;
  if (!LocateSample(height, width, y, x, &x0, &y0, &x1, &y1, &fx, &fy)) return E_INVALIDARG;
  const SampleWeights w = CalSampleWeights(fx, fy);
  const unsigned char* r0 = src + static_cast<ptrdiff_t>(y0) * stride;
  const unsigned char* r1 = src + static_cast<ptrdiff_t>(y1) * stride;
  out[0] = static_cast<unsigned char>(
      (r1[x1] * w.br + r1[x0] * w.bl + r0[x1] * w.tr + r0[x0] * w.tl) >> 8);
  return S_OK;
}

Kernel<ThreadTask> PickBilinearResize(const SystemInfo& info, int32_t pix_fmt) {
  switch (pix_fmt) {
    case PIXEL_BGRA32:
      return KORVANE_PICK_AVX2(info, BilinearResize_8uc4, BilinearResize_8uc4_SSE4, BilinearResize_8uc4_AVX2);
    case PIXEL_GRAY8:
      return KORVANE_PICK_AVX2(info, BilinearResize_8uc1, BilinearResize_8uc1_SSE4, BilinearResize_8uc1_AVX2);
    case PIXEL_FLOAT96: return Kernel<ThreadTask>{BilinearResize_32fc3, "BilinearResize_32fc3", false};
    default: return Kernel<ThreadTask>{};
  }
}

int32_t RunBilinearResize(CThreadAdapter& adapter, const SystemInfo& info, ResizeParam& param,
                          Rect dst_roi) {
  if (param.src.pix_fmt != param.dst.pix_fmt) return E_NOTIMPL;
  const Kernel<ThreadTask> resize = PickBilinearResize(info, param.src.pix_fmt);
  if (!resize.fn) return E_NOTIMPL;
  const int32_t hr = adapter.RunTaskByMultiThread(resize.fn, static_cast<void*>(&param), nullptr, dst_roi);
  if (hr < 0) {
    DebugLog("[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, (void*)&param, nullptr, dst_roi) "
             "Error! - Return Code: %x",
             resize.name, static_cast<unsigned>(hr));
  }
  return hr;
}

}  // namespace Korvane
