#include "Common/Zip/CZip.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Log/Log.h"
#include "Common/Utility/InterruptGuard.h"
#include "Common/Utility/ScopedHandles.h"
#include "Common/Zip/ArchiveFile.h"
#include "Common/Zip/EntryDeflater.h"
#include "Common/Zip/LocalHeader.h"
#include "Common/Zip/ParallelZip.h"
#include "Common/Zip/ZipCrypto.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::kNobody;
using keeltest::LogCapture;
using keeltest::ReadFile;
using keeltest::RunAsNobody;
using keeltest::TempDir;
using keeltest::WriteFile;

// The exit status of a child that could not set up what the test needs; the
// kit's runner as nobody answers the same when it cannot change user.
constexpr int kChildCannotSetUp = keeltest::kCannotBecomeNobody;

// ---------------------------------------------------------------------------
// Files and trees.

// Pseudo-random log lines, the same for the same seed.
std::string LogText(size_t size, unsigned seed) {
  static const char* const kWords[] = {"connect", "tunnel", "retry",  "DNS",    "route",
                                       "gateway", "closed", "opened", "ERROR",  "timeout",
                                       "policy",  "cert",   "0x1f",   "health", "probe"};
  std::mt19937 random(seed);
  std::string text;
  text.reserve(size + 64);
  while (text.size() < size) {
    text += "2024-03-0" + std::to_string(random() % 9 + 1) +
            " 12:" + std::to_string(10 + random() % 50) + " [" + std::to_string(random() % 100000) +
            "] ";
    const unsigned words = 3 + random() % 8;
    for (unsigned i = 0; i < words; ++i) {
      text += kWords[random() % (sizeof(kWords) / sizeof(kWords[0]))];
      text += ' ';
    }
    text += '\n';
  }
  text.resize(size);
  return text;
}

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(random() & 0xFF);
  return bytes;
}

bool MakeDir(const std::string& path, mode_t mode = 0755) {
  return mkdir(path.c_str(), mode) == 0 && chmod(path.c_str(), mode) == 0;
}

bool MakeSparseFile(const std::string& path, off_t size) {
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  if (fd < 0)
    return false;
  const bool sized = ftruncate(fd, size) == 0;
  return close(fd) == 0 && sized;
}

// One entry as the archive should hold it.
struct Expected {
  std::string name;
  std::string bytes;
};

// The regular files below `root` in the order of `find`, which walks each
// folder in the directory's own order and descends into a folder where it
// meets it; names relative to `root`.
std::vector<std::string> FindOrder(const std::string& root) {
  const keeltest::CommandResult found =
      keeltest::Run({"find", root, "-type", "f", "-printf", "%P\\n"});
  std::vector<std::string> names;
  std::istringstream lines(found.out);
  std::string line;
  while (std::getline(lines, line))
    names.push_back(line);
  return names;
}

// Every regular file below `root`, in walk order, with its bytes.
std::vector<Expected> ExpectedTree(const std::string& root) {
  std::vector<Expected> expected;
  for (const std::string& name : FindOrder(root))
    expected.push_back({name, ReadFile(root + "/" + name)});
  return expected;
}

std::vector<std::string> NamesOf(const std::vector<Expected>& entries) {
  std::vector<std::string> names;
  for (const Expected& entry : entries)
    names.push_back(entry.name);
  return names;
}

// A tree of log-like files with sizes around the 16 KiB block, an empty
// file, a nested empty folder and enough names that the directory order is
// not the sorted order.
void MakeTree(const std::string& root) {
  ASSERT_TRUE(MakeDir(root));
  ASSERT_TRUE(WriteFile(root + "/system.log", LogText(100000, 1)));
  ASSERT_TRUE(WriteFile(root + "/block.log", LogText(CZip::kBlockSize, 2)));
  ASSERT_TRUE(WriteFile(root + "/two-blocks.log", LogText(2 * CZip::kBlockSize, 3)));
  ASSERT_TRUE(WriteFile(root + "/one-more.log", LogText(CZip::kBlockSize + 1, 4)));
  ASSERT_TRUE(WriteFile(root + "/empty.txt", ""));
  ASSERT_TRUE(WriteFile(root + "/binary.dat", RandomBytes(40000, 5)));
  for (int i = 0; i < 12; ++i)
    ASSERT_TRUE(
        WriteFile(root + "/many/file" + std::to_string(i) + ".txt", LogText(300 + i, 10 + i)));
  ASSERT_TRUE(WriteFile(root + "/nested/deeper/deepest/leaf.txt", "leaf\n"));
  ASSERT_TRUE(WriteFile(root + "/nested/side.txt", LogText(5000, 30)));
  ASSERT_TRUE(MakeDir(root + "/nested/hollow"));
  ASSERT_TRUE(MakeDir(root + "/hollow"));
}

// ---------------------------------------------------------------------------
// What tools written elsewhere make of an archive.

std::string FromHex(const std::string& hex) {
  std::string bytes;
  if (hex == "-")
    return bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

struct PyEntry {
  std::string name;  // the raw bytes of the name
  std::string bytes;
  int method = -1;
  int flags = -1;
  long external = -1;
  std::string extra;
  std::string comment;
  std::string date;  // "Y-M-D-h-m-s"
  unsigned long long size = 0;
};

struct PyArchive {
  int status = -1;
  std::string testzip;
  std::string comment;
  std::vector<PyEntry> entries;
  std::string errors;
};

// Reads every entry with Python's zipfile: testzip() first, then the bytes
// of each entry (with the password, if any).
PyArchive ReadWithPython(const std::string& archive, const std::string& password = "") {
  static const char kScript[] =
      "import sys, zipfile\n"
      "z = zipfile.ZipFile(sys.argv[1])\n"
      "if sys.argv[2]:\n"
      "    z.setpassword(sys.argv[2].encode())\n"
      "print('TESTZIP', z.testzip())\n"
      "print('COMMENT', z.comment.hex() or '-')\n"
      "for i in z.infolist():\n"
      "    raw = i.filename.encode('utf-8' if i.flag_bits & 0x800 else 'cp437')\n"
      "    data = z.read(i)\n"
      "    print('ENTRY', raw.hex(), data.hex() or '-', i.compress_type, i.flag_bits,\n"
      "          i.external_attr, i.extra.hex() or '-', i.comment.hex() or '-',\n"
      "          '%d-%d-%d-%d-%d-%d' % i.date_time, i.file_size)\n";
  const keeltest::CommandResult ran = keeltest::Run({"python3", "-c", kScript, archive, password});
  PyArchive result;
  result.status = ran.status;
  result.errors = ran.err;
  std::istringstream lines(ran.out);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string kind;
    fields >> kind;
    if (kind == "TESTZIP") {
      fields >> result.testzip;
    } else if (kind == "COMMENT") {
      std::string hex;
      fields >> hex;
      result.comment = FromHex(hex);
    } else if (kind == "ENTRY") {
      PyEntry entry;
      std::string name, bytes, extra, comment;
      fields >> name >> bytes >> entry.method >> entry.flags >> entry.external >> extra >>
          comment >> entry.date >> entry.size;
      entry.name = FromHex(name);
      entry.bytes = FromHex(bytes);
      entry.extra = FromHex(extra);
      entry.comment = FromHex(comment);
      result.entries.push_back(entry);
    }
  }
  return result;
}

struct ZipinfoListing {
  int status = -1;
  std::string out;
  std::vector<std::string> names;    // from `zipinfo -1`
  std::vector<std::string> methods;  // the method column of `zipinfo`
  std::vector<std::string> columns;  // the text/binary and encryption column
};

ZipinfoListing ReadWithZipinfo(const std::string& archive) {
  ZipinfoListing listing;
  const keeltest::CommandResult full = keeltest::Run({"zipinfo", archive});
  listing.status = full.status;
  listing.out = full.out + full.err;
  std::istringstream lines(full.out);
  std::string line;
  // Entry lines start with the permission column, e.g. "-rw----".
  while (std::getline(lines, line)) {
    if (line.empty() || (line[0] != '-' && line[0] != '?'))
      continue;
    std::istringstream fields(line);
    std::string permissions, version, system, size, kind, method;
    fields >> permissions >> version >> system >> size >> kind >> method;
    listing.columns.push_back(kind);
    listing.methods.push_back(method);
  }
  const keeltest::CommandResult names = keeltest::Run({"zipinfo", "-1", archive});
  // An archive without entries gives status 1 and a remark instead of names.
  std::istringstream nameLines(names.status == 0 ? names.out : "");
  while (std::getline(nameLines, line))
    listing.names.push_back(line);
  return listing;
}

bool IsPrintableAscii(const std::string& text) {
  for (const char c : text) {
    if (c < 0x20 || c > 0x7E)
      return false;
  }
  return true;
}

// Checks `archive` with unzip -t, zipinfo and Python's zipfile: it holds
// exactly `expected`, in that order, all deflated at the best level, with no
// folder entries, attributes, extra fields or comments.
void ExpectArchiveHolds(const std::string& archive, const std::vector<Expected>& expected,
                        const std::string& password = "") {
  SCOPED_TRACE("archive " + archive);
  std::vector<std::string> test{"unzip", "-t"};
  if (!password.empty()) {
    test.push_back("-P");
    test.push_back(password);
  }
  test.push_back(archive);
  const keeltest::CommandResult tested = keeltest::Run(test);
  if (expected.empty()) {
    EXPECT_EQ(tested.status, 1) << tested.out << tested.err;
    EXPECT_NE((tested.out + tested.err).find("zipfile is empty"), std::string::npos)
        << tested.out << tested.err;
  } else {
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
    EXPECT_NE(tested.out.find("No errors detected"), std::string::npos) << tested.out;
  }

  const ZipinfoListing listing = ReadWithZipinfo(archive);
  EXPECT_NE(listing.out.find("number of entries: " + std::to_string(expected.size()) + "\n"),
            std::string::npos)
      << listing.out;
  EXPECT_EQ(listing.methods.size(), expected.size()) << listing.out;
  for (const std::string& method : listing.methods)
    EXPECT_EQ(method, "defX") << listing.out;
  bool ascii = true;
  for (const Expected& entry : expected)
    ascii = ascii && IsPrintableAscii(entry.name);
  if (ascii) {
    EXPECT_EQ(listing.names, NamesOf(expected));
  }
  for (const std::string& name : listing.names)
    EXPECT_NE(name.back(), '/') << "folder entry " << name;

  const PyArchive py = ReadWithPython(archive, password);
  ASSERT_EQ(py.status, 0) << py.errors;
  EXPECT_EQ(py.testzip, "None");
  EXPECT_EQ(py.comment, "");
  ASSERT_EQ(py.entries.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const PyEntry& entry = py.entries[i];
    SCOPED_TRACE("entry " + expected[i].name);
    EXPECT_EQ(entry.name, expected[i].name);
    EXPECT_TRUE(entry.bytes == expected[i].bytes)
        << "bytes differ: " << entry.bytes.size() << " read, " << expected[i].bytes.size()
        << " expected";
    EXPECT_EQ(entry.size, expected[i].bytes.size());
    EXPECT_EQ(entry.method, 8);
    EXPECT_EQ(entry.flags & 0x6, 0x2) << "not marked as best compression";
    EXPECT_EQ(entry.flags & 0x8, 0) << "data descriptor";
    EXPECT_EQ(entry.external, 0);
    EXPECT_EQ(entry.extra, "");
    EXPECT_EQ(entry.comment, "");
  }
}

// ---------------------------------------------------------------------------
// Logs.

