#include "Common/Utility/CommandShell.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "Common/Log/Log.h"
#include "Common/Utility/ChildProcess.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Utility/sysutils.h"

namespace {

// Bytes read from the command per fread.
constexpr size_t kReadBlock = 1024;

// Logs a failed call with errno as the code and its text.
#define LOG_ERRNO_FAILURE(invoked, error)                                             \
  do {                                                                                \
    const int saved = (error);                                                        \
    const std::string text = errnoText(saved);                                        \
    KLOG_RC_DESC(LOG_LEVEL_E, invoked, static_cast<ResultCode>(saved), text.c_str()); \
  } while (0)

// How long the output is still read once the command and everything it
// started have ended: what they wrote is in the pipe by then, so only a
// process outside the command's tree that holds the pipe open (or writes
// into it still) can use this time.
constexpr int kDrainMillis = 2000;

// A command run by /bin/sh -c, as popen would run it, with its standard
// output on a pipe to us. Started here rather than by popen because the
// child must not inherit the tool's standard input or descriptors, must
// lead a process group of its own, and runs below a keeper that ends its
// whole tree (ChildProcess.h). Closing collects it.
class CPipedCommand {
 public:
  explicit CPipedCommand(const char* command) { Start(command); }
  ~CPipedCommand() { Close(); }
  CPipedCommand(const CPipedCommand&) = delete;
  CPipedCommand& operator=(const CPipedCommand&) = delete;

  bool started() const { return m_output.valid(); }

  // Reads the next piece of output into `block`: its size, 0 at the end
  // of the output, -1 with errno on a failure. The end comes at end of
  // file, or kDrainMillis after the command's tree has ended, whoever else
  // still holds the pipe.
  ssize_t Read(char* block, size_t size) {
    for (;;) {
      pollfd watched[2] = {{m_output.get(), POLLIN, 0}, {m_keeper.get(), POLLIN, 0}};
      const nfds_t count = m_keeper.valid() && !m_ended ? 2 : 1;
      int timeout = -1;
      if (m_ended) {
        timeout = kDrainMillis - static_cast<int>(getTickMillis() - m_endedAt);
        if (timeout <= 0)
          return 0;
      }
      const int ready = poll(watched, count, timeout);
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready < 0)
        return -1;
      if (ready == 0)
        return 0;  // drained for long enough
      if (count == 2 && (watched[1].revents & POLLIN) != 0) {
        m_ended = true;
        m_endedAt = getTickMillis();
      }
      if (watched[0].revents == 0)
        continue;
      ssize_t got;
      do {
        got = read(m_output.get(), block, size);
      } while (got < 0 && errno == EINTR);
      return got;
    }
  }

  // Collects the command once; a failure is only logged, it never changes
  // a result.
  void Close() {
    if (!m_output.valid())
      return;
    m_output.reset();
    int status = 0;
    if (CollectChildProcess(m_pid, &status, 0) < 0) {
      LOG_ERRNO_FAILURE("waitpid", errno);
      ReleaseChildProcess(m_pid);
    }
    m_keeper.reset();
  }

 private:
  void Start(const char* command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
      return;
    const pid_t child = ForkChildProcess();
    if (child < 0) {
      const int error = errno;
      close(ends[0]);
      close(ends[1]);
      errno = error;
      return;
    }
    if (child == 0)
      RunShell(command, ends[1]);
    close(ends[1]);
    m_pid = child;
    m_keeper.reset(OpenProcessHandle(child));
    m_output.reset(ends[0]);
  }

  // In the child: the pipe becomes standard output, then the shell.
  [[noreturn]] static void RunShell(const char* command, int writeEnd) {
    if (writeEnd == STDOUT_FILENO)
      fcntl(writeEnd, F_SETFD, 0);
    else
      dup2(writeEnd, STDOUT_FILENO);
    PrepareChildProcess();
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }

  ScopedFd m_output;  // the pipe's reading end
  ScopedFd m_keeper;  // pidfd of the keeper; readable once the tree has ended
  pid_t m_pid = -1;
  bool m_ended = false;
  uint32_t m_endedAt = 0;
};

}  // namespace

CCommandShell::CCommandShell(const char* command) : m_command(command != nullptr ? command : "") {}

ResultCode CCommandShell::runInto(const char* command, std::ostream& output) {
  CPipedCommand pipe(command);
  if (!pipe.started()) {
    LOG_ERRNO_FAILURE("popen", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  char block[kReadBlock];
  ResultCode result = 0;
  for (;;) {
    const ssize_t count = pipe.Read(block, sizeof(block));
    if (count < 0) {
      LOG_ERRNO_FAILURE("fread", errno);
      result = GLOBAL_ERROR_UNEXPECTED;
      break;
    }
    if (count == 0)
      break;
    output.write(block, static_cast<std::streamsize>(count));
  }
  pipe.Close();
  return result;
}

void CCommandShell::splitLines(const std::string& text, std::vector<std::string>& lines) {
  size_t start = 0;
  for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    std::string line = text.substr(start, end - start);
    const size_t carriageReturn = line.find('\r');
    if (carriageReturn != std::string::npos)
      line.erase(carriageReturn);
    lines.push_back(line);
    start = end + 1;
  }
  // Whatever follows the last "\n" is not a complete line and is dropped.
}

ResultCode CCommandShell::runIntoLines(const char* command, std::vector<std::string>& lines) {
  std::ostringstream output;
  const ResultCode result = runInto(command, output);
  if (result == 0)
    splitLines(output.str(), lines);
  return result;
}

ResultCode CCommandShell::Execute(std::ostream& output) {
  if (m_command.empty())
    return GLOBAL_ERROR_NOT_INITIALIZED;
  return runInto(m_command.c_str(), output);
}

ResultCode CCommandShell::Execute(std::string& output) {
  if (m_command.empty())
    return GLOBAL_ERROR_NOT_INITIALIZED;
  std::ostringstream stream;
  const ResultCode result = runInto(m_command.c_str(), stream);
  output = stream.str();
  return result;
}

ResultCode CCommandShell::Execute(std::vector<std::string>& lines) {
  return runIntoLines(m_command.c_str(), lines);
}

ResultCode CCommandShell::Execute(const char* command, std::vector<std::string>& lines) {
  if (command == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  return runIntoLines(command, lines);
}

ResultCode CCommandShell::ExecuteAndLogResults() {
  const uint32_t start = getTickMillis();
  std::vector<std::string> lines;
  const ResultCode result = Execute(lines);
  if (result != 0) {
    KLOG_RC(LOG_LEVEL_E, "CCommandShell::Execute", result);
    return result;
  }
  std::string text;
  for (size_t index = 0; index < lines.size(); ++index) {
    if (index > 0)
      text += "\n";
    text += lines[index];
  }
  const uint32_t elapsed = getTickMillis() - start;
  KLOG_I("Command '%s' took %u ms. Output: %s", m_command.c_str(), elapsed, text.c_str());
  return 0;
}
