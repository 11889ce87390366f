// The automatic settings of light rays that make the defaults suit the photo
// instead of washing it out: the lightness rays start from, and how much of
// them is added.
#pragma once

#include <functional>

#include "Image.h"

namespace KorvaneFrontend {

// The lightness ((max + min) / 2 of B, G, R) a pixel needs to send rays
// when none is given: the level above which the photo's brightest 1.5 % of
// pixels lie, kept within 160..250, so a bright photo sends rays from its
// lights and not from every pale wall, and a dark one still from its
// brightest spots.
float RaysThreshold(const ImageView& photo);

// The share (0..1) of pixels that read as washed out: a colour channel at
// 255, or all three at 250 or more.
double WashedShare(const ImageView& image);

// The largest strength in 0..1 whose render washes out at most `allowed`
// (a share, 0..1) more of the picture than `base`: 1 when that one does,
// else found by halving the interval, in whole hundredths. `washed_at` renders at
// a strength and returns its WashedShare, or a negative number when the
// render failed (the strength is then 1).
float CappedStrength(double base, double allowed, const std::function<double(float)>& washed_at);

}  // namespace KorvaneFrontend
