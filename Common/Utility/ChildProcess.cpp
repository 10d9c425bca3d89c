#include "Common/Utility/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Utility/InterruptGuard.h"
#include "Common/Utility/ProcessKeeper.h"

namespace {

// Where close_range is missing (kernels before 5.9), descriptors are closed
// one by one up to this number.
constexpr int kHighestClosedByHand = 4096;

}  // namespace

void PrepareChildProcess() {
  setpgid(0, 0);
  const int null = open("/dev/null", O_RDONLY);
  if (null >= 0 && null != STDIN_FILENO) {
    dup2(null, STDIN_FILENO);
    close(null);
  } else if (null < 0) {
    // Nothing to read is better than the tool's own input.
    close(STDIN_FILENO);
  }
  CloseDescriptorsAboveStandardError();
  // Handlers do not survive exec anyway; ignored signals and the mask would.
  struct sigaction fresh;
  fresh.sa_handler = SIG_DFL;
  fresh.sa_flags = 0;
  sigemptyset(&fresh.sa_mask);
  for (int signalNumber = 1; signalNumber < NSIG; ++signalNumber) {
    if (signalNumber != SIGKILL && signalNumber != SIGSTOP)
      sigaction(signalNumber, &fresh, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void CloseDescriptorsAboveStandardError() {
  if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
    for (int fd = STDERR_FILENO + 1; fd < kHighestClosedByHand; ++fd)
      close(fd);
  }
}

pid_t ForkChildProcess(ChildKind kind) {
  // The child starts with its copy of the guard's lock taken, and its own
  // release of the hold may not free it. That is harmless: a child only
  // prepares itself and execs or exits, and never calls the guard.
  CInterruptGuard::Hold hold;
  const bool contained = kind == ChildKind::kContained;
  const pid_t parent = getpid();
  sigset_t previous;
  if (contained)
    BlockKeeperSignals(&previous);
  const pid_t child = fork();
  const int error = errno;
  if (child == 0 && contained)
    return BecomeProcessKeeper(parent, previous);
  if (contained)
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (child > 0) {
    // Fails harmlessly when the child has exec'ed already: it made the
    // group itself by then.
    setpgid(child, child);
    CInterruptGuard::TrackProcess(child);
  }
  errno = error;
  return child;
}

void ReleaseChildProcess(pid_t child) {
  CInterruptGuard::ForgetProcess(child);
}

namespace {

// Waits until a child that `pid` names (as waitpid reads it) has ended,
// without collecting it. False, with errno, when there is none.
bool WaitForAnEnd(pid_t pid) {
  const idtype_t type = pid > 0 ? P_PID : (pid == -1 ? P_ALL : P_PGID);
  const id_t id = static_cast<id_t>(pid > 0 ? pid : (pid < -1 ? -pid : 0));
  siginfo_t info;
  int waited;
  do {
    waited = waitid(type, id, &info, WEXITED | WNOWAIT);
  } while (waited < 0 && errno == EINTR);
  return waited == 0;
}

}  // namespace

pid_t CollectChildProcess(pid_t pid, int* status, int options) {
  const bool blocking = (options & WNOHANG) == 0;
  for (;;) {
    if (blocking && !WaitForAnEnd(pid))
      return -1;
    CInterruptGuard::Hold hold;
    pid_t answer;
    do {
      answer = waitpid(pid, status, options | WNOHANG);
    } while (answer < 0 && errno == EINTR);
    if (answer > 0)
      ReleaseChildProcess(answer);
    // Another thread may have collected what ended meanwhile.
    if (answer != 0 || !blocking)
      return answer;
  }
}

int OpenProcessHandle(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool SignalProcessHandle(int handle, pid_t pid, int signalNumber) {
  if (handle < 0)
    return kill(pid, signalNumber) == 0;
  return syscall(SYS_pidfd_send_signal, handle, signalNumber, nullptr, 0) == 0;
}
