// The plug-in inside GIMP itself. gimp-console-2.10 starts once, headless,
// with a private GIMP2_DIRECTORY holding only this plug-in (no user setting
// is read or written), and cases.scm calls every procedure non-interactively
// on a photo, with the numbers `korvane <command> --help` lists in its order,
// and exports PNGs. Each must hold the pixels the korvane tool writes with
// the same options. The two PNG encoders write different bytes (GIMP adds
// its colour profile, compresses otherwise), so the decoded pixels are
// compared, as stored, without colour management.
#include <gtest/gtest.h>
#include <vips/vips8>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ImageIO.h"
#include "LastValues.h"

namespace {

namespace fs = std::filesystem;
using KorvaneFrontend::Image;

const std::string kDir = std::string(KORVANE_TEST_SCRATCH) + "/gimp/";
const int kWidth = 160, kHeight = 120;

// 8-bit RGBA as stored in the file: gray spread to R, G and B; opaque where
// the file has no alpha.
Image ReadPixels(const std::string& name) {
  vips::VImage v = vips::VImage::new_from_file((kDir + name).c_str());
  if (v.bands() <= 2) v = v.extract_band(0).bandjoin({v.extract_band(0), v.extract_band(0)}).bandjoin(
                          v.bands() == 2 ? v.extract_band(1) : v.extract_band(0) * 0 + 255);
  else if (v.bands() == 3) v = v.bandjoin_const({255});
  v = v.cast(VIPS_FORMAT_UCHAR);
  Image img(v.width(), v.height(), 4);
  size_t size = 0;
  void* data = v.write_to_memory(&size);
  if (size == img.pixels.size()) std::copy_n(static_cast<uint8_t*>(data), size, img.pixels.begin());
  g_free(data);
  return img;
}

void Write(const std::string& name, const KorvaneTool::Image& img) {
  std::string error;
  ASSERT_TRUE(KorvaneTool::SaveImage(kDir + name, img, 92, error)) << error;
}

// Texture with rows of bright dots and a bright patch the rays start from;
// with `alpha`, transparency rising to the right (never 0, whose colour
// GIMP's exporter does not keep).
KorvaneTool::Image Photo(bool alpha) {
  KorvaneTool::Image img(kWidth, kHeight, 4, 255);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) {
      uint8_t* p = img.at(x, y);
      const bool dot = x % 13 == 6 && y % 11 == 5;
      const bool patch = (x - 80) * (x - 80) + (y - 40) * (y - 40) < 36;
      p[0] = static_cast<uint8_t>(dot || patch ? 250 : 40 + (x * 5 + y * 3) % 70);
      p[1] = static_cast<uint8_t>(dot || patch ? 245 : 30 + (x * 2 + y * 7) % 90);
      p[2] = static_cast<uint8_t>(dot || patch ? 255 : 60 + (x + 2 * y) % 80);
      if (alpha) p[3] = static_cast<uint8_t>(40 + x * 215 / (kWidth - 1));
    }
  return img;
}

void WriteFixtures() {
  Write("photo.png", Photo(false));
  Write("photo-alpha.png", Photo(true));
  KorvaneTool::Image depth(kWidth, kHeight, 1), mask(kWidth, kHeight, 1, 0);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) {
      *depth.at(x, y) = static_cast<uint8_t>(x * 255 / (kWidth - 1));
      *mask.at(x, y) = x >= 40 && x < 110 && y >= 30 && y < 95 ? 255 : 0;
    }
  Write("depth.png", depth);
  Write("mask.png", mask);
  // The paths of cases.scm, half a pixel up and left: GIMP puts a pixel's
  // centre at .5, the library at the whole number.
  std::ofstream(kDir + "flows.json") << R"({"flows": [{"type": "path", "points": [[10, 20], [50, 24], [90, 30]]},
                                                      {"type": "anchor", "points": [[120, 100]]}]})";
  std::ofstream(kDir + "sparkles.json") << R"({"sparkles": [{"x": 20, "y": 12}, {"x": 60, "y": 30},
                                                            {"x": 100, "y": 80}]})";
}

const char* const kCases[] = {"focus-blur", "glitch", "glow",      "light-rays",    "bokeh",   "sparkle",
                              "animate",    "disperse", "glow-alpha", "last-values", "refusals"};

