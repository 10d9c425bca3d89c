// The copying handlers of the collect action: file patterns and folder
// trees into the bundle folder, with their records and omitted files.
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction.h"
#include "tools/KEEL/KEELEngine/implementations/KEELAction_testsupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

using actiontest::Omitted;
using actiontest::OmittedFiles;
using actiontest::ParsedXml;

namespace {

void SetModified(const std::string& path, time_t when) {
  utimbuf times;
  times.actime = when;
  times.modtime = when;
  ASSERT_EQ(0, utime(path.c_str(), &times)) << path;
}

// Runs the test with the effective user "nobody" when the process is root,
// so that a file of mode 000 really cannot be read; restores root after.
class AsNobody {
 public:
  AsNobody() {
    if (geteuid() != 0) {
      m_ok = true;
      return;
    }
    m_ok = seteuid(65534) == 0;
    m_switched = m_ok;
  }
  ~AsNobody() {
    if (m_switched && seteuid(0) != 0)
      abort();
  }
  bool ok() const { return m_ok; }

 private:
  bool m_ok = false;
  bool m_switched = false;
};

class CollectCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_bundle = m_tmp.Sub("bundle");
    m_src = m_tmp.Sub("src");
    ASSERT_TRUE(std::filesystem::create_directories(m_bundle));
    ASSERT_TRUE(std::filesystem::create_directories(m_src));
  }

  // Runs Perform over `groups` placed in an os element.
  TruncAttrsList Collect(const std::string& groups, const std::string& bundleName = "") {
    ParsedXml config("<os opsys=\"linux\">" + groups + "</os>");
    EXPECT_TRUE(config.ok()) << groups;
    KEELCollectLogsAction action(actiontest::MakeSettings(m_bundle, m_summary.get(), bundleName),
                                 config.root(), false);
    TruncAttrsList records;
    action.Perform(records);
    return records;
  }

  // Runs one handler directly on an action element, for its result code.
  ResultCode FileAction(const std::string& actionXml, TruncAttrsList& records) {
    ParsedXml parsed(actionXml);
    EXPECT_TRUE(parsed.ok()) << actionXml;
    XMLObject subtree(parsed.root());
    KEELCollectLogsAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), parsed.root(),
                                 false);
    return action.performFileAction(subtree, records);
  }
  ResultCode DirectoryAction(const std::string& actionXml, TruncAttrsList& records) {
    ParsedXml parsed(actionXml);
    EXPECT_TRUE(parsed.ok()) << actionXml;
    XMLObject subtree(parsed.root());
    KEELCollectLogsAction action(actiontest::MakeSettings(m_bundle, m_summary.get()), parsed.root(),
                                 false);
    return action.performDirectoryAction(subtree, records);
  }

  static std::string FileGroup(const std::string& inner) {
    return "<file_copy_action><action>" + inner + "</action></file_copy_action>";
  }
  static std::string DirectoryGroup(const std::string& inner) {
    return "<directory_copy_action><action>" + inner + "</action></directory_copy_action>";
  }

  static void ExpectRecord(const TruncAttrs& record, const std::string& path) {
    actiontest::ExpectRecord(record, path);
  }

  static std::vector<std::string> SortedPaths(const TruncAttrsList& records) {
    std::vector<std::string> paths;
    for (const TruncAttrs& record : records)
      paths.push_back(record.path);
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  std::vector<Omitted> omitted() const { return OmittedFiles(*m_summary); }

  keeltest::LogCapture m_capture;
  keeltest::TempDir m_tmp;
  std::unique_ptr<XMLObject> m_summary = actiontest::MakeSummary();
  std::string m_bundle;
  std::string m_src;
};

typedef CollectCopyTest CollectFileAction;
typedef CollectCopyTest CollectDirectoryAction;

}  // namespace

// ---- performFileAction ---------------------------------------------------------

