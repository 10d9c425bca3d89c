#include "tools/KEEL/KEELEngine/implementations/KEELEngine.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeEnv.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

// A host whose working folder is `folder`. Each test runs in a process of
// its own, so the hosts simply live until it ends.
keeltest::FakeEnv* WorkingIn(const std::string& folder) {
  static std::vector<std::unique_ptr<keeltest::FakeEnv>> hosts;
  hosts.emplace_back(new keeltest::FakeEnv());
  hosts.back()->EditPaths().workingFolder = folder;
  return hosts.back().get();
}

using keeltest::ListDir;
using keeltest::PathExists;
using keeltest::Shell;
using keeltest::TempDir;
using keeltest::WriteFile;

// A config whose one instruction copies `source` (a file pattern).
std::string CopyConfig(const std::string& title, const std::string& id, const std::string& source,
                       const std::string& directoryName = "") {
  const std::string folder =
      directoryName.empty() ? "" : " directoryName=\"" + directoryName + "\"";
  return "<?xml version=\"1.0\"?>\n<config><configure><title>" + title +
         "</title></configure>\n<fileGroup treeRootName=\"" + title + "\"" + folder + "><title>" +
         title + "</title>\n<file id=\"" + id + "\"><description>copy " + id +
         "</description><default>true</default><keel><os opsys=\"linux\"><file_copy_action>"
         "<action><loc>" +
         source + "</loc></action></file_copy_action></os></keel></file></fileGroup></config>\n";
}

// Parses `text` into a document that the engine may own.
XMLObject* Parse(const std::string& text) {
  KEELXmlLoader loader;
  XMLObjectList documents;
  EXPECT_NE(loader.Load(text, KEELXmlLoader::kTypeText, documents), nullptr);
  return documents.empty() ? nullptr : new XMLObject(*documents.front());
}

// What a bundle of the usual instruction set holds.
const std::vector<std::string> kOneCopyBundle{"a.log", "summary.txt"};

// An engine over the empty tree `dir`, for tests that hand it documents.
std::shared_ptr<KEELEngine> PoolEngine(const TempDir& dir) {
  return std::make_shared<KEELEngine>("", dir.path(), dir.Sub("b.zip"), "", false, false, true,
                                      WorkingIn(dir.Sub("w")));
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    helperUtil::setCliMode(true);
    ASSERT_TRUE(WriteFile(dir.Sub("src/a.log"), "alpha\n"));
    ASSERT_TRUE(WriteFile(dir.Sub("src/b.log"), "beta\n"));
    Shell("mkdir -p '" + dir.Sub("work") + "'");
  }

  void AddConfig(const std::string& name, const std::string& text) {
    ASSERT_TRUE(WriteFile(dir.Sub("install/xml/config/" + name), text));
  }

  // The usual instruction set: "one.xml", whose file "one" copies src/a.log.
  void AddOneCopy(const std::string& directoryName = "") {
    AddConfig("one.xml", CopyConfig("One", "one", dir.Sub("src/a.log"), directoryName));
  }

  std::shared_ptr<KEELEngine> Engine(const std::string& bundle, bool clear = false,
                                     const std::string& request = "") {
    return std::make_shared<KEELEngine>(request, dir.Sub("install"), bundle, "", clear, false, true,
                                        WorkingIn(dir.Sub("work/KEEL_Temp_Bundle")));
  }

  // Runs the engine and returns what it printed.
  std::string RunEngine(const std::shared_ptr<KEELEngine>& engine, ResultCode* result) {
    testing::internal::CaptureStdout();
    *result = engine->run();
    return testing::internal::GetCapturedStdout();
  }

  // Runs the engine for its answer alone.
  ResultCode RunQuietly(const std::shared_ptr<KEELEngine>& engine) {
    ResultCode result = 1;
    RunEngine(engine, &result);
    return result;
  }

  // Runs the usual instruction set where the plain working folder already
  // holds `leftover` (a path below it); the folder the run worked in.
  std::string WorkingFolderOfARunOver(const std::string& leftover) {
    AddOneCopy();
    EXPECT_TRUE(WriteFile(dir.Sub("work/KEEL_Temp_Bundle/" + leftover), "old"));
    auto engine = Engine(dir.Sub("bundle.zip"));
    EXPECT_EQ(RunQuietly(engine), 0u);
    EXPECT_EQ(BundleEntries(), kOneCopyBundle);
    return engine->workingFolder();
  }

  std::vector<std::string> BundleEntries() {
    return keeltest::SortedZipEntryNames(dir.Sub("bundle.zip"));
  }
  // The entry `name` of the bundle the tests write.
  std::string BundleEntry(const std::string& name) {
    return keeltest::ZipEntry(dir.Sub("bundle.zip"), name);
  }

  TempDir dir;
};

