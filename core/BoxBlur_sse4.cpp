// SSE forms of the box blurs, bit-identical to the plain forms.
//
// 8-bit variants keep their window sums in 16-bit lanes, which holds every
// sum while the window has at most 185 samples (the exact 16-bit reciprocal
// of the sample count exists up to there); longer windows, INT32 images and
// leftover lines use the plain code, which gives the same bytes.
//
// The vertical pass runs down a strip of columns with one sum per byte (or
// float) of a row segment, so each step is plain vector arithmetic across
// columns. The horizontal pass transposes a group of rows (16 gray rows, or
// 4 BGRA / FLOAT32 / FLOAT96 rows) so that one vector holds the same sample
// of every row of the group, runs the same column-wise arithmetic along the
// positions, and transposes the result back.
#include <smmintrin.h>

#include <cstring>
#include <new>
#include <vector>

#include "core/BoxBlur.h"
#include "core/BoxBlurDetail.h"
#include "core/ResultCode.h"

namespace Korvane {

namespace {

using boxblur_detail::BlurJob;
using boxblur_detail::BlurPlain;
using boxblur_detail::Divide8;
using boxblur_detail::MakeRecip8;
using boxblur_detail::PrepareBlur;
using boxblur_detail::Recip8;
using boxblur_detail::Variant;
using boxblur_detail::WalkWindow;

// Storage for vectors: std::vector<__m128i> would drop the type's attributes.
struct alignas(16) Block {
  unsigned char b[16];
};
inline __m128i* Vecs(std::vector<Block>& v) { return reinterpret_cast<__m128i*>(v.data()); }

// ---------------------------------------------------------------------------
// Exact 16-bit division: floor((s + n / 2) / n) == mulhi(s + half, mul) >> shift
// for every window sum s <= 255 n, chosen by the same error bound as the
// 32-bit divider; `false` when no such pair exists for n.
struct Div16 {
  __m128i half;
  __m128i mul;
  __m128i shift;
  Recip8 scalar;  // for the scalar tails
};

bool MakeDiv16(uint32_t n, Div16* d) {
  const uint64_t top = 255ull * n + n / 2;
  if (n < 2 || top > 65535) return false;
  for (uint32_t k = 16; k < 32; ++k) {
    const uint64_t m = (uint64_t{1} << k) / n + 1;
    if (m > 65535) return false;
    const uint64_t e = m * n - (uint64_t{1} << k);
    if (top * e < (uint64_t{1} << k)) {
      d->half = _mm_set1_epi16(static_cast<int16_t>(n / 2));
      d->mul = _mm_set1_epi16(static_cast<int16_t>(m));
      d->shift = _mm_cvtsi32_si128(static_cast<int>(k - 16));
      d->scalar = MakeRecip8(n);
      return true;
    }
  }
  return false;
}

inline __m128i Divide16(__m128i s, const Div16& d) {
  return _mm_srl_epi16(_mm_mulhi_epu16(_mm_add_epi16(s, d.half), d.mul), d.shift);
}

// Dividers for every sample count a pass over lines of `len` positions can
// meet, or an empty table when some count has no 16-bit divider.
std::vector<Div16> MakeDividers(int32_t len, int32_t r) {
  const int64_t n_min = r < len ? r : len;
  const int64_t n_max = 2 * static_cast<int64_t>(r) - 1 < len ? 2 * static_cast<int64_t>(r) - 1 : len;
  std::vector<Div16> table;
  if (n_max > 257) return table;
  table.resize(static_cast<size_t>(n_max) + 1);
  for (int64_t n = n_min; n <= n_max; ++n) {
    if (!MakeDiv16(static_cast<uint32_t>(n), &table[n])) {
      table.clear();
      break;
    }
  }
  return table;
}

// The masked mix on 16-bit lanes: (o * (255 - m) + b * m + 127) / 255, exact.
inline __m128i MixByMask16(__m128i o, __m128i b, __m128i m) {
  const __m128i c255 = _mm_set1_epi16(255);
  __m128i x = _mm_add_epi16(_mm_mullo_epi16(o, _mm_sub_epi16(c255, m)), _mm_mullo_epi16(b, m));
  x = _mm_add_epi16(x, _mm_set1_epi16(127));
  x = _mm_add_epi16(_mm_add_epi16(x, _mm_set1_epi16(1)), _mm_srli_epi16(x, 8));
  return _mm_srli_epi16(x, 8);
}

// Bytes of the alpha channel in a vector of four BGRA pixels.
inline __m128i AlphaBytes() { return _mm_set1_epi32(static_cast<int32_t>(0xFF000000u)); }

// ---------------------------------------------------------------------------
// Transposes.

// 16 x 16 bytes; its own inverse.
void Transpose16x16(__m128i v[16]) {
  __m128i a[16], b[16];
  for (int i = 0; i < 8; ++i) {
    a[2 * i] = _mm_unpacklo_epi8(v[2 * i], v[2 * i + 1]);
    a[2 * i + 1] = _mm_unpackhi_epi8(v[2 * i], v[2 * i + 1]);
  }
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 2; ++j) {
      b[4 * i + 2 * j] = _mm_unpacklo_epi16(a[4 * i + j], a[4 * i + j + 2]);
      b[4 * i + 2 * j + 1] = _mm_unpackhi_epi16(a[4 * i + j], a[4 * i + j + 2]);
    }
  }
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 4; ++j) {
      a[8 * i + 2 * j] = _mm_unpacklo_epi32(b[8 * i + j], b[8 * i + j + 4]);
      a[8 * i + 2 * j + 1] = _mm_unpackhi_epi32(b[8 * i + j], b[8 * i + j + 4]);
    }
  }
  for (int j = 0; j < 8; ++j) {
    v[2 * j] = _mm_unpacklo_epi64(a[j], a[j + 8]);
    v[2 * j + 1] = _mm_unpackhi_epi64(a[j], a[j + 8]);
  }
}

