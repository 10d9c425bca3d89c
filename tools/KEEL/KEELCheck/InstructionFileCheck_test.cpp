// One small instruction file per finding: the line, the column, the
// severity and the words of each, and the exit status of the run.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/KEEL/KEELCheck/KeelCheck.h"
#include "tools/KEEL/KEELCheck/keelcheck_testsupport.h"

namespace {

using keelchecktest::CheckRun;
using keelchecktest::GoodProgram;
using keelchecktest::LinuxBlock;
using keelchecktest::OneInstruction;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class FileFindings : public keelchecktest::CheckTest {};

TEST_F(FileFindings, CleanFileGivesNothingAndExitZero) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock(GoodProgram() +
                 "\n<file_copy_action><action><loc>/etc/os-release</loc></action>"
                 "</file_copy_action>\n<directory_copy_action><action><loc>/var/log/x</loc>"
                 "<pattern>*.log</pattern></action></directory_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.status, keelcheck::kExitClean);
  EXPECT_EQ(run.err, "");
}

// ---- Errors: what the tool refuses or drops --------------------------------

TEST_F(FileFindings, NotWellFormedGivesLibxml2LineAndMessage) {
  const CheckRun run = Check("<?xml version=\"1.0\"?>\n<cfg>\n<fileGroup>\n</cfg>\n");
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:4:7: error: the tool cannot read this file, so nothing in it is "
                          "gathered: Opening and ending tag mismatch: fileGroup line 0 and cfg"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, EmptyFileIsRefused) {
  const CheckRun run = Check("");
  EXPECT_THAT(run.lines, ElementsAre("a.xml:1:1: error: the tool cannot read this file, so "
                                     "nothing in it is gathered: Document is empty"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, ForeignChildUnderDirectoryCopyIsAnError) {
  const CheckRun run = Check(OneInstruction(LinuxBlock(
      "<directory_copy_action><action>\n<loc>/var/log/x</loc>\n<pattern>*.log</pattern>\n"
      "<patern>*.txt</patern>\n</action></directory_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:10:1: error: <patern> is not allowed in a "
                                     "directory_copy_action: the tool drops the whole action; "
                                     "did you mean <pattern>?"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, EveryForeignChildUnderUseExternIsAnError) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action>\n<path>/usr/bin</path>\n"
                 "<args>timeout --kill-after=5 10 uname 2>&amp;1</args>\n<tmp_out>u.txt</tmp_out>\n"
                 "<note>x</note>\n<stdout/>\n</action></use_extern_action>")));
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:10:1: error: <tmp_out> is not allowed in a use_extern_action: "
                          "the tool drops the whole action; did you mean <temp_out>?",
                          "a.xml:11:1: error: <note> is not allowed in a use_extern_action: the "
                          "tool drops the whole action; remove it"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, ElementsInsideTheTextElementsOfAProgramAreErrors) {
  for (const std::string name : {"path", "plugin", "args", "admin_args", "temp_out"}) {
    SCOPED_TRACE(name);
    const std::string args =
        name == "args" ? "" : "<args>timeout --kill-after=5 10 uname 2>&amp;1</args>\n";
    const CheckRun run = Check(
        OneInstruction(LinuxBlock("<use_extern_action><action>\n" + args + "<" + name + ">x<b/></" +
                                  name + ">\n" + "<stdout/>\n</action></use_extern_action>")));
    const int line = name == "args" ? 8 : 9;
    EXPECT_THAT(run.lines, ElementsAre("a.xml:" + std::to_string(line) + ":1: error: <" + name +
                                       "> holds elements: the tool drops the whole action; it "
                                       "takes text only here"));
    EXPECT_EQ(run.status, keelcheck::kExitFindings);
  }
}

TEST_F(FileFindings, FolderNamedLikeAnInstructionFileIsRefused) {
  ASSERT_EQ(mkdir(m_dir.Sub("sub").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(m_dir.Sub("sub/x.xml").c_str(), 0755), 0);
  const CheckRun run = Run({m_dir.Sub("sub")});
  EXPECT_THAT(run.lines, ElementsAre("sub/x.xml:1:1: error: the tool cannot read this file, so "
                                     "nothing in it is gathered: is a folder, not a file"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

// ---- Warnings: what the tool silently does otherwise -------------------------

TEST_F(FileFindings, BlanksBesideEntityReferencesShowTheTextAsTheToolReadsIt) {
  const CheckRun run = Check(OneInstruction(LinuxBlock(
      "<use_extern_action><action><path>/usr/bin</path>\n"
      "<args>timeout --kill-after=5 10 systemctl status &apos;velon*&apos; 2&gt;&amp;1</args>\n"
      "<temp_out>s.txt</temp_out><stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:8:1: warning: the text of <args> loses blanks where it is split "
                          "by a reference (&...;), CDATA or a comment: the tool reads "
                          "\"timeout --kill-after=5 10 systemctl status'velon*'2>&1\"; write ' "
                          "and \" as they are and keep no blank beside a reference"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, ReferencesWithoutBlanksBesideThemAreFine) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args>timeout --kill-after=5 10 uname -a 2&gt;&amp;1</args>\n"
                 "<temp_out>s.txt</temp_out><stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.status, keelcheck::kExitClean);
}

TEST_F(FileFindings, ElementNameCloseToOneTheToolReads) {
  const CheckRun run = Check(OneInstruction("<defualt>true</defualt>\n<keel><os opsys=\"linux\">" +
                                            GoodProgram() + "</os></keel>"));
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:5:1: warning: <defualt> is never read here; did you mean "
                          "<default>?"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, TmpOutInAFileCopyIsCloseToTempOut) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action><loc>/etc/hosts</loc>\n<tmp_out>h</tmp_out>\n"
                 "</action></file_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: <tmp_out> is never read here; did you "
                                     "mean <temp_out>?"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, AttributeNameCloseToOneTheToolReads) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action>\n<loc gatherNewest=\"true\">/var/log/a*</loc>\n"
                 "</action></file_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: attribute gatherNewest of <loc> is "
                                     "never read; did you mean gather_newest?"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, UnknownNameFarFromAnyIsLeftToTheSchema) {
  const CheckRun run = Check(OneInstruction("<remark>x</remark>\n" + LinuxBlock(GoodProgram())));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:5:1: warning: does not match the instruction "
                                     "schema: <remark> does not fit here"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, DefaultOtherThanExactlyTrue) {
  const CheckRun run = Check(OneInstruction("<default>True</default>\n<keel><os opsys=\"linux\">" +
                                            GoodProgram() + "</os></keel>"));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:5:1: warning: <default> \"True\" is not \"true\", so "
                                     "a bundle run does not take <file id=\"a\">; write true or "
                                     "false"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, DefaultFalseIsWhatTheAuthorMeant) {
  const CheckRun run = Check(OneInstruction("<default>false</default>\n<keel><os opsys=\"linux\">" +
                                            GoodProgram() + "</os></keel>"));
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.status, keelcheck::kExitClean);
}

TEST_F(FileFindings, FlagAttributeOtherThanTrueOrFalse) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action>\n<loc gather_newest=\"TRUE\">/var/log/a*</loc>\n"
                 "</action></file_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: gather_newest=\"TRUE\" on <loc> is not "
                                     "\"true\", so the tool takes it as false; write true or "
                                     "false"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, FileWithNoBlockForThisSystem) {
  const CheckRun run = Check(OneInstruction("<default>true</default>\n<keel>\n<os opsys=\"win\">" +
                                            GoodProgram() + "</os>\n</keel>"));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:4:1: warning: <file id=\"a\"> has no <os "
                                     "opsys=\"linux\"> block, so nothing is gathered for it on "
                                     "this system; add one"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, OpsysInTheWrongCaseNamesNoSystem) {
  const CheckRun run = Check(OneInstruction(
      "<default>true</default>\n<keel>\n<os opsys=\"Linux\">" + GoodProgram() + "</os>\n</keel>"));
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:4:1: warning: <file id=\"a\"> has no <os opsys=\"linux\"> "
                          "block, so nothing is gathered for it on this system; add one",
                          "a.xml:7:1: warning: opsys=\"Linux\" names no system the tool knows, so "
                          "this block never runs; write linux, mac or win"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, SecondBlockForThisSystemIsNeverUsed) {
  const CheckRun run =
      Check(OneInstruction("<default>true</default>\n<keel>\n<os opsys=\"linux\">" + GoodProgram() +
                           "</os>\n<os opsys=\"linux\">" + GoodProgram() + "</os>\n</keel>"));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: a second <os opsys=\"linux\"> is never "
                                     "used: only the first one runs; move its actions into the "
                                     "first"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, LaunchFormWithAFolderInTheFirstWordRunsADoubledPath) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/opt/x</path>\n<args>sub/tool</args>\n"
                 "</action></use_extern_action>")));
  EXPECT_THAT(run.lines,
              ElementsAre("a.xml:8:1: warning: the program runs as \"/opt/x/sub/sub/tool\": the "
                          "folder in the first word of <args> is added to <path> and also kept "
                          "in the name; give the bare name in <args> and its folder in <path>",
                          "a.xml:8:1: warning: \"sub/tool\" is not bounded in time, so a program "
                          "that hangs holds the whole run for ever; run it in the shell form "
                          "(<temp_out> and <stdout/>) under \"timeout --kill-after=5 30 ...\""));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, LaunchFormWithSeveralArgumentsPassesThemAsOne) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args>timeout --kill-after=5 10 uname</args>\n</action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: the launch form hands \"--kill-after=5 "
                                     "10 uname\" to timeout as one single argument; to run a "
                                     "command line, capture its output with <temp_out> and "
                                     "<stdout/>, which runs it through the shell"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, LaunchFormWithoutPathRunsFromTheRootFolder) {
  const CheckRun run = Check(OneInstruction(LinuxBlock(
      "<use_extern_action><action>\n<args>timeout</args>\n</action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: with no <path> the program runs as "
                                     "\"/timeout\", from the root folder; give its folder in "
                                     "<path>"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, UserUnderReplaceArgsNeverRuns) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args replace_args=\"true\">timeout --kill-after=5 10 id [USER]</args>\n"
                 "<temp_out>id.txt</temp_out><stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: [USER] in a command with "
                                     "replace_args=\"true\" is never filled in on this system, so "
                                     "the command never runs; leave [USER] out"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, VariableNotSetInTheEnvironment) {
  unsetenv("KEELCHECK_TEST_UNSET");
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action>\n<loc>$KEELCHECK_TEST_UNSET/logs/*.log</loc>\n"
                 "</action></file_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: $KEELCHECK_TEST_UNSET/ is not set in "
                                     "this environment, so the tool keeps "
                                     "\"$KEELCHECK_TEST_UNSET/\" in <loc> as written; set "
                                     "KEELCHECK_TEST_UNSET or write the path out"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, VariableThatNamesItselfNeverEnds) {
  setenv("KEELCHECK_TEST_LOOP", "$KEELCHECK_TEST_LOOP/x", 1);
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action>\n<loc>$KEELCHECK_TEST_LOOP/*.log</loc>\n"
                 "</action></file_copy_action>")));
  unsetenv("KEELCHECK_TEST_LOOP");
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: $KEELCHECK_TEST_LOOP/ in <loc> expands "
                                     "into variables again and again, so the tool never finishes "
                                     "it; change the value of KEELCHECK_TEST_LOOP"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, VariableSetInTheEnvironmentIsFine) {
  setenv("KEELCHECK_TEST_SET", "/var/log", 1);
  const CheckRun run = Check(
      OneInstruction(LinuxBlock("<file_copy_action><action>\n<loc>$KEELCHECK_TEST_SET/*.log</loc>\n"
                                "</action></file_copy_action>")));
  unsetenv("KEELCHECK_TEST_SET");
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.status, keelcheck::kExitClean);
}

TEST_F(FileFindings, EmptyLoc) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<file_copy_action><action>\n<loc> </loc>\n</action></file_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: empty <loc>: the tool searches an "
                                     "empty path and finds nothing; give the path of what to "
                                     "copy"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, DirectoryCopyWithoutPattern) {
  const CheckRun run = Check(
      OneInstruction(LinuxBlock("<directory_copy_action>\n<action><loc>/var/log/x</loc></action>\n"
                                "</directory_copy_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: directory_copy_action without "
                                     "<pattern> copies nothing; add <pattern>*</pattern> to copy "
                                     "every file"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, TempOutWithAFolderIsCopiedAndDeleted) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args>timeout --kill-after=5 10 uname 2>&amp;1</args>\n"
                 "<temp_out>/var/tmp/u.txt</temp_out>\n<stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:9:1: warning: <temp_out> \"/var/tmp/u.txt\" holds a "
                                     "\"/\": after the run the file is copied into the bundle and "
                                     "then deleted there; give a bare file name to have the output "
                                     "written in the bundle"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, ShellCommandNotUnderTimeoutCanHoldTheRun) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args>timeout --kill-after=5 10 uname; journalctl -f 2>&amp;1</args>\n"
                 "<temp_out>u.txt</temp_out><stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: \"journalctl -f 2>&1\" is not bounded "
                                     "in time, so a program that hangs holds the whole run for "
                                     "ever; run it under \"timeout --kill-after=5 30 ...\""));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, TimeoutWithoutKillAfter) {
  const CheckRun run = Check(OneInstruction(
      LinuxBlock("<use_extern_action><action><path>/usr/bin</path>\n"
                 "<args>timeout 10 uname 2>&amp;1</args>\n"
                 "<temp_out>u.txt</temp_out><stdout/></action></use_extern_action>")));
  EXPECT_THAT(run.lines, ElementsAre("a.xml:8:1: warning: \"timeout 10 uname 2>&1\" runs under "
                                     "timeout without --kill-after, so a program that ignores "
                                     "SIGTERM still holds the run; add --kill-after=5"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, IdUsedTwiceInOneGroup) {
  const std::string instruction =
      "<default>true</default><keel><os opsys=\"linux\">" + GoodProgram() + "</os></keel>";
  const CheckRun run =
      Check("<cfg>\n<fileGroup>\n<file id=\"a\">" + instruction + "</file>\n<file id=\"a\">" +
            instruction + "</file>\n</fileGroup>\n</cfg>\n");
  EXPECT_THAT(run.lines, ElementsAre("a.xml:4:1: warning: file id \"a\" is used twice in this "
                                     "group (first at line 3): both run and the summary lists "
                                     "them as one; give each instruction its own id"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, SameIdInTwoGroupsIsFine) {
  const std::string instruction =
      "<file id=\"a\"><default>true</default><keel><os "
      "opsys=\"linux\">" +
      GoodProgram() + "</os></keel></file>";
  const CheckRun run = Check("<cfg>\n<fileGroup>" + instruction + "</fileGroup>\n<fileGroup>" +
                             instruction + "</fileGroup>\n</cfg>\n");
  EXPECT_THAT(run.lines, ElementsAre());
  EXPECT_EQ(run.status, keelcheck::kExitClean);
}

TEST_F(FileFindings, FileThatOthersCanWrite) {
  const std::string path = Write("a.xml", OneInstruction(LinuxBlock(GoodProgram())));
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  const CheckRun run = Run({path});
  EXPECT_THAT(run.lines, ElementsAre("a.xml:1:1: warning: this file can be changed by every "
                                     "user, who can then choose what keelcli runs as root; make "
                                     "it owned by root and writable by root alone"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, FileOwnedByAnotherUser) {
  if (geteuid() != 0)
    GTEST_SKIP() << "giving a file away takes root";
  const std::string path = Write("a.xml", OneInstruction(LinuxBlock(GoodProgram())));
  ASSERT_EQ(chown(path.c_str(), 65534, 0), 0);
  const CheckRun run = Run({path});
  ASSERT_EQ(run.lines.size(), 1u);
  EXPECT_THAT(run.lines[0], HasSubstr("a.xml:1:1: warning: this file can be changed by its owner"));
  EXPECT_THAT(run.lines[0], HasSubstr("(uid 65534)"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, DropInFolderThatAGroupCanWrite) {
  if (geteuid() != 0)
    GTEST_SKIP() << "giving a file away takes root";
  ASSERT_EQ(mkdir(m_dir.Sub("conf").c_str(), 0775), 0);
  ASSERT_EQ(chown(m_dir.Sub("conf").c_str(), 0, 65534), 0);
  ASSERT_EQ(chmod(m_dir.Sub("conf").c_str(), 0775), 0);
  Write("conf/a.xml", OneInstruction(LinuxBlock(GoodProgram())));
  const CheckRun run = Run({m_dir.Sub("conf")});
  ASSERT_EQ(run.lines.size(), 1u);
  EXPECT_THAT(run.lines[0], HasSubstr("conf/:1:1: warning: the folder "));
  EXPECT_THAT(run.lines[0], HasSubstr("conf/ can be changed by group "));
  EXPECT_THAT(run.lines[0], HasSubstr("(gid 65534), who can then add or swap instruction files "
                                      "that keelcli runs as root"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, StickyDropInFolderIsStillOpenToNewFiles) {
  ASSERT_EQ(mkdir(m_dir.Sub("conf").c_str(), 01777), 0);
  ASSERT_EQ(chmod(m_dir.Sub("conf").c_str(), 01777), 0);
  const std::string path = Write("conf/a.xml", OneInstruction(LinuxBlock(GoodProgram())));
  const CheckRun run = Run({path});
  ASSERT_EQ(run.lines.size(), 1u);
  EXPECT_THAT(run.lines[0], HasSubstr("conf/a.xml:1:1: warning: the folder "));
  EXPECT_THAT(run.lines[0], HasSubstr("conf/ can be changed by every user"));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

TEST_F(FileFindings, FolderGivesTheFindingsOfEachFile) {
  Write("conf/one.xml", OneInstruction("<defualt>true</defualt>\n<keel><os opsys=\"linux\">" +
                                       GoodProgram() + "</os></keel>"));
  Write("conf/two.xml", "<cfg>\n<fileGroup>\n");
  Write("conf/three.xml", OneInstruction(LinuxBlock(GoodProgram())));
  Write("conf/notes.xml.bak", "not read");
  const CheckRun run = Run({m_dir.Sub("conf")});
  EXPECT_THAT(run.lines,
              ElementsAre("conf/one.xml:5:1: warning: <defualt> is never read here; did you mean "
                          "<default>?",
                          HasSubstr("conf/two.xml:3:1: error: the tool cannot read this file, so "
                                    "nothing in it is gathered: ")));
  EXPECT_EQ(run.status, keelcheck::kExitFindings);
}

}  // namespace
