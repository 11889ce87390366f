// The glints pasted into the sparkle light maps: the automatic ones at the
// detected light points, the manual ones where the caller placed them.
#include "effects/sparkle/SparklePaste.h"

#include <algorithm>

#include "core/ImageChecks.h"
#include "core/Simd.h"
#include "effects/sparkle/SparkleColor.h"
#include "effects/sparkle/SparkleEffect.h"

namespace Korvane {

int32_t PasteSparkle(const LightShape& sparkle_buff, SmartBuffer& light_buff, PointI pt_int,
                     const LightPasteArgs& args, const Rect& spk_roi) {
  return PasteLight(sparkle_buff, light_buff, pt_int, args, spk_roi);
}

int32_t BilinearPasteSparkle(LightShape& sparkle_buff, SmartBuffer& light_buff, PointF pt, const LightPasteArgs& args,
                             const Rect& spk_roi) {
  return BilinearPasteLight(sparkle_buff, light_buff, pt, args, spk_roi);
}

LightPasteNames SparklePasteNames(const SystemInfo& info) {
  LightPasteNames n;
  n.roi_call = "CalPasteSparkleROI(spk_roi, pt, d, h, w)";
  n.bilinear_roi_call = "CalBilinearPasteSparkleROI(spk_roi, pt, d, h, w)";
  n.paste_call = "%s(sparkle_buff, light_buff, pt_int, current_lightness, color, spk_roi)";
  n.bilinear_paste_call = "%s(sparkle_buff, tmp_sparkle_buff, light_buff, pt, current_lightness, color, spk_roi)";
  n.paste = KORVANE_PICK_AVX2(info, PasteSparkle, PasteSparkle_SSE, PasteSparkle_AVX2);
  n.bilinear_paste =
      KORVANE_PICK_AVX2(info, BilinearPasteSparkle, BilinearPasteSparkle_SSE, BilinearPasteSparkle_AVX2);
  return n;
}

namespace {

// White glints keep the shape's own colours; tinted ones take the colour.
void GlintColour(int32_t color_mode, const LightColor& color, LightPasteArgs& args) {
  args.color = color;
  args.mode = color_mode == SPARKLE_COLOR_WHITE ? LIGHT_PASTE_CHANNELS : LIGHT_PASTE_INTENSITY;
}

}  // namespace

bool SparkleEffect::LocateGlint(const LightPoint& p, LightSpot& spot) const {
  if (m_param.highlights_only && !p.highlight) return false;
  spot.point = p;
  spot.pt = Geometry().FromNorm(p.x, p.y);
  // The paste writes only the variant's temporary image, never its shape.
  spot.shape = const_cast<LightShape*>(&m_auto_variants[p.size_id]);
  return true;
}

int32_t SparkleEffect::PasteAutoSparkle(const SparkleRenderParam& rp) {
  if (rp.amount == 0.0f) return S_OK;
  const LightPasteNames names = SparklePasteNames(m_system_info);
  const LightMapPainter painter(m_auto_scaled_light_buff, m_region, names);
  return PasteLightPoints(
      painter, m_auto_sparkle_list, Levels(), SkipThreshold(m_param.quality_mode, rp.amount),
      [&](const LightPointList::value_type& entry, LightSpot& spot) { return LocateGlint(entry.second, spot); },
      [&](const LightPointList::value_type& entry, LightPasteArgs& args) {
        const LightPoint& p = entry.second;
        LightColor color{255, 255, 255};
        if (rp.color_mode == SPARKLE_COLOR_PHOTO) {
          color = SparklePhotoColor(RowPtr(m_norm_src_buff, p.y) + static_cast<ptrdiff_t>(p.x) * 4);
        } else if (rp.color_mode == SPARKLE_COLOR_RANDOM) {
          color = SparkleRandomColor(p.color_index);
        }
        GlintColour(rp.color_mode, color, args);
        return true;
      });
}

bool SparkleEffect::ManualDrawn(const ManualSparkle& m, int32_t d, PointF& pt) const {
  if (SkipThreshold(m_param.quality_mode, m_manual_render.amount) > m.random) return false;
  pt = Geometry().FromPhoto(m.x, m.y);
  if (!m_region.Draws(pt, d)) return false;
  LightPoint p;
  p.phase = m.phase;
  p.frame_offset = m.frame_offset;
  return Levels().At(p) != 0.0f;
}

int32_t SparkleEffect::PasteManualSparkle(const SparkleRenderParam& rp, const ImageBuffer& src, SmartBuffer& light) {
  if (rp.amount == 0.0f) return S_OK;
  const LightMapGeometry geometry = Geometry();
  const int32_t s = geometry.LongSide();
  const LightPasteNames names = SparklePasteNames(m_system_info);
  const LightMapPainter painter(light, m_region, names);
  return PasteLightPoints(
      painter, m_manual_sparkles, Levels(), SkipThreshold(m_param.quality_mode, rp.amount),
      [&](const ManualSparkle& m, LightSpot& spot) {
        auto c = m_manual_cache.find(m.type_id);
        if (c == m_manual_cache.end()) return false;  // its type has no shape
        auto v = c->second.variants.find(ManualGlintSize(m.scale, rp.size, s));
        if (v == c->second.variants.end()) return false;
        spot.point.phase = m.phase;
        spot.point.frame_offset = m.frame_offset;
        spot.point.random = m.random;
        spot.pt = geometry.FromPhoto(m.x, m.y);
        spot.shape = &v->second;
        return true;
      },
      [&](const ManualSparkle& m, LightPasteArgs& args) {
        LightColor color{255, 255, 255};
        if (rp.color_mode == SPARKLE_COLOR_PHOTO) {
          const int32_t x = std::min(std::max(static_cast<int32_t>(m.x + 0.5f), 0), src.width - 1);
          const int32_t y = std::min(std::max(static_cast<int32_t>(m.y + 0.5f), 0), src.height - 1);
          color = SparklePhotoColor(RowPtr(src, y) + static_cast<ptrdiff_t>(x) * 4);
        } else if (rp.color_mode == SPARKLE_COLOR_RANDOM) {
          color = SparkleRandomColor(m.color_index);
        }
        GlintColour(rp.color_mode, color, args);
        // The glint is pasted next: the manual map holds light this frame.
        m_manual_drawn = true;
        return true;
      });
}

}  // namespace Korvane
