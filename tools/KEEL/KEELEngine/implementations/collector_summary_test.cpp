// The summary document and the text of summary.txt: head, sections, the
// wrapping of long texts, whole files compared with stored ones, and the
// sections of several collectors writing at once.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Utility/sysutils.h"
#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/collector_testsupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

using collectortest::CollectorFixture;
using collectortest::Config;
using collectortest::CopyInstruction;
using collectortest::EmptySection;
using collectortest::Entries;
using collectortest::FixedHead;
using collectortest::Group;
using collectortest::Lines;
using collectortest::Logged;
using collectortest::Pad;
using collectortest::Row;
using collectortest::Rows;
using keeltest::PathExists;
using keeltest::ReadFile;

const std::string kIncludedRule = std::string(101, '-') + "\n";
const std::string kOmittedRule = std::string(141, '-') + "\n";
const std::string kSectionRule = "\n" + std::string(141, '=') + "\n";

// ---- Cutting texts into column pieces ----------------------------------------

std::vector<std::string> AllPieces(std::string text, size_t width) {
  std::vector<std::string> pieces;
  do {
    pieces.push_back(collector::nextPiece(text, width));
  } while (!text.empty() && pieces.size() < 100);
  return pieces;
}

// The first piece of `text` at `width`, and what is left of the text.
using Cutting = std::pair<std::string, std::string>;
Cutting Cut(std::string text, size_t width) {
  std::string piece = collector::nextPiece(text, width);
  return Cutting(piece, text);
}

TEST(CollectorNextPiece, SixtyCharactersWithoutBlanksTakeThreePieces) {
  const std::string name(60, 'n');
  EXPECT_EQ(
      (std::vector<std::string>{std::string(27, 'n'), std::string(27, 'n'), std::string(6, 'n')}),
      AllPieces(name, 28));
}

TEST(CollectorNextPiece, TextOfExactlyTheWidthIsOnePiece) {
  EXPECT_EQ(Cutting(std::string(28, 'x'), ""), Cut(std::string(28, 'x'), 28));
}

TEST(CollectorNextPiece, BreaksAtTheLastBlankThatFits) {
  EXPECT_EQ(Cutting("Diagnostic traces of the client", "application, written while set up"),
            Cut("Diagnostic traces of the client application, written while set up", 40));
}

TEST(CollectorNextPiece, BlankJustBehindTheColumnIsNotUsed) {
  EXPECT_EQ(Cutting("aaaa", "a bbb"), Cut("aaaaa bbb", 5));
}

TEST(CollectorNextPiece, OnlyTheOneBlankIsDropped) {
  EXPECT_EQ(Cutting("aa ", "bb cc"), Cut("aa  bb cc", 4));
}

TEST(CollectorNextPiece, LeadingWhiteSpaceGoesFirst) {
  EXPECT_EQ(Cutting("word", ""), Cut(" \t\n  word", 10));
  EXPECT_EQ(Cutting("", ""), Cut("   \t ", 10));
  EXPECT_EQ(Cutting("", ""), Cut("", 10));
}

TEST(CollectorNextPiece, NextRowStartsWithTheNextWord) {
  EXPECT_EQ((std::vector<std::string>{"one two", "three", "four five"}),
            AllPieces("one two three four five", 9));
}

// ---- The summary document ------------------------------------------------------

class CollectorSummary : public CollectorFixture {
 protected:
  // A collector whose summary document is started, for `bundlePath`.
  std::unique_ptr<collector> Started(const std::string& bundlePath = "report") {
    std::unique_ptr<collector> job(
        new collector(&noRequest, &unprocessed, bundlePath, false, true, &host));
    EXPECT_EQ(0u, job->initializeSummary());
    return job;
  }

  static KEELComponent* Part(collector& job, const std::string& name) {
    return job.summaryDocument()->GetRoot()->FindChild(name);
  }

  static void AddIncluded(collector& job, const std::string& id, const std::string& name,
                          const std::string& description, const std::string& size) {
    auto* entry = new KEELComponent(id, name);
    entry->AddAttribute("description", description);
    entry->AddAttribute("file_size", size);
    Part(job, "Manifest_Included")->AddChild(entry);
  }