// Whether a record of `level` ends with the line `text`.
bool HasMessage(LogCapture& capture, uint32_t level, const std::string& text) {
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    const std::string& message = record.message;
    const std::string tail = "\n" + text;
    if (record.level == level && message.size() >= tail.size() &&
        message.compare(message.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

// Whether an error-level record names `invoked` with `code`.
bool HasReturnCode(LogCapture& capture, const std::string& invoked, ResultCode code) {
  char number[64];
  snprintf(number, sizeof(number), "\nReturn Code: %d (0x%.8X)\n", static_cast<int>(code), code);
  const std::string text = "\nInvoked Function: " + invoked + number;
  for (const keeltest::LogRecord& record : capture.logger().Records()) {
    if (record.level == LOG_LEVEL_E && record.message.find(text) != std::string::npos)
      return true;
  }
  return false;
}

// ---------------------------------------------------------------------------
// Children with other rights.

int WaitFor(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `body` in a child process with a private mount namespace, so that
// what it mounts goes away with it.
int RunWithPrivateMounts(const std::function<int()>& body) {
  return keeltest::RunInChild(
      [&] { return keeltest::EnterPrivateMounts() ? body() : kChildCannotSetUp; });
}

long PeakResidentKiB() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// ===========================================================================
// Zip: entries, names and order.

TEST(CZip, EntriesFollowTheFolderWalkAndHoldTheFileBytes) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::vector<Expected> expected = ExpectedTree(source);
  ASSERT_EQ(expected.size(), 20u);
  // The walk order is the directory's, which here is not the sorted one, so
  // an archive in sorted order would fail below.
  std::vector<std::string> sorted = NamesOf(expected);
  std::sort(sorted.begin(), sorted.end());
  ASSERT_NE(NamesOf(expected), sorted);

  const std::string archive = tmp.Sub("bundle.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  ExpectArchiveHolds(archive, expected);
}

TEST(CZip, GetDirContentsListsFilesInDirectoryOrderAndDescendsWhereItMeetsAFolder) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  std::vector<std::string> listed;
  EXPECT_EQ(CZip::getDirContents(listed, source, true), 0u);
  std::vector<std::string> expected;
  for (const std::string& name : FindOrder(source))
    expected.push_back(source + "/" + name);
  EXPECT_EQ(listed, expected);

  // The list is appended to, never cleared.
  std::vector<std::string> appended{"first"};
  EXPECT_EQ(CZip::getDirContents(appended, source + "/nested/", true), 0u);
  std::vector<std::string> nested{"first"};
  for (const std::string& name : FindOrder(source + "/nested"))
    nested.push_back(source + "/nested/" + name);
  ASSERT_EQ(nested.size(), 3u);
  EXPECT_EQ(appended, nested);
}

TEST(CZip, SourceWithAndWithoutTrailingSlashGiveTheSameNames) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::vector<Expected> expected = ExpectedTree(source);
  EXPECT_EQ(CZip::Zip(source, tmp.Sub("plain.zip"), "", true), 0u);
  EXPECT_EQ(CZip::Zip(source + "/", tmp.Sub("slash.zip"), "", true), 0u);
  ExpectArchiveHolds(tmp.Sub("plain.zip"), expected);
  ExpectArchiveHolds(tmp.Sub("slash.zip"), expected);
  EXPECT_EQ(ReadWithZipinfo(tmp.Sub("plain.zip")).names,
            ReadWithZipinfo(tmp.Sub("slash.zip")).names);
}

TEST(CZip, FolderWithoutRegularFilesGivesAValidArchiveWithNoEntries) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  ASSERT_TRUE(MakeDir(source + "/a"));
  ASSERT_TRUE(MakeDir(source + "/a/b"));
  ASSERT_TRUE(MakeDir(source + "/c"));
  ASSERT_EQ(symlink("/nonexistent", (source + "/dangling").c_str()), 0);
  const std::string archive = tmp.Sub("empty.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  ASSERT_TRUE(keeltest::PathExists(archive));
  ExpectArchiveHolds(archive, {});
  EXPECT_NE(ReadWithZipinfo(archive).out.find("Empty zipfile."), std::string::npos);
}

TEST(CZip, SymbolicLinksAndSpecialFilesDoNotReachTheArchive) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  const std::string outside = tmp.Sub("outside");
  ASSERT_TRUE(WriteFile(source + "/real.txt", "real\n"));
  ASSERT_TRUE(WriteFile(outside + "/target.txt", "outside\n"));
  ASSERT_TRUE(WriteFile(source + "/sub/inner.txt", "inner\n"));
  ASSERT_EQ(symlink((source + "/real.txt").c_str(), (source + "/link-to-file").c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), (source + "/link-to-folder").c_str()), 0);
  ASSERT_EQ(symlink("real.txt", (source + "/sub/relative-link").c_str()), 0);
  ASSERT_EQ(mkfifo((source + "/pipe").c_str(), 0644), 0);

  const std::string archive = tmp.Sub("bundle.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  const std::vector<Expected> expected = ExpectedTree(source);  // find -type f: no links
  ASSERT_EQ(expected.size(), 2u);
  ExpectArchiveHolds(archive, expected);
}

TEST(CZip, WithoutRecursionOnlyTheFilesOfTheSourceAreTaken) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string archive = tmp.Sub("flat.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", false), 0u);
  std::vector<Expected> expected;
  for (const Expected& entry : ExpectedTree(source)) {
    if (entry.name.find('/') == std::string::npos)
      expected.push_back(entry);
  }
  ASSERT_EQ(expected.size(), 6u);
  ExpectArchiveHolds(archive, expected);
}

TEST(CZip, NamesWithBlanksAndNonAsciiBytesAreKeptByteForByte) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  const std::vector<std::string> names = {
      "with blank.txt",
      "caf\xC3\xA9 cr\xC3\xA8me.log",             // UTF-8
      "raw\xE9\xFF byte.bin",                     // not UTF-8
      "sub folder/\xE6\x97\xA5\xE6\x9C\xAC.txt",  // UTF-8 below a blank
      "  leading and trailing  ",
  };
  for (size_t i = 0; i < names.size(); ++i)
    ASSERT_TRUE(WriteFile(source + "/" + names[i], LogText(100 + i, 40 + i)));
  const std::string archive = tmp.Sub("names.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  const std::vector<Expected> expected = ExpectedTree(source);
  ASSERT_EQ(expected.size(), names.size());
  ExpectArchiveHolds(archive, expected);

  // And they come back under the same names.
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, tmp.Sub("back"), paths, false), 0u);
  for (const std::string& name : names)
    EXPECT_EQ(ReadFile(tmp.Sub("back/" + name)), ReadFile(source + "/" + name)) << name;
}

TEST(CZip, ExistingArchiveIsReplaced) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(WriteFile(source + "/only.txt", "only\n"));
  const std::string archive = tmp.Sub("bundle.zip");
  ASSERT_TRUE(WriteFile(archive, RandomBytes(100000, 7)));
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  ExpectArchiveHolds(archive, {{"only.txt", "only\n"}});
}

TEST(CZip, ArchiveInsideTheSourceIsNotReadIntoItself) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(WriteFile(source + "/a.txt", LogText(50000, 8)));
  ASSERT_TRUE(WriteFile(source + "/b.txt", LogText(50000, 9)));
  const std::string archive = source + "/bundle.zip";
  // An old archive of that name is listed by the walk, and then rewritten.
  ASSERT_TRUE(WriteFile(archive, RandomBytes(200000, 10)));
  LogCapture capture;
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_W,
                         "Skipping " + archive + ", because it is the archive being written."));
  std::vector<Expected> expected;
  for (const std::string& name : FindOrder(source)) {
    if (name != "bundle.zip")
      expected.push_back({name, ReadFile(source + "/" + name)});
  }
  ASSERT_EQ(expected.size(), 2u);
  ExpectArchiveHolds(archive, expected);
}

TEST(CZip, SourceThatIsAFileGivesOneEntryNamedAfterIt) {
  TempDir tmp;
  const std::string file = tmp.Sub("single.log");
  ASSERT_TRUE(WriteFile(file, LogText(30000, 11)));
  const std::string archive = tmp.Sub("single.zip");
  EXPECT_EQ(CZip::Zip(file, archive, "", true), 0u);
  ExpectArchiveHolds(archive, {{"single.log", ReadFile(file)}});
}

TEST(CZip, MissingSourceFailsTheArchiveAndLeavesNothing) {
  TempDir tmp;
  const std::string missing = tmp.Sub("no-such-folder");
  const std::string archive = tmp.Sub("missing.zip");
  LogCapture capture;
  EXPECT_EQ(CZip::Zip(missing, archive, "", true), GLOBAL_ERROR_UNEXPECTED);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_W, "Failed to get file time attributes."));
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E,
                         "Could not open " + missing + ": No such file or directory"));
  EXPECT_EQ(keeltest::ListDir(tmp.path()), std::vector<std::string>{});
}

TEST(CZip, EmptyArgumentsAreRejectedWithoutAnArchive) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/a.txt"), "a"));
  LogCapture capture;
  EXPECT_EQ(CZip::Zip("", tmp.Sub("x.zip"), "", true), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(CZip::Zip(tmp.Sub("work"), "", "", true), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(capture.Count("\nBad parameter(s), parameter(s) is equal to NULL."), 2u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E, "Bad parameter(s), parameter(s) is equal to NULL."));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("x.zip")));

  // An empty folder would otherwise mean the root of the filesystem.
  std::vector<std::string> listed;
  EXPECT_EQ(CZip::getDirContents(listed, "", true), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(listed.empty());
}

TEST(CZip, ArchiveInAMissingFolderFailsWithBadParameter) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/a.txt"), "a"));
  LogCapture capture;
  EXPECT_EQ(CZip::Zip(tmp.Sub("work"), tmp.Sub("missing/bundle.zip"), "", true),
            GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E,
                         "Could not open the folder of the archive \"" + tmp.Sub("missing") +
                             "\": No such file or directory"));
  EXPECT_TRUE(HasReturnCode(capture, "CArchiveFile::create", GLOBAL_ERROR_BAD_PARAMETER));
  EXPECT_TRUE(HasReturnCode(capture, "CZip::createZipFile", GLOBAL_ERROR_BAD_PARAMETER));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("missing")));
}

TEST(CZip, ArchivePathThatNamesNoFileFailsWithBadParameter) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/a.txt"), "a"));
  const std::vector<std::string> before = keeltest::ListDir(tmp.path());
  LogCapture capture;
  for (const std::string& archive : {tmp.path() + "/", tmp.Sub("."), tmp.Sub("work/..")}) {
    SCOPED_TRACE(archive);
    EXPECT_EQ(CZip::Zip(tmp.Sub("work"), archive, "", true), GLOBAL_ERROR_BAD_PARAMETER);
    EXPECT_TRUE(
        HasMessage(capture, LOG_LEVEL_E, "The archive path \"" + archive + "\" names no file."));
  }
  EXPECT_EQ(keeltest::ListDir(tmp.path()), before);
}

TEST(CZip, ArchiveInAFolderWithoutWriteRightsFailsWithBadParameter) {
  TempDir tmp;
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  ASSERT_TRUE(WriteFile(source + "/a.txt", "a"));
  ASSERT_EQ(chmod((source + "/a.txt").c_str(), 0644), 0);
  const std::string locked = tmp.Sub("locked");
  ASSERT_TRUE(MakeDir(locked, 0755));  // root's; others may not write
  const std::string archive = locked + "/bundle.zip";
  LogCapture capture;
  const int status = RunAsNobody([&] {
    if (access(locked.c_str(), W_OK) == 0)
      return kChildCannotSetUp;
    if (CZip::Zip(source, archive, "", true) != GLOBAL_ERROR_BAD_PARAMETER)
      return 1;
    if (!HasMessage(capture, LOG_LEVEL_E,
                    "Could not create a new archive file in \"" + locked + "\": Permission denied"))
      return 2;
    if (!HasReturnCode(capture, "CArchiveFile::create", GLOBAL_ERROR_BAD_PARAMETER))
      return 3;
    if (!HasReturnCode(capture, "CZip::createZipFile", GLOBAL_ERROR_BAD_PARAMETER))
      return 4;
    return 0;
  });
  if (status == kChildCannotSetUp)
    GTEST_SKIP() << "can't run a child without root rights here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(keeltest::ListDir(locked), std::vector<std::string>{});
}

