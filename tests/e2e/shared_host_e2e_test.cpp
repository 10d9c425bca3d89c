// Bundle runs on a host shared with other users, tried as a hostile local
// user (uid 65534) would, and runs that fail or are interrupted: the run
// never adopts a folder or follows a link that user prepared, never lets
// that user read root's copies, never passes a cut copy or summary off as
// whole, and leaves nothing behind when a signal ends it. Each run is in a
// private mount namespace (see E2eSupport.h).
#include <sys/stat.h>
#include <time.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eInstructions.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

class SharedHostRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home", "work", "out", "scratch", "src"}, "install/keelcli"));
    if (IsSkipped())
      return;
    // The other user must be able to reach what the tests let them try.
    chmod(m_tree->path().c_str(), 0755);
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }
  std::string Keelcli() const { return m_tree->Sub("install/keelcli"); }

  void AddConfig(const std::string& instructions) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/shared.xml"),
                          InstructionFile("Shared Host", instructions)));
  }

  void AddScript(const std::string& name, const std::string& body) {
    ASSERT_TRUE(WriteFile(Src(name), "#!/bin/sh\n" + body + "\n"));
    chmod(Src(name).c_str(), 0755);
  }

  IsolatedResult Run(const std::vector<std::string>& argv, const std::string& prepare = "",
                     const std::string& inspect = "", const std::string& tmpOptions = "") {
    return keeltest::RunIsolated(argv, {"HOME=" + m_tree->Sub("home"), "USER=tester"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"), prepare, inspect,
                                 tmpOptions);
  }

  IsolatedResult Keel(const std::string& bundle, const std::string& prepare = "",
                      const std::string& inspect = "", const std::string& tmpOptions = "") {
    return Run({Keelcli(), "-dst", bundle}, prepare, inspect, tmpOptions);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }
};

// The fresh names a run started within the next half minute would have
// taken when the number came from rand() seeded with the clock, in local
// time and in UTC (the namespace has no time zone file).
std::vector<std::string> ClockPredictedNames() {
  std::set<std::string> names;
  const time_t now = time(nullptr);
  for (time_t second = now - 2; second < now + 30; ++second) {
    srand(static_cast<unsigned>(second));
    const int number = rand() % 100000;
    struct tm parts[2];
    localtime_r(&second, &parts[0]);
    gmtime_r(&second, &parts[1]);
    for (const struct tm& when : parts) {
      char name[96];
      snprintf(name, sizeof(name), "/tmp/KEEL_Temp_Bundle__%02d%02d_%02d%02d_%d", when.tm_mon + 1,
               when.tm_mday, when.tm_hour, when.tm_min, number);
      names.insert(name);
    }
  }
  return std::vector<std::string>(names.begin(), names.end());
}

TEST_F(SharedHostRun, FreshNamesPreparedByAnotherUserAreNeverAdopted) {
  ASSERT_TRUE(WriteFile(Src("secret.log"), "root only\n"));
  chmod(Src("secret.log").c_str(), 0600);
  AddConfig(FileInstruction("secret", CopyFile(Src("secret.log"))));
  // Every predicted name, half as a world-writable folder and half as a
  // link to one, each holding a summary.txt link to a file of root's.
  std::string prepare = "echo precious > /opt/victim.txt\n";
  const std::vector<std::string> names = ClockPredictedNames();
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string name = ShellQuote(names[i]);
    if (i % 2 == 0) {
      prepare += kAsNobody + std::string("mkdir -m 0777 ") + name + "\n";
    } else {
      const std::string trap = "/tmp/trap" + std::to_string(i);
      prepare += kAsNobody + std::string("mkdir -m 0777 ") + trap + "\n" + kAsNobody + "ln -s " +
                 trap + " " + name + "\n";
      prepare += kAsNobody + std::string("ln -s /opt/victim.txt ") + trap + "/summary.txt\n";
      continue;
    }
    prepare += kAsNobody + std::string("ln -s /opt/victim.txt ") + name + "/summary.txt\n";
  }
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run =
      Keel(bundle, prepare,
           "cat /opt/victim.txt; find /tmp/trap* /tmp/KEEL_Temp_Bundle_* -mindepth 1 "
           "! -name summary.txt 2>/dev/null; true");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("precious\n", Inspect());
  EXPECT_EQ((std::vector<std::string>{"secret.log", "summary.txt"}),
            keeltest::SortedZipEntryNames(bundle));
}

TEST_F(SharedHostRun, PlainNameLinkedToAFolderLeavesThatFolderAlone) {
  ASSERT_TRUE(WriteFile(Src("a.log"), "alpha\n"));
  AddConfig(FileInstruction("alpha", CopyFile(Src("a.log"))));
  const std::string prepare =
      "mkdir /opt/victim && echo precious > /opt/victim/keep.txt && echo more > "
      "/opt/victim/more.txt\n" +
      std::string(kAsNobody) + "ln -s /opt/victim /tmp/KEEL_Temp_Bundle\n";
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run = Keel(bundle, prepare,
                                  "cat /opt/victim/keep.txt /opt/victim/more.txt; "
                                  "readlink /tmp/KEEL_Temp_Bundle");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("precious\nmore\n/opt/victim\n", Inspect());
  EXPECT_EQ((std::vector<std::string>{"a.log", "summary.txt"}),
            keeltest::SortedZipEntryNames(bundle));
}

