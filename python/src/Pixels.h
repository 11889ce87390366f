// numpy arrays as the render core's images. A photo is read where it lies
// when it is already BGRA with a 4-byte pixel step (padded rows are fine);
// every other layout (RGB, RGBA, BGR, strided slices) is copied once into
// packed BGRA. Frames come back as new arrays in the caller's order.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>

#include "frontend/Image.h"

namespace KorvanePython {

namespace py = pybind11;

// The channel order of the caller's arrays.
enum class Order { kRGB, kRGBA, kBGR, kBGRA };

// `order` ("rgb", "rgba", "bgr", "bgra" or None) checked against the
// array's channel count; None picks RGB or RGBA by that count.
Order OrderOf(const py::object& order, int channels);
int ChannelsOf(Order order);
bool HasAlpha(Order order);

// An image handed to the render core: a view of the array's own pixels, or
// of a packed copy. Keeps the array alive while the view is used.
struct PixelsIn {
  py::object owner;
  KorvaneFrontend::Image copy;
  KorvaneFrontend::ImageView view;
};

// The channels of a photo or shape image (1 only with `gray_ok`), after
// checking it is a uint8 array of shape H x W x 3 or 4 (or H x W).
int ColorChannels(const py::object& array, const std::string& what, bool gray_ok);

// A photo or shape image: H x W x 3 or 4 uint8 in `order`, or H x W uint8
// gray (shapes only, `gray_ok`). `what` names the argument in messages.
// Copies run with the GIL released.
PixelsIn ColorIn(const py::object& array, Order order, const std::string& what, bool gray_ok = false);

// A guide or mask: H x W uint8 (H x W x 1 is taken too).
PixelsIn GrayIn(const py::object& array, const std::string& what);

// A new, uninitialised H x W x channels array.
py::array_t<uint8_t> NewArray(int32_t width, int32_t height, int channels);

// Frames are rendered as BGRA. For the caller's order they are either
// rendered straight into the returned array (BGRA; RGBA with red and blue
// exchanged afterwards) or copied into it (RGB, BGR). Neither needs the GIL.
void SwapRedBlue(const KorvaneFrontend::ImageView& frame);
void CopyFrame(const KorvaneFrontend::ImageView& frame, Order order, uint8_t* dst);

}  // namespace KorvanePython
