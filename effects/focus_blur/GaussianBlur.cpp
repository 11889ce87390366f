#include "effects/focus_blur/GaussianBlur.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "core/ResultCode.h"
#include "core/SmartBuffer.h"

namespace Korvane {

int32_t MakeGaussianWeights(int32_t level, int32_t width, int32_t height, float* w) {
  const float s = static_cast<float>(std::min(width, height)) * (static_cast<float>(level) * 0.02f / 100.0f);
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

namespace {

void ConvertRowPlain(const uint8_t* src, const bool* mask, float* dst, int32_t count) {
  for (int32_t x = 0; x < count; ++x, src += 4, dst += 4) {
    if (mask[x]) {
      dst[0] = src[0];
      dst[1] = src[1];
      dst[2] = src[2];
      dst[3] = 1.0f;
    } else {
      dst[0] = dst[1] = dst[2] = dst[3] = 0.0f;
    }
  }
}

void AccumulateRowPlain(const float* const* rows, const float* taps, int32_t tap_count,
                        const bool* mask, const uint8_t* src, uint8_t* dst, int32_t count) {
  for (int32_t x = 0; x < count; ++x) {
    const uint8_t* s = src + 4 * x;
    uint8_t* d = dst + 4 * x;
    if (!mask[x]) {
      std::memcpy(d, s, 4);
      continue;
    }
    float sb = 0.0f, sg = 0.0f, sr = 0.0f, sw = 0.0f;
    for (int32_t k = 0; k < tap_count; ++k) {
      const float w = taps[k];
      const float* p = rows[k] + 4 * x;
      sb += w * p[0];
      sg += w * p[1];
      sr += w * p[2];
      sw += w * p[3];
    }
    d[0] = static_cast<uint8_t>(static_cast<int32_t>(sb / sw));
    d[1] = static_cast<uint8_t>(static_cast<int32_t>(sg / sw));
    d[2] = static_cast<uint8_t>(static_cast<int32_t>(sr / sw));
    d[3] = s[3];
  }
}

const GaussianRowKernels kPlainKernels = {ConvertRowPlain, AccumulateRowPlain};

// Pixels in the ring of converted rows of the vertical pass (2n - 1 rows of a
// chunk of columns): 128 KiB of floats, which stays in the second-level cache.
// Short kernels get wide chunks, so the source is read in long runs.
constexpr int32_t kRingPixels = 8192;
constexpr int32_t kMaxTaps = 2 * kGaussianHalfTaps - 1;

// Checks what both passes need; S_OK with `skip` set when there is nothing to do.
int32_t CheckBand(const ThreadJob* job, const GaussianBlurParam*& p, bool& skip) {
  skip = false;
  if (!job || !job->param) return E_POINTER;
  p = static_cast<const GaussianBlurParam*>(job->param);
  const SmartBuffer& b = p->buffer;
  if (!b.data || !p->weights) return E_POINTER;
  if (p->kernel_length < 1 || p->kernel_length > kGaussianHalfTaps) return E_INVALIDARG;
  if (p->kernel_length == 1) {
    skip = true;
    return S_OK;
  }
  if (b.pix_fmt != PIXEL_BGRA32 || b.channel != 4) return E_NOTIMPL;
  if (b.width < 0 || b.height < 0 || static_cast<int64_t>(b.stride) < static_cast<int64_t>(b.width) * 4) {
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

int32_t BlurRows(const GaussianBlurParam& p, const Rect& r, const GaussianRowKernels& kernels) {
  const SmartBuffer& buf = p.buffer;
  const int32_t n = p.kernel_length;
  const int32_t width = buf.width;
  const int32_t band_w = r.right - r.left;
  // Each row depends only on itself, so finished rows can be pasted back
  // block by block.
  const int32_t block_rows = std::max(1, kBlockPixels / band_w);
  SmartBuffer block;
  int32_t hr = CreateSmartBufferData(block, band_w, block_rows, PIXEL_BGRA32);
  if (hr < 0) return hr;

  // One converted row with n - 1 zero pixels on each side: taps past the
  // image edge add nothing.
  std::vector<float> row(static_cast<size_t>(width + 2 * (n - 1)) * 4, 0.0f);
  std::unique_ptr<bool[]> all_true;
  if (!p.mask) {
    all_true.reset(new bool[static_cast<size_t>(width)]);
    std::fill_n(all_true.get(), width, true);
  }
  float taps[kMaxTaps];
  const float* rows[kMaxTaps];
  SymmetricTaps(p.weights.get(), n, taps);
  for (int32_t k = 0; k < 2 * n - 1; ++k) rows[k] = row.data() + static_cast<size_t>(k + r.left) * 4;

  SmartBuffer target = buf;
  const uint8_t* pixels = buf.data.get();
  for (int32_t y0 = r.top; y0 < r.bottom; y0 += block_rows) {
    const int32_t rows_here = std::min(block_rows, r.bottom - y0);
    for (int32_t y = y0; y < y0 + rows_here; ++y) {
      const uint8_t* src = pixels + static_cast<size_t>(y) * buf.stride;
      const bool* mask = p.mask ? p.mask.get() + static_cast<size_t>(y) * width : all_true.get();
      kernels.convert(src, mask, row.data() + static_cast<size_t>(n - 1) * 4, width);
      kernels.accumulate(rows, taps, 2 * n - 1, mask + r.left, src + static_cast<size_t>(r.left) * 4,
                         block.data.get() + static_cast<size_t>(y - y0) * band_w * 4, band_w);
    }
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
  const size_t slot = static_cast<size_t>(chunk) * 4;
  std::vector<float> ring(slot * ring_rows);
  const int32_t block_rows = std::max(1, kBlockPixels / chunk);
  SmartBuffer block;
  int32_t hr = CreateSmartBufferData(block, chunk, block_rows, PIXEL_BGRA32);
  if (hr < 0) return hr;
  std::unique_ptr<bool[]> all_true;
  if (!p.mask) {
    all_true.reset(new bool[static_cast<size_t>(width)]);
    std::fill_n(all_true.get(), width, true);
  }
  const float* w = p.weights.get();
  float taps[kMaxTaps];
  const float* rows[kMaxTaps];
  const uint8_t* pixels = buf.data.get();
  auto mask_row = [&](int32_t y) {
    return p.mask ? p.mask.get() + static_cast<size_t>(y) * width : all_true.get();
  };

  SmartBuffer target = buf;
  for (int32_t cx = r.left; cx < r.right; cx += chunk) {
    const int32_t cw = std::min(chunk, r.right - cx);
    int32_t next = std::max(0, r.top - (n - 1));  // next row to convert
    for (int32_t y0 = r.top; y0 < r.bottom; y0 += block_rows) {
      const int32_t rows_here = std::min(block_rows, r.bottom - y0);
      for (int32_t y = y0; y < y0 + rows_here; ++y) {
        const int32_t last = std::min(height - 1, y + n - 1);
        for (; next <= last; ++next) {
          // Rows are far apart in memory: ask for the next few early.
          if (next + 4 < height) {
            const uint8_t* ahead = pixels + static_cast<size_t>(next + 4) * buf.stride + static_cast<size_t>(cx) * 4;
            for (int32_t b = 0; b < cw * 4; b += 64) __builtin_prefetch(ahead + b);
          }
          kernels.convert(pixels + static_cast<size_t>(next) * buf.stride + static_cast<size_t>(cx) * 4,
                          mask_row(next) + cx, ring.data() + slot * (next % ring_rows), cw);
        }
        // Rows outside the image contribute nothing: leave their taps out.
        const int32_t i_first = std::max(-(n - 1), -y), i_last = std::min(n - 1, height - 1 - y);
        int32_t m = 0;
        for (int32_t i = i_first, s = (y + i_first) % ring_rows; i <= i_last; ++i, ++m) {
          taps[m] = w[std::abs(i)];
          rows[m] = ring.data() + slot * s;
          if (++s == ring_rows) s = 0;
        }
        kernels.accumulate(rows, taps, m, mask_row(y) + cx,
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

int32_t RunBand(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels, bool columns) {
  const GaussianBlurParam* p = nullptr;
  bool skip = false;
  int32_t hr = CheckBand(job, p, skip);
  if (hr >= 0 && !skip) {
    try {
      hr = columns ? BlurColumns(*p, job->rect, kernels) : BlurRows(*p, job->rect, kernels);
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  if (result) *result = hr;
  return hr;
}

}  // namespace

int32_t RunGaussianBlurH(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels) {
  return RunBand(job, result, kernels, false);
}

int32_t RunGaussianBlurV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels) {
  return RunBand(job, result, kernels, true);
}

int32_t GaussianBlurH(ThreadJob* job, int32_t* result) { return RunBand(job, result, kPlainKernels, false); }
int32_t GaussianBlurV(ThreadJob* job, int32_t* result) { return RunBand(job, result, kPlainKernels, true); }

}  // namespace Korvane
