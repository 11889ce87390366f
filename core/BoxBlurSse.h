// What the SSE4.1 box blur files share: exact 16-bit dividers, the masked
// mix, rows gathered four at a time, the row walkers of the 8-bit horizontal pass
// (used by the separate pass and by the fused sweep) and the float window
// step. Included only by *_sse4.cpp files, which are built with -msse4.1.
#pragma once

#include <smmintrin.h>

#include <cstring>
#include <new>
#include <vector>

#include "core/BoxBlur.h"
#include "core/BoxBlurDetail.h"
#include "core/Transpose4x4.h"

namespace Korvane {
namespace boxblur_sse {

using ::Korvane::boxblur_detail::BlurJob;
using ::Korvane::boxblur_detail::BlurPlain;
using ::Korvane::boxblur_detail::Divide8;
using ::Korvane::boxblur_detail::MakeRecip8;
using ::Korvane::boxblur_detail::PrepareBlur;
using ::Korvane::boxblur_detail::Recip8;
using ::Korvane::boxblur_detail::Variant;
using ::Korvane::boxblur_detail::WalkWindow;

// Storage for vectors: std::vector<__m128i> would drop the type's attributes.
struct alignas(16) Block {
  unsigned char b[16];
};
inline __m128i* Vecs(std::vector<Block>& v) { return reinterpret_cast<__m128i*>(v.data()); }

// ---------------------------------------------------------------------------
// Exact 16-bit division (boxblur_detail::Div16Params) in vectors:
// floor((s + n / 2) / n) == mulhi(s + half, mul) >> shift.
struct Div16 {
  __m128i half;
  __m128i mul;
  __m128i shift;
  Recip8 scalar;  // for the scalar tails
};

inline Div16 ToDiv16(const boxblur_detail::Div16Params& p) {
  Div16 d;
  d.half = _mm_set1_epi16(static_cast<int16_t>(p.half));
  d.mul = _mm_set1_epi16(static_cast<int16_t>(p.mul));
  d.shift = _mm_cvtsi32_si128(static_cast<int>(p.shift));
  d.scalar = p.scalar;
  return d;
}

inline __m128i Divide16(__m128i s, const Div16& d) {
  return _mm_srl_epi16(_mm_mulhi_epu16(_mm_add_epi16(s, d.half), d.mul), d.shift);
}

// Dividers for every sample count a pass over lines of `len` positions can
// meet, or an empty table when some count has no 16-bit divider.
inline std::vector<Div16> MakeDividers(int32_t len, int32_t r) {
  const std::vector<boxblur_detail::Div16Params> params = boxblur_detail::MakeDividerParams(len, r);
  std::vector<Div16> table(params.size());
  for (size_t n = 0; n < params.size(); ++n) table[n] = ToDiv16(params[n]);
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
// Rows gathered four at a time (through 4 x 4 transposes).

// Gathers four lines of `len` 4-byte elements into t: t[p] holds element p
// of each line.
inline void GatherLines(unsigned char* const* lines, int32_t len, __m128i* t) {
  int32_t p = 0;
  for (; p + 4 <= len; p += 4) {
    // Four rows stream in at once; ask for them ahead of the hardware, into
    // L2 (fetched into L1 they evict the lines in use).
    if ((p & 15) == 0 && p + 4 * 64 < len) {
      for (int k = 0; k < 4; ++k) _mm_prefetch(reinterpret_cast<const char*>(lines[k] + 4 * p + 1024), _MM_HINT_T1);
    }
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

// The reverse of GatherLines.
inline void ScatterLines(const __m128i* t, int32_t len, unsigned char* const* lines) {
  int32_t p = 0;
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

// ---------------------------------------------------------------------------
// The walk of a row blurred from its copy: the full-window stretch goes to
// Derived::Stretch (vectors; returns the first position it left, its running
// sums brought up to date), the window's edges and the stretch's tail to
// Derived::Step one position at a time.
template <class Derived>
struct CopiedRowOps {
  template <bool kAdd, bool kSub>
  void Phase(int32_t from, int32_t to, int32_t n, int32_t dn, int32_t, int32_t r) {
    Derived& d = static_cast<Derived&>(*this);
    int32_t p = from;
    if (kAdd && kSub) p = d.Stretch(p, to, d.div[n], r);
    for (; p < to; ++p, n += dn) d.template Step<kAdd, kSub>(p, n, r);
  }
};

// Horizontal pass, GRAY8, one row at a time from a copy of the row. In the
// full-window stretch eight sums come out of one prefix sum: with
// d[k] = in[p + k + r - 1] - in[p + k - r], sum[p + k] = sum[p - 1] + d[0] + ... + d[k].
struct GrayRowOps : CopiedRowOps<GrayRowOps> {
  const unsigned char* t;  // the row's original bytes
  unsigned char* row;
  const unsigned char* next;  // the next row, fetched while this one is worked on
  const Div16* div;
  uint32_t s;

  void Prime(int32_t i) { s += t[i]; }

  int32_t Stretch(int32_t p, int32_t to, const Div16& d, int32_t r) {
    const __m128i z = _mm_setzero_si128();
    // The running sum stays in a vector: every lane holds sum[p - 1].
    __m128i carry = _mm_set1_epi16(static_cast<int16_t>(s));
    for (; p + 8 <= to; p += 8) {
      if ((p & 63) < 8) _mm_prefetch(reinterpret_cast<const char*>(next + p), _MM_HINT_T1);
      const __m128i in = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(t + p + r - 1)), z);
      const __m128i out = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(t + p - r)), z);
      __m128i v = _mm_sub_epi16(in, out);
      v = _mm_add_epi16(v, _mm_slli_si128(v, 2));
      v = _mm_add_epi16(v, _mm_slli_si128(v, 4));
      v = _mm_add_epi16(v, _mm_slli_si128(v, 8));
      v = _mm_add_epi16(v, carry);
      const __m128i top = _mm_shufflehi_epi16(v, _MM_SHUFFLE(3, 3, 3, 3));
      carry = _mm_unpackhi_epi64(top, top);
      const __m128i q = Divide16(v, d);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(row + p), _mm_packus_epi16(q, q));
    }
    s = static_cast<uint16_t>(_mm_cvtsi128_si32(carry));
    return p;
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t n, int32_t r) {
    if (kSub) s -= t[p - r];
    if (kAdd) s += t[p + r - 1];
    row[p] = static_cast<unsigned char>(Divide8(s, div[n].scalar));
  }
};

// Horizontal pass, BGRA32 (and its masked form), one row at a time from a
// copy of the row, with the same prefix-sum stretch two pixels per vector.
template <bool kMask>
struct BgraRowOps : CopiedRowOps<BgraRowOps<kMask>> {
  const unsigned char* t;  // the row's original bytes
  unsigned char* row;
  const unsigned char* next;  // the next row, fetched while this one is worked on
  const unsigned char* mask;  // the row's mask bytes
  const Div16* div;
  uint32_t s[4];

