// The tool's image reading: any bytes, as a file of any format the tool
// reads. A decode either fails with a message or gives an image whose pixel
// count matches its size.
#include <string>

#include "ImageIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KorvaneTool::Image img;
  std::string error;
  if (!KorvaneTool::DecodeImage(data, size, "fuzz input", img, error)) {
    if (error.empty()) __builtin_trap();  // a refusal always says why
    return 0;
  }
  if (img.width <= 0 || img.height <= 0 || (img.channels != 1 && img.channels != 4) ||
      img.pixels.size() != static_cast<size_t>(img.width) * img.height * img.channels)
    __builtin_trap();
  return 0;
}
