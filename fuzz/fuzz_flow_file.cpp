// The tool's flow-file parser, then the flows it accepts into the photo
// animator over a small photo. The parser is file based, so each input is
// written to an in-memory file first. The parser is internal to the animate
// command, so that command's source is compiled into this target.
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "effects/animation/Animation.h"
#include "../tools/cmd_animate.cpp"

namespace {

struct FlowInput {
  int fd = -1;
  std::string path;
  FlowInput() {
    fd = memfd_create("flows.json", 0);
    if (fd < 0) std::abort();
    path = "/proc/self/fd/" + std::to_string(fd);
  }
  void Write(const uint8_t* data, size_t size) {
    if (ftruncate(fd, 0) != 0 || (size && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))) std::abort();
  }
};

Korvane::Animation* Animator() { return KorvaneFuzz::KeptEffect<Korvane::Animation>(Korvane::EFFECT_ANIMATION); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FlowInput file;
  file.Write(data, size);
  std::vector<KorvaneTool::FlowLine> lines;
  std::string error;
  if (!KorvaneTool::LoadFlows(file.path, lines, error)) {
    if (error.empty()) std::abort();  // a refusal always says why
    return 0;
  }
  // A 23 x 17 photo: strokes far outside it and flows of every kind must
  // give a result code, and frames that write only the output's pixels.
  constexpr int w = 23, h = 17;
  std::vector<uint8_t> photo(w * h * 4, 90), still(w * h, 0);
  for (size_t i = 0; i < still.size(); i += 7) still[i] = 255;
  std::vector<uint8_t> out(w * h * 4 + 2 * KorvaneFuzz::kGuard, KorvaneFuzz::kGuardByte);
  Korvane::ImageBuffer in_buf = Korvane::MakeImageBuffer(photo.data(), w, h);
  Korvane::ImageBuffer mask_buf = Korvane::MakeImageBuffer(still.data(), w, h, Korvane::PIXEL_GRAY8);
  Korvane::ImageBuffer out_buf = Korvane::MakeImageBuffer(out.data() + KorvaneFuzz::kGuard, w, h);
  std::vector<Korvane::FlowData> flows;
  for (const auto& l : lines) flows.push_back({l.points.data(), static_cast<uint32_t>(l.points.size() / 2), l.type});
  Korvane::AnimationParam p;
  p.input = &in_buf;
  p.mask = &mask_buf;
  p.output = &out_buf;
  p.anime_frame_count = 3;
  p.p_flow = flows.empty() ? nullptr : flows.data();
  p.flow_num = static_cast<uint32_t>(flows.size());
  const int32_t hr = Animator()->Init(&p);
  if (hr == S_OK) {
    const int32_t frame = Animator()->Animate(&p, 1);
    if (frame != S_OK) {
      std::fprintf(stderr, "Animate of accepted flows answered %x\n", unsigned(frame));
      std::abort();
    }
  }
  for (size_t i = 0; i < KorvaneFuzz::kGuard; ++i)
    if (out[i] != KorvaneFuzz::kGuardByte || out[out.size() - 1 - i] != KorvaneFuzz::kGuardByte) std::abort();
  return 0;
}
