#include "Pixels.h"

#include <utility>

namespace KorvaneGimp {

using KorvaneFrontend::Image;

namespace {

// 8-bit R'G'B'A in the drawable's own colour space.
const Babl* Rgba8Of(gint32 drawable) {
  return babl_format_with_space("R'G'B'A u8", gimp_drawable_get_format(drawable));
}

// R'G'B'A and B'G'R'A differ by the order of the first and third bytes.
void SwapRedAndBlue(Image& img) {
  for (size_t i = 0; i < img.pixels.size(); i += 4) std::swap(img.pixels[i], img.pixels[i + 2]);
}

// The rectangle x, y, w, h of `drawable` (its own pixels) as BGRA; 0 outside it.
Image ReadBgra(gint32 drawable, gint x, gint y, gint w, gint h) {
  Image img(w, h, 4);
  GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
  const GeglRectangle rect = {x, y, w, h};
  gegl_buffer_get(buffer, &rect, 1.0, Rgba8Of(drawable), img.pixels.data(), w * 4, GEGL_ABYSS_NONE);
  g_object_unref(buffer);
  SwapRedAndBlue(img);
  return img;
}

}  // namespace

Image ReadLayer(gint32 layer) {
  return ReadBgra(layer, 0, 0, gimp_drawable_width(layer), gimp_drawable_height(layer));
}

Image ReadGray(gint32 item, gint32 layer) {
  gint lx = 0, ly = 0, ix = 0, iy = 0;
  gimp_drawable_offsets(layer, &lx, &ly);
  gimp_drawable_offsets(item, &ix, &iy);
  const gint w = gimp_drawable_width(layer), h = gimp_drawable_height(layer);
  if (!gimp_item_is_channel(item) && !gimp_item_is_layer_mask(item)) {
    return KorvaneFrontend::GrayOf(ReadBgra(item, lx - ix, ly - iy, w, h).View());
  }
  // A channel is a coverage mask: its values are read as they are, in no
  // colour space ("Y u8" is GIMP's own form of 8-bit channels).
  Image gray(w, h, 1);
  GeglBuffer* buffer = gimp_drawable_get_buffer(item);
  const GeglRectangle rect = {lx - ix, ly - iy, w, h};
  gegl_buffer_get(buffer, &rect, 1.0, babl_format("Y u8"), gray.pixels.data(), w, GEGL_ABYSS_NONE);
  g_object_unref(buffer);
  return gray;
}

bool WriteLayer(gint32 layer, const Image& bgra, gint32 x, gint32 y, bool undo) {
  // GIMP merges the shadow buffer over the whole of the selection's bounds,
  // so all of that area is written: the render where it lies, the layer's
  // own pixels around it.
  gint mx = 0, my = 0, mw = 0, mh = 0;
  if (!gimp_drawable_mask_intersect(layer, &mx, &my, &mw, &mh)) return false;
  Image out = ReadBgra(layer, mx, my, mw, mh);
  const gint left = MAX(mx, x), top = MAX(my, y);
  const gint right = MIN(mx + mw, x + bgra.width), bottom = MIN(my + mh, y + bgra.height);
  // The colour comes from the render, the alpha from the layer as it is.
  for (gint row = top; row < bottom; ++row) {
    const uint8_t* from = bgra.at(left - x, row - y);
    uint8_t* to = out.at(left - mx, row - my);
    for (gint i = left; i < right; ++i, from += 4, to += 4) to[0] = from[0], to[1] = from[1], to[2] = from[2];
  }
  SwapRedAndBlue(out);
  GeglBuffer* shadow = gimp_drawable_get_shadow_buffer(layer);
  const GeglRectangle rect = {mx, my, mw, mh};
  gegl_buffer_set(shadow, &rect, 0, Rgba8Of(layer), out.pixels.data(), mw * 4);
  g_object_unref(shadow);  // flushes the tiles to GIMP
  gimp_drawable_merge_shadow(layer, undo);
  gimp_drawable_update(layer, mx, my, mw, mh);
  return true;
}

}  // namespace KorvaneGimp
