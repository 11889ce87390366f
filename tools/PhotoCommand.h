// What every command that turns photos into photos shares: one or several
// photos ("-" reads standard input), an output name that may hold {name} and
// {ext}, the file settings, and the report of each file.
//
//   RegisterCommand reg("glow", "...", [](CLI::App& sub) {
//     auto o = std::make_shared<GlowOptions>();
//     OptionTable t(sub);
//     AddPhotoOptions(t, o->io);
//     t.Number("--intensity", o->intensity, 0, 1, "", "Strength of the glow");
//     return std::function<int()>([o] {
//       return RunPhotos(o->io, {o->mask}, [o](Image& photo, Rendered& out) { ... return 0; });
//     });
//   });
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ImageIO.h"
#include "Options.h"

namespace KorvaneTool {

struct PhotoIo {
  std::vector<std::string> inputs;
  std::string output;  // {name}: the input's stem, {ext}: its extension without the dot
  std::string format;  // for "-o -"
  std::string chroma;  // "420" or "444"
  int quality = 92;
  bool strip = false;
  bool quiet = false;
};

// Adds the photos, -o/--output, --quality, --chroma (JPEG, default
// `chroma_default`), --strip, --format and --quiet to a command's table.
void AddPhotoOptions(OptionTable& t, PhotoIo& io, const std::string& chroma_default = "420");

struct Rendered {
  Image image;          // what is written (the batch copies the photo's metadata)
  std::string summary;  // shown in the report, e.g. "screen"
  double render_ms = 0;  // the effect's own time
};

// Renders one photo into `out`; 0 or an exit code after printing why.
using RenderPhoto = std::function<int(Image& photo, Rendered& out)>;

// Each input in turn: read, render, write to the output its name gives, and
// report "wrote <file> (<summary>, WxH, <total> ms, render <ms> ms)". A file
// that fails is reported and the others still run. `others` are the
// command's further input files (mask, guide): no output may replace them.
// Returns 0 when every photo was written, 1 when any failed, 2 when the
// command line cannot work (several photos and one fixed output name, ...).
int RunPhotos(const PhotoIo& io, const std::vector<std::string>& others, const RenderPhoto& render);

// The output name for `input` under `pattern` ({name}, {ext}).
std::string OutputName(const std::string& pattern, const std::string& input);

}  // namespace KorvaneTool
