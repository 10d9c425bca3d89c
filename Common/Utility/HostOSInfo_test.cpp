#include "Common/Utility/HostOSInfo.h"

#include <sys/utsname.h>

#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"

namespace {

// Release files of a fake host inside a temporary folder; none exist until
// written.
class HostFiles {
 public:
  HostFiles() {
    m_paths.osRelease = m_dir.Sub("os-release");
    m_paths.procVersion = m_dir.Sub("version");
    m_paths.issue = m_dir.Sub("issue");
  }
  const HostPaths& paths() const { return m_paths; }
  void osRelease(const std::string& text) {
    ASSERT_TRUE(keeltest::WriteFile(m_paths.osRelease, text));
  }
  void procVersion(const std::string& text) {
    ASSERT_TRUE(keeltest::WriteFile(m_paths.procVersion, text));
  }
  void issue(const std::string& text) { ASSERT_TRUE(keeltest::WriteFile(m_paths.issue, text)); }

 private:
  keeltest::TempDir m_dir;
  HostPaths m_paths;
};

std::string UnameVersion() {
  utsname host;
  EXPECT_EQ(0, uname(&host));
  std::string text =
      std::string(host.sysname) + " " + host.release + " " + host.version + " " + host.machine;
  return text.substr(0, 255);
}

HostOSInfo FilledWithGarbage() {
  HostOSInfo info;
  std::memset(&info, 0x5A, sizeof(info));
  return info;
}

}  // namespace

TEST(HostOSRelease, DefaultPathsAreTheHostFiles) {
  const HostPaths paths;
  EXPECT_EQ("/etc/os-release", paths.osRelease);
  EXPECT_EQ("/proc/version", paths.procVersion);
  EXPECT_EQ("/etc/issue", paths.issue);
}

TEST(HostOSRelease, OsReleaseIsReadWhole) {
  HostFiles host;
  host.osRelease("NAME=\"Ubuntu\"\nVERSION=\"22.04\"\nID=ubuntu\n");
  host.procVersion("Linux version 6.1\nsecond\n");
  std::string text = "stale";
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("NAME=\"Ubuntu\"\nVERSION=\"22.04\"\nID=ubuntu\n", text);
}

TEST(HostOSRelease, EmptyOsReleaseGivesTrueAndEmptyText) {
  HostFiles host;
  host.osRelease("");
  host.procVersion("Linux version 6.1\n");
  std::string text = "stale";
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("", text);
}

TEST(HostOSRelease, ProcVersionGivesItsFirstLineOnly) {
  HostFiles host;
  host.procVersion("Linux version 6.1.0 (gcc)\nsecond line\n");
  host.issue("Debian GNU/Linux 12 \\n \\l\n");
  std::string text;
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("Linux version 6.1.0 (gcc)", text);
}

TEST(HostOSRelease, IssueIsTheLastResort) {
  HostFiles host;
  host.issue("Debian GNU/Linux 12 \\n \\l\nmore\n");
  std::string text;
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("Debian GNU/Linux 12 \\n \\l", text);
}

TEST(HostOSRelease, UnterminatedFirstLineIsFine) {
  HostFiles host;
  host.issue("Alpine Linux 3.19");
  std::string text;
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("Alpine Linux 3.19", text);
}

TEST(HostOSRelease, NoSourceGivesFalseAndClearsText) {
  HostFiles host;
  std::string text = "stale";
  EXPECT_FALSE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("", text);
}

TEST(HostOSRelease, FolderInPlaceOfOsReleaseIsPassedOver) {
  // fileExists answers false for a folder, so the next source is taken.
  HostFiles host;
  ASSERT_TRUE(keeltest::WriteFile(host.paths().osRelease + "/inside", "x"));
  host.procVersion("Linux version 6.1\n");
  std::string text;
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("Linux version 6.1", text);
}

TEST(HostOSRelease, SlotDecidesWholeFileNotThePathText) {
  // A second-slot file is read by its first line even when it is an
  // os-release file by content.
  HostFiles host;
  host.procVersion("NAME=\"Ubuntu\"\nVERSION=\"22.04\"\n");
  std::string text;
  EXPECT_TRUE(readOSReleaseText(text, host.paths()));
  EXPECT_EQ("NAME=\"Ubuntu\"", text);
}

