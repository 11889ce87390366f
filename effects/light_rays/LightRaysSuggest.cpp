// Settings that suit a photo: the automatic centre on its brightest compact
// highlight, a threshold from its lightness, lengths by its size, and a
// strength that does not wash it out (measured on a small copy).
#include <algorithm>
#include <cmath>
#include <new>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"
#include "core/PhotoMeasures.h"
#include "core/SmartBuffer.h"
#include "effects/light_rays/LightRaysEffect.h"

namespace Korvane {

namespace {

constexpr int32_t kCentreSide = 256;     // the centre is looked for on a copy this long
constexpr int32_t kMeasureSide = 400;    // the strength is measured on a copy this long
constexpr double kShiningShare = 0.02;   // the threshold lets about this share of the photo shine
constexpr float kMinThreshold = 160.0f, kMaxThreshold = 250.0f;
constexpr int32_t kNearWhite = 245;      // every channel at least this: washed out
constexpr double kMaxWhiteGrowth = 0.03; // the rays may wash out this much more of the picture
constexpr int32_t kStrengthSteps = 7;    // halvings of the strength search

int32_t CheckPhoto(const ImageBuffer* photo) {
  const int32_t hr = CheckImage(photo, PIXEL_BGRA32);
  if (hr < 0) return hr;
  return photo->width > kMaxImageSide || photo->height > kMaxImageSide ? E_INVALIDARG : S_OK;
}

// The brightest compact highlight of a lightness plane: at three sizes,
// each pixel scores its square's mean lightness times how far that exceeds
// the ring around it (three times as wide), so a lamp beats a pale wall.
// Near a frame edge only part of the ring is seen, and what lies beyond may
// be as bright: the score is scaled by the part seen, so an edge wins only
// when its light clearly outshines everything inside. The centre is the
// middle of the bright pixels around the best score.
void BrightestHighlight(const LightnessPlane& plane, float& cx, float& cy) {
  const int32_t w = plane.Width(), h = plane.Height(), longer = std::max(w, h);
  // Nothing outshines its surroundings (a flat picture): the middle.
  double best = 0.0;
  int32_t bx = w / 2, by = h / 2, br = 1;
  double ring_at_best = 0.0;
  for (const double size : {0.01, 0.025, 0.05}) {
    const int32_t r = std::max(1, static_cast<int32_t>(std::lround(size * longer)));
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        int64_t n_in = 0, n_out = 0;
        const int64_t s_in = plane.BoxSum(x, y, r, n_in), s_out = plane.BoxSum(x, y, 3 * r, n_out);
        const double inner = static_cast<double>(s_in) / static_cast<double>(n_in);
        const double ring = n_out > n_in ? static_cast<double>(s_out - s_in) / static_cast<double>(n_out - n_in) : inner;
        const double seen = static_cast<double>(n_out - n_in) / (32.0 * r * r + 8.0 * r);
        const double score = inner * std::max(0.0, inner - ring) * std::min(1.0, seen);
        if (score > best) {
          best = score;
          bx = x, by = y, br = r, ring_at_best = ring;
        }
      }
  }
  // The middle of what outshines the ring, weighted by how much it does.
  double sx = 0.0, sy = 0.0, sw = 0.0;
  for (int32_t y = std::max(0, by - 2 * br); y <= std::min(h - 1, by + 2 * br); ++y)
    for (int32_t x = std::max(0, bx - 2 * br); x <= std::min(w - 1, bx + 2 * br); ++x) {
      const double over = std::max(0.0, plane.At(x, y) - ring_at_best);
      sx += over * over * x;
      sy += over * over * y;
      sw += over * over;
    }
  cx = sw > 0.0 ? static_cast<float>(sx / sw) : static_cast<float>(bx);
  cy = sw > 0.0 ? static_cast<float>(sy / sw) : static_cast<float>(by);
}

// A position of a reduced copy in photo pixels (pixel centres kept).
int32_t ToPhoto(float v, int32_t photo_side, int32_t copy_side) {
  const float f = static_cast<float>(photo_side) / static_cast<float>(copy_side);
  const int32_t p = static_cast<int32_t>(std::lround((v + 0.5f) * f - 0.5f));
  return std::min(std::max(p, 0), photo_side - 1);
}

}  // namespace

