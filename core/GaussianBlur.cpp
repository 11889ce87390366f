#include "core/GaussianBlur.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"

namespace Korvane {

float GaussianSigma(int32_t level, int32_t width, int32_t height) {
  return static_cast<float>(std::min(width, height)) * (static_cast<float>(level) * 0.02f / 100.0f);
}

int32_t MakeGaussianWeights(int32_t level, int32_t width, int32_t height, float* w) {
  const float s = GaussianSigma(level, width, height);
  w[0] = 1.0f;
  if (!(s > 0.0001f)) {
    for (int32_t i = 1; i < kGaussianHalfTaps; ++i) w[i] = 0.0f;
    return 1;
  }
  float side = 0.0f;
  for (int32_t i = 1; i < kGaussianHalfTaps; ++i) {
    const float t = static_cast<float>(i) / s;
    w[i] = std::pow(2.7182817f, -0.5f * (t * t));
    side += w[i];
  }
  const float norm = 1.0f + 2.0f * side;
  for (int32_t i = 0; i < kGaussianHalfTaps; ++i) w[i] /= norm;

  // Cut the tails below 1/32 of the centre weight.
  int32_t n = 1;
  for (int32_t i = 1; i < kGaussianHalfTaps; ++i) {
    if (w[i] / w[0] > 0.03125f) n = i + 1;
  }
  if (n < kGaussianHalfTaps) {
    for (int32_t i = n; i < kGaussianHalfTaps; ++i) w[i] = 0.0f;
    float cut_side = 0.0f;
    for (int32_t i = 1; i < n; ++i) cut_side += w[i];
    const float cut_norm = w[0] + 2.0f * cut_side;
    for (int32_t i = 0; i < n; ++i) w[i] /= cut_norm;
  }
  // The centre takes whatever makes the full kernel sum to exactly 1.
  float rest = 0.0f;
  for (int32_t i = 1; i < n; ++i) rest += w[i];
  w[0] = 1.0f - 2.0f * rest;
  return n;
}

void GaussianConvertPixelsPlain(const uint8_t* src, const bool* mask, float* colour, float* weight, int32_t count) {
  for (int32_t x = 0; x < count; ++x, src += 4, colour += 3) {
    const bool m = mask[x];
    colour[0] = m ? src[0] : 0.0f;
    colour[1] = m ? src[1] : 0.0f;
    colour[2] = m ? src[2] : 0.0f;
    weight[x] = m ? 1.0f : 0.0f;
  }
}

void GaussianAccumulatePixelsPlain(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst,
                                   int32_t from, int32_t to) {
  for (int32_t x = from; x < to; ++x) {
    const uint8_t* s = src + 4 * x;
    uint8_t* d = dst + 4 * x;
    if (!mask[x]) {
      std::memcpy(d, s, 4);
      continue;
    }
    float sb = 0.0f, sg = 0.0f, sr = 0.0f, sw = 0.0f;
    for (int32_t k = 0; k < t.count; ++k) {
      const float w = t.taps[k];
      const float* p = t.colour[k] + 3 * x;
      sb += w * p[0];
      sg += w * p[1];
      sr += w * p[2];
      sw += w * t.weight[k][x];
    }
    d[0] = static_cast<uint8_t>(static_cast<int32_t>(sb / sw));
    d[1] = static_cast<uint8_t>(static_cast<int32_t>(sg / sw));
    d[2] = static_cast<uint8_t>(static_cast<int32_t>(sr / sw));
    d[3] = s[3];
  }
}

namespace {

void AccumulateRowPlain(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst, int32_t count) {
  GaussianAccumulatePixelsPlain(t, mask, src, dst, 0, count);
}

const GaussianRowKernels kPlainKernels = {GaussianConvertPixelsPlain, AccumulateRowPlain};

// Pixels in the ring of converted rows of the vertical pass (2n - 1 rows of a
// chunk of columns): 256 KiB of floats, which stays in the second-level cache
// while the chunk is wide enough (224 columns for the longest kernel) that
// each output row's tap list is set up for many pixels. Short kernels get
// wide chunks, so the source is read in long runs.
constexpr int32_t kRingPixels = 16384;
constexpr int32_t kMaxTaps = 2 * kGaussianHalfTaps - 1;
// Floats after the last converted pixel: colour rows may be read one float past a pixel.
constexpr size_t kRowPad = 4;

// Checks what both passes need; S_OK with `skip` set when there is nothing to do.
int32_t CheckBand(const ThreadJob* job, bool columns, const GaussianBlurParam*& p, bool& skip) {
  skip = false;
  if (!job || !job->param) return E_POINTER;
  p = static_cast<const GaussianBlurParam*>(job->param);
  const SmartBuffer& b = p->buffer;
  if (!b.data || !p->weights) return E_POINTER;
  if (p->kernel_length < 1 || p->kernel_length > kGaussianHalfTaps) return E_INVALIDARG;
  const bool from_source = !columns && p->source.data;
  if (p->kernel_length == 1 && !from_source) {
    skip = true;
    return S_OK;
  }
  if (!IsBgra(b) || (from_source && !IsBgra(p->source))) return E_NOTIMPL;
  if (b.width < 0 || b.height < 0 || static_cast<int64_t>(b.stride) < static_cast<int64_t>(b.width) * 4) {
    return E_INVALIDARG;
  }
  if (from_source && (p->source.width != b.width || p->source.height != b.height ||
                      static_cast<int64_t>(p->source.stride) < static_cast<int64_t>(b.width) * 4)) {
    return E_INVALIDARG;
  }
  const Rect& r = job->rect;
  if (r.right <= r.left || r.bottom <= r.top) {
    skip = true;  // empty band
    return S_OK;
  }
  if (r.left < 0 || r.top < 0 || r.right > b.width || r.bottom > b.height) return E_INVALIDARG;
  return S_OK;
}

// Taps in order -(n-1) .. n-1.
void SymmetricTaps(const float* w, int32_t n, float* taps) {
  for (int32_t k = 0; k < 2 * n - 1; ++k) taps[k] = w[std::abs(k - (n - 1))];
}

// The weight sum of a window whose taps are all masked, added in tap order as
// the kernels add them.
float FullWeight(const float* taps, int32_t count) {
  float sum = 0.0f;
  for (int32_t k = 0; k < count; ++k) sum += taps[k] * 1.0f;
  return sum;
}

// open[x] = 0 where the taps x - (n - 1) .. x + n - 1 all lie inside the row
// on masked pixels, 1 elsewhere. Masks are mostly long runs of true: whole
// words of them are passed over, and each unmasked pixel opens the windows
// around it once.
void MarkOpenWindows(const bool* mask, int32_t width, int32_t n, uint8_t* open) {
  const int32_t reach = n - 1;
  if (width < 2 * n - 1) {
    std::memset(open, 1, static_cast<size_t>(width));
    return;
  }
  std::memset(open, 1, static_cast<size_t>(reach));
  std::memset(open + reach, 0, static_cast<size_t>(width - 2 * reach));
  std::memset(open + width - reach, 1, static_cast<size_t>(reach));
  const uint8_t* m = reinterpret_cast<const uint8_t*>(mask);
  constexpr uint64_t kAllTrue = 0x0101010101010101ull;
  int32_t done = 0;  // open[0 .. done) is final
  for (int32_t x = 0; x < width;) {
    if (x + 8 <= width) {
      uint64_t word;
      std::memcpy(&word, m + x, 8);
      if (word == kAllTrue) {
        x += 8;
        continue;
      }
    }
    if (!m[x]) {
      const int32_t from = std::max(done, x - reach), to = std::min(width, x + reach + 1);
      if (to > from) std::memset(open + from, 1, static_cast<size_t>(to - from));
      done = std::max(done, to);
    }
    ++x;
  }
}

// Row y of the blur mask, or a row of `true` when the blur has no mask.
class MaskRows {
 public:
  MaskRows(const GaussianBlurParam& p, int32_t width) : m_mask(p.mask.get()), m_width(width) {
    if (!m_mask) {
      m_all_true.reset(new bool[static_cast<size_t>(width)]);
      std::fill_n(m_all_true.get(), width, true);
    }
  }
  const bool* operator()(int32_t y) const {
    return m_mask ? m_mask + static_cast<size_t>(y) * m_width : m_all_true.get();
  }

