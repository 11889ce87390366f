// Where a command's frames go: every output is planned and checked before
// anything is written, then a session's frames are written as a still image
// or as a loop (animated WebP, GIF or a folder of PNG frames), the same way
// for every command.
//
//   Output out;
//   if (int rc = PlanOutput("-o", "out/a.webp", "", FrameChoice{24, -1}, true, out)) return rc;
//   if (int rc = CheckOutputs({out}, {"a.jpg", "depth.png"})) return rc;
//   Written w;
//   if (int rc = WriteFrames(session, values, FrameChoice{24, -1}, out, files, photo, w)) return rc;
#pragma once

#include <string>
#include <vector>

#include "AnimationWriter.h"
#include "ImageIO.h"
#include "frontend/Session.h"

namespace KorvaneTool {

// Which frames a command renders: `frames` of a loop (1: a still), and one
// of them alone as a still when `frame` >= 0 (--frame).
struct FrameChoice {
  int frames = 1;
  int frame = -1;
  bool Still() const { return frames == 1 || frame >= 0; }
};

struct Output {
  enum Kind { kStill, kLoop, kData };
  std::string option;  // "-o", "--points-json", ... for messages
  std::string path;    // "-": standard output
  Kind kind = kStill;
  std::string format;  // kStill: "png", "jpg", ...
  LoopFormat loop = LoopFormat::kWebP;  // kLoop

  // "standard output" or the path.
  std::string Name() const { return path == "-" ? "standard output" : path; }
};

// Plans the output `path` of `option` ("-o") for `choice`. Its extension (or
// `format` for "-") picks the kind: a still format writes a still; with
// several frames .webp, .gif and a name without extension (a folder) write a
// loop, and a GIF or folder is a loop even of one frame. `animated`: the
// command renders frames at all. 0 or the usage error's exit code.
int PlanOutput(const std::string& option, const std::string& path, const std::string& format, const FrameChoice& choice,
               bool animated, Output& out);

// Refuses, before anything is written: an output that is a folder where a
// file is meant, that would replace an input (a frame folder holding an
// input among the frame_*.png it replaces), or that names the same file as
// another output. 0 or an exit code.
int CheckOutputs(const std::vector<Output>& outputs, const std::vector<std::string>& inputs);

// How files are written (the command's file settings).
struct FileSettings {
  SaveOptions still;  // quality for stills
  int loop_quality = 80;
  int fps = 24;
  bool progress = true;  // a progress bar over a loop's frames
};

// What WriteFrames did, for the report.
struct Written {
  std::string kind;       // "still", "animated WebP", "GIF, 40 ms a frame", "PNG sequence"
  int frames = 1;         // frames written
  int width = 0, height = 0;
  double render_ms = 0;   // the session's time, per frame for a loop
};

// Renders the frames `choice` asks for with `session` and writes them to
// `out`: a still keeps the photo's metadata; a loop plays forever when the
// session's frames loop, else once. 0 or an exit code after saying why.
int WriteFrames(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values,
                const FrameChoice& choice, const Output& out, const FileSettings& files, const Image& photo,
                Written& written);

// Renders one frame into a new image of the session's size, timing it.
int RenderFrame(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values, int index, int count,
                Image& frame, double* ms);

}  // namespace KorvaneTool
