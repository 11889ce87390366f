// One engine shared by several host threads, each driving its own effect:
// a preview and an export rendered at once must neither deadlock nor mix
// their bands.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "effects/glitch/Glitch.h"
#include "engine/KorvaneEngine.h"

using namespace Korvane;
using KorvaneTest::TestImage;

TEST(EngineThreads, EightHostThreadsEachDriveTheirOwnEffect) {
  constexpr int kHosts = 8, kCalls = 1000;
  KorvaneEngine* engine = nullptr;
  CreateKorvaneEngine(&engine);
  ASSERT_NE(engine, nullptr);

  // Effects are created and deleted on one thread; only processing overlaps.
  struct Host {
    Glitch* fx = nullptr;
    TestImage in, out;
    std::vector<uint8_t> expected[2];
    int mismatches = 0;
  };
  std::vector<Host> hosts(kHosts);
  for (int h = 0; h < kHosts; ++h) {
    Host& host = hosts[h];
    void* p = nullptr;
    ASSERT_EQ(engine->CreateEffect(&p, EFFECT_GLITCH), S_OK);
    host.fx = static_cast<Glitch*>(p);
    host.in = TestImage(24 + h, 16);
    host.out = TestImage(24 + h, 16);
    host.in.FillNoise(h);
    GlitchImages images{&host.in.buf, &host.out.buf};
    ASSERT_EQ(host.fx->SetImages(&images), S_OK);
    for (int v = 0; v < 2; ++v) {
      GlitchParam gp{&host.in.buf, &host.out.buf};
      gp.glitch_type = v == 0 ? 1 : 6;
      gp.shift_x = 40;
      gp.radius = 50;
      ASSERT_EQ(host.fx->Process(&gp), S_OK);
      host.expected[v] = host.out.Packed();
    }
  }

  std::vector<std::thread> threads;
  for (int h = 0; h < kHosts; ++h) {
    threads.emplace_back([&host = hosts[h]] {
      for (int k = 0; k < kCalls; ++k) {
        GlitchParam gp{&host.in.buf, &host.out.buf};
        gp.glitch_type = k % 2 == 0 ? 1 : 6;
        gp.shift_x = 40;
        gp.radius = 50;
        if (host.fx->Process(&gp) != S_OK || host.out.Packed() != host.expected[k % 2])
          ++host.mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();

  for (int h = 0; h < kHosts; ++h) {
    EXPECT_EQ(hosts[h].mismatches, 0) << "host " << h;
    EXPECT_TRUE(hosts[h].out.GuardsIntact()) << "host " << h;
    void* p = hosts[h].fx;
    EXPECT_EQ(engine->DeleteEffect(&p, EFFECT_GLITCH), S_OK);
  }
  DeleteKorvaneEngine(&engine);
}
