// File operations of helperUtil: copy, delete, find, cut, make, size.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"

namespace {

bool Logged(keeltest::LogCapture& log, uint32_t level, const std::string& text) {
  for (const keeltest::LogRecord& record : log.logger().Records()) {
    if (record.level == level && record.message.find(text) != std::string::npos)
      return true;
  }
  return false;
}

std::vector<std::string> NamesOf(const std::vector<FileEntry>& entries) {
  std::vector<std::string> names;
  for (const FileEntry& entry : entries)
    names.push_back(entry.directory + entry.name);
  std::sort(names.begin(), names.end());
  return names;
}

std::string Bytes(size_t count, size_t seed = 0) {
  std::string text;
  for (size_t i = 0; i < count; ++i)
    text += static_cast<char>((i * 7 + seed) & 0xFF);
  return text;
}

void SetModified(const std::string& path, time_t when) {
  timeval times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(0, utimes(path.c_str(), times));
}

// Runs `body` as "nobody", where file rights count, and expects it to pass:
// 0 passed, anything else names the failed check. Skips where the identity
// can't be changed.
#define EXPECT_UNPRIVILEGED_PASSES(body)                                    \
  do {                                                                      \
    const int status_ = keeltest::RunAsNobody(body);                        \
    if (status_ == keeltest::kCannotBecomeNobody)                           \
      GTEST_SKIP() << "cannot change to an unprivileged user";              \
    EXPECT_EQ(0, status_) << "check " << status_ << " failed in the child"; \
  } while (0)

using keeltest::ScopedCwd;

}  // namespace

// ---- fileCopy ---------------------------------------------------------------------

TEST(FileCopy, CopiesBytesAcrossBlockBoundaries) {
  keeltest::TempDir dir;
  for (size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8192},
                      size_t{100000}}) {
    const std::string content = Bytes(size, size);
    const std::string source = dir.Sub("in_" + std::to_string(size));
    const std::string destination = dir.Sub("out_" + std::to_string(size));
    ASSERT_TRUE(keeltest::WriteFile(source, content));
    std::string errorText;
    EXPECT_EQ(0u, helperUtil::fileCopy(source, destination, errorText));
    EXPECT_EQ(content, keeltest::ReadFile(destination)) << size;
    EXPECT_EQ("", errorText);
  }
}

TEST(FileCopy, ReplacesExistingDestinationFile) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("in"), "short"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("out"), "a much longer old content"));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("in"), dir.Sub("out"), errorText));
  EXPECT_EQ("short", keeltest::ReadFile(dir.Sub("out")));
}

TEST(FileCopy, OntoItselfBySameStringDoesNothing) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.txt"), "keep me"));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("a.txt"), dir.Sub("a.txt"), errorText));
  EXPECT_EQ("keep me", keeltest::ReadFile(dir.Sub("a.txt")));
}

TEST(FileCopy, OntoItselfByOtherTextLeavesTheSourceAlone) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.txt"), "kept"));
  ASSERT_EQ(0, chmod(dir.Sub("a.txt").c_str(), 0644));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("a.txt"), dir.path() + "/./a.txt", errorText));
  EXPECT_EQ("", errorText);
  EXPECT_EQ("kept", keeltest::ReadFile(dir.Sub("a.txt")));
  struct stat info;
  ASSERT_EQ(0, stat(dir.Sub("a.txt").c_str(), &info));
  EXPECT_EQ(0644u, info.st_mode & 07777);
}

TEST(FileCopy, MissingSourceIsNotFound) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("out"), "untouched"));
  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileCopy(dir.Sub("missing"), dir.Sub("out"), errorText));
  EXPECT_EQ("untouched", keeltest::ReadFile(dir.Sub("out")));
  EXPECT_EQ("", errorText);
}

TEST(FileCopy, DanglingLinkSourceIsNotFound) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, symlink(dir.Sub("nowhere").c_str(), dir.Sub("link").c_str()));
  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileCopy(dir.Sub("link"), dir.Sub("out"), errorText));
}

TEST(FileCopy, LinkSourceCopiesTargetContent) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("real"), "target bytes"));
  ASSERT_EQ(0, symlink(dir.Sub("real").c_str(), dir.Sub("link").c_str()));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("link"), dir.Sub("out"), errorText));
  EXPECT_EQ("target bytes", keeltest::ReadFile(dir.Sub("out")));
  struct stat info;
  ASSERT_EQ(0, lstat(dir.Sub("out").c_str(), &info));
  EXPECT_TRUE(S_ISREG(info.st_mode));
}

TEST(FileCopy, MissingDestinationParentIsOpenFailureAndLogged) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("in"), "x"));
  keeltest::LogCapture log;
  std::string errorText;
  const std::string destination = dir.Sub("no/such/out");
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileCopy(dir.Sub("in"), destination, errorText));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Failed to open file \"" + destination + "\""));
  EXPECT_EQ("", errorText);
}

TEST(FileCopy, NameWithBlanksAndNonAsciiBytes) {
  keeltest::TempDir dir;
  const std::string name = "a b\xc3\xa9 \xff\x01.log";
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub(name), "odd name"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("out/keep"), ""));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub(name), dir.Sub("out/" + name), errorText));
  EXPECT_EQ("odd name", keeltest::ReadFile(dir.Sub("out/" + name)));
}

TEST(FileCopy, FileVanishedAfterListingIsNotFound) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.log"), "a"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/b.log"), "b"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("out/keep"), ""));
  std::string folder = dir.Sub("src");
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  ASSERT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  ASSERT_EQ(2u, found.size());
  ASSERT_EQ(0, unlink((found[0].directory + found[0].name).c_str()));

  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileCopy(found[0].directory + found[0].name,
                                 dir.Sub("out/" + found[0].name), errorText));
  EXPECT_EQ(0u, helperUtil::fileCopy(found[1].directory + found[1].name,
                                     dir.Sub("out/" + found[1].name), errorText));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("out/" + found[0].name)));
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("out/" + found[1].name)));
}

TEST(FileCopy, FifoSourceFailsWithoutBlocking) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, mkfifo(dir.Sub("pipe").c_str(), 0644));
  keeltest::LogCapture log;
  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileCopy(dir.Sub("pipe"), dir.Sub("out"), errorText));
  EXPECT_EQ("\"pipe\" is a FIFO, not a regular file", errorText);
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "Not copying: \"pipe\" is a FIFO, not a regular file"));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("out")));
}

