// The built-in light shapes. Discs are anti-aliased by 4 x 4 samples a
// pixel; glints are smooth functions sampled once per pixel.
#include "core/ShapeDrawing.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

constexpr double kPi = 3.14159265358979323846;

// ---- Discs ------------------------------------------------------------------------

// Inside test of a shape in the unit square [-1, 1]^2.
using Inside = std::function<bool(double x, double y)>;

Inside RegularPolygon(int sides, double radius) {
  const double apothem = radius * std::cos(kPi / sides);
  return [=](double x, double y) {
    for (int k = 0; k < sides; ++k) {
      const double a = (k + 0.5) * 2 * kPi / sides;  // a flat edge at the top, as aperture blades make
      if (x * std::sin(a) - y * std::cos(a) > apothem) return false;
    }
    return true;
  };
}

Inside Star(double radius) {
  return [=](double x, double y) {
    // Five points: the boundary radius swings between the outer and inner
    // radius with the angle.
    const double r = std::hypot(x, y), a = std::atan2(x, -y);
    const double sector = 2 * kPi / 5, t = std::fabs(std::fmod(std::fabs(a) + sector / 2, sector) - sector / 2);
    const double inner = radius * 0.42, outer = radius;
    // Straight edges between a tip (t = 0) and a notch (t = sector / 2).
    const double tip_x = 0, tip_y = outer, notch_x = inner * std::sin(sector / 2),
                 notch_y = inner * std::cos(sector / 2);
    const double px = r * std::sin(t), py = r * std::cos(t);
    return (notch_x - tip_x) * (py - tip_y) - (notch_y - tip_y) * (px - tip_x) <= 0;
  };
}

Inside Heart(double radius) {
  return [=](double x, double y) {
    const double hx = x / radius * 1.2, hy = -y / radius * 1.2 + 0.2;
    const double q = hx * hx + hy * hy - 1;
    return q * q * q - hx * hx * hy * hy * hy <= 0;
  };
}

void SetGray(uint8_t* p, int32_t v) {
  p[0] = p[1] = p[2] = static_cast<uint8_t>(v);
  p[3] = 255;
}

// A lens-drawn light: the shape filled at 205 with a rim that reaches 255.
void DrawDisc(const Inside& inside, const ImageBuffer& img) {
  const int32_t w = img.width, h = img.height;
  for (int32_t y = 0; y < h; ++y) {
    uint8_t* row = RowPtr(img, y);
    for (int32_t x = 0; x < w; ++x) {
      int outer = 0, inner = 0;
      for (int sy = 0; sy < 4; ++sy)
        for (int sx = 0; sx < 4; ++sx) {
          const double u = ((x + (sx + 0.5) / 4) / w) * 2 - 1, v = ((y + (sy + 0.5) / 4) / h) * 2 - 1;
          outer += inside(u, v);
          inner += inside(u / 0.9, v / 0.9);
        }
      const double value = (205.0 * outer + 50.0 * (outer - inner)) / 16.0;
      SetGray(row + 4 * x, static_cast<int32_t>(std::lround(value)));
    }
  }
}

// ---- Glints -----------------------------------------------------------------------

// A glint as a star filter draws it: a bright soft core with a faint halo,
// and `spikes` thin diffraction spikes that narrow and fade toward their
// tips. `long_every` > 1 makes every other spike half as long. `halo` 0
// leaves only the core. Spike widths are in pixels of a 200-pixel glint.
void DrawGlint(int spikes, int long_every, float halo, const ImageBuffer& img) {
  const double cx = (img.width - 1) * 0.5, cy = (img.height - 1) * 0.5;
  const double c = std::max(std::min(cx, cy), 0.5);
  const double pixel_scale = c / 99.5;
  for (int32_t y = 0; y < img.height; ++y) {
    uint8_t* row = RowPtr(img, y);
    for (int32_t x = 0; x < img.width; ++x) {
      const double dx = (x - cx) / c, dy = (y - cy) / c, r = std::hypot(dx, dy);
      double v = std::exp(-r * r * 90.0) + halo * std::exp(-r * r * 14.0);
      for (int k = 0; k < spikes; ++k) {
        const double a = kPi * 2 * k / spikes + kPi / 2;  // the first spike points up
        const double along = dx * std::cos(a) + dy * std::sin(a);
        if (along <= 0) continue;
        const double length = (long_every > 1 && k % long_every) ? 0.5 : 1.0;
        const double t = along / length;
        if (t >= 1) continue;
        const double across = std::fabs(-dx * std::sin(a) + dy * std::cos(a)) * c;  // in pixels
        const double width = 3.5 * (1.0 - 0.6 * t) * pixel_scale;
        v += std::exp(-across * across / (width * width)) * std::pow(1 - t, 1.3);
      }
      SetGray(row + 4 * x, static_cast<int32_t>(std::lround(255.0 * std::min(1.0, v))));
    }
  }
}

}  // namespace

int32_t DrawBuiltinShape(int32_t shape, const ImageBuffer& image) {
  const int32_t hr = CheckImage(&image, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (image.width > kMaxImageSide || image.height > kMaxImageSide) return E_INVALIDARG;
  switch (shape) {
    case SHAPE_CIRCLE: DrawDisc([](double x, double y) { return x * x + y * y <= 0.9 * 0.9; }, image); break;
    case SHAPE_HEXAGON: DrawDisc(RegularPolygon(6, 0.9), image); break;
    case SHAPE_OCTAGON: DrawDisc(RegularPolygon(8, 0.9), image); break;
    case SHAPE_HEART: DrawDisc(Heart(0.9), image); break;
    case SHAPE_STAR: DrawDisc(Star(0.92), image); break;
    case SHAPE_STAR4: DrawGlint(4, 1, 0.3f, image); break;
    case SHAPE_STAR6: DrawGlint(6, 1, 0.3f, image); break;
    case SHAPE_STAR8: DrawGlint(8, 2, 0.3f, image); break;
    case SHAPE_CROSS: DrawGlint(4, 1, 0.0f, image); break;
    default: return E_INVALIDARG;
  }
  return S_OK;
}

int32_t DrawBuiltinShape(int32_t shape, SmartBuffer& image) {
  return DrawBuiltinShape(shape, MapView(image, FullRect(image)));
}

int32_t MakeBuiltinShape(int32_t shape, SmartBuffer& image) {
  if (!IsDiscShape(shape) && !IsGlintShape(shape)) return E_INVALIDARG;
  const int32_t side = IsDiscShape(shape) ? kBokehShapeSide : kGlintShapeSide;
  const int32_t hr = CreateSmartBufferData(image, side, side, PIXEL_BGRA32);
  return hr < 0 ? hr : DrawBuiltinShape(shape, image);
}

}  // namespace Korvane
