// The pictures the tool's defaults give on real photos: glints and discs on
// the lights, the points it lists being the points it draws, and the same
// content in a still and in a loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

const std::filesystem::path kData = std::filesystem::path(__FILE__).parent_path().parent_path() / "data";

int Lightness(const uint8_t* p) {
  return (std::max({p[0], p[1], p[2]}) + std::min({p[0], p[1], p[2]})) / 2;
}

struct Points {
  int width = 0, height = 0;  // of the detection copy
  std::vector<std::pair<int, int>> at;
};

Points ReadPoints(const std::string& path) {
  const auto doc = nlohmann::json::parse(ReadAll(path));
  Points p;
  p.width = doc["width"];
  p.height = doc["height"];
  for (const auto& q : doc["points"]) p.at.push_back({q["x"].get<int>(), q["y"].get<int>()});
  return p;
}

// The share of the points that sit on the brightest 5 % of the photo's
// lightness: a photo pixel within one detection pixel of the point is
// among them.
double ShareOnBrightest(const Image& photo, const Points& pts) {
  std::vector<long> hist(256, 0);
  for (int y = 0; y < photo.height; ++y)
    for (int x = 0; x < photo.width; ++x) ++hist[Lightness(photo.at(x, y))];
  long above = 0;
  int level = 255;
  for (; level > 0; --level)
    if ((above += hist[level]) >= 0.05 * photo.width * photo.height) break;
  if (pts.at.empty()) return 1.0;
  const double sx = double(photo.width) / pts.width, sy = double(photo.height) / pts.height;
  int on = 0;
  for (auto [px, py] : pts.at) {
    int most = 0;
    for (int y = std::max(0, int((py - 1) * sy)); y <= std::min(photo.height - 1, int((py + 2) * sy)); ++y)
      for (int x = std::max(0, int((px - 1) * sx)); x <= std::min(photo.width - 1, int((px + 2) * sx)); ++x)
        most = std::max(most, Lightness(photo.at(x, y)));
    on += most >= level;
  }
  return double(on) / pts.at.size();
}

// Default glints and discs sit on the lights of real photos: at least 80 %
// on the brightest 5 % of each photo's lightness, and photos with lights
// keep some.
TEST(CliLooks, GlintsAndDiscsSitOnTheLights) {
  const std::string dir = Scratch();
  const std::set<std::string> lit = {"rocket", "hubble", "coffee"};
  for (const char* name : {"astronaut", "chelsea", "coffee", "hubble", "rocket"}) {
    const std::string photo_path = (kData / (std::string(name) + ".jpg")).string();
    const Image photo = ReadImage(photo_path);
    const std::string flat = WriteImage(dir, "flat.png", Image(photo.width, photo.height, 1, 0));
    for (const char* command : {"sparkle", "bokeh"}) {
      const std::string json = dir + "/" + name + "-" + command + ".json";
      // Bokeh with a guide that leaves the whole photo background, so
      // every light may get a disc (without one the centre stays sharp).
      const std::string guide = std::string(command) == "bokeh" ? " --guide " + flat : "";
      const CliResult r = RunCli(std::string(command) + " " + photo_path + guide + " --points-json " + json);
      ASSERT_EQ(r.exit_code, 0) << r.output;
      const Points pts = ReadPoints(json);
      const double share = ShareOnBrightest(photo, pts);
      std::printf("%-9s %-7s %3zu points, %5.1f %% on the brightest 5 %%\n", name, command, pts.at.size(),
                  100 * share);
      EXPECT_GE(share, 0.8) << name << " " << command;
      if (lit.count(name)) {
        EXPECT_GE(pts.at.size(), 3u) << name << " " << command;
      }
    }
  }
}

// The share of near-white pixels (every channel 245 or more).
double NearWhite(const Image& img) {
  long n = 0;
  for (int y = 0; y < img.height; ++y)
    for (int x = 0; x < img.width; ++x) n += std::min({img.at(x, y)[0], img.at(x, y)[1], img.at(x, y)[2]}) >= 245;
  return double(n) / (double(img.width) * img.height);
}

