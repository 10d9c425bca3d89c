// Which instructions a collector runs, where their files go, and what the
// clearing variant touches.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Utility/Thread.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/collector_testsupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

using collectortest::CollectorFixture;
using collectortest::Config;
using collectortest::CopyInstruction;
using collectortest::EmptySection;
using collectortest::FixedHead;
using collectortest::Group;
using collectortest::IncludedIds;
using collectortest::Logged;
using collectortest::Notes;
using collectortest::Rows;
using keeltest::PathExists;
using keeltest::ReadFile;

const char kLegacyGroup[] = " treeRootName=\"Legacy - Velon Tidewalker Tessel Mobility Client\"";

std::string NotDefaultNote(const std::string& id) {
  return "The file(s) of ID " + id + " is/are not included by default by this config.";
}

// An instruction with the given `os` elements below `keel`.
std::string OsInstruction(const std::string& id, const std::string& osElements) {
  return "<file id=\"" + id + "\"><default>true</default><keel>" + osElements + "</keel></file>";
}

std::string CopyOs(const std::string& opsysAttribute, const std::string& loc) {
  return "<os" + opsysAttribute + "><file_copy_action><action><loc>" + loc +
         "</loc></action></file_copy_action></os>";
}

// An instruction whose files may be cleared.
std::string ClearInstruction(const std::string& id, const std::string& loc,
                             const std::string& defaultText) {
  return "<file id=\"" + id + "\"><default>" + defaultText +
         "</default><keel><os opsys=\"linux\"><file_copy_action><action><loc>" + loc +
         "</loc><clear_log apply=\"true\"/></action></file_copy_action></os></keel></file>";
}

class CollectorSelection : public CollectorFixture {
 protected:
  // Collects one instruction whose two os parts, with the given opsys
  // values, copy first.log and second.log; returns which of the two were
  // copied. The instruction is in the bundle either way.
  // The summary includes exactly the ids `included`, in order, and its only
  // notes say that the ids `notDefault` are not default, in that order.
  void ExpectSelection(const std::vector<std::string>& included,
                       const std::vector<std::string>& notDefault) {
    const std::string summary = Summary();
    EXPECT_EQ(included, IncludedIds(summary));
    std::vector<std::string> notes;
    for (const std::string& id : notDefault)
      notes.push_back(NotDefaultNote(id));
    EXPECT_EQ(notes, Notes(summary));
  }

  // The file elements of the document `text`, in document order.
  std::vector<KEELComponent*> FilesOf(const std::string& text) {
    return collector::getFileComponents(*Parse(text));
  }

  std::vector<std::string> CopiedOfTwoOsParts(const std::string& firstOpsys,
                                              const std::string& secondOpsys) {
    Source("first.log", "1\n");
    Source("second.log", "2\n");
    XMLObject* config = Parse(Config(Group(OsInstruction(
        "two-parts", CopyOs(" opsys=\"" + firstOpsys + "\"", "src/first.log") +
                         CopyOs(" opsys=\"" + secondOpsys + "\"", "src/second.log")))));
    EXPECT_EQ(0u, Collect(config));
    EXPECT_EQ(std::vector<std::string>{"two-parts"}, IncludedIds(Summary()));
    std::vector<std::string> copied;
    for (const char* name : {"first.log", "second.log"}) {
      if (InWork(name))
        copied.push_back(name);
    }
    return copied;
  }
};

// ---- Operating-system part ---------------------------------------------------

TEST_F(CollectorSelection, MacThenLinuxTakesTheLinuxPart) {
  EXPECT_EQ(CopiedOfTwoOsParts("mac", "linux"), std::vector<std::string>{"second.log"});
}

TEST_F(CollectorSelection, OfTwoLinuxPartsOnlyTheFirstIsUsed) {
  EXPECT_EQ(CopiedOfTwoOsParts("linux", "linux"), std::vector<std::string>{"first.log"});
}

TEST_F(CollectorSelection, OpsysIsComparedExactlySoCapitalLinuxNeverMatches) {
  Source("a.log", "a\n");
  XMLObject* config = Parse(
      Config(Group(OsInstruction("capital", CopyOs(" opsys=\"Linux\"", "src/a.log")) +
                   OsInstruction("upper", CopyOs(" opsys=\"LINUX\"", "src/a.log")) +
                   OsInstruction("windows", CopyOs(" opsys=\"win\"", "src/a.log")) +
                   OsInstruction("no-opsys", CopyOs("", "src/a.log")) +
                   OsInstruction("no-os",
                                 "<other><file_copy_action><action><loc>src/a.log</loc></action>"
                                 "</file_copy_action></other>") +
                   OsInstruction("empty-keel", ""))));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_FALSE(InWork("a.log"));
  // Nothing for this host is no failure: no omitted file, no note.
  EXPECT_EQ(FixedHead() + EmptySection(""), Summary());
  EXPECT_EQ(6u, log.Count("collector::moveReaderToCorrectOS"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "collector::moveReaderToCorrectOS"));
  EXPECT_FALSE(Logged(log, LOG_LEVEL_E, "collector::moveReaderToCorrectOS"));
}

// ---- The default flag ----------------------------------------------------------

