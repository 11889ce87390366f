// The front-end core on its own, as the Python module and the GIMP plug-in
// link it (no CLI11, no libvips): every command rendered from images in
// memory gives the bytes the tool writes, a session re-rendered with other
// values gives what a fresh one gives, and values are refused with the
// tool's words. PNG files are read and written here with zlib alone.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "frontend/Session.h"

using namespace KorvaneFrontend;

namespace {

std::string Be32(uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}

uint32_t ReadBe32(const std::string& s, size_t at) {
  return uint32_t(uint8_t(s[at])) << 24 | uint32_t(uint8_t(s[at + 1])) << 16 | uint32_t(uint8_t(s[at + 2])) << 8 |
         uint8_t(s[at + 3]);
}

// An 8-bit PNG of a BGRA or gray image, rows unfiltered.
void WritePng(const std::string& path, const Image& img) {
  const int bands = img.channels == 4 ? 4 : 1;
  std::string raw;
  for (int y = 0; y < img.height; ++y) {
    raw += '\0';
    for (int x = 0; x < img.width; ++x) {
      const uint8_t* p = img.at(x, y);
      if (bands == 1) raw += static_cast<char>(p[0]);
      else raw += {static_cast<char>(p[2]), static_cast<char>(p[1]), static_cast<char>(p[0]), static_cast<char>(p[3])};
    }
  }
  std::string packed(compressBound(raw.size()), '\0');
  uLongf size = packed.size();
  compress2(reinterpret_cast<Bytef*>(&packed[0]), &size, reinterpret_cast<const Bytef*>(raw.data()), raw.size(), 1);
  packed.resize(size);
  auto chunk = [](const std::string& type_and_data) {
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(type_and_data.data()), type_and_data.size());
    return Be32(static_cast<uint32_t>(type_and_data.size() - 4)) + type_and_data + Be32(static_cast<uint32_t>(crc));
  };
  const std::string header = Be32(img.width) + Be32(img.height) + std::string(1, 8) +
                             std::string(1, bands == 4 ? 6 : 0) + std::string(3, '\0');
  std::ofstream(path, std::ios::binary) << std::string("\x89PNG\r\n\x1a\n", 8) << chunk("IHDR" + header)
                                        << chunk("IDAT" + packed) << chunk("IEND");
}

// An 8-bit gray, RGB or RGBA PNG (not interlaced) as BGRA.
Image ReadPng(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  const std::string s((std::istreambuf_iterator<char>(f)), {});
  if (s.size() < 33) return Image();
  const uint32_t w = ReadBe32(s, 16), h = ReadBe32(s, 20);
  const int bands = s[25] == 6 ? 4 : s[25] == 2 ? 3 : 1;
  std::string idat;
  for (size_t at = 8; at + 8 <= s.size(); at += 12 + ReadBe32(s, at)) {
    if (s.compare(at + 4, 4, "IDAT") == 0) idat += s.substr(at + 8, ReadBe32(s, at));
  }
  const size_t row = w * bands;
  std::vector<uint8_t> raw(h * (row + 1));
  uLongf size = raw.size();
  if (uncompress(raw.data(), &size, reinterpret_cast<const Bytef*>(idat.data()), idat.size()) != Z_OK) return Image();
  Image img(w, h, 4, 255);
  std::vector<uint8_t> prev(row, 0), cur(row);
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t filter = raw[y * (row + 1)];
    for (size_t i = 0; i < row; ++i) {
      const int a = i >= size_t(bands) ? cur[i - bands] : 0, b = prev[i], c = i >= size_t(bands) ? prev[i - bands] : 0;
      const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
      const int pred = filter == 1 ? a : filter == 2 ? b : filter == 3 ? (a + b) / 2
                       : filter == 4 ? (pa <= pb && pa <= pc ? a : pb <= pc ? b : c) : 0;
      cur[i] = static_cast<uint8_t>(raw[y * (row + 1) + 1 + i] + pred);
    }
    for (uint32_t x = 0; x < w; ++x) {
      uint8_t* q = img.at(x, y);
      const uint8_t* p = &cur[x * bands];
      q[0] = p[bands >= 3 ? 2 : 0], q[1] = p[bands >= 3 ? 1 : 0], q[2] = p[0];
      if (bands == 4) q[3] = p[3];
    }
    prev = cur;
  }
  return img;
}

// The photo of every test: texture with bright dots, opaque.
Image Photo() {
  Image img(72, 48, 4, 255);
  for (int y = 0; y < 48; ++y)
    for (int x = 0; x < 72; ++x) {
      uint8_t* p = img.at(x, y);
      const bool dot = x % 11 == 5 && y % 9 == 4;
      p[0] = static_cast<uint8_t>(dot ? 250 : 40 + (x * 5 + y * 3) % 60);
      p[1] = static_cast<uint8_t>(dot ? 245 : 30 + (x * 2 + y * 7) % 50);
      p[2] = static_cast<uint8_t>(dot ? 255 : 50 + (x + y) % 40);
    }
  return img;
}

