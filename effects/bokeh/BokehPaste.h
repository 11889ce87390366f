// The bokeh disc pastes under the names the effect's log gives them: the
// shared light pastes of core/LightPaste.h, whole-pixel and sub-pixel, plain,
// SSE4.1 and AVX2.
#pragma once

#include <cstdint>

#include "core/LightMap.h"
#include "core/SystemInfo.h"

namespace Korvane {

int32_t PasteBokeh(const LightShape& bokeh_buff, SmartBuffer& light_buff, PointI pt_int, const LightPasteArgs& args,
                   const Rect& bok_roi);
int32_t PasteBokeh_SSE(const LightShape& bokeh_buff, SmartBuffer& light_buff, PointI pt_int,
                       const LightPasteArgs& args, const Rect& bok_roi);
int32_t BilinearPasteBokeh(LightShape& bokeh_buff, SmartBuffer& light_buff, PointF pt, const LightPasteArgs& args,
                           const Rect& bok_roi);
int32_t BilinearPasteBokeh_SSE(LightShape& bokeh_buff, SmartBuffer& light_buff, PointF pt,
                               const LightPasteArgs& args, const Rect& bok_roi);
int32_t PasteBokeh_AVX2(const LightShape& bokeh_buff, SmartBuffer& light_buff, PointI pt_int,
                        const LightPasteArgs& args, const Rect& bok_roi);
int32_t BilinearPasteBokeh_AVX2(LightShape& bokeh_buff, SmartBuffer& light_buff, PointF pt,
                                const LightPasteArgs& args, const Rect& bok_roi);

// The forms `info` picks, with the call texts of the effect's log lines.
LightPasteNames BokehPasteNames(const SystemInfo& info);

}  // namespace Korvane
