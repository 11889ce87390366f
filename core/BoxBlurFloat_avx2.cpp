// AVX2 box blur of FLOAT32 and FLOAT96 images, bit-identical to the plain
// code: double sums, the entering sample minus the leaving one added,
// output float(sum * (1 / n)). The vertical pass keeps four double sums a
// register; the horizontal pass gathers eight rows so that one register
// holds the same sample of each, and keeps repeated passes gathered. Rows
// left over (fewer than eight) go to the SSE4.1 pass.
#include <cstring>

#include "core/BoxBlurAvx2.h"
#include "core/ResultCode.h"
#include "core/Transpose4x4.h"

namespace Korvane {
namespace boxblur_avx2 {

namespace {

// One window step on four float samples held as four doubles.
template <bool kAdd, bool kSub>
inline __m256d Update(__m256d s, __m128 in, __m128 out) {
  if constexpr (kAdd && kSub) {
    return _mm256_add_pd(s, _mm256_sub_pd(_mm256_cvtps_pd(in), _mm256_cvtps_pd(out)));
  } else if constexpr (kSub) {
    return _mm256_sub_pd(s, _mm256_cvtps_pd(out));
  } else if constexpr (kAdd) {
    return _mm256_add_pd(s, _mm256_cvtps_pd(in));
  }
  return s;
}

// 1 / n for every sample count of a pass over lines of `len` positions.
bool Reciprocals(int32_t len, int32_t r, boxblur_detail::Scratch* inv) {
  const int64_t n_max = 2 * static_cast<int64_t>(r) - 1 < len ? 2 * static_cast<int64_t>(r) - 1 : len;
  if (!inv->Reserve(static_cast<size_t>(n_max + 1) * sizeof(double))) return false;
  double* v = inv->As<double>();
  for (int64_t n = 1; n <= n_max; ++n) v[n] = 1.0 / static_cast<double>(n);
  return true;
}

// Vertical pass over a strip of `count` floats per row.
struct StripFloatOps : boxblur_detail::StepByStep<StripFloatOps> {
  unsigned char* first;
  ptrdiff_t stride;
  int32_t count;
  int32_t r;
  int32_t len;  // rows
  double* sums;
  float* ring;
  const double* inv;

  float* Row(int32_t p) const { return reinterpret_cast<float*>(first + p * stride); }

