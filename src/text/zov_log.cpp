// SPDX-License-Identifier: Apache-2.0
//
// The log: the one path of every message of the library and of its callers. A
// message is formatted without any lock, then written to the console and behind a
// timestamp to the log file; each is flushed, and the two locks are taken one after
// the other.
//
// Nothing here allocates from a tag, so that a message about a shortage of memory is
// printed: a short message is formatted on the stack, a long one in a buffer of
// libc's, and cut where there is none. A message that comes up while this thread
// writes output concerns that output; it goes to descriptor 2 only, cut short, and
// takes no lock.

// Before start-up a caller's format goes to libc, whose checks would end the
// process for %n in a format that can be written to.
#undef _FORTIFY_SOURCE

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "core/zov_flags.h"
#include "text/zov_console_private.h"

// The pieces of one record together. text is null while there are none.
struct LogChunk {
  char *text;
  uint64_t length;  // characters, without the terminator
};

namespace zov {
namespace {

constexpr size_t kStampBytes = 30;

// Writes a text to a stream and flushes it.
int32_t writeThrough(ZOV_STREAM stream, const char *text) {
  const int32_t written = zov_fputs(text, stream);
  zov_fflush(stream);
  return written < 0 ? 0 : written;
}

int32_t writeToConsole(Console console, const char *text) {
  if (!isStarted(console.stack)) {
    return fputs(text, console.standIn) < 0 ? 0 : static_cast<int32_t>(strlen(text));
  }
  const Output output(console.stack);
  return output.stream() == nullptr ? 0 : writeThrough(output.stream(), text);
}

// The local time as [07-Mar-2024 09:15:02]. Where a locale's month does not fit
// the English one is used.
void formatStamp(char (&stamp)[kStampBytes]) {
  static constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  struct tm now = {};
  zov_timeLocaltime(zov_timeSecs(), &now);
  if (strftime(stamp, sizeof stamp, "[%d-%b-%Y %H:%M:%S]", &now) == 0) {
    zov_snprintf(stamp, sizeof stamp, "[%02d-%.3s-%04d %02d:%02d:%02d]", now.tm_mday,
                 &kMonths[static_cast<size_t>(now.tm_mon) * 3], now.tm_year + 1900, now.tm_hour,
                 now.tm_min, now.tm_sec);
  }
}

void writeToLog(const char *text) {
  if (!isStarted(logStack)) {
    return;
  }
  const Output output(logStack);
  if (output.stream() != nullptr) {
    char stamp[kStampBytes];
    formatStamp(stamp);
    zov_fputs(stamp, output.stream());
    zov_fputs("  ", output.stream());
    writeThrough(output.stream(), text);
  }
}

// Sends a message to the console and to the log.
int32_t _zov_log_str(bool isError, const char *text) {
  const bool isSilent = loadFlag(zov_background) != 0;
  const int32_t written = isSilent ? 0 : writeToConsole(consoleOf(isError), text);
  writeToLog(text);
  return written;
}

// A message about the output that this thread is writing.
ZOV_PRINTF(1, 0)
int32_t writeRaw(const char *format, va_list arguments) {
  char text[kShortTextBytes];
  if (zov_vsnprintf(text, sizeof text, format, arguments) > 0) {
    // A failure here cannot be reported any more.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, strlen(text));
  }
  return 0;
}

// For the time before start-up, when the format is libc's too.
ZOV_PRINTF(2, 0)
int32_t printByLibc(FILE *file, const char *format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int32_t written = vfprintf(file, format, copy);
  va_end(copy);
  return written;
}

ZOV_PRINTF(2, 0)
int32_t _zov_logV(bool isError, const char *format, va_list arguments) {
  if (!started()) {
    return printByLibc(isError ? stderr : stdout, format, arguments);
  }
  if (isWritingOutput()) {
    return writeRaw(format, arguments);
  }
  const OutputText message(format, arguments);
  return message.isFormatted ? _zov_log_str(isError, message.bytes()) : 0;
}

ZOV_PRINTF(2, 0)
int32_t appendPiece(LogChunk &chunk, const char *format, va_list arguments) {
  const int32_t length = zov_vsnprintf(nullptr, 0, format, arguments);
  if (length < 0) {
    return -1;
  }
  const uint64_t sizeBytes = static_cast<uint64_t>(length) + 1;
  char *text = static_cast<char *>(realloc(chunk.text, chunk.length + sizeBytes));
  if (text == nullptr) {
    return -1;
  }
  chunk.text = text;
  const int32_t written = zov_vsnprintf(text + chunk.length, sizeBytes, format, arguments);
  chunk.length += static_cast<uint64_t>(length);
  return written;
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_logV(const char *format, va_list arguments) {
  return zov::_zov_logV(false, format, arguments);
}

int32_t zov_log(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov::_zov_logV(false, format, arguments);
  va_end(arguments);
  return written;
}

int32_t zov_log_errV(const char *format, va_list arguments) {
  return zov::_zov_logV(true, format, arguments);
}

int32_t zov_log_err(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov::_zov_logV(true, format, arguments);
  va_end(arguments);
  return written;
}

ZOV_LOG_CHUNK zov_log_chunk_init() {
  return zov::started() ? static_cast<LogChunk *>(calloc(1, sizeof(LogChunk))) : nullptr;
}

int32_t zov_log_chunk(ZOV_LOG_CHUNK chunk, const char *format, ...) {
  if (chunk == nullptr || format == nullptr) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = zov::appendPiece(*chunk, format, arguments);
  va_end(arguments);
  return written;
}

void zov_log_chunk_end(ZOV_LOG_CHUNK chunk, const char *format, ...) {
  if (chunk == nullptr) {
    return;
  }
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    zov::appendPiece(*chunk, format, arguments);
    va_end(arguments);
  }
  // For empty pieces the log would get a stamp without a line end.
  if (chunk->length > 0) {
    zov::_zov_log_str(false, chunk->text);
  }
  free(chunk->text);
  free(chunk);
}

void zov_log_flush() {
  if (zov::loadFlag(zov_background) == 0) {
    zov::flushConsole(zov::consoleOf(false));
    zov::flushConsole(zov::consoleOf(true));
  }
  zov::flushStack(zov::logStack);
}
}
