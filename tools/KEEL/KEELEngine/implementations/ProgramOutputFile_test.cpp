// The output file of a shell-form command: which files it appends to and
// which it refuses, checked writes on a full disk, and its removal after
// the copy.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/ProgramOutputFile.h"

namespace {

constexpr uid_t kNobody = 65534;

const char kOpening[] = "Error occurred opening the file: ";

class ProgramOutput : public ::testing::Test {
 protected:
  // Opens `path`; expects a refusal for `why` and returns the file's
  // content afterwards.
  void ExpectRefused(const std::string& path, const std::string& why) {
    ProgramOutputFile output;
    EXPECT_FALSE(output.open(path));
    EXPECT_EQ(kOpening + why, output.failure());
    output.stream() << "dropped";
    EXPECT_FALSE(output.close());
    EXPECT_EQ(kOpening + why, output.failure());
  }

  keeltest::LogCapture m_capture;
  keeltest::TempDir m_tmp;
};

}  // namespace

TEST_F(ProgramOutput, NewFileIsPrivateAndLaterCommandsAppend) {
  const std::string path = m_tmp.Sub("out.txt");
  for (const char* part : {"one\n", "two\n"}) {
    ProgramOutputFile output;
    ASSERT_TRUE(output.open(path)) << output.failure();
    output.stream() << part;
    EXPECT_TRUE(output.close());
    EXPECT_EQ("", output.failure());
  }
  EXPECT_EQ("one\ntwo\n", keeltest::ReadFile(path));
  struct stat info;
  ASSERT_EQ(0, stat(path.c_str(), &info));
  EXPECT_EQ(0600u, info.st_mode & 07777);
}

TEST_F(ProgramOutput, LinkAtTheNameIsRefusedAndItsTargetUntouched) {
  const std::string victim = m_tmp.Sub("victim.conf");
  ASSERT_TRUE(keeltest::WriteFile(victim, "root only\n"));
  ASSERT_EQ(0, chmod(victim.c_str(), 0600));
  ASSERT_EQ(0, symlink(victim.c_str(), m_tmp.Sub("out.txt").c_str()));
  ExpectRefused(m_tmp.Sub("out.txt"), "a link stands at its name");
  EXPECT_EQ("root only\n", keeltest::ReadFile(victim));
}

TEST_F(ProgramOutput, FileOfAnotherUserIsRefused) {
  const std::string path = m_tmp.Sub("out.txt");
  ASSERT_TRUE(keeltest::WriteFile(path, "theirs\n"));
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  ASSERT_EQ(0, chown(path.c_str(), kNobody, kNobody));
  ExpectRefused(path, "it belongs to another user");
  EXPECT_EQ("theirs\n", keeltest::ReadFile(path));
}

TEST_F(ProgramOutput, FileOthersMayWriteIsRefused) {
  const std::string path = m_tmp.Sub("out.txt");
  ASSERT_TRUE(keeltest::WriteFile(path, "open\n"));
  for (mode_t mode : {0620, 0602}) {
    ASSERT_EQ(0, chmod(path.c_str(), mode));
    ExpectRefused(path, "other users may write it");
  }
  EXPECT_EQ("open\n", keeltest::ReadFile(path));
}

TEST_F(ProgramOutput, ReadableFileOfTheRunningUserTakesTheOutput) {
  const std::string path = m_tmp.Sub("out.txt");
  ASSERT_TRUE(keeltest::WriteFile(path, "kept\n"));
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  ProgramOutputFile output;
  ASSERT_TRUE(output.open(path)) << output.failure();
  output.stream() << "more\n";
  EXPECT_TRUE(output.close());
  EXPECT_EQ("kept\nmore\n", keeltest::ReadFile(path));
}

TEST_F(ProgramOutput, FileWithASecondNameIsRefused) {
  const std::string victim = m_tmp.Sub("victim.conf");
  ASSERT_TRUE(keeltest::WriteFile(victim, "root only\n"));
  ASSERT_EQ(0, chmod(victim.c_str(), 0600));
  ASSERT_EQ(0, link(victim.c_str(), m_tmp.Sub("out.txt").c_str()));
  ExpectRefused(m_tmp.Sub("out.txt"), "it has more than one name");
  EXPECT_EQ("root only\n", keeltest::ReadFile(victim));
}

TEST_F(ProgramOutput, FifoAtTheNameIsRefusedWithoutBlocking) {
  const std::string path = m_tmp.Sub("out.txt");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  ProgramOutputFile output;
  EXPECT_FALSE(output.open(path));
  EXPECT_EQ(0u, output.failure().find(kOpening)) << output.failure();
}

TEST_F(ProgramOutput, OutputCutByAFullDiskIsReportedAndTheFileRemoved) {
  const std::string folder = m_tmp.Sub("small");
  ASSERT_EQ(0, mkdir(folder.c_str(), 0700));
  const int status = keeltest::RunWithTmpfsAt(folder, [&] {
    ProgramOutputFile output;
    if (!output.open(folder + "/out.txt"))
      return 1;
    const std::string block(1 << 20, 'x');
    for (int i = 0; i < 6; ++i)
      output.stream() << block;
    if (output.close())
      return 2;
    if (output.failure() != "Error occurred writing the output: No space left on device")
      return 3;
    return keeltest::PathExists(folder + "/out.txt") ? 4 : 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST_F(ProgramOutput, RemoveDeletesARegularFileOnly) {
  const std::string target = m_tmp.Sub("target.txt");
  ASSERT_TRUE(keeltest::WriteFile(target, "kept\n"));
  ASSERT_EQ(0, symlink(target.c_str(), m_tmp.Sub("link.txt").c_str()));
  ASSERT_TRUE(keeltest::WriteFile(m_tmp.Sub("plain.txt"), "gone\n"));
  ProgramOutputFile::remove(m_tmp.Sub("link.txt"));
  ProgramOutputFile::remove(m_tmp.Sub("plain.txt"));
  ProgramOutputFile::remove(m_tmp.Sub("absent.txt"));
  EXPECT_EQ((std::vector<std::string>{"link.txt", "target.txt"}), keeltest::ListDir(m_tmp.path()));
  EXPECT_EQ("kept\n", keeltest::ReadFile(target));
}

TEST_F(ProgramOutput, RemoveNeverGoesThroughAFolderLinkOfAnotherUser) {
  // The other user's folder holds their link to a folder of root's.
  const std::string user = m_tmp.Sub("user");
  const std::string root = m_tmp.Sub("root");
  ASSERT_EQ(0, mkdir(user.c_str(), 0755));
  ASSERT_EQ(0, mkdir(root.c_str(), 0700));
  ASSERT_TRUE(keeltest::WriteFile(root + "/out.txt", "root's\n"));
  ASSERT_EQ(0, symlink(root.c_str(), (user + "/dir").c_str()));
  ASSERT_EQ(0, lchown((user + "/dir").c_str(), kNobody, kNobody));
  ASSERT_EQ(0, chown(user.c_str(), kNobody, kNobody));
  ProgramOutputFile::remove(user + "/dir/out.txt");
  EXPECT_EQ("root's\n", keeltest::ReadFile(root + "/out.txt"));
}
