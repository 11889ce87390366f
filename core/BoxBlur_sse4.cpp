// SSE forms of the box blurs, bit-identical to the plain forms.
//
// 8-bit variants keep their window sums in 16-bit lanes, which holds every
// sum while the window has at most 185 samples (the exact 16-bit reciprocal
// of the sample count exists up to there); longer windows, INT32 images and
// leftover lines use the plain code, which gives the same bytes.
//
// The vertical pass runs down a strip of columns with one sum per byte (or
// float) of a row segment, so each step is plain vector arithmetic across
// columns. The 8-bit horizontal pass works on a copy of each row: in the
// full-window stretch, 8 gray or 2 BGRA sums at a time come from a prefix
// sum of (entering - leaving) samples. The float horizontal pass transposes
// four rows so that one vector holds the same sample of each of them, runs
// the column-wise arithmetic along the positions, and transposes back.
#include <smmintrin.h>

#include <cstring>
#include <new>
#include <vector>

#include "core/BoxBlur.h"
#include "core/BoxBlurDetail.h"
#include "core/ImageChecks.h"
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

// Gathers four lines of `len` 4-byte elements into t: t[p] holds element p
// of each line.
void GatherLines(unsigned char* const* lines, int32_t len, __m128i* t) {
  int32_t p = 0;
  for (; p + 4 <= len; p += 4) {
    // Four rows stream in at once; ask for them ahead of the hardware.
    if ((p & 15) == 0 && p + 4 * 64 < len) {
      for (int k = 0; k < 4; ++k) _mm_prefetch(reinterpret_cast<const char*>(lines[k] + 4 * p + 1024), _MM_HINT_T0);
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
void ScatterLines(const __m128i* t, int32_t len, unsigned char* const* lines) {
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
      if ((p & 63) < 8) _mm_prefetch(reinterpret_cast<const char*>(next + p), _MM_HINT_T0);
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
      if ((p & 15) < 4) _mm_prefetch(reinterpret_cast<const char*>(next + 4 * p), _MM_HINT_T0);
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

template <bool kMask>
int32_t HorizontalBgra(const BlurJob& job, const std::vector<Div16>& div) {
  std::vector<unsigned char> copy;
  try {
    copy.resize(static_cast<size_t>(job.width) * 4);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (int32_t y = job.begin; y < job.end; ++y) {
    unsigned char* row = job.data + y * job.stride;
    std::memcpy(copy.data(), row, copy.size());
    BgraRowOps<kMask> ops{{}, copy.data(), row, y + 1 < job.end ? row + job.stride : row, kMask ? job.mask + static_cast<ptrdiff_t>(y) * job.width : nullptr,
                          div.data(), {0, 0, 0, 0}};
    WalkWindow(ops, job.width, job.radius);
  }
  return S_OK;
}

int32_t HorizontalGray(const BlurJob& job, const std::vector<Div16>& div) {
  std::vector<unsigned char> copy;
  try {
    copy.resize(static_cast<size_t>(job.width));
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  for (int32_t y = job.begin; y < job.end; ++y) {
    unsigned char* row = job.data + y * job.stride;
    std::memcpy(copy.data(), row, copy.size());
    GrayRowOps ops{{}, copy.data(), row, y + 1 < job.end ? row + job.stride : row, div.data(), 0};
    WalkWindow(ops, job.width, job.radius);
  }
  return S_OK;
}

int32_t Horizontal8(const BlurJob& job) {
  const std::vector<Div16> div = MakeDividers(job.width, job.radius);
  if (div.empty()) return BlurPlain(job, true);
  switch (job.variant) {
    case Variant::kGray: return HorizontalGray(job, div);
    case Variant::kBgra: return HorizontalBgra<false>(job, div);
    default: return HorizontalBgra<true>(job, div);
  }
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

// ---------------------------------------------------------------------------
// One horizontal and one vertical pass in a single sweep per row band: each
// band blurs its rows horizontally into a ring of 2r rows and mixes the
// ring's rows vertically straight into the image, so the image is read and
// written once instead of twice. The bytes equal those of the two passes.
// Rows within r - 1 of a band edge are copied first (a separate run, so
// every copy is taken before any band writes), since the neighbouring band
// needs their original values after this band has overwritten them.
struct FusedShared {
  BlurJob job;             // the whole image
  const Div16* hdiv;       // dividers along rows
  const Div16* vdiv;       // and along columns
  size_t row_bytes;
  std::vector<int32_t> halo_slot;  // per row: its copy in `halo`, or -1
  unsigned char* halo;
};

int32_t SaveHalo(ThreadJob* tj, int32_t* result) {
  const FusedShared& f = *static_cast<const FusedShared*>(tj->param);
  const int32_t top = tj->rect.top < 0 ? 0 : tj->rect.top;
  const int32_t bottom = tj->rect.bottom > f.job.height ? f.job.height : tj->rect.bottom;
  for (int32_t y = top; y < bottom; ++y) {
    if (f.halo_slot[y] >= 0) {
      std::memcpy(f.halo + static_cast<size_t>(f.halo_slot[y]) * f.row_bytes, f.job.data + y * f.job.stride,
                  f.row_bytes);
    }
  }
  return Done(result, S_OK);
}

// Adds a blurred row to the column sums.
void SweepRowAdd(uint16_t* sums, const unsigned char* in, int32_t bytes) {
  const __m128i z = _mm_setzero_si128();
  int32_t j = 0;
  for (; j + 16 <= bytes; j += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + j));
    __m128i* sp = reinterpret_cast<__m128i*>(sums + j);
    _mm_store_si128(sp, _mm_add_epi16(_mm_load_si128(sp), _mm_unpacklo_epi8(v, z)));
    _mm_store_si128(sp + 1, _mm_add_epi16(_mm_load_si128(sp + 1), _mm_unpackhi_epi8(v, z)));
  }
  for (; j < bytes; ++j) sums[j] = static_cast<uint16_t>(sums[j] + in[j]);
}

// One vertical step of the sweep: the sums move to the window of row p
// (adding the entering blurred row, subtracting the leaving one) and row p
// is written from them; its alpha bytes keep their original values.
template <bool kAdd, bool kSub, bool kAlpha>
void SweepRow(uint16_t* sums, const unsigned char* in, const unsigned char* leaving, const Div16& d,
              int32_t bytes, unsigned char* out) {
  const __m128i z = _mm_setzero_si128();
  const int32_t vec_bytes = bytes / 16 * 16;
  int32_t j = 0;
  for (; j < vec_bytes; j += 16) {
    __m128i* sp = reinterpret_cast<__m128i*>(sums + j);
    __m128i s0 = _mm_load_si128(sp), s1 = _mm_load_si128(sp + 1);
    if constexpr (kAdd) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + j));
      s0 = _mm_add_epi16(s0, _mm_unpacklo_epi8(v, z));
      s1 = _mm_add_epi16(s1, _mm_unpackhi_epi8(v, z));
    }
    if constexpr (kSub) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(leaving + j));
      s0 = _mm_sub_epi16(s0, _mm_unpacklo_epi8(v, z));
      s1 = _mm_sub_epi16(s1, _mm_unpackhi_epi8(v, z));
    }
    _mm_store_si128(sp, s0);
    _mm_store_si128(sp + 1, s1);
    __m128i v = _mm_packus_epi16(Divide16(s0, d), Divide16(s1, d));
    __m128i* o = reinterpret_cast<__m128i*>(out + j);
    if constexpr (kAlpha) v = _mm_blendv_epi8(v, _mm_loadu_si128(o), AlphaBytes());
    _mm_storeu_si128(o, v);
  }
  for (; j < bytes; ++j) {
    uint32_t s = sums[j];
    if constexpr (kAdd) s += in[j];
    if constexpr (kSub) s -= leaving[j];
    sums[j] = static_cast<uint16_t>(s);
    if (!kAlpha || (j & 3) != 3) out[j] = static_cast<unsigned char>(Divide8(s, d.scalar));
  }
}

