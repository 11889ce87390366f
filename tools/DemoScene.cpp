#include "DemoScene.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "StillOrLoop.h"
#include "ToolSupport.h"

namespace KorvaneTool {

namespace {

float Clamp01(float v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }
float Smooth(float e0, float e1, float x) {
  const float t = Clamp01((x - e0) / (e1 - e0));
  return t * t * (3 - 2 * t);
}
float Mix(float a, float b, float t) { return a + (b - a) * t; }

// Deterministic value noise, so the demo renders the same scene every time.
float Hash(int x, int y) {
  uint32_t h = static_cast<uint32_t>(x) * 374761393u + static_cast<uint32_t>(y) * 668265263u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return static_cast<float>((h ^ (h >> 16)) & 0xFFFF) / 65535.0f;
}
float Noise(float x, float y) {
  const int xi = static_cast<int>(std::floor(x)), yi = static_cast<int>(std::floor(y));
  const float fx = x - xi, fy = y - yi;
  const float sx = fx * fx * (3 - 2 * fx), sy = fy * fy * (3 - 2 * fy);
  return Mix(Mix(Hash(xi, yi), Hash(xi + 1, yi), sx), Mix(Hash(xi, yi + 1), Hash(xi + 1, yi + 1), sx), sy);
}
float Fbm(float x, float y) {
  float v = 0, amp = 0.5f;
  for (int i = 0; i < 4; ++i, x *= 2.03f, y *= 2.03f, amp *= 0.5f) v += amp * Noise(x, y);
  return v;
}

struct Rgb {
  float r, g, b;
};
Rgb MixRgb(Rgb a, Rgb b, float t) { return {Mix(a.r, b.r, t), Mix(a.g, b.g, t), Mix(a.b, b.b, t)}; }

// Where the scene's parts lie, in pixels of a width x height picture.
struct Layout {
  float W, H, horizon, sun_x, sun_y, sun_r, tower_x, tower_top, tower_base, rock_y;
  Layout(int width, int height)
      : W(static_cast<float>(width)), H(static_cast<float>(height)), horizon(0.56f * H), sun_x(0.26f * W),
        sun_y(horizon - 0.07f * H), sun_r(0.045f * H), tower_x(0.68f * W), tower_top(0.2f * H),
        tower_base(0.8f * H), rock_y(0.84f * H) {}
};

// The sky with its sun and the distant shore above the horizon, the sea
// below it; `depth` gets the guide value there.
Rgb Backdrop(const Layout& l, float fx, float fy, float& depth) {
  Rgb c;
  if (fy < l.horizon) {
    // Sunset sky with soft clouds, and a sun near the horizon.
    const float t = fy / l.horizon;
    c = MixRgb({40, 60, 140}, {250, 150, 80}, std::pow(t, 1.6f));
    const float cloud = Smooth(0.55f, 0.8f, Fbm(fx / 140.0f, fy / 50.0f)) * Smooth(0.0f, 0.3f, t) *
                        (1.0f - Smooth(0.75f, 1.0f, t));
    c = MixRgb(c, {255, 200, 190}, cloud * 0.8f);
    const float d = std::hypot(fx - l.sun_x, fy - l.sun_y);
    c = MixRgb(c, {255, 250, 225}, 1.0f - Smooth(l.sun_r * 0.9f, l.sun_r * 1.05f, d));
    c = MixRgb(c, {255, 210, 150}, 0.5f * std::exp(-d / (l.sun_r * 2.5f)));
    depth = 8;
    // The distant shore: a dark strip with small bright lights.
    const float shore = l.horizon - 0.025f * l.H * (0.6f + 0.4f * Noise(fx / 60.0f, 3.0f));
    if (fy > shore) {
      c = {35, 30, 45};
      depth = 40;
    }
    return c;
  }
  // The sea: horizontal ripples catching the sky, and the sun's glitter.
  const float t = (fy - l.horizon) / (l.H - l.horizon);
  c = MixRgb({120, 90, 110}, {20, 50, 90}, Smooth(0.0f, 1.0f, t));
  const float ripple = std::sin(fx / (18.0f + 30.0f * t) + 12.0f * Noise(fx / 90.0f, fy / 12.0f)) *
                       std::sin(fy / (1.5f + 4.0f * t));
  c = MixRgb(c, {230, 190, 170}, Clamp01(ripple) * 0.35f * (1.0f - t));
  const float glitter = std::exp(-std::pow((fx - l.sun_x) / (40.0f + 90.0f * t), 2.0f));
  c = MixRgb(c, {255, 220, 160}, glitter * Clamp01(ripple * 1.5f) * 0.8f);
  depth = 60 + 120 * t;
  return c;
}

// Small bright lights along the distant shore, and a few in the sky.
void AddShoreLights(const Layout& l, Image& photo) {
  for (int i = 0; i < 26; ++i) {
    const int lx = static_cast<int>((0.04f + 0.92f * Hash(i, 7)) * l.W);
    const int ly = static_cast<int>(l.horizon - 0.012f * l.H - 0.01f * l.H * Hash(i, 9));
    if (std::fabs(lx - l.tower_x) < 0.06f * l.W) continue;
    const Rgb tint = MixRgb({255, 230, 150}, {160, 220, 255}, Hash(i, 11));
    for (int dy = -2; dy <= 2; ++dy)
      for (int dx = -2; dx <= 2; ++dx) {
        const int px = lx + dx, py = ly + dy;
        if (px < 0 || py < 0 || px >= photo.width || py >= photo.height) continue;
        const float k = std::exp(-(dx * dx + dy * dy) / 1.5f);
        uint8_t* p = photo.at(px, py);
        p[0] = static_cast<uint8_t>(Mix(p[0], tint.b, k));
        p[1] = static_cast<uint8_t>(Mix(p[1], tint.g, k));
        p[2] = static_cast<uint8_t>(Mix(p[2], tint.r, k));
      }
  }
}

// Flow lines: the sea runs to the right in three bands, the clouds drift;
// anchors hold the shore and the lighthouse's surroundings in place.
void AddFlows(const Layout& l, std::vector<KorvaneFrontend::FlowLine>& flows) {
  const float step = l.W / 12.0f;
  for (float band : {0.66f, 0.78f, 0.92f, 0.16f, 0.34f}) {
    KorvaneFrontend::FlowLine f;
    for (float x = 0.02f * l.W; x < l.W; x += step) f.points.insert(f.points.end(), {x, band * l.H});
    flows.push_back(f);
  }
  for (float x = 0.05f; x < 1.0f; x += 0.15f) flows.push_back({Korvane::FLOW_ANCHOR, {x * l.W, l.horizon - 0.015f * l.H}});
  flows.push_back({Korvane::FLOW_ANCHOR, {l.tower_x - 0.17f * l.W, l.rock_y}});
  flows.push_back({Korvane::FLOW_ANCHOR, {l.tower_x + 0.17f * l.W, l.rock_y}});
}

}  // namespace

DemoScene MakeDemoScene(int width, int height) {
  DemoScene s;
  s.photo = Image(width, height, 4);
  s.depth = Image(width, height, 1);
  s.still = Image(width, height, 1);
  s.subject = Image(width, height, 1);
  s.subject_depth = 220;
  const Layout l(width, height);
  const float W = l.W, H = l.H, tower_x = l.tower_x, tower_top = l.tower_top, tower_base = l.tower_base;

  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float fx = static_cast<float>(x), fy = static_cast<float>(y);
      float depth;
      Rgb c = Backdrop(l, fx, fy, depth);
      // The lighthouse on its rock: the subject that stays sharp and still.
      const float tower_t = (fy - tower_top) / (tower_base - tower_top);
      const float half = (0.028f + 0.022f * Clamp01(tower_t)) * W;
      bool subject = false, tower = false;
      if (tower_t >= 0 && tower_t <= 1 && std::fabs(fx - tower_x) < half) {
        const float shade = 0.55f + 0.45f * std::cos((fx - tower_x) / half * 1.3f);
        const bool red = static_cast<int>(tower_t * 6) % 2 == 0;
        c = red ? Rgb{200 * shade, 40 * shade, 35 * shade} : Rgb{240 * shade, 235 * shade, 225 * shade};
        subject = tower = true;
      }
      const float lamp_y = tower_top - 0.03f * H;
      if (fy >= lamp_y && fy < tower_top && std::fabs(fx - tower_x) < 0.025f * W) {
        c = {255, 245, 200};
        subject = tower = true;
      }
      const float rx = (fx - tower_x) / (0.16f * W), ry = (fy - l.rock_y) / (0.07f * H);
      if (rx * rx + ry * ry < 1.0f + 0.25f * (Noise(fx / 20.0f, fy / 20.0f) - 0.5f) && fy > tower_base - 10) {
        const float n = Fbm(fx / 25.0f, fy / 25.0f);
        c = {60 + 50 * n, 55 + 45 * n, 50 + 40 * n};
        subject = true;
        tower = false;
      }
      if (subject) depth = static_cast<float>(s.subject_depth);

      uint8_t* p = s.photo.at(x, y);
      p[0] = static_cast<uint8_t>(std::clamp(c.b, 0.0f, 255.0f));
      p[1] = static_cast<uint8_t>(std::clamp(c.g, 0.0f, 255.0f));
      p[2] = static_cast<uint8_t>(std::clamp(c.r, 0.0f, 255.0f));
      p[3] = 255;
      *s.depth.at(x, y) = static_cast<uint8_t>(depth);
      *s.still.at(x, y) = subject ? 255 : 0;
      *s.subject.at(x, y) = tower ? 255 : 0;
    }
  }
  AddShoreLights(l, s.photo);
  AddFlows(l, s.flows);
  return s;
}

