// SPDX-License-Identifier: Apache-2.0
//
// Bytes that grow, lines of files, patterns, and what to do when memory is short.
#ifndef MINIDB_TEXT_H
#define MINIDB_TEXT_H

#include "store/page.h"
#include "zov.h"

namespace minidb {

// Does work that allocates from a tag with a recovery point. False when memory ran
// out, wherever the work was then.
template <typename Work>
bool withRecovery(ZOV_TAG tag, Work work) {
  jmp_buf recovery;
  if (setjmp(recovery) != 0) {
    zov_resetTag(nullptr, tag);
    return false;
  }
  zov_resetTag(&recovery, tag);
  work();
  zov_resetTag(nullptr, tag);
  return true;
}

// Released with its tag. A zero-filled one is empty.
struct Buffer {
  char *bytes;
  uint32_t length;
  uint32_t capacity;
};

inline Text textOf(const Buffer &buffer) {
  return {buffer.bytes, buffer.length};
}

// Makes room behind the contents and a NUL behind that, below 2.5 GiB in all. Needs
// a recovery point.
char *makeRoom(Buffer &buffer, ZOV_TAG tag, uint32_t more);

// As makeRoom(), and puts a text there with a NUL behind it.
void append(Buffer &buffer, ZOV_TAG tag, Text text);

enum class Line : uint8_t { kTaken, kEnd, kTooLong, kFailed };

// Puts the next line of a stream, without its end, behind what the buffer holds. After
// a failure errno says why. Needs a recovery point.
Line readLine(ZOV_STREAM stream, Buffer &buffer, ZOV_TAG tag, uint32_t limit);

// Whether a whole text matches a pattern: `*` stands for any text, `?` for one
// character of UTF-8, and a backslash makes what is behind it stand for itself, an
// escape that zov_match() lacks. Takes at most the product of the two lengths.
bool matchesPattern(Text text, Text pattern);

}  // namespace minidb

#endif
