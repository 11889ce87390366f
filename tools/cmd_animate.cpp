// korvane animate: a still photo, flow lines and an optional still-region
// mask become a seamless loop, written as animated WebP, GIF or PNG frames.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AnimationWriter.h"
#include "Command.h"
#include "ToolSupport.h"
#include "effects/animation/Animation.h"

namespace KorvaneTool {
namespace {

struct AnimateOptions {
  std::string input;
  std::string flows;
  std::string still;
  std::string output;
  int frames = 48;
  int fps = 24;
  int loop_mode = 2;
  int quality = 80;
};

struct FlowLine {
  uint32_t type;
  std::vector<float> points;  // x, y pairs
};

// Reads {"flows": [{"type": "path"|"anchor"|"stroke", "points": [[x, y], ...]}, ...]}.
bool LoadFlows(const std::string& path, std::vector<FlowLine>& flows, std::string& error) {
  std::ifstream file(path);
  if (!file) {
    error = "cannot read " + path;
    return false;
  }
  nlohmann::json doc;
  try {
    doc = nlohmann::json::parse(file);
  } catch (const nlohmann::json::parse_error& e) {
    error = path + ": not valid JSON (" + e.what() + ")";
    return false;
  }
  if (!doc.is_object() || !doc.contains("flows") || !doc["flows"].is_array()) {
    error = path + ": expected an object with a \"flows\" array";
    return false;
  }
  const auto& list = doc["flows"];
  for (size_t i = 0; i < list.size(); ++i) {
    const std::string where = path + ": flows[" + std::to_string(i) + "]";
    const auto& f = list[i];
    if (!f.is_object() || !f.contains("type") || !f["type"].is_string()) {
      error = where + " needs a \"type\": \"path\", \"anchor\" or \"stroke\"";
      return false;
    }
    const std::string type = f["type"].get<std::string>();
    FlowLine line;
    size_t needed = 2;
    if (type == "path") {
      line.type = Korvane::FLOW_PATH;
    } else if (type == "stroke") {
      line.type = Korvane::FLOW_STROKE;
    } else if (type == "anchor") {
      line.type = Korvane::FLOW_ANCHOR;
      needed = 1;
    } else {
      error = where + ".type is \"" + type + "\"; use \"path\", \"anchor\" or \"stroke\"";
      return false;
    }
    if (!f.contains("points") || !f["points"].is_array()) {
      error = where + " needs \"points\": [[x, y], ...]";
      return false;
    }
    const auto& pts = f["points"];
    for (size_t k = 0; k < pts.size(); ++k) {
      const auto& p = pts[k];
      if (!p.is_array() || p.size() != 2 || !p[0].is_number() || !p[1].is_number() ||
          !std::isfinite(p[0].get<double>()) || !std::isfinite(p[1].get<double>())) {
        error = where + ".points[" + std::to_string(k) + "] must be [x, y] with two numbers";
        return false;
      }
      line.points.push_back(p[0].get<float>());
      line.points.push_back(p[1].get<float>());
    }
    if (pts.size() < needed) {
      error = where + ": a " + type + " needs at least " + std::to_string(needed) + " point" + (needed > 1 ? "s" : "");
      return false;
    }
    flows.push_back(std::move(line));
  }
  return true;
}

// A one-line progress bar, redrawn in place on a terminal.
void ShowProgress(int done, int total) {
  const int width = 30, filled = done * width / total;
  std::fprintf(stderr, "\rrendering [%s%s] %d/%d", std::string(filled, '#').c_str(),
               std::string(width - filled, '.').c_str(), done, total);
  if (done == total) std::fprintf(stderr, "\n");
  std::fflush(stderr);
}

struct LoopResult {
  std::string kind;
  double ms_per_frame = 0;
};

// Renders the whole loop into `output`. 0 or an exit code.
int RenderLoop(Engine& engine, Image& photo, Image& still, const std::vector<FlowLine>& lines, const AnimateOptions& o,
               bool progress, LoopResult& result) {
  auto* fx = engine.Create<Korvane::Animation>(Korvane::EFFECT_ANIMATION);
  if (!fx) return 1;
  // The effect belongs to the engine; give it back however this ends.
  std::unique_ptr<Korvane::Animation, std::function<void(Korvane::Animation*)>> owner(
      fx, [&engine](Korvane::Animation* a) {
        void* p = a;
        engine.get()->DeleteEffect(&p, Korvane::EFFECT_ANIMATION);
      });
  std::vector<Korvane::FlowData> flows;
  for (const FlowLine& l : lines) flows.push_back({l.points.data(), static_cast<uint32_t>(l.points.size() / 2), l.type});
  Image frame(photo.width, photo.height, 4);
  Korvane::ImageBuffer in = photo.Buffer(), mask = still.Buffer(), out = frame.Buffer();
  Korvane::AnimationParam p;
  p.input = &in;
  p.mask = &mask;
  p.output = &out;
  p.loop_mode = o.loop_mode;
  p.anime_frame_count = static_cast<uint32_t>(o.frames);
  p.p_flow = flows.empty() ? nullptr : flows.data();
  p.flow_num = static_cast<uint32_t>(flows.size());
  if (int rc = CheckCode(fx->Init(&p), "animation Init")) return rc;

  std::string error;
  auto writer = OpenAnimationWriter(o.output, photo.width, photo.height, o.fps, o.quality, error);
  if (!writer) return Fail(error);
  double render_ms = 0;
  for (int f = 0; f < o.frames; ++f) {
    const auto t0 = std::chrono::steady_clock::now();
    const int32_t hr = fx->Animate(&p, f);
    render_ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (int rc = CheckCode(hr, "animation frame " + std::to_string(f))) return rc;
    if (!writer->AddFrame(frame, error)) return Fail(error);
    if (progress) ShowProgress(f + 1, o.frames);
  }
  if (!writer->Finish(error)) return Fail(error);
  result.kind = writer->Kind();
  result.ms_per_frame = render_ms / o.frames;
  return 0;
}

int RunAnimate(const AnimateOptions& o) {
  Image photo, still;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  std::vector<FlowLine> lines;
  if (!LoadFlows(o.flows, lines, error)) return Fail(error);
  if (!o.still.empty()) {
    if (!LoadGray(o.still, still, error)) return Fail(error);
    if (still.width != photo.width || still.height != photo.height) {
      return Fail("the still mask is " + std::to_string(still.width) + "x" + std::to_string(still.height) +
                  " but the photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height));
    }
  } else {
    still = Image(photo.width, photo.height, 1, 0);
  }
  if (int rc = CheckOutputPath(o.output, {o.input, o.flows, o.still})) return rc;

  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  LoopResult result;
  if (int rc = RenderLoop(engine, photo, still, lines, o, isatty(fileno(stderr)) != 0, result)) return rc;
  std::printf("wrote %s (%s, %d frames at %d fps, %dx%d, %.1f ms a frame)\n", o.output.c_str(), result.kind.c_str(),
              o.frames, o.fps, photo.width, photo.height, result.ms_per_frame);
  return 0;
}

RegisterCommand reg("animate", "Turn a photo and flow lines into a seamless loop (WebP, GIF or PNG frames)",
                    [](CLI::App& sub) {
  auto o = std::make_shared<AnimateOptions>();
  sub.add_option("photo", o->input, "Photo to read (PNG or JPEG)")->required();
  sub.add_option("--flows", o->flows,
                 "JSON file of flow lines in image pixels: {\"flows\": [{\"type\": \"path\", \"points\": "
                 "[[x, y], ...]}, ...]}; types path, stroke (moves along the line) and anchor (holds a point)")
      ->required();
  sub.add_option("--still", o->still, "Mask image (same size): white parts never move");
  sub.add_option("-o,--output", o->output, "Where to write: NAME.webp, NAME.gif, or a folder for PNG frames")
      ->required();
  sub.add_option("--frames", o->frames, "Frames in one loop")->check(CLI::Range(2, 1000))->capture_default_str();
  sub.add_option("--fps", o->fps, "Frames a second")->check(CLI::Range(1, 100))->capture_default_str();
  sub.add_option("--loop-mode", o->loop_mode,
                 "2 seamless loop (cross-fades two phases), 1 half-step blend, 0 plain drift")
      ->check(CLI::Range(0, 2))
      ->capture_default_str();
  sub.add_option("--quality", o->quality, "WebP quality (100 = lossless)")->check(CLI::Range(1, 100))->capture_default_str();
  return std::function<int()>([o] { return RunAnimate(*o); });
});

// The demo's sea and clouds drift past the still lighthouse.
RegisterDemoStep demo(80, "animate: the sea and clouds in a seamless loop", [](DemoContext& ctx) {
  std::vector<FlowLine> lines;
  for (const DemoFlow& f : ctx.scene.flows) {
    FlowLine l{static_cast<uint32_t>(f.type), {}};
    for (const auto& p : f.points) l.points.insert(l.points.end(), {p.first, p.second});
    lines.push_back(std::move(l));
  }
  // The sun sits between the drifting clouds and the anchored shore; a ring
  // of anchors keeps it round instead of cross-fading two displaced suns.
  const float w = static_cast<float>(ctx.scene.photo.width), h = static_cast<float>(ctx.scene.photo.height);
  const float sun_x = 0.26f * w, sun_y = 0.49f * h, ring = 0.08f * h;
  for (int i = 0; i < 8; ++i) {
    const float a = static_cast<float>(i) * 0.785398f;
    lines.push_back({Korvane::FLOW_ANCHOR, {sun_x + ring * std::cos(a), sun_y + ring * std::sin(a)}});
  }
  Image photo = ctx.scene.photo, still = ctx.scene.still;
  for (const char* name : {"animation.webp", "animation.gif"}) {
    AnimateOptions o;
    o.frames = 24;
    o.fps = 24;
    o.output = (std::filesystem::path(ctx.out_dir) / name).string();
    LoopResult result;
    if (int rc = RenderLoop(ctx.engine, photo, still, lines, o, false, result)) return rc;
    ctx.Report(o.output, result.ms_per_frame);
  }
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
