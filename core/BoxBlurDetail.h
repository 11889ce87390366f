// Internal to the box blur kernels: validation of a task's record, the exact
// 8-bit and 16-bit dividers, and the running-window walk shared by the
// plain, SSE4.1 and AVX2 forms so all visit the samples in the same order;
// the passes each SIMD form provides, and baseline working memory for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/BoxBlur.h"

namespace Korvane {
namespace boxblur_detail {

enum class Variant { kBgra, kGray, kFloat32, kFloat96, kInt32, kBgraMasked };

// Longest window (in samples) the kernels accept; keeps the 8-bit divider
// and the integer sums exact.
constexpr int64_t kMaxWindow = int64_t{1} << 21;

// A validated task: the image, and the lines of the band (rows for the
// horizontal pass, columns for the vertical one) clipped to the image.
struct BlurJob {
  Variant variant = Variant::kBgra;
  unsigned char* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  ptrdiff_t stride = 0;
  int32_t radius = 0;
  const unsigned char* mask = nullptr;
  int32_t begin = 0;
  int32_t end = 0;
};

// Checks the record (format, data, radius, geometry, window length) and
// fills `out`. S_OK with begin == end when nothing is to be changed.
int32_t PrepareBlur(const ThreadJob* job, bool rows, BlurJob* out);

// Exact rounding division of an 8-bit window sum by the sample count n:
// trunc(sum / n + 0.5) == floor((sum + n / 2) / n) == ((sum + half) * mul) >> shift.
// With shift = 9 + 2 * ceil(log2 n) and mul = floor(2^shift / n) + 1 the
// product's error stays below one step for every sum up to 255 * n, and mul
// fits 32 bits while n <= kMaxWindow.
struct Recip8 {
  uint32_t half;
  uint32_t mul;
  uint32_t shift;
};
Recip8 MakeRecip8(uint32_t n);
inline uint32_t Divide8(uint32_t sum, const Recip8& r) {
  return static_cast<uint32_t>((static_cast<uint64_t>(sum + r.half) * r.mul) >> r.shift);
}

// An exact 16-bit divider for the SIMD forms: for every window sum
// s <= 255 n, floor((s + half) / n) == ((s + half) * mul) >> (16 + shift)
// with 16-bit lanes (a high-half multiply, then a shift); `scalar` does the
// same on whole sums for the forms' scalar tails.
struct Div16Params {
  uint32_t half;
  uint32_t mul;
  uint32_t shift;
  Recip8 scalar;
};
// False when no 16-bit pair exists for n (windows of more than 185 samples).
bool MakeDiv16Params(uint32_t n, Div16Params* d);
// Dividers for every sample count a pass over lines of `len` positions with
// radius r can meet (index n), or an empty table when some count has none.
std::vector<Div16Params> MakeDividerParams(int32_t len, int32_t r);

// Zeroed working memory for a SIMD kernel, 32-byte aligned, allocated here
// in baseline code so the SIMD files need no container code of their own.
class Scratch {
 public:
  Scratch() = default;
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch();
  // False when the memory cannot be had.
  bool Reserve(size_t bytes);
  unsigned char* Bytes() const { return m_data; }
  template <class T>
  T* As() const {
    return reinterpret_cast<T*>(m_data);
  }