TEST(CZip, UnreadableFileFailsTheArchiveAndLeavesNothing) {
  TempDir tmp;
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string locked = source + "/nested/locked.log";
  ASSERT_TRUE(WriteFile(locked, LogText(20000, 12)));
  ASSERT_EQ(keeltest::Run({"chmod", "-R", "a+rX", source}).status, 0);
  ASSERT_EQ(chmod(locked.c_str(), 0600), 0);
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out, 0777));
  const std::string archive = out + "/bundle.zip";
  LogCapture capture;
  const int status = RunAsNobody([&] {
    if (access(locked.c_str(), R_OK) == 0)
      return kChildCannotSetUp;
    if (CZip::Zip(source, archive, "", true) != GLOBAL_ERROR_UNEXPECTED)
      return 1;
    if (!HasMessage(capture, LOG_LEVEL_E, "Could not open " + locked + ": Permission denied"))
      return 2;
    return 0;
  });
  if (status == kChildCannotSetUp)
    GTEST_SKIP() << "can't make a file unreadable here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(keeltest::ListDir(out), std::vector<std::string>{});
}

TEST(CZip, LargeFileIsStreamedInBoundedMemory) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  const off_t size = 96 << 20;
  ASSERT_TRUE(MakeSparseFile(source + "/zeros.bin", size));
  ASSERT_TRUE(WriteFile(source + "/tail.txt", "tail\n"));
  const long before = PeakResidentKiB();
  const std::string archive = tmp.Sub("big.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  const long grown = PeakResidentKiB() - before;
  EXPECT_LT(grown, 16 * 1024) << "peak resident size grew by " << grown << " KiB";

  const keeltest::CommandResult tested = keeltest::Run({"unzip", "-t", archive});
  EXPECT_EQ(tested.status, 0) << tested.out;
  const std::string script =
      "import sys, zipfile\n"
      "z = zipfile.ZipFile(sys.argv[1])\n"
      "print(z.testzip())\n"
      "for i in z.infolist():\n"
      "    n = 0\n"
      "    zeros = True\n"
      "    with z.open(i) as f:\n"
      "        while True:\n"
      "            b = f.read(1 << 20)\n"
      "            if not b: break\n"
      "            n += len(b)\n"
      "            zeros = zeros and b.count(0) == len(b)\n"
      "    print(i.filename, n, zeros, i.compress_type)\n";
  const keeltest::CommandResult py = keeltest::Run({"python3", "-c", script, archive});
  const std::vector<std::string> walk = FindOrder(source);
  ASSERT_EQ(walk.size(), 2u);
  std::string expected = "None\n";
  for (const std::string& name : walk) {
    expected += name == "zeros.bin" ? "zeros.bin " + std::to_string(size) + " True 8\n"
                                    : "tail.txt 5 False 8\n";
  }
  EXPECT_EQ(py.out, expected) << py.err;
}

// ===========================================================================
// Entry dates.

TEST(CZip, EntryDateIsTheModificationTimeInLocalTime) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(WriteFile(source + "/dated.txt", "dated\n"));
  // An even second: the archive keeps two-second steps.
  const time_t when = 1700000000;  // 2023-11-14 22:13:20 UTC
  struct timeval times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(utimes((source + "/dated.txt").c_str(), times), 0);

  tm_zip date;
  memset(&date, 0xAB, sizeof(date));
  EXPECT_TRUE(CZip::getFileDate(source + "/dated.txt", &date));
  struct tm local;
  ASSERT_NE(localtime_r(&when, &local), nullptr);
  EXPECT_EQ(date.tm_sec, static_cast<uInt>(local.tm_sec));
  EXPECT_EQ(date.tm_min, static_cast<uInt>(local.tm_min));
  EXPECT_EQ(date.tm_hour, static_cast<uInt>(local.tm_hour));
  EXPECT_EQ(date.tm_mday, static_cast<uInt>(local.tm_mday));
  EXPECT_EQ(date.tm_mon, static_cast<uInt>(local.tm_mon));    // 0-based, as localtime gives it
  EXPECT_EQ(date.tm_year, static_cast<uInt>(local.tm_year));  // years since 1900, likewise

  const std::string archive = tmp.Sub("dated.zip");
  LogCapture capture;
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  EXPECT_EQ(capture.Count("Failed to get file time attributes."), 0u);
  ExpectArchiveHolds(archive, {{"dated.txt", "dated\n"}});
  const PyArchive py = ReadWithPython(archive);
  ASSERT_EQ(py.entries.size(), 1u);
  char expected[64];
  snprintf(expected, sizeof(expected), "%d-%d-%d-%d-%d-%d", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  EXPECT_EQ(py.entries[0].date, expected);
}

TEST(CZip, DateOfAFileThatCannotBeExaminedIsTheEpochInLocalTime) {
  const time_t epoch = 0;
  struct tm local;
  ASSERT_NE(localtime_r(&epoch, &local), nullptr);
  for (const std::string& path : {std::string("/nonexistent/keel/file"), std::string("-")}) {
    SCOPED_TRACE(path);
    tm_zip date;
    memset(&date, 0xAB, sizeof(date));
    EXPECT_FALSE(CZip::getFileDate(path, &date));
    EXPECT_EQ(date.tm_sec, static_cast<uInt>(local.tm_sec));
    EXPECT_EQ(date.tm_min, static_cast<uInt>(local.tm_min));
    EXPECT_EQ(date.tm_hour, static_cast<uInt>(local.tm_hour));
    EXPECT_EQ(date.tm_mday, static_cast<uInt>(local.tm_mday));
    EXPECT_EQ(date.tm_mon, static_cast<uInt>(local.tm_mon));
    EXPECT_EQ(date.tm_year, static_cast<uInt>(local.tm_year));
  }
}

TEST(CZip, ListedFileThatIsGoneFailsTheArchiveOnEveryPath) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("here.txt"), "here\n"));
  ASSERT_TRUE(WriteFile(tmp.Sub("after.txt"), "after\n"));
  const std::string gone = tmp.Sub("gone.txt");
  const std::string archive = tmp.Sub("list.zip");
  ASSERT_TRUE(WriteFile(archive, "previous bundle\n"));
  for (const unsigned workers : {CZip::kSequential, 1u, 3u}) {
    SCOPED_TRACE(std::to_string(workers) + " workers");
    LogCapture capture;
    EXPECT_EQ(CZip::createZipFile({tmp.Sub("here.txt"), gone, tmp.Sub("after.txt")}, archive,
                                  {"here.txt", "gone.txt", "after.txt"}, "", workers),
              GLOBAL_ERROR_UNEXPECTED);
    EXPECT_EQ(capture.Count("\nFailed to get file time attributes."), 1u);
    EXPECT_TRUE(
        HasMessage(capture, LOG_LEVEL_E, "Could not open " + gone + ": No such file or directory"));
    EXPECT_EQ(ReadFile(archive), "previous bundle\n");
    EXPECT_EQ(keeltest::ListDir(tmp.path()),
              (std::vector<std::string>{"after.txt", "here.txt", "list.zip"}));
  }
}

// ===========================================================================
// createZipFile with its own names.

TEST(CZip, CreateZipFileWritesTheGivenNamesInListOrder) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("one"), "1"));
  ASSERT_TRUE(WriteFile(tmp.Sub("two"), LogText(70000, 15)));
  const std::string archive = tmp.Sub("named.zip");
  EXPECT_EQ(CZip::createZipFile({tmp.Sub("two"), tmp.Sub("one"), tmp.Sub("two")}, archive,
                                {"z/second copy.log", "a.txt", "b/two.log"}, ""),
            0u);
  ExpectArchiveHolds(archive, {{"z/second copy.log", ReadFile(tmp.Sub("two"))},
                               {"a.txt", "1"},
                               {"b/two.log", ReadFile(tmp.Sub("two"))}});
}

TEST(CZip, CreateZipFileRejectsListsOfDifferentLengths) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("one"), "1"));
  LogCapture capture;
  EXPECT_EQ(CZip::createZipFile({tmp.Sub("one")}, tmp.Sub("x.zip"), {}, ""),
            GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E,
                         "The lists of files (1) and entry names (0) differ in length."));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("x.zip")));
}

// ===========================================================================
// Passwords.

TEST(CZip, WithAPasswordAnEmptyFileHasCrcZeroAndIsStoredUnencrypted) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  EXPECT_EQ(CZip::getCrc(source + "/empty.txt"), 0u);
  const std::string archive = tmp.Sub("secret.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "s3cret pass", true), 0u);
  const std::vector<Expected> expected = ExpectedTree(source);
  ExpectArchiveHolds(archive, expected, "s3cret pass");

  const PyArchive py = ReadWithPython(archive, "s3cret pass");
  ASSERT_EQ(py.entries.size(), expected.size());
  for (const PyEntry& entry : py.entries) {
    const bool encrypted = (entry.flags & 1) != 0;
    EXPECT_EQ(encrypted, !entry.bytes.empty()) << entry.name;
  }
  // zipinfo marks encrypted entries with a capital letter.
  const ZipinfoListing listing = ReadWithZipinfo(archive);
  ASSERT_EQ(listing.columns.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const char mark = listing.columns[i][0];
    EXPECT_EQ(mark == 'T' || mark == 'B', !expected[i].bytes.empty()) << expected[i].name;
  }
}

TEST(CZip, WrongPasswordIsRefusedByOtherTools) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/data.log"), LogText(50000, 16)));
  ASSERT_TRUE(WriteFile(tmp.Sub("work/empty.txt"), ""));
  const std::string archive = tmp.Sub("secret.zip");
  EXPECT_EQ(CZip::Zip(tmp.Sub("work"), archive, "right", true), 0u);
  ExpectArchiveHolds(archive, ExpectedTree(tmp.Sub("work")), "right");
  const keeltest::CommandResult wrong = keeltest::Run({"unzip", "-P", "wrong", "-t", archive});
  EXPECT_NE(wrong.status, 0);
  EXPECT_NE(wrong.out.find("data.log"), std::string::npos);
  EXPECT_NE(wrong.out.find("incorrect password"), std::string::npos) << wrong.out;
  const keeltest::CommandResult extracted =
      keeltest::Run({"unzip", "-P", "right", "-d", tmp.Sub("extracted"), archive});
  EXPECT_EQ(extracted.status, 0) << extracted.out << extracted.err;
  EXPECT_EQ(ReadFile(tmp.Sub("extracted/data.log")), ReadFile(tmp.Sub("work/data.log")));
}

TEST(CZip, ZipCryptoHeaderCarriesTheCrcAndDecryptsBack) {
  const unsigned char random[CZipCrypto::kRandomSize] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  unsigned char header[CZipCrypto::kHeaderSize];
  CZipCrypto writer("password");
  writer.makeHeader(0xCBF43926u, random, header);
  unsigned char data[] = "123456789";
  writer.encrypt(data, 9);
  EXPECT_NE(memcmp(data, "123456789", 9), 0);

  CZipCrypto reader("password");
  reader.decrypt(header, sizeof(header));
  EXPECT_EQ(memcmp(header, random, sizeof(random)), 0);
  EXPECT_EQ(header[10], 0xF4);
  EXPECT_EQ(header[11], 0xCB);
  reader.decrypt(data, 9);
  EXPECT_EQ(memcmp(data, "123456789", 9), 0);
}

// ===========================================================================
// getCrc and isLargeFile.

TEST(CZip, GetCrcMatchesCrc32AcrossBlocks) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("check"), "123456789"));
  EXPECT_EQ(CZip::getCrc(tmp.Sub("check")), 0xCBF43926u);
  ASSERT_TRUE(WriteFile(tmp.Sub("empty"), ""));
  EXPECT_EQ(CZip::getCrc(tmp.Sub("empty")), 0u);
  // Several blocks and a partial one; the reference comes from Python.
  ASSERT_TRUE(WriteFile(tmp.Sub("blocks"), RandomBytes(3 * CZip::kBlockSize + 123, 17)));
  const keeltest::CommandResult py = keeltest::Run(
      {"python3", "-c", "import sys, zlib; print(zlib.crc32(open(sys.argv[1], 'rb').read()))",
       tmp.Sub("blocks")});
  ASSERT_EQ(py.status, 0) << py.err;
  EXPECT_EQ(std::to_string(CZip::getCrc(tmp.Sub("blocks"))) + "\n", py.out);
}

