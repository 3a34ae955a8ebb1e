// SPDX-License-Identifier: Apache-2.0
//
// INI files: sets. A set copies the file line by line, with the change applied
// on the way, and puts the copy in its place in one step:
//
//   make and lock the copy -> open the file, copy -> check, rename -> read again
//
// On disk the copy is "_temp_.ini" beside the file, and is the lock that keeps sets
// of other processes out (files/zovfile_lockedcopy.h). The file is opened under it,
// so it has their changes. In memory the copy has no name until it takes that of
// the file. The file exists at each moment, and stays as it was until the copy is
// known to have every byte.
//
// Lines are copied by length, so zeros survive. The encoding does not: a byte-order
// mark is dropped, and UTF-16 becomes UTF-8. A file marked FE FF, whose units would
// be read in the wrong order, is refused.
//
// All is done under iniSem with jumps held off, the wait for another process too.
#include <assert.h>
#include <fcntl.h>
#include <string.h>

#include "config/zovini_line.h"
#include "config/zovini_private.h"
#include "core/zov_make.h"
#include "files/zovfile_lockedcopy.h"
#include "files/zovfile_private.h"
#include "memstore/zovmfile_place.h"

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
// 1. heldBack lines were read and are not written; there are none outside of the
//    target section.
// 2. endsLine: the text written so far ends with a line end, or is empty.
struct Rewrite {
  const Change &change;
  FileCache &out;
  uint64_t heldBack;
  bool isInTarget;
  bool isDone;
  bool endsLine;
  bool hasFailed;  // the copy did not take a byte; nothing is written any more
};

void write(Rewrite &rewrite, IniText text) {
  if (rewrite.hasFailed || text.length == 0) {
    return;
  }
  rewrite.hasFailed = fileCacheWrite(rewrite.out, text.bytes, text.length) != text.length;
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
  return line.length == 0 || iniIsWhite(*line.bytes);
}

bool isTargetHeader(const Change &change, IniText line) {
  if (*line.bytes != '[') {
    return false;
  }
  const IniText rest = iniFrom(line, 1);
  const IniText name = iniBefore(rest, ']');
  return name.length < rest.length && iniEqual(name, change.section);
}

// Spaces around the equal sign count: the name must stand as it is given.
bool isTargetParam(const Change &change, IniText line) {
  return iniEqual(iniBefore(line, '='), change.name);
}

// Takes the header of the next section. A new pair stands before it and the blank
// lines above it.
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
  assert(rewrite.heldBack == 0 || (rewrite.isInTarget && !rewrite.isDone));
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

// Adds a pair that found no place: at the end of the section if the file ends with
// it, else in a new section. Blank lines held back are dropped.
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

// In memory what fails a transfer is a shortage of memory.
int32_t scanINI(const Change &change, TextStream &in, FileCache &out, bool isInMemory) {
  Rewrite rewrite = {change, out, 0, false, false, true, false};
  const LineEnd end = iniEachLine(in, [&](IniText line) {
    takeLine(rewrite, line);
    return !rewrite.hasFailed;
  });
  if (end == LineEnd::kNoMemory) {
    return ZOV_INI_NOMEMORY;
  }
  const int32_t read = end == LineEnd::kNothing ? iniReadStatus(in, isInMemory) : ZOV_OKAY;
  if (read != ZOV_OKAY) {
    return read;
  }
  takeEnd(rewrite);
  const bool isDone = !rewrite.hasFailed && fileCacheSyncWhole(out);
  if (isDone) {
    return ZOV_OKAY;
  }
  return isInMemory ? ZOV_INI_NOMEMORY : ZOV_INI_NOTREPLACED;
}

// The bytes of a path that name the directory. In memory either slash separates.
int32_t directoryBytesOf(const char *path, uint16_t flags) {
  size_t length = strlen(path);
  while (length > 0 && path[length - 1] != '/' &&
         !(isInMemory(flags) && path[length - 1] == '\\')) {
    --length;
  }
  return static_cast<int32_t>(length);
}

// Where the copy of a file goes, or null without memory.
char *tempPathFor(const char *path, uint16_t flags) {
  return zov_makeStrVA(ZOV_HERE, ZOV_DEFAULT_TAG, "%.*s%s", directoryBytesOf(path, flags), path,
                       kTempName);
}

