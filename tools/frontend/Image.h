// Images as the front ends hand them to the render cores: 8-bit BGRA photos
// and frames, 8-bit gray guides and masks. A view describes pixels someone
// else owns (a numpy array, a GIMP tile, a decoded file) and may have padded
// rows; an Image owns packed pixels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <korvane/core/ImageBuffer.h>

namespace KorvaneFrontend {

struct ImageView {
  uint8_t* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  int32_t stride = 0;    // bytes from one row to the next, at least width x channels
  int32_t channels = 4;  // 4: B, G, R, A; 1: gray

  bool empty() const { return data == nullptr || width <= 0 || height <= 0; }
  uint8_t* Row(int32_t y) const { return data + static_cast<ptrdiff_t>(y) * stride; }
  uint8_t* At(int32_t x, int32_t y) const { return Row(y) + static_cast<ptrdiff_t>(x) * channels; }

  // The library's records over the same pixels. The library never writes an
  // input, so a view of a read-only photo may be passed as one.
  Korvane::ImageBuffer Buffer() const;
  Korvane::SmartBuffer Smart() const;
};

struct Image {
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 4;
  std::vector<uint8_t> pixels;

  Image() = default;
  Image(int32_t w, int32_t h, int32_t c, uint8_t fill = 0)
      : width(w), height(h), channels(c), pixels(static_cast<size_t>(w) * h * c, fill) {}

  uint8_t* at(int32_t x, int32_t y) { return &pixels[(static_cast<size_t>(y) * width + x) * channels]; }
  const uint8_t* at(int32_t x, int32_t y) const { return &pixels[(static_cast<size_t>(y) * width + x) * channels]; }
  ImageView View() const {
    return {const_cast<uint8_t*>(pixels.data()), width, height, width * channels, channels};
  }
};

// A packed copy of a view.
Image CopyOf(const ImageView& view);

// One gray channel of a BGRA view: the luma (R, G, B weighted 77, 150, 29
// out of 256) every front end reduces a colour guide or mask to.
Image GrayOf(const ImageView& bgra);

}  // namespace KorvaneFrontend
