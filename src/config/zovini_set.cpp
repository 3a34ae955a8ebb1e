// SPDX-License-Identifier: Apache-2.0
//
// INI files: sets. A set copies the file line by line into "_temp_.ini" beside
// it, with the change applied on the way, and puts the copy in its place:
//
//   read file, write temporary -> sync and check -> remove, rename -> read again
//
// The file is removed only when every byte of the copy is known to have arrived;
// until then a failure leaves it as it was and takes the temporary file away.
// Lines are copied by length, so zeros survive. What is not text does not: a
// byte-order mark is dropped, and UTF-16 becomes UTF-8.
//
// All is done under iniSem with jumps held off.
#include <errno.h>
#include <string.h>

#include "config/zovini_private.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

constexpr char kTempName[] = "_temp_.ini";

enum class Mode : uint8_t { kSet, kDeleteParam, kDeleteSection };

struct Change {
  Mode mode;
  IniText section;
  IniText name;   // empty in mode kDeleteSection
  IniText value;  // empty in modes other than kSet
};

// A copy under way.
//
// 1. heldBack lines were read and are not written, in the target section only.
// 2. endsLine tells whether what was written ends with a line end; so does
//    nothing at all.
struct Rewrite {
  const Change &change;
  TextStream &out;
  uint64_t heldBack;
  bool isInTarget;
  bool isDone;
  bool endsLine;
  bool hasFailed;  // a byte was not taken; nothing is written any more
};

void write(Rewrite &rewrite, IniText text) {
  if (rewrite.hasFailed || text.length == 0) {
    return;
  }
  rewrite.hasFailed = fileCacheWrite(rewrite.out.cache, text.bytes, text.length) != text.length;
  rewrite.endsLine = text.bytes[text.length - 1] == '\n';
}

void writePair(Rewrite &rewrite) {
  write(rewrite, rewrite.change.name);
  write(rewrite, {"=", 1});
  write(rewrite, rewrite.change.value);
  write(rewrite, {"\n", 1});
}

void writeHeldBack(Rewrite &rewrite) {
  for (; rewrite.heldBack > 0; --rewrite.heldBack) {
    write(rewrite, {"\n", 1});
  }
}

bool startsWithWhite(IniText line) {
  const char first = line.length == 0 ? '\n' : *line.bytes;
  return first == ' ' || (first >= '\t' && first <= '\r');
}

// A line's text from its first byte, or the one behind a bracket, up to a mark.
// False without the mark.
bool textBefore(IniText line, size_t from, char mark, IniText &text) {
  const void *found = memchr(line.bytes + from, mark, line.length - from);
  if (found == nullptr) {
    return false;
  }
  const char *begin = line.bytes + from;
  text = {begin, static_cast<size_t>(static_cast<const char *>(found) - begin)};
  return true;
}

bool isTargetHeader(const Change &change, IniText line) {
  IniText name;
  return *line.bytes == '[' && textBefore(line, 1, ']', name) && iniEqual(name, change.section);
}

// Spaces around the equal sign count: the name must stand as it is given.
bool isTargetParam(const Change &change, IniText line) {
  IniText name = line;
  textBefore(line, 0, '=', name);
  return iniEqual(name, change.name);
}

// The header of the next section: whatever is to be added goes in front of it
// and of the blank lines above it.
void leaveTarget(Rewrite &rewrite, IniText line) {
  rewrite.isDone = true;
  if (rewrite.change.mode == Mode::kSet) {
    writePair(rewrite);
  }
  writeHeldBack(rewrite);
  write(rewrite, line);
}

void takeTargetLine(Rewrite &rewrite, IniText line) {
  const bool isSet = rewrite.change.mode == Mode::kSet;
  if (startsWithWhite(line)) {
    rewrite.heldBack += isSet ? 1 : 0;
    return;
  }
  if (*line.bytes == '[') {
    leaveTarget(rewrite, line);
    return;
  }
  writeHeldBack(rewrite);
  if (!isTargetParam(rewrite.change, line)) {
    write(rewrite, line);
  } else if (isSet) {
    writePair(rewrite);
    rewrite.isDone = true;
  }
}

void takeLine(Rewrite &rewrite, IniText line) {
  const bool deletesSection = rewrite.change.mode == Mode::kDeleteSection;
  if (rewrite.isDone) {
    write(rewrite, line);
  } else if (!rewrite.isInTarget) {
    rewrite.isInTarget = isTargetHeader(rewrite.change, line);
    if (!rewrite.isInTarget || !deletesSection) {
      write(rewrite, line);
    }
  } else if (!deletesSection) {
    takeTargetLine(rewrite, line);
  } else if (*line.bytes == '[') {
    rewrite.isDone = true;
    write(rewrite, line);
  }
}

// Adds what found no place: at the end of the section if the file ends with it,
// else in a new section. Blank lines held back go.
void takeEnd(Rewrite &rewrite) {
  if (rewrite.isDone || rewrite.change.mode != Mode::kSet) {
    return;
  }
  if (!rewrite.isInTarget) {
    write(rewrite, {"\n[", 2});
    write(rewrite, rewrite.change.section);
    write(rewrite, {"]\n", 2});
  } else if (!rewrite.endsLine) {
    write(rewrite, {"\n", 1});
  }
  writePair(rewrite);
}

// Sends the copy to its file and sees to it that it got there: nothing may be
// on the way any more when the original is removed.
bool isWrittenWhole(TextStream &out) {
  const uint64_t length = out.cache.length;
  return fileCacheSync(out.cache) == ZOV_OKAY &&
         zov_fileLength(out.cache.handle) == static_cast<int64_t>(length);
}

