#include "ImageIO.h"

#include "frontend/OptionDef.h"

#include <sys/stat.h>
#include <unistd.h>
#include <vips/vips8>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>

// Text rendering goes through fontconfig, which keeps its font caches until
// the process ends by design; leak checkers in sanitizer builds are told so.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

namespace KorvaneTool {

struct ImageMeta {
  // Blobs copied from the source file, by libvips field name.
  std::vector<std::pair<std::string, std::vector<uint8_t>>> blobs;
};

namespace {

// Sets the orientation tag (0x0112) of the first image directory of TIFF
// data to 1, upright; data it cannot follow is left as it is.
void UprightOrientation(std::vector<uint8_t>& tiff) {
  if (tiff.size() < 8) return;
  const bool little = tiff[0] == 'I' && tiff[1] == 'I';
  if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) return;
  auto u16 = [&](size_t at) {
    return static_cast<uint32_t>(little ? tiff[at] | tiff[at + 1] << 8 : tiff[at] << 8 | tiff[at + 1]);
  };
  auto u32 = [&](size_t at) { return little ? u16(at) | u16(at + 2) << 16 : u16(at) << 16 | u16(at + 2); };
  const size_t ifd = u32(4);
  if (ifd + 2 > tiff.size()) return;
  const size_t entries = u16(ifd);
  for (size_t i = 0; i < entries && ifd + 2 + 12 * (i + 1) <= tiff.size(); ++i) {
    const size_t e = ifd + 2 + 12 * i;
    if (u16(e) != 0x0112 || u16(e + 2) != 3) continue;  // orientation, a SHORT
    tiff[e + 8] = little ? 1 : 0;
    tiff[e + 9] = little ? 0 : 1;
  }
}

}  // namespace

std::vector<std::pair<std::string, std::vector<uint8_t>>> WebPMetadataChunks(const ImageMeta* meta) {
  std::vector<std::pair<std::string, std::vector<uint8_t>>> chunks;
  if (!meta) return chunks;
  for (const auto& [field, blob] : meta->blobs) {
    if (field == VIPS_META_EXIF_NAME) {
      // A JPEG's APP1 payload starts with "Exif\0\0"; a WebP chunk holds the TIFF data alone.
      static const uint8_t kExif[] = {'E', 'x', 'i', 'f', 0, 0};
      const bool prefixed = blob.size() >= 6 && std::equal(kExif, kExif + 6, blob.begin());
      std::vector<uint8_t> tiff(blob.begin() + (prefixed ? 6 : 0), blob.end());
      UprightOrientation(tiff);
      chunks.emplace_back("EXIF", std::move(tiff));
    } else if (field == VIPS_META_ICC_NAME) {
      chunks.emplace_back("ICCP", blob);
    } else if (field == VIPS_META_XMP_NAME) {
      chunks.emplace_back("XMP ", blob);
    }
  }
  return chunks;
}

namespace {

using vips::VImage;
using vips::VOption;

}  // namespace

namespace {
// libvips' warnings (a truncated file, a bad chunk) would print several
// lines; the last one is kept to explain a failure on one line instead. They
// may come from libvips' own worker threads.
std::mutex g_warning_lock;
std::string g_last_warning;

void KeepWarning(const gchar*, GLogLevelFlags, const gchar* message, gpointer) {
  std::lock_guard<std::mutex> lock(g_warning_lock);
  g_last_warning = message ? message : "";
}

std::string LastWarning(bool clear) {
  std::lock_guard<std::mutex> lock(g_warning_lock);
  std::string text = g_last_warning;
  if (clear) g_last_warning.clear();
  return text;
}
}  // namespace

void StartImageLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    g_log_set_handler("VIPS", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO),
                      KeepWarning, nullptr);
    if (VIPS_INIT("korvane")) vips_error_exit(nullptr);
    // Only the well-kept loaders (no ImageMagick, PDF or slide readers), and
    // no cache: every image is read once.
    vips_block_untrusted_set(TRUE);
    // JPEG XL is among the formats the tool promises; this libvips marks it
    // untrusted only because libjxl was young when it was added.
    vips_operation_block_set("VipsForeignLoadJxl", FALSE);
    vips_operation_block_set("VipsForeignSaveJxl", FALSE);
    vips_cache_set_max(0);
  });
}

namespace {

// libvips' last error, on one line.
std::string VipsMessage(const vips::VError& e) {
  std::string text = e.what();
  vips_error_clear();
  if (text.find_first_not_of(" \n") == std::string::npos) text = LastWarning(false);
  if (text.empty()) text = "damaged or unreadable";
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  std::replace(text.begin(), text.end(), '\n', ';');
  return text;
}

// Progressive JPEGs normally have about ten scans; thousands are an attack on
// the decoder's time. Counts start-of-scan markers (FF DA): entropy-coded data
// never holds that pair (an FF there is followed by 00 or a restart marker),
// so a plain count cannot be led astray by a malformed marker stream.
constexpr int kMaxJpegScans = 200;

int CountJpegScans(const uint8_t* p, size_t n) {
  int scans = 0;
  for (size_t i = 0; i + 1 < n; ++i) scans += p[i] == 0xFF && p[i + 1] == 0xDA;
  return scans;
}

// A GIF's canvas is its screen, grown to hold every frame, and costs pixels
// whether or not any frame data covers it: a 40-byte file can place a frame
// ten thousand pixels away and make the decoder fill 100 megapixels. LZW
// cannot code more than about 2 700 pixels per byte, so a canvas larger than
// 4 096 pixels per byte of file (above a one-megapixel allowance for
// transparent margins) is mostly empty and is refused.
constexpr uint64_t kGifFreePixels = 1u << 20;
constexpr uint64_t kGifPixelsPerByte = 4096;

// libvips names its loaders by class ("VipsForeignLoadNsgifBuffer"); the
// class depends on the libvips version, the format word in it does not.
bool LoaderReads(const char* loader, const char* format) {
  std::string name = loader;
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  return name.find(format) != std::string::npos;
}

bool GifCanvasPlausible(uint64_t pixels, size_t file_bytes) {
  return pixels <= std::max<uint64_t>(kGifFreePixels, kGifPixelsPerByte * file_bytes);
}

bool Bad(const std::string& message, std::string& error) {
  error = message;
  return false;
}

}  // namespace

std::string Extension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

const std::vector<std::string>& WritableFormats() { return KorvaneFrontend::StillFormats(); }

std::string WritableFormatList() {
  std::string list;
  for (const auto& f : WritableFormats()) list += (list.empty() ? "." : ", .") + f;
  return list;
}

std::string FormatOf(const std::string& extension_or_name) {
  std::string f = extension_or_name;
  if (!f.empty() && f[0] == '.') f.erase(0, 1);
  std::transform(f.begin(), f.end(), f.begin(), [](unsigned char c) { return std::tolower(c); });
  if (f == "jpeg") f = "jpg";
  if (f == "tiff") f = "tif";
  const auto& all = WritableFormats();
  return std::find(all.begin(), all.end(), f) != all.end() ? f : std::string();
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
  bytes.clear();
  FILE* f = stdin;
  const std::string name = path == "-" ? "standard input" : path;
  if (path != "-") {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      return Bad(path + (errno == ENOENT ? ": no such file" : std::string(": ") + std::strerror(errno)), error);
    }
    if (S_ISDIR(st.st_mode)) return Bad(path + ": is a folder, not a file", error);
    f = std::fopen(path.c_str(), "rb");
    if (!f) return Bad(path + ": cannot open for reading (" + std::strerror(errno) + ")", error);
  }
  char buf[1 << 16];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  const bool failed = std::ferror(f) != 0;
  if (f != stdin) std::fclose(f);
  if (failed) return Bad(name + ": read error", error);
  if (bytes.empty()) return Bad(name + ": file is empty", error);
  return true;
}