TEST_F(SharedHostRun, CopiesAndBundleStayUnreadableToOtherUsersDuringAndAfterTheRun) {
  ASSERT_TRUE(WriteFile(Src("secret.log"), "root only\n"));
  chmod(Src("secret.log").c_str(), 0600);
  ASSERT_TRUE(WriteFile(Src("tree/sub/deep.log"), "deep\n"));
  chmod(Src("tree/sub/deep.log").c_str(), 0600);
  // Run by the tool in the middle of the run: tries, as the other user,
  // every file in every working folder.
  AddScript("probe.sh",
            "for f in /tmp/KEEL_Temp_Bundle*/* /tmp/KEEL_Temp_Bundle*/*/*; do\n"
            "  [ -f \"$f\" ] || continue\n"
            "  echo \"seen $(basename \"$f\")\" >> /opt/probe.txt\n"
            "  " +
                std::string(kAsNobody) +
                "cat \"$f\" > /dev/null 2>&1 && echo \"READ $f\" >> /opt/probe.txt\n"
                "done\nexit 0");
  // Instructions run in the order of their ids: the probe comes last.
  AddConfig(FileInstruction("a-secret", CopyFile(Src("secret.log"))) +
            FileInstruction("b-tree", CopyFolder(Src("tree"))) +
            FileInstruction("c-probe", Launch(m_tree->Sub("src"), "probe.sh")));
  const IsolatedResult run =
      Run({"/bin/sh", "-c", "umask 022; exec " + ShellQuote(Keelcli()) + " -dst /tmp/out/b.zip"},
          "mkdir -m 0755 /tmp/out\n",
          "cat /opt/probe.txt; stat -c %a /tmp/out/b.zip; " + std::string(kAsNobody) +
              "cat /tmp/out/b.zip > /dev/null 2>&1 && echo READ BUNDLE; "
              "for f in $(find /tmp/KEEL_Temp_Bundle* -type f 2>/dev/null); do " +
              kAsNobody + "cat \"$f\" > /dev/null 2>&1 && echo \"READ LEFT $f\"; done; true");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  // The probe saw the copies and the summary (so it ran during the run)
  // and read none of them.
  EXPECT_EQ("seen secret.log\nseen summary.txt\nseen deep.log\n600\n", Inspect());
}

TEST_F(SharedHostRun, CopyThatFillsTmpIsOmittedWithTheSystemsWords) {
  ASSERT_TRUE(WriteFile(Src("big.log"), std::string(3 << 20, 'b')));
  ASSERT_TRUE(WriteFile(Src("small.log"), "small\n"));
  AddConfig(FileInstruction("big", CopyFile(Src("big.log"))) +
            FileInstruction("small", CopyFile(Src("small.log"))));
  const std::string bundle = m_tree->Sub("out/b.zip");
  const IsolatedResult run = Keel(bundle, "", "", "size=1m");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"small.log", "summary.txt"}),
            keeltest::SortedZipEntryNames(bundle));
  // The reason is wrapped over the rows of its column; without the white
  // space it reads as one.
  const std::string summary = keeltest::ZipEntry(bundle, "summary.txt");
  EXPECT_NE(std::string::npos,
            Squeezed(summary).find(Squeezed(
                Src("big.log") + " Error occurred writing the copy: No space left on device")))
      << summary;
  EXPECT_NE(std::string::npos,
            summary.find("No instruction found in any config for the following file ID's"))
      << summary;
}

TEST_F(SharedHostRun, SummaryThatCannotBeWrittenWholeGivesNoBundle) {
  // Copies sized to leave /tmp with a little or no room: whatever the size,
  // the run either makes a bundle whose summary is whole and whose copies
  // are whole, or makes none and says so in one line.
  ASSERT_TRUE(WriteFile(Src("small.log"), "small\n"));
  int withoutBundle = 0;
  for (int pagesLeft = 3; pagesLeft >= 0; --pagesLeft) {
    const size_t size = (1u << 20) - static_cast<size_t>(pagesLeft) * 4096;
    ASSERT_TRUE(WriteFile(Src("fill.log"), std::string(size, 'f')));
    AddConfig(FileInstruction("fill", CopyFile(Src("fill.log"))) +
              FileInstruction("small", CopyFile(Src("small.log"))));
    const std::string bundle = m_tree->Sub("out/b" + std::to_string(pagesLeft) + ".zip");
    const IsolatedResult run = Keel(bundle, "", "", "size=1m");
    ASSERT_EQ(0, run.status) << run.err;
    if (keeltest::PathExists(bundle)) {
      EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
      const std::string summary = keeltest::ZipEntry(bundle, "summary.txt");
      EXPECT_NE(std::string::npos,
                summary.find("No instruction found in any config for the following file ID's"))
          << pagesLeft << summary;
      for (const std::string& name : keeltest::SortedZipEntryNames(bundle)) {
        if (name != "summary.txt") {
          EXPECT_EQ(ReadFile(Src(name)), keeltest::ZipEntry(bundle, name)) << name;
        }
      }
    } else {
      ++withoutBundle;
      EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
      EXPECT_NE(std::string::npos,
                run.out.find("\r\nInternal Error: failed to write the bundle summary...\r\n"))
          << run.out;
    }
    EXPECT_EQ("", run.tmpListing);
  }
  EXPECT_GT(withoutBundle, 0) << "no size left the summary without room";
}

