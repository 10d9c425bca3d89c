// The working folder and summary.txt of bundle runs on a host shared with
// other users: names made in advance by another user (uid 65534) never deny
// a run its folder, what dead runs left is taken away by the next run, a run
// leaves nothing of its own in /tmp, and nothing collected can write or
// break the bundle's summary. Each run is in a private mount namespace (see
// E2eSupport.h).
#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eInstructions.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

// The head of summary.txt up to its time line.
const char kHeadStart[] = "KEEL BUNDLE SUMMARY\n\nTime:                         ";

class WorkingFolderRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home", "work", "out", "scratch", "src"}, "install/keelcli"));
    if (IsSkipped())
      return;
    // The other user must be able to reach and write the bundle's folder,
    // which, shared so, must have the sticky bit.
    chmod(m_tree->path().c_str(), 0755);
    chmod(m_tree->Sub("out").c_str(), 01777);
    ASSERT_TRUE(WriteFile(Src("a.log"), "alpha\n"));
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }
  std::string Out(const std::string& name) const { return m_tree->Sub("out/" + name); }
  std::string Bundle() const { return Out("b.zip"); }

  void AddConfig(const std::string& instructions, const std::string& groupExtra = "") {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/work.xml"),
                          InstructionFile("Work", instructions, groupExtra)));
  }

  IsolatedResult Keel(const std::string& prepare = "", const std::string& inspect = "") {
    return keeltest::RunIsolated({m_tree->Sub("install/keelcli"), "-dst", Bundle()},
                                 {"HOME=" + m_tree->Sub("home"), "USER=tester"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"), prepare, inspect);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }
  std::string Summary() const { return ZipEntry(Bundle(), "summary.txt"); }
};

TEST_F(WorkingFolderRun, EveryFreshNameMadeInAdvanceStillGivesABundleAndSaysWhy) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  // Every fresh name of this minute and the next (the namespace keeps UTC),
  // made by the other user: the even numbers as folders, the odd ones as
  // links.
  const std::string nobody = kAsNobody;
  const std::string prepare =
      nobody +
      "mkdir -m 0777 /tmp/theirs\n"
      "now=$(date +%s)\n"
      "for stamp in $(date -u -d @$now +%m%d_%H%M) $(date -u -d @$((now + 60)) "
      "+%m%d_%H%M); do\n"
      "  seq 0 2 99999 | sed \"s|^|/tmp/KEEL_Temp_Bundle__${stamp}_|\" | xargs " +
      nobody +
      "mkdir\n"
      "  seq 1 2 99999 | sed \"s|^|/tmp/theirs/KEEL_Temp_Bundle__${stamp}_|\" | xargs " +
      nobody +
      "ln -s -t /tmp\n"
      "done\n";
  const IsolatedResult run =
      Keel(prepare, "ls /tmp | grep -c '^KEEL_Temp_Bundle__'; ls -A /tmp/theirs | wc -l");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  const std::regex why(
      "\r\nWarning: every usual working folder name is taken by someone else; working in "
      "\"/tmp/KEEL_Temp_Bundle_[0-9a-f]{16}\"\\.\\.\\.\r\n");
  EXPECT_TRUE(std::regex_search(run.out, why)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"a.log", "summary.txt"}), SortedZipEntryNames(Bundle()));
  // All prepared names are still there, nothing else is left in /tmp but
  // the other user's folder, which the run did not write into. (The listing
  // of the run leaves out the way to the test trees, when they lie below
  // /tmp.)
  EXPECT_EQ("200000\n0\n", Inspect());
  std::string others;
  std::istringstream listing(run.tmpListing);
  for (std::string name; std::getline(listing, name);) {
    if (name.rfind("KEEL_Temp_Bundle__", 0) != 0)
      others += name + "\n";
  }
  EXPECT_EQ("theirs\n", others);
}

TEST_F(WorkingFolderRun, LeftoversOfDeadRunsGoAndOtherUsersThingsStay) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  const std::string nobody = kAsNobody;
  const std::string prepare =
      // A dead run's folder with a tree, and its unfinished bundle.
      "mkdir -p /tmp/KEEL_Temp_Bundle__0101_0000_1/logs/deep\n"
      "echo copy > /tmp/KEEL_Temp_Bundle__0101_0000_1/logs/deep/a.log\n"
      "echo old > /tmp/KEEL_Temp_Bundle__0101_0000_1/summary.txt\n"
      "mkdir /tmp/KEEL_Temp_Bundle_00000000deadbeef\n"
      "echo half > " +
      Out(".old.zip.Ab12Cd") +
      "\n"
      // The other user's folder and unfinished file of the same forms.
      + nobody + "mkdir /tmp/KEEL_Temp_Bundle__0101_0000_2\n" + nobody +
      "sh -c 'echo theirs > /tmp/KEEL_Temp_Bundle__0101_0000_2/t.log'\n" + nobody +
      "sh -c 'echo theirs > " + Out(".their.zip.Zz99Zz") +
      "'\n"
      // A link of the form to a folder of root's.
      "mkdir /opt/victim && echo precious > /opt/victim/keep.txt\n"
      "ln -s /opt/victim /tmp/KEEL_Temp_Bundle_0123456789abcdef\n";
  const IsolatedResult run = Keel(prepare, "cat /opt/victim/keep.txt; ls -A " + Out(""));
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("KEEL_Temp_Bundle_0123456789abcdef\nKEEL_Temp_Bundle__0101_0000_2\n", run.tmpListing);
  EXPECT_EQ("precious\n.their.zip.Zz99Zz\nb.zip\n", Inspect());
}

