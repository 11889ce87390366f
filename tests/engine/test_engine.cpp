#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "effects/animation/DelaunayTriangle.h"
#include "engine/CpuProbe.h"
#include "engine/KorvaneEngine.h"
#include "engine/KorvaneEngineImp.h"
#include "core/Version.h"

using namespace Korvane;

namespace {

struct EngineFixture : testing::Test {
  KorvaneEngine* engine = nullptr;
  void SetUp() override {
    CreateKorvaneEngine(&engine);
    ASSERT_NE(engine, nullptr);
  }
  void TearDown() override { DeleteKorvaneEngine(&engine); }
  KorvaneEngineImp* Imp() { return static_cast<KorvaneEngineImp*>(engine); }

  // Type codes this build implements (others answer E_NOTIMPL).
  std::vector<int> BuiltTypes() {
    std::vector<int> types;
    for (int t = 1; t <= 9; ++t) {
      void* p = nullptr;
      const int32_t hr = engine->CreateEffect(&p, t);
      if (hr == S_OK) {
        EXPECT_NE(p, nullptr) << t;
        types.push_back(t);
        EXPECT_EQ(engine->DeleteEffect(&p, t), S_OK);
      } else {
        EXPECT_EQ(hr, E_NOTIMPL) << t;
        EXPECT_EQ(p, nullptr) << t;
      }
    }
    return types;
  }
};

}  // namespace

TEST(CreateKorvaneEngine, RefusesANonNullOutPointerAndLogs) {
  KorvaneEngine* engine = nullptr;
  CreateKorvaneEngine(&engine);
  ASSERT_NE(engine, nullptr);
  KorvaneEngine* before = engine;
  testing::internal::CaptureStderr();
  CreateKorvaneEngine(&engine);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Korvane] Please make sure the parameter p_inst is NULL\n");
  EXPECT_EQ(engine, before);
  DeleteKorvaneEngine(&engine);
  EXPECT_EQ(engine, nullptr);
  DeleteKorvaneEngine(&engine);  // NULL: nothing happens
}

TEST_F(EngineFixture, DescribesTheMachineItsVersionAndTheFormsItRuns) {
  const SystemInfo& sys = Imp()->GetSystemInfo();
  EXPECT_GE(sys.processor_count, 1);
  EXPECT_EQ(sys.reserved, 0);
  EXPECT_EQ(sys.simd_level, ProbeSimdLevel());
  EXPECT_EQ(Imp()->GetWorkerCount(), std::min(sys.processor_count, 8));  // at most eight workers
  EngineInfo info;
  EXPECT_EQ(engine->GetInfo(nullptr), E_POINTER);
  ASSERT_EQ(engine->GetInfo(&info), S_OK);
  EXPECT_STREQ(info.version, KORVANE_VERSION_STRING);
  EXPECT_EQ(info.version_major, KORVANE_VERSION_MAJOR);
  EXPECT_EQ(info.simd_level, sys.simd_level);
  EXPECT_EQ(info.worker_count, Imp()->GetWorkerCount());
  const std::string forms = info.kernel_forms;
  EXPECT_EQ(forms.find("AVX2") != std::string::npos, KORVANE_HAVE_AVX2 && info.avx_level >= AVX_AVX2);
}

