// The AVX2 forms of the bokeh pastes.
#include "effects/bokeh/BokehPaste.h"

namespace Korvane {

int32_t PasteBokeh_AVX2(const LightShape& bokeh_buff, SmartBuffer& light_buff, PointI pt_int,
                        const LightPasteArgs& args, const Rect& bok_roi) {
  return PasteLight_AVX2(bokeh_buff, light_buff, pt_int, args, bok_roi);
}

int32_t BilinearPasteBokeh_AVX2(LightShape& bokeh_buff, SmartBuffer& light_buff, PointF pt,
                                const LightPasteArgs& args, const Rect& bok_roi) {
  return BilinearPasteLight_AVX2(bokeh_buff, light_buff, pt, args, bok_roi);
}

}  // namespace Korvane