// 4 x 4 32-bit elements; its own inverse.
inline void Transpose4x4(__m128i v[4]) {
  const __m128i t0 = _mm_unpacklo_epi32(v[0], v[1]);
  const __m128i t1 = _mm_unpackhi_epi32(v[0], v[1]);
  const __m128i t2 = _mm_unpacklo_epi32(v[2], v[3]);
  const __m128i t3 = _mm_unpackhi_epi32(v[2], v[3]);
  v[0] = _mm_unpacklo_epi64(t0, t2);
  v[1] = _mm_unpackhi_epi64(t0, t2);
  v[2] = _mm_unpacklo_epi64(t1, t3);
  v[3] = _mm_unpackhi_epi64(t1, t3);
}

// Gathers `rows` lines of `len` elements (`elem` bytes each: 1 for 16 rows,
// 4 for 4 rows) into t: t[p] holds element p of every line.
void GatherLines(unsigned char* const* lines, int32_t len, int elem, __m128i* t) {
  int32_t p = 0;
  if (elem == 1) {
    for (; p + 16 <= len; p += 16) {
      __m128i v[16];
      for (int k = 0; k < 16; ++k) v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lines[k] + p));
      Transpose16x16(v);
      for (int k = 0; k < 16; ++k) t[p + k] = v[k];
    }
    for (; p < len; ++p) {
      alignas(16) unsigned char b[16];
      for (int k = 0; k < 16; ++k) b[k] = lines[k][p];
      t[p] = _mm_load_si128(reinterpret_cast<const __m128i*>(b));
    }
  } else {
    for (; p + 4 <= len; p += 4) {
      __m128i v[4];
      for (int k = 0; k < 4; ++k) v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lines[k] + 4 * p));
      Transpose4x4(v);
      for (int k = 0; k < 4; ++k) t[p + k] = v[k];
    }
    for (; p < len; ++p) {
      alignas(16) unsigned char b[16];
      for (int k = 0; k < 4; ++k) std::memcpy(b + 4 * k, lines[k] + 4 * p, 4);
      t[p] = _mm_load_si128(reinterpret_cast<const __m128i*>(b));
    }
  }
}

