#include "Common/Utility/TrustedPath.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using keeltest::kNobody;

std::string ReadAll(int fd) {
  std::string text;
  char block[4096];
  ssize_t got;
  while ((got = read(fd, block, sizeof(block))) > 0)
    text.append(block, static_cast<size_t>(got));
  return text;
}

// A tree below /tmp that the other user can reach, with helpers to make
// what that user would make, as that user.
class TrustedPathTest : public ::testing::Test {
 protected:
  void SetUp() override { chmod(m_dir.path().c_str(), 0755); }

  std::string Sub(const std::string& relative) const { return m_dir.Sub(relative); }

  // A file of root's with `mode`.
  void RootFile(const std::string& relative, const std::string& content, mode_t mode) {
    ASSERT_TRUE(keeltest::WriteFile(Sub(relative), content));
    ASSERT_EQ(0, chmod(Sub(relative).c_str(), mode));
  }

  // A folder of the other user's, made by root and given away.
  void NobodysFolder(const std::string& relative) {
    ASSERT_EQ(0, mkdir(Sub(relative).c_str(), 0755));
    ASSERT_EQ(0, chown(Sub(relative).c_str(), kNobody, kNobody));
  }

  // A link made by the other user (so owned by that user).
  void NobodysLink(const std::string& target, const std::string& relative) {
    const std::string at = Sub(relative);
    const int status =
        keeltest::RunAsNobody([&] { return symlink(target.c_str(), at.c_str()) == 0 ? 0 : 1; });
    if (status == keeltest::kCannotBecomeNobody)
      GTEST_SKIP() << "cannot become uid 65534 here";
    ASSERT_EQ(0, status);
  }

  // A file made by the other user.
  void NobodysFile(const std::string& relative, const std::string& content) {
    const std::string at = Sub(relative);
    const int status =
        keeltest::RunAsNobody([&] { return keeltest::WriteFile(at, content) ? 0 : 1; });
    if (status == keeltest::kCannotBecomeNobody)
      GTEST_SKIP() << "cannot become uid 65534 here";
    ASSERT_EQ(0, status);
  }

  keeltest::TempDir m_dir;
};

TEST_F(TrustedPathTest, OpensAFileByAbsoluteAndRelativePath) {
  RootFile("a/b.log", "bee\n", 0600);
  TrustedPathResult byPath = TrustedPath::openFileForReading(Sub("a/b.log"));
  ASSERT_TRUE(byPath.ok()) << byPath.reason;
  EXPECT_EQ("bee\n", ReadAll(byPath.fd.get()));
  EXPECT_TRUE(S_ISREG(byPath.info.st_mode));
  EXPECT_EQ(0u, byPath.steeringUser);
  EXPECT_TRUE(fcntl(byPath.fd.get(), F_GETFL) & O_NONBLOCK);

  keeltest::ScopedCwd cwd(m_dir.path());
  TrustedPathResult relative = TrustedPath::openFileForReading("./a//b.log");
  ASSERT_TRUE(relative.ok()) << relative.reason;
  EXPECT_EQ("bee\n", ReadAll(relative.fd.get()));
}

TEST_F(TrustedPathTest, MissingFileGivesTheSystemsWords) {
  const TrustedPathResult result = TrustedPath::openFileForReading(Sub("none/x.log"));
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(ENOENT, result.error);
  EXPECT_EQ("No such file or directory", result.reason);
}

TEST_F(TrustedPathTest, FollowsRootsLinks) {
  RootFile("real/app.log", "app\n", 0600);
  ASSERT_EQ(0, symlink("real", Sub("logs").c_str()));
  ASSERT_EQ(0, symlink(Sub("real/app.log").c_str(), Sub("current.log").c_str()));
  TrustedPathResult viaFolder = TrustedPath::openFileForReading(Sub("logs/app.log"));
  ASSERT_TRUE(viaFolder.ok()) << viaFolder.reason;
  EXPECT_EQ("app\n", ReadAll(viaFolder.fd.get()));
  TrustedPathResult viaFile = TrustedPath::openFileForReading(Sub("current.log"));
  ASSERT_TRUE(viaFile.ok()) << viaFile.reason;
  EXPECT_EQ("app\n", ReadAll(viaFile.fd.get()));
}

