#include "tools/KEEL/KEELCLI/ProcessStart.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace {

// Does nothing: the write that raised the signal fails with its errno.
void OnWriteSignal(int /*signalNumber*/) {}

}  // namespace

bool makeStandardDescriptorsValid() {
  bool valid = true;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF)
      continue;
    // The lowest free number is taken, and every lower one is open by now.
    const int opened = open("/dev/null", O_RDWR);
    if (opened != fd) {
      if (opened >= 0)
        close(opened);
      valid = false;
    }
  }
  return valid;
}

void catchWriteSignals() {
  // Caught by a handler that does nothing rather than ignored: an ignored
  // disposition is inherited through exec, and every program the tool
  // starts would run with SIGPIPE ignored (a `cmd | head` in a collected
  // command would then behave otherwise). A caught one is reset by exec.
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = OnWriteSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGXFSZ, &action, nullptr);
}
