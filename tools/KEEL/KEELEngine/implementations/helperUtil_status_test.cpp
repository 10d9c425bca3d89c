// Status channel of helperUtil: counts, progress and console bytes.
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

// Console output of one reportStatus call in console form.
std::string ConsoleBytes(int32_t percent, const std::string& message, ResultCode code) {
  helperUtil::setCliMode(true);
  testing::internal::CaptureStdout();
  helperUtil::reportStatus(percent, message, code);
  return testing::internal::GetCapturedStdout();
}

class RecordingListener : public statusListener {
 public:
  void statusChanged(const KEELStatusRecord& status, ResultCode code) override {
    records.push_back(status);
    codes.push_back(code);
  }
  std::vector<KEELStatusRecord> records;
  std::vector<ResultCode> codes;
};

}  // namespace

// ---- Console form ------------------------------------------------------------------

TEST(ReportStatusConsole, ProgressAtZeroPercentPrintsNothing) {
  EXPECT_EQ("", ConsoleBytes(0, "x", KEELOFFLINE_ERROR_PROCESSING));
}

TEST(ReportStatusConsole, ProgressWithEmptyMessagePrintsNothing) {
  EXPECT_EQ("", ConsoleBytes(50, "", KEELOFFLINE_ERROR_PROCESSING));
}

TEST(ReportStatusConsole, EmptyFinalMessagePrintsTwoLineEnds) {
  EXPECT_EQ("\r\n\r\n", ConsoleBytes(0, "", 0));
}

TEST(ReportStatusConsole, FinalMessageStandsOnItsOwnLine) {
  EXPECT_EQ("\r\nKEEL has finished... \r\n", ConsoleBytes(96, "KEEL has finished... ", 0));
  EXPECT_EQ("\r\nInternal Error: no valid configuration XML found...\r\n",
            ConsoleBytes(0, "Internal Error: no valid configuration XML found...",
                         KEELENGINE_ERROR_INTERNAL));
}

TEST(ReportStatusConsole, ProgressIsPaddedToNinetyColumns) {
  const std::string message = "Processing VPN logs...";
  const std::string expected = "\r" + message + std::string(90 - message.size(), ' ') + "  23%";
  EXPECT_EQ(expected, ConsoleBytes(23, message, KEELOFFLINE_ERROR_PROCESSING));
}

TEST(ReportStatusConsole, LongProgressMessageIsCutToNinetyColumns) {
  std::string message;
  for (int i = 0; i < 100; ++i)
    message += static_cast<char>('a' + i % 26);
  const std::string expected = "\r" + message.substr(0, 90) + "  46%";
  const std::string printed = ConsoleBytes(46, message, KEELOFFLINE_ERROR_PROCESSING);
  EXPECT_EQ(expected, printed);
  EXPECT_EQ(1u + 90u + 5u, printed.size());
}

TEST(ReportStatusConsole, PercentFieldIsThreeWideAtLeast) {
  EXPECT_EQ("\r" + std::string("p") + std::string(89, ' ') + "   5%",
            ConsoleBytes(5, "p", KEELOFFLINE_ERROR_PROCESSING));
  EXPECT_EQ("\r" + std::string("p") + std::string(89, ' ') + " 100%",
            ConsoleBytes(100, "p", KEELOFFLINE_ERROR_PROCESSING));
  EXPECT_EQ("\r" + std::string("p") + std::string(89, ' ') + " 1000%",
            ConsoleBytes(1000, "p", KEELOFFLINE_ERROR_PROCESSING));
  EXPECT_EQ("\r" + std::string("p") + std::string(89, ' ') + "  -5%",
            ConsoleBytes(-5, "p", KEELOFFLINE_ERROR_PROCESSING));
}