TEST_F(CollectorSelection, DefaultOfCapitalTrueIsNotDefault) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("capital", "Capital", loc, "True") +
                                         CopyInstruction("upper", "Upper", loc, "TRUE") +
                                         CopyInstruction("absent", "Absent", loc, ""))));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_FALSE(InWork("a.log"));
  ExpectSelection({}, {"absent", "capital", "upper"});
}

TEST_F(CollectorSelection, DefaultWithLineBreaksAroundTrueCounts) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config =
      Parse(Config(Group(CopyInstruction("spaced", "Spaced", loc, "\n   true\n  "))));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("a.log"));
  ExpectSelection({"spaced"}, {});
}

TEST_F(CollectorSelection, IdAndOpsysWithBlanksAroundThemAreTrimmed) {
  std::string loc = Source("a.log", "a\n");
  // Not default: without the trimming the note would show the blanks.
  XMLObject* config =
      Parse(Config(Group(CopyInstruction("  padded  ", "Padded", loc, "no") +
                         // Passed over without a word only if the id reads exactly system-logs.
                         CopyInstruction(" system-logs ", "System", loc, "no") +
                         OsInstruction(" blanks ", CopyOs(" opsys=\"  linux \"", loc)))));
  ASSERT_EQ(0u, Collect(config, false, false));
  ExpectSelection({"blanks"}, {"padded"});
}

TEST_F(CollectorSelection, DefaultDeepUnderKeelIsFoundOnlyWithoutAnEarlierOne) {
  Source("deep.log", "deep\n");
  Source("shadowed.log", "shadowed\n");
  Source("late.log", "late\n");
  const std::string deepTrue =
      "<keel><os opsys=\"linux\"><file_copy_action><action><default>true</default>"
      "<loc>src/deep.log</loc></action></file_copy_action></os></keel>";
  XMLObject* config = Parse(Config(Group(
      // Only the deep one: found, so the instruction is default.
      "<file id=\"a-deep\">" + deepTrue + "</file>" +
      // An earlier "false" at the top wins over the deep "true".
      "<file id=\"b-shadowed\"><default>false</default>"
      "<keel><os opsys=\"linux\"><file_copy_action><action><default>true</default>"
      "<loc>src/shadowed.log</loc></action></file_copy_action></os></keel></file>"
      // A deep "false" comes first in pre-order when the top one stands last.
      "<file id=\"c-late\"><keel><os opsys=\"linux\"><file_copy_action><action>"
      "<default>false</default><loc>src/late.log</loc></action></file_copy_action></os>"
      "</keel><default>true</default></file>")));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("deep.log"));
  EXPECT_FALSE(InWork("shadowed.log"));
  EXPECT_FALSE(InWork("late.log"));
  ExpectSelection({"a-deep"}, {"b-shadowed", "c-late"});
}

// ---- Groups, order and folders -------------------------------------------------

TEST_F(CollectorSelection, ConfigWithoutFileGroupStillAddsItsHeading) {
  XMLObject* config = Parse(Config("<other/>", "Lonely Config"));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_EQ(FixedHead() + EmptySection("Lonely Config"), Summary());
}

TEST_F(CollectorSelection, RootNamedFileGroupOffersNoInstruction) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse("<fileGroup directoryName=\"G\">" +
                            CopyInstruction("root-file", "At the root", loc) + "</fileGroup>");
  ASSERT_EQ(0u, Collect(config));
  EXPECT_FALSE(InWork("a.log"));
  EXPECT_FALSE(InWork("G"));
  EXPECT_EQ(FixedHead() + EmptySection(""), Summary());
}

TEST_F(CollectorSelection, FileBelowTheRootOrDeeperGroupIsNotRead) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(Config(CopyInstruction("loose", "Loose", loc) + "<wrapper>" +
                                   Group(CopyInstruction("deep", "Deep", loc)) + "</wrapper>"));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_FALSE(InWork("a.log"));
  EXPECT_EQ(FixedHead() + EmptySection(""), Summary());
}

TEST_F(CollectorSelection, SameIdTwiceRunsBothInDocumentOrder) {
  std::string one = Source("one.log", "1\n");
  std::string two = Source("two.log", "2\n");
  std::string zero = Source("zero.log", "0\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("dup", "First of two", one) +
                                         CopyInstruction("dup", "Second of two", two) +
                                         CopyInstruction("aaa", "Sorted ahead", zero))));
  ASSERT_EQ(0u, Collect(config));
  const auto rows = Rows(Summary(), "Files Included in Bundle:");
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"aaa", "zero.log", "Sorted ahead", "2 bytes"}), rows[0]);
  EXPECT_EQ((std::vector<std::string>{"dup", "one.log", "First of two", "2 bytes"}), rows[1]);
  EXPECT_EQ((std::vector<std::string>{"dup", "two.log", "Second of two", "2 bytes"}), rows[2]);
}

TEST_F(CollectorSelection, GroupsRunInDocumentOrderAndFilesByIdBytes) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config =
      Parse(Config(Group(CopyInstruction("b", "", loc) + CopyInstruction("B", "", loc) +
                         CopyInstruction("a", "", loc) + CopyInstruction("ab", "", loc)) +
                   Group(CopyInstruction("0", "", loc))));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_EQ((std::vector<std::string>{"B", "a", "ab", "b", "0"}), IncludedIds(Summary()));
}

