// Starting a program: the child leads a process group of its own and is
// registered with the interrupt guard as soon as fork returns.
#include "Common/Utility/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "Common/Utility/InterruptGuard.h"
#include "tests/support/ProcessMarkers.h"
#include "tests/support/TestSupport.h"

namespace {

// Forks a child that sleeps until killed.
pid_t ForkSleeper() {
  const pid_t child = ForkChildProcess();
  if (child == 0) {
    PrepareChildProcess();
    execl("/bin/sh", "sh", "-c", "sleep 60", static_cast<char*>(nullptr));
    _exit(127);
  }
  return child;
}

// Forks a child that starts a helper in a session of its own below `dir`
// and then sleeps until killed.
pid_t ForkHelperStarter(const keeltest::TempDir& dir) {
  const std::string script = keeltest::StartSessionLeavingHelper(dir.path()) + "exec sleep 60";
  const pid_t child = ForkChildProcess();
  if (child == 0) {
    PrepareChildProcess();
    execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return child;
}

bool WaitForHelper(const keeltest::TempDir& dir) {
  for (int i = 0; i < 1000; ++i) {
    if (keeltest::PathExists(dir.Sub("helper.ready")))
      return true;
    usleep(10000);
  }
  return false;
}

TEST(ChildProcess, ForkedChildLeadsItsOwnGroup) {
  const pid_t child = ForkSleeper();
  ASSERT_GT(child, 0);
  EXPECT_EQ(child, getpgid(child));
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(child, CollectChildProcess(child, &status, 0));
}

TEST(ChildProcess, ForkedChildIsKilledByTheCleanUp) {
  const pid_t child = ForkSleeper();
  ASSERT_GT(child, 0);
  CInterruptGuard::CleanUp(SIGTERM);
  int status = 0;
  ASSERT_EQ(child, CollectChildProcess(child, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGKILL, WTERMSIG(status));
}

TEST(ChildProcess, CollectedChildIsNoLongerKilledByTheCleanUp) {
  const pid_t child = ForkSleeper();
  ASSERT_GT(child, 0);
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(child, CollectChildProcess(child, &status, 0));
  // A process that takes the pid over later must not be killed.
  const pid_t other = fork();
  if (other == 0) {
    pause();
    _exit(0);
  }
  ASSERT_GT(other, 0);
  CInterruptGuard::CleanUp(SIGTERM);
  EXPECT_EQ(0, kill(other, 0)) << "an unregistered process was killed";
  kill(other, SIGKILL);
  waitpid(other, &status, 0);
}

TEST(ChildProcess, CleanUpEndsWhatTheChildStartedInAnotherSession) {
  keeltest::TempDir dir;
  const pid_t child = ForkHelperStarter(dir);
  ASSERT_GT(child, 0);
  ASSERT_TRUE(WaitForHelper(dir));
  CInterruptGuard::CleanUp(SIGTERM);
  int status = 0;
  EXPECT_EQ(child, CollectChildProcess(child, &status, 0));
  EXPECT_TRUE(keeltest::ProcessesWithMarker(dir.Sub("helper.sh")).empty());
  keeltest::KillProcessesWithMarker(dir.Sub("helper.sh"));
}

TEST(ChildProcess, HelperInAnotherSessionEndsWhenTheChildEnds) {
  keeltest::TempDir dir;
  const std::string script = keeltest::StartSessionLeavingHelper(dir.path()) + "exit 0";
  const pid_t child = ForkChildProcess();
  if (child == 0) {
    PrepareChildProcess();
    execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(child, CollectChildProcess(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("helper.ready")));
  EXPECT_TRUE(keeltest::ProcessesWithMarker(dir.Sub("helper.sh")).empty());
  keeltest::KillProcessesWithMarker(dir.Sub("helper.sh"));
}

TEST(ChildProcess, ParentKilledOutrightTakesTheChildsWholeTreeAlong) {
  keeltest::TempDir dir;
  // The parent stands for the tool: it starts the child from a thread of
  // its own, as the pool does, and is then killed by SIGKILL.
  const pid_t tool = fork();
  if (tool == 0) {
    // The starting thread waits, as a pool thread waits for its program.
    std::thread starter([&] {
      ForkHelperStarter(dir);
      for (;;)
        pause();
    });
    starter.join();
    _exit(1);
  }
  ASSERT_GT(tool, 0);
  const bool started = WaitForHelper(dir);
  kill(tool, SIGKILL);
  int status = 0;
  waitpid(tool, &status, 0);
  ASSERT_TRUE(started);
  EXPECT_TRUE(keeltest::NoProcessWithMarkerWithin(dir.Sub("helper.sh"), 10000));
  keeltest::KillProcessesWithMarker(dir.Sub("helper.sh"));
}

}  // namespace
