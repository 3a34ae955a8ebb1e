// SPDX-License-Identifier: Apache-2.0
//
// File handles: one kind of handle for disk files, the three standard streams
// and files in memory. Every operation calls the layer that holds the file.
//
//   ZOV_FILE -> FileHandle { fd, mfile, lockMutex, path, ... } "path\0"
//                            |   |
//                            |   +-> zov_mf* -> the memory file system
//                            +-> zov_fl* -> the system
//
// A handle is one block of fileTag with its path behind the record, so that
// opening allocates once, before there is a descriptor to lose.
//
// The process-wide flags are enforced here: under the read-only flag disk files
// are not opened for writing, written, resized or synced, and under the
// diskless flag they are not opened at all. Neither concerns the standard
// streams.
//
// lockMutex makes threads of this process queue up for a handle on disk; the
// system's file lock, taken under it, keeps other handles and processes out. A
// file in memory has a lock of its own. Transfers take neither: one costs a few
// tests and a call of the layer beneath.
//
// fileTag is private and never armed. Only zov_fileOpenW() may jump: its copy of
// the path is in the default tag.
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "core/zov_flags.h"
#include "core/zov_lock.h"
#include "core/zov_make.h"
#include "core/zov_word.h"
#include "core/zovuxthreads_private.h"
#include "files/zovfile_private.h"
#include "files/zovunix_private.h"
#include "files/zovutf8_private.h"
#include "memstore/zovmfile_place.h"
#include "memstore/zovmfile_transfer.h"

// 1. mfile is set exactly when the handle is of a file in memory.
// 2. fd is ZOV_NO_DESCRIPTOR for a file in memory, and where the system refused
//    to open without an error number. Transfers of the latter fail with EBADF.
// 3. path lies behind the record, in the same block.
// 4. lockMutex changes once, from ZOV_NO_SYNC to the mutex.
struct ZOV_CAPABILITY("lock of a file") FileHandle {
  const char *path;
  uint64_t fd;
  ZOV_MFILE mfile;
  bool isStd;       // a standard stream, whose descriptor stays open
  bool isUnsynced;  // opened with ZOV_FILE_NOSYNC
  // Rank 7: held from zov_fileLock() to zov_fileUnlock(); guards what the
  // callers agree it guards. Made by the first lock.
  std::atomic<uint64_t> lockMutex;
};