TEST_F(CollectorSelection, BackslashDirectoryNameMakesNestedFolders) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(
      Config(Group(CopyInstruction("nested", "Nested", loc, "true", " directoryName=\"Sub\\Dir\""),
                   " directoryName=\"Group\\Logs\"")));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("Group/Logs/Sub/Dir/a.log"));
  EXPECT_FALSE(InWork("a.log"));
  EXPECT_FALSE(InWork("Group/Logs/a.log"));
}

TEST_F(CollectorSelection, WithoutDirectoryNameFilesGoToTheParent) {
  std::string loc = Source("a.log", "a\n");
  Source("b.log", "b\n");
  XMLObject* config = Parse(
      Config(Group(CopyInstruction("in-group", "", loc) +
                       CopyInstruction("own", "", "src/b.log", "true", " directoryName=\"Own\""),
                   " directoryName=\"G\"")));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("G/a.log"));
  EXPECT_TRUE(InWork("G/Own/b.log"));
}

TEST_F(CollectorSelection, NameOfTheInstructionIsNotUsedInTheDefaultSelection) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(
      Config(Group(CopyInstruction("named", "", loc, "true", "", "<name>wanted.txt</name>"))));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_EQ((std::vector<std::string>{"a.log", "summary.txt"}), keeltest::ListDir(dir.Sub("work")));
}

// Records what the status channel passes on.
class RecordingListener : public statusListener {
 public:
  void statusChanged(const KEELStatusRecord& status, ResultCode code) override {
    messages.push_back(status.message + "|" + std::to_string(status.percent) + "|" +
                       std::to_string(code == KEELOFFLINE_ERROR_PROCESSING));
  }
  std::vector<std::string> messages;
};

TEST_F(CollectorSelection, EachRunInstructionIsLoggedAndReported) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(
      Config(Group(CopyInstruction("a", "Alpha log", loc) + CopyInstruction("b", "Beta log", loc) +
                   CopyInstruction("c", "Off", loc, ""))));
  RecordingListener listener;
  helperUtil::setStatusListener(&listener);
  const ResultCode result = Collect(config);
  helperUtil::setStatusListener(nullptr);
  ASSERT_EQ(0u, result);
  // Nothing is done yet, so the percentage is 0.
  EXPECT_EQ((std::vector<std::string>{"Processing Alpha log...|0|1", "Processing Beta log...|0|1"}),
            listener.messages);
  const std::string thread = currentThreadIdText();
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "Thread " + thread + " Continuing Collection On Alpha log"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "Thread " + thread + " Continuing Collection On Beta log"));
  EXPECT_FALSE(Logged(log, LOG_LEVEL_I, "Continuing Collection On Off"));
}

// ---- Legacy group and system logs ----------------------------------------------

TEST_F(CollectorSelection, LegacyFlagCollectsNonDefaultFilesOfTheLegacyGroupWithoutNote) {
  std::string old = Source("old.log", "old\n");
  Source("older.log", "older\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("old-a", "Old", old, "false") +
                                             CopyInstruction("old-b", "Older", "src/older.log", ""),
                                         kLegacyGroup)));
  ASSERT_EQ(0u, Collect(config, true));
  EXPECT_TRUE(InWork("old.log"));
  EXPECT_TRUE(InWork("older.log"));
  EXPECT_EQ((std::vector<std::string>{"old-a", "old-b"}), IncludedIds(Summary()));
  EXPECT_EQ(std::string::npos, Summary().find("Notes:"));
}

TEST_F(CollectorSelection, WithoutLegacyFlagNonDefaultFilesOfTheLegacyGroupGetTheNote) {
  std::string old = Source("old.log", "old\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("old-a", "Old", old, "false") +
                                             CopyInstruction("old-b", "Older", old, "") +
                                             CopyInstruction("old-c", "Default", old, "true"),
                                         kLegacyGroup)));
  ASSERT_EQ(0u, Collect(config, false));
  ExpectSelection({"old-c"}, {"old-a", "old-b"});
  EXPECT_NE(std::string::npos,
            Summary().find("\n\nNotes:\n - The file(s) of ID old-a is/are not included by "
                           "default by this config.\n - The file(s) of ID old-b is/are not "
                           "included by default by this config.\n"));
}

TEST_F(CollectorSelection, LegacyFlagWidensOnlyTheExactlyNamedGroup) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config =
      Parse(Config(Group(CopyInstruction("lower", "", loc, "false"),
                         " treeRootName=\"legacy - velon tidewalker tessel mobility client\"") +
                   Group(CopyInstruction("unnamed", "", loc, "false")) +
                   Group(CopyInstruction("other", "", loc, "false"), " directoryName=\"x\"")));
  ASSERT_EQ(0u, Collect(config, true));
  ExpectSelection({}, {"lower", "unnamed", "other"});
}

TEST_F(CollectorSelection, SystemLogIdsArePassedOverSilentlyWithoutSystemLogs) {
  std::string loc = Source("a.log", "a\n");
  const std::string groups =
      Group(CopyInstruction("system-logs", "", loc) + CopyInstruction("system-log-hist", "", loc) +
            CopyInstruction("system-logs-x", "", loc, "no"));
  ASSERT_EQ(0u, Collect(Parse(Config(groups)), false, false));
  ExpectSelection({}, {"system-logs-x"});
}