TEST(HostOSField, QuotedValue) {
  std::string value;
  EXPECT_TRUE(getOSField("NAME=\"Ubuntu\"\n", "NAME", value));
  EXPECT_EQ("Ubuntu", value);
}

TEST(HostOSField, UnquotedValueKeepsBlanks) {
  std::string value;
  EXPECT_TRUE(getOSField("NAME=Fedora Linux\nID=fedora\n", "NAME", value));
  EXPECT_EQ("Fedora Linux", value);
}

TEST(HostOSField, UnquotedValueAtLineFeedEndOfText) {
  std::string value;
  EXPECT_TRUE(getOSField("NAME=Fedora Linux\n", "NAME", value));
  EXPECT_EQ("Fedora Linux", value);
}

TEST(HostOSField, UnquotedValueAtVeryEndLosesLastCharacter) {
  std::string value;
  EXPECT_TRUE(getOSField("ID=x\nNAME=Fedora", "NAME", value));
  EXPECT_EQ("Fedor", value);
}

TEST(HostOSField, FirstMatchWinsInsidePrettyName) {
  std::string value;
  EXPECT_TRUE(getOSField("PRETTY_NAME=\"Foo 1\"\nNAME=\"Foo\"\n", "NAME", value));
  EXPECT_EQ("Foo 1", value);
  EXPECT_TRUE(getOSField("PRETTY_NAME=Foo 1\nNAME=Foo\n", "NAME", value));
  EXPECT_EQ("Foo 1", value);
}

TEST(HostOSField, NameLineFirstIsFoundBeforePrettyName) {
  std::string value;
  EXPECT_TRUE(getOSField("NAME=\"Foo\"\nPRETTY_NAME=\"Foo 1\"\n", "NAME", value));
  EXPECT_EQ("Foo", value);
}

TEST(HostOSField, KeyAtVeryEndGivesFalse) {
  std::string value = "stale";
  EXPECT_FALSE(getOSField("ID=x\nNAME=", "NAME", value));
  EXPECT_EQ("", value);
}

TEST(HostOSField, SingleUnquotedCharacterAtEndGivesFalse) {
  std::string value;
  EXPECT_FALSE(getOSField("NAME=F", "NAME", value));
}

TEST(HostOSField, MissingClosingQuoteGivesFalse) {
  std::string value;
  EXPECT_FALSE(getOSField("NAME=\"Ubuntu\n", "NAME", value));
}

TEST(HostOSField, EmptyQuotedValueIsFound) {
  std::string value = "stale";
  EXPECT_TRUE(getOSField("NAME=\"\"\n", "NAME", value));
  EXPECT_EQ("", value);
}

TEST(HostOSField, MissingKeyGivesFalse) {
  std::string value;
  EXPECT_FALSE(getOSField("ID=ubuntu\n", "NAME", value));
  // "VERSION_ID=" is not "VERSION=".
  EXPECT_FALSE(getOSField("VERSION_ID=\"22.04\"\n", "VERSION", value));
}

TEST(HostOSField, EmptyTextOrKeyGivesFalseAndKeepsValue) {
  std::string value = "kept";
  EXPECT_FALSE(getOSField("", "NAME", value));
  EXPECT_EQ("kept", value);
  EXPECT_FALSE(getOSField("NAME=x\n", "", value));
  EXPECT_EQ("kept", value);
}

TEST(HostOSField, UnprintableByteEndsUnquotedValue) {
  std::string value;
  EXPECT_TRUE(getOSField("NAME=ab\tcd\n", "NAME", value));
  EXPECT_EQ("ab", value);
}

TEST(HostOSInfoRecord, NameAndVersionFromOsRelease) {
  HostFiles host;
  host.osRelease("NAME=\"Ubuntu\"\nVERSION=\"22.04.1 LTS (Jammy Jellyfish)\"\nID=ubuntu\n");
  HostOSInfo info = FilledWithGarbage();
  getHostOSInfo(info, host.paths());
  EXPECT_EQ(HOST_OS_TYPE_LINUX, info.type);
  EXPECT_EQ(6u, info.type);
  EXPECT_EQ(0u, info.major);
  EXPECT_EQ(0u, info.minor);
  EXPECT_STREQ("Linux", info.name);
  EXPECT_STREQ("Ubuntu 22.04.1 LTS (Jammy Jellyfish)", info.version);
  // The record is zero-filled behind the texts.
  EXPECT_EQ('\0', info.name[63]);
  EXPECT_EQ('\0', info.version[255]);
}

