#include "Common/IPC/ProcessAPI_unix.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "Common/IPC/UnixImpersonate.h"
#include "Common/IPC/event.h"
#include "Common/Log/BoundedText.h"
#include "Common/Log/Log.h"
#include "Common/Utility/ChildProcess.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/sysutils.h"

namespace {

// The pause between two looks at a process that is still running.
constexpr uint32_t kPollIntervalMs = 20;
// Room for the texts of one account record.
constexpr size_t kAccountBufferSize = 16384;
// A status word whose low seven bits are set did not come from a normal end.
constexpr int kSignalBits = 0x7F;

bool IsShell(const std::string& program) {
  return program == "/bin/sh" || program == "/bin/bash";
}

// Everything a child needs, prepared before fork so that the child itself
// allocates as little as possible.
struct ChildPlan {
  std::vector<char*> argv;  // null-terminated
  std::string fullPath;
  bool switchUser = false;
  char displayEntry[256] = {0};
  char xauthorityEntry[4096] = {0};
  char* userEnvironment[3] = {nullptr, nullptr, nullptr};
};

// Runs in the child: become the user, enter the folder, add the environment
// entries, exec. Never returns.
[[noreturn]] void RunChild(const ProcessAttributes& attributes, ChildPlan& plan,
                           CUnixImpersonate& user) {
  PrepareChildProcess();
  if (attributes.detached) {
    const pid_t grandchild = fork();
    if (grandchild < 0)
      _exit(PROCESS_API_EXIT_EXEC_FAILED);
    if (grandchild > 0)
      _exit(0);
  }
  if (plan.switchUser) {
    // Nothing of the caller's environment goes to another user's program.
    environ = plan.userEnvironment;
    if (user.PermanentlyBecomeUser() != 0)
      _exit(-1);
  }
  if (attributes.workDir != nullptr) {
    // A folder that cannot be entered leaves the child where it is.
    if (chdir(attributes.workDir) != 0) {
    }
  }
  if (attributes.environment != nullptr) {
    for (const char* const* entry = attributes.environment; *entry != nullptr; ++entry) {
      // putenv keeps the pointer and never writes through it.
      if (putenv(const_cast<char*>(*entry)) != 0)
        _exit(-1);
    }
  }
  execvp(plan.fullPath.c_str(), plan.argv.data());
  _exit(errno == ENOENT ? PROCESS_API_EXIT_NOT_FOUND : PROCESS_API_EXIT_EXEC_FAILED);
}

}  // namespace

CProcessApi::~CProcessApi() {
  m_trackedProcesses.clear();
}

ResultCode CProcessApi::Launch(ProcessAttributes& attributes, const char* program, ...) {
  std::vector<const char*> argv;
  if (program != nullptr) {
    argv.push_back(program);
    va_list arguments;
    va_start(arguments, program);
    for (const char* argument = va_arg(arguments, const char*); argument != nullptr;
         argument = va_arg(arguments, const char*)) {
      argv.push_back(argument);
    }
    va_end(arguments);
  }
  return Launch(attributes, argv);
}