  // The text written by writeSummary for `config` (head included).
  std::string Written(collector& job, XMLObject* config) {
    EXPECT_EQ(0u, job.writeSummary("work", config));
    return Summary();
  }
};

TEST_F(CollectorSummary, InitializeSummaryMakesTheFourParts) {
  auto job = Started();
  XMLObject* summary = job->summaryDocument();
  ASSERT_NE(nullptr, summary);
  EXPECT_EQ("summary", summary->GetName());
  EXPECT_EQ("KEEL BUNDLE SUMMARY\n", summary->GetValue());
  std::vector<std::string> parts;
  for (const auto& child : summary->GetRoot()->GetChildren())
    parts.push_back(child->GetName() + "|" + child->GetValue());
  EXPECT_EQ((std::vector<std::string>{"Main_Info|", "Manifest_Included|File Manifest:",
                                      "Manifest_Not_Included|Files Requested But Not Included In "
                                      "Bundle:",
                                      "Other_Note|Other notes:"}),
            parts);
  // A second start replaces the summary document.
  AddIncluded(*job, "x", "x", "", "");
  ASSERT_EQ(0u, job->initializeSummary());
  EXPECT_TRUE(Entries(job->summaryDocument(), "Manifest_Included").empty());
}

TEST_F(CollectorSummary, MainInfoHoldsTheHostFactsInOrder) {
  auto job = Started();
  ASSERT_EQ(0u, job->fillInSummaryMainInfo());
  EXPECT_EQ((std::vector<std::string>{"Time:|Mon Jan 01 12:00:00 2024 UTC",
                                      "OS:|Linux: Test Linux 1.0", "User Name:|tester",
                                      "Bundle on client computer:|/home/tester/report"}),
            Entries(job->summaryDocument(), "Main_Info"));
}

TEST_F(CollectorSummary, MainInfoRefusals) {
  collector job(&noRequest, &unprocessed, "report", false, true);
  EXPECT_EQ(KEELENGINE_ERROR_NULL_XML_ROOT, job.fillInSummaryMainInfo());
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "m_pXMLSummary->GetRoot() is NULL"));
  ASSERT_EQ(0u, job.initializeSummary());
  job.summaryDocument()->RemoveChild(job.summaryDocument()->GetRoot(), Part(job, "Main_Info"));
  EXPECT_EQ(KEELENGINE_ERROR_NULL_XML_CHILD, job.fillInSummaryMainInfo());
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pDCMainInfo is NULL"));
}

// ---- The head ----------------------------------------------------------------------

TEST_F(CollectorSummary, HeadComesOnceAheadOfTheFirstSection) {
  XMLObject* first = Parse(Config("", "One"));
  XMLObject* second = Parse(Config("", "Two"));
  auto a = Started();
  auto b = Started("other-bundle");
  ASSERT_EQ(0u, a->writeSummary("work", first));
  ASSERT_EQ(0u, b->writeSummary("work", second));
  EXPECT_EQ(FixedHead() + EmptySection("One") + EmptySection("Two"), Summary());
  // Only the collector that wrote the head asked for the host facts.
  EXPECT_TRUE(Entries(b->summaryDocument(), "Main_Info").empty());
}

TEST_F(CollectorSummary, HeadWithoutMainInfoIsTheTitleAlone) {
  auto job = Started();
  job->summaryDocument()->RemoveChild(job->summaryDocument()->GetRoot(), Part(*job, "Main_Info"));
  EXPECT_EQ("KEEL BUNDLE SUMMARY\n\n" + EmptySection("T"), Written(*job, Parse(Config("", "T"))));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "collector::fillInSummaryMainInfo"));
}

TEST_F(CollectorSummary, LongerInfoNameIsCutAtThirtyCharacters) {
  auto job = Started();
  Part(*job, "Main_Info")->AddChild("A name that runs past the thirty places", "value");
  const std::vector<std::string> lines = Lines(Written(*job, Parse(Config(""))));
  ASSERT_GE(lines.size(), 7u);
  EXPECT_EQ("A name that runs past the thirvalue", lines[2]);
  EXPECT_EQ("Bundle on client computer:    /home/tester/report", lines[6]);
  EXPECT_EQ(26u, std::string("Bundle on client computer:").size());
}

