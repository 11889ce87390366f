// Shared by the tests of the light effects (bokeh, sparkle, light rays, glow):
// the regions a tiled render is checked on, the crop of a whole render, the
// same frame for any workers and kernel form, and a child process with a
// bounded address space.
#pragma once

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "core/ImageBuffer.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define KORVANE_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORVANE_TEST_SANITIZED 1
#endif

namespace LightTest {

// Regions of a w x h photo: the four edges, the four corners, the middle,
// a single pixel and the whole.
inline std::vector<Korvane::Rect> TileRegions(int32_t w, int32_t h) {
  const int32_t a = w / 5, b = h / 5;
  return {{0, 0, w, b},          {0, h - b, w, h},          {0, 0, a, h},     {w - a, 0, w, h},
          {0, 0, a + 3, b + 2},  {w - a, h - b - 1, w, h},  {0, h - b, a, h}, {w - a - 2, 0, w, b},
          {a, b, w - a, h - b},  {w / 2, h / 2, w / 2 + 1, h / 2 + 1}, {0, 0, w, h}};
}

// Rectangle r of a packed BGRA32 image w pixels wide.
inline std::vector<uint8_t> Crop(const std::vector<uint8_t>& img, int32_t w, const Korvane::Rect& r) {
  std::vector<uint8_t> out;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const auto row = img.begin() + (static_cast<ptrdiff_t>(y) * w + r.left) * 4;
    out.insert(out.end(), row, row + static_cast<ptrdiff_t>(r.right - r.left) * 4);
  }
  return out;
}

// Expects `render(r)`, the render of region r alone, to be the crop of
// `whole`, the w pixels wide render of the whole photo, for every region.
template <class Render>
void ExpectRegionsAreCrops(const std::vector<uint8_t>& whole, int32_t w, const std::vector<Korvane::Rect>& regions,
                           const std::string& what, Render render) {
  for (const Korvane::Rect& r : regions)
    ASSERT_EQ(KorvaneTest::FirstDifference(render(r), Crop(whole, w, r), r.right - r.left), "")
        << what << " region " << r.left << "," << r.top << "," << r.right << "," << r.bottom;
}

// Expects `render(workers, info)`, a frame `width` pixels wide, to be the
// same bytes on 2 and 8 workers with every kernel form as on one worker with
// the plain forms.
template <class Render>
void ExpectSameFrameForWorkersAndForms(int32_t width, const std::string& what, Render render) {
  const std::vector<uint8_t> first = render(1, KorvaneTest::Level(0));
  for (const KorvaneTest::Form& form : KorvaneTest::Forms())
    for (int workers : {2, 8})
      EXPECT_EQ(KorvaneTest::FirstDifference(render(workers, form.info), first, width), "")
          << what << workers << " workers, " << form.name;
}

// Runs `work` in the calling (child) process with room for `room_bytes`
// more of address space than it uses now, and exits with its code: 0 when
// it returned true. For EXPECT_EXIT. The sanitizers reserve far more address
// space than such a limit leaves: sanitized builds run `work` without it,
// for its memory checks (work that needs the limit to refuse an allocation
// is skipped there).
template <class Work>
[[noreturn]] void ExitWithAddressRoom(size_t room_bytes, Work&& work) {
#if defined(KORVANE_TEST_SANITIZED)
  (void)room_bytes;
  std::_Exit(work() ? 0 : 5);
#endif
  long pages = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f || std::fscanf(f, "%ld", &pages) != 1) std::_Exit(3);
  std::fclose(f);
  const rlim_t room = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + room_bytes;
  const rlimit limit{room, room};
  if (setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(4);
  std::_Exit(work() ? 0 : 5);
}

}  // namespace LightTest
