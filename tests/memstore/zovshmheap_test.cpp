// SPDX-License-Identifier: Apache-2.0
//
// The heap: contexts and their root blocks, regions by number, and what a lack
// of memory leaves behind.
#include "support/faults.h"

namespace {

class Heap : public zovtest::Started {
 protected:
  uint64_t id = zov_shmNextId();
  void *root = nullptr;
  ZOV_SHM_CTX context = zov_shmOpenCtx(id, O_CREAT, 24, &root);
};

TEST_F(Heap, FirstCreatingOpenMakesTheRootBlock) {
  const uint64_t fresh = zov_shmNextId();
  void *block = this;
  EXPECT_EQ(zov_shmOpenCtx(fresh, O_RDWR, 24, &block), nullptr);
  EXPECT_EQ(zov_shmLock(reinterpret_cast<ZOV_SHM_CTX>(fresh)), ZOV_ERROR);
  EXPECT_EQ(zov_shmOpenCtx(fresh, O_CREAT, 0, &block), nullptr) << "a root block of no size";
  EXPECT_EQ(block, this);
  ZOV_SHM_CTX opened = zov_shmOpenCtx(fresh, O_CREAT, 100, &block);
  EXPECT_EQ(reinterpret_cast<uint64_t>(opened), fresh);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::string(static_cast<char *>(block), 100), std::string(100, '\0'));

  void *again = nullptr;
  EXPECT_EQ(zov_shmOpenCtx(fresh, O_CREAT, 5000, &again), opened);
  EXPECT_EQ(again, block);
  again = this;
  EXPECT_EQ(zov_shmOpenCtx(fresh, 0, 0, &again), opened);
  EXPECT_EQ(again, this) << "a size of 0 asks for no address";
  zov_shmRemoveCtx(opened);
  for (uint64_t dead : {uint64_t{0}, fresh, fresh + 1, UINT64_MAX}) {
    EXPECT_EQ(zov_shmOpenCtx(dead, O_CREAT, 24, &root), nullptr);
  }
  zov_shmRemoveCtx(opened);
}

TEST_F(Heap, RegionsGoByNumber) {
  ZOV_SHM_REGION seven = zov_shmCreate(context, 7, 0, 64);
  ASSERT_NE(seven, nullptr);
  EXPECT_EQ(std::string(static_cast<char *>(zov_shmGetPtr(seven)), 64), std::string(64, '\0'));
  for (uint32_t missing : {3u, 8u, UINT32_MAX}) {
    EXPECT_EQ(zov_shmOpen(context, missing, 0, 64), nullptr);
  }
  EXPECT_EQ(zov_shmOpen(context, 7, 0, 64), seven);
  ZOV_SHM_REGION newer = zov_shmCreate(context, 7, 0, 4096);
  EXPECT_NE(newer, seven) << "the old region stays allocated";
  EXPECT_EQ(zov_shmOpen(context, 7, 0, 64), newer);
  for (uint32_t number : {7u, 7u, 4000000000u}) {
    zov_shmDestroy(context, number);
    EXPECT_EQ(zov_shmOpen(context, number, 0, 64), nullptr);
  }
  EXPECT_EQ(zov_shmCreate(context, UINT32_MAX, 0, 64), nullptr);
  EXPECT_EQ(zov_shmCreate(nullptr, 0, 0, 64), nullptr);
  EXPECT_EQ(zov_shmOpen(nullptr, 0, 0, 64), nullptr);
  zov_shmDestroy(nullptr, 0);
}

TEST_F(Heap, NoMemoryForTheTableLosesTheRegions) {
  ASSERT_NE(zov_shmCreate(context, 0, 0, 64), nullptr);
  zovtest::failAllocationAfter(1);
  EXPECT_EQ(zov_shmCreate(context, 1, 0, 64), nullptr) << "the region itself";
  EXPECT_TRUE(zovtest::stopFailing());
  EXPECT_NE(zov_shmOpen(context, 0, 0, 64), nullptr);
  zovtest::failAllocationAfter(0);
  EXPECT_EQ(zov_shmCreate(context, 2, 0, 64), nullptr) << "the table";
  EXPECT_TRUE(zovtest::stopFailing());
  EXPECT_EQ(zov_shmOpen(context, 0, 0, 64), nullptr);
}

// Without the cache nobody drops a lock; with it nobody drops one that is held.
TEST_F(Heap, LocksAreForContextsInUse) {
  const int64_t slots = zovtest::standing().slots;
  const auto openAndClose = [this] { zov_shmCacheCloseCtx(zov_shmCacheOpenCtx(id, 0, 24, &root)); };
  EXPECT_EQ(zov_shmLock(context), ZOV_OKAY);
  openAndClose();
  EXPECT_EQ(zovtest::standing().slots, slots);
  zov_shmUnlock(context);
  openAndClose();
  EXPECT_EQ(zovtest::standing().slots, slots - 1);
  EXPECT_EQ(zov_shmLock(context), ZOV_OKAY);
  zov_shmUnlock(context);
  EXPECT_EQ(zovtest::standing().slots, slots);
  zov_shmRemoveCtx(context);
  EXPECT_EQ(zovtest::standing().slots, slots - 1);
}

// It can from the 300th context on, and again.
TEST_F(Heap, AnIndexThatCannotGrowIsNotReported) {
  int failed = 0;
  const std::string output = zovtest::outputOf([&] {
    for (int number = 0; number < 900; ++number) {
      zovtest::failAllocationAfter(number < 300 ? 2 : 9);
      EXPECT_NE(zov_shmNextId(), 0u);
      failed += zovtest::stopFailing() ? 1 : 0;
    }
  });
  EXPECT_GT(failed, 100);
  EXPECT_EQ(output, "");
}

}  // namespace