// The host's own answers: the bundle path is shown as the collector got
// it, before any ".zip" is added to the bundle's name.
TEST_F(CollectorSummary, BundleLineShowsThePathAsGiven) {
  collector job(&noRequest, &unprocessed, "/tmp/report", false, true);
  std::string folder = "work";
  ASSERT_EQ(0u, job.Collect(folder, Parse(Config(""))));
  const std::vector<std::string> lines = Lines(Summary());
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ("KEEL BUNDLE SUMMARY", lines[0]);
  EXPECT_EQ("", lines[1]);
  EXPECT_EQ(Pad("Time:", 30), lines[2].substr(0, 30));
  EXPECT_EQ(getTimeNowString(3).substr(0, 10), lines[2].substr(30, 10));
  EXPECT_EQ(Pad("OS:", 30), lines[3].substr(0, 30));
  const char* user = getenv("USER");
  EXPECT_EQ(Pad("User Name:", 30) + (user != nullptr ? user : ""), lines[4]);
  EXPECT_EQ("Bundle on client computer:    /tmp/report", lines[5]);
}

TEST_F(CollectorSummary, RelativeBundlePathIsShownBelowTheCurrentFolder) {
  collector job(&noRequest, &unprocessed, "report", false, true);
  std::string folder = "work";
  ASSERT_EQ(0u, job.Collect(folder, Parse(Config(""))));
  const std::vector<std::string> lines = Lines(Summary());
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ("Bundle on client computer:    " + dir.path() + "/report", lines[5]);
}

// ---- A config's section ----------------------------------------------------------

TEST_F(CollectorSummary, HeadingIsTheTitleBelowConfigure) {
  auto job = Started();
  Written(*job, Parse("<c><x><configure><y><title>Deep Title</title></y></configure></x></c>"));
  auto other = Started();
  Written(*other, Parse("<c><title>Not below configure</title><configure/></c>"));
  EXPECT_EQ(FixedHead() + EmptySection("Deep Title") + EmptySection(""), Summary());
}

TEST_F(CollectorSummary, EmptySectionHasOnlyTheIncludedPart) {
  auto job = Started();
  EXPECT_EQ(FixedHead() + kSectionRule + ":\n\nFiles Included in Bundle:\n" +
                "ID                 Filename                      Description                 "
                "              File Size \n" +
                kIncludedRule + kIncludedRule,
            Written(*job, Parse(Config(""))));
}

TEST_F(CollectorSummary, IncludedFileWithEmptyTextsTakesOneBlankRow) {
  auto job = Started();
  Part(*job, "Manifest_Included")->AddChild(new KEELComponent("", ""));
  const std::string blankRow = std::string(101, ' ') + "\n";
  EXPECT_EQ(FixedHead() + kSectionRule + ":\n\nFiles Included in Bundle:\n" +
                Row("ID", "Filename", "Description", "File Size") + kIncludedRule + blankRow +
                kIncludedRule,
            Written(*job, Parse(Config(""))));
}

TEST_F(CollectorSummary, SixtyCharacterFileNameTakesThreeRows) {
  auto job = Started();
  const std::string name(60, 'f');
  AddIncluded(*job, "id", name, "Description", "9 bytes");
  const auto rows = Rows(Written(*job, Parse(Config(""))), "Files Included in Bundle:");
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"id", std::string(27, 'f'), "Description", "9 bytes"}),
            rows[0]);
  EXPECT_EQ((std::vector<std::string>{"", std::string(27, 'f'), "", ""}), rows[1]);
  EXPECT_EQ((std::vector<std::string>{"", std::string(6, 'f'), "", ""}), rows[2]);
}

TEST_F(CollectorSummary, TextsOfExactlyTheColumnWidthsTakeOneRow) {
  auto job = Started();
  AddIncluded(*job, std::string(17, 'i'), std::string(28, 'n'), std::string(40, 'd'),
              std::string(10, 's'));
  EXPECT_EQ(FixedHead() + kSectionRule + ":\n\nFiles Included in Bundle:\n" +
                Row("ID", "Filename", "Description", "File Size") + kIncludedRule +
                std::string(17, 'i') + "  " + std::string(28, 'n') + "  " + std::string(40, 'd') +
                "  " + std::string(10, 's') + "\n" + kIncludedRule,
            Written(*job, Parse(Config(""))));
}

