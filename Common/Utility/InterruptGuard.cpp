#include "Common/Utility/InterruptGuard.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "Common/Log/Log.h"
#include "Common/Utility/JoinableThread.h"
#include "Common/Utility/TreeRemoval.h"

namespace {

// Signals whose default action ends the process and that only ever come
// from outside it (a user, a terminal, a timer, a resource limit other than
// the file size, which the entry catches itself so that writes fail). The
// real-time signals are added at run time: their range is the C library's.
const int kTerminatingSignals[] = {
    SIGINT,    SIGTERM,   SIGHUP,  SIGQUIT, SIGUSR1, SIGUSR2,
    SIGALRM,   SIGVTALRM, SIGPROF, SIGXCPU, SIGIO,   SIGPWR,
#ifdef SIGSTKFLT
    SIGSTKFLT,
#endif
};

// Signals the kernel raises for a fault of the process itself. Sent by
// another process they are interruptions like the ones above. Raised by a
// fault (or by abort(), or by the process to itself) they go back to the
// disposition from before: the memory and locks of a faulting process can't
// be trusted to carry out the clean-up (the faulting thread may hold the
// guard's own lock, or the heap may be broken), and the default action
// leaves a core to find the fault with. What the run made then stays, as
// after a kill -9.
const int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGABRT, SIGSYS};

// Another thread may still be writing into a folder while it is removed; a
// few passes catch what it added meanwhile.
constexpr int kRemovePasses = 20;
// How long the clean-up gives the programs' keepers to end their trees,
// and how often it looks.
constexpr int kKeeperGraceMillis = 5000;
constexpr int kKeeperLookMillis = 10;
// The byte that tells the watcher to stop without a signal.
constexpr unsigned char kStopWatching = 0;

// Everything the guard knows; one instance, behind its lock. The lock is
// recursive so that a thread inside a Hold can still register.
struct GuardState {
  std::recursive_mutex lock;
  std::set<std::string> folders;
  std::set<std::string> files;
  std::set<pid_t> processes;
  bool installed = false;
  CJoinableThread watcher;
  std::vector<int> caught;          // every signal with a handler of the guard
  struct sigaction previous[NSIG];  // their dispositions from before, by number
};

GuardState& State() {
  static GuardState* state = new GuardState();  // never destroyed: a signal may come at exit
  return *state;
}

// Written by the signal handler, read by the watcher. -1 while not installed.
volatile sig_atomic_t g_writeEnd = -1;
int g_readEnd = -1;

// The write end is non-blocking: when a storm of signals has filled the
// pipe, the byte is dropped rather than the handler blocked (which, on the
// watcher's own thread, would stop the one reader for ever). The watcher
// acts on the first byte only, so nothing is lost.
void OnSignal(int signalNumber) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(signalNumber);
  if (g_writeEnd >= 0) {
    ssize_t ignored = write(g_writeEnd, &byte, 1);
    (void)ignored;
  }
  errno = saved;
}

// Only ever called with a number below NSIG; the dispositions from before
// stay as they are while the handler is in place.
void OnFault(int signalNumber, siginfo_t* info, void* /*context*/) {
  const bool sent = info != nullptr && info->si_code <= 0;
  if (sent && info->si_pid != getpid()) {
    OnSignal(signalNumber);
    return;
  }
  sigaction(signalNumber, &State().previous[signalNumber], nullptr);
  // A real fault happens again when the handler returns, now under the old
  // disposition. A signal the process sent itself has to be sent again.
  if (!sent)
    return;
  raise(signalNumber);
}

std::vector<int> TerminatingSignals() {
  std::vector<int> signals(std::begin(kTerminatingSignals), std::end(kTerminatingSignals));
  for (int number = SIGRTMIN; number <= SIGRTMAX; ++number)
    signals.push_back(number);
  return signals;
}

void Catch(GuardState& state, int signalNumber, const struct sigaction& action) {
  if (sigaction(signalNumber, nullptr, &state.previous[signalNumber]) != 0)
    return;
  if (sigaction(signalNumber, &action, nullptr) == 0)
    state.caught.push_back(signalNumber);
}

void CatchAll(GuardState& state) {
  struct sigaction interruption;
  memset(&interruption, 0, sizeof(interruption));
  interruption.sa_handler = OnSignal;
  interruption.sa_flags = SA_RESTART;
  sigemptyset(&interruption.sa_mask);
  for (int number : TerminatingSignals())
    Catch(state, number, interruption);
  struct sigaction fault = interruption;
  fault.sa_handler = nullptr;
  fault.sa_sigaction = OnFault;
  fault.sa_flags = SA_RESTART | SA_SIGINFO;
  for (int number : kFaultSignals)
    Catch(state, number, fault);
}

// Starts the watcher with every terminating signal blocked, so that the
// handler never runs on its thread and a storm of signals cannot keep
// interrupting the clean-up.
ResultCode StartWatcher(GuardState& state, void (*watch)()) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int number : TerminatingSignals())
    sigaddset(&blocked, number);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const ResultCode started = state.watcher.start(watch);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

void ClosePipe() {
  const int writeEnd = g_writeEnd;
  g_writeEnd = -1;
  close(writeEnd);
  close(g_readEnd);
  g_readEnd = -1;
}

