// The tool's error exits: one line naming the file or option, a non-zero
// exit code, library result codes by name, and no output written.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

// A flat gray photo at dir/name.
void WritePhoto(const std::string& dir, const std::string& name, int w, int h) {
  WriteImage(dir, name, Image(w, h, 4, 128));
}

int Lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

// Fails with one "korvane: ..." line containing `needle`, and writes no output.
void ExpectFailure(const std::string& args, const std::string& needle, const std::string& output = "",
                   int code = 1) {
  const CliResult r = RunCli(args);
  EXPECT_EQ(r.exit_code, code) << args;
  EXPECT_EQ(r.output.rfind("korvane: ", 0), 0u) << r.output;
  EXPECT_EQ(Lines(r.output), 1) << r.output;
  EXPECT_NE(r.output.find(needle), std::string::npos) << "expected '" << needle << "' in: " << r.output;
  if (!output.empty()) {
    EXPECT_FALSE(std::filesystem::exists(output)) << output;
  }
}

}  // namespace

TEST(CliErrors, MissingUnreadableAndUnsupportedFilesAreNamed) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 20, 10);
  const std::string out = dir + "/out.png";
  ExpectFailure("focus-blur " + dir + "/missing.png -o " + out, "missing.png: no such file", out);
  std::ofstream(dir + "/text.png") << "not an image at all";
  ExpectFailure("focus-blur " + dir + "/text.png -o " + out, "text.png: unsupported image", out);
  std::ofstream(dir + "/cut.png", std::ios::binary) << std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
  ExpectFailure("focus-blur " + dir + "/cut.png -o " + out, "cut.png", out);
  std::ofstream(dir + "/empty.jpg");
  ExpectFailure("focus-blur " + dir + "/empty.jpg -o " + out, "empty.jpg", out);
  ExpectFailure("focus-blur " + dir + "/photo.png --guide " + dir + "/nope.png -o " + out, "nope.png", out);
  ExpectFailure("focus-blur " + dir + "/photo.png -o " + dir + "/out.bmp", "out.bmp", dir + "/out.bmp", 2);
}

TEST(CliErrors, GuideOfAnotherSizeShowsBothSizesAndTheCode) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 20, 10);
  WritePhoto(dir, "guide.png", 10, 20);
  ExpectFailure("focus-blur " + dir + "/photo.png --guide " + dir + "/guide.png -o " + dir + "/out.png",
                "guide " + dir + "/guide.png is 10x20 but the photo is 20x10: E_INVALIDARG (0x80070057)",
                dir + "/out.png");
}

TEST(CliErrors, OptionValuesOutsideTheTableAreUsageErrors) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 8, 8);
  const std::string out = dir + "/out.png";
  const std::string base = "focus-blur " + dir + "/photo.png -o " + out + " ";
  const std::string glow = "glow " + dir + "/photo.png -o " + out + " ";
  const struct {
    std::string args, message;
  } cases[] = {
      {base + "--level 101", "--level: 101 is outside 0..100 fiftieths of a percent of the shorter side"},
      {base + "--level -1", "--level: -1 is outside"},
      {base + "--focus 256", "--focus: 256 is outside 0..255"},
      {base + "--quality 0", "--quality: 0 is outside 1..100"},
      {base + "--level 12abc", "--level: '12abc' is not a number"},
      {base + "--level 1.5", "--level: '1.5' is not a whole number"},
      {base + "--focus 99999999999999", "--focus: 99999999999999 is outside"},
      {glow + "--radius -3", "--radius: -3 is outside 0..8192 pixels"},
      {glow + "--radius nan", "--radius: 'nan' is not a finite number"},
      {glow + "--intensity nan", "--intensity: 'nan' is not a finite number"},
      {glow + "--intensity inf", "--intensity: 'inf' is not a finite number"},
      {glow + "--chroma 422", "--chroma: '422' is not one of 420, 444"},
      {base + "--format bmp", "--format: 'bmp' is not a format"},
      {base + "--levle 3", "unknown option --levle; did you mean --level?"},
      {"focus-blur " + dir + "/photo.png", "--output"},
      {"glwo " + dir + "/photo.png", "unknown command 'glwo'; did you mean glow?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    ExpectFailure(c.args, c.message, out, 2);
  }
}

TEST(CliErrors, TheInputIsNeverOverwritten) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 8, 8);
  WritePhoto(dir, "depth.png", 8, 8);
  const auto before = std::filesystem::file_size(dir + "/photo.png");
  ExpectFailure("focus-blur " + dir + "/photo.png -o " + dir + "/photo.png", "is the input file");
  ExpectFailure("focus-blur " + dir + "/photo.png -o " + dir + "/./photo.png", "is the input file");
  ExpectFailure("focus-blur " + dir + "/photo.png --guide " + dir + "/depth.png -o " + dir + "/depth.png",
                "is the input file");
  EXPECT_EQ(std::filesystem::file_size(dir + "/photo.png"), before);
}
