#include "tools/KEEL/KEELCLI/keelcli.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/CliTexts.h"
#include "tests/support/FakeDiskHost.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::InvalidLocation;
using keeltest::kInvalidArguments;
using keeltest::kMissingDestination;
using keeltest::kUsage;
using keeltest::kVersion;

// Sends what is written to one standard stream into a private file for the
// life of the object. Text() reads what reached the descriptor without
// flushing the stream, so it also shows whether the writer flushed.
class StreamCapture {
 public:
  explicit StreamCapture(FILE* stream) : m_stream(stream), m_fd(fileno(stream)) {
    fflush(m_stream);
    char name[] = "/tmp/keelcli_capture.XXXXXX";
    m_file = mkstemp(name);
    unlink(name);
    m_saved = dup(m_fd);
    dup2(m_file, m_fd);
  }
  ~StreamCapture() {
    fflush(m_stream);
    dup2(m_saved, m_fd);
    close(m_saved);
    close(m_file);
  }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

  std::string Text() const {
    std::string text;
    char buffer[65536];
    off_t offset = 0;
    ssize_t got;
    while ((got = pread(m_file, buffer, sizeof(buffer), offset)) > 0) {
      text.append(buffer, got);
      offset += got;
    }
    return text;
  }

 private:
  FILE* m_stream;
  int m_fd;
  int m_file;
  int m_saved;
};

void ResetSettings() {
  g_cliMode = false;
  g_excludeMsinfo = false;
  g_clearLogs = false;
  g_twLogs = false;
  g_bundleLocation.clear();
}

struct Printed {
  std::string out;
  std::string err;
};

// Runs `action` with both standard streams captured. Capturing only around
// the call keeps the test framework's own reports visible.
template <typename Action>
Printed Capture(Action action) {
  Printed printed;
  StreamCapture out(stdout);
  StreamCapture err(stderr);
  action();
  fflush(stdout);
  fflush(stderr);
  printed.out = out.Text();
  printed.err = err.Text();
  return printed;
}

// Every test starts from the settings of a fresh process.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetSettings(); }
  void TearDown() override { ResetSettings(); }
};

const char kRootUuid[] = "7c3a9e1b-04d2-4f6e-9a5b-0123456789ab";

class ParseArguments : public CliTest {
 protected:
  // Scans "keelcli" followed by `args`; keeps what it printed in `printed`.
  int Parse(const std::vector<std::string>& args) {
    std::vector<std::string> owned{"keelcli"};
    owned.insert(owned.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : owned)
      argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    exitRequested = true;  // the scan has to clear it itself
    int status = -1;
    printed = Capture([&] {
      status = parseArguments(static_cast<int>(owned.size()), argv.data(), &exitRequested,
                              disks->paths());
    });
    return status;
  }

  // What printDeviceId prints for `hashName` on the fake disks.
  Printed DeviceId(const char* hashName) {
    return Capture([&] { printDeviceId(hashName, disks->paths()); });
  }

  bool exitRequested = true;
  Printed printed;
  std::unique_ptr<keeltest::FakeDiskHost> disks{new keeltest::FakeDiskHost(kRootUuid)};
};

TEST_F(ParseArguments, NoArgumentsReturnsZeroAndClearsExitRequested) {
  EXPECT_EQ(Parse({}), 0);
  EXPECT_FALSE(exitRequested);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, ClearLogsSetsItsFlagAndScanGoesOn) {
  EXPECT_EQ(Parse({"-clearlogs", "-twlogs"}), 0);
  EXPECT_FALSE(exitRequested);
  EXPECT_TRUE(g_clearLogs);
  EXPECT_TRUE(g_twLogs);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, TwLogsSetsItsFlagAndScanGoesOn) {
  EXPECT_EQ(Parse({"-twlogs", "-clearlogs"}), 0);
  EXPECT_FALSE(exitRequested);
  EXPECT_TRUE(g_twLogs);
  EXPECT_TRUE(g_clearLogs);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, NoOptionSetsExcludeMsinfo) {
  EXPECT_EQ(Parse({"-clearlogs", "-dst", "a.zip", "-twlogs"}), 0);
  EXPECT_FALSE(g_excludeMsinfo);
  EXPECT_FALSE(g_cliMode);  // set by start-up, not by the scan
}

