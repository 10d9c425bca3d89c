// The local policy document and the message catalogues as the real keelcli
// meets them: each run happens in a private mount namespace (see
// E2eSupport.h) whose empty /opt gets the install folder of the test's own,
// with the policy document and the compiled catalogues put in place there.
// Checks the log records that the policy load writes, the version text with
// its (possibly translated) rights notice, and that no bad document or
// catalogue stops the program.
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Result/ResultCode.h"
#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kNotice[] = "Copyright (c) 2026 Velon Networks. All rights reserved.";
const char kFrenchNotice[] =
    "Copyright (c) 2026 Velon Networks. Tous droits r\xC3\xA9serv\xC3\xA9s.";
const char kBritishNotice[] = "Copyright (c) 2026 Velon Networks. All rights reserved (en-gb).";
const char kFipsEnabled[] = "FIPS mode is enabled.";
const char kFipsDisabled[] = "FIPS mode is disabled.";
const char kFipsAny[] = "FIPS mode is ";
const char kNewerVersion[] =
    "The parsed Local Security Policy File version is newer than the current Velon Tessel "
    "Client. Unexpected behaviors can result.";
const char kStructureWarning[] = "Local Policy XML structure is incorrect.";

// The largest catalogue that is read.
constexpr size_t kCatalogueLimit = 1048576;

// What `keelcli -v` prints, with `notice` as the rights notice.
std::string VersionBlock(const std::string& notice) {
  return "\r\nVelon Tessel Client - Keel Reporting Tool 5.1.9.113 .\r\n\r\n" + notice + "\n\r\n";
}

struct LogLine {
  std::string level;    // "ERROR", "WARNING", "NOTICE", "DEBUG"
  std::string message;  // the text after the level, line feeds turned into blanks
};

