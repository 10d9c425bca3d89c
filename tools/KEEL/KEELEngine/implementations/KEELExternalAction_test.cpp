// The external program action of the collect kind, and callExtern: where
// the output goes, the banner, both ways of running, and the watch loop
// with its processor-time limit.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeEnv.h"
#include "tests/support/ProcessMarkers.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction_testsupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

using actiontest::Omitted;
using actiontest::OmittedFiles;
using actiontest::ParsedXml;

namespace {

const std::string kStars(75, '*');

// The three lines written ahead of a command's output.
std::string Banner(const std::string& commandLine) {
  return "\n\r" + kStars + "\n\"" + commandLine + "\" output:\n" + kStars + "\n\r\n";
}

// A collect action whose callExtern the tests may call directly.
class OpenAction : public KEELCollectLogsAction {
 public:
  OpenAction(const ActionSettings& settings, KEELComponent* node)
      : KEELCollectLogsAction(settings, node, false) {}
  using KEELAction::callExtern;
};

class CollectExternalAction : public ::testing::Test {
 protected:
  void SetUp() override {
    m_bundle = m_tmp.Sub("bundle");
    m_bin = m_tmp.Sub("bin");
    m_outside = m_tmp.Sub("outside");
    for (const std::string& folder : {m_bundle, m_bin, m_outside})
      ASSERT_TRUE(std::filesystem::create_directories(folder));
    // Records how it was called: the count of arguments, then each one.
    ASSERT_TRUE(actiontest::WriteScript(m_bin + "/rec.sh",
                                        "{ echo \"$#\"; for a in \"$@\"; do "
                                        "echo \"$a\"; done; } > '" +
                                            Argv() + "'\n"));
    ASSERT_TRUE(actiontest::WriteScript(m_bin + "/hello.sh", "echo \"hello $*\"\n"));
  }

  void TearDown() override { EXPECT_TRUE(actiontest::NoChildLeft()); }

  std::string Argv() const { return m_tmp.Sub("argv.txt"); }

  // Runs Perform over one use_extern_action group holding `actions`.
  TruncAttrsList Collect(const std::string& actions, const std::string& bundleName = "",
                         const std::string& bundle = "") {
    ParsedXml config("<os opsys=\"linux\"><use_extern_action>" + actions +
                     "</use_extern_action></os>");
    EXPECT_TRUE(config.ok()) << actions;
    KEELCollectLogsAction action(Settings(bundle.empty() ? m_bundle : bundle, bundleName),
                                 config.root(), false);
    TruncAttrsList records;
    action.Perform(records);
    return records;
  }

  // Runs the handler directly on one action element, for its result code.
  ResultCode External(const std::string& actionXml, TruncAttrsList& records,
                      std::list<std::string>& deleteList) {
    ParsedXml parsed(actionXml);
    EXPECT_TRUE(parsed.ok()) << actionXml;
    XMLObject subtree(parsed.root());
    KEELCollectLogsAction action(Settings(m_bundle), parsed.root(), false);
    return action.performExternalAction(subtree, records, deleteList);
  }

  std::string PathElement() const { return "<path>" + m_bin + "</path>"; }

  // An action running `args` from the test's bin folder with its standard
  // output kept, `extra` elements beside.
  std::string StdoutAction(const std::string& args, const std::string& extra = "") const {
    return "<action>" + PathElement() + "<args>" + args + "</args>" + extra + "<stdout/></action>";
  }

  // Collects `actions` under `bundleName`; expects one record, of the bundle
  // file `file`, which holds `text`.
  void ExpectOneStdoutFile(const std::string& actions, const std::string& bundleName,
                           const std::string& file, const std::string& text) {
    const TruncAttrsList records = Collect(actions, bundleName);
    ASSERT_EQ(1u, records.size());
    ExpectRecord(records.front(), m_bundle + "/" + file);
    EXPECT_EQ(text, keeltest::ReadFile(m_bundle + "/" + file));
  }

  // The settings of the test's instruction, on the test's host.
  ActionSettings Settings(const std::string& bundle, const std::string& bundleName = "") {
    ActionSettings settings = actiontest::MakeSettings(bundle, m_summary.get(), bundleName);
    settings.m_pEnv = &m_env;
    return settings;
  }

  static void ExpectRecord(const TruncAttrs& record, const std::string& path) {
    actiontest::ExpectRecord(record, path);
  }

  std::vector<Omitted> omitted() const { return OmittedFiles(*m_summary); }

  keeltest::LogCapture m_capture;
  keeltest::FakeEnv m_env;
  keeltest::TempDir m_tmp;
  std::unique_ptr<XMLObject> m_summary = actiontest::MakeSummary();
  std::string m_bundle;
  std::string m_bin;
  std::string m_outside;
};

typedef CollectExternalAction ActionCallExtern;
typedef CollectExternalAction ExternalActionTimeLimit;

}  // namespace