TEST_F(CollectorSelection, SystemLogIdsAreCollectedWithSystemLogs) {
  std::string loc = Source("a.log", "a\n");
  const std::string groups =
      Group(CopyInstruction("system-logs", "", loc) + CopyInstruction("system-log-hist", "", loc));
  ASSERT_EQ(0u, Collect(Parse(Config(groups)), false, true));
  EXPECT_EQ((std::vector<std::string>{"system-log-hist", "system-logs"}), IncludedIds(Summary()));
}

// ---- Instructions without a usable keel ----------------------------------------

TEST_F(CollectorSelection, FirstInstructionWithoutKeelIsPassedOver) {
  XMLObject* config = Parse(Config(Group("<file id=\"bare\"><default>true</default></file>")));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC->FindChild(KEEL_CONST) is NULL"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "collector::moveReaderToCorrectOS"));
  EXPECT_EQ(FixedHead() + EmptySection(""), Summary());
}

TEST_F(CollectorSelection, InstructionWithoutKeelAfterAnotherDoesNotRepeatIt) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("a", "Has keel", loc) +
                                         "<file id=\"b\"><default>true</default></file>")));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_EQ(std::vector<std::string>{"a"}, IncludedIds(Summary()));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC->FindChild(KEEL_CONST) is NULL"));
}

// ---- Refusals -------------------------------------------------------------------

TEST_F(CollectorSelection, CollectWithoutRequestObjectFails) {
  XMLObject* config = Parse(Config(""));
  collector job(nullptr, &unprocessed, "report", false, true);
  std::string folder = "work";
  EXPECT_EQ(KEELENGINE_ERROR_NOT_INITIALIZED, job.Collect(folder, config));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "m_pXMLRequest is NULL"));
  EXPECT_EQ(nullptr, job.summaryDocument());
  EXPECT_FALSE(InWork("summary.txt"));
}

TEST_F(CollectorSelection, CollectWithoutConfigFails) {
  std::string folder = "work";
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, Make()->Collect(folder, nullptr));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pXMLObjectConfig is NULL"));
  EXPECT_FALSE(InWork("summary.txt"));
}

TEST_F(CollectorSelection, ConfigWithoutRootIsAnEmptySection) {
  XMLObject empty;
  ASSERT_EQ(0u, Collect(&empty));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "rXMLObject.GetRoot() is NULL"));
  EXPECT_EQ(FixedHead() + EmptySection(""), Summary());
}

TEST_F(CollectorSelection, SuccessfulCollectDropsTheSummaryDocumentAndTheRecords) {
  std::string loc = Source("a.log", "a\n");
  XMLObject* config = Parse(Config(Group(CopyInstruction("a", "", loc))));
  auto job = Make();
  std::string folder = "work";
  ASSERT_EQ(0u, job->Collect(folder, config));
  EXPECT_EQ(nullptr, job->summaryDocument());
  EXPECT_TRUE(job->collectedFiles().empty());
  EXPECT_EQ("work/summary.txt", job->summaryPath());
  EXPECT_EQ("work", folder);
}

// With no working folder given, the fixed one below /tmp is used. Run in a
// private mount namespace with its own /tmp, so the real one is not touched.
TEST_F(CollectorSelection, EmptyWorkingFolderBecomesTheFixedOne) {
  XMLObject* config = Parse(Config("", "Fixed"));
  const std::string text = keeltest::TextFromChild([&]() -> std::string {
    if (!keeltest::EnterPrivateMounts() || !keeltest::MountTmpfs("/tmp"))
      return "<no namespace>";
    if (mkdir("/tmp/KEEL_Temp_Bundle", 0777) != 0)
      return "<no folder>";
    collector job(&noRequest, &unprocessed, "report", false, true, &host);
    std::string folder;
    const ResultCode result = job.Collect(folder, config);
    return std::to_string(result) + "|" + folder + "|" + job.summaryPath() + "|" +
           ReadFile("/tmp/KEEL_Temp_Bundle/summary.txt");
  });
  if (text == "<no namespace>")
    GTEST_SKIP() << "no private mount namespace";
  EXPECT_EQ("0|/tmp/KEEL_Temp_Bundle|/tmp/KEEL_Temp_Bundle/summary.txt|" + FixedHead() +
                EmptySection("Fixed"),
            text);
}

// ---- The pieces ----------------------------------------------------------------

TEST_F(CollectorSelection, GetDirectoryOfAForeignComponentIsTheParent) {
  XMLObject* config = Parse("<config><other directoryName=\"x\"/></config>");
  KEELComponent* other = config->GetRoot()->FindChild("other");
  EXPECT_EQ("work", Make()->getDirectory(other, "work"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "unexpected KEEL component type; expected fileGroup type"));
  EXPECT_EQ("work", Make()->getDirectory(nullptr, "work"));
  EXPECT_FALSE(InWork("x"));
}

TEST_F(CollectorSelection, GetDirectoryWithoutDirectoryNameIsTheParent) {
  XMLObject* config = Parse("<config><fileGroup/></config>");
  EXPECT_EQ("work", Make()->getDirectory(config->GetRoot()->FindChild("fileGroup"), "work"));
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(dir.Sub("work")));
}

