// Loop files as a viewer plays them: frames in order, close to what was
// rendered, and a lossy WebP that steps back to its first frame like any
// other step (no pop at the wrap).
#include <gtest/gtest.h>
#include <vips/vips8>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include "AnimationWriter.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

// A textured photo-like background (smooth shading and fine grain).
Image Background(int w, int h) {
  Image img(w, h, 4, 255);
  std::mt19937 rng(7);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = img.at(x, y);
      const double shade = 90 + 50 * std::sin(x * 0.05) * std::cos(y * 0.04);
      for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::clamp(shade + c * 20 + int(rng() % 9) - 4.0, 0.0, 255.0));
    }
  return img;
}

// Frame i of a seamless loop of n frames, `kind`:
// "orbit": a soft light circling at an even speed (every step alike);
// "breathe": a slow wave of a few levels of brightness across the picture,
// steps below what an encoder would call a change.
Image LoopFrame(const Image& back, const std::string& kind, int i, int n) {
  Image f = back;
  const double a = 2 * M_PI * i / n;
  for (int y = 0; y < f.height; ++y)
    for (int x = 0; x < f.width; ++x) {
      uint8_t* p = f.at(x, y);
      double add = 0;
      if (kind == "orbit") {
        const double cx = f.width / 2.0 + f.width / 4.0 * std::cos(a), cy = f.height / 2.0 + f.height / 4.0 * std::sin(a);
        add = 120 * std::exp(-(std::pow(x - cx, 2) + std::pow(y - cy, 2)) / 120.0);
      } else {
        add = 6 * std::sin(a + x * 0.03) + 6;
      }
      for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::min(255.0, p[c] + std::round(add)));
    }
  return f;
}

// The frames of an animation file as decoded, BGRA.
std::vector<Image> Decoded(const std::string& path) {
  StartImageLibrary();
  const vips::VImage all = vips::VImage::new_from_file(path.c_str(), vips::VImage::option()->set("n", -1));
  const int page = all.get_int("page-height"), frames = all.height() / page;
  std::vector<Image> out;
  for (int k = 0; k < frames; ++k) {
    vips::VImage f = all.crop(0, k * page, all.width(), page);
    if (f.bands() == 3) f = f.bandjoin_const({255});
    size_t size = 0;
    uint8_t* rgba = static_cast<uint8_t*>(f.cast(VIPS_FORMAT_UCHAR).write_to_memory(&size));
    Image img(all.width(), page, 4);
    for (size_t p = 0; p < size; p += 4) {
      img.pixels[p] = rgba[p + 2], img.pixels[p + 1] = rgba[p + 1], img.pixels[p + 2] = rgba[p], img.pixels[p + 3] = rgba[p + 3];
    }
    g_free(rgba);
    out.push_back(img);
  }
  return out;
}

// Mean absolute difference of B, G, R.
double Mad(const Image& a, const Image& b) {
  double sum = 0;
  for (size_t p = 0; p < a.pixels.size(); ++p) sum += p % 4 == 3 ? 0 : std::abs(a.pixels[p] - b.pixels[p]);
  return sum / (a.pixels.size() / 4 * 3.0);
}

std::string WriteLoop(const std::string& path, LoopFormat format, const std::vector<Image>& frames, int quality) {
  LoopSettings s;
  s.width = frames[0].width, s.height = frames[0].height, s.quality = quality;
  std::string error;
  auto writer = OpenAnimationWriter(path, format, s, error);
  EXPECT_TRUE(writer) << error;
  if (!writer) return path;
  for (const Image& f : frames) EXPECT_TRUE(writer->AddFrame(f, error)) << error;
  EXPECT_TRUE(writer->Finish(error)) << error;
  return path;
}

}  // namespace

TEST(LoopFiles, LossyWebPStepsBackToTheFirstFrameLikeAnyOtherStep) {
  const std::string dir = Scratch();
  const Image back = Background(160, 112);
  for (const std::string kind : {"orbit", "breathe"}) {
    SCOPED_TRACE(kind);
    std::vector<Image> frames;
    for (int i = 0; i < 16; ++i) frames.push_back(LoopFrame(back, kind, i, 16));
    const std::vector<Image> shown = Decoded(WriteLoop(dir + "/" + kind + ".webp", LoopFormat::kWebP, frames, 80));
    ASSERT_EQ(shown.size(), frames.size());
    double largest = 0, first_error = Mad(shown[0], frames[0]);
    for (size_t i = 0; i + 1 < shown.size(); ++i) {
      largest = std::max(largest, Mad(shown[i], shown[i + 1]));
      // No frame drifts away from what was rendered.
      EXPECT_LT(Mad(shown[i + 1], frames[i + 1]), first_error * 1.2 + 0.2) << i + 1;
    }
    EXPECT_LE(Mad(shown.back(), shown[0]), largest) << "the wrap";
  }
}

TEST(LoopFiles, FramesKeepTheirOrderAndEqualFramesAreMerged) {
  const std::string dir = Scratch();
  // Frame i lights block i, so the order shows; frames 3 and 4 are equal.
  const Image back = Background(96, 48);
  std::vector<Image> frames;
  for (int i = 0; i < 7; ++i) {
    Image f = back;
    const int lit = i == 4 ? 3 : i;
    for (int y = 8; y < 24; ++y)
      for (int x = 8 + lit * 12; x < 16 + lit * 12; ++x) std::fill_n(f.at(x, y), 3, 250);
    frames.push_back(f);
  }
  for (const auto& [name, format, close] : {std::tuple<const char*, LoopFormat, double>{"loop.webp", LoopFormat::kWebP, 3.0},
                                           {"lossless.webp", LoopFormat::kWebP, 0.0},
                                           {"loop.gif", LoopFormat::kGif, 6.0}}) {
    SCOPED_TRACE(name);
    const std::vector<Image> shown =
        Decoded(WriteLoop(dir + "/" + name, format, frames, std::string(name) == "lossless.webp" ? 100 : 80));
    // A viewer shows as many frames as were written (WebP lengthens frame 3 instead of repeating it).
    ASSERT_EQ(shown.size(), format == LoopFormat::kGif ? 7u : 6u);
    for (size_t k = 0; k < shown.size(); ++k) {
      const size_t source = format == LoopFormat::kGif || k < 4 ? k : k + 1;
      EXPECT_LE(Mad(shown[k], frames[source]), close) << k;
    }
  }
}
