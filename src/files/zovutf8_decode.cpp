// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 to wide characters. The rules are those of a machine fed with single
// bytes, whose sink counts or stores what comes out:
//
//   between characters  -- lead byte of 2 to 4 -->  in a sequence
//   between characters  <-- last continuation byte, or any other byte --
//
// A byte that breaks a sequence goes down with it: it is not looked at again
// as the start of a character, and counts as one more invalid unit.
//
// Whenever the machine is between characters a run takes over, a tight loop
// that converts whole valid characters, in blocks of ASCII and singly, and
// stops in front of the first that it does not know or that does not fit. Both
// ways give the same characters.
//
// When the room is used up the rest is still decoded, to find what is invalid.
// All state is on the caller's stack. Nothing allocates or jumps.
#include <string.h>

#include "files/zovutf8_private.h"

namespace {

using zov::SinkResult;

constexpr size_t kBlockBytes = 16;

// Terminated strings are taken in pieces, which are still in the nearest cache
// when they are converted after the search for their end.
constexpr size_t kPieceBytes = 4096;

// 1. With out, count is at most capacity.
// 2. count has 64 bits so that a result too long for 32 is seen, not wrapped.
struct DecoderState {
  wchar_t *out;        // null: count only
  uint32_t capacity;   // characters of room, without the terminator's during the walk
  uint64_t count;      // characters stored or counted
  uint16_t expected;   // length of the open sequence, 2 to 4
  uint16_t remaining;  // continuation bytes awaited, 0 between characters
  uint32_t value;      // the code point so far
  uint32_t mode;       // error mode
  SinkResult (*sink)(DecoderState &state, uint32_t codePoint);
};

SinkResult count_wchar(DecoderState &state, uint32_t codePoint) {
  if (codePoint == zov::kInvalidUnit && state.mode != ZOV_UTF8_REPLACE) {
    return zov::kRefused;
  }
  ++state.count;
  return zov::kTaken;
}

SinkResult emit_wchar(DecoderState &state, uint32_t codePoint) {
  if (codePoint == zov::kInvalidUnit) {
    if (state.mode != ZOV_UTF8_REPLACE) {
      return zov::kRefused;
    }
    codePoint = zov::kReplacement;
  }
  if (state.count + 1 > state.capacity) {
    return zov::kNoRoom;
  }
  state.out[state.count++] = static_cast<wchar_t>(codePoint);
  return zov::kTaken;
}

// Sends a number of invalid units.
SinkResult handleUTF8Error(DecoderState &state, uint32_t units) {
  SinkResult result = zov::kTaken;
  for (; units > 0 && result == zov::kTaken; --units) {
    result = state.sink(state, zov::kInvalidUnit);
  }
  return result;
}

// Judges the value of a whole sequence. The two last values of the basic plane
// are refused here although the encoder lets them through; other
// non-characters pass in both directions.
bool isValidValue(uint32_t value, uint32_t lengthBytes) {
  return lengthBytes == zov::utf8Length(value) && !zov::isSurrogate(value) && value - 0xFFFE > 1;
}

SinkResult validateUnicodeValue(DecoderState &state) {
  if (isValidValue(state.value, state.expected)) {
    return state.sink(state, state.value);
  }
  return handleUTF8Error(state, state.expected);
}

SinkResult processFirstByte(DecoderState &state, uint8_t byte) {
  if (byte < 0x80) {
    return state.sink(state, byte);
  }
  const zov::Utf8Lead lead = zov::utf8Lead(byte);
  if (lead.length == 0) {
    return handleUTF8Error(state, 1);
  }
  state.expected = lead.length;
  state.remaining = static_cast<uint16_t>(lead.length - 1);
  state.value = lead.bits;
  return zov::kTaken;
}

SinkResult processSubsequentByte(DecoderState &state, uint8_t byte) {
  if (!zov::isContinuation(byte)) {
    const uint32_t units = state.expected - state.remaining + 1u;
    state.remaining = 0;
    return handleUTF8Error(state, units);
  }
  state.value = state.value << 6 | (byte & 0x3Fu);
  return --state.remaining == 0 ? validateUnicodeValue(state) : zov::kTaken;
}

SinkResult processNextUTF8Byte(DecoderState &state, uint8_t byte) {
  return state.remaining == 0 ? processFirstByte(state, byte) : processSubsequentByte(state, byte);
}

// Decodes the character of several bytes at `bytes`. Returns its length, or 0
// when it is not whole or not valid.
uint32_t decodeOne(const uint8_t *bytes, size_t available, uint32_t &value) {
  const zov::Utf8Lead lead = zov::utf8Lead(bytes[0]);
  if (lead.length == 0 || lead.length > available) {
    return 0;
  }
  value = lead.bits;
  for (uint32_t index = 1; index < lead.length; ++index) {
    if (!zov::isContinuation(bytes[index])) {
      return 0;
    }
    value = value << 6 | (bytes[index] & 0x3Fu);
  }
  return isValidValue(value, lead.length) ? lead.length : 0;
}

bool isAsciiBlock(const uint8_t *block) {
  uint64_t words[2];
  static_assert(sizeof words == kBlockBytes);
  memcpy(words, block, sizeof words);
  return ((words[0] | words[1]) & 0x8080808080808080) == 0;
}

// The storing end of a run.
struct CharStore {
  wchar_t *next;
  uint64_t room;