TEST_F(ParseArguments, DstTakesTheNextArgumentAsLocation) {
  EXPECT_EQ(Parse({"-dst", "/some/where/b.zip"}), 0);
  EXPECT_FALSE(exitRequested);
  EXPECT_EQ(g_bundleLocation, "/some/where/b.zip");
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, DstScanGoesOnBehindTheValue) {
  EXPECT_EQ(Parse({"-dst", "x.zip", "-twlogs", "-clearlogs"}), 0);
  EXPECT_EQ(g_bundleLocation, "x.zip");
  EXPECT_TRUE(g_twLogs);
  EXPECT_TRUE(g_clearLogs);
}

TEST_F(ParseArguments, DstRepeatedLastValueWins) {
  EXPECT_EQ(Parse({"-dst", "first.zip", "-dst", "second.zip", "-dst", "./third.zip"}), 0);
  EXPECT_EQ(g_bundleLocation, "./third.zip");
}

TEST_F(ParseArguments, DstTakesAnOptionLikeValueAsTheLocation) {
  EXPECT_EQ(Parse({"-dst", "-h"}), 0);
  EXPECT_FALSE(exitRequested);
  EXPECT_EQ(g_bundleLocation, "-h");
  EXPECT_EQ(printed.out, "");  // no usage
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, DstTakesAnEmptyValue) {
  g_bundleLocation = "default.zip";
  EXPECT_EQ(Parse({"-dst", ""}), 0);
  EXPECT_EQ(g_bundleLocation, "");
}

TEST_F(ParseArguments, DstWithoutValueIsAnError) {
  g_bundleLocation = "default.zip";
  EXPECT_EQ(Parse({"-dst"}), 1);
  EXPECT_FALSE(exitRequested);
  EXPECT_EQ(g_bundleLocation, "default.zip");
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, kMissingDestination);
}

TEST_F(ParseArguments, DstWithoutValueAfterOtherOptionsKeepsWhatWasSet) {
  EXPECT_EQ(Parse({"-twlogs", "-dst", "a.zip", "-dst"}), 1);
  EXPECT_TRUE(g_twLogs);
  EXPECT_EQ(g_bundleLocation, "a.zip");
  EXPECT_EQ(printed.err, kMissingDestination);
}

TEST_F(ParseArguments, HelpPrintsUsageAndEndsTheScan) {
  for (const char* option : {"-help", "-h"}) {
    ResetSettings();
    EXPECT_EQ(Parse({option, "-twlogs", "-bogus"}), 0) << option;
    EXPECT_TRUE(exitRequested) << option;
    EXPECT_FALSE(g_twLogs) << option;
    EXPECT_EQ(printed.out, kUsage) << option;
    EXPECT_EQ(printed.err, "") << option;
  }
}

TEST_F(ParseArguments, VersionPrintsVersionAndEndsTheScan) {
  for (const char* option : {"-version", "-v"}) {
    ResetSettings();
    EXPECT_EQ(Parse({option, "-clearlogs", "-bogus"}), 0) << option;
    EXPECT_TRUE(exitRequested) << option;
    EXPECT_FALSE(g_clearLogs) << option;
    EXPECT_EQ(printed.out, kVersion) << option;
    EXPECT_EQ(printed.err, "") << option;
  }
}