// The reverse of GatherLines.
void ScatterLines(const __m128i* t, int32_t len, int elem, unsigned char* const* lines) {
  int32_t p = 0;
  if (elem == 1) {
    for (; p + 16 <= len; p += 16) {
      __m128i v[16];
      for (int k = 0; k < 16; ++k) v[k] = t[p + k];
      Transpose16x16(v);
      for (int k = 0; k < 16; ++k) _mm_storeu_si128(reinterpret_cast<__m128i*>(lines[k] + p), v[k]);
    }
    for (; p < len; ++p) {
      alignas(16) unsigned char b[16];
      _mm_store_si128(reinterpret_cast<__m128i*>(b), t[p]);
      for (int k = 0; k < 16; ++k) lines[k][p] = b[k];
    }
  } else {
    for (; p + 4 <= len; p += 4) {
      __m128i v[4];
      for (int k = 0; k < 4; ++k) v[k] = t[p + k];
      Transpose4x4(v);
      for (int k = 0; k < 4; ++k) _mm_storeu_si128(reinterpret_cast<__m128i*>(lines[k] + 4 * p), v[k]);
    }
    for (; p < len; ++p) {
      alignas(16) unsigned char b[16];
      _mm_store_si128(reinterpret_cast<__m128i*>(b), t[p]);
      for (int k = 0; k < 4; ++k) std::memcpy(lines[k] + 4 * p, b + 4 * k, 4);
    }
  }
}

// ---------------------------------------------------------------------------
// Horizontal pass, 8-bit: WalkWindow over gathered positions. t holds the
// original vectors (it doubles as the ring), out receives the results. The
// sums live in registers for a whole phase.
template <bool kAlpha, bool kMask>
struct Gathered8Ops {
  const __m128i* t;
  __m128i* out;
  const Div16* div;
  const uint32_t* mask4;  // masked variant: the 4 rows' mask bytes of each position
  __m128i s0, s1;

  void Prime(int32_t i) {
    const __m128i z = _mm_setzero_si128();
    s0 = _mm_add_epi16(s0, _mm_unpacklo_epi8(t[i], z));
    s1 = _mm_add_epi16(s1, _mm_unpackhi_epi8(t[i], z));
  }

  template <bool kAdd, bool kSub>
  void Phase(int32_t from, int32_t to, int32_t n, int32_t dn, int32_t, int32_t r) {
    const __m128i z = _mm_setzero_si128();
    __m128i a = s0, b = s1;
    auto step = [&](int32_t p, const Div16& d) {
      if constexpr (kSub) {
        a = _mm_sub_epi16(a, _mm_unpacklo_epi8(t[p - r], z));
        b = _mm_sub_epi16(b, _mm_unpackhi_epi8(t[p - r], z));
      }
      if constexpr (kAdd) {
        a = _mm_add_epi16(a, _mm_unpacklo_epi8(t[p + r - 1], z));
        b = _mm_add_epi16(b, _mm_unpackhi_epi8(t[p + r - 1], z));
      }
      __m128i q0 = Divide16(a, d);
      __m128i q1 = Divide16(b, d);
      if constexpr (kMask) {
        // Each row's mask byte spread over its pixel's four 16-bit lanes.
        const __m128i m = _mm_cvtsi32_si128(static_cast<int>(mask4[p]));
        const __m128i m0 = _mm_shuffle_epi8(m, _mm_setr_epi8(0, -1, 0, -1, 0, -1, 0, -1, 1, -1, 1, -1, 1, -1, 1, -1));
        const __m128i m1 = _mm_shuffle_epi8(m, _mm_setr_epi8(2, -1, 2, -1, 2, -1, 2, -1, 3, -1, 3, -1, 3, -1, 3, -1));
        q0 = MixByMask16(_mm_unpacklo_epi8(t[p], z), q0, m0);
        q1 = MixByMask16(_mm_unpackhi_epi8(t[p], z), q1, m1);
      }
      __m128i v = _mm_packus_epi16(q0, q1);
      if constexpr (kAlpha) v = _mm_blendv_epi8(v, t[p], AlphaBytes());
      out[p] = v;
    };
    if (dn == 0) {
      const Div16 d = div[n];
      for (int32_t p = from; p < to; ++p) step(p, d);
    } else {
      for (int32_t p = from; p < to; ++p, n += dn) step(p, div[n]);
    }
    s0 = a;
    s1 = b;
  }
};

template <bool kAlpha, bool kMask>
void Horizontal8Groups(const BlurJob& job, const Div16* div, __m128i* t, __m128i* out,
                       uint32_t* mask4, int32_t group, int32_t* y) {
  const int32_t w = job.width;
  for (; *y + group <= job.end; *y += group) {
    unsigned char* lines[16];
    for (int k = 0; k < group; ++k) lines[k] = job.data + (*y + k) * job.stride;
    GatherLines(lines, w, group == 16 ? 1 : 4, t);
    if constexpr (kMask) {
      for (int32_t p = 0; p < w; ++p) {
        uint32_t m = 0;
        for (int k = 0; k < 4; ++k) m |= uint32_t{job.mask[static_cast<ptrdiff_t>(*y + k) * w + p]} << (8 * k);
        mask4[p] = m;
      }
    }
    Gathered8Ops<kAlpha, kMask> ops{t, out, div, mask4, _mm_setzero_si128(), _mm_setzero_si128()};
    WalkWindow(ops, w, job.radius);
    ScatterLines(out, w, group == 16 ? 1 : 4, lines);
  }
}

