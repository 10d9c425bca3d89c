#include "Common/IPC/ProcessAPI_unix.h"

#include <errno.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/IPC/event.h"
#include "Common/IPC/event_testsupport.h"
#include "Common/Utility/sysutils.h"
#include "tests/support/FakeDiskHost.h"
#include "tests/support/ProcessMarkers.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::ProcAt;

using ipctest::NewEvent;
using keeltest::LogCapture;
using keeltest::MillisSince;
using keeltest::TempDir;

using keeltest::NoChildLeft;
using keeltest::WriteScript;

using keeltest::RunInChild;

// Launches `argv` with attributes whose folder is `path` and waits for it.
struct Outcome {
  ResultCode launch = 0;
  ResultCode wait = 0;
  int32_t exitCode = -100;
};

Outcome LaunchAndWait(ProcessAttributes& attributes, const std::vector<const char*>& argv) {
  CProcessApi api;
  Outcome outcome;
  outcome.launch = api.Launch(attributes, argv);
  if (outcome.launch == 0 && attributes.pid > 0)
    outcome.wait = api.WaitForProcess(attributes.pid, &outcome.exitCode, nullptr, false, 10000);
  return outcome;
}

// Waits up to five seconds for `path` to exist with some content.
bool WaitForFile(const std::string& path) {
  for (int i = 0; i < 500; ++i) {
    const std::string content = keeltest::ReadFile(path);
    if (content != "<missing>" && !content.empty())
      return true;
    usleep(10000);
  }
  return false;
}

// ---------------------------------------------------------------- Launch

TEST(ProcessApiLaunch, EmptyArgumentListIsRefused) {
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.pid = 99;
  EXPECT_EQ(api.Launch(attributes, std::vector<const char*>{}), PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_EQ(attributes.pid, 0);
  attributes.pid = 99;
  EXPECT_EQ(api.Launch(attributes, std::vector<const char*>{nullptr, "x"}),
            PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_EQ(attributes.pid, 0);
  EXPECT_EQ(api.Launch(attributes, static_cast<const char*>(nullptr)),
            PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, AttributesStartEmpty) {
  ProcessAttributes attributes;
  EXPECT_FALSE(attributes.runAsUser);
  EXPECT_EQ(attributes.path, nullptr);
  EXPECT_EQ(attributes.workDir, nullptr);
  EXPECT_EQ(attributes.display, nullptr);
  EXPECT_FALSE(attributes.verifySignature);
  EXPECT_EQ(attributes.userName, nullptr);
  EXPECT_EQ(attributes.environment, nullptr);
  EXPECT_FALSE(attributes.detached);
  EXPECT_EQ(attributes.pid, 0);
  EXPECT_EQ(attributes.signatureInputs.minimumKeyBits, 2048u);
}

TEST(ProcessApiLaunch, ExitZeroGivesResultZeroAndExitCodeZero) {
  TempDir dir;
  WriteScript(dir, "ok.sh", "exit 0");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"ok.sh"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, ExitSevenGivesResultZeroAndExitCodeSeven) {
  TempDir dir;
  WriteScript(dir, "seven.sh", "exit 7");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"seven.sh"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 7);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, LaunchSetsThePidOfTheChild) {
  // The child is the program's keeper, whose child the program is.
  TempDir dir;
  WriteScript(dir, "pid.sh", "echo $PPID > \"$1\"");
  const std::string out = dir.Sub("pid.txt");
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  ASSERT_EQ(api.Launch(attributes, "pid.sh", out.c_str(), nullptr), 0u);
  ASSERT_GT(attributes.pid, 0);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 10000), 0u);
  EXPECT_EQ(keeltest::ReadFile(out), std::to_string(attributes.pid) + "\n");
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, VariadicFormPassesEachArgument) {
  TempDir dir;
  WriteScript(dir, "args.sh", "printf '%s|' \"$#\" \"$1\" \"$2\" > \"$3\"");
  const std::string out = dir.Sub("args.txt");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  CProcessApi api;
  // A blank inside one argument stays inside it.
  ASSERT_EQ(api.Launch(attributes, "args.sh", "-a -b", "", out.c_str(), nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 10000), 0u);
  EXPECT_EQ(exitCode, 0);
  EXPECT_EQ(keeltest::ReadFile(out), "3|-a -b||");
}

