#include "engine/KorvaneEngineImp.h"

#include <new>
#include <type_traits>

#include "core/DebugLog.h"
#include "core/Platform.h"
#include "core/ShapeDrawing.h"
#include "core/Version.h"
#include "engine/CpuProbe.h"

// Effect implementations, one line per type code.
#include "effects/animation/Delaunay.h"
#include "effects/animation/PhotoAnimator.h"
#include "effects/bokeh/BokehEffect.h"
#include "effects/dispersion/DispersionEffect.h"
#include "effects/focus_blur/FocusBlurEffect.h"
#include "effects/glitch/GlitchEffect.h"
#include "effects/glow/GlowEffect.h"
#include "effects/light_rays/LightRaysEffect.h"
#include "effects/sparkle/SparkleEffect.h"

using Korvane::DebugLog;

KorvaneEngineImp::KorvaneEngineImp() {
  m_system_info.processor_count = Korvane::Platform::LogicalProcessorCount();
  m_system_info.simd_level = Korvane::ProbeSimdLevel();
#if KORVANE_HAVE_AVX2
  m_system_info.avx_level = Korvane::ProbeAvxLevel();  // forms left out of the build are never asked for
#endif
  m_system_info.reserved = 0;
  m_thread_pool.Create(m_system_info.processor_count);
}

KorvaneEngineImp::~KorvaneEngineImp() {
  // Types 1 to 8 first; the focus-blur registry (type 9) is emptied last, by
  // the member destructors, and the pool is stopped after that.
  for (int32_t i = 0; i < kTypeCount - 1; ++i) m_registries[i].clear();
}

size_t KorvaneEngineImp::GetInstanceCount(int32_t type) const {
  return (type >= 1 && type <= kTypeCount) ? m_registries[type - 1].size() : 0;
}

template <class Interface, class Impl>
int32_t KorvaneEngineImp::Make(void** p_effect_inst, int32_t type) {
  Impl* impl;
  if constexpr (std::is_constructible_v<Impl, Korvane::CThreadPool*>) {
    impl = new (std::nothrow) Impl(&m_thread_pool);
    if (!impl) return E_OUTOFMEMORY;
    impl->SetSystemInfo(m_system_info);
  } else {
    impl = new (std::nothrow) Impl();  // the triangulation takes neither
    if (!impl) return E_OUTOFMEMORY;
  }
  Interface* iface = impl;
  *p_effect_inst = iface;
  try {
    m_registries[type - 1].insert_or_assign(
        static_cast<void*>(iface), Owner(iface, [](void* p) { delete static_cast<Interface*>(p); }));
  } catch (const std::bad_alloc& e) {
    delete iface;
    *p_effect_inst = nullptr;
    DebugLog("CreateEffect - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t KorvaneEngineImp::Construct(void** p_effect_inst, int32_t type) {
  switch (type) {
    case Korvane::EFFECT_DELAUNAY_TRIANGLE: return Make<Korvane::DelaunayTriangle, Korvane::Delaunay>(p_effect_inst, type);
    case Korvane::EFFECT_ANIMATION: return Make<Korvane::Animation, Korvane::PhotoAnimator>(p_effect_inst, type);
    case Korvane::EFFECT_DISPERSION: return Make<Korvane::Dispersion, Korvane::DispersionEffect>(p_effect_inst, type);
    case Korvane::EFFECT_GLITCH: return Make<Korvane::Glitch, Korvane::GlitchEffect>(p_effect_inst, type);
    case Korvane::EFFECT_LIGHT_RAYS: return Make<Korvane::LightRays, Korvane::LightRaysEffect>(p_effect_inst, type);
    case Korvane::EFFECT_BOKEH: return Make<Korvane::Bokeh, Korvane::BokehEffect>(p_effect_inst, type);
    case Korvane::EFFECT_SPARKLE: return Make<Korvane::Sparkle, Korvane::SparkleEffect>(p_effect_inst, type);
    case Korvane::EFFECT_GLOW: return Make<Korvane::Glow, Korvane::GlowEffect>(p_effect_inst, type);
    case Korvane::EFFECT_FOCUS_BLUR: return Make<Korvane::FocusBlur, Korvane::FocusBlurEffect>(p_effect_inst, type);
    default:
      (void)p_effect_inst;
      return E_NOTIMPL;  // not built into this version of the library
  }
}

int32_t KorvaneEngineImp::CreateEffect(void** p_effect_inst, int32_t type) {
  if (!p_effect_inst) return E_POINTER;
  if (*p_effect_inst != nullptr) {
    DebugLog("Please make sure the parameter p_effect_inst is NULL");
    return E_FAIL;
  }
  if (type < 1 || type > kTypeCount) return S_OK;  // unknown types answer success
  return Construct(p_effect_inst, type);
}

int32_t KorvaneEngineImp::DeleteEffect(void** p_effect_inst, int32_t type) {
  if (!p_effect_inst || *p_effect_inst == nullptr || type < 1 || type > kTypeCount) return E_FAIL;
  if (m_registries[type - 1].erase(*p_effect_inst) == 0) return E_FAIL;
  *p_effect_inst = nullptr;
  return S_OK;
}

int32_t KorvaneEngineImp::GetInfo(Korvane::EngineInfo* info) const {
  if (!info) return E_POINTER;
  info->version_major = KORVANE_VERSION_MAJOR;
  info->version_minor = KORVANE_VERSION_MINOR;
  info->version_patch = KORVANE_VERSION_PATCH;
  info->version = KORVANE_VERSION_STRING;
  info->processor_count = m_system_info.processor_count;
  info->worker_count = m_thread_pool.GetThreadCount();
  info->simd_level = m_system_info.simd_level;
  info->avx_level = m_system_info.avx_level;
  const bool sse = KORVANE_HAVE_SSE41 && m_system_info.simd_level >= Korvane::SIMD_SSE41;
  const bool avx2 = KORVANE_HAVE_AVX2 && m_system_info.avx_level >= Korvane::AVX_AVX2;
  info->kernel_forms = avx2 ? "plain, SSE4.1, AVX2" : sse ? "plain, SSE4.1" : "plain";
  return S_OK;
}

int32_t KorvaneEngineImp::SetLogCallback(Korvane::LogCallback callback, void* user) {
  Korvane::SetLogSink(callback, user);
  return S_OK;
}

int32_t KorvaneEngineImp::DrawLightShape(int32_t shape, Korvane::ImageBuffer* image) const {
  if (!image) return E_POINTER;
  return Korvane::DrawBuiltinShape(shape, *image);
}

extern "C" KORVANE_API int32_t CreateKorvaneEngine(KorvaneEngine** p_inst) {
  if (!p_inst) return E_POINTER;
  if (*p_inst != nullptr) {
    DebugLog("Please make sure the parameter p_inst is NULL");
    return E_FAIL;
  }
  try {
    *p_inst = new (std::nothrow) KorvaneEngineImp();
  } catch (const std::bad_alloc& e) {  // the pool's arrays, thrown from the constructor
    DebugLog("CreateKorvaneEngine - %s caught!", e.what());
    *p_inst = nullptr;
  }
  return *p_inst ? S_OK : E_OUTOFMEMORY;
}

extern "C" KORVANE_API void DeleteKorvaneEngine(KorvaneEngine** p_inst) {
  if (p_inst && *p_inst) {
    delete *p_inst;
    *p_inst = nullptr;
  }
}
