// Path translation and host lookups of helperUtil.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "Common/Utility/HostOSInfo.h"
#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

// Sets or unsets one environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    const char* old = getenv(name);
    m_hadOld = old != nullptr;
    if (m_hadOld)
      m_old = old;
    if (value != nullptr)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (m_hadOld)
      setenv(m_name.c_str(), m_old.c_str(), 1);
    else
      unsetenv(m_name.c_str());
  }

 private:
  std::string m_name;
  std::string m_old;
  bool m_hadOld = false;
};

using keeltest::ScopedCwd;

std::string RealFolder(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

const char kUnsetName[] = "KEEL_TEST_SURELY_UNSET";

}  // namespace

// ---- translatePath ------------------------------------------------------------

TEST(TranslatePath, VariableWithoutSlashStaysAsItIs) {
  keeltest::TempDir home;
  ScopedEnv env("HOME", home.path().c_str());
  keeltest::LogCapture log;
  EXPECT_EQ("$HOME", helperUtil::translatePath("$HOME"));
  EXPECT_EQ("/x/$HOME", helperUtil::translatePath("/x/$HOME"));
  EXPECT_FALSE(log.Contains("Cannot determine"));
}

TEST(TranslatePath, VariableWithSlashBecomesFolderWithOneSlash) {
  keeltest::TempDir home;
  ScopedEnv env("HOME", home.path().c_str());
  EXPECT_EQ(home.path() + "/", helperUtil::translatePath("$HOME/"));
  EXPECT_EQ(home.path() + "/Desktop/", helperUtil::translatePath("$HOME/Desktop/"));
}

TEST(TranslatePath, ValueEndingInSlashKeepsOneSlash) {
  ScopedEnv env("KEEL_TEST_DIR", "/data/");
  EXPECT_EQ("/data/logs", helperUtil::translatePath("$KEEL_TEST_DIR/logs"));
}

TEST(TranslatePath, VariableInsideText) {
  ScopedEnv env("X", "/v");
  EXPECT_EQ("a/v/b", helperUtil::translatePath("a$X/b"));
}

TEST(TranslatePath, UnsetVariableIsLoggedAndLeftUnchanged) {
  ScopedEnv env(kUnsetName, nullptr);
  keeltest::LogCapture log;
  const std::string path = std::string("$") + kUnsetName + "/x";
  EXPECT_EQ(path, helperUtil::translatePath(path));
  EXPECT_TRUE(log.Contains(std::string("Cannot determine environment variable ") + kUnsetName +
                           ", path " + path + " cannot be translated"));
  ASSERT_EQ(1u, log.logger().Records().size());
  EXPECT_EQ(LOG_LEVEL_E, log.logger().Records()[0].level);
}

TEST(TranslatePath, EmptyVariableCountsAsUnset) {
  ScopedEnv env("KEEL_TEST_EMPTY", "");
  keeltest::LogCapture log;
  EXPECT_EQ("$KEEL_TEST_EMPTY/x", helperUtil::translatePath("$KEEL_TEST_EMPTY/x"));
  EXPECT_TRUE(log.Contains("Cannot determine environment variable KEEL_TEST_EMPTY"));
}

TEST(TranslatePath, EarlierExpansionStaysWhenLaterVariableIsUnset) {
  ScopedEnv a("A", "/first");
  ScopedEnv b("B", nullptr);
  keeltest::LogCapture log;
  EXPECT_EQ("/first/$B/", helperUtil::translatePath("$A/$B/"));
  EXPECT_TRUE(log.Contains(
      "Cannot determine environment variable B, path /first/$B/ cannot be translated"));
}

TEST(TranslatePath, ValueHoldingVariableIsExpandedInItsTurn) {
  ScopedEnv x("KEEL_TEST_OUTER", "$KEEL_TEST_INNER/z");
  ScopedEnv y("KEEL_TEST_INNER", "/y");
  EXPECT_EQ("/y/z/f", helperUtil::translatePath("$KEEL_TEST_OUTER/f"));
}

TEST(TranslatePath, TextWithoutDollarIsUnchanged) {
  EXPECT_EQ("/var/log/syslog", helperUtil::translatePath("/var/log/syslog"));
  EXPECT_EQ("", helperUtil::translatePath(""));
}

TEST(TranslatePath, BracesAndTildeAreNotVariables) {
  keeltest::LogCapture log;
  EXPECT_EQ("~/x", helperUtil::translatePath("~/x"));
  // "${HOME}" names the variable "{HOME}", which does not exist.
  EXPECT_EQ("${HOME}/x", helperUtil::translatePath("${HOME}/x"));
  EXPECT_TRUE(log.Contains("Cannot determine environment variable {HOME}"));
}

