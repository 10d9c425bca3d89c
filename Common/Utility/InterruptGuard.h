// CInterruptGuard: what a bundle run leaves behind if a signal ends it, and
// the cleaning up before the process exits.
//
// A run copies root-only files into a working folder and writes an archive
// beside the bundle path; a signal must take neither with it into a state
// where copies stay readable in /tmp or a half-written archive lies about.
// Owners of such things register them here while they exist: a folder to be
// removed with everything below it, a file to be unlinked, a process (its
// whole group) to be killed. On a signal, a watcher thread kills the
// processes, removes the folders and files and ends the process with 128
// plus the signal number.
//
// The signals are every one whose default action ends the process: SIGINT,
// SIGTERM, SIGHUP, SIGQUIT, the user, timer, CPU-limit, I/O, power and
// real-time signals, and the fault signals (SIGSEGV, SIGBUS, SIGILL, SIGFPE,
// SIGTRAP, SIGABRT, SIGSYS) when another process sends them. A real fault
// of the process, or its own abort(), gets the disposition from before:
// such a process is in no state to clean up. SIGPIPE and SIGXFSZ are left
// to the program's entry, which makes writes fail with EPIPE and EFBIG.
//
// Install() sets the handlers and starts the watcher; Uninstall() takes both
// back and restores the dispositions from before. Between the two, the
// handler only writes the signal number to a pipe (all it may do in signal
// context), never waiting for room in it; the work happens on the watcher
// thread, which has the signals blocked. Every function is
// thread-safe and may be called whether or not the guard is installed:
// registration without an installed guard only records.
#ifndef COMMON_UTILITY_INTERRUPTGUARD_H_
#define COMMON_UTILITY_INTERRUPTGUARD_H_

#include <sys/types.h>

#include <string>

#include "Common/Result/ResultCode.h"

class CInterruptGuard {
 public:
  // Catches the signals above until Uninstall. False (and logged) when the
  // pipe or the watcher can't be made, with the reason in *reason when given:
  // THREAD_ERROR_CREATE_FAILED when the system refused the watcher thread,
  // the errno value when the pipe could not be made.
  static bool Install(ResultCode* reason = nullptr);
  static void Uninstall();

  // A folder to remove with everything below it on a signal.
  static void TrackFolder(const std::string& path);
  static void ForgetFolder(const std::string& path);

  // A file to unlink on a signal.
  static void TrackFile(const std::string& path);
  static void ForgetFile(const std::string& path);

  // A child of ours to end on a signal: it is sent SIGTERM (a program's
  // keeper then ends the program's whole tree), and whatever of its group
  // is left after a grace of a few seconds is killed. A pid is forgotten as
  // it is collected; one that is no child of ours is never signalled.
  static void TrackProcess(pid_t pid);
  static void ForgetProcess(pid_t pid);

  // Holds back the clean-up while the calling thread makes something and
  // registers it: a signal between the two would otherwise leave it behind
  // unregistered. The watcher waits for the hold to end and then finds it
  // registered. Holds nest; keep them to the making and the registering.
  class Hold {
   public:
    Hold();
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
  };

  // Does on the calling thread what the watcher does for `signalNumber`,
  // short of exiting: kills, removes, unlinks. Returns the exit status the
  // process is to end with (128 plus the number).
  static int CleanUp(int signalNumber);
};

#endif  // COMMON_UTILITY_INTERRUPTGUARD_H_