// Writes the changed text of a file, which it closes, to a new one.
int32_t copyChanged(const Change &change, ZOV_FILE original, ZOV_FILE copy) {
  const bool isInMemory = memFileOf(*original) != nullptr;
  const ZOV_STREAM in = streamOpenOn(original);
  if (in == nullptr) {
    zov_fileClose(original);
    return ZOV_INI_NOMEMORY;
  }
  FileCache out = {};
  fileCacheOpen(out, copy, {.canRead = false, .canWrite = true});
  const int32_t status =
      streamIsByteSwapped(*in) ? ZOV_INI_NOFILE : scanINI(change, *in, out, isInMemory);
  zov_fclose(in);
  return status;
}

// Fills a copy that has the lock, and gives it the file's place. The file is
// opened only now: it may have been replaced before the lock was taken.
int32_t fillAndPlace(const Change &change, const char *path, LockedCopy &copy) {
  struct stat status;
  ZOV_FILE original = nullptr;
  const Opened opened = openOriginal(path, copy.typeFlags, status, original);
  if (opened != Opened::kYes) {
    return iniUnopened(opened);
  }
  if (lockedCopyIs(copy, status)) {
    zov_fileClose(original);
    return ZOV_INI_NOFILE;
  }
  lockedCopyGiveOwner(copy, status);
  const int32_t copied = copyChanged(change, original, copy.file);
  if (copied != ZOV_OKAY) {
    return copied;
  }
  return lockedCopyPlace(copy, path, status) == ZOV_OKAY ? ZOV_OKAY : ZOV_INI_NOTREPLACED;
}

// isReplaced may be true beside a failure: when the directory could not be synced.
int32_t rewriteOnDisk(const Change &change, const char *path, const char *temp, uint16_t flags,
                      bool &isReplaced) {
  if (loadFlag(zov_readonly) != 0) {
    return ZOV_INI_NOFILE;
  }
  struct stat status;
  ZOV_FILE original = nullptr;
  const Opened opened = openOriginal(path, flags, status, original);
  if (opened != Opened::kYes) {
    return iniUnopened(opened);
  }
  // While the file is open no copy can get its inode number and be taken for it.
  LockedCopy copy = {temp, flags, nullptr, false};
  const int32_t made = lockedCopyMake(copy, status);
  zov_fileClose(original);
  if (made != ZOV_OKAY) {
    return made == ZOV_NOMEMORY ? ZOV_INI_NOMEMORY : ZOV_INI_NOFILE;
  }
  const int32_t result = fillAndPlace(change, path, copy);
  isReplaced = copy.isPlaced;
  lockedCopyEnd(copy);
  return result;
}

int32_t rewriteInMemory(const Change &change, const char *path, uint16_t flags) {
  ZOV_FILE original = nullptr;
  const Opened opened = fileOpen(path, O_RDONLY, flags, original);
  if (opened != Opened::kYes) {
    return iniUnopened(opened);
  }
  const ZOV_FILE draft = fileOpenDraft(path, flags);
  if (draft == nullptr) {
    zov_fileClose(original);
    return ZOV_INI_NOMEMORY;
  }
  int32_t status = copyChanged(change, original, draft);
  if (status == ZOV_OKAY) {
    const int32_t placed = placeMemDraft(memFileOf(*draft), path);
    status = placed == ZOV_OKAY       ? ZOV_OKAY
             : placed == ZOV_NOMEMORY ? ZOV_INI_NOMEMORY
                                      : ZOV_INI_NOTREPLACED;
  }
  zov_fileClose(draft);
  return status;
}

int32_t rewriteFile(const Change &change, const char *path, const char *temp, uint16_t flags)
    ZOV_REQUIRES(iniSem) {
  bool isReplaced = false;
  int32_t status = ZOV_OKAY;
  if (isInMemory(flags)) {
    status = rewriteInMemory(change, path, flags);
    isReplaced = status == ZOV_OKAY;
  } else {
    status = rewriteOnDisk(change, path, temp, flags, isReplaced);
  }
  IniFile *file = nullptr;
  if (isReplaced && CacheINIFile(path, flags, file) != ZOV_OKAY) {
    removeINIFromCache(path);
  }
  return status;
}

// Whether a path is that of the copy, which no set may change.
bool isTempPath(const char *path, const char *temp, uint16_t flags) {
  return isInMemory(flags) ? iniEqual(iniText(path), iniText(temp)) : strcmp(path, temp) == 0;
}

Change changeFor(const char *section, const char *name, const char *value) {
  if (name == nullptr) {
    return {Mode::kDeleteSection, iniText(section), {}, {}};
  }
  if (value == nullptr) {
    return {Mode::kDeleteParam, iniText(section), iniText(name), {}};
  }
  return {Mode::kSet, iniText(section), iniText(name), iniText(value)};
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
  const zov::NoJump noJump;
  const zov::MutexLock lock(zov::iniSem);
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