TEST_F(CollectorSelection, GetDirectoryWalksThroughFoldersThatExist) {
  ASSERT_EQ(0, mkdir("work/a", 0777));
  XMLObject* config = Parse("<config><fileGroup directoryName=\"a\\b\\c\"/></config>");
  KEELComponent* group = config->GetRoot()->FindChild("fileGroup");
  EXPECT_EQ("work/a/b/c", Make()->getDirectory(group, "work"));
  EXPECT_TRUE(InWork("a/b/c"));
  // A second time, with everything there, gives the same.
  EXPECT_EQ("work/a/b/c", Make()->getDirectory(group, "work"));
  const std::string absolute = dir.Sub("work");
  EXPECT_EQ(absolute + "/a/b/c", Make()->getDirectory(group, absolute));
}

// A refused level does not stop the walk, and any level that was made (or
// was there) makes the full path the answer; only when every level is
// refused does the parent stay.
TEST_F(CollectorSelection, GetDirectoryKeepsTheParentOnlyWhenEveryLevelIsRefused) {
  ASSERT_EQ(0, mkdir("ro", 0555));
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  XMLObject* config = Parse(
      "<config><fileGroup directoryName=\"Sub\"/>"
      "<fileGroup directoryName=\"keel-collector-refused-" +
      std::to_string(getpid()) + "\"/></config>");
  KEELComponent* sub = config->GetRoot()->GetChildren().front().get();
  KEELComponent* top = config->GetRoot()->GetChildren().back().get();
  const std::string readOnly = dir.Sub("ro");
  const std::string text = keeltest::TextAsNobody([&] {
    collector job(&noRequest, &unprocessed, "report", false, true);
    // "/tmp" is there, so the walk counts as done although "Sub" is refused.
    const std::string walked = job.getDirectory(sub, readOnly);
    // A folder right below "/": the one level there is, refused.
    const std::string refused = job.getDirectory(top, "");
    return walked + "|" + refused + "|";
  });
  if (text == "<no setuid>")
    GTEST_SKIP() << "cannot become nobody";
  EXPECT_EQ(readOnly + "/Sub||", text);
  EXPECT_FALSE(PathExists(readOnly + "/Sub"));
}

TEST_F(CollectorSelection, MoveReaderToCorrectOsPlacesTheReaderOnTheLinuxPart) {
  XMLObject* config = Parse(
      "<c><file id=\"x\"><keel><os opsys=\"win\"/><os opsys=\"linux\" n=\"1\"/>"
      "<os opsys=\"linux\" n=\"2\"/></keel></file></c>");
  KEELComponent* file = config->GetRoot()->FindChild("file");
  auto job = Make();
  ASSERT_EQ(0u, job->moveReaderToCorrectOS(file));
  ASSERT_NE(nullptr, job->reader());
  EXPECT_EQ("os", job->reader()->GetName());
  ASSERT_NE(nullptr, job->reader()->FindAttribute("n"));
  EXPECT_EQ("1", job->reader()->FindAttribute("n")->GetValue());
}

TEST_F(CollectorSelection, MoveReaderToCorrectOsRefusals) {
  const auto files = FilesOf(
      "<c><file id=\"empty\"><keel/></file><file id=\"mac\"><keel><os opsys=\"mac\"/></keel></file>"
      "<file id=\"bare\"/></c>");
  ASSERT_EQ(3u, files.size());
  auto job = Make();
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, job->moveReaderToCorrectOS(nullptr));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC is NULL"));
  // No keel while the reader is still unset.
  EXPECT_EQ(KEELENGINE_ERROR_INTERNAL, job->moveReaderToCorrectOS(files[2]));
  EXPECT_EQ(nullptr, job->reader());
  EXPECT_EQ(KEELENGINE_ERROR_INTERNAL, job->moveReaderToCorrectOS(files[0]));
  EXPECT_EQ("keel", job->reader()->GetName());
  EXPECT_EQ(KEELENGINE_ERROR_INTERNAL, job->moveReaderToCorrectOS(files[1]));
  KEELComponent* macKeel = job->reader();
  EXPECT_EQ(files[1]->FindChild("keel"), macKeel);
  // Without a keel the reader stays where it was, and that list is searched.
  EXPECT_EQ(KEELENGINE_ERROR_INTERNAL, job->moveReaderToCorrectOS(files[2]));
  EXPECT_EQ(macKeel, job->reader());
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC->FindChild(KEEL_CONST) is NULL"));
}

TEST_F(CollectorSelection, MoveReaderToKeelOfNullLogsAndKeepsTheReader) {
  auto job = Make();
  job->moveReaderToKEEL(nullptr);
  EXPECT_EQ(nullptr, job->reader());
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC is NULL"));
}

TEST_F(CollectorSelection, ListsOfADocumentWithoutRootAreEmpty) {
  XMLObject empty;
  EXPECT_TRUE(collector::getFileGroupComponents(empty).empty());
  EXPECT_TRUE(collector::getFileComponents(empty).empty());
  EXPECT_EQ(2u, log.Count("rXMLObject.GetRoot() is NULL"));
}