TEST(CZip, GetCrcOfAMissingFileIsZeroWithAnError) {
  LogCapture capture;
  EXPECT_EQ(CZip::getCrc("/nonexistent/keel/crc"), 0u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E, "Could not open /nonexistent/keel/crc"));
}

// The smallest size whose raw deflate at level 9 may reach 0xFFFFFFFF bytes,
// as zlib's own bound for those settings gives it.
uint64_t SmallestSizeDeflateMayTake4GiBFor() {
  z_stream stream;
  memset(&stream, 0, sizeof(stream));
  if (deflateInit2(&stream, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    return 0;
  uint64_t low = 0, high = 0xFFFFFFFFull;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    if (deflateBound(&stream, static_cast<uLong>(middle)) >= 0xFFFFFFFFull)
      high = middle;
    else
      low = middle + 1;
  }
  deflateEnd(&stream);
  return low;
}

TEST(CZip, IsLargeFileWhereDeflateMayReachFFFFFFFFBytes) {
  const uint64_t threshold = SmallestSizeDeflateMayTake4GiBFor();
  // Incompressible data grows by a stored block header per block: a few
  // hundred KiB short of 4 GiB may already deflate past it.
  ASSERT_GT(threshold, 0xFFFFFFFFull - (2u << 20));
  ASSERT_LT(threshold, 4294000000ull);
  TempDir tmp;
  ASSERT_TRUE(MakeSparseFile(tmp.Sub("below"), static_cast<off_t>(threshold - 1)));
  ASSERT_TRUE(MakeSparseFile(tmp.Sub("bound"), static_cast<off_t>(threshold)));
  ASSERT_TRUE(MakeSparseFile(tmp.Sub("FFFFFFFE"), 0xFFFFFFFEll));
  ASSERT_TRUE(MakeSparseFile(tmp.Sub("at"), 0xFFFFFFFFll));
  ASSERT_TRUE(MakeSparseFile(tmp.Sub("above"), 0x100000000ll));
  ASSERT_TRUE(WriteFile(tmp.Sub("small"), "small"));
  EXPECT_FALSE(CZip::isLargeFile(tmp.Sub("below")));
  EXPECT_TRUE(CZip::isLargeFile(tmp.Sub("bound")));
  EXPECT_TRUE(CZip::isLargeFile(tmp.Sub("FFFFFFFE")));
  EXPECT_TRUE(CZip::isLargeFile(tmp.Sub("at")));
  EXPECT_TRUE(CZip::isLargeFile(tmp.Sub("above")));
  EXPECT_FALSE(CZip::isLargeFile(tmp.Sub("small")));
  EXPECT_FALSE(CZip::isLargeFile(tmp.path()));  // a folder has no size to speak of

  LogCapture capture;
  EXPECT_FALSE(CZip::isLargeFile(tmp.Sub("missing")));
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E, "Could not open " + tmp.Sub("missing")));
}

// ===========================================================================
// getDirContents on what is not a folder.

TEST(CZip, PathThatCannotBeOpenedAsAFolderIsListedItself) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("file.txt"), "x"));
  std::vector<std::string> listed;
  EXPECT_EQ(CZip::getDirContents(listed, tmp.Sub("file.txt"), true), 0u);
  EXPECT_EQ(CZip::getDirContents(listed, tmp.Sub("missing"), false), 0u);
  EXPECT_EQ(listed, (std::vector<std::string>{tmp.Sub("file.txt"), tmp.Sub("missing")}));
}

// ===========================================================================
// createPath.

TEST(CZip, CreatePathMakesEveryMissingFolderWithAllRights) {
  TempDir tmp;
  const mode_t previous = umask(0);
  const bool made = CZip::createPath(tmp.Sub("a/b//c/"));
  umask(previous);
  EXPECT_TRUE(made);
  for (const std::string& folder : {tmp.Sub("a"), tmp.Sub("a/b"), tmp.Sub("a/b/c")}) {
    struct stat info;
    ASSERT_EQ(stat(folder.c_str(), &info), 0) << folder;
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0777u) << folder;
  }
  EXPECT_TRUE(CZip::createPath(tmp.Sub("a/b/c")));  // already there
  EXPECT_TRUE(CZip::createPath("/"));
}

TEST(CZip, CreatePathRefusesRelativeEmptyAndBlockedPaths) {
  TempDir tmp;
  EXPECT_FALSE(CZip::createPath(""));
  EXPECT_FALSE(CZip::createPath("relative/path"));
  EXPECT_FALSE(keeltest::PathExists("relative"));
  ASSERT_TRUE(WriteFile(tmp.Sub("plain"), "x"));
  EXPECT_FALSE(CZip::createPath(tmp.Sub("plain")));
  EXPECT_FALSE(CZip::createPath(tmp.Sub("plain/below")));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("plain/below")));
}

// ===========================================================================
// Unzip.

TEST(CZip, ZipThenUnzipGivesBackTheSameTree) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string archive = tmp.Sub("round.zip");
  ASSERT_EQ(CZip::Zip(source, archive, "", true), 0u);
  ExpectArchiveHolds(archive, ExpectedTree(source));

  for (const std::string& target : {tmp.Sub("back"), tmp.Sub("back2") + "/"}) {
    SCOPED_TRACE(target);
    std::vector<std::string> paths{"kept"};
    EXPECT_EQ(CZip::Unzip(archive, target, paths, false), 0u);
    const std::string base = target.back() == '/' ? target : target + "/";
    std::vector<std::string> expectedPaths{"kept"};
    for (const std::string& name : FindOrder(source))
      expectedPaths.push_back(base + name);
    EXPECT_EQ(paths, expectedPaths);
    // Same files with the same bytes; empty folders are not in an archive.
    std::vector<std::string> before = FindOrder(source);
    std::vector<std::string> after = FindOrder(base);
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, before);
    for (const std::string& name : before)
      EXPECT_TRUE(ReadFile(base + name) == ReadFile(source + "/" + name)) << name;
    EXPECT_FALSE(keeltest::PathExists(base + "hollow"));
  }
}

TEST(CZip, UnzipKeepsExistingFilesUnlessToldToOverwrite) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/a.txt"), "new a\n"));
  ASSERT_TRUE(WriteFile(tmp.Sub("work/sub/b.txt"), "new b\n"));
  const std::string archive = tmp.Sub("a.zip");
  ASSERT_EQ(CZip::Zip(tmp.Sub("work"), archive, "", true), 0u);
  const std::string target = tmp.Sub("target");
  ASSERT_TRUE(WriteFile(target + "/a.txt", "old a\n"));

  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, target, paths, false), 0u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_W,
                         "Skipping file " + target + "/a.txt, because it already exists."));
  EXPECT_EQ(ReadFile(target + "/a.txt"), "old a\n");
  EXPECT_EQ(ReadFile(target + "/sub/b.txt"), "new b\n");
  EXPECT_EQ(paths.size(), 2u);  // a skipped file is still listed

  capture.logger().Clear();
  paths.clear();
  EXPECT_EQ(CZip::Unzip(archive, target, paths, true), 0u);
  EXPECT_EQ(capture.Count("Skipping file"), 0u);
  EXPECT_EQ(ReadFile(target + "/a.txt"), "new a\n");
}

// Writes an archive with Python's zipfile: `entries` is a Python list of
// (name, text) pairs; a name ending in "/" is a folder entry.
void MakeArchiveWithPython(const std::string& archive, const std::string& entries) {
  const std::string script =
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED) as z:\n"
      "    for name, text in " +
      entries +
      ":\n"
      "        z.writestr(name, text)\n";
  const keeltest::CommandResult made = keeltest::Run({"python3", "-c", script, archive});
  ASSERT_EQ(made.status, 0) << made.err;
}

TEST(CZip, UnzipMakesFolderEntriesAndListsThem) {
  TempDir tmp;
  const std::string archive = tmp.Sub("folders.zip");
  MakeArchiveWithPython(archive,
                        "[('top/', ''), ('top/inner/', ''), ('top/inner/f.txt', 'f'), "
                        "('other/deep/g.txt', 'g')]");
  std::vector<std::string> paths;
  const std::string target = tmp.Sub("out");
  EXPECT_EQ(CZip::Unzip(archive, target, paths, false), 0u);
  EXPECT_EQ(paths,
            (std::vector<std::string>{target + "/top/", target + "/top/inner/",
                                      target + "/top/inner/f.txt", target + "/other/deep/g.txt"}));
  struct stat info;
  ASSERT_EQ(stat((target + "/top/inner").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(ReadFile(target + "/top/inner/f.txt"), "f");
  EXPECT_EQ(ReadFile(target + "/other/deep/g.txt"), "g");
}

TEST(CZip, UnzipReportsAFolderItCannotMake) {
  TempDir tmp;
  const std::string archive = tmp.Sub("blocked.zip");
  MakeArchiveWithPython(archive, "[('sub/x.txt', 'x'), ('y.txt', 'y')]");
  const std::string target = tmp.Sub("out");
  ASSERT_TRUE(WriteFile(target + "/sub", "a file where a folder should go"));
  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, target, paths, false), 0u);
  EXPECT_TRUE(
      HasMessage(capture, LOG_LEVEL_E, "Could not create the following dir: " + target + "/sub"));
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E,
                         "Could not create the following file: " + target + "/sub/x.txt"));
  EXPECT_EQ(ReadFile(target + "/y.txt"), "y");  // the run goes on
}

TEST(CZip, UnzipRefusesNamesThatLeaveTheTarget) {
  TempDir tmp;
  const std::string archive = tmp.Sub("evil.zip");
  MakeArchiveWithPython(archive,
                        "[('../escaped.txt', 'e'), ('a/../../up.txt', 'u'), ('ok.txt', 'o')]");
  const std::string target = tmp.Sub("deep/out");
  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, target, paths, false), 0u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E,
                         "Skipping entry ../escaped.txt, because its name leads out of the "
                         "target folder."));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("deep/escaped.txt")));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("up.txt")));
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("deep/up.txt")));
  EXPECT_EQ(paths, std::vector<std::string>{target + "/ok.txt"});
  EXPECT_EQ(ReadFile(target + "/ok.txt"), "o");
}

TEST(CZip, UnzipCannotOpenAnArchiveWithoutEntries) {
  // minizip finds no central directory at the very start of a file, which
  // is where an archive without entries has it.
  TempDir tmp;
  ASSERT_TRUE(MakeDir(tmp.Sub("empty")));
  const std::string archive = tmp.Sub("empty.zip");
  ASSERT_EQ(CZip::Zip(tmp.Sub("empty"), archive, "", true), 0u);
  ExpectArchiveHolds(archive, {});
  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, tmp.Sub("out"), paths, false), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E, "unzOpen64 returned NULL."));
  EXPECT_TRUE(paths.empty());
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("out")));
}