// One GIMP for every case; its messages go to gimp.log.
void RunGimp() {
  const std::string home = kDir + "gimp-home";  // kept: GIMP's first start in a new one is slow
  fs::create_directories(home + "/plug-ins/korvane-gimp");
  const std::string link = home + "/plug-ins/korvane-gimp/korvane-gimp";
  fs::remove(link);
  fs::create_symlink(KORVANE_GIMP_PLUGIN, link);
  // Each batch command starts Script-Fu afresh, so each loads the cases.
  const std::string load = "(define korvane-dir \"" + kDir + "\") (load \"" + KORVANE_GIMP_CASES + "\")";
  std::string command = "GIMP2_DIRECTORY='" + home + "' '" + KORVANE_GIMP_CONSOLE + "' -i -d -f";
  // Under AddressSanitizer the plug-in reports at its exit what GEGL's
  // modules leave allocated once unloaded; those reports must not stop it
  // (ThePlugInLeaksNothingOfItsOwn reads them), its memory errors still do.
  if (const char* asan = std::getenv("ASAN_OPTIONS")) {
    // The slow unwinder walks through libraries built without frame pointers.
    command = "ASAN_OPTIONS=" + std::string(asan) + ":fast_unwind_on_malloc=0 LSAN_OPTIONS=exitcode=0 " + command;
  }
  for (const char* c : kCases) command += " -b '(begin " + load + " (case-" + c + "))'";
  command += " -b '(gimp-quit 0)' > '" + kDir + "gimp.log' 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

void Tool(const std::string& args) {
  const std::string command = "cd '" + kDir + "' && '" + KORVANE_CLI + "' " + args + " -q";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

std::vector<std::string> Lines(const std::string& name) {
  std::ifstream f(kDir + name);
  std::vector<std::string> lines;
  for (std::string line; std::getline(f, line);) lines.push_back(line);
  return lines;
}

// Pixels of `a` differing from `b` inside (or, with `outside`, outside) the
// rectangle x0, y0 .. x1, y1; `bx`, `by` shift the rectangle in `b`.
int Differing(const Image& a, const Image& b, int x0, int y0, int x1, int y1, bool outside = false, int bx = 0,
              int by = 0) {
  int n = 0;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x) {
      const bool in = x >= x0 && x < x1 && y >= y0 && y < y1;
      if (in == outside) continue;
      const int u = x - bx, v = y - by;
      if (u < 0 || v < 0 || u >= b.width || v >= b.height || !std::equal(a.at(x, y), a.at(x, y) + 4, b.at(u, v))) ++n;
    }
  return n;
}

class Gimp : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    KorvaneTool::StartImageLibrary();
    fs::create_directories(kDir);
    WriteFixtures();
    RunGimp();
  }

  static void ExpectSameImage(const std::string& gimp, const std::string& tool) {
    const Image a = ReadPixels(gimp), b = ReadPixels(tool);
    ASSERT_EQ(a.width, b.width) << gimp;
    ASSERT_EQ(a.height, b.height) << gimp;
    EXPECT_EQ(Differing(a, b, 0, 0, a.width, a.height), 0) << gimp << " against " << tool;
  }

  // The loop's frame layers, named and stacked as GIMP plays them (the first
  // lowest, just above the photo), each with the pixels of the tool's frame.
  static void ExpectFrameLayers(const std::string& name, int frames) {
    const std::vector<std::string> layers = Lines(name + ".txt");
    ASSERT_GE(layers.size(), static_cast<size_t>(frames + 1)) << "see " << kDir << "gimp.log";
    for (int k = 0; k < frames; ++k) {
      EXPECT_EQ(layers[k], "Frame " + std::to_string(frames - k) + " (42ms) (replace)");
    }
    EXPECT_EQ(layers[frames], "Background") << "the photo stays under its frames";
    char tool_frame[32];
    for (int k = 0; k < frames; ++k) {
      std::snprintf(tool_frame, sizeof(tool_frame), "/frame_%04d.png", k);
      ExpectSameImage(name + "-frame-" + std::to_string(k + 1) + ".png", "tool-" + name + tool_frame);
    }
  }
};

