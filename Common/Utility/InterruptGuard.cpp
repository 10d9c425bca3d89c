#include "Common/Utility/InterruptGuard.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "Common/Log/Log.h"
#include "Common/Utility/TreeRemoval.h"

namespace {

const int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr size_t kSignalCount = sizeof(kSignals) / sizeof(kSignals[0]);
// Another thread may still be writing into a folder while it is removed; a
// few passes catch what it added meanwhile.
constexpr int kRemovePasses = 20;
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
  std::thread watcher;
  struct sigaction previous[kSignalCount];
};

GuardState& State() {
  static GuardState* state = new GuardState();  // never destroyed: a signal may come at exit
  return *state;
}

// Written by the signal handler, read by the watcher. -1 while not installed.
volatile sig_atomic_t g_writeEnd = -1;
int g_readEnd = -1;

void OnSignal(int signalNumber) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(signalNumber);
  if (g_writeEnd >= 0) {
    ssize_t ignored = write(g_writeEnd, &byte, 1);
    (void)ignored;
  }
  errno = saved;
}

// Removes `path` and everything below it, never following a link.
void RemoveInPasses(const std::string& path) {
  for (int pass = 0; pass < kRemovePasses; ++pass) {
    if (RemoveTree(path))
      return;
  }
  KLOG_E("Could not remove \"%s\" after the interruption", path.c_str());
}

void Watch() {
  for (;;) {
    unsigned char byte = kStopWatching;
    const ssize_t count = read(g_readEnd, &byte, 1);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0 || byte == kStopWatching)
      return;
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

bool CInterruptGuard::Install() {
  GuardState& state = State();
  std::lock_guard<std::recursive_mutex> lock(state.lock);
  if (state.installed)
    return true;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    KLOG_RC(LOG_LEVEL_E, "pipe2", static_cast<ResultCode>(errno));
    return false;
  }
  g_readEnd = ends[0];
  g_writeEnd = ends[1];
  state.watcher = std::thread(Watch);
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < kSignalCount; ++i)
    sigaction(kSignals[i], &action, &state.previous[i]);
  state.installed = true;
  return true;
}

void CInterruptGuard::Uninstall() {
  GuardState& state = State();
  std::unique_lock<std::recursive_mutex> lock(state.lock);
  if (!state.installed)
    return;
  for (size_t i = 0; i < kSignalCount; ++i)
    sigaction(kSignals[i], &state.previous[i], nullptr);
  state.installed = false;
  lock.unlock();
  // A signal that came before the dispositions went back is still in the
  // pipe ahead of this byte, and the watcher acts on it first.
  const unsigned char stop = kStopWatching;
  ssize_t ignored = write(g_writeEnd, &stop, 1);
  (void)ignored;
  state.watcher.join();
  const int writeEnd = g_writeEnd;
  g_writeEnd = -1;
  close(writeEnd);
  close(g_readEnd);
  g_readEnd = -1;
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
  for (pid_t pid : state.processes) {
    if (pid > 0) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
    }
  }
  for (const std::string& folder : state.folders)
    RemoveInPasses(folder);
  for (const std::string& file : state.files)
    unlink(file.c_str());
  return 128 + signalNumber;
}
