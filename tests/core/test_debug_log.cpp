#include <gtest/gtest.h>

#include <string>

#include "core/DebugLog.h"
#include "core/ResultCode.h"

using namespace Korvane;

namespace {
std::string Logged(void (*f)()) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

int32_t FailingCall(int) { return E_INVALIDARG; }
}  // namespace

TEST(DebugLog, PrefixesAndEndsEachLineOnce) {
  EXPECT_EQ(Logged([] { DebugLog("hello %d", 7); }), "[Korvane] hello 7\n");
  EXPECT_EQ(Logged([] { DebugLog("already ends\n"); }), "[Korvane] already ends\n");
  EXPECT_EQ(Logged([] { DebugLog("%s", ""); }), "[Korvane] \n");
}

TEST(DebugLog, ReturnsTheMessageLength) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(DebugLog("abc%d", 12), 5);
  testing::internal::GetCapturedStderr();
}

TEST(DebugLog, OverlongMessageStillEndsInALineFeed) {
  const std::string out = Logged([] { DebugLog("%s", std::string(10000, 'x').c_str()); });
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), '\n');
  EXPECT_LT(out.size(), 4200u);
}

TEST(DebugLog, FailedCallCarriesTheDoubledPrefixAndLowercaseHex) {
  const std::string out = Logged([] {
    int32_t hr = 0;
    if (KORVANE_FAILED(FailingCall(3))) {
      EXPECT_EQ(hr, E_INVALIDARG);
    }
  });
  EXPECT_EQ(out, "[Korvane] [Korvane] FailingCall(3) Error! - Return Code: 80070057\n");
  EXPECT_EQ(Logged([] { KORVANE_LOG_FAILED_STEP("total process", E_NOTIMPL); }),
            "[Korvane] [Korvane](total process) - Return Code: 80004001\n");
}

TEST(ResultCode, StandardNamesAndValues) {
  EXPECT_EQ(static_cast<uint32_t>(E_NOTIMPL), 0x80004001u);
  EXPECT_EQ(static_cast<uint32_t>(E_POINTER), 0x80004003u);
  EXPECT_EQ(static_cast<uint32_t>(E_FAIL), 0x80004005u);
  EXPECT_EQ(static_cast<uint32_t>(E_INVALIDARG), 0x80070057u);
  EXPECT_EQ(static_cast<uint32_t>(E_OUTOFMEMORY), 0x8007000Eu);
  EXPECT_LT(E_OUTOFMEMORY, 0);
  EXPECT_STREQ(ResultCodeName(E_INVALIDARG), "E_INVALIDARG");
  EXPECT_STREQ(ResultCodeName(S_OK), "S_OK");
}
