// SPDX-License-Identifier: Apache-2.0
//
// How LevelDB's calls are made of libzov's:
//
// 1. A table file is read at offsets by many threads through one handle.
// 2. A file that is written collects 64 KiB, as the handle has no buffer. The record
//    that names the live files is only worth a sync once their directory is synced.
// 3. The lock of a database belongs to the database and not to a thread: on disk a
//    descriptor's, in memory a name in a list.
// 4. A replaced file is never half of each: rename() on disk; in memory a move, since
//    a rename there takes no name that is in use.
#include "leveldb_env.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>

#include "guard.h"

namespace engines {
namespace {

using leveldb::Slice;
using leveldb::Status;

Status failure(const std::string &path) {
  const int error = errno;
  return error == ENOENT ? Status::NotFound(path, strerror(error))
                         : Status::IOError(path, strerror(error == 0 ? EIO : error));
}

// An open file, closed with the object.
class Handle {
 public:
  Handle(const std::string &path, ZOV_FILE file) : path_(path), file_(file) {}
  ~Handle() { close(); }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  const std::string &path() const { return path_; }
  ZOV_FILE file() const { return file_; }

  // Whether the system had nothing to say about bytes that were written before.
  bool close() {
    errno = 0;
    if (file_ != nullptr) {
      zov_fileClose(file_);
    }
    file_ = nullptr;
    return errno == 0;
  }

 private:
  const std::string path_;
  ZOV_FILE file_;
};

class SequentialReader final : public leveldb::SequentialFile {
 public:
  SequentialReader(const std::string &path, ZOV_FILE file) : handle_(path, file) {}

  Status Read(size_t length, Slice *result, char *scratch) override {
    const uint32_t got = zov_fileRead(handle_.file(), scratch, static_cast<uint32_t>(length));
    *result = Slice(scratch, got == ZOV_IO_FAILED ? 0 : got);
    return got == ZOV_IO_FAILED ? failure(handle_.path()) : Status::OK();
  }

  Status Skip(uint64_t length) override {
    const int32_t status = zov_fileSeek(handle_.file(), static_cast<int64_t>(length), SEEK_CUR);
    return status == ZOV_OKAY ? Status::OK() : failure(handle_.path());
  }

 private:
  Handle handle_;
};

class RandomReader final : public leveldb::RandomAccessFile {
 public:
  RandomReader(const std::string &path, ZOV_FILE file) : handle_(path, file) {}

  Status Read(uint64_t offset, size_t length, Slice *result, char *scratch) const override {
    const uint32_t got = zov_fileSeekRead(handle_.file(), static_cast<int64_t>(offset), scratch,
                                          static_cast<uint32_t>(length));
    *result = Slice(scratch, got == ZOV_IO_FAILED ? 0 : got);
    return got == ZOV_IO_FAILED ? failure(handle_.path()) : Status::OK();
  }

