// The tool's error exits: one line naming the file or option, a non-zero
// exit code, library result codes by name, and no output written.
#include <gtest/gtest.h>
#include <vips/vips8>
#include <zlib.h>

#include <cmath>
#include <filesystem>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

TEST(CliErrors, MissingUnreadableAndUnsupportedFilesAreNamed) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", Image(20, 10, 4, 128));
  const std::string out = dir + "/out.png";
  ExpectFailure("focus-blur " + dir + "/missing.png -o " + out, "missing.png: no such file", out);
  WriteFile(dir + "/text.png", "not an image at all");
  ExpectFailure("focus-blur " + dir + "/text.png -o " + out, "text.png: unsupported image", out);
  WriteFile(dir + "/cut.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16));
  ExpectFailure("focus-blur " + dir + "/cut.png -o " + out, "cut.png", out);
  WriteFile(dir + "/empty.jpg", "");
  ExpectFailure("focus-blur " + dir + "/empty.jpg -o " + out, "empty.jpg", out);
  ExpectFailure("focus-blur " + dir + "/photo.png --guide " + dir + "/nope.png -o " + out, "nope.png", out);
  ExpectFailure("bokeh " + dir + "/photo.png --shape " + dir + "/nope.png -o " + out, "nope.png", out);
  ExpectFailure("focus-blur " + dir + "/photo.png -o " + dir + "/out.bmp", "out.bmp", dir + "/out.bmp", 2);
}

// A guide, mask or still region of the photo's proportions but another size
// (a phone's depth map) is resized with a notice, and renders as the same
// input at the photo's size; one of other proportions is refused the same
// way in every command.
TEST(CliErrors, InputsOfAnotherSizeAreResizedWhenTheirProportionsFit) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", NoisePhoto(20, 10, 3));
  WriteImage(dir, "turned.png", Image(10, 20, 4, 128));
  WriteImage(dir, "half.png", Image(10, 5, 1, 200));
  WriteImage(dir, "full.png", Image(20, 10, 1, 200));
  WriteFile(dir + "/flows.json", R"({"flows": [{"type": "anchor", "points": [[2, 2]]}]})");
  const std::pair<std::string, std::string> cases[] = {
      {"focus-blur", "guide"}, {"bokeh", "guide"}, {"glow", "mask"}, {"light-rays", "mask"},
      {"disperse", "mask"},    {"animate", "still"}};
  for (const auto& [command, input] : cases) {
    SCOPED_TRACE(command);
    const std::string more = command == "animate" ? " --flows " + dir + "/flows.json --frames 2 --frame 1"
                             : command == "disperse" ? " --frames 1" : "";
    const std::string run = command + " " + dir + "/photo.png" + more + " --" + input + " " + dir;
    ExpectFailure(run + "/turned.png -o " + dir + "/out.png",
                  input + " " + dir + "/turned.png is 10x20 but the photo is 20x10: E_INVALIDARG (0x80070057)",
                  dir + "/out.png");
    const CliResult r = RunCli(run + "/half.png -o " + dir + "/half-out.png");
    ASSERT_EQ(r.exit_code, 0) << r.output;
    EXPECT_NE(r.output.find("warning: the " + input + " (10x5) is resized to the photo's 20x10"), std::string::npos)
        << r.output;
    EXPECT_EQ(ReadImage(dir + "/half-out.png").pixels, RunCliImage(run + "/full.png", dir + "/full-out.png").pixels);
  }
}