TEST(FileCopy, FolderTreeIsCopied) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/sub/b.txt"), "B"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/sub/deeper/c.txt"), "C"));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("src"), dir.Sub("dst"), errorText));
  EXPECT_EQ("A", keeltest::ReadFile(dir.Sub("dst/a.txt")));
  EXPECT_EQ("B", keeltest::ReadFile(dir.Sub("dst/sub/b.txt")));
  EXPECT_EQ("C", keeltest::ReadFile(dir.Sub("dst/sub/deeper/c.txt")));
  EXPECT_EQ((std::vector<std::string>{"a.txt", "sub"}), keeltest::ListDir(dir.Sub("dst")));
}

TEST(FileCopy, FolderSourceReplacesExistingFileByFolder) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("dst"), "a plain file"));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("src"), dir.Sub("dst"), errorText));
  struct stat info;
  ASSERT_EQ(0, stat(dir.Sub("dst").c_str(), &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ("A", keeltest::ReadFile(dir.Sub("dst/a.txt")));
}

TEST(FileCopy, FolderOntoExistingFolderFailsToDeleteIt) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("dst/old.txt"), "old"));
  keeltest::LogCapture log;
  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_UNEXPECTED,
            helperUtil::fileCopy(dir.Sub("src"), dir.Sub("dst"), errorText));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: unlink_file"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtil::fileDelete"));
  EXPECT_EQ((std::vector<std::string>{"old.txt"}), keeltest::ListDir(dir.Sub("dst")));
}

TEST(FileCopy, FolderIntoMissingParentCountsAsDone) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  keeltest::LogCapture log;
  std::string errorText;
  // mkdir fails with ENOENT, which MakeDirectory only logs; the files then
  // fail one by one, and none of that reaches the caller.
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("src"), dir.Sub("no/dst"), errorText));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: mkdir"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "Invoked Function: helperUtil::fileCopy"));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("no")));
}

TEST(FileCopy, SymlinkLoopInTreeTerminates) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/sub/b.txt"), "B"));
  ASSERT_EQ(0, symlink("..", dir.Sub("src/sub/up").c_str()));
  ASSERT_EQ(0, symlink(".", dir.Sub("src/self").c_str()));
  keeltest::LogCapture log;
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("src"), dir.Sub("dst"), errorText));
  EXPECT_EQ("A", keeltest::ReadFile(dir.Sub("dst/a.txt")));
  EXPECT_EQ("B", keeltest::ReadFile(dir.Sub("dst/sub/b.txt")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("dst/sub/up")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("dst/self")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "leads back to a folder being copied"));
}

TEST(FileCopy, LinkToSiblingFolderIsCopiedAgain) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/one/a.txt"), "A"));
  ASSERT_EQ(0, symlink("one", dir.Sub("src/two").c_str()));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("src"), dir.Sub("dst"), errorText));
  EXPECT_EQ("A", keeltest::ReadFile(dir.Sub("dst/one/a.txt")));
  EXPECT_EQ("A", keeltest::ReadFile(dir.Sub("dst/two/a.txt")));
}

TEST(FileCopy, UnreadableFileGivesOpenFailureWithReason) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("secret"), "hidden"));
  ASSERT_EQ(0, chmod(dir.Sub("secret").c_str(), 0000));
  ASSERT_EQ(0, mkdir(dir.Sub("out").c_str(), 0777));
  ASSERT_EQ(0, chmod(dir.Sub("out").c_str(), 0777));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("out/secret"), "old copy"));
  ASSERT_EQ(0, chmod(dir.Sub("out/secret").c_str(), 0666));
  const std::string source = dir.Sub("secret");
  const std::string destination = dir.Sub("out/secret");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    std::string errorText;
    if (helperUtil::fileCopy(source, destination, errorText) != KEELENGINE_ERROR_FILE_OPEN_FAILURE)
      return 1;
    if (errorText != "Permission denied")
      return 2;
    // The source is opened first: a source that cannot be opened leaves
    // the destination as it was.
    if (keeltest::ReadFile(destination) != "old copy")
      return 3;
    return 0;
  });
}

TEST(FileCopy, UnreadableSubFolderIsPassedOver) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/locked/b.txt"), "B"));
  ASSERT_EQ(0, chmod(dir.Sub("src/locked").c_str(), 0000));
  ASSERT_EQ(0, mkdir(dir.Sub("out").c_str(), 0777));
  ASSERT_EQ(0, chmod(dir.Sub("out").c_str(), 0777));
  const std::string source = dir.Sub("src");
  const std::string destination = dir.Sub("out/dst");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    keeltest::LogCapture log;
    std::string errorText;
    if (helperUtil::fileCopy(source, destination, errorText) != 0)
      return 1;
    if (keeltest::ReadFile(destination + "/a.txt") != "A")
      return 2;
    if (errorText != "Permission denied")
      return 3;
    if (!Logged(log, LOG_LEVEL_W, "Invoked Function: helperUtil::fileCopy"))
      return 4;
    return 0;
  });
}

TEST(FileCopy, UnwritableTargetFolderCountsAsDone) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("src/a.txt"), "A"));
  ASSERT_EQ(0, mkdir(dir.Sub("closed").c_str(), 0755));
  const std::string source = dir.Sub("src");
  const std::string destination = dir.Sub("closed/dst");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    keeltest::LogCapture log;
    std::string errorText;
    if (helperUtil::fileCopy(source, destination, errorText) != 0)
      return 1;
    if (!Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtils::MakeDirectory"))
      return 2;
    if (access(destination.c_str(), F_OK) == 0)
      return 3;
    return 0;
  });
}

// ---- fileDelete and MakeDirectory ----------------------------------------------

TEST(FileDelete, RemovesFile) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "x"));
  EXPECT_EQ(0u, helperUtil::fileDelete(dir.Sub("f")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("f")));
}

TEST(FileDelete, MissingFileCountsAsRemoved) {
  keeltest::TempDir dir;
  keeltest::LogCapture log;
  EXPECT_EQ(0u, helperUtil::fileDelete(dir.Sub("missing")));
  EXPECT_TRUE(log.logger().Records().empty());
}

