// The focus blur at the strength asked for on a photo of any size.
//
// A Gaussian's sigma is a share of the photo's shorter side, but its kernel
// reaches at most 36 pixels either side: past a sigma of about 13.7 pixels
// the tails are no longer cut at 1/32 but at the last tap, and the blur stops
// growing (at level 100 it is 2 % of the shorter side at 400 pixels, barely
// 0.6 % at 4000). This stage blurs a copy of the photo halved as often as the
// sigma needs to fit the kernel again, with the same kernel rule on the
// reduced copy (the sigma follows the shorter side, so it shrinks with it),
// enlarges the blurred copy bilinearly and blends at full size with the focus
// blend and the caller's guide. The strong and the weak blur each take their
// own number of halvings; a blur that fits takes none and runs at full size
// exactly as the focus blur does.
#pragma once

#include <cstdint>
#include <memory>

#include "core/ImageBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// The largest sigma whose 1/32 cut still falls within the kernel's 36 taps
// (36 / sqrt(2 ln 32) = 13.68), with a little room.
constexpr float kFittingSigma = 13.5f;
// A copy reduced for speed keeps at least this sigma, so bilinear
// enlargement stays invisible.
constexpr float kSmallestReducedSigma = 2.0f;

// One halving of a side: the reduced copy keeps every pixel's centre.
inline int32_t HalvedSide(int32_t side) { return (side + 1) / 2; }

// How often a width x height photo is halved for `level`: the fewest halvings
// after which the sigma fits, then more up to `min_halvings` while the
// reduced sigma stays at least kSmallestReducedSigma.
int32_t BlurHalvings(int32_t level, int32_t width, int32_t height, int32_t min_halvings = 0);

struct TrueScaleBlurParam {
  SmartBuffer input;   // BGRA32, the photo
  // The guide: first byte of each pixel, pixels `channel` bytes apart,
  // input's size. No pixels: the whole photo is background and the output
  // is the strong blur alone (the output must then share no memory with the
  // input).
  SmartBuffer guide;
  SmartBuffer output;  // BGRA32, input's size, written over roi; may be the input
  Rect roi;            // the part of the output written
  int32_t level = 0;   // strong blur level; the weak blur takes level / 6
  int32_t focus_value = 0;
  int32_t focus_range = 0;
  int32_t min_halvings = 0;  // see BlurHalvings: halve this often when the blur allows it
};

// Renders p.output over p.roi. Working images are released on return.
// Failing passes are logged with the focus blur's call texts; returns the
// first failure's code (E_INVALIDARG for images of other sizes or an roi
// outside them, E_NOTIMPL for formats the passes cannot take).
int32_t RunTrueScaleBlur(CThreadAdapter& adapter, const SystemInfo& info, const TrueScaleBlurParam& p);

}  // namespace Korvane
