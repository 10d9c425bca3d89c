#include "tests/support/FakeDiskHost.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace keeltest {

FakeDiskHost::FakeDiskHost(const std::string& uuid) {
  m_paths.mountTable = m_dir.Sub("mtab");
  m_paths.byUuidFolder = m_dir.Sub("dev/disk/by-uuid");
  EXPECT_TRUE(WriteFile(m_dir.Sub("dev/sda2"), ""));
  mkdir(m_dir.Sub("dev/disk").c_str(), 0755);
  mkdir(m_paths.byUuidFolder.c_str(), 0755);
  EXPECT_TRUE(WriteFile(m_paths.mountTable, "rootfs / rootfs rw 0 0\n" + m_dir.Sub("dev/sda2") +
                                                " / ext4 rw,relatime 0 0\n"));
  EXPECT_EQ(symlink("../../sdb1", (m_paths.byUuidFolder + "/0000-OTHER").c_str()), 0);
  if (!uuid.empty()) {
    EXPECT_EQ(symlink("../../sda2", (m_paths.byUuidFolder + "/" + uuid).c_str()), 0);
  }
}

}  // namespace keeltest
