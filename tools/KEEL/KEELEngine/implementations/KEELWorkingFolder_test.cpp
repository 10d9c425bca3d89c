// The working folder of a run on a host shared with other users: made by
// the run itself, private, never a name someone else prepared, never shared
// with another run.
#include "tools/KEEL/KEELEngine/implementations/KEELWorkingFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELUnfinishedBundles.h"

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

// Every fresh name a run could take at `when` and a minute later: the
// plain name, the time stamp and each number the name may carry.
std::vector<std::string> FreshNamesAround(const std::string& plain, time_t when) {
  std::vector<std::string> names;
  for (time_t minute : {when, when + 60}) {
    struct tm local {};
    localtime_r(&minute, &local);
    char stamp[64];
    snprintf(stamp, sizeof(stamp), "_%02d%02d_%02d%02d", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min);
    for (int number = 0; number < 100000; ++number)
      names.push_back(plain + "_" + stamp + "_" + std::to_string(number));
  }
  return names;
}

TEST_F(WorkingFolder, EveryFreshNameMadeInAdvanceStillGivesAPrivateRandomName) {
  const int status = keeltest::RunWithTmpfsAt(dir.path(), [&] {
    if (!keeltest::MountTmpfs(dir.path(), "512m"))
      return 10;
    // Half as folders of another user, half as links to one.
    const std::vector<std::string> names = FreshNamesAround(Plain(), time(nullptr));
    if (mkdir(dir.Sub("theirs").c_str(), 0777) != 0)
      return 11;
    for (size_t i = 0; i < names.size(); ++i) {
      const bool made = i % 2 == 0 ? mkdir(names[i].c_str(), 0777) == 0 &&
                                         chown(names[i].c_str(), kOtherUser, kOtherUser) == 0
                                   : symlink(dir.Sub("theirs").c_str(), names[i].c_str()) == 0;
      if (!made)
        return 12;
    }
    KEELWorkingFolder folder(Plain());
    if (folder.make(false) != 0)
      return 1;
    if (!folder.tookRandomName())
      return 2;
    if (!std::regex_match(folder.path(), std::regex(Plain() + "_[0-9a-f]{16}")))
      return 3;
    struct stat info;
    if (lstat(folder.path().c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != geteuid() || (info.st_mode & 07777) != 0700)
      return 4;
    return keeltest::ListDir(dir.Sub("theirs")).empty() ? 0 : 5;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST_F(WorkingFolder, UsualRunTakesNoRandomName) {
  KEELWorkingFolder folder(Plain());
  ASSERT_EQ(0u, folder.make(false));
  EXPECT_FALSE(folder.tookRandomName());
}

TEST_F(WorkingFolder, RemoveTakesTheWholeTreeAndNothingALinkPointsTo) {
  ASSERT_TRUE(WriteFile(dir.Sub("outside/keep.txt"), "precious"));
  KEELWorkingFolder folder(Plain());
  ASSERT_EQ(0u, folder.make(false));
  ASSERT_TRUE(WriteFile(folder.path() + "/logs/deep/a.log", "a"));
  ASSERT_TRUE(WriteFile(folder.path() + "/summary.txt", "s"));
  ASSERT_EQ(0, symlink(dir.Sub("outside").c_str(), (folder.path() + "/logs/out").c_str()));
  EXPECT_TRUE(folder.remove());
  EXPECT_FALSE(PathExists(folder.path()));
  EXPECT_EQ("precious", ReadFile(dir.Sub("outside/keep.txt")));
}

TEST_F(WorkingFolder, LeftoversOfDeadRunsGoAndLiveOnesAndOthersStay) {
  // A dead run's folder, with a tree in it; a live run's, locked; another
  // user's folder and a link, both of the name form; the plain name.
  const std::string dead = Plain() + "__1231_2359_42";
  ASSERT_TRUE(WriteFile(dead + "/logs/a.log", "old copy"));
  ASSERT_TRUE(WriteFile(dead + "/summary.txt", "old"));
  KEELWorkingFolder live(Plain());
  ASSERT_EQ(0u, live.make(false));
  ASSERT_TRUE(WriteFile(live.path() + "/in-use.log", "live"));
  const std::string theirs = Plain() + "__1231_2359_7";
  ASSERT_TRUE(WriteFile(theirs + "/their.log", "theirs"));
  ASSERT_EQ(0, chown(theirs.c_str(), kOtherUser, kOtherUser));
  ASSERT_TRUE(WriteFile(dir.Sub("target/keep.txt"), "precious"));
  const std::string link = Plain() + "_0123456789abcdef";
  ASSERT_EQ(0, symlink(dir.Sub("target").c_str(), link.c_str()));
  ASSERT_TRUE(WriteFile(Plain() + "/plain.txt", "plain"));
  ASSERT_TRUE(WriteFile(dir.Sub("KEEL_Temp_Bundles/other.txt"), "other"));

  KEELWorkingFolder next(Plain());
  EXPECT_EQ(1, next.removeLeftovers());

  EXPECT_FALSE(PathExists(dead));
  EXPECT_EQ("live", ReadFile(live.path() + "/in-use.log"));
  EXPECT_EQ("theirs", ReadFile(theirs + "/their.log"));
  EXPECT_EQ("precious", ReadFile(link + "/keep.txt"));
  EXPECT_EQ("plain", ReadFile(Plain() + "/plain.txt"));
  EXPECT_EQ("other", ReadFile(dir.Sub("KEEL_Temp_Bundles/other.txt")));
}

TEST(WorkingFolderName, IsThePlainNameOrItFollowedByAnUnderscore) {
  EXPECT_TRUE(KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle", "KEEL_Temp_Bundle"));
  EXPECT_TRUE(
      KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle", "KEEL_Temp_Bundle__1125_1437_99"));
  EXPECT_TRUE(KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle",
                                                     "KEEL_Temp_Bundle_0123456789abcdef"));
  EXPECT_FALSE(KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle", "KEEL_Temp_Bundle_"));
  EXPECT_FALSE(KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle", "KEEL_Temp_Bundles"));
  EXPECT_FALSE(KEELWorkingFolder::isWorkingFolderName("KEEL_Temp_Bundle", "KEEL_Temp"));
}

TEST(UnfinishedBundles, NameIsDotBundleNameDotAndSixLettersOrDigits) {
  EXPECT_TRUE(isUnfinishedBundleName(".b.zip.Ab3dE9"));
  EXPECT_TRUE(isUnfinishedBundleName(".KEELBundle_1125_1437.zip.xY12zz"));
  EXPECT_TRUE(isUnfinishedBundleName("." + std::string(200, 'n') + ".abcdef"));
  EXPECT_FALSE(isUnfinishedBundleName(".b.zip"));
  EXPECT_FALSE(isUnfinishedBundleName(".b.txt.Ab3dE9"));
  EXPECT_FALSE(isUnfinishedBundleName("b.zip.Ab3dE9"));
  EXPECT_FALSE(isUnfinishedBundleName(".b.zip.Ab3d-9"));
  EXPECT_FALSE(isUnfinishedBundleName(".bashrc"));
}

TEST(UnfinishedBundles, OwnUnfinishedArchivesGoAndNothingElse) {
  TempDir dir(keeltest::BuildDir());
  ASSERT_TRUE(WriteFile(dir.Sub(".b.zip.Ab3dE9"), "half"));
  ASSERT_TRUE(WriteFile(dir.Sub(".b.zip.Theirs"), "theirs"));
  ASSERT_EQ(0, chown(dir.Sub(".b.zip.Theirs").c_str(), kOtherUser, kOtherUser));
  ASSERT_TRUE(WriteFile(dir.Sub("keep.txt"), "precious"));
  ASSERT_EQ(0, symlink(dir.Sub("keep.txt").c_str(), dir.Sub(".b.zip.Linked").c_str()));
  ASSERT_TRUE(WriteFile(dir.Sub("b.zip"), "finished"));
  ASSERT_TRUE(WriteFile(dir.Sub(".profile"), "p"));
  EXPECT_EQ(1, removeUnfinishedBundles(dir.Sub("next.zip")));
  EXPECT_EQ(keeltest::ListDir(dir.path()),
            (std::vector<std::string>{".b.zip.Linked", ".b.zip.Theirs", ".profile", "b.zip",
                                      "keep.txt"}));
  EXPECT_EQ("precious", ReadFile(dir.Sub("keep.txt")));
}

}  // namespace