std::string DemoContext::Path(const std::string& name) const {
  return (std::filesystem::path(out_dir) / name).string();
}

int DemoContext::Save(const std::string& name, const Image& img, double render_ms) {
  const std::string path = Path(name);
  std::string error;
  if (!SaveImage(path, img, 92, error)) return Fail(error);
  Report(path, render_ms);
  return 0;
}

void DemoContext::Report(const std::string& path, double render_ms) {
  ++files_written;
  if (render_ms >= 0) {
    std::printf("  wrote %-40s %8.1f ms\n", path.c_str(), render_ms);
  } else {
    std::printf("  wrote %s\n", path.c_str());
  }
  std::fflush(stdout);
}

int DemoContext::Open(const std::string& command, const Settings& settings, const KorvaneFrontend::Inputs& inputs,
                      std::unique_ptr<KorvaneFrontend::OptionValues>& values,
                      std::unique_ptr<KorvaneFrontend::Session>& session) {
  values = std::make_unique<KorvaneFrontend::OptionValues>(*KorvaneFrontend::FindCommand(command));
  for (const auto& [name, text] : settings) {
    const std::string error = values->Set(name, text);
    if (!error.empty()) return Fail(command + " " + error);
  }
  const KorvaneFrontend::Status s = KorvaneFrontend::OpenSession(engine, *values, scene.photo.View(), inputs, session);
  return KorvaneTool::Report(s);
}

