// Reading and writing image files for the tool. Everything in memory is 8-bit
// BGRA (or 8-bit gray for masks and guides), rows packed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/ImageBuffer.h"

namespace KorvaneTool {

struct Image {
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 4;  // 4: B, G, R, A; 1: gray
  std::vector<uint8_t> pixels;

  Image() = default;
  Image(int32_t w, int32_t h, int32_t c, uint8_t fill = 0)
      : width(w), height(h), channels(c), pixels(static_cast<size_t>(w) * h * c, fill) {}
  uint8_t* at(int32_t x, int32_t y) { return &pixels[(static_cast<size_t>(y) * width + x) * channels]; }
  const uint8_t* at(int32_t x, int32_t y) const {
    return &pixels[(static_cast<size_t>(y) * width + x) * channels];
  }
  // The image as the library's caller-owned record.
  Korvane::ImageBuffer Buffer() {
    return Korvane::MakeImageBuffer(pixels.data(), width, height,
                                    channels == 4 ? Korvane::PIXEL_BGRA32 : Korvane::PIXEL_GRAY8);
  }
};

// Reads a PNG (gray, gray+alpha, RGB, RGBA, palette; 16-bit reduced to 8) or
// a JPEG into BGRA. On failure returns false with a one-line reason in `error`.
bool LoadImage(const std::string& path, Image& out, std::string& error);

// Reads an image and reduces it to one gray channel (Rec. 601 luma).
bool LoadGray(const std::string& path, Image& out, std::string& error);

// Writes PNG or JPEG by the file's extension (.png, .jpg, .jpeg); `quality`
// is JPEG's 1..100. Gray images are written as gray.
bool SaveImage(const std::string& path, const Image& img, int quality, std::string& error);

// Lower-case extension of a path including the dot, e.g. ".png".
std::string Extension(const std::string& path);

}  // namespace KorvaneTool
