#include <gtest/gtest.h>
#include <vips/vips8>

#include <filesystem>
#include <string>

#include "ImageIO.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

// A small textured photo, a still square and a flow file that moves the
// left half to the right.
struct AnimateFixture {
  std::string dir, photo, still, flows;
  Image img;

  AnimateFixture() : dir(Scratch()) {
    img = DotsPhoto(64, 40);
    Image mask(64, 40, 1, 0);
    for (int y = 10; y < 22; ++y)
      for (int x = 44; x < 56; ++x) *mask.at(x, y) = 255;
    photo = WriteImage(dir, "photo.png", img);
    still = WriteImage(dir, "still.png", mask);
    flows = WriteFile(dir + "/flows.json",
                      R"({"flows": [
                        {"type": "path", "points": [[2, 10], [12, 10], [22, 11], [32, 10]]},
                        {"type": "stroke", "points": [[2, 30], [30, 31]]},
                        {"type": "anchor", "points": [[40, 20]]}]})");
  }
  std::string Args(const std::string& flow_file, const std::string& out) const {
    return "animate \"" + photo + "\" --flows \"" + flow_file + "\" --still \"" + still + "\" -o \"" + out + "\"";
  }
};

}  // namespace

// The flow file reaches the render: a frame of the loop moves the photo.
TEST(CliAnimate, TheFlowsMoveThePhoto) {
  AnimateFixture fx;
  const CliResult r = RunCli(fx.Args(fx.flows, fx.dir + "/frames") + " --frames 6");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(ReadImage(fx.dir + "/frames/frame_0003.png").pixels, fx.img.pixels) << "the flows should move something";
}

TEST(CliAnimate, WritesLoopingGifWithEvenFrameTimes) {
  AnimateFixture fx;
  // 24 fps cannot be shown exactly in hundredths of a second: every frame
  // takes 40 ms, none 50.
  const CliResult r = RunCli(fx.Args(fx.flows, fx.dir + "/loop.gif") + " --frames 6 --fps 24");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  StartImageLibrary();
  const vips::VImage v =
      vips::VImage::new_from_file((fx.dir + "/loop.gif").c_str(), vips::VImage::option()->set("n", -1));
  EXPECT_EQ(v.get_int("n-pages"), 6);
  EXPECT_EQ(v.get_int("page-height"), 40);
  EXPECT_EQ(v.get_array_int("delay"), std::vector<int>(6, 40));
  EXPECT_NE(ReadAll(fx.dir + "/loop.gif").find("NETSCAPE2.0"), std::string::npos) << "loops forever";
}

TEST(CliAnimate, MalformedFlowFilesNameTheProblem) {
  AnimateFixture fx;
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"{\"flows\": [", "not valid JSON"},
      {"[1, 2]", "\"flows\" array"},
      {"{\"flows\": [{\"type\": \"river\", \"points\": [[1, 2], [3, 4]]}]}", "flows[0].type is \"river\""},
      {"{\"flows\": [{\"type\": \"path\"}]}", "flows[0] needs \"points\""},
      {"{\"flows\": [{\"type\": \"anchor\", \"points\": [[1, 2]]}, {\"type\": \"path\", \"points\": [[1, 2], [3]]}]}",
       "flows[1].points[1] must be [x, y]"},
      {"{\"flows\": [{\"type\": \"path\", \"points\": [[1, 2]]}]}", "a path needs at least 2 points"},
      {"{\"flows\": [\x01\xff\xfe\x80\x1b[2J", "not valid JSON (error at byte 12)"},
      {"{\"flows\": [{\"type\": \"\xc3\xa9t\xc3\xa9\", \"points\": [[1, 2], [3, 4]]}]}", "flows[0].type is \"??t??\""},
  };
  for (const auto& c : cases) {
    const std::string file = WriteFile(fx.dir + "/bad.json", c.text);
    const CliResult r = RunCli(fx.Args(file, fx.dir + "/out.webp"));
    EXPECT_NE(r.exit_code, 0) << c.text;
    EXPECT_NE(r.output.find(c.message), std::string::npos) << c.text << "\n" << r.output;
    // Bytes of the file are never echoed to the terminal.
    for (unsigned char ch : r.output) EXPECT_TRUE(ch == '\n' || (ch >= 0x20 && ch < 0x7f)) << r.output;
    EXPECT_FALSE(std::filesystem::exists(fx.dir + "/out.webp"));
  }
}

TEST(CliAnimate, WarnsAboutFlowsThatCannotMoveAnythingAndCleansTheFrameFolder) {
  AnimateFixture fx;
  const std::string empty = WriteFile(fx.dir + "/empty.json", R"({"flows": []})");
  const std::string outside = WriteFile(fx.dir + "/outside.json", R"({"flows": [{"type": "path", "points": [[500, 500], [900, 600]]}]})");
  CliResult r = RunCli(fx.Args(empty, fx.dir + "/new/a.webp") + " --frames 2");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("warning: the flow file has no flows"), std::string::npos) << r.output;
  r = RunCli("animate " + fx.photo + " --flows " + outside + " --frames 2 -o " + fx.dir + "/b.webp");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("warning: 2 of 2 flow points lie outside the 64x40 photo"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("warning: no --still mask"), std::string::npos) << r.output;

  std::filesystem::create_directories(fx.dir + "/frames");
  WriteFile(fx.dir + "/frames/frame_0099.png", "old");
  WriteFile(fx.dir + "/frames/notes.txt", "mine");
  ASSERT_EQ(RunCli(fx.Args(fx.flows, fx.dir + "/frames") + " --frames 3 -q").exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists(fx.dir + "/frames/frame_0099.png"));
  EXPECT_TRUE(std::filesystem::exists(fx.dir + "/frames/frame_0002.png"));
  EXPECT_TRUE(std::filesystem::exists(fx.dir + "/frames/notes.txt"));
}
