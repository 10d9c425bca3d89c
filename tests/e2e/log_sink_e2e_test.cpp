// What the log sinks really send, seen from outside the process. log_probe
// opens a log scope as "vtc_keelcli" and logs its arguments. For the journal,
// the probe runs in a private mount namespace whose /run is a fresh tmpfs
// holding a stand-in journal socket that records every datagram it receives.

#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace {

// Binds the journal socket, says so by creating a file, and writes each
// datagram as one line of hex until it receives "STOP".
const char kListener[] = R"(import socket, sys
out_path, ready_path = sys.argv[1], sys.argv[2]
server = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
server.bind("/run/systemd/journal/socket")
server.settimeout(30)
open(ready_path, "w").close()
with open(out_path, "w") as out:
    while True:
        data = server.recv(1 << 20)
        if data == b"STOP":
            break
        out.write(data.hex() + "\n")
        out.flush()
)";

const char kStopper[] = R"(import socket
client = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
client.sendto(b"STOP", "/run/systemd/journal/socket")
)";

// Exit statuses of the namespace script.
constexpr int kSetupRefused = 90;
constexpr int kListenerNotReady = 91;

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

// One datagram's fields; each field of the plain form ends in a line feed.
std::vector<std::string> Fields(const std::string& datagram) {
  std::vector<std::string> fields;
  size_t start = 0;
  while (start < datagram.size()) {
    const size_t end = datagram.find('\n', start);
    if (end == std::string::npos) {
      fields.push_back("<unterminated>" + datagram.substr(start));
      break;
    }
    fields.push_back(datagram.substr(start, end - start));
    start = end + 1;
  }
  return fields;
}

// The message that log_probe logs for `text` at a plain level.
std::string ProbeMessage(const std::string& text) {
  return "Function: main File: probe Line: 7 " + text;
}

class JournalSink : public ::testing::Test {
 protected:
  void SetUp() override {
    int status = -1;
    keeltest::Shell("unshare -m true 2>/dev/null", &status);
    ASSERT_NO_FATAL_FAILURE(
        keeltest::RequireIsolation("a private mount namespace is refused here", status == 0));
    if (IsSkipped())
      return;
    keeltest::Shell("command -v python3 >/dev/null", &status);
    if (status != 0)
      GTEST_SKIP() << "python3 is not installed";
  }

  // Runs `probeLines` (shell lines; $PROBE is log_probe, $D the temp folder)
  // beside the stand-in journal and returns the datagrams it received.
  std::vector<std::string> RunWithJournal(const std::string& probeLines) {
    const std::string& dir = m_temp.path();
    keeltest::WriteFile(dir + "/listen.py", kListener);
    keeltest::WriteFile(dir + "/stop.py", kStopper);
    const std::string script =
        "D=\"$1\"; PROBE=\"$2\"\n"
        "mount --make-rprivate / && mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal "
        "|| exit " +
        std::to_string(kSetupRefused) +
        "\n"
        "python3 \"$D/listen.py\" \"$D/datagrams\" \"$D/ready\" &\n"
        "LISTENER=$!\n"
        "i=0\n"
        "while [ ! -e \"$D/ready\" ]; do\n"
        "  i=$((i + 1)); [ $i -gt 400 ] && { kill $LISTENER; exit " +
        std::to_string(kListenerNotReady) +
        "; }\n"
        "  sleep 0.05\n"
        "done\n" +
        probeLines +
        "python3 \"$D/stop.py\"\n"
        "wait $LISTENER\n";
    keeltest::WriteFile(dir + "/run.sh", script);
    const keeltest::CommandResult result = keeltest::Run(
        {"unshare", "-m", "sh", dir + "/run.sh", dir, keeltest::BuildDir() + "/log_probe"});
    if (result.status == kSetupRefused) {
      m_refused = true;
      return {};
    }
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<std::string> datagrams;
    const std::string hexLines = keeltest::ReadFile(dir + "/datagrams");
    size_t start = 0;
    while (start < hexLines.size()) {
      size_t end = hexLines.find('\n', start);
      if (end == std::string::npos)
        end = hexLines.size();
      datagrams.push_back(FromHex(hexLines.substr(start, end - start)));
      start = end + 1;
    }
    return datagrams;
  }