// Removes `path` and everything below it, never following a link.
void RemoveInPasses(const std::string& path) {
  for (int pass = 0; pass < kRemovePasses; ++pass) {
    if (RemoveTree(path))
      return;
  }
  KLOG_E("Could not remove \"%s\" after the interruption", path.c_str());
}

enum class ChildState { kRunning, kEnded, kNotOurs };

// Looks at a child without collecting it. kNotOurs for a pid that is no
// child (any more): such a pid is never signalled.
ChildState StateOf(pid_t pid) {
  siginfo_t info;
  info.si_pid = 0;
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
    return ChildState::kNotOurs;
  return info.si_pid == 0 ? ChildState::kRunning : ChildState::kEnded;
}

// Ends the registered programs. Each pid is a program's keeper, which on
// SIGTERM ends everything the program started and then itself; a while
// later whatever is left of a group is killed outright. Runs under the
// guard's lock, and children are collected only under it, so no pid here
// can have been collected and handed to another process.
void EndPrograms(const std::set<pid_t>& processes) {
  for (pid_t pid : processes) {
    if (pid > 0 && StateOf(pid) == ChildState::kRunning)
      kill(pid, SIGTERM);
  }
  for (int waited = 0; waited < kKeeperGraceMillis; waited += kKeeperLookMillis) {
    bool running = false;
    for (pid_t pid : processes)
      running = running || (pid > 0 && StateOf(pid) == ChildState::kRunning);
    if (!running)
      break;
    usleep(kKeeperLookMillis * 1000);
  }
  for (pid_t pid : processes) {
    // An ended child that is not yet collected still holds its number, and
    // members of its group may be left.
    if (pid > 0 && StateOf(pid) != ChildState::kNotOurs) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
    }
  }
}

void Watch() {
  for (;;) {
    unsigned char byte = kStopWatching;
    const ssize_t count = read(g_readEnd, &byte, 1);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0 || byte == kStopWatching)
      return;
    // The lock stays taken until the process is gone: a thread that makes
    // something between the clean-up and the exit (the archive's file, once
    // the programs it waited for have ended) would otherwise leave it behind
    // unregistered and unremoved. Makers wait in their Hold instead.
    State().lock.lock();
    _exit(CInterruptGuard::CleanUp(byte));
  }
}

template <typename T>
void Insert(std::set<T>& set, const T& value) {
  std::lock_guard<std::recursive_mutex> lock(State().lock);
  set.insert(value);
}

template <typename T>
void Erase(std::set<T>& set, const T& value) {
  std::lock_guard<std::recursive_mutex> lock(State().lock);
  set.erase(value);
}

}  // namespace

bool CInterruptGuard::Install(ResultCode* reason) {
  ResultCode ignored = 0;
  ResultCode& why = reason != nullptr ? *reason : ignored;
  why = 0;
  GuardState& state = State();
  std::lock_guard<std::recursive_mutex> lock(state.lock);
  if (state.installed)
    return true;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    why = static_cast<ResultCode>(errno);
    KLOG_RC(LOG_LEVEL_E, "pipe2", why);
    return false;
  }
  g_readEnd = ends[0];
  g_writeEnd = ends[1];
  if (fcntl(g_writeEnd, F_SETFL, O_NONBLOCK) != 0) {
    why = static_cast<ResultCode>(errno);
    KLOG_RC(LOG_LEVEL_E, "fcntl", why);
    ClosePipe();
    return false;
  }
  why = StartWatcher(state, Watch);
  if (why != 0) {
    ClosePipe();
    return false;
  }
  CatchAll(state);
  state.installed = true;
  return true;
}

void CInterruptGuard::Uninstall() {
  GuardState& state = State();
  std::unique_lock<std::recursive_mutex> lock(state.lock);
  if (!state.installed)
    return;
  for (int number : state.caught)
    sigaction(number, &state.previous[number], nullptr);
  state.caught.clear();
  state.installed = false;
  lock.unlock();
  // A signal that came before the dispositions went back is still in the
  // pipe ahead of this byte, and the watcher acts on it first.
  const unsigned char stop = kStopWatching;
  ssize_t ignored = write(g_writeEnd, &stop, 1);
  (void)ignored;
  state.watcher.join();
  ClosePipe();
}

void CInterruptGuard::TrackFolder(const std::string& path) {
  Insert(State().folders, path);
}

void CInterruptGuard::ForgetFolder(const std::string& path) {
  Erase(State().folders, path);
}

void CInterruptGuard::TrackFile(const std::string& path) {
  Insert(State().files, path);
}

void CInterruptGuard::ForgetFile(const std::string& path) {
  Erase(State().files, path);
}

void CInterruptGuard::TrackProcess(pid_t pid) {
  Insert(State().processes, pid);
}

void CInterruptGuard::ForgetProcess(pid_t pid) {
  Erase(State().processes, pid);
}

CInterruptGuard::Hold::Hold() {
  State().lock.lock();
}

CInterruptGuard::Hold::~Hold() {
  State().lock.unlock();
}

int CInterruptGuard::CleanUp(int signalNumber) {
  GuardState& state = State();
  std::lock_guard<std::recursive_mutex> lock(state.lock);
  KLOG_W("Interrupted by signal %d: removing what the run made", signalNumber);
  // Programs first, so that none of them writes into what is removed next.
  EndPrograms(state.processes);
  for (const std::string& folder : state.folders)
    RemoveInPasses(folder);
  for (const std::string& file : state.files)
    unlink(file.c_str());
  return 128 + signalNumber;
}
