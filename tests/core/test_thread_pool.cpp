#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "TestSupport.h"

using namespace Korvane;

namespace {

// A pool with its adapter, and the bands it cuts a region into.
struct Bands : KorvaneTest::Runner {
  using Runner::Runner;
  std::vector<Rect> Cut(Rect r, bool rows) {
    EXPECT_EQ(adapter.SegmentBlock(r, rows), S_OK);
    std::vector<Rect> out;
    for (int i = 0; i < adapter.GetSegmentCount(); ++i) out.push_back(adapter.GetJob(i).rect);
    return out;
  }
};

int32_t CountPixels(ThreadJob* job, int32_t* result) {
  auto* sum = static_cast<std::atomic<int64_t>*>(job->param);
  const Rect& r = job->rect;
  const int64_t w = r.right - r.left, h = r.bottom - r.top;
  if (w > 0 && h > 0) *sum += w * h;
  *result = S_OK;
  return S_OK;
}

}  // namespace

// Extent / n per band, the remainder to the last; with more workers than
// columns, empty strips and one full one, which tasks must accept; an
// inverted region gives degenerate bands ending at its edge.
TEST(SegmentBlock, BandsTakeEqualSharesAndTheLastTheRemainder) {
  Bands b4(4), b8(8), b2(2);
  const auto bands = b4.Cut(Rect{3, 10, 9, 20}, true);
  ASSERT_EQ(bands.size(), 4u);
  const int tops[] = {10, 12, 14, 16, 20};
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(bands[i].top == tops[i] && bands[i].bottom == tops[i + 1] && bands[i].left == 3 && bands[i].right == 9)
        << i;
  }
  const auto strips = b8.Cut(Rect{0, 0, 5, 3}, false);
  ASSERT_EQ(strips.size(), 8u);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(strips[i].right - strips[i].left, 0);
  EXPECT_TRUE(strips[7].left == 0 && strips[7].right == 5);
  std::atomic<int64_t> sum{0};
  EXPECT_EQ(b8.adapter.RunTaskByMultiThread(CountPixels, &sum, nullptr, Rect{0, 0, 5, 3}, false), S_OK);
  EXPECT_EQ(sum.load(), 15);
  EXPECT_EQ(b2.Cut(Rect{10, 0, 4, 2}, false)[1].right, 4);
  EXPECT_EQ(b2.adapter.RunTaskByMultiThread(CountPixels, &sum, nullptr, Rect{10, 0, 4, 2}, false), S_OK);
}

TEST(ThreadPool, WorkerCountIsCappedAtEightAndAtLeastOne) {
  CThreadPool pool;
  EXPECT_EQ(pool.GetThreadCount(), 0);
  pool.Create(16);
  EXPECT_EQ(pool.GetThreadCount(), 8);
  pool.Create(1);
  EXPECT_EQ(pool.GetThreadCount(), 1);
  pool.Destroy();
  EXPECT_EQ(pool.GetThreadCount(), 0);
  pool.Destroy();  // a stopped pool stops again without harm
  CThreadPool never_started;
  EXPECT_EQ(never_started.Destroy(), S_OK);
}

TEST(ThreadAdapter, RefusesNullTaskNullParamAndMissingPoolOrWorkers) {
  CThreadPool pool;
  pthread_cond_t c = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
  int32_t r = 0;
  ThreadJob job;
  EXPECT_EQ(pool.Submit(CountPixels, &job, &r, &c, &m), E_INVALIDARG);
  pool.Create(1);
  EXPECT_EQ(pool.Submit(nullptr, &job, &r, &c, &m), E_INVALIDARG);
  Bands b(2);
  int x = 0;
  EXPECT_EQ(b.adapter.RunTaskByMultiThread(nullptr, &x, nullptr, Rect{0, 0, 1, 1}), E_INVALIDARG);
  EXPECT_EQ(b.adapter.RunTaskByMultiThread(CountPixels, nullptr, nullptr, Rect{0, 0, 1, 1}),
            E_INVALIDARG);
  CThreadAdapter unbound;
  EXPECT_EQ(unbound.Init(nullptr), E_POINTER);
  testing::internal::CaptureStderr();
  EXPECT_EQ(unbound.RunTaskByMultiThread(CountPixels, &x, nullptr, Rect{0, 0, 1, 1}), E_INVALIDARG);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Korvane] [Korvane] SegmentBlock(process_rect, b_is_horizontal_segment) Error! - "
            "Return Code: 80070057\n");
}

namespace {
// Band i of call k fails with code -(1000 + i) when bit i of k's pattern is set.
struct StressParam {
  uint32_t pattern;
  std::atomic<int64_t>* pixels;
};
int32_t MaybeFail(ThreadJob* job, int32_t* result) {
  auto* p = static_cast<StressParam*>(job->param);
  const int band = job->rect.top;  // one row per band in this test
  *p->pixels += job->rect.bottom - job->rect.top;
  *result = (p->pattern >> band) & 1u ? -(1000 + band) : S_OK;
  return *result;
}
}  // namespace

TEST(ThreadAdapter, StressLastFailingBandWinsAndNoWakeUpIsLost) {
  for (int workers : {1, 2, 8}) {
    Bands b(workers);
    const int n = b.adapter.GetSegmentCount();
    std::atomic<int64_t> pixels{0};
    const int calls = workers == 2 ? 100000 : 20000;
    for (int k = 0; k < calls; ++k) {
      StressParam p{static_cast<uint32_t>(k * 2654435761u) >> 7, &pixels};
      int32_t expected = S_OK;
      for (int i = 0; i < n; ++i)
        if ((p.pattern >> i) & 1u) expected = -(1000 + i);
      ASSERT_EQ(b.adapter.RunTaskByMultiThread(MaybeFail, &p, nullptr, Rect{0, 0, 1, n}), expected)
          << "call " << k << " with " << workers << " workers";
    }
    EXPECT_EQ(pixels.load(), static_cast<int64_t>(calls) * n);
  }
}