// ---- where the output goes ------------------------------------------------------

TEST_F(CollectExternalAction, StdoutWithBareTempOutWritesIntoTheBundle) {
  ExpectOneStdoutFile(StdoutAction("hello.sh one two", "<temp_out>out.txt</temp_out>"), "",
                      "out.txt", Banner("hello.sh one two") + "hello one two\n");
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectExternalAction, StdoutWithoutTempOutUsesTheBundleName) {
  ExpectOneStdoutFile(StdoutAction("hello.sh"), "diag.txt", "diag.txt",
                      Banner("hello.sh") + "hello \n");
}

TEST_F(CollectExternalAction, StdoutWithoutTempOutOrBundleNameUsesTheShortName) {
  ExpectOneStdoutFile(StdoutAction("hello.sh x"), "", "hello_result.txt",
                      Banner("hello.sh x") + "hello x\n");
}

TEST_F(CollectExternalAction, HiddenProgramNameGivesUnderscoreResult) {
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/.hidden", "echo secret\n"));
  ExpectOneStdoutFile(StdoutAction(".hidden"), "", "_result.txt", Banner(".hidden") + "secret\n");
}

TEST_F(CollectExternalAction, TwoCommandsAppendIntoOneFile) {
  const TruncAttrsList records = Collect(
      "<action>" + PathElement() +
      "<args>hello.sh 1</args><temp_out>all.txt</temp_out><stdout/>"
      "</action><action>" +
      PathElement() + "<args>hello.sh 2</args><temp_out>all.txt</temp_out><stdout/></action>");
  const std::string first = Banner("hello.sh 1") + "hello 1\n";
  const std::string both = first + Banner("hello.sh 2") + "hello 2\n";
  EXPECT_EQ(both, keeltest::ReadFile(m_bundle + "/all.txt"));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(m_bundle + "/all.txt", records.front().path);
  EXPECT_EQ(static_cast<double>(first.size()), records.front().size);
  ExpectRecord(records.back(), m_bundle + "/all.txt");
}

TEST_F(CollectExternalAction, TempOutWithFolderIsCopiedThenDeletedAfterTheGroup) {
  const std::string report = m_outside + "/report.log";
  const std::string seen = m_tmp.Sub("seen.txt");
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/writer.sh", "echo written > '" + report + "'\n"));
  ASSERT_TRUE(actiontest::WriteScript(
      m_bin + "/check.sh",
      "if [ -e '" + report + "' ]; then echo yes; else echo no; fi > '" + seen + "'\n"));
  const TruncAttrsList records =
      Collect("<action>" + PathElement() + "<args>writer.sh</args><temp_out>" + report +
              "</temp_out></action><action>" + PathElement() + "<args>check.sh</args></action>");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/report.log");
  EXPECT_EQ("written\n", keeltest::ReadFile(m_bundle + "/report.log"));
  // Still there while the group ran, gone after it.
  EXPECT_EQ("yes\n", keeltest::ReadFile(seen));
  EXPECT_FALSE(keeltest::PathExists(report));
}

TEST_F(CollectExternalAction, OutsideTempOutTakesTheBundleName) {
  const std::string report = m_outside + "/report.log";
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/writer.sh", "echo w > '" + report + "'\n"));
  TruncAttrsList records = Collect("<action>" + PathElement() + "<args>writer.sh</args><temp_out>" +
                                       report + "</temp_out></action>",
                                   "vpn.txt");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/vpn__report__log.txt");
}

TEST_F(CollectExternalAction, StdoutIntoOutsideFileIsCopiedWithItsBanner) {
  const std::string out = m_outside + "/cap.txt";
  const TruncAttrsList records = Collect("<action>" + PathElement() + "<args>hello.sh z</args>" +
                                         "<temp_out>" + out + "</temp_out><stdout/></action>");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/cap.txt");
  EXPECT_EQ(Banner("hello.sh z") + "hello z\n", keeltest::ReadFile(m_bundle + "/cap.txt"));
  EXPECT_FALSE(keeltest::PathExists(out));
}

TEST_F(CollectExternalAction, StdoutIntoALinkPlantedAtTheOutputLeavesItsTargetAlone) {
  const std::string victim = m_tmp.Sub("victim.conf");
  ASSERT_TRUE(keeltest::WriteFile(victim, "root only\n"));
  ASSERT_EQ(0, chmod(victim.c_str(), 0600));
  const std::string out = m_outside + "/cap.txt";
  ASSERT_EQ(0, symlink(victim.c_str(), out.c_str()));
  const TruncAttrsList records = Collect("<action>" + PathElement() + "<args>hello.sh z</args>" +
                                         "<temp_out>" + out + "</temp_out><stdout/></action>");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ("root only\n", keeltest::ReadFile(victim));
  EXPECT_FALSE(keeltest::PathExists(m_bundle + "/cap.txt"));
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "cap.txt", "Test logs",
                                   out + " Error occurred opening the file: a link stands at "
                                         "its name"}}),
            omitted());
  // The link is not the tool's to remove.
  EXPECT_EQ(victim, std::filesystem::read_symlink(out).string());
}