TEST_F(ParseArguments, UdidPrintsTheSha1Identifier) {
  const Printed sha1 = DeviceId("sha1");
  ASSERT_EQ(sha1.out.size(), strlen("UDID : \n\r\n") + 40);
  for (const char* option : {"-udid", "-u"}) {
    EXPECT_EQ(Parse({option}), 0) << option;
    EXPECT_TRUE(exitRequested) << option;
    EXPECT_EQ(printed.out, sha1.out) << option;
  }
}

TEST_F(ParseArguments, UdidLegacyPrintsTheSha256Identifier) {
  const Printed sha256 = DeviceId("sha256");
  ASSERT_EQ(sha256.out.size(), strlen("UDID : \n\r\n") + 64);
  for (const char* option : {"-udid_legacy", "-ul"}) {
    EXPECT_EQ(Parse({option}), 0) << option;
    EXPECT_TRUE(exitRequested) << option;
    EXPECT_EQ(printed.out, sha256.out) << option;
  }
}

TEST_F(ParseArguments, UdidWithoutIdentifierEndsWithStatusOne) {
  disks.reset(new keeltest::FakeDiskHost(""));
  EXPECT_EQ(Parse({"-u"}), 1);
  EXPECT_TRUE(exitRequested);
  EXPECT_EQ(printed.out, "");
}

TEST_F(ParseArguments, UdidEndsTheScan) {
  EXPECT_EQ(Parse({"-u", "-twlogs", "-ul", "-bogus"}), 0);
  EXPECT_EQ(printed.out, DeviceId("sha1").out);
  EXPECT_FALSE(g_twLogs);
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, UdidAfterClearLogsPrintsTheIdentifierAndEndsTheRun) {
  EXPECT_EQ(Parse({"-clearlogs", "-u"}), 0);
  EXPECT_TRUE(exitRequested);  // the entry stops here, so nothing is cleared
  EXPECT_EQ(printed.out, DeviceId("sha1").out);
}

TEST_F(ParseArguments, HelpAfterClearLogsPrintsUsageAndEndsTheRun) {
  EXPECT_EQ(Parse({"-clearlogs", "-h"}), 0);
  EXPECT_TRUE(exitRequested);
  EXPECT_EQ(printed.out, kUsage);
}

TEST_F(ParseArguments, HelpBeforeAnUnknownArgumentIsNotAnError) {
  EXPECT_EQ(Parse({"-h", "-bogus"}), 0);
  EXPECT_TRUE(exitRequested);
  EXPECT_EQ(printed.out, kUsage);
  EXPECT_EQ(printed.err, "");
}

TEST_F(ParseArguments, UnknownArgumentBeforeHelpIsAnError) {
  EXPECT_EQ(Parse({"-bogus", "-h"}), 1);
  EXPECT_FALSE(exitRequested);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, kInvalidArguments);
}

TEST_F(ParseArguments, OptionsAreComparedWholeAndCaseSensitively) {
  const char* const kNearMisses[] = {
      "-H",         "-Help", "-DST",      "--help",      "-help ",  " -h",    "h",
      "",           "-hx",   "-clearlog", "-clearlogsx", "-Twlogs", "-twlog", "-udid_Legacy",
      "-dst=x.zip", "-",     "-V",        "-uL",         "/h"};
  for (const char* argument : kNearMisses) {
    ResetSettings();
    EXPECT_EQ(Parse({argument}), 1) << "'" << argument << "'";
    EXPECT_FALSE(exitRequested) << "'" << argument << "'";
    EXPECT_EQ(printed.out, "") << "'" << argument << "'";
    EXPECT_EQ(printed.err, kInvalidArguments) << "'" << argument << "'";
  }
}

TEST_F(ParseArguments, UnknownArgumentEndsTheScan) {
  EXPECT_EQ(Parse({"-twlogs", "-bogus", "-clearlogs", "-dst", "x.zip"}), 1);
  EXPECT_TRUE(g_twLogs);  // taken before the error
  EXPECT_FALSE(g_clearLogs);
  EXPECT_EQ(g_bundleLocation, "");
}

class PrintUsage : public CliTest {};

