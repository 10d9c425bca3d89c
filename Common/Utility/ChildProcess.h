// What every program the tool starts gets, whichever way it is started.
//
// The tool runs as root beside a terminal or a pipe that is not the
// programs' to read: a program that reads standard input would block the
// run for ever, and one that inherited the tool's descriptors (pipes to
// other programs, copies being written, the archive) could hold them open
// or write into them. Each program also leads a process group of its own,
// so that an interrupted run can end it together with everything it
// started (CInterruptGuard).
#ifndef COMMON_UTILITY_CHILDPROCESS_H_
#define COMMON_UTILITY_CHILDPROCESS_H_

#include <sys/types.h>

// In the child, between fork and exec (async-signal-safe calls only): a
// process group of its own, standard input from /dev/null, and every
// descriptor above standard error closed.
void PrepareChildProcess();

// fork, and in the parent the child's process group set from this side as
// well (whichever runs first, the group exists before exec) and the child
// registered with the interrupt guard. The guard's clean-up waits for both,
// so a signal in between can't leave the child running unregistered.
// Returns what fork returned, with its errno.
pid_t ForkChildProcess();

// In the parent, once the child has been collected.
void ReleaseChildProcess(pid_t child);

// waitpid that goes on after a signal interrupted it; a child it collects
// is released from the interrupt guard.
pid_t CollectChildProcess(pid_t pid, int* status, int options);

#endif  // COMMON_UTILITY_CHILDPROCESS_H_
