#include "Pixels.h"

#include <climits>
#include <cstdint>
#include <thread>
#include <utility>

namespace KorvanePython {

using KorvaneFrontend::Image;
using KorvaneFrontend::ImageView;

namespace {

std::string ShapeText(const py::array& a) {
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
  return s + (a.ndim() == 1 ? ",)" : ")");
}

// The object as a numpy array without copying, refusing anything that is
// not one of 8-bit unsigned pixels.
py::array AsArray(const py::object& object, const std::string& what) {
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error(what + " must be a numpy array, not " + std::string(py::str(object.get_type().attr("__name__"))));
  }
  py::array a = py::reinterpret_borrow<py::array>(object);
  if (!a.dtype().is(py::dtype::of<uint8_t>())) {
    throw py::type_error(what + " must be an array of uint8, not " + std::string(py::str(a.dtype())));
  }
  return a;
}

void CheckSize(const py::array& a, const std::string& what) {
  if (a.shape(0) < 1 || a.shape(1) < 1 || a.shape(0) > INT_MAX / 4 || a.shape(1) > INT_MAX / 4) {
    throw py::value_error(what + " has no pixels or is too large: shape " + ShapeText(a));
  }
}

// Channel k of pixel (x, y) of an array with any strides.
struct Strided {
  const uint8_t* base;
  py::ssize_t sy, sx, sc;
  uint8_t At(py::ssize_t x, py::ssize_t y, py::ssize_t k) const { return base[y * sy + x * sx + k * sc]; }
};

// Runs rows(y0, y1) over all rows of an image, a large one in two halves
// side by side: a 12-megapixel conversion is a pass over some 80 MB, about
// as long as a fast effect's own work, and one core alone cannot saturate
// the memory. Small images stay on the calling thread.
template <class Rows>
void OverRows(int32_t width, int32_t height, Rows rows) {
  if (static_cast<int64_t>(width) * height < (1 << 20) || height < 2) {
    rows(0, height);
    return;
  }
  const int32_t half = height / 2;
  std::thread other([&] { rows(half, height); });
  rows(0, half);
  other.join();
}

// Packed 3- or 4-channel rows (RGB order when kSwap) into BGRA.
template <int kChannels, bool kSwap>
void PackedToBgra(const uint8_t* base, py::ssize_t row_step, Image& out, int32_t y0, int32_t y1) {
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* p = base + y * row_step;
    uint8_t* q = out.at(0, y);
    for (int32_t x = 0; x < out.width; ++x, p += kChannels, q += 4) {
      q[0] = p[kSwap ? 2 : 0];
      q[1] = p[1];
      q[2] = p[kSwap ? 0 : 2];
      q[3] = kChannels == 4 ? p[3] : 255;
    }
  }
}

// BGRA rows into packed 3- or 4-channel rows (RGB order when kSwap).
template <int kChannels, bool kSwap>
void BgraToPacked(const ImageView& frame, uint8_t* dst, int32_t y0, int32_t y1) {
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* p = frame.Row(y);
    uint8_t* q = dst + static_cast<size_t>(y) * frame.width * kChannels;
    for (int32_t x = 0; x < frame.width; ++x, p += 4, q += kChannels) {
      q[0] = p[kSwap ? 2 : 0];
      q[1] = p[1];
      q[2] = p[kSwap ? 0 : 2];
      if (kChannels == 4) q[3] = p[3];
    }
  }
}

// The packed-pixel copy for an order: channels and whether red comes first.
template <template <int, bool> class Pick>
auto ForOrder(Order order) {
  switch (order) {
    case Order::kRGB: return &Pick<3, true>::Run;
    case Order::kRGBA: return &Pick<4, true>::Run;
    case Order::kBGR: return &Pick<3, false>::Run;
    default: return &Pick<4, false>::Run;
  }
}
template <int C, bool S>
struct PackedIn {
  static void Run(const uint8_t* base, py::ssize_t row_step, Image& out, int32_t y0, int32_t y1) {
    PackedToBgra<C, S>(base, row_step, out, y0, y1);
  }
};
template <int C, bool S>
struct PackedOut {
  static void Run(const ImageView& frame, uint8_t* dst, int32_t y0, int32_t y1) { BgraToPacked<C, S>(frame, dst, y0, y1); }
};

}  // namespace

Order OrderOf(const py::object& order, int channels) {
  if (order.is_none()) return channels == 4 ? Order::kRGBA : Order::kRGB;
  if (!py::isinstance<py::str>(order)) throw py::type_error("order must be a string: 'rgb', 'rgba', 'bgr' or 'bgra'");
  const std::string o = order.cast<std::string>();
  Order result;
  if (o == "rgb") result = Order::kRGB;
  else if (o == "rgba") result = Order::kRGBA;
  else if (o == "bgr") result = Order::kBGR;
  else if (o == "bgra") result = Order::kBGRA;
  else throw py::value_error("order must be 'rgb', 'rgba', 'bgr' or 'bgra', not '" + o + "'");
  if (ChannelsOf(result) != channels) {
    throw py::value_error("order '" + o + "' wants " + std::to_string(ChannelsOf(result)) +
                          " channels but the photo has " + std::to_string(channels));
  }
  return result;
}

int ChannelsOf(Order order) { return order == Order::kRGB || order == Order::kBGR ? 3 : 4; }
bool HasAlpha(Order order) { return ChannelsOf(order) == 4; }