TEST(FileDelete, FolderIsUnexpectedAndLogged) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, mkdir(dir.Sub("d").c_str(), 0755));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_UNEXPECTED, helperUtil::fileDelete(dir.Sub("d")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: unlink_file"));
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("d")));
}

TEST(MakeDirectory, CreatesOneLevel) {
  keeltest::TempDir dir;
  EXPECT_EQ(0u, helperUtil::MakeDirectory(dir.Sub("new")));
  struct stat info;
  ASSERT_EQ(0, stat(dir.Sub("new").c_str(), &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST(MakeDirectory, ExistingFolderIsSuccessWithErrorLine) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, mkdir(dir.Sub("there").c_str(), 0755));
  keeltest::LogCapture log;
  EXPECT_EQ(0u, helperUtil::MakeDirectory(dir.Sub("there")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: mkdir"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Return Code: 17 "));
}

TEST(MakeDirectory, MissingParentIsSuccessAndNotMade) {
  keeltest::TempDir dir;
  keeltest::LogCapture log;
  EXPECT_EQ(0u, helperUtil::MakeDirectory(dir.Sub("a/b")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("a")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Return Code: 2 "));
}

TEST(MakeDirectory, NoRightIsAccessDenied) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string path = dir.Sub("new");
  EXPECT_UNPRIVILEGED_PASSES(
      [&]() { return helperUtil::MakeDirectory(path) == KEELENGINE_ERROR_ACCESS_DENIED ? 0 : 1; });
  EXPECT_FALSE(keeltest::PathExists(path));
}

// ---- fileFindAll --------------------------------------------------------------------

TEST(FileFindAll, UpperCasePatternMatchesAnyCase) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"Sys.LOG", "sys.log", "other.txt"}));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.LOG"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ((std::vector<std::string>{dir.Sub("Sys.LOG"), dir.Sub("sys.log")}), NamesOf(found));
  // The caller's folder and patterns are changed in place.
  EXPECT_EQ(dir.path() + "/", folder);
  EXPECT_EQ((std::vector<std::string>{"*.log"}), patterns);
}

TEST(FileFindAll, EntryFieldsAreFilled) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.log"), "x"));
  SetModified(dir.Sub("a.log"), 1500000000);
  std::string folder = dir.path() + "/";
  std::vector<std::string> patterns{"a.log"};
  std::vector<FileEntry> found;
  ASSERT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("a.log", found[0].name);
  EXPECT_EQ(dir.path() + "/", found[0].directory);
  EXPECT_FALSE(found[0].isDirectory);
  EXPECT_EQ(1500000000, found[0].modified);
}

TEST(FileFindAll, NoMatchIsNotFoundNeverEmptySuccess) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"a.txt", "b.txt"}));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_TRUE(found.empty());
}

TEST(FileFindAll, EmptyFolderIsNotFound) {
  keeltest::TempDir dir;
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileFindAll(folder, patterns, true, found));
}

TEST(FileFindAll, RegularFilePathIsOpenFailure) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), "x"));
  keeltest::LogCapture log;
  std::string folder = dir.Sub("plain");
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_TRUE(log.logger().Records().empty());
}

TEST(FileFindAll, MissingFolderIsNotFoundWithInformation) {
  keeltest::TempDir dir;
  keeltest::LogCapture log;
  std::string folder = dir.Sub("missing");
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "\"" + dir.Sub("missing") + "/\" is not a directory"));
}

TEST(FileFindAll, EmptyFolderTextOrPatternListIsBadParameter) {
  std::string folder;
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER,
            helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ("", folder);
  folder = "/tmp";
  patterns.clear();
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER,
            helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ("/tmp", folder);
}

TEST(FileFindAll, EmptyPatternMatchesNothing) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a"), ""));
  std::string folder = dir.path();
  std::vector<std::string> patterns{""};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileFindAll(folder, patterns, false, found));
}

TEST(FileFindAll, FoldersNeverAppearAndAreSkippedWithoutRecursion) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"top.log", "sub.log/inner.log"}));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ((std::vector<std::string>{dir.Sub("top.log")}), NamesOf(found));
}

TEST(FileFindAll, RecursionFindsFilesInSubFolders) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"top.log", "a/one.log", "a/b/two.LOG", "a/b/skip.txt"}));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, true, found));
  EXPECT_EQ(
      (std::vector<std::string>{dir.Sub("a/b/two.LOG"), dir.Sub("a/one.log"), dir.Sub("top.log")}),
      NamesOf(found));
  for (const FileEntry& entry : found)
    EXPECT_FALSE(entry.isDirectory);
}

TEST(FileFindAll, FileMatchingSeveralPatternsIsListedOnce) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("sys.log"), ""));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log", "sys*", "*"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ(1u, found.size());
}

TEST(FileFindAll, ResultsAreAppendedToTheCallersList) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("x.log"), ""));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.txt"};
  std::vector<FileEntry> found(1);
  found[0].name = "earlier";
  // Nothing matches, yet the list is not empty: success.
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ(1u, found.size());
}

TEST(FileFindAll, SubFolderWithoutMatchBeforeAnyFindIsLoggedAndPassedOver) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("only/readme.txt"), ""));
  keeltest::LogCapture log;
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileFindAll(folder, patterns, true, found));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtil::fileFindAll"));
}

TEST(FileFindAll, NamesWithBlanksAndNonAsciiBytes) {
  keeltest::TempDir dir;
  const std::string name = "D\xc3\xa4t\xc3\xa4 F\xc3\xafle \xff.LOG";
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub(name), ""));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"d* f*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(name, found[0].name);
}

TEST(FileFindAll, DanglingLinkIsListedAsFileFromTimeZero) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, symlink(dir.Sub("nowhere").c_str(), dir.Sub("broken.log").c_str()));
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  ASSERT_EQ(1u, found.size());
  EXPECT_FALSE(found[0].isDirectory);
  EXPECT_EQ(0, found[0].modified);
}

