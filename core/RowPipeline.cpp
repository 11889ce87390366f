#include "core/RowPipeline.h"

#include <algorithm>
#include <memory>
#include <new>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"

namespace Korvane {

RowPipeline& RowPipeline::Then(const char* name, ThreadTask task, void* param) {
  if (m_count == kMaxSteps) {
    m_overflow = true;
    return *this;
  }
  m_steps[m_count++] = Step{name ? name : "", task, param};
  return *this;
}

int32_t RowPipeline::RunBand(ThreadJob* job, int32_t* result) {
  auto* self = static_cast<RowPipeline*>(job->param);
  const Rect band = job->rect;
  RowChunk chunk;
  chunk.band = band;
  // The band's scratch lives for the band; each chunk reuses it from its top.
  std::unique_ptr<unsigned char[]> scratch;
  if (self->m_scratch_row_bytes > 0 && !IsEmpty(band)) {
    const int64_t rows = std::min<int64_t>(self->m_chunk_rows, RectHeight(band));
    scratch.reset(new (std::nothrow) unsigned char[static_cast<size_t>(rows * self->m_scratch_row_bytes)]);
    if (!scratch) return Done(result, E_OUTOFMEMORY);
    chunk.scratch = scratch.get();
    chunk.scratch_stride = self->m_scratch_row_bytes;
  }
  ThreadJob sub;
  sub.ctx = &chunk;
  sub.rect = band;
  for (int32_t y = band.top; y < band.bottom; y += self->m_chunk_rows) {
    sub.rect.top = y;
    sub.rect.bottom = std::min(y + self->m_chunk_rows, band.bottom);
    for (int32_t i = 0; i < self->m_count; ++i) {
      sub.param = self->m_steps[i].param;
      int32_t code = S_OK;
      if (self->m_steps[i].task(&sub, &code) < 0 || code < 0) {
        if (code >= 0) code = E_FAIL;
        self->m_failed_step.store(i, std::memory_order_relaxed);
        return Done(result, code);
      }
    }
  }
  return Done(result, S_OK);
}

int32_t RowPipeline::Run(CThreadAdapter& adapter, const Rect& region) {
  m_failed_step.store(-1, std::memory_order_relaxed);
  bool complete = m_count > 0 && !m_overflow && m_chunk_rows >= 1 && m_scratch_row_bytes >= 0;
  for (int32_t i = 0; i < m_count; ++i) complete = complete && m_steps[i].task != nullptr;
  if (!complete) return LogStep(m_count > 0 ? m_steps[0].name : "row pipeline", E_INVALIDARG);
  const int32_t hr = adapter.RunTaskByMultiThread(RunBand, this, nullptr, region);
  const int32_t i = FailedStep();
  return LogStep(i >= 0 ? m_steps[i].name : m_steps[0].name, hr);
}

}  // namespace Korvane