template <bool kAlpha>
void SweepBand(const FusedShared& f, int32_t top, int32_t bottom, unsigned char* ring, uint16_t* sums) {
  const BlurJob& job = f.job;
  const int32_t h = job.height, r = job.radius, ring_rows = 2 * r;
  const int32_t bytes = static_cast<int32_t>(f.row_bytes);
  auto slot = [&](int32_t q) { return ring + static_cast<size_t>(q % ring_rows) * f.row_bytes; };
  auto blur_row = [&](int32_t q) {
    const unsigned char* src = (q >= top && q < bottom) ? job.data + q * job.stride
                                                        : f.halo + static_cast<size_t>(f.halo_slot[q]) * f.row_bytes;
    if constexpr (kAlpha) {
      BgraRowOps<false> ops{{}, src, slot(q), src, nullptr, f.hdiv, {0, 0, 0, 0}};
      WalkWindow(ops, job.width, r);
    } else {
      GrayRowOps ops{{}, src, slot(q), src, f.hdiv, 0};
      WalkWindow(ops, job.width, r);
    }
    return slot(q);
  };
  // The window of the band's first row.
  const int32_t lo = top - r + 1 < 0 ? 0 : top - r + 1;
  const int32_t hi = top + r - 1 > h - 1 ? h - 1 : top + r - 1;
  std::memset(sums, 0, f.row_bytes * sizeof(uint16_t));
  for (int32_t q = lo; q < hi; ++q) SweepRowAdd(sums, blur_row(q), bytes);
  unsigned char* first = job.data + top * job.stride;
  SweepRow<true, false, kAlpha>(sums, blur_row(hi), nullptr, f.vdiv[hi - lo + 1], bytes, first);
  for (int32_t p = top + 1; p < bottom; ++p) {
    const int32_t in = p + r - 1, leaving = p - r;
    const int32_t n = (in < h - 1 ? in : h - 1) - (p - r + 1 > 0 ? p - r + 1 : 0) + 1;
    unsigned char* out = job.data + p * job.stride;
    const Div16& d = f.vdiv[n];
    if (in < h && leaving >= 0) {
      SweepRow<true, true, kAlpha>(sums, blur_row(in), slot(leaving), d, bytes, out);
    } else if (in < h) {
      SweepRow<true, false, kAlpha>(sums, blur_row(in), nullptr, d, bytes, out);
    } else if (leaving >= 0) {
      SweepRow<false, true, kAlpha>(sums, nullptr, slot(leaving), d, bytes, out);
    } else {
      SweepRow<false, false, kAlpha>(sums, nullptr, nullptr, d, bytes, out);
    }
  }
}

