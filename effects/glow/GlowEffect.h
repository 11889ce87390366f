// The glow effect's implementation: working images, the byte and float
// pipelines, and the blend-kernel tables.
#pragma once

#include <cstdint>

#include "core/BilinearResize.h"
#include "core/EffectCore.h"
#include "effects/glow/Glow.h"
#include "effects/glow/GlowBlend.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

class GlowEffect final : public Glow, public EffectCore {
 public:
  explicit GlowEffect(CThreadPool* pool);
  ~GlowEffect() override = default;

  int32_t Initialize(int32_t width, int32_t height) override;
  int32_t Process(const GlowParam& param) override;
  int32_t ReleaseBuffer() override;

  // Sizes chosen by Initialize, for checks and tools.
  int32_t GetAlignedWidth() const { return m_aligned_img_w; }
  int32_t GetAlignedHeight() const { return m_aligned_img_h; }
  int32_t GetScaledWidth() const { return m_scaled_img_w; }
  int32_t GetScaledHeight() const { return m_scaled_img_h; }
  // The blur radius in half-size pixels that Process uses for glow_radius.
  int32_t CalBlurRadius(float glow_radius) const;

 private:
  int32_t Validate(const GlowParam& param) const;
  bool BuffersReady() const;
  void ReleaseAll();

  // floats: the float blend modes, whose highlight stays FLOAT96 to the blend.
  int32_t RunPipeline(bool floats);
  // Stages shared by both pipelines.
  int32_t CopyAndDetectHighlight();
  int32_t ShrinkAndSoften(bool to_bytes);
  int32_t AdjustColor(bool floats);
  int32_t UpsampleAndBlend(bool floats);

  SmartBuffer m_aligned_src;    // the photo's copy (made when the output shares its memory), image-size fields
  SmartBuffer m_aligned_hlr;    // full-size highlight, same layout
  SmartBuffer m_scaled_hlr;     // half-size highlight, BGRA
  SmartBuffer m_scaled_img_f;   // half-size highlight, FLOAT96
  SmartBuffer m_img_f;          // full-size float highlight (float blend modes)
  GlowParam m_param;            // settings of the current Process call
  const SmartBuffer* m_photo = &m_aligned_src;  // the photo the stages read: m_param.src or its copy
  int32_t m_img_w = 0;
  int32_t m_img_h = 0;
  int32_t m_aligned_img_w = 0;
  int32_t m_aligned_img_h = 0;
  int32_t m_scaled_img_w = 0;
  int32_t m_scaled_img_h = 0;
  const float m_scale = 0.5f;   // the glow is built at half size
  int32_t m_blend_mode_to_slot[kGlowBlendModeCount];
  ThreadTask m_blend_kernels[kGlowBlendSlotCount];       // plain forms
  ThreadTask m_blend_kernels_sse41[kGlowBlendSlotCount];  // SSE4.1 forms (NULL without them)
  ThreadTask m_blend_kernels_avx2[kGlowBlendSlotCount];   // AVX2 forms (NULL without them)
};

}  // namespace Korvane