TEST(TranslatePath, SelfNamingValueStopsAndLogs) {
  ScopedEnv env("KEEL_TEST_SELF", "$KEEL_TEST_SELF/a");
  keeltest::LogCapture log;
  const std::string result = helperUtil::translatePath("$KEEL_TEST_SELF/b");
  EXPECT_NE(std::string::npos, result.find("$KEEL_TEST_SELF/"));
  EXPECT_TRUE(log.Contains("expand without end"));
}

TEST(TranslatePath, DoublingValueStopsBeforeMemoryRunsOut) {
  ScopedEnv env("KEEL_TEST_TWICE", "$KEEL_TEST_TWICE/$KEEL_TEST_TWICE/");
  keeltest::LogCapture log;
  const std::string result = helperUtil::translatePath("$KEEL_TEST_TWICE/");
  EXPECT_LE(result.size(), 4u << 20);
  EXPECT_TRUE(log.Contains("expand without end"));
}

TEST(EnvironmentVariable, LeadingDollarIsDropped) {
  ScopedEnv env("KEEL_TEST_VALUE", "abc");
  EXPECT_EQ("abc", helperUtil::getEnvironmentVariable("KEEL_TEST_VALUE"));
  EXPECT_EQ("abc", helperUtil::getEnvironmentVariable("$KEEL_TEST_VALUE"));
}

TEST(EnvironmentVariable, UnsetGivesEmpty) {
  ScopedEnv env(kUnsetName, nullptr);
  EXPECT_EQ("", helperUtil::getEnvironmentVariable(kUnsetName));
  EXPECT_EQ("", helperUtil::getEnvironmentVariable(""));
  EXPECT_EQ("", helperUtil::getEnvironmentVariable("$"));
}

TEST(SessionUser, ReadsUserVariableOnly) {
  {
    ScopedEnv env("USER", "alice");
    EXPECT_EQ("alice", helperUtil::getSessionUser());
  }
  ScopedEnv env("USER", nullptr);
  EXPECT_EQ("", helperUtil::getSessionUser());
}

TEST(SessionUser, GetSessionUsernameIsNotImplemented) {
  std::string name = "stale";
  EXPECT_EQ(KEELENGINE_ERROR_NOT_IMPLEMENTED, helperUtil::GetSessionUsername(name));
  EXPECT_EQ("", name);
}

TEST(SessionUser, IsNeverAdministrator) {
  EXPECT_FALSE(helperUtil::isUserAdmin());
}

// ---- Folders ------------------------------------------------------------------

TEST(CurrentFolder, IsTheProcessFolder) {
  keeltest::TempDir dir;
  ScopedCwd cwd(dir.path());
  EXPECT_EQ(RealFolder(dir.path()), helperUtil::getCurrentFolder());
}

TEST(CurrentFolder, LongerThanFirstBufferGrows) {
  keeltest::TempDir dir;
  std::string deep = dir.path();
  while (deep.size() < 700)
    deep += "/" + std::string(60, 'd');
  ASSERT_TRUE(keeltest::WriteFile(deep + "/marker", "x"));
  ScopedCwd cwd(deep);
  EXPECT_EQ(RealFolder(deep), helperUtil::getCurrentFolder());
}

TEST(AbsolutePath, RelativeFormsWithSlashStayUnchanged) {
  keeltest::TempDir dir;
  ScopedCwd cwd(dir.path());
  EXPECT_EQ("../x", helperUtil::toAbsolutePath("../x"));
  EXPECT_EQ("a/b", helperUtil::toAbsolutePath("a/b"));
  EXPECT_EQ("/abs/path", helperUtil::toAbsolutePath("/abs/path"));
}

TEST(AbsolutePath, BareNameAndDotSlashGoUnderCurrentFolder) {
  keeltest::TempDir dir;
  ScopedCwd cwd(dir.path());
  const std::string current = RealFolder(dir.path()) + "/";
  EXPECT_EQ(current + "a", helperUtil::toAbsolutePath("a"));
  EXPECT_EQ(current + "a", helperUtil::toAbsolutePath("./a"));
  EXPECT_EQ(current + "a/b", helperUtil::toAbsolutePath("./a/b"));
  EXPECT_EQ(current, helperUtil::toAbsolutePath(""));
}

TEST(AbsolutePath, RootFolderIsNotDoubled) {
  ScopedCwd cwd("/");
  EXPECT_EQ("/a", helperUtil::toAbsolutePath("a"));
}

