#include "core/FocusBlurStages.h"

#include <cstdio>
#include <cstdlib>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/Simd.h"

namespace Korvane {

namespace {

struct BlurMaskParam {
  const SmartBuffer* guide;
  const bool* blur;       // per guide value
  const int32_t* table;   // per guide value, or NULL
  bool* mask;             // width x height
  SmartBuffer* weight;    // GRAY8 of the guide's size, or NULL
};

void BlurMaskRows(const BlurMaskParam& p, int32_t top, int32_t bottom) {
  const SmartBuffer& g = *p.guide;
  const int32_t step = g.channel;
  for (int32_t y = top; y < bottom; ++y) {
    const uint8_t* src = RowPtr<const uint8_t>(g, y);
    bool* m = p.mask + static_cast<size_t>(y) * g.width;
    for (int32_t x = 0; x < g.width; ++x) m[x] = p.blur[src[static_cast<size_t>(x) * step]];
    if (!p.weight) continue;
    uint8_t* w = RowPtr<uint8_t>(*p.weight, y);
    for (int32_t x = 0; x < g.width; ++x) w[x] = static_cast<uint8_t>(p.table[src[static_cast<size_t>(x) * step]]);
  }
}

int32_t BlurMaskBand(const BlurMaskParam& p, const Rect& r) {
  if (IsEmpty(r)) return S_OK;
  if (r.top < 0 || r.bottom > p.guide->height || r.left != 0 || r.right != p.guide->width) return E_INVALIDARG;
  BlurMaskRows(p, r.top, r.bottom);
  return S_OK;
}

}  // namespace

void MakeBlurMask(CThreadAdapter& adapter, const SmartBuffer& guide, int32_t focus_value, int32_t focus_range,
                  bool* mask, const int32_t* table, SmartBuffer* weight) {
  // Per guide value, so the loop over pixels is a lookup.
  bool blur[256];
  for (int32_t v = 0; v < 256; ++v) {
    blur[v] = std::llabs(static_cast<int64_t>(v) - focus_value) > static_cast<int64_t>(focus_range);
  }
  BlurMaskParam p{&guide, blur, table, mask, table ? weight : nullptr};
  if (adapter.RunTaskByMultiThread(BandTask<BlurMaskParam, BlurMaskBand>, &p, nullptr, FullRect(guide)) < 0) {
    BlurMaskRows(p, 0, guide.height);
  }
}

int32_t RunFocusPass(CThreadAdapter& adapter, const PickedTask& kernel, const char* param_text, void* param,
                     const Rect& region, bool rows) {
  const int32_t hr = adapter.RunTaskByMultiThread(kernel.fn, param, nullptr, region, rows);
  if (hr < 0) {
    char call[160];
    std::snprintf(call, sizeof(call), "m_thread_adapter.RunTaskByMultiThread(%%s, %s, this, process_region%s)",
                  param_text, rows ? "" : ", false");
    LogKernelCall(call, kernel.name, hr);
  }
  return hr;
}

int32_t RunGaussianPasses(CThreadAdapter& adapter, const SystemInfo& info, GaussianBlurParam& p,
                          const char* param_text, const Rect& region) {
  const auto rows = KORVANE_PICK_AVX2(info, GaussianBlurH, GaussianBlurH_SSE, GaussianBlurH_AVX2);
  const auto columns = KORVANE_PICK_AVX2(info, GaussianBlurV, GaussianBlurV_SSE, GaussianBlurV_AVX2);
  const int32_t hr = RunFocusPass(adapter, rows, param_text, &p, region);
  if (hr < 0) return hr;
  return RunFocusPass(adapter, columns, param_text, &p, region, false);
}

}  // namespace Korvane
