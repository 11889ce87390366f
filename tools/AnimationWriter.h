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

enum class LoopFormat { kWebP, kGif, kFolder };

struct LoopSettings {
  int width = 0, height = 0;  // of every frame
  int fps = 24;
  int quality = 80;    // animated WebP (100: lossless)
  bool loops = true;   // plays forever; false: once
  // The photo's metadata for an animated WebP (EXIF, XMP, profile); null: none.
  std::shared_ptr<const ImageMeta> meta;
};

// kWebP writes an animated WebP (lossy at the quality, or lossless at 100)
// and kGif a GIF with libimagequant's palette of the first frame and even
// frame times in hundredths of a second, both to `path` ("-": standard
// output) as WriteFileSafely writes files. Both encode frames on worker
// threads while later frames render, several at once; the file is the same
// whatever the number of workers. kFolder writes the folder `path` (created
// if missing, its old frame_*.png removed) of frame_0000.png,
// frame_0001.png, ... Returns nullptr with a reason in `error`.
std::unique_ptr<AnimationWriter> OpenAnimationWriter(const std::string& path, LoopFormat format,
                                                     const LoopSettings& settings, std::string& error);

// frame_0000.png and the like: the files a frame folder holds.
bool IsFrameFile(const std::filesystem::path& file);

}  // namespace KorvaneTool
