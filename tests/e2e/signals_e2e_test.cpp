// Bundle runs ended or disturbed by signals and limits from outside: a
// pager that is quit, a signal other than the usual three, a storm of
// signals, a file-size limit, closed standard descriptors, a host that
// refuses threads. Whatever comes, the run either finishes or ends with
// 128 plus the signal number, and nothing of it stays in /tmp. Each run is
// in a private mount namespace (see E2eSupport.h).
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eInstructions.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kBundle[] = "/tmp/out/b.zip";

// Shell text that waits (at most a minute) until the run's program has
// written its pid, that is, until the run is at work.
const char kAwaitProgram[] =
    "n=0; while [ ! -s /opt/slow.pid ] && [ $n -lt 1200 ]; do sleep 0.05; n=$((n+1)); done; ";

// Shell text that tells whether the run's program is still alive (a zombie
// counts as ended).
const char kProgramAlive[] =
    "state=$(cut -d' ' -f3 /proc/$(cat /opt/slow.pid)/stat 2>/dev/null); "
    "[ -n \"$state\" ] && [ \"$state\" != Z ] && echo program still runs; ";

class SignalsRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home", "work", "out", "scratch", "src"}, "install/keelcli"));
    if (IsSkipped())
      return;
    chmod(m_tree->path().c_str(), 0755);
    ASSERT_TRUE(WriteFile(Src("a.log"), "alpha\n"));
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }
  // The tool as a terminal starts it: every signal at its default action
  // (a shell starts background commands with SIGINT and SIGQUIT ignored).
  std::string Keelcli() const {
    return "env --default-signal " + ShellQuote(m_tree->Sub("install/keelcli"));
  }

  void AddConfig(const std::string& instructions) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/signals.xml"),
                          InstructionFile("Signals", instructions)));
  }

  void AddScript(const std::string& name, const std::string& body) {
    ASSERT_TRUE(WriteFile(Src(name), "#!/bin/sh\n" + body + "\n"));
    chmod(Src(name).c_str(), 0755);
  }

  // A copy (and a folder copy when `withTree`), then a program that sleeps
  // `seconds`.
  void AddSlowRun(const std::string& seconds, bool withTree = true) {
    ASSERT_TRUE(WriteFile(Src("tree/sub/deep.log"), "deep\n"));
    AddScript("slow.sh", "echo $$ > /opt/slow.pid\nexec sleep " + seconds);
    AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))) +
              (withTree ? FileInstruction("b-tree", CopyFolder(Src("tree"))) : "") +
              FileInstruction("c-slow", Launch(m_tree->Sub("src"), "slow.sh")));
  }

  // Runs the shell text `script` in the namespace; /tmp/out is there.
  IsolatedResult Shell(const std::string& script, const std::string& inspect = "") {
    return keeltest::RunIsolated(
        {"/bin/sh", "-c", script}, {"HOME=" + m_tree->Sub("home"), "USER=tester"},
        m_tree->Sub("work"), m_tree->Sub("scratch"), "mkdir -m 1777 /tmp/out\n", inspect);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }
};

