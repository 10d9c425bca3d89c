#include "tests/e2e/E2eSupport.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

namespace keeltest {

namespace {

// The name directly below /tmp that leads to the test trees, when they lie
// there: it is made again in the private /tmp and is no leftover of a run.
std::string TreeTopBelowTmp() {
  const std::string base = IsolatedTreeBase();
  if (base.compare(0, 5, "/tmp/") != 0)
    return "/";  // a name no listing holds
  return base.substr(5, base.find('/', 5) - 5);
}

}  // namespace

bool NamespacesAvailable() {
  int status = -1;
  Shell("unshare -m sh -c 'mount -t tmpfs tmpfs /tmp' 2>/dev/null", &status);
  return status == 0;
}

std::string IsolatedTreeBase() {
  const std::string base = BuildDir() + "/e2e-trees";
  mkdir(base.c_str(), 0755);
  return base;
}

IsolatedResult RunIsolated(const std::vector<std::string>& argv,
                           const std::vector<std::string>& env, const std::string& cwd,
                           const std::string& scratch, const std::string& prepare,
                           const std::string& inspect, const std::string& tmpOptions) {
  std::string command;
  for (const std::string& arg : argv)
    command += " " + ShellQuote(arg);
  std::string environment = "env -i VTC_LOGGING_OUTPUT=STDOUT";
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = getenv(name))
      environment += " " + ShellQuote(std::string(name) + "=" + value);
  }
  for (const std::string& entry : env)
    environment += " " + ShellQuote(entry);
  const std::string script =
      // The folder of the test trees may itself lie below /tmp (a build in
      // a clone there): a descriptor held across the mount lets it be bound
      // back at its own path inside the fresh /tmp.
      "exec 9< " + ShellQuote(IsolatedTreeBase()) + " || exit 89\n" + "mount -t tmpfs " +
      (tmpOptions.empty() ? std::string() : "-o " + ShellQuote(tmpOptions) + " ") +
      "tmpfs /tmp || exit 90\n"
      "case " +
      ShellQuote(IsolatedTreeBase()) + " in /tmp/*) mkdir -p " + ShellQuote(IsolatedTreeBase()) +
      " && mount --no-canonicalize --bind /proc/self/fd/9 " + ShellQuote(IsolatedTreeBase()) +
      " || exit 95;; esac\n"
      "if [ -d /opt ]; then mount -t tmpfs tmpfs /opt || exit 91; fi\n"
      "mount -t tmpfs tmpfs /etc || exit 92\n"
      "printf '%s' " +
      ShellQuote(kIsolatedOsRelease) + " > /etc/os-release\n" + prepare + "\ncd " +
      ShellQuote(cwd) + " || exit 93\n" + environment + command + " > " +
      ShellQuote(scratch + "/stdout") + " 2> " + ShellQuote(scratch + "/stderr") + "\n" +
      "echo $? > " + ShellQuote(scratch + "/status") + "\n" + "ls -A /tmp | grep -v -x -F " +
      ShellQuote(TreeTopBelowTmp()) + " > " + ShellQuote(scratch + "/tmp-listing") + "\n" + "{ " +
      (inspect.empty() ? std::string(":") : inspect) + "\n} > " +
      ShellQuote(scratch + "/inspect.txt") + " 2>&1\n";
  CommandResult shell = Run({"unshare", "-m", "sh", "-c", script});
  IsolatedResult result;
  const std::string status = ReadFile(scratch + "/status");
  result.status = shell.status == 0 && status != "<missing>" ? atoi(status.c_str()) : -1000;
  const std::string out = ReadFile(scratch + "/stdout");
  static const std::regex kLogRecord(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d vtc_keelcli\\[\\d+\\]: \\[[A-Z]+\\] [^\\n]*\\n");
  result.out = std::regex_replace(out, kLogRecord, "");
  for (std::sregex_iterator it(out.begin(), out.end(), kLogRecord), end; it != end; ++it) {
    result.log += it->str();
  }
  result.err = ReadFile(scratch + "/stderr");
  result.tmpListing = ReadFile(scratch + "/tmp-listing");
  return result;
}

std::string ProgressLine(const std::string& message, int percent) {
  char line[128];
  snprintf(line, sizeof(line), "\r%-90.90s %3d%%", message.c_str(), percent);
  return line;
}

}  // namespace keeltest
