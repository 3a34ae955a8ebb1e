// SPDX-License-Identifier: Apache-2.0
//
// Output stacks and console output. A stack is a pile of redirections, and all
// output goes to the top one:
//
//   stack.top -> node -> node -> ...          one node a redirection
//                  \      /
//                   FileInfo {name, stream, users}
//
// Nodes of one stack that name the same file share one FileInfo and so one
// stream, which is closed with the last of them. A FileInfo without a stream is
// a silent entry.
//
// Each stack's lock is held for the length of one output and by nothing else:
// redirections are pushed and popped without it, while nobody writes. No thread
// holds two of them. Allocations are made with jumps held off, so that neither a
// lock nor a half-made entry is left behind.
#include <assert.h>
#include <stdlib.h>
#include <strings.h>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "text/zov_console_private.h"

namespace zov {

// Rank 6, each: the output through the stack.
ZOV_FILE_STACK stdoutStack = {ZOV_NO_SYNC, nullptr};
ZOV_FILE_STACK stderrStack = {ZOV_NO_SYNC, nullptr};
ZOV_FILE_STACK logStack = {ZOV_NO_SYNC, nullptr};

namespace {

// Outputs of this thread that live. A signal's handler may begin one inside another.
constinit thread_local int32_t outputDepth = 0;

bool sameName(const char *first, const char *second) {
  if (first == nullptr || second == nullptr) {
    return first == second;
  }
  return strcasecmp(first, second) == 0;
}

// Opens the file of a FileInfo; a silent entry has none.
int32_t openInfo(ZOV_FILE_INFO &info, const char *name) {
  if (name == nullptr) {
    return ZOV_OKAY;
  }
  info.name = copyString(name, ZOV_DEFAULT_TAG, ZOV_HERE);
  if (info.name == nullptr) {
    return ZOV_NOMEMORY;
  }
  info.stream = zov_fopen(name, "w", ZOV_ENC_BYTES);
  return info.stream == nullptr ? ZOV_ERROR : ZOV_OKAY;
}

void freeInfo(ZOV_FILE_INFO *info) {
  zov_freeMem(info->name, ZOV_DEFAULT_TAG);
  if (info->stream != nullptr) {
    zov_fclose(info->stream);
  }
  zov_freeMem(info, ZOV_DEFAULT_TAG);
}

// The same text as through a stack.
ZOV_PRINTF(2, 0)
int32_t printToLibc(FILE *file, const char *format, va_list arguments) {
  const OutputText text(format, arguments);
  const bool isWritten =
      text.isFormatted && fwrite(text.bytes(), 1, text.length, file) == text.length;
  return isWritten ? static_cast<int32_t>(text.length) : -1;
}

ZOV_PRINTF(2, 0)
int32_t _printfV(Console console, const char *format, va_list arguments) {
  if (!isStarted(console.stack)) {
    return printToLibc(console.standIn, format, arguments);
  }
  const Output output(console.stack);
  return output.stream() == nullptr ? 0 : zov_vfprintf(output.stream(), format, arguments);
}

int32_t openOn(ZOV_FILE_STACK &stack, const char *name) {
  return started() ? zov_fileStackOpen(&stack, name) : ZOV_ERROR;
}

void closeOn(ZOV_FILE_STACK &stack) {
  if (started()) {
    zov_fileStackClose(&stack);
  }
}

}  // namespace

// Counts around the lock: a message about a lock that is not valid takes none.
Output::Output(ZOV_FILE_STACK &stack) : stack_(stack) {
  ++outputDepth;
  zov_syncEnterExcl(stack.lock);
}

Output::~Output() {
  zov_syncExitExcl(stack_.lock);
  assert(outputDepth > 0);
  --outputDepth;
}

bool isWritingOutput() {
  return outputDepth > 0;
}

OutputText::OutputText(const char *format, va_list arguments) {
  const int32_t wanted = zov_vsnprintf(shortText, sizeof shortText, format, arguments);
  isFormatted = wanted >= 0;
  length = isFormatted ? static_cast<size_t>(wanted) : 0;
  if (length < sizeof shortText) {
    return;
  }
  longText = static_cast<char *>(malloc(length + 1));
  if (longText == nullptr) {
    length = sizeof shortText - 1;
  } else {
    zov_vsnprintf(longText, length + 1, format, arguments);
  }
}

bool flushStack(ZOV_FILE_STACK &stack) {
  if (!isStarted(stack)) {
    return false;
  }
  const Output output(stack);
  if (output.stream() == nullptr) {
    return false;
  }
  zov_fflush(output.stream());
  return true;
}

void flushConsole(Console console) {
  if (!flushStack(console.stack)) {
    fflush(console.standIn);
  }
}

}  // namespace zov

