// Running the built keelcli for end-to-end tests in a private mount
// namespace: /tmp, /opt and /etc are fresh, empty tmpfs folders there (the
// last holding only a fixed os-release), so a run neither sees nor leaves
// anything on the host's real folders, and runs of parallel tests never meet.
#ifndef TESTS_E2E_E2ESUPPORT_H_
#define TESTS_E2E_E2ESUPPORT_H_

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace keeltest {

// The operating system the private /etc describes.
constexpr char kIsolatedOsRelease[] = "NAME=\"TestOS\"\nVERSION=\"1.0 (e2e)\"\n";
constexpr char kIsolatedOsDescription[] = "Linux: TestOS 1.0 (e2e)";

// Whether private mount namespaces can be made here.
bool NamespacesAvailable();

// A folder for test trees outside /tmp (which the namespace hides): below
// the build folder.
std::string IsolatedTreeBase();

struct IsolatedResult {
  int status = -1;         // keelcli's exit status
  std::string out;         // its standard output, log records taken out
  std::string log;         // the log records it wrote (VTC_LOGGING_OUTPUT=STDOUT)
  std::string err;         // its standard error
  std::string tmpListing;  // `ls -A /tmp` after the run, one name a line
};

// Runs `argv` in `cwd` with exactly `env` (plus VTC_LOGGING_OUTPUT=STDOUT and
// the sanitizer options of the caller). `prepare` is shell text run in the
// namespace before the program, `inspect` after it (its output goes to
// `scratch`/inspect.txt). `scratch` is a folder outside /tmp for the
// captured streams. `tmpOptions` are mount options of the private /tmp
// (e.g. "size=1m" for a /tmp that fills up).
IsolatedResult RunIsolated(const std::vector<std::string>& argv,
                           const std::vector<std::string>& env, const std::string& cwd,
                           const std::string& scratch, const std::string& prepare = "",
                           const std::string& inspect = "", const std::string& tmpOptions = "");

// The console line of a progress report: "\r", the message padded or cut to
// 90 columns, a blank and the percentage.
std::string ProgressLine(const std::string& message, int percent);

}  // namespace keeltest

#endif  // TESTS_E2E_E2ESUPPORT_H_
