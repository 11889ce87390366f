#include "core/ThreadPool.h"

#include <chrono>
#include <thread>

#include "core/DebugLog.h"

namespace Korvane {

CThreadPool::~CThreadPool() { Destroy(); }

int32_t CThreadPool::Create(int thread_count) {
  Destroy();
  int32_t n = thread_count < kMaxWorkerThreads ? thread_count : kMaxWorkerThreads;
  if (n < 1) return S_OK;
  m_workers = new WorkerSlot[n];
  for (int32_t i = 0; i < n; ++i) {
    pthread_cond_init(&m_workers[i].cond, nullptr);
    pthread_mutex_init(&m_workers[i].mutex, nullptr);
  }
  m_threads = new pthread_t[n];
  // Workers start in slot order and only started ones are counted, so the
  // slots in use are always the first m_thread_count.
  int32_t started = 0;
  while (started < n &&
         pthread_create(&m_threads[started], nullptr, &CThreadPool::WorkerMain,
                        &m_workers[started]) == 0) {
    ++started;
  }
  if (started < n) DebugLog("[CThreadPool] thread create fail!!! %d of %d started", started, n);
  for (int32_t i = started; i < n; ++i) {
    pthread_cond_destroy(&m_workers[i].cond);
    pthread_mutex_destroy(&m_workers[i].mutex);
  }
  m_thread_count = started;
  if (started == 0) {
    delete[] m_workers;
    delete[] m_threads;
    m_workers = nullptr;
    m_threads = nullptr;
    m_run_inline = true;
  }
  return S_OK;
}

void* CThreadPool::WorkerMain(void* arg) {
  WorkerSlot* slot = static_cast<WorkerSlot*>(arg);
  if (!slot) return reinterpret_cast<void*>(static_cast<intptr_t>(E_POINTER));
  for (;;) {
    pthread_mutex_lock(&slot->mutex);
    // Only now, with the previous submitter signalled, is the slot offered again.
    slot->busy.store(0, std::memory_order_release);
    while (!slot->has_job && !slot->no_wait) pthread_cond_wait(&slot->cond, &slot->mutex);
    const bool quit = slot->quit != 0;
    const bool has_job = slot->has_job != 0;
    slot->has_job = 0;
    ThreadTask task = slot->task;
    ThreadJob* job = slot->job;
    int32_t* result = slot->result;
    pthread_cond_t* done_cond = slot->done_cond;
    pthread_mutex_t* done_mutex = slot->done_mutex;
    pthread_mutex_unlock(&slot->mutex);

    if (quit) return nullptr;
    if (has_job) {
      // The task writes a private code; it is published under the submitter's
      // mutex so the submitter reads it race-free.
      int32_t code = S_OK;
      if (task) task(job, &code);
      pthread_mutex_lock(done_mutex);
      if (result) *result = code;
      pthread_cond_signal(done_cond);
      pthread_mutex_unlock(done_mutex);
    }
  }
}

int32_t CThreadPool::ClaimIdleSlot() {
  // The cursor only spreads submissions over the workers; the compare-and-swap
  // on busy is what makes a claim exclusive when submitters race.
  const int32_t n = m_thread_count;
  int32_t spins = 0;
  for (;;) {
    for (int32_t k = 0; k < n; ++k) {
      int32_t cur = m_next_worker.load(std::memory_order_relaxed);
      int32_t next;
      do {
        next = (cur + 1) % n;
      } while (!m_next_worker.compare_exchange_weak(cur, next, std::memory_order_relaxed));
      uint8_t idle = 0;
      if (m_workers[next].busy.load(std::memory_order_relaxed) == 0 &&
          m_workers[next].busy.compare_exchange_strong(idle, 1, std::memory_order_acquire)) {
        return next;
      }
    }
    // A worker that has just signalled its previous submitter needs a moment
    // to reach its wait; yield a few times before falling back to 1 ms sleeps.
    if (spins < 64) {
      ++spins;
      std::this_thread::yield();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

int32_t CThreadPool::Submit(ThreadTask task, ThreadJob* job, int32_t* result,
                            pthread_cond_t* done_cond, pthread_mutex_t* done_mutex) {
  if (task == nullptr) return E_INVALIDARG;
  if (m_run_inline) {
    // No worker thread exists: the submitter does the job itself. Nothing
    // else touches the result, and the caller may hold done_mutex, so it is
    // neither taken nor needed here.
    int32_t code = S_OK;
    task(job, &code);
    if (result) *result = code;
    if (done_cond) pthread_cond_signal(done_cond);
    return S_OK;
  }
  if (m_thread_count == 0) return E_INVALIDARG;
  WorkerSlot& slot = m_workers[ClaimIdleSlot()];
  pthread_mutex_lock(&slot.mutex);
  slot.task = task;
  slot.job = job;
  slot.done_cond = done_cond;
  slot.done_mutex = done_mutex;
  slot.result = result;
  slot.has_job = 1;
  pthread_cond_signal(&slot.cond);
  pthread_mutex_unlock(&slot.mutex);
  return S_OK;
}

int32_t CThreadPool::Destroy() {
  m_run_inline = false;
  if (m_thread_count < 1) {
    m_next_worker = 0;
    return S_OK;
  }
  for (int32_t i = 0; i < m_thread_count; ++i) {
    pthread_mutex_lock(&m_workers[i].mutex);
    m_workers[i].quit = 1;
    m_workers[i].no_wait = 1;
    pthread_cond_signal(&m_workers[i].cond);
    pthread_mutex_unlock(&m_workers[i].mutex);
  }
  for (int32_t i = 0; i < m_thread_count; ++i) {
    if (pthread_join(m_threads[i], nullptr) != 0) DebugLog("[CThreadPool] thread destroy fail!!!");
    pthread_cond_destroy(&m_workers[i].cond);
    pthread_mutex_destroy(&m_workers[i].mutex);
  }
  delete[] m_workers;
  delete[] m_threads;
  m_workers = nullptr;
  m_threads = nullptr;
  m_thread_count = 0;
  m_next_worker = 0;
  return S_OK;
}

}  // namespace Korvane