// A host can take the log lines, silence them, and give them back.
TEST_F(EngineFixture, LogLinesGoToTheHostsCallbackUntilItIsRemoved) {
  std::vector<std::string> lines;
  auto keep = [](void* user, const char* line) { static_cast<std::vector<std::string>*>(user)->push_back(line); };
  ASSERT_EQ(engine->SetLogCallback(keep, &lines), S_OK);
  void* p = reinterpret_cast<void*>(1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(engine->CreateEffect(&p, EFFECT_GLOW), E_FAIL);
  EXPECT_EQ(engine->SetLogCallback(nullptr, nullptr), S_OK);
  EXPECT_EQ(engine->CreateEffect(&p, EFFECT_GLOW), E_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[Korvane] Please make sure the parameter p_effect_inst is NULL\n");
  EXPECT_EQ(lines, std::vector<std::string>{"[Korvane] Please make sure the parameter p_effect_inst is NULL\n"});
}

// Unknown types answer S_OK and create nothing; a non-null effect pointer,
// and deletes of null, unknown or foreign instances, are refused.
TEST_F(EngineFixture, UnknownTypesCreateNothingAndBadPointersOrDeletesAreRefused) {
  for (int t : {0, 10, -1, 1000}) {
    void* p = nullptr;
    EXPECT_EQ(engine->CreateEffect(&p, t), S_OK);
    EXPECT_EQ(p, nullptr);
  }
  int dummy = 0;
  void* p = &dummy;
  testing::internal::CaptureStderr();
  EXPECT_EQ(engine->CreateEffect(&p, 9), E_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Korvane] Please make sure the parameter p_effect_inst is NULL\n");
  for (int type : {0, 10, 4}) EXPECT_EQ(engine->DeleteEffect(&p, type), E_FAIL) << type;
  EXPECT_EQ(p, &dummy);
  p = nullptr;
  EXPECT_EQ(engine->DeleteEffect(&p, 9), E_FAIL);
}

TEST_F(EngineFixture, WrongTypeDeleteKeepsTheInstanceAndDoubleDeleteFails) {
  for (int t : BuiltTypes()) {
    void* p = nullptr;
    ASSERT_EQ(engine->CreateEffect(&p, t), S_OK);
    const int other = t == 9 ? 1 : t + 1;
    void* const kept = p;
    EXPECT_EQ(engine->DeleteEffect(&p, other), E_FAIL);
    EXPECT_EQ(p, kept);
    EXPECT_EQ(Imp()->GetInstanceCount(t), 1u);
    EXPECT_EQ(engine->DeleteEffect(&p, t), S_OK);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(engine->DeleteEffect(&p, t), E_FAIL);
    EXPECT_EQ(Imp()->GetInstanceCount(t), 0u);
  }
}

TEST(KorvaneEngine, DeletingTheEngineDeletesEveryLiveInstance) {
  // Runs under the sanitizers: a leaked or doubly deleted instance fails there.
  KorvaneEngine* engine = nullptr;
  CreateKorvaneEngine(&engine);
  ASSERT_NE(engine, nullptr);
  int created = 0;
  for (int round = 0; round < 3; ++round)
    for (int t = 1; t <= 9; ++t) {
      void* p = nullptr;
      if (engine->CreateEffect(&p, t) == S_OK) ++created;
    }
  auto* imp = static_cast<KorvaneEngineImp*>(engine);
  size_t live = 0;
  for (int t = 1; t <= 9; ++t) live += imp->GetInstanceCount(t);
  EXPECT_EQ(live, static_cast<size_t>(created));
  DeleteKorvaneEngine(&engine);
  EXPECT_EQ(engine, nullptr);
}

TEST(CpuProbe, LevelsFollowTheFeatureBits) {
  const uint32_t sse = 1u << 25, sse2 = 1u << 26;
  const uint32_t sse3 = 1u << 0, ssse3 = 1u << 9, sse41 = 1u << 19, sse42 = 1u << 20;
  EXPECT_EQ(SimdLevelFromCpuid(0, ~0u, ~0u), 0);
  EXPECT_EQ(SimdLevelFromCpuid(1, 0, ~0u), 0);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse, ~0u), 1);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, 0), 2);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3), 3);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3 | sse41), 3);  // SSE4.1 needs SSSE3
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3 | ssse3), 4);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3 | ssse3 | sse41), 5);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3 | ssse3 | sse41 | sse42), 6);
  EXPECT_EQ(SimdLevelFromCpuid(1, sse | sse2, sse3 | ssse3 | sse42), 4);
}

// AVX2 needs the processor's word for it and the system's: a kernel that
// saves no YMM registers would corrupt them in every other program.
TEST(CpuProbe, Avx2NeedsTheFeatureAndTheSystemsYmmState) {
  const uint32_t osxsave = 1u << 27, avx = 1u << 28, avx2 = 1u << 5;
  EXPECT_EQ(AvxLevelFromCpuid(7, osxsave | avx, avx2, 0x7), AVX_AVX2);
  EXPECT_EQ(AvxLevelFromCpuid(7, osxsave | avx, avx2, 0x3), AVX_NONE);  // YMM state not saved
  EXPECT_EQ(AvxLevelFromCpuid(7, avx, avx2, 0x7), AVX_NONE);            // no OSXSAVE
  EXPECT_EQ(AvxLevelFromCpuid(7, osxsave, avx2, 0x7), AVX_NONE);        // no AVX
  EXPECT_EQ(AvxLevelFromCpuid(6, osxsave | avx, avx2, 0x7), AVX_NONE);  // no leaf 7
  EXPECT_EQ(AvxLevelFromCpuid(7, osxsave | avx, 0, 0x7), AVX_NONE);
}

TEST_F(EngineFixture, BuildsEveryEffectTypeAndNoOthers) {
  EXPECT_EQ(BuiltTypes(), (std::vector<int>{EFFECT_DELAUNAY_TRIANGLE, EFFECT_ANIMATION, EFFECT_DISPERSION,
                                            EFFECT_GLITCH, EFFECT_LIGHT_RAYS, EFFECT_SPARKLE, EFFECT_BOKEH,
                                            EFFECT_GLOW, EFFECT_FOCUS_BLUR}));
}

// The pointer the factory returns is the interface itself (the pooled effects
// are driven through it in test_engine_threads).
TEST_F(EngineFixture, EffectsWorkThroughTheInterfacePointerTheFactoryReturns) {
  void* p = nullptr;
  ASSERT_EQ(engine->CreateEffect(&p, EFFECT_DELAUNAY_TRIANGLE), S_OK);
  auto* mesh = static_cast<DelaunayTriangle*>(p);
  const float square[] = {0, 0, 10, 0, 10, 10, 0, 10};
  ASSERT_EQ(mesh->Triangulate(square, 4), S_OK);
  ASSERT_EQ(mesh->GetTriangleCount(), 2u);
  EXPECT_EQ(engine->DeleteEffect(&p, EFFECT_DELAUNAY_TRIANGLE), S_OK);
}
