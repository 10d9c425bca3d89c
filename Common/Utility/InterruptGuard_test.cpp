// The interrupt guard: what a run registered is killed and removed when a
// signal ends it, links are never followed, and the process ends with 128
// plus the signal number.
#include "Common/Utility/InterruptGuard.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

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
  // The killed grandchild is gone once its new parent has collected it.
  for (int i = 0; i < 500 && kill(-group, 0) == 0; ++i)
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

// Every signal whose default action ends the process, apart from the two
// the entry makes harmless to writes and the faults.
std::vector<int> TerminatingSignals() {
  std::vector<int> signals = {SIGQUIT, SIGUSR1, SIGUSR2,   SIGALRM,  SIGVTALRM,    SIGPROF, SIGXCPU,
                              SIGIO,   SIGPWR,  SIGSTKFLT, SIGRTMIN, SIGRTMIN + 5, SIGRTMAX};
  return signals;
}

TEST(InterruptGuardConcurrency, SignalEndsTheProcessWith128PlusItsNumber) {
  for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
    TempDir dir(keeltest::BuildDir());
    ASSERT_TRUE(WriteFile(dir.Sub("work/sub/a.txt"), "a"));
    EXPECT_EQ(128 + signalNumber, SignalledChild(dir.Sub("work"), signalNumber));
    EXPECT_FALSE(PathExists(dir.Sub("work")));
  }
}

TEST(InterruptGuardConcurrency, EveryTerminatingSignalCleansUpAsTermDoes) {
  for (int signalNumber : TerminatingSignals()) {
    TempDir dir(keeltest::BuildDir());
    ASSERT_TRUE(WriteFile(dir.Sub("work/sub/a.txt"), "a"));
    EXPECT_EQ(128 + signalNumber, SignalledChild(dir.Sub("work"), signalNumber)) << signalNumber;
    EXPECT_FALSE(PathExists(dir.Sub("work"))) << signalNumber;
  }
}

TEST(InterruptGuardConcurrency, FaultSignalSentByAnotherProcessCleansUp) {
  for (int signalNumber : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGABRT, SIGSYS}) {
    TempDir dir(keeltest::BuildDir());
    ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
    const int answer = keeltest::RunInChild([&] {
      if (!CInterruptGuard::Install())
        return 1;
      CInterruptGuard::TrackFolder(dir.Sub("work"));
      const pid_t guarded = getpid();
      if (fork() == 0)
        _exit(kill(guarded, signalNumber) == 0 ? 0 : 1);
      for (int i = 0; i < 500; ++i)
        usleep(10000);
      return 2;
    });
    EXPECT_EQ(128 + signalNumber, answer) << signalNumber;
    EXPECT_FALSE(PathExists(dir.Sub("work"))) << signalNumber;
  }
}

// A process that aborts itself is in no state to clean up: the abort ends
// it as it would without the guard, and what it made stays for a later run.
TEST(InterruptGuardConcurrency, AbortOfTheProcessItselfKeepsItsDefaultAction) {
  TempDir dir(keeltest::BuildDir());
  ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    if (!CInterruptGuard::Install())
      _exit(1);
    CInterruptGuard::TrackFolder(dir.Sub("work"));
    abort();
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(SIGABRT, WTERMSIG(status));
  EXPECT_TRUE(PathExists(dir.Sub("work/a.txt")));
}

// Sleeps for `time` on the clock: the storm cuts every single sleep short.
void SleepUnderSignals(std::chrono::steady_clock::duration time) {
  const auto until = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < until)
    usleep(1000);
}

// Signals sent as fast as one process can while the clean-up is held back
// fill any pipe many times over; the handler must drop what does not fit
// rather than wait for room that the held-back watcher will never make.
TEST(InterruptGuardConcurrency, StormOfSignalsNeverBlocksTheHandler) {
  TempDir dir(keeltest::BuildDir());
  ASSERT_TRUE(WriteFile(dir.Sub("work/a.txt"), "a"));
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    close(ready[0]);
    if (!CInterruptGuard::Install())
      _exit(1);
    CInterruptGuard::TrackFolder(dir.Sub("work"));
    {
      CInterruptGuard::Hold hold;
      if (write(ready[1], "r", 1) != 1)
        _exit(1);
      SleepUnderSignals(std::chrono::seconds(3));
    }
    SleepUnderSignals(std::chrono::seconds(30));
    _exit(2);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  close(ready[0]);
  // The storm goes on until the child is gone; a child that hangs is
  // killed after a minute.
  const int kinds[] = {SIGTERM, SIGHUP, SIGINT};
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int status = 0;
  pid_t ended = 0;
  for (unsigned sent = 0; ended == 0; ++sent) {
    kill(child, kinds[sent % 3]);
    if (sent % 1024 == 0) {
      ended = waitpid(child, &status, WNOHANG);
      if (ended == 0 && std::chrono::steady_clock::now() > giveUp) {
        kill(child, SIGKILL);
        ended = waitpid(child, &status, 0);
        FAIL() << "the child hangs under the storm";
      }
    }
  }
  ASSERT_TRUE(WIFEXITED(status)) << status;
  const int answer = WEXITSTATUS(status);
  EXPECT_TRUE(answer == 128 + SIGTERM || answer == 128 + SIGHUP || answer == 128 + SIGINT)
      << answer;
  EXPECT_FALSE(PathExists(dir.Sub("work")));
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

// The guard of a process that may not start another thread: no watcher,
// so no handler either, and the reason for the caller to report.
TEST(InterruptGuardConcurrency, RefusedWatcherThreadLeavesTheDispositionsAlone) {
  const int answer = keeltest::RunAsNobody([] {
    const struct rlimit one = {1, 1};
    if (setrlimit(RLIMIT_NPROC, &one) != 0)
      return 1;
    ResultCode reason = 0;
    if (CInterruptGuard::Install(&reason))
      return 2;
    if (reason != THREAD_ERROR_CREATE_FAILED)
      return 3;
    struct sigaction after;
    sigaction(SIGTERM, nullptr, &after);
    return after.sa_handler == SIG_DFL ? 0 : 4;
  });
  EXPECT_EQ(0, answer);
}

}  // namespace
