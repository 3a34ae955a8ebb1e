// SPDX-License-Identifier: Apache-2.0
//
// The header in front of every block: two words that link it into the list of
// its tag. Where addresses leave room for it the first word also carries a mark
// that says that the block is live, and so a block that is freed a second time
// is known by its header, however long ago the first time was.
#ifndef ZOV_CORE_ZOVMEM_BLOCK_H
#define ZOV_CORE_ZOVMEM_BLOCK_H

#include <stdint.h>

namespace zov {

// Whether the upper 16 bits of every address are zero. On x86-64 Linux gives a
// process nothing from 2^47 on, with five levels of page tables neither, unless
// it asks for such an address by name, and malloc() names none. Elsewhere the
// bits may be part of an address or hold a tag.
#if defined(__x86_64__) && defined(__linux__)
inline constexpr bool kMarksFit = true;
#else
inline constexpr bool kMarksFit = false;
#endif

inline constexpr uint64_t kMark = kMarksFit ? uint64_t{0x5AC3} << 48 : 0;

// 1. markedNewer is the address of the newer block, or null, with the mark over
//    it. Exclusive or puts it there and takes it off, so that no address is
//    damaged, should one use these bits after all.
// 2. Both words of a block are 0 from before it is given to free() or realloc().
//    libc puts a list pointer into the first, which has no mark, and a random
//    number into the second, which might.
struct BlockHeader {
  uint64_t markedNewer;
  BlockHeader *older;

  BlockHeader *newer() const { return reinterpret_cast<BlockHeader *>(markedNewer ^ kMark); }

  void setNewer(const BlockHeader *block) {
    markedNewer = reinterpret_cast<uint64_t>(block) ^ kMark;
  }

  // The stores are volatile, as a compiler drops plain ones: it knows that free()
  // ends the life of the block.
  void clear() {
    *const_cast<volatile uint64_t *>(&markedNewer) = 0;
    *const_cast<BlockHeader *volatile *>(&older) = nullptr;
  }
};

// The caller's bytes begin right behind, as aligned as malloc()'s.
static_assert(sizeof(BlockHeader) == 16 && sizeof(void *) == sizeof(uint64_t));

// True for the header of a live block. The one place that reads memory which may
// have been given back, hence out of the sanitizers' sight.
[[gnu::no_sanitize_address, gnu::no_sanitize_thread]] inline bool isMarked(
    const BlockHeader *header) {
  return header->markedNewer >> 48 == kMark >> 48;
}

}  // namespace zov

#endif
