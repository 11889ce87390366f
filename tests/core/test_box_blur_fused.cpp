// Several horizontal passes run band by band as one task (RunBoxBlur with
// passes > 1, every form): the same bytes as the plain passes run over
// the whole image one after another, for every format and awkward geometry.
#include <cmath>
#include <cstring>

#include "TestSupport.h"
#include "TestSupport.h"
#include "core/BoxBlur.h"

using namespace Korvane;
using namespace KorvaneTest;

namespace {

// Floats of any magnitude and rounding, so the running sums round and any
// change of order or of the intermediate rounding shows.
std::vector<uint8_t> RandomPixels(int w, int h, int fmt, uint32_t seed) {
  std::vector<uint8_t> px(size_t(w) * h * BytesPerPixel(fmt));
  std::mt19937 rng(seed);
  if (fmt != PIXEL_FLOAT32 && fmt != PIXEL_FLOAT96) {
    FillNoise(px.data(), px.size(), seed);
    return px;
  }
  for (size_t i = 0; i < px.size(); i += 4) {
    const float v = std::ldexp(static_cast<float>(rng() % 100000), -static_cast<int>(rng() % 20));
    std::memcpy(&px[i], &v, 4);
  }
  return px;
}

// RunBoxBlur in the form `info` picks, or (info null) the reference: the
// plain single passes run over the whole image one after another.
std::vector<uint8_t> Blur(std::vector<uint8_t> px, int w, int h, int fmt, int r, int passes, const SystemInfo* info,
                          int workers) {
  Runner run(workers);
  BoxBlurParam p{MakeImageBuffer(px.data(), w, h, fmt), r, nullptr};
  const Rect whole{0, 0, w, h};
  if (info) {
    EXPECT_EQ(RunBoxBlur(run.adapter, *info, p, whole, passes), S_OK);
    return px;
  }
  for (int i = 0; i < passes; ++i) EXPECT_EQ(run.adapter.RunTaskByMultiThread(BoxBlurH, &p, nullptr, whole), S_OK);
  for (int i = 0; i < passes; ++i) EXPECT_EQ(run.adapter.RunTaskByMultiThread(BoxBlurV, &p, nullptr, whole, false), S_OK);
  return px;
}

}  // namespace

TEST(BoxBlurRepeated, BandByBandPassesMatchWholeImagePassesBitForBit) {
  struct Size { int w, h; };
  // Heights not a multiple of 8 or 4 leave rows to the SSE4.1 and plain
  // tails; radius 9 is wider than the narrow images.
  for (const Size& s : {Size{1, 1}, Size{3, 7}, Size{13, 9}, Size{37, 6}, Size{64, 11}, Size{29, 20}})
    for (int fmt : {PIXEL_FLOAT96, PIXEL_FLOAT32, PIXEL_BGRA32, PIXEL_GRAY8})
      for (int r : {1, 2, 9})
        for (int passes : {2, 3}) {
          const std::vector<uint8_t> src = RandomPixels(s.w, s.h, fmt, 7 * s.w + s.h + r);
          const std::vector<uint8_t> want = Blur(src, s.w, s.h, fmt, r, passes, nullptr, 2);
          for (const Form& form : Forms()) {
            ASSERT_EQ(Blur(src, s.w, s.h, fmt, r, passes, &form.info, 3), want)
                << s.w << "x" << s.h << " format " << fmt << " r " << r << " passes " << passes << " " << form.name;
          }
        }
}

TEST(BoxBlurRepeated, MissingParameterIsRefused) {
  ThreadJob job;
  job.rect = Rect{0, 0, 4, 4};
  BoxBlurRepeatParam empty;
  for (const Form& form : Forms()) {
    const ThreadTask task = KORVANE_PICK_AVX2(form.info, BoxBlurHRepeat, BoxBlurHRepeat_SSE, BoxBlurHRepeat_AVX2).fn;
    int32_t result = 1;
    job.param = &empty;
    EXPECT_EQ(task(&job, &result), E_POINTER);
    EXPECT_EQ(result, E_POINTER);
  }
}