TEST(EnginePool, SizeIsTheHardwareConcurrencyCappedAtSix) {
  EXPECT_EQ(KEELEngine::poolSize(8), 6u);
  EXPECT_EQ(KEELEngine::poolSize(6), 6u);
  EXPECT_EQ(KEELEngine::poolSize(2), 2u);
  EXPECT_EQ(KEELEngine::poolSize(0), 1u);
  EXPECT_EQ(KEELEngine::poolSize(-3), 1u);
}

TEST(EnginePool, NullEntryUsesUpAnIndex) {
  TempDir dir;
  auto engine = PoolEngine(dir);
  // With no request loaded, every collector fails: the groups are named.
  engine->adoptConfigDocument(nullptr);
  engine->adoptConfigDocument(Parse("<c><fileGroup/></c>"));
  engine->collectAll(1);
  EXPECT_EQ(engine->failedConfigList(), (std::list<std::string>{"Unknown_1"}));
}

TEST(EnginePool, FailedConfigNamesEachGroupByTitle) {
  TempDir dir;
  auto engine = PoolEngine(dir);
  engine->adoptConfigDocument(
      Parse("<c><fileGroup><title>One</title></fileGroup><fileGroup><title>Two</title>"
            "</fileGroup><fileGroup><title>Three</title></fileGroup></c>"));
  const int32_t before = helperUtil::getDoneCount();
  engine->collectAll(2);
  EXPECT_EQ(engine->failedConfigList(), (std::list<std::string>{"One", "Two", "Three"}));
  EXPECT_EQ(helperUtil::getDoneCount(), before + 1);
}

TEST(EnginePool, FailedConfigWithoutGroupsAddsNothingButCountsAsDone) {
  TempDir dir;
  auto engine = PoolEngine(dir);
  engine->adoptConfigDocument(Parse("<c><other/></c>"));
  const int32_t before = helperUtil::getDoneCount();
  engine->collectAll(1);
  EXPECT_TRUE(engine->failedConfigList().empty());
  EXPECT_EQ(helperUtil::getDoneCount(), before + 1);
}

TEST(EnginePool, OneThreadRunsJobsStrictlyInListOrder) {
  TempDir dir;
  auto engine = PoolEngine(dir);
  for (int i = 0; i < 5; ++i) {
    engine->adoptConfigDocument(
        Parse("<c><fileGroup><title>G" + std::to_string(i) + "</title></fileGroup></c>"));
  }
  engine->collectAll(KEELEngine::poolSize(0));
  EXPECT_EQ(engine->failedConfigList(), (std::list<std::string>{"G0", "G1", "G2", "G3", "G4"}));
}

TEST(EnginePoolConcurrency, ManyJobsOnSixThreadsAllCount) {
  TempDir dir;
  auto engine = PoolEngine(dir);
  for (int i = 0; i < 24; ++i) {
    engine->adoptConfigDocument(Parse("<c><fileGroup/><fileGroup/></c>"));
  }
  const int32_t before = helperUtil::getDoneCount();
  engine->collectAll(6);
  EXPECT_EQ(engine->failedConfigList().size(), 48u);
  EXPECT_EQ(helperUtil::getDoneCount(), before + 24);
}

