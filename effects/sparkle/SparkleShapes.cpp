#include "effects/sparkle/SparkleShapes.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/BandTask.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"
#include "effects/sparkle/SparkleShapesDetail.h"

namespace Korvane {

int32_t HalveShape(const SmartBuffer& src, SmartBuffer& dst) {
  if (!src.data) return E_POINTER;
  if (!IsBgra(src)) return E_NOTIMPL;
  if (src.width < 2 || src.height < 2 || !RowsFit(src, 4)) return E_INVALIDARG;
  int32_t hr;
  if ((hr = CreateSmartBufferData(dst, src.width / 2, src.height / 2, PIXEL_BGRA32)) < 0) return hr;
  for (int32_t y = 0; y < dst.height; ++y) {
    const uint8_t* a = RowPtr(src, 2 * y);
    const uint8_t* b = RowPtr(src, 2 * y + 1);
    uint8_t* out = RowPtr(dst, y);
    for (int32_t i = 0; i < dst.width * 4; ++i) {
      const int32_t j = (i & ~3) * 2 + (i & 3);
      out[i] = static_cast<uint8_t>((a[j] + a[j + 4] + b[j] + b[j + 4] + 2) >> 2);
    }
  }
  return S_OK;
}

int32_t ShapePyramid::Build(const SmartBuffer& shape) {
  levels[0] = shape;
  count = 1;
  int32_t hr;
  while (count < kMaxLevels && levels[count - 1].width >= 4 && levels[count - 1].height >= 4) {
    if ((hr = HalveShape(levels[count - 1], levels[count])) < 0) return hr;
    ++count;
  }
  return S_OK;
}

const SmartBuffer& ShapePyramid::LevelFor(int32_t d) const {
  int32_t i = 0;
  while (i + 1 < count && levels[i + 1].width >= d) ++i;
  return levels[i];
}

bool TurnOf(float degrees, float& cos_a, float& sin_a) {
  if (!std::isfinite(degrees)) return false;
  double turn = std::fmod(static_cast<double>(degrees), 360.0);
  if (turn < 0.0) turn += 360.0;
  // Whole quarter turns move pixels exactly.
  static const float kQuarter[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
  if (std::fmod(turn, 90.0) == 0.0) {
    const int q = static_cast<int>(turn / 90.0) & 3;
    cos_a = kQuarter[q][0];
    sin_a = kQuarter[q][1];
    return true;
  }
  const double a = turn * 3.14159265358979323846 / 180.0;
  cos_a = static_cast<float>(std::cos(a));
  sin_a = static_cast<float>(std::sin(a));
  return true;
}

using namespace sparkle_detail;

void SampleVariantRow(const VariantJob& j, int32_t y) { WalkVariantRow(j, y, MixTaps); }

int32_t SampleSparkleVariants(CThreadAdapter& adapter, const SystemInfo& info, std::vector<VariantJob>& jobs) {
  const auto row = KORVANE_PICK_AVX2(info, SampleVariantRow, SampleVariantRow_SSE, SampleVariantRow_AVX2);
  int32_t hr;
  // Row r of the run is row r - first[j] of job j.
  std::vector<int32_t> first(jobs.size() + 1, 0);
  for (size_t j = 0; j < jobs.size(); ++j) {
    const VariantJob& job = jobs[j];
    if (!job.level || !job.variant || !job.level->data) return E_POINTER;
    if (!IsBgra(*job.level)) return E_NOTIMPL;
    if (job.level->width != job.level->height || job.variant->d < 1 || !RowsFit(*job.level, 4)) return E_INVALIDARG;
    LightShape& v = *job.variant;
    const Rect held = v.Held();
    if (!RectInside(held, v.d, v.d)) return E_INVALIDARG;
    if (!v.shape.data || v.shape.width != RectWidth(held) || v.shape.height != RectHeight(held)) {
      if ((hr = CreateSmartBufferData(v.shape, RectWidth(held), RectHeight(held), PIXEL_BGRA32)) < 0) return hr;
    }
    first[j + 1] = first[j] + RectHeight(held);
  }
  if (jobs.empty()) return S_OK;
  return RunBands(adapter, Rect{0, 0, 1, first.back()}, [&](const Rect& band) {
    size_t j = static_cast<size_t>(std::upper_bound(first.begin(), first.end(), band.top) - first.begin()) - 1;
    for (int32_t r = band.top; r < band.bottom; ++r) {
      while (r >= first[j + 1]) ++j;
      row.fn(jobs[j], r - first[j] + jobs[j].variant->Held().top);
    }
    return S_OK;
  });
}

int32_t OddShapeSize(float length) {
  int32_t d = length > 3.0f ? static_cast<int32_t>(length) : 3;
  return d | 1;
}

}  // namespace Korvane
