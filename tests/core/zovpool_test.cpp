// SPDX-License-Identifier: Apache-2.0
//
// Pools: what is given out again, what goes back to the tag, shortages, and
// chunks that wander between pools and threads.
#include <setjmp.h>

#include <deque>
#include <string_view>

#include "support/faults.h"

namespace {

using zovtest::outputOf;

using Pool = zovtest::Started;

char *get(ZOV_POOL pool, uint64_t size) {
  return static_cast<char *>(zov_getMemFromPool(size, pool, ZOV_MEM_PLAIN, nullptr, "caller", 7));
}

TEST_F(Pool, ReusesWhatIsLargeEnough) {
  ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, 0, 0);
  char *chunk = get(pool, 100);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk) % 16, 0u);
  memset(chunk, 'x', 100);
  zov_putInPool(chunk, pool);
  EXPECT_EQ(zov_getMemFromPool(50, pool, ZOV_MEM_ZERO, nullptr, ZOV_HERE), chunk);
  EXPECT_EQ(std::string(chunk, 51), std::string(50, '\0') + 'x') << "cleared as far as asked";
  zov_putInPool(chunk, pool);
  const int64_t before = zovtest::liveBlocks();
  const std::string source(200, 'c');
  chunk = static_cast<char *>(zov_getMemFromPool(200, pool, ZOV_MEM_COPY, source.data(), ZOV_HERE));
  EXPECT_EQ(zovtest::liveBlocks(), before) << "the small chunk was given up";
  EXPECT_EQ(std::string(chunk, 200), source);
}

// Chunks and what they were made for, those that are free as a stack.
TEST_F(Pool, AgreesWithAModel) {
  zovtest::Random random;
  for (const int32_t fixedSize : {0, 1}) {
    ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, fixedSize, 0);
    std::vector<std::pair<char *, uint64_t>> out;
    std::vector<std::pair<char *, uint64_t>> free;
    for (int step = 0; step < 20000; ++step) {
      if (out.empty() || random.below(2) == 0) {
        out.emplace_back(nullptr, random.below(100));
        out.back().first = get(pool, out.back().second);
        if (!free.empty() && (fixedSize != 0 || free.back().second >= out.back().second)) {
          ASSERT_EQ(out.back().first, free.back().first) << "step " << step;
          out.back().second = free.back().second;
        }
        free.resize(free.size() - (free.empty() ? 0 : 1));
      } else {
        std::swap(out.back(), out[random.below(out.size())]);
        free.push_back(out.back());
        zov_putInPool(out.back().first, pool);
        out.pop_back();
      }
    }
  }
}

TEST_F(Pool, KeepsAThousandFreeChunks) {
  const int64_t empty = zovtest::liveBlocks();
  ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, 1, 0);
  char *chunks[1002];
  for (char *&chunk : chunks) {
    chunk = get(pool, 8);
  }
  const int64_t full = zovtest::liveBlocks();
  for (char *chunk : chunks) {
    zov_putInPool(chunk, pool);
  }
  EXPECT_EQ(zovtest::liveBlocks(), full - 2);
  EXPECT_EQ(get(pool, 9), chunks[999]) << "put in last, of whatever size";
  zov_putInPool(chunks[999], pool);
  zov_zFreePool(&pool);
  EXPECT_EQ(pool, nullptr);
  EXPECT_EQ(zovtest::liveBlocks(), empty);
}

// The chunk changes hands wholly: what becomes of its first tag is nothing to
// it any more.
TEST_F(Pool, AdoptsTheChunksOfOthers) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  ZOV_POOL mine = zov_allocPool(ZOV_DEFAULT_TAG, 1, 0);
  char *chunk = get(zov_allocPool(tag, 1, 0), 16);
  EXPECT_EQ(outputOf([&] { zov_putInPool(chunk, mine); }),
            "Attempting to put a memory chunk into a pool that didn't create it\n");
  zov_freeTagMemory(tag, 1);
  EXPECT_EQ(get(mine, 16), chunk);
  memset(chunk, 'y', 16);
  EXPECT_EQ(outputOf([&] { zov_putInPool(chunk, mine); }), "") << "it is at home now";
  zov_zFreePool(&mine);
}

TEST_F(Pool, ShortageIsTheTagsBusiness) {
  ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, 0, 1);
  for (const uint64_t size : {UINT64_MAX, UINT64_MAX - 31, UINT64_MAX - 32, UINT64_MAX / 2}) {
    zov_putInPool(get(pool, 10), pool);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(get(pool, size), nullptr); }),
              "Out of memory. Called from caller:7\n");
  }
  jmp_buf recovery;
  if (setjmp(recovery) == 0) {
    zov_resetTag(&recovery, ZOV_DEFAULT_TAG);
    get(pool, UINT64_MAX);
    ADD_FAILURE() << "came back";
  }
  zov_resetTag(nullptr, ZOV_DEFAULT_TAG);
  std::thread([&] { zov_putInPool(get(pool, 10), pool); }).join();  // nothing is locked
  zov_zFreePool(&pool);
}

// Each thread fills its chunks with its own pattern, and nobody may find
// another's in them.
TEST_F(Pool, ServesManyThreads) {
  ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, 0, 1);
  zovtest::onThreads(3, [pool](uint32_t id) {
    std::mt19937 random(id);
    std::deque<std::string_view> held;
    for (int step = 0; step < 5000; ++step) {
      const uint64_t size = random() % 300;
      char *chunk = get(pool, size);
      memset(chunk, static_cast<int>(id), size);
      held.emplace_back(chunk, size);
      if (held.size() > random() % 20) {
        const std::string_view back = held.front();
        ASSERT_EQ(back, std::string(back.size(), static_cast<char>(id)));
        zov_putInPool(const_cast<char *>(back.data()), pool);
        held.pop_front();
      }
    }
  });
  zov_zFreePool(&pool);
}

}  // namespace
