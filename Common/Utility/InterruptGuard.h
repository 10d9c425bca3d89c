// CInterruptGuard: what a bundle run leaves behind if SIGINT, SIGTERM or
// SIGHUP ends it, and the cleaning up before the process exits.
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
// Install() sets the handlers and starts the watcher; Uninstall() takes both
// back and restores the dispositions from before. Between the two, the
// handler only writes the signal number to a pipe (all it may do in signal
// context); the work happens on the watcher thread. Every function is
// thread-safe and may be called whether or not the guard is installed:
// registration without an installed guard only records.
#ifndef COMMON_UTILITY_INTERRUPTGUARD_H_
#define COMMON_UTILITY_INTERRUPTGUARD_H_

#include <sys/types.h>

#include <string>

class CInterruptGuard {
 public:
  // Catches SIGINT, SIGTERM and SIGHUP until Uninstall. False (and logged)
  // when the pipe or the watcher can't be made; the run then goes on
  // unguarded.
  static bool Install();
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
