// SPDX-License-Identifier: Apache-2.0
//
// How SQLite's calls are made of libzov's:
//
// 1. Pages are read and written at offsets, so connections share no position.
// 2. SQLite's five levels of a lock are counted here, for all connections of the
//    process that have one file open. On disk the first reader also takes the lock of
//    a descriptor, which no other process can have then; the last one lets it go. A
//    process that is killed loses it.
// 3. A name on disk lasts once its directory is synced: after the first sync of a new
//    file, and when SQLite says so after a removal.
// 4. A journal on disk gets the permissions of its database before anything is written
//    to it. libzov has no call for that, but its descriptors are POSIX's. Who opens the
//    empty file in between keeps it open.
// 5. Temporary files are in memory, where nobody else can read them.
#include "sqlite_vfs.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <new>
#include <string>

#include "guard.h"

namespace engines {
namespace {

struct File;

// The locks of one file. File objects are the owners.
struct SharedLock {
  std::string path;
  uint32_t typeFlags;
  uint64_t descriptor;  // ZOV_NO_DESCRIPTOR in memory
  int users;
  int readers;
  const File *reserved;  // may change its pages in memory
  const File *pending;   // lets no new reader in
};

ZOV_SYNC lockTable = ZOV_NO_SYNC;  // sharedLocks and what is in them
std::list<SharedLock> *sharedLocks = nullptr;

struct File : sqlite3_file {
  ZOV_FILE handle;
  SharedLock *lock;  // null but for a database
  int level;
  bool isNew;             // its name is not synced yet
  bool isRemovedAtClose;  // a temporary file
  uint32_t typeFlags;
  std::string path;
};

File &fileOf(sqlite3_file *file) {
  return *static_cast<File *>(file);
}

uint32_t typeFlagsOf(const sqlite3_vfs *vfs) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(vfs->pAppData));
}

// Locks.

SharedLock *findLock(const std::string &path, uint32_t typeFlags) {
  const Guard guard(lockTable);
  for (SharedLock &lock : *sharedLocks) {
    if (lock.path == path && lock.typeFlags == typeFlags) {
      ++lock.users;
      return &lock;
    }
  }
  uint64_t descriptor = ZOV_NO_DESCRIPTOR;
  if (typeFlags == 0 && zov_flOpen(path.c_str(), O_RDONLY, 0, &descriptor) != 0) {
    return nullptr;
  }
  sharedLocks->push_back({path, typeFlags, descriptor, 1, 0, nullptr, nullptr});
  return &sharedLocks->back();
}

void leaveLock(SharedLock *lock) {
  const Guard guard(lockTable);
  if (--lock->users > 0) {
    return;
  }
  if (lock->descriptor != ZOV_NO_DESCRIPTOR) {
    zov_flClose(lock->descriptor);
  }
  sharedLocks->remove_if([lock](const SharedLock &each) { return &each == lock; });
}

int lockShared(SharedLock &lock) {
  if (lock.pending != nullptr) {
    return SQLITE_BUSY;
  }
  if (lock.readers == 0 && lock.descriptor != ZOV_NO_DESCRIPTOR &&
      zov_flLock(lock.descriptor) != ZOV_OKAY) {
    return SQLITE_BUSY;
  }
  ++lock.readers;
  return SQLITE_OK;
}

bool isElses(const File *owner, const File &file) {
  return owner != nullptr && owner != &file;
}

int lockFile(sqlite3_file *base, int level) {
  File &file = fileOf(base);
  const Guard guard(lockTable);
  SharedLock &lock = *file.lock;
  if (level <= file.level) {
    return SQLITE_OK;
  }
  if (level == SQLITE_LOCK_SHARED) {
    const int status = lockShared(lock);
    file.level = status == SQLITE_OK ? level : file.level;
    return status;
  }
  if (isElses(lock.reserved, file) || isElses(lock.pending, file)) {
    return SQLITE_BUSY;
  }
  if (level == SQLITE_LOCK_RESERVED) {
    lock.reserved = &file;
    file.level = level;
    return SQLITE_OK;
  }
  // Not reserved: a journal that is being rolled back still counts as left behind.
  lock.pending = &file;
  file.level = SQLITE_LOCK_PENDING;
  if (lock.readers > 1) {
    return SQLITE_BUSY;
  }
  file.level = level;
  return SQLITE_OK;
}

