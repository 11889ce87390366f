#include "core/BoxBlur.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "core/BoxBlurDetail.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "core/Simd.h"

namespace Korvane {
namespace boxblur_detail {

Recip8 MakeRecip8(uint32_t n) {
  uint32_t ceil_log2 = 0;
  while ((uint64_t{1} << ceil_log2) < n) ++ceil_log2;
  Recip8 r;
  r.half = n / 2;
  r.shift = 9 + 2 * ceil_log2;
  r.mul = static_cast<uint32_t>((uint64_t{1} << r.shift) / n + 1);
  return r;
}

bool MakeDiv16Params(uint32_t n, Div16Params* d) {
  // The same error bound as the 32-bit divider: the product's error stays
  // below one step for every sum up to 255 n.
  const uint64_t top = 255ull * n + n / 2;
  if (n < 2 || top > 65535) return false;
  for (uint32_t k = 16; k < 32; ++k) {
    const uint64_t m = (uint64_t{1} << k) / n + 1;
    if (m > 65535) return false;
    const uint64_t e = m * n - (uint64_t{1} << k);
    if (top * e < (uint64_t{1} << k)) {
      d->half = n / 2;
      d->mul = static_cast<uint32_t>(m);
      d->shift = k - 16;
      d->scalar = MakeRecip8(n);
      return true;
    }
  }
  return false;
}

std::vector<Div16Params> MakeDividerParams(int32_t len, int32_t r) {
  const int64_t n_min = r < len ? r : len;
  const int64_t n_max = 2 * static_cast<int64_t>(r) - 1 < len ? 2 * static_cast<int64_t>(r) - 1 : len;
  std::vector<Div16Params> table;
  if (n_max > 257) return table;
  table.resize(static_cast<size_t>(n_max) + 1, Div16Params{0, 0, 0, Recip8{0, 0, 0}});
  for (int64_t n = n_min; n <= n_max; ++n) {
    if (!MakeDiv16Params(static_cast<uint32_t>(n), &table[n])) {
      table.clear();
      break;
    }
  }
  return table;
}

Scratch::~Scratch() { std::free(m_data); }

bool Scratch::Reserve(size_t bytes) {
  std::free(m_data);
  m_data = nullptr;
  const size_t rounded = (bytes + 63) / 64 * 64;
  m_data = static_cast<unsigned char*>(std::aligned_alloc(32, rounded == 0 ? 64 : rounded));
  if (m_data) std::memset(m_data, 0, rounded == 0 ? 64 : rounded);
  return m_data != nullptr;
}

int32_t PrepareBlur(const ThreadJob* job, bool rows, BlurJob* out) {
  const BoxBlurParam& p = *static_cast<const BoxBlurParam*>(job->param);
  const ImageBuffer& img = p.src;
  int32_t bpp = 0;
  switch (img.pix_fmt) {
    case PIXEL_BGRA32:
      out->variant = p.mask ? Variant::kBgraMasked : Variant::kBgra;
      bpp = 4;
      break;
    case PIXEL_GRAY8: out->variant = Variant::kGray; bpp = 1; break;
    case PIXEL_FLOAT32: out->variant = Variant::kFloat32; bpp = 4; break;
    case PIXEL_FLOAT96: out->variant = Variant::kFloat96; bpp = 12; break;
    case PIXEL_INT32: out->variant = Variant::kInt32; bpp = 4; break;
    default: return E_NOTIMPL;
  }
  if (p.mask && out->variant != Variant::kBgraMasked) return E_NOTIMPL;
  if (!img.data) return E_POINTER;
  if (p.radius < 0) return E_INVALIDARG;
  if (img.width < 0 || img.height < 0 || img.stride < static_cast<int64_t>(img.width) * bpp) {
    return E_INVALIDARG;
  }
  // Float and integer samples are read in place, so rows must keep them aligned.
  if (bpp > 1 && img.stride % 4 != 0) return E_INVALIDARG;
  const int32_t len = rows ? img.width : img.height;
  const int64_t window = 2 * static_cast<int64_t>(p.radius) - 1;
  if (window > kMaxWindow && len > kMaxWindow) return E_INVALIDARG;

  out->data = img.data;
  out->width = img.width;
  out->height = img.height;
  out->stride = img.stride;
  out->radius = p.radius;
  out->mask = p.mask;
  const int32_t lines = rows ? img.height : img.width;
  const int32_t from = rows ? job->rect.top : job->rect.left;
  const int32_t to = rows ? job->rect.bottom : job->rect.right;
  out->begin = from < 0 ? 0 : from;
  out->end = to > lines ? lines : to;
  // A window of one sample (radius 0 or 1) leaves every pixel as it is.
  if (out->end < out->begin || p.radius <= 1 || len == 0) out->end = out->begin;
  return S_OK;
}

namespace {

// Sample layouts: S the stored sample, A the running sum, kChannels summed
// channels out of kStride samples a pixel.
template <class S, class A, int kChannels, int kStride>
struct Layout {
  using Sample = S;
  using Acc = A;
  static constexpr int kCh = kChannels;
  static constexpr int kPs = kStride;
};
using LayoutBgra = Layout<uint8_t, uint32_t, 3, 4>;  // alpha is never read or written
using LayoutGray = Layout<uint8_t, uint32_t, 1, 1>;
using LayoutF32 = Layout<float, double, 1, 1>;
using LayoutF96 = Layout<float, double, 3, 3>;
using LayoutI32 = Layout<int32_t, int64_t, 1, 1>;

// Output rules, called with the window sum, its sample count, the pixel's
// original value and its place (position along the line, index across).
struct OutByte {
  const Recip8* recip;
  uint8_t operator()(uint32_t sum, int32_t n, uint8_t, int32_t, int32_t) const {
    return static_cast<uint8_t>(Divide8(sum, recip[n]));
  }
};
struct OutMaskedByte {
  const Recip8* recip;
  const unsigned char* mask;  // mask value of position p, index j: mask[p * along + j * across]
  ptrdiff_t along, across;
  uint8_t operator()(uint32_t sum, int32_t n, uint8_t orig, int32_t p, int32_t j) const {
    const uint32_t m = mask[p * along + j * across];
    return static_cast<uint8_t>(MixByMask(orig, Divide8(sum, recip[n]), m));
  }
};
struct OutFloat {
  const double* inv;  // 1.0 / n
  float operator()(double sum, int32_t n, float, int32_t, int32_t) const {
    return static_cast<float>(sum * inv[n]);
  }
};
struct OutInt {
  const double* inv;
  // floor(sum / n + 1/2) exactly: a double estimate, corrected in integers.
  int32_t operator()(int64_t sum, int32_t n, int32_t, int32_t, int32_t) const {
    const int64_t num = 2 * sum + n, den = 2 * static_cast<int64_t>(n);
    int64_t q = static_cast<int64_t>(std::floor(static_cast<double>(sum) * inv[n] + 0.5));
    while (q * den > num) --q;
    while ((q + 1) * den <= num) ++q;
    return static_cast<int32_t>(q);
  }
};

// WalkWindow's operations over one line of a plain pass. An element is one
// pixel (horizontal pass) or a run of `count` pixels of one row (vertical
// pass); `step` is the byte distance between consecutive positions.
template <class L, class Out>
struct LineOps : StepByStep<LineOps<L, Out>> {
  using S = typename L::Sample;
  using A = typename L::Acc;
  unsigned char* first;
  ptrdiff_t step;
  int32_t count;
  int32_t r;
  A* sums;
  S* ring;
  Out out;

