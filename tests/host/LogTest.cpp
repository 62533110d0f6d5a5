#include "AndroidLog.h"
#include "kxhost/LogCapture.h"

#include <gtest/gtest.h>

namespace {

TEST(Log, CaptureSeesTagPriorityAndFormattedText) {
  kxhost::LogCapture capture;
  __android_log_print(ANDROID_LOG_WARN, "WQ", "%s: %s() %d: size=%d", "WQ", "push", 54, 50);
  auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].prio, ANDROID_LOG_WARN);
  EXPECT_EQ(lines[0].tag, "WQ");
  EXPECT_EQ(lines[0].msg, "WQ: push() 54: size=50");
  EXPECT_EQ(capture.count("size=50", ANDROID_LOG_ERROR), 0u);
}

}  // namespace