TEST(HostOSInfoRecord, UnquotedVersion) {
  HostFiles host;
  host.osRelease("NAME=Fedora Linux\nVERSION=39 (Workstation Edition)\nID=fedora\n");
  HostOSInfo info;
  getHostOSInfo(info, host.paths());
  EXPECT_STREQ("Fedora Linux 39 (Workstation Edition)", info.version);
}

TEST(HostOSInfoRecord, MissingVersionFallsBackToUname) {
  HostFiles host;
  host.osRelease("NAME=\"Arch Linux\"\nID=arch\n");
  HostOSInfo info;
  getHostOSInfo(info, host.paths());
  EXPECT_STREQ("Linux", info.name);
  EXPECT_EQ(UnameVersion(), info.version);
}

TEST(HostOSInfoRecord, ProcVersionSourceEndsWithUname) {
  HostFiles host;
  host.procVersion("Linux version 6.1.0\n");
  HostOSInfo info;
  getHostOSInfo(info, host.paths());
  EXPECT_EQ(UnameVersion(), info.version);
}

TEST(HostOSInfoRecord, NoSourceEndsWithUname) {
  HostFiles host;
  HostOSInfo info = FilledWithGarbage();
  getHostOSInfo(info, host.paths());
  EXPECT_EQ(HOST_OS_TYPE_LINUX, info.type);
  EXPECT_EQ(UnameVersion(), info.version);
}

TEST(HostOSInfoRecord, LongValueIsCutTo255Bytes) {
  HostFiles host;
  const std::string longName(300, 'n');
  host.osRelease("NAME=\"" + longName + "\"\nVERSION=\"1\"\n");
  HostOSInfo info;
  getHostOSInfo(info, host.paths());
  EXPECT_EQ(255u, strnlen(info.version, sizeof(info.version)));
  EXPECT_EQ(longName.substr(0, 255), std::string(info.version));
}

TEST(HostOSInfoRecord, DefaultPathsDescribeThisHost) {
  // Reads the real host files; only checks the fixed parts of the record.
  HostOSInfo info;
  getHostOSInfo(info);
  EXPECT_EQ(HOST_OS_TYPE_LINUX, info.type);
  EXPECT_STREQ("Linux", info.name);
  EXPECT_GT(strnlen(info.version, sizeof(info.version)), 0u);
}

TEST(HostOSFamily, IsLinuxAlways) {
  HostFiles host;
  EXPECT_TRUE(isLinux(host.paths()));
  host.osRelease("NAME=\"Something Else\"\nVERSION=\"1\"\n");
  EXPECT_TRUE(isLinux(host.paths()));
}

TEST(HostOSFamily, UbuntuInAnyCase) {
  HostFiles host;
  host.osRelease("NAME=\"UBUNTU\"\nVERSION=\"22.04\"\n");
  EXPECT_TRUE(isUbuntu(host.paths()));
  EXPECT_FALSE(isRedHat(host.paths()));
}

TEST(HostOSFamily, RedHatNeedsTheBlank) {
  HostFiles host;
  host.osRelease("NAME=\"Red Hat Enterprise Linux\"\nVERSION=\"9.3 (Plow)\"\n");
  EXPECT_TRUE(isRedHat(host.paths()));
  EXPECT_FALSE(isUbuntu(host.paths()));
  host.osRelease("NAME=\"RedHat\"\n");
  EXPECT_FALSE(isRedHat(host.paths()));
}

TEST(HostOSFamily, IssueLineCounts) {
  HostFiles host;
  host.issue("Ubuntu 22.04.3 LTS \\n \\l\n");
  EXPECT_TRUE(isUbuntu(host.paths()));
}

TEST(HostOSFamily, NoTextAnswersFalse) {
  HostFiles host;
  EXPECT_FALSE(isUbuntu(host.paths()));
  EXPECT_FALSE(isRedHat(host.paths()));
  host.osRelease("");
  EXPECT_FALSE(isUbuntu(host.paths()));
  EXPECT_FALSE(isRedHat(host.paths()));
}