TEST_F(CollectExternalAction, LaunchFormOutputPlantedAsALinkIsNotCopied) {
  // A shared folder of root's, writable by all with the sticky bit, where
  // another user put a link to a root-only file at the output's name.
  ASSERT_EQ(0, chmod(m_outside.c_str(), 01777));
  const std::string victim = m_tmp.Sub("victim.conf");
  ASSERT_TRUE(keeltest::WriteFile(victim, "root only\n"));
  ASSERT_EQ(0, chmod(victim.c_str(), 0600));
  const std::string out = m_outside + "/report.log";
  ASSERT_EQ(0, symlink(victim.c_str(), out.c_str()));
  ASSERT_EQ(0, lchown(out.c_str(), 65534, 65534));
  const TruncAttrsList records =
      Collect("<action>" + PathElement() + "<args>hello.sh</args><temp_out>" + out +
              "</temp_out></action>");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ("root only\n", keeltest::ReadFile(victim));
  EXPECT_TRUE(keeltest::ListDir(m_bundle).empty());
  const std::vector<Omitted> rows = omitted();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("report.log", rows[0].name);
  const std::string start =
      "KEEL cannot access temporary output at: " + out + " as specified by Config Error returned:";
  EXPECT_EQ(start, rows[0].reason.substr(0, start.size())) << rows[0].reason;
  EXPECT_EQ(victim, std::filesystem::read_symlink(out).string());
}

TEST_F(CollectExternalAction, OutputCutByAFullDiskIsOmittedWithTheSystemsWords) {
  ASSERT_TRUE(
      actiontest::WriteScript(m_bin + "/big.sh", "head -c 6000000 /dev/zero | tr '\\0' 'x'\n"));
  const int status = keeltest::RunWithTmpfsAt(m_bundle, [&] {
    const TruncAttrsList records = Collect(StdoutAction("big.sh"));
    const std::vector<Omitted> expected = {
        {"id-1", "big_result.txt", "Test logs",
         m_bundle + "/big_result.txt Error occurred writing the output: No space left on device"}};
    if (!records.empty())
      return 1;
    if (omitted() != expected)
      return 2;
    return keeltest::PathExists(m_bundle + "/big_result.txt") ? 3 : 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST_F(CollectExternalAction, FailedOutputOfOneCommandIsNotBlamedOnTheNext) {
  const std::string out = m_outside + "/cap.txt";
  ASSERT_EQ(0, symlink("/nowhere", out.c_str()));
  const TruncAttrsList records =
      Collect("<action>" + PathElement() + "<args>hello.sh a</args><temp_out>" + out +
              "</temp_out><stdout/></action>" + StdoutAction("hello.sh b"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/hello_result.txt");
  EXPECT_EQ(1u, omitted().size());
}

TEST_F(CollectExternalAction, MissingTempOutIsOmittedWithItsReason) {
  const std::string report = m_outside + "/never.log";
  TruncAttrsList records;
  std::list<std::string> deleteList;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            External("<action>" + PathElement() + "<args>rec.sh</args><temp_out>" + report +
                         "</temp_out></action>",
                     records, deleteList));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(deleteList.empty());
  const std::string reason =
      "KEEL cannot access temporary output at: " + report + " as specified by Config";
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "never.log", "Test logs", reason}}), omitted());
  EXPECT_TRUE(m_capture.Contains("Invoked Function: helperUtil::fileCopy\n"));
  EXPECT_TRUE(m_capture.Contains("Description: " + reason + "\n"));
}

TEST_F(CollectExternalAction, MissingTempOutIsNotLoggedByPerform) {
  Collect("<action>" + PathElement() + "<args>rec.sh</args><temp_out>" + m_outside +
          "/never.log</temp_out></action>");
  EXPECT_EQ(1u, omitted().size());
  EXPECT_FALSE(m_capture.Contains("KEELAction::performExternalAction"));
}

TEST_F(CollectExternalAction, ProgramWithoutOutputFileLeavesNothing) {
  TruncAttrsList records;
  std::list<std::string> deleteList;
  EXPECT_EQ(0u, External("<action>" + PathElement() + "<args>rec.sh a</args></action>", records,
                         deleteList));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  EXPECT_EQ("1\na\n", keeltest::ReadFile(Argv()));
}

// ---- the launch form ---------------------------------------------------------------

TEST_F(CollectExternalAction, LaunchFormHandsTheRestAsOneArgument) {
  Collect("<action>" + PathElement() + "<args>rec.sh -a -b</args></action>");
  EXPECT_EQ("1\n-a -b\n", keeltest::ReadFile(Argv()));
}

