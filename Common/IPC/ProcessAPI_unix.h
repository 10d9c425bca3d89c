// Starting a program and watching it, over fork, exec and waitpid.
//
// CProcessApi is shared by the client family's programs, so it can also run
// a program as another user with that user's display, start it detached
// (through a second fork, so that nobody has to collect it), and have a
// signature checker judge the program first. A start failure inside the child
// is only an exit code: 238 when the program does not exist, 239 for any other
// exec failure, 255 when the child could not become the requested user or
// set its environment.
//
// Launch, WaitForProcess, PollProcess and KillProcess are virtual: a test
// stands in for the host's processes by deriving from this class.
//
// Ownership: the object does not own the signature checker. Whoever
// launches collects with WaitForProcess, PollProcess or KillProcess. Each
// program runs below a keeper that ends its whole tree (ChildProcess.h);
// the pid handed out is the keeper's. The object holds a pidfd for each
// child it launched and has not collected yet, and signals only those: a
// pid it collected, or never launched, is never signalled, whoever has the
// number now.
//
// Threads: one object per caller. Launch may run on any thread; the child
// does only what the launch request asks for before exec. A waitpid for
// process id 0 on any thread may collect any child of the process.
#ifndef COMMON_IPC_PROCESSAPI_UNIX_H_
#define COMMON_IPC_PROCESSAPI_UNIX_H_

#include <pwd.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <vector>

#include "Common/Result/ResultCode.h"
#include "Common/Utility/HostPaths.h"
#include "Common/Utility/ScopedHandles.h"

class CCEvent;

// A wait time meaning "until the process ends".
constexpr uint32_t PROCESS_API_WAIT_INFINITE = 0xFFFFFFFFu;

// Exit codes of a child whose start failed.
constexpr int PROCESS_API_EXIT_NOT_FOUND = 238;
constexpr int PROCESS_API_EXIT_EXEC_FAILED = 239;
constexpr int PROCESS_API_EXIT_SETUP_FAILED = 255;  // _exit(-1)

// What a signature checker is told besides the file.
struct SignatureCheckInputs {
  const char* expectedSigner = nullptr;
  const char* trustStorePath = nullptr;
  uint32_t checkFlags = 0;
  uint32_t minimumKeyBits = 2048;
};

// The launch request. Everything is off, empty or null unless set.
struct ProcessAttributes {
  bool runAsUser = false;          // switch to userName in the child
  bool spareFlag = false;          // not read by Launch
  const char* path = nullptr;      // folder of the program; null for none
  const char* workDir = nullptr;   // folder the child enters; null for none
  const char* display = nullptr;   // the user's display; null for none
  bool verifySignature = false;    // have the checker judge the program first
  uint32_t launchFlags = 0;        // not read by Launch
  bool inheritStdout = false;      // not read by Launch: the child always inherits
  bool inheritStderr = false;      // not read by Launch: the child always inherits
  const char* userName = nullptr;  // account to switch to
  // Null-terminated "NAME=value" entries added with putenv in the child; the
  // texts must outlive the Launch call.
  const char* const* environment = nullptr;
  bool detached = false;  // start through a second fork; pid is then 0
  SignatureCheckInputs signatureInputs;
  int32_t pid = 0;  // out: the child, or 0 on failure or when detached
};

// Judges whether a program may be started.
class IFileSignatureVerifier {
 public:
  virtual ~IFileSignatureVerifier() = default;
  // 0 when `file` may run.
  virtual ResultCode VerifyFileSignature(const char* file, const SignatureCheckInputs& inputs) = 0;
};

class CProcessApi {
 public:
  CProcessApi() = default;
  virtual ~CProcessApi();

  CProcessApi(const CProcessApi&) = delete;
  CProcessApi& operator=(const CProcessApi&) = delete;

  // Starts `program` with the arguments that follow it, up to a null
  // pointer; `program` is also argv[0].
  virtual ResultCode Launch(ProcessAttributes& attributes, const char* program, ...);
  // Starts argv[0] with `argv` (no closing null). The program is found as
  // `path` + "/" + argv[0] when `path` is set (even when empty), else through
  // PATH. 0 once the child exists; attributes.pid is then the child.
  virtual ResultCode Launch(ProcessAttributes& attributes, const std::vector<const char*>& argv);

  // Waits for `pid` to end, polling every 20 ms, up to `timeoutMs` (or, with
  // no stop event and PROCESS_API_WAIT_INFINITE, in one blocking wait).
  // 0 with its exit code; PROCESS_API_ERROR_WAIT_TIMEOUT when time ran out or
  // the process was ended by a signal; PROCESS_API_ERROR_WAIT_INTERRUPTED when
  // `stopEvent` fired. `exitCode` may be null.
  virtual ResultCode WaitForProcess(int32_t pid, int32_t* exitCode, CCEvent* stopEvent,
                                    bool spareFlag, uint32_t timeoutMs);
  // 0 while `pid` runs; PROCESS_API_ERROR_NOTRUNNING when it has ended and
  // has now been collected; PROCESS_API_ERROR_UNKNOWN for anything else
  // (no such child, or already collected).
  virtual ResultCode PollProcess(int32_t pid);
  // Sends SIGTERM to a process this object launched and has not collected,
  // and waits until it has ended and is collected. PROCESS_API_ERROR_UNKNOWN,
  // sending nothing, for any other pid, or when the signal cannot be sent;
  // ids of 0 and below, which name process groups, are refused with
  // PROCESS_API_ERROR_BAD_PARAMETER.
  virtual ResultCode KillProcess(int32_t pid);

  // Installs the checker used when a request sets verifySignature.
  ResultCode SetFileVerifier(IFileSignatureVerifier* verifier);
  // Sets the calling process's scheduling priority to `*priority` and gives
  // the previous one back in it.
  ResultCode SetThreadPriority(int32_t* priority);

  // The target of <procRoot>/<pid>/exe into `buffer`, always terminated
  // (cut to size - 1 bytes).
  ResultCode ReadProcessExePath(int32_t pid, char* buffer, size_t size,
                                const HostPaths& paths = HostPaths());
  // True when the state in <procRoot>/<pid>/stat is R, S or D.
  bool IsProcessRunnable(int32_t pid, const HostPaths& paths = HostPaths());

  // The two environment entries given to a child that runs as `entry`'s user
  // on `display`: "DISPLAY=<display>" (in 256 bytes) and
  // "XAUTHORITY=<home>/.Xauthority" (in 4096 bytes), where a record without
  // home folder counts as "/".
  static void BuildDisplayEnvironment(const passwd& entry, const char* display,
                                      char (&displayEntry)[256], char (&xauthorityEntry)[4096]);

 private:
  // Drops what is kept for `pid` once it has been collected.
  void forgetChild(int32_t pid);

  // The children launched and not yet collected, with a pidfd each.
  std::map<int32_t, ScopedFd> m_children;
  // Kept for the family's other programs; this tool never fills it.
  std::list<int32_t> m_trackedProcesses;
  [[maybe_unused]] bool m_trackProcesses = false;
  IFileSignatureVerifier* m_pVerifier = nullptr;  // not owned
  uint32_t m_waitStart = 0;                       // start of the current wait, in ms
};

#endif  // COMMON_IPC_PROCESSAPI_UNIX_H_