TEST(FileFindAll, SymlinkLoopBelowRecursiveSearchTerminates) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"root/a.log", "root/sub/b.log"}));
  ASSERT_EQ(0, symlink("..", dir.Sub("root/sub/up").c_str()));
  ASSERT_EQ(0, symlink(".", dir.Sub("root/sub/self").c_str()));
  ASSERT_EQ(0, symlink(dir.Sub("root").c_str(), dir.Sub("root/sub/abs").c_str()));
  keeltest::LogCapture log;
  std::string folder = dir.Sub("root");
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, true, found));
  EXPECT_EQ((std::vector<std::string>{dir.Sub("root/a.log"), dir.Sub("root/sub/b.log")}),
            NamesOf(found));
  EXPECT_EQ(3u, log.Count("leads back to a folder being searched"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "leads back to a folder being searched"));
}

TEST(FileFindAll, LinkToSiblingFolderIsSearchedAgain) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("root/one/a.log"), ""));
  ASSERT_EQ(0, symlink("one", dir.Sub("root/two").c_str()));
  std::string folder = dir.Sub("root");
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> found;
  EXPECT_EQ(0u, helperUtil::fileFindAll(folder, patterns, true, found));
  EXPECT_EQ((std::vector<std::string>{dir.Sub("root/one/a.log"), dir.Sub("root/two/a.log")}),
            NamesOf(found));
}

TEST(FileFindAll, UnreadableSubFolderIsLoggedAndPassedOver) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(dir.WriteEach({"root/a.log", "root/locked/b.log"}));
  ASSERT_EQ(0, chmod(dir.Sub("root/locked").c_str(), 0000));
  const std::string root = dir.Sub("root");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    keeltest::LogCapture log;
    std::string folder = root;
    std::vector<std::string> patterns{"*.log"};
    std::vector<FileEntry> found;
    if (helperUtil::fileFindAll(folder, patterns, true, found) != 0)
      return 1;
    if (found.size() != 1 || found[0].name != "a.log")
      return 2;
    if (!Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtil::fileFindAll"))
      return 3;
    return 0;
  });
}

TEST(FileFindAll, UnreadableFolderIsOpenFailure) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("locked/a.log"), ""));
  ASSERT_EQ(0, chmod(dir.Sub("locked").c_str(), 0000));
  const std::string locked = dir.Sub("locked");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    std::string folder = locked;
    std::vector<std::string> patterns{"*"};
    std::vector<FileEntry> found;
    return helperUtil::fileFindAll(folder, patterns, false, found) ==
                   KEELENGINE_ERROR_FILE_OPEN_FAILURE
               ? 0
               : 1;
  });
}

TEST(FileFindAll, UnreadableFileIsStillListed) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("root/secret.log"), "x"));
  ASSERT_EQ(0, chmod(dir.Sub("root/secret.log").c_str(), 0000));
  const std::string root = dir.Sub("root");
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    std::string folder = root;
    std::vector<std::string> patterns{"*.log"};
    std::vector<FileEntry> found;
    if (helperUtil::fileFindAll(folder, patterns, false, found) != 0)
      return 1;
    return found.size() == 1 ? 0 : 2;
  });
}

// ---- fileGetNewestMatchingFile ---------------------------------------------------

TEST(FileGetNewest, PicksLatestModification) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"a.log", "b.log", "c.log", "z.txt"}));
  SetModified(dir.Sub("a.log"), 1000);
  SetModified(dir.Sub("b.log"), 3000);
  SetModified(dir.Sub("c.log"), 2000);
  SetModified(dir.Sub("z.txt"), 9000);
  FileEntry newest;
  newest.directory = "kept";
  newest.isDirectory = true;
  EXPECT_EQ(0u, helperUtil::fileGetNewestMatchingFile(dir.path(), "*.LOG", newest));
  EXPECT_EQ("b.log", newest.name);
  EXPECT_EQ(3000, newest.modified);
  // Only name and time are set.
  EXPECT_EQ("kept", newest.directory);
  EXPECT_TRUE(newest.isDirectory);
}

TEST(FileGetNewest, EqualTimesLastListedWins) {
  keeltest::TempDir dir;
  for (const char* name : {"a.log", "b.log", "c.log", "d.log"}) {
    ASSERT_TRUE(keeltest::WriteFile(dir.Sub(name), ""));
    SetModified(dir.Sub(name), 5000);
  }
  std::string folder = dir.path();
  std::vector<std::string> patterns{"*.log"};
  std::vector<FileEntry> listing;
  ASSERT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, listing));
  FileEntry newest;
  EXPECT_EQ(0u, helperUtil::fileGetNewestMatchingFile(dir.path(), "*.log", newest));
  EXPECT_EQ(listing.back().name, newest.name);
}

TEST(FileGetNewest, SubFoldersAreNotSearched) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"old.log", "sub/new.log"}));
  SetModified(dir.Sub("old.log"), 1000);
  SetModified(dir.Sub("sub/new.log"), 2000);
  FileEntry newest;
  EXPECT_EQ(0u, helperUtil::fileGetNewestMatchingFile(dir.path(), "*.log", newest));
  EXPECT_EQ("old.log", newest.name);
}

TEST(FileGetNewest, NoMatchIsNotFoundWithoutErrorLine) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("a.txt"), ""));
  keeltest::LogCapture log;
  FileEntry newest;
  newest.name = "untouched";
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileGetNewestMatchingFile(dir.path(), "*.log", newest));
  EXPECT_EQ("untouched", newest.name);
  EXPECT_FALSE(log.Contains("helperUtil::fileFindAll"));
}

TEST(FileGetNewest, OtherFailureIsLoggedAndReturned) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), ""));
  keeltest::LogCapture log;
  FileEntry newest;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileGetNewestMatchingFile(dir.Sub("plain"), "*", newest));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtil::fileFindAll"));
}

// ---- fileDeleteAll and fileDeleteDirectory ---------------------------------------

TEST(FileDeleteAll, RemovesFilesButKeepsSubFolders) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"box/a", "box/b", "box/sub/c"}));
  EXPECT_EQ(0u, helperUtil::fileDeleteAll(dir.Sub("box")));
  EXPECT_EQ((std::vector<std::string>{"sub"}), keeltest::ListDir(dir.Sub("box")));
  EXPECT_EQ((std::vector<std::string>{"c"}), keeltest::ListDir(dir.Sub("box/sub")));
}

TEST(FileDeleteAll, EmptyTextIsBadParameter) {
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, helperUtil::fileDeleteAll(""));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "tstrDirectory is an empty string"));
}

