// SPDX-License-Identifier: Apache-2.0
//
// The contents of whole files: copy and compare, between disk and memory as the
// type flags of each path say. Both read pieces of up to 32 KiB into two buffers,
// allocated for the length of the call.
//
// A copy works on its destination in place: it writes only the units of 1024 bytes
// that differ, those that follow each other together, and never empties the file
// first. A copy that fails leaves part of the source there. A destination that was
// missing is made for its owner alone, gets its permission bits when it is whole,
// and is removed when the copy fails.
//
// No locks, and nothing jumps: jumps are held off while files are open.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>

#include "core/zov_make.h"
#include "core/zov_shortage.h"
#include "files/zovfile_private.h"
#include "files/zovunix_entry.h"
#include "memstore/zovmfile_place.h"

namespace zov {
namespace {

constexpr uint32_t kUnitBytes = 1024;
constexpr uint32_t kPieceBytes = 32 * kUnitBytes;
constexpr mode_t kOwnerBits = 0600;
constexpr mode_t kSharedBits = 0066;
constexpr mode_t kNewFileBits = 0666;

// Two files, open, and room for a piece of each.
struct Pair {
  ZOV_FILE first;
  ZOV_FILE second;
  char *firstPiece;
  char *secondPiece;
};

char *newPiece() {
  return makeArray<char>(kPieceBytes, ZOV_DEFAULT_TAG, ZOV_HERE);
}

// Calls `work` with two open files and room for a piece of each; `noMemory` without
// memory for that.
int32_t withPieces(ZOV_FILE first, ZOV_FILE second, int32_t noMemory,
                   int32_t (*work)(const Pair &)) {
  assert(noJumpDepth > 0);
  Pair pair = {first, second, newPiece(), nullptr};
  pair.secondPiece = pair.firstPiece == nullptr ? nullptr : newPiece();
  const int32_t status = pair.secondPiece == nullptr ? noMemory : work(pair);
  zov_freeMem(pair.secondPiece, ZOV_DEFAULT_TAG);
  zov_freeMem(pair.firstPiece, ZOV_DEFAULT_TAG);
  return status;
}

// The length of an open file, or -1 on failure.
int64_t lengthOf(ZOV_FILE file) {
  if (memFileOf(*file) != nullptr) {
    return zov_fileLength(file);
  }
  struct stat state;
  return fstat(descriptorOf(*file), &state) == 0 ? state.st_size : -1;
}

// True when a read at an offset gives nothing, without failing.
bool endsAt(ZOV_FILE file, int64_t offset) {
  char byte;
  return zov_fileSeekRead(file, offset, &byte, 1) == 0;
}

// How many bytes of a file were read at an offset, 0 on failure.
uint32_t readAt(ZOV_FILE file, int64_t offset, char *piece, uint32_t lengthBytes) {
  const uint32_t count = zov_fileSeekRead(file, offset, piece, lengthBytes);
  return count == ZOV_IO_FAILED ? 0 : count;
}

// True when the unit at an offset in the piece of the first file is in that of the
// second too, which has so many bytes.
bool holdsSameUnit(const Pair &pair, uint32_t offset, uint32_t lengthBytes, uint32_t present) {
  return offset + lengthBytes <= present &&
         memcmp(pair.firstPiece + offset, pair.secondPiece + offset, lengthBytes) == 0;
}

// Writes what lies from one place in the piece of the first file to another. Behind
// a short write the rest is tried, as only a failing one says why.
bool writeRun(const Pair &pair, int64_t offset, uint32_t from, uint32_t to) {
  while (from < to) {
    const uint32_t count =
        zov_fileSeekWrite(pair.second, offset + from, pair.firstPiece + from, to - from);
    if (count == 0 || count == ZOV_IO_FAILED) {
      return false;
    }
    from += count;
  }
  return true;
}

// Writes the units of a piece of the source that the destination's piece, of
// `present` bytes, does not hold, those that follow each other together.
bool writeDiffering(const Pair &pair, int64_t offset, uint32_t lengthBytes, uint32_t present) {
  uint32_t runStart = 0;
  for (uint32_t at = 0; at < lengthBytes;) {
    const uint32_t next = std::min(at + kUnitBytes, lengthBytes);
    if (holdsSameUnit(pair, at, next - at, present)) {
      if (!writeRun(pair, offset, runStart, at)) {
        return false;
      }
      runStart = next;
    }
    at = next;
  }
  return writeRun(pair, offset, runStart, lengthBytes);
}

// Copies as many bytes as the source has now. A source of length 0 must hold
// nothing: files of /proc hold more than their length says.
int32_t copyBytes(const Pair &pair, int64_t sourceBytes) {
  const int64_t destinationBytes = lengthOf(pair.second);
  if (sourceBytes < 0 || destinationBytes < 0 || (sourceBytes == 0 && !endsAt(pair.first, 0))) {
    return ZOV_ERROR;
  }
  for (int64_t offset = 0; offset < sourceBytes;) {
    const auto want = static_cast<uint32_t>(std::min<int64_t>(kPieceBytes, sourceBytes - offset));
    uint32_t count = readAt(pair.first, offset, pair.firstPiece, want);
    if (count == 0) {
      return ZOV_ERROR;
    }
    const auto there =
        static_cast<uint32_t>(std::clamp<int64_t>(destinationBytes - offset, 0, count));
    const uint32_t present = there == 0 ? 0 : readAt(pair.second, offset, pair.secondPiece, there);
    if (present < there) {
      // Only the unit that could not be read counts as different.
      count = std::min(count, present - present % kUnitBytes + kUnitBytes);
    }
    if (!writeDiffering(pair, offset, count, present)) {
      return ZOV_ERROR;
    }
    offset += count;
  }
  return sourceBytes == destinationBytes ? ZOV_OKAY : zov_fileSetSize(pair.second, sourceBytes);
}

int32_t _fileCopy(const Pair &pair) {
  return copyBytes(pair, lengthOf(pair.first));
}

int32_t _fileCopyWhole(const Pair &pair) {
  const int64_t sourceBytes = lengthOf(pair.first);
  const int32_t status = copyBytes(pair, sourceBytes);
  return status == ZOV_OKAY && !endsAt(pair.first, sourceBytes) ? ZOV_ERROR : status;
}

// Pieces grow from a unit on, so that files that differ at once are read no further.
int32_t _fileCmp(const Pair &pair) {
  int64_t offset = 0;
  for (;;) {
    const auto want =
        static_cast<uint32_t>(std::min<int64_t>(kPieceBytes, kUnitBytes + 3 * offset));
    const uint32_t count = zov_fileSeekRead(pair.first, offset, pair.firstPiece, want);
    if (count == ZOV_IO_FAILED) {
      return ZOV_ERROR;
    }
    if (count == 0) {
      break;
    }
    if (zov_fileSeekRead(pair.second, offset, pair.secondPiece, count) != count ||
        memcmp(pair.firstPiece, pair.secondPiece, count) != 0) {
      return ZOV_ERROR;
    }
    offset += count;
  }
  // Equal so far; the second file may go on.
  return endsAt(pair.second, offset) ? ZOV_OKAY : ZOV_ERROR;
}

// Where a copy goes.
struct Destination {
  ZOV_FILE file;
  bool made;            // it was missing
  char path[PATH_MAX];  // of the file made, links followed
  uint32_t typeFlags;
};

// Makes the file that a path on disk names. Links that lead nowhere yet stay.
void makeOnDisk(Destination &to) {
  if (diskMayChange() && followLinks(to.path)) {
    fileOpenNew(to.path, to.typeFlags, to.file);
  }
}

// Opens the destination of a copy, which is made if it is missing.
bool openDestination(Destination &to, const Place &place) {
  constexpr uint32_t kCreate = O_RDWR | O_CREAT;
  to.typeFlags = place.typeFlags;
  to.file = zov_fileOpen(place.path, O_RDWR, place.typeFlags);
  if (to.file != nullptr || errno != ENOENT || !copyPath(place.path, to.path)) {
    return to.file != nullptr;
  }
  if (isInMemory(place)) {
    to.file = zov_fileOpen(place.path, kCreate, place.typeFlags);
  } else {
    makeOnDisk(to);
  }
  to.made = to.file != nullptr;
  if (!to.made && errno == EEXIST) {
    to.file = zov_fileOpen(place.path, O_RDWR, place.typeFlags);  // another thread was faster
  }
  return to.file != nullptr;
}

// Copies into an open destination, and gives one that was made its permission bits.
int32_t fillDestination(ZOV_FILE from, const Destination &to) {
  const int32_t status = withPieces(from, to.file, ZOV_ERROR, _fileCopy);
  return status == ZOV_OKAY && to.made ? passModeOn(*from, *to.file, nullptr) : status;
}

// Closes a destination that was there before.
int32_t closeKept(const Destination &to, int32_t status) {
  const bool closed = closesWhole(to.file);
  return status == ZOV_OKAY && !closed ? ZOV_ERROR : status;
}

// Closes a destination that was made, and removes it unless it is whole. On disk
// the close may be what reports lost bytes; a second descriptor shows after it
// whether the name still leads to the file.
int32_t closeMade(const Destination &to, int32_t status) {
  assert(to.made && to.path[0] != '\0');
  const bool onDisk = !isInMemory(to.typeFlags);
  const int second = onDisk ? fcntl(descriptorOf(*to.file), F_DUPFD_CLOEXEC, 0) : -1;
  const bool isWhole = status == ZOV_OKAY && (second >= 0 || !onDisk);
  if (!isWhole) {
    removeNameOf(*to.file, to.path);
  }
  const bool closed = closesWhole(to.file);
  if (isWhole && !closed && leadsTo(to.path, second)) {
    zov_fileRemoveEx(to.path, to.typeFlags);
  }
  if (second >= 0) {
    close(second);
  }
  return status == ZOV_OKAY && !(isWhole && closed) ? ZOV_ERROR : status;
}

int32_t copyPlace(const Place &from, const Place &to) {
  const ZOV_FILE source = openSource(from);
  if (source == nullptr) {
    return ZOV_ERROR;
  }
  int32_t status = ZOV_ERROR;
  Destination destination = {};
  if (openDestination(destination, to)) {
    status = fillDestination(source, destination);
    status = destination.made ? closeMade(destination, status) : closeKept(destination, status);
  }
  zov_fileClose(source);
  return status;
}

// The status that gives bits and group to a copy of a file on disk.
bool modelOfSource(int source, struct stat &model) {
  if (fstat(source, &model) != 0) {
    return false;
  }
  model.st_mode = passableMode(source, model.st_mode);
  return true;
}

// The same for a copy of a file in memory: that of the plain file it replaces on
// disk, else that of any new file.
bool modelOfReplaced(const char *replaced, int made, struct stat &model) {
  if (replaced != nullptr && lstat(replaced, &model) == 0) {
    if (S_ISREG(model.st_mode)) {
      model.st_mode = passableMode(replaced, model.st_mode);
      return true;
    }
  } else if (replaced != nullptr && errno != ENOENT) {
    return false;
  }
  if (fstat(made, &model) != 0) {
    return false;
  }
  model.st_mode = kNewFileBits;
  return true;
}

}  // namespace

bool isSamePath(const Place &first, const Place &second) {
  return isInMemory(first) == isInMemory(second) && strcasecmp(first.path, second.path) == 0;
}

// The kind is asked before the file is opened, since opening a device may have an
// effect and opening a fifo waits; and again afterwards, since the name may have
// come to lead elsewhere.
ZOV_FILE openSource(const Place &place) {
  if (isInMemory(place) || standardStream(place.path) >= 0) {
    return zov_fileOpen(place.path, O_RDONLY, place.typeFlags);
  }
  struct stat state;
  if (stat(place.path, &state) != 0 || !S_ISREG(state.st_mode)) {
    return nullptr;
  }
  ZOV_FILE file = nullptr;
  fileOpenPlain(place.path, place.typeFlags, state, file);
  return file;
}

int32_t copyWhole(ZOV_FILE source, ZOV_FILE destination) {
  return withPieces(source, destination, ZOV_ERROR, _fileCopyWhole);
}

int32_t passModeOn(const FileHandle &source, const FileHandle &made, const char *replaced) {
  if (memFileOf(made) != nullptr) {
    return ZOV_OKAY;
  }
  const int descriptor = descriptorOf(made);
  struct stat model;
  const bool hasModel = memFileOf(source) == nullptr ? modelOfSource(descriptorOf(source), model)
                                                     : modelOfReplaced(replaced, descriptor, model);
  if (!hasModel) {
    return ZOV_ERROR;
  }
  return giveMode(descriptor, kOwnerBits | (model.st_mode & kSharedBits & ~deniedBits()),
                  model.st_gid);
}

int32_t removeNameOf(const FileHandle &file, const char *path) {
  if (memFileOf(file) != nullptr) {
    return removeNameOfMemFile(*memFileOf(file), path);
  }
  return leadsTo(path, descriptorOf(file)) ? zov_fileRemove(path) : ZOV_ERROR;
}

}  // namespace zov