TEST_F(CollectorSummary, DescriptionBreaksAtTheLastBlankThatFits) {
  auto job = Started();
  AddIncluded(*job, "id", "a.log",
              "Diagnostic traces of the client application, written while a tunnel is set up",
              "1 bytes");
  const auto rows = Rows(Written(*job, Parse(Config(""))), "Files Included in Bundle:");
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ("Diagnostic traces of the client", rows[0][2]);
  EXPECT_EQ("application, written while a tunnel is", rows[1][2]);
  EXPECT_EQ("set up", rows[2][2]);
}

TEST_F(CollectorSummary, OmittedFilesAndNotesHaveTheirOwnParts) {
  auto job = Started();
  helperUtil::fillSummaryFailedFile(job->summaryDocument(), "gone", "gone.log", "Gone log",
                                    "No file found with path matching: /var/log/some/gone.log");
  helperUtil::fillSummaryNote(job->summaryDocument(), "First note");
  helperUtil::fillSummaryNote(job->summaryDocument(), "Second note");
  EXPECT_EQ(FixedHead() + kSectionRule + "T:\n\nFiles Included in Bundle:\n" +
                Row("ID", "Filename", "Description", "File Size") + kIncludedRule + kIncludedRule +
                "\n\nFiles Omitted from Bundle:\n" +
                Row("ID", "Filename", "Description", "Reason Omitted", 50) + kOmittedRule +
                Row("gone", "gone.log", "Gone log", "No file found with path matching:", 50) +
                Row("", "", "", "/var/log/some/gone.log", 50) + kOmittedRule +
                "\n\nNotes:\n - First note\n - Second note\n",
            Written(*job, Parse(Config("", "T"))));
}

TEST_F(CollectorSummary, ControlCharactersInNamesAreWrittenEscaped) {
  auto job = Started();
  AddIncluded(*job, "evil", "a\nb\tc\x1b[2Jd\re", "Evil log", "7");
  helperUtil::fillSummaryFailedFile(job->summaryDocument(), "gone", "x\ny", "Gone log",
                                    "Not found: /srv/x\ny");
  EXPECT_EQ(FixedHead() + kSectionRule + "T:\n\nFiles Included in Bundle:\n" +
                Row("ID", "Filename", "Description", "File Size") + kIncludedRule +
                Row("evil", "a\\nb\\tc\\x1b[2Jd\\re", "Evil log", "7") + kIncludedRule +
                "\n\nFiles Omitted from Bundle:\n" +
                Row("ID", "Filename", "Description", "Reason Omitted", 50) + kOmittedRule +
                Row("gone", "x\\ny", "Gone log", "Not found: /srv/x\\ny", 50) + kOmittedRule,
            Written(*job, Parse(Config("", "T"))));
}

TEST_F(CollectorSummary, NamesWithoutControlCharactersStayByteForByte) {
  auto job = Started();
  AddIncluded(*job, "odd", "back\\slash \xc3\xa9t\xc3\xa9.log", "Odd log", "3");
  EXPECT_EQ(FixedHead() + kSectionRule + "T:\n\nFiles Included in Bundle:\n" +
                Row("ID", "Filename", "Description", "File Size") + kIncludedRule +
                Row("odd", "back\\slash \xc3\xa9t\xc3\xa9.log", "Odd log", "3") + kIncludedRule,
            Written(*job, Parse(Config("", "T"))));
}

TEST_F(CollectorSummary, NotesWithoutOmittedFiles) {
  auto job = Started();
  helperUtil::fillSummaryNote(job->summaryDocument(), "Only note");
  EXPECT_EQ(FixedHead() + EmptySection("") + "\n\nNotes:\n - Only note\n",
            Written(*job, Parse(Config(""))));
}

TEST_F(CollectorSummary, CollectedFilesEnterTheManifestThroughTheTruncator) {
  XMLObject* request = Parse("<r><comments>Hello</comments></r>");
  collector job(request, &unprocessed, "report", false, true, &host);
  ASSERT_EQ(0u, job.initializeSummary());
  ASSERT_EQ(0u, job.writeComments(nullptr, "work"));
  ASSERT_EQ(0u, job.writeSummary("work", Parse(Config(""))));
  EXPECT_TRUE(job.collectedFiles().empty());
  EXPECT_EQ((std::vector<std::string>{
                "comments|comments.txt|description=Velon Tessel Client user comments|file_size=45 "
                "bytes"}),
            Entries(job.summaryDocument(), "Manifest_Included"));
  const auto rows = Rows(Summary(), "Files Included in Bundle:");
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ((std::vector<std::string>{"comments", "comments.txt",
                                      "Velon Tessel Client user comments", "45 bytes"}),
            rows[0]);
}

