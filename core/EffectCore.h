// What every effect implementation shares: a thread adapter bound to the
// engine's pool, and the machine description that picks its kernel forms.
//
// Each implementation class derives from its interface (which fixes the
// virtual slot order: 0 destructor, 1 preparation, 2 processing, 3 release,
// then the effect's own slots) and from EffectCore:
//
//   class GlowEffect final : public Glow, public EffectCore {
//    public:
//     explicit GlowEffect(CThreadPool* pool) : EffectCore(pool) {}
//     ...
//   };
#pragma once

#include <cstdint>

#include "core/Simd.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"
#include "core/ThreadPool.h"

namespace Korvane {

class EffectCore {
 public:
  // A NULL pool leaves the adapter without workers: every parallel call of the
  // effect then fails with E_INVALIDARG.
  explicit EffectCore(CThreadPool* pool) { m_thread_adapter.Init(pool); }

  // Called by the engine right after construction (and by tests to choose the
  // plain or SSE4.1 kernels).
  int32_t SetSystemInfo(const SystemInfo& info) {
    m_system_info = info;
    return 0;
  }
  const SystemInfo& GetSystemInfo() const { return m_system_info; }

 protected:
  CThreadAdapter m_thread_adapter;
  SystemInfo m_system_info;
};

}  // namespace Korvane
