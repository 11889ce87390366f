// A minimal application: loads the engine and runs one effect through the
// public headers only (installed, or from a source tree it builds itself).
#include <cstdio>
#include <vector>

#include <korvane/core/ImageBuffer.h>
#include <korvane/core/Version.h>
#include <korvane/effects/focus_blur/FocusBlur.h>
#include <korvane/engine/KorvaneEngine.h>

int main() {
  KorvaneEngine* engine = nullptr;
  CreateKorvaneEngine(&engine);
  if (!engine) return 1;
  void* p = nullptr;
  int32_t hr = engine->CreateEffect(&p, Korvane::EFFECT_FOCUS_BLUR);
  bool ok = hr == S_OK && p != nullptr;
  if (ok) {
    std::vector<unsigned char> in(64 * 32 * 4, 128), guide(64 * 32, 0), out(64 * 32 * 4, 0);
    Korvane::FocusBlurParam param;
    param.input = Korvane::MakeImageBuffer(in.data(), 64, 32);
    param.mask = Korvane::MakeImageBuffer(guide.data(), 64, 32, Korvane::PIXEL_GRAY8);
    param.output = Korvane::MakeImageBuffer(out.data(), 64, 32);
    ok = static_cast<Korvane::FocusBlur*>(p)->Process(&param) == S_OK && out[0] != 0;
    ok = engine->DeleteEffect(&p, Korvane::EFFECT_FOCUS_BLUR) == S_OK && ok;
  }
  DeleteKorvaneEngine(&engine);
  std::printf("korvane %s: %s\n", KORVANE_VERSION_STRING, ok ? "ok" : "failed");
  return ok && !engine ? 0 : 1;
}
