// Writing an animated effect's output: one frame as a still image, more as a
// loop (animated WebP, GIF or a folder of PNG frames), the same way for every
// command that renders frames of a photo.
#pragma once

#include <functional>
#include <string>

#include "ImageIO.h"

namespace KorvaneTool {

// Renders frame `index` into `frame` (BGRA, the photo's size unless given) and adds the
// effect's own time to *ms. Returns 0 or an exit code after printing why.
using FrameRenderer = std::function<int(int index, Image& frame, double* ms)>;

struct LoopSettings {
  int frames = 1;          // 1: a still
  int fps = 24;            // playback speed of a loop
  int webp_quality = 80;   // animated WebP quality (100: lossless)
  bool quiet = false;      // no progress bar
};

// Renders every frame into `output`: a still (keeping the photo's metadata)
// for one frame, else a loop through OpenAnimationWriter with a progress bar.
// Sets *ms_per_frame to the mean effect time and `kind` to what was written
// ("still", "animated WebP", ...). Returns 0 or an exit code.
int WriteStillOrLoop(const std::string& output, const Image& photo, const LoopSettings& loop,
                     const FrameRenderer& render, double* ms_per_frame, std::string& kind);

// The loop alone, whatever the frame count: `width` x `height` frames into
// OpenAnimationWriter, with the same progress bar, mean time and `kind`.
int WriteLoop(const std::string& output, int width, int height, const LoopSettings& loop,
              const FrameRenderer& render, double* ms_per_frame, std::string& kind);

}  // namespace KorvaneTool
