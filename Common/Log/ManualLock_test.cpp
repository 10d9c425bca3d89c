#include "Common/Log/ManualLock.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

TEST(ManualLock, TakenTwiceNeedsTwoUnlocksAndAThirdIsANoOp) {
  CManualLock lock(500);
  lock.Lock();
  lock.Lock();
  EXPECT_EQ(lock.Unlock(), 1u);
  EXPECT_EQ(lock.Unlock(), 0u);
  EXPECT_EQ(lock.Unlock(), 0u);
  // The mutex is free again: another thread can take it.
  std::atomic<bool> taken{false};
  std::thread other([&] {
    taken = lock.TryLock();
    if (taken)
      lock.Unlock();
  });
  other.join();
  EXPECT_TRUE(taken);
}

TEST(ManualLock, TryLockFailsWhileAnotherThreadHoldsIt) {
  CManualLock lock(500);
  lock.Lock();
  std::atomic<bool> taken{true};
  std::thread other([&] { taken = lock.TryLock(); });
  other.join();
  EXPECT_FALSE(taken);
  EXPECT_TRUE(lock.TryLock());  // recursive for the owner
  EXPECT_EQ(lock.Unlock(), 1u);
  EXPECT_EQ(lock.Unlock(), 0u);
}

TEST(ManualLock, DestructorReleasesHeldLock) {
  auto* lock = new CManualLock(500);
  lock->Lock();
  lock->Lock();
  delete lock;  // must not hang or abort
  SUCCEED();
}

}  // namespace
