#include <gtest/gtest.h>

#include <filesystem>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

TEST(Cli, InfoDescribesTheMachine) {
  const CliResult r = RunCli("info");
  EXPECT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("processors:"), std::string::npos);
  EXPECT_NE(r.output.find("SIMD level:"), std::string::npos);
  EXPECT_NE(r.output.find("workers:"), std::string::npos);
}

TEST(Cli, BareHelpAndUnknownCommands) {
  // Bare, "help", "--help" and a command's --help succeed and give the exit codes.
  for (const char* args : {"", "help", "--help", "glow --help"}) {
    const CliResult r = RunCli(args);
    EXPECT_EQ(r.exit_code, 0) << args;
    EXPECT_NE(r.output.find("Exit status"), std::string::npos) << args;
  }
  const CliResult r = RunCli("no-such-command");
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.output.find("unknown command 'no-such-command'; 'korvane help'"), std::string::npos) << r.output;
}

TEST(Cli, DemoRendersTheSceneAndEachEffectIntoTheFolder) {
  const std::string dir = Scratch();
  const CliResult r = RunCli("demo --width 160 --height 120 -o " + dir + "/out");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const Image scene = ReadImage(dir + "/out/scene.png");
  EXPECT_EQ(scene.width, 160);
  EXPECT_EQ(scene.height, 120);
  EXPECT_NE(r.output.find("focus-blur.png"), std::string::npos) << r.output;
  // What the animation uses, for a newcomer to copy.
  EXPECT_EQ(ReadImage(dir + "/out/scene-still.png").width, 160);
  const std::string text = ReadAll(dir + "/out/animation-flows.json");
  EXPECT_NE(text.find("\"flows\""), std::string::npos);
  EXPECT_NE(text.find("\"anchor\""), std::string::npos);
  for (const char* name : {"focus-blur.png", "glitch-split.png", "glitch-circle.png"}) {
    const Image out = ReadImage(dir + "/out/" + name);
    EXPECT_EQ(out.width, 160) << name;
    EXPECT_NE(out.pixels, scene.pixels) << name;
  }
}

TEST(Cli, BatchNamesEachOutputAndReportsTheBadFile) {
  const std::string dir = Scratch();
  WriteImage(dir, "a.png", NoisePhoto(20, 16, 1));
  WriteImage(dir, "c.jpg", NoisePhoto(24, 16, 2));
  WriteFile(dir + "/b.png", "not a picture");
  const CliResult r = RunCli("glitch " + dir + "/a.png " + dir + "/b.png " + dir + "/c.jpg -o " + dir +
                             "/out/{name}-{ext}.png");
  EXPECT_EQ(r.exit_code, 1) << r.output;
  EXPECT_NE(r.output.find("b.png: unsupported image format"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("3 photos in"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("1 failed"), std::string::npos) << r.output;
  EXPECT_EQ(ReadImage(dir + "/out/a-png.png").width, 20);
  EXPECT_EQ(ReadImage(dir + "/out/c-jpg.png").width, 24);
  EXPECT_FALSE(std::filesystem::exists(dir + "/out/b-png.png"));
  // Several photos need {name}; --quiet prints nothing on success.
  EXPECT_EQ(RunCli("glitch " + dir + "/a.png " + dir + "/c.jpg -o " + dir + "/one.png").exit_code, 2);
  const CliResult quiet = RunCli("glitch " + dir + "/a.png " + dir + "/c.jpg -q -o " + dir + "/q/{name}.jpg");
  EXPECT_EQ(quiet.exit_code, 0);
  EXPECT_EQ(quiet.output, "");
}
