// Clear runs of the real keelcli (`-clearlogs`) over a tree of log files of
// the test's own, in a private mount namespace (see E2eSupport.h): which
// files go and which stay, how a clearing command is started, what the
// console shows and the exit status.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/CliTexts.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

using keeltest::kVersion;

const char kLegacyGroup[] = "Legacy - Velon Tidewalker Tessel Mobility Client";

// One instruction; `os` is the content of its Linux part.
std::string Instruction(const std::string& id, bool isDefault, const std::string& os) {
  return "<file id=\"" + id + "\"><description>" + id + " logs</description><default>" +
         (isDefault ? "true" : "false") + "</default><keel><os opsys=\"linux\">" + os +
         "</os></keel></file>\n";
}

std::string FileAction(const std::string& loc, const std::string& extra) {
  return "<file_copy_action><action><loc>" + loc + "</loc>" + extra +
         "</action></file_copy_action>";
}

const char kClear[] = "<clear_log apply=\"true\"/>";

std::string Group(const std::string& title, const std::vector<std::string>& instructions) {
  std::string text = "<fileGroup treeRootName=\"" + title + "\"><title>" + title + "</title>\n";
  for (const std::string& instruction : instructions)
    text += instruction;
  return text + "</fileGroup>\n";
}

std::string Config(const std::string& title, const std::vector<std::string>& groups) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n<configure><title>" +
                     title + "</title></configure>\n";
  for (const std::string& group : groups)
    text += group;
  return text + "</config>\n";
}

class ClearRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(
        MakeTree({"install/xml/config", "home/Desktop", "work", "scratch", "bin", "outside"},
                 "install/keelcli"));
    if (IsSkipped())
      return;
  }

  std::string Data(const std::string& relative) const { return m_tree->Sub("data/" + relative); }
  std::string Bin() const { return m_tree->Sub("bin"); }
  std::string Outside(const std::string& name) const { return m_tree->Sub("outside/" + name); }

  // Every file and folder below data/ and outside/, relative, sorted;
  // folders end in "/".
  std::vector<std::string> Listing() const {
    std::vector<std::string> names;
    for (const char* top : {"data", "outside"}) {
      const fs::path root = m_tree->Sub(top);
      if (!fs::exists(root))
        continue;
      for (const auto& entry : fs::recursive_directory_iterator(root)) {
        std::string name = std::string(top) + "/" + fs::relative(entry.path(), root).string();
        if (entry.is_directory())
          name += "/";
        names.push_back(name);
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  IsolatedResult Keel(const std::vector<std::string>& args) {
    std::vector<std::string> argv{m_tree->Sub("install/keelcli")};
    argv.insert(argv.end(), args.begin(), args.end());
    return keeltest::RunIsolated(
        argv, {"HOME=" + m_tree->Sub("home"), "USER=tester", "PATH=/usr/bin:/bin"},
        m_tree->Sub("work"), m_tree->Sub("scratch"));
  }

  // What a clear run prints from start to end.
  static std::string ClearConsole() {
    return std::string(kVersion) + "\r\n" + ProgressLine("Starting up KEEL Engine...", 1) +
           ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n";
  }

  // Log files of every kind of instruction, and the instruction files.
  void MakeLogTree() {
    for (const char* name : {"logs/app1.log", "logs/app2.LOG", "logs/app.txt", "logs/sub/app3.log",
                             "logs/appdir.log/inner.log", "logs/other.log", "logs/noclear.log",
                             "logs/refused.log", "logs/g1.txt", "logs/g2.txt", "dirlogs/d.log",
                             "dirlogs/deeper/e.log", "legacy/default.log", "legacy/optional.log"}) {
      ASSERT_TRUE(WriteFile(Data(name), std::string("content of ") + name + "\n"));
    }
    ASSERT_TRUE(WriteFile(m_tree->Sub("home/hlogs/h.log"), "home log\n"));
    ASSERT_TRUE(WriteFile(m_tree->Sub("home/hlogs/h.txt"), "home text\n"));
  }

  void AddLogConfigs() {
    AddConfig(
        "files.xml",
        Config(
            "Files",
            {Group("Logs", {Instruction("apps", true, FileAction(Data("logs/app*.log"), kClear)),
                            Instruction("other", false, FileAction(Data("logs/other.log"), kClear)),
                            Instruction("noclear", true, FileAction(Data("logs/noclear.log"), "")),
                            Instruction("applyfalse", true,
                                        FileAction(Data("logs/refused.log"),
                                                   "<clear_log apply=\"false\"/>")),
                            Instruction("newest", true,
                                        "<file_copy_action><action><loc gather_newest=\"true\">" +
                                            Data("logs/g*.txt") + "</loc>" + kClear +
                                            "</action></file_copy_action>"),
                            Instruction("home", true, FileAction("$HOME/hlogs/*.log", kClear)),
                            Instruction("folder", true,
                                        "<directory_copy_action><action><loc>" + Data("dirlogs") +
                                            "</loc><pattern>*.log</pattern></action>"
                                            "</directory_copy_action>")}),
             Group(kLegacyGroup, {Instruction("legacy-default", true,
                                              FileAction(Data("legacy/default.log"), kClear)),
                                  Instruction("legacy-optional", false,
                                              FileAction(Data("legacy/optional.log"), kClear))})}));
  }
};

const std::vector<std::string> kLeftAfterClearing = {
    "data/dirlogs/",
    "data/dirlogs/d.log",
    "data/dirlogs/deeper/",
    "data/dirlogs/deeper/e.log",
    "data/legacy/",
    "data/legacy/optional.log",
    "data/logs/",
    "data/logs/app.txt",
    "data/logs/appdir.log/",
    "data/logs/appdir.log/inner.log",
    "data/logs/noclear.log",
    "data/logs/other.log",
    "data/logs/refused.log",
    "data/logs/sub/",
    "data/logs/sub/app3.log",
};

TEST_F(ClearRun, RemovesExactlyTheMatchingFilesOfDefaultInstructions) {
  MakeLogTree();
  AddLogConfigs();
  const IsolatedResult run = Keel({"-clearlogs"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, ClearConsole());
  EXPECT_EQ(run.err, "");
  // Every match in the one folder went (in any case of the name, and all of
  // them for gather_newest); a file below it, a folder of a matching name,
  // files of other instructions and of a folder instruction stayed.
  EXPECT_EQ(Listing(), kLeftAfterClearing);
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("home/hlogs")), (std::vector<std::string>{"h.txt"}));
  // No working folder and no bundle.
  EXPECT_EQ(run.tmpListing, "");
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("home/Desktop")), std::vector<std::string>{});
}

