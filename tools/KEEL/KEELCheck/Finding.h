// One finding of keelcheck about an instruction file, and its printed form.
//
// A finding names the file, the line and column of the element it is about
// (1 and 1 for the file as a whole), its severity and a text that says what
// the tool will do and how to fix it. Printed in the form compilers use,
// "FILE:LINE:COLUMN: error: text", so that editors can jump to it.
//
// Plain values; copied freely, no locking.
#ifndef TOOLS_KEEL_KEELCHECK_FINDING_H_
#define TOOLS_KEEL_KEELCHECK_FINDING_H_

#include <string>
#include <vector>

namespace keelcheck {

enum class Severity {
  kError,    // the tool refuses or drops what is written
  kWarning,  // the tool silently does something else than what is written
};

struct Finding {
  std::string file;
  int line = 1;
  int column = 1;
  Severity severity = Severity::kWarning;
  std::string text;
};

typedef std::vector<Finding> FindingList;

// "FILE:LINE:COLUMN: error|warning: text", without a line end; a line
// break inside the text is written as \n or \r.
std::string FormatFinding(const Finding& finding);

// A message of libxml2's as one line: line breaks inside become blanks,
// those at the end go.
std::string OneLine(const std::string& message);

// Orders the findings of one file by line and column, keeping the order of
// equal places.
void SortByPlace(FindingList& findings);

}  // namespace keelcheck

#endif  // TOOLS_KEEL_KEELCHECK_FINDING_H_