TEST_F(TrustedPathTest, AnotherUsersLinkInRootsFolderIsNotFollowed) {
  RootFile("secret", "root only\n", 0600);
  ASSERT_EQ(0, chmod(m_dir.path().c_str(), 0777));  // a shared folder without sticky bit
  NobodysLink(Sub("secret"), "planted.log");
  const TrustedPathResult result = TrustedPath::openFileForReading(Sub("planted.log"));
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(ELOOP, result.error);
  EXPECT_EQ("symbolic link \"planted.log\" of uid 65534 in a folder of uid 0 is not followed",
            result.reason);
}

TEST_F(TrustedPathTest, UsersLinkWithinTheirOwnFolderIsFollowed) {
  NobodysFolder("user");
  NobodysFile("user/2024/app.log", "mine\n");
  NobodysLink("2024/app.log", "user/current.log");
  TrustedPathResult result = TrustedPath::openFileForReading(Sub("user/current.log"));
  ASSERT_TRUE(result.ok()) << result.reason;
  EXPECT_EQ("mine\n", ReadAll(result.fd.get()));
  EXPECT_EQ(kNobody, result.steeringUser);
}

TEST_F(TrustedPathTest, UsersLinkToARootOnlyFileIsRefused) {
  RootFile("secret", "root only\n", 0600);
  NobodysFolder("user");
  NobodysLink(Sub("secret"), "user/absolute.log");
  NobodysLink("../secret", "user/relative.log");
  const TrustedPathResult absolute = TrustedPath::openFileForReading(Sub("user/absolute.log"));
  EXPECT_FALSE(absolute.ok());
  EXPECT_EQ(EPERM, absolute.error);
  EXPECT_EQ("\"/\" belongs to uid 0 but is reached through a folder or link of uid 65534",
            absolute.reason);
  const TrustedPathResult relative = TrustedPath::openFileForReading(Sub("user/relative.log"));
  EXPECT_FALSE(relative.ok());
  EXPECT_EQ(EPERM, relative.error);
  EXPECT_EQ("\"..\" belongs to uid 0 but is reached through a folder or link of uid 65534",
            relative.reason);
}

TEST_F(TrustedPathTest, UsersFolderLinkIntoARootOnlyFolderIsRefused) {
  RootFile("private/secret", "root only\n", 0600);
  ASSERT_EQ(0, chmod(Sub("private").c_str(), 0700));
  NobodysFolder("user");
  NobodysFolder("user/sub");
  NobodysLink("../../private", "user/sub/door");
  const TrustedPathResult folder = TrustedPath::openFolder(Sub("user/sub/door"));
  EXPECT_FALSE(folder.ok());
  EXPECT_EQ(EPERM, folder.error);
  const TrustedPathResult file = TrustedPath::openFileForReading(Sub("user/sub/door/secret"));
  EXPECT_FALSE(file.ok());
  EXPECT_EQ(EPERM, file.error);
}

TEST_F(TrustedPathTest, RootsLinkInAUsersFolderIsRefusedOnceTheUserSteers) {
  RootFile("secret", "root only\n", 0600);
  NobodysFolder("user");
  ASSERT_EQ(0, symlink(Sub("secret").c_str(), Sub("user/rootlink").c_str()));
  const TrustedPathResult result = TrustedPath::openFileForReading(Sub("user/rootlink"));
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(EPERM, result.error);
  EXPECT_EQ("\"rootlink\" belongs to uid 0 but is reached through a folder or link of uid 65534",
            result.reason);
}

TEST_F(TrustedPathTest, RootOnlyFileInAUsersFolderIsRefusedAndAReadableOneGiven) {
  NobodysFolder("user");
  RootFile("user/private", "root only\n", 0600);
  RootFile("user/public", "for all\n", 0644);
  const TrustedPathResult refused = TrustedPath::openFileForReading(Sub("user/private"));
  EXPECT_FALSE(refused.ok());
  EXPECT_EQ(EPERM, refused.error);
  EXPECT_EQ("\"private\" belongs to uid 0 but is reached through a folder or link of uid 65534",
            refused.reason);
  TrustedPathResult given = TrustedPath::openFileForReading(Sub("user/public"));
  ASSERT_TRUE(given.ok()) << given.reason;
  EXPECT_EQ("for all\n", ReadAll(given.fd.get()));
}

