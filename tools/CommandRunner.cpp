#include "CommandRunner.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <new>
#include <set>

#include "StillOrLoop.h"
#include "ToolSupport.h"

namespace KorvaneTool {

namespace {

using namespace KorvaneFrontend;

double MsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

void ReplaceAll(std::string& s, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
}

bool IsPattern(const std::string& path) {
  return path.find("{name}") != std::string::npos || path.find("{ext}") != std::string::npos;
}

// The outputs a command line names: -o and the inspection files.
const char* const kOutputOptions[] = {"output", "points-json", "points-overlay"};

// A ring around every light point on a copy of the photo.
Image RingPoints(const Image& photo, const Korvane::LightPointSummary& summary,
                 const std::vector<Korvane::LightPointInfo>& points) {
  Image img = photo;
  const double sx = static_cast<double>(photo.width) / std::max(1, summary.norm_width);
  const double sy = static_cast<double>(photo.height) / std::max(1, summary.norm_height);
  const double r = std::max(4.0, std::max(photo.width, photo.height) / 160.0);
  for (const Korvane::LightPointInfo& p : points) {
    const double cx = (p.x + 0.5) * sx - 0.5, cy = (p.y + 0.5) * sy - 0.5;
    for (int y = static_cast<int>(cy - r - 2); y <= static_cast<int>(cy + r + 2); ++y)
      for (int x = static_cast<int>(cx - r - 2); x <= static_cast<int>(cx + r + 2); ++x) {
        if (x < 0 || y < 0 || x >= img.width || y >= img.height) continue;
        if (std::fabs(std::hypot(x - cx, y - cy) - r) > 1.0) continue;
        uint8_t* q = img.at(x, y);
        q[0] = 40, q[1] = 255, q[2] = 60;
      }
  }
  return img;
}

class Runner {
 public:
  Runner(const CommandLine& line, const CommandHooks& hooks, OptionValues& values)
      : m_line(line), m_hooks(hooks), m_values(values), m_cmd(*line.cmd) {}

  int Run();

 private:
  int CheckCommandLine();
  int ReadInputs();
  int OnePhoto(const std::string& input);
  int PlanOutputs(const std::string& input, std::vector<Output>& outputs) const;
  int Inspect(const Session& session, const Image& photo, const std::vector<Output>& outputs);
  int Main(Session* session, const Image& photo, const Output& out, std::chrono::steady_clock::time_point t0);
  std::string InputName(const std::string& option) const;