TEST(CZip, UnzipRejectsEmptyArgumentsAndWhatIsNotAnArchive) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("garbage.zip"), RandomBytes(5000, 18)));
  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip("", tmp.Sub("out"), paths, false), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(CZip::Unzip(tmp.Sub("garbage.zip"), "", paths, false), GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(capture.Count("\nBad parameter(s), parameter(s) is equal to NULL."), 2u);
  EXPECT_EQ(CZip::Unzip(tmp.Sub("garbage.zip"), tmp.Sub("out"), paths, false),
            GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(CZip::Unzip(tmp.Sub("missing.zip"), tmp.Sub("out"), paths, false),
            GLOBAL_ERROR_BAD_PARAMETER);
  EXPECT_EQ(capture.Count("\nunzOpen64 returned NULL."), 2u);
  EXPECT_TRUE(HasMessage(capture, LOG_LEVEL_E, "unzOpen64 returned NULL."));
  EXPECT_TRUE(paths.empty());
  EXPECT_FALSE(keeltest::PathExists(tmp.Sub("out")));
}

TEST(CZip, UnzipReportsADamagedEntry) {
  TempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("work/data.log"), LogText(60000, 19)));
  const std::string archive = tmp.Sub("damaged.zip");
  ASSERT_EQ(CZip::Zip(tmp.Sub("work"), archive, "", true), 0u);
  // Flip bytes in the middle of the compressed data.
  std::string bytes = ReadFile(archive);
  for (size_t i = 0; i < 64; ++i)
    bytes[bytes.size() / 2 + i] = static_cast<char>(~bytes[bytes.size() / 2 + i]);
  ASSERT_TRUE(WriteFile(archive, bytes));
  LogCapture capture;
  std::vector<std::string> paths;
  EXPECT_EQ(CZip::Unzip(archive, tmp.Sub("out"), paths, false), 0u);
  const bool reported = capture.Contains("\nInvoked Function: unzReadCurrentFile\n") ||
                        capture.Contains("\nInvoked Function: unzCloseCurrentFile\n");
  EXPECT_TRUE(reported);
  EXPECT_EQ(paths, std::vector<std::string>{tmp.Sub("out") + "/data.log"});
}

// ===========================================================================
// The archive's destination: built beside its path, renamed on only when
// whole.

// Runs `body` in a forked child and gives its exit status (128 plus the
// signal that ended it). For tests that change process-wide state: limits,
// signal dispositions, the umask.
int RunChild(const std::function<int()>& body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0)
    _exit(body());
  return pid < 0 ? -1 : WaitFor(pid);
}

// Makes `link` a symbolic link to `target` owned by user 65534, as another
// user of the host would plant it.
bool PlantLink(const std::string& target, const std::string& link) {
  unlink(link.c_str());
  return symlink(target.c_str(), link.c_str()) == 0 && lchown(link.c_str(), kNobody, kNobody) == 0;
}

// The owner, type and mode of what is at `path`, not following a link.
std::string Describe(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0)
    return "missing";
  const char* type = S_ISREG(info.st_mode) ? "file" : S_ISLNK(info.st_mode) ? "link" : "other";
  char text[64];
  snprintf(text, sizeof(text), "%s %04o uid %u", type, static_cast<unsigned>(info.st_mode & 07777),
           static_cast<unsigned>(info.st_uid));
  return text;
}

// A small tree of text for the destination tests.
void MakeSmallTree(const std::string& root) {
  ASSERT_TRUE(WriteFile(root + "/a.log", LogText(30000, 61)));
  ASSERT_TRUE(WriteFile(root + "/sub/b.log", LogText(5000, 62)));
  ASSERT_TRUE(WriteFile(root + "/empty.txt", ""));
}

// The sequential path, the parallel path with one worker and with several.
const unsigned kWorkerChoices[] = {CZip::kSequential, 1, 3};

TEST(CZip, LinkPlantedAtTheArchivePathIsReplacedAndNeverWrittenThrough) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeSmallTree(source));
  const std::vector<Expected> expected = ExpectedTree(source);
  // A folder anyone may write in, as /tmp, and a file only root may read.
  const std::string shared = tmp.Sub("shared");
  ASSERT_TRUE(MakeDir(shared, 01777));
  const std::string victim = tmp.Sub("victim.conf");
  ASSERT_TRUE(WriteFile(victim, "root only\n"));
  ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
  const std::string archive = shared + "/report.zip";

  for (const unsigned workers : kWorkerChoices) {
    SCOPED_TRACE("workers " + std::to_string(workers));
    ASSERT_TRUE(PlantLink(victim, archive));
    ASSERT_EQ(Describe(archive).substr(0, 4), "link");
    EXPECT_EQ(CZip::Zip(source, archive, "", true, workers), 0u);
    EXPECT_EQ(ReadFile(victim), "root only\n");
    EXPECT_EQ(Describe(victim), "file 0600 uid 0");
    EXPECT_EQ(Describe(archive), "file 0600 uid 0");
    EXPECT_EQ(keeltest::ListDir(shared), std::vector<std::string>{"report.zip"});
    ExpectArchiveHolds(archive, expected);
  }

  // A link to a name that does not exist yet is not followed either.
  const std::string planted = tmp.Sub("planted.zip");
  ASSERT_TRUE(PlantLink(planted, archive));
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
  EXPECT_FALSE(keeltest::PathExists(planted));
  EXPECT_EQ(Describe(archive), "file 0600 uid 0");
  ExpectArchiveHolds(archive, expected);
}

TEST(CZip, ArchiveIsReadableByItsOwnerOnlyWhateverTheUmask) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeSmallTree(source));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out, 0755));
  // A file of another user's, readable by all, that stood at the path.
  ASSERT_TRUE(WriteFile(out + "/old.zip", "old"));
  ASSERT_EQ(chmod((out + "/old.zip").c_str(), 0644), 0);
  ASSERT_EQ(chown((out + "/old.zip").c_str(), kNobody, kNobody), 0);
  for (const mode_t mask : {mode_t{022}, mode_t{0}, mode_t{077}}) {
    for (const unsigned workers : kWorkerChoices) {
      const std::string name = "m" + std::to_string(mask) + "w" + std::to_string(workers) + ".zip";
      const int status = RunChild([&] {
        umask(mask);
        return CZip::Zip(source, out + "/" + name, "", true, workers) == 0 ? 0 : 1;
      });
      EXPECT_EQ(status, 0) << name;
      EXPECT_EQ(Describe(out + "/" + name), "file 0600 uid 0") << name;
    }
  }
  const int status = RunChild([&] {
    umask(022);
    return CZip::Zip(source, out + "/old.zip", "", true) == 0 ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Describe(out + "/old.zip"), "file 0600 uid 0");
  ExpectArchiveHolds(out + "/old.zip", ExpectedTree(source));
}

TEST(CZip, FullDiskLeavesThePathAsItWasAndNoOtherFile) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(WriteFile(source + "/noise.bin", RandomBytes(1 << 20, 13)));
  ASSERT_TRUE(WriteFile(source + "/text.log", LogText(200000, 14)));
  const std::string small = tmp.Sub("small");
  ASSERT_TRUE(MakeDir(small));
  LogCapture capture;
  const int status = RunWithPrivateMounts([&] {
    if (!keeltest::MountTmpfs(small, "64k"))
      return kChildCannotSetUp;
    // Every way of writing: plain, encrypted, and on workers.
    const std::vector<std::pair<unsigned, std::string>> ways = {
        {CZip::kSequential, ""}, {CZip::kSequential, "pw"}, {1, ""}, {3, ""}};
    int failures = 0;
    for (const auto& way : ways) {
      // What stands at the path stays: an old bundle, then a link.
      if (!WriteFile(small + "/bundle.zip", "previous bundle\n"))
        return kChildCannotSetUp;
      if (CZip::Zip(source, small + "/bundle.zip", way.second, true, way.first) !=
          GLOBAL_ERROR_UNEXPECTED)
        failures |= 1;
      if (ReadFile(small + "/bundle.zip") != "previous bundle\n")
        failures |= 2;
      if (unlink((small + "/bundle.zip").c_str()) != 0 ||
          symlink("/nonexistent/keel", (small + "/bundle.zip").c_str()) != 0)
        return kChildCannotSetUp;
      if (CZip::Zip(source, small + "/bundle.zip", way.second, true, way.first) !=
          GLOBAL_ERROR_UNEXPECTED)
        failures |= 4;
      if (Describe(small + "/bundle.zip").substr(0, 4) != "link")
        failures |= 8;
      if (keeltest::ListDir(small) != std::vector<std::string>{"bundle.zip"})
        failures |= 16;
      unlink((small + "/bundle.zip").c_str());
    }
    if (!HasReturnCode(capture, "CZip::createZipFile", GLOBAL_ERROR_UNEXPECTED))
      failures |= 32;
    if (!capture.Contains("failed: No space left on device"))
      failures |= 64;
    return failures;
  });
  if (status == kChildCannotSetUp)
    GTEST_SKIP() << "can't mount a small filesystem here";
  EXPECT_EQ(status, 0) << "bit mask of what went wrong";
}

// The archive's size and where its central directory starts, from the end
// of central directory record.
struct ArchiveTail {
  size_t size = 0;
  size_t centralDirectory = 0;
};

ArchiveTail TailOf(const std::string& archive) {
  const std::string bytes = ReadFile(archive);
  ArchiveTail tail;
  tail.size = bytes.size();
  if (bytes.size() >= 22) {
    const unsigned char* end = reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size();
    const unsigned char* record = end - 22;
    tail.centralDirectory =
        record[16] | record[17] << 8 | record[18] << 16 | static_cast<size_t>(record[19]) << 24;
  }
  return tail;
}

// In a child whose files may not grow past `limit` bytes (a disk that is
// full there, to the byte), zips `source` over an old file at `archive`.
// 0 when the zip failed and left the old file and nothing else.
int ZipWithSizeLimit(const std::string& source, const std::string& archive, unsigned workers,
                     rlim_t limit) {
  return RunChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit size = {limit, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &size) != 0)
      return kChildCannotSetUp;
    const std::string folder = archive.substr(0, archive.rfind('/'));
    if (CZip::Zip(source, archive, "", true, workers) == 0)
      return 1;
    if (ReadFile(archive) != "previous bundle\n")
      return 2;
    if (keeltest::ListDir(folder).size() != 1)
      return 3;
    return 0;
  });
}

TEST(CZip, DiskFillingAtAnyByteOfTheArchiveTailFailsTheRun) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(
        WriteFile(source + "/a rather long name for entry number " + std::to_string(i) + ".log",
                  LogText(200 + 50 * i, 70 + i)));
  }
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  const std::string archive = out + "/bundle.zip";
  for (const unsigned workers : {CZip::kSequential, 3u}) {
    SCOPED_TRACE("workers " + std::to_string(workers));
    ASSERT_EQ(CZip::Zip(source, archive, "", true, workers), 0u);
    const ArchiveTail tail = TailOf(archive);
    ASSERT_GT(tail.size, tail.centralDirectory);
    ASSERT_GT(tail.size - tail.centralDirectory, 2000u);
    ASSERT_TRUE(WriteFile(archive, "previous bundle\n"));
    // From the last bytes of the data through the central directory, at a
    // stride that meets every kind of field, and every byte of the end.
    int failed = 0;
    for (size_t limit = tail.centralDirectory - 100; limit < tail.size;
         limit += limit + 30 < tail.size ? 97 : 1) {
      const int status = ZipWithSizeLimit(source, archive, workers, limit);
      if (status == kChildCannotSetUp)
        GTEST_SKIP() << "can't limit the file size here";
      if (status != 0 && ++failed <= 5)
        ADD_FAILURE() << "limit " << limit << " of " << tail.size << ": status " << status;
    }
    EXPECT_EQ(failed, 0);
    // With room for the whole archive it is made.
    const int status = RunChild([&] {
      signal(SIGXFSZ, SIG_IGN);
      struct rlimit size = {tail.size, RLIM_INFINITY};
      if (setrlimit(RLIMIT_FSIZE, &size) != 0)
        return kChildCannotSetUp;
      return CZip::Zip(source, archive, "", true, workers) == 0 ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    ExpectArchiveHolds(archive, ExpectedTree(source));
  }
}

TEST(CZip, SignalWhileZippingRemovesTheUnfinishedArchive) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  // Enough incompressible data that zipping takes a while.
  for (int i = 0; i < 8; ++i)
    ASSERT_TRUE(
        WriteFile(source + "/noise" + std::to_string(i) + ".bin", RandomBytes(8 << 20, 80 + i)));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  const std::string archive = out + "/bundle.zip";
  ASSERT_TRUE(WriteFile(archive, "previous bundle\n"));
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    if (!CInterruptGuard::Install())
      _exit(kChildCannotSetUp);
    CZip::Zip(source, archive, "", true);
    _exit(0);
  }
  ASSERT_GT(child, 0);
  // Wait (at most a minute) for the unfinished archive to appear beside the
  // old one, note what it is, then end the run.
  bool seen = false;
  std::string unfinished;
  for (int i = 0; i < 30000 && !seen; ++i) {
    for (const std::string& name : keeltest::ListDir(out)) {
      if (name != "bundle.zip") {
        unfinished = Describe(out + "/" + name);
        seen = true;
      }
    }
    if (!seen)
      usleep(2000);
  }
  kill(child, SIGTERM);
  const int status = WaitFor(child);
  if (status == kChildCannotSetUp)
    GTEST_SKIP() << "can't install the interrupt guard here";
  ASSERT_TRUE(seen) << "no unfinished archive appeared";
  // Nobody but its owner may read it while it is written either.
  EXPECT_EQ(unfinished, "file 0600 uid 0");
  EXPECT_EQ(status, 128 + SIGTERM);
  EXPECT_EQ(keeltest::ListDir(out), std::vector<std::string>{"bundle.zip"});
  EXPECT_EQ(ReadFile(archive), "previous bundle\n");
}

