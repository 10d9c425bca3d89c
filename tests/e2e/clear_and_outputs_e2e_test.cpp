// What another user (uid 65534) can put in the way of a root run of the
// real keelcli, in a private mount namespace (see E2eSupport.h): a cleared
// log folder swapped for a link to a folder of root's, once or in a loop
// while the run goes on; a link planted at a program's output file; a /tmp
// that fills while a program's output is written; and the bundle's
// destination folder, reached through that user's link or open to all
// users. Root's files stay as they were, nothing of theirs reaches the
// bundle, and the summary or the console says what was refused.
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eInstructions.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/CliTexts.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

std::string ClearableLogs(const std::string& loc) {
  return "<file_copy_action><action><loc>" + loc +
         "</loc><clear_log apply=\"true\"/></action></file_copy_action>";
}

// Shell text: the log files f0000.log to f<count-1>.log in `folder`.
std::string MakeLogs(const std::string& folder, int count) {
  return "cd " + ShellQuote(folder) + " && seq -f 'f%04g.log' 0 " + std::to_string(count - 1) +
         " | xargs touch && cd /\n";
}

class RootAgainstAnotherUser : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home/Desktop", "work", "out", "scratch", "src", "srv/user"},
        "install/keelcli"));
    if (IsSkipped())
      return;
    // The other user must be able to reach their own folder in the tree.
    chmod(m_tree->path().c_str(), 0755);
    chmod(m_tree->Sub("srv").c_str(), 0755);
    ASSERT_EQ(0, chown(User().c_str(), kNobody, kNobody));
    ASSERT_TRUE(WriteFile(Src("quiet.sh"), "#!/bin/sh\nexit 0\n"));
    ASSERT_TRUE(WriteFile(Src("hello.sh"), "#!/bin/sh\necho hello from the program\n"));
    ASSERT_TRUE(WriteFile(Src("big.sh"), "#!/bin/sh\nhead -c 3000000 /dev/zero | tr '\\0' x\n"));
    for (const char* name : {"quiet.sh", "hello.sh", "big.sh"})
      chmod(Src(name).c_str(), 0755);
    ASSERT_TRUE(WriteFile(Src("a.log"), "alpha log\n"));
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }
  std::string User() const { return m_tree->Sub("srv/user"); }

  void AddConfig(const std::string& instructions) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/outputs.xml"),
                          InstructionFile("Outputs", instructions)));
  }

  IsolatedResult Keel(const std::vector<std::string>& args, const std::string& prepare,
                      const std::string& inspect = "", const std::string& tmpOptions = "",
                      const std::string& home = "") {
    std::vector<std::string> argv{m_tree->Sub("install/keelcli")};
    argv.insert(argv.end(), args.begin(), args.end());
    return keeltest::RunIsolated(
        argv, {"HOME=" + (home.empty() ? m_tree->Sub("home") : home), "USER=tester"},
        m_tree->Sub("work"), m_tree->Sub("scratch"), prepare, inspect, tmpOptions);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }

  // The console of a healthy bundle run with one config to `location`.
  static std::string HealthyConsole(const std::string& location, bool custom) {
    return std::string(kVersion) + "Bundle option selected: " + (custom ? "custom" : "default") +
           "\r\nBundle location: " + location + "\r\n\r\n" +
           ProgressLine("Starting up KEEL Engine...", 1) +
           ProgressLine("Parsing request and configuration XMLs...", 1) +
           ProgressLine("Reading instructions ...", 4) +
           ProgressLine("Zipping the bundle, please wait...", 96) +
           ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n";
  }

  static std::string Refused(const std::string& location, const std::string& why) {
    return "\r\nInvalid bundle location: " + location + "\r\n" + why + "\r\n\r\n";
  }
};

typedef RootAgainstAnotherUser ClearingRun;
typedef RootAgainstAnotherUser ProgramOutputs;
typedef RootAgainstAnotherUser BundleFolder;

}  // namespace

// ---- clearing ------------------------------------------------------------------------

TEST_F(ClearingRun, FolderSwappedForALinkOfAnotherUserLeavesTheRootFolderAlone) {
  AddConfig(FileInstruction("logs", ClearableLogs(User() + "/logs/*.log")));
  const IsolatedResult run =
      Keel({"-clearlogs"},
           "mkdir -m 0700 /opt/rootlogs\n" + MakeLogs("/opt/rootlogs", 3) + kAsNobody +
               "ln -s /opt/rootlogs " + ShellQuote(User() + "/logs") + " || exit 94\n",
           "ls /opt/rootlogs");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("f0000.log\nf0001.log\nf0002.log\n", Inspect());
}