namespace zov {
namespace {

constexpr uint32_t kWriteFlags = O_WRONLY | O_RDWR | O_CREAT;

// The tag of every handle, from start-up to shut-down.
ZOV_TAG fileTag = ZOV_NO_TAG;

// Disk files are not written under the read-only flag; standard streams are.
bool isWriteProtected(const FileHandle &file) {
  return loadFlag(zov_readonly) != 0 && !file.isStd;
}

void reportWrite() {
  const KeepErrno kept;
  fprintf(stderr, "Write failed, errno = %d\n", errno);
}

void reportRead() {
  const KeepErrno kept;
  zov_log("Read failed, errno = %d\n", errno);
}

void reportSeek(const char *direction) {
  const KeepErrno kept;
  zov_log("Failed to seek and %s, errno = %d\n", direction, errno);
}

// Refuses as the system does, with errno.
int32_t refuse(int error) {
  errno = error;
  return ZOV_ERROR;
}

// Opens what the handle names. A failure sets errno. Names of standard streams
// are looked for before the process-wide flags, and on disk only.
int32_t openFile(FileHandle &file, uint32_t openFlags, uint32_t typeFlags) {
  if (isInMemory(typeFlags)) {
    return memOpen(file.path, openFlags, file.mfile);
  }
  const int32_t streamNumber = standardStream(file.path);
  if (streamNumber >= 0) {
    file.isStd = true;
    return zov_flOpenStd(&file.fd, streamNumber);
  }
  if (loadFlag(zov_readonly) != 0 && (openFlags & kWriteFlags) != 0) {
    return refuse(EROFS);
  }
  if (loadFlag(zov_diskless) != 0) {
    return refuse(EACCES);
  }
  return zov_flOpen(file.path, openFlags, 0, &file.fd);
}

// Releases a handle whose file is closed or never opened. errno still says what
// failed before.
void cleanupFile(FileHandle *file) {
  const KeepErrno kept;
  zov_syncDelete(file->lockMutex.load(std::memory_order_acquire));
  zov_freeMem(file, fileTag);
}

FileHandle *newHandle(const char *path, uint32_t typeFlags) {
  const size_t pathBytes = strlen(path) + 1;
  FileHandle *file = makeUncleared<FileHandle>(fileTag, ZOV_HERE, pathBytes);
  if (file == nullptr) {
    return nullptr;
  }
  char *copy = reinterpret_cast<char *>(file + 1);
  memcpy(copy, path, pathBytes);
  return new (file) FileHandle{.path = copy,
                               .fd = ZOV_NO_DESCRIPTOR,
                               .mfile = nullptr,
                               .isStd = false,
                               .isUnsynced = (typeFlags & ZOV_FILE_NOSYNC) != 0,
                               .lockMutex = ZOV_NO_SYNC};
}

// Makes a handle for a path and calls `open`, which opens the file and gives a
// status, with errno.
template <typename Open>
Opened openHandle(const char *path, uint32_t typeFlags, ZOV_FILE &file, Open open) {
  FileHandle *handle = newHandle(path, typeFlags);
  if (handle == nullptr) {
    return Opened::kNoMemory;
  }
  const int32_t status = open(*handle);
  if (status != ZOV_OKAY) {
    cleanupFile(handle);
    return isInMemory(typeFlags) && status == ZOV_NOMEMORY ? Opened::kNoMemory : Opened::kNo;
  }
  assert(isInMemory(typeFlags) == (handle->mfile != nullptr));
  assert(handle->mfile == nullptr || handle->fd == ZOV_NO_DESCRIPTOR);
  file = handle;
  return Opened::kYes;
}

// Whatever the name says, there is no minimum size here.
FileHandle *_fileOpenMinSize(const char *path, uint32_t openFlags, uint32_t typeFlags) {
  ZOV_FILE file = nullptr;
  fileOpen(path, openFlags, typeFlags, file);
  return file;
}

// Nothing is opened without a path or before start-up.
bool mayOpen(const void *path) {
  if (started() && path != nullptr) {
    return true;
  }
  errno = EINVAL;
  return false;
}

void reportInconsistent(const FileHandle &file) {
  if (strcmp(file.path, "stdout") != 0) {
    const KeepErrno kept;
    zov_log("Inconsistent file state %s\n", file.path);
  }
}

uint32_t fileWrite(const FileHandle &file, const void *buffer, uint32_t lengthBytes) {
  if (file.mfile != nullptr) {
    return memWrite(file.mfile, buffer, lengthBytes);
  }
  if (isWriteProtected(file)) {
    return 0;
  }
  const uint32_t written = nativeWrite(file.fd, buffer, lengthBytes);
  if (written == ZOV_IO_FAILED) [[unlikely]] {
    reportWrite();
  }
  return written;
}

uint32_t fileRead(const FileHandle &file, void *buffer, uint32_t lengthBytes) {
  if (file.mfile != nullptr) {
    return memRead(file.mfile, buffer, lengthBytes);
  }
  const uint32_t count = nativeRead(file.fd, buffer, lengthBytes);
  if (count == ZOV_IO_FAILED) [[unlikely]] {
    reportRead();
  }
  return count;
}

uint32_t fileSeekWrite(const FileHandle &file, int64_t offset, const void *buffer,
                       uint32_t lengthBytes) {
  if (file.mfile != nullptr) {
    return offset == ZOV_OFFSET_CURRENT
               ? memWrite(file.mfile, buffer, lengthBytes)
               : memSeekWrite(file.mfile, static_cast<uint64_t>(offset), buffer, lengthBytes);
  }
  return isWriteProtected(file) ? 0 : nativeSeekWrite(file.fd, offset, buffer, lengthBytes);
}

uint32_t fileSeekRead(const FileHandle &file, int64_t offset, void *buffer, uint32_t lengthBytes) {
  if (file.mfile != nullptr) {
    return offset == ZOV_OFFSET_CURRENT
               ? memRead(file.mfile, buffer, lengthBytes)
               : memSeekRead(file.mfile, static_cast<uint64_t>(offset), buffer, lengthBytes);
  }
  return nativeSeekRead(file.fd, offset, buffer, lengthBytes);
}

// The mutex of a handle, made if there is none yet. Two threads may make one
// each; the first to store its own wins. ZOV_NO_SYNC when none can be made. Stores
// release and loads acquire: a thread that reads a mutex finds it made.
ZOV_SYNC ensureLockMutex(FileHandle &file) {
  uint64_t current = file.lockMutex.load(std::memory_order_acquire);
  if (current != ZOV_NO_SYNC) {
    return current;
  }
  const ZOV_SYNC created = createMutex(LockKind::kFile, ZOV_HERE);
  if (created == ZOV_NO_SYNC) {
    return file.lockMutex.load(std::memory_order_acquire);
  }
  if (!file.lockMutex.compare_exchange_strong(current, created, std::memory_order_acq_rel)) {
    zov_syncDelete(created);
    return current;
  }
  return created;
}

// Takes the mutex, which waits for threads of this process, then the file's lock,
// which waits for nobody. On success both stay held, for the caller of
// zov_fileLock(). Without a mutex the file's lock is taken alone.
int32_t lockFile(FileHandle &file) ZOV_TRY_ACQUIRE(0, file) {
  const ZOV_SYNC mutex = ensureLockMutex(file);
  if (mutex != ZOV_NO_SYNC) {
    zov_syncEnterExcl(mutex);
  }
  const int32_t status = zov_flLock(file.fd);
  if (status != ZOV_OKAY && mutex != ZOV_NO_SYNC) {
    zov_syncExitExcl(mutex);
  }
  forgetLock(mutex);  // it is the caller's
  return status;
}

}  // namespace

int32_t standardStream(const char *path) {
  if (strcmp(path, "stdout") == 0) {
    return STDOUT_FILENO;
  }
  if (strcmp(path, "stdin") == 0) {
    return STDIN_FILENO;
  }
  return strcmp(path, "stderr") == 0 ? STDERR_FILENO : -1;
}

Opened fileOpen(const char *path, uint32_t openFlags, uint32_t typeFlags, ZOV_FILE &file) {
  // Truncating always creates what is missing.
  const uint32_t created = (openFlags & O_TRUNC) != 0 ? openFlags | O_CREAT : openFlags;
  return openHandle(path, typeFlags, file,
                    [&](FileHandle &handle) { return openFile(handle, created, typeFlags); });
}

Opened fileOpenNew(const char *path, uint32_t typeFlags, ZOV_FILE &file) {
  return openHandle(path, typeFlags, file, [&](FileHandle &handle) {
    const int opened = openNewFile(path);
    handle.fd = static_cast<uint64_t>(opened);
    return opened >= 0 ? ZOV_OKAY : ZOV_ERROR;
  });
}

Opened fileOpenPlain(const char *path, uint32_t typeFlags, struct stat &status, ZOV_FILE &file) {
  ZOV_FILE found = nullptr;
  const Opened opened = fileOpen(path, O_RDONLY | O_NONBLOCK, typeFlags, found);
  if (opened != Opened::kYes) {
    return opened;
  }
  if (fstat(descriptorOf(*found), &status) != 0 || !S_ISREG(status.st_mode)) {
    zov_fileClose(found);
    return Opened::kNo;
  }
  file = found;
  return Opened::kYes;
}

ZOV_FILE fileOpenDraft(const char *path, uint32_t typeFlags) {
  ZOV_FILE file = nullptr;
  openHandle(path, typeFlags, file, [](FileHandle &handle) {
    handle.mfile = newMemDraft();
    return handle.mfile == nullptr ? ZOV_NOMEMORY : ZOV_OKAY;
  });
  return file;
}

int descriptorOf(const FileHandle &file) {
  assert(file.mfile == nullptr);
  return nativeOf(file.fd);
}

ZOV_MFILE memFileOf(const FileHandle &file) {
  return file.mfile;
}

bool closesWhole(ZOV_FILE file) {
  bool isWhole = true;
  if (file->mfile != nullptr) {
    zov_mfClose(file->mfile);
  } else if (file->fd == ZOV_NO_DESCRIPTOR) {
    reportInconsistent(*file);
  } else if (!file->isStd) {
    isWhole = zov_flClose(file->fd) == ZOV_OKAY;
  }
  cleanupFile(file);
  return isWhole;
}

}  // namespace zov

