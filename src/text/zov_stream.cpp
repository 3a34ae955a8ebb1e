// SPDX-License-Identifier: Apache-2.0
//
// Text streams: opening, closing and seeking. A stream is a buffered text file
// whose callers always see UTF-8 bytes, whatever the file holds:
//
//   caller -- UTF-8 -- [ push-back, UTF-16 codec ] -- FileCache -- file handle
//
// The work is split over four sources: this one; zov_stream_cache.cpp, the
// block over the file handle; zov_stream_read.cpp and zov_stream_write.cpp.
//
// The byte-order mark of a file decides how it is read. Both orders of the UTF-16
// mark, and the pair EF FF, mean UTF-16 in host byte order. UTF-16 files are
// written with a mark, byte files without.
//
// Streams have no lock: one thread uses one at a time. Each is a block of the
// default tag from zov_fopen() to zov_fclose(). Opening may jump before a file
// is open; formatting and line reading may jump with the stream intact.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "core/zov_flags.h"
#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "core/zov_word.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

constexpr uint32_t kModeLetters = 3;
constexpr uint16_t kWrittenMark = 0xFEFF;

struct ByteOrderMark {
  const char *bytes;
  uint32_t lengthBytes;
  zov_encoding encoding;
};

constexpr ByteOrderMark kMarks[] = {
    {"\xEF\xBB\xBF", 3, ZOV_ENC_BYTES},
    {"\xEF\xFF", 2, ZOV_ENC_UTF16},
    {"\xFF\xFE", 2, ZOV_ENC_UTF16},
    {"\xFE\xFF", 2, ZOV_ENC_UTF16},
};

// A mode string as it was read.
struct OpenMode {
  uint32_t openFlags = O_RDONLY;
  bool isWriting = false;  // the file gets a mark and is not asked for one
};

// Reads the letters of a mode; later letters rule over earlier ones. False for
// any letter but r, w, a and +.
bool parseMode(const char *text, OpenMode &mode) {
  for (uint32_t i = 0; text != nullptr && i < kModeLetters && text[i] != '\0'; ++i) {
    switch (text[i]) {
      case 'r':
        mode.openFlags = O_RDONLY;
        break;
      case 'w':
        mode.openFlags = O_WRONLY | O_CREAT | O_TRUNC;
        mode.isWriting = true;
        break;
      case 'a':
        mode.openFlags = O_WRONLY | O_CREAT | O_APPEND;
        mode.isWriting = true;
        break;
      case '+':
        mode.openFlags = (mode.openFlags | O_RDWR) & ~static_cast<uint32_t>(O_WRONLY);
        break;
      default:
        return false;
    }
  }
  return true;
}

bool isStandardName(const char *name) {
  return name != nullptr && (strcmp(name, "stdout") == 0 || strcmp(name, "stderr") == 0);
}

void writeBOM(TextStream &stream) {
  if (stream.encoding == ZOV_ENC_UTF16) {
    fileCacheWrite(stream.cache, &kWrittenMark, sizeof kWrittenMark);
    stream.bomLength = sizeof kWrittenMark;
  }
}

bool beginsMark(char byte) {
  return std::any_of(std::begin(kMarks), std::end(kMarks),
                     [byte](const ByteOrderMark &mark) { return mark.bytes[0] == byte; });
}

// Decides the encoding by the mark of the file and leaves the stream on the
// first byte behind it. A file of one byte that could have begun a mark keeps the
// encoding that the caller gave. Each byte of the file is asked for once, and none
// that is not needed: the input may be a terminal.
void checkForBOM(TextStream &stream) {
  FileCache &cache = stream.cache;
  const int32_t passed = stream.encoding;
  stream.encoding = ZOV_ENC_BYTES;
  if (!fileCachePeek(cache, 1) || !beginsMark(cache.data[0])) {
    return;
  }
  if (!fileCachePeek(cache, 2)) {
    stream.encoding = passed;
    return;
  }
  for (const ByteOrderMark &mark : kMarks) {
    if (memcmp(cache.data, mark.bytes, 2) == 0 && fileCachePeek(cache, mark.lengthBytes) &&
        memcmp(cache.data, mark.bytes, mark.lengthBytes) == 0) {
      stream.encoding = mark.encoding;
      stream.bomLength = static_cast<int32_t>(mark.lengthBytes);
      fileCacheSeek(cache, mark.lengthBytes, 0);
      return;
    }
  }
}