TEST_F(PrintUsage, PrintsTheExactUsageText) {
  const Printed printed = Capture([] { printUsage(); });
  EXPECT_EQ(printed.out, kUsage);
  EXPECT_EQ(printed.err, "");
}

class PrintVersion : public CliTest {};

TEST_F(PrintVersion, PrintsTheExactVersionBlock) {
  const Printed printed = Capture([] { printVersion(); });
  EXPECT_EQ(printed.out, kVersion);
  EXPECT_EQ(printed.err, "");
}

TEST_F(PrintVersion, VersionTextIsTheProductVersion) {
  EXPECT_STREQ(kKeelVersion, "5.1.9.113");
}

TEST_F(PrintVersion, LegalNoticeIsOneLine) {
  const std::string notice = legalNotice();
  EXPECT_FALSE(notice.empty());
  EXPECT_EQ(notice.find_first_of("\r\n"), std::string::npos);
}

class CliPrint : public CliTest {};

TEST_F(CliPrint, FormatsAndEndsTheLineInCarriageReturnLineFeed) {
  const Printed printed = Capture([] {
    cliPrint("a%db %s", 1, "c");
    cliPrint("%s", "");
  });
  EXPECT_EQ(printed.out, "a1b c\r\n\r\n");
  EXPECT_EQ(printed.err, "");
}

TEST_F(CliPrint, FlushesEveryLine) {
  std::string out;
  std::string err;
  {
    StreamCapture outCapture(stdout);
    StreamCapture errCapture(stderr);
    // Redirected to a file, stdout is fully buffered: only a flush gets the
    // line to the descriptor before the capture ends.
    cliPrint("first");
    out = outCapture.Text();
    cliPrintError("second");
    err = errCapture.Text();
  }
  EXPECT_EQ(out, "first\r\n");
  EXPECT_EQ(err, "second\r\n");
}

TEST_F(CliPrint, ErrorLinesGoToStandardError) {
  const Printed printed = Capture([] {
    cliPrintError("x=%s", "y");
    cliPrintError("%s", "");
  });
  EXPECT_EQ(printed.err, "x=y\r\n\r\n");
  EXPECT_EQ(printed.out, "");
}

TEST_F(CliPrint, ArgumentTextIsNotAFormat) {
  const Printed printed = Capture([] { cliPrint("%s", "100% %s %n"); });
  EXPECT_EQ(printed.out, "100% %s %n\r\n");
}

TEST_F(CliPrint, LongTextIsWrittenWhole) {
  const std::string text(200000, 'k');
  const Printed printed = Capture([&] {
    cliPrint("%s", text.c_str());
    cliPrintError("%s", text.c_str());
  });
  EXPECT_EQ(printed.out, text + "\r\n");
  EXPECT_EQ(printed.err, text + "\r\n");
}

class BundleFolderExists : public CliTest {
 protected:
  void TearDown() override {
    if (!m_savedCwd.empty()) {
      EXPECT_EQ(chdir(m_savedCwd.c_str()), 0);
    }
    CliTest::TearDown();
  }

  // Makes the temporary folder the current one until the test ends.
  void EnterTemp() {
    char buffer[4096];
    ASSERT_NE(getcwd(buffer, sizeof(buffer)), nullptr);
    m_savedCwd = buffer;
    ASSERT_EQ(chdir(m_temp.path().c_str()), 0);
  }

  keeltest::TempDir m_temp;
  std::string m_savedCwd;
};

TEST_F(BundleFolderExists, ExistingFolderIsAccepted) {
  EXPECT_TRUE(bundleFolderExists(m_temp.Sub("bundle.zip")));
}

TEST_F(BundleFolderExists, MissingFolderIsRejected) {
  EXPECT_FALSE(bundleFolderExists(m_temp.Sub("missing/bundle.zip")));
  EXPECT_FALSE(bundleFolderExists("/no/such/dir/x.zip"));
}

