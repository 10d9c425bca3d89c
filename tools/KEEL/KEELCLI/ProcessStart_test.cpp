// What the entry sets up before anything else: closed standard descriptors
// are opened on /dev/null, and writes to a pipe without a reader or past
// the file-size limit fail instead of ending the process, while programs
// the tool starts keep the default actions.
#include "tools/KEEL/KEELCLI/ProcessStart.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::TempDir;

// True when `fd` is open on /dev/null.
bool OnDevNull(int fd) {
  struct stat open;
  struct stat null;
  return fstat(fd, &open) == 0 && stat("/dev/null", &null) == 0 && open.st_rdev == null.st_rdev &&
         S_ISCHR(open.st_mode);
}

TEST(ProcessStart, ClosedStandardDescriptorsAreOpenedOnDevNull) {
  const int answer = keeltest::RunInChild([] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (!makeStandardDescriptorsValid())
      return 1;
    if (!OnDevNull(STDIN_FILENO) || !OnDevNull(STDOUT_FILENO))
      return 2;
    // The next descriptor opened is a new one, not a standard stream.
    const int next = open("/dev/null", O_RDONLY);
    return next > STDERR_FILENO ? 0 : 3;
  });
  EXPECT_EQ(0, answer);
}

TEST(ProcessStart, OpenStandardDescriptorsAreKept) {
  const int answer = keeltest::RunInChild([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
      return 1;
    if (!makeStandardDescriptorsValid())
      return 2;
    if (write(STDOUT_FILENO, "x", 1) != 1)
      return 3;
    char byte = 0;
    return read(ends[0], &byte, 1) == 1 && byte == 'x' ? 0 : 4;
  });
  EXPECT_EQ(0, answer);
}

TEST(ProcessStart, WriteToAPipeWithoutReaderFailsWithEpipe) {
  const int answer = keeltest::RunInChild([] {
    catchWriteSignals();
    int ends[2];
    if (pipe(ends) != 0)
      return 1;
    close(ends[0]);
    return write(ends[1], "x", 1) < 0 && errno == EPIPE ? 0 : 2;
  });
  EXPECT_EQ(0, answer);
}

TEST(ProcessStart, WritePastTheFileSizeLimitFailsWithEfbig) {
  TempDir dir(keeltest::BuildDir());
  const std::string path = dir.Sub("limited");
  const int answer = keeltest::RunInChild([&] {
    catchWriteSignals();
    const struct rlimit limit = {4096, 4096};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
      return 1;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
      return 2;
    const std::string block(8192, 'x');
    if (write(fd, block.data(), block.size()) != 4096)
      return 3;
    return write(fd, block.data(), block.size()) < 0 && errno == EFBIG ? 0 : 4;
  });
  EXPECT_EQ(0, answer);
}

// An ignored disposition would pass through exec to every program the
// tool starts; a caught one does not.
TEST(ProcessStart, ProgramsStartWithTheDefaultWriteSignals) {
  const int answer = keeltest::RunInChild([] {
    catchWriteSignals();
    int ends[2];
    if (pipe(ends) != 0)
      return 1;
    const pid_t child = fork();
    if (child == 0) {
      dup2(ends[1], STDOUT_FILENO);
      execl("/bin/sh", "sh", "-c", "grep SigIgn /proc/self/status", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(ends[1]);
    char text[128] = {0};
    const ssize_t count = read(ends[0], text, sizeof(text) - 1);
    int status = 0;
    waitpid(child, &status, 0);
    if (count <= 0)
      return 2;
    // The mask is hexadecimal, bit n-1 for signal n.
    const unsigned long long ignored = strtoull(text + strlen("SigIgn:"), nullptr, 16);
    const unsigned long long writeSignals = (1ULL << (SIGPIPE - 1)) | (1ULL << (SIGXFSZ - 1));
    return (ignored & writeSignals) == 0 ? 0 : 3;
  });
  EXPECT_EQ(0, answer);
}

}  // namespace