extern "C" {

int32_t zov_fileStackOpen(ZOV_FILE_STACK *stack, const char *name) {
  const zov::NoJump noJump;
  ZOV_FILE_STACK_NODE *node = zov::makeUncleared<ZOV_FILE_STACK_NODE>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (node == nullptr) {
    return ZOV_NOMEMORY;
  }
  const int32_t status = zov_getFileInfo(stack, name, node);
  if (status != ZOV_OKAY) {
    zov_freeMem(node, ZOV_DEFAULT_TAG);
    return status;
  }
  ++node->info->users;
  node->next = stack->top;
  stack->top = node;
  return ZOV_OKAY;
}

void zov_fileStackClose(ZOV_FILE_STACK *stack) {
  ZOV_FILE_STACK_NODE *node = stack->top;
  if (node == nullptr) {
    return;
  }
  assert(node->info->users > 0);
  stack->top = node->next;
  if (--node->info->users == 0) {
    zov::freeInfo(node->info);
  }
  zov_freeMem(node, ZOV_DEFAULT_TAG);
}

ZOV_FILE_INFO *zov_fileStackSearch(ZOV_FILE_STACK *stack, const char *name) {
  for (ZOV_FILE_STACK_NODE *node = stack->top; node != nullptr; node = node->next) {
    if (zov::sameName(node->info->name, name)) {
      return node->info;
    }
  }
  return nullptr;
}

int32_t zov_getFileInfo(ZOV_FILE_STACK *stack, const char *name, ZOV_FILE_STACK_NODE *node) {
  node->info = nullptr;
  if (name != nullptr && *name == '\0') {
    name = nullptr;
  }
  ZOV_FILE_INFO *info = zov_fileStackSearch(stack, name);
  if (info == nullptr) {
    const zov::NoJump noJump;
    info = zov::make<ZOV_FILE_INFO>(ZOV_DEFAULT_TAG, ZOV_HERE);
    if (info == nullptr) {
      return ZOV_NOMEMORY;
    }
    const int32_t status = zov::openInfo(*info, name);
    if (status != ZOV_OKAY) {
      zov::freeInfo(info);
      return status;
    }
  }
  node->info = info;
  return ZOV_OKAY;
}

void zov_fileStackLock(ZOV_FILE_STACK *stack) {
  zov_syncEnterExcl(stack->lock);
  zov::forgetLock(stack->lock);  // it is the caller's
}

void zov_fileStackRelease(ZOV_FILE_STACK *stack) {
  zov_syncExitExcl(stack->lock);
}

int32_t zov_stdout_open(const char *name) {
  return zov::openOn(zov::stdoutStack, name);
}

int32_t zov_stderr_open(const char *name) {
  return zov::openOn(zov::stderrStack, name);
}

void zov_stdout_close() {
  zov::closeOn(zov::stdoutStack);
}

void zov_stderr_close() {
  zov::closeOn(zov::stderrStack);
}

int32_t zov_log_open(const char *name) {
  return zov::openOn(zov::logStack, name);
}

void zov_log_close() {
  zov::closeOn(zov::logStack);
}

int32_t zov_log_create(const char *directory, const char *file) {
  char *name = zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s%s", directory, file);
  if (name == nullptr) {
    return ZOV_ERROR;
  }
  // A failure to open the file is not told: a log that cannot be opened must not
  // keep its program from working.
  zov_log_open(name);
  zov_freeMem(name, ZOV_DEFAULT_TAG);
  return ZOV_OKAY;
}

int32_t zov_printfV(const char *format, va_list arguments) {
  return zov::_printfV(zov::consoleOf(false), format, arguments);
}

int32_t zov_printf(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov_printfV(format, arguments);
  va_end(arguments);
  return written;
}

int32_t zov_printfErrV(const char *format, va_list arguments) {
  return zov::_printfV(zov::consoleOf(true), format, arguments);
}

int32_t zov_printfErr(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov_printfErrV(format, arguments);
  va_end(arguments);
  return written;
}

void zov_flush() {
  zov::flushConsole(zov::consoleOf(false));
}

void zov_flushErr() {
  zov::flushConsole(zov::consoleOf(true));
}

int32_t zov_fileStackInit(ZOV_FILE_STACK *stack, const char *name) {
  stack->top = nullptr;
  stack->lock = zov::createMutex(zov::LockKind::kOutputStack, ZOV_HERE);
  if (stack->lock == ZOV_NO_SYNC) {
    return ZOV_ERROR;
  }
  const int32_t status = name == nullptr ? ZOV_OKAY : zov_fileStackOpen(stack, name);
  if (status != ZOV_OKAY) {
    zov_fileStackTerm(stack);
  }
  return status;
}

void zov_fileStackTerm(ZOV_FILE_STACK *stack) {
  while (stack->top != nullptr) {
    zov_fileStackClose(stack);
  }
  zov_syncDelete(stack->lock);
  stack->lock = ZOV_NO_SYNC;
}
}