// ---- The summary's own file ---------------------------------------------------------

TEST_F(CollectorSummary, SummaryFileIsMadeOnlyWhereNothingHasItsName) {
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("victim.txt"), "precious"));
  ASSERT_EQ(0, symlink(dir.Sub("victim.txt").c_str(), "work/summary.txt"));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, collector::createSummaryFile("work/summary.txt"));
  ASSERT_EQ(0, unlink("work/summary.txt"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("work/summary.txt"), "there before"));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, collector::createSummaryFile("work/summary.txt"));
  EXPECT_EQ("precious", keeltest::ReadFile(dir.Sub("victim.txt")));
  EXPECT_EQ("there before", Summary());
}

TEST_F(CollectorSummary, SummaryFileIsPrivateToTheRun) {
  const mode_t oldMask = umask(0);
  const ResultCode created = collector::createSummaryFile("work/summary.txt");
  umask(oldMask);
  ASSERT_EQ(0u, created);
  struct stat info;
  ASSERT_EQ(0, lstat("work/summary.txt", &info));
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(0600u, info.st_mode & 07777);
  collector::closeSummaryFile();
}

TEST_F(CollectorSummary, CollectedFileAtTheSummaryNameIsLeftOutAndCannotWriteIt) {
  ASSERT_EQ(0u, collector::createSummaryFile("work/summary.txt"));
  Source("summary.txt", "KEEL BUNDLE SUMMARY\n\nTime:   FORGED\n");
  Source("b.log", "beta\n");
  ASSERT_EQ(0u, Collect(Parse(Config(Group(CopyInstruction("fake", "Fake", "src/summary.txt") +
                                           CopyInstruction("real", "Real", "src/b.log")),
                                     "T"))));
  EXPECT_EQ(
      FixedHead() + kSectionRule + "T:\n\nFiles Included in Bundle:\n" +
          Row("ID", "Filename", "Description", "File Size") + kIncludedRule +
          Row("real", "b.log", "Real", "5 bytes") + kIncludedRule +
          "\n\nFiles Omitted from Bundle:\n" +
          Row("ID", "Filename", "Description", "Reason Omitted", 50) + kOmittedRule +
          Row("fake", "summary.txt", "Fake", "The bundle's own summary.txt has this name", 50) +
          kOmittedRule,
      Summary());
  collector::closeSummaryFile();
}

TEST_F(CollectorSummary, SummaryNameTakenAfterTheLastSectionIsPutBack) {
  ASSERT_EQ(0u, collector::createSummaryFile("work/summary.txt"));
  auto job = Started();
  const std::string written = Written(*job, Parse(Config("", "T")));
  // A program of the run replaces the name with a folder of its own.
  ASSERT_EQ(0, unlink("work/summary.txt"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("work/summary.txt/x.txt"), "forged"));
  collector::reclaimSummaryName();
  EXPECT_EQ(written, Summary());
  collector::closeSummaryFile();
}

// ---- Failures -----------------------------------------------------------------------

TEST_F(CollectorSummary, UnopenableSummaryKeepsTheRecordsAndTheHeadForLater) {
  XMLObject* request = Parse("<r><comments>Hello</comments></r>");
  collector job(request, &unprocessed, "report", false, true, &host);
  ASSERT_EQ(0u, job.initializeSummary());
  ASSERT_EQ(0u, job.writeComments(nullptr, "work"));
  XMLObject* config = Parse(Config("", "Late"));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, job.writeSummary("missing", config));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "fopen failed to open file \"missing/summary.txt\""));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "collector::printSummary"));
  EXPECT_EQ(1u, job.collectedFiles().size());
  EXPECT_TRUE(Entries(job.summaryDocument(), "Manifest_Included").empty());
  EXPECT_FALSE(PathExists(dir.Sub("missing")));
  // The head was not spent on the failed attempt.
  auto other = Started();
  EXPECT_EQ(FixedHead() + EmptySection("Other"), Written(*other, Parse(Config("", "Other"))));
}

