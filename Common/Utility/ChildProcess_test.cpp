// Starting a program: the child leads a process group of its own and is
// registered with the interrupt guard as soon as fork returns.
#include "Common/Utility/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Utility/InterruptGuard.h"

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

}  // namespace
