#include "AnimationWriter.h"

#include <cgif.h>
#include <libimagequant.h>
#include <unistd.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "ToolSupport.h"

namespace KorvaneTool {

bool IsFrameFile(const std::filesystem::path& file) {
  const std::string name = file.filename().string();
  if (name.size() < 11 || name.compare(0, 6, "frame_") != 0 || name.compare(name.size() - 4, 4, ".png") != 0) {
    return false;
  }
  return std::all_of(name.begin() + 6, name.end() - 4, [](char c) { return c >= '0' && c <= '9'; });
}

namespace {

bool Bad(const std::string& message, std::string& error) {
  error = message;
  return false;
}

// ---- Animated WebP -----------------------------------------------------------

class WebPWriter final : public AnimationWriter {
 public:
  WebPWriter(std::string path, const LoopSettings& s)
      : m_path(std::move(path)), m_width(s.width), m_height(s.height), m_fps(s.fps), m_quality(s.quality),
        m_loops(s.loops) {}
  ~WebPWriter() override {
    if (m_encoder) WebPAnimEncoderDelete(m_encoder);
  }

  bool Open(std::string& error) {
    WebPAnimEncoderOptions options;
    if (!WebPAnimEncoderOptionsInit(&options)) return Bad("libwebp version mismatch", error);
    options.anim_params.loop_count = m_loops ? 0 : 1;  // 0: forever
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
    const bool ok = WriteFileSafely(m_path, data.bytes, data.size, error);
    WebPDataClear(&data);
    return ok;
  }

  std::string Kind() const override { return "animated WebP"; }

 private:
  int Timestamp(int frame) const { return static_cast<int>(static_cast<int64_t>(frame) * 1000 / m_fps); }

  std::string m_path;
  int m_width, m_height, m_fps, m_quality;
  bool m_loops;
  int m_frames = 0;
  WebPAnimEncoder* m_encoder = nullptr;
};

// ---- GIF ---------------------------------------------------------------------

// libimagequant 2.17 leaves a row buffer behind for every large image it
// creates and every large image it remaps (two of about 128 KB a frame of a
// 12-megapixel loop), so a long GIF loop would leak and LeakSanitizer fails
// the run. Its memory comes through this allocator: the blocks it has not
// given back when the last GIF writer has destroyed its quantizer are what it
// left, and are freed then.
class QuantizerMemory {
 public:
  static void* Allocate(size_t size) {
    void* p = std::malloc(size);
    std::lock_guard<std::mutex> lock(Mutex());
    if (p) Blocks().insert(p);
    return p;
  }
  static void Free(void* p) {
    {
      std::lock_guard<std::mutex> lock(Mutex());
      Blocks().erase(p);
    }
    std::free(p);
  }
  static void WriterOpened() {
    std::lock_guard<std::mutex> lock(Mutex());
    ++Writers();
  }
  // Called once a writer has destroyed every quantizer object it made.
  static void WriterClosed() {
    std::lock_guard<std::mutex> lock(Mutex());
    if (--Writers() > 0) return;
    for (void* p : Blocks()) std::free(p);
    Blocks().clear();
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex m;
    return m;
  }
  static std::unordered_set<void*>& Blocks() {
    static std::unordered_set<void*> blocks;
    return blocks;
  }
  static int& Writers() {
    static int writers = 0;
    return writers;
  }
};

// The palette comes from libimagequant on the first frame (the loop shows one
// photo, so its colours serve every frame); each frame is remapped to it with
// libimagequant's dithering and handed to cgif at once, which stores only the
// changed window of each frame. One index stays free for cgif's transparency
// of unchanged pixels. The file is assembled in memory and written whole.
class GifWriter final : public AnimationWriter {
 public:
  GifWriter(std::string path, const LoopSettings& s)
      : m_path(std::move(path)), m_width(s.width), m_height(s.height), m_loops(s.loops),
        // GIF times are whole hundredths of a second: every frame gets the same
        // one (24 fps becomes 4/100 s), never alternating lengths.
        m_delay(static_cast<uint16_t>(std::max(2L, std::lround(100.0 / s.fps)))),
        m_indices(static_cast<size_t>(s.width) * s.height), m_rgba(static_cast<size_t>(s.width) * s.height * 4) {
    QuantizerMemory::WriterOpened();
  }
  ~GifWriter() override {
    if (m_gif) cgif_close(m_gif);
    if (m_result) liq_result_destroy(m_result);
    if (m_attr) liq_attr_destroy(m_attr);
    QuantizerMemory::WriterClosed();
  }

  bool Open(std::string& error) {
    m_attr = liq_attr_create_with_allocator(QuantizerMemory::Allocate, QuantizerMemory::Free);
    if (!m_attr || liq_set_max_colors(m_attr, 255) != LIQ_OK) return Bad("cannot start the GIF quantizer", error);
    return true;
  }

