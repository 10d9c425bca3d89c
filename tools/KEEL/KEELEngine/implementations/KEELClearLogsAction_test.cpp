// The clear kind of action: files removed by pattern, clearing commands run,
// folder groups left alone, and nothing reported.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction_testsupport.h"

using actiontest::ParsedXml;

namespace {

class ClearAction : public ::testing::Test {
 protected:
  void SetUp() override {
    m_logs = m_tmp.Sub("logs");
    m_bin = m_tmp.Sub("bin");
    ASSERT_TRUE(std::filesystem::create_directories(m_logs));
    ASSERT_TRUE(std::filesystem::create_directories(m_bin));
    ASSERT_TRUE(actiontest::WriteScript(m_bin + "/reset",
                                        "{ echo \"$#\"; for a in \"$@\"; do "
                                        "echo \"$a\"; done; } > '" +
                                            Argv() + "'\n"));
    ASSERT_TRUE(actiontest::WriteScript(m_bin + "/other.sh", "echo ran > '" + Other() + "'\n"));
  }

  void TearDown() override { EXPECT_TRUE(actiontest::NoChildLeft()); }

  std::string Argv() const { return m_tmp.Sub("argv.txt"); }
  std::string Other() const { return m_tmp.Sub("other.ran"); }

  // Runs Perform of a clear action over `groups` in an os element, with no
  // summary document, as a clear run does.
  TruncAttrsList Clear(const std::string& groups) {
    ParsedXml config("<os opsys=\"linux\">" + groups + "</os>");
    EXPECT_TRUE(config.ok()) << groups;
    ActionSettings settings = actiontest::MakeSettings("", nullptr);
    settings.m_truncateType = TRUNC_NONE;
    settings.m_truncateLimit = 0;
    KEELClearLogsAction action(settings, config.root());
    TruncAttrsList records;
    action.Perform(records);
    return records;
  }

  // Runs one handler directly on an action element.
  ResultCode Handle(const std::string& kind, const std::string& actionXml) {
    ParsedXml parsed(actionXml);
    EXPECT_TRUE(parsed.ok()) << actionXml;
    XMLObject subtree(parsed.root());
    KEELClearLogsAction action(actiontest::MakeSettings("", nullptr), parsed.root());
    TruncAttrsList records;
    std::list<std::string> deleteList;
    ResultCode result = 0;
    if (kind == "file")
      result = action.performFileAction(subtree, records);
    else if (kind == "directory")
      result = action.performDirectoryAction(subtree, records);
    else
      result = action.performExternalAction(subtree, records, deleteList);
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(deleteList.empty());
    return result;
  }

  // A folder of another user (uid 65534) holding a link of theirs, `logs`,
  // to a folder of root's with log files in it; returns the root folder.
  std::string MakeLinkOfAnotherUser() {
    const std::string user = m_tmp.Sub("user");
    const std::string root = m_tmp.Sub("rootlogs");
    EXPECT_TRUE(std::filesystem::create_directories(user));
    EXPECT_TRUE(std::filesystem::create_directories(root));
    for (const char* name : {"a.log", "b.log", "c.log"})
      EXPECT_TRUE(keeltest::WriteFile(root + "/" + name, "root's own\n"));
    EXPECT_EQ(0, symlink(root.c_str(), (user + "/logs").c_str()));
    EXPECT_EQ(0, lchown((user + "/logs").c_str(), kNobody, kNobody));
    EXPECT_EQ(0, chown(user.c_str(), kNobody, kNobody));
    return root;
  }

  static constexpr uid_t kNobody = 65534;

  void MakeLogs() {
    for (const char* name : {"a.log", "B.LOG", "keep.txt", "below/c.log", "below/d.txt"})
      ASSERT_TRUE(keeltest::WriteFile(m_logs + "/" + name, name));
  }

  keeltest::LogCapture m_capture;
  keeltest::TempDir m_tmp;
  std::string m_logs;
  std::string m_bin;
};

}  // namespace

TEST_F(ClearAction, WildcardRemovesMatchesInThatFolderOnly) {
  MakeLogs();
  const TruncAttrsList records = Clear("<file_copy_action><action><loc>" + m_logs +
                                       "/*.log</loc><clear_log apply=\"true\"/></action>"
                                       "</file_copy_action>");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<std::string>{"below", "keep.txt"}), keeltest::ListDir(m_logs));
  EXPECT_EQ((std::vector<std::string>{"c.log", "d.txt"}), keeltest::ListDir(m_logs + "/below"));
}

TEST_F(ClearAction, LinkOfAnotherUserToARootFolderClearsNothingThere) {
  const std::string root = MakeLinkOfAnotherUser();
  Clear("<file_copy_action><action><loc>" + m_tmp.Sub("user/logs") +
        "/*.log</loc><clear_log apply=\"true\"/></action></file_copy_action>");
  EXPECT_EQ((std::vector<std::string>{"a.log", "b.log", "c.log"}), keeltest::ListDir(root));
  EXPECT_TRUE(m_capture.Contains("Not clearing \"" + m_tmp.Sub("user/logs") + "/\""));
}