// Default light rays do not wash real photos out: the share of near-white
// pixels grows by at most a few points (it grew by 33 points on the
// astronaut with the fixed threshold and full strength), and rays are
// still drawn.
TEST(CliLooks, LightRaysKeepThePhotoFromWashingOut) {
  const std::string dir = Scratch();
  for (const char* name : {"astronaut", "chelsea", "coffee", "hubble", "rocket"}) {
    const std::string in = (kData / (std::string(name) + ".jpg")).string();
    const Image photo = ReadImage(in), rays = RunCliImage("light-rays " + in, dir + "/" + name + ".png");
    const double growth = NearWhite(rays) - NearWhite(photo);
    std::printf("%-9s near-white %4.1f %% -> %4.1f %%\n", name, 100 * NearWhite(photo), 100 * NearWhite(rays));
    EXPECT_LE(growth, 0.05) << name;
    long changed = 0;
    for (size_t i = 0; i < photo.pixels.size(); ++i) changed += rays.pixels[i] > photo.pixels[i] + 8;
    EXPECT_GT(changed, static_cast<long>(photo.pixels.size() / 100)) << name;
  }
}

// Bright and dim dots on a dark photo, far enough apart that each glint or
// disc lights only the spot of its own dot.
constexpr int kDotStep = 40;
Image Dots() {
  Image img(480, 320, 4, 255);
  std::mt19937 rng(7);
  for (int y = 0; y < img.height; ++y)
    for (int x = 0; x < img.width; ++x) std::fill_n(img.at(x, y), 3, static_cast<uint8_t>(25 + rng() % 6));
  int k = 0;
  for (int cy = kDotStep / 2; cy < img.height; cy += kDotStep)
    for (int cx = kDotStep / 2; cx < img.width; cx += kDotStep, ++k)
      for (int y = cy - 1; y <= cy + 1; ++y)
        for (int x = cx - 1; x <= cx + 1; ++x) std::fill_n(img.at(x, y), 3, static_cast<uint8_t>(k % 3 ? 255 : 120));
  return img;
}

// --points-json lists exactly the points that render: with part of the
// points shown and only part of the photo rendered, a dot gets light where
// one of its points is listed, and none where none is.
TEST(CliLooks, PointsJsonListsThePointsThatRender) {
  const std::string dir = Scratch();
  const Image photo = Dots();
  const std::string in = WriteImage(dir, "dots.png", photo);
  for (const std::string command : {"sparkle --size 1", "bokeh --level 0"}) {
    const CliResult all = RunCli(command + " " + in + " --amount 1 --points-json " + dir + "/all.json");
    ASSERT_EQ(all.exit_code, 0) << all.output;
    const CliResult some = RunCli(command + " " + in + " --amount 0.5 --roi 0,0,300,320 -o " + dir +
                                  "/some.png --points-json " + dir + "/some.json");
    ASSERT_EQ(some.exit_code, 0) << some.output;
    const Points every = ReadPoints(dir + "/all.json"), shown = ReadPoints(dir + "/some.json");
    const Image frame = ReadImage(dir + "/some.png");
    // Light is judged against the same render without any shape (bokeh's
    // background is resampled).
    const Image base = RunCliImage(command + " " + in + " --amount 0 --roi 0,0,300,320", dir + "/none.png");
    ASSERT_LT(shown.at.size() + 3, every.at.size()) << command;
    int lit = 0, dark = 0;
    for (int cy = kDotStep / 2; cy < photo.height; cy += kDotStep)
      for (int cx = kDotStep / 2; cx + kDotStep / 2 <= 300; cx += kDotStep) {
        // The dot's points, in photo pixels.
        const auto near = [&](const Points& pts) {
          int n = 0;
          for (auto [x, y] : pts.at) {
            n += std::abs((x + 0.5) * photo.width / pts.width - cx) <= 4 &&
                 std::abs((y + 0.5) * photo.height / pts.height - cy) <= 4;
          }
          return n;
        };
        const bool listed = near(shown) > 0;
        bool light = false;
        for (int y = cy - 2; y <= cy + 2; ++y)
          for (int x = cx - 2; x <= cx + 2; ++x) light = light || frame.at(x, y)[1] > base.at(x, y)[1] + 8;
        EXPECT_EQ(light, listed) << command << " dot " << cx << "," << cy << " (" << near(every) << " points)";
        (listed ? lit : dark) += 1;
      }
    EXPECT_GT(lit, 3) << command;
    EXPECT_GT(dark, 3) << command;
  }
}

// A still and the frames of a loop show the same glints: the still equals
// the loop's first frame.
TEST(CliLooks, StillAndLoopShowTheSameGlints) {
  const std::string dir = Scratch();
  const std::string in = (kData / "rocket.jpg").string();
  const Image still = RunCliImage("sparkle " + in, dir + "/still.png");
  const Image first = RunCliImage("sparkle " + in + " --frames 8 --frame 0", dir + "/first.png");
  EXPECT_EQ(still.pixels, first.pixels);
}

}  // namespace
