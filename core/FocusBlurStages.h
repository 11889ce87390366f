// The stages of a focus blur that the focus blur effect and the bokeh
// background both run: the blur mask taken from the guide, and the Gaussian
// and blend passes, each run on the pool and logged, when it fails, with the
// focus blur's call text and the name of the kernel form that ran:
//
//   "[Korvane] m_thread_adapter.RunTaskByMultiThread(GaussianBlurH_SSE, &blur_param, this, process_region) Error! ..."
#pragma once

#include <cstdint>

#include "core/BandTask.h"
#include "core/GaussianBlur.h"
#include "core/ImageBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// The guide's blur mask: mask[y * width + x] is true where the guide value
// (the first byte of each pixel, pixels `channel` bytes apart) lies further
// than focus_range from focus_value. With `weight` (GRAY8 of the guide's
// size), each pixel's blend weight table[guide value] is written beside it.
// Built in row bands on the pool; when the pool cannot run it is built on
// the calling thread, and the first blur pass reports the pool's failure.
void MakeBlurMask(CThreadAdapter& adapter, const SmartBuffer& guide, int32_t focus_value, int32_t focus_range,
                  bool* mask, const int32_t* table = nullptr, SmartBuffer* weight = nullptr);

// Runs one focus-blur pass over `region` (row bands, or column strips when
// `rows` is false). A failure is logged as the call
// "m_thread_adapter.RunTaskByMultiThread(<form>, <param_text>, this, process_region[, false])".
int32_t RunFocusPass(CThreadAdapter& adapter, const PickedTask& kernel, const char* param_text, void* param,
                     const Rect& region, bool rows = true);

// GaussianBlurH then GaussianBlurV (their forms chosen from `info`) over
// `region` of p.buffer, logged as RunFocusPass logs them.
int32_t RunGaussianPasses(CThreadAdapter& adapter, const SystemInfo& info, GaussianBlurParam& p,
                          const char* param_text, const Rect& region);

}  // namespace Korvane