TEST(ReportStatusConsole, ProgressThenFinalCloseTheLine) {
  helperUtil::setCliMode(true);
  testing::internal::CaptureStdout();
  helperUtil::reportStatus(69, "Processing c...", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(0, "", 0);
  helperUtil::reportStatus(96, "Zipping the bundle, please wait...", 0);
  const std::string expected = "\rProcessing c..." + std::string(75, ' ') + "  69%" + "\r\n\r\n" +
                               "\r\nZipping the bundle, please wait...\r\n";
  EXPECT_EQ(expected, testing::internal::GetCapturedStdout());
}

TEST(ReportStatusConsole, ConsoleFormIgnoresListener) {
  RecordingListener listener;
  helperUtil::setStatusListener(&listener);
  EXPECT_EQ("\r\ndone\r\n", ConsoleBytes(10, "done", 0));
  EXPECT_TRUE(listener.records.empty());
  helperUtil::setStatusListener(nullptr);
}

// ---- Listener form -----------------------------------------------------------------

TEST(ReportStatusListener, NoConsoleAndNoListenerDoesNothing) {
  helperUtil::setCliMode(false);
  testing::internal::CaptureStdout();
  helperUtil::reportStatus(50, "Processing x...", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(0, "final", 0);
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(ReportStatusListener, KeepsLastNonZeroPercentAndNonEmptyMessage) {
  RecordingListener listener;
  helperUtil::setCliMode(false);
  helperUtil::setStatusListener(&listener);
  testing::internal::CaptureStdout();
  helperUtil::reportStatus(23, "Processing a...", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(0, "Processing b...", KEELOFFLINE_ERROR_PROCESSING);
  helperUtil::reportStatus(46, "", KEELENGINE_ERROR_INTERNAL);
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  helperUtil::setStatusListener(nullptr);

  ASSERT_EQ(3u, listener.records.size());
  EXPECT_EQ(23, listener.records[0].percent);
  EXPECT_EQ("Processing a...", listener.records[0].message);
  EXPECT_EQ(23, listener.records[1].percent);
  EXPECT_EQ("Processing b...", listener.records[1].message);
  EXPECT_EQ(46, listener.records[2].percent);
  EXPECT_EQ("Processing b...", listener.records[2].message);
  EXPECT_EQ((std::vector<ResultCode>{KEELOFFLINE_ERROR_PROCESSING, KEELOFFLINE_ERROR_PROCESSING,
                                     KEELENGINE_ERROR_INTERNAL}),
            listener.codes);
}

TEST(CliMode, SetAndRead) {
  EXPECT_FALSE(helperUtil::getCliMode());
  helperUtil::setCliMode(true);
  EXPECT_TRUE(helperUtil::getCliMode());
  helperUtil::setCliMode(false);
  EXPECT_FALSE(helperUtil::getCliMode());
}

// ---- Counts and progress -----------------------------------------------------------

TEST(ProgressOf, FourConfigsClimbByTwentyThree) {
  helperUtil::setConfigCount(4);
  EXPECT_EQ(0, helperUtil::progressOf(1));
  EXPECT_EQ(23, helperUtil::progressOf(2));
  EXPECT_EQ(46, helperUtil::progressOf(3));
  EXPECT_EQ(69, helperUtil::progressOf(4));
  EXPECT_EQ(92, helperUtil::progressOf(5));
}

TEST(ProgressOf, FractionIsCutOff) {
  helperUtil::setConfigCount(3);
  EXPECT_EQ(30, helperUtil::progressOf(2));
  EXPECT_EQ(61, helperUtil::progressOf(3));
}

TEST(ProgressOf, NoConfigsGivesZero) {
  helperUtil::setConfigCount(0);
  EXPECT_EQ(0, helperUtil::progressOf(1));
  EXPECT_EQ(0, helperUtil::progressOf(100));
}

TEST(ProgressOf, ExtremeDoneCountsDoNotTrap) {
  helperUtil::setConfigCount(1);
  EXPECT_EQ(-92, helperUtil::progressOf(0));
  // 32-bit wrap-around, computed without overflow.
  const int32_t wrapped = helperUtil::progressOf(INT32_MAX);
  EXPECT_EQ(static_cast<int32_t>(static_cast<float>(
                static_cast<int32_t>(static_cast<uint32_t>(INT32_MAX) * 92u - 92u))),
            wrapped);
}

TEST(ConfigCount, SetAndRead) {
  EXPECT_EQ(0u, helperUtil::getConfigCount());
  helperUtil::setConfigCount(7);
  EXPECT_EQ(7u, helperUtil::getConfigCount());
}

TEST(DoneCount, StartsAtOneAndCountsUp) {
  EXPECT_EQ(1, helperUtil::getDoneCount());
  EXPECT_EQ(2, helperUtil::incrementDoneCount());
  EXPECT_EQ(2, helperUtil::getDoneCount());
  helperUtil::setConfigCount(4);
  EXPECT_EQ(23, helperUtil::progressOf(helperUtil::getDoneCount()));
}

TEST(DoneCountConcurrency, IncrementsFromManyThreadsAreAllCounted) {
  const int32_t start = helperUtil::getDoneCount();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 1000; ++i)
        helperUtil::incrementDoneCount();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(start + 8000, helperUtil::getDoneCount());
}

TEST(StatusLockConcurrency, GuardsReportsFromPoolThreads) {
  RecordingListener listener;
  helperUtil::setCliMode(false);
  helperUtil::setStatusListener(&listener);
  helperUtil::setConfigCount(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        std::lock_guard<std::mutex> hold(helperUtil::statusLock());
        helperUtil::reportStatus(helperUtil::progressOf(2),
                                 "Processing " + std::to_string(t) + "...",
                                 KEELOFFLINE_ERROR_PROCESSING);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  helperUtil::setStatusListener(nullptr);
  EXPECT_EQ(800u, listener.records.size());
  EXPECT_EQ(&helperUtil::statusLock(), &helperUtil::statusLock());
}

// ---- Summary entries ----------------------------------------------------------

namespace {

// A summary document as a collector builds it.
void BuildSummary(XMLObject& summary) {
  summary.SetRoot("summary", "");
  for (const char* section :
       {"Main_Info", "Manifest_Included", "Manifest_Not_Included", "Other_Note"})
    summary.AddChild(summary.GetRoot(), section, "");
}

bool LoggedAtError(keeltest::LogCapture& log, const std::string& text) {
  for (const keeltest::LogRecord& record : log.logger().Records()) {
    if (record.level == LOG_LEVEL_E && record.message.find(text) != std::string::npos)
      return true;
  }
  return false;
}

}  // namespace

TEST(FillSummaryFailedFile, AddsEntryWithAttributesInOrder) {
  XMLObject summary;
  BuildSummary(summary);
  const uint32_t documentCount = summary.GetCount();
  helperUtil::fillSummaryFailedFile(&summary, "VPN_LOGS", "vpn.log", "VPN client log",
                                    "File not found");
  KEELComponent* section = summary.FindChild(summary.GetRoot(), "Manifest_Not_Included");
  ASSERT_NE(nullptr, section);
  ASSERT_EQ(1u, section->GetChildren().size());
  const KEELComponent& entry = *section->GetChildren().front();
  EXPECT_EQ("VPN_LOGS", entry.GetName());
  EXPECT_EQ("vpn.log", entry.GetValue());
  ASSERT_EQ(2u, entry.GetAttributes().size());
  EXPECT_EQ("description", entry.GetAttributes().front()->GetName());
  EXPECT_EQ("VPN client log", entry.GetAttributes().front()->GetValue());
  EXPECT_EQ("reason", entry.GetAttributes().back()->GetName());
  EXPECT_EQ("File not found", entry.GetAttributes().back()->GetValue());
  // The document's own count does not move.
  EXPECT_EQ(documentCount, summary.GetCount());
}

TEST(FillSummaryFailedFile, EntriesKeepTheirOrder) {
  XMLObject summary;
  BuildSummary(summary);
  helperUtil::fillSummaryFailedFile(&summary, "A", "one", "", "r1");
  helperUtil::fillSummaryFailedFile(&summary, "B", "N/A", "", "r2");
  KEELComponent* section = summary.FindChild(summary.GetRoot(), "Manifest_Not_Included");
  ASSERT_NE(nullptr, section);
  ASSERT_EQ(2u, section->GetChildren().size());
  EXPECT_EQ("A", section->GetChildren().front()->GetName());
  EXPECT_EQ("B", section->GetChildren().back()->GetName());
  EXPECT_EQ("N/A", section->GetChildren().back()->GetValue());
}

TEST(FillSummaryFailedFile, NullDocumentLogsAndAddsNothing) {
  keeltest::LogCapture log;
  helperUtil::fillSummaryFailedFile(nullptr, "ID", "f", "d", "r");
  EXPECT_TRUE(LoggedAtError(log, "pXMLSummary is NULL"));
  EXPECT_EQ(1u, log.logger().Records().size());
}

TEST(FillSummaryFailedFile, DocumentWithoutRootLogs) {
  XMLObject summary;
  keeltest::LogCapture log;
  helperUtil::fillSummaryFailedFile(&summary, "ID", "f", "d", "r");
  EXPECT_TRUE(LoggedAtError(log, "pXMLSummary->GetRoot() is NULL"));
  EXPECT_EQ(nullptr, summary.GetRoot());
}

TEST(FillSummaryFailedFile, MissingSectionLogsAndLeavesDocument) {
  XMLObject summary("summary", "");
  summary.AddChild(summary.GetRoot(), "Other_Note", "");
  keeltest::LogCapture log;
  helperUtil::fillSummaryFailedFile(&summary, "ID", "f", "d", "r");
  EXPECT_TRUE(LoggedAtError(log, "pDCFailedFiles is NULL"));
  EXPECT_EQ(1u, summary.GetRoot()->GetChildren().size());
  EXPECT_TRUE(summary.GetRoot()->GetChildren().front()->GetChildren().empty());
}

TEST(FillSummaryNote, AddsDashEntry) {
  XMLObject summary;
  BuildSummary(summary);
  const uint32_t documentCount = summary.GetCount();
  helperUtil::fillSummaryNote(&summary, "Collection of syslog skipped.");
  KEELComponent* notes = summary.FindChild(summary.GetRoot(), "Other_Note");
  ASSERT_NE(nullptr, notes);
  ASSERT_EQ(1u, notes->GetChildren().size());
  EXPECT_EQ(" - ", notes->GetChildren().front()->GetName());
  EXPECT_EQ("Collection of syslog skipped.", notes->GetChildren().front()->GetValue());
  EXPECT_TRUE(notes->GetChildren().front()->GetAttributes().empty());
  EXPECT_EQ(documentCount, summary.GetCount());
}

TEST(FillSummaryNote, NullDocumentAndMissingRootLog) {
  keeltest::LogCapture log;
  helperUtil::fillSummaryNote(nullptr, "x");
  EXPECT_TRUE(LoggedAtError(log, "pXMLSummary is NULL"));
  XMLObject empty;
  helperUtil::fillSummaryNote(&empty, "x");
  EXPECT_TRUE(LoggedAtError(log, "pXMLSummary->GetRoot() is NULL"));
}

TEST(FillSummaryNote, MissingSectionLogs) {
  XMLObject summary("summary", "");
  summary.AddChild(summary.GetRoot(), "Manifest_Not_Included", "");
  keeltest::LogCapture log;
  helperUtil::fillSummaryNote(&summary, "x");
  EXPECT_TRUE(LoggedAtError(log, "pDCNoteComponent is NULL"));
  EXPECT_TRUE(summary.GetRoot()->GetChildren().front()->GetChildren().empty());
}
