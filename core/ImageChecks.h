// The checks every effect makes on the images of a parameter record and on
// the bands its tasks receive, written once.
//
// Record checks follow one order in every effect: missing images or pixels
// (E_POINTER), then formats (E_NOTIMPL), then sizes, strides and rectangles
// (E_INVALIDARG). CheckImage answers all three for one image.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// The longest side any effect accepts: what a JPEG can hold and a little
// more. Sides are checked against it before anything is allocated, so no
// working size derived from a side can overflow 32 bits.
constexpr int32_t kMaxImageSide = 1 << 16;

// v in [lo, hi]; false for NaN.
inline bool InRange(float v, float lo, float hi) { return v >= lo && v <= hi; }

// True when the pixel bytes of a and b share memory (both must have pixels
// and a positive size). A pixel counts as its format's bytes or its channel
// count, whichever is more: a guide read by its first byte steps by channel.
inline uintptr_t PixelAddress(const ImageBuffer& img) { return reinterpret_cast<uintptr_t>(img.data); }
inline uintptr_t PixelAddress(const SmartBuffer& img) { return reinterpret_cast<uintptr_t>(img.data.get()); }
template <class A, class B>
inline bool Overlaps(const A& a, const B& b) {
  auto begin = [](const auto& i) { return PixelAddress(i); };
  auto end = [&](const auto& i) {
    const size_t pixel = static_cast<size_t>(std::max(BytesPerPixel(i.pix_fmt), i.channel));
    return begin(i) + static_cast<size_t>(i.height - 1) * static_cast<size_t>(i.stride) +
           static_cast<size_t>(i.width) * pixel;
  };
  return begin(a) < end(b) && begin(b) < end(a);
}

// Stores `code` in a task's result slot (when there is one) and returns it:
// `return Done(result, E_POINTER);`.
inline int32_t Done(int32_t* result, int32_t code) {
  if (result) *result = code;
  return code;
}

template <class Image>
inline bool HasPixels(const Image& img) {
  return img.data != nullptr;
}

// The image carries the given format (and the channel count that format has).
template <class Image>
inline bool IsFormat(const Image& img, int32_t pix_fmt) {
  return img.pix_fmt == pix_fmt && img.channel == ChannelCount(pix_fmt);
}
template <class Image>
inline bool IsBgra(const Image& img) {
  return IsFormat(img, PIXEL_BGRA32);
}
template <class Image>
inline bool IsGray8(const Image& img) {
  return IsFormat(img, PIXEL_GRAY8);
}

// Positive width and height, and rows of at least width x bytes_per_pixel
// (computed in 64 bits, so no size can overflow the test).
template <class Image>
inline bool RowsFit(const Image& img, int64_t bytes_per_pixel) {
  return img.width > 0 && img.height > 0 && bytes_per_pixel > 0 &&
         static_cast<int64_t>(img.stride) >= static_cast<int64_t>(img.width) * bytes_per_pixel;
}

// One image of a record: E_POINTER without pixels, E_NOTIMPL in another
// format, E_INVALIDARG for an empty size or rows too short; else S_OK.
template <class Image>
inline int32_t CheckImage(const Image* img, int32_t pix_fmt) {
  if (img == nullptr || !HasPixels(*img)) return E_POINTER;
  if (!IsFormat(*img, pix_fmt)) return E_NOTIMPL;
  if (!RowsFit(*img, BytesPerPixel(pix_fmt))) return E_INVALIDARG;
  return S_OK;
}
template <class Image>
inline int32_t CheckImage(const Image& img, int32_t pix_fmt) {
  return CheckImage(&img, pix_fmt);
}

template <class A, class B>
inline bool SameSize(const A& a, const B& b) {
  return a.width == b.width && a.height == b.height;
}

inline int32_t RectWidth(const Rect& r) { return r.right - r.left; }
inline int32_t RectHeight(const Rect& r) { return r.bottom - r.top; }
inline bool IsEmpty(const Rect& r) { return r.right <= r.left || r.bottom <= r.top; }

