// Copies from folders another user (uid 65534) controls, and from trees
// that are too deep or too long to be reached: root never copies what that
// user's links lead to outside the user's own files, a FIFO swapped in for
// a log never holds the run, a growing log is copied as it was when opened,
// and what cannot be reached is an omitted file with the system's reason.
// Each run is in a private mount namespace (see E2eSupport.h).
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eInstructions.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kSteered[] = " belongs to uid 0 but is reached through a folder or link of uid 65534";
const char kOpening[] = " Error occurred opening the file: ";

class TrustedPathsRun : public IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(
        MakeTree({"install/xml/config", "home", "work", "out", "scratch"}, "install/keelcli"));
    if (IsSkipped())
      return;
    chmod(m_tree->path().c_str(), 0755);
  }

  void AddConfig(const std::string& instructions) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/paths.xml"),
                          InstructionFile("Trusted Paths", instructions)));
  }

  std::string Keelcli() const { return m_tree->Sub("install/keelcli"); }
  std::string Bundle() const { return m_tree->Sub("out/b.zip"); }

  // Runs `command` (shell text; $KEEL is the tool) in the namespace.
  IsolatedResult Run(const std::string& command, const std::string& prepare,
                     const std::string& inspect = "", const std::string& tmpOptions = "") {
    return RunIsolated({"/bin/sh", "-c", "KEEL=" + ShellQuote(Keelcli()) + "; " + command},
                       {"HOME=" + m_tree->Sub("home"), "USER=tester"}, m_tree->Sub("work"),
                       m_tree->Sub("scratch"), prepare, inspect, tmpOptions);
  }

  std::string KeelToBundle() const {
    return "exec timeout -k 5 120 \"$KEEL\" -dst " + ShellQuote(Bundle());
  }

  std::string Summary() const { return ZipEntry(Bundle(), "summary.txt"); }

  void ExpectSummaryHolds(const std::string& text) {
    const std::string summary = Summary();
    EXPECT_NE(std::string::npos, Squeezed(summary).find(Squeezed(text))) << text << "\n" << summary;
  }
};

TEST_F(TrustedPathsRun, UsersLinksInACopiedFolderBringNothingOfRootsIn) {
  const std::string prepare =
      "mkdir -m 0700 /opt/private && echo ROOTSECRET > /opt/private/shadow && "
      "chmod 0600 /opt/private/shadow\n"
      "mkdir /tmp/user && chown 65534:65534 /tmp/user\n" +
      std::string(kAsNobody) +
      "sh -c 'echo mine > /tmp/user/app.log && mkdir /tmp/user/sub && "
      "echo ok > /tmp/user/sub/ok.log && ln -s /opt/private/shadow /tmp/user/shadow.log && "
      "ln -s /opt/private /tmp/user/door && "
      "ln -s ../../../opt/private/shadow /tmp/user/sub/rel.log'\n";
  AddConfig(FileInstruction("a-tree", CopyFolder("/tmp/user", "*")) +
            FileInstruction("b-files", CopyFile("/tmp/user/sub/*.log")));
  const IsolatedResult run = Run(KeelToBundle(), prepare);
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"app.log", "ok.log", "sub/ok.log", "summary.txt"}),
            SortedZipEntryNames(Bundle()));
  for (const std::string& name : SortedZipEntryNames(Bundle()))
    EXPECT_EQ(std::string::npos, ZipEntry(Bundle(), name).find("ROOTSECRET")) << name;
  ExpectSummaryHolds("/tmp/user/shadow.log" + std::string(kOpening) + "\"/\"" + kSteered);
  ExpectSummaryHolds("/tmp/user/door" + std::string(kOpening) + "\"/\"" + kSteered);
  ExpectSummaryHolds("/tmp/user/sub/rel.log" + std::string(kOpening) + "\"..\"" + kSteered);
  ExpectSummaryHolds("/tmp/user/sub/*.log" + std::string(kOpening) + "\"..\"" + kSteered);
}

TEST_F(TrustedPathsRun, FifoSwappedInForALogNeverHoldsTheRun) {
  // The other user's folder holds the log and a FIFO; that user swaps the
  // two back and forth, as fast as it can, while the run copies the log
  // 1000 times.
  const std::string folder = m_tree->Sub("swap");
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  ASSERT_TRUE(WriteFile(folder + "/app.log", "log\n"));
  ASSERT_EQ(0, mkfifo((folder + "/.pipe").c_str(), 0644));
  for (const std::string& path : {folder, folder + "/app.log", folder + "/.pipe"})
    ASSERT_EQ(0, chown(path.c_str(), keeltest::kNobody, keeltest::kNobody));
  const std::string log = folder + "/app.log";
  const std::string pipe = folder + "/.pipe";
  const pid_t swapper = fork();
  ASSERT_GE(swapper, 0);
  if (swapper == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(keeltest::kNobody) != 0 ||
        setuid(keeltest::kNobody) != 0)
      _exit(kCannotBecomeNobody);
    for (;;)
      syscall(SYS_renameat2, AT_FDCWD, log.c_str(), AT_FDCWD, pipe.c_str(), RENAME_EXCHANGE);
  }
  std::string instructions;
  for (int i = 0; i < 1000; ++i)
    instructions += FileInstruction("log" + std::to_string(1000 + i), CopyFile(log));
  AddConfig(instructions);
  const IsolatedResult run = Run("timeout -k 5 60 \"$KEEL\" -dst " + ShellQuote(Bundle()), "");
  kill(swapper, SIGKILL);
  int status = 0;
  ASSERT_EQ(swapper, waitpid(swapper, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status)) << "the swapper could not become uid 65534";
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  // Whatever was copied is the log; the last copy may have met the FIFO.
  const std::vector<std::string> names = SortedZipEntryNames(Bundle());
  if (std::find(names.begin(), names.end(), "app.log") != names.end()) {
    EXPECT_EQ("log\n", ZipEntry(Bundle(), "app.log"));
  }
}

