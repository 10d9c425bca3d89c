#include "Common/Utility/DeviceID.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

// True when some error-level record ends in the line `text`.
bool LoggedError(keeltest::LogCapture& capture, const std::string& text) {
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string& message = record.message;
    const std::string tail = "\n" + text;
    if (record.level == LOG_LEVEL_E && message.size() >= tail.size() &&
        message.compare(message.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

// A host in a temporary folder: a mount table, a dev folder with device
// nodes (plain files suffice) and a by-uuid folder of links into it.
class FakeHost {
 public:
  FakeHost() {
    m_paths.mountTable = m_dir.Sub("mtab");
    m_paths.byUuidFolder = m_dir.Sub("dev/disk/by-uuid");
    mkdir(m_dir.Sub("dev").c_str(), 0755);
    mkdir(m_dir.Sub("dev/disk").c_str(), 0755);
    mkdir(m_paths.byUuidFolder.c_str(), 0755);
  }

  const HostPaths& paths() const { return m_paths; }
  std::string Dev(const std::string& name) const { return m_dir.Sub("dev/" + name); }
  std::string Path(const std::string& relative) const { return m_dir.Sub(relative); }

  void WriteMountTable(const std::string& text) const {
    ASSERT_TRUE(keeltest::WriteFile(m_paths.mountTable, text));
  }
  // A device node stand-in below dev/.
  void MakeDevice(const std::string& name) const {
    ASSERT_TRUE(keeltest::WriteFile(Dev(name), ""));
  }
  // A by-uuid link named `uuid` whose target text is `target`.
  void LinkUuid(const std::string& uuid, const std::string& target) const {
    ASSERT_EQ(symlink(target.c_str(), (m_paths.byUuidFolder + "/" + uuid).c_str()), 0);
  }
  // A root entry for the device node `name`, as a real host lists it.
  std::string RootLine(const std::string& name) const {
    return Dev(name) + " / ext4 rw,relatime 0 0\n";
  }

 private:
  keeltest::TempDir m_dir;
  HostPaths m_paths;
};

// Names of the links in `folder`, in the order readdir gives them.
std::vector<std::string> LinksInDirectoryOrder(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr)
    return names;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_type == DT_LNK)
      names.push_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

TEST(HostPathsDefaults, AreTheHostMountTableAndByUuidFolder) {
  const HostPaths paths;
  EXPECT_EQ(paths.mountTable, "/etc/mtab");
  EXPECT_EQ(paths.byUuidFolder, "/dev/disk/by-uuid");
}

// getTargetPath

TEST(TargetPath, EmptyPathGivesEmptyAndLogsNothing) {
  keeltest::LogCapture capture;
  EXPECT_EQ(getTargetPath(""), "");
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(TargetPath, MissingPathLogsLstatError) {
  keeltest::TempDir dir;
  keeltest::LogCapture capture;
  EXPECT_EQ(getTargetPath(dir.Sub("absent")), "");
  EXPECT_TRUE(LoggedError(capture, "lstat error No such file or directory"));
  EXPECT_EQ(capture.logger().Records().size(), 1u);
}

TEST(TargetPath, RegularFileLogsNotALink) {
  keeltest::TempDir dir;
  const std::string file = dir.Sub("sda2");
  ASSERT_TRUE(keeltest::WriteFile(file, "x"));
  keeltest::LogCapture capture;
  EXPECT_EQ(getTargetPath(file), "");
  EXPECT_TRUE(LoggedError(capture, file + " is not a link"));
}

TEST(TargetPath, FolderLogsNotALink) {
  keeltest::TempDir dir;
  keeltest::LogCapture capture;
  EXPECT_EQ(getTargetPath(dir.path()), "");
  EXPECT_TRUE(LoggedError(capture, dir.path() + " is not a link"));
}

TEST(TargetPath, ReturnsTargetTextUnresolved) {
  keeltest::TempDir dir;
  const std::string link = dir.Sub("vg-root");
  ASSERT_EQ(symlink("../dm-0", link.c_str()), 0);  // dangling on purpose
  keeltest::LogCapture capture;
  EXPECT_EQ(getTargetPath(link), "../dm-0");
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(TargetPath, LongTargetIsReturnedWhole) {
  keeltest::TempDir dir;
  const std::string target = "../" + std::string(3000, 'a') + "/" + std::string(200, 'b');
  const std::string link = dir.Sub("long");
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(getTargetPath(link), target);
}

// A link whose lstat works but whose target may not be read: a process's
// cwd link seen by another, unprivileged user. The check runs in a child
// that drops to "nobody"; the child reports through its exit status.
TEST(TargetPath, UnreadableLinkLogsReadlinkError) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to change to an unprivileged user";
  const std::string link = "/proc/" + std::to_string(getpid()) + "/cwd";
  keeltest::LogCapture capture;
  const int answer = keeltest::RunAsNobody([&] {
    const std::string target = getTargetPath(link);
    const bool logged = LoggedError(capture, "::readlink error Permission denied");
    return target.empty() && logged ? 0 : 1;
  });
  if (answer == keeltest::kCannotBecomeNobody)
    GTEST_SKIP() << "cannot change to an unprivileged user here";
  EXPECT_EQ(answer, 0);
}

// getDeviceNameForRoot

TEST(RootDeviceName, PlainDeviceGivesLastComponentAndLogsNotALink) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable("proc /proc proc rw 0 0\n" + host.RootLine("sda2") + host.Dev("sda1") +
                       " /boot ext4 rw 0 0\n");
  keeltest::LogCapture capture;
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
  // The ordinary case: the device is no link, and that line is expected.
  EXPECT_TRUE(LoggedError(capture, host.Dev("sda2") + " is not a link"));
}

TEST(RootDeviceName, RootfsFirstIsReplacedByRealDeviceLater) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable("rootfs / rootfs rw 0 0\nsysfs /sys sysfs rw 0 0\n" + host.RootLine("sda2"));
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
}

TEST(RootDeviceName, FirstDeviceWithSlashWins) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.MakeDevice("sdb7");
  host.WriteMountTable(host.RootLine("sda2") + host.RootLine("sdb7"));
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
}

