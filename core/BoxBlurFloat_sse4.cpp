// SSE4.1 box blur of FLOAT32 and FLOAT96 images, bit-identical to the plain
// code: double sums, the entering sample minus the leaving one added. The
// vertical pass runs down strips of columns; the horizontal pass transposes
// four rows so that one vector holds the same sample of each, and keeps
// repeated passes transposed.
#include "core/BoxBlurSse.h"

namespace Korvane {
namespace boxblur_sse {

namespace {

// Vertical pass over a strip of `count` floats per row.
struct StripFloatOps : boxblur_detail::StepByStep<StripFloatOps> {
  unsigned char* first;
  ptrdiff_t stride;
  int32_t count;
  int32_t vec_count;
  int32_t r;
  int32_t len;  // rows
  double* sums;
  float* ring;
  const double* inv;

  const float* Row(int32_t p) const { return reinterpret_cast<const float*>(first + p * stride); }

  void Prime(int32_t i) {
    const float* row = Row(i);
    int32_t j = 0;
    for (; j < vec_count; j += 4) {
      const __m128 v = _mm_loadu_ps(row + j);
      _mm_storeu_pd(sums + j, _mm_add_pd(_mm_loadu_pd(sums + j), _mm_cvtps_pd(v)));
      _mm_storeu_pd(sums + j + 2, _mm_add_pd(_mm_loadu_pd(sums + j + 2), _mm_cvtps_pd(_mm_movehl_ps(v, v))));
    }
    for (; j < count; ++j) sums[j] += static_cast<double>(row[j]);
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t slot, int32_t n) {
    float* row = reinterpret_cast<float*>(first + p * stride);
    const float* in = kAdd ? Row(p + r - 1) : nullptr;
    float* saved = ring + static_cast<ptrdiff_t>(slot) * count;
    const double k = inv[n];
    const __m128d kv = _mm_set1_pd(k);
    const char* ahead = kAdd && p + r < len ? reinterpret_cast<const char*>(in) + stride : nullptr;
    int32_t j = 0;
    for (; j < vec_count; j += 4) {
      if (ahead && (j & 15) == 0) _mm_prefetch(ahead + 4 * j, _MM_HINT_T1);
      __m128d s0 = _mm_loadu_pd(sums + j), s1 = _mm_loadu_pd(sums + j + 2);
      Update<kAdd, kSub>(s0, s1, kAdd ? _mm_loadu_ps(in + j) : _mm_setzero_ps(),
                         kSub ? _mm_loadu_ps(saved + j) : _mm_setzero_ps());
      _mm_storeu_pd(sums + j, s0);
      _mm_storeu_pd(sums + j + 2, s1);
      _mm_storeu_ps(saved + j, _mm_loadu_ps(row + j));
      const __m128 o0 = _mm_cvtpd_ps(_mm_mul_pd(s0, kv)), o1 = _mm_cvtpd_ps(_mm_mul_pd(s1, kv));
      _mm_storeu_ps(row + j, _mm_movelh_ps(o0, o1));
    }
    boxblur_detail::StripStepFloat(sums, in, kSub, saved, row, k, j, count);
  }
};

}  // namespace

int32_t VerticalFloat(const BlurJob& job) {
  const int32_t h = job.height;
  const int32_t r = job.radius;
  const int32_t ch = job.variant == Variant::kFloat96 ? 3 : 1;
  const int32_t ring_rows = r < h ? r : h;
  const int32_t chunk = boxblur_detail::ColumnChunk(job.end - job.begin, ring_rows, 4 * ch);
  std::vector<double> sums, inv;
  std::vector<float> ring;
  try {
    inv = Reciprocals(h, r);
    sums.resize(static_cast<size_t>(chunk) * ch);
    ring.resize(static_cast<size_t>(chunk) * ch * ring_rows);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (int32_t c = job.begin; c < job.end; c += chunk) {
    const int32_t cw = (job.end - c) < chunk ? (job.end - c) : chunk;
    StripFloatOps ops{{}, job.data + static_cast<ptrdiff_t>(c) * 4 * ch, job.stride, cw * ch, cw * ch / 4 * 4,
                      r, h, sums.data(), ring.data(), inv.data()};
    std::fill(sums.begin(), sums.end(), 0.0);
    WalkWindow(ops, h, r);
  }
  return S_OK;
}

namespace {

// Horizontal float passes: four rows gathered per sample, so t[p * kCh + c]
// holds channel c of pixel p in each of the four rows. Each channel keeps
// its own sums (two double pairs, one per two rows) in registers.
template <int kCh>
struct GatheredFloatOps {
  const __m128i* t;
  __m128i* out;
  const double* inv;
  __m128d s0[kCh], s1[kCh];

  void Prime(int32_t i) {
    for (int c = 0; c < kCh; ++c) {
      const __m128 v = _mm_castsi128_ps(t[i * kCh + c]);
      s0[c] = _mm_add_pd(s0[c], _mm_cvtps_pd(v));
      s1[c] = _mm_add_pd(s1[c], _mm_cvtps_pd(_mm_movehl_ps(v, v)));
    }
  }

  template <bool kAdd, bool kSub>
  void Phase(int32_t from, int32_t to, int32_t n, int32_t dn, int32_t, int32_t r) {
    __m128d a0 = s0[0], b0 = s1[0];
    __m128d a1 = s0[kCh - 1], b1 = s1[kCh - 1];
    __m128d a2 = s0[kCh - 1], b2 = s1[kCh - 1];
    if (kCh == 3) {
      a1 = s0[1];
      b1 = s1[1];
    }
    auto one = [&](__m128d& a, __m128d& b, int32_t p, int c, const __m128d& k) {
      Update<kAdd, kSub>(a, b, kAdd ? _mm_castsi128_ps(t[(p + r - 1) * kCh + c]) : _mm_setzero_ps(),
                         kSub ? _mm_castsi128_ps(t[(p - r) * kCh + c]) : _mm_setzero_ps());
      const __m128 o = _mm_movelh_ps(_mm_cvtpd_ps(_mm_mul_pd(a, k)), _mm_cvtpd_ps(_mm_mul_pd(b, k)));
      out[p * kCh + c] = _mm_castps_si128(o);
    };
    for (int32_t p = from; p < to; ++p, n += dn) {
      const __m128d k = _mm_set1_pd(inv[n]);
      one(a0, b0, p, 0, k);
      if (kCh == 3) {
        one(a1, b1, p, 1, k);
        one(a2, b2, p, 2, k);
      }
    }
    s0[0] = a0;
    s1[0] = b0;
    if (kCh == 3) {
      s0[1] = a1;
      s1[1] = b1;
      s0[kCh - 1] = a2;
      s1[kCh - 1] = b2;
    }
  }
};

}  // namespace

int32_t HorizontalFloat(const BlurJob& job, int32_t passes) {
  const int32_t w = job.width;
  const int32_t r = job.radius;
  const int32_t ch = job.variant == Variant::kFloat96 ? 3 : 1;
  const int32_t samples = w * ch;
  std::vector<double> inv;
  std::vector<Block> t, out;
  try {
    inv = Reciprocals(w, r);
    t.resize(static_cast<size_t>(samples));
    out.resize(static_cast<size_t>(samples));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  int32_t y = job.begin;
  for (; y + 4 <= job.end; y += 4) {
    unsigned char* lines[4];
    for (int k = 0; k < 4; ++k) lines[k] = job.data + (y + k) * job.stride;
    GatherLines(lines, samples, Vecs(t));
    // Repeated passes stay transposed, going back and forth between t and out.
    __m128i* from = Vecs(t);
    __m128i* to = Vecs(out);
    for (int32_t pass = 0; pass < passes; ++pass) {
      const __m128d z = _mm_setzero_pd();
      if (ch == 3) {
        GatheredFloatOps<3> ops{from, to, inv.data(), {z, z, z}, {z, z, z}};
        WalkWindow(ops, w, r);
      } else {
        GatheredFloatOps<1> ops{from, to, inv.data(), {z}, {z}};
        WalkWindow(ops, w, r);
      }
      std::swap(from, to);
    }
    ScatterLines(from, samples, lines);
  }
  if (y < job.end) {
    BlurJob rest = job;
    rest.begin = y;
    for (int32_t pass = 0; pass < passes; ++pass) {
      const int32_t hr = BlurPlain(rest, true);
      if (hr < 0) return hr;
    }
  }
  return S_OK;
}

}  // namespace boxblur_sse
}  // namespace Korvane