  bool AddFrame(const Image& frame, std::string& error) override {
    for (size_t i = 0, n = m_indices.size(); i < n; ++i) {
      m_rgba[i * 4] = frame.pixels[i * 4 + 2];
      m_rgba[i * 4 + 1] = frame.pixels[i * 4 + 1];
      m_rgba[i * 4 + 2] = frame.pixels[i * 4];
      m_rgba[i * 4 + 3] = 255;
    }
    liq_image* img = liq_image_create_rgba(m_attr, m_rgba.data(), m_width, m_height, 0);
    if (!img) return Bad("cannot start the GIF quantizer", error);
    bool ok = m_frames > 0 || Start(img, error);
    ok = ok && liq_write_remapped_image(m_result, img, m_indices.data(), m_indices.size()) == LIQ_OK;
    liq_image_destroy(img);
    if (!ok) return error.empty() ? Bad("GIF colour reduction failed", error) : false;
    CGIF_FrameConfig fc{};
    fc.pImageData = m_indices.data();
    fc.delay = m_delay;
    fc.genFlags = CGIF_FRAME_GEN_USE_TRANSPARENCY | CGIF_FRAME_GEN_USE_DIFF_WINDOW;
    if (cgif_addframe(m_gif, &fc) != CGIF_OK) return Bad("GIF encoding failed", error);
    ++m_frames;
    return true;
  }

  bool Finish(std::string& error) override {
    if (!m_gif) return Bad("no frames to write", error);
    const int rc = cgif_close(m_gif);
    m_gif = nullptr;
    if (rc != CGIF_OK) return Bad("GIF encoding failed", error);
    return WriteFileSafely(m_path, m_bytes.data(), m_bytes.size(), error);
  }

  std::string Kind() const override { return "GIF, " + std::to_string(m_delay * 10) + " ms a frame"; }

 private:
  bool Start(liq_image* first, std::string& error) {
    if (liq_image_quantize(first, m_attr, &m_result) != LIQ_OK) return Bad("GIF palette failed", error);
    liq_set_dithering_level(m_result, 1.0f);
    const liq_palette* pal = liq_get_palette(m_result);
    std::vector<uint8_t> rgb;
    for (unsigned i = 0; i < pal->count; ++i) rgb.insert(rgb.end(), {pal->entries[i].r, pal->entries[i].g, pal->entries[i].b});
    CGIF_Config config{};
    config.pGlobalPalette = rgb.data();
    config.numGlobalPaletteEntries = static_cast<uint16_t>(pal->count);
    // A clip that does not loop carries no loop block and plays once.
    config.attrFlags = CGIF_ATTR_IS_ANIMATED | (m_loops ? 0 : CGIF_ATTR_NO_LOOP);
    config.width = static_cast<uint16_t>(m_width);
    config.height = static_cast<uint16_t>(m_height);
    config.numLoops = CGIF_INFINITE_LOOP;
    config.pWriteFn = &GifWriter::Write;
    config.pContext = this;
    m_gif = cgif_newgif(&config);
    return m_gif ? true : Bad("cannot start the GIF", error);
  }

  static int Write(void* context, const uint8_t* data, const size_t size) {
    auto* self = static_cast<GifWriter*>(context);
    self->m_bytes.insert(self->m_bytes.end(), data, data + size);
    return 0;
  }

  std::string m_path;
  int m_width, m_height;
  bool m_loops;
  uint16_t m_delay;
  std::vector<uint8_t> m_indices, m_rgba, m_bytes;
  int m_frames = 0;
  liq_attr* m_attr = nullptr;
  liq_result* m_result = nullptr;
  CGIF* m_gif = nullptr;
};

// ---- Numbered PNG frames in a folder -------------------------------------------

class PngSequenceWriter final : public AnimationWriter {
 public:
  explicit PngSequenceWriter(std::string dir) : m_dir(std::move(dir)) {}
  // Removes the frames of an earlier run, so the folder holds one loop.
  bool Open(std::string& error) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir, ec)) {
      if (IsFrameFile(entry.path())) std::filesystem::remove(entry.path(), ec);
      if (ec) return Bad("cannot remove the old frame " + entry.path().string() + ": " + ec.message(), error);
    }
    return ec ? Bad("cannot list " + m_dir + ": " + ec.message(), error) : true;
  }
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

std::unique_ptr<AnimationWriter> OpenAnimationWriter(const std::string& path, LoopFormat format,
                                                     const LoopSettings& settings, std::string& error) {
  if (settings.width < 1 || settings.height < 1 || settings.fps < 1) {
    error = "bad animation size or frame rate";
    return nullptr;
  }
  if (format == LoopFormat::kWebP) {
    if (settings.width > WEBP_MAX_DIMENSION || settings.height > WEBP_MAX_DIMENSION) {
      error = "WebP images are at most " + std::to_string(WEBP_MAX_DIMENSION) + " pixels on a side";
      return nullptr;
    }
    auto w = std::make_unique<WebPWriter>(path, settings);
    return w->Open(error) ? std::move(w) : nullptr;
  }
  if (format == LoopFormat::kGif) {
    if (settings.width > 65535 || settings.height > 65535) {
      error = "GIF images are at most 65535 pixels on a side";
      return nullptr;
    }
    auto g = std::make_unique<GifWriter>(path, settings);
    return g->Open(error) ? std::move(g) : nullptr;
  }
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (ec || !std::filesystem::is_directory(path, ec)) {
    error = "cannot create the folder" + (ec ? " (" + ec.message() + ")" : std::string());
    return nullptr;
  }
  auto p = std::make_unique<PngSequenceWriter>(path);
  return p->Open(error) ? std::move(p) : nullptr;
}

}  // namespace KorvaneTool