 private:
  const bool* m_mask;
  int32_t m_width;
  std::unique_ptr<bool[]> m_all_true;
};

// The taps of output row y of a column pass over a ring of 2n - 1 converted
// rows (image row i in slot i mod (2n - 1), `slot` pixels a slot): rows
// outside the image contribute nothing, so their taps are left out. Returns
// the number of taps.
int32_t ColumnTaps(const float* w, int32_t n, int32_t y, int32_t height, const float* colour, const float* weight,
                   size_t slot, float* taps, const float** colour_rows, const float** weight_rows) {
  const int32_t ring_rows = 2 * n - 1;
  const int32_t i_first = std::max(-(n - 1), -y), i_last = std::min(n - 1, height - 1 - y);
  int32_t count = 0;
  for (int32_t i = i_first, s = (y + i_first) % ring_rows; i <= i_last; ++i, ++count) {
    taps[count] = w[std::abs(i)];
    colour_rows[count] = colour + slot * 3 * s;
    weight_rows[count] = weight + slot * s;
    if (++s == ring_rows) s = 0;
  }
  return count;
}

// open[x] = 0 where every row y - (n - 1) .. y + n - 1 of column left + x is
// masked, 1 elsewhere (all those rows must exist).
void MarkOpenColumns(const MaskRows& mask_row, int32_t y, int32_t n, int32_t left, int32_t band_w, uint8_t* open) {
  std::memset(open, 1, static_cast<size_t>(band_w));
  for (int32_t i = -(n - 1); i <= n - 1; ++i) {
    const uint8_t* m = reinterpret_cast<const uint8_t*>(mask_row(y + i) + left);
    for (int32_t x = 0; x < band_w; ++x) open[x] &= m[x];
  }
  for (int32_t x = 0; x < band_w; ++x) open[x] ^= 1;
}

// The row pass of a band: one converted source row with n - 1 zero pixels on
// each side (taps past the image edge add nothing), the taps in order over
// it, and which windows lie wholly on masked pixels.
class RowPass {
 public:
  RowPass(const float* w, int32_t n, int32_t width, int32_t left)
      : m_n(n), m_width(width), m_left(left), m_colour((static_cast<size_t>(width) + 2 * (n - 1)) * 3 + kRowPad, 0.0f),
        m_weight(static_cast<size_t>(width) + 2 * (n - 1), 0.0f), m_open(static_cast<size_t>(width)) {
    SymmetricTaps(w, n, m_taps);
    for (int32_t k = 0; k < 2 * n - 1; ++k) {
      m_colour_rows[k] = m_colour.data() + static_cast<size_t>(k + left) * 3;
      m_weight_rows[k] = m_weight.data() + k + left;
    }
    m_rows.colour = m_colour_rows;
    m_rows.weight = m_weight_rows;
    m_rows.taps = m_taps;
    m_rows.count = 2 * n - 1;
    m_rows.open = m_open.data() + left;
    m_rows.full_weight = FullWeight(m_taps, m_rows.count);
  }
  RowPass(const RowPass&) = delete;
  RowPass& operator=(const RowPass&) = delete;

