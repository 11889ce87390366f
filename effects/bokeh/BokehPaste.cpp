#include "effects/bokeh/BokehPaste.h"

#include "core/Simd.h"

namespace Korvane {

int32_t PasteBokeh(const LightShape& bokeh_buff, SmartBuffer& light_buff, PointI pt_int, const LightPasteArgs& args,
                   const Rect& bok_roi) {
  return PasteLight(bokeh_buff, light_buff, pt_int, args, bok_roi);
}

int32_t BilinearPasteBokeh(LightShape& bokeh_buff, SmartBuffer& light_buff, PointF pt, const LightPasteArgs& args,
                           const Rect& bok_roi) {
  return BilinearPasteLight(bokeh_buff, light_buff, pt, args, bok_roi);
}

LightPasteNames BokehPasteNames(const SystemInfo& info) {
  LightPasteNames n;
  n.roi_call = "CalPasteBokehROI(bok_roi, pt, d, h, w)";
  n.bilinear_roi_call = "CalBilinearPasteBokehROI(bok_roi, pt, d, h, w)";
  n.paste_call = "%s(bokeh_buff, light_buff, pt_int, current_lightness, color, bok_roi)";
  n.bilinear_paste_call = "%s(bokeh_buff, tmp_bokeh_buff, light_buff, pt, current_lightness, color, bok_roi)";
  n.paste = KORVANE_PICK_AVX2(info, PasteBokeh, PasteBokeh_SSE, PasteBokeh_AVX2);
  n.bilinear_paste =
      KORVANE_PICK_AVX2(info, BilinearPasteBokeh, BilinearPasteBokeh_SSE, BilinearPasteBokeh_AVX2);
  return n;
}

}  // namespace Korvane