TEST_F(CollectorSummary, CollectFailsWhenTheSummaryCannotBeOpened) {
  auto job = Started();
  std::string folder = "missing";
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, job->Collect(folder, Parse(Config(""))));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "collector::writeSummary"));
  // The summary document stays until the collector goes.
  EXPECT_NE(nullptr, job->summaryDocument());
}

TEST_F(CollectorSummary, SummaryThatCannotBeWrittenWholeIsAWriteFailure) {
  // A file-size limit fails the writes past it as a full disk would: the
  // part of summary.txt that did not arrive must not pass unnoticed.
  auto job = Started();
  for (int row = 0; row < 200; ++row)
    AddIncluded(*job, "id-" + std::to_string(row), "file.log", "a row", "10 bytes");
  XMLObject* config = Parse(Config(""));
  const int answer = keeltest::RunInChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4096, 4096};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
      return 3;
    return job->writeSummary("work", config) == KEELENGINE_ERROR_WRITE_FAILURE ? 0 : 1;
  });
  EXPECT_EQ(0, answer);
}

TEST(CollectorColumns, PiecesOfALongTextAreThoseOfTheShortWay) {
  // The running position gives exactly the pieces that cutting the front
  // off the text each time gives.
  std::string text;
  for (int word = 0; word < 2000; ++word)
    text += std::string(1 + word % 37, 'a' + word % 26) + (word % 5 == 0 ? "   " : " ");
  collector::ColumnText column{text};
  std::string rest = text;
  while (!column.done() || !rest.empty())
    ASSERT_EQ(collector::nextPiece(rest, 40), collector::nextPiece(column, 40));
}

TEST_F(CollectorSummary, WriteSummaryWithoutConfigFails) {
  auto job = Started();
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, job->writeSummary("work", nullptr));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pXMLObjectConfig is NULL"));
  EXPECT_FALSE(InWork("summary.txt"));
}

// ---- Whole files compared with stored ones ----------------------------------------

// A stored summary below testdata/summary/ beside this source, found
// through the source tree the build was configured from.
std::string Golden(const std::string& name) {
  return ReadFile(keeltest::SourceDir() +
                  "/tools/KEEL/KEELEngine/implementations/testdata/summary/" + name);
}

class CollectorSummaryGolden : public CollectorFixture {
 protected:
  // summary.txt with the temporary folder's path made stable.
  std::string Stable() const {
    std::string text = Summary();
    for (size_t at = text.find(dir.path()); at != std::string::npos; at = text.find(dir.path(), at))
      text.replace(at, dir.path().size(), "<TMP>");
    return text;
  }
};

TEST_F(CollectorSummaryGolden, TwoFilesOfOneGroup) {
  Source("client.log", std::string(100, 'c'));
  Source("service.log", std::string(2048, 's'));
  XMLObject* config =
      Parse(Config(Group(CopyInstruction("service-log", "Service log", "src/service.log") +
                             CopyInstruction("client-log", "Client log", "src/client.log"),
                         " treeRootName=\"Client\" directoryName=\"Client\""),
                   "Velon Tessel Client"));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("Client/client.log"));
  EXPECT_TRUE(InWork("Client/service.log"));
  EXPECT_EQ(Golden("basic.txt"), Stable());
}

