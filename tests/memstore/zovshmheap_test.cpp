// SPDX-License-Identifier: Apache-2.0
//
// The heap: contexts and their root blocks, regions by number, what a lack of
// memory leaves behind, and threads that make and remove contexts.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/alloc_failure.h"
#include "zov.h"

namespace {

class Heap : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    id = zov_shmNextId();
    context = zov_shmOpenCtx(id, O_CREAT, 24, &root);
    ASSERT_NE(context, nullptr);
  }
  void TearDown() override { zov_term(); }

  uint64_t id = 0;
  void *root = nullptr;
  ZOV_SHM_CTX context = nullptr;
};

bool isZero(const void *memory, size_t size) {
  const char *bytes = static_cast<const char *>(memory);
  return std::all_of(bytes, bytes + size, [](char byte) { return byte == 0; });
}

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
  EXPECT_TRUE(isZero(block, 100));
  memset(block, 1, 100);

  void *again = nullptr;
  EXPECT_EQ(zov_shmOpenCtx(fresh, O_CREAT, 5000, &again), opened);
  EXPECT_EQ(again, block);
  again = this;
  EXPECT_EQ(zov_shmOpenCtx(fresh, 0, 0, &again), opened);
  EXPECT_EQ(again, this) << "a size of 0 asks for no address";
  EXPECT_EQ(zov_shmOpenCtx(fresh, 0, 24, nullptr), opened);
  EXPECT_EQ(zov_shmLock(opened), ZOV_OKAY);
  zov_shmUnlock(opened);
}

TEST_F(Heap, OnlyLiveIdsOpen) {
  EXPECT_NE(zov_shmRootId(), 0u);
  EXPECT_NE(zov_shmRootId(), id);
  EXPECT_EQ(zov_shmOpenCtx(0, O_CREAT, 24, &root), nullptr);
  EXPECT_EQ(zov_shmOpenCtx(id + 1, O_CREAT, 24, &root), nullptr);
  EXPECT_EQ(zov_shmOpenCtx(UINT64_MAX, O_CREAT, 24, &root), nullptr);
  zov_shmRemoveCtx(context);
  EXPECT_EQ(zov_shmOpenCtx(id, O_CREAT, 24, &root), nullptr);
  zov_shmRemoveCtx(context);
  zov_shmRemoveCtx(nullptr);
}

TEST_F(Heap, RegionsGoByNumber) {
  EXPECT_EQ(zov_shmOpen(context, 0, 0, 64), nullptr);
  ZOV_SHM_REGION seven = zov_shmCreate(context, 7, 0, 64);
  ASSERT_NE(seven, nullptr);
  EXPECT_TRUE(isZero(zov_shmGetPtr(seven), 64));
  EXPECT_EQ(zov_shmGetPtr(seven), seven);
  EXPECT_EQ(zov_shmOpen(context, 3, 0, 64), nullptr);
  EXPECT_EQ(zov_shmOpen(context, 8, 0, 64), nullptr);
  EXPECT_EQ(zov_shmOpen(context, 7, 0, 64), seven);

  ZOV_SHM_REGION newer = zov_shmCreate(context, 7, 0, 4096);
  EXPECT_NE(newer, seven) << "the old region stays allocated";
  EXPECT_EQ(zov_shmOpen(context, 7, 0, 64), newer);
  zov_shmDestroy(context, 7);
  EXPECT_EQ(zov_shmOpen(context, 7, 0, 64), nullptr);
  zov_shmDestroy(context, 7);
  zov_shmDestroy(context, 4000000000);
  EXPECT_EQ(zov_shmCreate(context, UINT32_MAX, 0, 64), nullptr);

  EXPECT_EQ(zov_shmCreate(nullptr, 0, 0, 64), nullptr);
  EXPECT_EQ(zov_shmOpen(nullptr, 0, 0, 64), nullptr);
  zov_shmDestroy(nullptr, 0);
}

TEST_F(Heap, RemovalReleasesAllMemory) {
  const int64_t before = zovtest::liveBlocks();
  for (int round = 0; round < 3; ++round) {
    const uint64_t fresh = zov_shmNextId();
    ZOV_SHM_CTX opened = zov_shmOpenCtx(fresh, O_CREAT, 24, nullptr);
    for (uint32_t number = 0; number < 40; number += 1 + number % 3) {
      ASSERT_NE(zov_shmCreate(opened, number, 0, 10), nullptr);
    }
    zov_shmRemoveCtx(opened);
  }
  EXPECT_EQ(zovtest::liveBlocks(), before);
}

TEST_F(Heap, NoMemoryForAContext) {
  const int64_t before = zovtest::liveBlocks();
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    zovtest::failAllocationAfter(passing);
    const uint64_t fresh = zov_shmNextId();
    ZOV_SHM_CTX opened = zov_shmOpenCtx(fresh, O_CREAT, 24, nullptr);
    failed = zovtest::stopFailing();
    EXPECT_EQ(opened == nullptr, failed);
    zov_shmRemoveCtx(reinterpret_cast<ZOV_SHM_CTX>(fresh));
    EXPECT_EQ(zovtest::liveBlocks(), before);
  }
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

TEST_F(Heap, ThreadsMakeAndRemoveContexts) {
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([] {
      std::vector<uint64_t> ids;
      for (int round = 0; round < 300; ++round) {
        ids.push_back(zov_shmNextId());
        void *mine = nullptr;
        ASSERT_NE(zov_shmOpenCtx(ids.back(), O_CREAT, 24, &mine), nullptr);
        *static_cast<uint64_t *>(mine) = ids.back();
        if (round % 3 == 0) {
          zov_shmRemoveCtx(reinterpret_cast<ZOV_SHM_CTX>(ids[ids.size() / 2]));
          ids.erase(ids.begin() + static_cast<std::ptrdiff_t>(ids.size() / 2));
        }
      }
      for (uint64_t each : ids) {
        void *mine = nullptr;
        ASSERT_NE(zov_shmOpenCtx(each, 0, 24, &mine), nullptr);
        EXPECT_EQ(*static_cast<uint64_t *>(mine), each);
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
}

}  // namespace