TEST(InstallFolder, IsTheFolderOfThisProgram) {
  EXPECT_EQ(keeltest::BuildDir() + "/", helperUtil::getInstallFolder());
}

// A stand-in process table holding this process's folder, and the paths
// that name it.
class FakeProcessTable {
 public:
  FakeProcessTable() {
    m_paths.procRoot = m_dir.path();
    m_own = m_dir.Sub(std::to_string(getpid()));
  }
  const HostPaths& paths() const { return m_paths; }
  // This process's exe entry, its folder made.
  std::string Exe() {
    mkdir(m_own.c_str(), 0700);
    return m_own + "/exe";
  }
  // This process's folder as a link to another one.
  bool LinkOwnFolderTo(const std::string& target) {
    return symlink(target.c_str(), m_own.c_str()) == 0;
  }

 private:
  keeltest::TempDir m_dir;
  HostPaths m_paths;
  std::string m_own;
};

TEST(InstallFolder, TakesLinkTextUpToLastSlash) {
  FakeProcessTable table;
  ASSERT_EQ(0, symlink("/opt/some where/bin/prog", table.Exe().c_str()));
  EXPECT_EQ("/opt/some where/bin/", helperUtil::getInstallFolder(table.paths()));
}

TEST(InstallFolder, UnreadableLinkGivesFixedFolder) {
  FakeProcessTable missing;
  EXPECT_EQ("/opt/velon/tesselclient/keel/", helperUtil::getInstallFolder(missing.paths()));
  FakeProcessTable plain;
  ASSERT_TRUE(keeltest::WriteFile(plain.Exe(), "not a link"));
  EXPECT_EQ("/opt/velon/tesselclient/keel/", helperUtil::getInstallFolder(plain.paths()));
}

TEST(InstallFolder, LinkTextWithoutSlashGivesEmpty) {
  FakeProcessTable table;
  ASSERT_EQ(0, symlink("prog", table.Exe().c_str()));
  EXPECT_EQ("", helperUtil::getInstallFolder(table.paths()));
}