TEST(ProcessApiLaunch, FolderAndNameAreJoinedWithSlash) {
  TempDir dir;
  WriteScript(dir, "sub/tool.sh", "exit 4");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  // The name may itself hold a folder: it is simply appended.
  const Outcome outcome = LaunchAndWait(attributes, {"sub/tool.sh"});
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 4);
}

TEST(ProcessApiLaunch, EmptyFolderRunsFromTheRootOfTheFileSystem) {
  ProcessAttributes attributes;
  attributes.path = "";
  // "" + "/" + "bin/sh" is "/bin/sh".
  const Outcome outcome = LaunchAndWait(attributes, {"bin/sh", "-c", "exit 5"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 5);
}

TEST(ProcessApiLaunch, EmptyFolderNeverSearchesPath) {
  ProcessAttributes attributes;
  attributes.path = "";
  // "sh" is on PATH, but "/sh" does not exist.
  const Outcome outcome = LaunchAndWait(attributes, {"sh", "-c", "exit 5"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, PROCESS_API_EXIT_NOT_FOUND);
}

TEST(ProcessApiLaunch, NoFolderSearchesPath) {
  ProcessAttributes attributes;
  const Outcome outcome = LaunchAndWait(attributes, {"sh", "-c", "exit 6"});
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 6);
}

TEST(ProcessApiLaunch, MissingProgramEndsWith238) {
  TempDir dir;
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"no-such-program", ""});
  // The start itself succeeds; only the child's exit code tells.
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 238);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, ProgramThatCannotBeExecutedEndsWith239) {
  TempDir dir;
  keeltest::WriteFile(dir.Sub("plain.txt"), "not a program\n");
  chmod(dir.Sub("plain.txt").c_str(), 0644);
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"plain.txt"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, 239);
}

TEST(ProcessApiLaunch, ChildEntersTheWorkingFolder) {
  TempDir dir;
  keeltest::WriteFile(dir.Sub("work/.keep"), "");
  WriteScript(dir, "pwd.sh", "pwd > \"$1\"");
  const std::string out = dir.Sub("pwd.txt");
  const std::string work = dir.Sub("work");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  attributes.workDir = work.c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"pwd.sh", out.c_str()});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(keeltest::ReadFile(out), work + "\n");
}

TEST(ProcessApiLaunch, MissingWorkingFolderIsIgnored) {
  TempDir dir;
  WriteScript(dir, "pwd.sh", "pwd > \"$1\"");
  const std::string out = dir.Sub("pwd.txt");
  const std::string missing = dir.Sub("missing");
  char here[4096];
  ASSERT_NE(getcwd(here, sizeof(here)), nullptr);
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  attributes.workDir = missing.c_str();
  const Outcome outcome = LaunchAndWait(attributes, {"pwd.sh", out.c_str()});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(keeltest::ReadFile(out), std::string(here) + "\n");
}

TEST(ProcessApiLaunch, EnvironmentEntriesReachOnlyTheChild) {
  TempDir dir;
  WriteScript(dir, "env.sh", "printf '%s|%s' \"$KEELTEST_ONE\" \"$KEELTEST_TWO\" > \"$1\"");
  const std::string out = dir.Sub("env.txt");
  const char* entries[] = {"KEELTEST_ONE=alpha", "KEELTEST_TWO=beta gamma", nullptr};
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  attributes.environment = entries;
  const Outcome outcome = LaunchAndWait(attributes, {"env.sh", out.c_str()});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(keeltest::ReadFile(out), "alpha|beta gamma");
  EXPECT_EQ(getenv("KEELTEST_ONE"), nullptr);
}

TEST(ProcessApiLaunch, RunAsUserWithoutUserNameChangesNothing) {
  TempDir dir;
  WriteScript(dir, "who.sh",
              "printf '%s|%s|%s' \"$(/usr/bin/id -u)\" \"$KEELTEST_MARKER\" "
              "\"${DISPLAY-unset}\" > \"$1\"");
  const std::string out = dir.Sub("who.txt");
  setenv("KEELTEST_MARKER", "kept", 1);
  unsetenv("DISPLAY");
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  attributes.runAsUser = true;
  attributes.display = ":9";
  const Outcome outcome = LaunchAndWait(attributes, {"who.sh", out.c_str()});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.exitCode, 0);
  // Same user, environment untouched, no display entries.
  EXPECT_EQ(keeltest::ReadFile(out), std::to_string(getuid()) + "|kept|unset");
  unsetenv("KEELTEST_MARKER");
}