TEST_F(CollectFileAction, CopiesEveryMatchOfOneFolder) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "alpha\n"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/B.LOG", std::string("be\0ta", 5)));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/c.txt", "not me"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/deeper/d.log", "not below"));
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_src + "/*.log</loc>"));

  ASSERT_EQ(2u, records.size());
  EXPECT_EQ((std::vector<std::string>{m_bundle + "/B.LOG", m_bundle + "/a.log"}),
            SortedPaths(records));
  for (const TruncAttrs& record : records)
    ExpectRecord(record, record.path);
  EXPECT_EQ("alpha\n", keeltest::ReadFile(m_bundle + "/a.log"));
  EXPECT_EQ(std::string("be\0ta", 5), keeltest::ReadFile(m_bundle + "/B.LOG"));
  EXPECT_EQ((std::vector<std::string>{"B.LOG", "a.log"}), keeltest::ListDir(m_bundle));
  EXPECT_TRUE(omitted().empty());
  // The source is never touched.
  EXPECT_EQ("alpha\n", keeltest::ReadFile(m_src + "/a.log"));
}

TEST_F(CollectFileAction, OnlyTruncateTypeSearchesAnEmptyPath) {
  TruncAttrsList records;
  EXPECT_EQ(0u, FileAction("<action><truncate_type>end</truncate_type></action>", records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "N/A", "Test logs", "No file found with path matching: "}}),
      omitted());
}

TEST_F(CollectFileAction, PatternWithoutMatchIsOneOmittedEntry) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.txt", "x"));
  TruncAttrsList records;
  EXPECT_EQ(0u, FileAction("<action><loc>" + m_src + "/*.log</loc></action>", records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs",
                                   "No file found with path matching: " + m_src + "/*.log"}}),
            omitted());
  EXPECT_TRUE(keeltest::ListDir(m_bundle).empty());
}

TEST_F(CollectFileAction, MissingFolderIsOneOmittedEntry) {
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_tmp.Sub("none/*.log") + "</loc>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "N/A", "Test logs",
                             "No file found with path matching: " + m_tmp.Sub("none/*.log")}}),
      omitted());
}

TEST_F(CollectFileAction, LocEndingInSlashHasEmptyPattern) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "x"));
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_src + "/</loc>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "N/A", "Test logs", "No file found with path matching: " + m_src + "/"}}),
            omitted());
}

TEST_F(CollectFileAction, LocWithoutSlashSearchesAFolderOfTheSameName) {
  ASSERT_TRUE(keeltest::WriteFile(m_tmp.Sub("app.log/app.log"), "inner"));
  ASSERT_TRUE(keeltest::WriteFile(m_tmp.Sub("app.log/other.log"), "other"));
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
  ASSERT_EQ(0, chdir(m_tmp.path().c_str()));
  const TruncAttrsList records = Collect(FileGroup("<loc>app.log</loc>"));
  ASSERT_EQ(0, chdir(saved));

  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/app.log");
  EXPECT_EQ("inner", keeltest::ReadFile(m_bundle + "/app.log"));
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectFileAction, VariablesInLocAreExpanded) {
  setenv("KEELTEST_COLLECT_SRC", m_src.c_str(), 1);
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/v.log", "var"));
  const TruncAttrsList records = Collect(FileGroup("<loc>$KEELTEST_COLLECT_SRC/v.log</loc>"));
  unsetenv("KEELTEST_COLLECT_SRC");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/v.log");
  EXPECT_EQ("var", keeltest::ReadFile(m_bundle + "/v.log"));
}

TEST_F(CollectFileAction, UnsetVariableInLocIsOneOmittedEntry) {
  unsetenv("KEELTEST_COLLECT_UNSET");
  const TruncAttrsList records = Collect(FileGroup("<loc>$KEELTEST_COLLECT_UNSET/v.log</loc>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "N/A", "Test logs",
                             "No file found with path matching: $KEELTEST_COLLECT_UNSET/v.log"}}),
      omitted());
  EXPECT_TRUE(m_capture.Contains("Cannot determine environment variable"));
}

TEST_F(CollectFileAction, UnknownTagsAreIgnored) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  const TruncAttrsList records = Collect(
      FileGroup("<owner>me</owner><loc>" + m_src + "/a.log</loc><nested><deep>1</deep></nested>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/a.log");
}