// A non-empty rectangle lying wholly inside a w x h image.
inline bool RectInside(const Rect& r, int32_t w, int32_t h) {
  return r.left >= 0 && r.top >= 0 && r.right <= w && r.bottom <= h && !IsEmpty(r);
}
template <class Image>
inline bool RectInside(const Rect& r, const Image& img) {
  return RectInside(r, img.width, img.height);
}

// The images of one frame call, in the one order: the photo `src`, the
// output `dst` that shows rectangle `roi` of it, and an optional GRAY8
// `guide` of the photo's size (NULL, or an image without pixels, is none).
// E_POINTER for a missing photo, output or pixels; E_NOTIMPL for src or dst
// not BGRA32 or a guide not GRAY8; E_INVALIDARG for an empty photo, a side
// over kMaxImageSide, short rows, roi not inside the photo, dst not roi's
// size or a guide of another size. An effect whose own contract orders its
// checks differently says so in its header and checks in that order.
template <class Src, class Dst, class Guide = Src>
inline int32_t CheckFrameImages(const Src* src, const Dst* dst, const Rect& roi, const Guide* guide = nullptr) {
  if (!src || !HasPixels(*src) || !dst || !HasPixels(*dst)) return E_POINTER;
  const bool guided = guide && HasPixels(*guide);
  if (!IsBgra(*src) || !IsBgra(*dst) || (guided && !IsGray8(*guide))) return E_NOTIMPL;
  if (!RowsFit(*src, 4) || !RowsFit(*dst, 4) || src->width > kMaxImageSide || src->height > kMaxImageSide) {
    return E_INVALIDARG;
  }
  if (!RectInside(roi, src->width, src->height) || dst->width != RectWidth(roi) || dst->height != RectHeight(roi)) {
    return E_INVALIDARG;
  }
  if (guided && (!SameSize(*guide, *src) || !RowsFit(*guide, 1))) return E_INVALIDARG;
  return S_OK;
}

// An image a task reads or writes over rectangle r: E_POINTER without
// pixels, E_NOTIMPL in another format, E_INVALIDARG for a negative size, rows
// too short or r reaching outside it. Unlike CheckImage, an empty image (or
// rectangle) passes: it simply holds nothing.
template <class Image>
inline int32_t CheckHolds(const Image* img, int32_t pix_fmt, const Rect& r) {
  if (img == nullptr || !HasPixels(*img)) return E_POINTER;
  if (!IsFormat(*img, pix_fmt)) return E_NOTIMPL;
  if (img->width < 0 || img->height < 0 ||
      static_cast<int64_t>(img->stride) < static_cast<int64_t>(img->width) * BytesPerPixel(pix_fmt)) {
    return E_INVALIDARG;
  }
  if (r.left < 0 || r.top < 0 || r.right > img->width || r.bottom > img->height) return E_INVALIDARG;
  return S_OK;
}



// The rectangle cut to a w x h image; empty when nothing of it lies inside.
inline Rect Clip(const Rect& r, int32_t w, int32_t h) {
  Rect c;
  c.left = std::max(r.left, 0);
  c.top = std::max(r.top, 0);
  c.right = std::min(r.right, w);
  c.bottom = std::min(r.bottom, h);
  return c;
}
inline Rect FullRect(int32_t w, int32_t h) { return Rect{0, 0, w, h}; }
template <class Image>
inline Rect FullRect(const Image& img) {
  return Rect{0, 0, img.width, img.height};
}

// Row y of an image, typed.
template <class T = unsigned char>
inline T* RowPtr(const ImageBuffer& img, int32_t y) {
  return reinterpret_cast<T*>(img.data + static_cast<ptrdiff_t>(y) * img.stride);
}
template <class T = unsigned char>
inline T* RowPtr(const SmartBuffer& img, int32_t y) {
  return reinterpret_cast<T*>(img.data.get() + static_cast<ptrdiff_t>(y) * img.stride);
}

}  // namespace Korvane