// ===========================================================================
// Deflating on workers: the same archive as the sequential path.

// Text with a few bytes that make zlib call it binary, at `every` bytes.
std::string MixedText(size_t size, unsigned seed, size_t every) {
  std::string text = LogText(size, seed);
  for (size_t i = every; i < text.size(); i += every)
    text[i] = '\x01';
  return text;
}

// A tree of what a bundle holds and more: nested folders, thousands of
// small files (empty ones among them), a few large ones, text and binary
// data, sizes at the block boundaries and names with blanks and bytes that
// are not ASCII.
void MakeMixedTree(const std::string& root, int smallFiles) {
  ASSERT_TRUE(MakeDir(root));
  std::mt19937 random(91);
  const char* const kFolders[] = {"logs",        "logs/agent",  "logs/agent/old", "dns cache",
                                  "caf\xC3\xA9", "raw\xE9\xFF", "deep/er/est/yet"};
  for (int i = 0; i < smallFiles; ++i) {
    const std::string folder = kFolders[i % (sizeof(kFolders) / sizeof(kFolders[0]))];
    const std::string name = root + "/" + folder + "/small " + std::to_string(i) + ".log";
    const unsigned kind = random() % 10;
    std::string bytes;
    if (kind == 0)
      bytes = "";
    else if (kind == 1)
      bytes = RandomBytes(random() % 3000, i);
    else if (kind == 2)
      bytes = MixedText(1 + random() % 6000, i, 700);
    else
      bytes = LogText(1 + random() % 5000, i);
    ASSERT_TRUE(WriteFile(name, bytes));
  }
  ASSERT_TRUE(WriteFile(root + "/large text.log", LogText(3 << 20, 92)));
  ASSERT_TRUE(WriteFile(root + "/logs/large binary.bin", RandomBytes(2 << 20, 93)));
  ASSERT_TRUE(WriteFile(root + "/logs/agent/large mixed.log", MixedText(1500000, 94, 50000)));
  ASSERT_TRUE(WriteFile(root + "/block.log", LogText(CZip::kBlockSize, 95)));
  ASSERT_TRUE(WriteFile(root + "/block+1.log", LogText(CZip::kBlockSize + 1, 96)));
  ASSERT_TRUE(WriteFile(root + "/out-1.bin", RandomBytes(CEntryDeflater::kOutputSize - 1, 97)));
  ASSERT_TRUE(WriteFile(root + "/out.bin", RandomBytes(CEntryDeflater::kOutputSize, 98)));
  ASSERT_TRUE(WriteFile(root + "/\xE6\x97\xA5\xE6\x9C\xAC/empty", ""));
  ASSERT_TRUE(MakeDir(root + "/hollow"));
}

// What Python's zlib says of every entry: whether its stored bytes are the
// stream zlib.compressobj(9, DEFLATED, -15, 8, 0) makes of its data, with
// the flags of a level-9 entry and nothing else; and how many entries are
// marked text and binary.
struct DeflateCheck {
  int status = -1;
  std::string out;  // "ENTRIES n TEXT t BINARY b", after any complaint
};

DeflateCheck CheckDeflateWithPython(const std::string& archive) {
  static const char kScript[] =
      "import struct, sys, zipfile, zlib\n"
      "z = zipfile.ZipFile(sys.argv[1])\n"
      "f = open(sys.argv[1], 'rb')\n"
      "counts = {0: 0, 1: 0}\n"
      "for i in z.infolist():\n"
      "    f.seek(i.header_offset)\n"
      "    head = f.read(30)\n"
      "    flags, method = struct.unpack('<HH', head[6:10])\n"
      "    name_len, extra_len = struct.unpack('<HH', head[26:30])\n"
      "    f.seek(name_len + extra_len, 1)\n"
      "    stored = f.read(i.compress_size)\n"
      "    c = zlib.compressobj(9, zlib.DEFLATED, -15, 8, 0)\n"
      "    want = c.compress(z.read(i)) + c.flush()\n"
      "    if stored != want:\n"
      "        print('STREAM', repr(i.filename), len(stored), len(want))\n"
      "    if flags != 2 or i.flag_bits != 2 or method != 8 or i.compress_type != 8:\n"
      "        print('FLAGS', repr(i.filename), flags, i.flag_bits, method)\n"
      "    if i.internal_attr not in counts:\n"
      "        print('ATTRIBUTE', repr(i.filename), i.internal_attr)\n"
      "    else:\n"
      "        counts[i.internal_attr] += 1\n"
      "print('ENTRIES', len(z.infolist()), 'TEXT', counts[1], 'BINARY', counts[0])\n";
  const keeltest::CommandResult ran = keeltest::Run({"python3", "-c", kScript, archive});
  return {ran.status, ran.out + ran.err};
}

// Zips `source` with the sequential path and with each of `workers`; every
// archive must be the sequential one, byte for byte.
void ExpectEveryWayGivesTheSameArchive(const std::string& source, const std::string& out,
                                       const std::vector<unsigned>& workers) {
  const std::string reference = out + "/sequential.zip";
  ASSERT_EQ(CZip::Zip(source, reference, "", true, CZip::kSequential), 0u);
  const std::string expected = ReadFile(reference);
  for (const unsigned count : workers) {
    const std::string archive = out + "/workers" + std::to_string(count) + ".zip";
    ASSERT_EQ(CZip::Zip(source, archive, "", true, count), 0u) << count << " workers";
    const std::string bytes = ReadFile(archive);
    EXPECT_EQ(bytes.size(), expected.size()) << count << " workers";
    EXPECT_TRUE(bytes == expected) << count << " workers: the archives differ";
  }
}

TEST(CZip, WorkersWriteTheSequentialArchiveByteForByte) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeMixedTree(source, 2000));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  ExpectEveryWayGivesTheSameArchive(source, out, {1, 2, 3, 8});

  const std::vector<Expected> expected = ExpectedTree(source);
  ExpectArchiveHolds(out + "/workers3.zip", expected);
  // Both kinds of data are there, so the internal attribute is compared in
  // both values.
  const DeflateCheck check = CheckDeflateWithPython(out + "/workers3.zip");
  EXPECT_EQ(check.status, 0);
  EXPECT_TRUE(std::regex_match(check.out, std::regex("ENTRIES 2008 TEXT [1-9][0-9]* BINARY "
                                                     "[1-9][0-9]*\n")))
      << check.out;
}

TEST(CZip, EveryEntryIsTheStreamPythonsZlibMakesAtLevel9) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeMixedTree(source, 200));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  for (const unsigned workers : {CZip::kSequential, 2u}) {
    const std::string archive = out + "/w" + std::to_string(workers) + ".zip";
    ASSERT_EQ(CZip::Zip(source, archive, "", true, workers), 0u);
    const DeflateCheck check = CheckDeflateWithPython(archive);
    EXPECT_EQ(check.status, 0);
    EXPECT_TRUE(std::regex_match(check.out, std::regex("ENTRIES 208 TEXT \\d+ BINARY \\d+\n")))
        << check.out;
  }
}

TEST(CZip, UnreadableFileFailsTheArchiveOnWorkersToo) {
  TempDir tmp;
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeMixedTree(source, 300));
  const std::string locked = source + "/logs/locked.log";
  ASSERT_TRUE(WriteFile(locked, LogText(70000, 99)));
  ASSERT_EQ(keeltest::Run({"chmod", "-R", "a+rX", source}).status, 0);
  ASSERT_EQ(chmod(locked.c_str(), 0600), 0);
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out, 0777));
  const int status = RunAsNobody([&] {
    if (access(locked.c_str(), R_OK) == 0)
      return kChildCannotSetUp;
    for (const unsigned workers : {CZip::kSequential, 1u, 4u}) {
      LogCapture capture;
      const std::string archive = out + "/w" + std::to_string(workers) + ".zip";
      if (CZip::Zip(source, archive, "", true, workers) != GLOBAL_ERROR_UNEXPECTED)
        return 1;
      if (!HasMessage(capture, LOG_LEVEL_E, "Could not open " + locked + ": Permission denied"))
        return 2;
    }
    return 0;
  });
  if (status == kChildCannotSetUp)
    GTEST_SKIP() << "can't make a file unreadable here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(keeltest::ListDir(out), std::vector<std::string>{});
}

TEST(CZip, FilesThatChangedSinceTheListingGiveWhatTheSequentialPathWould) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeMixedTree(source, 100));
  std::vector<std::string> files;
  ASSERT_EQ(CZip::getDirContents(files, source, true), 0u);
  std::vector<std::string> names;
  for (const std::string& file : files)
    names.push_back(file.substr(source.size() + 1));
  // After the listing: one file grows past a block, one shrinks, one is
  // emptied, one turns from text to binary; the dates move too.
  ASSERT_TRUE(WriteFile(source + "/block.log", LogText(3 * CZip::kBlockSize + 5, 100)));
  ASSERT_TRUE(WriteFile(source + "/large text.log", "short now\n"));
  ASSERT_EQ(truncate((source + "/out.bin").c_str(), 0), 0);
  ASSERT_TRUE(WriteFile(source + "/block+1.log", RandomBytes(5000, 101)));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  ASSERT_EQ(CZip::createZipFile(files, out + "/s.zip", names, "", CZip::kSequential), 0u);
  ASSERT_EQ(CZip::createZipFile(files, out + "/p.zip", names, "", 3), 0u);
  EXPECT_TRUE(ReadFile(out + "/s.zip") == ReadFile(out + "/p.zip"));
  EXPECT_EQ(keeltest::ZipEntry(out + "/p.zip", "large text.log"), "short now\n");
  EXPECT_EQ(keeltest::ZipEntry(out + "/p.zip", "out.bin"), "");
  EXPECT_EQ(keeltest::ZipEntry(out + "/p.zip", "block.log"), ReadFile(source + "/block.log"));
}

TEST(CZip, WorkerCountIsOnePerCoreAndAtLeastOne) {
  const unsigned cores = std::thread::hardware_concurrency();
  EXPECT_EQ(CZip::DefaultWorkerCount(), cores > 0 ? cores : 1u);
  EXPECT_GE(CZip::DefaultWorkerCount(), 1u);
}

TEST(CZip, PasswordTakesTheSequentialPathWhateverTheWorkers) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string archive = tmp.Sub("secret.zip");
  ASSERT_EQ(CZip::Zip(source, archive, "pw", true, 4), 0u);
  ExpectArchiveHolds(archive, ExpectedTree(source), "pw");
  // Encrypted entries (flag bit 0) for every file with data.
  const PyArchive py = ReadWithPython(archive, "pw");
  ASSERT_EQ(py.status, 0) << py.errors;
  for (const PyEntry& entry : py.entries)
    EXPECT_EQ((entry.flags & 1) != 0, !entry.bytes.empty()) << entry.name;
}

// ===========================================================================
// The worker pool itself, also run under ThreadSanitizer.

