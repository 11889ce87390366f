#include "AnimationWriter.h"

#include <cgif.h>
#include <dlfcn.h>
#include <libimagequant.h>
#include <unistd.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
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

// ---- Encoding on worker threads ----------------------------------------------

// Runs a writer's frame encodings on worker threads, so frames are encoded
// while later ones render, and several at once. A job is given the index of
// the worker that runs it, for state a worker keeps (a GIF quantizer); its
// future is ready when it has run.
class EncodePool {
 public:
  explicit EncodePool(int workers) {
    for (int i = 0; i < workers; ++i) m_threads.emplace_back([this, i] { Work(i); });
  }
  ~EncodePool() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread& t : m_threads) t.join();
  }
  EncodePool(const EncodePool&) = delete;
  EncodePool& operator=(const EncodePool&) = delete;

  int workers() const { return static_cast<int>(m_threads.size()); }

  std::future<void> Submit(std::function<void(int worker)> job) {
    std::packaged_task<void(int)> task(std::move(job));
    std::future<void> done = task.get_future();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back(std::move(task));
    }
    m_wake.notify_one();
    return done;
  }

  // Workers for a writer: one a processor, at most eight.
  static int DefaultWorkers() {
    return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u));
  }

 private:
  void Work(int index) {
    for (;;) {
      std::packaged_task<void(int)> task;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
        if (m_queue.empty()) return;
        task = std::move(m_queue.front());
        m_queue.pop_front();
      }
      task(index);
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<std::packaged_task<void(int)>> m_queue;
  bool m_stop = false;
  std::vector<std::thread> m_threads;
};

// The frames a writer has handed to its pool and not yet taken back, in
// order. At most two a worker are in flight, which bounds the memory held.
template <class Slot>
class InFlight {
 public:
  explicit InFlight(int workers) : m_limit(2 * workers), m_pool(workers) {}

  // Hands `slot` to a worker; `job` fills it. Before that, takes back
  // (through `take`, in frame order) what is done, and waits for the oldest
  // while too many are out.
  bool Add(std::unique_ptr<Slot> slot, std::function<void(Slot&, int worker)> job,
           const std::function<bool(Slot&)>& take) {
    Slot* s = slot.get();
    m_slots.push_back({std::move(slot), m_pool.Submit([s, job = std::move(job)](int w) { job(*s, w); })});
    while (!m_slots.empty() &&
           (static_cast<int>(m_slots.size()) > m_limit ||
            m_slots.front().done.wait_for(std::chrono::seconds(0)) == std::future_status::ready)) {
      if (!TakeOldest(take)) return false;
    }
    return true;
  }

  // Waits for every frame and takes each back in order.
  bool Drain(const std::function<bool(Slot&)>& take) {
    while (!m_slots.empty()) {
      if (!TakeOldest(take)) return false;
    }
    return true;
  }

  EncodePool& pool() { return m_pool; }

 private:
  bool TakeOldest(const std::function<bool(Slot&)>& take) {
    m_slots.front().done.get();
    const bool ok = take(*m_slots.front().slot);
    m_slots.pop_front();
    return ok;
  }

  struct Entry {
    std::unique_ptr<Slot> slot;
    std::future<void> done;
  };
  std::deque<Entry> m_slots;
  int m_limit;
  EncodePool m_pool;  // declared last: its workers finish before the slots they fill go
};

// ---- Animated WebP -----------------------------------------------------------

// Each frame is encoded on its own (WebPEncode, on the pool's workers) and
// the file is assembled with WebPMux. After the first, a frame holds the
// 16-pixel blocks that changed since the frame before, compared exactly, and
// is blended over what the frames before left. Exact comparison matters for
// lossy loops: a change below an encoder's tolerance would never be drawn,
// pile up, and show all at once at the jump back to the first frame. A
// drawn block is encoded as it would be in the whole picture: it is drawn
// whole (no colour bleeding in from transparent pixels), and the blocks
// around it keep their colours under the transparency, since the encoder
// predicts a block from its neighbours and smooths the edges between them.
// So every frame stays as close to its source as the first, and the step
// back to the first frame is like any other step. A frame equal to the one
// before lengthens it.
class WebPWriter final : public AnimationWriter {
 public:
  WebPWriter(std::string path, const LoopSettings& s)
      : m_path(std::move(path)), m_settings(s), m_frames_out(EncodePool::DefaultWorkers()) {}

