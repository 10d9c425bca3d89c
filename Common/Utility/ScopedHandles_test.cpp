#include "Common/Utility/ScopedHandles.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

int OpenNull() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(ScopedFd, ClosesItsDescriptorOnDestruction) {
  int fd = -1;
  {
    ScopedFd owner(OpenNull());
    fd = owner.get();
    ASSERT_TRUE(owner.valid());
    EXPECT_TRUE(IsOpen(fd));
  }
  errno = 0;
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ(errno, EBADF);
}

TEST(ScopedFd, ReleaseGivesTheDescriptorUpOpen) {
  ScopedFd owner(OpenNull());
  const int fd = owner.release();
  EXPECT_FALSE(owner.valid());
  EXPECT_TRUE(IsOpen(fd));
  close(fd);
}

TEST(ScopedFd, ResetClosesTheOldOneAndHoldsTheNew) {
  ScopedFd owner(OpenNull());
  const int first = owner.get();
  const int second = OpenNull();
  owner.reset(second);
  EXPECT_EQ(owner.get(), second);
  // The number may be handed out again at once, so only the new one is
  // known to be open.
  EXPECT_TRUE(IsOpen(second));
  EXPECT_NE(first, -1);
}

TEST(ScopedFd, MovingLeavesTheSourceEmptyAndClosesOnce) {
  ScopedFd source(OpenNull());
  const int fd = source.get();
  {
    ScopedFd target(std::move(source));
    EXPECT_FALSE(source.valid());
    EXPECT_EQ(target.get(), fd);
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(MappedRegion, UnmapsOnDestructionAndMoves) {
  const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(data, MAP_FAILED);
  unsigned char present = 0;
  {
    MappedRegion first(data, size);
    MappedRegion second(std::move(first));
    EXPECT_EQ(first.data(), nullptr);
    EXPECT_EQ(first.size(), 0u);
    EXPECT_EQ(second.data(), static_cast<const char*>(data));
    EXPECT_EQ(mincore(data, size, &present), 0);
  }
  // An unmapped page is refused with ENOMEM.
  errno = 0;
  EXPECT_EQ(mincore(data, size, &present), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(FileHandle, ClosesItsStream) {
  keeltest::TempDir dir;
  int fd = -1;
  {
    FileHandle file(fopen(dir.Sub("f").c_str(), "we"));
    ASSERT_TRUE(file);
    fd = fileno(file.get());
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(DirHandle, ClosesItsFolder) {
  keeltest::TempDir dir;
  int fd = -1;
  {
    DirHandle folder(opendir(dir.path().c_str()));
    ASSERT_TRUE(folder);
    fd = dirfd(folder.get());
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

}  // namespace
