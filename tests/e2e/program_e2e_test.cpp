// Bundle runs of the real keelcli whose instructions run programs: small
// /bin/sh scripts written by each test into a folder of its own, named by a
// bare name in `args` with that folder in `path`. Each run happens in a
// private mount namespace (see E2eSupport.h). Checks what the programs
// received, what reached the bundle byte for byte, what summary.txt lists or
// leaves out and why, the log records, and that no process is left behind.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Result/ResultCode.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/CliTexts.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const std::string kStars(75, '*');

// The three lines that precede each command's output in a captured file.
std::string Banner(const std::string& commandLine) {
  return "\n\r" + kStars + "\n" + "\"" + commandLine + "\" output:\n" + kStars + "\n\r\n";
}

std::vector<std::string> SortedEntries(const std::string& archive) {
  std::vector<std::string> names = keeltest::ZipEntryNames(archive);
  std::sort(names.begin(), names.end());
  return names;
}

using keeltest::SummaryRow;

std::string Included(const std::string& id, const std::string& name, const std::string& description,
                     const std::string& size) {
  return SummaryRow(id, name, description, size, 10);
}

// The size column for a file below one kilobyte.
std::string Bytes(size_t size) {
  return std::to_string(size) + " bytes";
}

// The size column for a file of at least one megabyte and below one gigabyte.
std::string Megabytes(size_t size) {
  char text[32];
  snprintf(text, sizeof(text), "%.2fM", static_cast<double>(size) / (1024.0 * 1024.0));
  return text;
}

std::string SectionHead(const std::string& title) {
  return "\n" + std::string(141, '=') + "\n" + title + ":\n\nFiles Included in Bundle:\n" +
         SummaryRow("ID", "Filename", "Description", "File Size", 10) + std::string(101, '-') +
         "\n";
}

const std::string kIncludedEnd = std::string(101, '-') + "\n";

std::string OmittedHead() {
  return "\n\nFiles Omitted from Bundle:\n" +
         SummaryRow("ID", "Filename", "Description", "Reason Omitted", 50) + std::string(141, '-') +
         "\n";
}

const std::string kOmittedEnd = std::string(141, '-') + "\n";

const char kTail[] =
    "\n\nNo instruction found in any config for the following file ID's from request:\n";

// One default instruction whose Linux part holds one use_extern_action group
// with the given action elements, in order.
std::string Instruction(const std::string& id, const std::string& description,
                        const std::vector<std::string>& actions) {
  std::string text = "<file id=\"" + id + "\"><description>" + description +
                     "</description><default>true</default><keel><os opsys=\"linux\">"
                     "<use_extern_action>";
  for (const std::string& action : actions)
    text += "<action>" + action + "</action>";
  return text + "</use_extern_action></os></keel></file>\n";
}

// One default instruction with the given content of its Linux part.
std::string InstructionOs(const std::string& id, const std::string& description,
                          const std::string& os) {
  return "<file id=\"" + id + "\"><description>" + description +
         "</description><default>true</default><keel><os opsys=\"linux\">" + os +
         "</os></keel></file>\n";
}

std::string Config(const std::string& title, const std::vector<std::string>& instructions) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n<configure><title>" +
                     title + "</title></configure>\n<fileGroup treeRootName=\"" + title +
                     "\"><title>" + title + "</title>\n";
  for (const std::string& instruction : instructions)
    text += instruction;
  return text + "</fileGroup>\n</config>\n";
}

// The log records (one a line) that contain every one of `parts`.
std::vector<std::string> LogLines(const std::string& log, const std::vector<std::string>& parts) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = log.substr(start, end - start);
    bool all = true;
    for (const std::string& part : parts)
      all = all && line.find(part) != std::string::npos;
    if (all)
      lines.push_back(line);
  }
  return lines;
}

// "Invoked Function: <name> Return Code: <signed> (0x<hex>)" as a log record
// shows it, its line feeds turned into blanks.
std::string InvokedWithCode(const std::string& invoked, ResultCode code) {
  char text[256];
  snprintf(text, sizeof(text), "Invoked Function: %s Return Code: %d (0x%.8X)", invoked.c_str(),
           static_cast<int>(code), code);
  return text;
}

class ProgramRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home/Desktop", "work", "out", "scratch", "bin", "outside"}));
    if (IsSkipped())
      return;
    ASSERT_NO_FATAL_FAILURE(CopyBuilt("keelcli", "install/keelcli"));
  }

  std::string Bin() const { return m_tree->Sub("bin"); }
  std::string Outside(const std::string& name) const { return m_tree->Sub("outside/" + name); }
  std::string PathElement() const { return "<path>" + Bin() + "</path>"; }

  // A custom run into out/<name>.zip; returns the bundle's path in `bundle`.
  IsolatedResult Keel(const std::string& name, std::string* bundle,
                      const std::string& inspect = "") {
    *bundle = m_tree->Sub("out/" + name + ".zip");
    return keeltest::RunIsolated(
        {m_tree->Sub("install/keelcli"), "-dst", *bundle},
        {"HOME=" + m_tree->Sub("home"), "USER=tester", "PATH=/usr/bin:/bin"}, m_tree->Sub("work"),
        m_tree->Sub("scratch"), "", inspect);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }

  // The whole console of a custom run with one config; `middle` is what
  // stands between reading the instructions and zipping.
  static std::string Console(const std::string& bundle, const std::string& middle) {
    return std::string(keeltest::kVersion) +
           "Bundle option selected: custom\r\nBundle location: " + bundle + "\r\n\r\n" +
           ProgressLine("Starting up KEEL Engine...", 1) +
           ProgressLine("Parsing request and configuration XMLs...", 1) +
           ProgressLine("Reading instructions ...", 4) + middle +
           ProgressLine("Zipping the bundle, please wait...", 96) +
           ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n";
  }

  // summary.txt from the head's end on: the config sections and the tail.
  static std::string Sections(const std::string& bundle) {
    const std::string summary = ZipEntry(bundle, "summary.txt");
    const size_t at = summary.find("\n" + std::string(141, '='));
    return at == std::string::npos ? summary : summary.substr(at);
  }
};

