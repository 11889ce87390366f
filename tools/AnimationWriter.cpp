#include "AnimationWriter.h"

#include <fcntl.h>
#include <gif_lib.h>
#include <unistd.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <vector>

namespace KorvaneTool {

namespace {

// ---- Animated WebP -----------------------------------------------------------

class WebPWriter final : public AnimationWriter {
 public:
  WebPWriter(std::string path, int width, int height, int fps, int quality)
      : m_path(std::move(path)), m_width(width), m_height(height), m_fps(fps), m_quality(quality) {}
  ~WebPWriter() override {
    if (m_encoder) WebPAnimEncoderDelete(m_encoder);
  }

  bool Open(std::string& error) {
    WebPAnimEncoderOptions options;
    if (!WebPAnimEncoderOptionsInit(&options)) return Bad("libwebp version mismatch", error);
    options.anim_params.loop_count = 0;  // forever
    m_encoder = WebPAnimEncoderNew(m_width, m_height, &options);
    return m_encoder ? true : Bad("cannot start the WebP animation encoder", error);
  }

  bool AddFrame(const Image& frame, std::string& error) override {
    WebPConfig config;
    if (!WebPConfigInit(&config)) return Bad("libwebp version mismatch", error);
    config.lossless = m_quality >= 100 ? 1 : 0;
    config.quality = static_cast<float>(std::min(m_quality, 100));
    config.method = 4;
    WebPPicture pic;
    if (!WebPPictureInit(&pic)) return Bad("libwebp version mismatch", error);
    pic.use_argb = 1;
    pic.width = frame.width;
    pic.height = frame.height;
    bool ok = WebPPictureImportBGRA(&pic, frame.pixels.data(), frame.width * 4) &&
              WebPAnimEncoderAdd(m_encoder, &pic, Timestamp(m_frames), &config);
    WebPPictureFree(&pic);
    if (!ok) return Bad(std::string("WebP encoding failed: ") + WebPAnimEncoderGetError(m_encoder), error);
    ++m_frames;
    return true;
  }

  bool Finish(std::string& error) override {
    if (!WebPAnimEncoderAdd(m_encoder, nullptr, Timestamp(m_frames), nullptr)) {
      return Bad(std::string("WebP encoding failed: ") + WebPAnimEncoderGetError(m_encoder), error);
    }
    WebPData data;
    WebPDataInit(&data);
    if (!WebPAnimEncoderAssemble(m_encoder, &data)) {
      return Bad(std::string("WebP assembly failed: ") + WebPAnimEncoderGetError(m_encoder), error);
    }
    FILE* f = std::fopen(m_path.c_str(), "wb");
    bool ok = f && std::fwrite(data.bytes, 1, data.size, f) == data.size;
    if (f) ok = (std::fclose(f) == 0) && ok;
    WebPDataClear(&data);
    return ok ? true : Bad("cannot write " + m_path, error);
  }

  std::string Kind() const override { return "animated WebP"; }

 private:
  int Timestamp(int frame) const { return static_cast<int>(static_cast<int64_t>(frame) * 1000 / m_fps); }
  static bool Bad(const std::string& message, std::string& error) {
    error = message;
    return false;
  }

