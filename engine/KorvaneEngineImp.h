// The engine's implementation: the worker pool, one registry per effect type
// that owns every live instance, and the machine description.
#pragma once

#include <map>
#include <memory>

#include "core/SystemInfo.h"
#include "core/ThreadPool.h"
#include "engine/KorvaneEngine.h"

class KorvaneEngineImp final : public KorvaneEngine {
 public:
  static constexpr int32_t kTypeCount = 9;

  KorvaneEngineImp();
  ~KorvaneEngineImp() override;

  int32_t CreateEffect(void** p_effect_inst, int32_t type) override;
  int32_t DeleteEffect(void** p_effect_inst, int32_t type) override;
  int32_t GetInfo(Korvane::EngineInfo* info) const override;
  int32_t SetLogCallback(Korvane::LogCallback callback, void* user) override;
  int32_t DrawLightShape(int32_t shape, Korvane::ImageBuffer* image) const override;

  const Korvane::SystemInfo& GetSystemInfo() const { return m_system_info; }
  int32_t GetWorkerCount() const { return m_thread_pool.GetThreadCount(); }
  // Number of live instances of a type (1..9), for tests.
  size_t GetInstanceCount(int32_t type) const;

 private:
  // Owns one instance; the deleter knows its interface type, so erasing the
  // entry deletes the instance through its virtual destructor.
  using Owner = std::unique_ptr<void, void (*)(void*)>;
  using EffectRegistry = std::map<void*, Owner>;

  template <class Interface, class Impl>
  int32_t Make(void** p_effect_inst, int32_t type);
  int32_t Construct(void** p_effect_inst, int32_t type);

  // Declared first so it is destroyed last, after every effect is gone.
  Korvane::CThreadPool m_thread_pool;
  EffectRegistry m_registries[kTypeCount];  // index = type code - 1
  Korvane::SystemInfo m_system_info;
};
