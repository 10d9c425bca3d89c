#include "Common/Utility/CommandShell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ProcessMarkers.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::LogCapture;
using keeltest::TempDir;

using keeltest::NoChildLeft;
using keeltest::WriteScript;

std::vector<std::string> Lines(const char* command, ResultCode* result) {
  std::vector<std::string> lines;
  *result = CCommandShell(command).Execute(lines);
  return lines;
}

TEST(CCommandShell, CommandWritingNothingGivesAnEmptyStream) {
  CCommandShell shell("true");
  std::ostringstream output;
  EXPECT_EQ(shell.Execute(output), 0u);
  EXPECT_EQ(output.str(), "");
  EXPECT_TRUE(output.good());
  EXPECT_TRUE(NoChildLeft());
}

TEST(CCommandShell, OutputOfExactly1024BytesIsComplete) {
  TempDir dir;
  const std::string script = WriteScript(dir, "kb.sh",
                                         "i=0; while [ $i -lt 64 ]; do printf '0123456789abcdef'; "
                                         "i=$((i+1)); done");
  CCommandShell shell(script.c_str());
  std::ostringstream output;
  EXPECT_EQ(shell.Execute(output), 0u);
  std::string expected;
  for (int i = 0; i < 64; ++i)
    expected += "0123456789abcdef";
  ASSERT_EQ(expected.size(), 1024u);
  EXPECT_EQ(output.str(), expected);
}

TEST(CCommandShell, OutputAroundTheBlockSizeIsComplete) {
  for (int size : {1, 1023, 1025, 2048, 2049}) {
    const std::string command = "yes x | tr -d '\\n' | head -c " + std::to_string(size);
    std::string output;
    EXPECT_EQ(CCommandShell(command.c_str()).Execute(output), 0u);
    EXPECT_EQ(output, std::string(size, 'x')) << size;
  }
}

TEST(CCommandShell, MegabytesReachTheStreamUncut) {
  // 300,000 lines of 17 bytes: about 5 MB.
  CCommandShell shell("yes 0123456789abcdef | head -n 300000");
  std::ostringstream output;
  EXPECT_EQ(shell.Execute(output), 0u);
  const std::string text = output.str();
  ASSERT_EQ(text.size(), 300000u * 17u);
  for (size_t offset = 0; offset < text.size(); offset += 17 * 9973)
    ASSERT_EQ(text.compare(offset, 17, "0123456789abcdef\n"), 0) << offset;
  EXPECT_EQ(text.compare(text.size() - 17, 17, "0123456789abcdef\n"), 0);
  EXPECT_TRUE(NoChildLeft());
}

TEST(CCommandShell, BinaryOutputIsKeptByteForByte) {
  std::string output;
  EXPECT_EQ(CCommandShell("printf 'a\\000b\\377c'").Execute(output), 0u);
  EXPECT_EQ(output, std::string("a\0b\xff"
                                "c",
                                5));
}

TEST(CCommandShell, LinesEndingInCarriageReturnLineFeedLoseTheCarriageReturn) {
  ResultCode result = 1;
  const auto lines = Lines("printf 'one\\r\\ntwo\\r\\n'", &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two"}));
}

TEST(CCommandShell, TextBehindACarriageReturnIsDropped) {
  ResultCode result = 1;
  const auto lines = Lines("printf 'keep\\rdrop\\rmore\\nnext\\n'", &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"keep", "next"}));
}

TEST(CCommandShell, TextWithoutFinalLineFeedLosesItsLastPart) {
  ResultCode result = 1;
  const auto lines = Lines("printf 'a\\nb'", &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"a"}));
  const auto none = Lines("printf 'no line feed'", &result);
  EXPECT_EQ(result, 0u);
  EXPECT_TRUE(none.empty());
}

TEST(CCommandShell, EmptyLinesAreKept) {
  ResultCode result = 1;
  const auto lines = Lines("printf '\\n\\nx\\n\\r\\n'", &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"", "", "x", ""}));
}

