#include "tools/KEEL/KEELCheck/AccessCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace keelcheck {
namespace {

using ::testing::HasSubstr;

struct stat Status(uid_t uid, gid_t gid, mode_t mode) {
  struct stat info = {};
  info.st_uid = uid;
  info.st_gid = gid;
  info.st_mode = mode;
  return info;
}

TEST(OtherWriters, RootAloneIsNobody) {
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFREG | 0644), false), "");
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFDIR | 0755), false), "");
  // A group other than root's may write nothing when the mode says so.
  EXPECT_EQ(OtherWriters(Status(0, 100, S_IFREG | 0644), false), "");
}

TEST(OtherWriters, OwnerGroupAndEveryone) {
  EXPECT_THAT(OtherWriters(Status(1000, 0, S_IFREG | 0444), false), HasSubstr("(uid 1000)"));
  EXPECT_THAT(OtherWriters(Status(0, 65534, S_IFREG | 0664), false), HasSubstr("(gid 65534)"));
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFREG | 0646), false), "every user");
  const std::string all = OtherWriters(Status(1000, 65534, S_IFREG | 0666), false);
  EXPECT_THAT(all, HasSubstr("its owner"));
  EXPECT_THAT(all, HasSubstr(", group "));
  EXPECT_THAT(all, HasSubstr(", every user"));
}

TEST(OtherWriters, StickyFolderGuardsOnlyWhereAsked) {
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFDIR | 01777), true), "");
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFDIR | 01777), false), "every user");
  EXPECT_EQ(OtherWriters(Status(0, 0, S_IFDIR | 0777), true), "every user");
}

class AccessOnDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(m_dir.path().empty());
    ASSERT_TRUE(keeltest::WriteFile(m_dir.Sub("conf/a.xml"), "<cfg/>"));
    ASSERT_EQ(chmod(m_dir.Sub("conf").c_str(), 0755), 0);
  }
  keeltest::TempDir m_dir;
};

TEST_F(AccessOnDisk, RootOwnedFileInRootOwnedFoldersIsSafe) {
  EXPECT_TRUE(FileAccessProblems(m_dir.Sub("conf/a.xml")).empty());
  EXPECT_TRUE(FolderAccessProblems(m_dir.Sub("conf")).empty());
}

TEST_F(AccessOnDisk, FolderAboveThatOthersCanWriteIsNamed) {
  ASSERT_EQ(chmod(m_dir.path().c_str(), 0777), 0);
  const std::vector<AccessProblem> problems = FileAccessProblems(m_dir.Sub("conf/a.xml"));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].path, m_dir.path() + "/");
  EXPECT_TRUE(problems[0].isFolder);
  EXPECT_EQ(problems[0].writers, "every user");
}

TEST_F(AccessOnDisk, LinkedFileIsJudgedWhereItReallyLies) {
  ASSERT_TRUE(keeltest::WriteFile(m_dir.Sub("elsewhere/b.xml"), "<cfg/>"));
  ASSERT_EQ(chmod(m_dir.Sub("elsewhere").c_str(), 0777), 0);
  ASSERT_EQ(symlink(m_dir.Sub("elsewhere/b.xml").c_str(), m_dir.Sub("conf/b.xml").c_str()), 0);
  const std::vector<AccessProblem> problems = FileAccessProblems(m_dir.Sub("conf/b.xml"));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].path, m_dir.Sub("elsewhere/"));
}

TEST_F(AccessOnDisk, FileOfAnotherOwner) {
  if (geteuid() != 0)
    GTEST_SKIP() << "giving a file away takes root";
  ASSERT_EQ(chown(m_dir.Sub("conf/a.xml").c_str(), 65534, 65534), 0);
  const std::vector<AccessProblem> problems = FileAccessProblems(m_dir.Sub("conf/a.xml"));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_FALSE(problems[0].isFolder);
  EXPECT_THAT(problems[0].writers, HasSubstr("(uid 65534)"));
}

}  // namespace
}  // namespace keelcheck