// Zips `files` under `names` with CParallelZip into `archive`, written as
// createZipFile writes it but with the given limits.
ResultCode ZipWithPool(const std::vector<std::string>& files, const std::vector<std::string>& names,
                       const std::string& archive, unsigned workers,
                       const CParallelZip::Limits& limits, size_t* peakQueued = nullptr) {
  CArchiveFile file;
  ResultCode result = file.create(archive);
  if (result != 0)
    return result;
  zipFile zip = zipOpen2_64(file.temporaryPath().c_str(), APPEND_STATUS_CREATE, nullptr,
                            file.fileFunctions());
  if (zip == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  CParallelZip pool(zip, &file, files, names, nullptr, workers, limits);
  result = pool.run();
  if (peakQueued != nullptr)
    *peakQueued = pool.peakQueued();
  const int closed = zipClose(zip, nullptr);
  if (result == 0 && closed != ZIP_OK)
    result = GLOBAL_ERROR_UNEXPECTED;
  return result != 0 ? result : file.commit();
}

// A tree where entries outgrow small limits: incompressible files of a few
// hundred KiB between small text files.
void MakeQueueTree(const std::string& root, std::vector<std::string>* files,
                   std::vector<std::string>* names) {
  for (int i = 0; i < 60; ++i) {
    const std::string name = "f" + std::to_string(i) + (i % 7 == 3 ? ".bin" : ".log");
    const std::string bytes = i % 7 == 3 ? RandomBytes(150000 + 1000 * i, 110 + i)
                                         : LogText(100 + 997 * (i % 13), 110 + i);
    ASSERT_TRUE(WriteFile(root + "/" + name, bytes));
    files->push_back(root + "/" + name);
    names->push_back(name);
  }
}

TEST(CZipConcurrency, PoolUnderTightLimitsWritesTheSequentialArchiveWithinItsBound) {
  TempDir tmp;
  std::vector<std::string> files, names;
  ASSERT_NO_FATAL_FAILURE(MakeQueueTree(tmp.Sub("work"), &files, &names));
  const std::string reference = tmp.Sub("reference.zip");
  ASSERT_EQ(CZip::createZipFile(files, reference, names, "", CZip::kSequential), 0u);
  const std::string expected = ReadFile(reference);

  CParallelZip::Limits tight;
  tight.queueBudget = 64 * 1024;
  tight.frontLimit = 16 * 1024;
  tight.maxInFlight = 3;
  CParallelZip::Limits roomy;
  for (const CParallelZip::Limits& limits : {tight, roomy}) {
    for (const unsigned workers : {1u, 2u, 4u, 7u}) {
      SCOPED_TRACE(std::to_string(workers) + " workers, budget " +
                   std::to_string(limits.queueBudget));
      const std::string archive = tmp.Sub("pool.zip");
      size_t peak = 0;
      ASSERT_EQ(ZipWithPool(files, names, archive, workers, limits, &peak), 0u);
      EXPECT_TRUE(ReadFile(archive) == expected);
      EXPECT_LE(peak, limits.queueBudget + limits.frontLimit + CEntryDeflater::kOutputSize);
      EXPECT_GT(peak, 0u);
    }
  }
}

TEST(CZipConcurrency, ZipOnWorkersGivesTheSequentialArchiveAndSkipsItself) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeMixedTree(source, 300));
  // An old archive inside the source: the workers find and leave it out,
  // with a warning from their own threads.
  const std::string archive = source + "/logs/bundle.zip";
  ASSERT_TRUE(WriteFile(archive, RandomBytes(30000, 120)));
  std::vector<std::string> files;
  ASSERT_EQ(CZip::getDirContents(files, source, true), 0u);
  std::vector<std::string> names;
  for (const std::string& file : files)
    names.push_back(file.substr(source.size() + 1));
  LogCapture capture;
  ASSERT_EQ(CZip::createZipFile(files, archive, names, "", 4), 0u);
  EXPECT_EQ(capture.Count("\nSkipping " + archive + ", because it is the archive being written."),
            1u);
  const std::string onWorkers = ReadFile(archive);
  ASSERT_TRUE(WriteFile(archive, RandomBytes(30000, 120)));
  ASSERT_EQ(CZip::createZipFile(files, archive, names, "", CZip::kSequential), 0u);
  EXPECT_TRUE(onWorkers == ReadFile(archive));
  EXPECT_EQ(keeltest::ZipEntryNames(archive).size(), files.size() - 1);
}

TEST(CZipConcurrency, WriteFailureStopsEveryWorkerAndLeavesNothing) {
  TempDir tmp;
  std::vector<std::string> files, names;
  ASSERT_NO_FATAL_FAILURE(MakeQueueTree(tmp.Sub("work"), &files, &names));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  const std::string archive = out + "/bundle.zip";
  CParallelZip::Limits tight;
  tight.queueBudget = 64 * 1024;
  tight.frontLimit = 16 * 1024;
  tight.maxInFlight = 3;
  ASSERT_EQ(ZipWithPool(files, names, archive, 4, tight), 0u);
  const size_t size = ReadFile(archive).size();
  ASSERT_TRUE(WriteFile(archive, "previous bundle\n"));
  // The disk fills early, in the middle and late; workers are then waiting
  // on the writer, on the budget or for a file to take, and must all stop.
  for (const rlim_t limit : {rlim_t{100}, rlim_t{size / 3}, rlim_t{size / 2}, rlim_t{size - 30}}) {
    for (const unsigned workers : {1u, 4u}) {
      const int status = RunChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit fileSize = {limit, RLIM_INFINITY};
        if (setrlimit(RLIMIT_FSIZE, &fileSize) != 0)
          return kChildCannotSetUp;
        if (ZipWithPool(files, names, archive, workers, tight) != GLOBAL_ERROR_UNEXPECTED)
          return 1;
        if (ReadFile(archive) != "previous bundle\n")
          return 2;
        return keeltest::ListDir(out).size() == 1 ? 0 : 3;
      });
      if (status == kChildCannotSetUp)
        GTEST_SKIP() << "can't limit the file size here";
      EXPECT_EQ(status, 0) << "limit " << limit << ", " << workers << " workers";
    }
  }
}

// ===========================================================================
// Archives past the classic limits, and what other tools make of them.

// `7z t` on the archive: exit status 0, "Everything is Ok", and no warning
// or error about the headers.
void ExpectSevenZipAccepts(const std::string& archive) {
  const keeltest::CommandResult tested = keeltest::Run({"7z", "t", archive});
  const std::string said = tested.out + tested.err;
  EXPECT_EQ(tested.status, 0) << said;
  EXPECT_NE(said.find("Everything is Ok"), std::string::npos) << said;
  EXPECT_EQ(said.find("Headers Error"), std::string::npos) << said;
  EXPECT_EQ(said.find("WARNING"), std::string::npos) << said;
  EXPECT_EQ(said.find("ERROR"), std::string::npos) << said;
}

// The end records of `archive`, as the format lays them out: "end" with the
// two entry counts of the classic record; "zip64" with the two counts of the
// zip64 end record, or "zip64 none"; then "layout ok" when the records point
// at each other and at the central directory as they must, or what is
// wrong.
std::string EndRecords(const std::string& archive) {
  static const char kScript[] =
      "import struct, sys\n"
      "f = open(sys.argv[1], 'rb')\n"
      "f.seek(0, 2)\n"
      "end = f.tell()\n"
      "f.seek(end - 22)\n"
      "sig, disk, cd_disk, n_disk, n, size, offset, clen = struct.unpack('<IHHHHIIH', f.read(22))\n"
      "print('end', n_disk, n)\n"
      "bad = []\n"
      "if sig != 0x06054b50 or clen != 0: bad.append('classic record')\n"
      "f.seek(end - 42)\n"
      "loc = f.read(20)\n"
      "if loc[:4] == b'PK\\x06\\x07':\n"
      "    _, _, rec, disks = struct.unpack('<IIQI', loc)\n"
      "    f.seek(rec)\n"
      "    (sig64, rest, made, need, d, cd, n64_disk, n64, size64,\n"
      "     offset64) = struct.unpack('<IQHHIIQQQQ', f.read(56))\n"
      "    print('zip64', n64_disk, n64)\n"
      "    if sig64 != 0x06064b50 or rest != 44 or disks != 1 or rec + 56 != end - 42:\n"
      "        bad.append('zip64 record')\n"
      "    if offset64 + size64 != rec: bad.append('zip64 sizes')\n"
      "    if min(size64, 0xFFFFFFFF) != size or min(offset64, 0xFFFFFFFF) != offset:\n"
      "        bad.append('classic fields')\n"
      "    if n != min(n64, 0xFFFF) or n_disk != n: bad.append('classic counts')\n"
      "    offset = offset64\n"
      "else:\n"
      "    print('zip64 none')\n"
      "    if offset + size != end - 22: bad.append('classic sizes')\n"
      "f.seek(offset)\n"
      "if n and f.read(4) != b'PK\\x01\\x02': bad.append('central directory')\n"
      "print('layout', ' '.join(bad) or 'ok')\n";
  const keeltest::CommandResult ran = keeltest::Run({"python3", "-c", kScript, archive});
  return ran.out + ran.err;
}

// A tree of `count` small text files, a thousand to a folder.
void MakeManyFiles(const std::string& root, int count) {
  ASSERT_TRUE(MakeDir(root));
  for (int i = 0; i < count; ++i) {
    if (i % 1000 == 0) {
      ASSERT_TRUE(MakeDir(root + "/d" + std::to_string(i / 1000)));
    }
    const std::string name = root + "/d" + std::to_string(i / 1000) + "/f" + std::to_string(i);
    ASSERT_TRUE(WriteFile(name, "file " + std::to_string(i) + "\n"));
  }
}

TEST(CZip, ArchiveOfMoreThan65535EntriesEndsWithZip64RecordsThatOtherToolsRead) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeManyFiles(source, 70000));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  ExpectEveryWayGivesTheSameArchive(source, out, {2});
  const std::string archive = out + "/workers2.zip";
  EXPECT_EQ(EndRecords(archive), "end 65535 65535\nzip64 70000 70000\nlayout ok\n");
  // unzip -t, zipinfo and Python's zipfile, entry by entry.
  ExpectArchiveHolds(archive, ExpectedTree(source));
  ExpectSevenZipAccepts(archive);
}

TEST(CZip, ArchiveWithinTheClassicLimitsEndsWithTheClassicRecordAlone) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string archive = tmp.Sub("bundle.zip");
  ASSERT_EQ(CZip::Zip(source, archive, "", true), 0u);
  const std::string count = std::to_string(ExpectedTree(source).size());
  EXPECT_EQ(EndRecords(archive), "end " + count + " " + count + "\nzip64 none\nlayout ok\n");
  ExpectSevenZipAccepts(archive);
}

// Zips `source` into `out`/`name` in a child whose descriptor limit leaves
// `spare` descriptors free above those open now. The answer: 0 when the
// archive was made; 1 when it failed because an entry's file could not be
// opened for want of descriptors; 2 when it failed otherwise; 3 when the
// failure left a file behind; kChildCannotSetUp when the limit can't be set.
int ZipWithSpareDescriptors(const std::string& source, const std::string& out,
                            const std::string& name, unsigned workers, int spare) {
  return RunChild([&] {
    const int lowest = open(out.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lowest < 0)
      return kChildCannotSetUp;
    close(lowest);
    const std::vector<std::string> before = keeltest::ListDir(out);
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
      return kChildCannotSetUp;
    limit.rlim_cur = static_cast<rlim_t>(lowest + spare);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
      return kChildCannotSetUp;
    LogCapture capture;
    if (CZip::Zip(source, out + "/" + name, "", true, workers) == 0)
      return 0;
    if (keeltest::ListDir(out) != before)
      return 3;
    return capture.Contains("Could not open " + source + "/") &&
                   capture.Contains(": Too many open files")
               ? 1
               : 2;
  });
}

