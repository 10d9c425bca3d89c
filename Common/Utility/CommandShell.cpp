#include "Common/Utility/CommandShell.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "Common/Log/Log.h"
#include "Common/Utility/ChildProcess.h"
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

// A command run by /bin/sh -c, as popen would run it, with its standard
// output on a pipe to us. Started here rather than by popen because the
// child must not inherit the tool's standard input or descriptors, and must
// lead a process group of its own (ChildProcess.h). Closing collects it.
class CPipedCommand {
 public:
  explicit CPipedCommand(const char* command) { Start(command); }
  ~CPipedCommand() { Close(); }
  CPipedCommand(const CPipedCommand&) = delete;
  CPipedCommand& operator=(const CPipedCommand&) = delete;

  FILE* get() const { return m_file; }
  // Collects the command once; a failure is only logged, it never changes
  // a result.
  void Close() {
    if (m_file == nullptr)
      return;
    fclose(m_file);
    m_file = nullptr;
    int status = 0;
    if (CollectChildProcess(m_pid, &status, 0) < 0) {
      LOG_ERRNO_FAILURE("waitpid", errno);
      ReleaseChildProcess(m_pid);
    }
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
    m_file = fdopen(ends[0], "r");
    if (m_file == nullptr) {
      close(ends[0]);
      int status = 0;
      CollectChildProcess(child, &status, 0);
    }
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

  FILE* m_file = nullptr;
  pid_t m_pid = -1;
};

}  // namespace

CCommandShell::CCommandShell(const char* command) : m_command(command != nullptr ? command : "") {}

ResultCode CCommandShell::runInto(const char* command, std::ostream& output) {
  CPipedCommand pipe(command);
  if (pipe.get() == nullptr) {
    LOG_ERRNO_FAILURE("popen", errno);
    return GLOBAL_ERROR_UNEXPECTED;
  }
  char block[kReadBlock];
  for (;;) {
    const size_t count = fread(block, 1, sizeof(block), pipe.get());
    if (count > 0)
      output.write(block, static_cast<std::streamsize>(count));
    // A short block means end of output or an error; either way we are done.
    if (count < sizeof(block))
      break;
  }
  ResultCode result = 0;
  if (ferror(pipe.get())) {
    LOG_ERRNO_FAILURE("fread", errno);
    result = GLOBAL_ERROR_UNEXPECTED;
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
