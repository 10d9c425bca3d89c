// Running the built keelcli for end-to-end tests in a private mount
// namespace: /tmp, /opt and /etc are fresh, empty tmpfs folders there (the
// last holding only a fixed os-release), so a run neither sees nor leaves
// anything on the host's real folders, and runs of parallel tests never meet.
#ifndef TESTS_E2E_E2ESUPPORT_H_
#define TESTS_E2E_E2ESUPPORT_H_

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace keeltest {

// The operating system the private /etc describes.
constexpr char kIsolatedOsRelease[] = "NAME=\"TestOS\"\nVERSION=\"1.0 (e2e)\"\n";
constexpr char kIsolatedOsDescription[] = "Linux: TestOS 1.0 (e2e)";

// Whether private mount namespaces can be made here.
bool NamespacesAvailable();

// What a test that needs a private mount namespace does: run, skip where
// none can be made, or fail there when `ciValue` (the CI variable) is
// "true", so that a CI run cannot pass with no end-to-end coverage.
enum class IsolationVerdict { kRun, kSkip, kFail };
IsolationVerdict DecideIsolation(bool namespacesAvailable, const char* ciValue);

// Applies DecideIsolation to `available` (by default, whether this host
// makes private mount namespaces) and the environment: skips or fails the
// running test with `refusal`. Call it through ASSERT_NO_FATAL_FAILURE and
// return when IsSkipped().
void RequireIsolation(const std::string& refusal, bool available);
void RequireIsolation();

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

// The fixture of the end-to-end tests: a fresh tree below
// IsolatedTreeBase(), removed after the test, into which the built programs
// are copied (the build folder may lie below /tmp, which the namespace
// hides). A derived SetUp calls MakeTree through ASSERT_NO_FATAL_FAILURE
// and returns when IsSkipped().
class IsolatedTree : public ::testing::Test {
 protected:
  // Requires isolation, then makes the tree with `folders` in it and, when
  // `keelcliAt` is given, the built keelcli there.
  void MakeTree(const std::vector<std::string>& folders, const std::string& keelcliAt = "");
  // The tree of a tool installed at install/keelcli beside its instruction
  // folder, with a home holding a Desktop, a working folder, an output
  // folder and a scratch folder.
  void MakeInstalledTree();
  // Copies the built program `name` to `relative` in the tree, runnable by
  // every user.
  void CopyBuilt(const std::string& name, const std::string& relative);
  // Copies the shipped instruction files into the folder `relative`.
  void CopyShippedConfigs(const std::string& relative);
  // An executable /bin/sh script `name` in the tree's bin folder.
  void Script(const std::string& name, const std::string& body);
  // A script that writes the number of its arguments and then each argument
  // in brackets, one a line, into `out`.
  void ArgvRecorder(const std::string& name, const std::string& out);
  // An instruction file in the tree's install/xml/config folder.
  void AddConfig(const std::string& name, const std::string& text);

  std::unique_ptr<TempDir> m_tree;
};

// A row of summary.txt: four columns padded or cut to their widths.
std::string SummaryRow(const std::string& a, const std::string& b, const std::string& c,
                       const std::string& d, int lastWidth);

// The console line of a progress report: "\r", the message padded or cut to
// 90 columns, a blank and the percentage.
std::string ProgressLine(const std::string& message, int percent);

}  // namespace keeltest

#endif  // TESTS_E2E_E2ESUPPORT_H_
