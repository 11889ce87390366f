#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

TEST(CliSparkle, PlacedGlintsShineWhereTheFileSaysAndPointsAreListed) {
  const std::string dir = Scratch();
  const Image photo = DotsPhoto(120, 96);
  const std::string in = WriteImage(dir, "photo.png", photo);
  WriteFile(dir + "/pts.json", R"({"sparkles": [{"x": 36, "y": 60, "scale": 2}, {"x": 84, "y": 24}]})");

  // Only the placed glints (the detected ones at amount 0): light at each
  // point, nothing far from them.
  const Image out = RunCliImage("sparkle " + in + " --amount 0 --manual " + dir + "/pts.json --manual-shape cross",
                                dir + "/placed.png");
  ASSERT_EQ(out.width, 120);
  EXPECT_GT(out.at(36, 60)[1], 100);  // the photo is 20; each glint has its own fixed brightness
  EXPECT_GT(out.at(84, 24)[1], 100);
  EXPECT_EQ(out.at(110, 90)[1], photo.at(110, 90)[1]);

  // The detected points, in the form bokeh writes.
  const CliResult r = RunCli("sparkle " + in + " --points-json " + dir + "/points.json");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const nlohmann::json doc = nlohmann::json::parse(ReadAll(dir + "/points.json"));
  EXPECT_EQ(doc["width"], 640);
  EXPECT_EQ(doc["height"], 512);
  ASSERT_GE(doc["points"].size(), 20u);  // 5 x 4 dots
  for (const char* key : {"x", "y", "phase", "random", "color"}) EXPECT_TRUE(doc["points"][0].contains(key)) << key;
}

TEST(CliSparkle, BadInputsFailWithAReason) {
  const std::string dir = Scratch();
  const std::string in = WriteImage(dir, "photo.png", DotsPhoto(40, 30));
  const std::string out = " -o " + dir + "/o.png";
  CliResult r;
  WriteFile(dir + "/bad.json", R"({"sparkles": [{"x": 3, "y": "a"}]})");
  r = RunCli("sparkle " + in + " --manual " + dir + "/bad.json" + out);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.output.find("sparkles[0]"), std::string::npos) << r.output;
  WriteFile(dir + "/big.json", R"({"sparkles": [{"x": 3, "y": 4, "scale": 7}]})");
  EXPECT_EQ(RunCli("sparkle " + in + " --manual " + dir + "/big.json" + out).exit_code, 1);
  // Positions far outside the photo are refused by name before they become
  // the library's floats.
  for (const std::string x : {"1e10", "1e300", "-0.5", "40"}) {
    WriteFile(dir + "/far.json", R"({"sparkles": [{"x": 3, "y": 4}, {"x": )" + x + R"(, "y": 4}]})");
    r = RunCli("sparkle " + in + " --manual " + dir + "/far.json" + out);
    EXPECT_EQ(r.exit_code, 1) << x;
    EXPECT_EQ(r.output.rfind("korvane: manual " + dir + "/far.json: sparkles[1] at ", 0), 0u) << r.output;
    EXPECT_NE(r.output.find("lies outside the 40x30 photo\n"), std::string::npos) << r.output;
  }
  WriteFile(dir + "/ok.json", R"({"sparkles": [{"x": 3, "y": 4}]})");
  r = RunCli("sparkle " + in + " --manual " + dir + "/ok.json --manual-shape " + in + out);  // 40 x 30 shape
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.output.find("200x200"), std::string::npos) << r.output;
  EXPECT_FALSE(std::filesystem::exists(dir + "/o.png"));
}

}  // namespace