int32_t Horizontal8(const BlurJob& job) {
  const bool gray = job.variant == Variant::kGray;
  const int group = gray ? 16 : 4;
  const int32_t w = job.width;
  const std::vector<Div16> div = MakeDividers(w, job.radius);
  if (div.empty()) return BlurPlain(job, true);
  std::vector<Block> t, out;
  std::vector<uint32_t> mask4;
  try {
    t.resize(static_cast<size_t>(w));
    out.resize(static_cast<size_t>(w));
    if (job.variant == Variant::kBgraMasked) mask4.resize(static_cast<size_t>(w));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  int32_t y = job.begin;
  switch (job.variant) {
    case Variant::kGray:
      Horizontal8Groups<false, false>(job, div.data(), Vecs(t), Vecs(out), nullptr, group, &y);
      break;
    case Variant::kBgra:
      Horizontal8Groups<true, false>(job, div.data(), Vecs(t), Vecs(out), nullptr, group, &y);
      break;
    default:
      Horizontal8Groups<true, true>(job, div.data(), Vecs(t), Vecs(out), mask4.data(), group, &y);
      break;
  }
  if (y < job.end) {
    BlurJob rest = job;
    rest.begin = y;
    return BlurPlain(rest, true);
  }
  return S_OK;
}

// ---------------------------------------------------------------------------
// Vertical pass, 8-bit: a strip of `bytes` bytes per row, one 16-bit sum per
// byte; the ring keeps the original row segments until they leave the window.
struct Strip8Ops : boxblur_detail::StepByStep<Strip8Ops> {
  unsigned char* first;     // first byte of the strip in row 0
  ptrdiff_t stride;
  int32_t bytes;            // strip width in bytes
  int32_t vec_bytes;        // the part done 16 bytes at a time
  int32_t r;
  int32_t len;              // rows
  uint16_t* sums;
  unsigned char* ring;
  const Div16* div;
  const unsigned char* mask;  // masked variant: mask byte of the strip's first pixel in row 0
  ptrdiff_t mask_stride;
  bool bgra;

  void Prime(int32_t i) {
    const unsigned char* row = first + i * stride;
    const __m128i z = _mm_setzero_si128();
    int32_t j = 0;
    for (; j < vec_bytes; j += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + j));
      __m128i* s = reinterpret_cast<__m128i*>(sums + j);
      _mm_store_si128(s, _mm_add_epi16(_mm_load_si128(s), _mm_unpacklo_epi8(v, z)));
      _mm_store_si128(s + 1, _mm_add_epi16(_mm_load_si128(s + 1), _mm_unpackhi_epi8(v, z)));
    }
    for (; j < bytes; ++j) sums[j] = static_cast<uint16_t>(sums[j] + row[j]);
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t slot, int32_t n) {
    unsigned char* row = first + p * stride;
    const unsigned char* in = kAdd ? first + (p + r - 1) * stride : nullptr;
    unsigned char* saved = ring + static_cast<ptrdiff_t>(slot) * bytes;
    const unsigned char* m_row = mask ? mask + p * mask_stride : nullptr;
    const Div16& d = div[n];
    const __m128i z = _mm_setzero_si128();
    int32_t j = 0;
    // The row added at the next step is fetched while this one is worked on.
    const char* ahead = kAdd && p + r < len ? reinterpret_cast<const char*>(in + stride) : nullptr;
    for (; j < vec_bytes; j += 16) {
      if (ahead && (j & 63) == 0) _mm_prefetch(ahead + j, _MM_HINT_T0);
      __m128i* s = reinterpret_cast<__m128i*>(sums + j);
      __m128i s0 = _mm_load_si128(s), s1 = _mm_load_si128(s + 1);
      if (kSub) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(saved + j));
        s0 = _mm_sub_epi16(s0, _mm_unpacklo_epi8(v, z));
        s1 = _mm_sub_epi16(s1, _mm_unpackhi_epi8(v, z));
      }
      if (kAdd) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + j));
        s0 = _mm_add_epi16(s0, _mm_unpacklo_epi8(v, z));
        s1 = _mm_add_epi16(s1, _mm_unpackhi_epi8(v, z));
      }
      _mm_store_si128(s, s0);
      _mm_store_si128(s + 1, s1);
      const __m128i o = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + j));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(saved + j), o);
      __m128i q0 = Divide16(s0, d), q1 = Divide16(s1, d);
      if (m_row) {
        int32_t m4;
        std::memcpy(&m4, m_row + j / 4, 4);
        const __m128i m = _mm_cvtsi32_si128(m4);
        const __m128i m0 = _mm_shuffle_epi8(m, _mm_setr_epi8(0, -1, 0, -1, 0, -1, 0, -1, 1, -1, 1, -1, 1, -1, 1, -1));
        const __m128i m1 = _mm_shuffle_epi8(m, _mm_setr_epi8(2, -1, 2, -1, 2, -1, 2, -1, 3, -1, 3, -1, 3, -1, 3, -1));
        q0 = MixByMask16(_mm_unpacklo_epi8(o, z), q0, m0);
        q1 = MixByMask16(_mm_unpackhi_epi8(o, z), q1, m1);
      }
      __m128i v = _mm_packus_epi16(q0, q1);
      if (bgra) v = _mm_blendv_epi8(v, o, AlphaBytes());
      _mm_storeu_si128(reinterpret_cast<__m128i*>(row + j), v);
    }
    for (; j < bytes; ++j) {
      uint32_t s = sums[j];
      if (kSub) s -= saved[j];
      if (kAdd) s += in[j];
      sums[j] = static_cast<uint16_t>(s);
      const unsigned char o = row[j];
      saved[j] = o;
      if (bgra && (j & 3) == 3) continue;  // alpha stays
      uint32_t q = Divide8(s, d.scalar);
      if (m_row) q = boxblur_detail::MixByMask(o, q, m_row[j / 4]);
      row[j] = static_cast<unsigned char>(q);
    }
  }
};