  S* At(int32_t p) const { return reinterpret_cast<S*>(first + p * step); }

  void Prime(int32_t p) {
    const S* e = At(p);
    for (int32_t j = 0; j < count; ++j)
      for (int c = 0; c < L::kCh; ++c) sums[j * L::kCh + c] += static_cast<A>(e[j * L::kPs + c]);
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t slot, int32_t n) {
    S* e = At(p);
    const S* in = kAdd ? At(p + r - 1) : nullptr;
    S* saved = ring + static_cast<ptrdiff_t>(slot) * count * L::kCh;
    for (int32_t j = 0; j < count; ++j) {
      for (int c = 0; c < L::kCh; ++c) {
        const int32_t i = j * L::kCh + c;
        A s = sums[i];
        // The entering and leaving samples are combined first: one
        // dependent addition per step, and the order the SSE forms copy.
        if constexpr (kAdd && kSub) {
          s += static_cast<A>(in[j * L::kPs + c]) - static_cast<A>(saved[i]);
        } else if constexpr (kSub) {
          s -= static_cast<A>(saved[i]);
        } else if constexpr (kAdd) {
          s += static_cast<A>(in[j * L::kPs + c]);
        }
        sums[i] = s;
        const S orig = e[j * L::kPs + c];
        saved[i] = orig;
        e[j * L::kPs + c] = out(s, n, orig, p, j);
      }
    }
  }
};

template <class L, class Out>
int32_t BlurLines(const BlurJob& job, bool rows, const Out& out) {
  using S = typename L::Sample;
  using A = typename L::Acc;
  const int32_t len = rows ? job.width : job.height;
  const int32_t r = job.radius;
  const int32_t ring_len = r < len ? r : len;
  const int32_t lines = job.end - job.begin;
  const int32_t chunk = rows ? 1 : ColumnChunk(lines, ring_len, L::kCh * static_cast<int32_t>(sizeof(S)));
  std::vector<A> sums;
  std::vector<S> ring;
  try {
    sums.resize(static_cast<size_t>(chunk) * L::kCh);
    ring.resize(static_cast<size_t>(ring_len) * chunk * L::kCh);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  LineOps<L, Out> ops{{}, nullptr, 0, 1, r, sums.data(), ring.data(), out};
  constexpr ptrdiff_t kPixelBytes = L::kPs * sizeof(S);
  for (int32_t k = job.begin; k < job.end; k += chunk) {
    const int32_t count = (job.end - k) < chunk ? (job.end - k) : chunk;
    if (rows) {
      ops.first = job.data + k * job.stride;
      ops.step = kPixelBytes;
    } else {
      ops.first = job.data + k * kPixelBytes;
      ops.step = job.stride;
    }
    ops.count = count;
    ops.out = out;
    std::fill(sums.begin(), sums.end(), A{0});
    if constexpr (std::is_same<Out, OutMaskedByte>::value) {
      // Mask rows are packed, one byte a pixel.
      if (rows) {
        ops.out.mask = out.mask + static_cast<ptrdiff_t>(k) * job.width;
      } else {
        ops.out.mask = out.mask + k;
      }
    }
    WalkWindow(ops, len, r);
  }
  return S_OK;
}

}  // namespace

int32_t BlurPlain(const BlurJob& job, bool rows) {
  if (job.begin >= job.end) return S_OK;
  const int32_t len = rows ? job.width : job.height;
  const int32_t r = job.radius;
  const int32_t n_max = static_cast<int32_t>(2 * static_cast<int64_t>(r) - 1 < len ? 2 * r - 1 : len);
  try {
    switch (job.variant) {
      case Variant::kBgra:
      case Variant::kGray:
      case Variant::kBgraMasked: {
        std::vector<Recip8> recip(static_cast<size_t>(n_max) + 1);
        for (int32_t n = 1; n <= n_max; ++n) recip[n] = MakeRecip8(static_cast<uint32_t>(n));
        if (job.variant == Variant::kGray) return BlurLines<LayoutGray>(job, rows, OutByte{recip.data()});
        if (job.variant == Variant::kBgra) return BlurLines<LayoutBgra>(job, rows, OutByte{recip.data()});
        const OutMaskedByte out{recip.data(), job.mask, rows ? 1 : job.width, rows ? 0 : 1};
        return BlurLines<LayoutBgra>(job, rows, out);
      }
      case Variant::kFloat32:
      case Variant::kFloat96:
      case Variant::kInt32: {
        std::vector<double> inv(static_cast<size_t>(n_max) + 1, 0.0);
        for (int32_t n = 1; n <= n_max; ++n) inv[n] = 1.0 / n;
        if (job.variant == Variant::kFloat32) return BlurLines<LayoutF32>(job, rows, OutFloat{inv.data()});
        if (job.variant == Variant::kFloat96) return BlurLines<LayoutF96>(job, rows, OutFloat{inv.data()});
        return BlurLines<LayoutI32>(job, rows, OutInt{inv.data()});
      }
    }
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  return E_NOTIMPL;
}

}  // namespace boxblur_detail

namespace {

int32_t RunPlainPass(ThreadJob* job, int32_t* result, bool rows) {
  boxblur_detail::BlurJob b;
  int32_t hr = boxblur_detail::PrepareBlur(job, rows, &b);
  if (hr >= 0) hr = boxblur_detail::BlurPlain(b, rows);
  return Done(result, hr);
}

}  // namespace

namespace boxblur_detail {

void StripStep8(uint16_t* sums, const unsigned char* in, bool sub, unsigned char* saved, unsigned char* row,
                const unsigned char* mask_row, const Recip8& recip, bool bgra, int32_t from, int32_t end) {
  for (int32_t j = from; j < end; ++j) {
    uint32_t s = sums[j];
    if (sub) s -= saved[j];
    if (in) s += in[j];
    sums[j] = static_cast<uint16_t>(s);
    const unsigned char o = row[j];
    saved[j] = o;
    if (bgra && (j & 3) == 3) continue;  // alpha stays
    uint32_t q = Divide8(s, recip);
    if (mask_row) q = MixByMask(o, q, mask_row[j / 4]);
    row[j] = static_cast<unsigned char>(q);
  }
}

void SweepStep8(uint16_t* sums, const unsigned char* in, const unsigned char* leaving, const Recip8& recip,
                bool alpha, int32_t from, int32_t end, unsigned char* out) {
  for (int32_t j = from; j < end; ++j) {
    uint32_t s = sums[j];
    if (in) s += in[j];
    if (leaving) s -= leaving[j];
    sums[j] = static_cast<uint16_t>(s);
    if (!alpha || (j & 3) != 3) out[j] = static_cast<unsigned char>(Divide8(s, recip));
  }
}

void StripStepFloat(double* sums, const float* in, bool sub, float* saved, float* row, double inv_n, int32_t from,
                    int32_t end) {
  for (int32_t j = from; j < end; ++j) {
    double s = sums[j];
    if (in && sub) {
      s += static_cast<double>(in[j]) - static_cast<double>(saved[j]);
    } else if (sub) {
      s -= static_cast<double>(saved[j]);
    } else if (in) {
      s += static_cast<double>(in[j]);
    }
    sums[j] = s;
    saved[j] = row[j];
    row[j] = static_cast<float>(s * inv_n);
  }
}

int32_t RunSimdPasses(ThreadJob* job, int32_t* result, bool rows, int32_t passes, const SimdPasses& form) {
  BlurJob b;
  int32_t hr = PrepareBlur(job, rows, &b);
  if (hr >= 0 && b.begin < b.end) {
    try {
      const bool is_float = b.variant == Variant::kFloat32 || b.variant == Variant::kFloat96;
      if (rows && is_float) {
        hr = form.rows_float(b, passes);
      } else {
        for (int32_t pass = 0; pass < passes && hr >= 0; ++pass) {
          if (b.variant == Variant::kInt32) {
            hr = BlurPlain(b, rows);
          } else if (is_float) {
            hr = form.columns_float(b);
          } else {
            hr = rows ? form.rows8(b) : form.columns8(b);
          }
        }
      }
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  return Done(result, hr);
}

int32_t RunSimdRepeat(ThreadJob* job, int32_t* result, const SimdPasses& form) {
  const auto* repeat = static_cast<const BoxBlurRepeatParam*>(job->param);
  if (!repeat || !repeat->param) return Done(result, E_POINTER);
  ThreadJob inner = *job;
  inner.param = repeat->param;
  return RunSimdPasses(&inner, result, true, repeat->passes, form);
}

}  // namespace boxblur_detail

int32_t BoxBlurH(ThreadJob* job, int32_t* result) { return RunPlainPass(job, result, true); }

int32_t BoxBlurV(ThreadJob* job, int32_t* result) { return RunPlainPass(job, result, false); }

int32_t BoxBlurHRepeat(ThreadJob* job, int32_t* result) {
  const auto* repeat = static_cast<const BoxBlurRepeatParam*>(job->param);
  int32_t hr = repeat && repeat->param ? S_OK : E_POINTER;
  if (hr >= 0) {
    ThreadJob inner = *job;
    inner.param = repeat->param;
    for (int32_t pass = 0; pass < repeat->passes && hr >= 0; ++pass) hr = BoxBlurH(&inner, result);
  }
  return Done(result, hr);
}

namespace {

// The plain library has no one-sweep form of two passes: it declines, and
// the passes run one after the other.
int32_t DeclineFusedBlur(CThreadAdapter&, BoxBlurParam&, Rect) { return E_NOTIMPL; }

}  // namespace

int32_t RunBoxBlur(CThreadAdapter& adapter, const SystemInfo& info, BoxBlurParam& param, Rect roi,
                   int passes) {
  if (passes < 0) return E_INVALIDARG;
  void* const boxblur_param = static_cast<void*>(&param);
  // A single pass each way can run as one sweep that reads and writes the
  // image once; it declines (E_NOTIMPL) whatever it does not cover.
  if (passes == 1) {
    const auto fused =
        KORVANE_PICK_AVX2(info, DeclineFusedBlur, boxblur_detail::FusedBlur8, boxblur_detail::FusedBlur8_AVX2);
    const int32_t hr = fused.fn(adapter, param, roi);
    if (hr != E_NOTIMPL) {
      if (hr < 0) {
        DebugLog("[Korvane] %s(adapter, param, roi) Error! - Return Code: %x", fused.name,
                 static_cast<unsigned>(hr));
      }
      return hr;
    }
  }
  // Several horizontal passes run as one task per band.
  BoxBlurRepeatParam repeated{&param, passes};
  const bool repeat = passes > 1;
  const auto h = repeat ? KORVANE_PICK_AVX2(info, BoxBlurHRepeat, BoxBlurHRepeat_SSE, BoxBlurHRepeat_AVX2)
                        : KORVANE_PICK_AVX2(info, BoxBlurH, BoxBlurH_SSE, BoxBlurH_AVX2);
  const auto v = KORVANE_PICK_AVX2(info, BoxBlurV, BoxBlurV_SSE, BoxBlurV_AVX2);
  const int h_runs = repeat ? 1 : passes;
  void* const h_param = repeat ? static_cast<void*>(&repeated) : boxblur_param;
  for (int i = 0; i < h_runs; ++i) {
    const int32_t hr = adapter.RunTaskByMultiThread(h.fn, h_param, nullptr, roi);
    if (hr < 0) {
      DebugLog("[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, "
               "roi) Error! - Return Code: %x",
               h.name, static_cast<unsigned>(hr));
      return hr;
    }
  }
  for (int i = 0; i < passes; ++i) {
    const int32_t hr = adapter.RunTaskByMultiThread(v.fn, boxblur_param, nullptr, roi, false);
    if (hr < 0) {
      DebugLog("[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, "
               "roi, false) Error! - Return Code: %x",
               v.name, static_cast<unsigned>(hr));
      return hr;
    }
  }
  return S_OK;
}

}  // namespace Korvane