extern "C" {

ZOV_FILE zov_fileOpen(const char *path, uint32_t openFlags, uint32_t typeFlags) {
  return zov::mayOpen(path) ? zov::_fileOpenMinSize(path, openFlags, typeFlags) : nullptr;
}

ZOV_FILE zov_fileOpenW(const wchar_t *path, uint32_t openFlags, uint32_t typeFlags) {
  if (!zov::mayOpen(path)) {
    return nullptr;
  }
  return zov::withUTF8(
      ZOV_FILE{nullptr},
      [&](const char *bytes) { return zov::_fileOpenMinSize(bytes, openFlags, typeFlags); }, path);
}

void zov_fileClose(ZOV_FILE file) {
  zov::closesWhole(file);
}

int32_t zov_fileSeek(ZOV_FILE file, int64_t offset, int32_t whence) {
  return file->mfile != nullptr ? zov_mfSeek(file->mfile, static_cast<uint64_t>(offset), whence)
                                : zov_flSeek(file->fd, offset, whence);
}

uint32_t zov_fileWrite(ZOV_FILE file, const void *buffer, uint32_t lengthBytes) {
  const uint32_t written = lengthBytes == 0 ? 0 : zov::fileWrite(*file, buffer, lengthBytes);
  assert(written <= lengthBytes || written == ZOV_IO_FAILED);
  return written;
}

uint32_t zov_fileRead(ZOV_FILE file, void *buffer, uint32_t lengthBytes) {
  const uint32_t count = lengthBytes == 0 ? 0 : zov::fileRead(*file, buffer, lengthBytes);
  assert(count <= lengthBytes || count == ZOV_IO_FAILED);
  return count;
}

uint32_t zov_fileSeekWrite(ZOV_FILE file, int64_t offset, const void *buffer,
                           uint32_t lengthBytes) {
  if (lengthBytes == 0) {
    return 0;
  }
  const uint32_t written = zov::fileSeekWrite(*file, offset, buffer, lengthBytes);
  assert(written <= lengthBytes || written == ZOV_IO_FAILED);
  if (written == ZOV_IO_FAILED) [[unlikely]] {
    zov::reportSeek("write");
  }
  return written;
}

uint32_t zov_fileSeekRead(ZOV_FILE file, int64_t offset, void *buffer, uint32_t lengthBytes) {
  if (lengthBytes == 0) {
    return 0;
  }
  const uint32_t count = zov::fileSeekRead(*file, offset, buffer, lengthBytes);
  assert(count <= lengthBytes || count == ZOV_IO_FAILED);
  if (count == ZOV_IO_FAILED) [[unlikely]] {
    zov::reportSeek("read");
  }
  return count;
}

int64_t zov_fileLength(ZOV_FILE file) {
  return file->mfile != nullptr ? static_cast<int64_t>(zov_mfSize(file->mfile))
                                : zov_flSize(file->fd);
}

int64_t zov_fileLengthStat(const char *path, uint32_t typeFlags) {
  if (zov::isInMemory(typeFlags)) {
    return path == nullptr ? 0 : static_cast<int64_t>(zov_mfSizeStat(path));
  }
  struct stat status;
  return path != nullptr && stat(path, &status) == 0 ? status.st_size : -1;
}

int32_t zov_fileSetSize(ZOV_FILE file, int64_t sizeBytes) {
  if (file->mfile != nullptr) {
    return zov_mfSetSize(file->mfile, static_cast<uint64_t>(sizeBytes));
  }
  return zov::isWriteProtected(*file) ? -1 : zov_flSetSize(file->fd, sizeBytes);
}

int32_t zov_fileLock(ZOV_FILE file) {
  return file->mfile != nullptr ? zov_mfLock(file->mfile) : zov::lockFile(*file);
}

// Not analysed: each way releases another lock, and there may be no mutex.
void zov_fileUnlock(ZOV_FILE file) ZOV_NO_ANALYSIS {
  if (file->mfile != nullptr) {
    zov_mfUnlock(file->mfile);
    return;
  }
  zov_flUnlock(file->fd);
  const ZOV_SYNC mutex = file->lockMutex.load(std::memory_order_acquire);
  if (mutex != ZOV_NO_SYNC) {
    zov_syncExitExcl(mutex);
  }
}

int32_t zov_fileSync(ZOV_FILE file) {
  const bool isUnsynced = file->mfile != nullptr || file->isUnsynced;
  return isUnsynced || zov::loadFlag(zov_readonly) != 0 ? ZOV_OKAY : zov_flSync(file->fd);
}

int64_t zov_fileModTimeStat(const char *path, uint32_t typeFlags) {
  if (zov::isInMemory(typeFlags)) {
    return path == nullptr ? 0 : static_cast<int64_t>(zov_mfModTime(path));
  }
  return path == nullptr || zov::loadFlag(zov_diskless) != 0 ? -1 : zov_flModTime(path);
}

int32_t zov_fileInit() {
  zov::fileTag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  return zov::fileTag == ZOV_NO_TAG ? ZOV_ERROR : ZOV_OKAY;
}

void zov_fileTerm() {
  zov_freeTagMemory(zov::fileTag, 1);
  zov::fileTag = ZOV_NO_TAG;
}
}
