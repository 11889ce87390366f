#include "core/ColorSpace.h"

namespace Korvane {
namespace color_detail {

namespace {

constexpr std::array<uint64_t, 256> MakeReciprocals() {
  std::array<uint64_t, 256> t{};
  for (uint64_t d = 1; d < 256; ++d) t[d] = ((uint64_t{1} << 40) + d - 1) / d;
  return t;
}

}  // namespace

// Constant-initialised, so it is ready before any other static initialiser runs.
constexpr std::array<uint64_t, 256> kReciprocal40 = MakeReciprocals();

}  // namespace color_detail
}  // namespace Korvane
