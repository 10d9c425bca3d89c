// keelcheck as its users run it: the built program, in a private mount
// namespace (see E2eSupport.h). The files to check are copied into the
// private /tmp, owned by root, so that who may write the test trees does
// not enter the findings. Checks the finding lines byte for byte, the exit
// status, the folder beside the real program (also through a link), the
// plan, and that the built-in grammar agrees with xmllint's reading of the
// grammar in the tree.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

// One instruction "a" whose body starts on line 5.
std::string OneInstruction(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<cfg>\n<fileGroup>\n<file id=\"a\">\n" +
         body + "\n</file>\n</fileGroup>\n</cfg>\n";
}

const char kGoodBody[] =
    "<default>true</default>\n<keel><os opsys=\"linux\"><use_extern_action><action>"
    "<path>/usr/bin</path><args>timeout --kill-after=5 10 uname -a 2>&amp;1</args>"
    "<temp_out>uname.txt</temp_out><stdout/></action></use_extern_action></os></keel>";

// The install root of the package, inside the namespace.
const char kInstallRoot[] = "/opt/velon/tesselclient";

class KeelcheckRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree({"in", "work", "scratch", "bin/xml/config"}));
    if (IsSkipped())
      return;
    // The build folder may lie below /tmp, which the namespace hides: the
    // program and the shipped files go along in the tree.
    ASSERT_NO_FATAL_FAILURE(CopyBuilt("keelcheck", "bin/keelcheck"));
    CopyShippedConfigs("bin/xml/config");
  }

  std::string Program() const { return m_tree->Sub("bin/keelcheck"); }

  void AddFile(const std::string& name, const std::string& text) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("in/" + name), text));
  }

  // Copies the files into /tmp/in, root's alone, then runs `argv` there.
  IsolatedResult Run(const std::vector<std::string>& argv, const std::string& prepare = "",
                     const std::string& inspect = "") {
    const std::string copy = "mkdir -p /tmp/in && cp -R " + ShellQuote(m_tree->Sub("in")) +
                             "/. /tmp/in/ && chown -R 0:0 /tmp/in && chmod -R go-w /tmp/in\n";
    return keeltest::RunIsolated(argv, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, "/tmp/in",
                                 m_tree->Sub("scratch"), copy + prepare, inspect);
  }

  IsolatedResult Keelcheck(const std::vector<std::string>& args) {
    std::vector<std::string> argv{Program()};
    argv.insert(argv.end(), args.begin(), args.end());
    return Run(argv);
  }

  // Shell text that installs keelcheck and the shipped instruction files
  // as the package does, and links the program from /tmp/bin.
  std::string InstallShippedSet() const {
    return std::string("mkdir -p ") + kInstallRoot + "/xml/config /tmp/bin && cp " +
           ShellQuote(Program()) + " " + kInstallRoot + "/keelcheck && cp " +
           ShellQuote(m_tree->Sub("bin/xml/config")) + "/*.xml " + kInstallRoot +
           "/xml/config/ && ln -s " + kInstallRoot + "/keelcheck /tmp/bin/keelcheck\n";
  }

  // Runs keelcheck with `args`; expects its exit status, its standard output
  // and nothing on its standard error.
  void ExpectKeelcheck(const std::vector<std::string>& args, int status, const std::string& out) {
    const IsolatedResult run = Keelcheck(args);
    EXPECT_EQ(run.status, status);
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err, "");
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }
};

TEST_F(KeelcheckRun, FindingLinesAndExitStatusOfTheRealProgram) {
  AddFile("module.xml",
          OneInstruction("<defualt>true</defualt>\n<keel><os opsys=\"linux\"><use_extern_action>"
                         "<action><path>/usr/bin</path>\n<args>timeout --kill-after=5 10 "
                         "systemctl status &apos;velon*&apos; 2>&amp;1</args>\n"
                         "<temp_out>s.txt</temp_out><stdout/></action></use_extern_action></os>"
                         "</keel>"));
  ExpectKeelcheck(
      {"module.xml"}, 1,
      "module.xml:5:1: warning: <defualt> is never read here; did you mean <default>?\n"
      "module.xml:7:1: warning: the text of <args> loses blanks where it is split by a "
      "reference (&...;), CDATA or a comment: the tool reads \"timeout --kill-after=5 10 "
      "systemctl status'velon*'2>&1\"; write ' and \" as they are and keep no blank beside "
      "a reference\n");
}

TEST_F(KeelcheckRun, CleanFileGivesNoOutputAndExitZero) {
  AddFile("module.xml", OneInstruction(kGoodBody));
  ExpectKeelcheck({"module.xml"}, 0, "");
}

