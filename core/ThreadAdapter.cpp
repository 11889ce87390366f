#include "core/ThreadAdapter.h"

#include "core/DebugLog.h"

namespace Korvane {

namespace {
// Marks a band whose worker has not reported yet. Tasks only ever store 0 or
// a negative code, so this positive value cannot be confused with a result.
constexpr int32_t kBandPending = 0x7FFFFFFF;
}  // namespace

CThreadAdapter::CThreadAdapter() {
  for (int32_t i = 0; i < kSlotCount; ++i) {
    pthread_cond_init(&m_conds[i], nullptr);
    pthread_mutex_init(&m_mutexes[i], nullptr);
    m_results[i] = 0;
  }
}

CThreadAdapter::~CThreadAdapter() {
  for (int32_t i = 0; i < kSlotCount; ++i) {
    pthread_cond_destroy(&m_conds[i]);
    pthread_mutex_destroy(&m_mutexes[i]);
  }
}

int32_t CThreadAdapter::Init(CThreadPool* pool) {
  if (!pool) return E_POINTER;
  m_thread_pool = pool;
  m_segment_count = pool->GetThreadCount();
  if (m_segment_count > kSlotCount) m_segment_count = kSlotCount;
  return S_OK;
}

int32_t CThreadAdapter::SegmentBlock(Rect process_rect, bool b_is_horizontal_segment) {
  const int32_t n = m_segment_count;
  if (n == 0) return E_INVALIDARG;
  const int32_t extent = b_is_horizontal_segment ? process_rect.bottom - process_rect.top
                                                 : process_rect.right - process_rect.left;
  const int32_t step = extent / n;
  for (int32_t i = 0; i < n; ++i) {
    const int32_t offset = i * step;
    Rect& r = m_jobs[i].rect;
    r = process_rect;
    if (b_is_horizontal_segment) {
      r.top = process_rect.top + offset;
      r.bottom = process_rect.top + offset + step;
    } else {
      r.left = process_rect.left + offset;
      r.right = process_rect.left + offset + step;
    }
  }
  if (b_is_horizontal_segment) {
    m_jobs[n - 1].rect.bottom = process_rect.bottom;
  } else {
    m_jobs[n - 1].rect.right = process_rect.right;
  }
  return S_OK;
}

int32_t CThreadAdapter::RunTaskByMultiThread(ThreadTask task, void* param, void* ctx, Rect region,
                                             bool b_is_horizontal_segment) {
  if (!task || !param) return E_INVALIDARG;
  int32_t hr = SegmentBlock(region, b_is_horizontal_segment);
  if (hr < 0) {
    DebugLog("[Korvane] SegmentBlock(process_rect, b_is_horizontal_segment) Error! - Return Code: %x",
             static_cast<unsigned>(hr));
    return hr;
  }
  // Each band's result slot doubles as its completion flag: it is set to
  // "pending" before submission and written by the worker under the band's
  // mutex just before the signal. A band that finishes before we reach its
  // wait is therefore seen rather than missed, spurious wake-ups are absorbed,
  // and no two band mutexes are ever held at once.
  int32_t submitted = 0;
  int32_t result = S_OK;
  for (int32_t i = 0; i < m_segment_count; ++i) {
    m_jobs[i].ctx = ctx;
    m_jobs[i].param = param;
    pthread_mutex_lock(&m_mutexes[i]);
    m_results[i] = kBandPending;
    pthread_mutex_unlock(&m_mutexes[i]);
    hr = m_thread_pool->Submit(task, &m_jobs[i], &m_results[i], &m_conds[i], &m_mutexes[i]);
    if (hr < 0) {
      result = hr;
      break;
    }
    ++submitted;
  }
  for (int32_t i = 0; i < submitted; ++i) {
    pthread_mutex_lock(&m_mutexes[i]);
    while (m_results[i] == kBandPending) pthread_cond_wait(&m_conds[i], &m_mutexes[i]);
    const int32_t band_result = m_results[i];
    pthread_mutex_unlock(&m_mutexes[i]);
    if (band_result < 0) result = band_result;
  }
  return result;
}

}  // namespace Korvane
