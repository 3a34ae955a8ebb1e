// SPDX-License-Identifier: Apache-2.0
//
// Start-up and shut-down: counting, failure of every stage, flags, and the
// critical section.
#include "memstore/zovshmheap_private.h"
#include "support/faults.h"
#include "support/on_route.h"

namespace {

bool allocates() {
  return zov_getMem(8, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE) != nullptr;
}

TEST(Lifecycle, CountsItsUsersAndLeavesTheFlags) {
  EXPECT_STREQ(server_name, "unknown");
  zov_rdonly();
  zov_nodisk();
  zov_term();
  EXPECT_EQ(zov_inited, -1);
  EXPECT_FALSE(allocates());
  EXPECT_EQ(zov_createTagEx(nullptr, 0, ZOV_HERE), ZOV_NO_TAG);
  EXPECT_EQ(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE), ZOV_NO_SYNC);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_EQ(zov_inited, 0);
  EXPECT_FALSE(allocates()) << "an unmatched term keeps the library down";
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  EXPECT_EQ(zov_init(), ZOV_OKAY);
  zov_term();
  EXPECT_EQ(zov_inited, 1);
  EXPECT_TRUE(allocates()) << "one user is left";
  zov_term();
  EXPECT_EQ(zov_inited, 0);
  EXPECT_FALSE(allocates());
  EXPECT_TRUE(std::exchange(zov_readonly, 0) == 1 && std::exchange(zov_diskless, 0) == 1);
  EXPECT_TRUE(zov_background == 0 && zov_terminating == 0);
}

// Handles are not looked at before start-up, nor is what they point to.
TEST(Lifecycle, NothingWorksBeforeTheStart) {
  uint64_t words[] = {1, 2, 3, 4, 5, 6, 7, 8};
  const ZOV_TAG tag = reinterpret_cast<ZOV_TAG>(words);
  const ZOV_QUEUE queue = reinterpret_cast<ZOV_QUEUE>(words);
  zov_freeMem(&words[4], tag);
  zov_moveMemTag(nullptr, tag, ZOV_DEFAULT_TAG);
  zov_moveMemTag(&words[4], tag, ZOV_DEFAULT_TAG);
  zov_freeTagMemory(tag, 1);
  zov_resetTag(nullptr, tag);
  zov_queueClose(queue);
  zov_shmRemoveCtx(reinterpret_cast<ZOV_SHM_CTX>(words));
  EXPECT_EQ(zov_extendMem(&words[4], 9, tag, 0, 0, ZOV_HERE), nullptr);
  EXPECT_TRUE(zov_shmOpenCtx(tag, O_CREAT, 9, nullptr) == nullptr && zov_shmNextId() == 0);
  EXPECT_TRUE(zov_segSizeStat(tag) == UINT64_MAX && zov_queueCount(queue) == 0);
  EXPECT_TRUE(zov_currdir() == nullptr && zov_osTmpdir() == nullptr);
  EXPECT_TRUE(std::ranges::is_sorted(words));
}

TEST(Lifecycle, ASecondStartFindsNothingOfTheFirst) {
  const zovtest::TempDir dirs[2];
  char value[99];
  for (const zovtest::TempDir &dir : dirs) {
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    setenv("TMPDIR", dir.path().c_str(), 1);
    const zovtest::Fault late(zovtest::Call::pthread_mutex_lock, [](uint32_t lock) {
      lock == 1 ? std::thread(zov_osTmpdir).join() : void();
    });
    EXPECT_EQ(dir.path(), zov_osTmpdir());
    zovtest::writeFile(dirs[0] / "ini", "[s]\nab=" + dir.path());
    EXPECT_EQ(zov_iniGet((dirs[0] / "ini").c_str(), "s", "ab", value, sizeof value), ZOV_OKAY);
    EXPECT_EQ(dir.path(), value);
    EXPECT_EQ(zovtest::getFile("/m/f", ZOV_FILE_MEMORY), "(none)");
    EXPECT_TRUE(zovtest::putFile("/m/f", "text", ZOV_FILE_MEMORY));
    zov_term();
  }
}

TEST(Lifecycle, ConcurrentUsersShareOneStart) {
  int inside = 0;
  zovtest::onThreads(8, [&](uint32_t) {
    for (int round = 0; round < 500; ++round) {
      ASSERT_EQ(zov_enterCritSec(), 0);
      const int found = ++inside;
      std::this_thread::yield();
      ASSERT_EQ(inside, found) << "another thread was in the critical section";
      ASSERT_EQ(zov_exitCritSec(), 0);
      ASSERT_EQ(zov_init(), ZOV_OKAY);
      ASSERT_TRUE(allocates());
      zov_term();
    }
  });
  EXPECT_EQ(zov_inited, 0);
}

}  // namespace