  bool AddFrame(const Image& frame, std::string& error) override {
    auto slot = std::make_unique<Frame>();
    slot->first = m_frames++;
    const bool opaque = Opaque(frame);
    if (slot->first == 0) {
      slot->width = frame.width, slot->height = frame.height;
    } else if (!Changed(frame, *slot)) {
      return true;  // the frame before lasts one frame longer
    }
    slot->blend = slot->first > 0 && opaque && m_prev_opaque;
    slot->bgra.resize(static_cast<size_t>(slot->width) * slot->height * 4);
    for (int y = 0; y < slot->height; ++y) {
      std::memcpy(&slot->bgra[static_cast<size_t>(y) * slot->width * 4], frame.at(slot->x, slot->y + y),
                  static_cast<size_t>(slot->width) * 4);
    }
    if (slot->blend) Unchanged(frame, *slot);
    m_prev = frame;
    m_prev_opaque = opaque;
    const int quality = m_settings.quality;
    return m_frames_out.Add(std::move(slot), [quality](Frame& f, int) { Encode(f, quality); },
                            [&](Frame& f) { return Take(f, error); });
  }

  bool Finish(std::string& error) override {
    if (!m_frames_out.Drain([&](Frame& f) { return Take(f, error); })) return false;
    if (m_done.empty()) return Bad("no frames to write", error);
    return Assemble(error);
  }

  std::string Kind() const override { return "animated WebP"; }

 private:
  struct Frame {
    int first = 0;  // the loop frame it shows first; it lasts until the next one's
    int x = 0, y = 0, width = 0, height = 0;
    bool blend = false;
    std::vector<uint8_t> bgra;  // the rectangle, until encoded
    std::vector<uint8_t> webp;
    std::string error;
  };

  static bool Opaque(const Image& frame) {
    for (size_t i = 3; i < frame.pixels.size(); i += 4) {
      if (frame.pixels[i] != 255) return false;
    }
    return true;
  }

  // The encoder's macroblock.
  static constexpr int kBlock = 16;

  bool BlockChanged(const Image& frame, int bx, int by) const {
    const int x0 = bx * kBlock, x1 = std::min(frame.width, x0 + kBlock);
    for (int y = by * kBlock; y < std::min(frame.height, (by + 1) * kBlock); ++y) {
      if (std::memcmp(frame.at(x0, y), m_prev.at(x0, y), static_cast<size_t>(x1 - x0) * 4) != 0) return true;
    }
    return false;
  }

  // Sets the slot's rectangle to the blocks that hold a pixel differing
  // from the previous frame and the blocks around them; false when none
  // does.
  bool Changed(const Image& frame, Frame& f) {
    const int bw = (frame.width + kBlock - 1) / kBlock, bh = (frame.height + kBlock - 1) / kBlock;
    m_changed.assign(static_cast<size_t>(bw) * bh, 0);
    int x0 = bw, y0 = bh, x1 = 0, y1 = 0;
    for (int by = 0; by < bh; ++by)
      for (int bx = 0; bx < bw; ++bx) {
        if (!BlockChanged(frame, bx, by)) continue;
        m_changed[static_cast<size_t>(by) * bw + bx] = 1;
        x0 = std::min(x0, bx), x1 = std::max(x1, bx + 1), y0 = std::min(y0, by), y1 = by + 1;
      }
    if (x1 == 0) return false;
    x0 = std::max(0, x0 - 1), y0 = std::max(0, y0 - 1), x1 = std::min(bw, x1 + 1), y1 = std::min(bh, y1 + 1);
    f.x = x0 * kBlock, f.y = y0 * kBlock;
    f.width = std::min(frame.width, x1 * kBlock) - f.x;
    f.height = std::min(frame.height, y1 * kBlock) - f.y;
    return true;
  }

