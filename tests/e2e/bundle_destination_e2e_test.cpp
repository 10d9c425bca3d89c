// Where the bundle lands, run by the real keelcli in a private mount
// namespace (see E2eSupport.h): a link planted at the destination by another
// user, the bundle's mode, and a destination that fills up while the bundle
// is written, down to its last bytes. Nothing may be written through the
// link, and a run that could not write its bundle whole must leave no file
// that passes for one.
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

// Plays another user of the host.
const char kAsNobody[] = "setpriv --reuid 65534 --regid 65534 --clear-groups ";
constexpr size_t kPage = 4096;

const char kFinished[] = "KEEL has finished...";
const char kZipFailed[] = "Internal Error: failed to zip the bundle...";

// The end of the console of a run whose archive could not be written.
std::string ZipFailure() {
  return ProgressLine("Zipping the bundle, please wait...", 96) + "\r\n" + kZipFailed + "\r\n";
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The size of an archive and the offset of its central directory, read from
// its end record.
struct ArchiveTail {
  size_t size = 0;
  size_t centralDirectory = 0;
};

ArchiveTail TailOf(const std::string& bytes) {
  ArchiveTail tail;
  tail.size = bytes.size();
  if (bytes.size() >= 22) {
    const unsigned char* record =
        reinterpret_cast<const unsigned char*>(bytes.data()) + bytes.size() - 22;
    tail.centralDirectory =
        record[16] | record[17] << 8 | record[18] << 16 | static_cast<size_t>(record[19]) << 24;
  }
  return tail;
}

class BundleDestination : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(
        MakeTree({"install/xml/config", "home/Desktop", "work", "out", "scratch", "src"}));
    if (IsSkipped())
      return;
    // Another user may pass through, so that what only the mode bits keep
    // from that user is tested as such.
    for (const std::string& folder : {m_tree->path(), m_tree->Sub("out")})
      chmod(folder.c_str(), 0755);
    ASSERT_NO_FATAL_FAILURE(CopyBuilt("keelcli", "install/keelcli"));
    // One instruction that copies every .log file of src.
    const std::string config =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n<configure><title>Logs</title>"
        "</configure>\n<fileGroup treeRootName=\"Logs\"><title>Logs</title>\n"
        "<file id=\"logs\"><description>log files</description><default>true</default><keel>"
        "<os opsys=\"linux\"><file_copy_action><action><loc>" +
        m_tree->Sub("src") +
        "/*.log</loc></action></file_copy_action></os></keel></file>\n</fileGroup>\n</config>\n";
    ASSERT_TRUE(WriteFile(m_tree->Sub("install/xml/config/logs.xml"), config));
  }

  void AddLog(const std::string& name, const std::string& bytes) {
    ASSERT_TRUE(WriteFile(m_tree->Sub("src/" + name), bytes));
  }

  IsolatedResult Keel(const std::string& destination, const std::string& prepare,
                      const std::string& inspect = "") {
    return keeltest::RunIsolated({m_tree->Sub("install/keelcli"), "-dst", destination},
                                 {"HOME=" + m_tree->Sub("home"), "USER=tester"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"),
                                 "umask 022\n" + prepare, inspect);
  }

  std::string Inspect() const { return ReadFile(m_tree->Sub("scratch/inspect.txt")); }

  // Shell text that mounts a filesystem of `bytes` bytes (whole pages) at
  // /tmp/dest, the destination's folder.
  static std::string SmallDestination(size_t bytes) {
    return "mkdir /tmp/dest && mount -t tmpfs -o size=" + std::to_string(bytes) +
           ",mode=1777 tmpfs /tmp/dest || exit 94\n";
  }
};

