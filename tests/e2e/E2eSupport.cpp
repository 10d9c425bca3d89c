#include "tests/e2e/E2eSupport.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

namespace keeltest {

namespace {

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

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
                           const std::string& inspect) {
  std::string command;
  for (const std::string& arg : argv)
    command += " " + Quote(arg);
  std::string environment = "env -i VTC_LOGGING_OUTPUT=STDOUT";
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = getenv(name))
      environment += " " + Quote(std::string(name) + "=" + value);
  }
  for (const std::string& entry : env)
    environment += " " + Quote(entry);
  const std::string script =
      // The folder of the test trees may itself lie below /tmp (a build in
      // a clone there): a descriptor held across the mount lets it be bound
      // back at its own path inside the fresh /tmp.
      "exec 9< " + Quote(IsolatedTreeBase()) + " || exit 89\n" +
      "mount -t tmpfs tmpfs /tmp || exit 90\n"
      "case " +
      Quote(IsolatedTreeBase()) + " in /tmp/*) mkdir -p " + Quote(IsolatedTreeBase()) +
      " && mount --no-canonicalize --bind /proc/self/fd/9 " + Quote(IsolatedTreeBase()) +
      " || exit 95;; esac\n"
      "if [ -d /opt ]; then mount -t tmpfs tmpfs /opt || exit 91; fi\n"
      "mount -t tmpfs tmpfs /etc || exit 92\n"
      "printf '%s' " +
      Quote(kIsolatedOsRelease) + " > /etc/os-release\n" + prepare + "\ncd " + Quote(cwd) +
      " || exit 93\n" + environment + command + " > " + Quote(scratch + "/stdout") + " 2> " +
      Quote(scratch + "/stderr") + "\n" + "echo $? > " + Quote(scratch + "/status") + "\n" +
      "ls -A /tmp | grep -v -x -F " + Quote(TreeTopBelowTmp()) + " > " +
      Quote(scratch + "/tmp-listing") + "\n" + "{ " +
      (inspect.empty() ? std::string(":") : inspect) + "\n} > " + Quote(scratch + "/inspect.txt") +
      " 2>&1\n";
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

std::vector<std::string> ZipEntryNames(const std::string& archive) {
  const std::string out = Shell(
      "python3 -c 'import sys,zipfile\n"
      "z=zipfile.ZipFile(sys.argv[1])\n"
      "assert z.testzip() is None\n"
      "for n in z.namelist(): print(n)' " +
      Quote(archive));
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
      Quote(archive) + " " + Quote(name));
}

}  // namespace keeltest
