// The working folder of a run on a host shared with other users: made by
// the run itself, private, never a name someone else prepared, never shared
// with another run.
#include "tools/KEEL/KEELEngine/implementations/KEELWorkingFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::PathExists;
using keeltest::ReadFile;
using keeltest::TempDir;
using keeltest::WriteFile;

constexpr uid_t kOtherUser = 65534;

mode_t ModeOf(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

class WorkingFolder : public ::testing::Test {
 protected:
  std::string Plain() const { return dir.Sub("KEEL_Temp_Bundle"); }
  TempDir dir{keeltest::BuildDir()};
};

TEST_F(WorkingFolder, IsPrivateToTheRunningUserWhateverTheUmask) {
  for (mode_t mask : {022, 0, 0277}) {
    const int answer = keeltest::RunInChild([&] {
      umask(mask);
      KEELWorkingFolder folder(Plain() + std::to_string(mask));
      if (folder.make(false) != 0)
        return 1;
      return ModeOf(folder.path()) == 0700 ? 0 : 2;
    });
    EXPECT_EQ(0, answer) << "umask " << mask;
  }
}

TEST_F(WorkingFolder, FreshNameIsThePlainNameTimeStampAndNumber) {
  KEELWorkingFolder folder(Plain());
  ASSERT_EQ(0u, folder.make(false));
  EXPECT_TRUE(std::regex_match(folder.path(), std::regex(Plain() + "__\\d{4}_\\d{4}_\\d{1,5}")))
      << folder.path();
}

TEST_F(WorkingFolder, ExistingPlainNameIsNeverAdopted) {
  ASSERT_EQ(0, mkdir(Plain().c_str(), 0777));
  KEELWorkingFolder folder(Plain());
  ASSERT_EQ(0u, folder.make(true));
  EXPECT_NE(Plain(), folder.path());
  EXPECT_EQ(0700u, ModeOf(folder.path()));
}

TEST_F(WorkingFolder, FolderPreparedByAnotherUserIsNeverAdopted) {
  // Whatever name the run tries, a folder already there is passed over.
  ASSERT_EQ(0, mkdir(Plain().c_str(), 0777));
  ASSERT_EQ(0, chown(Plain().c_str(), kOtherUser, kOtherUser));
  ASSERT_EQ(0, symlink("/nonexistent-target", (Plain() + "/summary.txt").c_str()));
  KEELWorkingFolder folder(Plain());
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, folder.clearPlainName());
  ASSERT_EQ(0u, folder.make(true));
  EXPECT_NE(Plain(), folder.path());
  struct stat info;
  ASSERT_EQ(0, lstat((Plain() + "/summary.txt").c_str(), &info));
  EXPECT_TRUE(S_ISLNK(info.st_mode));
}

TEST_F(WorkingFolder, LinkAtThePlainNameIsNeitherFollowedNorCleared) {
  ASSERT_TRUE(WriteFile(dir.Sub("victim/keep.txt"), "precious"));
  ASSERT_EQ(0, symlink(dir.Sub("victim").c_str(), Plain().c_str()));
  KEELWorkingFolder folder(Plain());
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, folder.clearPlainName());
  EXPECT_EQ("precious", ReadFile(dir.Sub("victim/keep.txt")));
  ASSERT_EQ(0u, folder.make(false));
  EXPECT_TRUE(PathExists(Plain()));
}

TEST_F(WorkingFolder, FileAtThePlainNameIsNotRemoved) {
  ASSERT_TRUE(WriteFile(Plain(), "not a folder"));
  KEELWorkingFolder folder(Plain());
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, folder.clearPlainName());
  EXPECT_EQ("not a folder", ReadFile(Plain()));
}

TEST_F(WorkingFolder, OwnLeftoverFolderIsClearedAndWorkedInUnderThePlainName) {
  ASSERT_TRUE(WriteFile(Plain() + "/old.txt", "left behind"));
  KEELWorkingFolder folder(Plain());
  ASSERT_EQ(0u, folder.clearPlainName());
  ASSERT_EQ(0u, folder.make(true));
  EXPECT_EQ(Plain(), folder.path());
  EXPECT_FALSE(PathExists(Plain() + "/old.txt"));
  EXPECT_EQ(0700u, ModeOf(Plain()));
}

TEST_F(WorkingFolder, FolderAnotherRunWorksInIsNotCleared) {
  KEELWorkingFolder first(Plain());
  ASSERT_EQ(0, mkdir(Plain().c_str(), 0700));
  ASSERT_EQ(0u, first.clearPlainName());
  ASSERT_EQ(0u, first.make(true));
  ASSERT_EQ(Plain(), first.path());
  ASSERT_TRUE(WriteFile(Plain() + "/copy.txt", "the first run's"));

  KEELWorkingFolder second(Plain());
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, second.clearPlainName());
  ASSERT_EQ(0u, second.make(false));
  EXPECT_NE(first.path(), second.path());
  EXPECT_EQ("the first run's", ReadFile(Plain() + "/copy.txt"));
}

TEST_F(WorkingFolder, TwoRunsNeverShareAFolder) {
  KEELWorkingFolder first(Plain());
  KEELWorkingFolder second(Plain());
  ASSERT_EQ(0u, first.make(false));
  ASSERT_EQ(0u, second.make(false));
  EXPECT_NE(first.path(), second.path());
}

TEST_F(WorkingFolder, FolderIsLockedWhileTheObjectLives) {
  std::string path;
  {
    KEELWorkingFolder folder(Plain());
    ASSERT_EQ(0u, folder.make(false));
    path = folder.path();
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    EXPECT_NE(0, flock(fd, LOCK_EX | LOCK_NB));
    close(fd);
  }
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, flock(fd, LOCK_EX | LOCK_NB));
  close(fd);
}

TEST_F(WorkingFolder, FolderThatCannotBeMadeIsAccessDenied) {
  KEELWorkingFolder folder(dir.Sub("missing/parent/KEEL_Temp_Bundle"));
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, folder.make(true));
  EXPECT_EQ("", folder.path());
}

}  // namespace
