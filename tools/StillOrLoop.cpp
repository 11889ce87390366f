#include "StillOrLoop.h"

#include <chrono>
#include <filesystem>
#include <map>

#include "ToolSupport.h"

namespace KorvaneTool {

namespace fs = std::filesystem;
using KorvaneFrontend::Session;
using KorvaneFrontend::OptionValues;

int PlanOutput(const std::string& option, const std::string& path, const std::string& format, const FrameChoice& choice,
               bool animated, Output& out) {
  out = Output();
  out.option = option;
  out.path = path;
  std::string ext = path == "-" ? (format.empty() ? "png" : format) : Extension(path);
  if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
  const std::string still = FormatOf(ext);
  const bool gif = animated && (ext == "gif");
  std::error_code ec;
  const bool is_dir = path != "-" && fs::is_directory(path, ec);
  // A still command names a file; an animated one may name a frame folder.
  if (is_dir && !animated) return Fail(path + ": is a folder; give a file name");
  const bool folder = animated && path != "-" && (ext.empty() || is_dir) && !gif;
  const std::string loops = "NAME.webp, NAME.gif or a folder of PNG frames";
  if (!still.empty() && choice.Still() && !folder) {
    out.format = still;
    return 0;
  }
  if (gif || folder || (animated && still == "webp")) {
    if (choice.frame >= 0) {
      return Usage(option + " " + out.Name() + ": --frame writes one frame as a still image (" + WritableFormatList() + ")");
    }
    out.kind = Output::kLoop;
    out.loop = gif ? LoopFormat::kGif : folder ? LoopFormat::kFolder : LoopFormat::kWebP;
    return 0;
  }
  if (!still.empty()) {
    return Usage(option + " " + out.Name() + ": a loop of " + std::to_string(choice.frames) + " frames is written to " +
                 loops + "; --frame I writes one of them as a still");
  }
  // One message for every command; the animated ones also name the loops.
  return Usage("output " + path + ": unsupported type '" + (ext.empty() ? "" : "." + ext) + "' (use " +
               WritableFormatList() + (animated ? " for a still, or " + loops + " for a loop" : "") + ")");
}

namespace {

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code ec;
  return fs::exists(a, ec) && fs::exists(b, ec) && fs::equivalent(a, b, ec);
}

std::string Canonical(const std::string& path) {
  std::error_code ec;
  const fs::path p = fs::weakly_canonical(path, ec);
  return ec ? path : p.string();
}

// An input that a frame folder's writer would remove or replace.
bool FrameInFolder(const std::string& input, const std::string& folder) {
  if (!IsFrameFile(input)) return false;
  const fs::path parent = fs::path(input).parent_path();
  return SameFile(parent.empty() ? "." : parent.string(), folder);
}

}  // namespace

int CheckOutputs(const std::vector<Output>& outputs, const std::vector<std::string>& inputs) {
  std::map<std::string, std::string> names;  // the file each output writes, and its option
  for (const Output& out : outputs) {
    const auto [it, fresh] = names.emplace(out.path == "-" ? "-" : Canonical(out.path), out.option);
    if (!fresh) {
      return Usage(it->second + " and " + out.option + " both write " + out.Name() + "; give each its own name");
    }
    if (out.path == "-") continue;
    std::error_code ec;
    const bool is_folder = out.kind == Output::kLoop && out.loop == LoopFormat::kFolder;
    if (!is_folder && fs::is_directory(out.path, ec)) return Fail(out.path + ": is a folder; give a file name");
    for (const std::string& in : inputs) {
      if (in.empty() || in == "-") continue;
      if (SameFile(out.path, in)) return Fail("output " + out.path + " is the input file " + in + "; choose another name");
      if (is_folder && FrameInFolder(in, out.path)) {
        return Fail("input " + in + " is a frame file in the output folder " + out.path +
                    ", whose frame_*.png are replaced; move it or choose another folder");
      }
    }
  }
  return 0;
}

int RenderFrame(Session& session, const OptionValues& values, int index, int count, Image& frame, double* ms) {
  frame = Image(session.width(), session.height(), 4);
  const auto t0 = std::chrono::steady_clock::now();
  const KorvaneFrontend::Status s = session.Render(values, index, count, frame.View());
  if (ms) *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  return Report(s);
}

int WriteFrames(Session& session, const OptionValues& values, const FrameChoice& choice, const Output& out,
                const FileSettings& files, const Image& photo, Written& written) {
  written = Written();
  written.width = session.width();
  written.height = session.height();
  std::string error;
  Image frame;
  if (out.kind == Output::kStill) {
    const int index = choice.frame >= 0 ? choice.frame : 0;
    if (int rc = RenderFrame(session, values, index, choice.frames, frame, &written.render_ms)) return rc;
    frame.meta = photo.meta;
    SaveOptions save = files.still;
    save.format = out.format;
    if (!SaveImage(out.path, frame, save, error)) return Fail(error);
    written.kind = "still";
    return 0;
  }
  LoopSettings loop;
  loop.width = session.width();
  loop.height = session.height();
  loop.fps = files.fps;
  loop.quality = files.loop_quality;
  loop.loops = session.Loops(values);
  if (!files.still.strip) loop.meta = photo.meta;
  auto writer = OpenAnimationWriter(out.path, out.loop, loop, error);
  if (!writer) return Fail(out.Name() + ": " + error);
  Progress bar("rendering", files.progress ? choice.frames : 0);
  for (int f = 0; f < choice.frames; ++f) {
    if (int rc = RenderFrame(session, values, f, choice.frames, frame, &written.render_ms)) return rc;
    if (!writer->AddFrame(frame, error)) return Fail(error);
    bar.Step(f + 1);
  }
  if (!writer->Finish(error)) return Fail(error);
  written.kind = writer->Kind();
  written.frames = choice.frames;
  written.render_ms /= choice.frames;
  return 0;
}

}  // namespace KorvaneTool
