// SSE4.1 horizontal box blur of 8-bit rows (BGRA32, masked BGRA32, GRAY8):
// each row is blurred from a copy of itself, the full-window stretch by the
// prefix-sum walkers of BoxBlurSse.h; windows without an exact 16-bit
// divider fall back to the plain code, which gives the same bytes.
#include "core/BoxBlurSse.h"

#include <memory>
#include <new>

namespace Korvane {
namespace boxblur_sse {

namespace {

template <bool kMask>
int32_t HorizontalBgra(const BlurJob& job, const std::vector<Div16>& div) {
  // A plain array: a vector grown here would be SSE4.1 code the linker may
  // give the baseline callers too (see CheckSimdObjects).
  const size_t bytes = static_cast<size_t>(job.width) * 4;
  std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[bytes]);
  if (!copy) return E_OUTOFMEMORY;
  for (int32_t y = job.begin; y < job.end; ++y) {
    unsigned char* row = job.data + y * job.stride;
    std::memcpy(copy.get(), row, bytes);
    BgraRowOps<kMask> ops{{}, copy.get(), row, y + 1 < job.end ? row + job.stride : row, kMask ? job.mask + static_cast<ptrdiff_t>(y) * job.width : nullptr,
                          div.data(), {0, 0, 0, 0}};
    WalkWindow(ops, job.width, job.radius);
  }
  return S_OK;
}

int32_t HorizontalGray(const BlurJob& job, const std::vector<Div16>& div) {
  // A plain array: a vector grown here would be SSE4.1 code the linker may
  // give the baseline callers too (see CheckSimdObjects).
  const size_t bytes = static_cast<size_t>(job.width);
  std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[bytes]);
  if (!copy) return E_OUTOFMEMORY;
  for (int32_t y = job.begin; y < job.end; ++y) {
    unsigned char* row = job.data + y * job.stride;
    std::memcpy(copy.get(), row, bytes);
    GrayRowOps ops{{}, copy.get(), row, y + 1 < job.end ? row + job.stride : row, div.data(), 0};
    WalkWindow(ops, job.width, job.radius);
  }
  return S_OK;
}

}  // namespace

int32_t Horizontal8(const BlurJob& job) {
  const std::vector<Div16> div = MakeDividers(job.width, job.radius);
  if (div.empty()) return BlurPlain(job, true);
  switch (job.variant) {
    case Variant::kGray: return HorizontalGray(job, div);
    case Variant::kBgra: return HorizontalBgra<false>(job, div);
    default: return HorizontalBgra<true>(job, div);
  }
}

}  // namespace boxblur_sse
}  // namespace Korvane