  // The length is fixed, for the compiler to turn the loop into vector code.
  bool takeBlock(const uint8_t *block) {
    if (room < kBlockBytes || !isAsciiBlock(block)) {
      return false;
    }
    for (size_t index = 0; index < kBlockBytes; ++index) {
      next[index] = block[index];
    }
    next += kBlockBytes;
    room -= kBlockBytes;
    return true;
  }

  bool takeOne(uint32_t value) {
    if (room == 0) {
      return false;
    }
    *next++ = static_cast<wchar_t>(value);
    --room;
    return true;
  }
};

// The counting end of a run.
struct CharCounter {
  uint64_t count;

  bool takeBlock(const uint8_t *block) {
    const bool taken = isAsciiBlock(block);
    count += taken ? kBlockBytes : 0;
    return taken;
  }

  bool takeOne(uint32_t) {
    ++count;
    return true;
  }
};

// Converts up to the first character that is not whole and valid or does not
// fit. Where a block is not taken, the characters that begin in it are.
template <typename Target>
const uint8_t *convertRun(Target &target, const uint8_t *bytes, const uint8_t *end) {
  while (bytes != end) {
    while (static_cast<size_t>(end - bytes) >= kBlockBytes && target.takeBlock(bytes)) {
      bytes += kBlockBytes;
    }
    const uint8_t *stop =
        static_cast<size_t>(end - bytes) > kBlockBytes ? bytes + kBlockBytes : end;
    while (bytes < stop) {
      uint32_t value = *bytes;
      const uint32_t length =
          value < 0x80 ? 1 : decodeOne(bytes, static_cast<size_t>(end - bytes), value);
      if (length == 0 || !target.takeOne(value)) {
        return bytes;
      }
      bytes += length;
    }
  }
  return end;
}

const uint8_t *takeRun(DecoderState &state, const uint8_t *bytes, const uint8_t *end) {
  if (state.out != nullptr && state.count < state.capacity) {
    CharStore store{state.out + state.count, state.capacity - state.count};
    bytes = convertRun(store, bytes, end);
    state.count = state.capacity - store.room;
  } else {
    CharCounter counter{0};
    bytes = convertRun(counter, bytes, end);
    state.count += state.out == nullptr ? counter.count : 0;
  }
  return bytes;
}

// Converts a piece of the text, at whose end a sequence may stay open. False
// when an invalid unit was refused.
bool convertPiece(DecoderState &state, const char *text, size_t lengthBytes) {
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(text);
  const uint8_t *end = bytes + lengthBytes;
  for (;;) {
    if (state.remaining == 0) {
      bytes = takeRun(state, bytes, end);
    }
    if (bytes == end) {
      return true;
    }
    if (processNextUTF8Byte(state, *bytes++) == zov::kRefused) {
      return false;
    }
  }
}

// A size of 0 leaves the walk without a bound.
DecoderState begin(wchar_t *out, uint32_t sizeChars, uint32_t errorMode) {
  DecoderState state{};
  state.out = out;
  state.capacity = sizeChars - 1;
  state.mode = errorMode;
  state.sink = out != nullptr ? emit_wchar : count_wchar;
  return state;
}

// Ends the input, of which a sequence may be open still, and terminates the
// result, for which the walk has left a character. Units for an open sequence
// must all fit.
uint32_t finish(DecoderState &state, uint32_t sizeChars) {
  if (state.remaining != 0 &&
      handleUTF8Error(state, static_cast<uint32_t>(state.expected - state.remaining)) !=
          zov::kTaken) {
    return ZOV_UTF8_FAILED;
  }
  state.capacity = sizeChars;
  state.sink(state, 0);
  return state.count < ZOV_UTF8_FAILED ? static_cast<uint32_t>(state.count) : ZOV_UTF8_FAILED;
}

}  // namespace

uint32_t zov::decodeUtf8(wchar_t *out, uint32_t sizeChars, const char *text, size_t lengthBytes,
                         uint32_t errorMode) {
  DecoderState state = begin(out, sizeChars, errorMode);
  return convertPiece(state, text, lengthBytes) ? finish(state, sizeChars) : ZOV_UTF8_FAILED;
}

extern "C" {

uint32_t zov_utf8_to_wchar(wchar_t *out, const char *text, uint32_t sizeChars, uint32_t errorMode) {
  DecoderState state = begin(out, sizeChars, errorMode);
  size_t length = kPieceBytes;
  while (length == kPieceBytes) {
    length = strnlen(text, kPieceBytes);
    if (!convertPiece(state, text, length)) {
      return ZOV_UTF8_FAILED;
    }
    text += length;
  }
  return finish(state, sizeChars);
}

uint32_t zov_utf8_to_wchar_len(wchar_t *out, uint32_t sizeChars, const char *text,
                               uint32_t lengthBytes, uint32_t errorMode) {
  return zov::decodeUtf8(out, sizeChars, text, lengthBytes, errorMode);
}
}
