// Reading and writing image files for the tool, through libvips. Everything in
// memory is 8-bit BGRA (or 8-bit gray for masks and guides), rows packed, in
// sRGB, upright.
//
//   Image photo;
//   std::string error;
//   if (!LoadImage("in.heic", photo, error)) return Fail(error);    // "-" reads stdin
//   Image result(photo.width, photo.height, 4);
//   result.meta = photo.meta;                                       // keep EXIF/XMP/ICC
//   SaveOptions save;  save.quality = 90;
//   if (!SaveImage("out.webp", result, save, error)) return Fail(error);  // "-" writes stdout
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frontend/Image.h"

namespace KorvaneTool {

// The metadata of the file an image came from (EXIF, XMP, IPTC, the colour
// profile after conversion to sRGB). Opaque; SaveImage writes it back.
struct ImageMeta;

// A decoded image with the metadata of its file.
struct Image : KorvaneFrontend::Image {
  std::shared_ptr<const ImageMeta> meta;  // null: nothing to keep

  Image() = default;
  Image(int32_t w, int32_t h, int32_t c, uint8_t fill = 0) : KorvaneFrontend::Image(w, h, c, fill) {}
  explicit Image(KorvaneFrontend::Image pixels) : KorvaneFrontend::Image(std::move(pixels)) {}
};

// Images with more pixels than this are refused before any pixel is decoded
// (about 200 megapixels: the largest phone sensors, a 800 MB BGRA image).
constexpr uint64_t kMaxImagePixels = 200'000'000ull;

// Starts libvips once for the process (every function here does so itself;
// code calling libvips directly, such as tests making fixtures, calls this).
void StartImageLibrary();

// Reads any still format libvips knows (JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF,
// JPEG XL; 16-bit, gray, palette, CMYK) into BGRA: turned upright by its EXIF
// orientation, converted to sRGB through its embedded profile. "-" reads
// standard input. On failure returns false with a one-line reason naming the
// file in `error`.
bool LoadImage(const std::string& path, Image& out, std::string& error);

// The same from bytes in memory; `name` is used in error messages.
bool DecodeImage(const void* data, size_t size, const std::string& name, Image& out, std::string& error);

// Reads an image and reduces it to one gray channel (Rec. 601 luma).
bool LoadGray(const std::string& path, Image& out, std::string& error);

struct SaveOptions {
  int quality = 92;         // lossy formats, 1..100
  bool chroma_444 = false;  // JPEG: full-resolution colour instead of 4:2:0
  bool strip = false;       // write no metadata
  std::string format;       // file type for "-" (standard output), e.g. "png"
};

// Writes by the file's extension (.jpg .jpeg .png .webp .tif .tiff .heic
// .avif .jxl) or, for "-", by options.format to standard output. An image
// whose alpha is everywhere 255 is written without alpha; gray stays gray.
// The file appears whole or not at all: a regular file is written beside the
// target and renamed over it; anything else (a device, a link) is written in
// place with every write and the close checked.
bool SaveImage(const std::string& path, const Image& img, const SaveOptions& options, std::string& error);
bool SaveImage(const std::string& path, const Image& img, int quality, std::string& error);

// Encodes to bytes of `format` ("png", "jpg", ...).
bool EncodeImage(const Image& img, const std::string& format, const SaveOptions& options,
                 std::vector<uint8_t>& bytes, std::string& error);

// The metadata a WebP file carries, as its chunks by their four-letter names:
// "EXIF" (the TIFF data, its orientation set to upright, as the pixels are),
// "ICCP" and "XMP ". Empty for null.
std::vector<std::pair<std::string, std::vector<uint8_t>>> WebPMetadataChunks(const ImageMeta* meta);

// Writes bytes to `path` ("-": standard output) as SaveImage does.
bool WriteFileSafely(const std::string& path, const void* data, size_t size, std::string& error);

// Reads a whole file ("-": standard input), refusing folders and empty files.
bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error);

// Renders one line of `text` in a sans-serif font as a gray coverage mask
// (255 ink, 0 paper) about `pixel_height` pixels tall. False when no font can
// be rendered (no fonts installed).
bool RenderText(const std::string& text, int pixel_height, Image& mask);

// Lower-case extension of a path including the dot, e.g. ".png".
std::string Extension(const std::string& path);

// The still formats SaveImage writes, as extensions without the dot.
const std::vector<std::string>& WritableFormats();
// ".jpg, .png, ..." for messages.
std::string WritableFormatList();
// "jpeg" -> "jpg", "tiff" -> "tif", case folded; "" when not writable.
std::string FormatOf(const std::string& extension_or_name);

}  // namespace KorvaneTool
