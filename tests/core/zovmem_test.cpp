// SPDX-License-Identifier: Apache-2.0
//
// Tagged memory: modes, resizing, tags, recovery points, and a random walk against
// a model that knows what every block must hold and which were freed.
#include <malloc.h>

#include <deque>

#include "core/zov_shortage.h"
#include "core/zovmem_freed.h"
#include "support/faults.h"

namespace {

using zovtest::outputOf;

constexpr char kDoubleFree[] = "Attempting to free previously freed memory\n";

using Memory = zovtest::Started;

void *plain(uint64_t size, ZOV_TAG tag = ZOV_DEFAULT_TAG) {
  return zov_getMem(size, tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE);
}

TEST_F(Memory, ModesFillTheBlock) {
  const wchar_t wide[] = L"w\x10FFFF";
  const struct {
    uint64_t size;
    uint32_t mode;
    const void *source;
    const void *expected;  // null: the call gives null
    uint64_t expectedBytes;
  } rows[] = {
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
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    void *block = nullptr;
    EXPECT_EQ(outputOf([&] {
                block = zov_getMem(row.size, ZOV_DEFAULT_TAG, row.mode, row.source, ZOV_HERE);
              }),
              "");
    ASSERT_EQ(block == nullptr, row.expected == nullptr);
    if (block != nullptr) {
      EXPECT_EQ(memcmp(block, row.expected, row.expectedBytes), 0);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    }
    zov_freeMem(block, ZOV_DEFAULT_TAG);
  }
}

TEST_F(Memory, ImpossibleSizesFailWithTheMessage) {
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
  EXPECT_EQ(freed(block), kDoubleFree);
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

// Fails the allocation that `call` makes from an armed tag and returns what
// setjmp() gave: 0 when the call came back.
template <typename Call>
int jumpOf(ZOV_TAG tag, Call call) {
  jmp_buf recovery;
  const int value = setjmp(recovery);
  if (value == 0) {
    zov_resetTag(&recovery, tag);
    zovtest::failAllocationAfter(0, true);
    call();
  }
  EXPECT_TRUE(!zovtest::stopFailing() || errno == ENOMEM) << errno;
  zov_resetTag(nullptr, tag);
  return value;
}

TEST_F(Memory, ArmedTagsJumpWithEveryLockFree) {
  const ZOV_TAG safe = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  for (const ZOV_TAG tag : {ZOV_TAG{ZOV_DEFAULT_TAG}, safe}) {
    void *block = plain(16, tag);
    const std::string out = outputOf([&] {
      EXPECT_EQ(jumpOf(tag, [&] { plain(8, tag); }), 1);
      EXPECT_EQ(jumpOf(tag, [&] { zov_extendMem(block, 9999, tag, 1, 1, "x", 2); }), 1);
      EXPECT_EQ(jumpOf(tag, [&] { plain(0, tag); }), 0) << "size 0 is no failure";
    });
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;
    // Another thread gets the tag's lock at once.
    std::thread([&] { zov_freeMem(block, tag); }).join();
    zovtest::failAllocationAfter(0);
    EXPECT_EQ(plain(8, tag), nullptr) << "disarmed";
    zovtest::stopFailing();
  }
  zov_freeTagMemory(safe, 1);
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
  unsigned char *bytes;
  uint64_t size;
  unsigned char fill;
  size_t owner;
};

// Random operations on three tags. Every block is filled with a byte of its
// own and checked before it goes, so a broken list or a double use shows. What
// was freed is freed again up to 1023 frees later, unless its address is a live
// block's; that must be said and change nothing.
TEST_F(Memory, RandomOperationsAgreeWithAModel) {
  constexpr size_t kFreesAgo = zov::kMarksFit ? 1024 : 0;
  // No page is given back, as large blocks and the top of the heap would be.
  mallopt(M_MMAP_THRESHOLD, INT_MAX);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  zovtest::Random random;
  ZOV_TAG tags[] = {ZOV_DEFAULT_TAG, zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE),
                    zov_createTagEx(nullptr, 0, ZOV_HERE)};
  std::vector<ModelBlock> blocks;
  std::deque<std::pair<void *, size_t>> freed;  // addresses and owners
  std::ptrdiff_t freedAgain = 0;
  const auto randomSize = [&] { return 1 + random.below(2u << random.below(16)); };
  const auto fill = [&](ModelBlock &block) {
    block.fill = static_cast<unsigned char>(random());
    memset(block.bytes, block.fill, block.size);
  };
  const auto holds = [](const unsigned char *bytes, uint64_t size, unsigned char value) {
    return std::all_of(bytes, bytes + size, [&](unsigned char byte) { return byte == value; });
  };
  const auto note = [&](void *bytes, size_t owner) {
    freed.emplace_back(bytes, owner);
    if (freed.size() > kFreesAgo) {
      freed.pop_front();
    }
  };
  const auto freeAgain = [&](const std::pair<void *, size_t> &old) {
    if (std::none_of(blocks.begin(), blocks.end(),
                     [&](const ModelBlock &block) { return block.bytes == old.first; })) {
      ++freedAgain;
      zov_freeMem(old.first, tags[old.second]);
    }
  };
  testing::internal::CaptureStdout();
  for (int step = 0; step < 40000; ++step) {
    const uint32_t action = random.below(100);
    if (!freed.empty()) {
      freeAgain(freed[random() % freed.size()]);
    }
    if (action < 45 || blocks.empty()) {
      const size_t owner = random() % 3;
      ModelBlock block{nullptr, randomSize(), 0, owner};
      const bool zero = action % 2 == 0;
      block.bytes = static_cast<unsigned char *>(
          zov_extendMem(nullptr, block.size, tags[owner], zero, 3, ZOV_HERE));
      ASSERT_NE(block.bytes, nullptr);
      ASSERT_TRUE(!zero || holds(block.bytes, block.size, 0)) << "cleared whole";
      fill(block);
      blocks.push_back(block);
      continue;
    }
    const size_t index = random() % blocks.size();
    ModelBlock &block = blocks[index];
    ASSERT_TRUE(holds(block.bytes, block.size, block.fill)) << "step " << step;
    if (action < 80) {
      zov_freeMem(block.bytes, tags[block.owner]);
      note(block.bytes, block.owner);
      block = blocks.back();
      blocks.pop_back();
    } else if (action < 90) {
      const uint64_t size = randomSize();
      const uint64_t grown = randomSize();
      void *old = block.bytes;
      block.bytes = static_cast<unsigned char *>(
          zov_extendMem(old, size, tags[block.owner], action % 2, grown, ZOV_HERE));
      const uint64_t kept = action % 2 == 0 ? size : size - std::min(grown, size);
      ASSERT_TRUE(holds(block.bytes, std::min(kept, block.size), block.fill)) << "step " << step;
      ASSERT_TRUE(holds(block.bytes + kept, size - kept, 0)) << "step " << step;
      block.size = size;
      fill(block);
      if (old != block.bytes) {
        note(old, block.owner);
      }
    } else if (action < 99) {
      const size_t owner = random() % 3;
      zov_moveMemTag(block.bytes, tags[owner], tags[block.owner]);
      block.owner = owner;
    } else if (block.owner != 0) {
      const size_t owner = block.owner;
      const bool deleted = random() % 2 == 0;
      zov_freeTagMemory(tags[owner], deleted);
      if (deleted) {
        tags[owner] = zov_createTagEx(nullptr, owner == 1 ? ZOV_TAG_THREADSAFE : 0, ZOV_HERE);
      }
      std::erase_if(blocks, [&](const ModelBlock &each) {
        if (each.owner == owner) {
          note(each.bytes, owner);
        }
        return each.owner == owner;
      });
    }
  }
  std::for_each(freed.begin(), freed.end(), freeAgain);
  fflush(stdout);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), freedAgain) << "each is said once";
  zov_freeTagMemory(tags[1], 1);
}

TEST_F(Memory, ThreadsShareATag) {
  const int64_t before = zovtest::liveBlocks();
  const ZOV_TAG tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  zovtest::onThreads(4, [tag](uint32_t) {
    void *held[16] = {};
    for (int step = 0; step < 4000; ++step) {
      void *&slot = held[step % 16];
      zov_freeMem(slot, tag);
      slot = plain(32, tag);
      zov_moveMemTag(slot, ZOV_DEFAULT_TAG, tag);
      zov_moveMemTag(slot, tag, ZOV_DEFAULT_TAG);
    }
  });
  zov_freeTagMemory(tag, 1);
  EXPECT_EQ(zovtest::liveBlocks(), before) << "a block was lost between the tags";
}

}  // namespace