TEST_F(CollectorSummaryGolden, LongTextsOmittedFilesAndNotes) {
  const std::string longName = "client-diagnostic-trace-with-a-deliberately-long-name-01.log";
  ASSERT_EQ(60u, longName.size());
  Source("app.log", "application log line\n");
  Source(longName, std::string(1536, 'd'));
  Source("service.log", std::string(4096, 's'));
  Source("empty.log", "");
  Source("backup.new", "not old\n");
  const std::string newest =
      "<file id=\"newest-backup\"><description>Newest rotated log</description>"
      "<default>true</default><keel><os opsys=\"linux\"><file_copy_action><action>"
      "<loc gather_newest=\"true\">src/*.old</loc></action></file_copy_action></os></keel></file>";
  XMLObject* config = Parse(Config(
      Group(CopyInstruction("optional", "Optional log", "src/app.log", "false") +
                CopyInstruction("no-match", "Crash dumps of the service, if any were written",
                                "src/*.dmp") +
                newest +
                CopyInstruction("missing-file", "A log that this host does not have",
                                "src/not-there.log") +
                CopyInstruction("client-application-diagnostics",
                                "Diagnostic traces of the client application, written while a "
                                "tunnel is being set up",
                                "src/" + longName, "true", " directoryName=\"Traces\"") +
                CopyInstruction("app", "Application log", "src/app.log"),
            " treeRootName=\"Client\" directoryName=\"Client\"") +
          Group(CopyInstruction("zz-very-long-identifier-without-any-blanks", "", "src/empty.log") +
                CopyInstruction("unused", "Not by default", "src/app.log", "") +
                CopyInstruction("service", "Service log of the tunnel daemon on host",
                                "src/service.log")),
      "Velon Tessel Client Diagnostics"));
  ASSERT_EQ(0u, Collect(config));
  EXPECT_TRUE(InWork("Client/app.log"));
  EXPECT_TRUE(InWork("Client/Traces/" + longName));
  EXPECT_TRUE(InWork("service.log"));
  EXPECT_TRUE(InWork("empty.log"));
  EXPECT_EQ(Golden("wrapping.txt"), Stable());
}

TEST_F(CollectorSummaryGolden, TwoConfigsOneAfterTheOther) {
  Source("first.log", "first\n");
  XMLObject* first =
      Parse(Config(Group(CopyInstruction("first", "First log", "src/first.log")), "First Config"));
  XMLObject* second = Parse("<config><other/></config>");
  ASSERT_EQ(0u, Collect(first));
  ASSERT_EQ(0u, Collect(second));
  EXPECT_EQ(Golden("two_configs.txt"), Stable());
}

// ---- Several collectors at once ------------------------------------------------------

// Enough notes that a section takes several writes to the file.
const int kNotesPerSection = 2000;

std::string OptionalId(int n, int k) {
  // Zero-padded, so that the order of the ids is the order of k.
  const std::string number = std::to_string(10000 + k).substr(1);
  return "optional-" + std::to_string(n) + "-" + number;
}

std::string ExpectedNotes(int n) {
  std::string notes;
  for (int k = 0; k < kNotesPerSection; ++k)
    notes += " - The file(s) of ID " + OptionalId(n, k) +
             " is/are not included by default by this config.\n";
  return notes;
}

// The section that config `n` of the concurrency test writes.
std::string ExpectedSection(int n) {
  const std::string id = "file-" + std::to_string(n);
  return kSectionRule + "Config " + std::to_string(n) + ":\n\nFiles Included in Bundle:\n" +
         Row("ID", "Filename", "Description", "File Size") + kIncludedRule +
         Row(id, id + ".log", "Log number " + std::to_string(n), "8 bytes") + kIncludedRule +
         "\n\nFiles Omitted from Bundle:\n" +
         Row("ID", "Filename", "Description", "Reason Omitted", 50) + kOmittedRule +
         Row("gone-" + std::to_string(n), "N/A", "", "No file found with path matching:", 50) +
         Row("", "", "", "src/missing-" + std::to_string(n) + ".log", 50) + kOmittedRule +
         "\n\nNotes:\n" + ExpectedNotes(n);
}

class CollectorSummaryConcurrency : public CollectorFixture {
 protected:
  // Configs 0 .. count-1: each copies one file into the same group folder,
  // misses one and has many notes.
  std::vector<XMLObject*> MakeConfigs(int count) {
    std::vector<XMLObject*> configs;
    for (int n = 0; n < count; ++n) {
      const std::string id = "file-" + std::to_string(n);
      Source(id + ".log", std::string("log ") + (n < 10 ? "0" : "") + std::to_string(n) + "\n\n");
      std::string optional;
      for (int k = 0; k < kNotesPerSection; ++k)
        optional += "<file id=\"" + OptionalId(n, k) + "\"/>";
      configs.push_back(Parse(Config(
          Group(CopyInstruction(id, "Log number " + std::to_string(n), "src/" + id + ".log") +
                    CopyInstruction("gone-" + std::to_string(n), "",
                                    "src/missing-" + std::to_string(n) + ".log") +
                    optional,
                " directoryName=\"Shared\\Logs\""),
          "Config " + std::to_string(n))));
    }
    return configs;
  }

