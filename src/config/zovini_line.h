// SPDX-License-Identifier: Apache-2.0
//
// INI files line by line, for reading one and for rewriting one. Lengths rule:
// zeros in a line are characters like any other. Nothing here locks; callers hold
// jumps off.
#ifndef ZOV_CONFIG_ZOVINI_LINE_H
#define ZOV_CONFIG_ZOVINI_LINE_H

#include "config/zovini_name.h"
#include "core/zov_shortage.h"
#include "text/zov_stream_private.h"

namespace zov {

inline bool iniIsWhite(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

// The bytes before the first of a given character; all if there is none.
inline IniText iniBefore(IniText text, char character) {
  const void *found = memchr(text.bytes, character, text.length);
  if (found != nullptr) {
    text.length = static_cast<size_t>(static_cast<const char *>(found) - text.bytes);
  }
  return text;
}

inline IniText iniFrom(IniText text, size_t offset) {
  assert(offset <= text.length);
  return {text.bytes + offset, text.length - offset};
}

// Hands each line, its line end included, to take(), until that gives false. Tells
// how the last line ended: kWhole only where take() stopped.
template <typename Take>
LineEnd iniEachLine(TextStream &stream, Take take) {
  assert(noJumpDepth > 0);
  char *buffer = nullptr;
  uint32_t sizeBytes = 0;
  uint32_t length = 0;
  LineEnd end;
  do {
    end = streamGetLine(stream, &buffer, &sizeBytes, &length);
  } while (end == LineEnd::kWhole && take(IniText{buffer, length}));
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  return end;
}

}  // namespace zov

#endif