TEST_F(CollectExternalAction, LaunchFormWithoutArgumentGivesOneEmptyArgument) {
  Collect("<action>" + PathElement() + "<args>rec.sh</args></action>");
  EXPECT_EQ("1\n\n", keeltest::ReadFile(Argv()));
}

TEST_F(CollectExternalAction, LaunchFormWithEmptyPathDoesNotSearchPath) {
  const std::string marker = m_tmp.Sub("probe.ran");
  ASSERT_TRUE(
      actiontest::WriteScript(m_bin + "/keeltest-probe-7f3a.sh", "echo ran > '" + marker + "'\n"));
  const std::string savedPath = getenv("PATH") != nullptr ? getenv("PATH") : "";
  setenv("PATH", (m_bin + ":" + savedPath).c_str(), 1);
  TruncAttrsList records;
  std::list<std::string> deleteList;
  const ResultCode result =
      External("<action><args>keeltest-probe-7f3a.sh</args></action>", records, deleteList);
  setenv("PATH", savedPath.c_str(), 1);
  // "/keeltest-probe-7f3a.sh" does not exist: the child ends, the run counts.
  EXPECT_EQ(0u, result);
  EXPECT_FALSE(keeltest::PathExists(marker));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectExternalAction, CommandFolderIsJoinedTwice) {
  const std::string twice = m_tmp.Sub("twice.ran");
  const std::string once = m_tmp.Sub("once.ran");
  ASSERT_TRUE(
      actiontest::WriteScript(m_tmp.Sub("sub/sub/tool.sh"), "echo ran > '" + twice + "'\n"));
  ASSERT_TRUE(actiontest::WriteScript(m_tmp.Sub("sub/tool.sh"), "echo ran > '" + once + "'\n"));
  Collect("<action><path>" + m_tmp.path() + "</path><args>sub/tool.sh</args></action>");
  EXPECT_TRUE(keeltest::PathExists(twice));
  EXPECT_FALSE(keeltest::PathExists(once));
}

