// SPDX-License-Identifier: Apache-2.0
//
// The fast part of the UTF-8 encoder: runs of valid characters. A run stops before
// the first character that is invalid or does not fit, and leaves it to the walk
// in zovutf8_encode.cpp.
//
// Characters are taken 16 at a time where that is possible, otherwise singly.
// ASCII is narrowed at once. Other characters are encoded four at a time: each
// is cut into bytes of six bits in a lane of its own. A table gives, by the lengths
// of the four, the byte shuffle that packs the bytes in use, and the marks that
// make lead and continuation bytes of them:
//
//   A, e acute, euro, z   00 00 01 41   00 00 03 29   00 02 02 2C   00 00 01 7A
//   shuffled              41 03 29 02 02 2C 7A
//   marked                41 C3 A9 E2 82 AC 7A
//
// Nothing is stored behind the end of the result, not even where there is room: a
// size of 0 promises room for the result only. Four characters store 16 bytes
// whatever they take, so they want enough characters behind them, which become
// bytes of the result themselves.
#include <assert.h>
#include <stddef.h>

#include <algorithm>

#include "files/zovutf8_private.h"
#include "files/zovutf8_vector.h"

namespace zov {
namespace {

constexpr size_t kBlockChars = 16;

// How many characters are encoded singly before blocks are tried again.
#if defined(ZOV_VECTORS)
constexpr ptrdiff_t kSingleChars = 16;
#else
constexpr ptrdiff_t kSingleChars = 64;
#endif

#if defined(ZOV_VECTORS)

// Characters of a block, four in each vector.
struct Block {
  __m128i lanes[4];
};

inline Block loadBlock(const wchar_t *text) {
  return {{load(text), load(text + 4), load(text + 8), load(text + 12)}};
}

inline __m128i bitsOf(const Block &block) {
  return _mm_or_si128(_mm_or_si128(block.lanes[0], block.lanes[1]),
                      _mm_or_si128(block.lanes[2], block.lanes[3]));
}

// True when no lane has any of the bits of the mask.
inline bool haveNone(__m128i lanes, uint32_t mask) {
  const __m128i bits = _mm_and_si128(lanes, each32(mask));
  return topBits(_mm_cmpeq_epi32(bits, _mm_setzero_si128())) == 0xFFFF;
}

inline bool isAsciiBlock(const Block &block) {
  return haveNone(bitsOf(block), ~0x7Fu);
}

// False for the last plane too, which shares a bit with values that are too large.
inline bool isValidBlock(const Block &block) {
  __m128i surrogates = _mm_setzero_si128();
  for (const __m128i lanes : block.lanes) {
    const __m128i prefix = _mm_and_si128(lanes, each32(0xFFFFF800));
    surrogates = _mm_or_si128(surrogates, _mm_cmpeq_epi32(prefix, each32(0xD800)));
  }
  return haveNone(bitsOf(block), 0xFFF00000) && topBits(surrogates) == 0;
}

// Longer than one, two and three bytes: all ones in each such lane.
struct Lengths {
  __m128i overOne;
  __m128i overTwo;
  __m128i overThree;
};

inline Lengths lengthsOf(__m128i lanes) {
  return {_mm_cmpgt_epi32(lanes, each32(0x7F)), _mm_cmpgt_epi32(lanes, each32(0x7FF)),
          _mm_cmpgt_epi32(lanes, each32(0xFFFF))};
}

struct Packing {
  uint8_t shuffle[16];  // the last bytes of each lane, as many as it has
  uint8_t marks[16];    // the upper bits of lead and continuation bytes
};

// By the lengths of four characters, less one, as binary numbers: bit n of the
// index is the low digit of character n, bit 4 + n the high one.
struct PackTable {
  Packing packings[256];
  uint8_t bytes[256];  // of the four characters together
};

constexpr PackTable makeTable() {
  constexpr uint8_t leads[] = {0, 0xC0, 0xE0, 0xF0};
  PackTable table = {};
  for (uint32_t index = 0; index < 256; ++index) {
    Packing &packing = table.packings[index];
    uint8_t &bytes = table.bytes[index];
    for (uint32_t lane = 0; lane < 4; ++lane) {
      const uint32_t more = (index >> lane & 1) + 2 * (index >> (4 + lane) & 1);
      for (uint32_t at = 4 * lane + 3 - more; at < 4 * lane + 4; ++at) {
        packing.marks[bytes] = at % 4 == 3 - more ? leads[more] : 0x80;
        packing.shuffle[bytes++] = static_cast<uint8_t>(at);
      }
    }
  }
  return table;
}

constexpr PackTable packTable = makeTable();

inline uint32_t laneBits(__m128i mask) {
  return static_cast<uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(mask)));
}

