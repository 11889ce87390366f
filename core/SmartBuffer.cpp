#include "core/SmartBuffer.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "core/Platform.h"

namespace Korvane {

namespace {

// The shared rectangle copy: `big` is the image the rectangle lies in,
// `small_w`/`small_h` the size of the other image. When `paste` is false rows
// go from big to small, otherwise from small to big.
int32_t CopyRect(unsigned char* big, int32_t big_w, int32_t big_h, int32_t big_stride,
                 int32_t big_channel, unsigned char* small, int32_t small_w, int32_t small_h,
                 int32_t small_stride, Rect roi, bool paste) {
  if (roi.left < 0 || roi.top < 0 || roi.right > big_w || roi.bottom > big_h ||
      small_w != roi.right - roi.left || small_h != roi.bottom - roi.top) {
    return E_INVALIDARG;
  }
  if (small_h < 1) return S_OK;
  if (!big || !small) return E_POINTER;
  // Rows of mismatched formats could run past the end of a row of `big`;
  // refuse them rather than touch memory outside either image.
  if (static_cast<int64_t>(roi.left) * big_channel + small_stride > big_stride) return E_INVALIDARG;
  const ptrdiff_t offset =
      static_cast<ptrdiff_t>(roi.top) * big_stride + static_cast<ptrdiff_t>(roi.left) * big_channel;
  unsigned char* b = big + offset;
  for (int32_t r = 0; r < small_h; ++r) {
    if (paste) {
      std::memcpy(b, small, static_cast<size_t>(small_stride));
    } else {
      std::memcpy(small, b, static_cast<size_t>(small_stride));
    }
    b += big_stride;
    small += small_stride;
  }
  return S_OK;
}

}  // namespace

int32_t CreateSmartBufferData(SmartBuffer& buf, int width, int height, int pix_fmt) {
  buf.width = width;
  buf.height = height;
  buf.pix_fmt = pix_fmt;
  const int32_t bpp = BytesPerPixel(pix_fmt);
  if (bpp == 0) return E_NOTIMPL;
  buf.channel = ChannelCount(pix_fmt);
  buf.stride = width * bpp;
  const size_t bytes = (width > 0 && height > 0)
                           ? static_cast<size_t>(buf.stride) * static_cast<size_t>(height)
                           : 0;
  auto* pixels = static_cast<unsigned char*>(Platform::AllocatePixels(bytes));
  if (!pixels) throw std::bad_alloc();
  buf.data = std::shared_ptr<unsigned char[]>(pixels, [](unsigned char* p) { Platform::FreePixels(p); });
  return S_OK;
}

int32_t CreateSmartBufferData(SmartBuffer& buf, int width, int height, int pix_fmt,
                              unsigned char* external) {
  buf.width = width;
  buf.height = height;
  buf.pix_fmt = pix_fmt;
  const int32_t bpp = BytesPerPixel(pix_fmt);
  if (bpp == 0 || pix_fmt == PIXEL_FLOAT96) return E_NOTIMPL;
  buf.channel = ChannelCount(pix_fmt);
  buf.stride = width * bpp;
  buf.data = std::shared_ptr<unsigned char[]>(external, [](unsigned char*) {});
  return S_OK;
}

int32_t CopySmartBufferData(const SmartBuffer& src, SmartBuffer& dst) {
  if (src.stride != dst.stride || src.height != dst.height) return E_INVALIDARG;
  if (src.stride <= 0 || src.height <= 0) return S_OK;
  if (!src.data || !dst.data) return E_POINTER;
  std::memcpy(dst.data.get(), src.data.get(),
              static_cast<size_t>(src.stride) * static_cast<size_t>(src.height));
  return S_OK;
}

int32_t CopyBufferDataWithROI(const ImageBuffer& src, ImageBuffer& dst, Rect roi) {
  return CopyRect(src.data, src.width, src.height, src.stride, src.channel, dst.data, dst.width,
                  dst.height, dst.stride, roi, false);
}

int32_t CopySmartBufferDataWithROI(const SmartBuffer& src, SmartBuffer& dst, Rect roi) {
  return CopyRect(src.data.get(), src.width, src.height, src.stride, src.channel, dst.data.get(),
                  dst.width, dst.height, dst.stride, roi, false);
}

int32_t PasteSmartBufferDataWithROI(const SmartBuffer& src, SmartBuffer& dst, Rect roi) {
  return CopyRect(dst.data.get(), dst.width, dst.height, dst.stride, dst.channel, src.data.get(),
                  src.width, src.height, src.stride, roi, true);
}

SmartBuffer SmartBufferView(const ImageBuffer& img) {
  SmartBuffer b;
  b.data = std::shared_ptr<unsigned char[]>(img.data, [](unsigned char*) {});
  b.width = img.width;
  b.height = img.height;
  b.stride = img.stride;
  b.channel = img.channel;
  b.pix_fmt = img.pix_fmt;
  return b;
}

}  // namespace Korvane