TEST_F(Gimp, StillsHoldTheToolsPixels) {
  Tool("focus-blur photo.png --guide depth.png --level 80 --focus 200 --range 16 -o tool-focus-blur.png");
  ExpectSameImage("focus-blur.png", "tool-focus-blur.png");
  // A frame of a loop chosen by --frame is rendered into the layer itself.
  Tool("bokeh photo.png --guide depth.png --shape star --amount 1 --twinkle --frames 4 --frame 2 -o tool-bokeh.png");
  ExpectSameImage("bokeh.png", "tool-bokeh.png");
  // Glints at the anchors of a path.
  Tool("sparkle photo.png --manual sparkles.json --manual-shape cross --size 3 -o tool-sparkle.png");
  ExpectSameImage("sparkle.png", "tool-sparkle.png");
  // RUN-WITH-LAST-VALS repeats the values of the call before.
  Tool("glitch photo.png --type 3 --shift-x -40 --shift-y 12 --radius 40 -o tool-last-values.png");
  ExpectSameImage("last-values.png", "tool-last-values.png");
}

TEST_F(Gimp, OnlyTheSelectionOrRegionChanges) {
  const Image photo = ReadPixels("photo.png");
  Tool("glitch photo.png --type 6 --radius 60 --rotation 45 -o tool-glitch.png");
  const Image glitch = ReadPixels("glitch.png"), tool_glitch = ReadPixels("tool-glitch.png");
  EXPECT_EQ(Differing(glitch, tool_glitch, 30, 20, 120, 90), 0);
  EXPECT_EQ(Differing(glitch, photo, 30, 20, 120, 90, true), 0);
  EXPECT_GT(Differing(tool_glitch, photo, 30, 20, 120, 90), 1000) << "the glitch shows inside";
  // --roi renders its rectangle alone; the mask is a channel.
  Tool("glow photo.png --intensity 0.6 --threshold 150 --blend addition --mask mask.png --roi 10,8,150,100 "
       "-o tool-glow.png");
  const Image glow = ReadPixels("glow.png"), tool_glow = ReadPixels("tool-glow.png");
  EXPECT_EQ(Differing(glow, tool_glow, 10, 8, 150, 100, false, 10, 8), 0);
  EXPECT_EQ(Differing(glow, photo, 10, 8, 150, 100, true), 0);
}

TEST_F(Gimp, LoopsBecomeFrameLayersAboveThePhoto) {
  Tool("light-rays photo.png --center 80,40 --threshold 150 --lampshade 270,60,20 --sway --frames 3 "
       "-o tool-light-rays");
  ExpectFrameLayers("light-rays", 3);
  // Flow lines from a path's strokes; the selection is the still region,
  // so it does not limit the frames, and it is still there afterwards.
  Tool("animate photo.png --flows flows.json --still mask.png --loop-mode 1 --frames 4 -o tool-animate");
  ExpectFrameLayers("animate", 4);
  EXPECT_EQ(Lines("animate-selection.txt"), std::vector<std::string>{"kept"});
  // GIMP's exporter writes the frame layers as the loop, 42 ms a frame (the
  // tool's 24 frames a second).
  vips::VImage webp = vips::VImage::new_from_file((kDir + "animate.webp").c_str(),
                                                  vips::VImage::option()->set("n", -1));
  EXPECT_EQ(webp.get_int("n-pages"), 4);
  int* delays = nullptr;
  int count = 0;
  ASSERT_EQ(vips_image_get_array_int(webp.get_image(), "delay", &delays, &count), 0);
  EXPECT_EQ(std::vector<int>(delays, delays + count), std::vector<int>(4, 42));
  webp.extract_area(0, 0, kWidth, kHeight).write_to_file((kDir + "animate-webp-1.png").c_str());
  ExpectSameImage("animate-webp-1.png", "tool-animate/frame_0000.png");
  Tool("disperse photo.png --mask mask.png --density 0.8 --seed 7 --loop --frames 3 -o tool-disperse");
  ExpectFrameLayers("disperse", 3);
}

TEST_F(Gimp, AlphaAndFloatingPointLayersKeepTheirAlpha) {
  // The colour is the tool's; the alpha the layer's own, though glow's
  // blend would change it.
  Tool("glow photo-alpha.png --intensity 0.6 --threshold 150 -o tool-glow-alpha.png");
  const Image gimp = ReadPixels("glow-alpha.png"), tool = ReadPixels("tool-glow-alpha.png");
  const Image photo = ReadPixels("photo-alpha.png");
  ASSERT_EQ(gimp.pixels.size(), tool.pixels.size());
  int colour = 0, alpha = 0, changed_by_tool = 0;
  for (size_t i = 0; i < gimp.pixels.size(); i += 4) {
    colour += !std::equal(&gimp.pixels[i], &gimp.pixels[i] + 3, &tool.pixels[i]);
    alpha += gimp.pixels[i + 3] != photo.pixels[i + 3];
    changed_by_tool += tool.pixels[i + 3] != photo.pixels[i + 3];
  }
  EXPECT_EQ(colour, 0);
  EXPECT_EQ(alpha, 0);
  EXPECT_GT(changed_by_tool, 0);
}

