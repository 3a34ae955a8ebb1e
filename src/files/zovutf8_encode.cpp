// SPDX-License-Identifier: Apache-2.0
//
// Wide characters to UTF-8. A walk that screens each character and passes it to a
// sink, which counts or stores it, has all the rules. Most characters it leaves to
// runs, tight loops in zovutf8_encode_run.cpp. A run stops before the first
// character that is invalid or does not fit; the walk takes this one, and a new
// run begins behind it:
//
//   text   c c c c c c c c c | surrogate | c c c c c c c ...
//          ------ run -------   screen     ---- run ----
//
// Both ways give the same bytes. All state is on the caller's stack. Nothing
// allocates or jumps.
#include <assert.h>
#include <wchar.h>

#include "files/zovutf8_private.h"

namespace zov {
namespace {

// Terminated strings are converted in pieces, which are still in the nearest cache
// after the search for their end.
constexpr size_t kPieceChars = 4096;

// 1. With out, count is at most capacity.
// 2. count has 64 bits, so that a result too long for 32 is noticed.
struct EncoderState {
  char *out;          // null: count only
  uint32_t capacity;  // bytes of room, without the terminator's during the walk
  uint64_t count;     // bytes stored or counted
  uint32_t mode;      // error mode
  uint32_t current;   // the code point being converted
  SinkResult (*sink)(EncoderState &state, uint32_t codePoint);
};

// The code point to encode: the unit, '?' for an invalid one in replace mode, or
// kInvalidUnit.
uint32_t replaced(const EncoderState &state, uint32_t codePoint) {
  if (codePoint <= kLastCodePoint) {
    return codePoint;
  }
  return state.mode == ZOV_UTF8_REPLACE ? kReplacement : kInvalidUnit;
}

SinkResult count_utf8_codes(EncoderState &state, uint32_t codePoint) {
  const uint32_t length = utf8Length(replaced(state, codePoint));
  state.count += length;
  return length == 0 ? kRefused : kTaken;
}

SinkResult emit_utf8_codes(EncoderState &state, uint32_t codePoint) {
  codePoint = replaced(state, codePoint);
  const uint32_t length = utf8Length(codePoint);
  if (length == 0) {
    return kRefused;
  }
  if (state.count + length > state.capacity) {
    return kNoRoom;
  }
  storeUtf8(state.out + state.count, codePoint, length);
  state.count += length;
  return kTaken;
}

// Screens the next character into current. Surrogates are found here, values that
// are too large by the sinks.
SinkResult getNextUnicodeCharacter(EncoderState &state, wchar_t unit) {
  state.current = static_cast<uint32_t>(unit);
  if (!isSurrogate(state.current)) {
    return kTaken;
  }
  state.current = kInvalidUnit;
  return state.mode == ZOV_UTF8_REPLACE ? kTaken : kRefused;
}

const wchar_t *takeRun(EncoderState &state, const wchar_t *text, const wchar_t *end) {
  char *place = state.out != nullptr ? state.out + state.count : nullptr;
  const EncodeRun run = encodeRun(text, end, place, state.capacity - state.count);
  state.count += run.bytes;
  assert(state.out == nullptr || state.count <= state.capacity);
  return run.text;
}

// Converts a piece of the text. A result other than kTaken ends the walk.
SinkResult convertPiece(EncoderState &state, const wchar_t *text, const wchar_t *end) {
  while ((text = takeRun(state, text, end)) != end) {
    SinkResult result = getNextUnicodeCharacter(state, *text++);
    if (result == kTaken) {
      result = state.sink(state, state.current);
    }
    if (result != kTaken) {
      return result;
    }
  }
  return kTaken;
}

EncoderState begin(char *out, uint32_t sizeBytes, uint32_t errorMode) {
  EncoderState state{};
  state.out = out;
  state.capacity = capacityOf(sizeBytes);
  state.mode = errorMode;
  state.sink = out != nullptr ? emit_utf8_codes : count_utf8_codes;
  return state;
}

uint32_t finish(const EncoderState &state, uint32_t sizeBytes, SinkResult result) {
  return result == kRefused ? ZOV_UTF8_FAILED : terminate(state.out, sizeBytes, state.count);
}

}  // namespace

// Valid text that fits, which most is, is one run and never needs the walk.
uint32_t encodeWide(char *out, uint32_t sizeBytes, const wchar_t *text, size_t lengthChars,
                    uint32_t errorMode) {
  const wchar_t *end = text + lengthChars;
  const EncodeRun run = encodeRun(text, end, out, capacityOf(sizeBytes));
  if (run.text == end) {
    return terminate(out, sizeBytes, run.bytes);
  }
  EncoderState state = begin(out, sizeBytes, errorMode);
  state.count = run.bytes;
  const SinkResult result = convertPiece(state, run.text, end);
  return finish(state, sizeBytes, result);
}

}  // namespace zov

extern "C" {

uint32_t zov_wchar_to_utf8(char *out, const wchar_t *text, uint32_t sizeBytes, uint32_t errorMode) {
  size_t length = wcsnlen(text, zov::kPieceChars);
  if (length < zov::kPieceChars) {
    return zov::encodeWide(out, sizeBytes, text, length, errorMode);
  }
  zov::EncoderState state = zov::begin(out, sizeBytes, errorMode);
  zov::SinkResult result = zov::kTaken;
  while (result == zov::kTaken && length != 0) {
    result = zov::convertPiece(state, text, text + length);
    text += length;
    length = wcsnlen(text, zov::kPieceChars);
  }
  return zov::finish(state, sizeBytes, result);
}

uint32_t zov_wchar_to_utf8_len(char *out, uint32_t sizeBytes, const wchar_t *text,
                               uint32_t lengthChars, uint32_t errorMode) {
  return zov::encodeWide(out, sizeBytes, text, lengthChars, errorMode);
}
}