TEST(ProcessApiLaunch, UnknownUserMakesTheChildEndWith255) {
  LogCapture capture;
  ProcessAttributes attributes;
  attributes.runAsUser = true;
  attributes.userName = "keel-no-such-user";
  const Outcome outcome = LaunchAndWait(attributes, {"/bin/sh", "-c", "exit 0"});
  EXPECT_EQ(outcome.launch, 0u);
  EXPECT_EQ(outcome.wait, 0u);
  EXPECT_EQ(outcome.exitCode, PROCESS_API_EXIT_SETUP_FAILED);
  EXPECT_EQ(outcome.exitCode, 255);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, UnknownUserWithDisplayIsRefusedBeforeAnyChild) {
  LogCapture capture;
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.runAsUser = true;
  attributes.userName = "keel-no-such-user";
  attributes.display = ":0";
  EXPECT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exit 0", nullptr),
            PROCESS_API_ERROR_NO_USER_TOKEN);
  EXPECT_EQ(attributes.pid, 0);
  EXPECT_TRUE(capture.Contains("Invoked Function: getpwnam\n"));
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, UserWithDisplayGetsOnlyTheTwoDisplayEntries) {
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr || getuid() != 0)
    GTEST_SKIP() << "needs root and the account nobody";
  const uid_t nobodyUid = nobody->pw_uid;
  const std::string home =
      nobody->pw_dir != nullptr && nobody->pw_dir[0] != '\0' ? nobody->pw_dir : std::string("/");
  TempDir dir;
  chmod(dir.path().c_str(), 0755);
  WriteScript(dir, "env.sh", "{ /usr/bin/id -u; /usr/bin/env; } > \"$1\"");
  keeltest::WriteFile(dir.Sub("out/.keep"), "");
  chmod(dir.Sub("out").c_str(), 0777);
  const std::string out = dir.Sub("out/env.txt");
  setenv("KEELTEST_MARKER", "kept", 1);

  ProcessAttributes attributes;
  attributes.path = "/bin";
  attributes.runAsUser = true;
  attributes.userName = "nobody";
  attributes.display = ":7";
  const std::string script = dir.Sub("env.sh");
  const Outcome outcome = LaunchAndWait(attributes, {"sh", script.c_str(), out.c_str()});
  unsetenv("KEELTEST_MARKER");
  ASSERT_EQ(outcome.launch, 0u);
  ASSERT_EQ(outcome.exitCode, 0);

  const std::string text = keeltest::ReadFile(out);
  EXPECT_EQ(text.substr(0, text.find('\n')), std::to_string(nobodyUid));
  EXPECT_NE(text.find("\nDISPLAY=:7\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nXAUTHORITY=" + home + "/.Xauthority\n"), std::string::npos) << text;
  // Nothing of the caller's environment survives.
  EXPECT_EQ(text.find("KEELTEST_MARKER"), std::string::npos) << text;
  EXPECT_EQ(text.find("VTC_LOGGING_OUTPUT"), std::string::npos) << text;
  EXPECT_EQ(text.find("\nHOME="), std::string::npos) << text;
}

TEST(ProcessApiLaunch, UserWithoutHomeFolderGetsXauthorityAtTheRoot) {
  char name[] = "keeltest";
  char display[] = ":3";
  passwd entry{};
  entry.pw_name = name;
  char emptyHome[] = "";
  entry.pw_dir = emptyHome;
  char displayEntry[256];
  char xauthorityEntry[4096];
  CProcessApi::BuildDisplayEnvironment(entry, display, displayEntry, xauthorityEntry);
  EXPECT_STREQ(displayEntry, "DISPLAY=:3");
  EXPECT_STREQ(xauthorityEntry, "XAUTHORITY=//.Xauthority");

  entry.pw_dir = nullptr;
  CProcessApi::BuildDisplayEnvironment(entry, display, displayEntry, xauthorityEntry);
  EXPECT_STREQ(xauthorityEntry, "XAUTHORITY=//.Xauthority");

  char home[] = "/home/keeltest";
  entry.pw_dir = home;
  CProcessApi::BuildDisplayEnvironment(entry, display, displayEntry, xauthorityEntry);
  EXPECT_STREQ(xauthorityEntry, "XAUTHORITY=/home/keeltest/.Xauthority");
}

TEST(ProcessApiLaunch, DisplayEntryIsCutToItsBuffer) {
  passwd entry{};
  char home[] = "/h";
  entry.pw_dir = home;
  const std::string display(600, 'd');
  char displayEntry[256];
  char xauthorityEntry[4096];
  CProcessApi::BuildDisplayEnvironment(entry, display.c_str(), displayEntry, xauthorityEntry);
  EXPECT_EQ(std::string(displayEntry), "DISPLAY=" + std::string(255 - 8, 'd'));
}

