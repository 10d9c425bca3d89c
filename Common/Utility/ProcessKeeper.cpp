#include "Common/Utility/ProcessKeeper.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Utility/ChildProcess.h"

namespace {

// What the keeper waits for: its program's end, or word to stop.
const int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT};

// Exit code of a keeper whose parent was gone before the program started,
// or that could not fork the program.
constexpr int kKeeperFailed = 127;

// Room for "/proc/self/task/<tid>/children".
constexpr size_t kPathRoom = 64;

sigset_t KeeperSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signalNumber : kStopSignals)
    sigaddset(&set, signalNumber);
  sigaddset(&set, SIGCHLD);
  return set;
}

// Writes "/proc/self/task/<tid>/children" into `path` without allocating.
void ChildrenFilePath(char (&path)[kPathRoom]) {
  static const char kHead[] = "/proc/self/task/";
  static const char kTail[] = "/children";
  size_t at = 0;
  for (const char* c = kHead; *c != '\0'; ++c)
    path[at++] = *c;
  char digits[16];
  size_t count = 0;
  // The keeper has one thread, whose id is the process id.
  for (long tid = getpid(); tid > 0 && count < sizeof(digits); tid /= 10)
    digits[count++] = static_cast<char>('0' + tid % 10);
  while (count > 0)
    path[at++] = digits[--count];
  for (const char* c = kTail; *c != '\0'; ++c)
    path[at++] = *c;
  path[at] = '\0';
}

// Sends SIGKILL to every child the kernel lists for the keeper. False when
// the list cannot be read (no /proc, or a kernel built without it).
bool KillListedChildren() {
  char path[kPathRoom];
  ChildrenFilePath(path);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  // Numbers separated by blanks, read in pieces; a number may span two.
  char buffer[512];
  long number = 0;
  bool inNumber = false;
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      break;
    for (ssize_t i = 0; i < count; ++i) {
      const char c = buffer[i];
      if (c >= '0' && c <= '9') {
        number = number * 10 + (c - '0');
        inNumber = true;
        continue;
      }
      if (inNumber && number > 0)
        kill(static_cast<pid_t>(number), SIGKILL);
      number = 0;
      inNumber = false;
    }
  }
  if (inNumber && number > 0)
    kill(static_cast<pid_t>(number), SIGKILL);
  close(fd);
  return true;
}

// Ends the program's tree: kills the keeper's children and collects them
// until none is left. A child that dies hands its own children to the
// keeper (the subreaper) before it can be collected, so the next round
// lists them. Records the program's status when it is collected here.
void EndTree(pid_t program, bool* programEnded, int* programStatus) {
  for (;;) {
    const bool listed = KillListedChildren();
    if (!listed && !*programEnded) {
      // Without the list only the program's group can be named (and only
      // while the program is not collected, so the number is still its
      // own); helpers that left it are handed on to init when the keeper
      // ends.
      kill(-program, SIGKILL);
      kill(program, SIGKILL);
    }
    int status = 0;
    // Blocks only while something killed above is still dying.
    const pid_t collected =
        waitpid(listed || !*programEnded ? -1 : program, &status, listed ? 0 : WNOHANG);
    if (collected < 0 && errno == EINTR)
      continue;
    if (collected > 0 && collected == program) {
      *programEnded = true;
      *programStatus = status;
    }
    if (collected < 0 || (!listed && collected == 0 && *programEnded))
      return;  // no child left (ECHILD), or nothing more can be named
  }
}

// Ends the keeper the way the program ended.
[[noreturn]] void EndLike(int status) {
  if (WIFEXITED(status))
    _exit(WEXITSTATUS(status));
  const int signalNumber = WIFSIGNALED(status) ? WTERMSIG(status) : SIGKILL;
  // The program's core dump, if any, was its own; the keeper leaves none.
  const struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  struct sigaction fallback;
  fallback.sa_handler = SIG_DFL;
  fallback.sa_flags = 0;
  sigemptyset(&fallback.sa_mask);
  sigaction(signalNumber, &fallback, nullptr);
  sigset_t unblock;
  sigemptyset(&unblock);
  sigaddset(&unblock, signalNumber);
  sigprocmask(SIG_UNBLOCK, &unblock, nullptr);
  kill(getpid(), signalNumber);
  _exit(128 + signalNumber);
}

// The keeper's life once the program runs. Never returns.
[[noreturn]] void Keep(pid_t program) {
  // The keeper needs none of the tool's descriptors, and must not hold the
  // program's output pipe, or the tool's own output, open after them.
  CloseDescriptorsAboveStandardError();
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
      if (fd != null)
        dup2(null, fd);
    }
    if (null > STDERR_FILENO)
      close(null);
  }
  const sigset_t waited = KeeperSignals();
  bool programEnded = false;
  int programStatus = 0;
  for (;;) {
    const int signalNumber = sigwaitinfo(&waited, nullptr);
    if (signalNumber < 0)
      continue;  // EINTR
    if (signalNumber != SIGCHLD)
      break;  // stop: time is up, the run was interrupted, or the tool died
    int status = 0;
    pid_t collected;
    while ((collected = waitpid(-1, &status, WNOHANG)) > 0) {
      if (collected == program) {
        programEnded = true;
        programStatus = status;
      }
    }
    if (programEnded)
      break;
  }
  EndTree(program, &programEnded, &programStatus);
  // Killed before it ended on its own: it ends by SIGKILL, as it did.
  EndLike(programEnded ? programStatus : SIGKILL);
}

}  // namespace

void BlockKeeperSignals(sigset_t* previous) {
  const sigset_t waited = KeeperSignals();
  pthread_sigmask(SIG_BLOCK, &waited, previous);
}

pid_t BecomeProcessKeeper(pid_t parent, const sigset_t& programMask) {
  // The keeper's signals are blocked from fork on (BlockKeeperSignals), so
  // neither the program's end nor word to stop can come before the keeper
  // waits for them.
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM, 0, 0, 0);
  // The tool may have died before the line above: then nobody waits for
  // this program.
  if (getppid() != parent)
    _exit(kKeeperFailed);
  const pid_t program = fork();
  if (program < 0)
    _exit(kKeeperFailed);
  if (program == 0) {
    sigprocmask(SIG_SETMASK, &programMask, nullptr);
    // Should the keeper itself be killed outright, the program goes too.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    return 0;
  }
  Keep(program);
}
