// One SSE4.1 sweep for a single horizontal and vertical box blur pass over a
// whole 8-bit BGRA32 or GRAY8 image (see boxblur_detail::FusedBlur8).
#include "core/BoxBlurSse.h"
#include "core/ImageChecks.h"

namespace Korvane {

namespace {

using namespace boxblur_sse;

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
  const boxblur_detail::Div16Params* vdiv;  // and along columns
  const boxblur_detail::SweepSteps* steps;  // the form's vertical steps
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

// The SSE4.1 steps. Adds a blurred row to the column sums.
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
void SweepRow(uint16_t* sums, const unsigned char* in, const unsigned char* leaving,
              const boxblur_detail::Div16Params& params, int32_t bytes, unsigned char* out) {
  const Div16 d = ToDiv16(params);
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
  boxblur_detail::SweepStep8(sums, kAdd ? in : nullptr, kSub ? leaving : nullptr, params.scalar, kAlpha, j, bytes,
                             out);
}

// clang-format off
const boxblur_detail::SweepSteps kSweepStepsSse = {
    SweepRowAdd,
    {{{SweepRow<false, false, false>, SweepRow<false, false, true>},
      {SweepRow<false, true, false>, SweepRow<false, true, true>}},
     {{SweepRow<true, false, false>, SweepRow<true, false, true>},
      {SweepRow<true, true, false>, SweepRow<true, true, true>}}}};
// clang-format on

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
  const boxblur_detail::SweepSteps& steps = *f.steps;
  for (int32_t q = lo; q < hi; ++q) steps.add(sums, blur_row(q), bytes);
  unsigned char* first = job.data + top * job.stride;
  steps.step[1][0][kAlpha](sums, blur_row(hi), nullptr, f.vdiv[hi - lo + 1], bytes, first);
  for (int32_t p = top + 1; p < bottom; ++p) {
    const int32_t in = p + r - 1, leaving = p - r;
    const int32_t n = (in < h - 1 ? in : h - 1) - (p - r + 1 > 0 ? p - r + 1 : 0) + 1;
    const bool adds = in < h, subtracts = leaving >= 0;
    steps.step[adds][subtracts][kAlpha](sums, adds ? blur_row(in) : nullptr, subtracts ? slot(leaving) : nullptr,
                                        f.vdiv[n], bytes, job.data + p * job.stride);
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

int32_t RunFused(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi, const SweepSteps& steps) {
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
  const std::vector<Div16Params> vdiv = MakeDividerParams(job.height, job.radius);
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
  f.steps = &steps;
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
    return RunFused(adapter, param, roi, kSweepStepsSse);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

#if KORVANE_HAVE_AVX2
int32_t FusedBlur8_AVX2(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi) {
  try {
    return RunFused(adapter, param, roi, kSweepStepsAvx2);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}
#endif

}  // namespace boxblur_detail

}  // namespace Korvane