TEST(ProcessApiLaunch, DetachedStartLeavesNothingToCollect) {
  TempDir dir;
  WriteScript(dir, "late.sh", "echo done > \"$1\"");
  const std::string out = dir.Sub("late.txt");
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  attributes.detached = true;
  ASSERT_EQ(api.Launch(attributes, "late.sh", out.c_str(), nullptr), 0u);
  EXPECT_EQ(attributes.pid, 0);
  // The intermediate child was collected by Launch; the program itself is
  // nobody's child of ours.
  EXPECT_TRUE(NoChildLeft());
  EXPECT_TRUE(WaitForFile(out));
  EXPECT_EQ(keeltest::ReadFile(out), "done\n");
}

class RecordingVerifier : public IFileSignatureVerifier {
 public:
  explicit RecordingVerifier(ResultCode answer) : m_answer(answer) {}
  ResultCode VerifyFileSignature(const char* file, const SignatureCheckInputs& inputs) override {
    m_files.push_back(file);
    m_keyBits = inputs.minimumKeyBits;
    return m_answer;
  }
  std::vector<std::string> m_files;
  uint32_t m_keyBits = 0;

 private:
  ResultCode m_answer;
};

TEST(ProcessApiLaunch, SignatureCheckWithoutCheckerIsRefused) {
  LogCapture capture;
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.verifySignature = true;
  EXPECT_EQ(api.Launch(attributes, "/bin/true", nullptr), PROCESS_API_ERROR_BAD_HANDLE);
  EXPECT_EQ(attributes.pid, 0);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, SignatureRefusalIsLoggedAndReturned) {
  LogCapture capture;
  CProcessApi api;
  RecordingVerifier verifier(PROCESS_API_ERROR_UNKNOWN);
  ASSERT_EQ(api.SetFileVerifier(&verifier), 0u);
  ProcessAttributes attributes;
  attributes.path = "/usr/bin";
  attributes.verifySignature = true;
  EXPECT_EQ(api.Launch(attributes, "true", nullptr), PROCESS_API_ERROR_UNKNOWN);
  EXPECT_EQ(attributes.pid, 0);
  ASSERT_EQ(verifier.m_files.size(), 1u);
  EXPECT_EQ(verifier.m_files[0], "/usr/bin/true");
  EXPECT_EQ(verifier.m_keyBits, 2048u);
  EXPECT_TRUE(capture.Contains("Invoked Function: VerifyFileSignature IsValid\n"));
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiLaunch, SignatureCheckOfAShellJudgesTheScript) {
  TempDir dir;
  const std::string script = WriteScript(dir, "s.sh", "exit 3");
  CProcessApi api;
  RecordingVerifier verifier(0);
  ASSERT_EQ(api.SetFileVerifier(&verifier), 0u);
  for (const char* shell : {"sh", "bash"}) {
    ProcessAttributes attributes;
    attributes.path = "/bin";
    attributes.verifySignature = true;
    ASSERT_EQ(api.Launch(attributes, shell, script.c_str(), nullptr), 0u);
    int32_t exitCode = -1;
    EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 10000), 0u);
    EXPECT_EQ(exitCode, 3);
  }
  EXPECT_EQ(verifier.m_files, (std::vector<std::string>{script, script}));
}

TEST(ProcessApiLaunch, SetFileVerifierRefusesNull) {
  CProcessApi api;
  EXPECT_EQ(api.SetFileVerifier(nullptr), PROCESS_API_ERROR_BAD_PARAMETER);
}

// ---------------------------------------------------------------- Wait

TEST(ProcessApiWait, TimeoutZeroReturnsAtOnceWithoutCollecting) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exit 0", nullptr), 0u);
  // Wait until the child has ended, leaving it uncollected.
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, attributes.pid, &info, WEXITED | WNOWAIT), 0);
  int32_t exitCode = -5;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 0),
            PROCESS_API_ERROR_WAIT_TIMEOUT);
  EXPECT_EQ(exitCode, 1);
  // Still there to collect: WaitForProcess did not call waitpid.
  int status = 0;
  EXPECT_EQ(waitpid(attributes.pid, &status, WNOHANG), attributes.pid);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, InfiniteWaitWithoutStopEventBlocksUntilTheEnd) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "sleep 0.2; exit 3", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(
      api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, PROCESS_API_WAIT_INFINITE), 0u);
  EXPECT_EQ(exitCode, 3);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, InfiniteWaitOnAProcessThatIsNoChildFails) {
  LogCapture capture;
  CProcessApi api;
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(getpid(), &exitCode, nullptr, false, PROCESS_API_WAIT_INFINITE),
            PROCESS_API_ERROR_UNKNOWN);
  EXPECT_EQ(exitCode, 1);
}