TEST_F(BundleDestination, LinkPlantedByAnotherUserIsReplacedAndItsTargetUntouched) {
  AddLog("a.log", "alpha log\n");
  const std::string victim = m_tree->Sub("victim.conf");
  ASSERT_TRUE(WriteFile(victim, "root only\n"));
  ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
  const IsolatedResult run =
      Keel("/tmp/report.zip",
           std::string(kAsNobody) + "ln -s " + ShellQuote(victim) + " /tmp/report.zip || exit 94\n",
           "stat -c '%F %a %u' /tmp/report.zip\ncp /tmp/report.zip " +
               ShellQuote(m_tree->Sub("scratch/bundle.zip")));
  ASSERT_EQ(run.status, 0) << run.err << run.out;
  EXPECT_TRUE(EndsWith(run.out, ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n"))
      << run.out;
  EXPECT_EQ(ReadFile(victim), "root only\n");
  struct stat info;
  ASSERT_EQ(stat(victim.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_EQ(info.st_size, 10);
  EXPECT_EQ(Inspect(), "regular file 600 0\n");
  const std::string bundle = m_tree->Sub("scratch/bundle.zip");
  EXPECT_EQ(keeltest::SortedZipEntryNames(bundle),
            (std::vector<std::string>{"a.log", "summary.txt"}));
  EXPECT_EQ(keeltest::ZipEntry(bundle, "a.log"), "alpha log\n");
  EXPECT_EQ(run.tmpListing, "report.zip\n");  // no unfinished file beside it
}

TEST_F(BundleDestination, BundleIsReadableByItsOwnerOnlyUnderUmask022) {
  AddLog("a.log", "alpha log\n");
  const std::string bundle = m_tree->Sub("out/report.zip");
  const IsolatedResult run = Keel(bundle, "",
                                  std::string(kAsNobody) + "cat " + ShellQuote(bundle) +
                                      " > /dev/null 2>&1 && echo readable || echo unreadable");
  ASSERT_EQ(run.status, 0) << run.err << run.out;
  struct stat info;
  ASSERT_EQ(stat(bundle.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_EQ(info.st_uid, 0u);
  EXPECT_EQ(Inspect(), "unreadable\n");
  EXPECT_EQ(keeltest::ZipEntry(bundle, "a.log"), "alpha log\n");
  EXPECT_EQ(keeltest::ListDir(m_tree->Sub("out")), std::vector<std::string>{"report.zip"});
}

TEST_F(BundleDestination, DestinationFillingWhileZippingLeavesNoBundle) {
  // Data that does not compress, well beyond the destination's size.
  std::string noise(1 << 20, '\0');
  unsigned state = 12345;
  for (char& byte : noise) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<char>(state >> 16);
  }
  AddLog("noise.log", noise);
  AddLog("b.log", "beta\n");
  const IsolatedResult run =
      Keel("/tmp/dest/report.zip", SmallDestination(64 * 1024), "ls -A /tmp/dest");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(EndsWith(run.out, ZipFailure())) << run.out;
  EXPECT_EQ(run.out.find(kFinished), std::string::npos) << run.out;
  EXPECT_EQ(Inspect(), "");  // neither a bundle nor an unfinished file
}

TEST_F(BundleDestination, DestinationFillingAtTheArchiveTailLeavesNoBundle) {
  // Many entries with long names make a central directory of several pages,
  // so that a destination full at any page boundary inside it fails there,
  // in the archive's close.
  for (int i = 0; i < 150; ++i) {
    AddLog("entry " + std::to_string(1000 + i) +
               " with a name long enough to fill the central "
               "directory of the bundle.log",
           "line " + std::to_string(i) + "\n");
  }
  const std::string destination = "/tmp/dest/report.zip";
  const std::string copy = m_tree->Sub("scratch/calibration.zip");
  IsolatedResult run =
      Keel(destination, SmallDestination(4 << 20), "cp /tmp/dest/report.zip " + ShellQuote(copy));
  ASSERT_EQ(run.status, 0) << run.err;
  ASSERT_TRUE(EndsWith(run.out, ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n"));
  const ArchiveTail tail = TailOf(ReadFile(copy));
  ASSERT_GT(tail.centralDirectory, 0u);
  ASSERT_GT(tail.size - tail.centralDirectory, 4 * kPage);

  // Room for every page boundary from the central directory's start up to
  // the last one below the archive's end (which leaves only the end record
  // and what precedes it in its page to fail); summary.txt's time may move
  // the size by a few bytes, so boundaries that close to the end are left
  // out.
  int sweeps = 0;
  for (size_t room = (tail.centralDirectory / kPage + 1) * kPage; room + 64 < tail.size;
       room += kPage) {
    SCOPED_TRACE("room for " + std::to_string(room) + " of " + std::to_string(tail.size) +
                 " bytes, central directory at " + std::to_string(tail.centralDirectory));
    run = Keel(destination, SmallDestination(room), "ls -A /tmp/dest");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(EndsWith(run.out, ZipFailure())) << run.out;
    EXPECT_EQ(run.out.find(kFinished), std::string::npos) << run.out;
    EXPECT_EQ(Inspect(), "");
    ++sweeps;
  }
  EXPECT_GE(sweeps, 4);

  // With the pages the archive needs, it is made there.
  const size_t enough = (tail.size + 64 + kPage - 1) / kPage * kPage;
  run = Keel(destination, SmallDestination(enough),
             "ls -A /tmp/dest\ncp /tmp/dest/report.zip " + ShellQuote(copy));
  EXPECT_TRUE(EndsWith(run.out, ProgressLine("KEEL has finished... ", 100) + "\r\n\r\n"))
      << run.out;
  EXPECT_EQ(Inspect(), "report.zip\n");
  EXPECT_EQ(keeltest::ZipEntryNames(copy).size(), 151u);
}

}  // namespace
