// SPDX-License-Identifier: Apache-2.0
//
// Pools: what is given out again, what goes back to the tag, shortages, and
// chunks that wander between pools and threads.

#include "support/faults.h"

namespace {

using zovtest::outputOf;

using Pool = zovtest::Started;

char *get(ZOV_POOL pool, uint64_t size) {
  return static_cast<char *>(zov_getMemFromPool(size, pool, ZOV_MEM_PLAIN, nullptr, "caller", 7));
}

// Chunks and what they hold, as far as they were made for; those that are free as a
// stack of at most a thousand.
TEST_F(Pool, AgreesWithAModel) {
  constexpr int32_t kModes[] = {ZOV_MEM_PLAIN, ZOV_MEM_ZERO, ZOV_MEM_COPY};
  const std::string source(100, 'c');
  zovtest::Random random;
  for (const int32_t fixedSize : {0, 1}) {
    const int64_t empty = zovtest::liveBlocks();
    ZOV_POOL pool = zov_allocPool(ZOV_DEFAULT_TAG, fixedSize, 1 - fixedSize);
    std::vector<std::pair<char *, std::string>> out;
    std::vector<std::pair<char *, std::string>> free;
    for (int step = 0; step < 20000; ++step) {
      if (out.empty() || random.below(4) < (step / 5000 % 2 == 0 ? 3 : 1)) {
        const int32_t mode = kModes[random.below(3)];
        const size_t size = fixedSize != 0 ? 50 : random.below(100);
        char *chunk =
            static_cast<char *>(zov_getMemFromPool(size, pool, mode, source.data(), ZOV_HERE));
        std::string bytes = free.empty() ? "" : free.back().second;
        if (bytes.size() >= size && !free.empty()) {
          ASSERT_EQ(chunk, free.back().first) << "step " << step;
        } else {
          bytes.assign(size, 'n');
          memset(chunk, 'n', mode == ZOV_MEM_PLAIN ? size : 0);
        }
        if (mode != ZOV_MEM_PLAIN) {
          bytes.replace(0, size, size, mode == ZOV_MEM_ZERO ? '\0' : 'c');
        }
        ASSERT_EQ(std::string(chunk, bytes.size()), bytes) << "step " << step;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(chunk) % 16, 0u);
        out.emplace_back(chunk, bytes);
        free.resize(free.size() - (free.empty() ? 0 : 1));
      } else {
        std::swap(out.back(), out[random.below(out.size())]);
        zov_putInPool(out.back().first, pool);
        free.push_back(out.back());
        free.resize(std::min<size_t>(free.size(), 1000));
        out.pop_back();
      }
      ASSERT_EQ(zovtest::liveBlocks(), empty + 1 + static_cast<int64_t>(out.size() + free.size()));
    }
    EXPECT_EQ(outputOf([&] {
                char *chunk = get(pool, UINT64_MAX);
                EXPECT_EQ(chunk, fixedSize != 0 ? free.back().first : nullptr);
                zov_putInPool(chunk, pool);
              }),
              fixedSize != 0 ? "" : "Out of memory. Called from caller:7\n");
    for (const auto &each : out) {
      zov_putInPool(each.first, pool);
    }
    zov_zFreePool(&pool);
    EXPECT_EQ(pool, nullptr);
    EXPECT_EQ(zovtest::liveBlocks(), empty);
  }
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

}  // namespace
