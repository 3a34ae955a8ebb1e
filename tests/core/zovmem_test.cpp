// SPDX-License-Identifier: Apache-2.0
//
// Tagged memory: modes, resizing, tags, recovery points, and a random walk against
// a model that knows what every block must hold and which were freed.
#include <malloc.h>

#include <tuple>

#include "core/zov_shortage.h"
#include "core/zovmem_freed.h"
#include "support/faults.h"

namespace {

using zovtest::jumpOf;
using zovtest::outputOf;

using Memory = zovtest::Started;

void *plain(uint64_t size, ZOV_TAG tag = ZOV_DEFAULT_TAG) {
  return zov_getMem(size, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
}

TEST_F(Memory, ModesFillTheBlock) {
  const wchar_t wide[] = L"w\x10FFFF";
  // Nothing expected: the call gives null.
  const std::tuple<uint64_t, uint32_t, const void *, const void *, uint64_t> rows[] = {
      {0, ZOV_MEM_PLAIN, nullptr, nullptr, 0},
      {5, ZOV_MEM_ZERO, "ignored", "\0\0\0\0", 5},
      {0, ZOV_MEM_STRDUP, "", "", 1},
      {1, ZOV_MEM_STRDUP, "text", "text", 5},
      {0, ZOV_MEM_STRDUP, nullptr, nullptr, 0},
      {4, ZOV_MEM_COPY, "a\0bc", "a\0bc", 4},
      {0, ZOV_MEM_COPY, "abc", nullptr, 0},
      {0, ZOV_MEM_WSTRDUP, wide, wide, sizeof wide},
      {0, ZOV_MEM_WSTRDUP, nullptr, nullptr, 0},
      {8, 0, "source", nullptr, 0},
      {8, 0x10001, "source", nullptr, 0},
  };
  const std::string out = outputOf([&] {
    for (const auto &[size, mode, source, expected, expectedBytes] : rows) {
      void *block = zov_getMem(size, ZOV_DEFAULT_TAG, mode, source, ZOV_HERE);
      ASSERT_EQ(block == nullptr, expected == nullptr) << size << ", mode " << mode;
      EXPECT_TRUE(block == nullptr || memcmp(block, expected, expectedBytes) == 0);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
      zov_freeMem(block, ZOV_DEFAULT_TAG);
    }
  });
  EXPECT_EQ(out, "");
}

TEST_F(Memory, ImpossibleSizesFailWithTheMessage) {
  EXPECT_EQ(jumpOf(ZOV_DEFAULT_TAG, [] { plain(8); }), 1) << "and no later one jumps";
  void *block = zov_getMem(0, ZOV_DEFAULT_TAG, ZOV_MEM_STRDUP, "kept", ZOV_HERE);
  for (const uint64_t size : {UINT64_MAX, UINT64_MAX - 15, UINT64_MAX - 16, UINT64_MAX / 2}) {
    EXPECT_EQ(outputOf([&] {
                errno = 0;
                EXPECT_EQ(zov_getMem(size, 0, ZOV_MEM_ZERO, nullptr, "caller", 7), nullptr) << size;
                EXPECT_EQ(std::exchange(errno, 0), ENOMEM);
                EXPECT_EQ(zov_extendMem(block, size, 0, 1, 1, "grower", 8), nullptr) << size;
                EXPECT_EQ(errno, ENOMEM);
              }),
              "Out of memory. Called from caller:7\nOut of memory. Called from grower:8\n");
  }
  EXPECT_STREQ(static_cast<char *>(block), "kept");
  EXPECT_EQ(outputOf([&] { zov_freeMem(block, ZOV_DEFAULT_TAG); }), "");
}

TEST_F(Memory, TagsMayBeMadeArmed) {
  jmp_buf recovery;
  if (setjmp(recovery) == 0) {
    plain(UINT64_MAX, zov_createTagEx(&recovery, 0, ZOV_HERE));
    ADD_FAILURE() << "it came back";
  }
}

TEST_F(Memory, CompareIsUnsignedAndInOrder) {
  EXPECT_EQ(zov_memCmp("\x80", "\x01", 1), 1);
  EXPECT_EQ(zov_memCmp("a\x01", "a\xff", 2), -1);
  EXPECT_EQ(zov_memCmp(nullptr, nullptr, 0), 0);
}

TEST_F(Memory, SecondFreeIsSaidOnly) {
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  const auto freed = [tag](void *block) { return outputOf([&] { zov_freeMem(block, tag); }); };
  void *block = plain(1 << 20, tag);  // takes its pages along when it goes
  EXPECT_EQ(freed(block), "") << "its owner's to free";
  EXPECT_EQ(freed(block), "Attempting to free previously freed memory\n");
  zov_freeTagMemory(tag, 1);
}

// What stands in for the marks on other platforms.
TEST(FreedRecord, HoldsTheLatestNine) {
  zov::FreedRecord record{};
  for (uintptr_t address = 16; address <= 1600; address += 16) {
    record.add(address);
    for (uintptr_t older = 16; older <= 1600; older += 16) {
      ASSERT_EQ(record.holds(older), older <= address && older + 9 * 16 > address) << address;
    }
  }
  record.replace(1616, 1520);
  EXPECT_TRUE(record.holds(1616) && !record.holds(1520)) << "1520 came back";
  for (uintptr_t address = 1616; address > 1440; address -= 16) {
    record.forget(address);
    EXPECT_FALSE(record.holds(address));
  }
}

TEST_F(Memory, AbsentTagsAreHarmless) {
  char source = 's';
  EXPECT_EQ(plain(8, ZOV_NO_TAG), nullptr);
  EXPECT_EQ(zov_extendMem(&source, 8, ZOV_NO_TAG, 0, 0, ZOV_HERE), nullptr);
  zov_freeMem(&source, ZOV_NO_TAG);
  zov_resetTag(nullptr, ZOV_NO_TAG);
  zov_moveMemTag(&source, ZOV_NO_TAG, ZOV_DEFAULT_TAG);
  zov_moveMemTag(&source, ZOV_DEFAULT_TAG, ZOV_NO_TAG);
  zov_freeTagMemory(ZOV_NO_TAG, 1);
  zov_freeTagMemory(ZOV_DEFAULT_TAG, 1);
  EXPECT_NE(plain(8), nullptr) << "the default tag cannot be deleted";
}

// Making a sync object must not jump even when the default tag is armed: its
// caller is in the middle of making something.
TEST_F(Memory, SyncCreationNeverJumps) {
  zovtest::leavesThings = true;
  // Takes the slots that start-up left in the last block.
  zovtest::failAllocationAfter(0, true);
  while (zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE) != ZOV_NO_SYNC) {
  }
  zovtest::stopFailing();
  EXPECT_EQ(jumpOf(ZOV_DEFAULT_TAG,
                   [&] { EXPECT_EQ(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE), ZOV_NO_SYNC); }),
            0);
  EXPECT_NE(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE), ZOV_NO_SYNC);
}

