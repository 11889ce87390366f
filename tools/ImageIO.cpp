#include "ImageIO.h"

#include <spng.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace KorvaneTool {

namespace {

bool ReadFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    error = path + ": no such file";
    return false;
  }
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    error = path + ": cannot open for reading";
    return false;
  }
  bytes.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  if (bytes.empty()) {
    error = path + ": file is empty";
    return false;
  }
  return true;
}

// Images beyond this many pixels are refused rather than risking exhaustion.
constexpr uint64_t kMaxPixels = 1ull << 28;

bool DecodePng(const std::string& path, const std::vector<uint8_t>& bytes, Image& out,
               std::string& error) {
  std::unique_ptr<spng_ctx, void (*)(spng_ctx*)> ctx(spng_ctx_new(0), spng_ctx_free);
  if (!ctx) {
    error = path + ": out of memory";
    return false;
  }
  spng_set_crc_action(ctx.get(), SPNG_CRC_USE, SPNG_CRC_USE);
  spng_set_png_buffer(ctx.get(), bytes.data(), bytes.size());
  spng_ihdr ihdr;
  int r = spng_get_ihdr(ctx.get(), &ihdr);
  if (r) {
    error = path + ": not a readable PNG (" + spng_strerror(r) + ")";
    return false;
  }
  if (static_cast<uint64_t>(ihdr.width) * ihdr.height > kMaxPixels) {
    error = path + ": image too large";
    return false;
  }
  size_t size = 0;
  // RGBA8 reduces 16-bit samples to 8 bits and expands gray and palettes.
  if ((r = spng_decoded_image_size(ctx.get(), SPNG_FMT_RGBA8, &size))) {
    error = path + ": " + spng_strerror(r);
    return false;
  }
  std::vector<uint8_t> rgba(size);
  if ((r = spng_decode_image(ctx.get(), rgba.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS))) {
    error = path + ": damaged PNG (" + spng_strerror(r) + ")";
    return false;
  }
  out = Image(static_cast<int32_t>(ihdr.width), static_cast<int32_t>(ihdr.height), 4);
  for (size_t i = 0; i < out.pixels.size(); i += 4) {
    out.pixels[i + 0] = rgba[i + 2];
    out.pixels[i + 1] = rgba[i + 1];
    out.pixels[i + 2] = rgba[i + 0];
    out.pixels[i + 3] = rgba[i + 3];
  }
  return true;
}

bool DecodeJpeg(const std::string& path, const std::vector<uint8_t>& bytes, Image& out,
                std::string& error) {
  tjhandle tj = tjInitDecompress();
  if (!tj) {
    error = path + ": cannot start the JPEG decoder";
    return false;
  }
  int w = 0, h = 0, subsamp = 0, colorspace = 0;
  bool ok = tjDecompressHeader3(tj, bytes.data(), static_cast<unsigned long>(bytes.size()), &w, &h,
                                &subsamp, &colorspace) == 0 &&
            w > 0 && h > 0 && static_cast<uint64_t>(w) * h <= kMaxPixels;
  if (ok) {
    out = Image(w, h, 4);
    ok = tjDecompress2(tj, bytes.data(), static_cast<unsigned long>(bytes.size()), out.pixels.data(),
                       w, w * 4, h, TJPF_BGRA, 0) == 0;
  }
  if (!ok) error = path + ": not a readable JPEG (" + tjGetErrorStr2(tj) + ")";
  tjDestroy(tj);
  return ok;
}

bool EncodePng(const std::string& path, const Image& img, std::string& error) {
  std::unique_ptr<spng_ctx, void (*)(spng_ctx*)> ctx(spng_ctx_new(SPNG_CTX_ENCODER), spng_ctx_free);
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!file) {
    error = path + ": cannot open for writing";
    return false;
  }
  spng_set_png_file(ctx.get(), file.get());
  spng_ihdr ihdr{};
  ihdr.width = static_cast<uint32_t>(img.width);
  ihdr.height = static_cast<uint32_t>(img.height);
  ihdr.bit_depth = 8;
  ihdr.color_type = img.channels == 1 ? SPNG_COLOR_TYPE_GRAYSCALE : SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  spng_set_ihdr(ctx.get(), &ihdr);
  std::vector<uint8_t> data(img.pixels);
  if (img.channels == 4) {
    for (size_t i = 0; i < data.size(); i += 4) std::swap(data[i], data[i + 2]);
  }
  const int r = spng_encode_image(ctx.get(), data.data(), data.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  if (r) {
    error = path + ": cannot write PNG (" + spng_strerror(r) + ")";
    return false;
  }
  return true;
}

bool EncodeJpeg(const std::string& path, const Image& img, int quality, std::string& error) {
  tjhandle tj = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const int pf = img.channels == 1 ? TJPF_GRAY : TJPF_BGRA;
  const int sub = img.channels == 1 ? TJSAMP_GRAY : TJSAMP_420;
  bool ok = tj && tjCompress2(tj, img.pixels.data(), img.width, img.width * img.channels, img.height, pf,
                              &jpeg, &size, sub, std::clamp(quality, 1, 100), 0) == 0;
  if (ok) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(jpeg), static_cast<std::streamsize>(size));
    ok = static_cast<bool>(f);
    if (!ok) error = path + ": cannot write";
  } else {
    error = path + ": cannot encode JPEG";
  }
  if (jpeg) tjFree(jpeg);
  if (tj) tjDestroy(tj);
  return ok;
}

}  // namespace

std::string Extension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

bool LoadImage(const std::string& path, Image& out, std::string& error) {
  std::vector<uint8_t> bytes;
  if (!ReadFile(path, bytes, error)) return false;
  static const uint8_t kPng[] = {0x89, 'P', 'N', 'G'};
  if (bytes.size() >= 4 && std::equal(kPng, kPng + 4, bytes.begin())) return DecodePng(path, bytes, out, error);
  if (bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF)
    return DecodeJpeg(path, bytes, out, error);
  error = path + ": unsupported image format (PNG and JPEG are read)";
  return false;
}

bool LoadGray(const std::string& path, Image& out, std::string& error) {
  Image bgra;
  if (!LoadImage(path, bgra, error)) return false;
  out = Image(bgra.width, bgra.height, 1);
  for (size_t i = 0, n = out.pixels.size(); i < n; ++i) {
    const uint8_t* p = &bgra.pixels[i * 4];
    out.pixels[i] = static_cast<uint8_t>((p[0] * 29 + p[1] * 150 + p[2] * 77 + 128) >> 8);
  }
  return true;
}

bool SaveImage(const std::string& path, const Image& img, int quality, std::string& error) {
  const std::string ext = Extension(path);
  if (ext == ".png") return EncodePng(path, img, error);
  if (ext == ".jpg" || ext == ".jpeg") return EncodeJpeg(path, img, quality, error);
  error = path + ": unsupported output type '" + ext + "' (use .png, .jpg or .jpeg)";
  return false;
}

}  // namespace KorvaneTool