int32_t Vertical8(const BlurJob& job) {
  const int32_t h = job.height;
  const int32_t r = job.radius;
  const std::vector<Div16> div = MakeDividers(h, r);
  if (div.empty()) return BlurPlain(job, false);
  const int32_t bpp = job.variant == Variant::kGray ? 1 : 4;
  const int32_t ring_rows = r < h ? r : h;
  const int32_t chunk = boxblur_detail::ColumnChunk(job.end - job.begin, ring_rows, bpp);
  const size_t chunk_bytes = static_cast<size_t>(chunk) * bpp;
  std::vector<Block> sums_vec, ring_vec;
  try {
    sums_vec.resize((chunk_bytes + 15) / 16 * 2);
    ring_vec.resize((chunk_bytes * ring_rows + 15) / 16);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (int32_t c = job.begin; c < job.end; c += chunk) {
    const int32_t cw = (job.end - c) < chunk ? (job.end - c) : chunk;
    Strip8Ops ops;
    ops.first = job.data + static_cast<ptrdiff_t>(c) * bpp;
    ops.stride = job.stride;
    ops.bytes = cw * bpp;
    ops.vec_bytes = ops.bytes / 16 * 16;
    ops.r = r;
    ops.len = h;
    ops.sums = reinterpret_cast<uint16_t*>(sums_vec.data());
    ops.ring = reinterpret_cast<unsigned char*>(ring_vec.data());
    ops.div = div.data();
    ops.mask = job.variant == Variant::kBgraMasked ? job.mask + c : nullptr;
    ops.mask_stride = job.width;
    ops.bgra = bpp == 4;
    std::memset(ops.sums, 0, sums_vec.size() * sizeof(Block));
    WalkWindow(ops, h, r);
  }
  return S_OK;
}

// ---------------------------------------------------------------------------
// Float variants: double sums, subtract then add, output float(sum * (1 / n)),
// exactly as the plain code does it.

std::vector<double> Reciprocals(int32_t len, int32_t r) {
  const int64_t n_max = 2 * static_cast<int64_t>(r) - 1 < len ? 2 * static_cast<int64_t>(r) - 1 : len;
  std::vector<double> inv(static_cast<size_t>(n_max) + 1, 0.0);
  for (int64_t n = 1; n <= n_max; ++n) inv[n] = 1.0 / static_cast<double>(n);
  return inv;
}

// One window step on four float samples held as two double pairs: the
// entering sample minus the leaving one is added (the plain code's order).
template <bool kAdd, bool kSub>
inline void Update(__m128d& s0, __m128d& s1, __m128 in, __m128 out) {
  if constexpr (kAdd && kSub) {
    s0 = _mm_add_pd(s0, _mm_sub_pd(_mm_cvtps_pd(in), _mm_cvtps_pd(out)));
    s1 = _mm_add_pd(s1, _mm_sub_pd(_mm_cvtps_pd(_mm_movehl_ps(in, in)), _mm_cvtps_pd(_mm_movehl_ps(out, out))));
  } else if constexpr (kSub) {
    s0 = _mm_sub_pd(s0, _mm_cvtps_pd(out));
    s1 = _mm_sub_pd(s1, _mm_cvtps_pd(_mm_movehl_ps(out, out)));
  } else if constexpr (kAdd) {
    s0 = _mm_add_pd(s0, _mm_cvtps_pd(in));
    s1 = _mm_add_pd(s1, _mm_cvtps_pd(_mm_movehl_ps(in, in)));
  }
}

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
      if (ahead && (j & 15) == 0) _mm_prefetch(ahead + 4 * j, _MM_HINT_T0);
      __m128d s0 = _mm_loadu_pd(sums + j), s1 = _mm_loadu_pd(sums + j + 2);
      Update<kAdd, kSub>(s0, s1, kAdd ? _mm_loadu_ps(in + j) : _mm_setzero_ps(),
                         kSub ? _mm_loadu_ps(saved + j) : _mm_setzero_ps());
      _mm_storeu_pd(sums + j, s0);
      _mm_storeu_pd(sums + j + 2, s1);
      _mm_storeu_ps(saved + j, _mm_loadu_ps(row + j));
      const __m128 o0 = _mm_cvtpd_ps(_mm_mul_pd(s0, kv)), o1 = _mm_cvtpd_ps(_mm_mul_pd(s1, kv));
      _mm_storeu_ps(row + j, _mm_movelh_ps(o0, o1));
    }
    for (; j < count; ++j) {
      double s = sums[j];
      if constexpr (kAdd && kSub) {
        s += static_cast<double>(in[j]) - static_cast<double>(saved[j]);
      } else if constexpr (kSub) {
        s -= static_cast<double>(saved[j]);
      } else if constexpr (kAdd) {
        s += static_cast<double>(in[j]);
      }
      sums[j] = s;
      saved[j] = row[j];
      row[j] = static_cast<float>(s * k);
    }
  }
};

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