std::vector<LogLine> LogLines(const std::string& log) {
  static const std::regex kRecord(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d vtc_keelcli\\[\\d+\\]: \\[([A-Z]+)\\] "
      "([^\\n]*)\\n");
  std::vector<LogLine> lines;
  for (std::sregex_iterator it(log.begin(), log.end(), kRecord), end; it != end; ++it) {
    lines.push_back({(*it)[1].str(), (*it)[2].str()});
  }
  return lines;
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The levels of the records whose message ends with `tail`, in order.
std::vector<std::string> LevelsEndingWith(const std::string& log, const std::string& tail) {
  std::vector<std::string> levels;
  for (const LogLine& line : LogLines(log)) {
    if (EndsWith(line.message, tail))
      levels.push_back(line.level);
  }
  return levels;
}

// The levels of the records whose message holds `text`, in order.
std::vector<std::string> LevelsHolding(const std::string& log, const std::string& text) {
  std::vector<std::string> levels;
  for (const LogLine& line : LogLines(log)) {
    if (line.message.find(text) != std::string::npos)
      levels.push_back(line.level);
  }
  return levels;
}

typedef std::vector<std::string> Levels;

// How a failed call with `code` reads in a record.
std::string FailedCall(const std::string& invoked, ResultCode code) {
  char text[160];
  snprintf(text, sizeof(text), "Invoked Function: %s Return Code: %d (0x%.8X) ", invoked.c_str(),
           static_cast<int>(code), static_cast<unsigned>(code));
  return text;
}

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The policy document with `body` inside its root; `version` becomes the
// "twversion" attribute unless empty.
std::string Policy(const std::string& body, const std::string& version = "") {
  std::string root = "<TidewalkerLocalPolicy";
  if (!version.empty())
    root += " twversion=\"" + version + "\"";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + root + ">\n" + body +
         "\n</TidewalkerLocalPolicy>\n";
}

typedef std::vector<std::pair<std::string, std::string>> Messages;

// Message file text for msgfmt: a header naming `charset`, then the entries.
std::string PoText(const Messages& messages, const std::string& charset) {
  std::string text =
      "msgid \"\"\nmsgstr \"\"\n\"Project-Id-Version: keel-e2e\\n\"\n"
      "\"Content-Type: text/plain; charset=" +
      charset + "\\n\"\n\n";
  for (const auto& message : messages) {
    text += "msgid \"" + message.first + "\"\nmsgstr \"" + message.second + "\"\n\n";
  }
  return text;
}

uint32_t Word(const std::string& bytes, size_t offset) {
  uint32_t word = 0;
  memcpy(&word, bytes.data() + offset, sizeof(word));
  return word;
}

void PutWord(std::string& bytes, size_t offset, uint32_t value) {
  memcpy(&bytes[offset], &value, sizeof(value));
}

// Offsets of the catalogue header fields (in the machine's order, as msgfmt
// writes by default).
constexpr size_t kCountField = 8;
constexpr size_t kKeyTableField = 12;
constexpr size_t kTranslationTableField = 16;

// A copy of keelcli in a tree of its own below the build folder, an install
// folder staged beside it, and runs in a private namespace whose
// /opt/velon/tesselclient/ is a copy of that staged folder.
class PolicyEndToEnd : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"bin/xml/config", "home", "work", "out", "scratch", "stage", "po"}, "bin/keelcli"));
    if (IsSkipped())
      return;
  }

  // Puts `content` at `relative` below the install folder.
  void Install(const std::string& relative, const std::string& content) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("stage/" + relative), content));
  }

  void InstallPolicy(const std::string& text) { Install("TidewalkerLocalPolicy.xml", text); }

  // The bytes of a catalogue compiled by msgfmt from `messages`.
  std::string Compiled(const Messages& messages, const std::string& charset = "utf-8") {
    const std::string po = m_tree->Sub("po/messages.po");
    const std::string mo = m_tree->Sub("po/messages.mo");
    EXPECT_TRUE(WriteFile(po, PoText(messages, charset)));
    const keeltest::CommandResult made = keeltest::Run({"msgfmt", "-o", mo, po});
    EXPECT_EQ(made.status, 0) << made.err;
    const std::string bytes = ReadFile(mo);
    fs::remove(po);
    fs::remove(mo);
    return bytes;
  }

  // The product catalogue for the language folder `code`.
  void InstallProductCatalogue(const std::string& code, const std::string& bytes) {
    Install("l10n/" + code + "/LC_MESSAGES/Tidewalker.mo", bytes);
  }

  // The fall-back catalogue for the language folder `code`.
  void InstallFallbackCatalogue(const std::string& code, const std::string& bytes) {
    Install("resources/l10n/" + code + "/LC_MESSAGES/TesselClientDefault.mo", bytes);
  }

  // Runs keelcli with `args`, in the work folder, with a home of its own and
  // `env` added.
  IsolatedResult Keel(const std::vector<std::string>& args,
                      const std::vector<std::string>& env = {}) {
    std::vector<std::string> argv{m_tree->Sub("bin/keelcli")};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> environment{"HOME=" + m_tree->Sub("home"), "USER=tester"};
    environment.insert(environment.end(), env.begin(), env.end());
    // Refuses to copy unless /opt is the namespace's own tmpfs, so nothing
    // can land in the host's real /opt.
    const std::string prepare =
        "mountpoint -q /opt || exit 94\nmkdir -p /opt/velon/tesselclient && cp -R " +
        Quote(m_tree->Sub("stage") + "/.") + " /opt/velon/tesselclient/ || exit 95\n";
    return keeltest::RunIsolated(argv, environment, m_tree->Sub("work"), m_tree->Sub("scratch"),
                                 prepare);
  }

  IsolatedResult Version(const std::vector<std::string>& env = {}) { return Keel({"-v"}, env); }

  // A run of -v that printed the version text with `notice` and nothing else.
  void ExpectVersionText(const IsolatedResult& run, const std::string& notice) {
    EXPECT_EQ(run.status, 0) << run.err << run.log;
    EXPECT_EQ(run.out, VersionBlock(notice)) << run.log;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.tmpListing, "");
  }
};