FileUse useOf(const OpenMode &mode, const char *name, uint32_t options) {
  const uint32_t access = mode.openFlags & O_ACCMODE;
  const bool appends = (mode.openFlags & O_APPEND) != 0;
  return {.canRead = access != O_WRONLY,
          .canWrite = access != O_RDONLY,
          .appends = appends && access == O_WRONLY,
          .seeksEnd = appends && (options & ZOV_FILE_MEMORY) != 0,
          .hasEnd = !isStandardName(name)};
}

Opened refuse() {
  errno = EINVAL;
  return Opened::kNo;
}

// Makes a stream over the file of a name.
Opened openStream(const char *name, uint32_t openFlags, uint32_t options, const FileUse &use,
                  ZOV_STREAM &stream) {
  if (!started() || name == nullptr) {
    return refuse();
  }
  TextStream *made = make<TextStream>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (made == nullptr) {
    return Opened::kNoMemory;
  }
  ZOV_FILE handle = nullptr;
  const Opened opened = fileOpen(name, openFlags | O_CLOEXEC, options, handle);
  if (opened != Opened::kYes) {
    const KeepErrno kept;
    zov_freeMem(made, ZOV_DEFAULT_TAG);
    return opened;
  }
  fileCacheOpen(made->cache, handle, use);
  stream = made;
  return Opened::kYes;
}

// Sets the encoding of a stream whose file stands at its start.
void begin(TextStream &stream, bool isWriting, int32_t encoding) {
  stream.encoding = isWriting && encoding == 0 ? ZOV_ENC_BYTES : encoding;
  if (isWriting) {
    writeBOM(stream);
  } else {
    checkForBOM(stream);
  }
}

}  // namespace

Opened streamOpen(const char *name, const char *mode, int32_t encoding, uint32_t options,
                  ZOV_STREAM &stream) {
  OpenMode parsed;
  if (!parseMode(mode, parsed)) {
    return refuse();
  }
  const Opened opened =
      openStream(name, parsed.openFlags, options, useOf(parsed, name, options), stream);
  if (opened == Opened::kYes) {
    begin(*stream, parsed.isWriting, encoding);
  }
  return opened;
}

ZOV_STREAM streamOpenOn(ZOV_FILE handle) {
  assert(noJumpDepth > 0);
  TextStream *stream = make<TextStream>(ZOV_DEFAULT_TAG, ZOV_HERE);
  if (stream != nullptr) {
    fileCacheOpen(stream->cache, handle, useOf({}, nullptr, 0));
    begin(*stream, false, ZOV_ENC_BYTES);
  }
  return stream;
}

bool streamReachedEnd(const TextStream &stream) {
  return !stream.cache.readFailed && stream.cache.position >= stream.cache.length;
}

bool streamReadFailed(const TextStream &stream) {
  return stream.cache.readFailed;
}

bool streamIsByteSwapped(const TextStream &stream) {
  return stream.bomLength == 2 && memcmp(stream.cache.data, "\xFE\xFF", 2) == 0;
}

}  // namespace zov

extern "C" {

ZOV_STREAM zov_fopen(const char *name, const char *mode, int32_t encoding) {
  return zov_fopenEx(name, mode, encoding, 0);
}

ZOV_STREAM zov_fopenEx(const char *name, const char *mode, int32_t encoding, uint32_t options) {
  ZOV_STREAM stream = nullptr;
  zov::streamOpen(name, mode, encoding, options, stream);
  return stream;
}

ZOV_STREAM zov_fopen_std(const char *name) {
  const bool isOutput = zov::isStandardName(name);
  const zov::FileUse use = {.canRead = !isOutput, .canWrite = isOutput};
  ZOV_STREAM stream = nullptr;
  if (zov::openStream(name, O_RDONLY, 0, use, stream) == zov::Opened::kYes) {
    stream->encoding = ZOV_ENC_BYTES;
  }
  return stream;
}

void zov_fclose(ZOV_STREAM stream) {
  zov::fileCacheClose(stream->cache);
  const zov::KeepErrno kept;
  zov_freeMem(stream->formatBuffer, ZOV_DEFAULT_TAG);
  zov_freeMem(stream, ZOV_DEFAULT_TAG);
}

int32_t zov_fseek(ZOV_STREAM stream, int32_t offset, int32_t origin) {
  const int64_t mark = origin == 0 ? stream->bomLength : 0;
  return zov::fileCacheSeek(stream->cache, offset + mark, origin);
}
}