ResultCode CProcessApi::Launch(ProcessAttributes& attributes,
                               const std::vector<const char*>& argv) {
  attributes.pid = 0;
  if (argv.empty() || argv[0] == nullptr)
    return PROCESS_API_ERROR_BAD_PARAMETER;

  ChildPlan plan;
  plan.argv.reserve(argv.size() + 1);
  for (const char* argument : argv)
    plan.argv.push_back(const_cast<char*>(argument));  // exec does not write to them
  plan.argv.push_back(nullptr);

  // With a folder the name always holds a "/", so PATH is never searched;
  // an empty folder makes "/program".
  if (attributes.path != nullptr) {
    plan.fullPath = attributes.path;
    plan.fullPath += "/";
  }
  plan.fullPath += argv[0];

  if (attributes.verifySignature) {
    if (m_pVerifier == nullptr) {
      KLOG_RC(LOG_LEVEL_E, "VerifyFileSignature IsValid", PROCESS_API_ERROR_BAD_HANDLE);
      return PROCESS_API_ERROR_BAD_HANDLE;
    }
    // For a shell, what runs is the script.
    const char* judged = plan.fullPath.c_str();
    if (IsShell(plan.fullPath) && argv.size() > 1 && argv[1] != nullptr)
      judged = argv[1];
    const ResultCode code = m_pVerifier->VerifyFileSignature(judged, attributes.signatureInputs);
    if (code != 0) {
      KLOG_RC(LOG_LEVEL_E, "VerifyFileSignature IsValid", code);
      return code;
    }
  }

  plan.switchUser = attributes.runAsUser && attributes.userName != nullptr;
  if (plan.switchUser && attributes.display != nullptr) {
    // Looked up before fork, so that a missing account is the caller's
    // answer rather than a child's.
    // The reentrant form, since other threads may look up accounts too.
    passwd record{};
    passwd* entry = nullptr;
    std::vector<char> strings(kAccountBufferSize);
    const int error =
        getpwnam_r(attributes.userName, &record, strings.data(), strings.size(), &entry);
    if (entry == nullptr) {
      KLOG_RC(LOG_LEVEL_E, "getpwnam", static_cast<ResultCode>(error));
      return PROCESS_API_ERROR_NO_USER_TOKEN;
    }
    BuildDisplayEnvironment(*entry, attributes.display, plan.displayEntry, plan.xauthorityEntry);
    plan.userEnvironment[0] = plan.displayEntry;
    plan.userEnvironment[1] = plan.xauthorityEntry;
  }
  CUnixImpersonate user(plan.switchUser ? attributes.userName : nullptr);

  // A detached start is meant to outlive its caller, so only it goes
  // without a keeper.
  const pid_t child =
      ForkChildProcess(attributes.detached ? ChildKind::kDetached : ChildKind::kContained);
  if (child < 0) {
    KLOG_RC(LOG_LEVEL_E, "fork", static_cast<ResultCode>(errno));
    return PROCESS_API_ERROR_UNKNOWN;
  }
  if (child == 0)
    RunChild(attributes, plan, user);

  if (attributes.detached) {
    // The intermediate child ends at once; its child belongs to nobody.
    int status = 0;
    if (CollectChildProcess(child, &status, 0) != child)
      KLOG_RC(LOG_LEVEL_E, "waitpid", static_cast<ResultCode>(errno));
    attributes.pid = 0;
  } else {
    // Nothing collects the child before this: the tool never waits for
    // any child but a named one.
    m_children[child].reset(OpenProcessHandle(child));
    attributes.pid = child;
  }
  return 0;
}

void CProcessApi::forgetChild(int32_t pid) {
  m_children.erase(pid);
}

ResultCode CProcessApi::WaitForProcess(int32_t pid, int32_t* exitCode, CCEvent* stopEvent,
                                       bool /*spareFlag*/, uint32_t timeoutMs) {
  if (exitCode != nullptr)
    *exitCode = 1;
  // Stays -1 when time runs out, which reads as "not a normal end" below.
  int status = -1;

  if (stopEvent == nullptr && timeoutMs == PROCESS_API_WAIT_INFINITE) {
    const pid_t answer = CollectChildProcess(pid, &status, 0);
    if (answer < 0) {
      KLOG_E("waitpid failed: %s", errnoText(errno).c_str());
      return PROCESS_API_ERROR_UNKNOWN;
    }
    forgetChild(answer);
  } else {
    m_waitStart = getTickMillis();
    for (;;) {
      if (getTickMillis() - m_waitStart >= timeoutMs)
        break;
      int polled = 0;
      const pid_t answer = CollectChildProcess(pid, &polled, WNOHANG);
      if (answer < 0) {
        KLOG_E("waitpid failed: %s", errnoText(errno).c_str());
        return PROCESS_API_ERROR_UNKNOWN;
      }
      if (answer > 0) {
        forgetChild(answer);
        status = polled;
        break;
      }
      if (stopEvent == nullptr) {
        sleepMillis(kPollIntervalMs);
        continue;
      }
      const ResultCode waited = stopEvent->WaitEvent(kPollIntervalMs);
      if (waited == 0)
        return PROCESS_API_ERROR_WAIT_INTERRUPTED;
      if (waited != EVENT_ERROR_WAIT_TIMEOUT)
        return PROCESS_API_ERROR_UNKNOWN;
    }
  }

  // One code for two cases: ended by a signal, or still -1 because time ran
  // out.
  if ((status & kSignalBits) != 0)
    return PROCESS_API_ERROR_WAIT_TIMEOUT;
  if (exitCode != nullptr)
    *exitCode = (status >> 8) & 0xFF;
  return 0;
}

