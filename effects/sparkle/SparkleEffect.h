// The sparkle effect's implementation: the light-point list, the shape
// variants, the two light maps and the frame pipeline.
//
// Files: SparkleEffect.cpp (source, checks, the frame), SparkleManual.cpp
// (shapes and the placed sparkles), SparkleVariants.cpp (the shapes at their
// pasting sizes), SparklePaste.cpp (the glints pasted into the light maps).
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "core/EffectCore.h"
#include "core/LightMap.h"
#include "core/LightPointDetect.h"
#include "effects/sparkle/Sparkle.h"
#include "effects/sparkle/SparkleShapes.h"

namespace Korvane {

// A shape kept by the effect (SPK_SIZE x SPK_SIZE) with a counter that
// changes whenever the shape is replaced, so variants know when to rebuild.
struct SparkleType {
  SmartBuffer shape;
  uint32_t generation = 0;
};

// A manual sparkle: its position in photo pixels, its scale and type, and
// what was drawn for it when it was added (DrawLightPoint seeded with its
// insertion number).
struct ManualSparkle {
  float x = 0.0f;
  float y = 0.0f;
  float scale = 1.0f;
  uint16_t type_id = 2;
  int32_t phase = 0;         // index into the twinkle curve
  int32_t frame_offset = 0;  // set per frame
  float random = 0.0f;       // compared with the amount
  int32_t color_index = 0;   // 0..23
};

class SparkleEffect final : public Sparkle, public EffectCore {
 public:
  static constexpr int32_t kSizeCount = 10;  // sizes of automatic glints

  explicit SparkleEffect(CThreadPool* pool);
  ~SparkleEffect() override;

  int32_t SetSource(const ImageBuffer* src) override;
  int32_t SetAutoSparkleShape(const ImageBuffer* shape) override;
  int32_t SetManualSparkleShape(const SparkleShape* shape) override;
  int32_t AddManualSparkles(const SparklePoint* points, int32_t count, const SparkleShape* shape) override;
  int32_t UpdateManualSparkles(const SparklePoint* points, int32_t count, int32_t value) override;
  int32_t Process(const SparkleParam* param, const SparkleRenderParam* auto_render_param,
                  const SparkleRenderParam* manual_render_param, const ImageBuffer* src, ImageBuffer* dst,
                  Rect roi) override;
  int32_t SetMaxManualSparkleCount(int32_t n) override;
  int32_t ShowAllAutoSparkles() override;
  int32_t ResetSparkleTypes() override;
  int32_t ReleaseBuffer() override;
  int32_t GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const override;
  int32_t SetRegionMode(int32_t mode) override;
  int32_t GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const override;

  // For tools and tests: what SetSource found and what was placed.
  const LightPointList& AutoSparkleList() const { return m_auto_sparkle_list; }
  const std::vector<ManualSparkle>& ManualSparkles() const { return m_manual_sparkles; }
  int32_t NormWidth() const { return m_norm_img_size.w; }
  int32_t NormHeight() const { return m_norm_img_size.h; }
  float ScaleRatio() const { return m_scale_ratio; }
  // Detection settings of a quality mode (radius, threshold).
  static LightPointSettings DetectionSettings(int32_t quality_mode);
  // The skip threshold of a render record's amount in a quality mode.
  float SkipThreshold(int32_t quality_mode, float amount) const;
  // The size of an automatic glint of size identifier i at a render size,
  // on a light map whose longer side is s.
  static int32_t AutoGlintSize(int32_t i, float size, int32_t s);
  // Placed glints snap to lengths 5 % apart.
  static int32_t ManualGlintSize(float scale, float size, int32_t s);

 private:
  int32_t ReleaseAllSparkleTypesBuff();
  int32_t ResetSparkleList();
  int32_t DetectAutoSparkles(int32_t quality_mode);
  int32_t InitAutoSparkleList(const SmartBuffer& map);
  int32_t CopyShape(const ImageBuffer& shape, SparkleType& type, bool manual);
  // Draws the built-in automatic shape when the caller gave none.
  int32_t UseDefaultShape(int32_t shape);
  int32_t ValidateProcess(const SparkleParam* param, const SparkleRenderParam* a, const SparkleRenderParam* m,
                          const ImageBuffer* src, const ImageBuffer* dst, const Rect& roi) const;
  // E_INVALIDARG unless every point lies on the photo with a finite scale
  // of at most kSparkleMaxScale (above 0 when `positive_scale`).
  int32_t CheckPoints(const SparklePoint* points, int32_t count, bool positive_scale) const;

