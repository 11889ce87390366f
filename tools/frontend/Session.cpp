#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "RenderSupport.h"
#include "Resize.h"

namespace KorvaneFrontend {

Korvane::ImageBuffer ImageView::Buffer() const {
  Korvane::ImageBuffer b = Korvane::MakeImageBuffer(data, width, height,
                                                    channels == 4 ? Korvane::PIXEL_BGRA32 : Korvane::PIXEL_GRAY8);
  b.stride = stride;
  return b;
}

Korvane::SmartBuffer ImageView::Smart() const {
  Korvane::SmartBuffer b = Korvane::MakeSmartBufferView(data, width, height,
                                                        channels == 4 ? Korvane::PIXEL_BGRA32 : Korvane::PIXEL_GRAY8);
  b.stride = stride;
  return b;
}

Image CopyOf(const ImageView& view) {
  Image img(view.width, view.height, view.channels);
  const size_t row = static_cast<size_t>(view.width) * view.channels;
  for (int32_t y = 0; y < view.height; ++y) std::memcpy(img.at(0, y), view.Row(y), row);
  return img;
}

Image GrayOf(const ImageView& bgra) {
  Image gray(bgra.width, bgra.height, 1);
  for (int32_t y = 0; y < bgra.height; ++y) {
    const uint8_t* p = bgra.Row(y);
    for (int32_t x = 0; x < bgra.width; ++x, p += 4) {
      *gray.at(x, y) = static_cast<uint8_t>((p[0] * 29 + p[1] * 150 + p[2] * 77 + 128) >> 8);
    }
  }
  return gray;
}

std::string CodeText(int32_t code) {
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%08X", static_cast<unsigned>(code));
  return std::string(Korvane::ResultCodeName(code)) + " (" + hex + ")";
}

std::string Status::Text(const std::string& input_name) const {
  std::string text = message;
  const size_t at = text.find("{input}");
  if (at != std::string::npos) text.replace(at, 7, input_name.empty() ? input : input_name);
  return text;
}

Status Status::Failed(std::string message, int32_t code, std::string input) {
  Status s;
  s.kind = kFailed;
  s.code = code;
  s.message = std::move(message);
  s.input = std::move(input);
  return s;
}

Status Status::Usage(std::string message) {
  Status s;
  s.kind = kUsage;
  s.message = std::move(message);
  return s;
}

Status Status::Call(const std::string& what, int32_t code) {
  if (code >= 0) return Status();
  if (code == E_OUTOFMEMORY) return Failed("out of memory", code);
  return Failed(what + " failed: " + CodeText(code), code);
}

namespace {
// The library's log lines describe failures for its developers; every front
// end reports a failure to its user in one line of its own (Status), so the
// engines it creates keep theirs quiet.
void DropLogLine(void*, const char*) {}
}  // namespace

Engine::Engine() {
  CreateKorvaneEngine(&m_engine);
  if (m_engine) m_engine->SetLogCallback(&DropLogLine, nullptr);
}
Engine::~Engine() { DeleteKorvaneEngine(&m_engine); }

Status GrayInputOf(const Inputs& inputs, const std::string& name, const ImageView& photo, ImageView& image,
                   Image& resized, std::string& notice) {
  image = ImageView();
  const auto it = inputs.images.find(name);
  if (it == inputs.images.end() || it->second.empty()) return Status();
  image = it->second;
  if (image.channels != 1) return Status::Failed("{input} must be a gray image", E_INVALIDARG, name);
  if (image.width == photo.width && image.height == photo.height) return Status();
  // A guide or mask of the photo's proportions (a phone's depth map is
  // smaller than its photo) is resized to it; one of other proportions
  // belongs to another picture or is turned.
  const double aspect = static_cast<double>(image.width) * photo.height / (static_cast<double>(image.height) * photo.width);
  if (std::fabs(aspect - 1.0) <= 0.02) {
    notice = "the " + name + " (" + std::to_string(image.width) + "x" + std::to_string(image.height) +
             ") is resized to the photo's " + std::to_string(photo.width) + "x" + std::to_string(photo.height);
    resized = Resized(image, photo.width, photo.height);
    image = resized.View();
    return Status();
  }
  {
    return Status::Failed("{input} is " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                              " but the photo is " + std::to_string(photo.width) + "x" +
                              std::to_string(photo.height) + ": " + CodeText(E_INVALIDARG),
                          E_INVALIDARG, name);
  }
  return Status();
}

Status RegionOf(const OptionValues& values, const ImageView& photo, Korvane::Rect& region) {
  region = Korvane::Rect{0, 0, photo.width, photo.height};
  if (!values.cmd().Find("roi") || !values.Has("roi")) return Status();
  const Korvane::Rect r = values.Rect("roi");
  if (r.right > photo.width || r.bottom > photo.height || r.right <= r.left || r.bottom <= r.top) {
    return Status::Failed("--roi " + std::to_string(r.left) + "," + std::to_string(r.top) + "," +
                          std::to_string(r.right) + "," + std::to_string(r.bottom) +
                          " must be a non-empty rectangle inside the " + std::to_string(photo.width) + "x" +
                          std::to_string(photo.height) + " photo (right and bottom exclusive)");
  }
  region = r;
  return Status();
}

Status PhotoSession::Begin(const OptionValues& values, const ImageView& photo, const Inputs& inputs,
                           const char* gray_name, ImageView* gray) {
  m_photo = photo;
  Korvane::Rect region;
  Status s = RegionOf(values, photo, region);
  std::string notice;
  if (s.ok() && gray) s = GrayInputOf(inputs, gray_name, photo, *gray, m_gray_resized, notice);
  if (!notice.empty()) m_warnings.push_back(notice);
  m_width = region.right - region.left;
  m_height = region.bottom - region.top;
  return s;
}

Status PhotoSession::Region(const OptionValues& values, Korvane::Rect& region) const {
  const Status s = RegionOf(values, m_photo, region);
  if (s.ok() && (region.right - region.left != m_width || region.bottom - region.top != m_height)) {
    return Status::Failed("--roi cannot change its size in an open session");
  }
  return s;
}

Image RadialGuide(int width, int height) {
  Image g(width, height, 1);
  const double cx = (width - 1) / 2.0, cy = (height - 1) / 2.0;
  const double corner = std::hypot(cx, cy) + 1e-9;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - cx, y - cy) / corner;
      *g.at(x, y) = static_cast<uint8_t>(std::lround(255.0 * (1.0 - d)));
    }
  return g;
}