// Policy load.

TEST_F(PolicyEndToEnd, FipsModeTrueIsReportedEnabledAtNoticeLevel) {
  InstallPolicy(Policy("<FipsMode>true</FipsMode>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsEnabled), Levels{"NOTICE"}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{"NOTICE"});
  // A well-formed document leaves no error behind.
  EXPECT_EQ(LevelsHolding(run.log, "xml errorCB"), Levels{});
}

TEST_F(PolicyEndToEnd, FipsModeValueIsCaseSensitive) {
  InstallPolicy(Policy("<FipsMode>TRUE</FipsMode>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsDisabled), Levels{"NOTICE"}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, kFipsEnabled), Levels{});
}

TEST_F(PolicyEndToEnd, PolicyWithoutFipsModeIsReportedDisabled) {
  InstallPolicy(Policy("<BypassDownloader>true</BypassDownloader>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsDisabled), Levels{"NOTICE"}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{"NOTICE"});
}

TEST_F(PolicyEndToEnd, NoPolicyDocumentWritesNoFipsLine) {
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, "LoadLocalTidewalkerPolicy"), Levels{});
  // The catalogue still reads the (default) record.
  EXPECT_EQ(LevelsEndingWith(run.log, "Bypass Default Localization is set to false"),
            Levels{"NOTICE"});
}

TEST_F(PolicyEndToEnd, FolderInPlaceOfThePolicyCountsAsNoDocument) {
  fs::create_directories(m_tree->Sub("stage/TidewalkerLocalPolicy.xml"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, "xml errorCB"), Levels{});
}

TEST_F(PolicyEndToEnd, MalformedPolicyIsLoggedAndTheVersionStillPrints) {
  InstallPolicy(
      "<?xml version=\"1.0\"?>\n<TidewalkerLocalPolicy>\n<FipsMode>true</FipsMode>\n"
      "<BypassDownloader>true</Bypass");
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_FALSE(LevelsHolding(run.log, "xml errorCB: ").empty()) << run.log;
  for (const std::string& level : LevelsHolding(run.log, "xml errorCB: "))
    EXPECT_EQ(level, "ERROR");
  // The loader names the parser, and the start-up names the loader.
  EXPECT_EQ(LevelsHolding(run.log, FailedCall("XmlParser::parseFile", GLOBAL_ERROR_UNEXPECTED)),
            Levels{"ERROR"});
  EXPECT_EQ(LevelsHolding(run.log, FailedCall("XmlLocalTWPolMgr::LoadLocalTidewalkerPolicy",
                                              GLOBAL_ERROR_UNEXPECTED)),
            Levels{"ERROR"});
}

TEST_F(PolicyEndToEnd, MalformedPolicyKeepsWhatWasReadBeforeTheFault) {
  InstallPolicy(
      "<TidewalkerLocalPolicy>\n<BypassDefaultLocalization>true</BypassDefaultLocalization>\n"
      "<FipsMode>true</FipsMode>\n<Oops></TidewalkerLocalPolicy>\n");
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, "Bypass Default Localization is set to true"),
            Levels{"NOTICE"})
      << run.log;
}

TEST_F(PolicyEndToEnd, EmptyPolicyFileIsAParseFailure) {
  InstallPolicy("");
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, FailedCall("XmlLocalTWPolMgr::LoadLocalTidewalkerPolicy",
                                              GLOBAL_ERROR_UNEXPECTED)),
            Levels{"ERROR"})
      << run.log;
}

TEST_F(PolicyEndToEnd, BinaryGarbageAsPolicyIsAParseFailure) {
  std::string garbage;
  for (int i = 0; i < 4096; ++i)
    garbage += static_cast<char>((i * 37 + 11) & 0xFF);
  InstallPolicy(garbage);
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{}) << run.log;
  EXPECT_EQ(LevelsHolding(run.log, FailedCall("XmlParser::parseFile", GLOBAL_ERROR_UNEXPECTED)),
            Levels{"ERROR"});
}