TEST_F(CollectFileAction, GatherNewestCopiesOnlyTheNewest) {
  for (const char* name : {"old.log", "new.log", "mid.log"})
    ASSERT_TRUE(keeltest::WriteFile(m_src + "/" + name, name));
  SetModified(m_src + "/old.log", 1000000);
  SetModified(m_src + "/new.log", 3000000);
  SetModified(m_src + "/mid.log", 2000000);
  const TruncAttrsList records =
      Collect(FileGroup("<loc gather_newest=\"true\">" + m_src + "/*.log</loc>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/new.log");
  EXPECT_EQ((std::vector<std::string>{"new.log"}), keeltest::ListDir(m_bundle));
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectFileAction, GatherNewestOfEqualTimesCopiesOneNameOnce) {
  for (const char* name : {"a.log", "b.log", "c.log"}) {
    ASSERT_TRUE(keeltest::WriteFile(m_src + "/" + name, name));
    SetModified(m_src + "/" + name, 5000000);
  }
  FileEntry expected;
  ASSERT_EQ(0u, helperUtil::fileGetNewestMatchingFile(m_src + "/", "*.log", expected));
  const TruncAttrsList records =
      Collect(FileGroup("<loc gather_newest=\"true\">" + m_src + "/*.log</loc>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/" + expected.name);
  EXPECT_EQ((std::vector<std::string>{expected.name}), keeltest::ListDir(m_bundle));
}

TEST_F(CollectFileAction, GatherNewestWithoutMatchReportsThePattern) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.txt", "x"));
  TruncAttrsList records;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            FileAction("<action><loc gather_newest=\"true\">" + m_src + "/*.log</loc></action>",
                       records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "*.log", "Test logs", m_src + "/*.log not found on client machine."}}),
            omitted());
}

TEST_F(CollectFileAction, GatherNewestNotFoundIsNotLoggedByPerform) {
  const TruncAttrsList records =
      Collect(FileGroup("<loc gather_newest=\"true\">" + m_src + "/*.log</loc>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(1u, omitted().size());
  EXPECT_FALSE(m_capture.Contains("KEELAction::performFileAction"));
}

TEST_F(CollectFileAction, GatherNewestInMissingFolderReportsIt) {
  const std::string folder = m_tmp.Sub("gone/");
  const TruncAttrsList records =
      Collect(FileGroup("<loc gather_newest=\"true\">" + folder + "x.log</loc>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "x.log", "Test logs", folder + "x.log not found on client machine."}}),
            omitted());
}

TEST_F(CollectFileAction, UnreadableNewestFileIsNotReplacedByAnOlderOne) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/older.log", "older"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/newest.log", "newest"));
  SetModified(m_src + "/older.log", 1000000);
  SetModified(m_src + "/newest.log", 2000000);
  ASSERT_EQ(0, chmod(m_src.c_str(), 0755));
  ASSERT_EQ(0, chmod(m_tmp.path().c_str(), 0755));
  ASSERT_EQ(0, chmod(m_bundle.c_str(), 0777));
  ASSERT_EQ(0, chmod((m_src + "/newest.log").c_str(), 0));
  TruncAttrsList records;
  {
    AsNobody nobody;
    if (!nobody.ok())
      GTEST_SKIP() << "cannot drop privileges";
    records = Collect(FileGroup("<loc gather_newest=\"true\">" + m_src + "/*.log</loc>"));
  }
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "newest.log", "Test logs",
                             m_src + "/*.log Error occurred opening the file: Permission denied"}}),
      omitted());
  EXPECT_TRUE(keeltest::ListDir(m_bundle).empty());
}

TEST_F(CollectFileAction, UnreadableFileIsSkippedAndTheRestCopied) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/locked.log", "locked"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/open.log", "open"));
  ASSERT_EQ(0, chmod(m_src.c_str(), 0755));
  ASSERT_EQ(0, chmod(m_tmp.path().c_str(), 0755));
  ASSERT_EQ(0, chmod(m_bundle.c_str(), 0777));
  ASSERT_EQ(0, chmod((m_src + "/locked.log").c_str(), 0));
  TruncAttrsList records;
  {
    AsNobody nobody;
    if (!nobody.ok())
      GTEST_SKIP() << "cannot drop privileges";
    records = Collect(FileGroup("<loc>" + m_src + "/*.log</loc>"));
  }
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/open.log");
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "locked.log", "Test logs",
                             m_src + "/*.log Error occurred opening the file: Permission denied"}}),
      omitted());
}

