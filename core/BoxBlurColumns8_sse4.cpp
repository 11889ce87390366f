// SSE4.1 vertical box blur of 8-bit images: a strip of columns at a time,
// one 16-bit sum per byte of a row segment, so each step is plain vector
// arithmetic across columns; a ring keeps the original rows until they
// leave the window.
#include "core/BoxBlurSse.h"

namespace Korvane {
namespace boxblur_sse {

// Vertical pass, 8-bit: a strip of `bytes` bytes per row, one 16-bit sum per
// byte; the ring keeps the original row segments until they leave the window.
namespace {

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
      if (ahead && (j & 63) == 0) _mm_prefetch(ahead + j, _MM_HINT_T1);
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
    boxblur_detail::StripStep8(sums, in, kSub, saved, row, m_row, d.scalar, bgra, j, bytes);
  }
};

}  // namespace

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

}  // namespace boxblur_sse
}  // namespace Korvane