TEST(ProcessApiWait, PollingWaitOnAProcessThatIsNoChildLogsTheErrnoText) {
  LogCapture capture;
  CProcessApi api;
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(getpid(), &exitCode, nullptr, false, 1000),
            PROCESS_API_ERROR_UNKNOWN);
  EXPECT_EQ(capture.Count("\nwaitpid failed: No child processes"), 1u);
}

TEST(ProcessApiWait, TimeRunningOutGivesWaitTimeout) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exec sleep 30", nullptr), 0u);
  int32_t exitCode = -1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 100),
            PROCESS_API_ERROR_WAIT_TIMEOUT);
  const uint32_t elapsed = MillisSince(start);
  EXPECT_GE(elapsed, 95u);
  EXPECT_LT(elapsed, 2000u);
  EXPECT_EQ(exitCode, 1);
  EXPECT_EQ(api.PollProcess(attributes.pid), 0u);  // still running
  EXPECT_EQ(api.KillProcess(attributes.pid), 0u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, EndByASignalGivesWaitTimeout) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "kill -9 $$", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 10000),
            PROCESS_API_ERROR_WAIT_TIMEOUT);
  EXPECT_EQ(exitCode, 1);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, EndByASignalInABlockingWaitGivesWaitTimeout) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "kill -15 $$", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(
      api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, PROCESS_API_WAIT_INFINITE),
      PROCESS_API_ERROR_WAIT_TIMEOUT);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, ExitCodeMayBeNull) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exit 2", nullptr), 0u);
  EXPECT_EQ(api.WaitForProcess(attributes.pid, nullptr, nullptr, false, 10000), 0u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, StopEventThatFiredInterruptsTheWait) {
  const auto stop = NewEvent();
  ASSERT_EQ(stop->SetEvent(), 0u);
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exec sleep 30", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, stop.get(), false, 10000),
            PROCESS_API_ERROR_WAIT_INTERRUPTED);
  EXPECT_EQ(api.PollProcess(attributes.pid), 0u);
  EXPECT_EQ(api.KillProcess(attributes.pid), 0u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiWait, StopEventThatStaysQuietLetsTheProcessEnd) {
  const auto stop = NewEvent();
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "sleep 0.1; exit 9", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, stop.get(), false, 10000), 0u);
  EXPECT_EQ(exitCode, 9);
  EXPECT_TRUE(NoChildLeft());
}

// ---------------------------------------------------------------- Poll / Kill

TEST(ProcessApiPoll, RunningThenCollectedThenUnknown) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exec sleep 30", nullptr), 0u);
  EXPECT_EQ(api.PollProcess(attributes.pid), 0u);
  ASSERT_EQ(kill(attributes.pid, SIGKILL), 0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, attributes.pid, &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(api.PollProcess(attributes.pid), PROCESS_API_ERROR_NOTRUNNING);
  EXPECT_EQ(api.PollProcess(attributes.pid), PROCESS_API_ERROR_UNKNOWN);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiPoll, PollOfIdZeroWithoutChildrenIsUnknown) {
  CProcessApi api;
  ASSERT_TRUE(NoChildLeft());
  EXPECT_EQ(api.PollProcess(0), PROCESS_API_ERROR_UNKNOWN);
}

TEST(ProcessApiKill, KillEndsASleepingChildAndCollectsIt) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exec sleep 30", nullptr), 0u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(api.KillProcess(attributes.pid), 0u);
  EXPECT_LT(MillisSince(start), 5000u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiKill, KillOfAProcessThatIsGoneIsUnknown) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exit 0", nullptr), 0u);
  ASSERT_EQ(api.WaitForProcess(attributes.pid, nullptr, nullptr, false, 10000), 0u);
  EXPECT_EQ(api.KillProcess(attributes.pid), PROCESS_API_ERROR_UNKNOWN);
}

