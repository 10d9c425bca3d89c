// --plan on generated files and programs: what a run would take, with
// names, sizes and command lines, and nothing copied or run.
#include "tools/KEEL/KEELCheck/PlanReport.h"

#include <sys/stat.h>

#include <sstream>

#include <gtest/gtest.h>

#include "tools/KEEL/KEELCheck/KeelCheck.h"
#include "tools/KEEL/KEELCheck/keelcheck_testsupport.h"

namespace keelcheck {
namespace {

class Plan : public keelchecktest::CheckTest {
 protected:
  std::string Folder() const { return m_dir.path(); }

  std::string PlanOf(const std::string& text, int* status = nullptr) {
    const std::string path = Write("conf/plan.xml", text);
    std::ostringstream out;
    std::ostringstream err;
    const int result = RunKeelCheck({"--plan", path}, "", out, err);
    if (status != nullptr)
      *status = result;
    EXPECT_EQ(err.str(), "");
    return out.str();
  }
};

TEST_F(Plan, NamesSizesAndCommandLinesOfWhatARunTakes) {
  Write("data/a.log", std::string(100, 'a'));
  Write("data/b.LOG", std::string(7, 'b'));
  Write("data/c.txt", "not taken");
  Write("tree/x.txt", std::string(10, 'x'));
  Write("tree/sub/y.txt", std::string(20, 'y'));
  Write("tree/sub/z.bin", "not taken");
  const std::string marker = m_dir.Sub("ran");
  const std::string text =
      "<cfg><fileGroup directoryName=\"Group\">\n"
      "<file id=\"b-files\"><description>Files</description><default>true</default>"
      "<keel><os opsys=\"linux\"><file_copy_action><action><loc>" +
      Folder() +
      "/data/*.log</loc></action></file_copy_action>"
      "<directory_copy_action><action><loc>" +
      Folder() +
      "/tree</loc><pattern>*.txt</pattern></action></directory_copy_action>"
      "</os></keel></file>\n"
      "<file id=\"a-programs\" directoryName=\"Sub\\Dir\"><description>Programs</description>"
      "<default>true</default><keel><os opsys=\"linux\"><use_extern_action>"
      "<action><path>/usr/bin</path><args>timeout -k 5 9 touch " +
      marker +
      "</args><temp_out>t.txt</temp_out><stdout/></action>"
      "<action><path>/usr/bin</path><args>touch " +
      marker +
      "</args></action>"
      "<action><path>/bin</path><args>sh -c x</args><temp_out>/var/tmp/o.txt</temp_out>"
      "</action></use_extern_action></os></keel></file>\n"
      "<file id=\"c-skipped\"><default>false</default><keel><os opsys=\"linux\">"
      "<file_copy_action><action><loc>/etc/hosts</loc></action></file_copy_action>"
      "</os></keel></file>\n"
      "</fileGroup></cfg>\n";
  int status = -1;
  const std::string plan = PlanOf(text, &status);
  EXPECT_EQ(plan,
            m_dir.Sub("conf/plan.xml") +
                ":\n"
                "  a-programs: Programs\n"
                "    program: /usr/bin/timeout -k 5 9 touch " +
                marker +
                "\n"
                "      output: appended to Group/Sub/Dir/t.txt in the bundle\n"
                "    program: /usr/bin/touch\n"
                "      argument: \"" +
                marker +
                "\"\n"
                "      output: none kept\n"
                "    program: /bin/sh\n"
                "      argument: \"-c x\"\n"
                "      output: /var/tmp/o.txt, if the program writes it; copied into the bundle "
                "as o.txt, then deleted\n"
                "  b-files: Files\n"
                "    file " +
                Folder() + "/data/a.log: 100 bytes\n    file " + Folder() +
                "/data/b.LOG: 7 bytes\n"
                "    folder " +
                Folder() +
                "/tree/: 2 files, 30 bytes\n"
                "total: 4 files, 137 bytes; 3 programs\n");
  EXPECT_EQ(status, kExitClean);
  EXPECT_FALSE(keeltest::PathExists(marker));  // nothing ran
}

TEST_F(Plan, WhatMatchesNothingAndWhatNeverRuns) {
  const std::string plan = PlanOf(
      "<cfg><fileGroup><file id=\"a\"><default>true</default><keel><os opsys=\"linux\">"
      "<file_copy_action><action><loc>" +
      Folder() +
      "/none/*.log</loc></action></file_copy_action>"
      "<use_extern_action><action><path>/usr/bin</path>"
      "<args replace_args=\"true\">timeout -k 5 9 id [USER]</args><temp_out>i</temp_out><stdout/>"
      "</action><action><path>/usr/bin</path><args>x</args><bad/></action></use_extern_action>"
      "</os></keel></file></fileGroup></cfg>");
  EXPECT_EQ(plan, m_dir.Sub("conf/plan.xml") + ":\n  a: \n    nothing matches " + Folder() +
                      "/none/*.log\n"
                      "    not run: [USER] is never filled in on this system\n"
                      "    dropped: the tool refuses this use_extern_action\n"
                      "total: 0 files, 0 bytes; 0 programs\n");
}

TEST_F(Plan, FileTheToolCannotReadIsSaidSo) {
  int status = -1;
  const std::string plan = PlanOf("<cfg>", &status);
  EXPECT_EQ(plan, m_dir.Sub("conf/plan.xml") +
                      ": the tool cannot read this file; run keelcheck on it for the reason\n"
                      "total: 0 files, 0 bytes; 0 programs\n");
  EXPECT_EQ(status, kExitFindings);
}

}  // namespace
}  // namespace keelcheck