  std::string m_path;
  int m_width, m_height, m_fps, m_quality;
  int m_frames = 0;
  WebPAnimEncoder* m_encoder = nullptr;
};

// ---- Looping GIF -------------------------------------------------------------

struct Rgb {
  uint8_t r, g, b;
};

// Median cut: splits the box with the widest channel range at its median
// until there are `count` boxes; each box's mean is a palette colour.
std::vector<Rgb> MedianCutPalette(const Image& frame, size_t count) {
  std::vector<Rgb> px;
  const size_t total = static_cast<size_t>(frame.width) * frame.height;
  const size_t step = std::max<size_t>(1, total / 250000);  // a quarter million samples at most
  for (size_t i = 0; i < total; i += step) {
    const uint8_t* p = &frame.pixels[i * 4];
    px.push_back({p[2], p[1], p[0]});
  }
  struct Box {
    size_t begin, end;
    int axis, range;
  };
  auto measure = [&](Box& b) {
    uint8_t lo[3] = {255, 255, 255}, hi[3] = {0, 0, 0};
    for (size_t i = b.begin; i < b.end; ++i) {
      const uint8_t c[3] = {px[i].r, px[i].g, px[i].b};
      for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], c[k]), hi[k] = std::max(hi[k], c[k]);
    }
    b.axis = 0;
    b.range = -1;
    for (int k = 0; k < 3; ++k) {
      if (hi[k] - lo[k] > b.range) b.range = hi[k] - lo[k], b.axis = k;
    }
  };
  std::vector<Box> boxes{{0, px.size(), 0, 0}};
  measure(boxes[0]);
  while (boxes.size() < count) {
    auto widest = std::max_element(boxes.begin(), boxes.end(), [](const Box& a, const Box& b) {
      return a.range * std::log2(static_cast<double>(a.end - a.begin) + 1) <
             b.range * std::log2(static_cast<double>(b.end - b.begin) + 1);
    });
    if (widest->range <= 0 || widest->end - widest->begin < 2) break;
    Box box = *widest;
    const size_t mid = box.begin + (box.end - box.begin) / 2;
    const int axis = box.axis;
    std::nth_element(px.begin() + box.begin, px.begin() + mid, px.begin() + box.end, [axis](const Rgb& a, const Rgb& b) {
      return axis == 0 ? a.r < b.r : axis == 1 ? a.g < b.g : a.b < b.b;
    });
    Box a{box.begin, mid, 0, 0}, b{mid, box.end, 0, 0};
    measure(a);
    measure(b);
    *widest = a;
    boxes.push_back(b);
  }
  std::vector<Rgb> palette;
  for (const Box& b : boxes) {
    uint64_t s[3] = {0, 0, 0};
    for (size_t i = b.begin; i < b.end; ++i) s[0] += px[i].r, s[1] += px[i].g, s[2] += px[i].b;
    const uint64_t n = std::max<uint64_t>(1, b.end - b.begin);
    palette.push_back({static_cast<uint8_t>((s[0] + n / 2) / n), static_cast<uint8_t>((s[1] + n / 2) / n),
                       static_cast<uint8_t>((s[2] + n / 2) / n)});
  }
  return palette;
}

class GifWriter final : public AnimationWriter {
 public:
  // Index 255 is kept transparent: later frames leave unchanged pixels
  // transparent over the previous frame, which compresses far better.
  static constexpr int kTransparent = 255;

  GifWriter(std::string path, int width, int height, int fps)
      : m_path(std::move(path)), m_width(width), m_height(height), m_fps(fps),
        m_lut(64 * 64 * 64, -1), m_prev(static_cast<size_t>(width) * height, 0),
        m_cur(static_cast<size_t>(width) * height, 0) {}
  ~GifWriter() override {
    if (m_gif) EGifCloseFile(m_gif, nullptr);
  }