// --stretch-guide renders a guide of a narrow range as that guide spread
// over 0..255.
TEST(CliErrors, StretchGuideSpreadsANarrowGuide) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", NoisePhoto(64, 48, 4));
  Image narrow(64, 48, 1), wide(64, 48, 1);
  for (int y = 0; y < 48; ++y)
    for (int x = 0; x < 64; ++x) {
      const int v = 100 + x * 40 / 63;  // 100..140, every value in whole columns
      *narrow.at(x, y) = static_cast<uint8_t>(v);
      *wide.at(x, y) = static_cast<uint8_t>(std::lround(255.0 * (v - 100) / 40));
    }
  WriteImage(dir, "narrow.png", narrow);
  WriteImage(dir, "wide.png", wide);
  for (const char* command : {"focus-blur", "bokeh --amount 0"}) {
    SCOPED_TRACE(command);
    const std::string run = std::string(command) + " " + dir + "/photo.png --guide " + dir;
    const Image stretched = RunCliImage(run + "/narrow.png --stretch-guide", dir + "/a.png");
    EXPECT_EQ(stretched.pixels, RunCliImage(run + "/wide.png", dir + "/b.png").pixels);
    EXPECT_NE(stretched.pixels, RunCliImage(run + "/narrow.png", dir + "/c.png").pixels);
  }
}

TEST(CliErrors, OptionValuesOutsideTheTableAreUsageErrors) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", Image(8, 8, 4, 128));
  const std::string out = dir + "/out.png";
  const std::string base = "focus-blur " + dir + "/photo.png -o " + out + " ";
  const std::string glow = "glow " + dir + "/photo.png -o " + out + " ";
  const struct {
    std::string args, message;
  } cases[] = {
      {base + "--level 101", "--level: 101 is outside 0..100 fiftieths of a percent of the shorter side"},
      {base + "--level 12abc", "--level: '12abc' is not a number"},
      {base + "--level 1.5", "--level: '1.5' is not a whole number"},
      {base + "--focus 99999999999999", "--focus: 99999999999999 is outside"},
      {glow + "--radius nan", "--radius: 'nan' is not a finite number"},
      {glow + "--chroma 422", "--chroma: '422' is not one of 420, 444"},
      {base + "--format bmp", "--format: 'bmp' is not a format"},
      {base + "--levle 3", "unknown option --levle; did you mean --level?"},
      {"glwo " + dir + "/photo.png", "unknown command 'glwo'; did you mean glow?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    ExpectFailure(c.args, c.message, out, 2);
  }
}

namespace {

std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}

std::string Chunk(const std::string& type_and_data) {
  return Be32(static_cast<uint32_t>(type_and_data.size() - 4)) + type_and_data + Be32(crc32(0, reinterpret_cast<const Bytef*>(type_and_data.data()), type_and_data.size()));
}

// A PNG of a few dozen bytes whose valid header claims w x h.
std::string PngHeaderOnly(uint32_t w, uint32_t h) {
  return std::string("\x89PNG\r\n\x1a\n", 8) +
         Chunk("IHDR" + Be32(w) + Be32(h) + std::string("\x08\x06\x00\x00\x00", 5)) +
         Chunk(std::string("IDAT\x78\x9c\x01\x00\x00", 9)) + Chunk("IEND");
}

// A JPEG whose marker stream holds `scans` start-of-scan segments.
std::string JpegWithScans(int scans) {
  std::string j("\xFF\xD8", 2);
  for (int i = 0; i < scans; ++i) j += std::string("\xFF\xDA\x00\x08\x01\x01\x00\x00\x3F\x00\x00", 11);
  return j + std::string("\xFF\xD9", 2);
}

std::string Le16(uint16_t v) { return {static_cast<char>(v), static_cast<char>(v >> 8)}; }

// A GIF with a `sw` x `sh` screen and one w x h frame at (x, y) whose data is
// a single pixel: the decoder grows the canvas to hold the frame.
std::string GifWithFrame(uint16_t sw, uint16_t sh, uint16_t x, uint16_t y, uint16_t w, uint16_t h) {
  return "GIF89a" + Le16(sw) + Le16(sh) + std::string("\x80\x00\x00\x00\x00\x00\xff\xff\xff", 9) + "\x2c" +
         Le16(x) + Le16(y) + Le16(w) + Le16(h) + std::string("\x00\x02\x02\x44\x01\x00\x3b", 7);
}

}  // namespace

