// SPDX-License-Identifier: Apache-2.0
//
// The mapping cache: shared records, deletion while in use, and random
// operations against a model that knows which region must be unmapped when. The
// heap's calls beneath are replaced to see what is mapped.
#include <map>

#include "support/replace.h"
#include "support/test.h"

namespace {
std::vector<ZOV_SHM_REGION> unmapped;
}

REPLACE(void, zov_shmReleasePtr, (ZOV_SHM_REGION region, void *), unmapped.push_back(region);)

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

TEST_F(Cache, OpensShareOneRecord) {
  EXPECT_EQ(open(0), context);
  EXPECT_EQ(zov_shmCacheNumUsers(context), 2u);
  zov_shmCacheCloseCtx(context);
  EXPECT_EQ(zov_shmCacheNumUsers(context), 1u);
  void *root = nullptr;
  EXPECT_EQ(zov_shmCacheOpenCtx(id + 8, O_CREAT, 24, &root), nullptr);
  EXPECT_EQ(zov_shmCacheOpenCtx(zov_shmCacheNextId(), O_RDWR, 24, &root), nullptr);
}

// What becomes of its regions, the model of segmented files shows.
TEST_F(Cache, DeletedContextStaysForItsUsers) {
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

// The lock goes with the last record and comes again, also for who takes it from the
// heap.
TEST_F(Cache, LockIsThereForWhoComes) {
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

// What the cache must do with one region.
struct ModelRegion {
  ZOV_CACHE_REGION region = nullptr;
  void *address = nullptr;
  uint32_t opens = 0;
  uint32_t pins = 0;
  bool exists = false;
  bool mapped = false;
  bool doomed = false;
};

class Model {
 public:
  Model(ZOV_CACHE_CTX context, zovtest::Random &random) : context_(context), random_(random) {}

  void step(uint32_t choices) {
    const uint32_t number = static_cast<uint32_t>(random_() % regions_.size());
    ModelRegion &region = regions_[number];
    switch (random_() % choices) {
      case 0:
        return open(region, zov_shmCacheOpen(context_, number, 0, 8));
      case 1:
        region.exists = true;
        region.doomed = false;
        return open(region, zov_shmCacheCreate(context_, number, 0, 8));
      case 2:
        return close(number, region);
      case 3:
        return destroy(number, region);
      case 4:
        return release(region);
      default:
        return pin(region);
    }
  }

 private:
  void open(ModelRegion &region, ZOV_CACHE_REGION opened) {
    ASSERT_EQ(opened != nullptr, region.exists);
    if (opened != nullptr) {
      ASSERT_TRUE(region.opens == 0 || region.region == opened);
      region.region = opened;
      ++region.opens;
    }
  }

  void close(uint32_t number, ModelRegion &region) {
    if (region.opens == 0 || (region.opens == 1 && region.pins > 0)) {
      return;
    }
    zov_shmCacheClose(region.region);
    if (--region.opens > 0) {
      return;
    }
    expectUnmapped(region);
    if (region.doomed) {
      region = ModelRegion();
      ASSERT_EQ(zov_shmCacheOpen(context_, number, 0, 8), nullptr);
    }
  }

  void destroy(uint32_t number, ModelRegion &region) {
    zov_shmCacheDestroy(context_, number);
    if (region.opens > 0) {
      region.doomed = true;
    } else {
      region = ModelRegion();
    }
  }

  void expectUnmapped(ModelRegion &region) {
    if (region.mapped) {
      ASSERT_FALSE(unmapped.empty());
      EXPECT_EQ(unmapped.front(), region.address);
      unmapped.erase(unmapped.begin());
      std::erase(unpinned_, &region);
      region.mapped = false;
      --mapped_;
    }
  }

  void pin(ModelRegion &region) {
    if (region.opens == 0) {
      return;
    }
    region.address = zov_shmCacheGetPtr(region.region);
    ASSERT_NE(region.address, nullptr);
    if (!region.mapped) {
      while (mapped_ >= 400 && !unpinned_.empty()) {
        expectUnmapped(*unpinned_.back());
      }
      region.mapped = true;
      ++mapped_;
    }
    std::erase(unpinned_, &region);
    ++region.pins;
  }

  void release(ModelRegion &region) {
    if (region.pins > 0) {
      zov_shmCacheReleasePtr(region.region, region.address);
      if (--region.pins == 0) {
        unpinned_.push_back(&region);
      }
    }
  }

  ZOV_CACHE_CTX context_;
  zovtest::Random &random_;
  std::vector<ModelRegion> regions_ = std::vector<ModelRegion>(900);
  uint32_t mapped_ = 0;
  std::vector<ModelRegion *> unpinned_;  // but mapped, the last released last
};

// At first none is pinned, so that many are closed. Then three pins for one release: first there is
// always somebody to unmap, later all are pinned and the limit gives way.
TEST_F(Cache, RandomOperationsAgreeWithAModel) {
  zovtest::Random random;
  Model model(context, random);
  for (int step = 0; step < 60000; ++step) {
    ASSERT_NO_FATAL_FAILURE(model.step(step < 9000 ? 4 : 8)) << "at step " << step;
    ASSERT_TRUE(unmapped.empty()) << "unmapped out of turn at step " << step;
  }
}

}  // namespace
