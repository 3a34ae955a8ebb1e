// SPDX-License-Identifier: Apache-2.0
//
// The mapping cache: shared records, deletion while in use, and random
// operations against a model that knows which region must be unmapped when. The
// heap's calls beneath are replaced to see what is mapped.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "support/alloc_failure.h"
#include "zov.h"

namespace {

std::vector<ZOV_SHM_REGION> unmapped;

}  // namespace

extern "C" {
void __wrap_zov_shmReleasePtr(ZOV_SHM_REGION region, void *address);
void __wrap_zov_shmReleasePtr(ZOV_SHM_REGION region, void *) {
  unmapped.push_back(region);
}
}

namespace {

class Cache : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zov_init(), ZOV_OKAY);
    unmapped.clear();
    id = zov_shmCacheNextId();
    context = open(O_CREAT);
    ASSERT_NE(context, nullptr);
  }
  void TearDown() override { zov_term(); }

  ZOV_CACHE_CTX open(uint32_t flags) {
    void *root = nullptr;
    ZOV_CACHE_CTX opened = zov_shmCacheOpenCtx(id, flags, 24, &root);
    EXPECT_EQ(root != nullptr, opened != nullptr);
    return opened;
  }

  uint64_t id = 0;
  ZOV_CACHE_CTX context = nullptr;
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

TEST_F(Cache, DeletedContextStaysForItsUsers) {
  ZOV_CACHE_REGION mine = zov_shmCacheCreate(context, 0, 0, 100);
  zov_shmCacheMarkDeleted(context);
  EXPECT_EQ(zov_shmCacheIsDeleted(context), 1);
  ZOV_CACHE_CTX later = open(0);
  ASSERT_NE(later, nullptr);
  EXPECT_NE(later, context);
  EXPECT_EQ(zov_shmCacheIsDeleted(later), 0);

  // Neither record may take the region or the context from the other.
  ZOV_CACHE_REGION theirs = zov_shmCacheOpen(later, 0, 0, 100);
  ASSERT_NE(theirs, nullptr);
  zov_shmCacheDestroy(context, 0);
  zov_shmCacheClose(mine);
  zov_shmCacheCloseCtx(context);
  zov_shmCacheRemoveCtx(id);
  EXPECT_NE(zov_shmOpen(reinterpret_cast<ZOV_SHM_CTX>(id), 0, 0, 0), nullptr);
  *static_cast<char *>(zov_shmCacheGetPtr(theirs)) = 1;
  zov_shmCacheReleasePtr(theirs, nullptr);
  zov_shmCacheClose(theirs);
  EXPECT_EQ(zov_shmCacheOpen(later, 0, 0, 100), nullptr) << "destroyed with its last close";
  EXPECT_EQ(zov_shmCacheIsDeleted(later), 1);
  zov_shmCacheCloseCtx(later);
  EXPECT_EQ(open(O_CREAT), nullptr) << "removed with its last user";
}

TEST_F(Cache, NoMemoryLeavesNothingBehind) {
  const int64_t before = zovtest::liveBlocks();
  bool failed = true;
  for (uint32_t passing = 0; failed; ++passing) {
    zovtest::failAllocationAfter(passing);
    const uint64_t fresh = zov_shmCacheNextId();
    void *root = nullptr;
    ZOV_CACHE_CTX opened = fresh == 0 ? nullptr : zov_shmCacheOpenCtx(fresh, O_CREAT, 24, &root);
    ZOV_CACHE_REGION region = opened == nullptr ? nullptr : zov_shmCacheCreate(opened, 25, 0, 100);
    failed = zovtest::stopFailing();
    EXPECT_EQ(region == nullptr, failed);
    if (region != nullptr) {
      zov_shmCacheClose(region);
    }
    if (opened != nullptr) {
      zov_shmCacheCloseCtx(opened);
    }
    zov_shmCacheRemoveCtx(fresh);
    EXPECT_EQ(zovtest::liveBlocks(), before);
  }
}

// What the cache must do with one region.
struct ModelRegion {
  ZOV_CACHE_REGION region = nullptr;
  void *address = nullptr;
  uint32_t opens = 0;
  uint32_t pins = 0;
  uint64_t releasedAt = 0;
  bool exists = false;
  bool mapped = false;
  bool doomed = false;
};