Image Mask() {
  Image m(72, 48, 1, 0);
  for (int y = 10; y < 38; ++y)
    for (int x = 20; x < 50; ++x) *m.at(x, y) = static_cast<uint8_t>(120 + x);
  return m;
}

const char kFlows[] = R"({"flows": [{"type": "path", "points": [[4, 6], [30, 8], [60, 10]]},
                                   {"type": "anchor", "points": [[36, 40]]}]})";
const char kSparkles[] = R"({"sparkles": [{"x": 20, "y": 12, "scale": 2}, {"x": 50.5, "y": 30}]})";

struct Case {
  std::string command;
  std::vector<std::pair<std::string, std::string>> settings;  // as on the command line
  int frame = 0, frames = 1;
};

// A session of `c` on `photo` with the scene's inputs.
Status Open(Engine& engine, const OptionValues& values, const ImageView& photo, const Image& mask,
            std::unique_ptr<Session>& session) {
  Inputs in;
  std::string error;
  for (const char* name : {"guide", "mask", "still"}) {
    if (values.cmd().Find(name)) in.images[name] = mask.View();
  }
  if (values.cmd().name == "animate") {
    EXPECT_TRUE(ParseFlowsJson(kFlows, "flows", in.flows, error)) << error;
  }
  if (values.cmd().name == "sparkle") {
    EXPECT_TRUE(ParsePlacedSparklesJson(kSparkles, "s", in.sparkles, error)) << error;
  }
  return OpenSession(engine, values, photo, in, session);
}

Image Render(Session& s, const OptionValues& v, int frame, int frames) {
  Image out(s.width(), s.height(), 4);
  const Status st = s.Render(v, frame, frames, out.View());
  EXPECT_TRUE(st.ok()) << st.message;
  return out;
}

}  // namespace

TEST(Frontend, EveryCommandRendersTheBytesTheToolWrites) {
  const std::string dir = std::string(KORVANE_TEST_SCRATCH) + "/frontend";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  const Image photo = Photo(), mask = Mask();
  WritePng(dir + "/photo.png", photo);
  WritePng(dir + "/mask.png", mask);
  std::ofstream(dir + "/flows.json") << kFlows;
  std::ofstream(dir + "/sparkles.json") << kSparkles;
  // The photo again with padded rows: views need not be packed.
  std::vector<uint8_t> padded(48 * (72 * 4 + 20), 7);
  for (int y = 0; y < 48; ++y) std::copy_n(photo.at(0, y), 72 * 4, &padded[y * (72 * 4 + 20)]);
  const ImageView padded_view{padded.data(), 72, 48, 72 * 4 + 20, 4};
  const Case cases[] = {
      {"focus-blur", {{"level", "80"}, {"focus", "200"}}},
      {"glitch", {{"type", "6"}, {"radius", "60"}}},
      {"glow", {{"blend", "addition"}, {"roi", "5,4,60,40"}}},
      {"light-rays", {{"threshold", "180"}, {"sway", "1"}}, 2, 5},
      {"bokeh", {{"amount", "1"}, {"shape", "star"}, {"twinkle", "1"}}, 3, 6},
      {"sparkle", {{"size", "3"}, {"manual-shape", "cross"}, {"spin", "1"}}, 1, 4},
      {"sparkle", {{"color", "photo"}}},
      {"animate", {{"loop-mode", "1"}}, 2, 5},
      {"disperse", {{"density", "0.8"}, {"loop", "1"}}, 3, 6},
  };
  Engine engine;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    OptionValues values(*FindCommand(c.command));
    std::string args = c.command + " " + dir + "/photo.png -q -o " + dir + "/out.png";
    for (const auto& [name, text] : c.settings) {
      ASSERT_EQ(values.Set(name, text), "");
      args += values.cmd().Find(name)->kind == OptionKind::kFlag ? " --" + name : " --" + name + " " + text;
    }
    if (c.frames > 1) args += " --frames " + std::to_string(c.frames) + " --frame " + std::to_string(c.frame);
    for (const char* name : {"guide", "mask", "still"}) {
      if (values.cmd().Find(name)) args += std::string(" --") + name + " " + dir + "/mask.png";
    }
    if (c.command == "animate") args += " --flows " + dir + "/flows.json";
    if (c.command == "sparkle") args += " --manual " + dir + "/sparkles.json";
    ASSERT_EQ(std::system(("\"" + std::string(KORVANE_CLI) + "\" " + args).c_str()), 0) << args;
    const Image tool = ReadPng(dir + "/out.png");
    std::unique_ptr<Session> session;
    const Status opened = Open(engine, values, padded_view, mask, session);
    ASSERT_TRUE(opened.ok()) << opened.message;
    const Image mine = Render(*session, values, c.frame, c.frames);
    ASSERT_EQ(mine.width, tool.width);
    EXPECT_EQ(mine.pixels, tool.pixels);
  }
}

