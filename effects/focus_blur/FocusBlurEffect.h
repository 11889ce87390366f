// The focus blur implementation: a strong and a weak masked Gaussian blur of
// the photo, blended by each pixel's guide distance from the focus value.
#pragma once

#include <cstdint>
#include <memory>

#include "core/EffectCore.h"
#include "effects/focus_blur/FocusBlur.h"

namespace Korvane {

class FocusBlurEffect final : public FocusBlur, public EffectCore {
 public:
  explicit FocusBlurEffect(CThreadPool* pool) : EffectCore(pool) {}
  ~FocusBlurEffect() override = default;

  int32_t Init(const FocusBlurParam* param) override;
  int32_t Process(const FocusBlurParam* param) override;
  int32_t Uninit() override;

 private:
  // The images and mask one Process call works on.
  struct Frame {
    SmartBuffer in, guide, out;
    SmartBuffer effect;                // the strong blur's working image
    Rect region;                       // the whole photo
    std::shared_ptr<bool[]> blur_mask;
    bool output_free = false;          // the output shares no memory with the photo or guide
  };

  // Runs the passes; returns the first failure, already logged.
  int32_t Render(const FocusBlurParam& param);
  // With true_scale, for a blur the kernel's reach would cap: the blurs on
  // reduced copies, enlarged and blended at full size.
  int32_t TrueScaleRender(const FocusBlurParam& param);
  // Where the strong blur works: the output when it may, else a fresh image.
  int32_t PlanBuffers(const FocusBlurParam& param, Frame& f);
  int32_t StrongBlur(const FocusBlurParam& param, Frame& f);
  // The weak blur, a sixth of the strength, and the blend into the output.
  int32_t WeakBlurAndBlend(const FocusBlurParam& param, const Frame& f);
};

}  // namespace Korvane