bool DecodeImage(const void* data, size_t size, const std::string& name, Image& out, std::string& error) {
  StartImageLibrary();
  const auto* p = static_cast<const uint8_t*>(data);
  LastWarning(true);
  if (size == 0) return Bad(name + ": file is empty", error);
  const char* loader = vips_foreign_find_load_buffer(data, size);
  if (!loader) {
    vips_error_clear();
    return Bad(name + ": unsupported image format (not JPEG, PNG, WebP, TIFF, GIF, HEIF, AVIF or JPEG XL)", error);
  }
  if (LoaderReads(loader, "jpeg") && CountJpegScans(p, size) > kMaxJpegScans) {
    return Bad(name + ": JPEG with more than " + std::to_string(kMaxJpegScans) + " scans refused", error);
  }
  try {
    VImage img = VImage::new_from_buffer(data, size, "", VImage::option()->set("fail_on", VIPS_FAIL_ON_TRUNCATED));
    const uint64_t pixels = static_cast<uint64_t>(img.width()) * static_cast<uint64_t>(img.height());
    const std::string dims = std::to_string(img.width()) + "x" + std::to_string(img.height());
    if (pixels > kMaxImagePixels) {
      return Bad(name + ": " + dims + " is more than the " + std::to_string(kMaxImagePixels / 1000000) +
                     "-megapixel limit",
                 error);
    }
    if (LoaderReads(loader, "gif") && !GifCanvasPlausible(pixels, size)) {
      return Bad(name + ": " + dims + " GIF from only " +
                     std::to_string(size) + " bytes refused (its data cannot fill that canvas)",
                 error);
    }
    img = img.autorot();
    if (img.get_typeof(VIPS_META_ICC_NAME) != 0) {
      img = img.icc_transform("srgb", VImage::option()->set("embedded", true)->set("depth", 8));
    } else if (img.interpretation() != VIPS_INTERPRETATION_sRGB || img.format() != VIPS_FORMAT_UCHAR) {
      img = img.colourspace(VIPS_INTERPRETATION_sRGB);
    }
    if (img.format() != VIPS_FORMAT_UCHAR) img = img.cast(VIPS_FORMAT_UCHAR);
    if (img.bands() > 4) img = img.extract_band(0, VImage::option()->set("n", 4));
    if (img.bands() == 3) img = img.bandjoin_const({255});
    if (img.bands() != 4) return Bad(name + ": cannot convert to RGBA", error);

    auto meta = std::make_shared<ImageMeta>();
    for (const char* field : {VIPS_META_EXIF_NAME, VIPS_META_XMP_NAME, VIPS_META_IPTC_NAME, VIPS_META_ICC_NAME}) {
      if (img.get_typeof(field) != VIPS_TYPE_BLOB) continue;
      size_t length = 0;
      const void* blob = img.get_blob(field, &length);
      const auto* b = static_cast<const uint8_t*>(blob);
      meta->blobs.emplace_back(field, std::vector<uint8_t>(b, b + length));
    }

    // Decoded in full first, so a file that ends early fails before the
    // (possibly huge) image is allocated here.
    size_t bytes = 0;
    std::unique_ptr<uint8_t, void (*)(void*)> rgba(static_cast<uint8_t*>(img.write_to_memory(&bytes)), g_free);
    Image result(img.width(), img.height(), 4);
    if (bytes != result.pixels.size()) return Bad(name + ": decoded size mismatch", error);
    const uint8_t* s = rgba.get();
    uint8_t* d = result.pixels.data();
    for (size_t i = 0; i < bytes; i += 4) {
      d[i] = s[i + 2];
      d[i + 1] = s[i + 1];
      d[i + 2] = s[i];
      d[i + 3] = s[i + 3];
    }
    if (!meta->blobs.empty()) result.meta = std::move(meta);
    out = std::move(result);
    return true;
  } catch (const vips::VError& e) {
    const std::string why = VipsMessage(e);
    // Running out of memory reads the same whoever ran out.
    if (why.find("out of memory") != std::string::npos || why.find("Cannot allocate memory") != std::string::npos) {
      return Bad(name + ": out of memory", error);
    }
    return Bad(name + ": cannot read image (" + why + ")", error);
  } catch (const std::bad_alloc&) {
    return Bad(name + ": out of memory", error);
  }
}

