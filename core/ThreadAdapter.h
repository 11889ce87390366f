// Cuts a region into one band per worker, runs a task over the bands on the
// engine's pool, waits for all of them and folds their result codes.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ThreadPool.h"

namespace Korvane {

// What a task receives for one band.
struct ThreadJob {
  void* ctx = nullptr;    // the caller's context (may be NULL)
  void* param = nullptr;  // the caller's parameter record (never NULL)
  Rect rect;              // the band to process
};

class CThreadAdapter {
 public:
  static constexpr int32_t kSlotCount = kMaxWorkerThreads;

  CThreadAdapter();
  ~CThreadAdapter();
  CThreadAdapter(const CThreadAdapter&) = delete;
  CThreadAdapter& operator=(const CThreadAdapter&) = delete;

  // Borrows the pool; the band count becomes its worker count.
  int32_t Init(CThreadPool* pool);

  // Runs task over `region`, cut into row bands (or column strips when
  // b_is_horizontal_segment is false), and returns when every band is done:
  // 0, or the code of the last failing band in band order.
  int32_t RunTaskByMultiThread(ThreadTask task, void* param, void* ctx, Rect region,
                               bool b_is_horizontal_segment = true);

  // Fills the jobs' rectangles: extent / n per band, the remainder to the last.
  int32_t SegmentBlock(Rect process_rect, bool b_is_horizontal_segment);

  int32_t GetSegmentCount() const { return m_segment_count; }
  const ThreadJob& GetJob(int32_t i) const { return m_jobs[i]; }

 private:
  CThreadPool* m_thread_pool = nullptr;
  pthread_cond_t m_conds[kSlotCount];
  pthread_mutex_t m_mutexes[kSlotCount];
  int32_t m_results[kSlotCount];
  ThreadJob m_jobs[kSlotCount];
  int32_t m_segment_count = 0;
};

}  // namespace Korvane
