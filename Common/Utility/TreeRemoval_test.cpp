#include "Common/Utility/TreeRemoval.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::ListDir;
using keeltest::PathExists;
using keeltest::ReadFile;
using keeltest::TempDir;
using keeltest::WriteFile;

TEST(TreeRemoval, RemovesFoldersFilesAndLinksBelowTheFolder) {
  TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"tree/a.txt", "tree/sub/b.txt", "tree/sub/deeper/c.txt"}, "x"));
  ASSERT_EQ(0, mkdir(dir.Sub("tree/empty").c_str(), 0700));
  ASSERT_EQ(0, mkfifo(dir.Sub("tree/sub/fifo").c_str(), 0600));
  ASSERT_EQ(0, symlink("a.txt", dir.Sub("tree/sub/link").c_str()));
  EXPECT_TRUE(RemoveTree(dir.Sub("tree")));
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{});
}

TEST(TreeRemoval, LinksToFoldersAndFilesOutsideAreRemovedNotFollowed) {
  TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"outside/keep.txt", "outside/inner/keep2.txt", "tree/x.txt"}, "k"));
  ASSERT_EQ(0, symlink(dir.Sub("outside").c_str(), dir.Sub("tree/folderlink").c_str()));
  ASSERT_EQ(0, symlink(dir.Sub("outside/keep.txt").c_str(), dir.Sub("tree/filelink").c_str()));
  EXPECT_TRUE(RemoveTree(dir.Sub("tree") + "/"));
  EXPECT_FALSE(PathExists(dir.Sub("tree")));
  EXPECT_EQ(ReadFile(dir.Sub("outside/keep.txt")), "k");
  EXPECT_EQ(ReadFile(dir.Sub("outside/inner/keep2.txt")), "k");
}

TEST(TreeRemoval, TheNameItselfBeingALinkRemovesOnlyTheLink) {
  TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"target/keep.txt"}, "k"));
  ASSERT_EQ(0, symlink(dir.Sub("target").c_str(), dir.Sub("named").c_str()));
  EXPECT_TRUE(RemoveTree(dir.Sub("named")));
  EXPECT_FALSE(PathExists(dir.Sub("named")));
  EXPECT_EQ(ReadFile(dir.Sub("target/keep.txt")), "k");
}

TEST(TreeRemoval, MissingNameCountsAsRemoved) {
  TempDir dir;
  EXPECT_TRUE(RemoveTree(dir.Sub("none")));
}

TEST(TreeRemoval, TreeDeeperThanTheDescriptorLimitAndPathMaxGoesWhole) {
  TempDir dir;
  ASSERT_EQ(0, mkdir(dir.Sub("tree").c_str(), 0700));
  // 400 levels of 20-character names: over 8,000 bytes of path, far more
  // levels than the 64 descriptors the child may hold.
  const int status = keeltest::RunInChild([&] {
    int fd = open(dir.Sub("tree").c_str(), O_RDONLY | O_DIRECTORY);
    const std::string name(20, 'd');
    for (int level = 0; level < 400; ++level) {
      if (mkdirat(fd, name.c_str(), 0700) != 0)
        return 1;
      const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
      close(fd);
      if (next < 0)
        return 2;
      fd = next;
      const int file = openat(fd, "f", O_WRONLY | O_CREAT, 0600);
      if (file < 0)
        return 3;
      close(file);
    }
    close(fd);
    struct rlimit few = {64, 64};
    if (setrlimit(RLIMIT_NOFILE, &few) != 0)
      return 4;
    return RemoveTree(dir.Sub("tree")) ? 0 : 5;
  });
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(PathExists(dir.Sub("tree")));
}

TEST(TreeRemoval, RemovesByNameBelowAnOpenedFolder) {
  TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"a/b/c.txt", "keep.txt"}, "x"));
  const int fd = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(RemoveTreeAt(fd, "a"));
  close(fd);
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"keep.txt"});
}

}  // namespace