TEST(Frontend, ASessionRenderedWithNewValuesMatchesAFreshOne) {
  const Image photo = Photo(), mask = Mask();
  // A first setting, then the value a preview slider moves to.
  const struct {
    const char* command;
    const char* name;
    const char* first;
    const char* then;
  } cases[] = {
      {"bokeh", "amount", "0.3", "1"},     {"bokeh", "shape", "circle", "heart"},
      {"sparkle", "shape", "star4", "cross"}, {"sparkle", "manual-shape", "star6", "star8"},
      {"glow", "blend", "screen", "overlay"}, {"light-rays", "threshold", "240", "150"},
      {"disperse", "density", "0.2", "0.9"}, {"animate", "loop-mode", "2", "0"},
      {"focus-blur", "level", "10", "90"},
  };
  Engine engine;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.command) + " --" + c.name);
    OptionValues values(*FindCommand(c.command));
    ASSERT_EQ(values.Set(c.name, c.first), "");
    std::unique_ptr<Session> slider, fresh;
    ASSERT_TRUE(Open(engine, values, photo.View(), mask, slider).ok());
    Render(*slider, values, 1, 3);
    ASSERT_EQ(values.Set(c.name, c.then), "");
    ASSERT_TRUE(Open(engine, values, photo.View(), mask, fresh).ok());
    EXPECT_EQ(Render(*slider, values, 1, 3).pixels, Render(*fresh, values, 1, 3).pixels);
  }
}

TEST(Frontend, ValuesAreRefusedWithTheToolsWords) {
  OptionValues glow(*FindCommand("glow"));
  EXPECT_EQ(glow.SetNumber("radius", -3), "--radius: -3 is outside 0..8192 pixels");
  EXPECT_EQ(glow.SetNumber("threshold", 2.5), "--threshold: '2.5' is not a whole number");
  EXPECT_EQ(glow.SetNumbers("roi", {1.5, 0, 10, 10}), "--roi: L '1.5' is not a whole number");
  EXPECT_EQ(glow.SetNumbers("roi", {0, 0, 1e20, 10}), "--roi: R 1e+20 is outside 0..1000000 pixels");
  EXPECT_EQ(glow.Set("blend", "sparkly").rfind("--blend: unknown blend mode 'sparkly'; choose one of: 0 normal", 0), 0u);
  // Choices by name or number agree; a refused value leaves the last good one.
  ASSERT_EQ(glow.Set("blend", "Colour_Dodge"), "");
  EXPECT_EQ(glow.ChoiceIndex("blend"), 18);
  EXPECT_NE(glow.SetNumber("blend", 29), "");
  EXPECT_EQ(glow.Text("blend"), "color-dodge");
  EXPECT_FALSE(glow.Has("radius"));  // automatic until given
  ASSERT_EQ(glow.SetNumber("radius", 4), "");
  EXPECT_TRUE(glow.Has("radius") && glow.Given("radius"));
  OptionValues rays(*FindCommand("light-rays"));
  ASSERT_EQ(rays.SetFlag("sway", true), "");
  EXPECT_EQ(CheckCombination(rays, 1).message, "--sway needs --frames 2 or more");
}

TEST(Frontend, FramesComeFromTheTableWhereThePictureMoves) {
  const struct {
    const char* command;
    std::vector<std::pair<std::string, std::string>> settings;
    int32_t frames;
  } cases[] = {
      {"bokeh", {}, 1},                       {"bokeh", {{"twinkle", "1"}}, 48},
      {"sparkle", {{"spin", "1"}}, 48},       {"light-rays", {{"cycle-hue", "1"}}, 48},
      {"light-rays", {{"frames", "5"}}, 5},   {"light-rays", {{"frame", "3"}}, 48},
      {"animate", {}, 48},                    {"disperse", {}, 48},
      {"disperse", {{"frames", "12"}}, 12},   {"glow", {}, 1},
  };
  for (const auto& c : cases) {
    OptionValues v(*FindCommand(c.command));
    for (const auto& [name, text] : c.settings) ASSERT_EQ(v.Set(name, text), "");
    EXPECT_EQ(FrameCount(v), c.frames) << c.command << " " << c.settings.size();
  }
}