extern "C" {

int32_t zov_fileCopy(const char *source, const char *destination) {
  return zov_fileCopyEx(source, 0, destination, 0);
}

int32_t zov_fileCopyEx(const char *source, uint32_t sourceFlags, const char *destination,
                       uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr) {
    return ZOV_ERROR;
  }
  const zov::Place from = {source, sourceFlags};
  const zov::Place to = {destination, destinationFlags};
  if (zov::isInMemory(from) && zov::isSamePath(from, to)) {
    return ZOV_OKAY;
  }
  const zov::NoJump noJump;
  return zov::copyPlace(from, to);
}

int32_t zov_fileCmp(const char *first, const char *second) {
  return zov_fileCmpEx(first, 0, second, 0);
}

int32_t zov_fileCmpEx(const char *first, uint32_t firstFlags, const char *second,
                      uint32_t secondFlags) {
  if (first == nullptr || second == nullptr) {
    return first == nullptr ? ZOV_NOFILE : ZOV_NOFILE2;
  }
  if (zov::isSamePath({first, firstFlags}, {second, secondFlags})) {
    return ZOV_OKAY;
  }
  const zov::NoJump noJump;
  const ZOV_FILE one = zov_fileOpen(first, O_RDONLY, firstFlags);
  if (one == nullptr) {
    return ZOV_NOFILE;
  }
  int32_t status = ZOV_NOFILE2;
  const ZOV_FILE other = zov_fileOpen(second, O_RDONLY, secondFlags);
  if (other != nullptr) {
    status = zov::withPieces(one, other, ZOV_NOMEMORY, zov::_fileCmp);
    zov_fileClose(other);
  }
  zov_fileClose(one);
  return status;
}
}
