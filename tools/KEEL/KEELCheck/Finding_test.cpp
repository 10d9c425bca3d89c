#include "tools/KEEL/KEELCheck/Finding.h"

#include <gtest/gtest.h>

namespace keelcheck {
namespace {

Finding At(int line, int column, const std::string& text) {
  Finding finding;
  finding.file = "f.xml";
  finding.line = line;
  finding.column = column;
  finding.text = text;
  return finding;
}

TEST(FormatFinding, TheFormCompilersWrite) {
  Finding error = At(12, 7, "x");
  error.severity = Severity::kError;
  EXPECT_EQ(FormatFinding(error), "f.xml:12:7: error: x");
  EXPECT_EQ(FormatFinding(At(1, 1, "y")), "f.xml:1:1: warning: y");
}

TEST(FormatFinding, StaysOneLine) {
  EXPECT_EQ(FormatFinding(At(1, 1, "a\nb\rc")), "f.xml:1:1: warning: a\\nb\\rc");
  EXPECT_EQ(OneLine("Input is not proper UTF-8\nBytes: 0xBE\n"),
            "Input is not proper UTF-8 Bytes: 0xBE");
}

TEST(SortByPlace, ByLineThenColumnKeepingTheOrderOfEqualPlaces) {
  FindingList findings = {At(3, 1, "a"), At(1, 9, "b"), At(1, 2, "c"), At(3, 1, "d")};
  SortByPlace(findings);
  std::string order;
  for (const Finding& finding : findings)
    order += finding.text;
  EXPECT_EQ(order, "cbad");
}

}  // namespace
}  // namespace keelcheck