TEST_F(BundleFolderExists, OnlyTheLastSlashCuts) {
  ASSERT_EQ(mkdir(m_temp.Sub("a").c_str(), 0755), 0);
  EXPECT_FALSE(bundleFolderExists(m_temp.Sub("a/b/c.zip")));
  ASSERT_EQ(mkdir(m_temp.Sub("a/b").c_str(), 0755), 0);
  EXPECT_TRUE(bundleFolderExists(m_temp.Sub("a/b/c.zip")));
}

TEST_F(BundleFolderExists, TrailingSlashTestsTheFolderItself) {
  EXPECT_FALSE(bundleFolderExists(m_temp.Sub("sub/")));
  ASSERT_EQ(mkdir(m_temp.Sub("sub").c_str(), 0755), 0);
  EXPECT_TRUE(bundleFolderExists(m_temp.Sub("sub/")));
}

TEST_F(BundleFolderExists, AFileInPlaceOfTheFolderIsAccepted) {
  ASSERT_TRUE(keeltest::WriteFile(m_temp.Sub("plain.txt"), "x"));
  EXPECT_TRUE(bundleFolderExists(m_temp.Sub("plain.txt/bundle.zip")));
}

TEST_F(BundleFolderExists, SymbolicLinksAreFollowed) {
  ASSERT_EQ(mkdir(m_temp.Sub("real").c_str(), 0755), 0);
  ASSERT_EQ(symlink(m_temp.Sub("real").c_str(), m_temp.Sub("link").c_str()), 0);
  ASSERT_EQ(symlink(m_temp.Sub("gone").c_str(), m_temp.Sub("dangling").c_str()), 0);
  EXPECT_TRUE(bundleFolderExists(m_temp.Sub("link/bundle.zip")));
  EXPECT_FALSE(bundleFolderExists(m_temp.Sub("dangling/bundle.zip")));
}

TEST_F(BundleFolderExists, BareNameIsTestedWhole) {
  EnterTemp();
  EXPECT_FALSE(bundleFolderExists("relative.zip"));
  ASSERT_TRUE(keeltest::WriteFile(m_temp.Sub("relative.zip"), "old"));
  EXPECT_TRUE(bundleFolderExists("relative.zip"));
}

TEST_F(BundleFolderExists, DotSlashNameIsAcceptedInTheCurrentFolder) {
  EnterTemp();
  EXPECT_TRUE(bundleFolderExists("./relative.zip"));
  EXPECT_FALSE(bundleFolderExists("./missing/relative.zip"));
}

TEST_F(BundleFolderExists, LocationDirectlyUnderTheRootIsRejected) {
  EXPECT_FALSE(bundleFolderExists("/x.zip"));
}

TEST_F(BundleFolderExists, EmptyLocationIsRejected) {
  EXPECT_FALSE(bundleFolderExists(""));
}

TEST_F(BundleFolderExists, OverlongLocationIsRejectedWithoutHarm) {
  EXPECT_FALSE(bundleFolderExists(m_temp.path() + "/" + std::string(10000, 'd') + "/x.zip"));
}

