// The program's entry: options, exit statuses, folders and the default one.
#include "tools/KEEL/KEELCheck/KeelCheck.h"

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/KEEL/KEELCheck/keelcheck_testsupport.h"

namespace keelcheck {
namespace {

// The test kit of the checker: runs, programs and instruction snippets.
using namespace keelchecktest;  // NOLINT(build/namespaces)
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Entry : public keelchecktest::CheckTest {};

TEST_F(Entry, UnknownOptionCannotRun) {
  const CheckRun run = Run({"--bogus"});
  EXPECT_EQ(run.status, kExitCannotRun);
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_THAT(run.err, StartsWith("keelcheck: unknown option --bogus\nusage: keelcheck [--plan] "
                                  "[FILE|FOLDER]...\n"));
}

TEST_F(Entry, MissingPathCannotRunAndNothingIsChecked) {
  Write("a.xml", OneInstruction("<defualt/>"));
  const CheckRun run = Run({m_dir.Sub("a.xml"), m_dir.Sub("missing.xml")});
  EXPECT_EQ(run.status, kExitCannotRun);
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.err, "keelcheck: cannot check " + m_dir.Sub("missing.xml") +
                         ": No such file or directory\n");
}

TEST_F(Entry, HelpPrintsTheUsage) {
  const CheckRun run = Run({"-h"});
  EXPECT_EQ(run.status, kExitClean);
  ASSERT_FALSE(run.lines.empty());
  EXPECT_EQ(run.lines[0], "usage: keelcheck [--plan] [FILE|FOLDER]...");
  EXPECT_EQ(Run({"--help"}).lines, run.lines);
}

TEST_F(Entry, DoubleDashEndsTheOptions) {
  Write("-x.xml", OneInstruction(LinuxBlock(GoodProgram())));
  const CheckRun run = Run({"--", m_dir.Sub("-x.xml")});
  EXPECT_EQ(run.status, kExitClean) << run.err;
}

TEST_F(Entry, NoArgumentChecksTheDefaultFolder) {
  Write("a.xml", OneInstruction("<defualt>true</defualt>\n<keel><os opsys=\"linux\">" +
                                GoodProgram() + "</os></keel>"));
  const CheckRun run = Run({});
  EXPECT_THAT(run.lines, ElementsAre(StartsWith("a.xml:5:1: warning: <defualt> is never read")));
  EXPECT_EQ(run.status, kExitFindings);
}

TEST_F(Entry, FolderTakesTheFilesKeelcliTakes) {
  Write("conf/b.xml", "");
  Write("conf/a.xml", "");
  Write("conf/a.xml.xml", "");
  Write("conf/c.xml.bak", "");
  Write("conf/D.XML", "");
  EXPECT_EQ(InstructionFilesIn(m_dir.Sub("conf")),
            (std::vector<std::string>{m_dir.Sub("conf/a.xml"), m_dir.Sub("conf/b.xml")}));
  EXPECT_EQ(InstructionFilesIn(m_dir.Sub("conf/")),
            (std::vector<std::string>{m_dir.Sub("conf/a.xml"), m_dir.Sub("conf/b.xml")}));
}

TEST_F(Entry, EmptyFolderGivesNothingToGather) {
  ASSERT_EQ(mkdir(m_dir.Sub("conf").c_str(), 0755), 0);
  const CheckRun run = Run({m_dir.Sub("conf")});
  EXPECT_THAT(run.lines, ElementsAre("conf/:1:1: warning: no instruction file (\"*.xml\") here, "
                                     "so keelcli finds nothing to gather"));
  EXPECT_EQ(run.status, kExitFindings);
}

TEST_F(Entry, FolderProblemIsToldOnceForAllItsFiles) {
  Write("conf/a.xml", OneInstruction(LinuxBlock(GoodProgram())));
  Write("conf/b.xml", OneInstruction(LinuxBlock(GoodProgram())));
  ASSERT_EQ(chmod(m_dir.Sub("conf").c_str(), 0777), 0);
  const CheckRun run = Run({m_dir.Sub("conf/a.xml"), m_dir.Sub("conf/b.xml")});
  EXPECT_THAT(run.lines, ElementsAre(HasSubstr("conf/a.xml:1:1: warning: the folder ")));
  EXPECT_EQ(run.status, kExitFindings);
}

}  // namespace
}  // namespace keelcheck
