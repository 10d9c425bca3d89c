// What the keelcheck unit tests share: a fresh folder per test, instruction
// files written into it, and runs of the program's entry whose findings
// come back as lines with the folder taken out ("a.xml:7:3: warning: ...").
#ifndef TOOLS_KEEL_KEELCHECK_KEELCHECK_TESTSUPPORT_H_
#define TOOLS_KEEL_KEELCHECK_KEELCHECK_TESTSUPPORT_H_

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Utility/sysutils.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELCheck/KeelCheck.h"

namespace keelchecktest {

struct CheckRun {
  int status = -1;
  std::vector<std::string> lines;  // of standard output, the folder taken out
  std::string err;
};

// An instruction file with one group holding one instruction, id "a", whose
// body starts on line 5:
//   1 <?xml ...?>  2 <cfg>  3 <fileGroup>  4 <file id="a">  5 body...
inline std::string OneInstruction(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<cfg>\n<fileGroup>\n<file id=\"a\">\n" +
         body + "\n</file>\n</fileGroup>\n</cfg>\n";
}

// The body of a default instruction whose Linux block holds `actions`,
// which start on line 7.
inline std::string LinuxBlock(const std::string& actions) {
  return "<default>true</default>\n<keel><os opsys=\"linux\">\n" + actions + "\n</os></keel>";
}

// A program run as the shipped set runs them; keelcheck finds nothing in it.
inline std::string GoodProgram() {
  return "<use_extern_action><action><path>/usr/bin</path>"
         "<args>timeout --kill-after=5 10 uname -a 2>&amp;1</args>"
         "<temp_out>uname.txt</temp_out><stdout/></action></use_extern_action>";
}

class CheckTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(m_dir.path().empty()); }

  std::string Write(const std::string& name, const std::string& text) {
    EXPECT_TRUE(keeltest::WriteFile(m_dir.Sub(name), text));
    return m_dir.Sub(name);
  }

  // Runs the entry with `args`; the default folder is the test's folder.
  CheckRun Run(const std::vector<std::string>& args) {
    std::ostringstream out;
    std::ostringstream err;
    CheckRun run;
    run.status = keelcheck::RunKeelCheck(args, m_dir.path(), out, err);
    std::istringstream lines(CStringUtils::replaceAll(out.str(), m_dir.path() + "/", ""));
    for (std::string line; std::getline(lines, line);)
      run.lines.push_back(line);
    run.err = err.str();
    return run;
  }

  // Writes `text` as a.xml and checks that file.
  CheckRun Check(const std::string& text) { return Run({Write("a.xml", text)}); }

  keeltest::TempDir m_dir;
};

}  // namespace keelchecktest

#endif  // TOOLS_KEEL_KEELCHECK_KEELCHECK_TESTSUPPORT_H_
