// SPDX-License-Identifier: Apache-2.0
//
// Whole files: copy, compare and move, between disk and memory as the type
// flags of each path say. Both transfers go through two blocks of 1024 bytes,
// allocated for the length of the call.
//
// A copy rewrites only the blocks that differ and never empties its destination
// first: what is equal already is not written again. A move prefers the file
// system's own rename, which replaces the destination in one step.
//
// No locks, and nothing jumps: jumps are held off while files are open.
#include <string.h>
#include <strings.h>

#include "core/zov_private.h"
#include "files/zovfile_private.h"
#include "files/zovunix_entry.h"

namespace {

constexpr uint32_t kBlockBytes = 1024;
constexpr uint32_t kReadOnly = 0;
constexpr uint32_t kReadWriteCreate = 0x42;

// Two files, open, and a block for each.
struct Pair {
  ZOV_FILE first;
  ZOV_FILE second;
  char *firstBlock;
  char *secondBlock;
};

char *newBlock() {
  return static_cast<char *>(
      zov_getMem(kBlockBytes, ZOV_DEFAULT_TAG, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
}

bool allocateBlocks(Pair &pair) {
  pair.firstBlock = newBlock();
  pair.secondBlock = pair.firstBlock == nullptr ? nullptr : newBlock();
  return pair.secondBlock != nullptr;
}

void closePair(Pair &pair) {
  zov_freeMem(pair.secondBlock, ZOV_DEFAULT_TAG);
  zov_freeMem(pair.firstBlock, ZOV_DEFAULT_TAG);
  zov_fileClose(pair.second);
  zov_fileClose(pair.first);
}

// True when the second file holds, at an offset, the block just read from the
// first.
bool holdsSameBlock(const Pair &pair, int64_t offset, uint32_t lengthBytes) {
  return zov_fileSeekRead(pair.second, offset, pair.secondBlock, lengthBytes) == lengthBytes &&
         memcmp(pair.firstBlock, pair.secondBlock, lengthBytes) == 0;
}

int32_t _fileCopy(const Pair &pair) {
  const int64_t sourceBytes = zov_fileLength(pair.first);
  const int64_t destinationBytes = zov_fileLength(pair.second);
  for (int64_t offset = 0; offset < sourceBytes;) {
    const uint32_t count = zov_fileSeekRead(pair.first, offset, pair.firstBlock, kBlockBytes);
    if (count == 0 || count == ZOV_IO_FAILED) {
      return ZOV_ERROR;
    }
    const bool present = offset + count <= destinationBytes && holdsSameBlock(pair, offset, count);
    if (!present && zov_fileSeekWrite(pair.second, offset, pair.firstBlock, count) != count) {
      return ZOV_ERROR;
    }
    offset += count;
  }
  return sourceBytes == destinationBytes ? ZOV_OKAY : zov_fileSetSize(pair.second, sourceBytes);
}

int32_t _fileCmp(const Pair &pair) {
  int64_t offset = 0;
  for (;;) {
    const uint32_t count = zov_fileSeekRead(pair.first, offset, pair.firstBlock, kBlockBytes);
    if (count == ZOV_IO_FAILED) {
      return ZOV_ERROR;
    }
    if (count == 0) {
      break;
    }
    if (!holdsSameBlock(pair, offset, count)) {
      return ZOV_ERROR;
    }
    offset += count;
  }
  // Equal so far; the second file may go on.
  return zov_fileSeekRead(pair.second, offset, pair.secondBlock, 1) == 0 ? ZOV_OKAY : ZOV_ERROR;
}

bool bothOnDisk(uint32_t firstFlags, uint32_t secondFlags) {
  return ((firstFlags | secondFlags) & ZOV_FILE_MEMORY) == 0;
}

// Renames before the destination is gone, so that an interrupted move loses
// neither file. Two links of one file are the case in which the system would
// report success and do nothing.
bool renameOver(const char *source, uint32_t sourceFlags, const char *destination,
                uint32_t destinationFlags) {
  return bothOnDisk(sourceFlags, destinationFlags) && !zov::isSameFile(source, destination) &&
         zov_fileRenameEx(source, sourceFlags, destination, destinationFlags) == ZOV_OKAY;
}

// One of two files to be opened.
struct End {
  const char *path;
  uint32_t typeFlags;
  uint32_t openFlags;
};

// The statuses of what may be missing before the work begins.
struct Failures {
  int32_t first;
  int32_t second;
  int32_t memory;
};

// Works on two files with a block for each.
int32_t onPair(End first, End second, Failures failures, int32_t (*work)(const Pair &)) {
  const zov::NoJump noJump;
  Pair pair = {};
  pair.first = zov_fileOpen(first.path, first.openFlags, first.typeFlags);
  if (pair.first == nullptr) {
    return failures.first;
  }
  pair.second = zov_fileOpen(second.path, second.openFlags, second.typeFlags);
  if (pair.second == nullptr) {
    zov_fileClose(pair.first);
    return failures.second;
  }
  const int32_t status = allocateBlocks(pair) ? work(pair) : failures.memory;
  closePair(pair);
  return status;
}

}  // namespace

bool zov::isSamePath(const char *first, uint32_t firstFlags, const char *second,
                     uint32_t secondFlags) {
  return ((firstFlags ^ secondFlags) & ZOV_FILE_MEMORY) == 0 && strcasecmp(first, second) == 0;
}

extern "C" {

int32_t zov_fileCopy(const char *source, const char *destination) {
  return zov_fileCopyEx(source, 0, destination, 0);
}

int32_t zov_fileCopyEx(const char *source, uint32_t sourceFlags, const char *destination,
                       uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr) {
    return ZOV_ERROR;
  }
  if (!bothOnDisk(sourceFlags, destinationFlags) &&
      zov::isSamePath(source, sourceFlags, destination, destinationFlags)) {
    return ZOV_OKAY;
  }
  return onPair({source, sourceFlags, kReadOnly}, {destination, destinationFlags, kReadWriteCreate},
                {ZOV_ERROR, ZOV_ERROR, ZOV_ERROR}, _fileCopy);
}

int32_t zov_fileCmp(const char *first, const char *second) {
  return zov_fileCmpEx(first, 0, second, 0);
}

int32_t zov_fileCmpEx(const char *first, uint32_t firstFlags, const char *second,
                      uint32_t secondFlags) {
  if (first == nullptr || second == nullptr) {
    return first == nullptr ? ZOV_NOFILE : ZOV_NOFILE2;
  }
  if (zov::isSamePath(first, firstFlags, second, secondFlags)) {
    return ZOV_OKAY;
  }
  return onPair({first, firstFlags, kReadOnly}, {second, secondFlags, kReadOnly},
                {ZOV_NOFILE, ZOV_NOFILE2, ZOV_NOMEMORY}, _fileCmp);
}

int32_t zov_fileMove(const char *source, const char *destination) {
  return zov_fileMoveEx(source, 0, destination, 0);
}

int32_t zov_fileMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                       uint32_t destinationFlags) {
  if (source == nullptr || destination == nullptr) {
    return ZOV_ERROR;
  }
  if (zov::isSamePath(source, sourceFlags, destination, destinationFlags) ||
      (bothOnDisk(sourceFlags, destinationFlags) && zov::isSameEntry(source, destination)) ||
      renameOver(source, sourceFlags, destination, destinationFlags)) {
    return ZOV_OKAY;
  }
  zov_fileRemoveEx(destination, destinationFlags);
  if (zov_fileRenameEx(source, sourceFlags, destination, destinationFlags) == ZOV_OKAY) {
    return ZOV_OKAY;
  }
  const int32_t status = zov_fileCopyEx(source, sourceFlags, destination, destinationFlags);
  if (status == ZOV_OKAY) {
    zov_fileRemoveEx(source, sourceFlags);
  }
  return status;
}
}