 private:
  Handle handle_;
};

std::string directoryOf(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Makes the names of a directory on disk last.
Status syncDirectory(const std::string &path) {
  Handle directory(path, zov_fileOpen(path.c_str(), O_RDONLY | O_DIRECTORY, 0));
  const bool synced = directory.file() != nullptr && zov_fileSync(directory.file()) == ZOV_OKAY;
  return synced ? Status::OK() : failure(path);
}

class Writer final : public leveldb::WritableFile {
 public:
  Writer(const std::string &path, ZOV_FILE file, bool onDisk)
      : handle_(path, file),
        namesFiles_(onDisk &&
                    path.find("/MANIFEST", directoryOf(path).size() - 1) != std::string::npos) {
    waiting_.reserve(kBufferBytes);
  }
  ~Writer() override { Flush(); }

  Status Append(const Slice &data) override {
    if (waiting_.size() + data.size() > kBufferBytes) {
      const Status status = Flush();
      if (!status.ok() || data.size() > kBufferBytes) {
        return status.ok() ? write(data.data(), data.size()) : status;
      }
    }
    waiting_.append(data.data(), data.size());
    return Status::OK();
  }

  Status Flush() override {
    const Status status = write(waiting_.data(), waiting_.size());
    waiting_.clear();
    return status;
  }

  Status Sync() override {
    Status status = namesFiles_ ? syncDirectory(directoryOf(handle_.path())) : Status::OK();
    if (status.ok()) {
      status = Flush();
    }
    const bool synced = status.ok() && zov_fileSync(handle_.file()) == ZOV_OKAY;
    return status.ok() && !synced ? failure(handle_.path()) : status;
  }

  Status Close() override {
    const Status status = Flush();
    const bool closed = handle_.close();
    return status.ok() && !closed ? failure(handle_.path()) : status;
  }

 private:
  static constexpr size_t kBufferBytes = 64 << 10;

  Status write(const char *bytes, size_t length) {
    while (length > 0 && handle_.file() != nullptr) {
      const uint32_t piece = static_cast<uint32_t>(std::min<size_t>(length, 1 << 30));
      const uint32_t done = zov_fileWrite(handle_.file(), bytes, piece);
      if (done == ZOV_IO_FAILED || done == 0) {
        return failure(handle_.path());
      }
      bytes += done;
      length -= done;
    }
    return Status::OK();
  }

  Handle handle_;
  const bool namesFiles_;
  std::string waiting_;
};

class Lock final : public leveldb::FileLock {
 public:
  Lock(const std::string &lockPath, uint64_t lockDescriptor)
      : path(lockPath), descriptor(lockDescriptor) {}

  const std::string path;
  const uint64_t descriptor;  // ZOV_NO_DESCRIPTOR in memory
};

// One line a record, never synced: a log is read after a crash of the program, not of
// the machine.
class StreamLogger final : public leveldb::Logger {
 public:
  explicit StreamLogger(ZOV_STREAM stream)
      : stream_(stream), mutex_(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE)) {}
  ~StreamLogger() override {
    zov_fclose(stream_);
    zov_syncDelete(mutex_);
  }

  ZOV_PRINTF(2, 0)
  void Logv(const char *format, va_list arguments) override {
    const uint64_t micros = zov_timeNanoSecs() / 1000;
    struct tm parts = {};
    zov_timeLocaltime(static_cast<int64_t>(micros / 1000000), &parts);
    const Guard guard(mutex_);
    zov_fprintf(stream_, "%04d/%02d/%02d-%02d:%02d:%02d.%06d ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<int>(micros % 1000000));
    zov_vfprintf(stream_, format, arguments);
    zov_fprintf(stream_, "\n");
    zov_fflush(stream_);
  }

 private:
  const ZOV_STREAM stream_;
  const ZOV_SYNC mutex_;
};

struct Thread {
  void (*function)(void *);
  void *argument;
};

void *runThread(void *thread) {
  const Thread work = *static_cast<Thread *>(thread);
  delete static_cast<Thread *>(thread);
  work.function(work.argument);
  return nullptr;
}

}  // namespace

ZovEnv::ZovEnv(uint32_t typeFlags)
    : typeFlags_(typeFlags),
      mutex_(zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE)),
      arrived_(zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE)),
      ended_(zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE)) {
  zov_syncStart(arrived_);
}

ZovEnv::~ZovEnv() {
  {
    const Guard guard(mutex_);
    isEnding_ = true;
    zov_syncResume(arrived_);
  }
  zov_syncWait(ended_, ZOV_WAIT_FOREVER);
  { const Guard afterTheSignal(mutex_); }
  zov_syncDelete(ended_);
  zov_syncDelete(arrived_);
  zov_syncDelete(mutex_);
}

Status ZovEnv::NewSequentialFile(const std::string &path, leveldb::SequentialFile **result) {
  ZOV_FILE file = zov_fileOpen(path.c_str(), O_RDONLY, typeFlags_);
  *result = file == nullptr ? nullptr : new SequentialReader(path, file);
  return file == nullptr ? failure(path) : Status::OK();
}