TEST(CCommandShell, LinesAreAppendedToTheList) {
  std::vector<std::string> lines = {"before"};
  EXPECT_EQ(CCommandShell("echo after").Execute(lines), 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"before", "after"}));
}

TEST(CCommandShell, MissingCommandGivesResultZero) {
  std::string output = "old";
  EXPECT_EQ(CCommandShell("keel-no-such-command-xyz 2>/dev/null").Execute(output), 0u);
  EXPECT_EQ(output, "");
  // The shell's complaint goes to standard error, which is not captured.
  std::ostringstream stream;
  EXPECT_EQ(CCommandShell("keel-no-such-command-xyz").Execute(stream), 0u);
  EXPECT_EQ(stream.str(), "");
  EXPECT_TRUE(NoChildLeft());
}

TEST(CCommandShell, ExitStatusHasNoEffect) {
  std::string output;
  EXPECT_EQ(CCommandShell("echo partial; exit 3").Execute(output), 0u);
  EXPECT_EQ(output, "partial\n");
}

TEST(CCommandShell, StandardErrorIsNotCaptured) {
  std::string output;
  EXPECT_EQ(CCommandShell("echo out; echo err 1>&2").Execute(output), 0u);
  EXPECT_EQ(output, "out\n");
}

TEST(CCommandShell, EmptyCommandRunsNothingInTheStreamAndStringForms) {
  CCommandShell empty("");
  std::ostringstream stream;
  EXPECT_EQ(empty.Execute(stream), GLOBAL_ERROR_NOT_INITIALIZED);
  std::string text = "untouched";
  EXPECT_EQ(empty.Execute(text), GLOBAL_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(text, "untouched");
  CCommandShell null(nullptr);
  EXPECT_EQ(null.GetCommand(), "");
  EXPECT_EQ(null.Execute(stream), GLOBAL_ERROR_NOT_INITIALIZED);
}

TEST(CCommandShell, EmptyCommandIsHandedToTheShellInTheListForm) {
  std::vector<std::string> lines;
  EXPECT_EQ(CCommandShell("").Execute(lines), 0u);
  EXPECT_TRUE(lines.empty());
  EXPECT_TRUE(NoChildLeft());
}

TEST(CCommandShell, StaticListForm) {
  std::vector<std::string> lines;
  EXPECT_EQ(CCommandShell::Execute(nullptr, lines), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(CCommandShell::Execute("printf 'x\\ny\\n'", lines), 0u);
  EXPECT_EQ(lines, (std::vector<std::string>{"x", "y"}));
}

TEST(CCommandShell, CommandWithBlanksAndQuotesReachesTheShell) {
  TempDir dir;
  const std::string script = WriteScript(dir, "my tool.sh", "printf '%s|' \"$@\"");
  const std::string command = "'" + script + "' 'a b' c";
  std::string output;
  EXPECT_EQ(CCommandShell(command.c_str()).Execute(output), 0u);
  EXPECT_EQ(output, "a b|c|");
}

TEST(CCommandShell, ResultsAreLoggedAsOneInformationLine) {
  LogCapture capture;
  CCommandShell shell("printf 'a\\nb\\r\\n'");
  EXPECT_EQ(shell.ExecuteAndLogResults(), 0u);
  const auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, LOG_LEVEL_I);
  // "...\nCommand '<command>' took <digits> ms. Output: a\nb"
  const std::string& message = records[0].message;
  const std::string head = "\nCommand 'printf 'a\\nb\\r\\n'' took ";
  const std::string tail = " ms. Output: a\nb";
  const size_t at = message.find(head);
  ASSERT_NE(at, std::string::npos) << message;
  ASSERT_GE(message.size(), at + head.size() + tail.size());
  EXPECT_EQ(message.substr(message.size() - tail.size()), tail) << message;
  const std::string digits =
      message.substr(at + head.size(), message.size() - tail.size() - at - head.size());
  EXPECT_FALSE(digits.empty());
  EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << message;
}

TEST(CCommandShell, SilentCommandLogsAnEmptyOutput) {
  LogCapture capture;
  EXPECT_EQ(CCommandShell("true").ExecuteAndLogResults(), 0u);
  const auto records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  const std::string& message = records[0].message;
  const std::string tail = " ms. Output: ";
  ASSERT_GE(message.size(), tail.size());
  EXPECT_EQ(message.substr(message.size() - tail.size()), tail);
  EXPECT_NE(message.find("\nCommand 'true' took "), std::string::npos);
}

TEST(CCommandShell, FailedStartIsLoggedAndReturned) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    LogCapture capture;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;  // no descriptor number left for popen's pipe
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
      _exit(10);
    std::ostringstream stream;
    if (CCommandShell("echo x").Execute(stream) != GLOBAL_ERROR_UNEXPECTED)
      _exit(11);
    if (!capture.Contains("Invoked Function: popen\n"))
      _exit(12);
    capture.logger().Clear();
    if (CCommandShell("echo x").ExecuteAndLogResults() != GLOBAL_ERROR_UNEXPECTED)
      _exit(13);
    if (!capture.Contains("Invoked Function: CCommandShell::Execute\n"))
      _exit(14);
    if (capture.Contains("Command '"))
      _exit(15);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(CCommandShellConcurrency, SeveralCommandsAtOnceKeepTheirOwnOutput) {
  constexpr int kThreads = 4;
  std::vector<std::string> outputs(kThreads);
  std::vector<ResultCode> results(kThreads, 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &outputs, &results] {
      const std::string command = "yes line" + std::to_string(i) + " | head -n 20000; sleep 0.05";
      std::ostringstream stream;
      results[i] = CCommandShell(command.c_str()).Execute(stream);
      outputs[i] = stream.str();
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(results[i], 0u);
    std::string expected;
    for (int line = 0; line < 20000; ++line)
      expected += "line" + std::to_string(i) + "\n";
    EXPECT_EQ(outputs[i], expected) << i;
  }
  EXPECT_TRUE(NoChildLeft());
}

}  // namespace