TEST_F(ClearingRun, FolderSwappedInALoopDuringTheRunLeavesTheRootFolderAlone) {
  // Every instruction clears the same folder, so that the swapping has
  // many chances to catch a listing or a deletion.
  std::string instructions;
  for (int i = 0; i < 10; ++i)
    instructions +=
        FileInstruction("logs" + std::to_string(i), ClearableLogs(User() + "/logs/*.log"));
  AddConfig(instructions);
  // The other user's folder holds their logs and their link to root's
  // folder of logs of the same names, and swaps the two at "logs" for as
  // long as the run lasts.
  const std::string swapper =
      "import os\n"
      "os.chdir(" +
      ShellQuote(User()) +
      ")\n"
      "first = True\n"
      "while True:\n"
      "    os.rename('logs', 'real')\n"
      "    os.rename('link', 'logs')\n"
      "    os.rename('logs', 'link')\n"
      "    os.rename('real', 'logs')\n"
      "    if first:\n"
      "        open('started', 'w').close()\n"
      "        first = False\n";
  const std::string started = ShellQuote(User() + "/started");
  const std::string prepare =
      "mkdir -m 0700 /opt/rootlogs\n" + MakeLogs("/opt/rootlogs", 2000) + kAsNobody + "sh -c " +
      ShellQuote("cd " + ShellQuote(User()) + " && mkdir logs && ln -s /opt/rootlogs link && " +
                 MakeLogs(User() + "/logs", 2000)) +
      " || exit 94\n"
      "cd " +
      ShellQuote(User()) + "\n" + kAsNobody + "/usr/bin/python3 -c " + ShellQuote(swapper) +
      " &\n"
      "swapper=$!\n"
      "cd /\n"
      "i=0; until [ -e " +
      started +
      " ] || [ $i -ge 1000 ]; do sleep 0.01; i=$((i+1)); done\n"
      "[ -e " +
      started + " ] || { kill $swapper; exit 95; }\n";
  const IsolatedResult run =
      Keel({"-clearlogs"}, prepare,
           "kill $swapper; wait $swapper 2>/dev/null; ls /opt/rootlogs | wc -l");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("2000\n", Inspect());
}

// ---- program output files ------------------------------------------------------

TEST_F(ProgramOutputs, ShellFormOutputPlantedAsALinkLeavesItsTargetAlone) {
  AddConfig(FileInstruction(
      "prog", ProgramWithOutput(m_tree->Sub("src"), "hello.sh", "/tmp/x_out.txt", true)));
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run =
      Keel({"-dst", bundle},
           "echo 'root only' > /opt/victim.txt && chmod 600 /opt/victim.txt\n" +
               std::string(kAsNobody) + "ln -s /opt/victim.txt /tmp/x_out.txt || exit 94\n",
           "cat /opt/victim.txt; readlink /tmp/x_out.txt");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("root only\n/opt/victim.txt\n", Inspect());
  EXPECT_EQ((std::vector<std::string>{"summary.txt"}), SortedZipEntryNames(bundle));
  const std::string summary = ZipEntry(bundle, "summary.txt");
  EXPECT_NE(std::string::npos,
            Squeezed(summary).find(Squeezed(
                "/tmp/x_out.txt Error occurred opening the file: a link stands at its name")))
      << summary;
}

TEST_F(ProgramOutputs, LaunchFormOutputPlantedAsALinkIsNotCopied) {
  AddConfig(FileInstruction(
      "prog", ProgramWithOutput(m_tree->Sub("src"), "quiet.sh", "/tmp/x_out.txt", false)));
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run =
      Keel({"-dst", bundle},
           "echo 'root only' > /opt/victim.txt && chmod 600 /opt/victim.txt\n" +
               std::string(kAsNobody) + "ln -s /opt/victim.txt /tmp/x_out.txt || exit 94\n",
           "cat /opt/victim.txt; readlink /tmp/x_out.txt");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("root only\n/opt/victim.txt\n", Inspect());
  EXPECT_EQ((std::vector<std::string>{"summary.txt"}), SortedZipEntryNames(bundle));
  const std::string summary = ZipEntry(bundle, "summary.txt");
  EXPECT_EQ(std::string::npos, summary.find("root only")) << summary;
  EXPECT_NE(std::string::npos, Squeezed(summary).find(Squeezed(
                                   "KEEL cannot access temporary output at: "
                                   "/tmp/x_out.txt as specified by Config Error returned:")))
      << summary;
}

