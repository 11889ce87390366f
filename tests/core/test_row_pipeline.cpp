// The row pipeline: steps run chunk by chunk in order, equal to the steps run
// one after another over the whole region, scratch rows per band, and a
// failure reported under the step that failed.
#include <gtest/gtest.h>

#include <vector>

#include "TestSupport.h"
#include "core/RowPipeline.h"

using namespace Korvane;
using KorvaneTest::Runner;

namespace {

// Row y of `img` (w values a row) becomes f(row y of the previous image).
struct RowMap {
  const std::vector<int32_t>* in;
  std::vector<int32_t>* out;
  int32_t width;
  int32_t add;
  int32_t mul;
};

int32_t MapRows(ThreadJob* job, int32_t* result) {
  const auto& p = *static_cast<const RowMap*>(job->param);
  for (int32_t y = job->rect.top; y < job->rect.bottom; ++y)
    for (int32_t x = 0; x < p.width; ++x) (*p.out)[y * p.width + x] = (*p.in)[y * p.width + x] * p.mul + p.add;
  return *result = S_OK;
}

// Passes a row through the band's scratch: writes it there, then reads it back.
struct ScratchPair {
  const std::vector<int32_t>* in;
  std::vector<int32_t>* out;
  int32_t width;
};
int32_t ToScratch(ThreadJob* job, int32_t* result) {
  const auto& p = *static_cast<const ScratchPair*>(job->param);
  const auto& c = *static_cast<const RowChunk*>(job->ctx);
  for (int32_t y = job->rect.top; y < job->rect.bottom; ++y) {
    auto* s = reinterpret_cast<int32_t*>(c.ScratchRow(y, job->rect.top));
    for (int32_t x = 0; x < p.width; ++x) s[x] = (*p.in)[y * p.width + x] + 1000;
  }
  return *result = S_OK;
}
int32_t FromScratch(ThreadJob* job, int32_t* result) {
  const auto& p = *static_cast<const ScratchPair*>(job->param);
  const auto& c = *static_cast<const RowChunk*>(job->ctx);
  for (int32_t y = job->rect.top; y < job->rect.bottom; ++y) {
    const auto* s = reinterpret_cast<const int32_t*>(c.ScratchRow(y, job->rect.top));
    for (int32_t x = 0; x < p.width; ++x) (*p.out)[y * p.width + x] = s[x] * 2;
  }
  return *result = S_OK;
}

int32_t StepOk(ThreadJob*, int32_t* result) { return *result = S_OK; }
int32_t StepFailsBelowRow8(ThreadJob* job, int32_t* result) {
  return *result = job->rect.bottom > 8 ? E_POINTER : S_OK;
}

}  // namespace

TEST(RowPipeline, ChunkedStepsEqualWholePassesForAnyChunkAndWorkerCount) {
  const int32_t w = 7, h = 37;
  std::vector<int32_t> src(w * h);
  for (int32_t i = 0; i < w * h; ++i) src[i] = i * 13 % 101;
  // Reference: each step over every row, in turn.
  std::vector<int32_t> want_a(w * h), want_b(w * h);
  for (int32_t i = 0; i < w * h; ++i) want_a[i] = src[i] * 3 + 1, want_b[i] = want_a[i] * 2 - 5;
  for (int workers : {1, 2, 8}) {
    for (int32_t chunk : {1, 4, 16, 100}) {
      Runner run(workers);
      std::vector<int32_t> a(w * h, -1), b(w * h, -1);
      RowMap first{&src, &a, w, 1, 3}, second{&a, &b, w, -5, 2};
      RowPipeline chain(chunk);
      chain.Then("first", MapRows, &first).Then("second", MapRows, &second);
      ASSERT_EQ(chain.Run(run.adapter, Rect{0, 0, w, h}), S_OK);
      EXPECT_EQ(b, want_b) << workers << " workers, chunk " << chunk;
      EXPECT_EQ(chain.FailedStep(), -1);
    }
  }
}

TEST(RowPipeline, ScratchRowsCarryAChunkFromOneStepToTheNext) {
  const int32_t w = 5, h = 29;
  std::vector<int32_t> src(w * h), out(w * h, 0);
  for (int32_t i = 0; i < w * h; ++i) src[i] = i;
  Runner run(2);
  ScratchPair p{&src, &out, w};
  RowPipeline chain(6);
  chain.SetScratch(w * sizeof(int32_t)).Then("to", ToScratch, &p).Then("from", FromScratch, &p);
  ASSERT_EQ(chain.Run(run.adapter, Rect{0, 0, w, h}), S_OK);
  for (int32_t i = 0; i < w * h; ++i) ASSERT_EQ(out[i], (i + 1000) * 2) << i;
}

// A fused chain must report the step that failed, not the first one, and
// refuse a chain it cannot run.
TEST(RowPipeline, ReportsTheFailingStepAndRefusesBadChains) {
  Runner run(2);
  int dummy = 0;
  RowPipeline chain(4);
  chain.Then("copy src", StepOk, &dummy).Then("detect hlr", StepFailsBelowRow8, &dummy);
  EXPECT_EQ(chain.Run(run.adapter, Rect{0, 0, 5, 16}), E_POINTER);
  EXPECT_EQ(chain.FailedStep(), 1);
  EXPECT_STREQ(chain.StepName(chain.FailedStep()), "detect hlr");

  RowPipeline empty;
  EXPECT_EQ(empty.Run(run.adapter, Rect{0, 0, 5, 16}), E_INVALIDARG);
  RowPipeline missing;
  missing.Then("none", nullptr, &dummy);
  EXPECT_EQ(missing.Run(run.adapter, Rect{0, 0, 5, 16}), E_INVALIDARG);
  RowPipeline zero_rows(0);
  zero_rows.Then("ok", StepOk, &dummy);
  EXPECT_EQ(zero_rows.Run(run.adapter, Rect{0, 0, 5, 16}), E_INVALIDARG);
  RowPipeline many;
  for (int i = 0; i <= RowPipeline::kMaxSteps; ++i) many.Then("ok", StepOk, &dummy);
  EXPECT_EQ(many.Run(run.adapter, Rect{0, 0, 5, 16}), E_INVALIDARG);
}