TEST_F(ClearAction, FolderOfAnotherUserIsClearedOfItsOwnFiles) {
  // A service account's own log folder is cleared as any other.
  const std::string user = m_tmp.Sub("service");
  ASSERT_TRUE(std::filesystem::create_directories(user + "/logs"));
  for (const char* name : {"a.log", "keep.txt"}) {
    ASSERT_TRUE(keeltest::WriteFile(user + "/logs/" + name, name));
    ASSERT_EQ(0, chown((user + "/logs/" + name).c_str(), kNobody, kNobody));
  }
  ASSERT_EQ(0, chown((user + "/logs").c_str(), kNobody, kNobody));
  ASSERT_EQ(0, chown(user.c_str(), kNobody, kNobody));
  Clear("<file_copy_action><action><loc>" + user +
        "/logs/*.LOG</loc><clear_log apply=\"true\"/></action></file_copy_action>");
  EXPECT_EQ((std::vector<std::string>{"keep.txt"}), keeltest::ListDir(user + "/logs"));
}

TEST_F(ClearAction, OnlyRegularFilesAreCleared) {
  MakeLogs();
  const std::string target = m_tmp.Sub("target.log");
  ASSERT_TRUE(keeltest::WriteFile(target, "elsewhere\n"));
  ASSERT_EQ(0, symlink(target.c_str(), (m_logs + "/link.log").c_str()));
  ASSERT_EQ(0, mkfifo((m_logs + "/pipe.log").c_str(), 0600));
  Clear("<file_copy_action><action><loc>" + m_logs +
        "/*.log</loc><clear_log apply=\"true\"/></action></file_copy_action>");
  EXPECT_EQ((std::vector<std::string>{"below", "keep.txt", "link.log", "pipe.log"}),
            keeltest::ListDir(m_logs));
  EXPECT_EQ("elsewhere\n", keeltest::ReadFile(target));
}

TEST_F(ClearAction, ApplyFalseRemovesNothing) {
  MakeLogs();
  Clear("<file_copy_action><action><loc>" + m_logs +
        "/*</loc><clear_log apply=\"false\"/></action><action><loc>" + m_logs +
        "/*</loc></action><action><loc>" + m_logs +
        "/*</loc><clear_log apply=\"TRUE\"/></action></file_copy_action>");
  EXPECT_EQ((std::vector<std::string>{"B.LOG", "a.log", "below", "keep.txt"}),
            keeltest::ListDir(m_logs));
}

TEST_F(ClearAction, GatherNewestHasNoMeaningHere) {
  MakeLogs();
  Clear("<file_copy_action><action><loc gather_newest=\"true\">" + m_logs +
        "/*.log</loc><clear_log apply=\"true\"/></action></file_copy_action>");
  EXPECT_EQ((std::vector<std::string>{"below", "keep.txt"}), keeltest::ListDir(m_logs));
}

TEST_F(ClearAction, NoMatchIsSilent) {
  EXPECT_EQ(0u, Handle("file", "<action><loc>" + m_logs +
                                   "/*.none</loc><clear_log apply=\"true\"/></action>"));
  EXPECT_EQ(0u, Handle("file", "<action><loc>" + m_tmp.Sub("absent/*") +
                                   "</loc><clear_log apply=\"true\"/></action>"));
  EXPECT_EQ(0u, Handle("file", "<action><clear_log apply=\"true\"/></action>"));
  for (const keeltest::LogRecord& record : m_capture.logger().Records())
    EXPECT_NE(LOG_LEVEL_E, record.level) << record.message;
}

TEST_F(ClearAction, FileParseFailureIsReturned) {
  XMLObject empty;
  KEELClearLogsAction action(actiontest::MakeSettings("", nullptr), nullptr);
  TruncAttrsList records;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, action.performFileAction(empty, records));
}

TEST_F(ClearAction, ClearCommandRunsInThePathWithOneArgument) {
  const TruncAttrsList records =
      Clear("<use_extern_action><action><path>" + m_bin +
            "</path><args>other.sh</args><clear_log apply=\"true\">reset --all</clear_log></action>"
            "</use_extern_action>");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ("1\n--all\n", keeltest::ReadFile(Argv()));
  EXPECT_FALSE(keeltest::PathExists(Other()));
}

TEST_F(ClearAction, ClearCommandIsTheLaunchFormEvenWithStdout) {
  const std::string out = m_tmp.Sub("out.txt");
  Clear("<use_extern_action><action><path>" + m_bin + "</path><temp_out>" + out +
        "</temp_out><stdout/><clear_log apply=\"true\">reset a  b</clear_log></action>"
        "</use_extern_action>");
  EXPECT_EQ("1\na  b\n", keeltest::ReadFile(Argv()));
  EXPECT_FALSE(keeltest::PathExists(out));
}