TEST_F(ClearRun, LegacyOptionClearsNothingMore) {
  MakeLogTree();
  AddLogConfigs();
  const IsolatedResult alone = Keel({"-clearlogs"});
  EXPECT_EQ(alone.status, 0) << alone.err;
  const std::vector<std::string> afterAlone = Listing();
  EXPECT_EQ(afterAlone, kLeftAfterClearing);

  MakeLogTree();
  const IsolatedResult withLegacy = Keel({"-clearlogs", "-twlogs"});
  EXPECT_EQ(withLegacy.status, 0) << withLegacy.err;
  EXPECT_EQ(Listing(), afterAlone);
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("home/hlogs")), (std::vector<std::string>{"h.txt"}));
  // The clear run says nothing of the legacy logs either.
  EXPECT_EQ(withLegacy.out, ClearConsole());
}

TEST_F(ClearRun, ClearingCommandGetsTheRestOfItsLineAsOneArgument) {
  ArgvRecorder("reset.sh", Outside("reset.txt"));
  // Markers: none of these may run in a clear run.
  Script("collect.sh", "echo ran > '" + Outside("collect-ran") + "'\n");
  Script("refused.sh", "echo ran > '" + Outside("refused-ran") + "'\n");
  Script("optional.sh", "echo ran > '" + Outside("optional-ran") + "'\n");
  // The folder is translated; the clearing command line is taken as written.
  const std::string path = "<path>$HOME/../bin</path>";
  AddConfig(
      "programs.xml",
      Config(
          "Programs",
          {Group("Commands",
                 {Instruction("a-reset", true,
                              "<use_extern_action><action>" + path +
                                  "<args>collect.sh x</args><stdout/>"
                                  "<clear_log apply=\"true\">reset.sh --all  $HOME/x [USER] "
                                  "[BUNDLE_DIR]</clear_log>"
                                  "</action></use_extern_action>"),
                  Instruction("b-refused", true,
                              "<use_extern_action><action>" + path +
                                  "<clear_log apply=\"false\">refused.sh</clear_log>"
                                  "</action></use_extern_action>"),
                  Instruction("c-optional", false,
                              "<use_extern_action><action>" + path +
                                  "<clear_log apply=\"true\">optional.sh</clear_log>"
                                  "</action></use_extern_action>"),
                  // No program name at all: the folder itself cannot run.
                  Instruction("d-empty", true,
                              "<use_extern_action><action>" + path +
                                  "<clear_log apply=\"true\"/></action></use_extern_action>")})}));
  const IsolatedResult run = Keel({"-clearlogs"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, ClearConsole());
  EXPECT_EQ(ReadFile(Outside("reset.txt")), "argc=1\n[--all  $HOME/x [USER] [BUNDLE_DIR]]\n");
  EXPECT_EQ(Listing(), (std::vector<std::string>{"outside/reset.txt"}));
  EXPECT_EQ(run.tmpListing, "");
}

TEST_F(ClearRun, LocationsAreTakenApartAtTheirLastSlash) {
  for (const char* name : {"data/logs/a.log", "data/logs/b.txt", "work/w.log", "work/w.txt"})
    ASSERT_TRUE(WriteFile(m_tree->Sub(name), "x\n"));
  AddConfig("locs.xml",
            Config("Locations",
                   {Group("Locations",
                          {// A folder alone gives an empty pattern, which matches no name.
                           Instruction("a-folder", true, FileAction(Data("logs/"), kClear)),
                           // No folder at all: the pattern is taken as the folder too.
                           Instruction("b-bare", true, FileAction("*.log", kClear)),
                           // A relative folder is relative to where the tool runs.
                           Instruction("c-relative", true, FileAction("./*.txt", kClear))})}));
  const IsolatedResult run = Keel({"-clearlogs"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, ClearConsole());
  EXPECT_EQ(Listing(),
            (std::vector<std::string>{"data/logs/", "data/logs/a.log", "data/logs/b.txt"}));
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("work")), (std::vector<std::string>{"w.log"}));
}

TEST_F(ClearRun, NoInstructionFilesEndsWithTheInternalError) {
  const IsolatedResult run = Keel({"-clearlogs"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, std::string(kVersion) + "\r\n" +
                         ProgressLine("Starting up KEEL Engine...", 1) +
                         "\r\nInternal Error: no valid configuration XML found...\r\n");
  EXPECT_EQ(run.tmpListing, "");
}

}  // namespace
