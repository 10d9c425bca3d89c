#include "tests/e2e/E2eSupport.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
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

IsolationVerdict DecideIsolation(bool namespacesAvailable, const char* ciValue) {
  if (namespacesAvailable)
    return IsolationVerdict::kRun;
  return ciValue != nullptr && std::string(ciValue) == "true" ? IsolationVerdict::kFail
                                                              : IsolationVerdict::kSkip;
}

void RequireIsolation() {
  RequireIsolation("private mount namespaces refused", NamespacesAvailable());
}

void RequireIsolation(const std::string& refusal, bool available) {
  switch (DecideIsolation(available, getenv("CI"))) {
    case IsolationVerdict::kRun:
      return;
    case IsolationVerdict::kSkip:
      GTEST_SKIP() << refusal;
    case IsolationVerdict::kFail:
      FAIL() << refusal << ": with CI=true the end-to-end tests must run, not skip";
  }
}

void IsolatedTree::MakeInstalledTree() {
  MakeTree({"install/xml/config", "home/Desktop", "work", "out", "scratch"}, "install/keelcli");
}

void IsolatedTree::MakeTree(const std::vector<std::string>& folders, const std::string& keelcliAt) {
  ASSERT_NO_FATAL_FAILURE(RequireIsolation());
  if (IsSkipped())
    return;
  m_tree.reset(new TempDir(IsolatedTreeBase()));
  ASSERT_FALSE(m_tree->path().empty());
  for (const std::string& folder : folders)
    std::filesystem::create_directories(m_tree->Sub(folder));
  if (!keelcliAt.empty())
    CopyBuilt("keelcli", keelcliAt);
}

void IsolatedTree::CopyBuilt(const std::string& name, const std::string& relative) {
  const std::string target = m_tree->Sub(relative);
  std::error_code error;
  std::filesystem::copy_file(BuildDir() + "/" + name, target, error);
  ASSERT_FALSE(error) << "copying " << name << ": " << error.message();
  ASSERT_EQ(chmod(target.c_str(), 0755), 0);
}

void IsolatedTree::CopyShippedConfigs(const std::string& relative) {
  for (const auto& entry : std::filesystem::directory_iterator(BuildDir() + "/xml/config")) {
    std::filesystem::copy_file(entry.path(),
                               m_tree->Sub(relative + "/" + entry.path().filename().string()));
  }
}

void IsolatedTree::Script(const std::string& name, const std::string& body) {
  const std::string path = m_tree->Sub("bin/" + name);
  ASSERT_TRUE(WriteFile(path, "#!/bin/sh\n" + body));
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

void IsolatedTree::ArgvRecorder(const std::string& name, const std::string& out) {
  Script(name, "out='" + out +
                   "'\n"
                   "printf 'argc=%s\\n' \"$#\" > \"$out\"\n"
                   "for a in \"$@\"; do printf '[%s]\\n' \"$a\" >> \"$out\"; done\n");
}

void IsolatedTree::AddConfig(const std::string& name, const std::string& text) {
  ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/" + name), text));
}

std::string SummaryRow(const std::string& a, const std::string& b, const std::string& c,
                       const std::string& d, int lastWidth) {
  char line[512];
  snprintf(line, sizeof(line), "%-17.17s  %-28.28s  %-40.40s  %-*.*s\n", a.c_str(), b.c_str(),
           c.c_str(), lastWidth, lastWidth, d.c_str());
  return line;
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
  static const std::string script = ReadFile(SourceDir() + "/tests/e2e/isolate.sh");
  std::vector<std::string> command = {"unshare",
                                      "-m",
                                      "sh",
                                      "-c",
                                      script,
                                      "isolate",
                                      scratch,
                                      cwd,
                                      IsolatedTreeBase(),
                                      tmpOptions,
                                      prepare,
                                      inspect,
                                      TreeTopBelowTmp(),
                                      kIsolatedOsRelease,
                                      "env",
                                      "-i",
                                      "VTC_LOGGING_OUTPUT=STDOUT"};
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = getenv(name))
      command.push_back(std::string(name) + "=" + value);
  }
  command.insert(command.end(), env.begin(), env.end());
  command.insert(command.end(), argv.begin(), argv.end());
  CommandResult shell = Run(command);
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