int32_t LightRaysEffect::FindCenter(const ImageBuffer* photo, int32_t* x, int32_t* y) {
  if (!x || !y) return E_POINTER;
  int32_t hr = CheckPhoto(photo);
  if (hr < 0) return hr;
  try {
    SmartBuffer small;
    if ((hr = AverageDown(*photo, kCentreSide, small)) < 0) return hr;
    float cx = 0.0f, cy = 0.0f;
    BrightestHighlight(LightnessPlane(small), cx, cy);
    *x = ToPhoto(cx, photo->width, small.width);
    *y = ToPhoto(cy, photo->height, small.height);
  } catch (const std::bad_alloc& e) {
    DebugLog("FindCenter - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t LightRaysEffect::SuggestSettings(const ImageBuffer* photo, uint32_t fields, LightRaysParam* param) {
  if (!param) return E_POINTER;
  int32_t hr = CheckPhoto(photo);
  if (hr < 0) return hr;
  const int32_t side = std::max(photo->width, photo->height);
  if ((fields & SUGGEST_CENTER) && (hr = FindCenter(photo, &param->center_x, &param->center_y)) < 0) return hr;
  if (fields & SUGGEST_THRESHOLD) {
    int64_t hist[256] = {};
    AddLightnessHistogram(*photo, hist);
    const float t = static_cast<float>(LightnessOfBrightest(hist, kShiningShare));
    param->hlr_threshold = std::min(std::max(t, kMinThreshold), kMaxThreshold);
  }
  if (fields & SUGGEST_LENGTH) param->ray_length = 0.25f * static_cast<float>(side);
  if (fields & SUGGEST_SOFTNESS) param->ray_softness = std::min(0.003f * side, static_cast<float>(side / 32));
  if (!(fields & SUGGEST_STRENGTH)) return S_OK;
  try {
    return LimitStrength(*photo, *param);
  } catch (const std::bad_alloc& e) {
    DebugLog("SuggestSettings - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

int32_t LightRaysEffect::LimitStrength(const ImageBuffer& photo, LightRaysParam& param) {
  // The record on a small copy: lengths and the centre scaled with it.
  SmartBuffer small, small_mask, out;
  int32_t hr;
  if ((hr = AverageDown(photo, kMeasureSide, small)) < 0) return hr;
  const int32_t sw = small.width, sh = small.height;
  const float f = static_cast<float>(std::max(sw, sh)) / static_cast<float>(std::max(photo.width, photo.height));
  LightRaysParam q = param;
  q.src = small;
  if (param.mask.data) {
    if ((hr = AverageDown(MapView(param.mask, FullRect(param.mask), PIXEL_GRAY8), kMeasureSide, small_mask)) < 0) {
      return hr;
    }
    q.mask = small_mask;
  }
  if ((hr = CreateSmartBufferData(out, sw, sh, PIXEL_BGRA32)) < 0) return hr;
  q.dst = out;
  q.roi = FullRect(small);
  q.ray_length = std::min(param.ray_length * f, static_cast<float>(std::max(sw, sh)));
  q.ray_radius = std::min(param.ray_radius * f, static_cast<float>(std::max(sw, sh)));
  q.ray_softness = std::min(param.ray_softness * f, static_cast<float>(std::max(sw, sh) / 32));
  if (param.center_x != kLightRaysAutoCenter && param.center_y != kLightRaysAutoCenter) {
    q.center_x = static_cast<int32_t>(std::lround((param.center_x + 0.5f) * sw / photo.width - 0.5f));
    q.center_y = static_cast<int32_t>(std::lround((param.center_y + 0.5f) * sh / photo.height - 0.5f));
  }
  LightRaysEffect probe(m_pool);
  probe.SetSystemInfo(m_system_info);
  if ((hr = probe.Initialize(sw, sh)) < 0) return hr;
  const double before = NearWhiteShare(MapView(small, FullRect(small)), kNearWhite);
  const auto washes_out = [&](float strength, int32_t& code) {
    q.blend_strength = strength;
    code = probe.Process(q);
    return NearWhiteShare(MapView(out, FullRect(out)), kNearWhite) - before > kMaxWhiteGrowth;
  };
  float lo = 0.0f, hi = param.blend_strength;
  if (!washes_out(hi, hr)) return hr;  // the strength asked for is fine (or the record is not)
  for (int32_t i = 0; i < kStrengthSteps && hr >= 0; ++i) {
    const float mid = 0.5f * (lo + hi);
    (washes_out(mid, hr) ? hi : lo) = mid;
  }
  if (hr < 0) return hr;
  param.blend_strength = lo;
  return S_OK;
}

}  // namespace Korvane
