// SPDX-License-Identifier: Apache-2.0
//
// The fast part of the UTF-8 decoder: runs of whole, valid characters. A run
// stops before the first character that is invalid or does not fit, and leaves it
// to the machine in zovutf8_decode.cpp.
//
// Characters are taken in blocks where that is possible, otherwise singly:
//
//   16 bytes of ASCII           widened at once
//   ASCII, then a character     the ASCII widened, the character decoded
//   other characters            in steps, by patterns (below)
//
// A step looks at which of the next 12 bytes end a character. These 12 bits are
// the index in a table of patterns, the lengths of the characters: six characters
// of up to two bytes or four of up to three. A byte shuffle moves the bytes of
// each character into a lane of its own, as a number whose most significant byte
// is the lead byte. Which bytes continue a character is known by then, so one is
// valid when its number is in one of a few ranges. A step branches only on
// the kind of its pattern and on invalid characters.
//
// Nothing is stored behind the end of the result, not even where there is room: a
// size of 0 promises room for the result only. Widening may store more than it
// takes, so it wants enough bytes behind it that become characters of the result
// themselves.
#include <assert.h>
#include <string.h>

#include <algorithm>
#include <bit>

#include "files/zovutf8_private.h"
#include "files/zovutf8_vector.h"

namespace zov {
namespace {

constexpr size_t kBlockBytes = 16;

// How many bytes are decoded singly before blocks are tried again.
#if defined(ZOV_VECTORS)
constexpr uint64_t kSingleBytes = 16;
#else
constexpr uint64_t kSingleBytes = 64;
#endif

// Decodes the sequence that a lead byte of its length begins. Returns the
// length, or 0 when it is not whole or not valid.
template <uint32_t kLength>
inline uint32_t decodeSequence(const uint8_t *bytes, size_t available, uint32_t &value) {
  if (available < kLength) {
    return 0;
  }
  // One bit more than a lead byte gives, so that what is above F7 is too large.
  value = bytes[0] & (0xFFu >> kLength);
  for (uint32_t index = 1; index < kLength; ++index) {
    if (!isContinuation(bytes[index])) {
      return 0;
    }
    value = value << 6 | (bytes[index] & 0x3Fu);
  }
  return isValidValue(value, kLength) ? kLength : 0;
}

// The same for any character.
inline uint32_t decodeOne(const uint8_t *bytes, size_t available, uint32_t &value) {
  value = bytes[0];
  if (value < 0x80) {
    return 1;
  }
  if (value < 0xE0) {
    return value < 0xC2 ? 0 : decodeSequence<2>(bytes, available, value);
  }
  return value < 0xF0 ? decodeSequence<3>(bytes, available, value)
                      : decodeSequence<4>(bytes, available, value);
}

// The two sinks of a run, one that stores and one that counts. They are passed by
// value: a store could alias one in memory.

struct CharStore {
  wchar_t *next;
  wchar_t *limit;

  uint64_t room() const { return static_cast<uint64_t>(limit - next); }
  void takeOne(uint32_t value) { *next++ = static_cast<wchar_t>(value); }

#if defined(ZOV_VECTORS)
  // Takes the first `count` of 16 bytes of ASCII, and stores all of them.
  void takeAscii(__m128i bytes, uint64_t count) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_unpacklo_epi8(bytes, zero);
    const __m128i high = _mm_unpackhi_epi8(bytes, zero);
    store(next, _mm_unpacklo_epi16(low, zero));
    store(next + 4, _mm_unpackhi_epi16(low, zero));
    store(next + 8, _mm_unpacklo_epi16(high, zero));
    store(next + 12, _mm_unpackhi_epi16(high, zero));
    next += count;
  }

  // Takes six characters from lanes of 16 bits.
  void takeSix(__m128i lanes) {
    const __m128i zero = _mm_setzero_si128();
    store(next, _mm_unpacklo_epi16(lanes, zero));
    const __m128i last = _mm_unpackhi_epi16(lanes, zero);
    memcpy(next + 4, &last, 2 * sizeof(wchar_t));
    next += 6;
  }