TEST_F(TrustedPathTest, FifoIsRefusedWithoutBlocking) {
  ASSERT_EQ(0, mkfifo(Sub("pipe.log").c_str(), 0644));
  const std::string path = Sub("pipe.log");
  // A walk that blocked on the FIFO would be ended by the alarm.
  const std::string reason = keeltest::TextFromChild([&] {
    alarm(20);
    return TrustedPath::openFileForReading(path).reason;
  });
  EXPECT_EQ("\"pipe.log\" is a FIFO, not a regular file", reason);
  const TrustedPathResult listed = TrustedPath::open(path, TrustedKind::kAny);
  ASSERT_TRUE(listed.ok()) << listed.reason;
  EXPECT_TRUE(S_ISFIFO(listed.info.st_mode));
}

TEST_F(TrustedPathTest, FolderIsNotAFileAndAFileIsNotAFolder) {
  RootFile("f/x.log", "x", 0600);
  const TrustedPathResult folder = TrustedPath::openFileForReading(Sub("f"));
  EXPECT_EQ(EINVAL, folder.error);
  EXPECT_EQ("\"f\" is a folder, not a regular file", folder.reason);
  const TrustedPathResult file = TrustedPath::openFolder(Sub("f/x.log"));
  EXPECT_EQ(ENOTDIR, file.error);
  const TrustedPathResult through = TrustedPath::openFileForReading(Sub("f/x.log/y"));
  EXPECT_EQ(ENOTDIR, through.error);
  TrustedPathResult either = TrustedPath::open(Sub("f"), TrustedKind::kFileOrFolder);
  ASSERT_TRUE(either.ok()) << either.reason;
  EXPECT_TRUE(S_ISDIR(either.info.st_mode));
}

TEST_F(TrustedPathTest, DotDotGoesBackToTheFolderTheWalkCameFrom) {
  RootFile("a/x/y/keep", "", 0600);
  RootFile("a/x/c", "physical\n", 0600);
  RootFile("a/c", "lexical\n", 0600);
  ASSERT_EQ(0, symlink("x/y", Sub("a/b").c_str()));
  // As the kernel resolves it: ".." after a link is the target's parent.
  TrustedPathResult result = TrustedPath::openFileForReading(Sub("a/b/../c"));
  ASSERT_TRUE(result.ok()) << result.reason;
  EXPECT_EQ("physical\n", ReadAll(result.fd.get()));
  // "/.." is "/".
  TrustedPathResult root = TrustedPath::openFileForReading("/../.." + Sub("a/c"));
  ASSERT_TRUE(root.ok()) << root.reason;
  EXPECT_EQ("lexical\n", ReadAll(root.fd.get()));
}

TEST_F(TrustedPathTest, DotDotAboveTheStartingFolderIsItsRealParent) {
  RootFile("a/b/keep", "", 0600);
  RootFile("a/c", "from a\n", 0600);
  TrustedPathResult b = TrustedPath::openFolder(Sub("a/b"));
  ASSERT_TRUE(b.ok()) << b.reason;
  TrustedPathResult up = TrustedPath::openFileForReadingAt(b.fd.get(), 0, "../c");
  ASSERT_TRUE(up.ok()) << up.reason;
  EXPECT_EQ("from a\n", ReadAll(up.fd.get()));
  TrustedPathResult back = TrustedPath::openFileForReadingAt(b.fd.get(), 0, "../b/../c");
  ASSERT_TRUE(back.ok()) << back.reason;
  EXPECT_EQ("from a\n", ReadAll(back.fd.get()));
}

TEST_F(TrustedPathTest, DotDotAboveAUsersFolderGivesNothingOfRootsBack) {
  RootFile("secret", "root only\n", 0600);
  NobodysFolder("user");
  TrustedPathResult user = TrustedPath::openFolder(Sub("user"));
  ASSERT_TRUE(user.ok()) << user.reason;
  EXPECT_EQ(kNobody, user.steeringUser);
  const TrustedPathResult up =
      TrustedPath::openFileForReadingAt(user.fd.get(), user.steeringUser, "../secret");
  EXPECT_EQ(EPERM, up.error);
}