TEST(FileDeleteAll, FolderWithoutFilesIsNotFoundWithWarning) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("box/sub/c"), ""));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND, helperUtil::fileDeleteAll(dir.Sub("box/")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "Invoked Function: helperUtil::fileFindAll"));
}

TEST(FileDeleteAll, UndeletableFileIsRememberedAndOthersGo) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ASSERT_TRUE(dir.WriteEach({"box/a", "box/open/b"}));
  ASSERT_EQ(0, chmod(dir.Sub("box/open").c_str(), 0777));
  const std::string box = dir.Sub("box");
  // "nobody" may empty box/open but not box itself.
  EXPECT_UNPRIVILEGED_PASSES([&]() {
    keeltest::LogCapture log;
    if (helperUtil::fileDeleteAll(box) != KEELENGINE_ERROR_UNEXPECTED)
      return 1;
    if (!Logged(log, LOG_LEVEL_E, "Invoked Function: helperUtil::fileDelete"))
      return 2;
    if (helperUtil::fileDeleteAll(box + "/open") != 0)
      return 3;
    return 0;
  });
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("box/a")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("box/open/b")));
}

TEST(FileDeleteDirectory, MissingFolderIsAccessDenied) {
  keeltest::TempDir dir;
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, helperUtil::fileDeleteDirectory(dir.Sub("missing")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: access"));
}

TEST(FileDeleteDirectory, EmptyFolderIsRemoved) {
  keeltest::TempDir dir;
  ASSERT_EQ(0, mkdir(dir.Sub("empty").c_str(), 0755));
  keeltest::LogCapture log;
  EXPECT_EQ(0u, helperUtil::fileDeleteDirectory(dir.Sub("empty")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("empty")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "Invoked Function: helperUtil::fileFindAll"));
}

TEST(FileDeleteDirectory, FolderWithFilesIsRemoved) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("box/a"), "1"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("box/b c"), "2"));
  EXPECT_EQ(0u, helperUtil::fileDeleteDirectory(dir.Sub("box/")));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("box")));
}

TEST(FileDeleteDirectory, SubFolderStaysAndResultIsUnexpected) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"box/a", "box/sub/b"}));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_UNEXPECTED, helperUtil::fileDeleteDirectory(dir.Sub("box")));
  EXPECT_EQ((std::vector<std::string>{"sub"}), keeltest::ListDir(dir.Sub("box")));
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("box/sub/b")));
  // After files were removed, the failed rmdir is not logged.
  EXPECT_FALSE(log.Contains("Invoked Function: rmdir"));
}

TEST(FileDeleteDirectory, OnlySubFoldersLogsRmdir) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("box/sub/b"), ""));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_UNEXPECTED, helperUtil::fileDeleteDirectory(dir.Sub("box")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Invoked Function: rmdir"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Return Code: 39 "));
}

TEST(FileDeleteDirectory, EmptyTextIsBadParameter) {
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, helperUtil::fileDeleteDirectory(""));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_I, "rtstrDirectory is an empty string"));
}

TEST(FileDeleteDirectory, RegularFileIsAccessDeniedAndStays) {
  // With the "/" added, access() fails with ENOTDIR.
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("plain"), "x"));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, helperUtil::fileDeleteDirectory(dir.Sub("plain")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "Return Code: 20 "));
  EXPECT_TRUE(keeltest::PathExists(dir.Sub("plain")));
}

TEST(FileDeleteDirectory, LinkToAFolderIsNotFollowed) {
  // A link planted in place of a folder must not make the delete empty the
  // folder it points to.
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("victim/keep.txt"), "precious"));
  ASSERT_EQ(0, symlink(dir.Sub("victim").c_str(), dir.Sub("link").c_str()));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, helperUtil::fileDeleteDirectory(dir.Sub("link")));
  EXPECT_EQ(KEELENGINE_ERROR_ACCESS_DENIED, helperUtil::fileDeleteDirectory(dir.Sub("link/")));
  EXPECT_EQ("precious", keeltest::ReadFile(dir.Sub("victim/keep.txt")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "it is a symbolic link"));
}

// ---- Private copies and write failures -------------------------------------------

mode_t PermissionsOf(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

TEST(MakeDirectory, FolderIsPrivateUnderTheUsualUmask) {
  keeltest::TempDir dir;
  const int answer = keeltest::RunInChild([&] {
    umask(022);
    return helperUtil::MakeDirectory(dir.Sub("made")) == 0 ? 0 : 1;
  });
  ASSERT_EQ(0, answer);
  EXPECT_EQ(0700u, PermissionsOf(dir.Sub("made")));
}

TEST(FileCopy, CopyIsPrivateWhateverTheSourceMode) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("in"), "root only"));
  ASSERT_EQ(0, chmod(dir.Sub("in").c_str(), 0644));
  const int answer = keeltest::RunInChild([&] {
    umask(022);
    std::string errorText;
    return helperUtil::fileCopy(dir.Sub("in"), dir.Sub("out"), errorText) == 0 ? 0 : 1;
  });
  ASSERT_EQ(0, answer);
  EXPECT_EQ(0600u, PermissionsOf(dir.Sub("out")));
  EXPECT_EQ("root only", keeltest::ReadFile(dir.Sub("out")));
}

TEST(FileCopy, CopyThatCannotBeWrittenWholeIsRemovedAndSaysWhy) {
  // A file-size limit fails the writes past it as a full disk would.
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("in"), std::string(100000, 'x')));
  const std::string reported = dir.Sub("reported");
  const int answer = keeltest::RunInChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {8192, 8192};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
      return 3;
    std::string errorText;
    const ResultCode result = helperUtil::fileCopy(dir.Sub("in"), dir.Sub("out"), errorText);
    limit.rlim_cur = limit.rlim_max;
    FILE* file = fopen(reported.c_str(), "w");
    if (file != nullptr) {
      fputs(errorText.c_str(), file);
      fclose(file);
    }
    return result == KEELENGINE_ERROR_WRITE_FAILURE ? 0 : 1;
  });
  EXPECT_EQ(0, answer);
  EXPECT_EQ("File too large", keeltest::ReadFile(reported));
  EXPECT_FALSE(keeltest::PathExists(dir.Sub("out")));
}

