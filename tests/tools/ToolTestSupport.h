// Running the korvane executable from tests, in a scratch folder per test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "ImageIO.h"

namespace KorvaneToolTest {

struct CliResult {
  int exit_code = -1;
  std::string output;  // stdout and stderr together
};

// Runs `korvane <args>` through the shell, after the shell commands in
// `before` (a resource limit), and captures what it printed. The exit code is
// -1 when a signal ended it.
inline CliResult RunCli(const std::string& args, const std::string& before = "") {
  CliResult r;
  const std::string cmd = before + "\"" + KORVANE_CLI + "\" " + args + " 2>&1";
  FILE* pipe = popen(cmd.c_str(), "r");
  if (!pipe) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) r.output.append(buf, n);
  const int status = pclose(pipe);
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// A whole file's bytes.
inline std::string ReadAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// Writes `bytes` as the whole file at `path` and returns the path.
inline std::string WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

// A fresh, empty folder named after the running test.
inline std::string Scratch() {
  const auto* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::filesystem::path dir =
      std::filesystem::path(KORVANE_TEST_SCRATCH) / (std::string(info->test_suite_name()) + "." + info->name());
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir.string();
}

// A BGRA image of random bytes, alpha included.
inline KorvaneTool::Image NoisePhoto(int w, int h, uint32_t seed) {
  KorvaneTool::Image img(w, h, 4);
  std::mt19937 rng(seed);
  for (uint8_t& v : img.pixels) v = static_cast<uint8_t>(rng());
  return img;
}

// A dark, opaque photo with small bright dots (every 9th column of every 7th
// row, and one by the bottom-right corner): light points for rays, discs and
// glints, some near every edge so shapes centred outside a region reach into it.
inline KorvaneTool::Image DotsPhoto(int w, int h) {
  KorvaneTool::Image img(w, h, 4, 255);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = img.at(x, y);
      const bool dot = (x % 9 == 2 && y % 7 == 3) || (x == w - 2 && y == h - 2);
      p[0] = static_cast<uint8_t>(dot ? 240 : 25 + (x + 2 * y) % 11);
      p[1] = static_cast<uint8_t>(dot ? 250 : 20);
      p[2] = static_cast<uint8_t>(dot ? 255 : 30);
    }
  return img;
}

// Writes `img` as dir/name (PNG or JPEG by the extension) and returns the path.
inline std::string WriteImage(const std::string& dir, const std::string& name, const KorvaneTool::Image& img) {
  std::string err;
  const std::string path = dir + "/" + name;
  EXPECT_TRUE(KorvaneTool::SaveImage(path, img, 90, err)) << err;
  return path;
}

// Reads an image file as BGRA; an empty image (and a test failure) if it cannot.
inline KorvaneTool::Image ReadImage(const std::string& path) {
  KorvaneTool::Image img;
  std::string err;
  EXPECT_TRUE(KorvaneTool::LoadImage(path, img, err)) << err;
  return img;
}

// Fails with one "korvane: ..." line holding `needle` and exit `code`, and
// writes no `output` (when one is named).
inline void ExpectFailure(const std::string& args, const std::string& needle, const std::string& output = "",
                          int code = 1) {
  const CliResult r = RunCli(args);
  EXPECT_EQ(r.exit_code, code) << args;
  EXPECT_EQ(r.output.rfind("korvane: ", 0), 0u) << r.output;
  EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
  EXPECT_NE(r.output.find(needle), std::string::npos) << "expected '" << needle << "' in: " << r.output;
  if (!output.empty()) {
    EXPECT_FALSE(std::filesystem::exists(output)) << output;
  }
}

// Runs `korvane <args> -o <output>`, expecting success, and reads what it
// wrote (an empty image when it failed).
inline KorvaneTool::Image RunCliImage(const std::string& args, const std::string& output) {
  const CliResult r = RunCli(args + " -o " + output);
  EXPECT_EQ(r.exit_code, 0) << r.output;
  return r.exit_code == 0 ? ReadImage(output) : KorvaneTool::Image();
}

// A dark photo with bright dots (light points for bokeh and sparkle), a
// subject mask and a flow file, in a scratch folder.
struct Scene {
  std::string dir, photo, mask, flows;
  Scene() : dir(Scratch()) {
    KorvaneTool::Image m(48, 32, 1, 0);
    for (int y = 8; y < 24; ++y)
      for (int x = 16; x < 32; ++x) *m.at(x, y) = 255;
    photo = WriteImage(dir, "photo.png", DotsPhoto(48, 32));
    mask = WriteImage(dir, "mask.png", m);
    flows = WriteFile(dir + "/flows.json", R"({"flows": [{"type": "path", "points": [[4, 4], [20, 6], [40, 8]]}]})");
  }
};

}  // namespace KorvaneToolTest