 private:
  unsigned char* m_data = nullptr;
};

// The masked variant's output: the blurred value mixed with the original by
// mask / 255, rounded to nearest. Exact division by 255 for x < 65535.
inline uint32_t MixByMask(uint32_t orig, uint32_t blurred, uint32_t m) {
  const uint32_t x = orig * (255u - m) + blurred * m + 127u;
  return (x + 1u + (x >> 8)) >> 8;
}

// Scalar steps of the SIMD forms' column passes, for the bytes (or floats)
// [from, end) past their last full vector; `in` is null when no row enters
// the window, `sub` says whether one leaves it.
// 8-bit strip: the leaving row's bytes come from the ring entry `saved`,
// which then takes the row's original bytes; alpha (every fourth byte of
// BGRA) stays; with `mask_row` the result is mixed with the original.
void StripStep8(uint16_t* sums, const unsigned char* in, bool sub, unsigned char* saved, unsigned char* row,
                const unsigned char* mask_row, const Recip8& recip, bool bgra, int32_t from, int32_t end);
// The one-sweep blur: the leaving blurred row is `leaving` (null: none).
void SweepStep8(uint16_t* sums, const unsigned char* in, const unsigned char* leaving, const Recip8& recip,
                bool alpha, int32_t from, int32_t end, unsigned char* out);
// Float strip: double sums, the entering sample minus the leaving one.
void StripStepFloat(double* sums, const float* in, bool sub, float* saved, float* row, double inv_n, int32_t from,
                    int32_t end);

// The vertical steps of the one-sweep blur in one SIMD form. `step` moves
// the column sums to the window of an output row (adding the entering
// blurred row, subtracting the leaving one, as [kAdd][kSub] say) and writes
// the row from them; with kAlpha ([..][..][1]) every fourth byte keeps its
// value. `add` adds a blurred row to the sums.
using SweepStep = void (*)(uint16_t* sums, const unsigned char* in, const unsigned char* leaving, const Div16Params& d,
                           int32_t bytes, unsigned char* out);
struct SweepSteps {
  void (*add)(uint16_t* sums, const unsigned char* in, int32_t bytes);
  SweepStep step[2][2][2];
};

// One horizontal and one vertical pass over the whole image in one sweep
// per row band, with the same bytes as the two passes (8-bit BGRA32 and
// GRAY8, windows the 16-bit sums cover, roi covering the image). E_NOTIMPL,
// before touching anything, for every other case. The rows are blurred by
// the SSE4.1 walkers, the columns by the SSE4.1 (FusedBlur8) or AVX2
// (FusedBlur8_AVX2) steps; built with the SSE4.1 kernels only.
int32_t FusedBlur8(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi);
int32_t FusedBlur8_AVX2(CThreadAdapter& adapter, BoxBlurParam& param, Rect roi);
// The AVX2 steps (BoxBlurFused_avx2.cpp).
extern const SweepSteps kSweepStepsAvx2;

// The plain kernels, also used by the SIMD forms for variants and lines they
// leave to the plain code.
int32_t BlurPlain(const BlurJob& job, bool rows);

}  // namespace boxblur_detail

// The passes of the SIMD forms, one file each; E_OUTOFMEMORY when working
// memory cannot be had. The AVX2 form blurs 8-bit rows with the SSE4.1
// walkers (a running prefix sum, serial along the row).
namespace boxblur_sse {
int32_t Horizontal8(const boxblur_detail::BlurJob& job);
int32_t Vertical8(const boxblur_detail::BlurJob& job);
int32_t HorizontalFloat(const boxblur_detail::BlurJob& job, int32_t passes);
int32_t VerticalFloat(const boxblur_detail::BlurJob& job);
}  // namespace boxblur_sse
namespace boxblur_avx2 {
int32_t Vertical8(const boxblur_detail::BlurJob& job);
int32_t HorizontalFloat(const boxblur_detail::BlurJob& job, int32_t passes);
int32_t VerticalFloat(const boxblur_detail::BlurJob& job);
}  // namespace boxblur_avx2

namespace boxblur_detail {

// The passes of one SIMD form, and the tasks built on them: `passes`
// passes over the band (float rows all at once, so they can stay gathered
// between passes); INT32 images run the plain code.
struct SimdPasses {
  int32_t (*rows8)(const BlurJob& job);
  int32_t (*columns8)(const BlurJob& job);
  int32_t (*rows_float)(const BlurJob& job, int32_t passes);
  int32_t (*columns_float)(const BlurJob& job);
};
int32_t RunSimdPasses(ThreadJob* job, int32_t* result, bool rows, int32_t passes, const SimdPasses& form);
// The repeated row task (BoxBlurRepeatParam) of a form.
int32_t RunSimdRepeat(ThreadJob* job, int32_t* result, const SimdPasses& form);

// Walks a window of 2r - 1 positions over a line of `len` positions, cut at
// both ends: position p gets the mean of [max(0, p - r + 1), min(len - 1,
// p + r - 1)], so a window wider than the line simply covers all of it.
// Ops provides:
//   Prime(i)   add position i (the first min(r, len) positions)
//   Phase<kAdd, kSub>(from, to, n, dn, slot, r)
//              for p in [from, to): subtract the ring entry `slot` (position
//              p - r) when kSub, add position p + r - 1 when kAdd, save
//              position p into the ring entry `slot`, then write position p
//              as the mean of n samples; n changes by dn and slot advances
//              cyclically (modulo r) from one position to the next.
// The ring has min(r, len) entries; entry p % r holds position p's original
// value until it leaves the window. Running a whole phase in one call lets
// the kernels keep their sums in registers.
template <class Ops>
inline void WalkWindow(Ops& ops, int32_t len, int32_t r) {
  const int32_t primed = r < len ? r : len;
  for (int32_t i = 0; i < primed; ++i) ops.Prime(i);
  int32_t n = primed;
  ops.template Phase<false, false>(0, 1, n, 0, 0, r);
  int32_t p = 1;
  // Growing edge: the window's right end enters, its left end is still 0.
  const int32_t grow_end = (r - 1 < len - r) ? r - 1 : len - r;
  if (p <= grow_end) {
    ops.template Phase<true, false>(p, grow_end + 1, n + 1, 1, p % r, r);
    n += grow_end - p + 1;
    p = grow_end + 1;
  }
  // Full window.
  if (p <= len - r) {
    ops.template Phase<true, true>(p, len - r + 1, n, 0, p % r, r);
    p = len - r + 1;
  }
  // A window wider than the line: it covers the whole line for a while.
  const int32_t whole_end = (r - 1 < len - 1) ? r - 1 : len - 1;
  if (p <= whole_end) {
    ops.template Phase<false, false>(p, whole_end + 1, n, 0, p % r, r);
    p = whole_end + 1;
  }
  // Shrinking edge.
  if (p < len) ops.template Phase<false, true>(p, len, n - 1, -1, p % r, r);
}

// Phase() for kernels that work one position at a time through
// Step<kAdd, kSub>(p, slot, n).
template <class Derived>
struct StepByStep {
  template <bool kAdd, bool kSub>
  void Phase(int32_t from, int32_t to, int32_t n, int32_t dn, int32_t slot, int32_t r) {
    Derived& d = static_cast<Derived&>(*this);
    for (int32_t p = from; p < to; ++p, n += dn) {
      d.template Step<kAdd, kSub>(p, slot, n);
      slot = (slot + 1 == r) ? 0 : slot + 1;
    }
  }
};

// Number of columns the vertical pass handles together: enough for long
// contiguous row segments, few enough for the ring of min(r, height) row
// segments to stay in the second-level cache.
inline int32_t ColumnChunk(int32_t columns, int32_t ring_rows, int32_t bytes_per_column) {
  constexpr int64_t kRingBudget = 256 * 1024;
  int64_t chunk = kRingBudget / (static_cast<int64_t>(ring_rows) * bytes_per_column);
  if (chunk < 16) chunk = 16;
  return chunk < columns ? static_cast<int32_t>(chunk) : columns;
}

}  // namespace boxblur_detail
}  // namespace Korvane
