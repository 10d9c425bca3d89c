// Feeds arbitrary bytes to keelcheck's checks as an instruction file (a file
// in a private folder, read by the tool's loader, the second read for the
// places and the grammar), and checks the findings: one line each, at a
// place inside the file, ordered, and a file the tool cannot read giving a
// single error. The plan is left out: it searches the host's folders.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/ScratchFolder.h"
#include "tools/KEEL/KEELCheck/Finding.h"
#include "tools/KEEL/KEELCheck/InstructionFileCheck.h"

namespace {

using fuzzscratch::Check;

std::string g_path;

void SetUp() {
  g_path = fuzzscratch::ScratchRoot("keelcheck_fuzz") + "/f.xml";
  fuzzscratch::RemoveAtExit(g_path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_path.empty())
    SetUp();
  fuzzscratch::WriteWhole(g_path, data, size);
  const keelcheck::FindingList findings = keelcheck::CheckInstructionFile(g_path, "f.xml");

  int lines = 1;
  for (size_t i = 0; i < size; ++i)
    lines += data[i] == '\n' ? 1 : 0;
  int lastLine = 0;
  int lastColumn = 0;
  bool refused = false;
  for (const keelcheck::Finding& finding : findings) {
    Check(finding.file == "f.xml");
    Check(finding.line >= 1 && finding.line <= lines);
    Check(finding.column >= 1);
    Check(finding.line > lastLine || (finding.line == lastLine && finding.column >= lastColumn));
    lastLine = finding.line;
    lastColumn = finding.column;
    Check(!finding.text.empty());
    const std::string line = keelcheck::FormatFinding(finding);
    Check(line.find('\n') == std::string::npos && line.find('\r') == std::string::npos);
    Check(line.compare(0, 6, "f.xml:") == 0);
    refused = refused || finding.text.compare(0, 29, "the tool cannot read this fil") == 0 ||
              finding.text.compare(0, 26, "the tool's loader refuses ") == 0;
  }
  if (refused) {
    Check(findings.size() == 1);
    Check(findings[0].severity == keelcheck::Severity::kError);
  }
  return 0;
}