TEST_F(CollectorSelection, FilesOfSomethingOtherThanAFileGroupAreEmpty) {
  XMLObject* config = Parse("<c><group><file id=\"a\"/></group></c>");
  EXPECT_TRUE(collector::getFileGroupFileComponents(config->GetRoot()->FindChild("group")).empty());
  EXPECT_TRUE(collector::getFileGroupFileComponents(nullptr).empty());
  EXPECT_EQ(2u, log.Count("unexpected KEEL component type; expected fileGroup type"));
}

TEST_F(CollectorSelection, SortWithoutIdKeepsBothPlaces) {
  const auto files = FilesOf("<c><file id=\"b\"/><file/><file id=\"a\"/><file id=\"\"/></c>");
  ASSERT_EQ(4u, files.size());
  std::vector<KEELComponent*> pair{files[0], files[1]};
  collector::sortById(pair);
  EXPECT_EQ(files[0], pair[0]);
  pair = {files[1], files[2]};
  collector::sortById(pair);
  EXPECT_EQ(files[1], pair[0]);
  // An empty id is an id, and sorts first.
  pair = {files[2], files[3]};
  collector::sortById(pair);
  EXPECT_EQ(files[3], pair[0]);
}

TEST_F(CollectorSelection, IsDefaultNeedsExactlyTrue) {
  const auto files = FilesOf(
      "<c><file><default>true</default></file><file><default>false</default></file>"
      "<file><default/></file><file/></c>");
  ASSERT_EQ(4u, files.size());
  EXPECT_TRUE(collector::isDefault(files[0]));
  EXPECT_FALSE(collector::isDefault(files[1]));
  EXPECT_FALSE(collector::isDefault(files[2]));
  EXPECT_FALSE(collector::isDefault(files[3]));
  EXPECT_FALSE(collector::isDefault(nullptr));
}

// ---- Selection by request --------------------------------------------------------

class CollectorRequest : public CollectorFixture {
 protected:
  void SetUp() override {
    CollectorFixture::SetUp();
    request = Parse(
        "<request>"
        "<file id=\"summary\"><name>report.txt</name></file>"
        "<file id=\"comments\"><name>notes.txt</name></file>"
        "<file id=\"b\"/><file id=\"a\"/><file id=\"zzz\"/><file id=\"a\"/>"
        "<comments>Please look at the tunnel.</comments>"
        "</request>");
    for (KEELComponent* entry : collector::getFileComponents(*request))
      unprocessed.push_back(entry);
  }

  XMLObject* request = nullptr;
};

TEST_F(CollectorRequest, MergeServesRequestedIdsOfTheGroupWithTheirNames) {
  Source("a.log", "aa\n");
  Source("b.log", "b\n");
  Source("c.log", "c\n");
  XMLObject* config = Parse(Config(
      Group(CopyInstruction("a", "Alpha", "src/a.log", "false", "", "<name>alpha.txt</name>") +
            CopyInstruction("c", "Not asked", "src/c.log") +
            CopyInstruction("b", "Beta", "src/b.log")),
      "Request Config"));
  auto job = Make(false, true, request);
  std::string folder = "work";
  ASSERT_EQ(0u, job->Collect(folder, config));
  // The summary takes the requested name; nothing goes to summary.txt.
  EXPECT_EQ("work/report.txt", job->summaryPath());
  EXPECT_FALSE(InWork("summary.txt"));
  const std::string summary = ReadFile(dir.Sub("work/report.txt"));
  // "a" is asked for twice and served twice; the name of the instruction
  // is used for the copy.
  EXPECT_TRUE(InWork("alpha__a__log.txt"));
  EXPECT_TRUE(InWork("b.log"));
  EXPECT_FALSE(InWork("c.log"));
  const auto rows = Rows(summary, "Files Included in Bundle:");
  ASSERT_EQ(4u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"a", "alpha__a__log.txt", "Alpha", "3 bytes"}), rows[0]);
  EXPECT_EQ((std::vector<std::string>{"a", "alpha__a__log.txt", "Alpha", "3 bytes"}), rows[1]);
  EXPECT_EQ((std::vector<std::string>{"b", "b.log", "Beta", "2 bytes"}), rows[2]);
  const std::string comments =
      "Comments from Velon Tessel Client user:\nPlease look at the tunnel.";
  EXPECT_EQ((std::vector<std::string>{"comments", "notes.txt", "Velon Tessel Client user comments",
                                      std::to_string(comments.size()) + " bytes"}),
            rows[3]);
  EXPECT_EQ(comments, ReadFile(dir.Sub("work/notes.txt")));
  EXPECT_TRUE(Notes(summary).empty());
  // Served entries leave the list; what no group offered stays.
  std::vector<std::string> left;
  for (KEELComponent* entry : unprocessed)
    left.push_back(entry->FindAttribute("id")->GetValue());
  EXPECT_EQ((std::vector<std::string>{"summary", "comments", "zzz"}), left);
}

