// The engine's fixed set of worker threads. Each worker has a one-job
// mailbox; a submission goes to the next idle worker in round-robin order and
// the worker signals the submitter's own condition variable when done.
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
  int32_t Create(int thread_count);
  int32_t GetThreadCount() const { return m_thread_count; }

  // Hands a job to an idle worker, waiting for one if all are busy. When the
  // task has finished, the worker stores its code in *result and signals
  // done_cond while holding done_mutex. E_INVALIDARG with no workers or task.
  int32_t Submit(ThreadTask task, ThreadJob* job, int32_t* result, pthread_cond_t* done_cond,
                 pthread_mutex_t* done_mutex);

  // Stops and joins every worker. Safe on a pool that never started.
  int32_t Destroy();

 private:
  static void* WorkerMain(void* arg);

  int32_t m_thread_count = 0;
  WorkerSlot* m_workers = nullptr;
  pthread_t* m_threads = nullptr;
  int32_t m_next_worker = 0;
};

}  // namespace Korvane
