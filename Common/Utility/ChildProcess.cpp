#include "Common/Utility/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Utility/InterruptGuard.h"

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
  if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
    for (int fd = STDERR_FILENO + 1; fd < kHighestClosedByHand; ++fd)
      close(fd);
  }
}

pid_t ForkChildProcess() {
  // The child starts with its copy of the guard's lock taken, and its own
  // release of the hold may not free it. That is harmless: a child only
  // prepares itself and execs or exits, and never calls the guard.
  CInterruptGuard::Hold hold;
  const pid_t child = fork();
  const int error = errno;
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

pid_t CollectChildProcess(pid_t pid, int* status, int options) {
  pid_t answer;
  do {
    answer = waitpid(pid, status, options);
  } while (answer < 0 && errno == EINTR);
  if (answer > 0)
    ReleaseChildProcess(answer);
  return answer;
}
