// The base row of a frame: photo or background, pixel by pixel.
#include <cstring>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

void DispersionFillBase(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                        uint8_t* out, int32_t count) {
  for (int32_t x = 0; x < count; ++x) {
    const uint8_t* src = start[x] < progress ? background : photo;
    std::memcpy(out + x * 4, src + x * 4, 4);
  }
}

}  // namespace Korvane