  void Prime(int32_t i) {
    const float* row = Row(i);
    int32_t j = 0;
    for (; j + 4 <= count; j += 4) {
      _mm256_storeu_pd(sums + j, _mm256_add_pd(_mm256_loadu_pd(sums + j), _mm256_cvtps_pd(_mm_loadu_ps(row + j))));
    }
    for (; j < count; ++j) sums[j] += static_cast<double>(row[j]);
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t slot, int32_t n) {
    float* row = Row(p);
    const float* in = kAdd ? Row(p + r - 1) : nullptr;
    float* saved = ring + static_cast<ptrdiff_t>(slot) * count;
    const double k = inv[n];
    const __m256d kv = _mm256_set1_pd(k);
    const char* ahead = kAdd && p + r < len ? reinterpret_cast<const char*>(in) + stride : nullptr;
    int32_t j = 0;
    for (; j + 4 <= count; j += 4) {
      if (ahead && (j & 15) == 0) _mm_prefetch(ahead + 4 * j, _MM_HINT_T1);
      const __m256d s = Update<kAdd, kSub>(_mm256_loadu_pd(sums + j), kAdd ? _mm_loadu_ps(in + j) : _mm_setzero_ps(),
                                           kSub ? _mm_loadu_ps(saved + j) : _mm_setzero_ps());
      _mm256_storeu_pd(sums + j, s);
      _mm_storeu_ps(saved + j, _mm_loadu_ps(row + j));
      _mm_storeu_ps(row + j, _mm256_cvtpd_ps(_mm256_mul_pd(s, kv)));
    }
    boxblur_detail::StripStepFloat(sums, in, kSub, saved, row, k, j, count);
  }
};

}  // namespace

int32_t VerticalFloat(const boxblur_detail::BlurJob& job) {
  const int32_t h = job.height;
  const int32_t r = job.radius;
  const int32_t ch = job.variant == boxblur_detail::Variant::kFloat96 ? 3 : 1;
  const int32_t ring_rows = r < h ? r : h;
  const int32_t chunk = boxblur_detail::ColumnChunk(job.end - job.begin, ring_rows, 4 * ch);
  const size_t floats = static_cast<size_t>(chunk) * ch;
  boxblur_detail::Scratch sums, ring, inv;
  if (!Reciprocals(h, r, &inv) || !sums.Reserve(floats * sizeof(double)) ||
      !ring.Reserve(floats * ring_rows * sizeof(float))) {
    return E_OUTOFMEMORY;
  }
  for (int32_t c = job.begin; c < job.end; c += chunk) {
    const int32_t cw = (job.end - c) < chunk ? (job.end - c) : chunk;
    StripFloatOps ops{{},
                      job.data + static_cast<ptrdiff_t>(c) * 4 * ch,
                      job.stride,
                      cw * ch,
                      r,
                      h,
                      sums.As<double>(),
                      ring.As<float>(),
                      inv.As<double>()};
    std::memset(ops.sums, 0, floats * sizeof(double));
    boxblur_detail::WalkWindow(ops, h, r);
  }
  return S_OK;
}

namespace {


// Gathers eight lines of `len` 4-byte elements into t: t[p] holds element
// p of lines 0..3 in its low lane and of lines 4..7 in its high lane.
void GatherLines(unsigned char* const* lines, int32_t len, __m256* t) {
  int32_t p = 0;
  for (; p + 4 <= len; p += 4) {
    __m128i lo[4], hi[4];
    for (int k = 0; k < 4; ++k) {
      lo[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lines[k] + 4 * p));
      hi[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lines[k + 4] + 4 * p));
    }
    Transpose4x4(lo);
    Transpose4x4(hi);
    for (int k = 0; k < 4; ++k) t[p + k] = _mm256_castsi256_ps(_mm256_set_m128i(hi[k], lo[k]));
  }
  for (; p < len; ++p) {
    alignas(32) float b[8];
    for (int k = 0; k < 8; ++k) std::memcpy(b + k, lines[k] + 4 * p, 4);
    t[p] = _mm256_load_ps(b);
  }
}

// The reverse of GatherLines.
void ScatterLines(const __m256* t, int32_t len, unsigned char* const* lines) {
  int32_t p = 0;
  for (; p + 4 <= len; p += 4) {
    __m128i lo[4], hi[4];
    for (int k = 0; k < 4; ++k) {
      const __m256i v = _mm256_castps_si256(t[p + k]);
      lo[k] = _mm256_castsi256_si128(v);
      hi[k] = _mm256_extracti128_si256(v, 1);
    }
    Transpose4x4(lo);
    Transpose4x4(hi);
    for (int k = 0; k < 4; ++k) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(lines[k] + 4 * p), lo[k]);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(lines[k + 4] + 4 * p), hi[k]);
    }
  }
  for (; p < len; ++p) {
    alignas(32) float b[8];
    _mm256_store_ps(b, t[p]);
    for (int k = 0; k < 8; ++k) std::memcpy(lines[k] + 4 * p, b + k, 4);
  }
}

// Horizontal float passes over eight gathered rows: t[p * kCh + c] holds
// channel c of pixel p in each row. Each channel keeps its sums (two
// registers of four doubles, rows 0..3 and 4..7) in registers.
template <int kCh>
struct GatheredFloatOps {
  const __m256* t;
  __m256* out;
  const double* inv;
  __m256d lo[kCh], hi[kCh];