TEST_F(CollectExternalAction, ExitCodeOneIsSuccess) {
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/fails.sh", "echo partial\nexit 1\n"));
  const TruncAttrsList records = Collect(StdoutAction("fails.sh"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/fails_result.txt");
  EXPECT_EQ(Banner("fails.sh") + "partial\n", keeltest::ReadFile(m_bundle + "/fails_result.txt"));

  const std::string report = m_outside + "/r.txt";
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/fails2.sh", "echo r > '" + report + "'\nexit 1\n"));
  TruncAttrsList launched;
  std::list<std::string> deleteList;
  EXPECT_EQ(0u, External("<action>" + PathElement() + "<args>fails2.sh</args><temp_out>" + report +
                             "</temp_out></action>",
                         launched, deleteList));
  ASSERT_EQ(1u, launched.size());
  ExpectRecord(launched.front(), m_bundle + "/r.txt");
  EXPECT_EQ((std::list<std::string>{report}), deleteList);
}

TEST_F(CollectExternalAction, ProgramKilledBySignalIsNotRecorded) {
  ASSERT_TRUE(actiontest::WriteScript(
      m_bin + "/killed.sh", "echo part > '" + m_bundle + "/k.txt'\nsleep 0.3\nkill -KILL $$\n"));
  TruncAttrsList records;
  std::list<std::string> deleteList;
  EXPECT_EQ(PROCESS_API_ERROR_WAIT_TIMEOUT,
            External("<action>" + PathElement() +
                         "<args>killed.sh</args><temp_out>k.txt</temp_out>"
                         "</action>",
                     records, deleteList));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  EXPECT_TRUE(m_capture.Contains("Invoked Function: KEELAction::callExtern\n"));
  EXPECT_EQ("part\n", keeltest::ReadFile(m_bundle + "/k.txt"));
}

TEST_F(CollectExternalAction, LaunchFailureIsOmittedAsFailedToExecute) {
  ParsedXml config("<os><use_extern_action><action>" + PathElement() +
                   "<args>rec.sh -x</args><temp_out>o.txt</temp_out></action>"
                   "</use_extern_action></os>");
  ASSERT_TRUE(config.ok());
  const std::string text = actiontest::InChildThatCannotFork([&]() {
    KEELCollectLogsAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root(),
                                 false);
    TruncAttrsList records;
    action.Perform(records);
    std::string seen = "records " + std::to_string(records.size()) + "\n";
    for (const Omitted& entry : omitted())
      seen += entry.id + "|" + entry.name + "|" + entry.description + "|" + entry.reason + "\n";
    for (const char* text :
         {"Invoked Function: CProcessApi::Launch\n", "Invoked Function: KEELAction::callExtern\n",
          "Invoked Function: KEELAction::performExternalAction\n"})
      seen += std::to_string(m_capture.Count(text)) + " " + text;
    return seen;
  });
  if (text == "<no setuid>")
    GTEST_SKIP() << "cannot change identity";
  EXPECT_EQ(
      "records 0\n"
      "id-1|N/A|Test logs|Failed to execute rec.sh\n"
      "1 Invoked Function: CProcessApi::Launch\n"
      "1 Invoked Function: KEELAction::callExtern\n"
      "1 Invoked Function: KEELAction::performExternalAction\n",
      text);
  EXPECT_FALSE(keeltest::PathExists(Argv()));
}

// ---- the shell form ------------------------------------------------------------------

TEST_F(CollectExternalAction, MissingProgramInShellFormIsListedWithItsBanner) {
  const TruncAttrsList records = Collect("<action>" + PathElement() +
                                         "<args>no-such-tool.sh -v</args><temp_out>o.txt</temp_out>"
                                         "<stdout/></action>");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/o.txt");
  EXPECT_EQ(Banner("no-such-tool.sh -v"), keeltest::ReadFile(m_bundle + "/o.txt"));
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectExternalAction, AbsoluteCommandIsNotPrefixedWithThePath) {
  const TruncAttrsList records =
      Collect("<action><path>" + m_tmp.Sub("nowhere") +
              "</path><args>/bin/echo direct</args><temp_out>e.txt</temp_out><stdout/></action>");
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(Banner("/bin/echo direct") + "direct\n", keeltest::ReadFile(m_bundle + "/e.txt"));
}

TEST_F(CollectExternalAction, CommandThatCannotStartStillLeavesABanner) {
  TruncAttrsList records;
  std::list<std::string> deleteList;
  EXPECT_EQ(GLOBAL_ERROR_NOT_INITIALIZED,
            External("<action><temp_out>o.txt</temp_out><stdout/></action>", records, deleteList));
  EXPECT_EQ(Banner(""), keeltest::ReadFile(m_bundle + "/o.txt"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", "Failed to execute "}}), omitted());
  EXPECT_TRUE(m_capture.Contains("Invoked Function: CCommandShell::Execute\n"));
  EXPECT_TRUE(m_capture.Contains("Invoked Function: KEELAction::callExtern\n"));
}

TEST_F(CollectExternalAction, UnopenableOutputIsOmittedButTheProgramRuns) {
  const std::string marker = m_tmp.Sub("ran.txt");
  ASSERT_TRUE(
      actiontest::WriteScript(m_bin + "/side.sh", "echo side > '" + marker + "'\necho out\n"));
  const std::string missing = m_tmp.Sub("no-bundle");
  const TruncAttrsList records =
      Collect("<action>" + PathElement() +
                  "<args>side.sh</args><temp_out>o.txt</temp_out><stdout/>"
                  "</action>",
              "", missing);
  EXPECT_EQ("side\n", keeltest::ReadFile(marker));
  EXPECT_FALSE(keeltest::PathExists(missing));
  EXPECT_TRUE(records.empty());
  const std::vector<Omitted> rows = omitted();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("o.txt", rows[0].name);
  const std::string start = missing + "/o.txt Error occurred opening the file: ";
  EXPECT_EQ(start, rows[0].reason.substr(0, start.size())) << rows[0].reason;
}

TEST_F(CollectExternalAction, MegabytesOfOutputArriveWhole) {
  const size_t size = 3 * 1000 * 1000;
  ASSERT_TRUE(actiontest::WriteScript(
      m_bin + "/big.sh", "head -c " + std::to_string(size) + " /dev/zero | tr '\\0' 'x'\n"));
  const TruncAttrsList records = Collect(StdoutAction("big.sh"));
  ASSERT_EQ(1u, records.size());
  const std::string content = keeltest::ReadFile(m_bundle + "/big_result.txt");
  ASSERT_EQ(Banner("big.sh").size() + size, content.size());
  EXPECT_EQ(Banner("big.sh"), content.substr(0, Banner("big.sh").size()));
  EXPECT_EQ(std::string::npos, content.find_first_not_of('x', Banner("big.sh").size()));
  ExpectRecord(records.front(), m_bundle + "/big_result.txt");
}

// ---- the command line ------------------------------------------------------------------

TEST_F(CollectExternalAction, UserPlaceholderWithReplaceArgsNeverRuns) {
  TruncAttrsList records;
  std::list<std::string> deleteList;
  EXPECT_EQ(KEELENGINE_ERROR_NOT_IMPLEMENTED,
            External("<action>" + PathElement() +
                         "<args replace_args=\"true\">rec.sh [USER]</args><stdout/></action>",
                     records, deleteList));
  EXPECT_FALSE(keeltest::PathExists(Argv()));
  EXPECT_FALSE(keeltest::PathExists(m_bundle + "/rec_result.txt"));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  const std::vector<keeltest::LogRecord> logs = m_capture.logger().Records();
  bool found = false;
  for (const keeltest::LogRecord& record : logs) {
    if (record.message.find("Invoked Function: helperUtil::GetSessionUsername\n") !=
        std::string::npos) {
      found = true;
      EXPECT_EQ(LOG_LEVEL_I, record.level);
    }
  }
  EXPECT_TRUE(found);
}

TEST_F(CollectExternalAction, UserPlaceholderWithoutReplaceArgsRunsLiterally) {
  Collect("<action>" + PathElement() + "<args>rec.sh [USER] [BUNDLE_DIR]</args></action>");
  EXPECT_EQ("1\n[USER] [BUNDLE_DIR]\n", keeltest::ReadFile(Argv()));
}

TEST_F(CollectExternalAction, BundleDirIsReplacedWithReplaceArgs) {
  Collect("<action>" + PathElement() +
          "<args replace_args=\"true\">rec.sh [BUNDLE_DIR]/x [BUNDLE_DIR]</args></action>");
  EXPECT_EQ("1\n" + m_bundle + "/x " + m_bundle + "\n", keeltest::ReadFile(Argv()));
}

TEST_F(CollectExternalAction, PathArgsAndOutputAreTranslated) {
  setenv("KEELTEST_EXT_BIN", m_bin.c_str(), 1);
  setenv("KEELTEST_EXT_OUT", m_outside.c_str(), 1);
  ASSERT_TRUE(
      actiontest::WriteScript(m_bin + "/w.sh", "echo \"$1\" > \"$KEELTEST_EXT_OUT/w.txt\"\n"));
  const TruncAttrsList records = Collect(
      "<action><path>$KEELTEST_EXT_BIN/</path><args>w.sh $KEELTEST_EXT_OUT/arg</args>"
      "<temp_out>$KEELTEST_EXT_OUT/w.txt</temp_out></action>");
  unsetenv("KEELTEST_EXT_BIN");
  unsetenv("KEELTEST_EXT_OUT");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/w.txt");
  EXPECT_EQ(m_outside + "/arg\n", keeltest::ReadFile(m_bundle + "/w.txt"));
  EXPECT_FALSE(keeltest::PathExists(m_outside + "/w.txt"));
}

TEST_F(CollectExternalAction, ParseFailureRunsNothing) {
  const TruncAttrsList records =
      Collect("<action>" + PathElement() + "<args>rec.sh</args><bogus/></action><action><path>" +
              m_bin + "<x/></path><args>rec.sh</args></action>");
  EXPECT_TRUE(records.empty());
  EXPECT_FALSE(keeltest::PathExists(Argv()));
  EXPECT_TRUE(omitted().empty());
  EXPECT_EQ(2u, m_capture.Count("Invoked Function: KEELAction::performExternalAction\n"));
}

// ---- callExtern itself -------------------------------------------------------------------

TEST_F(ActionCallExtern, BannerBytesAndOutput) {
  ParsedXml config("<os/>");
  OpenAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root());
  const std::string out = m_bundle + "/b.txt";
  ASSERT_TRUE(keeltest::WriteFile(out, "before"));
  EXPECT_EQ(0u, action.callExtern("", "printf 'a\\nb'", true, out));
  EXPECT_EQ("before\n\r" + kStars + "\n\"printf 'a\\nb'\" output:\n" + kStars + "\n\r\na\nb",
            keeltest::ReadFile(out));
}

TEST_F(ActionCallExtern, ShellFormPutsThePathInFront) {
  ParsedXml config("<os/>");
  OpenAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root());
  const std::string out = m_bundle + "/p.txt";
  EXPECT_EQ(0u, action.callExtern(m_bin, "hello.sh  spaced", true, out));
  EXPECT_EQ(Banner("hello.sh  spaced") + "hello spaced\n", keeltest::ReadFile(out));
}

TEST_F(ActionCallExtern, OutputFileWithoutStdoutIsTheLaunchForm) {
  ParsedXml config("<os/>");
  OpenAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root());
  const std::string out = m_bundle + "/never.txt";
  EXPECT_EQ(0u, action.callExtern(m_bin, "rec.sh a b", false, out));
  EXPECT_FALSE(keeltest::PathExists(out));
  EXPECT_EQ("1\na b\n", keeltest::ReadFile(Argv()));
}

