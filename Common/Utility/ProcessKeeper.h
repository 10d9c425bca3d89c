// The keeper: a small process between the tool and each program it starts,
// which makes sure that nothing the program started outlives it.
//
// A program may start helpers that leave its process group and session
// (setsid, a double fork), so neither a group kill nor PR_SET_PDEATHSIG on
// the program reaches them. The keeper is forked by the tool and forks the
// program in turn. It is a child subreaper, so every descendant of the
// program that loses its parent becomes the keeper's child instead of
// init's, and /proc/self/task/<tid>/children names them all. The keeper
// ends the program's whole tree, killing its children until it has none
// left, whenever one of these comes first:
//
//  - the program itself has ended (a daemon it left behind goes with it);
//  - the keeper is sent SIGTERM, SIGINT, SIGHUP or SIGQUIT: the tool's time
//    limit and the interrupt guard stop a program this way;
//  - the tool has died, even by SIGKILL: the keeper's parent-death signal
//    is SIGTERM. That signal comes when the thread that forked the keeper
//    ends, not only the process; the tool forks from pool threads that
//    block until their program has been collected, so a thread never ends
//    while its program runs.
//
// Then the keeper ends as the program did (the same exit code, or the same
// signal), so its parent sees the program's status as if it had forked the
// program itself. A cgroup per program would need a delegated hierarchy,
// which many hosts do not give a root tool run from a shell; the keeper
// works everywhere.
//
// Everything here runs in a child of a multi-threaded process between fork
// and exec, so it uses async-signal-safe calls only.
#ifndef COMMON_UTILITY_PROCESSKEEPER_H_
#define COMMON_UTILITY_PROCESSKEEPER_H_

#include <signal.h>
#include <sys/types.h>

// Blocks, in the calling thread, the signals the keeper waits for, and
// gives the mask from before in `previous`. Called before fork, so that the
// keeper starts with them blocked: a signal that came before the keeper
// blocked them itself would otherwise run a handler of the tool's in it.
// The parent sets `previous` back right after fork.
void BlockKeeperSignals(sigset_t* previous);

// In the child of fork, with `parent` the pid of the process that forked
// and `programMask` the mask BlockKeeperSignals gave back: becomes the
// keeper and forks the program. Returns 0 in the program (which goes on to
// exec); never returns in the keeper.
pid_t BecomeProcessKeeper(pid_t parent, const sigset_t& programMask);

#endif  // COMMON_UTILITY_PROCESSKEEPER_H_