TEST_F(KeelcheckRun, FolderGivesTheFindingsOfEachFile) {
  AddFile("conf/one.xml", OneInstruction(kGoodBody));
  AddFile("conf/two.xml", "<cfg>\n<fileGroup>\n</cfg>\n");
  AddFile("conf/three.xml", OneInstruction("<default>True</default>\n<keel><os opsys=\"linux\">"
                                           "<file_copy_action><action><loc>/etc/hosts</loc>"
                                           "</action></file_copy_action></os></keel>"));
  ExpectKeelcheck(
      {"conf"}, 1,
      "conf/three.xml:5:1: warning: <default> \"True\" is not \"true\", so a bundle run "
      "does not take <file id=\"a\">; write true or false\n"
      "conf/two.xml:3:7: error: the tool cannot read this file, so nothing in it is "
      "gathered: Opening and ending tag mismatch: fileGroup line 0 and cfg\n");
}

TEST_F(KeelcheckRun, BadOptionOrMissingPathCannotRun) {
  const IsolatedResult option = Keelcheck({"--strict"});
  EXPECT_EQ(option.status, 2);
  EXPECT_EQ(option.out, "");
  EXPECT_EQ(option.err.rfind("keelcheck: unknown option --strict\nusage: keelcheck", 0), 0u)
      << option.err;
  const IsolatedResult path = Keelcheck({"missing.xml"});
  EXPECT_EQ(path.status, 2);
  EXPECT_EQ(path.err, "keelcheck: cannot check missing.xml: No such file or directory\n");
}

TEST_F(KeelcheckRun, ShippedSetBesideTheRealProgramHasNoFinding) {
  // Through the link, the folder beside the real program is checked, not
  // the one beside the link, where a file with a finding waits.
  const IsolatedResult run =
      Run({"/tmp/bin/keelcheck"}, InstallShippedSet() +
                                      "mkdir -p /tmp/bin/xml/config && echo '<cfg>' > "
                                      "/tmp/bin/xml/config/decoy.xml\n");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.status, 0);
}

TEST_F(KeelcheckRun, NoArgumentReportsTheFilesBesideTheRealProgram) {
  const IsolatedResult run =
      Run({"/tmp/bin/keelcheck"},
          InstallShippedSet() + "echo '<cfg>' > " + kInstallRoot + "/xml/config/zz-module.xml\n");
  EXPECT_EQ(run.out, std::string(kInstallRoot) +
                         "/xml/config/zz-module.xml:2:1: error: the tool cannot read this file, "
                         "so nothing in it is gathered: Premature end of data in tag cfg line 1\n");
  EXPECT_EQ(run.status, 1);
}

TEST_F(KeelcheckRun, ShippedSetValidatesWithXmllintAndTheBuiltInGrammar) {
  const std::string schema = keeltest::BuildDir() + "/xml/schema/keel-instructions.rng";
  int status = -1;
  const std::string out =
      keeltest::Shell("xmllint --noout --relaxng " + ShellQuote(schema) + " " +
                          ShellQuote(keeltest::BuildDir()) + "/xml/config/*.xml 2>&1",
                      &status);
  EXPECT_EQ(status, 0) << out;
  // A file that both refuse: a misspelt name.
  AddFile("bad.xml", OneInstruction("<defualt>true</defualt>\n<keel><os opsys=\"linux\"/></keel>"));
  keeltest::Shell("xmllint --noout --relaxng " + ShellQuote(schema) + " " +
                      ShellQuote(m_tree->Sub("in/bad.xml")) + " 2>/dev/null",
                  &status);
  EXPECT_NE(status, 0);
  EXPECT_EQ(Keelcheck({"bad.xml"}).status, 1);
}

TEST_F(KeelcheckRun, PlanShowsWhatARunWouldTakeAndRunsNothing) {
  AddFile("data/a.log", std::string(1234, 'a'));
  AddFile("data/b.txt", "not taken");
  AddFile("plan.xml",
          OneInstruction("<description>Plan</description><default>true</default>\n"
                         "<keel><os opsys=\"linux\"><file_copy_action><action>"
                         "<loc>/tmp/in/data/*.log</loc></action></file_copy_action>"
                         "<use_extern_action><action><path>/usr/bin</path>"
                         "<args>timeout --kill-after=5 10 touch /tmp/in/ran</args>"
                         "<temp_out>t.txt</temp_out><stdout/></action></use_extern_action>"
                         "</os></keel>"));
  const IsolatedResult run = Run({Program(), "--plan", "plan.xml"}, "", "ls /tmp/in");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "plan.xml:\n"
            "  a: Plan\n"
            "    file /tmp/in/data/a.log: 1234 bytes\n"
            "    program: /usr/bin/timeout --kill-after=5 10 touch /tmp/in/ran\n"
            "      output: appended to t.txt in the bundle\n"
            "total: 1 files, 1234 bytes; 1 programs\n");
  EXPECT_EQ(Inspect(), "data\nplan.xml\n");  // nothing ran
}

}  // namespace
