// SPDX-License-Identifier: Apache-2.0
//
// The three output stacks, for start-up, for shut-down, and for the two files
// that write through them.
#ifndef ZOV_TEXT_ZOV_CONSOLE_PRIVATE_H
#define ZOV_TEXT_ZOV_CONSOLE_PRIVATE_H

#include <stdio.h>
#include <stdlib.h>

#include "core/zov_private.h"

namespace zov {

// Their locks are ZOV_NO_SYNC before start-up reaches them and after shut-down
// passed them; output then goes to libc's streams.
extern ZOV_FILE_STACK stdoutStack;
extern ZOV_FILE_STACK stderrStack;
extern ZOV_FILE_STACK logStack;

// A stack with the libc stream that stands in for it.
struct Console {
  ZOV_FILE_STACK &stack;
  FILE *standIn;
};

inline Console consoleOf(bool isError) {
  return isError ? Console{stderrStack, stderr} : Console{stdoutStack, stdout};
}

inline bool exists(const ZOV_FILE_STACK &stack) {
  return stack.lock != ZOV_NO_SYNC;
}

// Takes a stack's lock for output. Until leaveOutput() this thread does not
// jump, and a message it logs (a write that fails, memory that is short) is one
// about the output itself: it must not take a second stack's lock.
void enterOutput(ZOV_FILE_STACK &stack);
void leaveOutput(ZOV_FILE_STACK &stack);

// True between the two on this thread.
bool isWritingOutput();

// Where output through a stack goes now, null when it is silent. Its lock is
// held.
inline ZOV_STREAM topStream(const ZOV_FILE_STACK &stack) {
  return stack.top == nullptr ? nullptr : stack.top->info->stream;
}

// Texts below this length need no buffer.
constexpr size_t kShortTextBytes = 512;

// A text that was formatted without a tag. Without memory for a long one it ends
// where shortText does.
struct OutputText {
  char shortText[kShortTextBytes];
  char *longText;  // of libc, null for a text that fits above
  size_t length;   // bytes, zeros among them

  const char *bytes() const { return longText == nullptr ? shortText : longText; }
};

// Formats a text as zov_vsnprintf() does, to be put away with releaseText().
// False when it cannot be formatted.
bool formatText(OutputText &text, const char *format, va_list arguments) ZOV_PRINTF(2, 0);

inline void releaseText(OutputText &text) {
  free(text.longText);
}

// Flushes what is on top of a console's stack; the libc stream when that is
// nothing. Takes the stack's lock.
void flushConsole(Console console);

}  // namespace zov

#endif
