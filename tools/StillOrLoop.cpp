#include "StillOrLoop.h"

#include "AnimationWriter.h"
#include "ToolSupport.h"

namespace KorvaneTool {

int WriteLoop(const std::string& output, int width, int height, const LoopSettings& loop,
              const FrameRenderer& render, double* ms_per_frame, std::string& kind) {
  Image frame(width, height, 4);
  double ms = 0;
  std::string error;
  auto writer = OpenAnimationWriter(output, width, height, loop.fps, loop.webp_quality, error);
  if (!writer) return Fail(error);
  Progress bar("rendering", loop.quiet ? 0 : loop.frames);
  for (int f = 0; f < loop.frames; ++f) {
    if (int rc = render(f, frame, &ms)) return rc;
    if (!writer->AddFrame(frame, error)) return Fail(error);
    bar.Step(f + 1);
  }
  if (!writer->Finish(error)) return Fail(error);
  kind = writer->Kind();
  *ms_per_frame = ms / loop.frames;
  return 0;
}

int WriteStillOrLoop(const std::string& output, const Image& photo, const LoopSettings& loop,
                     const FrameRenderer& render, double* ms_per_frame, std::string& kind) {
  if (loop.frames != 1) return WriteLoop(output, photo.width, photo.height, loop, render, ms_per_frame, kind);
  Image frame(photo.width, photo.height, 4);
  double ms = 0;
  if (int rc = render(0, frame, &ms)) return rc;
  frame.meta = photo.meta;
  std::string error;
  if (!SaveImage(output, frame, 92, error)) return Fail(error);
  kind = "still";
  *ms_per_frame = ms;
  return 0;
}

}  // namespace KorvaneTool