int unlockFile(sqlite3_file *base, int level) {
  File &file = fileOf(base);
  const Guard guard(lockTable);
  if (level >= file.level) {
    return SQLITE_OK;
  }
  SharedLock &lock = *file.lock;
  lock.reserved = lock.reserved == &file ? nullptr : lock.reserved;
  lock.pending = lock.pending == &file ? nullptr : lock.pending;
  file.level = level;
  if (level == SQLITE_LOCK_NONE && --lock.readers == 0 && lock.descriptor != ZOV_NO_DESCRIPTOR) {
    zov_flUnlock(lock.descriptor);
  }
  return SQLITE_OK;
}

int checkReserved(sqlite3_file *file, int *isReserved) {
  const Guard guard(lockTable);
  *isReserved = fileOf(file).lock->reserved != nullptr;
  return SQLITE_OK;
}

// Files.

int closeFile(sqlite3_file *base) {
  File &file = fileOf(base);
  if (file.lock != nullptr) {
    unlockFile(base, SQLITE_LOCK_NONE);
    leaveLock(file.lock);
  }
  zov_fileClose(file.handle);
  if (file.isRemovedAtClose) {
    zov_fileRemoveEx(file.path.c_str(), file.typeFlags);
  }
  file.~File();
  return SQLITE_OK;
}

// What SQLite reads behind the end is zero.
int readFile(sqlite3_file *file, void *buffer, int length, sqlite3_int64 offset) {
  char *bytes = static_cast<char *>(buffer);
  while (length > 0) {
    const uint32_t got =
        zov_fileSeekRead(fileOf(file).handle, offset, bytes, static_cast<uint32_t>(length));
    if (got == ZOV_IO_FAILED) {
      return SQLITE_IOERR_READ;
    }
    if (got == 0) {
      memset(bytes, 0, static_cast<size_t>(length));
      return SQLITE_IOERR_SHORT_READ;
    }
    bytes += got;
    offset += got;
    length -= static_cast<int>(got);
  }
  return SQLITE_OK;
}

int writeFile(sqlite3_file *file, const void *buffer, int length, sqlite3_int64 offset) {
  const char *bytes = static_cast<const char *>(buffer);
  while (length > 0) {
    const uint32_t done =
        zov_fileSeekWrite(fileOf(file).handle, offset, bytes, static_cast<uint32_t>(length));
    if (done == ZOV_IO_FAILED || done == 0) {
      return errno == ENOSPC ? SQLITE_FULL : SQLITE_IOERR_WRITE;
    }
    bytes += done;
    offset += done;
    length -= static_cast<int>(done);
  }
  return SQLITE_OK;
}

int truncateFile(sqlite3_file *file, sqlite3_int64 size) {
  return zov_fileSetSize(fileOf(file).handle, size) == 0 ? SQLITE_OK : SQLITE_IOERR_TRUNCATE;
}

bool syncDirectoryOf(const std::string &path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  ZOV_FILE handle = zov_fileOpen(directory.c_str(), O_RDONLY | O_DIRECTORY, 0);
  const bool synced = handle != nullptr && zov_fileSync(handle) == ZOV_OKAY;
  if (handle != nullptr) {
    zov_fileClose(handle);
  }
  return synced;
}

int syncFile(sqlite3_file *base, int) {
  File &file = fileOf(base);
  if (zov_fileSync(file.handle) != ZOV_OKAY) {
    return SQLITE_IOERR_FSYNC;
  }
  if (file.isNew && file.typeFlags == 0 && !syncDirectoryOf(file.path)) {
    return SQLITE_IOERR_DIR_FSYNC;
  }
  file.isNew = false;
  return SQLITE_OK;
}