  // Frame steps.
  int32_t RenderFrame(const ImageBuffer& src, ImageBuffer& dst);
  int32_t CalScaleRatio(int32_t long_side);
  int32_t InitLightBuffers();
  int32_t ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio);
  int32_t CalTwinkleAnimeParam(int32_t count, int32_t index);
  int32_t CalRotateAnimeParam(int32_t count, int32_t index);
  int32_t CopySparkleShape();
  int32_t SparkleProcess();
  int32_t InitRotatedSparkleType();
  int32_t InitMultiScaledSparkleType();
  int32_t InitTempSparkleType();
  int32_t ClearLightMaps(bool manual);
  int32_t PasteAutoSparkle(const SparkleRenderParam& rp);
  // Where an automatic glint lands this frame (false: none at this point).
  bool LocateGlint(const LightPoint& p, LightSpot& spot) const;
  int32_t PasteManualSparkle(const SparkleRenderParam& rp, const ImageBuffer& src, SmartBuffer& light);
  int32_t FinishFrame(const ImageBuffer& src, ImageBuffer& dst);
  // How bright the glints are this frame (the fixed steps of the fast modes,
  // the twinkle, or the curve at each glint's phase).
  LightLevels Levels() const;
  // Whether a manual glint of pasting size d is drawn this frame, and where.
  bool ManualDrawn(const ManualSparkle& m, int32_t d, PointF& pt) const;
  // The part of a glint of size d that can land on this frame's light map.
  Rect Window(int32_t d) const;
  LightMapGeometry Geometry() const { return LightMapGeometry{m_img_size, m_norm_img_size, m_scaled_img_size}; }

  // The source and its normalised copy.
  bool m_source_set = false;
  LightSize m_img_size, m_norm_img_size;
  SmartBuffer m_norm_src_buff;
  SmartBuffer m_auto_sparkle_map;
  bool m_detected_fine = false;  // the list came from the settings of modes 2 and 3
  LightPointList m_auto_sparkle_list;

  // Shapes.
  SparkleType m_auto_sparkle_type;
  int32_t m_auto_default = SHAPE_NONE;  // the built-in shape m_auto_sparkle_type holds, if any
  std::map<uint16_t, SparkleType> m_manual_types;
  std::vector<ManualSparkle> m_manual_sparkles;
  uint32_t m_manual_serial = 0;  // sparkles added so far: the seed of the next one
  int32_t m_max_manual_count = -1;
  uint32_t m_generation = 0;

  // Variants of the current frame.
  SmartBuffer m_auto_spk_dst;      // working copy of the automatic shape
  ShapePyramid m_auto_pyramid;     // halvings of the working copy
  uint32_t m_auto_pyramid_generation = 0;
  float m_auto_cos = 1.0f, m_auto_sin = 0.0f;  // this frame's turn
  LightShape m_auto_variants[kSizeCount];
  struct AutoKey {
    float rotation = -1.0f, size = -1.0f;
    int32_t map_w = -1, map_h = -1;
    uint32_t generation = 0;
    bool operator==(const AutoKey& o) const {
      return rotation == o.rotation && size == o.size && map_w == o.map_w && map_h == o.map_h &&
             generation == o.generation;
    }
  } m_auto_key, m_pending_key;
  // A manual type's halvings and its variants by size, resampled when the
  // turn or the shape changes.
  struct ManualTypeCache {
    float rotation = -1.0f;
    uint32_t generation = 0;
    bool changed = true;
    ShapePyramid pyramid;
    std::map<int32_t, LightShape> variants;
  };
  std::map<uint16_t, ManualTypeCache> m_manual_cache;
  bool m_auto_rebuild = false;

  // Frame state.
  SparkleParam m_param;
  SparkleRenderParam m_auto_render, m_manual_render;
  float m_scale_ratio = 1.0f;
  LightSize m_scaled_img_size;
  int32_t m_buff_w = 0, m_buff_h = 0;  // sizes the light maps were made for
  float m_buff_ratio = 0.0f;
  Rect m_roi, m_scaled_roi;
  LightRegion m_region;
  SmartBuffer m_light_buff;
  SmartBuffer m_auto_scaled_light_buff;
  SmartBuffer m_manu_scaled_light_buff;
  bool m_manual_drawn = false;  // the manual map holds light this frame
  bool m_drawn_known = false;   // the frame state above is that of a finished Process
  float m_manual_cos = 1.0f, m_manual_sin = 0.0f;

  // Fixed tuning: the brightness of the fast modes by phase.
  const float m_fixed_lightness[11] = {0.6f, 0.6f, 0.7f, 0.7f, 0.8f, 0.8f, 0.8f, 0.9f, 0.9f, 1.0f, 1.0f};
  // Skip thresholds of the fast modes: the amount in 11 steps, so a small
  // move of the slider does not make single glints blink in and out.
  float m_skip_table[11];
  int32_t m_region_mode = REGION_CENTRES_INSIDE;
};

}  // namespace Korvane