TEST_F(PolicyEndToEnd, UpdateKeyOutsideUpdatePolicyWarnsAndTheLoadGoesOn) {
  InstallPolicy(
      Policy("<AllowHelpUpdatesFromAnyServer>false</AllowHelpUpdatesFromAnyServer>\n"
             "<FipsMode>true</FipsMode>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, kStructureWarning), Levels{"WARNING"}) << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsEnabled), Levels{"NOTICE"});
}

TEST_F(PolicyEndToEnd, UpdateKeysInsideUpdatePolicyDoNotWarn) {
  InstallPolicy(
      Policy("<UpdatePolicy><AllowHelpUpdatesFromAnyServer>false"
             "</AllowHelpUpdatesFromAnyServer><AuthorizedServerList>"
             "<ServerName>a.example</ServerName></AuthorizedServerList></UpdatePolicy>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kStructureWarning), Levels{}) << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsDisabled), Levels{"NOTICE"});
}

TEST_F(PolicyEndToEnd, VersionAttributeOnAnotherElementIsNotCompared) {
  InstallPolicy(Policy("<FipsMode twversion=\"99\">true</FipsMode>"));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsHolding(run.log, kNewerVersion), Levels{}) << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsEnabled), Levels{"NOTICE"});
}

TEST_F(PolicyEndToEnd, BundleRunReportsFipsOnceAndStillMakesTheBundle) {
  InstallPolicy(Policy("<FipsMode>true</FipsMode>", "5.1.9.113"));
  ASSERT_TRUE(WriteFile(m_tree->Sub("src/a.log"), "alpha\n"));
  ASSERT_TRUE(
      WriteFile(m_tree->Sub("bin/xml/config/one.xml"),
                "<config><configure><title>One</title></configure><fileGroup treeRootName=\"One\">"
                "<title>One</title><file id=\"alpha\"><description>alpha</description>"
                "<default>true</default><keel><os opsys=\"linux\"><file_copy_action><action><loc>" +
                    m_tree->Sub("src/a.log") +
                    "</loc></action></file_copy_action></os></keel></file></fileGroup></config>"));
  const std::string bundle = m_tree->Sub("out/policy.zip");
  const IsolatedResult run = Keel({"-dst", bundle});
  ASSERT_EQ(run.status, 0) << run.err << run.log;
  const std::string head = VersionBlock(kNotice) +
                           "Bundle option selected: custom\r\nBundle location: " + bundle +
                           "\r\n\r\n";
  EXPECT_EQ(run.out.substr(0, head.size()), head);
  EXPECT_EQ(LevelsHolding(run.log, kFipsAny), Levels{"NOTICE"}) << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsEnabled), Levels{"NOTICE"});
  EXPECT_EQ(LevelsHolding(run.log, kNewerVersion), Levels{});
  const std::vector<std::string> names = keeltest::ZipEntryNames(bundle);
  EXPECT_EQ(std::count(names.begin(), names.end(), "a.log"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), "summary.txt"), 1);
}

// The "twversion" attribute against the tool's own 5.1.9.113.

struct VersionCase {
  const char* version;
  bool newer;
};

void PrintTo(const VersionCase& value, std::ostream* out) {
  *out << value.version << (value.newer ? " (newer)" : " (not newer)");
}

// "5.1.9.113.1" becomes "v5_1_9_113_1", and "5,1,10" "v5c1c10".
std::string VersionCaseName(const ::testing::TestParamInfo<VersionCase>& info) {
  std::string name = "v";
  for (const char* c = info.param.version; *c != '\0'; ++c)
    name += *c == '.' ? '_' : *c == ',' ? 'c' : *c;
  return name + (info.param.newer ? "_newer" : "_not_newer");
}

class PolicyVersionEndToEnd : public PolicyEndToEnd,
                              public ::testing::WithParamInterface<VersionCase> {};

