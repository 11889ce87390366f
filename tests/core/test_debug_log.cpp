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

TEST(DebugLog, PrefixesAndEndsEachLineOnceAndReturnsTheLength) {
  EXPECT_EQ(Logged([] { DebugLog("hello %d", 7); }), "[Korvane] hello 7\n");
  EXPECT_EQ(Logged([] { DebugLog("already ends\n"); }), "[Korvane] already ends\n");
  EXPECT_EQ(Logged([] { DebugLog("%s", ""); }), "[Korvane] \n");
  EXPECT_EQ(Logged([] { EXPECT_EQ(DebugLog("abc%d", 12), 5); }), "[Korvane] abc12\n");
  // An overlong message is cut but still ends its line.
  const std::string out = Logged([] { DebugLog("%s", std::string(10000, 'x').c_str()); });
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), '\n');
  EXPECT_LT(out.size(), 4200u);
}

// Each kind of failure in its own line shape, with the doubled prefix and
// lowercase hex; nothing at all for a code that is not negative.
TEST(DebugLog, FailureLinesOfCallsStepsKernelsAndRefusals) {
  const std::string out = Logged([] {
    int32_t hr = 0;
    if (KORVANE_FAILED(FailingCall(3))) {
      EXPECT_EQ(hr, E_INVALIDARG);
    }
    EXPECT_EQ(LogStep("total process", E_NOTIMPL), E_NOTIMPL);
    EXPECT_EQ(LogCall("InitBuffers()", E_OUTOFMEMORY), E_OUTOFMEMORY);
    EXPECT_EQ(LogKernelCall("%s(bokeh_buff, light_buff)", "PasteLight_SSE", E_POINTER), E_POINTER);
    EXPECT_EQ(LogRefusal("FocusBlur", "the guide image has no pixels", E_POINTER), E_POINTER);
    EXPECT_EQ(LogStep("s", S_OK) + LogCall("c", 1) + LogKernelCall("%s", "k", 0) + LogRefusal("e", "w", 0), 1);
  });
  EXPECT_EQ(out,
            "[Korvane] [Korvane] FailingCall(3) Error! - Return Code: 80070057\n"
            "[Korvane] [Korvane](total process) - Return Code: 80004001\n"
            "[Korvane] [Korvane] InitBuffers() Error! - Return Code: 8007000e\n"
            "[Korvane] [Korvane] PasteLight_SSE(bokeh_buff, light_buff) Error! - Return Code: 80004003\n"
            "[Korvane] FocusBlur: the guide image has no pixels - Return Code: 80004003\n");
  EXPECT_STREQ(ResultCodeName(E_INVALIDARG), "E_INVALIDARG");
  EXPECT_STREQ(ResultCodeName(S_OK), "S_OK");
}