TEST_F(ClearAction, ClearCommandIsNotTranslatedButPathIs) {
  setenv("KEELTEST_CLEAR_BIN", m_bin.c_str(), 1);
  Clear(
      "<use_extern_action><action><path>$KEELTEST_CLEAR_BIN/</path>"
      "<args replace_args=\"true\">other.sh</args>"
      "<clear_log apply=\"true\">reset $HOME/x [BUNDLE_DIR] [USER]</clear_log></action>"
      "</use_extern_action>");
  unsetenv("KEELTEST_CLEAR_BIN");
  EXPECT_EQ("1\n$HOME/x [BUNDLE_DIR] [USER]\n", keeltest::ReadFile(Argv()));
}

TEST_F(ClearAction, LaunchFailureOnlyReachesTheLog) {
  const std::string text = actiontest::InChildThatCannotFork([&]() {
    const ResultCode result =
        Handle("external", "<action><path>" + m_bin +
                               "</path><clear_log apply=\"true\">reset now</clear_log></action>");
    return std::to_string(result) + " " +
           std::to_string(m_capture.Count("Invoked Function: CProcessApi::Launch\n")) + " " +
           std::to_string(m_capture.Count("\npXMLSummary is NULL"));
  });
  if (text == "<no setuid>")
    GTEST_SKIP() << "cannot change identity";
  EXPECT_EQ("0 1 1", text);
  EXPECT_FALSE(keeltest::PathExists(Argv()));
}

TEST_F(ClearAction, ApplyFalseRunsNothing) {
  EXPECT_EQ(0u, Handle("external", "<action><path>" + m_bin +
                                       "</path><clear_log apply=\"false\">reset --all</clear_log>"
                                       "<args>other.sh</args></action>"));
  EXPECT_EQ(0u, Handle("external", "<action><path>" + m_bin +
                                       "</path><clear_log>reset --all</clear_log></action>"));
  EXPECT_FALSE(keeltest::PathExists(Argv()));
  EXPECT_FALSE(keeltest::PathExists(Other()));
}

TEST_F(ClearAction, AdminArgsAreNeverUsed) {
  EXPECT_EQ(0u, Handle("external", "<action><path>" + m_bin +
                                       "</path><admin_args>other.sh</admin_args>"
                                       "<clear_log apply=\"true\">reset</clear_log></action>"));
  EXPECT_EQ("1\n\n", keeltest::ReadFile(Argv()));
  EXPECT_FALSE(keeltest::PathExists(Other()));
}

TEST_F(ClearAction, EmptyClearCommandLaunchesTheBareFolderAndReturnsZero) {
  EXPECT_EQ(0u, Handle("external", "<action><path>" + m_bin +
                                       "</path><clear_log apply=\"true\"></clear_log></action>"));
  EXPECT_FALSE(keeltest::PathExists(Argv()));
  EXPECT_FALSE(keeltest::PathExists(Other()));
}

TEST_F(ClearAction, ExternalParseFailureIsReturnedAndLogged) {
  EXPECT_EQ(
      KEELENGINE_ERROR_UNKNOWN_XML_TAG,
      Handle("external", "<action><clear_log apply=\"true\">reset</clear_log><loc/></action>"));
  Clear("<use_extern_action><action><path>" + m_bin +
        "<x/></path><clear_log apply=\"true\">reset</clear_log></action></use_extern_action>");
  EXPECT_EQ(1u, m_capture.Count("Invoked Function: KEELAction::performExternalAction\n"));
  EXPECT_FALSE(keeltest::PathExists(Argv()));
}

TEST_F(ClearAction, DirectoryGroupsPassThrough) {
  MakeLogs();
  const TruncAttrsList records =
      Clear("<directory_copy_action><action><loc>" + m_logs +
            "</loc><pattern>*</pattern><clear_log apply=\"true\"/></action>"
            "<action><bogus/></action></directory_copy_action>");
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<std::string>{"B.LOG", "a.log", "below", "keep.txt"}),
            keeltest::ListDir(m_logs));
  EXPECT_EQ(0u, Handle("directory", "<action><bogus/></action>"));
  EXPECT_TRUE(m_capture.logger().Records().empty());
}

TEST_F(ClearAction, MixedGroupsRunInOrder) {
  MakeLogs();
  Clear("<directory_copy_action><a><loc>" + m_logs +
        "</loc></a></directory_copy_action>"
        "<file_copy_action><a><loc>" +
        m_logs +
        "/keep.txt</loc><clear_log apply=\"true\"/></a></file_copy_action>"
        "<use_extern_action><a><path>" +
        m_bin + "</path><clear_log apply=\"true\">reset done</clear_log></a></use_extern_action>");
  EXPECT_EQ((std::vector<std::string>{"B.LOG", "a.log", "below"}), keeltest::ListDir(m_logs));
  EXPECT_EQ("1\ndone\n", keeltest::ReadFile(Argv()));
}
