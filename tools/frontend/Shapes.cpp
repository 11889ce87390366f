#include "Shapes.h"

#include <iterator>
#include <utility>

namespace KorvaneFrontend {

namespace {

int32_t Lookup(const std::pair<const char*, int32_t>* table, size_t n, const std::string& name) {
  for (size_t i = 0; i < n; ++i)
    if (name == table[i].first) return table[i].second;
  return Korvane::SHAPE_NONE;
}

}  // namespace

int32_t BokehShapeNamed(const std::string& name) {
  static const std::pair<const char*, int32_t> kNames[] = {{"circle", Korvane::SHAPE_CIRCLE},
                                                           {"hexagon", Korvane::SHAPE_HEXAGON},
                                                           {"octagon", Korvane::SHAPE_OCTAGON},
                                                           {"heart", Korvane::SHAPE_HEART},
                                                           {"star", Korvane::SHAPE_STAR}};
  return Lookup(kNames, std::size(kNames), name);
}

int32_t GlintShapeNamed(const std::string& name) {
  static const std::pair<const char*, int32_t> kNames[] = {{"star4", Korvane::SHAPE_STAR4},
                                                           {"star6", Korvane::SHAPE_STAR6},
                                                           {"star8", Korvane::SHAPE_STAR8},
                                                           {"cross", Korvane::SHAPE_CROSS}};
  return Lookup(kNames, std::size(kNames), name);
}

bool DrawShape(const KorvaneEngine& engine, int32_t shape, Image& image) {
  if (!Korvane::IsDiscShape(shape) && !Korvane::IsGlintShape(shape)) return false;
  const int32_t side = Korvane::IsDiscShape(shape) ? Korvane::kBokehShapeSide : Korvane::kGlintShapeSide;
  image = Image(side, side, 4);
  Korvane::ImageBuffer b = image.View().Buffer();
  return engine.DrawLightShape(shape, &b) >= 0;
}

}  // namespace KorvaneFrontend