ResultCode CProcessApi::PollProcess(int32_t pid) {
  int status = 0;
  const pid_t answer = CollectChildProcess(pid, &status, WNOHANG);
  if (answer == 0)
    return 0;
  if (answer > 0) {
    forgetChild(answer);
    return PROCESS_API_ERROR_NOTRUNNING;
  }
  return PROCESS_API_ERROR_UNKNOWN;
}

ResultCode CProcessApi::KillProcess(int32_t pid) {
  // 0 and negative ids name whole process groups, or every process.
  if (pid <= 0) {
    KLOG_E("Refusing to signal process id %d", pid);
    return PROCESS_API_ERROR_BAD_PARAMETER;
  }
  const auto child = m_children.find(pid);
  if (child == m_children.end())
    return PROCESS_API_ERROR_UNKNOWN;
  if (!SignalProcessHandle(child->second.get(), pid, SIGTERM)) {
    // Collected elsewhere: the number may be another process's by now.
    forgetChild(pid);
    return PROCESS_API_ERROR_UNKNOWN;
  }
  int status = 0;
  CollectChildProcess(pid, &status, 0);
  forgetChild(pid);
  return 0;
}

ResultCode CProcessApi::SetFileVerifier(IFileSignatureVerifier* verifier) {
  if (verifier == nullptr)
    return PROCESS_API_ERROR_BAD_PARAMETER;
  m_pVerifier = verifier;
  return 0;
}

ResultCode CProcessApi::SetThreadPriority(int32_t* priority) {
  if (priority == nullptr)
    return PROCESS_API_ERROR_BAD_PARAMETER;
  // -1 is also a valid priority, so only errno tells a failure.
  errno = 0;
  const int previous = getpriority(PRIO_PROCESS, 0);
  if (previous == -1 && errno != 0) {
    KLOG_RC(LOG_LEVEL_W, "getpriority", PROCESS_API_ERROR_GET_THREAD_PRIORITY_FAILED);
    return PROCESS_API_ERROR_GET_THREAD_PRIORITY_FAILED;
  }
  if (setpriority(PRIO_PROCESS, 0, *priority) != 0) {
    KLOG_RC(LOG_LEVEL_W, "setpriority", PROCESS_API_ERROR_SET_THREAD_PRIORITY_FAILED);
    return PROCESS_API_ERROR_SET_THREAD_PRIORITY_FAILED;
  }
  *priority = previous;
  return 0;
}

ResultCode CProcessApi::ReadProcessExePath(int32_t pid, char* buffer, size_t size,
                                           const HostPaths& paths) {
  if (buffer == nullptr || size == 0)
    return PROCESS_API_ERROR_BAD_PARAMETER;
  const std::string link = paths.procRoot + "/" + std::to_string(pid) + "/exe";
  const ssize_t length = readlink(link.c_str(), buffer, size);
  if (length < 0) {
    buffer[0] = '\0';
    return errno == ENOENT ? PROCESS_API_ERROR_PROCESS_NOT_FOUND : PROCESS_API_ERROR_UNEXPECTED;
  }
  buffer[std::min(static_cast<size_t>(length), size - 1)] = '\0';
  return 0;
}

bool CProcessApi::IsProcessRunnable(int32_t pid, const HostPaths& paths) {
  const std::string path = paths.procRoot + "/" + std::to_string(pid) + "/stat";
  FileHandle file(fopen(path.c_str(), "r"));
  if (!file)
    return false;
  // The state follows the first ")" and one blank.
  int character;
  while ((character = fgetc(file.get())) != EOF && character != ')') {
  }
  if (character == EOF || fgetc(file.get()) == EOF)
    return false;
  const int state = fgetc(file.get());
  return state == 'R' || state == 'S' || state == 'D';
}

void CProcessApi::BuildDisplayEnvironment(const passwd& entry, const char* display,
                                          char (&displayEntry)[256],
                                          char (&xauthorityEntry)[4096]) {
  const char* home = entry.pw_dir != nullptr && entry.pw_dir[0] != '\0' ? entry.pw_dir : "/";
  boundedFormat(displayEntry, sizeof(displayEntry), "%s=%s", "DISPLAY",
                display != nullptr ? display : "");
  boundedFormat(xauthorityEntry, sizeof(xauthorityEntry), "%s=%s/%s", "XAUTHORITY", home,
                ".Xauthority");
}
