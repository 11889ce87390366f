#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <tuple>

#include "FocusBlurReference.h"
#include "TestSupport.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"
#include "core/ThreadAdapter.h"

using namespace Korvane;
using namespace FocusBlurTest;

// Kernel length by size and level; every kernel sums to exactly 1, falls
// from the centre, and keeps no tap below the cut.
TEST(GaussianWeights, LengthFollowsSizeAndLevelAndTheKernelSumsToOne) {
  const int cases[][4] = {{0, 4000, 3000, 1},   {-5, 4000, 3000, 1},  {60, 4000, 3000, 37},  // sigma 36
                          {23, 3000, 4000, 37}, {22, 4000, 3000, 35},                      // 13.8, 13.2
                          {6, 4000, 3000, 10},  {1, 4000, 3000, 2},   {50, 100, 600, 3},     // 3.6, 0.6, 1.0
                          {100, 1, 1, 1},       {3, 4000, 3000, 5},   {100000, 4000, 3000, 37},
                          {2000000000, 20000, 20000, 37}};
  for (const auto& c : cases) {
    float w[kGaussianHalfTaps];
    const int n = MakeGaussianWeights(c[0], c[1], c[2], w);
    EXPECT_EQ(n, c[3]) << c[0];
    float side = 0;
    for (int i = 1; i < n; ++i) side += w[i];
    EXPECT_EQ(w[0], 1.0f - 2.0f * side) << c[0];
    EXPECT_GT(w[0], 0.0f) << c[0];
    for (int i = 1; i < n; ++i) {
      EXPECT_LE(w[i], w[i - 1] * 1.0001f) << c[0] << " " << i;
      EXPECT_GT(w[i] / w[0], 0.03125f * 0.999f) << "tap kept below the cut";
    }
    for (int i = n; i < kGaussianHalfTaps; ++i) EXPECT_EQ(w[i], 0.0f);
  }
}

TEST(BlendTable, ReachesFullBlurAtDistance139) {
  int32_t t[256];
  MakeBlendTable(200, t);
  EXPECT_EQ(t[200], 0);
  EXPECT_EQ(t[201], t[199]);
  EXPECT_EQ(t[62], 254);  // distance 138
  EXPECT_EQ(t[61], 255);  // distance 139
  EXPECT_EQ(t[0], 255);
  MakeBlendTable(0, t);
  EXPECT_EQ(t[138], 254);
  EXPECT_EQ(t[139], 255);
  EXPECT_EQ(t[255], 255);
  for (int v = 1; v < 256; ++v) EXPECT_GE(t[v], t[v - 1]);
  MakeBlendTable(-100000, t);  // far outside the guide's range: everything fully blurred
  EXPECT_EQ(t[255], 255);
}

namespace {

// Runs one blur task form over the whole image through a pool of `workers`.
std::vector<uint8_t> RunBlurTask(ThreadTask task, bool vertical, std::vector<uint8_t> img, int w, int h,
                                 const float* weights, int n, const std::vector<bool>& mask, int workers) {
  KorvaneTest::Runner run(workers);
  GaussianBlurParam p;
  p.buffer = MakeSmartBufferView(img.data(), w, h);
  p.weights.reset(new float[kGaussianHalfTaps]);
  std::copy(weights, weights + kGaussianHalfTaps, p.weights.get());
  p.kernel_length = n;
  // An all-true mask is also run as no mask at all, which must mean the same.
  if (std::find(mask.begin(), mask.end(), false) != mask.end()) {
    p.mask.reset(new bool[static_cast<size_t>(w) * h]);
    for (size_t i = 0; i < mask.size(); ++i) p.mask[i] = mask[i];
  }
  EXPECT_EQ(run.adapter.RunTaskByMultiThread(task, &p, nullptr, Rect{0, 0, w, h}, !vertical), S_OK);
  return img;
}

}  // namespace

// Every form against the literal reference, on awkward sizes (widths on
// either side of the vector blocks, and 300 columns: two column chunks of
// the vertical pass for the longest kernel), with kernels longer than the
// image, and with every worker count giving the same bytes.
TEST(GaussianBlurTasks, MatchTheReferenceBitForBit) {
  const int sizes[][2] = {{1, 1},   {1, 9},   {7, 1},   {3, 5},  {13, 11}, {37, 13},
                          {70, 45}, {130, 3}, {19, 90}, {17, 6}, {31, 20}, {47, 2}, {300, 9}};
  const int levels[] = {1, 6, 23, 60};
  const std::vector<KorvaneTest::Form> forms = KorvaneTest::Forms();
  uint32_t seed = 1;
  for (const auto& sz : sizes) {
    const int w = sz[0], h = sz[1];
    for (int level : levels) {
      float wt[kGaussianHalfTaps];
      const int n = MakeGaussianWeights(level, 4000, 3000, wt);
      const std::vector<uint8_t> img = RandomBytes(static_cast<size_t>(w) * h * 4, ++seed);
      const std::vector<uint8_t> g = RandomBytes(static_cast<size_t>(w) * h, ++seed);
      std::vector<bool> mask(g.size());
      // Mostly blurred with holes, sparse ones for level 6 so that many
      // windows are wholly masked (their weight sum is taken as known);
      // everything for the longest kernel.
      for (size_t i = 0; i < g.size(); ++i) mask[i] = level == 60 || g[i] > (level == 6 ? 2 : 60);
      for (bool vertical : {false, true}) {
        std::vector<uint8_t> ref = img;
        ReferenceBlur(ref, w, h, wt, n, mask, vertical);
        for (const KorvaneTest::Form& form : forms) {
          const ThreadTask task =
              vertical ? KORVANE_PICK_AVX2(form.info, GaussianBlurV, GaussianBlurV_SSE, GaussianBlurV_AVX2).fn
                       : KORVANE_PICK_AVX2(form.info, GaussianBlurH, GaussianBlurH_SSE, GaussianBlurH_AVX2).fn;
          for (int workers : {1, 3, 8}) {
            EXPECT_EQ(RunBlurTask(task, vertical, img, w, h, wt, n, mask, workers), ref)
                << form.name << " " << w << "x" << h << " level " << level << (vertical ? " V" : " H") << " workers "
                << workers;
          }
        }
      }
    }
  }
}

