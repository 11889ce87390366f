// The sparkle glint pastes under the names the effect's log gives them: the
// shared light pastes of core/LightPaste.h, whole-pixel and sub-pixel, plain,
// SSE4.1 and AVX2.
#pragma once

#include <cstdint>

#include "core/LightMap.h"
#include "core/SystemInfo.h"

namespace Korvane {

int32_t PasteSparkle(const LightShape& sparkle_buff, SmartBuffer& light_buff, PointI pt_int,
                     const LightPasteArgs& args, const Rect& spk_roi);
int32_t PasteSparkle_SSE(const LightShape& sparkle_buff, SmartBuffer& light_buff, PointI pt_int,
                         const LightPasteArgs& args, const Rect& spk_roi);
int32_t BilinearPasteSparkle(LightShape& sparkle_buff, SmartBuffer& light_buff, PointF pt, const LightPasteArgs& args,
                             const Rect& spk_roi);
int32_t BilinearPasteSparkle_SSE(LightShape& sparkle_buff, SmartBuffer& light_buff, PointF pt,
                                 const LightPasteArgs& args, const Rect& spk_roi);
int32_t PasteSparkle_AVX2(const LightShape& sparkle_buff, SmartBuffer& light_buff, PointI pt_int,
                          const LightPasteArgs& args, const Rect& spk_roi);
int32_t BilinearPasteSparkle_AVX2(LightShape& sparkle_buff, SmartBuffer& light_buff, PointF pt,
                                  const LightPasteArgs& args, const Rect& spk_roi);

// The forms `info` picks, with the call texts of the effect's log lines.
LightPasteNames SparklePasteNames(const SystemInfo& info);

}  // namespace Korvane
