// The engine on a host that refuses threads: the run stops with one line,
// before any job runs, and leaves no working folder.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/FakeEnv.h"
#include "tests/support/TestSupport.h"
#include "tools/KEEL/KEELEngine/implementations/KEELEngine.h"
#include "tools/KEEL/KEELEngine/implementations/helperUtil.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

using keeltest::ListDir;
using keeltest::ReadFile;
using keeltest::TempDir;
using keeltest::WriteFile;

// In a child as the other user: no second thread may start from here on.
bool RefuseThreads() {
  const struct rlimit one = {1, 1};
  return setrlimit(RLIMIT_NPROC, &one) == 0;
}

// A folder the other user can write, below the build folder.
std::unique_ptr<TempDir> SharedTree() {
  std::unique_ptr<TempDir> dir(new TempDir(keeltest::BuildDir()));
  chmod(dir->path().c_str(), 0777);
  return dir;
}

std::string CopyConfig(const std::string& source) {
  return "<?xml version=\"1.0\"?>\n<config><configure><title>One</title></configure>\n"
         "<fileGroup treeRootName=\"One\"><title>One</title>\n<file id=\"one\"><description>"
         "copy one</description><default>true</default><keel><os opsys=\"linux\">"
         "<file_copy_action><action><loc>" +
         source + "</loc></action></file_copy_action></os></keel></file></fileGroup></config>\n";
}

TEST(EnginePoolConcurrency, RefusedThreadRunsNoJob) {
  std::unique_ptr<TempDir> dir = SharedTree();
  keeltest::FakeEnv host;
  host.EditPaths().workingFolder = dir->Sub("w");
  const int answer = keeltest::RunAsNobody([&] {
    auto engine = std::make_shared<KEELEngine>("", dir->path(), dir->Sub("b.zip"), "", false, false,
                                               true, &host);
    // Collected without a request, the config fails and would be named.
    KEELXmlLoader loader;
    XMLObjectList documents;
    loader.Load("<c><fileGroup><title>One</title></fileGroup></c>", KEELXmlLoader::kTypeText,
                documents);
    if (documents.empty())
      return 1;
    engine->adoptConfigDocument(new XMLObject(*documents.front()));
    if (!RefuseThreads())
      return 2;
    if (engine->collectAll(3) != THREAD_ERROR_CREATE_FAILED)
      return 3;
    return engine->failedConfigList().empty() ? 0 : 4;
  });
  EXPECT_EQ(0, answer);
}

TEST(EnginePoolConcurrency, RefusedPoolThreadEndsTheRunWithOneLineAndNoFolder) {
  std::unique_ptr<TempDir> dir = SharedTree();
  ASSERT_TRUE(WriteFile(dir->Sub("src/a.log"), "alpha\n"));
  ASSERT_TRUE(WriteFile(dir->Sub("xml/config/one.xml"), CopyConfig(dir->Sub("src/a.log"))));
  keeltest::FakeEnv host;
  host.EditPaths().workingFolder = dir->Sub("work/w");
  mkdir(dir->Sub("work").c_str(), 0700);
  chmod(dir->Sub("work").c_str(), 0777);
  const std::string console = dir->Sub("console.txt");
  const int answer = keeltest::RunAsNobody([&] {
    const int out = open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || dup2(out, STDOUT_FILENO) < 0)
      return 1;
    helperUtil::setCliMode(true);
    auto engine = std::make_shared<KEELEngine>("", dir->path(), dir->Sub("b.zip"), "", false, false,
                                               true, &host);
    if (!RefuseThreads())
      return 2;
    const ResultCode result = engine->runCollectorThreads();
    fflush(stdout);
    return result == THREAD_ERROR_CREATE_FAILED ? 0 : 3;
  });
  ASSERT_EQ(0, answer);
  const std::string text = ReadFile(console);
  EXPECT_NE(std::string::npos, text.find("\r\nInternal Error: failed to start a thread...\r\n"))
      << text;
  EXPECT_EQ(std::string::npos, text.find("KEEL has finished")) << text;
  EXPECT_TRUE(ListDir(dir->Sub("work")).empty());
  EXPECT_FALSE(keeltest::PathExists(dir->Sub("b.zip")));
}

}  // namespace
