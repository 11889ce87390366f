// Writing a sequence of frames as one animation file: animated WebP, a
// looping GIF, or numbered PNG files in a folder.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "ImageIO.h"

namespace KorvaneTool {

class AnimationWriter {
 public:
  virtual ~AnimationWriter() = default;
  // Adds the next frame (BGRA, the size given at opening).
  virtual bool AddFrame(const Image& frame, std::string& error) = 0;
  // Completes the file; nothing is usable before this returns true.
  virtual bool Finish(std::string& error) = 0;
  // What was written, for messages ("animated WebP", "GIF", "PNG sequence").
  virtual std::string Kind() const = 0;
};

// Picks the format from `path`: ".webp" writes an animated WebP (lossy at
// `quality`, or lossless at 100), ".gif" a looping GIF with libimagequant's
// palette of the first frame and even frame times in hundredths of a second,
// anything else is a folder (created if missing, its old frame_*.png removed)
// of frame_0000.png, frame_0001.png, ... Both animations loop forever at
// `fps` frames a second. Returns nullptr with a reason in `error`.
std::unique_ptr<AnimationWriter> OpenAnimationWriter(const std::string& path, int width, int height, int fps,
                                                     int quality, std::string& error);

// frame_0000.png and the like: the files a frame folder holds.
bool IsFrameFile(const std::filesystem::path& file);

// For NAME.webp or NAME.gif, creates the folder the file goes in (a frame
// folder itself is created when opened). Returns 0 or an exit code.
int CreateOutputFolder(const std::string& output);

}  // namespace KorvaneTool
