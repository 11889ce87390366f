// AVX2 vertical box blur of 8-bit images: the SSE4.1 strip walk on 32
// bytes at a time. A strip of columns keeps one 16-bit sum per byte of a
// row segment; a ring keeps the original rows until they leave the window.
#include <cstring>

#include "core/BoxBlurAvx2.h"
#include "core/ResultCode.h"

namespace Korvane {
namespace boxblur_avx2 {

namespace {

struct Strip8Ops : boxblur_detail::StepByStep<Strip8Ops> {
  unsigned char* first;  // first byte of the strip in row 0
  ptrdiff_t stride;
  int32_t bytes;  // strip width in bytes
  int32_t r;
  int32_t len;  // rows
  uint16_t* sums;
  unsigned char* ring;
  const boxblur_detail::Div16Params* div;
  const unsigned char* mask;  // masked variant: mask byte of the strip's first pixel in row 0
  ptrdiff_t mask_stride;
  bool bgra;

  void Prime(int32_t i) {
    const unsigned char* row = first + i * stride;
    int32_t j = 0;
    for (; j + 16 <= bytes; j += 16) AddBytes(sums + j, Widen16(row + j));
    for (; j < bytes; ++j) sums[j] = static_cast<uint16_t>(sums[j] + row[j]);
  }

  // The mask values of the four pixels of 16 bytes, each over its four channels.
  static __m256i MaskOf4(const unsigned char* m) {
    int32_t m4;
    std::memcpy(&m4, m, 4);
    const __m128i spread = _mm_setr_epi8(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3);
    return _mm256_cvtepu8_epi16(_mm_shuffle_epi8(_mm_cvtsi32_si128(m4), spread));
  }

  template <bool kAdd, bool kSub>
  void Step(int32_t p, int32_t slot, int32_t n) {
    unsigned char* row = first + p * stride;
    const unsigned char* in = kAdd ? first + (p + r - 1) * stride : nullptr;
    unsigned char* saved = ring + static_cast<ptrdiff_t>(slot) * bytes;
    const unsigned char* m_row = mask ? mask + p * mask_stride : nullptr;
    const Div16x d = ToDiv16x(div[n]);
    // The row added at the next step is fetched while this one is worked on.
    const char* ahead = kAdd && p + r < len ? reinterpret_cast<const char*>(in + stride) : nullptr;
    int32_t j = 0;
    for (; j + 32 <= bytes; j += 32) {
      if (ahead && (j & 63) == 0) _mm_prefetch(ahead + j, _MM_HINT_T1);
      __m256i q[2];
      const __m256i o = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + j));
      for (int h = 0; h < 2; ++h) {
        const int32_t at = j + 16 * h;
        __m256i s = LoadSums(sums + at);
        if (kSub) s = _mm256_sub_epi16(s, Widen16(saved + at));
        if (kAdd) s = _mm256_add_epi16(s, Widen16(in + at));
        StoreSums(sums + at, s);
        q[h] = Divide16(s, d);
        if (m_row) q[h] = MixByMask16(Widen16(row + at), q[h], MaskOf4(m_row + at / 4));
      }
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(saved + j), o);
      __m256i v = PackBytes(q[0], q[1]);
      if (bgra) v = _mm256_blendv_epi8(v, o, AlphaBytes());
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + j), v);
    }
    boxblur_detail::StripStep8(sums, in, kSub, saved, row, m_row, div[n].scalar, bgra, j, bytes);
  }
};

}  // namespace

int32_t Vertical8(const boxblur_detail::BlurJob& job) {
  using boxblur_detail::Variant;
  const int32_t h = job.height;
  const int32_t r = job.radius;
  const std::vector<boxblur_detail::Div16Params> div = boxblur_detail::MakeDividerParams(h, r);
  if (div.empty()) return boxblur_detail::BlurPlain(job, false);
  const int32_t bpp = job.variant == Variant::kGray ? 1 : 4;
  const int32_t ring_rows = r < h ? r : h;
  const int32_t chunk = boxblur_detail::ColumnChunk(job.end - job.begin, ring_rows, bpp);
  const size_t chunk_bytes = static_cast<size_t>(chunk) * bpp;
  boxblur_detail::Scratch sums, ring;
  if (!sums.Reserve(chunk_bytes * sizeof(uint16_t)) || !ring.Reserve(chunk_bytes * ring_rows)) return E_OUTOFMEMORY;
  for (int32_t c = job.begin; c < job.end; c += chunk) {
    const int32_t cw = (job.end - c) < chunk ? (job.end - c) : chunk;
    Strip8Ops ops;
    ops.first = job.data + static_cast<ptrdiff_t>(c) * bpp;
    ops.stride = job.stride;
    ops.bytes = cw * bpp;
    ops.r = r;
    ops.len = h;
    ops.sums = sums.As<uint16_t>();
    ops.ring = ring.Bytes();
    ops.div = div.data();
    ops.mask = job.variant == Variant::kBgraMasked ? job.mask + c : nullptr;
    ops.mask_stride = job.width;
    ops.bgra = bpp == 4;
    std::memset(ops.sums, 0, chunk_bytes * sizeof(uint16_t));
    boxblur_detail::WalkWindow(ops, h, r);
  }
  return S_OK;
}

}  // namespace boxblur_avx2
}  // namespace Korvane