TEST_P(PolicyVersionEndToEnd, OnlyANewerVersionWarnsAndTheLoadGoesOn) {
  InstallPolicy(Policy("<FipsMode>true</FipsMode>", GetParam().version));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, kNewerVersion),
            GetParam().newer ? Levels{"WARNING"} : Levels{})
      << run.log;
  // The rest of the document is read either way.
  EXPECT_EQ(LevelsEndingWith(run.log, kFipsEnabled), Levels{"NOTICE"});
}

INSTANTIATE_TEST_SUITE_P(
    Twversion, PolicyVersionEndToEnd,
    ::testing::Values(VersionCase{"5.1.9.113.1", true}, VersionCase{"5,1,10", true},
                      VersionCase{"5.1.10", true}, VersionCase{"6", true},
                      VersionCase{"5.1.9.114", true}, VersionCase{"5.1.9.113", false},
                      VersionCase{"5.1.9.113.0", false}, VersionCase{"5.1.9", false},
                      VersionCase{"5.1.9.112.99", false}, VersionCase{"4.99", false}),
    VersionCaseName);

// Catalogues of the rights notice.

class CatalogEndToEnd : public PolicyEndToEnd {
 protected:
  // Builds the locale `name` (from en_US, UTF-8) into the tree and adds the
  // variables that select it; false when localedef can't build it here.
  bool UseLocale(const std::string& name, const std::string& variable = "LANG") {
    const std::string folder = m_tree->Sub("locales");
    fs::create_directories(folder);
    const keeltest::CommandResult built =
        keeltest::Run({"localedef", "-i", "en_US", "-f", "UTF-8", folder + "/" + name});
    // 1: built with warnings only.
    if ((built.status != 0 && built.status != 1) || !keeltest::PathExists(folder + "/" + name))
      return false;
    locale_env_ = {"LOCPATH=" + folder, variable + "=" + name, LeakCheckOptions()};
    return true;
  }

  IsolatedResult LocalVersion() { return Version(locale_env_); }

  // Under the leak checker: when a locale comes from a LOCPATH folder, the C
  // library keeps (and loses track of) its split copy of LOCPATH. That block
  // is the library's, not the program's, so the program's leak check is
  // told to pass over it; the caller's other options stay.
  std::string LeakCheckOptions() {
    const std::string suppressions = m_tree->Sub("lsan-suppressions.txt");
    EXPECT_TRUE(WriteFile(suppressions, "leak:__argz_add_sep\n"));
    const char* inherited = getenv("LSAN_OPTIONS");
    std::string options =
        inherited != nullptr && *inherited != '\0' ? inherited + std::string(":") : "";
    return "LSAN_OPTIONS=" + options + "print_suppressions=0:suppressions=" + suppressions;
  }

  std::vector<std::string> locale_env_;
};

// Skips the test when the locale can't be built here.
#define USE_LOCALE_OR_SKIP(...)                                     \
  do {                                                              \
    if (!UseLocale(__VA_ARGS__))                                    \
      GTEST_SKIP() << "localedef can't build the test locale here"; \
  } while (0)

TEST_F(CatalogEndToEnd, CLocaleFindsNoCatalogueInItsFolder) {
  // No locale variable at all: the process locale is "C", which never has a
  // catalogue, so its folder is not read.
  InstallProductCatalogue("C", Compiled({{kNotice, kFrenchNotice}}));
  InstallFallbackCatalogue("C", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "initialized catalog: Tidewalker with locale: c"),
            Levels{"NOTICE"})
      << run.log;
  EXPECT_EQ(LevelsHolding(run.log, "The character set is"), Levels{});
}

