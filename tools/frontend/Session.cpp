#include <cstdio>
#include <cstring>
#include <new>

#include "RenderSupport.h"

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

Status GrayInputOf(const Inputs& inputs, const std::string& name, const ImageView& photo, ImageView& image) {
  image = ImageView();
  const auto it = inputs.images.find(name);
  if (it == inputs.images.end() || it->second.empty()) return Status();
  image = it->second;
  if (image.channels != 1) return Status::Failed("{input} must be a gray image", E_INVALIDARG, name);
  if (image.width != photo.width || image.height != photo.height) {
    return Status::Failed("{input} is " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                              " but the photo is " + std::to_string(photo.width) + "x" +
                              std::to_string(photo.height) + ": " + CodeText(E_INVALIDARG),
                          E_INVALIDARG, name);
  }
  return Status();
}

Status RegionOf(const OptionValues& values, const ImageView& photo, Korvane::Rect& region) {
  region = Korvane::Rect{0, 0, photo.width, photo.height};
  if (!values.spec().Find("roi") || !values.Has("roi")) return Status();
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
  if (s.ok() && gray) s = GrayInputOf(inputs, gray_name, photo, *gray);
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

Status CheckFrame(const Session& session, const ImageView& out) {
  if (out.empty() || out.channels != 4 || out.width != session.width() || out.height != session.height()) {
    return Status::Failed("the frame must be a BGRA image of " + std::to_string(session.width()) + "x" +
                              std::to_string(session.height()),
                          E_INVALIDARG);
  }
  return Status();
}

Status CheckCombination(const OptionValues& values, int32_t frames) {
  if (values.spec().Find("frame") && values.Has("frame") && values.Whole("frame") >= frames) {
    return Status::Usage("--frame " + std::to_string(values.Whole("frame")) + " is past the last frame of --frames " +
                         std::to_string(frames));
  }
  for (const OptionSpec& o : values.spec().options) {
    if (o.needs_loop && frames < 2 && values.Flag(o.name)) {
      return Status::Usage("--" + o.name + " needs --frames 2 or more");
    }
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
  for (const auto& [name, open] : kOpeners) {
    if (values.spec().name != name) continue;
    try {
      return open(engine, values, photo, inputs, session);
    } catch (const std::bad_alloc&) {
      session.reset();
      return Status::Failed("out of memory", E_OUTOFMEMORY);
    }
  }
  return Status::Usage("no render for command " + values.spec().name);
}

}  // namespace KorvaneFrontend
