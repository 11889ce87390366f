// The bokeh effect's background blur: the focus blur of the photo (a strong
// and a weak masked Gaussian blur, blended by the guide's distance from the
// focus value), with both blurs computed on a reduced copy and enlarged
// again. The kernels and stages are the focus blur's own; the reduced
// kernels are the full-size kernels resampled, so the result looks like the
// focus blur of the full photo at the same level, truncation included. With
// true_scale the blurs are the true-scale stage's instead, whose strength
// does not stop growing with the photo.
#pragma once

#include <cstdint>
#include <memory>

#include "core/GaussianBlur.h"
#include "core/ImageBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

struct BokehFocusParam {
  SmartBuffer src;               // BGRA32, the photo
  SmartBuffer guide;             // GRAY8, src's size; no pixels: the whole photo is background
  Rect roi;                      // the part of the result that is needed
  float blur_buff_ratio = 0.5f;  // 0.1..1: size of the reduced copy
  float blur_strength = 1.0f;    // 0..1: focus-blur level 0..100
  float focus_value = 0.9f;      // 0..1 (x 255)
  float focus_range = 0.2f;      // 0..1 (x 255)
  bool true_scale = false;       // the blurs of the true-scale stage instead of the fixed-reach kernel
};

// Weights for a copy reduced by `ratio` that reproduce, in full-size pixels,
// the kernel MakeGaussianWeights gives the full-size image: the taps are the
// full kernel sampled every 1 / ratio pixels up to its last tap, renormalised
// to sum exactly 1. Returns the kernel length (1..37).
int32_t MakeReducedGaussianWeights(int32_t level, int32_t width, int32_t height, float ratio, float* w);

class BokehFocus {
 public:
  // Renders the blurred photo into `out` (BGRA32, src's size) over p.roi,
  // and the blend weight of every pixel of the reduced copy (0 in focus ..
  // 255 fully blurred) into `weight` (GRAY8, created here at the reduced
  // size). With keep set and nothing changed since the last call, `out` and
  // `weight` are left as they are. Logs a failing step; returns its code.
  int32_t Process(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p, bool keep,
                  SmartBuffer& out, SmartBuffer& weight);

  // Frees the reduced copies and forgets the kept result. Returns 0.
  int32_t ReleaseBuffer();

 private:
  // The reduced size and the blur settings of one call, from the record.
  struct Plan {
    float ratio = 1.0f;
    Rect small;  // the reduced copy, whole
    int32_t level = 0, focus_value = 0, focus_range = 0;
    bool guided = false;
  };
  static int32_t CheckRecord(const BokehFocusParam& p, const SmartBuffer& out);
  static Plan PlanFor(const BokehFocusParam& p);
  bool SameAsKept(const BokehFocusParam& p, const SmartBuffer& out) const;
  // The blur of the reduced photo into `buffer` at `level`.
  GaussianBlurParam BlurParam(const BokehFocusParam& p, const Plan& plan, int32_t level,
                              const SmartBuffer& buffer) const;
  // The reduced photo (unless only `weight` is wanted), and with a guide its
  // blur mask and `weight`.
  int32_t Reduce(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p, const Plan& plan,
                 const int32_t* table, SmartBuffer& weight, bool photo = true);
  // The true-scale blurs and blend into `out` over p.roi.
  static int32_t TrueScale(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p,
                           const Plan& plan, SmartBuffer& out);
  // The weak blur, both blurs enlarged over p.roi, and the blend into `out`.
  int32_t BlendWithWeak(CThreadAdapter& adapter, const SystemInfo& info, const BokehFocusParam& p,
                        const Plan& plan, const std::shared_ptr<int32_t[]>& table, SmartBuffer& out);

  SmartBuffer m_small_src, m_small_guide, m_strong, m_weak;
  SmartBuffer m_blur_src_buff, m_sub_blur_src_buff;  // the two blurs enlarged to the photo's size
  std::shared_ptr<bool[]> m_blur_mask;
  int32_t m_mask_w = 0, m_mask_h = 0;
  // What the kept result was made from.
  bool m_kept = false;
  BokehFocusParam m_kept_param;
  const unsigned char* m_kept_out = nullptr;
};

}  // namespace Korvane
