// SPDX-License-Identifier: Apache-2.0
//
// The three output stacks, for start-up and shut-down and for the sources that write
// through them.
#ifndef ZOV_TEXT_ZOV_CONSOLE_PRIVATE_H
#define ZOV_TEXT_ZOV_CONSOLE_PRIVATE_H

#include <stdio.h>
#include <stdlib.h>

#include "core/zov_lock.h"

namespace zov {

// Their locks are ZOV_NO_SYNC until their stage of start-up and after that of
// shut-down; output then goes to libc's streams.
extern ZOV_FILE_STACK stdoutStack;
extern ZOV_FILE_STACK stderrStack;
extern ZOV_FILE_STACK logStack;

// A stack, with the libc stream that is used while the stack is not started.
struct Console {
  ZOV_FILE_STACK &stack;
  FILE *standIn;
};

inline Console consoleOf(bool isError) {
  return isError ? Console{stderrStack, stderr} : Console{stdoutStack, stdout};
}

inline bool isStarted(const ZOV_FILE_STACK &stack) {
  return stack.lock != ZOV_NO_SYNC;
}

// Holds a stack's lock, and jumps off, for one output. A message that comes up in
// its scope (a write failed, memory is short) concerns that output, and takes no
// stack's lock.
class ZOV_SCOPED_CAPABILITY Output {
 public:
  explicit Output(ZOV_FILE_STACK &stack) ZOV_ACQUIRE(stack.lock);
  ~Output() ZOV_RELEASE();
  Output(const Output &) = delete;
  Output &operator=(const Output &) = delete;

  // Where the output goes, null when the stack is silent.
  ZOV_STREAM stream() const { return stack_.top == nullptr ? nullptr : stack_.top->info->stream; }

 private:
  const NoJump noJump_;
  const ZOV_FILE_STACK &stack_;
};

// True while an Output of this thread lives.
bool isWritingOutput();

// Texts below this length need no buffer.
constexpr size_t kShortTextBytes = 512;

// A text that is formatted without a tag. Without memory for a long one it ends
// where shortText does. Nothing may jump while it lives.
class OutputText {
 public:
  OutputText(const char *format, va_list arguments) ZOV_PRINTF(2, 0);
  ~OutputText() { free(longText); }
  OutputText(const OutputText &) = delete;
  OutputText &operator=(const OutputText &) = delete;

  const char *bytes() const { return longText == nullptr ? shortText : longText; }

  bool isFormatted;   // false for a format or value that zov_vsnprintf() refuses
  size_t length = 0;  // bytes, zeros among them

 private:
  char shortText[kShortTextBytes];
  char *longText = nullptr;  // of libc, null for a text that fits above
};

// Flushes the top of a stack. False when the stack is silent or not started.
bool flushStack(ZOV_FILE_STACK &stack);

// The same for a console, whose libc stream is flushed instead in that case.
void flushConsole(Console console);

}  // namespace zov

#endif