TEST_F(CollectFileAction, DanglingLinkIsAFileNotFound) {
  ASSERT_EQ(0, symlink(m_tmp.Sub("nowhere").c_str(), (m_src + "/dangling.log").c_str()));
  TruncAttrsList records;
  EXPECT_EQ(0u, FileAction("<action><loc>" + m_src + "/*.log</loc></action>", records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "dangling.log", "Test logs", m_src + "/*.log File not found"}}),
            omitted());
}

TEST_F(CollectFileAction, MissingBundleFolderFailsEachCopyAndGoesOn) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/b.log", "b"));
  std::filesystem::remove(m_bundle);
  TruncAttrsList records;
  EXPECT_EQ(0u, FileAction("<action><loc>" + m_src + "/*.log</loc></action>", records));
  EXPECT_TRUE(records.empty());
  std::vector<Omitted> entries = omitted();
  ASSERT_EQ(2u, entries.size());
  std::sort(entries.begin(), entries.end(),
            [](const Omitted& a, const Omitted& b) { return a.name < b.name; });
  const std::string reason = m_src + "/*.log Error occurred opening the file";
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "a.log", "Test logs", reason},
                                  {"id-1", "b.log", "Test logs", reason}}),
            entries);
}

TEST_F(CollectFileAction, CopyFailureWithGatherNewestEndsTheWalk) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  std::filesystem::remove(m_bundle);
  TruncAttrsList records;
  EXPECT_EQ(0u, FileAction("<action><loc gather_newest=\"true\">" + m_src + "/a.log</loc></action>",
                           records));
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "a.log", "Test logs", m_src + "/a.log Error occurred opening the file"}}),
            omitted());
}

TEST_F(CollectFileAction, BundleNameShapesTheDestination) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/system.log", "sys"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/messages", "msg"));
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_src + "/*</loc>"), "vpn.txt");
  EXPECT_EQ((std::vector<std::string>{m_bundle + "/vpn__messages__messages.txt",
                                      m_bundle + "/vpn__system__log.txt"}),
            SortedPaths(records));
  EXPECT_EQ("sys", keeltest::ReadFile(m_bundle + "/vpn__system__log.txt"));
  EXPECT_EQ("msg", keeltest::ReadFile(m_bundle + "/vpn__messages__messages.txt"));
}

TEST_F(CollectFileAction, SameDestinationIsReplacedAndListedTwice) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/one/app.log", "first"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/two/app.log", "second"));
  const TruncAttrsList records =
      Collect("<file_copy_action><a><loc>" + m_src + "/one/app.log</loc></a><a><loc>" + m_src +
              "/two/app.log</loc></a></file_copy_action>");
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(m_bundle + "/app.log", records.front().path);
  EXPECT_EQ(m_bundle + "/app.log", records.back().path);
  EXPECT_EQ(5.0, records.front().size);
  EXPECT_EQ(6.0, records.back().size);
  EXPECT_EQ("second", keeltest::ReadFile(m_bundle + "/app.log"));
}

TEST_F(CollectFileAction, EmptyFileIsCopiedWithSizeZero) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/empty.log", ""));
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_src + "/empty.log</loc>"));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(0.0, records.front().size);
  EXPECT_EQ("", keeltest::ReadFile(m_bundle + "/empty.log"));
}

// ---- performDirectoryAction ------------------------------------------------------

TEST_F(CollectDirectoryAction, KeepsTheTreeBelowTheBundleFolder) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/top.log", "top"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/x/mid.log", "mid"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/x/y/low.LOG", "low"));
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/x/skip.txt", "skip"));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*.log</pattern>"), "ignored.txt");
  EXPECT_EQ((std::vector<std::string>{m_bundle + "/top.log", m_bundle + "/x/mid.log",
                                      m_bundle + "/x/y/low.LOG"}),
            SortedPaths(records));
  for (const TruncAttrs& record : records)
    ExpectRecord(record, record.path);
  EXPECT_EQ("top", keeltest::ReadFile(m_bundle + "/top.log"));
  EXPECT_EQ("mid", keeltest::ReadFile(m_bundle + "/x/mid.log"));
  EXPECT_EQ("low", keeltest::ReadFile(m_bundle + "/x/y/low.LOG"));
  EXPECT_FALSE(keeltest::PathExists(m_bundle + "/x/skip.txt"));
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectDirectoryAction, NoPatternIsOneOmittedEntry) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  TruncAttrsList records;
  EXPECT_EQ(0u, DirectoryAction("<action><loc>" + m_src + "</loc></action>", records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", m_src + "/"}}), omitted());
}

TEST_F(CollectDirectoryAction, TwoPatternsForOneFileGiveOneCopy) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  const TruncAttrsList records = Collect(
      DirectoryGroup("<loc>" + m_src + "/</loc><pattern>*.log</pattern><pattern>a.*</pattern>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/a.log");
}

TEST_F(CollectDirectoryAction, MissingFolderIsOneOmittedEntry) {
  const std::string folder = m_tmp.Sub("absent");
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + folder + "</loc><pattern>*</pattern>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", folder + "/"}}), omitted());
}

