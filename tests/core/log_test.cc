#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "core/logging.h"
#include "support/test_support.h"

namespace zelsocket {
namespace {

TEST(Log, WithoutCallbackTheBareMessageGoesToStandardOutput) {
  SetLogCallback(nullptr);
  testing::internal::CaptureStdout();
  LogInfo(tag::kLoop, "x");
  LogError(tag::kUdp, "value=%d", 42);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "x\nvalue=42\n");
}

TEST(Log, CallbackGetsLevelTagAndMessageAndStdoutStaysQuiet) {
  testing::internal::CaptureStdout();
  {
    zstest::LogRecorder log;
    LogInfo(tag::kLoop, "x");
    LogDebug(tag::kTimer, "d");
    LogError(tag::kAsync, "e");
    auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].level, LOG_LEVEL_INFO);
    EXPECT_EQ(lines[0].tag, "Loop");
    EXPECT_EQ(lines[0].message, "x");
    EXPECT_EQ(lines[1].level, LOG_LEVEL_DEBUG);
    EXPECT_EQ(lines[2].level, LOG_LEVEL_ERROR);
  }
  // The recorder set the callback back to null: lines reach stdout again.
  LogInfo(tag::kLoop, "after");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "after\n");
}

TEST(Log, LongMessagesAreCutTo2047Characters) {
  zstest::LogRecorder log;
  std::string text(3000, 'a');
  LogInfo(tag::kUdp, "%s", text.c_str());
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, std::string(2047, 'a'));
}

TEST(Log, WideStringsPrintAsUtf8) {
  zstest::LogRecorder log;
  LogInfo(tag::kNonLspSocket, "Name=%S, Guid=%S, n=%d", L"MSAFD Tcpip [UDP/IP] \u00e9\u4e2d\U0001F600", L"{E70F}", 7);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "Name=MSAFD Tcpip [UDP/IP] \xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80, Guid={E70F}, n=7");
}

TEST(Log, WideStringFormatsKeepWidthAndOtherConversions) {
  zstest::LogRecorder log;
  LogInfo(tag::kNonLspSocket, "[%5S|%-4S|%u|%s|%p|%%|%lld]", L"ab", L"c", 4000000000u, "txt",
          static_cast<void*>(nullptr), -5LL);
  char expected[128];
  std::snprintf(expected, sizeof expected, "[   ab|c   |4000000000|txt|%p|%%|-5]", static_cast<void*>(nullptr));
  EXPECT_EQ(log.Lines().at(0).message, expected);
}

TEST(FormatToBuffer, ReportsFitTruncationAndBadArguments) {
  char buffer[8];
  std::memset(buffer, 'z', sizeof buffer);
  EXPECT_EQ(FormatToBuffer(buffer, 0, "abc"), 0);
  EXPECT_EQ(buffer[0], 'z');
  EXPECT_EQ(FormatToBuffer(nullptr, 8, "abc"), 0);
  EXPECT_EQ(FormatToBuffer(buffer, 8, "%d", 1234567), 7);  // exactly fits
  EXPECT_STREQ(buffer, "1234567");
  EXPECT_EQ(FormatToBuffer(buffer, 8, "%d", 12345678), -1);
  EXPECT_STREQ(buffer, "1234567");
}

}  // namespace
}  // namespace zelsocket
