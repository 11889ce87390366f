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
void ExpectFailure(const std::string& args, const std::string& needle, const std::string& output = "") {
  const CliResult r = RunCli(args);
  EXPECT_NE(r.exit_code, 0) << args;
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
  ExpectFailure("focus-blur " + dir + "/photo.png -o " + dir + "/out.bmp", "out.bmp", dir + "/out.bmp");
}

TEST(CliErrors, GuideOfAnotherSizeShowsBothSizesAndTheCode) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 20, 10);
  WritePhoto(dir, "guide.png", 10, 20);
  ExpectFailure("focus-blur " + dir + "/photo.png --guide " + dir + "/guide.png -o " + dir + "/out.png",
                "guide " + dir + "/guide.png is 10x20 but the photo is 20x10: E_INVALIDARG (0x80070057)",
                dir + "/out.png");
}

TEST(CliErrors, OptionsOutOfRangeNameTheOptionAndTheCode) {
  const std::string dir = Scratch();
  WritePhoto(dir, "photo.png", 8, 8);
  const std::string base = "focus-blur " + dir + "/photo.png -o " + dir + "/out.png ";
  ExpectFailure(base + "--level 101", "--level: 101 is outside 0..100: E_INVALIDARG");
  ExpectFailure(base + "--level -1", "--level");
  ExpectFailure(base + "--focus 256", "--focus: 256 is outside 0..255: E_INVALIDARG");
  ExpectFailure(base + "--range -3", "--range: -3 is outside 0..255: E_INVALIDARG");
  ExpectFailure(base + "--quality 0", "--quality: 0 is outside 1..100");
  ExpectFailure(base + "--level 12abc", "--level: '12abc' is not a whole number");
  ExpectFailure(base + "--focus 99999999999999", "--focus");
  ExpectFailure(base + "--no-such-option", "no-such-option");
  ExpectFailure("focus-blur " + dir + "/photo.png", "--output");
  EXPECT_FALSE(std::filesystem::exists(dir + "/out.png"));
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