TEST(RootDeviceName, RootfsAfterRealDeviceDoesNotReplaceIt) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2") + "rootfs / rootfs rw 0 0\n");
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
}

TEST(RootDeviceName, OnlyRootfsGivesEmpty) {
  FakeHost host;
  host.WriteMountTable("rootfs / rootfs rw 0 0\nproc /proc proc rw 0 0\n");
  keeltest::LogCapture capture;
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "");
  // Without a slash there is no link to look at.
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(RootDeviceName, OnlyExactSlashMountCounts) {
  FakeHost host;
  host.MakeDevice("sdb1");
  host.WriteMountTable(host.Dev("sdb1") + " /boot ext4 rw 0 0\n" + host.Dev("sdb1") +
                       " /root ext4 rw 0 0\n");
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "");
}

TEST(RootDeviceName, LinkedDeviceGivesLastComponentOfTarget) {
  FakeHost host;
  host.MakeDevice("dm-0");
  ASSERT_EQ(mkdir(host.Dev("mapper").c_str(), 0755), 0);
  ASSERT_EQ(symlink("../dm-0", host.Dev("mapper/vg-root").c_str()), 0);
  host.WriteMountTable(host.RootLine("mapper/vg-root"));
  keeltest::LogCapture capture;
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "dm-0");
  EXPECT_TRUE(capture.logger().Records().empty());
}

TEST(RootDeviceName, MissingDeviceStillGivesLastComponent) {
  FakeHost host;
  host.WriteMountTable(host.RootLine("sda2"));  // no node made
  keeltest::LogCapture capture;
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
  EXPECT_TRUE(LoggedError(capture, "lstat error No such file or directory"));
}

TEST(RootDeviceName, MissingMountTableLogsSetmntentError) {
  FakeHost host;  // no mtab written
  keeltest::LogCapture capture;
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "");
  EXPECT_TRUE(LoggedError(capture, "setmntent error"));
}

TEST(RootDeviceName, EmptyMountTableGivesEmpty) {
  FakeHost host;
  host.WriteMountTable("");
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "");
}

TEST(RootDeviceName, GarbageAndOverlongLinesAreSurvived) {
  FakeHost host;
  host.MakeDevice("sda2");
  std::string table = "# comment\n\n   \nnonsense\n";
  table += std::string(20000, 'x') + " /x y z 0 0\n";
  table += "\x01\x02\xff / bin\n";  // no slash: kept until replaced
  table += host.RootLine("sda2");
  host.WriteMountTable(table);
  EXPECT_EQ(getDeviceNameForRoot(host.paths()), "sda2");
}

// GetDeviceID

TEST(DeviceID, FindsUuidLinkOfRootDeviceAsItStands) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  host.LinkUuid("1111-AAAA", "../../sdb1");
  host.LinkUuid("7c3A9e1b-04D2-4f6e-9a5b-0123456789Ab", "../../sda2");
  host.LinkUuid("2222-BBBB", "../../sda20");
  std::string id = "stale";
  EXPECT_TRUE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "7c3A9e1b-04D2-4f6e-9a5b-0123456789Ab");
}