class Model {
 public:
  Model(ZOV_CACHE_CTX context, std::mt19937 &random) : context_(context), random_(random) {}

  void step() {
    const uint32_t number = static_cast<uint32_t>(random_() % regions_.size());
    ModelRegion &region = regions_[number];
    switch (random_() % 8) {
      case 0:
        open(number, region);
        break;
      case 1:
        create(number, region);
        break;
      case 2:
        close(number, region);
        break;
      case 3:
        destroy(number, region);
        break;
      case 4:
        release(region);
        break;
      default:
        pin(region);
        break;
    }
    ASSERT_TRUE(unmapped.empty()) << "unmapped out of turn";
  }

 private:
  void open(uint32_t number, ModelRegion &region) {
    ZOV_CACHE_REGION opened = zov_shmCacheOpen(context_, number, 0, 8);
    ASSERT_EQ(opened != nullptr, region.exists);
    count(region, opened);
  }

  void create(uint32_t number, ModelRegion &region) {
    count(region, zov_shmCacheCreate(context_, number, 0, 8));
    region.exists = true;
    region.doomed = false;
  }

  void count(ModelRegion &region, ZOV_CACHE_REGION opened) {
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

  // The victims, last released first, until there is room or none is left.
  void evict() {
    while (mapped_ >= 400) {
      ModelRegion *victim = nullptr;
      for (ModelRegion &candidate : regions_) {
        const bool free = candidate.mapped && candidate.pins == 0;
        if (free && (victim == nullptr || candidate.releasedAt > victim->releasedAt)) {
          victim = &candidate;
        }
      }
      if (victim == nullptr) {
        return;
      }
      expectUnmapped(*victim);
    }
  }

  void expectUnmapped(ModelRegion &region) {
    if (!region.mapped) {
      return;
    }
    ASSERT_FALSE(unmapped.empty());
    EXPECT_EQ(unmapped.front(), region.address);
    unmapped.erase(unmapped.begin());
    region.mapped = false;
    --mapped_;
  }

  void pin(ModelRegion &region) {
    if (region.opens == 0) {
      return;
    }
    region.address = zov_shmCacheGetPtr(region.region);
    ASSERT_NE(region.address, nullptr);
    if (!region.mapped) {
      evict();
      region.mapped = true;
      ++mapped_;
    }
    ++region.pins;
  }

  void release(ModelRegion &region) {
    if (region.pins > 0) {
      zov_shmCacheReleasePtr(region.region, region.address);
      --region.pins;
      region.releasedAt = ++clock_;
    }
  }

  ZOV_CACHE_CTX context_;
  std::mt19937 &random_;
  std::vector<ModelRegion> regions_ = std::vector<ModelRegion>(900);
  uint32_t mapped_ = 0;
  uint64_t clock_ = 0;
};

// Three pins for one release: first there is always somebody to unmap, later all
// are pinned and the limit gives way.
TEST_F(Cache, RandomOperationsAgreeWithAModel) {
  const uint32_t seed = std::random_device{}();
  printf("seed %u\n", seed);
  std::mt19937 random(seed);
  Model model(context, random);
  for (int step = 0; step < 60000; ++step) {
    model.step();
    if (HasFatalFailure()) {
      FAIL() << "at step " << step;
    }
  }
}

// Threads that share contexts and regions, each holding the context's lock for
// what needs it. The last one to leave a deleted context removes it.
TEST_F(Cache, ThreadsShareRegions) {
  std::vector<std::thread> threads;
  for (uint32_t index = 0; index < 4; ++index) {
    threads.emplace_back([this, index] {
      for (uint32_t round = 0; round < 500; ++round) {
        ZOV_CACHE_CTX mine = open(0);
        ASSERT_EQ(zov_shmCacheLock(mine), ZOV_OKAY);
        ZOV_CACHE_REGION region = zov_shmCacheCreate(mine, (round + index) % 7, 0, 64);
        char *bytes = static_cast<char *>(zov_shmCacheGetPtr(region));
        ++bytes[0];
        zov_shmCacheReleasePtr(region, bytes);
        zov_shmCacheDestroy(mine, round % 5);
        zov_shmCacheClose(region);
        zov_shmCacheUnlock(mine);
        zov_shmCacheCloseCtx(mine);
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(zov_shmCacheNumUsers(context), 1u);
}

}  // namespace