// Cuts each lane into bytes of six bits, the highest first. The last byte of a
// character that has no other keeps its seventh.
inline __m128i sixBits(__m128i lanes, __m128i overOne) {
  const __m128i first = _mm_srli_epi32(lanes, 18);
  const __m128i second = _mm_and_si128(_mm_srli_epi32(lanes, 4), each32(0x3F00));
  const __m128i third = _mm_and_si128(_mm_slli_epi32(lanes, 10), each32(0x3F0000));
  const __m128i seventh = _mm_andnot_si128(overOne, each32(0x40000000));
  const __m128i kept = _mm_or_si128(seventh, each32(0x3F000000));
  const __m128i last = _mm_and_si128(_mm_slli_epi32(lanes, 24), kept);
  return _mm_or_si128(_mm_or_si128(first, second), _mm_or_si128(third, last));
}

// Encodes four characters. Returns how many of the 16 bytes stored they take.
ZOV_SHUFFLE inline uint32_t encodeFour(char *out, __m128i lanes) {
  const Lengths lengths = lengthsOf(lanes);
  const __m128i lowDigits =
      _mm_xor_si128(lengths.overOne, _mm_xor_si128(lengths.overTwo, lengths.overThree));
  const uint32_t index = laneBits(lowDigits) | laneBits(lengths.overTwo) << 4;
  const Packing &packing = packTable.packings[index];
  const __m128i bits = _mm_shuffle_epi8(sixBits(lanes, lengths.overOne), load(packing.shuffle));
  store(out, _mm_or_si128(bits, load(packing.marks)));
  return packTable.bytes[index];
}

#endif

// The two sinks of a run, one that stores and one that counts. They are passed by
// value: a store could alias one in memory.

struct ByteStore {
  char *next;
  char *limit;

  bool hasRoom(uint64_t bytes) const { return static_cast<uint64_t>(limit - next) >= bytes; }

  // Takes a character of a length that is known, if there is room for it.
  template <uint32_t kLength>
  bool takeOne(uint32_t codePoint) {
    if (!hasRoom(kLength)) {
      return false;
    }
    storeSequence<kLength>(next, codePoint);
    next += kLength;
    return true;
  }

#if defined(ZOV_VECTORS)
  void takeAscii(const Block &block) {
    const __m128i low = _mm_packs_epi32(block.lanes[0], block.lanes[1]);
    const __m128i high = _mm_packs_epi32(block.lanes[2], block.lanes[3]);
    store(next, _mm_packus_epi16(low, high));
    next += kBlockChars;
  }

  ZOV_SHUFFLE void takeBlock(const Block &block) {
    for (const __m128i lanes : block.lanes) {
      next += encodeFour(next, lanes);
    }
  }
#else
  void takeAscii(const wchar_t *block) {
    for (size_t index = 0; index < kBlockChars; ++index) {
      next[index] = static_cast<char>(block[index]);
    }
    next += kBlockChars;
  }
#endif
};

struct ByteCounter {
  uint64_t count;

  static bool hasRoom(uint64_t) { return true; }

  template <uint32_t kLength>
  bool takeOne(uint32_t) {
    count += kLength;
    return true;
  }

  template <typename Chars>
  void takeAscii(const Chars &) {
    count += kBlockChars;
  }

#if defined(ZOV_VECTORS)
  // A mask that is set counts as -1.
  void takeBlock(const Block &block) {
    __m128i sum = each32(4);
    for (const __m128i lanes : block.lanes) {
      const Lengths lengths = lengthsOf(lanes);
      sum = _mm_sub_epi32(
          sum, _mm_add_epi32(_mm_add_epi32(lengths.overOne, lengths.overTwo), lengths.overThree));
    }
    const __m128i pairs = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, 0x4E));
    const __m128i all = _mm_add_epi32(pairs, _mm_shuffle_epi32(pairs, 0xB1));
    count += static_cast<uint32_t>(_mm_cvtsi128_si32(all));
  }
#endif
};

template <typename Sink>
struct Progress {
  Sink sink;
  const wchar_t *text;
};

#if defined(ZOV_VECTORS)