TEST(DeviceID, RootWithoutUuidLinkGivesFalseAndEmptyId) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  host.LinkUuid("1111-AAAA", "../../sdb1");
  host.LinkUuid("2222-BBBB", "../../sda20");
  host.LinkUuid("3333-CCCC", "../../xsda2");
  std::string id = "stale";
  EXPECT_FALSE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "");
}

TEST(DeviceID, OnlyRootfsLogsUnableToFindRootDeviceName) {
  FakeHost host;
  host.WriteMountTable("rootfs / rootfs rw 0 0\n");
  host.LinkUuid("1111-AAAA", "../../rootfs");
  keeltest::LogCapture capture;
  std::string id = "stale";
  EXPECT_FALSE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "");
  EXPECT_TRUE(LoggedError(capture, "Unable to find root device name"));
}

TEST(DeviceID, MissingByUuidFolderGivesFalseWithoutALogLineOfItsOwn) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  ASSERT_EQ(rmdir(host.paths().byUuidFolder.c_str()), 0);
  keeltest::LogCapture capture;
  std::string id;
  EXPECT_FALSE(GetDeviceID(id, host.paths()));
  // The one line is the root look-up's own "is not a link".
  const std::vector<keeltest::LogRecord> records = capture.logger().Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(LoggedError(capture, host.Dev("sda2") + " is not a link"));
}

TEST(DeviceID, FirstOfSeveralLinksInDirectoryOrderWins) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  // Enough links that the directory's order is unlikely to match their
  // sorted or creation order by chance; the last created sorts in the middle.
  const std::vector<std::string> uuids = {
      "e0-01", "a0-02", "q0-03", "c0-04", "s0-05", "b0-06", "f0-07", "r0-08", "k0-09", "d0-10",
      "p0-11", "g0-12", "t0-13", "h0-14", "o0-15", "i0-16", "n0-17", "j0-18", "m0-19", "l0-20"};
  for (const std::string& uuid : uuids)
    host.LinkUuid(uuid, "../../sda2");
  const std::vector<std::string> order = LinksInDirectoryOrder(host.paths().byUuidFolder);
  ASSERT_EQ(order.size(), uuids.size());
  std::string id;
  EXPECT_TRUE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, order.front());
}

TEST(DeviceID, EntriesThatAreNotLinksOrHaveNoSlashAreSkipped) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  // A plain file and a folder named like the device, and a link whose target
  // has no "/" although it names the device.
  ASSERT_TRUE(keeltest::WriteFile(host.paths().byUuidFolder + "/sda2", ""));
  ASSERT_EQ(mkdir((host.paths().byUuidFolder + "/dir-uuid").c_str(), 0755), 0);
  host.LinkUuid("NOSLASH-UUID", "sda2");
  std::string id;
  EXPECT_FALSE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "");
}

TEST(DeviceID, ComparisonIsByteForByte) {
  FakeHost host;
  host.MakeDevice("sda2");
  host.WriteMountTable(host.RootLine("sda2"));
  host.LinkUuid("UPPER-UUID", "../../SDA2");
  host.LinkUuid("SPACE-UUID", "../../sda2 ");
  std::string id;
  EXPECT_FALSE(GetDeviceID(id, host.paths()));
}

TEST(DeviceID, MapperRootMatchesLinkToItsNode) {
  FakeHost host;
  host.MakeDevice("dm-0");
  ASSERT_EQ(mkdir(host.Dev("mapper").c_str(), 0755), 0);
  ASSERT_EQ(symlink("../dm-0", host.Dev("mapper/vg-root").c_str()), 0);
  host.WriteMountTable("rootfs / rootfs rw 0 0\n" + host.RootLine("mapper/vg-root"));
  host.LinkUuid("0b1c2d3e-aaaa-bbbb-cccc-ddddeeeeffff", "../../dm-0");
  host.LinkUuid("9999-0000", "../../dm-1");
  std::string id;
  EXPECT_TRUE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "0b1c2d3e-aaaa-bbbb-cccc-ddddeeeeffff");
}

TEST(DeviceID, DanglingAndAbsoluteLinksAreMatchedByLastComponent) {
  FakeHost host;
  host.MakeDevice("nvme0n1p3");
  host.WriteMountTable(host.RootLine("nvme0n1p3"));
  // The by-uuid link need not resolve: only its text counts.
  host.LinkUuid("ABS-UUID", "/nowhere/at/all/nvme0n1p3");
  std::string id;
  EXPECT_TRUE(GetDeviceID(id, host.paths()));
  EXPECT_EQ(id, "ABS-UUID");
}

}  // namespace
