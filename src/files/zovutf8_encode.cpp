// SPDX-License-Identifier: Apache-2.0
//
// Wide characters to UTF-8. The rules are those of a walk that screens each
// character and hands it to a sink, which counts or stores it. The walk leaves
// all it can to runs, tight loops over valid characters that fit, which are in
// zovutf8_encode_run.cpp. A run stops in front of the first character that is
// none or does not fit; that one goes the way of the rules, and a new run
// begins behind it:
//
//   text   c c c c c c c c c | surrogate | c c c c c c c ...
//          ------ run -------   screen     ---- run ----
//
// Both ways give the same bytes. All state is on the caller's stack. Nothing
// allocates or jumps.
#include <assert.h>
#include <wchar.h>

#include "files/zovutf8_private.h"

namespace {

using zov::SinkResult;

// Terminated strings are taken in pieces, which are still in the nearest cache
// when they are converted after the search for their end.
constexpr size_t kPieceChars = 4096;

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

const wchar_t *takeRun(EncoderState &state, const wchar_t *text, const wchar_t *end) {
  char *place = state.out != nullptr ? state.out + state.count : nullptr;
  const zov::EncodeRun run = zov::encodeRun(text, end, place, state.capacity - state.count);
  state.count += run.bytes;
  assert(state.out == nullptr || state.count <= state.capacity);
  return run.text;
}

// Converts a piece of the text. A result other than kTaken ends the walk.
SinkResult convertPiece(EncoderState &state, const wchar_t *text, const wchar_t *end) {
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
uint32_t capacityOf(uint32_t sizeBytes) {
  return sizeBytes - 1;
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
  return result == zov::kRefused ? ZOV_UTF8_FAILED
                                 : zov::terminate(state.out, sizeBytes, state.count);
}

}  // namespace

// Text without a fault, which most is, is one run and never needs the rules.
uint32_t zov::encodeWide(char *out, uint32_t sizeBytes, const wchar_t *text, size_t lengthChars,
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

extern "C" {

uint32_t zov_wchar_to_utf8(char *out, const wchar_t *text, uint32_t sizeBytes, uint32_t errorMode) {
  size_t length = wcsnlen(text, kPieceChars);
  if (length < kPieceChars) {
    return zov::encodeWide(out, sizeBytes, text, length, errorMode);
  }
  EncoderState state = begin(out, sizeBytes, errorMode);
  SinkResult result = zov::kTaken;
  while (result == zov::kTaken && length != 0) {
    result = convertPiece(state, text, text + length);
    text += length;
    length = wcsnlen(text, kPieceChars);
  }
  return finish(state, sizeBytes, result);
}

uint32_t zov_wchar_to_utf8_len(char *out, uint32_t sizeBytes, const wchar_t *text,
                               uint32_t lengthChars, uint32_t errorMode) {
  return zov::encodeWide(out, sizeBytes, text, lengthChars, errorMode);
}
}