TEST_F(ActionCallExtern, StdoutWithoutOutputFileIsTheLaunchForm) {
  ParsedXml config("<os/>");
  OpenAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root());
  EXPECT_EQ(0u, action.callExtern(m_bin, "rec.sh x  y", true, ""));
  EXPECT_EQ("1\nx  y\n", keeltest::ReadFile(Argv()));
}

TEST_F(ActionCallExtern, ProgressIsReportedWhileItRuns) {
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/slow.sh", "sleep 1.5\n"));
  ParsedXml config("<os/>");
  OpenAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), config.root());
  helperUtil::setCliMode(true);
  helperUtil::setConfigCount(1);
  while (helperUtil::getDoneCount() < 2)
    helperUtil::incrementDoneCount();
  const int32_t percent = helperUtil::progressOf(helperUtil::getDoneCount());
  testing::internal::CaptureStdout();
  const ResultCode result = action.callExtern(m_bin, "slow.sh now", false, "");
  const std::string shown = testing::internal::GetCapturedStdout();
  helperUtil::setConfigCount(0);
  helperUtil::setCliMode(false);
  EXPECT_EQ(0u, result);
  char first[200];
  char second[200];
  snprintf(first, sizeof(first), "\r%-90.90s %3d%%", "Processing Test logs...", percent);
  snprintf(second, sizeof(second), "\r%-90.90s %3d%%",
           "Still running slow.sh, please be patient as this may take a few minutes...", percent);
  ASSERT_GE(shown.size(), strlen(first) + strlen(second));
  EXPECT_EQ(std::string(first) + second, shown.substr(0, strlen(first) + strlen(second)));
}

