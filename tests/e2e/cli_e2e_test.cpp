// Runs the built keelcli as a user would and checks, byte for byte, what it
// prints and the status it exits with. The program is copied alone into a
// fresh folder, so it finds no instruction files beside it, and runs with a
// home folder of its own and nothing else of the caller's environment.

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/CliTexts.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kCustom[] = "Bundle option selected: custom\r\n";
const char kDefault[] = "Bundle option selected: default\r\n";
const char kLegacy[] = "Including Legacy - Velon Tidewalker Tessel Mobility Client logs.\r\n";

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

class KeelCliRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree({"scratch", "bin", "home", "work"}, "bin/keelcli"));
    if (IsSkipped())
      return;
    m_binary = m_tree->Sub("bin/keelcli");
  }

  // Runs keelcli with `args` in the work folder (or `cwd`), in a private
  // mount namespace; log lines are taken out of its standard output.
  keeltest::CommandResult RunCli(const std::vector<std::string>& args, std::string cwd = "") {
    std::vector<std::string> argv{m_binary};
    argv.insert(argv.end(), args.begin(), args.end());
    const keeltest::IsolatedResult run = keeltest::RunIsolated(
        argv, {"HOME=" + Home()}, cwd.empty() ? Work() : cwd, m_tree->Sub("scratch"));
    keeltest::CommandResult result;
    result.status = run.status;
    result.out = run.out;
    result.err = run.err;
    return result;
  }

  std::string Home() const { return m_tree->Sub("home"); }
  std::string Work() const { return m_tree->Sub("work"); }

  std::string m_binary;
};

// The lines an accepted bundle run prints before the engine takes over.
std::string AcceptedRun(const std::string& location, const std::string& flagLines = "") {
  return std::string(kVersion) + kCustom + "Bundle location: " + location + "\r\n" + flagLines +
         "\r\n";
}

