// The folder an archive file is made in: reached through TrustedPath, so a
// link or folder of another user never leads the new file into a folder of
// root's.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Zip/ArchiveFile.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr uid_t kNobody = 65534;

}  // namespace

TEST(ArchiveFileFolder, LinkOfAnotherUserToARootFolderIsRefused) {
  keeltest::TempDir tmp;
  const std::string user = tmp.Sub("user");
  const std::string root = tmp.Sub("root-only");
  ASSERT_EQ(0, mkdir(user.c_str(), 0755));
  ASSERT_EQ(0, mkdir(root.c_str(), 0700));
  ASSERT_EQ(0, symlink(root.c_str(), (user + "/reports").c_str()));
  ASSERT_EQ(0, lchown((user + "/reports").c_str(), kNobody, kNobody));
  ASSERT_EQ(0, chown(user.c_str(), kNobody, kNobody));
  keeltest::LogCapture capture;
  CArchiveFile file;
  EXPECT_EQ(GLOBAL_ERROR_BAD_PARAMETER, file.create(user + "/reports/x.zip"));
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(root));
  EXPECT_TRUE(
      capture.Contains("Could not open the folder of the archive \"" + user + "/reports\""));
}

TEST(ArchiveFileFolder, NewFileIsMadeInTheFolderPrivateAndHidden) {
  keeltest::TempDir tmp;
  const mode_t previous = umask(0);
  CArchiveFile file;
  const ResultCode result = file.create(tmp.Sub("x.zip"));
  umask(previous);
  ASSERT_EQ(0u, result);
  const std::vector<std::string> names = keeltest::ListDir(tmp.path());
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(0u, names[0].find(".x.zip.")) << names[0];
  EXPECT_EQ(std::string(".x.zip.").size() + 6, names[0].size()) << names[0];
  EXPECT_EQ(tmp.Sub(names[0]), file.temporaryPath());
  struct stat info;
  ASSERT_EQ(0, stat(file.temporaryPath().c_str(), &info));
  EXPECT_EQ(0600u, info.st_mode & 07777);
  file.discard();
  EXPECT_EQ(std::vector<std::string>{}, keeltest::ListDir(tmp.path()));
}
