// The interrupt guard: what a run registered is killed and removed when a
// signal ends it, links are never followed, and the process ends with 128
// plus the signal number.
#include "Common/Utility/InterruptGuard.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::PathExists;
using keeltest::ReadFile;
using keeltest::TempDir;
using keeltest::WriteFile;

// A child in a process group of its own that sleeps until killed, with a
// grandchild in the same group.
pid_t StartSleepingGroup() {
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);
    execl("/bin/sh", "sh", "-c", "sleep 60 & sleep 60", static_cast<char*>(nullptr));
    _exit(127);
  }
  setpgid(child, child);
  return child;
}

// A tree of nested folders and files, with a link out to `outside`.
void MakeTree(const TempDir& dir, const std::string& outside) {
  ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
  ASSERT_TRUE(WriteFile(dir.Sub("work/sub/deeper/b.txt"), "b"));
  ASSERT_TRUE(WriteFile(outside + "/keep.txt", "precious"));
  ASSERT_EQ(0, symlink(outside.c_str(), dir.Sub("work/sub/link").c_str()));
}

TEST(InterruptGuard, CleanUpKillsRemovesAndGivesTheExitStatus) {
  TempDir dir(keeltest::BuildDir());
  MakeTree(dir, dir.Sub("outside"));
  ASSERT_TRUE(WriteFile(dir.Sub("bundle.tmp"), "half an archive"));
  const pid_t group = StartSleepingGroup();
  CInterruptGuard::TrackFolder(dir.Sub("work"));
  CInterruptGuard::TrackFile(dir.Sub("bundle.tmp"));
  CInterruptGuard::TrackProcess(group);

  EXPECT_EQ(128 + SIGTERM, CInterruptGuard::CleanUp(SIGTERM));

  int status = 0;
  ASSERT_EQ(group, waitpid(group, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status));
  // The leader is asked to end first and the rest of its group is killed
  // after it, so the grandchild may still be on its way out here.
  int waited = 0;
  while (kill(-group, 0) == 0 && waited++ < 500)
    usleep(10000);
  EXPECT_NE(0, kill(-group, 0)) << "the grandchild still runs";
  EXPECT_FALSE(PathExists(dir.Sub("work")));
  EXPECT_FALSE(PathExists(dir.Sub("bundle.tmp")));
  EXPECT_EQ("precious", ReadFile(dir.Sub("outside/keep.txt")));
  CInterruptGuard::ForgetFolder(dir.Sub("work"));
  CInterruptGuard::ForgetFile(dir.Sub("bundle.tmp"));
  CInterruptGuard::ForgetProcess(group);
}

TEST(InterruptGuard, ForgottenThingsAreLeftAlone) {
  TempDir dir(keeltest::BuildDir());
  ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
  ASSERT_TRUE(WriteFile(dir.Sub("bundle.zip"), "finished"));
  CInterruptGuard::TrackFolder(dir.Sub("work"));
  CInterruptGuard::TrackFile(dir.Sub("bundle.zip"));
  CInterruptGuard::ForgetFolder(dir.Sub("work"));
  CInterruptGuard::ForgetFile(dir.Sub("bundle.zip"));
  CInterruptGuard::CleanUp(SIGINT);
  EXPECT_EQ("a", ReadFile(dir.Sub("work/a.txt")));
  EXPECT_EQ("finished", ReadFile(dir.Sub("bundle.zip")));
}

// The whole road in a child process: a signal while installed.
int SignalledChild(const std::string& folder, int signalNumber) {
  return keeltest::RunInChild([&] {
    if (!CInterruptGuard::Install())
      return 1;
    CInterruptGuard::TrackFolder(folder);
    kill(getpid(), signalNumber);
    for (int i = 0; i < 500; ++i)
      usleep(10000);
    return 2;  // the watcher should have ended the process by now
  });
}

TEST(InterruptGuardConcurrency, SignalEndsTheProcessWith128PlusItsNumber) {
  for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
    TempDir dir(keeltest::BuildDir());
    ASSERT_TRUE(WriteFile(dir.Sub("work/sub/a.txt"), "a"));
    EXPECT_EQ(128 + signalNumber, SignalledChild(dir.Sub("work"), signalNumber));
    EXPECT_FALSE(PathExists(dir.Sub("work")));
  }
}

// A signal that comes while a file is made but not yet registered must not
// leave it behind: the clean-up waits for the hold and then finds it.
TEST(InterruptGuardConcurrency, SignalDuringAHoldWaitsForWhatItRegisters) {
  TempDir dir(keeltest::BuildDir());
  const std::string file = dir.Sub("bundle.zip.unfinished");
  const int answer = keeltest::RunInChild([&] {
    if (!CInterruptGuard::Install())
      return 1;
    {
      CInterruptGuard::Hold hold;
      if (!WriteFile(file, "half an archive"))
        return 1;
      kill(getpid(), SIGTERM);
      usleep(200000);  // the watcher has the signal by now and must wait
      CInterruptGuard::TrackFile(file);
    }
    for (int i = 0; i < 500; ++i)
      usleep(10000);
    return 2;
  });
  EXPECT_EQ(128 + SIGTERM, answer);
  EXPECT_FALSE(PathExists(file));
}

TEST(InterruptGuardConcurrency, UninstallGivesTheDispositionsBack) {
  const int answer = keeltest::RunInChild([] {
    signal(SIGHUP, SIG_IGN);
    if (!CInterruptGuard::Install())
      return 1;
    struct sigaction during;
    sigaction(SIGTERM, nullptr, &during);
    if (during.sa_handler == SIG_DFL)
      return 2;
    CInterruptGuard::Uninstall();
    struct sigaction after;
    sigaction(SIGTERM, nullptr, &after);
    struct sigaction hangUp;
    sigaction(SIGHUP, nullptr, &hangUp);
    return after.sa_handler == SIG_DFL && hangUp.sa_handler == SIG_IGN ? 0 : 3;
  });
  EXPECT_EQ(0, answer);
}

TEST(InterruptGuardConcurrency, GuardCanBeInstalledAgainAfterUninstall) {
  TempDir dir(keeltest::BuildDir());
  ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
  const int answer = keeltest::RunInChild([&] {
    if (!CInterruptGuard::Install())
      return 1;
    CInterruptGuard::Uninstall();
    if (!CInterruptGuard::Install())
      return 1;
    CInterruptGuard::TrackFolder(dir.Sub("work"));
    raise(SIGTERM);
    for (int i = 0; i < 500; ++i)
      usleep(10000);
    return 2;
  });
  EXPECT_EQ(128 + SIGTERM, answer);
  EXPECT_FALSE(PathExists(dir.Sub("work")));
}

}  // namespace
