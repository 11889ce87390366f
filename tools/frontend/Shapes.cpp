#include "Shapes.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include <korvane/effects/sparkle/Sparkle.h>

namespace KorvaneFrontend {

namespace {

// ---- Bokeh discs -----------------------------------------------------------------

constexpr int kDiscSize = 128;

// Inside test of a shape in the unit square [-1, 1]^2.
using Inside = std::function<bool(double x, double y)>;

Inside RegularPolygon(int sides, double radius) {
  const double apothem = radius * std::cos(M_PI / sides);
  return [=](double x, double y) {
    for (int k = 0; k < sides; ++k) {
      const double a = (k + 0.5) * 2 * M_PI / sides;  // a flat edge at the top, as aperture blades make
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
    const double sector = 2 * M_PI / 5, t = std::fabs(std::fmod(std::fabs(a) + sector / 2, sector) - sector / 2);
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

// A lens-drawn light: the shape filled at 205 with a rim that reaches 255,
// anti-aliased by 4 x 4 samples a pixel.
Image DrawDisc(const Inside& inside) {
  Image img(kDiscSize, kDiscSize, 4);
  for (int y = 0; y < kDiscSize; ++y)
    for (int x = 0; x < kDiscSize; ++x) {
      int outer = 0, inner = 0;
      for (int sy = 0; sy < 4; ++sy)
        for (int sx = 0; sx < 4; ++sx) {
          const double u = ((x + (sx + 0.5) / 4) / kDiscSize) * 2 - 1, v = ((y + (sy + 0.5) / 4) / kDiscSize) * 2 - 1;
          outer += inside(u, v);
          inner += inside(u / 0.9, v / 0.9);
        }
      const double value = (205.0 * outer + 50.0 * (outer - inner)) / 16.0;
      uint8_t* p = img.at(x, y);
      p[0] = p[1] = p[2] = static_cast<uint8_t>(std::lround(value));
      p[3] = 255;
    }
  return img;
}

// ---- Sparkle glints ----------------------------------------------------------------

// A glint as a star filter draws it: a bright soft core with a faint halo,
// and `spikes` thin diffraction spikes that narrow and fade toward their tips.
// `long_every` > 1 makes every other spike half as long (an eight-pointed
// star with four long and four short rays). `halo` 0 leaves only the core.
Image DrawGlint(int spikes, int long_every, float halo) {
  const int n = Korvane::SPK_SIZE;
  const double c = (n - 1) * 0.5;
  Image img(n, n, 4);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const double dx = (x - c) / c, dy = (y - c) / c, r = std::hypot(dx, dy);
      double v = std::exp(-r * r * 90.0) + halo * std::exp(-r * r * 14.0);
      for (int k = 0; k < spikes; ++k) {
        const double a = M_PI * 2 * k / spikes + M_PI / 2;  // the first spike points up
        const double along = dx * std::cos(a) + dy * std::sin(a);
        if (along <= 0) continue;
        const double length = (long_every > 1 && k % long_every) ? 0.5 : 1.0;
        const double t = along / length;
        if (t >= 1) continue;
        const double across = std::fabs(-dx * std::sin(a) + dy * std::cos(a)) * c;  // in pixels
        const double width = 3.5 * (1.0 - 0.6 * t);
        v += std::exp(-across * across / (width * width)) * std::pow(1 - t, 1.3);
      }
      const int byte = static_cast<int>(std::lround(255.0 * std::min(1.0, v)));
      uint8_t* p = img.at(x, y);
      p[0] = p[1] = p[2] = static_cast<uint8_t>(byte);
      p[3] = 255;
    }
  return img;
}

}  // namespace

bool DrawBokehShape(const std::string& name, Image& shape) {
  if (name == "circle") shape = DrawDisc([](double x, double y) { return x * x + y * y <= 0.9 * 0.9; });
  else if (name == "hexagon") shape = DrawDisc(RegularPolygon(6, 0.9));
  else if (name == "octagon") shape = DrawDisc(RegularPolygon(8, 0.9));
  else if (name == "heart") shape = DrawDisc(Heart(0.9));
  else if (name == "star") shape = DrawDisc(Star(0.92));
  else return false;
  return true;
}

bool DrawGlintShape(const std::string& name, Image& shape) {
  if (name == "star4") shape = DrawGlint(4, 1, 0.3f);
  else if (name == "star6") shape = DrawGlint(6, 1, 0.3f);
  else if (name == "star8") shape = DrawGlint(8, 2, 0.3f);
  else if (name == "cross") shape = DrawGlint(4, 1, 0.0f);
  else return false;
  return true;
}

}  // namespace KorvaneFrontend