// ---- the processor-time limit ---------------------------------------------------------------

TEST_F(ExternalActionTimeLimit, AboveTheLimitTheProgramIsStopped) {
  ASSERT_TRUE(actiontest::WriteScript(
      m_bin + "/slow.sh", "echo partial > '" + m_bundle + "/slow.txt'\nexec sleep 60\n"));
  m_env.SetClock({1000, 1000 + 1200000000});
  TruncAttrsList records;
  std::list<std::string> deleteList;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT,
            External("<action>" + PathElement() +
                         "<args>slow.sh --wait</args><temp_out>slow.txt</temp_out></action>",
                     records, deleteList));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_TRUE(m_capture.Contains("\nExecutable slow.sh timed out after 1200 seconds of activity."));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  // What was written so far stays in the working folder, unlisted.
  EXPECT_EQ("partial\n", keeltest::ReadFile(m_bundle + "/slow.txt"));
  EXPECT_EQ(2, m_env.ClockCalls());
}

// A host whose processor clock stands still until `ready` exists and is
// then past the time limit, so that a program is stopped only once it has
// done its part, however slowly it gets there.
class ClockPastTheLimitOnceReady : public keeltest::FakeEnv {
 public:
  explicit ClockPastTheLimitOnceReady(std::string ready) : m_ready(std::move(ready)) {}
  clock_t processorClock() const override {
    // The first reading is the start of the watch.
    if (m_readings++ == 0 || !keeltest::PathExists(m_ready))
      return 1000;
    return 1000 + 1200000000;
  }

 private:
  std::string m_ready;
  mutable std::atomic<int> m_readings{0};
};

TEST_F(ExternalActionTimeLimit, AboveTheLimitEverythingTheProgramStartedIsStopped) {
  // The program leaves a helper in a session of its own (a double fork
  // and setsid) and waits until the helper runs.
  const std::string helper = m_bin + "/helper.sh";
  ASSERT_TRUE(actiontest::WriteScript(
      m_bin + "/starter.sh", keeltest::StartSessionLeavingHelper(m_bin) + "exec sleep 60\n"));
  ClockPastTheLimitOnceReady env(m_bin + "/helper.ready");
  ActionSettings settings = Settings(m_bundle);
  settings.m_pEnv = &env;
  ParsedXml parsed("<action>" + PathElement() + "<args>starter.sh</args></action>");
  ASSERT_TRUE(parsed.ok());
  XMLObject subtree(parsed.root());
  TruncAttrsList records;
  std::list<std::string> deleteList;
  {
    KEELCollectLogsAction action(settings, parsed.root(), false);
    EXPECT_EQ(KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT,
              action.performExternalAction(subtree, records, deleteList));
  }
  EXPECT_TRUE(m_capture.Contains("\nExecutable starter.sh timed out after 1200 seconds"));
  EXPECT_TRUE(keeltest::PathExists(m_bin + "/helper.ready"));
  EXPECT_TRUE(keeltest::ProcessesWithMarker(helper).empty());
  keeltest::KillProcessesWithMarker(helper);
}

TEST_F(ExternalActionTimeLimit, AtTheLimitTheProgramRunsOn) {
  ASSERT_TRUE(actiontest::WriteScript(m_bin + "/slow.sh",
                                      "sleep 1.2\necho finished > '" + m_bundle + "/slow.txt'\n"));
  m_env.SetClock({0, 1199999999});
  const TruncAttrsList records = Collect(
      "<action>" + PathElement() + "<args>slow.sh</args><temp_out>slow.txt</temp_out></action>");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/slow.txt");
  EXPECT_EQ("finished\n", keeltest::ReadFile(m_bundle + "/slow.txt"));
  EXPECT_GE(m_env.ClockCalls(), 3);
  EXPECT_FALSE(m_capture.Contains("timed out"));
}