// Characters that must lie behind a block, and bytes that it may store.
constexpr size_t kOverhangChars = 12;
constexpr size_t kBlockBytes = 4 * kBlockChars;

// How many blocks are taken without a look for ASCII after one that has other
// characters: in text that mixes the two that branch would be mispredicted often.
constexpr uint32_t kOtherBlocks = 8;

template <typename Sink>
ZOV_SHUFFLE inline uint32_t takeOthers(Sink &sink, const wchar_t *text, const wchar_t *end) {
  uint32_t taken = 0;
  while (taken < kOtherBlocks && sink.hasRoom(kBlockBytes) &&
         static_cast<size_t>(end - text) >= kBlockChars + kOverhangChars) {
    const Block block = loadBlock(text);
    if (!isValidBlock(block)) {
      break;
    }
    sink.takeBlock(block);
    text += kBlockChars;
    ++taken;
  }
  return taken;
}

// Takes blocks as long as it can.
template <typename Sink>
ZOV_SHUFFLE Progress<Sink> takeBlocks(Sink sink, const wchar_t *text, const wchar_t *end) {
  uint32_t taken = 1;
  while (taken != 0 && static_cast<size_t>(end - text) >= kBlockChars &&
         sink.hasRoom(kBlockChars)) {
    const Block block = loadBlock(text);
    if (isAsciiBlock(block)) {
      sink.takeAscii(block);
      taken = 1;
    } else {
      taken = takeOthers(sink, text, end);
    }
    text += taken * kBlockChars;
  }
  return {sink, text};
}

bool hasBlocks() {
  return hasShuffle();
}

#else

bool isAsciiBlock(const wchar_t *block) {
  uint32_t bits = 0;
  for (size_t index = 0; index < kBlockChars; ++index) {
    bits |= static_cast<uint32_t>(block[index]);
  }
  return bits < 0x80;
}

template <typename Sink>
Progress<Sink> takeBlocks(Sink sink, const wchar_t *text, const wchar_t *end) {
  while (static_cast<size_t>(end - text) >= kBlockChars && sink.hasRoom(kBlockChars) &&
         isAsciiBlock(text)) {
    sink.takeAscii(text);
    text += kBlockChars;
  }
  return {sink, text};
}

bool hasBlocks() {
  return true;
}

#endif

// Takes a character that is valid and fits; false for any other.
template <typename Sink>
inline bool takeOne(Sink &sink, uint32_t unit) {
  if (unit < 0x80) {
    return sink.template takeOne<1>(unit);
  }
  if (unit < 0x800) {
    return sink.template takeOne<2>(unit);
  }
  if (unit < 0x10000) {
    return !isSurrogate(unit) && sink.template takeOne<3>(unit);
  }
  return unit <= kLastCodePoint && sink.template takeOne<4>(unit);
}

// Takes blocks and, where they end, single characters for a while.
template <typename Sink>
Progress<Sink> takeRun(Sink sink, const wchar_t *text, const wchar_t *end) {
  // Without blocks runs a processor that lacks the instructions.
  const bool blocks = hasBlocks();
  while (text != end) {
    const bool isLong = static_cast<size_t>(end - text) >= kBlockChars;
    if (blocks && isLong) {  // GCOVR_EXCL_BR_LINE: one machine tries one way
      const Progress<Sink> progress = takeBlocks(sink, text, end);
      sink = progress.sink;
      text = progress.text;
    }
    const wchar_t *stop = text + std::min(kSingleChars, end - text);
    for (; text != stop; ++text) {
      if (!takeOne(sink, static_cast<uint32_t>(*text))) {
        return {sink, text};
      }
    }
  }
  return {sink, end};
}

}  // namespace

EncodeRun encodeRun(const wchar_t *text, const wchar_t *end, char *out, uint64_t room) {
  if (out == nullptr) {
    const Progress<ByteCounter> progress = takeRun(ByteCounter{0}, text, end);
    return {progress.text, progress.sink.count};
  }
  // Bounded by what the text can need: room is near 2^32 for a size of 0, and
  // out + room could overflow.
  const uint64_t most = 4 * static_cast<uint64_t>(end - text);
  const ByteStore store{out, out + std::min(room, most)};
  const Progress<ByteStore> progress = takeRun(store, text, end);
  assert(progress.text <= end && progress.sink.next <= store.limit);
  return {progress.text, static_cast<uint64_t>(progress.sink.next - out)};
}

}  // namespace zov