TEST(ProcessApiKill, KillRefusesGroupIds) {
  LogCapture capture;
  CProcessApi api;
  EXPECT_EQ(api.KillProcess(0), PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_EQ(api.KillProcess(-1), PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(capture.Contains("Refusing to signal process id 0"));
}

TEST(ProcessApiKill, NoChildIsLeftAfterEveryWayOfCollecting) {
  TempDir dir;
  CProcessApi api;
  std::vector<int32_t> pids;
  for (int i = 0; i < 3; ++i) {
    ProcessAttributes attributes;
    ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", i == 2 ? "exec sleep 30" : "exit 1", nullptr),
              0u);
    pids.push_back(attributes.pid);
  }
  EXPECT_EQ(api.WaitForProcess(pids[0], nullptr, nullptr, false, PROCESS_API_WAIT_INFINITE), 0u);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, pids[1], &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(api.PollProcess(pids[1]), PROCESS_API_ERROR_NOTRUNNING);
  EXPECT_EQ(api.KillProcess(pids[2]), 0u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiKill, CollectedOrForeignPidIsNeverSignalled) {
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exit 0", nullptr), 0u);
  ASSERT_EQ(api.WaitForProcess(attributes.pid, nullptr, nullptr, false, 10000), 0u);
  // A live process this object never launched stands for one that took
  // over a collected number.
  const pid_t other = fork();
  if (other == 0) {
    pause();
    _exit(0);
  }
  ASSERT_GT(other, 0);
  EXPECT_EQ(api.KillProcess(attributes.pid), PROCESS_API_ERROR_UNKNOWN);
  EXPECT_EQ(api.KillProcess(other), PROCESS_API_ERROR_UNKNOWN);
  int status = 0;
  EXPECT_EQ(0, waitpid(other, &status, WNOHANG)) << "a process the object never launched ended";
  kill(other, SIGKILL);
  waitpid(other, &status, 0);
}

TEST(ProcessApiKill, KillEndsWhatTheProgramStartedInAnotherSession) {
  TempDir dir;
  WriteScript(dir, "starter.sh", keeltest::StartSessionLeavingHelper(dir.path()) + "exec sleep 60");
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  ASSERT_EQ(api.Launch(attributes, "starter.sh", nullptr), 0u);
  // Until the helper runs, then stop the program.
  for (int i = 0; i < 1000 && !keeltest::PathExists(dir.Sub("helper.ready")); ++i)
    usleep(10000);
  ASSERT_TRUE(keeltest::PathExists(dir.Sub("helper.ready")));
  EXPECT_EQ(api.KillProcess(attributes.pid), 0u);
  EXPECT_TRUE(keeltest::ProcessesWithMarker(dir.Sub("helper.sh")).empty());
  EXPECT_TRUE(NoChildLeft());
  keeltest::KillProcessesWithMarker(dir.Sub("helper.sh"));
}

TEST(ProcessApiWait, HelperInAnotherSessionEndsWithTheProgram) {
  TempDir dir;
  WriteScript(dir, "starter.sh", keeltest::StartSessionLeavingHelper(dir.path()) + "exit 3");
  CProcessApi api;
  ProcessAttributes attributes;
  attributes.path = dir.path().c_str();
  ASSERT_EQ(api.Launch(attributes, "starter.sh", nullptr), 0u);
  int32_t exitCode = -1;
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, nullptr, false, 20000), 0u);
  // The program's own status comes through its keeper.
  EXPECT_EQ(3, exitCode);
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("helper.ready")));
  EXPECT_TRUE(keeltest::ProcessesWithMarker(dir.Sub("helper.sh")).empty());
  keeltest::KillProcessesWithMarker(dir.Sub("helper.sh"));
}

// ---------------------------------------------------------------- /proc

TEST(ProcessApiProc, ExePathIsReadFromTheLink) {
  TempDir dir;
  keeltest::WriteFile(dir.Sub("123/.keep"), "");
  ASSERT_EQ(symlink("/usr/bin/thing", dir.Sub("123/exe").c_str()), 0);
  CProcessApi api;
  char buffer[64];
  EXPECT_EQ(api.ReadProcessExePath(123, buffer, sizeof(buffer), ProcAt(dir)), 0u);
  EXPECT_STREQ(buffer, "/usr/bin/thing");
  // Cut at the buffer's last place.
  char small[5];
  EXPECT_EQ(api.ReadProcessExePath(123, small, sizeof(small), ProcAt(dir)), 0u);
  EXPECT_STREQ(small, "/usr");
  char exact[15];
  EXPECT_EQ(api.ReadProcessExePath(123, exact, sizeof(exact), ProcAt(dir)), 0u);
  EXPECT_STREQ(exact, "/usr/bin/thing");
}