  void Prime(int32_t i) {
    for (int c = 0; c < 4; ++c) s[c] += t[4 * i + c];
  }

  void Put(int32_t p, __m128i q, __m128i orig) const {
    if constexpr (kMask) {
      const __m128i z = _mm_setzero_si128();
      const __m128i m = _mm_shuffle_epi8(_mm_cvtsi32_si128(mask[p] | (mask[p + 1] << 8)),
                                         _mm_setr_epi8(0, -1, 0, -1, 0, -1, 0, -1, 1, -1, 1, -1, 1, -1, 1, -1));
      q = MixByMask16(_mm_unpacklo_epi8(orig, z), q, m);
    }
    __m128i v = _mm_packus_epi16(q, q);
    v = _mm_blendv_epi8(v, orig, AlphaBytes());
    _mm_storel_epi64(reinterpret_cast<__m128i*>(row + 4 * p), v);
  }

  int32_t Stretch(int32_t p, int32_t to, const Div16& d, int32_t r) {
    const __m128i z = _mm_setzero_si128();
    // Every pixel slot of `carry` holds the four sums of pixel p - 1.
    __m128i carry = _mm_set_epi16(0, 0, 0, 0, static_cast<int16_t>(s[3]), static_cast<int16_t>(s[2]),
                                  static_cast<int16_t>(s[1]), static_cast<int16_t>(s[0]));
    carry = _mm_unpacklo_epi64(carry, carry);
    for (; p + 4 <= to; p += 4) {
      if ((p & 15) < 4) _mm_prefetch(reinterpret_cast<const char*>(next + 4 * p), _MM_HINT_T1);
      const __m128i in = _mm_loadu_si128(reinterpret_cast<const __m128i*>(t + 4 * (p + r - 1)));
      const __m128i out = _mm_loadu_si128(reinterpret_cast<const __m128i*>(t + 4 * (p - r)));
      __m128i a = _mm_sub_epi16(_mm_unpacklo_epi8(in, z), _mm_unpacklo_epi8(out, z));
      __m128i b = _mm_sub_epi16(_mm_unpackhi_epi8(in, z), _mm_unpackhi_epi8(out, z));
      a = _mm_add_epi16(a, _mm_slli_si128(a, 8));
      b = _mm_add_epi16(b, _mm_slli_si128(b, 8));
      a = _mm_add_epi16(a, carry);
      b = _mm_add_epi16(b, _mm_unpackhi_epi64(a, a));
      carry = _mm_unpackhi_epi64(b, b);
      const __m128i orig = _mm_loadu_si128(reinterpret_cast<const __m128i*>(t + 4 * p));
      Put(p, Divide16(a, d), orig);
      Put(p + 2, Divide16(b, d), _mm_srli_si128(orig, 8));
    }
    alignas(16) uint16_t last[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(last), carry);
    for (int c = 0; c < 4; ++c) s[c] = last[c];
    return p;
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t n, int32_t r) {
    for (int c = 0; c < 3; ++c) {
      if (kSub) s[c] -= t[4 * (p - r) + c];
      if (kAdd) s[c] += t[4 * (p + r - 1) + c];
      uint32_t q = Divide8(s[c], div[n].scalar);
      if constexpr (kMask) q = boxblur_detail::MixByMask(t[4 * p + c], q, mask[p]);
      row[4 * p + c] = static_cast<unsigned char>(q);
    }
    // The alpha sum is kept too (the vector stretch carries it) but never written.
    if (kSub) s[3] -= t[4 * (p - r) + 3];
    if (kAdd) s[3] += t[4 * (p + r - 1) + 3];
  }
};

// ---------------------------------------------------------------------------
// Float variants: double sums, subtract then add, output float(sum * (1 / n)),
// exactly as the plain code does it.

inline std::vector<double> Reciprocals(int32_t len, int32_t r) {
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

}  // namespace boxblur_sse
}  // namespace Korvane