TEST(CZip, FewDescriptorsFailTheArchiveInsteadOfEmptyingItsEntries) {
  KEEL_SKIP_UNDER_ADDRESS_SANITIZER();
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_NO_FATAL_FAILURE(MakeTree(source));
  const std::string out = tmp.Sub("out");
  ASSERT_TRUE(MakeDir(out));
  for (const unsigned workers : {CZip::kSequential, 1u, 4u}) {
    SCOPED_TRACE(std::to_string(workers) + " workers");
    const std::string reference = out + "/reference.zip";
    ASSERT_EQ(CZip::Zip(source, reference, "", true, workers), 0u);
    const std::string expected = ReadFile(reference);
    ASSERT_EQ(unlink(reference.c_str()), 0);
    // From too few descriptors to make the archive at all up to enough for
    // every worker: each limit gives the whole archive or none.
    // The archive's folder is reached one component at a time, which takes
    // more descriptors than writing the entries: a limit either stops the
    // archive before it is made, or lets every entry through. Entries that
    // cannot be opened are failed by the tests of unreadable files.
    int failed = 0;
    int made = 0;
    for (int spare = 0; spare <= 40; ++spare) {
      SCOPED_TRACE(std::to_string(spare) + " spare descriptors");
      const int status = ZipWithSpareDescriptors(source, out, "bundle.zip", workers, spare);
      if (status == kChildCannotSetUp)
        GTEST_SKIP() << "can't limit descriptors here";
      ASSERT_TRUE(status == 0 || status == 1 || status == 2) << "status " << status;
      if (status == 0) {
        ++made;
        EXPECT_TRUE(ReadFile(out + "/bundle.zip") == expected) << "an archive with lost data";
        ASSERT_EQ(unlink((out + "/bundle.zip").c_str()), 0);
      }
      failed += status == 1 || status == 2 ? 1 : 0;
      EXPECT_EQ(keeltest::ListDir(out), std::vector<std::string>{});
    }
    EXPECT_GT(failed, 0);
    EXPECT_GT(made, 0);
  }
}

// ===========================================================================
// Sizes at the zip64 threshold: each compresses 4 GiB of zeros, so this
// suite is run by name only.

struct LargeEntryFacts {
  int status = -1;
  std::string out;
};

// Reads the one entry of `archive` with Python: the version needed and the
// extra field ids of its local and central headers, its size, and whether
// every byte is zero; then testzip().
LargeEntryFacts ReadLargeEntry(const std::string& archive) {
  static const char kScript[] =
      "import struct, sys, zipfile\n"
      "def ids(extra):\n"
      "    out, i = [], 0\n"
      "    while i + 4 <= len(extra):\n"
      "        tag, size = struct.unpack('<HH', extra[i:i + 4])\n"
      "        out.append('%04x' % tag)\n"
      "        i += 4 + size\n"
      "    return ','.join(out) or '-'\n"
      "z = zipfile.ZipFile(sys.argv[1])\n"
      "(i,) = z.infolist()\n"
      "with open(sys.argv[1], 'rb') as f:\n"
      "    f.seek(i.header_offset)\n"
      "    head = f.read(30)\n"
      "    version = struct.unpack('<H', head[4:6])[0]\n"
      "    name_len, extra_len = struct.unpack('<HH', head[26:30])\n"
      "    f.seek(name_len, 1)\n"
      "    local_extra = f.read(extra_len)\n"
      "n, zeros = 0, True\n"
      "with z.open(i) as data:\n"
      "    while True:\n"
      "        b = data.read(1 << 24)\n"
      "        if not b: break\n"
      "        n += len(b)\n"
      "        zeros = zeros and b.count(0) == len(b)\n"
      "print(i.filename, i.compress_type, i.file_size, n, zeros)\n"
      "print('local', version, ids(local_extra))\n"
      "print('central', i.extract_version, ids(i.extra))\n"
      "print('testzip', z.testzip())\n";
  const keeltest::CommandResult ran = keeltest::Run({"python3", "-c", kScript, archive});
  return {ran.status, ran.out + ran.err};
}

// Writes one small entry with zip64 headers, as the archive writer does for
// a file whose deflated data could have passed 4 GiB, into `archive`;
// `complete` says whether its local header is completed afterwards.
ResultCode WriteSmallZip64Entry(const std::string& archive, bool complete) {
  CArchiveFile file;
  ResultCode result = file.create(archive);
  if (result != 0)
    return result;
  zipFile zip = zipOpen2_64(file.temporaryPath().c_str(), APPEND_STATUS_CREATE, nullptr,
                            file.fileFunctions());
  if (zip == nullptr)
    return GLOBAL_ERROR_BAD_PARAMETER;
  zip_fileinfo info;
  memset(&info, 0, sizeof(info));
  CZip::getFileDate(archive + ".none", &info.tmz_date);
  const uint64_t header = file.position();
  const std::string data = LogText(5000, 7);
  int code =
      zipOpenNewFileInZip3_64(zip, "small.log", &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                              9, 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY, nullptr, 0, /*zip64=*/1);
  if (code == ZIP_OK)
    code = zipWriteInFileInZip(zip, data.data(), static_cast<unsigned>(data.size()));
  if (code == ZIP_OK)
    code = zipCloseFileInZip(zip);
  if (code == ZIP_OK && complete)
    result = CompleteZip64LocalHeader(&file, header, data.size());
  if (zipClose(zip, nullptr) != ZIP_OK || code != ZIP_OK)
    return GLOBAL_ERROR_UNEXPECTED;
  return result != 0 ? result : file.commit();
}

TEST(CZip, Zip64LocalHeaderOfAnEntryThatStayedSmallCarriesItsSizes) {
  TempDir tmp;
  // As minizip leaves it: the zip64 field holds zeros, which 7z reports.
  const std::string left = tmp.Sub("left.zip");
  ASSERT_EQ(WriteSmallZip64Entry(left, false), 0u);
  const keeltest::CommandResult before = keeltest::Run({"7z", "t", left});
  EXPECT_NE((before.out + before.err).find("Headers Error"), std::string::npos) << before.out;

  const std::string archive = tmp.Sub("completed.zip");
  ASSERT_EQ(WriteSmallZip64Entry(archive, true), 0u);
  ExpectSevenZipAccepts(archive);
  ExpectArchiveHolds(archive, {{"small.log", LogText(5000, 7)}});
  const LargeEntryFacts facts = ReadLargeEntry(archive);
  EXPECT_EQ(facts.out,
            "small.log 8 5000 5000 False\n"
            "local 45 0001\n"
            "central 20 -\n"
            "testzip None\n");
  // The 32-bit sizes give way to the zip64 field's.
  const std::string bytes = ReadFile(archive);
  ASSERT_GT(bytes.size(), 50u);
  EXPECT_EQ(bytes.substr(18, 8), std::string(8, '\xFF'));
  EXPECT_EQ(bytes.substr(30 + 9, 4), std::string("\x01\x00\x10\x00", 4));
  EXPECT_EQ(bytes.substr(30 + 9 + 4, 8), std::string("\x88\x13\0\0\0\0\0\0", 8));  // 5000
}

void ZipSparseFileOfSize(uint64_t size, const std::string& expectedFacts) {
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  ASSERT_TRUE(MakeSparseFile(source + "/zeros.bin", static_cast<off_t>(size)));
  const std::string archive = tmp.Sub("large.zip");
  EXPECT_EQ(CZip::Zip(source, archive, "", true), 0u);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(PeakResidentKiB(), 64 * 1024) << "peak resident size in KiB";
#endif
  // The workers' archive is the sequential path's, byte for byte.
  const std::string reference = tmp.Sub("sequential.zip");
  EXPECT_EQ(CZip::Zip(source, reference, "", true, CZip::kSequential), 0u);
  EXPECT_EQ(keeltest::Run({"cmp", archive, reference}).status, 0) << "the archives differ";
  const keeltest::CommandResult tested = keeltest::Run({"unzip", "-t", archive});
  EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
  EXPECT_NE(tested.out.find("No errors detected"), std::string::npos) << tested.out;
  ExpectSevenZipAccepts(archive);
  const ZipinfoListing listing = ReadWithZipinfo(archive);
  EXPECT_EQ(listing.names, std::vector<std::string>{"zeros.bin"});
  EXPECT_EQ(listing.methods, std::vector<std::string>{"defX"});
  const LargeEntryFacts facts = ReadLargeEntry(archive);
  EXPECT_EQ(facts.status, 0);
  EXPECT_EQ(facts.out, expectedFacts);
}

TEST(CZipSlow, FileJustBelowTheDeflateBoundIsWrittenWithoutZip64) {
  const uint64_t size = SmallestSizeDeflateMayTake4GiBFor() - 1;
  const std::string text = std::to_string(size);
  ZipSparseFileOfSize(size, "zeros.bin 8 " + text + " " + text +
                                " True\n"
                                "local 20 -\n"
                                "central 20 -\n"
                                "testzip None\n");
}

// A file of 0xFFFFFFFE bytes may deflate past 4 GiB, so its local header
// makes room for zip64 sizes; zeros stay small, so the central directory
// needs none.
TEST(CZipSlow, FileOfFFFFFFFEBytesGetsAZip64LocalHeader) {
  ZipSparseFileOfSize(0xFFFFFFFEull,
                      "zeros.bin 8 4294967294 4294967294 True\n"
                      "local 45 0001\n"
                      "central 20 -\n"
                      "testzip None\n");
}

TEST(CZipSlow, FileOfFFFFFFFFBytesIsWrittenWithZip64) {
  ZipSparseFileOfSize(0xFFFFFFFFull,
                      "zeros.bin 8 4294967295 4294967295 True\n"
                      "local 45 0001\n"
                      "central 45 0001\n"
                      "testzip None\n");
}

// Writes `size` bytes of pseudo-random data (xorshift64*, which deflate
// can't shrink) to `path`, a MiB at a time; returns success.
bool WriteNoiseFile(const std::string& path, uint64_t size) {
  FileHandle file(fopen(path.c_str(), "wb"));
  if (!file)
    return false;
  std::vector<uint64_t> block((1u << 20) / sizeof(uint64_t));
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (uint64_t left = size; left > 0;) {
    for (uint64_t& word : block) {
      state ^= state >> 12;
      state ^= state << 25;
      state ^= state >> 27;
      word = state * 0x2545F4914F6CDD1Dull;
    }
    const size_t count = static_cast<size_t>(std::min<uint64_t>(left, block.size() * 8));
    if (fwrite(block.data(), 1, count, file.get()) != count)
      return false;
    left -= count;
  }
  return fclose(file.release()) == 0;
}

TEST(CZipSlow, IncompressibleFileJustUnder4GiBIsWrittenWithZip64AndOtherToolsReadIt) {
  // Deflate makes this a little over 4 GiB.
  const uint64_t size = 4294000000ull;
  TempDir tmp;
  const std::string source = tmp.Sub("work");
  ASSERT_TRUE(MakeDir(source));
  ASSERT_TRUE(WriteNoiseFile(source + "/noise.bin", size));
  const std::string archive = tmp.Sub("noise.zip");
  ASSERT_EQ(CZip::Zip(source, archive, "", true), 0u);
  // The workers' archive is the sequential path's, byte for byte.
  const std::string reference = tmp.Sub("sequential.zip");
  ASSERT_EQ(CZip::Zip(source, reference, "", true, CZip::kSequential), 0u);
  EXPECT_EQ(keeltest::Run({"cmp", archive, reference}).status, 0) << "the archives differ";
  ASSERT_EQ(unlink(reference.c_str()), 0);
  struct stat info;
  ASSERT_EQ(stat(archive.c_str(), &info), 0);
  EXPECT_GT(static_cast<uint64_t>(info.st_size), 0xFFFFFFFFull);

  const keeltest::CommandResult tested = keeltest::Run({"unzip", "-t", archive});
  EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
  EXPECT_NE(tested.out.find("No errors detected"), std::string::npos) << tested.out;
  ExpectSevenZipAccepts(archive);
  const LargeEntryFacts facts = ReadLargeEntry(archive);
  EXPECT_EQ(facts.status, 0);
  EXPECT_EQ(facts.out,
            "noise.bin 8 4294000000 4294000000 False\n"
            "local 45 0001\n"
            "central 45 0001\n"
            "testzip None\n");
}

}  // namespace