bool LoadImage(const std::string& path, Image& out, std::string& error) {
  std::vector<uint8_t> bytes;
  if (!ReadWholeFile(path, bytes, error)) return false;
  return DecodeImage(bytes.data(), bytes.size(), path == "-" ? "standard input" : path, out, error);
}

bool LoadGray(const std::string& path, Image& out, std::string& error) {
  Image bgra;
  if (!LoadImage(path, bgra, error)) return false;
  out = Image(KorvaneFrontend::GrayOf(bgra.View()));
  return true;
}

bool RenderText(const std::string& text, int pixel_height, Image& mask) {
  StartImageLibrary();
  if (text.empty() || pixel_height < 4) return false;
  try {
    // Pango markup would read '<' and '&'; escape them.
    gchar* escaped = g_markup_escape_text(text.c_str(), -1);
    const std::string markup = escaped;
    g_free(escaped);
    // At 72 dpi a point is a pixel; the font size is about 0.72 of the line.
    const int size = std::max(1, pixel_height * 72 / 100);
    VImage v = VImage::text(markup.c_str(), VImage::option()->set("font", ("Sans " + std::to_string(size)).c_str())->set("dpi", 72));
    if (v.bands() != 1 || v.format() != VIPS_FORMAT_UCHAR || v.width() <= 1) return false;
    size_t bytes = 0;
    std::unique_ptr<uint8_t, void (*)(void*)> data(static_cast<uint8_t*>(v.write_to_memory(&bytes)), g_free);
    Image m(v.width(), v.height(), 1);
    if (bytes != m.pixels.size()) return false;
    std::copy(data.get(), data.get() + bytes, m.pixels.begin());
    mask = std::move(m);
    return true;
  } catch (const vips::VError&) {
    vips_error_clear();
    return false;
  }
}

bool EncodeImage(const Image& img, const std::string& format, const SaveOptions& options,
                 std::vector<uint8_t>& bytes, std::string& error) {
  StartImageLibrary();
  const std::string fmt = FormatOf(format);
  if (fmt.empty()) {
    return Bad("unsupported output type '" + format + "' (use " + WritableFormatList() + ")", error);
  }
  if (img.width <= 0 || img.height <= 0 || (img.channels != 1 && img.channels != 4) ||
      img.pixels.size() != static_cast<size_t>(img.width) * img.height * img.channels) {
    return Bad("no image to write", error);
  }
  // RGB(A) in libvips' order; alpha only when some pixel is not opaque.
  bool opaque = true;
  if (img.channels == 4) {
    for (size_t i = 3; i < img.pixels.size() && opaque; i += 4) opaque = img.pixels[i] == 255;
  }
  const int bands = img.channels == 1 ? 1 : opaque ? 3 : 4;
  std::vector<uint8_t> packed(static_cast<size_t>(img.width) * img.height * bands);
  if (bands == 1) {
    packed = img.pixels;
  } else {
    for (size_t s = 0, d = 0; s < img.pixels.size(); s += 4, d += bands) {
      packed[d] = img.pixels[s + 2];
      packed[d + 1] = img.pixels[s + 1];
      packed[d + 2] = img.pixels[s];
      if (bands == 4) packed[d + 3] = img.pixels[s + 3];
    }
  }
  try {
    VImage v = VImage::new_from_memory(packed.data(), packed.size(), img.width, img.height, bands,
                                       VIPS_FORMAT_UCHAR);
    v = v.copy(VImage::option()->set("interpretation", bands == 1 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB));
    if (img.meta && !options.strip) {
      for (const auto& [field, blob] : img.meta->blobs) {
        // A gray image cannot carry an RGB profile.
        if (field == VIPS_META_ICC_NAME && bands == 1) continue;
        vips_image_set_blob_copy(v.get_image(), field.c_str(), blob.data(), blob.size());
      }
      v.set(VIPS_META_ORIENTATION, 1);
    }
    VOption* opt = VImage::option()->set("strip", options.strip);
    const int q = std::clamp(options.quality, 1, 100);
    if (fmt == "jpg") {
      opt->set("Q", q)->set("subsample_mode",
                            options.chroma_444 ? VIPS_FOREIGN_SUBSAMPLE_OFF : VIPS_FOREIGN_SUBSAMPLE_ON);
    } else if (fmt == "webp" || fmt == "heic" || fmt == "avif" || fmt == "jxl") {
      opt->set("Q", q);
    } else if (fmt == "tif") {
      opt->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE);
    }
    if (fmt == "avif") opt->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_AV1);
    void* buf = nullptr;
    size_t size = 0;
    v.write_to_buffer(("." + fmt).c_str(), &buf, &size, opt);
    const auto* b = static_cast<const uint8_t*>(buf);
    bytes.assign(b, b + size);
    g_free(buf);
    return true;
  } catch (const vips::VError& e) {
    return Bad("cannot encode " + fmt + " (" + VipsMessage(e) + ")", error);
  }
}