  // Makes the unchanged blocks of the slot transparent: blended, they keep
  // what the frames before left. In a lossy frame those beside a drawn
  // block keep their colours under the transparency; the others are made
  // black, which costs next to nothing.
  void Unchanged(const Image& frame, Frame& f) const {
    const int bw = (frame.width + kBlock - 1) / kBlock, bh = (frame.height + kBlock - 1) / kBlock;
    const bool lossy = m_settings.quality < 100;
    auto changed = [&](int bx, int by) {
      return bx >= 0 && by >= 0 && bx < bw && by < bh && m_changed[static_cast<size_t>(by) * bw + bx];
    };
    for (int y = 0; y < f.height; ++y)
      for (int x = 0; x < f.width; ++x) {
        const int bx = (f.x + x) / kBlock, by = (f.y + y) / kBlock;
        if (changed(bx, by)) continue;
        bool beside = false;
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx) beside = beside || changed(bx + dx, by + dy);
        uint8_t* p = &f.bgra[(static_cast<size_t>(y) * f.width + x) * 4];
        if (!(lossy && beside)) p[0] = p[1] = p[2] = 0;
        p[3] = 0;
      }
  }

  static void Encode(Frame& f, int quality) {
    WebPConfig config;
    WebPPicture pic;
    if (!WebPConfigInit(&config) || !WebPPictureInit(&pic)) {
      f.error = "libwebp version mismatch";
      return;
    }
    config.lossless = quality >= 100 ? 1 : 0;
    config.quality = static_cast<float>(std::min(quality, 100));
    config.method = 4;
    // One quantizer for every block of every frame, whatever else the frame
    // holds, so a block decodes alike in any frame; the colours under
    // transparent pixels are kept as given.
    config.segments = 1;
    config.sns_strength = 0;
    config.exact = 1;
    pic.use_argb = 1;
    pic.width = f.width;
    pic.height = f.height;
    WebPMemoryWriter out;
    WebPMemoryWriterInit(&out);
    pic.writer = WebPMemoryWrite;
    pic.custom_ptr = &out;
    const bool ok = WebPPictureImportBGRA(&pic, f.bgra.data(), f.width * 4) && WebPEncode(&config, &pic);
    if (ok) {
      f.webp.assign(out.mem, out.mem + out.size);
    } else {
      f.error = "WebP encoding failed (error " + std::to_string(pic.error_code) + ")";
    }
    WebPPictureFree(&pic);
    WebPMemoryWriterClear(&out);
    std::vector<uint8_t>().swap(f.bgra);
  }

  // Keeps an encoded frame; false with the encoder's reason.
  bool Take(Frame& f, std::string& error) {
    if (!f.error.empty()) return Bad(f.error, error);
    m_done.push_back(std::move(f));
    return true;
  }

  int Timestamp(int frame) const { return static_cast<int>(static_cast<int64_t>(frame) * 1000 / m_settings.fps); }

  bool Assemble(std::string& error) {
    std::unique_ptr<WebPMux, void (*)(WebPMux*)> mux(WebPMuxNew(), WebPMuxDelete);
    if (!mux) return Bad("cannot start the WebP container", error);
    for (size_t i = 0; i < m_done.size(); ++i) {
      Frame& f = m_done[i];
      const int end = i + 1 < m_done.size() ? m_done[i + 1].first : m_frames;
      WebPMuxFrameInfo info{};
      info.bitstream.bytes = f.webp.data();
      info.bitstream.size = f.webp.size();
      info.x_offset = f.x;
      info.y_offset = f.y;
      info.duration = std::max(1, Timestamp(end) - Timestamp(f.first));
      info.id = WEBP_CHUNK_ANMF;
      info.dispose_method = WEBP_MUX_DISPOSE_NONE;
      info.blend_method = f.blend ? WEBP_MUX_BLEND : WEBP_MUX_NO_BLEND;
      if (WebPMuxPushFrame(mux.get(), &info, 0) != WEBP_MUX_OK) return Bad("WebP assembly failed", error);
    }
    WebPMuxAnimParams params;
    params.bgcolor = 0xFFFFFFFFu;
    params.loop_count = m_settings.loops ? 0 : 1;  // 0: forever
    std::vector<std::pair<std::string, std::vector<uint8_t>>> chunks = WebPMetadataChunks(m_settings.meta.get());
    bool ok = WebPMuxSetAnimationParams(mux.get(), &params) == WEBP_MUX_OK &&
              WebPMuxSetCanvasSize(mux.get(), m_settings.width, m_settings.height) == WEBP_MUX_OK;
    for (const auto& [name, bytes] : chunks) {
      const WebPData data{bytes.data(), bytes.size()};
      ok = ok && WebPMuxSetChunk(mux.get(), name.c_str(), &data, 0) == WEBP_MUX_OK;
    }
    WebPData file;
    WebPDataInit(&file);
    ok = ok && WebPMuxAssemble(mux.get(), &file) == WEBP_MUX_OK;
    if (!ok) return Bad("WebP assembly failed", error);
    ok = WriteFileSafely(m_path, file.bytes, file.size, error);
    WebPDataClear(&file);
    return ok;
  }

  std::string m_path;
  LoopSettings m_settings;
  int m_frames = 0;  // loop frames added
  Image m_prev;
  bool m_prev_opaque = true;
  std::vector<uint8_t> m_changed;  // of the blocks, for the frame being added
  std::vector<Frame> m_done;  // encoded, in order
  InFlight<Frame> m_frames_out;
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
// libimagequant's dithering, which takes most of the time, so frames are
// remapped on worker threads. Every worker quantizes the first frame itself
// (a quantizer serves one thread), with libimagequant's own OpenMP threads
// held to one so that every worker finds the same palette; the frames then
// go to cgif in order, which stores only the changed window of each. One
// index stays free for cgif's transparency of unchanged pixels. The file is
// assembled in memory and written whole.
class GifWriter final : public AnimationWriter {
 public:
  GifWriter(std::string path, const LoopSettings& s)
      : m_path(std::move(path)), m_width(s.width), m_height(s.height), m_loops(s.loops),
        // GIF times are whole hundredths of a second: every frame gets the same
        // one (24 fps becomes 4/100 s), never alternating lengths.
        m_delay(static_cast<uint16_t>(std::max(2L, std::lround(100.0 / s.fps)))),
        m_quantizers(static_cast<size_t>(EncodePool::DefaultWorkers())), m_frames_out(EncodePool::DefaultWorkers()) {
    QuantizerMemory::WriterOpened();
  }
  ~GifWriter() override {
    m_frames_out.Drain([](Frame&) { return true; });
    if (m_gif) cgif_close(m_gif);
    for (Quantizer& q : m_quantizers) q.Release();
    QuantizerMemory::WriterClosed();
  }