int32_t FusedBand(ThreadJob* tj, int32_t* result) {
  const FusedShared& f = *static_cast<const FusedShared*>(tj->param);
  const int32_t h = f.job.height;
  const int32_t top = tj->rect.top < 0 ? 0 : tj->rect.top;
  const int32_t bottom = tj->rect.bottom > h ? h : tj->rect.bottom;
  if (top >= bottom) {
    return Done(result, S_OK);
  }
  std::vector<Block> ring, sums;
  try {
    ring.resize((f.row_bytes * 2 * f.job.radius + 15) / 16);
    sums.resize((f.row_bytes + 15) / 16 * 2);
  } catch (const std::bad_alloc&) {
    return Done(result, E_OUTOFMEMORY);
  }
  unsigned char* ring_base = reinterpret_cast<unsigned char*>(ring.data());
  uint16_t* sum_base = reinterpret_cast<uint16_t*>(sums.data());
  if (f.job.variant == Variant::kGray) {
    SweepBand<false>(f, top, bottom, ring_base, sum_base);
  } else {
    SweepBand<true>(f, top, bottom, ring_base, sum_base);
  }
  return Done(result, S_OK);
}

}  // namespace

namespace boxblur_detail {

namespace {

int32_t RunFused(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi) {
  ThreadJob probe;
  probe.param = &param;
  probe.rect = Rect{0, 0, 1, 1};
  FusedShared f;
  if (PrepareBlur(&probe, true, &f.job) < 0) return E_NOTIMPL;
  const BlurJob& job = f.job;
  if ((job.variant != Variant::kBgra && job.variant != Variant::kGray) || job.radius < 2 || job.width < 1 ||
      job.height < 1 || roi.left > 0 || roi.top > 0 || roi.right < job.width || roi.bottom < job.height) {
    return E_NOTIMPL;
  }
  const std::vector<Div16> hdiv = MakeDividers(job.width, job.radius);
  const std::vector<Div16> vdiv = MakeDividers(job.height, job.radius);
  if (hdiv.empty() || vdiv.empty()) return E_NOTIMPL;
  const Rect rows{0, 0, job.width, job.height};
  if (adapter.SegmentBlock(rows, true) < 0) return E_NOTIMPL;
  // Rows near band edges get a copy; when that is a large share of the
  // image the two separate passes are the better choice.
  f.halo_slot.assign(static_cast<size_t>(job.height), -1);
  int32_t copies = 0;
  for (int32_t b = 0; b < adapter.GetSegmentCount(); ++b) {
    const Rect band = adapter.GetJob(b).rect;
    for (int32_t y = band.top; y < band.bottom; ++y) {
      if ((y - band.top < job.radius - 1 || band.bottom - 1 - y < job.radius - 1) && f.halo_slot[y] < 0) {
        f.halo_slot[y] = copies++;
      }
    }
  }
  if (copies > job.height / 4) return E_NOTIMPL;
  f.hdiv = hdiv.data();
  f.vdiv = vdiv.data();
  f.row_bytes = static_cast<size_t>(job.width) * (job.variant == Variant::kGray ? 1 : 4);
  std::vector<unsigned char> halo(static_cast<size_t>(copies) * f.row_bytes + 1);
  f.halo = halo.data();
  int32_t hr = adapter.RunTaskByMultiThread(SaveHalo, &f, nullptr, rows);
  if (hr < 0) return hr;
  return adapter.RunTaskByMultiThread(FusedBand, &f, nullptr, rows);
}

}  // namespace

int32_t FusedBlur8(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi) {
  try {
    return RunFused(adapter, param, roi);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace boxblur_detail

namespace {

// `passes` passes over the band. Lines are blurred independently, so passes
// run band by band give the bytes of whole-image passes run in turn.
int32_t RunSsePass(ThreadJob* job, int32_t* result, bool rows, int32_t passes = 1) {
  BlurJob b;
  int32_t hr = PrepareBlur(job, rows, &b);
  if (hr >= 0 && b.begin < b.end) {
    try {
      if (rows && (b.variant == Variant::kFloat32 || b.variant == Variant::kFloat96)) {
        hr = HorizontalFloat(b, passes);
      } else {
        for (int32_t pass = 0; pass < passes && hr >= 0; ++pass) {
          switch (b.variant) {
            case Variant::kBgra:
            case Variant::kGray:
            case Variant::kBgraMasked:
              hr = rows ? Horizontal8(b) : Vertical8(b);
              break;
            case Variant::kFloat32:
            case Variant::kFloat96:
              hr = VerticalFloat(b);
              break;
            case Variant::kInt32:
              hr = BlurPlain(b, rows);
              break;
          }
        }
      }
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  return Done(result, hr);
}

}  // namespace

int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, true); }

int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, false); }

int32_t BoxBlurHRepeat_SSE(ThreadJob* job, int32_t* result) {
  const auto* repeat = static_cast<const BoxBlurRepeatParam*>(job->param);
  if (!repeat || !repeat->param) {
    return Done(result, E_POINTER);
  }
  ThreadJob inner = *job;
  inner.param = repeat->param;
  return RunSsePass(&inner, result, true, repeat->passes);
}

}  // namespace Korvane