TEST_F(CollectDirectoryAction, NoMatchIsOneOmittedEntry) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/sub/a.txt", "a"));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "/</loc><pattern>*.log</pattern>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", m_src + "/"}}), omitted());
  EXPECT_TRUE(keeltest::ListDir(m_bundle).empty());
}

TEST_F(CollectDirectoryAction, EmptyLocIsOneOmittedEntry) {
  const TruncAttrsList records = Collect(DirectoryGroup("<loc/><pattern>*</pattern>"));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "N/A", "Test logs", ""}}), omitted());
}

TEST_F(CollectDirectoryAction, ForeignChildDropsTheAction) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*</pattern><gather>1</gather>"));
  EXPECT_TRUE(records.empty());
  EXPECT_TRUE(omitted().empty());
  EXPECT_TRUE(keeltest::ListDir(m_bundle).empty());
  EXPECT_TRUE(m_capture.Contains("\nUnexpected xml child for directory_copy_action."));
  EXPECT_TRUE(m_capture.Contains("Invoked Function: KEELAction::performDirectoryAction\n"));
}

TEST_F(CollectDirectoryAction, VariableLocIsExpandedAndTreeKept) {
  setenv("KEELTEST_COLLECT_TREE", m_src.c_str(), 1);
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/deep/er/f.txt", "f"));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>$KEELTEST_COLLECT_TREE/deep</loc><pattern>*</pattern>"));
  unsetenv("KEELTEST_COLLECT_TREE");
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/er/f.txt");
}

TEST_F(CollectDirectoryAction, DanglingLinkIsOmittedWithItsSource) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/sub/good.log", "good"));
  ASSERT_EQ(0, symlink(m_tmp.Sub("nowhere").c_str(), (m_src + "/sub/bad.log").c_str()));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*.log</pattern>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/sub/good.log");
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "bad.log", "Test logs", m_src + "/sub/bad.log File not found"}}),
            omitted());
}

TEST_F(CollectDirectoryAction, UnreadableFileIsOmittedWithItsSource) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/locked.log", "locked"));
  for (const std::string& path : {m_tmp.path(), m_src})
    ASSERT_EQ(0, chmod(path.c_str(), 0755));
  ASSERT_EQ(0, chmod(m_bundle.c_str(), 0777));
  ASSERT_EQ(0, chmod((m_src + "/locked.log").c_str(), 0));
  TruncAttrsList records;
  {
    AsNobody nobody;
    if (!nobody.ok())
      GTEST_SKIP() << "cannot drop privileges";
    records = Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*.log</pattern>"));
  }
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{
                {"id-1", "locked.log", "Test logs",
                 m_src + "/locked.log Error occurred opening the file: Permission denied"}}),
            omitted());
}

TEST_F(CollectDirectoryAction, SymbolicLinkLoopEnds) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/a.log", "a"));
  ASSERT_EQ(0, symlink(".", (m_src + "/loop").c_str()));
  ASSERT_EQ(0, symlink("..", (m_src + "/up").c_str()));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*.log</pattern>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/a.log");
  EXPECT_TRUE(omitted().empty());
}

TEST_F(CollectDirectoryAction, FolderThatCannotBeMadeIsAnOmittedFileWithTheReason) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/sub/a.log", "a"));
  std::filesystem::remove(m_bundle);
  ASSERT_TRUE(keeltest::WriteFile(m_bundle, "a file where the folder should be"));
  TruncAttrsList records;
  EXPECT_EQ(0u, DirectoryAction("<action><loc>" + m_src + "</loc><pattern>*</pattern></action>",
                                records));
  EXPECT_TRUE(records.empty());
  EXPECT_EQ((std::vector<Omitted>{{"id-1", "a.log", "Test logs",
                                   m_src + "/sub/a.log Error occurred writing the copy: Not a "
                                           "directory"}}),
            omitted());
}

