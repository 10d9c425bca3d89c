// Helpers shared by the unit and end-to-end tests: temporary folders, files,
// a log sink that records what it receives, and running commands.
#ifndef TESTS_SUPPORT_TESTSUPPORT_H_
#define TESTS_SUPPORT_TESTSUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/Log/Log.h"

// Skips the running test under the address sanitizer: for tests that run
// out of descriptors or threads on purpose, since the sanitizer's runtime
// makes pipes and threads of its own (the leak check at exit runs on one)
// and reports false errors when it gets none.
#if defined(__SANITIZE_ADDRESS__)
#define KEEL_SKIP_UNDER_ADDRESS_SANITIZER() GTEST_SKIP() << "not under sanitizers"
#else
#define KEEL_SKIP_UNDER_ADDRESS_SANITIZER() static_cast<void>(0)
#endif

// For a child run by keeltest::RunWithTmpfsAt: skips the running test when
// the child could not have mounts of its own, and otherwise expects the
// child's exit status to be 0.
#define KEEL_EXPECT_ISOLATED_CHILD_PASSED(status)        \
  do {                                                   \
    if ((status) == keeltest::kCannotIsolate)            \
      GTEST_SKIP() << "no private mount namespace here"; \
    EXPECT_EQ((status), 0);                              \
  } while (0)

namespace keeltest {

// A fresh folder below /tmp, removed with everything in it on destruction
// (read and execute rights are restored first, so unreadable test folders go
// too). path() ends without "/".
class TempDir {
 public:
  // A folder below `base`, which must exist.
  explicit TempDir(const std::string& base = "/tmp");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return m_path; }
  // path() + "/" + relative
  std::string Sub(const std::string& relative) const { return m_path + "/" + relative; }
  // Writes `content` to each of `relatives` below the folder, making parent
  // folders; false once one cannot be written.
  bool WriteEach(std::initializer_list<std::string> relatives,
                 const std::string& content = "") const;

 private:
  std::string m_path;
};

// Makes the process work in `folder` for the life of the object; a folder
// that cannot be entered fails the running test.
class ScopedCwd {
 public:
  explicit ScopedCwd(const std::string& folder);
  ~ScopedCwd();
  ScopedCwd(const ScopedCwd&) = delete;
  ScopedCwd& operator=(const ScopedCwd&) = delete;
  bool ok() const { return m_ok; }

 private:
  std::string m_old;
  bool m_ok = false;
};

// Writes `content` to `path`, making parent folders; returns success.
bool WriteFile(const std::string& path, const std::string& content);
// The whole content of `path`, or "<missing>" if it can't be read.
std::string ReadFile(const std::string& path);
bool PathExists(const std::string& path);
// Names in a folder, sorted; empty if it can't be read.
std::vector<std::string> ListDir(const std::string& path);

struct LogRecord {
  uint32_t severity;
  std::string message;
  std::string name;
  uint32_t id;
  uint32_t level;
};

// A sink that keeps every record; thread-safe.
class CapturingLogger : public ILogger {
 public:
  ResultCode Log(uint32_t severity, const char* message, const char* messageName,
                 uint32_t messageId, uint32_t level) override;
  std::vector<LogRecord> Records() const;
  // True if some record's message contains `text`.
  bool Contains(const std::string& text) const;
  // Number of records whose message contains `text`.
  size_t Count(const std::string& text) const;
  void Clear();

 private:
  mutable std::mutex m_mutex;
  std::vector<LogRecord> m_records;
};

// Opens a log scope whose sink is a CapturingLogger for the life of the
// object. Only one may be alive at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  CapturingLogger& logger() { return *m_logger; }
  bool Contains(const std::string& text) const { return m_logger->Contains(text); }
  size_t Count(const std::string& text) const { return m_logger->Count(text); }

 private:
  CapturingLogger* m_logger;  // owned by the scope
  std::unique_ptr<CLogScope> m_scope;
};

struct CommandResult {
  int status = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;
};

// Runs `argv` with `env` added to (or replacing, with clearEnv) the
// environment, in `cwd` if not empty, feeding no input. Captures both streams.
CommandResult Run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                  const std::string& cwd = "", bool clearEnv = false);

// `text` as one single-quoted word of a shell command line.
std::string ShellQuote(const std::string& text);

// Runs a shell command line and returns its standard output.
std::string Shell(const std::string& command, int* status = nullptr);

// Entry names of a zip file in the archive's own order, and sorted; the
// bytes of one entry. Read by Python's zipfile after testzip() found no fault.
std::vector<std::string> ZipEntryNames(const std::string& archive);
std::vector<std::string> SortedZipEntryNames(const std::string& archive);
std::string ZipEntry(const std::string& archive, const std::string& name);

// Runs `body` in a forked child; the answer is its exit status, or -1 when
// the child did not end normally. For tests that change process-wide state
// (limits, signal dispositions, the umask).
int RunInChild(const std::function<int()>& body);

// Runs `body` in a forked child and returns the text it returned (sent back
// through a pipe); "<no pipe>" when no pipe can be made. For tests whose
// child changes its identity or limits.
std::string TextFromChild(const std::function<std::string()>& body);

// The unprivileged user the tests switch to (uid and gid 65534).
constexpr uid_t kNobody = 65534;
// What RunAsNobody answers when the child cannot become that user.
constexpr int kCannotBecomeNobody = 77;
// RunInChild and TextFromChild as kNobody: supplementary groups dropped,
// gid and uid changed first. "<no setuid>" from TextAsNobody when that fails.
int RunAsNobody(const std::function<int()>& body);
std::string TextAsNobody(const std::function<std::string()>& body);

// Whole milliseconds since `start` on the steady clock.
uint32_t MillisSince(std::chrono::steady_clock::time_point start);

// Gives the calling process mounts of its own: a new mount namespace whose
// changes do not reach the host. False when the host refuses it.
bool EnterPrivateMounts();
// Mounts an empty tmpfs of at most `size` (as mount takes it: "4m", "64k")
// on `folder`; false on failure.
bool MountTmpfs(const std::string& folder, const std::string& size = "4m");
// What RunWithTmpfsAt answers when the child cannot have its own mounts.
constexpr int kCannotIsolate = 78;
// RunInChild with private mounts and an empty tmpfs on `folder`, so that a
// fixed system path can be used without touching the host's.
int RunWithTmpfsAt(const std::string& folder, const std::function<int()>& body);

// The folder holding the test binaries (the build folder's top).
std::string BuildDir();

// The top of the source tree this build was configured from; tests find
// their data files below it.
std::string SourceDir();

// Writes `body` as a /bin/sh script at `path` (a "#!/bin/sh" line is put in
// front and a newline after it) and makes it executable; returns success.
bool WriteScript(const std::string& path, const std::string& body);
// The same at `dir`/`name`; returns the script's path.
std::string WriteScript(const TempDir& dir, const std::string& name, const std::string& body);

// True when the test process has no child left, collected or not.
bool NoChildLeft();

}  // namespace keeltest

#endif  // TESTS_SUPPORT_TESTSUPPORT_H_