TEST(FileCopy, DestinationLinkIsReplacedNotFollowed) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("in"), "new"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("victim"), "precious"));
  ASSERT_EQ(0, symlink(dir.Sub("victim").c_str(), dir.Sub("out").c_str()));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(dir.Sub("in"), dir.Sub("out"), errorText));
  EXPECT_EQ("precious", keeltest::ReadFile(dir.Sub("victim")));
  EXPECT_EQ("new", keeltest::ReadFile(dir.Sub("out")));
}

TEST(FileTruncateScratch, ScratchNamePlantedAsALinkIsNotFollowed) {
  // Run from /tmp, the scratch name could be a link another user placed.
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("victim"), "precious"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("log"), "0123456789"));
  ASSERT_EQ(0, symlink(dir.Sub("victim").c_str(), dir.Sub("temp_out.txt").c_str()));
  keeltest::ScopedCwd cwd(dir.path());
  ASSERT_TRUE(cwd.ok());
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(4, dir.Sub("log")));
  EXPECT_EQ("precious", keeltest::ReadFile(dir.Sub("victim")));
  EXPECT_EQ("0123", keeltest::ReadFile(dir.Sub("log")));
  EXPECT_EQ(0600u, PermissionsOf(dir.Sub("temp_out.txt")));
}

// ---- fileTruncateEnd and fileTruncateFront ------------------------------------

class FileTruncate : public testing::Test {
 protected:
  void SetUp() override {
    m_cwd.reset(new ScopedCwd(m_dir.path()));
    m_content = Bytes(100);
    ASSERT_TRUE(keeltest::WriteFile(path(), m_content));
  }
  void TearDown() override { m_cwd.reset(); }
  std::string path() const { return m_dir.Sub("data.log"); }

  keeltest::TempDir m_dir;
  std::unique_ptr<ScopedCwd> m_cwd;
  std::string m_content;
};

TEST_F(FileTruncate, EndKeepsFirstBytes) {
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(10, path().c_str()));
  EXPECT_EQ(m_content.substr(0, 10), keeltest::ReadFile(path()));
  // The scratch file stays behind in the current folder.
  EXPECT_EQ(m_content.substr(0, 10), keeltest::ReadFile(m_dir.Sub("temp_out.txt")));
}

TEST_F(FileTruncate, EndWithExactSizeKeepsFile) {
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(100, path()));
  EXPECT_EQ(m_content, keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, EndBeyondSizeAddsFFByte) {
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(150, path()));
  EXPECT_EQ(m_content + "\xff", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, EndWithHugeCountTerminates) {
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(UINT64_MAX, path()));
  EXPECT_EQ(m_content + "\xff", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, EndWithZeroEmptiesFile) {
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(0, path()));
  EXPECT_EQ("", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, FrontKeepsLastBytesPlusFF) {
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(10, path().c_str()));
  const std::string result = keeltest::ReadFile(path());
  ASSERT_EQ(11u, result.size());
  EXPECT_EQ(m_content.substr(90), result.substr(0, 10));
  EXPECT_EQ('\xff', result[10]);
}

TEST_F(FileTruncate, FrontWithExactSizeAddsFF) {
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(100, path()));
  EXPECT_EQ(m_content + "\xff", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, FrontBeyondSizeEmptiesFile) {
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(101, path()));
  EXPECT_EQ("", keeltest::ReadFile(path()));
  ASSERT_TRUE(keeltest::WriteFile(path(), m_content));
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(UINT64_MAX, path()));
  EXPECT_EQ("", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, FrontWithZeroLeavesOnlyFF) {
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(0, path()));
  EXPECT_EQ("\xff", keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, NullPathIsBadParameter) {
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, helperUtil::fileTruncateEnd(1, nullptr));
  EXPECT_EQ(KEELENGINE_ERROR_BAD_PARAMETER, helperUtil::fileTruncateFront(1, nullptr));
  EXPECT_EQ(2u, log.Count("pszFilename is NULL"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_E, "pszFilename is NULL"));
}

TEST_F(FileTruncate, MissingFileIsOpenFailure) {
  keeltest::LogCapture log;
  const std::string missing = m_dir.Sub("missing.log");
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, helperUtil::fileTruncateEnd(1, missing));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, helperUtil::fileTruncateFront(1, missing));
  EXPECT_EQ(2u, log.Count("Failed to open \"" + missing + "\""));
  EXPECT_FALSE(keeltest::PathExists(missing));
}

TEST_F(FileTruncate, ScratchFileThatCannotBeOpenedIsOpenFailure) {
  ASSERT_EQ(0, mkdir(m_dir.Sub("temp_out.txt").c_str(), 0755));
  keeltest::LogCapture log;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, helperUtil::fileTruncateEnd(1, path()));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE, helperUtil::fileTruncateFront(1, path()));
  EXPECT_EQ(2u, log.Count("Failed to open \"temp_out.txt\""));
  EXPECT_EQ(m_content, keeltest::ReadFile(path()));
}

TEST_F(FileTruncate, FailedCopyBackStillReportsSuccess) {
  // A folder opens for reading but cannot be replaced by the cut copy.
  ASSERT_EQ(0, mkdir(m_dir.Sub("folder.log").c_str(), 0755));
  keeltest::LogCapture log;
  EXPECT_EQ(0u, helperUtil::fileTruncateEnd(10, m_dir.Sub("folder.log")));
  EXPECT_EQ(0u, helperUtil::fileTruncateFront(10, m_dir.Sub("folder.log")));
  EXPECT_EQ(2u, log.Count("Invoked Function: helperUtil::fileCopy"));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, "Invoked Function: helperUtil::fileCopy"));
  struct stat info;
  ASSERT_EQ(0, stat(m_dir.Sub("folder.log").c_str(), &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

// ---- fileSize -------------------------------------------------------------------------

TEST(FileSize, SizeOfFileAndLinkTarget) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), std::string(12345, 'x')));
  ASSERT_EQ(0, symlink(dir.Sub("f").c_str(), dir.Sub("l").c_str()));
  EXPECT_EQ(12345.0, helperUtil::fileSize(dir.Sub("f").c_str()));
  EXPECT_EQ(12345.0, helperUtil::fileSize(dir.Sub("l").c_str()));
}

