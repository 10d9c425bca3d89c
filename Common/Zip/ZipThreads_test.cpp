// Zipping on a host that refuses threads: the archive fails with the
// reason, and neither the archive nor its unfinished file is left.
#include <sys/resource.h>
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>

#include "Common/Zip/CZip.h"
#include "tests/support/TestSupport.h"

namespace {

using keeltest::ListDir;
using keeltest::TempDir;
using keeltest::WriteFile;

TEST(ZipWorkersConcurrency, RefusedWorkerFailsTheArchiveAndLeavesNoFile) {
  TempDir dir(keeltest::BuildDir());
  chmod(dir.path().c_str(), 0777);
  ASSERT_TRUE(WriteFile(dir.Sub("src/a.log"), "alpha\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("src/b.log"), "beta\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("out/keep.txt"), "keep\n"));
  chmod(dir.Sub("src").c_str(), 0755);
  chmod(dir.Sub("out").c_str(), 0777);
  const std::string archive = dir.Sub("out/b.zip");
  const int answer = keeltest::RunAsNobody([&] {
    const struct rlimit one = {1, 1};
    if (setrlimit(RLIMIT_NPROC, &one) != 0)
      return 1;
    const ResultCode result = CZip::Zip(dir.Sub("src"), archive, "", true, 2);
    return result == THREAD_ERROR_CREATE_FAILED ? 0 : 2;
  });
  EXPECT_EQ(0, answer);
  EXPECT_EQ(std::vector<std::string>{"keep.txt"}, ListDir(dir.Sub("out")));
}

}  // namespace