TEST_F(SignalsRun, PagerQuitInTheMiddleLeavesNoWorkingFolder) {
  ASSERT_NO_FATAL_FAILURE(AddSlowRun("1", false));
  // The reader takes the output until the program runs, then goes away,
  // as a pager does when it is quit; the run goes on writing to the pipe.
  const IsolatedResult run =
      Shell("{ " + Keelcli() + " -dst " + kBundle +
                "; echo $? > /opt/status; } | { cat > /dev/null & c=$!; " + kAwaitProgram +
                "kill $c; }; sleep 0; wait",
            "cat /opt/status; ls -A /tmp/out; unzip -Z1 /tmp/out/b.zip | sort");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ("0\nb.zip\na.log\nsummary.txt\n", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
}

// The tool is sent `signal` once its program runs.
class SignalledRun : public SignalsRun,
                     public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(SignalledRun, EndsLikeTermWithProgramsEndedAndNothingLeft) {
  ASSERT_NO_FATAL_FAILURE(AddSlowRun("30"));
  const IsolatedResult run = Shell(
      Keelcli() + " -dst " + kBundle + " & k=$!; " + kAwaitProgram + "kill -s " + GetParam().first +
          " $k; wait $k",
      std::string("test -s /opt/slow.pid && echo started; ") + kProgramAlive + "ls -A /tmp/out");
  EXPECT_EQ(128 + GetParam().second, run.status) << run.out << run.err;
  EXPECT_EQ("started\n", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
  EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalledRun,
                         ::testing::Values(std::make_pair("QUIT", 3), std::make_pair("USR1", 10),
                                           std::make_pair("ALRM", 14), std::make_pair("XCPU", 24),
                                           std::make_pair("PWR", 30),
                                           // A fault signal sent by another process.
                                           std::make_pair("SEGV", 11)));

TEST_F(SignalsRun, RealTimeSignalEndsLikeTerm) {
  ASSERT_NO_FATAL_FAILURE(AddSlowRun("30"));
  // 40 is a real-time signal whatever the C library reserves below it.
  const IsolatedResult run =
      Shell(Keelcli() + " -dst " + kBundle + " & k=$!; " + kAwaitProgram + "kill -40 $k; wait $k",
            std::string(kProgramAlive) + "ls -A /tmp/out");
  EXPECT_EQ(128 + 40, run.status) << run.out << run.err;
  EXPECT_EQ("", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
}

TEST_F(SignalsRun, StormOfSignalsEndsTheRunAndCleansUp) {
  // The program fills the tool's output pipe, which its reader leaves
  // unread for a while: the clean-up's first log line then waits for room,
  // and the storm goes on all that time.
  AddScript("slow.sh",
            "head -c 70000 /dev/zero | tr '\\0' x &\necho $$ > /opt/slow.pid\nexec sleep 30");
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))) +
            FileInstruction("b-slow", Launch(m_tree->Sub("src"), "slow.sh")));
  // Each kill sends its signal 500 times; the storm ends when the tool is
  // gone. A tool that hangs is killed after a minute (status 137).
  std::string targets;
  for (int i = 0; i < 500; ++i)
    targets += " $k";
  const IsolatedResult run =
      Shell("{ timeout -s KILL 60 " + Keelcli() + " -dst " + kBundle +
                "; echo $? > /opt/status; } | { sleep 6; cat > /dev/null; } & " + kAwaitProgram +
                // The program runs below a keeper, whose parent is the tool.
                "p=$(cut -d' ' -f4 /proc/$(cat /opt/slow.pid)/stat); "
                "k=$(cut -d' ' -f4 /proc/$p/stat); "
                "[ \"$(cat /proc/$k/comm)\" = keelcli ] || k=; "
                "while kill -0 $k 2>/dev/null && [ \"$(cut -d' ' -f3 /proc/$k/stat)\" != Z ]; do "
                "for s in TERM HUP INT TERM HUP INT TERM HUP INT TERM; do kill -s $s" +
                targets + " 2>/dev/null; done; done; wait",
            std::string("cat /opt/status; ") + kProgramAlive + "ls -A /tmp/out");
  const std::string status = Inspect().substr(0, 4);
  EXPECT_TRUE(status == "129\n" || status == "130\n" || status == "143\n") << Inspect();
  EXPECT_EQ(4u, Inspect().size()) << Inspect();
  EXPECT_EQ("out\n", run.tmpListing);
}

TEST_F(SignalsRun, FileSizeLimitIsReportedAndLeavesNothing) {
  ASSERT_TRUE(WriteFile(Src("big.log"), std::string(1 << 20, 'b')));
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))) +
            FileInstruction("b-big", CopyFile(Src("big.log"))));
  const IsolatedResult run =
      Shell("prlimit --fsize=262144 " + Keelcli() + " -dst " + kBundle,
            "ls -A /tmp/out; cp /tmp/out/b.zip " + ShellQuote(m_tree->Sub("out/b.zip")));
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("out\n", run.tmpListing);
  // The copy that passed the limit is left out with the system's reason.
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("b.zip\n", Inspect());
  const std::string summary = ZipEntry(m_tree->Sub("out/b.zip"), "summary.txt");
  // The reason is wrapped over the rows of its column; without the white
  // space it reads as one.
  std::string squeezed;
  for (char c : summary) {
    if (c != ' ' && c != '\n')
      squeezed += c;
  }
  EXPECT_NE(std::string::npos, squeezed.find("big.logErroroccurredwritingthecopy:Filetoolarge"))
      << summary;
}

TEST_F(SignalsRun, ClosedStandardInputAndOutputStillGiveABundle) {
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))));
  const IsolatedResult run = Shell(Keelcli() + " -dst " + kBundle + " <&- >&-",
                                   "ls -A /tmp/out; unzip -Z1 /tmp/out/b.zip | sort");
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ("b.zip\na.log\nsummary.txt\n", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
  EXPECT_EQ("", run.err);
}

TEST_F(SignalsRun, RefusedThreadGivesOneLineAndLeavesNothing) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  AddConfig(FileInstruction("a-alpha", CopyFile(Src("a.log"))));
  // As another user whose limit of processes allows no second thread.
  const IsolatedResult run = Shell(
      "setpriv --reuid 65534 --regid 65534 --clear-groups "
      "prlimit --nproc=1 " +
          Keelcli() + " -dst " + kBundle,
      "ls -A /tmp/out");
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find("\r\nInternal Error: failed to start a thread...\r\n"))
      << run.out;
  EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ("", Inspect());
  EXPECT_EQ("out\n", run.tmpListing);
}

}  // namespace