TEST_F(CollectorRequest, SecondConfigServingTheSameIdGetsTheDuplicateWarning) {
  Source("b.log", "b\n");
  ASSERT_EQ(0, mkdir("work2", 0777));
  XMLObject* first = Parse(Config(Group(CopyInstruction("b", "Beta", "src/b.log"))));
  XMLObject* second = Parse(Config(Group(CopyInstruction("b", "Beta again", "src/b.log"))));
  std::string folder = "work";
  ASSERT_EQ(0u, Make(false, true, request)->Collect(folder, first));
  std::string folder2 = "work2";
  ASSERT_EQ(0u, Make(false, true, request)->Collect(folder2, second));
  const std::string summary = ReadFile(dir.Sub("work2/report.txt"));
  EXPECT_EQ(std::vector<std::string>{"b"}, IncludedIds(summary));
  EXPECT_EQ(std::vector<std::string>{"WARNING: File ID b has duplicated instruction found in one "
                                     "of previous config files"},
            Notes(summary));
  // The comments were written once in the process, by the first config.
  EXPECT_TRUE(PathExists(dir.Sub("work/notes.txt")));
  EXPECT_FALSE(PathExists(dir.Sub("work2/notes.txt")));
  EXPECT_EQ(std::string::npos, summary.find("comments"));
}

TEST_F(CollectorRequest, ConfigWithoutGroupsWritesNoComments) {
  XMLObject* config = Parse(Config("", "No groups"));
  std::string folder = "work";
  ASSERT_EQ(0u, Make(false, true, request)->Collect(folder, config));
  // The summary entry is read per group, so the default name is used.
  EXPECT_FALSE(InWork("notes.txt"));
  EXPECT_EQ(FixedHead() + EmptySection("No groups"), Summary());
}

TEST_F(CollectorRequest, SummaryEntryWithoutNameKeepsSummaryTxt) {
  XMLObject* config = Parse(Config(Group(""), "Unnamed"));
  XMLObject* unnamed = Parse("<r><file id=\"summary\"/></r>");
  std::string folder = "work";
  auto job = Make(false, true, unnamed);
  ASSERT_EQ(0u, job->Collect(folder, config));
  EXPECT_EQ("work/summary.txt", job->summaryPath());
  XMLObject* empty = Parse("<r><file id=\"summary\"><name></name></file></r>");
  auto other = Make(false, true, empty);
  ASSERT_EQ(0u, other->Collect(folder, config));
  EXPECT_EQ("work/summary.txt", other->summaryPath());
  EXPECT_EQ(FixedHead() + EmptySection("Unnamed") + EmptySection("Unnamed"), Summary());
}

TEST_F(CollectorRequest, FirstSummaryEntryNamesTheFile) {
  XMLObject* config = Parse(Config(Group("") + Group(""), "Twice"));
  XMLObject* twice = Parse(
      "<r><file id=\"summary\"><name>first.txt</name></file>"
      "<file id=\"summary\"><name>second.txt</name></file></r>");
  std::string folder = "work";
  auto job = Make(false, true, twice);
  ASSERT_EQ(0u, job->Collect(folder, config));
  EXPECT_EQ("work/first.txt", job->summaryPath());
  EXPECT_EQ((std::vector<std::string>{"first.txt"}), keeltest::ListDir(dir.Sub("work")));
}

TEST_F(CollectorRequest, RemoveFromUnprocessedListUnlinksByPointer) {
  auto job = Make(false, true, request);
  ASSERT_EQ(0u, job->initializeSummary());
  auto entries = collector::getFileComponents(*request);
  job->removeFromUnprocessedList(entries[2]);
  EXPECT_EQ(5u, unprocessed.size());
  EXPECT_EQ(unprocessed.end(), std::find(unprocessed.begin(), unprocessed.end(), entries[2]));
  EXPECT_TRUE(collectortest::Entries(job->summaryDocument(), "Other_Note").empty());
  job->removeFromUnprocessedList(entries[2]);
  EXPECT_EQ(
      std::vector<std::string>{" - |WARNING: File ID b has duplicated instruction found in one "
                               "of previous config files"},
      collectortest::Entries(job->summaryDocument(), "Other_Note"));
  job->removeFromUnprocessedList(nullptr);
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDC is NULL"));
  EXPECT_EQ(5u, unprocessed.size());
}

TEST_F(CollectorRequest, WriteCommentsThatCannotBeOpenedIsAnOmittedFile) {
  auto job = Make(false, true, request);
  ASSERT_EQ(0u, job->initializeSummary());
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, job->writeComments(nullptr, "missing"));
  EXPECT_EQ(std::vector<std::string>{"comments|comments.txt|description=|reason=Internal error: "
                                     "can't write comments at missing/comments.txt"},
            collectortest::Entries(job->summaryDocument(), "Manifest_Not_Included"));
  EXPECT_TRUE(
      Logged(log, LOG_LEVEL_E, "Internal error: can't write comments at missing/comments.txt"));
  EXPECT_TRUE(job->collectedFiles().empty());
}

TEST_F(CollectorRequest, WriteCommentsRecordsTheFileForTheSummary) {
  auto job = Make(false, true, request);
  ASSERT_EQ(0u, job->initializeSummary());
  ASSERT_EQ(0u, job->writeComments(nullptr, "work"));
  const std::string text = "Comments from Velon Tessel Client user:\nPlease look at the tunnel.";
  EXPECT_EQ(text, ReadFile(dir.Sub("work/comments.txt")));
  ASSERT_EQ(1u, job->collectedFiles().size());
  const TruncAttrs& record = job->collectedFiles().front();
  EXPECT_EQ("comments", record.id);
  EXPECT_EQ("work/comments.txt", record.path);
  EXPECT_EQ("Velon Tessel Client user comments", record.description);
  EXPECT_EQ(static_cast<double>(text.size()), record.size);
  EXPECT_EQ(TRUNC_NONE, record.truncateType);
  EXPECT_EQ(0.0, record.limit);
  EXPECT_EQ(TRUNC_DATA, record.defaultType);
}