int sizeOfFile(sqlite3_file *file, sqlite3_int64 *size) {
  *size = zov_fileLength(fileOf(file).handle);
  return SQLITE_OK;
}

int controlFile(sqlite3_file *, int, void *) {
  return SQLITE_NOTFOUND;
}

int sectorSize(sqlite3_file *) {
  return 4096;
}

int deviceCharacteristics(sqlite3_file *) {
  return 0;
}

constexpr sqlite3_io_methods kMethods = {
    1,
    closeFile,
    readFile,
    writeFile,
    truncateFile,
    syncFile,
    sizeOfFile,
    lockFile,
    unlockFile,
    checkReserved,
    controlFile,
    sectorSize,
    deviceCharacteristics,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// Opening.

// Lets nobody read a journal who may not read its database.
bool passModeOn(const File &journal) {
  const size_t dash = journal.path.rfind('-');
  struct stat database;
  if (dash == std::string::npos || stat(journal.path.substr(0, dash).c_str(), &database) != 0) {
    return true;
  }
  uint64_t descriptor = ZOV_NO_DESCRIPTOR;
  if (zov_flOpen(journal.path.c_str(), O_RDWR, 0, &descriptor) != 0) {
    return false;
  }
  const bool passed = fchmod(static_cast<int>(descriptor), database.st_mode & 0777) == 0;
  zov_flClose(descriptor);
  return passed;
}

uint32_t openFlagsOf(int flags) {
  uint32_t open = (flags & SQLITE_OPEN_READWRITE) != 0 ? O_RDWR : O_RDONLY;
  open |= (flags & SQLITE_OPEN_CREATE) != 0 ? O_CREAT : 0;
  open |= (flags & SQLITE_OPEN_EXCLUSIVE) != 0 ? O_EXCL : 0;
  return open;
}

std::string temporaryPath() {
  static uint32_t counter = 0;
  const Guard guard(lockTable);
  return "/sqlite-temporary/" + std::to_string(++counter);
}

int openFile(sqlite3_vfs *vfs, const char *name, sqlite3_file *base, int flags, int *outFlags) {
  base->pMethods = nullptr;
  const std::string path = name == nullptr ? temporaryPath() : name;
  const uint32_t typeFlags = name == nullptr ? ZOV_FILE_MEMORY : typeFlagsOf(vfs);
  int32_t existed = 0;
  int32_t isDirectory = 0;
  if ((flags & SQLITE_OPEN_CREATE) != 0) {
    existed = zov_fileValidateEx(path.c_str(), typeFlags, &isDirectory);
  }
  ZOV_FILE handle = zov_fileOpen(path.c_str(), openFlagsOf(flags), typeFlags);
  if (handle == nullptr && (flags & SQLITE_OPEN_READWRITE) != 0) {
    flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
    handle = zov_fileOpen(path.c_str(), O_RDONLY, typeFlags);
  }
  if (handle == nullptr) {
    return SQLITE_CANTOPEN;
  }
  File &file = *new (base) File{};
  file.handle = handle;
  file.level = SQLITE_LOCK_NONE;
  file.isNew = (flags & SQLITE_OPEN_CREATE) != 0 && existed == 0;
  file.isRemovedAtClose = (flags & SQLITE_OPEN_DELETEONCLOSE) != 0;
  file.typeFlags = typeFlags;
  file.path = path;
  file.pMethods = &kMethods;
  const bool isJournal = (flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL)) != 0;
  const bool isPrivate = !isJournal || !file.isNew || typeFlags != 0 || passModeOn(file);
  if ((flags & SQLITE_OPEN_MAIN_DB) != 0) {
    file.lock = findLock(path, typeFlags);
  }
  if (!isPrivate || ((flags & SQLITE_OPEN_MAIN_DB) != 0 && file.lock == nullptr)) {
    closeFile(base);
    base->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  if (outFlags != nullptr) {
    *outFlags = flags;
  }
  return SQLITE_OK;
}

int removeFile(sqlite3_vfs *vfs, const char *path, int syncsDirectory) {
  errno = 0;
  const int32_t status = zov_fileRemoveEx(path, typeFlagsOf(vfs));
  if (status != ZOV_OKAY) {
    return status == ZOV_NOTFOUND || errno == ENOENT ? SQLITE_IOERR_DELETE_NOENT
                                                     : SQLITE_IOERR_DELETE;
  }
  const bool synced = syncsDirectory == 0 || typeFlagsOf(vfs) != 0 || syncDirectoryOf(path);
  return synced ? SQLITE_OK : SQLITE_IOERR_DIR_FSYNC;
}

// An empty journal counts as none, as SQLite's own layer has it.
int accessFile(sqlite3_vfs *vfs, const char *path, int, int *result) {
  int32_t isDirectory = 0;
  *result = zov_fileValidateEx(path, typeFlagsOf(vfs), &isDirectory) != 0 &&
            (isDirectory != 0 || zov_fileLengthStat(path, typeFlagsOf(vfs)) > 0);
  return SQLITE_OK;
}

int fullPathname(sqlite3_vfs *vfs, const char *path, int length, char *out) {
  std::string full = path;
  if (!zov_pathIsFullyQualified(path)) {
    char *current = typeFlagsOf(vfs) != 0 ? nullptr : zov_currdir();
    if (current == nullptr && typeFlagsOf(vfs) == 0) {
      return SQLITE_CANTOPEN;
    }
    full = (current == nullptr ? "" : std::string(current)) + "/" + path;
    zov_freeMem(current, ZOV_DEFAULT_TAG);
  }
  if (full.size() >= static_cast<size_t>(length)) {
    return SQLITE_CANTOPEN;
  }
  memcpy(out, full.c_str(), full.size() + 1);
  return SQLITE_OK;
}

// Time, random bytes, log.

int randomBytes(sqlite3_vfs *, int length, char *out) {
  ZOV_FILE source = zov_fileOpen("/dev/urandom", O_RDONLY, 0);
  const uint32_t got =
      source == nullptr ? 0 : zov_fileRead(source, out, static_cast<uint32_t>(length));
  if (source != nullptr) {
    zov_fileClose(source);
  }
  return got == ZOV_IO_FAILED ? 0 : static_cast<int>(got);
}

int sleepFor(sqlite3_vfs *, int micros) {
  zov_sleep(static_cast<uint32_t>((micros + 999) / 1000));
  return micros;
}

// SQLite counts milliseconds since noon of November 24 of 4714 BC.
int currentTime64(sqlite3_vfs *, sqlite3_int64 *time) {
  constexpr sqlite3_int64 kUnixEpoch = 210866760000000;
  *time = kUnixEpoch + static_cast<sqlite3_int64>(zov_timeNanoSecs() / 1000000);
  return SQLITE_OK;
}

int currentTime(sqlite3_vfs *vfs, double *days) {
  sqlite3_int64 time = 0;
  currentTime64(vfs, &time);
  *days = static_cast<double>(time) / 86400000;
  return SQLITE_OK;
}

int lastError(sqlite3_vfs *, int, char *) {
  return static_cast<int>(zov_errno());
}

void writeLog(void *, int code, const char *message) {
  zov_log("SQLite (%d): %s\n", code, message);
}

// Mutexes. SQLite asks for its static ones by number.

struct SqliteMutex {
  ZOV_SYNC handle;
};

constexpr int kStaticMutexes = SQLITE_MUTEX_STATIC_VFS3 + 1;
SqliteMutex staticMutexes[kStaticMutexes];

sqlite3_mutex *asMutex(SqliteMutex *mutex) {
  return reinterpret_cast<sqlite3_mutex *>(mutex);
}

ZOV_SYNC handleOf(sqlite3_mutex *mutex) {
  return reinterpret_cast<SqliteMutex *>(mutex)->handle;
}

int mutexesBegin() {
  for (SqliteMutex &mutex : staticMutexes) {
    if (mutex.handle == 0) {
      mutex.handle = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
    }
    if (mutex.handle == ZOV_NO_SYNC) {
      return SQLITE_NOMEM;
    }
  }
  return SQLITE_OK;
}

int mutexesEnd() {
  for (SqliteMutex &mutex : staticMutexes) {
    zov_syncDelete(mutex.handle);
    mutex.handle = 0;
  }
  return SQLITE_OK;
}

sqlite3_mutex *allocateMutex(int kind) {
  if (kind > SQLITE_MUTEX_RECURSIVE) {
    return asMutex(&staticMutexes[kind]);
  }
  const ZOV_SYNC handle = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  return handle == ZOV_NO_SYNC ? nullptr : asMutex(new SqliteMutex{handle});
}

void freeMutex(sqlite3_mutex *mutex) {
  zov_syncDelete(handleOf(mutex));
  delete reinterpret_cast<SqliteMutex *>(mutex);
}

// A mutex changes hands between these two, which the analysis cannot follow.
#if defined(__clang__)
[[clang::no_thread_safety_analysis]]
#endif
void enterMutex(sqlite3_mutex *mutex) {
  zov_syncEnterExcl(handleOf(mutex));
}

#if defined(__clang__)
[[clang::no_thread_safety_analysis]]
#endif
void leaveMutex(sqlite3_mutex *mutex) {
  zov_syncExitExcl(handleOf(mutex));
}

// There is no call that tries. SQLite can do without.
int tryMutex(sqlite3_mutex *) {
  return SQLITE_BUSY;
}

constexpr sqlite3_mutex_methods kMutexes = {
    mutexesBegin, mutexesEnd, allocateMutex, freeMutex, enterMutex,
    tryMutex,     leaveMutex, nullptr,       nullptr,
};

sqlite3_vfs vfsOf(const char *name, uint32_t typeFlags) {
  sqlite3_vfs vfs = {};
  vfs.iVersion = 2;
  vfs.szOsFile = sizeof(File);
  vfs.mxPathname = 4096;
  vfs.zName = name;
  vfs.pAppData = reinterpret_cast<void *>(static_cast<uintptr_t>(typeFlags));
  vfs.xOpen = openFile;
  vfs.xDelete = removeFile;
  vfs.xAccess = accessFile;
  vfs.xFullPathname = fullPathname;
  vfs.xRandomness = randomBytes;
  vfs.xSleep = sleepFor;
  vfs.xCurrentTime = currentTime;
  vfs.xCurrentTimeInt64 = currentTime64;
  vfs.xGetLastError = lastError;
  return vfs;
}

sqlite3_vfs onDisk = vfsOf("zov", 0);
sqlite3_vfs inMemory = vfsOf("zov-memory", ZOV_FILE_MEMORY);

}  // namespace

int32_t sqliteBegin() {
  if (zov_init() != ZOV_OKAY) {
    return ZOV_ERROR;
  }
  lockTable = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
  sharedLocks = new std::list<SharedLock>;
  const bool begun = lockTable != ZOV_NO_SYNC &&
                     sqlite3_config(SQLITE_CONFIG_MUTEX, &kMutexes) == SQLITE_OK &&
                     sqlite3_config(SQLITE_CONFIG_LOG, writeLog, nullptr) == SQLITE_OK &&
                     sqlite3_vfs_register(&inMemory, 0) == SQLITE_OK &&
                     sqlite3_vfs_register(&onDisk, 1) == SQLITE_OK;
  if (!begun) {
    sqliteEnd();
  }
  return begun ? ZOV_OKAY : ZOV_ERROR;
}

void sqliteEnd() {
  sqlite3_vfs_unregister(&onDisk);
  sqlite3_vfs_unregister(&inMemory);
  sqlite3_shutdown();
  delete sharedLocks;
  sharedLocks = nullptr;
  zov_syncDelete(lockTable);
  zov_term();
}

}  // namespace engines