TEST_F(CollectDirectoryAction, CopiesIntoTheBundleFolderItself) {
  ASSERT_TRUE(keeltest::WriteFile(m_src + "/only.txt", std::string(10000, 'z')));
  TruncAttrsList records;
  EXPECT_EQ(0u, DirectoryAction("<action><loc>" + m_src +
                                    "/</loc><pattern>ONLY.TXT</pattern>"
                                    "</action>",
                                records));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/only.txt");
  EXPECT_EQ(10000.0, records.front().size);
}

// ---- Sources another user controls -------------------------------------------------

namespace {

// The copy tests with a folder of uid 65534 below the source folder, and
// links made there by that user.
class CollectFromOtherUser : public CollectCopyTest {
 protected:
  void SetUp() override {
    CollectCopyTest::SetUp();
    for (const std::string& path : {m_tmp.path(), m_src})
      ASSERT_EQ(0, chmod(path.c_str(), 0755));
    ASSERT_TRUE(keeltest::WriteFile(m_tmp.Sub("private/shadow"), "root only\n"));
    ASSERT_EQ(0, chmod(m_tmp.Sub("private").c_str(), 0700));
    ASSERT_EQ(0, chmod(m_tmp.Sub("private/shadow").c_str(), 0600));
    m_user = m_src + "/user";
    ASSERT_EQ(0, mkdir(m_user.c_str(), 0755));
    ASSERT_EQ(0, chown(m_user.c_str(), keeltest::kNobody, keeltest::kNobody));
    ASSERT_TRUE(keeltest::WriteFile(m_user + "/app.log", "app\n"));
  }

  void UsersLink(const std::string& target, const std::string& at) {
    const int status =
        keeltest::RunAsNobody([&] { return symlink(target.c_str(), at.c_str()) == 0 ? 0 : 1; });
    if (status == keeltest::kCannotBecomeNobody)
      GTEST_SKIP() << "cannot change to an unprivileged user";
    ASSERT_EQ(0, status);
  }

  std::string m_user;
};

const char kSteered[] = " belongs to uid 0 but is reached through a folder or link of uid 65534";

}  // namespace

TEST_F(CollectFromOtherUser, FileActionOmitsTheUsersLinkToARootOnlyFileWithTheReason) {
  ASSERT_NO_FATAL_FAILURE(UsersLink(m_tmp.Sub("private/shadow"), m_user + "/zz.log"));
  const TruncAttrsList records = Collect(FileGroup("<loc>" + m_user + "/*.log</loc>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/app.log");
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "zz.log", "Test logs",
                             m_user + "/*.log Error occurred opening the file: \"/\"" + kSteered}}),
      omitted());
  EXPECT_EQ((std::vector<std::string>{"app.log"}), keeltest::ListDir(m_bundle));
}

TEST_F(CollectFromOtherUser, DirectoryActionOmitsTheUsersFileAndFolderLinksWithTheReason) {
  ASSERT_NO_FATAL_FAILURE(UsersLink("../../private/shadow", m_user + "/shadow.log"));
  ASSERT_NO_FATAL_FAILURE(UsersLink("../../private", m_user + "/door"));
  const TruncAttrsList records =
      Collect(DirectoryGroup("<loc>" + m_src + "</loc><pattern>*.log</pattern>"));
  ASSERT_EQ(1u, records.size());
  ExpectRecord(records.front(), m_bundle + "/user/app.log");
  std::vector<Omitted> rows = omitted();
  std::sort(rows.begin(), rows.end(),
            [](const Omitted& a, const Omitted& b) { return a.name < b.name; });
  const std::string reason = " Error occurred opening the file: \"..\"" + std::string(kSteered);
  EXPECT_EQ(
      (std::vector<Omitted>{{"id-1", "door", "Test logs", m_user + "/door" + reason},
                            {"id-1", "shadow.log", "Test logs", m_user + "/shadow.log" + reason}}),
      rows);
  EXPECT_EQ((std::vector<std::string>{"app.log"}), keeltest::ListDir(m_bundle + "/user"));
}