Status ZovEnv::NewRandomAccessFile(const std::string &path, leveldb::RandomAccessFile **result) {
  ZOV_FILE file = zov_fileOpen(path.c_str(), O_RDONLY, typeFlags_);
  *result = file == nullptr ? nullptr : new RandomReader(path, file);
  return file == nullptr ? failure(path) : Status::OK();
}

Status ZovEnv::openWritable(const std::string &path, uint32_t flags,
                            leveldb::WritableFile **result) {
  ZOV_FILE file = zov_fileOpen(path.c_str(), O_WRONLY | O_CREAT | flags, typeFlags_);
  if (file != nullptr && flags == O_APPEND && typeFlags_ != 0) {
    zov_fileSeek(file, 0, SEEK_END);  // a file in memory knows no O_APPEND
  }
  *result = file == nullptr ? nullptr : new Writer(path, file, typeFlags_ == 0);
  return file == nullptr ? failure(path) : Status::OK();
}

Status ZovEnv::NewWritableFile(const std::string &path, leveldb::WritableFile **result) {
  return openWritable(path, O_TRUNC, result);
}

Status ZovEnv::NewAppendableFile(const std::string &path, leveldb::WritableFile **result) {
  return openWritable(path, O_APPEND, result);
}

bool ZovEnv::FileExists(const std::string &path) {
  int32_t isDirectory = 0;
  return zov_fileValidateEx(path.c_str(), typeFlags_, &isDirectory) != 0;
}

Status ZovEnv::GetChildren(const std::string &directory, std::vector<std::string> *result) {
  result->clear();
  ZOV_PATH_WALK walk = zov_pathOpenEx(directory.c_str(), typeFlags_, "*");
  if (walk == nullptr) {
    return failure(directory);
  }
  errno = 0;
  int32_t isDirectory = 0;
  while (const char *name = zov_pathNext(walk, &isDirectory)) {
    result->push_back(name);
  }
  const Status status = errno == 0 ? Status::OK() : failure(directory);
  zov_pathClose(walk);
  return status;
}

Status ZovEnv::RemoveFile(const std::string &path) {
  errno = 0;
  const int32_t status = zov_fileRemoveEx(path.c_str(), typeFlags_);
  errno = status == ZOV_NOTFOUND ? ENOENT : errno;
  return status == ZOV_OKAY ? Status::OK() : failure(path);
}

// A directory in memory is made with the first file in it and never removed.
Status ZovEnv::CreateDir(const std::string &path) {
  errno = 0;
  const int32_t status = typeFlags_ != 0 ? int32_t{ZOV_OKAY} : zov_dirCreate(path.c_str());
  return status == ZOV_OKAY ? Status::OK() : failure(path);
}

Status ZovEnv::RemoveDir(const std::string &path) {
  errno = 0;
  const int32_t status = typeFlags_ != 0 ? int32_t{ZOV_OKAY} : zov_dirRemove(path.c_str());
  return status == ZOV_OKAY ? Status::OK() : failure(path);
}

Status ZovEnv::GetFileSize(const std::string &path, uint64_t *sizeBytes) {
  *sizeBytes = 0;
  if (!FileExists(path)) {
    errno = ENOENT;
    return failure(path);
  }
  *sizeBytes = static_cast<uint64_t>(zov_fileLengthStat(path.c_str(), typeFlags_));
  return Status::OK();
}

Status ZovEnv::RenameFile(const std::string &source, const std::string &target) {
  errno = 0;
  const int32_t status =
      typeFlags_ != 0 ? zov_fileMoveEx(source.c_str(), typeFlags_, target.c_str(), typeFlags_)
                      : zov_flRename(source.c_str(), target.c_str());
  if (status != ZOV_OKAY) {
    return failure(source);
  }
  return typeFlags_ != 0 ? Status::OK() : syncDirectory(directoryOf(target));
}