TEST_F(ProgramRun, ShellFormPutsTheBannerAndTheOutputIntoTheNamedFile) {
  Script("hello.sh", "printf 'hello:%s\\n' \"$*\"\nprintf 'complaint\\n' >&2\n");
  AddConfig("one.xml",
            Config("Programs",
                   {Instruction("hello", "greeting",
                                {PathElement() + "<args>hello.sh big  world</args>"
                                                 "<temp_out>hello.txt</temp_out><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("shell", &bundle);
  ASSERT_EQ(run.status, 0) << run.err << run.out;
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"hello.txt", "summary.txt"}));
  // The banner names the command line as written; the shell splits it.
  const std::string expected = Banner("hello.sh big  world") + "hello:big world\n";
  EXPECT_EQ(ZipEntry(bundle, "hello.txt"), expected);
  EXPECT_EQ(Sections(bundle),
            SectionHead("Programs") +
                Included("hello", "hello.txt", "greeting", Bytes(expected.size())) + kIncludedEnd +
                kTail);
  // Standard error is not captured: it reaches the tool's own.
  EXPECT_EQ(run.err, "complaint\n");
  EXPECT_EQ(run.tmpListing, "");
}

TEST_F(ProgramRun, CommandsNamingOneFileAppendInTheOrderTheyRan) {
  Script("say.sh", "echo \"said $1\"\n");
  const std::string action = PathElement() + "<temp_out>both.txt</temp_out><stdout/>";
  // Instructions run in the order of their ids, actions as they are written.
  AddConfig(
      "one.xml",
      Config("Appending", {Instruction("b-second", "second and third",
                                       {"<args>say.sh two</args>" + action,
                                        "<args>say.sh three</args>" + action}),
                           Instruction("a-first", "first", {"<args>say.sh one</args>" + action})}));
  std::string bundle;
  const IsolatedResult run = Keel("append", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string one = Banner("say.sh one") + "said one\n";
  const std::string two = Banner("say.sh two") + "said two\n";
  const std::string three = Banner("say.sh three") + "said three\n";
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"both.txt", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "both.txt"), one + two + three);
  // Every command leaves its own row for the same file, with the size the
  // file had when that command was done.
  EXPECT_EQ(
      Sections(bundle),
      SectionHead("Appending") + Included("a-first", "both.txt", "first", Bytes(one.size())) +
          Included("b-second", "both.txt", "second and third", Bytes(one.size() + two.size())) +
          Included("b-second", "both.txt", "second and third",
                   Bytes(one.size() + two.size() + three.size())) +
          kIncludedEnd + kTail);
}

TEST_F(ProgramRun, LaunchFormHandsEverythingBehindTheFirstBlankAsOneArgument) {
  ArgvRecorder("argv.sh", Outside("args.txt"));
  AddConfig("one.xml",
            Config("Launch", {Instruction("launched", "argument check",
                                          {PathElement() + "<args>argv.sh -a -b</args><temp_out>" +
                                           Outside("args.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("launch", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"args.txt", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "args.txt"), "argc=1\n[-a -b]\n");
  // The program's own file was copied in, then deleted.
  EXPECT_FALSE(keeltest::PathExists(Outside("args.txt")));
  EXPECT_EQ(Sections(bundle), SectionHead("Launch") +
                                  Included("launched", "args.txt", "argument check", Bytes(15)) +
                                  kIncludedEnd + kTail);
}

TEST_F(ProgramRun, LaunchFormOfABareNameHandsOneEmptyArgument) {
  ArgvRecorder("bare.sh", Outside("bare.txt"));
  ArgvRecorder("blanks.sh", Outside("blanks.txt"));
  AddConfig("one.xml",
            Config("Launch", {Instruction("bare", "no arguments",
                                          {PathElement() + "<args>bare.sh</args><temp_out>" +
                                           Outside("bare.txt") + "</temp_out>"}),
                              Instruction("blanks", "blanks kept",
                                          {PathElement() +
                                           "<args>blanks.sh  two  blanks </args>"
                                           "<temp_out>" +
                                           Outside("blanks.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("bare", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "bare.txt"), "argc=1\n[]\n");
  // Only the first blank divides; the others stay in the one argument. (The
  // blank at the end went with the trimming of element text.)
  EXPECT_EQ(ZipEntry(bundle, "blanks.txt"), "argc=1\n[ two  blanks]\n");
  EXPECT_FALSE(keeltest::PathExists(Outside("bare.txt")));
  EXPECT_FALSE(keeltest::PathExists(Outside("blanks.txt")));
}

TEST_F(ProgramRun, LaunchFormInheritsTheConsole) {
  Script("talk.sh", "printf 'said by the program\\n'\n");
  AddConfig(
      "one.xml",
      Config("Launch", {Instruction("talk", "talker", {PathElement() + "<args>talk.sh</args>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("talk", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // Nothing is captured: the output lands between the progress lines, and a
  // program run for its side effects leaves nothing in the summary.
  EXPECT_EQ(run.out, Console(bundle, "said by the program\n"));
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"summary.txt"}));
  EXPECT_EQ(Sections(bundle), SectionHead("Launch") + kIncludedEnd + kTail);
}

TEST_F(ProgramRun, CapturedOutputIsNamedAfterTheProgram) {
  const char* const kPrograms[] = {"report.sh", "tool.v2.sh", ".hidden", "plain"};
  for (const char* program : kPrograms)
    Script(program, "echo \"from $0\"\n");
  AddConfig(
      "one.xml",
      Config("Names",
             {Instruction("n1", "with extension",
                          {PathElement() + "<args>report.sh -x</args><stdout/>"}),
              Instruction("n2", "two dots", {PathElement() + "<args>tool.v2.sh</args><stdout/>"}),
              Instruction("n3", "hidden", {PathElement() + "<args>.hidden</args><stdout/>"}),
              Instruction("n4", "no extension", {PathElement() + "<args>plain</args><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("names", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(SortedEntries(bundle),
            (std::vector<std::string>{"_result.txt", "plain_result.txt", "report_result.txt",
                                      "summary.txt", "tool.v2_result.txt"}));
  // The shell is handed the folder and the command line joined by "/".
  const std::string report = Banner("report.sh -x") + "from " + Bin() + "/report.sh\n";
  const std::string tool = Banner("tool.v2.sh") + "from " + Bin() + "/tool.v2.sh\n";
  const std::string hidden = Banner(".hidden") + "from " + Bin() + "/.hidden\n";
  const std::string plain = Banner("plain") + "from " + Bin() + "/plain\n";
  EXPECT_EQ(ZipEntry(bundle, "report_result.txt"), report);
  EXPECT_EQ(ZipEntry(bundle, "tool.v2_result.txt"), tool);
  EXPECT_EQ(ZipEntry(bundle, "_result.txt"), hidden);
  EXPECT_EQ(ZipEntry(bundle, "plain_result.txt"), plain);
  EXPECT_EQ(Sections(bundle),
            SectionHead("Names") +
                Included("n1", "report_result.txt", "with extension", Bytes(report.size())) +
                Included("n2", "tool.v2_result.txt", "two dots", Bytes(tool.size())) +
                Included("n3", "_result.txt", "hidden", Bytes(hidden.size())) +
                Included("n4", "plain_result.txt", "no extension", Bytes(plain.size())) +
                kIncludedEnd + kTail);
}

TEST_F(ProgramRun, TempOutThatIsNotThereIsOmittedWithTheReason) {
  Script("noop.sh", ":\n");
  // Not a regular file: the copy refuses it, in words.
  Script("pipe.sh", "mkfifo /tmp/pipe.out\n");
  AddConfig(
      "one.xml",
      Config(
          "Omitted",
          {Instruction("gone", "never written",
                       {PathElement() + "<args>noop.sh</args><temp_out>/tmp/gone.txt</temp_out>"}),
           Instruction(
               "pipe", "a pipe",
               {PathElement() + "<args>pipe.sh</args><temp_out>/tmp/pipe.out</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("omitted", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"summary.txt"}));
  // The reasons wrap at blanks within the last column.
  EXPECT_EQ(
      Sections(bundle),
      SectionHead("Omitted") + kIncludedEnd + OmittedHead() +
          SummaryRow("gone", "gone.txt", "never written",
                     "KEEL cannot access temporary output at:", 50) +
          SummaryRow("", "", "", "/tmp/gone.txt as specified by Config", 50) +
          SummaryRow("pipe", "pipe.out", "a pipe", "KEEL cannot access temporary output at:", 50) +
          SummaryRow("", "", "", "/tmp/pipe.out as specified by Config Error", 50) +
          SummaryRow("", "", "", "returned:\"pipe.out\" is a FIFO, not a regular file", 50) +
          kOmittedEnd + kTail);
  const std::string notFound =
      InvokedWithCode("helperUtil::fileCopy", KEELENGINE_ERROR_FILE_NOT_FOUND) +
      " Description: KEEL cannot access temporary output at: /tmp/gone.txt "
      "as specified by Config";
  EXPECT_EQ(LogLines(run.log, {"[ERROR] ", notFound}).size(), 1u) << run.log;
  const std::string openFailure =
      InvokedWithCode("helperUtil::fileCopy", KEELENGINE_ERROR_FILE_OPEN_FAILURE) +
      " Description: KEEL cannot access temporary output at: /tmp/pipe.out as specified by Config "
      "Error returned:\"pipe.out\" is a FIFO, not a regular file";
  EXPECT_EQ(LogLines(run.log, {"[ERROR] ", openFailure}).size(), 1u) << run.log;
  // The walk over the actions logs the failed action again, except for a
  // file that was not found.
  EXPECT_TRUE(LogLines(run.log, {InvokedWithCode("KEELAction::performExternalAction",
                                                 KEELENGINE_ERROR_FILE_NOT_FOUND)})
                  .empty())
      << run.log;
  EXPECT_EQ(LogLines(run.log, {"[ERROR] ", InvokedWithCode("KEELAction::performExternalAction",
                                                           KEELENGINE_ERROR_FILE_OPEN_FAILURE)})
                .size(),
            1u)
      << run.log;
  // What could not be copied is not deleted either.
  EXPECT_EQ(run.tmpListing, "pipe.out\n");
}

TEST_F(ProgramRun, ExitStatusOneStillCountsAsSuccess) {
  Script("fails.sh", "echo partial\nexit 1\n");
  Script("fails-too.sh", "echo 'written anyway' > '" + Outside("late.txt") + "'\nexit 1\n");
  AddConfig("one.xml",
            Config("Failing", {Instruction("shell", "shell form",
                                           {PathElement() + "<args>fails.sh</args><stdout/>"}),
                               Instruction("launch", "launch form",
                                           {PathElement() + "<args>fails-too.sh</args><temp_out>" +
                                            Outside("late.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("exit1", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string shell = Banner("fails.sh") + "partial\n";
  EXPECT_EQ(ZipEntry(bundle, "fails_result.txt"), shell);
  EXPECT_EQ(ZipEntry(bundle, "late.txt"), "written anyway\n");
  EXPECT_EQ(Sections(bundle),
            SectionHead("Failing") + Included("launch", "late.txt", "launch form", Bytes(15)) +
                Included("shell", "fails_result.txt", "shell form", Bytes(shell.size())) +
                kIncludedEnd + kTail);
}

TEST_F(ProgramRun, LaunchedProgramThatIsNotThereLeavesNoTrace) {
  AddConfig("one.xml",
            Config("Absent", {Instruction("absent", "missing program",
                                          {PathElement() + "<args>absent.sh --now</args>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("absent", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // The child's failed exec is only an exit status, which nobody reads.
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"summary.txt"}));
  EXPECT_EQ(Sections(bundle), SectionHead("Absent") + kIncludedEnd + kTail);
  EXPECT_TRUE(LogLines(run.log, {"Invoked Function: KEELAction::"}).empty()) << run.log;
  EXPECT_TRUE(LogLines(run.log, {"Invoked Function: CProcessApi::"}).empty()) << run.log;
  EXPECT_EQ(run.err, "");
  // The child that could not start wrote nothing, not even buffered output
  // of the tool's own.
  EXPECT_EQ(run.out, Console(bundle, ""));
}

TEST_F(ProgramRun, ShellFormOfAMissingProgramKeepsTheBanner) {
  AddConfig("one.xml",
            Config("Absent",
                   {Instruction("absent", "missing program",
                                {PathElement() + "<args>absent.sh</args>"
                                                 "<temp_out>absent.txt</temp_out><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("absent-shell", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "absent.txt"), Banner("absent.sh"));
  // The shell's complaint goes to the tool's standard error; the run counts.
  EXPECT_NE(run.err.find(Bin() + "/absent.sh"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("not found"), std::string::npos) << run.err;
  EXPECT_EQ(Sections(bundle), SectionHead("Absent") +
                                  Included("absent", "absent.txt", "missing program",
                                           Bytes(Banner("absent.sh").size())) +
                                  kIncludedEnd + kTail);
}

TEST_F(ProgramRun, FolderInTheCommandLineIsAddedToThePathAgain) {
  // "sub/where.sh" with a path runs <path>/sub/sub/where.sh: the folder of
  // the first word is folded into the path and still stands in the name.
  fs::create_directories(Bin() + "/sub/sub");
  Script("sub/where.sh", "echo once > '" + Outside("where.txt") + "'\n");
  Script("sub/sub/where.sh", "echo twice > '" + Outside("where.txt") + "'\n");
  AddConfig("one.xml",
            Config("Folders", {Instruction("where", "which one ran",
                                           {PathElement() + "<args>sub/where.sh</args><temp_out>" +
                                            Outside("where.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("folders", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "where.txt"), "twice\n");
}

TEST_F(ProgramRun, AbsoluteCommandLineRunsAsWrittenOnlyInTheShellForm) {
  Script("hello.sh", "echo hello\n");
  // The launch form joins the folder folded into the path with the whole
  // first word, so the program must lie below a copy of its own folder.
  fs::create_directories(Bin() + Bin());
  Script(Bin().substr(1) + "/doubled.sh", "echo doubled > '" + Outside("doubled.txt") + "'\n");
  Script("doubled.sh", "echo single > '" + Outside("doubled.txt") + "'\n");
  AddConfig("one.xml",
            Config("Absolute", {Instruction("a-shell", "absolute shell",
                                            {"<args>" + Bin() + "/hello.sh</args><stdout/>"}),
                                Instruction("b-launch", "absolute launch",
                                            {"<args>" + Bin() + "/doubled.sh</args><temp_out>" +
                                             Outside("doubled.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("absolute", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "hello_result.txt"), Banner(Bin() + "/hello.sh") + "hello\n");
  EXPECT_EQ(ZipEntry(bundle, "doubled.txt"), "doubled\n");
}

TEST_F(ProgramRun, UserPlaceholderStopsTheCommandWhenArgumentsAreReplaced) {
  Script("whoami.sh", "echo ran > '" + Outside("marker.txt") + "'\necho \"user $1\"\n");
  ArgvRecorder("literal.sh", Outside("literal.txt"));
  ArgvRecorder("bundledir.sh", Outside("bundledir.txt"));
  AddConfig("one.xml",
            Config("Users",
                   {Instruction("a-replaced", "replaced user",
                                {PathElement() +
                                 "<args replace_args=\"true\">whoami.sh [USER]</args><stdout/>"}),
                    Instruction("b-literal", "literal user",
                                {PathElement() + "<args>literal.sh [USER]</args><temp_out>" +
                                 Outside("literal.txt") + "</temp_out>"}),
                    Instruction("c-bundle", "bundle folder",
                                {PathElement() +
                                 "<args replace_args=\"true\">bundledir.sh [BUNDLE_DIR]/x</args>"
                                 "<temp_out>" +
                                 Outside("bundledir.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("user", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // The session user cannot be had on this platform: the command never ran.
  EXPECT_FALSE(keeltest::PathExists(Outside("marker.txt")));
  EXPECT_EQ(SortedEntries(bundle),
            (std::vector<std::string>{"bundledir.txt", "literal.txt", "summary.txt"}));
  const std::vector<std::string> notice =
      LogLines(run.log, {"[NOTICE] ", InvokedWithCode("helperUtil::GetSessionUsername",
                                                      KEELENGINE_ERROR_NOT_IMPLEMENTED)});
  EXPECT_EQ(notice.size(), 1u) << run.log;
  EXPECT_EQ(LogLines(run.log, {"[ERROR] ", InvokedWithCode("KEELAction::performExternalAction",
                                                           KEELENGINE_ERROR_NOT_IMPLEMENTED)})
                .size(),
            1u)
      << run.log;
  // Without replace_args the placeholder goes through as it is written.
  const std::string literal = ZipEntry(bundle, "literal.txt");
  EXPECT_EQ(literal, "argc=1\n[[USER]]\n");
  // [BUNDLE_DIR] becomes the working folder below /tmp.
  const std::string bundleDir = ZipEntry(bundle, "bundledir.txt");
  EXPECT_TRUE(
      std::regex_match(bundleDir, std::regex("argc=1\n\\[/tmp/KEEL_Temp_Bundle[^/\n]*/x\\]\n")))
      << bundleDir;
  EXPECT_EQ(Sections(bundle),
            SectionHead("Users") +
                Included("b-literal", "literal.txt", "literal user", Bytes(literal.size())) +
                Included("c-bundle", "bundledir.txt", "bundle folder", Bytes(bundleDir.size())) +
                kIncludedEnd + kTail);
}

TEST_F(ProgramRun, MegabytesOfOutputArriveWhole) {
  // seq 1 800000 writes about 5.4 MB, through the pipe in the shell form and
  // into a file of the program's own in the launch form.
  Script("big.sh", "seq 1 800000\n");
  Script("bigfile.sh", "seq 1 800000 > '" + Outside("big.txt") + "'\n");
  AddConfig("one.xml",
            Config("Big", {Instruction("a-piped", "piped",
                                       {PathElement() + "<args>big.sh</args><stdout/>"}),
                           Instruction("b-file", "file",
                                       {PathElement() + "<args>bigfile.sh</args><temp_out>" +
                                        Outside("big.txt") + "</temp_out>"})}));
  std::string numbers;
  numbers.reserve(6 * 1024 * 1024);
  for (int i = 1; i <= 800000; ++i)
    numbers += std::to_string(i) + "\n";
  ASSERT_GT(numbers.size(), 5u * 1024 * 1024);
  std::string bundle;
  const IsolatedResult run = Keel("big", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string piped = ZipEntry(bundle, "big_result.txt");
  EXPECT_EQ(piped.size(), Banner("big.sh").size() + numbers.size());
  EXPECT_TRUE(piped == Banner("big.sh") + numbers);
  const std::string copied = ZipEntry(bundle, "big.txt");
  EXPECT_EQ(copied.size(), numbers.size());
  EXPECT_TRUE(copied == numbers);
  EXPECT_EQ(
      Sections(bundle),
      SectionHead("Big") + Included("a-piped", "big_result.txt", "piped", Megabytes(piped.size())) +
          Included("b-file", "big.txt", "file", Megabytes(numbers.size())) + kIncludedEnd + kTail);
}

TEST_F(ProgramRun, NoProcessOfTheToolIsLeftBehind) {
  ArgvRecorder("argv.sh", Outside("args.txt"));
  Script("hello.sh", "echo hello\n");
  Script("slow.sh", "sleep 1.5\necho slept > '" + Outside("slow.txt") + "'\n");
  Script("fails.sh", "exit 1\n");
  // Lists the children the tool has while this last program runs: only the
  // lister itself may be there, and nothing defunct.
  Script("children.sh", "ps -o stat=,args= --ppid \"$PPID\" > '" + Outside("children.txt") + "'\n");
  AddConfig("one.xml",
            Config("Processes",
                   {Instruction("a", "launched",
                                {PathElement() + "<args>argv.sh x</args><temp_out>" +
                                 Outside("args.txt") + "</temp_out>"}),
                    Instruction("b", "shell", {PathElement() + "<args>hello.sh</args><stdout/>"}),
                    Instruction("c", "slow",
                                {PathElement() + "<args>slow.sh</args><temp_out>" +
                                 Outside("slow.txt") + "</temp_out>"}),
                    Instruction("d", "failing", {PathElement() + "<args>fails.sh</args>"}),
                    Instruction("e", "missing", {PathElement() + "<args>absent.sh</args>"}),
                    Instruction("f", "missing shell",
                                {PathElement() + "<args>absent.sh</args><stdout/>"}),
                    Instruction("z", "children",
                                {PathElement() + "<args>children.sh</args><temp_out>" +
                                 Outside("children.txt") + "</temp_out>"})}));
  // After the tool has exited, no process may still run one of the scripts.
  const std::string inspect =
      "for p in /proc/[0-9]*; do\n"
      "  c=$(cat \"$p/cmdline\" 2>/dev/null | tr '\\0' ' ')\n"
      "  case \"$c\" in *'" +
      Bin() +
      "/'*) case \"$c\" in *'mount -t tmpfs'*) ;; *) echo \"$c\";; esac;; esac\n"
      "done\n";
  std::string bundle;
  const IsolatedResult run = Keel("processes", &bundle, inspect);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "slow.txt"), "slept\n");
  const std::string children = ZipEntry(bundle, "children.txt");
  EXPECT_TRUE(
      std::regex_match(children, std::regex("[RS][^Z\n]* /bin/sh " + Bin() + "/children.sh\n")))
      << children;
  EXPECT_EQ(Inspect(), "");
}

TEST_F(ProgramRun, ShellFormThatCannotStartLeavesTheBannerAndAnOmittedEntry) {
  Script("admin.sh", "echo admin\n");
  Script("user.sh", "echo user\n");
  // No command line at all: the shell is not even asked. admin_args do not
  // count for this tool, so an action with only those has none either.
  AddConfig(
      "one.xml",
      Config("Nothing", {Instruction("a-empty", "no command", {"<stdout/>"}),
                         Instruction("b-admin", "admin only",
                                     {"<admin_args>" + Bin() + "/admin.sh</admin_args><stdout/>"}),
                         Instruction("c-both", "args win",
                                     {PathElement() + "<admin_args>admin.sh</admin_args>"
                                                      "<args>user.sh</args><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("empty-shell", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // The file with its banners goes into the bundle, but is not listed.
  EXPECT_EQ(SortedEntries(bundle),
            (std::vector<std::string>{"_result.txt", "summary.txt", "user_result.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "_result.txt"), Banner("") + Banner(""));
  const std::string user = Banner("user.sh") + "user\n";
  EXPECT_EQ(ZipEntry(bundle, "user_result.txt"), user);
  EXPECT_EQ(Sections(bundle),
            SectionHead("Nothing") +
                Included("c-both", "user_result.txt", "args win", Bytes(user.size())) +
                kIncludedEnd + OmittedHead() +
                SummaryRow("a-empty", "N/A", "no command", "Failed to execute", 50) +
                SummaryRow("b-admin", "N/A", "admin only", "Failed to execute", 50) + kOmittedEnd +
                kTail);
  for (const char* invoked :
       {"CCommandShell::Execute", "KEELAction::callExtern", "KEELAction::performExternalAction"}) {
    EXPECT_EQ(
        LogLines(run.log, {"[ERROR] ", InvokedWithCode(invoked, GLOBAL_ERROR_NOT_INITIALIZED)})
            .size(),
        2u)
        << invoked << "\n"
        << run.log;
  }
}

TEST_F(ProgramRun, ProgramEndedBySignalIsNotListed) {
  // The program writes its file, then ends by a signal of its own while the
  // tool is watching it.
  Script("killed.sh",
         "echo 'half done' > '" + Outside("killed.txt") + "'\nsleep 0.5\nkill -TERM $$\n");
  AddConfig("one.xml",
            Config("Signals", {Instruction("killed", "killed program",
                                           {PathElement() + "<args>killed.sh</args><temp_out>" +
                                            Outside("killed.txt") + "</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("signal", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // Neither copied nor deleted, and the summary says nothing of it.
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"summary.txt"}));
  EXPECT_EQ(ReadFile(Outside("killed.txt")), "half done\n");
  EXPECT_EQ(Sections(bundle), SectionHead("Signals") + kIncludedEnd + kTail);
  EXPECT_EQ(LogLines(run.log, {"[ERROR] ", InvokedWithCode("KEELAction::callExtern",
                                                           PROCESS_API_ERROR_WAIT_TIMEOUT)})
                .size(),
            1u)
      << run.log;
}

TEST_F(ProgramRun, ShellFormIntoAnOutsideFileAppendsThenCopiesIt) {
  Script("hello.sh", "echo hello\n");
  ASSERT_TRUE(WriteFile(Outside("kept.log"), "written before\n"));
  AddConfig("one.xml",
            Config("Outside", {Instruction("outside", "appended outside",
                                           {PathElement() + "<args>hello.sh</args><temp_out>" +
                                            Outside("kept.log") + "</temp_out><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("outside", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string expected = "written before\n" + Banner("hello.sh") + "hello\n";
  EXPECT_EQ(ZipEntry(bundle, "kept.log"), expected);
  EXPECT_FALSE(keeltest::PathExists(Outside("kept.log")));
  EXPECT_EQ(Sections(bundle),
            SectionHead("Outside") +
                Included("outside", "kept.log", "appended outside", Bytes(expected.size())) +
                kIncludedEnd + kTail);
}

TEST_F(ProgramRun, VariablesAreExpandedInPathCommandLineAndTempOut) {
  const std::string home = m_tree->Sub("home");
  fs::create_directories(home + "/tools");
  const std::string script = home + "/tools/argv.sh";
  ASSERT_TRUE(WriteFile(script,
                        "#!/bin/sh\nout=\"$HOME/args.txt\"\n"
                        "printf 'argc=%s\\n' \"$#\" > \"$out\"\n"
                        "for a in \"$@\"; do printf '[%s]\\n' \"$a\" >> \"$out\"; done\n"));
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  AddConfig("one.xml", Config("Variables", {Instruction("vars", "expanded",
                                                        {"<path>$HOME/tools</path>"
                                                         "<args>argv.sh $HOME/x and $HOME</args>"
                                                         "<temp_out>$HOME/args.txt</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("variables", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // A name with no "/" behind it stays as written.
  EXPECT_EQ(ZipEntry(bundle, "args.txt"), "argc=1\n[" + home + "/x and $HOME]\n");
  EXPECT_FALSE(keeltest::PathExists(home + "/args.txt"));
}

TEST_F(ProgramRun, PluginFolderLiesBesideTheProgram) {
  fs::create_directories(m_tree->Sub("install/plugin/tools"));
  const std::string script = m_tree->Sub("install/plugin/tools/plug.sh");
  ASSERT_TRUE(WriteFile(script, "#!/bin/sh\necho \"plugged $0\"\n"));
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  Script("quoted.sh", "echo quoted\n");
  AddConfig(
      "one.xml",
      Config("Plugins",
             {Instruction("plugin", "plug-in",
                          {"<plugin>tools</plugin><args>plug.sh</args><stdout/>"}),
              // Quotes around the whole path are taken off.
              Instruction("quoted", "quoted path",
                          {"<path>\"" + Bin() + "\"</path><args>quoted.sh</args><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("plugins", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "plug_result.txt"),
            Banner("plug.sh") + "plugged " + m_tree->Sub("install/./plugin/tools/plug.sh") + "\n");
  EXPECT_EQ(ZipEntry(bundle, "quoted_result.txt"), Banner("quoted.sh") + "quoted\n");
}

TEST_F(ProgramRun, ShellFormWithoutPathLetsTheShellSearch) {
  AddConfig("one.xml", Config("Search", {Instruction("echo", "searched",
                                                     {"<args>echo found by the shell</args>"
                                                      "<temp_out>echo.txt</temp_out><stdout/>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("search", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "echo.txt"),
            Banner("echo found by the shell") + "found by the shell\n");
}

TEST_F(ProgramRun, ShellFormIntoAFileThatCannotBeOpenedStillRuns) {
  Script("noop.sh", ":\n");
  Script("marker.sh", "echo ran > '" + Outside("marker.txt") + "'\necho lost\n");
  // The first instruction makes the folder "taken" in the working folder;
  // the second names that folder as its output file.
  AddConfig("one.xml",
            "<config><configure><title>Blocked</title></configure><fileGroup>"
            "<file id=\"a\" directoryName=\"taken\"><description>maker</description>"
            "<default>true</default><keel><os opsys=\"linux\"><use_extern_action><action>" +
                PathElement() +
                "<args>noop.sh</args></action></use_extern_action></os></keel></file>"
                "<file id=\"b\"><description>blocked</description><default>true</default><keel>"
                "<os opsys=\"linux\"><use_extern_action><action>" +
                PathElement() +
                "<args>marker.sh</args><temp_out>taken</temp_out><stdout/></action>"
                "</use_extern_action></os></keel></file></fileGroup></config>");
  std::string bundle;
  const IsolatedResult run = Keel("blocked", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // The program ran, and its lost output is an omitted file with the
  // system's reason.
  EXPECT_EQ(ReadFile(Outside("marker.txt")), "ran\n");
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"summary.txt"}));
  const std::string sections = Sections(bundle);
  const std::string head = SectionHead("Blocked") + kIncludedEnd + OmittedHead();
  ASSERT_EQ(sections.substr(0, head.size()), head);
  EXPECT_TRUE(std::regex_match(
      sections.substr(head.size()),
      std::regex("b {18}taken {25}blocked {35}/tmp/KEEL_Temp_Bundle__\\d{4}_\\d{4}_\\d+/taken *\n"
                 " {91}Error occurred opening the file: Is a directory *\n" +
                 kOmittedEnd + kTail)))
      << sections;
}

TEST_F(ProgramRun, OutsideFilesAreDeletedWhenTheirGroupIsDone) {
  // The second action of a group still finds the first one's file; an
  // action of the next group does not.
  Script("first.sh", "echo first > '" + Outside("a.txt") + "'\n");
  Script("second.sh", "if [ -e '" + Outside("a.txt") +
                          "' ]; then w=present; else w=absent; fi\n"
                          "echo \"a.txt $w\" > '" +
                          Outside("b.txt") + "'\n");
  Script("third.sh", "if [ -e '" + Outside("a.txt") +
                         "' ]; then w=present; else w=absent; fi\n"
                         "echo \"a.txt $w\" > '" +
                         Outside("c.txt") + "'\n");
  const std::string group1 = "<use_extern_action><action>" + PathElement() +
                             "<args>first.sh</args><temp_out>" + Outside("a.txt") +
                             "</temp_out></action><action>" + PathElement() +
                             "<args>second.sh</args><temp_out>" + Outside("b.txt") +
                             "</temp_out></action></use_extern_action>";
  const std::string group2 = "<use_extern_action><action>" + PathElement() +
                             "<args>third.sh</args><temp_out>" + Outside("c.txt") +
                             "</temp_out></action></use_extern_action>";
  AddConfig("one.xml", Config("Groups", {InstructionOs("groups", "two groups", group1 + group2)}));
  std::string bundle;
  const IsolatedResult run = Keel("groups", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZipEntry(bundle, "a.txt"), "first\n");
  EXPECT_EQ(ZipEntry(bundle, "b.txt"), "a.txt present\n");
  EXPECT_EQ(ZipEntry(bundle, "c.txt"), "a.txt absent\n");
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("outside")), std::vector<std::string>{});
  EXPECT_EQ(Sections(bundle),
            SectionHead("Groups") + Included("groups", "a.txt", "two groups", Bytes(6)) +
                Included("groups", "b.txt", "two groups", Bytes(14)) +
                Included("groups", "c.txt", "two groups", Bytes(13)) + kIncludedEnd + kTail);
}

TEST_F(ProgramRun, BareTempOutIsWrittenByTheProgramIntoTheWorkingFolder) {
  // Without stdout the program writes the file itself; [BUNDLE_DIR] tells it
  // where the working folder is.
  Script("writer.sh", "echo 'made by the program' > \"$1\"\n");
  Script("idle.sh", ":\n");
  AddConfig("one.xml",
            Config("Written",
                   {Instruction("a-made", "made in place",
                                {PathElement() + "<args replace_args=\"true\">writer.sh "
                                                 "[BUNDLE_DIR]/made.txt</args>"
                                                 "<temp_out>made.txt</temp_out>"}),
                    // Nothing checks that the file came: it is
                    // listed, with the size of a file not there.
                    Instruction(
                        "b-never", "never made",
                        {PathElement() + "<args>idle.sh</args><temp_out>never.txt</temp_out>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("written", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"made.txt", "summary.txt"}));
  EXPECT_EQ(ZipEntry(bundle, "made.txt"), "made by the program\n");
  EXPECT_EQ(Sections(bundle),
            SectionHead("Written") + Included("a-made", "made.txt", "made in place", Bytes(20)) +
                Included("b-never", "never.txt", "never made", "-1 bytes") + kIncludedEnd + kTail);
}

class ProgramRunConcurrency : public ProgramRun {};

TEST_F(ProgramRunConcurrency, ProgramsOfSeveralConfigsRunAtTheSameTime) {
  // Each writes when it starts and ends into one shared timeline.
  const std::string timeline = Outside("timeline.txt");
  Script("slow.sh", "echo \"start $1\" >> '" + timeline +
                        "'\nsleep 1\necho \"output of $1\"\n"
                        "echo \"end $1\" >> '" +
                        timeline + "'\n");
  const int kConfigs = 4;
  for (int i = 1; i <= kConfigs; ++i) {
    const std::string n = std::to_string(i);
    AddConfig("c" + n + ".xml",
              Config("Config " + n,
                     {Instruction("slow" + n, "slow " + n,
                                  {PathElement() + "<args>slow.sh " + n + "</args><temp_out>slow" +
                                   n + ".txt</temp_out><stdout/>"})}));
  }
  std::string bundle;
  const IsolatedResult run = Keel("concurrent", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(SortedEntries(bundle), (std::vector<std::string>{"slow1.txt", "slow2.txt", "slow3.txt",
                                                             "slow4.txt", "summary.txt"}));
  for (int i = 1; i <= kConfigs; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_EQ(ZipEntry(bundle, "slow" + n + ".txt"),
              Banner("slow.sh " + n) + "output of " + n + "\n");
  }
  const std::string lines = ReadFile(timeline);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2 * kConfigs) << lines;
  if (std::thread::hardware_concurrency() >= 2) {
    // A second program started before the first one ended.
    EXPECT_EQ(lines.substr(0, 6), "start ") << lines;
    EXPECT_EQ(lines.substr(lines.find('\n') + 1, 6), "start ") << lines;
  }
}

TEST_F(ProgramRunConcurrency, LaunchedProgramsOfSeveralConfigsAreAllListed) {
  // 1.5 seconds: each program ends inside a wait of the watch loop.
  Script("slow.sh", "sleep 1.5\necho \"written by $1\" > '" + Outside("") + "'\"late$1.txt\"\n");
  const int kConfigs = 4;
  for (int i = 1; i <= kConfigs; ++i) {
    const std::string n = std::to_string(i);
    AddConfig("c" + n + ".xml",
              Config("Config " + n,
                     {Instruction("late" + n, "late " + n,
                                  {PathElement() + "<args>slow.sh " + n + "</args><temp_out>" +
                                   Outside("late" + n + ".txt") + "</temp_out>"})}));
  }
  std::string bundle;
  const IsolatedResult run = Keel("concurrent-launch", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string sections = Sections(bundle);
  for (int i = 1; i <= kConfigs; ++i) {
    const std::string n = std::to_string(i);
    const std::string text = "written by " + n + "\n";
    EXPECT_EQ(ZipEntry(bundle, "late" + n + ".txt"), text);
    EXPECT_FALSE(keeltest::PathExists(Outside("late" + n + ".txt")));
    const std::string section =
        SectionHead("Config " + n) +
        Included("late" + n, "late" + n + ".txt", "late " + n, Bytes(text.size())) + kIncludedEnd;
    EXPECT_NE(sections.find(section), std::string::npos) << section << "\n---\n" << sections;
  }
}

TEST_F(ProgramRunConcurrency, WatchedProgramReportsProgressOnceAConfigIsDone) {
  if (std::thread::hardware_concurrency() < 2)
    GTEST_SKIP() << "needs two pool threads";
  // The quick config ends at once, so the done count moves while the
  // launched program of the other config is still being watched.
  Script("quick.sh", ":\n");
  Script("slow.sh", "sleep 2.5\n");
  AddConfig("quick.xml", Config("Quick", {Instruction("quick", "quick one",
                                                      {PathElement() + "<args>quick.sh</args>"})}));
  AddConfig("slow.xml", Config("Slow", {Instruction("slow", "slow program",
                                                    {PathElement() + "<args>slow.sh</args>"})}));
  std::string bundle;
  const IsolatedResult run = Keel("progress", &bundle);
  ASSERT_EQ(run.status, 0) << run.err;
  // One of two configs done: 46 percent.
  const std::string processing = ProgressLine("Processing slow program...", 46);
  const std::string still = ProgressLine(
      "Still running slow.sh, please be patient as this may take a few minutes...", 46);
  EXPECT_NE(run.out.find(processing + still), std::string::npos) << run.out;
  EXPECT_NE(run.out.find(still + still), std::string::npos) << run.out;
  // Nothing after the program ended but the end of the run.
  const std::string end = still + ProgressLine("Zipping the bundle, please wait...", 96) +
                          ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n";
  ASSERT_GE(run.out.size(), end.size());
  EXPECT_EQ(run.out.substr(run.out.size() - end.size()), end) << run.out;
}

}  // namespace
