#include "Common/Log/Log.h"

#include <unistd.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "Common/Log/MessageTable.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::CapturingLogger;
using keeltest::LogCapture;

std::string ThreadIdText() {
  return std::to_string(static_cast<int>(static_cast<uint64_t>(pthread_self())));
}

TEST(Log, DebugMessageRendersTheMessageRow) {
  LogCapture capture;
  LogDebugMessage("getTargetPath", "Common/Utility/DeviceID", 616, LOG_LEVEL_E, "%s is not a link",
                  "/dev/sda1");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "[TID=" + ThreadIdText() +
                                    "]\nFunction: getTargetPath\nFile: Common/Utility/DeviceID\n"
                                    "Line: 616\n/dev/sda1 is not a link");
  EXPECT_EQ(records[0].severity, 7u);
  EXPECT_EQ(records[0].id, MID_DEBUG_MESSAGE);
  EXPECT_EQ(records[0].level, LOG_LEVEL_E);
  EXPECT_EQ(records[0].name, "MID_DEBUG_MESSAGE");
}

TEST(Log, ReturnCodeWithoutDescriptionReadsTheCatalogue) {
  LogCapture capture;
  LogDebugReturnCode("GetDeviceUniqueIDHash", "CommonCrypt/DeviceIDHash", 71, LOG_LEVEL_E,
                     "COpenSSLHash::HashString", 0xFEB0000D, nullptr, nullptr);
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(
      records[0].message,
      "[TID=" + ThreadIdText() +
          "]\nFunction: GetDeviceUniqueIDHash\nFile: CommonCrypt/DeviceIDHash\nLine: 71\n"
          "Invoked Function: COpenSSLHash::HashString\nReturn Code: -22020083 (0xFEB0000D)\n"
          "Description: KEELENGINE_ERROR_FILE_OPEN_FAILURE:Error: File could not be opened\n");
  EXPECT_EQ(records[0].id, MID_DEBUG_RETURN_CODE);
}

TEST(Log, ReturnCodeWithDescriptionAndTextKeepsBoth) {
  LogCapture capture;
  LogDebugReturnCode("f", "x", 1, LOG_LEVEL_W, "callee", KEELENGINE_ERROR_INTERNAL, "mine",
                     "File: %s", "a.txt");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].message.find("Return Code: -22020086 (0xFEB0000A)\nDescription: mine\n"
                                    "File: a.txt"),
            std::string::npos);
}

TEST(Log, ReturnCodeZeroWithFormatMovesTextToDescription) {
  LogCapture capture;
  LogDebugReturnCode("addFile", "x", 3, LOG_LEVEL_I, "found file", 0, nullptr, "%s", "/a/b.xml");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  const std::string& message = records[0].message;
  EXPECT_NE(message.find("Return Code: 0 (0x00000000)\nDescription: /a/b.xml\n"),
            std::string::npos);
  // The trailing text is empty: the message ends right after the description.
  EXPECT_EQ(message.substr(message.size() - 23), "\nDescription: /a/b.xml\n");
}

TEST(Log, ReturnCodeZeroWithoutFormatIsUnknown) {
  LogCapture capture;
  LogDebugReturnCode("f", "x", 3, LOG_LEVEL_I, "g", 0, nullptr, nullptr);
  EXPECT_TRUE(capture.Contains("Return Code: 0 (0x00000000)\nDescription: unknown\n"));
}

TEST(Log, CallTextIsCutAt2048AndMessageAt2560) {
  LogCapture capture;
  const std::string longText(3000, 'a');
  LogDebugMessage("f", "x", 1, LOG_LEVEL_E, "%s", longText.c_str());
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  const std::string& message = records[0].message;
  EXPECT_EQ(message.find(std::string(2049, 'a')), std::string::npos);
  EXPECT_EQ(message.substr(message.size() - 2048), std::string(2048, 'a'));

  // A description is not cut by the first buffer, so only the final cut shows.
  LogDebugReturnCode("f", "x", 1, LOG_LEVEL_E, "g", 1, longText.c_str(), nullptr);
  records = capture.logger().Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].message.size(), 2560u);
}

TEST(Log, UnknownIdUsesFallbackRowWithEmptyMessage) {
  LogCapture capture;
  LogMessageId(9, LOG_LEVEL_E, 1, 2, 3);
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "");
  EXPECT_EQ(records[0].severity, 7u);
  EXPECT_EQ(records[0].name, "UNKNOWN");
  EXPECT_EQ(records[0].id, 9u);
}

TEST(Log, SegmentsCoverTheirIdsOnly) {
  EXPECT_STREQ(FindMessageRow(0)->name, "MID_UNKNOWN");
  EXPECT_EQ(FindMessageRow(0)->severity, 5u);
  EXPECT_STREQ(FindMessageRow(5)->format, "[%s] %s:%d(%s) %s");
  EXPECT_STREQ(FindMessageRow(6)->name, "UNKNOWN");
  EXPECT_STREQ(FindMessageRow(7007)->name, "UNKNOWN");
  EXPECT_STREQ(FindMessageRow(7008)->name, "UNKNOWN");
}