std::string RegexEscape(const std::string& text) {
  static const std::regex kSpecial(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(text, kSpecial, R"(\$&)");
}

// A pattern for the rejection of the default location when the home folder
// has no desktop folder; the time stamp in the name is left open.
std::string DefaultLocationRejected(const std::string& home) {
  return "\r\nInvalid bundle location: " + RegexEscape(home) +
         "/Desktop/KEELBundle(_[0-9]{4}_[0-9]{4})?\\.zip\r\n"
         "The destination folder does not exist\\.\r\n\r\n";
}

class CliUsage : public KeelCliRun {};

TEST_F(CliUsage, HelpPrintsTheUsage) {
  for (const char* option : {"-h", "-help"}) {
    const keeltest::CommandResult result = RunCli({option});
    EXPECT_EQ(result.status, 0) << option;
    EXPECT_EQ(result.out, kUsage) << option;
    EXPECT_EQ(result.err, "") << option;
  }
}

TEST_F(CliUsage, HelpBeforeAnUnknownArgumentIsFine) {
  const keeltest::CommandResult result = RunCli({"-h", "-bogus"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kUsage);
  EXPECT_EQ(result.err, "");
}

TEST_F(CliUsage, ClearLogsThenHelpOnlyPrintsTheUsage) {
  const keeltest::CommandResult result = RunCli({"-clearlogs", "-h"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kUsage);
  EXPECT_EQ(result.err, "");
}

TEST_F(CliUsage, HelpAfterABadLocationIgnoresTheLocation) {
  const keeltest::CommandResult result = RunCli({"-dst", "/no/such/dir/x.zip", "-help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kUsage);
  EXPECT_EQ(result.err, "");
}

class CliVersion : public KeelCliRun {};

TEST_F(CliVersion, VersionPrintsTheVersionBlock) {
  for (const char* option : {"-v", "-version"}) {
    const keeltest::CommandResult result = RunCli({option});
    EXPECT_EQ(result.status, 0) << option;
    EXPECT_EQ(result.out, kVersion) << option;
    EXPECT_EQ(result.err, "") << option;
  }
}

TEST_F(CliVersion, VersionEndsTheScanBeforeAnUnknownArgument) {
  const keeltest::CommandResult result = RunCli({"-twlogs", "-v", "-bogus"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kVersion);
  EXPECT_EQ(result.err, "");
}

class CliArguments : public KeelCliRun {};

TEST_F(CliArguments, UnknownArgumentIsAnError) {
  const keeltest::CommandResult result = RunCli({"-bogus"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kInvalidArguments);
}

TEST_F(CliArguments, UnknownArgumentBeforeHelpIsAnError) {
  const keeltest::CommandResult result = RunCli({"-bogus", "-h"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kInvalidArguments);
}

TEST_F(CliArguments, OptionsAreCaseSensitive) {
  for (const char* option : {"-H", "-DST", "-Clearlogs", "--help", ""}) {
    const keeltest::CommandResult result = RunCli({option});
    EXPECT_EQ(result.status, 1) << "'" << option << "'";
    EXPECT_EQ(result.out, "") << "'" << option << "'";
    EXPECT_EQ(result.err, kInvalidArguments) << "'" << option << "'";
  }
}

TEST_F(CliArguments, DstWithoutValueIsAnError) {
  const keeltest::CommandResult result = RunCli({"-dst"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kMissingDestination);
}

TEST_F(CliArguments, DstWithoutValueAfterClearLogsIsAnError) {
  const keeltest::CommandResult result = RunCli({"-clearlogs", "-dst"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kMissingDestination);
}

TEST_F(CliArguments, DstTakesHelpAsTheLocation) {
  // "-h" is a bare name, tested whole, and no such file is there.
  const keeltest::CommandResult result = RunCli({"-dst", "-h"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation("-h"));
}

TEST_F(CliArguments, RepeatedDstLastValueWins) {
  const keeltest::CommandResult result =
      RunCli({"-dst", "./first.zip", "-dst", "/no/such/dir/last.zip"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation("/no/such/dir/last.zip"));
}

class CliBundleLocation : public KeelCliRun {};

TEST_F(CliBundleLocation, MissingFolderIsRejected) {
  const keeltest::CommandResult result = RunCli({"-dst", "/no/such/dir/x.zip"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation("/no/such/dir/x.zip"));
}

TEST_F(CliBundleLocation, MissingFolderAfterTwLogsPrintsNoLegacyLine) {
  const std::string location = m_tree->Sub("gone/x.zip");
  const keeltest::CommandResult result = RunCli({"-twlogs", "-dst", location});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation(location));
}

TEST_F(CliBundleLocation, LocationDirectlyUnderTheRootIsRejected) {
  const keeltest::CommandResult result = RunCli({"-dst", "/x.zip"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation("/x.zip"));
}

TEST_F(CliBundleLocation, BareNameIsRejectedWithoutSuchFile) {
  const keeltest::CommandResult result = RunCli({"-dst", "relative.zip"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_EQ(result.err, InvalidLocation("relative.zip"));
}

TEST_F(CliBundleLocation, BareNameIsAcceptedWhenTheFileExists) {
  ASSERT_TRUE(keeltest::WriteFile(m_tree->Sub("work/relative.zip"), "old"));
  const keeltest::CommandResult result = RunCli({"-dst", "relative.zip"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(StartsWith(result.out, AcceptedRun("relative.zip"))) << result.out;
  EXPECT_EQ(result.err.find("Invalid bundle location"), std::string::npos) << result.err;
}

TEST_F(CliBundleLocation, DotSlashNameIsAccepted) {
  const keeltest::CommandResult result = RunCli({"-dst", "./relative.zip"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(StartsWith(result.out, AcceptedRun("./relative.zip"))) << result.out;
  EXPECT_EQ(result.err.find("Invalid bundle location"), std::string::npos) << result.err;
}

TEST_F(CliBundleLocation, AbsoluteLocationInAnExistingFolderIsAccepted) {
  fs::create_directories(m_tree->Sub("out"));
  const std::string location = m_tree->Sub("out/bundle.zip");
  const keeltest::CommandResult result = RunCli({"-dst", location});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(StartsWith(result.out, AcceptedRun(location))) << result.out;
}

TEST_F(CliBundleLocation, TwLogsAddsTheLegacyLine) {
  const keeltest::CommandResult result = RunCli({"-dst", "./x.zip", "-twlogs"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(StartsWith(result.out, AcceptedRun("./x.zip", kLegacy))) << result.out;
}

TEST_F(CliBundleLocation, TwLogsAloneIsACustomRunToTheDefaultLocation) {
  // The home folder has no desktop folder, so the default location fails.
  const keeltest::CommandResult result = RunCli({"-twlogs"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kCustom);
  EXPECT_TRUE(std::regex_match(result.err, std::regex(DefaultLocationRejected(Home()))))
      << result.err;
}

TEST_F(CliBundleLocation, DefaultRunWithoutADesktopFolderIsRejected) {
  const keeltest::CommandResult result = RunCli({});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, std::string(kVersion) + kDefault);
  EXPECT_TRUE(std::regex_match(result.err, std::regex(DefaultLocationRejected(Home()))))
      << result.err;
}

TEST_F(CliBundleLocation, ClearRunSkipsTheLocationCheck) {
  const keeltest::CommandResult result = RunCli({"-clearlogs", "-dst", "/no/such/place/x.zip"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(StartsWith(result.out, std::string(kVersion) + "\r\n")) << result.out;
  EXPECT_EQ(result.out.find("Bundle option selected"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("Bundle location"), std::string::npos) << result.out;
  EXPECT_EQ(result.err.find("Invalid bundle location"), std::string::npos) << result.err;
}

}  // namespace
