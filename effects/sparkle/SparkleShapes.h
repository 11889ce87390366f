// Preparing sparkle shapes for pasting: rotation of the working copy, a
// chain of halvings for clean reductions, and the sized variants.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// Rotates src (BGRA32) by `degrees` clockwise on screen about its centre
// into dst (BGRA32, src's size), bilinear; what comes from outside src is
// transparent black. The angle is taken modulo 360, and a whole multiple of
// 360 copies src exactly. Rows run in bands on the adapter.
int32_t RotateShape(CThreadAdapter& adapter, const SmartBuffer& src, SmartBuffer& dst, float degrees);

// dst (created here at floor(w / 2) x floor(h / 2)) gets the mean of each
// 2 x 2 block of src, rounded. E_INVALIDARG for a src narrower or lower than 2.
int32_t HalveShape(const SmartBuffer& src, SmartBuffer& dst);

// Successive halvings of a rotated shape, so that a variant of any size is
// resized by a factor between 0.5 and 1 (or enlarged from the full size),
// which bilinear sampling does without dropping thin lines.
struct ShapePyramid {
  static constexpr int32_t kMaxLevels = 8;
  SmartBuffer levels[kMaxLevels];
  int32_t count = 0;

  // levels[0] is `shape` itself (shared, not copied).
  int32_t Build(const SmartBuffer& shape);
  // The smallest level at least d wide (level 0 for d beyond it).
  const SmartBuffer& LevelFor(int32_t d) const;
};

// A shape at one pasting size: the d x d image and the temporary image of
// the sub-pixel paste ((d + 1) x (d + 1)).
struct SparkleVariant {
  int32_t d = 0;
  SmartBuffer shape;
  SmartBuffer tmp;
};

// Creates `variant` at d x d from the pyramid ("ResizeBuffer": bilinear, on
// the adapter), with its temporary image. `what` names the source shape in
// the log line of a failed resize.
int32_t MakeSparkleVariant(CThreadAdapter& adapter, const SystemInfo& info, const ShapePyramid& pyramid,
                           int32_t d, SparkleVariant& variant, const char* what);

// An odd pasting size (at least 3) from a length in light-map pixels.
int32_t OddShapeSize(float length);

}  // namespace Korvane
