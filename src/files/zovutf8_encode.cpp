// SPDX-License-Identifier: Apache-2.0
//
// Wide characters to UTF-8. The rules are those of a walk that screens each
// character and hands it to a sink, which counts or stores it. The walk leaves
// all it can to a run of a tight loop, which takes characters in blocks and
// then singly, and which stops in front of the first that is no character or
// does not fit; that one goes the way of the rules, and a new run begins.
//
//   text   [block][block][block] c c c | surrogate | [block] ...
//           ------- run --------------   screen      run
//
// Both ways give the same bytes. A run never stores behind the end of the
// result: a block may store up to three bytes too many, so it is taken only
// with as many characters behind it. Room for that alone would not do, since
// a size of 0 promises room for the result and no more.
//
// All state is on the caller's stack. Nothing allocates or jumps.
#include <wchar.h>

#include "files/zovutf8_private.h"

namespace {

using zov::SinkResult;

constexpr size_t kBlockChars = 16;
constexpr size_t kOverhang = 3;  // bytes that a block may store too many
constexpr size_t kBlockRoom = 3 * kBlockChars + kOverhang;

// Terminated strings are taken in pieces, which are still in the nearest cache
// when they are converted after the search for their end.
constexpr size_t kPieceChars = 1024;

// 1. With out, count is at most capacity.
// 2. count has 64 bits so that a result too long for 32 is seen, not wrapped.
struct EncoderState {
  char *out;          // null: count only
  uint32_t capacity;  // bytes of room, without the terminator's during the walk
  uint64_t count;     // bytes stored or counted
  uint32_t mode;      // error mode
  uint32_t current;   // the code point being converted
  SinkResult (*sink)(EncoderState &state, uint32_t codePoint);
};

// What a unit becomes that may be invalid; kInvalidUnit where it is refused.
uint32_t replaced(const EncoderState &state, uint32_t codePoint) {
  if (codePoint <= zov::kLastCodePoint) {
    return codePoint;
  }
  return state.mode == ZOV_UTF8_REPLACE ? zov::kReplacement : zov::kInvalidUnit;
}

SinkResult count_utf8_codes(EncoderState &state, uint32_t codePoint) {
  const uint32_t length = zov::utf8Length(replaced(state, codePoint));
  state.count += length;
  return length == 0 ? zov::kRefused : zov::kTaken;
}

SinkResult emit_utf8_codes(EncoderState &state, uint32_t codePoint) {
  codePoint = replaced(state, codePoint);
  const uint32_t length = zov::utf8Length(codePoint);
  if (length == 0) {
    return zov::kRefused;
  }
  if (state.count + length > state.capacity) {
    return zov::kNoRoom;
  }
  zov::storeUtf8(state.out + state.count, codePoint, length);
  state.count += length;
  return zov::kTaken;
}

// Screens the next character into current. Surrogates are caught here, values
// that are too large by the sinks.
SinkResult getNextUnicodeCharacter(EncoderState &state, wchar_t unit) {
  state.current = static_cast<uint32_t>(unit);
  if (!zov::isSurrogate(state.current)) {
    return zov::kTaken;
  }
  state.current = zov::kInvalidUnit;
  return state.mode == ZOV_UTF8_REPLACE ? zov::kTaken : zov::kRefused;
}

// The loops over a block have a fixed length and no branches, for the
// compiler to turn them into vector code.

bool isAsciiBlock(const wchar_t *block) {
  uint32_t bits = 0;
  for (size_t index = 0; index < kBlockChars; ++index) {
    bits |= static_cast<uint32_t>(block[index]);
  }
  return bits < 0x80;
}

// True when every character takes at most three bytes and is none to refuse.
bool isBasicBlock(const wchar_t *block) {
  uint32_t bits = 0;
  uint32_t surrogates = 0;
  for (size_t index = 0; index < kBlockChars; ++index) {
    const uint32_t unit = static_cast<uint32_t>(block[index]);
    bits |= unit;
    surrogates |= (unit & 0xF800) == 0xD800 ? 1 : 0;
  }
  return bits < 0x10000 && surrogates == 0;
}

// Stores a character of at most three bytes in a word of four and returns its
// length. Without a branch: in text the lengths follow no pattern that a
// processor could predict.
uint32_t storeBasic(char *out, uint32_t unit) {
  const uint32_t last = 0x80 | (unit & 0x3F);
  const uint32_t two = (0xC0 | unit >> 6) | last << 8;
  const uint32_t three = (0xE0 | unit >> 12) | (0x80 | (unit >> 6 & 0x3F)) << 8 | last << 16;
  const uint32_t isMany = unit >= 0x80 ? 1 : 0;
  const uint32_t isThree = unit >= 0x800 ? 1 : 0;
  const uint32_t word = unit ^ ((unit ^ two) & (0 - isMany)) ^ ((two ^ three) & (0 - isThree));
  for (uint32_t index = 0; index < 4; ++index) {
    out[index] = static_cast<char>(word >> (8 * index));
  }
  return 1 + isMany + isThree;
}

// The storing end of a run.
struct ByteStore {
  char *next;
  uint64_t room;

  bool hasBlockRoom() const { return room >= kBlockRoom; }

  void took(uint64_t bytes) {
    next += bytes;
    room -= bytes;
  }

