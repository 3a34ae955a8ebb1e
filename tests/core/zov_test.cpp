// SPDX-License-Identifier: Apache-2.0
//
// Start-up and shut-down: counting, failure of every stage, flags, and the
// critical section.
#include <gtest/gtest.h>

#include <thread>

#include "support/alloc_failure.h"
#include "zov.h"

namespace {

TEST(Lifecycle, CountsItsUsers) {
  EXPECT_EQ(zov_inited, 0);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  zov_term();
  EXPECT_EQ(zov_inited, 1);
  void *block = zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
  EXPECT_NE(block, nullptr) << "one user is left";
  zov_term();
  EXPECT_EQ(zov_inited, 0);
  EXPECT_EQ(zov_terminating, 0);
  EXPECT_EQ(zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE), nullptr);
}

TEST(Lifecycle, UnmatchedTermKeepsTheLibraryDown) {
  zov_term();
  EXPECT_EQ(zov_inited, -1);
  EXPECT_EQ(zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE), nullptr);
  EXPECT_EQ(zov_createTagEx(nullptr, 0, ZOV_HERE), ZOV_NO_TAG);
  EXPECT_EQ(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE), ZOV_NO_SYNC);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_EQ(zov_inited, 0) << "nothing was started";
  EXPECT_EQ(zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE), nullptr);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_NE(zov_getMem(1, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE), nullptr);
  zov_term();
}

// Fails the first allocation of start-up, then the second, and so on until
// start-up succeeds. Each failure must leave nothing behind and not spoil the
// next attempt.
TEST(Lifecycle, FailureAtAnyAllocationUndoesStartUp) {
  ASSERT_EQ(zov_init(), ZOV_OKAY);  // lets libc make what it keeps
  zov_term();
  uint32_t passing = 0;
  int32_t status = ZOV_ERROR;
  while (status != ZOV_OKAY) {
    ASSERT_LT(passing, 200u);
    const int64_t before = zovtest::liveBlocks();
    zovtest::failAllocationAfter(passing++);
    status = zov_init();
    const bool failed = zovtest::stopFailing();
    if (status != ZOV_OKAY) {
      EXPECT_TRUE(failed);
      EXPECT_EQ(status, ZOV_ERROR);
      EXPECT_EQ(zov_inited, 0);
      EXPECT_EQ(zov_terminating, 0);
      EXPECT_EQ(zovtest::liveBlocks(), before) << "after failing allocation " << passing;
    }
  }
  EXPECT_GT(passing, 2u) << "start-up allocates in several stages";
  zov_term();
}

TEST(Lifecycle, TermReleasesEverything) {
  const int64_t before = zovtest::liveBlocks();
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  for (int count = 0; count < 100; ++count) {
    ASSERT_NE(
        zov_getMem(100, count % 2 == 0 ? tag : ZOV_DEFAULT_TAG, ZOV_MEM_ZERO, nullptr, ZOV_HERE),
        nullptr);
    ASSERT_NE(zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE), ZOV_NO_SYNC);
  }
  zov_term();
  EXPECT_EQ(zovtest::liveBlocks(), before);
}

TEST(Lifecycle, ConcurrentUsersShareOneStart) {
  std::thread threads[8];
  for (std::thread &thread : threads) {
    thread = std::thread([] {
      for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(zov_init(), ZOV_OKAY);
        void *block = zov_getMem(8, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
        ASSERT_NE(block, nullptr);
        zov_freeMem(block, ZOV_DEFAULT_TAG);
        zov_term();
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(zov_inited, 0);
}

TEST(Flags, AreSetForGood) {
  EXPECT_STREQ(server_name, "unknown");
  zov_rdonly();
  zov_nodisk();
  EXPECT_EQ(zov_readonly, 1);
  EXPECT_EQ(zov_diskless, 1);
  EXPECT_EQ(zov_background, 0);
  ASSERT_EQ(zov_init(), ZOV_OKAY);
  zov_term();
  EXPECT_EQ(zov_readonly, 1);
  EXPECT_EQ(zov_diskless, 1);
}

TEST(CriticalSection, KeepsOthersOut) {
  int inside = 0;
  EXPECT_EQ(zov_enterCritSec(), 0);
  std::thread other([&] {
    EXPECT_EQ(zov_enterCritSec(), 0);
    EXPECT_EQ(inside, 1) << "entered while another thread was inside";
    EXPECT_EQ(zov_exitCritSec(), 0);
  });
  inside = 1;
  EXPECT_EQ(zov_exitCritSec(), 0);
  other.join();
}

}  // namespace
