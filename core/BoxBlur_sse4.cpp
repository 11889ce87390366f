// SSE forms of the box blurs (temporary: plain arithmetic).
#include "core/BoxBlur.h"

namespace Korvane {
int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result) { return BoxBlurH(job, result); }
int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result) { return BoxBlurV(job, result); }
}  // namespace Korvane
