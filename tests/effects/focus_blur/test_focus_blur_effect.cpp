#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "FocusBlurReference.h"
#include "TestSupport.h"
#include "effects/focus_blur/FocusBlurEffect.h"

using namespace Korvane;
using namespace FocusBlurTest;

namespace {

struct Scene {
  int w, h;
  std::vector<uint8_t> photo, guide, out;
  FocusBlurParam param;

  Scene(int width, int height, uint32_t seed, uint8_t out_fill = 0x5A)
      : w(width), h(height), photo(RandomBytes(static_cast<size_t>(width) * height * 4, seed)),
        guide(RandomBytes(static_cast<size_t>(width) * height, seed + 100)),
        out(static_cast<size_t>(width) * height * 4, out_fill) {
    param.input = MakeImageBuffer(photo.data(), w, h), param.output = MakeImageBuffer(out.data(), w, h);
    param.mask = MakeImageBuffer(guide.data(), w, h, PIXEL_GRAY8);
  }
};

using KorvaneTest::Form;
using KorvaneTest::Forms;

std::vector<uint8_t> Render(Scene& s, int workers, const Form& form) {
  KorvaneTest::Runner run(workers);
  FocusBlurEffect fx(&run.pool);
  fx.SetSystemInfo(form.info);
  EXPECT_EQ(fx.Init(&s.param), S_OK);
  EXPECT_EQ(fx.Process(&s.param), S_OK);
  EXPECT_EQ(fx.Uninit(), S_OK);
  return s.out;
}

std::string Logged(const std::function<void()>& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

}  // namespace

// The whole effect against the literal reference: every kernel form, several
// worker counts (bands of different cuts must not change a byte).
TEST(FocusBlurEffect, MatchesTheReferenceForEveryFormAndWorkerCount) {
  struct Case {
    int w, h, level, focus, range;
  };
  const Case cases[] = {{1, 1, 60, 100, 5}, {5, 3, 100, 128, 0}, {97, 61, 100, 200, 12},
                        {160, 120, 100, 30, 40}, {33, 200, 80, 255, 20},
                        {41, 23, 5, 0, 10}};  // weak level 0: the weak blur is a copy
  uint32_t seed = 10;
  for (const Case& c : cases) {
    Scene s(c.w, c.h, ++seed);
    s.param.blur_level = c.level, s.param.focus_value = c.focus, s.param.focus_range = c.range;
    const std::vector<uint8_t> ref = ReferenceFocusBlur(s.photo, s.guide, c.w, c.h, c.level, c.focus, c.range);
    for (int workers : {1, 2, 8}) {
      for (const Form& form : Forms()) {
        std::fill(s.out.begin(), s.out.end(), static_cast<uint8_t>(workers * 31 + form.info.simd_level));
        EXPECT_EQ(Render(s, workers, form), ref) << c.w << "x" << c.h << " workers " << workers << " " << form.name;
      }
    }
  }
}

// No blur level, a range covering the whole guide, or a guide value equal to
// the focus: the photo's bytes come through exactly.
TEST(FocusBlurEffect, UnblurredPixelsKeepThePhotoExactly) {
  for (const Form& form : Forms()) {
    Scene a(41, 23, 5), b(41, 23, 6), c(80, 60, 3);
    a.param.blur_level = a.param.focus_value = a.param.focus_range = 0;
    EXPECT_EQ(Render(a, 2, form), a.photo) << "blur_level 0";
    b.param.blur_level = 100;
    b.param.focus_range = 255;  // nothing blurred; the blend still mixes copies of the photo
    EXPECT_EQ(Render(b, 2, form), b.photo) << "focus_range 255";
    for (size_t i = 0; i < c.guide.size(); i += 3) c.guide[i] = 140;
    c.param.blur_level = 100, c.param.focus_value = 140, c.param.focus_range = 0;
    const std::vector<uint8_t> out = Render(c, 2, form);
    for (size_t i = 0; i < c.guide.size(); i += 3)
      for (int k = 0; k < 4; ++k) ASSERT_EQ(out[i * 4 + k], c.photo[i * 4 + k]) << "pixel " << i;
  }
}

TEST(FocusBlurEffect, UnusableRecordsAreLoggedAndLeaveTheOutputAlone) {
  KorvaneTest::Runner run(2);
  FocusBlurEffect fx(&run.pool);
  EXPECT_EQ(fx.Process(nullptr), E_POINTER);

  struct Breakage {
    const char* log;
    std::function<void(Scene&)> apply;
  };
  const Breakage cases[] = {
      {"input image has no pixels", [](Scene& s) { s.param.input.data = nullptr; }},
      {"guide image has no pixels", [](Scene& s) { s.param.mask.data = nullptr; }},
      {"output image has no pixels", [](Scene& s) { s.param.output.data = nullptr; }},
      {"guide image is not the size", [](Scene& s) { s.param.mask.width = 15; }},
      {"output image is not the size", [](Scene& s) { s.param.output.height = 9; }},
      {"input image is not BGRA32", [](Scene& s) { s.param.input.pix_fmt = PIXEL_BGR24; }},
      {"input image is not BGRA32", [](Scene& s) { s.param.input.channel = 3; }},
      {"output image is not BGRA32", [](Scene& s) { s.param.output.pix_fmt = PIXEL_GRAY8; }},
      {"stride is shorter", [](Scene& s) { s.param.mask.stride = 15; }},
      {"stride is shorter", [](Scene& s) { s.param.mask.channel = 2; }},
      {"size is out of range", [](Scene& s) {
         s.param.input.width = s.param.mask.width = s.param.output.width = 0;
       }},
      {"size is out of range", [](Scene& s) {  // a side over 65536, never read
         s.param.input.width = s.param.mask.width = s.param.output.width = 65537;
         s.param.input.stride = s.param.output.stride = s.param.mask.stride = 4 * 65537;
         s.param.input.height = s.param.mask.height = s.param.output.height = 1;
       }},
  };
  for (const Breakage& b : cases) {
    Scene s(16, 10, 4);
    s.param.blur_level = 100;
    b.apply(s);
    int32_t hr = -1;
    const std::string log = Logged([&] { hr = fx.Process(&s.param); });
    EXPECT_EQ(hr, S_OK);
    EXPECT_NE(log.find(b.log), std::string::npos) << log;
    EXPECT_EQ(s.out, std::vector<uint8_t>(s.out.size(), 0x5A)) << b.log;
  }
}

// A failing pass is logged with the call's text and the processing still
// answers 0. An effect without a pool fails its first pass.
TEST(FocusBlurEffect, FailingPassLogsItsCallAndReturnsZero) {
  for (const Form& form : Forms()) {
    FocusBlurEffect fx(nullptr);
    fx.SetSystemInfo(form.info);
    Scene s(8, 8, 2);
    int32_t hr = -1;
    const std::string log = Logged([&] { hr = fx.Process(&s.param); });
    EXPECT_EQ(hr, S_OK);
    const std::string kernel = form.info.avx_level    ? "GaussianBlurH_AVX2"
                               : form.info.simd_level ? "GaussianBlurH_SSE"
                                                      : "GaussianBlurH";
    const std::string call = "RunTaskByMultiThread(" + kernel + ", &blur_param, this, process_region)";
    EXPECT_NE(log.find("[Korvane] [Korvane] m_thread_adapter." + call + " Error! - Return Code: 80070057"),
              std::string::npos)
        << log;
    EXPECT_EQ(s.out, std::vector<uint8_t>(s.out.size(), 0x5A));
  }
}

// Short weak kernels (1 to 3 taps a side): blended row by row as they are
// made when the output is its own image, through the stored weak image when
// the output is the photo; the strong blur works in the output unless that
// is the photo. Input, guide and output have padded rows of their own
// strides, the guide one byte a pixel or the first byte of four-channel
// pixels. Every layout gives the reference's bytes, logs nothing, and leaves
// the padding, the bytes around the images and (when it is not the output)
// the photo alone.
TEST(FocusBlurEffect, EveryBufferLayoutGivesTheReferenceBytes) {
  struct Case {
    int w, h, level, weak_taps, guide_fmt;
  };
  const Case cases[] = {{160, 120, 100, 2, PIXEL_BGRA32}, {121, 131, 240, 3, PIXEL_BGRA32},
                        {131, 121, 240, 3, PIXEL_GRAY8}, {97, 61, 100, 1, PIXEL_GRAY8}};
  uint32_t seed = 70;
  for (const Case& c : cases) {
    float wt[kGaussianHalfTaps];
    ASSERT_EQ(MakeGaussianWeights(c.level / 6, c.w, c.h, wt), c.weak_taps);
    const std::vector<uint8_t> photo = RandomBytes(static_cast<size_t>(c.w) * c.h * 4, ++seed);
    std::vector<uint8_t> guide = RandomBytes(static_cast<size_t>(c.w) * c.h, seed + 100), guide_bytes;
    // Holes and runs in the mask: a guide of stripes with noise.
    for (size_t i = 0; i < guide.size(); ++i) guide[i] = (i / 7) % 3 == 0 ? 128 : guide[i];
    const std::vector<uint8_t> ref = ReferenceFocusBlur(photo, guide, c.w, c.h, c.level, 128, 10);
    guide_bytes.assign(guide.size() * BytesPerPixel(c.guide_fmt), 0xEE);
    for (size_t i = 0; i < guide.size(); ++i) guide_bytes[i * BytesPerPixel(c.guide_fmt)] = guide[i];
    for (bool in_place : {false, true})
      for (int workers : {1, 3, 8})
        for (const Form& form : Forms()) {
          KorvaneTest::TestImage in(c.w, c.h, PIXEL_BGRA32, 12), g(c.w, c.h, c.guide_fmt, 3);
          KorvaneTest::TestImage out(c.w, c.h, PIXEL_BGRA32, 36);
          in.Fill(photo);
          g.Fill(guide_bytes);
          FocusBlurParam p;
          p.input = in.buf, p.mask = g.buf, p.output = in_place ? in.buf : out.buf;
          p.blur_level = c.level, p.focus_value = 128, p.focus_range = 10;
          KorvaneTest::Runner run(workers);
          FocusBlurEffect fx(&run.pool);
          fx.SetSystemInfo(form.info);
          EXPECT_EQ(Logged([&] { EXPECT_EQ(fx.Process(&p), S_OK); }), "");
          EXPECT_EQ(KorvaneTest::FirstDifference((in_place ? in : out).Packed(), ref, c.w), "")
              << c.w << "x" << c.h << " in place " << in_place << " workers " << workers << " " << form.name;
          EXPECT_TRUE(in.GuardsIntact() && g.GuardsIntact() && out.GuardsIntact());
          EXPECT_TRUE(in_place || in.Packed() == photo);
        }
  }
}

// With true_scale the strong blur spreads an edge by the share of the
// shorter side the level asks for (level / 50 percent) at every size, where
// the fixed-reach kernel stops growing at about 700 pixels; the edge stays
// where it was, a subject in focus keeps the photo's bytes, and rendering
// in place changes nothing.
TEST(FocusBlurEffect, TrueScaleBlurIsTheSameShareOfAnySize) {
  for (const int32_t side : {400, 1000, 2000, 4000}) {
    SCOPED_TRACE(side);
    KorvaneTest::TestImage photo = KorvaneTest::StepEdge(side), guide(side, side, PIXEL_GRAY8), out(side, side);
    guide.FillConstant(0);  // far from the focus: the strong blur everywhere
    std::fill_n(guide.Row(0), side, 255);
    FocusBlurParam p;
    p.input = photo.buf, p.mask = guide.buf, p.output = out.buf;
    p.blur_level = 100, p.focus_value = 255, p.true_scale = 1;
    KorvaneTest::EffectRig<FocusBlurEffect> fx;
    ASSERT_EQ(fx->Process(&p), S_OK);
    const KorvaneTest::EdgeSpread edge(out.Row(side / 2), side / 2 - side / 10, side / 2 + side / 10);
    EXPECT_NEAR(edge.spread / side, 0.02, 0.002);
    EXPECT_NEAR(edge.centre, side / 2.0, 1.0);
    EXPECT_EQ(0, std::memcmp(out.Row(0), photo.Row(0), static_cast<size_t>(side) * 4));
    if (side == 1000) {  // in place: the same bytes
      p.output = photo.buf;
      ASSERT_EQ(fx->Process(&p), S_OK);
      EXPECT_EQ(photo.Packed(), out.Packed());
    }
  }
}