TEST(CliErrors, HostileFilesGiveOneLineAndWriteNothing) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", Image(16, 12, 4, 128));
  const std::string photo = dir + "/photo.png", out = dir + "/out.png";
  WriteFile(dir + "/huge.png", PngHeaderOnly(16384, 16384));
  WriteFile(dir + "/scans.jpg", JpegWithScans(300));
  // Found by fuzzing: a few dozen bytes that cost 10-25 s of decoding.
  WriteFile(dir + "/far.gif", GifWithFrame(1, 1, 5000, 4000, 5000, 5000));
  WriteFile(dir + "/big-number.json", R"({"flows": [{"type": "path", "points": [[1e400, 5], [3, 4]]}]})");
  std::filesystem::create_directories(dir + "/folder");
  const std::string anim = "animate " + photo + " --flows " + dir + "/big-number.json -o " + out;
  const struct {
    std::string args, message;
  } cases[] = {
      {"glitch " + dir + "/huge.png -o " + out, "huge.png: 16384x16384 is more than the 200-megapixel limit"},
      {"glitch " + dir + "/scans.jpg -o " + out, "scans.jpg: JPEG with more than 200 scans refused"},
      {"glitch " + dir + "/far.gif -o " + out, "far.gif: 10000x9000 GIF from only 35 bytes refused"},
      {anim, "big-number.json: not valid JSON"},
      {"glitch " + dir + "/folder -o " + out, "folder: is a folder, not a file"},
      {"focus-blur " + photo + " --guide " + dir + "/folder -o " + out, "folder: is a folder"},
      {"glow " + photo + " --mask " + dir + "/folder -o " + out, "folder: is a folder"},
      {"animate " + photo + " --flows " + dir + "/folder -o " + out, "folder: is a folder"},
      {"animate " + dir + "/folder --flows " + dir + "/big-number.json -o " + out, "folder: is a folder"},
      {"glitch " + photo + " -o " + dir + "/folder", "folder: is a folder; give a file name"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    ExpectFailure(c.args, c.message, out);
  }
  ExpectFailure(anim + " --frames 1", "--frames: 1 is outside 2..1000", out, 2);
  ExpectFailure(anim + " --loop-mode -1", "--loop-mode: -1 is outside 0..2", out, 2);
}

TEST(CliErrors, AFailedRenderKeepsTheOldFile) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", Image(16, 12, 4, 128));
  // A render that fails leaves an earlier output as it was.
  WriteFile(dir + "/out.png", "earlier");
  ExpectFailure("glow " + dir + "/photo.png --radius 5 -o " + dir + "/out.png", "--radius 5");
  EXPECT_EQ(ReadAll(dir + "/out.png"), "earlier");
}

TEST(CliErrors, RunningOutOfMemoryIsOneLine) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer reserves more address space than the limit leaves";
#endif
  const std::string dir = Scratch();
  // 36 megapixels in a small file. 400 MB of address space cannot decode it;
  // 1.1 GB decodes it and bokeh runs out inside the library, which logs why
  // on its own channel: the user still sees one line.
  StartImageLibrary();
  (vips::VImage::black(6000, 6000, vips::VImage::option()->set("bands", 3)) + 128)
      .cast(VIPS_FORMAT_UCHAR)
      .write_to_file((dir + "/big.png").c_str(), vips::VImage::option()->set("compression", 1));
  for (const auto& [command, limit] : {std::pair<const char*, int>{"glow", 400000}, {"bokeh", 1100000}}) {
    const CliResult r = RunCli(std::string(command) + " " + dir + "/big.png -o " + dir + "/out.png",
                               "ulimit -v " + std::to_string(limit) + "; ");
    EXPECT_EQ(r.exit_code, 1) << "-1 is a signal: " << r.output;
    EXPECT_EQ(r.output, "korvane: " + dir + "/big.png: out of memory\n") << command;
    EXPECT_FALSE(std::filesystem::exists(dir + "/out.png"));
  }
}