  // Checks that `datagram` holds exactly MESSAGE, PRIORITY and
  // SYSLOG_IDENTIFIER, in that order, with the given message and priority.
  void ExpectRecord(const std::string& datagram, const std::string& message, int priority) {
    static const std::regex kTid(R"(MESSAGE=\[TID=-?[0-9]+\] (.*))");
    const std::vector<std::string> fields = Fields(datagram);
    ASSERT_EQ(fields.size(), 3u) << datagram;
    std::smatch match;
    ASSERT_TRUE(std::regex_match(fields[0], match, kTid)) << fields[0];
    EXPECT_EQ(match[1].str(), message);
    EXPECT_EQ(fields[1], "PRIORITY=" + std::to_string(priority));
    EXPECT_EQ(fields[2], "SYSLOG_IDENTIFIER=vtc_keelcli");
  }

  keeltest::TempDir m_temp;
  bool m_refused = false;
};

TEST_F(JournalSink, EverySettingButStdoutSendsToTheJournal) {
  const std::vector<std::string> datagrams = RunWithJournal(
      "env -u VTC_LOGGING_OUTPUT \"$PROBE\" E unset-variable >\"$D/out.unset\"\n"
      "env VTC_LOGGING_OUTPUT= \"$PROBE\" E empty-variable >\"$D/out.empty\"\n"
      "env VTC_LOGGING_OUTPUT=stdout \"$PROBE\" E lower-case-variable >\"$D/out.lower\"\n"
      "env VTC_LOGGING_OUTPUT=Stdout \"$PROBE\" E mixed-case-variable >\"$D/out.mixed\"\n"
      "env VTC_LOGGING_OUTPUT=STDOUT \"$PROBE\" E upper-case-variable >\"$D/out.upper\"\n");
  if (m_refused)
    return keeltest::RequireIsolation("mounting in a private namespace is refused here", false);
  ASSERT_EQ(datagrams.size(), 4u);
  ExpectRecord(datagrams[0], ProbeMessage("unset-variable"), 3);
  ExpectRecord(datagrams[1], ProbeMessage("empty-variable"), 3);
  ExpectRecord(datagrams[2], ProbeMessage("lower-case-variable"), 3);
  ExpectRecord(datagrams[3], ProbeMessage("mixed-case-variable"), 3);
  // Nothing of the journal runs reached standard output.
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out.unset")), "");
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out.empty")), "");
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out.lower")), "");
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out.mixed")), "");
  // "STDOUT" exactly sends the record to standard output and not to the journal.
  EXPECT_NE(keeltest::ReadFile(m_temp.Sub("out.upper")).find(ProbeMessage("upper-case-variable")),
            std::string::npos);
}

TEST_F(JournalSink, LevelLettersMapToPriorities) {
  const std::vector<std::string> datagrams = RunWithJournal(
      "for level in E W I T X e D; do\n"
      "  env -u VTC_LOGGING_OUTPUT \"$PROBE\" $level level-$level >>\"$D/out\"\n"
      "done\n");
  if (m_refused)
    return keeltest::RequireIsolation("mounting in a private namespace is refused here", false);
  ASSERT_EQ(datagrams.size(), 7u);
  const struct {
    const char* letter;
    int priority;
  } kExpected[] = {{"E", 3}, {"W", 4}, {"I", 5}, {"T", 5}, {"X", 7}, {"e", 7}, {"D", 7}};
  for (size_t i = 0; i < datagrams.size(); ++i) {
    SCOPED_TRACE(kExpected[i].letter);
    ExpectRecord(datagrams[i], ProbeMessage(std::string("level-") + kExpected[i].letter),
                 kExpected[i].priority);
  }
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out")), "");
}

