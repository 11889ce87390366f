// The engine's fixed set of worker threads. Each worker has a one-job
// mailbox; a submission goes to the next idle worker in round-robin order and
// the worker signals the submitter's own condition variable when done.
// Submit may be called from any number of threads at once: a slot is claimed
// by compare-and-swap on its busy flag, so no two submitters share a worker.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "core/ResultCode.h"

namespace Korvane {

struct ThreadJob;
using ThreadTask = int32_t (*)(ThreadJob* job, int32_t* result);

// The pool never runs more workers than this, whatever the processor count.
constexpr int32_t kMaxWorkerThreads = 8;

// One worker's mailbox, shared between the worker thread and submitters.
struct WorkerSlot {
  // 1 while the slot holds a job or its worker has not yet reached its wait.
  // Submitters scan it without the lock, so it is atomic.
  std::atomic<uint8_t> busy{1};
  uint8_t quit = 0;
  uint8_t no_wait = 0;
  // Set under `mutex` when a job has been placed; guards against spurious
  // wake-ups, which must not start a job twice or before it is complete.
  uint8_t has_job = 0;
  ThreadTask task = nullptr;
  ThreadJob* job = nullptr;
  pthread_cond_t cond;
  pthread_mutex_t mutex;
  pthread_cond_t* done_cond = nullptr;
  pthread_mutex_t* done_mutex = nullptr;
  int32_t* result = nullptr;
};

class CThreadPool {
 public:
  CThreadPool() = default;
  ~CThreadPool();
  CThreadPool(const CThreadPool&) = delete;
  CThreadPool& operator=(const CThreadPool&) = delete;

  // Stops any running workers, then starts min(thread_count, 8) of them.
  // Only workers whose thread started are counted; if none starts, the pool
  // runs every job on the submitter's own thread instead.
  int32_t Create(int thread_count);
  // The number of bands a submitter should cut: the started workers, or 1
  // when jobs run on the submitter's thread; 0 before Create.
  int32_t GetThreadCount() const { return m_run_inline ? 1 : m_thread_count; }

  // Hands a job to an idle worker, waiting for one if all are busy. When the
  // task has finished, the worker stores its code in *result and signals
  // done_cond while holding done_mutex. E_INVALIDARG with no workers or task.
  int32_t Submit(ThreadTask task, ThreadJob* job, int32_t* result, pthread_cond_t* done_cond,
                 pthread_mutex_t* done_mutex);

  // Stops and joins every worker. Safe on a pool that never started.
  int32_t Destroy();

 private:
  static void* WorkerMain(void* arg);

  int32_t ClaimIdleSlot();

  int32_t m_thread_count = 0;  // started workers only
  WorkerSlot* m_workers = nullptr;
  pthread_t* m_threads = nullptr;
  std::atomic<int32_t> m_next_worker{0};  // index of the slot taken last
  bool m_run_inline = false;              // created, but no worker could start
};

}  // namespace Korvane