TEST(FileSize, MissingOrNullIsMinusOne) {
  keeltest::TempDir dir;
  EXPECT_EQ(-1.0, helperUtil::fileSize(dir.Sub("missing").c_str()));
  EXPECT_EQ(-1.0, helperUtil::fileSize(static_cast<const char*>(nullptr)));
  EXPECT_EQ(-1.0, helperUtil::fileSize(dir.Sub("missing")));
}

TEST(FileSize, StringFormTranslatesVariables) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("f"), "abc"));
  setenv("KEEL_TEST_SIZE_DIR", dir.path().c_str(), 1);
  EXPECT_EQ(3.0, helperUtil::fileSize(std::string("$KEEL_TEST_SIZE_DIR/f")));
  EXPECT_EQ(-1.0, helperUtil::fileSize("$KEEL_TEST_SIZE_DIR/f"));
  unsetenv("KEEL_TEST_SIZE_DIR");
}

// ---- Sources that another user controls ------------------------------------------

namespace {

// A folder of uid 65534 below `dir` (made by root, given away), and links
// made there by that user.
class OtherUsersTree : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, chmod(m_dir.path().c_str(), 0755)); }

  void Folder(const std::string& relative) {
    ASSERT_EQ(0, mkdir(m_dir.Sub(relative).c_str(), 0755));
    ASSERT_EQ(0, chown(m_dir.Sub(relative).c_str(), keeltest::kNobody, keeltest::kNobody));
  }
  void Link(const std::string& target, const std::string& relative) {
    const std::string at = m_dir.Sub(relative);
    const int status =
        keeltest::RunAsNobody([&] { return symlink(target.c_str(), at.c_str()) == 0 ? 0 : 1; });
    if (status == keeltest::kCannotBecomeNobody)
      GTEST_SKIP() << "cannot change to an unprivileged user";
    ASSERT_EQ(0, status);
  }
  void File(const std::string& relative, const std::string& content) {
    ASSERT_TRUE(keeltest::WriteFile(m_dir.Sub(relative), content));
    ASSERT_EQ(0, chown(m_dir.Sub(relative).c_str(), keeltest::kNobody, keeltest::kNobody));
  }
  // A file of root's only.
  void Secret(const std::string& relative) {
    ASSERT_TRUE(keeltest::WriteFile(m_dir.Sub(relative), "root only\n"));
    ASSERT_EQ(0, chmod(m_dir.Sub(relative).c_str(), 0600));
  }

  keeltest::TempDir m_dir;
};

const char kUserSteers[] = " belongs to uid 0 but is reached through a folder or link of uid 65534";

}  // namespace

TEST_F(OtherUsersTree, FileCopyRefusesTheUsersLinkToARootOnlyFileAndSaysWhy) {
  Secret("secret");
  Folder("user");
  Link("../secret", "user/app.log");
  std::string errorText;
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileCopy(m_dir.Sub("user/app.log"), m_dir.Sub("copy"), errorText));
  EXPECT_EQ(std::string("\"..\"") + kUserSteers, errorText);
  EXPECT_FALSE(keeltest::PathExists(m_dir.Sub("copy")));
}

TEST_F(OtherUsersTree, FolderCopyLeavesOutWhatTheUsersLinksLeadTo) {
  Secret("private/secret");
  ASSERT_EQ(0, chmod(m_dir.Sub("private").c_str(), 0700));
  Folder("user");
  File("user/mine.log", "mine\n");
  Link("../private/secret", "user/file-link");
  Link("../private", "user/folder-link");
  keeltest::LogCapture log;
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopy(m_dir.Sub("user"), m_dir.Sub("copy"), errorText));
  EXPECT_EQ((std::vector<std::string>{"mine.log"}), keeltest::ListDir(m_dir.Sub("copy")));
  EXPECT_TRUE(Logged(log, LOG_LEVEL_W, std::string("Not copying: \"..\"") + kUserSteers));
}

TEST_F(OtherUsersTree, ListingForACopyNamesWhatItCouldNotReachInItsPlace) {
  Secret("secret");
  Folder("user");
  File("user/a.log", "a");
  Link("../secret", "user/b.log");
  File("user/c.log", "c");
  std::string folder = m_dir.Sub("user");
  std::vector<std::string> patterns{"*.log"};
  FolderListing listing;
  ASSERT_EQ(0u, helperUtil::fileListTree(folder, patterns, false, listing));
  ASSERT_TRUE(listing.folder.valid());
  EXPECT_EQ(keeltest::kNobody, listing.steeringUser);
  std::vector<std::string> rows;
  for (const FileEntry& entry : listing.entries)
    rows.push_back(entry.name + "|" + entry.unreachable);
  std::sort(rows.begin(), rows.end());
  EXPECT_EQ(
      (std::vector<std::string>{"a.log|", "b.log|\"..\"" + std::string(kUserSteers), "c.log|"}),
      rows);
  // fileFindAll leaves it out.
  std::vector<FileEntry> found;
  folder = m_dir.Sub("user");
  ASSERT_EQ(0u, helperUtil::fileFindAll(folder, patterns, false, found));
  EXPECT_EQ((std::vector<std::string>{folder + "a.log", folder + "c.log"}), NamesOf(found));
}

TEST_F(OtherUsersTree, ListedFolderThatIsTheUsersLinkIsOneUnreachableEntry) {
  Secret("private/secret.log");
  ASSERT_EQ(0, chmod(m_dir.path().c_str(), 0777));  // shared, without the sticky bit
  Link(m_dir.Sub("private"), "logs");
  std::string folder = m_dir.Sub("logs");
  std::vector<std::string> patterns{"*.log"};
  FolderListing listing;
  ASSERT_EQ(0u, helperUtil::fileListTree(folder, patterns, true, listing));
  EXPECT_FALSE(listing.folder.valid());
  ASSERT_EQ(1u, listing.entries.size());
  EXPECT_EQ(m_dir.path() + "/", listing.entries[0].directory);
  EXPECT_EQ("logs", listing.entries[0].name);
  EXPECT_EQ("symbolic link \"logs\" of uid 65534 in a folder of uid 0 is not followed",
            listing.entries[0].unreachable);
  std::vector<FileEntry> found;
  folder = m_dir.Sub("logs");
  EXPECT_EQ(KEELENGINE_ERROR_FILE_OPEN_FAILURE,
            helperUtil::fileFindAll(folder, patterns, true, found));
}