TEST_F(CatalogEndToEnd, CLocaleLooksUpTheLowerCaseCode) {
  // Only the names "C" and "POSIX" are barred; the code "c" of the C locale
  // is an ordinary folder name to the lookup of a message.
  InstallProductCatalogue("c", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = Version();
  ExpectVersionText(run, kFrenchNotice);
  // The set-up step looked under "C" and found nothing to name a charset.
  EXPECT_EQ(LevelsHolding(run.log, "The character set is"), Levels{}) << run.log;
}

TEST_F(CatalogEndToEnd, LanguageTerritoryCatalogueTranslatesTheNotice) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kFrenchNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "initialized catalog: Tidewalker with locale: en-us"),
            Levels{"NOTICE"})
      << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, "The character set is utf-8."), Levels{"NOTICE"});
}

TEST_F(CatalogEndToEnd, LocaleFromLcAllSelectsTheCatalogueToo) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8", "LC_ALL");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, LanguageCatalogueServesLanguageTerritory) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kFrenchNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "initialized catalog: Tidewalker with locale: en-us"),
            Levels{"NOTICE"});
}

TEST_F(CatalogEndToEnd, LanguageTerritoryCatalogueComesBeforeLanguage) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kBritishNotice}}));
  InstallProductCatalogue("en", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kBritishNotice);
}

TEST_F(CatalogEndToEnd, CatalogueWithoutTheNoticeLeavesItEnglish) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{"Some other message", "Autre message"}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "The character set is utf-8."), Levels{"NOTICE"}) << run.log;
}

TEST_F(CatalogEndToEnd, LocaleWithoutCodesetHasNoLanguageFallBack) {
  // "en_US" gives the code "en_us": no "-", so the "en" folder is not tried.
  USE_LOCALE_OR_SKIP("en_US");
  InstallProductCatalogue("en", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "initialized catalog: Tidewalker with locale: en_us"),
            Levels{"NOTICE"})
      << run.log;
}

TEST_F(CatalogEndToEnd, LocaleWithoutCodesetReadsItsUnderscoreFolder) {
  USE_LOCALE_OR_SKIP("en_US");
  InstallProductCatalogue("en_us", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, FallBackDomainTranslatesWithoutBypass) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallPolicy(Policy("<BypassDefaultLocalization>false</BypassDefaultLocalization>"));
  InstallProductCatalogue("en-us", Compiled({{"Some other message", "Autre message"}}));
  InstallFallbackCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kFrenchNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "Bypass Default Localization is set to false"),
            Levels{"NOTICE"})
      << run.log;
}

TEST_F(CatalogEndToEnd, FallBackDomainTranslatesWithoutAnyPolicy) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallFallbackCatalogue("en", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, BypassKeepsANoticeOfTheFallBackDomainEnglish) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallPolicy(Policy("<BypassDefaultLocalization>true</BypassDefaultLocalization>"));
  InstallProductCatalogue("en-us", Compiled({{"Some other message", "Autre message"}}));
  InstallFallbackCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "Bypass Default Localization is set to true"),
            Levels{"NOTICE"})
      << run.log;
}

TEST_F(CatalogEndToEnd, BypassStillUsesTheProductCatalogue) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallPolicy(Policy("<BypassDefaultLocalization>true</BypassDefaultLocalization>"));
  InstallProductCatalogue("en-us", Compiled({{kNotice, kBritishNotice}}));
  InstallFallbackCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kBritishNotice);
}

TEST_F(CatalogEndToEnd, ProductCatalogueComesBeforeTheFallBack) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kBritishNotice}}));
  InstallFallbackCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kBritishNotice);
}

TEST_F(CatalogEndToEnd, UpperCaseCharsetIsLoggedButStillTranslates) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}, "UTF-8"));
  const IsolatedResult run = LocalVersion();
  ExpectVersionText(run, kFrenchNotice);
  EXPECT_EQ(LevelsEndingWith(run.log, "The specified character set <UTF-8> is unsupported."),
            Levels{"ERROR"})
      << run.log;
  EXPECT_EQ(LevelsEndingWith(run.log, "Error setting the translation catalog Tidewalker."),
            Levels{"ERROR"});
}

