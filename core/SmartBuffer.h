// Creating working images and copying whole images or rectangles between
// smart buffers and caller images.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// Sets buf up for the format and allocates stride x height bytes (not
// initialised). Size and format fields are stored first, whatever follows;
// an unknown format returns E_NOTIMPL and keeps the old pixels. Throws
// std::bad_alloc when memory runs out; interface boundaries catch it.
int32_t CreateSmartBufferData(SmartBuffer& buf, int width, int height, int pix_fmt);

// The same over memory the caller keeps owning (never freed by the buffer).
// Formats 0 to 4 and 6 only: PIXEL_FLOAT96 is refused with E_NOTIMPL.
int32_t CreateSmartBufferData(SmartBuffer& buf, int width, int height, int pix_fmt,
                              unsigned char* external);

// Copies all pixel bytes of src into dst's existing pixels. Only the row
// size and the row count must agree (E_INVALIDARG otherwise).
int32_t CopySmartBufferData(const SmartBuffer& src, SmartBuffer& dst);

// Copies the rectangle roi of src into the whole of dst. roi must lie inside
// src and have dst's size. The horizontal offset is roi.left x channel count,
// exact for the 8-bit formats these copies serve.
int32_t CopyBufferDataWithROI(const ImageBuffer& src, ImageBuffer& dst, Rect roi);
int32_t CopySmartBufferDataWithROI(const SmartBuffer& src, SmartBuffer& dst, Rect roi);

// The reverse: copies the whole of src into the rectangle roi of dst.
int32_t PasteSmartBufferDataWithROI(const SmartBuffer& src, SmartBuffer& dst, Rect roi);

// A view of a caller image as a smart buffer (no copy, no ownership).
SmartBuffer SmartBufferView(const ImageBuffer& img);

// Rectangle r of a working image (BGRA32 unless told otherwise) as an
// ImageBuffer sharing its memory: how a light map, an output, a shape or a
// float map (or a part of one) is handed to the kernels that take one.
inline ImageBuffer MapView(const SmartBuffer& map, const Rect& r, int32_t pix_fmt = PIXEL_BGRA32) {
  ImageBuffer v;
  v.data = map.data.get() + static_cast<ptrdiff_t>(r.top) * map.stride +
           static_cast<ptrdiff_t>(r.left) * BytesPerPixel(pix_fmt);
  v.width = r.right - r.left;
  v.height = r.bottom - r.top;
  v.stride = map.stride;
  v.channel = ChannelCount(pix_fmt);
  v.pix_fmt = pix_fmt;
  return v;
}

// Every byte of a working image, padding included, set to `value`: working
// images start cleared so their unused edges never hold old pixels.
inline void FillMap(SmartBuffer& map, uint8_t value = 0) {
  std::memset(map.data.get(), value, static_cast<size_t>(map.stride) * static_cast<size_t>(map.height));
}

}  // namespace Korvane
