// The bokeh implementation: light points found once per source on a
// 640-pixel copy; per frame the background blur, one prepared disc variant
// pasted per point into a light map at a reduced size, the light map
// enlarged and added to the blurred photo.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/EffectCore.h"
#include "core/LightMap.h"
#include "core/LightPointDetect.h"
#include "effects/bokeh/Bokeh.h"
#include "effects/bokeh/BokehFocus.h"

namespace Korvane {

class BokehEffect final : public Bokeh, public EffectCore {
 public:
  static constexpr int32_t kSizeCount = 10;

  explicit BokehEffect(CThreadPool* pool);
  ~BokehEffect() override;

  int32_t SetSource(const ImageBuffer* src) override;
  int32_t Process(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                  const ImageBuffer* blur_mask, ImageBuffer* dst, Rect roi) override;
  int32_t ReleaseBuffer() override;
  int32_t GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const override;
  int32_t SetRegionMode(int32_t mode) override;
  int32_t GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const override;

  // Inspection, for tests and the tool.
  const LightPointList& GetBokehList() const { return m_bokeh_list; }
  LightSize GetNormSize() const { return m_norm_img_size; }
  float GetScaleRatio() const { return m_scale_ratio; }
  uint32_t GetGlobalColor() const { return m_bokeh_global_color; }
  float GetHueOffset() const { return m_shape_param.hue_offset; }

  // The calculation steps, public so their rules can be checked directly.
  // Working scale for the light map: 1.0 in quality mode 0, else that of
  // CalLightMapScaleRatio. E_INVALIDARG for long_side < 1.
  static int32_t CalScaleRatioFor(int32_t quality_mode, int32_t long_side, float& ratio);
  // The 132-sample twinkle curve: dark, a slow rise and fall, dark.
  static const TwinkleCurve& Twinkle();
  // Every point's frame offset into the twinkle curve stretched over the loop.
  int32_t CalTwinkleAnimeParam(int32_t count, int32_t index);
  // Advances the hue offset when the hue-shift switch is set.
  int32_t CalHueShiftAnimeParam(int32_t count, int32_t index);
  // Most frequent hue (multiple of 1000) among saturated, lit pixels; 0 for none.
  static int32_t CalDominantColor(const SmartBuffer& img, uint32_t& color);
  // Disc sizes of the ten variants for size blend t and longer scaled side S.
  static std::array<int32_t, kSizeCount> CalBokehSizes(float size_blend, int32_t long_side);
  // Size identifier for a mask value (mode 3 inverts the mask around offset o).
  static int32_t CalSizeID(int32_t mask_value, int32_t source_mode, float focus_value);

 private:
  int32_t SetSourceSteps(const ImageBuffer& src);
  int32_t CheckFrame(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                     const ImageBuffer* blur_mask, const ImageBuffer* dst, const Rect& roi) const;
  int32_t CalScaleRatio(int32_t long_side);
  int32_t ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio);
  int32_t InitBokehList(const SmartBuffer& location_map);
  int32_t RenderFrame();
  int32_t InitBuffers();
  int32_t ProcessFocusImg();
  int32_t ProcessBokeh();
  int32_t BokehProcess();
  int32_t InitRotatedBokehType();
  int32_t InitMultiScaledBokehType();
  int32_t InitTempBokehType();
  int32_t InitBokehListSizeID();
  int32_t PasteBokehList();
  // What the paste of a frame reads: the points' brightness, the amount's
  // skip threshold, and where a point's disc lands (false: no disc).
  LightLevels Levels() const;
  float SkipThreshold() const { return 1.0f - m_shape_param.amount; }
  bool LocateDisc(const LightPoint& p, LightSpot& spot) const;
  // The colour of a point's disc (false: no colour, nothing to paste).
  bool BokehColor(const LightPoint& p, int32_t hue_shift, float sat_weight, LightPasteArgs& args) const;
  void ResetParams();

  // Tuning constants.
  static constexpr float kMinSizeRatio = 0.03f;  // smallest disc, of the light map's longer side
  static constexpr float kMaxSizeRatio = 0.06f;  // largest disc (reached at 0.9 of the way, see CalBokehSizes)
  static constexpr float kMinSizeFactor = 1.0f;  // size factor at size blend 0
  static constexpr float kMaxSizeFactor = 1.5f;  // and at 1
  static constexpr int32_t kSizeSteps = 10;
  static constexpr float kShapeBlurBase = 400.0f;  // shape blur radius: shape width x 16 / this

  bool m_source_set = false;
  ImageBuffer m_src_buff;
  LightSize m_norm_img_size;
  SmartBuffer m_norm_src_buff;
  LightPointList m_bokeh_list;
  uint32_t m_bokeh_global_color = 0;
  int32_t m_bokeh_random_color_count = kLightRandomHueCount;
  std::vector<uint32_t> m_bokeh_random_color_table;

  BokehParam m_param, m_prev_param;
  BokehShapeParam m_shape_param, m_prev_shape_param;
  bool m_has_prev = false;
  LightSize m_bok_size;
  LightSize m_img_size, m_scaled_img_size;
  float m_scale_ratio = 1.0f;
  Rect m_roi, m_scaled_roi;
  LightRegion m_region;

  SmartBuffer m_src, m_blur_mask, m_dst;
  SmartBuffer m_focus_src_buff, m_focus_src_mask, m_light_buff, m_scaled_light_buff;
  SmartBuffer m_shape_copy, m_rotated_shape;
  SmartBuffer m_builtin_shape;           // the built-in disc of a record without a shape image
  int32_t m_builtin_id = SHAPE_NONE;     // which one it is
  bool m_builtin_redrawn = false;        // drawn anew this frame: the variants must follow
  // The ten disc variants, each with the temporary image of its sub-pixel paste.
  std::array<LightShape, kSizeCount> m_bokeh_types;
  bool m_types_ready = false;
  LightSize m_types_map;  // the light map the variants were cut for
  BokehFocus m_focus_effect;
  int32_t m_region_mode = REGION_CENTRES_INSIDE;
};

}  // namespace Korvane