  // Runs the configs on `threads` threads, `configs.size() / threads`
  // rounds each. Every round starts on all threads at once, so that the
  // sections are written at about the same time.
  void RunAtOnce(const std::vector<XMLObject*>& configs, int threads) {
    const size_t rounds = configs.size() / threads;
    std::vector<std::atomic<int>> arrived(rounds);
    std::atomic<int> failures{0};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
      running.emplace_back([&, t] {
        for (size_t round = 0; round < rounds; ++round) {
          arrived[round].fetch_add(1);
          while (arrived[round].load() < threads)
            std::this_thread::yield();
          collector job(&noRequest, &unprocessed, "report", false, true, &host);
          std::string folder = "work";
          if (job.Collect(folder, configs[t * rounds + round]) != 0)
            failures.fetch_add(1);
        }
      });
    }
    for (std::thread& thread : running)
      thread.join();
    EXPECT_EQ(0, failures.load());
  }

  // `summary` is the head and then exactly one whole section per config,
  // in any order.
  static void ExpectWholeSections(const std::string& summary, int count) {
    ASSERT_EQ(0u, summary.find(FixedHead()));
    size_t heads = 0;
    for (size_t at = summary.find("KEEL BUNDLE SUMMARY"); at != std::string::npos;
         at = summary.find("KEEL BUNDLE SUMMARY", at + 1))
      ++heads;
    EXPECT_EQ(1u, heads);
    // Cut the rest at each section's rule.
    std::vector<std::string> sections;
    const std::string rest = summary.substr(FixedHead().size());
    size_t start = 0;
    while (start < rest.size()) {
      size_t next = rest.find(kSectionRule, start + 1);
      if (next == std::string::npos)
        next = rest.size();
      sections.push_back(rest.substr(start, next - start));
      start = next;
    }
    std::vector<std::string> expected;
    for (int n = 0; n < count; ++n)
      expected.push_back(ExpectedSection(n));
    std::sort(sections.begin(), sections.end());
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(expected.size(), sections.size());
    // Sections are large; tell only which one differs and where.
    for (size_t i = 0; i < expected.size(); ++i) {
      const auto differ = std::mismatch(expected[i].begin(), expected[i].end(), sections[i].begin(),
                                        sections[i].end());
      EXPECT_TRUE(expected[i] == sections[i])
          << "section " << i << " differs at " << (differ.first - expected[i].begin()) << ": \""
          << sections[i].substr(differ.second - sections[i].begin(), 80) << "\"";
    }
  }
};

TEST_F(CollectorSummaryConcurrency, SectionsNeverMixAndTheHeadComesOnce) {
  const std::vector<XMLObject*> configs = MakeConfigs(12);
  RunAtOnce(configs, 6);
  ExpectWholeSections(Summary(), 12);
  for (int n = 0; n < 12; ++n)
    EXPECT_TRUE(InWork("Shared/Logs/file-" + std::to_string(n) + ".log")) << n;
}

// summary.txt is a pipe that is read slowly: writing a section then blocks
// many times over, and a section written by anyone who did not wait for the
// previous one to end would be cut up by the other's pieces.
TEST_F(CollectorSummaryConcurrency, SlowlyReadSummaryStillGetsWholeSections) {
  const std::vector<XMLObject*> configs = MakeConfigs(6);
  const std::string path = dir.Sub("work/summary.txt");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  std::string received;
  std::atomic<bool> writersDone{false};
  std::atomic<bool> readerDone{false};
  std::thread reader([&] {
    // Each writer opens and closes the pipe; read one opening after another.
    while (true) {
      const int fd = open(path.c_str(), O_RDONLY);
      if (fd < 0)
        break;
      char buffer[4096];
      ssize_t got;
      while ((got = read(fd, buffer, sizeof(buffer))) > 0) {
        received.append(buffer, static_cast<size_t>(got));
        usleep(100);
      }
      close(fd);
      if (writersDone.load())
        break;
    }
    readerDone.store(true);
  });
  RunAtOnce(configs, 6);
  writersDone.store(true);
  // Wake a reader that waits for a writer that will not come.
  while (!readerDone.load()) {
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0)
      close(fd);
    usleep(1000);
  }
  reader.join();
  ExpectWholeSections(received, 6);
}

}  // namespace