// While a lock may be held a failure neither jumps nor says a word; the message
// follows, and one is enough.
TEST_F(Memory, NoJumpHoldsMessagesBack) {
  const auto failTwice = [] {
    const zov::NoJump outer;
    {
      const zov::NoJump inner;
      EXPECT_EQ(zov_getMem(8, 0, ZOV_MEM_PLAIN, nullptr, "first", 1), nullptr);
      EXPECT_EQ(zov_getMem(8, 0, ZOV_MEM_PLAIN, nullptr, "second", 2), nullptr);
    }
    puts("unlocked");
    fflush(stdout);  // the message takes another way out
  };
  EXPECT_EQ(outputOf([&] { EXPECT_EQ(jumpOf(ZOV_DEFAULT_TAG, failTwice), 0); }),
            "unlocked\nOut of memory. Called from first:1\n");
}

struct ModelBlock {
  char *bytes;
  uint64_t size;
  char fill;
  size_t owner;
};

// Random operations on three tags. Every block is filled with a byte of its
// own and checked before it changes, so a broken list or a double use shows. What
// was freed is freed again up to 1023 frees later, unless its address is a live
// block's; that must be said and change nothing.
TEST_F(Memory, RandomOperationsAgreeWithAModel) {
  // No page is given back, as large blocks and the top of the heap would be.
  mallopt(M_MMAP_THRESHOLD, INT_MAX);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  zovtest::Random random;
  ZOV_TAG tags[] = {ZOV_DEFAULT_TAG, zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE),
                    zov_createTagEx(nullptr, 0, ZOV_HERE)};
  std::vector<ModelBlock> blocks;
  ModelBlock freed[1024] = {};
  uint32_t frees = 0;
  std::ptrdiff_t freedAgain = 0;
  const auto randomSize = [&] { return 1 + random.below(2u << random.below(16)); };
  const auto holds = [](const char *bytes, uint64_t size, char value) {
    return std::all_of(bytes, bytes + size, [value](char byte) { return byte == value; });
  };
  const auto note = [&](const ModelBlock &old) { freed[frees++ % std::size(freed)] = old; };
  const auto freeAgain = [&](const ModelBlock &old) {
    const auto isOld = [&](const ModelBlock &block) { return block.bytes == old.bytes; };
    if (zov::kMarksFit && old.bytes != nullptr && std::ranges::none_of(blocks, isOld)) {
      ++freedAgain;
      zov_freeMem(old.bytes, tags[old.owner]);
    }
  };
  const std::string out = outputOf([&] {
    for (int step = 0; step < zovtest::rounds(40000); ++step) {
      freeAgain(freed[random.below(std::size(freed))]);
      const uint32_t action = blocks.empty() ? 0 : random.below(100);
      if (action < 45) {
        blocks.push_back({nullptr, 0, 0, random.below(3)});
      }
      ModelBlock &block = action < 45 ? blocks.back() : blocks[random.below(blocks.size())];
      const ModelBlock old = block;
      ASSERT_TRUE(holds(old.bytes, old.size, old.fill)) << "step " << step;
      if (action < 55) {
        const uint64_t grown = randomSize();
        block.size = randomSize();
        block.bytes = static_cast<char *>(
            zov_extendMem(old.bytes, block.size, tags[old.owner], action % 2, grown, ZOV_HERE));
        const uint64_t cleared = old.bytes == nullptr ? block.size : std::min(grown, block.size);
        const uint64_t kept = block.size - (action % 2 == 0 ? 0 : cleared);
        ASSERT_TRUE(holds(block.bytes, std::min(kept, old.size), old.fill)) << "step " << step;
        ASSERT_TRUE(holds(block.bytes + kept, block.size - kept, 0)) << "step " << step;
        block.fill = static_cast<char>(random());
        memset(block.bytes, block.fill, block.size);
        if (block.bytes != old.bytes) {
          note(old);
        }
      } else if (action < 90) {
        zov_freeMem(old.bytes, tags[old.owner]);
        note(old);
        block = blocks.back();
        blocks.pop_back();
      } else if (action < 99) {
        block.owner = random.below(3);
        zov_moveMemTag(old.bytes, tags[block.owner], tags[old.owner]);
      } else if (old.owner != 0) {
        const bool deleted = random() % 2 == 0;
        zov_freeTagMemory(tags[old.owner], deleted);
        if (deleted) {
          tags[old.owner] = zov_createTagEx(nullptr, old.owner % 2, ZOV_HERE);
        }
        const auto isGone = [&](const ModelBlock &each) { return each.owner == old.owner; };
        std::ranges::for_each(blocks,
                              [&](const ModelBlock &each) { isGone(each) ? note(each) : void(); });
        std::erase_if(blocks, isGone);
      }
    }
    std::ranges::for_each(freed, freeAgain);
  });
  EXPECT_EQ(std::ranges::count(out, '\n'), freedAgain) << "each is said once";
  zov_freeTagMemory(tags[1], 1);
}

}  // namespace