TEST_F(JournalSink, LineFeedsBecomeBlanks) {
  const std::vector<std::string> datagrams = RunWithJournal(
      "env -u VTC_LOGGING_OUTPUT \"$PROBE\" W \"$(printf 'one\\ntwo\\n\\nthree')\" "
      ">\"$D/out\"\n");
  if (m_refused)
    return keeltest::RequireIsolation("mounting in a private namespace is refused here", false);
  ASSERT_EQ(datagrams.size(), 1u);
  ExpectRecord(datagrams[0], ProbeMessage("one two  three"), 4);
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out")), "");
}

TEST_F(JournalSink, ReturnCodeRecordIsOneLine) {
  const std::vector<std::string> datagrams =
      RunWithJournal("env -u VTC_LOGGING_OUTPUT \"$PROBE\" rc Callee::name >\"$D/out\"\n");
  if (m_refused)
    return keeltest::RequireIsolation("mounting in a private namespace is refused here", false);
  ASSERT_EQ(datagrams.size(), 1u);
  const std::vector<std::string> fields = Fields(datagrams[0]);
  ASSERT_EQ(fields.size(), 3u) << datagrams[0];
  // The record's final line feed becomes a blank at the end, which the
  // journal client library strips from every field it sends.
  EXPECT_TRUE(std::regex_match(
      fields[0],
      std::regex(R"(MESSAGE=\[TID=-?[0-9]+\] Function: main File: [^ ]+ Line: [0-9]+ )"
                 R"(Invoked Function: Callee::name Return Code: -22020083 \(0xFEB0000D\) )"
                 R"(Description: KEELENGINE_ERROR_FILE_OPEN_FAILURE:Error: File could )"
                 R"(not be opened ?)")))
      << fields[0];
  EXPECT_EQ(fields[1], "PRIORITY=3");
  EXPECT_EQ(fields[2], "SYSLOG_IDENTIFIER=vtc_keelcli");
  EXPECT_EQ(keeltest::ReadFile(m_temp.Sub("out")), "");
}

std::string LocalTimeNow() {
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
  return stamp;
}

TEST(StdoutSink, UpperCaseStdoutWritesOneLinePerRecord) {
  const std::string before = LocalTimeNow();
  const keeltest::CommandResult result =
      keeltest::Run({keeltest::BuildDir() + "/log_probe", "E", "hello\nworld", "second"},
                    {"VTC_LOGGING_OUTPUT=STDOUT"});
  const std::string after = LocalTimeNow();
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  static const std::regex kLine(
      R"(([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}) vtc_keelcli\[([0-9]+)\]: )"
      R"(\[ERROR\] \[TID=-?[0-9]+\] Function: main File: probe Line: 7 hello world\n)"
      R"(([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}) vtc_keelcli\[\2\]: )"
      R"(\[ERROR\] \[TID=-?[0-9]+\] Function: main File: probe Line: 7 second\n)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(result.out, match, kLine)) << result.out;
  EXPECT_GE(match[1].str(), before);
  EXPECT_LE(match[3].str(), after);
  EXPECT_GT(std::stol(match[2].str()), 0);
}

TEST(StdoutSink, LevelLettersGiveTheirWords) {
  const struct {
    const char* letter;
    const char* word;
  } kExpected[] = {{"E", "ERROR"},  {"W", "WARNING"}, {"I", "NOTICE"},
                   {"T", "NOTICE"}, {"X", "DEBUG"},   {"w", "DEBUG"}};
  for (const auto& expected : kExpected) {
    const keeltest::CommandResult result = keeltest::Run(
        {keeltest::BuildDir() + "/log_probe", expected.letter, "x"}, {"VTC_LOGGING_OUTPUT=STDOUT"});
    ASSERT_EQ(result.status, 0);
    EXPECT_TRUE(std::regex_match(
        result.out, std::regex(std::string(R"([-0-9]+ [:0-9]+ vtc_keelcli\[[0-9]+\]: \[)") +
                               expected.word + R"(\] \[TID=-?[0-9]+\] [^\n]* x\n)")))
        << expected.letter << ": " << result.out;
  }
}

}  // namespace
