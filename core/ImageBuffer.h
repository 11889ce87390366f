// Public header: part of the installed API.
// The image records that cross the library boundary.
#pragma once

#include <cstdint>
#include <memory>

namespace Korvane {

// Pixel formats. Rows may be padded: stride, the bytes from one row to the
// next, is at least width times the bytes of a pixel.
enum PixelFormat : int32_t {
  PIXEL_BGRA32 = 0,   // 4 bytes: blue, green, red, alpha
  PIXEL_BGR24 = 1,    // 3 bytes
  PIXEL_GRAY8 = 2,    // 1 byte
  PIXEL_GRAY16 = 3,   // 2 bytes
  PIXEL_FLOAT32 = 4,  // one float
  PIXEL_FLOAT96 = 5,  // three floats (B, G, R)
  PIXEL_INT32 = 6,    // one 32-bit integer
};

// Rectangle with exclusive right and bottom edges.
struct Rect {
  int32_t left = 0;
  int32_t top = 0;
  int32_t right = 0;
  int32_t bottom = 0;
};

// An image whose pixels belong to the caller (inputs, outputs, masks).
struct ImageBuffer {
  unsigned char* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  int32_t stride = 0;
  int32_t channel = 4;  // channel count, not bytes per pixel
  int32_t pix_fmt = PIXEL_BGRA32;
};

// An image with shared, reference-counted pixels: the effects' working images,
// and the image type of some parameter records.
struct SmartBuffer {
  std::shared_ptr<unsigned char[]> data;
  int32_t width = 0;
  int32_t height = 0;
  int32_t stride = 0;
  int32_t channel = 4;
  int32_t pix_fmt = PIXEL_BGRA32;
};

// Bytes per pixel of a format, or 0 for an unknown one.
inline int32_t BytesPerPixel(int32_t pix_fmt) {
  switch (pix_fmt) {
    case PIXEL_BGRA32: return 4;
    case PIXEL_BGR24: return 3;
    case PIXEL_GRAY8: return 1;
    case PIXEL_GRAY16: return 2;
    case PIXEL_FLOAT32: return 4;
    case PIXEL_FLOAT96: return 12;
    case PIXEL_INT32: return 4;
    default: return 0;
  }
}

// Channel count of a format, or 0 for an unknown one.
inline int32_t ChannelCount(int32_t pix_fmt) {
  switch (pix_fmt) {
    case PIXEL_BGRA32: return 4;
    case PIXEL_BGR24: return 3;
    case PIXEL_FLOAT96: return 3;
    case PIXEL_GRAY8:
    case PIXEL_GRAY16:
    case PIXEL_FLOAT32:
    case PIXEL_INT32: return 1;
    default: return 0;
  }
}

// Describes memory the caller keeps owning as an ImageBuffer with packed rows.
inline ImageBuffer MakeImageBuffer(unsigned char* data, int32_t width, int32_t height,
                                   int32_t pix_fmt = PIXEL_BGRA32) {
  ImageBuffer b;
  b.data = data;
  b.width = width;
  b.height = height;
  b.stride = width * BytesPerPixel(pix_fmt);
  b.channel = ChannelCount(pix_fmt);
  b.pix_fmt = pix_fmt;
  return b;
}

// A SmartBuffer over memory the caller keeps owning: the library never frees it.
inline SmartBuffer MakeSmartBufferView(unsigned char* data, int32_t width, int32_t height,
                                       int32_t pix_fmt = PIXEL_BGRA32) {
  SmartBuffer b;
  b.data = std::shared_ptr<unsigned char[]>(data, [](unsigned char*) {});
  b.width = width;
  b.height = height;
  b.stride = width * BytesPerPixel(pix_fmt);
  b.channel = ChannelCount(pix_fmt);
  b.pix_fmt = pix_fmt;
  return b;
}

}  // namespace Korvane