  // Blurs `count` pixels of source row `src` (mask row `mask`) from the
  // band's left column on into dst.
  void Run(const GaussianRowKernels& kernels, const uint8_t* src, const bool* mask, uint8_t* dst, int32_t count) {
    kernels.convert(src, mask, m_colour.data() + static_cast<size_t>(m_n - 1) * 3, m_weight.data() + (m_n - 1),
                    m_width);
    MarkOpenWindows(mask, m_width, m_n, m_open.data());
    kernels.accumulate(m_rows, mask + m_left, src + static_cast<size_t>(m_left) * 4, dst, count);
  }
  float FullWeightOfTaps() const { return m_rows.full_weight; }

 private:
  int32_t m_n, m_width, m_left;
  std::vector<float> m_colour, m_weight;
  std::vector<uint8_t> m_open;
  float m_taps[kMaxTaps];
  const float* m_colour_rows[kMaxTaps];
  const float* m_weight_rows[kMaxTaps];
  GaussianTapRows m_rows;
};

// The private buffer a band writes into holds this many pixels; it is pasted
// back whenever it is full, so it stays in the cache.
constexpr int32_t kBlockPixels = 16384;

// A view of the first `rows` rows of `block`, `width` pixels each (packed).
SmartBuffer BlockView(const SmartBuffer& block, int32_t width, int32_t rows) {
  SmartBuffer v = block;
  v.width = width;
  v.height = rows;
  v.stride = width * 4;
  return v;
}

// Kernel length 1 reading another image: the band is copied unchanged.
int32_t CopyRows(const GaussianBlurParam& p, const Rect& r) {
  const size_t bytes = static_cast<size_t>(r.right - r.left) * 4;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    std::memcpy(p.buffer.data.get() + static_cast<size_t>(y) * p.buffer.stride + static_cast<size_t>(r.left) * 4,
                p.source.data.get() + static_cast<size_t>(y) * p.source.stride + static_cast<size_t>(r.left) * 4,
                bytes);
  }
  return S_OK;
}

int32_t BlurRows(const GaussianBlurParam& p, const Rect& r, const GaussianRowKernels& kernels) {
  const SmartBuffer& buf = p.buffer;
  const SmartBuffer& in = p.source.data ? p.source : buf;
  const int32_t n = p.kernel_length;
  if (n == 1) return CopyRows(p, r);
  const int32_t width = buf.width;
  const int32_t band_w = r.right - r.left;
  // Each row depends only on itself, so finished rows can be pasted back
  // block by block. Reading another image, the band writes its own rows of
  // the working image directly.
  const bool direct = p.source.data != nullptr;
  const int32_t block_rows = direct ? r.bottom - r.top : std::max(1, kBlockPixels / band_w);
  SmartBuffer block;
  int32_t hr = direct ? S_OK : CreateSmartBufferData(block, band_w, block_rows, PIXEL_BGRA32);
  if (hr < 0) return hr;

  RowPass pass(p.weights.get(), n, width, r.left);
  const MaskRows mask_row(p, width);
  SmartBuffer target = buf;
  for (int32_t y0 = r.top; y0 < r.bottom; y0 += block_rows) {
    const int32_t rows_here = std::min(block_rows, r.bottom - y0);
    for (int32_t y = y0; y < y0 + rows_here; ++y) {
      uint8_t* dst = direct ? buf.data.get() + static_cast<size_t>(y) * buf.stride + static_cast<size_t>(r.left) * 4
                            : block.data.get() + static_cast<size_t>(y - y0) * band_w * 4;
      pass.Run(kernels, in.data.get() + static_cast<size_t>(y) * in.stride, mask_row(y), dst, band_w);
    }
    if (direct) continue;
    hr = PasteSmartBufferDataWithROI(BlockView(block, band_w, rows_here), target,
                                     Rect{r.left, y0, r.right, y0 + rows_here});
    if (hr < 0) return hr;
  }
  return S_OK;
}

int32_t BlurColumns(const GaussianBlurParam& p, const Rect& r, const GaussianRowKernels& kernels) {
  const SmartBuffer& buf = p.buffer;
  const int32_t n = p.kernel_length;
  const int32_t width = buf.width, height = buf.height;

  // A ring of the 2n - 1 converted rows around the current one, for a chunk
  // of columns at a time; row i lives in slot i mod (2n - 1). Every source
  // row is converted before any output row that could overwrite it is
  // pasted back, so finished rows can go back block by block.
  const int32_t ring_rows = 2 * n - 1;
  const int32_t chunk = std::max(64, kRingPixels / ring_rows / 8 * 8);
  const size_t slot = static_cast<size_t>(chunk);
  std::vector<float> colour(slot * 3 * ring_rows + kRowPad), weight(slot * ring_rows);
  // Per column of the chunk: unmasked pixels among the last 2n - 1 converted rows.
  std::vector<uint8_t> unmasked(slot);
  const int32_t block_rows = std::max(1, kBlockPixels / chunk);
  SmartBuffer block;
  int32_t hr = CreateSmartBufferData(block, chunk, block_rows, PIXEL_BGRA32);
  if (hr < 0) return hr;
  const MaskRows mask_row(p, width);
  const float* w = p.weights.get();
  float taps[kMaxTaps];
  const float* colour_rows[kMaxTaps];
  const float* weight_rows[kMaxTaps];
  float all_taps[kMaxTaps];
  SymmetricTaps(w, n, all_taps);
  GaussianTapRows t;
  t.colour = colour_rows;
  t.weight = weight_rows;
  t.taps = taps;
  t.full_weight = FullWeight(all_taps, ring_rows);
  const uint8_t* pixels = buf.data.get();

  SmartBuffer target = buf;
  for (int32_t cx = r.left; cx < r.right; cx += chunk) {
    const int32_t cw = std::min(chunk, r.right - cx);
    const int32_t first = std::max(0, r.top - (n - 1));
    int32_t next = first;  // next row to convert
    std::fill(unmasked.begin(), unmasked.end(), 0);
    for (int32_t y0 = r.top; y0 < r.bottom; y0 += block_rows) {
      const int32_t rows_here = std::min(block_rows, r.bottom - y0);
      for (int32_t y = y0; y < y0 + rows_here; ++y) {
        const int32_t last = std::min(height - 1, y + n - 1);
        for (; next <= last; ++next) {
          // Rows are far apart in memory: ask for the next few early.
          if (next + 4 < height) {
            const uint8_t* ahead = pixels + static_cast<size_t>(next + 4) * buf.stride + static_cast<size_t>(cx) * 4;
            for (int32_t b = 0; b < cw * 4; b += 64) __builtin_prefetch(ahead + b, 0, 2);  // into L2 only
          }
          const bool* m = mask_row(next) + cx;
          const size_t s = static_cast<size_t>(next % ring_rows);
          kernels.convert(pixels + static_cast<size_t>(next) * buf.stride + static_cast<size_t>(cx) * 4, m,
                          colour.data() + slot * 3 * s, weight.data() + slot * s, cw);
          // The row leaving the window is the one this slot held.
          const uint8_t* in = reinterpret_cast<const uint8_t*>(m);
          uint8_t* u = unmasked.data();
          if (next - ring_rows >= first) {
            const uint8_t* out = reinterpret_cast<const uint8_t*>(mask_row(next - ring_rows) + cx);
            for (int32_t x = 0; x < cw; ++x) u[x] = static_cast<uint8_t>(u[x] + out[x] - in[x]);
          } else {
            for (int32_t x = 0; x < cw; ++x) u[x] = static_cast<uint8_t>(u[x] + 1 - in[x]);
          }
        }
        t.count = ColumnTaps(w, n, y, height, colour.data(), weight.data(), slot, taps, colour_rows, weight_rows);
        // The counts cover this row's window only when all its rows exist.
        t.open = t.count == ring_rows ? unmasked.data() : nullptr;
        kernels.accumulate(t, mask_row(y) + cx,
                           pixels + static_cast<size_t>(y) * buf.stride + static_cast<size_t>(cx) * 4,
                           block.data.get() + static_cast<size_t>(y - y0) * cw * 4, cw);
      }
      hr = PasteSmartBufferDataWithROI(BlockView(block, cw, rows_here), target,
                                       Rect{cx, y0, cx + cw, y0 + rows_here});
      if (hr < 0) return hr;
    }
  }
  return S_OK;
}

// Both passes of a row band for short kernels. The rows of the source the
// band's window reaches are blurred along the row into one scratch row, then
// converted into a ring of 2n - 1 float rows; each output row is then the
// vertical pass over that ring, written straight into the working image.
// Unmasked pixels of the row pass keep the source's bytes and every pass
// keeps alpha, so the vertical pass may take its copied pixels and alpha
// from the source row itself.
int32_t BlurRowsAndColumns(const GaussianBlurParam& p, const Rect& r, const void* ctx,
                           const GaussianRowKernels& kernels) {
  const SmartBuffer& buf = p.buffer;
  const SmartBuffer& in = p.source;
  const int32_t n = p.kernel_length;
  const int32_t band_w = r.right - r.left;
  const size_t at = static_cast<size_t>(r.left) * 4;
  // Where row y of the band goes: the working image, or the chunk's scratch.
  const RowChunk* chunk = p.to_scratch ? static_cast<const RowChunk*>(ctx) : nullptr;
  auto target_row = [&](int32_t y) {
    return chunk ? chunk->ScratchRow(y, r.top) : buf.data.get() + static_cast<size_t>(y) * buf.stride + at;
  };
  if (n == 1) {
    for (int32_t y = r.top; y < r.bottom; ++y) {
      std::memcpy(target_row(y), in.data.get() + static_cast<size_t>(y) * in.stride + at,
                  static_cast<size_t>(band_w) * 4);
    }
    return S_OK;
  }
  const int32_t width = buf.width, height = buf.height;
  const int32_t ring_rows = 2 * n - 1;

  RowPass row_pass(p.weights.get(), n, width, r.left);
  std::vector<uint8_t> scratch(static_cast<size_t>(band_w) * 4);
  // The column pass: a ring of converted rows of the row pass, band wide.
  const size_t slot = static_cast<size_t>(band_w);
  std::vector<float> colour(slot * 3 * ring_rows + kRowPad), weight(slot * ring_rows);
  std::vector<uint8_t> col_open(slot);
  const MaskRows mask_row(p, width);
  const float* w = p.weights.get();
  float col_taps[kMaxTaps];
  const float* colour_rows[kMaxTaps];
  const float* weight_rows[kMaxTaps];
  GaussianTapRows ct;
  ct.colour = colour_rows;
  ct.weight = weight_rows;
  ct.taps = col_taps;
  ct.full_weight = row_pass.FullWeightOfTaps();

  int32_t next = std::max(0, r.top - (n - 1));  // next row for the row pass
  for (int32_t y = r.top; y < r.bottom; ++y) {
    for (const int32_t last = std::min(height - 1, y + n - 1); next <= last; ++next) {
      const bool* m = mask_row(next);
      row_pass.Run(kernels, in.data.get() + static_cast<size_t>(next) * in.stride, m, scratch.data(), band_w);
      const size_t s = static_cast<size_t>(next % ring_rows);
      kernels.convert(scratch.data(), m + r.left, colour.data() + slot * 3 * s, weight.data() + slot * s, band_w);
    }
    ct.count = ColumnTaps(w, n, y, height, colour.data(), weight.data(), slot, col_taps, colour_rows, weight_rows);
    ct.open = nullptr;
    if (ct.count == ring_rows) {
      // A column's window is wholly masked when all its rows are.
      MarkOpenColumns(mask_row, y, n, r.left, band_w, col_open.data());
      ct.open = col_open.data();
    }
    kernels.accumulate(ct, mask_row(y) + r.left, in.data.get() + static_cast<size_t>(y) * in.stride + at,
                       target_row(y), band_w);
  }
  return S_OK;
}

enum class Pass { kRows, kColumns, kBoth };

int32_t RunBand(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels, Pass pass) {
  const GaussianBlurParam* p = nullptr;
  bool skip = false;
  int32_t hr = CheckBand(job, pass == Pass::kColumns, p, skip);
  if (hr >= 0 && pass == Pass::kBoth && (!p->source.data || p->kernel_length > kShortKernel)) hr = E_INVALIDARG;
  if (hr >= 0 && pass == Pass::kBoth && p->to_scratch) {
    const auto* chunk = static_cast<const RowChunk*>(job->ctx);
    if (!chunk || !chunk->scratch || chunk->scratch_stride < static_cast<int64_t>(job->rect.right - job->rect.left) * 4) {
      hr = E_INVALIDARG;
    }
  }
  if (hr >= 0 && !skip) {
    try {
      switch (pass) {
        case Pass::kRows: hr = BlurRows(*p, job->rect, kernels); break;
        case Pass::kColumns: hr = BlurColumns(*p, job->rect, kernels); break;
        case Pass::kBoth: hr = BlurRowsAndColumns(*p, job->rect, job->ctx, kernels); break;
      }
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  return Done(result, hr);
}

}  // namespace

int32_t RunGaussianBlurH(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels) {
  return RunBand(job, result, kernels, Pass::kRows);
}

int32_t RunGaussianBlurV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels) {
  return RunBand(job, result, kernels, Pass::kColumns);
}

int32_t RunGaussianBlurHV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels) {
  return RunBand(job, result, kernels, Pass::kBoth);
}

int32_t GaussianBlurH(ThreadJob* job, int32_t* result) { return RunBand(job, result, kPlainKernels, Pass::kRows); }
int32_t GaussianBlurV(ThreadJob* job, int32_t* result) { return RunBand(job, result, kPlainKernels, Pass::kColumns); }
int32_t GaussianBlurHV(ThreadJob* job, int32_t* result) { return RunBand(job, result, kPlainKernels, Pass::kBoth); }

}  // namespace Korvane
