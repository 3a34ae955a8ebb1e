// SPDX-License-Identifier: Apache-2.0
//
// The mapping cache: shared records, deletion while in use, and which region is
// unmapped when. The heap's call beneath is replaced to see that; a region holds its
// number. What becomes of regions that several have open, the model of segmented
// files shows.
#include "support/replace.h"
#include "support/test.h"

namespace {
std::vector<uint32_t> unmapped;
}

REPLACE(void, zov_shmReleasePtr, (ZOV_SHM_REGION, void *address),
        unmapped.push_back(*static_cast<uint32_t *>(address));)

namespace {

class Cache : public zovtest::Started {
 protected:
  ZOV_CACHE_CTX open(uint32_t flags) {
    void *root = nullptr;
    ZOV_CACHE_CTX opened = zov_shmCacheOpenCtx(id, flags, 24, &root);
    EXPECT_EQ(root != nullptr, opened != nullptr);
    return opened;
  }

  uint64_t id = (unmapped.clear(), zov_shmCacheNextId());
  ZOV_CACHE_CTX context = open(O_CREAT);
};

TEST_F(Cache, DeletedContextStaysForItsUsers) {
  EXPECT_EQ(open(0), context);
  EXPECT_EQ(zov_shmCacheNumUsers(context), 2u);
  zov_shmCacheCloseCtx(context);
  zov_shmCacheMarkDeleted(context);
  ZOV_CACHE_CTX later = open(0);
  EXPECT_NE(later, context);
  EXPECT_EQ(zov_shmCacheIsDeleted(context) - zov_shmCacheIsDeleted(later), 1);
  zov_shmCacheCloseCtx(context);
  zov_shmCacheRemoveCtx(id);
  EXPECT_EQ(zov_shmCacheIsDeleted(later), 1);
  EXPECT_NE(zov_shmCacheCreate(later, 0, 0, 100), nullptr) << "neither takes it from the other";
  zov_shmCacheCloseCtx(later);
  EXPECT_EQ(open(O_CREAT), nullptr) << "removed with its last user";
}

// The lock goes with the last record and comes again, also for a thread that takes it
// from the heap.
TEST_F(Cache, LockIsThereForEveryThread) {
  ZOV_SHM_CTX heap = reinterpret_cast<ZOV_SHM_CTX>(id);
  uint32_t counted = 0;
  zov_shmCacheCloseCtx(context);
  zovtest::onThreads(4, [&](uint32_t thread) {
    for (int round = 0; round < 2000; ++round) {
      ZOV_CACHE_CTX opened = thread % 2 == 0 ? nullptr : open(0);
      EXPECT_EQ(opened == nullptr ? zov_shmLock(heap) : zov_shmCacheLock(opened), ZOV_OKAY);
      ++counted;
      opened == nullptr ? zov_shmUnlock(heap) : zov_shmCacheUnlock(opened);
      opened == nullptr ? void() : zov_shmCacheCloseCtx(opened);
    }
  });
  EXPECT_EQ(counted, 8000u);
}

// At most 400 are mapped, more only while all are pinned.
TEST_F(Cache, RegionReleasedLastMakesRoom) {
  std::vector<ZOV_CACHE_REGION> regions;
  const auto pinUpTo = [&](uint32_t end) {
    for (uint32_t number = static_cast<uint32_t>(regions.size()); number < end; ++number) {
      regions.push_back(zov_shmCacheCreate(context, number, 0, 8));
      *static_cast<uint32_t *>(zov_shmCacheGetPtr(regions.back())) = number;
    }
  };
  const auto release = [&](const std::vector<uint32_t> &numbers) {
    for (uint32_t number : numbers) {
      zov_shmCacheReleasePtr(regions[number], nullptr);
    }
  };
  pinUpTo(400);
  release({4, 5, 6, 7, 8, 9});
  for (uint32_t again : {4u, 7u, 9u, 9u}) {
    zov_shmCacheGetPtr(regions[again]);
  }
  release({9, 9});
  EXPECT_EQ(zov_shmCacheOpen(context, 6, 0, 8), regions[6]);
  zov_shmCacheDestroy(context, 6);
  zov_shmCacheClose(regions[6]);
  EXPECT_EQ(unmapped, std::vector<uint32_t>()) << "it is open once more";
  zov_shmCacheClose(regions[6]);
  EXPECT_EQ(zov_shmCacheOpen(context, 6, 0, 8), nullptr);
  pinUpTo(401);
  EXPECT_EQ(unmapped, std::vector<uint32_t>({6}));
  pinUpTo(406);
  release({404});
  pinUpTo(407);
  release({401, 402, 403});
  pinUpTo(408);
  EXPECT_EQ(unmapped, std::vector<uint32_t>({6, 9, 8, 5, 404, 403, 402, 401}));
}

}  // namespace