// Starts a run whose program sleeps, sends `signalName` to the tool once
// the program has started, and reports what is left.
class InterruptedRun : public SharedHostRun, public ::testing::WithParamInterface<const char*> {};

TEST_P(InterruptedRun, EndsTheProgramsAndRemovesTheWorkingFolder) {
  ASSERT_TRUE(WriteFile(Src("a.log"), "alpha\n"));
  ASSERT_TRUE(WriteFile(Src("tree/sub/deep.log"), "deep\n"));
  AddScript("slow.sh", "echo $$ > /opt/slow.pid\nexec sleep 30");
  // The copies, a sub-folder among them, are made before the program starts.
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))) +
            FileInstruction("b-tree", CopyFolder(Src("tree"))) +
            FileInstruction("c-slow", Launch(m_tree->Sub("src"), "slow.sh")));
  const IsolatedResult run = Run(
      {"timeout", "--preserve-status", "-s", GetParam(), "4", Keelcli(), "-dst", "/tmp/out/b.zip"},
      "mkdir /tmp/out\n",
      "test -s /opt/slow.pid && echo started; "
      // A killed program may stay a zombie for a moment: that counts as ended.
      "state=$(cut -d' ' -f3 /proc/$(cat /opt/slow.pid)/stat 2>/dev/null); "
      "[ -n \"$state\" ] && [ \"$state\" != Z ] && echo program still runs; ls -A /tmp/out");
  const int expected = 128 + (std::string(GetParam()) == "INT" ? 2 : 15);
  EXPECT_EQ(expected, run.status) << run.out << run.err;
  EXPECT_EQ("started\n", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
  EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
}

INSTANTIATE_TEST_SUITE_P(Signals, InterruptedRun, ::testing::Values("INT", "TERM"));

TEST_F(SharedHostRun, ProgramsReadNothingFromTheToolsInput) {
  AddScript("readin.sh", "read line; echo \"got [$line]\" > /opt/readin.txt");
  AddConfig(FileInstruction("shell", ProgramWithOutput("/bin", "cat", "cat.txt", true)) +
            FileInstruction("launch", Launch(m_tree->Sub("src"), "readin.sh")));
  const std::string bundle = m_tree->Sub("out/b.zip");
  // The tool's input is a pipe that stays open and never says anything.
  const IsolatedResult run =
      Run({"/bin/sh", "-c",
           "mkfifo /tmp/in && exec 3<>/tmp/in && timeout 60 " + ShellQuote(Keelcli()) + " -dst " +
               ShellQuote(bundle) + " <&3; s=$?; rm -f /tmp/in; exit $s"},
          "", "cat /opt/readin.txt");
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("got []\n", Inspect());
  EXPECT_EQ((std::vector<std::string>{"cat.txt", "summary.txt"}),
            keeltest::SortedZipEntryNames(bundle));
}

TEST_F(SharedHostRun, TwoRunsStartedTogetherKeepTheirOwnFiles) {
  ASSERT_TRUE(WriteFile(Src("a.log"), "alpha\n"));
  ASSERT_TRUE(WriteFile(Src("b.log"), "beta\n"));
  // Each run holds its copy in its working folder for a second, so that
  // the two runs are at work together.
  AddScript("pause.sh", "sleep 1");
  const std::string pause = FileInstruction("b-pause", Launch(m_tree->Sub("src"), "pause.sh"));
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))) + pause);
  fs::create_directories(m_tree->Sub("second/xml/config"));
  fs::copy_file(Keelcli(), m_tree->Sub("second/keelcli"));
  chmod(m_tree->Sub("second/keelcli").c_str(), 0755);
  ASSERT_TRUE(WriteFile(
      m_tree->Sub("second/xml/config/shared.xml"),
      InstructionFile("Shared Host", FileInstruction("a-beta", CopyFile(Src("b.log"))) + pause)));
  const std::string first = m_tree->Sub("out/a.zip");
  const std::string second = m_tree->Sub("out/b.zip");
  const IsolatedResult run = Run({"/bin/sh", "-c",
                                  ShellQuote(Keelcli()) + " -dst " + ShellQuote(first) + " & " +
                                      ShellQuote(m_tree->Sub("second/keelcli")) + " -dst " +
                                      ShellQuote(second) + " & wait"});
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ((std::vector<std::string>{"a.log", "summary.txt"}),
            keeltest::SortedZipEntryNames(first));
  EXPECT_EQ((std::vector<std::string>{"b.log", "summary.txt"}),
            keeltest::SortedZipEntryNames(second));
}

}  // namespace
