// SSE4.1 forms of the bilinear resize (temporary: plain arithmetic).
#include "core/BilinearResize.h"

namespace Korvane {
int32_t BilinearResize_8uc4_SSE4(ThreadJob* job, int32_t* result) { return BilinearResize_8uc4(job, result); }
int32_t BilinearResize_8uc1_SSE4(ThreadJob* job, int32_t* result) { return BilinearResize_8uc1(job, result); }
}  // namespace Korvane