TEST_F(TrustedPathTest, LinkLoopsAndLongChainsEndAfterFortyLinks) {
  ASSERT_EQ(0, symlink("b", Sub("a").c_str()));
  ASSERT_EQ(0, symlink("a", Sub("b").c_str()));
  const TrustedPathResult loop = TrustedPath::openFileForReading(Sub("a"));
  EXPECT_EQ(ELOOP, loop.error);
  EXPECT_EQ("more than 40 symbolic links on the way", loop.reason);

  RootFile("end", "end\n", 0600);
  ASSERT_EQ(0, symlink("end", Sub("l0").c_str()));
  for (int i = 1; i <= 40; ++i) {
    ASSERT_EQ(0,
              symlink(("l" + std::to_string(i - 1)).c_str(), Sub("l" + std::to_string(i)).c_str()));
  }
  TrustedPathResult forty = TrustedPath::openFileForReading(Sub("l39"));
  ASSERT_TRUE(forty.ok()) << forty.reason;
  EXPECT_EQ("end\n", ReadAll(forty.fd.get()));
  EXPECT_EQ(ELOOP, TrustedPath::openFileForReading(Sub("l40")).error);
}

TEST_F(TrustedPathTest, PathLongerThanPathMaxIsWalkedByDescriptor) {
  // 30 folders of 200 characters: the path is past PATH_MAX, which the
  // kernel refuses for a whole path; each step is short.
  const std::string name(200, 'd');
  ScopedFd folder(open(m_dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string path = m_dir.path();
  for (int level = 0; level < 30; ++level) {
    ASSERT_EQ(0, mkdirat(folder.get(), name.c_str(), 0700));
    folder.reset(openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(folder.valid());
    path += "/" + name;
  }
  ScopedFd made(openat(folder.get(), "deep.log", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(5, write(made.get(), "deep\n", 5));
  path += "/deep.log";
  ASSERT_GT(path.size(), static_cast<size_t>(PATH_MAX));
  EXPECT_EQ(-1, open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ENAMETOOLONG, errno);

  TrustedPathResult result = TrustedPath::openFileForReading(path);
  ASSERT_TRUE(result.ok()) << result.reason;
  EXPECT_EQ("deep\n", ReadAll(result.fd.get()));
}

TEST_F(TrustedPathTest, WalkAsTheOtherUserPassesFoldersItMaySearchOnly) {
  // Run as uid 65534, through a folder it may search but not list: each
  // step is opened O_PATH, which needs no read right on the folders.
  NobodysFolder("user");
  NobodysFile("user/notes.txt", "notes\n");
  ASSERT_EQ(0, chmod(m_dir.path().c_str(), 0711));
  const std::string path = Sub("user/notes.txt");
  const std::string text = keeltest::TextAsNobody([&] {
    TrustedPathResult result = TrustedPath::openFileForReading(path);
    return result.ok() ? ReadAll(result.fd.get()) : result.reason;
  });
  EXPECT_EQ("notes\n", text);
}

TEST_F(TrustedPathTest, ParentIsOpenedAndTheLeafNamed) {
  RootFile("p/q", "", 0600);
  std::string leaf;
  TrustedPathResult parent = TrustedPath::openParent(Sub("p/q"), leaf);
  ASSERT_TRUE(parent.ok()) << parent.reason;
  EXPECT_EQ("q", leaf);
  struct stat expected;
  ASSERT_EQ(0, stat(Sub("p").c_str(), &expected));
  EXPECT_EQ(expected.st_ino, parent.info.st_ino);
  for (const std::string& bad : {std::string("/"), std::string(""), Sub("p/"), Sub("p/..")}) {
    const TrustedPathResult refused = TrustedPath::openParent(bad, leaf);
    EXPECT_FALSE(refused.ok()) << bad;
    EXPECT_EQ(EINVAL, refused.error) << bad;
  }
}

TEST(TrustedPathRule, MayUseWhatRootOrTheSteeringUserOwnsOrAllMayRead) {
  EXPECT_TRUE(TrustedPath::mayUse(0, 1000, S_IFDIR | 0700));
  EXPECT_TRUE(TrustedPath::mayUse(1000, 1000, S_IFLNK | 0777));
  EXPECT_FALSE(TrustedPath::mayUse(1000, 0, S_IFDIR | 0755));
  EXPECT_FALSE(TrustedPath::mayUse(1000, 0, S_IFLNK | 0777));
  EXPECT_FALSE(TrustedPath::mayUse(1000, 1001, S_IFREG | 0640));
  EXPECT_TRUE(TrustedPath::mayUse(1000, 0, S_IFREG | 0644));
}

}  // namespace