Status ZovEnv::LockFile(const std::string &path, leveldb::FileLock **lock) {
  *lock = nullptr;
  uint64_t descriptor = ZOV_NO_DESCRIPTOR;
  if (typeFlags_ != 0) {
    const Guard guard(mutex_);
    if (!lockedInMemory_.insert(path).second) {
      return Status::IOError("lock " + path, "already held");
    }
  } else {
    if (zov_flOpen(path.c_str(), O_RDWR | O_CREAT, 0, &descriptor) != 0) {
      return failure(path);
    }
    if (zov_flLock(descriptor) != ZOV_OKAY) {
      const Status status = failure("lock " + path);
      zov_flClose(descriptor);
      return status;
    }
  }
  *lock = new Lock(path, descriptor);
  return Status::OK();
}

Status ZovEnv::UnlockFile(leveldb::FileLock *lock) {
  const Lock *held = static_cast<Lock *>(lock);
  const bool closed = held->descriptor == ZOV_NO_DESCRIPTOR || zov_flClose(held->descriptor) == 0;
  const Status status = closed ? Status::OK() : failure(held->path);
  if (held->descriptor == ZOV_NO_DESCRIPTOR) {
    const Guard guard(mutex_);
    lockedInMemory_.erase(held->path);
  }
  delete lock;
  return status;
}

// False when there is none and the environment ends.
bool ZovEnv::takeWork(Work &work) {
  for (;;) {
    zov_syncWait(arrived_, ZOV_WAIT_FOREVER);
    const Guard guard(mutex_);
    if (!work_.empty()) {
      work = work_.front();
      work_.pop_front();
      return true;
    }
    if (isEnding_) {
      return false;
    }
    zov_syncStart(arrived_);
  }
}

void *ZovEnv::runScheduled(void *env) {
  ZovEnv &self = *static_cast<ZovEnv *>(env);
  Work work;
  while (self.takeWork(work)) {
    work.function(work.argument);
  }
  const Guard guard(self.mutex_);  // a wait alone does not tell that the signal is done
  zov_syncResume(self.ended_);
  return nullptr;
}

// Without a thread the caller does the work.
void ZovEnv::Schedule(void (*function)(void *), void *argument) {
  {
    const Guard guard(mutex_);
    if (!isRunning_) {
      zov_syncStart(ended_);
      isRunning_ = zov_threadBegin(runScheduled, 0, this) == ZOV_OKAY;
    }
    if (isRunning_) {
      work_.push_back({function, argument});
      zov_syncResume(arrived_);
      return;
    }
    zov_syncResume(ended_);
  }
  function(argument);
}

void ZovEnv::StartThread(void (*function)(void *), void *argument) {
  Thread *thread = new Thread{function, argument};
  if (zov_threadBegin(runThread, 0, thread) != ZOV_OKAY) {
    runThread(thread);
  }
}

Status ZovEnv::GetTestDirectory(std::string *path) {
  *path = typeFlags_ != 0 ? "/leveldbtest" : std::string(zov_osTmpdir()) + "/leveldbtest";
  CreateDir(*path);
  return Status::OK();
}

Status ZovEnv::NewLogger(const std::string &path, leveldb::Logger **result) {
  ZOV_STREAM stream = zov_fopenEx(path.c_str(), "w", ZOV_ENC_BYTES, typeFlags_ | ZOV_FILE_NOSYNC);
  *result = stream == nullptr ? nullptr : new StreamLogger(stream);
  return stream == nullptr ? failure(path) : Status::OK();
}

uint64_t ZovEnv::NowMicros() {
  return zov_timeNanoSecs() / 1000;
}

void ZovEnv::SleepForMicroseconds(int micros) {
  zov_sleep(static_cast<uint32_t>((micros + 999) / 1000));
}

}  // namespace engines
