// Bundle runs whose zip stage meets a limit of the host: whatever the
// limit, the run either makes a bundle that holds every collected byte and
// says it has finished, or makes none and says why. Each run is in a
// private mount namespace (see E2eSupport.h).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace keeltest;  // NOLINT(build/namespaces): the test kit

const char kFinished[] = "KEEL has finished... ";
const char kZipFailed[] = "\r\nInternal Error: failed to zip the bundle...\r\n";

class ZipBoundaryRun : public keeltest::IsolatedTree {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(MakeTree(
        {"install/xml/config", "home", "work", "out", "scratch", "src"}, "install/keelcli"));
  }

  std::string Src(const std::string& name) const { return m_tree->Sub("src/" + name); }

  // Copies of `names` from the source folder, one file ID each.
  void AddCopies(const std::vector<std::string>& names) {
    std::string instructions;
    for (const std::string& name : names) {
      instructions += "<file id=\"" + name + "\"><description>" + name +
                      "</description><default>true</default><keel><os opsys=\"linux\">"
                      "<file_copy_action><action><loc>" +
                      Src(name) + "</loc></action></file_copy_action></os></keel></file>\n";
    }
    AddConfig("zip.xml",
              "<?xml version=\"1.0\"?>\n<config><configure><title>Zip</title></configure>"
              "<fileGroup treeRootName=\"Zip\"><title>Zip</title>\n" +
                  instructions + "</fileGroup></config>\n");
  }

  // keelcli with at most `descriptors` open files.
  IsolatedResult KeelWithDescriptors(int descriptors, const std::string& bundle) {
    return keeltest::RunIsolated({"prlimit", "--nofile=" + std::to_string(descriptors),
                                  m_tree->Sub("install/keelcli"), "-dst", bundle},
                                 {"HOME=" + m_tree->Sub("home"), "USER=tester"},
                                 m_tree->Sub("work"), m_tree->Sub("scratch"));
  }
};

TEST_F(ZipBoundaryRun, FewDescriptorsGiveAWholeBundleOrNone) {
  if (IsSkipped())
    return;
  const std::vector<std::string> names = {"alpha.log", "beta.log", "gamma.log"};
  for (const std::string& name : names)
    ASSERT_TRUE(WriteFile(Src(name), name + " line\n" + std::string(5000, 'x') + "\n"));
  AddCopies(names);
  // From too few descriptors to start up to plenty: somewhere on the way
  // the copies succeed while the zip stage runs short.
  int zipFailed = 0;
  int made = 0;
  for (int descriptors = 8; descriptors <= 22; ++descriptors) {
    SCOPED_TRACE(std::to_string(descriptors) + " descriptors");
    const std::string bundle = m_tree->Sub("out/b" + std::to_string(descriptors) + ".zip");
    const IsolatedResult run = KeelWithDescriptors(descriptors, bundle);
    if (!keeltest::PathExists(bundle)) {
      EXPECT_EQ(std::string::npos, run.out.find(kFinished)) << run.out;
      zipFailed += run.out.find(kZipFailed) != std::string::npos ? 1 : 0;
      continue;
    }
    ++made;
    EXPECT_NE(std::string::npos, run.out.find(kFinished)) << run.out;
    const std::string summary = keeltest::ZipEntry(bundle, "summary.txt");
    EXPECT_NE(std::string::npos, summary.find("alpha.log")) << summary;
    for (const std::string& name : keeltest::SortedZipEntryNames(bundle)) {
      if (name != "summary.txt") {
        EXPECT_EQ(ReadFile(Src(name.substr(name.rfind('/') + 1))), keeltest::ZipEntry(bundle, name))
            << name;
      }
    }
  }
  EXPECT_GT(zipFailed, 0) << "no limit left the zip stage short";
  EXPECT_GT(made, 0) << "no limit let a bundle be made";
}

}  // namespace