  void Prime(int32_t i) {
    for (int c = 0; c < kCh; ++c) {
      const __m256 v = t[i * kCh + c];
      lo[c] = _mm256_add_pd(lo[c], _mm256_cvtps_pd(_mm256_castps256_ps128(v)));
      hi[c] = _mm256_add_pd(hi[c], _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)));
    }
  }

  template <bool kAdd, bool kSub>
  void Phase(int32_t from, int32_t to, int32_t n, int32_t dn, int32_t, int32_t r) {
    __m256d a[kCh], b[kCh];
    for (int c = 0; c < kCh; ++c) {
      a[c] = lo[c];
      b[c] = hi[c];
    }
    const __m256 zero = _mm256_setzero_ps();
    for (int32_t p = from; p < to; ++p, n += dn) {
      const __m256d k = _mm256_set1_pd(inv[n]);
      for (int c = 0; c < kCh; ++c) {
        const __m256 in = kAdd ? t[(p + r - 1) * kCh + c] : zero;
        const __m256 leaving = kSub ? t[(p - r) * kCh + c] : zero;
        a[c] = Update<kAdd, kSub>(a[c], _mm256_castps256_ps128(in), _mm256_castps256_ps128(leaving));
        b[c] = Update<kAdd, kSub>(b[c], _mm256_extractf128_ps(in, 1), _mm256_extractf128_ps(leaving, 1));
        const __m128 o0 = _mm256_cvtpd_ps(_mm256_mul_pd(a[c], k));
        const __m128 o1 = _mm256_cvtpd_ps(_mm256_mul_pd(b[c], k));
        out[p * kCh + c] = _mm256_set_m128(o1, o0);
      }
    }
    for (int c = 0; c < kCh; ++c) {
      lo[c] = a[c];
      hi[c] = b[c];
    }
  }
};

template <int kCh>
void BlurGathered(const __m256* from, __m256* to, const double* inv, int32_t w, int32_t r) {
  GatheredFloatOps<kCh> ops;
  ops.t = from;
  ops.out = to;
  ops.inv = inv;
  for (int c = 0; c < kCh; ++c) ops.lo[c] = ops.hi[c] = _mm256_setzero_pd();
  boxblur_detail::WalkWindow(ops, w, r);
}

}  // namespace

int32_t HorizontalFloat(const boxblur_detail::BlurJob& job, int32_t passes) {
  const int32_t w = job.width;
  const int32_t r = job.radius;
  const int32_t ch = job.variant == boxblur_detail::Variant::kFloat96 ? 3 : 1;
  const int32_t samples = w * ch;
  boxblur_detail::Scratch inv, t, out;
  if (!Reciprocals(w, r, &inv) || !t.Reserve(static_cast<size_t>(samples) * sizeof(__m256)) ||
      !out.Reserve(static_cast<size_t>(samples) * sizeof(__m256))) {
    return E_OUTOFMEMORY;
  }
  int32_t y = job.begin;
  for (; y + 8 <= job.end; y += 8) {
    unsigned char* lines[8];
    for (int k = 0; k < 8; ++k) lines[k] = job.data + (y + k) * job.stride;
    GatherLines(lines, samples, t.As<__m256>());
    // Repeated passes stay gathered, going back and forth between t and out.
    __m256* from = t.As<__m256>();
    __m256* to = out.As<__m256>();
    for (int32_t pass = 0; pass < passes; ++pass) {
      if (ch == 3) {
        BlurGathered<3>(from, to, inv.As<double>(), w, r);
      } else {
        BlurGathered<1>(from, to, inv.As<double>(), w, r);
      }
      __m256* const done = to;
      to = from;
      from = done;
    }
    ScatterLines(from, samples, lines);
  }
  if (y >= job.end) return S_OK;
  boxblur_detail::BlurJob rest = job;
  rest.begin = y;
  return boxblur_sse::HorizontalFloat(rest, passes);
}

}  // namespace boxblur_avx2
}  // namespace Korvane
