// What every program the tool starts gets, whichever way it is started.
//
// The tool runs as root beside a terminal or a pipe that is not the
// programs' to read: a program that reads standard input would block the
// run for ever, and one that inherited the tool's descriptors (pipes to
// other programs, copies being written, the archive) could hold them open
// or write into them. Each program also leads a process group of its own,
// so that an interrupted run can end it together with everything it
// started (CInterruptGuard).
//
// A program is also contained: it runs below a keeper (ProcessKeeper.h),
// which ends everything the program started, including what left its
// group or session, when the program ends, when it is told to stop, and
// when the tool dies. The pid the caller gets is the keeper's; waiting for
// it and signalling it stand for the program.
#ifndef COMMON_UTILITY_CHILDPROCESS_H_
#define COMMON_UTILITY_CHILDPROCESS_H_

#include <sys/types.h>

// In the child, between fork and exec (async-signal-safe calls only): a
// process group of its own, standard input from /dev/null, every
// descriptor above standard error closed, and the signal dispositions and
// mask of a fresh process (what the tool ignores or blocks is its own).
void PrepareChildProcess();

// Closes every descriptor above standard error (async-signal-safe).
void CloseDescriptorsAboveStandardError();

// How a child is started.
enum class ChildKind {
  kContained,  // below a keeper that ends its whole tree
  kDetached,   // a plain child, for a start that is to outlive its caller
};

// fork, and in the parent the child's process group set from this side as
// well (whichever runs first, the group exists before exec) and the child
// registered with the interrupt guard. The guard's clean-up waits for both,
// so a signal in between can't leave the child running unregistered.
// Returns 0 in the process that is to exec the program; in the parent the
// child's pid (for a contained child, its keeper's), or -1 with errno.
pid_t ForkChildProcess(ChildKind kind = ChildKind::kContained);

// In the parent, once the child has been collected.
void ReleaseChildProcess(pid_t child);

// waitpid that goes on after a signal interrupted it; a child it collects
// is released from the interrupt guard. A child is collected and released
// while the guard is held, so the guard never signals a pid that was
// collected (and may belong to another process by now); a blocking call
// waits for the end first, without holding the guard.
pid_t CollectChildProcess(pid_t pid, int* status, int options);

// A pidfd for the child `pid`, which stays bound to that process even once
// its number is reused; -1 where the kernel has none. Open it before the
// child can have been collected.
int OpenProcessHandle(pid_t pid);

// Sends `signalNumber` through `handle`; by number only when there is no
// handle (-1). False, with errno, when it could not be sent (ESRCH once the
// process has been collected).
bool SignalProcessHandle(int handle, pid_t pid, int signalNumber);

#endif  // COMMON_UTILITY_CHILDPROCESS_H_