// ---- What the started command inherits ------------------------------------

namespace {

// Runs `command` in a child whose standard input is the read end of an open
// pipe (as a tool started from a pipeline has) and which holds a pipe
// without close-on-exec; returns the command's output, or "<failed>".
std::string OutputWithOpenInputPipe(const std::string& command, const std::string& scratch) {
  const int answer = keeltest::RunInChild([&] {
    int input[2];
    int leaked[2];
    if (pipe(input) != 0 || pipe(leaked) != 0)
      return 3;
    dup2(input[0], STDIN_FILENO);
    std::string output;
    if (CCommandShell(command.c_str()).Execute(output) != 0)
      return 1;
    return keeltest::WriteFile(scratch, output) ? 0 : 2;
  });
  return answer == 0 ? keeltest::ReadFile(scratch) : "<failed>";
}

// Runs `body` while a guard waits for it for up to `limitSeconds`; past
// that the guard calls `unblock` (which ends what holds `body` up) and the
// answer is false. A hang guard, not a measure of time.
bool ReturnsWithoutHelp(const std::function<void()>& body, const std::function<void()>& unblock,
                        int limitSeconds) {
  std::mutex lock;
  std::condition_variable changed;
  bool returned = false;
  bool helped = false;
  std::thread guard([&] {
    std::unique_lock<std::mutex> held(lock);
    if (!changed.wait_for(held, std::chrono::seconds(limitSeconds), [&] { return returned; })) {
      helped = true;
      unblock();
    }
  });
  body();
  {
    std::lock_guard<std::mutex> held(lock);
    returned = true;
  }
  changed.notify_all();
  guard.join();
  return !helped;
}

}  // namespace