TEST_F(WorkingFolderRun, FolderOfARunStillAliveStaysAndSoDoesItsBundleFile) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  // The shell holds the lock a live run holds on its folder for the whole
  // of the run.
  const std::string prepare =
      "mkdir /tmp/KEEL_Temp_Bundle__0101_0000_5\n"
      "echo live > /tmp/KEEL_Temp_Bundle__0101_0000_5/in-use.log\n"
      "exec 7< /tmp/KEEL_Temp_Bundle__0101_0000_5 && flock -x 7\n"
      "mkdir -p /tmp/KEEL_Temp_Bundle__0101_0000_6/dead\n"
      "echo writing > " +
      Out(".live.zip.Ab12Cd") + "\n";
  const IsolatedResult run =
      Keel(prepare, "cat /tmp/KEEL_Temp_Bundle__0101_0000_5/in-use.log " + Out(".live.zip.Ab12Cd"));
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("live\nwriting\n", Inspect());
  EXPECT_EQ("KEEL_Temp_Bundle__0101_0000_5\n", run.tmpListing);
}

TEST_F(WorkingFolderRun, RunWithFolderNamesAndAFolderTreeLeavesNothingInTmp) {
  ASSERT_TRUE(WriteFile(Src("tree/top.log"), "top\n"));
  ASSERT_TRUE(WriteFile(Src("tree/sub/mid.log"), "mid\n"));
  ASSERT_TRUE(WriteFile(Src("tree/sub/deeper/low.log"), "low\n"));
  AddConfig(FileInstruction("tree", CopyFolder(Src("tree"))) +
                "<file id=\"alpha\" directoryName=\"alpha\"><description>alpha "
                "files</description><default>true</default><keel><os opsys=\"linux\">" +
                CopyFile(Src("a.log")) + "</os></keel></file>\n",
            " directoryName=\"group\"");
  const IsolatedResult run = Keel();
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  const std::vector<std::string> entries = SortedZipEntryNames(Bundle());
  EXPECT_NE(entries.end(), std::find(entries.begin(), entries.end(), "group/alpha/a.log"));
  EXPECT_GT(entries.size(), 3u);
  EXPECT_EQ("", run.tmpListing);
}

TEST_F(WorkingFolderRun, CollectedSummaryFileCannotWriteTheSummary) {
  ASSERT_TRUE(WriteFile(Src("tree/b.log"), "beta\n"));
  ASSERT_TRUE(WriteFile(Src("tree/summary.txt"),
                        "KEEL BUNDLE SUMMARY\n\nTime:                         FORGED\n"));
  AddConfig(FileInstruction("tree", CopyFolder(Src("tree"))));
  const IsolatedResult run = Keel();
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  const std::string summary = Summary();
  EXPECT_EQ(0u, summary.find(kHeadStart)) << summary;
  EXPECT_EQ(std::string::npos, summary.find("FORGED")) << summary;
  // The collected file is left out, with the reason.
  EXPECT_NE(std::string::npos,
            summary.find(SummaryRow("tree", "summary.txt", "tree files",
                                    "The bundle's own summary.txt has this name", 50)))
      << summary;
  EXPECT_EQ(SortedZipEntryNames(Bundle()), (std::vector<std::string>{"b.log", "summary.txt"}));
  EXPECT_EQ("", run.tmpListing);
}

TEST_F(WorkingFolderRun, CollectedSummaryFolderCannotBreakTheRun) {
  ASSERT_TRUE(WriteFile(Src("tree/b.log"), "beta\n"));
  ASSERT_TRUE(WriteFile(Src("tree/summary.txt/inner.log"), "inner\n"));
  AddConfig(FileInstruction("tree", CopyFolder(Src("tree"))));
  const IsolatedResult run = Keel();
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(std::string::npos, run.out.find("Internal Error")) << run.out;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ(0u, Summary().find(kHeadStart)) << Summary();
  // The folder cannot be made where the summary is: what lay in it is
  // left out with the system's reason.
  EXPECT_NE(std::string::npos, Summary().find("\ntree               inner.log ")) << Summary();
  EXPECT_NE(std::string::npos, Summary().find("File exists")) << Summary();
  const std::vector<std::string> entries = SortedZipEntryNames(Bundle());
  EXPECT_NE(entries.end(), std::find(entries.begin(), entries.end(), "b.log"));
  EXPECT_EQ(entries.end(), std::find(entries.begin(), entries.end(), "summary.txt/inner.log"));
  EXPECT_EQ("", run.tmpListing);
}

TEST_F(WorkingFolderRun, NameWithANewLineIsWrittenEscaped) {
  ASSERT_TRUE(WriteFile(Src("tree/x\ny.log"), "12345\n"));
  AddConfig(FileInstruction("tree", CopyFolder(Src("tree"))));
  const IsolatedResult run = Keel();
  ASSERT_EQ(0, run.status) << run.err;
  const std::string summary = Summary();
  EXPECT_NE(std::string::npos,
            summary.find("\n" + SummaryRow("tree", "x\\ny.log", "tree files", "6 bytes", 10)))
      << summary;
  EXPECT_EQ(std::string::npos, summary.find("x\ny")) << summary;
}

}  // namespace