int32_t HorizontalFloat(const BlurJob& job) {
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
    GatherLines(lines, samples, 4, Vecs(t));
    const __m128d z = _mm_setzero_pd();
    if (ch == 3) {
      GatheredFloatOps<3> ops{Vecs(t), Vecs(out), inv.data(), {z, z, z}, {z, z, z}};
      WalkWindow(ops, w, r);
    } else {
      GatheredFloatOps<1> ops{Vecs(t), Vecs(out), inv.data(), {z}, {z}};
      WalkWindow(ops, w, r);
    }
    ScatterLines(Vecs(out), samples, 4, lines);
  }
  if (y < job.end) {
    BlurJob rest = job;
    rest.begin = y;
    return BlurPlain(rest, true);
  }
  return S_OK;
}

int32_t RunSsePass(ThreadJob* job, int32_t* result, bool rows) {
  BlurJob b;
  int32_t hr = PrepareBlur(job, rows, &b);
  if (hr >= 0 && b.begin < b.end) {
    try {
      switch (b.variant) {
        case Variant::kBgra:
        case Variant::kGray:
        case Variant::kBgraMasked:
          hr = rows ? Horizontal8(b) : Vertical8(b);
          break;
        case Variant::kFloat32:
        case Variant::kFloat96:
          hr = rows ? HorizontalFloat(b) : VerticalFloat(b);
          break;
        case Variant::kInt32:
          hr = BlurPlain(b, rows);
          break;
      }
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  *result = hr;
  return hr;
}

}  // namespace

int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, true); }

int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, false); }

}  // namespace Korvane
