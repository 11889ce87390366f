// A minimal application: loads the engine through the installed headers.
#include <cstdio>

#include "core/ImageBuffer.h"
#include "core/Version.h"
#include "engine/KorvaneEngine.h"

int main() {
  KorvaneEngine* engine = nullptr;
  CreateKorvaneEngine(&engine);
  if (!engine) return 1;
  void* effect = nullptr;
  const int32_t hr = engine->CreateEffect(&effect, 0);  // unknown type: success, nothing made
  DeleteKorvaneEngine(&engine);
  std::printf("korvane %s: %s\n", KORVANE_VERSION_STRING, hr == 0 && !effect ? "ok" : "failed");
  return (hr == 0 && !effect && !engine) ? 0 : 1;
}
