// The dispersion effect's rules as properties of rendered frames: frame 0 is
// the photo, an empty mask changes nothing, nothing upwind of the subject
// moves, crumbled pixels show the background, the loop closes, the bands and
// kernel forms agree, and bad records and failed allocations are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "core/ImageChecks.h"
#include "effects/LightTestSupport.h"
#include "effects/dispersion/DispersionEffect.h"
#include "effects/dispersion/DispersionKernels.h"

using namespace Korvane;
using KorvaneTest::EffectRig;
using KorvaneTest::FirstDifference;
using KorvaneTest::TestImage;

// Allocation failure on demand: while g_fail_after >= 0 on the arming thread,
// the allocation that brings it below zero throws.
namespace {
thread_local long g_fail_after = -1;
}
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t n) {
  if (g_fail_after >= 0 && g_fail_after-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
// The nothrow forms too, so every allocation pairs with the free below.
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  try {
    return operator new(n);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

// A noisy photo with padded rows and an elliptic subject right of centre.
struct Scene {
  TestImage photo, mask, out;
  DispersionParam p;
  Scene(int32_t w = 97, int32_t h = 61, bool subject = true)
      : photo(w, h, PIXEL_BGRA32, 12), mask(w, h, PIXEL_GRAY8, 3), out(w, h, PIXEL_BGRA32, 8) {
    photo.FillNoise(7);
    std::vector<uint8_t> m(static_cast<size_t>(w) * h, 0);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const float dx = (x - w * 0.6f) / (w * 0.2f), dy = (y - h * 0.5f) / (h * 0.3f);
        if (subject && dx * dx + dy * dy <= 1.0f) m[static_cast<size_t>(y) * w + x] = 200;
      }
    mask.Fill(m);
    p.input = &photo.buf, p.mask = &mask.buf, p.output = &out.buf, p.roi = Rect{0, 0, w, h};
    p.anime_frame_count = 10, p.particle_size = 2.5f, p.density = 0.6f, p.turbulence = 0.5f, p.seed = 11;
  }
  int32_t W() const { return photo.buf.width; }
  int32_t H() const { return photo.buf.height; }
};

std::vector<uint8_t> Render(EffectRig<DispersionEffect>& fx, Scene& s, int32_t frame) {
  s.p.anime_frame_index = frame;
  EXPECT_EQ(fx->Process(&s.p), S_OK) << "frame " << frame;
  EXPECT_TRUE(s.out.GuardsIntact());
  return s.out.Packed();
}

uint8_t* Pixel(std::vector<uint8_t>& img, int32_t w, int32_t x, int32_t y) {
  return &img[(static_cast<size_t>(y) * w + x) * 4];
}

// True when pixel (x, y) of `out` is the photo's.
bool Kept(std::vector<uint8_t>& out, const std::vector<uint8_t>& photo, int32_t w, int32_t x, int32_t y) {
  return std::equal(Pixel(out, w, x, y), Pixel(out, w, x, y) + 4, &photo[(static_cast<size_t>(y) * w + x) * 4]);
}

TEST(Dispersion, FrameZeroIsThePhotoAndAnEmptyMaskChangesNothing) {
  for (int simd : KorvaneTest::Forms()) {
    for (bool subject : {true, false}) {
      for (int32_t loop : {0, 1}) {
        Scene s(97, 61, subject);
        s.p.loop_mode = loop;
        EffectRig<DispersionEffect> fx(2, simd);
        ASSERT_EQ(fx->Init(&s.p), S_OK);
        const int32_t last = subject ? 0 : s.p.anime_frame_count - 1;
        for (int32_t f = 0; f <= last; ++f) {
          EXPECT_EQ(FirstDifference(Render(fx, s, f), s.photo.Packed(), s.W()), "")
              << "frame " << f << ", subject " << subject << ", loop " << loop << ", simd " << simd;
        }
      }
    }
  }
}

TEST(Dispersion, PixelsUpwindOfTheSubjectNeverChange) {
  for (float direction : {0.0f, 90.0f, 210.0f, -45.0f}) {
    Scene s;
    s.p.direction = direction, s.p.spread = 90.0f;  // the widest cone that stays downwind: +-90 degrees
    s.p.turbulence = 1.0f, s.p.distance = 0.1f;
    s.p.fade = 0.0f;  // particles stay, so late frames are crowded too
    EffectRig<DispersionEffect> fx;
    ASSERT_EQ(fx->Init(&s.p), S_OK);
    const float t = direction * 3.14159265f / 180.0f;
    const float wx = std::cos(t), wy = -std::sin(t);
    const float diag = std::hypot(static_cast<float>(s.W()), static_cast<float>(s.H()));
    const float reach = DispersionEffect::kCurlShare * s.p.turbulence * s.p.distance * diag + s.p.particle_size + 1.5f;
    const float limit = fx->GetTrailingProjection() - reach;
    const std::vector<uint8_t> photo = s.photo.Packed();
    int32_t checked = 0, changed = 0;
    for (int32_t f = 0; f < s.p.anime_frame_count; ++f) {
      std::vector<uint8_t> out = Render(fx, s, f);
      for (int32_t y = 0; y < s.H(); ++y)
        for (int32_t x = 0; x < s.W(); ++x) {
          const bool upwind = x * wx + y * wy < limit, same = Kept(out, photo, s.W(), x, y);
          if (upwind) {
            ++checked;
            EXPECT_TRUE(same) << "direction " << direction << ", frame " << f << ", pixel " << x << "," << y;
          } else if (!same) {
            ++changed;
          }
        }
    }
    EXPECT_GT(checked, 50) << direction;
    EXPECT_GT(changed, 1000) << direction;  // and the effect did something downwind
  }
  // spread is the angle either side of the wind: at 180 some particles fly
  // straight back, well beyond the subject's upwind edge.
  Scene s;
  s.p.spread = 180.0f, s.p.turbulence = 0.0f, s.p.distance = 0.3f, s.p.fade = 0.0f;
  EffectRig<DispersionEffect> fx;
  ASSERT_EQ(fx->Init(&s.p), S_OK);
  const float limit = fx->GetTrailingProjection() - s.p.particle_size - 10.0f;
  const std::vector<uint8_t> photo = s.photo.Packed();
  int32_t upwind_changed = 0;
  std::vector<uint8_t> out = Render(fx, s, s.p.anime_frame_count - 1);
  for (int32_t y = 0; y < s.H(); ++y)
    for (int32_t x = 0; x < s.W() && x < limit; ++x) upwind_changed += !Kept(out, photo, s.W(), x, y);
  EXPECT_GT(upwind_changed, 20);
}

TEST(Dispersion, CrumbledPixelsShowTheBackgroundUntilAParticleCoversThem) {
  Scene s;
  s.p.density = 0.0f;  // no particle covers anything
  s.p.dissolve_width = 0.5f;
  EffectRig<DispersionEffect> fx;
  ASSERT_EQ(fx->Init(&s.p), S_OK);
  const SmartBuffer& bg = fx->GetBackground();
  int32_t revealed = 0, standing = 0;
  for (int32_t f = 0; f < s.p.anime_frame_count; ++f) {
    std::vector<uint8_t> out = Render(fx, s, f);
    const float progress = DispersionEffect::CalProgress(s.p.anime_frame_count, f, s.p.loop_mode);
    for (int32_t y = 0; y < s.H(); ++y)
      for (int32_t x = 0; x < s.W(); ++x) {
        const bool gone = fx->GetStartTime(x, y) < progress;
        const uint8_t* want = gone ? RowPtr(bg, y) + x * 4 : s.photo.Row(y) + x * 4;
        ASSERT_TRUE(std::equal(want, want + 4, Pixel(out, s.W(), x, y))) << f << ": " << x << "," << y;
        (gone ? revealed : standing) += RowPtr(s.mask.buf, y)[x] != 0;
      }
  }
  EXPECT_GT(revealed, 500);
  EXPECT_GT(standing, 500);
  // The front: the leading side crumbles first (wind to the right here).
  EXPECT_LT(fx->GetStartTime(76, 30), fx->GetStartTime(40, 30));
}

TEST(Dispersion, WithFadeTheLastFrameIsTheBackground) {
  Scene s;
  s.p.fade = 1.0f, s.p.density = 1.0f;
  EffectRig<DispersionEffect> fx;
  ASSERT_EQ(fx->Init(&s.p), S_OK);
  std::vector<uint8_t> last = Render(fx, s, s.p.anime_frame_count - 1);
  const SmartBuffer& bg = fx->GetBackground();
  for (int32_t y = 0; y < s.H(); ++y)
    for (int32_t x = 0; x < s.W(); ++x) {
      const uint8_t* want = RowPtr(s.mask.buf, y)[x] ? RowPtr(bg, y) + x * 4 : s.photo.Row(y) + x * 4;
      ASSERT_TRUE(std::equal(want, want + 4, Pixel(last, s.W(), x, y))) << x << "," << y;
    }
  // Midway, particles are in the air beside the subject.
  std::vector<uint8_t> mid = Render(fx, s, 4), photo = s.photo.Packed();
  int32_t moved = 0;
  for (int32_t y = 0; y < s.H(); ++y)
    for (int32_t x = 0; x < s.W(); ++x) moved += RowPtr(s.mask.buf, y)[x] == 0 && !Kept(mid, photo, s.W(), x, y);
  EXPECT_GT(moved, 200);
}

TEST(Dispersion, ParticlesTakeTheSubjectsOwnColourAtEverySize) {
  // A flat-coloured subject on noise, plus a one-pixel line: a particle's
  // disc average may not pick up the surroundings, whatever its size.
  for (float size : {0.5f, 3.0f, 10.0f, 32.0f}) {
    Scene s;
    std::vector<uint8_t> m = s.mask.Packed();
    for (int32_t y = 5; y < 55; ++y) m[static_cast<size_t>(y) * s.W() + 9] = 1;
    s.mask.Fill(m);
    std::vector<uint8_t> photo = s.photo.Packed();
    for (int32_t y = 0; y < s.H(); ++y)
      for (int32_t x = 0; x < s.W(); ++x)
        if (RowPtr(s.mask.buf, y)[x]) {
          uint8_t* px = Pixel(photo, s.W(), x, y);
          px[0] = 10, px[1] = 120, px[2] = 230, px[3] = 255;
        }
    s.photo.Fill(photo);
    s.p.particle_size = size, s.p.density = 0.25f;
    EffectRig<DispersionEffect> fx;
    ASSERT_EQ(fx->Init(&s.p), S_OK) << size;
    const auto& particles = fx->GetParticles();
    ASSERT_GT(particles.size(), 100u) << size;
    for (const DispersionParticle& q : particles) {
      ASSERT_EQ(std::vector<uint8_t>(q.bgra, q.bgra + 4), std::vector<uint8_t>({10, 120, 230, 255})) << size;
      ASSERT_NE(RowPtr(s.mask.buf, static_cast<int32_t>(q.y))[static_cast<int32_t>(q.x)], 0) << size;
    }
    Render(fx, s, 5);  // large discs across strips and image edges
  }
}

TEST(Dispersion, TheLoopClosesAsSmoothlyAsAnyTwoNeighbours) {
  Scene s;
  s.p.loop_mode = DISPERSION_LOOP, s.p.anime_frame_count = 12, s.p.fade = 0.5f;
  EffectRig<DispersionEffect> fx;
  ASSERT_EQ(fx->Init(&s.p), S_OK);
  std::vector<std::vector<uint8_t>> frames;
  for (int32_t f = 0; f < s.p.anime_frame_count; ++f) frames.push_back(Render(fx, s, f));
  double largest = 0;
  for (size_t f = 1; f < frames.size(); ++f)
    largest = std::max(largest, KorvaneTest::MeanAbsDiff(frames[f - 1], frames[f]));
  EXPECT_GT(largest, 0.0);
  EXPECT_LE(KorvaneTest::MeanAbsDiff(frames.back(), frames.front()), largest);
  EXPECT_EQ(frames.back(), frames[1]);  // the way back retraces the way out
  EXPECT_EQ(frames[5], frames[7]);
  // Counting on past the end: the loop starts over, a single crumble stays gone.
  EXPECT_EQ(Render(fx, s, 12), frames[0]);
  EXPECT_EQ(Render(fx, s, 12 * 1000 + 5), frames[5]);
  s.p.loop_mode = DISPERSION_ONCE;
  const std::vector<uint8_t> last = Render(fx, s, 11);
  EXPECT_EQ(Render(fx, s, 12), last);
  EXPECT_EQ(Render(fx, s, std::numeric_limits<int32_t>::max()), last);
}

TEST(Dispersion, SameImageForAnyWorkerCountKernelFormAndRegion) {
  Scene ref_scene(131, 77);
  ref_scene.p.particle_size = 6.0f, ref_scene.p.density = 0.3f;  // discs that cross band and strip edges
  const int32_t frames[] = {2, 4, 7};
  std::vector<std::vector<uint8_t>> ref;
  {
    EffectRig<DispersionEffect> fx(1, 0);
    ASSERT_EQ(fx->Init(&ref_scene.p), S_OK);
    for (int32_t f : frames) ref.push_back(Render(fx, ref_scene, f));
  }
  for (int workers : {2, 8}) {
    for (int simd : KorvaneTest::Forms()) {
      Scene s(131, 77);
      s.p.particle_size = ref_scene.p.particle_size, s.p.density = ref_scene.p.density;
      EffectRig<DispersionEffect> fx(workers, simd);
      ASSERT_EQ(fx->Init(&s.p), S_OK);
      for (int i = 0; i < 3; ++i)
        EXPECT_EQ(FirstDifference(Render(fx, s, frames[i]), ref[i], s.W()), "") << workers << " workers, simd " << simd;
      // A region of the frame is that part of the whole frame, at the
      // corners, along the edges (one pixel thick too) and in the middle.
      const Rect regions[] = {{0, 0, 30, 20},  {100, 0, 131, 25}, {0, 60, 40, 77}, {111, 57, 131, 77},
                              {0, 0, 131, 1},  {130, 0, 131, 77}, {0, 76, 131, 77}, {13, 9, 101, 70}};
      s.p.anime_frame_index = 4;
      for (const Rect& roi : regions) {
        TestImage part(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 4);
        s.p.roi = roi;
        s.p.output = &part.buf;
        ASSERT_EQ(fx->Process(&s.p), S_OK);
        EXPECT_TRUE(part.GuardsIntact());
        ASSERT_EQ(FirstDifference(part.Packed(), LightTest::Crop(ref[1], s.W(), roi), RectWidth(roi)), "")
            << "region " << roi.left << "," << roi.top << "," << roi.right << "," << roi.bottom;
      }
    }
  }
}

TEST(Dispersion, ChangedSettingsPrepareAgainAndTheSameRecordGivesTheSameImage) {
  Scene a, b;
  EffectRig<DispersionEffect> fa, fb;
  ASSERT_EQ(fa->Init(&a.p), S_OK);
  const std::vector<uint8_t> first = Render(fa, a, 5);
  EXPECT_EQ(Render(fa, a, 5), first);
  a.p.seed = 12, a.p.direction = 150.0f;
  const std::vector<uint8_t> changed = Render(fa, a, 5);  // prepares again by itself
  EXPECT_NE(changed, first);
  b.p.seed = 12, b.p.direction = 150.0f;
  ASSERT_EQ(fb->Init(&b.p), S_OK);
  EXPECT_EQ(Render(fb, b, 5), changed);
}

TEST(Dispersion, RefusesBadRecordsWithTheirCodes) {
  struct Case {
    const char* what;
    void (*edit)(Scene&);
    int32_t code;
  };
  static TestImage gray(97, 61, PIXEL_GRAY8), small_mask(96, 61, PIXEL_GRAY8), small_out(97, 60);
  const Case cases[] = {
      {"no input", [](Scene& s) { s.p.input = nullptr; }, E_POINTER},
      {"no mask pixels", [](Scene& s) { s.mask.buf.data = nullptr; }, E_POINTER},
      {"no output", [](Scene& s) { s.p.output = nullptr; }, E_POINTER},
      {"gray input", [](Scene& s) { s.p.input = &gray.buf; }, E_NOTIMPL},
      {"bgra mask", [](Scene& s) { s.p.mask = &s.photo.buf; }, E_NOTIMPL},
      {"gray output", [](Scene& s) { s.p.output = &gray.buf; }, E_NOTIMPL},
      {"mask size", [](Scene& s) { s.p.mask = &small_mask.buf; }, E_INVALIDARG},
      {"short stride", [](Scene& s) { s.photo.buf.stride = 8; }, E_INVALIDARG},
      {"roi outside", [](Scene& s) { s.p.roi.right = 98; }, E_INVALIDARG},
      {"output size", [](Scene& s) { s.p.output = &small_out.buf; }, E_INVALIDARG},
      {"output is the input", [](Scene& s) { s.p.output = &s.photo.buf; }, E_INVALIDARG},
      {"no frames", [](Scene& s) { s.p.anime_frame_count = 0; }, E_INVALIDARG},
      {"frame index", [](Scene& s) { s.p.anime_frame_index = -1; }, E_INVALIDARG},
      {"loop mode", [](Scene& s) { s.p.loop_mode = 2; }, E_INVALIDARG},
      {"direction", [](Scene& s) { s.p.direction = std::numeric_limits<float>::infinity(); }, E_INVALIDARG},
      {"spread", [](Scene& s) { s.p.spread = 181.0f; }, E_INVALIDARG},
      {"distance", [](Scene& s) { s.p.distance = -0.1f; }, E_INVALIDARG},
      {"size small", [](Scene& s) { s.p.particle_size = 0.4f; }, E_INVALIDARG},
      {"size large", [](Scene& s) { s.p.particle_size = 33.0f; }, E_INVALIDARG},
      {"density", [](Scene& s) { s.p.density = std::nanf(""); }, E_INVALIDARG},
      {"width", [](Scene& s) { s.p.dissolve_width = 1.5f; }, E_INVALIDARG},
      {"fade", [](Scene& s) { s.p.fade = -1.0f; }, E_INVALIDARG},
      {"turbulence", [](Scene& s) { s.p.turbulence = 2.0f; }, E_INVALIDARG},
      {"side over 65536", [](Scene& s) {  // never read: refused first
         s.photo.buf.width = s.mask.buf.width = 65537;
         s.photo.buf.stride = 4 * 65537, s.mask.buf.stride = 65537;
       }, E_INVALIDARG},
  };
  for (const Case& c : cases) {
    Scene good, s;
    EffectRig<DispersionEffect> fx;
    ASSERT_EQ(fx->Init(&good.p), S_OK);
    c.edit(s);
    testing::internal::CaptureStderr();
    EXPECT_EQ(fx->Process(&s.p), c.code) << c.what;
    EXPECT_NE(testing::internal::GetCapturedStderr().find("[Korvane] Dispersion: "), std::string::npos) << c.what;
    EXPECT_TRUE(s.out.GuardsIntact()) << c.what;
    EXPECT_EQ(s.out.Packed(), std::vector<uint8_t>(s.out.PackedSize(), TestImage::kGuardByte)) << c.what;
  }
  EffectRig<DispersionEffect> fx;
  Scene s;
  testing::internal::CaptureStderr();
  EXPECT_EQ(fx->Process(nullptr), E_POINTER);
  EXPECT_EQ(fx->Process(&s.p), E_FAIL);  // before Init
  ASSERT_EQ(fx->Init(&s.p), S_OK);
  EXPECT_EQ(fx->Uninit(), S_OK);
  EXPECT_EQ(fx->Process(&s.p), E_FAIL);  // after release
  s.p.output = nullptr;
  EXPECT_EQ(fx->Init(&s.p), S_OK);  // Init needs no output
  testing::internal::GetCapturedStderr();

  // Without workers nothing can run; the failure is logged and returned.
  DispersionEffect lone(nullptr);
  Scene t;
  testing::internal::CaptureStderr();
  EXPECT_EQ(lone.Init(&t.p), E_INVALIDARG);
  EXPECT_EQ(lone.Process(&t.p), E_FAIL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Return Code: 80070057"), std::string::npos);
}

TEST(Dispersion, EveryAllocationFailureIsCaughtLoggedAndReturned) {
  Scene s;
  EffectRig<DispersionEffect> fx;
  std::string lines;
  int32_t failures = 0;
  for (long n = 0; n < 10000; ++n) {
    testing::internal::CaptureStderr();
    g_fail_after = n;
    const int32_t hr = fx->Init(&s.p);
    g_fail_after = -1;
    const std::string log = testing::internal::GetCapturedStderr();
    if (hr == S_OK) break;
    ++failures;
    ASSERT_EQ(hr, E_OUTOFMEMORY) << "allocation " << n;
    ASSERT_NE(log.find(" caught!"), std::string::npos) << "allocation " << n << ": " << log;
    lines += log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(fx->Process(&s.p), E_FAIL) << "nothing prepared is kept";
    testing::internal::GetCapturedStderr();
  }
  EXPECT_GT(failures, 3);
  for (const char* step : {"DetectMaskEdge - ", "CreateTmpBuffer - ", "CreateCircleTable - "})
    EXPECT_NE(lines.find(step), std::string::npos) << step;
  EXPECT_EQ(Render(fx, s, 3).size(), s.out.PackedSize());
}

TEST(DispersionKernels, FillBaseFormsAgreeOnAwkwardWidths) {
  for (int32_t n : {1, 3, 4, 5, 7, 8, 9, 13, 17, 33}) {
    const std::vector<uint8_t> a = KorvaneTest::RandomBytes(n * 4, n), b = KorvaneTest::RandomBytes(n * 4, n + 100);
    std::vector<float> start(n);
    for (int32_t i = 0; i < n; ++i) start[i] = (i % 3 == 0) ? kDispersionNever : 0.1f * (i % 7);
    for (float progress : {0.0f, 0.3f, 1.0f}) {
      KorvaneTest::ExpectFormsMatchPlain(
          [&](const KorvaneTest::Form& form) {
            const auto fill =
                KORVANE_PICK_AVX2(form.info, DispersionFillBase, DispersionFillBase_SSE, DispersionFillBase_AVX2);
            std::vector<uint8_t> got(n * 4 + 4, 0xEE);
            fill.fn(a.data(), b.data(), start.data(), progress, got.data(), n);
            for (int32_t i = 0; i < n && form.code == 0; ++i) {
              EXPECT_EQ(got[i * 4 + 1], (start[i] < progress ? b : a)[i * 4 + 1]) << i;
            }
            EXPECT_EQ(got[n * 4], 0xEE);
            return got;
          },
          std::to_string(n) + " pixels at " + std::to_string(progress), n);
    }
  }
}

TEST(DispersionKernels, DrawFormsAgreeOnAwkwardSizes) {
  CircleTable t;
  t.Build(7.0f);
  std::mt19937 rng(5);
  for (int32_t w : {1, 2, 3, 5, 7, 9, 13, 17, 31}) {
    const int32_t h = 9, stride = w * 4 + 8;
    const std::vector<uint8_t> start = KorvaneTest::RandomBytes(static_cast<size_t>(stride) * h, w);
    std::vector<FrameParticle> particles(40);
    for (size_t i = 0; i < particles.size(); ++i) {
      FrameParticle& f = particles[i];
      f.x = static_cast<int32_t>(rng() % (w + 12)) - 6;
      f.y = static_cast<int32_t>(rng() % (h + 12)) - 6;
      f.entry = static_cast<int32_t>(rng() % t.entries.size());
      f.alpha = i % 5 == 0 ? 256 : static_cast<int32_t>(rng() % 257);
      for (uint8_t& c : f.bgra) c = static_cast<uint8_t>(rng());
    }
    KorvaneTest::ExpectFormsMatchPlain(
        [&](const KorvaneTest::Form& form) {
          const auto draw = KORVANE_PICK_AVX2(form.info, DispersionDrawParticle, DispersionDrawParticle_SSE,
                                              DispersionDrawParticle_AVX2);
          // Clip columns [1, w) when there is room, rows [1, h - 1): an origin inside the image.
          const int32_t x0 = w > 2 ? 1 : 0;
          std::vector<uint8_t> got = start;
          for (const FrameParticle& f : particles) draw.fn(t, f, x0, w, 1, h - 1, got.data(), 0, 0, stride);
          for (int32_t y = 0; y < h; ++y)
            for (int32_t b = 0; b < stride; ++b) {
              const bool inside = y >= 1 && y < h - 1 && b >= x0 * 4 && b < w * 4;
              EXPECT_TRUE(inside || got[y * stride + b] == start[y * stride + b]) << w << ": row " << y << ", " << b;
            }
          return got;
        },
        std::to_string(w) + " wide", stride / 4);
  }
  // A fully covering, fully opaque particle leaves exactly its colour.
  FrameParticle f;
  f.x = 3, f.y = 3, f.alpha = 256, f.entry = static_cast<int32_t>(&t.At(8, 0, 0) - t.entries.data());
  f.bgra[0] = 10, f.bgra[1] = 20, f.bgra[2] = 30, f.bgra[3] = 40;
  std::vector<uint8_t> img(7 * 7 * 4, 200);
  DispersionDrawParticle(t, f, 0, 7, 0, 7, img.data(), 0, 0, 7 * 4);
  EXPECT_EQ(std::vector<uint8_t>(img.begin() + (3 * 7 + 3) * 4, img.begin() + (3 * 7 + 4) * 4),
            std::vector<uint8_t>({10, 20, 30, 40}));
}

TEST(DispersionKernels, CircleTableCoversTheDiscArea) {
  CircleTable t;
  t.Build(5.0f);
  for (int32_t step : {1, 2, 6, 20}) {
    const float r = static_cast<float>(step) / CircleTable::kSub;
    for (int32_t sub : {0, 3}) {
      const CircleTable::Entry& e = t.At(step, sub, sub);
      const int32_t side = 2 * e.half + 1;
      double area = 0;
      for (int32_t j = 0; j < side; ++j)
        for (int32_t i = 0; i < side; ++i) {
          const uint16_t c = t.cover[e.cover + j * side + i];
          area += c / 256.0;
          const bool in_span = i >= t.spans[e.spans + 2 * j] && i < t.spans[e.spans + 2 * j + 1];
          EXPECT_TRUE(!c || in_span) << step;
        }
      // Small discs grow to a pixel's footprint through the rim ramp.
      EXPECT_NEAR(area, 3.14159 * r * r, 0.25 + 0.6 * r) << step;
    }
  }
}

}  // namespace
