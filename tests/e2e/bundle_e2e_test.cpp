// Bundle runs of the real keelcli, copied alone into a temporary install
// folder with instruction files of the test's own, each in a private mount
// namespace (see E2eSupport.h). Checks the console bytes, the exit status,
// the bundle's entries and bytes, summary.txt, and what stays in /tmp.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/CliTexts.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

// One instruction group that copies each of `patterns` as its own file ID.
std::string Config(const std::string& title, const std::vector<std::string>& ids,
                   const std::vector<std::string>& patterns, const std::string& groupExtra = "") {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n<configure><title>" +
                     title + "</title></configure>\n<fileGroup treeRootName=\"" + title + "\"" +
                     groupExtra + "><title>" + title + "</title>\n";
  for (size_t i = 0; i < ids.size(); ++i) {
    text += "<file id=\"" + ids[i] + "\"><description>" + ids[i] +
            " files</description><default>true</default><keel><os opsys=\"linux\">"
            "<file_copy_action><action><loc>" +
            patterns[i] + "</loc></action></file_copy_action></os></keel></file>\n";
  }
  return text + "</fileGroup>\n</config>\n";
}

std::string StartOfEngine() {
  return ProgressLine("Starting up KEEL Engine...", 1) +
         ProgressLine("Parsing request and configuration XMLs...", 1);
}

std::string EndOfBundleRun() {
  return ProgressLine("Zipping the bundle, please wait...", 96) +
         ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n";
}

// The head of summary.txt with its time line masked.
std::string Head(const std::string& bundle) {
  return std::string("KEEL BUNDLE SUMMARY\n\n") + "Time:                         <time>\n" +
         "OS:                           " + keeltest::kIsolatedOsDescription + "\n" +
         "User Name:                    tester\n" + "Bundle on client computer:    " + bundle +
         "\n";
}

std::string MaskTime(const std::string& summary) {
  static const std::regex kTime("\nTime:                         [^\n]*\n");
  return std::regex_replace(summary, kTime, "\nTime:                         <time>\n",
                            std::regex_constants::format_first_only);
}

using keeltest::SummaryRow;

std::string SectionHead(const std::string& title) {
  return "\n" + std::string(141, '=') + "\n" + title + ":\n\nFiles Included in Bundle:\n" +
         SummaryRow("ID", "Filename", "Description", "File Size", 10) + std::string(101, '-') +
         "\n";
}

// The whole summary.txt (time masked) of a run whose one config, "First
// Config", copied a.log.
std::string AlphaSummary(const std::string& bundle) {
  return Head(bundle) + SectionHead("First Config") +
         SummaryRow("alpha", "a.log", "alpha files", "10 bytes", 10) + std::string(101, '-') +
         "\n" +
         "\n\nNo instruction found in any config for the following file ID's from request:\n";
}

const char kTail[] =
    "\n\nNo instruction found in any config for the following file ID's from request:\n";

class BundleRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeInstalledTree());
    if (IsSkipped())
      return;
    ASSERT_TRUE(WriteFile(Src("a.log"), "alpha log\n"));
    ASSERT_TRUE(WriteFile(Src("b.log"), std::string(5000, 'b')));
    ASSERT_TRUE(WriteFile(Src("c.txt"), "gamma\n"));
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }

  IsolatedResult Keel(const std::vector<std::string>& args, const std::string& prepare = "",
                      const std::string& inspect = "") {
    std::vector<std::string> argv{m_tree->Sub("install/keelcli")};
    argv.insert(argv.end(), args.begin(), args.end());
    return keeltest::RunIsolated(argv, {"HOME=" + m_tree->Sub("home"), "USER=tester"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"), prepare, inspect);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }

  std::string Announce(const std::string& location, bool custom,
                       const std::string& extra = "") const {
    return std::string(keeltest::kVersion) +
           "Bundle option selected: " + (custom ? "custom" : "default") +
           "\r\nBundle location: " + location + "\r\n" + extra + "\r\n";
  }
};

TEST_F(BundleRun, DefaultRunPutsATimeStampedBundleOnTheDesktop) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  const IsolatedResult run = Keel({});
  ASSERT_EQ(run.status, 0) << run.err << run.out;
  const std::vector<std::string> desktop = keeltest::ListDir(m_tree->Sub("home/Desktop"));
  ASSERT_EQ(desktop.size(), 1u);
  EXPECT_TRUE(std::regex_match(desktop[0], std::regex("KEELBundle_\\d{4}_\\d{4}\\.zip")))
      << desktop[0];
  const std::string bundle = m_tree->Sub("home/Desktop/" + desktop[0]);
  EXPECT_EQ(run.out, Announce(bundle, false) + StartOfEngine() +
                         ProgressLine("Reading instructions ...", 4) + EndOfBundleRun());
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(SortedZipEntryNames(bundle), (std::vector<std::string>{"a.log", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "a.log"), "alpha log\n");
  EXPECT_EQ(MaskTime(ZipEntry(bundle, "summary.txt")),
            Head(bundle) + SectionHead("First Config") +
                SummaryRow("alpha", "a.log", "alpha files", "10 bytes", 10) +
                std::string(101, '-') + "\n" + kTail);
  EXPECT_EQ(run.tmpListing, "");  // the working folder is gone
}

TEST_F(BundleRun, CustomRunWithZipNameWritesThere) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  const std::string bundle = m_tree->Sub("out/report.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, Announce(bundle, true) + StartOfEngine() +
                         ProgressLine("Reading instructions ...", 4) + EndOfBundleRun());
  EXPECT_EQ(SortedZipEntryNames(bundle), (std::vector<std::string>{"a.log", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "a.log"), "alpha log\n");
  EXPECT_EQ(MaskTime(ZipEntry(bundle, "summary.txt")), AlphaSummary(bundle));
}

TEST_F(BundleRun, CustomRunWithoutZipGetsTheExtensionButTheSummaryShowsTheGivenPath) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  const std::string given = m_tree->Sub("out/report");
  const IsolatedResult run = Keel({"-dst", given});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_FALSE(keeltest::PathExists(given));
  const std::string bundle = given + ".zip";
  ASSERT_TRUE(keeltest::PathExists(bundle));
  EXPECT_EQ(MaskTime(ZipEntry(bundle, "summary.txt")), AlphaSummary(given));
}

TEST_F(BundleRun, TwLogsTakesTheWholeLegacyGroup) {
  AddConfig("legacy.xml",
            "<config><configure><title>Legacy</title></configure>"
            "<fileGroup treeRootName=\"Legacy - Velon Tidewalker Tessel Mobility Client\">"
            "<file id=\"old\"><description>old logs</description><default>false</default><keel>"
            "<os opsys=\"linux\"><file_copy_action><action><loc>" +
                Src("c.txt") +
                "</loc></action></file_copy_action></os></keel></file>"
                "</fileGroup></config>");
  const std::string bundle = m_tree->Sub("out/legacy.zip");
  IsolatedResult run = Keel({"-dst", bundle, "-twlogs"});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string announced = Announce(
      bundle, true, "Including Legacy - Velon Tidewalker Tessel Mobility Client logs.\r\n");
  EXPECT_EQ(run.out, announced + StartOfEngine() + ProgressLine("Reading instructions ...", 4) +
                         EndOfBundleRun());
  EXPECT_EQ(SortedZipEntryNames(bundle), (std::vector<std::string>{"c.txt", "summary.txt"}));
  EXPECT_EQ(MaskTime(ZipEntry(bundle, "summary.txt")),
            Head(bundle) + SectionHead("Legacy") +
                SummaryRow("old", "c.txt", "old logs", "6 bytes", 10) + std::string(101, '-') +
                "\n" + kTail);

  // Without the option the file is only named in a note.
  const std::string plain = m_tree->Sub("out/plain.zip");
  run = Keel({"-dst", plain});
  ASSERT_EQ(run.status, 0);
  EXPECT_EQ(SortedZipEntryNames(plain), (std::vector<std::string>{"summary.txt"}));
  EXPECT_EQ(MaskTime(ZipEntry(plain, "summary.txt")),
            Head(plain) + SectionHead("Legacy") + std::string(101, '-') +
                "\n\n\nNotes:\n - The file(s) of ID old is/are not included by default by this "
                "config.\n" +
                kTail);
}

TEST_F(BundleRun, SeveralConfigsEachAddTheirSection) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  AddConfig("two.xml", Config("Second Config", {"beta", "gamma"}, {Src("b.log"), Src("c.txt")}));
  AddConfig("three.xml", Config("Third Config", {"missing"}, {Src("nothing-*.log")}));
  const std::string bundle = m_tree->Sub("out/several.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.substr(0, Announce(bundle, true).size()), Announce(bundle, true));
  const std::string end = EndOfBundleRun();
  EXPECT_EQ(run.out.substr(run.out.size() - end.size()), end);
  EXPECT_EQ(SortedZipEntryNames(bundle),
            (std::vector<std::string>{"a.log", "b.log", "c.txt", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "b.log"), std::string(5000, 'b'));
  const std::string summary = MaskTime(ZipEntry(bundle, "summary.txt"));
  // The sections come in the order the configs finish; each stands whole.
  const std::string first = SectionHead("First Config") +
                            SummaryRow("alpha", "a.log", "alpha files", "10 bytes", 10) +
                            std::string(101, '-') + "\n";
  const std::string second =
      SectionHead("Second Config") + SummaryRow("beta", "b.log", "beta files", "4.88K", 10) +
      SummaryRow("gamma", "c.txt", "gamma files", "6 bytes", 10) + std::string(101, '-') + "\n";
  // A long reason wraps over rows of the last column.
  const std::string third =
      SectionHead("Third Config") + std::string(101, '-') + "\n" +
      "\n\nFiles Omitted from Bundle:\n" +
      SummaryRow("ID", "Filename", "Description", "Reason Omitted", 50) + std::string(141, '-') +
      "\n" + SummaryRow("missing", "N/A", "missing files", "No file found with path matching:", 50);
  for (const std::string* section : {&first, &second, &third}) {
    EXPECT_NE(summary.find(*section), std::string::npos) << *section << "\n---\n" << summary;
  }
  const std::string tail = std::string(kTail);
  EXPECT_EQ(summary.substr(summary.size() - tail.size()), tail);
  EXPECT_EQ(summary.substr(0, Head(bundle).size()), Head(bundle));
}

TEST_F(BundleRun, BrokenConfigBesideGoodOnesIsNamedAtTheEnd) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  AddConfig("two.xml", Config("Second Config", {"gamma"}, {Src("c.txt")}));
  AddConfig("broken.xml", "<config><fileGroup>\n");
  const std::string bundle = m_tree->Sub("out/broken.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string summary = ZipEntry(bundle, "summary.txt");
  const std::string tail = "\n" + std::string(100, '=') +
                           "\nKEELEngine failed to parse or use the following configuration "
                           "files:\n" +
                           m_tree->Sub("install/xml/config/broken.xml") + "\n" + kTail;
  ASSERT_GE(summary.size(), tail.size());
  EXPECT_EQ(summary.substr(summary.size() - tail.size()), tail);
  EXPECT_NE(run.log.find("xml errorCB: "), std::string::npos);
}

TEST_F(BundleRun, BrokenConfigBesideOneGoodOneEndsWithoutBundle) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  AddConfig("broken.xml", "<config><fileGroup>\n");
  const std::string bundle = m_tree->Sub("out/none.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, Announce(bundle, true) + StartOfEngine() +
                         ProgressLine("Reading instructions ...", 4) +
                         "\r\nInternal Error: all configs failed...\r\n");
  EXPECT_FALSE(keeltest::PathExists(bundle));
  EXPECT_EQ(run.tmpListing, "");
}

TEST_F(BundleRun, EmptyConfigFolderEndsWithTheInternalError) {
  const std::string bundle = m_tree->Sub("out/empty.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, Announce(bundle, true) + StartOfEngine() +
                         "\r\nInternal Error: no valid configuration XML found...\r\n");
  EXPECT_FALSE(keeltest::PathExists(bundle));
  EXPECT_EQ(run.tmpListing, "");
}

TEST_F(BundleRun, PlainWorkingFolderWithOnlyFilesIsReused) {
  // A program run by the instructions tells which folder the run works in;
  // the run removes it at its end.
  Script("where.sh", "ls -d /tmp/KEEL_Temp_Bundle* > /opt/where.txt\n");
  std::string config = Config("First Config", {"alpha"}, {Src("a.log")});
  config.insert(config.find("</fileGroup>"),
                "<file id=\"where\"><description>where</description><default>true</default>"
                "<keel><os opsys=\"linux\"><use_extern_action><action><path>" +
                    m_tree->Sub("bin") +
                    "</path><args>where.sh</args></action></use_extern_action></os></keel>"
                    "</file>\n");
  AddConfig("one.xml", config);
  const std::string bundle = m_tree->Sub("out/reuse.zip");
  const IsolatedResult run = Keel(
      {"-dst", bundle}, "mkdir /tmp/KEEL_Temp_Bundle && echo old > /tmp/KEEL_Temp_Bundle/old.txt",
      "cat /opt/where.txt");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Inspect(), "/tmp/KEEL_Temp_Bundle\n");
  EXPECT_EQ(run.tmpListing, "");
  EXPECT_EQ(SortedZipEntryNames(bundle), (std::vector<std::string>{"a.log", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "a.log"), "alpha log\n");
}

TEST_F(BundleRun, PlainWorkingFolderWithASubFolderMakesAFreshOne) {
  AddConfig("one.xml", Config("First Config", {"alpha"}, {Src("a.log")}));
  const std::string bundle = m_tree->Sub("out/fresh.zip");
  const IsolatedResult run =
      Keel({"-dst", bundle},
           "mkdir -p /tmp/KEEL_Temp_Bundle/sub && echo x > /tmp/KEEL_Temp_Bundle/sub/x",
           "find /tmp/KEEL_Temp_Bundle* | sort");
  ASSERT_EQ(run.status, 0) << run.err;
  // The old folder lost its file-free top only; the fresh one is gone.
  EXPECT_EQ(Inspect(),
            "/tmp/KEEL_Temp_Bundle\n/tmp/KEEL_Temp_Bundle/sub\n"
            "/tmp/KEEL_Temp_Bundle/sub/x\n");
  EXPECT_EQ(SortedZipEntryNames(bundle), (std::vector<std::string>{"a.log", "summary.txt"}));
  EXPECT_EQ(MaskTime(ZipEntry(bundle, "summary.txt")), AlphaSummary(bundle));
  EXPECT_NE(run.log.find("Invoked Function: helperUtil::fileDeleteDirectory Return Code: "
                         "-22020087 (0xFEB00009)"),
            std::string::npos);
}

TEST_F(BundleRun, ShippedInstructionsMakeAReadableBundle) {
  // The instruction files that ship with the tool, run on this host.
  for (const auto& entry : fs::directory_iterator(keeltest::BuildDir() + "/xml/config")) {
    fs::copy_file(entry.path(),
                  m_tree->Sub("install/xml/config/" + entry.path().filename().string()));
  }
  const std::string bundle = m_tree->Sub("out/shipped.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  ASSERT_EQ(run.status, 0) << run.err;
  int status = -1;
  keeltest::Shell("unzip -tq '" + bundle + "'", &status);
  EXPECT_EQ(status, 0);
  const std::vector<std::string> names = SortedZipEntryNames(bundle);
  EXPECT_NE(std::find(names.begin(), names.end(), "summary.txt"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "os-release"), names.end());
  EXPECT_EQ(ZipEntry(bundle, "os-release"), keeltest::kIsolatedOsRelease);
}

}  // namespace
