// korvane animate: a still photo, flow lines and an optional still-region
// mask become a seamless loop, written as animated WebP, GIF or PNG frames.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AnimationWriter.h"
#include "Command.h"
#include "JsonInput.h"
#include "Options.h"
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
  bool quiet = false;
};

struct FlowLine {
  uint32_t type;
  std::vector<float> points;  // x, y pairs
};

// Reads {"flows": [{"type": "path"|"anchor"|"stroke", "points": [[x, y], ...]}, ...]}.
bool LoadFlows(const std::string& path, std::vector<FlowLine>& flows, std::string& error) {
  nlohmann::json list;
  if (!ReadJsonList(path, "flows", list, error)) return false;
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

struct LoopResult {
  std::string kind;
  double ms_per_frame = 0;
};

// Renders the whole loop into `output`. 0 or an exit code.
int RenderLoop(Engine& engine, Image& photo, Image& still, const std::vector<FlowLine>& lines, const AnimateOptions& o,
               bool progress, LoopResult& result) {
  auto fx = engine.Own<Korvane::Animation>(Korvane::EFFECT_ANIMATION);
  if (!fx) return 1;
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
  Progress bar("rendering", progress ? o.frames : 0);
  for (int f = 0; f < o.frames; ++f) {
    const auto t0 = std::chrono::steady_clock::now();
    const int32_t hr = fx->Animate(&p, f);
    render_ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (int rc = CheckCode(hr, "animation frame " + std::to_string(f))) return rc;
    if (!writer->AddFrame(frame, error)) return Fail(error);
    bar.Step(f + 1);
  }
  if (!writer->Finish(error)) return Fail(error);
  result.kind = writer->Kind();
  result.ms_per_frame = render_ms / o.frames;
  return 0;
}

// Warnings for flows that cannot move anything, before the loop is rendered.
void WarnAboutFlows(const std::vector<FlowLine>& lines, const Image& photo, bool has_still) {
  auto warn = [](const std::string& text) { std::fprintf(stderr, "korvane: warning: %s\n", text.c_str()); };
  if (lines.empty()) warn("the flow file has no flows: every frame will be the still photo");
  size_t outside = 0, total = 0;
  for (const FlowLine& l : lines)
    for (size_t i = 0; i + 1 < l.points.size(); i += 2, ++total)
      outside += l.points[i] < 0 || l.points[i + 1] < 0 || l.points[i] >= photo.width || l.points[i + 1] >= photo.height;
  if (outside > 0) {
    warn(std::to_string(outside) + " of " + std::to_string(total) + " flow points lie outside the " +
         std::to_string(photo.width) + "x" + std::to_string(photo.height) +
         " photo (flow points are in the photo's pixels)");
  }
  if (!has_still) warn("no --still mask: motion spreads to the corners of the photo");
}

// With a frame folder, no earlier frame file may be an input: the folder's
// old frame_*.png are removed before the first frame is written.
int CheckFrameFolder(const AnimateOptions& o) {
  namespace fs = std::filesystem;
  const std::string ext = Extension(o.output);
  if (ext == ".webp" || ext == ".gif") return 0;
  std::error_code ec;
  if (!fs::is_directory(o.output, ec)) return 0;
  for (const std::string& in : {o.input, o.flows, o.still}) {
    if (in.empty() || !IsFrameFile(in)) continue;
    if (fs::equivalent(fs::path(in).parent_path().empty() ? "." : fs::path(in).parent_path(), o.output, ec)) {
      return Fail("input " + in + " is a frame file in the output folder " + o.output +
                  ", whose frame_*.png are replaced; move it or choose another folder");
    }
  }
  return 0;
}

int RunAnimate(const AnimateOptions& o) {
  SetQuiet(o.quiet);
  Image photo, still;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  std::vector<FlowLine> lines;
  if (!LoadFlows(o.flows, lines, error)) return Fail(error);
  if (!o.still.empty()) {
    if (!LoadGray(o.still, still, error)) return Fail(error);
    if (still.width != photo.width || still.height != photo.height) {
      return Fail("the still mask " + o.still + " is " + std::to_string(still.width) + "x" + std::to_string(still.height) +
                  " but the photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height));
    }
  } else {
    still = Image(photo.width, photo.height, 1, 0);
  }
  if (int rc = CheckOutputPath(o.output, {o.input, o.flows, o.still})) return rc;
  if (int rc = CheckFrameFolder(o)) return rc;
  if (int rc = CreateOutputFolder(o.output)) return rc;
  if (!o.quiet) WarnAboutFlows(lines, photo, !o.still.empty());

  const auto t0 = std::chrono::steady_clock::now();
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  LoopResult result;
  if (int rc = RenderLoop(engine, photo, still, lines, o, !o.quiet, result)) return rc;
  const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  Note("wrote %s (%s, %d frames at %d fps, %dx%d, %.0f ms, render %.1f ms a frame)\n", o.output.c_str(),
       result.kind.c_str(), o.frames, o.fps, photo.width, photo.height, total, result.ms_per_frame);
  return 0;
}

RegisterCommand reg("animate", "Turn a photo and flow lines into a seamless loop (WebP, GIF or PNG frames)",
                    [](CLI::App& sub) {
  auto o = std::make_shared<AnimateOptions>();
  OptionTable t(sub);
  t.Text("photo", o->input, "Photo to read (JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF, JPEG XL; '-' reads standard input)", true);
  t.Text("--flows", o->flows,
         "JSON file of flow lines in image pixels: {\"flows\": [{\"type\": \"path\", \"points\": "
         "[[x, y], ...]}, ...]}; types path, stroke (moves along the line) and anchor (holds a point)",
         true);
  t.Text("--still", o->still,
         "Mask image (same size): white parts never move. Without it nothing is held still and motion "
         "spreads to the corners of the photo");
  t.Text("-o,--output", o->output,
         "Where to write: NAME.webp, NAME.gif, or a folder for PNG frames (its old frame_*.png are removed)", true);
  t.Number("--frames", o->frames, 2, 1000, "", "Frames in one loop");
  t.Number("--fps", o->fps, 1, 100, "frames a second", "Playback speed (GIF rounds a frame to hundredths of a second)");
  t.Number("--loop-mode", o->loop_mode, 0, 2, "", "2 seamless loop (cross-fades two phases), 1 half-step blend, 0 plain drift");
  t.Number("--quality", o->quality, 1, 100, "", "WebP quality (100 = lossless)");
  t.Flag("-q,--quiet", o->quiet, "Print nothing on success (no warnings, no progress)");
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
  // The flow file and the still mask this loop uses, for a newcomer to copy.
  nlohmann::json doc;
  doc["flows"] = nlohmann::json::array();
  for (const FlowLine& l : lines) {
    nlohmann::json pts = nlohmann::json::array();
    for (size_t i = 0; i + 1 < l.points.size(); i += 2) pts.push_back({l.points[i], l.points[i + 1]});
    const char* type = l.type == Korvane::FLOW_PATH ? "path" : l.type == Korvane::FLOW_STROKE ? "stroke" : "anchor";
    doc["flows"].push_back({{"type", type}, {"points", pts}});
  }
  const std::string flows_path = ctx.Path("animation-flows.json");
  const std::string text = doc.dump(1) + "\n";
  std::string error;
  if (!WriteFileSafely(flows_path, text.data(), text.size(), error)) return Fail(error);
  ctx.Report(flows_path, -1);
  Image photo = ctx.scene.photo, still = ctx.scene.still;
  for (const char* name : {"animation.webp", "animation.gif"}) {
    AnimateOptions o;
    o.frames = 24;
    o.fps = 24;
    o.output = ctx.Path(name);
    LoopResult result;
    if (int rc = RenderLoop(ctx.engine, photo, still, lines, o, false, result)) return rc;
    ctx.Report(o.output, result.ms_per_frame);
  }
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