  bool AddFrame(const Image& frame, std::string& error) override {
    auto slot = std::make_unique<Frame>();
    slot->index = m_frames++;
    slot->rgba.resize(static_cast<size_t>(m_width) * m_height * 4);
    for (size_t i = 0, n = static_cast<size_t>(m_width) * m_height; i < n; ++i) {
      slot->rgba[i * 4] = frame.pixels[i * 4 + 2];
      slot->rgba[i * 4 + 1] = frame.pixels[i * 4 + 1];
      slot->rgba[i * 4 + 2] = frame.pixels[i * 4];
      slot->rgba[i * 4 + 3] = 255;
    }
    if (slot->index == 0) m_first = std::make_shared<const std::vector<uint8_t>>(slot->rgba);
    return m_frames_out.Add(std::move(slot), [this](Frame& f, int worker) { Remap(f, m_quantizers[worker]); },
                            [&](Frame& f) { return Take(f, error); });
  }

  bool Finish(std::string& error) override {
    if (!m_frames_out.Drain([&](Frame& f) { return Take(f, error); })) return false;
    if (!m_gif) return Bad("no frames to write", error);
    const int rc = cgif_close(m_gif);
    m_gif = nullptr;
    if (rc != CGIF_OK) return Bad("GIF encoding failed", error);
    return WriteFileSafely(m_path, m_bytes.data(), m_bytes.size(), error);
  }

  std::string Kind() const override { return "GIF, " + std::to_string(m_delay * 10) + " ms a frame"; }

 private:
  struct Frame {
    int index = 0;
    std::vector<uint8_t> rgba;     // until remapped
    std::vector<uint8_t> indices;  // into the palette
    std::vector<uint8_t> palette;  // RGB, from the worker's quantizer
    std::string error;
  };