TEST_F(CollectorRequest, NoCommentsWithoutRequestRootOrText) {
  auto job = Make();
  EXPECT_EQ(0u, job->writeComments(nullptr, "work"));
  XMLObject* silent = Parse("<request><file id=\"comments\"/><comments></comments></request>");
  auto quiet = Make(false, true, silent);
  EXPECT_EQ(0u, quiet->writeComments(nullptr, "work"));
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(dir.Sub("work")));
}

// ---- Clearing --------------------------------------------------------------------

class CollectorClear : public CollectorFixture {
 protected:
  // Builds a tree below `folder` and clears it with the given flags.
  std::vector<std::string> ClearTree(const std::string& folder, bool legacy) {
    for (const char* name : {"legacy-default.log", "legacy-other.log", "plain-default.log",
                             "plain-other.log", "system.log", "mac.log"})
      EXPECT_TRUE(keeltest::WriteFile(dir.Sub(folder + "/" + name), "x\n"));
    const std::string at = folder + "/";
    XMLObject* config = Parse(
        Config(Group(ClearInstruction("l1", at + "legacy-default.log", "true") +
                         ClearInstruction("l2", at + "legacy-other.log", "false"),
                     kLegacyGroup) +
               Group(ClearInstruction("p1", at + "plain-default.log", "true") +
                     ClearInstruction("p2", at + "plain-other.log", "no") +
                     ClearInstruction("system-logs", at + "system.log", "true") +
                     OsInstruction("mac", "<os opsys=\"mac\"><file_copy_action><action><loc>" + at +
                                              "mac.log</loc><clear_log apply=\"true\"/></action>"
                                              "</file_copy_action></os>"))));
    collector job(nullptr, &unprocessed, "", legacy, false);
    EXPECT_EQ(0u, job.Clear(config));
    EXPECT_EQ(nullptr, job.summaryDocument());
    return keeltest::ListDir(dir.Sub(folder));
  }
};

TEST_F(CollectorClear, LegacyFlagClearsExactlyWhatClearAloneClears) {
  const std::vector<std::string> plain = ClearTree("plain", false);
  const std::vector<std::string> legacy = ClearTree("legacy", true);
  EXPECT_EQ(plain, legacy);
  EXPECT_EQ(
      (std::vector<std::string>{"legacy-other.log", "mac.log", "plain-other.log", "system.log"}),
      plain);
  // No summary and no working folder in a clear run.
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(dir.Sub("work")));
}

TEST_F(CollectorClear, SystemLogsAreClearedOnlyWithTheFlag) {
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("sys/system.log"), "x\n"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("sys/hist.log"), "x\n"));
  XMLObject* config =
      Parse(Config(Group(ClearInstruction("system-logs", "sys/system.log", "true") +
                         ClearInstruction("system-log-hist", "sys/hist.log", "true"))));
  collector without(nullptr, &unprocessed, "", false, false);
  EXPECT_EQ(0u, without.Clear(config));
  EXPECT_EQ((std::vector<std::string>{"hist.log", "system.log"}),
            keeltest::ListDir(dir.Sub("sys")));
  collector with(nullptr, &unprocessed, "", false, true);
  EXPECT_EQ(0u, with.Clear(config));
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(dir.Sub("sys")));
}

TEST_F(CollectorClear, EachClearedInstructionIsReported) {
  XMLObject* config = Parse(Config(Group(
      "<file id=\"a\"><description>Alpha log</description><default>true</default><keel>"
      "<os opsys=\"linux\"/></keel></file>"
      "<file id=\"b\"><description>Not default</description><keel><os opsys=\"linux\"/></keel>"
      "</file>")));
  RecordingListener listener;
  helperUtil::setStatusListener(&listener);
  collector job(nullptr, &unprocessed, "", false, true);
  const ResultCode result = job.Clear(config);
  helperUtil::setStatusListener(nullptr);
  EXPECT_EQ(0u, result);
  EXPECT_EQ(std::vector<std::string>{"Clearing Alpha log...|0|1"}, listener.messages);
}

TEST_F(CollectorClear, ClearWithoutConfigFails) {
  collector job(nullptr, &unprocessed, "", false, true);
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, job.Clear(nullptr));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pXMLObjectConfig is NULL"));
}

TEST_F(CollectorClear, ClearPassesOverInstructionsWithoutALinuxPart) {
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("c/a.log"), "x\n"));
  XMLObject* config = Parse(Config(Group("<file id=\"bare\"><default>true</default></file>" +
                                         ClearInstruction("after", "c/a.log", "true"))));
  collector job(nullptr, &unprocessed, "", false, true);
  EXPECT_EQ(0u, job.Clear(config));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "collector::moveReaderToCorrectOS"));
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(dir.Sub("c")));
}

}  // namespace
