// A chain of row steps run band by band on the adapter.
//
// Each step is an ordinary row task (a ThreadTask over a rectangle of rows)
// with a name for the log. The pipeline cuts the region into one band per
// worker, and each worker runs every step over a few rows of its band before
// moving on to the next few, so the rows a step has just written are still in
// cache when the next step reads them:
//
//   RowPipeline chain(16);
//   chain.Then("copy src", GlowCopySrc, &copy).Then("detect hlr", detect, &p);
//   if ((hr = chain.Run(m_thread_adapter, region)) < 0) return hr;  // logged
//
// Valid for steps whose rows depend only on the same rows of the earlier
// steps' outputs (or on inputs no step of the chain writes); the result is
// then that of the steps run over the whole region in turn. A step that needs
// a few rows either side (a short vertical filter) reads them from its inputs
// and recomputes what it needs for each chunk.
//
// Steps that pass rows to a later step without storing a whole image use the
// band's scratch rows: with SetScratch(bytes_per_row), each band owns
// chunk_rows rows of that many bytes, valid for one chunk. A step reaches
// them through the RowChunk its job carries in `ctx`.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/Simd.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// What a step receives in ThreadJob::ctx while it runs inside a pipeline.
struct RowChunk {
  Rect band;                       // the band being processed
  unsigned char* scratch = nullptr;  // chunk_rows rows of the band's scratch, or NULL
  int64_t scratch_stride = 0;        // bytes from one scratch row to the next

  // Scratch row of image row y (y inside the current chunk).
  unsigned char* ScratchRow(int32_t y, int32_t chunk_top) const {
    return scratch + static_cast<int64_t>(y - chunk_top) * scratch_stride;
  }
};

class RowPipeline {
 public:
  static constexpr int32_t kMaxSteps = 6;

  explicit RowPipeline(int32_t chunk_rows = 16) : m_chunk_rows(chunk_rows) {}
  RowPipeline(const RowPipeline&) = delete;
  RowPipeline& operator=(const RowPipeline&) = delete;

  // Appends a step. A pipeline holds at most kMaxSteps; Run refuses more.
  RowPipeline& Then(const char* name, ThreadTask task, void* param);
  // The chosen form of a kernel; its source name is the step's name.
  RowPipeline& Then(const Kernel<ThreadTask>& kernel, void* param) { return Then(kernel.name, kernel.fn, param); }

  // Gives every band chunk_rows scratch rows of `bytes_per_row` bytes.
  RowPipeline& SetScratch(int64_t bytes_per_row) {
    m_scratch_row_bytes = bytes_per_row;
    return *this;
  }

  // Runs the steps over `region`, cut into row bands. Returns S_OK or the
  // failing band's code; a failure is logged as
  // "[Korvane](<name of the step that failed>) - Return Code: %x".
  // E_INVALIDARG for no step, too many, a missing task or chunk_rows < 1.
  int32_t Run(CThreadAdapter& adapter, const Rect& region);

  int32_t StepCount() const { return m_count; }
  int32_t ChunkRows() const { return m_chunk_rows; }
  // Index of the step that failed in the last Run (-1: none), and its name.
  int32_t FailedStep() const { return m_failed_step.load(std::memory_order_relaxed); }
  const char* StepName(int32_t i) const { return (i >= 0 && i < m_count) ? m_steps[i].name : ""; }

 private:
  struct Step {
    const char* name = "";
    ThreadTask task = nullptr;
    void* param = nullptr;
  };
  static int32_t RunBand(ThreadJob* job, int32_t* result);

  Step m_steps[kMaxSteps];
  int32_t m_count = 0;
  bool m_overflow = false;
  int32_t m_chunk_rows;
  int64_t m_scratch_row_bytes = 0;
  std::atomic<int32_t> m_failed_step{-1};
};

}  // namespace Korvane