TEST(ProcessApiProc, ExePathFailures) {
  TempDir dir;
  keeltest::WriteFile(dir.Sub("5/exe"), "a plain file");
  CProcessApi api;
  char buffer[64];
  EXPECT_EQ(api.ReadProcessExePath(4, buffer, sizeof(buffer), ProcAt(dir)),
            PROCESS_API_ERROR_PROCESS_NOT_FOUND);
  EXPECT_EQ(api.ReadProcessExePath(5, buffer, sizeof(buffer), ProcAt(dir)),
            PROCESS_API_ERROR_UNEXPECTED);
  EXPECT_EQ(api.ReadProcessExePath(5, nullptr, 10, ProcAt(dir)), PROCESS_API_ERROR_BAD_PARAMETER);
  EXPECT_EQ(api.ReadProcessExePath(5, buffer, 0, ProcAt(dir)), PROCESS_API_ERROR_BAD_PARAMETER);
}

TEST(ProcessApiProc, ExePathOfThisProcess) {
  CProcessApi api;
  char buffer[4096];
  ASSERT_EQ(api.ReadProcessExePath(getpid(), buffer, sizeof(buffer)), 0u);
  char expected[4096];
  const ssize_t length = readlink("/proc/self/exe", expected, sizeof(expected) - 1);
  ASSERT_GT(length, 0);
  expected[length] = '\0';
  EXPECT_STREQ(buffer, expected);
}

TEST(ProcessApiProc, RunnableStatesAreRunningSleepingAndDiskWait) {
  TempDir dir;
  CProcessApi api;
  const char* const lines[] = {"1 (a) R 0", "2 (b) S 0", "3 (c) D 0", "4 (d) Z 0",
                               "5 (e) T 0", "6 (f) I 0", "7 (g) X 0"};
  const bool expected[] = {true, true, true, false, false, false, false};
  for (int i = 0; i < 7; ++i) {
    keeltest::WriteFile(dir.Sub(std::to_string(i + 1) + "/stat"), lines[i]);
    EXPECT_EQ(api.IsProcessRunnable(i + 1, ProcAt(dir)), expected[i]) << lines[i];
  }
}

TEST(ProcessApiProc, StatWithoutStateIsNotRunnable) {
  TempDir dir;
  CProcessApi api;
  keeltest::WriteFile(dir.Sub("1/stat"), "1 no parenthesis S 0");
  keeltest::WriteFile(dir.Sub("2/stat"), "2 (cut)");
  keeltest::WriteFile(dir.Sub("3/stat"), "3 (cut) ");
  keeltest::WriteFile(dir.Sub("4/stat"), "");
  for (int pid = 1; pid <= 5; ++pid)
    EXPECT_FALSE(api.IsProcessRunnable(pid, ProcAt(dir))) << pid;
}

TEST(ProcessApiProc, StateIsReadBehindTheFirstParenthesis) {
  TempDir dir;
  CProcessApi api;
  // A name holding ")" is not handled: the first ")" counts.
  keeltest::WriteFile(dir.Sub("1/stat"), "1 (a) Z) R 0");
  keeltest::WriteFile(dir.Sub("2/stat"), "2 (a) R) Z 0");
  EXPECT_FALSE(api.IsProcessRunnable(1, ProcAt(dir)));
  EXPECT_TRUE(api.IsProcessRunnable(2, ProcAt(dir)));
}

TEST(ProcessApiProc, ThisProcessIsRunnable) {
  CProcessApi api;
  EXPECT_TRUE(api.IsProcessRunnable(getpid()));
}

// ---------------------------------------------------------------- Priority

TEST(ProcessApiPriority, SetGivesTheOldPriorityBack) {
  errno = 0;
  const int before = getpriority(PRIO_PROCESS, 0);
  ASSERT_EQ(errno, 0);
  if (before >= 19)
    GTEST_SKIP() << "already at the lowest priority";
  CProcessApi api;
  int32_t priority = before + 1;
  EXPECT_EQ(api.SetThreadPriority(&priority), 0u);
  EXPECT_EQ(priority, before);
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before + 1);
  EXPECT_EQ(api.SetThreadPriority(nullptr), PROCESS_API_ERROR_BAD_PARAMETER);
}

