// The AVX2 forms of the sparkle pastes.
#include "effects/sparkle/SparklePaste.h"

namespace Korvane {

int32_t PasteSparkle_AVX2(const LightShape& sparkle_buff, SmartBuffer& light_buff, PointI pt_int,
                          const LightPasteArgs& args, const Rect& spk_roi) {
  return PasteLight_AVX2(sparkle_buff, light_buff, pt_int, args, spk_roi);
}

int32_t BilinearPasteSparkle_AVX2(LightShape& sparkle_buff, SmartBuffer& light_buff, PointF pt,
                                  const LightPasteArgs& args, const Rect& spk_roi) {
  return BilinearPasteLight_AVX2(sparkle_buff, light_buff, pt, args, spk_roi);
}

}  // namespace Korvane