TEST_F(Gimp, RefusalsSayWhy) {
  const std::vector<std::string> messages = Lines("refusals.txt");
  ASSERT_EQ(messages.size(), 6u) << "see " << kDir << "gimp.log";
  const char* const expected[] = {
      "work on RGB layers",                        // a grayscale image
      "--intensity: 2 is outside 0..1",            // the tool's words
      "--blend: '29' is not one of 0 normal",       // a choice by number
      "--center: wants 2 numbers (X,Y)",           // a list of the wrong length
      "--mask is required",                        // disperse's subject
      "--frame 5 is past the last frame of --frames 2",
  };
  for (size_t i = 0; i < messages.size(); ++i) EXPECT_NE(messages[i].find(expected[i]), std::string::npos) << messages[i];
}

// Under AddressSanitizer: no leak the plug-in reports passes through its
// own code or the library's (frames in the Korvane namespaces).
TEST_F(Gimp, ThePlugInLeaksNothingOfItsOwn) {
  bool in_report = false;
  for (const std::string& line : Lines("gimp.log")) {
    if (line.find("ERROR: LeakSanitizer") != std::string::npos) in_report = true;
    if (line.find("SUMMARY: AddressSanitizer") != std::string::npos) in_report = false;
    if (in_report && line.find(" #") != std::string::npos) {
      EXPECT_EQ(line.find("Korvane"), std::string::npos) << line;
    }
  }
}

// The dialog's remembered values, for every command: set every option away
// from its default, keep, read back into fresh values and keep again.
TEST(GimpLastValues, EveryOptionSurvivesTheRoundTrip) {
  for (const KorvaneFrontend::CommandDef& c : KorvaneFrontend::Commands()) {
    SCOPED_TRACE(c.name);
    KorvaneGimp::Request request(c);
    for (const KorvaneFrontend::OptionDef& o : c.options) {
      if (!KorvaneGimp::InProcedure(o)) continue;
      if (KorvaneGimp::IsItem(o)) {
        request.items[o.name] = 7;
      } else if (o.kind == KorvaneFrontend::OptionKind::kChoice) {
        ASSERT_EQ(request.values.SetNumber(o.name, static_cast<double>(o.choices.size() - 1)), "");
      } else if (o.kind == KorvaneFrontend::OptionKind::kFlag) {
        ASSERT_EQ(request.values.SetFlag(o.name, true), "");
      } else if (!o.parts.empty()) {
        std::vector<double> numbers;
        for (const auto& p : o.parts) numbers.push_back(std::floor(p.lo + (p.hi - p.lo) / 3));
        ASSERT_EQ(request.values.SetNumbers(o.name, numbers), "");
      } else {
        // A third of the range: a fraction with many digits for real numbers.
        const double v = o.lo + (o.hi - o.lo) / 3;
        ASSERT_EQ(request.values.SetNumber(o.name, o.kind == KorvaneFrontend::OptionKind::kWhole ? std::floor(v) : v),
                  "");
      }
    }
    const std::string text = KorvaneGimp::LastValuesText(request);
    KorvaneGimp::Request back(c);
    KorvaneGimp::ReadLastValues(text, back);
    EXPECT_EQ(KorvaneGimp::LastValuesText(back), text);
    for (const KorvaneFrontend::OptionDef& o : c.options) {
      if (KorvaneGimp::InProcedure(o) && !KorvaneGimp::IsItem(o) && !o.parts.size() &&
          o.kind != KorvaneFrontend::OptionKind::kChoice && o.kind != KorvaneFrontend::OptionKind::kFlag) {
        // Kept to the float precision the library renders with.
        EXPECT_EQ(static_cast<float>(back.values.Number(o.name)), static_cast<float>(request.values.Number(o.name)))
            << o.name;
      }
    }
  }
}

}  // namespace