TEST_F(ExternalActionTimeLimit, ShellFormEndsBeforeTheLimitIsAsked) {
  m_env.SetClock({0, 2000000000});
  const TruncAttrsList records = Collect(StdoutAction("hello.sh"));
  ASSERT_EQ(1u, records.size());
  // The command has ended when the shell form returns: nothing is watched.
  EXPECT_EQ(0, m_env.ClockCalls());
  EXPECT_FALSE(m_capture.Contains("timed out"));
}

// ---- the same cases through a fake launcher -------------------------------------------------

// Each case gives the summary row, records and result code that the real
// launcher gives in the same case (the tests above).
class FakeLauncherAction : public CollectExternalAction {
 protected:
  void SetUp() override {
    CollectExternalAction::SetUp();
    m_programs = m_env.UseFakePrograms();
  }

  // Runs the launch form of "prog.sh --now" with its output in o.txt.
  ResultCode RunProgram(TruncAttrsList& records) {
    std::list<std::string> deleteList;
    return External("<action>" + PathElement() +
                        "<args>prog.sh --now</args><temp_out>o.txt</temp_out></action>",
                    records, deleteList);
  }

  std::shared_ptr<keeltest::FakePrograms> m_programs;
};

TEST_F(FakeLauncherAction, ProgramThatFailsToStartIsOmittedAsFailedToExecute) {
  m_programs->launchResult = PROCESS_API_ERROR_UNKNOWN;
  TruncAttrsList records;
  EXPECT_EQ(PROCESS_API_ERROR_UNKNOWN, RunProgram(records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", "Failed to execute prog.sh"}}),
            omitted());
  EXPECT_TRUE(m_capture.Contains("Invoked Function: CProcessApi::Launch\n"));
  EXPECT_EQ((std::vector<std::vector<std::string>>{{"prog.sh", "--now"}}), m_programs->launched);
  EXPECT_EQ((std::vector<std::string>{m_bin}), m_programs->launchFolders);
  EXPECT_TRUE(m_programs->killed.empty());
}

TEST_F(FakeLauncherAction, ProgramEndedBySignalLeavesNoRowAndNoRecord) {
  m_programs->runningPolls = 1;
  m_programs->waitResult = PROCESS_API_ERROR_WAIT_TIMEOUT;
  TruncAttrsList records;
  EXPECT_EQ(PROCESS_API_ERROR_WAIT_TIMEOUT, RunProgram(records));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  EXPECT_TRUE(m_capture.Contains("Invoked Function: KEELAction::callExtern\n"));
  EXPECT_EQ(2, m_programs->polls);
  // Collected by the watch: its number is never signalled afterwards.
  EXPECT_TRUE(m_programs->killed.empty());
}

TEST_F(FakeLauncherAction, ProgramPastTheTimeLimitIsKilledAndLeavesNoRow) {
  m_programs->runningPolls = -1;
  m_env.SetClock({1000, 1000 + 1200000000});
  TruncAttrsList records;
  EXPECT_EQ(KEELENGINE_ERROR_EXTERN_ACTION_TIMEOUT, RunProgram(records));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  EXPECT_TRUE(m_capture.Contains("\nExecutable prog.sh timed out after 1200 seconds of activity."));
  // Stopped (and collected) by the watch, and never signalled again.
  EXPECT_EQ((std::vector<int32_t>{keeltest::FakeProcessApi::kFakePid}), m_programs->killed);
  EXPECT_EQ(2, m_env.ClockCalls());
}

TEST_F(FakeLauncherAction, ProgramThatEndsInTimeIsRecorded) {
  m_programs->runningPolls = 2;
  m_programs->waitResult = 0;
  ASSERT_TRUE(keeltest::WriteFile(m_bundle + "/o.txt", "written\n"));
  TruncAttrsList records;
  EXPECT_EQ(0u, RunProgram(records));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/o.txt");
  EXPECT_TRUE(omitted().empty());
  EXPECT_EQ(3, m_programs->polls);
}

TEST_F(FakeLauncherAction, CollectedProgramIsNeverSignalledAgain) {
  // The program ends and is collected long before the action goes; by then
  // its number may be another process's.
  m_programs->runningPolls = 1;
  m_programs->waitResult = 0;
  ASSERT_TRUE(keeltest::WriteFile(m_bundle + "/o.txt", "written\n"));
  TruncAttrsList records;
  EXPECT_EQ(0u, RunProgram(records));
  EXPECT_EQ(1u, records.size());
  TruncAttrsList again;
  EXPECT_EQ(0u, RunProgram(again));
  EXPECT_EQ(2u, m_programs->launched.size());
  EXPECT_TRUE(m_programs->killed.empty());
}