  bool takeBlock(const wchar_t *block) {
    if (isAsciiBlock(block)) {
      for (size_t index = 0; index < kBlockChars; ++index) {
        next[index] = static_cast<char>(block[index]);
      }
      took(kBlockChars);
      return true;
    }
    if (!isBasicBlock(block)) {
      return false;
    }
    char *end = next;
    for (size_t index = 0; index < kBlockChars; ++index) {
      end += storeBasic(end, static_cast<uint32_t>(block[index]));
    }
    took(static_cast<uint64_t>(end - next));
    return true;
  }

  bool takeOne(uint32_t codePoint, uint32_t length) {
    if (length > room) {
      return false;
    }
    zov::storeUtf8(next, codePoint, length);
    took(length);
    return true;
  }
};

// The counting end of a run.
struct ByteCounter {
  uint64_t count;

  static bool hasBlockRoom() { return true; }

  bool takeBlock(const wchar_t *block) {
    uint32_t bytes = kBlockChars;
    uint32_t invalid = 0;
    for (size_t index = 0; index < kBlockChars; ++index) {
      const uint32_t unit = static_cast<uint32_t>(block[index]);
      bytes += (unit >= 0x80 ? 1u : 0u) + (unit >= 0x800 ? 1u : 0u) + (unit >= 0x10000 ? 1u : 0u);
      invalid |= (unit > zov::kLastCodePoint ? 1u : 0u) | (zov::isSurrogate(unit) ? 1u : 0u);
    }
    count += invalid == 0 ? bytes : 0;
    return invalid == 0;
  }

  bool takeOne(uint32_t, uint32_t length) {
    count += length;
    return true;
  }
};

// Converts up to the first character that is none or does not fit. Where a
// block is not taken, its characters are.
template <typename Target>
const wchar_t *convertRun(Target &target, const wchar_t *text, const wchar_t *end) {
  while (text != end) {
    while (static_cast<size_t>(end - text) >= kBlockChars + kOverhang && target.hasBlockRoom() &&
           target.takeBlock(text)) {
      text += kBlockChars;
    }
    const wchar_t *stop = static_cast<size_t>(end - text) > kBlockChars ? text + kBlockChars : end;
    for (; text != stop; ++text) {
      const uint32_t unit = static_cast<uint32_t>(*text);
      const uint32_t length = zov::utf8Length(unit);
      if (length == 0 || zov::isSurrogate(unit) || !target.takeOne(unit, length)) {
        return text;
      }
    }
  }
  return end;
}

const wchar_t *takeRun(EncoderState &state, const wchar_t *text, const wchar_t *end) {
  if (state.out == nullptr) {
    ByteCounter counter{state.count};
    text = convertRun(counter, text, end);
    state.count = counter.count;
  } else {
    ByteStore store{state.out + state.count, state.capacity - state.count};
    text = convertRun(store, text, end);
    state.count = state.capacity - store.room;
  }
  return text;
}

// Converts a piece of the text. A result other than kTaken ends the walk.
SinkResult convertPiece(EncoderState &state, const wchar_t *text, size_t lengthChars) {
  const wchar_t *end = text + lengthChars;
  while ((text = takeRun(state, text, end)) != end) {
    SinkResult result = getNextUnicodeCharacter(state, *text++);
    if (result == zov::kTaken) {
      result = state.sink(state, state.current);
    }
    if (result != zov::kTaken) {
      return result;
    }
  }
  return zov::kTaken;
}

// A size of 0 leaves the walk without a bound.
EncoderState begin(char *out, uint32_t sizeBytes, uint32_t errorMode) {
  EncoderState state{};
  state.out = out;
  state.capacity = sizeBytes - 1;
  state.mode = errorMode;
  state.sink = out != nullptr ? emit_utf8_codes : count_utf8_codes;
  return state;
}

// Terminates the result, for which the walk has left a byte.
uint32_t finish(EncoderState &state, uint32_t sizeBytes, SinkResult result) {
  if (result == zov::kRefused) {
    return ZOV_UTF8_FAILED;
  }
  state.capacity = sizeBytes;
  state.sink(state, 0);
  return state.count < ZOV_UTF8_FAILED ? static_cast<uint32_t>(state.count) : ZOV_UTF8_FAILED;
}

}  // namespace

uint32_t zov::encodeWide(char *out, uint32_t sizeBytes, const wchar_t *text, size_t lengthChars,
                         uint32_t errorMode) {
  EncoderState state = begin(out, sizeBytes, errorMode);
  const SinkResult result = convertPiece(state, text, lengthChars);
  return finish(state, sizeBytes, result);
}

extern "C" {

uint32_t zov_wchar_to_utf8(char *out, const wchar_t *text, uint32_t sizeBytes, uint32_t errorMode) {
  EncoderState state = begin(out, sizeBytes, errorMode);
  SinkResult result = zov::kTaken;
  size_t length = kPieceChars;
  while (result == zov::kTaken && length == kPieceChars) {
    length = wcsnlen(text, kPieceChars);
    result = convertPiece(state, text, length);
    text += length;
  }
  return finish(state, sizeBytes, result);
}

uint32_t zov_wchar_to_utf8_len(char *out, uint32_t sizeBytes, const wchar_t *text,
                               uint32_t lengthChars, uint32_t errorMode) {
  return zov::encodeWide(out, sizeBytes, text, lengthChars, errorMode);
}
}