bool WriteFileSafely(const std::string& path, const void* data, size_t size, std::string& error) {
  namespace fs = std::filesystem;
  if (path == "-") {
    const bool ok = std::fwrite(data, 1, size, stdout) == size && std::fflush(stdout) == 0;
    return ok ? true : Bad(std::string("cannot write standard output: ") + std::strerror(errno), error);
  }
  std::error_code ec;
  const fs::file_status link = fs::symlink_status(path, ec);
  if (fs::is_directory(fs::status(path, ec))) return Bad(path + ": is a folder; give a file name", error);
  // Missing folders are created, for every file the tool writes.
  const fs::path folder = fs::path(path).parent_path();
  if (!folder.empty() && !fs::exists(folder, ec)) {
    fs::create_directories(folder, ec);
    if (ec) return Bad(path + ": cannot create the folder " + folder.string() + " (" + ec.message() + ")", error);
  }
  // A regular file (or a new one) is written under a temporary name and
  // renamed, so a failed write never leaves half a file or loses the old one.
  const bool in_place = fs::exists(link) && !fs::is_regular_file(link);
  std::string target = path;
  if (!in_place) {
    std::random_device rd;
    target = path + ".korvane-" + std::to_string(rd() % 1000000) + ".tmp";
  }
  FILE* f = std::fopen(target.c_str(), "wb");
  if (!f) return Bad(path + ": cannot open for writing (" + std::strerror(errno) + ")", error);
  errno = 0;
  bool ok = std::fwrite(data, 1, size, f) == size;
  ok = std::fflush(f) == 0 && ok;
  const int saved = errno;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    const std::string why = std::strerror(saved ? saved : errno);
    if (!in_place) std::remove(target.c_str());
    return Bad(path + ": cannot write (" + why + ")", error);
  }
  if (!in_place && std::rename(target.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    std::remove(target.c_str());
    return Bad(path + ": cannot write (" + why + ")", error);
  }
  return true;
}

bool SaveImage(const std::string& path, const Image& img, const SaveOptions& options, std::string& error) {
  const std::string format = path == "-" ? options.format : Extension(path);
  std::vector<uint8_t> bytes;
  if (!EncodeImage(img, format, options, bytes, error)) {
    error = (path == "-" ? "standard output" : path) + ": " + error;
    return false;
  }
  return WriteFileSafely(path, bytes.data(), bytes.size(), error);
}

bool SaveImage(const std::string& path, const Image& img, int quality, std::string& error) {
  SaveOptions options;
  options.quality = quality;
  return SaveImage(path, img, options, error);
}

}  // namespace KorvaneTool