TEST(Log, TraceFormUsesLevelT) {
  LogCapture capture;
  LogMessageIdTrace(MID_UNKNOWN, "hello");
  auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_T);
  EXPECT_EQ(records[0].message, "hello");
  EXPECT_EQ(records[0].severity, 5u);
}

TEST(Log, SecondScopeChangesNothingAndClosingItKeepsTheSink) {
  LogCapture capture;
  auto* second = new CapturingLogger;
  ResultCode result = 1;
  {
    CLogScope scope(&result, "other", second);  // takes and deletes `second`
    EXPECT_EQ(result, 0u);
    KLOG_E("inside");
  }
  EXPECT_TRUE(HasLogSink());
  KLOG_E("after");
  EXPECT_TRUE(capture.Contains("inside"));
  EXPECT_TRUE(capture.Contains("after"));
}

TEST(Log, LastScopeRemovesTheSinkAndLaterCallsAreDropped) {
  {
    LogCapture capture;
    EXPECT_TRUE(HasLogSink());
  }
  EXPECT_FALSE(HasLogSink());
  KLOG_E("nobody hears this");  // must not crash
  EXPECT_EQ(ReselectLogSink(), GLOBAL_ERROR_NO_INSTANCE);
}

TEST(Log, MacrosFillInFunctionAndLine) {
  LogCapture capture;
  const int line = __LINE__ + 1;
  KLOG_W("x=%d", 5);
  EXPECT_TRUE(capture.Contains("Function: TestBody\n"));
  EXPECT_TRUE(capture.Contains("Line: " + std::to_string(line) + "\nx=5"));
  EXPECT_TRUE(capture.Contains("File: Common/Log/Log_test.cpp\n"));
}

TEST(LogWords, SeverityOverrulesLevelBelowSeven) {
  EXPECT_STREQ(LogWordFor(0, LOG_LEVEL_E), "EMERGENCY");
  EXPECT_STREQ(LogWordFor(3, LOG_LEVEL_I), "ERROR");
  EXPECT_STREQ(LogWordFor(5, LOG_LEVEL_E), "NOTICE");
  EXPECT_STREQ(LogWordFor(6, LOG_LEVEL_E), "INFO");
  EXPECT_EQ(JournalPriorityFor(4, LOG_LEVEL_E), 4);
}

TEST(LogWords, LevelDecidesFromSeverityySeven) {
  EXPECT_STREQ(LogWordFor(7, LOG_LEVEL_E), "ERROR");
  EXPECT_STREQ(LogWordFor(7, LOG_LEVEL_W), "WARNING");
  EXPECT_STREQ(LogWordFor(7, LOG_LEVEL_I), "NOTICE");
  EXPECT_STREQ(LogWordFor(9, LOG_LEVEL_T), "NOTICE");
  EXPECT_STREQ(LogWordFor(7, 'X'), "DEBUG");
  EXPECT_EQ(JournalPriorityFor(7, LOG_LEVEL_E), 3);
  EXPECT_EQ(JournalPriorityFor(7, LOG_LEVEL_W), 4);
  EXPECT_EQ(JournalPriorityFor(7, LOG_LEVEL_I), 5);
  EXPECT_EQ(JournalPriorityFor(7, LOG_LEVEL_T), 5);
  EXPECT_EQ(JournalPriorityFor(7, 'X'), 7);
}

std::string StdoutLine(uint32_t severity, const char* message, uint32_t level) {
  CStdoutLogger logger("vtc_keelcli");
  testing::internal::CaptureStdout();
  EXPECT_EQ(logger.Log(severity, message, "M", 1, level), 0u);
  return testing::internal::GetCapturedStdout();
}

TEST(StdoutLogger, WritesOneLineInTheDocumentedForm) {
  const std::string line = StdoutLine(7, "a\nb\n\nc", LOG_LEVEL_E);
  const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d vtc_keelcli\\[" +
                        std::to_string(getpid()) + "\\]: \\[ERROR\\] a b  c\n");
  EXPECT_TRUE(std::regex_match(line, form)) << line;
}

TEST(StdoutLogger, LevelIAndTSayNoticeAndOthersDebug) {
  EXPECT_NE(StdoutLine(7, "m", LOG_LEVEL_I).find("]: [NOTICE] m\n"), std::string::npos);
  EXPECT_NE(StdoutLine(7, "m", LOG_LEVEL_T).find("]: [NOTICE] m\n"), std::string::npos);
  EXPECT_NE(StdoutLine(7, "m", 'Q').find("]: [DEBUG] m\n"), std::string::npos);
  EXPECT_NE(StdoutLine(7, "m", LOG_LEVEL_W).find("]: [WARNING] m\n"), std::string::npos);
}

TEST(StdoutLogger, NullMessageIsRefused) {
  CStdoutLogger logger("x");
  EXPECT_EQ(logger.Log(7, nullptr, "M", 1, 'E'), GLOBAL_ERROR_BAD_PARAMETER);
  CSDJournalLogger journal("x");
  EXPECT_EQ(journal.Log(7, nullptr, "M", 1, 'E'), GLOBAL_ERROR_BAD_PARAMETER);
}

TEST(OneLine, EveryLineFeedBecomesOneBlank) {
  EXPECT_EQ(OneLine("\na\n\nb\n"), " a  b ");
}

}  // namespace
