#include "CommonCrypt/DeviceIDHash.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/FakeDiskHost.h"
#include "tests/support/TestSupport.h"

namespace {

// The upper-case checksum of `text` (no line feed) by a coreutils program.
std::string ChecksumOfText(const std::string& program, const std::string& text) {
  int status = -1;
  std::string sum = keeltest::Shell("printf '%s' '" + text + "' | " + program, &status);
  EXPECT_EQ(status, 0);
  sum = sum.substr(0, sum.find(' '));
  std::transform(sum.begin(), sum.end(), sum.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return sum;
}

bool LoggedError(keeltest::LogCapture& capture, const std::string& text) {
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string tail = "\n" + text;
    const std::string& m = record.message;
    if (record.level == LOG_LEVEL_E && m.size() >= tail.size() &&
        m.compare(m.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

bool LoggedFailedCall(keeltest::LogCapture& capture, const std::string& invoked, ResultCode code) {
  char codeText[16];
  snprintf(codeText, sizeof(codeText), "(0x%.8X)", code);
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string& m = record.message;
    if (record.level == LOG_LEVEL_E &&
        m.find("\nFunction: GetDeviceUniqueIDHash\n") != std::string::npos &&
        m.find("\nInvoked Function: " + invoked + "\n") != std::string::npos &&
        m.find(codeText) != std::string::npos)
      return true;
  }
  return false;
}

const char kUuid[] = "7c3A9e1b-04D2-4f6e-9a5b-0123456789Ab";

TEST(DeviceUniqueIDHash, Sha1IsUpperCaseSha1sumOfTheUuidText) {
  keeltest::FakeDiskHost host(kUuid);
  std::string out = "stale";
  EXPECT_EQ(GetDeviceUniqueIDHash(out, "sha1", host.paths()), 0u);
  EXPECT_EQ(out.size(), 40u);
  EXPECT_EQ(out, ChecksumOfText("sha1sum", kUuid));
}

TEST(DeviceUniqueIDHash, Sha256IsUpperCaseSha256sumOfTheUuidText) {
  keeltest::FakeDiskHost host(kUuid);
  std::string out;
  EXPECT_EQ(GetDeviceUniqueIDHash(out, "sha256", host.paths()), 0u);
  EXPECT_EQ(out.size(), 64u);
  EXPECT_EQ(out, ChecksumOfText("sha256sum", kUuid));
}

TEST(DeviceUniqueIDHash, OnlyUpperCaseHexDigits) {
  keeltest::FakeDiskHost host(kUuid);
  for (const char* name : {"sha1", "sha256"}) {
    std::string out;
    ASSERT_EQ(GetDeviceUniqueIDHash(out, name, host.paths()), 0u);
    EXPECT_EQ(out.find_first_not_of("0123456789ABCDEF"), std::string::npos) << out;
    // The check above would pass for digits alone; make sure letters occur.
    EXPECT_NE(out.find_first_of("ABCDEF"), std::string::npos) << out;
  }
}

TEST(DeviceUniqueIDHash, SameHostGivesSameIdentifierEachCall) {
  keeltest::FakeDiskHost host(kUuid);
  std::string first;
  std::string second;
  ASSERT_EQ(GetDeviceUniqueIDHash(first, "sha256", host.paths()), 0u);
  ASSERT_EQ(GetDeviceUniqueIDHash(second, "sha256", host.paths()), 0u);
  EXPECT_EQ(first, second);
}

TEST(DeviceUniqueIDHash, RootWithoutUuidLinkGivesNotImplemented) {
  keeltest::FakeDiskHost host("");
  keeltest::LogCapture capture;
  std::string out = "stale";
  const ResultCode result = GetDeviceUniqueIDHash(out, "sha256", host.paths());
  EXPECT_EQ(result, GLOBAL_ERROR_NOT_IMPLEMENTED);
  EXPECT_EQ(result, 0xFE000001u);
  EXPECT_EQ(out, "");
  EXPECT_TRUE(LoggedError(capture, "Failed to get device ID information."));
}

TEST(DeviceUniqueIDHash, RootfsOnlyHostGivesNotImplemented) {
  keeltest::TempDir dir;
  HostPaths paths;
  paths.mountTable = dir.Sub("mtab");
  paths.byUuidFolder = dir.Sub("by-uuid");
  ASSERT_TRUE(keeltest::WriteFile(paths.mountTable, "rootfs / rootfs rw 0 0\n"));
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(GetDeviceUniqueIDHash(out, "sha1", paths), GLOBAL_ERROR_NOT_IMPLEMENTED);
  EXPECT_TRUE(LoggedError(capture, "Unable to find root device name"));
  EXPECT_TRUE(LoggedError(capture, "Failed to get device ID information."));
}

TEST(DeviceUniqueIDHash, UnknownHashNameGivesGetDigestOnceTheIdIsFound) {
  keeltest::FakeDiskHost host(kUuid);
  keeltest::LogCapture capture;
  std::string out = "stale";
  EXPECT_EQ(GetDeviceUniqueIDHash(out, "nosuchdigest", host.paths()), HASH_ERROR_GET_DIGEST);
  EXPECT_EQ(out, "");
  EXPECT_TRUE(LoggedFailedCall(capture, "COpenSSLHash", HASH_ERROR_GET_DIGEST));
}

TEST(DeviceUniqueIDHash, UnknownHashNameIsNotLookedAtBeforeTheId) {
  // Without a UUID the device error comes first: the id is read before the
  // hash object is made.
  keeltest::FakeDiskHost host("");
  keeltest::LogCapture capture;
  std::string out;
  EXPECT_EQ(GetDeviceUniqueIDHash(out, "nosuchdigest", host.paths()), GLOBAL_ERROR_NOT_IMPLEMENTED);
  EXPECT_FALSE(LoggedFailedCall(capture, "COpenSSLHash", HASH_ERROR_GET_DIGEST));
}

TEST(DeviceUniqueIDHash, NullHashNameLeavesOutAsItWas) {
  keeltest::FakeDiskHost host(kUuid);
  keeltest::LogCapture capture;
  std::string out = "keep";
  EXPECT_EQ(GetDeviceUniqueIDHash(out, nullptr, host.paths()), HASH_ERROR_NULL_POINTER);
  EXPECT_EQ(out, "keep");
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(DeviceUniqueIDHash, HostOverloadRefusesNullNameBeforeReadingTheHost) {
  keeltest::LogCapture capture;
  std::string out = "keep";
  EXPECT_EQ(GetDeviceUniqueIDHash(out, nullptr), HASH_ERROR_NULL_POINTER);
  EXPECT_EQ(out, "keep");
  EXPECT_TRUE(capture.logger().Records().empty());
}

}  // namespace