  // One worker's libimagequant objects: the first frame quantized.
  struct Quantizer {
    liq_attr* attr = nullptr;
    liq_image* first = nullptr;
    liq_result* result = nullptr;
    std::vector<uint8_t> palette;
    void Release() {
      if (result) liq_result_destroy(result);
      if (first) liq_image_destroy(first);
      if (attr) liq_attr_destroy(attr);
      result = nullptr, first = nullptr, attr = nullptr;
    }
  };

  // libimagequant's OpenMP threads, held to one on this thread (when it
  // uses OpenMP at all): each worker is a thread of its own already.
  static void OneOpenMpThread() {
    using SetThreads = void (*)(int);
    static const auto set = reinterpret_cast<SetThreads>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"));
    if (set) set(1);
  }

  // Quantizes the first frame on this worker, once.
  bool Prepare(Quantizer& q, std::string& error) {
    if (q.result) return true;
    OneOpenMpThread();
    q.attr = liq_attr_create_with_allocator(QuantizerMemory::Allocate, QuantizerMemory::Free);
    if (!q.attr || liq_set_max_colors(q.attr, 255) != LIQ_OK) return Bad("cannot start the GIF quantizer", error);
    q.first = liq_image_create_rgba(q.attr, m_first->data(), m_width, m_height, 0);
    if (!q.first || liq_image_quantize(q.first, q.attr, &q.result) != LIQ_OK) return Bad("GIF palette failed", error);
    liq_set_dithering_level(q.result, 1.0f);
    const liq_palette* pal = liq_get_palette(q.result);
    for (unsigned i = 0; i < pal->count; ++i) {
      q.palette.insert(q.palette.end(), {pal->entries[i].r, pal->entries[i].g, pal->entries[i].b});
    }
    return true;
  }

  void Remap(Frame& f, Quantizer& q) {
    if (!Prepare(q, f.error)) return;
    liq_image* img = f.index == 0 ? q.first : liq_image_create_rgba(q.attr, f.rgba.data(), m_width, m_height, 0);
    f.indices.resize(static_cast<size_t>(m_width) * m_height);
    const bool ok = img && liq_write_remapped_image(q.result, img, f.indices.data(), f.indices.size()) == LIQ_OK;
    if (img && img != q.first) liq_image_destroy(img);
    if (!ok) f.error = "GIF colour reduction failed";
    f.palette = q.palette;
    std::vector<uint8_t>().swap(f.rgba);
  }

  // Hands a remapped frame to cgif; the first one starts the file.
  bool Take(Frame& f, std::string& error) {
    if (!f.error.empty()) return Bad(f.error, error);
    if (!m_gif && !Start(f.palette, error)) return false;
    if (f.palette != m_palette) return Bad("GIF workers found different palettes", error);
    CGIF_FrameConfig fc{};
    fc.pImageData = f.indices.data();
    fc.delay = m_delay;
    fc.genFlags = CGIF_FRAME_GEN_USE_TRANSPARENCY | CGIF_FRAME_GEN_USE_DIFF_WINDOW;
    if (cgif_addframe(m_gif, &fc) != CGIF_OK) return Bad("GIF encoding failed", error);
    return true;
  }

  bool Start(const std::vector<uint8_t>& palette, std::string& error) {
    m_palette = palette;
    CGIF_Config config{};
    config.pGlobalPalette = m_palette.data();
    config.numGlobalPaletteEntries = static_cast<uint16_t>(m_palette.size() / 3);
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
  int m_frames = 0;
  std::shared_ptr<const std::vector<uint8_t>> m_first;  // RGBA of frame 0, which every worker quantizes
  std::vector<uint8_t> m_palette, m_bytes;
  CGIF* m_gif = nullptr;
  std::vector<Quantizer> m_quantizers;  // one a worker
  InFlight<Frame> m_frames_out;         // last: its workers stop before the quantizers go
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
    return std::make_unique<WebPWriter>(path, settings);
  }
  if (format == LoopFormat::kGif) {
    if (settings.width > 65535 || settings.height > 65535) {
      error = "GIF images are at most 65535 pixels on a side";
      return nullptr;
    }
    return std::make_unique<GifWriter>(path, settings);
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