ImageView PhotoSession::StretchedGuide(const OptionValues& values, const ImageView& guide) {
  if (guide.empty() || !values.Flag("stretch-guide")) return guide;
  if (m_stretched.pixels.empty()) {
    // The values between the darkest and the brightest half percent span
    // 0..255, so a few stray pixels (a depth map's holes) do not hold the
    // range narrow.
    std::vector<size_t> histogram(256, 0);
    for (int32_t y = 0; y < guide.height; ++y)
      for (int32_t x = 0; x < guide.width; ++x) ++histogram[*guide.At(x, y)];
    const size_t cut = static_cast<size_t>(guide.width) * guide.height / 200;
    int lo = 0, hi = 255;
    for (size_t below = 0; lo < 255 && below + histogram[lo] <= cut; ++lo) below += histogram[lo];
    for (size_t above = 0; hi > 0 && above + histogram[hi] <= cut; --hi) above += histogram[hi];
    if (hi <= lo) return guide;  // one value: nothing to stretch
    uint8_t table[256];
    for (int v = 0; v < 256; ++v) {
      table[v] = static_cast<uint8_t>(std::clamp(std::lround(255.0 * (v - lo) / (hi - lo)), 0L, 255L));
    }
    m_stretched = Image(guide.width, guide.height, 1);
    for (int32_t y = 0; y < guide.height; ++y)
      for (int32_t x = 0; x < guide.width; ++x) *m_stretched.at(x, y) = table[*guide.At(x, y)];
  }
  return m_stretched.View();
}

Status CheckFrame(const Session& session, const ImageView& out) {
  if (out.empty() || out.channels != 4 || out.width != session.width() || out.height != session.height()) {
    return Status::Failed("the frame must be a BGRA image of " + std::to_string(session.width()) + "x" +
                              std::to_string(session.height()),
                          E_INVALIDARG);
  }
  return Status();
}

Status Session::Render(const OptionValues& values, int32_t index, int32_t count, const ImageView& out) {
  if (count < 1 || index < 0 || index >= count) return Status::Usage("frame " + std::to_string(index) + " of " + std::to_string(count) + " does not exist");
  Status s = CheckCombination(values, count);
  if (s.ok()) s = CheckFrame(*this, out);
  if (!s.ok()) return s;
  try {
    return Draw(values, index, count, out);
  } catch (const std::bad_alloc&) {
    return Status::Failed("out of memory", E_OUTOFMEMORY);
  }
}

Status OpenSession(Engine& engine, const OptionValues& values, const ImageView& photo, const Inputs& inputs,
                   std::unique_ptr<Session>& session) {
  static const std::pair<const char*, Opener> kOpeners[] = {
      {"focus-blur", OpenFocusBlur}, {"glitch", OpenGlitch}, {"glow", OpenGlow},       {"light-rays", OpenLightRays},
      {"bokeh", OpenBokeh},          {"sparkle", OpenSparkle}, {"animate", OpenAnimate}, {"disperse", OpenDisperse},
  };
  session.reset();
  if (photo.empty() || photo.channels != 4 || photo.stride < photo.width * 4) {
    return Status::Failed("the photo must be a BGRA image", E_INVALIDARG);
  }
  const Status used = CheckInputsUsed(values, inputs);
  if (!used.ok()) return used;
  for (const auto& [name, open] : kOpeners) {
    if (values.cmd().name != name) continue;
    try {
      return open(engine, values, photo, inputs, session);
    } catch (const std::bad_alloc&) {
      session.reset();
      return Status::Failed("out of memory", E_OUTOFMEMORY);
    }
  }
  return Status::Usage("no render for command " + values.cmd().name);
}

}  // namespace KorvaneFrontend