// Unusable records get their code and leave the image alone; only the
// horizontal pass reads a separate source.
TEST(GaussianBlurTasks, RefuseUnusableRecordsWithoutTouchingTheImage) {
  std::vector<uint8_t> img(6 * 4 * 4, 7), other(6 * 4 * 4, 9);
  using Breakage = std::function<void(GaussianBlurParam&, Rect&)>;
  const std::tuple<int32_t, bool, Breakage> cases[] = {
      {E_POINTER, false, [](GaussianBlurParam& p, Rect&) { p.buffer.data.reset(); }},
      {E_POINTER, false, [](GaussianBlurParam& p, Rect&) { p.weights.reset(); }},
      {E_INVALIDARG, false, [](GaussianBlurParam& p, Rect&) { p.kernel_length = 38; }},
      {E_INVALIDARG, false, [](GaussianBlurParam&, Rect& r) { r.right = 7; }},
      {E_NOTIMPL, false, [](GaussianBlurParam& p, Rect&) { p.buffer.pix_fmt = PIXEL_GRAY8; }},
      {E_INVALIDARG, true, [&](GaussianBlurParam& p, Rect&) { p.source = MakeSmartBufferView(other.data(), 5, 4); }},
      {E_NOTIMPL, true, [&](GaussianBlurParam& p, Rect&) {
         p.source = MakeSmartBufferView(other.data(), 6, 4);
         p.source.channel = 3;
       }},
  };
  std::vector<std::pair<ThreadTask, bool>> tasks;
  for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
    tasks.push_back({KORVANE_PICK_AVX2(form.info, GaussianBlurH, GaussianBlurH_SSE, GaussianBlurH_AVX2).fn, true});
    tasks.push_back({KORVANE_PICK_AVX2(form.info, GaussianBlurV, GaussianBlurV_SSE, GaussianBlurV_AVX2).fn, false});
  }
  for (const auto& task : tasks) {
    EXPECT_EQ(task.first(nullptr, nullptr), E_POINTER);
    for (size_t i = 0; i < std::size(cases); ++i) {
      const auto& [code, rows_only, apply] = cases[i];
      if (rows_only && !task.second) continue;
      GaussianBlurParam p;
      p.buffer = MakeSmartBufferView(img.data(), 6, 4);
      p.weights.reset(new float[kGaussianHalfTaps]);
      p.kernel_length = MakeGaussianWeights(1000, 6, 4, p.weights.get());
      ThreadJob job{nullptr, &p, Rect{0, 0, 6, 4}};
      apply(p, job.rect);
      int32_t result = 1;
      EXPECT_EQ(task.first(&job, &result), code) << "case " << i;
      EXPECT_EQ(result, code) << "case " << i;
      EXPECT_EQ(img, std::vector<uint8_t>(img.size(), 7)) << "case " << i;
    }
  }
}

namespace {

// The combined short-kernel task over a row-banded pool, reading `img` and
// writing a working image pre-filled with `fill`.
std::vector<uint8_t> RunBothPasses(ThreadTask task, const std::vector<uint8_t>& img, int w, int h,
                                   const GaussianBlurParam& model, int workers, uint8_t fill) {
  KorvaneTest::Runner run(workers);
  std::vector<uint8_t> out(img.size(), fill);
  std::vector<uint8_t> src = img;
  GaussianBlurParam p = model;
  p.buffer = MakeSmartBufferView(out.data(), w, h);
  p.source = MakeSmartBufferView(src.data(), w, h);
  EXPECT_EQ(run.adapter.RunTaskByMultiThread(task, &p, nullptr, Rect{0, 0, w, h}), S_OK);
  EXPECT_EQ(src, img) << "source written";
  return out;
}

}  // namespace

