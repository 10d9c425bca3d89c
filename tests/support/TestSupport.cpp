#include "tests/support/TestSupport.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace keeltest {

TempDir::TempDir(const std::string& base) {
  std::string pattern = base + "/keeltest.XXXXXX";
  const char* made = mkdtemp(&pattern[0]);
  m_path = made != nullptr ? made : "";
}

TempDir::~TempDir() {
  if (m_path.empty())
    return;
  std::error_code error;
  // Restore rights on everything first, so that unreadable folders go too.
  Shell("chmod -R u+rwx '" + m_path + "' 2>/dev/null");
  fs::remove_all(m_path, error);
}

bool TempDir::WriteEach(std::initializer_list<std::string> relatives,
                        const std::string& content) const {
  for (const std::string& relative : relatives) {
    if (!WriteFile(Sub(relative), content))
      return false;
  }
  return true;
}

ScopedCwd::ScopedCwd(const std::string& folder) {
  char buffer[4096];
  if (getcwd(buffer, sizeof(buffer)) != nullptr)
    m_old = buffer;
  m_ok = chdir(folder.c_str()) == 0;
  if (!m_ok)
    ADD_FAILURE() << "cannot change to " << folder;
}

ScopedCwd::~ScopedCwd() {
  if (!m_old.empty() && chdir(m_old.c_str()) != 0)
    ADD_FAILURE() << "cannot return to " << m_old;
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

bool WriteFile(const std::string& path, const std::string& content) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return "<missing>";
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool PathExists(const std::string& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() != fs::file_type::not_found && !error;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

ResultCode CapturingLogger::Log(uint32_t severity, const char* message, const char* messageName,
                                uint32_t messageId, uint32_t level) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_records.push_back(LogRecord{severity, message != nullptr ? message : "",
                                messageName != nullptr ? messageName : "", messageId, level});
  return 0;
}

std::vector<LogRecord> CapturingLogger::Records() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_records;
}

bool CapturingLogger::Contains(const std::string& text) const {
  return Count(text) > 0;
}

size_t CapturingLogger::Count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return std::count_if(m_records.begin(), m_records.end(), [&](const LogRecord& record) {
    return record.message.find(text) != std::string::npos;
  });
}

void CapturingLogger::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_records.clear();
}

LogCapture::LogCapture() : m_logger(new CapturingLogger) {
  ResultCode result = 0;
  m_scope.reset(new CLogScope(&result, "keeltest", m_logger));
}

LogCapture::~LogCapture() {
  m_scope.reset();
}

namespace {

std::string Drain(int fd) {
  std::string text;
  char buffer[65536];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0)
    text.append(buffer, got);
  return text;
}

}  // namespace

CommandResult Run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                  const std::string& cwd, bool clearEnv) {
  CommandResult result;
  // Output goes to temporary files so that neither pipe can fill and block.
  char outName[] = "/tmp/keelrun.out.XXXXXX";
  char errName[] = "/tmp/keelrun.err.XXXXXX";
  const int outFd = mkstemp(outName);
  const int errFd = mkstemp(errName);
  unlink(outName);
  unlink(errName);
  const pid_t pid = fork();
  if (pid == 0) {
    const int nullFd = open("/dev/null", O_RDONLY);
    dup2(nullFd, 0);
    dup2(outFd, 1);
    dup2(errFd, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0)
      _exit(126);
    if (clearEnv)
      clearenv();
    for (const std::string& entry : env)
      putenv(strdup(entry.c_str()));
    std::vector<char*> args;
    for (const std::string& arg : argv)
      args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  lseek(outFd, 0, SEEK_SET);
  lseek(errFd, 0, SEEK_SET);
  result.out = Drain(outFd);
  result.err = Drain(errFd);
  close(outFd);
  close(errFd);
  return result;
}

std::string Shell(const std::string& command, int* status) {
  CommandResult result = Run({"/bin/sh", "-c", command});
  if (status != nullptr)
    *status = result.status;
  return result.out;
}

std::vector<std::string> ZipEntryNames(const std::string& archive) {
  const std::string out = Shell(
      "python3 -c 'import sys,zipfile\n"
      "z=zipfile.ZipFile(sys.argv[1])\n"
      "assert z.testzip() is None\n"
      "for n in z.namelist(): print(n)' " +
      ShellQuote(archive));
  std::vector<std::string> names;
  size_t start = 0;
  for (size_t end; (end = out.find('\n', start)) != std::string::npos; start = end + 1) {
    names.push_back(out.substr(start, end - start));
  }
  return names;
}

std::string ZipEntry(const std::string& archive, const std::string& name) {
  return Shell(
      "python3 -c 'import sys,zipfile\n"
      "sys.stdout.buffer.write(zipfile.ZipFile(sys.argv[1]).read(sys.argv[2]))' " +
      ShellQuote(archive) + " " + ShellQuote(name));
}

std::vector<std::string> SortedZipEntryNames(const std::string& archive) {
  std::vector<std::string> names = ZipEntryNames(archive);
  std::sort(names.begin(), names.end());
  return names;
}

int RunInChild(const std::function<int()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0)
    _exit(body());
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool EnterPrivateMounts() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool MountTmpfs(const std::string& folder, const std::string& size) {
  return mount("tmpfs", folder.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

int RunWithTmpfsAt(const std::string& folder, const std::function<int()>& body) {
  return RunInChild(
      [&] { return EnterPrivateMounts() && MountTmpfs(folder) ? body() : kCannotIsolate; });
}

std::string BuildDir() {
  char buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (length <= 0)
    return ".";
  std::string path(buffer, length);
  return path.substr(0, path.rfind('/'));
}

std::string TextFromChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0)
    return "<no pipe>";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string text = body();
    const ssize_t written = write(fds[1], text.data(), text.size());
    (void)written;
    _exit(0);
  }
  close(fds[1]);
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = read(fds[0], buffer, sizeof(buffer))) > 0)
    text.append(buffer, static_cast<size_t>(got));
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return text;
}

namespace {

// Supplementary groups go first: root's would otherwise stay and grant
// group rights the user does not have.
bool BecomeNobody() {
  return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0 &&
         getuid() == kNobody && geteuid() == kNobody;
}

}  // namespace

int RunAsNobody(const std::function<int()>& body) {
  return RunInChild([&] { return BecomeNobody() ? body() : kCannotBecomeNobody; });
}

std::string TextAsNobody(const std::function<std::string()>& body) {
  return TextFromChild([&]() -> std::string { return BecomeNobody() ? body() : "<no setuid>"; });
}

uint32_t MillisSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  return static_cast<uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

std::string SourceDir() {
  return KEEL_SOURCE_DIR;
}

bool WriteScript(const std::string& path, const std::string& body) {
  if (!WriteFile(path, "#!/bin/sh\n" + body + "\n"))
    return false;
  return chmod(path.c_str(), 0755) == 0;
}

std::string WriteScript(const TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir.Sub(name);
  WriteScript(path, body);
  return path;
}

bool NoChildLeft() {
  errno = 0;
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

}  // namespace keeltest