  const CommandLine& m_line;
  const CommandHooks& m_hooks;
  OptionValues& m_values;
  const CommandDef& m_cmd;
  FrameChoice m_choice;
  FileSettings m_files;
  std::vector<std::string> m_input_files;  // every file read: photos and inputs
  Inputs m_inputs;
  std::vector<Image> m_input_images;  // what m_inputs' views show
  Engine m_engine;
  std::set<std::string> m_written;
  bool m_inputs_read = false;
  int m_stop = 0;  // an exit code that ends the batch
};

std::string Runner::InputName(const std::string& option) const {
  const std::string path = m_line.Text(option);
  return path.empty() ? option : option + " " + (path == "-" ? "standard input" : path);
}

int Runner::CheckCommandLine() {
  const bool animated = m_cmd.Animated();
  m_choice.frames = FrameCount(m_values);
  m_choice.frame = animated && m_values.Has("frame") ? static_cast<int>(m_values.Whole("frame")) : -1;
  if (int rc = Report(CheckCombination(m_values, m_choice.frames))) return rc;
  m_input_files = m_line.photos;
  for (const OptionDef& o : m_cmd.options) {
    const bool file = o.role == OptionRole::kInput || (o.or_image && m_values.ChoiceIndex(o.name) < 0);
    if (file && m_line.Given(o.name)) m_input_files.push_back(m_line.Text(o.name));
  }
  if (std::count(m_input_files.begin(), m_input_files.end(), std::string("-")) > 1) {
    return Usage("standard input ('-') can be read once");
  }
  std::vector<std::string> asked;
  for (const char* o : kOutputOptions) {
    if (m_cmd.Find(o) && m_line.Given(o)) asked.push_back(o);
  }
  if (asked.empty()) {
    if (!m_cmd.Find("points-json")) return Usage(m_cmd.name + ": -o/--output is required (where to write)");
    return Usage(m_cmd.name + ": give -o OUT" + (m_cmd.Find("points-overlay") ? ", " : " or ") + "--points-json FILE" +
                 (m_cmd.Find("points-overlay") ? " or --points-overlay FILE" : ""));
  }
  const size_t photos = m_line.photos.size();
  for (const std::string& o : asked) {
    const std::string path = m_line.Text(o);
    if (photos > 1 && path == "-") return Usage((o == "output" ? "-o" : "--" + o) + " - writes one photo; give one");
    if (photos > 1 && !IsPattern(path)) {
      return Usage("with " + std::to_string(photos) + " photos, --" + o +
                   " needs {name} so each gets its own file (e.g. out/{name}-fx.jpg)");
    }
  }
  return 0;
}

int Runner::ReadInputs() {
  std::string error;
  for (const OptionDef& o : m_cmd.options) {
    if (!m_line.Given(o.name)) continue;
    const std::string path = m_line.Text(o.name);
    if (o.kind == OptionKind::kFlows || o.kind == OptionKind::kSparkles) {
      std::vector<uint8_t> bytes;
      if (!ReadWholeFile(path, bytes, error)) return Fail(error);
      const std::string text(bytes.begin(), bytes.end()), name = path == "-" ? "standard input" : path;
      const bool ok = o.kind == OptionKind::kFlows ? ParseFlowsJson(text, name, m_inputs.flows, error)
                                                   : ParsePlacedSparklesJson(text, name, m_inputs.sparkles, error);
      if (!ok) return Fail(error);
    } else if (o.kind == OptionKind::kImage || (o.or_image && m_values.ChoiceIndex(o.name) < 0)) {
      Image img;
      if (!(o.gray ? LoadGray(path, img, error) : LoadImage(path, img, error))) return Fail(error);
      m_input_images.push_back(std::move(img));
    }
  }
  // Views once every image has its place.
  size_t next = 0;
  for (const OptionDef& o : m_cmd.options) {
    if (m_line.Given(o.name) && (o.kind == OptionKind::kImage || (o.or_image && m_values.ChoiceIndex(o.name) < 0))) {
      m_inputs.images[o.name] = m_input_images[next++].View();
    }
  }
  return 0;
}

int Runner::Inspect(const Session& session, const Image& photo, const std::vector<Output>& outputs) {
  Korvane::LightPointSummary summary;
  std::vector<Korvane::LightPointInfo> points;
  if (!session.LightPoints(summary, points)) return Fail("no light points to write");
  std::string error;
  for (const Output& out : outputs) {
    if (out.option == "--points-json") {
      const std::string text = LightPointsJson(summary, points);
      if (!WriteFileSafely(out.path, text.data(), text.size(), error)) return Fail(error);
      Note("wrote %s (%d light points on the %dx%d detection copy)\n", out.Name().c_str(), summary.count,
           summary.norm_width, summary.norm_height);
    } else if (out.option == "--points-overlay") {
      SaveOptions save = m_files.still;
      save.format = out.format;
      if (!SaveImage(out.path, RingPoints(photo, summary, points), save, error)) return Fail(error);
      Note("wrote %s (%d light points)\n", out.Name().c_str(), summary.count);
    }
  }
  return 0;
}

int Runner::PlanOutputs(const std::string& input, std::vector<Output>& outputs) const {
  const std::string format = m_line.Text("format");
  for (const std::string name : kOutputOptions) {
    if (!m_cmd.Find(name) || !m_line.Given(name)) continue;
    const std::string path = OutputName(m_line.Text(name), input);
    Output out;
    int rc = 0;
    if (name == "output") {
      rc = PlanOutput("-o", path, format, m_choice, m_cmd.Animated(), out);
    } else if (name == "points-overlay") {
      rc = PlanOutput("--" + name, path, format, FrameChoice(), false, out);
    } else {
      out.option = "--" + name, out.path = path, out.kind = Output::kData;
    }
    if (rc) return rc;
    outputs.push_back(out);
  }
  return 0;
}

int Runner::Main(Session* session, const Image& photo, const Output& out, std::chrono::steady_clock::time_point t0) {
  Written w;
  std::string summary;
  if (!session) {
    // The sheet of every variant, in place of one still.
    Image sheet;
    if (int rc = m_hooks.sheet(m_values, photo, m_inputs, m_engine, sheet, summary, &w.render_ms)) return rc;
    sheet.meta = photo.meta;
    SaveOptions save = m_files.still;
    save.format = out.format;
    std::string error;
    if (!SaveImage(out.path, sheet, save, error)) return Fail(error);
    w.width = sheet.width;
    w.height = sheet.height;
  } else {
    if (int rc = WriteFrames(*session, m_values, m_choice, out, m_files, photo, w)) return rc;
    summary = session->Summary();
  }
  const std::string what = summary.empty() ? "" : summary + ", ";
  if (out.kind == Output::kStill) {
    Note("wrote %s (%s%dx%d, %.0f ms, render %.0f ms)\n", out.Name().c_str(), what.c_str(), w.width, w.height,
         MsSince(t0), w.render_ms);
  } else {
    Note("wrote %s (%s, %d frames at %d fps, %s%dx%d, %.0f ms, render %.1f ms a frame)\n", out.Name().c_str(),
         w.kind.c_str(), w.frames, m_files.fps, what.c_str(), w.width, w.height, MsSince(t0), w.render_ms);
  }
  return 0;
}

int Runner::OnePhoto(const std::string& input) {
  const auto t0 = std::chrono::steady_clock::now();
  Image photo;
  std::string error;
  if (!LoadImage(input, photo, error)) return Fail(error);
  // The inputs beside the photos are read once, with the first photo read.
  if (!m_inputs_read) {
    m_inputs_read = true;
    if (int rc = ReadInputs()) return m_stop = rc;
  }
  std::vector<Output> outputs;
  if (int rc = PlanOutputs(input, outputs)) return rc;
  if (int rc = CheckOutputs(outputs, m_input_files)) return rc;
  for (const Output& out : outputs) {
    if (out.path != "-" && !m_written.insert(std::filesystem::weakly_canonical(out.path).string()).second) {
      return Fail(input + ": output " + out.path + " was already written by another photo of this batch");
    }
  }
  const bool sheet = m_hooks.sheet && m_values.Flag(m_hooks.sheet_flag);
  std::unique_ptr<Session> session;
  if (!sheet) {
    const Status opened = OpenSession(m_engine, m_values, photo.View(), m_inputs, session);
    if (!opened.ok()) return Report(opened, InputName(opened.input));
    for (const std::string& w : session->Warnings()) Warn(w);
  }
  for (const Output& out : outputs) {
    if (out.option == "-o") {
      if (int rc = Main(session.get(), photo, out, t0)) return rc;
    }
  }
  std::vector<Output> inspection(outputs);
  inspection.erase(std::remove_if(inspection.begin(), inspection.end(), [](const Output& o) { return o.option == "-o"; }),
                   inspection.end());
  return inspection.empty() || !session ? 0 : Inspect(*session, photo, inspection);
}

int Runner::Run() {
  if (int rc = CheckCommandLine()) return rc;
  m_files.still.quality = m_values.Has("quality") ? static_cast<int>(m_values.Whole("quality")) : 92;
  m_files.still.chroma_444 = m_values.Text("chroma") == "444";
  m_files.still.strip = m_values.Flag("strip");
  m_files.loop_quality = m_values.Has("quality") ? static_cast<int>(m_values.Whole("quality")) : 80;
  m_files.fps = m_cmd.Find("fps") ? static_cast<int>(m_values.Whole("fps")) : 24;
  m_files.progress = m_line.photos.size() == 1;

  const auto t0 = std::chrono::steady_clock::now();
  int failed = 0;
  Progress progress("rendering", static_cast<int>(m_line.photos.size()));
  for (size_t i = 0; i < m_line.photos.size(); ++i) {
    int rc = 0;
    SetCurrentPhoto(m_line.photos[i]);
    try {
      rc = OnePhoto(m_line.photos[i]);
    } catch (const std::bad_alloc&) {
      rc = OutOfMemory();
    }
    SetCurrentPhoto("");
    // A command line that cannot work, or inputs that cannot be read, stop the batch.
    if (rc == kExitUsage || m_stop) return rc;
    failed += rc != 0;
    progress.Step(static_cast<int>(i + 1));
  }
  if (m_line.photos.size() > 1) {
    Note("%zu photos in %.1f s%s\n", m_line.photos.size(), MsSince(t0) / 1000.0,
         failed ? (", " + std::to_string(failed) + " failed").c_str() : "");
  }
  return failed ? kExitFailure : 0;
}

}  // namespace

std::string OutputName(const std::string& pattern, const std::string& input) {
  const std::filesystem::path p(input == "-" ? "stdin" : input);
  std::string ext = p.extension().string();
  if (!ext.empty()) ext.erase(0, 1);
  std::string name = pattern;
  ReplaceAll(name, "{name}", p.stem().string());
  ReplaceAll(name, "{ext}", ext);
  return name;
}

int RunCommand(const CommandLine& line, const CommandHooks& hooks) {
  OptionValues values(*line.cmd);
  const std::string error = line.SetInto(values);
  if (!error.empty()) return Usage(error);
  SetQuiet(values.Flag("quiet"));
  for (const char* o : kOutputOptions) {
    if (line.Text(o) == "-") SetStdoutIsData(true);
  }
  Runner runner(line, hooks, values);
  return runner.Run();
}

}  // namespace KorvaneTool