int ColorChannels(const py::object& object, const std::string& what, bool gray_ok) {
  py::array a = AsArray(object, what);
  if (gray_ok && a.ndim() == 2) return 1;
  if (a.ndim() != 3 || (a.shape(2) != 3 && a.shape(2) != 4)) {
    throw py::value_error(what + " must have shape H x W x 3 or H x W x 4" + (gray_ok ? " or H x W" : "") + ", not " +
                          ShapeText(a));
  }
  return static_cast<int>(a.shape(2));
}

PixelsIn ColorIn(const py::object& object, Order order, const std::string& what, bool gray_ok) {
  const int channels = ColorChannels(object, what, gray_ok);
  const bool gray = channels == 1;
  if (!gray && channels != ChannelsOf(order)) {
    throw py::value_error(what + " has " + std::to_string(channels) + " channels but the photo has " +
                          std::to_string(ChannelsOf(order)));
  }
  py::array a = py::reinterpret_borrow<py::array>(object);
  CheckSize(a, what);
  PixelsIn in;
  in.owner = a;
  const int32_t h = static_cast<int32_t>(a.shape(0)), w = static_cast<int32_t>(a.shape(1));
  const Strided src{static_cast<const uint8_t*>(a.data()), a.strides(0), a.strides(1), gray ? 0 : a.strides(2)};
  // BGRA with a 4-byte pixel step and rows one after another, pixels on
  // 4-byte boundaries: the core takes the rows as they lie, padding and all.
  const bool aligned = reinterpret_cast<uintptr_t>(src.base) % 4 == 0 && src.sy % 4 == 0;
  if (order == Order::kBGRA && src.sc == 1 && src.sx == 4 && src.sy >= 4 * static_cast<py::ssize_t>(w) &&
      src.sy <= INT_MAX && aligned) {
    in.view = ImageView{const_cast<uint8_t*>(src.base), w, h, static_cast<int32_t>(src.sy), 4};
    return in;
  }
  in.copy = Image(w, h, 4);
  // Pixels packed along the row (any row step): the typed copy.
  if (!gray && src.sc == 1 && src.sx == channels) {
    py::gil_scoped_release unlocked;
    const auto copy = ForOrder<PackedIn>(order);
    OverRows(w, h, [&](int32_t y0, int32_t y1) { copy(src.base, src.sy, in.copy, y0, y1); });
    in.view = in.copy.View();
    return in;
  }
  {
    py::gil_scoped_release unlocked;
    // Where each of B, G, R sits among the caller's channels.
    const bool rgb_first = order == Order::kRGB || order == Order::kRGBA;
    const py::ssize_t b = gray ? 0 : rgb_first ? 2 : 0, r = gray ? 0 : rgb_first ? 0 : 2, g = gray ? 0 : 1;
    const bool alpha = !gray && HasAlpha(order);
    for (int32_t y = 0; y < h; ++y) {
      uint8_t* q = in.copy.at(0, y);
      for (int32_t x = 0; x < w; ++x, q += 4) {
        q[0] = src.At(x, y, b);
        q[1] = src.At(x, y, g);
        q[2] = src.At(x, y, r);
        q[3] = alpha ? src.At(x, y, 3) : 255;
      }
    }
  }
  in.view = in.copy.View();
  return in;
}

PixelsIn GrayIn(const py::object& object, const std::string& what) {
  py::array a = AsArray(object, what);
  if (!(a.ndim() == 2 || (a.ndim() == 3 && a.shape(2) == 1))) {
    throw py::value_error(what + " must be a gray image of shape H x W, not " + ShapeText(a));
  }
  CheckSize(a, what);
  PixelsIn in;
  in.owner = a;
  const int32_t h = static_cast<int32_t>(a.shape(0)), w = static_cast<int32_t>(a.shape(1));
  const Strided src{static_cast<const uint8_t*>(a.data()), a.strides(0), a.strides(1), 0};
  if (src.sx == 1 && src.sy >= w && src.sy <= INT_MAX) {
    in.view = ImageView{const_cast<uint8_t*>(src.base), w, h, static_cast<int32_t>(src.sy), 1};
    return in;
  }
  in.copy = Image(w, h, 1);
  {
    py::gil_scoped_release unlocked;
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) *in.copy.at(x, y) = src.At(x, y, 0);
  }
  in.view = in.copy.View();
  return in;
}

py::array_t<uint8_t> NewArray(int32_t width, int32_t height, int channels) {
  return py::array_t<uint8_t>(
      {static_cast<py::ssize_t>(height), static_cast<py::ssize_t>(width), static_cast<py::ssize_t>(channels)});
}

void SwapRedBlue(const ImageView& frame) {
  OverRows(frame.width, frame.height, [&](int32_t y0, int32_t y1) {
    for (int32_t y = y0; y < y1; ++y) {
      uint8_t* p = frame.Row(y);
      for (int32_t x = 0; x < frame.width; ++x, p += 4) std::swap(p[0], p[2]);
    }
  });
}

void CopyFrame(const ImageView& frame, Order order, uint8_t* dst) {
  const auto copy = ForOrder<PackedOut>(order);
  OverRows(frame.width, frame.height, [&](int32_t y0, int32_t y1) { copy(frame, dst, y0, y1); });
}

}  // namespace KorvanePython