TEST_F(BundleFolderExists, FolderThatCannotBeSearchedIsRejected) {
  // Root passes every permission check, so the lookup runs as "nobody".
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to change to another user";
  ASSERT_EQ(chmod(m_temp.path().c_str(), 0755), 0);
  ASSERT_EQ(mkdir(m_temp.Sub("open").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(m_temp.Sub("locked").c_str(), 0700), 0);
  ASSERT_EQ(mkdir(m_temp.Sub("locked/inner").c_str(), 0755), 0);
  const int answer = keeltest::RunAsNobody([&] {
    const bool open = bundleFolderExists(m_temp.Sub("open/x.zip"));
    const bool locked = bundleFolderExists(m_temp.Sub("locked/inner/x.zip"));
    return open && !locked ? 0 : 1;
  });
  EXPECT_EQ(answer, 0);
}

TEST_F(BundleFolderExists, FolderLinkOfAnotherUserToARootFolderIsUntrusted) {
  // The other user's folder holds their link to a folder only root may use.
  ASSERT_EQ(mkdir(m_temp.Sub("user").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(m_temp.Sub("root-only").c_str(), 0700), 0);
  ASSERT_EQ(symlink(m_temp.Sub("root-only").c_str(), m_temp.Sub("user/reports").c_str()), 0);
  ASSERT_EQ(lchown(m_temp.Sub("user/reports").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chown(m_temp.Sub("user").c_str(), 65534, 65534), 0);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("user/reports/x.zip")), BundleFolderState::kUntrusted);
}

TEST_F(BundleFolderExists, FolderEveryoneMayWriteNeedsTheStickyBit) {
  ASSERT_EQ(mkdir(m_temp.Sub("open").c_str(), 0777), 0);
  ASSERT_EQ(chmod(m_temp.Sub("open").c_str(), 0777), 0);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("open/x.zip")), BundleFolderState::kWritableByOthers);
  ASSERT_EQ(chmod(m_temp.Sub("open").c_str(), 01777), 0);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("open/x.zip")), BundleFolderState::kUsable);
}

TEST_F(BundleFolderExists, CheckKeepsTheVerdictsOfTheExistenceTest) {
  ASSERT_TRUE(keeltest::WriteFile(m_temp.Sub("plain.txt"), "x"));
  ASSERT_EQ(mkdir(m_temp.Sub("real").c_str(), 0755), 0);
  ASSERT_EQ(symlink(m_temp.Sub("real").c_str(), m_temp.Sub("link").c_str()), 0);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("bundle.zip")), BundleFolderState::kUsable);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("link/bundle.zip")), BundleFolderState::kUsable);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("plain.txt/bundle.zip")), BundleFolderState::kUsable);
  EXPECT_EQ(checkBundleFolder(m_temp.Sub("missing/bundle.zip")), BundleFolderState::kMissing);
  EXPECT_EQ(checkBundleFolder("/x.zip"), BundleFolderState::kMissing);
}

class AnnounceRun : public CliTest {
 protected:
  // Runs announceRun; keeps what it printed in `printed`.
  bool Announce(bool customRun) {
    bool accepted = false;
    printed = Capture([&] { accepted = announceRun(customRun); });
    return accepted;
  }

  keeltest::TempDir m_temp;
  Printed printed;
};

TEST_F(AnnounceRun, DefaultRunPrintsVersionOptionAndLocation) {
  g_bundleLocation = m_temp.Sub("KEELBundle_0412_1530.zip");
  EXPECT_TRUE(Announce(false));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: default\r\n" +
                             "Bundle location: " + g_bundleLocation + "\r\n");
  EXPECT_EQ(printed.err, "");
}

TEST_F(AnnounceRun, CustomRunSaysCustom) {
  g_bundleLocation = m_temp.Sub("b.zip");
  EXPECT_TRUE(Announce(true));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: custom\r\n" +
                             "Bundle location: " + g_bundleLocation + "\r\n");
  EXPECT_EQ(printed.err, "");
}

TEST_F(AnnounceRun, MissingFolderIsReportedAndStopsTheRun) {
  g_bundleLocation = m_temp.Sub("none/b.zip");
  EXPECT_FALSE(Announce(true));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: custom\r\n");
  EXPECT_EQ(printed.err, InvalidLocation(g_bundleLocation));
}

TEST_F(AnnounceRun, FolderOthersCanWriteIsReportedAndStopsTheRun) {
  ASSERT_EQ(mkdir(m_temp.Sub("open").c_str(), 0777), 0);
  ASSERT_EQ(chmod(m_temp.Sub("open").c_str(), 0777), 0);
  g_bundleLocation = m_temp.Sub("open/b.zip");
  EXPECT_FALSE(Announce(true));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: custom\r\n");
  EXPECT_EQ(printed.err, "\r\nInvalid bundle location: " + g_bundleLocation +
                             "\r\nOther users can write to the destination folder and could "
                             "replace the bundle after the run.\r\n\r\n");
}