  bool AddFrame(const Image& frame, std::string& error) override {
    if (m_frames == 0 && !Start(frame, error)) return false;
    Quantize(frame);
    // The changed rectangle, and inside it transparency where nothing changed.
    int x0 = m_width, y0 = m_height, x1 = -1, y1 = -1;
    for (int y = 0; y < m_height; ++y)
      for (int x = 0; x < m_width; ++x) {
        const size_t i = static_cast<size_t>(y) * m_width + x;
        if (m_frames == 0 || m_cur[i] != m_prev[i]) {
          x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
        }
      }
    if (x1 < 0) x0 = y0 = x1 = y1 = 0;  // nothing changed: one transparent pixel
    GraphicsControlBlock gcb;
    gcb.DisposalMode = DISPOSE_DO_NOT;
    gcb.UserInputFlag = false;
    gcb.DelayTime = Delay(m_frames);
    gcb.TransparentColor = m_frames == 0 ? NO_TRANSPARENT_COLOR : kTransparent;
    GifByteType ext[4];
    EGifGCBToExtension(&gcb, ext);
    if (EGifPutExtension(m_gif, GRAPHICS_EXT_FUNC_CODE, 4, ext) == GIF_ERROR ||
        EGifPutImageDesc(m_gif, x0, y0, x1 - x0 + 1, y1 - y0 + 1, false, nullptr) == GIF_ERROR) {
      return GifError(error);
    }
    std::vector<GifPixelType> line(static_cast<size_t>(x1 - x0 + 1));
    for (int y = y0; y <= y1; ++y) {
      for (int x = x0; x <= x1; ++x) {
        const size_t i = static_cast<size_t>(y) * m_width + x;
        line[x - x0] = (m_frames > 0 && m_cur[i] == m_prev[i]) ? kTransparent : m_cur[i];
      }
      if (EGifPutLine(m_gif, line.data(), static_cast<int>(line.size())) == GIF_ERROR) return GifError(error);
    }
    m_prev.swap(m_cur);
    ++m_frames;
    return true;
  }

  bool Finish(std::string& error) override {
    if (!m_gif) {
      error = "no frames to write";
      return false;
    }
    int code = 0;
    const int rc = EGifCloseFile(m_gif, &code);
    m_gif = nullptr;
    if (rc == GIF_ERROR) {
      error = "cannot write " + m_path + ": " + GifErrorString(code);
      return false;
    }
    return true;
  }

  std::string Kind() const override { return "GIF"; }

 private:
  bool Start(const Image& first, std::string& error) {
    m_palette = MedianCutPalette(first, kTransparent);
    int code = 0;
    // Opened here rather than by giflib, which would make the file private.
    const int fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    m_gif = fd >= 0 ? EGifOpenFileHandle(fd, &code) : nullptr;
    if (!m_gif) {
      if (fd >= 0) close(fd);
      if (fd < 0) code = E_GIF_ERR_OPEN_FAILED;
      error = "cannot write " + m_path + ": " + GifErrorString(code);
      return false;
    }
    GifColorType colours[256] = {};
    for (size_t i = 0; i < m_palette.size(); ++i) colours[i] = {m_palette[i].r, m_palette[i].g, m_palette[i].b};
    ColorMapObject* map = GifMakeMapObject(256, colours);
    EGifSetGifVersion(m_gif, true);
    const bool ok = map && EGifPutScreenDesc(m_gif, m_width, m_height, 8, 0, map) != GIF_ERROR;
    GifFreeMapObject(map);
    if (!ok) return GifError(error);
    // The NETSCAPE2.0 block: loop forever.
    const GifByteType app[] = {'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0'};
    const GifByteType loop[] = {1, 0, 0};
    if (EGifPutExtensionLeader(m_gif, APPLICATION_EXT_FUNC_CODE) == GIF_ERROR ||
        EGifPutExtensionBlock(m_gif, sizeof(app), app) == GIF_ERROR ||
        EGifPutExtensionBlock(m_gif, sizeof(loop), loop) == GIF_ERROR ||
        EGifPutExtensionTrailer(m_gif) == GIF_ERROR) {
      return GifError(error);
    }
    return true;
  }

  // Nearest palette colour, with a small ordered dither: it smooths skies
  // without the frame-to-frame crawl of error diffusion, since an unchanged
  // pixel always maps to the same index.
  void Quantize(const Image& frame) {
    static const int kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
    for (int y = 0; y < m_height; ++y)
      for (int x = 0; x < m_width; ++x) {
        const uint8_t* p = frame.at(x, y);
        const int d = (kBayer[y & 3][x & 3] - 8) / 2;  // -4 .. 3
        const int r = std::clamp(p[2] + d, 0, 255), g = std::clamp(p[1] + d, 0, 255), b = std::clamp(p[0] + d, 0, 255);
        const size_t key = (static_cast<size_t>(r >> 2) << 12) | (static_cast<size_t>(g >> 2) << 6) | (b >> 2);
        if (m_lut[key] < 0) m_lut[key] = Nearest((r & ~3) + 2, (g & ~3) + 2, (b & ~3) + 2);
        m_cur[static_cast<size_t>(y) * m_width + x] = static_cast<uint8_t>(m_lut[key]);
      }
  }

