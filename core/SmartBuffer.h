// Creating working images and copying whole images or rectangles between
// smart buffers and caller images.
#pragma once

#include <cstdint>

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

}  // namespace Korvane