TEST_F(TrustedPathsRun, LogGrowingDuringItsCopyIsCopiedAsItWasWhenOpened) {
  // 64 MiB of log; once its copy has begun, it grows by 8 GiB (without
  // taking room: a hole). /tmp has room for 96 MiB.
  const std::string grower =
      "import glob, os, time\n"
      "end = time.time() + 100\n"
      "open('/opt/grow/running', 'w').close()\n"
      "while not glob.glob('/tmp/KEEL_Temp_Bundle*/app.log') and time.time() < end:\n"
      "    pass\n"
      "os.truncate('/opt/grow/app.log', os.path.getsize('/opt/grow/app.log') + (8 << 30))\n";
  const std::string prepare =
      "mkdir /opt/grow && yes 0123456789abcdef | head -c 67108864 > /opt/grow/app.log\n"
      "/usr/bin/python3 -c " +
      ShellQuote(grower) + " > /dev/null 2>&1 & GROWER=$!\n" +
      "for i in $(seq 1000); do [ -e /opt/grow/running ] && break; sleep 0.01; done\n";
  AddConfig(FileInstruction("grow", CopyFile("/opt/grow/app.log")));
  const IsolatedResult run =
      Run(KeelToBundle(), prepare, "kill $GROWER 2>/dev/null; wait; stat -c %s /opt/grow/app.log",
          "size=96m");
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  // The log did grow during the run.
  EXPECT_EQ(std::to_string(67108864LL + (8LL << 30)) + "\n",
            ReadFile(m_tree->Sub("scratch/inspect.txt")));
  EXPECT_EQ((std::vector<std::string>{"app.log", "summary.txt"}), SortedZipEntryNames(Bundle()));
  std::string expected;
  while (expected.size() < 67108864u)
    expected += "0123456789abcdef\n";
  expected.resize(67108864u);
  const std::string copy = ZipEntry(Bundle(), "app.log");
  EXPECT_EQ(expected.size(), copy.size());
  EXPECT_TRUE(copy == expected);
}

TEST_F(TrustedPathsRun, TreesTooDeepOrTooLongToReachGiveOmittedFiles) {
  // One tree 120 folders deep, run with 64 descriptors; one whose path
  // passes PATH_MAX (20 names of 250 characters).
  const std::string prepare =
      "mkdir /tmp/deep && echo top > /tmp/deep/top.log && (cd /tmp/deep && "
      "for i in $(seq 120); do mkdir d && cd d || exit 1; done && echo deep > deep.log)\n"
      "mkdir /tmp/long && echo top > /tmp/long/top.log && (cd /tmp/long && "
      "n=$(printf '%0250d' 0) && for i in $(seq 20); do mkdir $n && cd $n || exit 1; done && "
      "echo far > far.log)\n";
  AddConfig(FileInstruction("deep", CopyFolder("/tmp/deep", "*.log")) +
            FileInstruction("long", CopyFolder("/tmp/long", "*.log")));
  const IsolatedResult run = Run("ulimit -n 64; " + KeelToBundle(), prepare);
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  const std::vector<std::string> names = SortedZipEntryNames(Bundle());
  EXPECT_EQ((std::vector<std::string>{"summary.txt", "top.log"}), names);
  ExpectSummaryHolds(std::string(kOpening) + "Too many open files");
  ExpectSummaryHolds(std::string(kOpening) + "File name too long");
}

TEST_F(TrustedPathsRun, HealthyTreesAreCopiedAsAlways) {
  // Root's tree with root's links, and a user's folder with the user's own
  // relative link: every file arrives, in the listing's order, and nothing
  // is omitted.
  const std::string prepare =
      "mkdir -p /opt/app/logs/sub/deeper && echo a > /opt/app/logs/a.log && "
      "echo b > /opt/app/logs/sub/b.log && echo c > /opt/app/logs/sub/deeper/c.txt && "
      "ln -s sub/b.log /opt/app/logs/current.log && ln -s sub/deeper /opt/app/logs/linked\n"
      "mkdir /tmp/user && chown 65534:65534 /tmp/user\n" +
      std::string(kAsNobody) +
      "sh -c 'echo mine > /tmp/user/app.log && ln -s app.log /tmp/user/current.txt'\n";
  AddConfig(FileInstruction("a-app", CopyFolder("/opt/app", "*")) +
            FileInstruction("b-user", CopyFile("/tmp/user/*")));
  const IsolatedResult run = Run(KeelToBundle(), prepare);
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
  EXPECT_EQ((std::vector<std::string>{"app.log", "current.txt", "logs/a.log", "logs/current.log",
                                      "logs/linked/c.txt", "logs/sub/b.log",
                                      "logs/sub/deeper/c.txt", "summary.txt"}),
            SortedZipEntryNames(Bundle()));
  EXPECT_EQ("b\n", ZipEntry(Bundle(), "logs/current.log"));
  EXPECT_EQ("mine\n", ZipEntry(Bundle(), "current.txt"));
  EXPECT_EQ(std::string::npos, Summary().find("Not Included")) << Summary();
}

}  // namespace