TEST_F(CatalogEndToEnd, BigEndianCatalogueReadsTheSame) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  const std::string po = m_tree->Sub("po/big.po");
  const std::string mo = m_tree->Sub("po/big.mo");
  ASSERT_TRUE(WriteFile(po, PoText({{kNotice, kFrenchNotice}}, "utf-8")));
  ASSERT_EQ(keeltest::Run({"msgfmt", "--endianness=big", "-o", mo, po}).status, 0);
  const std::string bytes = ReadFile(mo);
  ASSERT_EQ(bytes.substr(0, 4), std::string("\x95\x04\x12\xDE", 4));
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, CatalogueOfTheLimitSizeIsRead) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  ASSERT_LT(bytes.size(), kCatalogueLimit);
  bytes.resize(kCatalogueLimit, '\0');
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, CatalogueOneByteOverTheLimitIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  bytes.resize(kCatalogueLimit + 1, '\0');
  ASSERT_EQ(bytes.size(), 1048577u);
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, OversizedFallBackCatalogueIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  bytes.resize(kCatalogueLimit + 1, '\0');
  InstallFallbackCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, KeyTablePastTheEndIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  PutWord(bytes, kKeyTableField, static_cast<uint32_t>(bytes.size()) - 4);
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, TranslationTableAtTheTopOfTheAddressRangeIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  PutWord(bytes, kTranslationTableField, 0xFFFFFFF8u);
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, HugeStringCountIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  PutWord(bytes, kCountField, 0x20000001u);
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, TranslationStringPastTheEndIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  const uint32_t count = Word(bytes, kCountField);
  const uint32_t table = Word(bytes, kTranslationTableField);
  ASSERT_EQ(count, 2u);  // the header and the notice
  // Every translation points at the last byte of the file and claims more.
  for (uint32_t i = 0; i < count; ++i) {
    PutWord(bytes, table + i * 8, 64);
    PutWord(bytes, table + i * 8 + 4, static_cast<uint32_t>(bytes.size()) - 1);
  }
  InstallProductCatalogue("en-us", bytes);
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, TruncatedCatalogueIsIgnored) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  const std::string bytes = Compiled({{kNotice, kFrenchNotice}});
  InstallProductCatalogue("en-us", bytes.substr(0, 10));
  ExpectVersionText(LocalVersion(), kNotice);
}

TEST_F(CatalogEndToEnd, CorruptCatalogueLeavesTheFallBackUsable) {
  // A broken product catalogue is skipped like a missing one.
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  std::string bytes = Compiled({{kNotice, kBritishNotice}});
  PutWord(bytes, kKeyTableField, 0xFFFFFFF0u);
  InstallProductCatalogue("en-us", bytes);
  InstallFallbackCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  ExpectVersionText(LocalVersion(), kFrenchNotice);
}

TEST_F(CatalogEndToEnd, TranslatedNoticeHeadsABundleRunToo) {
  USE_LOCALE_OR_SKIP("en_US.UTF-8");
  InstallProductCatalogue("en-us", Compiled({{kNotice, kFrenchNotice}}));
  ASSERT_TRUE(
      WriteFile(m_tree->Sub("bin/xml/config/one.xml"),
                "<config><configure><title>One</title></configure><fileGroup treeRootName=\"One\">"
                "<title>One</title></fileGroup></config>"));
  const std::string bundle = m_tree->Sub("out/fr.zip");
  const IsolatedResult run = Keel({"-dst", bundle}, locale_env_);
  ASSERT_EQ(run.status, 0) << run.err << run.log;
  const std::string head = VersionBlock(kFrenchNotice) +
                           "Bundle option selected: custom\r\nBundle location: " + bundle +
                           "\r\n\r\n";
  EXPECT_EQ(run.out.substr(0, head.size()), head);
  // Only the notice is translated: the rest of the run stays English.
  EXPECT_NE(run.out.find("KEEL has finished... "), std::string::npos) << run.out;
  EXPECT_EQ(LevelsHolding(run.log, "initialized catalog: "), Levels{"NOTICE"});
}

}  // namespace