TEST(InstallFolder, ProgramStartedThroughSymlinkGivesTargetFolder) {
  keeltest::TempDir dir;
  const std::string target = RealFolder("/bin/sleep");
  ASSERT_FALSE(target.empty());
  const std::string link = dir.Sub("sleeper");
  ASSERT_EQ(0, symlink("/bin/sleep", link.c_str()));
  const pid_t child = fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    execl(link.c_str(), "sleeper", "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  // The stand-in table shows the child's entry as this process's own. Wait
  // until the child runs the program rather than this test's image.
  FakeProcessTable table;
  ASSERT_TRUE(table.LinkOwnFolderTo("/proc/" + std::to_string(child)));
  std::string folder;
  for (int i = 0; i < 500; ++i) {
    folder = helperUtil::getInstallFolder(table.paths());
    if (folder != keeltest::BuildDir() + "/")
      break;
    usleep(10000);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(target.substr(0, target.rfind('/') + 1), folder);
}

TEST(ConfigFolder, GivenBaseWithOrWithoutSlash) {
  EXPECT_EQ("/a/b/xml/config/", helperUtil::getConfigFolder("/a/b"));
  EXPECT_EQ("/a/b/xml/config/", helperUtil::getConfigFolder("/a/b/"));
}

TEST(ConfigFolder, EmptyBaseUsesInstallFolder) {
  EXPECT_EQ(helperUtil::getInstallFolder() + "xml/config/", helperUtil::getConfigFolder(""));
  EXPECT_EQ(helperUtil::getInstallFolder() + "xml/config/", helperUtil::getConfigFolder());
}

// ---- Desktop ------------------------------------------------------------------

TEST(DesktopFolder, XdgConfigHomeWithoutFileFallsBackWithoutTryingHome) {
  keeltest::TempDir home;
  keeltest::TempDir config;
  ASSERT_TRUE(
      keeltest::WriteFile(home.Sub(".config/user-dirs.dirs"), "XDG_DESKTOP_DIR=\"/from/home\"\n"));
  ScopedEnv h("HOME", home.path().c_str());
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("$HOME/Desktop/", helperUtil::getDesktopFolder());
  EXPECT_EQ("", helperUtil::readDesktopFolder());
}

TEST(DesktopFolder, ReadsFileBelowXdgConfigHome) {
  keeltest::TempDir config;
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"),
                                  "# written by xdg-user-dirs-update\n"
                                  "XDG_DOWNLOAD_DIR=\"$HOME/Downloads\"\n"
                                  "XDG_DESKTOP_DIR=\"/data/Desk top\"\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("/data/Desk top/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, ReadsFileBelowHomeConfigWhenXdgUnset) {
  keeltest::TempDir home;
  ASSERT_TRUE(keeltest::WriteFile(home.Sub(".config/user-dirs.dirs"),
                                  "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"));
  ScopedEnv h("HOME", home.path().c_str());
  ScopedEnv x("XDG_CONFIG_HOME", nullptr);
  EXPECT_EQ("$HOME/Schreibtisch/", helperUtil::getDesktopFolder());
  EXPECT_EQ(home.path() + "/Schreibtisch/",
            helperUtil::translatePath(helperUtil::getDesktopFolder()));
}

TEST(DesktopFolder, EmptyXdgConfigHomeCountsAsUnset) {
  keeltest::TempDir home;
  ASSERT_TRUE(
      keeltest::WriteFile(home.Sub(".config/user-dirs.dirs"), "XDG_DESKTOP_DIR=\"/home/desk\"\n"));
  ScopedEnv h("HOME", home.path().c_str());
  ScopedEnv x("XDG_CONFIG_HOME", "");
  EXPECT_EQ("/home/desk/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, NoHomeAndNoXdgGivesLiteral) {
  ScopedEnv h("HOME", nullptr);
  ScopedEnv x("XDG_CONFIG_HOME", nullptr);
  EXPECT_EQ("", helperUtil::readDesktopFolder());
  EXPECT_EQ("$HOME/Desktop/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, LastMatchingLineWins) {
  keeltest::TempDir config;
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"),
                                  "XDG_DESKTOP_DIR=\"/first\"\nXDG_DESKTOP_DIR=\"/second\"\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("/second/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, LeadingBlanksCarryClosingQuoteIntoResult) {
  keeltest::TempDir config;
  ASSERT_TRUE(
      keeltest::WriteFile(config.Sub("user-dirs.dirs"), "  XDG_DESKTOP_DIR=\"$HOME/Desk\"\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("$HOME/Desk\"/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, LeadingBlanksCarryTextBehindQuote) {
  keeltest::TempDir config;
  // Key at 2, last quote at 29: 12 characters from 19.
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"),
                                  "  XDG_DESKTOP_DIR=\"$HOME/Desk\" # note\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("$HOME/Desk\" /", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, CommentLineWithKeyCountsAsMatch) {
  keeltest::TempDir config;
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"),
                                  "XDG_DESKTOP_DIR=\"/real\"\n#XDG_DESKTOP_DIR=\"/old\"\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  // Key at 1, last quote at 22: 5 characters from 18.
  EXPECT_EQ("/old\"/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, KeyWithoutValueDoesNotCrash) {
  keeltest::TempDir config;
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"), "XDG_DESKTOP_DIR=\""));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("/", helperUtil::getDesktopFolder());
}

TEST(DesktopFolder, FileWithoutKeyFallsBack) {
  keeltest::TempDir config;
  ASSERT_TRUE(keeltest::WriteFile(config.Sub("user-dirs.dirs"), "XDG_MUSIC_DIR=\"/m\"\n"));
  ScopedEnv x("XDG_CONFIG_HOME", config.path().c_str());
  EXPECT_EQ("$HOME/Desktop/", helperUtil::getDesktopFolder());
}

// ---- OS description -------------------------------------------------------------

namespace {

HostOSInfo RecordOf(uint32_t type, const char* name, const char* version) {
  HostOSInfo info;
  std::memset(&info, 0, sizeof(info));
  info.type = type;
  std::strncpy(info.name, name, sizeof(info.name) - 1);
  std::strncpy(info.version, version, sizeof(info.version) - 1);
  return info;
}

}  // namespace

TEST(OsDescription, LinuxIsNameColonVersion) {
  EXPECT_EQ(
      "Linux: Ubuntu 22.04.1 LTS (Jammy Jellyfish)",
      helperUtil::getOsDescription(RecordOf(6, "Linux", "Ubuntu 22.04.1 LTS (Jammy Jellyfish)")));
}

TEST(OsDescription, MacIsWordAndVersion) {
  EXPECT_EQ("macOS 14.2", helperUtil::getOsDescription(RecordOf(5, "Darwin", "14.2")));
}

TEST(OsDescription, OtherFamiliesAreUnknown) {
  EXPECT_EQ("Unknown: x 1", helperUtil::getOsDescription(RecordOf(7, "Other", "x 1")));
  EXPECT_EQ("Unknown: ", helperUtil::getOsDescription(RecordOf(0, "", "")));
}

TEST(OsDescription, ThisHostIsLinux) {
  EXPECT_EQ(0u, helperUtil::getOsDescription().rfind("Linux: ", 0));
}
