// What every command that renders photos shares, checked for each of them:
// pipes, batches and frame folders, outputs checked before anything is
// written, no output replacing an input (frame folders included), and one
// message per kind of failure.
#include <gtest/gtest.h>

#include <filesystem>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;
namespace fs = std::filesystem;

namespace {

struct Command {
  std::string name;
  std::string inputs;  // what it needs beside the photo
  bool animated;
};

// Every command, with a mask or flows where it needs them; `still` adds what
// makes an animated command write one still frame.
std::vector<Command> EveryCommand(const Scene& s) {
  return {{"animate", "--flows " + s.flows + " --still " + s.mask, true},
          {"bokeh", "", true},
          {"disperse", "--mask " + s.mask, true},
          {"focus-blur", "", false},
          {"glitch", "", false},
          {"glow", "", false},
          {"light-rays", "", true},
          {"sparkle", "", true}};
}

std::string Still(const Command& c) {
  return c.inputs + (c.name == "animate" || c.name == "disperse" ? " --frames 2 --frame 1" : "");
}

}  // namespace

TEST(CliOutputs, EveryCommandWritesStandardOutputBatchesAndFrameFolders) {
  const Scene s;
  WriteImage(s.dir, "second.png", ReadImage(s.photo));
  for (const Command& c : EveryCommand(s)) {
    SCOPED_TRACE(c.name);
    const std::string base = c.name + " " + s.photo + " " + Still(c);
    ASSERT_EQ(RunCli(base + " -q -o - > " + s.dir + "/out.png").exit_code, 0);
    EXPECT_EQ(ReadAll(s.dir + "/out.png").substr(0, 4), "\x89PNG");
    EXPECT_FALSE(fs::exists("-"));
    const CliResult batch = RunCli(c.name + " " + s.photo + " " + s.dir + "/second.png " + Still(c) + " -o " + s.dir +
                                   "/" + c.name + "/{name}.jpg");
    ASSERT_EQ(batch.exit_code, 0) << batch.output;
    EXPECT_EQ(ReadImage(s.dir + "/" + c.name + "/second.jpg").width, 48);
    if (!c.animated) continue;
    // A loop into a folder: one PNG per frame, and no more.
    const std::string folder = s.dir + "/loop-" + c.name;
    const CliResult frames = RunCli(c.name + " " + s.photo + " " + c.inputs + " --frames 3 -o " + folder);
    ASSERT_EQ(frames.exit_code, 0) << frames.output;
    EXPECT_NE(frames.output.find("PNG sequence, 3 frames"), std::string::npos) << frames.output;
    EXPECT_EQ(frames.output.find("rendering ["), std::string::npos) << "progress bar without a terminal";
    EXPECT_EQ(ReadImage(folder + "/frame_0002.png").width, 48);
    EXPECT_FALSE(fs::exists(folder + "/frame_0003.png"));
    // A loop to standard output as a WebP (frames that do not change are
    // stored once).
    const std::string loop = s.dir + "/loop.webp";
    ASSERT_EQ(RunCli(c.name + " " + s.photo + " " + c.inputs + " --frames 2 -q -o - --format webp > " + loop).exit_code,
              0);
    EXPECT_EQ(ReadAll(loop).substr(8, 4), "WEBP");
    EXPECT_EQ(ReadImage(loop).width, 48);
  }
}

TEST(CliOutputs, NoOutputReplacesAnInputFrameFoldersIncluded) {
  const Scene s;
  for (const Command& c : EveryCommand(s)) {
    if (!c.animated) continue;
    SCOPED_TRACE(c.name);
    // The photo and the mask are frames of the folder the loop would clean.
    const std::string f = s.dir + "/" + c.name;
    fs::create_directories(f);
    fs::copy_file(s.photo, f + "/frame_0000.png");
    fs::copy_file(s.mask, f + "/frame_0001.png");
    const std::string inputs = c.name == "disperse" ? "--mask " + f + "/frame_0001.png" : c.inputs;
    ExpectFailure(c.name + " " + f + "/frame_0000.png " + inputs + " --frames 3 -o " + f, "is a frame file in the output folder", "", 1);
    EXPECT_EQ(ReadAll(f + "/frame_0000.png"), ReadAll(s.photo));
    EXPECT_EQ(ReadAll(f + "/frame_0001.png"), ReadAll(s.mask));
  }
  // A still output that is the mask.
  ExpectFailure("glow " + s.photo + " --mask " + s.mask + " -o " + s.mask, "is the input file", "", 1);
}

