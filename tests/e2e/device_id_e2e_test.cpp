// -u and -ul of the real keelcli in a private mount namespace whose /dev
// holds only a by-uuid folder of the test's own, with one link to the
// device that holds "/".
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

const char kUuid[] = "3f1c9a52-7be4-4d0e-9a61-0c2f5e8d7b13";

// The last path component of the first device with a "/" mounted at "/",
// as the tool finds it; empty if the root is on no such device.
std::string RootDeviceName() {
  std::ifstream mounts("/proc/self/mounts");
  std::string line;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string device, mountPoint;
    fields >> device >> mountPoint;
    if (mountPoint == "/" && device.find('/') != std::string::npos) {
      return device.substr(device.rfind('/') + 1);
    }
  }
  return std::string();
}

std::string UpperDigest(const std::string& program, const std::string& text) {
  std::string digest = keeltest::Shell("printf '%s' '" + text + "' | " + program);
  digest = digest.substr(0, digest.find(' '));
  std::transform(digest.begin(), digest.end(), digest.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return digest;
}

class DeviceIdOption : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    m_root = RootDeviceName();
    if (m_root.empty())
      GTEST_SKIP() << "the root file system is on no device path";
    ASSERT_NO_FATAL_FAILURE(
        MakeTree({"install/xml/config", "home", "work", "scratch", "logs"}, "install/keelcli"));
    if (IsSkipped())
      return;
  }

  // /etc/mtab as the host has it, and a private /dev.
  std::string PrepareDevices(bool withByUuid) const {
    std::string text =
        "ln -s /proc/self/mounts /etc/mtab\n"
        "mount -t tmpfs tmpfs /dev || exit 94\n";
    if (withByUuid) {
      text += "mkdir -p /dev/disk/by-uuid && ln -s ../../" + m_root + " /dev/disk/by-uuid/" +
              kUuid + "\n";
    }
    return text;
  }

  keeltest::IsolatedResult Keel(const std::vector<std::string>& args, bool withByUuid) {
    std::vector<std::string> argv{m_tree->Sub("install/keelcli")};
    argv.insert(argv.end(), args.begin(), args.end());
    return keeltest::RunIsolated(argv, {"HOME=" + m_tree->Sub("home")}, m_tree->Sub("work"),
                                 m_tree->Sub("scratch"), PrepareDevices(withByUuid));
  }

  std::string m_root;
};

TEST_F(DeviceIdOption, ShortOptionPrintsTheSha1OfTheUuidLink) {
  const keeltest::IsolatedResult run = Keel({"-u"}, true);
  EXPECT_EQ(run.status, 0) << run.err << run.log;
  const std::string digest = UpperDigest("sha1sum", kUuid);
  ASSERT_EQ(digest.size(), 40u);
  EXPECT_EQ(run.out, "UDID : " + digest + "\n\r\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(DeviceIdOption, LongOptionGivesTheSameAnswer) {
  const keeltest::IsolatedResult run = Keel({"-udid"}, true);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "UDID : " + UpperDigest("sha1sum", kUuid) + "\n\r\n");
}

TEST_F(DeviceIdOption, LegacyOptionPrintsTheSha256) {
  for (const char* option : {"-ul", "-udid_legacy"}) {
    const keeltest::IsolatedResult run = Keel({option}, true);
    EXPECT_EQ(run.status, 0) << option;
    const std::string digest = UpperDigest("sha256sum", kUuid);
    ASSERT_EQ(digest.size(), 64u);
    EXPECT_EQ(run.out, "UDID : " + digest + "\n\r\n") << option;
  }
}

TEST_F(DeviceIdOption, WithoutTheByUuidFolderTheErrorSentenceAndStatusOne) {
  for (const char* option : {"-u", "-ul"}) {
    const keeltest::IsolatedResult run = Keel({option}, false);
    EXPECT_EQ(run.status, 1) << option;
    EXPECT_EQ(run.out, "") << option;
    EXPECT_EQ(run.err, "Error in retrieving device ID information.\r\n") << option;
    EXPECT_NE(run.log.find("Failed to get device ID information."), std::string::npos);
  }
}

TEST_F(DeviceIdOption, AfterClearLogsPrintsTheIdentifierAndClearsNothing) {
  ASSERT_TRUE(keeltest::WriteFile(m_tree->Sub("logs/a.log"), "keep me"));
  ASSERT_TRUE(keeltest::WriteFile(
      m_tree->Sub("install/xml/config/clear.xml"),
      "<c><fileGroup><file id=\"x\"><description>x</description><default>true</default><keel>"
      "<os opsys=\"linux\"><file_copy_action><action><loc>" +
          m_tree->Sub("logs/*.log") +
          "</loc><clear_log apply=\"true\"/></action></file_copy_action></os></keel></file>"
          "</fileGroup></c>"));
  const keeltest::IsolatedResult run = Keel({"-clearlogs", "-u"}, true);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "UDID : " + UpperDigest("sha1sum", kUuid) + "\n\r\n");
  EXPECT_EQ(keeltest::ReadFile(m_tree->Sub("logs/a.log")), "keep me");
}

}  // namespace
