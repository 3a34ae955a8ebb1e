// SPDX-License-Identifier: Apache-2.0
//
// Output stacks and console output. A stack is a pile of redirections, of
// which the top one receives what is written:
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
// holds two of them. What is allocated here is allocated with jumps held off,
// so that neither a lock nor a half-made entry is left behind.
#include <stdlib.h>
#include <strings.h>

#include "core/zov_make.h"
#include "text/zov_console_private.h"

namespace zov {

// Rank 6, each: the output through the stack.
ZOV_FILE_STACK stdoutStack = {ZOV_NO_SYNC, nullptr};
ZOV_FILE_STACK stderrStack = {ZOV_NO_SYNC, nullptr};
ZOV_FILE_STACK logStack = {ZOV_NO_SYNC, nullptr};

namespace {
thread_local int32_t outputDepth = 0;
}

void enterOutput(ZOV_FILE_STACK &stack) ZOV_NO_ANALYSIS {
  holdJumps();
  ++outputDepth;
  zov_syncEnterExcl(stack.lock);
}

void leaveOutput(ZOV_FILE_STACK &stack) ZOV_NO_ANALYSIS {
  zov_syncExitExcl(stack.lock);
  --outputDepth;
  allowJumps();
}

bool isWritingOutput() {
  return outputDepth > 0;
}

bool formatText(OutputText &text, const char *format, va_list arguments) {
  const int32_t length = zov_vsnprintf(text.shortText, sizeof text.shortText, format, arguments);
  text.longText = nullptr;
  text.length = length < 0 ? 0 : static_cast<size_t>(length);
  if (text.length < sizeof text.shortText) {
    return length >= 0;
  }
  text.longText = static_cast<char *>(malloc(text.length + 1));
  if (text.longText == nullptr) {
    text.length = sizeof text.shortText - 1;
    return true;
  }
  zov_vsnprintf(text.longText, text.length + 1, format, arguments);
  return true;
}

void flushConsole(Console console) {
  if (!exists(console.stack)) {
    fflush(console.standIn);
    return;
  }
  enterOutput(console.stack);
  ZOV_STREAM stream = topStream(console.stack);
  if (stream != nullptr) {
    zov_fflush(stream);
  } else {
    fflush(console.standIn);
  }
  leaveOutput(console.stack);
}

}  // namespace zov

namespace {

bool sameName(const char *first, const char *second) {
  if (first == nullptr || second == nullptr) {
    return first == second;
  }
  return strcasecmp(first, second) == 0;
}

// Opens what a FileInfo names; a silent entry names nothing.
int32_t openInfo(ZOV_FILE_INFO &info, const char *name) {
  if (name == nullptr) {
    return ZOV_OKAY;
  }
  info.name = zov::copyString(name, ZOV_DEFAULT_TAG, ZOV_HERE);
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

// As through a stack, so that a text does not depend on when it is printed.
ZOV_PRINTF(2, 0)
int32_t printToLibc(FILE *file, const char *format, va_list arguments) {
  zov::OutputText text;
  if (!zov::formatText(text, format, arguments)) {
    return -1;
  }
  const bool isWritten = fwrite(text.bytes(), 1, text.length, file) == text.length;
  zov::releaseText(text);
  return isWritten ? static_cast<int32_t>(text.length) : -1;
}

ZOV_PRINTF(2, 0)
int32_t _printfV(zov::Console console, const char *format, va_list arguments) {
  if (!zov::exists(console.stack)) {
    return printToLibc(console.standIn, format, arguments);
  }
  int32_t written = 0;
  zov::enterOutput(console.stack);
  ZOV_STREAM stream = zov::topStream(console.stack);
  if (stream != nullptr) {
    written = zov_vfprintf(stream, format, arguments);
  }
  zov::leaveOutput(console.stack);
  return written;
}

int32_t openOn(ZOV_FILE_STACK &stack, const char *name) {
  return zov::started() ? zov_fileStackOpen(&stack, name) : ZOV_ERROR;
}

void closeOn(ZOV_FILE_STACK &stack) {
  if (zov::started()) {
    zov_fileStackClose(&stack);
  }
}

}  // namespace

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
  stack->top = node->next;
  if (--node->info->users == 0) {
    freeInfo(node->info);
  }
  zov_freeMem(node, ZOV_DEFAULT_TAG);
}

ZOV_FILE_INFO *zov_fileStackSearch(ZOV_FILE_STACK *stack, const char *name) {
  for (ZOV_FILE_STACK_NODE *node = stack->top; node != nullptr; node = node->next) {
    if (sameName(node->info->name, name)) {
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
    const int32_t status = openInfo(*info, name);
    if (status != ZOV_OKAY) {
      freeInfo(info);
      return status;
    }
  }
  node->info = info;
  return ZOV_OKAY;
}

void zov_fileStackLock(ZOV_FILE_STACK *stack) ZOV_NO_ANALYSIS {
  zov_syncEnterExcl(stack->lock);
}

void zov_fileStackRelease(ZOV_FILE_STACK *stack) ZOV_NO_ANALYSIS {
  zov_syncExitExcl(stack->lock);
}

int32_t zov_stdout_open(const char *name) {
  return openOn(zov::stdoutStack, name);
}

int32_t zov_stderr_open(const char *name) {
  return openOn(zov::stderrStack, name);
}

void zov_stdout_close() {
  closeOn(zov::stdoutStack);
}

void zov_stderr_close() {
  closeOn(zov::stderrStack);
}

int32_t zov_log_open(const char *name) {
  return openOn(zov::logStack, name);
}

void zov_log_close() {
  closeOn(zov::logStack);
}

int32_t zov_log_create(const char *directory, const char *file) {
  char *name = zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%s%s", directory, file);
  if (name == nullptr) {
    return ZOV_ERROR;
  }
  // What opening the file came to is not told: a log that cannot be opened
  // must not keep its program from working.
  zov_log_open(name);
  zov_freeMem(name, ZOV_DEFAULT_TAG);
  return ZOV_OKAY;
}

int32_t zov_printfV(const char *format, va_list arguments) {
  return _printfV(zov::consoleOf(false), format, arguments);
}

int32_t zov_printf(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov_printfV(format, arguments);
  va_end(arguments);
  return written;
}

int32_t zov_printfErrV(const char *format, va_list arguments) {
  return _printfV(zov::consoleOf(true), format, arguments);
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
  stack->lock = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
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