int DemoContext::SaveFrame(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values, int index,
                           int count, const std::string& name) {
  Image frame;
  double ms = 0;
  if (int rc = RenderFrame(session, values, index, count, frame, &ms)) return rc;
  return Save(name, frame, ms);
}

int DemoContext::SaveLoop(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values,
                          const std::string& name) {
  FileSettings files;
  files.fps = static_cast<int>(values.Whole("fps"));
  files.loop_quality = values.Has("quality") ? static_cast<int>(values.Whole("quality")) : 80;
  files.progress = false;
  Output out;
  const FrameChoice choice{KorvaneFrontend::FrameCount(values), -1};
  if (int rc = PlanOutput("-o", Path(name), "", choice, true, out)) return rc;
  Written w;
  if (int rc = WriteFrames(session, values, choice, out, files, scene.photo, w)) return rc;
  Report(out.path, w.render_ms);
  return 0;
}

int DemoContext::Render(const std::string& command, const Settings& settings, const KorvaneFrontend::Inputs& inputs,
                        const std::string& name) {
  std::unique_ptr<KorvaneFrontend::OptionValues> values;
  std::unique_ptr<KorvaneFrontend::Session> session;
  if (int rc = Open(command, settings, inputs, values, session)) return rc;
  if (KorvaneFrontend::FrameCount(*values) > 1) return SaveLoop(*session, *values, name);
  return SaveFrame(*session, *values, 0, 1, name);
}

}  // namespace KorvaneTool