TEST_F(EngineTest, NoConfigFailsBeforeAnyWorkingFolderIsMade) {
  ResultCode result = 0;
  const std::string out = RunEngine(Engine(dir.Sub("out/bundle.zip")), &result);
  EXPECT_EQ(result, KEELENGINE_ERROR_INTERNAL);
  EXPECT_NE(out.find("\r\nInternal Error: no valid configuration XML found...\r\n"),
            std::string::npos);
  EXPECT_TRUE(ListDir(dir.Sub("work")).empty());
  EXPECT_FALSE(PathExists(dir.Sub("out/bundle.zip")));
}

TEST_F(EngineTest, FreshWorkingFolderWhenThePlainOneIsMissing) {
  AddOneCopy();
  auto engine = Engine(dir.Sub("bundle.zip"));
  ResultCode result = 1;
  const std::string out = RunEngine(engine, &result);
  EXPECT_EQ(result, 0u);
  EXPECT_TRUE(
      std::regex_match(engine->workingFolder(),
                       std::regex(dir.Sub("work/KEEL_Temp_Bundle__\\d{4}_\\d{4}_\\d{1,5}"))))
      << engine->workingFolder();
  // The fresh folder was zipped and then removed: it held no sub-folder.
  EXPECT_FALSE(PathExists(engine->workingFolder()));
  EXPECT_EQ(BundleEntries(), kOneCopyBundle);
  EXPECT_NE(out.find("\rKEEL has finished... "), std::string::npos);
  EXPECT_EQ(out.substr(out.size() - 4), "\r\n\r\n");
}

TEST_F(EngineTest, PlainFolderWithOnlyFilesIsDeletedAndUsed) {
  EXPECT_EQ(WorkingFolderOfARunOver("stale.txt"), dir.Sub("work/KEEL_Temp_Bundle"));
}

TEST_F(EngineTest, PlainFolderWithASubFolderMakesTheRunTakeAFreshName) {
  EXPECT_NE(WorkingFolderOfARunOver("sub/x.txt"), dir.Sub("work/KEEL_Temp_Bundle"));
  EXPECT_TRUE(PathExists(dir.Sub("work/KEEL_Temp_Bundle/sub/x.txt")));
}

TEST_F(EngineTest, SubFoldersOfInstructionsGoWithTheRun) {
  AddOneCopy("logs");
  auto engine = Engine(dir.Sub("bundle.zip"));
  EXPECT_EQ(RunQuietly(engine), 0u);
  EXPECT_EQ(BundleEntries(), (std::vector<std::string>{"logs/a.log", "summary.txt"}));
  EXPECT_FALSE(PathExists(engine->workingFolder()));
  EXPECT_EQ(ListDir(dir.Sub("work")), std::vector<std::string>{});
}

TEST_F(EngineTest, EveryFreshNameTakenGivesARandomFolderAndSaysWhy) {
  AddOneCopy();
  const int status = keeltest::RunWithTmpfsAt(dir.Sub("work"), [&] {
    if (!keeltest::MountTmpfs(dir.Sub("work"), "512m"))
      return 10;
    const time_t now = time(nullptr);
    for (time_t minute : {now, now + 60}) {
      struct tm local {};
      localtime_r(&minute, &local);
      char stamp[64];
      snprintf(stamp, sizeof(stamp), "__%02d%02d_%02d%02d_", local.tm_mon + 1, local.tm_mday,
               local.tm_hour, local.tm_min);
      for (int number = 0; number < 100000; ++number) {
        const std::string name = dir.Sub("work/KEEL_Temp_Bundle") + stamp + std::to_string(number);
        if (mkdir(name.c_str(), 0777) != 0 || chown(name.c_str(), 65534, 65534) != 0)
          return 11;
      }
    }
    auto engine = Engine(dir.Sub("bundle.zip"));
    ResultCode result = 1;
    const std::string out = RunEngine(engine, &result);
    if (result != 0 || BundleEntries() != kOneCopyBundle)
      return 1;
    const std::string folder = engine->workingFolder();
    if (!std::regex_match(folder, std::regex(dir.Sub("work/KEEL_Temp_Bundle_[0-9a-f]{16}"))))
      return 2;
    const std::string line =
        "\r\nWarning: every usual working folder name is taken by someone else; working in \"" +
        folder + "\"...\r\n";
    if (out.find(line) == std::string::npos)
      return 3;
    return PathExists(folder) ? 4 : 0;
  });
  KEEL_EXPECT_ISOLATED_CHILD_PASSED(status);
}