TEST(CliOutputs, EveryOutputIsCheckedBeforeAnyIsWritten) {
  const Scene s;
  const std::string bokeh = "bokeh " + s.photo + " ", out = s.dir + "/out.png", ov = s.dir + "/ov.png";
  ExpectFailure(bokeh + "--points-overlay " + ov + " -o " + s.dir + "/bad.bmp", "unsupported type '.bmp'", "", 2);
  ExpectFailure(bokeh + "--points-overlay " + out + " -o " + out, "-o and --points-overlay both write", "", 2);
  ExpectFailure("sparkle " + s.photo + " --points-json " + out + " -o " + out, "both write", "", 2);
  ExpectFailure(bokeh + "--points-overlay " + s.photo + " -o " + out, "is the input file", "", 1);
  EXPECT_FALSE(fs::exists(ov));
  EXPECT_FALSE(fs::exists(out));
  // All asked for, all written.
  const CliResult r = RunCli(bokeh + "--points-overlay " + ov + " --points-json " + s.dir + "/p.json -o " + out);
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_TRUE(fs::exists(ov) && fs::exists(out) && fs::exists(s.dir + "/p.json"));
}

// Every command also refuses to run with nothing to write, to write an
// unknown format, or to write over its photo (named by another path).
TEST(CliOutputs, EachKindOfFailureReadsTheSameInEveryCommand) {
  const Scene s;
  const bool full = fs::exists("/dev/full");
  if (full) fs::create_symlink("/dev/full", s.dir + "/full.png");
  for (const Command& c : EveryCommand(s)) {
    SCOPED_TRACE(c.name);
    const std::string still = Still(c);
    // Standard input named twice: the photo and an input beside it.
    std::string twice = c.name + " - -";
    if (c.name == "animate") twice = "animate - --flows -";
    if (c.name == "disperse" || c.name == "glow" || c.name == "light-rays") twice = c.name + " - --mask -";
    if (c.name == "bokeh" || c.name == "focus-blur") twice = c.name + " - --guide -";
    if (c.name == "sparkle") twice = "sparkle - --manual -";
    ExpectFailure(twice + " -o " + s.dir + "/x.png < " + s.photo, "standard input ('-') can be read once", "", 2);
    const std::string run = c.name + " " + s.photo + " " + still;
    ExpectFailure(run, " -o", "", 2);  // nothing to write
    ExpectFailure(run + " -o " + s.dir + "/x.mp4", "x.mp4: unsupported type '.mp4' (use ", s.dir + "/x.mp4", 2);
    ExpectFailure(run + " -o " + s.dir + "/./photo.png", "is the input file", "", 1);
    if (full) {
      ExpectFailure(c.name + " " + s.photo + " " + still + " -o " + s.dir + "/full.png", "full.png: cannot write (No space left on device)", "", 1);
    }
    const std::string deep = s.dir + "/new/" + c.name + "/deep/x.png";
    EXPECT_EQ(RunCli(c.name + " " + s.photo + " " + still + " -q -o " + deep).exit_code, 0);
    EXPECT_TRUE(fs::exists(deep));
  }
}

TEST(CliOutputs, LoopsPlayOnceUnlessTheyLoopAndOneFrameIsAStill) {
  const Scene s;
  const std::string disperse = "disperse " + s.photo + " --mask " + s.mask + " --frames 3 -q -o " + s.dir;
  for (const char* ext : {".gif", ".webp"}) {
    ASSERT_EQ(RunCli(disperse + "/once" + ext).exit_code, 0);
    ASSERT_EQ(RunCli(disperse + "/loop" + ext + " --loop").exit_code, 0);
  }
  // GIF: only a loop carries the loop block; WebP: loop count 1 plays once, 0 forever.
  EXPECT_EQ(ReadAll(s.dir + "/once.gif").find("NETSCAPE2.0"), std::string::npos);
  EXPECT_NE(ReadAll(s.dir + "/loop.gif").find("NETSCAPE2.0"), std::string::npos);
  auto loop_count = [](const std::string& webp) { return webp.at(webp.find("ANIM") + 12); };
  EXPECT_EQ(loop_count(ReadAll(s.dir + "/once.webp")), 1);
  EXPECT_EQ(loop_count(ReadAll(s.dir + "/loop.webp")), 0);
  // --frame writes that frame of the clip as a still: the frame the folder holds.
  ASSERT_EQ(RunCli(disperse + "/frames").exit_code, 0);
  const Image one = RunCliImage("disperse " + s.photo + " --mask " + s.mask + " --frames 3 --frame 2 -q", s.dir + "/f2.png");
  EXPECT_EQ(one.pixels, ReadImage(s.dir + "/frames/frame_0002.png").pixels);
  ExpectFailure(disperse + "/x.png", "--frame I writes one of them as a still", "", 2);
  ExpectFailure(disperse + "/x.png --frame 3", "--frame 3 is past the last frame of --frames 3", "", 2);
}