  int16_t Nearest(int r, int g, int b) const {
    int best = 0, best_d = 1 << 30;
    for (size_t i = 0; i < m_palette.size(); ++i) {
      const int dr = r - m_palette[i].r, dg = g - m_palette[i].g, db = b - m_palette[i].b;
      const int dist = 3 * dr * dr + 4 * dg * dg + 2 * db * db;
      if (dist < best_d) best_d = dist, best = static_cast<int>(i);
    }
    return static_cast<int16_t>(best);
  }

  // Delays in hundredths of a second that add up to the exact frame rate.
  int Delay(int frame) const {
    auto at = [&](int k) { return static_cast<int>((static_cast<int64_t>(k) * 100 + m_fps / 2) / m_fps); };
    return std::max(1, at(frame + 1) - at(frame));
  }

  bool GifError(std::string& error) const {
    error = "cannot write " + m_path + ": " + GifErrorString(m_gif ? m_gif->Error : 0);
    return false;
  }

  std::string m_path;
  int m_width, m_height, m_fps;
  int m_frames = 0;
  GifFileType* m_gif = nullptr;
  std::vector<Rgb> m_palette;
  std::vector<int16_t> m_lut;
  std::vector<uint8_t> m_prev, m_cur;
};

// ---- PNG sequence ------------------------------------------------------------

class PngSequenceWriter final : public AnimationWriter {
 public:
  explicit PngSequenceWriter(std::string dir) : m_dir(std::move(dir)) {}
  bool AddFrame(const Image& frame, std::string& error) override {
    char name[32];
    std::snprintf(name, sizeof(name), "frame_%04d.png", m_frames++);
    return SaveImage((std::filesystem::path(m_dir) / name).string(), frame, 100, error);
  }
  bool Finish(std::string&) override { return true; }
  std::string Kind() const override { return "PNG sequence"; }

 private:
  std::string m_dir;
  int m_frames = 0;
};

}  // namespace

std::unique_ptr<AnimationWriter> OpenAnimationWriter(const std::string& path, int width, int height, int fps,
                                                     int quality, std::string& error) {
  if (width < 1 || height < 1 || fps < 1) {
    error = "bad animation size or frame rate";
    return nullptr;
  }
  const std::string ext = Extension(path);
  if (ext == ".webp") {
    if (width > WEBP_MAX_DIMENSION || height > WEBP_MAX_DIMENSION) {
      error = "WebP images are at most " + std::to_string(WEBP_MAX_DIMENSION) + " pixels on a side";
      return nullptr;
    }
    auto w = std::make_unique<WebPWriter>(path, width, height, fps, quality);
    if (!w->Open(error)) return nullptr;
    return w;
  }
  if (ext == ".gif") {
    if (width > 65535 || height > 65535) {
      error = "GIF images are at most 65535 pixels on a side";
      return nullptr;
    }
    return std::make_unique<GifWriter>(path, width, height, fps);
  }
  if (!ext.empty() && ext != "." && !std::filesystem::is_directory(path)) {
    error = "cannot write " + ext + " animations: name a .webp or .gif file, or a folder for PNG frames";
    return nullptr;
  }
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (ec || !std::filesystem::is_directory(path)) {
    error = "cannot create the folder " + path + (ec ? ": " + ec.message() : "");
    return nullptr;
  }
  return std::make_unique<PngSequenceWriter>(path);
}

}  // namespace KorvaneTool
