// Runs one command line through the system shell and hands back its
// standard output: into a stream, a string, or a list of lines.
//
// Standard error is not captured, and the command's exit status has no
// effect on the result: 0 means the output was read to its end. The end
// comes when the command and everything it started have ended (they are
// ended together: ChildProcess.h) and the pipe is empty, or at most two
// seconds later if a process outside that tree still holds the pipe open.
// There is no timeout while the command runs.
//
// Threads: an object belongs to one caller; separate objects may run on
// separate threads at once.
#ifndef COMMON_UTILITY_COMMANDSHELL_H_
#define COMMON_UTILITY_COMMANDSHELL_H_

#include <ostream>
#include <string>
#include <vector>

#include "Common/Result/ResultCode.h"

class CCommandShell {
 public:
  // A null `command` gives an empty one.
  explicit CCommandShell(const char* command);
  virtual ~CCommandShell() = default;

  CCommandShell(const CCommandShell&) = delete;
  CCommandShell& operator=(const CCommandShell&) = delete;

  // Writes the output to `output`. GLOBAL_ERROR_NOT_INITIALIZED, running
  // nothing, when the command is empty.
  ResultCode Execute(std::ostream& output);
  // The whole output, also what was read before a failure.
  // GLOBAL_ERROR_NOT_INITIALIZED, running nothing, when the command is empty.
  ResultCode Execute(std::string& output);
  // Appends the output's lines to `lines`: only parts ended by "\n" count,
  // each cut at its first "\r"; empty lines are kept. An empty command is
  // handed to the shell like any other.
  ResultCode Execute(std::vector<std::string>& lines);
  // The same for `command`; GLOBAL_ERROR_BAD_PARAMETER for a null one.
  static ResultCode Execute(const char* command, std::vector<std::string>& lines);
  // Runs the command and logs its output and duration at information level.
  ResultCode ExecuteAndLogResults();

  const std::string& GetCommand() const { return m_command; }

 private:
  // Runs /bin/sh -c `command` (standard input from /dev/null, no inherited
  // descriptors, its own process group, below a keeper), copies its output
  // in blocks of up to 1024 bytes, and collects it. A failure to start is
  // logged as "popen", one to read as "fread".
  static ResultCode runInto(const char* command, std::ostream& output);
  static ResultCode runIntoLines(const char* command, std::vector<std::string>& lines);
  static void splitLines(const std::string& text, std::vector<std::string>& lines);

  std::string m_command;
};

#endif  // COMMON_UTILITY_COMMANDSHELL_H_