int32_t scanINI(const Change &change, TextStream &in, TextStream &out) {
  Rewrite rewrite = {change, out, 0, false, false, true, false};
  char *buffer = nullptr;
  uint32_t sizeBytes = 0;
  uint32_t length = 0;
  LineEnd end = streamGetLine(in, &buffer, &sizeBytes, &length);
  while (end == LineEnd::kWhole && !rewrite.hasFailed) {
    takeLine(rewrite, {buffer, length});
    end = streamGetLine(in, &buffer, &sizeBytes, &length);
  }
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  if (end == LineEnd::kNoMemory) {
    return ZOV_INI_NOMEMORY;
  }
  if (end == LineEnd::kNothing && !isReadWhole(in)) {
    return failureOf(ZOV_INI_NOFILE);
  }
  takeEnd(rewrite);
  const bool isDone = !rewrite.hasFailed && isWrittenWhole(out);
  return isDone ? ZOV_OKAY : failureOf(ZOV_INI_NOTREPLACED);
}

// The bytes of a path that name the directory. In memory either slash separates,
// and the copy must be where the file is: a rename there stays in its directory.
size_t directoryBytesOf(const char *path, uint16_t flags) {
  const bool takesBackslash = (flags & ZOV_FILE_MEMORY) != 0;
  size_t length = strlen(path);
  while (length > 0 && path[length - 1] != '/' && !(takesBackslash && path[length - 1] == '\\')) {
    --length;
  }
  return length;
}

// Where the copy of a file goes, or null without memory.
char *tempPathFor(const char *path, uint16_t flags) {
  const size_t directoryBytes = directoryBytesOf(path, flags);
  const size_t bytes = directoryBytes + sizeof kTempName;
  char *temp =
      static_cast<char *>(zov_getMem(bytes, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
  if (temp != nullptr) {
    memcpy(temp, path, directoryBytes);
    memcpy(temp + directoryBytes, kTempName, sizeof kTempName);
  }
  return temp;
}

// False when the system reports the loss of bytes only now, as it may for a file
// that was not synced.
bool closeCopy(ZOV_STREAM out) {
  errno = 0;
  zov_fclose(out);
  return errno == 0;
}

// Makes the changed copy; on failure there is none.
int32_t makeCopy(const Change &change, const char *path, const char *temp, uint16_t flags) {
  const ZOV_STREAM in = zov_fopenEx(path, "r", ZOV_ENC_BYTES, flags);
  if (in == nullptr) {
    return failureOf(ZOV_INI_NOFILE);
  }
  const ZOV_STREAM out = zov_fopenEx(temp, "w", ZOV_ENC_BYTES, flags);
  if (out == nullptr) {
    zov_fclose(in);
    return failureOf(ZOV_INI_NOFILE);
  }
  int32_t status = scanINI(change, *in, *out);
  if (!closeCopy(out) && status == ZOV_OKAY) {
    status = ZOV_INI_NOTREPLACED;
  }
  zov_fclose(in);
  if (status != ZOV_OKAY) {
    zov_fileRemoveEx(temp, flags);
  }
  return status;
}

int32_t rewriteFile(const Change &change, const char *path, const char *temp, uint16_t flags) {
  const int32_t status = makeCopy(change, path, temp, flags);
  if (status != ZOV_OKAY) {
    return status;
  }
  if (zov_fileRemoveEx(path, flags) != ZOV_OKAY ||
      zov_fileRenameEx(temp, flags, path, flags) != ZOV_OKAY) {
    return ZOV_INI_NOTREPLACED;
  }
  // The change is made; an entry that cannot be filled is empty, and the next
  // get tries again.
  IniFile *file = nullptr;
  CacheINIFile(path, flags, file);
  return ZOV_OKAY;
}

// The file itself must not have the name of the copy.
bool isTempPath(const char *path, const char *temp, uint16_t flags) {
  return (flags & ZOV_FILE_MEMORY) != 0 ? iniEqual(iniText(path), iniText(temp))
                                        : strcmp(path, temp) == 0;
}

Change changeFor(const char *section, const char *name, const char *value) {
  Change change = {Mode::kDeleteSection, iniText(section), {}, {}};
  if (name != nullptr) {
    change.mode = Mode::kDeleteParam;
    change.name = iniText(name);
  }
  if (name != nullptr && value != nullptr) {
    change.mode = Mode::kSet;
    change.value = iniText(value);
  }
  return change;
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_iniSet(const char *path, const char *section, const char *name, const char *value) {
  return zov_iniSetEx(path, section, name, value, 0);
}

int32_t zov_iniSetEx(const char *path, const char *section, const char *name, const char *value,
                     uint16_t flags) {
  if (section == nullptr) {
    return ZOV_INI_NOARGUMENT;
  }
  if (path == nullptr || zov::iniSem == ZOV_NO_SYNC) {
    return ZOV_INI_NOFILE;
  }
  const zov::IniLock lock;
  char *temp = zov::tempPathFor(path, flags);
  if (temp == nullptr) {
    return ZOV_INI_NOMEMORY;
  }
  const int32_t status =
      zov::isTempPath(path, temp, flags)
          ? ZOV_INI_NOFILE
          : zov::rewriteFile(zov::changeFor(section, name, value), path, temp, flags);
  zov_freeMem(temp, ZOV_DEFAULT_TAG);
  return status;
}
}
