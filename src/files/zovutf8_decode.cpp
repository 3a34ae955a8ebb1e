// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 to wide characters. A machine that takes single bytes has all the rules;
// its sink counts or stores the characters:
//
//   between characters  -- lead byte of 2 to 4 -->  in a sequence
//   between characters  <-- last continuation byte, or any other byte --
//
// A byte that breaks a sequence is counted as part of the invalid sequence and not
// looked at again as a lead byte.
//
// Between characters a run takes over: a tight loop over whole characters, in
// zovutf8_decode_run.cpp. It stops before the first character that is invalid or
// does not fit, and leaves it to the machine. Both give the same characters.
//
// When the room is used up the rest is still decoded, to find invalid bytes. All
// state is on the caller's stack. Nothing allocates or jumps.
#include <assert.h>
#include <string.h>

#include "files/zovutf8_private.h"

namespace zov {
namespace {

// Terminated strings are converted in pieces, which are still in the nearest cache
// after the search for their end.
constexpr size_t kPieceBytes = 16384;

// 1. With out, count is at most capacity.
// 2. count has 64 bits, so that a result too long for 32 is noticed.
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
  if (codePoint == kInvalidUnit && state.mode != ZOV_UTF8_REPLACE) {
    return kRefused;
  }
  ++state.count;
  return kTaken;
}

SinkResult emit_wchar(DecoderState &state, uint32_t codePoint) {
  if (codePoint == kInvalidUnit) {
    if (state.mode != ZOV_UTF8_REPLACE) {
      return kRefused;
    }
    codePoint = kReplacement;
  }
  if (state.count + 1 > state.capacity) {
    return kNoRoom;
  }
  state.out[state.count++] = static_cast<wchar_t>(codePoint);
  return kTaken;
}

// Sends a number of invalid units.
SinkResult handleUTF8Error(DecoderState &state, uint32_t units) {
  SinkResult result = kTaken;
  for (; units > 0 && result == kTaken; --units) {
    result = state.sink(state, kInvalidUnit);
  }
  return result;
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
  const Utf8Lead lead = utf8Lead(byte);
  if (lead.length == 0) {
    return handleUTF8Error(state, 1);
  }
  state.expected = lead.length;
  state.remaining = static_cast<uint16_t>(lead.length - 1);
  state.value = lead.bits;
  return kTaken;
}

SinkResult processSubsequentByte(DecoderState &state, uint8_t byte) {
  assert(state.remaining < state.expected && state.expected <= 4);
  if (!isContinuation(byte)) {
    const uint32_t units = state.expected - state.remaining + 1u;
    state.remaining = 0;
    return handleUTF8Error(state, units);
  }
  state.value = state.value << 6 | (byte & 0x3Fu);
  return --state.remaining == 0 ? validateUnicodeValue(state) : kTaken;
}

SinkResult processNextUTF8Byte(DecoderState &state, uint8_t byte) {
  return state.remaining == 0 ? processFirstByte(state, byte) : processSubsequentByte(state, byte);
}

// Takes a run, between characters. Without room the run only looks for the next
// invalid byte.
const uint8_t *takeRun(DecoderState &state, const uint8_t *bytes, const uint8_t *end) {
  if (state.out != nullptr && state.count == state.capacity) {
    return decodeRun(bytes, end, nullptr, 0).bytes;
  }
  wchar_t *place = state.out != nullptr ? state.out + state.count : nullptr;
  const DecodeRun run = decodeRun(bytes, end, place, state.capacity - state.count);
  state.count += run.chars;
  assert(state.out == nullptr || state.count <= state.capacity);
  return run.bytes;
}

// Converts a piece of the text; a sequence may stay open at its end. False when an
// invalid unit was refused.
bool convertPiece(DecoderState &state, const uint8_t *bytes, const uint8_t *end) {
  for (;;) {
    if (state.remaining == 0) {
      bytes = takeRun(state, bytes, end);
    }
    if (bytes == end) {
      return true;
    }
    if (processNextUTF8Byte(state, *bytes++) == kRefused) {
      return false;
    }
  }
}

DecoderState begin(wchar_t *out, uint32_t sizeChars, uint32_t errorMode) {
  DecoderState state{};
  state.out = out;
  state.capacity = capacityOf(sizeChars);
  state.mode = errorMode;
  state.sink = out != nullptr ? emit_wchar : count_wchar;
  return state;
}

// Ends the input. A sequence that is still open is invalid, and its units must all
// fit.
uint32_t finish(DecoderState &state, uint32_t sizeChars) {
  if (state.remaining != 0 &&
      handleUTF8Error(state, static_cast<uint32_t>(state.expected - state.remaining)) != kTaken) {
    return ZOV_UTF8_FAILED;
  }
  return terminate(state.out, sizeChars, state.count);
}

}  // namespace

// Valid text that fits, which most is, is one run and never needs the machine.
uint32_t decodeUtf8(wchar_t *out, uint32_t sizeChars, const char *text, size_t lengthBytes,
                    uint32_t errorMode) {
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(text);
  const uint8_t *end = bytes + lengthBytes;
  const DecodeRun run = decodeRun(bytes, end, out, capacityOf(sizeChars));
  if (run.bytes == end) {
    return terminate(out, sizeChars, run.chars);
  }
  DecoderState state = begin(out, sizeChars, errorMode);
  state.count = run.chars;
  return convertPiece(state, run.bytes, end) ? finish(state, sizeChars) : ZOV_UTF8_FAILED;
}

}  // namespace zov

extern "C" {

uint32_t zov_utf8_to_wchar(wchar_t *out, const char *text, uint32_t sizeChars, uint32_t errorMode) {
  size_t length = strnlen(text, zov::kPieceBytes);
  if (length < zov::kPieceBytes) {
    return zov::decodeUtf8(out, sizeChars, text, length, errorMode);
  }
  zov::DecoderState state = zov::begin(out, sizeChars, errorMode);
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(text);
  while (length != 0) {
    if (!zov::convertPiece(state, bytes, bytes + length)) {
      return ZOV_UTF8_FAILED;
    }
    bytes += length;
    length = strnlen(reinterpret_cast<const char *>(bytes), zov::kPieceBytes);
  }
  return zov::finish(state, sizeChars);
}

uint32_t zov_utf8_to_wchar_len(wchar_t *out, uint32_t sizeChars, const char *text,
                               uint32_t lengthBytes, uint32_t errorMode) {
  return zov::decodeUtf8(out, sizeChars, text, lengthBytes, errorMode);
}
}