TEST_F(AnnounceRun, FolderThroughALinkOfAnotherUserIsReportedAndStopsTheRun) {
  ASSERT_EQ(mkdir(m_temp.Sub("user").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(m_temp.Sub("root-only").c_str(), 0700), 0);
  ASSERT_EQ(symlink(m_temp.Sub("root-only").c_str(), m_temp.Sub("user/Desktop").c_str()), 0);
  ASSERT_EQ(lchown(m_temp.Sub("user/Desktop").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chown(m_temp.Sub("user").c_str(), 65534, 65534), 0);
  g_bundleLocation = m_temp.Sub("user/Desktop/KEELBundle_0412_1530.zip");
  EXPECT_FALSE(Announce(false));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: default\r\n");
  EXPECT_EQ(printed.err, "\r\nInvalid bundle location: " + g_bundleLocation +
                             "\r\nThe destination folder is reached through a link or folder "
                             "of another user.\r\n\r\n");
}

TEST_F(AnnounceRun, EmptyLocationIsReportedAsInvalid) {
  EXPECT_FALSE(Announce(false));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: default\r\n");
  EXPECT_EQ(printed.err,
            "\r\nInvalid bundle location: \r\nThe destination folder does not exist.\r\n\r\n");
}

TEST_F(AnnounceRun, ClearRunSkipsEveryBundleCheck) {
  g_clearLogs = true;
  g_twLogs = true;
  g_excludeMsinfo = true;
  g_bundleLocation = "/no/such/place/x.zip";
  EXPECT_TRUE(Announce(true));
  EXPECT_EQ(printed.out, kVersion);
  EXPECT_EQ(printed.err, "");
}

TEST_F(AnnounceRun, TwLogsAddsTheLegacyLine) {
  g_twLogs = true;
  g_bundleLocation = m_temp.Sub("b.zip");
  EXPECT_TRUE(Announce(true));
  EXPECT_EQ(printed.out,
            std::string(kVersion) + "Bundle option selected: custom\r\n" +
                "Bundle location: " + g_bundleLocation + "\r\n" +
                "Including Legacy - Velon Tidewalker Tessel Mobility Client logs.\r\n");
}

TEST_F(AnnounceRun, ExcludeMsinfoLineStandsBeforeTheLegacyLine) {
  g_excludeMsinfo = true;
  g_twLogs = true;
  g_bundleLocation = m_temp.Sub("b.zip");
  EXPECT_TRUE(Announce(false));
  EXPECT_EQ(printed.out,
            std::string(kVersion) + "Bundle option selected: default\r\n" + "Bundle location: " +
                g_bundleLocation + "\r\n" + "Exclude msinfo file from the bundle: true\r\n" +
                "Including Legacy - Velon Tidewalker Tessel Mobility Client logs.\r\n");
}

TEST_F(AnnounceRun, FlagLinesAreLeftOutWhenTheLocationIsInvalid) {
  g_excludeMsinfo = true;
  g_twLogs = true;
  g_bundleLocation = "/x.zip";
  EXPECT_FALSE(Announce(true));
  EXPECT_EQ(printed.out, std::string(kVersion) + "Bundle option selected: custom\r\n");
  EXPECT_EQ(printed.err, InvalidLocation("/x.zip"));
}

TEST_F(AnnounceRun, VeryLongLocationIsPrintedWhole) {
  g_bundleLocation = m_temp.path() + "/" + std::string(5000, 'n') + "/b.zip";
  EXPECT_FALSE(Announce(true));
  EXPECT_EQ(printed.err, InvalidLocation(g_bundleLocation));
}

}  // namespace