TEST_F(EngineTest, UsualRunSaysNothingAboutItsWorkingFolder) {
  AddOneCopy();
  auto engine = Engine(dir.Sub("bundle.zip"));
  ResultCode result = 1;
  const std::string out = RunEngine(engine, &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(out.find("Warning:"), std::string::npos) << out;
}

TEST_F(EngineTest, BundlePathGetsZipUnlessItEndsInZip) {
  AddOneCopy();
  EXPECT_EQ(RunQuietly(Engine(dir.Sub("report.tar"))), 0u);
  EXPECT_TRUE(PathExists(dir.Sub("report.tar.zip")));
  EXPECT_EQ(RunQuietly(Engine(dir.Sub("x.ZIP"))), 0u);
  EXPECT_TRUE(PathExists(dir.Sub("x.ZIP.zip")));
  EXPECT_EQ(RunQuietly(Engine(dir.Sub("y.zip"))), 0u);
  EXPECT_TRUE(PathExists(dir.Sub("y.zip")));
  EXPECT_FALSE(PathExists(dir.Sub("y.zip.zip")));
}

TEST_F(EngineTest, DefaultRunEndsWithTheNoInstructionHeading) {
  AddOneCopy();
  ASSERT_EQ(RunQuietly(Engine(dir.Sub("bundle.zip"))), 0u);
  const std::string summary = BundleEntry("summary.txt");
  const std::string heading =
      "\n\nNo instruction found in any config for the following file ID's from request:\n";
  ASSERT_GE(summary.size(), heading.size());
  EXPECT_EQ(summary.substr(summary.size() - heading.size()), heading);
  EXPECT_EQ(summary.find("KEELEngine failed to parse"), std::string::npos);
}

TEST_F(EngineTest, OneGoodConfigBesideOneBrokenFileCountsAsAllFailed) {
  AddConfig("good.xml", CopyConfig("Good", "good", dir.Sub("src/a.log")));
  AddConfig("broken.xml", "<config><fileGroup></config>");
  ResultCode result = 0;
  auto engine = Engine(dir.Sub("bundle.zip"));
  const std::string out = RunEngine(engine, &result);
  EXPECT_EQ(result, KEELENGINE_ERROR_INTERNAL);
  EXPECT_NE(out.find("\r\nInternal Error: all configs failed...\r\n"), std::string::npos);
  EXPECT_FALSE(PathExists(dir.Sub("bundle.zip")));
  EXPECT_FALSE(PathExists(engine->workingFolder()));
}

TEST_F(EngineTest, BrokenFileBesideTwoGoodConfigsIsNamedInTheSummary) {
  AddConfig("good1.xml", CopyConfig("Good1", "g1", dir.Sub("src/a.log")));
  AddConfig("good2.xml", CopyConfig("Good2", "g2", dir.Sub("src/b.log")));
  AddConfig("broken.xml", "<config><fileGroup></config>");
  ASSERT_EQ(RunQuietly(Engine(dir.Sub("bundle.zip"))), 0u);
  const std::string summary = BundleEntry("summary.txt");
  const std::string tail = "\n" + std::string(100, '=') +
                           "\nKEELEngine failed to parse or use the following configuration "
                           "files:\n" +
                           dir.Sub("install/xml/config/broken.xml") +
                           "\n\n\nNo instruction found in any config for the following file "
                           "ID's from request:\n";
  ASSERT_GE(summary.size(), tail.size());
  EXPECT_EQ(summary.substr(summary.size() - tail.size()), tail);
}

TEST_F(EngineTest, ClearRunShowsNoClearingLine) {
  ASSERT_TRUE(WriteFile(dir.Sub("logs/x.log"), "x"));
  AddConfig("clear.xml",
            "<c><fileGroup><file id=\"c\"><description>clear me</description><default>true"
            "</default><keel><os opsys=\"linux\"><file_copy_action><action><loc>" +
                dir.Sub("logs/*.log") +
                "</loc><clear_log apply=\"true\"/></action></file_copy_action></os></keel></file>"
                "</fileGroup></c>");
  ResultCode result = 1;
  const std::string out = RunEngine(Engine("", true), &result);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(out.find("Clearing"), std::string::npos);
  EXPECT_FALSE(PathExists(dir.Sub("logs/x.log")));
  EXPECT_TRUE(ListDir(dir.Sub("work")).empty());
  EXPECT_NE(out.find("\rKEEL has finished... "), std::string::npos);
}

TEST_F(EngineTest, RequestRenamingTheSummaryLeavesTheTailInSummaryTxt) {
  AddOneCopy();
  ASSERT_TRUE(WriteFile(dir.Sub("request.xml"),
                        "<request><file id=\"one\"/><file id=\"summary\"><name>report.txt</name>"
                        "</file></request>"));
  auto engine = Engine(dir.Sub("bundle.zip"), false, dir.Sub("request.xml"));
  ASSERT_EQ(RunQuietly(engine), 0u);
  EXPECT_EQ(BundleEntries(), (std::vector<std::string>{"a.log", "report.txt", "summary.txt"}));
  EXPECT_NE(BundleEntry("report.txt").find("One:\n\nFiles Included in Bundle:\n"),
            std::string::npos);
  // The request entry "one" was served, so the tail has no heading at all.
  EXPECT_EQ(BundleEntry("summary.txt"), "");
}

TEST_F(EngineTest, UnusableRequestFileStopsTheRun) {
  AddOneCopy();
  ASSERT_TRUE(WriteFile(dir.Sub("request.xml"), "<request>"));
  auto engine = Engine(dir.Sub("bundle.zip"), false, dir.Sub("request.xml"));
  ResultCode result = 0;
  const std::string out = RunEngine(engine, &result);
  EXPECT_EQ(result, KEELENGINE_ERROR_INVALID_XML);
  EXPECT_NE(out.find("\r\nInternal Error: invalid request XML, please contact your "
                     "administrator, or run in default mode\r\n"),
            std::string::npos);
  EXPECT_TRUE(ListDir(dir.Sub("work")).empty());
}

TEST(EngineSummaryTail, TailThatCannotBeWrittenWholeIsAWriteFailure) {
  // A file-size limit fails the writes past it as a full disk would.
  keeltest::TempDir dir(keeltest::BuildDir());
  const std::string summary = dir.Sub("summary.txt");
  ASSERT_TRUE(keeltest::WriteFile(summary, std::string(4096, 's')));
  auto engine = std::make_shared<KEELEngine>("", dir.path(), dir.Sub("b.zip"), "", false, false,
                                             true, WorkingIn(dir.Sub("work")));
  EXPECT_EQ(0u, engine->writeFailedFilesToSummary(summary));
  const int answer = keeltest::RunInChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4200, 4200};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
      return 3;
    return engine->writeFailedFilesToSummary(summary) == KEELENGINE_ERROR_WRITE_FAILURE ? 0 : 1;
  });
  EXPECT_EQ(0, answer);
}

}  // namespace
