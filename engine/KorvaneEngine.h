// Public header: part of the installed API.
// The engine: the library's whole public surface. Create one with
// CreateKorvaneEngine, ask it for effects by type code, give them back with
// DeleteEffect, and delete the engine with DeleteKorvaneEngine.
#pragma once

#include <cstdint>

#include "core/BuiltinShapes.h"
#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

#if defined(_WIN32)
#if defined(KORVANE_BUILDING_LIBRARY)
#define KORVANE_API __declspec(dllexport)
#else
#define KORVANE_API __declspec(dllimport)
#endif
#else
#define KORVANE_API __attribute__((visibility("default")))
#endif

namespace Korvane {

// Effect type codes for CreateEffect and DeleteEffect, with the interface
// class each one returns.
enum EffectType : int32_t {
  EFFECT_DELAUNAY_TRIANGLE = 1,  // Korvane::DelaunayTriangle
  EFFECT_ANIMATION = 2,          // Korvane::Animation
  EFFECT_DISPERSION = 3,         // Korvane::Dispersion
  EFFECT_GLITCH = 4,             // Korvane::Glitch
  EFFECT_LIGHT_RAYS = 5,         // Korvane::LightRays
  EFFECT_SPARKLE = 6,            // Korvane::Sparkle
  EFFECT_BOKEH = 7,              // Korvane::Bokeh
  EFFECT_GLOW = 8,               // Korvane::Glow
  EFFECT_FOCUS_BLUR = 9,         // Korvane::FocusBlur
};

// What the engine reports about itself and the machine it runs on.
struct EngineInfo {
  int32_t version_major = 0;
  int32_t version_minor = 0;
  int32_t version_patch = 0;
  const char* version = "";        // "major.minor.patch"
  int32_t processor_count = 0;     // logical processors the system reports
  int32_t worker_count = 0;        // worker threads that started (at most 8)
  int32_t simd_level = 0;          // 0..6, 5 = SSE4.1
  int32_t avx_level = 0;           // 1: AVX2 usable
  const char* kernel_forms = "";   // the kernel forms this engine runs, e.g. "plain, SSE4.1, AVX2"
};

// Receives one log line of the library (a diagnostic of a failure, ending in
// a line feed). Called from any thread, possibly from several at once.
using LogCallback = void (*)(void* user, const char* line);

}  // namespace Korvane

class KorvaneEngine {
 public:
  virtual ~KorvaneEngine() = default;

  // Creates an effect of `type` and stores its interface pointer in
  // *p_effect_inst, which must be NULL on entry (E_FAIL otherwise). A type
  // outside 1..9 answers 0 and leaves the pointer NULL; a type this build
  // does not implement answers E_NOTIMPL. The engine owns the instance.
  virtual int32_t CreateEffect(void** p_effect_inst, int32_t type) = 0;

  // Deletes an instance created with the same type code and sets the pointer
  // to NULL. E_FAIL for NULL, a bad type or an instance of another type (the
  // instance then stays alive).
  virtual int32_t DeleteEffect(void** p_effect_inst, int32_t type) = 0;

  // Fills *info (E_POINTER for NULL). The strings live as long as the library.
  virtual int32_t GetInfo(Korvane::EngineInfo* info) const = 0;

  // Sends the library's log lines to `callback` instead of the debugger
  // output (stderr outside Windows); NULL restores that default. A callback
  // that does nothing silences the library. The sink serves the whole
  // process: the last call of any engine decides it. Call it while no
  // effect is rendering.
  virtual int32_t SetLogCallback(Korvane::LogCallback callback, void* user) = 0;

  // Draws the built-in light shape `shape` (Korvane::BuiltinShape) over the
  // whole of *image, which the caller owns: BGRA32 of any size (the effects
  // use kBokehShapeSide for discs, kGlintShapeSide for glints). E_POINTER
  // for NULL or no pixels, E_NOTIMPL for another format, E_INVALIDARG for
  // an empty image, short rows or an unknown shape.
  virtual int32_t DrawLightShape(int32_t shape, Korvane::ImageBuffer* image) const = 0;
};

extern "C" {
// *p_inst must be NULL on entry. Success is judged by *p_inst being non-NULL
// afterwards; the return value carries no further meaning.
KORVANE_API int32_t CreateKorvaneEngine(KorvaneEngine** p_inst);
// Deletes the engine, every effect it still owns, and its worker threads.
KORVANE_API void DeleteKorvaneEngine(KorvaneEngine** p_inst);
}
