// Bundle runs whose programs leave helpers behind them in a session of
// their own (a double fork and setsid), as a daemon does: nothing a program
// started outlives the program's run, the tool's interruption, or the tool
// killed outright, and a helper that keeps a command's output open does not
// hold the run. Each run is in a private mount namespace (see E2eSupport.h)
// and, inside it, a private PID namespace whose first process is a shell
// that starts keelcli and then looks for what is left: the helpers are
// found by their script's path in their command line.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/ProcessMarkers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kFinished[] = "KEEL has finished... ";

// How long a shell step may wait for something that should come at once;
// a hang guard, never a measure.
const char kPatience[] = "600";  // rounds of 0.05 s

class ContainedPrograms : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(
        MakeTree({"install/xml/config", "home", "work", "out", "scratch", "launch", "shell"},
                 "install/keelcli"));
  }

  std::string Keelcli() const { return m_tree->Sub("install/keelcli"); }
  std::string Out(const std::string& name) const { return m_tree->Sub("out/" + name); }

  // A program in folder `folder` named starter.sh: it starts a helper that
  // leaves its session, waits until the helper runs, then runs `rest`.
  // The helper holds the program's standard output unless `quiet`.
  void Starter(const std::string& folder, const std::string& rest, bool quiet = true) {
    const std::string path = m_tree->Sub(folder + "/starter.sh");
    ASSERT_TRUE(WriteFile(
        path, "#!/bin/sh\n" + StartSessionLeavingHelper(m_tree->Sub(folder), quiet) + rest + "\n"));
    chmod(path.c_str(), 0755);
  }

  // One default instruction holding `actions` for Linux.
  void Config(const std::string& actions) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/programs.xml"),
                          "<?xml version=\"1.0\"?>\n<config><configure><title>Programs</title>"
                          "</configure><fileGroup treeRootName=\"Programs\"><title>Programs"
                          "</title>\n<file id=\"programs\"><description>programs</description>"
                          "<default>true</default><keel><os opsys=\"linux\">" +
                              actions + "</os></keel></file>\n</fileGroup></config>\n"));
  }

  // The launch form of starter.sh in `folder`.
  std::string Launched(const std::string& folder) const {
    return "<use_extern_action><action><path>" + m_tree->Sub(folder) +
           "</path><args>starter.sh</args></action></use_extern_action>";
  }

  // The shell form of starter.sh in `folder`, its output in `output`.
  std::string Captured(const std::string& folder, const std::string& output) const {
    return "<use_extern_action><action><path>" + m_tree->Sub(folder) +
           "</path><args>starter.sh</args><temp_out>" + output +
           "</temp_out><stdout/></action></use_extern_action>";
  }

  // Shell text that writes the command lines of the helpers still running
  // into out/left.txt.
  std::string ListLeft() const {
    return "for p in /proc/[0-9]*; do c=$(tr '\\0' ' ' < $p/cmdline 2>/dev/null); case \"$c\" in "
           "'sh " +
           m_tree->path() + "/'*'/helper.sh ') echo \"$c\";; esac; done > '" + Out("left.txt") +
           "'\n";
  }

  // Shell text that waits (with a hang guard) until `path` exists.
  static std::string AwaitFile(const std::string& path) {
    return std::string("n=0; while [ ! -e '") + path + "' ] && [ $n -lt " + kPatience +
           " ]; do sleep 0.05; n=$((n+1)); done\n";
  }

  // Runs `script` as the first process of a private PID namespace, in the
  // private mount namespace of the end-to-end tests; $KEEL is keelcli.
  IsolatedResult InPidNamespace(const std::string& script) {
    return keeltest::RunIsolated(
        {"unshare", "--pid", "--fork", "--mount-proc", "sh", "-c",
         "KEEL='" + Keelcli() + "'\n" + script},
        {"HOME=" + m_tree->Sub("home"), "USER=tester", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"},
        m_tree->Sub("work"), m_tree->Sub("scratch"));
  }
};

