#include "tools/KEEL/KEELCheck/Finding.h"

#include <algorithm>

namespace keelcheck {

std::string FormatFinding(const Finding& finding) {
  // Names and words quoted from a file may hold line breaks; a finding
  // stays one line all the same.
  std::string text;
  for (char c : finding.text) {
    if (c == '\n')
      text += "\\n";
    else if (c == '\r')
      text += "\\r";
    else
      text += c;
  }
  return finding.file + ":" + std::to_string(finding.line) + ":" + std::to_string(finding.column) +
         ": " + (finding.severity == Severity::kError ? "error" : "warning") + ": " + text;
}

std::string OneLine(const std::string& message) {
  std::string line = message;
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
    line.pop_back();
  for (char& c : line) {
    if (c == '\n' || c == '\r')
      c = ' ';
  }
  return line;
}

void SortByPlace(FindingList& findings) {
  std::stable_sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) {
    return a.line != b.line ? a.line < b.line : a.column < b.column;
  });
}

}  // namespace keelcheck
