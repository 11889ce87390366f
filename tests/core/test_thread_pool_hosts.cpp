// The pool shared by several host threads at once, and a pool whose worker
// threads cannot all be started (pthread_create is interposed below).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "core/ThreadAdapter.h"
#include "core/ThreadPool.h"

using namespace Korvane;

namespace {
// How many more thread starts succeed; negative means all of them do.
std::atomic<int> g_starts_left{-1};
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                              void* arg) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  int left = g_starts_left.load();
  while (left >= 0) {
    if (left == 0) return EAGAIN;
    if (g_starts_left.compare_exchange_weak(left, left - 1)) break;
  }
  return real(thread, attr, start, arg);
}

namespace {

struct Tally {
  std::atomic<int64_t> pixels{0};
  std::atomic<int> on_caller{0};
  std::thread::id caller;
};

int32_t CountBand(ThreadJob* job, int32_t* result) {
  auto* t = static_cast<Tally*>(job->param);
  const Rect& r = job->rect;
  t->pixels += int64_t{r.right - r.left} * (r.bottom - r.top);
  if (std::this_thread::get_id() == t->caller) ++t->on_caller;
  *result = r.top <= 7 && 7 < r.bottom ? -7 : S_OK;  // a band holding row 7 fails
  return *result;
}

struct FailingStarts {
  explicit FailingStarts(int allowed) { g_starts_left = allowed; }
  ~FailingStarts() { g_starts_left = -1; }
};

}  // namespace

TEST(ThreadPoolStart, NoWorkerStartedRunsBandsOnTheCallersThread) {
  CThreadPool pool;
  testing::internal::CaptureStderr();
  {
    FailingStarts none(0);
    EXPECT_EQ(pool.Create(4), S_OK);
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("thread create fail"), std::string::npos);
  EXPECT_EQ(pool.GetThreadCount(), 1);
  CThreadAdapter adapter;
  adapter.Init(&pool);
  Tally t;
  t.caller = std::this_thread::get_id();
  EXPECT_EQ(adapter.RunTaskByMultiThread(CountBand, &t, nullptr, Rect{0, 0, 5, 6}), S_OK);
  EXPECT_EQ(t.pixels.load(), 30);
  EXPECT_EQ(t.on_caller.load(), 1);
  EXPECT_EQ(adapter.RunTaskByMultiThread(CountBand, &t, nullptr, Rect{0, 7, 5, 8}), -7);
  EXPECT_EQ(pool.Destroy(), S_OK);  // nothing to join
  EXPECT_EQ(pool.GetThreadCount(), 0);
  // A later Create with working thread starts gets real workers again.
  pool.Create(2);
  EXPECT_EQ(pool.GetThreadCount(), 2);
}

TEST(ThreadPoolStart, OnlyStartedWorkersAreCountedAndJoined) {
  CThreadPool pool;
  testing::internal::CaptureStderr();
  {
    FailingStarts two(2);
    pool.Create(6);
  }
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(pool.GetThreadCount(), 2);
  CThreadAdapter adapter;
  adapter.Init(&pool);
  Tally t;
  t.caller = std::this_thread::get_id();
  for (int k = 0; k < 200; ++k)
    ASSERT_EQ(adapter.RunTaskByMultiThread(CountBand, &t, nullptr, Rect{0, 0, 3, 4}), S_OK);
  EXPECT_EQ(t.pixels.load(), 200 * 12);
  EXPECT_EQ(t.on_caller.load(), 0);
  EXPECT_EQ(pool.Destroy(), S_OK);
}

// Eight host threads, each with its own adapter, drive one pool at once.
// Every band must run exactly once and every call must come back: a slot
// claimed twice loses a job and hangs its submitter.
TEST(ThreadPool, EightHostThreadsShareOnePool) {
  for (int workers : {1, 3, 8}) {
    CThreadPool pool;
    pool.Create(workers);
    std::vector<std::thread> hosts;
    std::vector<int64_t> pixels(8, 0);
    std::atomic<int> failures{0};
    for (int h = 0; h < 8; ++h) {
      hosts.emplace_back([&, h] {
        CThreadAdapter adapter;
        adapter.Init(&pool);
        Tally t;
        for (int k = 0; k < 1000; ++k) {
          const int32_t rows = 1 + (k + h) % 9;
          if (adapter.RunTaskByMultiThread(CountBand, &t, nullptr, Rect{0, 0, 2, rows}) !=
              (rows > 7 ? -7 : S_OK))
            ++failures;
        }
        pixels[h] = t.pixels.load();
      });
    }
    for (auto& th : hosts) th.join();
    EXPECT_EQ(failures.load(), 0) << workers << " workers";
    for (int h = 0; h < 8; ++h) {
      int64_t expected = 0;
      for (int k = 0; k < 1000; ++k) expected += 2 * (1 + (k + h) % 9);
      EXPECT_EQ(pixels[h], expected) << "host " << h << ", " << workers << " workers";
    }
  }
}