TEST(FileListTree, HealthyTreeListsAsFileFindAllInTheSameOrder) {
  keeltest::TempDir dir;
  ASSERT_TRUE(dir.WriteEach({"t/a.log", "t/b/c.log", "t/b/d.txt", "t/e/f/g.log", "t/h.log"}));
  ASSERT_EQ(0, symlink("b", dir.Sub("t/link").c_str()));
  std::string first = dir.Sub("t");
  std::vector<std::string> patterns{"*.LOG"};
  std::vector<FileEntry> found;
  ASSERT_EQ(0u, helperUtil::fileFindAll(first, patterns, true, found));
  std::string second = dir.Sub("t");
  std::vector<std::string> samePatterns{"*.LOG"};
  FolderListing listing;
  ASSERT_EQ(0u, helperUtil::fileListTree(second, samePatterns, true, listing));
  ASSERT_EQ(found.size(), listing.entries.size());
  EXPECT_EQ(5u, found.size());  // the linked folder is listed again
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i].directory + found[i].name,
              listing.entries[i].directory + listing.entries[i].name);
    EXPECT_EQ(found[i].modified, listing.entries[i].modified);
    EXPECT_EQ("", listing.entries[i].unreachable);
  }
}

TEST(FileListTree, NamePastPathMaxIsAnUnreachableEntry) {
  keeltest::TempDir dir;
  // Folders of 250 characters, made one level at a time by descriptor.
  const std::string name(250, 'n');
  std::string path = dir.path();
  ScopedFd folder(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (path.size() + name.size() + 1 < PATH_MAX) {
    ASSERT_EQ(0, mkdirat(folder.get(), name.c_str(), 0700));
    folder.reset(openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    path += "/" + name;
  }
  ASSERT_EQ(0, mkdirat(folder.get(), name.c_str(), 0700));
  folder.reset(openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ScopedFd file(openat(folder.get(), "deep.log", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_TRUE(file.valid());
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("top.log"), ""));

  std::string top = dir.path();
  std::vector<std::string> patterns{"*.log"};
  FolderListing listing;
  ASSERT_EQ(0u, helperUtil::fileListTree(top, patterns, true, listing));
  ASSERT_EQ(2u, listing.entries.size());
  const FileEntry& far =
      listing.entries[0].name == "top.log" ? listing.entries[1] : listing.entries[0];
  EXPECT_EQ(name, far.name);
  EXPECT_EQ(path + "/", far.directory);
  EXPECT_EQ("File name too long", far.unreachable);
}

TEST(FileListTree, FolderPastTheDescriptorLimitIsAnUnreachableEntry) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  keeltest::TempDir dir;
  std::string relative = "t";
  for (int level = 0; level < 40; ++level)
    relative += "/d";
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub(relative + "/deep.log"), "deep"));
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("t/top.log"), "top"));
  const std::string top = dir.Sub("t");
  const std::string text = keeltest::TextFromChild([&] {
    // Room for the test process's own descriptors and about 20 levels.
    const rlimit low = {32, 32};
    if (setrlimit(RLIMIT_NOFILE, &low) != 0)
      return std::string("no limit");
    std::string folder = top;
    std::vector<std::string> patterns{"*.log"};
    FolderListing listing;
    if (helperUtil::fileListTree(folder, patterns, true, listing) != 0)
      return std::string("failed");
    std::string rows;
    for (const FileEntry& entry : listing.entries)
      rows += entry.name + "|" + entry.unreachable + "\n";
    return rows;
  });
  EXPECT_NE(std::string::npos, text.find("top.log|\n")) << text;
  EXPECT_NE(std::string::npos, text.find("d|Too many open files\n")) << text;
  EXPECT_EQ(std::string::npos, text.find("deep.log")) << text;
}

TEST(FileCopyAt, CopiesANameBelowTheOpenedFolder) {
  keeltest::TempDir dir;
  ASSERT_TRUE(keeltest::WriteFile(dir.Sub("t/sub/a.log"), "alpha"));
  ScopedFd folder(open(dir.Sub("t").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string errorText;
  EXPECT_EQ(0u, helperUtil::fileCopyAt(folder.get(), 0, "sub/a.log", dir.Sub("copy"), errorText));
  EXPECT_EQ("alpha", keeltest::ReadFile(dir.Sub("copy")));
  EXPECT_EQ(KEELENGINE_ERROR_FILE_NOT_FOUND,
            helperUtil::fileCopyAt(folder.get(), 0, "sub/none", dir.Sub("copy2"), errorText));
}

TEST(FileCopy, GrowingFileIsCopiedUpToItsSizeWhenOpened) {
  keeltest::TempDir dir;
  const std::string source = dir.Sub("growing.log");
  ASSERT_TRUE(keeltest::WriteFile(source, Bytes(3 << 20)));
  ASSERT_EQ(0, mkdir(dir.Sub("out").c_str(), 0700));
  const std::string destination = dir.Sub("out/copy.log");
  // The copy goes to a folder with room for 4 MiB. Once the copy has
  // begun (its destination is there), the source grows by 1 GiB without
  // using room: a copy that read to the end would fill the folder.
  const int status = keeltest::RunWithTmpfsAt(dir.Sub("out"), [&] {
    std::atomic<bool> done{false};
    std::thread grower([&] {
      while (!done && access(destination.c_str(), F_OK) != 0) {
      }
      truncate(source.c_str(), (3 << 20) + (1LL << 30));
    });
    std::string errorText;
    const ResultCode result = helperUtil::fileCopy(source, destination, errorText);
    done = true;
    grower.join();
    if (result != 0)
      return 1;
    return keeltest::ReadFile(destination) == Bytes(3 << 20) ? 0 : 2;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST(FileCopy, FilesOfProcAreReadToTheirEnd) {
  keeltest::TempDir dir;
  std::string errorText;
  ASSERT_EQ(0u, helperUtil::fileCopy("/proc/self/status", dir.Sub("status"), errorText));
  EXPECT_NE(std::string::npos, keeltest::ReadFile(dir.Sub("status")).find("\nPid:"));
}