TEST(CCommandShell, DaemonKeepingTheOutputOpenEndsWithTheCommand) {
  keeltest::TempDir dir;
  const std::string marker = dir.Sub("helper.sh");
  // The helper keeps the command's standard output open in a session of
  // its own; the command itself ends at once.
  const std::string command =
      keeltest::StartSessionLeavingHelper(dir.path(), false) + "echo done";
  std::string output;
  ResultCode result = 1;
  EXPECT_TRUE(ReturnsWithoutHelp([&] { result = CCommandShell(command.c_str()).Execute(output); },
                                 [&] { keeltest::KillProcessesWithMarker(marker); }, 60));
  EXPECT_EQ(0u, result);
  EXPECT_EQ("done\n", output);
  EXPECT_TRUE(keeltest::ProcessesWithMarker(marker).empty());
  EXPECT_TRUE(NoChildLeft());
  keeltest::KillProcessesWithMarker(marker);
}

TEST(CCommandShell, ProcessOutsideTheCommandHoldingTheOutputDoesNotHoldTheRead) {
  keeltest::TempDir dir;
  const std::string pidFile = dir.Sub("shell.pid");
  const std::string held = dir.Sub("held");
  // Not started by the command: it opens the command's output pipe anew
  // through /proc and keeps it open for a minute.
  const pid_t holder = fork();
  if (holder == 0) {
    std::string pid;
    for (int i = 0; i < 3000 && (pid = keeltest::ReadFile(pidFile)).find('\n') == std::string::npos;
         ++i)
      usleep(10000);
    const int fd = open(("/proc/" + pid.substr(0, pid.find('\n')) + "/fd/1").c_str(), O_WRONLY);
    keeltest::WriteFile(held, fd >= 0 ? "yes" : "no");
    sleep(60);
    _exit(0);
  }
  ASSERT_GT(holder, 0);
  const std::string command = "echo $$ > '" + pidFile + "'; while [ ! -e '" + held +
                              "' ]; do sleep 0.01; done; echo done";
  std::string output;
  ResultCode result = 1;
  EXPECT_TRUE(ReturnsWithoutHelp([&] { result = CCommandShell(command.c_str()).Execute(output); },
                                 [&] { kill(holder, SIGKILL); }, 60));
  EXPECT_EQ(0u, result);
  EXPECT_EQ("done\n", output);
  EXPECT_EQ("yes", keeltest::ReadFile(held));
  int status = 0;
  EXPECT_EQ(0, waitpid(holder, &status, WNOHANG)) << "the holder is still to run";
  kill(holder, SIGKILL);
  waitpid(holder, &status, 0);
}

TEST(CCommandShell, CommandReadsNothingFromTheToolsInput) {
  // `cat` would wait for ever on the open pipe; it must see /dev/null.
  keeltest::TempDir dir;
  EXPECT_EQ(
      "/dev/null\nread nothing\n",
      OutputWithOpenInputPipe("readlink /proc/self/fd/0; cat; echo read nothing", dir.Sub("out")));
}

TEST(CCommandShell, CommandInheritsNoDescriptorOfTheTool) {
  // ls holds its own listing open as descriptor 3.
  keeltest::TempDir dir;
  EXPECT_EQ("0\n1\n2\n3\n", OutputWithOpenInputPipe("ls /proc/self/fd", dir.Sub("out")));
}

TEST(CCommandShell, CommandLeadsAProcessGroupOfItsOwn) {
  std::string output;
  ASSERT_EQ(0u, CCommandShell("echo $$; cut -d' ' -f5 /proc/$$/stat").Execute(output));
  const size_t lineEnd = output.find('\n');
  ASSERT_NE(std::string::npos, lineEnd) << output;
  EXPECT_EQ(output.substr(0, lineEnd + 1), output.substr(lineEnd + 1));
  EXPECT_NE(std::to_string(getpgrp()) + "\n", output.substr(0, lineEnd + 1));
}