TEST(ProcessApiPriority, RefusedChangeIsLoggedAsWarning) {
  if (getuid() != 0)
    GTEST_SKIP() << "needs root to drop privileges";
  const int answer = keeltest::RunAsNobody([] {
    LogCapture capture;
    CProcessApi api;
    int32_t priority = -10;  // raising priority needs privileges
    if (api.SetThreadPriority(&priority) != PROCESS_API_ERROR_SET_THREAD_PRIORITY_FAILED)
      return 11;
    if (priority != -10)
      return 12;
    const auto records = capture.logger().Records();
    if (records.size() != 1 || records[0].level != LOG_LEVEL_W ||
        records[0].message.find("Invoked Function: setpriority\n") == std::string::npos)
      return 13;
    return 0;
  });
  EXPECT_EQ(answer, 0);
}

// ---------------------------------------------------------------- Threads

TEST(ProcessApiConcurrency, StopEventSetFromAnotherThreadInterruptsTheWait) {
  const auto stop = NewEvent();
  CProcessApi api;
  ProcessAttributes attributes;
  ASSERT_EQ(api.Launch(attributes, "/bin/sh", "-c", "exec sleep 30", nullptr), 0u);
  std::thread setter([&stop] {
    usleep(100000);
    stop->SetEvent();
  });
  int32_t exitCode = -1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(api.WaitForProcess(attributes.pid, &exitCode, stop.get(), false, 20000),
            PROCESS_API_ERROR_WAIT_INTERRUPTED);
  EXPECT_LT(MillisSince(start), 10000u);
  setter.join();
  EXPECT_EQ(api.KillProcess(attributes.pid), 0u);
  EXPECT_TRUE(NoChildLeft());
}

TEST(ProcessApiConcurrency, SeveralThreadsLaunchAndWaitAtOnce) {
  constexpr int kThreads = 4;
  std::vector<int32_t> codes(kThreads, -1);
  std::vector<ResultCode> results(kThreads, 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &codes, &results] {
      CProcessApi api;
      ProcessAttributes attributes;
      const std::string command = "sleep 0.1; exit " + std::to_string(10 + i);
      ResultCode result = api.Launch(attributes, "/bin/sh", "-c", command.c_str(), nullptr);
      if (result == 0)
        result = api.WaitForProcess(attributes.pid, &codes[i], nullptr, false, 20000);
      results[i] = result;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(results[i], 0u) << i;
    EXPECT_EQ(codes[i], 10 + i) << i;
  }
  EXPECT_TRUE(NoChildLeft());
}

}  // namespace

// ---------------------------------------------------------------- Inheritance

namespace {

// Launches /bin/sh -c `script` (writing to `out`) from a child whose
// standard input is an open pipe and which holds a pipe without
// close-on-exec, and returns what the script wrote.
std::string LaunchedWithOpenInputPipe(const std::string& script, const std::string& out) {
  const int answer = RunInChild([&] {
    int input[2];
    int leaked[2];
    if (pipe(input) != 0 || pipe(leaked) != 0)
      return 3;
    dup2(input[0], STDIN_FILENO);
    ProcessAttributes attributes;
    attributes.path = "/bin";
    const std::string command = script + " > " + out;
    const Outcome outcome = LaunchAndWait(attributes, {"sh", "-c", command.c_str()});
    return outcome.launch == 0 && outcome.wait == 0 ? 0 : 1;
  });
  return answer == 0 ? keeltest::ReadFile(out) : "<failed>";
}

}  // namespace

TEST(ProcessApiInheritance, ProgramReadsNothingFromTheToolsInput) {
  keeltest::TempDir dir;
  EXPECT_EQ("/dev/null\nread nothing\n",
            LaunchedWithOpenInputPipe("{ readlink /proc/self/fd/0; cat; echo read nothing; }",
                                      dir.Sub("out")));
}

TEST(ProcessApiInheritance, ProgramInheritsNoDescriptorOfTheTool) {
  // ls holds its own listing open as descriptor 3.
  keeltest::TempDir dir;
  EXPECT_EQ("0\n1\n2\n3\n", LaunchedWithOpenInputPipe("ls /proc/self/fd", dir.Sub("out")));
}

TEST(ProcessApiInheritance, ProgramLeadsAProcessGroupOfItsOwn) {
  keeltest::TempDir dir;
  EXPECT_EQ("same\n",
            LaunchedWithOpenInputPipe(
                "{ [ \"$(cut -d' ' -f5 /proc/$$/stat)\" = $$ ] && echo same || echo other; }",
                dir.Sub("out")));
}