// Both passes at once must give the bytes of the row pass followed by the
// column pass, for every short kernel, with holes in the mask (many or few),
// on sizes where bands are a row or two and rows are shorter than the kernel.
TEST(GaussianBlurTasks, BothPassesAtOnceMatchTheTwoPasses) {
  const int sizes[][2] = {{1, 1}, {1, 7}, {9, 1}, {2, 3}, {13, 11}, {37, 5}, {70, 45}, {19, 90}, {23, 17}};
  std::vector<ThreadTask> forms;
  for (const KorvaneTest::Form& form : KorvaneTest::Forms())
    forms.push_back(KORVANE_PICK_AVX2(form.info, GaussianBlurHV, GaussianBlurHV_SSE, GaussianBlurHV_AVX2).fn);
  uint32_t seed = 100;
  for (const auto& sz : sizes) {
    const int w = sz[0], h = sz[1];
    // Level and image size giving kernel lengths 2, 3 and 1.
    const int shapes[][3] = {{1, 4000, 3000}, {50, 100, 600}, {0, 4000, 3000}};
    for (const auto& shape : shapes) {
      GaussianBlurParam model;
      model.weights.reset(new float[kGaussianHalfTaps]);
      model.kernel_length = MakeGaussianWeights(shape[0], shape[1], shape[2], model.weights.get());
      ASSERT_LE(model.kernel_length, kShortKernel);
      for (int holes : {0, 4, 128}) {  // of 256: none, few, half
        const std::vector<uint8_t> img = RandomBytes(static_cast<size_t>(w) * h * 4, ++seed);
        const std::vector<uint8_t> g = RandomBytes(static_cast<size_t>(w) * h, ++seed);
        std::vector<bool> mask(g.size());
        for (size_t i = 0; i < g.size(); ++i) mask[i] = g[i] >= holes;
        model.mask.reset();
        if (holes) {
          model.mask.reset(new bool[g.size()]);
          for (size_t i = 0; i < g.size(); ++i) model.mask[i] = mask[i];
        }
        std::vector<uint8_t> two = img;
        const float* wt = model.weights.get();
        ReferenceBlur(two, w, h, wt, model.kernel_length, mask, false);
        ReferenceBlur(two, w, h, wt, model.kernel_length, mask, true);
        // The general passes themselves, as the effect would run them.
        std::vector<uint8_t> general = RunBlurTask(GaussianBlurH, false, img, w, h, wt, model.kernel_length, mask, 2);
        general = RunBlurTask(GaussianBlurV, true, general, w, h, wt, model.kernel_length, mask, 2);
        ASSERT_EQ(general, two);
        for (size_t f = 0; f < forms.size(); ++f) {
          for (int workers : {1, 3, 8}) {
            for (uint8_t fill : {0x00, 0xA5}) {
              EXPECT_EQ(RunBothPasses(forms[f], img, w, h, model, workers, fill), two)
                  << KorvaneTest::Forms()[f].name << " " << w << "x" << h << " n " << model.kernel_length << " holes "
                  << holes << " workers " << workers;
            }
          }
        }
      }
    }
  }
}

// The combined task needs a separate source and a short kernel, and scratch
// rows of the band's width when it writes to them.
TEST(GaussianBlurTasks, BothPassesAtOnceRefuseLongKernelsAndNoSource) {
  std::vector<ThreadTask> forms;
  for (const KorvaneTest::Form& form : KorvaneTest::Forms())
    forms.push_back(KORVANE_PICK_AVX2(form.info, GaussianBlurHV, GaussianBlurHV_SSE, GaussianBlurHV_AVX2).fn);
  std::vector<uint8_t> img(6 * 4 * 4, 7), src(6 * 4 * 4, 9), rows(5 * 4 * 4);
  const auto record = [&](bool with_source, int32_t length, GaussianBlurParam& p) {
    p.buffer = MakeSmartBufferView(img.data(), 6, 4);
    if (with_source) p.source = MakeSmartBufferView(src.data(), 6, 4);
    p.weights.reset(new float[kGaussianHalfTaps]);
    MakeGaussianWeights(100, 600, 600, p.weights.get());
    p.kernel_length = length;
  };
  RowChunk narrow;
  narrow.scratch = rows.data();
  narrow.scratch_stride = 5 * 4;  // one pixel short of the band
  for (ThreadTask task : forms) {
    EXPECT_EQ(task(nullptr, nullptr), E_POINTER);
    for (bool with_source : {false, true}) {
      GaussianBlurParam p;
      record(with_source, with_source ? kShortKernel + 1 : 2, p);
      ThreadJob job{nullptr, &p, Rect{0, 0, 6, 4}};
      int32_t result = 1;
      EXPECT_EQ(task(&job, &result), E_INVALIDARG);
      EXPECT_EQ(result, E_INVALIDARG);
      EXPECT_EQ(img, std::vector<uint8_t>(img.size(), 7));
    }
    GaussianBlurParam p;
    record(true, 2, p);
    p.to_scratch = true;
    for (RowChunk* chunk : {static_cast<RowChunk*>(nullptr), &narrow}) {
      ThreadJob job{chunk, &p, Rect{0, 0, 6, 4}};
      EXPECT_EQ(task(&job, nullptr), E_INVALIDARG);
    }
  }
}