TEST_F(ContainedPrograms, HelpersThatLeaveTheSessionAreGoneWhenTheRunEnds) {
  // The launched program ends at once; the captured command's helper keeps
  // the command's standard output open for as long as it runs.
  ASSERT_NO_FATAL_FAILURE(Starter("launch", "exit 0"));
  ASSERT_NO_FATAL_FAILURE(Starter("shell", "echo done", false));
  ASSERT_NO_FATAL_FAILURE(Config(Launched("launch") + Captured("shell", "shell.txt")));
  const std::string bundle = Out("b.zip");
  // `timeout` is the hang guard: without it a helper holding the output
  // would hold the run for ever.
  const IsolatedResult run = InPidNamespace("timeout 120 \"$KEEL\" -dst '" + bundle + "'\ns=$?\n" +
                                            ListLeft() + "exit $s\n");
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_TRUE(PathExists(m_tree->Sub("launch/helper.ready")));
  EXPECT_TRUE(PathExists(m_tree->Sub("shell/helper.ready")));
  const std::string shell = ZipEntry(bundle, "shell.txt");
  EXPECT_EQ("done\n", shell.substr(shell.size() >= 5 ? shell.size() - 5 : 0)) << shell;
  EXPECT_EQ("", ReadFile(Out("left.txt")));
  EXPECT_EQ("", run.tmpListing);
  KillProcessesWithMarker(m_tree->path() + "/");
}

TEST_F(ContainedPrograms, TermOfTheToolEndsTheHelpersOfItsPrograms) {
  ASSERT_NO_FATAL_FAILURE(Starter("launch", "exec sleep 120"));
  ASSERT_NO_FATAL_FAILURE(Config(Launched("launch")));
  const IsolatedResult run =
      InPidNamespace("\"$KEEL\" -dst '" + Out("b.zip") + "' & k=$!\n" +
                     AwaitFile(m_tree->Sub("launch/helper.ready")) +
                     "kill -TERM $k\nwait $k\ns=$?\n" + ListLeft() + "exit $s\n");
  EXPECT_EQ(128 + 15, run.status) << run.out << run.err;
  EXPECT_TRUE(PathExists(m_tree->Sub("launch/helper.ready")));
  EXPECT_EQ("", ReadFile(Out("left.txt")));
  EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
  KillProcessesWithMarker(m_tree->path() + "/");
}

TEST_F(ContainedPrograms, ToolKilledOutrightLeavesNoProgramAndTheNextRunWorks) {
  // The second run finds the mark and ends its program at once.
  const std::string second = Out("second");
  ASSERT_NO_FATAL_FAILURE(Starter("launch", "[ -e '" + second + "' ] && exit 0\nexec sleep 120"));
  ASSERT_NO_FATAL_FAILURE(Config(Launched("launch")));
  const IsolatedResult run =
      InPidNamespace("\"$KEEL\" -dst '" + Out("first.zip") + "' & k=$!\n" +
                     AwaitFile(m_tree->Sub("launch/helper.ready")) +
                     "kill -KILL $k\nwait $k\n"
                     // What the tool started ends after it, not with it: wait for that,
                     // with a hang guard.
                     "n=0; while [ $n -lt " +
                     kPatience + " ]; do\n" + ListLeft() + "  [ -s '" + Out("left.txt") +
                     "' ] || break; sleep 0.05; n=$((n+1))\ndone\n"
                     "touch '" +
                     second + "'\ntimeout 120 \"$KEEL\" -dst '" + Out("second.zip") + "'\n");
  EXPECT_TRUE(PathExists(m_tree->Sub("launch/helper.ready")));
  EXPECT_EQ("", ReadFile(Out("left.txt")));
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"summary.txt"}), SortedZipEntryNames(Out("second.zip")));
  KillProcessesWithMarker(m_tree->path() + "/");
}

}  // namespace
