// Preparing sparkle shapes for pasting: a chain of halvings for clean
// reductions, and the sized, turned variants sampled from it.
#pragma once

#include <cstdint>
#include <vector>

#include "core/ImageBuffer.h"
#include "core/LightPaste.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// dst (created here at floor(w / 2) x floor(h / 2)) gets the mean of each
// 2 x 2 block of src, rounded. E_INVALIDARG for a src narrower or lower than 2.
int32_t HalveShape(const SmartBuffer& src, SmartBuffer& dst);

// Successive halvings of a shape, so that a variant of any size is
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

// One variant to make: `level` (a pyramid level, square) turned by the
// angle whose cosine and sine are given, clockwise on screen about its
// centre, and scaled onto the variant's d x d pixels centre to centre;
// bilinear with 8-bit weights, transparent black outside the level.
struct VariantJob {
  const SmartBuffer* level = nullptr;
  LightShape* variant = nullptr;  // a shape of the light map at its pasting size d
  float cos_a = 1.0f;
  float sin_a = 0.0f;
};

// Cosine and sine of a clockwise turn in degrees (taken modulo 360), exact
// for whole quarter turns. False for an angle that is not finite.
bool TurnOf(float degrees, float& cos_a, float& sin_a);

// Makes every job's variant shape, its held part only (created here at that
// part's size when it has another size; the temporary image is left to the
// caller). All variants are sampled in one run on the adapter, their rows
// shared out between the workers, with the row form `info` picks (SSE4.1 or
// AVX2 where allowed). A variant whose level has d's size and no turn is an
// exact copy.
int32_t SampleSparkleVariants(CThreadAdapter& adapter, const SystemInfo& info, std::vector<VariantJob>& jobs);

// Row y of one job's variant (a row of its held part, the shape already
// made), plain, SSE4.1 and AVX2 forms with identical bytes.
void SampleVariantRow(const VariantJob& job, int32_t y);
void SampleVariantRow_SSE(const VariantJob& job, int32_t y);
void SampleVariantRow_AVX2(const VariantJob& job, int32_t y);

// An odd pasting size (at least 3) from a length in light-map pixels.
int32_t OddShapeSize(float length);

}  // namespace Korvane
