// The focus blur implementation: a strong and a weak masked Gaussian blur of
// the photo, blended by each pixel's guide distance from the focus value.
#pragma once

#include <cstdint>

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
  // Runs the five passes; returns the first failure, already logged.
  int32_t Render(const FocusBlurParam& param);
};

}  // namespace Korvane