  // Takes four characters from lanes of 32 bits.
  void takeFour(__m128i lanes) {
    store(next, lanes);
    next += 4;
  }
#else
  void takeAscii(const uint8_t *bytes, uint64_t count) {
    for (size_t index = 0; index < kBlockBytes; ++index) {
      next[index] = bytes[index];
    }
    next += count;
  }
#endif
};

struct CharCounter {
  uint64_t count;

  static uint64_t room() { return UINT64_MAX; }
  void takeOne(uint32_t) { ++count; }

  template <typename Bytes>
  void takeAscii(Bytes, uint64_t chars) {
    count += chars;
  }

  template <typename Lanes>
  void takeSix(Lanes) {
    count += 6;
  }

  template <typename Lanes>
  void takeFour(Lanes) {
    count += 4;
  }
};

template <typename Sink>
struct Progress {
  Sink sink;
  const uint8_t *bytes;
};

#if defined(ZOV_VECTORS)

// What all patterns of a kind share.
struct PatternKind {
  uint32_t chars;
  uint32_t longest;    // bytes of its longest character
  uint32_t laneBytes;  // of the lane a character gets
  uint32_t first;      // index of the first pattern
};

constexpr PatternKind kSixes = {6, 2, 2, 0};   // 2^6 patterns
constexpr PatternKind kFours = {4, 3, 4, 64};  // 3^4 patterns
constexpr uint32_t kPatterns = 64 + 81;
constexpr uint32_t kNoPattern = 255;

constexpr uint32_t kStepBits = 12;  // bytes of the longest pattern

struct Step {
  uint8_t pattern;
  uint8_t bytes;  // taken by it
};

struct StepTable {
  Step steps[1 << kStepBits];  // by the bytes that end a character
  uint8_t shuffles[kPatterns][16];
};

// The pattern of characters of the given lengths, or none of the kind. The lengths
// less one are the digits of its index.
constexpr Step patternOf(const PatternKind &kind, const uint32_t *lengths) {
  uint32_t index = 0;
  uint32_t bytes = 0;
  for (uint32_t at = kind.chars; at > 0; --at) {
    const uint32_t length = lengths[at - 1];
    if (length == 0 || length > kind.longest) {
      return {kNoPattern, 0};
    }
    index = index * kind.longest + length - 1;
    bytes += length;
  }
  return {static_cast<uint8_t>(kind.first + index), static_cast<uint8_t>(bytes)};
}

constexpr Step stepOf(uint32_t ends) {
  uint32_t lengths[kSixes.chars] = {};
  for (uint32_t at = 0; at < kSixes.chars && ends != 0; ++at) {
    lengths[at] = static_cast<uint32_t>(std::countr_zero(ends)) + 1;
    ends >>= lengths[at];
  }
  const Step six = patternOf(kSixes, lengths);
  return six.pattern != kNoPattern ? six : patternOf(kFours, lengths);
}

// Bytes of a lane run from the last of a character to its first; those left
// over become zero.
constexpr void fillShuffles(const PatternKind &kind, uint32_t count, StepTable &table) {
  for (uint32_t index = 0; index < count; ++index) {
    uint8_t *shuffle = table.shuffles[kind.first + index];
    uint32_t digits = index;
    uint32_t from = 0;
    for (uint32_t at = 0; at < 16; ++at) {
      shuffle[at] = 0x80;
    }
    for (uint32_t at = 0; at < kind.chars; ++at) {
      const uint32_t length = digits % kind.longest + 1;
      for (uint32_t byte = length; byte > 0; --byte) {
        shuffle[at * kind.laneBytes + byte - 1] = static_cast<uint8_t>(from++);
      }
      digits /= kind.longest;
    }
  }
}

constexpr StepTable makeTable() {
  StepTable table = {};
  for (uint32_t ends = 0; ends < 1 << kStepBits; ++ends) {
    table.steps[ends] = stepOf(ends);
  }
  fillShuffles(kSixes, kFours.first, table);
  fillShuffles(kFours, kPatterns - kFours.first, table);
  return table;
}

constexpr StepTable stepTable = makeTable();

constexpr uint32_t kSpanBytes = 64;

// With this many bytes and as much room steps run in spans. The last step of one
// looks at 16 bytes like any other, and widening may store 16 characters whatever
// it takes: each four bytes behind it become at least one of them.
constexpr size_t kAmple = kSpanBytes + kBlockBytes;

// From this many bytes on, ASCII before another character is widened instead of
// taken in a step with it.
constexpr uint32_t kWorthWidening = 3;

// Takes a step from `bytes`, of which 16 are there. Returns how many bytes it
// took, or 0.
template <typename Sink>
ZOV_SHUFFLE inline uint32_t takeStep(Sink &sink, const uint8_t *bytes, uint32_t ends) {
  const Step step = stepTable.steps[ends];
  if (step.pattern == kNoPattern) {
    return 0;
  }
  const __m128i lanes = _mm_shuffle_epi8(load(bytes), load(stepTable.shuffles[step.pattern]));
  if (step.pattern < kFours.first) {
    const __m128i valid = _mm_or_si128(within16(lanes, 0, 0x7F), within16(lanes, 0xC280, 0xDFBF));
    if (topBits(valid) != 0xFFFF) {
      return 0;
    }
    sink.takeSix(_mm_or_si128(_mm_and_si128(lanes, each16(0x7F)),
                              _mm_srli_epi16(_mm_and_si128(lanes, each16(0x1F00)), 2)));
    return step.bytes;
  }
  const __m128i narrow = _mm_or_si128(within32(lanes, 0, 0x7F), within32(lanes, 0xC280, 0xDFBF));
  const __m128i wide =
      _mm_or_si128(within32(lanes, 0xE0A080, 0xED9FBF), within32(lanes, 0xEE8080, 0xEFBFBD));
  if (topBits(_mm_or_si128(narrow, wide)) != 0xFFFF) {
    return 0;
  }
  const __m128i low = _mm_and_si128(lanes, each32(0x7F));
  const __m128i middle = _mm_srli_epi32(_mm_and_si128(lanes, each32(0x3F00)), 2);
  const __m128i high = _mm_srli_epi32(_mm_and_si128(lanes, each32(0xF0000)), 4);
  sink.takeFour(_mm_or_si128(_mm_or_si128(low, middle), high));
  return step.bytes;
}

// Takes steps from `bytes`, of which 16 are there, until one fails, and returns
// how many bytes they took. With ample bytes and room they cover a span, whose
// continuation bytes are found first: a step then looks at its bytes without
// waiting for the step before it.
template <typename Sink>
ZOV_SHUFFLE inline size_t takeSteps(Sink &sink, const uint8_t *bytes, bool ample) {
  const uint32_t spanBytes = ample ? kSpanBytes : kBlockBytes;
  uint64_t continuations = 0;
  for (uint32_t at = 0; at < spanBytes; at += kBlockBytes) {
    const __m128i isOne = _mm_cmplt_epi8(load(bytes + at), each8(0xC0));
    continuations |= static_cast<uint64_t>(topBits(isOne)) << at;
  }
  uint64_t ends = ~continuations >> 1;
  const size_t stop = ample ? kSpanBytes - kStepBits : 1;
  size_t taken = 0;
  uint32_t step = 1;
  while (step != 0 && taken < stop) {
    step = takeStep(sink, bytes + taken, ends & ((1 << kStepBits) - 1));
    taken += step;
    ends >>= step;
  }
  return taken;
}

// Takes the ASCII at the start of a block and the character behind it, if that
// is one. Returns how many bytes it took.
template <typename Sink>
ZOV_SHUFFLE inline size_t takeMixed(Sink &sink, const uint8_t *bytes, __m128i block,
                                    uint32_t ascii) {
  sink.takeAscii(block, ascii);
  uint32_t value;
  const uint32_t length = decodeOne(bytes + ascii, kBlockBytes, value);
  if (length != 0) {
    sink.takeOne(value);
  }
  return ascii + length;
}

// Takes blocks as long as it can.
template <typename Sink>
ZOV_SHUFFLE Progress<Sink> takeBlocks(Sink sink, const uint8_t *bytes, const uint8_t *end) {
  size_t taken = 1;
  while (taken != 0 && static_cast<size_t>(end - bytes) >= kBlockBytes &&
         sink.room() >= kBlockBytes) {
    const __m128i block = load(bytes);
    const uint32_t others = topBits(block);
    const uint32_t ascii = static_cast<uint32_t>(std::countr_zero(others));
    const bool ample = static_cast<size_t>(end - bytes) >= kAmple && sink.room() >= kAmple;
    if (others == 0) {
      sink.takeAscii(block, kBlockBytes);
      taken = kBlockBytes;
    } else if (ample && (ascii >= kWorthWidening || bytes[ascii] >= 0xF0)) {
      taken = takeMixed(sink, bytes, block, ascii);
    } else {
      taken = takeSteps(sink, bytes, ample);
    }
    bytes += taken;
  }
  return {sink, bytes};
}

bool hasBlocks() {
  return hasShuffle();
}

#else

bool isAsciiBlock(const uint8_t *block) {
  uint64_t words[2];
  static_assert(sizeof words == kBlockBytes);
  memcpy(words, block, sizeof words);
  return ((words[0] | words[1]) & 0x8080808080808080) == 0;
}

template <typename Sink>
Progress<Sink> takeBlocks(Sink sink, const uint8_t *bytes, const uint8_t *end) {
  while (static_cast<size_t>(end - bytes) >= kBlockBytes && sink.room() >= kBlockBytes &&
         isAsciiBlock(bytes)) {
    sink.takeAscii(bytes, kBlockBytes);
    bytes += kBlockBytes;
  }
  return {sink, bytes};
}

bool hasBlocks() {
  return true;
}

#endif

// Takes blocks and, where they end, single characters for a while. A character
// takes no more room than it has bytes.
template <typename Sink>
Progress<Sink> takeRun(Sink sink, const uint8_t *bytes, const uint8_t *end) {
  // Without blocks runs a processor that lacks the instructions.
  const bool blocks = hasBlocks();
  while (bytes != end && sink.room() > 0) {
    const bool isLong = static_cast<size_t>(end - bytes) >= kBlockBytes;
    if (blocks && isLong) {  // GCOVR_EXCL_BR_LINE: one machine tries one way
      const Progress<Sink> progress = takeBlocks(sink, bytes, end);
      sink = progress.sink;
      bytes = progress.bytes;
    }
    const uint64_t most = std::min(kSingleBytes, sink.room());
    const uint8_t *stop = bytes + std::min(most, static_cast<uint64_t>(end - bytes));
    while (bytes < stop) {
      uint32_t value;
      const uint32_t length = decodeOne(bytes, static_cast<size_t>(end - bytes), value);
      if (length == 0) {
        return {sink, bytes};
      }
      sink.takeOne(value);
      bytes += length;
    }
  }
  return {sink, bytes};
}

}  // namespace

DecodeRun decodeRun(const uint8_t *bytes, const uint8_t *end, wchar_t *out, uint64_t room) {
  if (out == nullptr) {
    const Progress<CharCounter> progress = takeRun(CharCounter{0}, bytes, end);
    return {progress.bytes, progress.sink.count};
  }
  // Bounded by what the text can need: room is near 2^32 for a size of 0, and
  // out + room could overflow.
  const uint64_t most = static_cast<uint64_t>(end - bytes);
  const CharStore store{out, out + std::min(room, most)};
  const Progress<CharStore> progress = takeRun(store, bytes, end);
  assert(progress.bytes <= end && progress.sink.next <= store.limit);
  return {progress.bytes, static_cast<uint64_t>(progress.sink.next - out)};
}

}  // namespace zov