TEST_F(ProgramOutputs, OutputCutByAFullTmpIsOmittedWithTheSystemsWords) {
  AddConfig(
      FileInstruction("big", ProgramWithOutput(m_tree->Sub("src"), "big.sh", "big.txt", true)) +
      FileInstruction("small", CopyFile(Src("a.log"))));
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run = Keel({"-dst", bundle}, "", "", "size=1m");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"a.log", "summary.txt"}), SortedZipEntryNames(bundle));
  const std::string summary = ZipEntry(bundle, "summary.txt");
  EXPECT_NE(std::string::npos,
            Squeezed(summary).find(
                Squeezed("/big.txt Error occurred writing the output: No space left on device")))
      << summary;
}

// ---- the destination folder ------------------------------------------------------

TEST_F(BundleFolder, FolderLinkOfAnotherUserIsRefusedAndNothingIsWrittenBehindIt) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  const IsolatedResult run = Keel({"-dst", "/tmp/reports/x.zip"},
                                  "mkdir -m 0700 /opt/rootonly\n" + std::string(kAsNobody) +
                                      "ln -s /opt/rootonly /tmp/reports || exit 94\n",
                                  "ls -A /opt/rootonly");
  EXPECT_EQ(1, run.status) << run.err;
  EXPECT_EQ(std::string(kVersion) + "Bundle option selected: custom\r\n", run.out);
  EXPECT_EQ(Refused("/tmp/reports/x.zip",
                    "The destination folder is reached through a link or folder of another user."),
            run.err);
  EXPECT_EQ("", Inspect());
}

TEST_F(BundleFolder, DesktopLinkOfTheHomesUserIsRefusedOnADefaultRun) {
  // A home kept by sudo -E: its user made Desktop a link to root's folder.
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  const std::string home = User() + "/home";
  const IsolatedResult run =
      Keel({},
           "mkdir -m 0700 /opt/rootonly\n" + std::string(kAsNobody) + "sh -c " +
               ShellQuote("mkdir " + ShellQuote(home) + " && ln -s /opt/rootonly " +
                          ShellQuote(home + "/Desktop")) +
               " || exit 94\n",
           "ls -A /opt/rootonly", "", home);
  EXPECT_EQ(1, run.status) << run.err;
  const std::regex refusal(
      "\r\nInvalid bundle location: " + home +
      "/Desktop/KEELBundle_\\d{4}_\\d{4}\\.zip\r\nThe destination folder is reached through a "
      "link or folder of another user\\.\r\n\r\n");
  EXPECT_TRUE(std::regex_match(run.err, refusal)) << run.err;
  EXPECT_EQ("", Inspect());
}

TEST_F(BundleFolder, FolderEveryoneMayWriteWithoutTheStickyBitIsRefused) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  const IsolatedResult run =
      Keel({"-dst", "/tmp/shared/x.zip"}, "mkdir -m 0777 /tmp/shared\n", "ls -A /tmp/shared");
  EXPECT_EQ(1, run.status) << run.err;
  EXPECT_EQ(std::string(kVersion) + "Bundle option selected: custom\r\n", run.out);
  EXPECT_EQ(Refused("/tmp/shared/x.zip",
                    "Other users can write to the destination folder and "
                    "could replace the bundle after the run."),
            run.err);
  EXPECT_EQ("", Inspect());
}

TEST_F(BundleFolder, HealthyFoldersStillTakeTheBundle) {
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  // A shared folder with the sticky bit, as /tmp.
  IsolatedResult run = Keel({"-dst", "/tmp/shared/x.zip"}, "mkdir -m 1777 /tmp/shared\n",
                            "cp /tmp/shared/x.zip " + ShellQuote(m_tree->Sub("scratch/x.zip")));
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ(HealthyConsole("/tmp/shared/x.zip", true), run.out);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(ZipEntry(m_tree->Sub("scratch/x.zip"), "a.log"), "alpha log\n");

  // The Desktop of a home kept by sudo -E, a folder of that home's user.
  const std::string home = User() + "/home";
  ASSERT_EQ(0, mkdir(home.c_str(), 0755));
  ASSERT_EQ(0, mkdir((home + "/Desktop").c_str(), 0755));
  ASSERT_EQ(0, chown(home.c_str(), kNobody, kNobody));
  ASSERT_EQ(0, chown((home + "/Desktop").c_str(), kNobody, kNobody));
  run = Keel({}, "", "", "", home);
  ASSERT_EQ(0, run.status) << run.err;
  const std::vector<std::string> desktop = ListDir(home + "/Desktop");
  ASSERT_EQ(1u, desktop.size());
  const std::string bundle = home + "/Desktop/" + desktop[0];
  EXPECT_EQ(HealthyConsole(bundle, false), run.out);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(ZipEntry(bundle, "a.log"), "alpha log\n");
}
